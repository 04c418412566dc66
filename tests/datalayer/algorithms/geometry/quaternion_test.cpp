#include <Eigen/Geometry>
#include <array>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>

#include "datalayer/algorithms/geometry/quaternion.h"

using DataLayer::Quaternion;

namespace {

constexpr double kPi = 3.14159265358979323846;

void ExpectQuaternion(const Quaternion& q, double w, double x, double y, double z, double tol = 1e-15)
{
    EXPECT_NEAR(q.w, w, tol);
    EXPECT_NEAR(q.x, x, tol);
    EXPECT_NEAR(q.y, y, tol);
    EXPECT_NEAR(q.z, z, tol);
}

/// Eigen's quaternion of the same rotation, sign chosen with w >= 0.
Quaternion FromEigen(Eigen::Quaterniond e)
{
    if (e.w() < 0)
        e.coeffs() = -e.coeffs();
    return {e.w(), e.x(), e.y(), e.z()};
}

Eigen::Quaterniond RandomUnit(std::mt19937_64& engine)
{
    std::normal_distribution<double> normal;
    return Eigen::Quaterniond(normal(engine), normal(engine), normal(engine), normal(engine)).normalized();
}

} // namespace

TEST(Quaternion, NormalisingGivesPositiveWAndTurnsZeroOrNaNIntoTheIdentity)
{
    ExpectQuaternion(Quaternion(-1, 0, 0, 0).GetNormalized(), 1, 0, 0, 0);
    ExpectQuaternion(Quaternion(0, 0, 0, 0).GetNormalized(), 1, 0, 0, 0);
    ExpectQuaternion(Quaternion::Invalid().GetNormalized(), 1, 0, 0, 0);
    ExpectQuaternion(Quaternion(-1, 2, 2, 4).GetNormalized(), 0.2, -0.4, -0.4, -0.8);
    ExpectQuaternion(Quaternion(0, -2, 0, 0).GetNormalized(), 0, -1, 0, 0);
    // The constructors from values don't normalise.
    ExpectQuaternion(Quaternion(std::array<double, 4>{-2, 0, 0, 0}), -2, 0, 0, 0);
}

TEST(Quaternion, InvalidIsFalseAndAnyValueMakesItTrue)
{
    EXPECT_FALSE(static_cast<bool>(Quaternion::Invalid()));
    EXPECT_FALSE(static_cast<bool>(Quaternion(1, 0, std::numeric_limits<double>::quiet_NaN(), 0)));
    EXPECT_TRUE(static_cast<bool>(Quaternion()));
    EXPECT_TRUE(static_cast<bool>(Quaternion(0, 0, 0, 0)));
}

TEST(Quaternion, FromAxisAngleWorkedCases)
{
    // Zero axis: invalid.
    EXPECT_FALSE(static_cast<bool>(Quaternion::FromAxisAngle({0, 0, 0}, 1.0)));
    // A non-unit axis is divided out.
    const double h = std::sqrt(0.5);
    ExpectQuaternion(Quaternion::FromAxisAngle({0, 0, 2}, kPi / 2), h, 0, 0, h);
    // Angles beyond a full turn are reduced by the stored turn.
    const Quaternion seven = Quaternion::FromAxisAngle({1, 0, 0}, 7.0);
    const Quaternion reduced = Quaternion::FromAxisAngle({1, 0, 0}, 7.0 - 6.28318530717959);
    ExpectQuaternion(seven, reduced.w, reduced.x, reduced.y, reduced.z, 0.0);
    ExpectQuaternion(seven, std::cos(0.5 * (7.0 - 6.28318530717959)),
                     std::sin(0.5 * (7.0 - 6.28318530717959)), 0, 0);
    // An angle whose half cosine is negative is normalised to w >= 0: the same rotation.
    const Quaternion big = Quaternion::FromAxisAngle({0, 1, 0}, 4.0);
    ExpectQuaternion(big, -std::cos(2.0), 0, -std::sin(2.0), 0);
}

TEST(Quaternion, EulerAnglesMatchEigenAndRoundTrip)
{
    std::mt19937_64 engine(47110815);
    std::uniform_real_distribution<double> angle(-1.5, 1.5);
    for (int trial = 0; trial < 100; ++trial) {
        const double roll = 2 * angle(engine), pitch = angle(engine), yaw = 2 * angle(engine);
        const Quaternion q(roll, pitch, yaw);
        const Eigen::Quaterniond e = Eigen::AngleAxisd(yaw, Eigen::Vector3d::UnitZ()) *
                                     Eigen::AngleAxisd(pitch, Eigen::Vector3d::UnitY()) *
                                     Eigen::AngleAxisd(roll, Eigen::Vector3d::UnitX());
        const Quaternion expected = FromEigen(e);
        ExpectQuaternion(q, expected.w, expected.x, expected.y, expected.z, 1e-15);
        const std::array<double, 3> back = q.GetEulerAngles();
        EXPECT_NEAR(back[0], roll, 1e-12);
        EXPECT_NEAR(back[1], pitch, 1e-12);
        EXPECT_NEAR(back[2], yaw, 1e-12);
    }
}

// Rotations near half turns about each axis reach the three branches without a positive trace.
TEST(Quaternion, FromMatrixMatchesEigenInEveryBranch)
{
    std::mt19937_64 engine(47110815);
    std::normal_distribution<double> small(0.0, 0.05);
    for (int trial = 0; trial < 200; ++trial) {
        Eigen::Quaterniond e = RandomUnit(engine);
        if (trial % 4 != 0) { // near a half turn about axis trial % 4 - 1
            Eigen::Vector3d axis = Eigen::Vector3d::Zero();
            axis[trial % 4 - 1] = 1;
            axis += Eigen::Vector3d(small(engine), small(engine), small(engine));
            e = Eigen::AngleAxisd(kPi - std::abs(small(engine)), axis.normalized());
        }
        const Eigen::Matrix3d m = e.toRotationMatrix();
        const Quaternion q(m(0, 0), m(0, 1), m(0, 2), m(1, 0), m(1, 1), m(1, 2), m(2, 0), m(2, 1), m(2, 2));
        const Quaternion expected = FromEigen(e);
        ExpectQuaternion(q, expected.w, expected.x, expected.y, expected.z, 1e-14);
    }
}

TEST(Quaternion, ShortestRotationBetweenDirections)
{
    ExpectQuaternion(Quaternion(std::array<double, 3>{1, 2, 3}, std::array<double, 3>{2, 4, 6}), 1, 0, 0, 0);
    ExpectQuaternion(Quaternion(std::array<double, 3>{0, 0, 1}, std::array<double, 3>{0, 0, -5}), 0, 1, 0, 0);
    ExpectQuaternion(Quaternion(std::array<double, 3>{0, 0, 0}, std::array<double, 3>{0, 0, 1}), 1, 0, 0, 0);
    std::mt19937_64 engine(47110815);
    std::normal_distribution<double> normal;
    for (int trial = 0; trial < 100; ++trial) {
        const Eigen::Vector3d f(normal(engine), normal(engine), normal(engine));
        const Eigen::Vector3d t(normal(engine), normal(engine), normal(engine));
        const Quaternion q({f[0], f[1], f[2]}, {t[0], t[1], t[2]});
        const Eigen::Vector3d fu = f.normalized(), tu = t.normalized();
        const std::array<double, 3> r = q.Rotate({fu[0], fu[1], fu[2]});
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(r[c], tu[c], 1e-14);
        EXPECT_NEAR(q.GetAngle(), std::acos(fu.dot(tu)), 1e-7); // the shortest rotation
    }
}

TEST(Quaternion, ProductRotateAndConjugateAgreeWithEigen)
{
    std::mt19937_64 engine(4711);
    for (int trial = 0; trial < 100; ++trial) {
        const Eigen::Quaterniond a = RandomUnit(engine), b = RandomUnit(engine);
        const Quaternion qa(a.w(), a.x(), a.y(), a.z()), qb(b.w(), b.x(), b.y(), b.z());
        const Eigen::Quaterniond ab = a * b;
        ExpectQuaternion(qa * qb, ab.w(), ab.x(), ab.y(), ab.z(), 1e-15);
        ExpectQuaternion(~qa, a.w(), -a.x(), -a.y(), -a.z(), 0);
        ExpectQuaternion(-qa, -a.w(), -a.x(), -a.y(), -a.z(), 0);
        const Eigen::Vector3d v(1, -2, 0.5), rv = a * v;
        const std::array<double, 3> r = qa.Rotate({1, -2, 0.5});
        for (int c = 0; c < 3; ++c)
            EXPECT_NEAR(r[c], rv[c], 1e-14);
        EXPECT_NEAR(qa.Dot(qb), a.coeffs().dot(b.coeffs()), 1e-15);
        EXPECT_NEAR(qa.GetNorm(), 1.0, 1e-15);
    }
    // A non-unit quaternion scales what it rotates by its squared norm.
    const std::array<double, 3> scaled = Quaternion(2, 0, 0, 0).Rotate({1, 2, 3});
    EXPECT_EQ(scaled[0], 4);
    EXPECT_EQ(scaled[2], 12);
}

TEST(Quaternion, DistanceAngleAndAxis)
{
    const Quaternion a = Quaternion::FromAxisAngle({0, 0, 1}, 0.3);
    const Quaternion b = Quaternion::FromAxisAngle({0, 0, 1}, 1.0);
    EXPECT_NEAR(a.Distance(b), 0.7, 1e-14);
    EXPECT_EQ(a.Distance(-a), 0.0);
    EXPECT_EQ(a.Distance(a), 0.0);
    EXPECT_NEAR(b.GetAngle(), 1.0, 1e-15);
    const std::array<double, 3> axis = Quaternion::FromAxisAngle({1, 2, 2}, 0.8).GetAxis();
    EXPECT_NEAR(axis[0], 1.0 / 3, 1e-15);
    EXPECT_NEAR(axis[1], 2.0 / 3, 1e-15);
    EXPECT_NEAR(axis[2], 2.0 / 3, 1e-15);
    const std::array<double, 3> none = Quaternion().GetAxis();
    EXPECT_EQ(none[0], 0);
    EXPECT_EQ(none[1], 0);
    EXPECT_EQ(none[2], 0);
    EXPECT_TRUE(std::isnan(Quaternion(1.5, 0, 0, 0).GetAngle())); // no clamping of w
}

TEST(Quaternion, SlerpFollowsTheGreatCircle)
{
    const Quaternion a = Quaternion::FromAxisAngle({0, 1, 0}, 0.2);
    const Quaternion b = Quaternion::FromAxisAngle({0, 1, 0}, 1.4);
    const Quaternion mid = a.Slerp(b, 0.5), expected = Quaternion::FromAxisAngle({0, 1, 0}, 0.8);
    ExpectQuaternion(mid, expected.w, expected.x, expected.y, expected.z, 1e-15);
    ExpectQuaternion(a.Slerp(b, 0.0), a.w, a.x, a.y, a.z, 1e-15);
    ExpectQuaternion(a.Slerp(b, 1.0), b.w, b.x, b.y, b.z, 1e-15);
    const Quaternion beyond = a.Slerp(b, 2.0), expectedBeyond = Quaternion::FromAxisAngle({0, 1, 0}, 2.6);
    ExpectQuaternion(beyond, expectedBeyond.w, expectedBeyond.x, expectedBeyond.y, expectedBeyond.z, 1e-14);
    // Equal quaternions interpolate linearly (and so stay put).
    ExpectQuaternion(a.Slerp(a, 0.7), a.w, a.x, a.y, a.z, 4.5e-16); // two roundings near 1
    // The shorter arc is not chosen: from q to -q the path is a half circle of the 4-sphere.
    const Quaternion q = Quaternion::FromAxisAngle({1, 2, 3}, 0.9);
    ExpectQuaternion(q.Slerp(-q, 0.0), q.w, q.x, q.y, q.z, 1e-16);
    ExpectQuaternion(q.Slerp(-q, 1.0), -q.w, -q.x, -q.y, -q.z, 1e-15);
    const Quaternion half = q.Slerp(-q, 0.5), qi = q * Quaternion(0, 1, 0, 0);
    ExpectQuaternion(half, qi.w, qi.x, qi.y, qi.z, 1e-15);
    EXPECT_NEAR(q.Slerp(-q, 0.3).GetNorm(), 1.0, 1e-15);
    EXPECT_NEAR(half.Dot(q), 0.0, 1e-15);
}

TEST(Quaternion, DumpPrintsTheFourValues)
{
    testing::internal::CaptureStdout();
    Quaternion(0.5, -1, 2.25, 1e-7).Dump();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "0.5 + i*-1 + j*2.25 + k*1e-07\n");
}
