#include "datalayer/algorithms/calibration/ccalibrationfeaturedetecthough.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <new>
#include <vector>

namespace DataLayer {

namespace {

constexpr double kDoubleEpsilon = 2.220446049250313e-16;

bool allFinite(const double* filter, int halfSize)
{
    const int n = (2 * halfSize + 1) * (2 * halfSize + 1);
    for (int k = 0; k < n; ++k)
        if (!std::isfinite(filter[k]))
            return false;
    return true;
}

/// Vertex of the parabola through (a0, p0), (a1, p1), (a2, p2); false when it is degenerate.
bool parabolaVertex(double a0, double a1, double a2, double p0, double p1, double p2, double& vertex)
{
    const double den = 2.0 * ((p2 - p0) * a1 - (p2 - p1) * a0 - (p1 - p0) * a2);
    if (!(std::fabs(den) > kDoubleEpsilon))
        return false;
    vertex = (a1 * a1 * (p2 - p0) - a0 * a0 * (p2 - p1) - a2 * a2 * (p1 - p0)) / den;
    return true;
}

/// One local maximum of the plane: its value and its place in scan order (row-major).
struct SPeakCandidate
{
    double value;
    std::int64_t scan;
};

} // namespace

CCalibrationFeatureDetectHough::CCalibrationFeatureDetectHough()
    : m_voteFilter(&m_unitKernel), m_planeFilter(&m_unitKernel)
{
}

CCalibrationFeatureDetectHough::~CCalibrationFeatureDetectHough()
{
    freeHoughSpace();
}

void CCalibrationFeatureDetectHough::SetDetectionLimits(double limitFirstPeak, double limitLastPeak,
                                                        double limitNeighbourPeak)
{
    m_limitFirstPeak = limitFirstPeak;
    m_limitLastPeak = limitLastPeak;
    m_limitNeighbourPeak = limitNeighbourPeak;
}

void CCalibrationFeatureDetectHough::SetFilters(const double* voteFilter, int voteHalfSize,
                                                const double* planeFilter, int planeHalfSize)
{
    if (voteFilter == nullptr || voteHalfSize < 0) {
        m_voteFilter = &m_unitKernel;
        m_voteFilterHalfSize = 0;
    } else {
        m_voteFilter = voteFilter;
        m_voteFilterHalfSize = voteHalfSize;
    }
    if (planeFilter == nullptr || planeHalfSize < 0) {
        m_planeFilter = &m_unitKernel;
        m_planeFilterHalfSize = 0;
    } else {
        m_planeFilter = planeFilter;
        m_planeFilterHalfSize = planeHalfSize;
    }
}

bool CCalibrationFeatureDetectHough::FindFeatures(const ICalibrationImage& image, double featureDiameter,
                                                  double featureDistance, int downSizeFactor,
                                                  bool ringFeatures, bool darkFeatures, int radiusDivisor,
                                                  int reservedArgument)
{
    m_features.RemoveAll();
    m_reserved = reservedArgument;
    if (downSizeFactor < 1 || radiusDivisor < 1 || !std::isfinite(featureDiameter) ||
        !(featureDiameter > 0.0) || !std::isfinite(featureDistance) || !(featureDistance > 0.0))
        return false;

    m_downSizeFactor = downSizeFactor;
    const CSize sourceSize = image.GetSize();
    m_sourceWidth = sourceSize.cx;
    m_sourceHeight = sourceSize.cy;
    if (!m_image.DownSizeImage(image, downSizeFactor, 1))
        return false;

    const CSize size = m_image.GetSize();
    m_downSizedWidth = size.cx;
    m_downSizedHeight = size.cy;
    m_houghWidth = size.cx;
    m_houghHeight = size.cy;
    m_scaledDiameter = featureDiameter / downSizeFactor;
    m_scaledDistance = featureDistance / downSizeFactor;

    m_centreRadius = m_scaledDiameter * 0.5;
    const double halfRange = m_centreRadius / radiusDivisor + 0.9999999999999998;
    // The depth must stay an int and the radii finite; such ranges can't be allocated anyway.
    if (!(halfRange < 1.0e8))
        return false;
    m_radiusHalfRange = static_cast<int>(halfRange);
    m_houghDepth = 2 * m_radiusHalfRange + 1;

    m_ringFeatures = ringFeatures;
    m_darkFeatures = darkFeatures;

    const double minDistance = m_scaledDistance / 1.5;
    if (!(minDistance * minDistance > 0.0))
        return false;

    if (!setupHoughSpace(-1.0f, m_voteFilter, m_voteFilterHalfSize))
        return false;
    if (!calcPlanarHough(m_planeFilter, m_planeFilterHalfSize))
        return false;
    if (!findFeaturesInHoughSpace(minDistance, m_scaledDistance * 1.5, m_limitLastPeak, m_limitFirstPeak,
                                  m_limitNeighbourPeak))
        return false;
    if (!refine2DPositionAndSetRadius())
        return false;
    upsizeSingleCalibrationFeatures();
    return true;
}

bool CCalibrationFeatureDetectHough::allocHoughSpace()
{
    freeHoughSpace();
    if (m_houghWidth < 1 || m_houghHeight < 1 || m_houghDepth < 1)
        return false;
    const std::size_t planeCells =
        static_cast<std::size_t>(m_houghWidth) * static_cast<std::size_t>(m_houghHeight);
    const std::size_t limit = std::numeric_limits<std::size_t>::max() / sizeof(double);
    if (planeCells > limit / static_cast<std::size_t>(m_houghDepth))
        return false;
    const std::size_t cells = planeCells * static_cast<std::size_t>(m_houghDepth);
    m_accumulator = new (std::nothrow) double[cells];
    m_plane = new (std::nothrow) double[planeCells];
    if (m_accumulator == nullptr || m_plane == nullptr) {
        freeHoughSpace();
        return false;
    }
    return true;
}

bool CCalibrationFeatureDetectHough::initHoughSpace(double value)
{
    if (m_accumulator == nullptr || m_plane == nullptr)
        return false;
    const std::size_t planeCells =
        static_cast<std::size_t>(m_houghWidth) * static_cast<std::size_t>(m_houghHeight);
    std::fill(m_accumulator, m_accumulator + planeCells * static_cast<std::size_t>(m_houghDepth), value);
    std::fill(m_plane, m_plane + planeCells, value);
    return true;
}

void CCalibrationFeatureDetectHough::freeHoughSpace()
{
    delete[] m_accumulator;
    delete[] m_plane;
    m_accumulator = nullptr;
    m_plane = nullptr;
}

void CCalibrationFeatureDetectHough::addValueToHoughSpace(double& x, double& y, int& layer, float& value,
                                                          const double* filter, const int& halfSize)
{
    const int k = halfSize;
    if (k == 0) {
        const double w = static_cast<double>(value) * filter[0];
        if (!(x > -2.0 && x < m_houghWidth + 1.0 && y > -2.0 && y < m_houghHeight + 1.0))
            return;
        const int i0 = static_cast<int>(x);
        const int j0 = static_cast<int>(y);
        if (i0 < 0 || j0 < 0 || i0 + 1 >= m_houghWidth || j0 + 1 >= m_houghHeight)
            return;
        const double fx = (i0 + 1) - x;
        const double fy = (j0 + 1) - y;
        double* cell = m_accumulator + accIndex(i0, j0, layer);
        cell[0] += fy * fx * w;
        cell[1] += (1 - fx) * fy * w;
        cell[m_houghWidth] += (1 - fy) * fx * w;
        cell[m_houghWidth + 1] += (1 - fy) * (1 - fx) * w;
        return;
    }
    // Far outside the plane every kernel element is skipped; this also keeps the truncation
    // below within the int range (and drops NaN positions).
    if (!(x > -(k + 2.0) && x < m_houghWidth + k + 1.0 && y > -(k + 2.0) && y < m_houghHeight + k + 1.0))
        return;
    const int i0 = static_cast<int>(x);
    const int j0 = static_cast<int>(y);
    const int i1 = i0 + 1;
    const int j1 = j0 + 1;
    const double fx = i1 - x;
    const double fy = j1 - y;
    const int side = 2 * k + 1;
    for (int dy = -k; dy <= k; ++dy) {
        for (int dx = -k; dx <= k; ++dx) {
            const double w = static_cast<double>(value) * filter[(dy + k) * side + (dx + k)];
            if (i0 + dx < 0 || j0 + dy < 0 || i1 + dx >= m_houghWidth || j1 + dy >= m_houghHeight)
                continue;
            m_accumulator[accIndex(i0 + dx, j0 + dy, layer)] += fy * fx * w;
            m_accumulator[accIndex(i1 + dx, j0 + dy, layer)] += (1 - fx) * fy * w;
            m_accumulator[accIndex(i0 + dx, j1 + dy, layer)] += (1 - fy) * fx * w;
            m_accumulator[accIndex(i1 + dx, j1 + dy, layer)] += (1 - fy) * (1 - fx) * w;
        }
    }
}

bool CCalibrationFeatureDetectHough::setupHoughSpace(float minGradient, const double* filter, int halfSize)
{
    if (!allocHoughSpace() || !initHoughSpace(1.0))
        return false;
    const int width = m_houghWidth;
    const int height = m_houghHeight;
    std::vector<float> magnitude;
    std::vector<float> direction;
    try {
        magnitude.assign(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), 0.0f);
        direction.assign(magnitude.size(), 0.0f);
    } catch (const std::bad_alloc&) {
        return false;
    }
    const float* image = m_image.GetBuffer();
    for (int y = 1; y < height - 1; ++y) {
        const float* above = image + static_cast<std::ptrdiff_t>(y - 1) * width;
        const float* row = above + width;
        const float* below = row + width;
        for (int x = 1; x < width - 1; ++x) {
            const float gx = 3.0f * above[x - 1] + 10.0f * row[x - 1] + 3.0f * below[x - 1] -
                             3.0f * above[x + 1] - 10.0f * row[x + 1] - 3.0f * below[x + 1];
            const float gy = 3.0f * above[x - 1] + 10.0f * above[x] + 3.0f * above[x + 1] -
                             3.0f * below[x - 1] - 10.0f * below[x] - 3.0f * below[x + 1];
            const std::size_t at = static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + x;
            magnitude[at] = std::sqrt(gy * gy + gx * gx);
            direction[at] = std::atan2(gy, gx);
        }
    }

    // A vote of 0 adds +0.0 (or -0.0) to a cell, which changes no value here: cells start at 1.0
    // and sums of finite numbers never produce -0.0. Only an infinite or NaN kernel weight makes
    // such a vote matter.
    const bool skipZeroVotes = allFinite(filter, halfSize);
    const int depth = m_houghDepth;
    std::vector<double> radii(static_cast<std::size_t>(depth));
    for (int i = 0; i < depth; ++i)
        radii[static_cast<std::size_t>(i)] = (i - m_radiusHalfRange) + m_centreRadius;
    // Every cell of layer l receives only the votes of layer l, pixel after pixel in scan order.
    // Voting one band of rows layer by layer keeps exactly that order for every cell, while the
    // cells touched at a time stay within a few rows of one layer.
    struct SVoter
    {
        int x;
        int y;
        float value;
        float c;
        float s;
    };
    constexpr int kBandRows = 16;
    std::vector<SVoter> voters;
    try {
        voters.reserve(static_cast<std::size_t>(width) * kBandRows);
    } catch (const std::bad_alloc&) {
        return false;
    }
    for (int bandStart = 0; bandStart < height; bandStart += kBandRows) {
        const int bandEnd = std::min(height, bandStart + kBandRows);
        voters.clear();
        for (int y = bandStart; y < bandEnd; ++y) {
            for (int x = 0; x < width; ++x) {
                const std::size_t at = static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + x;
                const float value = magnitude[at];
                if (!(value > minGradient))
                    continue;
                if (value == 0.0f && skipZeroVotes)
                    continue;
                float c = std::cos(direction[at]);
                float s = std::sin(direction[at]);
                if (!m_darkFeatures) {
                    c = -c;
                    s = -s;
                }
                voters.push_back({x, y, value, c, s});
            }
        }
        for (int layer = 0; layer < depth; ++layer) {
            const double r = radii[static_cast<std::size_t>(layer)];
            for (SVoter& v : voters) {
                double vx = v.x + v.c * r;
                double vy = v.y + v.s * r;
                addValueToHoughSpace(vx, vy, layer, v.value, filter, halfSize);
                if (m_ringFeatures) {
                    double wx = v.x - v.c * r * 0.5;
                    double wy = v.y - v.s * r * 0.5;
                    addValueToHoughSpace(wx, wy, layer, v.value, filter, halfSize);
                }
            }
        }
    }
    return true;
}

bool CCalibrationFeatureDetectHough::calcPlanarHough(const double* filter, int halfSize)
{
    if (m_accumulator == nullptr || m_plane == nullptr)
        return false;
    const int width = m_houghWidth;
    const int height = m_houghHeight;
    const int depth = m_houghDepth;
    const std::size_t planeCells = static_cast<std::size_t>(width) * static_cast<std::size_t>(height);
    std::vector<double> temporary;
    try {
        temporary.resize(planeCells);
    } catch (const std::bad_alloc&) {
        return false;
    }
    // Each column is summed from layer 0 upward, starting at 0.0, one layer plane at a time.
    std::fill(temporary.begin(), temporary.end(), 0.0);
    for (int layer = 0; layer < depth; ++layer) {
        const double* plane = m_accumulator + static_cast<std::size_t>(layer) * planeCells;
        for (std::size_t cell = 0; cell < planeCells; ++cell)
            temporary[cell] += plane[cell];
    }
    double largest = 0.0;
    for (const double sum : temporary)
        if (sum > largest)
            largest = sum;
    for (double& value : temporary)
        value = value * 255.0 / largest;

    const int k = halfSize;
    const int side = 2 * k + 1;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            double sum = 0.0;
            for (int dy = -k; dy <= k; ++dy) {
                if (y + dy < 0 || y + dy >= height)
                    continue;
                for (int dx = -k; dx <= k; ++dx) {
                    if (x + dx < 0 || x + dx >= width)
                        continue;
                    sum += temporary[planeIndex(x + dx, y + dy)] * filter[(dy + k) * side + (dx + k)];
                }
            }
            m_plane[planeIndex(x, y)] = sum;
        }
    }
    return true;
}

bool CCalibrationFeatureDetectHough::findFeaturesInHoughSpace(double minDistance, double maxDistance,
                                                              double limitLastPeak, double limitFirstPeak,
                                                              double limitNeighbourPeak)
{
    const int width = m_houghWidth;
    const int height = m_houghHeight;
    if (m_plane == nullptr || width < 3 || height < 3)
        return !m_features.IsEmpty();

    // A pass of the scan takes the first cell in scan order with the largest value among the
    // cells above the threshold that are local maxima (no neighbour greater) and pass the tests
    // against the accepted features. Walking the local maxima by falling value, first in scan
    // order among equals, the first one that passes is that cell. A cell that fails the feature
    // tests fails them for good, since features are only added.
    std::vector<SPeakCandidate> candidates;
    double top = 0.0;
    for (int j = 1; j < height - 1; ++j) {
        for (int i = 1; i < width - 1; ++i) {
            const double value = m_plane[planeIndex(i, j)];
            if (!(value > top))
                continue;
            bool isMaximum = true;
            for (int dj = -1; dj <= 1 && isMaximum; ++dj)
                for (int di = -1; di <= 1; ++di)
                    if ((di != 0 || dj != 0) && m_plane[planeIndex(i + di, j + dj)] > value) {
                        isMaximum = false;
                        break;
                    }
            if (isMaximum)
                top = value;
        }
    }
    const bool fresh = m_features.IsEmpty();
    if (fresh && !(top > 0.0))
        return false;
    // Without earlier features the first pass takes top, and every later pass needs a value above
    // top * limitFirstPeak; cells below can be left out. With earlier features the first pick
    // isn't known beforehand, and every local maximum stays.
    const double floor = fresh ? top * limitFirstPeak : -std::numeric_limits<double>::infinity();
    for (int j = 1; j < height - 1; ++j) {
        for (int i = 1; i < width - 1; ++i) {
            const double value = m_plane[planeIndex(i, j)];
            if (std::isnan(value) || (!(value > floor) && value != top))
                continue;
            bool isMaximum = true;
            for (int dj = -1; dj <= 1 && isMaximum; ++dj)
                for (int di = -1; di <= 1; ++di)
                    if ((di != 0 || dj != 0) && m_plane[planeIndex(i + di, j + dj)] > value) {
                        isMaximum = false;
                        break;
                    }
            if (isMaximum)
                candidates.push_back({value, static_cast<std::int64_t>(j) * width + i});
        }
    }
    std::sort(candidates.begin(), candidates.end(), [](const SPeakCandidate& a, const SPeakCandidate& b) {
        return a.value > b.value || (a.value == b.value && a.scan < b.scan);
    });

    // Accepted features in a bucket grid wide enough that every feature within reach of a cell
    // lies in the 3 x 3 buckets around it.
    double reach = std::max(minDistance, maxDistance);
    if (!(reach >= 1.0))
        reach = 1.0;
    int bucketsX = 1;
    int bucketsY = 1;
    double bucketSize = static_cast<double>(std::max(width, height));
    if (reach < bucketSize) {
        bucketSize = reach;
        bucketsX = static_cast<int>(width / bucketSize) + 1;
        bucketsY = static_cast<int>(height / bucketSize) + 1;
    }
    struct SAccepted
    {
        double x;
        double y;
        double rating;
    };
    std::vector<std::vector<SAccepted>> buckets(static_cast<std::size_t>(bucketsX) *
                                                static_cast<std::size_t>(bucketsY));
    auto bucketOf = [&](double v, int count) {
        const int b = static_cast<int>(v / bucketSize);
        return std::min(b, count - 1);
    };
    for (std::ptrdiff_t n = 0; n < m_features.GetSize(); ++n) {
        const CCalibrationPointFeatureDetect& f = m_features[n];
        const double fx = std::clamp(f.posX, 0.0, static_cast<double>(width - 1));
        const double fy = std::clamp(f.posY, 0.0, static_cast<double>(height - 1));
        if (std::isnan(fx) || std::isnan(fy))
            continue;
        buckets[static_cast<std::size_t>(bucketOf(fy, bucketsY)) * bucketsX + bucketOf(fx, bucketsX)]
            .push_back({f.posX, f.posY, f.rating});
    }
    const double minDistance2 = minDistance * minDistance;
    const double maxDistance2 = maxDistance * maxDistance;
    auto rejected = [&](double i, double j, double value) {
        const int bx = bucketOf(i, bucketsX);
        const int by = bucketOf(j, bucketsY);
        for (int ny = std::max(0, by - 1); ny <= std::min(bucketsY - 1, by + 1); ++ny)
            for (int nx = std::max(0, bx - 1); nx <= std::min(bucketsX - 1, bx + 1); ++nx)
                for (const SAccepted& f : buckets[static_cast<std::size_t>(ny) * bucketsX + nx]) {
                    const double d2 = (f.x - i) * (f.x - i) + (f.y - j) * (f.y - j);
                    if (minDistance2 > d2)
                        return true;
                    if (maxDistance2 > d2 && limitNeighbourPeak * f.rating > value)
                        return true;
                }
        return false;
    };

    std::vector<char> dead(candidates.size(), 0);
    std::size_t head = 0;
    double thresholdLast = 0.0;
    double thresholdFirst = 0.0;
    bool first = true;
    for (;;) {
        const double best = thresholdLast > thresholdFirst ? thresholdLast : thresholdFirst;
        std::size_t pick = candidates.size();
        for (std::size_t at = head; at < candidates.size(); ++at) {
            if (dead[at])
                continue;
            const SPeakCandidate& c = candidates[at];
            if (!(c.value > best))
                break;
            const double i = static_cast<double>(c.scan % width);
            const double j = static_cast<double>(c.scan / width);
            if (rejected(i, j, c.value)) {
                dead[at] = 1;
                continue;
            }
            pick = at;
            break;
        }
        while (head < candidates.size() && dead[head])
            ++head;
        if (pick == candidates.size())
            break;
        dead[pick] = 1;
        const SPeakCandidate& c = candidates[pick];
        CCalibrationPointFeatureDetect feature;
        feature.posX = static_cast<double>(c.scan % width);
        feature.posY = static_cast<double>(c.scan / width);
        feature.gridX = -1;
        feature.gridY = -1;
        feature.rating = c.value;
        m_features.Add(feature);
        buckets[static_cast<std::size_t>(bucketOf(feature.posY, bucketsY)) * bucketsX +
                bucketOf(feature.posX, bucketsX)]
            .push_back({feature.posX, feature.posY, feature.rating});
        thresholdLast = c.value * limitLastPeak;
        if (first) {
            thresholdFirst = c.value * limitFirstPeak;
            first = false;
        }
    }
    return !m_features.IsEmpty();
}

bool CCalibrationFeatureDetectHough::refine2DPositionAndSetRadius()
{
    if (m_accumulator == nullptr || m_plane == nullptr)
        return false;
    const int width = m_houghWidth;
    const int height = m_houghHeight;
    const int depth = m_houghDepth;
    const std::ptrdiff_t count = m_features.GetSize();
    std::vector<char> keep(static_cast<std::size_t>(count), 0);
    for (std::ptrdiff_t n = count - 1; n >= 0; --n) {
        CCalibrationPointFeatureDetect& f = m_features[n];
        const double rx = f.posX + 0.5;
        const double ry = f.posY + 0.5;
        if (!(rx >= 1.0 && rx < width - 1 && ry >= 1.0 && ry < height - 1))
            continue;
        const int x = static_cast<int>(rx);
        const int y = static_cast<int>(ry);
        float maximum = -1.0f;
        int layer = 0;
        for (int l = 0; l < depth; ++l) {
            const double value = m_accumulator[accIndex(x, y, l)];
            if (value > maximum) {
                maximum = static_cast<float>(value);
                layer = l;
            }
        }
        if (layer == 0 || layer == depth - 1)
            continue;
        double px = 0.0;
        double py = 0.0;
        double pl = 0.0;
        if (!parabolaVertex(x - 1, x, x + 1, m_plane[planeIndex(x - 1, y)], m_plane[planeIndex(x, y)],
                            m_plane[planeIndex(x + 1, y)], px))
            continue;
        if (!parabolaVertex(y - 1, y, y + 1, m_plane[planeIndex(x, y - 1)], m_plane[planeIndex(x, y)],
                            m_plane[planeIndex(x, y + 1)], py))
            continue;
        if (!parabolaVertex(layer - 1, layer, layer + 1, m_accumulator[accIndex(x, y, layer - 1)],
                            m_accumulator[accIndex(x, y, layer)], m_accumulator[accIndex(x, y, layer + 1)],
                            pl))
            continue;
        f.posX = px;
        f.posY = py;
        f.radius = pl + m_centreRadius - m_radiusHalfRange;
        keep[static_cast<std::size_t>(n)] = 1;
    }
    // Removing from the last to the first keeps the survivors' order, as this compaction does.
    std::ptrdiff_t kept = 0;
    for (std::ptrdiff_t n = 0; n < count; ++n)
        if (keep[static_cast<std::size_t>(n)]) {
            if (kept != n)
                m_features[kept] = m_features[n];
            ++kept;
        }
    m_features.SetSize(kept);
    return kept > 0;
}

void CCalibrationFeatureDetectHough::upsizeSingleCalibrationFeatures()
{
    const int f = m_downSizeFactor;
    const int restX = m_sourceWidth - m_downSizedWidth * f;
    const int restY = m_sourceHeight - m_downSizedHeight * f;
    const double c = (f - 1) * 0.5;
    for (std::ptrdiff_t n = 0; n < m_features.GetSize(); ++n) {
        CCalibrationPointFeatureDetect& feature = m_features[n];
        feature.posX = f * feature.posX + (restX * 0.5 + c);
        feature.posY = f * feature.posY + (restY * 0.5 + c);
        feature.radius = f * feature.radius;
    }
}

} // namespace DataLayer
