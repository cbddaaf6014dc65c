// A mutex that cannot fail. std::mutex of the POSIX-threads runtime builds
// its lock on first use, allocating, and throws when memory has run out: a
// Stop whose lock throws leaves timers and items with the host. A slim
// reader/writer lock needs no allocation and no clean-up, and is Lockable,
// so std::lock_guard and std::unique_lock take it as they take std::mutex.
#pragma once

#include <windows.h>

class SrwMutex
{
public:
    SrwMutex() = default;
    SrwMutex(const SrwMutex&) = delete;
    SrwMutex& operator=(const SrwMutex&) = delete;

    void lock() noexcept { AcquireSRWLockExclusive(&srw); }
    bool try_lock() noexcept { return TryAcquireSRWLockExclusive(&srw) != FALSE; }
    void unlock() noexcept { ReleaseSRWLockExclusive(&srw); }

private:
    SRWLOCK srw = SRWLOCK_INIT;
};
