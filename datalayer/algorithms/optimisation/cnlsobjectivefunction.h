#pragma once
// DataLayer::CNLSObjectiveFunction: the abstract base of every nonlinear least squares problem. A
// client derives from it, supplies the residuals in Error(x), declares N parameters and M
// measurements, adds linear constraints, and hands the object to the solver; afterwards the same
// object answers for covariance, correlation and the D criterion at the solution.
//
// Equalities are never seen by a solver: each accepted one is folded at once into the kernel K
// (N x (F + 1)), so that every parameter vector is x = K(:, 0) + K(:, 1..F) z for the F free
// variables z, and the equalities hold for every z. Inequalities stay as rows a . x <= b.
//
// Ownership: the object owns its constraint rows and kernel; copies are deep. Threads: one thread
// at a time (errorFDDerivatives writes into its x argument and restores it). Nothing throws but
// allocation (a parameter count of INT_MAX, whose kernel can't be addressed, throws std::bad_alloc).
//
// Decisions where the behaviour was open, each pinned by a test:
// - Counts: a negative N given to the constructor counts as 0; a negative M acts as 0 everywhere.
// - Error() of the wrong size: every derived result is still sized by M; rows that Error() didn't
//   deliver read NaN, extra entries are ignored. A StdDev() that is too short weights the rows it
//   lacks by NaN.
// - AddEquality with an a of the wrong size, a non-finite entry or b, or an index outside 0..N-1
//   returns false and changes nothing; so does any AddEquality while stored equality rows have a
//   width other than N (after SetNumParams changed N; SetEqualities replaces them).
// - AddInequality with the wrong size, bounds with an index outside 0..N-1, and any new inequality
//   while stored inequality rows have a width other than N: no effect.
// - SetEqualities/SetInequalities with A.Rows() != b.Size(), or rows whose width isn't N: no effect.
// - IsVariable and IsBounded of an index outside 0..N-1: false (so IsConstant and IsUnbounded are
//   true). IsBounded also gives false when the stored inequality rows don't have N columns. Rows
//   with a right-hand side of +infinity are left out of its probe, one of -infinity makes the
//   system infeasible (bounded), and any other non-finite entry gives false.
// - BuildParamsFromFree with a z of other than F entries: N NaNs. The base Jacobian with such a z:
//   M x F NaNs, without calling Error().
// - errorFDDerivatives with an order outside 1..6, an index outside x, or a step that is 0 or not
//   finite: M NaNs, without calling Error(); x is left as it was.
// - GetFreeVariablesInequalities with stored rows of another width than K's rows: A (rows x F) and
//   b (rows) are all NaN, so that no constraint is silently dropped.
// - GetCovariance/GetCorrelation: M of 0 first gives all +infinity; then an x of other than N
//   entries, or a Jacobian that isn't M x F, gives an N x N matrix of NaN.
// - Covariance propagation through the kernel skips terms whose kernel coefficient is exactly 0, so
//   an infinite variance of an unrelated free variable doesn't turn a dependent entry into NaN.
// - getCovariance: a negative or NaN tolerance counts as 0. A weighted Jacobian with an entry that
//   isn't finite (a StdDev() entry of 0 or missing, a NaN derivative) gives an n x n matrix of NaN
//   and an empty `singular`, without factorising. When the factorisation is refused (no columns),
//   `singular` is emptied along with the result.
// - GetDCriterionValue without free variables: 1, the determinant of the empty matrix.

#include "datalayer/algorithms/numeric/tmatrix.h"
#include "datalayer/algorithms/numeric/tvector.h"

namespace DataLayer {

class CNLSObjectiveFunction
{
public:
    /// No constraints: K = (0 | I), freeVariables = 0, 1, ..., N - 1.
    CNLSObjectiveFunction(int numParams, int numMeasurements);
    CNLSObjectiveFunction(const CNLSObjectiveFunction& other) = default;
    CNLSObjectiveFunction& operator=(const CNLSObjectiveFunction& other) = default;
    virtual ~CNLSObjectiveFunction();

    /// The M residuals for the parameter vector x (N entries).
    virtual TVector<double> Error(const TVector<double>& x) = 0;
    /// M standard deviations of the measurements; the base class returns all 1.0.
    virtual TVector<double> StdDev();
    /// M x F derivatives of the residuals with respect to the free variables z. The base class uses
    /// order-4 finite differences with the absolute step 0.000123, displacing only the free
    /// parameter itself (parameters that depend on it through K keep their values). M of 0 gives
    /// a 0 x F matrix.
    virtual TMatrix<double> Jacobian(const TVector<double>& z);
    /// Stores n. For n of at least 1, K becomes n x (n + 1) with a unit basis in columns 1..n
    /// (column 0 keeps its content only when the shape doesn't change) and freeVariables 0..n-1;
    /// stored constraint rows stay. For n below 1 (or above INT_MAX) only the count changes.
    virtual void SetNumParams(unsigned int n);
    virtual int GetNumParams() const;
    virtual int GetNumMeasurements() const;
    /// Plain store.
    virtual void SetNumMeasurements(int m);

    /// Adds a . x = b. True when the equality is accepted: either stored and folded into K, or
    /// dependent on the stored ones and consistent with them (then nothing changes). False when it
    /// contradicts them or is malformed (see the header comment); nothing changes then.
    bool AddEquality(const TVector<double>& a, double b);
    /// Fixes x[index] = value, the equality with the unit vector of index.
    bool AddEquality(int index, double value);
    /// Appends the row a . x <= b (no redundancy or feasibility test).
    void AddInequality(const TVector<double>& a, double b);
    /// Appends -x[index] <= -value.
    void AddLowerBound(int index, double value);
    /// Appends x[index] <= value.
    void AddUpperBound(int index, double value);
    /// AddLowerBound, then AddUpperBound.
    void AddBounds(int index, double lower, double upper);
    /// Replaces the stored equality rows only: K and freeVariables stay as they are.
    void SetEqualities(const TMatrix<double>& A, const TVector<double>& b);
    /// Replaces the stored inequality rows.
    void SetInequalities(const TMatrix<double>& A, const TVector<double>& b);

    const TMatrix<double>& GetEqualitiesLHS() const { return equalitiesLHS; }
    const TVector<double>& GetEqualitiesRHS() const { return equalitiesRHS; }
    const TMatrix<double>& GetInequalitiesLHS() const { return inequalitiesLHS; }
    const TVector<double>& GetInequalitiesRHS() const { return inequalitiesRHS; }
    const TMatrix<double>& GetEqualityConstraintsKernel() const { return kernel; }
    const TVector<int>& GetFreeVariablesIndices() const { return freeVariables; }
    bool HasEqualities() const { return equalitiesRHS.Size() > 0; }
    bool HasInequalities() const { return inequalitiesRHS.Size() > 0; }

    /// x = K(:, 0) + K(:, 1..F) z; N NaNs when z doesn't have F entries.
    TVector<double> BuildParamsFromFree(const TVector<double>& z) const;
    /// The inequalities in terms of z: A z <= b with A = (LHS K)(:, 1..F), b = RHS - (LHS K)(:, 0).
    /// Without rows, copies of the empty fields.
    void GetFreeVariablesInequalities(TMatrix<double>& A, TVector<double>& b) const;
    /// True when x[index] follows some free variable (an entry of K's row in columns 1..F of at
    /// least 2.220446049250313e-15 in magnitude); false for a parameter that the equalities pin
    /// down, when K has no basis columns, and for an index out of range.
    bool IsVariable(int index) const;
    bool IsConstant(int index) const { return !IsVariable(index); }
    /// True when x[index] is constant or limited both ways by the inequality rows, probed with the
    /// linear program (which adds x >= 0, so a system that only negative values satisfy counts as
    /// bounded). Only the inequality rows enter the probe, not the equalities. False without
    /// inequality rows and for an index out of range.
    bool IsBounded(int index) const;
    bool IsUnbounded(int index) const { return !IsBounded(index); }

    /// N x N covariance at x: (J^T W J)^-1 in the free variables, W from StdDev(), propagated
    /// through K. Constant parameters have zero rows and columns; a rank-deficient direction reads
    /// +infinity. M of 0: all +infinity.
    TMatrix<double> GetCovariance(const TVector<double>& x, double tolerance);
    /// N x N: the covariance divided by s[i] s[j], s the square roots of its diagonal; entries of a
    /// constant parameter are 0/0, NaN.
    TMatrix<double> GetCorrelation(const TVector<double>& x, double tolerance);
    /// det(J^T J) at z, unweighted, via a Cholesky factor; 0 when J^T J isn't positive definite.
    double GetDCriterionValue(const TVector<double>& z);

protected:
    /// Appends the unit row of index: -1 and -value if lower, else +1 and value. Index outside
    /// 0..N-1: no effect.
    void addBound(int index, double value, bool lower);
    /// Finite difference of the residual vector in x[index] of the given order (1..6), divided by
    /// step; x is displaced and restored. Always M entries (NaN where Error() delivered none).
    TVector<double> errorFDDerivatives(TVector<double>& x, int index, double step, int order);
    /// (J^T W J)^-1 from a QR factorisation of W^(1/2) J without pivoting, n = J.Cols(); the inverse
    /// stops at the numerical rank (|R(k, k)| <= |R(0, 0)| * tolerance), and the columns from there
    /// on, listed in `singular`, read +infinity in their rows and columns. Empty when the
    /// factorisation is refused (no columns).
    TMatrix<double> getCovariance(TMatrix<double> J, TVector<int>& singular, double tolerance);

private:
    // The solver checks a system of equalities for consistency with the same elimination.
    friend class CNLSSolver;

    /// Gaussian elimination with complete pivoting of A x = r into the kernel form X (n x (q + 1)),
    /// in place on scratch copies. perm receives the pivot columns (ascending) followed by the free
    /// columns (ascending). False, with X empty, when the system is inconsistent.
    static bool reduceEqualities(TMatrix<double>& A, TVector<double>& r, int& rank, TMatrix<double>& X,
                                 TVector<int>& perm);
    bool inequalitiesMatchParams() const;
    void appendInequality(const TVector<double>& a, double b);

    int numParams;
    int numMeasurements;
    TMatrix<double> equalitiesLHS;
    TVector<double> equalitiesRHS;
    TMatrix<double> inequalitiesLHS;
    TVector<double> inequalitiesRHS;
    TMatrix<double> kernel;
    TVector<int> freeVariables;
};

} // namespace DataLayer
