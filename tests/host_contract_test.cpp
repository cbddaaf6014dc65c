// Both sides of the contract with the host: the simulated host keeps the
// promises the plugin relies on, and a component holder that takes another
// gives the first back under its own name.
#include <windows.h>

#include <gtest/gtest.h>

#include <functional>
#include <thread>

#include "host/holders.h"
#include "host/work_item.h"
#include "simhost/sim_host.h"
#include "support/unique_resource.h"

namespace
{
using Texts = std::vector<std::string>;

class FunctionItem final : public EqWorkItem
{
public:
    explicit FunctionItem(std::function<void()> body) : body(std::move(body)) {}
    void Release() override { ReleaseWorkItem(this); }
    void Run() override { body(); }
    QM_IMPLEMENTS_DESTRUCTOR_SLOT(FunctionItem)

private:
    std::function<void()> body;
};

// Items wait for the gate, 10 s at most.
struct Gate
{
    void Wait() const { WaitForSingleObject(event.get(), 10000); }
    void Open() const { SetEvent(event.get()); }
    UniqueHandle event{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

TimerHandle Arm(sim::Host& host, const wchar_t* name, uint32_t first, uint32_t period, std::function<void()> body)
{
    TimerHandle handle = 0;
    EXPECT_EQ(host.queue.SetTimer(name, &handle, first, period, new FunctionItem(std::move(body)), 0, 0, 0), 0u);
    return handle;
}

// Items run in order of due time, then of creation, on the queue's thread;
// a fired one-shot keeps its handle until DeleteTimer, which releases once.
// An item that cancels its own timer is released at DeleteTimer, one that
// deletes it when its run ends. WaitTimer waits for a running item.
TEST(SimEventQueue, TimersRunInOrderOnTheQueueThreadAndAreReleasedOnce)
{
    sim::Host host;
    const auto caller = std::this_thread::get_id();
    const auto note = [&](const char* what) {
        return [&, what] {
            const bool onCaller = std::this_thread::get_id() == caller;
            const std::string at = "@" + std::to_string(host.queue.Now());
            host.journal.Record(std::string("ran ") + what + at + (onCaller ? " on the caller's thread" : ""));
        };
    };
    const TimerHandle timers[] = {Arm(host, L"late", 300, kNoRepeat, note("late")),
                                  Arm(host, L"hourly", 100, 250, note("hourly")),
                                  Arm(host, L"tie", 100, kNoRepeat, note("tie"))};
    host.queue.Advance(99);
    EXPECT_TRUE(host.journal.LinesStartingWith("ran ").empty());
    host.queue.Advance(500);
    EXPECT_EQ(host.journal.LinesStartingWith("ran "),
              (Texts{"ran hourly@100", "ran tie@100", "ran late@300", "ran hourly@350"}));
    EXPECT_EQ(host.queue.Now(), 599u);
    EXPECT_EQ(host.queue.LiveTimers(), 3u);
    for (const TimerHandle handle : timers)
    {
        EXPECT_EQ(host.queue.CancelTimer(handle), 0u);
        EXPECT_EQ(host.queue.WaitTimer(handle, kWaitForever), 0u);
        EXPECT_EQ(host.queue.DeleteTimer(handle), 0u);
    }
    EXPECT_EQ(host.queue.DeleteTimer(timers[2]), static_cast<Status>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(host.queue.InvalidHandleCalls(), 1u);

    TimerHandle self = 0, deleting = 0;
    self = Arm(host, L"self", 100, 100, [&] { host.queue.CancelTimer(self); });
    deleting = Arm(host, L"deleting", 100, 100, [&] { host.queue.DeleteTimer(deleting); });
    host.queue.Advance(1000);
    EXPECT_EQ(host.journal.Count("Run self"), 1u);
    EXPECT_EQ(host.ledger.Outstanding(), 1u) << "self, until DeleteTimer";
    host.queue.DeleteTimer(self);
    EXPECT_EQ(host.ledger.DoubleReleases(), 0u);
    EXPECT_EQ(host.journal.LinesStartingWith("ran ").size(), 4u) << "a deleted timer ran";

    Gate gate;
    const TimerHandle slow = Arm(host, L"slow", 10, kNoRepeat, [&] {
        gate.Wait();
        host.journal.Record("item ended");
    });
    std::thread advancer([&] { host.queue.Advance(10); });
    EXPECT_TRUE(host.journal.WaitFor("Run slow"));
    std::thread waiter([&] {
        host.queue.CancelTimer(slow);
        host.queue.WaitTimer(slow, kWaitForever);
        host.journal.Record("wait returned");
        host.queue.DeleteTimer(slow);
    });
    EXPECT_TRUE(host.journal.WaitFor("WaitTimer slow"));
    gate.Open();
    waiter.join();
    advancer.join();
    EXPECT_LT(host.journal.Find("item ended"), host.journal.Find("wait returned"));
    EXPECT_EQ(host.ledger.Outstanding(), 0u);
}

// FIFO; the release is seen to have taken effect when a Post is refused, and
// only then does the running item end: the queued items can only be dropped.
TEST(SimSerialExecution, RunsInOrderAndReleaseWaitsThenDropsTheQueue)
{
    sim::Host host;
    ISerialExecution* serial = nullptr;
    ASSERT_EQ(host.queue.CreateSerialExecution(&serial), 0u);
    Gate gate;
    const auto post = [&](const wchar_t* name, std::function<void()> body) {
        return serial->Post(name, nullptr, new FunctionItem(std::move(body)), 0, 0, 0);
    };
    for (int i = 0; i < 5; ++i)
        post(L"ordered", [&, i] { host.journal.Record("ran " + std::to_string(i)); });
    post(L"blocking", [&] {
        gate.Wait();
        host.journal.Record("blocking ended");
    });
    post(L"queued", [] {});
    EXPECT_TRUE(host.journal.WaitFor("Run blocking"));
    std::thread releaser([&] {
        host.queue.ReleaseSerialExecution(serial);
        host.journal.Record("released");
    });
    EXPECT_TRUE(host.journal.WaitFor("ReleaseSerialExecution"));
    size_t probes = 0;
    for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
         post(L"probe", [] {}) == 0 && std::chrono::steady_clock::now() < end;)
        ++probes;
    gate.Open();
    releaser.join();
    EXPECT_EQ(host.journal.LinesStartingWith("ran "), (Texts{"ran 0", "ran 1", "ran 2", "ran 3", "ran 4"}));
    EXPECT_LT(host.journal.Find("blocking ended"), host.journal.Find("released"));
    EXPECT_EQ(host.journal.Count("Release queued (not run)"), 1u);
    EXPECT_EQ(host.journal.Count("Release probe (not run)"), probes);
    EXPECT_EQ(host.journal.Count("Release probe (not run: serial execution released)"), 1u);
    EXPECT_EQ(host.ledger.Outstanding(), 0u);
}

// Moving a new component in gives the old one back under its old name; the
// moved-from holder gives nothing back, and one moved to itself keeps its own.
TEST(ComponentHolder, MoveGivesTheOldComponentBackUnderItsName)
{
    sim::Host host;
    Status status = 0;
    {
        auto target = ComponentHolder<void>::Acquire(&host.components, L"productinfo", ids::ServConfig, status);
        auto source =
            ComponentHolder<void>::Acquire(&host.components, L"connect_integrator", ids::ConnectIntegrator, status);
        target = std::move(source);
        EXPECT_EQ(host.components.Released(L"productinfo"), 1u);
        EXPECT_EQ(host.components.Released(L"connect_integrator"), 0u);
        auto& itself = target;
        target = std::move(itself);
        EXPECT_TRUE(target);
    }
    EXPECT_EQ(host.components.Released(L"connect_integrator"), 1u);
    EXPECT_EQ(host.components.Outstanding(), 0);
}
} // namespace
