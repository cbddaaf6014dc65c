// The plugin's log as the runner reads it: the stand-in log.dll appends
// every line to a file of the runner's own (QM_LOG_FILE) and still writes it
// to stderr (QM_LOG_ECHO=1), where it keeps its place among the runner's
// lines. After each step the runner takes the lines that are new.
#pragma once

#include <string>
#include <vector>

#include "runner/expectations.h"

namespace runner
{
class LogTail
{
public:
    // Names a new temporary file in QM_LOG_FILE and sets QM_LOG_ECHO=1;
    // Ready() is false when no file could be made.
    LogTail();
    // Unnames the file and removes it.
    ~LogTail();
    LogTail(const LogTail&) = delete;
    LogTail& operator=(const LogTail&) = delete;

    bool Ready() const { return !path.empty(); }
    // Whole lines written since the last call; a line still being written
    // waits for the next call.
    std::vector<LogLine> TakeNew();

private:
    std::wstring path;
    unsigned long long offset = 0;
};

// Splits "HH:MM:SS.mmm <thread> <LEVEL> <indent><function>: <text>"; a line
// of another form keeps its whole text in text.
LogLine ParseLogLine(const std::string& line);
} // namespace runner
