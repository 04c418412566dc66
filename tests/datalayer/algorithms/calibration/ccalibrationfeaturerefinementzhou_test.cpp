#include <array>
#include <cmath>
#include <cstdio>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "analytic_marks.h"
#include "datalayer/algorithms/calibration/ccalibrationfeaturerefinementzhou.h"
#include "datalayer/algorithms/calibration/ccalibrationimage.h"

using DataLayer::CCalibrationFeatureRefinementZhou;
using DataLayer::CCalibrationImage;
using DataLayer::CCalibrationPointFeatureDetect;
using DataLayer::ICalibrationImage;
using vorn2test::SMark;
using vorn2test::SRenderSettings;

namespace {

/// Opens the protected steps for testing.
class ZhouProbe : public CCalibrationFeatureRefinementZhou
{
public:
    using CCalibrationFeatureRefinementZhou::calcEdgePoint;
    using CCalibrationFeatureRefinementZhou::calcEdgePointIter;
    using CCalibrationFeatureRefinementZhou::calcZhou;
    using CCalibrationFeatureRefinementZhou::checkEdgeDeviation;
    using CCalibrationFeatureRefinementZhou::checkEdgeHistory;
    using CCalibrationFeatureRefinementZhou::checkPositionDeviation;
    using CCalibrationFeatureRefinementZhou::checkPositionHistory;
    using CCalibrationFeatureRefinementZhou::fitLineRobust;
    using CCalibrationFeatureRefinementZhou::locateMomentEdge;
    using CCalibrationFeatureRefinementZhou::refineSinglePosition;

    /// Binds an image the way RefineFeatures does, without features.
    void Bind(const ICalibrationImage& image)
    {
        RefineFeatures(image, CArray<CCalibrationPointFeatureDetect>(), false, true, -1);
    }
};

using sEdge = CCalibrationFeatureRefinementZhou::sEdgePosition;
using sPos = CCalibrationFeatureRefinementZhou::sFeaturePosition;

CArray<CCalibrationPointFeatureDetect> oneFeature(double x, double y, double radius)
{
    CArray<CCalibrationPointFeatureDetect> features;
    CCalibrationPointFeatureDetect f;
    f.posX = x;
    f.posY = y;
    f.radius = radius;
    f.gridX = 3;
    f.gridY = -2;
    f.rating = 0.75;
    features.Add(f);
    return features;
}

/// A single disc or ring of the given radius centred at (cx, cy) on an identity view.
CCalibrationImage renderOne(int w, int h, double cx, double cy, double radius, bool dark, bool ring,
                            double blur = 0.0, double noise = 0.0)
{
    SRenderSettings s;
    s.width = w;
    s.height = h;
    s.ground = dark ? 200.0 : 50.0;
    s.mark = dark ? 50.0 : 200.0;
    s.blurSigma = blur;
    s.noiseSigma = noise;
    return vorn2test::RenderMarks(s, vorn2test::IdentityHomography(), {SMark{cx, cy, radius, ring}});
}

/// A horizontal step along every row: columns below edgeColumn hold low, the others high.
CCalibrationImage stepImage(int w, int h, int edgeColumn, float low, float high)
{
    CCalibrationImage image;
    image.SetSize(CSize(w, h));
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            image.SetPixel(x, y, x < edgeColumn ? low : high);
    return image;
}

} // namespace

// --- the moment-preserving edge locator -------------------------------------------------------------

TEST(ZhouMomentEdge, StepOnAPixelBoundaryIsExactForAnyLevels)
{
    // k low samples then n - k high ones: the fraction of low samples is k / n exactly, so the
    // edge lies at k - 0.5, whatever the two grey levels (the moments are affine invariant).
    for (int n : {5, 13, 21})
        for (int k = 1; k < n; ++k)
            for (auto [low, high] :
                 {std::pair{0.0f, 1.0f}, std::pair{10.0f, 200.0f}, std::pair{-255.0f, -3.0f}}) {
                std::vector<float> s(n, high);
                for (int i = 0; i < k; ++i)
                    s[i] = low;
                double pos = -1.0;
                ASSERT_TRUE(ZhouProbe::locateMomentEdge(s.data(), n, pos));
                EXPECT_NEAR(pos, k - 0.5, 1e-9) << "n=" << n << " k=" << k << " low=" << low;
            }
}

TEST(ZhouMomentEdge, MixedPixelLandsInsideThatPixel)
{
    // An area-sampled step at 6.2 in 13 samples: sample 6 is 30 % high. The three-moment fit of a
    // two-level step is not exact for a mixed sample, but it stays within a tenth of a pixel.
    std::vector<float> s(13, 1.0f);
    for (int i = 0; i < 6; ++i)
        s[i] = 0.0f;
    s[6] = 0.3f;
    double pos = 0.0;
    ASSERT_TRUE(ZhouProbe::locateMomentEdge(s.data(), 13, pos));
    EXPECT_NEAR(pos, 6.2, 0.1);
}

TEST(ZhouMomentEdge, FlatNaNAndEmptyWindowsFail)
{
    std::vector<float> flat(13, 42.0f);
    double pos = 7.0;
    EXPECT_FALSE(ZhouProbe::locateMomentEdge(flat.data(), 13, pos));
    std::vector<float> tenth(13, 0.1f); // a mean that isn't exactly the value must still count as flat
    EXPECT_FALSE(ZhouProbe::locateMomentEdge(tenth.data(), 13, pos));
    std::vector<float> withNaN(13, 0.0f);
    withNaN[7] = 1.0f;
    withNaN[3] = std::numeric_limits<float>::quiet_NaN();
    EXPECT_FALSE(ZhouProbe::locateMomentEdge(withNaN.data(), 13, pos));
    EXPECT_FALSE(ZhouProbe::locateMomentEdge(flat.data(), 0, pos));
    EXPECT_FALSE(ZhouProbe::locateMomentEdge(nullptr, 13, pos));
    EXPECT_EQ(pos, 7.0) << "a failed search leaves the output alone";
}

// --- fitLineRobust ------------------------------------------------------------------------------------

TEST(ZhouFitLineRobust, TwoPointsGiveTheirLineWithZeroSigmaAndUnitWeight)
{
    ZhouProbe z;
    LbArray<LbVector2d> p;
    p.push_back(LbVector2d(1.0, 2.0));
    p.push_back(LbVector2d(3.0, 8.0));
    double slope = 0, intercept = 0, sigma = -1, meanWeight = -1;
    ASSERT_TRUE(z.fitLineRobust(p, nullptr, slope, intercept, &sigma, &meanWeight));
    EXPECT_NEAR(slope, 3.0, 1e-14);
    EXPECT_NEAR(intercept, -1.0, 1e-14);
    EXPECT_EQ(sigma, 0.0);
    EXPECT_EQ(meanWeight, 1.0);
}

TEST(ZhouFitLineRobust, DegenerateInputFails)
{
    ZhouProbe z;
    double slope = 5, intercept = 6, sigma = 7;
    LbArray<LbVector2d> p;
    EXPECT_FALSE(z.fitLineRobust(p, nullptr, slope, intercept, &sigma, nullptr)) << "no point";
    p.push_back(LbVector2d(0.1, 1.0));
    EXPECT_FALSE(z.fitLineRobust(p, nullptr, slope, intercept, &sigma, nullptr)) << "one point";
    p.push_back(LbVector2d(0.1, 2.0));
    p.push_back(LbVector2d(0.1, -4.0));
    EXPECT_FALSE(z.fitLineRobust(p, nullptr, slope, intercept, &sigma, nullptr)) << "equal x";
    p.push_back(LbVector2d(0.3, -4.0));
    LbArray<double> w;
    w.push_back(1.0);
    EXPECT_FALSE(z.fitLineRobust(p, &w, slope, intercept, &sigma, nullptr)) << "weights of another length";
    w.resize(4);
    w[0] = w[1] = w[2] = 1.0;
    w[3] = 0.0;
    EXPECT_FALSE(z.fitLineRobust(p, &w, slope, intercept, &sigma, nullptr)) << "weighted x all equal";
    w[3] = -1.0;
    EXPECT_FALSE(z.fitLineRobust(p, &w, slope, intercept, &sigma, nullptr)) << "negative weight";
    p[1].y = std::numeric_limits<double>::quiet_NaN();
    EXPECT_FALSE(z.fitLineRobust(p, nullptr, slope, intercept, &sigma, nullptr)) << "NaN point";
    EXPECT_EQ(slope, 5.0);
    EXPECT_EQ(intercept, 6.0);
    EXPECT_EQ(sigma, 7.0);
}

TEST(ZhouFitLineRobust, ExactLineAtLargeCoordinatesStopsAtOnce)
{
    ZhouProbe z;
    LbArray<LbVector2d> p;
    for (int i = 0; i < 15; ++i)
        p.push_back(LbVector2d(1000.0 + i, 0.25 * (1000.0 + i) + 700.0));
    double slope = 0, intercept = 0, sigma = -1, meanWeight = -1;
    ASSERT_TRUE(z.fitLineRobust(p, nullptr, slope, intercept, &sigma, &meanWeight));
    EXPECT_NEAR(slope, 0.25, 1e-13);
    EXPECT_NEAR(intercept, 700.0, 1e-10);
    EXPECT_NEAR(sigma, 0.0, 1e-10);
    EXPECT_EQ(meanWeight, 1.0);
}

TEST(ZhouFitLineRobust, GrossOutlierGetsNoWeightAndTheInliersDecide)
{
    // Inliers scattered by a seeded +-0.05 around y = -0.5 x + 3, one point 40 units off. The
    // robust line must be the least-squares line of the inliers alone, to the precision of the
    // remaining Tukey down-weighting, while plain least squares is pulled far off.
    ZhouProbe z;
    std::mt19937 engine(47110815);
    std::uniform_real_distribution<double> jitter(-0.05, 0.05);
    LbArray<LbVector2d> p;
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (int i = 0; i < 20; ++i) {
        const double x = i;
        const double y = -0.5 * x + 3.0 + jitter(engine);
        p.push_back(LbVector2d(x, y));
        sx += x, sy += y, sxx += x * x, sxy += x * y;
    }
    const double n = 20;
    const double lsSlope = (n * sxy - sx * sy) / (n * sxx - sx * sx);
    p.push_back(LbVector2d(7.5, 40.0));
    double slope = 0, intercept = 0, sigma = 0, meanWeight = 0;
    ASSERT_TRUE(z.fitLineRobust(p, nullptr, slope, intercept, &sigma, &meanWeight));
    EXPECT_NEAR(slope, lsSlope, 2e-3);
    EXPECT_NEAR(intercept, 3.0, 0.05);
    EXPECT_LT(sigma, 0.05);
    EXPECT_GT(meanWeight, 0.5);
    EXPECT_LT(meanWeight, 20.0 / 21.0) << "the outlier contributes nothing";
}

TEST(ZhouFitLineRobust, ZeroWeightRemovesAPointExactly)
{
    // The same fit with a zero weight on an outlier and without that point at all.
    ZhouProbe z;
    LbArray<LbVector2d> with, without;
    LbArray<double> w;
    std::mt19937 engine(47110815);
    std::normal_distribution<double> noise(0.0, 0.1);
    for (int i = 0; i < 12; ++i) {
        const LbVector2d q(i * 0.7, 1.5 * i * 0.7 - 2.0 + noise(engine));
        with.push_back(q);
        without.push_back(q);
        w.push_back(1.0);
    }
    with.push_back(LbVector2d(3.0, 100.0));
    w.push_back(0.0);
    double s1 = 0, i1 = 0, sg1 = 0, s2 = 0, i2 = 0, sg2 = 0;
    ASSERT_TRUE(z.fitLineRobust(with, &w, s1, i1, &sg1, nullptr));
    ASSERT_TRUE(z.fitLineRobust(without, nullptr, s2, i2, &sg2, nullptr));
    EXPECT_NEAR(s1, s2, 1e-12);
    EXPECT_NEAR(i1, i2, 1e-12);
    EXPECT_NEAR(sg1, sg2, 1e-12);
}

TEST(ZhouFitLineRobust, PointLeftOutInOneRoundIsWeighedAgainInTheNext)
{
    // Nine points on y = 0 with alternating +-1 residual and one point at +4.5. The start line
    // is pulled up, so the far point lies beyond the Tukey cut in round 0; once the line
    // settles, its squared residual is below the cut again and it returns with a small weight,
    // which makes the mean weight differ from the nine inliers' share of it.
    ZhouProbe z;
    LbArray<LbVector2d> p;
    for (int i = 0; i < 9; ++i)
        p.push_back(LbVector2d(i, (i % 2 == 0) ? 1.0 : -1.0));
    p.push_back(LbVector2d(4.0, 4.5));
    double slope = 0, intercept = 0, sigma = 0, meanWeight = 0;
    ASSERT_TRUE(z.fitLineRobust(p, nullptr, slope, intercept, &sigma, &meanWeight));
    // Independent check: recompute the final weights from the returned line and sigma^2 =
    // Swrr / Sw of the last round; all ten residuals stay below the cut of the final round.
    double r9 = 4.5 - (slope * 4.0 + intercept);
    EXPECT_LT(r9 * r9, sigma * sigma * 4.6851 * 4.6851 * 1.5);
    EXPECT_GT(meanWeight, 0.0);
    EXPECT_LT(meanWeight, 1.0);
}

// --- cycle detection ---------------------------------------------------------------------------------

TEST(ZhouCycleDetection, PositionFixedPointAndTwoCycle)
{
    ZhouProbe z;
    CArray<sPos> history;
    sPos result{-1, -1, -1, -1};
    const sPos a{10.0, 20.0, 0.3, 0.4};
    const sPos b{10.5, 20.5, 0.1, 0.2};
    EXPECT_FALSE(z.checkPositionHistory(a, history, result, 1e-3));
    EXPECT_FALSE(z.checkPositionHistory(b, history, result, 1e-3));
    ASSERT_EQ(history.GetSize(), 2);
    EXPECT_EQ(result.x, -1.0) << "no repeat leaves the result alone";

    // a again (within tolerance): the cycle is b and the new a.
    const sPos a2{10.0 + 5e-4, 20.0, 0.5, 0.0};
    ASSERT_TRUE(z.checkPositionHistory(a2, history, result, 1e-3));
    EXPECT_DOUBLE_EQ(result.x, (10.5 + 10.0005) / 2);
    EXPECT_DOUBLE_EQ(result.y, 20.25);
    EXPECT_DOUBLE_EQ(result.sigmaColumns, std::sqrt((0.01 + 0.25) / 2));
    EXPECT_DOUBLE_EQ(result.sigmaRows, std::sqrt(0.04 / 2));
    EXPECT_EQ(history.GetSize(), 2) << "a found repeat is not appended";

    // b again: the newest match wins, a fixed point of length 1 gives the position itself.
    ASSERT_TRUE(z.checkPositionHistory(b, history, result, 1e-3));
    EXPECT_EQ(result.x, 10.5);
    EXPECT_EQ(result.sigmaColumns, 0.1);

    // The tolerance is strict: a distance equal to it is no repeat.
    CArray<sPos> h2;
    EXPECT_FALSE(z.checkPositionHistory(sPos{0, 0, 0, 0}, h2, result, 0.5));
    EXPECT_FALSE(z.checkPositionHistory(sPos{0.5, 0, 0, 0}, h2, result, 0.5));
    EXPECT_TRUE(z.checkPositionDeviation(sPos{0, 0, 0, 0}, sPos{0.3, 0.4, 9, 9}, 0.5000001));
    EXPECT_FALSE(z.checkPositionDeviation(sPos{0, 0, 0, 0}, sPos{0.3, 0.4, 9, 9}, 0.5));
}

TEST(ZhouCycleDetection, EdgeRepeatsByPixelAndAveragesTheCycle)
{
    ZhouProbe z;
    CArray<sEdge> history;
    sEdge result{0, 0, -1, -1};
    EXPECT_FALSE(z.checkEdgeHistory(sEdge{5, 9, 5.0, 9.8}, history, result));
    EXPECT_FALSE(z.checkEdgeHistory(sEdge{5, 10, 5.0, 10.1}, history, result));
    EXPECT_FALSE(z.checkEdgeHistory(sEdge{5, 11, 5.0, 11.0}, history, result));
    // Back on pixel 10: the cycle is the entry on 11 and the new edge.
    ASSERT_TRUE(z.checkEdgeHistory(sEdge{5, 10, 5.0, 10.9}, history, result));
    EXPECT_DOUBLE_EQ(result.y, (11.0 + 10.9) / 2);
    EXPECT_EQ(result.x, 5.0);
    EXPECT_TRUE(z.checkEdgeDeviation(sEdge{0, 0, 1.0, 1.0}, sEdge{9, 9, 1.0, 1.5}, 0.6));
    EXPECT_FALSE(z.checkEdgeDeviation(sEdge{0, 0, 1.0, 1.0}, sEdge{0, 0, 1.0, 1.5}, 0.5));
}

// --- edge search ---------------------------------------------------------------------------------------

TEST(ZhouEdgeSearch, FindsAStepInBothPolaritiesAndDirections)
{
    ZhouProbe z;
    const CCalibrationImage rising = stepImage(40, 40, 20, 30.0f, 180.0f);
    z.Bind(rising);
    sEdge e{18, 7, 18.0, 7.0};
    ASSERT_TRUE(z.calcEdgePoint(e, 6, true, true));
    EXPECT_NEAR(e.x, 19.5, 1e-9);
    EXPECT_EQ(e.pixelX, 19);
    EXPECT_EQ(e.y, 7.0);
    EXPECT_EQ(e.pixelY, 7);
    // The iteration settles on pixel 19 and keeps the exact position.
    sEdge it{23, 30, 23.0, 30.0};
    ASSERT_TRUE(z.calcEdgePointIter(it, 6, true, true));
    EXPECT_NEAR(it.x, 19.5, 1e-9);

    // A falling step (bright left) searched with rising = false; and the transposed image.
    const CCalibrationImage falling = stepImage(40, 40, 20, 180.0f, 30.0f);
    z.Bind(falling);
    sEdge f{21, 7, 21.0, 7.0};
    ASSERT_TRUE(z.calcEdgePointIter(f, 6, true, false));
    EXPECT_NEAR(f.x, 19.5, 1e-9);

    CCalibrationImage vertical;
    vertical.SetSize(CSize(30, 50));
    for (int y = 0; y < 50; ++y)
        for (int x = 0; x < 30; ++x)
            vertical.SetPixel(x, y, y < 31 ? 0.0f : 1.0f);
    z.Bind(vertical);
    sEdge v{4, 26, 4.0, 26.0};
    ASSERT_TRUE(z.calcEdgePointIter(v, 6, false, true));
    EXPECT_NEAR(v.y, 30.5, 1e-9);
    EXPECT_EQ(v.x, 4.0);
}

TEST(ZhouEdgeSearch, WindowMustStayInsideTheImageAndOffTheFirstRowAndColumn)
{
    ZhouProbe z;
    const CCalibrationImage img = stepImage(20, 20, 5, 0.0f, 1.0f);
    z.Bind(img);
    sEdge e{6, 3, 6.0, 3.0}; // window 0..12: a = 0 is not allowed
    EXPECT_FALSE(z.calcEdgePoint(e, 6, true, true));
    e = sEdge{7, 3, 7.0, 3.0}; // window 1..13
    EXPECT_TRUE(z.calcEdgePoint(e, 6, true, true));
    e = sEdge{13, 3, 13.0, 3.0}; // window 7..19 is inside, but flat
    EXPECT_FALSE(z.calcEdgePoint(e, 6, true, true));
    e = sEdge{14, 3, 14.0, 3.0}; // window 8..20 runs past the width
    EXPECT_FALSE(z.calcEdgePoint(e, 6, true, true));
    for (sEdge outside : {sEdge{-1, 3, 0, 0}, sEdge{20, 3, 0, 0}, sEdge{8, -1, 0, 0}, sEdge{8, 20, 0, 0}})
        EXPECT_FALSE(z.calcEdgePoint(outside, 2, true, true));
    e = sEdge{7, 3, 7.0, 3.0};
    EXPECT_FALSE(z.calcEdgePoint(e, 0, true, true)) << "a window of one sample";
}

TEST(ZhouEdgeSearch, InvalidOrNonFinitePixelFailsTheWindow)
{
    ZhouProbe z;
    CCalibrationImage img = stepImage(30, 10, 15, 0.0f, 1.0f);
    img.SetPixel(12, 4, img.GetInvalidValue());
    img.SetPixel(12, 5, std::numeric_limits<float>::infinity());
    img.SetPixel(12, 6, std::numeric_limits<float>::quiet_NaN());
    z.Bind(img);
    for (int y : {4, 5, 6}) {
        sEdge e{14, y, 14.0, double(y)};
        EXPECT_FALSE(z.calcEdgePoint(e, 6, true, true)) << "row " << y;
    }
    sEdge ok{14, 3, 14.0, 3.0};
    EXPECT_TRUE(z.calcEdgePoint(ok, 6, true, true));
}

// --- the whole refinement ------------------------------------------------------------------------------

struct RefineCase
{
    bool dark;
    bool ring;
};

class ZhouRefineClean : public ::testing::TestWithParam<RefineCase>
{
};

TEST_P(ZhouRefineClean, SubPixelCentreOfACleanMarkComesBack)
{
    const RefineCase c = GetParam();
    const double cx = 40.37, cy = 38.81;
    const CCalibrationImage img = renderOne(80, 80, cx, cy, 20.0, c.dark, c.ring);
    CCalibrationFeatureRefinementZhou z;
    ASSERT_TRUE(z.RefineFeatures(img, oneFeature(41.2, 38.1, 20.0), c.ring, c.dark, 12345));
    ASSERT_EQ(z.GetFeatures().GetSize(), 1);
    const CCalibrationPointFeatureDetect& f = z.GetFeatures()[0];
    // Unblurred edges lock a little to the pixel grid in the moment locator; the symmetric
    // chord pairs cancel most of it in the centre, less of it in the midpoint scatter.
    EXPECT_NEAR(f.posX, cx, 0.02);
    EXPECT_NEAR(f.posY, cy, 0.02);
    EXPECT_LT(f.sigmaTotal, 0.15);
    EXPECT_DOUBLE_EQ(f.sigmaTotal, std::hypot(f.sigmaColumns, f.sigmaRows));
    if (c.ring) {
        EXPECT_LT(f.centerOffset, 0.02);
        EXPECT_DOUBLE_EQ(f.centerOffset, std::hypot(f.centerOffsetX, f.centerOffsetY));
    } else {
        EXPECT_EQ(f.centerOffsetX, 0.0);
        EXPECT_EQ(f.centerOffsetY, 0.0);
        EXPECT_EQ(f.centerOffset, 0.0);
    }
    EXPECT_EQ(f.radius, 20.0);
    EXPECT_EQ(f.gridX, 3);
    EXPECT_EQ(f.gridY, -2);
    EXPECT_EQ(f.rating, 0.75);
}

INSTANTIATE_TEST_SUITE_P(Marks, ZhouRefineClean,
                         ::testing::Values(RefineCase{true, false}, RefineCase{false, false},
                                           RefineCase{true, true}, RefineCase{false, true}),
                         [](const ::testing::TestParamInfo<RefineCase>& i) {
                             return std::string(i.param.dark ? "Dark" : "Bright") +
                                    (i.param.ring ? "Ring" : "Disc");
                         });

TEST(ZhouRefine, WrongPolarityDropsTheMark)
{
    const CCalibrationImage img = renderOne(80, 80, 40.3, 39.6, 20.0, true, false);
    CCalibrationFeatureRefinementZhou z;
    EXPECT_FALSE(z.RefineFeatures(img, oneFeature(40.0, 40.0, 20.0), false, false, -1));
    EXPECT_EQ(z.GetFeatures().GetSize(), 0);
}

TEST(ZhouRefine, RingWithAnOffsetHoleWeighsTheInnerCircleTwice)
{
    // Outer circle at (40, 40) with radius 20, the hole of radius 10 moved by (0.6, 0). Rendered
    // directly: dark ring = outer disc minus the shifted hole.
    SRenderSettings s;
    s.width = s.height = 80;
    CCalibrationImage outerOnly =
        vorn2test::RenderMarks(s, vorn2test::IdentityHomography(), {SMark{40, 40, 20, false}});
    s.ground = 0.0, s.mark = 150.0;
    CCalibrationImage hole =
        vorn2test::RenderMarks(s, vorn2test::IdentityHomography(), {SMark{40.6, 40, 10, false}});
    CCalibrationImage img = outerOnly;
    for (int y = 0; y < 80; ++y)
        for (int x = 0; x < 80; ++x)
            img.SetPixel(x, y, outerOnly.GetPixel(x, y) + hole.GetPixel(x, y));

    CCalibrationFeatureRefinementZhou z;
    ASSERT_TRUE(z.RefineFeatures(img, oneFeature(40.2, 40.0, 20.0), true, true, -1));
    const CCalibrationPointFeatureDetect f = z.GetFeatures()[0];
    EXPECT_NEAR(f.centerOffsetX, 0.6, 0.02);
    EXPECT_NEAR(f.centerOffsetY, 0.0, 0.02);
    EXPECT_NEAR(f.posX, (2 * 40.6 + 40.0) / 3, 0.02);
    EXPECT_NEAR(f.posY, 40.0, 0.02);
    const double offset = f.centerOffset;

    // The centre offset limit is inclusive: exactly the measured offset stays, one ulp less drops.
    z.SetLimits(offset, 1e300);
    EXPECT_TRUE(z.RefineFeatures(img, oneFeature(40.2, 40.0, 20.0), true, true, -1));
    z.SetLimits(std::nextafter(offset, 0.0), 1e300);
    EXPECT_FALSE(z.RefineFeatures(img, oneFeature(40.2, 40.0, 20.0), true, true, -1));
    z.SetLimits(0.5, 1e300);
    EXPECT_FALSE(z.RefineFeatures(img, oneFeature(40.2, 40.0, 20.0), true, true, -1));
    // The sigma limit likewise.
    z.SetLimits(1e300, f.sigmaTotal);
    EXPECT_TRUE(z.RefineFeatures(img, oneFeature(40.2, 40.0, 20.0), true, true, -1));
    z.SetLimits(1e300, std::nextafter(f.sigmaTotal, 0.0));
    EXPECT_FALSE(z.RefineFeatures(img, oneFeature(40.2, 40.0, 20.0), true, true, -1));
}

TEST(ZhouRefine, CenterPixelCalculatorDecidesTheChordCentre)
{
    // A calculator that moves every chord centre by (+1, -0.5) moves the result by the same.
    struct Shifted : DataLayer::ICenterPixelCalculator
    {
        LbVector2d CalcCenter(const LbVector2d& a, const LbVector2d& b) const override
        {
            return LbVector2d((a.x + b.x) / 2 + 1.0, (a.y + b.y) / 2 - 0.5);
        }
    } shifted;
    const CCalibrationImage img = renderOne(80, 80, 40.25, 39.5, 20.0, true, false);
    CCalibrationFeatureRefinementZhou z;
    z.SetCenterPixelCalculator(&shifted);
    ASSERT_TRUE(z.RefineFeatures(img, oneFeature(40.0, 40.0, 20.0), false, true, -1));
    EXPECT_NEAR(z.GetFeatures()[0].posX, 41.25, 0.02);
    EXPECT_NEAR(z.GetFeatures()[0].posY, 39.0, 0.02);
    // A copy keeps the borrowed calculator; null restores the mean.
    CCalibrationFeatureRefinementZhou copy(z);
    ASSERT_TRUE(copy.RefineFeatures(img, oneFeature(40.0, 40.0, 20.0), false, true, -1));
    EXPECT_NEAR(copy.GetFeatures()[0].posX, 41.25, 0.02);
    z.SetCenterPixelCalculator(nullptr);
    ASSERT_TRUE(z.RefineFeatures(img, oneFeature(40.0, 40.0, 20.0), false, true, -1));
    EXPECT_NEAR(z.GetFeatures()[0].posX, 40.25, 0.01);
}

TEST(ZhouRefine, HalfLineLowerBoundSetsTheWindowOfSmallMarks)
{
    // Radius 6: radius / 3 rounds to 2, so the default bound 6 gives 13-sample windows. With the
    // top edge near row 7 a 13-sample window would start at row 1 at best; put the mark so the
    // top windows need row 0 and the mark is lost, while a bound of 2 (5 samples) keeps it.
    const CCalibrationImage img = renderOne(40, 40, 20.3, 11.4, 6.0, true, false);
    CCalibrationFeatureRefinementZhou z;
    EXPECT_FALSE(z.RefineFeatures(img, oneFeature(20.0, 11.0, 6.0), false, true, -1));
    z.SetHalfLineLengthMin(2);
    ASSERT_TRUE(z.RefineFeatures(img, oneFeature(20.0, 11.0, 6.0), false, true, -1));
    EXPECT_NEAR(z.GetFeatures()[0].posX, 20.3, 0.05);
    EXPECT_NEAR(z.GetFeatures()[0].posY, 11.4, 0.05);
    // The same mark away from the border refines with the default bound.
    const CCalibrationImage away = renderOne(40, 40, 20.3, 20.4, 6.0, true, false);
    CCalibrationFeatureRefinementZhou d;
    ASSERT_TRUE(d.RefineFeatures(away, oneFeature(20.0, 20.0, 6.0), false, true, -1));
}

TEST(ZhouRefine, KeepsTheOrderOfSurvivorsAndDropsOnlyTheFailures)
{
    SRenderSettings s;
    s.width = 200;
    s.height = 80;
    const CCalibrationImage img = vorn2test::RenderMarks(
        s, vorn2test::IdentityHomography(),
        {SMark{40.2, 40.1, 15, false}, SMark{100.6, 39.7, 15, false}, SMark{160.4, 40.3, 15, false}});
    CArray<CCalibrationPointFeatureDetect> in;
    const double xs[] = {40, 70, 100, 160, 199};
    for (int i = 0; i < 5; ++i) {
        CCalibrationPointFeatureDetect f;
        f.posX = xs[i];
        f.posY = 40;
        f.radius = 15;
        f.rating = i;
        in.Add(f);
    }
    CCalibrationFeatureRefinementZhou z;
    ASSERT_TRUE(z.RefineFeatures(img, in, false, true, -1));
    ASSERT_EQ(z.GetFeatures().GetSize(), 3);
    EXPECT_EQ(z.GetFeatures()[0].rating, 0.0);
    EXPECT_EQ(z.GetFeatures()[1].rating, 2.0);
    EXPECT_EQ(z.GetFeatures()[2].rating, 3.0);
    EXPECT_NEAR(z.GetFeatures()[1].posX, 100.6, 0.02);
    // The input array is the caller's and stays as it was.
    EXPECT_EQ(in.GetSize(), 5);
    EXPECT_EQ(in[1].posX, 70.0);
}

TEST(ZhouRefine, BadInputDropsMarksAndNeverCrashes)
{
    CCalibrationFeatureRefinementZhou z;
    CCalibrationImage empty;
    EXPECT_FALSE(z.RefineFeatures(empty, oneFeature(0, 0, 10), false, true, -1));
    CCalibrationImage one;
    one.SetSize(CSize(1, 1));
    EXPECT_FALSE(z.RefineFeatures(one, oneFeature(0, 0, 10), false, true, -1));

    const CCalibrationImage good = renderOne(80, 80, 40.3, 39.6, 20.0, true, false);
    EXPECT_FALSE(z.RefineFeatures(good, CArray<CCalibrationPointFeatureDetect>(), false, true, -1));

    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double radii[] = {0.0, -5.0, nan, inf, 1e300, 1e9, 0.2};
    for (double r : radii)
        EXPECT_FALSE(z.RefineFeatures(good, oneFeature(40, 40, r), false, true, -1)) << "radius " << r;
    const double positions[][2] = {{nan, 40}, {40, inf}, {-1e300, 40}, {1e12, 1e12},
                                   {0, 0},    {79, 40},  {-30, -30}};
    for (auto& p : positions)
        EXPECT_FALSE(z.RefineFeatures(good, oneFeature(p[0], p[1], 20), false, true, -1))
            << "position " << p[0] << ", " << p[1];

    // All NaN, all invalid, uniform.
    CCalibrationImage nanImage, invalid, flat;
    for (CCalibrationImage* img : {&nanImage, &invalid, &flat})
        img->SetSize(CSize(80, 80));
    for (int y = 0; y < 80; ++y)
        for (int x = 0; x < 80; ++x) {
            nanImage.SetPixel(x, y, std::numeric_limits<float>::quiet_NaN());
            invalid.SetPixel(x, y, invalid.GetInvalidValue());
            flat.SetPixel(x, y, 7.0f);
        }
    for (const CCalibrationImage* img : {&nanImage, &invalid, &flat})
        EXPECT_FALSE(z.RefineFeatures(*img, oneFeature(40, 40, 20), false, true, -1));

    // A mark cut by the image border (centre on the first column) is dropped.
    const CCalibrationImage cut = renderOne(80, 80, 2.0, 40.0, 20.0, true, false);
    EXPECT_FALSE(z.RefineFeatures(cut, oneFeature(2.0, 40.0, 20.0), false, true, -1));

    // Half the mark's pixels invalid: the remaining chords are too few or the mark is still found
    // nearby, but never with a position pulled by the marker value.
    CCalibrationImage holes = good;
    for (int y = 0; y < 80; ++y)
        for (int x = 0; x < 40; ++x)
            holes.SetPixel(x, y, holes.GetInvalidValue());
    if (z.RefineFeatures(holes, oneFeature(40, 40, 20), false, true, -1)) {
        EXPECT_NEAR(z.GetFeatures()[0].posX, 40.3, 1.0);
    }
}

TEST(ZhouRefine, RefiningItsOwnResultAgainIsStable)
{
    const CCalibrationImage img = renderOne(80, 80, 40.3, 39.6, 20.0, true, false, 1.0, 0.0);
    CCalibrationFeatureRefinementZhou z;
    ASSERT_TRUE(z.RefineFeatures(img, oneFeature(40.0, 40.0, 20.0), false, true, -1));
    const CCalibrationPointFeatureDetect first = z.GetFeatures()[0];
    ASSERT_TRUE(z.RefineFeatures(img, z.GetFeatures(), false, true, -1));
    EXPECT_NEAR(z.GetFeatures()[0].posX, first.posX, 1e-3);
    EXPECT_NEAR(z.GetFeatures()[0].posY, first.posY, 1e-3);
}

// --- accuracy on rendered targets ---------------------------------------------------------------------

namespace {

struct AccuracySetting
{
    double blur;
    double noise;
    double diameter;
    double tilt;
    bool dark;
    bool ring;
};

struct AccuracyResult
{
    double rms = 0.0;
    double max = 0.0;
    int found = 0;
    int total = 0;
};

/// A 5 x 5 target of marks with spacing 2.5 diameters on a tilted plane, each mark at a seeded
/// sub-pixel offset, refined from starts perturbed by up to 1 px; errors against the projected
/// centres.
AccuracyResult measureAccuracy(const AccuracySetting& a, std::uint32_t seed)
{
    std::mt19937 engine(seed);
    std::uniform_real_distribution<double> unit(-0.5, 0.5);
    const double focal = 1200.0;
    const double distance = 600.0; // one plane unit is about 2 px
    const double scale = focal / distance;
    const double spacing = 2.5 * a.diameter / scale;
    const double radius = a.diameter / 2.0 / scale;
    const int n = 5;
    SRenderSettings s;
    s.width = s.height = static_cast<int>(std::ceil((n + 1) * spacing * scale * 1.3));
    s.ground = a.dark ? 200.0 : 50.0;
    s.mark = a.dark ? 50.0 : 200.0;
    s.blurSigma = a.blur;
    s.noiseSigma = a.noise;
    s.seed = seed;
    const vorn2test::Homography h = vorn2test::TiltedPlane(
        a.tilt, 17.0, focal, distance, s.width / 2.0 + unit(engine), s.height / 2.0 + unit(engine));
    std::vector<SMark> marks;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i)
            marks.push_back(SMark{(i - (n - 1) / 2.0) * spacing + unit(engine) * 0.3,
                                  (j - (n - 1) / 2.0) * spacing + unit(engine) * 0.3, radius, a.ring});
    const CCalibrationImage img = vorn2test::RenderMarks(s, h, marks);

    CArray<CCalibrationPointFeatureDetect> in;
    std::vector<std::array<double, 2>> truth;
    for (const SMark& m : marks) {
        const auto c = vorn2test::Project(h, m.u, m.v);
        CCalibrationPointFeatureDetect f;
        f.posX = c[0] + 2.0 * unit(engine);
        f.posY = c[1] + 2.0 * unit(engine);
        f.radius = a.diameter / 2.0;
        f.rating = static_cast<double>(truth.size());
        truth.push_back(c);
        in.Add(f);
    }
    CCalibrationFeatureRefinementZhou z;
    AccuracyResult r;
    r.total = static_cast<int>(truth.size());
    if (!z.RefineFeatures(img, in, a.ring, a.dark, -1))
        return r;
    double sum2 = 0.0;
    for (std::ptrdiff_t k = 0; k < z.GetFeatures().GetSize(); ++k) {
        const CCalibrationPointFeatureDetect& f = z.GetFeatures()[k];
        const auto& t = truth[static_cast<std::size_t>(f.rating)];
        const double e = std::hypot(f.posX - t[0], f.posY - t[1]);
        sum2 += e * e;
        r.max = std::max(r.max, e);
    }
    r.found = static_cast<int>(z.GetFeatures().GetSize());
    r.rms = std::sqrt(sum2 / r.found);
    return r;
}

} // namespace

TEST(ZhouAccuracy, DISABLED_Sweep)
{
    std::printf("blur noise diam tilt polarity kind | found rms max\n");
    for (double blur : {0.5, 1.0, 2.0})
        for (double noise : {0.0, 2.0, 5.0})
            for (double diam : {12.0, 20.0, 40.0})
                for (double tilt : {0.0, 30.0, 50.0})
                    for (bool dark : {true, false})
                        for (bool ring : {false, true}) {
                            const AccuracyResult r =
                                measureAccuracy({blur, noise, diam, tilt, dark, ring}, 4711);
                            std::printf("%.1f %.0f %.0f %.0f %s %s | %d/%d %.4f %.4f\n", blur, noise, diam,
                                        tilt, dark ? "dark" : "bright", ring ? "ring" : "disc", r.found,
                                        r.total, r.rms, r.max);
                        }
}

TEST(ZhouAccuracy, DISABLED_Main)
{
    for (double tilt : {0.0, 30.0, 50.0})
        for (bool dark : {true, false})
            for (bool ring : {false, true}) {
                const AccuracyResult r = measureAccuracy({1.0, 2.0, 20.0, tilt, dark, ring}, 4711);
                std::printf("tilt %.0f %s %s | %d/%d rms %.4f max %.4f\n", tilt, dark ? "dark" : "bright",
                            ring ? "ring" : "disc", r.found, r.total, r.rms, r.max);
            }
}

TEST(ZhouAccuracy, DISABLED_RingDebug)
{
    for (double blur : {0.0, 1.0})
        for (double off : {0.0, 0.5, 1.0}) {
            const CCalibrationImage img = renderOne(80, 80, 40.3, 39.6, 10.0, true, true, blur, 0.0);
            ZhouProbe z;
            z.Bind(img);
            for (double r : {10.0, 5.0}) {
                sPos start{40.3 + off, 39.6, 0, 0}, res;
                const bool ok = z.refineSinglePosition(start, res, r, 6, r == 10.0);
                std::printf("blur %.0f off %.1f r %.0f ok %d  %.4f %.4f\n", blur, off, r, ok, res.x, res.y);
                sPos p = start;
                for (int i = 0; i < 4; ++i) {
                    const bool okz = z.calcZhou(p, r, 6, 0.7853981633974483, r == 10.0);
                    std::printf("   step %d ok %d %.4f %.4f\n", i, okz, p.x, p.y);
                }
            }
        }
}
