#include <Eigen/Dense>
#include <cmath>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <new>
#include <random>
#include <tuple>
#include <vector>

#include "datalayer/algorithms/optimisation/cnlsobjectivefunction.h"
#include "test_support.h"

namespace {

using DataLayer::CNLSObjectiveFunction;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kEps = 2.220446049250313e-16;

using vorn2test::Mat;
using vorn2test::Vec;

std::vector<int> Ints(const TVector<int>& v)
{
    return std::vector<int>(v.Data(), v.Data() + v.Size());
}

Eigen::MatrixXd ToEigen(const TMatrix<double>& a)
{
    return Eigen::Map<const Eigen::MatrixXd>(a.Data(), a.Rows(), a.Cols());
}

Eigen::VectorXd ToEigen(const TVector<double>& v)
{
    return Eigen::Map<const Eigen::VectorXd>(v.Data(), v.Size());
}

/// Columns 1..F of the kernel: the basis that maps z to x.
Eigen::MatrixXd BasisOf(const CNLSObjectiveFunction& f)
{
    const Eigen::MatrixXd k = ToEigen(f.GetEqualityConstraintsKernel());
    return k.rightCols(k.cols() - 1);
}

void ExpectExact(const TMatrix<double>& actual, const TMatrix<double>& expected)
{
    ASSERT_EQ(actual.Rows(), expected.Rows());
    ASSERT_EQ(actual.Cols(), expected.Cols());
    for (int c = 0; c < actual.Cols(); ++c)
        for (int r = 0; r < actual.Rows(); ++r)
            EXPECT_EQ(actual(r, c), expected(r, c)) << "at (" << r << ", " << c << ")";
}

/// Every entry within relTol times the largest magnitude of expected.
void ExpectNear(const TMatrix<double>& actual, const Eigen::MatrixXd& expected, double relTol)
{
    ASSERT_EQ(actual.Rows(), expected.rows());
    ASSERT_EQ(actual.Cols(), expected.cols());
    const double scale = expected.cwiseAbs().maxCoeff();
    for (int c = 0; c < actual.Cols(); ++c)
        for (int r = 0; r < actual.Rows(); ++r)
            EXPECT_NEAR(actual(r, c), expected(r, c), relTol * scale) << "at (" << r << ", " << c << ")";
}

bool AllNaN(const TMatrix<double>& a)
{
    for (int i = 0; i < a.Rows() * a.Cols(); ++i)
        if (!std::isnan(a.Data()[i]))
            return false;
    return a.Rows() * a.Cols() > 0;
}

/// Residuals A x - y of a linear model, with switches for the tests: an analytic Jacobian in the
/// free variables (A times the kernel basis), overridden standard deviations, an Error() of
/// another length, a Jacobian of a wrong shape. Exposes the protected helpers.
class LinearModel : public CNLSObjectiveFunction
{
public:
    explicit LinearModel(const TMatrix<double>& A, const TVector<double>& y = TVector<double>())
        : CNLSObjectiveFunction(A.Cols(), A.Rows()), a(A), rhs(y.Size() > 0 ? y : TVector<double>(A.Rows()))
    {
    }
    /// n parameters and m measurements whose residuals are all zero: for the constraint tests.
    static LinearModel Blank(int n, int m = 0) { return LinearModel(TMatrix<double>(m, std::max(n, 0))); }

    TVector<double> Error(const TVector<double>& x) override
    {
        ++evaluations;
        const TVector<double> e = a * x - rhs;
        if (delivered < 0)
            return e;
        TVector<double> other(delivered); // another length than M: (i + 1) x0 - x1 in every entry
        for (int i = 0; i < delivered; ++i)
            other[i] = (i + 1) * x[0] - x[1];
        return other;
    }

    TVector<double> StdDev() override { return sd.Size() > 0 ? sd : CNLSObjectiveFunction::StdDev(); }

    TMatrix<double> Jacobian(const TVector<double>& z) override
    {
        if (jacobianCols >= 0)
            return TMatrix<double>(a.Rows(), jacobianCols);
        if (!analytic)
            return CNLSObjectiveFunction::Jacobian(z);
        const TMatrix<double>& k = GetEqualityConstraintsKernel();
        return a * k.Block(0, 1, k.Rows() - 1, k.Cols() - 1);
    }

    using CNLSObjectiveFunction::addBound;
    using CNLSObjectiveFunction::errorFDDerivatives;
    using CNLSObjectiveFunction::getCovariance;

    TMatrix<double> a;
    TVector<double> rhs;
    TVector<double> sd;
    bool analytic = false;
    int delivered = -1;
    int jacobianCols = -1;
    int evaluations = 0;
};

/// Any residual function of n parameters; counts evaluations.
class FunctionModel : public CNLSObjectiveFunction
{
public:
    using Residuals = std::function<TVector<double>(const TVector<double>&)>;
    FunctionModel(int n, int m, Residuals r) : CNLSObjectiveFunction(n, m), residuals(std::move(r)) {}
    TVector<double> Error(const TVector<double>& x) override
    {
        ++evaluations;
        return residuals(x);
    }
    using CNLSObjectiveFunction::errorFDDerivatives;
    Residuals residuals;
    int evaluations = 0;
};

/// r_i = p0 exp(p1 t_i) + p2 - 0.3 i at t_i = 0.1 i.
FunctionModel ExponentialModel(int m)
{
    return FunctionModel(3, m, [m](const TVector<double>& x) {
        TVector<double> e(m);
        for (int i = 0; i < m; ++i)
            e[i] = x[0] * std::exp(x[1] * 0.1 * i) + x[2] - 0.3 * i;
        return e;
    });
}

Eigen::MatrixXd ExponentialJacobian(int m, const TVector<double>& x)
{
    Eigen::MatrixXd J(m, 3);
    for (int i = 0; i < m; ++i) {
        const double t = 0.1 * i;
        J.row(i) << std::exp(x[1] * t), x[0] * t * std::exp(x[1] * t), 1.0;
    }
    return J;
}

// --- equalities and the kernel ----------------------------------------------------------------

TEST(CNLSObjectiveFunction, FreshObjectIsUnconstrainedIdentity)
{
    LinearModel f = LinearModel::Blank(3);
    ExpectExact(f.GetEqualityConstraintsKernel(), Mat({{0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}));
    EXPECT_EQ(Ints(f.GetFreeVariablesIndices()), (std::vector<int>{0, 1, 2}));
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(f.IsVariable(i) && !f.IsConstant(i));
    const TVector<double> x = f.BuildParamsFromFree(Vec({0.5, -2.0, 7.25}));
    ASSERT_EQ(x.Size(), 3);
    EXPECT_TRUE(x[0] == 0.5 && x[1] == -2.0 && x[2] == 7.25);
    EXPECT_FALSE(f.HasEqualities() || f.HasInequalities());
    EXPECT_EQ(f.GetEqualitiesLHS().Rows(), 0);
    EXPECT_EQ(f.GetInequalitiesLHS().Rows(), 0);

    FunctionModel none(-3, 0, [](const TVector<double>&) { return TVector<double>(); }); // counts as 0
    EXPECT_EQ(none.GetNumParams(), 0);
    EXPECT_EQ(none.GetEqualityConstraintsKernel().Cols(), 1);
    EXPECT_EQ(none.BuildParamsFromFree(TVector<double>()).Size(), 0);
    EXPECT_TRUE(none.AddEquality(TVector<double>(), 0.0));  // 0 = 0: redundant
    EXPECT_FALSE(none.AddEquality(TVector<double>(), 1.0)); // 0 = 1: contradiction
}

TEST(CNLSObjectiveFunction, FixingOneParameterDropsItFromFreeVariables)
{
    LinearModel f = LinearModel::Blank(4);
    ASSERT_TRUE(f.AddEquality(2, 5.0));
    EXPECT_EQ(Ints(f.GetFreeVariablesIndices()), (std::vector<int>{0, 1, 3}));
    EXPECT_TRUE(f.IsConstant(2));
    EXPECT_TRUE(f.IsVariable(0) && f.IsVariable(1) && f.IsVariable(3));
    std::mt19937_64 engine(11);
    for (int trial = 0; trial < 20; ++trial) {
        const TVector<double> z = vorn2test::RandomVector(engine, 3);
        const TVector<double> x = f.BuildParamsFromFree(z);
        EXPECT_TRUE(x[2] == 5.0 && x[0] == z[0] && x[1] == z[1] && x[3] == z[2]);
    }
}

TEST(CNLSObjectiveFunction, TwoEqualitiesPinBothParametersExactly)
{
    LinearModel f = LinearModel::Blank(3);
    ASSERT_TRUE(f.AddEquality(Vec({1, 1, 0}), 1.0));
    ASSERT_TRUE(f.AddEquality(Vec({1, -1, 0}), 1.0));
    EXPECT_EQ(Ints(f.GetFreeVariablesIndices()), (std::vector<int>{2}));
    ExpectExact(f.GetEqualityConstraintsKernel(), Mat({{1, 0}, {0, 0}, {0, 1}}));
    EXPECT_TRUE(f.IsConstant(0) && f.IsConstant(1) && f.IsVariable(2));
}

TEST(CNLSObjectiveFunction, SumEqualityMakesFirstParameterDependOnSecond)
{
    // Both coefficients are 1: complete pivoting keeps the first column found, so x0 is eliminated.
    LinearModel f = LinearModel::Blank(3);
    ASSERT_TRUE(f.AddEquality(Vec({1, 1, 0}), 1.0));
    EXPECT_EQ(Ints(f.GetFreeVariablesIndices()), (std::vector<int>{1, 2}));
    ExpectExact(f.GetEqualityConstraintsKernel(), Mat({{1, -1, 0}, {0, 1, 0}, {0, 0, 1}}));
    EXPECT_TRUE(f.IsVariable(0)); // dependent: follows x1

    // With unequal coefficients the largest one is eliminated: x2 = 2 - x0 / 3.
    LinearModel g = LinearModel::Blank(3);
    ASSERT_TRUE(g.AddEquality(Vec({1, 0, 3}), 6.0));
    EXPECT_EQ(Ints(g.GetFreeVariablesIndices()), (std::vector<int>{0, 1}));
    const TMatrix<double>& k = g.GetEqualityConstraintsKernel();
    EXPECT_NEAR(k(2, 0), 2.0, 2 * kEps); // one rounding each in 1/3 and its products
    EXPECT_NEAR(k(2, 1), -1.0 / 3.0, kEps);
    EXPECT_EQ(k(2, 2), 0.0);
}

TEST(CNLSObjectiveFunction, SingleParameterIsFreeUntilFixed)
{
    LinearModel f = LinearModel::Blank(1);
    EXPECT_EQ(Ints(f.GetFreeVariablesIndices()), (std::vector<int>{0}));
    ASSERT_TRUE(f.AddEquality(0, 3.0));
    EXPECT_EQ(f.GetFreeVariablesIndices().Size(), 0);
    ExpectExact(f.GetEqualityConstraintsKernel(), Mat({{3}}));
    EXPECT_FALSE(f.IsVariable(0)); // K has no basis column left
    EXPECT_EQ(f.BuildParamsFromFree(TVector<double>())[0], 3.0);
}

TEST(CNLSObjectiveFunction, RedundantEqualityIsAcceptedAndNotStored)
{
    LinearModel f = LinearModel::Blank(3);
    ASSERT_TRUE(f.AddEquality(Vec({1, 2, 0}), 3.0));
    const TMatrix<double> before = f.GetEqualityConstraintsKernel();
    EXPECT_TRUE(f.AddEquality(Vec({1, 2, 0}), 3.0));
    EXPECT_TRUE(f.AddEquality(Vec({-2, -4, 0}), -6.0)); // a multiple is just as redundant
    EXPECT_EQ(f.GetEqualitiesLHS().Rows(), 1);
    EXPECT_EQ(f.GetEqualitiesRHS().Size(), 1);
    ExpectExact(f.GetEqualityConstraintsKernel(), before);
}

TEST(CNLSObjectiveFunction, ContradictingOrMalformedEqualityIsRejectedAndChangesNothing)
{
    LinearModel f = LinearModel::Blank(3);
    ASSERT_TRUE(f.AddEquality(0, 1.0));
    EXPECT_FALSE(f.AddEquality(0, 2.0));
    ASSERT_TRUE(f.AddEquality(Vec({0, 1, 1}), 2.0));
    const TMatrix<double> before = f.GetEqualityConstraintsKernel();
    EXPECT_FALSE(f.AddEquality(Vec({1, 1, 1}), 2.5)); // the two stored rows imply 3
    EXPECT_FALSE(f.AddEquality(Vec({1, 1}), 1.0));
    EXPECT_FALSE(f.AddEquality(Vec({1, 1, 1, 1}), 1.0));
    EXPECT_FALSE(f.AddEquality(Vec({1, std::nan(""), 0}), 1.0));
    EXPECT_FALSE(f.AddEquality(Vec({0, 0, 1}), kInf));
    EXPECT_FALSE(f.AddEquality(-1, 1.0));
    EXPECT_FALSE(f.AddEquality(3, 1.0));
    EXPECT_EQ(f.GetEqualitiesLHS().Rows(), 2);
    EXPECT_TRUE(f.GetEqualitiesRHS()[0] == 1.0 && f.GetEqualitiesRHS()[1] == 2.0);
    EXPECT_EQ(Ints(f.GetFreeVariablesIndices()), (std::vector<int>{2}));
    ExpectExact(f.GetEqualityConstraintsKernel(), before);
}

TEST(CNLSObjectiveFunction, SetEqualitiesReplacesRowsButLeavesKernel)
{
    LinearModel f = LinearModel::Blank(3);
    ASSERT_TRUE(f.AddEquality(1, 4.0));
    const TMatrix<double> before = f.GetEqualityConstraintsKernel();
    f.SetEqualities(Mat({{1, 0, 0}, {0, 0, 1}}), Vec({7, 8}));
    EXPECT_EQ(f.GetEqualitiesLHS().Rows(), 2);
    EXPECT_EQ(f.GetEqualitiesRHS()[1], 8.0);
    ExpectExact(f.GetEqualityConstraintsKernel(), before);
    EXPECT_EQ(f.GetFreeVariablesIndices().Size(), 2);

    // Mismatched pairs are refused.
    f.SetEqualities(Mat({{1, 0, 0}}), Vec({1, 2}));
    f.SetEqualities(TMatrix<double>(2, 4), Vec({1, 2}));
    EXPECT_EQ(f.GetEqualitiesLHS().Rows(), 2);
    EXPECT_EQ(f.GetEqualitiesLHS().Cols(), 3);
    f.SetInequalities(Mat({{1, 0, 0}}), Vec({1, 2}));
    EXPECT_FALSE(f.HasInequalities());
}

TEST(CNLSObjectiveFunction, KernelOfRandomConsistentSystemsKeepsUnitFormAndSatisfiesEveryEquality)
{
    for (int trial = 0; trial < 40; ++trial) {
        SCOPED_TRACE(trial);
        std::mt19937_64 engine(9001 + trial);
        const int n = 2 + trial % 7;
        LinearModel f = LinearModel::Blank(n);
        const TVector<double> solution = vorn2test::RandomVector(engine, n);
        std::vector<TVector<double>> stored;
        const int attempts = 1 + static_cast<int>(engine() % (n + 2));
        for (int a = 0; a < attempts; ++a) {
            TVector<double> row = vorn2test::RandomVector(engine, n);
            const bool combination = !stored.empty() && engine() % 3 == 0;
            if (combination)
                row = stored[engine() % stored.size()] * 0.75 - stored[engine() % stored.size()] * 1.5;
            const int before = f.GetEqualitiesLHS().Rows();
            ASSERT_TRUE(f.AddEquality(row, Dot(row, solution)));
            const bool independent = !combination && before < n;
            EXPECT_EQ(f.GetEqualitiesLHS().Rows(), before + (independent ? 1 : 0));
            if (independent)
                stored.push_back(row);
        }

        const TMatrix<double>& k = f.GetEqualityConstraintsKernel();
        const TVector<int>& fv = f.GetFreeVariablesIndices();
        const int m = f.GetEqualitiesLHS().Rows();
        const int free = fv.Size();
        // The rank agrees with an independent full-pivoting LU of the stored rows.
        EXPECT_EQ(Eigen::FullPivLU<Eigen::MatrixXd>(ToEigen(f.GetEqualitiesLHS())).rank(), m);
        ASSERT_EQ(free, n - m);
        ASSERT_EQ(k.Cols(), free + 1);
        for (int j = 0; j < free; ++j) {
            EXPECT_TRUE(j == 0 || fv[j - 1] < fv[j]);
            EXPECT_EQ(k(fv[j], 0), 0.0);
            for (int c = 1; c <= free; ++c)
                EXPECT_EQ(k(fv[j], c), c == j + 1 ? 1.0 : 0.0);
        }

        // Rows with entries in [-1, 1] and at most 8 unknowns: elimination with complete pivoting
        // keeps the residual of an expansion within a few hundred eps of the row scale.
        for (int s = 0; s < 5; ++s) {
            const TVector<double> z = vorn2test::RandomVector(engine, free);
            const TVector<double> x = f.BuildParamsFromFree(z);
            const Eigen::VectorXd terms = ToEigen(f.GetEqualitiesLHS()) * ToEigen(x);
            const Eigen::VectorXd scale = ToEigen(f.GetEqualitiesLHS()).cwiseAbs() * ToEigen(x).cwiseAbs();
            for (int r = 0; r < m; ++r)
                EXPECT_LE(std::abs(terms(r) - f.GetEqualitiesRHS()[r]), 1e-12 * (1.0 + scale(r)));
            const TVector<double> back = x.Gather(fv); // the exact inverse of the expansion
            for (int j = 0; j < free; ++j)
                EXPECT_EQ(back[j], z[j]);
        }
        const TVector<double> x = f.BuildParamsFromFree(solution.Gather(fv));
        for (int i = 0; i < n; ++i)
            EXPECT_NEAR(x[i], solution[i], 1e-10); // the generating solution comes back
    }
}

// --- inequalities and boundedness ---------------------------------------------------------------

TEST(CNLSObjectiveFunction, BoundsAppendUnitRowsAndMalformedRowsHaveNoEffect)
{
    LinearModel f = LinearModel::Blank(3);
    f.AddBounds(1, -2.0, 3.0);
    f.AddInequality(Vec({1, 1, 1}), 4.0);
    f.addBound(2, 0.5, true);
    f.AddInequality(Vec({1, 1}), 1.0);
    f.AddLowerBound(-1, 0.0);
    f.AddUpperBound(3, 0.0);
    f.AddBounds(7, 0.0, 1.0);
    ExpectExact(f.GetInequalitiesLHS(), Mat({{0, -1, 0}, {0, 1, 0}, {1, 1, 1}, {0, 0, -1}}));
    const TVector<double>& b = f.GetInequalitiesRHS();
    ASSERT_EQ(b.Size(), 4);
    EXPECT_TRUE(b[0] == 2.0 && b[1] == 3.0 && b[2] == 4.0 && b[3] == -0.5);
}

TEST(CNLSObjectiveFunction, FreeVariableInequalitiesAreEquivalentToOriginalRows)
{
    std::mt19937_64 engine(424242);
    const int n = 5;
    LinearModel f = LinearModel::Blank(n);
    const TVector<double> solution = vorn2test::RandomVector(engine, n);
    for (int e = 0; e < 2; ++e) {
        const TVector<double> row = vorn2test::RandomVector(engine, n);
        ASSERT_TRUE(f.AddEquality(row, Dot(row, solution)));
    }
    ASSERT_TRUE(f.AddEquality(4, 0.25));
    for (int i = 0; i < 4; ++i)
        f.AddInequality(vorn2test::RandomVector(engine, n), vorn2test::RandomVector(engine, 1)[0]);
    f.AddBounds(3, -1.0, 2.0);

    TMatrix<double> A;
    TVector<double> b;
    f.GetFreeVariablesInequalities(A, b);
    ASSERT_EQ(A.Rows(), 6);
    ASSERT_EQ(A.Cols(), 2);
    ASSERT_EQ(b.Size(), 6);
    for (int s = 0; s < 20; ++s) {
        const TVector<double> z = vorn2test::RandomVector(engine, 2) * 3.0;
        const TVector<double> reduced = A * z - b;
        const TVector<double> original =
            f.GetInequalitiesLHS() * f.BuildParamsFromFree(z) - f.GetInequalitiesRHS();
        for (int r = 0; r < 6; ++r)
            EXPECT_NEAR(reduced[r], original[r], 1e-12); // a few products of values below 5
    }

    LinearModel::Blank(3).GetFreeVariablesInequalities(A, b);
    EXPECT_EQ(A.Rows(), 0);
    EXPECT_EQ(b.Size(), 0);
}

TEST(CNLSObjectiveFunction, BoundednessWithoutRowsForConstantsAndOutOfRange)
{
    LinearModel f = LinearModel::Blank(3);
    EXPECT_FALSE(f.IsBounded(0));
    EXPECT_TRUE(f.IsUnbounded(0));
    ASSERT_TRUE(f.AddEquality(1, 4.0));
    EXPECT_TRUE(f.IsBounded(1));
    f.AddBounds(0, 0.0, 1.0);
    for (int index : {-1, 3, 100}) {
        EXPECT_FALSE(f.IsVariable(index));
        EXPECT_TRUE(f.IsConstant(index));
        EXPECT_FALSE(f.IsBounded(index));
        EXPECT_TRUE(f.IsUnbounded(index));
    }
}

TEST(CNLSObjectiveFunction, BoxConstraintsBoundOnlyTheirParameter)
{
    LinearModel f = LinearModel::Blank(3);
    f.AddBounds(0, 1.0, 2.0);
    EXPECT_TRUE(f.IsBounded(0));
    EXPECT_FALSE(f.IsBounded(1));
    f.AddInequality(Vec({0, 1, 1}), 3.0);
    EXPECT_TRUE(f.IsBounded(1)); // x1 + x2 <= 3 with the program's x >= 0
    EXPECT_TRUE(f.IsBounded(2));
}

TEST(CNLSObjectiveFunction, HalfOpenConstraintIsUnboundedButAnUpperBoundAloneIsNot)
{
    LinearModel f = LinearModel::Blank(2);
    f.AddLowerBound(0, 1.0);
    EXPECT_FALSE(f.IsBounded(0));
    LinearModel g = LinearModel::Blank(2);
    g.AddUpperBound(0, 5.0); // the program's x >= 0 closes the other side
    EXPECT_TRUE(g.IsBounded(0));
}

TEST(CNLSObjectiveFunction, SystemSatisfiedOnlyByNegativeValuesCountsAsBounded)
{
    LinearModel f = LinearModel::Blank(2);
    f.AddUpperBound(0, -1.0); // x0 <= -1: infeasible under x >= 0
    EXPECT_TRUE(f.IsBounded(0));
    EXPECT_TRUE(f.IsBounded(1));
}

TEST(CNLSObjectiveFunction, InfiniteBoundsAreNoBoundsAndNaNRowsProveNothing)
{
    LinearModel f = LinearModel::Blank(2);
    f.AddBounds(0, -kInf, kInf);
    EXPECT_FALSE(f.IsBounded(0));
    f.AddUpperBound(0, 4.0);
    EXPECT_TRUE(f.IsBounded(0));
    f.AddInequality(Vec({0, 1}), std::nan(""));
    EXPECT_FALSE(f.IsBounded(0));

    LinearModel g = LinearModel::Blank(2);
    g.AddLowerBound(1, kInf); // -x1 <= -infinity can't be met
    EXPECT_TRUE(g.IsBounded(0));
}

// --- finite differences -------------------------------------------------------------------------

TEST(CNLSObjectiveFunction, FiniteDifferencesOfEveryOrderAreExactOnPolynomialsOfThatDegree)
{
    const int evaluationsPerOrder[6] = {2, 2, 4, 4, 6, 6}; // zero weights are skipped
    std::mt19937_64 engine(77);
    for (int order = 1; order <= 6; ++order) {
        SCOPED_TRACE(order);
        // Residual 0 is x0^order, residual 1 a random polynomial of that degree.
        const TVector<double> c = vorn2test::RandomVector(engine, order + 1) * 2.0;
        auto poly = [c](double x, bool derivative) {
            double v = 0.0;
            for (int k = c.Size() - 1; k >= (derivative ? 1 : 0); --k)
                v = v * x + (derivative ? k : 1) * c[k];
            return v;
        };
        FunctionModel f(2, 2, [&](const TVector<double>& x) {
            return Vec({std::pow(x[0], order), poly(x[0], false)});
        });
        TVector<double> x = Vec({0.75, -3.0});
        const TVector<double> d = f.errorFDDerivatives(x, 0, 0.125, order);
        ASSERT_EQ(d.Size(), 2);
        // Values below 10, at most 7 weights up to 1, divided by the step 1/8: rounding below 1e-12.
        EXPECT_NEAR(d[0], order * std::pow(0.75, order - 1), 1e-12);
        EXPECT_NEAR(d[1], poly(0.75, true), 1e-12);
        EXPECT_EQ(f.evaluations, evaluationsPerOrder[order - 1]);
        EXPECT_TRUE(x[0] == 0.75 && x[1] == -3.0); // restored exactly
    }
}

TEST(CNLSObjectiveFunction, FiniteDifferencesWithBadArgumentsGiveNaNWithoutEvaluating)
{
    FunctionModel f(2, 2, [](const TVector<double>& x) { return x; });
    TVector<double> x = Vec({1.0, 2.0});
    const std::initializer_list<std::tuple<int, double, int>> cases = {
        {0, 0.1, 0}, {0, 0.1, 7}, {-1, 0.1, 2}, {2, 0.1, 2}, {0, 0.0, 2}, {0, kInf, 2}};
    for (const auto& [index, step, order] : cases) {
        const TVector<double> d = f.errorFDDerivatives(x, index, step, order);
        ASSERT_EQ(d.Size(), 2);
        EXPECT_TRUE(std::isnan(d[0]) && std::isnan(d[1]));
    }
    EXPECT_EQ(f.evaluations, 0);
    EXPECT_EQ(x[0], 1.0);
}

TEST(CNLSObjectiveFunction, FiniteDifferenceJacobianMatchesAnalyticDerivatives)
{
    FunctionModel f = ExponentialModel(12);
    const TVector<double> x = Vec({1.5, -0.8, 0.2});
    // Order 4 with h = 0.000123: truncation |f'''''| h^4 / 30 ~ 1e-17 is negligible; rounding
    // eps * 1.5 * |e| / h ~ 3e-12 per unit residual dominates. Residuals stay below 4.
    ExpectNear(f.Jacobian(x), ExponentialJacobian(12, x), 1e-10);
    EXPECT_EQ(f.evaluations, 12); // four evaluations per free variable
}

TEST(CNLSObjectiveFunction, FiniteDifferenceJacobianDisplacesOnlyTheFreeParameter)
{
    // x0 = 1 - x1 depends on the free x1, but the difference moves x1 alone: d e0 / d z = 0.
    LinearModel f(TMatrix<double>::Identity(2));
    ASSERT_TRUE(f.AddEquality(Vec({1, 1}), 1.0));
    const TMatrix<double> J = f.Jacobian(Vec({0.3}));
    ASSERT_EQ(J.Rows(), 2);
    ASSERT_EQ(J.Cols(), 1);
    // Linear residuals: exact up to the rounding of the order-4 weights, eps * 1.5 / h ~ 3e-12.
    EXPECT_NEAR(J(0, 0), 0.0, 1e-11); // a total derivative would read -1
    EXPECT_NEAR(J(1, 0), 1.0, 1e-11);
}

TEST(CNLSObjectiveFunction, JacobianShapesForNoMeasurementsAndWrongFreeVector)
{
    const TMatrix<double> empty = ExponentialModel(0).Jacobian(Vec({1, 1, 1}));
    EXPECT_EQ(empty.Rows(), 0);
    EXPECT_EQ(empty.Cols(), 3);

    FunctionModel f = ExponentialModel(4);
    const TMatrix<double> J = f.Jacobian(Vec({1, 1}));
    EXPECT_EQ(J.Rows(), 4);
    EXPECT_EQ(J.Cols(), 3);
    EXPECT_TRUE(AllNaN(J));
    EXPECT_EQ(f.evaluations, 0);
    const TVector<double> x = f.BuildParamsFromFree(Vec({1}));
    ASSERT_EQ(x.Size(), 3);
    EXPECT_TRUE(std::isnan(x[0]) && std::isnan(x[2]));
}

TEST(CNLSObjectiveFunction, ResidualsOfWrongLengthAreSizedByMeasurementsWithNaNForMissingRows)
{
    LinearModel shortModel(TMatrix<double>(3, 2));
    shortModel.delivered = 2;
    const TMatrix<double> J = shortModel.Jacobian(Vec({1, 1}));
    ASSERT_EQ(J.Rows(), 3);
    ASSERT_EQ(J.Cols(), 2);
    EXPECT_NEAR(J(0, 0), 1.0, 1e-10); // linear residuals: exact up to rounding
    EXPECT_NEAR(J(1, 0), 2.0, 1e-10);
    EXPECT_NEAR(J(1, 1), -1.0, 1e-10);
    EXPECT_TRUE(std::isnan(J(2, 0)) && std::isnan(J(2, 1)));

    LinearModel longModel(TMatrix<double>(2, 2));
    longModel.delivered = 5;
    TVector<double> x = Vec({1, 1});
    const TVector<double> d = longModel.errorFDDerivatives(x, 0, 0.5, 1);
    ASSERT_EQ(d.Size(), 2);
    EXPECT_TRUE(d[0] == 1.0 && d[1] == 2.0);
    const TMatrix<double> C = longModel.GetCovariance(x, 1e-12);
    EXPECT_EQ(C.Rows(), 2);
    EXPECT_TRUE(std::isfinite(C(0, 0)));
}

// --- covariance, correlation, D criterion -------------------------------------------------------

TEST(CNLSObjectiveFunction, CovarianceWithoutMeasurementsIsInfinite)
{
    LinearModel f = LinearModel::Blank(3, 0);
    ASSERT_TRUE(f.AddEquality(0, 1.0));
    ExpectExact(f.GetCovariance(Vec({1, 2, 3}), 1e-12),
                Mat({{kInf, kInf, kInf}, {kInf, kInf, kInf}, {kInf, kInf, kInf}}));
    f.SetNumMeasurements(-2); // a negative count acts as 0
    EXPECT_EQ(f.GetCovariance(Vec({1, 2, 3}), 1e-12)(1, 2), kInf);
    EXPECT_EQ(f.Jacobian(Vec({0, 0})).Rows(), 0);
    EXPECT_EQ(f.StdDev().Size(), 0);
}

TEST(CNLSObjectiveFunction, WeightedCovarianceMatchesDirectInverse)
{
    std::mt19937_64 engine(31337);
    LinearModel f(vorn2test::RandomMatrix(engine, 9, 4), vorn2test::RandomVector(engine, 9));
    f.analytic = true;
    f.sd = TVector<double>(9);
    for (int i = 0; i < 9; ++i)
        f.sd[i] = 0.5 + 0.25 * i;
    const TMatrix<double> C = f.GetCovariance(vorn2test::RandomVector(engine, 4), 1e-12);
    const Eigen::MatrixXd J = ToEigen(f.a);
    const Eigen::VectorXd w = ToEigen(f.sd).cwiseInverse().cwiseAbs2();
    // A well-conditioned 4 x 4 system: both inverses agree to a few hundred eps.
    ExpectNear(C, (J.transpose() * w.asDiagonal() * J).inverse(), 1e-10);
}

TEST(CNLSObjectiveFunction, CovarianceIsPropagatedThroughTheKernel)
{
    std::mt19937_64 engine(5150);
    LinearModel f(vorn2test::RandomMatrix(engine, 10, 4), vorn2test::RandomVector(engine, 10));
    f.analytic = true;
    f.sd = TVector<double>(10);
    for (int i = 0; i < 10; ++i)
        f.sd[i] = 2.0 - 0.1 * i;
    ASSERT_TRUE(f.AddEquality(Vec({1, 2, 0, -1}), 1.0));
    ASSERT_TRUE(f.AddEquality(2, 3.0));
    ASSERT_EQ(f.GetFreeVariablesIndices().Size(), 2);
    const TMatrix<double> C = f.GetCovariance(f.BuildParamsFromFree(Vec({0.5, -0.5})), 1e-12);

    const Eigen::MatrixXd basis = BasisOf(f);
    const Eigen::MatrixXd Jz = ToEigen(f.a) * basis;
    const Eigen::VectorXd w = ToEigen(f.sd).cwiseInverse().cwiseAbs2();
    const Eigen::MatrixXd inner = (Jz.transpose() * w.asDiagonal() * Jz).inverse();
    // A well-conditioned 2 x 2 inverse, then at most 4 products per entry.
    ExpectNear(C, basis * inner * basis.transpose(), 1e-10);
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(C(2, i) == 0.0 && C(i, 2) == 0.0); // the constant parameter
}

TEST(CNLSObjectiveFunction, ConstantParameterHasZeroCovarianceAndNaNCorrelation)
{
    FunctionModel f = ExponentialModel(8);
    ASSERT_TRUE(f.AddEquality(2, 0.5));
    const TVector<double> x = Vec({1.0, 0.3, 0.5});
    const TMatrix<double> C = f.GetCovariance(x, 1e-12);
    const TMatrix<double> R = f.GetCorrelation(x, 1e-12);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(C(2, i) == 0.0 && C(i, 2) == 0.0);
        EXPECT_TRUE(std::isnan(R(2, i)) && std::isnan(R(i, 2)));
    }
    EXPECT_TRUE(C(0, 0) > 0.0 && C(1, 1) > 0.0);
}

TEST(CNLSObjectiveFunction, CorrelationOfStraightLineFitMatchesClosedForm)
{
    // Residuals p0 + p1 t - y: corr(p0, p1) = -sum t / sqrt(n sum t^2).
    LinearModel f(Mat({{1, 0}, {1, 1}, {1, 2}, {1, 4}, {1, 7}}));
    f.analytic = true;
    const TMatrix<double> R = f.GetCorrelation(Vec({0, 0}), 1e-12);
    // Diagonal: c / (sqrt(c) sqrt(c)), at most a couple of roundings from 1.
    EXPECT_NEAR(R(0, 0), 1.0, 4 * kEps);
    EXPECT_NEAR(R(1, 1), 1.0, 4 * kEps);
    EXPECT_NEAR(R(0, 1), -14.0 / std::sqrt(5.0 * 70.0), 1e-14);
    EXPECT_EQ(R(0, 1), R(1, 0));
}

TEST(CNLSObjectiveFunction, ZeroJacobianColumnGivesInfiniteRowAndColumn)
{
    std::mt19937_64 engine(8);
    TMatrix<double> A = vorn2test::RandomMatrix(engine, 6, 3);
    for (int r = 0; r < 6; ++r)
        A(r, 2) = 0.0;
    LinearModel f(A);
    f.analytic = true;
    const TMatrix<double> C = f.GetCovariance(Vec({0, 0, 0}), 1e-12);
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(C(2, i) == kInf && C(i, 2) == kInf);
    const Eigen::MatrixXd lead = ToEigen(A).leftCols(2);
    // The other entries come from the leading columns alone; a well-conditioned 2 x 2 inverse.
    ExpectNear(C.Block(0, 0, 1, 1), (lead.transpose() * lead).inverse(), 1e-10);
    TVector<int> singular;
    f.getCovariance(A, singular, 1e-12);
    EXPECT_EQ(Ints(singular), (std::vector<int>{2}));

    // A dependent parameter takes nothing from a free variable it doesn't follow: x0 = x1 keeps a
    // finite variance although x2's is infinite.
    ASSERT_TRUE(f.AddEquality(Vec({1, -1, 0}), 0.0));
    const TMatrix<double> P = f.GetCovariance(Vec({0, 0, 0}), 1e-12);
    EXPECT_TRUE(std::isfinite(P(0, 0)) && std::isfinite(P(0, 1)));
    EXPECT_EQ(P(0, 0), P(1, 1));
    EXPECT_TRUE(P(0, 2) == kInf && P(2, 0) == kInf);

    // Without pivoting the inverse stops at the first negligible diagonal: a zero column in the
    // middle makes every later column infinite too.
    const TMatrix<double> B = Mat({{1, 0, 2}, {2, 0, 1}, {0, 0, 1}, {1, 0, -1}});
    const TMatrix<double> D = f.getCovariance(B, singular, 1e-12);
    EXPECT_EQ(Ints(singular), (std::vector<int>{1, 2}));
    EXPECT_NEAR(D(0, 0), 1.0 / 6.0, 1e-15); // 1 / |column 0|^2, a few roundings
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(D(i, 1) == kInf && D(1, i) == kInf && D(i, 2) == kInf && D(2, i) == kInf);
}

TEST(CNLSObjectiveFunction, ToleranceDecidesTheNumericalRank)
{
    // Column 1 is twice column 0 but for 1e-9 in one entry.
    const TMatrix<double> A = Mat({{1, 2 + 1e-9}, {2, 4}, {-1, -2}, {0.5, 1}});
    LinearModel f(A);
    TVector<int> singular;
    EXPECT_EQ(f.getCovariance(A, singular, 1e-6)(1, 1), kInf);
    EXPECT_EQ(singular.Size(), 1);
    const double tight = f.getCovariance(A, singular, 0.0)(1, 1);
    EXPECT_EQ(singular.Size(), 0);
    EXPECT_TRUE(std::isfinite(tight) && tight > 1e15);

    // A negative or NaN tolerance counts as 0: an exactly zero column still reads as singular.
    for (double tolerance : {-1.0, std::nan("")}) {
        const TMatrix<double> C = f.getCovariance(Mat({{1, 0}, {2, 0}, {0, 0}}), singular, tolerance);
        EXPECT_EQ(Ints(singular), (std::vector<int>{1}));
        EXPECT_NEAR(C(0, 0), 0.2, 1e-15); // a few roundings of 1 / |(1, 2, 0)|^2
        EXPECT_TRUE(C(1, 1) == kInf && C(0, 1) == kInf);
    }
}

TEST(CNLSObjectiveFunction, FewerMeasurementsThanFreeVariablesArePaddedAndSingular)
{
    LinearModel f(TMatrix<double>(1, 2));
    TVector<int> singular;
    const TMatrix<double> C = f.getCovariance(Mat({{3, 4}}), singular, 1e-12);
    ASSERT_EQ(C.Rows(), 2);
    ASSERT_EQ(C.Cols(), 2);
    EXPECT_NEAR(C(0, 0), 1.0 / 9.0, 1e-15); // a few roundings of 1 / 3^2
    EXPECT_TRUE(C(1, 1) == kInf && C(1, 0) == kInf);
    EXPECT_EQ(Ints(singular), (std::vector<int>{1}));
}

TEST(CNLSObjectiveFunction, CovarianceOfDegenerateInputsIsNaNNotACrash)
{
    std::mt19937_64 engine(99);
    LinearModel f(vorn2test::RandomMatrix(engine, 5, 2));
    f.analytic = true;

    f.sd = Vec({1, 1, 0, 1, 1}); // a deviation of 0 makes its row infinite: no factorisation
    EXPECT_TRUE(AllNaN(f.GetCovariance(Vec({0, 0}), 1e-12)));
    TVector<int> singular(3);
    EXPECT_TRUE(AllNaN(f.getCovariance(f.a, singular, 1e-12)));
    EXPECT_EQ(singular.Size(), 0);

    f.sd = Vec({1, 1}); // too few deviations: the rows without one are weighted by NaN
    EXPECT_TRUE(AllNaN(f.GetCovariance(Vec({0, 0}), 1e-12)));

    f.sd = TVector<double>();
    const TMatrix<double> C = f.GetCovariance(Vec({0, 0, 0}), 1e-12); // x of the wrong size
    EXPECT_EQ(C.Rows(), 2);
    EXPECT_TRUE(AllNaN(C));

    f.jacobianCols = 2; // one equality makes F = 1, the override still returns 2 columns
    ASSERT_TRUE(f.AddEquality(0, 1.0));
    EXPECT_TRUE(AllNaN(f.GetCovariance(Vec({1, 0}), 1e-12)));
}

TEST(CNLSObjectiveFunction, DCriterionIsDeterminantOfUnweightedNormalMatrix)
{
    FunctionModel f = ExponentialModel(10);
    const TVector<double> z = Vec({2.0, -0.5, 1.0});
    const Eigen::MatrixXd J = ToEigen(f.Jacobian(z));
    const double expected = (J.transpose() * J).determinant();
    // Cholesky and LU of the same well-conditioned 3 x 3 matrix agree to a few hundred eps.
    EXPECT_NEAR(f.GetDCriterionValue(z), expected, 1e-10 * std::abs(expected));

    std::mt19937_64 engine(3);
    LinearModel g(vorn2test::RandomMatrix(engine, 6, 3));
    g.analytic = true;
    const double plain = g.GetDCriterionValue(Vec({0, 0, 0}));
    const Eigen::MatrixXd Jg = ToEigen(g.a);
    EXPECT_NEAR(plain, (Jg.transpose() * Jg).determinant(), 1e-10 * plain);
    g.sd = Vec({9, 9, 9, 9, 9, 9});
    EXPECT_EQ(g.GetDCriterionValue(Vec({0, 0, 0})), plain); // weights don't enter
}

TEST(CNLSObjectiveFunction, DCriterionOfSingularOrEmptyProblems)
{
    LinearModel f(Mat({{1, 0}, {2, 0}, {3, 0}, {4, 0}}));
    f.analytic = true;
    EXPECT_EQ(f.GetDCriterionValue(Vec({0, 0})), 0.0);
    EXPECT_EQ(ExponentialModel(0).GetDCriterionValue(Vec({1, 1, 1})), 0.0); // J^T J = 0

    LinearModel fixed = LinearModel::Blank(1, 3);
    ASSERT_TRUE(fixed.AddEquality(0, 2.0));
    EXPECT_EQ(fixed.GetDCriterionValue(TVector<double>()), 1.0); // no free variable
}

// --- bookkeeping --------------------------------------------------------------------------------

TEST(CNLSObjectiveFunction, SetNumParamsResetsKernelButKeepsStoredRows)
{
    LinearModel f = LinearModel::Blank(3, 2);
    ASSERT_TRUE(f.AddEquality(2, 5.0));
    f.AddUpperBound(1, 3.0);

    f.SetNumParams(3); // the folded equality leaves K: (0 | I) again
    ExpectExact(f.GetEqualityConstraintsKernel(), Mat({{0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}}));
    EXPECT_EQ(Ints(f.GetFreeVariablesIndices()), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(f.GetEqualitiesLHS().Rows(), 1);
    EXPECT_EQ(f.GetInequalitiesLHS().Rows(), 1);

    f.SetNumParams(4);
    EXPECT_EQ(f.GetNumParams(), 4);
    EXPECT_EQ(f.GetEqualityConstraintsKernel().Cols(), 5);
    // The stored rows still have 3 columns: no new row fits until they are replaced.
    EXPECT_FALSE(f.AddEquality(0, 1.0));
    f.AddLowerBound(0, 1.0);
    EXPECT_EQ(f.GetInequalitiesLHS().Rows(), 1);
    TMatrix<double> A;
    TVector<double> b;
    f.GetFreeVariablesInequalities(A, b);
    EXPECT_EQ(A.Cols(), 4);
    EXPECT_TRUE(AllNaN(A) && std::isnan(b[0]));
    EXPECT_FALSE(f.IsBounded(1));
    f.SetEqualities(TMatrix<double>(0, 4), TVector<double>());
    EXPECT_TRUE(f.AddEquality(0, 1.0));

    EXPECT_THROW(f.SetNumParams(2147483647u), std::bad_alloc); // K can't have INT_MAX + 1 columns
    EXPECT_EQ(f.GetNumParams(), 4);
    f.SetNumParams(0); // only the count changes
    EXPECT_EQ(f.GetNumParams(), 0);
    EXPECT_EQ(f.GetEqualityConstraintsKernel().Rows(), 4);
}

TEST(CNLSObjectiveFunction, CopiesAreDeepAndIndependent)
{
    LinearModel f = LinearModel::Blank(3, 1);
    ASSERT_TRUE(f.AddEquality(0, 1.0));
    LinearModel g(f);
    ASSERT_TRUE(g.AddEquality(1, 2.0));
    g.AddUpperBound(2, 1.0);
    EXPECT_EQ(f.GetFreeVariablesIndices().Size(), 2);
    EXPECT_FALSE(f.HasInequalities());
    f = g;
    g.SetNumMeasurements(7);
    EXPECT_EQ(f.GetEqualityConstraintsKernel()(1, 0), 2.0);
    EXPECT_TRUE(f.HasInequalities());
    EXPECT_EQ(f.GetNumMeasurements(), 1);
}

} // namespace
