// The factory behind ProductCfgPlg.dll's exports, driven through the built
// DLL exactly as the host loads it. Every successful create is matched by a
// destroy.
#include <windows.h>

#include <malloc.h>

#include <gtest/gtest.h>

#include <utility>

#include "host/interface_id.h"
#include "host/plugin.h"
#include "simhost/guarded_library.h"

namespace
{
using CreateFn = uint32_t (*)(const wchar_t* name, const InterfaceId& id, void** out);
using DestroyFn = void (*)(const wchar_t* name, void* object);

constexpr wchar_t kName[] = L"productconfigplg";
constexpr uint32_t kInvalidData = 13;
constexpr uint32_t kNotFound = 1168;
constexpr InterfaceId kMixedAB{ids::ServPluginA.first, ids::ServPluginB.second};
constexpr InterfaceId kMixedBA{ids::ServPluginB.first, ids::ServPluginA.second};
constexpr InterfaceId kForeign{0x0123456789abcdefull, 0xfedcba9876543210ull};

// True while p lies in an allocated block of the C runtime's heap, which is
// where the DLL's operator new puts the plugin object: the object's storage
// is given back exactly when the factory destroys it.
bool IsAllocated(const void* p)
{
    const auto heap = reinterpret_cast<HANDLE>(_get_heap_handle());
    const auto at = reinterpret_cast<std::uintptr_t>(p);
    bool allocated = false;
    HeapLock(heap);
    for (PROCESS_HEAP_ENTRY entry{}; !allocated && HeapWalk(heap, &entry);)
    {
        const auto data = reinterpret_cast<std::uintptr_t>(entry.lpData);
        allocated = (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 && at >= data && at < data + entry.cbData;
    }
    HeapUnlock(heap);
    return allocated;
}

// Rejected creates leave the count alone, as do destroys that name no object
// of the plugin. Either identifier gives the one shared object, which
// answers to both and to nothing else; it ends with the last destroy, and the
// next create builds another.
TEST(FactoryTest, OneSharedObjectUntilTheLastDestroy)
{
    const sim::GuardedLibrary module(L"ProductCfgPlg.dll");
    ASSERT_TRUE(module) << module.Error();
    const auto create =
        reinterpret_cast<CreateFn>(reinterpret_cast<void*>(GetProcAddress(module.get(), "QmCreateObject")));
    const auto destroy =
        reinterpret_cast<DestroyFn>(reinterpret_cast<void*>(GetProcAddress(module.get(), "QmDestroyObject")));
    ASSERT_NE(create, nullptr);
    ASSERT_NE(destroy, nullptr);

    struct Row
    {
        const wchar_t* name;
        InterfaceId id;
        uint32_t status;
    };
    for (const Row& row : {Row{kName, kMixedAB, kInvalidData}, Row{kName, kMixedBA, kInvalidData},
                           Row{L"ProductConfigPlg", ids::ServPluginA, kNotFound},
                           Row{L"someotherplg", ids::ServPluginB, kNotFound},
                           Row{L"someotherplg", kForeign, kInvalidData},
                           Row{kName, {kForeign.first, ids::ServPluginB.second}, kInvalidData},
                           Row{L"", ids::ServPluginA, kNotFound}, Row{nullptr, ids::ServPluginA, kInvalidData}})
    {
        SCOPED_TRACE(testing::Message() << "name " << (row.name ? row.name : L"(null)") << ", id 0x" << std::hex
                                        << row.id.first);
        void* out = &out;
        EXPECT_EQ(create(row.name, row.id, &out), row.status);
        EXPECT_EQ(out, nullptr);
    }
    EXPECT_EQ(create(kName, ids::ServPluginA, nullptr), kInvalidData);

    for (const auto& [firstId, secondId] : {std::pair{ids::ServPluginA, ids::ServPluginB},
                                            std::pair{ids::ServPluginB, ids::ServPluginA}})
    {
        SCOPED_TRACE(testing::Message() << "created first with 0x" << std::hex << firstId.first);
        void* object = nullptr;
        void* other = nullptr;
        ASSERT_EQ(create(kName, firstId, &object), 0u);
        ASSERT_EQ(create(kName, secondId, &other), 0u);
        EXPECT_EQ(other, object);

        destroy(kName, nullptr);
        for (const wchar_t* name : {L"someotherplg", L"ProductConfigPlg", L""})
            destroy(name, object);
        destroy(kName, object);
        ASSERT_TRUE(IsAllocated(object)) << "destroyed while a creation was outstanding";
        ASSERT_EQ(create(kName, ids::ServPluginA, &other), 0u);
        EXPECT_EQ(other, object);
        destroy(kName, object);
        ASSERT_TRUE(IsAllocated(object));
        destroy(kName, object);
        EXPECT_FALSE(IsAllocated(object)) << "still alive after the last destroy";
    }
}
} // namespace
