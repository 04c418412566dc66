#include <Eigen/Dense>
#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <vector>

#include "captured_log.h"
#include "datalayer/algorithms/geometry/symsolvers.h"

namespace ss = DataLayer::symsolvers;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

struct RigidProblem
{
    std::vector<double> from, to;
    Eigen::Matrix3d rotation;
    Eigen::Vector3d translation;
};

Eigen::Matrix3d RandomRotation(std::mt19937_64& engine)
{
    std::normal_distribution<double> normal;
    Eigen::Quaterniond q(normal(engine), normal(engine), normal(engine), normal(engine));
    return q.normalized().toRotationMatrix();
}

/// count points in a 20-unit cube, moved rigidly, with Gaussian noise of the given sigma on to.
RigidProblem MakeRigidProblem(std::mt19937_64& engine, int count, double sigma)
{
    std::uniform_real_distribution<double> uniform(-10.0, 10.0);
    std::normal_distribution<double> noise(0.0, sigma);
    RigidProblem p;
    p.rotation = RandomRotation(engine);
    p.translation = Eigen::Vector3d(uniform(engine), uniform(engine), uniform(engine));
    for (int i = 0; i < count; ++i) {
        const Eigen::Vector3d f(uniform(engine), uniform(engine), uniform(engine));
        const Eigen::Vector3d t = p.rotation * f + p.translation;
        for (int c = 0; c < 3; ++c) {
            p.from.push_back(f[c]);
            p.to.push_back(t[c] + noise(engine));
        }
    }
    return p;
}

Eigen::Matrix3Xd AsColumns(const std::vector<double>& v)
{
    return Eigen::Map<const Eigen::Matrix3Xd>(v.data(), 3, static_cast<Eigen::Index>(v.size() / 3));
}

int Packed(int r, int c)
{
    return r >= c ? r * (r + 1) / 2 + c : c * (c + 1) / 2 + r;
}

std::vector<double> PackSymmetric(const Eigen::MatrixXd& m)
{
    std::vector<double> p(static_cast<size_t>(m.rows() * (m.rows() + 1) / 2));
    for (int r = 0; r < m.rows(); ++r)
        for (int c = 0; c <= r; ++c)
            p[Packed(r, c)] = m(r, c);
    return p;
}

} // namespace

TEST(SymsolversProcrustes, FewerThanThreePairsOrNullListsFailWithoutWriting)
{
    const double from[6] = {0, 0, 0, 1, 0, 0};
    double q[4] = {7, 7, 7, 7}, r[3][3] = {{7, 7, 7}, {7, 7, 7}, {7, 7, 7}}, t[3] = {7, 7, 7};
    EXPECT_FALSE(ss::Procrustes(from, from, nullptr, q, r, t, 2));
    EXPECT_FALSE(ss::Procrustes(nullptr, from, nullptr, q, r, t, 3));
    EXPECT_FALSE(ss::Procrustes(from, nullptr, nullptr, q, r, t, 3));
    for (double v : q)
        EXPECT_EQ(v, 7);
    for (auto& row : r)
        for (double v : row)
            EXPECT_EQ(v, 7);
    for (double v : t)
        EXPECT_EQ(v, 7);
}

TEST(SymsolversProcrustes, IdenticalSetsGiveTheIdentity)
{
    const double p[12] = {0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0, 3};
    double q[4], r[3][3], t[3];
    ASSERT_TRUE(ss::Procrustes(p, p, nullptr, q, r, t, 4));
    EXPECT_NEAR(q[0], 1.0, 1e-15);
    for (int i = 1; i < 4; ++i)
        EXPECT_NEAR(q[i], 0.0, 1e-15);
    for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(t[i], 0.0, 1e-15);
        for (int j = 0; j < 3; ++j)
            EXPECT_NEAR(r[i][j], i == j ? 1.0 : 0.0, 1e-15);
    }
}

TEST(SymsolversProcrustes, AllPointsEqualIsAmbiguousTracesTheEigenvaluesAndStillWrites)
{
    const double p[12] = {1, 2, 3, 1, 2, 3, 1, 2, 3, 1, 2, 3};
    double q[4] = {0, 0, 0, 0}, r[3][3] = {}, t[3] = {9, 9, 9};
    vorn2test::CapturedLog log(L"Vorn.PreRegistration", Logging::CLogger::m_ciLevelTrace);
    EXPECT_FALSE(ss::Procrustes(p, p, nullptr, q, r, t, 4));
    EXPECT_EQ(q[0], 1.0);
    EXPECT_EQ(q[1], 0.0);
    EXPECT_EQ(q[2], 0.0);
    EXPECT_EQ(q[3], 0.0);
    EXPECT_EQ(r[1][1], 1.0);
    EXPECT_EQ(t[0], 0.0);
    ASSERT_EQ(log.Records().size(), 1u);
    EXPECT_EQ(log.Records()[0].level, 0);
    EXPECT_EQ(log.Records()[0].message,
              L"Ambiguous Procrustes result; M=4, lambda = [0,0,0,0]; duplicate or degenerate points");
    EXPECT_EQ(log.Records()[0].file, "datalayer/algorithms/geometry/symsolvers");
}

TEST(SymsolversProcrustes, AmbiguityIsSilentWhenTraceIsDisabled)
{
    const double p[9] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
    vorn2test::CapturedLog log(L"Vorn.PreRegistration", Logging::CLogger::m_ciLevelWarn);
    EXPECT_FALSE(ss::Procrustes(p, p, nullptr, nullptr, nullptr, nullptr, 3));
    EXPECT_TRUE(log.Records().empty());
}

TEST(SymsolversProcrustes, NonFiniteInputOrZeroWeightSumFailsWithoutWriting)
{
    std::mt19937_64 engine(47110815);
    RigidProblem p = MakeRigidProblem(engine, 5, 0.0);
    double t[3] = {7, 7, 7};
    const std::vector<double> zero(5, 0.0), cancelling = {1, -1, 1, -1, 0};
    EXPECT_FALSE(ss::Procrustes(p.from.data(), p.to.data(), zero.data(), nullptr, nullptr, t, 5));
    EXPECT_FALSE(ss::Procrustes(p.from.data(), p.to.data(), cancelling.data(), nullptr, nullptr, t, 5));
    p.to[4] = kNaN;
    EXPECT_FALSE(ss::Procrustes(p.from.data(), p.to.data(), nullptr, nullptr, nullptr, t, 5));
    p.to[4] = std::numeric_limits<double>::infinity();
    EXPECT_FALSE(ss::Procrustes(p.from.data(), p.to.data(), nullptr, nullptr, nullptr, t, 5));
    EXPECT_EQ(t[0], 7);
}

TEST(SymsolversProcrustes, ExactMotionIsRecoveredWhateverTheWeights)
{
    std::mt19937_64 engine(47110815);
    const RigidProblem p = MakeRigidProblem(engine, 30, 0.0);
    std::uniform_real_distribution<double> uniform(0.1, 5.0);
    std::vector<double> weights(30);
    for (double& w : weights)
        w = uniform(engine);
    double r[3][3], t[3];
    ASSERT_TRUE(ss::Procrustes(p.from.data(), p.to.data(), weights.data(), nullptr, r, t, 30));
    for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(t[i], p.translation[i], 1e-12);
        for (int j = 0; j < 3; ++j)
            EXPECT_NEAR(r[i][j], p.rotation(i, j), 1e-13);
    }
}

// Independent reference: Eigen's Umeyama (SVD of the cross-covariance) without scaling.
TEST(SymsolversProcrustes, MatchesEigenUmeyamaOnNoisyRigidMotions)
{
    std::mt19937_64 engine(47110815);
    for (int trial = 0; trial < 50; ++trial) {
        const int count = 3 + trial * 7;
        const RigidProblem p = MakeRigidProblem(engine, count, 0.05);
        double q[4], r[3][3], t[3];
        ASSERT_TRUE(
            ss::Procrustes(p.from.data(), p.to.data(), nullptr, q, r, t, static_cast<unsigned>(count)));
        const Eigen::Matrix4d expected = Eigen::umeyama(AsColumns(p.from), AsColumns(p.to), false);
        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(t[i], expected(i, 3), 1e-9) << "trial " << trial;
            for (int j = 0; j < 3; ++j)
                EXPECT_NEAR(r[i][j], expected(i, j), 1e-10) << "trial " << trial;
        }
        EXPECT_GE(q[0], 0.0);
        EXPECT_NEAR(q[0] * q[0] + q[1] * q[1] + q[2] * q[2] + q[3] * q[3], 1.0, 1e-14);
    }
}

// With weights, the centroids are weighted and the cross-covariance is not: the reference builds
// that matrix in Eigen and takes its rotation by SVD (Kabsch), a method independent of the
// quaternion eigenproblem.
TEST(SymsolversProcrustes, WeightsMoveTheCentroidsOnly)
{
    std::mt19937_64 engine(4711);
    std::uniform_real_distribution<double> uniform(0.1, 3.0);
    for (int trial = 0; trial < 20; ++trial) {
        const int count = 10 + trial;
        const RigidProblem p = MakeRigidProblem(engine, count, 0.1);
        std::vector<double> weights(static_cast<size_t>(count));
        for (double& w : weights)
            w = uniform(engine);
        const Eigen::Matrix3Xd f = AsColumns(p.from), g = AsColumns(p.to);
        const Eigen::Map<const Eigen::VectorXd> w(weights.data(), count);
        const Eigen::Vector3d a = f * w / w.sum(), b = g * w / w.sum();
        const Eigen::Matrix3d s = (g.colwise() - b) * (f.colwise() - a).transpose(); // to x from
        Eigen::JacobiSVD<Eigen::Matrix3d> svd(s, Eigen::ComputeFullU | Eigen::ComputeFullV);
        Eigen::Matrix3d d = Eigen::Matrix3d::Identity();
        d(2, 2) = (svd.matrixU() * svd.matrixV().transpose()).determinant() < 0 ? -1 : 1;
        const Eigen::Matrix3d expectedR = svd.matrixU() * d * svd.matrixV().transpose();
        const Eigen::Vector3d expectedT = b - expectedR * a;

        double r[3][3], t[3];
        ASSERT_TRUE(ss::Procrustes(p.from.data(), p.to.data(), weights.data(), nullptr, r, t,
                                   static_cast<unsigned>(count)));
        for (int i = 0; i < 3; ++i) {
            EXPECT_NEAR(t[i], expectedT[i], 1e-9);
            for (int j = 0; j < 3; ++j)
                EXPECT_NEAR(r[i][j], expectedR(i, j), 1e-10);
        }
    }
}

TEST(SymsolversJacobi, DiagonalMatrixStopsAtOnceWithIdentityVectors)
{
    double a[6] = {3, 0, -1, 0, 0, 2};
    double values[3], vectors[9] = {}, work[6];
    ss::JacobiIteration(a, values, vectors, 3, 50, work);
    EXPECT_EQ(values[0], 3);
    EXPECT_EQ(values[1], -1);
    EXPECT_EQ(values[2], 2);
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(vectors[i], i % 4 == 0 ? 1.0 : 0.0);
}

TEST(SymsolversJacobi, ZeroSweepsGiveTheDiagonalAndTheIdentity)
{
    double a[3] = {1, 5, 2};
    double values[2], vectors[4], work[4];
    ss::JacobiIteration(a, values, vectors, 2, 0, work);
    EXPECT_EQ(values[0], 1);
    EXPECT_EQ(values[1], 2);
    EXPECT_EQ(vectors[0], 1);
    EXPECT_EQ(vectors[1], 0);
    EXPECT_EQ(vectors[2], 0);
    EXPECT_EQ(vectors[3], 1);
    EXPECT_EQ(a[1], 5); // nothing rotated
}

class SymsolversJacobiSize : public ::testing::TestWithParam<int>
{
};

// Eigenvalues against Eigen's SelfAdjointEigenSolver; eigenvectors by A v = lambda v and
// orthonormality.
TEST_P(SymsolversJacobiSize, MatchesEigenOnRandomSymmetricMatrices)
{
    const int n = GetParam();
    std::mt19937_64 engine(47110815 + n);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    for (int trial = 0; trial < 100; ++trial) {
        Eigen::MatrixXd m(n, n);
        for (int r = 0; r < n; ++r)
            for (int c = 0; c <= r; ++c)
                m(r, c) = m(c, r) = uniform(engine) * (trial % 3 == 0 ? 1000.0 : 1.0);
        std::vector<double> a = PackSymmetric(m), values(n), vectors(n * n), work(2 * n);
        ss::JacobiIteration(a.data(), values.data(), vectors.data(), n, 50, work.data());
        ss::SortEigenV(values.data(), vectors.data(), n, true);
        const Eigen::VectorXd expected = Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd>(m).eigenvalues();
        const double scale = m.cwiseAbs().maxCoeff();
        const Eigen::Map<Eigen::Matrix<double, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>> v(
            vectors.data(), n, n);
        for (int k = 0; k < n; ++k) {
            EXPECT_NEAR(values[k], expected[k], 1e-13 * scale * n) << "n " << n << " trial " << trial;
            EXPECT_LT((m * v.col(k) - values[k] * v.col(k)).norm(), 1e-12 * scale * n);
        }
        EXPECT_LT((v.transpose() * v - Eigen::MatrixXd::Identity(n, n)).norm(), 1e-13 * n);
    }
}

INSTANTIATE_TEST_SUITE_P(Sizes, SymsolversJacobiSize, ::testing::Values(3, 4, 6),
                         [](const auto& info) { return "n" + std::to_string(info.param); });

TEST(SymsolversSortEigenV, DescendingMovesTheColumnsAlong)
{
    double values[3] = {1, 3, 2};
    double vectors[9] = {1, 3, 2, 10, 30, 20, 100, 300, 200}; // column k tagged by values[k]
    ss::SortEigenV(values, vectors, 3, false);
    EXPECT_EQ(values[0], 3);
    EXPECT_EQ(values[1], 2);
    EXPECT_EQ(values[2], 1);
    for (int row = 0; row < 3; ++row)
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(vectors[row * 3 + k], values[k] * std::pow(10.0, row));
}

TEST(SymsolversSortEigenV, SortsLongListsLikeStdSortAndSurvivesNaN)
{
    std::mt19937_64 engine(47110815);
    std::uniform_int_distribution<int> pick(-20, 20);
    for (bool ascending : {true, false}) {
        std::vector<double> values(2000);
        for (double& v : values)
            v = pick(engine);
        std::vector<double> expected = values;
        if (ascending)
            std::sort(expected.begin(), expected.end());
        else
            std::sort(expected.begin(), expected.end(), std::greater<>());
        ss::SortEigenV(values.data(), nullptr, static_cast<int>(values.size()), ascending);
        EXPECT_EQ(values, expected);
    }
    // Already sorted input is the worst case of a first-element pivot; it must not overflow the stack.
    std::vector<double> sorted(5000);
    for (size_t i = 0; i < sorted.size(); ++i)
        sorted[i] = static_cast<double>(i);
    ss::SortEigenV(sorted.data(), nullptr, static_cast<int>(sorted.size()), true);
    EXPECT_TRUE(std::is_sorted(sorted.begin(), sorted.end()));

    double withNaN[5] = {2, kNaN, 1, kNaN, 0};
    ss::SortEigenV(withNaN, nullptr, 5, true); // terminates; the order is arbitrary
    EXPECT_EQ(std::count_if(withNaN, withNaN + 5, [](double v) { return std::isnan(v); }), 2);
}

TEST(SymsolversOrthonormalize, KeepsARotationAndRepairsANearRotation)
{
    std::mt19937_64 engine(47110815);
    std::normal_distribution<double> noise(0.0, 1e-3);
    for (int trial = 0; trial < 20; ++trial) {
        const Eigen::Matrix3d rot = RandomRotation(engine);
        double m[3][3];
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                m[i][j] = rot(i, j);
        ASSERT_TRUE(ss::Orthonormalize(m));
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                EXPECT_NEAR(m[i][j], rot(i, j), 1e-14);

        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                m[i][j] = rot(i, j) + noise(engine);
        ASSERT_TRUE(ss::Orthonormalize(m));
        const Eigen::Map<Eigen::Matrix<double, 3, 3, Eigen::RowMajor>> out(&m[0][0]);
        EXPECT_LT((out.transpose() * out - Eigen::Matrix3d::Identity()).norm(), 1e-14);
        EXPECT_NEAR(out.determinant(), 1.0, 1e-14);
        EXPECT_LT((out - rot).norm(), 1e-2);
    }
}

TEST(SymsolversOrthonormalize, ZeroColumnOrNullFailsAndLeavesTheMatrix)
{
    double m[3][3] = {{1, 0, 0}, {0, 0, 0}, {0, 0, 0}};
    EXPECT_FALSE(ss::Orthonormalize(m));
    EXPECT_EQ(m[0][0], 1);
    EXPECT_EQ(m[1][1], 0);
    EXPECT_FALSE(ss::Orthonormalize(nullptr));
}

namespace {

struct PlaneProblem
{
    std::vector<double> points, targets, normals, weights;
    int count = 0;
};

PlaneProblem MakePlaneProblem(std::mt19937_64& engine, int count)
{
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    PlaneProblem p;
    p.count = count;
    for (int i = 0; i < count; ++i) {
        Eigen::Vector3d n(uniform(engine), uniform(engine), uniform(engine));
        n.normalize();
        for (int c = 0; c < 3; ++c) {
            p.points.push_back(5 * uniform(engine));
            p.targets.push_back(5 * uniform(engine));
            p.normals.push_back(n[c]);
        }
        p.weights.push_back(0.5 + uniform(engine) * 0.4);
    }
    return p;
}

/// The rows a_i = (p x n, n) and right-hand sides (q - p) . n, scaled by sqrt(w_i).
void DenseSystem(const PlaneProblem& p, const double* weights, Eigen::MatrixXd& a, Eigen::VectorXd& b)
{
    a.resize(p.count, 6);
    b.resize(p.count);
    for (int i = 0; i < p.count; ++i) {
        const Eigen::Vector3d pt(&p.points[3 * i]), q(&p.targets[3 * i]), n(&p.normals[3 * i]);
        const double s = weights ? std::sqrt(weights[i]) : 1.0;
        a.row(i).head<3>() = s * pt.cross(n).transpose();
        a.row(i).tail<3>() = s * n.transpose();
        b[i] = s * (q - pt).dot(n);
    }
}

} // namespace

// Reference: the dense least-squares solution by Eigen's column-pivoting QR on the rows themselves.
TEST(SymsolversPointToPlane, MatchesADenseLeastSquaresSolve)
{
    std::mt19937_64 engine(47110815);
    for (int trial = 0; trial < 30; ++trial) {
        const PlaneProblem p = MakePlaneProblem(engine, 6 + trial * 3);
        for (bool weighted : {false, true}) {
            Eigen::MatrixXd a;
            Eigen::VectorXd b;
            DenseSystem(p, weighted ? p.weights.data() : nullptr, a, b);
            const Eigen::VectorXd expected = a.colPivHouseholderQr().solve(b);
            double r[3], t[3];
            if (weighted)
                ASSERT_TRUE(ss::PointToPlaneUpdateLS(p.points.data(), p.targets.data(), p.normals.data(),
                                                     p.weights.data(), r, t, p.count, false));
            else
                ASSERT_TRUE(ss::PointToPlaneUpdate(p.points.data(), p.targets.data(), p.normals.data(),
                                                   nullptr, r, t, p.count));
            const double scale = std::max(1.0, expected.cwiseAbs().maxCoeff());
            for (int k = 0; k < 3; ++k) {
                EXPECT_NEAR(r[k], expected[k], 1e-9 * scale) << "trial " << trial;
                EXPECT_NEAR(t[k], expected[3 + k], 1e-9 * scale) << "trial " << trial;
            }
        }
    }
}

TEST(SymsolversPointToPlane, UniformWeightOfTwoEqualsWeightOne)
{
    std::mt19937_64 engine(7);
    const PlaneProblem p = MakePlaneProblem(engine, 20);
    const double two = 2.0;
    double r1[3], t1[3], r2[3], t2[3], r3[3], t3[3];
    ASSERT_TRUE(ss::PointToPlaneUpdateLS(p.points.data(), p.targets.data(), p.normals.data(), nullptr, r1, t1,
                                         20, false));
    ASSERT_TRUE(ss::PointToPlaneUpdateLS(p.points.data(), p.targets.data(), p.normals.data(), &two, r2, t2,
                                         20, true));
    const double garbage = kNaN; // never read: the ignored pointer carries no weights
    ASSERT_TRUE(
        ss::PointToPlaneUpdate(p.points.data(), p.targets.data(), p.normals.data(), &garbage, r3, t3, 20));
    for (int k = 0; k < 3; ++k) {
        EXPECT_NEAR(r1[k], r2[k], 1e-13);
        EXPECT_NEAR(t1[k], t2[k], 1e-13);
        EXPECT_EQ(r1[k], r3[k]);
        EXPECT_EQ(t1[k], t3[k]);
    }
}

TEST(SymsolversPointToPlane, SingularSystemsAndBadArgumentsFailWithoutWriting)
{
    std::mt19937_64 engine(47110815);
    PlaneProblem p = MakePlaneProblem(engine, 12);
    for (int i = 0; i < p.count; ++i) { // one normal for all: rank 3 at most
        p.normals[3 * i] = 0;
        p.normals[3 * i + 1] = 0;
        p.normals[3 * i + 2] = 1;
    }
    double r[3] = {7, 7, 7}, t[3] = {7, 7, 7};
    EXPECT_FALSE(
        ss::PointToPlaneUpdate(p.points.data(), p.targets.data(), p.normals.data(), nullptr, r, t, 12));
    EXPECT_FALSE(
        ss::PointToPlaneUpdate(p.points.data(), p.targets.data(), p.normals.data(), nullptr, r, t, 0));
    EXPECT_FALSE(
        ss::PointToPlaneUpdateLS(nullptr, p.targets.data(), p.normals.data(), nullptr, r, t, 12, false));
    const std::vector<double> negative(12, -1.0);
    p = MakePlaneProblem(engine, 12);
    EXPECT_FALSE(ss::PointToPlaneUpdateLS(p.points.data(), p.targets.data(), p.normals.data(),
                                          negative.data(), r, t, 12, false));
    for (int k = 0; k < 3; ++k) {
        EXPECT_EQ(r[k], 7);
        EXPECT_EQ(t[k], 7);
    }
}

namespace {

/// R = Rz(angles[2]) Ry(angles[1]) Rx(angles[0]), by Eigen's angle-axis products.
Eigen::Matrix3d EulerRotation(double roll, double pitch, double yaw)
{
    return (Eigen::AngleAxisd(yaw, Eigen::Vector3d::UnitZ()) *
            Eigen::AngleAxisd(pitch, Eigen::Vector3d::UnitY()) *
            Eigen::AngleAxisd(roll, Eigen::Vector3d::UnitX()))
        .toRotationMatrix();
}

/// Residual of one pair for the variables x = (t0, t1, t2, yaw, pitch, roll) and z = (p, q).
double Residual(const Eigen::Matrix<double, 6, 1>& x, const Eigen::Matrix<double, 6, 1>& z,
                const Eigen::Vector3d& n)
{
    const Eigen::Matrix3d r = EulerRotation(x[5], x[4], x[3]);
    return (r * z.head<3>() + x.head<3>() - z.tail<3>()).dot(n);
}

Eigen::Matrix<double, 6, 6> Unpack6(const double* packed)
{
    Eigen::Matrix<double, 6, 6> m;
    for (int r = 0; r < 6; ++r)
        for (int c = 0; c < 6; ++c)
            m(r, c) = packed[Packed(r, c)];
    return m;
}

} // namespace

// At an exact alignment the residuals vanish, H = 2 sum(a a^T) and P = 4 H for unit normals, so
// the covariance is 2 (sum a a^T)^-1 with a = de/dx.
TEST(SymsolversPointToPlaneCovariance, ExactAlignmentGivesTwiceTheInverseNormalMatrix)
{
    std::mt19937_64 engine(47110815);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    const double angles[3] = {0.2, -0.1, 0.3}, translation[3] = {1, 2, 3};
    const Eigen::Matrix3d r = EulerRotation(angles[0], angles[1], angles[2]);
    const int count = 40;
    std::vector<double> points, targets, normals;
    Eigen::Matrix<double, 6, 6> normal = Eigen::Matrix<double, 6, 6>::Zero();
    for (int i = 0; i < count; ++i) {
        const Eigen::Vector3d p(3 * uniform(engine), 3 * uniform(engine), 3 * uniform(engine));
        const Eigen::Vector3d n =
            Eigen::Vector3d(uniform(engine), uniform(engine), uniform(engine)).normalized();
        const Eigen::Vector3d q = r * p + Eigen::Vector3d(1, 2, 3);
        points.insert(points.end(), p.data(), p.data() + 3);
        targets.insert(targets.end(), q.data(), q.data() + 3);
        normals.insert(normals.end(), n.data(), n.data() + 3);
        Eigen::Matrix<double, 6, 1> x, z, a;
        x << 1, 2, 3, angles[2], angles[1], angles[0];
        z << p, q;
        const double h = 1e-6;
        for (int j = 0; j < 6; ++j) { // central differences, exact enough for a linear-in-t residual
            Eigen::Matrix<double, 6, 1> up = x, down = x;
            up[j] += h;
            down[j] -= h;
            a[j] = (Residual(up, z, n) - Residual(down, z, n)) / (2 * h);
        }
        normal += a * a.transpose();
    }
    double cov[21];
    ASSERT_TRUE(ss::PointToPlaneCovariance(points.data(), targets.data(), normals.data(), angles, translation,
                                           count, cov));
    const Eigen::Matrix<double, 6, 6> expected = 2.0 * normal.inverse();
    const Eigen::Matrix<double, 6, 6> actual = Unpack6(cov);
    EXPECT_LT((actual - expected).norm(), 1e-7 * expected.norm()) << actual << "\n\n" << expected;
}

// Away from an alignment the second-order terms count; the reference forms H and the mixed
// blocks by central differences of the squared residuals and inverts H with Eigen.
TEST(SymsolversPointToPlaneCovariance, MatchesFiniteDifferencesWithResiduals)
{
    std::mt19937_64 engine(4711);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    const double angles[3] = {0.4, 0.25, -0.6}, translation[3] = {-0.5, 0.1, 0.7};
    const int count = 25;
    std::vector<double> points, targets, normals;
    for (int i = 0; i < 3 * count; ++i) {
        points.push_back(2 * uniform(engine));
        targets.push_back(2 * uniform(engine));
    }
    for (int i = 0; i < count; ++i) {
        const Eigen::Vector3d n =
            Eigen::Vector3d(uniform(engine), uniform(engine), uniform(engine)).normalized();
        normals.insert(normals.end(), n.data(), n.data() + 3);
    }
    Eigen::Matrix<double, 6, 1> x;
    x << translation[0], translation[1], translation[2], angles[2], angles[1], angles[0];
    Eigen::Matrix<double, 6, 6> hessian = Eigen::Matrix<double, 6, 6>::Zero(), p = hessian;
    const double h = 1e-4;
    for (int i = 0; i < count; ++i) {
        Eigen::Matrix<double, 6, 1> z;
        z << Eigen::Vector3d(&points[3 * i]), Eigen::Vector3d(&targets[3 * i]);
        const Eigen::Vector3d n(&normals[3 * i]);
        auto e2 = [&](const Eigen::Matrix<double, 6, 1>& xv, const Eigen::Matrix<double, 6, 1>& zv) {
            const double e = Residual(xv, zv, n);
            return e * e;
        };
        for (int j = 0; j < 6; ++j)
            for (int k = 0; k < 6; ++k) {
                Eigen::Matrix<double, 6, 1> pp = x, pm = x, mp = x, mm = x;
                pp[j] += h, pp[k] += h, pm[j] += h, pm[k] -= h, mp[j] -= h, mp[k] += h, mm[j] -= h,
                    mm[k] -= h;
                hessian(j, k) += (e2(pp, z) - e2(pm, z) - e2(mp, z) + e2(mm, z)) / (4 * h * h);
            }
        Eigen::Matrix<double, 6, 6> block;
        for (int m = 0; m < 6; ++m)
            for (int j = 0; j < 6; ++j) {
                auto shifted = [&](double dz, double dx) {
                    Eigen::Matrix<double, 6, 1> zz = z, xx = x;
                    zz[m] += dz;
                    xx[j] += dx;
                    return e2(xx, zz);
                };
                block(m, j) =
                    (shifted(h, h) - shifted(h, -h) - shifted(-h, h) + shifted(-h, -h)) / (4 * h * h);
            }
        p += block.transpose() * block;
    }
    const Eigen::Matrix<double, 6, 6> g = hessian.inverse();
    const Eigen::Matrix<double, 6, 6> expected = g * p * g;
    double cov[21];
    ASSERT_TRUE(ss::PointToPlaneCovariance(points.data(), targets.data(), normals.data(), angles, translation,
                                           count, cov));
    EXPECT_LT((Unpack6(cov) - expected).norm(), 1e-5 * expected.norm()) << Unpack6(cov) << "\n\n" << expected;
}

TEST(SymsolversPointToPlaneCovariance, SingularHessianOrBadArgumentsLeaveTheOutput)
{
    // All normals along z: rotation about z and translation in x, y are unobservable.
    const double points[9] = {0, 0, 0, 1, 0, 0, 0, 1, 0};
    const double normals[9] = {0, 0, 1, 0, 0, 1, 0, 0, 1};
    const double angles[3] = {0, 0, 0}, t[3] = {0, 0, 0};
    double cov[21];
    std::fill(cov, cov + 21, 7.0);
    EXPECT_FALSE(ss::PointToPlaneCovariance(points, points, normals, angles, t, 3, cov));
    EXPECT_FALSE(ss::PointToPlaneCovariance(points, points, normals, angles, t, 0, cov));
    EXPECT_FALSE(ss::PointToPlaneCovariance(points, points, nullptr, angles, t, 3, cov));
    const double nanAngles[3] = {kNaN, 0, 0};
    EXPECT_FALSE(ss::PointToPlaneCovariance(points, points, normals, nanAngles, t, 3, cov));
    for (double v : cov)
        EXPECT_EQ(v, 7.0);
}
