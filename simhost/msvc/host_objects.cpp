#include "simhost/msvc/host_objects.h"

#include "host/cloud_records.h"
#include "host/counted_string_layout.h"
#include "host/subscription_record.h"
#include "simhost/msvc/host_list.h"
#include "simhost/msvc/list_check.h"

namespace msvc
{
namespace
{
struct Counter
{
    char name[96];
    int value;
};

struct State
{
    Lock lock;
    Counter counters[512] = {};
    int counterCount = 0;
    Text journal;
    ItemLedger items;
};

State& Shared()
{
    static State* state = new State;
    return *state;
}

void Name(char (&target)[96], const char* name, const char* detail)
{
    Text text;
    text.Add(name);
    if (detail != nullptr)
    {
        text.Add(":");
        text.Add(detail);
    }
    CopyText(target, sizeof(target), text.Get());
}

void AddCount(const char* full)
{
    State& state = Shared();
    Guard guard(state.lock);
    for (int i = 0; i < state.counterCount; ++i)
    {
        if (SameText(state.counters[i].name, full))
        {
            ++state.counters[i].value;
            return;
        }
    }
    if (state.counterCount < 512)
    {
        CopyText(state.counters[state.counterCount].name, sizeof(state.counters[0].name), full);
        state.counters[state.counterCount++].value = 1;
    }
}
} // namespace

void Count(const char* name, const char* detail)
{
    char full[96];
    Name(full, name, detail);
    AddCount(full);
}

void Count(const char* name, const wchar_t* detail)
{
    char narrow[64];
    NarrowText(narrow, sizeof(narrow), detail);
    Count(name, narrow);
}

int CountOf(const char* name)
{
    State& state = Shared();
    Guard guard(state.lock);
    for (int i = 0; i < state.counterCount; ++i)
    {
        if (SameText(state.counters[i].name, name))
            return state.counters[i].value;
    }
    return 0;
}

void Journal(const char* line, const wchar_t* detail, uint64_t number)
{
    State& state = Shared();
    Guard guard(state.lock);
    state.journal.Add(line);
    if (detail != nullptr)
    {
        state.journal.Add(" ");
        state.journal.Add(detail);
    }
    if (number != ~0ull)
    {
        state.journal.Add(" ");
        state.journal.Add(number);
    }
    state.journal.Add("\n");
}

const char* JournalText()
{
    return Shared().journal.Get();
}

ItemLedger& Items()
{
    return Shared().items;
}

ItemLedger::Entry* ItemLedger::Find(EqWorkItem* item)
{
    Guard guard(Shared().lock);
    for (int i = count - 1; i >= 0; --i)
    {
        if (entries[i].item == item)
            return &entries[i];
    }
    return nullptr;
}

void ItemLedger::HandedOver(EqWorkItem* item, const wchar_t* name)
{
    {
        Guard guard(Shared().lock);
        if (count < 512)
        {
            entries[count].item = item;
            CopyText(entries[count].name, 64, name);
            entries[count].runs = 0;
            entries[count].released = false;
            ++count;
        }
    }
    Count("handed", name);
}

void ItemLedger::Run(EqWorkItem* item)
{
    Entry* entry = Find(item);
    if (entry == nullptr || entry->released)
    {
        Count("run.unknown");
        return;
    }
    ++entry->runs;
    Journal("Run", entry->name);
    item->Run();
    Count("run", entry->name);
}

void ItemLedger::Release(EqWorkItem* item)
{
    Entry* entry = Find(item);
    if (entry == nullptr)
    {
        Count("release.unknown");
        return;
    }
    if (entry->released)
    {
        Count("release.twice", entry->name);
        return;
    }
    entry->released = true;
    Journal("Release", entry->name);
    item->Release();
    Count("release", entry->name);
}

void ItemLedger::ReleaseAll()
{
    for (int i = 0; i < count; ++i)
    {
        if (!entries[i].released)
        {
            Count("release.left", entries[i].name);
            Release(entries[i].item);
        }
    }
}

Settings& SharedSettings()
{
    static Settings* settings = new Settings;
    return *settings;
}

CloudClient& SharedCloudClient()
{
    static CloudClient* client = new CloudClient;
    return *client;
}

void Settings::Set(uint32_t number, const wchar_t* section, const wchar_t* value)
{
    Guard guard(Shared().lock);
    if (count == 16)
        return;
    settings[count].number = number;
    CopyText(settings[count].section, 32, section);
    CopyText(settings[count].value, 260, value);
    ++count;
}

const wchar_t* Settings::GetString(uint32_t number, const wchar_t* section)
{
    Count("GetString", section);
    Guard guard(Shared().lock);
    for (int i = count - 1; i >= 0; --i)
    {
        if (settings[i].number == number && section != nullptr && SameText(settings[i].section, section))
            return settings[i].value;
    }
    return L"<error-not-found>";
}

void ModuleInfo::Release()
{
    Count("module.release");
    delete this;
}

uint32_t ModuleInfo::GetConnectAppState()
{
    Count("module.state");
    return state;
}

Status SubscriptionClient::Subscribe(ISubscriptionEvents* events)
{
    Journal("SubscriptionCommClient.Subscribe");
    sink = events;
    Count("subscribe.subscription");
    return 0;
}

Status SubscriptionClient::Unsubscribe(ISubscriptionEvents* events)
{
    Journal("SubscriptionCommClient.Unsubscribe");
    if (sink == events)
        sink = nullptr;
    Count("unsubscribe.subscription");
    return 0;
}

Status SubscriptionClient::GetSubscription(SubscriptionData* data)
{
    Journal("SubscriptionCommClient.GetSubscription");
    Count("GetSubscription");
    auto* fields = reinterpret_cast<SubscriptionFields*>(data);
    fields->ProductType = 3;
    fields->ServerProductType = 3;
    fields->Valid = true;
    auto* features = reinterpret_cast<qm::IList<SubscriptionFeatures>*>(reinterpret_cast<char*>(data) +
                                                                        kSubscriptionFeaturesOffset);
    const int failures = ExerciseList(*features);
    for (int i = 0; i < failures; ++i)
        Count("list.failures");
    Count("list.exercised");
    return 0;
}

Status SessionClient::Subscribe(ISessionChangeEvents* events)
{
    Journal("sessionchange.Subscribe");
    sink = events;
    Count("subscribe.session");
    return 0;
}

Status SessionClient::Unsubscribe(ISessionChangeEvents* events)
{
    Journal("sessionchange.Unsubscribe");
    if (sink == events)
        sink = nullptr;
    Count("unsubscribe.session");
    return 0;
}

Status ServiceStatusClient::AddObserver(IServiceStatusObserver* added)
{
    Journal("QmServiceStatusClient.AddObserver");
    observer = added;
    Count("observer.add");
    return 0;
}

Status ServiceStatusClient::RemoveObserver(IServiceStatusObserver* removed)
{
    Journal("QmServiceStatusClient.RemoveObserver");
    if (observer == removed)
        observer = nullptr;
    Count("observer.remove");
    return 0;
}

uint32_t ServiceStatusClient::GetStatus(uint32_t service)
{
    Journal("QmServiceStatusClient.GetStatus", nullptr, service);
    Count("GetStatus");
    return 1;
}

const wchar_t* UserInfo::GetOrganizationText()
{
    Count("user_info.text");
    return text;
}

const wchar_t* UserInfo::GetOrganizationLevel()
{
    Count("user_info.level");
    return level;
}

Status AgentAsync::GetUserInfoExAsync()
{
    Journal("productagentcommclient.GetUserInfoExAsync");
    Count("GetUserInfoExAsync");
    return 0;
}

Status AgentAsync::SetResponseSink(IProductAgentResponse* response)
{
    Journal("productagentcommclient.SetResponseSink");
    sink = response;
    Count("response.set");
    return 0;
}

Status AgentAsync::ClearResponseSink(IProductAgentResponse* response)
{
    Journal("productagentcommclient.ClearResponseSink");
    if (sink == response)
        sink = nullptr;
    Count("response.clear");
    return 0;
}

void* AgentClient::QueryInterface(const InterfaceId& id)
{
    Count("agent.QueryInterface");
    if (id == ids::ProductAgentCommClientAsync)
        return &async;
    if (id == ids::ProductAgentCommClient)
        return this;
    return nullptr;
}

Status AgentClient::GetModuleInfo(const wchar_t* appId, IModuleInfo** out)
{
    Journal("productagentcommclient.GetModuleInfo", appId);
    Count("GetModuleInfo", appId);
    const size_t length = TextLength(appId);
    const bool vpn = length >= 4 && SameText(appId + length - 4, L".vpn");
    *out = new ModuleInfo(vpn ? 1u : 0u);
    Count("module.handed");
    return 0;
}

Status AgentClient::SetConnectAppState(const wchar_t* appId, bool on)
{
    Journal(on ? "productagentcommclient.SetConnectAppState on" : "productagentcommclient.SetConnectAppState off",
            appId);
    Count(on ? "SetConnectAppState.on" : "SetConnectAppState.off", appId);
    return 0;
}

Status AgentClient::Subscribe(IProductAgentEvents* events)
{
    Journal("productagentcommclient.Subscribe");
    sink = events;
    Count("subscribe.agent");
    return 0;
}

Status AgentClient::Unsubscribe(IProductAgentEvents* events)
{
    Journal("productagentcommclient.Unsubscribe");
    if (sink == events)
        sink = nullptr;
    Count("unsubscribe.agent");
    return 0;
}

namespace
{
bool GuardHolds(const char* at)
{
    uint32_t value = 0;
    memcpy(&value, at, sizeof(value));
    return value == qm::kCountedStringGuard;
}

// Writes text into a string the plugin made, through the manager its
// descriptor names: the block is grown by Realloc when the text does not fit.
bool WriteCountedString(CountedStringPointer& slot, const char* text)
{
    if (slot.text == nullptr)
        return false;
    char* block = slot.text - sizeof(qm::CountedStringHeader);
    qm::CountedStringHeader header;
    memcpy(&header, block, sizeof(header));
    qm::CountedStringDescriptor* descriptor = header.descriptor;
    if (descriptor == nullptr || !GuardHolds(block) || !GuardHolds(block + 12) || descriptor->ownsBlock != 1 ||
        !GuardHolds(slot.text + descriptor->capacity + 1))
        return false;
    const uint64_t length = TextLength(text);
    if (length > descriptor->capacity)
    {
        const uint64_t capacity = length > descriptor->growth ? length : descriptor->growth;
        char* grown = static_cast<char*>(descriptor->manager->Realloc(block, capacity + qm::kCountedStringOverhead));
        if (grown == nullptr)
            return false;
        Count("cloud.body_grown");
        block = grown;
        slot.text = block + sizeof(qm::CountedStringHeader);
        descriptor->capacity = capacity;
        const uint32_t guard = qm::kCountedStringGuard;
        memcpy(slot.text + capacity + 1, &guard, sizeof(guard));
    }
    memcpy(slot.text, text, length);
    slot.text[length] = '\0';
    descriptor->length = length;
    return true;
}
} // namespace

CloudStatus CloudClient::PerformRequest(CloudRequest& request, CloudResponse& response, uint32_t flag)
{
    Journal("connect_integrator.PerformRequest", nullptr, flag);
    Count("PerformRequest");
    const auto& record = reinterpret_cast<const CloudRequestRecord&>(request);
    const char* params = record.Params.text;
    const char prefix[] = "{\"commercial_details_id\":";
    bool paramsOk = params != nullptr;
    for (size_t i = 0; paramsOk && prefix[i] != '\0'; ++i)
        paramsOk = params[i] == prefix[i];
    const bool ok = record.Path.text != nullptr && SameText(record.Path.text, "connect/commercial_ids") &&
                    record.Method.text != nullptr && SameText(record.Method.text, "get_commercial_id_details") &&
                    record.TimeoutMs == 30000 && record.Reserved == 0 && flag == 1 && paramsOk;
    Count(ok ? "cloud.request_ok" : "cloud.request_bad");
    if (!answers)
        return CloudStatus{0, 5};
    auto& reply = reinterpret_cast<CloudResponseRecord&>(response);
    if (!WriteCountedString(reply.Body, answer))
    {
        Count("cloud.body_fault");
        return CloudStatus{0, 14};
    }
    Count("cloud.body_written");
    return CloudStatus{0, 0};
}

Status SerialExecution::Post(const wchar_t* name, TimerHandle* unused, EqWorkItem* item, uint64_t reserved1,
                             uint32_t reserved2, uint32_t reserved3)
{
    Journal("Post", name);
    if (unused != nullptr || reserved1 != 0 || reserved2 != 0 || reserved3 != 0)
        Count("post.nonzero");
    Items().HandedOver(item, name);
    Guard guard(Shared().lock);
    if (tail - head < 256)
        queue[tail++ % 256] = item;
    return 0;
}

EqWorkItem* SerialExecution::Next()
{
    Guard guard(Shared().lock);
    if (head == tail)
        return nullptr;
    return queue[head++ % 256];
}

Status EventQueue::SetTimer(const wchar_t* name, TimerHandle* handle, uint32_t firstDelayMs, uint32_t periodMs,
                            EqWorkItem* item, uint64_t reserved1, uint32_t reserved2, uint32_t reserved3)
{
    Journal("SetTimer", name, firstDelayMs);
    (void)periodMs;
    if (reserved1 != 0 || reserved2 != 0 || reserved3 != 0)
        Count("timer.nonzero");
    Items().HandedOver(item, name);
    Guard guard(Shared().lock);
    if (timerCount == 128)
        return 8;
    Timer& timer = timers[timerCount++];
    CopyText(timer.name, 64, name);
    timer.item = item;
    *handle = static_cast<TimerHandle>(timerCount);
    return 0;
}

Status EventQueue::WaitTimer(TimerHandle handle, uint32_t timeoutMs)
{
    (void)timeoutMs;
    Journal("WaitTimer", handle > 0 && handle <= static_cast<TimerHandle>(timerCount) ? timers[handle - 1].name : L"?");
    return 0;
}

Status EventQueue::CancelTimer(TimerHandle handle)
{
    if (handle == 0 || handle > static_cast<TimerHandle>(timerCount))
    {
        Count("timer.bad_handle");
        return 6;
    }
    Journal("CancelTimer", timers[handle - 1].name);
    timers[handle - 1].cancelled = true;
    return 0;
}

Status EventQueue::DeleteTimer(TimerHandle handle)
{
    if (handle == 0 || handle > static_cast<TimerHandle>(timerCount) || timers[handle - 1].deleted)
    {
        Count("timer.bad_handle");
        return 6;
    }
    Timer& timer = timers[handle - 1];
    Journal("DeleteTimer", timer.name);
    timer.deleted = true;
    Items().Release(timer.item);
    return 0;
}

Status EventQueue::CreateSerialExecution(ISerialExecution** out)
{
    Journal("CreateSerialExecution");
    Count("serial.create");
    serialHandedOut = true;
    *out = &serial;
    return 0;
}

Status EventQueue::ReleaseSerialExecution(ISerialExecution* released)
{
    Journal("ReleaseSerialExecution");
    Count("serial.release");
    if (released != &serial)
        Count("serial.foreign");
    serialHandedOut = false;
    // Items still queued are released, never run.
    while (EqWorkItem* item = serial.Next())
        Items().Release(item);
    return 0;
}

EqWorkItem* EventQueue::LiveTimer(const wchar_t* name)
{
    Guard guard(Shared().lock);
    for (int i = timerCount - 1; i >= 0; --i)
    {
        if (!timers[i].cancelled && !timers[i].deleted && SameText(timers[i].name, name))
            return timers[i].item;
    }
    return nullptr;
}

void EventQueue::DeleteAll()
{
    for (int i = 0; i < timerCount; ++i)
    {
        if (!timers[i].deleted)
        {
            Count("timer.left", timers[i].name);
            DeleteTimer(static_cast<TimerHandle>(i + 1));
        }
    }
}

Status ComponentManager::GetComponent(const wchar_t* name, const InterfaceId& id, void** out)
{
    Journal("GetComponent", name);
    struct Known
    {
        const wchar_t* name;
        InterfaceId id;
        void* component;
    };
    const Known known[] = {
        {L"SubscriptionCommClient", ids::SubscriptionCommClient, static_cast<ISubscriptionCommClient*>(&subscription)},
        {L"sessionchange", ids::SessionChangeClient, static_cast<ISessionChangeClient*>(&session)},
        {L"productinfo", ids::ServConfig, static_cast<IServConfig*>(&SharedSettings())},
        {L"QmServiceStatusClient", ids::ServiceStatusClient, static_cast<IServiceStatusClient*>(&serviceStatus)},
        {L"productagentcommclient", ids::ProductAgentCommClient, static_cast<IProductAgentCommClient*>(&agent)},
        {L"connect_integrator", ids::ConnectIntegrator, static_cast<IConnectIntegrator*>(&SharedCloudClient())},
    };
    for (const Known& entry : known)
    {
        if (SameText(entry.name, name))
        {
            if (entry.id != id)
            {
                Count("component.wrong_id", name);
                return 1168;
            }
            Count("component.get", name);
            *out = entry.component;
            return 0;
        }
    }
    Count("component.unknown", name);
    return 1168;
}

Status ComponentManager::ReleaseComponent(const wchar_t* name)
{
    Journal("ReleaseComponent", name);
    Count("component.release", name);
    return 0;
}
} // namespace msvc
