#pragma once
// Synthetic calibration pictures for the tests: anti-aliased discs or rings (inner radius half the
// outer) on a flat ground, optionally elliptical, with per-mark contrast, Gaussian blur and seeded
// Gaussian noise. Coverage is sampled on a 8 x 8 grid inside each pixel; pixel centres lie at
// integer coordinates.
#include <vector>

#include "datalayer/algorithms/calibration/ccalibrationimage.h"

namespace vorn2test {

struct SyntheticMark
{
    double x = 0.0;
    double y = 0.0;
    /// Half axes of the (possibly elliptical) outer rim; axis b is along y unless rotated.
    double radiusX = 10.0;
    double radiusY = 10.0;
    /// Multiplies the mark's grey step against the ground (1 = full contrast).
    double contrast = 1.0;
    int gridX = 0;
    int gridY = 0;
};

struct SyntheticScene
{
    int width = 0;
    int height = 0;
    float ground = 200.0f;
    float mark = 40.0f;
    bool rings = false;
    double blurSigma = 0.0;
    double noiseSigma = 0.0;
    unsigned seed = 12345u;
    std::vector<SyntheticMark> marks;
};

/// Marks on a cols x rows lattice starting at (x0, y0) with the given spacing, all of one radius;
/// a mark whose pattern entry (row-major) is false is left out when a pattern is given.
std::vector<SyntheticMark> LatticeMarks(int cols, int rows, double x0, double y0, double spacing,
                                        double radius, const std::vector<bool>* pattern = nullptr);

DataLayer::CCalibrationImage RenderScene(const SyntheticScene& scene);

} // namespace vorn2test
