#pragma once
// Small square matrices of the base library: LbMatrix4Rd and LbMatrix4Rf (4 x 4, double and
// float) and LbMatrix3Cd (3 x 3 doubles).
//
// Each is a value over a flat array of N * N elements stored by columns: element k of the array
// is at row k % N, column k / N, so for the 4 x 4 forms a translation occupies elements 12, 13
// and 14. Default construction gives the identity. operator[] and operator() throw
// std::out_of_range for an index outside the matrix instead of reading past it; nothing else
// throws or allocates. Threads: values; one thread at a time per object.

#include <stdexcept>

template <typename T, int N> class TLbMatrix
{
public:
    using value_type = T;
    static constexpr int m_ciSize = N;

    /// The identity.
    constexpr TLbMatrix()
    {
        for (int k = 0; k < N * N; ++k)
            m_elements[k] = (k % N == k / N) ? T(1) : T(0);
    }

    /// Element k of the flat array: row k % N, column k / N. Throws std::out_of_range unless
    /// 0 <= k < N * N.
    T& operator[](int k)
    {
        if (k < 0 || k >= N * N)
            throw std::out_of_range("LbMatrix::operator[]: index out of range");
        return m_elements[k];
    }
    const T& operator[](int k) const { return const_cast<TLbMatrix&>(*this)[k]; }

    /// Element at (row, col), both counted from 0. Throws std::out_of_range unless both lie in
    /// 0..N-1.
    T& operator()(int row, int col)
    {
        if (row < 0 || row >= N || col < 0 || col >= N)
            throw std::out_of_range("LbMatrix::operator(): index out of range");
        return m_elements[col * N + row];
    }
    const T& operator()(int row, int col) const { return const_cast<TLbMatrix&>(*this)(row, col); }

    constexpr bool operator==(const TLbMatrix& b) const = default;

private:
    T m_elements[N * N];
};

using LbMatrix4Rd = TLbMatrix<double, 4>;
using LbMatrix4Rf = TLbMatrix<float, 4>;
using LbMatrix3Cd = TLbMatrix<double, 3>;
