#include "datalayer/algorithms/geometry/ctrafo.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <stdexcept>

#include "datalayer/algorithms/geometry/symsolvers.h"

namespace DataLayer {

namespace {
constexpr float kSingularDeterminant = 1.1921e-7f;

kdtree::Vector<3> vec(float x, float y, float z)
{
    return kdtree::Vector<3>(x, y, z);
}
} // namespace

CTrafo::CTrafo() : m_r0(1, 0, 0), m_r1(0, 1, 0), m_r2(0, 0, 1), m_t(0, 0, 0) {}

CTrafo::CTrafo(const kdtree::Vector<3>& row0, const kdtree::Vector<3>& row1, const kdtree::Vector<3>& row2,
               const kdtree::Vector<3>& translation)
    : m_r0(row0), m_r1(row1), m_r2(row2), m_t(translation)
{
}

CTrafo::CTrafo(const kdtree::Vector<3>& eulerAngles, const kdtree::Vector<3>& translation) : m_t(translation)
{
    const float cr = std::cos(eulerAngles[0]), sr = std::sin(eulerAngles[0]);
    const float cp = std::cos(eulerAngles[1]), sp = std::sin(eulerAngles[1]);
    const float cy = std::cos(eulerAngles[2]), sy = std::sin(eulerAngles[2]);
    m_r0 = vec(cy * cp, cy * sp * sr - sy * cr, cy * sp * cr + sy * sr);
    m_r1 = vec(sy * cp, sy * sp * sr + cy * cr, sy * sp * cr - cy * sr);
    m_r2 = vec(-sp, cp * sr, cp * cr);
}

CTrafo::CTrafo(const Quaternion& q, const kdtree::Vector<3>& translation) : m_t(translation)
{
    const double w = q.w, x = q.x, y = q.y, z = q.z;
    m_r0 = vec(static_cast<float>(w * w + x * x - y * y - z * z), static_cast<float>(2 * (x * y - w * z)),
               static_cast<float>(2 * (w * y + x * z)));
    m_r1 = vec(static_cast<float>(2 * (w * z + x * y)), static_cast<float>(w * w - x * x + y * y - z * z),
               static_cast<float>(2 * (y * z - w * x)));
    m_r2 = vec(static_cast<float>(2 * (x * z - w * y)), static_cast<float>(2 * (w * x + y * z)),
               static_cast<float>(w * w - x * x - y * y + z * z));
}

CTrafo::CTrafo(const LbMatrix4Rd& m)
{
    kdtree::Vector<3>* rows[3] = {&m_r0, &m_r1, &m_r2};
    for (int r = 0; r < 3; ++r)
        *rows[r] = vec(static_cast<float>(m(r, 0)), static_cast<float>(m(r, 1)), static_cast<float>(m(r, 2)));
    m_t = vec(static_cast<float>(m[12]), static_cast<float>(m[13]), static_cast<float>(m[14]));
}

CTrafo::CTrafo(const LbMatrix4Rf& m)
{
    kdtree::Vector<3>* rows[3] = {&m_r0, &m_r1, &m_r2};
    for (int r = 0; r < 3; ++r)
        *rows[r] = vec(m(r, 0), m(r, 1), m(r, 2));
    m_t = vec(m[12], m[13], m[14]);
}

CTrafo CTrafo::Invalid()
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const kdtree::Vector<3> v(nan, nan, nan);
    return CTrafo(v, v, v, v);
}

CTrafo::operator LbMatrix4Rd() const
{
    LbMatrix4Rd m;
    for (unsigned r = 0; r < 4; ++r)
        for (unsigned c = 0; c < 4; ++c)
            m(static_cast<int>(r), static_cast<int>(c)) = (*this)(r, c);
    return m;
}

CTrafo::operator LbMatrix4Rf() const
{
    LbMatrix4Rf m;
    for (unsigned r = 0; r < 4; ++r)
        for (unsigned c = 0; c < 4; ++c)
            m(static_cast<int>(r), static_cast<int>(c)) = (*this)(r, c);
    return m;
}

CTrafo::operator bool() const
{
    const kdtree::Vector<3>* all[4] = {&m_r0, &m_r1, &m_r2, &m_t};
    for (const kdtree::Vector<3>* v : all)
        for (int i = 0; i < 3; ++i)
            if (!std::isfinite((*v)[i]))
                return false;
    return true;
}

bool CTrafo::operator==(const CTrafo& o) const
{
    return m_r0 == o.m_r0 && m_r1 == o.m_r1 && m_r2 == o.m_r2 && m_t == o.m_t;
}

float CTrafo::operator()(unsigned row, unsigned col) const
{
    if (row > 3 || col > 3)
        throw std::invalid_argument("invalid row or column index");
    if (row == 3)
        return col == 3 ? 1.0f : 0.0f;
    const kdtree::Vector<3>& r = row == 0 ? m_r0 : row == 1 ? m_r1 : m_r2;
    return col == 3 ? m_t[static_cast<int>(row)] : r[static_cast<int>(col)];
}

CTrafo CTrafo::operator*(const CTrafo& o) const
{
    // Column j of Ra Rb is Ra times column j of Rb; the rows of the product follow from it.
    const kdtree::Vector<3> c0 = Rotate(vec(o.m_r0[0], o.m_r1[0], o.m_r2[0]));
    const kdtree::Vector<3> c1 = Rotate(vec(o.m_r0[1], o.m_r1[1], o.m_r2[1]));
    const kdtree::Vector<3> c2 = Rotate(vec(o.m_r0[2], o.m_r1[2], o.m_r2[2]));
    return CTrafo(vec(c0[0], c1[0], c2[0]), vec(c0[1], c1[1], c2[1]), vec(c0[2], c1[2], c2[2]),
                  Transform(o.m_t));
}

CTrafo CTrafo::GetInverse() const
{
    const float r00 = m_r0[0], r01 = m_r0[1], r02 = m_r0[2];
    const float r10 = m_r1[0], r11 = m_r1[1], r12 = m_r1[2];
    const float r20 = m_r2[0], r21 = m_r2[1], r22 = m_r2[2];
    const float det =
        r00 * (r11 * r22 - r12 * r21) - r01 * (r10 * r22 - r20 * r12) + r02 * (r10 * r21 - r20 * r11);
    if (std::abs(det) < kSingularDeterminant)
        return CTrafo();
    const kdtree::Vector<3> i0((r11 * r22 - r12 * r21) / det, (r02 * r21 - r01 * r22) / det,
                               (r01 * r12 - r02 * r11) / det);
    const kdtree::Vector<3> i1((r12 * r20 - r10 * r22) / det, (r00 * r22 - r02 * r20) / det,
                               (r02 * r10 - r00 * r12) / det);
    const kdtree::Vector<3> i2((r10 * r21 - r11 * r20) / det, (r01 * r20 - r00 * r21) / det,
                               (r00 * r11 - r01 * r10) / det);
    const CTrafo rotation(i0, i1, i2, kdtree::Vector<3>());
    const kdtree::Vector<3> t = rotation.Rotate(m_t);
    return CTrafo(i0, i1, i2, vec(-t[0], -t[1], -t[2]));
}

kdtree::Vector<3> CTrafo::GetEulerAngles() const
{
    const float r20 = m_r2[0];
    const float roll = std::atan2(m_r2[1], m_r2[2]);
    const double pitch =
        std::atan2(-static_cast<double>(r20), std::sqrt(1.0 - static_cast<double>(r20) * r20));
    const float yaw = std::atan2(m_r1[0], m_r0[0]);
    return vec(roll, static_cast<float>(pitch), yaw);
}

Quaternion CTrafo::GetQuaternion() const
{
    return Quaternion(m_r0[0], m_r0[1], m_r0[2], m_r1[0], m_r1[1], m_r1[2], m_r2[0], m_r2[1], m_r2[2]);
}

CTrafo CTrafo::GetRotationPart() const
{
    return CTrafo(GetQuaternion().GetNormalized(), kdtree::Vector<3>());
}

float CTrafo::GetRotationDistance(const CTrafo& other) const
{
    return static_cast<float>(GetQuaternion().Distance(other.GetQuaternion()));
}

CTrafo CTrafo::Lerp(const CTrafo& other, double t) const
{
    const Quaternion q = GetQuaternion().Slerp(other.GetQuaternion(), t);
    const float ft = static_cast<float>(t);
    const kdtree::Vector<3> translation((other.m_t[0] - m_t[0]) * ft + m_t[0],
                                        (other.m_t[1] - m_t[1]) * ft + m_t[1],
                                        (other.m_t[2] - m_t[2]) * ft + m_t[2]);
    return CTrafo(q, translation);
}

CTrafo CTrafo::Mean(const CTrafo* trafos, std::size_t count)
{
    if (!trafos)
        count = 0;
    double q[4] = {0, 0, 0, 0}, t[3] = {0, 0, 0};
    for (std::size_t i = 0; i < count; ++i) {
        const Quaternion qi = trafos[i].GetQuaternion();
        q[0] += qi.w;
        q[1] += qi.x;
        q[2] += qi.y;
        q[3] += qi.z;
        for (int c = 0; c < 3; ++c)
            t[c] += trafos[i].m_t[c];
    }
    const double n = static_cast<double>(count);
    return CTrafo(
        Quaternion(q[0], q[1], q[2], q[3]).GetNormalized(),
        vec(static_cast<float>(t[0] / n), static_cast<float>(t[1] / n), static_cast<float>(t[2] / n)));
}

CTrafo CTrafo::LeastSquaresFit(const kdtree::Vector<3>* from, const kdtree::Vector<3>* to, std::size_t count,
                               const double* weights)
{
    double q[4], r[3][3], t[3];
    if (!symsolvers::detail::ProcrustesPoints(from, to, weights, count, q, r, t))
        return Invalid();
    auto f = [](double v) { return static_cast<float>(v); };
    return CTrafo(vec(f(r[0][0]), f(r[0][1]), f(r[0][2])), vec(f(r[1][0]), f(r[1][1]), f(r[1][2])),
                  vec(f(r[2][0]), f(r[2][1]), f(r[2][2])), vec(f(t[0]), f(t[1]), f(t[2])));
}

CTrafo CTrafo::Scale(const kdtree::Vector<3>& s) const
{
    return CTrafo(m_r0 * s[0], m_r1 * s[1], m_r2 * s[2], vec(m_t[0] * s[0], m_t[1] * s[1], m_t[2] * s[2]));
}

CTrafo CTrafo::Translate(const kdtree::Vector<3>& v) const
{
    return CTrafo(m_r0, m_r1, m_r2, m_t + v);
}

void CTrafo::Dump() const
{
    for (unsigned r = 0; r < 4; ++r) {
        for (unsigned c = 0; c < 4; ++c)
            std::printf(" %5.3f", static_cast<double>((*this)(r, c)));
        std::printf("\n");
    }
}

} // namespace DataLayer
