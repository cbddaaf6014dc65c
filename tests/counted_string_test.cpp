// The counted string against its binary layout, as the host makes and reads
// it. The host's manager here is a bare table of four functions whose blocks
// end at an inaccessible page: any access past a block is an access fault.
#include <windows.h>

#include <malloc.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "support/counted_string.h"

namespace
{
using qm::CountedString;
using Calls = std::array<int, 4>; // Alloc, Realloc, Free, Release

char* FencedAlloc(std::size_t size)
{
    const std::size_t span = (size + 4095) / 4096 * 4096;
    auto* base = static_cast<char*>(VirtualAlloc(nullptr, span + 4096, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    DWORD old;
    VirtualProtect(base + span, 4096, PAGE_NOACCESS, &old);
    return base + span - size;
}

// Its Realloc never resizes in place: the string must Alloc, copy and Free.
struct HostMgr
{
    const void* const* table;
    Calls calls{};
    bool fail = false;
};
void* HostAlloc(HostMgr* m, std::uint64_t size) { ++m->calls[0]; return m->fail ? nullptr : FencedAlloc(size); }
void* HostRealloc(HostMgr* m, void* p, std::uint64_t size)
{
    ++m->calls[1];
    return m->fail || p ? nullptr : FencedAlloc(size);
}
void HostFree(HostMgr* m, void* block)
{
    ++m->calls[2]; // a block lies in the first 64 KiB of its allocation
    const auto base = reinterpret_cast<std::uintptr_t>(block) & ~std::uintptr_t{0xFFFF};
    VirtualFree(reinterpret_cast<void*>(base), 0, MEM_RELEASE);
}
void HostRelease(HostMgr* m) { ++m->calls[3]; }
const void* const kHostTable[] = {reinterpret_cast<const void*>(&HostAlloc),
                                  reinterpret_cast<const void*>(&HostRealloc),
                                  reinterpret_cast<const void*>(&HostFree),
                                  reinterpret_cast<const void*>(&HostRelease)};

// A string as the host makes it; ownsBlock 0: the block is foreign to m.
void AdoptHostString(CountedString& s, HostMgr& m, const char* text, std::size_t capacity, std::uint8_t ownsBlock = 1)
{
    auto* descriptor = new (FencedAlloc(sizeof(qm::CountedStringDescriptor)))
        qm::CountedStringDescriptor{reinterpret_cast<qm::IMemMgr*>(&m), std::strlen(text), capacity, 64, ownsBlock, 1};
    char* block = FencedAlloc(capacity + 21);
    const qm::CountedStringHeader header{0xABCD, descriptor, 0xABCD};
    std::memcpy(block, &header, 16);
    std::strcpy(block + 16, text);
    std::memcpy(block + 17 + capacity, &header.innerGuard, 4);
    block += 16;
    std::memcpy(static_cast<void*>(&s), &block, sizeof block); // the record's one pointer
}

const qm::CountedStringDescriptor& Descriptor(const CountedString& s)
{
    qm::CountedStringDescriptor* descriptor;
    std::memcpy(&descriptor, s.Text() - 12, sizeof descriptor);
    return *descriptor;
}

// The text (its length characters, NULs inside included, and the
// terminator), the capacity and, in this module's own heap, the block's size.
void ExpectHolds(const CountedString& s, const std::string& text, std::size_t capacity)
{
    EXPECT_EQ(std::string(s.Text(), Descriptor(s).length), text);
    EXPECT_EQ(s.Text()[text.size()], '\0');
    EXPECT_EQ(Descriptor(s).capacity, capacity);
    const bool own = Descriptor(s).manager == &qm::defaultStringMemMgr;
    EXPECT_EQ(own ? _msize(const_cast<char*>(s.Text() - 16)) : capacity + 21, capacity + 21);
}

// Host strings grow through their own manager (Alloc, copy, Free) in
// blocks that end at the fence: a guard written past its place faults.
TEST(CountedStringTest, AssignGrowsByTheTable)
{
    constexpr std::size_t kNoStorage = ~std::size_t{0};
    const std::size_t rows[][3] = {{64, 100, 128}, {1024, 2000, 2048}, {2000, 2100, 3024}, {1024, 5000, 5000},
                                   {128, 10, 128}, {kNoStorage, 0, 64}};
    for (const auto& [capacity, length, grown] : rows)
    {
        for (const bool host : {false, capacity != kNoStorage})
        {
            SCOPED_TRACE(testing::Message() << capacity << " " << length << (host ? " host" : ""));
            HostMgr m{kHostTable};
            CountedString s;
            if (host)
                AdoptHostString(s, m, "old", capacity);
            ASSERT_TRUE(host || capacity == kNoStorage || s.Reserve(capacity));
            const std::string text(length, 'q');
            ASSERT_TRUE(s.Assign(text.data(), text.size()));
            ExpectHolds(s, text, grown);
            EXPECT_EQ(host ? reinterpret_cast<qm::IMemMgr*>(&m) : &qm::defaultStringMemMgr, Descriptor(s).manager);
            const int growths = host && grown != capacity;
            EXPECT_EQ((Calls{growths, growths, growths, 0}), m.calls);
        }
    }
}

// Set of the static empty text keeps a string without storage, Set of null
// gives it storage of the growth value; Set of its own text (NULs inside
// it) or of null changes it in place; Reserve is exact, also downwards. A
// foreign block is copied into one of the manager's and left as it was. A
// host string frees its block and descriptor once. Without memory nothing
// changes.
TEST(CountedStringTest, SetReserveDestructionAndFailures)
{
    CountedString s;
    const char* const empty = s.Text();
    s.Set(empty);
    EXPECT_EQ(empty, s.Text());
    s.Set(nullptr);
    ExpectHolds(s, "", 64);
    ASSERT_TRUE(s.Assign("abc\0def", 7));
    const char* const text = s.Text();
    s.Set(s.Text());
    ExpectHolds(s, std::string("abc\0def", 7), 64);
    s.Set(nullptr);
    EXPECT_EQ(text, s.Text());
    ExpectHolds(s, "", 64);
    ASSERT_TRUE(s.Assign(std::string(100, 'q').c_str()));
    ASSERT_TRUE(s.Reserve(10));
    ExpectHolds(s, std::string(10, 'q'), 10);
    EXPECT_FALSE(s.Reserve(~std::size_t{0}));
    EXPECT_FALSE(s.Reserve(std::size_t{1} << 60));
    ExpectHolds(s, std::string(10, 'q'), 10);

    HostMgr m{kHostTable};
    {
        CountedString host;
        AdoptHostString(host, m, "foreign", 8, 0);
        const char* const foreign = host.Text();
        const std::string before(foreign - 16, 8 + 21);
        ASSERT_TRUE(host.Reserve(16));
        EXPECT_NE(foreign, host.Text());
        ExpectHolds(host, "foreign", 16);
        EXPECT_EQ(before, std::string(foreign - 16, 8 + 21)) << "the foreign block is untouched";
        EXPECT_EQ((Calls{0, 1, 0, 0}), m.calls) << "one new block, the old one not freed";
        host.~CountedString();
        EXPECT_EQ((Calls{0, 1, 2, 1}), m.calls); // block and descriptor
    } // run again at the end of the scope, it finds the null pointer
    EXPECT_EQ((Calls{0, 1, 2, 1}), m.calls);

    CountedString host;
    AdoptHostString(host, m, "keep", 8);
    const char* const kept = host.Text();
    m = HostMgr{kHostTable, {}, true};
    EXPECT_FALSE(host.Assign(std::string(100, 'x').c_str()));
    EXPECT_FALSE(host.Reserve(4));
    EXPECT_THROW(host.Set(std::string(100, 'x').c_str()), std::bad_alloc);
    EXPECT_EQ((Calls{3, 3, 0, 0}), m.calls);
    EXPECT_EQ(kept, host.Text());
    ExpectHolds(host, "keep", 8);
}

// Capacity 8: the guards are at text - 16, text - 4 and text + 9.
void BreakGuardThen(int at, bool set)
{
    HostMgr m{kHostTable};
    CountedString s;
    AdoptHostString(s, m, "abc", 8);
    char* const text = const_cast<char*>(s.Text());
    text[at] ^= 1;
    if (set)
    {
        s.Set("xyz");
        text[at] ^= 1; // so that only Set can have failed
    }
}

// STATUS_FAIL_FAST_EXCEPTION, not an access fault: each guard once, seen by
// Set or by the destructor.
TEST(CountedStringDeathTest, BrokenGuardFailsFastWithoutTouchingPastTheBlock)
{
    const auto failedFast = [](int status) { return static_cast<DWORD>(status) == 0xC0000602; };
    for (const auto& [at, set] : {std::pair{-16, false}, std::pair{-4, true}, std::pair{9, false}})
        EXPECT_EXIT(BreakGuardThen(at, set), failedFast, "") << at << (set ? " Set" : " destruction");
}
} // namespace
