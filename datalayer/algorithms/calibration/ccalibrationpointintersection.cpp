#include "datalayer/algorithms/calibration/ccalibrationpointintersection.h"

#include "core/framework/carchive.h"

namespace DataLayer {

CCalibrationPointIntersection::~CCalibrationPointIntersection() = default;

void CCalibrationPointIntersection::Serialize(CArchive& archive)
{
    AOptimizationPoint::Serialize(archive);
    if (archive.IsStoring()) {
        for (double value : values)
            archive << value;
        archive << index;
    } else {
        for (double& value : values)
            archive >> value;
        archive >> index;
        transientReference = nullptr;
    }
}

} // namespace DataLayer
