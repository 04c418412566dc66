// The pixel polygon model: pixels and their hash, rectangles, the queries, the span construction and
// the three iterators.
#include <algorithm>
#include <cmath>
#include <gtest/gtest.h>
#include <set>
#include <utility>
#include <vector>

#include "datalayer/algorithms/regions/cpixelpolygon.h"

using DataLayer::ChainedPixel;
using DataLayer::CPixelPolygon;

namespace {

std::vector<std::pair<int, int>> ChainOf(const CPixelPolygon& polygon)
{
    std::vector<std::pair<int, int>> out;
    for (auto it = polygon.GetMarginIterator(); it; ++it)
        out.emplace_back(it->x, it->y);
    return out;
}

std::set<std::pair<int, int>> InteriorOf(const CPixelPolygon& polygon)
{
    std::set<std::pair<int, int>> out;
    for (auto it = polygon.GetAreaIterator(); it; ++it)
        EXPECT_TRUE(out.emplace(it->x, it->y).second) << "interior pixel listed twice";
    return out;
}

} // namespace

TEST(ChainedPixel, DefaultsCompareAndMeasure)
{
    const ChainedPixel none;
    EXPECT_EQ(none.x, INT_MIN);
    EXPECT_EQ(none.y, INT_MIN);
    EXPECT_FALSE(none.label);
    EXPECT_EQ(*none.labelType, typeid(void));

    EXPECT_TRUE(ChainedPixel(1, 2) < ChainedPixel(0, 3)); // the row decides first
    EXPECT_FALSE(ChainedPixel(0, 3) < ChainedPixel(1, 2));
    EXPECT_TRUE(ChainedPixel(0, 2) < ChainedPixel(1, 2));

    ChainedPixel labelled(4, 5);
    labelled.label = std::make_shared<int>(7);
    labelled.labelType = &typeid(int);
    EXPECT_EQ(labelled, ChainedPixel(4, 5)); // labels play no part
    EXPECT_NE(labelled, ChainedPixel(5, 4));

    EXPECT_EQ(ChainedPixel(1, 2).DistanceSq(ChainedPixel(4, 6)), 25u);
    EXPECT_EQ(ChainedPixel(-3, 0).DistanceSq(0, -4), 25u);
    // Far apart pixels give the low 32 bits of the exact value 2 (2^32 - 2)^2 = 2^65 - 2^35 + 8.
    EXPECT_EQ(ChainedPixel(INT_MIN + 1, INT_MIN + 1).DistanceSq(INT_MAX, INT_MAX), 8u);
    EXPECT_EQ(ChainedPixel(0, 0).DistanceSq(65536, 0), 0u); // 2^32 wraps to 0

    ChainedPixel p(-5, 20);
    p.Clamp(0, 0, 10, 10);
    EXPECT_EQ(p, ChainedPixel(0, 10));
    p.Clamp(3, 3, 1, 1); // an empty range gives the upper bound
    EXPECT_EQ(p, ChainedPixel(1, 1));
}

TEST(ChainedPixel, HashMatchesTheBytewisePolynomial)
{
    // Reference values computed independently from the byte-wise definition.
    const ChainedPixel::hashFunc hash;
    EXPECT_EQ(hash(ChainedPixel(0, 0)), 0xbabe1ecb8d6b68ull);
    EXPECT_EQ(hash(ChainedPixel(3, -2)), 0xf5995b75c8723d98ull);
    EXPECT_EQ(hash(ChainedPixel(-1, -1)), 0x37b3eae7ded6c3f8ull);
    EXPECT_EQ(hash(ChainedPixel(123456, 7)), 0xa4b916d11823f230ull);
}

TEST(CPixelPolygon, RectangleChainCountsAndInterior)
{
    const CPixelPolygon r = CPixelPolygon::Rectangle(0, 0, 2, 2);
    EXPECT_EQ(r.Size(), 8u);
    EXPECT_EQ(r.GetArea(), 9);
    EXPECT_EQ(r.GetEnclosedArea(), 1);
    EXPECT_FLOAT_EQ(r.GetPerimeter(), 8.0f);
    const std::vector<std::pair<int, int>> expected = {{0, 0}, {0, 1}, {0, 2}, {1, 2},
                                                       {2, 2}, {2, 1}, {2, 0}, {1, 0}};
    EXPECT_EQ(ChainOf(r), expected);
    EXPECT_EQ(InteriorOf(r), (std::set<std::pair<int, int>>{{1, 1}}));

    // Corners in any order give the same chain.
    const CPixelPolygon swapped = CPixelPolygon::Rectangle(2, 3, 0, 1);
    EXPECT_EQ(ChainOf(swapped), ChainOf(CPixelPolygon::Rectangle(0, 1, 2, 3)));

    const CPixelPolygon big = CPixelPolygon::Rectangle(-3, 5, 6, 9);
    EXPECT_EQ(big.GetArea(), 50);
    EXPECT_FLOAT_EQ(big.GetPerimeter(), 2.0f * (9 + 4));
    EXPECT_EQ(static_cast<int>(InteriorOf(big).size()), big.GetEnclosedArea());
}

TEST(CPixelPolygon, DegenerateRectangles)
{
    const CPixelPolygon dot = CPixelPolygon::Rectangle(4, 4, 4, 4);
    EXPECT_EQ(dot.Size(), 1u);
    EXPECT_EQ(dot.GetArea(), 1);
    EXPECT_FLOAT_EQ(dot.GetPerimeter(), 3.5449078f);
    EXPECT_NEAR(dot.GetRoundness(), 12.566f, 1e-3f);

    // One pixel wide: the chain runs there and back, successive pixels stay neighbours.
    const CPixelPolygon column = CPixelPolygon::Rectangle(1, 0, 1, 3);
    const std::vector<std::pair<int, int>> expected = {{1, 0}, {1, 1}, {1, 2}, {1, 3}, {1, 2}, {1, 1}};
    EXPECT_EQ(ChainOf(column), expected);
    EXPECT_EQ(column.GetArea(), 4);
    EXPECT_FLOAT_EQ(column.GetPerimeter(), 6.0f);
    EXPECT_FALSE(column.GetAreaIterator());

    const CPixelPolygon row = CPixelPolygon::Rectangle(0, 7, 2, 7);
    const std::vector<std::pair<int, int>> expectedRow = {{0, 7}, {1, 7}, {2, 7}, {1, 7}};
    EXPECT_EQ(ChainOf(row), expectedRow);

    EXPECT_FALSE(CPixelPolygon::Rectangle(0, 0, 1, 1).GetAreaIterator());
    // An area beyond the int range is refused.
    EXPECT_TRUE(CPixelPolygon::Rectangle(0, 0, 65536, 65536).Empty());
}

TEST(CPixelPolygon, EmptyPolygonQueries)
{
    const CPixelPolygon empty;
    EXPECT_TRUE(empty.Empty());
    EXPECT_EQ(empty.GetArea(), 0);
    EXPECT_EQ(empty.GetPerimeter(), 0.0f);
    int sentinel = 99;
    EXPECT_FALSE(empty.GetAABB(&sentinel, nullptr, nullptr, &sentinel));
    EXPECT_EQ(sentinel, 99);
    EXPECT_EQ(empty.Classify(0, 0), CPixelPolygon::eNoCoord);
    EXPECT_FALSE(empty.IsInside(0, 0));
    EXPECT_FALSE(empty.GetAreaIterator());
    EXPECT_FALSE(empty.GetMarginIterator());
    EXPECT_FALSE(empty.GetAreaAndMarginIterator());
    const auto cog = empty.GetCenterOfGravity();
    EXPECT_TRUE(std::isnan(cog.first) && std::isnan(cog.second));
    EXPECT_TRUE(std::isnan(empty.GetRoundness()));
    // An empty polygon equals every polygon, and a prefix equals the longer chain.
    const CPixelPolygon r = CPixelPolygon::Rectangle(0, 0, 3, 3);
    EXPECT_TRUE(empty == r);
    EXPECT_TRUE(r == empty);
    EXPECT_FALSE(r == CPixelPolygon::Rectangle(1, 0, 3, 3));
    EXPECT_EQ(empty.Classify(r), 0);
    EXPECT_EQ(r.Classify(empty), 0);
    EXPECT_FALSE(empty.IsInside(r));
    EXPECT_FALSE(r.IsInside(empty));
}

TEST(CPixelPolygon, ClassifyPointsAndPolygons)
{
    const CPixelPolygon r = CPixelPolygon::Rectangle(0, 0, 2, 2);
    EXPECT_EQ(r.Classify(1, 1), CPixelPolygon::eArea);
    EXPECT_EQ(r.Classify(CPixelPolygon::Coords{0, 0}), CPixelPolygon::eMargin);
    EXPECT_EQ(r.Classify(5, 5), CPixelPolygon::eOutside);
    EXPECT_TRUE(r.IsInside(1, 1));
    EXPECT_FALSE(r.IsInside(0, 0)); // a margin pixel is not inside
    EXPECT_FALSE(r.IsInside(CPixelPolygon::Coords{3, 1}));

    const CPixelPolygon outer = CPixelPolygon::Rectangle(0, 0, 10, 10);
    const CPixelPolygon inner = CPixelPolygon::Rectangle(3, 3, 6, 6);
    const CPixelPolygon far = CPixelPolygon::Rectangle(20, 20, 22, 22);
    const CPixelPolygon crossing = CPixelPolygon::Rectangle(8, 4, 14, 5);
    EXPECT_EQ(outer.Classify(inner), CPixelPolygon::eArea);
    EXPECT_EQ(outer.Classify(far), CPixelPolygon::eOutside);
    EXPECT_EQ(outer.Classify(crossing),
              CPixelPolygon::eArea | CPixelPolygon::eMargin | CPixelPolygon::eOutside);
    EXPECT_TRUE(inner.IsInside(outer)); // mind the direction
    EXPECT_FALSE(outer.IsInside(inner));
    EXPECT_FALSE(crossing.IsInside(outer));
    EXPECT_FALSE(outer.IsInside(outer)); // its margin is not inside itself
}

TEST(CPixelPolygon, CenterOfGravityCountsChainEntriesAndInterior)
{
    const auto cog = CPixelPolygon::Rectangle(2, 4, 6, 10).GetCenterOfGravity();
    EXPECT_DOUBLE_EQ(cog.first, 4.0);
    EXPECT_DOUBLE_EQ(cog.second, 7.0);
    // A one-pixel-wide rectangle lists its inner pixels twice, and the mean counts them as they stand.
    const auto line = CPixelPolygon::Rectangle(0, 0, 0, 2).GetCenterOfGravity();
    EXPECT_DOUBLE_EQ(line.second, (0 + 1 + 2 + 1) / 4.0);
}

TEST(CPixelPolygon, CopiesAndMovesKeepTheValueAndTheCache)
{
    const CPixelPolygon r = CPixelPolygon::Rectangle(0, 0, 4, 3);
    const auto interior = InteriorOf(r); // fills the cache
    CPixelPolygon copy(r);
    EXPECT_EQ(ChainOf(copy), ChainOf(r));
    EXPECT_EQ(InteriorOf(copy), interior);
    CPixelPolygon moved(std::move(copy));
    EXPECT_EQ(moved.GetArea(), 20);
    EXPECT_EQ(InteriorOf(moved), interior);
    EXPECT_TRUE(copy.Empty()); // NOLINT(bugprone-use-after-move): a moved-from polygon is empty
    CPixelPolygon assigned;
    assigned = moved;
    EXPECT_EQ(InteriorOf(assigned), interior);
    assigned.Clear();
    EXPECT_TRUE(assigned.Empty());
    EXPECT_EQ(assigned.GetArea(), 0);
    EXPECT_FALSE(assigned.GetAreaIterator());
}

TEST(CPixelPolygonAreaIterator, StepsCopiesAndCompares)
{
    const CPixelPolygon r = CPixelPolygon::Rectangle(0, 0, 3, 3); // interior (1..2) x (1..2)
    auto it = r.GetAreaIterator();
    ASSERT_TRUE(it);
    EXPECT_EQ(it->x, 1);
    EXPECT_EQ(it->y, 1);
    ++it;
    auto copy = it; // duplicates the spans and keeps the position
    EXPECT_EQ((*copy).x, 2);
    EXPECT_EQ((*copy).y, 1);
    EXPECT_NE(copy, it); // different lists
    auto next = it;
    next = it;
    ++it;
    EXPECT_EQ(it->x, 1);
    EXPECT_EQ(it->y, 2);
    ++it;
    ++it;
    EXPECT_FALSE(it);
    EXPECT_EQ((*it).x, -1);
    ++it; // at the end it stays there
    EXPECT_FALSE(it);
    EXPECT_TRUE(it.IsInside(2, 2));
    EXPECT_FALSE(it.IsInside(3, 2));
    EXPECT_FALSE(CPixelPolygon::AreaIterator().IsInside(0, 0));
    // Stepping a copy leaves the polygon's cache alone.
    EXPECT_EQ(r.GetAreaIterator()->x, 1);
}

TEST(CPixelPolygonIterators, MarginAndCombinedIteratorsVisitEachPixelOnce)
{
    CPixelPolygon r = CPixelPolygon::Rectangle(0, 0, 4, 2);
    // The mutable margin iterator can set labels.
    int labelled = 0;
    for (auto it = r.GetMarginIterator(); it; ++it) {
        it->label = std::make_shared<int>(static_cast<int>(it.Position()));
        it->labelType = &typeid(int);
        ++labelled;
    }
    EXPECT_EQ(labelled, 12);
    EXPECT_EQ(*static_cast<int*>((*r.GetMarginIterator()).label.get()), 0);

    std::set<std::pair<int, int>> seen;
    int margin = 0;
    auto it = r.GetAreaAndMarginIterator();
    auto copy = it;
    for (; it; ++it) {
        EXPECT_TRUE(seen.emplace(it->x, it->y).second);
        margin += it.OnMargin() ? 1 : 0;
    }
    EXPECT_EQ(static_cast<int>(seen.size()), r.GetArea());
    EXPECT_EQ(margin, 12);
    // A copy made at the start walks the same pixels, and so does a moved iterator.
    int counted = 0;
    auto moved = std::move(copy);
    for (; moved; ++moved)
        ++counted;
    EXPECT_EQ(counted, r.GetArea());
    // A copy taken in the middle of the margin goes on from the same pixel with the same order.
    auto walker = r.GetAreaAndMarginIterator();
    for (int k = 0; k < 5; ++k)
        ++walker;
    auto middle = walker;
    auto assigned = r.GetAreaAndMarginIterator();
    assigned = walker;
    for (; walker; ++walker, ++middle, ++assigned) {
        ASSERT_TRUE(middle);
        EXPECT_EQ(middle->x, walker->x);
        EXPECT_EQ(middle->y, walker->y);
        EXPECT_EQ((*assigned).x, walker->x);
    }
    EXPECT_FALSE(middle);
}

TEST(CPixelPolygon, MarginPixelSetMergesRepeatedPixels)
{
    const CPixelPolygon line = CPixelPolygon::Rectangle(0, 0, 0, 3); // 6 entries, 4 pixels
    const auto set = line.GetMarginPixelSet();
    EXPECT_EQ(line.Size(), 6u);
    EXPECT_EQ(set.Size(), 4u);
    EXPECT_TRUE(set.Find(ChainedPixel(0, 3)) != set.end());
    EXPECT_TRUE(set.Find(ChainedPixel(1, 3)) == set.end());
}
