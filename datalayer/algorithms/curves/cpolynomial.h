#pragma once
// DataLayer::CPolynomial: a real polynomial held by ascending powers (entry i is the coefficient
// of x^i), with evaluation, derivative and the least-squares fit of sample points.
//
// The object owns its coefficient array (new[]) and copies it deeply; one object serves one
// thread at a time. The invalid polynomial (default-constructed, or a failed fit) has no
// coefficients: it evaluates to NaN and reports degree -1. Fit reports failure by returning it;
// nothing here throws except the allocation of a degree that can't be held (std::bad_alloc, or
// std::length_error for the degree 2^64 - 1, which has no coefficient count).

#include <cstddef>

namespace DataLayer {

class CPolynomial
{
public:
    /// Invalid: degree 0, no coefficients.
    CPolynomial() = default;
    /// degree + 1 zero coefficients.
    explicit CPolynomial(unsigned long long degree);
    CPolynomial(const CPolynomial& other);
    CPolynomial(CPolynomial&& other) noexcept;
    ~CPolynomial();
    /// Deep copy; self-assignment does nothing.
    CPolynomial& operator=(const CPolynomial& other);
    CPolynomial& operator=(CPolynomial&& other) noexcept;

    /// Coefficient of x^i, unchecked: i must be at most the degree of a valid polynomial.
    double& operator[](unsigned long long i) { return m_coefficients[i]; }
    const double& operator[](unsigned long long i) const { return m_coefficients[i]; }

    /// True when the coefficients exist.
    explicit operator bool() const { return m_coefficients != nullptr; }
    /// The value at x, summed from the lowest power up with a running power of x; NaN if invalid.
    double operator()(double x) const;
    /// The degree; -1 for an invalid polynomial.
    int GetDegree() const;
    /// Invalid stays invalid; degree 0 gives the zero polynomial of degree 0; otherwise degree - 1
    /// with entries (i + 1) c[i + 1].
    CPolynomial GetDerivative() const;

    /// Least-squares polynomial of the given degree through count points (x[i], y[i]), solved by
    /// lapack::lssolve on the Vandermonde matrix (minimum norm when underdetermined). Returns an
    /// invalid polynomial when x or y is null, count is 0, the problem exceeds the 32-bit sizes of
    /// the dense matrices, or the solve fails.
    static CPolynomial Fit(unsigned long long count, double* x, double* y, unsigned long long degree);
    /// The same on float samples, widened to double.
    static CPolynomial Fit(unsigned long long count, float* x, float* y, unsigned long long degree);

private:
    unsigned long long m_degree = 0;
    double* m_coefficients = nullptr;
};

} // namespace DataLayer
