#include "config/active_session.h"

#include <wtsapi32.h>

#include <string>

#include "config/run_decision.h"
#include "support/logger_stream.h"
#include "support/product_paths.h"
#include "support/registry_values.h"
#include "support/trace_scope.h"
#include "support/unique_resource.h"

namespace
{
// The console session, or the active session that the walk over the local
// server's sessions prefers. listed is false when the list could not be had;
// error is then GetLastError() of that call.
DWORD ChosenSession(bool& listed, DWORD& error)
{
    const DWORD console = WTSGetActiveConsoleSessionId();
    WTS_SESSION_INFOW* raw = nullptr;
    DWORD count = 0;
    listed = WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &raw, &count) != FALSE;
    error = listed ? 0 : GetLastError();
    const UniqueWtsMemory<WTS_SESSION_INFOW> sessions(raw);
    if (!listed)
        return console;
    return ChooseActiveSession(sessions.get(), count, console);
}
} // namespace

bool IsOSUserLoggedIn::operator()() const
{
    constexpr wchar_t kName[] = L"IsOSUserLoggedIn::operator ()";
    TraceScope trace(kName);
    bool listed = false;
    DWORD error = 0;
    const DWORD session = ChosenSession(listed, error);

    wchar_t* raw = nullptr;
    DWORD bytes = 0;
    if (!WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, session, WTSUserName, &raw, &bytes))
    {
        const DWORD queryError = GetLastError(); // before the stream, which calls into the logging library
        logger_stream(logging::LevelInfo, kName) << "WTSQuerySessionInformation WTSUserName failed err=" << queryError;
        return false;
    }
    const UniqueWtsMemory<wchar_t> userName(raw);
    return bytes != 0 && userName && userName.get()[0] != L'\0';
}

DWORD ResolveActiveSession(IServConfig* config)
{
    TraceScope trace(L"ResolveActiveSession");
    bool listed = false;
    DWORD error = 0;
    const DWORD session = ChosenSession(listed, error);
    if (!listed && error != 0)
        return 0;

    const wchar_t* suffix = config->GetString(settings::SessionKeySuffix.number, settings::SessionKeySuffix.section);
    if (IsSettingMissingQuick(suffix))
        return session;
    std::error_code ec;
    return get_dword_value(HKEY_USERS, std::wstring(L".DEFAULT\\SOFTWARE\\Sub_ID_") + suffix, L"ActiveSessionId", ec);
}
