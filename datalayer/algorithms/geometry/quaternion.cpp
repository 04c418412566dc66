#include "datalayer/algorithms/geometry/quaternion.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace DataLayer {

namespace {
constexpr double kTwoPi = 6.28318530717959;
constexpr double kAxisUnitTolerance = 2.2204e-13;
constexpr double kParallel = 0.9999999999999778;
constexpr double kSlerpEps = 2.2204e-16;
constexpr double kPi = 3.14159265358979323846;
} // namespace

void Quaternion::normalize()
{
    double inv = 1.0 / std::sqrt(w * w + x * x + y * y + z * z);
    if (!std::isfinite(inv)) {
        *this = Quaternion();
        return;
    }
    if (w < 0)
        inv = -inv;
    w *= inv;
    x *= inv;
    y *= inv;
    z *= inv;
}

Quaternion::Quaternion(double roll, double pitch, double yaw)
{
    const double cr = std::cos(roll / 2), sr = std::sin(roll / 2);
    const double cp = std::cos(pitch / 2), sp = std::sin(pitch / 2);
    const double cy = std::cos(yaw / 2), sy = std::sin(yaw / 2);
    w = cp * cy * cr + sp * sy * sr;
    x = cy * sr * cp - sp * sy * cr;
    y = sy * sr * cp + sp * cy * cr;
    z = cp * sy * cr - sp * sr * cy;
    normalize();
}

Quaternion::Quaternion(double m00, double m01, double m02, double m10, double m11, double m12, double m20,
                       double m21, double m22)
{
    const double trace = m00 + m11 + m22;
    if (trace > 0) {
        const double s = 0.5 / std::sqrt(trace + 1.0);
        w = 0.25 / s;
        x = (m21 - m12) * s;
        y = (m02 - m20) * s;
        z = (m10 - m01) * s;
    } else if (m00 > m11 && m00 > m22) {
        const double s = 2.0 * std::sqrt(1.0 + m00 - m11 - m22);
        w = (m21 - m12) / s;
        x = s / 4;
        y = (m01 + m10) / s;
        z = (m02 + m20) / s;
    } else if (m11 > m22) {
        const double s = 2.0 * std::sqrt(1.0 + m11 - m00 - m22);
        w = (m02 - m20) / s;
        x = (m01 + m10) / s;
        y = s / 4;
        z = (m12 + m21) / s;
    } else {
        const double s = 2.0 * std::sqrt(1.0 + m22 - m00 - m11);
        w = (m10 - m01) / s;
        x = (m02 + m20) / s;
        y = (m12 + m21) / s;
        z = s / 4;
    }
    normalize();
}

Quaternion::Quaternion(const std::array<double, 3>& from, const std::array<double, 3>& to)
{
    const double lf = std::sqrt(from[0] * from[0] + from[1] * from[1] + from[2] * from[2]);
    const double lt = std::sqrt(to[0] * to[0] + to[1] * to[1] + to[2] * to[2]);
    const double f[3] = {from[0] / lf, from[1] / lf, from[2] / lf};
    const double g[3] = {to[0] / lt, to[1] / lt, to[2] / lt};
    const double d = f[0] * g[0] + f[1] * g[1] + f[2] * g[2];
    if (d > kParallel)
        return; // identity
    if (d < -kParallel) {
        w = 0;
        x = 1;
        return;
    }
    // A zero or NaN direction makes d NaN and ends here: normalize() turns the NaN into the identity.
    const double s = std::sqrt(2.0 * (d + 1.0));
    w = s / 2;
    x = (f[1] * g[2] - f[2] * g[1]) / s;
    y = (f[2] * g[0] - f[0] * g[2]) / s;
    z = (f[0] * g[1] - f[1] * g[0]) / s;
    normalize();
}

Quaternion Quaternion::FromAxisAngle(const std::array<double, 3>& axis, double angle)
{
    if (std::abs(angle) > kTwoPi)
        angle = std::fmod(angle, kTwoPi);
    const double length = std::sqrt(axis[0] * axis[0] + axis[1] * axis[1] + axis[2] * axis[2]);
    if (length == 0)
        return Invalid();
    double s = std::sin(angle / 2);
    if (std::abs(length - 1.0) > kAxisUnitTolerance)
        s /= length;
    Quaternion q(std::cos(angle / 2), axis[0] * s, axis[1] * s, axis[2] * s);
    q.normalize();
    return q;
}

Quaternion Quaternion::Invalid()
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    return {nan, nan, nan, nan};
}

Quaternion::operator bool() const
{
    return !(std::isnan(w) || std::isnan(x) || std::isnan(y) || std::isnan(z));
}

Quaternion Quaternion::operator*(const Quaternion& o) const
{
    return {w * o.w - x * o.x - y * o.y - z * o.z, w * o.x + x * o.w + y * o.z - z * o.y,
            w * o.y - x * o.z + y * o.w + z * o.x, w * o.z + x * o.y - y * o.x + z * o.w};
}

double Quaternion::Distance(const Quaternion& o) const
{
    return 2.0 * std::acos(std::min(std::abs(Dot(o)), 1.0));
}

double Quaternion::GetAngle() const
{
    return 2.0 * std::acos(w);
}

double Quaternion::GetNorm() const
{
    return std::sqrt(w * w + x * x + y * y + z * z);
}

Quaternion Quaternion::GetNormalized() const
{
    Quaternion q = *this;
    q.normalize();
    return q;
}

std::array<double, 3> Quaternion::GetAxis() const
{
    const double s = std::sqrt(1.0 - w * w);
    if (std::abs(s) < 0.0005)
        return {x, y, z};
    return {x / s, y / s, z / s};
}

std::array<double, 3> Quaternion::GetEulerAngles() const
{
    const double roll = std::atan2(2.0 * (w * x + z * y), 1.0 - 2.0 * (x * x + y * y));
    const double c = std::clamp(2.0 * (w * y - x * z), -1.0, 1.0);
    const double pitch = std::asin(c);
    const double yaw = std::atan2(2.0 * (w * z + x * y), 1.0 - 2.0 * (z * z + y * y));
    return {roll, pitch, yaw};
}

std::array<double, 3> Quaternion::Rotate(const std::array<double, 3>& v) const
{
    const Quaternion r = *this * Quaternion(0.0, v[0], v[1], v[2]) * ~*this;
    return {r.x, r.y, r.z};
}

Quaternion Quaternion::Slerp(const Quaternion& other, double t) const
{
    const double d = Dot(other);
    if (d + 1.0 > kSlerpEps) {
        double k1, k2;
        if (1.0 - d > kSlerpEps) {
            const double th = std::acos(d);
            const double sinTh = std::sin(th);
            k1 = std::sin((1.0 - t) * th) / sinTh;
            k2 = std::sin(t * th) / sinTh;
        } else {
            k1 = 1.0 - t;
            k2 = t;
        }
        return {k1 * w + k2 * other.w, k1 * x + k2 * other.x, k1 * y + k2 * other.y, k1 * z + k2 * other.z};
    }
    // Opposite (or NaN): the great circle through this * i, the quaternion perpendicular to both.
    return *this * Quaternion(std::cos(kPi * t), std::sin(kPi * t), 0.0, 0.0);
}

void Quaternion::Dump() const
{
    std::printf("%g + i*%g + j*%g + k*%g\n", w, x, y, z);
}

} // namespace DataLayer
