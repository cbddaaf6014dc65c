// The little that a freestanding DLL built for Microsoft's C++ ABI needs of a
// runtime: the heap behind new and delete, the memory routines the compiler
// may call, the handler of a pure virtual call, and the entry point.
#include <stddef.h>

extern "C"
{
    __declspec(dllimport) void* __stdcall GetProcessHeap();
    __declspec(dllimport) void* __stdcall HeapAlloc(void* heap, unsigned long flags, size_t size);
    __declspec(dllimport) int __stdcall HeapFree(void* heap, unsigned long flags, void* block);

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

    int _purecall() { __builtin_trap(); }
    int __stdcall DllMain(void*, unsigned long, void*) { return 1; }
}

void* operator new(size_t size)
{
    return HeapAlloc(GetProcessHeap(), 0x00000008 /* HEAP_ZERO_MEMORY */, size == 0 ? 1 : size);
}

void operator delete(void* block) noexcept
{
    if (block != nullptr)
        HeapFree(GetProcessHeap(), 0, block);
}

void operator delete(void* block, size_t) noexcept { operator delete(block); }
