#include "core/framework/globalmemory.h"

#include <cstdint>
#include <cstring>
#include <new>

namespace {

/// Sits in front of the caller's bytes; its alignment keeps the bytes aligned for any type.
struct alignas(std::max_align_t) BlockHeader
{
    std::size_t size;
    unsigned locks;
};

BlockHeader* header(HGLOBAL memory)
{
    return static_cast<BlockHeader*>(memory);
}

} // namespace

HGLOBAL GlobalAlloc(unsigned flags, std::size_t bytes)
{
    if (bytes > static_cast<std::size_t>(PTRDIFF_MAX) - sizeof(BlockHeader))
        return nullptr;
    void* raw = ::operator new(sizeof(BlockHeader) + bytes, std::nothrow);
    if (raw == nullptr)
        return nullptr;
    BlockHeader* block = new (raw) BlockHeader{bytes, 0};
    if (flags & GMEM_ZEROINIT)
        std::memset(block + 1, 0, bytes);
    return block;
}

void* GlobalLock(HGLOBAL memory)
{
    if (memory == nullptr)
        return nullptr;
    BlockHeader* block = header(memory);
    ++block->locks;
    return block + 1;
}

std::size_t GlobalSize(HGLOBAL memory)
{
    return memory == nullptr ? 0 : header(memory)->size;
}

bool GlobalUnlock(HGLOBAL memory)
{
    if (memory == nullptr)
        return false;
    BlockHeader* block = header(memory);
    if (block->locks == 0)
        return false;
    return --block->locks != 0;
}

HGLOBAL GlobalFree(HGLOBAL memory)
{
    if (memory != nullptr) {
        header(memory)->~BlockHeader();
        ::operator delete(memory);
    }
    return nullptr;
}
