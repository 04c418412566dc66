#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "captured_log.h"
#include "datalayer/algorithms/geometry/clineraster.h"

using DataLayer::CLineRaster;
using Pixels = std::vector<std::pair<int, int>>;
using PixelSet = std::set<std::pair<int, int>>;

namespace {

/// The pixels a loop on operator bool visits (the end pixel excluded).
Pixels Walk(CLineRaster raster)
{
    Pixels out;
    for (int guard = 0; raster && guard < 100000; ++guard, ++raster)
        out.emplace_back(raster->x, raster->y);
    return out;
}

/// Independent reference: every crossing of the segment with a grid line, sorted by the segment
/// parameter; between two crossings the segment stays in the pixel of the midpoint.
Pixels CrossingPixels(double x0, double y0, double x1, double y1)
{
    std::vector<double> ts = {0.0, 1.0};
    auto crossings = [&ts](double a, double b) {
        if (a == b)
            return;
        for (double k = std::ceil(std::min(a, b)); k <= std::floor(std::max(a, b)); ++k) {
            const double t = (k - a) / (b - a);
            if (t > 0 && t < 1)
                ts.push_back(t);
        }
    };
    crossings(x0, x1);
    crossings(y0, y1);
    std::sort(ts.begin(), ts.end());
    Pixels out;
    for (size_t i = 0; i + 1 < ts.size(); ++i) {
        if (ts[i + 1] - ts[i] < 1e-12)
            continue;
        const double t = 0.5 * (ts[i] + ts[i + 1]);
        const std::pair<int, int> p(static_cast<int>(std::floor(x0 + t * (x1 - x0))),
                                    static_cast<int>(std::floor(y0 + t * (y1 - y0))));
        if (out.empty() || out.back() != p)
            out.push_back(p);
    }
    return out;
}

/// Brute force: every pixel of the bounding box whose closed square holds a piece of the segment
/// of positive length, by clipping the segment to the square in long double.
PixelSet TouchedPixels(double x0, double y0, double x1, double y1)
{
    PixelSet out;
    const long double o[2] = {x0, y0},
                      d[2] = {static_cast<long double>(x1) - x0, static_cast<long double>(y1) - y0};
    for (int px = static_cast<int>(std::floor(std::min(x0, x1)));
         px <= static_cast<int>(std::floor(std::max(x0, x1))); ++px)
        for (int py = static_cast<int>(std::floor(std::min(y0, y1)));
             py <= static_cast<int>(std::floor(std::max(y0, y1))); ++py) {
            long double lo = 0, hi = 1;
            const long double box[2] = {static_cast<long double>(px), static_cast<long double>(py)};
            for (int axis = 0; axis < 2; ++axis) {
                if (d[axis] == 0) {
                    if (o[axis] < box[axis] || o[axis] > box[axis] + 1)
                        hi = -1;
                    continue;
                }
                long double a = (box[axis] - o[axis]) / d[axis], b = (box[axis] + 1 - o[axis]) / d[axis];
                if (a > b)
                    std::swap(a, b);
                lo = std::max(lo, a);
                hi = std::min(hi, b);
            }
            if (hi - lo > 1e-12L)
                out.emplace(px, py);
        }
    return out;
}

} // namespace

TEST(CLineRaster, SegmentInsideOnePixelIsEmpty)
{
    CLineRaster r(0.2, 0.3, 0.8, 0.9);
    EXPECT_FALSE(static_cast<bool>(r));
    ++r;
    EXPECT_EQ(r.x, 0);
    EXPECT_EQ(r.y, 0);
}

TEST(CLineRaster, WorkedWalks)
{
    EXPECT_EQ(Walk(CLineRaster(0.5, 0.5, 3.5, 0.5)), (Pixels{{0, 0}, {1, 0}, {2, 0}}));
    CLineRaster h(0.5, 0.5, 3.5, 0.5);
    ++h, ++h, ++h;
    EXPECT_FALSE(static_cast<bool>(h));
    EXPECT_EQ(h.x, 3);
    // Through pixel corners every step is diagonal.
    EXPECT_EQ(Walk(CLineRaster(0.5, 0.5, 2.5, 2.5)), (Pixels{{0, 0}, {1, 1}}));
    // Backwards, from an integer coordinate: floor puts 3.0 in pixel 3.
    const CLineRaster back(3.0, 0.5, 0.5, 0.5);
    EXPECT_EQ(back.stepX, -1);
    EXPECT_EQ(back.stepY, 0);
    EXPECT_EQ(Walk(back), (Pixels{{3, 0}, {2, 0}, {1, 0}}));
    EXPECT_EQ(Walk(CLineRaster(-0.5, -0.5, -0.5, -3.5)), (Pixels{{-1, -1}, {-1, -2}, {-1, -3}}));
    // A shallow line takes 4-neighbour steps.
    EXPECT_EQ(Walk(CLineRaster(0.1, 0.2, 3.9, 1.6)), (Pixels{{0, 0}, {1, 0}, {2, 0}, {2, 1}}));
}

TEST(CLineRaster, RangeForVisitsWhatTheBoolLoopVisits)
{
    const CLineRaster r(0.3, 7.9, 6.2, -2.4);
    Pixels ranged;
    for (const CLineRaster& p : r)
        ranged.emplace_back(p.x, p.y);
    EXPECT_EQ(ranged, Walk(r));
    EXPECT_EQ(r.begin().x, 0);
    EXPECT_EQ(r.begin().y, 7);
    EXPECT_EQ(r.end().x, 6);
    EXPECT_EQ(r.end().y, -3);
    EXPECT_TRUE(r.end() == r.end());
    EXPECT_FALSE(r.begin() == r.end());
    // Copies walk on their own.
    CLineRaster a(0.5, 0.5, 5.5, 0.5), b = a;
    ++a;
    EXPECT_EQ(b.x, 0);
    b = a;
    EXPECT_EQ(b.x, 1);
}

// Random segments hit no pixel corner, so the walk plus its end pixel equals the ordered list of
// grid crossings and the brute-force set of touched pixels.
TEST(CLineRaster, MatchesGridCrossingsAndABruteForcePixelSet)
{
    std::mt19937_64 engine(47110815);
    std::uniform_real_distribution<double> coordinate(-20.0, 20.0);
    for (int trial = 0; trial < 2000; ++trial) {
        const double x0 = coordinate(engine), y0 = coordinate(engine);
        const double scale = trial % 3 == 0 ? 0.1 : 1.0; // short segments too
        const double x1 = x0 + scale * coordinate(engine), y1 = y0 + scale * coordinate(engine);
        const CLineRaster r(x0, y0, x1, y1);
        Pixels walk = Walk(r);
        walk.emplace_back(r.xend, r.yend);
        EXPECT_EQ(walk, CrossingPixels(x0, y0, x1, y1))
            << "segment (" << x0 << ", " << y0 << ") - (" << x1 << ", " << y1 << ")";
        EXPECT_EQ(PixelSet(walk.begin(), walk.end()), TouchedPixels(x0, y0, x1, y1));
        EXPECT_EQ(PixelSet(walk.begin(), walk.end()).size(), walk.size()); // no revisits
    }
}

TEST(CLineRaster, NonFiniteOrHugeCoordinatesGiveAnEmptyWalk)
{
    const double inf = std::numeric_limits<double>::infinity();
    for (const CLineRaster& r : {CLineRaster(std::nan(""), 0, 3, 3), CLineRaster(0, 0, inf, 1),
                                 CLineRaster(0, 0, 1e12, 1), CLineRaster(-3e9, 0, 1, 1)}) {
        EXPECT_FALSE(static_cast<bool>(r));
        EXPECT_EQ(r.x, 0);
        EXPECT_EQ(r.yend, 0);
        EXPECT_TRUE(Walk(r).empty());
    }
}

TEST(CLineRaster, LosingTheSegmentWarnsAndJumpsToTheEnd)
{
    vorn2test::CapturedLog log(L"Vorn2.CLineRaster", Logging::CLogger::m_ciLevelWarn);
    CLineRaster r(0.5, 0.5, 3.5, 0.5);
    r.y = 40; // a pixel far off the segment: no neighbour touches it
    ++r;
    EXPECT_EQ(r.x, 3);
    EXPECT_EQ(r.y, 0);
    ASSERT_EQ(log.Records().size(), 1u);
    EXPECT_EQ(log.Records()[0].level, 3);
    EXPECT_EQ(log.Records()[0].message, L"CLineRaster: aborting at (x,y)=(0,40) (xend,yend)=(3,0)");
    EXPECT_EQ(log.Records()[0].file, "datalayer/algorithms/geometry/clineraster");
}
