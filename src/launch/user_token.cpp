#include "launch/user_token.h"

#include "support/logger_stream.h"
#include "support/trace_scope.h"

namespace
{
// What GetUserToken needs of the process token: read it, duplicate it into a
// primary token and change session, groups, defaults and privileges.
constexpr DWORD kProcessTokenAccess = READ_CONTROL | TOKEN_ADJUST_SESSIONID | TOKEN_ADJUST_DEFAULT |
                                      TOKEN_ADJUST_GROUPS | TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY |
                                      TOKEN_DUPLICATE | TOKEN_ASSIGN_PRIMARY;
static_assert(kProcessTokenAccess == 0x201EB, "the process token's access mask");
static_assert(sizeof(TOKEN_PRIVILEGES) == 16, "one privilege");

constexpr wchar_t kFunction[] = L"GetUserToken";

// The UAC test on the process token: the token to use in place of a
// duplicate (its linked token), or an empty owner to go on duplicating.
// failed is set when the linked token was wanted and could not be had.
UniqueHandle LinkedTokenIfElevated(HANDLE processToken, bool& failed)
{
    TOKEN_ELEVATION_TYPE elevationType = TokenElevationTypeDefault;
    DWORD length = 0;
    if (!GetTokenInformation(processToken, TokenElevationType, &elevationType, sizeof(elevationType), &length))
    {
        const DWORD error = GetLastError();
        logger_stream(logging::LevelWarning, L"IsUACEnabled") << "GetTokenInformation failed err=" << error;
        return {};
    }
    if (elevationType == TokenElevationTypeDefault)
        return {};

    HANDLE linked = nullptr;
    if (!GetTokenInformation(processToken, TokenLinkedToken, &linked, sizeof(linked), &length))
    {
        const DWORD error = GetLastError();
        logger_stream(logging::LevelError, kFunction) << "GetTokenInformation failed err=" << error;
        failed = true;
        return {};
    }
    return UniqueHandle(linked);
}
} // namespace

UniqueHandle GetUserToken(DWORD pid, DWORD dwSessionId, bool bSystem)
{
    TraceScope trace(kFunction);

    // Closed in reverse order on every path: the process token, then the process.
    UniqueHandle process(OpenProcess(MAXIMUM_ALLOWED, FALSE, pid));
    if (!process)
    {
        const DWORD error = GetLastError();
        logger_stream(logging::LevelError, kFunction) << "OpenProcess pid=" << pid << " failed err = " << error;
        return {};
    }

    UniqueHandle processToken;
    {
        HANDLE token = nullptr;
        if (!OpenProcessToken(process.get(), kProcessTokenAccess, &token))
        {
            const DWORD error = GetLastError();
            logger_stream(logging::LevelError, kFunction)
                << "OpenProcessToken pid=" << pid << " failed err = " << error;
            return {};
        }
        processToken.reset(token);
    }

    LUID debugPrivilege{};
    if (!LookupPrivilegeValueW(nullptr, L"SeDebugPrivilege", &debugPrivilege))
    {
        const DWORD error = GetLastError();
        logger_stream(logging::LevelError, kFunction) << "LookupPrivilegeValue failed err = " << error;
        return {};
    }

    if (!bSystem && IsWindowsVistaOrGreater())
    {
        bool failed = false;
        UniqueHandle linked = LinkedTokenIfElevated(processToken.get(), failed);
        if (failed || linked)
            return linked;
    }

    TOKEN_PRIVILEGES privileges{};
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Luid = debugPrivilege;
    privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;

    UniqueHandle duplicate;
    {
        HANDLE token = nullptr;
        if (!DuplicateTokenEx(processToken.get(), MAXIMUM_ALLOWED, nullptr, SecurityIdentification, TokenPrimary,
                              &token))
        {
            const DWORD error = GetLastError();
            logger_stream(logging::LevelError, kFunction) << "DuplicateTokenEx failed err = " << error;
            return {};
        }
        duplicate.reset(token);
    }

    if (!SetTokenInformation(duplicate.get(), TokenSessionId, &dwSessionId, sizeof(dwSessionId)))
    {
        const DWORD error = GetLastError();
        logger_stream(logging::LevelError, kFunction) << "SetTokenInformation failed err = " << error;
        return {};
    }

    // The call succeeds with ERROR_NOT_ALL_ASSIGNED when the token does not
    // hold the privilege; only a last error of 0 is success.
    AdjustTokenPrivileges(duplicate.get(), FALSE, &privileges, sizeof(privileges), nullptr, nullptr);
    const DWORD adjustError = GetLastError();
    if (adjustError != ERROR_SUCCESS)
    {
        logger_stream(logging::LevelError, kFunction) << "AdjustTokenPrivileges failed err = " << adjustError;
        return {};
    }
    return duplicate;
}

bool IsWindowsVistaOrGreater()
{
    TraceScope trace(L"IsWindowsVistaOrGreater");

    OSVERSIONINFOEXW version{};
    static_assert(sizeof(version) == 284, "the size field VerifyVersionInfoW checks");
    version.dwOSVersionInfoSize = sizeof(version);
    version.dwMajorVersion = 6;
    version.dwMinorVersion = 0;
    version.wServicePackMajor = 0;

    constexpr DWORD kTypeMask = VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR;
    static_assert(kTypeMask == 35, "major, minor and service pack major");
    DWORDLONG conditions = 0;
    conditions = VerSetConditionMask(conditions, VER_MAJORVERSION, VER_GREATER_EQUAL);
    conditions = VerSetConditionMask(conditions, VER_MINORVERSION, VER_GREATER_EQUAL);
    conditions = VerSetConditionMask(conditions, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
    return VerifyVersionInfoW(&version, kTypeMask, conditions) != FALSE;
}
