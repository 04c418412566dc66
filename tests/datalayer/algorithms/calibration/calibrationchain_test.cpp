// The three calibration stages chained as a client chains them, on rendered photographs whose true
// mark centres and grid coordinates are known exactly: Hough detection, grid positions with the
// reference pattern that the renderer leaves in the grid, and Zhou refinement.
#include <cmath>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "datalayer/algorithms/calibration/ccalibrationfeaturedetecthough.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturefindgridpositions.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturerefinementzhou.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"
#include "tools/vorn/render/targetrenderer.h"

namespace {

struct ChainCase
{
    const char* name;
    bool rings;
    bool bright;
};

class CalibrationChain : public ::testing::TestWithParam<ChainCase>
{
};

TEST_P(CalibrationChain, RenderedTargetComesBackWithTrueGridCoordinatesAndSubTenthPixelCentres)
{
    const ChainCase c = GetParam();
    TargetRender::TargetSettings s;
    s.width = 640;
    s.height = 480;
    s.columns = 9;
    s.rows = 7;
    s.spacing = 50;
    s.diameter = 20;
    s.rings = c.rings;
    s.bright = c.bright;
    s.tiltX = 12;
    s.tiltY = -8;
    s.tiltZ = 4;
    s.blurSigma = 1.0;
    s.noiseSigma = 2.0;
    s.seed = 11;
    s.omitted = {{0, 0}, {1, 0}, {0, 1}}; // an L at one corner: the pattern fits one way only
    s.originX = 3;
    s.originY = -2;
    const TargetRender::RenderedTarget t = TargetRender::RenderTarget(s);
    ASSERT_EQ(t.truth.size(), 60u);

    DataLayer::CCalibrationImage image;
    ASSERT_TRUE(image.SetSize(CSize(t.width, t.height)));
    for (int y = 0; y < t.height; ++y)
        for (int x = 0; x < t.width; ++x)
            image.SetPixel(x, y, float(t.grey8[std::size_t(y) * t.width + x]));

    DataLayer::CCalibrationFeatureDetectHough hough;
    hough.SetDetectionLimits(0.2, 0.2, 0.5);
    ASSERT_TRUE(hough.FindFeatures(image, s.diameter, s.spacing, 2, s.rings, !s.bright, 2, -1));

    const std::unique_ptr<bool[]> pattern(new bool[std::size_t(s.columns) * s.rows]);
    for (int r = 0; r < s.rows; ++r)
        for (int col = 0; col < s.columns; ++col)
            pattern[std::size_t(r) * s.columns + col] = t.pattern[std::size_t(r)][std::size_t(col)] == 'x';
    DataLayer::CCalibrationFeatureFindGridPositions grid;
    grid.SetReferencePattern(pattern.get(), CSize(s.columns, s.rows), CPoint(s.originX, s.originY));
    ASSERT_TRUE(grid.FindGridPositions(hough.GetFeatures(), s.spacing, -1, &image));

    DataLayer::CCalibrationFeatureRefinementZhou zhou;
    if (s.rings)
        zhou.SetHalfLineLengthMin(2); // the default 13-sample window spans both edges of a 5-pixel ring
    ASSERT_TRUE(zhou.RefineFeatures(image, grid.GetFeatures(), s.rings, !s.bright, -1));

    const auto& found = zhou.GetFeatures();
    ASSERT_EQ(static_cast<int>(found.GetSize()), 60);
    double squares = 0;
    for (int i = 0; i < static_cast<int>(found.GetSize()); ++i) {
        const auto& f = found[i];
        const TargetRender::MarkTruth* truth = nullptr;
        for (const auto& m : t.truth)
            if (m.gridX == f.gridX && m.gridY == f.gridY)
                truth = &m;
        ASSERT_NE(truth, nullptr) << "grid " << f.gridX << "," << f.gridY;
        const double e2 =
            (f.posX - truth->x) * (f.posX - truth->x) + (f.posY - truth->y) * (f.posY - truth->y);
        EXPECT_LT(e2, 0.25 * 0.25) << "mark " << f.gridX << "," << f.gridY;
        squares += e2;
    }
    EXPECT_LT(std::sqrt(squares / 60), 0.1);
}

INSTANTIATE_TEST_SUITE_P(Marks, CalibrationChain,
                         ::testing::Values(ChainCase{"DarkDiscs", false, false},
                                           ChainCase{"BrightDiscs", false, true},
                                           ChainCase{"DarkRings", true, false},
                                           ChainCase{"BrightRings", true, true}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
