#pragma once
// DataLayer::COptimizePlanePointsBase: a small base for the plane point optimisers of the
// surrounding system. It offers a cooperative abort, which a derived optimiser polls through
// isAborted() and then stops, and a limiter that scales a correction step back into its limits.
//
// Ownership: owns a logger without a channel of its own and a manual-reset event. Threads: Abort
// and ResetAbortion may come from any thread while another thread runs the optimiser (the event is
// the only shared state); everything else serves one thread. Neither copyable nor movable, since
// other threads may hold on to the event.

#include "core/framework/cevent.h"
#include "core/logging/clogger.h"

namespace DataLayer {

class COptimizePlanePointsBase
{
public:
    COptimizePlanePointsBase();
    COptimizePlanePointsBase(const COptimizePlanePointsBase&) = delete;
    COptimizePlanePointsBase& operator=(const COptimizePlanePointsBase&) = delete;
    ~COptimizePlanePointsBase();

    /// Sets the abort event; it stays set until ResetAbortion, however often it is polled.
    void Abort();
    /// Clears the abort event.
    void ResetAbortion();

protected:
    /// Polls the event without blocking: true while it is set.
    bool isAborted() const;

    /// Scales correction[0..size-1] as a whole so that no component exceeds its limit: with
    /// m = max |correction[i] / limits[i]| (starting from 0), a step with m above 1 is divided by
    /// m, and *counter (when not null) grows by 1. A null limits pointer, or a null correction or a
    /// size below 1, leaves everything unchanged and the counter untouched. A limit of 0 gives an
    /// infinite or NaN quotient; such limits are not expected. A NaN quotient is not above 1 and so
    /// is ignored by the maximum.
    void limitCorrectionVector(double* correction, const double* limits, int size, int* counter);

    Logging::CLogger m_logger;

private:
    CEvent m_abortEvent;
};

} // namespace DataLayer
