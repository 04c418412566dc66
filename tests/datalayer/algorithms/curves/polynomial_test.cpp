#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <gsl/gsl_poly.h>
#include <gtest/gtest.h>
#include <random>
#include <vector>

#include "datalayer/algorithms/curves/polynomial.h"

namespace poly = DataLayer::Polynomial;
using C = std::complex<double>;

namespace {

void ExpectRoot(const C& actual, const C& expected, double tol = 1e-14)
{
    EXPECT_NEAR(actual.real(), expected.real(), tol) << actual << " vs " << expected;
    EXPECT_NEAR(actual.imag(), expected.imag(), tol) << actual << " vs " << expected;
}

/// The roots of the real polynomial with descending coefficients c by GSL's companion-matrix QR.
std::vector<C> GslRoots(const std::vector<double>& descending)
{
    std::vector<double> ascending(descending.rbegin(), descending.rend());
    const size_t n = ascending.size();
    std::vector<double> packed(2 * (n - 1));
    gsl_poly_complex_workspace* w = gsl_poly_complex_workspace_alloc(n);
    const int status = gsl_poly_complex_solve(ascending.data(), n, w, packed.data());
    gsl_poly_complex_workspace_free(w);
    EXPECT_EQ(status, 0);
    std::vector<C> roots;
    for (size_t i = 0; i + 1 < n; ++i)
        roots.emplace_back(packed[2 * i], packed[2 * i + 1]);
    return roots;
}

/// Largest distance between the two root lists under a greedy nearest matching, relative to
/// max(1, |root|).
double MatchDistance(std::vector<C> ours, std::vector<C> theirs)
{
    double worst = 0;
    for (const C& r : ours) {
        auto best = std::min_element(theirs.begin(), theirs.end(), [&](const C& a, const C& b) {
            return std::abs(a - r) < std::abs(b - r);
        });
        worst = std::max(worst, std::abs(*best - r) / std::max(1.0, std::abs(r)));
        theirs.erase(best);
    }
    return worst;
}

std::vector<double> RandomCoefficients(std::mt19937_64& engine, int count)
{
    std::uniform_real_distribution<double> uniform(-1.0, 1.0), lead(0.5, 2.0);
    std::vector<double> c(static_cast<size_t>(count));
    c[0] = lead(engine) * (uniform(engine) < 0 ? -1.0 : 1.0);
    for (int i = 1; i < count; ++i)
        c[i] = uniform(engine);
    return c;
}

std::vector<C> AsComplex(const std::vector<double>& c)
{
    return std::vector<C>(c.begin(), c.end());
}

} // namespace

TEST(PolynomialRoots2, WorkedOrders)
{
    C r[2];
    const C a[3] = {1, -3, 2};
    ASSERT_TRUE(poly::Roots2(a, r));
    ExpectRoot(r[0], 2);
    ExpectRoot(r[1], 1);
    const C b[3] = {1, 0, 1};
    ASSERT_TRUE(poly::Roots2(b, r));
    ExpectRoot(r[0], C(0, 1));
    ExpectRoot(r[1], C(0, -1));
    const C c[3] = {1, 1, 0};
    ASSERT_TRUE(poly::Roots2(c, r));
    EXPECT_EQ(r[0], C(0));
    EXPECT_EQ(r[1], C(-1));
    const C notQuadratic[3] = {0, 1, 1};
    r[0] = r[1] = 42;
    EXPECT_FALSE(poly::Roots2(notQuadratic, r));
    EXPECT_EQ(r[0], C(42));
    EXPECT_FALSE(poly::Roots2(nullptr, r));
    EXPECT_FALSE(poly::Roots2(a, nullptr));
}

TEST(PolynomialRoots3, WorkedOrdersThroughEachCase)
{
    C r[3];
    const C trigonometric[4] = {1, -6, 11, -6};
    ASSERT_TRUE(poly::Roots3(trigonometric, r, false));
    ExpectRoot(r[0], 3);
    ExpectRoot(r[1], 2);
    ExpectRoot(r[2], 1);
    const C cardano[4] = {1, 0, 0, -8};
    ASSERT_TRUE(poly::Roots3(cardano, r, false));
    ExpectRoot(r[0], 2);
    ExpectRoot(r[1], C(-1, std::sqrt(3.0)));
    ExpectRoot(r[2], C(-1, -std::sqrt(3.0)));
    const C triple[4] = {1, -3, 3, -1};
    ASSERT_TRUE(poly::Roots3(triple, r, false));
    for (const C& root : r)
        ExpectRoot(root, 1);
    const C zeroConstant[4] = {1, 0, -1, 0};
    ASSERT_TRUE(poly::Roots3(zeroConstant, r, false));
    ExpectRoot(r[0], 0);
    ExpectRoot(r[1], 1);
    ExpectRoot(r[2], -1);
}

TEST(PolynomialRoots3, DoubleRootWithNegativeShiftedValueIsReal)
{
    // (x + 1)^2 (x - 2) = x^3 - 3x - 2: g = -2 in the depressed form.
    C r[3];
    const C c[4] = {1, 0, -3, -2};
    ASSERT_TRUE(poly::Roots3(c, r, false));
    ExpectRoot(r[0], -1);
    ExpectRoot(r[1], -1);
    ExpectRoot(r[2], 2);
}

TEST(PolynomialRoots3, NegativeLeadingCoefficientGivesTheSameRoots)
{
    C r[3], s[3];
    const C c[4] = {-2, 12, -22, 12}; // -2 (x - 1)(x - 2)(x - 3)
    const C monic[4] = {1, -6, 11, -6};
    ASSERT_TRUE(poly::Roots3(c, r, false));
    ASSERT_TRUE(poly::Roots3(monic, s, false));
    for (int i = 0; i < 3; ++i)
        ExpectRoot(r[i], s[i]);
    const C cardano[4] = {-1, 0, 0, 8};
    ASSERT_TRUE(poly::Roots3(cardano, r, false));
    ExpectRoot(r[0], 2);
}

TEST(PolynomialRoots3, FirstOnlyWritesOneRootAndZeroLeadFails)
{
    C r[3] = {7, 7, 7};
    const C c[4] = {1, -6, 11, -6};
    ASSERT_TRUE(poly::Roots3(c, r, true));
    ExpectRoot(r[0], 3);
    EXPECT_EQ(r[1], C(7));
    EXPECT_EQ(r[2], C(7));
    const C zeroConstant[4] = {1, 0, -1, 0};
    r[1] = 7;
    ASSERT_TRUE(poly::Roots3(zeroConstant, r, true));
    EXPECT_EQ(r[1], C(7));
    const C notCubic[4] = {1e-17, 1, 1, 1};
    EXPECT_FALSE(poly::Roots3(notCubic, r, false));
    EXPECT_EQ(r[1], C(7));
}

TEST(PolynomialRoots4, WorkedOrders)
{
    C r[4];
    const C general[5] = {1, -10, 35, -50, 24};
    ASSERT_TRUE(poly::Roots4(general, r));
    const double expected[4] = {4, 1, 3, 2};
    for (int i = 0; i < 4; ++i)
        ExpectRoot(r[i], expected[i], 1e-12);
    const C biquadratic[5] = {1, 0, -5, 0, 4};
    ASSERT_TRUE(poly::Roots4(biquadratic, r));
    const double bq[4] = {2, -2, 1, -1};
    for (int i = 0; i < 4; ++i)
        ExpectRoot(r[i], bq[i]);
    const C zeroConstant[5] = {1, -6, 11, -6, 0};
    ASSERT_TRUE(poly::Roots4(zeroConstant, r));
    const double zc[4] = {0, 3, 2, 1};
    for (int i = 0; i < 4; ++i)
        ExpectRoot(r[i], zc[i]);
    const C imaginaryLead[5] = {C(0, 1), 0, 0, 0, 1};
    r[0] = 42;
    EXPECT_FALSE(poly::Roots4(imaginaryLead, r));
    EXPECT_EQ(r[0], C(42));
}

class PolynomialRootsAgainstGsl : public ::testing::TestWithParam<int>
{
};

// Random real coefficients (leading magnitude 0.5 to 2, the rest in [-1, 1]) against GSL's
// companion-matrix solver, matched root by root.
TEST_P(PolynomialRootsAgainstGsl, RootsMatch)
{
    const int degree = GetParam();
    std::mt19937_64 engine(47110815 + degree);
    double worst = 0;
    for (int trial = 0; trial < 2000; ++trial) {
        const std::vector<double> c = RandomCoefficients(engine, degree + 1);
        const std::vector<C> cc = AsComplex(c);
        std::vector<C> ours(static_cast<size_t>(degree));
        const bool ok = degree == 2   ? poly::Roots2(cc.data(), ours.data())
                        : degree == 3 ? poly::Roots3(cc.data(), ours.data(), false)
                                      : poly::Roots4(cc.data(), ours.data());
        ASSERT_TRUE(ok);
        const double d = MatchDistance(ours, GslRoots(c));
        worst = std::max(worst, d);
        // Closed forms lose digits near multiple roots; random inputs stay well clear of those.
        EXPECT_LT(d, degree == 2 ? 1e-14 : degree == 3 ? 1e-9 : 1e-8) << "trial " << trial;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.3g", worst);
    RecordProperty("worst", text);
}

INSTANTIATE_TEST_SUITE_P(Degrees, PolynomialRootsAgainstGsl, ::testing::Values(2, 3, 4),
                         [](const auto& info) { return "degree" + std::to_string(info.param); });
