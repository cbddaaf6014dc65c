// Starting ProductCfg.exe in a user's session, under the host process's
// account, without waiting for it.
#pragma once

#include <windows.h>

#include <cstddef>

#include "support/unique_resource.h"

// The image that is started. It carries no folder: CreateProcessAsUserW
// looks for it first in the folder of the host's executable.
constexpr wchar_t kProductCfgImage[] = L"ProductCfg.exe";

// The command-line buffer in characters, terminator included.
constexpr size_t kCommandLineChars = 32767;

// Writes "\"ProductCfg.exe\"" and, when parameters is not null, one blank and
// parameters as they stand, so an empty string leaves a trailing blank.
// Never writes more than capacity characters, terminator included; false
// when the line did not fit, the buffer then holding the part that did.
bool BuildCommandLine(const wchar_t* parameters, wchar_t* buffer, size_t capacity) noexcept;

// Starts ProductCfg.exe with parameters under token, with the token's
// environment when CreateEnvironmentBlock gives one. The token is closed on
// every path. Gives 0 when the process was created, the GetLastError() value
// of CreateProcessAsUserW when it was not, and without trying
// ERROR_INSUFFICIENT_BUFFER (122) when the command line would exceed
// kCommandLineChars - 1 characters or ERROR_NOT_ENOUGH_MEMORY (8) when its
// buffer cannot be had. The process and thread handles are closed at once.
DWORD ExecuteProcessAsUser(const wchar_t* parameters, UniqueHandle token);

// The work of CProductConfigurationPlg::_ExecuteProcessInSession, traced and
// logged under that name: in session dwSessionId, or the first active session
// when it is 0, starts ProductCfg.exe with parameters under this process's
// own token moved to that session. Gives ERROR_GEN_FAILURE (31) when no token
// could be had, else the result of ExecuteProcessAsUser.
DWORD ExecuteProcessInSession(DWORD dwSessionId, bool bSystem, const wchar_t* parameters);
