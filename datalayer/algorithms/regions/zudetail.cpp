#include "datalayer/algorithms/regions/zudetail.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

namespace DataLayer::zudetail {

namespace {

// The three metrics: F(x, i) is the distance from column x to the feature column i of a row whose
// column distances are g; Sep(i, u) the first column from which u is at least as close as i.
template <typename T> struct SEuclidean
{
    static T F(T x, T i, T gi) { return (x - i) * (x - i) + gi * gi; }
    static T Sep(T i, T u, T gi, T gu, T) { return (u * u - i * i + gu * gu - gi * gi) / (2 * (u - i)); }
    static std::uint32_t Output(T d)
    {
        const float root = std::sqrt(static_cast<float>(d));
        return static_cast<std::uint32_t>(static_cast<std::int64_t>(std::trunc(root + 0.5f)));
    }
};

struct SManhattan
{
    static int F(int x, int i, int gi) { return std::abs(x - i) + gi; }
    static int Sep(int i, int u, int gi, int gu, int inf)
    {
        if (gu >= gi + u - i)
            return inf;
        if (gi > gu + u - i)
            return -inf;
        return (u + i + gu - gi) / 2;
    }
    static std::uint32_t Output(int d) { return static_cast<std::uint32_t>(d); }
};

struct SChessboard
{
    static int F(int x, int i, int gi) { return std::max(std::abs(x - i), gi); }
    static int Sep(int i, int u, int gi, int gu, int)
    {
        const int h = (i + u) / 2;
        return gi <= gu ? std::max(i + gu, h) : std::min(h, u - gi);
    }
    static std::uint32_t Output(int d) { return static_cast<std::uint32_t>(d); }
};

/// Column pass: g(x, y), the distance to the nearest feature in the column, or inf plus the rows
/// walked when the column has none. Columns are processed in groups whose values are gathered in a
/// small column-major block and then written row by row, so the scratch is written in whole cache
/// lines; isFeature is still called column by column.
void ColumnPass(const std::function<bool(int, int)>& isFeature, int width, int height, std::uint32_t* g)
{
    constexpr int kGroup = 16;
    const std::uint32_t inf = static_cast<std::uint32_t>(width + height);
    std::vector<std::uint32_t> block(static_cast<std::size_t>(kGroup) * height);
    for (int x0 = 0; x0 < width; x0 += kGroup) {
        const int columns = std::min(kGroup, width - x0);
        for (int c = 0; c < columns; ++c) {
            std::uint32_t* col = &block[static_cast<std::size_t>(c) * height];
            const int x = x0 + c;
            col[0] = isFeature(x, 0) ? 0 : inf;
            for (int y = 1; y < height; ++y)
                col[y] = isFeature(x, y) ? 0 : col[y - 1] + 1;
            for (int y = height - 2; y >= 0; --y)
                if (col[y + 1] < col[y])
                    col[y] = col[y + 1] + 1;
        }
        for (int y = 0; y < height; ++y) {
            std::uint32_t* row = g + static_cast<std::size_t>(y) * width + x0;
            for (int c = 0; c < columns; ++c)
                row[c] = block[static_cast<std::size_t>(c) * height + y];
        }
    }
}

/// Row pass: the lower envelope of the row's column distances, read back from right to left.
template <typename Metric, typename T>
std::uint16_t RowPass(int width, int height, const std::uint32_t* g, unsigned short* result)
{
    const T inf = static_cast<T>(width) + static_cast<T>(height);
    std::vector<T> s(static_cast<std::size_t>(width));
    std::vector<T> t(static_cast<std::size_t>(width));
    std::vector<T> gs(static_cast<std::size_t>(width)); // g at s[q], kept beside it
    std::uint16_t maximum = 0;
    for (int y = 0; y < height; ++y) {
        const std::uint32_t* gRow = g + static_cast<std::size_t>(y) * width;
        unsigned short* out = result + static_cast<std::size_t>(y) * width;
        std::ptrdiff_t q = 0;
        s[0] = 0;
        t[0] = 0;
        gs[0] = static_cast<T>(gRow[0]);
        for (T u = 1; u < width; ++u) {
            const T gu = static_cast<T>(gRow[static_cast<std::size_t>(u)]);
            while (q >= 0 && Metric::F(t[q], s[q], gs[q]) > Metric::F(t[q], u, gu))
                --q;
            if (q < 0) {
                q = 0;
                s[0] = u;
                gs[0] = gu;
            } else {
                const T w = 1 + Metric::Sep(s[q], u, gs[q], gu, inf);
                if (w < width) {
                    ++q;
                    s[q] = u;
                    t[q] = w;
                    gs[q] = gu;
                }
            }
        }
        for (T u = width - 1; u >= 0; --u) {
            const std::uint16_t d = static_cast<std::uint16_t>(Metric::Output(Metric::F(u, s[q], gs[q])));
            out[u] = d;
            maximum = std::max(maximum, d);
            if (u == t[q] && q > 0)
                --q;
        }
    }
    return maximum;
}

} // namespace

unsigned short* ComputeDistanceTransform(std::function<bool(int, int)> isFeature, unsigned short width,
                                         unsigned short height, char metric, unsigned short* maxDistance,
                                         unsigned short* result, unsigned int* scratch)
{
    if (metric != 'E' && metric != 'M' && metric != 'C')
        return nullptr;
    const std::size_t count = static_cast<std::size_t>(width) * height;
    std::unique_ptr<unsigned short[]> ownedResult;
    if (!result) {
        ownedResult.reset(new unsigned short[count]);
        result = ownedResult.get();
    }
    std::unique_ptr<unsigned int[]> ownedScratch;
    if (!scratch && count != 0) {
        ownedScratch.reset(new unsigned int[count]);
        scratch = ownedScratch.get();
    }
    std::uint16_t maximum = 0;
    if (count != 0) {
        ColumnPass(isFeature, width, height, scratch);
        if (metric == 'E') {
            // The largest value of F and of the numerator of Sep is below w^2 + (w + 2h)^2.
            const std::int64_t w = width, span = static_cast<std::int64_t>(width) + 2 * height;
            if (w * w + span * span < (std::int64_t{1} << 31))
                maximum = RowPass<SEuclidean<int>, int>(width, height, scratch, result);
            else
                maximum = RowPass<SEuclidean<std::int64_t>, std::int64_t>(width, height, scratch, result);
        } else if (metric == 'M') {
            maximum = RowPass<SManhattan, int>(width, height, scratch, result);
        } else {
            maximum = RowPass<SChessboard, int>(width, height, scratch, result);
        }
    }
    if (maxDistance)
        *maxDistance = maximum;
    ownedResult.release();
    return result;
}

} // namespace DataLayer::zudetail
