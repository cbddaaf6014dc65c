// Makes the system fail under the plugin: after ProductCfgPlg.dll is loaded,
// its import address table is patched so that each function of the table in
// fault_injector.cpp goes through one counter. Armed, the counter fails the
// n-th call of one function from then on (transient: that call only;
// persistent: that call and every later one) the way the function fails by
// its documentation (result, last error, errno, out parameters cleared);
// otherwise the call goes on to Windows. The simulated host's calls that
// return a status go through the same counter (simhost/fault_point.h).
// Nothing in the DLL changes.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>
#include <vector>

namespace fault
{
enum class Mode
{
    Transient,
    Persistent,
};

// Patches the imports of module that the table names and routes the
// simulated host's calls here; false when the module imports none of them.
// Calls are counted from here on.
bool Install(HMODULE module);
// The functions of the table that the installed module imports, and the
// host's calls.
std::vector<std::string> Functions();

// The simulated host's calls of the table.
std::vector<std::string> HostCalls();

// Sets every count to 0 and fails the n-th call (from 1) of function.
void Arm(const std::string& function, size_t n, Mode mode);
// Sets every count to 0 and fails nothing.
void Disarm();
// Calls of function since the last Arm or Disarm.
size_t Calls(const std::string& function);
// Calls failed since the last Arm.
size_t Injected();
} // namespace fault
