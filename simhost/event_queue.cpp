#include "simhost/event_queue.h"
#include "simhost/fault_point.h"

#include <windows.h>

#include <algorithm>

namespace sim
{
namespace
{
TimerHandle nextHandleValue(uint64_t sequence)
{
    // Opaque, never 0, and unlike a small index.
    return static_cast<TimerHandle>(0x7100 + sequence * 0x10);
}
} // namespace

EventQueue::EventQueue(Journal& journal, ItemLedger& ledger) : journal(journal), ledger(ledger) {}

EventQueue::~EventQueue()
{
    for (auto& serial : serials)
    {
        if (released.count(serial.get()) == 0)
        {
            journal.Record("ReleaseSerialExecution (at host shutdown)");
            serial->Shutdown();
        }
    }
    std::map<TimerHandle, std::shared_ptr<Timer>> left;
    {
        std::lock_guard<std::mutex> lock(mutex);
        left.swap(timers);
    }
    for (auto& entry : left)
    {
        journal.Record("Release " + entry.second->name + " (timer never deleted)");
        ledger.Release(entry.second->item);
    }
}

void EventQueue::FailCreateSerialExecution(Status status, bool handOut)
{
    std::lock_guard<std::mutex> lock(mutex);
    serialFailure = status;
    serialHandOut = handOut;
}

Status EventQueue::SetTimer(const wchar_t* name, TimerHandle* handle, uint32_t firstDelayMs, uint32_t periodMs,
                            EqWorkItem* item, uint64_t /*reserved1*/, uint32_t /*reserved2*/, uint32_t /*reserved3*/)
{
    const std::string text = Narrow(name);
    if (item == nullptr || handle == nullptr)
    {
        journal.Record("SetTimer " + text + " -> " + std::to_string(ERROR_INVALID_PARAMETER));
        if (item != nullptr)
        {
            ledger.Received(item, text);
            ledger.Release(item);
        }
        return ERROR_INVALID_PARAMETER;
    }
    ledger.Received(item, text);
    if (const Status failure = InjectedFailure("SetTimer"))
    {
        journal.Record("SetTimer " + text + " -> " + std::to_string(failure));
        ledger.Release(item);
        return failure;
    }
    auto timer = std::make_shared<Timer>();
    timer->name = text;
    timer->periodMs = periodMs;
    timer->item = item;
    TimerHandle value = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        timer->sequence = nextSequence++;
        timer->due = now + firstDelayMs;
        value = nextHandleValue(timer->sequence);
        timers[value] = timer;
    }
    *handle = value;
    journal.Record("SetTimer " + text + " " + std::to_string(firstDelayMs) + " " + std::to_string(periodMs) + " -> 0");
    return 0;
}

std::shared_ptr<EventQueue::Timer> EventQueue::Find(TimerHandle handle)
{
    auto it = timers.find(handle);
    if (it == timers.end())
    {
        ++invalidHandleCalls;
        return nullptr;
    }
    return it->second;
}

Status EventQueue::WaitTimer(TimerHandle handle, uint32_t timeoutMs)
{
    std::unique_lock<std::mutex> lock(mutex);
    std::shared_ptr<Timer> timer = Find(handle);
    if (!timer)
    {
        lock.unlock();
        journal.Record("ERROR WaitTimer with an invalid handle");
        return ERROR_INVALID_HANDLE;
    }
    const std::string name = timer->name;
    if (timer->running && timerThread.IsCurrent())
    {
        lock.unlock();
        journal.Record("ERROR WaitTimer " + name + " from its own item");
        return ERROR_POSSIBLE_DEADLOCK;
    }
    lock.unlock();
    journal.Record("WaitTimer " + name);
    lock.lock();
    auto notRunning = [&] { return !timer->running; };
    if (timeoutMs == kWaitForever)
    {
        changed.wait(lock, notRunning);
        return 0;
    }
    return changed.wait_for(lock, std::chrono::milliseconds(timeoutMs), notRunning) ? 0 : WAIT_TIMEOUT;
}

Status EventQueue::CancelTimer(TimerHandle handle)
{
    std::unique_lock<std::mutex> lock(mutex);
    std::shared_ptr<Timer> timer = Find(handle);
    if (!timer)
    {
        lock.unlock();
        journal.Record("ERROR CancelTimer with an invalid handle");
        return ERROR_INVALID_HANDLE;
    }
    timer->cancelled = true;
    lock.unlock();
    journal.Record("CancelTimer " + timer->name);
    return 0;
}

Status EventQueue::DeleteTimer(TimerHandle handle)
{
    std::unique_lock<std::mutex> lock(mutex);
    std::shared_ptr<Timer> timer = Find(handle);
    if (!timer)
    {
        lock.unlock();
        journal.Record("ERROR DeleteTimer with an invalid handle");
        return ERROR_INVALID_HANDLE;
    }
    timers.erase(handle);
    timer->cancelled = true;
    if (timer->running && timerThread.IsCurrent())
    {
        // Deleted from its own item: released when that run ends.
        timer->deletePending = true;
        lock.unlock();
        journal.Record("DeleteTimer " + timer->name);
        return 0;
    }
    changed.wait(lock, [&] { return !timer->running; });
    lock.unlock();
    journal.Record("DeleteTimer " + timer->name);
    ReleaseTimerItem(*timer);
    return 0;
}

void EventQueue::ReleaseTimerItem(Timer& timer)
{
    journal.Record("Release " + timer.name);
    ledger.Release(timer.item);
}

Status EventQueue::CreateSerialExecution(ISerialExecution** out)
{
    Status status = 0;
    bool handOut = true;
    {
        std::lock_guard<std::mutex> lock(mutex);
        status = serialFailure;
        handOut = status == 0 || serialHandOut;
    }
    if (const Status failure = InjectedFailure("CreateSerialExecution"))
    {
        status = failure;
        handOut = false;
        if (out != nullptr)
            *out = nullptr;
    }
    if (out == nullptr)
    {
        status = ERROR_INVALID_PARAMETER;
        handOut = false;
    }
    if (handOut)
    {
        auto serial = std::make_unique<SerialExecution>(*this, journal, ledger);
        *out = serial.get();
        std::lock_guard<std::mutex> lock(mutex);
        serials.push_back(std::move(serial));
    }
    journal.Record("CreateSerialExecution -> " + std::to_string(status));
    return status;
}

Status EventQueue::ReleaseSerialExecution(ISerialExecution* serial)
{
    SerialExecution* found = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex);
        for (auto& owned : serials)
        {
            if (owned.get() == serial)
                found = owned.get();
        }
        if (found == nullptr)
            ++invalidHandleCalls;
    }
    if (found == nullptr)
    {
        journal.Record("ERROR ReleaseSerialExecution of an unknown object");
        return ERROR_INVALID_HANDLE;
    }
    journal.Record("ReleaseSerialExecution");
    found->Shutdown();
    // The object stays allocated (stopped) until the host goes, so that a
    // late Post is seen and refused instead of touching freed memory.
    std::lock_guard<std::mutex> lock(mutex);
    released.insert(found);
    return 0;
}

uint64_t EventQueue::Now() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return now;
}

void EventQueue::Advance(uint64_t ms)
{
    std::lock_guard<std::mutex> advancing(advanceMutex);
    std::unique_lock<std::mutex> lock(mutex);
    const uint64_t target = now + ms;
    for (;;)
    {
        std::shared_ptr<Timer> next;
        for (auto& entry : timers)
        {
            Timer& timer = *entry.second;
            if (timer.cancelled || timer.fired || timer.due > target)
                continue;
            if (!next || timer.due < next->due || (timer.due == next->due && timer.sequence < next->sequence))
                next = entry.second;
        }
        if (!next)
            break;
        now = std::max(now, next->due);
        next->running = true;
        ++next->runs;
        if (next->periodMs == kNoRepeat || next->periodMs == 0)
            next->fired = true;
        else
            next->due += next->periodMs;
        lock.unlock();

        timerThread.CallAndWait(
            [&] {
                journal.Record("Run " + next->name);
                next->item->Run();
            },
            std::chrono::hours(24));

        lock.lock();
        next->running = false;
        changed.notify_all();
        if (next->deletePending)
        {
            lock.unlock();
            ReleaseTimerItem(*next);
            lock.lock();
        }
    }
    now = target;
}

std::vector<EventQueue::TimerInfo> EventQueue::Timers() const
{
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::pair<uint64_t, TimerInfo>> ordered;
    for (const auto& entry : timers)
    {
        const Timer& t = *entry.second;
        ordered.push_back({t.sequence, TimerInfo{entry.first, t.name, t.due, t.periodMs, t.cancelled, t.fired, t.runs}});
    }
    std::sort(ordered.begin(), ordered.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<TimerInfo> result;
    for (auto& entry : ordered)
        result.push_back(entry.second);
    return result;
}

size_t EventQueue::LiveTimers() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return timers.size();
}

size_t EventQueue::LiveSerialExecutions() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return serials.size() - released.size();
}

std::vector<SerialExecution*> EventQueue::SerialExecutions() const
{
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<SerialExecution*> result;
    for (const auto& serial : serials)
    {
        if (released.count(serial.get()) == 0)
            result.push_back(serial.get());
    }
    return result;
}

size_t EventQueue::InvalidHandleCalls() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return invalidHandleCalls;
}
} // namespace sim
