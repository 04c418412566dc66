#pragma once
// DataLayer::CCalibrationPointIntersection: the point record of the plane point optimiser. It adds
// seven stored values, an index and a transient reference to the AOptimizationPoint base. This
// library only stores, copies and serialises them; the caller of the optimiser gives them their
// meaning.
//
// Archive form: the 21-byte base record, then the seven values as 8-byte doubles in order, then the
// index as a 4-byte signed integer (81 bytes in all, little-endian, nothing between). The transient
// reference is not written and is set to null on reading.
//
// Ownership: the transient reference is borrowed and never dereferenced here; copies take it
// along. Threads: one thread at a time per record.

#include <cstdint>

#include "datalayer/algorithms/optimisation/aoptimizationpoint.h"

namespace DataLayer {

class CCalibrationPointIntersection : public AOptimizationPoint
{
public:
    static constexpr int m_ciValueCount = 7;

    CCalibrationPointIntersection() = default;
    /// Base part first, then all three members, the transient reference included.
    CCalibrationPointIntersection(const CCalibrationPointIntersection& other) = default;
    CCalibrationPointIntersection& operator=(const CCalibrationPointIntersection& other) = default;
    ~CCalibrationPointIntersection() override;

    /// Writes or reads the 81 bytes; on reading the transient reference becomes null. An archive
    /// that ends early raises its own CArchiveException.
    void Serialize(CArchive& archive) override;

    double values[m_ciValueCount] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
    std::int32_t index = -1;
    /// Not persisted.
    void* transientReference = nullptr;
};

} // namespace DataLayer
