#include "datalayer/algorithms/numeric/tmatrix.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <utility>

using DataLayer::detail::allocateZeroed;

namespace {
long long elementCount(int rows, int cols)
{
    return rows > 0 && cols > 0 ? static_cast<long long>(rows) * cols : 0;
}
} // namespace

template <typename T>
TMatrix<T>::TMatrix(int rows, int cols)
    : m_rows(rows), m_cols(cols == -1 ? rows : cols), m_data(allocateZeroed<T>(elementCount(m_rows, m_cols)))
{
}

template <typename T>
TMatrix<T>::TMatrix(const TMatrix& other)
    : m_rows(other.m_rows), m_cols(other.m_cols), m_data(allocateZeroed<T>(elementCount(m_rows, m_cols)))
{
    if (m_data)
        std::memcpy(m_data, other.m_data, sizeof(T) * static_cast<std::size_t>(elementCount(m_rows, m_cols)));
}

template <typename T>
TMatrix<T>::TMatrix(TMatrix&& other) noexcept
    : m_rows(std::exchange(other.m_rows, 0)), m_cols(std::exchange(other.m_cols, 0)),
      m_data(std::exchange(other.m_data, nullptr))
{
}

template <typename T> TMatrix<T>::~TMatrix()
{
    delete[] m_data;
}

template <typename T> TMatrix<T>& TMatrix<T>::operator=(const TMatrix& other)
{
    if (this == &other)
        return *this;
    const long long count = elementCount(other.m_rows, other.m_cols);
    T* data = allocateZeroed<T>(count);
    if (data)
        std::memcpy(data, other.m_data, sizeof(T) * static_cast<std::size_t>(count));
    delete[] m_data;
    m_data = data;
    m_rows = other.m_rows;
    m_cols = other.m_cols;
    return *this;
}

template <typename T> TMatrix<T>& TMatrix<T>::operator=(TMatrix&& other) noexcept
{
    if (this != &other) {
        delete[] m_data;
        m_data = std::exchange(other.m_data, nullptr);
        m_rows = std::exchange(other.m_rows, 0);
        m_cols = std::exchange(other.m_cols, 0);
    }
    return *this;
}

template <typename T> void TMatrix<T>::Resize(int rows, int cols)
{
    if (rows == m_rows && cols == m_cols)
        return;
    T* data = allocateZeroed<T>(elementCount(rows, cols));
    delete[] m_data;
    m_data = data;
    m_rows = rows;
    m_cols = cols;
}

template <typename T> TMatrix<T> TMatrix<T>::operator*(const TMatrix& b) const
{
    TMatrix r(m_rows, b.m_cols);
    for (int j = 0; j < b.m_cols; ++j) {
        T* rc = r.m_data + static_cast<long long>(j) * m_rows;
        for (int k = 0; k < m_cols; ++k) {
            const T bkj = b(k, j);
            const T* ac = m_data + static_cast<long long>(k) * m_rows;
            for (int i = 0; i < m_rows; ++i)
                rc[i] += ac[i] * bkj;
        }
    }
    return r;
}

template <typename T> TVector<T> TMatrix<T>::operator*(const TVector<T>& v) const
{
    TVector<T> r(m_rows);
    T* pr = r.Data();
    for (int k = 0; k < m_cols; ++k) {
        const T vk = v[k];
        const T* ac = m_data + static_cast<long long>(k) * m_rows;
        for (int i = 0; i < m_rows; ++i)
            pr[i] += ac[i] * vk;
    }
    return r;
}

template <typename T> TMatrix<T> TMatrix<T>::operator*(T s) const
{
    TMatrix r(m_rows, m_cols);
    const long long n = elementCount(m_rows, m_cols);
    for (long long i = 0; i < n; ++i)
        r.m_data[i] = m_data[i] * s;
    return r;
}

template <typename T> TMatrix<T> TMatrix<T>::operator+(const TMatrix& b) const
{
    TMatrix r(m_rows, m_cols);
    const long long n = elementCount(m_rows, m_cols);
    for (long long i = 0; i < n; ++i)
        r.m_data[i] = m_data[i] + b.m_data[i];
    return r;
}

template <typename T> TMatrix<T> TMatrix<T>::operator-(const TMatrix& b) const
{
    TMatrix r(m_rows, m_cols);
    const long long n = elementCount(m_rows, m_cols);
    for (long long i = 0; i < n; ++i)
        r.m_data[i] = m_data[i] - b.m_data[i];
    return r;
}

template <typename T> TMatrix<T> TMatrix<T>::Transposed() const
{
    TMatrix r(m_cols, m_rows);
    for (int c = 0; c < m_cols; ++c)
        for (int i = 0; i < m_rows; ++i)
            r(c, i) = (*this)(i, c);
    return r;
}

template <typename T> void TMatrix<T>::Transpose()
{
    if (m_rows == m_cols) {
        for (int c = 1; c < m_cols; ++c)
            for (int r = 0; r < c; ++r)
                std::swap((*this)(r, c), (*this)(c, r));
        return;
    }
    const TMatrix copy(*this);
    std::swap(m_rows, m_cols);
    for (int c = 0; c < m_cols; ++c)
        for (int r = 0; r < m_rows; ++r)
            (*this)(r, c) = copy(c, r);
}

template <typename T> TVector<T> TMatrix<T>::Row(int r) const
{
    TVector<T> v(m_cols);
    for (int c = 0; c < m_cols; ++c)
        v[c] = (*this)(r, c);
    return v;
}

template <typename T> TMatrix<T> TMatrix<T>::Block(int r0, int c0, int r1, int c1) const
{
    TMatrix b(r1 - r0 + 1, c1 - c0 + 1);
    for (int c = 0; c < b.m_cols; ++c)
        for (int r = 0; r < b.m_rows; ++r)
            b(r, c) = (*this)(r0 + r, c0 + c);
    return b;
}

template <typename T> TVector<T> TMatrix<T>::Diagonal() const
{
    TVector<T> d(std::min(m_rows, m_cols));
    for (int i = 0; i < d.Size(); ++i)
        d[i] = (*this)(i, i);
    return d;
}

template <typename T> T TMatrix<T>::NormInf() const
{
    T best = 0;
    for (int r = 0; r < m_rows; ++r) {
        T sum = 0;
        for (int c = 0; c < m_cols; ++c)
            sum += std::abs((*this)(r, c));
        if (sum > best)
            best = sum;
    }
    return best;
}

template <typename T> void TMatrix<T>::swapColumns(int a, int b)
{
    T* ca = m_data + static_cast<long long>(a) * m_rows;
    T* cb = m_data + static_cast<long long>(b) * m_rows;
    for (int r = 0; r < m_rows; ++r)
        std::swap(ca[r], cb[r]);
}

template <typename T> TMatrix<T> TMatrix<T>::Outer(const TVector<T>& a, const TVector<T>& b)
{
    TMatrix r(a.Size(), b.Size());
    for (int j = 0; j < b.Size(); ++j)
        for (int i = 0; i < a.Size(); ++i)
            r(i, j) = a[i] * b[j];
    return r;
}

template <typename T> TMatrix<T> TMatrix<T>::Identity(int rows, int cols)
{
    TMatrix r(rows, cols);
    const int n = std::min(r.m_rows, r.m_cols);
    for (int i = 0; i < n; ++i)
        r(i, i) = 1;
    return r;
}

template <typename T> TMatrix<T> TMatrix<T>::ScaledIdentity(int n, T s)
{
    TMatrix r(n, n);
    for (int i = 0; i < n; ++i)
        r(i, i) = s;
    return r;
}

template class TMatrix<double>;
template class TMatrix<float>;
