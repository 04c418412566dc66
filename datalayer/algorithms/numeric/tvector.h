#pragma once
// TVector<T>: the library's dense vector of double, float or int. Its memory form is part of the
// exported interface: a 32-bit signed size and an owned array from new[] (null when the size is
// below 1), no virtual operations.
//
// Ownership: a vector owns its array alone and every copy is deep; copy assignment always
// reallocates (move assignment takes the other's array over). Nothing checks an index or the
// agreement of two sizes: the size of the first operand drives each loop.
// Threads: a vector serves one thread at a time; Print() writes to the shared debug output.
// An allocation whose byte count overflows asks new[] for the largest size and so fails with
// std::bad_alloc.

#include <type_traits>

namespace DataLayer::detail {
/// Allocates count zero-initialised elements; null when count is below 1. A count whose byte
/// size overflows requests the largest possible size, which throws std::bad_alloc.
template <typename T> T* allocateZeroed(long long count);
} // namespace DataLayer::detail

template <typename T> class TVector
{
public:
    TVector() = default;
    /// n elements, all zero.
    explicit TVector(int n);
    TVector(const TVector& other);
    TVector(TVector&& other) noexcept;
    ~TVector();

    /// Deep copy; no effect on self-assignment; always reallocates otherwise.
    TVector& operator=(const TVector& other);
    /// Frees the own array and takes over the other's; the source is left empty.
    TVector& operator=(TVector&& other) noexcept;

    /// Same size: nothing happens. Otherwise the contents are dropped and n zeros allocated.
    void Resize(int n);

    int Size() const { return m_size; }
    T& operator[](int i) { return m_data[i]; }
    const T& operator[](int i) const { return m_data[i]; }
    T* Data() { return m_data; }
    const T* Data() const { return m_data; }

    TVector operator+(const TVector& b) const;
    TVector operator-(const TVector& b) const;
    TVector operator-() const;
    TVector operator*(T s) const;
    TVector operator/(T s) const;

    /// Euclidean norm: square root of the plain sum of squares, no scaling against overflow.
    T Norm() const;
    /// Vector of idx.Size() elements, element k = (*this)[idx[k]].
    TVector Gather(const TVector<int>& idx) const;
    /// Copy of the elements first to last, both inclusive.
    TVector Sub(int first, int last) const;

    /// Writes "N-vector:\n" and up to ten elements to the debug output, whatever the log settings.
    void Print() const;

private:
    int m_size = 0;
    T* m_data = nullptr;
};

/// s * a, the same as a * s. The scalar is not deduced, so that 2 * v works like v * 2 for a vector
/// of double.
template <typename T> TVector<T> operator*(std::type_identity_t<T> s, const TVector<T>& a)
{
    return a * s;
}

/// Sum of a[i] * b[i] over the size of a.
template <typename T> T Dot(const TVector<T>& a, const TVector<T>& b);

extern template class TVector<double>;
extern template class TVector<float>;
extern template class TVector<int>;
extern template double Dot(const TVector<double>&, const TVector<double>&);
extern template float Dot(const TVector<float>&, const TVector<float>&);
extern template int Dot(const TVector<int>&, const TVector<int>&);
