#pragma once
// DataLayer::CTrafo: a rigid motion of 3D points p -> R p + t in single precision, the library's
// value type for poses, with composition, inverse, interpolation, averaging and the least-squares
// fit of two point sets.
//
// A plain value of four kdtree::Vector<3> (the rows of R, then t); it owns nothing and one object
// serves one thread at a time. R is not forced to be a rotation: Scale and the constructor from
// four vectors store anything. The invalid transform holds NaN in all twelve values. Failures are
// values: Invalid() from LeastSquaresFit, the identity from GetInverse of a singular matrix; the
// only exception is std::invalid_argument from operator() for an index above 3.
// Rotate, Transform and operator* on a point are inline SSE over four lanes, the fourth lane of the
// result 0, and one four-lane addition of t: the three row dot products are formed as column sums,
// which round exactly as the scalar sums ((r_i0 x + r_i1 y) + r_i2 z) + t_i do. Choices made here: Mean of a
// null list counts as an empty one (identity rotation, NaN translation); GetEulerAngles gives a NaN pitch
// when |r20| > 1.

#include <array>
#include <cstddef>
#include <smmintrin.h>
#include <utility>

#include "core/base/lbmatrix.h"
#include "datalayer/algorithms/geometry/kdtreevector.h"
#include "datalayer/algorithms/geometry/quaternion.h"

namespace DataLayer {

class CTrafo
{
public:
    /// The identity.
    CTrafo();
    /// Rows of R and the translation, as given.
    CTrafo(const kdtree::Vector<3>& row0, const kdtree::Vector<3>& row1, const kdtree::Vector<3>& row2,
           const kdtree::Vector<3>& translation);
    /// R = Rz(yaw) Ry(pitch) Rx(roll) from (roll, pitch, yaw) in radians, in single precision.
    CTrafo(const kdtree::Vector<3>& eulerAngles, const kdtree::Vector<3>& translation);
    /// R from the quaternion without normalising it (a non-unit quaternion scales R).
    CTrafo(const Quaternion& rotation, const kdtree::Vector<3>& translation);
    /// The upper left 3 x 3 and elements 12 to 14 (double values rounded to float).
    explicit CTrafo(const LbMatrix4Rd& m);
    explicit CTrafo(const LbMatrix4Rf& m);

    static CTrafo Identity() { return CTrafo(); }
    /// All twelve values quiet NaN.
    static CTrafo Invalid();

    /// The 4 x 4 homogeneous matrix, last row (0, 0, 0, 1).
    explicit operator LbMatrix4Rd() const;
    explicit operator LbMatrix4Rf() const;

    /// True if all twelve values are finite.
    explicit operator bool() const;
    /// Exact float equality of the twelve values; any NaN makes it false.
    bool operator==(const CTrafo& other) const;

    /// Element of the 4 x 4 view. Throws std::invalid_argument("invalid row or column index") for
    /// a row or column above 3.
    float operator()(unsigned row, unsigned col) const;

    const kdtree::Vector<3>& GetTranslation() const { return m_t; }

    /// R v.
    kdtree::Vector<3> Rotate(const kdtree::Vector<3>& v) const;
    /// R v + t.
    kdtree::Vector<3> Transform(const kdtree::Vector<3>& v) const;
    kdtree::Vector<3> operator*(const kdtree::Vector<3>& v) const { return Transform(v); }
    /// (R point + t, R normal).
    std::pair<kdtree::Vector<3>, kdtree::Vector<3>> Transform(const kdtree::Vector<3>& point,
                                                              const kdtree::Vector<3>& normal) const;

    /// The composition: other acts first, (A * B) p = A (B p).
    CTrafo operator*(const CTrafo& other) const;
    /// General inverse in single precision by cofactors; the identity when |det R| < 1.1921e-7.
    CTrafo GetInverse() const;
    /// (roll, pitch, yaw) in radians.
    kdtree::Vector<3> GetEulerAngles() const;
    /// The normalised quaternion of R's nine values.
    Quaternion GetQuaternion() const;
    /// R through GetQuaternion and back, translation 0.
    CTrafo GetRotationPart() const;
    /// Quaternion::Distance of the two rotations, in radians.
    float GetRotationDistance(const CTrafo& other) const;
    /// Slerp of the two rotations (unnormalised) and linear interpolation of the translations;
    /// t is not limited to 0..1.
    CTrafo Lerp(const CTrafo& other, double t) const;

    /// Average of count transforms: the normalised sum of their quaternions and the mean
    /// translation, in double. An empty (or null) list gives the identity rotation and a NaN
    /// translation.
    static CTrafo Mean(const CTrafo* trafos, std::size_t count);
    /// The rigid motion T that brings T from[i] closest to to[i] (symsolvers::Procrustes on the
    /// points widened to double); weights may be null. Invalid() with fewer than three points,
    /// null lists, non-finite input or an ambiguous solution.
    static CTrafo LeastSquaresFit(const kdtree::Vector<3>* from, const kdtree::Vector<3>* to,
                                  std::size_t count, const double* weights);

    /// Row i of R times s[i], t times s component by component.
    CTrafo Scale(const kdtree::Vector<3>& s) const;
    /// Same R, t + v.
    CTrafo Translate(const kdtree::Vector<3>& v) const;
    /// Prints the 4 x 4 view to standard output, " %5.3f" per element, a line feed per row.
    void Dump() const;

private:
    static __m128 load(const kdtree::Vector<3>& v) { return _mm_load_ps(v.Data()); }
    static kdtree::Vector<3> store(__m128 v)
    {
        kdtree::Vector<3> r;
        _mm_store_ps(r.Data(), v);
        return r;
    }
    /// R v as the column sums ((c0 x + c1 y) + c2 z), the same roundings as the row dot products
    /// (r_i0 x + r_i1 y) + r_i2 z; lane 3 is forced to 0. In a loop over points the transpose is
    /// loop-invariant and leaves the loop.
    __m128 rotate(__m128 v) const
    {
        __m128 c0 = load(m_r0), c1 = load(m_r1), c2 = load(m_r2), c3 = _mm_setzero_ps();
        _MM_TRANSPOSE4_PS(c0, c1, c2, c3);
        const __m128 x = _mm_shuffle_ps(v, v, _MM_SHUFFLE(0, 0, 0, 0));
        const __m128 y = _mm_shuffle_ps(v, v, _MM_SHUFFLE(1, 1, 1, 1));
        const __m128 z = _mm_shuffle_ps(v, v, _MM_SHUFFLE(2, 2, 2, 2));
        return _mm_add_ps(_mm_add_ps(_mm_mul_ps(c0, x), _mm_mul_ps(c1, y)), _mm_mul_ps(c2, z));
    }
    static __m128 clearLane3(__m128 v) { return _mm_blend_ps(v, _mm_setzero_ps(), 0x8); }

    kdtree::Vector<3> m_r0;
    kdtree::Vector<3> m_r1;
    kdtree::Vector<3> m_r2;
    kdtree::Vector<3> m_t;
};

inline kdtree::Vector<3> CTrafo::Rotate(const kdtree::Vector<3>& v) const
{
    return store(clearLane3(rotate(load(v))));
}

inline kdtree::Vector<3> CTrafo::Transform(const kdtree::Vector<3>& v) const
{
    return store(clearLane3(_mm_add_ps(rotate(load(v)), load(m_t))));
}

inline std::pair<kdtree::Vector<3>, kdtree::Vector<3>>
CTrafo::Transform(const kdtree::Vector<3>& point, const kdtree::Vector<3>& normal) const
{
    return {Transform(point), Rotate(normal)};
}

} // namespace DataLayer
