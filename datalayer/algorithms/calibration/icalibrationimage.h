#pragma once
// DataLayer::ICalibrationImage: the read-only view through which every calibration stage sees a
// picture, a grid of single-precision grey values in which one reserved value marks missing
// data. A pixel is valid exactly when `value != GetInvalidValue()` under ordinary floating-point
// comparison, so a NaN pixel counts as valid.
//
// Ownership: the interface owns nothing; a stage that is handed one only borrows it, and the
// caller keeps it alive for the run. Threads: reading from several threads is safe as long as
// nobody changes the picture behind the interface.

#include "core/framework/csize.h"

namespace DataLayer {

class ICalibrationImage
{
public:
    virtual ~ICalibrationImage() = default;
    /// Width cx and height cy in pixels; 0 x 0 for an empty picture.
    virtual CSize GetSize() const = 0;
    /// The value at column x, row y. The caller keeps 0 <= x < cx and 0 <= y < cy; an
    /// implementation need not check.
    virtual float GetPixel(int x, int y) const = 0;
    /// The marker of missing data.
    virtual float GetInvalidValue() const = 0;
};

} // namespace DataLayer
