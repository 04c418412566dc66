#pragma once
// The platform's global memory handles, as far as the one decoder overload that takes such a
// handle needs them: a heap block that remembers its size and a lock count.
//
// GlobalAlloc gives a handle (null when the block can't be had); GlobalLock gives the block's
// bytes and counts a lock; GlobalUnlock counts it off; GlobalFree releases the block. Blocks never
// move, so the pointer from GlobalLock stays valid until GlobalFree. A handle must come from
// GlobalAlloc and be freed once; a null handle is accepted everywhere (GlobalLock gives null,
// GlobalSize 0, GlobalUnlock false, GlobalFree null). Flags other than GMEM_ZEROINIT have no
// effect: without it the block's contents are unspecified. A zero-byte block is a valid handle of
// size 0. Threads: one block serves one thread at a time; different blocks are independent.

#include <cstddef>

using HGLOBAL = void*;

constexpr unsigned GMEM_FIXED = 0x00;
constexpr unsigned GMEM_MOVEABLE = 0x02;
constexpr unsigned GMEM_ZEROINIT = 0x40;
constexpr unsigned GHND = GMEM_MOVEABLE | GMEM_ZEROINIT;

/// A new block of bytes bytes (zeroed with GMEM_ZEROINIT); null when it can't be allocated.
HGLOBAL GlobalAlloc(unsigned flags, std::size_t bytes);
/// The block's first byte, counting one lock; null for a null handle.
void* GlobalLock(HGLOBAL memory);
/// The size given to GlobalAlloc; 0 for a null handle.
std::size_t GlobalSize(HGLOBAL memory);
/// Counts one lock off; true while the block is still locked afterwards, false once it is
/// unlocked (and for a null handle or a block that wasn't locked).
bool GlobalUnlock(HGLOBAL memory);
/// Releases the block whatever its lock count; returns null (the platform's success).
HGLOBAL GlobalFree(HGLOBAL memory);
