#include "datalayer/algorithms/optimisation/cdoptimaldesign.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "core/base/vorn2_debug.h"
#include "datalayer/algorithms/numeric/lapack.h"

namespace DataLayer {

namespace {

constexpr std::uint_fast64_t kSeed = 47110815;

/// Squared product of the diagonal of a Cholesky factor: the determinant of the factored matrix.
double factorDeterminant(const TMatrix<double>& R)
{
    double product = 1.0;
    for (int k = 0; k < R.Rows(); ++k)
        product *= R(k, k);
    return product * product;
}

/// det(X^T X) of the given rows (row-major p-vectors in rowsT), or 0 when it isn't positive definite.
double designDeterminant(const std::vector<double>& rowsT, int p, const std::vector<int>& rows)
{
    TMatrix<double> A(p, p);
    for (int i : rows) {
        const double* x = rowsT.data() + static_cast<std::size_t>(i) * p;
        for (int c = 0; c < p; ++c)
            for (int r = 0; r < p; ++r)
                A(r, c) += x[r] * x[c];
    }
    return cholesky(A) ? factorDeterminant(A) : 0.0;
}

} // namespace

CDOptimalDesign::CDOptimalDesign(const TMatrix<double>& candidates, int numChoose)
    : m_candidates(candidates), m_numChoose(numChoose), m_engine(kSeed)
{
}

bool CDOptimalDesign::canSearch() const
{
    const int N = m_candidates.Rows();
    const int p = m_candidates.Cols();
    if (p < 1 || N < 1 || m_numChoose < 1 || m_numChoose > N || m_numChoose < p)
        return false;
    const double* data = m_candidates.Data();
    const long long count = static_cast<long long>(N) * p;
    for (long long k = 0; k < count; ++k)
        if (!std::isfinite(data[k]))
            return false;
    return true;
}

TVector<int> CDOptimalDesign::FindOptimalDesign(int numStarts, double& bestDeterminant) const
{
    TVector<int> result;
    double best = 0.0;
    const int N = m_candidates.Rows();
    if (numStarts >= 1 && canSearch()) {
        if (m_numChoose == N) {
            // Nothing can be exchanged: the one design is all candidates.
            const TMatrix<double> rowsT = m_candidates.Transposed();
            std::vector<double> flat(rowsT.Data(), rowsT.Data() + static_cast<std::size_t>(N) * rowsT.Rows());
            std::vector<int> all(static_cast<std::size_t>(N));
            for (int i = 0; i < N; ++i)
                all[static_cast<std::size_t>(i)] = i;
            best = designDeterminant(flat, m_candidates.Cols(), all);
            if (best > 0.0) {
                result.Resize(N);
                for (int i = 0; i < N; ++i)
                    result[i] = i;
            }
        } else {
            const long long uncountedLimit =
                m_ciUncountedStartsBase + m_ciUncountedStartsPerStart * numStarts;
            long long uncounted = 0;
            int counted = 0;
            TVector<int> fallback;
            double fallbackDeterminant = 0.0;
            while (counted < numStarts && uncounted < uncountedLimit) {
                TVector<int> choice = generateRandomChoice();
                double start = 0.0;
                double stop = 0.0;
                const int iterations = optimizeChoice(choice, start, stop, 1e-5);
                if (iterations == 0) {
                    ++uncounted;
                    // A regular start that no exchange improves: kept only for a search that ends by
                    // the bound without any counted start.
                    if (stop > fallbackDeterminant) {
                        fallbackDeterminant = stop;
                        fallback = choice;
                    }
                    continue;
                }
                vorn2_debug_printf("(NLS OED) #iters=%i: det start=%g, det stop=%g\n", iterations, start,
                                   stop);
                if (stop > best) {
                    best = stop;
                    result = choice;
                }
                ++counted;
            }
            if (counted == 0) {
                best = fallbackDeterminant;
                result = fallback;
            }
        }
    }
    bestDeterminant = best;
    vorn2_debug_printf("(NLS OED) det best=%g\n", best);
    std::sort(result.Data(), result.Data() + result.Size());
    return result;
}

TVector<int> CDOptimalDesign::generateRandomChoice() const
{
    const int N = m_candidates.Rows();
    std::vector<int> order(static_cast<std::size_t>(std::max(N, 0)));
    for (int i = 0; i < N; ++i)
        order[static_cast<std::size_t>(i)] = i;
    for (int i = 0; i + 1 < N; ++i) {
        const double u = std::generate_canonical<double, 53>(m_engine);
        int j = i + static_cast<int>(std::floor(u * (N - i)));
        if (j >= N) // u may round to 1 in some library versions
            j = N - 1;
        std::swap(order[static_cast<std::size_t>(i)], order[static_cast<std::size_t>(j)]);
    }
    const int n = std::clamp(m_numChoose, 0, std::max(N, 0));
    TVector<int> choice(n);
    for (int k = 0; k < n; ++k)
        choice[k] = order[static_cast<std::size_t>(k)];
    return choice;
}

double CDOptimalDesign::fedorovDelta(const TMatrix<double>& inverse, const TVector<double>& removed,
                                     const TVector<double>& added) const
{
    const TVector<double> Va = inverse * added;
    const TVector<double> Vr = inverse * removed;
    const double da = Dot(added, Va);
    const double dr = Dot(removed, Vr);
    const double dar = Dot(removed, Va);
    return da - dr + dar * dar - da * dr;
}

int CDOptimalDesign::optimizeChoice(TVector<int>& choice, double& startDeterminant, double& stopDeterminant,
                                    const double& threshold) const
{
    const int N = m_candidates.Rows();
    const int p = m_candidates.Cols();
    const std::size_t P = static_cast<std::size_t>(p);

    // The candidate rows, hoisted once into contiguous p-vectors.
    const TMatrix<double> transposed = m_candidates.Transposed();
    const double* rows = transposed.Data();
    auto row = [&](int i) { return rows + static_cast<std::size_t>(i) * P; };

    std::vector<char> inDesign(static_cast<std::size_t>(N), 0);
    TMatrix<double> A(p, p);
    for (int k = 0; k < choice.Size(); ++k) {
        const int i = choice[k];
        inDesign[static_cast<std::size_t>(i)] = 1;
        const double* x = row(i);
        for (int c = 0; c < p; ++c)
            for (int r = 0; r < p; ++r)
                A(r, c) += x[r] * x[c];
    }
    if (!cholesky(A))
        return 0;
    TMatrix<double> V;
    choleskyInverse(A, V);
    double det = factorDeterminant(A);
    startDeterminant = det;
    int iterations = 0;
    const int maxExchanges = m_ciExchangesPerCandidate * N + 100;

    std::vector<double> W(static_cast<std::size_t>(N) * P); // W_i = V x_i
    std::vector<double> d(static_cast<std::size_t>(N));     // d_i = x_i^T V x_i
    std::vector<int> inside;
    std::vector<int> outside;
    std::vector<double> u(P);
    for (;;) {
        inside.clear();
        outside.clear();
        for (int i = 0; i < N; ++i)
            (inDesign[static_cast<std::size_t>(i)] ? inside : outside).push_back(i);
        const double* v = V.Data();
        for (int i = 0; i < N; ++i) {
            const double* x = row(i);
            double* w = W.data() + static_cast<std::size_t>(i) * P;
            std::fill(w, w + p, 0.0);
            for (int c = 0; c < p; ++c) {
                const double xc = x[c];
                const double* col = v + static_cast<std::size_t>(c) * P;
                for (int r = 0; r < p; ++r)
                    w[r] += col[r] * xc;
            }
            double s = 0.0;
            for (int r = 0; r < p; ++r)
                s += x[r] * w[r];
            d[static_cast<std::size_t>(i)] = s;
        }

        double bestDelta = -std::numeric_limits<double>::infinity();
        int bestIn = -1;
        int bestOut = -1;
        for (int i : outside) {
            const double* wa = W.data() + static_cast<std::size_t>(i) * P;
            const double da = d[static_cast<std::size_t>(i)];
            for (int j : inside) {
                const double* xr = row(j);
                double dar = 0.0;
                for (int r = 0; r < p; ++r)
                    dar += wa[r] * xr[r];
                const double dr = d[static_cast<std::size_t>(j)];
                const double delta = da - dr + dar * dar - da * dr;
                if (delta > bestDelta) {
                    bestDelta = delta;
                    bestIn = i;
                    bestOut = j;
                }
            }
        }
        if (!(bestDelta >= threshold) || iterations >= maxExchanges)
            break;

        // Add candidate bestIn: V -= u u^T / (1 + a^T V a), u = V a.
        const double* wa = W.data() + static_cast<std::size_t>(bestIn) * P;
        const double addScale = 1.0 / (1.0 + d[static_cast<std::size_t>(bestIn)]);
        double* vm = V.Data();
        for (int c = 0; c < p; ++c)
            for (int r = 0; r < p; ++r)
                vm[static_cast<std::size_t>(c) * P + r] -= addScale * wa[r] * wa[c];
        // Remove candidate bestOut with the updated V: V += u u^T / (1 - r^T V r), u = V r.
        const double* xr = row(bestOut);
        std::fill(u.begin(), u.end(), 0.0);
        for (int c = 0; c < p; ++c)
            for (int r = 0; r < p; ++r)
                u[static_cast<std::size_t>(r)] += vm[static_cast<std::size_t>(c) * P + r] * xr[c];
        double rVr = 0.0;
        for (int r = 0; r < p; ++r)
            rVr += xr[r] * u[static_cast<std::size_t>(r)];
        const double removeScale = 1.0 / (1.0 - rVr);
        for (int c = 0; c < p; ++c)
            for (int r = 0; r < p; ++r)
                vm[static_cast<std::size_t>(c) * P + r] +=
                    removeScale * u[static_cast<std::size_t>(r)] * u[static_cast<std::size_t>(c)];

        det *= 1.0 + bestDelta;
        inDesign[static_cast<std::size_t>(bestIn)] = 1;
        inDesign[static_cast<std::size_t>(bestOut)] = 0;
        ++iterations;
    }

    stopDeterminant = det;
    int k = 0;
    for (int i = 0; i < N; ++i)
        if (inDesign[static_cast<std::size_t>(i)])
            choice[k++] = i;
    return iterations;
}

} // namespace DataLayer
