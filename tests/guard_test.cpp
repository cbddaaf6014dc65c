// Control Flow Guard on the shipped DLL, enforced by the test host as Windows
// enforces it (simhost/guarded_library.h): an indirect call through the
// DLL's dispatch pointer to an address of the image that its table does not
// list ends the process, naming the address. (Listed targets are reached
// through it by every test that loads the DLL, msvc_host.dll's calls too.)
#include <windows.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "host/interface_id.h"
#include "simhost/guarded_library.h"

namespace
{
// Calls target(a, b, c) as the DLL's guarded code makes an indirect call:
// the target in rax, the arguments in place, through the dispatch pointer.
uintptr_t CallThroughGuard(void* dispatch, const void* target, uintptr_t a, uintptr_t b, uintptr_t c)
{
    uintptr_t result = reinterpret_cast<uintptr_t>(target);
    register uintptr_t third asm("r8") = c;
    asm volatile("movq %%rsp, %%rbx\n\t"
                 "andq $-16, %%rsp\n\t"
                 "subq $32, %%rsp\n\t"
                 "callq *%[dispatch]\n\t"
                 "movq %%rbx, %%rsp"
                 : "+a"(result), "+c"(a), "+d"(b), "+r"(third)
                 : [dispatch] "r"(dispatch)
                 : "rbx", "r9", "r10", "r11", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "memory", "cc");
    return result;
}

class GuardTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(module) << module.Error();
        if (!module.Guarded())
            GTEST_SKIP() << "this build of ProductCfgPlg.dll is linked without Control Flow Guard";
        bool guarded = false;
        std::string error;
        ASSERT_TRUE(sim::ReadGuardRecord(module.get(), record, guarded, error)) << error;
        create = reinterpret_cast<const uint8_t*>(GetProcAddress(module.get(), "QmCreateObject"));
        ASSERT_NE(create, nullptr);
    }

    uint32_t CreateThroughGuard(const void* target)
    {
        void* out = nullptr;
        return static_cast<uint32_t>(CallThroughGuard(*record.dispatchPointer, target,
                                                      reinterpret_cast<uintptr_t>(L"nosuchplugin"),
                                                      reinterpret_cast<uintptr_t>(&ids::ServPluginA),
                                                      reinterpret_cast<uintptr_t>(&out)));
    }

    sim::GuardedLibrary module{L"ProductCfgPlg.dll"};
    sim::GuardRecord record;
    const uint8_t* create = nullptr;
};

TEST_F(GuardTest, AnUnlistedTargetInsideTheImageEndsTheProcess)
{
    const std::string rva = [&] {
        char text[32];
        std::snprintf(text, sizeof text, "0x%lx",
                      static_cast<unsigned long>(create + 1 - reinterpret_cast<const uint8_t*>(module.get())));
        return std::string(text);
    }();
    EXPECT_EXIT(CreateThroughGuard(create + 1), testing::ExitedWithCode(0xC0000409),
                "Control Flow Guard: indirect call to 0x\\w+ \\(ProductCfgPlg.dll\\+" + rva +
                    "\\), which is not a valid call target");
}
} // namespace
