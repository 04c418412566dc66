#pragma once
// DataLayer::AOptimizationPoint: the persistent base record of one point in a plane point
// optimisation. The library only keeps, copies and stores the four fields; what flag, number and
// the two values mean is up to the optimiser that uses the record.
//
// Archive form (little-endian, 21 bytes, no version field and no padding; a derived record's own
// fields follow directly):
//   offset 0  1 byte   flag, written 1 or 0; any non-zero byte reads as true
//   offset 1  4 bytes  number, 32-bit signed
//   offset 5  8 bytes  secondValue, IEEE double
//   offset 13 8 bytes  firstValue, IEEE double
// The two doubles stand in the reverse of their declaration order.
//
// Ownership: a plain value; copies are complete. Threads: one thread at a time per record.

#include <cstdint>

class CArchive;

namespace DataLayer {

class AOptimizationPoint
{
public:
    AOptimizationPoint() = default;
    AOptimizationPoint(const AOptimizationPoint& other) = default;
    AOptimizationPoint& operator=(const AOptimizationPoint& other) = default;
    virtual ~AOptimizationPoint();

    /// Writes the 21 bytes when the archive is storing, reads them when it is loading. An archive
    /// that ends early raises its own CArchiveException; the fields read before then keep their
    /// new values.
    virtual void Serialize(CArchive& archive);

    bool flag = true;
    std::int32_t number = -1;
    double firstValue = 0.0;
    double secondValue = 0.0;
};

} // namespace DataLayer
