// What wsc.dll beside the runner (the stand-in) did: it appends a line to the
// file named by PCP_WSC_RECORD when it is loaded, when UnInstall is called
// and when it is unloaded. The runner names a file of its own there before
// the plugin starts and removes it at the end.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace runner
{
class WscRecord
{
public:
    // Names a new temporary file in PCP_WSC_RECORD; Ready() is false when
    // no file could be made.
    WscRecord();
    // Unnames and removes the file.
    ~WscRecord();
    WscRecord(const WscRecord&) = delete;
    WscRecord& operator=(const WscRecord&) = delete;

    bool Ready() const { return !path.empty(); }
    // The lines new since the last call, as "loaded", "UnInstall(1)" and
    // "unloaded".
    std::vector<std::string> TakeNew();

private:
    std::wstring path;
    size_t taken = 0;
};
} // namespace runner
