#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "datalayer/algorithms/calibration/ccalibrationfeaturefindgridpositions.h"

using DataLayer::CCalibrationFeatureFindGridPositions;
using DataLayer::CCalibrationImage;
using DataLayer::CCalibrationPointFeatureDetect;
using Roi = CCalibrationFeatureFindGridPositions::NCRhomboidRoi;

namespace DataLayer::detail {
/// The drawing aids are private debugging overlays; the tests reach them through this friend.
struct GridDrawingAccess
{
    static void Line(CCalibrationImage& image, int x0, int y0, int x1, int y1, float value, bool cross,
                     bool arrow)
    {
        CCalibrationFeatureFindGridPositions::drawLineBresenham(image, x0, y0, x1, y1, value, cross, arrow);
    }
    static void Roi(CCalibrationImage& image, const CCalibrationFeatureFindGridPositions::NCRhomboidRoi& roi,
                    bool outlineOnly)
    {
        CCalibrationFeatureFindGridPositions::drawRhomboidRoi(image, roi, outlineOnly);
    }
};
} // namespace DataLayer::detail

namespace {

class GridProbe : public CCalibrationFeatureFindGridPositions
{
public:
    int TableSizeX() const { return m_tableSizeX; }
    int TableSizeY() const { return m_tableSizeY; }
    int TableOffsetX() const { return m_tableOffsetX; }
    /// The sort stage alone on the given features; the sorted copy with its keys.
    CArray<CCalibrationPointFeatureDetect> Sorted(const CArray<CCalibrationPointFeatureDetect>& features)
    {
        m_features = features;
        EXPECT_TRUE(sortCalibrationFeatures());
        return m_features;
    }
};

/// A mark with its true lattice coordinates (tag) for checking the result.
struct STruth
{
    double x;
    double y;
    int col;
    int row;
};

/// cols x rows lattice: origin (x0, y0), spacing, rotation in radians, jitter (uniform, pixels);
/// positions left out where skip says so.
std::vector<STruth> lattice(int cols, int rows, double x0, double y0, double spacing, double angle,
                            double jitter, unsigned seed, const std::set<std::pair<int, int>>& skip = {})
{
    std::mt19937_64 engine(seed);
    std::uniform_real_distribution<double> noise(-jitter, jitter);
    std::vector<STruth> marks;
    const double c = std::cos(angle);
    const double s = std::sin(angle);
    for (int r = 0; r < rows; ++r)
        for (int q = 0; q < cols; ++q) {
            if (skip.count({q, r}))
                continue;
            const double u = q * spacing;
            const double v = r * spacing;
            marks.push_back({x0 + c * u - s * v + noise(engine), y0 + s * u + c * v + noise(engine), q, r});
        }
    return marks;
}

CArray<CCalibrationPointFeatureDetect> toFeatures(const std::vector<STruth>& marks)
{
    CArray<CCalibrationPointFeatureDetect> features;
    for (const STruth& m : marks) {
        CCalibrationPointFeatureDetect f;
        f.posX = m.x;
        f.posY = m.y;
        f.gridX = -1;
        f.gridY = -1;
        f.rating = 100.0;
        features.Add(f);
    }
    return features;
}

/// The truth mark at the feature's position (positions are unique), or null.
const STruth* truthOf(const std::vector<STruth>& marks, const CCalibrationPointFeatureDetect& f)
{
    for (const STruth& m : marks)
        if (m.x == f.posX && m.y == f.posY)
            return &m;
    return nullptr;
}

/// Checks that the located grid is the true lattice under one of the eight symmetries plus a
/// shift, and returns how many features were located.
void expectConsistentLattice(const std::vector<STruth>& marks,
                             const CArray<CCalibrationPointFeatureDetect>& found)
{
    ASSERT_GE(found.GetSize(), 4);
    const STruth* t0 = truthOf(marks, found[0]);
    ASSERT_NE(t0, nullptr);
    // Find the symmetry from the seed cell: found[1] is (0, 1), found[2] is (1, 0).
    const STruth* t1 = truthOf(marks, found[1]);
    const STruth* t2 = truthOf(marks, found[2]);
    ASSERT_NE(t1, nullptr);
    ASSERT_NE(t2, nullptr);
    // grid = A * (col, row) + shift, with A mapping the true steps of the seed to (0,1) and (1,0).
    const int d1c = t1->col - t0->col;
    const int d1r = t1->row - t0->row;
    const int d2c = t2->col - t0->col;
    const int d2r = t2->row - t0->row;
    ASSERT_EQ(std::abs(d1c) + std::abs(d1r), 1);
    ASSERT_EQ(std::abs(d2c) + std::abs(d2r), 1);
    std::set<std::pair<int, int>> seen;
    for (std::ptrdiff_t n = 0; n < found.GetSize(); ++n) {
        const STruth* t = truthOf(marks, found[n]);
        ASSERT_NE(t, nullptr);
        const int dc = t->col - t0->col;
        const int dr = t->row - t0->row;
        // Solve (dc, dr) = gx * (d2c, d2r) + gy * (d1c, d1r) for the unit steps above.
        const int gx = dc * d2c + dr * d2r;
        const int gy = dc * d1c + dr * d1r;
        EXPECT_EQ(found[n].gridX - found[0].gridX, gx) << "mark " << t->col << "," << t->row;
        EXPECT_EQ(found[n].gridY - found[0].gridY, gy) << "mark " << t->col << "," << t->row;
        EXPECT_TRUE(seen.insert({found[n].gridX, found[n].gridY}).second);
    }
}

} // namespace

TEST(CCalibrationFeatureFindGridPositions, NineFeaturesFailTenInALatticeSucceed)
{
    CCalibrationFeatureFindGridPositions finder;
    std::vector<STruth> nine = lattice(3, 3, 100, 100, 40, 0.0, 0.0, 1);
    EXPECT_FALSE(finder.FindGridPositions(toFeatures(nine), 40.0, 0, nullptr));
    EXPECT_TRUE(finder.GetFeatures().IsEmpty());

    std::vector<STruth> ten = lattice(5, 2, 100, 100, 40, 0.3, 0.0, 1);
    ASSERT_TRUE(finder.FindGridPositions(toFeatures(ten), 40.0, 0, nullptr));
    EXPECT_EQ(finder.GetFeatures().GetSize(), 10);
    expectConsistentLattice(ten, finder.GetFeatures());
}

TEST(CCalibrationFeatureFindGridPositions, RatingIsTheSquaredDistanceToTheEighthNeighbour)
{
    const std::vector<STruth> marks = lattice(7, 6, 50, 60, 30, 0.2, 3.0, 7);
    GridProbe finder;
    ASSERT_TRUE(finder.FindGridPositions(toFeatures(marks), 30.0, 0, nullptr));
    ASSERT_EQ(finder.GetFeatures().GetSize(), 42);
    for (std::ptrdiff_t n = 0; n < finder.GetFeatures().GetSize(); ++n) {
        const CCalibrationPointFeatureDetect& f = finder.GetFeatures()[n];
        std::vector<double> d2;
        for (const STruth& m : marks)
            d2.push_back((m.x - f.posX) * (m.x - f.posX) + (m.y - f.posY) * (m.y - f.posY));
        std::sort(d2.begin(), d2.end());
        EXPECT_EQ(f.rating, d2[8]);
    }
    // The seed starts from the first feature in ascending key order, an interior one.
    const double seedKey = finder.GetFeatures()[0].rating;
    for (std::ptrdiff_t n = 0; n < finder.GetFeatures().GetSize(); ++n)
        EXPECT_LE(seedKey, finder.GetFeatures()[n].rating);
    // The table reaches at least four times the lattice's extent in each direction.
    EXPECT_GE(finder.TableSizeX(), 4 * 7);
    EXPECT_GE(finder.TableSizeY(), 4 * 6);
    EXPECT_EQ(finder.TableSizeX(), 2 * finder.TableOffsetX());
}

TEST(CCalibrationFeatureFindGridPositions, JitteredRotatedLatticesAreFoundWholeAndConsistent)
{
    for (unsigned seed = 1; seed <= 12; ++seed) {
        const double angle = (seed * 0.37) - 1.5;
        const std::vector<STruth> marks =
            lattice(4 + seed % 9, 3 + seed % 7, 400, 300, 25 + seed, angle, 0.1 * (25 + seed), seed);
        CCalibrationFeatureFindGridPositions finder;
        ASSERT_TRUE(finder.FindGridPositions(toFeatures(marks), 25.0 + seed, 0, nullptr)) << "seed " << seed;
        EXPECT_EQ(finder.GetFeatures().GetSize(), static_cast<std::ptrdiff_t>(marks.size()))
            << "seed " << seed;
        expectConsistentLattice(marks, finder.GetFeatures());
    }
}

TEST(CCalibrationFeatureFindGridPositions, OutliersAndMarksBeyondAWideGapAreDropped)
{
    std::vector<STruth> marks = lattice(8, 6, 100, 100, 40, 0.1, 1.0, 3);
    marks.push_back({100 + 40 * 3.5, 100 + 40 * 2.5 + 14, -100, -100}); // inside a cell, off the lattice
    marks.push_back({2000, 2000, -200, -200});                          // far away
    CCalibrationFeatureFindGridPositions finder;
    ASSERT_TRUE(finder.FindGridPositions(toFeatures(marks), 40.0, 0, nullptr));
    EXPECT_EQ(finder.GetFeatures().GetSize(), 48);
    for (std::ptrdiff_t n = 0; n < finder.GetFeatures().GetSize(); ++n)
        EXPECT_GE(truthOf(marks, finder.GetFeatures()[n])->col, 0);
    marks.pop_back();
    marks.pop_back();
    expectConsistentLattice(marks, finder.GetFeatures());

    // One missing mark: growth goes round it. A whole missing row: the far side is lost.
    const std::vector<STruth> holed = lattice(8, 6, 100, 100, 40, 0.0, 0.0, 3, {{4, 3}});
    ASSERT_TRUE(finder.FindGridPositions(toFeatures(holed), 40.0, 0, nullptr));
    EXPECT_EQ(finder.GetFeatures().GetSize(), 47);
    std::set<std::pair<int, int>> row;
    for (int q = 0; q < 8; ++q)
        row.insert({q, 3});
    const std::vector<STruth> split = lattice(8, 9, 100, 100, 40, 0.0, 0.0, 3, row);
    ASSERT_TRUE(finder.FindGridPositions(toFeatures(split), 40.0, 0, nullptr));
    const std::ptrdiff_t count = finder.GetFeatures().GetSize();
    EXPECT_TRUE(count == 8 * 3 || count == 8 * 5) << count;
    const bool upper = truthOf(split, finder.GetFeatures()[0])->row < 3;
    for (std::ptrdiff_t n = 0; n < count; ++n)
        EXPECT_EQ(truthOf(split, finder.GetFeatures()[n])->row < 3, upper);
}

TEST(CCalibrationFeatureFindGridPositions, DegenerateInputFailsWithAnEmptyList)
{
    CCalibrationFeatureFindGridPositions finder;
    const std::vector<STruth> marks = lattice(5, 4, 100, 100, 40, 0.0, 0.0, 3);
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (double distance : {0.0, -40.0, nan, std::numeric_limits<double>::infinity(), 1e-9}) {
        EXPECT_FALSE(finder.FindGridPositions(toFeatures(marks), distance, 0, nullptr)) << distance;
        EXPECT_TRUE(finder.GetFeatures().IsEmpty());
    }
    // Collinear marks have no second axis; identical marks no direction at all.
    EXPECT_FALSE(
        finder.FindGridPositions(toFeatures(lattice(12, 1, 10, 10, 40, 0.4, 0.0, 1)), 40.0, 0, nullptr));
    std::vector<STruth> same(12, STruth{5.0, 5.0, 0, 0});
    EXPECT_FALSE(finder.FindGridPositions(toFeatures(same), 40.0, 0, nullptr));
    // Features without a finite position are dropped, the rest still forms the lattice.
    CArray<CCalibrationPointFeatureDetect> withNan = toFeatures(marks);
    CCalibrationPointFeatureDetect bad;
    bad.posX = nan;
    withNan.Add(bad);
    bad.posX = 3.0;
    bad.posY = std::numeric_limits<double>::infinity();
    withNan.Add(bad);
    ASSERT_TRUE(finder.FindGridPositions(withNan, 40.0, 0, nullptr));
    EXPECT_EQ(finder.GetFeatures().GetSize(), 20);
    // Nine good features and NaNs: too few.
    CArray<CCalibrationPointFeatureDetect> nineAndNan = toFeatures(lattice(3, 3, 100, 100, 40, 0.0, 0.0, 1));
    nineAndNan.Add(bad);
    EXPECT_FALSE(finder.FindGridPositions(nineAndNan, 40.0, 0, nullptr));
}

TEST(CCalibrationFeatureFindGridPositions, GrowthStopsAtTheEdgeOfTheTable)
{
    // A distance far above the spacing gives the smallest table: offsets of 10, positions -10..9.
    const std::vector<STruth> marks = lattice(40, 3, 100, 100, 20, 0.0, 0.0, 3);
    GridProbe finder;
    ASSERT_TRUE(finder.FindGridPositions(toFeatures(marks), 1.0e6, 0, nullptr));
    EXPECT_EQ(finder.TableSizeX(), 20);
    EXPECT_LT(finder.GetFeatures().GetSize(), 120);
    EXPECT_GE(finder.GetFeatures().GetSize(), 4);
    for (std::ptrdiff_t n = 0; n < finder.GetFeatures().GetSize(); ++n) {
        EXPECT_GE(finder.GetFeatures()[n].gridX, -10);
        EXPECT_LT(finder.GetFeatures()[n].gridX, 10);
        EXPECT_GE(finder.GetFeatures()[n].gridY, -10);
        EXPECT_LT(finder.GetFeatures()[n].gridY, 10);
    }
    expectConsistentLattice(marks, finder.GetFeatures());
}

TEST(CCalibrationFeatureFindGridPositions, ReferencePatternFixesOriginAndOrientation)
{
    // A 7 x 5 target without two marks in an asymmetric arrangement. The holes lie apart and off
    // the rim, so that growth reaches every mark.
    const int cols = 7;
    const int rows = 5;
    const std::set<std::pair<int, int>> holes = {{2, 2}, {4, 1}};
    bool pattern[cols * rows];
    for (int r = 0; r < rows; ++r)
        for (int q = 0; q < cols; ++q)
            pattern[r * cols + q] = holes.count({q, r}) == 0;
    CCalibrationFeatureFindGridPositions finder;
    finder.SetReferencePattern(pattern, CSize(cols, rows), CPoint(-3, 10));
    // Seen from eight views (turned and mirrored), the same mark keeps its coordinates.
    for (int view = 0; view < 8; ++view) {
        std::vector<STruth> marks = lattice(cols, rows, 0, 0, 30, 0.0, 1.5, 11 + view, holes);
        for (STruth& m : marks) {
            double x = m.x;
            double y = m.y;
            if (view & 1)
                x = -x;
            if (view & 2)
                std::swap(x, y);
            if (view & 4)
                y = -y;
            m.x = 500 + x + 0.2 * y;
            m.y = 400 + y - 0.1 * x;
        }
        ASSERT_TRUE(finder.FindGridPositions(toFeatures(marks), 30.0, 0, nullptr)) << "view " << view;
        ASSERT_EQ(finder.GetFeatures().GetSize(), cols * rows - 2);
        for (std::ptrdiff_t n = 0; n < finder.GetFeatures().GetSize(); ++n) {
            const STruth* t = truthOf(marks, finder.GetFeatures()[n]);
            ASSERT_NE(t, nullptr);
            EXPECT_EQ(finder.GetFeatures()[n].gridX, t->col - 3) << "view " << view;
            EXPECT_EQ(finder.GetFeatures()[n].gridY, t->row + 10) << "view " << view;
        }
    }

    // A 3 x 4 part of the target (columns 2..4, rows 1..4) occurs once in all eight orientations
    // and still places the lattice; its cell (0, 0) is mark (2, 1).
    bool part[12];
    for (int r = 0; r < 4; ++r)
        for (int q = 0; q < 3; ++q)
            part[r * 3 + q] = holes.count({q + 2, r + 1}) == 0;
    finder.SetReferencePattern(part, CSize(3, 4), CPoint(2, 1));
    const std::vector<STruth> marks = lattice(cols, rows, 100, 100, 30, 0.05, 0.0, 2, holes);
    ASSERT_TRUE(finder.FindGridPositions(toFeatures(marks), 30.0, 0, nullptr));
    for (std::ptrdiff_t n = 0; n < finder.GetFeatures().GetSize(); ++n) {
        const STruth* t = truthOf(marks, finder.GetFeatures()[n]);
        EXPECT_EQ(finder.GetFeatures()[n].gridX, t->col);
        EXPECT_EQ(finder.GetFeatures()[n].gridY, t->row);
    }
    // The 4 x 3 part at columns 3..6, rows 0..2 occurs ten times: no unique placement.
    for (int r = 0; r < 3; ++r)
        for (int q = 0; q < 4; ++q)
            part[r * 4 + q] = holes.count({q + 3, r}) == 0;
    finder.SetReferencePattern(part, CSize(4, 3), CPoint(2, 1));
    EXPECT_FALSE(finder.FindGridPositions(toFeatures(marks), 30.0, 0, nullptr));
}

TEST(CCalibrationFeatureFindGridPositions, SymmetricOrOversizedPatternsFail)
{
    const std::vector<STruth> full = lattice(6, 5, 100, 100, 30, 0.1, 0.0, 2);
    CCalibrationFeatureFindGridPositions finder;
    const bool allTrue[30] = {true, true, true, true, true, true, true, true, true, true,
                              true, true, true, true, true, true, true, true, true, true,
                              true, true, true, true, true, true, true, true, true, true};
    finder.SetReferencePattern(allTrue, CSize(6, 5), CPoint(0, 0));
    EXPECT_FALSE(finder.FindGridPositions(toFeatures(full), 30.0, 0, nullptr));
    EXPECT_TRUE(finder.GetFeatures().IsEmpty());
    // Symmetric under a half turn: one hole at each of two opposite corners.
    std::set<std::pair<int, int>> holes = {{0, 0}, {5, 4}};
    bool halfTurn[30];
    for (int k = 0; k < 30; ++k)
        halfTurn[k] = holes.count({k % 6, k / 6}) == 0;
    finder.SetReferencePattern(halfTurn, CSize(6, 5), CPoint(0, 0));
    EXPECT_FALSE(finder.FindGridPositions(toFeatures(lattice(6, 5, 100, 100, 30, 0.1, 0.0, 2, holes)), 30.0,
                                          0, nullptr));
    // Larger than the located lattice.
    bool big[7 * 6];
    std::fill(big, big + 42, true);
    finder.SetReferencePattern(big, CSize(7, 6), CPoint(0, 0));
    EXPECT_FALSE(finder.FindGridPositions(toFeatures(full), 30.0, 0, nullptr));
    // A null pattern or a 1-wide one switches the pattern off.
    finder.SetReferencePattern(big, CSize(1, 6), CPoint(4, 4));
    ASSERT_TRUE(finder.FindGridPositions(toFeatures(full), 30.0, 0, nullptr));
    EXPECT_EQ(finder.GetFeatures().GetSize(), 30);
}

TEST(CCalibrationFeatureFindGridPositions, SearchAreaGeometry)
{
    const Roi roi(10.0, 20.0, 2.0, 0.0, 0.0, 1.0);
    ASSERT_TRUE(roi.valid);
    EXPECT_EQ(roi.m0, 0.5);
    EXPECT_EQ(roi.m1, 0.0);
    EXPECT_EQ(roi.m2, 1.0);
    EXPECT_EQ(roi.m3, 0.0);
    EXPECT_EQ(roi.xMax, 13);
    EXPECT_EQ(roi.xMin, 7);
    EXPECT_EQ(roi.yMax, 22);
    EXPECT_EQ(roi.yMin, 18);
    EXPECT_LT(roi.Distance2(11.9, 20.0), 1.0);
    EXPECT_GT(roi.Distance2(12.1, 20.0), 1.0);
    EXPECT_LT(roi.Distance2(10.0, 20.99), 1.0);
    EXPECT_DOUBLE_EQ(roi.Distance2(11.0, 20.5), 0.5);
    // Skewed axes: the point a + b lies at u = v = 1.
    const Roi skew(0.0, 0.0, 3.0, 1.0, -1.0, 2.0);
    EXPECT_NEAR(skew.Distance2(2.0, 3.0), 2.0, 1e-12);
    EXPECT_NEAR(skew.Distance2(1.5, 0.5), 0.25, 1e-12);
    EXPECT_FALSE(Roi(0.0, 0.0, 2.0, 1.0, 4.0, 2.0).valid);
    EXPECT_FALSE(Roi(0.0, 0.0, 1e-4, 0.0, 0.0, 1e-4).valid);
    EXPECT_FALSE(Roi(0.0, 0.0, std::numeric_limits<double>::quiet_NaN(), 0.0, 0.0, 1.0).valid);
    const Roi huge(1e300, 0.0, 1e300, 0.0, 0.0, 1.0);
    EXPECT_TRUE(huge.valid);
    EXPECT_EQ(huge.xMax, std::numeric_limits<int>::max());
}

TEST(CCalibrationFeatureFindGridPositions, DrawingAidsStayInsideTheImage)
{
    using Access = DataLayer::detail::GridDrawingAccess;
    CCalibrationImage image;
    ASSERT_TRUE(image.SetSize(CSize(40, 30)));
    // Against the integer error-term algorithm on random lines inside the image.
    std::mt19937_64 engine(47110815);
    std::uniform_int_distribution<int> px(0, 39);
    std::uniform_int_distribution<int> py(0, 29);
    for (int trial = 0; trial < 200; ++trial) {
        ASSERT_TRUE(image.SetSize(CSize(40, 30)));
        const int x0 = px(engine), y0 = py(engine), x1 = px(engine), y1 = py(engine);
        Access::Line(image, x0, y0, x1, y1, 9.0f, false, false);
        std::set<std::pair<int, int>> expected;
        const int dx = std::abs(x1 - x0), dy = std::abs(y1 - y0);
        const int sx = x1 >= x0 ? 1 : -1, sy = y1 >= y0 ? 1 : -1;
        if (dx >= dy) {
            int y = y0, error = dx; // 2 * error compared against 2 * dx: halves round up
            for (int i = 0, x = x0; i <= dx; ++i, x += sx) {
                expected.insert({x, y});
                error += 2 * dy;
                if (error >= 2 * dx && i < dx) {
                    y += sy;
                    error -= 2 * dx;
                }
            }
        } else {
            int x = x0, error = dy;
            for (int i = 0, y = y0; i <= dy; ++i, y += sy) {
                expected.insert({x, y});
                error += 2 * dx;
                if (error >= 2 * dy && i < dy) {
                    x += sx;
                    error -= 2 * dy;
                }
            }
        }
        for (int y = 0; y < 30; ++y)
            for (int x = 0; x < 40; ++x)
                ASSERT_EQ(image.GetPixel(x, y) == 9.0f, expected.count({x, y}) == 1)
                    << x0 << "," << y0 << " -> " << x1 << "," << y1 << " at " << x << "," << y;
    }
    // Far-away endpoints neither hang nor write outside; the visible part is drawn.
    ASSERT_TRUE(image.SetSize(CSize(40, 30)));
    Access::Line(image, -2000000000, 15, 2000000000, 15, 1.0f, true, true);
    for (int x = 0; x < 40; ++x)
        EXPECT_EQ(image.GetPixel(x, 15), 1.0f);
    Access::Line(image, 5, 5, 25, 5, 2.0f, true, true);
    EXPECT_EQ(image.GetPixel(5, 2), 2.0f); // the cross
    EXPECT_EQ(image.GetPixel(2, 5), 2.0f);
    EXPECT_EQ(image.GetPixel(16, 10), 2.0f); // lower stroke of the arrow head ends at (16.3, 10)
    EXPECT_EQ(image.GetPixel(16, 0), 2.0f);  // upper stroke
    CCalibrationImage empty;
    Access::Line(empty, 0, 0, 10, 10, 1.0f, true, true);

    // The search area inverts its inside, or only its rim.
    ASSERT_TRUE(image.SetSize(CSize(40, 30)));
    const Roi roi(20.0, 15.0, 8.0, 0.0, 0.0, 5.0);
    Access::Roi(image, roi, false);
    int inside = 0;
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x) {
            const bool in = roi.Distance2(x, y) < 1.0;
            EXPECT_EQ(image.GetPixel(x, y), in ? 255.0f : 0.0f);
            inside += in;
        }
    EXPECT_GT(inside, 100);
    ASSERT_TRUE(image.SetSize(CSize(40, 30)));
    Access::Roi(image, roi, true);
    EXPECT_EQ(image.GetPixel(20, 15), 0.0f);
    EXPECT_EQ(image.GetPixel(27, 15), 255.0f);
    Access::Roi(image, Roi(1e9, 1e9, 1e9, 0.0, 0.0, 1e9), false);
    Access::Roi(empty, roi, false);
}

TEST(CCalibrationFeatureFindGridPositions, SortKeysMatchBruteForceOnClusteredClouds)
{
    // Tight clusters, duplicates and far outliers stress the bucket search of the neighbours.
    std::mt19937_64 engine(47110815);
    std::normal_distribution<double> tight(0.0, 0.5);
    std::uniform_real_distribution<double> wide(-3000.0, 3000.0);
    for (int trial = 0; trial < 4; ++trial) {
        std::vector<STruth> cloud;
        for (int k = 0; k < 300; ++k)
            cloud.push_back({500 + tight(engine), 500 + tight(engine), 0, 0});
        for (int k = 0; k < 100 * trial; ++k)
            cloud.push_back({wide(engine), wide(engine), 0, 0});
        for (int k = 0; k < 20; ++k)
            cloud.push_back(cloud[static_cast<std::size_t>(k)]);
        if (trial == 3)
            cloud.push_back({1e7, -1e7, 0, 0});
        if (trial == 0) // a sparse ring of points around the cluster
            for (int k = 0; k < 40; ++k)
                cloud.push_back({500 + 900 * std::cos(k * 0.157), 500 + 900 * std::sin(k * 0.157), 0, 0});
        GridProbe finder;
        const CArray<CCalibrationPointFeatureDetect> sorted = finder.Sorted(toFeatures(cloud));
        ASSERT_EQ(sorted.GetSize(), static_cast<std::ptrdiff_t>(cloud.size()));
        for (std::ptrdiff_t n = 0; n < sorted.GetSize(); ++n) {
            const CCalibrationPointFeatureDetect& f = sorted[n];
            std::vector<double> d2;
            for (const STruth& m : cloud)
                d2.push_back((m.x - f.posX) * (m.x - f.posX) + (m.y - f.posY) * (m.y - f.posY));
            std::nth_element(d2.begin(), d2.begin() + 8, d2.end());
            ASSERT_EQ(f.rating, d2[8]) << "trial " << trial << " feature " << n;
            if (n > 0) {
                ASSERT_LE(sorted[n - 1].rating, f.rating);
            }
        }
    }
}

TEST(CCalibrationFeatureFindGridPositions, LargeLatticeIsLocatedWhole)
{
    const std::vector<STruth> marks = lattice(150, 100, 50, 50, 20, 0.05, 2.0, 5);
    CCalibrationFeatureFindGridPositions finder;
    ASSERT_TRUE(finder.FindGridPositions(toFeatures(marks), 20.0, 0, nullptr));
    EXPECT_EQ(finder.GetFeatures().GetSize(), 15000);
    for (std::ptrdiff_t n = 0; n < finder.GetFeatures().GetSize(); n += 97) {
        const CCalibrationPointFeatureDetect& f = finder.GetFeatures()[n];
        std::vector<double> d2;
        for (const STruth& m : marks)
            d2.push_back((m.x - f.posX) * (m.x - f.posX) + (m.y - f.posY) * (m.y - f.posY));
        std::nth_element(d2.begin(), d2.begin() + 8, d2.end());
        EXPECT_EQ(f.rating, d2[8]);
    }
}
