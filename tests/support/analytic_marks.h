#pragma once
// Analytic calibration marks for tests: circles on a plane, mapped into the picture by a
// homography, rendered by area coverage (adaptive supersampling), optionally blurred with a
// Gaussian and disturbed by seeded Gaussian noise. Pixel (x, y) covers x - 0.5 .. x + 0.5 and
// y - 0.5 .. y + 0.5. The truth of a mark is its projected centre H * (cx, cy, 1).
#include <array>
#include <cstdint>
#include <vector>

#include "datalayer/algorithms/calibration/ccalibrationimage.h"

namespace vorn2test {

/// 3 x 3 homography, row-major, mapping plane points (u, v, 1) to picture points.
using Homography = std::array<double, 9>;

Homography IdentityHomography();
/// The homography of a plane tilted by tiltDegrees about the picture's x axis and turned by
/// turnDegrees about the optical axis, seen by a pinhole camera of the given focal length (pixels)
/// at the given distance (in plane units), with the plane origin projected to (x0, y0). One plane
/// unit maps to about focal / distance pixels.
Homography TiltedPlane(double tiltDegrees, double turnDegrees, double focal, double distance, double x0,
                       double y0);

struct SMark
{
    double u = 0.0; ///< centre on the plane
    double v = 0.0;
    double radius = 1.0; ///< outer radius on the plane
    bool ring = false;   ///< ring: the inner half of the radius has the ground's grey
};

struct SRenderSettings
{
    int width = 64;
    int height = 64;
    double ground = 200.0;
    double mark = 50.0;
    double blurSigma = 0.0;  ///< pixels; 0 for none
    double noiseSigma = 0.0; ///< grey levels; 0 for none
    std::uint32_t seed = 47110815;
};

/// Renders the marks; grey values are ground + coverage * (mark - ground).
DataLayer::CCalibrationImage RenderMarks(const SRenderSettings& settings, const Homography& h,
                                         const std::vector<SMark>& marks);

/// Applies the homography to a plane point.
std::array<double, 2> Project(const Homography& h, double u, double v);

} // namespace vorn2test
