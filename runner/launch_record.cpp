#include "runner/launch_record.h"

#include <tlhelp32.h>

#include <cwchar>
#include <fstream>
#include <sstream>

#include "support/unique_resource.h"

namespace runner
{
namespace
{
constexpr DWORD kEndBoundMs = 10000;

// Identifiers of the processes named image whose parent is this process.
std::vector<DWORD> Children(const wchar_t* image)
{
    std::vector<DWORD> pids;
    const UniqueSnapshot processes(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!processes)
        return pids;
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    for (BOOL more = Process32FirstW(processes.get(), &entry); more; more = Process32NextW(processes.get(), &entry))
    {
        if (entry.th32ParentProcessID == GetCurrentProcessId() && _wcsicmp(entry.szExeFile, image) == 0)
            pids.push_back(entry.th32ProcessID);
    }
    return pids;
}
} // namespace

LaunchRecord::LaunchRecord()
{
    wchar_t directory[MAX_PATH];
    wchar_t file[MAX_PATH];
    if (GetTempPathW(MAX_PATH, directory) == 0 || GetTempFileNameW(directory, L"pcl", 0, file) == 0)
        return;
    path = file;
    SetEnvironmentVariableW(L"PCP_PRODUCTCFG_RECORD", path.c_str());
    for (const wchar_t* name :
         {L"PCP_PRODUCTCFG_DROP", L"PCP_PRODUCTCFG_READY", L"PCP_PRODUCTCFG_HOLD_MS", L"PCP_PRODUCTCFG_RELEASE"})
        SetEnvironmentVariableW(name, nullptr);
}

LaunchRecord::~LaunchRecord()
{
    if (path.empty())
        return;
    SetEnvironmentVariableW(L"PCP_PRODUCTCFG_RECORD", nullptr);
    DeleteFileW(path.c_str());
}

std::vector<Launch> LaunchRecord::TakeNew(std::vector<uint32_t>& still)
{
    still.clear();
    for (const DWORD pid : Children(L"ProductCfg.exe"))
    {
        const UniqueHandle process(OpenProcess(SYNCHRONIZE, FALSE, pid));
        if (process && WaitForSingleObject(process.get(), kEndBoundMs) != WAIT_OBJECT_0)
            still.push_back(pid);
    }

    std::vector<Launch> found;
    std::ifstream in(path.c_str(), std::ios::binary);
    size_t index = 0;
    for (std::string line; std::getline(in, line); ++index)
    {
        if (index < taken)
            continue;
        // pid TAB session TAB current directory TAB executable TAB command line CR
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        std::istringstream fields(line);
        std::string pid, session, directory, executable, commandLine;
        std::getline(fields, pid, '\t');
        std::getline(fields, session, '\t');
        std::getline(fields, directory, '\t');
        std::getline(fields, executable, '\t');
        std::getline(fields, commandLine);
        found.push_back(Launch{static_cast<uint32_t>(std::strtoul(pid.c_str(), nullptr, 10)),
                               static_cast<uint32_t>(std::strtoul(session.c_str(), nullptr, 10)), commandLine});
    }
    taken += found.size();
    return found;
}
} // namespace runner
