#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <stdexcept>
#include <vector>

#include "datalayer/algorithms/curves/cpolynomial.h"

using DataLayer::CPolynomial;

TEST(CPolynomial, InvalidAndZeroPolynomials)
{
    const CPolynomial invalid;
    EXPECT_FALSE(static_cast<bool>(invalid));
    EXPECT_TRUE(std::isnan(invalid(1.0)));
    EXPECT_EQ(invalid.GetDegree(), -1);
    EXPECT_FALSE(static_cast<bool>(invalid.GetDerivative()));
    const CPolynomial two(2);
    EXPECT_EQ(two.GetDegree(), 2);
    EXPECT_EQ(two(3.5), 0.0);
    EXPECT_THROW(CPolynomial(std::numeric_limits<unsigned long long>::max()), std::length_error);
}

TEST(CPolynomial, ValueAndDerivativeWorkedExample)
{
    CPolynomial p(2);
    p[0] = 1;
    p[1] = 2;
    p[2] = 3;
    EXPECT_EQ(p(2.0), 17.0);
    const CPolynomial d = p.GetDerivative();
    ASSERT_EQ(d.GetDegree(), 1);
    EXPECT_EQ(d[0], 2.0);
    EXPECT_EQ(d[1], 6.0);
    CPolynomial constant(0);
    constant[0] = 5;
    const CPolynomial zero = constant.GetDerivative();
    ASSERT_TRUE(static_cast<bool>(zero));
    EXPECT_EQ(zero.GetDegree(), 0);
    EXPECT_EQ(zero[0], 0.0);
}

TEST(CPolynomial, CopiesAreDeepAndSelfAssignmentIsHarmless)
{
    CPolynomial p(1);
    p[1] = 4;
    CPolynomial q = p;
    q[1] = 5;
    EXPECT_EQ(p[1], 4.0);
    CPolynomial& self = p;
    p = self;
    EXPECT_EQ(p[1], 4.0);
    q = CPolynomial();
    EXPECT_FALSE(static_cast<bool>(q));
    CPolynomial moved = std::move(p);
    EXPECT_EQ(moved[1], 4.0);
}

TEST(CPolynomialFit, ThroughThreePointsWithDegreeTwo)
{
    double x[3] = {-1, 0.5, 2}, y[3] = {4, -1, 3};
    const CPolynomial p = CPolynomial::Fit(3, x, y, 2);
    ASSERT_EQ(p.GetDegree(), 2);
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(p(x[i]), y[i], 1e-13);
    float xf[3] = {-1, 0.5f, 2}, yf[3] = {4, -1, 3};
    const CPolynomial pf = CPolynomial::Fit(3, xf, yf, 2);
    for (int i = 0; i < 3; ++i)
        EXPECT_NEAR(pf[static_cast<unsigned long long>(i)], p[static_cast<unsigned long long>(i)], 1e-12);
}

// Least squares: a noisy cubic is fitted with residuals orthogonal to every power of x.
TEST(CPolynomialFit, ResidualsAreOrthogonalToThePowers)
{
    std::mt19937_64 engine(47110815);
    std::uniform_real_distribution<double> u(-2.0, 2.0);
    std::normal_distribution<double> noise(0.0, 0.1);
    std::vector<double> x(50), y(50);
    for (size_t i = 0; i < x.size(); ++i) {
        x[i] = u(engine);
        y[i] = 1 - x[i] + 0.5 * x[i] * x[i] * x[i] + noise(engine);
    }
    const CPolynomial p = CPolynomial::Fit(x.size(), x.data(), y.data(), 3);
    ASSERT_EQ(p.GetDegree(), 3);
    for (int power = 0; power <= 3; ++power) {
        double dot = 0;
        for (size_t i = 0; i < x.size(); ++i)
            dot += (y[i] - p(x[i])) * std::pow(x[i], power);
        EXPECT_NEAR(dot, 0.0, 1e-10);
    }
    EXPECT_NEAR(p[3], 0.5, 0.05);
}

TEST(CPolynomialFit, BadInputGivesAnInvalidPolynomial)
{
    double x[2] = {0, 1};
    EXPECT_FALSE(static_cast<bool>(CPolynomial::Fit(0, x, x, 1)));
    EXPECT_FALSE(static_cast<bool>(CPolynomial::Fit(2, static_cast<double*>(nullptr), x, 1)));
    EXPECT_FALSE(static_cast<bool>(CPolynomial::Fit(2, x, x, 1ull << 40)));
}
