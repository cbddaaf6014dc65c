// The counted string: text that travels in records shared with the host.
// Its memory layout is a contract between the two modules:
//
//   block (capacity N, N + 21 bytes, one allocation of the string's manager)
//     +0       guard 0xABCD                          (4 bytes)
//     +4       descriptor pointer, unaligned         (8 bytes)
//     +12      guard 0xABCD                          (4 bytes)
//     +16      text and terminator                   (N + 1 bytes)
//     +17 + N  guard 0xABCD                          (4 bytes)
//
// The string itself is one pointer, to the text at +16, or null for no
// storage. A descriptor pointer of null also means no storage.
#pragma once

#include <cstddef>
#include <cstdint>

#include "support/mem_mgr.h"

namespace qm
{
// The 40-byte record beside each block.
struct CountedStringDescriptor
{
    IMemMgr* manager;
    std::uint64_t length;   // characters in use, without the terminator
    std::uint64_t capacity; // N
    std::uint64_t growth;   // smallest step of growth
    std::uint8_t ownsBlock;      // 1 when the block came from manager
    std::uint8_t ownsDescriptor; // 1 when this record came from manager
};

#pragma pack(push, 1)
// The part of the block in front of the text.
struct CountedStringHeader
{
    std::uint32_t leadingGuard;
    CountedStringDescriptor* descriptor;
    std::uint32_t innerGuard;
};
#pragma pack(pop)

constexpr std::uint32_t kCountedStringGuard = 0xABCD;
// Bytes of a block beyond its capacity: header, terminator, trailing guard.
constexpr std::size_t kCountedStringOverhead = 21;
constexpr std::uint64_t kCountedStringDefaultGrowth = 64;

static_assert(sizeof(CountedStringDescriptor) == 40, "descriptor is 40 bytes");
static_assert(offsetof(CountedStringDescriptor, manager) == 0, "descriptor layout");
static_assert(offsetof(CountedStringDescriptor, length) == 8, "descriptor layout");
static_assert(offsetof(CountedStringDescriptor, capacity) == 16, "descriptor layout");
static_assert(offsetof(CountedStringDescriptor, growth) == 24, "descriptor layout");
static_assert(offsetof(CountedStringDescriptor, ownsBlock) == 32, "descriptor layout");
static_assert(offsetof(CountedStringDescriptor, ownsDescriptor) == 33, "descriptor layout");
static_assert(sizeof(CountedStringHeader) == 16, "the text starts 16 bytes into the block");
static_assert(offsetof(CountedStringHeader, leadingGuard) == 0, "block layout");
static_assert(offsetof(CountedStringHeader, descriptor) == 4, "block layout");
static_assert(offsetof(CountedStringHeader, innerGuard) == 12, "block layout");
static_assert(kCountedStringOverhead == sizeof(CountedStringHeader) + 1 + sizeof(std::uint32_t),
    "a block is its capacity plus header, terminator and trailing guard");

// Not thread-safe: a string belongs to one thread at a time. Strings this
// module creates use defaultStringMemMgr; a string made elsewhere keeps the
// manager its descriptor names, and all growing and freeing goes through it.
//
// Fatal failures end the process at once through RaiseFailFastException,
// which no exception handler sees, so that a string found overwritten is not
// touched again. They are: a broken guard, seen by Set and the destructor,
// and a Reserve or Assign that fails inside Set.
class CountedString
{
public:
    // The length argument of Assign that stands for "up to the terminator".
    static constexpr std::size_t kWholeText = ~std::size_t{0};

    CountedString() = default;
    // Frees the storage through the string's manager and leaves the pointer
    // null, so that running it again on the same object frees nothing.
    ~CountedString();

    CountedString(const CountedString&) = delete;
    CountedString& operator=(const CountedString&) = delete;
    CountedString(CountedString&& other) noexcept;
    CountedString& operator=(CountedString&& other) noexcept;

    // Sets the capacity to exactly capacity characters, keeping the text up
    // to it. False when memory runs out; the string is then unchanged.
    bool Reserve(std::size_t capacity);
    // Replaces the text with length characters of text (kWholeText: up to
    // its terminator; a null text is empty). Grows by doubling below 1024
    // characters and by at least 1024 above. False when memory runs out;
    // the string is then unchanged.
    bool Assign(const char* text, std::size_t length = kWholeText);
    // Replaces the text with a terminated text, or empties it for null.
    // Fails fast when memory runs out or a guard is broken.
    void Set(const char* text);
    // The terminated text; a shared empty text while there is no storage.
    const char* Text() const;

private:
    CountedStringDescriptor* _Descriptor() const;
    void _CheckGuards() const;
    void _Destroy();

    char* text = nullptr;
};

static_assert(sizeof(CountedString) == sizeof(void*), "a counted string is one pointer");
} // namespace qm
