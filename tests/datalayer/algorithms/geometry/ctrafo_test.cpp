#include <Eigen/Geometry>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "datalayer/algorithms/geometry/ctrafo.h"

using DataLayer::CTrafo;
using DataLayer::Quaternion;
using V3 = kdtree::Vector<3>;

namespace {

constexpr float kFloatEps = 1.1920928955078125e-7f;

Eigen::Matrix4d ToEigen(const CTrafo& t)
{
    Eigen::Matrix4d m;
    for (unsigned r = 0; r < 4; ++r)
        for (unsigned c = 0; c < 4; ++c)
            m(r, c) = t(r, c);
    return m;
}

CTrafo RandomTrafo(std::mt19937_64& engine, float scale = 1.0f)
{
    std::uniform_real_distribution<float> angle(-3.0f, 3.0f), shift(-10.0f, 10.0f);
    const CTrafo r(V3(angle(engine), angle(engine) / 2, angle(engine)),
                   V3(shift(engine), shift(engine), shift(engine)));
    return scale == 1.0f ? r : r.Scale(V3(scale, 1.0f / scale, scale));
}

V3 RandomPoint(std::mt19937_64& engine)
{
    std::uniform_real_distribution<float> u(-100.0f, 100.0f);
    return V3(u(engine), u(engine), u(engine));
}

void ExpectNear(const CTrafo& a, const CTrafo& b, double tol)
{
    for (unsigned r = 0; r < 3; ++r)
        for (unsigned c = 0; c < 4; ++c)
            EXPECT_NEAR(a(r, c), b(r, c), tol) << "(" << r << "," << c << ")";
}

} // namespace

TEST(KdtreeVector, IsAlignedZeroPaddedAndChecksItsIndex)
{
    static_assert(alignof(V3) == 16 && sizeof(V3) == 16);
    const V3 zero;
    EXPECT_EQ(zero[0], 0.0f);
    const V3 v(1, 2, 3);
    EXPECT_EQ(v.Data()[3], 0.0f);
    EXPECT_EQ((v * std::numeric_limits<float>::infinity()).Data()[3], 0.0f); // padding stays 0
    EXPECT_EQ(v.Dot(V3(1, 1, 1)), 6.0f);
    EXPECT_THROW(v[3], std::out_of_range);
    EXPECT_THROW(v[-1], std::out_of_range);
}

TEST(CTrafo, ValidityEqualityAndTheFourByFourView)
{
    EXPECT_FALSE(static_cast<bool>(CTrafo::Invalid()));
    EXPECT_FALSE(CTrafo::Invalid() == CTrafo::Invalid());
    EXPECT_TRUE(static_cast<bool>(CTrafo::Identity()));
    EXPECT_TRUE(CTrafo() == CTrafo::Identity());
    EXPECT_FALSE(static_cast<bool>(CTrafo().Translate(V3(std::numeric_limits<float>::infinity(), 0, 0))));

    const CTrafo t(V3(1, 2, 3), V3(4, 5, 6), V3(7, 8, 9), V3(10, 11, 12));
    EXPECT_EQ(t(3, 3), 1.0f);
    EXPECT_EQ(t(3, 0), 0.0f);
    EXPECT_EQ(t(0, 3), 10.0f);
    EXPECT_EQ(t(2, 1), 8.0f);
    EXPECT_EQ(t.GetTranslation()[1], 11.0f);
    for (auto [r, c] : {std::pair{4u, 0u}, std::pair{0u, 4u}}) {
        try {
            (void)t(r, c);
            ADD_FAILURE() << "no exception";
        } catch (const std::invalid_argument& e) {
            EXPECT_STREQ(e.what(), "invalid row or column index");
        }
    }
}

TEST(CTrafo, MatrixConversionsRoundTrip)
{
    const CTrafo t(V3(1, 2, 3), V3(4, 5, 6), V3(7, 8, 9), V3(10, 11, 12));
    const LbMatrix4Rf mf = static_cast<LbMatrix4Rf>(t);
    const LbMatrix4Rd md = static_cast<LbMatrix4Rd>(t);
    EXPECT_EQ(mf[12], 10.0f);
    EXPECT_EQ(mf[13], 11.0f);
    EXPECT_EQ(mf[14], 12.0f);
    EXPECT_EQ(mf[15], 1.0f);
    EXPECT_EQ(mf[3], 0.0f);
    EXPECT_EQ(md[1], 4.0); // row 1, column 0
    EXPECT_TRUE(CTrafo(mf) == t);
    EXPECT_TRUE(CTrafo(md) == t);
    LbMatrix4Rd precise;
    precise[0] = 0.1; // rounded to float
    EXPECT_EQ(CTrafo(precise)(0, 0), 0.1f);
}

// The SSE path must give the scalar sums bit for bit.
TEST(CTrafo, RotateAndTransformEqualTheScalarFormula)
{
    std::mt19937_64 engine(47110815);
    for (int trial = 0; trial < 1000; ++trial) {
        const CTrafo t = RandomTrafo(engine, trial % 2 ? 1.0f : 3.0f);
        const V3 p = RandomPoint(engine);
        const V3 r = t.Rotate(p), q = t.Transform(p), s = t * p;
        for (unsigned i = 0; i < 3; ++i) {
            const float rotated = (t(i, 0) * p[0] + t(i, 1) * p[1]) + t(i, 2) * p[2];
            EXPECT_EQ(r[static_cast<int>(i)], rotated);
            EXPECT_EQ(q[static_cast<int>(i)], rotated + t(i, 3));
            EXPECT_EQ(s[static_cast<int>(i)], q[static_cast<int>(i)]);
        }
        EXPECT_EQ(q.Data()[3], 0.0f);
        const auto [point, normal] = t.Transform(p, V3(0, 0, 1));
        EXPECT_TRUE(point == q);
        EXPECT_TRUE(normal == t.Rotate(V3(0, 0, 1)));
    }
}

TEST(CTrafo, CompositionAppliesTheRightOperandFirst)
{
    std::mt19937_64 engine(4711);
    for (int trial = 0; trial < 100; ++trial) {
        const CTrafo a = RandomTrafo(engine), b = RandomTrafo(engine);
        const V3 p = RandomPoint(engine);
        const V3 lhs = (a * b) * p, rhs = a * (b * p);
        for (int i = 0; i < 3; ++i)
            EXPECT_NEAR(lhs[i], rhs[i], 1e-4);
        const Eigen::Matrix4d expected = ToEigen(a) * ToEigen(b);
        const Eigen::Matrix4d actual = ToEigen(a * b);
        EXPECT_LT((actual - expected).cwiseAbs().maxCoeff(), 1e-5);
    }
}

TEST(CTrafo, InverseUndoesAlsoAScaledMatrixAndSingularGivesTheIdentity)
{
    std::mt19937_64 engine(47110815);
    for (int trial = 0; trial < 100; ++trial) {
        const CTrafo t = RandomTrafo(engine, trial % 2 ? 1.0f : 4.0f);
        const Eigen::Matrix4d product = ToEigen(t * t.GetInverse());
        EXPECT_LT((product - Eigen::Matrix4d::Identity()).cwiseAbs().maxCoeff(), 64 * kFloatEps * 10);
        EXPECT_LT((ToEigen(t.GetInverse()) - ToEigen(t).inverse()).cwiseAbs().maxCoeff(), 1e-4);
    }
    const CTrafo singular(V3(1, 2, 3), V3(2, 4, 6), V3(0, 0, 1), V3(5, 5, 5));
    EXPECT_TRUE(singular.GetInverse() == CTrafo::Identity());
    const CTrafo tiny = CTrafo().Scale(V3(1e-3f, 1e-3f, 1e-2f)); // det 1e-8
    EXPECT_TRUE(tiny.GetInverse() == CTrafo::Identity());
}

TEST(CTrafo, EulerConstructorMatchesEigenAndRoundTrips)
{
    std::mt19937_64 engine(47110815);
    std::uniform_real_distribution<float> angle(-1.5f, 1.5f);
    for (int trial = 0; trial < 100; ++trial) {
        const V3 e(2 * angle(engine), angle(engine), 2 * angle(engine));
        const CTrafo t(e, V3(1, 2, 3));
        const Eigen::Matrix3d expected = (Eigen::AngleAxisd(e[2], Eigen::Vector3d::UnitZ()) *
                                          Eigen::AngleAxisd(e[1], Eigen::Vector3d::UnitY()) *
                                          Eigen::AngleAxisd(e[0], Eigen::Vector3d::UnitX()))
                                             .toRotationMatrix();
        EXPECT_LT((ToEigen(t).topLeftCorner<3, 3>() - expected).cwiseAbs().maxCoeff(), 4 * kFloatEps);
        const V3 back = t.GetEulerAngles();
        for (int i = 0; i < 3; ++i)
            EXPECT_NEAR(back[i], e[i], 2e-3); // pitch near +-pi/2 loses float digits
        const CTrafo again(back, V3(1, 2, 3));
        EXPECT_LT((ToEigen(again) - ToEigen(t)).cwiseAbs().maxCoeff(), 16 * kFloatEps);
    }
}

TEST(CTrafo, QuaternionConstructorAndRotationPart)
{
    const Quaternion q = Quaternion::FromAxisAngle({1, -1, 2}, 0.7);
    const CTrafo t(q, V3(3, 2, 1));
    const std::array<double, 3> expected = q.Rotate({1, 2, 3});
    const V3 r = t.Rotate(V3(1, 2, 3));
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(r[i], expected[i], 1e-5);
    const Quaternion back = t.GetQuaternion();
    EXPECT_NEAR(back.Distance(q), 0.0, 1e-3);
    // A non-unit quaternion scales the matrix by its squared norm.
    EXPECT_FLOAT_EQ(CTrafo(Quaternion(2, 0, 0, 0), V3())(1, 1), 4.0f);
    // The rotation part drops the translation.
    const CTrafo part = t.GetRotationPart();
    EXPECT_EQ(part.GetTranslation()[0], 0.0f);
    ExpectNear(part.Translate(t.GetTranslation()), t, 1e-6);
    EXPECT_NEAR(t.GetRotationDistance(CTrafo()), 0.7, 1e-6);
}

TEST(CTrafo, ScaleAndTranslate)
{
    const CTrafo t(V3(1, 2, 3), V3(4, 5, 6), V3(7, 8, 9), V3(10, 11, 12));
    const CTrafo s = t.Scale(V3(2, 3, 4));
    EXPECT_EQ(s(0, 2), 6.0f);
    EXPECT_EQ(s(1, 0), 12.0f);
    EXPECT_EQ(s(2, 2), 36.0f);
    EXPECT_EQ(s(0, 3), 20.0f);
    EXPECT_EQ(s(2, 3), 48.0f);
    const CTrafo m = t.Translate(V3(1, 1, -12));
    EXPECT_EQ(m(2, 3), 0.0f);
    EXPECT_EQ(m(1, 1), 5.0f);
}

TEST(CTrafo, LerpInterpolatesRotationAndTranslation)
{
    const CTrafo a(Quaternion::FromAxisAngle({0, 0, 1}, 0.2), V3(0, 0, 0));
    const CTrafo b(Quaternion::FromAxisAngle({0, 0, 1}, 1.0), V3(2, 4, -6));
    ExpectNear(a.Lerp(b, 0.0), a, 1e-6);
    ExpectNear(a.Lerp(b, 1.0), b, 1e-6);
    const CTrafo mid = a.Lerp(b, 0.5);
    ExpectNear(mid, CTrafo(Quaternion::FromAxisAngle({0, 0, 1}, 0.6), V3(1, 2, -3)), 1e-6);
    const CTrafo beyond = a.Lerp(b, 1.5);
    EXPECT_FLOAT_EQ(beyond.GetTranslation()[0], 3.0f);
}

TEST(CTrafo, MeanOfOneEmptyAndSymmetricLists)
{
    std::mt19937_64 engine(47110815);
    const CTrafo t = RandomTrafo(engine);
    ExpectNear(CTrafo::Mean(&t, 1), t, 1e-6);

    const CTrafo empty = CTrafo::Mean(nullptr, 0);
    EXPECT_TRUE(std::isnan(empty(0, 3)));
    EXPECT_EQ(empty(0, 0), 1.0f);
    EXPECT_EQ(empty(0, 1), 0.0f);

    const CTrafo pair[2] = {CTrafo(Quaternion::FromAxisAngle({1, 0, 0}, 0.4), V3(1, 0, 0)),
                            CTrafo(Quaternion::FromAxisAngle({1, 0, 0}, -0.4), V3(3, 2, 0))};
    ExpectNear(CTrafo::Mean(pair, 2), CTrafo().Translate(V3(2, 1, 0)), 1e-6);
}

namespace {

struct FloatCloud
{
    std::vector<V3> from, to;
    Eigen::Matrix3Xd fromD, toD;
};

FloatCloud MakeCloud(std::mt19937_64& engine, const CTrafo& motion, int count, float sigma)
{
    std::normal_distribution<float> noise(0.0f, sigma);
    FloatCloud c;
    c.fromD.resize(3, count);
    c.toD.resize(3, count);
    for (int i = 0; i < count; ++i) {
        const V3 p = RandomPoint(engine);
        const V3 m = motion * p;
        const V3 q(m[0] + noise(engine), m[1] + noise(engine), m[2] + noise(engine));
        c.from.push_back(p);
        c.to.push_back(q);
        for (int k = 0; k < 3; ++k) {
            c.fromD(k, i) = p[k];
            c.toD(k, i) = q[k];
        }
    }
    return c;
}

} // namespace

TEST(CTrafoLeastSquaresFit, FailurePathsAreInvalid)
{
    const V3 two[2] = {V3(0, 0, 0), V3(1, 0, 0)};
    EXPECT_FALSE(static_cast<bool>(CTrafo::LeastSquaresFit(two, two, 2, nullptr)));
    const V3 same[4] = {V3(1, 2, 3), V3(1, 2, 3), V3(1, 2, 3), V3(1, 2, 3)};
    EXPECT_FALSE(static_cast<bool>(CTrafo::LeastSquaresFit(same, same, 4, nullptr)));
    EXPECT_FALSE(static_cast<bool>(CTrafo::LeastSquaresFit(nullptr, same, 4, nullptr)));
    const V3 withNaN[3] = {V3(0, 0, 0), V3(1, 0, 0), V3(0, std::nanf(""), 0)};
    EXPECT_FALSE(static_cast<bool>(CTrafo::LeastSquaresFit(withNaN, withNaN, 3, nullptr)));
}

TEST(CTrafoLeastSquaresFit, ThreeNonCollinearPointsGiveTheExactMotion)
{
    const CTrafo motion(Quaternion::FromAxisAngle({1, 2, 3}, 1.1), V3(5, -2, 7));
    const V3 from[3] = {V3(0, 0, 0), V3(4, 0, 0), V3(0, 3, 1)};
    V3 to[3];
    for (int i = 0; i < 3; ++i)
        to[i] = motion * from[i];
    const CTrafo fit = CTrafo::LeastSquaresFit(from, to, 3, nullptr);
    ASSERT_TRUE(static_cast<bool>(fit));
    ExpectNear(fit, motion, 1e-5);
}

// Independent reference: Eigen's Umeyama without scaling on the same (float) points in double.
TEST(CTrafoLeastSquaresFit, MatchesEigenUmeyamaOnNoisyFloatClouds)
{
    std::mt19937_64 engine(47110815);
    for (int trial = 0; trial < 30; ++trial) {
        const CTrafo motion = RandomTrafo(engine);
        const FloatCloud c = MakeCloud(engine, motion, 10 + 20 * trial, 0.05f);
        const CTrafo fit = CTrafo::LeastSquaresFit(c.from.data(), c.to.data(), c.from.size(), nullptr);
        ASSERT_TRUE(static_cast<bool>(fit));
        const Eigen::Matrix4d expected = Eigen::umeyama(c.fromD, c.toD, false);
        for (unsigned r = 0; r < 3; ++r) {
            for (unsigned col = 0; col < 3; ++col)
                EXPECT_NEAR(fit(r, col), expected(r, col), 2 * kFloatEps) << "trial " << trial;
            EXPECT_NEAR(fit(r, 3), expected(r, 3), 2 * kFloatEps * 32) << "trial " << trial;
        }
    }
}

TEST(CTrafo, DumpPrintsFourRows)
{
    testing::internal::CaptureStdout();
    CTrafo().Translate(V3(1.5f, -2, 0.25f)).Dump();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), " 1.000 0.000 0.000 1.500\n"
                                                      " 0.000 1.000 0.000 -2.000\n"
                                                      " 0.000 0.000 1.000 0.250\n"
                                                      " 0.000 0.000 0.000 1.000\n");
}
