// One small owner template for every kind of Windows resource, and one alias
// per kind. Owners are move-only; release() hands the resource out without
// closing it. Resetting keeps the thread's last error as it was.
#pragma once

#include <windows.h>

#include <objbase.h>
#include <userenv.h>
#include <winsvc.h>
#include <wtsapi32.h>

#include <utility>

template <class Traits>
class UniqueResource
{
public:
    using Type = typename Traits::Type;

    UniqueResource() = default;
    explicit UniqueResource(Type value) : value(value) {}
    ~UniqueResource() { reset(); }

    UniqueResource(const UniqueResource&) = delete;
    UniqueResource& operator=(const UniqueResource&) = delete;
    UniqueResource(UniqueResource&& other) noexcept : value(other.release()) {}
    UniqueResource& operator=(UniqueResource&& other) noexcept
    {
        if (this != &other)
            reset(other.release());
        return *this;
    }

    void reset(Type newValue = Traits::Invalid())
    {
        Type old = std::exchange(value, newValue);
        if (old != Traits::Invalid())
        {
            const DWORD lastError = GetLastError();
            Traits::Close(old);
            SetLastError(lastError);
        }
    }

    [[nodiscard]] Type release() { return std::exchange(value, Traits::Invalid()); }
    Type get() const { return value; }
    explicit operator bool() const { return value != Traits::Invalid(); }

private:
    Type value = Traits::Invalid();
};

struct HandleTraits // invalid is null: events, processes, threads, tokens
{
    using Type = HANDLE;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { CloseHandle(h); }
};

struct FileHandleTraits // invalid is INVALID_HANDLE_VALUE: files, snapshots
{
    using Type = HANDLE;
    static Type Invalid() { return INVALID_HANDLE_VALUE; }
    static void Close(Type h) { CloseHandle(h); }
};

struct RegKeyTraits
{
    using Type = HKEY;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { RegCloseKey(h); }
};

struct ModuleTraits
{
    using Type = HMODULE;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { FreeLibrary(h); }
};

struct ServiceHandleTraits // the service manager and its services
{
    using Type = SC_HANDLE;
    static Type Invalid() { return nullptr; }
    static void Close(Type h) { CloseServiceHandle(h); }
};

template <class T>
struct CoTaskMemTraits // memory the shell hands out, such as known-folder paths
{
    using Type = T*;
    static Type Invalid() { return nullptr; }
    static void Close(Type p) { CoTaskMemFree(p); }
};

struct EnvironmentBlockTraits // from CreateEnvironmentBlock
{
    using Type = void*;
    static Type Invalid() { return nullptr; }
    static void Close(Type p) { DestroyEnvironmentBlock(p); }
};

template <class T>
struct WtsMemoryTraits // lists and texts from the WTS functions
{
    using Type = T*;
    static Type Invalid() { return nullptr; }
    static void Close(Type p) { WTSFreeMemory(p); }
};

using UniqueHandle = UniqueResource<HandleTraits>;
using UniqueFileHandle = UniqueResource<FileHandleTraits>;
using UniqueRegKey = UniqueResource<RegKeyTraits>;
using UniqueModule = UniqueResource<ModuleTraits>;
using UniqueServiceHandle = UniqueResource<ServiceHandleTraits>;
using UniqueSnapshot = UniqueResource<FileHandleTraits>; // toolhelp snapshots
using UniqueEnvironmentBlock = UniqueResource<EnvironmentBlockTraits>;
template <class T>
using UniqueWtsMemory = UniqueResource<WtsMemoryTraits<T>>;
template <class T>
using UniqueCoTaskMem = UniqueResource<CoTaskMemTraits<T>>;
