// The simulated host's record of what happened, in order: every call the
// plugin made on a host object and every item the host ran or released.
// Thread-safe; a listener (the runner) can print lines as they arrive.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace sim
{
// UTF-8 form of a wide text; null gives "(null)".
std::string Narrow(const wchar_t* text);

class Journal
{
public:
    void Record(std::string line);
    std::vector<std::string> Lines() const;
    // Lines that start with prefix, in order.
    std::vector<std::string> LinesStartingWith(const std::string& prefix) const;
    size_t Count(const std::string& line) const;
    bool Contains(const std::string& line) const { return Count(line) != 0; }
    // Index of the first line equal to line at or after from, or npos.
    size_t Find(const std::string& line, size_t from = 0) const;
    // Waits until line has been recorded at least count times.
    bool WaitFor(const std::string& line, size_t count = 1,
                 std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    void Clear();
    // Called with each new line, outside the journal's lock.
    void SetListener(std::function<void(const std::string&)> listener);

    static constexpr size_t npos = static_cast<size_t>(-1);

private:
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::vector<std::string> lines;
    std::function<void(const std::string&)> listener;
};
} // namespace sim
