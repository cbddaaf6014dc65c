#include "launch/process_lookup.h"

#include <tlhelp32.h>

#include <cwchar>

#include "support/trace_scope.h"
#include "support/unique_resource.h"

namespace
{
// directory and name as path elements, with one backslash between them.
std::wstring JoinPath(const std::wstring& directory, const std::wstring& name)
{
    const wchar_t last = directory.back();
    if (last == L'\\' || last == L'/')
        return directory + name;
    return directory + L'\\' + name;
}

// The path of the executable of process pid, the first module of its module
// snapshot; false when the snapshot cannot be taken or read.
bool ExecutablePath(DWORD pid, MODULEENTRY32W& module)
{
    const UniqueSnapshot modules(CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, pid));
    if (!modules)
        return false;
    module = MODULEENTRY32W{};
    module.dwSize = sizeof(module);
    static_assert(sizeof(MODULEENTRY32W) == 1080, "the size field Module32FirstW checks");
    return Module32FirstW(modules.get(), &module) != FALSE;
}
} // namespace

DWORD GetProcessPid(const std::wstring& name, DWORD& pid, const std::wstring& directory)
{
    TraceScope trace(L"GetProcessPid");

    if (name.empty())
        return ERROR_INVALID_PARAMETER;

    const UniqueSnapshot processes(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
    if (!processes)
        return ERROR_GEN_FAILURE;
    PROCESSENTRY32W entry{};
    entry.dwSize = sizeof(entry);
    static_assert(sizeof(PROCESSENTRY32W) == 568, "the size field Process32FirstW checks");
    if (!Process32FirstW(processes.get(), &entry))
        return ERROR_GEN_FAILURE;

    const std::wstring wantedPath = directory.empty() ? std::wstring() : JoinPath(directory, name);
    do
    {
        if (_wcsicmp(entry.szExeFile, name.c_str()) != 0)
            continue;
        if (!directory.empty())
        {
            MODULEENTRY32W module;
            if (!ExecutablePath(entry.th32ProcessID, module))
                return ERROR_GEN_FAILURE;
            if (_wcsicmp(module.szExePath, wantedPath.c_str()) != 0)
                continue;
        }
        pid = entry.th32ProcessID;
        return ERROR_SUCCESS;
    } while (Process32NextW(processes.get(), &entry));
    return ERROR_NOT_FOUND;
}
