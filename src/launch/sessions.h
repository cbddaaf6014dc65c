// The Windows session that a process is started in when none is named.
#pragma once

#include <windows.h>
#include <wtsapi32.h>

#include <cstddef>

// The walk over a session list, in list order: the identifier of the first
// session in the state WTSActive, or consoleSession when none is active.
DWORD FirstActiveSessionId(const WTS_SESSION_INFOW* sessions, size_t count, DWORD consoleSession) noexcept;

// The first active session of WTSEnumerateSessionsW on the local server, else
// the console session of WTSGetActiveConsoleSessionId. Never fails: a failed
// enumeration gives the console session.
DWORD GetFirstActiveSessionId();
