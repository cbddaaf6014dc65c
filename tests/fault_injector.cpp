#include "fault_injector.h"

// The table names the runtime's allocators, whose declarations carry
// attributes that a function type used as a template argument drops.
#pragma GCC diagnostic ignored "-Wignored-attributes"

#include <shlobj.h>
#include <shlwapi.h>
#include <tlhelp32.h>
#include <userenv.h>
#include <wtsapi32.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <io.h>
#include <sys/stat.h>
#include <process.h>
#include <type_traits>

#include "simhost/fault_point.h"

namespace fault
{
namespace
{
// How a function fails: its result, then the last error and errno it leaves
// (0: untouched), then one out parameter it clears (argument index from 0,
// and its width in bytes; -1: none).
struct Failure
{
    uintptr_t result;
    DWORD lastError;
    int error;
    int outIndex;
    size_t outBytes;
};

constexpr uintptr_t kInvalid = static_cast<uintptr_t>(-1);
constexpr Failure Plain(uintptr_t result, DWORD lastError = 0, int error = 0) { return {result, lastError, error, -1, 0}; }
constexpr Failure Clearing(uintptr_t result, DWORD lastError, int outIndex, size_t outBytes)
{
    return {result, lastError, 0, outIndex, outBytes};
}

// The table: every fallible function that the plugin or the runtime linked
// into it imports. Calls that Windows fails only for a handle that is not
// valid are left alone: closing (CloseHandle, RegCloseKey, FreeLibrary and
// their kind) and SetEvent, which the threads library linked into the DLL
// also uses to wake its waiters.
#define FAULT_TABLE(X)                                                                                                 \
    X(RegGetValueW, Plain(ERROR_ACCESS_DENIED))                                                                        \
    X(RegSetKeyValueW, Plain(ERROR_ACCESS_DENIED))                                                                     \
    X(RegDeleteKeyValueW, Plain(ERROR_ACCESS_DENIED))                                                                  \
    X(RegOpenKeyExW, Clearing(ERROR_ACCESS_DENIED, 0, 4, sizeof(HKEY)))                                                \
    X(OpenProcess, Plain(0, ERROR_ACCESS_DENIED))                                                                      \
    X(OpenProcessToken, Plain(FALSE, ERROR_ACCESS_DENIED))                                                             \
    X(LookupPrivilegeValueW, Plain(FALSE, ERROR_NO_SUCH_PRIVILEGE))                                                    \
    X(GetTokenInformation, Plain(FALSE, ERROR_ACCESS_DENIED))                                                          \
    X(DuplicateTokenEx, Plain(FALSE, ERROR_ACCESS_DENIED))                                                             \
    X(SetTokenInformation, Plain(FALSE, ERROR_ACCESS_DENIED))                                                          \
    X(AdjustTokenPrivileges, Plain(FALSE, ERROR_ACCESS_DENIED))                                                        \
    X(CreateProcessAsUserW, Plain(FALSE, ERROR_PRIVILEGE_NOT_HELD))                                                    \
    X(CreateEnvironmentBlock, Clearing(FALSE, ERROR_NOT_ENOUGH_MEMORY, 0, sizeof(void*)))                              \
    X(OpenSCManagerW, Plain(0, ERROR_ACCESS_DENIED))                                                                   \
    X(OpenServiceW, Plain(0, ERROR_SERVICE_DOES_NOT_EXIST))                                                            \
    X(QueryServiceStatus, Plain(FALSE, ERROR_ACCESS_DENIED))                                                           \
    X(NotifyServiceStatusChangeW, Plain(ERROR_SERVICE_MARKED_FOR_DELETE))                                              \
    X(CreateEventW, Plain(0, ERROR_NOT_ENOUGH_MEMORY))                                                                 \
    X(CreateEventA, Plain(0, ERROR_NOT_ENOUGH_MEMORY))                                                                 \
    X(CreateSemaphoreA, Plain(0, ERROR_NOT_ENOUGH_MEMORY))                                                             \
    X(WaitForSingleObject, Plain(WAIT_FAILED, ERROR_INVALID_HANDLE))                                                   \
    X(MultiByteToWideChar, Plain(0, ERROR_NO_UNICODE_TRANSLATION))                                                     \
    X(WideCharToMultiByte, Plain(0, ERROR_INSUFFICIENT_BUFFER))                                                        \
    X(OpenEventW, Plain(0, ERROR_ACCESS_DENIED))                                                                       \
    X(DuplicateHandle, Plain(FALSE, ERROR_ACCESS_DENIED))                                                              \
    X(WaitForMultipleObjects, Plain(WAIT_FAILED, ERROR_INVALID_HANDLE))                                                \
    X(WaitForSingleObjectEx, Plain(WAIT_FAILED, ERROR_INVALID_HANDLE))                                                 \
    X(CreateToolhelp32Snapshot, Plain(kInvalid, ERROR_NOT_ENOUGH_MEMORY))                                              \
    X(Process32FirstW, Plain(FALSE, ERROR_NO_MORE_FILES))                                                              \
    X(Process32NextW, Plain(FALSE, ERROR_NO_MORE_FILES))                                                               \
    X(Module32FirstW, Plain(FALSE, ERROR_NO_MORE_FILES))                                                               \
    X(WTSGetActiveConsoleSessionId, Plain(0xFFFFFFFFu))                                                                \
    X(WTSEnumerateSessionsW, Clearing(FALSE, ERROR_ACCESS_DENIED, 3, sizeof(void*)))                                   \
    X(WTSQuerySessionInformationW, Clearing(FALSE, ERROR_ACCESS_DENIED, 3, sizeof(void*)))                             \
    X(SHGetKnownFolderPath, Clearing(static_cast<uint32_t>(E_FAIL), 0, 3, sizeof(void*)))                              \
    X(PathFileExistsW, Plain(FALSE, ERROR_ACCESS_DENIED))                                                              \
    X(DeleteFileW, Plain(FALSE, ERROR_ACCESS_DENIED))                                                                  \
    X(GetModuleFileNameW, Plain(0, ERROR_ACCESS_DENIED))                                                               \
    X(GetModuleHandleExW, Clearing(FALSE, ERROR_MOD_NOT_FOUND, 2, sizeof(HMODULE)))                                    \
    X(LoadLibraryW, Plain(0, ERROR_MOD_NOT_FOUND))                                                                     \
    X(GetProcAddress, Plain(0, ERROR_PROC_NOT_FOUND))                                                                  \
    X(_wfopen, Plain(0, 0, EACCES))                                                                                    \
    X(fopen, Plain(0, 0, EACCES))                                                                                      \
    X(_read, Plain(kInvalid, 0, EIO))                                                                                  \
    X(_write, Plain(kInvalid, 0, ENOSPC))                                                                              \
    X(_fstat64, Plain(kInvalid, 0, EBADF))                                                                             \
    X(_lseeki64, Plain(kInvalid, 0, EINVAL))                                                                           \
    X(_strdup, Plain(0, 0, ENOMEM))                                                                                    \
    X(malloc, Plain(0, 0, ENOMEM))                                                                                     \
    X(calloc, Plain(0, 0, ENOMEM))                                                                                     \
    X(realloc, Plain(0, 0, ENOMEM))                                                                                    \
    X(_beginthreadex, Plain(0, 0, EAGAIN))

// The simulated host's calls that return a status, and the status each
// fails with (simhost/fault_point.h keeps the host's side of the contract).
#define HOST_TABLE(X)                                                                                                  \
    X(GetComponent, ERROR_NOT_FOUND)                                                                                   \
    X(CreateSerialExecution, ERROR_NOT_ENOUGH_MEMORY)                                                                  \
    X(SetTimer, ERROR_NOT_ENOUGH_MEMORY)                                                                               \
    X(Post, ERROR_INVALID_HANDLE)                                                                                      \
    X(GetModuleInfo, ERROR_NOT_FOUND)                                                                                  \
    X(SetConnectAppState, ERROR_ACCESS_DENIED)                                                                         \
    X(PerformRequest, ERROR_TIMEOUT)

enum Index : size_t
{
#define FAULT_INDEX(name, failure) k_##name,
    FAULT_TABLE(FAULT_INDEX)
#undef FAULT_INDEX
        kImportRows,
    kHostRowsBefore = kImportRows - 1,
#define HOST_INDEX(name, status) kHost_##name,
    HOST_TABLE(HOST_INDEX)
#undef HOST_INDEX
        kRows
};

struct Row
{
    const char* name;
    Failure failure;
    void* thunk;
    void* original = nullptr;
    std::atomic<size_t> calls{0};
};

std::atomic<size_t> armedRow{kRows};
std::atomic<size_t> armedCall{0};
std::atomic<bool> persistent{false};
std::atomic<size_t> injected{0};

Row& RowAt(size_t index);

// The counter: true when this call is to fail.
bool ShouldFail(size_t index)
{
    const size_t call = RowAt(index).calls.fetch_add(1) + 1;
    if (armedRow.load() != index)
        return false;
    const size_t n = armedCall.load();
    if (call == n || (persistent.load() && call > n))
    {
        injected.fetch_add(1);
        return true;
    }
    return false;
}

template <class R>
R ResultOf(uintptr_t value)
{
    if constexpr (std::is_pointer_v<R>)
        return reinterpret_cast<R>(value);
    else
        return static_cast<R>(value);
}

// An argument as the address it holds; null for anything but a pointer.
template <class T>
void* AsAddress(const T& value)
{
    if constexpr (std::is_pointer_v<T>)
        return const_cast<void*>(reinterpret_cast<const void*>(value));
    else
        return nullptr;
}

template <class... A>
void ClearOut(const Failure& failure, const A&... args)
{
    if (failure.outIndex < 0)
        return;
    void* const addresses[] = {nullptr, AsAddress(args)...};
    if (void* out = addresses[failure.outIndex + 1])
        std::memset(out, 0, failure.outBytes);
}

template <size_t I, class Signature>
struct Hook;

template <size_t I, class R, class... A>
struct Hook<I, R(A...)>
{
    static R Call(A... args)
    {
        if (ShouldFail(I))
        {
            const Failure& failure = RowAt(I).failure;
            ClearOut(failure, args...);
            if (failure.error != 0)
                errno = failure.error;
            if (failure.lastError != 0)
                SetLastError(failure.lastError);
            if constexpr (!std::is_void_v<R>)
                return ResultOf<R>(failure.result);
            else
                return;
        }
        return reinterpret_cast<R (*)(A...)>(RowAt(I).original)(args...);
    }
};

Row rows[kRows] = {
#define FAULT_ROW(name, failure)                                                                                       \
    {#name, failure, reinterpret_cast<void*>(&Hook<k_##name, std::remove_pointer_t<decltype(&::name)>>::Call)},
    FAULT_TABLE(FAULT_ROW)
#undef FAULT_ROW
#define HOST_ROW(name, status) {#name, Plain(status), nullptr},
    HOST_TABLE(HOST_ROW)
#undef HOST_ROW
};
static_assert(sizeof(rows) / sizeof(rows[0]) == kRows, "one row per index");

Row& RowAt(size_t index)
{
    return rows[index];
}

Row* Find(const std::string& name)
{
    for (Row& row : rows)
    {
        if (name == row.name)
            return &row;
    }
    return nullptr;
}

// The simulated host asks here before each call that returns a status.
Status HostCall(const char* call)
{
    for (size_t index = kImportRows; index < kRows; ++index)
    {
        if (std::strcmp(rows[index].name, call) == 0)
            return ShouldFail(index) ? static_cast<Status>(rows[index].failure.result) : 0;
    }
    return 0;
}

void ResetCounts()
{
    for (Row& row : rows)
        row.calls = 0;
    injected = 0;
}
} // namespace

bool Install(HMODULE module)
{
    auto* base = reinterpret_cast<uint8_t*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    bool any = false;
    for (auto* import = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + directory.VirtualAddress);
         directory.VirtualAddress != 0 && import->Name != 0; ++import)
    {
        auto* names = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + import->OriginalFirstThunk);
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + import->FirstThunk);
        for (; names->u1.AddressOfData != 0; ++names, ++slots)
        {
            if (IMAGE_SNAP_BY_ORDINAL(names->u1.Ordinal))
                continue;
            const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + names->u1.AddressOfData);
            Row* row = Find(reinterpret_cast<const char*>(byName->Name));
            if (row == nullptr || reinterpret_cast<void*>(slots->u1.Function) == row->thunk)
                continue;
            DWORD old = 0;
            VirtualProtect(&slots->u1.Function, sizeof(slots->u1.Function), PAGE_READWRITE, &old);
            row->original = reinterpret_cast<void*>(slots->u1.Function);
            slots->u1.Function = reinterpret_cast<ULONG_PTR>(row->thunk);
            VirtualProtect(&slots->u1.Function, sizeof(slots->u1.Function), old, &old);
            any = true;
        }
    }
    sim::SetFaultPoint(&HostCall);
    Disarm();
    return any;
}

std::vector<std::string> Functions()
{
    std::vector<std::string> names;
    for (size_t index = 0; index < kRows; ++index)
    {
        if (rows[index].original != nullptr || index >= kImportRows)
            names.emplace_back(rows[index].name);
    }
    return names;
}

std::vector<std::string> HostCalls()
{
    std::vector<std::string> names;
    for (size_t index = kImportRows; index < kRows; ++index)
        names.emplace_back(rows[index].name);
    return names;
}

void Arm(const std::string& function, size_t n, Mode mode)
{
    armedRow = kRows;
    ResetCounts();
    const Row* row = Find(function);
    persistent = mode == Mode::Persistent;
    armedCall = n;
    armedRow = row != nullptr ? static_cast<size_t>(row - rows) : kRows;
}

void Disarm()
{
    armedRow = kRows;
    ResetCounts();
}

size_t Calls(const std::string& function)
{
    const Row* row = Find(function);
    return row != nullptr ? row->calls.load() : 0;
}

size_t Injected()
{
    return injected.load();
}
} // namespace fault
