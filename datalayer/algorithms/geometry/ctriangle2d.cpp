#include "datalayer/algorithms/geometry/ctriangle2d.h"

#include <cmath>
#include <limits>

#include "core/base/lbexception.h"

namespace DataLayer {

namespace {
/// Raised when the vertex matrix has no inverse; caught inside GetAffineMap.
class LmExceptionNotInvertible : public LbException
{
public:
    using LbException::LbException;
};

using Mat3 = double[3][3];

/// Inverse of m by cofactors; throws LmExceptionNotInvertible for a determinant of exactly 0.
void invert(const Mat3& m, Mat3& out)
{
    const double c00 = m[1][1] * m[2][2] - m[1][2] * m[2][1];
    const double c01 = m[1][2] * m[2][0] - m[1][0] * m[2][2];
    const double c02 = m[1][0] * m[2][1] - m[1][1] * m[2][0];
    const double det = m[0][0] * c00 + m[0][1] * c01 + m[0][2] * c02;
    if (det == 0)
        throw LmExceptionNotInvertible(__FILE__, __LINE__, __func__);
    out[0][0] = c00 / det;
    out[1][0] = c01 / det;
    out[2][0] = c02 / det;
    out[0][1] = (m[0][2] * m[2][1] - m[0][1] * m[2][2]) / det;
    out[1][1] = (m[0][0] * m[2][2] - m[0][2] * m[2][0]) / det;
    out[2][1] = (m[0][1] * m[2][0] - m[0][0] * m[2][1]) / det;
    out[0][2] = (m[0][1] * m[1][2] - m[0][2] * m[1][1]) / det;
    out[1][2] = (m[0][2] * m[1][0] - m[0][0] * m[1][2]) / det;
    out[2][2] = (m[0][0] * m[1][1] - m[0][1] * m[1][0]) / det;
}

void vertexMatrix(const CTriangle2D& t, Mat3& m)
{
    for (int j = 0; j < 3; ++j) {
        m[0][j] = t[j].x;
        m[1][j] = t[j].y;
        m[2][j] = 1.0;
    }
}
} // namespace

CTriangle2D::CTriangle2D()
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    a = b = c = LbVector2f(nan, nan);
}

bool CTriangle2D::IsValid() const
{
    return !(std::isnan(a.x) || std::isnan(a.y) || std::isnan(b.x) || std::isnan(b.y) || std::isnan(c.x) ||
             std::isnan(c.y));
}

float CTriangle2D::GetArea() const
{
    return std::abs((b.y - a.y) * (c.x - a.x) - (b.x - a.x) * (c.y - a.y)) * 0.5f;
}

LbVector2f CTriangle2D::GetCOG() const
{
    return (a + b + c) * 0.33333334f;
}

bool CTriangle2D::IsCCW() const
{
    return (b.x - a.x) * (c.y - a.y) - (c.x - a.x) * (b.y - a.y) > 0;
}

bool CTriangle2D::IsCW() const
{
    return (b.x - a.x) * (c.y - a.y) - (c.x - a.x) * (b.y - a.y) < 0;
}

void CTriangle2D::ChangeWinding()
{
    const LbVector2f t = b;
    b = c;
    c = t;
}

LbVector2f CTriangle2D::BaryToCart(const LbVector3f& w) const
{
    return (a * w[0] + b * w[1] + c * w[2]) / (w[0] + w[1] + w[2]);
}

LbMatrix3Cd CTriangle2D::GetAffineMap(const CTriangle2D& other) const
{
    Mat3 p1, p2, inverse;
    vertexMatrix(*this, p1);
    vertexMatrix(other, p2);
    LbMatrix3Cd result;
    try {
        invert(p1, inverse);
    } catch (const LmExceptionNotInvertible&) {
        return result; // the identity
    }
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            result(i, j) = p2[i][0] * inverse[0][j] + p2[i][1] * inverse[1][j] + p2[i][2] * inverse[2][j];
    return result;
}

} // namespace DataLayer
