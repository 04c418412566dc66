// Least-squares solves of the sizes the optimisers use (6 unknowns, square or 60 equations):
// lapack::lssolve (xGELSS, per-call workspace) against Eigen's SVD solvers on the same inputs.
// lssolve destroys its A, so every contender copies A from a prepared pool inside the timed loop.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <cstddef>
#include <deque>
#include <random>
#include <vector>

#include "datalayer/algorithms/numeric/lapack.h"
#include "datalayer/algorithms/numeric/tmatrix.h"
#include "datalayer/algorithms/numeric/tvector.h"

#ifdef VORN2_HAVE_PEERS
#include <Eigen/Dense>
#include <Eigen/SVD>
#endif

namespace {

constexpr int kPoolSize = 64; // cycled, so that one cached matrix doesn't flatter the result

struct Problems
{
    int m = 0;
    int n = 0;
    std::vector<TMatrix<double>> a;
    std::vector<TVector<double>> b;
};

const Problems& ProblemsOf(int m, int n)
{
    static std::deque<Problems> cache; // a deque keeps earlier entries in place
    for (const Problems& p : cache)
        if (p.m == m && p.n == n)
            return p;
    Problems p;
    p.m = m;
    p.n = n;
    std::mt19937_64 engine(47110815);
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    for (int k = 0; k < kPoolSize; ++k) {
        TMatrix<double> a(m, n);
        TVector<double> b(m);
        for (int c = 0; c < n; ++c)
            for (int r = 0; r < m; ++r)
                a(r, c) = uniform(engine);
        for (int r = 0; r < m; ++r)
            b[r] = uniform(engine);
        p.a.push_back(a);
        p.b.push_back(b);
    }
    cache.push_back(std::move(p));
    return cache.back();
}

/// Largest entry of A^T (A x - b): zero at a least-squares solution.
double NormalEquationResidual(const TMatrix<double>& a, const TVector<double>& b, const double* x)
{
    double worst = 0;
    std::vector<double> r(static_cast<std::size_t>(a.Rows()));
    for (int i = 0; i < a.Rows(); ++i) {
        r[i] = -b[i];
        for (int j = 0; j < a.Cols(); ++j)
            r[i] += a(i, j) * x[j];
    }
    for (int j = 0; j < a.Cols(); ++j) {
        double g = 0;
        for (int i = 0; i < a.Rows(); ++i)
            g += a(i, j) * r[i];
        worst = std::max(worst, std::abs(g));
    }
    return worst;
}

void CheckSolution(benchmark::State& state, const Problems& p, int k, const double* x)
{
    if (!(NormalEquationResidual(p.a[k], p.b[k], x) < 1e-10))
        state.SkipWithError("solution does not satisfy the normal equations");
}

template <int M, int N> void BM_lssolve(benchmark::State& state)
{
    const Problems& p = ProblemsOf(M, N);
    int k = 0;
    double cond = 0;
    for (auto _ : state) {
        TMatrix<double> a(p.a[k]);
        TVector<double> x(N);
        const bool ok = DataLayer::lapack::lssolve(a, p.b[k], x, &cond);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(x.Data());
        k = (k + 1) % kPoolSize;
    }
    TMatrix<double> a(p.a[0]);
    TVector<double> x(N);
    if (!DataLayer::lapack::lssolve(a, p.b[0], x, &cond))
        state.SkipWithError("lssolve failed");
    CheckSolution(state, p, 0, x.Data());
}

#ifdef VORN2_HAVE_PEERS

struct EigenProblems
{
    std::vector<Eigen::MatrixXd> a;
    std::vector<Eigen::VectorXd> b;
};

EigenProblems EigenCopyOf(const Problems& p)
{
    EigenProblems e;
    for (int k = 0; k < kPoolSize; ++k) {
        e.a.emplace_back(Eigen::Map<const Eigen::MatrixXd>(p.a[k].Data(), p.m, p.n));
        e.b.emplace_back(Eigen::Map<const Eigen::VectorXd>(p.b[k].Data(), p.m));
    }
    return e;
}

template <typename Svd, int M, int N> void BM_EigenSvdSolve(benchmark::State& state)
{
    const Problems& p = ProblemsOf(M, N);
    const EigenProblems e = EigenCopyOf(p);
    int k = 0;
    for (auto _ : state) {
        Eigen::MatrixXd a = e.a[k];
        Eigen::VectorXd x = Svd(a, Eigen::ComputeThinU | Eigen::ComputeThinV).solve(e.b[k]);
        benchmark::DoNotOptimize(x.data());
        k = (k + 1) % kPoolSize;
    }
    const Eigen::VectorXd x = Svd(e.a[0], Eigen::ComputeThinU | Eigen::ComputeThinV).solve(e.b[0]);
    CheckSolution(state, p, 0, x.data());
}

#endif

} // namespace

BENCHMARK(BM_lssolve<6, 6>)->Name("BM_lssolve_6x6");
BENCHMARK(BM_lssolve<60, 6>)->Name("BM_lssolve_60x6");
#ifdef VORN2_HAVE_PEERS
BENCHMARK(BM_EigenSvdSolve<Eigen::JacobiSVD<Eigen::MatrixXd>, 6, 6>)->Name("BM_EigenJacobiSvdSolve_6x6");
BENCHMARK(BM_EigenSvdSolve<Eigen::JacobiSVD<Eigen::MatrixXd>, 60, 6>)->Name("BM_EigenJacobiSvdSolve_60x6");
BENCHMARK(BM_EigenSvdSolve<Eigen::BDCSVD<Eigen::MatrixXd>, 6, 6>)->Name("BM_EigenBdcSvdSolve_6x6");
BENCHMARK(BM_EigenSvdSolve<Eigen::BDCSVD<Eigen::MatrixXd>, 60, 6>)->Name("BM_EigenBdcSvdSolve_60x6");
#endif
