#pragma once
// kdtree::Vector<N>: a small single-precision point of N components, 16-byte aligned, the point
// type of CTrafo and of the 3D code that shares its data.
//
// Storage is rounded up to a whole number of four-float lanes; the lanes past N are padding that
// every operation here keeps at 0, so SSE code may load a Vector<3> as one 128-bit value. A value
// type: it owns nothing, and one object serves one thread at a time. operator[] throws
// std::out_of_range for an index outside 0..N-1 rather than reading the padding.

#include <cmath>
#include <cstddef>
#include <stdexcept>

namespace kdtree {

template <int N> struct alignas(16) Vector
{
    static_assert(N > 0, "a vector has at least one component");
    static constexpr int m_ciSize = N;
    static constexpr int m_ciStorage = (N + 3) / 4 * 4;

    /// All components 0.
    constexpr Vector() = default;
    /// The three components of a 3D point; only for N == 3.
    constexpr Vector(float x, float y, float z) requires(N == 3) : m_v{x, y, z, 0.0f} {}

    /// Component i, counted from 0. Throws std::out_of_range unless 0 <= i < N.
    float& operator[](int i)
    {
        if (i < 0 || i >= N)
            throw std::out_of_range("kdtree::Vector::operator[]: index out of range");
        return m_v[i];
    }
    const float& operator[](int i) const { return const_cast<Vector&>(*this)[i]; }

    /// The storage, N components then zero padding up to m_ciStorage floats, 16-byte aligned.
    float* Data() { return m_v; }
    const float* Data() const { return m_v; }

    Vector operator+(const Vector& b) const
    {
        Vector r;
        for (int i = 0; i < N; ++i)
            r.m_v[i] = m_v[i] + b.m_v[i];
        return r;
    }
    Vector operator-(const Vector& b) const
    {
        Vector r;
        for (int i = 0; i < N; ++i)
            r.m_v[i] = m_v[i] - b.m_v[i];
        return r;
    }
    Vector operator*(float s) const
    {
        Vector r;
        for (int i = 0; i < N; ++i)
            r.m_v[i] = m_v[i] * s;
        return r;
    }
    /// Exact component-wise equality of the N components (NaN is unequal to everything).
    bool operator==(const Vector& b) const
    {
        for (int i = 0; i < N; ++i)
            if (!(m_v[i] == b.m_v[i]))
                return false;
        return true;
    }

    float Dot(const Vector& b) const
    {
        float s = 0.0f;
        for (int i = 0; i < N; ++i)
            s += m_v[i] * b.m_v[i];
        return s;
    }
    float Length() const { return std::sqrt(Dot(*this)); }

private:
    float m_v[m_ciStorage] = {};
};

static_assert(sizeof(Vector<3>) == 16 && alignof(Vector<3>) == 16);

} // namespace kdtree
