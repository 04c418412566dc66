#include <Eigen/Dense>
#include <cmath>
#include <gtest/gtest.h>
#include <random>

#include "datalayer/algorithms/geometry/ctriangle2d.h"

using DataLayer::CTriangle2D;

namespace {

void ExpectIdentity(const LbMatrix3Cd& m)
{
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            EXPECT_EQ(m(r, c), r == c ? 1.0 : 0.0);
}

} // namespace

TEST(CTriangle2D, DefaultIsInvalidAndVerticesIndexInOrder)
{
    CTriangle2D t;
    EXPECT_FALSE(t.IsValid());
    t = CTriangle2D({0, 0}, {4, 0}, {0, 3});
    EXPECT_TRUE(t.IsValid());
    EXPECT_EQ(t[1].x, 4.0f);
    t[2].y = 6;
    EXPECT_EQ(t.c.y, 6.0f);
    t[0].x = std::nanf("");
    EXPECT_FALSE(t.IsValid());
}

TEST(CTriangle2D, AreaWindingAndCentre)
{
    CTriangle2D t({0, 0}, {4, 0}, {0, 3});
    EXPECT_EQ(t.GetArea(), 6.0f);
    EXPECT_TRUE(t.IsCCW());
    EXPECT_FALSE(t.IsCW());
    t.ChangeWinding();
    EXPECT_EQ(t.b.y, 3.0f);
    EXPECT_TRUE(t.IsCW());
    EXPECT_FALSE(t.IsCCW());
    EXPECT_EQ(t.GetArea(), 6.0f);
    const CTriangle2D flat({0, 0}, {1, 1}, {3, 3});
    EXPECT_FALSE(flat.IsCCW());
    EXPECT_FALSE(flat.IsCW());
    EXPECT_EQ(flat.GetArea(), 0.0f);
    const LbVector2f cog = CTriangle2D({0, 0}, {3, 0}, {0, 6}).GetCOG();
    EXPECT_FLOAT_EQ(cog.x, 1.0f);
    EXPECT_FLOAT_EQ(cog.y, 2.0f);
}

TEST(CTriangle2D, BarycentricWeightsNeedNotSumToOne)
{
    const CTriangle2D t({1, 1}, {5, 1}, {1, 7});
    const LbVector2f centre = t.BaryToCart({1, 1, 1}), cog = t.GetCOG();
    EXPECT_FLOAT_EQ(centre.x, cog.x);
    EXPECT_FLOAT_EQ(centre.y, cog.y);
    const LbVector2f a = t.BaryToCart({2, 0, 0});
    EXPECT_EQ(a.x, 1.0f);
    EXPECT_EQ(a.y, 1.0f);
    const LbVector2f mid = t.BaryToCart({0, 3, 3});
    EXPECT_EQ(mid.x, 3.0f);
    EXPECT_EQ(mid.y, 4.0f);
}

TEST(CTriangle2D, AffineMapOntoItselfOrFromADegenerateTriangleIsTheIdentity)
{
    const CTriangle2D t({1, 2}, {5, 1}, {2, 7});
    const LbMatrix3Cd self = t.GetAffineMap(t);
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(self(r, c), r == c ? 1.0 : 0.0, 1e-15);
    ExpectIdentity(CTriangle2D({0, 0}, {1, 1}, {2, 2}).GetAffineMap(t));
    ExpectIdentity(CTriangle2D({0, 0}, {0, 0}, {0, 0}).GetAffineMap(t));
}

// Reference: Eigen solves M P1 = P2 for the vertex matrices; the map must also send each vertex
// onto its partner.
TEST(CTriangle2D, AffineMapSendsTheVerticesOntoTheOtherTriangle)
{
    std::mt19937_64 engine(47110815);
    std::uniform_real_distribution<float> u(-50.0f, 50.0f);
    for (int trial = 0; trial < 200; ++trial) {
        const CTriangle2D from({u(engine), u(engine)}, {u(engine), u(engine)}, {u(engine), u(engine)});
        const CTriangle2D to({u(engine), u(engine)}, {u(engine), u(engine)}, {u(engine), u(engine)});
        const LbMatrix3Cd m = from.GetAffineMap(to);
        Eigen::Matrix3d p1, p2, em;
        for (int j = 0; j < 3; ++j) {
            p1.col(j) << from[j].x, from[j].y, 1.0;
            p2.col(j) << to[j].x, to[j].y, 1.0;
        }
        const Eigen::Matrix3d expected = p1.transpose().partialPivLu().solve(p2.transpose()).transpose();
        for (int r = 0; r < 3; ++r)
            for (int c = 0; c < 3; ++c)
                em(r, c) = m(r, c);
        EXPECT_LT((em - expected).cwiseAbs().maxCoeff(),
                  1e-9 * std::max(1.0, expected.cwiseAbs().maxCoeff()));
        EXPECT_LT((em * p1 - p2).cwiseAbs().maxCoeff(), 1e-9);
        EXPECT_EQ(m[2], m(2, 0)); // stored by columns
    }
}
