#include "datalayer/algorithms/regions/cintegerpartition2d.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

namespace DataLayer {

namespace {

std::uint64_t PowMod(std::uint64_t base, std::uint64_t exponent, std::uint64_t modulus)
{
    std::uint64_t result = 1 % modulus;
    base %= modulus;
    while (exponent != 0) {
        if (exponent & 1u)
            result = result * base % modulus;
        base = base * base % modulus;
        exponent >>= 1;
    }
    return result;
}

/// The primality test of the grid shape: Carmichael numbers are excluded, Fermat tests to the bases
/// 3 and 2 accept, and otherwise up to 1,000 Euler witnesses must all fail to reject.
bool IsPrime(std::uint32_t n)
{
    if (n < 2)
        return false;
    if (n == 2 || n == 3)
        return true;
    static constexpr std::uint32_t kCarmichael[] = {
        561,    1105,   1729,   2465,   2821,   6601,   8911,   10585,  15841,  29341,  41041,
        46657,  52633,  62745,  63973,  75361,  101101, 115921, 126217, 162401, 172081, 188461,
        252601, 278545, 294409, 314821, 334153, 340561, 399001, 410041, 449065, 488881, 512461};
    for (std::uint32_t c : kCarmichael)
        if (n == c)
            return false;
    if (PowMod(3, n, n) == 3 && PowMod(2, n, n) == 2)
        return true;
    std::minstd_rand engine(47110815u);
    std::uniform_int_distribution<std::uint32_t> witness(1, n);
    for (int round = 0; round < 1000; ++round) {
        const std::uint64_t r = PowMod(witness(engine), (n - 1) / 2, n);
        if (r != 1 && r != n - 1)
            return false;
    }
    return true;
}

std::uint32_t NextPrime(std::uint32_t p)
{
    std::uint64_t c = (p & 1u) ? std::uint64_t{p} + 2 : std::uint64_t{p} + 1;
    for (; c <= std::numeric_limits<std::uint32_t>::max(); c += 2)
        if (IsPrime(static_cast<std::uint32_t>(c)))
            return static_cast<std::uint32_t>(c);
    return std::numeric_limits<std::uint32_t>::max();
}

std::vector<std::uint32_t> PrimeFactors(std::uint32_t n)
{
    std::vector<std::uint32_t> factors;
    if (n <= 1) {
        factors.push_back(1);
        return factors;
    }
    std::uint32_t p = 2;
    while (n > 1) {
        if (std::uint64_t{p} * p > n) {
            factors.push_back(n);
            break;
        }
        while (n % p == 0) {
            factors.push_back(p);
            n /= p;
        }
        p = NextPrime(p);
    }
    return factors;
}

int ClampToInt(std::int64_t v)
{
    return static_cast<int>(
        std::clamp<std::int64_t>(v, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

} // namespace

CIntegerPartition2D::CIntegerPartition2D(const CIntegerPartition2D& other)
    : m_numColumns(other.m_numColumns), m_numRows(other.m_numRows), m_overlap(other.m_overlap)
{
    const int n = other.GetNumPartitions();
    if (other.m_partitions && n > 0) {
        m_partitions.reset(new SPartition[static_cast<std::size_t>(n)]);
        std::copy(other.m_partitions.get(), other.m_partitions.get() + n, m_partitions.get());
    }
}

CIntegerPartition2D& CIntegerPartition2D::operator=(const CIntegerPartition2D& other)
{
    if (this != &other) {
        CIntegerPartition2D copy(other);
        m_numColumns = copy.m_numColumns;
        m_numRows = copy.m_numRows;
        m_overlap = copy.m_overlap;
        m_partitions = std::move(copy.m_partitions);
    }
    return *this;
}

CIntegerPartition2D::CIntegerPartition2D(unsigned int count, int minX, int minY, int maxX, int maxY,
                                         int overlap, int quantization)
{
    if (count == 0) {
        reset();
        return;
    }
    if (count > 5 && IsPrime(count))
        ++count;
    construct(count, 0, 0, minX, minY, maxX, maxY, overlap, quantization);
}

CIntegerPartition2D::CIntegerPartition2D(unsigned int numColumns, unsigned int numRows, int minX, int minY,
                                         int maxX, int maxY, int overlap, int quantization)
{
    if (numColumns == 0 || numRows == 0) {
        reset();
        return;
    }
    construct(0, numColumns, numRows, minX, minY, maxX, maxY, overlap, quantization);
}

void CIntegerPartition2D::reset()
{
    m_numColumns = 0;
    m_numRows = 0;
    m_overlap = 0;
    m_partitions.reset();
}

void CIntegerPartition2D::construct(unsigned int count, unsigned int numColumns, unsigned int numRows,
                                    int minX, int minY, int maxX, int maxY, int overlap, int quantization)
{
    reset();
    if (quantization < 1)
        return;
    std::int64_t w = static_cast<std::int64_t>(maxX) - minX + 1;
    std::int64_t h = static_cast<std::int64_t>(maxY) - minY + 1;
    if (w < 1 || h < 1)
        return;
    // The region is cut to a whole number of steps.
    maxX = static_cast<int>(maxX - w % quantization);
    maxY = static_cast<int>(maxY - h % quantization);
    w -= w % quantization;
    h -= h % quantization;

    // The first overlap at or above the given one that shares no bit with the step: each jump skips
    // the run of values that keep the lowest shared bit set.
    std::uint64_t o = static_cast<std::uint32_t>(overlap);
    const std::uint64_t q = static_cast<std::uint32_t>(quantization);
    while ((o & q) != 0) {
        const std::uint64_t shared = o & q;
        const std::uint64_t lowest = shared & (~shared + 1);
        o = (o | (lowest - 1)) + 1;
    }
    const int adjustedOverlap = static_cast<int>(static_cast<std::uint32_t>(o));

    if (count != 0) {
        computeNumberOfPartitionsXY(count, static_cast<int>(std::min<std::int64_t>(w, INT32_MAX)),
                                    static_cast<int>(std::min<std::int64_t>(h, INT32_MAX)));
        numColumns = static_cast<unsigned int>(m_numColumns);
        numRows = static_cast<unsigned int>(m_numRows);
        m_numColumns = 0;
        m_numRows = 0;
    }
    if (numColumns == 0 || numRows == 0 || w < numColumns || h < numRows ||
        static_cast<std::uint64_t>(numColumns) * numRows > static_cast<std::uint64_t>(INT32_MAX))
        return;
    m_numColumns = static_cast<int>(numColumns);
    m_numRows = static_cast<int>(numRows);
    m_overlap = adjustedOverlap;
    generatePartition(minX, minY, maxX, maxY, overlap);
    adjustForQuantization(quantization);
}

void CIntegerPartition2D::computeNumberOfPartitionsXY(unsigned int count, int width, int height)
{
    const std::vector<std::uint32_t> factors = PrimeFactors(count);
    const std::size_t k = factors.size();
    if (k > 12) {
        m_numColumns = static_cast<int>(std::min<unsigned int>(count, INT32_MAX));
        m_numRows = 1;
        return;
    }
    double best = DBL_MAX;
    for (std::uint32_t mask = 0; mask < (1u << k); ++mask) {
        std::uint64_t a = 1;
        std::uint64_t b = 1;
        for (std::size_t i = 0; i < k; ++i) {
            if (mask & (1u << i))
                a *= factors[i];
            else
                b *= factors[i];
        }
        const double cost = std::fabs(static_cast<double>(width) / static_cast<double>(a) -
                                      static_cast<double>(height) / static_cast<double>(b));
        if (cost < best) {
            best = cost;
            m_numColumns = static_cast<int>(std::min<std::uint64_t>(a, INT32_MAX));
            m_numRows = static_cast<int>(std::min<std::uint64_t>(b, INT32_MAX));
        }
    }
}

void CIntegerPartition2D::generatePartition(int minX, int minY, int maxX, int maxY, int overlap)
{
    const std::int64_t w = static_cast<std::int64_t>(maxX) - minX + 1;
    const std::int64_t h = static_cast<std::int64_t>(maxY) - minY + 1;
    const std::int64_t bx = w / m_numColumns, rx = w % m_numColumns;
    const std::int64_t by = h / m_numRows, ry = h % m_numRows;
    m_partitions.reset(new SPartition[static_cast<std::size_t>(m_numColumns) * m_numRows]);
    for (int row = 0; row < m_numRows; ++row) {
        for (int column = 0; column < m_numColumns; ++column) {
            SPartition& cellRef = m_partitions[static_cast<std::size_t>(row) * m_numColumns + column];
            std::int64_t xs = minX;
            if (column > 0) {
                const SPartition& left =
                    m_partitions[static_cast<std::size_t>(row) * m_numColumns + column - 1];
                xs = static_cast<std::int64_t>(left.maxX) - left.overlapRight + 1;
            }
            std::int64_t ys = minY;
            if (row > 0) {
                const SPartition& above =
                    m_partitions[static_cast<std::size_t>(row - 1) * m_numColumns + column];
                ys = static_cast<std::int64_t>(above.maxY) - above.overlapBottom + 1;
            }
            const std::int64_t coreW = bx + (column < rx ? 1 : 0);
            const std::int64_t coreH = by + (row < ry ? 1 : 0);
            std::int64_t x0 = xs - overlap, y0 = ys - overlap;
            std::int64_t x1 = xs + coreW - 1 + overlap, y1 = ys + coreH - 1 + overlap;
            SPartition p;
            p.overlapLeft = p.overlapTop = p.overlapRight = p.overlapBottom = overlap;
            if (x0 < minX) {
                x0 = minX;
                p.overlapLeft = 0;
                p.atLeftBorder = true;
            }
            if (y0 < minY) {
                y0 = minY;
                p.overlapTop = 0;
                p.atTopBorder = true;
            }
            if (x1 > maxX) {
                x1 = maxX;
                p.overlapRight = 0;
                p.atRightBorder = true;
            }
            if (y1 > maxY) {
                y1 = maxY;
                p.overlapBottom = 0;
                p.atBottomBorder = true;
            }
            p.minX = ClampToInt(x0);
            p.minY = ClampToInt(y0);
            p.maxX = ClampToInt(x1);
            p.maxY = ClampToInt(y1);
            cellRef = p;
        }
    }
}

void CIntegerPartition2D::adjustForQuantization(int quantization)
{
    for (int column = 0; column + 1 < m_numColumns; ++column) {
        const SPartition& top = m_partitions[static_cast<std::size_t>(column)];
        const int r = static_cast<int>((static_cast<std::int64_t>(top.maxX) - top.minX + 1) % quantization);
        if (r == 0)
            continue;
        for (int row = 0; row < m_numRows; ++row) {
            m_partitions[static_cast<std::size_t>(row) * m_numColumns + column].maxX -= r;
            m_partitions[static_cast<std::size_t>(row) * m_numColumns + column + 1].minX -= r;
        }
    }
    for (int row = 0; row + 1 < m_numRows; ++row) {
        const SPartition& first = m_partitions[static_cast<std::size_t>(row) * m_numColumns];
        const int r =
            static_cast<int>((static_cast<std::int64_t>(first.maxY) - first.minY + 1) % quantization);
        if (r == 0)
            continue;
        for (int column = 0; column < m_numColumns; ++column) {
            m_partitions[static_cast<std::size_t>(row) * m_numColumns + column].maxY -= r;
            m_partitions[static_cast<std::size_t>(row + 1) * m_numColumns + column].minY -= r;
        }
    }
}

int CIntegerPartition2D::GetMinX() const
{
    return m_partitions ? cell(0).minX : 0;
}
int CIntegerPartition2D::GetMinY() const
{
    return m_partitions ? cell(0).minY : 0;
}
int CIntegerPartition2D::GetMaxX() const
{
    return m_partitions ? cell(GetNumPartitions() - 1).maxX : 0;
}
int CIntegerPartition2D::GetMaxY() const
{
    return m_partitions ? cell(GetNumPartitions() - 1).maxY : 0;
}
int CIntegerPartition2D::GetWidth() const
{
    return m_partitions ? GetMaxX() - GetMinX() + 1 : 0;
}
int CIntegerPartition2D::GetHeight() const
{
    return m_partitions ? GetMaxY() - GetMinY() + 1 : 0;
}

int CIntegerPartition2D::GetMinX(int index, bool withOverlap) const
{
    const SPartition& p = cell(index);
    return withOverlap ? p.minX : p.minX + p.overlapLeft;
}
int CIntegerPartition2D::GetMinY(int index, bool withOverlap) const
{
    const SPartition& p = cell(index);
    return withOverlap ? p.minY : p.minY + p.overlapTop;
}
int CIntegerPartition2D::GetMaxX(int index, bool withOverlap) const
{
    const SPartition& p = cell(index);
    return withOverlap ? p.maxX : p.maxX - p.overlapRight;
}
int CIntegerPartition2D::GetMaxY(int index, bool withOverlap) const
{
    const SPartition& p = cell(index);
    return withOverlap ? p.maxY : p.maxY - p.overlapBottom;
}
int CIntegerPartition2D::GetWidth(int index, bool withOverlap) const
{
    return GetMaxX(index, withOverlap) - GetMinX(index, withOverlap) + 1;
}
int CIntegerPartition2D::GetWidth(int row, int column, bool withOverlap) const
{
    return GetWidth(m_numColumns * row + column, withOverlap);
}
int CIntegerPartition2D::GetHeight(int index, bool withOverlap) const
{
    return GetMaxY(index, withOverlap) - GetMinY(index, withOverlap) + 1;
}
int CIntegerPartition2D::GetHeight(int row, int column, bool withOverlap) const
{
    return GetHeight(m_numColumns * row + column, withOverlap);
}

void CIntegerPartition2D::GetPartition(int index, int& minX, int& minY, int& maxX, int& maxY,
                                       bool withOverlap) const
{
    minX = GetMinX(index, withOverlap);
    minY = GetMinY(index, withOverlap);
    maxX = GetMaxX(index, withOverlap);
    maxY = GetMaxY(index, withOverlap);
}

void CIntegerPartition2D::GetPartition(int row, int column, int& minX, int& minY, int& maxX, int& maxY,
                                       bool withOverlap) const
{
    GetPartition(m_numColumns * row + column, minX, minY, maxX, maxY, withOverlap);
}

void CIntegerPartition2D::GetOverlap(int index, int& left, int& top, int& right, int& bottom) const
{
    const SPartition& p = cell(index);
    left = p.overlapLeft;
    top = p.overlapTop;
    right = p.overlapRight;
    bottom = p.overlapBottom;
}

void CIntegerPartition2D::GetOverlap(int row, int column, int& left, int& top, int& right, int& bottom) const
{
    GetOverlap(m_numColumns * row + column, left, top, right, bottom);
}

int CIntegerPartition2D::FindPartition(int x, int y) const
{
    const int n = GetNumPartitions();
    for (int i = 0; i < n; ++i) {
        const SPartition& p = cell(i);
        if (x >= p.minX + p.overlapLeft && x <= p.maxX - p.overlapRight && y >= p.minY + p.overlapTop &&
            y <= p.maxY - p.overlapBottom)
            return i;
    }
    return -1;
}

int CIntegerPartition2D::CalculatePartitionIndex(int x, int y) const
{
    if (!m_partitions)
        return -1;
    const SPartition& first = cell(0);
    const SPartition& last = cell(GetNumPartitions() - 1);
    auto locate = [](std::int64_t offset, std::int64_t extent, std::int64_t cells, std::int64_t& slot) {
        const std::int64_t b = extent / cells;
        const std::int64_t r = extent % cells;
        if (offset < (b + 1) * r) {
            slot = offset / (b + 1);
            return true;
        }
        if (b == 0)
            return false;
        slot = r + (offset - (b + 1) * r) / b;
        return true;
    };
    std::int64_t column = 0, row = 0;
    if (!locate(static_cast<std::int64_t>(x) - first.minX,
                static_cast<std::int64_t>(last.maxX) - first.minX + 1, m_numColumns, column) ||
        !locate(static_cast<std::int64_t>(y) - first.minY,
                static_cast<std::int64_t>(last.maxY) - first.minY + 1, m_numRows, row))
        return -1;
    const std::int64_t index = static_cast<std::int64_t>(m_numColumns) * row + column;
    return index >= 0 && index < GetNumPartitions() ? static_cast<int>(index) : -1;
}

bool CIntegerPartition2D::IsBlack(int index) const
{
    if (m_numColumns == 0)
        return false;
    return IsBlack(index / m_numColumns, index % m_numColumns);
}

bool CIntegerPartition2D::IsWhite(int index) const
{
    if (m_numColumns == 0)
        return false;
    return IsWhite(index / m_numColumns, index % m_numColumns);
}

} // namespace DataLayer
