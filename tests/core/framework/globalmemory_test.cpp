#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>

#include "core/framework/globalmemory.h"

TEST(GlobalMemory, BlockRemembersItsSizeAndKeepsItsBytes)
{
    HGLOBAL handle = GlobalAlloc(GHND, 1000);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(GlobalSize(handle), 1000u);
    auto* bytes = static_cast<unsigned char*>(GlobalLock(handle));
    ASSERT_NE(bytes, nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(bytes) % alignof(std::max_align_t), 0u);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(bytes[i], 0) << "GHND zero-fills, byte " << i;
    std::memset(bytes, 0x5A, 1000);
    EXPECT_FALSE(GlobalUnlock(handle));
    // The block doesn't move: a new lock gives the same bytes.
    auto* again = static_cast<unsigned char*>(GlobalLock(handle));
    EXPECT_EQ(again, bytes);
    EXPECT_EQ(again[999], 0x5A);
    GlobalUnlock(handle);
    EXPECT_EQ(GlobalFree(handle), nullptr);
}

TEST(GlobalMemory, UnlockReportsWhetherLocksRemain)
{
    HGLOBAL handle = GlobalAlloc(GMEM_MOVEABLE, 16);
    ASSERT_NE(handle, nullptr);
    EXPECT_FALSE(GlobalUnlock(handle)); // not locked
    GlobalLock(handle);
    GlobalLock(handle);
    EXPECT_TRUE(GlobalUnlock(handle));
    EXPECT_FALSE(GlobalUnlock(handle));
    EXPECT_FALSE(GlobalUnlock(handle));
    EXPECT_EQ(GlobalFree(handle), nullptr);
}

TEST(GlobalMemory, NullHandleIsHarmlessEverywhere)
{
    EXPECT_EQ(GlobalLock(nullptr), nullptr);
    EXPECT_EQ(GlobalSize(nullptr), 0u);
    EXPECT_FALSE(GlobalUnlock(nullptr));
    EXPECT_EQ(GlobalFree(nullptr), nullptr);
}

TEST(GlobalMemory, ZeroBytesGiveAValidEmptyBlockAndImpossibleSizesGiveNull)
{
    HGLOBAL empty = GlobalAlloc(GMEM_FIXED, 0);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(GlobalSize(empty), 0u);
    EXPECT_NE(GlobalLock(empty), nullptr);
    GlobalUnlock(empty);
    GlobalFree(empty);
    EXPECT_EQ(GlobalAlloc(GHND, std::numeric_limits<std::size_t>::max()), nullptr);
    EXPECT_EQ(GlobalAlloc(GMEM_FIXED, static_cast<std::size_t>(PTRDIFF_MAX)), nullptr);
}
