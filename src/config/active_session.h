// Who is logged on, and the session ProductCfg.exe is started in.
#pragma once

#include <windows.h>

#include "host/components.h"

// True when the session chosen among the console session and the active
// sessions has a user name.
struct IsOSUserLoggedIn
{
    bool operator()() const;
};

// The session for the launch: ActiveSessionId under
// HKU\.DEFAULT\SOFTWARE\Sub_ID_<setting 3003 "common">, else the chosen
// session when that setting is missing; 0 (the first active session) when
// the value cannot be read or the sessions cannot be listed.
DWORD ResolveActiveSession(IServConfig* config);
