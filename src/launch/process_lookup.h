// Finding a running process by its image name, and if asked by its folder.
#pragma once

#include <windows.h>

#include <string>

// The first process, in toolhelp snapshot order, whose image name is name,
// compared without regard to case, and, when directory is not empty, whose
// executable is directory\name (same comparison; no separator is added when
// directory ends in one). Gives 0 with pid written, ERROR_NOT_FOUND (1168)
// when there is none, ERROR_INVALID_PARAMETER (87) for an empty name, and
// ERROR_GEN_FAILURE (31) when the process list cannot be read or a process
// of that name cannot be inspected: such a process ends the search. Logs
// nothing.
DWORD GetProcessPid(const std::wstring& name, DWORD& pid, const std::wstring& directory);
