#pragma once
// DataLayer::CTriangle2D: a 2D triangle of three float vertices a, b, c, with area, centre,
// winding, barycentric points and the affine map onto another triangle.
//
// A plain value; it owns nothing and one object serves one thread at a time. The default triangle
// holds NaN in all six values and IsValid() is false. Nothing throws: GetAffineMap answers a
// degenerate source triangle (determinant exactly 0) with the identity matrix; NaN vertices give
// NaN results.

#include "core/base/lbmatrix.h"
#include "core/base/lbvector.h"

namespace DataLayer {

class CTriangle2D
{
public:
    /// All six values quiet NaN.
    CTriangle2D();
    CTriangle2D(const LbVector2f& a, const LbVector2f& b, const LbVector2f& c) : a(a), b(b), c(c) {}

    /// Vertex i: 0 a, 1 b, 2 c. No range test: i must be 0, 1 or 2.
    LbVector2f& operator[](int i) { return i == 0 ? a : i == 1 ? b : c; }
    const LbVector2f& operator[](int i) const { return i == 0 ? a : i == 1 ? b : c; }

    /// True if none of the six values is NaN.
    bool IsValid() const;
    /// |(b.y - a.y)(c.x - a.x) - (b.x - a.x)(c.y - a.y)| / 2, the same for both windings.
    float GetArea() const;
    /// (a + b + c) * 0.33333334f.
    LbVector2f GetCOG() const;
    /// Counter-clockwise in a y-up frame: (b - a) x (c - a) > 0. Both false when degenerate.
    bool IsCCW() const;
    bool IsCW() const;
    /// Exchanges b and c.
    void ChangeWinding();
    /// (w[0] a + w[1] b + w[2] c) / (w[0] + w[1] + w[2]); the weights need not sum to 1.
    LbVector2f BaryToCart(const LbVector3f& w) const;
    /// The 3 x 3 matrix M (by columns) with M (v, 1) = (other's v, 1) for each vertex, in double.
    /// The identity when this triangle is degenerate (determinant exactly 0).
    LbMatrix3Cd GetAffineMap(const CTriangle2D& other) const;

    LbVector2f a;
    LbVector2f b;
    LbVector2f c;
};

} // namespace DataLayer
