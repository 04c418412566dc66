#include <cmath>
#include <gtest/gtest.h>
#include <random>
#include <stdexcept>

#include "core/base/lbvector.h"

TEST(LbVector, DefaultConstructionGivesZeros)
{
    EXPECT_EQ(LbVector2d(), LbVector2d(0, 0));
    EXPECT_EQ(LbVector3f(), LbVector3f(0, 0, 0));
    const LbVector4d v;
    EXPECT_EQ(v.x, 0.0);
    EXPECT_EQ(v.y, 0.0);
    EXPECT_EQ(v.z, 0.0);
    EXPECT_EQ(v.w, 0.0);
}

TEST(LbVector, IndexFollowsMemberOrderAndWritesThrough)
{
    LbVector4f v(1.0f, 2.0f, 3.0f, 4.0f);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(v[i], static_cast<float>(i + 1));
    v[2] = 7.0f;
    EXPECT_EQ(v.z, 7.0f);
    const LbVector3d c(5, 6, 7);
    EXPECT_EQ(c[0], 5.0);
    EXPECT_EQ(c[1], 6.0);
    EXPECT_EQ(c[2], 7.0);
    const LbVector2d p(8, 9);
    EXPECT_EQ(p[1], 9.0);
}

TEST(LbVector, IndexOutsideTheVectorThrowsOutOfRange)
{
    LbVector2d a;
    const LbVector3f b;
    LbVector4d c;
    EXPECT_THROW(a[2], std::out_of_range);
    EXPECT_THROW(a[-1], std::out_of_range);
    EXPECT_THROW(b[3], std::out_of_range);
    EXPECT_THROW(c[4], std::out_of_range);
}

TEST(LbVector, ArithmeticIsComponentWise)
{
    // Small integers and halves: every result is exact in binary floating point.
    const LbVector3d a(1, -2, 3);
    const LbVector3d b(0.5, 4, -6);
    EXPECT_EQ(a + b, LbVector3d(1.5, 2, -3));
    EXPECT_EQ(a - b, LbVector3d(0.5, -6, 9));
    EXPECT_EQ(-a, LbVector3d(-1, 2, -3));
    EXPECT_EQ(a * 2.0, LbVector3d(2, -4, 6));
    EXPECT_EQ(2.0 * a, a * 2.0);
    EXPECT_EQ(a / 2.0, LbVector3d(0.5, -1, 1.5));

    LbVector3d c = a;
    c += b;
    EXPECT_EQ(c, a + b);
    c -= b;
    EXPECT_EQ(c, a);
    c *= 4.0;
    EXPECT_EQ(c, LbVector3d(4, -8, 12));
    c /= 8.0;
    EXPECT_EQ(c, LbVector3d(0.5, -1, 1.5));

    const LbVector2f p(1.5f, -2.0f);
    EXPECT_EQ(p + LbVector2f(0.5f, 1.0f), LbVector2f(2.0f, -1.0f));
    EXPECT_EQ(2.0f * p, LbVector2f(3.0f, -4.0f));
    const LbVector4d q(1, 2, 3, 4);
    EXPECT_EQ(q - LbVector4d(1, 1, 1, 1), LbVector4d(0, 1, 2, 3));
    EXPECT_EQ(q / 4.0, LbVector4d(0.25, 0.5, 0.75, 1));
}

TEST(LbVector, DotAndLengthTakeEveryComponent)
{
    EXPECT_EQ(LbVector2d(3, 4).Length(), 5.0);
    EXPECT_EQ(LbVector2f(3, 4).Length(), 5.0f);
    EXPECT_EQ(LbVector3d(2, 3, 6).Length(), 7.0);
    EXPECT_EQ(LbVector3d(1, 2, 3).Dot(LbVector3d(4, -5, 6)), 12.0);
    // w takes part: no homogeneous division.
    EXPECT_EQ(LbVector4d(1, 2, 3, 4).Dot(LbVector4d(1, 1, 1, 1)), 10.0);
    EXPECT_EQ(LbVector4f(1, 2, 2, 4).Length(), 5.0f);
}

TEST(LbVector, CrossIsRightHanded)
{
    const LbVector3d ex(1, 0, 0), ey(0, 1, 0), ez(0, 0, 1);
    EXPECT_EQ(ex.Cross(ey), ez);
    EXPECT_EQ(ey.Cross(ez), ex);
    EXPECT_EQ(ez.Cross(ex), ey);
    EXPECT_EQ(ey.Cross(ex), -ez);
    EXPECT_EQ(LbVector3f(1, 2, 3).Cross(LbVector3f(4, 5, 6)), LbVector3f(-3, 6, -3));
}

TEST(LbVector, CrossIsOrthogonalToBothFactorsOnRandomInput)
{
    std::mt19937_64 engine(47110815);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    for (int trial = 0; trial < 100; ++trial) {
        const LbVector3d a(uniform(engine), uniform(engine), uniform(engine));
        const LbVector3d b(uniform(engine), uniform(engine), uniform(engine));
        const LbVector3d c = a.Cross(b);
        // Components below 1 in magnitude: a few rounding steps of size eps.
        EXPECT_NEAR(c.Dot(a), 0.0, 1e-15);
        EXPECT_NEAR(c.Dot(b), 0.0, 1e-15);
        // |a x b|^2 = |a|^2 |b|^2 - (a.b)^2 (Lagrange's identity).
        EXPECT_NEAR(c.Dot(c), a.Dot(a) * b.Dot(b) - a.Dot(b) * a.Dot(b), 1e-14);
        EXPECT_EQ(b.Cross(a), -c);
    }
}
