#pragma once
// DataLayer::Quaternion: a rotation as a quaternion w + x i + y j + z k, computed in double
// precision, with the operations CTrafo needs on rotations: conversion from Euler angles, matrices,
// an axis and angle or two directions, interpolation and distance.
//
// A plain value of four doubles; it owns nothing and one object serves one thread at a time.
// Nothing throws. Every constructor that says "normalised" scales to unit length with w >= 0 and
// turns a zero or NaN quaternion into the identity (1, 0, 0, 0); FromAxisAngle answers a zero
// axis with Invalid() (all NaN). Angles are in radians.
// Choice made here: Slerp between two exactly opposite quaternions (dot product within 2.2204e-16
// of -1) follows the great circle through this * (0, 1, 0, 0), that is
// this * (cos(pi t), sin(pi t), 0, 0): it starts at this, ends at other = -this and keeps the norm.

#include <array>

namespace DataLayer {

class Quaternion
{
public:
    double w = 1.0;
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;

    /// The identity (1, 0, 0, 0).
    Quaternion() = default;
    /// The four values as given, not normalised.
    Quaternion(double w_, double x_, double y_, double z_) : w(w_), x(x_), y(y_), z(z_) {}
    /// w, x, y, z from the array, not normalised.
    explicit Quaternion(const std::array<double, 4>& wxyz) : w(wxyz[0]), x(wxyz[1]), y(wxyz[2]), z(wxyz[3]) {}
    /// From Euler angles: the rotation Rz(yaw) Ry(pitch) Rx(roll), normalised.
    Quaternion(double roll, double pitch, double yaw);
    /// From a rotation matrix given row by row, normalised.
    Quaternion(double m00, double m01, double m02, double m10, double m11, double m12, double m20, double m21,
               double m22);
    /// The shortest rotation that turns direction from into direction to. Parallel directions give
    /// the identity, opposite ones the half turn (0, 1, 0, 0) about x; a zero or NaN direction
    /// gives the identity.
    Quaternion(const std::array<double, 3>& from, const std::array<double, 3>& to);

    /// Rotation by angle (radians) about axis, normalised. An angle beyond +-6.28318530717959 is
    /// reduced by fmod; an axis of length 0 gives Invalid(). The axis need not be a unit vector.
    static Quaternion FromAxisAngle(const std::array<double, 3>& axis, double angle);
    /// All four values quiet NaN.
    static Quaternion Invalid();

    /// True if none of the four values is NaN.
    explicit operator bool() const;
    Quaternion operator-() const { return {-w, -x, -y, -z}; }
    /// The conjugate (w, -x, -y, -z).
    Quaternion operator~() const { return {w, -x, -y, -z}; }
    /// The Hamilton product this * other.
    Quaternion operator*(const Quaternion& o) const;

    double Dot(const Quaternion& o) const { return w * o.w + x * o.x + y * o.y + z * o.z; }
    /// The rotation angle between the two, 2 acos(min(|dot|, 1)), in radians from 0 to pi.
    double Distance(const Quaternion& o) const;
    /// 2 acos(w), without clamping: NaN when |w| > 1.
    double GetAngle() const;
    double GetNorm() const;
    /// A normalised copy (unit length, w >= 0; zero or NaN gives the identity).
    Quaternion GetNormalized() const;
    /// (x, y, z) / sqrt(1 - w^2); when that root is below 0.0005, (x, y, z) undivided, so the
    /// identity gives (0, 0, 0). NaN for |w| > 1.
    std::array<double, 3> GetAxis() const;
    /// Roll, pitch, yaw in radians (pitch from asin of a clamped argument).
    std::array<double, 3> GetEulerAngles() const;
    /// The vector part of q (0, v) ~q with q as it stands (a non-unit q also scales).
    std::array<double, 3> Rotate(const std::array<double, 3>& v) const;
    /// Spherical interpolation, t not limited to 0..1; not normalised, and no choice of the
    /// shorter arc: the dot product is taken as it is. Nearly equal quaternions interpolate
    /// linearly; for exactly opposite ones see the header comment.
    Quaternion Slerp(const Quaternion& other, double t) const;
    /// Prints "w + i*x + j*y + k*z" with %g and a line feed to standard output.
    void Dump() const;

private:
    void normalize();
};

} // namespace DataLayer
