#include "datalayer/algorithms/calibration/ccalibrationfeaturerefinementzhou.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <typeinfo>
#include <utility>
#include <vector>

#include "datalayer/algorithms/numeric/lapack.h"

namespace DataLayer {

namespace {

constexpr double kFloatEpsilon = 1.1920928955078125e-7;
constexpr double kDoubleEpsilon = 2.220446049250313e-16;
constexpr double kTukeyConstant = 4.6851;
constexpr double kChordAngle = 0.7853981633974483;
constexpr int kMaxRounds = 100;
constexpr int kMaxRobustRound = 15;
constexpr std::uint32_t kCacheSize = 4096; // a power of two
constexpr std::uint32_t kCacheProbes = 8;

// Integers derived from positions stay well inside the int range, so that sums and differences
// of them can't overflow; anything beyond lies outside every image anyway.
constexpr double kIntLimit = 1073741824.0;

/// trunc(v), saturated to +-2^30; NaN gives the lower limit (outside every image).
int truncToInt(double v)
{
    if (!(v > -kIntLimit))
        return static_cast<int>(-kIntLimit);
    if (v > kIntLimit)
        return static_cast<int>(kIntLimit);
    return static_cast<int>(std::trunc(v));
}

double distance(double ax, double ay, double bx, double by)
{
    const double dx = ax - bx, dy = ay - by;
    return std::sqrt(dx * dx + dy * dy);
}

using Mat3 = std::array<double, 9>; // row-major

Mat3 multiply(const Mat3& a, const Mat3& b)
{
    Mat3 c{};
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 3; ++k)
            for (int j = 0; j < 3; ++j)
                c[r * 3 + j] += a[r * 3 + k] * b[k * 3 + j];
    return c;
}

/// Inverse by the adjugate; false for a singular or non-finite matrix.
bool invert(const Mat3& m, Mat3& inv)
{
    const double c00 = m[4] * m[8] - m[5] * m[7];
    const double c01 = m[5] * m[6] - m[3] * m[8];
    const double c02 = m[3] * m[7] - m[4] * m[6];
    const double det = m[0] * c00 + m[1] * c01 + m[2] * c02;
    if (!std::isfinite(det) || det == 0.0)
        return false;
    inv = {c00 / det, (m[2] * m[7] - m[1] * m[8]) / det, (m[1] * m[5] - m[2] * m[4]) / det,
           c01 / det, (m[0] * m[8] - m[2] * m[6]) / det, (m[2] * m[3] - m[0] * m[5]) / det,
           c02 / det, (m[1] * m[6] - m[0] * m[7]) / det, (m[0] * m[4] - m[1] * m[3]) / det};
    return true;
}

/// Picture point of the plane point (u, v); false behind or at infinity.
bool project(const Mat3& h, double u, double v, double& x, double& y)
{
    const double w = h[6] * u + h[7] * v + h[8];
    if (!(std::fabs(w) > 0.0))
        return false;
    x = (h[0] * u + h[1] * v + h[2]) / w;
    y = (h[3] * u + h[4] * v + h[5]) / w;
    return std::isfinite(x) && std::isfinite(y);
}

/// Centre of the ellipse that h makes of the plane circle (u, v, rho) minus the projection of
/// (u, v): the conic C' = H^-T C H^-1 and its centre. False if the image is no ellipse.
bool perspectiveOffset(const Mat3& h, const Mat3& hInv, double u, double v, double rho, double& dx,
                       double& dy)
{
    const Mat3 c{1.0, 0.0, -u, 0.0, 1.0, -v, -u, -v, u * u + v * v - rho * rho};
    const Mat3 hInvT{hInv[0], hInv[3], hInv[6], hInv[1], hInv[4], hInv[7], hInv[2], hInv[5], hInv[8]};
    const Mat3 q = multiply(hInvT, multiply(c, hInv));
    const double a = q[0], b = 0.5 * (q[1] + q[3]), d = q[4];
    const double det = a * d - b * b;
    if (!(det > 0.0) || !std::isfinite(det))
        return false;
    const double e = 0.5 * (q[2] + q[6]), f = 0.5 * (q[5] + q[7]);
    const double ex = (-e * d + f * b) / det;
    const double ey = (-f * a + e * b) / det;
    double px = 0.0, py = 0.0;
    if (!project(h, u, v, px, py))
        return false;
    dx = ex - px;
    dy = ey - py;
    return std::isfinite(dx) && std::isfinite(dy);
}

} // namespace

LbVector2d
CCalibrationFeatureRefinementZhou::NCCenterPixelCalculatorDummy::CalcCenter(const LbVector2d& first,
                                                                            const LbVector2d& second) const
{
    return LbVector2d((first.x + second.x) / 2.0, (first.y + second.y) / 2.0);
}

CCalibrationFeatureRefinementZhou::CCalibrationFeatureRefinementZhou(
    const CCalibrationFeatureRefinementZhou& other)
    : m_features(other.m_features), m_image(other.m_image), m_ringFeatures(other.m_ringFeatures),
      m_darkFeatures(other.m_darkFeatures), m_imageWidth(other.m_imageWidth),
      m_imageHeight(other.m_imageHeight), m_maxCenterOffset(other.m_maxCenterOffset),
      m_maxSigma(other.m_maxSigma), m_halfLineLengthMin(other.m_halfLineLengthMin),
      m_reserved(other.m_reserved),
      m_calculator(other.m_calculator == &other.m_defaultCalculator ? &m_defaultCalculator
                                                                    : other.m_calculator),
      m_perspectiveCorrection(other.m_perspectiveCorrection),
      m_perspectiveCorrected(other.m_perspectiveCorrected), m_concreteImage(other.m_concreteImage),
      m_invalidValue(other.m_invalidValue)
{
}

CCalibrationFeatureRefinementZhou&
CCalibrationFeatureRefinementZhou::operator=(const CCalibrationFeatureRefinementZhou& other)
{
    if (this != &other) {
        m_features = other.m_features;
        m_image = other.m_image;
        m_ringFeatures = other.m_ringFeatures;
        m_darkFeatures = other.m_darkFeatures;
        m_imageWidth = other.m_imageWidth;
        m_imageHeight = other.m_imageHeight;
        m_maxCenterOffset = other.m_maxCenterOffset;
        m_maxSigma = other.m_maxSigma;
        m_halfLineLengthMin = other.m_halfLineLengthMin;
        m_reserved = other.m_reserved;
        m_calculator =
            other.m_calculator == &other.m_defaultCalculator ? &m_defaultCalculator : other.m_calculator;
        m_perspectiveCorrection = other.m_perspectiveCorrection;
        m_perspectiveCorrected = other.m_perspectiveCorrected;
        m_concreteImage = other.m_concreteImage;
        m_invalidValue = other.m_invalidValue;
    }
    return *this;
}

void CCalibrationFeatureRefinementZhou::SetLimits(double maxCenterOffset, double maxSigma)
{
    m_maxCenterOffset = maxCenterOffset;
    m_maxSigma = maxSigma;
}

void CCalibrationFeatureRefinementZhou::SetHalfLineLengthMin(int halfLineLengthMin)
{
    m_halfLineLengthMin = halfLineLengthMin;
}

void CCalibrationFeatureRefinementZhou::SetCenterPixelCalculator(const ICenterPixelCalculator* calculator)
{
    m_calculator = calculator != nullptr ? calculator : &m_defaultCalculator;
}

bool CCalibrationFeatureRefinementZhou::RefineFeatures(const ICalibrationImage& image,
                                                       const CArray<CCalibrationPointFeatureDetect>& features,
                                                       bool ringFeatures, bool darkFeatures,
                                                       int reservedArgument)
{
    m_image = &image;
    const CSize size = image.GetSize();
    m_imageWidth = size.cx;
    m_imageHeight = size.cy;
    m_invalidValue = image.GetInvalidValue();
    m_concreteImage =
        typeid(image) == typeid(CCalibrationImage) ? static_cast<const CCalibrationImage*>(&image) : nullptr;
    m_features = features;
    m_ringFeatures = ringFeatures;
    m_darkFeatures = darkFeatures;
    m_reserved = reservedArgument;

    for (std::ptrdiff_t i = m_features.GetSize() - 1; i >= 0; --i) {
        CCalibrationPointFeatureDetect& feature = m_features[i];
        const double radius = feature.radius;
        if (!(radius > 0.0) || !std::isfinite(radius) || !std::isfinite(feature.posX) ||
            !std::isfinite(feature.posY)) {
            m_features.RemoveAt(i);
            continue;
        }

        sFeaturePosition start;
        start.x = feature.posX;
        start.y = feature.posY;
        const int halfLine = std::max(truncToInt(radius / 3.0 + 0.5), m_halfLineLengthMin);

        sFeaturePosition outer;
        if (!refineSinglePosition(start, outer, radius, halfLine, m_darkFeatures)) {
            m_features.RemoveAt(i);
            continue;
        }
        sFeaturePosition inner = outer;
        if (m_ringFeatures && !refineSinglePosition(start, inner, radius * 0.5, halfLine, !m_darkFeatures)) {
            m_features.RemoveAt(i);
            continue;
        }

        feature.posX = (2.0 * inner.x + outer.x) / 3.0;
        feature.posY = (2.0 * inner.y + outer.y) / 3.0;
        if (m_ringFeatures) {
            feature.centerOffsetX = inner.x - outer.x;
            feature.centerOffsetY = inner.y - outer.y;
            feature.centerOffset = std::hypot(feature.centerOffsetX, feature.centerOffsetY);
            feature.sigmaColumns = std::sqrt(
                (2.0 * inner.sigmaColumns * inner.sigmaColumns + outer.sigmaColumns * outer.sigmaColumns) /
                3.0);
            feature.sigmaRows = std::sqrt(
                (2.0 * inner.sigmaRows * inner.sigmaRows + outer.sigmaRows * outer.sigmaRows) / 3.0);
        } else {
            feature.centerOffsetX = 0.0;
            feature.centerOffsetY = 0.0;
            feature.centerOffset = 0.0;
            feature.sigmaColumns = outer.sigmaColumns;
            feature.sigmaRows = outer.sigmaRows;
        }
        feature.sigmaTotal =
            std::sqrt(feature.sigmaColumns * feature.sigmaColumns + feature.sigmaRows * feature.sigmaRows);

        if (feature.centerOffset > m_maxCenterOffset || feature.sigmaTotal > m_maxSigma)
            m_features.RemoveAt(i);
    }
    m_perspectiveCorrected = m_perspectiveCorrection && correctPerspective();
    return !m_features.IsEmpty();
}

bool CCalibrationFeatureRefinementZhou::refineSinglePosition(const sFeaturePosition& start,
                                                             sFeaturePosition& result, double radius,
                                                             int halfLine, bool dark)
{
    // A fresh generation of the edge cache for this circle; 0 (no cache) again on the way out.
    if (m_edgeCache.empty())
        m_edgeCache.resize(kCacheSize);
    if (++m_cacheCounter == 0) {
        for (SEdgeCacheEntry& e : m_edgeCache)
            e.generation = 0;
        m_cacheCounter = 1;
    }
    struct CacheScope
    {
        unsigned& generation;
        ~CacheScope() { generation = 0; }
    } scope{m_cacheGeneration};
    m_cacheGeneration = m_cacheCounter;

    sFeaturePosition current = start;
    CArray<sFeaturePosition> history;
    for (int round = 1;; ++round) {
        if (checkPositionHistory(current, history, result, kFloatEpsilon))
            return true;
        if (!(distance(current.x, current.y, start.x, start.y) < radius * 0.25))
            return false;
        if (!calcZhou(current, radius, halfLine, kChordAngle, dark))
            return false;
        if (round >= kMaxRounds)
            return false;
    }
}

bool CCalibrationFeatureRefinementZhou::calcZhou(sFeaturePosition& position, double radius, int halfLine,
                                                 double angle, bool dark)
{
    const double cx = position.x;
    const double cy = position.y;
    const double d = radius * std::sin(angle);
    const int x0 = std::max(truncToInt(cx - d + 1.0), 0);
    const int x1 = std::min(truncToInt(cx + d), m_imageWidth - 1);
    const int y0 = std::max(truncToInt(cy - d + 1.0), 0);
    const int y1 = std::min(truncToInt(cy + d), m_imageHeight - 1);
    const int minChords = truncToInt(2.0 * radius * std::sin(angle) * 0.6666666666666666 + 0.5);
    const double r2 = radius * radius;

    LbArray<LbVector2d>& points = m_points;
    points.clear();

    // Column chords: top and bottom edge of the mark in each column.
    for (int x = x0; x <= x1; ++x) {
        const double q = r2 - (x - cx) * (x - cx);
        if (q < 0.0)
            continue;
        const double h = std::sqrt(q);
        sEdgePosition top{x, truncToInt(cy - h + 0.5), static_cast<double>(x), cy - h};
        sEdgePosition bottom{x, truncToInt(cy + h + 0.5), static_cast<double>(x), cy + h};
        if (!calcEdgePointIter(top, halfLine, false, !dark) ||
            !calcEdgePointIter(bottom, halfLine, false, dark))
            continue;
        const LbVector2d m =
            m_calculator->CalcCenter(LbVector2d(top.x, top.y), LbVector2d(bottom.x, bottom.y));
        points.push_back(LbVector2d(m.x, m.y));
    }
    if (points.size() < minChords)
        return false;
    double slope1 = 0.0, intercept1 = 0.0, sigma1 = 0.0;
    if (!fitLineRobust(points, nullptr, slope1, intercept1, &sigma1, nullptr))
        return false;

    // Row chords: left and right edge in each row, fitted as x over y.
    points.clear();
    for (int y = y0; y <= y1; ++y) {
        const double q = r2 - (y - cy) * (y - cy);
        if (q < 0.0)
            continue;
        const double h = std::sqrt(q);
        sEdgePosition left{truncToInt(cx - h + 0.5), y, cx - h, static_cast<double>(y)};
        sEdgePosition right{truncToInt(cx + h + 0.5), y, cx + h, static_cast<double>(y)};
        if (!calcEdgePointIter(left, halfLine, true, !dark) ||
            !calcEdgePointIter(right, halfLine, true, dark))
            continue;
        const LbVector2d m =
            m_calculator->CalcCenter(LbVector2d(left.x, left.y), LbVector2d(right.x, right.y));
        points.push_back(LbVector2d(m.y, m.x));
    }
    if (points.size() < minChords)
        return false;
    double slope2 = 0.0, intercept2 = 0.0, sigma2 = 0.0;
    if (!fitLineRobust(points, nullptr, slope2, intercept2, &sigma2, nullptr))
        return false;

    const double det = 1.0 - slope2 * slope1;
    if (!(std::fabs(det) > kFloatEpsilon))
        return false;
    position.x = (slope2 * intercept1 + intercept2) / det;
    position.y = (intercept2 * slope1 + intercept1) / det;
    position.sigmaColumns = sigma1;
    position.sigmaRows = sigma2;
    return true;
}

bool CCalibrationFeatureRefinementZhou::calcEdgePointIter(sEdgePosition& edge, int halfLine, bool horizontal,
                                                          bool rising)
{
    const sEdgePosition start = edge;
    sEdgePosition current = edge;
    CArray<sEdgePosition>& history = m_edgeHistory;
    if (!history.IsEmpty())
        history.RemoveAt(0, history.GetSize()); // keeps the block for the next search
    for (int round = 1;; ++round) {
        if (checkEdgeHistory(current, history, edge))
            return true;
        if (!(distance(current.x, current.y, start.x, start.y) < 2.0 * halfLine))
            return false;
        if (!calcEdgePoint(current, halfLine, horizontal, rising))
            return false;
        if (round >= kMaxRounds)
            return false;
    }
}

bool CCalibrationFeatureRefinementZhou::readWindow(int fixed, int start, int n, bool horizontal, float sign,
                                                   float* samples) const
{
    // Non-finite values are not tested here: they fail later, in the moments.
    const float invalid = m_invalidValue;
    bool anyInvalid = false;
    if (m_concreteImage != nullptr) {
        const CCalibrationImage& image = *m_concreteImage;
        if (horizontal) {
            for (int i = 0; i < n; ++i) {
                const float v = image.CCalibrationImage::GetPixel(start + i, fixed);
                anyInvalid |= v == invalid;
                samples[i] = v * sign;
            }
        } else {
            for (int i = 0; i < n; ++i) {
                const float v = image.CCalibrationImage::GetPixel(fixed, start + i);
                anyInvalid |= v == invalid;
                samples[i] = v * sign;
            }
        }
    } else {
        for (int i = 0; i < n; ++i) {
            const float v =
                horizontal ? m_image->GetPixel(start + i, fixed) : m_image->GetPixel(fixed, start + i);
            anyInvalid |= v == invalid;
            samples[i] = v * sign;
        }
    }
    return !anyInvalid;
}

bool CCalibrationFeatureRefinementZhou::calcEdgePoint(sEdgePosition& edge, int halfLine, bool horizontal,
                                                      bool rising)
{
    if (m_image == nullptr || edge.pixelX < 0 || edge.pixelX >= m_imageWidth || edge.pixelY < 0 ||
        edge.pixelY >= m_imageHeight)
        return false;
    if (halfLine < 1)
        return false;

    // Within one refineSinglePosition the result depends only on the pixel, the direction and the
    // polarity: later rounds of the chord method revisit most pixels, so they are looked up.
    SEdgeCacheEntry* slot = nullptr;
    const unsigned flags = (horizontal ? 1u : 0u) | (rising ? 2u : 0u);
    if (m_cacheGeneration != 0) {
        const std::uint32_t hash = (static_cast<std::uint32_t>(edge.pixelX) * 73856093u) ^
                                   (static_cast<std::uint32_t>(edge.pixelY) * 19349663u) ^
                                   (flags * 83492791u);
        for (std::uint32_t probe = 0; probe < kCacheProbes; ++probe) {
            SEdgeCacheEntry& e = m_edgeCache[(hash + probe) & (kCacheSize - 1)];
            if (e.generation != m_cacheGeneration) {
                if (slot == nullptr)
                    slot = &e;
                continue;
            }
            if (e.pixelX == edge.pixelX && e.pixelY == edge.pixelY && e.flags == flags) {
                if (!e.found)
                    return false;
                applyEdge(edge, e.position, horizontal);
                return true;
            }
        }
        if (slot == nullptr)
            slot = &m_edgeCache[hash & (kCacheSize - 1)];
        *slot = SEdgeCacheEntry{edge.pixelX, edge.pixelY, flags, m_cacheGeneration, false, 0.0};
    }

    const long long n = 2LL * halfLine + 1;
    const long long a = static_cast<long long>(horizontal ? edge.pixelX : edge.pixelY) - halfLine;
    const long long extent = horizontal ? m_imageWidth : m_imageHeight;
    if (a < 1 || a + n - 1 >= extent)
        return false;

    constexpr int kStackSamples = 128;
    float stackSamples[kStackSamples];
    std::vector<float> heapSamples;
    float* samples = stackSamples;
    if (n > kStackSamples) {
        heapSamples.resize(static_cast<std::size_t>(n));
        samples = heapSamples.data();
    }
    const int fixed = horizontal ? edge.pixelY : edge.pixelX;
    if (!readWindow(fixed, static_cast<int>(a), static_cast<int>(n), horizontal, rising ? 1.0f : -1.0f,
                    samples))
        return false;

    double result = 0.0;
    if (!locateMomentEdge(samples, static_cast<int>(n), result))
        return false;
    const double position = result + static_cast<double>(a);
    if (slot != nullptr) {
        slot->found = true;
        slot->position = position;
    }
    applyEdge(edge, position, horizontal);
    return true;
}

void CCalibrationFeatureRefinementZhou::applyEdge(sEdgePosition& edge, double position, bool horizontal)
{
    if (horizontal) {
        edge.x = position;
        edge.pixelX = truncToInt(position + 0.5);
    } else {
        edge.y = position;
        edge.pixelY = truncToInt(position + 0.5);
    }
}

bool CCalibrationFeatureRefinementZhou::locateMomentEdge(const float* samples, int n, double& position)
{
    if (samples == nullptr || n < 1)
        return false;
    // Raw moments of the samples relative to the first one: central moments are shift invariant,
    // and the differences stay within the window's contrast, so nothing large cancels.
    const double origin = samples[0];
    double s1 = 0.0, s2 = 0.0, s3 = 0.0;
    for (int i = 0; i < n; ++i) {
        const double d = samples[i] - origin;
        const double d2 = d * d;
        s1 += d;
        s2 += d2;
        s3 += d2 * d;
    }
    const double m1 = s1 / n, m2 = s2 / n, m3 = s3 / n;
    const double var = m2 - m1 * m1;
    const double mu3 = m3 - 3.0 * m1 * m2 + 2.0 * m1 * m1 * m1;
    // sigma^3 = var^1.5 must reach the double epsilon, that is var^3 its square.
    if (!(var > 0.0) || !(var * var * var >= kDoubleEpsilon * kDoubleEpsilon))
        return false;
    // With the skewness sk = mu3 / sigma^3, p = (sk / sqrt(sk^2 + 4) + 1) / 2, written without
    // forming sk: sk / sqrt(sk^2 + 4) = mu3 / sqrt(mu3^2 + 4 var^3).
    const double p = (mu3 / std::sqrt(mu3 * mu3 + 4.0 * var * var * var) + 1.0) * 0.5;
    if (std::isnan(p))
        return false;
    position = n * p - 0.5;
    return true;
}

bool CCalibrationFeatureRefinementZhou::checkPositionHistory(const sFeaturePosition& position,
                                                             CArray<sFeaturePosition>& history,
                                                             sFeaturePosition& result, double tolerance)
{
    const std::ptrdiff_t size = history.GetSize();
    for (std::ptrdiff_t k = size - 1; k >= 0; --k) {
        if (!checkPositionDeviation(history[k], position, tolerance))
            continue;
        double sx = position.x, sy = position.y;
        double sc = position.sigmaColumns * position.sigmaColumns;
        double sr = position.sigmaRows * position.sigmaRows;
        for (std::ptrdiff_t j = k + 1; j < size; ++j) {
            const sFeaturePosition& e = history[j];
            sx += e.x;
            sy += e.y;
            sc += e.sigmaColumns * e.sigmaColumns;
            sr += e.sigmaRows * e.sigmaRows;
        }
        const double count = static_cast<double>(size - k);
        result.x = sx / count;
        result.y = sy / count;
        result.sigmaColumns = std::sqrt(sc / count);
        result.sigmaRows = std::sqrt(sr / count);
        return true;
    }
    history.Add(position);
    return false;
}

bool CCalibrationFeatureRefinementZhou::checkEdgeHistory(const sEdgePosition& edge,
                                                         CArray<sEdgePosition>& history,
                                                         sEdgePosition& result)
{
    const std::ptrdiff_t size = history.GetSize();
    for (std::ptrdiff_t k = size - 1; k >= 0; --k) {
        if (history[k].pixelX != edge.pixelX || history[k].pixelY != edge.pixelY)
            continue;
        double sx = edge.x, sy = edge.y;
        for (std::ptrdiff_t j = k + 1; j < size; ++j) {
            sx += history[j].x;
            sy += history[j].y;
        }
        const double count = static_cast<double>(size - k);
        result.x = sx / count;
        result.y = sy / count;
        return true;
    }
    history.Add(edge);
    return false;
}

bool CCalibrationFeatureRefinementZhou::checkPositionDeviation(const sFeaturePosition& a,
                                                               const sFeaturePosition& b,
                                                               double tolerance) const
{
    return distance(a.x, a.y, b.x, b.y) < tolerance;
}

bool CCalibrationFeatureRefinementZhou::checkEdgeDeviation(const sEdgePosition& a, const sEdgePosition& b,
                                                           double tolerance) const
{
    return distance(a.x, a.y, b.x, b.y) < tolerance;
}

bool CCalibrationFeatureRefinementZhou::fitLineRobust(const LbArray<LbVector2d>& points,
                                                      const LbArray<double>* weights, double& slope,
                                                      double& intercept, double* sigma, double* meanWeight)
{
    const int n = points.size();
    if (n < 2 || (weights != nullptr && weights->size() != n))
        return false;
    try {
        // Sums are taken relative to the first point; the line is moved back at the end. This
        // gives the plain least-squares formulas without their cancellation at large coordinates.
        const double ox = points[0].x;
        const double oy = points[0].y;
        bool allXEqual = true;
        for (int i = 0; i < n; ++i) {
            if (!std::isfinite(points[i].x) || !std::isfinite(points[i].y))
                return false;
            if (weights != nullptr && !((*weights)[i] >= 0.0 && std::isfinite((*weights)[i])))
                return false;
            allXEqual = allXEqual && points[i].x == ox;
        }
        if (allXEqual)
            return false;

        // Shifted coordinates and user weights, once (a small stack buffer for chord-sized fits).
        constexpr int kStackPoints = 64;
        double stackBuffer[3 * kStackPoints];
        std::vector<double> heapBuffer;
        double* xs = stackBuffer;
        if (n > kStackPoints) {
            heapBuffer.resize(3 * static_cast<std::size_t>(n));
            xs = heapBuffer.data();
        }
        double* ys = xs + n;
        double* uw = ys + n;
        for (int i = 0; i < n; ++i) {
            xs[i] = points[i].x - ox;
            ys[i] = points[i].y - oy;
            uw[i] = weights != nullptr ? (*weights)[i] : 1.0;
        }
        auto userWeight = [&](int i) { return uw[i]; };
        double a = 0.0; // slope
        double b = 0.0; // intercept in the shifted frame
        auto residual2 = [&](int i) {
            const double r = ys[i] - (a * xs[i] + b);
            return r * r;
        };
        // One weighted solve; false when the system is degenerate.
        double Sw, Swx, Swy, Swxx, Swxy, Swrr;
        auto solve = [&]() {
            const double det = Sw * Swxx - Swx * Swx;
            if (!(det > 1e-14 * Sw * Swxx))
                return false;
            a = (Sw * Swxy - Swy * Swx) / det;
            b = (Swy - a * Swx) / Sw;
            return std::isfinite(a) && std::isfinite(b);
        };

        Sw = Swx = Swy = Swxx = Swxy = 0.0;
        for (int i = 0; i < n; ++i) {
            const double w = userWeight(i);
            const double x = xs[i];
            const double y = ys[i];
            Sw += w;
            Swx += w * x;
            Swy += w * y;
            Swxx += w * x * x;
            Swxy += w * x * y;
        }
        if (!solve())
            return false;
        double var = 0.0;
        for (int i = 0; i < n; ++i)
            var += userWeight(i) * residual2(i);
        var /= Sw;

        double finalSigma = 0.0;
        double finalMeanWeight = 1.0;
        if (n != 2 && var != 0.0) {
            for (int round = 0;; ++round) {
                const double c2 = var * kTukeyConstant * kTukeyConstant;
                Sw = Swx = Swy = Swxx = Swxy = Swrr = 0.0;
                for (int i = 0; i < n; ++i) {
                    const double r2 = residual2(i);
                    const double u = r2 / c2;
                    if (u > 1.0)
                        continue;
                    const double w = (1.0 - u) * (1.0 - u) * userWeight(i);
                    const double x = xs[i];
                    const double y = ys[i];
                    Sw += w;
                    Swx += w * x;
                    Swy += w * y;
                    Swxx += w * x * x;
                    Swxy += w * x * y;
                    Swrr += w * r2;
                }
                if (!solve())
                    return false;
                const double newVar = Swrr / Sw;
                // newVar 0: the kept points lie exactly on the line, which is as converged as it gets.
                if (newVar == 0.0 || std::fabs(1.0 - newVar / var) <= kFloatEpsilon ||
                    round >= kMaxRobustRound) {
                    finalSigma = std::sqrt(newVar);
                    finalMeanWeight = Sw / n;
                    break;
                }
                var = newVar;
                if (var == 0.0 || !std::isfinite(var))
                    return false;
            }
        }
        const double finalIntercept = b + oy - a * ox;
        if (!std::isfinite(finalIntercept))
            return false;
        slope = a;
        intercept = finalIntercept;
        if (sigma != nullptr)
            *sigma = finalSigma;
        if (meanWeight != nullptr)
            *meanWeight = finalMeanWeight;
        return true;
    } catch (...) {
        return false;
    }
}

} // namespace DataLayer

namespace DataLayer {

bool CCalibrationFeatureRefinementZhou::correctPerspective()
{
    const std::ptrdiff_t count = m_features.GetSize();
    constexpr int kMinFeatures = 6;
    if (count < kMinFeatures || count > (1 << 24))
        return false;
    const int n = static_cast<int>(count);

    // The lattice must be unambiguous: pairwise distinct grid positions.
    std::vector<std::pair<int, int>> keys(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        keys[static_cast<std::size_t>(i)] = {m_features[i].gridX, m_features[i].gridY};
    std::sort(keys.begin(), keys.end());
    if (std::adjacent_find(keys.begin(), keys.end()) != keys.end())
        return false;

    // Normalised coordinates (centroid at 0, mean distance sqrt 2) on both sides.
    double mu = 0, mv = 0, mx = 0, my = 0;
    for (int i = 0; i < n; ++i) {
        mu += m_features[i].gridX;
        mv += m_features[i].gridY;
        mx += m_features[i].posX;
        my += m_features[i].posY;
    }
    mu /= n, mv /= n, mx /= n, my /= n;
    double du = 0, dx = 0;
    for (int i = 0; i < n; ++i) {
        du += std::hypot(m_features[i].gridX - mu, m_features[i].gridY - mv);
        dx += std::hypot(m_features[i].posX - mx, m_features[i].posY - my);
    }
    if (!(du > 0.0) || !(dx > 0.0))
        return false;
    const double su = std::sqrt(2.0) * n / du, sx = std::sqrt(2.0) * n / dx;

    // x = (h0 u + h1 v + h2) / (h6 u + h7 v + 1), and y likewise, linear in the eight unknowns.
    TMatrix<double> a(2 * n, 8);
    TVector<double> b(2 * n);
    for (int i = 0; i < n; ++i) {
        const double u = (m_features[i].gridX - mu) * su, v = (m_features[i].gridY - mv) * su;
        const double x = (m_features[i].posX - mx) * sx, y = (m_features[i].posY - my) * sx;
        const int r = 2 * i;
        for (int c = 0; c < 8; ++c)
            a(r, c) = a(r + 1, c) = 0.0;
        a(r, 0) = u, a(r, 1) = v, a(r, 2) = 1.0, a(r, 6) = -u * x, a(r, 7) = -v * x;
        a(r + 1, 3) = u, a(r + 1, 4) = v, a(r + 1, 5) = 1.0, a(r + 1, 6) = -u * y, a(r + 1, 7) = -v * y;
        b[r] = x;
        b[r + 1] = y;
    }
    TVector<double> hn(8);
    double cond = 0.0;
    // A lattice on one line leaves the system rank deficient: a huge condition number.
    if (!lapack::lssolve(a, b, hn, &cond) || !(cond < 1e8))
        return false;
    const Mat3 hNorm{hn[0], hn[1], hn[2], hn[3], hn[4], hn[5], hn[6], hn[7], 1.0};
    const Mat3 tu{su, 0.0, -su * mu, 0.0, su, -su * mv, 0.0, 0.0, 1.0};
    const Mat3 txInv{1.0 / sx, 0.0, mx, 0.0, 1.0 / sx, my, 0.0, 0.0, 1.0};
    const Mat3 h = multiply(txInv, multiply(hNorm, tu));
    Mat3 hInv{};
    if (!invert(h, hInv))
        return false;

    // The lattice must be a plane view: residuals of at most 1 px RMS.
    double sum2 = 0.0;
    for (int i = 0; i < n; ++i) {
        double x = 0.0, y = 0.0;
        if (!project(h, m_features[i].gridX, m_features[i].gridY, x, y))
            return false;
        sum2 += (x - m_features[i].posX) * (x - m_features[i].posX) +
                (y - m_features[i].posY) * (y - m_features[i].posY);
    }
    if (!(sum2 / n <= 1.0))
        return false;

    // All offsets first, so that a mark whose offset can't be computed leaves everything unchanged.
    std::vector<std::array<double, 2>> offsets(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i) {
        const CCalibrationPointFeatureDetect& f = m_features[i];
        const double u = f.gridX, v = f.gridY;
        // Local scale: the Jacobian determinant of h at (u, v), in square pixels per grid cell.
        const double w = h[6] * u + h[7] * v + h[8];
        const double x = (h[0] * u + h[1] * v + h[2]) / w, y = (h[3] * u + h[4] * v + h[5]) / w;
        const double j00 = (h[0] - x * h[6]) / w, j01 = (h[1] - x * h[7]) / w;
        const double j10 = (h[3] - y * h[6]) / w, j11 = (h[4] - y * h[7]) / w;
        const double area = std::fabs(j00 * j11 - j01 * j10);
        if (!(area > 0.0) || !std::isfinite(area))
            return false;
        const double rho = f.radius / std::sqrt(area);
        double ox = 0.0, oy = 0.0;
        if (!perspectiveOffset(h, hInv, u, v, rho, ox, oy))
            return false;
        if (m_ringFeatures) {
            double ix = 0.0, iy = 0.0;
            if (!perspectiveOffset(h, hInv, u, v, rho * 0.5, ix, iy))
                return false;
            ox = (2.0 * ix + ox) / 3.0;
            oy = (2.0 * iy + oy) / 3.0;
        }
        offsets[static_cast<std::size_t>(i)] = {ox, oy};
    }
    for (int i = 0; i < n; ++i) {
        m_features[i].posX -= offsets[static_cast<std::size_t>(i)][0];
        m_features[i].posY -= offsets[static_cast<std::size_t>(i)][1];
    }
    return true;
}

} // namespace DataLayer
