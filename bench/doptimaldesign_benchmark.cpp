// CDOptimalDesign on response-surface problems of the size a calibration plan has: the full quadratic
// model in two variables (1, x, y, x^2, xy, y^2; p = 6) over a 21 x 21 grid of candidate settings
// (N = 441), and the full quadratic in three variables (p = 10) over an 11^3 grid (N = 1331). Each
// iteration uses a fresh object, so that all iterations do the same search. The search writes its
// "(NLS OED)" lines to stderr; run with 2>/dev/null. No other library offers Fedorov's exchange, so
// there is no peer; the counter "det" is the determinant reached.
#include <benchmark/benchmark.h>

#include "datalayer/algorithms/optimisation/cdoptimaldesign.h"

namespace {

TMatrix<double> quadraticGrid(int dims, int steps)
{
    int count = 1;
    for (int d = 0; d < dims; ++d)
        count *= steps;
    const int p = (dims + 1) * (dims + 2) / 2;
    TMatrix<double> candidates(count, p);
    for (int row = 0; row < count; ++row) {
        double v[3] = {0.0, 0.0, 0.0};
        for (int d = 0, rest = row; d < dims; ++d, rest /= steps)
            v[d] = -1.0 + 2.0 * (rest % steps) / (steps - 1);
        int c = 0;
        candidates(row, c++) = 1.0;
        for (int d = 0; d < dims; ++d)
            candidates(row, c++) = v[d];
        for (int d = 0; d < dims; ++d)
            for (int e = d; e < dims; ++e)
                candidates(row, c++) = v[d] * v[e];
    }
    return candidates;
}

void BM_FindOptimalDesign(benchmark::State& state)
{
    const TMatrix<double> candidates =
        quadraticGrid(static_cast<int>(state.range(0)), static_cast<int>(state.range(1)));
    const int numChoose = static_cast<int>(state.range(2));
    double determinant = 0.0;
    for (auto _ : state) {
        const DataLayer::CDOptimalDesign design(candidates, numChoose);
        TVector<int> chosen = design.FindOptimalDesign(10, determinant);
        benchmark::DoNotOptimize(chosen.Data());
    }
    if (!(determinant > 0.0))
        state.SkipWithError("no regular design found");
    state.counters["det"] = determinant;
}
BENCHMARK(BM_FindOptimalDesign)
    ->ArgNames({"dims", "steps", "n"})
    ->Args({2, 21, 12})
    ->Args({3, 11, 20})
    ->Unit(benchmark::kMillisecond);

} // namespace
