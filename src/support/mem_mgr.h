// Memory managers of the strings shared with the host. Every counted string
// records the manager that made its storage, and whichever module grows or
// frees the string does so through that manager.
#pragma once

#include <cstdint>

namespace qm
{
// The order of the four operations is the table both modules call through.
// There is no virtual destructor: a manager's life is its owner's business.
class IMemMgr
{
public:
    // A block of size bytes, or null.
    virtual void* Alloc(std::uint64_t size) = 0;
    // block (which may be null) resized to size bytes, or null with block
    // left as it was.
    virtual void* Realloc(void* block, std::uint64_t size) = 0;
    virtual void Free(void* block) = 0;
    // Called once each time a string gives this manager up.
    virtual void Release() = 0;

protected:
    ~IMemMgr() = default;
};

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
