// A thread of the host with a FIFO of calls: how the simulated clients
// deliver their events to the plugin's sinks, each on a thread of its own.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace sim
{
class HostThread
{
public:
    HostThread();
    // Runs what is queued, then joins.
    ~HostThread();

    HostThread(const HostThread&) = delete;
    HostThread& operator=(const HostThread&) = delete;

    void Call(std::function<void()> call);
    // Queues call and waits until it has run; false on time-out.
    bool CallAndWait(std::function<void()> call, std::chrono::milliseconds timeout = std::chrono::seconds(30));
    // CallAndWait when wait is true, else Call.
    void Dispatch(std::function<void()> call, bool wait)
    {
        if (wait)
            CallAndWait(std::move(call));
        else
            Call(std::move(call));
    }
    // Waits until everything queued so far has run; false on time-out.
    bool Drain(std::chrono::milliseconds timeout = std::chrono::seconds(30));
    bool IsCurrent() const { return std::this_thread::get_id() == thread.get_id(); }

private:
    void Loop();

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::function<void()>> calls;
    bool busy = false;
    bool stopping = false;
    std::thread thread;
};
} // namespace sim
