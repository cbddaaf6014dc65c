// ProductCfg.exe for tests and the runner. It does no configuration; it tells
// how it was started and stays as long as it is asked to. All of it is
// driven by environment variables, so that the command line stays exactly
// what the plugin gave:
//
//   PCP_PRODUCTCFG_RECORD     file to which one line is appended, in UTF-8:
//                             <pid> TAB <session> TAB <current directory>
//                             TAB <own executable> TAB <command line> CR LF
//   PCP_PRODUCTCFG_DROP       a privilege name, removed from the process's
//                             own token before anything is recorded
//   PCP_PRODUCTCFG_READY      a named event, set once the line is written
//   PCP_PRODUCTCFG_HOLD_MS    milliseconds to keep running after that (0)
//   PCP_PRODUCTCFG_RELEASE    a named event that ends the hold early
//
// The exit code is 0, or 1 when a privilege could not be removed.
#include <windows.h>

#include <cwchar>
#include <string>

#include "standin_text.h"
#include "support/unique_resource.h"

namespace
{
using standin::ToUtf8;
using standin::Variable;



bool RemovePrivilege(const std::wstring& name)
{
    HANDLE raw = nullptr;
    if (!OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &raw))
        return false;
    const UniqueHandle token(raw);
    TOKEN_PRIVILEGES privileges{};
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = SE_PRIVILEGE_REMOVED;
    if (!LookupPrivilegeValueW(nullptr, name.c_str(), &privileges.Privileges[0].Luid))
        return false;
    AdjustTokenPrivileges(token.get(), FALSE, &privileges, sizeof(privileges), nullptr, nullptr);
    return GetLastError() == ERROR_SUCCESS;
}

std::wstring Record()
{
    DWORD session = 0;
    ProcessIdToSessionId(GetCurrentProcessId(), &session);
    wchar_t directory[MAX_PATH + 1] = {};
    GetCurrentDirectoryW(MAX_PATH + 1, directory);
    wchar_t executable[MAX_PATH + 1] = {};
    GetModuleFileNameW(nullptr, executable, MAX_PATH + 1);
    return std::to_wstring(GetCurrentProcessId()) + L'\t' + std::to_wstring(session) + L'\t' + directory + L'\t' +
           executable + L'\t' + GetCommandLineW() + L"\r\n";
}

// One write of the whole line, so that lines of several instances stay whole.
void AppendLine(const std::wstring& path, const std::wstring& line)
{
    const UniqueFileHandle file(CreateFileW(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                            nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        return;
    const std::string text = ToUtf8(line);
    DWORD written = 0;
    WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

UniqueHandle OpenNamedEvent(const std::wstring& name, DWORD access)
{
    if (name.empty())
        return {};
    return UniqueHandle(OpenEventW(access, FALSE, name.c_str()));
}
} // namespace

int main()
{
    const std::wstring privilege = Variable(L"PCP_PRODUCTCFG_DROP");
    const bool dropped = privilege.empty() || RemovePrivilege(privilege);

    const std::wstring recordPath = Variable(L"PCP_PRODUCTCFG_RECORD");
    if (!recordPath.empty())
        AppendLine(recordPath, Record());
    if (const UniqueHandle ready = OpenNamedEvent(Variable(L"PCP_PRODUCTCFG_READY"), EVENT_MODIFY_STATE))
        SetEvent(ready.get());

    const DWORD holdMs = std::wcstoul(Variable(L"PCP_PRODUCTCFG_HOLD_MS").c_str(), nullptr, 10);
    if (holdMs != 0)
    {
        if (const UniqueHandle release = OpenNamedEvent(Variable(L"PCP_PRODUCTCFG_RELEASE"), SYNCHRONIZE))
            WaitForSingleObject(release.get(), holdMs);
        else
            Sleep(holdMs);
    }
    return dropped ? 0 : 1;
}
