// The launches of ProductCfg.exe that a scenario causes. The ProductCfg.exe
// beside the runner (the stand-in) appends one line per start to the file
// named by PCP_PRODUCTCFG_RECORD, which the plugin's launch passes on to it
// with the rest of the runner's environment. The runner names a file of its
// own there before the plugin starts and removes it at the end.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

namespace runner
{
// One start of ProductCfg.exe as the stand-in recorded it.
struct Launch
{
    uint32_t pid = 0;
    uint32_t session = 0;
    std::string commandLine; // UTF-8, exactly as the process received it
};

class LaunchRecord
{
public:
    // Names a new temporary file in PCP_PRODUCTCFG_RECORD and clears the
    // stand-in's other variables, so that each start records itself and
    // ends at once. Ready() is false when no file could be made.
    LaunchRecord();
    // Unnames and removes the file.
    ~LaunchRecord();
    LaunchRecord(const LaunchRecord&) = delete;
    LaunchRecord& operator=(const LaunchRecord&) = delete;

    bool Ready() const { return !path.empty(); }

    // Waits (bounded) until every ProductCfg.exe this process started has
    // ended, so that each has written its line, then gives the lines that
    // are new since the last call. still: those that had not ended in time.
    std::vector<Launch> TakeNew(std::vector<uint32_t>& still);
    size_t Total() const { return taken; }

private:
    std::wstring path;
    size_t taken = 0;
};
} // namespace runner
