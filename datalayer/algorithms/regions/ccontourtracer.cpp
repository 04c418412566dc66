#include "datalayer/algorithms/regions/ccontourtracer.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <utility>

namespace DataLayer::detail {

namespace {

// Chain codes, counterclockwise on the screen (y downward).
constexpr int kDx[8] = {1, 1, 0, -1, -1, -1, 0, 1};
constexpr int kDy[8] = {0, -1, -1, -1, 0, 1, 1, 1};

// Area change of a step in direction d, given the y offset before the step: the sum over the steps,
// starting from 1, is the number of pixels on and inside the boundary.
inline std::int64_t AreaChange(int d, std::int64_t yOffset)
{
    switch (d) {
    case 0:
    case 1:
    case 7:
        return yOffset;
    case 2:
        return 1;
    case 3:
        return 2 - yOffset;
    case 4:
        return 1 - yOffset;
    case 5:
        return -yOffset;
    default:
        return 0;
    }
}

constexpr float kSinglePixelPerimeter = 3.5449078f; // sqrt(4 pi): the roundness of a circle

} // namespace

CContourTracer::CContourTracer(const unsigned char* mask, std::function<bool(const unsigned char&)> predicate,
                               int width, int height)
    : m_mask(mask), m_predicate(std::move(predicate)), m_width(width > 0 && height > 0 ? width : 0),
      m_height(width > 0 && height > 0 ? height : 0)
{
}

CContourTracer::CContourTracer(const unsigned char* mask, unsigned char value, int width, int height)
    : m_mask(mask), m_width(width > 0 && height > 0 ? width : 0),
      m_height(width > 0 && height > 0 ? height : 0), m_byValue(true), m_value(value)
{
}

bool CContourTracer::FindFirst(int& x, int& y) const
{
    if (m_width == 0 || !m_mask)
        return false;
    const std::size_t size = static_cast<std::size_t>(m_width) * static_cast<std::size_t>(m_height);
    std::size_t at = size;
    if (m_byValue) {
        const void* hit = std::memchr(m_mask, m_value, size);
        if (hit)
            at = static_cast<std::size_t>(static_cast<const unsigned char*>(hit) - m_mask);
    } else {
        for (std::size_t i = 0; i < size; ++i)
            if (m_predicate(m_mask[i])) {
                at = i;
                break;
            }
    }
    if (at == size)
        return false;
    x = static_cast<int>(at % static_cast<std::size_t>(m_width));
    y = static_cast<int>(at / static_cast<std::size_t>(m_width));
    return true;
}

CPixelPolygon CContourTracer::Trace(int x, int y) const
{
    if (m_byValue) {
        const unsigned char value = m_value;
        return trace(x, y, [value](unsigned char b) { return b == value; });
    }
    return trace(x, y, [this](const unsigned char& b) { return m_predicate(b); });
}

CPixelPolygon CContourTracer::TraceFirst() const
{
    int x = 0;
    int y = 0;
    if (!FindFirst(x, y))
        return CPixelPolygon();
    return Trace(x, y);
}

template <typename IsSet> CPixelPolygon CContourTracer::trace(int startX, int startY, IsSet isSet) const
{
    const int w = m_width;
    const int h = m_height;
    auto set = [&](int px, int py) {
        return px >= 0 && py >= 0 && px < w && py < h &&
               isSet(m_mask[static_cast<std::size_t>(py) * static_cast<std::size_t>(w) +
                            static_cast<std::size_t>(px)]);
    };
    if (!m_mask || !set(startX, startY))
        return CPixelPolygon();

    int d = 5;
    if (!set(startX - 1, startY))
        d = 5;
    else if (!set(startX, startY - 1))
        d = 3;
    else if (!set(startX + 1, startY))
        d = 1;
    else if (!set(startX, startY + 1))
        d = 7;

    std::vector<ChainedPixel> chain;
    std::int64_t area = 1;
    std::int64_t yOffset = 0;
    std::uint64_t diagonal = 0;
    std::uint64_t axis = 0;
    int x = startX;
    int y = startY;
    int failures = 0;
    // Every (pixel, direction) state occurs at most once per round, so this bound is never reached
    // on a mask; it only guards the loop.
    const std::uint64_t maxSteps = 8ull * static_cast<std::uint64_t>(w) * static_cast<std::uint64_t>(h) + 8;
    std::uint64_t steps = 0;
    while (steps < maxSteps) {
        const int nx = x + kDx[d];
        const int ny = y + kDy[d];
        if (x == startX && y == startY && !chain.empty() && chain.front().x == nx && chain.front().y == ny)
            break;
        if (set(nx, ny)) {
            area += AreaChange(d, yOffset);
            yOffset += kDy[d];
            if (d & 1)
                ++diagonal;
            else
                ++axis;
            chain.emplace_back(nx, ny);
            x = nx;
            y = ny;
            d = (d + 6) & 7;
            failures = 0;
            ++steps;
        } else {
            d = (d + 1) & 7;
            if (++failures == 8)
                break;
        }
    }
    if (chain.empty()) {
        chain.emplace_back(startX, startY);
        return CPixelPolygon(std::move(chain), 1, kSinglePixelPerimeter);
    }
    const float perimeter = static_cast<float>(diagonal) * std::sqrt(2.0f) + static_cast<float>(axis);
    return CPixelPolygon(std::move(chain), static_cast<int>(area), perimeter);
}

} // namespace DataLayer::detail
