#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "datalayer/algorithms/optimisation/cnlssolver.h"

namespace DataLayer {

/// Reaches the solver's private steps, so that each can be checked on its own worked example.
struct CNLSSolverTestAccess
{
    static CNLSSolver::EResult Descent(CNLSSolver& s, TVector<double>& x, double& rmse, int maxIterations,
                                       double tau)
    {
        return s.run(x, rmse, maxIterations, tau);
    }
    static TVector<double> Weight(const CNLSSolver& s, const TVector<double>& e)
    {
        return s.computeWeight(e, true);
    }
    static double Tukey(const CNLSSolver& s, double u) { return s.psiTukey(u); }
    static double Huber(const CNLSSolver& s, double u) { return s.psiHuber(u); }
    static TVector<double> CutBack(const CNLSSolver& s, const TMatrix<double>& A, const TVector<double>& b,
                                   const TVector<double>& z, const TVector<double>& h)
    {
        return s.cutBack(A, b, z, h, false);
    }
    static void Distances(const CNLSSolver& s, const TMatrix<double>& A, const TVector<double>& b,
                          const TVector<double>& z, const TVector<double>& d, double& backward,
                          double& forward)
    {
        s.distanceToConstraints(A, b, z, d, backward, forward);
    }
    static bool Feasible(const CNLSSolver& s, const TMatrix<double>& A, const TVector<double>& b,
                         const TVector<double>& z)
    {
        return s.checkConstraints(A, b, z);
    }
    static bool Consistent(const CNLSSolver& s, const TMatrix<double>& A, const TVector<double>& b)
    {
        return s.checkEqualities(A, b);
    }
    static void Shrink(const CNLSSolver& s, TMatrix<double>& A, TVector<double>& b, double distance)
    {
        s.shrinkConstraints(A, b, distance);
    }
    static void Sample(CNLSSolver& s, CNLSSolver::ESampler sampler, const TMatrix<double>& A,
                       const TVector<double>& b, std::mt19937_64& engine, TVector<double>& x)
    {
        std::function<double(double, double)> uniform = [&engine](double lo, double hi) {
            return lo + std::generate_canonical<double, 53>(engine) * (hi - lo);
        };
        if (sampler == CNLSSolver::Gibbs)
            s.sampleGibbs(A, b, engine, uniform, x);
        else
            s.sampleHitAndRun(A, b, engine, uniform, x);
    }
};

} // namespace DataLayer

#include "test_support.h"

namespace {

using DataLayer::CNLSObjectiveFunction;
using DataLayer::CNLSSolver;
using DataLayer::CNLSSolverTestAccess;
using Access = CNLSSolverTestAccess;

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kEps = 2.220446049250313e-16;

using vorn2test::Mat;
using vorn2test::Vec;

std::vector<double> Std(const TVector<double>& v)
{
    return std::vector<double>(v.Data(), v.Data() + v.Size());
}

std::string Format(const char* format, double value)
{
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, format, value);
    return buffer;
}

/// An objective from a residual function; it records every point at which Error() was called.
class Functional : public CNLSObjectiveFunction
{
public:
    using Residuals = std::function<TVector<double>(const TVector<double>&)>;
    Functional(int n, int m, Residuals residuals)
        : CNLSObjectiveFunction(n, m), residuals(std::move(residuals))
    {
    }
    TVector<double> Error(const TVector<double>& x) override
    {
        points.push_back(Std(x));
        return residuals(x);
    }
    /// The analytic derivative in z when set, otherwise the base class's finite differences.
    TMatrix<double> Jacobian(const TVector<double>& z) override
    {
        return derivative ? derivative(z) : CNLSObjectiveFunction::Jacobian(z);
    }
    Residuals residuals;
    std::function<TMatrix<double>(const TVector<double>&)> derivative;
    std::vector<std::vector<double>> points;
};

/// x[i] - target[i], optionally with extra rows.
Functional Offsets(std::vector<double> target)
{
    const int n = static_cast<int>(target.size());
    return Functional(n, n, [target](const TVector<double>& x) {
        TVector<double> e(x.Size());
        for (int i = 0; i < x.Size(); ++i)
            e[i] = x[i] - target[static_cast<std::size_t>(i)];
        return e;
    });
}

/// y = a exp(-b t) sampled at t = 0, 0.25, ..., with a small deterministic wobble.
struct ExponentialData
{
    std::vector<double> t, y;
    explicit ExponentialData(double a, double b, double wobble = 0.01)
    {
        for (int i = 0; i < 24; ++i) {
            t.push_back(0.25 * i);
            y.push_back(a * std::exp(-b * t.back()) + wobble * std::sin(1.7 * i));
        }
    }
    Functional Objective() const
    {
        return Functional(2, static_cast<int>(t.size()), [this](const TVector<double>& x) {
            TVector<double> e(static_cast<int>(t.size()));
            for (int i = 0; i < e.Size(); ++i)
                e[i] =
                    x[0] * std::exp(-x[1] * t[static_cast<std::size_t>(i)]) - y[static_cast<std::size_t>(i)];
            return e;
        });
    }
};

/// Runs f with the debug output captured and returns what was written.
template <typename F> std::string Captured(F f)
{
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

int Count(const std::string& text, const std::string& needle)
{
    int n = 0;
    for (std::size_t p = text.find(needle); p != std::string::npos; p = text.find(needle, p + 1))
        ++n;
    return n;
}

// --- Results of one descent ------------------------------------------------------------------------

TEST(CNLSSolverResult, TextsAreTheFixedTable)
{
    EXPECT_STREQ(CNLSSolver::GetResultText(CNLSSolver::SmallGradient), "small gradient (++)");
    EXPECT_STREQ(CNLSSolver::GetResultText(CNLSSolver::SmallStepSize), "small step size (++)");
    EXPECT_STREQ(CNLSSolver::GetResultText(CNLSSolver::MaxIterExceeded), "maxiter exceeded (-)");
    EXPECT_STREQ(CNLSSolver::GetResultText(CNLSSolver::AlmostSingularMatrix), "almost singular matrix (-)");
    EXPECT_STREQ(CNLSSolver::GetResultText(CNLSSolver::LSSolutionFailed), "LS solution failed (--)");
    EXPECT_STREQ(CNLSSolver::GetResultText(CNLSSolver::ConstraintsViolated), "constraints violated (-)");
    EXPECT_STREQ(CNLSSolver::GetResultText(static_cast<CNLSSolver::EResult>(6)), "");
    EXPECT_STREQ(CNLSSolver::GetResultText(static_cast<CNLSSolver::EResult>(-1)), "");
}

TEST(CNLSSolverResult, ZeroIterationsEvaluatesTheStartOnly)
{
    Functional f = Offsets({1.0, 2.0});
    CNLSSolver solver(f, false, 0);
    TVector<double> x = Vec({4.0, 6.0});
    double rmse = -1.0;
    CNLSSolver::EResult r{};
    const std::string log = Captured([&] { r = solver.Run(x, rmse, 0, 1e-3, 0, CNLSSolver::Gibbs); });
    EXPECT_EQ(r, CNLSSolver::MaxIterExceeded);
    EXPECT_EQ(Std(x), (std::vector<double>{4.0, 6.0}));
    EXPECT_DOUBLE_EQ(rmse, std::sqrt((9.0 + 16.0) / 2.0));
    const std::string value = Format("%g", rmse);
    EXPECT_EQ(log, "(NLS) iter. 0: residual RMSE=" + value +
                       "\n(NLS) stopped after 0 iterations ('maxiter exceeded (-)', residual RMSE=" + value +
                       ")\n");
    // A negative count is taken as 0.
    x = Vec({4.0, 6.0});
    solver.SetLogging(false);
    EXPECT_EQ(solver.Run(x, rmse, -3, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::MaxIterExceeded);
    EXPECT_EQ(Std(x), (std::vector<double>{4.0, 6.0}));
}

TEST(CNLSSolverResult, ExactStartStopsAtTheFirstIteration)
{
    Functional f = Offsets({1.0, 2.0, 3.0});
    CNLSSolver solver(f, false, 0);
    TVector<double> x = Vec({1.0, 2.0, 3.0});
    double rmse = -1.0;
    CNLSSolver::EResult r{};
    const std::string log = Captured([&] { r = solver.Run(x, rmse, 50, 1e-3, 0, CNLSSolver::Gibbs); });
    EXPECT_EQ(r, CNLSSolver::SmallGradient);
    EXPECT_EQ(rmse, 0.0);
    EXPECT_EQ(Std(x), (std::vector<double>{1.0, 2.0, 3.0}));
    EXPECT_EQ(log, "(NLS) iter. 0: residual RMSE=0\n"
                   "(NLS) stopped after 1 iterations ('small gradient (++)', residual RMSE=0)\n");
}

TEST(CNLSSolverResult, AllParametersFixedGiveTheParticularSolution)
{
    Functional f = Offsets({1.0, 2.0});
    ASSERT_TRUE(f.AddEquality(0, 5.0));
    ASSERT_TRUE(f.AddEquality(Vec({1.0, 1.0}), 12.0));
    CNLSSolver solver(f, false, 0);
    solver.SetLogging(false);
    TVector<double> x = Vec({0.0, 0.0});
    double rmse = -1.0;
    EXPECT_EQ(solver.Run(x, rmse, 20, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::SmallGradient);
    EXPECT_EQ(Std(x), (std::vector<double>{5.0, 7.0}));
    EXPECT_DOUBLE_EQ(rmse, std::sqrt((16.0 + 25.0) / 2.0));

    // Bounds on fixed parameters have all-zero rows in the free variables: a satisfied one changes
    // nothing, a violated one can't be repaired by the program over no variables.
    f.AddUpperBound(1, 8.0);
    x = Vec({0.0, 0.0});
    EXPECT_EQ(solver.Run(x, rmse, 20, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::SmallGradient);
    EXPECT_EQ(Std(x), (std::vector<double>{5.0, 7.0}));
    f.AddUpperBound(0, 4.0);
    x = Vec({0.0, 0.0});
    EXPECT_EQ(solver.Run(x, rmse, 20, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::ConstraintsViolated);
    EXPECT_EQ(x.Size(), 0);
}

TEST(CNLSSolverResult, EachIterationCostsOneErrorAndOneJacobian)
{
    // Rosenbrock residuals: no convergence within three iterations, so every iteration runs whole.
    Functional f(2, 2, [](const TVector<double>& x) {
        return Vec({10.0 * (x[1] - x[0] * x[0]), 1.0 - x[0]});
    });
    CNLSSolver solver(f, false, 0);
    solver.SetLogging(false);
    TVector<double> x = Vec({-1.2, 1.0});
    double rmse = 0.0;
    EXPECT_EQ(solver.Run(x, rmse, 3, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::MaxIterExceeded);
    // Start: one Error and a Jacobian of four Error calls per free variable; the same per iteration,
    // whether the trial step is accepted or not.
    EXPECT_EQ(f.points.size(), 4u * (1 + 4 * 2));
}

TEST(CNLSSolverResult, AStepLongerThanTheIterateBy2To52IsSingular)
{
    // From z = 0 the bound is (0 + e2) * 2^52 = 2: the exact step to 10 counts as an explosion, and
    // x stays the last accepted iterate.
    Functional f = Offsets({10.0});
    CNLSSolver solver(f, false, 0);
    solver.SetLogging(false);
    TVector<double> x = Vec({0.0});
    double rmse = 0.0;
    EXPECT_EQ(solver.Run(x, rmse, 20, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::AlmostSingularMatrix);
    EXPECT_EQ(x[0], 0.0);
    EXPECT_DOUBLE_EQ(rmse, 10.0);
    // From a start of the same scale the same problem converges.
    x = Vec({1.0});
    EXPECT_LE(solver.Run(x, rmse, 20, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::SmallStepSize);
    EXPECT_NEAR(x[0], 10.0, 1e-12);
}

TEST(CNLSSolverResult, ResidualsThatCannotBeSolvedFailTheLeastSquaresStep)
{
    // No residual at all: 4 at once, with the free values in x and rmse unwritten.
    Functional empty(2, 0, [](const TVector<double>&) { return TVector<double>(); });
    CNLSSolver solver(empty, false, 0);
    solver.SetLogging(false);
    TVector<double> x = Vec({1.0, 2.0});
    double rmse = -7.0;
    EXPECT_EQ(solver.Run(x, rmse, 10, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::LSSolutionFailed);
    EXPECT_EQ(rmse, -7.0);
    EXPECT_EQ(Std(x), (std::vector<double>{1.0, 2.0}));

    // A residual that turns NaN beyond x = 2: the trial step is rejected, never accepted, and a
    // NaN Jacobian at the start makes the damped system unsolvable.
    Functional nan(1, 1, [](const TVector<double>& x) {
        return Vec({x[0] > 0.5 ? std::numeric_limits<double>::quiet_NaN() : x[0] - 3.0});
    });
    CNLSSolver nanSolver(nan, false, 0);
    nanSolver.SetLogging(false);
    x = Vec({0.5});
    EXPECT_EQ(nanSolver.Run(x, rmse, 10, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::LSSolutionFailed);
    EXPECT_EQ(x[0], 0.5);
    EXPECT_DOUBLE_EQ(rmse, 2.5);

    // A residual vector of the wrong length, and an x of the wrong length.
    Functional shortRows(1, 3, [](const TVector<double>& x) { return Vec({x[0]}); });
    CNLSSolver shortSolver(shortRows, false, 0);
    shortSolver.SetLogging(false);
    x = Vec({1.0});
    EXPECT_EQ(shortSolver.Run(x, rmse, 10, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::LSSolutionFailed);
    TVector<double> wrong = Vec({1.0, 2.0});
    rmse = -7.0;
    EXPECT_EQ(shortSolver.Run(wrong, rmse, 10, 1e-3, 3, CNLSSolver::Gibbs), CNLSSolver::LSSolutionFailed);
    EXPECT_EQ(Std(wrong), (std::vector<double>{1.0, 2.0}));
    EXPECT_EQ(rmse, -7.0);
}

TEST(CNLSSolverResult, InfeasibleConstraintsViolate)
{
    Functional f = Offsets({0.0, 0.0});
    f.AddBounds(0, 2.0, 1.0); // 2 <= x0 <= 1
    CNLSSolver solver(f, false, 0);
    TVector<double> x = Vec({0.0, 0.0});
    double rmse = -7.0;
    CNLSSolver::EResult r{};
    const std::string log = Captured([&] { r = solver.Run(x, rmse, 10, 1e-3, 0, CNLSSolver::Gibbs); });
    EXPECT_EQ(r, CNLSSolver::ConstraintsViolated);
    EXPECT_EQ(log, "(NLS) infeasible constraints detected\n");
    EXPECT_EQ(rmse, -7.0);
    EXPECT_EQ(x.Size(), 2);

    // Satisfiable only by negative values: the program's x >= 0 makes it infeasible as well.
    Functional negative = Offsets({-2.0});
    negative.AddBounds(0, -3.0, -1.0);
    CNLSSolver negativeSolver(negative, false, 0);
    x = Vec({0.0});
    const std::string log2 =
        Captured([&] { r = negativeSolver.Run(x, rmse, 10, 1e-3, 0, CNLSSolver::Gibbs); });
    EXPECT_EQ(r, CNLSSolver::ConstraintsViolated);
    EXPECT_EQ(log2, "(NLS) infeasible constraints detected\n");

    // Free-variable form: the kernel of the equalities fixes x0, and a bound on x0 contradicts it.
    Functional fixed = Offsets({0.0, 0.0});
    ASSERT_TRUE(fixed.AddEquality(0, 4.0));
    fixed.AddUpperBound(0, 3.0);
    CNLSSolver fixedSolver(fixed, false, 0);
    fixedSolver.SetLogging(false);
    x = Vec({4.0, 0.0});
    EXPECT_EQ(fixedSolver.Run(x, rmse, 10, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::ConstraintsViolated);
    ASSERT_EQ(x.Size(), 1); // the free values only
}

TEST(CNLSSolverResult, InfeasibleStartIsRepairedByTheLinearProgram)
{
    Functional f = Offsets({2.5});
    f.AddBounds(0, 1.0, 3.0);
    CNLSSolver solver(f, false, 0);
    TVector<double> x = Vec({10.0});
    double rmse = 0.0;
    CNLSSolver::EResult r{};
    const std::string log = Captured([&] { r = solver.Run(x, rmse, 50, 1e-3, 0, CNLSSolver::Gibbs); });
    EXPECT_LE(r, CNLSSolver::SmallStepSize);
    EXPECT_NEAR(x[0], 2.5, 1e-12);
    // The smallest feasible value, moved inward, printed as the start, then the descent from there.
    EXPECT_EQ(log.rfind("(NLS) constructed initial feasible solution\n1-vector:\n\t1;\n(NLS) iter. 0: "
                        "residual RMSE=1.5\n",
                        0),
              0u)
        << log;

    // The printed start appears even with logging off.
    solver.SetLogging(false);
    x = Vec({10.0});
    const std::string quiet = Captured([&] { solver.Run(x, rmse, 50, 1e-3, 0, CNLSSolver::Gibbs); });
    EXPECT_EQ(quiet, "1-vector:\n\t1;\n");
}

TEST(CNLSSolverResult, ConstraintRowsThatCannotBeEvaluatedAreNotDropped)
{
    Functional f = Offsets({1.0, 1.0});
    f.SetInequalities(Mat({{1.0, std::numeric_limits<double>::quiet_NaN()}}), Vec({1.0}));
    CNLSSolver solver(f, false, 0);
    solver.SetLogging(false);
    TVector<double> x = Vec({0.0, 0.0});
    double rmse = 0.0;
    EXPECT_EQ(solver.Run(x, rmse, 10, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::ConstraintsViolated);
}

// --- Constrained fits ------------------------------------------------------------------------------

TEST(CNLSSolverFit, OptimumOnABoundEndsOnTheBound)
{
    // Unconstrained the decay rate would be 0.7; capped at 0.5 the optimum has b on the bound and a
    // from the one-dimensional normal equation at that b.
    const ExponentialData data(3.0, 0.7);
    Functional f = data.Objective();
    f.AddUpperBound(1, 0.5);
    f.AddLowerBound(1, 0.0);
    CNLSSolver solver(f, false, 0);
    solver.SetLogging(false);
    TVector<double> x = Vec({1.0, 0.1});
    double rmse = 0.0;
    const CNLSSolver::EResult r = solver.Run(x, rmse, 200, 1e-3, 0, CNLSSolver::Gibbs);
    EXPECT_LE(r, CNLSSolver::SmallStepSize);
    EXPECT_NEAR(x[1], 0.5, 4 * kEps);
    EXPECT_LE(x[1], 0.5 + kEps); // feasible up to the last bit of the cut
    double num = 0.0, den = 0.0;
    for (std::size_t i = 0; i < data.t.size(); ++i) {
        const double basis = std::exp(-0.5 * data.t[i]);
        num += basis * data.y[i];
        den += basis * basis;
    }
    EXPECT_NEAR(x[0], num / den, 1e-9);
}

TEST(CNLSSolverFit, CornerOptimumEndsWithAStepCutToNothing)
{
    // The target (2, 2) lies outside the unit box: the iterate reaches the corner, the projected step
    // runs into the other plane and is cut to nothing.
    Functional f = Offsets({2.0, 2.0});
    f.AddBounds(0, 0.0, 1.0);
    f.AddBounds(1, 0.0, 1.0);
    CNLSSolver solver(f, false, 0);
    solver.SetLogging(false);
    TVector<double> x = Vec({0.2, 0.5});
    double rmse = 0.0;
    EXPECT_EQ(solver.Run(x, rmse, 100, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::SmallStepSize);
    EXPECT_EQ(Std(x), (std::vector<double>{1.0, 1.0}));
    EXPECT_DOUBLE_EQ(rmse, 1.0);
}

TEST(CNLSSolverFit, AUniformStdDevChangesNeitherSolutionNorConvergence)
{
    // Scaling every standard deviation scales the weighted objective, not its minimiser; the gain
    // ratio must not see the scale either, or the damping runs away for small sigma.
    const ExponentialData data(3.0, 0.7);
    struct Scaled : Functional
    {
        double sigma;
        Scaled(const Functional& f, double sigma) : Functional(f), sigma(sigma) {}
        TVector<double> StdDev() override
        {
            TVector<double> s(GetNumMeasurements());
            for (int i = 0; i < s.Size(); ++i)
                s[i] = sigma;
            return s;
        }
    };
    // Independent: Gauss-Newton with the analytic derivatives, from near the solution.
    Eigen::Vector2d p(3.0, 0.7);
    for (int k = 0; k < 50; ++k) {
        Eigen::MatrixXd J(data.t.size(), 2);
        Eigen::VectorXd e(data.t.size());
        for (std::size_t i = 0; i < data.t.size(); ++i) {
            const double q = std::exp(-p[1] * data.t[i]);
            J(static_cast<Eigen::Index>(i), 0) = q;
            J(static_cast<Eigen::Index>(i), 1) = -p[0] * data.t[i] * q;
            e[static_cast<Eigen::Index>(i)] = p[0] * q - data.y[i];
        }
        p -= J.colPivHouseholderQr().solve(e);
    }
    for (double sigma : {1.0, 1e-3, 1e3}) {
        Scaled f(data.Objective(), sigma);
        CNLSSolver solver(f, false, 0);
        solver.SetLogging(false);
        TVector<double> x = Vec({1.0, 0.1});
        double rmse = 0.0;
        EXPECT_LE(solver.Run(x, rmse, 60, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::SmallStepSize) << sigma;
        // The finite-difference Jacobian and the absolute stopping tests leave about 1e-9.
        EXPECT_NEAR(x[0], p[0], 1e-8) << sigma;
        EXPECT_NEAR(x[1], p[1], 1e-8) << sigma;
    }
}

TEST(CNLSSolverFit, APlaneOnceReachedStaysActive)
{
    // There is no active set: a start on the bound x <= 10 keeps every step on it, even though the
    // optimum 3 lies inside.
    Functional f = Offsets({3.0});
    f.AddBounds(0, 0.0, 10.0);
    CNLSSolver solver(f, false, 0);
    solver.SetLogging(false);
    TVector<double> x = Vec({10.0});
    double rmse = 0.0;
    EXPECT_EQ(solver.Run(x, rmse, 50, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::SmallStepSize);
    EXPECT_EQ(x[0], 10.0);
    // Just inside, the same fit reaches the optimum.
    x = Vec({9.5});
    EXPECT_LE(solver.Run(x, rmse, 50, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::SmallStepSize);
    EXPECT_NEAR(x[0], 3.0, 1e-12);
}

/// y = c0 + c1 t + c2 t^2 with c0 + c1 + c2 = 1 and c2 = 2 c0, with the total derivative in z.
class ConstrainedQuadratic : public CNLSObjectiveFunction
{
public:
    std::vector<double> t, y;
    ConstrainedQuadratic() : CNLSObjectiveFunction(3, 15)
    {
        for (int i = 0; i < 15; ++i) {
            t.push_back(-1.0 + 0.2 * i);
            y.push_back(0.3 - 1.1 * t.back() + 2.4 * t.back() * t.back() + 0.05 * std::cos(3.0 * i));
        }
    }
    TVector<double> Error(const TVector<double>& c) override
    {
        TVector<double> e(15);
        for (int i = 0; i < 15; ++i)
            e[i] = c[0] + c[1] * t[i] + c[2] * t[i] * t[i] - y[i];
        return e;
    }
    TMatrix<double> Jacobian(const TVector<double>& z) override
    {
        const TMatrix<double>& K = GetEqualityConstraintsKernel();
        TMatrix<double> J(15, z.Size());
        for (int i = 0; i < 15; ++i)
            for (int j = 0; j < z.Size(); ++j)
                J(i, j) = K(0, j + 1) + K(1, j + 1) * t[i] + K(2, j + 1) * t[i] * t[i];
        return J;
    }
};

TEST(CNLSSolverFit, EqualitiesHoldAtTheSolution)
{
    ConstrainedQuadratic f;
    ASSERT_TRUE(f.AddEquality(Vec({1.0, 1.0, 1.0}), 1.0));
    ASSERT_TRUE(f.AddEquality(Vec({-2.0, 0.0, 1.0}), 0.0));
    CNLSSolver solver(f, false, 0);
    solver.SetLogging(false);
    TVector<double> x = Vec({0.5, 0.5, 0.5});
    double rmse = 0.0;
    EXPECT_LE(solver.Run(x, rmse, 100, 1e-3, 0, CNLSSolver::Gibbs), CNLSSolver::SmallStepSize);
    EXPECT_NEAR(x[0] + x[1] + x[2], 1.0, 1e-12);
    EXPECT_NEAR(x[2] - 2.0 * x[0], 0.0, 1e-12);

    // Independent: the KKT system of the equality-constrained linear least squares problem.
    Eigen::MatrixXd kkt = Eigen::MatrixXd::Zero(5, 5);
    Eigen::VectorXd rhs = Eigen::VectorXd::Zero(5);
    Eigen::MatrixXd X(15, 3);
    Eigen::VectorXd Y(15);
    for (int i = 0; i < 15; ++i) {
        X.row(i) << 1.0, f.t[i], f.t[i] * f.t[i];
        Y[i] = f.y[i];
    }
    Eigen::MatrixXd C(2, 3);
    C << 1, 1, 1, -2, 0, 1;
    kkt.topLeftCorner(3, 3) = X.transpose() * X;
    kkt.topRightCorner(3, 2) = C.transpose();
    kkt.bottomLeftCorner(2, 3) = C;
    rhs.head(3) = X.transpose() * Y;
    rhs.tail(2) << 1.0, 0.0;
    const Eigen::VectorXd solution = kkt.fullPivLu().solve(rhs);
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(x[i], solution[i], 1e-10) << "coefficient " << i;
}

// --- Robust reweighting ----------------------------------------------------------------------------

TEST(CNLSSolverRobust, TukeyWeightsWithAMadScale)
{
    Functional f = Offsets({0.0, 0.0, 0.0, 0.0, 0.0});
    CNLSSolver solver(f, true, 0);
    // Median 1, absolute deviations {1, 0, 0, 1, 9}: MAD 1, s = 1 / 0.6745.
    const TVector<double> e = Vec({0.0, 1.0, 1.0, 2.0, 10.0});
    const TVector<double> w = Access::Weight(solver, e);
    const double s = 1.0 / 0.6745;
    EXPECT_EQ(w[0], 1.0); // u = 0: the limit of psi(u) / u
    for (int i = 1; i < 4; ++i) {
        const double r = e[i] / s / 4.6851;
        EXPECT_NEAR(w[i], (1 - r * r) * (1 - r * r), 1e-15) << i;
    }
    EXPECT_EQ(w[4], 0.0); // |u| = 6.7 > 4.6851

    // Even size: the median is the mean of the two middle values; here the MAD is 1.5.
    Functional g = Offsets({0.0, 0.0, 0.0, 0.0});
    CNLSSolver even(g, true, 0);
    const TVector<double> we = Access::Weight(even, Vec({-2.0, 1.0, 3.0, 4.0}));
    const double r = (-2.0 - 0.0) / (1.5 / 0.6745) / 4.6851 + 0.0;
    EXPECT_NEAR(we[0], (1 - r * r) * (1 - r * r), 1e-15);

    // A zero MAD (most residuals equal) and a NaN residual: the plain weights, never NaN.
    EXPECT_EQ(Std(Access::Weight(solver, Vec({3.0, 3.0, 3.0, 0.0, 8.0}))),
              (std::vector<double>{1.0, 1.0, 1.0, 1.0, 1.0}));
    EXPECT_EQ(Std(Access::Weight(solver, Vec({1.0, std::nan(""), 2.0, 3.0, 4.0}))),
              (std::vector<double>{1.0, 1.0, 1.0, 1.0, 1.0}));

    // Without robustness the weights are 1 / sigma^2 whatever the residuals.
    CNLSSolver plain(f, false, 0);
    EXPECT_EQ(Std(Access::Weight(plain, e)), (std::vector<double>{1.0, 1.0, 1.0, 1.0, 1.0}));
}

TEST(CNLSSolverRobust, InfluenceFunctions)
{
    Functional f = Offsets({0.0});
    CNLSSolver solver(f, true, 0);
    EXPECT_EQ(Access::Tukey(solver, 0.0), 0.0);
    EXPECT_EQ(Access::Tukey(solver, 4.6852), 0.0);
    EXPECT_EQ(Access::Tukey(solver, -5.0), 0.0);
    EXPECT_NEAR(Access::Tukey(solver, 2.0), 2.0 * std::pow(1 - std::pow(2.0 / 4.6851, 2), 2), 1e-15);
    EXPECT_NEAR(Access::Tukey(solver, -2.0), -Access::Tukey(solver, 2.0), 0.0);
    EXPECT_EQ(Access::Huber(solver, 1.0), 1.0);
    EXPECT_EQ(Access::Huber(solver, 3.0), 1.345);
    EXPECT_EQ(Access::Huber(solver, -3.0), -1.345);
}

TEST(CNLSSolverRobust, RecoversALineDespiteGrossOutliers)
{
    // y = 2 + 0.5 t with Gaussian noise of 0.05, and every tenth point pushed up by 5 to 10.
    std::mt19937_64 engine(47110815);
    std::normal_distribution<double> noise(0.0, 0.05);
    std::vector<double> t, y;
    for (int i = 0; i < 100; ++i) {
        t.push_back(0.1 * i);
        y.push_back(2.0 + 0.5 * t.back() + noise(engine) + (i % 10 == 3 ? 5.0 + 0.05 * i : 0.0));
    }
    auto line = [&](const TVector<double>& x) {
        TVector<double> e(100);
        for (int i = 0; i < 100; ++i)
            e[i] = x[0] + x[1] * t[static_cast<std::size_t>(i)] - y[static_cast<std::size_t>(i)];
        return e;
    };
    Functional f(2, 100, line);
    double rmse = 0.0;

    CNLSSolver plain(f, false, 0);
    plain.SetLogging(false);
    TVector<double> xp = Vec({1.0, 1.0});
    plain.Run(xp, rmse, 200, 1e-3, 0, CNLSSolver::Gibbs);
    EXPECT_GT(std::abs(xp[0] - 2.0), 0.3) << "the plain fit is pulled by the outliers";

    // From the same start, and from the plain solution itself.
    CNLSSolver robust(f, true, 0);
    robust.SetLogging(false);
    for (const TVector<double>& start : {Vec({1.0, 1.0}), xp}) {
        TVector<double> xr = start;
        const CNLSSolver::EResult r = robust.Run(xr, rmse, 200, 1e-3, 0, CNLSSolver::Gibbs);
        EXPECT_LE(r, CNLSSolver::MaxIterExceeded);
        // Standard errors of the inlier fit are about 0.01 and 0.002.
        EXPECT_NEAR(xr[0], 2.0, 0.04);
        EXPECT_NEAR(xr[1], 0.5, 0.008);
    }
}

// --- Geometry of the constraints -------------------------------------------------------------------

TEST(CNLSSolverConstraints, CutBackStopsOnTheNearestPlaneAndProjectsOnIt)
{
    Functional f = Offsets({0.0, 0.0});
    CNLSSolver solver(f, false, 0);
    // 0 <= z0 <= 1, 0 <= z1 <= 1.
    const TMatrix<double> A = Mat({{-1, 0}, {1, 0}, {0, -1}, {0, 1}});
    const TVector<double> b = Vec({0, 1, 0, 1});

    // From (0.5, 0.5) the step (2, 1) meets z0 = 1 after a length of sqrt(1.25): it ends on the plane.
    TVector<double> h = Access::CutBack(solver, A, b, Vec({0.5, 0.5}), Vec({2.0, 1.0}));
    EXPECT_NEAR(h[0], 0.5, 1e-15);
    EXPECT_NEAR(h[1], 0.25, 1e-15);
    // A step that ends inside is kept as it is.
    h = Access::CutBack(solver, A, b, Vec({0.5, 0.5}), Vec({0.1, -0.2}));
    EXPECT_EQ(Std(h), (std::vector<double>{0.1, -0.2}));
    // On the plane z0 = 1 the step is projected onto it, then cut at z1 = 1.
    h = Access::CutBack(solver, A, b, Vec({1.0, 0.5}), Vec({1.0, 1.0}));
    EXPECT_EQ(h[0], 0.0);
    EXPECT_NEAR(h[1], 0.5, 1e-15);
    // Leaving the plane inward is projected too, since the distance there is 0.
    h = Access::CutBack(solver, A, b, Vec({1.0, 0.5}), Vec({-0.2, 0.1}));
    EXPECT_EQ(h[0], 0.0);
    EXPECT_NEAR(h[1], 0.1, 1e-16);
    // In a corner the projected step runs into the other plane: nothing is left.
    h = Access::CutBack(solver, A, b, Vec({1.0, 1.0}), Vec({1.0, 2.0}));
    EXPECT_EQ(h.Norm(), 0.0);
    // A zero step stays zero.
    EXPECT_EQ(Access::CutBack(solver, A, b, Vec({0.5, 0.5}), Vec({0.0, 0.0})).Norm(), 0.0);
}

TEST(CNLSSolverConstraints, DistancesAlongALine)
{
    Functional f = Offsets({0.0, 0.0});
    CNLSSolver solver(f, false, 0);
    // The triangle z0 >= 0, z1 >= 0, z0 + z1 <= 2.
    const TMatrix<double> A = Mat({{-1, 0}, {0, -1}, {1, 1}});
    const TVector<double> b = Vec({0, 0, 2});
    double backward = 0.0, forward = 0.0;
    Access::Distances(solver, A, b, Vec({0.5, 0.5}), Vec({1.0, 0.0}), backward, forward);
    EXPECT_DOUBLE_EQ(backward, 0.5);
    EXPECT_DOUBLE_EQ(forward, 1.0);
    const double r = std::sqrt(0.5);
    Access::Distances(solver, A, b, Vec({0.5, 0.5}), Vec({r, r}), backward, forward);
    EXPECT_NEAR(backward, std::sqrt(0.5), 1e-15);
    EXPECT_NEAR(forward, std::sqrt(0.5), 1e-15);
    // Only the half-plane z0 >= 0: unbounded forward, and a parallel direction is unbounded both ways.
    const TMatrix<double> half = Mat({{-1, 0}});
    Access::Distances(solver, half, Vec({0.0}), Vec({0.5, 0.5}), Vec({1.0, 0.0}), backward, forward);
    EXPECT_DOUBLE_EQ(backward, 0.5);
    EXPECT_EQ(forward, kInf);
    Access::Distances(solver, half, Vec({0.0}), Vec({0.5, 0.5}), Vec({0.0, 1.0}), backward, forward);
    EXPECT_EQ(backward, kInf);
    EXPECT_EQ(forward, kInf);
}

TEST(CNLSSolverConstraints, FeasibilityShrinkAndConsistency)
{
    Functional f = Offsets({0.0, 0.0});
    CNLSSolver solver(f, false, 0);
    const TMatrix<double> A = Mat({{3, 4}, {0, 0}});
    TVector<double> b = Vec({10, 1});
    EXPECT_TRUE(Access::Feasible(solver, A, b, Vec({2.0, 1.0})));  // 10 <= 10: equality passes
    EXPECT_FALSE(Access::Feasible(solver, A, b, Vec({2.0, 1.5}))); // 12 > 10
    TMatrix<double> shrunk(A);
    Access::Shrink(solver, shrunk, b, 0.5);
    EXPECT_DOUBLE_EQ(b[0], 7.5); // the plane 2 from the origin moves to 1.5
    EXPECT_EQ(b[1], 1.0);        // a row of length 0 is left as it is

    EXPECT_TRUE(Access::Consistent(solver, Mat({{1, 1}, {2, 2}}), Vec({1, 2})));
    EXPECT_FALSE(Access::Consistent(solver, Mat({{1, 1}, {2, 2}}), Vec({1, 3})));
    EXPECT_TRUE(Access::Consistent(solver, Mat({{1, 0}, {0, 1}}), Vec({5, -5})));
    EXPECT_FALSE(Access::Consistent(solver, Mat({{1, 0}}), Vec({5, -5})));
}

TEST(CNLSSolverConstraints, SamplesStayInsideAndUnboundedSegmentsAreRejected)
{
    Functional f = Offsets({0.0, 0.0});
    CNLSSolver solver(f, false, 0);
    const TMatrix<double> A = Mat({{-1, 0}, {0, -1}, {1, 1}});
    const TVector<double> b = Vec({0, 0, 2});
    for (CNLSSolver::ESampler sampler : {CNLSSolver::Gibbs, CNLSSolver::HitAndRun}) {
        std::mt19937_64 engine(47110815);
        TVector<double> x = Vec({0.5, 0.5});
        double sum0 = 0.0, sum1 = 0.0;
        const int steps = 20000;
        for (int k = 0; k < steps; ++k) {
            Access::Sample(solver, sampler, A, b, engine, x);
            ASSERT_TRUE(Access::Feasible(solver, A, b, x)) << "step " << k;
            sum0 += x[0];
            sum1 += x[1];
        }
        // Uniform on the triangle: the centroid (2/3, 2/3).
        EXPECT_NEAR(sum0 / steps, 2.0 / 3.0, 0.03) << sampler;
        EXPECT_NEAR(sum1 / steps, 2.0 / 3.0, 0.03) << sampler;
    }
    // The half-plane z0 >= 0 leaves z1 unbounded: the sample is NaN, never infinite.
    const TMatrix<double> half = Mat({{-1, 0}});
    for (CNLSSolver::ESampler sampler : {CNLSSolver::Gibbs, CNLSSolver::HitAndRun}) {
        std::mt19937_64 engine(47110815);
        TVector<double> x = Vec({0.5, 0.5});
        Access::Sample(solver, sampler, half, Vec({0.0}), engine, x);
        EXPECT_TRUE(std::isnan(x[0]) && std::isnan(x[1])) << sampler;
    }
}

// --- Multistart ------------------------------------------------------------------------------------

/// y = sin(w t) at 40 points: many local minima in w; the data are exact for w = 4.1.
Functional SineFrequency(std::vector<double>& t)
{
    for (int i = 0; i < 40; ++i)
        t.push_back(0.15 * i);
    return Functional(1, 40, [&t](const TVector<double>& x) {
        TVector<double> e(40);
        for (int i = 0; i < 40; ++i)
            e[i] = std::sin(x[0] * t[static_cast<std::size_t>(i)]) -
                   std::sin(4.1 * t[static_cast<std::size_t>(i)]);
        return e;
    });
}

TEST(CNLSSolverMultistart, FindsTheGlobalOptimumFromAPoorStart)
{
    std::vector<double> t;
    Functional f = SineFrequency(t);
    f.AddBounds(0, 0.5, 6.0);
    CNLSSolver solver(f, false, 0);
    double rmse = 0.0;
    TVector<double> x = Vec({1.0});
    solver.SetLogging(false);
    solver.Run(x, rmse, 200, 1e-3, 0, CNLSSolver::Gibbs);
    EXPECT_GT(rmse, 0.1) << "a single descent stays in a local minimum at w = " << x[0];

    for (CNLSSolver::ESampler sampler : {CNLSSolver::Gibbs, CNLSSolver::HitAndRun}) {
        x = Vec({1.0});
        solver.SetLogging(true);
        CNLSSolver::EResult r{};
        const std::string log = Captured([&] { r = solver.Run(x, rmse, 200, 1e-3, 30, sampler); });
        EXPECT_LE(r, CNLSSolver::SmallStepSize);
        EXPECT_NEAR(x[0], 4.1, 1e-10) << sampler;
        EXPECT_LE(rmse, 2.220446049250313e-15);
        EXPECT_NE(log.find("(NLS) obtained the best possible residual - omitting further multistart runs\n"),
                  std::string::npos);
        EXPECT_EQ(log.substr(log.size() - std::string("(NLS) final residual RMSE=").size() - 1 -
                             Format("%g", rmse).size()),
                  "(NLS) final residual RMSE=" + Format("%g", rmse) + "\n");
        EXPECT_LT(Count(log, "SAMPLING FOR MULTISTART RUN"), 30) << "the series stops once the fit is exact";
    }
}

TEST(CNLSSolverMultistart, NoExtraRunsWithoutInequalities)
{
    Functional f = Offsets({1.0, 2.0});
    CNLSSolver solver(f, false, 0);
    TVector<double> x = Vec({0.5, 0.5});
    double rmse = 0.0;
    const std::string log = Captured([&] { solver.Run(x, rmse, 50, 1e-3, 4, CNLSSolver::Gibbs); });
    TVector<double> y = Vec({0.5, 0.5});
    double rmseY = 0.0;
    const std::string single = Captured([&] { solver.Run(y, rmseY, 50, 1e-3, 0, CNLSSolver::Gibbs); });
    EXPECT_EQ(log, single + "(NLS) warning: skipping multistart (no inequality constraints!)\n");
    EXPECT_EQ(Std(x), Std(y));

    // numRuns of 0 is exactly one descent, with its log and nothing more.
    f.AddBounds(0, -5.0, 5.0);
    TVector<double> direct = Vec({0.5, 0.5});
    double rmseDirect = 0.0;
    const std::string descent = Captured([&] { Access::Descent(solver, direct, rmseDirect, 50, 1e-3); });
    y = Vec({0.5, 0.5});
    const std::string viaRun = Captured([&] { solver.Run(y, rmseY, 50, 1e-3, 0, CNLSSolver::Gibbs); });
    EXPECT_EQ(viaRun, descent);
    EXPECT_EQ(Std(y), Std(direct));
}

TEST(CNLSSolverMultistart, ExactFirstDescentSkipsSampling)
{
    Functional f = Offsets({1.0, 2.0});
    f.AddBounds(0, 0.0, 3.0);
    f.AddBounds(1, 0.0, 3.0);
    CNLSSolver solver(f, false, 0);
    TVector<double> x = Vec({1.0, 2.0});
    double rmse = -1.0;
    const std::string log = Captured([&] { solver.Run(x, rmse, 50, 1e-3, 5, CNLSSolver::Gibbs); });
    EXPECT_EQ(log, "(NLS) iter. 0: residual RMSE=0\n"
                   "(NLS) stopped after 1 iterations ('small gradient (++)', residual RMSE=0)\n"
                   "(NLS) obtained the best possible residual - omitting further multistart runs\n"
                   "(NLS) final residual RMSE=0\n");
    EXPECT_EQ(rmse, 0.0);
}

/// Residuals that ignore x: every descent stops at once with the same residual.
Functional Constant(int n)
{
    Functional f(n, 2, [](const TVector<double>&) { return Vec({1.0, -1.0}); });
    f.derivative = [](const TVector<double>& z) { return TMatrix<double>(2, z.Size()); };
    return f;
}

TEST(CNLSSolverMultistart, RunsWithoutFailuresAndEqualResidualsKeepTheFirst)
{
    Functional f = Constant(2);
    f.AddBounds(0, 0.0, 1.0);
    f.AddBounds(1, -1.0, 1.0);
    CNLSSolver solver(f, false, 0);
    TVector<double> x = Vec({0.25, 0.0});
    double rmse = 0.0;
    CNLSSolver::EResult r{};
    const std::string log = Captured([&] { r = solver.Run(x, rmse, 10, 1e-3, 3, CNLSSolver::Gibbs); });
    EXPECT_EQ(r, CNLSSolver::SmallGradient);
    EXPECT_EQ(Std(x), (std::vector<double>{0.25, 0.0})) << "an equal residual doesn't replace the first";
    EXPECT_EQ(rmse, 1.0);
    for (int run = 1; run <= 3; ++run)
        EXPECT_EQ(Count(log, "(NLS) SAMPLING FOR MULTISTART RUN " + std::to_string(run) + " OF 3 (try #1)\n"),
                  1);
    EXPECT_EQ(Count(log, "SAMPLING"), 3);
    EXPECT_EQ(Count(log, "(NLS) stopped after"), 4);
    EXPECT_EQ(Count(log, "omitting"), 0);
    EXPECT_EQ(Count(log, "aborted"), 0);

    // Each descent calls Error() once, at its start: the samples are feasible, differ from
    // each other and from x0, and are drawn in the order of the runs.
    ASSERT_EQ(f.points.size(), 4u);
    const std::vector<std::vector<double>>& starts = f.points;
    EXPECT_EQ(starts[0], (std::vector<double>{0.25, 0.0}));
    for (std::size_t k = 1; k < starts.size(); ++k) {
        EXPECT_NE(starts[k], starts[0]);
        EXPECT_NE(starts[k], starts[k - 1]);
        EXPECT_GE(starts[k][0], 0.0);
        EXPECT_LE(starts[k][0], 1.0);
        EXPECT_GE(starts[k][1], -1.0);
        EXPECT_LE(starts[k][1], 1.0);
    }
}

TEST(CNLSSolverMultistart, AnUnknownSamplerStartsEveryDescentAtX0)
{
    Functional f = Constant(2);
    f.AddBounds(0, 0.0, 1.0);
    f.AddBounds(1, -1.0, 1.0);
    CNLSSolver solver(f, false, 0);
    solver.SetLogging(false);
    TVector<double> x = Vec({0.25, 0.0});
    double rmse = 0.0;
    solver.Run(x, rmse, 10, 1e-3, 3, static_cast<CNLSSolver::ESampler>(9));
    ASSERT_EQ(f.points.size(), 4u);
    for (const auto& start : f.points)
        EXPECT_EQ(start, (std::vector<double>{0.25, 0.0}));
}

TEST(CNLSSolverMultistart, SamplesNeverLeaveTheBoxOrTurnInfinite)
{
    // x1 has no bound: Gibbs meets an unbounded segment in every warm-up attempt. No descent runs
    // from a sample, and no NaN or infinity reaches Error().
    Functional f = Constant(2);
    f.AddBounds(0, 0.0, 1.0);
    CNLSSolver solver(f, false, 0);
    TVector<double> x = Vec({0.5, 0.0});
    double rmse = 0.0;
    CNLSSolver::EResult r{};
    const std::string log = Captured([&] { r = solver.Run(x, rmse, 10, 1e-3, 2, CNLSSolver::Gibbs); });
    EXPECT_EQ(r, CNLSSolver::SmallGradient);
    EXPECT_EQ(Count(log, "(NLS) warmup failed.\n"), 2);
    EXPECT_EQ(f.points.size(), 1u);
    for (const auto& p : f.points)
        EXPECT_TRUE(std::isfinite(p[0]) && std::isfinite(p[1]));
    EXPECT_EQ(Std(x), (std::vector<double>{0.5, 0.0}));

    // An infeasible x0 with no sampling step fails every warm-up as well; the first descent from the
    // repaired start stands.
    Functional g = Constant(1);
    g.AddBounds(0, 1.0, 2.0);
    CNLSSolver second(g, false, 0);
    TVector<double> y = Vec({5.0});
    const std::string log2 =
        Captured([&] { r = second.Run(y, rmse, 10, 1e-3, 2, static_cast<CNLSSolver::ESampler>(5)); });
    EXPECT_EQ(Count(log2, "(NLS) warmup failed.\n"), 2);
    EXPECT_NEAR(y[0], 1.0, 1e-13);
}

/// Two residuals x0 - c and x0 - c - 2 with x1 fixed at 0.5 by an equality and bounded in [0, 1].
/// A descent from |x0| below about 0.1 takes a step of c >= (|x0| + e2) 2^52: "almost singular".
Functional Exploding(double c)
{
    Functional f(2, 2, [c](const TVector<double>& x) { return Vec({x[0] - c, x[0] - c - 2.0}); });
    f.derivative = [](const TVector<double>&) { return Mat({{1.0}, {1.0}}); };
    f.AddEquality(1, 0.5);
    f.AddBounds(1, 0.0, 1.0);
    return f;
}

struct LogLine
{
    enum Kind
    {
        Sampling,
        Failed,
        Other
    } kind;
    int run, of, attempt;
};

std::vector<LogLine> Parse(const std::string& log)
{
    std::vector<LogLine> lines;
    std::size_t start = 0;
    while (start < log.size()) {
        const std::size_t end = log.find('\n', start);
        const std::string line = log.substr(start, end - start);
        int run = 0, of = 0, attempt = 0;
        char tail = 0;
        if (std::sscanf(line.c_str(), "(NLS) SAMPLING FOR MULTISTART RUN %d OF %d (try #%d%c", &run, &of,
                        &attempt, &tail) == 4 &&
            tail == ')')
            lines.push_back({LogLine::Sampling, run, of, attempt});
        else if (std::sscanf(line.c_str(), "(NLS) multistart run #%d/#%d failed: close to singular matri%c",
                             &run, &of, &tail) == 3 &&
                 tail == 'x')
            lines.push_back({LogLine::Failed, run, of, 0});
        else if (line.rfind("(NLS) stopped", 0) != 0 && line.rfind("(NLS) iter.", 0) != 0)
            lines.push_back({LogLine::Other, 0, 0, 0});
        start = end + 1;
    }
    return lines;
}

TEST(CNLSSolverMultistart, FailedTriesRepeatTheRunAndSuccessResetsTheCount)
{
    Functional f = Exploding(4.5e14);
    CNLSSolver solver(f, false, 0);
    TVector<double> x = Vec({0.0, 0.5});
    double rmse = 0.0;
    CNLSSolver::EResult r{};
    const std::string log = Captured([&] { r = solver.Run(x, rmse, 20, 1e-3, 6, CNLSSolver::HitAndRun); });
    const std::vector<LogLine> lines = Parse(log);
    int failures = 0, successes = 0;
    int expectedRun = 1, expectedTry = 1;
    for (std::size_t k = 0; k < lines.size(); ++k) {
        if (lines[k].kind != LogLine::Sampling)
            continue;
        EXPECT_EQ(lines[k].run, expectedRun) << log;
        EXPECT_EQ(lines[k].attempt, expectedTry) << log;
        EXPECT_EQ(lines[k].of, 6);
        const bool failed = k + 1 < lines.size() && lines[k + 1].kind == LogLine::Failed;
        if (failed) {
            ++failures;
            EXPECT_EQ(lines[k + 1].run, expectedRun);
            ++expectedTry;
        } else {
            ++successes;
            ++expectedRun;
            expectedTry = 1;
        }
    }
    EXPECT_GT(failures, 0) << log;
    EXPECT_GT(successes, 0) << log;
    // The best run converged at x0 = c + 1, with residuals of 1 each.
    EXPECT_NE(r, CNLSSolver::AlmostSingularMatrix);
    EXPECT_DOUBLE_EQ(x[0], 4.5e14 + 1.0);
    EXPECT_EQ(x[1], 0.5);
    EXPECT_DOUBLE_EQ(rmse, 1.0);
}

TEST(CNLSSolverMultistart, FiveFailedTriesAbortTheSeries)
{
    // With c = 1e20 every descent from a sample explodes: the rows bound only the fixed x1, so no
    // step is cut back, and the samples keep |x0| far below c / 2^52.
    Functional f = Exploding(1e20);
    CNLSSolver solver(f, false, 0);
    TVector<double> x = Vec({0.0, 0.5});
    double rmse = 0.0;
    CNLSSolver::EResult r{};
    const std::string log = Captured([&] { r = solver.Run(x, rmse, 20, 1e-3, 3, CNLSSolver::HitAndRun); });
    for (int attempt = 1; attempt <= 5; ++attempt)
        EXPECT_EQ(
            Count(log, "(NLS) SAMPLING FOR MULTISTART RUN 1 OF 3 (try #" + std::to_string(attempt) + ")\n"),
            1)
            << log;
    EXPECT_EQ(Count(log, "(NLS) multistart run #1/#3 failed: close to singular matrix\n"), 5);
    EXPECT_EQ(Count(log, "RUN 2 OF 3"), 0);
    EXPECT_NE(log.find("(NLS) multistart series aborted (too many errors)\n(NLS) final residual RMSE="),
              std::string::npos);
    // The best so far: the first descent, which exploded at once and kept its start.
    EXPECT_EQ(r, CNLSSolver::AlmostSingularMatrix);
    EXPECT_EQ(Std(x), (std::vector<double>{0.0, 0.5}));
}

TEST(CNLSSolverMultistart, AnInfeasibleFirstDescentIsNeverTheBest)
{
    // Bounds that contradict each other: every descent violates them, and the series returns the
    // caller's start with an infinite residual.
    Functional f = Offsets({1.0});
    f.AddBounds(0, 2.0, 1.0);
    CNLSSolver solver(f, false, 0);
    solver.SetLogging(false);
    TVector<double> x = Vec({7.0});
    double rmse = 0.0;
    EXPECT_EQ(solver.Run(x, rmse, 20, 1e-3, 3, CNLSSolver::Gibbs), CNLSSolver::ConstraintsViolated);
    EXPECT_EQ(Std(x), (std::vector<double>{7.0}));
    EXPECT_EQ(rmse, kInf);
}

TEST(CNLSSolverMultistart, TwoRunsWithTheSameSeedAgree)
{
    for (CNLSSolver::ESampler sampler : {CNLSSolver::Gibbs, CNLSSolver::HitAndRun}) {
        std::vector<double> t;
        Functional f = SineFrequency(t);
        f.AddBounds(0, 0.5, 6.0);
        // A noisy copy of the data, so that no run is exact and all runs are made.
        Functional noisy(1, 40, [&](const TVector<double>& x) {
            TVector<double> e = f.residuals(x);
            for (int i = 0; i < e.Size(); ++i)
                e[i] += 0.1 * std::cos(7.0 * i);
            return e;
        });
        noisy.AddBounds(0, 0.5, 6.0);
        CNLSSolver solver(noisy, false, 0);
        TVector<double> x1 = Vec({1.0});
        TVector<double> x2 = Vec({1.0});
        double r1 = 0.0, r2 = 0.0;
        CNLSSolver::EResult e1{}, e2{};
        const std::string log1 = Captured([&] { e1 = solver.Run(x1, r1, 100, 1e-3, 8, sampler); });
        const std::string log2 = Captured([&] { e2 = solver.Run(x2, r2, 100, 1e-3, 8, sampler); });
        EXPECT_EQ(e1, e2);
        EXPECT_EQ(Std(x1), Std(x2));
        EXPECT_EQ(r1, r2);
        EXPECT_EQ(log1, log2);
        EXPECT_EQ(Count(log1, "SAMPLING"), 8);
    }
}

} // namespace
