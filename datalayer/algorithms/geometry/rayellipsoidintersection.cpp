#include "datalayer/algorithms/geometry/rayellipsoidintersection.h"

#include <cmath>
#include <complex>
#include <utility>

#include "datalayer/algorithms/curves/polynomial.h"

namespace DataLayer {

int RayEllipsoidIntersection(const LbVector3d& center, const LbVector3d& radii, const LbVector3d& origin,
                             const LbVector3d& direction, double* const t)
{
    const LbVector3d o((origin.x - center.x) / radii.x, (origin.y - center.y) / radii.y,
                       (origin.z - center.z) / radii.z);
    const LbVector3d d(direction.x / radii.x, direction.y / radii.y, direction.z / radii.z);
    const std::complex<double> coefficients[3] = {d.Dot(d), 2.0 * d.Dot(o), o.Dot(o) - 1.0};
    std::complex<double> roots[2];
    if (!Polynomial::Roots2(coefficients, roots))
        return 0;
    double kept[2];
    int count = 0;
    for (const std::complex<double>& r : roots)
        if (r.real() >= 0 && std::abs(r.imag()) <= 2.2204e-16)
            kept[count++] = r.real();
    if (count == 2 && kept[1] < kept[0])
        std::swap(kept[0], kept[1]);
    if (t)
        for (int i = 0; i < count; ++i)
            t[i] = kept[i];
    return count;
}

} // namespace DataLayer
