#include "datalayer/algorithms/optimisation/cnlssolver.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "core/base/vorn2_debug.h"
#include "datalayer/algorithms/numeric/lapack.h"
#include "datalayer/algorithms/optimisation/clpsolver.h"

namespace DataLayer {
namespace {

constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
// Twice the machine epsilon: the gradient, residual and step-size tests of a descent.
constexpr double kE2 = 4.440892098500626e-16;
// 2^52: a step this many times longer than the iterate has exploded.
constexpr double kBig = 4503599627370496.0;
// How far the rows are moved inward before the linear program looks for a feasible start.
constexpr double kShrinkDistance = 2.220446049250313e-14;
// An iterate closer than this to a plane lies on it, and the step is projected onto the plane.
constexpr double kOnPlane = 2.220446049250313e-15;
// Tukey's biweight and Huber's constant, and the factor that turns a MAD into a standard deviation.
constexpr double kTukeyC = 4.6851;
constexpr double kHuberK = 1.345;
constexpr double kMadToSigma = 0.6745;
// Multistart limits.
constexpr int kMaxFailedTries = 5;
constexpr int kWarmupAttempts = 5;
constexpr unsigned long long kSeed = 47110815ULL;

// The texts of the results, one fixed entry of 32 characters per value.
constexpr char kResultTexts[6][32] = {
    "small gradient (++)",        "small step size (++)",    "maxiter exceeded (-)",
    "almost singular matrix (-)", "LS solution failed (--)", "constraints violated (-)",
};

bool allFinite(const TVector<double>& v)
{
    for (int i = 0; i < v.Size(); ++i)
        if (!std::isfinite(v[i]))
            return false;
    return true;
}

bool allFinite(const TMatrix<double>& a)
{
    const long long count = static_cast<long long>(a.Rows()) * a.Cols();
    const double* data = a.Data();
    for (long long k = 0; k < count; ++k)
        if (!std::isfinite(data[k]))
            return false;
    return true;
}

bool anyNaN(const TMatrix<double>& a, const TVector<double>& b)
{
    const long long count = static_cast<long long>(a.Rows()) * a.Cols();
    for (long long k = 0; k < count; ++k)
        if (std::isnan(a.Data()[k]))
            return true;
    for (int i = 0; i < b.Size(); ++i)
        if (std::isnan(b[i]))
            return true;
    return false;
}

/// Largest magnitude; NaN as soon as an entry is NaN, so that no test on it passes.
double maxAbs(const TVector<double>& v)
{
    double m = 0.0;
    for (int i = 0; i < v.Size(); ++i) {
        const double a = std::abs(v[i]);
        if (!(a <= m))
            m = a;
        if (std::isnan(m))
            return m;
    }
    return m;
}

/// Row i of A times v.
double rowDot(const TMatrix<double>& A, int i, const TVector<double>& v)
{
    double s = 0.0;
    for (int j = 0; j < A.Cols(); ++j)
        s += A(i, j) * v[j];
    return s;
}

/// Median of a finite, non-empty list (reordered in place): the middle element, or the mean of the
/// two middle ones for an even size.
double medianInPlace(std::vector<double>& v)
{
    const std::size_t n = v.size();
    const std::size_t k = n / 2;
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
    const double upper = v[k];
    if (n % 2 == 1)
        return upper;
    const double lower = *std::max_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k));
    return (lower + upper) / 2.0;
}

/// Median of |e[i] - median(e)|; NaN for an empty vector or one with an entry that isn't finite.
double medianAbsoluteDeviation(const TVector<double>& e)
{
    if (e.Size() == 0 || !allFinite(e))
        return kNaN;
    std::vector<double> copy(e.Data(), e.Data() + e.Size());
    const double median = medianInPlace(copy);
    for (int i = 0; i < e.Size(); ++i)
        copy[static_cast<std::size_t>(i)] = std::abs(e[i] - median);
    return medianInPlace(copy);
}

/// H = J^T W J and g = J^T W e, with W = diag(w). H is filled symmetrically from its lower half.
void buildNormalEquations(const TMatrix<double>& J, const TVector<double>& w, const TVector<double>& e,
                          TMatrix<double>& H, TVector<double>& g)
{
    const int m = J.Rows();
    const int f = J.Cols();
    H.Resize(f, f);
    g.Resize(f);
    std::vector<double> weighted(static_cast<std::size_t>(m));
    for (int i = 0; i < f; ++i) {
        const double* ci = J.Data() + static_cast<long long>(i) * m;
        double gi = 0.0;
        for (int r = 0; r < m; ++r) {
            weighted[static_cast<std::size_t>(r)] = ci[r] * w[r];
            gi += weighted[static_cast<std::size_t>(r)] * e[r];
        }
        g[i] = gi;
        for (int j = 0; j <= i; ++j) {
            const double* cj = J.Data() + static_cast<long long>(j) * m;
            double s = 0.0;
            for (int r = 0; r < m; ++r)
                s += weighted[static_cast<std::size_t>(r)] * cj[r];
            H(i, j) = s;
            H(j, i) = s;
        }
    }
}

/// a strictly better than b, a NaN residual being worse than any number.
bool betterResidual(double a, double b)
{
    if (std::isnan(a))
        return false;
    return std::isnan(b) || a < b;
}

void poison(TVector<double>& x)
{
    for (int i = 0; i < x.Size(); ++i)
        x[i] = kNaN;
}

/// The row whose plane the ray z + s u meets first at s >= 0 (the first on equal distances), with
/// that distance in d; -1 and d = +infinity when no plane lies ahead. Parallel rows never count.
int nearestPlaneAhead(const TMatrix<double>& A, const TVector<double>& b, const TVector<double>& z,
                      const TVector<double>& u, double& d)
{
    const int f = z.Size();
    d = kInf;
    int nearest = -1;
    for (int i = 0; i < A.Rows(); ++i) {
        const double au = rowDot(A, i, u);
        if (au == 0.0)
            continue;
        const double t = (rowDot(A, i, z) - b[i]) / au;
        double ahead = 0.0;
        for (int j = 0; j < f; ++j)
            ahead += ((z[j] - t * u[j]) - z[j]) * u[j];
        if (ahead >= 0.0 && std::abs(t) < d) {
            d = std::abs(t);
            nearest = i;
        }
    }
    return nearest;
}

/// The minimiser of the damped model on the plane n . h = 0: the bordered system
/// [H + mu I, n; n^T, 0] (h, lambda) = (-g, 0). False (h untouched) when the driver fails.
bool solveOnPlane(const TMatrix<double>& H, const TVector<double>& g, double mu, const TVector<double>& n,
                  TVector<double>& h)
{
    const int f = g.Size();
    TMatrix<double> K(f + 1, f + 1);
    TVector<double> rhs(f + 1);
    for (int j = 0; j < f; ++j) {
        for (int i = 0; i < f; ++i)
            K(i, j) = H(i, j);
        K(j, j) += mu;
        K(f, j) = n[j];
        K(j, f) = n[j];
        rhs[j] = -g[j];
    }
    TVector<double> solution(f + 1);
    if (!lapack::lssolve(K, rhs, solution, nullptr) || !allFinite(solution))
        return false;
    for (int j = 0; j < f; ++j)
        h[j] = solution[j];
    return true;
}

} // namespace

CNLSSolver::CNLSSolver(CNLSObjectiveFunction& objective, bool robust, int samplerSteps)
    : objective(objective), logging(true), useProjectionOfUpdates(true), robust(robust),
      samplerSteps(samplerSteps >= 1 ? samplerSteps
                                     : 2 * std::clamp(objective.GetNumParams(), 0, INT_MAX / 2))
{
}

const char* CNLSSolver::GetResultText(EResult result)
{
    const int index = static_cast<int>(result);
    if (index < 0 || index > 5)
        return "";
    return kResultTexts[index];
}

void CNLSSolver::log(const char* format, ...) const
{
    if (!logging)
        return;
    std::va_list args;
    va_start(args, format);
    std::va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length > 0) {
        std::string text(static_cast<std::size_t>(length) + 1, '\0');
        std::vsnprintf(text.data(), text.size(), format, args);
        text.resize(static_cast<std::size_t>(length));
        vorn2_debug_printf("%s", text.c_str());
    }
    va_end(args);
}

CNLSSolver::EResult CNLSSolver::run(TVector<double>& x, double& rmse, int maxIterations, double tau)
{
    maxIterations = std::max(maxIterations, 0);
    const int n = objective.GetNumParams();
    if (x.Size() != n)
        return LSSolutionFailed;
    const int m = objective.GetNumMeasurements();
    const TVector<int>& freeIndices = objective.GetFreeVariablesIndices();
    const int f = freeIndices.Size();
    for (int j = 0; j < f; ++j)
        if (freeIndices[j] < 0 || freeIndices[j] >= n)
            return LSSolutionFailed;

    TMatrix<double> A;
    TVector<double> b;
    objective.GetFreeVariablesInequalities(A, b);
    const bool hasRows = b.Size() > 0;
    TVector<double> z = x.Gather(freeIndices);

    // Rows that can't be evaluated (NaN, or stored with the wrong width) are never silently dropped.
    if (hasRows && (A.Rows() != b.Size() || A.Cols() != f || anyNaN(A, b))) {
        log("(NLS) infeasible constraints detected\n");
        x = std::move(z);
        return ConstraintsViolated;
    }

    // An infeasible start is repaired by the feasible z >= 0 of smallest sum, inside rows moved
    // inward a little. Rows with an infinite right-hand side hold for every z and are left out.
    if (hasRows && !checkConstraints(A, b, z)) {
        int finiteRows = 0;
        for (int i = 0; i < b.Size(); ++i)
            if (b[i] != kInf)
                ++finiteRows;
        TMatrix<double> lpA(finiteRows, f);
        TVector<double> lpB(finiteRows);
        for (int i = 0, r = 0; i < b.Size(); ++i) {
            if (b[i] == kInf)
                continue;
            for (int j = 0; j < f; ++j)
                lpA(r, j) = A(i, j);
            lpB[r++] = b[i];
        }
        shrinkConstraints(lpA, lpB, kShrinkDistance);
        TVector<double> c(f);
        for (int j = 0; j < f; ++j)
            c[j] = -1.0;
        CLPSolver lp(lpA, lpB, c);
        TVector<double> start;
        const bool solved = lp.Run();
        if (solved)
            start = lp.GetSolution(nullptr);
        if (!solved || start.Size() != f || !allFinite(start)) {
            if (lp.GetStatus() == CLPSolver::LPUnbounded)
                log("(NLS) unbounded constraints detected; introduce upper/lower bounds\n");
            else
                log("(NLS) infeasible constraints detected\n");
            x = std::move(z);
            return ConstraintsViolated;
        }
        log("(NLS) constructed initial feasible solution\n");
        z = std::move(start);
        z.Print();
    }

    TVector<double> e = objective.Error(objective.BuildParamsFromFree(z));
    if (e.Size() == 0 || e.Size() != m) {
        x = std::move(z);
        return LSSolutionFailed;
    }
    TMatrix<double> J = objective.Jacobian(z);
    if (J.Rows() != m || J.Cols() != f) {
        x = std::move(z);
        return LSSolutionFailed;
    }
    TVector<double> w = computeWeight(e, false);
    TMatrix<double> H;
    TVector<double> g;
    buildNormalEquations(J, w, e, H, g);

    double largestDiagonal = 0.0;
    for (int i = 0; i < f; ++i)
        largestDiagonal = std::max(largestDiagonal, H(i, i));
    double mu = tau * largestDiagonal;
    double nu = 1.0;
    const double rootM = std::sqrt(static_cast<double>(m));
    double squaredNorm = Dot(e, e);
    log("(NLS) iter. 0: residual RMSE=%g\n", std::sqrt(squaredNorm) / rootM);

    EResult result = MaxIterExceeded;
    bool stoppedByCount = true;
    int iter = 1;
    if (maxIterations > 0) {
        TMatrix<double> damped;
        TVector<double> rhs(f);
        TVector<double> h(f);
        for (;;) {
            stoppedByCount = false;
            if (g.Size() == 0 || maxAbs(g) <= kE2 || maxAbs(e) <= kE2) {
                result = SmallGradient;
                break;
            }

            // (H + mu I) h = -g on a copy, since the driver destroys its matrix.
            damped = H;
            for (int i = 0; i < f; ++i) {
                damped(i, i) += mu;
                rhs[i] = -g[i];
            }
            if (!allFinite(damped) || !allFinite(rhs) || !lapack::lssolve(damped, rhs, h, nullptr)) {
                result = LSSolutionFailed;
                break;
            }

            if (hasRows) {
                // On a plane, the step is the damped model's minimiser within the plane; projecting the
                // free step instead stalls wherever the bounded parameter is coupled to the others.
                const double length = h.Norm();
                double d = kInf;
                const int plane = length > 0.0 ? nearestPlaneAhead(A, b, z, h / length, d) : -1;
                if (plane >= 0 && d < kOnPlane) {
                    TVector<double> normal = A.Row(plane);
                    solveOnPlane(H, g, mu, normal / normal.Norm(), h);
                }
            }
            TVector<double> step = hasRows ? cutBack(A, b, z, h, false) : h;
            const TVector<double> zNew = z + step;
            if (hasRows && !checkConstraints(A, b, zNew))
                log("(NLS) warning: intermediate solution violates constraints\n");

            const double stepNorm = step.Norm();
            const double iterateNorm = z.Norm();
            if (stepNorm <= (iterateNorm + kE2) * kE2) {
                result = SmallStepSize;
                break;
            }
            if (stepNorm >= (iterateNorm + kE2) * kBig) {
                result = AlmostSingularMatrix;
                break;
            }

            TVector<double> eNew = objective.Error(objective.BuildParamsFromFree(zNew));
            if (eNew.Size() != m) {
                result = LSSolutionFailed;
                break;
            }
            TMatrix<double> JNew = objective.Jacobian(zNew);
            if (JNew.Rows() != m || JNew.Cols() != f) {
                result = LSSolutionFailed;
                break;
            }

            // The actual decrease is measured with the weights of the model that predicted dL, so that
            // their ratio doesn't depend on the scale of StdDev() and a robust step is judged by the
            // reweighted sum it minimises. With unit weights this is the plain sum, to the last bit.
            const double newSquaredNorm = Dot(eNew, eNew);
            double weightedOld = 0.0;
            double weightedNew = 0.0;
            for (int r = 0; r < m; ++r) {
                weightedOld += w[r] * e[r] * e[r];
                weightedNew += w[r] * eNew[r] * eNew[r];
            }
            const double dF = (weightedOld - weightedNew) / 2.0;
            double dL = 0.0;
            for (int i = 0; i < f; ++i)
                dL += step[i] * (mu * step[i] - g[i]);
            dL /= 2.0;
            if (dL > 0.0 && dF > 0.0) {
                w = computeWeight(eNew, false);
                z = zNew;
                e = std::move(eNew);
                J = std::move(JNew);
                squaredNorm = newSquaredNorm;
                buildNormalEquations(J, w, e, H, g);
                const double bracket = 1.0 - (2.0 * dF / dL - 1.0);
                mu *= std::max(1.0 / 3.0, bracket * bracket * bracket);
                nu = 2.0;
                if (iter % 5 == 0)
                    log("(NLS) iter. %i: residual RMSE=%g\n", iter, std::sqrt(squaredNorm) / rootM);
            } else {
                mu *= nu;
                nu *= 2.0;
            }

            ++iter;
            if (iter > maxIterations) {
                result = MaxIterExceeded;
                stoppedByCount = true;
                break;
            }
        }
    }

    rmse = std::sqrt(squaredNorm) / rootM;
    log("(NLS) stopped after %i iterations ('%s', residual RMSE=%g)\n", stoppedByCount ? maxIterations : iter,
        GetResultText(result), rmse);
    x = objective.BuildParamsFromFree(z);
    return result;
}

TVector<double> CNLSSolver::computeWeight(const TVector<double>& residuals, bool) const
{
    const TVector<double> sigma = objective.StdDev();
    const int m = residuals.Size();
    TVector<double> w(m);
    if (sigma.Size() != m) {
        poison(w);
        return w;
    }
    for (int i = 0; i < m; ++i)
        w[i] = 1.0 / (sigma[i] * sigma[i]);
    if (!robust)
        return w;
    const double s = medianAbsoluteDeviation(residuals) / kMadToSigma;
    if (!(s > 0.0) || !std::isfinite(s))
        return w; // no scale: the plain weights, never 0 / 0
    for (int i = 0; i < m; ++i) {
        const double u = residuals[i] / s;
        w[i] *= u == 0.0 ? 1.0 : psiTukey(u) / u;
    }
    return w;
}

double CNLSSolver::psiHuber(double u) const
{
    if (std::abs(u) <= kHuberK)
        return u;
    return std::copysign(kHuberK, u);
}

double CNLSSolver::psiTukey(double u) const
{
    if (std::abs(u) > kTukeyC)
        return 0.0;
    const double r = u / kTukeyC;
    const double q = 1.0 - r * r;
    return u * q * q;
}

TVector<double> CNLSSolver::cutBack(const TMatrix<double>& A, const TVector<double>& b,
                                    const TVector<double>& z, const TVector<double>& h, bool nested) const
{
    const double length = h.Norm();
    if (!(length > 0.0) || !std::isfinite(length))
        return h; // nothing to cut
    const TVector<double> u = h / length;

    double d = kInf;
    const int nearest = nearestPlaneAhead(A, b, z, u, d);

    if (!nested && nearest >= 0 && d < kOnPlane) {
        // The iterate lies on that plane: project the step onto it, once.
        TVector<double> normal = A.Row(nearest);
        normal = normal / normal.Norm();
        const double along = Dot(h, normal);
        TVector<double> projected = cutBack(A, b, z, h - normal * along, true);
        keepSatisfiedRows(A, b, z, projected);
        return projected;
    }
    TVector<double> step = length > d ? u * d : h;
    if (!nested)
        keepSatisfiedRows(A, b, z, step);
    return step;
}

void CNLSSolver::keepSatisfiedRows(const TMatrix<double>& A, const TVector<double>& b,
                                   const TVector<double>& z, TVector<double>& step) const
{
    // A step cut to end on a plane can land an ulp beyond it when z + step is rounded; from outside,
    // the ray test no longer sees that plane and the next step would leave through it. So a row that
    // z satisfies and z + step misses by rounding is met again by moving the end point back along the
    // row's normal, by the excess, doubled until it holds. Steps that end inside change not at all.
    const int f = z.Size();
    for (int round = 0; round < 16; ++round) {
        const TVector<double> end = z + step;
        bool satisfied = true;
        for (int i = 0; i < A.Rows(); ++i) {
            const double excess = rowDot(A, i, end) - b[i];
            if (!(excess > 0.0) || !(rowDot(A, i, z) <= b[i]))
                continue;
            satisfied = false;
            double squared = 0.0;
            for (int j = 0; j < f; ++j)
                squared += A(i, j) * A(i, j);
            const double scale = std::ldexp(excess / squared, round);
            for (int j = 0; j < f; ++j)
                step[j] -= scale * A(i, j);
        }
        if (satisfied)
            return;
    }
}

void CNLSSolver::distanceToConstraints(const TMatrix<double>& A, const TVector<double>& b,
                                       const TVector<double>& z, const TVector<double>& direction,
                                       double& backward, double& forward) const
{
    backward = kInf;
    forward = kInf;
    const int f = z.Size();
    for (int i = 0; i < A.Rows(); ++i) {
        const double ad = rowDot(A, i, direction);
        if (ad == 0.0)
            continue; // parallel: no limit either way
        const double t = (rowDot(A, i, z) - b[i]) / ad;
        double squared = 0.0;
        double ahead = 0.0;
        for (int j = 0; j < f; ++j) {
            const double y = z[j] - t * direction[j];
            squared += (z[j] - y) * (z[j] - y);
            ahead += direction[j] * (y - z[j]);
        }
        const double distance = std::sqrt(squared);
        if (ahead >= 0.0) {
            if (distance < forward)
                forward = distance;
        } else if (distance < backward) {
            backward = distance;
        }
    }
}

bool CNLSSolver::checkConstraints(const TMatrix<double>& A, const TVector<double>& b,
                                  const TVector<double>& z) const
{
    for (int i = 0; i < A.Rows(); ++i)
        if (rowDot(A, i, z) > b[i])
            return false;
    return true;
}

bool CNLSSolver::checkEqualities(const TMatrix<double>& A, const TVector<double>& b) const
{
    if (A.Rows() != b.Size())
        return false;
    TMatrix<double> scratchA(A);
    TVector<double> scratchB(b);
    int rank = 0;
    TMatrix<double> kernel;
    TVector<int> perm;
    return CNLSObjectiveFunction::reduceEqualities(scratchA, scratchB, rank, kernel, perm);
}

void CNLSSolver::shrinkConstraints(TMatrix<double>& A, TVector<double>& b, double distance) const
{
    for (int i = 0; i < A.Rows(); ++i) {
        double squared = 0.0;
        for (int j = 0; j < A.Cols(); ++j)
            squared += A(i, j) * A(i, j);
        const double length = std::sqrt(squared);
        if (length > 0.0)
            b[i] = (b[i] / length - distance) * length;
    }
}

void CNLSSolver::sampleGibbs(const TMatrix<double>& A, const TVector<double>& b, std::mt19937_64&,
                             std::function<double(double, double)>& uniform, TVector<double>& x)
{
    const int n = A.Cols();
    TVector<double> direction(n);
    for (int j = 0; j < n; ++j) {
        direction[j] = 1.0;
        double backward = 0.0;
        double forward = 0.0;
        distanceToConstraints(A, b, x, direction, backward, forward);
        direction[j] = 0.0;
        if (!std::isfinite(backward) || !std::isfinite(forward)) {
            poison(x); // an unbounded segment has no uniform point
            return;
        }
        x[j] += uniform(-backward, forward);
    }
}

void CNLSSolver::sampleHitAndRun(const TMatrix<double>& A, const TVector<double>& b, std::mt19937_64& engine,
                                 std::function<double(double, double)>& uniform, TVector<double>& x) const
{
    const int n = A.Cols();
    TVector<double> direction(n);
    std::normal_distribution<double> normal(0.0, 1.0);
    for (int j = 0; j < n; ++j)
        direction[j] = normal(engine);
    direction = direction / direction.Norm();
    double backward = 0.0;
    double forward = 0.0;
    distanceToConstraints(A, b, x, direction, backward, forward);
    if (!std::isfinite(backward) || !std::isfinite(forward)) {
        poison(x);
        return;
    }
    const double t = uniform(-backward, forward);
    for (int j = 0; j < n; ++j)
        x[j] += t * direction[j];
}

CNLSSolver::EResult CNLSSolver::Run(TVector<double>& x, double& rmse, int maxIterations, double tau,
                                    int numRuns, ESampler sampler)
{
    const int n = objective.GetNumParams();
    if (x.Size() != n)
        return LSSolutionFailed;
    if (numRuns <= 0 || !objective.HasInequalities()) {
        const EResult single = run(x, rmse, maxIterations, tau);
        if (numRuns > 0)
            log("(NLS) warning: skipping multistart (no inequality constraints!)\n");
        return single;
    }
    const TVector<double> x0(x);
    double firstRmse = kNaN;
    EResult result = run(x, firstRmse, maxIterations, tau);

    const TMatrix<double>& A = objective.GetInequalitiesLHS();
    const TVector<double>& b = objective.GetInequalitiesRHS();
    const bool rowsUsable = A.Rows() == b.Size() && A.Cols() == n;
    std::mt19937_64 engine(kSeed);
    std::function<double(double, double)> uniform = [&engine](double lo, double hi) {
        return lo + std::generate_canonical<double, 53>(engine) * (hi - lo);
    };

    TVector<double> best;
    double bestRmse = kInf;
    // A first descent that left no solution (violated constraints, or a residual that couldn't be
    // evaluated at the start, which leaves rmse unwritten) contributes the start itself.
    const bool firstHasSolution =
        result != ConstraintsViolated && !(result == LSSolutionFailed && std::isnan(firstRmse));
    if (firstHasSolution) {
        best = x;
        bestRmse = firstRmse;
    } else {
        best = x0;
    }
    x = x0;

    const double limit = n * 2.220446049250313e-15;
    int completed = 0;
    int runNumber = 1;
    int failures = 0;
    bool leftEarly = false;
    while (completed < numRuns) {
        if (bestRmse <= limit || failures >= kMaxFailedTries) {
            leftEarly = true;
            break;
        }
        const int tryNumber = failures + 1;
        log("(NLS) SAMPLING FOR MULTISTART RUN %i OF %i (try #%i)\n", runNumber, numRuns, tryNumber);

        bool accepted = false;
        for (int attempt = 0; attempt < kWarmupAttempts && !accepted; ++attempt) {
            if (rowsUsable) {
                for (int step = 0; step < samplerSteps && allFinite(x); ++step) {
                    if (sampler == Gibbs)
                        sampleGibbs(A, b, engine, uniform, x);
                    else if (sampler == HitAndRun)
                        sampleHitAndRun(A, b, engine, uniform, x);
                }
            }
            if (rowsUsable && allFinite(x) && checkConstraints(A, b, x))
                accepted = true;
            else
                x = x0;
        }

        if (!accepted) {
            log("(NLS) warmup failed.\n");
        } else {
            double runRmse = kInf;
            const EResult r = run(x, runRmse, maxIterations, tau);
            if (r == AlmostSingularMatrix || r == ConstraintsViolated) {
                if (r == AlmostSingularMatrix)
                    log("(NLS) multistart run #%i/#%i failed: close to singular matrix\n", runNumber,
                        numRuns);
                else
                    log("(NLS) multistart run #%i/#%i failed: constraint violation\n", runNumber, numRuns);
                --completed;
                --runNumber;
                failures = tryNumber;
            } else {
                failures = 0;
            }
            if (r != ConstraintsViolated && betterResidual(runRmse, bestRmse)) {
                best = x;
                bestRmse = runRmse;
                result = r;
            }
            x = x0;
        }
        ++completed;
        ++runNumber;
    }

    if (leftEarly) {
        if (bestRmse <= limit)
            log("(NLS) obtained the best possible residual - omitting further multistart runs\n");
        else
            log("(NLS) multistart series aborted (too many errors)\n");
    }
    x = std::move(best);
    rmse = bestRmse;
    log("(NLS) final residual RMSE=%g\n", bestRmse);
    return result;
}

} // namespace DataLayer
