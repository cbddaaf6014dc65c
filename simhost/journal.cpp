#include "simhost/journal.h"

#include <windows.h>

#include <algorithm>

namespace sim
{
std::string Narrow(const wchar_t* text)
{
    if (text == nullptr)
        return "(null)";
    const int length = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (length <= 1)
        return std::string();
    std::string result(static_cast<size_t>(length), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, &result[0], length, nullptr, nullptr);
    result.resize(static_cast<size_t>(length) - 1);
    return result;
}

void Journal::Record(std::string line)
{
    std::function<void(const std::string&)> notify;
    {
        std::lock_guard<std::mutex> lock(mutex);
        lines.push_back(line);
        notify = listener;
    }
    changed.notify_all();
    if (notify)
        notify(line);
}

std::vector<std::string> Journal::Lines() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return lines;
}

std::vector<std::string> Journal::LinesStartingWith(const std::string& prefix) const
{
    std::lock_guard<std::mutex> lock(mutex);
    std::vector<std::string> result;
    for (const auto& line : lines)
    {
        if (line.compare(0, prefix.size(), prefix) == 0)
            result.push_back(line);
    }
    return result;
}

size_t Journal::Count(const std::string& line) const
{
    std::lock_guard<std::mutex> lock(mutex);
    return static_cast<size_t>(std::count(lines.begin(), lines.end(), line));
}

size_t Journal::Find(const std::string& line, size_t from) const
{
    std::lock_guard<std::mutex> lock(mutex);
    for (size_t i = from; i < lines.size(); ++i)
    {
        if (lines[i] == line)
            return i;
    }
    return npos;
}

bool Journal::WaitFor(const std::string& line, size_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [&] {
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), line)) >= count;
    });
}

void Journal::Clear()
{
    std::lock_guard<std::mutex> lock(mutex);
    lines.clear();
}

void Journal::SetListener(std::function<void(const std::string&)> newListener)
{
    std::lock_guard<std::mutex> lock(mutex);
    listener = std::move(newListener);
}
} // namespace sim
