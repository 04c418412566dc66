#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <numeric>
#include <random>
#include <vector>

#include "datalayer/algorithms/optimisation/ctspsolver.h"
#include "test_support.h"

using DataLayer::CPMatrix;
using DataLayer::CTSPSolver;

namespace {

const double kInf = std::numeric_limits<double>::infinity();

std::vector<int> toStd(const CPMatrix& p)
{
    return std::vector<int>(p.Data(), p.Data() + p.Size());
}

TMatrix<double> points2D(const std::vector<std::pair<double, double>>& xy)
{
    TMatrix<double> m(static_cast<int>(xy.size()), 2);
    for (int i = 0; i < m.Rows(); ++i) {
        m(i, 0) = xy[static_cast<std::size_t>(i)].first;
        m(i, 1) = xy[static_cast<std::size_t>(i)].second;
    }
    return m;
}

TMatrix<double> randomPoints(std::uint64_t seed, int n)
{
    std::mt19937_64 engine(seed);
    return vorn2test::RandomMatrix(engine, n, 2);
}

bool isPermutation(const std::vector<int>& tour, int n)
{
    std::vector<int> sorted = tour;
    std::sort(sorted.begin(), sorted.end());
    std::vector<int> identity(static_cast<std::size_t>(n));
    std::iota(identity.begin(), identity.end(), 0);
    return sorted == identity;
}

double closedLength(const TMatrix<double>& D, const std::vector<int>& t)
{
    double sum = 0.0;
    for (std::size_t k = 0; k < t.size(); ++k)
        sum += D(t[k], t[(k + 1) % t.size()]);
    return sum;
}

double openLength(const TMatrix<double>& D, const std::vector<int>& t)
{
    double sum = 0.0;
    for (std::size_t k = 1; k < t.size(); ++k)
        sum += D(t[k - 1], t[k]);
    return sum;
}

// The largest gain of any 2-exchange of two non-adjacent edges of the closed tour (positive = longer).
double bestClosedExchange(const TMatrix<double>& D, const std::vector<int>& t)
{
    const std::size_t n = t.size();
    double best = kInf;
    for (std::size_t p = 0; p < n; ++p)
        for (std::size_t q = p + 2; q < n; ++q) {
            if (p == 0 && q == n - 1)
                continue; // the two edges share node t[0]
            const int a = t[p], b = t[p + 1], c = t[q], d = t[(q + 1) % n];
            best = std::min(best, D(a, c) + D(b, d) - D(a, b) - D(c, d));
        }
    return best;
}

// Every closed tour through 1..n-1 with node 0 fixed first: the exact optimum of a small instance.
double bruteForceTour(const TMatrix<double>& D)
{
    std::vector<int> t(static_cast<std::size_t>(D.Rows()));
    std::iota(t.begin(), t.end(), 0);
    double best = kInf;
    do {
        best = std::min(best, closedLength(D, t));
    } while (std::next_permutation(t.begin() + 1, t.end()));
    return best;
}

// The start nodes of one call: Fisher-Yates from the front, 53-bit canonical draws, seed 47110518.
std::vector<int> expectedStartOrder(int n)
{
    std::mt19937_64 engine(47110518);
    std::vector<int> order(static_cast<std::size_t>(n));
    std::iota(order.begin(), order.end(), 0);
    for (int i = 0; i + 1 < n; ++i) {
        const double u = std::generate_canonical<double, 53>(engine);
        std::swap(order[static_cast<std::size_t>(i)],
                  order[static_cast<std::size_t>(i + std::floor(u * (n - i)))]);
    }
    return order;
}

// The solver written out step by step from its description, with no shortcut: one shuffle, a
// nearest-neighbour tour on a destroyed copy of the matrix, best-exchange 2-opt sweeps over all pairs,
// strict comparisons everywhere. The 2-opt gain is (D(a,c) + D(b,d)) - (D(a,b) + D(c,d)).
struct LiteralSolver
{
    std::mt19937_64 engine{47110518};

    std::vector<int> greedy(TMatrix<double> W, int start) const
    {
        const int n = W.Rows();
        std::vector<int> tour(static_cast<std::size_t>(n));
        tour[0] = start;
        int cur = start;
        for (int position = 1; position < n; ++position) {
            for (int i = 0; i < n; ++i)
                W(cur, i) = kInf;
            int next = 0;
            double nearest = kInf;
            for (int j = 0; j < n; ++j)
                if (W(j, cur) < nearest) {
                    nearest = W(j, cur);
                    next = j;
                }
            tour[static_cast<std::size_t>(position)] = next;
            cur = next;
        }
        return tour;
    }

    void twoOpt(const TMatrix<double>& D, std::vector<int>& t) const
    {
        const int n = static_cast<int>(t.size());
        for (;;) {
            double bestDelta = 0.0;
            int bi = -1;
            int bk = -1;
            for (int i = 0; i <= n - 3; ++i) {
                const int a = t[static_cast<std::size_t>(i == 0 ? n - 1 : i - 1)];
                const int b = t[static_cast<std::size_t>(i)];
                for (int k = i + 2; k < n; ++k) {
                    const int c = t[static_cast<std::size_t>(k - 1)];
                    const int d = t[static_cast<std::size_t>(k)];
                    const double delta = (D(a, c) + D(b, d)) - (D(a, b) + D(c, d));
                    if (bestDelta > delta) {
                        bestDelta = delta;
                        bi = i;
                        bk = k;
                    }
                }
            }
            if (!(bestDelta < 0.0))
                return;
            std::reverse(t.begin() + bi, t.begin() + bk);
        }
    }

    std::vector<int> solve(const TMatrix<double>& D, int starts, double& length)
    {
        const int n = D.Rows();
        std::vector<int> order(static_cast<std::size_t>(n));
        std::iota(order.begin(), order.end(), 0);
        for (int i = 0; i + 1 < n; ++i) {
            const double u = std::generate_canonical<double, 53>(engine);
            std::swap(order[static_cast<std::size_t>(i)],
                      order[static_cast<std::size_t>(i + std::floor(u * (n - i)))]);
        }
        double best = kInf;
        std::vector<int> bestTour;
        for (int k = 0; k < starts; ++k) {
            std::vector<int> tour = greedy(D, order[static_cast<std::size_t>(k)]);
            twoOpt(D, tour);
            double l = D(tour.back(), tour.front()); // the closing edge first, then the path in order
            for (std::size_t i = 1; i < tour.size(); ++i)
                l += D(tour[i - 1], tour[i]);
            if (best > l) {
                best = l;
                bestTour = tour;
            }
        }
        length = best;
        return bestTour;
    }
};

} // namespace

// The solver must give exactly the tours of the literal procedure, ties included: integer
// coordinates on a small grid with rounded distances make many equal distances and equal gains.
TEST(CTSPSolver, MatchesTheLiteralProcedureTourForTour)
{
    for (std::uint64_t seed = 1; seed <= 4; ++seed) {
        for (int n : {6, 23, 64, 97}) {
            std::mt19937_64 engine(seed * 31 + n);
            std::uniform_int_distribution<int> coordinate(0, 12);
            TMatrix<double> grid(n, 2);
            for (int i = 0; i < n; ++i) {
                grid(i, 0) = coordinate(engine);
                grid(i, 1) = coordinate(engine);
            }
            TMatrix<double> roundedDistances = CTSPSolver::computeDistances(grid);
            for (int c = 0; c < n; ++c)
                for (int r = 0; r < n; ++r)
                    roundedDistances(r, c) = std::floor(roundedDistances(r, c) + 0.5);
            const TMatrix<double>& rounded = roundedDistances;
            const TMatrix<double> real = CTSPSolver::computeDistances(randomPoints(seed * 57 + n, n));
            for (const TMatrix<double>* D : {&rounded, &real}) {
                CTSPSolver solver;
                LiteralSolver literal;
                for (int starts :
                     {1, 5, std::min(n, 40)}) { // successive calls also check that the engine advances alike
                    double length = 0.0;
                    double expectedLength = 0.0;
                    const std::vector<int> tour = toStd(solver.SolveTSP(*D, starts, length));
                    const std::vector<int> expected = literal.solve(*D, starts, expectedLength);
                    EXPECT_EQ(tour, expected) << "seed " << seed << " n " << n << " starts " << starts
                                              << (D == &rounded ? " rounded" : " real");
                    EXPECT_EQ(length, expectedLength);
                }
            }
        }
    }
}

TEST(CTSPSolver, ComputeDistancesIsTheEuclideanMatrixOfTheRows)
{
    TMatrix<double> p(3, 3);
    p(1, 0) = 3.0;
    p(1, 1) = 4.0;
    p(2, 2) = -2.0;
    const TMatrix<double> D = CTSPSolver::computeDistances(p);
    ASSERT_EQ(D.Rows(), 3);
    ASSERT_EQ(D.Cols(), 3);
    EXPECT_EQ(D(0, 1), 5.0);
    EXPECT_EQ(D(1, 0), 5.0);
    EXPECT_EQ(D(0, 2), 2.0);
    EXPECT_DOUBLE_EQ(D(1, 2), std::sqrt(29.0));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(D(i, i), 0.0);
    EXPECT_EQ(CTSPSolver::computeDistances(TMatrix<double>(1, 2))(0, 0), 0.0);
    EXPECT_EQ(CTSPSolver::computeDistances(TMatrix<double>()).Rows(), 0);
}

TEST(CTSPSolver, TinyTours)
{
    CTSPSolver solver;
    TMatrix<double> one(1, 1);
    one(0, 0) = 2.5; // the one-node tour is its loop D(0, 0)
    double length = 0.0;
    EXPECT_EQ(toStd(solver.SolveTSP(one, 1, length)), std::vector<int>({0}));
    EXPECT_EQ(length, 2.5);

    TMatrix<double> two(2, 2);
    two(0, 1) = two(1, 0) = 3.0;
    const std::vector<int> tour = toStd(solver.SolveTSP(two, 2, length));
    EXPECT_TRUE(isPermutation(tour, 2));
    EXPECT_EQ(length, 6.0);
}

TEST(CTSPSolver, SquareGivesThePerimeterNeverTheCrossedTour)
{
    // Corners listed so that the numbering order 0-1-2-3 would cross.
    const TMatrix<double> D = CTSPSolver::computeDistances(points2D({{0, 0}, {1, 1}, {1, 0}, {0, 1}}));
    for (int starts = 1; starts <= 4; ++starts) {
        CTSPSolver solver;
        double length = 0.0;
        const std::vector<int> tour = toStd(solver.SolveTSP(D, starts, length));
        EXPECT_TRUE(isPermutation(tour, 4));
        EXPECT_DOUBLE_EQ(length, 4.0);
        EXPECT_DOUBLE_EQ(closedLength(D, tour), 4.0);
    }
}

TEST(CTSPSolver, PathOnALineRunsFromOneEndToTheOther)
{
    const std::vector<double> xs = {3.0, -1.0, 7.5, 0.5, 2.0, 10.0, -4.0};
    std::vector<std::pair<double, double>> xy;
    for (double x : xs)
        xy.push_back({x, 0.0});
    const TMatrix<double> D = CTSPSolver::computeDistances(points2D(xy));
    std::vector<int> ascending(xs.size());
    std::iota(ascending.begin(), ascending.end(), 0);
    std::sort(ascending.begin(), ascending.end(), [&](int a, int b) { return xs[a] < xs[b]; });
    std::vector<int> descending(ascending.rbegin(), ascending.rend());
    for (int starts : {1, 3, 8}) {
        CTSPSolver solver;
        double length = 0.0;
        const std::vector<int> path = toStd(solver.SolveHPP(D, starts, length));
        EXPECT_TRUE(path == ascending || path == descending) << "starts " << starts;
        EXPECT_DOUBLE_EQ(length, 14.0);
    }
}

TEST(CTSPSolver, EqualDistancesKeepTheNearestNeighbourTour)
{
    TMatrix<double> D(7, 7);
    for (int c = 0; c < 7; ++c)
        for (int r = 0; r < 7; ++r)
            D(r, c) = r == c ? 0.0 : 1.0;
    CTSPSolver solver;
    double length = 0.0;
    const std::vector<int> tour = toStd(solver.SolveTSP(D, 1, length));
    const int start = expectedStartOrder(7)[0];
    std::vector<int> expected = {start};
    for (int i = 0; i < 7; ++i)
        if (i != start)
            expected.push_back(i);
    EXPECT_EQ(tour, expected);
    EXPECT_EQ(length, 7.0);
}

TEST(CTSPSolver, StartCountsOutsideOneToNAreDefined)
{
    const TMatrix<double> D = CTSPSolver::computeDistances(randomPoints(3, 12));
    for (int starts : {0, -5}) {
        CTSPSolver solver;
        double length = 0.0;
        EXPECT_EQ(solver.SolveTSP(D, starts, length).Size(), 0);
        EXPECT_EQ(length, kInf);
        EXPECT_EQ(solver.SolveHPP(D, starts, length).Size(), 0);
        EXPECT_EQ(length, kInf);
    }
    // Above n: every node starts once, the same as starts == n.
    CTSPSolver clamped;
    CTSPSolver exact;
    double clampedLength = 0.0;
    double exactLength = 0.0;
    EXPECT_EQ(toStd(clamped.SolveTSP(D, 1000, clampedLength)), toStd(exact.SolveTSP(D, 12, exactLength)));
    EXPECT_EQ(clampedLength, exactLength);
    EXPECT_EQ(toStd(clamped.SolveHPP(D, 14, clampedLength)), toStd(exact.SolveHPP(D, 13, exactLength)));
    EXPECT_EQ(clampedLength, exactLength);
}

TEST(CTSPSolver, EmptyOrNonSquareMatricesGiveNoTourAndLeaveTheEngine)
{
    CTSPSolver used;
    double length = 0.0;
    EXPECT_EQ(used.SolveTSP(TMatrix<double>(), 3, length).Size(), 0);
    EXPECT_EQ(length, kInf);
    length = 0.0;
    EXPECT_EQ(used.SolveHPP(TMatrix<double>(), 3, length).Size(), 0);
    EXPECT_EQ(length, kInf);
    length = 0.0;
    EXPECT_EQ(used.SolveTSP(TMatrix<double>(3, 4), 1, length).Size(), 0);
    EXPECT_EQ(length, kInf);
    length = 0.0;
    EXPECT_EQ(used.SolveHPP(TMatrix<double>(4, 3), 1, length).Size(), 0);
    EXPECT_EQ(length, kInf);

    const TMatrix<double> D = CTSPSolver::computeDistances(randomPoints(4, 15));
    CTSPSolver fresh;
    double a = 0.0;
    double b = 0.0;
    EXPECT_EQ(toStd(used.SolveTSP(D, 2, a)), toStd(fresh.SolveTSP(D, 2, b)));
}

// On seeded random instances: the tour is a permutation, its length recomputes, no improving
// 2-exchange is left, and it is never shorter than the enumerated optimum.
TEST(CTSPSolver, RandomToursAreTwoOptimalPermutations)
{
    for (std::uint64_t seed = 1; seed <= 6; ++seed) {
        for (int n : {5, 8, 40, 120}) {
            const TMatrix<double> D = CTSPSolver::computeDistances(randomPoints(seed * 100 + n, n));
            for (int starts : {1, 4}) {
                CTSPSolver solver;
                double length = 0.0;
                const std::vector<int> tour = toStd(solver.SolveTSP(D, starts, length));
                SCOPED_TRACE(testing::Message() << "seed " << seed << " n " << n << " starts " << starts);
                ASSERT_TRUE(isPermutation(tour, n));
                EXPECT_NEAR(length, closedLength(D, tour), 1e-12 * length);
                EXPECT_GE(bestClosedExchange(D, tour), -1e-12 * length);
                if (n <= 8) {
                    EXPECT_GE(length, bruteForceTour(D) * (1.0 - 1e-12));
                }
            }
        }
    }
}

// Paths: each node once and never the added node, the length of the open path, no improving exchange
// of two inner edges, and no gain from reversing a prefix or a suffix (moving an end).
TEST(CTSPSolver, RandomPathsAreTwoOptimal)
{
    for (std::uint64_t seed = 1; seed <= 5; ++seed) {
        for (int n : {1, 2, 3, 9, 50}) {
            const TMatrix<double> D = CTSPSolver::computeDistances(randomPoints(seed * 7 + n, n));
            CTSPSolver solver;
            double length = -1.0;
            const std::vector<int> path = toStd(solver.SolveHPP(D, 3, length));
            SCOPED_TRACE(testing::Message() << "seed " << seed << " n " << n);
            ASSERT_TRUE(isPermutation(path, n));
            EXPECT_NEAR(length, openLength(D, path), 1e-12 * (length + 1.0));
            const double tol = -1e-12 * (length + 1.0);
            for (std::size_t p = 0; p + 1 < path.size(); ++p) {
                for (std::size_t q = p + 2; q + 1 < path.size(); ++q)
                    EXPECT_GE(D(path[p], path[q]) + D(path[p + 1], path[q + 1]) - D(path[p], path[p + 1]) -
                                  D(path[q], path[q + 1]),
                              tol);
                EXPECT_GE(D(path[0], path[p + 1]) - D(path[p], path[p + 1]), tol);
                EXPECT_GE(D(path.back(), path[p]) - D(path[p], path[p + 1]), tol);
            }
        }
    }
}

TEST(CTSPSolver, SolversConstructedAlikeRepeatAndCopiesCarryTheEngine)
{
    const TMatrix<double> D = CTSPSolver::computeDistances(randomPoints(5, 80));
    CTSPSolver a;
    CTSPSolver b;
    double la = 0.0;
    double lb = 0.0;
    const std::vector<int> first = toStd(a.SolveTSP(D, 1, la));
    EXPECT_EQ(first, toStd(b.SolveTSP(D, 1, lb)));
    EXPECT_EQ(la, lb);

    CTSPSolver copied(a);
    CTSPSolver assigned;
    assigned = a;
    CTSPSolver moved;
    moved = CTSPSolver(a);
    const std::vector<int> second = toStd(a.SolveTSP(D, 1, la));
    EXPECT_EQ(second, toStd(copied.SolveTSP(D, 1, lb)));
    EXPECT_EQ(second, toStd(assigned.SolveTSP(D, 1, lb)));
    EXPECT_EQ(second, toStd(moved.SolveTSP(D, 1, lb)));
    EXPECT_NE(first[0], second[0]) << "the second call should start elsewhere";
}

TEST(CTSPSolver, CallerMatrixIsLeftAsItWas)
{
    const TMatrix<double> original = CTSPSolver::computeDistances(randomPoints(8, 30));
    TMatrix<double> D = original;
    CTSPSolver solver;
    double length = 0.0;
    solver.SolveTSP(D, 30, length);
    solver.SolveHPP(D, 5, length);
    EXPECT_TRUE(std::equal(D.Data(), D.Data() + 900, original.Data()));
}

// Garbage distances still end, with a permutation.
TEST(CTSPSolver, NonFiniteAndNonSymmetricDistancesStillGiveAPermutation)
{
    const int n = 25;
    TMatrix<double> D = CTSPSolver::computeDistances(randomPoints(17, n));
    D(3, 7) = D(7, 3) = kInf;
    D(0, 1) = D(1, 0) = kInf;
    D(4, 9) = D(9, 4) = std::numeric_limits<double>::quiet_NaN();
    CTSPSolver solver;
    double length = 0.0;
    EXPECT_TRUE(isPermutation(toStd(solver.SolveTSP(D, 5, length)), n));
    EXPECT_TRUE(isPermutation(toStd(solver.SolveHPP(D, 5, length)), n));

    TMatrix<double> unreachable(6, 6); // node 5 is infinitely far from everything
    for (int i = 0; i < 5; ++i)
        unreachable(i, 5) = unreachable(5, i) = kInf;
    EXPECT_TRUE(isPermutation(toStd(solver.SolveTSP(unreachable, 6, length)), 6));
    EXPECT_EQ(length, kInf);

    std::mt19937_64 engine(23);
    std::uniform_real_distribution<double> uniform(1.0, 10.0);
    TMatrix<double> directed(n, n);
    for (int c = 0; c < n; ++c)
        for (int r = 0; r < n; ++r)
            directed(r, c) = uniform(engine);
    const std::vector<int> tour = toStd(solver.SolveTSP(directed, n, length));
    ASSERT_TRUE(isPermutation(tour, n));
    EXPECT_NEAR(length, closedLength(directed, tour), 1e-12 * length);
}
