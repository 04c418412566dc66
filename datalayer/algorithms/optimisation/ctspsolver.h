#pragma once
// DataLayer::CTSPSolver: short closed tours (travelling salesman) and short open paths (Hamiltonian
// path) through nodes given by a square distance matrix D, D(a, b) the cost of the edge a -> b. A
// heuristic: nearest-neighbour tours from distinct random start nodes, each improved by 2-opt that
// applies the best exchange of every sweep; the shortest wins. Tours come as a CPMatrix whose entry
// k is the node visited k-th. D is expected symmetric; its diagonal is not read (except for the
// length of a one-node tour, D(0, 0)).
//
// Ownership: the solver owns only its random engine (seeded with 47110518); it keeps nothing of the
// caller's matrices. Threads: SolveTSP and SolveHPP advance the engine, so one object serves one
// thread at a time. Nothing throws but allocation, nothing logs.
//
// Decisions where the behaviour was open, each pinned by a test:
// - starts above the number of nodes counts as the number of nodes: every node is a start once.
// - starts below 1: empty tour, length +infinity (the shuffle still advances the engine).
// - An empty or non-square matrix: empty result, length +infinity, and the engine is not used.
// - The first attempt's tour is always kept, later ones replace it only when strictly shorter; so a
//   matrix with infinite or NaN distances still yields a permutation (its length then is +infinity
//   or NaN).
// - Nearest neighbour: when no remaining node is at a distance below +infinity (or all distances
//   are NaN), the lowest-numbered remaining node is taken, so a tour is always a permutation.
// - The 2-opt gain is evaluated as (D(a, c) + D(b, d)) - (D(a, b) + D(c, d)). Rounding is monotone,
//   so a negative computed gain means a truly shorter tour: the sweeps end even with real-valued
//   near-ties (with integer distances this is exactly the plain difference).
// - A non-symmetric D is read exactly as described (D(a, c) for the edge from a to c) through one
//   transposed copy; a symmetric D is read in place. As the 2-opt gain ignores the direction of the
//   reversed stretch, sweeps on a non-symmetric D could cycle; they are capped at 10 n + 100 per
//   attempt.

#include <random>

#include "datalayer/algorithms/numeric/cpmatrix.h"
#include "datalayer/algorithms/numeric/tmatrix.h"

namespace DataLayer {

class CTSPSolver
{
public:
    /// Seeds the engine with 47110518.
    CTSPSolver();
    CTSPSolver(const CTSPSolver& other) = default;
    CTSPSolver(CTSPSolver&& other) = default;
    /// Both assignments copy the engine state.
    CTSPSolver& operator=(const CTSPSolver& other) = default;
    CTSPSolver& operator=(CTSPSolver&& other) = default;

    /// Best closed tour of min(starts, n) attempts from distinct start nodes; length receives its
    /// length (sum of D(tour[k-1], tour[k]) plus the closing edge). Empty and +infinity as above.
    CPMatrix SolveTSP(const TMatrix<double>& distances, int starts, double& length);

    /// Best open path: a closed tour through one added node at distance 0 from all others, cut at that
    /// node. The path has n entries, each node once; length is the sum of its n - 1 edges. starts
    /// counts up to n + 1 (the added node may start too); empty and +infinity as for SolveTSP.
    CPMatrix SolveHPP(const TMatrix<double>& distances, int starts, double& length);

    /// The r x r Euclidean distance matrix of the r rows of points (any dimension); zero with fewer
    /// than two rows.
    static TMatrix<double> computeDistances(const TMatrix<double>& points);

private:
    /// Nearest-neighbour tour from start; reads column cur of D for the distances D(j, cur).
    CPMatrix greedySearch(const TMatrix<double>& distances, int start) const;
    /// Best-improvement 2-opt on the closed tour, in place; length gets the recomputed length.
    /// transposed is D^T for a non-symmetric D, or D itself when D is symmetric.
    CPMatrix exchange2Opt(const TMatrix<double>& distances, const TMatrix<double>& transposed, CPMatrix& tour,
                          double& length) const;

    std::mt19937_64 m_engine;
};

} // namespace DataLayer
