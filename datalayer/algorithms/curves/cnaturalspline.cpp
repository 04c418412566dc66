#include "datalayer/algorithms/curves/cnaturalspline.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace DataLayer {

namespace {
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kStationaryEps = 2.23e-16;
} // namespace

CNaturalSpline::CNaturalSpline(const double* x, const double* y, int count, int degree)
{
    if (!x || !y || count < 2)
        return;
    for (int i = 0; i < count; ++i)
        if (!std::isfinite(x[i]) || (i > 0 && !(x[i] > x[i - 1])))
            return;
    const int n = count - 1;
    degree = std::clamp(degree, 1, 3);
    if (count == 3)
        degree = std::min(degree, 2);
    if (count == 2)
        degree = 1;
    m_intervals = n;
    m_degree = degree;
    m_knots = new double[n + 1];
    m_a = new double[n];
    m_b = new double[n];
    m_c = new double[n + 1];
    m_d = new double[n];
    std::copy(x, x + n + 1, m_knots);
    m_c[n] = 0.0;
    if (degree == 1)
        computeCoeffs1(x, y);
    else if (degree == 2)
        computeCoeffs2(x, y);
    else
        computeCoeffs3(x, y);
}

CNaturalSpline::CNaturalSpline(const CNaturalSpline& other)
{
    copyFrom(other);
}

CNaturalSpline::CNaturalSpline(CNaturalSpline&& other) noexcept
    : m_intervals(other.m_intervals), m_degree(other.m_degree), m_knots(other.m_knots), m_a(other.m_a),
      m_b(other.m_b), m_c(other.m_c), m_d(other.m_d)
{
    other.m_intervals = other.m_degree = 0;
    other.m_knots = other.m_a = other.m_b = other.m_c = other.m_d = nullptr;
}

CNaturalSpline::~CNaturalSpline()
{
    release();
}

CNaturalSpline& CNaturalSpline::operator=(const CNaturalSpline& other)
{
    if (this != &other) {
        CNaturalSpline copy(other);
        *this = std::move(copy);
    }
    return *this;
}

CNaturalSpline& CNaturalSpline::operator=(CNaturalSpline&& other) noexcept
{
    if (this != &other) {
        release();
        m_intervals = other.m_intervals;
        m_degree = other.m_degree;
        m_knots = other.m_knots;
        m_a = other.m_a;
        m_b = other.m_b;
        m_c = other.m_c;
        m_d = other.m_d;
        other.m_intervals = other.m_degree = 0;
        other.m_knots = other.m_a = other.m_b = other.m_c = other.m_d = nullptr;
    }
    return *this;
}

void CNaturalSpline::release()
{
    delete[] m_knots;
    delete[] m_a;
    delete[] m_b;
    delete[] m_c;
    delete[] m_d;
    m_knots = m_a = m_b = m_c = m_d = nullptr;
    m_intervals = m_degree = 0;
}

void CNaturalSpline::copyFrom(const CNaturalSpline& other)
{
    if (!other.m_knots)
        return;
    const int n = other.m_intervals;
    m_knots = new double[n + 1];
    m_a = new double[n];
    m_b = new double[n];
    m_c = new double[n + 1];
    m_d = new double[n];
    std::copy(other.m_knots, other.m_knots + n + 1, m_knots);
    std::copy(other.m_a, other.m_a + n, m_a);
    std::copy(other.m_b, other.m_b + n, m_b);
    std::copy(other.m_c, other.m_c + n + 1, m_c);
    std::copy(other.m_d, other.m_d + n, m_d);
    m_intervals = n;
    m_degree = other.m_degree;
}

void CNaturalSpline::computeCoeffs1(const double* x, const double* y)
{
    for (int i = 0; i < m_intervals; ++i) {
        m_a[i] = y[i];
        m_b[i] = (y[i + 1] - y[i]) / (x[i + 1] - x[i]);
        m_c[i] = m_d[i] = 0.0;
    }
}

void CNaturalSpline::computeCoeffs2(const double* x, const double* y)
{
    const double x0 = x[0], x1 = x[1], x2 = x[2], y0 = y[0], y1 = y[1], y2 = y[2];
    const double den = (x2 * x2 - x1 * x1) * x0 - x1 * x2 * x2 + x2 * x1 * x1 + (x1 - x2) * x0 * x0;
    const double na = (y2 - y1) * x0 - y2 * x1 + y1 * x2 + y0 * (x1 - x2);
    const double nb = (y2 - y1) * x0 * x0 - y2 * x1 * x1 + y1 * x2 * x2 + (x1 * x1 - x2 * x2) * y0;
    double s = 2.0 * (na / den) * x0 - nb / den;
    for (int i = 0; i < m_intervals; ++i) {
        const double h = x[i + 1] - x[i];
        m_a[i] = y[i];
        m_b[i] = s;
        const double s2 = 2.0 * (y[i + 1] - y[i]) / h - s;
        m_c[i] = (s2 - s) / (2.0 * h);
        m_d[i] = 0.0;
        s = s2;
    }
}

void CNaturalSpline::computeCoeffs3(const double* x, const double* y)
{
    const int n = m_intervals;
    std::vector<double> h(n), r(n), m(n);
    for (int i = 0; i < n; ++i) {
        h[i] = x[i + 1] - x[i];
        m_a[i] = y[i];
    }
    for (int i = 1; i < n; ++i)
        r[i] = 3.0 * ((y[i + 1] - y[i]) / h[i] - (y[i] - y[i - 1]) / h[i - 1]);
    m[1] = 2.0 * (h[0] + h[1]);
    for (int i = 2; i < n; ++i) {
        const double f = h[i - 1] / m[i - 1];
        m[i] = 2.0 * (h[i - 1] + h[i]) - h[i - 1] * f;
        r[i] = r[i] - f * r[i - 1];
    }
    m_c[n - 1] = r[n - 1] / m[n - 1];
    for (int i = n - 2; i >= 1; --i)
        m_c[i] = (r[i] - h[i] * m_c[i + 1]) / m[i];
    m_c[0] = 0.0;
    m_c[n] = 0.0;
    for (int i = 0; i < n; ++i) {
        m_b[i] = (y[i + 1] - y[i]) / h[i] - (2.0 * m_c[i] + m_c[i + 1]) * h[i] / 3.0;
        m_d[i] = (m_c[i + 1] - m_c[i]) / (3.0 * h[i]);
    }
}

int CNaturalSpline::piece(double x) const
{
    const int n = m_intervals;
    if (x >= m_knots[n])
        return n - 1;
    if (x <= m_knots[0])
        return 0;
    // The last i in 0..n-1 with knots[i] <= x, by a bisection without branches (a conditional
    // move per halving); for strictly ascending knots this is the piece with
    // knots[i] <= x < knots[i + 1]. A NaN x compares false throughout and ends on piece 0.
    int lo = 0, length = n;
    while (length > 1) {
        const int half = length / 2;
        lo = m_knots[lo + half] <= x ? lo + half : lo;
        length -= half;
    }
    return lo;
}

double CNaturalSpline::evalPiece(int i, double t, int derivative) const
{
    switch (derivative) {
    case 0:
        return ((m_d[i] * t + m_c[i]) * t + m_b[i]) * t + m_a[i];
    case 1:
        return (3.0 * m_d[i] * t + 2.0 * m_c[i]) * t + m_b[i];
    case 2:
        return 6.0 * m_d[i] * t + 2.0 * m_c[i];
    case 3:
        return 6.0 * m_d[i];
    default:
        return 0.0;
    }
}

double CNaturalSpline::eval(double x, int derivative) const
{
    if (!m_knots)
        return kNaN;
    if (derivative > m_degree || derivative < 0)
        return 0.0;
    const int i = piece(x);
    return evalPiece(i, x - m_knots[i], derivative);
}

double CNaturalSpline::integrate(double from, double to) const
{
    if (!m_knots)
        return kNaN;
    double sign = 1.0;
    if (from > to) {
        std::swap(from, to);
        sign = -1.0;
    }
    auto antiderivative = [this](int i, double t) {
        return m_a[i] * t + m_b[i] * t * t / 2.0 + m_c[i] * t * t * t / 3.0 + m_d[i] * t * t * t * t / 4.0;
    };
    const int p = piece(from), q = piece(to);
    double sum;
    if (p == q) {
        sum = antiderivative(p, to - m_knots[p]) - antiderivative(p, from - m_knots[p]);
    } else {
        sum = antiderivative(p, m_knots[p + 1] - m_knots[p]) - antiderivative(p, from - m_knots[p]);
        for (int i = p + 1; i < q; ++i)
            sum += antiderivative(i, m_knots[i + 1] - m_knots[i]);
        sum += antiderivative(q, to - m_knots[q]);
    }
    return sign * sum;
}

double CNaturalSpline::length(double from, double to, int steps) const
{
    if (!m_knots)
        return kNaN;
    if (steps < 1)
        return 0.0;
    const double h = (to - from) / steps;
    double sum = 0.0;
    for (int k = 0; k <= steps; ++k) {
        const double slope = eval(from + k * h, 1);
        const double weight = (k == 0 || k == steps) ? 1.0 : (k % 2 == 1) ? 4.0 : 2.0;
        sum += weight * std::sqrt(1.0 + slope * slope);
    }
    return sum * h / 3.0;
}

double CNaturalSpline::min1(double sign) const
{
    double best = m_knots[0];
    double bestValue = sign * eval(best, 0);
    for (int i = 1; i <= m_intervals; ++i) {
        const double v = sign * eval(m_knots[i], 0);
        if (v < bestValue) {
            bestValue = v;
            best = m_knots[i];
        }
    }
    return best;
}

double CNaturalSpline::min2(double sign) const
{
    double best = min1(sign);
    double bestValue = sign * eval(best, 0);
    for (int i = 0; i < m_intervals; ++i) {
        if (!(sign * m_c[i] > 0))
            continue;
        const double t = -m_b[i] / (2.0 * m_c[i]);
        if (t >= 0 && m_knots[i] + t <= m_knots[i + 1]) {
            const double x = m_knots[i] + t;
            const double v = sign * eval(x, 0);
            if (v < bestValue) {
                bestValue = v;
                best = x;
            }
        }
    }
    return best;
}

double CNaturalSpline::min3(double sign) const
{
    double best = min1(sign);
    double bestValue = sign * eval(best, 0);
    for (int i = 0; i < m_intervals; ++i) {
        auto passes = [&](double t, double& x) {
            x = m_knots[i] + t;
            return t >= 0 && x <= m_knots[i + 1] && sign * eval(x, 2) > 0;
        };
        double x = 0;
        bool found = false;
        if (m_d[i] == 0) {
            // The quadratic part alone: at most one stationary point.
            if (m_c[i] != 0)
                found = passes(-m_b[i] / (2.0 * m_c[i]), x);
        } else {
            const double p = m_c[i] / (3.0 * m_d[i]);
            const double q = p * p - m_b[i] / (3.0 * m_d[i]);
            if (q >= kStationaryEps) {
                const double r = std::sqrt(q);
                found = passes(r - p, x) || passes(-r - p, x);
            } else if (q >= 0) {
                found = passes(-p, x);
            }
        }
        if (found) {
            const double v = sign * eval(x, 0);
            if (v < bestValue) {
                bestValue = v;
                best = x;
            }
        }
    }
    return best;
}

double CNaturalSpline::min() const
{
    if (!m_knots)
        return kNaN;
    return m_degree == 1 ? min1(1.0) : m_degree == 2 ? min2(1.0) : min3(1.0);
}

double CNaturalSpline::max() const
{
    if (!m_knots)
        return kNaN;
    return m_degree == 1 ? min1(-1.0) : m_degree == 2 ? min2(-1.0) : min3(-1.0);
}

void CNaturalSpline::render(double* out, int count, int derivative) const
{
    if (!out || count < 1)
        return;
    if (!m_knots) {
        std::fill(out, out + count, kNaN);
        return;
    }
    if (count == 1) {
        out[0] = eval(m_knots[0], derivative);
        return;
    }
    const double first = m_knots[0];
    const double step = (m_knots[m_intervals] - first) / (count - 1);
    for (int j = 0; j < count; ++j)
        out[j] = eval(j * step + first, derivative);
}

} // namespace DataLayer
