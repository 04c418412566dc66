#pragma once
// DataLayer::CPixelPolygon: a region of the pixel grid held by its boundary, a closed chain of
// 8-neighbouring pixels running counterclockwise on the screen (y downward). The region is the chain
// (its margin) and everything strictly inside it (its area); there are no holes. ChainedPixel is one
// chain entry; it may carry a shared label that ties it to the edge it was rasterised from.
//
// Ownership: polygons are values that own their chain; labels are shared between copies through
// std::shared_ptr. The interior spans are a cache built on the first query that needs them, so the
// const queries of a polygon whose cache is still empty write; a polygon shared between threads
// gets one GetAreaIterator() call beforehand, after which const use from several threads is safe.
//
// Decisions where the behaviour was open:
// - Iteration orders: a margin iterator walks the chain from its first entry to its last; the
//   combined Iterator gives first every distinct margin pixel (in the order of the margin pixel
//   set), then the interior pixels row by row, left to right. Each region pixel comes exactly once.
// - The mutable margin iterator gives write access to chain entries, meant for their labels.
//   Handing it out drops the span cache; a caller that moves pixels through it gets a chain that the
//   counts no longer describe, and Repair() makes a proper polygon of it again. No query crashes on
//   such a chain.
// - Rectangle() of a single pixel has the single-pixel perimeter 3.5449078 (the traced value), and a
//   one-pixel-wide rectangle runs there and back along its pixels. A rectangle whose area does not
//   fit an int is empty.
// - Operations that build a byte mask (Repair, Dilate, Union, Intersect, CreateFromPolygon and so
//   ConvexHull) return an empty polygon when the mask would hold more than 2^31 - 1 pixels or when a
//   result pixel would leave the int range. Shift() returns an empty polygon when a shifted pixel
//   would leave the int range.
// - Dilate(n, allowed) asks `allowed` only about pixels that a pass would newly set, in raster order
//   of each pass; the result is that of asking about every pixel, for a pure predicate.
// - ConvexHull() of a chain with fewer than three hull corners (a single pixel, a straight line) is
//   empty, as CreateFromPolygon() of fewer than three vertices is.
// - CreateFromPolygon(): a vertex that is not finite, or further than 2^30 from the origin, gives an
//   empty polygon without writing the out-arguments. In the clamped overload a zero-length edge is
//   rasterised with a slope of 0.

#include <climits>
#include <cstdint>
#include <functional>
#include <memory>
#include <typeinfo>
#include <utility>
#include <vector>

#include "datalayer/algorithms/numeric/thashset.h"

namespace DataLayer {

namespace detail {
class CContourTracer;
}

/// One entry of a boundary chain: a pixel (x column, y row) with an optional shared label.
struct ChainedPixel
{
    /// Optional payload, shared between copies of the pixel.
    std::shared_ptr<void> label;
    /// Type of the payload; typeid(void) when there is none.
    const std::type_info* labelType = &typeid(void);
    int x = INT_MIN;
    int y = INT_MIN;

    ChainedPixel() = default;
    ChainedPixel(int px, int py) : x(px), y(py) {}
    ChainedPixel(const ChainedPixel&) = default;
    ChainedPixel(ChainedPixel&&) noexcept = default;
    ChainedPixel& operator=(const ChainedPixel&) = default;
    ChainedPixel& operator=(ChainedPixel&&) noexcept = default;

    /// Coordinates only; labels play no part.
    bool operator==(const ChainedPixel& other) const { return x == other.x && y == other.y; }
    bool operator!=(const ChainedPixel& other) const { return !(*this == other); }
    /// By row, then by column.
    bool operator<(const ChainedPixel& other) const { return y < other.y || (y == other.y && x < other.x); }

    /// Squared Euclidean distance; exact while it fits 32 bits, otherwise its low 32 bits.
    unsigned int DistanceSq(const ChainedPixel& other) const { return DistanceSq(other.x, other.y); }
    unsigned int DistanceSq(int px, int py) const;

    /// Clamps x to minX..maxX and y to minY..maxY (the lower bound is applied first, so an empty
    /// range gives the upper bound).
    void Clamp(int minX, int minY, int maxX, int maxY);

    /// The hash functor of the margin pixel set: a byte-wise polynomial hash of the coordinates.
    struct hashFunc
    {
        std::uint64_t operator()(const ChainedPixel& pixel) const noexcept;
    };
};

class CPixelPolygon
{
public:
    /// Label of a pixel rasterised from the edge startVertex -> endVertex of a geometric polygon, at
    /// parameter t along that edge (the projection of the pixel, not clamped; 0.5 for a zero-length
    /// edge).
    struct PixelLabel
    {
        int startVertex;
        int endVertex;
        float t;
    };

    struct Coords
    {
        int x;
        int y;
    };

    /// Bit set of pixel classes.
    enum ECoordType
    {
        eNoCoord = 0,
        eMargin = 1,
        eArea = 2,
        eOutside = 4
    };

    /// Walks the interior pixels (strictly inside the chain) row by row. Owns its span list; copies
    /// duplicate it and keep their position.
    class AreaIterator
    {
    public:
        /// A run of interior pixels in one row, both ends included.
        struct Span
        {
            int y;
            int xBegin;
            int xEnd;
            Span* next;
        };

        AreaIterator() = default;
        /// Builds the spans of the polygon's chain and stands on the first interior pixel.
        explicit AreaIterator(const CPixelPolygon& polygon);
        AreaIterator(const AreaIterator& other);
        AreaIterator(AreaIterator&& other) noexcept;
        AreaIterator& operator=(const AreaIterator& other);
        AreaIterator& operator=(AreaIterator&& other) noexcept;
        ~AreaIterator();

        /// One column on; past the span's end to the next span; past the last span to the end.
        /// Does nothing at the end.
        AreaIterator& operator++();
        Coords operator*() const { return {m_x, m_current ? m_current->y : -1}; }
        /// Points into the iterator; valid until it is changed.
        const Coords* operator->() const
        {
            m_coords = **this;
            return &m_coords;
        }
        explicit operator bool() const { return m_current != nullptr; }
        /// Positions in one list: equal span node and column.
        bool operator==(const AreaIterator& other) const
        {
            return m_current == other.m_current && m_x == other.m_x;
        }
        bool operator!=(const AreaIterator& other) const { return !(*this == other); }

        /// True if a span holds (x, y); walks the list from its head and stops past row y.
        bool IsInside(int x, int y) const;

        /// Head of the span list (null when there is no interior), for reading.
        const Span* FirstSpan() const { return m_first; }

    private:
        void clear() noexcept;
        void copyFrom(const AreaIterator& other);

        Span* m_first = nullptr;
        Span* m_current = nullptr;
        int m_x = -1;
        mutable Coords m_coords{};
    };

    /// Walks the chain in order, from its first entry to its last. IsConst 0 gives write access to
    /// the entries, 1 read access. Null (converts to false) for an empty polygon.
    template <int IsConst> class MarginIteratorTemplate
    {
        using Polygon = std::conditional_t<IsConst != 0, const CPixelPolygon, CPixelPolygon>;
        using Pixel = std::conditional_t<IsConst != 0, const ChainedPixel, ChainedPixel>;

    public:
        MarginIteratorTemplate() = default;
        explicit MarginIteratorTemplate(Polygon& polygon)
            : m_polygon(polygon.m_chain.empty() ? nullptr : &polygon), m_position(0)
        {
        }
        Pixel& operator*() const { return m_polygon->m_chain[m_position]; }
        Pixel* operator->() const { return &m_polygon->m_chain[m_position]; }
        MarginIteratorTemplate& operator++()
        {
            if (*this)
                ++m_position;
            return *this;
        }
        explicit operator bool() const { return m_polygon && m_position < m_polygon->m_chain.size(); }
        /// Index of the entry in the chain.
        std::size_t Position() const { return m_position; }
        bool operator==(const MarginIteratorTemplate& other) const
        {
            return m_polygon == other.m_polygon && m_position == other.m_position;
        }
        bool operator!=(const MarginIteratorTemplate& other) const { return !(*this == other); }

    private:
        Polygon* m_polygon = nullptr;
        std::size_t m_position = 0;
    };

    using MarginPixelSet = THashSet<ChainedPixel, ChainedPixel::hashFunc, std::equal_to<ChainedPixel>>;

    /// Every pixel of the region exactly once: the distinct margin pixels in set order, then the
    /// interior pixels in span order.
    class Iterator
    {
    public:
        Iterator() = default;
        explicit Iterator(const CPixelPolygon& polygon);
        Iterator(const Iterator& other);
        Iterator(Iterator&& other) noexcept;
        Iterator& operator=(const Iterator& other);
        Iterator& operator=(Iterator&& other) noexcept;

        Coords operator*() const;
        const Coords* operator->() const
        {
            m_coords = **this;
            return &m_coords;
        }
        Iterator& operator++();
        explicit operator bool() const { return m_marginIt != m_margin.end() || static_cast<bool>(m_area); }
        /// True while the iterator stands on a margin pixel.
        bool OnMargin() const { return m_marginIt != m_margin.end(); }

    private:
        MarginPixelSet m_margin;
        MarginPixelSet::const_iterator m_marginIt = m_margin.end();
        AreaIterator m_area;
        mutable Coords m_coords{};
    };

    CPixelPolygon() = default;
    CPixelPolygon(const CPixelPolygon& other);
    CPixelPolygon(CPixelPolygon&& other) noexcept;
    CPixelPolygon& operator=(const CPixelPolygon& other);
    CPixelPolygon& operator=(CPixelPolygon&& other) noexcept;
    ~CPixelPolygon();

    /// The axis-aligned rectangle with corners (x0, y0) and (x1, y1), both included, in any order.
    /// Its chain starts at the top-left corner and runs down the left side. Empty when the area
    /// does not fit an int.
    static CPixelPolygon Rectangle(int x0, int y0, int x1, int y1);

    void Clear();
    bool Empty() const { return m_chain.empty(); }
    /// Number of chain entries (a pixel visited twice counts twice).
    unsigned long long Size() const { return m_chain.size(); }
    /// Pixels of the region, margin included.
    int GetArea() const { return m_area; }
    /// GetArea() less Size().
    int GetEnclosedArea() const { return m_area - static_cast<int>(m_chain.size()); }
    float GetPerimeter() const { return m_perimeter; }
    /// Perimeter squared over area, in floats (about 12.57 for a circle; NaN when empty).
    float GetRoundness() const { return m_perimeter * m_perimeter / static_cast<float>(m_area); }
    /// Bounding box of the chain; false for an empty polygon, which leaves the arguments alone.
    /// Each pointer may be null.
    bool GetAABB(int* minX, int* minY, int* maxX, int* maxY) const;
    /// Mean of x and of y over the chain entries (as they stand) and the interior pixels; NaN for an
    /// empty polygon.
    std::pair<double, double> GetCenterOfGravity() const;
    /// Chains compared entry by entry up to the shorter length, by coordinates; an empty polygon
    /// equals every polygon.
    bool operator==(const CPixelPolygon& other) const;
    bool operator!=(const CPixelPolygon& other) const { return !(*this == other); }

    /// eNoCoord for an empty polygon, eArea inside, eMargin on the chain, eOutside otherwise.
    ECoordType Classify(int x, int y) const;
    ECoordType Classify(const Coords& c) const { return Classify(c.x, c.y); }
    /// Bitwise or of Classify over the chain of `other`; 0 if either polygon is empty.
    int Classify(const CPixelPolygon& other) const;
    /// True if (x, y) lies strictly inside (a margin pixel is not inside).
    bool IsInside(int x, int y) const;
    bool IsInside(const Coords& c) const { return IsInside(c.x, c.y); }
    /// True if every chain pixel of this polygon lies strictly inside `other`; false if either is
    /// empty. a.IsInside(b) asks whether a lies in b.
    bool IsInside(const CPixelPolygon& other) const;

    /// An independent copy of the span iterator, standing on the first interior pixel.
    AreaIterator GetAreaIterator() const { return getAreaIteratorRef(); }
    /// Write access to the chain entries; drops the span cache.
    MarginIteratorTemplate<0> GetMarginIterator();
    MarginIteratorTemplate<1> GetMarginIterator() const { return MarginIteratorTemplate<1>(*this); }
    /// All chain pixels, duplicates merged (the first entry of each pixel is kept).
    MarginPixelSet GetMarginPixelSet() const;
    Iterator GetAreaAndMarginIterator() const { return Iterator(*this); }

    // ---- operations: each returns a new polygon and leaves the operands alone ----

    /// A proper polygon from any chain: the outer boundary of the 8-connected set of chain pixels
    /// that holds the first of them in raster order, with labels carried over.
    CPixelPolygon Repair() const;
    /// Grows the region by n pixels in all 8 directions; labels are dropped unless n is 0.
    CPixelPolygon Dilate(unsigned int n) const;
    /// As Dilate(n), where a pixel is only added where allowed(x, y) holds (polygon coordinates).
    CPixelPolygon Dilate(unsigned int n, std::function<bool(int, int)> allowed) const;
    /// The region holding the first pixel in raster order of both regions painted into their common
    /// box; empty if either is empty or the bounding boxes share no pixel.
    CPixelPolygon Union(const CPixelPolygon& other) const;
    /// The part of the common pixels holding the first of them in raster order; empty when there is
    /// none.
    CPixelPolygon Intersect(const CPixelPolygon& other) const;
    /// Gift wrapping of the chain pixels, rasterised through CreateFromPolygon.
    CPixelPolygon ConvexHull() const;
    /// The chain moved by (dx, dy), labels kept, no cached spans.
    CPixelPolygon Shift(int dx, int dy) const;
    /// For each chain entry, its 4-neighbours that lie outside the region, each labelled with a
    /// shared copy of that entry (label type ChainedPixel).
    std::vector<ChainedPixel> GetVonNeumannNeighborhood() const;

    /// Rasterises the closed polygon of `count` integer vertices with Bresenham lines. Fewer than 3
    /// vertices give an empty polygon and leave the out-arguments alone. *startVertex receives the
    /// topmost-leftmost vertex, *direction the walking direction (-1 or +1); both may be null.
    static CPixelPolygon CreateFromPolygon(int* x, int* y, unsigned int count, int* startVertex,
                                           int* direction);
    /// As above for real vertices: every pixel cell that an edge passes through.
    static CPixelPolygon CreateFromPolygon(double* x, double* y, unsigned int count, int* startVertex,
                                           int* direction);
    /// As above with two-pixel anti-aliased lines whose pixels are clamped to the box.
    static CPixelPolygon CreateFromPolygon(double* x, double* y, unsigned int count, int minX, int minY,
                                           int maxX, int maxY, int* startVertex, int* direction);

private:
    friend class detail::CContourTracer;
    template <int> friend class MarginIteratorTemplate;

    CPixelPolygon(const std::vector<ChainedPixel>& chain, int area, float perimeter);
    CPixelPolygon(std::vector<ChainedPixel>&& chain, int area, float perimeter);

    AreaIterator& getAreaIteratorRef() const;
    const std::vector<ChainedPixel>* getPixelChainPtr() const { return m_chain.empty() ? nullptr : &m_chain; }
    std::vector<ChainedPixel>* getPixelChainPtr() { return m_chain.empty() ? nullptr : &m_chain; }

    std::vector<ChainedPixel> m_chain;
    int m_area = 0;
    float m_perimeter = 0.0f;
    mutable std::unique_ptr<AreaIterator> m_areaIterator;
};

} // namespace DataLayer
