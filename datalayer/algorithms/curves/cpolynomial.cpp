#include "datalayer/algorithms/curves/cpolynomial.h"

#include <algorithm>
#include <climits>
#include <limits>
#include <stdexcept>

#include "datalayer/algorithms/numeric/lapack.h"

namespace DataLayer {

namespace {
double* allocateCoefficients(unsigned long long degree)
{
    if (degree == std::numeric_limits<unsigned long long>::max())
        throw std::length_error("CPolynomial: degree too large");
    return new double[degree + 1]();
}

template <typename T>
CPolynomial fit(unsigned long long count, const T* x, const T* y, unsigned long long degree)
{
    if (!x || !y || count == 0 || count > static_cast<unsigned long long>(INT_MAX) ||
        degree >= static_cast<unsigned long long>(INT_MAX))
        return CPolynomial();
    const int rows = static_cast<int>(count);
    const int cols = static_cast<int>(degree) + 1;
    if (static_cast<long long>(rows) * cols > static_cast<long long>(INT_MAX))
        return CPolynomial();
    TMatrix<double> a(rows, cols);
    TVector<double> b(rows);
    for (int i = 0; i < rows; ++i) {
        const double xi = static_cast<double>(x[i]);
        double power = 1.0;
        for (int j = 0; j < cols; ++j) {
            a(i, j) = power;
            power *= xi;
        }
        b[i] = static_cast<double>(y[i]);
    }
    TVector<double> solution(cols);
    if (!lapack::lssolve(a, b, solution, nullptr))
        return CPolynomial();
    CPolynomial p(degree);
    for (int j = 0; j < cols; ++j)
        p[static_cast<unsigned long long>(j)] = solution[j];
    return p;
}
} // namespace

CPolynomial::CPolynomial(unsigned long long degree)
    : m_degree(degree), m_coefficients(allocateCoefficients(degree))
{
}

CPolynomial::CPolynomial(const CPolynomial& other) : m_degree(other.m_degree)
{
    if (other.m_coefficients) {
        m_coefficients = new double[m_degree + 1];
        std::copy(other.m_coefficients, other.m_coefficients + m_degree + 1, m_coefficients);
    }
}

CPolynomial::CPolynomial(CPolynomial&& other) noexcept
    : m_degree(other.m_degree), m_coefficients(other.m_coefficients)
{
    other.m_degree = 0;
    other.m_coefficients = nullptr;
}

CPolynomial::~CPolynomial()
{
    delete[] m_coefficients;
}

CPolynomial& CPolynomial::operator=(const CPolynomial& other)
{
    if (this != &other) {
        CPolynomial copy(other);
        *this = std::move(copy);
    }
    return *this;
}

CPolynomial& CPolynomial::operator=(CPolynomial&& other) noexcept
{
    if (this != &other) {
        delete[] m_coefficients;
        m_degree = other.m_degree;
        m_coefficients = other.m_coefficients;
        other.m_degree = 0;
        other.m_coefficients = nullptr;
    }
    return *this;
}

double CPolynomial::operator()(double x) const
{
    if (!m_coefficients)
        return std::numeric_limits<double>::quiet_NaN();
    double sum = 0.0, power = 1.0;
    for (unsigned long long i = 0; i <= m_degree; ++i) {
        sum += m_coefficients[i] * power;
        power *= x;
    }
    return sum;
}

int CPolynomial::GetDegree() const
{
    if (!m_coefficients)
        return -1;
    return m_degree > static_cast<unsigned long long>(INT_MAX) ? INT_MAX : static_cast<int>(m_degree);
}

CPolynomial CPolynomial::GetDerivative() const
{
    if (!m_coefficients)
        return CPolynomial();
    if (m_degree == 0)
        return CPolynomial(0);
    CPolynomial d(m_degree - 1);
    for (unsigned long long i = 0; i < m_degree; ++i)
        d.m_coefficients[i] = static_cast<double>(i + 1) * m_coefficients[i + 1];
    return d;
}

CPolynomial CPolynomial::Fit(unsigned long long count, double* x, double* y, unsigned long long degree)
{
    return fit(count, x, y, degree);
}

CPolynomial CPolynomial::Fit(unsigned long long count, float* x, float* y, unsigned long long degree)
{
    return fit(count, x, y, degree);
}

} // namespace DataLayer
