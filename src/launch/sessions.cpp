#include "launch/sessions.h"

#include "support/trace_scope.h"
#include "support/unique_resource.h"

DWORD FirstActiveSessionId(const WTS_SESSION_INFOW* sessions, size_t count, DWORD consoleSession) noexcept
{
    for (size_t i = 0; i < count; ++i)
    {
        if (sessions[i].State == WTSActive)
            return sessions[i].SessionId;
    }
    return consoleSession;
}

DWORD GetFirstActiveSessionId()
{
    TraceScope trace(L"GetFirstActiveSessionId");

    const DWORD consoleSession = WTSGetActiveConsoleSessionId();
    WTS_SESSION_INFOW* list = nullptr;
    DWORD count = 0;
    if (!WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &list, &count))
        return consoleSession;
    // Released whatever the count, an empty list included.
    const UniqueWtsMemory<WTS_SESSION_INFOW> sessions(list);
    return FirstActiveSessionId(sessions.get(), count, consoleSession);
}
