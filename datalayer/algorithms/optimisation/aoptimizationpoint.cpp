#include "datalayer/algorithms/optimisation/aoptimizationpoint.h"

#include "core/framework/carchive.h"

namespace DataLayer {

AOptimizationPoint::~AOptimizationPoint() = default;

void AOptimizationPoint::Serialize(CArchive& archive)
{
    if (archive.IsStoring()) {
        archive << flag << number << secondValue << firstValue;
    } else {
        archive >> flag >> number >> secondValue >> firstValue;
    }
}

} // namespace DataLayer
