#include "simhost/guarded_library.h"

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <utility>

namespace sim
{
namespace
{
constexpr WORD kGuardCf = 0x4000;                  // IMAGE_DLLCHARACTERISTICS_GUARD_CF
constexpr uint32_t kCfInstrumented = 0x100;        // IMAGE_GUARD_CF_INSTRUMENTED
constexpr uint32_t kTablePresent = 0x400;          // IMAGE_GUARD_CF_FUNCTION_TABLE_PRESENT
constexpr uint32_t kTableSizeMask = 0xF0000000;    // IMAGE_GUARD_CF_FUNCTION_TABLE_SIZE_MASK
constexpr int kTableSizeShift = 28;
constexpr DWORD kFastFailExit = 0xC0000409;        // STATUS_STACK_BUFFER_OVERRUN, as a failed guard check ends

// The head of IMAGE_LOAD_CONFIG_DIRECTORY64 up to GuardFlags (mingw-w64's
// headers stop before the guard's fields).
struct LoadConfigHead
{
    DWORD Size;
    DWORD TimeDateStamp;
    WORD MajorVersion;
    WORD MinorVersion;
    DWORD GlobalFlagsClear;
    DWORD GlobalFlagsSet;
    DWORD CriticalSectionDefaultTimeout;
    ULONGLONG DeCommitFreeBlockThreshold;
    ULONGLONG DeCommitTotalFreeThreshold;
    ULONGLONG LockPrefixTable;
    ULONGLONG MaximumAllocationSize;
    ULONGLONG VirtualMemoryThreshold;
    ULONGLONG ProcessAffinityMask;
    DWORD ProcessHeapFlags;
    WORD CSDVersion;
    WORD DependentLoadFlags;
    ULONGLONG EditList;
    ULONGLONG SecurityCookie;
    ULONGLONG SEHandlerTable;
    ULONGLONG SEHandlerCount;
    ULONGLONG GuardCFCheckFunctionPointer;
    ULONGLONG GuardCFDispatchFunctionPointer;
    ULONGLONG GuardCFFunctionTable;
    ULONGLONG GuardCFFunctionCount;
    DWORD GuardFlags;
};
static_assert(offsetof(LoadConfigHead, GuardCFCheckFunctionPointer) == 0x70, "load configuration layout");
static_assert(offsetof(LoadConfigHead, GuardFlags) == 0x90, "load configuration layout");
constexpr DWORD kGuardFieldsEnd = offsetof(LoadConfigHead, GuardFlags) + sizeof(DWORD);

// The guarded images of this process. Lookups take the lock shared on every
// checked call; a few slots are enough for the plugin and a host module.
struct Image
{
    uintptr_t begin = 0;
    uintptr_t end = 0;
    GuardRecord record;
    int references = 0;
    char name[64] = {};
};
constexpr size_t kImages = 8;
Image images[kImages];
SRWLOCK imagesLock = SRWLOCK_INIT;
volatile LONG64 checkedCalls = 0;

bool Listed(const GuardRecord& record, uint32_t rva)
{
    size_t low = 0, high = record.count;
    while (low < high)
    {
        const size_t middle = low + (high - low) / 2;
        uint32_t entry;
        std::memcpy(&entry, record.table + middle * record.stride, sizeof entry);
        if (entry == rva)
            return true;
        if (entry < rva)
            low = middle + 1;
        else
            high = middle;
    }
    return false;
}

void WriteStderr(const char* text)
{
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(std::strlen(text)), &written, nullptr);
}

// Points one of the module's guard pointers at target; the pointers live in
// a read-only section, as the loader finds them.
bool Point(void** pointer, void (*target)(), std::string& error)
{
    DWORD old = 0;
    if (!VirtualProtect(pointer, sizeof *pointer, PAGE_READWRITE, &old))
    {
        error = "VirtualProtect of the guard pointer failed: " + std::to_string(GetLastError());
        return false;
    }
    *pointer = reinterpret_cast<void*>(target);
    VirtualProtect(pointer, sizeof *pointer, old, &old);
    FlushInstructionCache(GetCurrentProcess(), pointer, sizeof *pointer);
    return true;
}

void Forget(HMODULE module)
{
    const auto begin = reinterpret_cast<uintptr_t>(module);
    AcquireSRWLockExclusive(&imagesLock);
    for (Image& image : images)
        if (image.references > 0 && image.begin == begin && --image.references == 0)
            image = Image();
    ReleaseSRWLockExclusive(&imagesLock);
}

bool Enforce(HMODULE module, bool& guarded, std::string& error)
{
    GuardRecord record;
    if (!ReadGuardRecord(module, record, guarded, error))
        return false;
    if (!guarded)
        return true;
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(module);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(reinterpret_cast<const uint8_t*>(module) + dos->e_lfanew);
    const auto begin = reinterpret_cast<uintptr_t>(module);

    AcquireSRWLockExclusive(&imagesLock);
    Image* slot = nullptr;
    for (Image& image : images)
        if (image.references > 0 && image.begin == begin)
            slot = &image;
    if (slot == nullptr)
        for (Image& image : images)
            if (slot == nullptr && image.references == 0)
                slot = &image;
    if (slot == nullptr)
    {
        ReleaseSRWLockExclusive(&imagesLock);
        error = "no room to record another guarded image";
        return false;
    }
    if (slot->references == 0)
    {
        *slot = Image();
        slot->begin = begin;
        slot->end = begin + nt->OptionalHeader.SizeOfImage;
        slot->record = record;
        wchar_t path[MAX_PATH] = {};
        GetModuleFileNameW(module, path, MAX_PATH);
        const wchar_t* base = path;
        for (const wchar_t* p = path; *p != L'\0'; ++p)
            if (*p == L'\\' || *p == L'/')
                base = p + 1;
        for (size_t i = 0; base[i] != L'\0' && i + 1 < sizeof slot->name; ++i)
            slot->name[i] = base[i] < 0x80 ? static_cast<char>(base[i]) : '?';
    }
    ++slot->references;
    ReleaseSRWLockExclusive(&imagesLock);

    if (!Point(record.checkPointer, pcp_sim_guard_check, error) ||
        !Point(record.dispatchPointer, pcp_sim_guard_dispatch, error))
    {
        Forget(module);
        return false;
    }
    return true;
}
} // namespace

uint64_t GuardCheckedCalls()
{
    return static_cast<uint64_t>(InterlockedCompareExchange64(&checkedCalls, 0, 0));
}

bool ReadGuardRecord(HMODULE module, GuardRecord& record, bool& guarded, std::string& error)
{
    guarded = false;
    const auto* base = reinterpret_cast<const uint8_t*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(base + dos->e_lfanew);
    const IMAGE_OPTIONAL_HEADER64& optional = nt->OptionalHeader;
    if ((optional.DllCharacteristics & kGuardCf) == 0)
        return true;
    guarded = true;
    const IMAGE_DATA_DIRECTORY& directory = optional.DataDirectory[IMAGE_DIRECTORY_ENTRY_LOAD_CONFIG];
    const uintptr_t begin = reinterpret_cast<uintptr_t>(base), end = begin + optional.SizeOfImage;
    if (directory.VirtualAddress == 0 || directory.Size < kGuardFieldsEnd)
    {
        error = "GUARD_CF is set but the load configuration is missing or too small for the guard's fields";
        return false;
    }
    const auto* config = reinterpret_cast<const LoadConfigHead*>(base + directory.VirtualAddress);
    if (config->Size < kGuardFieldsEnd)
    {
        error = "the load configuration's Size (" + std::to_string(config->Size) + ") ends before GuardFlags";
        return false;
    }
    const auto inside = [&](ULONGLONG address, ULONGLONG bytes) {
        return address >= begin && address <= end && bytes <= end - address;
    };
    record.flags = config->GuardFlags;
    record.stride = 4 + ((record.flags & kTableSizeMask) >> kTableSizeShift);
    record.count = static_cast<size_t>(config->GuardCFFunctionCount);
    if ((record.flags & kCfInstrumented) == 0 || (record.flags & kTablePresent) == 0)
    {
        error = "GuardFlags lack CF_INSTRUMENTED or CF_FUNCTION_TABLE_PRESENT";
        return false;
    }
    if (!inside(config->GuardCFCheckFunctionPointer, sizeof(void*)) ||
        !inside(config->GuardCFDispatchFunctionPointer, sizeof(void*)) || record.count == 0 ||
        record.count > optional.SizeOfImage / record.stride ||
        !inside(config->GuardCFFunctionTable, record.count * record.stride))
    {
        error = "the guard's pointers or function table lie outside the image";
        return false;
    }
    record.checkPointer = reinterpret_cast<void**>(config->GuardCFCheckFunctionPointer);
    record.dispatchPointer = reinterpret_cast<void**>(config->GuardCFDispatchFunctionPointer);
    record.table = reinterpret_cast<const uint8_t*>(config->GuardCFFunctionTable);
    return true;
}

GuardedLibrary::GuardedLibrary(const wchar_t* path) : module(LoadLibraryW(path))
{
    if (!module)
    {
        error = "LoadLibraryW failed: " + std::to_string(GetLastError());
        return;
    }
    if (!Enforce(module.get(), guarded, error))
    {
        module.reset();
        guarded = false;
    }
}

GuardedLibrary::~GuardedLibrary()
{
    if (module && guarded)
        Forget(module.get());
}

GuardedLibrary::GuardedLibrary(GuardedLibrary&& other) noexcept
    : module(std::move(other.module)), guarded(std::exchange(other.guarded, false)), error(std::move(other.error))
{
}
} // namespace sim

// Called by the checking dispatch and check (cfg_dispatch.s) with the target
// of an indirect call from guarded code.
extern "C" void pcp_sim_guard_check_target(uintptr_t target)
{
    InterlockedIncrement64(&sim::checkedCalls);
    bool stopped = false;
    char message[256];
    AcquireSRWLockShared(&sim::imagesLock);
    for (const sim::Image& image : sim::images)
    {
        if (image.references == 0 || target < image.begin || target >= image.end)
            continue;
        const auto rva = static_cast<uint32_t>(target - image.begin);
        if (!sim::Listed(image.record, rva))
        {
            std::snprintf(message, sizeof message,
                          "Control Flow Guard: indirect call to 0x%llx (%s+0x%lx), which is not a valid call "
                          "target of the module; the process ends as Windows ends it\n",
                          static_cast<unsigned long long>(target), image.name, static_cast<unsigned long>(rva));
            stopped = true;
        }
        break;
    }
    ReleaseSRWLockShared(&sim::imagesLock);
    if (stopped)
    {
        sim::WriteStderr(message);
        TerminateProcess(GetCurrentProcess(), sim::kFastFailExit);
    }
}
