#include "datalayer/algorithms/optimisation/coptimizeplanepointsbase.h"

#include <cmath>

namespace DataLayer {

COptimizePlanePointsBase::COptimizePlanePointsBase() : m_abortEvent(false) {}

COptimizePlanePointsBase::~COptimizePlanePointsBase() = default;

void COptimizePlanePointsBase::Abort()
{
    m_abortEvent.SetEvent();
}

void COptimizePlanePointsBase::ResetAbortion()
{
    m_abortEvent.ResetEvent();
}

bool COptimizePlanePointsBase::isAborted() const
{
    return m_abortEvent.IsSet();
}

void COptimizePlanePointsBase::limitCorrectionVector(double* correction, const double* limits, int size,
                                                     int* counter)
{
    if (limits == nullptr || correction == nullptr || size < 1)
        return;
    double m = 0.0;
    for (int i = 0; i < size; ++i) {
        const double q = std::fabs(correction[i] / limits[i]);
        if (q > m)
            m = q;
    }
    if (m > 1.0) {
        for (int i = 0; i < size; ++i)
            correction[i] /= m;
        if (counter != nullptr)
            ++*counter;
    }
}

} // namespace DataLayer
