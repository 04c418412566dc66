#include <gtest/gtest.h>
#include <numeric>
#include <stdexcept>
#include <string>
#include <utility>

#include "core/base/lbarray.h"
#include "core/base/lbvector.h"

TEST(LbArray, PushBackKeepsElementsContiguousAndInOrder)
{
    LbArray<LbVector3d> points;
    EXPECT_TRUE(points.empty());
    for (int i = 0; i < 50; ++i)
        points.push_back(LbVector3d(i, 2 * i, 3 * i));
    ASSERT_EQ(points.size(), 50);
    EXPECT_FALSE(points.empty());
    const LbVector3d* data = points.data();
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(points[i], LbVector3d(i, 2 * i, 3 * i));
        EXPECT_EQ(&points[i], data + i);
    }
}

TEST(LbArray, ResizeValueInitialisesNewElements)
{
    LbArray<double> values;
    values.push_back(5.0);
    values.resize(4);
    ASSERT_EQ(values.size(), 4);
    EXPECT_EQ(values[0], 5.0);
    EXPECT_EQ(values[3], 0.0);
    values.resize(1);
    EXPECT_EQ(values.size(), 1);
    LbArray<LbVector2f> vectors;
    vectors.resize(2);
    EXPECT_EQ(vectors[1], LbVector2f());
}

TEST(LbArray, ReserveKeepsTheBufferInPlaceWhileFilling)
{
    LbArray<int> values;
    values.reserve(100);
    EXPECT_EQ(values.size(), 0);
    values.push_back(0);
    const int* first = values.data();
    for (int i = 1; i < 100; ++i)
        values.push_back(i);
    EXPECT_EQ(values.data(), first);
}

TEST(LbArray, CopyIsDeepAndMoveEmptiesTheSource)
{
    LbArray<std::string> a;
    a.push_back("a long string that does not fit the small buffer");
    a.push_back("b");
    LbArray<std::string> copy = a;
    copy[0] = "changed";
    EXPECT_EQ(a[0], "a long string that does not fit the small buffer");

    LbArray<std::string> moved = std::move(a);
    EXPECT_EQ(moved.size(), 2);
    EXPECT_EQ(moved[1], "b");
    EXPECT_TRUE(a.empty()); // NOLINT(bugprone-use-after-move): the documented moved-from state

    copy = moved;
    EXPECT_EQ(copy[0], moved[0]);
}

TEST(LbArray, ClearEmptiesAndIterationVisitsEveryElement)
{
    LbArray<int> values;
    for (int i = 1; i <= 10; ++i)
        values.push_back(i);
    EXPECT_EQ(std::accumulate(values.begin(), values.end(), 0), 55);
    int sum = 0;
    for (int v : values)
        sum += v;
    EXPECT_EQ(sum, 55);
    const LbArray<int>& view = values;
    EXPECT_EQ(view.end() - view.begin(), 10);
    values.clear();
    EXPECT_TRUE(values.empty());
    EXPECT_EQ(values.begin(), values.end());
}

TEST(LbArray, NegativeCountsThrowInvalidArgument)
{
    LbArray<int> values;
    values.push_back(1);
    EXPECT_THROW(values.resize(-1), std::invalid_argument);
    EXPECT_THROW(values.reserve(-5), std::invalid_argument);
    EXPECT_EQ(values.size(), 1);
}
