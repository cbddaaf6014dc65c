// The wrappers behind launch_seam.h. Imports declared for dllimport are
// reached through their import pointers (__imp_X, wrapped as a pointer of
// the same type); the others through their thunks (wrapped as functions).
#include "launch_seam.h"

#include <userenv.h>
#include <wtsapi32.h>

#include <map>
#include <mutex>

namespace
{
std::mutex mutex;
std::map<seam::Api, DWORD> armed;
std::vector<seam::SessionBinding> bindings;
std::vector<seam::Launch> launches;

// True, with the last error set, when a failure of api was armed; it is
// then disarmed.
bool Fails(seam::Api api)
{
    DWORD error = 0;
    {
        std::lock_guard<std::mutex> lock(mutex);
        const auto it = armed.find(api);
        if (it == armed.end())
            return false;
        error = it->second;
        armed.erase(it);
    }
    SetLastError(error);
    return true;
}
} // namespace

namespace seam
{
void FailNext(Api api, DWORD error)
{
    std::lock_guard<std::mutex> lock(mutex);
    armed[api] = error;
}

std::vector<SessionBinding> SessionBindings()
{
    std::lock_guard<std::mutex> lock(mutex);
    return bindings;
}

std::vector<Launch> Launches()
{
    std::lock_guard<std::mutex> lock(mutex);
    return launches;
}

void Reset()
{
    std::lock_guard<std::mutex> lock(mutex);
    armed.clear();
    bindings.clear();
    launches.clear();
}
} // namespace seam

extern "C" {
extern decltype(&OpenProcess) __real___imp_OpenProcess;
extern decltype(&OpenProcessToken) __real___imp_OpenProcessToken;
extern decltype(&LookupPrivilegeValueW) __real___imp_LookupPrivilegeValueW;
extern decltype(&GetTokenInformation) __real___imp_GetTokenInformation;
extern decltype(&DuplicateTokenEx) __real___imp_DuplicateTokenEx;
extern decltype(&SetTokenInformation) __real___imp_SetTokenInformation;
extern decltype(&CreateProcessAsUserW) __real___imp_CreateProcessAsUserW;
extern decltype(&MultiByteToWideChar) __real___imp_MultiByteToWideChar;
WINBOOL WINAPI __real_CreateEnvironmentBlock(LPVOID*, HANDLE, WINBOOL);
WINBOOL WINAPI __real_WTSEnumerateSessionsW(HANDLE, DWORD, DWORD, PWTS_SESSION_INFOW*, DWORD*);
WINBOOL WINAPI __real_WTSQuerySessionInformationW(HANDLE, DWORD, WTS_INFO_CLASS, LPWSTR*, DWORD*);
}

namespace
{
using seam::Api;

HANDLE WINAPI SeamOpenProcess(DWORD access, WINBOOL inherit, DWORD pid)
{
    return access == SYNCHRONIZE && Fails(Api::OpenProcessSynchronize) ? nullptr
                                                                       : __real___imp_OpenProcess(access, inherit, pid);
}

WINBOOL WINAPI SeamOpenProcessToken(HANDLE process, DWORD access, PHANDLE token)
{
    return Fails(Api::OpenProcessToken) ? FALSE : __real___imp_OpenProcessToken(process, access, token);
}

WINBOOL WINAPI SeamLookupPrivilegeValueW(LPCWSTR system, LPCWSTR name, PLUID luid)
{
    return Fails(Api::LookupPrivilegeValueW) ? FALSE : __real___imp_LookupPrivilegeValueW(system, name, luid);
}

WINBOOL WINAPI SeamGetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS type, LPVOID data, DWORD size,
                                       PDWORD length)
{
    const bool fails = (type == TokenElevationType && Fails(Api::TokenElevationType)) ||
                       (type == TokenLinkedToken && Fails(Api::TokenLinkedToken));
    return fails ? FALSE : __real___imp_GetTokenInformation(token, type, data, size, length);
}

WINBOOL WINAPI SeamDuplicateTokenEx(HANDLE token, DWORD access, LPSECURITY_ATTRIBUTES attributes,
                                    SECURITY_IMPERSONATION_LEVEL level, TOKEN_TYPE type, PHANDLE duplicate)
{
    return Fails(Api::DuplicateTokenEx) ? FALSE
                                        : __real___imp_DuplicateTokenEx(token, access, attributes, level, type, duplicate);
}

WINBOOL WINAPI SeamSetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS type, LPVOID data, DWORD size)
{
    if (Fails(Api::SetTokenInformation))
        return FALSE;
    if (type == TokenSessionId && data != nullptr && size == sizeof(DWORD))
    {
        std::lock_guard<std::mutex> lock(mutex);
        bindings.push_back({token, *static_cast<const DWORD*>(data)});
    }
    return __real___imp_SetTokenInformation(token, type, data, size);
}

WINBOOL WINAPI SeamCreateProcessAsUserW(HANDLE token, LPCWSTR application, LPWSTR commandLine,
                                        LPSECURITY_ATTRIBUTES process, LPSECURITY_ATTRIBUTES thread,
                                        WINBOOL inherit, DWORD flags, LPVOID environment, LPCWSTR directory,
                                        LPSTARTUPINFOW startup, LPPROCESS_INFORMATION created)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        launches.push_back({flags, environment != nullptr});
    }
    return __real___imp_CreateProcessAsUserW(token, application, commandLine, process, thread, inherit, flags,
                                             environment, directory, startup, created);
}

int WINAPI SeamMultiByteToWideChar(UINT codePage, DWORD flags, LPCCH text, int bytes, LPWSTR wide, int chars)
{
    return codePage == CP_UTF8 && chars == 0 && Fails(Api::MultiByteToWideCharUtf8)
               ? 0
               : __real___imp_MultiByteToWideChar(codePage, flags, text, bytes, wide, chars);
}
} // namespace

extern "C" {
decltype(&OpenProcess) __wrap___imp_OpenProcess = &SeamOpenProcess;
decltype(&OpenProcessToken) __wrap___imp_OpenProcessToken = &SeamOpenProcessToken;
decltype(&LookupPrivilegeValueW) __wrap___imp_LookupPrivilegeValueW = &SeamLookupPrivilegeValueW;
decltype(&GetTokenInformation) __wrap___imp_GetTokenInformation = &SeamGetTokenInformation;
decltype(&DuplicateTokenEx) __wrap___imp_DuplicateTokenEx = &SeamDuplicateTokenEx;
decltype(&SetTokenInformation) __wrap___imp_SetTokenInformation = &SeamSetTokenInformation;
decltype(&CreateProcessAsUserW) __wrap___imp_CreateProcessAsUserW = &SeamCreateProcessAsUserW;
decltype(&MultiByteToWideChar) __wrap___imp_MultiByteToWideChar = &SeamMultiByteToWideChar;

WINBOOL WINAPI __wrap_CreateEnvironmentBlock(LPVOID* block, HANDLE token, WINBOOL inherit)
{
    return Fails(Api::CreateEnvironmentBlock) ? FALSE : __real_CreateEnvironmentBlock(block, token, inherit);
}

WINBOOL WINAPI __wrap_WTSEnumerateSessionsW(HANDLE server, DWORD reserved, DWORD version, PWTS_SESSION_INFOW* list,
                                            DWORD* count)
{
    return Fails(Api::WTSEnumerateSessionsW) ? FALSE
                                             : __real_WTSEnumerateSessionsW(server, reserved, version, list, count);
}

WINBOOL WINAPI __wrap_WTSQuerySessionInformationW(HANDLE server, DWORD session, WTS_INFO_CLASS type, LPWSTR* text,
                                                  DWORD* bytes)
{
    return Fails(Api::WTSQuerySessionInformationW)
               ? FALSE
               : __real_WTSQuerySessionInformationW(server, session, type, text, bytes);
}
}
