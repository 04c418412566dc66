#include <algorithm>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <vector>

#include "datalayer/algorithms/calibration/ccalibrationfeaturedetecthough.h"
#include "synthetic_marks.h"

using DataLayer::CCalibrationFeatureDetectHough;
using DataLayer::CCalibrationImage;
using DataLayer::CCalibrationPointFeatureDetect;

namespace {

/// Opens the stages and the working arrays of the detector to the tests.
class HoughProbe : public CCalibrationFeatureDetectHough
{
public:
    using CCalibrationFeatureDetectHough::calcPlanarHough;
    using CCalibrationFeatureDetectHough::findFeaturesInHoughSpace;
    using CCalibrationFeatureDetectHough::refine2DPositionAndSetRadius;
    using CCalibrationFeatureDetectHough::upsizeSingleCalibrationFeatures;

    /// Hand-made Hough space of the given extents, every cell 0.
    void Prepare(int width, int height, double centreRadius, int halfRange)
    {
        m_houghWidth = m_downSizedWidth = width;
        m_houghHeight = m_downSizedHeight = height;
        m_centreRadius = centreRadius;
        m_radiusHalfRange = halfRange;
        m_houghDepth = 2 * halfRange + 1;
        ASSERT_TRUE(allocHoughSpace());
        ASSERT_TRUE(initHoughSpace(0.0));
    }
    double& Plane(int x, int y) { return m_plane[planeIndex(x, y)]; }
    double& Acc(int x, int y, int layer) { return m_accumulator[accIndex(x, y, layer)]; }
    int Width() const { return m_houghWidth; }
    int Height() const { return m_houghHeight; }
    int Depth() const { return m_houghDepth; }
    int HalfRange() const { return m_radiusHalfRange; }
    double CentreRadius() const { return m_centreRadius; }
    const CCalibrationImage& Working() const { return m_image; }
    CArray<CCalibrationPointFeatureDetect>& Features() { return m_features; }
    void SetScale(int factor, int sourceWidth, int sourceHeight)
    {
        m_downSizeFactor = factor;
        m_sourceWidth = sourceWidth;
        m_sourceHeight = sourceHeight;
    }
};

struct SPeak
{
    int i;
    int j;
    double rating;
};

/// The peak search exactly as written: one full scan of the plane per feature.
std::vector<SPeak> referencePeaks(const std::vector<double>& plane, int w, int h, double minDistance,
                                  double maxDistance, double limitLast, double limitFirst,
                                  double limitNeighbour)
{
    auto at = [&](int i, int j) { return plane[static_cast<std::size_t>(i * h + j)]; };
    std::vector<SPeak> found;
    double thresholdLast = 0.0;
    double thresholdFirst = 0.0;
    for (;;) {
        double best = std::max(thresholdLast, thresholdFirst);
        int ci = -1;
        int cj = -1;
        for (int j = 1; j < h - 1; ++j)
            for (int i = 1; i < w - 1; ++i) {
                const double value = at(i, j);
                if (!(value > best))
                    continue;
                bool reject = false;
                for (const SPeak& f : found) {
                    const double d2 =
                        (f.i - i) * static_cast<double>(f.i - i) + (f.j - j) * static_cast<double>(f.j - j);
                    if (minDistance * minDistance > d2)
                        reject = true;
                    if (maxDistance * maxDistance > d2 && limitNeighbour * f.rating > value)
                        reject = true;
                }
                for (int dj = -1; dj <= 1; ++dj)
                    for (int di = -1; di <= 1; ++di)
                        if ((di || dj) && at(i + di, j + dj) > value)
                            reject = true;
                if (reject)
                    continue;
                ci = i;
                cj = j;
                best = value;
            }
        if (ci < 0)
            break;
        found.push_back({ci, cj, best});
        thresholdLast = best * limitLast;
        if (found.size() == 1)
            thresholdFirst = best * limitFirst;
    }
    return found;
}

/// Votes and plane exactly as written, every pixel voting (zero votes included), in [x][y][layer].
void referenceHoughSpace(const CCalibrationImage& image, double centreRadius, int halfRange, bool rings,
                         bool dark, const double* voteFilter, int vk, const double* planeFilter, int pk,
                         std::vector<double>& acc, std::vector<double>& plane)
{
    const int w = image.GetSize().cx;
    const int h = image.GetSize().cy;
    const int d = 2 * halfRange + 1;
    acc.assign(static_cast<std::size_t>(w * h * d), 1.0);
    auto I = [&](int x, int y) { return image.GetPixel(x, y); };
    auto cell = [&](int x, int y, int l) -> double& {
        return acc[static_cast<std::size_t>((x * h + y) * d + l)];
    };
    std::vector<float> mag(static_cast<std::size_t>(w * h), 0.0f);
    std::vector<float> dir(static_cast<std::size_t>(w * h), 0.0f);
    for (int y = 1; y < h - 1; ++y)
        for (int x = 1; x < w - 1; ++x) {
            const float gx = 3 * I(x - 1, y - 1) + 10 * I(x - 1, y) + 3 * I(x - 1, y + 1) -
                             3 * I(x + 1, y - 1) - 10 * I(x + 1, y) - 3 * I(x + 1, y + 1);
            const float gy = 3 * I(x - 1, y - 1) + 10 * I(x, y - 1) + 3 * I(x + 1, y - 1) -
                             3 * I(x - 1, y + 1) - 10 * I(x, y + 1) - 3 * I(x + 1, y + 1);
            mag[static_cast<std::size_t>(y * w + x)] = sqrtf(gy * gy + gx * gx);
            dir[static_cast<std::size_t>(y * w + x)] = atan2f(gy, gx);
        }
    auto vote = [&](double x, double y, int l, float value) {
        const int i0 = static_cast<int>(x);
        const int j0 = static_cast<int>(y);
        const int i1 = i0 + 1;
        const int j1 = j0 + 1;
        const double fx = i1 - x;
        const double fy = j1 - y;
        for (int dy = -vk; dy <= vk; ++dy)
            for (int dx = -vk; dx <= vk; ++dx) {
                const double wgt =
                    static_cast<double>(value) * voteFilter[(dy + vk) * (2 * vk + 1) + (dx + vk)];
                if (i0 + dx < 0 || j0 + dy < 0 || i1 + dx >= w || j1 + dy >= h)
                    continue;
                cell(i0 + dx, j0 + dy, l) += fy * fx * wgt;
                cell(i1 + dx, j0 + dy, l) += (1 - fx) * fy * wgt;
                cell(i0 + dx, j1 + dy, l) += (1 - fy) * fx * wgt;
                cell(i1 + dx, j1 + dy, l) += (1 - fy) * (1 - fx) * wgt;
            }
    };
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float m = mag[static_cast<std::size_t>(y * w + x)];
            if (!(m > -1.0f))
                continue;
            float c = cosf(dir[static_cast<std::size_t>(y * w + x)]);
            float s = sinf(dir[static_cast<std::size_t>(y * w + x)]);
            if (!dark) {
                c = -c;
                s = -s;
            }
            for (int l = 0; l < d; ++l) {
                const double r = l - halfRange + centreRadius;
                vote(x + c * r, y + s * r, l, m);
                if (rings)
                    vote(x - c * r * 0.5, y - s * r * 0.5, l, m);
            }
        }
    std::vector<double> temp(static_cast<std::size_t>(w * h));
    double largest = 0.0;
    for (int x = 0; x < w; ++x)
        for (int y = 0; y < h; ++y) {
            double sum = 0.0;
            for (int l = 0; l < d; ++l)
                sum += cell(x, y, l);
            temp[static_cast<std::size_t>(x * h + y)] = sum;
            largest = std::max(largest, sum);
        }
    for (double& t : temp)
        t = t * 255.0 / largest;
    plane.assign(static_cast<std::size_t>(w * h), 0.0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            double sum = 0.0;
            for (int dy = -pk; dy <= pk; ++dy)
                for (int dx = -pk; dx <= pk; ++dx) {
                    if (x + dx < 0 || x + dx >= w || y + dy < 0 || y + dy >= h)
                        continue;
                    sum += temp[static_cast<std::size_t>((x + dx) * h + y + dy)] *
                           planeFilter[(dy + pk) * (2 * pk + 1) + (dx + pk)];
                }
            plane[static_cast<std::size_t>(x * h + y)] = sum;
        }
}

vorn2test::SyntheticScene latticeScene(bool rings, bool darkMarks)
{
    vorn2test::SyntheticScene scene;
    scene.width = 330;
    scene.height = 270;
    scene.ground = darkMarks ? 200.0f : 40.0f;
    scene.mark = darkMarks ? 40.0f : 200.0f;
    scene.rings = rings;
    scene.blurSigma = 1.0;
    scene.noiseSigma = 2.0;
    scene.marks = vorn2test::LatticeMarks(6, 5, 40.3, 35.7, 50.0, 10.0);
    return scene;
}

/// Index of the found feature nearest to (x, y), with its distance.
std::pair<int, double> nearest(const CArray<CCalibrationPointFeatureDetect>& found, double x, double y)
{
    int best = -1;
    double bestDistance = std::numeric_limits<double>::infinity();
    for (std::ptrdiff_t n = 0; n < found.GetSize(); ++n) {
        const double d = std::hypot(found[n].posX - x, found[n].posY - y);
        if (d < bestDistance) {
            bestDistance = d;
            best = static_cast<int>(n);
        }
    }
    return {best, bestDistance};
}

} // namespace

TEST(CCalibrationFeatureDetectHough, UniformImageGivesFullPlaneAndNoFeature)
{
    CCalibrationImage image;
    ASSERT_TRUE(image.SetSize(CSize(40, 30)));
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x)
            image.SetPixel(x, y, 17.0f);
    HoughProbe hough;
    EXPECT_FALSE(hough.FindFeatures(image, 8.0, 15.0, 1, false, true, 1, 0));
    EXPECT_TRUE(hough.GetFeatures().IsEmpty());
    for (int x = 0; x < 40; ++x)
        for (int y = 0; y < 30; ++y) {
            ASSERT_EQ(hough.Plane(x, y), 255.0);
            for (int l = 0; l < hough.Depth(); ++l)
                ASSERT_EQ(hough.Acc(x, y, l), 1.0);
        }
    // The peak search alone takes (1, 1) first and then scan-order cells at least 10 apart.
    ASSERT_TRUE(hough.findFeaturesInHoughSpace(10.0, 22.5, 0.5, 0.5, 0.5));
    const CArray<CCalibrationPointFeatureDetect>& peaks = hough.GetFeatures();
    ASSERT_GE(peaks.GetSize(), 2);
    EXPECT_EQ(peaks[0].posX, 1.0);
    EXPECT_EQ(peaks[0].posY, 1.0);
    EXPECT_EQ(peaks[1].posX, 11.0);
    EXPECT_EQ(peaks[1].posY, 1.0);
    EXPECT_EQ(peaks[0].gridX, -1);
    EXPECT_EQ(peaks[0].rating, 255.0);
    EXPECT_FALSE(hough.refine2DPositionAndSetRadius()); // layer 0 wins among equal layers
    EXPECT_TRUE(hough.GetFeatures().IsEmpty());
}

TEST(CCalibrationFeatureDetectHough, PeakSearchMatchesTheFullScanOnRandomPlanes)
{
    std::mt19937_64 engine(47110815);
    std::uniform_real_distribution<double> uniform(0.0, 255.0);
    std::uniform_int_distribution<int> level(0, 6);
    for (int trial = 0; trial < 60; ++trial) {
        const int w = 5 + trial % 23;
        const int h = 4 + (trial * 7) % 19;
        HoughProbe hough;
        hough.Prepare(w, h, 3.0, 1);
        std::vector<double> plane(static_cast<std::size_t>(w * h));
        for (int x = 0; x < w; ++x)
            for (int y = 0; y < h; ++y) {
                // Coarse levels make plateaus and ties; the others are smooth.
                const double v = trial % 3 == 0 ? 40.0 * level(engine) : uniform(engine);
                hough.Plane(x, y) = v;
                plane[static_cast<std::size_t>(x * h + y)] = v;
            }
        const double minDistance = 0.5 + (trial % 5);
        const double maxDistance = minDistance * (1.0 + (trial % 4) * 0.7);
        const double limits[3] = {0.1 * (trial % 7), 0.15 * (trial % 5), 0.3 * (trial % 4)};
        const bool any =
            hough.findFeaturesInHoughSpace(minDistance, maxDistance, limits[0], limits[1], limits[2]);
        const std::vector<SPeak> expected =
            referencePeaks(plane, w, h, minDistance, maxDistance, limits[0], limits[1], limits[2]);
        ASSERT_EQ(any, !expected.empty());
        ASSERT_EQ(hough.GetFeatures().GetSize(), static_cast<std::ptrdiff_t>(expected.size()))
            << "trial " << trial;
        for (std::size_t n = 0; n < expected.size(); ++n) {
            const CCalibrationPointFeatureDetect& f = hough.GetFeatures()[static_cast<std::ptrdiff_t>(n)];
            EXPECT_EQ(f.posX, expected[n].i) << "trial " << trial << " peak " << n;
            EXPECT_EQ(f.posY, expected[n].j);
            EXPECT_EQ(f.rating, expected[n].rating);
        }
    }
}

TEST(CCalibrationFeatureDetectHough, PeakLimitsBorderAndDistanceRules)
{
    HoughProbe hough;
    hough.Prepare(60, 20, 3.0, 1);
    hough.Plane(0, 10) = 500.0;  // border column: never found
    hough.Plane(30, 19) = 400.0; // border row: never found
    hough.Plane(10, 10) = 100.0;
    hough.Plane(30, 10) = 60.0;
    hough.Plane(50, 10) = 40.0; // 40 % of the first, though 67 % of the previous
    hough.Plane(13, 5) = 90.0;  // closer than minDistance to the first
    ASSERT_TRUE(hough.findFeaturesInHoughSpace(8.0, 12.0, 0.5, 0.5, 0.0));
    ASSERT_EQ(hough.GetFeatures().GetSize(), 2);
    EXPECT_EQ(hough.GetFeatures()[0].posX, 10.0);
    EXPECT_EQ(hough.GetFeatures()[1].posX, 30.0);

    // Within maxDistance a peak needs limitNeighbourPeak of its neighbour's rating.
    HoughProbe near;
    near.Prepare(60, 20, 3.0, 1);
    near.Plane(10, 10) = 100.0;
    near.Plane(20, 10) = 70.0;
    ASSERT_TRUE(near.findFeaturesInHoughSpace(8.0, 12.0, 0.5, 0.5, 0.75));
    EXPECT_EQ(near.GetFeatures().GetSize(), 1);
    near.Features().RemoveAll();
    ASSERT_TRUE(near.findFeaturesInHoughSpace(8.0, 12.0, 0.5, 0.5, 0.7));
    EXPECT_EQ(near.GetFeatures().GetSize(), 2); // 0.7 * 100 is exactly 70: reaching it is enough
    // Beyond maxDistance the neighbour limit doesn't apply.
    HoughProbe far;
    far.Prepare(60, 20, 3.0, 1);
    far.Plane(10, 10) = 100.0;
    far.Plane(23, 10) = 70.0;
    ASSERT_TRUE(far.findFeaturesInHoughSpace(8.0, 12.0, 0.5, 0.5, 0.75));
    EXPECT_EQ(far.GetFeatures().GetSize(), 2);

    // A plateau keeps its first cell in scan order.
    HoughProbe flat;
    flat.Prepare(20, 20, 3.0, 1);
    for (int x = 5; x <= 7; ++x)
        for (int y = 8; y <= 9; ++y)
            flat.Plane(x, y) = 10.0;
    ASSERT_TRUE(flat.findFeaturesInHoughSpace(4.0, 6.0, 0.5, 0.5, 0.5));
    ASSERT_EQ(flat.GetFeatures().GetSize(), 1);
    EXPECT_EQ(flat.GetFeatures()[0].posX, 5.0);
    EXPECT_EQ(flat.GetFeatures()[0].posY, 8.0);

    HoughProbe empty;
    empty.Prepare(20, 20, 3.0, 1);
    EXPECT_FALSE(empty.findFeaturesInHoughSpace(4.0, 6.0, 0.5, 0.5, 0.5)); // nothing above 0
}

TEST(CCalibrationFeatureDetectHough, RefinementFitsParabolasAndDropsRadiiAtTheRangeEnds)
{
    HoughProbe hough;
    hough.Prepare(20, 20, 6.0, 2); // layers stand for radii 4, 5, 6, 7, 8
    auto addFeature = [&](int x, int y) {
        CCalibrationPointFeatureDetect f;
        f.posX = x;
        f.posY = y;
        hough.Features().Add(f);
    };
    // Feature A at (5, 5): plane values 1, 3, 2 along x and 2, 3, 1 along y; layers peak at 3.
    hough.Plane(4, 5) = 1.0;
    hough.Plane(5, 5) = 3.0;
    hough.Plane(6, 5) = 2.0;
    hough.Plane(5, 4) = 2.0;
    hough.Plane(5, 6) = 1.0;
    const double layers[5] = {1.0, 2.0, 4.0, 5.0, 4.5};
    for (int l = 0; l < 5; ++l)
        hough.Acc(5, 5, l) = layers[l];
    addFeature(5, 5);
    // Feature B at (12, 12): strongest at the last layer. Feature C at (15, 8): first layer.
    for (int l = 0; l < 5; ++l) {
        hough.Acc(12, 12, l) = l;
        hough.Acc(15, 8, l) = 10 - l;
    }
    hough.Plane(12, 12) = 5.0;
    hough.Plane(15, 8) = 5.0;
    addFeature(12, 12);
    addFeature(15, 8);
    // Feature D at the rim of the plane.
    addFeature(19, 10);
    ASSERT_TRUE(hough.refine2DPositionAndSetRadius());
    ASSERT_EQ(hough.GetFeatures().GetSize(), 1);
    const CCalibrationPointFeatureDetect& a = hough.GetFeatures()[0];
    // Vertex of the parabola through (4,1), (5,3), (6,2): 5 + 0.5 * (2 - 1) / (2*3 - 1 - 2) = 5 1/6.
    EXPECT_DOUBLE_EQ(a.posX, 5.0 + 1.0 / 6.0);
    EXPECT_DOUBLE_EQ(a.posY, 5.0 - 1.0 / 6.0);
    // Layers (2,4), (3,5), (4,4.5): vertex 3 + 0.5 * 0.5 / (10 - 4 - 4.5) = 3 1/6; radius 3 1/6 + 6 - 2.
    EXPECT_DOUBLE_EQ(a.radius, 7.0 + 1.0 / 6.0);

    // A flat neighbourhood has no vertex.
    HoughProbe flat;
    flat.Prepare(10, 10, 6.0, 2);
    for (int l = 0; l < 5; ++l)
        flat.Acc(5, 5, l) = l == 2 ? 2.0 : 1.0;
    CCalibrationPointFeatureDetect f;
    f.posX = 5;
    f.posY = 5;
    flat.Features().Add(f);
    EXPECT_FALSE(flat.refine2DPositionAndSetRadius());
}

TEST(CCalibrationFeatureDetectHough, UpsizingAddsHalfTheRestAndTheBlockCentre)
{
    HoughProbe hough;
    hough.Prepare(33, 20, 3.0, 1);
    hough.SetScale(3, 100, 61);
    CCalibrationPointFeatureDetect f;
    f.posX = 10.25;
    f.posY = 4.0;
    f.radius = 2.5;
    hough.Features().Add(f);
    hough.upsizeSingleCalibrationFeatures();
    EXPECT_EQ(hough.GetFeatures()[0].posX, 3 * 10.25 + 0.5 + 1.0);
    EXPECT_EQ(hough.GetFeatures()[0].posY, 3 * 4.0 + 0.5 + 1.0);
    EXPECT_EQ(hough.GetFeatures()[0].radius, 7.5);
}

TEST(CCalibrationFeatureDetectHough, VotesAndPlaneMatchTheLiteralComputation)
{
    // Skipping zero votes and the fast paths must not change a single bit.
    vorn2test::SyntheticScene scene = latticeScene(true, false);
    scene.width = 120;
    scene.height = 90;
    scene.marks = vorn2test::LatticeMarks(2, 2, 30.0, 25.0, 50.0, 10.0);
    CCalibrationImage image = vorn2test::RenderScene(scene);
    for (int x = 0; x < 30; ++x) // a flat band: zero gradients
        for (int y = 0; y < 90; ++y)
            image.SetPixel(x, y, 40.0f);
    const double gauss[9] = {1 / 16.0, 2 / 16.0, 1 / 16.0, 2 / 16.0, 4 / 16.0,
                             2 / 16.0, 1 / 16.0, 2 / 16.0, 1 / 16.0};
    const double unit = 1.0;
    struct SCase
    {
        const double* vote;
        int vk;
        const double* plane;
        int pk;
        bool rings;
        bool dark;
        int factor;
    };
    for (const SCase& c :
         {SCase{gauss, 1, gauss, 1, true, false, 2}, SCase{&unit, 0, &unit, 0, false, true, 1},
          SCase{&unit, 0, gauss, 1, false, false, 3}}) {
        HoughProbe hough;
        hough.SetFilters(c.vote, c.vk, c.plane, c.pk);
        hough.FindFeatures(image, 20.0, 50.0, c.factor, c.rings, c.dark, 2, 0);
        std::vector<double> acc;
        std::vector<double> plane;
        referenceHoughSpace(hough.Working(), hough.CentreRadius(), hough.HalfRange(), c.rings, c.dark, c.vote,
                            c.vk, c.plane, c.pk, acc, plane);
        const int w = hough.Width();
        const int h = hough.Height();
        ASSERT_EQ(w, 120 / c.factor);
        for (int x = 0; x < w; ++x)
            for (int y = 0; y < h; ++y) {
                ASSERT_EQ(hough.Plane(x, y), plane[static_cast<std::size_t>(x * h + y)]) << x << "," << y;
                for (int l = 0; l < hough.Depth(); ++l)
                    ASSERT_EQ(hough.Acc(x, y, l),
                              acc[static_cast<std::size_t>((x * h + y) * hough.Depth() + l)]);
            }
    }
}

class HoughOnSyntheticLattice : public ::testing::TestWithParam<std::tuple<bool, bool, int>>
{
};

TEST_P(HoughOnSyntheticLattice, FindsEveryMarkNearItsCentre)
{
    const auto [rings, dark, factor] = GetParam();
    const vorn2test::SyntheticScene scene = latticeScene(rings, dark);
    const CCalibrationImage image = vorn2test::RenderScene(scene);
    CCalibrationFeatureDetectHough hough;
    ASSERT_TRUE(hough.FindFeatures(image, 20.0, 50.0, factor, rings, dark, 2, 0));
    const CArray<CCalibrationPointFeatureDetect>& found = hough.GetFeatures();
    EXPECT_EQ(found.GetSize(), static_cast<std::ptrdiff_t>(scene.marks.size()));
    for (const vorn2test::SyntheticMark& m : scene.marks) {
        const auto [index, distance] = nearest(found, m.x, m.y);
        ASSERT_GE(index, 0);
        // The Hough centre lies within half a downsized pixel, the radius within one.
        EXPECT_LT(distance, 0.5 * factor + 0.25) << m.x << "," << m.y;
        EXPECT_NEAR(found[index].radius, 10.0, 1.0 * factor);
        EXPECT_EQ(found[index].gridX, -1);
        EXPECT_EQ(found[index].gridY, -1);
        EXPECT_EQ(found[index].sigmaTotal, 0.0);
    }
    for (std::ptrdiff_t n = 1; n < found.GetSize(); ++n)
        EXPECT_GE(found[n - 1].rating, found[n].rating);
}

INSTANTIATE_TEST_SUITE_P(DiscsAndRings, HoughOnSyntheticLattice,
                         ::testing::Combine(::testing::Bool(), ::testing::Bool(), ::testing::Values(1, 2)),
                         [](const ::testing::TestParamInfo<std::tuple<bool, bool, int>>& info) {
                             return std::string(std::get<0>(info.param) ? "Rings" : "Discs") +
                                    (std::get<1>(info.param) ? "Dark" : "Bright") + "Factor" +
                                    std::to_string(std::get<2>(info.param));
                         });

TEST(CCalibrationFeatureDetectHough, BadInputAnswersFalseWithoutFeatures)
{
    const CCalibrationImage lattice = vorn2test::RenderScene(latticeScene(false, true));
    CCalibrationFeatureDetectHough hough;
    ASSERT_TRUE(hough.FindFeatures(lattice, 20.0, 50.0, 2, false, true, 2, 0));
    ASSERT_FALSE(hough.GetFeatures().IsEmpty());

    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    struct SArgs
    {
        double diameter;
        double distance;
        int factor;
        int divisor;
    };
    for (const SArgs& a : {SArgs{20, 50, 0, 2}, SArgs{20, 50, -1, 2}, SArgs{20, 50, 2, 0}, SArgs{0, 50, 2, 2},
                           SArgs{-20, 50, 2, 2}, SArgs{nan, 50, 2, 2}, SArgs{inf, 50, 2, 2},
                           SArgs{20, 0, 2, 2}, SArgs{20, nan, 2, 2}, SArgs{20, 1e-300, 1, 2},
                           SArgs{20, 50, 400, 2}, SArgs{1e12, 50, 1, 1}, SArgs{1e9, 50, 1, 100}}) {
        EXPECT_FALSE(hough.FindFeatures(lattice, a.diameter, a.distance, a.factor, false, true, a.divisor, 0))
            << a.diameter << " " << a.distance << " " << a.factor << " " << a.divisor;
        EXPECT_TRUE(hough.GetFeatures().IsEmpty());
    }

    CCalibrationImage tiny;
    EXPECT_FALSE(hough.FindFeatures(tiny, 20.0, 50.0, 1, false, true, 2, 0));
    ASSERT_TRUE(tiny.SetSize(CSize(1, 1)));
    EXPECT_FALSE(hough.FindFeatures(tiny, 20.0, 50.0, 1, false, true, 2, 0));
    ASSERT_TRUE(tiny.SetSize(CSize(3, 3)));
    EXPECT_FALSE(hough.FindFeatures(tiny, 2.0, 5.0, 1, false, true, 1, 0));

    // All pixels invalid: the huge invalid value overflows the gradient to NaN, and nothing votes.
    CCalibrationImage invalid(lattice);
    for (int y = 0; y < 270; ++y)
        for (int x = 0; x < 330; ++x)
            invalid.SetPixel(x, y, invalid.GetInvalidValue());
    EXPECT_FALSE(hough.FindFeatures(invalid, 20.0, 50.0, 2, false, true, 2, 0));
    // NaN pixels everywhere likewise.
    CCalibrationImage nanImage(lattice);
    for (int y = 0; y < 270; ++y)
        for (int x = 0; x < 330; ++x)
            nanImage.SetPixel(x, y, std::numeric_limits<float>::quiet_NaN());
    EXPECT_FALSE(hough.FindFeatures(nanImage, 20.0, 50.0, 1, false, true, 2, 0));
    // A few NaN pixels inside a mark don't stop the others from being found.
    CCalibrationImage spotted(lattice);
    spotted.SetPixel(40, 36, std::numeric_limits<float>::quiet_NaN());
    EXPECT_TRUE(hough.FindFeatures(spotted, 20.0, 50.0, 1, false, true, 2, 0));
    EXPECT_GE(hough.GetFeatures().GetSize(), 29);
}

TEST(CCalibrationFeatureDetectHough, ARunGivesTheSameResultAfterAnyEarlierRun)
{
    // The arrays of a run are kept for the next run of the same size; nothing of the earlier
    // picture may show through.
    vorn2test::SyntheticScene first = latticeScene(false, true);
    vorn2test::SyntheticScene second = latticeScene(true, false);
    second.seed = 99;
    second.marks = vorn2test::LatticeMarks(5, 4, 60.0, 50.0, 55.0, 11.0);
    const CCalibrationImage a = vorn2test::RenderScene(first);
    const CCalibrationImage b = vorn2test::RenderScene(second);
    const double gauss[9] = {1 / 16.0, 2 / 16.0, 1 / 16.0, 2 / 16.0, 4 / 16.0,
                             2 / 16.0, 1 / 16.0, 2 / 16.0, 1 / 16.0};
    CCalibrationFeatureDetectHough fresh;
    fresh.SetFilters(nullptr, 0, gauss, 1);
    ASSERT_TRUE(fresh.FindFeatures(b, 22.0, 55.0, 2, true, false, 2, 0));
    CCalibrationFeatureDetectHough reused;
    reused.SetFilters(nullptr, 0, gauss, 1);
    ASSERT_TRUE(reused.FindFeatures(a, 20.0, 50.0, 2, false, true, 2, 0));
    EXPECT_FALSE(reused.FindFeatures(CCalibrationImage(), 20.0, 50.0, 2, false, true, 2, 0));
    ASSERT_TRUE(reused.FindFeatures(b, 22.0, 55.0, 2, true, false, 2, 0));
    ASSERT_EQ(reused.GetFeatures().GetSize(), fresh.GetFeatures().GetSize());
    EXPECT_EQ(fresh.GetFeatures().GetSize(), 20);
    for (std::ptrdiff_t n = 0; n < fresh.GetFeatures().GetSize(); ++n) {
        EXPECT_EQ(reused.GetFeatures()[n].posX, fresh.GetFeatures()[n].posX);
        EXPECT_EQ(reused.GetFeatures()[n].posY, fresh.GetFeatures()[n].posY);
        EXPECT_EQ(reused.GetFeatures()[n].radius, fresh.GetFeatures()[n].radius);
        EXPECT_EQ(reused.GetFeatures()[n].rating, fresh.GetFeatures()[n].rating);
    }
}

TEST(CCalibrationFeatureDetectHough, FiltersAreBorrowedAndResetByNull)
{
    // A kernel that spreads every vote one cell to the right shifts the peaks by one downsized
    // pixel; a null kernel restores the unit kernel.
    const CCalibrationImage image = vorn2test::RenderScene(latticeScene(false, true));
    CCalibrationFeatureDetectHough plain;
    ASSERT_TRUE(plain.FindFeatures(image, 20.0, 50.0, 1, false, true, 2, 0));
    const double shift[9] = {0, 0, 0, 0, 0, 1, 0, 0, 0};
    CCalibrationFeatureDetectHough shifted;
    shifted.SetFilters(shift, 1, nullptr, 0);
    ASSERT_TRUE(shifted.FindFeatures(image, 20.0, 50.0, 1, false, true, 2, 0));
    ASSERT_EQ(shifted.GetFeatures().GetSize(), plain.GetFeatures().GetSize());
    for (std::ptrdiff_t n = 0; n < plain.GetFeatures().GetSize(); ++n) {
        const auto [index, distance] =
            nearest(shifted.GetFeatures(), plain.GetFeatures()[n].posX + 1.0, plain.GetFeatures()[n].posY);
        EXPECT_LT(distance, 0.05);
    }
    shifted.SetFilters(nullptr, 1, nullptr, 3);
    ASSERT_TRUE(shifted.FindFeatures(image, 20.0, 50.0, 1, false, true, 2, 0));
    for (std::ptrdiff_t n = 0; n < plain.GetFeatures().GetSize(); ++n)
        EXPECT_EQ(shifted.GetFeatures()[n].posX, plain.GetFeatures()[n].posX);
}
