#pragma once
// Plain small vectors of the base library: LbVector2d/2f, LbVector3d/3f and LbVector4d/4f.
//
// Each is a value with public members x, y (z, w as far as the size goes), default-constructed to
// zeros. Arithmetic is component-wise; Dot and Length take every component, w included (the 4D
// forms are plain 4-vectors, with no homogeneous division). No operation allocates or throws,
// except operator[] with an index outside 0..N-1, which throws std::out_of_range rather than
// reading past the object. Division by a zero scalar follows IEEE arithmetic (inf or NaN).
// Threads: values; one thread at a time per object.

#include <cmath>
#include <stdexcept>
#include <type_traits>

template <typename T> struct TLbVector2
{
    using value_type = T;
    static constexpr int m_ciSize = 2;

    T x = 0;
    T y = 0;

    constexpr TLbVector2() = default;
    constexpr TLbVector2(T x_, T y_) : x(x_), y(y_) {}

    /// Component i: 0 is x, 1 is y. Throws std::out_of_range for any other index.
    T& operator[](int i) { return i == 0 ? x : i == 1 ? y : outOfRange(); }
    const T& operator[](int i) const { return const_cast<TLbVector2&>(*this)[i]; }

    constexpr TLbVector2 operator+(const TLbVector2& b) const { return {x + b.x, y + b.y}; }
    constexpr TLbVector2 operator-(const TLbVector2& b) const { return {x - b.x, y - b.y}; }
    constexpr TLbVector2 operator-() const { return {-x, -y}; }
    constexpr TLbVector2 operator*(T s) const { return {x * s, y * s}; }
    constexpr TLbVector2 operator/(T s) const { return {x / s, y / s}; }
    TLbVector2& operator+=(const TLbVector2& b) { return *this = *this + b; }
    TLbVector2& operator-=(const TLbVector2& b) { return *this = *this - b; }
    TLbVector2& operator*=(T s) { return *this = *this * s; }
    TLbVector2& operator/=(T s) { return *this = *this / s; }
    constexpr bool operator==(const TLbVector2& b) const = default;

    constexpr T Dot(const TLbVector2& b) const { return x * b.x + y * b.y; }
    /// Euclidean length, the square root of Dot(*this) without scaling against overflow.
    T Length() const { return std::sqrt(Dot(*this)); }

private:
    static T& outOfRange() { throw std::out_of_range("LbVector2::operator[]: index out of range"); }
};

template <typename T> struct TLbVector3
{
    using value_type = T;
    static constexpr int m_ciSize = 3;

    T x = 0;
    T y = 0;
    T z = 0;

    constexpr TLbVector3() = default;
    constexpr TLbVector3(T x_, T y_, T z_) : x(x_), y(y_), z(z_) {}

    /// Component i: 0 is x, 1 is y, 2 is z. Throws std::out_of_range for any other index.
    T& operator[](int i) { return i == 0 ? x : i == 1 ? y : i == 2 ? z : outOfRange(); }
    const T& operator[](int i) const { return const_cast<TLbVector3&>(*this)[i]; }

    constexpr TLbVector3 operator+(const TLbVector3& b) const { return {x + b.x, y + b.y, z + b.z}; }
    constexpr TLbVector3 operator-(const TLbVector3& b) const { return {x - b.x, y - b.y, z - b.z}; }
    constexpr TLbVector3 operator-() const { return {-x, -y, -z}; }
    constexpr TLbVector3 operator*(T s) const { return {x * s, y * s, z * s}; }
    constexpr TLbVector3 operator/(T s) const { return {x / s, y / s, z / s}; }
    TLbVector3& operator+=(const TLbVector3& b) { return *this = *this + b; }
    TLbVector3& operator-=(const TLbVector3& b) { return *this = *this - b; }
    TLbVector3& operator*=(T s) { return *this = *this * s; }
    TLbVector3& operator/=(T s) { return *this = *this / s; }
    constexpr bool operator==(const TLbVector3& b) const = default;

    constexpr T Dot(const TLbVector3& b) const { return x * b.x + y * b.y + z * b.z; }
    /// Euclidean length, the square root of Dot(*this) without scaling against overflow.
    T Length() const { return std::sqrt(Dot(*this)); }
    /// Right-handed cross product *this x b.
    constexpr TLbVector3 Cross(const TLbVector3& b) const
    {
        return {y * b.z - z * b.y, z * b.x - x * b.z, x * b.y - y * b.x};
    }

private:
    static T& outOfRange() { throw std::out_of_range("LbVector3::operator[]: index out of range"); }
};

template <typename T> struct TLbVector4
{
    using value_type = T;
    static constexpr int m_ciSize = 4;

    T x = 0;
    T y = 0;
    T z = 0;
    T w = 0;

    constexpr TLbVector4() = default;
    constexpr TLbVector4(T x_, T y_, T z_, T w_) : x(x_), y(y_), z(z_), w(w_) {}

    /// Component i: 0 is x, 1 is y, 2 is z, 3 is w. Throws std::out_of_range for any other index.
    T& operator[](int i) { return i == 0 ? x : i == 1 ? y : i == 2 ? z : i == 3 ? w : outOfRange(); }
    const T& operator[](int i) const { return const_cast<TLbVector4&>(*this)[i]; }

    constexpr TLbVector4 operator+(const TLbVector4& b) const { return {x + b.x, y + b.y, z + b.z, w + b.w}; }
    constexpr TLbVector4 operator-(const TLbVector4& b) const { return {x - b.x, y - b.y, z - b.z, w - b.w}; }
    constexpr TLbVector4 operator-() const { return {-x, -y, -z, -w}; }
    constexpr TLbVector4 operator*(T s) const { return {x * s, y * s, z * s, w * s}; }
    constexpr TLbVector4 operator/(T s) const { return {x / s, y / s, z / s, w / s}; }
    TLbVector4& operator+=(const TLbVector4& b) { return *this = *this + b; }
    TLbVector4& operator-=(const TLbVector4& b) { return *this = *this - b; }
    TLbVector4& operator*=(T s) { return *this = *this * s; }
    TLbVector4& operator/=(T s) { return *this = *this / s; }
    constexpr bool operator==(const TLbVector4& b) const = default;

    constexpr T Dot(const TLbVector4& b) const { return x * b.x + y * b.y + z * b.z + w * b.w; }
    /// Euclidean length over all four components, without scaling against overflow.
    T Length() const { return std::sqrt(Dot(*this)); }

private:
    static T& outOfRange() { throw std::out_of_range("LbVector4::operator[]: index out of range"); }
};

/// Scalar on the left: s * v equals v * s.
template <typename T> constexpr TLbVector2<T> operator*(std::type_identity_t<T> s, const TLbVector2<T>& v)
{
    return v * s;
}
template <typename T> constexpr TLbVector3<T> operator*(std::type_identity_t<T> s, const TLbVector3<T>& v)
{
    return v * s;
}
template <typename T> constexpr TLbVector4<T> operator*(std::type_identity_t<T> s, const TLbVector4<T>& v)
{
    return v * s;
}

using LbVector2d = TLbVector2<double>;
using LbVector2f = TLbVector2<float>;
using LbVector3d = TLbVector3<double>;
using LbVector3f = TLbVector3<float>;
using LbVector4d = TLbVector4<double>;
using LbVector4f = TLbVector4<float>;
