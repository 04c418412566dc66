#pragma once
// DataLayer::ICenterPixelCalculator: the strategy by which the Zhou refinement turns the two
// sub-pixel end points of one chord through a mark into the point that counts as the chord's
// centre. The refinement's own default is the arithmetic mean of the two end points
// (CCalibrationFeatureRefinementZhou::NCCenterPixelCalculatorDummy); a client may plug in a
// correction, for example for lens distortion, by deriving from this interface.
//
// Ownership: the refinement only borrows a calculator; the caller keeps it alive for every run.
// Threads: CalcCenter is const and is called from the one thread that runs the refinement; an
// implementation that is shared between refinements on several threads must be safe for that.

#include "core/base/lbvector.h"

namespace DataLayer {

class ICenterPixelCalculator
{
public:
    virtual ~ICenterPixelCalculator() = default;
    /// The centre of the chord from first to second, in pixels (x the column, y the row).
    virtual LbVector2d CalcCenter(const LbVector2d& first, const LbVector2d& second) const = 0;
};

} // namespace DataLayer
