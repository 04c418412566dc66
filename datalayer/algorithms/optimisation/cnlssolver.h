#pragma once
// DataLayer::CNLSSolver: minimises the sum of squared residuals of a CNLSObjectiveFunction under its
// linear equalities and inequalities. One descent is a Levenberg-Marquardt iteration in the free
// variables of the objective's kernel (so equalities hold by construction), with the damped normal
// equations solved by the SVD driver, steps cut back at the inequality rows (and projected onto a
// row the iterate already lies on), an infeasible start repaired by a linear program, and optional
// Tukey reweighting with a MAD scale. Run() repeats the descent from points sampled inside the
// inequality polytope (Gibbs or hit-and-run, std::mt19937_64 seeded with 47110815 on every call)
// and keeps the best.
//
// Ownership: the solver holds a reference to the objective and does not own it; the caller keeps
// the objective alive for every Run(). A run reads the objective's constraints and kernel and
// changes nothing in it. Threads: one solver serves one thread; solvers on distinct objectives may
// run side by side, but the log lines and the printed start vector share the process-wide debug
// output.
//
// Decisions where the behaviour was open, each pinned by a test:
// - Robust weights: where u = e / s is 0 the factor psiTukey(u) / u takes its limit 1. Where the
//   MAD scale is 0 or not finite (or a residual isn't finite) no reweighting is done: the weights
//   are the plain 1 / sigma^2, so H and g are never poisoned by 0 / 0.
// - A sampler that meets an unbounded direction (an infinite distance to the constraints) writes
//   NaN into the sample; the warm-up rejects every sample that isn't finite as a failed attempt, so
//   no infinite or NaN start ever reaches a descent.
// - A descent that ended with ConstraintsViolated never becomes the best solution of a series, and
//   a residual that is NaN counts as worse than any number.
// - Every sampled chain starts from the caller's start x0, the first one included.
// - Bad input: an x of other than GetNumParams() entries gives LSSolutionFailed with x and rmse
//   untouched; a negative maxIterations counts as 0 and a negative numRuns as 0. An Error() that
//   doesn't deliver GetNumMeasurements() entries, or a Jacobian() that isn't M x F, gives
//   LSSolutionFailed: at the start x then holds the free values (as for an empty residual), later
//   x and rmse are the last accepted iterate's. So does a damped system with an entry that isn't
//   finite (a NaN derivative, a StdDev() of the wrong length, damping grown beyond the range).
// - Constraint rows with a NaN entry (or stored with a width other than N) end the descent with
//   ConstraintsViolated and the "infeasible constraints" line; they are never silently dropped. Rows
//   with a right-hand side of +infinity hold everywhere and are left out of the repair program.
//
// Two choices differ from the plainest reading of the damped iteration, because that reading fails
// real fits (both pinned by tests that fail without them):
// - Steps on a plane: when the iterate lies on a constraint plane, the damped system is solved within
//   that plane (bordered with the plane's normal) before the step is cut back. Projecting the free
//   step instead converges to a point that depends on the damping wherever the bounded parameter is
//   coupled to the others; in the plane the model's predicted decrease h . (mu h - g) / 2 is exact.
// - Gain ratio: the actual decrease is taken with the weights of the current model (1 / sigma^2, and
//   the Tukey factors when robust), the same weights as the predicted one. With unit weights and
//   robustness off this is the plain sum of squares, to the last bit; with weights, a plain sum
//   would scale the ratio by sigma^2 and stall the damping, and a robust step that moves away from
//   outliers would be refused.
//
// Further properties a caller should know:
// - From z = 0 the explosion test (|h| >= (|z| + 2 eps) 2^52) fires for any step of length 2 or
//   more: start from a point of the problem's scale, not from the origin.
// - A plane that the iterate has reached stays active: every later step is kept on it, also one that
//   would leave it inward. A fit whose iterate touches a bound on the way ends on that bound.
// - Rounding at a cut: a step cut back to a plane (or projected onto one) whose end rounds to just
//   beyond a row that z satisfies is moved back onto that row along its normal, so that a feasible
//   iterate stays feasible; seen from outside, the ray test would no longer stop the next step.
// - The infeasible-start program: a linear program that fails for another reason than
//   unboundedness, or delivers a value that isn't finite, is reported as infeasible or unbounded
//   respectively, with ConstraintsViolated. shrinkConstraints leaves a row of length 0 as it is.

#include <functional>
#include <random>

#include "datalayer/algorithms/numeric/tmatrix.h"
#include "datalayer/algorithms/numeric/tvector.h"
#include "datalayer/algorithms/optimisation/cnlsobjectivefunction.h"

namespace DataLayer {

class CNLSSolver
{
public:
    /// How a descent ended. Values 0 and 1 are converged ends.
    enum EResult
    {
        SmallGradient = 0,
        SmallStepSize = 1,
        MaxIterExceeded = 2,
        AlmostSingularMatrix = 3,
        LSSolutionFailed = 4,
        ConstraintsViolated = 5
    };

    /// How Run() draws the start of an extra descent; any other value takes no sampling step.
    enum ESampler
    {
        Gibbs = 0,
        HitAndRun = 1
    };

    /// Logging and the projection flag on. samplerSteps below 1 becomes 2 * GetNumParams().
    CNLSSolver(CNLSObjectiveFunction& objective, bool robust, int samplerSteps);
    CNLSSolver(const CNLSSolver& other) = default;
    CNLSSolver(CNLSSolver&& other) = default;

    void SetLogging(bool on) { logging = on; }
    void SetRobustness(bool on) { robust = on; }
    /// Stored and copied only: projection onto a constraint is always on.
    void SetUseProjectionOfUpdates(bool on) { useProjectionOfUpdates = on; }

    /// One descent from x (N entries), then numRuns more from sampled feasible points when the
    /// objective has inequality rows; keeps the best. On return x is the best solution (N entries)
    /// and rmse its root mean square residual; the result is that of the best descent. When every
    /// descent violated the constraints: ConstraintsViolated, x the start, rmse +infinity. In the
    /// single-descent case (numRuns 0, or no inequality rows) a ConstraintsViolated leaves the free
    /// values in x and rmse unwritten.
    EResult Run(TVector<double>& x, double& rmse, int maxIterations, double tau, int numRuns,
                ESampler sampler);

    /// The fixed text of a result, e.g. "small gradient (++)"; an empty string for other values.
    static const char* GetResultText(EResult result);

private:
    friend struct CNLSSolverTestAccess;

    EResult run(TVector<double>& x, double& rmse, int maxIterations, double tau);
    TVector<double> computeWeight(const TVector<double>& residuals, bool unused) const;
    double psiHuber(double u) const;
    double psiTukey(double u) const;
    TVector<double> cutBack(const TMatrix<double>& A, const TVector<double>& b, const TVector<double>& z,
                            const TVector<double>& h, bool nested) const;
    void keepSatisfiedRows(const TMatrix<double>& A, const TVector<double>& b, const TVector<double>& z,
                           TVector<double>& step) const;
    void distanceToConstraints(const TMatrix<double>& A, const TVector<double>& b, const TVector<double>& z,
                               const TVector<double>& direction, double& backward, double& forward) const;
    bool checkConstraints(const TMatrix<double>& A, const TVector<double>& b, const TVector<double>& z) const;
    bool checkEqualities(const TMatrix<double>& A, const TVector<double>& b) const;
    void shrinkConstraints(TMatrix<double>& A, TVector<double>& b, double distance) const;
    void log(const char* format, ...) const __attribute__((format(printf, 2, 3)));
    void sampleGibbs(const TMatrix<double>& A, const TVector<double>& b, std::mt19937_64& engine,
                     std::function<double(double, double)>& uniform, TVector<double>& x);
    void sampleHitAndRun(const TMatrix<double>& A, const TVector<double>& b, std::mt19937_64& engine,
                         std::function<double(double, double)>& uniform, TVector<double>& x) const;

    CNLSObjectiveFunction& objective;
    bool logging;
    bool useProjectionOfUpdates;
    bool robust;
    int samplerSteps;
};

} // namespace DataLayer
