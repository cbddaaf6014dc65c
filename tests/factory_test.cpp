// The factory behind ProductCfgPlg.dll's exports, driven through the built
// DLL exactly as the host loads it. Each test loads the DLL afresh and
// matches every successful create with a destroy.
#include <windows.h>

#include <malloc.h>

#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "host/interface_id.h"
#include "host/plugin.h"
#include "support/unique_resource.h"

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

std::wstring BesideThisProgram(const wchar_t* file)
{
    wchar_t path[MAX_PATH];
    const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
    std::wstring folder(path, length);
    return folder.substr(0, folder.find_last_of(L'\\') + 1) + file;
}

template <class Fn>
Fn Export(HMODULE module, const char* nameOrOrdinal)
{
    return reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(module, nameOrOrdinal)));
}

// True while p lies in an allocated block of the C runtime's heap, which is
// where the DLL's operator new puts the plugin object: the object's storage
// is given back exactly when the factory destroys it.
bool IsAllocated(const void* p)
{
    const auto heap = reinterpret_cast<HANDLE>(_get_heap_handle());
    const auto* byte = static_cast<const BYTE*>(p);
    bool allocated = false;
    HeapLock(heap);
    PROCESS_HEAP_ENTRY entry{};
    while (!allocated && HeapWalk(heap, &entry))
    {
        const auto* data = static_cast<const BYTE*>(entry.lpData);
        allocated = (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) != 0 && byte >= data && byte < data + entry.cbData;
    }
    HeapUnlock(heap);
    return allocated;
}

class FactoryTest : public ::testing::Test
{
protected:
    // One QmCreateObject under the plugin's name, matched by one
    // QmDestroyObject at Release or at the end of the scope.
    class Lease
    {
    public:
        Lease(DestroyFn destroy, CreateFn create, const InterfaceId& id)
            : destroy(destroy), status(create(kName, id, &object))
        {
        }
        ~Lease() { Release(); }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        void Release()
        {
            if (object != nullptr)
                destroy(kName, std::exchange(object, nullptr));
        }

        DestroyFn destroy;
        void* object = nullptr;
        uint32_t status;
    };

    void SetUp() override
    {
        module.reset(LoadLibraryW(BesideThisProgram(L"ProductCfgPlg.dll").c_str()));
        ASSERT_TRUE(module) << "LoadLibraryW failed: " << GetLastError();
        create = Export<CreateFn>(module.get(), "QmCreateObject");
        destroy = Export<DestroyFn>(module.get(), "QmDestroyObject");
        ASSERT_NE(create, nullptr);
        ASSERT_NE(destroy, nullptr);
    }

    Lease Create(const InterfaceId& id) { return Lease(destroy, create, id); }

    UniqueModule module;
    CreateFn create = nullptr;
    DestroyFn destroy = nullptr;
};

TEST_F(FactoryTest, OrdinalsOneAndTwoAreTheTwoExports)
{
    EXPECT_EQ(Export<CreateFn>(module.get(), MAKEINTRESOURCEA(1)), create);
    EXPECT_EQ(Export<DestroyFn>(module.get(), MAKEINTRESOURCEA(2)), destroy);
    EXPECT_EQ(GetProcAddress(module.get(), MAKEINTRESOURCEA(3)), nullptr);
}

TEST_F(FactoryTest, EitherIdentifierGivesTheOneSharedObject)
{
    for (const auto& [firstId, secondId] : {std::pair{ids::ServPluginA, ids::ServPluginB},
                                            std::pair{ids::ServPluginB, ids::ServPluginA}})
    {
        SCOPED_TRACE(testing::Message() << "created first with 0x" << std::hex << firstId.first);
        Lease first = Create(firstId);
        ASSERT_EQ(first.status, 0u);
        ASSERT_NE(first.object, nullptr);
        Lease second = Create(secondId);
        EXPECT_EQ(second.status, 0u);
        EXPECT_EQ(second.object, first.object);

        auto* plugin = static_cast<IServPlugin*>(first.object);
        EXPECT_EQ(plugin->QueryInterface(ids::ServPluginA), first.object);
        EXPECT_EQ(plugin->QueryInterface(ids::ServPluginB), first.object);
        for (const InterfaceId& other : {kMixedAB, kMixedBA, kForeign, ids::ServConfig, InterfaceId{0, 0}})
            EXPECT_EQ(plugin->QueryInterface(other), nullptr) << std::hex << other.first << ' ' << other.second;
    }
}

// Rejected creates and destroys that name no object of the plugin leave the
// count alone: one destroy still ends the one object.
TEST_F(FactoryTest, RejectedCreatesAndForeignDestroysCountNothing)
{
    struct Row
    {
        const wchar_t* name;
        InterfaceId id;
        uint32_t status;
    };
    for (const Row& row : {Row{kName, kMixedAB, kInvalidData}, Row{kName, kMixedBA, kInvalidData},
                           Row{L"ProductConfigPlg", ids::ServPluginA, kNotFound},
                           Row{L"someotherplg", ids::ServPluginB, kNotFound}, Row{L"someotherplg", kForeign, kInvalidData},
                           Row{L"", ids::ServPluginA, kNotFound}, Row{nullptr, ids::ServPluginA, kInvalidData}})
    {
        SCOPED_TRACE(testing::Message() << "name " << (row.name ? row.name : L"(null)") << ", id 0x" << std::hex
                                        << row.id.first);
        void* out = &out;
        EXPECT_EQ(create(row.name, row.id, &out), row.status);
        EXPECT_EQ(out, nullptr);
    }
    EXPECT_EQ(create(kName, ids::ServPluginA, nullptr), kInvalidData);

    Lease lease = Create(ids::ServPluginA);
    ASSERT_EQ(lease.status, 0u);
    void* const object = lease.object;
    destroy(kName, nullptr);
    for (const wchar_t* other : {L"someotherplg", L"ProductConfigPlg", L""})
        destroy(other, object);
    ASSERT_TRUE(IsAllocated(object));
    lease.Release();
    EXPECT_FALSE(IsAllocated(object));
}

TEST_F(FactoryTest, LastDestroyEndsTheObjectAndTheNextCreateBuildsAnother)
{
    Lease first = Create(ids::ServPluginA);
    Lease second = Create(ids::ServPluginB);
    ASSERT_EQ(first.status, 0u);
    ASSERT_EQ(second.object, first.object);
    void* const object = first.object;

    first.Release();
    ASSERT_TRUE(IsAllocated(object)) << "destroyed while a creation was outstanding";
    Lease third = Create(ids::ServPluginA);
    EXPECT_EQ(third.object, object);
    second.Release();
    ASSERT_TRUE(IsAllocated(object));
    third.Release();
    EXPECT_FALSE(IsAllocated(object)) << "still alive after the last destroy";

    Lease fresh = Create(ids::ServPluginB);
    ASSERT_EQ(fresh.status, 0u);
    EXPECT_EQ(static_cast<IServPlugin*>(fresh.object)->QueryInterface(ids::ServPluginA), fresh.object);
    void* const freshObject = fresh.object;
    fresh.Release();
    EXPECT_FALSE(IsAllocated(freshObject));
}
} // namespace
