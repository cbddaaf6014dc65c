#include "simhost/host_thread.h"

#include <memory>

namespace sim
{
HostThread::HostThread() : thread([this] { Loop(); }) {}

HostThread::~HostThread()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    changed.notify_all();
    thread.join();
}

void HostThread::Call(std::function<void()> call)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back(std::move(call));
    }
    changed.notify_all();
}

bool HostThread::CallAndWait(std::function<void()> call, std::chrono::milliseconds timeout)
{
    if (IsCurrent())
    {
        call();
        return true;
    }
    auto done = std::make_shared<bool>(false);
    Call([this, done, call = std::move(call)] {
        call();
        std::lock_guard<std::mutex> lock(mutex);
        *done = true;
    });
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return *done; });
}

bool HostThread::Drain(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] { return calls.empty() && !busy; });
}

void HostThread::Loop()
{
    std::unique_lock<std::mutex> lock(mutex);
    for (;;)
    {
        changed.wait(lock, [&] { return stopping || !calls.empty(); });
        if (calls.empty())
            return; // stopping, and everything queued has run
        std::function<void()> call = std::move(calls.front());
        calls.pop_front();
        busy = true;
        lock.unlock();
        call();
        lock.lock();
        busy = false;
        changed.notify_all();
    }
}
} // namespace sim
