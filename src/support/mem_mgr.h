// Memory managers of the strings shared with the host. Every counted string
// records the manager that made its storage, and whichever module grows or
// frees the string does so through that manager.
#pragma once

#include <cstdint>

#include "host/counted_string_layout.h"

namespace qm
{
// The C runtime's heap: malloc, realloc and free; Release does nothing.
class StringMemMgr final : public IMemMgr
{
public:
    constexpr StringMemMgr() = default;

    void* Alloc(std::uint64_t size) override;
    void* Realloc(void* block, std::uint64_t size) override;
    void Free(void* block) override;
    void Release() override;
};

// The default manager of every string this module creates. It is constant-
// initialised and has nothing to tear down, so it serves for the whole life
// of the module, static constructors and destructors included.
extern StringMemMgr defaultStringMemMgr;
} // namespace qm
