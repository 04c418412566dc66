#pragma once
// DataLayer::RayEllipsoidIntersection: where a ray cuts an axis-parallel ellipsoid.
//
// A pure function (any thread, no state). Choices made here: a null t still gets the count; a
// zero direction, zero or non-finite radii and NaN input give 0.

#include "core/base/lbvector.h"

namespace DataLayer {

/// Intersections of the ray origin + s direction, s >= 0, with the ellipsoid of semi-axes radii
/// about center (axes parallel to x, y, z). Returns 0, 1 or 2 and writes the ray parameters s into
/// t (room for two), ascending; direction need not be a unit vector. A ray starting inside gives
/// 1, a tangent ray 2 equal parameters; a root counts when its imaginary part is at most
/// 2.2204e-16.
int RayEllipsoidIntersection(const LbVector3d& center, const LbVector3d& radii, const LbVector3d& origin,
                             const LbVector3d& direction, double* const t);

} // namespace DataLayer
