#pragma once
// DataLayer::CLPSolver: a small dense linear program solved by the simplex method on a full
// tableau: maximise c^T x subject to A x <= b and x >= 0 (the non-negativity is built in).
// Programs have tens of rows and columns; the tableau is updated densely on every pivot.
//
// Ownership: copies the problem at construction. One object serves one Run(): the run works on the
// tableau in place. Threads: one object per thread, no shared state.
//
// The pivot rule takes the first nonbasic variable (in the order of the nonbasic array) whose reduced
// cost is above exact zero, and the first row of the smallest ratio. Phase one adds one auxiliary
// variable that enters in the row of the smallest b, whenever that smallest b is not above 0.
//
// Decisions where the behaviour was open:
// - Termination: the rule is deterministic, so a repeated basis state (basic and nonbasic arrays in
//   order) means an endless cycle. Each simplex loop records the states it has visited; on the first
//   repeat it continues with Bland's rule (smallest entering number; among the rows of minimal ratio
//   the one whose basic variable has the smallest number). A program on which the first rule never
//   revisits a state gets exactly its result.
// - A loop that still runs after 50 * (m + n) + 1000 pivots under Bland's rule (only conceivable by
//   rounding) stops with status LPPivoting: Run() returns false, solution and slack are empty.
// - An auxiliary variable left basic at value 0 after phase one is pivoted out of its row first: the
//   nonbasic non-auxiliary column with the largest |tableau(row, j)| enters (first among equals).
//   Should that row hold only exact zeros (rounding only), the program is reported LPInfeasible.
// - Bad input: b or c of the wrong size, or a non-finite entry in A, b or c: Run() returns false and
//   the status stays LPNotRun; solution and slack are empty.
// - A without rows is the program max c^T x over x >= 0: LPOptimal at x = 0 when no c is positive,
//   otherwise LPUnbounded.
// - Zeros of the solution and the slack are returned as +0.0.
// - The pivot skips the update of a column whose pivot-row entry is exactly 0.0; for finite tableau
//   entries x - (0 * y) / p equals x, so this changes no value (at most the sign of a zero, which no
//   comparison of the solver sees and the results never show).

#include "datalayer/algorithms/numeric/tmatrix.h"
#include "datalayer/algorithms/numeric/tvector.h"

namespace DataLayer {

class CLPSolver
{
public:
    enum LPStatusType
    {
        LPNotRun = -2,
        LPInfeasible = -1,
        LPPivoting = 0,
        LPOptimal = 1,
        LPUnbounded = 2
    };

    /// Copies the problem: the tableau is (A I), c is padded with A.Rows() zeros. b must have
    /// A.Rows() entries and c A.Cols(); otherwise (or with a non-finite entry) Run() refuses.
    CLPSolver(const TMatrix<double>& A, const TVector<double>& b, const TVector<double>& c);
    /// Deep copies of all state, the index arrays included.
    CLPSolver(const CLPSolver& other);
    /// Deep copy; self-assignment leaves the object as it is.
    CLPSolver& operator=(const CLPSolver& other);
    ~CLPSolver();

    /// Phase one and the pivot loop; true when the status is LPOptimal or LPUnbounded. False means
    /// LPInfeasible, LPNotRun for a malformed problem, or LPPivoting when the pivot cap was reached.
    bool Run();
    LPStatusType GetStatus() const { return status; }
    /// The n structural values (optimal), n times +infinity (unbounded), else empty. unique, if not
    /// null, is false when another optimum exists (a nonbasic reduced cost below 1e-6 in magnitude).
    TVector<double> GetSolution(bool* unique) const;
    /// The m slack values (optimal), m times +infinity (unbounded), else empty.
    TVector<double> GetSlack() const;

private:
    TVector<double> getBasicSolution() const;
    bool initializeSimplex();
    void pivot(int leaving, int entering);
    LPStatusType selectPivot(int& leaving, int& entering, TVector<double>& ratios);
    LPStatusType selectPivotBland(int& leaving, int& entering, TVector<double>& ratios);
    bool driveOutAuxiliary();
    void simplex(bool initialize);

    int m;
    int n;
    int* nonbasic;
    int* basic;
    TMatrix<double> tableau;
    TVector<double> b;
    TVector<double> c;
    LPStatusType status;
    /// Entries allocated for nonbasic: one more than the structural count, for phase one.
    int nonbasicCapacity;
    /// False when b or c do not fit A, or an entry is not finite.
    bool wellFormed;
};

} // namespace DataLayer
