// msvc_host.dll (see msvc_host_api.h): one object plays every host object the
// plugin asks for, and MsvcHost_Live plays the plugin's life with it. An item
// posted to the serial execution runs when the life says so and is released
// right after; a timer's item runs when it is fired and is released when the
// plugin deletes the timer.
#include "simhost/msvc/msvc_host_api.h"

#include "host/cloud_records.h"
#include "host/components.h"
#include "host/counted_string_layout.h"
#include "host/eq_work_item.h"
#include "host/list.h"
#include "host/plugin.h"
#include "host/services.h"
#include "host/sinks.h"
#include "host/subscription_record.h"

#define MSVC_HOST_EXPORT extern "C" __declspec(dllexport)

extern "C"
{
    void* memcpy(void* target, const void* source, size_t count);
    __declspec(dllimport) void* __stdcall LoadLibraryW(const wchar_t* name);
    __declspec(dllimport) void* __stdcall GetProcAddress(void* module, const char* name);
    __declspec(dllimport) int __stdcall FreeLibrary(void* module);
}

namespace
{
using Feature = SubscriptionFeatures;
using Node = qm::ListNode<Feature>;

template <class C>
bool SameText(const C* a, const C* b)
{
    for (; a != nullptr && b != nullptr && *a == *b; ++a, ++b)
    {
        if (*a == 0)
            return true;
    }
    return false;
}

void CopyText(char (&target)[kSubscriptionTextChars], const char* text)
{
    for (size_t i = 0; text[i] != '\0' && i + 1 < kSubscriptionTextChars; ++i)
        target[i] = text[i];
}

bool Is(const Feature* value, int expected)
{
    return value != nullptr && *value == static_cast<Feature>(expected);
}

// The counts by slot and the failures: plain data, which needs no constructor.
struct Counter { const char* slot; int count; };
Counter counters[128];
int counterCount;
int reaches; // every Reach, passed or failed
char failures[4096];
size_t failureLength;

Counter* CounterOf(const char* slot)
{
    for (int i = 0; i < counterCount; ++i)
    {
        if (SameText(counters[i].slot, slot))
            return &counters[i];
    }
    return counterCount < 128 ? &(counters[counterCount++] = Counter{slot, 0}) : &counters[0];
}

void Fail(const char* slot, const char* why, const char* detail = "")
{
    const char* const parts[] = {slot, ": ", why, detail, "\n"};
    for (const char* part : parts)
    {
        for (; *part != '\0' && failureLength + 1 < sizeof(failures); ++part)
            failures[failureLength++] = *part;
    }
}

// Counts slot when ok holds, or names it among the failures. Gives what a
// host object answers: 0, or 87 (ERROR_INVALID_PARAMETER).
Status Reach(const char* slot, bool ok = true, const char* why = "an answer off the contract")
{
    ++reaches;
    if (!ok)
        return Fail(slot, why), 87;
    return ++CounterOf(slot)->count, 0;
}

// Calls what the host calls on the plugin: slot counts when call answers
// true and the plugin called evidence on the host meanwhile.
template <class Call>
void Expect(const char* slot, const char* evidence, Call call)
{
    const int before = CounterOf(evidence)->count;
    if (!call() || CounterOf(evidence)->count == before)
        return Fail(slot, "a wrong answer, or no call meanwhile of ", evidence);
    Reach(slot);
}

void ReleaseItem(EqWorkItem* item)
{
    item->Release();
    Reach("EqWorkItem.Release");
}

// Every item of the plugin's calls the host while it runs.
void RunItem(EqWorkItem* item)
{
    const int before = reaches;
    item->Run();
    Reach("EqWorkItem.Run", reaches > before, "an item that called nothing of the host's");
}

// Every slot of the plugin's list and of both its enumerators, each answer
// held against the list's contract (host/list.h).
void ExerciseList(qm::IList<Feature>& list)
{
    const qm::IList<Feature>& constant = list;
    Feature kept = static_cast<Feature>(42);
    list.Clear();
    Reach("IList.Clear", list.Count() == 0);
    Reach("IList.GetLast", list.GetLast(kept) == qm::kListNotFound && kept == static_cast<Feature>(42));
    Reach("IList.Append", list.Append(static_cast<Feature>(1)) == 0 && list.Append(static_cast<Feature>(3)) == 0);
    Reach("IList.Prepend", list.Prepend(static_cast<Feature>(2)) == 0);
    Reach("IList.Count", list.Count() == 3);
    Reach("IList.Last const", Is(constant.Last(), 3));
    Reach("IList.Last", Is(list.Last(), 3));
    Reach("IList.First const", Is(constant.First(), 2));
    Reach("IList.First", Is(list.First(), 2));
    Reach("IList.GetFirst", list.GetFirst(kept) == 0 && kept == static_cast<Feature>(2));

    qm::IListEnum<Feature>* walk = list.Enum();
    Reach("IList.Enum", walk != nullptr);
    Reach("IListEnum.Current", Is(walk->Current(), 2));
    walk->Next();
    Reach("IListEnum.Next", Is(walk->Current(), 1));
    list.Erase(*walk);
    Reach("IList.Erase", list.Count() == 2 && Is(walk->Current(), 3));
    walk->Next();
    Reach("IListEnum.HasMore", !walk->HasMore());
    walk->Reset();
    Reach("IListEnum.Reset", walk->HasMore() && Is(walk->Current(), 2));
    walk->Release();
    Reach("IListEnum.Release");
    delete list.Enum();
    Reach("IListEnum.~");

    qm::IConstListEnum<Feature>* read = constant.ConstEnum();
    int seen = 0;
    for (; read->HasMore(); read->Next())
        seen = seen * 10 + static_cast<int>(*read->Current());
    const char* const walked[] = {"IList.ConstEnum", "IConstListEnum.HasMore", "IConstListEnum.Next",
                                  "IConstListEnum.Current"};
    for (const char* slot : walked)
        Reach(slot, seen == 23);
    read->Reset();
    Reach("IConstListEnum.Reset", Is(read->Current(), 2));
    read->Release();
    Reach("IConstListEnum.Release");
    delete constant.ConstEnum();
    Reach("IConstListEnum.~");
}

// A record as the service builds it: the shared fields, then a list of the
// host's, whose sentinel and nodes follow in the same block. The plugin copies
// such a list node by node and never calls through its table, so the host
// gives it none.
struct HostRecord
{
    SubscriptionFields fields;
    const void* table;
    qm::ListFields<Feature> features;
    Node nodes[4]; // the sentinel and three features
};
static_assert(offsetof(HostRecord, table) == kSubscriptionFeaturesOffset, "record layout");
static_assert(offsetof(HostRecord, nodes) == kSubscriptionDataSize, "record layout");

// A counted string the plugin made, by the layout of its block: the header in
// front of the text holds the descriptor, which names the string's manager.
char* BlockOf(const CountedStringPointer& string)
{
    return string.text - sizeof(qm::CountedStringHeader);
}
qm::CountedStringDescriptor* DescriptorOf(const CountedStringPointer& string)
{
    qm::CountedStringHeader header;
    memcpy(&header, BlockOf(string), sizeof(header));
    return header.leadingGuard == qm::kCountedStringGuard ? header.descriptor : nullptr;
}

// Writes text into the string, grown to its length through the string's own
// manager, the guard behind it included.
bool Write(CountedStringPointer& string, const char* text)
{
    qm::CountedStringDescriptor* descriptor = DescriptorOf(string);
    uint64_t length = 0;
    while (text[length] != '\0')
        ++length;
    void* block =
        descriptor ? descriptor->manager->Realloc(BlockOf(string), length + qm::kCountedStringOverhead) : nullptr;
    if (Reach("IMemMgr.Realloc", block != nullptr) != 0)
        return false;
    string.text = static_cast<char*>(block) + sizeof(qm::CountedStringHeader);
    descriptor->capacity = descriptor->length = length;
    memcpy(string.text, text, length + 1);
    memcpy(string.text + length + 1, &qm::kCountedStringGuard, sizeof(qm::kCountedStringGuard));
    return true;
}

// Frees the string's block and descriptor through its manager, gives the
// manager up, and leaves the string without storage.
bool Empty(CountedStringPointer& string)
{
    qm::CountedStringDescriptor* descriptor = DescriptorOf(string);
    if (descriptor == nullptr || descriptor->ownsDescriptor != 1)
        return false;
    descriptor->manager->Free(BlockOf(string));
    string.text = nullptr;
    qm::IMemMgr* manager = descriptor->manager;
    manager->Free(descriptor);
    manager->Release();
    return Reach("IMemMgr.Free") == 0 && Reach("IMemMgr.Release") == 0;
}

// The two slots by which the plugin registers a sink of type Sink with Interface
// and removes it; the host keeps it in member.
#define MSVC_HOST_SINK(Interface, Add, Remove, Sink, member)                                                           \
    Status Add(Sink* sink) override { return member = sink, Reach(#Interface "." #Add, sink); }                        \
    Status Remove(Sink* sink) override                                                                                 \
    {                                                                                                                  \
        const bool registered = sink == member;                                                                        \
        return member = nullptr, Reach(#Interface "." #Remove, registered, "a sink it had not registered");            \
    }

class Host final : public IServMain, public IComponentManager, public IEventQueue, public ISerialExecution,
                   public IServConfig, public ISubscriptionCommClient, public ISessionChangeClient,
                   public IServiceStatusClient, public IProductAgentCommClient, public IProductAgentCommClientAsync,
                   public IModuleInfo, public IUserInfo, public IConnectIntegrator
{
public:
    void Reserved1() override {}
    void Reserved2() override {}
    void Reserved3() override {}

    IComponentManager* GetComponentManager() override { return Reach("IServMain.GetComponentManager"), this; }
    IEventQueue* GetEventQueue() override { return Reach("IServMain.GetEventQueue"), this; }

    Status GetComponent(const wchar_t* name, const InterfaceId& id, void** out) override
    {
        const Component* component = Named(name);
        const bool ok = component != nullptr && component->id == id;
        if (ok)
            *out = component->object;
        return Reach("IComponentManager.GetComponent", ok, "an unknown name, or another identifier");
    }
    Status ReleaseComponent(const wchar_t* name) override
    {
        return Reach("IComponentManager.ReleaseComponent", Named(name), "an unknown name");
    }

    Status SetTimer(const wchar_t* name, TimerHandle* handle, uint32_t, uint32_t, EqWorkItem* item,
                    uint64_t reserved1, uint32_t reserved2, uint32_t reserved3) override
    {
        const bool ok = name && handle && item && reserved1 == 0 && reserved2 == 0 && reserved3 == 0 && timerCount < 16;
        if (ok)
            timers[timerCount] = Timer{name, item}, *handle = static_cast<TimerHandle>(++timerCount);
        return Reach("IEventQueue.SetTimer", ok);
    }
    Status WaitTimer(TimerHandle handle, uint32_t) override { return Reach("IEventQueue.WaitTimer", Find(handle)); }
    Status CancelTimer(TimerHandle handle) override { return Reach("IEventQueue.CancelTimer", Find(handle)); }
    Status DeleteTimer(TimerHandle handle) override
    {
        Timer* timer = Find(handle);
        if (timer != nullptr)
            ReleaseItem(timer->item), timer->item = nullptr;
        return Reach("IEventQueue.DeleteTimer", timer);
    }
    Status CreateSerialExecution(ISerialExecution** out) override
    {
        return *out = this, Reach("IEventQueue.CreateSerialExecution");
    }
    // Items still queued are released, never run.
    Status ReleaseSerialExecution(ISerialExecution* serial) override
    {
        while (head < tail)
            ReleaseItem(queue[head++]);
        return Reach("IEventQueue.ReleaseSerialExecution", serial == static_cast<ISerialExecution*>(this));
    }
    Status Post(const wchar_t* name, TimerHandle* unused, EqWorkItem* item, uint64_t reserved1, uint32_t reserved2,
                uint32_t reserved3) override
    {
        const bool ok = name && !unused && item && reserved1 == 0 && reserved2 == 0 && reserved3 == 0 && tail < 16;
        if (ok)
            queue[tail++] = item;
        return Reach("ISerialExecution.Post", ok);
    }

    const wchar_t* GetString(uint32_t number, const wchar_t* section) override
    {
        Reach("IServConfig.GetString", section);
        return number == 217 && SameText(section, L"Desktop") ? MSVC_HOST_PRODUCT_KEY : nullptr;
    }

    MSVC_HOST_SINK(ISubscriptionCommClient, Subscribe, Unsubscribe, ISubscriptionEvents, subscriptionSink)
    // The plugin's record: the host fills its list, through every slot.
    Status GetSubscription(SubscriptionData* data) override
    {
        char* features = reinterpret_cast<char*>(data) + kSubscriptionFeaturesOffset;
        ExerciseList(*reinterpret_cast<qm::IList<Feature>*>(features));
        return Reach("ISubscriptionCommClient.GetSubscription");
    }
    MSVC_HOST_SINK(ISessionChangeClient, Subscribe, Unsubscribe, ISessionChangeEvents, sessionSink)
    MSVC_HOST_SINK(IServiceStatusClient, AddObserver, RemoveObserver, IServiceStatusObserver, observer)
    // Not loaded yet: the service reports itself loaded later, to the observer.
    uint32_t GetStatus(uint32_t service) override { return Reach("IServiceStatusClient.GetStatus", service == 0), 0; }

    void* QueryInterface(const InterfaceId& id) override
    {
        const bool async = id == ids::ProductAgentCommClientAsync;
        Reach("IProductAgentCommClient.QueryInterface", async, "another identifier");
        return async ? static_cast<IProductAgentCommClientAsync*>(this) : nullptr;
    }
    // The module object is the host itself, "released" any number of times.
    Status GetModuleInfo(const wchar_t* appId, IModuleInfo** out) override
    {
        return *out = this, Reach("IProductAgentCommClient.GetModuleInfo", appId);
    }
    void Release() override { Reach("IModuleInfo.Release"); }
    // On: the plugin switches it off on a soho bundle.
    uint32_t GetConnectAppState() override { return Reach("IModuleInfo.GetConnectAppState"), 0; }
    // Only ever off: the parental controls on a soho bundle; the VPN is not
    // checked without its setting 227.
    Status SetConnectAppState(const wchar_t* appId, bool on) override
    {
        return Reach("IProductAgentCommClient.SetConnectAppState", appId && !on);
    }
    MSVC_HOST_SINK(IProductAgentCommClient, Subscribe, Unsubscribe, IProductAgentEvents, agentSink)

    Status GetUserInfoExAsync() override { return Reach("IProductAgentCommClientAsync.GetUserInfoExAsync"); }
    MSVC_HOST_SINK(IProductAgentCommClientAsync, SetResponseSink, ClearResponseSink, IProductAgentResponse,
                   responseSink)

    // The level "null" sends the plugin on to the text.
    const wchar_t* GetOrganizationText() override { return Reach("IUserInfo.GetOrganizationText"), L""; }
    const wchar_t* GetOrganizationLevel() override { return Reach("IUserInfo.GetOrganizationLevel"), L"null"; }

    CloudStatus PerformRequest(CloudRequest& request, CloudResponse& response, uint32_t flag) override
    {
        auto& in = reinterpret_cast<CloudRequestRecord&>(request);
        auto& out = reinterpret_cast<CloudResponseRecord&>(response);
        const bool ok = flag == 1 && Write(out.Body, in.Params.text) && Empty(out.Aux);
        Reach("IConnectIntegrator.PerformRequest", ok);
        return CloudStatus{in.TimeoutMs, ok ? 0u : 87u};
    }

    // Runs the queued items in order, each released after its run.
    void RunSerial()
    {
        for (; head < tail; ++head)
            RunItem(queue[head]), ReleaseItem(queue[head]);
    }
    void Fire(const wchar_t* name)
    {
        for (int i = timerCount - 1; i >= 0; --i)
        {
            if (timers[i].item != nullptr && SameText(timers[i].name, name))
                return RunItem(timers[i].item);
        }
        Fail("IEventQueue.SetTimer", "no live timer to fire");
    }

    IServiceStatusObserver* observer = nullptr;
    ISubscriptionEvents* subscriptionSink = nullptr;
    ISessionChangeEvents* sessionSink = nullptr;
    IProductAgentEvents* agentSink = nullptr;
    IProductAgentResponse* responseSink = nullptr;

private:
    struct Component { const wchar_t* name; InterfaceId id; void* object; };
    // name is the plugin's literal; item is null once the timer is deleted.
    struct Timer { const wchar_t* name; EqWorkItem* item; };

    const Component* Named(const wchar_t* name) const
    {
        for (const Component& component : components)
        {
            if (SameText(component.name, name))
                return &component;
        }
        return nullptr;
    }
    Timer* Find(TimerHandle handle)
    {
        const bool known = handle >= 1 && handle <= static_cast<TimerHandle>(timerCount);
        return known && timers[handle - 1].item != nullptr ? &timers[handle - 1] : nullptr;
    }

    const Component components[6] = {
        {L"SubscriptionCommClient", ids::SubscriptionCommClient, static_cast<ISubscriptionCommClient*>(this)},
        {L"sessionchange", ids::SessionChangeClient, static_cast<ISessionChangeClient*>(this)},
        {L"productinfo", ids::ServConfig, static_cast<IServConfig*>(this)},
        {L"QmServiceStatusClient", ids::ServiceStatusClient, static_cast<IServiceStatusClient*>(this)},
        {L"productagentcommclient", ids::ProductAgentCommClient, static_cast<IProductAgentCommClient*>(this)},
        {L"connect_integrator", ids::ConnectIntegrator, static_cast<IConnectIntegrator*>(this)},
    };
    Timer timers[16] = {};
    int timerCount = 0;
    EqWorkItem* queue[16] = {};
    int head = 0;
    int tail = 0;
};

Host& TheHost()
{
    static Host* host = new Host;
    return *host;
}
} // namespace

MSVC_HOST_EXPORT void MsvcHost_Live(const wchar_t* pluginPath)
{
    using CreateObject = Status (*)(const wchar_t* name, const InterfaceId& id, void** out);
    using DestroyObject = void (*)(const wchar_t* name, void* object);
    const wchar_t* const name = L"productconfigplg";
    Host& host = TheHost();
    void* module = LoadLibraryW(pluginPath);
    auto create = reinterpret_cast<CreateObject>(module ? GetProcAddress(module, "QmCreateObject") : nullptr);
    auto destroy = reinterpret_cast<DestroyObject>(module ? GetProcAddress(module, "QmDestroyObject") : nullptr);
    void* object = nullptr;
    if (create == nullptr || destroy == nullptr || create(name, ids::ServPluginA, &object) != 0)
        return Fail("QmCreateObject", "no plugin object");
    auto* plugin = static_cast<IServPlugin*>(object);
    const InterfaceId mixed{ids::ServPluginA.first, ids::ServPluginB.second};
    Reach("IServPlugin.QueryInterface", plugin->QueryInterface(ids::ServPluginA) == plugin &&
                                            plugin->QueryInterface(ids::ServPluginB) == plugin &&
                                            plugin->QueryInterface(mixed) == nullptr);
    Expect("IServPlugin.Init", "IServMain.GetComponentManager", [&] { return plugin->Init(&host) == 0; });
    Expect("IServPlugin.Start", "IServiceStatusClient.GetStatus", [&] { return plugin->Start() == 0; });
    // The service reports itself loaded: the run of _DelayedLoad registers
    // the sinks and asks GetSubscription.
    Expect("IServiceStatusObserver.OnServiceStatusChanged", "ISerialExecution.Post",
           [&] { return host.observer && (host.observer->OnServiceStatusChanged(0, 1), true); });
    host.RunSerial();

    // An account on a soho bundle, with a type of the server's own: the run
    // arms apps_check and the configuration timer; apps_check switches the
    // parental controls off.
    auto* record = new HostRecord{};
    CopyText(record->fields.AccountId, "account-1");
    CopyText(record->fields.BundleId, "bundle.soho");
    record->fields.ProductType = 3;
    record->fields.ServerProductType = 5;
    record->features = qm::ListFields<Feature>{&record->nodes[0], 3};
    for (int i = 0; i < 4; ++i)
        record->nodes[i] = Node{&record->nodes[(i + 1) % 4], &record->nodes[(i + 3) % 4], static_cast<Feature>(i)};
    Expect("ISubscriptionEvents.OnSubscriptionStatusChanged", "ISerialExecution.Post", [&] {
        auto* data = reinterpret_cast<const SubscriptionData*>(record);
        return host.subscriptionSink && (host.subscriptionSink->OnSubscriptionStatusChanged(data), true);
    });
    delete record; // the plugin's item carries a copy
    host.RunSerial();
    host.Fire(L"apps_check");

    // A logon re-arms the configuration timer from the serial execution.
    static char sessionInfo[16];
    Expect("ISessionChangeEvents.OnSessionChange", "ISerialExecution.Post", [&] {
        return host.sessionSink && (host.sessionSink->OnSessionChange(1234, 5 /* logon */, sessionInfo), true);
    });
    host.RunSerial();
    Expect("IProductAgentEvents.OnUserInfoChanged", "IProductAgentCommClientAsync.GetUserInfoExAsync",
           [&] { return host.agentSink && (host.agentSink->OnUserInfoChanged(), true); });
    Expect("IProductAgentResponse.OnGetUserInfoExAsync", "IUserInfo.GetOrganizationText",
           [&] { return host.responseSink && (host.responseSink->OnGetUserInfoExAsync(&host), true); });

    Expect("IServPlugin.Stop", "IServiceStatusClient.RemoveObserver", [&] { return plugin->Stop(), true; });
    Expect("IServPlugin.UnInit", "IComponentManager.ReleaseComponent", [&] { return plugin->UnInit(), true; });
    destroy(name, plugin);
    FreeLibrary(module);
}

MSVC_HOST_EXPORT int MsvcHost_Count(const char* slot) { return CounterOf(slot)->count; }
MSVC_HOST_EXPORT const char* MsvcHost_Failures(void) { return failures; }

MSVC_HOST_EXPORT void MsvcHost_Items(void* ran, void* deleted)
{
    static_cast<EqWorkItem*>(ran)->Run();
    ReleaseItem(static_cast<EqWorkItem*>(ran));
    delete static_cast<EqWorkItem*>(deleted);
    Reach("EqWorkItem.~");
}

MSVC_HOST_EXPORT void MsvcHost_Overloads(void* list, const void** answers)
{
    auto& plain = *static_cast<qm::IList<Feature>*>(list);
    const qm::IList<Feature>& constant = plain;
    answers[0] = plain.Last();
    answers[1] = constant.Last();
    answers[2] = plain.First();
    answers[3] = constant.First();
}

MSVC_HOST_EXPORT void* MsvcHost_CloudClient(void) { return static_cast<IConnectIntegrator*>(&TheHost()); }
