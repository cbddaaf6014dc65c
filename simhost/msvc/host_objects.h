// The host objects of the host built for Microsoft's C++ ABI. Each counts
// what the plugin calls on it and writes it to the journal; the entry points
// in msvc_host.cpp play the host's side.
#pragma once

#include "host/components.h"
#include "host/eq_work_item.h"
#include "host/interface_id.h"
#include "host/services.h"
#include "host/sinks.h"
#include "simhost/msvc/runtime.h"

namespace msvc
{
// Counters by name, and the journal; one lock guards both.
void Count(const char* name, const char* detail = nullptr);
void Count(const char* name, const wchar_t* detail);
int CountOf(const char* name);
void Journal(const char* line, const wchar_t* detail = nullptr, uint64_t number = ~0ull);
const char* JournalText();

// Every item handed to the host, with its name, its runs and its release.
class ItemLedger
{
public:
    void HandedOver(EqWorkItem* item, const wchar_t* name);
    void Run(EqWorkItem* item);
    // Release once; a second release of the same item is counted, not made.
    void Release(EqWorkItem* item);
    void ReleaseAll();

private:
    struct Entry
    {
        EqWorkItem* item;
        wchar_t name[64];
        int runs;
        bool released;
    };
    Entry* Find(EqWorkItem* item);

    Entry entries[512] = {};
    int count = 0;
};

class Settings final : public IServConfig
{
public:
    void Reserved1() override {}
    const wchar_t* GetString(uint32_t number, const wchar_t* section) override;

    void Set(uint32_t number, const wchar_t* section, const wchar_t* value);

private:
    struct Setting
    {
        uint32_t number;
        wchar_t section[32];
        wchar_t value[260];
    };
    Setting settings[16] = {};
    int count = 0;
};

// What GetModuleInfo hands out: a module of the host's, switched off (1)
// for an identifier ending in ".vpn", on (0) for any other; freed by its
// Release.
class ModuleInfo final : public IModuleInfo
{
public:
    explicit ModuleInfo(uint32_t state) : state(state) {}
    void Reserved1() override {}
    void Release() override;
    void Reserved2() override {}
    uint32_t GetConnectAppState() override;

private:
    uint32_t state;
};

class SubscriptionClient final : public ISubscriptionCommClient
{
public:
    void Reserved1() override {}
    Status Subscribe(ISubscriptionEvents* sink) override;
    Status Unsubscribe(ISubscriptionEvents* sink) override;
    // Fills the plugin's record; its list gets every operation of the table
    // on the way, checked, and ends holding 7, 8, 9.
    Status GetSubscription(SubscriptionData* data) override;

    ISubscriptionEvents* sink = nullptr;
};

class SessionClient final : public ISessionChangeClient
{
public:
    void Reserved1() override {}
    Status Subscribe(ISessionChangeEvents* sink) override;
    Status Unsubscribe(ISessionChangeEvents* sink) override;

    ISessionChangeEvents* sink = nullptr;
};

class ServiceStatusClient final : public IServiceStatusClient
{
public:
    void Reserved1() override {}
    Status AddObserver(IServiceStatusObserver* observer) override;
    Status RemoveObserver(IServiceStatusObserver* observer) override;
    uint32_t GetStatus(uint32_t service) override;

    IServiceStatusObserver* observer = nullptr;
};

class UserInfo final : public IUserInfo
{
public:
    void Reserved1() override {}
    const wchar_t* GetOrganizationText() override;
    void Reserved2() override {}
    const wchar_t* GetOrganizationLevel() override;

    wchar_t level[64] = {};
    wchar_t text[64] = {};
};

class AgentAsync final : public IProductAgentCommClientAsync
{
public:
    void Reserved1() override {}
    Status GetUserInfoExAsync() override;
    void Reserved2() override {}
    Status SetResponseSink(IProductAgentResponse* sink) override;
    Status ClearResponseSink(IProductAgentResponse* sink) override;

    IProductAgentResponse* sink = nullptr;
};

class AgentClient final : public IProductAgentCommClient
{
public:
    void* QueryInterface(const InterfaceId& id) override;
    void Reserved1() override {}
    Status GetModuleInfo(const wchar_t* appId, IModuleInfo** out) override;
    void Reserved2() override {}
    Status SetConnectAppState(const wchar_t* appId, bool on) override;
    Status Subscribe(IProductAgentEvents* sink) override;
    Status Unsubscribe(IProductAgentEvents* sink) override;

    AgentAsync async;
    IProductAgentEvents* sink = nullptr;
};

// Checks the request as the record's layout gives it (cloud.request_ok or
// cloud.request_bad). Without an answer it gives the failure code 5 and
// leaves the response alone; with one it writes the answer into Body,
// growing it through the manager the string's descriptor names, as the
// service's client does (cloud.body_written, cloud.body_fault).
class CloudClient final : public IConnectIntegrator
{
public:
    void Reserved1() override {}
    void Reserved2() override {}
    CloudStatus PerformRequest(CloudRequest& request, CloudResponse& response, uint32_t flag) override;

    char answer[1024] = {};
    bool answers = false;
};

class SerialExecution final : public ISerialExecution
{
public:
    Status Post(const wchar_t* name, TimerHandle* unused, EqWorkItem* item, uint64_t reserved1, uint32_t reserved2,
                uint32_t reserved3) override;
    // Takes the oldest queued item, or null.
    EqWorkItem* Next();

    EqWorkItem* queue[256] = {};
    int head = 0;
    int tail = 0;
};

class EventQueue final : public IEventQueue
{
public:
    void Reserved1() override {}
    Status SetTimer(const wchar_t* name, TimerHandle* handle, uint32_t firstDelayMs, uint32_t periodMs, EqWorkItem* item,
                    uint64_t reserved1, uint32_t reserved2, uint32_t reserved3) override;
    void Reserved2() override {}
    Status WaitTimer(TimerHandle handle, uint32_t timeoutMs) override;
    Status CancelTimer(TimerHandle handle) override;
    Status DeleteTimer(TimerHandle handle) override;
    void Reserved3() override {}
    Status CreateSerialExecution(ISerialExecution** out) override;
    Status ReleaseSerialExecution(ISerialExecution* serial) override;

    struct Timer
    {
        wchar_t name[64];
        EqWorkItem* item;
        bool cancelled;
        bool deleted;
    };
    // The item of the newest timer of that name that is neither cancelled
    // nor deleted, or null.
    EqWorkItem* LiveTimer(const wchar_t* name);
    // Deletes what the plugin left, releasing its items.
    void DeleteAll();

    Timer timers[128] = {};
    int timerCount = 0;
    SerialExecution serial;
    bool serialHandedOut = false;
};

Settings& SharedSettings();
CloudClient& SharedCloudClient();

class ComponentManager final : public IComponentManager
{
public:
    Status GetComponent(const wchar_t* name, const InterfaceId& id, void** out) override;
    Status ReleaseComponent(const wchar_t* name) override;

    SubscriptionClient subscription;
    SessionClient session;
    ServiceStatusClient serviceStatus;
    AgentClient agent;
};

class ServMain final : public IServMain
{
public:
    void Reserved1() override {}
    IComponentManager* GetComponentManager() override { return &components; }
    void Reserved2() override {}
    IEventQueue* GetEventQueue() override { return &events; }

    ComponentManager components;
    EventQueue events;
};

ItemLedger& Items();
} // namespace msvc
