// The integer partition: grid shapes from prime factors, cells with margins, quantisation, the two
// point look-ups and the checkerboard.
#include <gtest/gtest.h>
#include <random>
#include <vector>

#include "datalayer/algorithms/regions/cintegerpartition2d.h"

using DataLayer::CIntegerPartition2D;

TEST(CIntegerPartition2D, GridShapeFollowsThePrimeFactors)
{
    // 12 = 2 * 2 * 3: masks 3 (4 x 3) and 4 (3 x 4) tie on a square region; the first stays.
    const CIntegerPartition2D twelve(12u, 0, 0, 119, 119, 0, 1);
    EXPECT_EQ(twelve.GetNumColumns(), 4);
    EXPECT_EQ(twelve.GetNumRows(), 3);
    EXPECT_EQ(twelve.GetNumPartitions(), 12);

    // A prime above 5 is raised by one: 7 gives 8 cells (4 x 2 on a wide region).
    const CIntegerPartition2D seven(7u, 0, 0, 199, 99, 0, 1);
    EXPECT_EQ(seven.GetNumPartitions(), 8);
    EXPECT_EQ(seven.GetNumColumns(), 4);
    EXPECT_EQ(CIntegerPartition2D(13u, 0, 0, 99, 99, 0, 1).GetNumPartitions(), 14);
    // 2, 3 and 5 stay; 5 goes in one column on a square region (the first of two equal costs).
    const CIntegerPartition2D five(5u, 0, 0, 99, 99, 0, 1);
    EXPECT_EQ(five.GetNumPartitions(), 5);
    EXPECT_EQ(five.GetNumColumns(), 1);
    EXPECT_EQ(CIntegerPartition2D(3u, 0, 0, 99, 99, 0, 1).GetNumPartitions(), 3);
    // A wide region puts the 5 cells side by side.
    EXPECT_EQ(CIntegerPartition2D(5u, 0, 0, 499, 99, 0, 1).GetNumColumns(), 5);
    // Carmichael numbers are not prime: 561 = 3 * 11 * 17 stays 561.
    EXPECT_EQ(CIntegerPartition2D(561u, 0, 0, 999, 999, 0, 1).GetNumPartitions(), 561);
    // 65537 is prime and becomes 65538 = 2 * 3 * 3 * 11 * 331.
    const CIntegerPartition2D large(65537u, 0, 0, 65537, 65537, 0, 1);
    EXPECT_EQ(large.GetNumPartitions(), 65538);
    EXPECT_EQ(CIntegerPartition2D(1u, 0, 0, 9, 9, 0, 1).GetNumPartitions(), 1);
    // More than 12 prime factors: one row. 2^13 = 8192.
    const CIntegerPartition2D many(8192u, 0, 0, 8191, 8191, 0, 1);
    EXPECT_EQ(many.GetNumRows(), 1);
    EXPECT_EQ(many.GetNumColumns(), 8192);
}

TEST(CIntegerPartition2D, QuantisationAndReportedOverlap)
{
    const CIntegerPartition2D cut(4u, 0, 0, 100, 100, 0, 4);
    EXPECT_EQ(cut.GetWidth(), 100); // the last column of pixels is dropped
    EXPECT_EQ(cut.GetMaxX(), 99);
    EXPECT_EQ(cut.GetHeight(), 100);

    const CIntegerPartition2D margins(9u, 0, 0, 89, 89, 3, 1);
    EXPECT_EQ(margins.GetOverlap(), 4); // 3 shares a bit with 1
    int l, t, r, b;
    margins.GetOverlap(1, 1, l, t, r, b); // the centre cell
    EXPECT_EQ(l, 3);
    EXPECT_EQ(t, 3);
    EXPECT_EQ(r, 3);
    EXPECT_EQ(b, 3);
    EXPECT_EQ(CIntegerPartition2D(4u, 0, 0, 99, 99, 5, 6).GetOverlap(), 8);
    EXPECT_EQ(CIntegerPartition2D(4u, 0, 0, 99, 99, 0, 1).GetOverlap(), 0);
    // A large step with few free bits: the jump search ends where stepping by one would.
    EXPECT_EQ(CIntegerPartition2D(1u, 0, 0, 0x3FFFFFFE, 0x3FFFFFFE, 1, 0x3FFFFFFF).GetOverlap(), 0x40000000);

    // Column widths with margin of all but the last column are whole steps after adjustment.
    const CIntegerPartition2D stepped(3u, 3u, 0, 0, 119, 119, 2, 8);
    for (int c = 0; c + 1 < stepped.GetNumColumns(); ++c)
        EXPECT_EQ(stepped.GetWidth(0, c, true) % 8, 0) << c;
    for (int r2 = 0; r2 + 1 < stepped.GetNumRows(); ++r2)
        EXPECT_EQ(stepped.GetHeight(r2, 0, true) % 8, 0) << r2;
}

TEST(CIntegerPartition2D, CellsMarginsAndBorderFlags)
{
    const CIntegerPartition2D p(3u, 2u, 10, 20, 39, 39, 2, 1); // 30 x 20: cores 10 x 10
    int x0, y0, x1, y1;
    p.GetPartition(0, x0, y0, x1, y1, false);
    EXPECT_EQ(x0, 10);
    EXPECT_EQ(y0, 20);
    EXPECT_EQ(x1, 19);
    EXPECT_EQ(y1, 29);
    p.GetPartition(0, 1, x0, y0, x1, y1, true); // the top middle cell with margin
    EXPECT_EQ(x0, 18);
    EXPECT_EQ(y0, 20);
    EXPECT_EQ(x1, 31);
    EXPECT_EQ(y1, 31);
    int l, t, r, b;
    p.GetOverlap(0, l, t, r, b);
    EXPECT_EQ(l, 0);
    EXPECT_EQ(t, 0);
    EXPECT_EQ(r, 2);
    EXPECT_EQ(b, 2);
    EXPECT_EQ(p.GetWidth(4, true), 14);
    EXPECT_EQ(p.GetWidth(4, false), 10);
    EXPECT_EQ(p.GetHeight(1, 2, false), 10);
    EXPECT_EQ(p.GetMinX(5, false), 30);
    EXPECT_EQ(p.GetMaxY(5, true), 39);
    EXPECT_EQ(p.GetMinX(), 10);
    EXPECT_EQ(p.GetMinY(), 20);
    EXPECT_EQ(p.GetMaxX(), 39);
    EXPECT_EQ(p.GetMaxY(), 39);

    // Remainders go to the first columns and rows: 31 x 21 in 3 x 2 cells.
    const CIntegerPartition2D uneven(3u, 2u, 0, 0, 30, 20, 0, 1);
    EXPECT_EQ(uneven.GetWidth(0, 0, false), 11);
    EXPECT_EQ(uneven.GetWidth(0, 1, false), 10);
    EXPECT_EQ(uneven.GetHeight(0, 0, false), 11);
    EXPECT_EQ(uneven.GetHeight(1, 0, false), 10);
}

TEST(CIntegerPartition2D, CoresTileTheRegionAndFlagsMarkCutMargins)
{
    std::mt19937_64 engine(5150);
    for (int trial = 0; trial < 60; ++trial) {
        const unsigned cols = 1 + engine() % 5, rows = 1 + engine() % 5;
        const int overlap = static_cast<int>(engine() % 4);
        // Cores at least as wide as the overlap, so only the outer margins reach the border.
        const int w = static_cast<int>(cols) * (overlap + 1) + static_cast<int>(engine() % 40);
        const int h = static_cast<int>(rows) * (overlap + 1) + static_cast<int>(engine() % 40);
        const int x0 = static_cast<int>(engine() % 50) - 25, y0 = static_cast<int>(engine() % 50) - 25;
        const CIntegerPartition2D p(cols, rows, x0, y0, x0 + w - 1, y0 + h - 1, overlap, 1);
        ASSERT_EQ(p.GetNumPartitions(), static_cast<int>(cols * rows));
        std::vector<int> covered(static_cast<std::size_t>(w) * h, 0);
        for (int i = 0; i < p.GetNumPartitions(); ++i) {
            for (int y = p.GetMinY(i, false); y <= p.GetMaxY(i, false); ++y)
                for (int x = p.GetMinX(i, false); x <= p.GetMaxX(i, false); ++x)
                    ++covered[static_cast<std::size_t>(y - y0) * w + (x - x0)];
            int l, t, r, b;
            p.GetOverlap(i, l, t, r, b);
            const int row = i / static_cast<int>(cols), col = i % static_cast<int>(cols);
            // With an overlap the outer sides are cut to the region; inner sides keep it.
            EXPECT_EQ(l, col == 0 ? 0 : overlap);
            EXPECT_EQ(t, row == 0 ? 0 : overlap);
            EXPECT_EQ(r, col + 1 == static_cast<int>(cols) ? 0 : overlap);
            EXPECT_EQ(b, row + 1 == static_cast<int>(rows) ? 0 : overlap);
        }
        for (int c : covered)
            ASSERT_EQ(c, 1) << "trial " << trial;
    }
    // Flags: set where a margin was cut, never with an overlap of 0.
    const CIntegerPartition2D withOverlap(2u, 2u, 0, 0, 19, 19, 2, 1);
    int l, t, r, b;
    withOverlap.GetOverlap(0, l, t, r, b);
    EXPECT_EQ(l + t, 0);
    EXPECT_EQ(r + b, 4);
}

TEST(CIntegerPartition2D, LookupsAgreeOnUnquantisedGrids)
{
    std::mt19937_64 engine(8080);
    for (int trial = 0; trial < 40; ++trial) {
        const unsigned cols = 1 + engine() % 6, rows = 1 + engine() % 6;
        const int w = static_cast<int>(cols) + static_cast<int>(engine() % 30);
        const int h = static_cast<int>(rows) + static_cast<int>(engine() % 30);
        const int x0 = static_cast<int>(engine() % 20) - 10, y0 = static_cast<int>(engine() % 20) - 10;
        const CIntegerPartition2D p(cols, rows, x0, y0, x0 + w - 1, y0 + h - 1, 0, 1);
        for (int y = y0; y < y0 + h; ++y)
            for (int x = x0; x < x0 + w; ++x) {
                const int found = p.FindPartition(x, y);
                ASSERT_GE(found, 0);
                ASSERT_EQ(p.CalculatePartitionIndex(x, y), found) << x << "," << y << " trial " << trial;
            }
    }
    // Just right of the grid: no cell holds it, but the arithmetic lands in the next row's first cell.
    const CIntegerPartition2D p(3u, 2u, 0, 0, 29, 19, 0, 1);
    EXPECT_EQ(p.FindPartition(30, 5), -1);
    EXPECT_EQ(p.CalculatePartitionIndex(30, 5), 3);
    EXPECT_EQ(p.CalculatePartitionIndex(30, 15), -1); // from the last row
    EXPECT_EQ(p.FindPartition(0, 20), -1);
    EXPECT_EQ(p.CalculatePartitionIndex(0, 20), -1);
}

TEST(CIntegerPartition2D, Checkerboard)
{
    const CIntegerPartition2D p(4u, 3u, 0, 0, 39, 29, 0, 1);
    EXPECT_FALSE(p.IsBlack(0));
    EXPECT_TRUE(p.IsWhite(0));
    for (int row = 0; row < 3; ++row)
        for (int col = 0; col + 1 < 4; ++col) {
            EXPECT_NE(p.IsBlack(row, col), p.IsBlack(row, col + 1));
            EXPECT_EQ(p.IsBlack(row, col), p.IsBlack(4 * row + col));
            EXPECT_NE(p.IsBlack(row * 4 + col), p.IsWhite(row * 4 + col));
        }
    EXPECT_TRUE(p.IsBlack(4)); // row 1, column 0
}

TEST(CIntegerPartition2D, CopiesAreDeepAndBadArgumentsGiveAnEmptyPartition)
{
    CIntegerPartition2D copy;
    {
        const CIntegerPartition2D original(6u, 0, 0, 59, 39, 1, 1);
        copy = original;
        const CIntegerPartition2D constructed(original);
        EXPECT_EQ(constructed.GetNumPartitions(), 6);
        EXPECT_EQ(constructed.GetMaxX(2, true), original.GetMaxX(2, true));
    }
    EXPECT_EQ(copy.GetNumPartitions(), 6);
    EXPECT_EQ(copy.GetMaxX(), 59);

    const CIntegerPartition2D empty;
    const CIntegerPartition2D badStep(4u, 0, 0, 99, 99, 0, 0);
    const CIntegerPartition2D noCells(0u, 0, 0, 99, 99, 0, 1);
    const CIntegerPartition2D tooNarrow(5u, 1u, 0, 0, 3, 9, 0, 1);
    const CIntegerPartition2D zeroRows(3u, 0u, 0, 0, 99, 99, 0, 1);
    const CIntegerPartition2D inverted(2u, 2u, 10, 10, 0, 0, 0, 1);
    for (const CIntegerPartition2D* p : {&empty, &badStep, &noCells, &tooNarrow, &zeroRows, &inverted}) {
        EXPECT_EQ(p->GetNumPartitions(), 0);
        EXPECT_EQ(p->FindPartition(0, 0), -1);
        EXPECT_EQ(p->CalculatePartitionIndex(0, 0), -1);
        EXPECT_EQ(p->GetWidth(), 0);
        EXPECT_EQ(p->GetMaxY(), 0);
        EXPECT_FALSE(p->IsBlack(1));
        EXPECT_FALSE(p->IsWhite(0));
    }
}
