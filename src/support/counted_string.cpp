#include "support/counted_string.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace qm
{
namespace
{
constexpr std::size_t kTextOffset = sizeof(CountedStringHeader);
constexpr std::size_t kMaxCapacity = ~std::size_t{0} - kCountedStringOverhead;
// Up to this capacity Assign at least doubles; above it, it adds at least it.
constexpr std::size_t kDoublingLimit = 1024;

// What Text gives while there is no storage; Set recognises it.
const char kEmptyText[1] = {};

// Ends the process on the spot: no exception handler, unwinding or
// destructor runs, and nothing touches the string again. Windows Error
// Reporting sees the failure; the exit code is STATUS_FAIL_FAST_EXCEPTION.
[[noreturn]] void FailFast()
{
    RaiseFailFastException(nullptr, nullptr, 0);
    std::abort(); // not reached: RaiseFailFastException does not return
}

// The header fields and the trailing guard are not aligned; they are read
// and written bytewise.
std::uint32_t LoadGuard(const char* at)
{
    std::uint32_t value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

void StoreGuard(char* at)
{
    std::memcpy(at, &kCountedStringGuard, sizeof kCountedStringGuard);
}

CountedStringDescriptor* LoadDescriptor(const char* block)
{
    CountedStringDescriptor* descriptor;
    std::memcpy(&descriptor, block + offsetof(CountedStringHeader, descriptor), sizeof descriptor);
    return descriptor;
}

void StoreDescriptor(char* block, CountedStringDescriptor* descriptor)
{
    std::memcpy(block + offsetof(CountedStringHeader, descriptor), &descriptor, sizeof descriptor);
}
} // namespace

CountedString::~CountedString()
{
    _Destroy();
}

CountedString::CountedString(CountedString&& other) noexcept : text(std::exchange(other.text, nullptr))
{
}

CountedString& CountedString::operator=(CountedString&& other) noexcept
{
    if (this != &other)
    {
        _Destroy();
        text = std::exchange(other.text, nullptr);
    }
    return *this;
}

bool CountedString::Reserve(std::size_t capacity)
{
    if (capacity > kMaxCapacity)
        return false;
    const std::size_t size = capacity + kCountedStringOverhead;

    // An existing block is resized when its manager made it; a foreign one
    // is copied and left where it is.
    CountedStringDescriptor* descriptor = _Descriptor();
    char* oldBlock = descriptor ? text - kTextOffset : nullptr;
    const bool resize = descriptor && descriptor->ownsBlock == 1;
    const std::size_t kept = descriptor ? std::min<std::size_t>(capacity, descriptor->capacity) + kCountedStringOverhead : 0;

    CountedStringDescriptor* created = nullptr;
    if (!descriptor)
    {
        void* memory = defaultStringMemMgr.Alloc(sizeof(CountedStringDescriptor));
        if (!memory)
            return false;
        created = new (memory) CountedStringDescriptor{&defaultStringMemMgr, 0, 0, kCountedStringDefaultGrowth, 0, 1};
        descriptor = created;
    }

    IMemMgr* manager = descriptor->manager;
    auto* block = static_cast<char*>(manager->Realloc(resize ? oldBlock : nullptr, size));
    if (!block)
    {
        block = static_cast<char*>(manager->Alloc(size));
        if (!block)
        {
            if (created)
                defaultStringMemMgr.Free(created);
            return false;
        }
        if (resize)
        {
            std::memcpy(block, oldBlock, kept);
            manager->Free(oldBlock);
        }
    }
    if (!resize)
    {
        std::memset(block, 0, size);
        if (oldBlock)
            std::memcpy(block, oldBlock, kept);
    }

    StoreGuard(block);
    StoreDescriptor(block, descriptor);
    StoreGuard(block + offsetof(CountedStringHeader, innerGuard));
    text = block + kTextOffset;
    text[capacity] = '\0';
    StoreGuard(text + capacity + 1);

    descriptor->capacity = capacity;
    descriptor->ownsBlock = 1;
    descriptor->length = std::min<std::uint64_t>(descriptor->length, capacity);
    return true;
}

bool CountedString::Assign(const char* source, std::size_t length)
{
    if (!source)
        length = 0;
    else if (length == kWholeText)
        length = std::strlen(source);

    const CountedStringDescriptor* descriptor = _Descriptor();
    const std::size_t capacity = descriptor ? descriptor->capacity : 0;
    const std::size_t growth = descriptor ? descriptor->growth : kCountedStringDefaultGrowth;
    if (capacity < length)
    {
        const std::size_t step = std::max(length - capacity, growth);
        const std::size_t extra = std::max(step, std::min(capacity, kDoublingLimit));
        if (extra > kMaxCapacity - capacity || !Reserve(capacity + extra))
            return false;
    }
    else if (capacity == 0 && length == 0)
    {
        // An assigned empty text still gets storage.
        if (!Reserve(growth))
            return false;
    }

    if (length != 0)
        std::memmove(text, source, length); // source may lie in this text
    text[length] = '\0';
    _Descriptor()->length = length;
    return true;
}

void CountedString::Set(const char* source)
{
    if (source && (source == text || source == kEmptyText))
        return;
    // Without memory the operation ends with the standard allocation error,
    // the string as it was: the entry that made the string loses its event.
    if (source)
    {
        if (!Assign(source))
            throw std::bad_alloc();
    }
    else
    {
        const CountedStringDescriptor* descriptor = _Descriptor();
        if (!descriptor || descriptor->capacity == 0)
        {
            if (!Reserve(descriptor ? descriptor->growth : kCountedStringDefaultGrowth))
                throw std::bad_alloc();
        }
        _Descriptor()->length = 0;
        text[0] = '\0';
    }
    _CheckGuards();
}

const char* CountedString::Text() const
{
    return text ? text : kEmptyText;
}

CountedStringDescriptor* CountedString::_Descriptor() const
{
    return text ? LoadDescriptor(text - kTextOffset) : nullptr;
}

// The two guards around the descriptor pointer are checked before the
// descriptor is read for the position of the third.
void CountedString::_CheckGuards() const
{
    const CountedStringDescriptor* descriptor = _Descriptor();
    if (!descriptor)
        return;
    if (LoadGuard(text - kTextOffset) != kCountedStringGuard
        || LoadGuard(text - kTextOffset + offsetof(CountedStringHeader, innerGuard)) != kCountedStringGuard
        || LoadGuard(text + descriptor->capacity + 1) != kCountedStringGuard)
        FailFast();
}

void CountedString::_Destroy()
{
    CountedStringDescriptor* descriptor = _Descriptor();
    if (descriptor)
    {
        _CheckGuards();
        IMemMgr* manager = descriptor->manager;
        if (descriptor->ownsBlock == 1)
            manager->Free(text - kTextOffset);
        if (descriptor->ownsDescriptor == 1)
            manager->Free(descriptor);
        manager->Release();
    }
    text = nullptr;
}
} // namespace qm
