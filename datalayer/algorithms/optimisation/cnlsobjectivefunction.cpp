#include "datalayer/algorithms/optimisation/cnlsobjectivefunction.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <limits>
#include <new>
#include <utility>
#include <vector>

#include "datalayer/algorithms/numeric/cpmatrix.h"
#include "datalayer/algorithms/numeric/lapack.h"
#include "datalayer/algorithms/optimisation/clpsolver.h"

namespace DataLayer {
namespace {

constexpr double kEps = 2.220446049250313e-16;
// IsVariable compares with ten times the machine epsilon, not with the epsilon itself.
constexpr double kVariableThreshold = 2.220446049250313e-15;
// The absolute step of the base Jacobian, the same for every parameter whatever its scale.
constexpr double kJacobianStep = 0.000123;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

// Coefficients of the finite differences, one row per order 1..6, for k ascending from
// -(order / 2) to (order + 1) / 2.
constexpr double kFDCoefficients[6][7] = {
    {-1.0, 1.0},
    {-1.0 / 2.0, 0.0, 1.0 / 2.0},
    {-1.0 / 3.0, -1.0 / 2.0, 1.0, -1.0 / 6.0},
    {1.0 / 12.0, -2.0 / 3.0, 0.0, 2.0 / 3.0, -1.0 / 12.0},
    {1.0 / 20.0, -1.0 / 2.0, -1.0 / 3.0, 1.0, -1.0 / 4.0, 1.0 / 30.0},
    {-1.0 / 60.0, 3.0 / 20.0, -3.0 / 4.0, 0.0, 3.0 / 4.0, -3.0 / 20.0, 1.0 / 60.0},
};

/// The unit basis (0 | I) of n parameters, n x (n + 1); throws std::bad_alloc when n + 1 overflows.
TMatrix<double> unitKernel(int n)
{
    if (n == INT_MAX)
        throw std::bad_alloc();
    TMatrix<double> k(n, n + 1);
    for (int i = 0; i < n; ++i)
        k(i, i + 1) = 1.0;
    return k;
}

TVector<int> identityIndices(int n)
{
    TVector<int> v(n);
    for (int i = 0; i < n; ++i)
        v[i] = i;
    return v;
}

TMatrix<double> filledMatrix(int rows, int cols, double value)
{
    TMatrix<double> a(rows, cols);
    for (int c = 0; c < cols; ++c)
        for (int r = 0; r < rows; ++r)
            a(r, c) = value;
    return a;
}

TVector<double> filledVector(int n, double value)
{
    TVector<double> v(n);
    for (int i = 0; i < n; ++i)
        v[i] = value;
    return v;
}

bool allFinite(const TVector<double>& v)
{
    for (int i = 0; i < v.Size(); ++i)
        if (!std::isfinite(v[i]))
            return false;
    return true;
}

/// A pair of rows that may be stored for N parameters: as many right-hand sides as rows, and N
/// columns unless there are no rows at all.
bool rowsFit(const TMatrix<double>& A, const TVector<double>& b, int n)
{
    return A.Rows() == b.Size() && (A.Rows() == 0 || A.Cols() == n);
}

} // namespace

CNLSObjectiveFunction::CNLSObjectiveFunction(int numParams, int numMeasurements)
    : numParams(std::max(numParams, 0)), numMeasurements(numMeasurements), equalitiesLHS(0, this->numParams),
      equalitiesRHS(0), inequalitiesLHS(0, this->numParams), inequalitiesRHS(0),
      kernel(unitKernel(this->numParams)), freeVariables(identityIndices(this->numParams))
{
}

CNLSObjectiveFunction::~CNLSObjectiveFunction() = default;

TVector<double> CNLSObjectiveFunction::StdDev()
{
    return filledVector(std::max(numMeasurements, 0), 1.0);
}

TMatrix<double> CNLSObjectiveFunction::Jacobian(const TVector<double>& z)
{
    const int m = std::max(numMeasurements, 0);
    const int f = freeVariables.Size();
    if (m == 0)
        return TMatrix<double>(0, f);
    if (z.Size() != f)
        return filledMatrix(m, f, kNaN);
    TVector<double> x = BuildParamsFromFree(z);
    TMatrix<double> J(m, f);
    for (int i = 0; i < f; ++i) {
        const TVector<double> column = errorFDDerivatives(x, freeVariables[i], kJacobianStep, 4);
        for (int r = 0; r < m; ++r)
            J(r, i) = column[r];
    }
    return J;
}

void CNLSObjectiveFunction::SetNumParams(unsigned int n)
{
    // A count above INT_MAX wraps to a negative int and so reads as below 1.
    const int count = static_cast<int>(n);
    if (count == INT_MAX)
        throw std::bad_alloc(); // K would need INT_MAX + 1 columns; nothing has changed
    numParams = count;
    if (numParams < 1)
        return;
    kernel.Resize(numParams, numParams + 1);
    for (int c = 1; c <= numParams; ++c)
        for (int r = 0; r < numParams; ++r)
            kernel(r, c) = r == c - 1 ? 1.0 : 0.0;
    freeVariables = identityIndices(numParams);
}

int CNLSObjectiveFunction::GetNumParams() const
{
    return numParams;
}

int CNLSObjectiveFunction::GetNumMeasurements() const
{
    return numMeasurements;
}

void CNLSObjectiveFunction::SetNumMeasurements(int m)
{
    numMeasurements = m;
}

bool CNLSObjectiveFunction::AddEquality(const TVector<double>& a, double b)
{
    const int n = numParams;
    if (a.Size() != n || kernel.Rows() != n || !allFinite(a) || !std::isfinite(b))
        return false;
    const int m = equalitiesRHS.Size();
    if (m > 0 && equalitiesLHS.Cols() != n)
        return false;

    // The stacked system of the stored rows and the new one.
    TMatrix<double> lhs(m + 1, n);
    TVector<double> rhs(m + 1);
    for (int c = 0; c < n; ++c) {
        for (int r = 0; r < m; ++r)
            lhs(r, c) = equalitiesLHS(r, c);
        lhs(m, c) = a[c];
    }
    for (int r = 0; r < m; ++r)
        rhs[r] = equalitiesRHS[r];
    rhs[m] = b;

    TMatrix<double> scratchA(lhs);
    TVector<double> scratchR(rhs);
    int rank = 0;
    TMatrix<double> newKernel;
    TVector<int> perm;
    if (!reduceEqualities(scratchA, scratchR, rank, newKernel, perm))
        return false;
    if (rank == m)
        return true; // dependent on the stored rows and consistent with them: nothing to store
    if (rank < m)
        return false;

    equalitiesLHS = std::move(lhs);
    equalitiesRHS = std::move(rhs);
    kernel = std::move(newKernel);
    TVector<int> free(n - rank);
    for (int j = 0; j < n - rank; ++j)
        free[j] = perm[rank + j];
    freeVariables = std::move(free);
    return true;
}

bool CNLSObjectiveFunction::AddEquality(int index, double value)
{
    if (index < 0 || index >= numParams)
        return false;
    TVector<double> a(numParams);
    a[index] = 1.0;
    return AddEquality(a, value);
}

bool CNLSObjectiveFunction::reduceEqualities(TMatrix<double>& A, TVector<double>& r, int& rank,
                                             TMatrix<double>& X, TVector<int>& perm)
{
    const int m = A.Rows();
    const int n = A.Cols();
    perm = identityIndices(n);
    const double tol = A.NormInf() * std::max(m, 50) * kEps;

    // Forward elimination with complete pivoting. The search runs column by column, each from its
    // top, starting at (k, k) with a strict comparison: among equal magnitudes the first found stays.
    int k = 0;
    for (; k < m && k < n; ++k) {
        int pivotRow = k;
        int pivotCol = k;
        double best = std::abs(A(k, k));
        for (int c = k; c < n; ++c)
            for (int i = k; i < m; ++i)
                if (std::abs(A(i, c)) > best) {
                    best = std::abs(A(i, c));
                    pivotRow = i;
                    pivotCol = c;
                }
        if (best <= tol)
            break;
        if (pivotRow != k) {
            for (int c = 0; c < n; ++c)
                std::swap(A(pivotRow, c), A(k, c));
            std::swap(r[pivotRow], r[k]);
        }
        if (pivotCol != k) {
            for (int i = 0; i < m; ++i)
                std::swap(A(i, pivotCol), A(i, k));
            std::swap(perm[pivotCol], perm[k]);
        }
        for (int i = k + 1; i < m; ++i) {
            const double f = -A(i, k) / A(k, k);
            r[i] += f * r[k];
            for (int j = k; j < n; ++j)
                A(i, j) += f * A(k, j);
        }
    }
    rank = k;

    // Consistency of the rows without a pivot.
    for (int i = rank; i < m; ++i) {
        if (std::abs(r[i]) > tol) {
            X = TMatrix<double>();
            return false;
        }
        r[i] = 0.0;
    }

    // Back-substitution to the reduced form, carrying the non-pivot columns along.
    for (int c = rank - 1; c >= 0; --c) {
        for (int i = c - 1; i >= 0; --i) {
            const double f = -A(i, c) / A(c, c);
            r[i] += f * r[c];
            for (int j = c; j < n; ++j)
                A(i, j) += f * A(c, j);
        }
        const double d = 1.0 / A(c, c);
        A(c, c) = 1.0;
        for (int j = rank; j < n; ++j)
            A(c, j) *= d;
        r[c] *= d;
    }

    // Basis columns ordered by ascending free variable: order[j] is the rank of perm[rank + j].
    const int q = n - rank;
    TVector<int> order(q);
    for (int j = 0; j < q; ++j) {
        int position = 0;
        for (int l = 0; l < q; ++l)
            if (perm[rank + l] < perm[rank + j])
                ++position;
        order[j] = position;
    }

    X = TMatrix<double>(n, q + 1);
    for (int i = 0; i < rank; ++i) {
        const int p = perm[i];
        if (std::abs(r[i]) >= kEps)
            X(p, 0) = r[i];
        for (int j = 0; j < q; ++j)
            if (std::abs(A(i, rank + j)) >= kEps)
                X(p, order[j] + 1) = -A(i, rank + j);
    }
    for (int j = 0; j < q; ++j)
        X(perm[rank + j], order[j] + 1) = 1.0;

    std::sort(perm.Data(), perm.Data() + rank);
    std::sort(perm.Data() + rank, perm.Data() + n);
    return true;
}

bool CNLSObjectiveFunction::inequalitiesMatchParams() const
{
    return inequalitiesRHS.Size() == 0 || inequalitiesLHS.Cols() == numParams;
}

void CNLSObjectiveFunction::appendInequality(const TVector<double>& a, double b)
{
    const int n = numParams;
    const int m = inequalitiesRHS.Size();
    TMatrix<double> lhs(m + 1, n);
    TVector<double> rhs(m + 1);
    for (int c = 0; c < n; ++c) {
        for (int r = 0; r < m; ++r)
            lhs(r, c) = inequalitiesLHS(r, c);
        lhs(m, c) = a[c];
    }
    for (int r = 0; r < m; ++r)
        rhs[r] = inequalitiesRHS[r];
    rhs[m] = b;
    inequalitiesLHS = std::move(lhs);
    inequalitiesRHS = std::move(rhs);
}

void CNLSObjectiveFunction::AddInequality(const TVector<double>& a, double b)
{
    if (a.Size() != numParams || !inequalitiesMatchParams())
        return;
    appendInequality(a, b);
}

void CNLSObjectiveFunction::addBound(int index, double value, bool lower)
{
    if (index < 0 || index >= numParams || !inequalitiesMatchParams())
        return;
    TVector<double> a(numParams);
    a[index] = lower ? -1.0 : 1.0;
    appendInequality(a, lower ? -value : value);
}

void CNLSObjectiveFunction::AddLowerBound(int index, double value)
{
    addBound(index, value, true);
}

void CNLSObjectiveFunction::AddUpperBound(int index, double value)
{
    addBound(index, value, false);
}

void CNLSObjectiveFunction::AddBounds(int index, double lower, double upper)
{
    AddLowerBound(index, lower);
    AddUpperBound(index, upper);
}

void CNLSObjectiveFunction::SetEqualities(const TMatrix<double>& A, const TVector<double>& b)
{
    if (!rowsFit(A, b, numParams))
        return;
    equalitiesLHS = A;
    equalitiesRHS = b;
}

void CNLSObjectiveFunction::SetInequalities(const TMatrix<double>& A, const TVector<double>& b)
{
    if (!rowsFit(A, b, numParams))
        return;
    inequalitiesLHS = A;
    inequalitiesRHS = b;
}

TVector<double> CNLSObjectiveFunction::BuildParamsFromFree(const TVector<double>& z) const
{
    const int n = kernel.Rows();
    const int f = kernel.Cols() - 1;
    if (f < 0 || z.Size() != f)
        return filledVector(n, kNaN);
    TVector<double> x(n);
    for (int i = 0; i < n; ++i) {
        double v = kernel(i, 0);
        for (int j = 0; j < f; ++j)
            v += kernel(i, j + 1) * z[j];
        x[i] = v;
    }
    return x;
}

void CNLSObjectiveFunction::GetFreeVariablesInequalities(TMatrix<double>& A, TVector<double>& b) const
{
    const int rows = inequalitiesRHS.Size();
    if (rows == 0) {
        A = inequalitiesLHS;
        b = inequalitiesRHS;
        return;
    }
    const int f = std::max(kernel.Cols() - 1, 0);
    if (inequalitiesLHS.Rows() != rows || inequalitiesLHS.Cols() != kernel.Rows()) {
        A = filledMatrix(rows, f, kNaN);
        b = filledVector(rows, kNaN);
        return;
    }
    const TMatrix<double> P = inequalitiesLHS * kernel;
    A = TMatrix<double>(rows, f);
    b = TVector<double>(rows);
    for (int r = 0; r < rows; ++r) {
        b[r] = inequalitiesRHS[r] - P(r, 0);
        for (int j = 0; j < f; ++j)
            A(r, j) = P(r, j + 1);
    }
}

bool CNLSObjectiveFunction::IsVariable(int index) const
{
    if (index < 0 || index >= kernel.Rows() || kernel.Cols() < 2)
        return false;
    for (int j = 1; j < kernel.Cols(); ++j)
        if (!(std::abs(kernel(index, j)) < kVariableThreshold))
            return true;
    return false;
}

bool CNLSObjectiveFunction::IsBounded(int index) const
{
    if (index < 0 || index >= numParams || index >= kernel.Rows())
        return false;
    if (!IsVariable(index))
        return true;
    const int rows = inequalitiesRHS.Size();
    if (rows == 0 || inequalitiesLHS.Rows() != rows || inequalitiesLHS.Cols() != numParams)
        return false;

    // The program refuses non-finite input, so settle those rows here: a right-hand side of
    // +infinity constrains nothing and is left out, one of -infinity (with finite coefficients)
    // can't be met, and any other non-finite entry leaves the range unknown: not bounded.
    std::vector<int> kept;
    for (int r = 0; r < rows; ++r) {
        bool finiteRow = true;
        for (int c = 0; c < numParams; ++c)
            finiteRow = finiteRow && std::isfinite(inequalitiesLHS(r, c));
        const double b = inequalitiesRHS[r];
        if (!finiteRow || std::isnan(b))
            return false;
        if (b == -kInf)
            return true;
        if (b != kInf)
            kept.push_back(r);
    }
    if (kept.empty())
        return false;
    const int m = static_cast<int>(kept.size());
    TMatrix<double> A(m, numParams);
    TVector<double> b(m);
    for (int r = 0; r < m; ++r) {
        for (int c = 0; c < numParams; ++c)
            A(r, c) = inequalitiesLHS(kept[r], c);
        b[r] = inequalitiesRHS[kept[r]];
    }

    // Maximise +x[index], then -x[index], over the inequality rows (and x >= 0).
    TVector<double> c(numParams);
    c[index] = 1.0;
    CLPSolver up(A, b, c);
    up.Run();
    const CLPSolver::LPStatusType status = up.GetStatus();
    if (status == CLPSolver::LPInfeasible || status == CLPSolver::LPNotRun)
        return true;
    if (status == CLPSolver::LPUnbounded)
        return false;
    c[index] = -1.0;
    CLPSolver down(A, b, c);
    down.Run();
    return down.GetStatus() != CLPSolver::LPUnbounded;
}

TVector<double> CNLSObjectiveFunction::errorFDDerivatives(TVector<double>& x, int index, double step,
                                                          int order)
{
    const int m = std::max(numMeasurements, 0);
    if (order < 1 || order > 6 || index < 0 || index >= x.Size() || step == 0.0 || !std::isfinite(step))
        return filledVector(m, kNaN);

    const double v = x[index];
    TVector<double> accumulator(m);
    const double* w = kFDCoefficients[order - 1];
    for (int k = -(order / 2), slot = 0; k <= (order + 1) / 2; ++k, ++slot) {
        x[index] = v + k * step;
        if (w[slot] == 0.0)
            continue;
        const TVector<double> e = Error(x);
        for (int i = 0; i < m; ++i)
            accumulator[i] += w[slot] * (i < e.Size() ? e[i] : kNaN);
    }
    x[index] = v;
    for (int i = 0; i < m; ++i)
        accumulator[i] /= step;
    return accumulator;
}

TMatrix<double> CNLSObjectiveFunction::GetCovariance(const TVector<double>& x, double tolerance)
{
    const int n = kernel.Rows();
    const int f = freeVariables.Size();
    const int m = std::max(numMeasurements, 0);
    if (m == 0)
        return filledMatrix(n, n, kInf);
    if (x.Size() != n || kernel.Cols() != f + 1)
        return filledMatrix(n, n, kNaN);

    const TVector<double> z = x.Gather(freeVariables);
    TMatrix<double> J = Jacobian(z);
    if (J.Rows() != m || J.Cols() != f)
        return filledMatrix(n, n, kNaN);
    TVector<int> singular;
    const TMatrix<double> C = getCovariance(std::move(J), singular, tolerance);

    TMatrix<double> V(n, n);
    if (C.Rows() == f && C.Cols() == f)
        for (int b = 0; b < f; ++b)
            for (int a = 0; a < f; ++a)
                V(freeVariables[a], freeVariables[b]) = C(a, b);

    TVector<int> isFree(n);
    for (int j = 0; j < f; ++j)
        isFree[freeVariables[j]] = 1;
    TVector<int> variable(n);
    for (int i = 0; i < n; ++i) {
        variable[i] = IsVariable(i) ? 1 : 0;
        if (variable[i])
            continue;
        for (int j = 0; j < n; ++j) {
            V(i, j) = 0.0;
            V(j, i) = 0.0;
        }
    }

    // Dependent parameters: variance and covariance through their rows of the kernel basis.
    for (int d = 0; d < n; ++d) {
        if (isFree[d] || !variable[d])
            continue;
        for (int j = 0; j < n; ++j) {
            double s = 0.0;
            for (int p = 0; p < f; ++p) {
                const double u = kernel(d, p + 1);
                if (u == 0.0)
                    continue;
                for (int q = 0; q < f; ++q) {
                    const double w = kernel(j, q + 1);
                    if (w == 0.0)
                        continue;
                    s += u * w * V(freeVariables[p], freeVariables[q]);
                }
            }
            V(d, j) = s;
            V(j, d) = s;
        }
    }
    return V;
}

TMatrix<double> CNLSObjectiveFunction::getCovariance(TMatrix<double> J, TVector<int>& singular,
                                                     double tolerance)
{
    const int n = J.Cols();
    const int rows = J.Rows();
    if (!(tolerance >= 0.0))
        tolerance = 0.0;

    const TVector<double> sd = StdDev();
    bool finite = true;
    for (int i = 0; i < rows; ++i) {
        const double s = i < sd.Size() ? sd[i] : kNaN;
        for (int c = 0; c < n; ++c) {
            J(i, c) /= s;
            finite = finite && std::isfinite(J(i, c));
        }
    }
    if (!finite) {
        // No factorisation of infinities: the result is undefined, and says so.
        singular = TVector<int>();
        return filledMatrix(n, n, kNaN);
    }
    if (rows < n) {
        TMatrix<double> padded(n, n);
        for (int c = 0; c < n; ++c)
            for (int r = 0; r < rows; ++r)
                padded(r, c) = J(r, c);
        J = std::move(padded);
    }

    // QR with every column fixed in place: no pivoting, the column order stays.
    const int mm = J.Rows();
    TMatrix<double> Q(mm, mm);
    TMatrix<double> R(mm, n);
    CPMatrix P(n);
    for (int j = 0; j < n; ++j)
        P[j] = 1;
    if (!lapack::qrp(J, Q, R, P)) {
        singular = TVector<int>();
        return TMatrix<double>();
    }

    // Invert R in place, stopping at the numerical rank.
    const double tolr = std::abs(R(0, 0)) * tolerance;
    int l = -1;
    for (int k = 0; k < n; ++k) {
        if (std::abs(R(k, k)) <= tolr)
            break;
        R(k, k) = 1.0 / R(k, k);
        for (int j = 0; j < k; ++j) {
            const double t = R(k, k) * R(j, k);
            R(j, k) = 0.0;
            for (int i = 0; i <= j; ++i)
                R(i, k) -= t * R(i, j);
        }
        l = k;
    }

    // Upper triangle of R^-1 R^-T, in place.
    for (int k = 0; k <= l; ++k) {
        for (int j = 0; j < k; ++j) {
            const double t = R(j, k);
            for (int i = 0; i <= j; ++i)
                R(i, j) += t * R(i, k);
        }
        const double t = R(k, k);
        for (int i = 0; i <= k; ++i)
            R(i, k) *= t;
    }

    // Rank-deficient columns read as infinite variance.
    singular = TVector<int>(n - 1 - l);
    for (int j = l + 1; j < n; ++j) {
        singular[j - l - 1] = j;
        for (int i = 0; i <= j; ++i)
            R(i, j) = kInf;
    }

    TMatrix<double> C(n, n);
    for (int c = 0; c < n; ++c)
        for (int r = 0; r < n; ++r)
            C(r, c) = r <= c ? R(r, c) : R(c, r);
    return C;
}

TMatrix<double> CNLSObjectiveFunction::GetCorrelation(const TVector<double>& x, double tolerance)
{
    TMatrix<double> C = GetCovariance(x, tolerance);
    const int n = std::min(C.Rows(), C.Cols());
    TVector<double> s(n);
    for (int i = 0; i < n; ++i)
        s[i] = std::sqrt(C(i, i));
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i)
            C(i, j) /= s[i] * s[j];
    return C;
}

double CNLSObjectiveFunction::GetDCriterionValue(const TVector<double>& z)
{
    const TMatrix<double> J = Jacobian(z);
    TMatrix<double> A = J.Transposed() * J;
    if (A.Rows() == 0)
        return 1.0;
    if (!cholesky(A))
        return 0.0;
    double product = 1.0;
    for (int i = 0; i < A.Rows(); ++i)
        product *= A(i, i);
    return product * product;
}

} // namespace DataLayer
