#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <set>
#include <string>
#include <vector>

#include "core/plexpool/lbplexmanager.h"

namespace {

/// Counts live instances, to see the pool run destructors.
struct SCounted
{
    static inline int live = 0;
    explicit SCounted(int v) : value(v) { ++live; }
    ~SCounted() { --live; }
    int value;
};

/// One megabyte per element: a block of the largest size (0xFFFFFFE elements, about 2^48 bytes) is
/// more than the 47-bit user address space, so its allocation fails on any Linux machine.
struct SHuge
{
    unsigned char bytes[1 << 20];
};

} // namespace

TEST(LbPlexManager, BlocksGrowByOneAndAHalfTruncatedAtEachStep)
{
    LbPlexManager<std::uint64_t> pool;
    EXPECT_EQ(pool.GetBlockCount(), 0u);
    // 1024 * 1.5^k, truncated after every multiplication (88573.5 -> 88573, 132859.5 -> 132859).
    const std::vector<unsigned> expected = {1024,  1536,  2304,  3456,  5184,  7776,   11664,
                                            17496, 26244, 39366, 59049, 88573, 132859, 199288};
    std::uint64_t handedOut = 0;
    for (std::size_t k = 0; k < expected.size(); ++k) {
        ASSERT_EQ(pool.GetNextBlockSize(), expected[k]) << "block " << k;
        // Drain the pool so that the next request opens block k.
        const unsigned before = pool.GetBlockCount();
        std::uint64_t* first = pool.getFreeElement();
        ++handedOut;
        ASSERT_EQ(pool.GetBlockCount(), before + 1);
        *first = handedOut;
        for (unsigned i = 1; i < expected[k]; ++i)
            pool.getFreeElement();
        handedOut += expected[k] - 1;
        EXPECT_EQ(pool.GetBlockCount(), before + 1) << "a full block must not allocate again";
    }
}

TEST(LbPlexManager, FixedBlockSizeIsUsedForEveryBlockAndClampedToTheAllocationLimit)
{
    LbPlexManager<int> pool;
    pool.SetFixedBlockSize(3);
    for (int i = 0; i < 7; ++i)
        pool.getFreeElement();
    EXPECT_EQ(pool.GetBlockCount(), 3u); // 3 + 3 + 1 of 3
    EXPECT_EQ(pool.GetNextBlockSize(), 3u);
    pool.SetFixedBlockSize(0xFFFFFFFFu);
    EXPECT_EQ(pool.GetNextBlockSize(), 0xFFFFFFEu);
}

TEST(LbPlexManager, ReleasedSlotIsHandedOutNextAndFreeListIsLastInFirstOut)
{
    LbPlexManager<double> pool;
    double* a = pool.getFreeElement();
    double* b = pool.getFreeElement();
    double* c = pool.getFreeElement();
    EXPECT_NE(a, b);
    pool.releaseElement(a);
    pool.releaseElement(c);
    EXPECT_EQ(pool.getFreeElement(), c);
    EXPECT_EQ(pool.getFreeElement(), a);
    EXPECT_EQ(pool.GetBlockCount(), 1u);
    (void)b;
}

TEST(LbPlexManager, SlotsAreDistinctAlignedAndHoldTheirContents)
{
    struct SOdd
    {
        char bytes[13];
    };
    LbPlexManager<SOdd, 0, 64> pool;
    static_assert(LbPlexManager<SOdd, 0, 64>::SlotAlignment() == 64);
    static_assert(LbPlexManager<SOdd, 0, 64>::SlotSize() == 64);
    static_assert(LbPlexManager<char>::SlotSize() == sizeof(void*), "a slot must hold the free-list link");
    std::vector<SOdd*> slots;
    std::set<SOdd*> unique;
    for (int i = 0; i < 3000; ++i) { // spans three blocks
        SOdd* s = ::new (static_cast<void*>(pool.getFreeElement())) SOdd;
        std::memset(s->bytes, i & 0xFF, sizeof s->bytes);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(s) % 64, 0u);
        slots.push_back(s);
        unique.insert(s);
    }
    EXPECT_EQ(unique.size(), slots.size());
    for (int i = 0; i < 3000; ++i)
        for (char byte : slots[i]->bytes)
            ASSERT_EQ(static_cast<unsigned char>(byte), static_cast<unsigned char>(i & 0xFF)) << "slot " << i;
}

TEST(LbPlexManager, ReleaseRunsTheDestructorAndReturnStorageDoesNot)
{
    SCounted::live = 0;
    {
        LbPlexManager<SCounted> pool;
        SCounted* a = ::new (static_cast<void*>(pool.getFreeElement())) SCounted(1);
        SCounted* b = ::new (static_cast<void*>(pool.getFreeElement())) SCounted(2);
        EXPECT_EQ(SCounted::live, 2);
        pool.releaseElement(a);
        EXPECT_EQ(SCounted::live, 1);
        b->~SCounted();
        pool.returnStorage(b);
        EXPECT_EQ(SCounted::live, 0);
    }
    EXPECT_EQ(SCounted::live, 0);
}

TEST(LbPlexManager, FailedBlockAllocationThrowsContainerExceptionAndLeavesPoolUnchanged)
{
    LbPlexManager<SHuge> pool;
    pool.SetFixedBlockSize(2);
    SHuge* a = pool.getFreeElement();
    SHuge* b = pool.getFreeElement();
    ASSERT_EQ(pool.GetBlockCount(), 1u);
    pool.returnStorage(a);

    pool.SetFixedBlockSize(0xFFFFFFEu);
    pool.getFreeElement(); // the free slot a comes back without a new block
    try {
        pool.getFreeElement();
        FAIL() << "a block of 2^48 bytes must not be allocatable";
    } catch (const LbExceptionContainer& e) {
        EXPECT_STREQ(e.GetFunction(), "getFreeElement");
        EXPECT_NE(std::string(e.GetFile()).find("lbplexmanager.h"), std::string::npos) << e.GetFile();
        EXPECT_GT(e.GetLine(), 0u);
    }
    EXPECT_EQ(pool.GetBlockCount(), 1u);

    // Still usable: a released slot is handed out again, and a small block can be had.
    pool.returnStorage(b);
    EXPECT_EQ(pool.getFreeElement(), b);
    pool.SetFixedBlockSize(1);
    EXPECT_NE(pool.getFreeElement(), nullptr);
    EXPECT_EQ(pool.GetBlockCount(), 2u);
}
