// Kernel32 and a few text helpers for the freestanding host built for
// Microsoft's C++ ABI: no C runtime, no Windows headers.
#pragma once

#include <stddef.h>
#include <stdint.h>

extern "C"
{
    struct SrwLock
    {
        void* value;
    };

    void* memcpy(void* target, const void* source, size_t count);
    void* memset(void* target, int value, size_t count);

    __declspec(dllimport) void* __stdcall GetProcessHeap();
    __declspec(dllimport) void* __stdcall HeapAlloc(void* heap, unsigned long flags, size_t size);
    __declspec(dllimport) int __stdcall HeapFree(void* heap, unsigned long flags, void* block);
    __declspec(dllimport) void* __stdcall LoadLibraryW(const wchar_t* name);
    __declspec(dllimport) void* __stdcall GetProcAddress(void* module, const char* name);
    __declspec(dllimport) int __stdcall FreeLibrary(void* module);
    __declspec(dllimport) void __stdcall InitializeSRWLock(SrwLock* lock);
    __declspec(dllimport) void __stdcall AcquireSRWLockExclusive(SrwLock* lock);
    __declspec(dllimport) void __stdcall ReleaseSRWLockExclusive(SrwLock* lock);
}

namespace msvc
{
size_t TextLength(const char* text);
size_t TextLength(const wchar_t* text);
bool SameText(const char* a, const char* b);
bool SameText(const wchar_t* a, const wchar_t* b);
// Bounded copies; the target is always terminated.
void CopyText(char* target, size_t capacity, const char* text);
void CopyText(wchar_t* target, size_t capacity, const wchar_t* text);
void NarrowText(char* target, size_t capacity, const wchar_t* text);

// A text that grows up to a fixed size and is cut there.
class Text
{
public:
    void Add(const char* text);
    void Add(const wchar_t* text);
    void Add(uint64_t number);
    const char* Get() const { return buffer; }

private:
    char buffer[32768] = {};
    size_t length = 0;
};

class Lock
{
public:
    Lock();
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    friend class Guard;
    SrwLock lock;
};

class Guard
{
public:
    explicit Guard(Lock& lock);
    ~Guard();
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    Lock& lock;
};
} // namespace msvc
