#include <Eigen/Dense>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "datalayer/algorithms/optimisation/cdoptimaldesign.h"
#include "test_support.h"

using DataLayer::CDOptimalDesign;

namespace {

TMatrix<double> column(const std::vector<double>& values)
{
    TMatrix<double> m(static_cast<int>(values.size()), 1);
    for (int i = 0; i < m.Rows(); ++i)
        m(i, 0) = values[static_cast<std::size_t>(i)];
    return m;
}

std::vector<int> toStd(const TVector<int>& v)
{
    return std::vector<int>(v.Data(), v.Data() + v.Size());
}

// det(X^T X) of the chosen rows, by Eigen's LU: independent of the library's Cholesky path.
double referenceDeterminant(const TMatrix<double>& candidates, const std::vector<int>& rows)
{
    Eigen::MatrixXd X(static_cast<Eigen::Index>(rows.size()), candidates.Cols());
    for (std::size_t k = 0; k < rows.size(); ++k)
        for (int c = 0; c < candidates.Cols(); ++c)
            X(static_cast<Eigen::Index>(k), c) = candidates(rows[k], c);
    return (X.transpose() * X).determinant();
}

// The largest determinant over all subsets of size n, by enumeration.
double bruteForceBest(const TMatrix<double>& candidates, int n)
{
    const int N = candidates.Rows();
    std::vector<char> mask(static_cast<std::size_t>(N), 0);
    std::fill(mask.begin(), mask.begin() + n, 1);
    double best = 0.0;
    do {
        std::vector<int> rows;
        for (int i = 0; i < N; ++i)
            if (mask[static_cast<std::size_t>(i)])
                rows.push_back(i);
        best = std::max(best, referenceDeterminant(candidates, rows));
    } while (std::prev_permutation(mask.begin(), mask.end()));
    return best;
}

std::vector<double> parsedStopDeterminants(const std::string& log)
{
    std::vector<double> stops;
    std::istringstream in(log);
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t at = line.find("det stop=");
        if (at != std::string::npos)
            stops.push_back(std::stod(line.substr(at + 9)));
    }
    return stops;
}

int countOf(const std::string& text, const std::string& what)
{
    int count = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

struct Search
{
    std::vector<int> design;
    double determinant = -1.0;
    std::string log;
};

Search runSearch(const CDOptimalDesign& solver, int numStarts)
{
    Search s;
    testing::internal::CaptureStderr();
    s.design = toStd(solver.FindOptimalDesign(numStarts, s.determinant));
    s.log = testing::internal::GetCapturedStderr();
    return s;
}

} // namespace

// One parameter, candidates 1, 2 and 3, one measurement: the value 3 (candidate number 2) with
// det = 3^2. Every counted start begins at 1 or 2 and needs one exchange.
TEST(CDOptimalDesign, SingleParameterExampleChoosesTheLargestValue)
{
    const CDOptimalDesign solver(column({1.0, 2.0, 3.0}), 1);
    const Search s = runSearch(solver, 4);
    EXPECT_EQ(s.design, std::vector<int>({2}));
    EXPECT_DOUBLE_EQ(s.determinant, 9.0);
    EXPECT_EQ(countOf(s.log, "(NLS OED) #iters=1: det start="), 4) << s.log;
    EXPECT_EQ(countOf(s.log, "det stop=9\n"), 4) << s.log;
    EXPECT_NE(s.log.find("(NLS OED) det best=9\n"), std::string::npos) << s.log;
    EXPECT_EQ(countOf(s.log, "det start=3,"), 0)
        << "a start at the optimum needs no exchange and must not count";
}

TEST(CDOptimalDesign, NoStartsGiveAnEmptyDesignAndOnlyTheBestLine)
{
    const CDOptimalDesign solver(column({1.0, 2.0, 3.0}), 1);
    for (int starts : {0, -3}) {
        const Search s = runSearch(solver, starts);
        EXPECT_TRUE(s.design.empty());
        EXPECT_EQ(s.determinant, 0.0);
        EXPECT_EQ(s.log, "(NLS OED) det best=0\n");
    }
}

// The result must be the best local optimum of the counted starts, sorted, with the determinant of
// its rows, and no single exchange may improve it by the threshold; checked against enumeration.
TEST(CDOptimalDesign, RandomProblemsAgreeWithEnumerationOfAllSubsets)
{
    struct Shape
    {
        int N, p, n;
    };
    int reachedGlobal = 0;
    int problems = 0;
    for (const Shape shape :
         {Shape{8, 2, 3}, Shape{9, 3, 5}, Shape{10, 3, 4}, Shape{11, 4, 6}, Shape{12, 2, 2}}) {
        for (std::uint64_t seed : {11u, 12u, 13u}) {
            std::mt19937_64 engine(seed * 1000 + static_cast<std::uint64_t>(shape.N));
            const TMatrix<double> candidates = vorn2test::RandomMatrix(engine, shape.N, shape.p);
            const CDOptimalDesign solver(candidates, shape.n);
            const Search s = runSearch(solver, 6);
            SCOPED_TRACE(testing::Message()
                         << "N=" << shape.N << " p=" << shape.p << " n=" << shape.n << " seed=" << seed);
            ASSERT_EQ(static_cast<int>(s.design.size()), shape.n);
            EXPECT_TRUE(std::is_sorted(s.design.begin(), s.design.end()));
            EXPECT_EQ(std::adjacent_find(s.design.begin(), s.design.end()), s.design.end());
            EXPECT_GE(s.design.front(), 0);
            EXPECT_LT(s.design.back(), shape.N);

            // The carried determinant drifts only by the rounding of a few update products.
            const double exact = referenceDeterminant(candidates, s.design);
            EXPECT_NEAR(s.determinant, exact, 1e-9 * exact);

            // Local optimum: no exchange of one row in for one row out beats 1 + 1e-5 (minus rounding).
            for (int in = 0; in < shape.N; ++in) {
                if (std::binary_search(s.design.begin(), s.design.end(), in))
                    continue;
                for (std::size_t out = 0; out < s.design.size(); ++out) {
                    std::vector<int> swapped = s.design;
                    swapped[out] = in;
                    EXPECT_LE(referenceDeterminant(candidates, swapped), exact * (1.0 + 1e-5 + 1e-9))
                        << "exchange " << s.design[out] << " -> " << in << " still improves";
                }
            }

            // The best of the counted starts, as the debug lines report them.
            const std::vector<double> stops = parsedStopDeterminants(s.log);
            ASSERT_EQ(stops.size(), 6u) << s.log;
            EXPECT_NEAR(*std::max_element(stops.begin(), stops.end()), s.determinant, 1e-5 * s.determinant);

            const double global = bruteForceBest(candidates, shape.n);
            EXPECT_LE(exact, global * (1.0 + 1e-9));
            ++problems;
            if (exact >= global * (1.0 - 1e-9))
                ++reachedGlobal;
        }
    }
    // Six starts on problems this small find the global optimum almost always.
    EXPECT_GE(reachedGlobal, problems - 2) << reachedGlobal << " of " << problems;
}

TEST(CDOptimalDesign, EqualGainsTakeTheLowestCandidateInThenTheLowestOut)
{
    // Adding: from candidate 0, candidates 1 and 2 gain alike; 1 wins.
    const Search in = runSearch(CDOptimalDesign(column({1.0, 3.0, 3.0}), 1), 3);
    EXPECT_EQ(in.design, std::vector<int>({1}));
    EXPECT_DOUBLE_EQ(in.determinant, 9.0);
    // Removing: from {0, 1} adding 2 can drop either equal row; 0 goes.
    const Search out = runSearch(CDOptimalDesign(column({1.0, 1.0, 5.0}), 2), 3);
    EXPECT_EQ(out.design, std::vector<int>({1, 2}));
    EXPECT_DOUBLE_EQ(out.determinant, 26.0);
}

TEST(CDOptimalDesign, ExchangeNeedsAGainOfTheThreshold)
{
    // 1.000004^2 = 1 + 8e-6: below the threshold of 1e-5, so no start ever exchanges. The search ends
    // by the bound on uncounted starts and returns the better regular start it met.
    const Search small = runSearch(CDOptimalDesign(column({1.0, 1.000004}), 1), 2);
    EXPECT_EQ(countOf(small.log, "#iters"), 0) << small.log;
    EXPECT_EQ(small.design, std::vector<int>({1}));
    EXPECT_NEAR(small.determinant, 1.000004 * 1.000004, 1e-15);

    // 1.00001^2 = 1 + 2.00001e-5: a start at 0 exchanges and counts.
    const Search large = runSearch(CDOptimalDesign(column({1.0, 1.00001}), 1), 2);
    EXPECT_EQ(countOf(large.log, "(NLS OED) #iters=1: det start=1, det stop=1.00002\n"), 2) << large.log;
    EXPECT_EQ(large.design, std::vector<int>({1}));
}

TEST(CDOptimalDesign, HopelessInputEndsWithAnEmptyDesign)
{
    // The second parameter is never measured: every start is singular; the bound ends the search.
    TMatrix<double> rankOne(6, 2);
    for (int i = 0; i < 6; ++i)
        rankOne(i, 0) = i + 1.0;
    const Search singular = runSearch(CDOptimalDesign(rankOne, 3), 5);
    EXPECT_TRUE(singular.design.empty());
    EXPECT_EQ(singular.determinant, 0.0);
    EXPECT_EQ(singular.log, "(NLS OED) det best=0\n");

    TMatrix<double> withNaN = rankOne;
    withNaN(3, 1) = std::numeric_limits<double>::quiet_NaN();
    TMatrix<double> withInf = rankOne;
    withInf(0, 0) = std::numeric_limits<double>::infinity();
    std::mt19937_64 engine(5);
    const TMatrix<double> regular = vorn2test::RandomMatrix(engine, 6, 2);
    struct Case
    {
        const char* what;
        TMatrix<double> candidates;
        int n;
    };
    for (const Case& c :
         {Case{"NaN entry", withNaN, 3}, Case{"infinite entry", withInf, 3},
          Case{"fewer rows than parameters", regular, 1}, Case{"more rows than candidates", regular, 7},
          Case{"no rows", regular, 0}, Case{"negative size", regular, -2},
          Case{"no columns", TMatrix<double>(6, 0), 3}, Case{"no candidates", TMatrix<double>(), 1}}) {
        const Search s = runSearch(CDOptimalDesign(c.candidates, c.n), 3);
        EXPECT_TRUE(s.design.empty()) << c.what;
        EXPECT_EQ(s.determinant, 0.0) << c.what;
        EXPECT_EQ(s.log, "(NLS OED) det best=0\n") << c.what;
    }
}

TEST(CDOptimalDesign, ChoosingAllCandidatesReturnsThemWithTheirDeterminant)
{
    std::mt19937_64 engine(21);
    const TMatrix<double> candidates = vorn2test::RandomMatrix(engine, 5, 3);
    const Search all = runSearch(CDOptimalDesign(candidates, 5), 2);
    EXPECT_EQ(all.design, std::vector<int>({0, 1, 2, 3, 4}));
    const double exact = referenceDeterminant(candidates, all.design);
    EXPECT_NEAR(all.determinant, exact, 1e-12 * exact);

    TMatrix<double> dependent(3, 3); // three rows of rank 2
    dependent(0, 0) = 1.0;
    dependent(1, 1) = 1.0;
    dependent(2, 0) = 1.0;
    dependent(2, 1) = 1.0;
    const Search none = runSearch(CDOptimalDesign(dependent, 3), 2);
    EXPECT_TRUE(none.design.empty());
    EXPECT_EQ(none.determinant, 0.0);
}

// The engine is seeded alike in every new object and copied with it; each search advances it.
TEST(CDOptimalDesign, EngineStateRepeatsAcrossObjectsAndCopies)
{
    std::mt19937_64 engine(77);
    const TMatrix<double> candidates = vorn2test::RandomMatrix(engine, 30, 4);
    const CDOptimalDesign first(candidates, 6);
    const CDOptimalDesign second(candidates, 6);
    const Search a = runSearch(first, 1);
    const Search b = runSearch(second, 1);
    EXPECT_EQ(a.design, b.design);
    EXPECT_EQ(a.determinant, b.determinant);
    EXPECT_EQ(a.log, b.log);

    const CDOptimalDesign copy(first); // continues where first stands
    CDOptimalDesign assigned(candidates, 2);
    assigned = first;
    const Search next = runSearch(first, 1);
    const Search fromCopy = runSearch(copy, 1);
    const Search fromAssigned = runSearch(assigned, 1);
    EXPECT_EQ(next.log, fromCopy.log);
    EXPECT_EQ(next.log, fromAssigned.log);
    EXPECT_NE(next.log, a.log) << "the second search should start from other random designs";
}

TEST(CDOptimalDesign, CallerMatrixIsCopiedNotKept)
{
    TMatrix<double> candidates = column({1.0, 2.0, 3.0});
    const CDOptimalDesign solver(candidates, 1);
    candidates(2, 0) = 0.0;
    const Search s = runSearch(solver, 1);
    EXPECT_EQ(s.design, std::vector<int>({2}));
    EXPECT_EQ(candidates(1, 0), 2.0);
}

// The first start is the first n entries of a front-to-back Fisher-Yates shuffle of 0..N-1 driven by
// 53-bit canonical draws from mt19937_64 seeded with 47110815; its determinant is the first line's.
TEST(CDOptimalDesign, FirstStartFollowsTheSeededShuffle)
{
    std::mt19937_64 data(314);
    const TMatrix<double> candidates = vorn2test::RandomMatrix(data, 12, 2);
    const int n = 3;
    std::mt19937_64 engine(47110815);
    std::vector<int> order(12);
    for (int i = 0; i < 12; ++i)
        order[static_cast<std::size_t>(i)] = i;
    for (int i = 0; i < 11; ++i) {
        const double u = std::generate_canonical<double, 53>(engine);
        std::swap(order[static_cast<std::size_t>(i)],
                  order[static_cast<std::size_t>(i + std::floor(u * (12 - i)))]);
    }
    const double expected =
        referenceDeterminant(candidates, std::vector<int>(order.begin(), order.begin() + n));

    const Search s = runSearch(CDOptimalDesign(candidates, n), 1);
    const std::size_t at = s.log.find("det start=");
    ASSERT_EQ(s.log.rfind("(NLS OED) #iters=", 0), 0u) << "the first start should need an exchange:\n"
                                                       << s.log;
    EXPECT_NEAR(std::stod(s.log.substr(at + 10)), expected, 1e-5 * expected) << s.log;
}
