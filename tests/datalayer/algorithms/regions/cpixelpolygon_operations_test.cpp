// Operations on pixel polygons: tracing, Repair, Dilate, Union, Intersect, ConvexHull, Shift, the
// von Neumann neighbourhood and the three rasterisers, with differential checks against flood fills
// and plain mask operations on seeded random masks.
#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <utility>
#include <vector>

#include "datalayer/algorithms/regions/ccontourtracer.h"
#include "datalayer/algorithms/regions/cpixelpolygon.h"
#include "region_support.h"

using DataLayer::ChainedPixel;
using DataLayer::CPixelPolygon;
using DataLayer::detail::CContourTracer;

namespace {

using PixelSet = std::set<std::pair<int, int>>;

std::vector<std::pair<int, int>> ChainOf(const CPixelPolygon& polygon)
{
    std::vector<std::pair<int, int>> out;
    for (auto it = polygon.GetMarginIterator(); it; ++it)
        out.emplace_back(it->x, it->y);
    return out;
}

PixelSet RegionOf(const CPixelPolygon& polygon)
{
    PixelSet out;
    for (auto it = polygon.GetAreaAndMarginIterator(); it; ++it)
        out.emplace(it->x, it->y);
    return out;
}

PixelSet SetOfMask(const std::vector<unsigned char>& mask, int width, int height, int dx = 0, int dy = 0)
{
    PixelSet out;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            if (mask[static_cast<std::size_t>(y) * width + x])
                out.emplace(x + dx, y + dy);
    return out;
}

CPixelPolygon TraceBytes(const std::vector<unsigned char>& mask, int width, int height,
                         unsigned char value = 1)
{
    return CContourTracer(mask.data(), value, width, height).TraceFirst();
}

// The invariants every operation result has: neighbouring chain entries, the counterclockwise
// interior that the spans describe, and spans + distinct chain pixels = area.
void ExpectProperPolygon(const CPixelPolygon& p)
{
    const auto chain = ChainOf(p);
    if (chain.empty())
        return;
    for (std::size_t i = 0; i < chain.size(); ++i) {
        const auto& a = chain[i];
        const auto& b = chain[(i + 1) % chain.size()];
        if (chain.size() > 1) {
            EXPECT_LE(std::abs(a.first - b.first), 1);
            EXPECT_LE(std::abs(a.second - b.second), 1);
            EXPECT_NE(a, b);
        }
    }
    const PixelSet distinct(chain.begin(), chain.end());
    int interior = 0;
    for (auto it = p.GetAreaIterator(); it; ++it) {
        ++interior;
        EXPECT_EQ(distinct.count({it->x, it->y}), 0u) << "span pixel on the chain";
    }
    EXPECT_EQ(interior + static_cast<int>(distinct.size()), p.GetArea());
}

CPixelPolygon RandomBlob(std::mt19937_64& engine, int size, double density, int dx, int dy)
{
    for (;;) {
        const auto mask = vorn2test::RandomMask(engine, size, size, density);
        const CPixelPolygon p = TraceBytes(mask, size, size);
        if (p.GetArea() >= 4)
            return p.Shift(dx, dy);
    }
}

} // namespace

// ---- tracing --------------------------------------------------------------------------------------

TEST(CContourTracer, WorkedChainsAreasAndPerimeters)
{
    const std::vector<unsigned char> one = {0, 0, 0, 0, 1, 0, 0, 0, 0};
    const CPixelPolygon dot = TraceBytes(one, 3, 3);
    EXPECT_EQ(ChainOf(dot), (std::vector<std::pair<int, int>>{{1, 1}}));
    EXPECT_EQ(dot.GetArea(), 1);
    EXPECT_FLOAT_EQ(dot.GetPerimeter(), 3.5449078f);

    const std::vector<unsigned char> block = {1, 1, 1, 1};
    const CPixelPolygon square = TraceBytes(block, 2, 2);
    EXPECT_EQ(ChainOf(square), (std::vector<std::pair<int, int>>{{0, 1}, {1, 1}, {1, 0}, {0, 0}}));
    EXPECT_EQ(square.GetArea(), 4);
    EXPECT_FLOAT_EQ(square.GetPerimeter(), 4.0f);

    // A ring has no hole: same chain and area as the full block.
    const std::vector<unsigned char> ring = {1, 1, 1, 1, 0, 1, 1, 1, 1};
    const std::vector<unsigned char> full(9, 1);
    EXPECT_EQ(ChainOf(TraceBytes(ring, 3, 3)), ChainOf(TraceBytes(full, 3, 3)));
    EXPECT_EQ(TraceBytes(ring, 3, 3).GetArea(), 9);

    const std::vector<unsigned char> plus = {0, 1, 0, 1, 1, 1, 0, 1, 0};
    const CPixelPolygon cross = TraceBytes(plus, 3, 3);
    EXPECT_EQ(ChainOf(cross), (std::vector<std::pair<int, int>>{{0, 1}, {1, 2}, {2, 1}, {1, 0}}));
    EXPECT_EQ(cross.GetArea(), 5);
    EXPECT_FLOAT_EQ(cross.GetPerimeter(), 4.0f * std::sqrt(2.0f));
    EXPECT_EQ(cross.GetEnclosedArea(), 1);
    EXPECT_EQ(cross.Classify(1, 1), CPixelPolygon::eArea);

    const std::vector<unsigned char> diagonal = {1, 0, 0, 0, 1, 0, 0, 0, 1};
    const CPixelPolygon line = TraceBytes(diagonal, 3, 3);
    EXPECT_EQ(ChainOf(line), (std::vector<std::pair<int, int>>{{1, 1}, {2, 2}, {1, 1}, {0, 0}}));
    EXPECT_EQ(line.GetArea(), 3);
    EXPECT_FALSE(line.GetAreaIterator());
}

TEST(CContourTracer, StartPixelRulesAndPredicateForm)
{
    const std::vector<unsigned char> mask = {0, 7, 7, 0, 7, 7};
    CContourTracer byValue(mask.data(), 7, 3, 2);
    int x = -1, y = -1;
    ASSERT_TRUE(byValue.FindFirst(x, y));
    EXPECT_EQ(x, 1);
    EXPECT_EQ(y, 0);
    EXPECT_TRUE(byValue.Trace(0, 0).Empty());  // start not set
    EXPECT_TRUE(byValue.Trace(5, 0).Empty());  // start outside
    EXPECT_TRUE(byValue.Trace(-1, 0).Empty()); // start outside
    // A start that is not the first pixel still traces the region it belongs to.
    EXPECT_EQ(byValue.Trace(2, 1).GetArea(), 4);
    CContourTracer byPredicate(
        mask.data(), [](const unsigned char& b) { return b > 5; }, 3, 2);
    EXPECT_EQ(ChainOf(byPredicate.TraceFirst()), ChainOf(byValue.TraceFirst()));
    const std::vector<unsigned char> none(6, 0);
    EXPECT_FALSE(CContourTracer(none.data(), 1, 3, 2).FindFirst(x, y));
    EXPECT_TRUE(CContourTracer(none.data(), 1, 3, 2).TraceFirst().Empty());
    EXPECT_TRUE(CContourTracer(nullptr, 1, 0, 0).TraceFirst().Empty());
    EXPECT_TRUE(CContourTracer(mask.data(), 7, -3, 2).TraceFirst().Empty());
}

TEST(CContourTracer, AreaEqualsTheFilledComponentOnRandomMasks)
{
    std::mt19937_64 engine(20251123);
    int multiPixel = 0;
    for (int trial = 0; trial < 300; ++trial) {
        const int w = 1 + static_cast<int>(engine() % 24);
        const int h = 1 + static_cast<int>(engine() % 24);
        const double density = 0.2 + 0.6 * static_cast<double>(engine() % 1000) / 1000.0;
        const auto mask = vorn2test::RandomMask(engine, w, h, density);
        int fx = 0, fy = 0;
        CContourTracer tracer(mask.data(), 1, w, h);
        if (!tracer.FindFirst(fx, fy))
            continue;
        const CPixelPolygon p = tracer.Trace(fx, fy);
        const auto component = vorn2test::Component8(mask, w, h, fx, fy, 1);
        const auto filled = vorn2test::FillHoles(component, w, h);
        const PixelSet expected = SetOfMask(filled, w, h);
        ASSERT_EQ(p.GetArea(), static_cast<int>(expected.size())) << "trial " << trial;
        // The spans and the chain cover exactly the filled component, and the chain is its border.
        EXPECT_EQ(RegionOf(p), expected) << "trial " << trial;
        ExpectProperPolygon(p);
        // Same at a negative offset.
        const CPixelPolygon moved = p.Shift(-1000, -77);
        EXPECT_EQ(RegionOf(moved).size(), expected.size());
        ExpectProperPolygon(moved);
        multiPixel += p.Size() > 1 ? 1 : 0;
    }
    EXPECT_GT(multiPixel, 200);
}

// ---- Shift and Repair -----------------------------------------------------------------------------

TEST(CPixelPolygonShift, MovesPixelsKeepsLabelsAndRefusesOverflow)
{
    CPixelPolygon r = CPixelPolygon::Rectangle(0, 0, 2, 2);
    (*r.GetMarginIterator()).label = std::make_shared<int>(5);
    const CPixelPolygon moved = r.Shift(10, -3);
    EXPECT_EQ(ChainOf(moved).front(), std::make_pair(10, -3));
    EXPECT_EQ(moved.GetArea(), 9);
    EXPECT_FLOAT_EQ(moved.GetPerimeter(), 8.0f);
    EXPECT_EQ((*moved.GetMarginIterator()).label, (*r.GetMarginIterator()).label);
    EXPECT_TRUE(CPixelPolygon().Shift(1, 1).Empty());
    EXPECT_TRUE(CPixelPolygon::Rectangle(INT_MAX - 2, 0, INT_MAX, 2).Shift(1, 0).Empty());
    EXPECT_FALSE(CPixelPolygon::Rectangle(INT_MAX - 2, 0, INT_MAX, 2).Shift(-1, 0).Empty());
}

TEST(CPixelPolygonRepair, ProperPolygonKeepsPixelsAndLabels)
{
    CPixelPolygon r = CPixelPolygon::Rectangle(3, 4, 7, 6);
    int index = 0;
    for (auto it = r.GetMarginIterator(); it; ++it, ++index) {
        it->label = std::make_shared<int>(index);
        it->labelType = &typeid(int);
    }
    const CPixelPolygon repaired = r.Repair();
    EXPECT_EQ(repaired.GetArea(), r.GetArea());
    EXPECT_FLOAT_EQ(repaired.GetPerimeter(), r.GetPerimeter());
    // The same cycle of pixels from a rotated start, each with its own label.
    const auto a = ChainOf(r);
    auto b = ChainOf(repaired);
    const auto start = std::find(b.begin(), b.end(), a.front());
    ASSERT_NE(start, b.end());
    std::rotate(b.begin(), start, b.end());
    EXPECT_EQ(a, b);
    for (auto it = repaired.GetMarginIterator(); it; ++it) {
        ASSERT_TRUE(it->label);
        ASSERT_EQ(*it->labelType, typeid(int));
        const int label = *static_cast<int*>(it->label.get());
        EXPECT_EQ(a[static_cast<std::size_t>(label)], std::make_pair(it->x, it->y));
    }
}

TEST(CPixelPolygonRepair, MendsScrambledChainsAndRefusesHugeBoxes)
{
    // Scramble a rectangle's chain through the mutable iterator: Repair restores the outline.
    CPixelPolygon r = CPixelPolygon::Rectangle(0, 0, 5, 4);
    const auto original = RegionOf(r);
    std::vector<std::pair<int, int>> chain = ChainOf(r);
    std::mt19937_64 engine(7);
    std::shuffle(chain.begin(), chain.end(), engine);
    std::size_t i = 0;
    for (auto it = r.GetMarginIterator(); it; ++it, ++i) {
        it->x = chain[i].first;
        it->y = chain[i].second;
    }
    const CPixelPolygon repaired = r.Repair();
    EXPECT_EQ(RegionOf(repaired), original);
    ExpectProperPolygon(repaired);
    EXPECT_TRUE(CPixelPolygon().Repair().Empty());

    // Stray pixels: only the part with the first pixel in raster order survives.
    CPixelPolygon stray = CPixelPolygon::Rectangle(0, 0, 3, 3);
    (*stray.GetMarginIterator()).x = 10;
    const CPixelPolygon kept = stray.Repair();
    EXPECT_FALSE(kept.Empty());
    EXPECT_EQ(RegionOf(kept).count({10, 0}), 0u);

    // A chain whose bounding box would need more than 2^31 - 1 mask bytes gives an empty polygon.
    CPixelPolygon huge = CPixelPolygon::Rectangle(0, 0, 1, 1);
    auto it = huge.GetMarginIterator();
    it->x = 70000;
    ++it;
    it->y = 70000;
    EXPECT_TRUE(huge.Repair().Empty());
}

// ---- Dilate ---------------------------------------------------------------------------------------

TEST(CPixelPolygonDilate, WorkedCases)
{
    CPixelPolygon dot = CPixelPolygon::Rectangle(5, 5, 5, 5);
    (*dot.GetMarginIterator()).label = std::make_shared<int>(1);
    const CPixelPolygon same = dot.Dilate(0);
    EXPECT_EQ(ChainOf(same), ChainOf(dot));
    EXPECT_TRUE((*same.GetMarginIterator()).label); // a copy, labels included

    const CPixelPolygon block = dot.Dilate(1);
    EXPECT_EQ(RegionOf(block), RegionOf(CPixelPolygon::Rectangle(4, 4, 6, 6)));
    EXPECT_FLOAT_EQ(block.GetPerimeter(), 8.0f);
    for (auto it = block.GetMarginIterator(); it; ++it)
        EXPECT_FALSE(it->label); // labels are dropped
    EXPECT_EQ(dot.Dilate(3).GetArea(), 49);
    EXPECT_TRUE(CPixelPolygon().Dilate(2).Empty());
    // A grown box beyond 2^31 - 1 pixels is refused.
    EXPECT_TRUE(dot.Dilate(30000).Empty());
}

TEST(CPixelPolygonDilate, AgreesWithRepeatedBruteForcePasses)
{
    std::mt19937_64 engine(424242);
    for (int trial = 0; trial < 40; ++trial) {
        const CPixelPolygon p = RandomBlob(engine, 12, 0.55, static_cast<int>(engine() % 9) - 4, 3);
        const unsigned n = 1 + static_cast<unsigned>(engine() % 4);
        int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
        ASSERT_TRUE(p.GetAABB(&x0, &y0, &x1, &y1));
        const int ox = x0 - static_cast<int>(n), oy = y0 - static_cast<int>(n);
        const int w = x1 - x0 + 1 + 2 * static_cast<int>(n), h = y1 - y0 + 1 + 2 * static_cast<int>(n);
        std::vector<unsigned char> mask(static_cast<std::size_t>(w) * h, 0);
        for (const auto& [x, y] : ChainOf(p))
            mask[static_cast<std::size_t>(y - oy) * w + (x - ox)] = 1;
        for (unsigned pass = 0; pass < n; ++pass)
            mask = vorn2test::Dilate3x3(mask, w, h);
        int fx = 0, fy = 0;
        ASSERT_TRUE(CContourTracer(mask.data(), 1, w, h).FindFirst(fx, fy));
        const auto expected =
            SetOfMask(vorn2test::FillHoles(vorn2test::Component8(mask, w, h, fx, fy, 1), w, h), w, h, ox, oy);
        const CPixelPolygon d = p.Dilate(n);
        EXPECT_EQ(RegionOf(d), expected) << "trial " << trial << " n " << n;
        ExpectProperPolygon(d);
    }
}

TEST(CPixelPolygonDilate, AllowedPredicateMatchesLiteralPasses)
{
    // Literal reference: two buffers never cleared, every target pixel tested with `allowed`.
    std::mt19937_64 engine(99);
    for (int trial = 0; trial < 30; ++trial) {
        const CPixelPolygon p = RandomBlob(engine, 10, 0.6, 2, -5);
        const unsigned n = 1 + static_cast<unsigned>(engine() % 5);
        const int cut = static_cast<int>(engine() % 10);
        auto allowed = [cut](int x, int y) { return x + y < cut + 4 || x > 9; };
        int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
        p.GetAABB(&x0, &y0, &x1, &y1);
        const int ox = x0 - static_cast<int>(n), oy = y0 - static_cast<int>(n);
        const int w = x1 - x0 + 1 + 2 * static_cast<int>(n), h = y1 - y0 + 1 + 2 * static_cast<int>(n);
        std::vector<unsigned char> a(static_cast<std::size_t>(w) * h, 0), b(a.size(), 0);
        for (const auto& [x, y] : ChainOf(p))
            a[static_cast<std::size_t>(y - oy) * w + (x - ox)] = 1;
        std::vector<unsigned char>* src = &a;
        std::vector<unsigned char>* dst = &b;
        for (unsigned pass = 0; pass < n; ++pass) {
            const auto grown = vorn2test::Dilate3x3(*src, w, h);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    const std::size_t i = static_cast<std::size_t>(y) * w + x;
                    if (allowed(x + ox, y + oy) && grown[i])
                        (*dst)[i] = 1;
                }
            std::swap(src, dst);
        }
        const std::vector<unsigned char>& last = *src;
        int fx = 0, fy = 0;
        const CPixelPolygon d = p.Dilate(n, allowed);
        if (!CContourTracer(last.data(), 1, w, h).FindFirst(fx, fy)) {
            EXPECT_EQ(ChainOf(d), ChainOf(p)); // nothing traced: a copy
            continue;
        }
        const auto expected =
            SetOfMask(vorn2test::FillHoles(vorn2test::Component8(last, w, h, fx, fy, 1), w, h), w, h, ox, oy);
        EXPECT_EQ(RegionOf(d), expected) << "trial " << trial;
    }
    // An empty std::function means no restriction.
    const CPixelPolygon dot = CPixelPolygon::Rectangle(0, 0, 0, 0);
    EXPECT_EQ(RegionOf(dot.Dilate(2, {})), RegionOf(dot.Dilate(2)));
    // A pixel that is never allowed stays only in the buffer it was painted in: kept for even n.
    auto nothing = [](int, int) { return false; };
    EXPECT_EQ(ChainOf(dot.Dilate(1, nothing)), ChainOf(dot));
    EXPECT_EQ(dot.Dilate(2, nothing).GetArea(), 1);
}

// ---- Union and Intersect --------------------------------------------------------------------------

TEST(CPixelPolygonUnion, WorkedCasesAndEmptyOperands)
{
    const CPixelPolygon a = CPixelPolygon::Rectangle(0, 0, 4, 4);
    const CPixelPolygon b = CPixelPolygon::Rectangle(3, 2, 8, 6);
    const CPixelPolygon u = a.Union(b);
    EXPECT_EQ(u.GetArea(), 25 + 30 - 6);
    ExpectProperPolygon(u);
    EXPECT_TRUE(a.Union(CPixelPolygon()).Empty());
    EXPECT_TRUE(CPixelPolygon().Union(a).Empty());
    EXPECT_TRUE(a.Union(CPixelPolygon::Rectangle(5, 0, 6, 1)).Empty()); // touching but disjoint boxes
    // Boxes overlap, regions apart: the region with the first pixel in raster order.
    const CPixelPolygon lShape =
        CPixelPolygon::Rectangle(0, 0, 0, 9).Union(CPixelPolygon::Rectangle(0, 9, 9, 9));
    const CPixelPolygon corner = CPixelPolygon::Rectangle(7, 1, 8, 2);
    EXPECT_EQ(RegionOf(lShape.Union(corner)), RegionOf(lShape));
}

TEST(CPixelPolygonIntersect, WorkedCases)
{
    const CPixelPolygon r = CPixelPolygon::Rectangle(1, 1, 6, 4);
    const CPixelPolygon self = r.Intersect(r);
    EXPECT_EQ(RegionOf(self), RegionOf(r));
    EXPECT_EQ(self.GetArea(), r.GetArea());
    const CPixelPolygon overlap = r.Intersect(CPixelPolygon::Rectangle(4, 0, 9, 2));
    EXPECT_EQ(RegionOf(overlap), RegionOf(CPixelPolygon::Rectangle(4, 1, 6, 2)));
    EXPECT_TRUE(r.Intersect(CPixelPolygon()).Empty());
    EXPECT_TRUE(r.Intersect(CPixelPolygon::Rectangle(7, 1, 9, 4)).Empty());
    const CPixelPolygon lShape =
        CPixelPolygon::Rectangle(0, 0, 0, 9).Union(CPixelPolygon::Rectangle(0, 9, 9, 9));
    EXPECT_TRUE(lShape.Intersect(CPixelPolygon::Rectangle(5, 2, 8, 6)).Empty()); // boxes meet, regions don't
}

TEST(CPixelPolygonUnionIntersect, AgreeWithBruteForceMaskOperations)
{
    std::mt19937_64 engine(31337);
    int singleRegionUnions = 0;
    int singleRegionIntersections = 0;
    for (int trial = 0; trial < 150; ++trial) {
        const CPixelPolygon a = RandomBlob(engine, 14, 0.6, 0, 0);
        const CPixelPolygon b = RandomBlob(engine, 14, 0.6, static_cast<int>(engine() % 13) - 6,
                                           static_cast<int>(engine() % 13) - 6);
        const PixelSet ra = RegionOf(a), rb = RegionOf(b);
        // Brute force over a frame holding both.
        const int ox = -8, oy = -8, w = 32, h = 32;
        std::vector<unsigned char> uni(static_cast<std::size_t>(w) * h, 0), inter(uni.size(), 0);
        for (const auto& [x, y] : ra)
            uni[static_cast<std::size_t>(y - oy) * w + (x - ox)] = 1;
        for (const auto& [x, y] : rb) {
            const std::size_t i = static_cast<std::size_t>(y - oy) * w + (x - ox);
            inter[i] = uni[i];
            uni[i] = 1;
        }
        int ax0, ay0, ax1, ay1, bx0, by0, bx1, by1;
        a.GetAABB(&ax0, &ay0, &ax1, &ay1);
        b.GetAABB(&bx0, &by0, &bx1, &by1);
        const bool boxesMeet =
            std::max(ax0, bx0) <= std::min(ax1, bx1) && std::max(ay0, by0) <= std::min(ay1, by1);

        const CPixelPolygon u = a.Union(b);
        if (!boxesMeet) {
            EXPECT_TRUE(u.Empty());
        } else {
            int fx = 0, fy = 0;
            ASSERT_TRUE(CContourTracer(uni.data(), 1, w, h).FindFirst(fx, fy));
            const auto comp = vorn2test::Component8(uni, w, h, fx, fy, 1);
            const auto expected = SetOfMask(vorn2test::FillHoles(comp, w, h), w, h, ox, oy);
            EXPECT_EQ(RegionOf(u), expected) << "union, trial " << trial;
            if (SetOfMask(comp, w, h).size() == SetOfMask(uni, w, h).size())
                ++singleRegionUnions;
        }

        const CPixelPolygon i = a.Intersect(b);
        int fx = 0, fy = 0;
        if (!CContourTracer(inter.data(), 1, w, h).FindFirst(fx, fy)) {
            EXPECT_TRUE(i.Empty()) << "intersection, trial " << trial;
            continue;
        }
        const auto comp = vorn2test::Component8(inter, w, h, fx, fy, 1);
        const auto expected = SetOfMask(vorn2test::FillHoles(comp, w, h), w, h, ox, oy);
        EXPECT_EQ(RegionOf(i), expected) << "intersection, trial " << trial;
        ExpectProperPolygon(i);
        if (SetOfMask(comp, w, h).size() == SetOfMask(inter, w, h).size())
            ++singleRegionIntersections;
    }
    EXPECT_GT(singleRegionUnions, 30);
    EXPECT_GT(singleRegionIntersections, 20);
}

// ---- ConvexHull -----------------------------------------------------------------------------------

TEST(CPixelPolygonConvexHull, CutsInnerCornersAndKeepsRectangles)
{
    const CPixelPolygon r = CPixelPolygon::Rectangle(2, 3, 8, 7);
    EXPECT_EQ(RegionOf(r.ConvexHull()), RegionOf(r));

    const CPixelPolygon lShape =
        CPixelPolygon::Rectangle(0, 0, 2, 9).Union(CPixelPolygon::Rectangle(0, 7, 9, 9));
    const CPixelPolygon hull = lShape.ConvexHull();
    const PixelSet l = RegionOf(lShape), hs = RegionOf(hull);
    EXPECT_TRUE(std::includes(hs.begin(), hs.end(), l.begin(), l.end()));
    EXPECT_GT(hs.size(), l.size());
    EXPECT_EQ(hs.count({5, 5}), 1u); // the inner corner is cut
    EXPECT_EQ(hs.count({8, 1}), 0u); // the outer one is not filled
    ExpectProperPolygon(hull);

    // Fewer than three hull corners give an empty polygon.
    EXPECT_TRUE(CPixelPolygon::Rectangle(0, 0, 0, 0).ConvexHull().Empty());
    EXPECT_TRUE(CPixelPolygon::Rectangle(0, 0, 5, 0).ConvexHull().Empty());
    EXPECT_TRUE(CPixelPolygon().ConvexHull().Empty());
}

TEST(CPixelPolygonConvexHull, RandomBlobsGiveConvexSupersets)
{
    std::mt19937_64 engine(2718);
    for (int trial = 0; trial < 40; ++trial) {
        const CPixelPolygon p = RandomBlob(engine, 16, 0.6, 0, 0);
        const CPixelPolygon hull = p.ConvexHull();
        if (hull.Empty())
            continue;
        const PixelSet region = RegionOf(p), hs = RegionOf(hull);
        EXPECT_TRUE(std::includes(hs.begin(), hs.end(), region.begin(), region.end())) << "trial " << trial;
        // Convex on the grid: each row and each column of the hull is one run.
        std::map<int, std::vector<int>> rows, columns;
        for (const auto& [x, y] : hs) {
            rows[y].push_back(x);
            columns[x].push_back(y);
        }
        for (auto& [y, xs] : rows)
            EXPECT_EQ(xs.back() - xs.front() + 1, static_cast<int>(xs.size())) << "row " << y;
        for (auto& [x, ys] : columns) {
            std::sort(ys.begin(), ys.end());
            EXPECT_EQ(ys.back() - ys.front() + 1, static_cast<int>(ys.size())) << "column " << x;
        }
    }
}

// ---- CreateFromPolygon ----------------------------------------------------------------------------

TEST(CPixelPolygonCreateFromPolygon, BothWindingsGiveTheSameChain)
{
    int x[] = {0, 10, 10, 0};
    int y[] = {0, 0, 6, 6};
    int start = -1, direction = 0;
    const CPixelPolygon a = CPixelPolygon::CreateFromPolygon(x, y, 4, &start, &direction);
    EXPECT_EQ(start, 0);
    EXPECT_EQ(direction, -1); // positive shoelace area (clockwise on the screen): walked backwards
    EXPECT_EQ(RegionOf(a), RegionOf(CPixelPolygon::Rectangle(0, 0, 10, 6)));
    EXPECT_EQ(a.GetArea(), 77);
    int rx[] = {0, 0, 10, 10};
    int ry[] = {0, 6, 6, 0};
    const CPixelPolygon b = CPixelPolygon::CreateFromPolygon(rx, ry, 4, &start, &direction);
    EXPECT_EQ(direction, 1);
    EXPECT_EQ(ChainOf(a), ChainOf(b));

    int twoX[] = {0, 5};
    int twoY[] = {0, 5};
    start = 42;
    direction = 42;
    EXPECT_TRUE(CPixelPolygon::CreateFromPolygon(twoX, twoY, 2, &start, &direction).Empty());
    EXPECT_EQ(start, 42);
    EXPECT_EQ(direction, 42);
}

TEST(CPixelPolygonCreateFromPolygon, LabelsTieEveryPixelToANeighbouringEdge)
{
    int x[] = {3, 20, 12, 1};
    int y[] = {2, 5, 18, 11};
    int start = -1;
    const CPixelPolygon p = CPixelPolygon::CreateFromPolygon(x, y, 4, &start, nullptr);
    EXPECT_EQ(start, 0);
    ExpectProperPolygon(p);
    int labelled = 0;
    for (auto it = p.GetMarginIterator(); it; ++it) {
        ASSERT_TRUE(it->label);
        ASSERT_EQ(*it->labelType, typeid(CPixelPolygon::PixelLabel));
        const auto& label = *static_cast<const CPixelPolygon::PixelLabel*>(it->label.get());
        const int diff = (label.endVertex - label.startVertex + 4) % 4;
        EXPECT_TRUE(diff == 1 || diff == 3) << label.startVertex << " " << label.endVertex;
        EXPECT_GE(label.t, -0.1f);
        EXPECT_LE(label.t, 1.1f);
        // The pixel lies near its edge's point at parameter t.
        const float ex = x[label.startVertex] + label.t * (x[label.endVertex] - x[label.startVertex]);
        const float ey = y[label.startVertex] + label.t * (y[label.endVertex] - y[label.startVertex]);
        EXPECT_LT(std::hypot(ex - it->x, ey - it->y), 1.0f);
        ++labelled;
    }
    EXPECT_EQ(labelled, static_cast<int>(p.Size()));
    // Vertices inside the outline, corners on it.
    EXPECT_EQ(p.Classify(10, 10), CPixelPolygon::eArea);
    EXPECT_EQ(p.Classify(3, 2), CPixelPolygon::eMargin);
    EXPECT_EQ(p.Classify(25, 25), CPixelPolygon::eOutside);
}

TEST(CPixelPolygonCreateFromPolygon, ZeroLengthEdgeGetsHalfParameter)
{
    int x[] = {0, 0, 6, 0};
    int y[] = {0, 0, 3, 6};
    const CPixelPolygon p = CPixelPolygon::CreateFromPolygon(x, y, 4, nullptr, nullptr);
    ASSERT_FALSE(p.Empty());
    for (auto it = p.GetMarginIterator(); it; ++it) {
        const auto& label = *static_cast<const CPixelPolygon::PixelLabel*>(it->label.get());
        EXPECT_FALSE(std::isnan(label.t));
        if (x[label.startVertex] == x[label.endVertex] && y[label.startVertex] == y[label.endVertex]) {
            EXPECT_EQ(label.t, 0.5f);
        }
    }
}

TEST(CPixelPolygonCreateFromPolygon, CellWalkingCoversEveryCellTheEdgesCross)
{
    double x[] = {0.5, 9.5, 4.2};
    double y[] = {0.5, 2.5, 8.7};
    int start = -1, direction = 0;
    const CPixelPolygon p = CPixelPolygon::CreateFromPolygon(x, y, 3, &start, &direction);
    EXPECT_EQ(start, 0);
    EXPECT_EQ(direction, -1);
    ExpectProperPolygon(p);
    // Every cell that a densely sampled edge passes through is in the region.
    const PixelSet region = RegionOf(p);
    for (int e = 0; e < 3; ++e) {
        const int f = (e + 1) % 3;
        for (int k = 1; k < 1000; ++k) {
            const double t = k / 1000.0;
            const int cx = static_cast<int>(std::floor(x[e] + t * (x[f] - x[e])));
            const int cy = static_cast<int>(std::floor(y[e] + t * (y[f] - y[e])));
            EXPECT_EQ(region.count({cx, cy}), 1u) << cx << "," << cy;
        }
    }
    double bad[] = {0.0, std::nan(""), 3.0};
    EXPECT_TRUE(CPixelPolygon::CreateFromPolygon(bad, y, 3, &start, &direction).Empty());
    double far[] = {0.0, 4e9, 3.0};
    EXPECT_TRUE(CPixelPolygon::CreateFromPolygon(far, y, 3, nullptr, nullptr).Empty());
}

TEST(CPixelPolygonCreateFromPolygon, ClampedTwoPixelLinesStayInTheBox)
{
    double x[] = {-5.0, 30.0, 12.0};
    double y[] = {4.0, 6.0, 40.0};
    const CPixelPolygon p = CPixelPolygon::CreateFromPolygon(x, y, 3, 0, 0, 20, 20, nullptr, nullptr);
    ASSERT_FALSE(p.Empty());
    ExpectProperPolygon(p);
    int x0, y0, x1, y1;
    ASSERT_TRUE(p.GetAABB(&x0, &y0, &x1, &y1));
    EXPECT_GE(x0, 0);
    EXPECT_GE(y0, 0);
    EXPECT_LE(x1, 20);
    EXPECT_LE(y1, 20);
    // Inside the box, the pixels along each edge are on the outline, with one of the pair of
    // minor coordinates; the region holds the edge's pixel at every major step.
    const PixelSet region = RegionOf(p);
    for (int xi = 1; xi < 20; ++xi) {
        const double yy = 4.0 + (xi + 5.0) * 2.0 / 35.0;
        EXPECT_EQ(region.count({xi, static_cast<int>(yy)}), 1u) << xi;
    }
    // Unclamped where the box holds the whole polygon: the same outline for both windings.
    double sx[] = {2.0, 12.0, 7.0};
    double sy[] = {2.0, 3.0, 11.0};
    double rx[] = {7.0, 12.0, 2.0};
    double ry[] = {11.0, 3.0, 2.0};
    const CPixelPolygon a = CPixelPolygon::CreateFromPolygon(sx, sy, 3, 0, 0, 100, 100, nullptr, nullptr);
    const CPixelPolygon b = CPixelPolygon::CreateFromPolygon(rx, ry, 3, 0, 0, 100, 100, nullptr, nullptr);
    EXPECT_EQ(ChainOf(a), ChainOf(b));
}

// ---- von Neumann neighbourhood --------------------------------------------------------------------

TEST(CPixelPolygonVonNeumann, OutsideNeighboursLabelledWithTheirMarginPixel)
{
    const CPixelPolygon r = CPixelPolygon::Rectangle(0, 0, 2, 2);
    const auto neighbours = r.GetVonNeumannNeighborhood();
    EXPECT_EQ(neighbours.size(), 12u);
    for (const ChainedPixel& n : neighbours) {
        EXPECT_EQ(r.Classify(n.x, n.y), CPixelPolygon::eOutside);
        ASSERT_EQ(*n.labelType, typeid(ChainedPixel));
        const auto& owner = *static_cast<const ChainedPixel*>(n.label.get());
        EXPECT_EQ(std::abs(owner.x - n.x) + std::abs(owner.y - n.y), 1);
        EXPECT_EQ(r.Classify(owner.x, owner.y), CPixelPolygon::eMargin);
    }
    // The first chain pixel (0, 0), reached from (1, 0), is looked at right, up, left, down.
    EXPECT_EQ(neighbours[0], ChainedPixel(0, -1));
    EXPECT_EQ(neighbours[1], ChainedPixel(-1, 0));

    // An inner corner: the outside pixel next to two margin pixels comes twice.
    const CPixelPolygon lShape =
        CPixelPolygon::Rectangle(0, 0, 1, 3).Union(CPixelPolygon::Rectangle(0, 2, 3, 3));
    const auto lNeighbours = lShape.GetVonNeumannNeighborhood();
    EXPECT_EQ(std::count(lNeighbours.begin(), lNeighbours.end(), ChainedPixel(2, 1)), 2);
    // A one-pixel-wide arm lists its pixels twice in the chain, and so their neighbours twice.
    const CPixelPolygon thin =
        CPixelPolygon::Rectangle(0, 0, 0, 2).Union(CPixelPolygon::Rectangle(0, 2, 2, 2));
    const auto thinNeighbours = thin.GetVonNeumannNeighborhood();
    EXPECT_EQ(std::count(thinNeighbours.begin(), thinNeighbours.end(), ChainedPixel(1, 1)), 4);

    const auto single = CPixelPolygon::Rectangle(3, 3, 3, 3).GetVonNeumannNeighborhood();
    EXPECT_EQ(single.size(), 4u);
    EXPECT_EQ(single[0], ChainedPixel(3, 2)); // from direction 0: up first
    EXPECT_TRUE(CPixelPolygon().GetVonNeumannNeighborhood().empty());
}
