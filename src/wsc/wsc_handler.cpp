#include "wsc/wsc_handler.h"

#include <winsvc.h>

#include <new>
#include <string>
#include <system_error>

#include "support/boundary.h"
#include "support/logger_stream.h"
#include "support/product_paths.h"
#include "support/registry_values.h"
#include "support/trace_scope.h"

namespace
{
constexpr wchar_t kMarkerName[] = L"UnregFwWscFailed";
constexpr wchar_t kServiceName[] = L"wscsvc";
constexpr wchar_t kServicesDatabase[] = L"ServicesActive";
// SERVICE_QUERY_STATUS | SERVICE_START
constexpr DWORD kServiceAccess = 0x14;

struct ServiceHandles
{
    UniqueServiceHandle manager;
    UniqueServiceHandle service;
};

// The manager and "wscsvc"; both empty unless both opened.
ServiceHandles OpenWscsvc()
{
    ServiceHandles handles;
    handles.manager.reset(OpenSCManagerW(nullptr, kServicesDatabase, SC_MANAGER_CONNECT));
    if (!handles.manager)
        return handles;
    handles.service.reset(OpenServiceW(handles.manager.get(), kServiceName, kServiceAccess));
    if (!handles.service)
        handles.manager.reset();
    return handles;
}
} // namespace

CWscHandler::CWscHandler(HMODULE home) : home(home)
{
    logRef.Acquire();
}

CWscHandler::~CWscHandler()
{
    if (checkThread.joinable())
    {
        if (stopEvent)
            SetEvent(stopEvent.get());
        checkThread.join();
    }
}

Status CWscHandler::Init(IComponentManager* manager)
{
    TraceScope trace(L"CWscHandler::Init");
    Status status = 0;
    servConfig = ComponentHolder<IServConfig>::Acquire(manager, L"productinfo", ids::ServConfig, status);
    if (status != 0)
        logger_stream(logging::LevelError, L"CWscHandler::Init") << "Get serv config failed, err: " << status;
    return status;
}

void CWscHandler::UnregisterFirewallIfNeeded()
{
    TraceScope trace(L"CWscHandler::UnregisterFirewallIfNeeded");
    if (!_WscUnregisterFailed())
        return;
    // One attempt in the life of this object, whatever becomes of it.
    if (checkStarted.exchange(true))
        return;
    stopEvent.reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!stopEvent)
        return;
    try
    {
        checkThread = std::thread(&CWscHandler::_CheckThreadEntry, this);
    }
    catch (const std::system_error& error)
    {
        // As if the event had failed: the marker waits for the next object.
        stopEvent.reset();
        logger_stream(logging::LevelError, L"CWscHandler::UnregisterFirewallIfNeeded")
            << "Cannot start the check thread, err: " << error.code().value();
    }
    catch (const std::bad_alloc&)
    {
        stopEvent.reset();
        logger_stream(logging::LevelError, L"CWscHandler::UnregisterFirewallIfNeeded")
            << "Cannot start the check thread, err: " << ERROR_NOT_ENOUGH_MEMORY;
    }
}

void CWscHandler::_CheckThreadEntry()
{
    CallAtBoundary(L"CWscHandler::_CheckWscsvcAndUninstallFw", [this] { _CheckWscsvcAndUninstallFw(); });
}

bool CWscHandler::_WscUnregisterFailed()
{
    TraceScope trace(L"CWscHandler::_WscUnregisterFailed");
    const wchar_t* productKey = servConfig->GetString(settings::ProductKey.number, settings::ProductKey.section);
    if (IsSettingMissing(productKey))
        return false;
    DWORD value = 0;
    DWORD size = sizeof(value);
    return RegGetValueW(HKEY_LOCAL_MACHINE, productKey, kMarkerName, kDwordValueFlags, nullptr, &value, &size) ==
           ERROR_SUCCESS;
}

void CWscHandler::_CheckWscsvcAndUninstallFw()
{
    TraceScope trace(L"CWscHandler::_CheckWscsvcAndUninstallFw");
    if (_IsWscServiceUp())
    {
        _UninstallFw();
        return;
    }

    // Declared before the handles: the registration lives until the service
    // handle is closed, and must never outlive this record.
    SERVICE_NOTIFYW notify{};
    ServiceHandles handles = OpenWscsvc();
    if (!handles.service)
        return;
    notify.dwVersion = SERVICE_NOTIFY_STATUS_CHANGE;
    notify.pfnNotifyCallback = &CWscHandler::_OnWscsvcNotify;
    notify.pContext = this;
    if (NotifyServiceStatusChangeW(handles.service.get(), SERVICE_NOTIFY_RUNNING, &notify) == ERROR_SUCCESS)
    {
        // Ends when Stop sets the event, or after the callback has run here.
        WaitForSingleObjectEx(stopEvent.get(), INFINITE, TRUE);
    }
    handles.service.reset();
    handles.manager.reset();
}

bool CWscHandler::_IsWscServiceUp()
{
    TraceScope trace(L"CWscHandler::_IsWscServiceUp");
    UniqueServiceHandle manager(OpenSCManagerW(nullptr, kServicesDatabase, SC_MANAGER_CONNECT));
    if (!manager)
        return false;
    UniqueServiceHandle service(OpenServiceW(manager.get(), kServiceName, kServiceAccess));
    if (!service)
        return false;
    SERVICE_STATUS status{};
    const bool up = QueryServiceStatus(service.get(), &status) &&
                    (status.dwCurrentState == SERVICE_START_PENDING || status.dwCurrentState == SERVICE_RUNNING);
    manager.reset();
    service.reset();
    return up;
}

void CALLBACK CWscHandler::_OnWscsvcNotify(void* parameter)
{
    // A callback of the system's, delivered on checkThread.
    CallAtBoundary(L"CWscHandler::_OnWscsvcNotify", [parameter] {
        const auto* notify = static_cast<const SERVICE_NOTIFYW*>(parameter);
        if (notify == nullptr || notify->pContext == nullptr ||
            notify->ServiceStatus.dwCurrentState != SERVICE_RUNNING)
            return;
        // No new registration: checkThread ends after this one notification.
        static_cast<CWscHandler*>(notify->pContext)->_UninstallFw();
    });
}

void CWscHandler::_UninstallFw()
{
    TraceScope trace(L"CWscHandler::_UninstallFw");
    std::error_code ec;
    const std::wstring directory = GetModuleDirectory(home, ec);
    if (ec)
        return; // the job stays open for the next plugin object

    {
        // Freed before the marker goes, whatever UnInstall did.
        const UniqueModule library(LoadLibraryW((directory + L"\\wsc.dll").c_str()));
        if (library)
        {
            logger_stream(logging::LevelInfo, L"CWscHandler::_UninstallFw") << "Module loaded";
            const auto uninstall = reinterpret_cast<WscUnInstallFn>(
                reinterpret_cast<void*>(GetProcAddress(library.get(), "UnInstall")));
            if (uninstall != nullptr)
            {
                uninstall(kWscUninstallOption);
            }
            else
            {
                const DWORD error = GetLastError();
                logger_stream(logging::LevelError, L"CWscHandler::_UninstallFw")
                    << "UnInstall not found in wsc.dll, err: " << error;
            }
        }
    }
    _DeleteUnregisterFailValue();
}

void CWscHandler::_DeleteUnregisterFailValue()
{
    TraceScope trace(L"CWscHandler::_DeleteUnregisterFailValue");
    const wchar_t* productKey = servConfig->GetString(settings::ProductKey.number, settings::ProductKey.section);
    if (!IsSettingMissing(productKey))
        RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, productKey, kMarkerName);
}

void CWscHandler::Stop()
{
    TraceScope trace(L"CWscHandler::Stop");
    if (stopEvent)
        SetEvent(stopEvent.get());
    if (checkThread.joinable())
        checkThread.join();
    stopEvent.reset();
}

void CWscHandler::UnInit()
{
    TraceScope trace(L"CWscHandler::UnInit");
    servConfig.Reset();
}
