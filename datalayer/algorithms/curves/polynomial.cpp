#include "datalayer/algorithms/curves/polynomial.h"

#include <algorithm>
#include <cmath>

namespace DataLayer::Polynomial {

namespace {
using C = std::complex<double>;
constexpr double kEps = 2.2204e-16;
constexpr double kThird = 0.3333333333333333;
constexpr double kTwoThirdsPi = 2.0943951023931953;

/// Cube root of z: the real one for a real z, the principal value otherwise.
C cubeRoot(C z)
{
    if (z.imag() == 0)
        return C(std::cbrt(z.real()), 0.0);
    return std::pow(z, kThird);
}
} // namespace

bool Roots2(const C* c, C* r)
{
    if (!c || !r || !(std::abs(c[0]) >= kEps))
        return false;
    const C a = c[0], b = c[1], k = c[2];
    if (std::abs(k) < kEps) {
        r[0] = 0.0;
        r[1] = -b / a;
        return true;
    }
    C s = std::sqrt(b * b - 4.0 * a * k);
    if (b.real() < kEps)
        s = -s;
    const C q = -(b + s) / 2.0;
    r[0] = q / a;
    r[1] = k / q;
    return true;
}

bool Roots3(const C* coefficients, C* r, bool firstOnly)
{
    if (!coefficients || !r || !(std::abs(coefficients[0]) >= kEps))
        return false;
    // Monic form: the cube roots below assume a positive leading coefficient.
    const C lead = coefficients[0];
    const C a = 1.0, b = coefficients[1] / lead, c = coefficients[2] / lead, d = coefficients[3] / lead;
    if (std::abs(d) < kEps) {
        r[0] = 0.0;
        if (!firstOnly) {
            const C quadratic[3] = {a, b, c};
            Roots2(quadratic, r + 1);
        }
        return true;
    }
    const C s = -b / (3.0 * a);
    const C g = ((a * s + b) * s + c) * s + d;
    const C h = (b * b - 3.0 * a * c) / (9.0 * a * a);
    const C twoA = 2.0 * a;
    const C discriminant = g * g - twoA * twoA * h * h * h;
    if (discriminant.real() >= kEps) {
        const C q = std::sqrt(discriminant);
        const C plus = g + q, minus = g - q;
        C u = std::pow(std::abs(minus) / twoA, kThird);
        C v = std::pow(std::abs(plus) / twoA, kThird);
        if (minus.real() > 0)
            u = -u;
        if (plus.real() > 0)
            v = -v;
        r[0] = u + v + s;
        if (!firstOnly) {
            const C rotate = std::polar(1.0, kTwoThirdsPi);
            r[1] = v * std::conj(rotate) + u * rotate + s;
            r[2] = std::conj(r[1]);
        }
    } else if (discriminant.real() < -kEps) {
        // Three real roots. Rounding can push the cosine a hair past 1: clamp it.
        const double cosine = std::clamp((-g / std::sqrt(twoA * twoA * h * h * h)).real(), -1.0, 1.0);
        const double theta = std::acos(cosine) / 3.0;
        const C m = 2.0 * std::sqrt(h);
        r[0] = m * std::cos(theta) + s;
        if (!firstOnly) {
            r[1] = m * std::cos(kTwoThirdsPi - theta) + s;
            r[2] = m * std::cos(kTwoThirdsPi + theta) + s;
        }
    } else {
        const C w = cubeRoot(g / twoA);
        r[0] = w + s;
        if (!firstOnly) {
            r[1] = w + s;
            r[2] = s - 2.0 * w;
        }
    }
    return true;
}

bool Roots4(const C* coefficients, C* r)
{
    if (!coefficients || !r || !(std::abs(coefficients[0].real()) >= kEps))
        return false;
    if (std::abs(coefficients[4].real()) < kEps) {
        r[0] = 0.0;
        Roots3(coefficients, r + 1, false);
        return true;
    }
    const C a = coefficients[0];
    const C b = coefficients[1] / a, c = coefficients[2] / a, d = coefficients[3] / a,
            e = coefficients[4] / a;
    const C t = b / 4.0;
    const C p = c - 6.0 * t * t;
    const C q = 2.0 * t * (4.0 * t * t - c) + d;
    const C k = t * (t * (c - 3.0 * t * t) - d) + e;
    if (std::abs(k) < kEps) {
        r[0] = 0.0;
        const C cubic[4] = {1.0, 0.0, p, q};
        Roots3(cubic, r + 1, false);
    } else if (std::abs(q) < kEps) {
        C u[2];
        const C quadratic[3] = {1.0, p, k};
        Roots2(quadratic, u);
        r[0] = std::sqrt(u[0]);
        r[1] = -std::sqrt(u[0]);
        r[2] = std::sqrt(u[1]);
        r[3] = -std::sqrt(u[1]);
    } else {
        C z;
        const C resolvent[4] = {1.0, 2.0 * p, p * p - 4.0 * k, -q * q};
        Roots3(resolvent, &z, true);
        const C w = std::sqrt(z);
        const C h = q / w;
        const C first[3] = {1.0, w, (p + z - h) / 2.0};
        const C second[3] = {1.0, -w, (p + z + h) / 2.0};
        Roots2(first, r);
        Roots2(second, r + 2);
    }
    for (int i = 0; i < 4; ++i)
        r[i] -= t;
    return true;
}

} // namespace DataLayer::Polynomial
