// Control Flow Guard as Windows enforces it, for the modules this process
// loads through GuardedLibrary. Wine ignores a module's guard: its dispatch
// pointer keeps the module's own default, which calls any target. Windows,
// in a process that enforces the guard, points it at a check that ends the
// process when an indirect call from guarded code targets an address of a
// guarded image that the image's table of call targets does not list.
// GuardedLibrary does the same after loading: it points the module's check
// and dispatch pointers, found through the module's load configuration, at
// this process's checker. Targets outside every guarded image pass, as
// calls into modules built without the guard do on Windows. A module linked
// without the guard (no GUARD_CF) is loaded and left alone.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "support/unique_resource.h"

namespace sim
{
// The guard's pointers and table of one loaded module, as its load
// configuration names them.
struct GuardRecord
{
    void** checkPointer = nullptr;    // GuardCFCheckFunctionPointer
    void** dispatchPointer = nullptr; // GuardCFDispatchFunctionPointer
    const uint8_t* table = nullptr;   // GuardCFFunctionTable: sorted RVAs
    size_t count = 0;                 // GuardCFFunctionCount
    size_t stride = 4;                // bytes per entry: the RVA and its metadata
    uint32_t flags = 0;               // GuardFlags
};

// Reads the module's record. false with why when the module carries
// GUARD_CF but its record is missing or unusable; true with guarded false
// for a module without GUARD_CF.
bool ReadGuardRecord(HMODULE module, GuardRecord& record, bool& guarded, std::string& error);

// Indirect calls from guarded modules checked so far in this process.
uint64_t GuardCheckedCalls();

// The checking dispatch and check that guarded modules are pointed at.
extern "C" void pcp_sim_guard_dispatch();
extern "C" void pcp_sim_guard_check();

class GuardedLibrary
{
public:
    // LoadLibraryW(path), then the guard enforced on the module. On failure
    // get() is null and Error() says why.
    explicit GuardedLibrary(const wchar_t* path);
    ~GuardedLibrary();
    GuardedLibrary(GuardedLibrary&& other) noexcept;
    GuardedLibrary& operator=(GuardedLibrary&&) = delete;
    GuardedLibrary(const GuardedLibrary&) = delete;
    GuardedLibrary& operator=(const GuardedLibrary&) = delete;

    HMODULE get() const { return module.get(); }
    explicit operator bool() const { return static_cast<bool>(module); }
    bool Guarded() const { return guarded; }
    const std::string& Error() const { return error; }

private:
    UniqueModule module;
    bool guarded = false;
    std::string error;
};
} // namespace sim
