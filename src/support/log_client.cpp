#include "support/log_client.h"

#include <cstddef>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <memory>
#include <new>

namespace logging
{
static_assert(offsetof(CLogDLL, module) == 0, "the module handle leads the record");
static_assert(offsetof(CLogDLL, LogWrite) == 10 * sizeof(void*), "LogWrite is entry 10");
static_assert(offsetof(CLogDLL, LogGetLevel) == 17 * sizeof(void*), "LogGetLevel is entry 17");
static_assert(sizeof(CLogDLL) == 18 * sizeof(void*), "one module handle and 17 entries");

namespace
{
// The process-wide record and its user count. Both are guarded by
// recordLock, a word taken by exchanging 1 into it; the lock is held while
// the library loads and unloads. Scopes and streams also read userCount
// without the lock: a stale value costs at most one lost line or one
// pointless acquire.
std::atomic<int32_t> recordLock{0};
CLogDLL* sharedRecord = nullptr;
std::atomic<int32_t> userCount{0};

class RecordLockGuard
{
public:
    RecordLockGuard()
    {
        while (recordLock.exchange(1, std::memory_order_acquire) != 0)
            Sleep(1);
    }
    ~RecordLockGuard() { recordLock.exchange(0, std::memory_order_release); }

    RecordLockGuard(const RecordLockGuard&) = delete;
    RecordLockGuard& operator=(const RecordLockGuard&) = delete;
};

HRESULT LogWriteStub(uint16_t, const uint32_t*, HMODULE, const wchar_t*, const wchar_t*, va_list)
{
    return E_NOINTERFACE;
}

template <class Fn>
Fn Export(HMODULE library, const char* name)
{
    // Through void (*)(), which converts to any function pointer type.
    return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(GetProcAddress(library, name)));
}

template <class Fn>
void Resolve(HMODULE library, const char* name, Fn& entry)
{
    entry = Export<Fn>(library, name);
}

// LoadLibraryW of "log.dll" in the folder of this module, by full path.
UniqueModule LoadBesideOwnModule()
{
    constexpr DWORD kCapacity = 32767;
    constexpr wchar_t kLeaf[] = L"\\log.dll";
    const std::unique_ptr<wchar_t[]> path(new (std::nothrow) wchar_t[kCapacity]());
    if (!path)
        return {};
    const DWORD length = GetModuleFileNameW(OwnModule(), path.get(), kCapacity);
    if (length == 0 || length >= kCapacity)
        return {};
    wchar_t* const slash = std::wcsrchr(path.get(), L'\\');
    if (slash == nullptr || static_cast<size_t>(slash - path.get()) + std::size(kLeaf) > kCapacity)
        return {};
    std::memcpy(slash, kLeaf, sizeof(kLeaf));
    return UniqueModule(LoadLibraryW(path.get()));
}
} // namespace

CLogDLL::~CLogDLL()
{
    if (!module)
        return;
    if (const auto deinit = Export<LogNoArgsFn>(module.get(), "LogDeinit"))
        deinit();
    if (LogUninitDeskMetrics != nullptr)
        LogUninitDeskMetrics();
    if (LogRemoveModule != nullptr)
        LogRemoveModule("logging::CLogDLL::~CLogDLL");
    // FreeLibrary follows as the member module is destroyed.
}

void CLogDLL::Load()
{
    HMODULE loaded = nullptr;
    if (GetModuleHandleExW(0, L"log.dll", &loaded))
        module.reset(loaded);
    else
        module = LoadBesideOwnModule();
    if (!module)
    {
        LogWrite = &LogWriteStub;
        return;
    }
    const HMODULE library = module.get();
    if (const auto init = Export<LogNoArgsFn>(library, "LogInit"))
        init();

    Resolve(library, "LogApplySettings", LogApplySettings);
    Resolve(library, "LogSetSettingsFile", LogSetSettingsFile);
    Resolve(library, "LogEnable", LogEnable);
    Resolve(library, "LogSetLevel", LogSetLevel);
    Resolve(library, "LogSetPath", LogSetPath);
    Resolve(library, "LogSetType", LogSetType);
    Resolve(library, "LogSetMode", LogSetMode);
    Resolve(library, "LogSetMaxSize", LogSetMaxSize);
    Resolve(library, "LogSetDepth", LogSetDepth);
    Resolve(library, "LogWrite", LogWrite);
    Resolve(library, "LogIsEnabled", LogIsEnabled);
    Resolve(library, "LogMonitorSettings", LogMonitorSettings);
    Resolve(library, "LogGetLevel", LogGetLevel);
    Resolve(library, "LogUninitDeskMetrics", LogUninitDeskMetrics);
    Resolve(library, "LogTrackEvent", LogTrackEvent);
    Resolve(library, "LogTrackEventData", LogTrackEventData);
    Resolve(library, "LogRemoveModule", LogRemoveModule);

    if (LogWrite == nullptr)
        LogWrite = &LogWriteStub;
}

HRESULT CLogDLL::Write(uint16_t depth, const uint32_t* level, const wchar_t* function, const wchar_t* format,
                       ...) const
{
    va_list args;
    va_start(args, format);
    const HRESULT result = LogWrite(depth, level, OwnModule(), function, format, args);
    va_end(args);
    return result;
}

int32_t UserCount() noexcept
{
    return userCount.load(std::memory_order_relaxed);
}

HMODULE OwnModule() noexcept
{
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&OwnModule), &self);
    return self;
}
} // namespace logging

void CLogDLLRef::Acquire() noexcept
{
    using namespace logging;
    CLogDLL* current = nullptr;
    {
        RecordLockGuard guard;
        if (userCount.load(std::memory_order_relaxed) == 0)
        {
            delete sharedRecord;
            // Without memory for the record the users still count; every
            // write then finds no record and is dropped.
            sharedRecord = new (std::nothrow) CLogDLL();
            if (sharedRecord != nullptr)
                sharedRecord->Load();
        }
        userCount.store(userCount.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        current = sharedRecord;
    }
    record = current;
    count.fetch_add(1);
}

void CLogDLLRef::Release() noexcept
{
    using namespace logging;
    record = nullptr;
    while (count.fetch_sub(1) >= 1)
    {
        RecordLockGuard guard;
        int32_t users = userCount.load(std::memory_order_relaxed);
        if (users > 0)
            userCount.store(--users, std::memory_order_relaxed);
        if (sharedRecord != nullptr && users == 0)
        {
            delete sharedRecord;
            sharedRecord = nullptr;
        }
    }
    count.fetch_add(1);
}
