#include "datalayer/algorithms/calibration/ccalibrationpointfeaturedetect.h"

#include <cmath>

#include "core/framework/carchive.h"

namespace DataLayer {

CCalibrationPointFeatureDetect::~CCalibrationPointFeatureDetect() = default;

void CCalibrationPointFeatureDetect::Serialize(CArchive& archive)
{
    if (archive.IsStoring()) {
        archive << radius << rating << posX << posY << centerOffsetX << centerOffsetY << centerOffset
                << sigmaColumns << sigmaRows << sigmaTotal << gridX << gridY;
    } else {
        archive >> radius >> rating >> posX >> posY >> centerOffsetX >> centerOffsetY >> centerOffset >>
            sigmaColumns >> sigmaRows >> sigmaTotal >> gridX >> gridY;
    }
}

int CCalibrationPointFeatureDetect::FeatureCmp_temporary(const void* first, const void* second)
{
    const double a = static_cast<const CCalibrationPointFeatureDetect*>(first)->rating;
    const double b = static_cast<const CCalibrationPointFeatureDetect*>(second)->rating;
    if (a > b)
        return 1;
    if (b > a)
        return -1;
    return 0;
}

namespace detail {

namespace {
std::int32_t truncateToInt(double v)
{
    if (std::isnan(v))
        return 0;
    if (v >= 2147483647.0)
        return 2147483647;
    if (v <= -2147483648.0)
        return -2147483647 - 1;
    return static_cast<std::int32_t>(v);
}

std::int32_t wrappingDifference(std::int32_t a, std::int32_t b)
{
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}
} // namespace

CCalibrationPointFeatureDetect ScaledFeature(const CCalibrationPointFeatureDetect& a, double s)
{
    CCalibrationPointFeatureDetect r;
    r.posX = a.posX * s;
    r.posY = a.posY * s;
    r.gridX = truncateToInt(a.gridX * s);
    r.gridY = truncateToInt(a.gridY * s);
    return r;
}

CCalibrationPointFeatureDetect FeatureDifference(const CCalibrationPointFeatureDetect& a,
                                                 const CCalibrationPointFeatureDetect& b)
{
    CCalibrationPointFeatureDetect r;
    r.posX = a.posX - b.posX;
    r.posY = a.posY - b.posY;
    r.gridX = wrappingDifference(a.gridX, b.gridX);
    r.gridY = wrappingDifference(a.gridY, b.gridY);
    return r;
}

} // namespace detail

} // namespace DataLayer
