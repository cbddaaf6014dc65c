// The counted string's memory as both modules see it: the manager interface
// through which either side grows or frees a string, the descriptor and the
// block header. See support/counted_string.h for the whole block.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace qm
{
// The order of the four operations is the table both modules call through.
// There is no virtual destructor: a manager's life is its owner's business.
class IMemMgr
{
public:
    // A block of size bytes, or null.
    virtual void* Alloc(uint64_t size) = 0;
    // block (which may be null) resized to size bytes, or null with block
    // left as it was.
    virtual void* Realloc(void* block, uint64_t size) = 0;
    virtual void Free(void* block) = 0;
    // Called once each time a string gives this manager up.
    virtual void Release() = 0;

protected:
    ~IMemMgr() = default;
};

// The 40-byte record beside each block.
struct CountedStringDescriptor
{
    IMemMgr* manager;
    uint64_t length;   // characters in use, without the terminator
    uint64_t capacity; // N
    uint64_t growth;   // smallest step of growth
    uint8_t ownsBlock;      // 1 when the block came from manager
    uint8_t ownsDescriptor; // 1 when this record came from manager
};

#pragma pack(push, 1)
// The part of the block in front of the text.
struct CountedStringHeader
{
    uint32_t leadingGuard;
    CountedStringDescriptor* descriptor;
    uint32_t innerGuard;
};
#pragma pack(pop)

constexpr uint32_t kCountedStringGuard = 0xABCD;
// Bytes of a block beyond its capacity: header, terminator, trailing guard.
constexpr size_t kCountedStringOverhead = 21;
constexpr uint64_t kCountedStringDefaultGrowth = 64;

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
static_assert(kCountedStringOverhead == sizeof(CountedStringHeader) + 1 + sizeof(uint32_t),
    "a block is its capacity plus header, terminator and trailing guard");

//
// Fatal failures end the process at once through RaiseFailFastException,
// which no exception handler sees, so that a string found overwritten is not
// touched again. They are: a broken guard, seen by Set and the destructor,
// and a Reserve or Assign that fails inside Set.
} // namespace qm
