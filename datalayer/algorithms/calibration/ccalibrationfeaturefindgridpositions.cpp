#include "datalayer/algorithms/calibration/ccalibrationfeaturefindgridpositions.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <deque>
#include <limits>
#include <new>
#include <numbers>
#include <utility>

namespace DataLayer {

namespace {

constexpr double kFloatEpsilon = 1.1920928955078125e-7;
constexpr double kDoubleEpsilon = 2.220446049250313e-16;
constexpr double kQuarterPi = 0.7853981633974483;

/// trunc(v) within the int range; NaN gives 0.
int saturatingTrunc(double v)
{
    if (std::isnan(v))
        return 0;
    if (v >= 2147483647.0)
        return std::numeric_limits<int>::max();
    if (v <= -2147483648.0)
        return std::numeric_limits<int>::min();
    return static_cast<int>(v);
}

int saturatingAdd(int a, int b)
{
    const long long s = static_cast<long long>(a) + b;
    return static_cast<int>(
        std::clamp<long long>(s, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

using detail::FeatureDifference;
using detail::ScaledFeature;

/// Removes element index, keeping the order of the others.
void removeAt(CArray<CCalibrationPointFeatureDetect>& list, std::ptrdiff_t index)
{
    list.RemoveAt(index);
}

/// Buckets of point indices on a uniform grid, for the neighbour queries of the sort and the
/// growth. Points keep their index order inside each bucket. Queries give exactly what a scan over
/// all points gives; the grid only skips points that can't qualify.
class CPointGrid
{
public:
    CPointGrid(const CCalibrationPointFeatureDetect* points, std::ptrdiff_t count, double cellSize)
    {
        if (count < 1)
            return;
        m_minX = m_maxX = points[0].posX;
        m_minY = m_maxY = points[0].posY;
        for (std::ptrdiff_t k = 1; k < count; ++k) {
            m_minX = std::min(m_minX, points[k].posX);
            m_maxX = std::max(m_maxX, points[k].posX);
            m_minY = std::min(m_minY, points[k].posY);
            m_maxY = std::max(m_maxY, points[k].posY);
        }
        // At most about four buckets per point in each direction product; a degenerate or
        // non-finite extent gives one bucket.
        const double limit = 2.0 * std::sqrt(static_cast<double>(count)) + 1.0;
        const double spanX = m_maxX - m_minX;
        const double spanY = m_maxY - m_minY;
        m_cell = cellSize;
        if (!(m_cell > 0.0) || !std::isfinite(m_cell))
            m_cell = 1.0;
        m_cell = std::max({m_cell, spanX / limit, spanY / limit});
        if (!std::isfinite(m_cell) || !(m_cell > 0.0)) {
            m_cell = 1.0;
            m_nx = m_ny = 1;
        } else {
            m_nx = static_cast<int>(std::min(limit, spanX / m_cell)) + 1;
            m_ny = static_cast<int>(std::min(limit, spanY / m_cell)) + 1;
        }
        m_start.assign(static_cast<std::size_t>(m_nx) * m_ny + 1, 0);
        m_cellOf.resize(static_cast<std::size_t>(count));
        for (std::ptrdiff_t k = 0; k < count; ++k) {
            const std::size_t c = cellIndex(columnOf(points[k].posX), rowOf(points[k].posY));
            m_cellOf[static_cast<std::size_t>(k)] = c;
            ++m_start[c + 1];
        }
        for (std::size_t c = 1; c < m_start.size(); ++c)
            m_start[c] += m_start[c - 1];
        m_items.resize(static_cast<std::size_t>(count));
        std::vector<std::size_t> fill(m_start.begin(), m_start.end() - 1);
        for (std::ptrdiff_t k = 0; k < count; ++k)
            m_items[fill[m_cellOf[static_cast<std::size_t>(k)]]++] = static_cast<int>(k);
    }

    int columnOf(double x) const
    {
        const double c = (x - m_minX) / m_cell;
        return c >= m_nx - 1 ? m_nx - 1 : (c > 0.0 ? static_cast<int>(c) : 0);
    }
    int rowOf(double y) const
    {
        const double r = (y - m_minY) / m_cell;
        return r >= m_ny - 1 ? m_ny - 1 : (r > 0.0 ? static_cast<int>(r) : 0);
    }
    int Columns() const { return m_nx; }
    int Rows() const { return m_ny; }
    double Cell() const { return m_cell; }

    /// Calls visit(index) for every point in the buckets of columns c0..c1 and rows r0..r1.
    template <typename Visit> void ForCells(int c0, int c1, int r0, int r1, Visit&& visit) const
    {
        c0 = std::max(c0, 0);
        r0 = std::max(r0, 0);
        c1 = std::min(c1, m_nx - 1);
        r1 = std::min(r1, m_ny - 1);
        for (int r = r0; r <= r1; ++r)
            for (int c = c0; c <= c1; ++c) {
                const std::size_t cell = cellIndex(c, r);
                for (std::size_t k = m_start[cell]; k < m_start[cell + 1]; ++k)
                    visit(m_items[k]);
            }
    }

private:
    std::size_t cellIndex(int c, int r) const { return static_cast<std::size_t>(r) * m_nx + c; }

    double m_minX = 0.0;
    double m_maxX = 0.0;
    double m_minY = 0.0;
    double m_maxY = 0.0;
    double m_cell = 1.0;
    int m_nx = 1;
    int m_ny = 1;
    std::vector<std::size_t> m_start{0, 0};
    std::vector<std::size_t> m_cellOf;
    std::vector<int> m_items;
};

} // namespace

CCalibrationFeatureFindGridPositions::NCRhomboidRoi::NCRhomboidRoi(double cx, double cy, double ax, double ay,
                                                                   double bx, double by)
    : centerX(cx), centerY(cy)
{
    const double det = ax * by - ay * bx;
    if (!(std::fabs(det) >= kFloatEpsilon))
        return;
    valid = true;
    m0 = by / det;
    m1 = -bx / det;
    m2 = ax / det;
    m3 = -ay / det;
    xMax = saturatingAdd(saturatingTrunc(std::fabs(ax) + cx + std::fabs(bx) + 0.5), 1);
    xMin = saturatingAdd(saturatingTrunc(cx - std::fabs(ax) - std::fabs(bx) + 0.5), -1);
    yMax = saturatingAdd(saturatingTrunc(std::fabs(ay) + cy + std::fabs(by) + 0.5), 1);
    yMin = saturatingAdd(saturatingTrunc(cy - std::fabs(ay) - std::fabs(by) + 0.5), -1);
}

CCalibrationFeatureFindGridPositions::CCalibrationFeatureFindGridPositions() = default;

CCalibrationFeatureFindGridPositions::~CCalibrationFeatureFindGridPositions()
{
    freeFeatureIDs();
}

void CCalibrationFeatureFindGridPositions::SetReferencePattern(const bool* pattern, const CSize& size,
                                                               const CPoint& origin)
{
    if (pattern == nullptr || size.cx < 2 || size.cy < 2) {
        m_pattern = nullptr;
        m_patternSize = CSize();
        m_patternOrigin = CPoint();
        return;
    }
    m_pattern = pattern;
    m_patternSize = size;
    m_patternOrigin = origin;
}

bool CCalibrationFeatureFindGridPositions::FindGridPositions(
    const CArray<CCalibrationPointFeatureDetect>& features, double featureDistance, int reservedArgument,
    const ICalibrationImage* /*image*/)
{
    m_features.RemoveAll();
    for (std::ptrdiff_t n = 0; n < features.GetSize(); ++n)
        if (std::isfinite(features[n].posX) && std::isfinite(features[n].posY))
            m_features.Add(features[n]);
    m_featureDistance = featureDistance;
    m_reserved = reservedArgument;
    bool ok = sortCalibrationFeatures() && allocFeatureIDs() && findGridPositions();
    if (ok && m_pattern != nullptr)
        ok = findReferencePatterndAdaptPositions(m_pattern, m_patternSize, m_patternOrigin);
    if (!ok)
        m_features.RemoveAll();
    return ok;
}

bool CCalibrationFeatureFindGridPositions::sortCalibrationFeatures()
{
    const std::ptrdiff_t n = m_features.GetSize();
    if (n <= 9)
        return false;
    CCalibrationPointFeatureDetect* f = m_features.GetData();
    constexpr int kKept = 9;
    const CPointGrid grid(f, n, 0.0);
    std::vector<double> keys(static_cast<std::size_t>(n));
    for (std::ptrdiff_t i = 0; i < n; ++i) {
        // The nine smallest squared distances, ascending; the own distance 0 takes the first place.
        std::array<double, kKept> smallest;
        smallest.fill(std::numeric_limits<double>::infinity());
        const double x = f[i].posX;
        const double y = f[i].posY;
        auto consider = [&](int j) {
            const double dx = f[j].posX - x;
            const double dy = f[j].posY - y;
            const double d2 = dx * dx + dy * dy;
            if (!(d2 < smallest[kKept - 1]))
                return;
            int k = kKept - 1;
            while (k > 0 && smallest[static_cast<std::size_t>(k - 1)] > d2) {
                smallest[static_cast<std::size_t>(k)] = smallest[static_cast<std::size_t>(k - 1)];
                --k;
            }
            smallest[static_cast<std::size_t>(k)] = d2;
        };
        // Rings of buckets around the point's bucket. A point in ring k + 1 or beyond lies at least
        // (k - 1) buckets away even with rounding at the bucket borders, so the search may stop as
        // soon as the ninth distance is within that.
        const int c = grid.columnOf(x);
        const int r = grid.rowOf(y);
        const int rings = std::max(grid.Columns(), grid.Rows());
        for (int k = 0; k <= rings; ++k) {
            if (k == 0) {
                grid.ForCells(c, c, r, r, consider);
            } else {
                grid.ForCells(c - k, c + k, r - k, r - k, consider);
                grid.ForCells(c - k, c + k, r + k, r + k, consider);
                grid.ForCells(c - k, c - k, r - k + 1, r + k - 1, consider);
                grid.ForCells(c + k, c + k, r - k + 1, r + k - 1, consider);
            }
            const double reach = (k - 1) * grid.Cell();
            if (k >= 1 && smallest[kKept - 1] <= reach * reach)
                break;
        }
        keys[static_cast<std::size_t>(i)] = smallest[kKept - 1];
    }
    for (std::ptrdiff_t i = 0; i < n; ++i)
        f[i].rating = keys[static_cast<std::size_t>(i)];
    std::stable_sort(f, f + n,
                     [](const CCalibrationPointFeatureDetect& a, const CCalibrationPointFeatureDetect& b) {
                         return CCalibrationPointFeatureDetect::FeatureCmp_temporary(&a, &b) < 0;
                     });
    return true;
}

bool CCalibrationFeatureFindGridPositions::allocFeatureIDs()
{
    freeFeatureIDs();
    if (m_features.IsEmpty() || !std::isfinite(m_featureDistance) || !(m_featureDistance > 0.0))
        return false;
    double minX = m_features[0].posX;
    double maxX = minX;
    double minY = m_features[0].posY;
    double maxY = minY;
    for (std::ptrdiff_t n = 1; n < m_features.GetSize(); ++n) {
        minX = std::min(minX, m_features[n].posX);
        maxX = std::max(maxX, m_features[n].posX);
        minY = std::min(minY, m_features[n].posY);
        maxY = std::max(maxY, m_features[n].posY);
    }
    const double spanX = std::trunc((maxX - minX) / m_featureDistance);
    const double spanY = std::trunc((maxY - minY) / m_featureDistance);
    // Offsets beyond this bound give a table above the limit anyway.
    if (!(spanX < 1.0e8 && spanY < 1.0e8))
        return false;
    const std::int64_t offsetX = 2 * static_cast<std::int64_t>(spanX) + 10;
    const std::int64_t offsetY = 2 * static_cast<std::int64_t>(spanY) + 10;
    const std::int64_t cells = (2 * offsetX) * (2 * offsetY);
    if (cells > m_ciMaxTableCells)
        return false;
    m_ids = new (std::nothrow) int[static_cast<std::size_t>(cells)];
    if (m_ids == nullptr)
        return false;
    m_tableOffsetX = static_cast<int>(offsetX);
    m_tableOffsetY = static_cast<int>(offsetY);
    m_tableSizeX = static_cast<int>(2 * offsetX);
    m_tableSizeY = static_cast<int>(2 * offsetY);
    initFeatureIDs();
    return true;
}

void CCalibrationFeatureFindGridPositions::freeFeatureIDs()
{
    delete[] m_ids;
    m_ids = nullptr;
    m_tableSizeX = m_tableSizeY = 0;
    m_tableOffsetX = m_tableOffsetY = 0;
}

void CCalibrationFeatureFindGridPositions::initFeatureIDs()
{
    if (m_ids != nullptr)
        std::fill(m_ids, m_ids + static_cast<std::ptrdiff_t>(m_tableSizeX) * m_tableSizeY, -1);
}

int CCalibrationFeatureFindGridPositions::getFeatureIDFromGridPosition(int gridX, int gridY) const
{
    const long long tx = static_cast<long long>(m_tableOffsetX) + gridX;
    const long long ty = static_cast<long long>(m_tableOffsetY) + gridY;
    if (m_ids == nullptr || tx < 0 || ty < 0 || tx >= m_tableSizeX || ty >= m_tableSizeY)
        return -1;
    return m_ids[tx * m_tableSizeY + ty];
}

bool CCalibrationFeatureFindGridPositions::setFeatureIDForGridPosition(int gridX, int gridY, int id)
{
    const long long tx = static_cast<long long>(m_tableOffsetX) + gridX;
    const long long ty = static_cast<long long>(m_tableOffsetY) + gridY;
    if (m_ids == nullptr || tx < 0 || ty < 0 || tx >= m_tableSizeX || ty >= m_tableSizeY)
        return false;
    int& entry = m_ids[tx * m_tableSizeY + ty];
    if (entry != -1)
        return false;
    entry = id;
    return true;
}

bool CCalibrationFeatureFindGridPositions::findGridPositions()
{
    CArray<CCalibrationPointFeatureDetect> remaining;
    CArray<CCalibrationPointFeatureDetect> located;
    if (!findInitialFourGridPositions(remaining, located))
        return false;
    if (!findRemainingGridPositions(remaining, located))
        return false;
    m_features = std::move(located);
    return true;
}

std::ptrdiff_t
CCalibrationFeatureFindGridPositions::nearestInside(const CArray<CCalibrationPointFeatureDetect>& remaining,
                                                    const NCRhomboidRoi& roi)
{
    std::ptrdiff_t best = -1;
    double bestDistance = 1.0;
    const CCalibrationPointFeatureDetect* r = remaining.GetData();
    for (std::ptrdiff_t n = 0; n < remaining.GetSize(); ++n) {
        const double x = r[n].posX;
        const double y = r[n].posY;
        if (x < roi.xMin || x > roi.xMax || y < roi.yMin || y > roi.yMax)
            continue;
        const double d = roi.Distance2(x, y);
        if (d < bestDistance) {
            bestDistance = d;
            best = n;
        }
    }
    return best;
}

bool CCalibrationFeatureFindGridPositions::findInitialFourGridPositions(
    CArray<CCalibrationPointFeatureDetect>& remaining, CArray<CCalibrationPointFeatureDetect>& located)
{
    const std::ptrdiff_t n = m_features.GetSize();
    if (m_ids == nullptr)
        return false;
    // The table holds at most the four seed entries between starts; clearing those is the same as
    // resetting the whole table.
    std::array<std::pair<int, int>, 4> seeded{};
    int seededCount = 0;
    auto accept = [&](std::ptrdiff_t index, int gx, int gy) {
        CCalibrationPointFeatureDetect f = remaining[index];
        f.gridX = gx;
        f.gridY = gy;
        const int id = static_cast<int>(located.Add(f));
        setFeatureIDForGridPosition(gx, gy, id);
        seeded[static_cast<std::size_t>(seededCount++)] = {gx, gy};
        removeAt(remaining, index);
    };
    for (std::ptrdiff_t start = 0; start < n; ++start) {
        for (int k = 0; k < seededCount; ++k) {
            const long long tx =
                static_cast<long long>(m_tableOffsetX) + seeded[static_cast<std::size_t>(k)].first;
            const long long ty =
                static_cast<long long>(m_tableOffsetY) + seeded[static_cast<std::size_t>(k)].second;
            m_ids[tx * m_tableSizeY + ty] = -1;
        }
        seededCount = 0;
        remaining.SetSize(n);
        for (std::ptrdiff_t k = 0; k < n; ++k)
            remaining[k] = m_features[(start + k) % n];
        located.RemoveAll();

        accept(0, 0, 0);
        const CCalibrationPointFeatureDetect l0 = located[0];

        std::ptrdiff_t nearest = -1;
        double nearestDistance = std::numeric_limits<double>::infinity();
        for (std::ptrdiff_t k = 0; k < remaining.GetSize(); ++k) {
            const double dx = remaining[k].posX - l0.posX;
            const double dy = remaining[k].posY - l0.posY;
            const double d2 = dx * dx + dy * dy;
            if (d2 < nearestDistance) {
                nearestDistance = d2;
                nearest = k;
            }
        }
        if (nearest < 0)
            continue;
        accept(nearest, 0, 1);
        const CCalibrationPointFeatureDetect l1 = located[1];
        const double ex = l1.posX - l0.posX;
        const double ey = l1.posY - l0.posY;
        const double eLength = std::sqrt(ex * ex + ey * ey);

        nearest = -1;
        nearestDistance = std::numeric_limits<double>::infinity();
        for (std::ptrdiff_t k = 0; k < remaining.GetSize(); ++k) {
            const double fx = remaining[k].posX - l0.posX;
            const double fy = remaining[k].posY - l0.posY;
            const double fLength = std::sqrt(fx * fx + fy * fy);
            if (!(fLength > kDoubleEpsilon && eLength > kDoubleEpsilon))
                continue;
            if (!(std::acos(std::fabs(fx * ex + fy * ey) / (fLength * eLength)) > kQuarterPi))
                continue;
            const double d2 = fx * fx + fy * fy;
            if (d2 < nearestDistance) {
                nearestDistance = d2;
                nearest = k;
            }
        }
        if (nearest < 0)
            continue;
        accept(nearest, 1, 0);
        const CCalibrationPointFeatureDetect l2 = located[2];

        const NCRhomboidRoi roi(l1.posX + l2.posX - l0.posX, l1.posY + l2.posY - l0.posY,
                                (l1.posX - l0.posX) / 2, (l1.posY - l0.posY) / 2, (l2.posX - l0.posX) / 2,
                                (l2.posY - l0.posY) / 2);
        if (!roi.valid)
            continue;
        nearest = nearestInside(remaining, roi);
        if (nearest < 0)
            continue;
        accept(nearest, 1, 1);
        return true;
    }
    return false;
}

bool CCalibrationFeatureFindGridPositions::findRemainingGridPositions(
    CArray<CCalibrationPointFeatureDetect>& remaining, CArray<CCalibrationPointFeatureDetect>& located)
{
    using Record = std::array<int, 5>; // feature id, then neighbours below, left, above, right
    std::deque<Record> queue;
    queue.push_back({0, -1, -1, 1, 2});
    queue.push_back({1, 0, -1, -1, 3});
    queue.push_back({2, -1, 0, 3, -1});
    queue.push_back({3, 2, 1, -1, -1});
    static constexpr int kStepX[4] = {0, -1, 0, 1};
    static constexpr int kStepY[4] = {-1, 0, 1, 0};
    // Taken features are only flagged while growing and leave the list at the end, in order; the
    // grid finds the candidates of a search area without a scan over the whole list. Among equally
    // near candidates the one earlier in the list wins, as in a scan.
    const CCalibrationPointFeatureDetect* pool = remaining.GetData();
    const CPointGrid grid(pool, remaining.GetSize(), 0.0);
    std::vector<char> taken(static_cast<std::size_t>(remaining.GetSize()), 0);
    std::ptrdiff_t left = remaining.GetSize();
    auto nearestCandidate = [&](const NCRhomboidRoi& roi) {
        int best = -1;
        double bestDistance = 1.0;
        grid.ForCells(grid.columnOf(roi.xMin), grid.columnOf(roi.xMax), grid.rowOf(roi.yMin),
                      grid.rowOf(roi.yMax), [&](int j) {
                          if (taken[static_cast<std::size_t>(j)])
                              return;
                          const double x = pool[j].posX;
                          const double y = pool[j].posY;
                          if (x < roi.xMin || x > roi.xMax || y < roi.yMin || y > roi.yMax)
                              return;
                          const double d = roi.Distance2(x, y);
                          if (d < bestDistance || (best >= 0 && d == bestDistance && j < best)) {
                              bestDistance = d;
                              best = j;
                          }
                      });
        return best;
    };
    std::size_t stalls = 0;
    while (!queue.empty() && left > 0) {
        Record record = queue.front();
        const CCalibrationPointFeatureDetect f = located[record[0]];
        for (int k = 0; k < 4; ++k)
            record[static_cast<std::size_t>(k + 1)] =
                getFeatureIDFromGridPosition(f.gridX + kStepX[k], f.gridY + kStepY[k]);
        bool anyEmpty = false;
        for (int k = 0; k < 4; ++k) {
            if (record[static_cast<std::size_t>(k + 1)] != -1)
                continue;
            anyEmpty = true;
            const int opposite = record[static_cast<std::size_t>((k + 2) % 4 + 1)];
            const int side1 = record[static_cast<std::size_t>((k + 1) % 4 + 1)];
            const int side2 = record[static_cast<std::size_t>((k + 3) % 4 + 1)];
            if (opposite == -1 || (side1 == -1 && side2 == -1))
                continue;
            const CCalibrationPointFeatureDetect predicted =
                FeatureDifference(ScaledFeature(f, 2.0), located[opposite]);
            const CCalibrationPointFeatureDetect sideways =
                side1 != -1 && side2 != -1
                    ? ScaledFeature(FeatureDifference(located[side1], located[side2]), 0.25)
                    : ScaledFeature(FeatureDifference(located[side1 != -1 ? side1 : side2], f), 0.5);
            const CCalibrationPointFeatureDetect forward =
                ScaledFeature(FeatureDifference(predicted, f), 0.5);
            const NCRhomboidRoi roi(predicted.posX, predicted.posY, forward.posX, forward.posY, sideways.posX,
                                    sideways.posY);
            if (!roi.valid || left == 0)
                continue;
            // Growth ends at the edge of the table: a position without a table entry takes no mark.
            if (getFeatureIDFromGridPosition(predicted.gridX, predicted.gridY) != -1 ||
                static_cast<long long>(m_tableOffsetX) + predicted.gridX < 0 ||
                static_cast<long long>(m_tableOffsetY) + predicted.gridY < 0 ||
                static_cast<long long>(m_tableOffsetX) + predicted.gridX >= m_tableSizeX ||
                static_cast<long long>(m_tableOffsetY) + predicted.gridY >= m_tableSizeY)
                continue;
            const int candidate = nearestCandidate(roi);
            if (candidate < 0)
                continue;
            CCalibrationPointFeatureDetect found = pool[candidate];
            found.gridX = predicted.gridX;
            found.gridY = predicted.gridY;
            taken[static_cast<std::size_t>(candidate)] = 1;
            --left;
            const int id = static_cast<int>(located.Add(found));
            setFeatureIDForGridPosition(found.gridX, found.gridY, id);
            queue.push_back({id, -1, -1, -1, -1});
            stalls = 0;
        }
        if (anyEmpty) {
            queue.push_back(record);
            ++stalls;
            if (stalls > queue.size())
                break;
        } else {
            stalls = 0;
        }
        queue.pop_front();
    }
    std::ptrdiff_t kept = 0;
    for (std::ptrdiff_t k = 0; k < remaining.GetSize(); ++k)
        if (!taken[static_cast<std::size_t>(k)]) {
            if (kept != k)
                remaining[kept] = remaining[k];
            ++kept;
        }
    remaining.SetSize(kept);
    return true;
}

bool CCalibrationFeatureFindGridPositions::findReferencePatterndAdaptPositions(const bool* pattern,
                                                                               const CSize& size,
                                                                               const CPoint& origin)
{
    if (pattern == nullptr || size.cx < 1 || size.cy < 1 || m_features.IsEmpty())
        return false;
    int minX = m_features[0].gridX;
    int maxX = minX;
    int minY = m_features[0].gridY;
    int maxY = minY;
    for (std::ptrdiff_t n = 1; n < m_features.GetSize(); ++n) {
        minX = std::min(minX, m_features[n].gridX);
        maxX = std::max(maxX, m_features[n].gridX);
        minY = std::min(minY, m_features[n].gridY);
        maxY = std::max(maxY, m_features[n].gridY);
    }
    const long long w64 = static_cast<long long>(maxX) - minX + 1;
    const long long h64 = static_cast<long long>(maxY) - minY + 1;
    if (w64 * h64 > m_ciMaxTableCells)
        return false;
    const int W = static_cast<int>(w64);
    const int H = static_cast<int>(h64);
    std::vector<char> occupied(static_cast<std::size_t>(W) * static_cast<std::size_t>(H), 0);
    auto cell = [&](int a, int b) -> char& {
        return occupied[static_cast<std::size_t>(a) * static_cast<std::size_t>(H) +
                        static_cast<std::size_t>(b)];
    };
    for (std::ptrdiff_t n = 0; n < m_features.GetSize(); ++n)
        cell(m_features[n].gridX - minX, m_features[n].gridY - minY) = 1;

    int matches = 0;
    int matchO = 0;
    int matchOx = 0;
    int matchOy = 0;
    for (int o = 0; o < 8; ++o) {
        const bool flipA = (o & 1) != 0;
        const bool flipB = (o & 2) != 0;
        const bool swap = (o & 4) != 0;
        const int e1 = swap ? H : W;
        const int e2 = swap ? W : H;
        for (int oy = 0; oy <= e2 - size.cy; ++oy) {
            for (int ox = 0; ox <= e1 - size.cx; ++ox) {
                bool equal = true;
                for (int ry = 0; ry < size.cy && equal; ++ry) {
                    for (int rx = 0; rx < size.cx; ++rx) {
                        const int s = flipA ? e1 - 1 - (ox + rx) : ox + rx;
                        const int t = flipB ? e2 - 1 - (oy + ry) : oy + ry;
                        const bool occ = swap ? cell(t, s) != 0 : cell(s, t) != 0;
                        if (occ != pattern[static_cast<std::ptrdiff_t>(ry) * size.cx + rx]) {
                            equal = false;
                            break;
                        }
                    }
                }
                if (equal) {
                    ++matches;
                    matchO = o;
                    matchOx = ox;
                    matchOy = oy;
                }
            }
        }
    }
    if (matches != 1)
        return false;
    const bool flipA = (matchO & 1) != 0;
    const bool flipB = (matchO & 2) != 0;
    const bool swap = (matchO & 4) != 0;
    for (std::ptrdiff_t n = 0; n < m_features.GetSize(); ++n) {
        CCalibrationPointFeatureDetect& f = m_features[n];
        int a = f.gridX - minX;
        int b = f.gridY - minY;
        if (flipA) {
            if (swap)
                b = H - 1 - b;
            else
                a = W - 1 - a;
        }
        if (flipB) {
            if (swap)
                a = W - 1 - a;
            else
                b = H - 1 - b;
        }
        if (swap)
            std::swap(a, b);
        f.gridX = a - matchOx + origin.x;
        f.gridY = b - matchOy + origin.y;
    }
    return true;
}

namespace {

/// Sets a pixel when it lies inside the image.
void plot(CCalibrationImage& image, long long x, long long y, float value)
{
    const CSize size = image.GetSize();
    if (x >= 0 && y >= 0 && x < size.cx && y < size.cy)
        image.SetPixel(static_cast<int>(x), static_cast<int>(y), value);
}

__extension__ typedef __int128 Wide;

/// Bresenham line, visiting only the steps whose pixel can lie inside the image.
void line(CCalibrationImage& image, long long x0, long long y0, long long x1, long long y1, float value)
{
    const CSize size = image.GetSize();
    if (size.cx < 1 || size.cy < 1)
        return;
    const long long dx = x1 > x0 ? x1 - x0 : x0 - x1;
    const long long dy = y1 > y0 ? y1 - y0 : y0 - y1;
    const long long sx = x1 >= x0 ? 1 : -1;
    const long long sy = y1 >= y0 ? 1 : -1;
    const bool xMajor = dx >= dy;
    const long long major = xMajor ? dx : dy;
    const long long minor = xMajor ? dy : dx;
    const long long start = xMajor ? x0 : y0;
    const long long step = xMajor ? sx : sy;
    const long long extent = xMajor ? size.cx : size.cy;
    // Steps i with 0 <= start + i * step < extent.
    long long first = 0;
    long long last = major;
    if (step > 0) {
        first = std::max(first, -start);
        last = std::min(last, extent - 1 - start);
    } else {
        first = std::max(first, start - (extent - 1));
        last = std::min(last, start);
    }
    for (long long i = first; i <= last; ++i) {
        // The minor coordinate rounds i * minor / major to the nearest, halves upward: the pixel
        // sequence of the integer error-term algorithm.
        const long long offset =
            major == 0 ? 0 : static_cast<long long>((Wide(2) * i * minor + major) / (Wide(2) * major));
        const long long m = start + i * step;
        if (xMajor)
            plot(image, m, y0 + sy * offset, value);
        else
            plot(image, x0 + sx * offset, m, value);
    }
}

} // namespace

void CCalibrationFeatureFindGridPositions::drawLineBresenham(CCalibrationImage& image, int x0, int y0, int x1,
                                                             int y1, float value, bool cross, bool arrow)
{
    line(image, x0, y0, x1, y1, value);
    if (cross) {
        for (int d = -3; d <= 3; ++d) {
            plot(image, static_cast<long long>(x0) + d, y0, value);
            plot(image, x0, static_cast<long long>(y0) + d, value);
        }
    }
    if (arrow && (x0 != x1 || y0 != y1)) {
        const double angle = std::atan2(static_cast<double>(y1) - y0, static_cast<double>(x1) - x0);
        for (const double turn : {std::numbers::pi / 6.0, -std::numbers::pi / 6.0}) {
            const double hx = x1 - 10.0 * std::cos(angle + turn);
            const double hy = y1 - 10.0 * std::sin(angle + turn);
            line(image, x1, y1, static_cast<long long>(std::trunc(hx + 0.5)),
                 static_cast<long long>(std::trunc(hy + 0.5)), value);
        }
    }
}

void CCalibrationFeatureFindGridPositions::drawRhomboidRoi(CCalibrationImage& image, const NCRhomboidRoi& roi,
                                                           bool outlineOnly)
{
    const CSize size = image.GetSize();
    if (!roi.valid || size.cx < 1 || size.cy < 1)
        return;
    const int x0 = std::max(roi.xMin, 0);
    const int x1 = std::min(roi.xMax, size.cx - 1);
    const int y0 = std::max(roi.yMin, 0);
    const int y1 = std::min(roi.yMax, size.cy - 1);
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x) {
            const double d = roi.Distance2(x, y);
            if (!(d < 1.0) || (outlineOnly && !(d > 0.6400000000000001)))
                continue;
            image.SetPixel(x, y, 255.0f - image.GetPixel(x, y));
        }
}

} // namespace DataLayer
