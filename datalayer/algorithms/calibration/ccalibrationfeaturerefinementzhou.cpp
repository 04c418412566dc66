#include "datalayer/algorithms/calibration/ccalibrationfeaturerefinementzhou.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <typeinfo>
#include <vector>

namespace DataLayer {

namespace {

constexpr double kFloatEpsilon = 1.1920928955078125e-7;
constexpr double kDoubleEpsilon = 2.220446049250313e-16;
constexpr double kTukeyConstant = 4.6851;
constexpr double kChordAngle = 0.7853981633974483;
constexpr int kMaxRounds = 100;
constexpr int kMaxRobustRound = 15;

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
    return std::hypot(ax - bx, ay - by);
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
      m_concreteImage(other.m_concreteImage), m_invalidValue(other.m_invalidValue)
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
    return !m_features.IsEmpty();
}

bool CCalibrationFeatureRefinementZhou::refineSinglePosition(const sFeaturePosition& start,
                                                             sFeaturePosition& result, double radius,
                                                             int halfLine, bool dark)
{
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

    LbArray<LbVector2d> points;
    points.reserve(std::max(0, std::max(x1 - x0, y1 - y0) + 1));

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
    CArray<sEdgePosition> history;
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
    const float invalid = m_invalidValue;
    for (int i = 0; i < n; ++i) {
        const int x = horizontal ? start + i : fixed;
        const int y = horizontal ? fixed : start + i;
        const float v = m_concreteImage != nullptr ? m_concreteImage->CCalibrationImage::GetPixel(x, y)
                                                   : m_image->GetPixel(x, y);
        if (v == invalid || !std::isfinite(v))
            return false;
        samples[i] = v * sign;
    }
    return true;
}

bool CCalibrationFeatureRefinementZhou::calcEdgePoint(sEdgePosition& edge, int halfLine, bool horizontal,
                                                      bool rising)
{
    if (m_image == nullptr || edge.pixelX < 0 || edge.pixelX >= m_imageWidth || edge.pixelY < 0 ||
        edge.pixelY >= m_imageHeight)
        return false;
    if (halfLine < 1)
        return false;
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
    if (horizontal) {
        edge.x = position;
        edge.pixelX = truncToInt(position);
    } else {
        edge.y = position;
        edge.pixelY = truncToInt(position);
    }
    return true;
}

bool CCalibrationFeatureRefinementZhou::locateMomentEdge(const float* samples, int n, double& position)
{
    if (samples == nullptr || n < 1)
        return false;
    double sum = 0.0;
    for (int i = 0; i < n; ++i)
        sum += samples[i];
    const double mean = sum / n;
    double s2 = 0.0;
    double s3 = 0.0;
    for (int i = 0; i < n; ++i) {
        const double c = samples[i] - mean;
        const double c2 = c * c;
        s2 += c2;
        s3 += c2 * c;
    }
    const double var = s2 / n;
    const double mu3 = s3 / n;
    if (!(var > 0.0))
        return false;
    const double sigma3 = std::sqrt(var) * var;
    if (!(std::fabs(sigma3) >= kDoubleEpsilon))
        return false;
    const double sk = mu3 / sigma3;
    const double p = (std::sqrt(1.0 / (sk * sk + 4.0)) * sk + 1.0) * 0.5;
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

        auto userWeight = [&](int i) { return weights != nullptr ? (*weights)[i] : 1.0; };
        double a = 0.0; // slope
        double b = 0.0; // intercept in the shifted frame
        auto residual2 = [&](int i) {
            const double r = (points[i].y - oy) - (a * (points[i].x - ox) + b);
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
            const double x = points[i].x - ox;
            const double y = points[i].y - oy;
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
                    const double x = points[i].x - ox;
                    const double y = points[i].y - oy;
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
                if (std::fabs(1.0 - newVar / var) <= kFloatEpsilon || round >= kMaxRobustRound) {
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
