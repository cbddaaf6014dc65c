// The little that a freestanding DLL built for Microsoft's C++ ABI needs of a
// runtime: the heap behind new and delete, the memory routines the compiler
// may call, the handler of a pure virtual call, and the entry point.
#include "simhost/msvc/runtime.h"

namespace
{
void* Allocate(size_t size)
{
    return HeapAlloc(GetProcessHeap(), 0x00000008 /* HEAP_ZERO_MEMORY */, size == 0 ? 1 : size);
}
} // namespace

void* operator new(size_t size)
{
    return Allocate(size);
}
void* operator new[](size_t size)
{
    return Allocate(size);
}
void operator delete(void* block) noexcept
{
    if (block != nullptr)
        HeapFree(GetProcessHeap(), 0, block);
}
void operator delete(void* block, size_t) noexcept
{
    operator delete(block);
}
void operator delete[](void* block) noexcept
{
    operator delete(block);
}
void operator delete[](void* block, size_t) noexcept
{
    operator delete(block);
}

extern "C"
{
    void* memset(void* target, int value, size_t count)
    {
        volatile unsigned char* bytes = static_cast<unsigned char*>(target);
        for (size_t i = 0; i < count; ++i)
            bytes[i] = static_cast<unsigned char>(value);
        return target;
    }

    void* memcpy(void* target, const void* source, size_t count)
    {
        volatile unsigned char* to = static_cast<unsigned char*>(target);
        const unsigned char* from = static_cast<const unsigned char*>(source);
        for (size_t i = 0; i < count; ++i)
            to[i] = from[i];
        return target;
    }

    int _purecall()
    {
        __builtin_trap();
    }

    int _fltused = 0;

    int __stdcall DllMain(void*, unsigned long, void*)
    {
        return 1;
    }
}

namespace msvc
{
size_t TextLength(const char* text)
{
    size_t length = 0;
    while (text != nullptr && text[length] != '\0')
        ++length;
    return length;
}

size_t TextLength(const wchar_t* text)
{
    size_t length = 0;
    while (text != nullptr && text[length] != L'\0')
        ++length;
    return length;
}

bool SameText(const char* a, const char* b)
{
    for (;; ++a, ++b)
    {
        if (*a != *b)
            return false;
        if (*a == '\0')
            return true;
    }
}

bool SameText(const wchar_t* a, const wchar_t* b)
{
    for (;; ++a, ++b)
    {
        if (*a != *b)
            return false;
        if (*a == L'\0')
            return true;
    }
}

void CopyText(char* target, size_t capacity, const char* text)
{
    size_t i = 0;
    for (; text != nullptr && text[i] != '\0' && i + 1 < capacity; ++i)
        target[i] = text[i];
    target[i] = '\0';
}

void CopyText(wchar_t* target, size_t capacity, const wchar_t* text)
{
    size_t i = 0;
    for (; text != nullptr && text[i] != L'\0' && i + 1 < capacity; ++i)
        target[i] = text[i];
    target[i] = L'\0';
}

void NarrowText(char* target, size_t capacity, const wchar_t* text)
{
    size_t i = 0;
    for (; text != nullptr && text[i] != L'\0' && i + 1 < capacity; ++i)
        target[i] = text[i] < 128 ? static_cast<char>(text[i]) : '?';
    target[i] = '\0';
}

void Text::Add(const char* text)
{
    for (; text != nullptr && *text != '\0' && length + 1 < sizeof(buffer); ++text)
        buffer[length++] = *text;
    buffer[length] = '\0';
}

void Text::Add(const wchar_t* text)
{
    char narrow[256];
    NarrowText(narrow, sizeof(narrow), text);
    Add(narrow);
}

void Text::Add(uint64_t number)
{
    char digits[24];
    int count = 0;
    do
    {
        digits[count++] = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number != 0);
    char text[24];
    for (int i = 0; i < count; ++i)
        text[i] = digits[count - 1 - i];
    text[count] = '\0';
    Add(text);
}

Lock::Lock()
{
    InitializeSRWLock(&lock);
}

Guard::Guard(Lock& lock) : lock(lock)
{
    AcquireSRWLockExclusive(&lock.lock);
}

Guard::~Guard()
{
    ReleaseSRWLockExclusive(&lock.lock);
}
} // namespace msvc
