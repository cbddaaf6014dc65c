#include "plugin/product_cfg_plugin.h"

#include <cstdlib>

#include "plugin/factory.h"
#include "support/boundary.h"
#include "support/logger_stream.h"
#include "support/trace_scope.h"

namespace
{
constexpr wchar_t kInit[] = L"CProductConfigurationPlg::Init";

// What sscanf(text, "%llx-%llx-%llx-%llx-%llx") stores: hexadecimal groups
// separated by '-', up to the first that does not scan; the rest stay 0.
// mingw-w64's sscanf allocates a buffer and writes through it unchecked, so
// it cannot be used where memory may run out.
void ScanHexGroups(const char* text, unsigned long long (&groups)[5])
{
    const char* cursor = text;
    for (size_t i = 0; i < 5; ++i)
    {
        if (i > 0 && *cursor++ != '-')
            return;
        char* end = nullptr;
        const unsigned long long value = std::strtoull(cursor, &end, 16);
        if (end == cursor)
            return;
        groups[i] = value;
        cursor = end;
    }
}
} // namespace

CProductConfigurationPlg::CProductConfigurationPlg()
{
    logRef.Acquire();
}

void* CProductConfigurationPlg::QueryInterface(const InterfaceId& id)
{
    return IsAcceptedPluginId(id) ? static_cast<IServPlugin*>(this) : nullptr;
}

Status CProductConfigurationPlg::Init(IServMain* servMain)
{
    // Whatever failed, UnInit has run when Init returns a failure.
    return CallAtBoundary(kInit, [&] { return _Init(servMain); },
                          [this](Status status) {
                              static_cast<IServPlugin*>(this)->UnInit();
                              return status;
                          });
}

Status CProductConfigurationPlg::_Init(IServMain* servMain)
{
    TraceScope trace(kInit);
    Status result = ERROR_GEN_FAILURE;
    // Every failure is logged here, then UnInit gives back what was acquired.
    auto fail = [this, &result](Status status) {
        result = status;
        static_cast<IServPlugin*>(this)->UnInit();
        return result;
    };

    if (servMain == nullptr)
    {
        logger_stream(logging::LevelError, kInit) << "ServMain is null!";
        return fail(ERROR_GEN_FAILURE);
    }
    IComponentManager* manager = servMain->GetComponentManager();
    if (manager == nullptr)
    {
        logger_stream(logging::LevelError, kInit) << "Component manager is null!";
        return fail(ERROR_GEN_FAILURE);
    }
    eventQueue = servMain->GetEventQueue();
    if (eventQueue == nullptr)
    {
        logger_stream(logging::LevelError, kInit) << "Event queue is null!";
        return fail(ERROR_GEN_FAILURE);
    }

    ISerialExecution* serial = nullptr;
    const Status serialStatus = eventQueue->CreateSerialExecution(&serial);
    serialExecution = SerialExecutionHolder(eventQueue, serial);
    if (serialStatus != 0)
    {
        logger_stream(logging::LevelError, kInit)
            << "Error creating serial Execution, err: " << static_cast<int32_t>(serialStatus);
        return fail(serialStatus);
    }

    unsigned long long groups[5] = {};
    ScanHexGroups(ids::SubscriptionCommClientText, groups);
    const InterfaceId subscriptionId = InterfaceIdFromGroups(groups[0], groups[1], groups[2], groups[3], groups[4]);

    Status status = 0;
    subscriptionClient =
        ComponentHolder<ISubscriptionCommClient>::Acquire(manager, L"SubscriptionCommClient", subscriptionId, status);
    if (status != 0)
    {
        logger_stream(logging::LevelError, kInit) << "Get subscription failed: " << status;
        return fail(status);
    }
    sessionClient =
        ComponentHolder<ISessionChangeClient>::Acquire(manager, L"sessionchange", ids::SessionChangeClient, status);
    if (status != 0)
    {
        logger_stream(logging::LevelError, kInit) << "Get session change failed: " << status;
        return fail(status);
    }
    productInfo = ComponentHolder<IServConfig>::Acquire(manager, L"productinfo", ids::ServConfig, status);
    if (status != 0)
    {
        logger_stream(logging::LevelError, kInit) << "Get serv config failed: " << status;
        return fail(status);
    }
    serviceStatusClient = ComponentHolder<IServiceStatusClient>::Acquire(manager, L"QmServiceStatusClient",
                                                                         ids::ServiceStatusClient, status);
    if (status != 0)
    {
        logger_stream(logging::LevelError, kInit) << "Get service status client failed, err: " << status;
        return fail(status);
    }
    productAgentClient = ComponentHolder<IProductAgentCommClient>::Acquire(manager, L"productagentcommclient",
                                                                           ids::ProductAgentCommClient, status);
    if (status != 0)
    {
        logger_stream(logging::LevelError, kInit) << "Get IProductAgent failed, err: " << status;
        return fail(status);
    }
    // The plugin's parts, in this order, each logging its own failure:
    // CWscHandler, CBootstrap, CAppsManager.
    status = wscHandler.Init(manager);
    if (status != 0)
        return fail(status);
    status = bootstrap.Init(servMain);
    if (status != 0)
        return fail(status);

    // CAppsManager logs its own failures.
    status = appsManager.Init(static_cast<IProductCfgInternal*>(this), manager);
    if (status != 0)
        return fail(status);

    productCfgDelayMs = _GetDelay();
    return 0;
}

void CProductConfigurationPlg::UnInit()
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::UnInit";
    CallAtBoundary(kName, [&] {
        TraceScope trace(kName);
        appsManager.UnInit();
        bootstrap.UnInit();
        wscHandler.UnInit();
        serviceStatusClient.Reset();
        subscriptionClient.Reset();
        sessionClient.Reset();
        productInfo.Reset();
        productAgentClient.Reset();
    });
}

Status CProductConfigurationPlg::Start()
{
    // Whatever failed, Stop has run when Start returns a failure.
    return CallAtBoundary(L"CProductConfigurationPlg::Start", [this] { return _Start(); },
                          [this](Status status) {
                              static_cast<IServPlugin*>(this)->Stop();
                              return status;
                          });
}

Status CProductConfigurationPlg::_Start()
{
    TraceScope trace(L"CProductConfigurationPlg::Start");
    SetLastError(0);
    // A manual-reset event: the one SetEvent in Stop must end every wait on
    // it. Owned from the start: taking the lock may fail for want of memory.
    UniqueHandle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const DWORD lastError = GetLastError();
    const bool failed = !event || lastError == ERROR_ALREADY_EXISTS;
    {
        std::lock_guard<SrwMutex> lock(stopEventMutex);
        stopEvent = std::move(event);
    }
    if (failed)
    {
        static_cast<IServPlugin*>(this)->Stop();
        return lastError;
    }

    serviceStatusClient->AddObserver(static_cast<IServiceStatusObserver*>(this));
    if (serviceStatusClient->GetStatus(0) == 1)
        _PostDelayedLoad();
    else
        logger_stream(logging::LevelInfo, L"CProductConfigurationPlg::Start") << "Orbhub service is not loaded yet";
    return 0;
}

void CProductConfigurationPlg::Stop()
{
    CallAtBoundary(L"CProductConfigurationPlg::Stop", [this] { _Stop(); });
}

void CProductConfigurationPlg::_Stop()
{
    TraceScope trace(L"CProductConfigurationPlg::Stop");
    // Before anything below waits: a timer item waiting for an earlier
    // ProductCfg.exe ends now. Otherwise a serial item re-arming the timer
    // waits in WaitTimer for that item, and releasing the serial execution
    // waits for the serial item, for up to a minute.
    stopping = true;
    if (stopEvent)
        SetEvent(stopEvent.get());
    serviceStatusClient->RemoveObserver(static_cast<IServiceStatusObserver*>(this));
    subscriptionClient->Unsubscribe(static_cast<ISubscriptionEvents*>(this));
    sessionClient->Unsubscribe(static_cast<ISessionChangeEvents*>(this));
    productAgentClient->Unsubscribe(static_cast<IProductAgentEvents*>(this));
    IProductAgentCommClientAsync* async = _AsyncAgent();
    if (async != nullptr)
        async->ClearResponseSink(static_cast<IProductAgentResponse*>(this));

    serialExecution.Reset();

    if (stopEvent)
        SetEvent(stopEvent.get());
    if (waitThread.joinable())
        waitThread.join();
    {
        std::lock_guard<SrwMutex> lock(stopEventMutex);
        stopEvent.reset();
    }
    installDoneEvent.reset();
    installerPending = false;
    wscHandler.Stop();

    {
        std::lock_guard<SrwMutex> lock(timerMutex);
        CancelAndDeleteTimer(productCfgTimer);
    }
    CancelAndDeleteTimer(appsCheckTimer);
}

void CProductConfigurationPlg::OnServiceStatusChanged(uint32_t service, uint32_t status)
{
    constexpr wchar_t kName[] = L"CProductConfigurationPlg::OnServiceStatusChanged";
    CallAtBoundary(kName, [&] {
        TraceScope trace(kName);
        if (service == 0 && status == 1)
            _PostDelayedLoad();
    });
}

void CProductConfigurationPlg::_DelayedLoad()
{
    TraceScope trace(L"CProductConfigurationPlg::_DelayedLoad");
    if (delayedLoadDone)
    {
        logger_stream(logging::LevelInfo, L"CProductConfigurationPlg::_DelayedLoad") << "Already initialized";
        return;
    }
    delayedLoadDone = true;

    subscriptionClient->Subscribe(static_cast<ISubscriptionEvents*>(this));
    sessionClient->Subscribe(static_cast<ISessionChangeEvents*>(this));
    productAgentClient->Subscribe(static_cast<IProductAgentEvents*>(this));
    IProductAgentCommClientAsync* async = _AsyncAgent();
    if (async != nullptr)
    {
        async->SetResponseSink(static_cast<IProductAgentResponse*>(this));
        async->GetUserInfoExAsync();
    }
    if (stopping)
    {
        // Stop ran meanwhile and may have removed the sinks before they were
        // registered here: no sink may outlive Stop.
        subscriptionClient->Unsubscribe(static_cast<ISubscriptionEvents*>(this));
        sessionClient->Unsubscribe(static_cast<ISessionChangeEvents*>(this));
        productAgentClient->Unsubscribe(static_cast<IProductAgentEvents*>(this));
        if (async != nullptr)
            async->ClearResponseSink(static_cast<IProductAgentResponse*>(this));
        return;
    }

    // The first record: the sinks are registered already, so a change that
    // arrives meanwhile waits behind this item.
    SubscriptionData first;
    subscriptionClient->GetSubscription(&first);
    _OnSubscriptionChanged(first, true);
}

void CProductConfigurationPlg::_PostDelayedLoad()
{
    auto item = MakeWorkItem<PlainTask>(L"CProductConfigurationPlg::_DelayedLoad", &CProductConfigurationPlg::_DelayedLoad, this);
    ISerialExecution* serial = serialExecution.get();
    if (serial == nullptr)
        return; // stopped: nothing carries work any more; the item is freed here
    serial->Post(L"_DelayedLoad", nullptr, item.release(), 0, 0, 0);
}

IProductAgentCommClientAsync* CProductConfigurationPlg::_AsyncAgent()
{
    return static_cast<IProductAgentCommClientAsync*>(
        productAgentClient->QueryInterface(ids::ProductAgentCommClientAsync));
}

void CProductConfigurationPlg::CancelAndDeleteTimer(TimerHandle& handle)
{
    if (handle == 0)
        return;
    eventQueue->CancelTimer(handle);
    eventQueue->WaitTimer(handle, kWaitForever);
    eventQueue->DeleteTimer(handle);
    handle = 0;
}
