#include "datalayer/algorithms/regions/cpixelpolygon.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "datalayer/algorithms/regions/ccontourtracer.h"

namespace DataLayer {

namespace {

constexpr float kSinglePixelPerimeter = 3.5449078f; // sqrt(4 pi)

// Sortable key of a pixel: row first, then column, both as unsigned offsets from INT_MIN.
inline std::uint64_t PixelKey(int x, int y)
{
    return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(y) ^ 0x80000000u) << 32) |
           (static_cast<std::uint32_t>(x) ^ 0x80000000u);
}

inline int KeyX(std::uint64_t key)
{
    return static_cast<int>(static_cast<std::uint32_t>(key) ^ 0x80000000u);
}
inline int KeyY(std::uint64_t key)
{
    return static_cast<int>(static_cast<std::uint32_t>(key >> 32) ^ 0x80000000u);
}

} // namespace

// ---- ChainedPixel ---------------------------------------------------------------------------------

unsigned int ChainedPixel::DistanceSq(int px, int py) const
{
    const std::uint64_t dx = static_cast<std::uint64_t>(static_cast<std::int64_t>(x) - px);
    const std::uint64_t dy = static_cast<std::uint64_t>(static_cast<std::int64_t>(y) - py);
    return static_cast<unsigned int>(dx * dx + dy * dy);
}

void ChainedPixel::Clamp(int minX, int minY, int maxX, int maxY)
{
    x = std::min(std::max(x, minX), maxX);
    y = std::min(std::max(y, minY), maxY);
}

std::uint64_t ChainedPixel::hashFunc::operator()(const ChainedPixel& pixel) const noexcept
{
    const std::uint64_t k = static_cast<std::uint32_t>(pixel.x) |
                            (static_cast<std::uint64_t>(static_cast<std::uint32_t>(pixel.y)) << 32);
    const std::uint64_t a = k ^ 0x4ed3aa62ull;
    const std::uint64_t b = k ^ 0x363f7706ull;
    auto byteOf = [](std::uint64_t v, int i) { return (v >> (8 * i)) & 0xFFu; };
    std::uint64_t h = 0;
    for (int i = 0; i < 8; ++i) {
        h = h * 11 + byteOf(a, i);
        h = h * 11 + byteOf(b, i);
    }
    std::uint64_t g = 0;
    for (int i = 0; i < 8; ++i) {
        g = g * 11 + (byteOf(a, i) >> 4);
        if (i < 7)
            g = g * 11 + (byteOf(b, i) >> 4);
    }
    return (g * 11 + (h << 4) + (byteOf(b, 7) >> 4)) * 11;
}

// ---- AreaIterator ---------------------------------------------------------------------------------
// The spans live in one array, linked in order; m_first is that array.

CPixelPolygon::AreaIterator::AreaIterator(const CPixelPolygon& polygon)
{
    const std::vector<ChainedPixel>& chain = polygon.m_chain;
    const std::size_t n = chain.size();
    if (n == 0)
        return;

    // 1. Weight of each chain pixel: the sum of q.y - p.y over the steps p -> q that touch it.
    struct SEntry
    {
        std::uint64_t key;
        std::int64_t weight;
    };
    std::vector<SEntry> entries;
    entries.reserve(2 * n);
    for (std::size_t k = 0; k < n; ++k) {
        const ChainedPixel& p = chain[k];
        const ChainedPixel& q = chain[k + 1 == n ? 0 : k + 1];
        const std::int64_t dy = static_cast<std::int64_t>(q.y) - p.y;
        entries.push_back({PixelKey(p.x, p.y), dy});
        entries.push_back({PixelKey(q.x, q.y), dy});
    }
    std::sort(entries.begin(), entries.end(), [](const SEntry& l, const SEntry& r) { return l.key < r.key; });
    std::size_t merged = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (merged > 0 && entries[merged - 1].key == entries[i].key)
            entries[merged - 1].weight += entries[i].weight;
        else
            entries[merged++] = entries[i];
    }
    entries.resize(merged);

    // 2. Row by row, the runs between the crossings of the chain.
    std::vector<Span> spans;
    std::size_t rowBegin = 0;
    while (rowBegin < entries.size()) {
        const int row = KeyY(entries[rowBegin].key);
        std::size_t rowEnd = rowBegin;
        while (rowEnd < entries.size() && KeyY(entries[rowEnd].key) == row)
            ++rowEnd;
        auto col = [&](std::size_t j) { return static_cast<std::int64_t>(KeyX(entries[j].key)); };
        auto weight = [&](std::size_t j) { return entries[j].weight; };
        // On a proper chain a span is only emitted after a left crossing has set `last`; starting
        // it just left of the row's first entry keeps any other chain's spans within the row.
        std::int64_t last = col(rowBegin) - 1;
        auto emit = [&](std::int64_t x) {
            if (last + 1 <= x - 1)
                spans.push_back({row, static_cast<int>(last + 1), static_cast<int>(x - 1), nullptr});
        };
        std::size_t j = rowBegin;
        while (j < rowEnd) {
            if (weight(j) == 0) { // skip entries of weight 0
                ++j;
                continue;
            }
            if (weight(j) > 0) { // left crossing, with the margin pixels that follow it
                last = col(j);
                ++j;
                if (j < rowEnd && weight(j) >= 0) {
                    while (j < rowEnd && col(j) == last + 1) {
                        last = col(j);
                        ++j;
                        if (j >= rowEnd || weight(j) < 0)
                            break;
                    }
                }
            }
            if (j >= rowEnd)
                break;
            while (j < rowEnd && weight(j) == 0) { // horizontal stretches cut the row
                emit(col(j));
                last = col(j);
                ++j;
            }
            if (j >= rowEnd)
                break;
            if (weight(j) > 0)
                continue;
            std::int64_t x = col(j); // right crossing
            emit(x);
            ++j;
            while (j < rowEnd && col(j) == x + 1 && weight(j) <= 0) {
                x = col(j);
                ++j;
            }
        }
        rowBegin = rowEnd;
    }
    if (spans.empty())
        return;

    Span* block = new Span[spans.size()];
    for (std::size_t i = 0; i < spans.size(); ++i) {
        block[i] = spans[i];
        block[i].next = i + 1 < spans.size() ? &block[i + 1] : nullptr;
    }
    m_first = block;
    m_current = block;
    m_x = block->xBegin;
}

void CPixelPolygon::AreaIterator::clear() noexcept
{
    delete[] m_first;
    m_first = nullptr;
    m_current = nullptr;
    m_x = -1;
}

void CPixelPolygon::AreaIterator::copyFrom(const AreaIterator& other)
{
    std::size_t count = 0;
    std::size_t position = 0;
    for (const Span* s = other.m_first; s; s = s->next) {
        if (s == other.m_current)
            position = count;
        ++count;
    }
    if (count == 0)
        return;
    Span* block = new Span[count];
    std::size_t i = 0;
    for (const Span* s = other.m_first; s; s = s->next, ++i) {
        block[i] = *s;
        block[i].next = i + 1 < count ? &block[i + 1] : nullptr;
    }
    m_first = block;
    m_current = other.m_current ? &block[position] : nullptr;
    m_x = other.m_x;
}

CPixelPolygon::AreaIterator::AreaIterator(const AreaIterator& other)
{
    copyFrom(other);
}

CPixelPolygon::AreaIterator::AreaIterator(AreaIterator&& other) noexcept
    : m_first(other.m_first), m_current(other.m_current), m_x(other.m_x)
{
    other.m_first = nullptr;
    other.m_current = nullptr;
    other.m_x = -1;
}

CPixelPolygon::AreaIterator& CPixelPolygon::AreaIterator::operator=(const AreaIterator& other)
{
    if (this != &other) {
        AreaIterator copy(other);
        *this = std::move(copy);
    }
    return *this;
}

CPixelPolygon::AreaIterator& CPixelPolygon::AreaIterator::operator=(AreaIterator&& other) noexcept
{
    if (this != &other) {
        clear();
        m_first = other.m_first;
        m_current = other.m_current;
        m_x = other.m_x;
        other.m_first = nullptr;
        other.m_current = nullptr;
        other.m_x = -1;
    }
    return *this;
}

CPixelPolygon::AreaIterator::~AreaIterator()
{
    clear();
}

CPixelPolygon::AreaIterator& CPixelPolygon::AreaIterator::operator++()
{
    if (!m_current)
        return *this;
    if (m_x < m_current->xEnd) {
        ++m_x;
        return *this;
    }
    m_current = m_current->next;
    m_x = m_current ? m_current->xBegin : -1;
    return *this;
}

bool CPixelPolygon::AreaIterator::IsInside(int x, int y) const
{
    for (const Span* s = m_first; s && s->y <= y; s = s->next)
        if (s->y == y && s->xBegin <= x && x <= s->xEnd)
            return true;
    return false;
}

// ---- Iterator -------------------------------------------------------------------------------------

CPixelPolygon::Iterator::Iterator(const CPixelPolygon& polygon)
    : m_margin(polygon.GetMarginPixelSet()), m_area(polygon.GetAreaIterator())
{
    m_marginIt = m_margin.begin();
}

CPixelPolygon::Iterator::Iterator(const Iterator& other) : m_margin(other.m_margin), m_area(other.m_area)
{
    m_marginIt = other.OnMargin() ? m_margin.Find(other.m_marginIt->key) : m_margin.end();
}

CPixelPolygon::Iterator::Iterator(Iterator&& other) noexcept
{
    *this = std::move(other);
}

CPixelPolygon::Iterator& CPixelPolygon::Iterator::operator=(const Iterator& other)
{
    if (this != &other) {
        Iterator copy(other);
        *this = std::move(copy);
    }
    return *this;
}

CPixelPolygon::Iterator& CPixelPolygon::Iterator::operator=(Iterator&& other) noexcept
{
    if (this != &other) {
        const bool onMargin = other.OnMargin();
        // The node stays where it is when the table moves; only the iterator's table changes.
        const ChainedPixel* at = onMargin ? &other.m_marginIt->key : nullptr;
        m_margin = std::move(other.m_margin);
        m_marginIt = onMargin ? m_margin.Find(*at) : m_margin.end();
        other.m_marginIt = other.m_margin.end();
        m_area = std::move(other.m_area);
    }
    return *this;
}

CPixelPolygon::Coords CPixelPolygon::Iterator::operator*() const
{
    if (OnMargin())
        return {m_marginIt->key.x, m_marginIt->key.y};
    return *m_area;
}

CPixelPolygon::Iterator& CPixelPolygon::Iterator::operator++()
{
    if (OnMargin())
        ++m_marginIt;
    else
        ++m_area;
    return *this;
}

// ---- CPixelPolygon: value semantics -----------------------------------------------------------------

CPixelPolygon::CPixelPolygon(const std::vector<ChainedPixel>& chain, int area, float perimeter)
    : m_chain(chain), m_area(area), m_perimeter(perimeter)
{
}

CPixelPolygon::CPixelPolygon(std::vector<ChainedPixel>&& chain, int area, float perimeter)
    : m_chain(std::move(chain)), m_area(area), m_perimeter(perimeter)
{
}

CPixelPolygon::CPixelPolygon(const CPixelPolygon& other)
    : m_chain(other.m_chain), m_area(other.m_area), m_perimeter(other.m_perimeter),
      m_areaIterator(other.m_areaIterator ? std::make_unique<AreaIterator>(*other.m_areaIterator) : nullptr)
{
}

CPixelPolygon::CPixelPolygon(CPixelPolygon&& other) noexcept
    : m_chain(std::move(other.m_chain)), m_area(other.m_area), m_perimeter(other.m_perimeter),
      m_areaIterator(std::move(other.m_areaIterator))
{
    other.Clear();
}

CPixelPolygon& CPixelPolygon::operator=(const CPixelPolygon& other)
{
    if (this != &other) {
        CPixelPolygon copy(other);
        *this = std::move(copy);
    }
    return *this;
}

CPixelPolygon& CPixelPolygon::operator=(CPixelPolygon&& other) noexcept
{
    if (this != &other) {
        m_chain = std::move(other.m_chain);
        m_area = other.m_area;
        m_perimeter = other.m_perimeter;
        m_areaIterator = std::move(other.m_areaIterator);
        other.Clear();
    }
    return *this;
}

CPixelPolygon::~CPixelPolygon() = default;

CPixelPolygon CPixelPolygon::Rectangle(int x0, int y0, int x1, int y1)
{
    const std::int64_t xmin = std::min(x0, x1);
    const std::int64_t xmax = std::max(x0, x1);
    const std::int64_t ymin = std::min(y0, y1);
    const std::int64_t ymax = std::max(y0, y1);
    const std::int64_t w = xmax - xmin;
    const std::int64_t h = ymax - ymin;
    if ((w + 1) > std::numeric_limits<int>::max() / (h + 1))
        return CPixelPolygon();
    std::vector<ChainedPixel> chain;
    chain.reserve(static_cast<std::size_t>(2 * (w + h) + 1));
    for (std::int64_t y = ymin; y <= ymax; ++y) // down the left side
        chain.emplace_back(static_cast<int>(xmin), static_cast<int>(y));
    for (std::int64_t x = xmin + 1; x <= xmax; ++x) // right along the bottom
        chain.emplace_back(static_cast<int>(x), static_cast<int>(ymax));
    for (std::int64_t y = ymax - 1; y >= ymin; --y) // up the right side
        chain.emplace_back(static_cast<int>(xmax), static_cast<int>(y));
    for (std::int64_t x = xmax - 1; x >= xmin + 1; --x) // left along the top
        chain.emplace_back(static_cast<int>(x), static_cast<int>(ymin));
    if (chain.size() > 1 && chain.back() == chain.front()) // a one-column rectangle runs back
        chain.pop_back();
    const int area = static_cast<int>((w + 1) * (h + 1));
    const float perimeter = chain.size() == 1 ? kSinglePixelPerimeter : static_cast<float>(2 * (w + h));
    return CPixelPolygon(std::move(chain), area, perimeter);
}

void CPixelPolygon::Clear()
{
    m_chain.clear();
    m_area = 0;
    m_perimeter = 0.0f;
    m_areaIterator.reset();
}

bool CPixelPolygon::GetAABB(int* minX, int* minY, int* maxX, int* maxY) const
{
    if (m_chain.empty())
        return false;
    int x0 = m_chain.front().x, x1 = x0, y0 = m_chain.front().y, y1 = y0;
    for (const ChainedPixel& p : m_chain) {
        x0 = std::min(x0, p.x);
        x1 = std::max(x1, p.x);
        y0 = std::min(y0, p.y);
        y1 = std::max(y1, p.y);
    }
    if (minX)
        *minX = x0;
    if (minY)
        *minY = y0;
    if (maxX)
        *maxX = x1;
    if (maxY)
        *maxY = y1;
    return true;
}

std::pair<double, double> CPixelPolygon::GetCenterOfGravity() const
{
    double sumX = 0.0;
    double sumY = 0.0;
    double count = 0.0;
    for (const ChainedPixel& p : m_chain) {
        sumX += p.x;
        sumY += p.y;
    }
    count += static_cast<double>(m_chain.size());
    if (!m_chain.empty()) {
        for (const AreaIterator::Span* s = getAreaIteratorRef().FirstSpan(); s; s = s->next) {
            const double length = static_cast<double>(s->xEnd) - s->xBegin + 1.0;
            sumX += (static_cast<double>(s->xBegin) + s->xEnd) * 0.5 * length;
            sumY += static_cast<double>(s->y) * length;
            count += length;
        }
    }
    return {sumX / count, sumY / count};
}

bool CPixelPolygon::operator==(const CPixelPolygon& other) const
{
    const std::size_t n = std::min(m_chain.size(), other.m_chain.size());
    for (std::size_t i = 0; i < n; ++i)
        if (m_chain[i] != other.m_chain[i])
            return false;
    return true;
}

CPixelPolygon::AreaIterator& CPixelPolygon::getAreaIteratorRef() const
{
    if (!m_areaIterator)
        m_areaIterator = std::make_unique<AreaIterator>(*this);
    return *m_areaIterator;
}

CPixelPolygon::ECoordType CPixelPolygon::Classify(int x, int y) const
{
    if (m_chain.empty())
        return eNoCoord;
    if (getAreaIteratorRef().IsInside(x, y))
        return eArea;
    for (const ChainedPixel& p : m_chain)
        if (p.x == x && p.y == y)
            return eMargin;
    return eOutside;
}

bool CPixelPolygon::IsInside(int x, int y) const
{
    return !m_chain.empty() && getAreaIteratorRef().IsInside(x, y);
}

namespace detail {

/// Classification of many points against one polygon: the spans indexed by row and the chain
/// pixels sorted, so that each query is logarithmic. Gives what Classify(x, y) gives.
class CRegionIndex
{
public:
    CRegionIndex(const CPixelPolygon::AreaIterator& area, const std::vector<ChainedPixel>& chain)
    {
        for (const CPixelPolygon::AreaIterator::Span* s = area.FirstSpan(); s; s = s->next)
            m_spans.push_back(*s);
        std::stable_sort(m_spans.begin(), m_spans.end(),
                         [](const auto& l, const auto& r) { return l.y < r.y; });
        m_chain.reserve(chain.size());
        for (const ChainedPixel& p : chain)
            m_chain.push_back(PixelKey(p.x, p.y));
        std::sort(m_chain.begin(), m_chain.end());
    }

    bool InSpan(int x, int y) const
    {
        auto it =
            std::lower_bound(m_spans.begin(), m_spans.end(), y,
                             [](const CPixelPolygon::AreaIterator::Span& s, int row) { return s.y < row; });
        for (; it != m_spans.end() && it->y == y; ++it)
            if (it->xBegin <= x && x <= it->xEnd)
                return true;
        return false;
    }

    bool OnChain(int x, int y) const
    {
        return std::binary_search(m_chain.begin(), m_chain.end(), PixelKey(x, y));
    }

    CPixelPolygon::ECoordType Classify(int x, int y) const
    {
        if (m_chain.empty())
            return CPixelPolygon::eNoCoord;
        if (InSpan(x, y))
            return CPixelPolygon::eArea;
        return OnChain(x, y) ? CPixelPolygon::eMargin : CPixelPolygon::eOutside;
    }

private:
    std::vector<CPixelPolygon::AreaIterator::Span> m_spans;
    std::vector<std::uint64_t> m_chain;
};

} // namespace detail

int CPixelPolygon::Classify(const CPixelPolygon& other) const
{
    if (m_chain.empty() || other.m_chain.empty())
        return 0;
    const detail::CRegionIndex index(getAreaIteratorRef(), m_chain);
    int result = 0;
    for (const ChainedPixel& p : other.m_chain)
        result |= index.Classify(p.x, p.y);
    return result;
}

bool CPixelPolygon::IsInside(const CPixelPolygon& other) const
{
    if (m_chain.empty() || other.m_chain.empty())
        return false;
    const detail::CRegionIndex index(other.getAreaIteratorRef(), other.m_chain);
    for (const ChainedPixel& p : m_chain)
        if (!index.InSpan(p.x, p.y))
            return false;
    return true;
}

CPixelPolygon::MarginIteratorTemplate<0> CPixelPolygon::GetMarginIterator()
{
    m_areaIterator.reset();
    return MarginIteratorTemplate<0>(*this);
}

CPixelPolygon::MarginPixelSet CPixelPolygon::GetMarginPixelSet() const
{
    MarginPixelSet set;
    for (const ChainedPixel& p : m_chain)
        set.Insert(p);
    return set;
}

// ---- operations -----------------------------------------------------------------------------------

namespace {

constexpr std::int64_t kMaxMaskPixels = std::numeric_limits<int>::max();

/// A byte mask over an inclusive box of pixel coordinates.
struct SMask
{
    std::int64_t minX = 0;
    std::int64_t minY = 0;
    int width = 0;
    int height = 0;
    std::vector<unsigned char> bytes;

    /// False when the box leaves the int range or holds more than 2^31 - 1 pixels.
    bool Allocate(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1)
    {
        constexpr std::int64_t lo = std::numeric_limits<int>::min();
        constexpr std::int64_t hi = std::numeric_limits<int>::max();
        if (x0 < lo || y0 < lo || x1 > hi || y1 > hi || x1 < x0 || y1 < y0)
            return false;
        const std::int64_t w = x1 - x0 + 1;
        const std::int64_t h = y1 - y0 + 1;
        if (w > kMaxMaskPixels / h)
            return false;
        minX = x0;
        minY = y0;
        width = static_cast<int>(w);
        height = static_cast<int>(h);
        bytes.assign(static_cast<std::size_t>(w * h), 0);
        return true;
    }

    bool Contains(std::int64_t x, std::int64_t y) const
    {
        return x >= minX && y >= minY && x < minX + width && y < minY + height;
    }

    unsigned char& At(std::int64_t x, std::int64_t y)
    {
        return bytes[static_cast<std::size_t>((y - minY) * width + (x - minX))];
    }

    /// ORs `value` into the chain pixels and, if wanted, the interior spans that lie in the box.
    void Paint(const std::vector<ChainedPixel>& chain, const CPixelPolygon::AreaIterator* area,
               unsigned char value)
    {
        for (const ChainedPixel& p : chain)
            if (Contains(p.x, p.y))
                At(p.x, p.y) |= value;
        if (!area)
            return;
        for (const CPixelPolygon::AreaIterator::Span* s = area->FirstSpan(); s; s = s->next) {
            if (s->y < minY || s->y >= minY + height)
                continue;
            const std::int64_t b = std::max<std::int64_t>(s->xBegin, minX);
            const std::int64_t e = std::min<std::int64_t>(s->xEnd, minX + width - 1);
            unsigned char* row = &At(minX, s->y);
            for (std::int64_t x = b; x <= e; ++x)
                row[x - minX] |= value;
        }
    }
};

/// The first region of the mask whose bytes equal `value`, moved to the mask's place.
CPixelPolygon TraceMask(const SMask& mask, const unsigned char* bytes, unsigned char value)
{
    detail::CContourTracer tracer(bytes, value, mask.width, mask.height);
    return tracer.TraceFirst().Shift(static_cast<int>(mask.minX), static_cast<int>(mask.minY));
}

} // namespace

CPixelPolygon CPixelPolygon::Shift(int dx, int dy) const
{
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    if (!GetAABB(&x0, &y0, &x1, &y1))
        return CPixelPolygon();
    constexpr std::int64_t lo = std::numeric_limits<int>::min();
    constexpr std::int64_t hi = std::numeric_limits<int>::max();
    if (static_cast<std::int64_t>(x0) + dx < lo || static_cast<std::int64_t>(x1) + dx > hi ||
        static_cast<std::int64_t>(y0) + dy < lo || static_cast<std::int64_t>(y1) + dy > hi)
        return CPixelPolygon();
    std::vector<ChainedPixel> chain(m_chain);
    for (ChainedPixel& p : chain) {
        p.x += dx;
        p.y += dy;
    }
    return CPixelPolygon(std::move(chain), m_area, m_perimeter);
}

CPixelPolygon CPixelPolygon::Repair() const
{
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    if (!GetAABB(&x0, &y0, &x1, &y1))
        return CPixelPolygon();
    SMask mask;
    if (!mask.Allocate(x0, y0, x1, y1))
        return CPixelPolygon();
    mask.Paint(m_chain, nullptr, 1);
    CPixelPolygon result = TraceMask(mask, mask.bytes.data(), 1);
    if (result.m_chain.empty())
        return result;

    // Carry the labels over: walk the old chain (wrapping) from the first entry at R[0], and give
    // each R[i] in turn the label of the next old entry with its coordinates. The walk is done by
    // looking up, for each R[i], the first old position at or after the walk's position.
    const std::size_t n = m_chain.size();
    std::vector<std::pair<std::uint64_t, std::size_t>> positions(n);
    for (std::size_t p = 0; p < n; ++p)
        positions[p] = {PixelKey(m_chain[p].x, m_chain[p].y), p};
    std::sort(positions.begin(), positions.end());
    auto rangeOf = [&](const ChainedPixel& pixel) {
        const std::uint64_t key = PixelKey(pixel.x, pixel.y);
        return std::equal_range(positions.begin(), positions.end(), std::make_pair(key, std::size_t{0}),
                                [](const auto& l, const auto& r) { return l.first < r.first; });
    };
    const auto first = rangeOf(result.m_chain.front());
    if (first.first == first.second)
        return result;
    std::size_t walk = first.first->second;
    for (ChainedPixel& r : result.m_chain) {
        const auto range = rangeOf(r);
        if (range.first == range.second)
            break;
        auto at = std::lower_bound(range.first, range.second, walk,
                                   [](const auto& entry, std::size_t pos) { return entry.second < pos; });
        const std::size_t q = at != range.second ? at->second : range.first->second;
        const ChainedPixel& old = m_chain[q];
        if (old.label) {
            r.label = old.label;
            r.labelType = old.labelType;
        }
        walk = q + 1 == n ? 0 : q + 1;
    }
    return result;
}

namespace {

/// dst[i] = a[i] | b[i] | c[i] for i < count, 16 bytes at a time where SSE2 is there.
void Or3(const unsigned char* a, const unsigned char* b, const unsigned char* c, unsigned char* dst,
         std::size_t count)
{
    std::size_t i = 0;
#if defined(__SSE2__)
    for (; i + 16 <= count; i += 16) {
        const __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a + i));
        const __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + i));
        const __m128i vc = _mm_loadu_si128(reinterpret_cast<const __m128i*>(c + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), _mm_or_si128(va, _mm_or_si128(vb, vc)));
    }
#endif
    for (; i < count; ++i)
        dst[i] = a[i] | b[i] | c[i];
}

/// dst[i] = src[i] | src[i - offset] | src[i + offset], clipped to the array (dst and src apart).
void OrShifted(const unsigned char* src, unsigned char* dst, std::size_t size, std::size_t offset)
{
    if (offset >= size) {
        std::memcpy(dst, src, size);
        return;
    }
    const std::size_t head = std::min(offset, size - offset);
    for (std::size_t i = 0; i < head; ++i)
        dst[i] = src[i] | src[i + offset];
    if (size > 2 * offset)
        Or3(src + offset, src, src + 2 * offset, dst + offset, size - 2 * offset);
    for (std::size_t i = head; i < offset; ++i) // only when the array is shorter than 2 * offset
        dst[i] = src[i];
    for (std::size_t i = std::max(offset, size - offset); i < size; ++i)
        dst[i] = src[i] | src[i - offset];
}

/// Dilation of the 255-pixels (all others 0) by a (2r + 1)-square: what r passes of the 3 x 3
/// dilation leave in a buffer, when every set pixel lies at least r pixels inside the mask's border.
/// Each axis is grown by shifts of 1, 2, 4, ... and a last shift to reach r exactly, so that every
/// step is a plain byte-wise OR over the whole buffer; rows never bleed into each other because no
/// growth reaches past the border. `bytes` holds the input, `spare` (same size, any content) is
/// working memory; returns the buffer that holds the result.
unsigned char* SquareDilate(unsigned char* bytes, unsigned char* spare, std::size_t size, int width,
                            std::int64_t r)
{
    for (const std::size_t unit : {std::size_t{1}, static_cast<std::size_t>(width)}) {
        std::int64_t radius = 0;
        std::int64_t step = 1;
        while (radius < r) {
            const std::int64_t shift = std::min(step, r - radius);
            OrShifted(bytes, spare, size, static_cast<std::size_t>(shift) * unit);
            std::swap(bytes, spare);
            radius += shift;
            step = radius + 1;
        }
    }
    return bytes;
}

} // namespace

CPixelPolygon CPixelPolygon::Dilate(unsigned int n) const
{
    return Dilate(n, std::function<bool(int, int)>());
}

CPixelPolygon CPixelPolygon::Dilate(unsigned int n, std::function<bool(int, int)> allowed) const
{
    int x0 = 0, y0 = 0, x1 = 0, y1 = 0;
    if (n == 0 || !GetAABB(&x0, &y0, &x1, &y1))
        return *this;
    SMask mask;
    if (!mask.Allocate(static_cast<std::int64_t>(x0) - n, static_cast<std::int64_t>(y0) - n,
                       static_cast<std::int64_t>(x1) + n, static_cast<std::int64_t>(y1) + n))
        return CPixelPolygon();
    mask.Paint(m_chain, nullptr, 255);
    const int w = mask.width;
    const int h = mask.height;

    const unsigned char* last = nullptr;
    std::vector<unsigned char> other;
    if (!allowed) {
        const std::unique_ptr<unsigned char[]> spare(new unsigned char[mask.bytes.size()]);
        last = SquareDilate(mask.bytes.data(), spare.get(), mask.bytes.size(), w, n);
        CPixelPolygon result = TraceMask(mask, last, 255);
        return result.m_chain.empty() ? *this : result;
    } else {
        // n passes of the 3 x 3 dilation between two buffers that are never cleared.
        other.assign(mask.bytes.size(), 0);
        std::vector<unsigned char> rows(3 * static_cast<std::size_t>(w));
        unsigned char* source = mask.bytes.data();
        unsigned char* target = other.data();
        auto horizontal = [&](int y, unsigned char* out) {
            const unsigned char* in = source + static_cast<std::size_t>(y) * w;
            for (int x = 0; x < w; ++x) {
                unsigned char v = in[x];
                if (x > 0)
                    v |= in[x - 1];
                if (x + 1 < w)
                    v |= in[x + 1];
                out[x] = v == 255 ? 255 : 0;
            }
        };
        for (unsigned int pass = 0; pass < n; ++pass) {
            unsigned char* above = rows.data();
            unsigned char* here = above + w;
            unsigned char* below = here + w;
            std::fill(above, above + w, 0);
            horizontal(0, here);
            for (int y = 0; y < h; ++y) {
                if (y + 1 < h)
                    horizontal(y + 1, below);
                else
                    std::fill(below, below + w, 0);
                unsigned char* out = target + static_cast<std::size_t>(y) * w;
                for (int x = 0; x < w; ++x) {
                    if ((above[x] | here[x] | below[x]) != 255 || out[x] == 255)
                        continue;
                    if (allowed(static_cast<int>(mask.minX + x), static_cast<int>(mask.minY + y)))
                        out[x] = 255;
                }
                std::swap(above, here);
                std::swap(here, below);
            }
            last = target;
            std::swap(source, target);
        }
    }
    CPixelPolygon result = TraceMask(mask, last, 255);
    if (result.m_chain.empty())
        return *this;
    return result;
}

CPixelPolygon CPixelPolygon::Union(const CPixelPolygon& other) const
{
    int ax0 = 0, ay0 = 0, ax1 = 0, ay1 = 0, bx0 = 0, by0 = 0, bx1 = 0, by1 = 0;
    if (!GetAABB(&ax0, &ay0, &ax1, &ay1) || !other.GetAABB(&bx0, &by0, &bx1, &by1))
        return CPixelPolygon();
    if (std::max(ax0, bx0) > std::min(ax1, bx1) || std::max(ay0, by0) > std::min(ay1, by1))
        return CPixelPolygon();
    SMask mask;
    if (!mask.Allocate(std::min(ax0, bx0), std::min(ay0, by0), std::max(ax1, bx1), std::max(ay1, by1)))
        return CPixelPolygon();
    mask.Paint(m_chain, &getAreaIteratorRef(), 1);
    mask.Paint(other.m_chain, &other.getAreaIteratorRef(), 1);
    return TraceMask(mask, mask.bytes.data(), 1);
}

CPixelPolygon CPixelPolygon::Intersect(const CPixelPolygon& other) const
{
    int ax0 = 0, ay0 = 0, ax1 = 0, ay1 = 0, bx0 = 0, by0 = 0, bx1 = 0, by1 = 0;
    if (!GetAABB(&ax0, &ay0, &ax1, &ay1) || !other.GetAABB(&bx0, &by0, &bx1, &by1))
        return CPixelPolygon();
    const int x0 = std::max(ax0, bx0), x1 = std::min(ax1, bx1);
    const int y0 = std::max(ay0, by0), y1 = std::min(ay1, by1);
    if (x0 > x1 || y0 > y1)
        return CPixelPolygon();
    SMask mask;
    if (!mask.Allocate(x0, y0, x1, y1))
        return CPixelPolygon();
    mask.Paint(m_chain, &getAreaIteratorRef(), 1);
    mask.Paint(other.m_chain, &other.getAreaIteratorRef(), 2);
    return TraceMask(mask, mask.bytes.data(), 3);
}

CPixelPolygon CPixelPolygon::ConvexHull() const
{
    const std::size_t n = m_chain.size();
    if (n == 0)
        return CPixelPolygon();
    std::vector<std::int64_t> px(n), py(n);
    std::size_t s = 0;
    for (std::size_t i = 0; i < n; ++i) {
        px[i] = m_chain[i].x;
        py[i] = m_chain[i].y;
        if (py[i] < py[s] || (py[i] == py[s] && px[i] < px[s]))
            s = i;
    }
    // Gift wrapping; point 0 is the first hull point and ends the march when it is chosen again.
    __extension__ typedef __int128 Wide;
    std::size_t h = 0;
    std::size_t c = s;
    while (h < n) {
        std::swap(px[h], px[c]);
        std::swap(py[h], py[c]);
        const std::int64_t ox = px[h], oy = py[h];
        c = 0;
        for (std::size_t k = 1; k < n; ++k) {
            const std::int64_t ux = px[c] - ox, uy = py[c] - oy;
            const std::int64_t vx = px[k] - ox, vy = py[k] - oy;
            const Wide cross = static_cast<Wide>(vx) * uy - static_cast<Wide>(ux) * vy;
            if (cross > 0 ||
                (cross == 0 && std::llabs(vx) + std::llabs(vy) > std::llabs(ux) + std::llabs(uy)))
                c = k;
        }
        ++h;
        if (c == 0)
            break;
    }
    std::vector<int> hx(h), hy(h);
    for (std::size_t i = 0; i < h; ++i) {
        hx[i] = static_cast<int>(px[i]);
        hy[i] = static_cast<int>(py[i]);
    }
    return CreateFromPolygon(hx.data(), hy.data(), static_cast<unsigned int>(h), nullptr, nullptr);
}

std::vector<ChainedPixel> CPixelPolygon::GetVonNeumannNeighborhood() const
{
    std::vector<ChainedPixel> result;
    const std::size_t n = m_chain.size();
    if (n == 0)
        return result;
    const detail::CRegionIndex index(getAreaIteratorRef(), m_chain);
    static constexpr int kNx[4] = {0, -1, 0, 1};
    static constexpr int kNy[4] = {-1, 0, 1, 0};
    for (std::size_t k = 0; k < n; ++k) {
        const ChainedPixel& p = m_chain[k];
        const ChainedPixel& q = m_chain[k == 0 ? n - 1 : k - 1];
        const std::int64_t dx = static_cast<std::int64_t>(p.x) - q.x;
        const std::int64_t dy = static_cast<std::int64_t>(p.y) - q.y;
        int d = 0;
        if (dy > 0 && dx >= 0)
            d = 0;
        else if (dx > 0 && dy <= 0)
            d = 1;
        else if (dy < 0 && dx <= 0)
            d = 2;
        else if (dx < 0 && dy >= 0)
            d = 3;
        std::shared_ptr<ChainedPixel> owner;
        for (int i = 0; i < 4; ++i, d = (d + 1) & 3) {
            const std::int64_t nx = static_cast<std::int64_t>(p.x) + kNx[d];
            const std::int64_t ny = static_cast<std::int64_t>(p.y) + kNy[d];
            if (nx < std::numeric_limits<int>::min() || nx > std::numeric_limits<int>::max() ||
                ny < std::numeric_limits<int>::min() || ny > std::numeric_limits<int>::max())
                continue;
            if (index.Classify(static_cast<int>(nx), static_cast<int>(ny)) != eOutside)
                continue;
            if (!owner)
                owner = std::make_shared<ChainedPixel>(p);
            ChainedPixel neighbour(static_cast<int>(nx), static_cast<int>(ny));
            neighbour.label = owner;
            neighbour.labelType = &typeid(ChainedPixel);
            result.push_back(std::move(neighbour));
        }
    }
    return result;
}

// ---- CreateFromPolygon ----------------------------------------------------------------------------

namespace {

constexpr double kMaxVertexMagnitude = 1073741824.0; // 2^30
constexpr std::int64_t kMaxRawChain = std::int64_t{1} << 27;

/// Projection parameter of (px, py) on the edge a + t d, mapped once more through a + t d; 0.5 when
/// it is not a number (an edge of zero length).
template <typename Real> Real EdgeParameter(Real px, Real py, Real ax, Real ay, Real dx, Real dy)
{
    const Real lengthSq = dx * dx + dy * dy;
    Real t = ((px - ax) * dx + (py - ay) * dy) / lengthSq;
    const Real qx = ax + t * dx;
    const Real qy = ay + t * dy;
    t = ((qx - ax) * dx + (qy - ay) * dy) / lengthSq;
    if (std::isnan(t))
        t = Real(0.5);
    return t;
}

/// The raw chain that the rasterisers append to.
struct SRawChain
{
    std::vector<ChainedPixel> pixels;

    bool RepeatsEnd(std::int64_t x, std::int64_t y) const
    {
        if (pixels.empty())
            return false;
        return (pixels.back().x == x && pixels.back().y == y) ||
               (pixels.front().x == x && pixels.front().y == y);
    }

    void Append(int x, int y, int startVertex, int endVertex, float t)
    {
        ChainedPixel pixel(x, y);
        pixel.label =
            std::make_shared<CPixelPolygon::PixelLabel>(CPixelPolygon::PixelLabel{startVertex, endVertex, t});
        pixel.labelType = &typeid(CPixelPolygon::PixelLabel);
        pixels.push_back(std::move(pixel));
    }
};

/// Start vertex (smallest y, then smallest x, first of equals) and walking direction from the sign
/// of the shoelace area computed in Real.
template <typename Real, typename T>
void StartAndDirection(const T* x, const T* y, unsigned int count, int& start, int& dir)
{
    start = 0;
    Real twiceArea = 0;
    for (unsigned int i = 0; i < count; ++i) {
        if (y[i] < y[start] || (y[i] == y[start] && x[i] < x[start]))
            start = static_cast<int>(i);
        const unsigned int j = i + 1 == count ? 0 : i + 1;
        twiceArea += static_cast<Real>(x[i]) * static_cast<Real>(y[j]) -
                     static_cast<Real>(x[j]) * static_cast<Real>(y[i]);
    }
    const Real area = twiceArea / Real(2);
    dir = area > 0 ? -1 : 1;
}

/// Walks the edges from the start vertex in the walking direction, rasterising each with `edge`.
template <typename Edge> void WalkEdges(unsigned int count, int start, int dir, Edge edge)
{
    const std::int64_t n = count;
    for (std::int64_t e = 0; e < n; ++e) {
        const std::int64_t i = ((start + dir * e) % n + n) % n;
        const std::int64_t j = ((i + dir) % n + n) % n;
        edge(static_cast<int>(i), static_cast<int>(j));
    }
}

bool FiniteAndModest(const double* v, unsigned int count)
{
    for (unsigned int i = 0; i < count; ++i)
        if (!std::isfinite(v[i]) || std::fabs(v[i]) > kMaxVertexMagnitude)
            return false;
    return true;
}

/// Bresenham from (x0, y0) to (x1, y1), both included.
template <typename Plot>
void BresenhamLine(std::int64_t x0, std::int64_t y0, std::int64_t x1, std::int64_t y1, Plot plot)
{
    const std::int64_t dx = x1 > x0 ? x1 - x0 : x0 - x1;
    const std::int64_t dy = y1 > y0 ? y1 - y0 : y0 - y1;
    const std::int64_t sx = x1 < x0 ? -1 : 1;
    const std::int64_t sy = y1 < y0 ? -1 : 1;
    std::int64_t x = x0, y = y0;
    if (dx < dy) {
        std::int64_t e = 2 * dx - dy;
        while (y != y1) {
            plot(x, y);
            if (e >= 0) {
                x += sx;
                e -= 2 * dy;
            }
            y += sy;
            e += 2 * dx;
        }
    } else {
        std::int64_t e = 2 * dy - dx;
        while (x != x1) {
            plot(x, y);
            if (e >= 0) {
                y += sy;
                e -= 2 * dx;
            }
            x += sx;
            e += 2 * dy;
        }
    }
    plot(x, y);
}

/// Entry parameter of the segment p + t d, t in [0, 1], into the cell (cx, cy) grown by a hair; false
/// when it misses the cell.
bool CellEntry(double x0, double y0, double dx, double dy, std::int64_t cx, std::int64_t cy, double& entry)
{
    double lo = -std::numeric_limits<double>::infinity();
    double hi = std::numeric_limits<double>::infinity();
    const double p[2] = {x0, y0};
    const double d[2] = {dx, dy};
    const double c[2] = {static_cast<double>(cx), static_cast<double>(cy)};
    for (int axis = 0; axis < 2; ++axis) {
        const double cellLo = c[axis] - 1e-9;
        const double cellHi = c[axis] + 1.000000001;
        if (d[axis] == 0.0) {
            if (p[axis] < cellLo || p[axis] > cellHi)
                return false;
            continue;
        }
        double t1 = (cellLo - p[axis]) / d[axis];
        double t2 = (cellHi - p[axis]) / d[axis];
        if (t1 > t2)
            std::swap(t1, t2);
        lo = std::max(lo, t1);
        hi = std::min(hi, t2);
    }
    if (lo > hi || !(lo < 1.0) || !(hi > 0.0))
        return false;
    entry = lo;
    return true;
}

} // namespace

CPixelPolygon CPixelPolygon::CreateFromPolygon(int* x, int* y, unsigned int count, int* startVertex,
                                               int* direction)
{
    if (count < 3 || !x || !y)
        return CPixelPolygon();
    int start = 0, dir = 1;
    StartAndDirection<float>(x, y, count, start, dir);
    if (startVertex)
        *startVertex = start;
    if (direction)
        *direction = dir;

    std::int64_t pixels = 0;
    for (unsigned int i = 0; i < count; ++i) {
        const unsigned int j = i + 1 == count ? 0 : i + 1;
        pixels += std::max(std::llabs(static_cast<long long>(x[j]) - x[i]),
                           std::llabs(static_cast<long long>(y[j]) - y[i])) +
                  1;
        if (pixels > kMaxRawChain)
            return CPixelPolygon();
    }

    SRawChain raw;
    raw.pixels.reserve(static_cast<std::size_t>(pixels));
    WalkEdges(count, start, dir, [&](int i, int j) {
        const float ax = static_cast<float>(x[i]), ay = static_cast<float>(y[i]);
        const float dx = static_cast<float>(x[j]) - ax, dy = static_cast<float>(y[j]) - ay;
        BresenhamLine(x[i], y[i], x[j], y[j], [&](std::int64_t px, std::int64_t py) {
            if (raw.RepeatsEnd(px, py))
                return;
            const float t = EdgeParameter(static_cast<float>(px), static_cast<float>(py), ax, ay, dx, dy);
            raw.Append(static_cast<int>(px), static_cast<int>(py), i, j, t);
        });
    });
    return raw.pixels.empty() ? CPixelPolygon() : CPixelPolygon(std::move(raw.pixels), 0, 0.0f).Repair();
}

CPixelPolygon CPixelPolygon::CreateFromPolygon(double* x, double* y, unsigned int count, int* startVertex,
                                               int* direction)
{
    if (count < 3 || !x || !y || !FiniteAndModest(x, count) || !FiniteAndModest(y, count))
        return CPixelPolygon();
    int start = 0, dir = 1;
    StartAndDirection<double>(x, y, count, start, dir);
    if (startVertex)
        *startVertex = start;
    if (direction)
        *direction = dir;

    std::int64_t pixels = 0;
    for (unsigned int i = 0; i < count; ++i) {
        const unsigned int j = i + 1 == count ? 0 : i + 1;
        pixels += static_cast<std::int64_t>(std::fabs(std::floor(x[j]) - std::floor(x[i])) +
                                            std::fabs(std::floor(y[j]) - std::floor(y[i]))) +
                  1;
        if (pixels > kMaxRawChain)
            return CPixelPolygon();
    }

    SRawChain raw;
    raw.pixels.reserve(static_cast<std::size_t>(pixels));
    WalkEdges(count, start, dir, [&](int i, int j) {
        const double x0 = x[i], y0 = y[i], x1 = x[j], y1 = y[j];
        const double ddx = x1 - x0, ddy = y1 - y0;
        std::int64_t cx = static_cast<std::int64_t>(std::floor(x0));
        std::int64_t cy = static_cast<std::int64_t>(std::floor(y0));
        const std::int64_t ex = static_cast<std::int64_t>(std::floor(x1));
        const std::int64_t ey = static_cast<std::int64_t>(std::floor(y1));
        // t is measured on the segment between the floored end points.
        const double ax = static_cast<double>(cx), ay = static_cast<double>(cy);
        const double tdx = static_cast<double>(ex) - ax, tdy = static_cast<double>(ey) - ay;
        auto append = [&](std::int64_t px, std::int64_t py) {
            const double t =
                EdgeParameter(static_cast<double>(px), static_cast<double>(py), ax, ay, tdx, tdy);
            raw.Append(static_cast<int>(px), static_cast<int>(py), i, j, static_cast<float>(t));
        };
        append(cx, cy);
        const int sx = ddx > 0 ? 1 : (ddx < 0 ? -1 : 0);
        const int sy = ddy > 0 ? 1 : (ddy < 0 ? -1 : 0);
        if (sx == 0 && sy == 0)
            return;
        // Each step moves one cell towards the end cell, so this bound only guards the loop.
        std::int64_t budget = (ex > cx ? ex - cx : cx - ex) + (ey > cy ? ey - cy : cy - ey) + 2;
        constexpr double inf = std::numeric_limits<double>::infinity();
        while ((cx != ex || cy != ey) && budget-- > 0) {
            double tx = inf, ty = inf, td = inf;
            double entry = 0.0;
            const bool hitX = sx != 0 && CellEntry(x0, y0, ddx, ddy, cx + sx, cy, entry);
            if (hitX)
                tx = entry;
            const bool hitY = sy != 0 && CellEntry(x0, y0, ddx, ddy, cx, cy + sy, entry);
            if (hitY)
                ty = entry;
            const bool hitD = sx != 0 && sy != 0 && CellEntry(x0, y0, ddx, ddy, cx + sx, cy + sy, entry);
            if (hitD)
                td = entry;
            if (hitX && tx < ty && tx < td)
                cx += sx;
            else if (hitY && ty < tx && ty < td)
                cy += sy;
            else if (hitD) {
                cx += sx;
                cy += sy;
            } else
                break;
            append(cx, cy);
        }
    });
    return raw.pixels.empty() ? CPixelPolygon() : CPixelPolygon(std::move(raw.pixels), 0, 0.0f).Repair();
}

CPixelPolygon CPixelPolygon::CreateFromPolygon(double* x, double* y, unsigned int count, int minX, int minY,
                                               int maxX, int maxY, int* startVertex, int* direction)
{
    if (count < 3 || !x || !y || !FiniteAndModest(x, count) || !FiniteAndModest(y, count))
        return CPixelPolygon();
    int start = 0, dir = 1;
    StartAndDirection<double>(x, y, count, start, dir);
    if (startVertex)
        *startVertex = start;
    if (direction)
        *direction = dir;

    std::int64_t pixels = 0;
    for (unsigned int i = 0; i < count; ++i) {
        const unsigned int j = i + 1 == count ? 0 : i + 1;
        pixels +=
            2 * (static_cast<std::int64_t>(std::max(std::fabs(x[j] - x[i]), std::fabs(y[j] - y[i]))) + 3);
        if (pixels > kMaxRawChain)
            return CPixelPolygon();
    }

    SRawChain raw;
    raw.pixels.reserve(static_cast<std::size_t>(pixels));
    WalkEdges(count, start, dir, [&](int i, int j) {
        const double ex0 = x[i], ey0 = y[i], edx = x[j] - x[i], edy = y[j] - y[i];
        const bool yMajor = std::fabs(y[j] - y[i]) > std::fabs(x[j] - x[i]);
        double a0 = yMajor ? y[i] : x[i], b0 = yMajor ? x[i] : y[i];
        double a1 = yMajor ? y[j] : x[j], b1 = yMajor ? x[j] : y[j];
        if (a1 < a0) {
            std::swap(a0, a1);
            std::swap(b0, b1);
        }
        const double g = a1 != a0 ? (b1 - b0) / (a1 - a0) : 0.0;
        auto plot = [&](std::int64_t major, std::int64_t minor) {
            const std::int64_t px = yMajor ? minor : major;
            const std::int64_t py = yMajor ? major : minor;
            if (raw.RepeatsEnd(px, py))
                return;
            const double t =
                EdgeParameter(static_cast<double>(px), static_cast<double>(py), ex0, ey0, edx, edy);
            ChainedPixel clamped(static_cast<int>(px), static_cast<int>(py));
            clamped.Clamp(minX, minY, maxX, maxY);
            raw.Append(clamped.x, clamped.y, i, j, static_cast<float>(t));
        };
        auto pair = [&](std::int64_t major, double minor) {
            const std::int64_t m = static_cast<std::int64_t>(std::trunc(minor));
            plot(major, m);
            plot(major, m + 1);
        };
        const std::int64_t ra = static_cast<std::int64_t>(std::floor(a0 + 0.5));
        double fb = (static_cast<double>(ra) - a0) * g + b0;
        pair(ra, fb);
        double f = fb + g;
        const std::int64_t rb = static_cast<std::int64_t>(std::floor(a1 + 0.5));
        for (std::int64_t m = ra + 1; m <= rb - 1; ++m) {
            pair(m, f);
            f += g;
        }
        fb = (static_cast<double>(rb) - a1) * g + b1;
        pair(rb, fb);
    });
    return raw.pixels.empty() ? CPixelPolygon() : CPixelPolygon(std::move(raw.pixels), 0, 0.0f).Repair();
}

} // namespace DataLayer
