#include <cmath>
#include <cstring>
#include <glpk.h>
#include <gtest/gtest.h>
#include <limits>
#include <numeric>
#include <random>
#include <set>
#include <type_traits>
#include <vector>

#include "datalayer/algorithms/optimisation/clpsolver.h"

using DataLayer::CLPSolver;

namespace {

const double kInf = std::numeric_limits<double>::infinity();

TMatrix<double> makeMatrix(int rows, int cols, const std::vector<double>& rowMajor)
{
    TMatrix<double> A(rows, cols);
    for (int r = 0; r < rows; ++r)
        for (int col = 0; col < cols; ++col)
            A(r, col) = rowMajor[static_cast<std::size_t>(r * cols + col)];
    return A;
}

TVector<double> makeVector(const std::vector<double>& values)
{
    TVector<double> v(static_cast<int>(values.size()));
    for (int i = 0; i < v.Size(); ++i)
        v[i] = values[static_cast<std::size_t>(i)];
    return v;
}

std::vector<double> toStd(const TVector<double>& v)
{
    return std::vector<double>(v.Data(), v.Data() + v.Size());
}

bool sameBits(const std::vector<double>& a, const std::vector<double>& b)
{
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(double)) == 0);
}

// --- Exact rationals for the reference ------------------------------------------------------------
// Small-integer programs have tableau entries that are ratios of small minors; 64-bit numerators and
// denominators hold them. Every operation checks for overflow, and a run that overflowed is ignored.
struct Rational
{
    long long num = 0;
    long long den = 1;
    static inline bool overflow = false;

    Rational() = default;
    Rational(long long value) : num(value) {}
    Rational(long long n, long long d)
    {
        if (d < 0) {
            n = -n;
            d = -d;
        }
        const long long g = std::gcd(n, d);
        num = g ? n / g : 0;
        den = g ? d / g : 1;
    }
    static long long mul(long long a, long long b)
    {
        long long r = 0;
        overflow |= __builtin_mul_overflow(a, b, &r);
        return r;
    }
    static long long add(long long a, long long b)
    {
        long long r = 0;
        overflow |= __builtin_add_overflow(a, b, &r);
        return r;
    }
    friend Rational operator*(const Rational& a, const Rational& b)
    {
        const long long g1 = std::max(1LL, std::gcd(a.num, b.den));
        const long long g2 = std::max(1LL, std::gcd(b.num, a.den));
        return Rational(mul(a.num / g1, b.num / g2), mul(a.den / g2, b.den / g1));
    }
    friend Rational operator/(const Rational& a, const Rational& b) { return a * Rational(b.den, b.num); }
    friend Rational operator-(const Rational& a, const Rational& b)
    {
        const long long g = std::gcd(a.den, b.den);
        return Rational(add(mul(a.num, b.den / g), -mul(b.num, a.den / g)), mul(a.den / g, b.den));
    }
    Rational& operator-=(const Rational& b) { return *this = *this - b; }
    Rational& operator/=(const Rational& b) { return *this = *this / b; }
    friend bool operator<(const Rational& a, const Rational& b)
    {
        return mul(a.num, b.den) < mul(b.num, a.den);
    }
    double toDouble() const { return static_cast<double>(num) / static_cast<double>(den); }
};

// Numeric helpers that let one reference serve doubles (the described comparisons) and rationals
// (exact arithmetic, where "below machine epsilon" means zero).
bool isPositive(double v)
{
    return v > 0.0;
}
bool isPositive(const Rational& v)
{
    return v.num > 0;
}
bool negligible(double v)
{
    return std::fabs(v) < 2.220446049250313e-16;
}
bool negligible(const Rational& v)
{
    return v.num == 0;
}
bool belowUniqueTolerance(double v)
{
    return std::fabs(v) < 1e-6;
}
bool belowUniqueTolerance(const Rational& v)
{
    return v.num == 0;
}
bool absGreater(double a, double b)
{
    return std::fabs(a) > std::fabs(b);
}
bool absGreater(const Rational& a, const Rational& b)
{
    return Rational(std::abs(b.num), b.den) < Rational(std::abs(a.num), a.den);
}
double toDouble(double v)
{
    return v + 0.0;
}
double toDouble(const Rational& v)
{
    return v.toDouble();
}

// --- The plain pivot rule, written out directly as a reference ------------------------------------
// Row-major vectors and the literal loop order of the description, no shortcuts. It flags a repeated
// basis state (by exact comparison of the index arrays) and stops there, and it records the path
// phase one took, so that tests can tell which branch a program exercises.
struct PlainResult
{
    CLPSolver::LPStatusType status = CLPSolver::LPNotRun;
    std::vector<double> solution;
    std::vector<double> slack;
    bool unique = true;
    bool cycled = false;
    bool phaseOne = false;
    bool auxiliaryLeftBasic = false;
    int pivots = 0;
};

template <typename Num> class PlainSimplex
{
public:
    PlainSimplex(const TMatrix<double>& A, const TVector<double>& bIn, const TVector<double>& cIn)
        : m(A.Rows()), n(A.Cols()), T(static_cast<std::size_t>(m), std::vector<Num>(n + m, Num(0)))
    {
        auto convert = [](double v) {
            if constexpr (std::is_same_v<Num, double>)
                return v;
            else
                return Num(static_cast<long long>(v)); // integer data only
        };
        for (int i = 0; i < m; ++i) {
            for (int j = 0; j < n; ++j)
                T[i][j] = convert(A(i, j));
            T[i][n + i] = Num(1);
            b.push_back(convert(bIn[i]));
        }
        for (int j = 0; j < n + m; ++j)
            c.push_back(j < n ? convert(cIn[j]) : Num(0));
    }

    PlainResult Run()
    {
        if (!phaseOne())
            result.status = result.cycled ? CLPSolver::LPPivoting : CLPSolver::LPInfeasible;
        else
            loop();
        if (result.status == CLPSolver::LPOptimal) {
            const std::vector<Num> x = basicSolution();
            for (int j = 0; j < n + m; ++j)
                (j < n ? result.solution : result.slack).push_back(toDouble(x[j]));
            for (int k = 0; k < n; ++k)
                if (belowUniqueTolerance(c[nonbasic[k]]))
                    result.unique = false;
        } else if (result.status == CLPSolver::LPUnbounded) {
            result.solution.assign(n, kInf);
            result.slack.assign(m, kInf);
        }
        return result;
    }

private:
    std::vector<Num> basicSolution() const
    {
        std::vector<Num> x(n + m, Num(0));
        for (int i = 0; i < m; ++i)
            x[basic[i]] = b[i];
        return x;
    }

    void pivot(int leaving, int entering)
    {
        ++result.pivots;
        int r = 0;
        while (basic[r] != leaving)
            ++r;
        const Num p = T[r][entering];
        const int cols = static_cast<int>(T[0].size());
        for (int i = 0; i < m; ++i) {
            if (i == r)
                continue;
            for (int j = 0; j < cols; ++j)
                if (j != entering)
                    T[i][j] -= T[r][j] * T[i][entering] / p;
            b[i] -= T[i][entering] * b[r] / p;
        }
        for (int j = 0; j < cols; ++j)
            if (j != entering)
                c[j] -= T[r][j] * c[entering] / p;
        for (int j = 0; j < cols; ++j)
            T[r][j] /= p;
        b[r] /= p;
        for (int i = 0; i < m; ++i)
            if (i != r)
                T[i][entering] = Num(0);
        c[entering] = Num(0);
        basic[r] = entering;
        for (int k = 0; k < n; ++k)
            if (nonbasic[k] == entering) {
                nonbasic[k] = leaving;
                break;
            }
    }

    // Returns false when it stopped on a repeated state.
    bool loop()
    {
        std::set<std::vector<int>> seen;
        auto state = [&] {
            std::vector<int> s(basic.begin(), basic.begin() + m);
            s.push_back(-1);
            s.insert(s.end(), nonbasic.begin(), nonbasic.begin() + n);
            return s;
        };
        seen.insert(state());
        for (;;) {
            int entering = -1;
            for (int k = 0; k < n && entering < 0; ++k)
                if (isPositive(c[nonbasic[k]]))
                    entering = nonbasic[k];
            if (entering < 0) {
                result.status = CLPSolver::LPOptimal;
                return true;
            }
            int row = -1; // the first row of the strictly smallest finite ratio
            Num best(0);
            for (int i = 0; i < m; ++i) {
                if (!isPositive(T[i][entering]))
                    continue;
                const Num ratio = b[i] / T[i][entering];
                if (row < 0 || ratio < best) {
                    row = i;
                    best = ratio;
                }
            }
            if (row < 0) {
                result.status = CLPSolver::LPUnbounded;
                return true;
            }
            pivot(basic[row], entering);
            if (!seen.insert(state()).second) {
                result.cycled = true;
                result.status = CLPSolver::LPPivoting;
                return false;
            }
        }
    }

    bool phaseOne()
    {
        nonbasic.assign(n + 1, 0);
        basic.assign(m, 0);
        int k = 0;
        for (int i = 1; i < m; ++i)
            if (b[i] < b[k])
                k = i;
        if (m == 0 || isPositive(b[k])) {
            for (int j = 0; j < n; ++j)
                nonbasic[j] = j;
            for (int i = 0; i < m; ++i)
                basic[i] = n + i;
            return true;
        }
        result.phaseOne = true;
        const std::vector<Num> savedC = c;
        for (auto& row : T)
            row.insert(row.begin() + n, Num(-1));
        c.assign(n + 1 + m, Num(0));
        c[n] = Num(-1);
        ++n;
        for (int j = 0; j < n; ++j)
            nonbasic[j] = j;
        for (int i = 0; i < m; ++i)
            basic[i] = n + i;
        pivot(basic[k], n - 1);
        if (!loop())
            return false;
        const std::vector<Num> x = basicSolution();
        if (!negligible(x[n - 1]))
            return false;
        for (int i = 0; i < m; ++i) {
            if (basic[i] != n - 1)
                continue;
            result.auxiliaryLeftBasic = true;
            int entering = -1;
            for (int q = 0; q < n; ++q)
                if (entering < 0 || absGreater(T[i][nonbasic[q]], T[i][entering]))
                    entering = nonbasic[q];
            pivot(n - 1, entering);
        }
        --n;
        for (auto& row : T)
            row.erase(row.begin() + n);
        int position = 0;
        while (nonbasic[position] != n)
            ++position;
        nonbasic.erase(nonbasic.begin() + position);
        nonbasic.push_back(n);
        for (int& v : nonbasic)
            if (v > n)
                --v;
        for (int& v : basic)
            if (v > n)
                --v;
        c = savedC;
        for (int i = 0; i < m; ++i) {
            const int v = basic[i];
            if (!negligible(c[v])) {
                for (int q = 0; q < n; ++q)
                    c[nonbasic[q]] -= T[i][nonbasic[q]] * c[v];
                c[v] = Num(0);
            }
        }
        return true;
    }

    int m;
    int n;
    std::vector<std::vector<Num>> T;
    std::vector<Num> b;
    std::vector<Num> c;
    std::vector<int> basic;
    std::vector<int> nonbasic;
    PlainResult result;
};

using PlainDouble = PlainSimplex<double>;
using PlainExact = PlainSimplex<Rational>;

// --- GLPK as an independent oracle ----------------------------------------------------------------
struct GlpkResult
{
    int status = 0; // GLP_OPT, GLP_NOFEAS or GLP_UNBND
    double value = 0.0;
};

GlpkResult solveWithGlpk(const TMatrix<double>& A, const TVector<double>& b, const TVector<double>& c)
{
    const int m = A.Rows();
    const int n = A.Cols();
    glp_prob* lp = glp_create_prob();
    glp_set_obj_dir(lp, GLP_MAX);
    glp_add_rows(lp, m);
    glp_add_cols(lp, n);
    for (int i = 0; i < m; ++i)
        glp_set_row_bnds(lp, i + 1, GLP_UP, 0.0, b[i]);
    for (int j = 0; j < n; ++j) {
        glp_set_col_bnds(lp, j + 1, GLP_LO, 0.0, 0.0);
        glp_set_obj_coef(lp, j + 1, c[j]);
    }
    std::vector<int> ia(1, 0);
    std::vector<int> ja(1, 0);
    std::vector<double> ar(1, 0.0);
    for (int i = 0; i < m; ++i)
        for (int j = 0; j < n; ++j)
            if (A(i, j) != 0.0) {
                ia.push_back(i + 1);
                ja.push_back(j + 1);
                ar.push_back(A(i, j));
            }
    glp_load_matrix(lp, static_cast<int>(ia.size()) - 1, ia.data(), ja.data(), ar.data());
    glp_smcp parm;
    glp_init_smcp(&parm);
    parm.msg_lev = GLP_MSG_OFF;
    parm.presolve = GLP_OFF;
    GlpkResult result;
    if (glp_simplex(lp, &parm) == 0) {
        result.status = glp_get_status(lp);
        result.value = glp_get_obj_val(lp);
    }
    glp_delete_prob(lp);
    return result;
}

struct Program
{
    TMatrix<double> A;
    TVector<double> b;
    TVector<double> c;
};

// Small dense programs of mixed character: small integers (degenerate vertices, exact ties) or
// uniform reals, right-hand sides positive, zero or negative.
Program randomProgram(std::mt19937_64& engine, int maxRows, int maxCols)
{
    std::uniform_int_distribution<int> rowsDist(1, maxRows);
    std::uniform_int_distribution<int> colsDist(1, maxCols);
    std::uniform_int_distribution<int> smallInt(-3, 3);
    std::uniform_real_distribution<double> real(-1.0, 1.0);
    std::uniform_int_distribution<int> flavour(0, 3);
    const int m = rowsDist(engine);
    const int n = colsDist(engine);
    const bool integral = flavour(engine) < 3;
    const int bMode = flavour(engine); // 0: positive, 1: with zeros, 2: mixed signs, 3: anything
    Program p{TMatrix<double>(m, n), TVector<double>(m), TVector<double>(n)};
    for (int i = 0; i < m; ++i)
        for (int j = 0; j < n; ++j)
            p.A(i, j) = integral ? smallInt(engine) : real(engine);
    for (int i = 0; i < m; ++i) {
        const double magnitude = integral ? std::abs(smallInt(engine)) + 1 : std::fabs(real(engine)) + 0.1;
        switch (bMode) {
        case 0:
            p.b[i] = magnitude;
            break;
        case 1:
            p.b[i] = flavour(engine) == 0 ? 0.0 : magnitude;
            break;
        case 2:
            p.b[i] = flavour(engine) == 0 ? -magnitude : magnitude;
            break;
        default:
            p.b[i] = integral ? smallInt(engine) : real(engine);
            break;
        }
    }
    for (int j = 0; j < n; ++j)
        p.c[j] = integral ? smallInt(engine) : real(engine);
    return p;
}

double objective(const TVector<double>& c, const TVector<double>& x)
{
    double value = 0.0;
    for (int j = 0; j < c.Size(); ++j)
        value += c[j] * x[j];
    return value;
}

} // namespace

// --- Worked programs -------------------------------------------------------------------------------

TEST(CLPSolver, SolvesTextbookProgramFromTheSlackBasis)
{
    // max 3x + 5y, x <= 4, 2y <= 12, 3x + 2y <= 18: optimum (2, 6), value 36.
    CLPSolver lp(makeMatrix(3, 2, {1, 0, 0, 2, 3, 2}), makeVector({4, 12, 18}), makeVector({3, 5}));
    EXPECT_EQ(lp.GetStatus(), CLPSolver::LPNotRun);
    ASSERT_TRUE(lp.Run());
    EXPECT_EQ(lp.GetStatus(), CLPSolver::LPOptimal);
    bool unique = false;
    const TVector<double> x = lp.GetSolution(&unique);
    const TVector<double> s = lp.GetSlack();
    ASSERT_EQ(x.Size(), 2);
    ASSERT_EQ(s.Size(), 3);
    // A handful of divisions by 2 and 3: a few ulps of rounding at most.
    EXPECT_NEAR(x[0], 2.0, 1e-14);
    EXPECT_NEAR(x[1], 6.0, 1e-14);
    EXPECT_NEAR(s[0], 2.0, 1e-14);
    EXPECT_NEAR(s[1], 0.0, 1e-14);
    EXPECT_NEAR(s[2], 0.0, 1e-14);
    EXPECT_TRUE(unique);
}

TEST(CLPSolver, NonPositiveCostsStayAtTheStartBasis)
{
    // All c <= 0: no pivot; x = 0 and the slacks are b, also with a zero b (through phase one).
    for (const std::vector<double>& rhs : {std::vector<double>{3, 1.5}, std::vector<double>{0, 2}}) {
        CLPSolver lp(makeMatrix(2, 3, {1, 2, -1, 4, -2, 1}), makeVector(rhs), makeVector({-1, 0, -2}));
        ASSERT_TRUE(lp.Run());
        EXPECT_EQ(lp.GetStatus(), CLPSolver::LPOptimal);
        EXPECT_TRUE(sameBits(toStd(lp.GetSolution(nullptr)), {0, 0, 0}));
        EXPECT_TRUE(sameBits(toStd(lp.GetSlack()), rhs));
    }
}

TEST(CLPSolver, ZeroRightHandSideRunsPhaseOneAndEndsFeasible)
{
    // max x with x - y <= 0, x + y <= 4: optimum (2, 2). The zero b sends the program through phase
    // one, which must end feasible with the auxiliary variable at 0.
    const TMatrix<double> A = makeMatrix(2, 2, {1, -1, 1, 1});
    const TVector<double> b = makeVector({0, 4});
    const TVector<double> c = makeVector({1, 0});
    const PlainResult plain = PlainDouble(A, b, c).Run();
    ASSERT_TRUE(plain.phaseOne);
    CLPSolver lp(A, b, c);
    ASSERT_TRUE(lp.Run());
    EXPECT_EQ(lp.GetStatus(), CLPSolver::LPOptimal);
    const TVector<double> x = lp.GetSolution(nullptr);
    EXPECT_EQ(x[0], 2.0); // halves of 4: exact in binary
    EXPECT_EQ(x[1], 2.0);
    EXPECT_TRUE(sameBits(toStd(lp.GetSlack()), {0, 0}));
}

TEST(CLPSolver, ContradictoryBoundsAreInfeasible)
{
    // x <= 1 and -x <= -2.
    CLPSolver lp(makeMatrix(2, 1, {1, -1}), makeVector({1, -2}), makeVector({1}));
    EXPECT_FALSE(lp.Run());
    EXPECT_EQ(lp.GetStatus(), CLPSolver::LPInfeasible);
    bool unique = false;
    EXPECT_EQ(lp.GetSolution(&unique).Size(), 0);
    EXPECT_TRUE(unique);
    EXPECT_EQ(lp.GetSlack().Size(), 0);
}

TEST(CLPSolver, SystemSatisfiableOnlyByNegativeValuesIsInfeasible)
{
    // x + y <= -1 has solutions, but none with x, y >= 0; likewise x <= -0.5.
    CLPSolver sum(makeMatrix(1, 2, {1, 1}), makeVector({-1}), makeVector({0, 1}));
    EXPECT_FALSE(sum.Run());
    EXPECT_EQ(sum.GetStatus(), CLPSolver::LPInfeasible);
    CLPSolver single(makeMatrix(1, 1, {1}), makeVector({-0.5}), makeVector({-1}));
    EXPECT_FALSE(single.Run());
    EXPECT_EQ(single.GetStatus(), CLPSolver::LPInfeasible);
}

TEST(CLPSolver, UnboundedProgramReportsInfiniteSolution)
{
    // max x with only -x <= 0.
    CLPSolver lp(makeMatrix(1, 1, {-1}), makeVector({0}), makeVector({1}));
    EXPECT_TRUE(lp.Run());
    EXPECT_EQ(lp.GetStatus(), CLPSolver::LPUnbounded);
    bool unique = false;
    EXPECT_TRUE(sameBits(toStd(lp.GetSolution(&unique)), {kInf}));
    EXPECT_TRUE(unique);
    EXPECT_TRUE(sameBits(toStd(lp.GetSlack()), {kInf}));
}

TEST(CLPSolver, EqualRatiosLetTheFirstRowLeave)
{
    // max x with x + y <= 2 and x <= 2: both rows limit x at 2. If row 0 leaves, y and the first
    // slack end nonbasic with reduced cost -1 (unique); had row 1 left, y would keep cost 0.
    CLPSolver lp(makeMatrix(2, 2, {1, 1, 1, 0}), makeVector({2, 2}), makeVector({1, 0}));
    ASSERT_TRUE(lp.Run());
    bool unique = false;
    EXPECT_TRUE(sameBits(toStd(lp.GetSolution(&unique)), {2, 0}));
    EXPECT_TRUE(unique);
    EXPECT_TRUE(sameBits(toStd(lp.GetSlack()), {0, 0}));
}

TEST(CLPSolver, OptimalFaceIsReportedNotUnique)
{
    // max x + y with x + y <= 1: every point of the segment is optimal.
    CLPSolver lp(makeMatrix(1, 2, {1, 1}), makeVector({1}), makeVector({1, 1}));
    ASSERT_TRUE(lp.Run());
    bool unique = true;
    const TVector<double> x = lp.GetSolution(&unique);
    EXPECT_FALSE(unique);
    EXPECT_EQ(x[0] + x[1], 1.0);
}

TEST(CLPSolver, SolutionWithoutUniqueFlagMatchesSolutionWithFlag)
{
    const Program programs[] = {
        {makeMatrix(1, 2, {1, 1}), makeVector({1}), makeVector({1, 1})},          // optimal face
        {makeMatrix(1, 1, {-1}), makeVector({0}), makeVector({1})},               // unbounded
        {makeMatrix(2, 1, {1, -1}), makeVector({1, -2}), makeVector({1})},        // infeasible
        {makeMatrix(2, 2, {1, 2, 3, 1}), makeVector({4, 5}), makeVector({1, 1})}, // unique optimum
    };
    for (const Program& p : programs) {
        CLPSolver lp(p.A, p.b, p.c);
        lp.Run();
        bool unique = false;
        EXPECT_TRUE(sameBits(toStd(lp.GetSolution(nullptr)), toStd(lp.GetSolution(&unique))));
    }
}

// --- Open behaviour, as decided -------------------------------------------------------------------

TEST(CLPSolver, MalformedProblemIsRefusedWithoutRunning)
{
    const TMatrix<double> A = makeMatrix(2, 2, {1, 0, 0, 1});
    const double nan = std::numeric_limits<double>::quiet_NaN();
    TMatrix<double> withNan = A;
    withNan(1, 0) = nan;
    const Program programs[] = {
        {A, makeVector({1}), makeVector({1, 1})},          // b too short
        {A, makeVector({1, 1}), makeVector({1, 1, 1})},    // c too long
        {withNan, makeVector({1, 1}), makeVector({1, 1})}, // NaN in A
        {A, makeVector({1, kInf}), makeVector({1, 1})},    // infinite b
        {A, makeVector({1, 1}), makeVector({nan, 1})},     // NaN in c
    };
    for (const Program& p : programs) {
        CLPSolver lp(p.A, p.b, p.c);
        EXPECT_FALSE(lp.Run());
        EXPECT_EQ(lp.GetStatus(), CLPSolver::LPNotRun);
        EXPECT_EQ(lp.GetSolution(nullptr).Size(), 0);
        EXPECT_EQ(lp.GetSlack().Size(), 0);
    }
}

TEST(CLPSolver, ProgramWithoutRowsIsOptimalAtZeroOrUnbounded)
{
    CLPSolver bounded(TMatrix<double>(0, 2), TVector<double>(), makeVector({-1, 0}));
    EXPECT_TRUE(bounded.Run());
    EXPECT_EQ(bounded.GetStatus(), CLPSolver::LPOptimal);
    EXPECT_TRUE(sameBits(toStd(bounded.GetSolution(nullptr)), {0, 0}));
    EXPECT_EQ(bounded.GetSlack().Size(), 0);

    CLPSolver unbounded(TMatrix<double>(0, 2), TVector<double>(), makeVector({-1, 2}));
    EXPECT_TRUE(unbounded.Run());
    EXPECT_EQ(unbounded.GetStatus(), CLPSolver::LPUnbounded);
    EXPECT_TRUE(sameBits(toStd(unbounded.GetSolution(nullptr)), {kInf, kInf}));

    CLPSolver empty{TMatrix<double>(), TVector<double>(), TVector<double>()};
    EXPECT_TRUE(empty.Run());
    EXPECT_EQ(empty.GetSolution(nullptr).Size(), 0);
}

TEST(CLPSolver, SecondRunRepeatsTheVerdictWithoutPivoting)
{
    CLPSolver lp(makeMatrix(3, 2, {1, 0, 0, 2, 3, 2}), makeVector({4, 12, 18}), makeVector({3, 5}));
    ASSERT_TRUE(lp.Run());
    const std::vector<double> first = toStd(lp.GetSolution(nullptr));
    EXPECT_TRUE(lp.Run());
    EXPECT_TRUE(sameBits(toStd(lp.GetSolution(nullptr)), first));

    CLPSolver infeasible(makeMatrix(2, 1, {1, -1}), makeVector({1, -2}), makeVector({1}));
    EXPECT_FALSE(infeasible.Run());
    EXPECT_FALSE(infeasible.Run());
    EXPECT_EQ(infeasible.GetStatus(), CLPSolver::LPInfeasible);
}

TEST(CLPSolver, CopiesAreDeepAndIndependent)
{
    // A program through phase one, so that the index arrays and the tableau change shape in the run.
    const TMatrix<double> A = makeMatrix(3, 3, {1, -1, 2, -1, 2, 1, 1, 1, 1});
    const TVector<double> b = makeVector({2, -1, 5});
    const TVector<double> c = makeVector({1, 2, -1});
    CLPSolver original(A, b, c);
    CLPSolver copy(original);
    ASSERT_TRUE(copy.Run());
    EXPECT_EQ(original.GetStatus(), CLPSolver::LPNotRun); // running the copy left the original alone
    ASSERT_TRUE(original.Run());
    const std::vector<double> x = toStd(original.GetSolution(nullptr));
    EXPECT_TRUE(sameBits(toStd(copy.GetSolution(nullptr)), x));

    // Copies of a finished run answer the same, even after the source is gone.
    auto* source = new CLPSolver(original);
    CLPSolver fromFinished(*source);
    CLPSolver assigned(makeMatrix(1, 1, {1}), makeVector({1}), makeVector({1}));
    assigned = *source;
    delete source;
    EXPECT_EQ(fromFinished.GetStatus(), CLPSolver::LPOptimal);
    EXPECT_TRUE(sameBits(toStd(fromFinished.GetSolution(nullptr)), x));
    EXPECT_TRUE(sameBits(toStd(assigned.GetSolution(nullptr)), x));
    EXPECT_TRUE(sameBits(toStd(assigned.GetSlack()), toStd(original.GetSlack())));

    // Assignment before the run, into an object of another shape, then running both.
    CLPSolver target(makeMatrix(1, 4, {1, 1, 1, 1}), makeVector({2}), makeVector({1, 0, 0, 0}));
    CLPSolver fresh(A, b, c);
    target = fresh;
    ASSERT_TRUE(target.Run());
    EXPECT_TRUE(sameBits(toStd(target.GetSolution(nullptr)), x));
    EXPECT_EQ(fresh.GetStatus(), CLPSolver::LPNotRun);

    CLPSolver& alias = assigned;
    assigned = alias;
    EXPECT_TRUE(sameBits(toStd(assigned.GetSolution(nullptr)), x));
}

// --- Differential checks ---------------------------------------------------------------------------

CLPSolver::LPStatusType glpkToStatus(int glpkStatus)
{
    switch (glpkStatus) {
    case GLP_OPT:
        return CLPSolver::LPOptimal;
    case GLP_NOFEAS:
        return CLPSolver::LPInfeasible;
    case GLP_UNBND:
        return CLPSolver::LPUnbounded;
    default:
        return CLPSolver::LPNotRun;
    }
}

bool isIntegral(const Program& p)
{
    auto integral = [](const double* v, int count) {
        for (int k = 0; k < count; ++k)
            if (v[k] != std::round(v[k]))
                return false;
        return true;
    };
    return integral(p.A.Data(), p.A.Rows() * p.A.Cols()) && integral(p.b.Data(), p.b.Size()) &&
           integral(p.c.Data(), p.c.Size());
}

// The described rule compares reduced costs and pivot candidates with exact zero, so rounding can
// turn a structural zero into a tiny positive value and flip a verdict (a reduced cost of 5e-15 with
// an all-negative column reads as unbounded). For integer programs the same rule is also run in
// exact arithmetic: that run must agree with GLPK always, and a disagreement of the double run is
// accepted only where it departs from the exact run, i.e. is caused by rounding alone; such cases
// must stay rare.
TEST(CLPSolver, AgreesWithGlpkOnRandomSmallPrograms)
{
    std::mt19937_64 engine(20240611);
    int counts[3] = {0, 0, 0}; // optimal, infeasible, unbounded
    int exactChecked = 0;
    int roundingFlips = 0;
    const int trials = 400;
    for (int trial = 0; trial < trials; ++trial) {
        const Program p = randomProgram(engine, 8, 8);
        SCOPED_TRACE(testing::Message() << "trial " << trial << ", " << p.A.Rows() << " x " << p.A.Cols());
        CLPSolver lp(p.A, p.b, p.c);
        const bool ran = lp.Run();
        const GlpkResult reference = solveWithGlpk(p.A, p.b, p.c);
        const CLPSolver::LPStatusType expected = glpkToStatus(reference.status);
        ASSERT_NE(expected, CLPSolver::LPNotRun);
        EXPECT_EQ(ran, lp.GetStatus() == CLPSolver::LPOptimal || lp.GetStatus() == CLPSolver::LPUnbounded);

        if (isIntegral(p)) {
            Rational::overflow = false;
            const PlainResult exact = PlainExact(p.A, p.b, p.c).Run();
            if (!Rational::overflow && !exact.cycled) {
                ++exactChecked;
                ASSERT_EQ(exact.status, expected);
                if (expected == CLPSolver::LPOptimal) { // exact optimum against GLPK's double one
                    EXPECT_NEAR(objective(p.c, makeVector(exact.solution)), reference.value,
                                1e-9 * std::max(1.0, std::fabs(reference.value)));
                }
                if (lp.GetStatus() != expected) {
                    ++roundingFlips;
                    continue;
                }
            }
        }
        ASSERT_EQ(lp.GetStatus(), expected);
        ++counts[expected == CLPSolver::LPOptimal ? 0 : expected == CLPSolver::LPInfeasible ? 1 : 2];
        if (expected != CLPSolver::LPOptimal)
            continue;
        const TVector<double> x = lp.GetSolution(nullptr);
        // Both solvers round differently along different pivot paths; 1e-7 relative is far above
        // what a few pivots on entries of magnitude <= 3 can accumulate.
        EXPECT_NEAR(objective(p.c, x), reference.value, 1e-7 * std::max(1.0, std::fabs(reference.value)));
        // Feasibility of the returned point, to rounding of order 1e-15 times the data.
        for (int j = 0; j < x.Size(); ++j)
            EXPECT_GE(x[j], -1e-9);
        for (int i = 0; i < p.A.Rows(); ++i) {
            double row = 0.0;
            for (int j = 0; j < x.Size(); ++j)
                row += p.A(i, j) * x[j];
            EXPECT_LE(row, p.b[i] + 1e-9);
        }
    }
    // The generator must really cover all three outcomes, and the exact check most programs.
    EXPECT_GT(counts[0], 100);
    EXPECT_GT(counts[1], 30);
    EXPECT_GT(counts[2], 30);
    EXPECT_GT(exactChecked, trials / 2);
    EXPECT_LE(roundingFlips, trials / 100);
    std::printf(
        "[   INFO   ] %d optimal, %d infeasible, %d unbounded; %d checked exactly, %d rounding flips\n",
        counts[0], counts[1], counts[2], exactChecked, roundingFlips);
}

TEST(CLPSolver, MatchesThePlainRuleBitForBitWhenItDoesNotCycle)
{
    std::mt19937_64 engine(7741);
    int compared = 0;
    int phaseOne = 0;
    for (int trial = 0; trial < 600; ++trial) {
        const Program p = randomProgram(engine, trial < 300 ? 8 : 16, trial < 300 ? 8 : 16);
        const PlainResult plain = PlainDouble(p.A, p.b, p.c).Run();
        if (plain.cycled)
            continue;
        ++compared;
        phaseOne += plain.phaseOne ? 1 : 0;
        CLPSolver lp(p.A, p.b, p.c);
        lp.Run();
        SCOPED_TRACE(testing::Message() << "trial " << trial);
        ASSERT_EQ(lp.GetStatus(), plain.status);
        bool unique = false;
        EXPECT_TRUE(sameBits(toStd(lp.GetSolution(&unique)), plain.solution));
        EXPECT_EQ(unique, plain.unique);
        EXPECT_TRUE(sameBits(toStd(lp.GetSlack()), plain.slack));
    }
    EXPECT_GT(compared, 550);
    EXPECT_GT(phaseOne, 200);
}

// --- Termination and the phase one corner ---------------------------------------------------------

// Checks a program against GLPK: same status and, when optimal, the same value (1e-12 relative:
// these small programs are solved to a few ulps by both) and a feasible point.
void expectGlpkVerdict(const Program& p, CLPSolver& lp)
{
    const GlpkResult reference = solveWithGlpk(p.A, p.b, p.c);
    ASSERT_EQ(lp.GetStatus(), glpkToStatus(reference.status));
    if (reference.status != GLP_OPT)
        return;
    const TVector<double> x = lp.GetSolution(nullptr);
    EXPECT_NEAR(objective(p.c, x), reference.value, 1e-12 * std::max(1.0, std::fabs(reference.value)));
    for (int i = 0; i < p.A.Rows(); ++i) {
        double row = 0.0;
        for (int j = 0; j < x.Size(); ++j)
            row += p.A(i, j) * x[j];
        EXPECT_LE(row, p.b[i] + 1e-12);
    }
}

TEST(CLPSolver, BealeExampleReachesItsOptimum)
{
    // Beale's degenerate program (variables x4..x7): max 3/4 x4 - 20 x5 + 1/2 x6 - 6 x7 subject to
    // 1/4 x4 - 8 x5 - x6 + 9 x7 <= 0, 1/2 x4 - 12 x5 - 1/2 x6 + 3 x7 <= 0, x6 <= 1. Its zero
    // right-hand sides send it through phase one, after which this rule does not cycle on it; the
    // optimum is 5/4 at x4 = x6 = 1.
    const Program p{makeMatrix(3, 4, {0.25, -8, -1, 9, 0.5, -12, -0.5, 3, 0, 0, 1, 0}), makeVector({0, 0, 1}),
                    makeVector({0.75, -20, 0.5, -6})};
    EXPECT_FALSE(PlainDouble(p.A, p.b, p.c).Run().cycled);
    CLPSolver lp(p.A, p.b, p.c);
    ASSERT_TRUE(lp.Run());
    expectGlpkVerdict(p, lp);
    const TVector<double> x = lp.GetSolution(nullptr);
    EXPECT_NEAR(x[0], 1.0, 1e-15); // one rounding in a chain of exact-ish pivots
    EXPECT_EQ(x[1], 0.0);
    EXPECT_EQ(x[2], 1.0);
    EXPECT_EQ(x[3], 0.0);
}

TEST(CLPSolver, CyclingProgramSwitchesToBlandAndFindsTheOptimum)
{
    // Found by a seeded search over small degenerate programs: from the phase one basis, the first
    // rule revisits a basis state in phase two and would pivot forever (in exact arithmetic too).
    const Program p{makeMatrix(4, 4, {-6, 5, 6, -3, -3, 2, -6, -5, -5, 5, -5, 6, 1, 1, 1, 3}),
                    makeVector({0, 0, 0, 1}), makeVector({-2, -6, -6, 5})};
    const PlainResult plain = PlainDouble(p.A, p.b, p.c).Run();
    ASSERT_TRUE(plain.cycled);
    Rational::overflow = false;
    ASSERT_TRUE(PlainExact(p.A, p.b, p.c).Run().cycled);
    ASSERT_FALSE(Rational::overflow);
    CLPSolver lp(p.A, p.b, p.c);
    ASSERT_TRUE(lp.Run());
    expectGlpkVerdict(p, lp);
}

TEST(CLPSolver, CyclingUnboundedProgramEndsUnbounded)
{
    // Another cycling program of the search, an unbounded cone: the cycle must not hide that.
    const Program p{makeMatrix(3, 5, {3, 1, -1, 4, -5, -6, 3, -1, -5, 2, -2, -1, 5, -1, -3}),
                    makeVector({0, 0, 0}), makeVector({-5, 5, 4, 3, -4})};
    ASSERT_TRUE(PlainDouble(p.A, p.b, p.c).Run().cycled);
    CLPSolver lp(p.A, p.b, p.c);
    EXPECT_TRUE(lp.Run());
    expectGlpkVerdict(p, lp);
}

TEST(CLPSolver, AuxiliaryLeftBasicAtZeroIsPivotedOut)
{
    // x <= 0 as the first row: the auxiliary variable enters there, phase one finds nothing to
    // improve, and it stays basic at 0. max x + y + 2z with y + z <= 4, y - z <= 1: 8 at z = 4.
    const Program p{makeMatrix(3, 3, {1, 0, 0, 0, 1, 1, 0, 1, -1}), makeVector({0, 4, 1}),
                    makeVector({1, 1, 2})};
    const PlainResult plain = PlainDouble(p.A, p.b, p.c).Run();
    ASSERT_TRUE(plain.auxiliaryLeftBasic);
    CLPSolver lp(p.A, p.b, p.c);
    ASSERT_TRUE(lp.Run());
    expectGlpkVerdict(p, lp);
    EXPECT_TRUE(sameBits(toStd(lp.GetSolution(nullptr)), plain.solution));
    EXPECT_TRUE(sameBits(toStd(lp.GetSolution(nullptr)), {0, 0, 4}));
    EXPECT_TRUE(sameBits(toStd(lp.GetSlack()), {0, 0, 5}));
}

TEST(CLPSolver, RandomProgramsLeavingTheAuxiliaryBasicAgreeWithGlpk)
{
    // All-zero and partly zero right-hand sides reach the corner often; each such case is compared
    // with the reference bit for bit and with GLPK.
    std::mt19937_64 engine(5150);
    std::uniform_int_distribution<int> entry(-4, 4);
    int reached = 0;
    for (int trial = 0; trial < 300 && reached < 40; ++trial) {
        const int m = 2 + trial % 4;
        const int n = 2 + (trial / 4) % 4;
        Program p{TMatrix<double>(m, n), TVector<double>(m), TVector<double>(n)};
        for (int i = 0; i < m; ++i) {
            for (int j = 0; j < n; ++j)
                p.A(i, j) = entry(engine);
            p.b[i] = i == m - 1 ? std::abs(entry(engine)) : 0.0;
        }
        for (int j = 0; j < n; ++j)
            p.c[j] = entry(engine);
        const PlainResult plain = PlainDouble(p.A, p.b, p.c).Run();
        if (!plain.auxiliaryLeftBasic || plain.cycled)
            continue;
        ++reached;
        SCOPED_TRACE(testing::Message() << "trial " << trial);
        CLPSolver lp(p.A, p.b, p.c);
        lp.Run();
        EXPECT_EQ(lp.GetStatus(), plain.status);
        EXPECT_TRUE(sameBits(toStd(lp.GetSolution(nullptr)), plain.solution));
        expectGlpkVerdict(p, lp);
    }
    EXPECT_GE(reached, 40);
}
