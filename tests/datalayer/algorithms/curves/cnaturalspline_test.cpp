#include <algorithm>
#include <cmath>
#include <gsl/gsl_spline.h>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <vector>

#include "datalayer/algorithms/curves/cnaturalspline.h"

using DataLayer::CNaturalSpline;

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

CNaturalSpline Make(const std::vector<double>& x, const std::vector<double>& y, int degree)
{
    return CNaturalSpline(x.data(), y.data(), static_cast<int>(x.size()), degree);
}

struct RandomData
{
    std::vector<double> x, y;
};

RandomData MakeRandomData(std::mt19937_64& engine, int count)
{
    std::uniform_real_distribution<double> gap(0.05, 2.0), value(-1.0, 1.0);
    RandomData d;
    double x = value(engine) * 10;
    for (int i = 0; i < count; ++i) {
        d.x.push_back(x);
        d.y.push_back(value(engine));
        x += gap(engine);
    }
    return d;
}

} // namespace

TEST(CNaturalSpline, DegreeIsClampedByRequestAndPointCount)
{
    std::vector<double> x(10), y(10);
    for (int i = 0; i < 10; ++i)
        x[i] = i, y[i] = i * i;
    EXPECT_EQ(Make(x, y, 5).degree(), 3);
    EXPECT_EQ(Make(x, y, 0).degree(), 1);
    EXPECT_EQ(Make(x, y, -4).degree(), 1);
    EXPECT_EQ(Make({0, 1, 2}, {0, 1, 0}, 3).degree(), 2);
    EXPECT_EQ(Make({0, 1}, {0, 1}, 3).degree(), 1);
}

TEST(CNaturalSpline, TooFewPointsOrBadAbscissaeGiveTheEmptySpline)
{
    const CNaturalSpline none;
    const double one = 1.0;
    std::vector<CNaturalSpline> empties;
    empties.emplace_back();
    empties.emplace_back(&one, &one, 1, 3);
    empties.emplace_back(nullptr, &one, 2, 3);
    empties.push_back(Make({0, 1, 1, 2}, {0, 1, 2, 3}, 3)); // equal neighbours
    empties.push_back(Make({0, 2, 1}, {0, 1, 2}, 2));       // not ascending
    empties.push_back(Make({0, kNaN, 2}, {0, 1, 2}, 1));
    for (const CNaturalSpline& s : empties) {
        EXPECT_EQ(s.degree(), 0);
        EXPECT_TRUE(std::isnan(s.eval(0.5, 0)));
        EXPECT_TRUE(std::isnan(s.eval(0.5, 7)));
        EXPECT_TRUE(std::isnan(s.integrate(0, 1)));
        EXPECT_TRUE(std::isnan(s.length(0, 1, 4)));
        EXPECT_TRUE(std::isnan(s.min()));
        EXPECT_TRUE(std::isnan(s.max()));
        double out[2] = {1, 1};
        s.render(out, 2, 0);
        EXPECT_TRUE(std::isnan(out[0]) && std::isnan(out[1]));
    }
}

TEST(CNaturalSpline, CubicThroughALineIsThatLine)
{
    const CNaturalSpline s = Make({0, 1, 2.5, 4, 7}, {1, 3, 6, 9, 15}, 3);
    ASSERT_EQ(s.degree(), 3);
    for (double x : {-1.0, 0.0, 0.3, 1.0, 2.2, 4.0, 6.9, 7.0, 9.0}) {
        EXPECT_NEAR(s.eval(x, 0), 1 + 2 * x, 1e-13);
        EXPECT_NEAR(s.eval(x, 1), 2.0, 1e-14);
        EXPECT_NEAR(s.eval(x, 2), 0.0, 1e-14);
        EXPECT_NEAR(s.eval(x, 3), 0.0, 1e-14);
    }
}

TEST(CNaturalSpline, InterpolatesTheKnotsAndTheLastKnotUsesTheLastPiece)
{
    std::mt19937_64 engine(47110815);
    const RandomData d = MakeRandomData(engine, 12);
    for (int degree = 1; degree <= 3; ++degree) {
        const CNaturalSpline s = Make(d.x, d.y, degree);
        for (size_t i = 0; i < d.x.size(); ++i)
            EXPECT_NEAR(s.eval(d.x[i], 0), d.y[i], 1e-14) << "degree " << degree << " knot " << i;
    }
}

TEST(CNaturalSpline, DerivativesAboveTheDegreeOrNegativeAreZero)
{
    const CNaturalSpline cubic = Make({0, 1, 2, 3}, {0, 1, 0, 1}, 3);
    const CNaturalSpline quadratic = Make({0, 1, 2, 3}, {0, 1, 0, 1}, 2);
    const CNaturalSpline linear = Make({0, 1, 2, 3}, {0, 1, 0, 1}, 1);
    EXPECT_EQ(cubic.eval(0.5, 4), 0.0);
    EXPECT_EQ(cubic.eval(0.5, -1), 0.0);
    EXPECT_EQ(quadratic.eval(0.5, 3), 0.0);
    EXPECT_EQ(linear.eval(0.5, 2), 0.0);
    EXPECT_EQ(cubic(0.5, 1), cubic.eval(0.5, 1));
    EXPECT_TRUE(std::isnan(cubic.eval(kNaN, 0))); // the piece search ends on a NaN abscissa
    EXPECT_TRUE(std::isnan(linear.eval(kNaN, 1)));
}

TEST(CNaturalSpline, EndPiecesExtrapolate)
{
    const CNaturalSpline s = Make({0, 1, 2}, {0, 1, 3}, 1);
    EXPECT_EQ(s.eval(-1, 0), -1.0);
    EXPECT_EQ(s.eval(3, 0), 5.0);
    EXPECT_EQ(s.eval(1, 1), 2.0); // a knot belongs to the piece on its right
}

TEST(CNaturalSpline, QuadraticSplineIsC1AndStartsWithTheParabolaSlope)
{
    std::mt19937_64 engine(4711);
    const RandomData d = MakeRandomData(engine, 8);
    const CNaturalSpline s = Make(d.x, d.y, 2);
    ASSERT_EQ(s.degree(), 2);
    for (size_t i = 1; i + 1 < d.x.size(); ++i) {
        const double h = 1e-9;
        EXPECT_NEAR(s.eval(d.x[i] - h, 1), s.eval(d.x[i], 1), 1e-6);
    }
    // Slope of the parabola through the first three points, at x0, by Newton's divided differences.
    const double d01 = (d.y[1] - d.y[0]) / (d.x[1] - d.x[0]), d12 = (d.y[2] - d.y[1]) / (d.x[2] - d.x[1]);
    const double d012 = (d12 - d01) / (d.x[2] - d.x[0]);
    EXPECT_NEAR(s.eval(d.x[0], 1), d01 + d012 * (d.x[0] - d.x[1]), 1e-11);
}

TEST(CNaturalSpline, IntegralWorkedValuesAndAntisymmetry)
{
    const CNaturalSpline s = Make({0, 1}, {0, 1}, 1);
    EXPECT_DOUBLE_EQ(s.integrate(0.5, 1), 0.375);
    EXPECT_DOUBLE_EQ(s.integrate(1, 0.5), -0.375);
    EXPECT_EQ(s.integrate(0.3, 0.3), 0.0);
    EXPECT_TRUE(std::isnan(s.integrate(kNaN, 1)));
    std::mt19937_64 engine(47110815);
    const RandomData d = MakeRandomData(engine, 9);
    const CNaturalSpline c = Make(d.x, d.y, 3);
    const double a = d.x[1] + 0.1, b = d.x[7] - 0.2;
    EXPECT_NEAR(c.integrate(b, a), -c.integrate(a, b), 1e-15);
    EXPECT_NEAR(c.integrate(a, b), c.integrate(a, d.x[4]) + c.integrate(d.x[4], b), 1e-13);
}

TEST(CNaturalSpline, LengthWorkedValuesAndBadStepCounts)
{
    const CNaturalSpline s = Make({0, 1}, {0, 1}, 1);
    EXPECT_NEAR(s.length(0, 1, 2), std::sqrt(2.0), 1e-15);
    EXPECT_EQ(s.length(0, 1, 0), 0.0);
    EXPECT_EQ(s.length(0, 1, -2), 0.0);
    // A quarter of the unit circle's graph is not a spline, but a fine cubic through the parabola
    // y = x^2 on [0, 1] has the parabola's arc length to a few digits.
    std::vector<double> x, y;
    for (int i = 0; i <= 40; ++i)
        x.push_back(i / 40.0), y.push_back(x.back() * x.back());
    const double exact = (2 * std::sqrt(5.0) + std::asinh(2.0)) / 4;
    EXPECT_NEAR(Make(x, y, 3).length(0, 1, 200), exact, 1e-4);
}

TEST(CNaturalSpline, MinAndMaxAreAbscissaeAndTheFirstTieWins)
{
    const CNaturalSpline s = Make({0, 1, 2, 3}, {2, 1, 1, 3}, 1);
    EXPECT_EQ(s.min(), 1.0);
    EXPECT_EQ(s.max(), 3.0);
    // A concave quadratic piece has its top inside.
    const CNaturalSpline q = Make({0, 1, 2}, {0, 1, 0}, 2);
    EXPECT_NEAR(q.max(), 1.0, 1e-15);
}

// Symmetric data make the middle piece of the natural cubic exactly quadratic (d = 0); its top
// must be found without the division by d.
TEST(CNaturalSpline, CubicPieceWithoutCubicTermStillHasItsExtremum)
{
    const CNaturalSpline s = Make({0, 1, 2, 3}, {0, 1, 1, 0}, 3);
    ASSERT_EQ(s.eval(1.5, 3), 0.0);
    EXPECT_NEAR(s.max(), 1.5, 1e-15);
    EXPECT_EQ(s.min(), 0.0);
}

// The extrema of random cubic and quadratic splines against a dense sampling.
TEST(CNaturalSpline, MinAndMaxBeatADenseSampling)
{
    std::mt19937_64 engine(47110815);
    for (int trial = 0; trial < 50; ++trial) {
        const RandomData d = MakeRandomData(engine, 4 + trial % 10);
        for (int degree = 2; degree <= 3; ++degree) {
            const CNaturalSpline s = Make(d.x, d.y, degree);
            double lo = INFINITY, hi = -INFINITY;
            std::vector<double> samples(4001);
            s.render(samples.data(), static_cast<int>(samples.size()), 0);
            for (double v : samples)
                lo = std::min(lo, v), hi = std::max(hi, v);
            const double xmin = s.min(), xmax = s.max();
            EXPECT_GE(xmin, d.x.front());
            EXPECT_LE(xmax, d.x.back());
            EXPECT_LE(s.eval(xmin, 0), lo + 1e-12) << "trial " << trial << " degree " << degree;
            EXPECT_GE(s.eval(xmax, 0), hi - 1e-12) << "trial " << trial << " degree " << degree;
        }
    }
}

TEST(CNaturalSpline, RenderSamplesFromFirstToLastKnot)
{
    const CNaturalSpline s = Make({1, 2, 4}, {5, 6, 10}, 1);
    double two[2];
    s.render(two, 2, 0);
    EXPECT_EQ(two[0], 5.0);
    EXPECT_EQ(two[1], 10.0);
    double one[1];
    s.render(one, 1, 0);
    EXPECT_EQ(one[0], 5.0);
    double five[5];
    s.render(five, 5, 1);
    EXPECT_EQ(five[0], 1.0);
    EXPECT_EQ(five[4], 2.0);
    double untouched = 7;
    s.render(&untouched, 0, 0);
    s.render(nullptr, 3, 0);
    EXPECT_EQ(untouched, 7.0);
}

TEST(CNaturalSpline, CopiesAreDeepAndMovesEmptyTheSource)
{
    CNaturalSpline a = Make({0, 1, 2, 3}, {0, 1, 0, 1}, 3);
    CNaturalSpline b = a;
    const double before = b.eval(1.5, 0);
    a = Make({0, 1}, {5, 5}, 1);
    EXPECT_EQ(b.eval(1.5, 0), before);
    CNaturalSpline c = std::move(b);
    EXPECT_EQ(c.eval(1.5, 0), before);
    EXPECT_EQ(b.degree(), 0); // NOLINT(bugprone-use-after-move): the moved-from state is defined
    EXPECT_TRUE(std::isnan(b.eval(1.5, 0)));
    CNaturalSpline& self = c;
    c = self;
    EXPECT_EQ(c.eval(1.5, 0), before);
}

// Independent reference: GSL's natural cubic spline on the same data.
TEST(CNaturalSpline, CubicMatchesGslNaturalSpline)
{
    std::mt19937_64 engine(47110815);
    double worst = 0;
    for (int trial = 0; trial < 40; ++trial) {
        const RandomData d = MakeRandomData(engine, 4 + trial * 5);
        const CNaturalSpline s = Make(d.x, d.y, 3);
        gsl_interp_accel* acc = gsl_interp_accel_alloc();
        gsl_spline* g = gsl_spline_alloc(gsl_interp_cspline, d.x.size());
        gsl_spline_init(g, d.x.data(), d.y.data(), d.x.size());
        std::uniform_real_distribution<double> where(d.x.front(), d.x.back());
        auto check = [&](double ours, double theirs) {
            const double error = std::abs(ours - theirs) / std::max(1.0, std::abs(theirs));
            worst = std::max(worst, error);
            EXPECT_LT(error, 1e-10) << ours << " vs " << theirs << " trial " << trial;
        };
        for (int k = 0; k < 200; ++k) {
            const double x = k < static_cast<int>(d.x.size()) ? d.x[k] : where(engine);
            check(s.eval(x, 0), gsl_spline_eval(g, x, acc));
            check(s.eval(x, 1), gsl_spline_eval_deriv(g, x, acc));
            check(s.eval(x, 2), gsl_spline_eval_deriv2(g, x, acc));
            const double a = where(engine), b = where(engine);
            check(s.integrate(std::min(a, b), std::max(a, b)),
                  gsl_spline_eval_integ(g, std::min(a, b), std::max(a, b), acc));
        }
        gsl_spline_free(g);
        gsl_interp_accel_free(acc);
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.3g", worst);
    RecordProperty("worst", text);
}
