// Handles and threads this process holds, as the system counts them.
#pragma once

#include <windows.h>

#include <tlhelp32.h>

#include <cstdint>
#include <vector>

#include "support/unique_resource.h"

// Handles of this process in the system's handle table (class 64, extended
// entries of 5 words): Wine keeps it for real, GetProcessHandleCount is 0.
// SIZE_MAX when the table cannot be read.
inline size_t OpenHandleCount()
{
    using QueryFn = LONG(WINAPI*)(ULONG, void*, ULONG, ULONG*);
    const auto query = reinterpret_cast<QueryFn>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQuerySystemInformation")));
    std::vector<ULONG_PTR> table(1 << 16); // count, reserved, then the entries
    LONG status = 0;
    while ((status = query(64, table.data(), static_cast<ULONG>(table.size() * sizeof(ULONG_PTR)), nullptr)) ==
           static_cast<LONG>(0xC0000004)) // too small
        table.resize(table.size() * 2);
    if (status != 0)
        return SIZE_MAX;
    size_t count = 0;
    for (ULONG_PTR i = 0; i < table[0]; ++i)
        count += table[2 + i * 5 + 1] == GetCurrentProcessId(); // object, owner, handle, ...
    return count;
}

// Threads of this process, from a toolhelp snapshot.
inline size_t ThreadCount()
{
    const UniqueSnapshot snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
    THREADENTRY32 entry{};
    entry.dwSize = sizeof(entry);
    size_t count = 0;
    for (BOOL more = Thread32First(snapshot.get(), &entry); more; more = Thread32Next(snapshot.get(), &entry))
        count += entry.th32OwnerProcessID == GetCurrentProcessId();
    return count;
}
