#include <gtest/gtest.h>
#include <stdexcept>

#include "core/base/lbmatrix.h"

namespace {

template <typename Matrix> void expectIdentity(const Matrix& m, int n)
{
    for (int r = 0; r < n; ++r)
        for (int c = 0; c < n; ++c)
            EXPECT_EQ(m(r, c), r == c ? 1 : 0) << "at (" << r << ", " << c << ")";
}

} // namespace

TEST(LbMatrix, DefaultConstructionGivesTheIdentity)
{
    expectIdentity(LbMatrix4Rd(), 4);
    expectIdentity(LbMatrix4Rf(), 4);
    expectIdentity(LbMatrix3Cd(), 3);
    const LbMatrix4Rd m;
    EXPECT_EQ(m[0], 1.0);
    EXPECT_EQ(m[5], 1.0);
    EXPECT_EQ(m[15], 1.0);
    EXPECT_EQ(m[1], 0.0);
    EXPECT_EQ(m[4], 0.0);
}

TEST(LbMatrix, FlatElementKStandsAtRowKModNAndColumnKDivN)
{
    LbMatrix4Rf m;
    for (int k = 0; k < 16; ++k)
        m[k] = static_cast<float>(k);
    for (int k = 0; k < 16; ++k)
        EXPECT_EQ(m(k % 4, k / 4), static_cast<float>(k)) << "k = " << k;
    // The translation column of a 4 x 4 transform is elements 12, 13 and 14.
    LbMatrix4Rd t;
    t(0, 3) = 10;
    t(1, 3) = 20;
    t(2, 3) = 30;
    EXPECT_EQ(t[12], 10.0);
    EXPECT_EQ(t[13], 20.0);
    EXPECT_EQ(t[14], 30.0);

    LbMatrix3Cd c;
    c(2, 0) = 7;
    c(0, 2) = 9;
    EXPECT_EQ(c[2], 7.0);
    EXPECT_EQ(c[6], 9.0);
}

TEST(LbMatrix, IndexOutsideTheMatrixThrowsOutOfRange)
{
    LbMatrix4Rd m;
    const LbMatrix3Cd c;
    EXPECT_THROW(m[16], std::out_of_range);
    EXPECT_THROW(m[-1], std::out_of_range);
    EXPECT_THROW(m(4, 0), std::out_of_range);
    EXPECT_THROW(m(0, -1), std::out_of_range);
    EXPECT_THROW(c[9], std::out_of_range);
    EXPECT_THROW(c(0, 3), std::out_of_range);
}

TEST(LbMatrix, EqualityComparesEveryElement)
{
    LbMatrix4Rd a, b;
    EXPECT_EQ(a, b);
    b(3, 2) = 0.5;
    EXPECT_NE(a, b);
}
