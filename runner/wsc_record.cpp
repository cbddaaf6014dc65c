#include "runner/wsc_record.h"

#include <fstream>
#include <sstream>

namespace runner
{
WscRecord::WscRecord()
{
    wchar_t directory[MAX_PATH];
    wchar_t file[MAX_PATH];
    if (GetTempPathW(MAX_PATH, directory) == 0 || GetTempFileNameW(directory, L"pcw", 0, file) == 0)
        return;
    path = file;
    SetEnvironmentVariableW(L"PCP_WSC_RECORD", path.c_str());
}

WscRecord::~WscRecord()
{
    if (path.empty())
        return;
    SetEnvironmentVariableW(L"PCP_WSC_RECORD", nullptr);
    DeleteFileW(path.c_str());
}

std::vector<std::string> WscRecord::TakeNew()
{
    std::vector<std::string> lines;
    if (path.empty())
        return lines;
    std::ifstream in(path.c_str(), std::ios::binary);
    size_t index = 0;
    // <module> TAB <what> [TAB <argument>] TAB <thread>
    for (std::string line; std::getline(in, line); ++index)
    {
        if (index < taken)
            continue;
        std::vector<std::string> fields;
        std::istringstream split(line.substr(0, line.find('\r')));
        for (std::string field; std::getline(split, field, '\t');)
            fields.push_back(field);
        if (fields.size() < 3)
            continue;
        if (fields[1] == "attach")
            lines.push_back(fields[0] + " loaded");
        else if (fields[1] == "detach")
            lines.push_back(fields[0] + " unloaded");
        else if (fields.size() >= 4)
            lines.push_back(fields[0] + " " + fields[1] + "(" + fields[2] + ")");
    }
    taken = index;
    return lines;
}
} // namespace runner
