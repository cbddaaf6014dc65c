// The edge of Windows for the launch tests, where Wine cannot make a call
// fail or does not show what it was given. The imports below are linked
// through wrappers (-Wl,--wrap in tests/CMakeLists.txt) that call Windows
// itself unless a test has told one to fail its next call; two of them also
// note what they were asked.
#pragma once

#include <windows.h>

#include <vector>

namespace seam
{
enum class Api
{
    OpenProcessSynchronize, // OpenProcess asking for SYNCHRONIZE alone
    OpenProcessToken,
    LookupPrivilegeValueW,
    TokenElevationType, // GetTokenInformation of that class
    TokenLinkedToken,   // the same
    DuplicateTokenEx,
    SetTokenInformation,
    CreateEnvironmentBlock,
    WTSEnumerateSessionsW,
    WTSQuerySessionInformationW,
    MultiByteToWideCharUtf8, // the size query of a UTF-8 conversion
};

// The next call of api returns failure with error as the last error, and
// Windows is not called.
void FailNext(Api api, DWORD error);

// SetTokenInformation(TokenSessionId) calls that reached Windows.
struct SessionBinding
{
    HANDLE token;
    DWORD session;
};
std::vector<SessionBinding> SessionBindings();

// CreateProcessAsUserW calls that reached Windows.
struct Launch
{
    DWORD flags;
    bool environment;
};
std::vector<Launch> Launches();

// Forgets armed failures and what was noted.
void Reset();
} // namespace seam
