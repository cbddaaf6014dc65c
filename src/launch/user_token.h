// The token under which the plugin starts a process on a user's desktop: a
// primary token made from a process's own token and bound to a session.
#pragma once

#include <windows.h>

#include "support/unique_resource.h"

// A primary token for dwSessionId made from the token of process pid, with
// SeDebugPrivilege enabled. With bSystem false on a system with UAC, a token
// that is not the default elevation type gives its linked token instead,
// neither duplicated nor bound to the session. Every failure is logged once,
// ending in the GetLastError() value, and gives an empty owner.
UniqueHandle GetUserToken(DWORD pid, DWORD dwSessionId, bool bSystem);

// Windows 6.0 (Vista) with any service pack, or later. Defined here, not taken
// from <versionhelpers.h>: the two must not meet in one translation unit.
bool IsWindowsVistaOrGreater();
