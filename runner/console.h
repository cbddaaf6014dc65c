// Whole lines to stdout, one writer at a time, flushed at once so that they
// keep their place among the plugin's own log lines on stderr.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>

namespace runner
{
class Console
{
public:
    void Line(const std::string& text)
    {
        std::lock_guard<std::mutex> lock(mutex);
        std::fputs(text.c_str(), stdout);
        std::fputc('\n', stdout);
        std::fflush(stdout);
    }

private:
    std::mutex mutex;
};
} // namespace runner
