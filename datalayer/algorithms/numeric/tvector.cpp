#include "datalayer/algorithms/numeric/tvector.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>

#include "core/base/vorn2_debug.h"

namespace DataLayer::detail {
template <typename T> T* allocateZeroed(long long count)
{
    if (count < 1)
        return nullptr;
    constexpr std::size_t largest = std::numeric_limits<std::size_t>::max() / sizeof(T);
    const auto n = static_cast<unsigned long long>(count);
    // new[] with a count beyond what can be addressed throws std::bad_array_new_length, a
    // std::bad_alloc.
    return new T[n > largest ? largest : static_cast<std::size_t>(n)]();
}
template double* allocateZeroed<double>(long long);
template float* allocateZeroed<float>(long long);
template int* allocateZeroed<int>(long long);
} // namespace DataLayer::detail

using DataLayer::detail::allocateZeroed;

template <typename T> TVector<T>::TVector(int n) : m_size(n), m_data(allocateZeroed<T>(n)) {}

template <typename T>
TVector<T>::TVector(const TVector& other) : m_size(other.m_size), m_data(allocateZeroed<T>(other.m_size))
{
    if (m_data)
        std::memcpy(m_data, other.m_data, sizeof(T) * static_cast<std::size_t>(m_size));
}

template <typename T>
TVector<T>::TVector(TVector&& other) noexcept
    : m_size(std::exchange(other.m_size, 0)), m_data(std::exchange(other.m_data, nullptr))
{
}

template <typename T> TVector<T>::~TVector()
{
    delete[] m_data;
}

template <typename T> TVector<T>& TVector<T>::operator=(const TVector& other)
{
    if (this == &other)
        return *this;
    T* data = allocateZeroed<T>(other.m_size);
    if (data)
        std::memcpy(data, other.m_data, sizeof(T) * static_cast<std::size_t>(other.m_size));
    delete[] m_data;
    m_data = data;
    m_size = other.m_size;
    return *this;
}

template <typename T> TVector<T>& TVector<T>::operator=(TVector&& other) noexcept
{
    if (this != &other) {
        delete[] m_data;
        m_data = std::exchange(other.m_data, nullptr);
        m_size = std::exchange(other.m_size, 0);
    }
    return *this;
}

template <typename T> void TVector<T>::Resize(int n)
{
    if (n == m_size)
        return;
    T* data = allocateZeroed<T>(n);
    delete[] m_data;
    m_data = data;
    m_size = n;
}

template <typename T> TVector<T> TVector<T>::operator+(const TVector& b) const
{
    TVector r(m_size);
    for (int i = 0; i < m_size; ++i)
        r.m_data[i] = m_data[i] + b.m_data[i];
    return r;
}

template <typename T> TVector<T> TVector<T>::operator-(const TVector& b) const
{
    TVector r(m_size);
    for (int i = 0; i < m_size; ++i)
        r.m_data[i] = m_data[i] - b.m_data[i];
    return r;
}

template <typename T> TVector<T> TVector<T>::operator-() const
{
    TVector r(m_size);
    for (int i = 0; i < m_size; ++i)
        r.m_data[i] = -m_data[i];
    return r;
}

template <typename T> TVector<T> TVector<T>::operator*(T s) const
{
    TVector r(m_size);
    for (int i = 0; i < m_size; ++i)
        r.m_data[i] = m_data[i] * s;
    return r;
}

template <typename T> TVector<T> TVector<T>::operator/(T s) const
{
    TVector r(m_size);
    for (int i = 0; i < m_size; ++i)
        r.m_data[i] = m_data[i] / s;
    return r;
}

template <typename T> T TVector<T>::Norm() const
{
    T sum = 0;
    for (int i = 0; i < m_size; ++i)
        sum += m_data[i] * m_data[i];
    return static_cast<T>(std::sqrt(sum));
}

template <typename T> TVector<T> TVector<T>::Gather(const TVector<int>& idx) const
{
    TVector r(idx.Size());
    for (int k = 0; k < idx.Size(); ++k)
        r.m_data[k] = m_data[idx[k]];
    return r;
}

template <typename T> TVector<T> TVector<T>::Sub(int first, int last) const
{
    TVector r(last - first + 1);
    for (int i = 0; i < r.m_size; ++i)
        r.m_data[i] = m_data[first + i];
    return r;
}

template <typename T> void TVector<T>::Print() const
{
    vorn2_debug_printf("%i-vector:\n", m_size);
    for (int i = 0; i < m_size && i < 10; ++i) {
        const char* separator = i == m_size - 1 ? ";" : ",";
        if constexpr (std::is_same_v<T, int>)
            vorn2_debug_printf("\t%i%s", m_data[i], separator);
        else
            vorn2_debug_printf("\t%g%s", static_cast<double>(m_data[i]), separator);
    }
    vorn2_debug_printf("\n");
}

template <typename T> T Dot(const TVector<T>& a, const TVector<T>& b)
{
    T sum = 0;
    const T* pa = a.Data();
    const T* pb = b.Data();
    for (int i = 0; i < a.Size(); ++i)
        sum += pa[i] * pb[i];
    return sum;
}

template class TVector<double>;
template class TVector<float>;
template class TVector<int>;
template double Dot(const TVector<double>&, const TVector<double>&);
template float Dot(const TVector<float>&, const TVector<float>&);
template int Dot(const TVector<int>&, const TVector<int>&);
