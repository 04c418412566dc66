#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <vector>

#include "datalayer/algorithms/numeric/cpmatrix.h"
#include "datalayer/algorithms/numeric/lapack.h"
#include "datalayer/algorithms/numeric/tmatrix.h"
#include "test_support.h"

namespace lapack = DataLayer::lapack;
using DataLayer::CPMatrix;

namespace {

template <typename T> using EMatrix = Eigen::Matrix<T, Eigen::Dynamic, Eigen::Dynamic>;
template <typename T> using EVector = Eigen::Matrix<T, Eigen::Dynamic, 1>;

template <typename T> EMatrix<T> ToEigen(const TMatrix<T>& a)
{
    return Eigen::Map<const EMatrix<T>>(a.Data(), a.Rows(), a.Cols());
}

template <typename T> EVector<T> ToEigen(const TVector<T>& v)
{
    return Eigen::Map<const EVector<T>>(v.Data(), v.Size());
}

template <typename T> TMatrix<T> FromEigen(const EMatrix<T>& e)
{
    TMatrix<T> a(static_cast<int>(e.rows()), static_cast<int>(e.cols()));
    Eigen::Map<EMatrix<T>>(a.Data(), a.Rows(), a.Cols()) = e;
    return a;
}

template <typename T> TVector<T> FromEigen(const EVector<T>& e)
{
    TVector<T> v(static_cast<int>(e.size()));
    Eigen::Map<EVector<T>>(v.Data(), v.Size()) = e;
    return v;
}

/// Uniform values in [-1, 1], drawn in double and rounded to T.
template <typename T> TMatrix<T> Random(std::mt19937_64& engine, int rows, int cols)
{
    return FromEigen<T>(EMatrix<T>(ToEigen(vorn2test::RandomMatrix(engine, rows, cols)).template cast<T>()));
}

template <typename T> TVector<T> RandomVec(std::mt19937_64& engine, int n)
{
    return FromEigen<T>(EVector<T>(ToEigen(vorn2test::RandomVector(engine, n)).template cast<T>()));
}

/// m x n with random first `rank` columns and zero columns behind them: exactly rank-deficient in
/// a way that the bidiagonalisation keeps exact (its singular values beyond `rank` come out 0), so
/// that the rank decision at machine precision can't go either way.
template <typename T>
TMatrix<T> RandomWithZeroTrailingColumns(std::mt19937_64& engine, int m, int n, int rank)
{
    TMatrix<T> a(m, n);
    const TMatrix<T> lead = Random<T>(engine, m, rank);
    std::copy(lead.Data(), lead.Data() + static_cast<long long>(m) * rank, a.Data());
    return a;
}

template <typename T> constexpr double Eps()
{
    return std::numeric_limits<T>::epsilon();
}

/// Condition number sigma_max / sigma_min in double precision, from Eigen.
template <typename T> double EigenCond(const TMatrix<T>& a)
{
    const Eigen::VectorXd s =
        Eigen::JacobiSVD<Eigen::MatrixXd>(ToEigen(a).template cast<double>()).singularValues();
    return s(0) / s(s.size() - 1);
}

template <typename T> bool BitEqual(const TMatrix<T>& a, const TMatrix<T>& b)
{
    return a.Rows() == b.Rows() && a.Cols() == b.Cols() &&
           std::equal(a.Data(), a.Data() + a.Rows() * a.Cols(), b.Data());
}

template <typename T> bool BitEqual(const TVector<T>& a, const TVector<T>& b)
{
    return a.Size() == b.Size() && std::equal(a.Data(), a.Data() + a.Size(), b.Data());
}

/// Full-rank square and overdetermined systems against Eigen's QR solution of the same (rounded)
/// data, computed in double.
template <typename T> void CheckFullRankAgainstEigen(int m, int n, std::uint64_t seed)
{
    std::mt19937_64 engine(seed);
    for (int trial = 0; trial < 10; ++trial) {
        const TMatrix<T> a = Random<T>(engine, m, n);
        const TVector<T> b = RandomVec<T>(engine, m);
        const Eigen::MatrixXd ea = ToEigen(a).template cast<double>();
        const Eigen::VectorXd expected = ea.colPivHouseholderQr().solve(ToEigen(b).template cast<double>());
        const double cond = EigenCond(a);

        TMatrix<T> work(a);
        TVector<T> x(n);
        T c = -1;
        ASSERT_TRUE(lapack::lssolve(work, b, x, &c));
        // Least squares is backward stable: the forward error is bounded by a small multiple of
        // eps * cond (square) or eps * cond^2 (with a residual); 50 covers the constants.
        const double tolerance = 50 * Eps<T>() * cond * cond * expected.norm();
        EXPECT_LE((ToEigen(x).template cast<double>() - expected).norm(), tolerance)
            << m << " x " << n << " trial " << trial << " cond " << cond;
        // sigma_min carries an absolute error of about eps * sigma_max, i.e. eps * cond relative.
        EXPECT_NEAR(c, cond, 20 * Eps<T>() * cond * cond);
    }
}

/// Minimum-norm solutions of rank-deficient systems against Eigen's complete orthogonal
/// decomposition and its SVD solve.
template <typename T> void CheckRankDeficientAgainstMinimumNorm(int m, int n, int rank, std::uint64_t seed)
{
    std::mt19937_64 engine(seed);
    for (int trial = 0; trial < 10; ++trial) {
        const TMatrix<T> a = RandomWithZeroTrailingColumns<T>(engine, m, n, rank);
        const TVector<T> b = RandomVec<T>(engine, m); // not in the range: a true least-squares problem
        const Eigen::MatrixXd ea = ToEigen(a).template cast<double>();
        const Eigen::VectorXd eb = ToEigen(b).template cast<double>();
        const Eigen::VectorXd cod = ea.completeOrthogonalDecomposition().solve(eb);
        const Eigen::VectorXd svd = ea.jacobiSvd(Eigen::ComputeThinU | Eigen::ComputeThinV).solve(eb);
        const Eigen::VectorXd sigma = Eigen::JacobiSVD<Eigen::MatrixXd>(ea).singularValues();
        const double condOfRange = sigma(0) / sigma(rank - 1);

        TMatrix<T> work(a);
        TVector<T> x(n);
        T c = 0;
        ASSERT_TRUE(lapack::lssolve(work, b, x, &c));
        const Eigen::VectorXd ours = ToEigen(x).template cast<double>();
        // Same bound as the full-rank case, on the condition of the non-zero part.
        const double tolerance = 50 * Eps<T>() * condOfRange * condOfRange * cod.norm();
        EXPECT_LE((ours - cod).norm(), tolerance) << m << " x " << n << " rank " << rank;
        EXPECT_LE((ours - svd).norm(), tolerance) << m << " x " << n << " rank " << rank;
        // The minimum-norm solution has nothing in the null space.
        for (int j = rank; j < n; ++j)
            EXPECT_EQ(x[j], T(0));
        EXPECT_TRUE(std::isinf(c) || c > 1 / Eps<T>()) << "cond " << c;
    }
}

} // namespace

TEST(Lapack, LssolveFullRankSquareAndOverdeterminedMatchEigenInDouble)
{
    CheckFullRankAgainstEigen<double>(6, 6, 101);
    CheckFullRankAgainstEigen<double>(60, 6, 102);
    CheckFullRankAgainstEigen<double>(9, 4, 103);
}

TEST(Lapack, LssolveFullRankSquareAndOverdeterminedMatchEigenInFloat)
{
    CheckFullRankAgainstEigen<float>(6, 6, 104);
    CheckFullRankAgainstEigen<float>(60, 6, 105);
}

TEST(Lapack, LssolveRankDeficientGivesMinimumNormSolution)
{
    CheckRankDeficientAgainstMinimumNorm<double>(8, 8, 5, 111);
    CheckRankDeficientAgainstMinimumNorm<double>(20, 6, 4, 112);
    CheckRankDeficientAgainstMinimumNorm<double>(200, 6, 3, 113);
    CheckRankDeficientAgainstMinimumNorm<float>(8, 8, 5, 114);
    CheckRankDeficientAgainstMinimumNorm<float>(20, 6, 4, 115);
}

TEST(Lapack, LssolveUnderdeterminedGivesMinimumNormSolution)
{
    // Full row rank m < n: infinitely many exact solutions; the one of least norm is A^T (A A^T)^-1 b.
    std::mt19937_64 engine(116);
    for (int trial = 0; trial < 10; ++trial) {
        const TMatrix<double> a = vorn2test::RandomMatrix(engine, 4, 9);
        const TVector<double> b = vorn2test::RandomVector(engine, 4);
        const Eigen::MatrixXd ea = ToEigen(a);
        const Eigen::VectorXd expected = ea.transpose() * (ea * ea.transpose()).ldlt().solve(ToEigen(b));
        TMatrix<double> work(a);
        TVector<double> x(9);
        ASSERT_TRUE(lapack::lssolve(work, b, x, nullptr));
        const double cond = EigenCond(a);
        // Backward-stable solve: eps * cond^2 with a margin for the constants.
        EXPECT_LE((ToEigen(x) - expected).norm(), 50 * Eps<double>() * cond * cond * expected.norm());
        EXPECT_LE((ea * ToEigen(x) - ToEigen(b)).norm(), 1e-13); // it solves the system exactly
    }
}

TEST(Lapack, LssolveMatrixRightHandSidesSolveEachColumn)
{
    std::mt19937_64 engine(117);
    for (const auto& [m, n] : std::vector<std::pair<int, int>>{{6, 6}, {60, 6}, {4, 7}}) {
        const TMatrix<double> a = vorn2test::RandomMatrix(engine, m, n);
        const TMatrix<double> b = vorn2test::RandomMatrix(engine, m, 3);
        const Eigen::MatrixXd expected = ToEigen(a).completeOrthogonalDecomposition().solve(ToEigen(b));
        TMatrix<double> work(a);
        TMatrix<double> x(n, 3);
        double c = 0;
        ASSERT_TRUE(lapack::lssolve(work, b, x, &c));
        const double cond = EigenCond(a);
        EXPECT_LE((ToEigen(x) - expected).norm(), 50 * Eps<double>() * cond * cond * expected.norm());
        EXPECT_NEAR(c, cond, 1e-12 * cond);

        // Column by column through the vector form: the same problem.
        for (int k = 0; k < 3; ++k) {
            TMatrix<double> single(a);
            TVector<double> bk(m), xk(n);
            for (int i = 0; i < m; ++i)
                bk[i] = b(i, k);
            ASSERT_TRUE(lapack::lssolve(single, bk, xk, nullptr));
            for (int j = 0; j < n; ++j)
                EXPECT_NEAR(x(j, k), xk[j], 1e-13);
        }
    }

    // Float likewise, against the double solution of the rounded data.
    const TMatrix<float> af = Random<float>(engine, 10, 4);
    const TMatrix<float> bf = Random<float>(engine, 10, 2);
    const Eigen::MatrixXd expected =
        ToEigen(af).cast<double>().colPivHouseholderQr().solve(ToEigen(bf).cast<double>());
    TMatrix<float> work(af);
    TMatrix<float> xf(4, 2);
    ASSERT_TRUE(lapack::lssolve(work, bf, xf, nullptr));
    const double cond = EigenCond(af);
    EXPECT_LE((ToEigen(xf).cast<double>() - expected).norm(),
              50 * Eps<float>() * cond * cond * expected.norm());
}

TEST(Lapack, LssolveNullCondSucceedsWithTheSameSolution)
{
    std::mt19937_64 engine(118);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 7, 5);
    const TVector<double> b = vorn2test::RandomVector(engine, 7);
    TMatrix<double> a1(a), a2(a);
    TVector<double> x1(5), x2(5);
    double c = 0;
    ASSERT_TRUE(lapack::lssolve(a1, b, x1, &c));
    ASSERT_TRUE(lapack::lssolve(a2, b, x2, nullptr));
    EXPECT_TRUE(BitEqual(x1, x2));
}

TEST(Lapack, LssolveCondOfSingularMatrixIsHugeOrInfinite)
{
    TMatrix<double> a(2, 2);
    a(0, 0) = 1;
    a(0, 1) = 2;
    a(1, 0) = 2;
    a(1, 1) = 4;
    TVector<double> b(2);
    b[0] = 1;
    b[1] = 2;
    TVector<double> x(2);
    double c = 0;
    ASSERT_TRUE(lapack::lssolve(a, b, x, &c));
    EXPECT_TRUE(std::isinf(c) || c > 1e15) << c;
    // b lies in the range; the minimum-norm solution is (1, 2) / 5. Error about eps / sigma_min.
    EXPECT_NEAR(x[0], 0.2, 1e-14);
    EXPECT_NEAR(x[1], 0.4, 1e-14);

    // All zero: the solution is zero, and cond is 0 / 0.
    TMatrix<float> zero(3, 3);
    TVector<float> bz(3);
    bz[0] = 1;
    TVector<float> xz(3);
    xz[1] = 5;
    float cz = 0;
    ASSERT_TRUE(lapack::lssolve(zero, bz, xz, &cz));
    EXPECT_TRUE(std::isnan(cz));
    EXPECT_EQ(ToEigen(xz), Eigen::VectorXf::Zero(3));
}

TEST(Lapack, LssolveWrongSizesReturnFalseAndTouchNothing)
{
    std::mt19937_64 engine(119);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 5, 3);
    const TVector<double> x0 = vorn2test::RandomVector(engine, 3);
    struct Case
    {
        int bSize, xSize;
    };
    for (const Case& k : {Case{4, 3}, Case{6, 3}, Case{5, 2}, Case{5, 4}, Case{3, 5}}) {
        TMatrix<double> work(a);
        TVector<double> b(k.bSize);
        TVector<double> x = k.xSize == 3 ? x0 : vorn2test::RandomVector(engine, k.xSize);
        const TVector<double> xBefore(x);
        double c = 42;
        EXPECT_FALSE(lapack::lssolve(work, b, x, &c)) << k.bSize << ", " << k.xSize;
        EXPECT_TRUE(BitEqual(work, a));
        EXPECT_TRUE(BitEqual(x, xBefore));
        EXPECT_EQ(c, 42);
    }

    struct MatrixCase
    {
        int bRows, bCols, xRows, xCols;
    };
    for (const MatrixCase& k :
         {MatrixCase{4, 2, 3, 2}, MatrixCase{5, 2, 3, 3}, MatrixCase{5, 2, 4, 2}, MatrixCase{5, 3, 3, 2}}) {
        TMatrix<double> work(a);
        const TMatrix<double> b = vorn2test::RandomMatrix(engine, k.bRows, k.bCols);
        TMatrix<double> x = vorn2test::RandomMatrix(engine, k.xRows, k.xCols);
        const TMatrix<double> xBefore(x);
        double c = 42;
        EXPECT_FALSE(lapack::lssolve(work, b, x, &c));
        EXPECT_TRUE(BitEqual(work, a));
        EXPECT_TRUE(BitEqual(x, xBefore));
        EXPECT_EQ(c, 42);
    }

    // Float: the same guard.
    TMatrix<float> af = Random<float>(engine, 3, 3);
    const TMatrix<float> afBefore(af);
    TVector<float> bf(2), xf(3);
    EXPECT_FALSE(lapack::lssolve(af, bf, xf, nullptr));
    EXPECT_TRUE(BitEqual(af, afBefore));
}

TEST(Lapack, LssolveOnEmptyProblemReturnsFalse)
{
    TMatrix<double> noRows(0, 3);
    TVector<double> b0(0), x3(3);
    double c = 42;
    EXPECT_FALSE(lapack::lssolve(noRows, b0, x3, &c));
    TMatrix<double> noCols(3, 0);
    TVector<double> b3(3), x0(0);
    EXPECT_FALSE(lapack::lssolve(noCols, b3, x0, &c));
    TMatrix<float> none;
    TMatrix<float> B, X;
    float cf = 42;
    EXPECT_FALSE(lapack::lssolve(none, B, X, &cf));
    EXPECT_EQ(c, 42);
    EXPECT_EQ(cf, 42);
}

namespace {

template <typename T> void CheckSvd(int m, int n, std::uint64_t seed)
{
    std::mt19937_64 engine(seed);
    const TMatrix<T> a = Random<T>(engine, m, n);
    TMatrix<T> work(a), u(m, m), vt(n, n);
    TVector<T> s(std::min(m, n));
    ASSERT_TRUE(lapack::svd(work, u, s, vt));

    // Backward-stable: errors of a few eps times ||A|| (<= sqrt(m n)) per entry.
    const double tolerance = 30 * Eps<T>() * std::sqrt(double(m) * n);
    EMatrix<T> sigma = EMatrix<T>::Zero(m, n);
    for (int i = 0; i < s.Size(); ++i)
        sigma(i, i) = s[i];
    EXPECT_LE((ToEigen(u) * sigma * ToEigen(vt) - ToEigen(a)).cwiseAbs().maxCoeff(), tolerance);
    EXPECT_LE((ToEigen(u).transpose() * ToEigen(u) - EMatrix<T>::Identity(m, m)).cwiseAbs().maxCoeff(),
              tolerance);
    EXPECT_LE((ToEigen(vt) * ToEigen(vt).transpose() - EMatrix<T>::Identity(n, n)).cwiseAbs().maxCoeff(),
              tolerance);
    for (int i = 1; i < s.Size(); ++i)
        EXPECT_GE(s[i - 1], s[i]);
    EXPECT_GE(s[s.Size() - 1], T(0));
    const Eigen::VectorXd expected =
        Eigen::JacobiSVD<Eigen::MatrixXd>(ToEigen(a).template cast<double>()).singularValues();
    EXPECT_LE((ToEigen(s).template cast<double>() - expected).cwiseAbs().maxCoeff(), tolerance);
}

} // namespace

TEST(Lapack, SvdReconstructsWithDescendingValuesAndOrthogonalFactors)
{
    CheckSvd<double>(7, 4, 201);
    CheckSvd<double>(4, 7, 202);
    CheckSvd<double>(5, 5, 203);
    CheckSvd<float>(7, 4, 204);
    CheckSvd<float>(4, 7, 205);
    CheckSvd<float>(1, 1, 206);
}

TEST(Lapack, SvdWrongShapesReturnFalseAndKeepA)
{
    std::mt19937_64 engine(207);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 5, 3);
    struct Case
    {
        int uRows, uCols, sSize, vtRows, vtCols;
    };
    for (const Case& k : {Case{5, 3, 3, 3, 3}, Case{3, 5, 3, 3, 3}, Case{5, 5, 5, 3, 3}, Case{5, 5, 3, 3, 5},
                          Case{5, 5, 3, 5, 3}, Case{5, 5, 2, 3, 3}}) {
        TMatrix<double> work(a), u(k.uRows, k.uCols), vt(k.vtRows, k.vtCols);
        TVector<double> s(k.sSize);
        EXPECT_FALSE(lapack::svd(work, u, s, vt));
        EXPECT_TRUE(BitEqual(work, a));
    }
    TMatrix<float> f(0, 2), uf(0, 0), vtf(2, 2);
    TVector<float> sf(0);
    EXPECT_FALSE(lapack::svd(f, uf, sf, vtf));
}

namespace {

struct QrpResult
{
    TMatrix<double> q, r;
    CPMatrix p;
};

/// Runs qrp on a copy of a with the given column flags and checks A P = Q R, Q orthogonal and R
/// upper triangular.
QrpResult CheckedQrp(const TMatrix<double>& a, const CPMatrix& flags)
{
    const int m = a.Rows();
    const int n = a.Cols();
    QrpResult res{TMatrix<double>(m, m), TMatrix<double>(m, n), flags};
    TMatrix<double> work(a);
    EXPECT_TRUE(lapack::qrp(work, res.q, res.r, res.p));

    // Entries of A are at most 1 and the sizes small: products are exact to a few eps.
    const double tolerance = 1e-12;
    Eigen::MatrixXd ap(m, n);
    for (int j = 0; j < n; ++j) {
        EXPECT_GE(res.p[j], 0);
        EXPECT_LT(res.p[j], n);
        ap.col(j) = ToEigen(a).col(std::clamp(res.p[j], 0, n - 1));
    }
    std::vector<int> sorted(res.p.Data(), res.p.Data() + n);
    std::sort(sorted.begin(), sorted.end());
    for (int j = 0; j < n; ++j)
        EXPECT_EQ(sorted[j], j) << "P is no permutation";
    EXPECT_LE((ToEigen(res.q) * ToEigen(res.r) - ap).cwiseAbs().maxCoeff(), tolerance);
    EXPECT_LE(
        (ToEigen(res.q).transpose() * ToEigen(res.q) - Eigen::MatrixXd::Identity(m, m)).cwiseAbs().maxCoeff(),
        tolerance);
    for (int j = 0; j < n; ++j)
        for (int i = j + 1; i < m; ++i)
            EXPECT_EQ(res.r(i, j), 0.0);
    return res;
}

} // namespace

TEST(Lapack, QrpFullPivotingFactorsAndMatchesEigenColumnOrder)
{
    std::mt19937_64 engine(301);
    for (const auto& [m, n] : std::vector<std::pair<int, int>>{{6, 4}, {4, 6}, {5, 5}, {1, 3}, {3, 1}}) {
        const TMatrix<double> a = vorn2test::RandomMatrix(engine, m, n);
        CPMatrix free(n);
        for (int j = 0; j < n; ++j)
            free[j] = 0;
        const QrpResult res = CheckedQrp(a, free);
        // Column pivoting leaves |R(i, i)| non-increasing.
        for (int i = 1; i < std::min(m, n); ++i)
            EXPECT_GE(std::abs(res.r(i - 1, i - 1)), std::abs(res.r(i, i)));
        // Both pick the column of largest remaining norm; on random data there are no ties.
        const Eigen::ColPivHouseholderQR<Eigen::MatrixXd> eigen(ToEigen(a));
        for (int j = 0; j < std::min(m, n); ++j)
            EXPECT_EQ(res.p[j], eigen.colsPermutation().indices()(j)) << m << " x " << n << " position " << j;
    }
}

TEST(Lapack, QrpWithAllFlagsSetDoesNotPivot)
{
    std::mt19937_64 engine(302);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 6, 4);
    CPMatrix fixed(4);
    for (int j = 0; j < 4; ++j)
        fixed[j] = 1;
    const QrpResult res = CheckedQrp(a, fixed);
    for (int j = 0; j < 4; ++j)
        EXPECT_EQ(res.p[j], j);
    // Without pivoting R is that of the plain Householder QR, up to the signs of its rows.
    const Eigen::MatrixXd eigenR =
        ToEigen(a).householderQr().matrixQR().triangularView<Eigen::Upper>().toDenseMatrix().topRows(4);
    for (int i = 0; i < 4; ++i)
        EXPECT_NEAR(std::abs(res.r(i, i)), std::abs(eigenR(i, i)), 1e-13);
}

TEST(Lapack, QrpWithDefaultFlagsFreesOnlyColumnZero)
{
    std::mt19937_64 engine(303);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 5, 5);
    // A fresh CPMatrix holds 0, 1, 2, ...: columns 1.. are fixed at the front, column 0 comes last.
    const QrpResult res = CheckedQrp(a, CPMatrix(5));
    EXPECT_EQ(res.p[4], 0);
    for (int j = 0; j < 4; ++j)
        EXPECT_EQ(res.p[j], j + 1);
}

TEST(Lapack, QrpWrongShapesReturnFalseAndKeepArguments)
{
    std::mt19937_64 engine(304);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 4, 3);
    struct Case
    {
        int qRows, qCols, rRows, rCols, pSize;
    };
    for (const Case& k : {Case{3, 3, 4, 3, 3}, Case{4, 3, 4, 3, 3}, Case{4, 4, 3, 3, 3}, Case{4, 4, 4, 4, 3},
                          Case{4, 4, 4, 3, 2}, Case{4, 4, 4, 3, 4}}) {
        TMatrix<double> work(a), q(k.qRows, k.qCols), r(k.rRows, k.rCols);
        CPMatrix p(k.pSize);
        EXPECT_FALSE(lapack::qrp(work, q, r, p));
        EXPECT_TRUE(BitEqual(work, a));
        for (int j = 0; j < k.pSize; ++j)
            EXPECT_EQ(p[j], j);
    }
    TMatrix<double> empty(0, 2), q0(0, 0), r0(0, 2);
    CPMatrix p2(2);
    EXPECT_FALSE(lapack::qrp(empty, q0, r0, p2));
}

namespace {

/// Checks that every x = K(:, 0) + K(:, 1..) z solves A x = b, for several random z, and that the
/// null-space columns are independent.
void ExpectKernelDescribesAllSolutions(const TMatrix<double>& a, const TVector<double>& b,
                                       const TMatrix<double>& k, int rank, std::mt19937_64& engine)
{
    const int n = a.Cols();
    ASSERT_EQ(k.Rows(), n);
    ASSERT_EQ(k.Cols(), n - rank + 1);
    const Eigen::MatrixXd ek = ToEigen(k);
    const Eigen::MatrixXd ea = ToEigen(a);
    // Entries of A, b and z are at most 1; the back-substitution on a well-conditioned triangle
    // loses a few digits at most.
    const double tolerance = 1e-10;
    for (int trial = 0; trial < 5; ++trial) {
        const Eigen::VectorXd z = 10 * ToEigen(vorn2test::RandomVector(engine, n - rank));
        const Eigen::VectorXd x = ek.col(0) + ek.rightCols(n - rank) * z;
        EXPECT_LE((ea * x - ToEigen(b)).cwiseAbs().maxCoeff(), tolerance);
    }
    if (n > rank) {
        EXPECT_LE((ea * ek.rightCols(n - rank)).cwiseAbs().maxCoeff(), tolerance);
        EXPECT_EQ(ek.rightCols(n - rank).fullPivLu().rank(), n - rank);
    }
}

} // namespace

TEST(Lapack, QrpKernelOfFullRowRankMatrixSpansAllSolutions)
{
    std::mt19937_64 engine(401);
    for (int trial = 0; trial < 5; ++trial) {
        const TMatrix<double> a = vorn2test::RandomMatrix(engine, 3, 7);
        const TVector<double> b = vorn2test::RandomVector(engine, 3); // full row rank: any b is in range
        TMatrix<double> work(a);
        TVector<double> bw(b);
        CPMatrix p(7);
        const TMatrix<double> k = lapack::qrp_kernel(work, bw, p);
        ExpectKernelDescribesAllSolutions(a, b, k, 3, engine);
    }
}

TEST(Lapack, QrpKernelOfRankDeficientMatrixSpansAllSolutions)
{
    std::mt19937_64 engine(402);
    for (const auto& [m, n, rank] : std::vector<std::tuple<int, int, int>>{{5, 7, 3}, {6, 4, 2}, {4, 4, 3}}) {
        const TMatrix<double> a =
            vorn2test::RandomMatrix(engine, m, rank) * vorn2test::RandomMatrix(engine, rank, n);
        const TVector<double> b = a * vorn2test::RandomVector(engine, n); // in the range
        TMatrix<double> work(a);
        TVector<double> bw(b);
        CPMatrix p(n);
        for (int j = 0; j < n; ++j)
            p[j] = 1; // every column free to be chosen
        const TMatrix<double> k = lapack::qrp_kernel(work, bw, p);
        ExpectKernelDescribesAllSolutions(a, b, k, rank, engine);
    }
}

TEST(Lapack, QrpKernelOfFullColumnRankGivesTheUniqueSolution)
{
    std::mt19937_64 engine(403);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 6, 3);
    const TVector<double> x0 = vorn2test::RandomVector(engine, 3);
    TVector<double> b = a * x0;
    TMatrix<double> work(a);
    CPMatrix p(3);
    const TMatrix<double> k = lapack::qrp_kernel(work, b, p);
    ASSERT_EQ(k.Rows(), 3);
    ASSERT_EQ(k.Cols(), 1);
    for (int j = 0; j < 3; ++j)
        EXPECT_NEAR(k(j, 0), x0[j], 1e-12);
}

TEST(Lapack, QrpKernelZeroFlagForcesColumnIntoDependentGroup)
{
    std::mt19937_64 engine(404);
    const TMatrix<double> a = vorn2test::RandomMatrix(engine, 2, 6);
    const TVector<double> b = vorn2test::RandomVector(engine, 2);
    TMatrix<double> work(a);
    TVector<double> bw(b);
    CPMatrix p(6);
    for (int j = 0; j < 6; ++j)
        p[j] = j == 2 || j == 4 ? 0 : 1;
    const TMatrix<double> k = lapack::qrp_kernel(work, bw, p);
    ExpectKernelDescribesAllSolutions(a, b, k, 2, engine);
    // Columns 2 and 4 lead; every other column is a free parameter: the particular solution is 0
    // there and the null-space block is the identity on them.
    EXPECT_EQ(std::min(p[0], p[1]), 2);
    EXPECT_EQ(std::max(p[0], p[1]), 4);
    for (int j = 0; j < 4; ++j) {
        EXPECT_EQ(k(p[2 + j], 0), 0.0);
        for (int c = 0; c < 4; ++c)
            EXPECT_EQ(k(p[2 + j], 1 + c), c == j ? 1.0 : 0.0);
    }
}

TEST(Lapack, QrpKernelFailureReturnsMatrixWithoutRows)
{
    std::mt19937_64 engine(405);
    TMatrix<double> a = vorn2test::RandomMatrix(engine, 3, 5);
    TVector<double> b(3);
    CPMatrix shortP(4);
    EXPECT_EQ(lapack::qrp_kernel(a, b, shortP).Rows(), 0);
    CPMatrix p(5);
    TVector<double> shortB(2);
    EXPECT_EQ(lapack::qrp_kernel(a, shortB, p).Rows(), 0);
    TMatrix<double> empty(0, 5);
    TVector<double> b0(0);
    EXPECT_EQ(lapack::qrp_kernel(empty, b0, p).Rows(), 0);
}

TEST(Lapack, CholeskyRefusesNonSquareAtOnce)
{
    TMatrix<double> a(2, 3);
    a(0, 0) = 7;
    EXPECT_FALSE(DataLayer::cholesky(a));
    EXPECT_EQ(a.Rows(), 2);
    EXPECT_EQ(a(0, 0), 7.0);
}

TEST(Lapack, CholeskyOfFourIsTwo)
{
    TMatrix<double> a(1);
    a(0, 0) = 4;
    ASSERT_TRUE(DataLayer::cholesky(a));
    EXPECT_EQ(a(0, 0), 2.0);
}

TEST(Lapack, CholeskyOfRandomSpdMatrixReconstructsAndMatchesEigen)
{
    std::mt19937_64 engine(501);
    for (int n : {2, 5, 12}) {
        const TMatrix<double> m = vorn2test::RandomMatrix(engine, n, n);
        const TMatrix<double> a = m.Transposed() * m + TMatrix<double>::ScaledIdentity(n, 0.5);
        TMatrix<double> r(a);
        ASSERT_TRUE(DataLayer::cholesky(r));
        for (int c = 0; c < n; ++c)
            for (int i = c + 1; i < n; ++i)
                EXPECT_EQ(r(i, c), 0.0);
        // Backward stable: R^T R equals A to a few eps times ||A|| (<= n + 0.5 here).
        const double tolerance = 20 * Eps<double>() * (n + 1);
        EXPECT_LE((ToEigen(r).transpose() * ToEigen(r) - ToEigen(a)).cwiseAbs().maxCoeff(), tolerance);
        // The factor with positive diagonal is unique.
        const Eigen::MatrixXd eigenR = ToEigen(a).llt().matrixU();
        EXPECT_LE((ToEigen(r) - eigenR).cwiseAbs().maxCoeff(), 1e-12);
        // Determinant as callers compute it: the square of the product of R's diagonal.
        const double det = std::pow(ToEigen(r).diagonal().prod(), 2);
        EXPECT_NEAR(det, ToEigen(a).determinant(), 1e-10 * std::abs(det));
    }
}

TEST(Lapack, CholeskyOfIndefiniteMatrixReturnsFalse)
{
    TMatrix<double> a(2);
    a(0, 0) = 1;
    a(0, 1) = 2;
    a(1, 0) = 2;
    a(1, 1) = 1;
    EXPECT_FALSE(DataLayer::cholesky(a));
    TMatrix<double> negative(1);
    negative(0, 0) = -4;
    EXPECT_FALSE(DataLayer::cholesky(negative));
    TMatrix<double> singular(3); // zeros: positive semi-definite only
    EXPECT_FALSE(DataLayer::cholesky(singular));
}

TEST(Lapack, CholeskyOfEmptyMatrixSucceedsWithNothingToDo)
{
    TMatrix<double> empty;
    EXPECT_TRUE(DataLayer::cholesky(empty));
    EXPECT_EQ(empty.Rows(), 0);
}

TEST(Lapack, CholeskyInverseTimesOriginalIsIdentity)
{
    std::mt19937_64 engine(502);
    for (int n : {1, 3, 8}) {
        const TMatrix<double> m = vorn2test::RandomMatrix(engine, n, n);
        const TMatrix<double> a = m.Transposed() * m + TMatrix<double>::ScaledIdentity(n, 0.5);
        TMatrix<double> r(a);
        ASSERT_TRUE(DataLayer::cholesky(r));
        TMatrix<double> inverse(2, 7); // any shape: it is replaced
        DataLayer::choleskyInverse(r, inverse);
        ASSERT_EQ(inverse.Rows(), n);
        ASSERT_EQ(inverse.Cols(), n);
        EXPECT_EQ(ToEigen(inverse), ToEigen(inverse).transpose()); // mirrored exactly
        // Error about eps * cond(A), cond being at most a few hundred for these sizes.
        const double cond = EigenCond(a);
        EXPECT_LE((ToEigen(inverse) * ToEigen(a) - Eigen::MatrixXd::Identity(n, n)).cwiseAbs().maxCoeff(),
                  50 * Eps<double>() * cond * n);
    }
    TMatrix<double> two(1);
    two(0, 0) = 2;
    TMatrix<double> inverse;
    DataLayer::choleskyInverse(two, inverse);
    EXPECT_EQ(inverse(0, 0), 0.25);
}

TEST(Lapack, CholeskyInverseOfNonSquareFactorIsAnUnchangedCopy)
{
    std::mt19937_64 engine(503);
    const TMatrix<double> r = vorn2test::RandomMatrix(engine, 2, 3);
    TMatrix<double> inverse;
    DataLayer::choleskyInverse(r, inverse);
    EXPECT_TRUE(BitEqual(inverse, r));
    TMatrix<double> empty;
    DataLayer::choleskyInverse(TMatrix<double>(), empty);
    EXPECT_EQ(empty.Rows(), 0);
}
