#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>

#include "datalayer/algorithms/geometry/rayellipsoidintersection.h"

using DataLayer::RayEllipsoidIntersection;

TEST(RayEllipsoidIntersection, WorkedRays)
{
    const LbVector3d center(1, 2, 3), radii(2, 3, 4);
    double t[2] = {-1, -1};
    // Through the centre from outside: two parameters, ascending.
    ASSERT_EQ(RayEllipsoidIntersection(center, radii, {1, 2, -7}, {0, 0, 2}, t), 2);
    EXPECT_NEAR(t[0], 3.0, 1e-15);
    EXPECT_NEAR(t[1], 7.0, 1e-15);
    // The same ray backwards from the far side.
    ASSERT_EQ(RayEllipsoidIntersection(center, radii, {1, 2, 13}, {0, 0, -1}, t), 2);
    EXPECT_NEAR(t[0], 6.0, 1e-14);
    EXPECT_NEAR(t[1], 14.0, 1e-14);
    // From inside: one.
    ASSERT_EQ(RayEllipsoidIntersection(center, radii, {1, 2, 3}, {1, 0, 0}, t), 1);
    EXPECT_NEAR(t[0], 2.0, 1e-15);
    // Pointing away, and missing: none.
    EXPECT_EQ(RayEllipsoidIntersection(center, radii, {1, 2, -7}, {0, 0, -1}, t), 0);
    EXPECT_EQ(RayEllipsoidIntersection(center, radii, {10, 2, -7}, {0, 0, 1}, t), 0);
    // Tangent: two equal parameters.
    ASSERT_EQ(RayEllipsoidIntersection({0, 0, 0}, {1, 1, 1}, {1, -5, 0}, {0, 1, 0}, t), 2);
    EXPECT_EQ(t[0], 5.0);
    EXPECT_EQ(t[1], 5.0);
}

TEST(RayEllipsoidIntersection, DegenerateInputGivesNothing)
{
    double t[2] = {9, 9};
    EXPECT_EQ(RayEllipsoidIntersection({0, 0, 0}, {1, 1, 1}, {0, 0, -5}, {0, 0, 0}, t), 0);
    EXPECT_EQ(RayEllipsoidIntersection({0, 0, 0}, {0, 1, 1}, {0, 0, -5}, {0, 0, 1}, t), 0);
    EXPECT_EQ(RayEllipsoidIntersection({0, 0, 0}, {1, 1, 1}, {std::nan(""), 0, -5}, {0, 0, 1}, t), 0);
    EXPECT_EQ(t[0], 9.0);
    EXPECT_EQ(RayEllipsoidIntersection({0, 0, 0}, {1, 1, 1}, {0, 0, -5}, {0, 0, 1}, nullptr), 2);
}

// Each parameter must land on the surface; the count must agree with an independent look at the
// scaled problem: the distance of the line from the centre and the position of the origin.
TEST(RayEllipsoidIntersection, RandomRaysLandOnTheSurface)
{
    std::mt19937_64 engine(47110815);
    std::uniform_real_distribution<double> u(-5.0, 5.0), r(0.5, 3.0);
    int seen[3] = {0, 0, 0};
    for (int trial = 0; trial < 5000; ++trial) {
        const LbVector3d center(u(engine), u(engine), u(engine)), radii(r(engine), r(engine), r(engine));
        const LbVector3d origin(u(engine), u(engine), u(engine)), direction(u(engine), u(engine), u(engine));
        double t[2];
        const int n = RayEllipsoidIntersection(center, radii, origin, direction, t);
        ASSERT_GE(n, 0);
        ASSERT_LE(n, 2);
        ++seen[n];
        for (int i = 0; i < n; ++i) {
            EXPECT_GE(t[i], 0.0);
            const LbVector3d p = origin + direction * t[i] - center;
            const double level =
                std::pow(p.x / radii.x, 2) + std::pow(p.y / radii.y, 2) + std::pow(p.z / radii.z, 2);
            EXPECT_NEAR(level, 1.0, 1e-9);
        }
        if (n == 2) {
            EXPECT_LE(t[0], t[1]);
        }
        // In unit-sphere space: o, d scaled; the line meets the sphere when its closest approach
        // is below 1; the origin inside gives exactly one forward hit.
        const LbVector3d o((origin.x - center.x) / radii.x, (origin.y - center.y) / radii.y,
                           (origin.z - center.z) / radii.z);
        const LbVector3d d(direction.x / radii.x, direction.y / radii.y, direction.z / radii.z);
        const double s = -o.Dot(d) / d.Dot(d);
        const LbVector3d closest = o + d * s;
        const double miss = closest.Dot(closest);
        if (std::abs(miss - 1.0) < 1e-9 || std::abs(o.Dot(o) - 1.0) < 1e-9)
            continue; // grazing or starting on the surface: either answer is fine
        int expected = 0;
        if (o.Dot(o) < 1)
            expected = 1;
        else if (miss < 1 && s > 0)
            expected = 2;
        EXPECT_EQ(n, expected) << "trial " << trial;
    }
    EXPECT_GT(seen[0], 100);
    EXPECT_GT(seen[1], 100);
    EXPECT_GT(seen[2], 100);
}
