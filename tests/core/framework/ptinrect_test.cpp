#include <gtest/gtest.h>

#include "core/framework/csize.h"
#include "core/framework/ptinrect.h"

TEST(PtInRect, LeftAndTopEdgesAreInsideRightAndBottomAreNot)
{
    const RECT rect{10, 20, 30, 40};
    EXPECT_TRUE(PtInRect(&rect, CPoint(10, 20)));
    EXPECT_TRUE(PtInRect(&rect, CPoint(29, 39)));
    EXPECT_TRUE(PtInRect(&rect, CPoint(15, 25)));
    EXPECT_FALSE(PtInRect(&rect, CPoint(30, 25)));
    EXPECT_FALSE(PtInRect(&rect, CPoint(15, 40)));
    EXPECT_FALSE(PtInRect(&rect, CPoint(9, 25)));
    EXPECT_FALSE(PtInRect(&rect, CPoint(15, 19)));
    EXPECT_FALSE(PtInRect(&rect, CPoint(-15, -25)));
}

TEST(PtInRect, EmptyInvertedOrNullRectContainsNothing)
{
    const RECT empty{5, 5, 5, 5};
    const RECT inverted{10, 10, 0, 0};
    EXPECT_FALSE(PtInRect(&empty, CPoint(5, 5)));
    EXPECT_FALSE(PtInRect(&inverted, CPoint(5, 5)));
    EXPECT_FALSE(PtInRect(nullptr, CPoint(0, 0)));
}

TEST(PointAndSize, DefaultToZeroAndCompareByValue)
{
    EXPECT_EQ(CPoint(), CPoint(0, 0));
    EXPECT_EQ(CSize(), CSize(0, 0));
    EXPECT_EQ(CPoint(3, 4), CPoint(3, 4));
    EXPECT_NE(CPoint(3, 4), CPoint(4, 3));
    EXPECT_NE(CSize(640, 480), CSize(640, 481));
    const CSize size(640, 480);
    EXPECT_EQ(size.cx, 640);
    EXPECT_EQ(size.cy, 480);
    const CPoint p(-1, 7);
    EXPECT_EQ(p.x, -1);
    EXPECT_EQ(p.y, 7);
}
