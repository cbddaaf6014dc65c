// The simulated event queue: timers on a clock that the test or scenario
// advances, run on the queue's own timer thread, and serial execution objects
// with one worker thread each. Every item handed over is tracked until the
// host releases it, so a test can see that each was released exactly once.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/services.h"
#include "host/work_item.h"
#include "simhost/host_thread.h"
#include "simhost/journal.h"

namespace sim
{
// Every item the host was handed, until it releases it.
class ItemLedger
{
public:
    void Received(EqWorkItem* item, const std::string& name);
    // Releases the item unless it was released already (then counted as a
    // double release and left alone).
    void Release(EqWorkItem* item);

    size_t ReceivedCount() const;
    size_t ReleasedCount() const;
    size_t Outstanding() const;
    size_t DoubleReleases() const;
    size_t ReceivedCount(const std::string& name) const;
    size_t ReleasedCount(const std::string& name) const;

private:
    mutable std::mutex mutex;
    std::map<EqWorkItem*, std::string> live;
    std::map<std::string, size_t> received;
    std::map<std::string, size_t> released;
    size_t doubleReleases = 0;
};

class EventQueue;

class SerialExecution final : public ISerialExecution
{
public:
    SerialExecution(EventQueue& queue, Journal& journal, ItemLedger& ledger);
    ~SerialExecution();

    Status Post(const wchar_t* name, TimerHandle* unused, EqWorkItem* item, uint64_t reserved1, uint32_t reserved2,
                uint32_t reserved3) override;

    // Waits until nothing is queued or running; false on time-out.
    bool WaitIdle(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    // Holds the worker before its next item until Resume (for tests that
    // need items to stay queued).
    void Pause();
    void Resume();

private:
    friend class EventQueue;
    // Waits for a running item, releases the queued ones unrun, ends the worker.
    void Shutdown();
    void Loop();

    struct Entry
    {
        std::string name;
        EqWorkItem* item;
    };

    Journal& journal;
    ItemLedger& ledger;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Entry> queue;
    bool running = false;
    bool paused = false;
    bool stopping = false;
    std::thread worker;
};

class EventQueue final : public IEventQueue
{
public:
    EventQueue(Journal& journal, ItemLedger& ledger);
    // Releases the items of timers never deleted and any serial execution
    // never released (both counted in LiveTimers / LiveSerialExecutions first).
    ~EventQueue();

    // Makes CreateSerialExecution give status while not 0, with no object or,
    // with handOut, with a new object all the same.
    void FailCreateSerialExecution(Status status, bool handOut = false);

    void Reserved1() override {}
    Status SetTimer(const wchar_t* name, TimerHandle* handle, uint32_t firstDelayMs, uint32_t periodMs,
                    EqWorkItem* item, uint64_t reserved1, uint32_t reserved2, uint32_t reserved3) override;
    void Reserved2() override {}
    Status WaitTimer(TimerHandle handle, uint32_t timeoutMs) override;
    Status CancelTimer(TimerHandle handle) override;
    Status DeleteTimer(TimerHandle handle) override;
    void Reserved3() override {}
    Status CreateSerialExecution(ISerialExecution** out) override;
    Status ReleaseSerialExecution(ISerialExecution* serial) override;

    // The clock, in milliseconds since the queue was made.
    uint64_t Now() const;
    // Moves the clock on by ms, running every timer item due in that span
    // in order of due time (then of creation) on the timer thread; returns
    // when they have finished.
    void Advance(uint64_t ms);

    struct TimerInfo
    {
        TimerHandle handle;
        std::string name;
        uint64_t due; // clock time of the next firing; meaningless once fired or cancelled
        uint32_t periodMs;
        bool cancelled;
        bool fired; // a timer without repetition that has run
        size_t runs;
    };
    // Timers not yet deleted, in order of creation.
    std::vector<TimerInfo> Timers() const;
    size_t LiveTimers() const;
    size_t LiveSerialExecutions() const;
    // The serial execution objects handed out and not released.
    std::vector<SerialExecution*> SerialExecutions() const;
    // Calls with a handle that was never given or is already deleted.
    size_t InvalidHandleCalls() const;

private:
    struct Timer
    {
        std::string name;
        uint64_t sequence;
        uint64_t due;
        uint32_t periodMs;
        EqWorkItem* item;
        bool cancelled = false;
        bool fired = false;
        bool running = false;
        bool deletePending = false; // DeleteTimer from the timer's own item
        size_t runs = 0;
    };

    std::shared_ptr<Timer> Find(TimerHandle handle); // mutex held
    void ReleaseTimerItem(Timer& timer);

    Journal& journal;
    ItemLedger& ledger;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::mutex advanceMutex;
    uint64_t now = 0;
    uint64_t nextSequence = 1;
    std::map<TimerHandle, std::shared_ptr<Timer>> timers;
    size_t invalidHandleCalls = 0;
    Status serialFailure = 0;
    bool serialHandOut = false;
    std::vector<std::unique_ptr<SerialExecution>> serials;
    std::set<SerialExecution*> released;
    HostThread timerThread;
};
} // namespace sim
