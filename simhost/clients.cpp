#include "simhost/clients.h"

#include <windows.h>

#include <memory>
#include <new>

#include "simhost/fault_point.h"

namespace sim
{
Status SubscriptionClient::Subscribe(ISubscriptionEvents* sink)
{
    journal.Record("SubscriptionCommClient.Subscribe");
    sinks.Add(sink);
    return 0;
}

Status SubscriptionClient::Unsubscribe(ISubscriptionEvents* sink)
{
    journal.Record("SubscriptionCommClient.Unsubscribe");
    sinks.Remove(sink);
    return 0;
}

Status SubscriptionClient::GetSubscription(SubscriptionData* data)
{
    journal.Record("SubscriptionCommClient.GetSubscription");
    if (data == nullptr)
        return ERROR_INVALID_PARAMETER;
    std::lock_guard<std::mutex> lock(recordMutex);
    *data = record;
    return 0;
}

void SubscriptionClient::SetRecord(const SubscriptionData& newRecord)
{
    std::lock_guard<std::mutex> lock(recordMutex);
    record = newRecord;
}

namespace
{
// A record that ends where an inaccessible page begins, as a host's buffer
// may: a sink that reads past the record stops the process on the spot.
class RecordAgainstGuardPage
{
public:
    explicit RecordAgainstGuardPage(const SubscriptionData& source)
    {
        SYSTEM_INFO system{};
        GetSystemInfo(&system);
        const size_t page = system.dwPageSize;
        const size_t span = (sizeof(SubscriptionData) + page - 1) / page * page;
        base = static_cast<char*>(VirtualAlloc(nullptr, span + page, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
        if (base == nullptr)
            throw std::bad_alloc();
        DWORD old = 0;
        VirtualProtect(base + span, page, PAGE_NOACCESS, &old);
        static_assert(sizeof(SubscriptionData) % alignof(SubscriptionData) == 0, "the record ends aligned");
        record = new (base + span - sizeof(SubscriptionData)) SubscriptionData(source);
    }
    ~RecordAgainstGuardPage()
    {
        record->~SubscriptionData();
        VirtualFree(base, 0, MEM_RELEASE);
    }
    RecordAgainstGuardPage(const RecordAgainstGuardPage&) = delete;
    RecordAgainstGuardPage& operator=(const RecordAgainstGuardPage&) = delete;

    SubscriptionData* get() const { return record; }

private:
    char* base = nullptr;
    SubscriptionData* record = nullptr;
};
} // namespace

void SubscriptionClient::Deliver(const SubscriptionData& delivered, bool wait)
{
    auto guarded = std::make_shared<RecordAgainstGuardPage>(delivered);
    SubscriptionData* buffer = guarded->get();
    auto call = [this, guarded, buffer] {
        journal.Record("SubscriptionCommClient -> OnSubscriptionStatusChanged");
        sinks.ForEach([&](ISubscriptionEvents* sink) { sink->OnSubscriptionStatusChanged(buffer); });
        SubscriptionData rubbish;
        rubbish.ServerProductType = -7;
        rubbish.ProductType = -7;
        SetFixedText(rubbish.AccountId, "overwritten");
        SetFixedText(rubbish.BundleId, "overwritten");
        SetFixedText(rubbish.CommercialId, "overwritten");
        *buffer = rubbish;
    };
    thread.Dispatch(call, wait);
}

void SubscriptionClient::DeliverNull(bool wait)
{
    auto call = [this] {
        journal.Record("SubscriptionCommClient -> OnSubscriptionStatusChanged (null)");
        sinks.ForEach([](ISubscriptionEvents* sink) { sink->OnSubscriptionStatusChanged(nullptr); });
    };
    thread.Dispatch(call, wait);
}

Status SessionChangeClient::Subscribe(ISessionChangeEvents* sink)
{
    journal.Record("sessionchange.Subscribe");
    sinks.Add(sink);
    return 0;
}

Status SessionChangeClient::Unsubscribe(ISessionChangeEvents* sink)
{
    journal.Record("sessionchange.Unsubscribe");
    sinks.Remove(sink);
    return 0;
}

void SessionChangeClient::Deliver(uint32_t time, uint32_t event, void* info, bool wait)
{
    auto call = [this, time, event, info] {
        journal.Record("sessionchange -> OnSessionChange " + std::to_string(time) + " " + std::to_string(event) +
                       (info != nullptr ? " info" : " null"));
        sinks.ForEach([&](ISessionChangeEvents* sink) { sink->OnSessionChange(time, event, info); });
    };
    thread.Dispatch(call, wait);
}

Status ServiceStatusClient::AddObserver(IServiceStatusObserver* observer)
{
    journal.Record("QmServiceStatusClient.AddObserver");
    observers.Add(observer);
    return 0;
}

Status ServiceStatusClient::RemoveObserver(IServiceStatusObserver* observer)
{
    journal.Record("QmServiceStatusClient.RemoveObserver");
    observers.Remove(observer);
    return 0;
}

uint32_t ServiceStatusClient::GetStatus(uint32_t service)
{
    const uint32_t status = service == 0 ? hostStatus.load() : 0;
    journal.Record("QmServiceStatusClient.GetStatus " + std::to_string(service) + " -> " + std::to_string(status));
    return status;
}

void ServiceStatusClient::Deliver(uint32_t service, uint32_t status, bool wait)
{
    auto call = [this, service, status] {
        journal.Record("QmServiceStatusClient -> OnServiceStatusChanged " + std::to_string(service) + " " +
                       std::to_string(status));
        observers.ForEach([&](IServiceStatusObserver* observer) { observer->OnServiceStatusChanged(service, status); });
    };
    thread.Dispatch(call, wait);
}

Status ProductAgentAsync::GetUserInfoExAsync()
{
    journal.Record("productagent.GetUserInfoExAsync");
    std::wstring level, text;
    {
        std::lock_guard<std::mutex> lock(answerMutex);
        if (answerTiming == AnswerTiming::Late)
            ++pendingAnswers;
        if (answerTiming != AnswerTiming::Early)
            return 0;
        level = answerLevel;
        text = answerText;
    }
    // Waiting on the reply thread from the reply thread would never end.
    Reply(level, text, !replyThread.IsCurrent());
    return 0;
}

void ProductAgentAsync::SetAnswer(const std::wstring& level, const std::wstring& text, AnswerTiming timing)
{
    std::lock_guard<std::mutex> lock(answerMutex);
    answerLevel = level;
    answerText = text;
    answerTiming = timing;
}

size_t ProductAgentAsync::PendingAnswers() const
{
    std::lock_guard<std::mutex> lock(answerMutex);
    return pendingAnswers;
}

void ProductAgentAsync::AnswerPending(bool wait)
{
    size_t count = 0;
    std::wstring level, text;
    {
        std::lock_guard<std::mutex> lock(answerMutex);
        count = pendingAnswers;
        pendingAnswers = 0;
        level = answerLevel;
        text = answerText;
    }
    for (size_t i = 0; i < count; ++i)
        Reply(level, text, wait);
}

Status ProductAgentAsync::SetResponseSink(IProductAgentResponse* sink)
{
    journal.Record("productagent.SetResponseSink");
    sinks.Add(sink);
    return 0;
}

Status ProductAgentAsync::ClearResponseSink(IProductAgentResponse* sink)
{
    journal.Record("productagent.ClearResponseSink");
    sinks.Remove(sink);
    return 0;
}

void ProductAgentAsync::Reply(const std::wstring& level, const std::wstring& text, bool wait)
{
    auto call = [this, level, text] {
        journal.Record("productagent -> OnGetUserInfoExAsync \"" + Narrow(level.c_str()) + "\"");
        UserInfo info(journal, level, text);
        sinks.ForEach([&](IProductAgentResponse* sink) { sink->OnGetUserInfoExAsync(&info); });
    };
    replyThread.Dispatch(call, wait);
}

void* ProductAgentClient::QueryInterface(const InterfaceId& id)
{
    const bool available = id == ids::ProductAgentCommClientAsync && asyncAvailable;
    journal.Record(std::string("productagentcommclient.QueryInterface -> ") + (available ? "async" : "null"));
    return available ? static_cast<IProductAgentCommClientAsync*>(&async) : nullptr;
}

void ModuleInfo::Release()
{
    journal.Record("module.Release " + appId);
    ++released;
    delete this;
}

uint32_t ModuleInfo::GetConnectAppState()
{
    journal.Record("module.GetConnectAppState " + appId + " -> " + std::to_string(state));
    return state;
}

void ProductAgentClient::SetModule(const std::wstring& appId, uint32_t state)
{
    std::lock_guard<std::mutex> lock(moduleMutex);
    modules[appId] = state;
}

int64_t ProductAgentClient::ModuleState(const std::wstring& appId) const
{
    std::lock_guard<std::mutex> lock(moduleMutex);
    const auto found = modules.find(appId);
    return found == modules.end() ? -1 : static_cast<int64_t>(found->second);
}

std::vector<ProductAgentClient::ConnectStateCall> ProductAgentClient::ConnectStateCalls() const
{
    std::lock_guard<std::mutex> lock(moduleMutex);
    return connectStateCalls;
}

void ProductAgentClient::SetModuleInfoGate(std::function<void(const std::wstring&)> gate)
{
    std::lock_guard<std::mutex> lock(moduleMutex);
    moduleInfoGate = std::move(gate);
}

Status ProductAgentClient::GetModuleInfo(const wchar_t* appId, IModuleInfo** out)
{
    const std::string id = Narrow(appId);
    Status status = ERROR_NOT_FOUND;
    std::function<void(const std::wstring&)> gate;
    {
        std::lock_guard<std::mutex> lock(moduleMutex);
        if (out == nullptr || appId == nullptr)
        {
            status = ERROR_INVALID_PARAMETER;
        }
        else
        {
            *out = nullptr;
            const auto found = modules.find(appId);
            const Status failure = InjectedFailure("GetModuleInfo");
            if (failure != 0)
                status = failure;
            else if (found != modules.end())
            {
                *out = new ModuleInfo(journal, released, id, found->second);
                ++handedOut;
                status = 0;
            }
        }
        gate = moduleInfoGate;
    }
    if (gate && appId != nullptr)
        gate(appId);
    journal.Record("productagentcommclient.GetModuleInfo " + id + " -> " + std::to_string(status));
    return status;
}

Status ProductAgentClient::SetConnectAppState(const wchar_t* appId, bool on)
{
    Status status = setStateFailure;
    if (status == 0)
        status = InjectedFailure("SetConnectAppState");
    {
        std::lock_guard<std::mutex> lock(moduleMutex);
        const auto found = appId != nullptr ? modules.find(appId) : modules.end();
        if (status == 0 && found == modules.end())
            status = ERROR_NOT_FOUND;
        ConnectStateCall call{appId != nullptr ? appId : L"", on, status, -1, -1};
        if (found != modules.end())
            call.before = found->second;
        if (status == 0)
            found->second = on ? 0 : 1;
        if (found != modules.end())
            call.after = found->second;
        connectStateCalls.push_back(call);
    }
    journal.Record("productagentcommclient.SetConnectAppState " + Narrow(appId) + (on ? " on" : " off") + " -> " +
                   std::to_string(status));
    return status;
}

Status ProductAgentClient::Subscribe(IProductAgentEvents* sink)
{
    journal.Record("productagentcommclient.Subscribe");
    sinks.Add(sink);
    return 0;
}

Status ProductAgentClient::Unsubscribe(IProductAgentEvents* sink)
{
    journal.Record("productagentcommclient.Unsubscribe");
    sinks.Remove(sink);
    return 0;
}

void ProductAgentClient::DeliverUserInfoChanged(bool wait)
{
    auto call = [this] {
        journal.Record("productagentcommclient -> OnUserInfoChanged");
        sinks.ForEach([](IProductAgentEvents* sink) { sink->OnUserInfoChanged(); });
    };
    thread.Dispatch(call, wait);
}
} // namespace sim
