// The C++ runtime's memory for exceptions: the exception objects in flight
// and each thread's record of them.
//
// libstdc++ built for Windows by GCC keeps both in ways that end the process
// when memory has run out:
// - an exception object comes from malloc and, failing that, from an
//   emergency pool whose mutex the threads library creates on first use,
//   with malloc: throwing std::bad_alloc then throws the lock error in turn,
//   and the thread recurses until its stack overflows;
// - each thread's record (__cxa_get_globals) is emulated thread storage,
//   allocated on the thread's first exception, and abort() when that fails.
// The host calls the plugin on threads it creates whenever it likes, so a
// thread's first throw may well be std::bad_alloc. This file defines the
// runtime's entries for both itself (the linker then leaves libstdc++'s
// eh_alloc and eh_globals out), with reserves that need neither a lock nor
// the heap. The reserves are claimed with an atomic operation each; a
// thread's record goes back when an entry of the plugin's returns with no
// exception in flight on that thread (boundary::EntryScope).
#include "support/boundary.h"

#include <windows.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>

#if defined(__GLIBCXX__)

namespace
{
// What libstdc++ 12 puts in front of every exception object on x86-64
// (sizeof(__cxa_refcounted_exception)), the size of a dependent exception
// (std::rethrow_exception), and a thread's record (__cxa_eh_globals: the
// chain of caught exceptions and the count of uncaught ones); read off
// its eh_alloc and eh_globals.
constexpr size_t kHeaderBytes = 0xa0;
constexpr size_t kDependentBytes = 0x90;
struct ThreadRecord
{
    void* caughtExceptions;
    unsigned int uncaughtExceptions;
};
static_assert(sizeof(ThreadRecord) == 16, "the runtime's layout");

// Exception objects: 64 slots of 1 KiB, far more than this module ever has
// in flight at once, each far larger than anything it throws.
constexpr size_t kSlotBytes = 1024;
constexpr unsigned kSlots = 64;
alignas(16) unsigned char objectReserve[kSlots][kSlotBytes];
std::atomic<uint64_t> claimedObjects{0};

void* ObjectFromReserve(size_t bytes) noexcept
{
    if (bytes > kSlotBytes)
        return nullptr;
    uint64_t current = claimedObjects.load();
    while (current != ~uint64_t{0})
    {
        unsigned slot = 0;
        while (current & (uint64_t{1} << slot))
            ++slot;
        if (claimedObjects.compare_exchange_weak(current, current | (uint64_t{1} << slot)))
            return objectReserve[slot];
    }
    return nullptr;
}

// Zero-filled up to zeroed; with neither malloc nor the reserve, the
// runtime's own answer: std::terminate.
void* AllocateObject(size_t bytes, size_t zeroed) noexcept
{
    void* block = std::malloc(bytes);
    if (block == nullptr)
        block = ObjectFromReserve(bytes);
    if (block == nullptr)
        std::terminate();
    std::memset(block, 0, zeroed);
    return block;
}

void ReleaseObject(void* block) noexcept
{
    auto* byte = static_cast<unsigned char*>(block);
    if (byte >= &objectReserve[0][0] && byte < &objectReserve[0][0] + sizeof(objectReserve))
    {
        const auto slot = static_cast<unsigned>((byte - &objectReserve[0][0]) / kSlotBytes);
        claimedObjects.fetch_and(~(uint64_t{1} << slot));
        return;
    }
    std::free(block);
}

// Threads' records: a table that threads claim by their identifier, first
// come first served, and a heap record for a thread that finds it full.
// Only threads with an exception in flight hold one, so 64 are plenty.
struct RecordEntry
{
    std::atomic<DWORD> owner{0};
    ThreadRecord record{};
};
RecordEntry recordTable[64];

struct HeapRecord
{
    DWORD owner;
    ThreadRecord record;
    HeapRecord* next;
};
std::atomic<HeapRecord*> heapRecords{nullptr};

ThreadRecord* FindRecord(DWORD thread) noexcept
{
    for (RecordEntry& entry : recordTable)
    {
        if (entry.owner.load(std::memory_order_acquire) == thread)
            return &entry.record;
    }
    for (HeapRecord* node = heapRecords.load(std::memory_order_acquire); node != nullptr; node = node->next)
    {
        if (node->owner == thread)
            return &node->record;
    }
    return nullptr;
}

ThreadRecord* ClaimRecord(DWORD thread) noexcept
{
    for (RecordEntry& entry : recordTable)
    {
        DWORD free = 0;
        if (entry.owner.load(std::memory_order_relaxed) == 0 &&
            entry.owner.compare_exchange_strong(free, thread, std::memory_order_acq_rel))
        {
            entry.record = ThreadRecord{};
            return &entry.record;
        }
    }
    // A heap record stays for the module's life, its thread's until the
    // thread gives it up; another thread of the same identifier reuses it.
    auto* node = static_cast<HeapRecord*>(std::calloc(1, sizeof(HeapRecord)));
    if (node == nullptr)
        std::abort(); // as the runtime does without a record
    node->owner = thread;
    node->next = heapRecords.load(std::memory_order_relaxed);
    while (!heapRecords.compare_exchange_weak(node->next, node, std::memory_order_acq_rel))
    {
    }
    return &node->record;
}
} // namespace

extern "C" void* __cxa_allocate_exception(size_t thrownBytes) noexcept
{
    return static_cast<unsigned char*>(AllocateObject(thrownBytes + kHeaderBytes, kHeaderBytes)) + kHeaderBytes;
}

extern "C" void __cxa_free_exception(void* object) noexcept
{
    ReleaseObject(static_cast<unsigned char*>(object) - kHeaderBytes);
}

extern "C" void* __cxa_allocate_dependent_exception() noexcept
{
    return AllocateObject(kDependentBytes, kDependentBytes);
}

extern "C" void __cxa_free_dependent_exception(void* exception) noexcept
{
    ReleaseObject(exception);
}

extern "C" void* __cxa_get_globals() noexcept
{
    const DWORD thread = GetCurrentThreadId();
    if (ThreadRecord* record = FindRecord(thread))
        return record;
    return ClaimRecord(thread);
}

extern "C" void* __cxa_get_globals_fast() noexcept
{
    return __cxa_get_globals();
}

namespace __gnu_cxx
{
// Frees the emergency pool at exit under memory checkers; there is none.
void __freeres() noexcept {}
} // namespace __gnu_cxx

namespace boundary
{
EntryScope::~EntryScope()
{
    const DWORD thread = GetCurrentThreadId();
    for (RecordEntry& entry : recordTable)
    {
        if (entry.owner.load(std::memory_order_acquire) != thread)
            continue;
        if (entry.record.caughtExceptions == nullptr && entry.record.uncaughtExceptions == 0)
            entry.owner.store(0, std::memory_order_release);
        return;
    }
}
} // namespace boundary

#else

namespace boundary
{
EntryScope::~EntryScope() {}
} // namespace boundary

#endif
