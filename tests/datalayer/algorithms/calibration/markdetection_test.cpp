// The detector and the grid position finder together on rendered pictures of calibration targets,
// with the recommended settings of the vorn tool.
#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <tuple>

#include "datalayer/algorithms/calibration/ccalibrationfeaturedetecthough.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturefindgridpositions.h"
#include "targetrenderer.h"
#include "tools/vorn/marksettings.h"

using DataLayer::CCalibrationFeatureDetectHough;
using DataLayer::CCalibrationFeatureFindGridPositions;
using DataLayer::CCalibrationImage;
using DataLayer::CCalibrationPointFeatureDetect;

namespace {

/// Target of 10 x 7 marks, diameter 20 px, spacing 50 px, blur 1 px, noise 2 grey levels, with two
/// marks left out so that the pattern has a single placement in all eight orientations.
TargetRender::TargetSettings baseTarget()
{
    TargetRender::TargetSettings s;
    s.width = 640;
    s.height = 480;
    s.columns = 10;
    s.rows = 7;
    s.spacing = 50.0;
    s.diameter = 20.0;
    s.blurSigma = 1.0;
    s.noiseSigma = 2.0;
    s.omitted = {{3, 2}, {6, 3}};
    s.originX = -4;
    s.originY = 2;
    return s;
}

struct SOutcome
{
    bool detected = false;
    bool gridded = false;
    CArray<CCalibrationPointFeatureDetect> detections;
    CArray<CCalibrationPointFeatureDetect> located;
};

/// Detection and grid positions with the recommended settings; dark tells the detector's polarity.
SOutcome locate(const TargetRender::RenderedTarget& target, const TargetRender::TargetSettings& s, bool dark,
                bool usePattern = true)
{
    CCalibrationImage image;
    EXPECT_TRUE(image.SetSize(CSize(target.width, target.height)));
    for (int y = 0; y < target.height; ++y)
        for (int x = 0; x < target.width; ++x)
            image.SetPixel(x, y, target.grey8[static_cast<std::size_t>(y * target.width + x)]);
    const MarkDetectionSettings settings;
    CCalibrationFeatureDetectHough hough;
    hough.SetDetectionLimits(settings.limitFirstPeak, settings.limitLastPeak, settings.limitNeighbourPeak);
    SOutcome outcome;
    outcome.detected = hough.FindFeatures(image, s.diameter, settings.detectionDistanceFactor * s.spacing,
                                          MarkDetectionSettings::DownSizeFactor(s.diameter), s.rings, dark,
                                          settings.radiusDivisor, 0);
    outcome.detections = hough.GetFeatures();
    std::unique_ptr<bool[]> pattern(new bool[static_cast<std::size_t>(s.columns * s.rows)]);
    for (int r = 0; r < s.rows; ++r)
        for (int c = 0; c < s.columns; ++c)
            pattern[static_cast<std::size_t>(r * s.columns + c)] =
                target.pattern[static_cast<std::size_t>(r)][static_cast<std::size_t>(c)] == 'x';
    CCalibrationFeatureFindGridPositions grid;
    if (usePattern)
        grid.SetReferencePattern(pattern.get(), CSize(s.columns, s.rows), CPoint(s.originX, s.originY));
    outcome.gridded = outcome.detected && grid.FindGridPositions(hough.GetFeatures(), s.spacing, 0, nullptr);
    outcome.located = grid.GetFeatures();
    return outcome;
}

/// Every listed mark has exactly one located feature within tolerance pixels, carrying its true
/// grid coordinates, and nothing else was located.
void expectEveryMarkWithItsGridPosition(const TargetRender::RenderedTarget& target, const SOutcome& outcome,
                                        double tolerance)
{
    ASSERT_TRUE(outcome.detected);
    ASSERT_TRUE(outcome.gridded);
    ASSERT_EQ(outcome.located.GetSize(), static_cast<std::ptrdiff_t>(target.truth.size()));
    for (const TargetRender::MarkTruth& mark : target.truth) {
        int hits = 0;
        for (std::ptrdiff_t n = 0; n < outcome.located.GetSize(); ++n) {
            const CCalibrationPointFeatureDetect& f = outcome.located[n];
            if (std::hypot(f.posX - mark.x, f.posY - mark.y) < tolerance) {
                ++hits;
                EXPECT_EQ(f.gridX, mark.gridX) << "mark at " << mark.x << "," << mark.y;
                EXPECT_EQ(f.gridY, mark.gridY) << "mark at " << mark.x << "," << mark.y;
            }
        }
        EXPECT_EQ(hits, 1) << "mark " << mark.gridX << "," << mark.gridY;
    }
}

class RenderedModerateTilt : public ::testing::TestWithParam<std::tuple<bool, bool>>
{
};

TEST_P(RenderedModerateTilt, EveryMarkIsFoundWithItsTrueGridPosition)
{
    TargetRender::TargetSettings s = baseTarget();
    s.rings = std::get<0>(GetParam());
    s.bright = std::get<1>(GetParam());
    s.tiltX = 15.0;
    s.tiltY = -10.0;
    s.tiltZ = 5.0;
    const TargetRender::RenderedTarget target = TargetRender::RenderTarget(s);
    ASSERT_EQ(target.truth.size(), 68u);
    const SOutcome outcome = locate(target, s, !s.bright);
    // The Hough centre lies within half a pixel on these marks.
    expectEveryMarkWithItsGridPosition(target, outcome, 0.5);
    // The radius comes out near the nominal 10 px.
    for (std::ptrdiff_t n = 0; n < outcome.located.GetSize(); ++n)
        EXPECT_NEAR(outcome.located[n].radius, 10.0, 2.0);
}

INSTANTIATE_TEST_SUITE_P(DiscsAndRingsDarkAndBright, RenderedModerateTilt,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<bool, bool>>& info) {
                             return std::string(std::get<0>(info.param) ? "Rings" : "Discs") +
                                    (std::get<1>(info.param) ? "Bright" : "Dark");
                         });

class RenderedStrongTilt : public ::testing::TestWithParam<bool>
{
};

TEST_P(RenderedStrongTilt, MarksThreeTimesApartInSizeAreAllFound)
{
    TargetRender::TargetSettings s = baseTarget();
    s.width = 1200;
    s.height = 800;
    s.columns = 14;
    s.rows = 8;
    s.rings = GetParam();
    s.tiltY = 40.0;
    s.focal = 700.0;
    const TargetRender::RenderedTarget target = TargetRender::RenderTarget(s);
    ASSERT_EQ(target.truth.size(), 110u);
    // The horizontal spacing grows about threefold from the far side to the near side, and the
    // marks with it.
    double nearStep = 0.0;
    double farStep = 0.0;
    for (std::size_t k = 1; k < target.truth.size(); ++k) {
        const TargetRender::MarkTruth& a = target.truth[k - 1];
        const TargetRender::MarkTruth& b = target.truth[k];
        if (a.gridY != 5 || b.gridY != 5)
            continue;
        if (a.gridX == s.originX)
            farStep = b.x - a.x;
        if (b.gridX == s.originX + s.columns - 1)
            nearStep = b.x - a.x;
    }
    EXPECT_GT(nearStep / farStep, 2.9);
    const SOutcome outcome = locate(target, s, true);
    // The Hough centre of a large foreshortened disc is off by up to a third of its radius.
    expectEveryMarkWithItsGridPosition(target, outcome, 6.0);
}

INSTANTIATE_TEST_SUITE_P(DiscsAndRings, RenderedStrongTilt, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return std::string(info.param ? "Rings" : "Discs");
                         });

class RenderedUnevenLight : public ::testing::TestWithParam<std::tuple<bool, bool>>
{
};

TEST_P(RenderedUnevenLight, TheWeakestMarkAtSixtyPercentContrastIsFound)
{
    TargetRender::TargetSettings s = baseTarget();
    s.rings = std::get<0>(GetParam());
    s.bright = std::get<1>(GetParam());
    s.weakestContrast = 0.45;
    s.lightAngle = 0.0;
    const TargetRender::RenderedTarget target = TargetRender::RenderTarget(s);
    // Measured contrast of each mark: mean grey of its ground annulus (1.5 to 2 radii) against the
    // mean of its darkest or brightest band (the centre of a disc, the middle of a ring's band).
    double weakest = 1e9;
    double strongest = 0.0;
    for (const TargetRender::MarkTruth& mark : target.truth) {
        double ground = 0.0;
        double inside = 0.0;
        int groundCount = 0;
        int insideCount = 0;
        for (int y = static_cast<int>(mark.y) - 21; y <= static_cast<int>(mark.y) + 21; ++y)
            for (int x = static_cast<int>(mark.x) - 21; x <= static_cast<int>(mark.x) + 21; ++x) {
                const double d = std::hypot(x - mark.x, y - mark.y) / 10.0;
                const double v = target.grey8[static_cast<std::size_t>(y * target.width + x)];
                if (d > 1.5 && d < 2.0) {
                    ground += v;
                    ++groundCount;
                }
                if (s.rings ? (d > 0.65 && d < 0.85) : d < 0.5) {
                    inside += v;
                    ++insideCount;
                }
            }
        const double contrast = std::fabs(ground / groundCount - inside / insideCount);
        weakest = std::min(weakest, contrast);
        strongest = std::max(strongest, contrast);
    }
    EXPECT_LE(weakest / strongest, 0.61);
    const SOutcome outcome = locate(target, s, !s.bright);
    expectEveryMarkWithItsGridPosition(target, outcome, 0.5);
}

INSTANTIATE_TEST_SUITE_P(DiscsAndRingsDarkAndBright, RenderedUnevenLight,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<bool, bool>>& info) {
                             return std::string(std::get<0>(info.param) ? "Rings" : "Discs") +
                                    (std::get<1>(info.param) ? "Bright" : "Dark");
                         });

TEST(RenderedTargets, WrongPolarityTooFewMarksOrNoTargetFailWithThePattern)
{
    TargetRender::TargetSettings s = baseTarget();
    s.tiltX = 15.0;
    const TargetRender::RenderedTarget target = TargetRender::RenderTarget(s);
    // The detector with the wrong polarity does report peaks (between the marks), but they don't
    // form the target.
    EXPECT_FALSE(locate(target, s, false).gridded);
    s.rings = true;
    EXPECT_FALSE(locate(TargetRender::RenderTarget(s), s, false).gridded);
    s.rings = false;

    TargetRender::TargetSettings nine = s;
    nine.columns = 3;
    nine.rows = 3;
    nine.omitted.clear();
    const TargetRender::RenderedTarget small = TargetRender::RenderTarget(nine);
    const SOutcome few = locate(small, nine, true, false);
    EXPECT_TRUE(few.detected);
    EXPECT_EQ(few.detections.GetSize(), 9);
    EXPECT_FALSE(few.gridded);
    EXPECT_TRUE(few.located.IsEmpty());

    TargetRender::TargetSettings blank = s;
    blank.darkLevel = blank.brightLevel; // marks of the ground's grey: noise only
    EXPECT_FALSE(locate(TargetRender::RenderTarget(blank), blank, true).gridded);
}

} // namespace
