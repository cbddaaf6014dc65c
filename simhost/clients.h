// The host's clients that the plugin subscribes to. Each records every call
// in the journal and delivers its events to the registered sinks on a host
// thread of its own. Removing a sink waits for a delivery that is running,
// and no sink is called after its removal.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "config/subscription_data.h"
#include "host/components.h"
#include "host/sinks.h"
#include "simhost/cloud_client.h"
#include "simhost/host_thread.h"
#include "simhost/journal.h"

namespace sim
{
// The sinks of one kind, with the lock that keeps a delivery and a removal
// apart.
template <class Sink>
class SinkList
{
public:
    void Add(Sink* sink)
    {
        std::lock_guard<std::mutex> delivery(deliveryMutex);
        std::lock_guard<std::mutex> lock(mutex);
        sinks.push_back(sink);
    }
    // Waits for a delivery in progress; a sink never added changes nothing.
    void Remove(Sink* sink)
    {
        std::lock_guard<std::mutex> delivery(deliveryMutex);
        std::lock_guard<std::mutex> lock(mutex);
        for (auto it = sinks.begin(); it != sinks.end(); ++it)
        {
            if (*it == sink)
            {
                sinks.erase(it);
                return;
            }
        }
    }
    size_t Size() const
    {
        std::lock_guard<std::mutex> lock(mutex);
        return sinks.size();
    }
    // Calls f on every sink, with removals held off meanwhile.
    template <class F>
    void ForEach(F f)
    {
        std::lock_guard<std::mutex> delivery(deliveryMutex);
        std::vector<Sink*> copy;
        {
            std::lock_guard<std::mutex> lock(mutex);
            copy = sinks;
        }
        for (Sink* sink : copy)
            f(sink);
    }

private:
    std::mutex deliveryMutex;
    mutable std::mutex mutex;
    std::vector<Sink*> sinks;
};

// "SubscriptionCommClient".
class SubscriptionClient final : public ISubscriptionCommClient
{
public:
    explicit SubscriptionClient(Journal& journal) : journal(journal) {}

    void Reserved1() override {}
    Status Subscribe(ISubscriptionEvents* sink) override;
    Status Unsubscribe(ISubscriptionEvents* sink) override;
    Status GetSubscription(SubscriptionData* data) override;

    // What GetSubscription fills in.
    void SetRecord(const SubscriptionData& record);
    size_t SinkCount() const { return sinks.Size(); }
    // OnSubscriptionStatusChanged on this client's thread with a record the
    // client owns, placed so that an inaccessible page follows it; once the
    // sinks return, the client overwrites that record (as a host reusing its
    // buffer would), so a sink that kept the pointer finds rubbish.
    void Deliver(const SubscriptionData& record, bool wait = true);
    // OnSubscriptionStatusChanged(nullptr) on this client's thread.
    void DeliverNull(bool wait = true);

    // Waits until this client's thread has delivered everything queued.
    bool Drain(std::chrono::milliseconds timeout) { return thread.Drain(timeout); }

private:
    Journal& journal;
    std::mutex recordMutex;
    SubscriptionData record;
    SinkList<ISubscriptionEvents> sinks;
    HostThread thread;
};

// "sessionchange".
class SessionChangeClient final : public ISessionChangeClient
{
public:
    explicit SessionChangeClient(Journal& journal) : journal(journal) {}

    void Reserved1() override {}
    Status Subscribe(ISessionChangeEvents* sink) override;
    Status Unsubscribe(ISessionChangeEvents* sink) override;

    size_t SinkCount() const { return sinks.Size(); }
    // OnSessionChange(time, event, info) on this client's thread; with wait,
    // returns when the sinks have run.
    void Deliver(uint32_t time, uint32_t event, void* info, bool wait = true);

    // Waits until this client's thread has delivered everything queued.
    bool Drain(std::chrono::milliseconds timeout) { return thread.Drain(timeout); }

private:
    Journal& journal;
    SinkList<ISessionChangeEvents> sinks;
    HostThread thread;
};

// "QmServiceStatusClient".
class ServiceStatusClient final : public IServiceStatusClient
{
public:
    explicit ServiceStatusClient(Journal& journal) : journal(journal) {}

    // What GetStatus(0) answers; 1 means the host service has loaded.
    void SetStatus(uint32_t status) { hostStatus = status; }

    void Reserved1() override {}
    Status AddObserver(IServiceStatusObserver* observer) override;
    Status RemoveObserver(IServiceStatusObserver* observer) override;
    uint32_t GetStatus(uint32_t service) override;

    size_t ObserverCount() const { return observers.Size(); }
    // OnServiceStatusChanged(service, status) on this client's thread.
    void Deliver(uint32_t service, uint32_t status, bool wait = true);

    // Waits until this client's thread has delivered everything queued.
    bool Drain(std::chrono::milliseconds timeout) { return thread.Drain(timeout); }

private:
    Journal& journal;
    std::atomic<uint32_t> hostStatus{1};
    SinkList<IServiceStatusObserver> observers;
    HostThread thread;
};

// The user information lent to OnGetUserInfoExAsync; records when its
// second text is asked for.
class UserInfo final : public IUserInfo
{
public:
    UserInfo(Journal& journal, std::wstring level, std::wstring text)
        : journal(journal), level(std::move(level)), text(std::move(text))
    {
    }

    void Reserved1() override {}
    const wchar_t* GetOrganizationText() override
    {
        journal.Record("userinfo.GetOrganizationText");
        return text.c_str();
    }
    void Reserved2() override {}
    const wchar_t* GetOrganizationLevel() override { return level.c_str(); }

private:
    Journal& journal;
    std::wstring level;
    std::wstring text;
};

class ProductAgentClient;

// When the product agent answers a GetUserInfoExAsync request by itself.
enum class AnswerTiming
{
    Never, // requests are recorded only; replies come from Reply
    Early, // at once on the reply thread, before GetUserInfoExAsync returns
    Late,  // held until AnswerPending
};

// The asynchronous side of "productagentcommclient", reached by QueryInterface.
class ProductAgentAsync final : public IProductAgentCommClientAsync
{
public:
    explicit ProductAgentAsync(Journal& journal) : journal(journal) {}

    // How later requests are answered, with this level and second text.
    void SetAnswer(const std::wstring& level, const std::wstring& text, AnswerTiming timing);
    // Requests held back by a Late answer.
    size_t PendingAnswers() const;
    // Answers every request held back so far, each on the reply thread; with
    // wait, returns when the sinks have run.
    void AnswerPending(bool wait = true);

    void Reserved1() override {}
    Status GetUserInfoExAsync() override;
    void Reserved2() override {}
    Status SetResponseSink(IProductAgentResponse* sink) override;
    Status ClearResponseSink(IProductAgentResponse* sink) override;

    size_t SinkCount() const { return sinks.Size(); }
    // OnGetUserInfoExAsync on the reply thread, with a UserInfo lent for
    // the call.
    void Reply(const std::wstring& level, const std::wstring& text, bool wait = true);

    // Waits until this client's thread has delivered everything queued.
    bool Drain(std::chrono::milliseconds timeout) { return replyThread.Drain(timeout); }

private:
    Journal& journal;
    mutable std::mutex answerMutex;
    std::wstring answerLevel;
    std::wstring answerText;
    AnswerTiming answerTiming = AnswerTiming::Never;
    size_t pendingAnswers = 0;
    SinkList<IProductAgentResponse> sinks;
    HostThread replyThread;
};

// A module that GetModuleInfo hands out: a snapshot of its connect state,
// counting its Release in the client.
class ModuleInfo final : public IModuleInfo
{
public:
    ModuleInfo(Journal& journal, std::atomic<size_t>& released, std::string appId, uint32_t state)
        : journal(journal), released(released), appId(std::move(appId)), state(state)
    {
    }

    void Reserved1() override {}
    void Release() override;
    void Reserved2() override {}
    uint32_t GetConnectAppState() override;

private:
    Journal& journal;
    std::atomic<size_t>& released;
    std::string appId;
    uint32_t state;
};

// "productagentcommclient".
class ProductAgentClient final : public IProductAgentCommClient
{
public:
    explicit ProductAgentClient(Journal& journal) : journal(journal), async(journal) {}

    // The module under appId with its connect state (1: off); GetModuleInfo
    // of any other identifier fails with ERROR_NOT_FOUND.
    void SetModule(const std::wstring& appId, uint32_t state);
    // The state now, or -1 for an unknown module.
    int64_t ModuleState(const std::wstring& appId) const;
    // SetConnectAppState gives status (0: works and changes the state).
    void FailSetConnectAppState(Status status) { setStateFailure = status; }
    // Module objects handed out and released so far.
    size_t ModulesHandedOut() const { return handedOut; }
    size_t ModulesReleased() const { return released; }
    // One SetConnectAppState call: identifier, on or off, its status, and the
    // module's state before and after (-1: no such module).
    struct ConnectStateCall
    {
        std::wstring appId;
        bool on = false;
        Status status = 0;
        int64_t before = -1;
        int64_t after = -1;
    };
    // Every SetConnectAppState call so far, in order.
    std::vector<ConnectStateCall> ConnectStateCalls() const;
    // Called inside GetModuleInfo with the identifier, once the module's
    // state has been taken and outside the client's lock: a test holds a
    // caller there while another thread runs.
    void SetModuleInfoGate(std::function<void(const std::wstring&)> gate);

    // Whether QueryInterface gives the asynchronous interface.
    void SetAsyncAvailable(bool available) { asyncAvailable = available; }
    ProductAgentAsync& Async() { return async; }

    void* QueryInterface(const InterfaceId& id) override;
    void Reserved1() override {}
    Status GetModuleInfo(const wchar_t* appId, IModuleInfo** out) override;
    void Reserved2() override {}
    Status SetConnectAppState(const wchar_t* appId, bool on) override;
    Status Subscribe(IProductAgentEvents* sink) override;
    Status Unsubscribe(IProductAgentEvents* sink) override;

    size_t SinkCount() const { return sinks.Size(); }
    // OnUserInfoChanged on this client's thread.
    void DeliverUserInfoChanged(bool wait = true);

    // Waits until this client's thread has delivered everything queued.
    bool Drain(std::chrono::milliseconds timeout) { return thread.Drain(timeout); }

private:
    Journal& journal;
    std::atomic<bool> asyncAvailable{true};
    mutable std::mutex moduleMutex;
    std::map<std::wstring, uint32_t> modules;
    std::vector<ConnectStateCall> connectStateCalls;
    std::function<void(const std::wstring&)> moduleInfoGate;
    std::atomic<Status> setStateFailure{0};
    std::atomic<size_t> handedOut{0};
    std::atomic<size_t> released{0};
    ProductAgentAsync async;
    SinkList<IProductAgentEvents> sinks;
    HostThread thread;
};
} // namespace sim
