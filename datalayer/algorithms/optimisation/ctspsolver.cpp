#include "datalayer/algorithms/optimisation/ctspsolver.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

namespace DataLayer {

namespace {

constexpr std::uint_fast64_t kSeed = 47110518;
constexpr double kInfinity = std::numeric_limits<double>::infinity();

bool isSymmetric(const TMatrix<double>& D)
{
    const int n = D.Rows();
    for (int c = 0; c < n; ++c)
        for (int r = c + 1; r < n; ++r)
            if (!(D(r, c) == D(c, r)) && !(std::isnan(D(r, c)) && std::isnan(D(c, r))))
                return false;
    return true;
}

double tourLength(const TMatrix<double>& D, const int* t, int n)
{
    if (n < 1)
        return 0.0;
    double length = D(t[n - 1], t[0]);
    for (int i = 1; i < n; ++i)
        length += D(t[i - 1], t[i]);
    return length;
}

} // namespace

CTSPSolver::CTSPSolver() : m_engine(kSeed) {}

CPMatrix CTSPSolver::SolveTSP(const TMatrix<double>& distances, int starts, double& length)
{
    length = kInfinity;
    const int n = distances.Rows();
    if (n < 1 || distances.Cols() != n)
        return CPMatrix();

    // One shuffle serves all attempts, so that their start nodes differ.
    std::vector<int> order(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        order[static_cast<std::size_t>(i)] = i;
    for (int i = 0; i + 1 < n; ++i) {
        const double u = std::generate_canonical<double, 53>(m_engine);
        int j = i + static_cast<int>(std::floor(u * (n - i)));
        if (j >= n) // u may round to 1 in some library versions
            j = n - 1;
        std::swap(order[static_cast<std::size_t>(i)], order[static_cast<std::size_t>(j)]);
    }

    const int attempts = std::min(starts, n);
    if (attempts < 1)
        return CPMatrix();
    TMatrix<double> transposedCopy;
    const bool symmetric = isSymmetric(distances);
    if (!symmetric)
        transposedCopy = distances.Transposed();
    const TMatrix<double>& transposed = symmetric ? distances : transposedCopy;

    double best = kInfinity;
    CPMatrix bestTour;
    for (int k = 0; k < attempts; ++k) {
        CPMatrix tour = greedySearch(distances, order[static_cast<std::size_t>(k)]);
        double l = 0.0;
        exchange2Opt(distances, transposed, tour, l);
        if (k == 0 || best > l) {
            best = l;
            bestTour = std::move(tour);
        }
    }
    length = best;
    return bestTour;
}

CPMatrix CTSPSolver::SolveHPP(const TMatrix<double>& distances, int starts, double& length)
{
    length = kInfinity;
    const int n = distances.Rows();
    if (n < 1 || distances.Cols() != n)
        return CPMatrix();
    TMatrix<double> extended(n + 1, n + 1);
    for (int c = 0; c < n; ++c)
        std::copy(distances.Data() + static_cast<std::size_t>(c) * n,
                  distances.Data() + static_cast<std::size_t>(c + 1) * n,
                  extended.Data() + static_cast<std::size_t>(c) * (n + 1));
    const CPMatrix tour = SolveTSP(extended, starts, length);
    if (tour.Size() != n + 1)
        return CPMatrix();
    int p = 0;
    while (tour[p] != n)
        ++p;
    CPMatrix path(n);
    for (int i = 0; i < n; ++i)
        path[i] = tour[(p + 1 + i) % (n + 1)];
    return path;
}

TMatrix<double> CTSPSolver::computeDistances(const TMatrix<double>& points)
{
    const int r = points.Rows();
    const int dims = points.Cols();
    TMatrix<double> result(r, r);
    for (int j = 0; j < r; ++j)
        for (int i = j + 1; i < r; ++i) {
            double sum = 0.0;
            for (int c = 0; c < dims; ++c) {
                const double diff = points(i, c) - points(j, c);
                sum += diff * diff;
            }
            const double distance = std::sqrt(sum);
            result(i, j) = distance;
            result(j, i) = distance;
        }
    return result;
}

CPMatrix CTSPSolver::greedySearch(const TMatrix<double>& distances, int start) const
{
    const int n = distances.Rows();
    CPMatrix tour(n);
    tour[0] = start;
    if (n < 2)
        return tour;
    // The nodes not yet visited, ascending, so that the scan meets the lowest number first.
    std::vector<int> remaining;
    remaining.reserve(static_cast<std::size_t>(n - 1));
    for (int i = 0; i < n; ++i)
        if (i != start)
            remaining.push_back(i);
    int cur = start;
    for (int position = 1; position < n; ++position) {
        const double* column = distances.Data() + static_cast<std::size_t>(cur) * n; // D(j, cur)
        double nearest = kInfinity;
        std::size_t chosen = 0;
        const std::size_t count = remaining.size();
        for (std::size_t k = 0; k < count; ++k) {
            const double value = column[remaining[k]];
            if (value < nearest) {
                nearest = value;
                chosen = k;
            }
        }
        cur = remaining[chosen];
        remaining.erase(remaining.begin() + static_cast<std::ptrdiff_t>(chosen));
        tour[position] = cur;
    }
    return tour;
}

CPMatrix CTSPSolver::exchange2Opt(const TMatrix<double>& distances, const TMatrix<double>& transposed,
                                  CPMatrix& tour, double& length) const
{
    // Best-improvement 2-opt: each sweep applies the one exchange (i, k) of smallest gain below 0, the
    // first in (i, k) order among equals. Instead of rescanning all pairs after each exchange, the
    // best of every row i is kept and only the entries that the reversal of t[I..K-1] changed are
    // recomputed: rows I..K whole (their a or b moved), the columns k in I..K of rows below I, and
    // nothing of the rows above K (t[n - 1] never moves). Every gain is computed from the same four
    // distances as in a full sweep, so the chosen exchanges are exactly those of full sweeps.
    const int n = tour.Size();
    int* t = tour.Data();
    if (n >= 3) {
        const int rows = distances.Rows();
        const double* dt = transposed.Data();
        const std::size_t N = static_cast<std::size_t>(n);
        std::vector<double> edge(N);    // edge[k] = D(t[k-1], t[k])
        std::vector<double> rowBest(N); // per row i: smallest gain below 0 (or 0), and its k (or -1)
        std::vector<int> rowK(N);
        // Smallest gain of row i over k in [from, to], the lowest k among equals; none: (0, -1).
        auto scan = [&](int i, int from, int to, double& best, int& bestK) {
            const int a = i == 0 ? t[n - 1] : t[i - 1];
            const int b = t[i];
            const double dab = distances(a, b);
            // D(a, x) = D^T(x, a) and D(b, x) = D^T(x, b): two contiguous columns.
            const double* fromA = dt + static_cast<std::size_t>(a) * rows;
            const double* fromB = dt + static_cast<std::size_t>(b) * rows;
            best = 0.0;
            bestK = -1;
            for (int k = from; k <= to; ++k) {
                const double delta =
                    (fromA[t[k - 1]] + fromB[t[k]]) - (dab + edge[static_cast<std::size_t>(k)]);
                if (best > delta) {
                    best = delta;
                    bestK = k;
                }
            }
        };
        for (int k = 1; k < n; ++k)
            edge[static_cast<std::size_t>(k)] = distances(t[k - 1], t[k]);
        for (int i = 0; i <= n - 3; ++i)
            scan(i, i + 2, n - 1, rowBest[static_cast<std::size_t>(i)], rowK[static_cast<std::size_t>(i)]);

        // For a symmetric D every applied exchange shortens the tour, so the sweeps end by themselves.
        // For a non-symmetric one the gain is not the true change and could cycle: cap the sweeps.
        const bool symmetric = &transposed == &distances;
        const long long maxSweeps = symmetric ? -1 : 10LL * n + 100;
        for (long long sweep = 0; maxSweeps < 0 || sweep < maxSweeps; ++sweep) {
            double bestDelta = 0.0;
            int bestI = -1;
            for (int i = 0; i <= n - 3; ++i)
                if (bestDelta > rowBest[static_cast<std::size_t>(i)]) {
                    bestDelta = rowBest[static_cast<std::size_t>(i)];
                    bestI = i;
                }
            if (!(bestDelta < 0.0))
                break;
            const int I = bestI;
            const int K = rowK[static_cast<std::size_t>(I)];
            std::reverse(t + I, t + K);

            for (int k = std::max(I, 1); k <= K; ++k)
                edge[static_cast<std::size_t>(k)] = distances(t[k - 1], t[k]);
            for (int i = 0; i <= std::min(K, n - 3); ++i) {
                double& best = rowBest[static_cast<std::size_t>(i)];
                int& bestK = rowK[static_cast<std::size_t>(i)];
                if (i >= I || (bestK >= I && bestK <= K)) {
                    scan(i, i + 2, n - 1, best, bestK);
                    continue;
                }
                const int from = std::max(I, i + 2);
                if (from > K)
                    continue;
                double partBest = 0.0;
                int partK = -1;
                scan(i, from, K, partBest, partK);
                if (partK >= 0 && (partBest < best || (partBest == best && partK < bestK))) {
                    best = partBest;
                    bestK = partK;
                }
            }
        }
    }
    length = tourLength(distances, t, n);
    return tour;
}

} // namespace DataLayer
