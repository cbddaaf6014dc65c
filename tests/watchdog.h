// Ends the process when one run of a long test (a life, a schedule) takes
// longer than a bound, naming the run: a hang is a failure, and nothing
// after it could be trusted.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

class Watchdog
{
public:
    static constexpr int kBoundSeconds = 30;

    Watchdog() : thread([this] { Watch(); }) {}
    ~Watchdog()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            done = true;
        }
        changed.notify_all();
        thread.join();
    }
    void Begin(const std::string& run)
    {
        std::lock_guard<std::mutex> lock(mutex);
        current = run;
        deadline = std::chrono::steady_clock::now() + std::chrono::seconds(kBoundSeconds);
        changed.notify_all();
    }
    void End()
    {
        std::lock_guard<std::mutex> lock(mutex);
        current.clear();
    }

private:
    void Watch()
    {
        std::unique_lock<std::mutex> lock(mutex);
        while (!done)
        {
            if (!current.empty() && std::chrono::steady_clock::now() > deadline)
            {
                std::fprintf(stderr, "HANG: %s did not end within %d s\n", current.c_str(), kBoundSeconds);
                std::fflush(stderr);
                std::_Exit(3);
            }
            changed.wait_for(lock, std::chrono::milliseconds(200));
        }
    }
    std::mutex mutex;
    std::condition_variable changed;
    std::string current;
    std::chrono::steady_clock::time_point deadline;
    bool done = false;
    std::thread thread;
};
