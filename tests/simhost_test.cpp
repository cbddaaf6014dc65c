// The simulated host keeps the promises the plugin relies on: timer items
// run in due order on the queue's thread, WaitTimer waits for a running item,
// a timer's item may cancel its own timer, handles live until DeleteTimer,
// and every item is released once; the serial execution runs FIFO and its
// release waits for the running item and drops the queued ones.
#include <windows.h>

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "simhost/sim_host.h"

namespace
{
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

// A gate that a test opens; waiting on it is bounded.
struct Gate
{
    std::promise<void> opened;
    const std::shared_future<void> open = opened.get_future().share();
    void Open() { opened.set_value(); }
    bool Wait() const { return open.wait_for(std::chrono::seconds(10)) == std::future_status::ready; }
};

// Thread-safe record of what ran, in order.
class Trace
{
public:
    void Add(const std::string& entry)
    {
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back(entry);
    }
    std::vector<std::string> Get()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return entries;
    }

private:
    std::mutex mutex;
    std::vector<std::string> entries;
};

TimerHandle Arm(sim::Host& host, const wchar_t* name, uint32_t first, uint32_t period, std::function<void()> body)
{
    TimerHandle handle = 0;
    EXPECT_EQ(host.queue.SetTimer(name, &handle, first, period, new FunctionItem(std::move(body)), 0, 0, 0), 0u);
    EXPECT_NE(handle, 0u);
    return handle;
}
} // namespace

TEST(SimEventQueue, AdvanceRunsDueItemsInOrderOnTheQueueThread)
{
    sim::Host host;
    Trace trace;
    const auto caller = std::this_thread::get_id();
    std::atomic<bool> onOtherThread{true};
    auto note = [&](const char* what) {
        return [&, what] {
            trace.Add(what + std::string("@") + std::to_string(host.queue.Now()));
            if (std::this_thread::get_id() == caller)
                onOtherThread = false;
        };
    };
    TimerHandle late = Arm(host, L"late", 300, kNoRepeat, note("late"));
    TimerHandle hourly = Arm(host, L"hourly", 100, 250, note("hourly"));
    TimerHandle tie = Arm(host, L"tie", 100, kNoRepeat, note("tie"));

    host.queue.Advance(99);
    EXPECT_TRUE(trace.Get().empty());
    host.queue.Advance(500); // clock 599
    EXPECT_EQ(trace.Get(), (std::vector<std::string>{"hourly@100", "tie@100", "late@300", "hourly@350"}));
    EXPECT_TRUE(onOtherThread);
    EXPECT_EQ(host.queue.Now(), 599u);

    // A fired one-shot keeps its handle until DeleteTimer, which releases once.
    EXPECT_EQ(host.queue.LiveTimers(), 3u);
    for (TimerHandle handle : {late, hourly, tie})
    {
        EXPECT_EQ(host.queue.CancelTimer(handle), 0u);
        EXPECT_EQ(host.queue.WaitTimer(handle, kWaitForever), 0u);
        EXPECT_EQ(host.queue.DeleteTimer(handle), 0u);
    }
    EXPECT_EQ(host.queue.DeleteTimer(tie), static_cast<Status>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(host.queue.InvalidHandleCalls(), 1u);
    EXPECT_EQ(host.ledger.ReleasedCount(), 3u);
    EXPECT_EQ(host.ledger.Outstanding(), 0u);
    host.queue.Advance(10000);
    EXPECT_EQ(trace.Get().size(), 4u);
}

TEST(SimEventQueue, WaitTimerWaitsForTheRunningItem)
{
    sim::Host host;
    Gate gate;
    Trace trace;
    TimerHandle handle = Arm(host, L"slow", 10, kNoRepeat, [&] {
        trace.Add("item started");
        gate.Wait();
        trace.Add("item ended");
    });
    std::thread advancer([&] { host.queue.Advance(10); });
    ASSERT_TRUE(host.journal.WaitFor("Run slow"));

    std::atomic<bool> waitReturned{false};
    std::thread waiter([&] {
        host.queue.CancelTimer(handle);
        host.queue.WaitTimer(handle, kWaitForever);
        waitReturned = true;
        trace.Add("wait returned");
        host.queue.DeleteTimer(handle);
    });
    ASSERT_TRUE(host.journal.WaitFor("WaitTimer slow"));
    EXPECT_FALSE(waitReturned);
    gate.Open();
    waiter.join();
    advancer.join();
    EXPECT_EQ(trace.Get(), (std::vector<std::string>{"item started", "item ended", "wait returned"}));
    EXPECT_EQ(host.ledger.Outstanding(), 0u);
}

TEST(SimEventQueue, AnItemMayCancelAndDeleteItsOwnTimer)
{
    sim::Host host;
    int runs = 0;
    TimerHandle handle = 0;
    handle = Arm(host, L"self", 100, 100, [&] {
        ++runs;
        host.queue.CancelTimer(handle);
    });
    host.queue.Advance(1000);
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(host.ledger.Outstanding(), 1u); // released only at DeleteTimer

    TimerHandle second = 0;
    second = Arm(host, L"selfdelete", 100, 100, [&] { host.queue.DeleteTimer(second); });
    host.queue.Advance(1000);
    EXPECT_EQ(host.ledger.ReleasedCount("selfdelete"), 1u);
    host.queue.DeleteTimer(handle);
    EXPECT_EQ(host.ledger.Outstanding(), 0u);
    EXPECT_EQ(host.ledger.DoubleReleases(), 0u);
}

TEST(SimSerialExecution, RunsInOrderAndReleaseWaitsThenDropsTheQueue)
{
    sim::Host host;
    ISerialExecution* serial = nullptr;
    ASSERT_EQ(host.queue.CreateSerialExecution(&serial), 0u);
    Trace trace;
    Gate gate;
    for (int i = 0; i < 5; ++i)
        serial->Post(L"ordered", nullptr, new FunctionItem([&trace, i] { trace.Add(std::to_string(i)); }), 0, 0, 0);
    serial->Post(L"blocking", nullptr, new FunctionItem([&] {
                     gate.Wait();
                     trace.Add("blocking ended");
                 }),
                 0, 0, 0);
    serial->Post(L"queued", nullptr, new FunctionItem([&] { trace.Add("queued ran"); }), 0, 0, 0);
    ASSERT_TRUE(host.journal.WaitFor("Run blocking"));

    std::thread releaser([&] {
        host.queue.ReleaseSerialExecution(serial);
        trace.Add("released");
    });
    ASSERT_TRUE(host.journal.WaitFor("ReleaseSerialExecution"));
    gate.Open();
    releaser.join();

    EXPECT_EQ(trace.Get(), (std::vector<std::string>{"0", "1", "2", "3", "4", "blocking ended", "released"}));
    EXPECT_EQ(host.journal.Count("Release queued (not run)"), 1u);
    EXPECT_EQ(host.ledger.Outstanding(), 0u);
    EXPECT_EQ(host.queue.LiveSerialExecutions(), 0u);
}

TEST(SimComponentManager, CountsPerNameAndFailsOnRequest)
{
    sim::Host host;
    void* first = nullptr;
    void* second = nullptr;
    EXPECT_EQ(host.components.GetComponent(L"productinfo", ids::ServConfig, &first), 0u);
    EXPECT_EQ(host.components.GetComponent(L"productinfo", ids::ServConfig, &second), 0u);
    EXPECT_EQ(first, second);
    void* wrong = nullptr;
    EXPECT_NE(host.components.GetComponent(L"productinfo", ids::ConnectIntegrator, &wrong), 0u);
    EXPECT_EQ(host.components.GetComponent(L"nosuch", ids::ServConfig, &wrong), static_cast<Status>(ERROR_NOT_FOUND));
    host.components.Fail(L"connect_integrator", 0x80070005u);
    EXPECT_EQ(host.components.GetComponent(L"connect_integrator", ids::ConnectIntegrator, &wrong), 0x80070005u);
    host.components.ReleaseComponent(L"productinfo");
    EXPECT_EQ(host.components.Acquired(L"productinfo"), 2u);
    EXPECT_EQ(host.components.Released(L"productinfo"), 1u);
    EXPECT_EQ(host.components.Requested(L"connect_integrator"), 1u);
    EXPECT_EQ(host.components.Outstanding(), 1);
}

TEST(SimServConfig, MissingSettingsAsNullOrNotFoundText)
{
    sim::Host host;
    host.config.Set(217, L"Desktop", L"SOFTWARE\\Quillmarten");
    EXPECT_STREQ(host.config.GetString(217, L"Desktop"), L"SOFTWARE\\Quillmarten");
    EXPECT_EQ(host.config.GetString(217, L"BASE"), nullptr);
    host.config.SetMissing(sim::ServConfig::Missing::NotFoundText);
    EXPECT_STREQ(host.config.GetString(0, L"BASE"), L"<error-not-found>");
}
