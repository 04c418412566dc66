#pragma once
// DataLayer::CLPSolver: a small dense linear program solved by the simplex method on a full
// tableau: maximise c^T x subject to A x <= b and x >= 0 (the non-negativity is built in).
// Programs have tens of rows and columns; the tableau is updated densely on every pivot.
//
// Ownership: copies the problem at construction. One object serves one Run(): the run works on the
// tableau in place. Threads: one object per thread, no shared state.

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

    /// Copies the problem: the tableau is (A I), c is padded with A.Rows() zeros. A needs a row.
    CLPSolver(const TMatrix<double>& A, const TVector<double>& b, const TVector<double>& c);
    CLPSolver(const CLPSolver& other);
    CLPSolver& operator=(const CLPSolver& other);
    ~CLPSolver();

    /// Phase one and the pivot loop; true when the status is LPOptimal or LPUnbounded.
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
    void simplex(bool initialize);

    int m;
    int n;
    int* nonbasic;
    int* basic;
    TMatrix<double> tableau;
    TVector<double> b;
    TVector<double> c;
    LPStatusType status;
};

} // namespace DataLayer
