#include "simhost/event_queue.h"
#include "simhost/fault_point.h"

#include <windows.h>

namespace sim
{
SerialExecution::SerialExecution(EventQueue& /*queue*/, Journal& journal, ItemLedger& ledger)
    : journal(journal), ledger(ledger), worker([this] { Loop(); })
{
}

SerialExecution::~SerialExecution()
{
    Shutdown();
}

Status SerialExecution::Post(const wchar_t* name, TimerHandle* /*unused*/, EqWorkItem* item, uint64_t /*reserved1*/,
                             uint32_t /*reserved2*/, uint32_t /*reserved3*/)
{
    const std::string text = Narrow(name);
    journal.Record("Post " + text);
    if (item == nullptr)
        return ERROR_INVALID_PARAMETER;
    ledger.Received(item, text);
    if (const Status failure = InjectedFailure("Post"))
    {
        // The item is the host's whatever the result: it goes unrun.
        journal.Record("Release " + text + " (not run: Post failed)");
        ledger.Release(item);
        return failure;
    }
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (!stopping)
        {
            queue.push_back(Entry{text, item});
            changed.notify_all();
            return 0;
        }
    }
    // Posted after the object was released: the host drops it unrun.
    journal.Record("Release " + text + " (not run: serial execution released)");
    ledger.Release(item);
    return ERROR_INVALID_HANDLE;
}

bool SerialExecution::WaitIdle(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return queue.empty() && !running; });
}

void SerialExecution::Pause()
{
    std::lock_guard<std::mutex> lock(mutex);
    paused = true;
}

void SerialExecution::Resume()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        paused = false;
    }
    changed.notify_all();
}

void SerialExecution::Shutdown()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    changed.notify_all();
    if (worker.joinable())
    {
        if (worker.get_id() == std::this_thread::get_id())
        {
            // Released from one of its own items: a host would deadlock here.
            journal.Record("ERROR ReleaseSerialExecution from its own item");
            worker.detach();
        }
        else
        {
            worker.join(); // waits for the running item
        }
    }
    std::deque<Entry> left;
    {
        std::lock_guard<std::mutex> lock(mutex);
        left.swap(queue);
    }
    for (const Entry& entry : left)
    {
        journal.Record("Release " + entry.name + " (not run)");
        ledger.Release(entry.item);
    }
}

void SerialExecution::Loop()
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;)
    {
        changed.wait(lock, [&] { return stopping || (!paused && !queue.empty()); });
        if (stopping)
            return;
        Entry entry = queue.front();
        queue.pop_front();
        running = true;
        lock.unlock();
        journal.Record("Run " + entry.name);
        entry.item->Run();
        journal.Record("Release " + entry.name);
        ledger.Release(entry.item);
        lock.lock();
        running = false;
        changed.notify_all();
    }
}
} // namespace sim
