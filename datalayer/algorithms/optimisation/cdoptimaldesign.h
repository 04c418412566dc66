#pragma once
// DataLayer::CDOptimalDesign: chooses, from N candidate measurements (the rows of an N x p model
// matrix), the n rows whose information matrix X^T X has the largest determinant (D-optimal design).
// Fedorov's exchange from random starts: each step swaps the one pair (candidate in, candidate out)
// that raises the determinant most, until no swap gains at least 1e-5 in the relative factor; the best
// of several random starts is returned.
//
// Ownership: copies the candidate matrix at construction; the caller's matrix is never touched.
// Threads: the random engine advances on every search, also through the const members, so one object
// serves one thread at a time. Each counted start and each search's best are written to the shared
// debug output ("(NLS OED) ..." lines), whatever the log settings.
//
// Decisions where the behaviour was open, each pinned by a test:
// - A start that needs no exchange or whose information matrix is singular does not count. Such
//   starts are bounded: a search gives up after m_ciUncountedStartsBase + m_ciUncountedStartsPerStart
//   * numStarts (1000 + 100 * numStarts) of them. If by then no start has counted, the result is the
//   best regular uncounted start (a design that no single exchange improves), or empty with
//   determinant 0 when every start was singular. A search that ends normally returns the best
//   counted start only.
// - Input that can never give a regular design is refused before any draw: numChoose below 1, above
//   N or below p, no columns, or a candidate entry that isn't finite. The result is empty, the
//   determinant 0, and only the "det best" line is written.
// - numChoose == N leaves no exchange: the design of all candidates is returned with its
//   determinant (empty and 0 if it is singular), without drawing numbers.
// - One start applies at most m_ciExchangesPerCandidate * N + 100 exchanges (rounding in the carried
//   inverse could otherwise, in principle, cycle); a start that reaches the cap stops there as if
//   converged. Every exchange multiplies the determinant by at least 1 + 1e-5, so real searches stop
//   long before.
// - The pair search computes V x once per candidate and step, so that each pair costs one dot
//   product; rounding may differ in the last bits from evaluating a^T V r directly.

#include <random>

#include "datalayer/algorithms/numeric/tmatrix.h"
#include "datalayer/algorithms/numeric/tvector.h"

namespace DataLayer {

class CDOptimalDesign
{
public:
    /// Copies candidates (N x p, row i the model row of candidate i); n = numChoose rows are chosen.
    CDOptimalDesign(const TMatrix<double>& candidates, int numChoose);
    /// Copies everything, the engine state included: a copy draws the same numbers as its source.
    CDOptimalDesign(const CDOptimalDesign& other) = default;
    CDOptimalDesign& operator=(const CDOptimalDesign& other) = default;

    /// Best design of numStarts counted random starts: the chosen candidate numbers in ascending
    /// order, and det(X^T X) of those rows (as carried through the exchanges) in bestDeterminant.
    /// numStarts below 1, or input that can't give a regular design: empty, determinant 0.
    TVector<int> FindOptimalDesign(int numStarts, double& bestDeterminant) const;

    static constexpr long long m_ciUncountedStartsBase = 1000;
    static constexpr long long m_ciUncountedStartsPerStart = 100;
    static constexpr int m_ciExchangesPerCandidate = 10;

private:
    /// n distinct random candidate numbers: the first n of a Fisher-Yates shuffle of 0..N-1.
    TVector<int> generateRandomChoice() const;
    /// Fedorov exchanges on choice until no pair gains threshold; returns the number of exchanges
    /// (0 also for a singular start, which leaves both determinants unset). On return choice holds
    /// the design in ascending order.
    int optimizeChoice(TVector<int>& choice, double& startDeterminant, double& stopDeterminant,
                       const double& threshold) const;
    /// delta = da - dr + dar^2 - da dr with da = a^T V a, dr = r^T V r, dar = a^T V r: the swap
    /// multiplies the determinant by 1 + delta.
    double fedorovDelta(const TMatrix<double>& inverse, const TVector<double>& removed,
                        const TVector<double>& added) const;
    /// Whether the candidates and numChoose can give a regular design at all.
    bool canSearch() const;

    TMatrix<double> m_candidates;
    int m_numChoose = 0;
    mutable std::mt19937_64 m_engine;
};

} // namespace DataLayer
