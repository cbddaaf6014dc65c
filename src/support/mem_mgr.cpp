#include "support/mem_mgr.h"

#include <cstdlib>

namespace qm
{
StringMemMgr defaultStringMemMgr;

void* StringMemMgr::Alloc(std::uint64_t size)
{
    return std::malloc(static_cast<std::size_t>(size));
}

void* StringMemMgr::Realloc(void* block, std::uint64_t size)
{
    return std::realloc(block, static_cast<std::size_t>(size));
}

void StringMemMgr::Free(void* block)
{
    std::free(block);
}

void StringMemMgr::Release()
{
}
} // namespace qm
