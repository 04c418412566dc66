// Geometry and curves against their peers, each pair on the same input in the same run:
// symsolvers::Procrustes (quaternion eigenproblem) against Eigen::umeyama without scaling on 1,000
// noisy point pairs; CTrafo::Transform against Eigen::Affine3f on 10^6 points; CNaturalSpline
// evaluation against GSL's natural cubic spline at 10^6 random abscissae; Polynomial::Roots4
// against gsl_poly_complex_solve on a cycled pool of random quartics.
#include <algorithm>
#include <benchmark/benchmark.h>
#include <cmath>
#include <complex>
#include <random>
#include <vector>

#include "datalayer/algorithms/curves/cnaturalspline.h"
#include "datalayer/algorithms/curves/polynomial.h"
#include "datalayer/algorithms/geometry/ctrafo.h"
#include "datalayer/algorithms/geometry/symsolvers.h"

#ifdef VORN2_HAVE_PEERS
#include <Eigen/Geometry>
#include <gsl/gsl_poly.h>
#include <gsl/gsl_spline.h>
#endif

namespace {

using V3 = kdtree::Vector<3>;

// --- Procrustes ------------------------------------------------------------------------------------

struct PointPairs
{
    std::vector<double> from, to; // count triples each, also the layout of Eigen's Matrix3Xd
    int count = 0;
};

const PointPairs& Pairs()
{
    static const PointPairs pairs = [] {
        PointPairs p;
        p.count = 1000;
        std::mt19937_64 engine(47110815);
        std::uniform_real_distribution<double> u(-100.0, 100.0);
        std::normal_distribution<double> noise(0.0, 0.1);
        const DataLayer::Quaternion q = DataLayer::Quaternion::FromAxisAngle({1, 2, 3}, 0.8);
        for (int i = 0; i < p.count; ++i) {
            const std::array<double, 3> f = {u(engine), u(engine), u(engine)};
            const std::array<double, 3> r = q.Rotate(f);
            for (int c = 0; c < 3; ++c) {
                p.from.push_back(f[c]);
                p.to.push_back(r[c] + 10.0 * (c + 1) + noise(engine));
            }
        }
        return p;
    }();
    return pairs;
}

void BM_Procrustes_1000(benchmark::State& state)
{
    const PointPairs& p = Pairs();
    double q[4], r[3][3], t[3];
    for (auto _ : state) {
        const bool ok = DataLayer::symsolvers::Procrustes(p.from.data(), p.to.data(), nullptr, q, r, t,
                                                          static_cast<unsigned>(p.count));
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(t);
    }
    if (!(std::abs(t[0] - 10.0) < 0.1 && std::abs(t[2] - 30.0) < 0.1))
        state.SkipWithError("wrong translation");
}
BENCHMARK(BM_Procrustes_1000);

#ifdef VORN2_HAVE_PEERS
void BM_EigenUmeyama_1000(benchmark::State& state)
{
    const PointPairs& p = Pairs();
    const Eigen::Map<const Eigen::Matrix3Xd> from(p.from.data(), 3, p.count), to(p.to.data(), 3, p.count);
    Eigen::Matrix4d m;
    for (auto _ : state) {
        m = Eigen::umeyama(from, to, false);
        benchmark::DoNotOptimize(m.data());
    }
    if (!(std::abs(m(0, 3) - 10.0) < 0.1 && std::abs(m(2, 3) - 30.0) < 0.1))
        state.SkipWithError("wrong translation");
}
BENCHMARK(BM_EigenUmeyama_1000);
#endif

// --- Transform -------------------------------------------------------------------------------------

constexpr int kPoints = 1000000;

const std::vector<V3>& Points()
{
    static const std::vector<V3> points = [] {
        std::vector<V3> v;
        v.reserve(kPoints);
        std::mt19937_64 engine(47110815);
        std::uniform_real_distribution<float> u(-500.0f, 500.0f);
        for (int i = 0; i < kPoints; ++i)
            v.emplace_back(u(engine), u(engine), u(engine));
        return v;
    }();
    return points;
}

const DataLayer::CTrafo& Motion()
{
    static const DataLayer::CTrafo motion(V3(0.3f, -0.2f, 1.1f), V3(10.0f, -20.0f, 30.0f));
    return motion;
}

void BM_CTrafoTransform(benchmark::State& state)
{
    const std::vector<V3> in(Points().begin(), Points().begin() + state.range(0));
    std::vector<V3> out(in.size());
    const DataLayer::CTrafo t = Motion();
    for (auto _ : state) {
        for (size_t i = 0; i < in.size(); ++i)
            out[i] = t.Transform(in[i]);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(in.size()));
    const V3 check = t * in[17];
    if (!(out[17] == check))
        state.SkipWithError("mismatch");
}
BENCHMARK(BM_CTrafoTransform)->Arg(10000)->Arg(kPoints)->Unit(benchmark::kMicrosecond);

#ifdef VORN2_HAVE_PEERS
// Eigen's affine product over its point type P: Vector3f, or homogeneous Vector4f of 16 bytes like
// kdtree::Vector<3>.
template <class P> void eigenAffine3fTransform(benchmark::State& state)
{
    const std::vector<V3> points(Points().begin(), Points().begin() + state.range(0));
    std::vector<P> in(points.size()), out(points.size());
    for (size_t i = 0; i < points.size(); ++i) {
        if constexpr (P::RowsAtCompileTime == 4)
            in[i] = P(points[i][0], points[i][1], points[i][2], 1.0f);
        else
            in[i] = P(points[i][0], points[i][1], points[i][2]);
    }
    const DataLayer::CTrafo& t = Motion();
    Eigen::Affine3f a = Eigen::Affine3f::Identity();
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            a.matrix()(r, c) = t(static_cast<unsigned>(r), static_cast<unsigned>(c));
    for (auto _ : state) {
        for (size_t i = 0; i < in.size(); ++i)
            out[i] = a * in[i];
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(in.size()));
    const V3 check = t * points[17];
    if (!(std::abs(out[17][0] - check[0]) < 1e-3f))
        state.SkipWithError("mismatch");
}

void BM_EigenAffine3fTransform(benchmark::State& state)
{
    eigenAffine3fTransform<Eigen::Vector3f>(state);
}
BENCHMARK(BM_EigenAffine3fTransform)->Arg(10000)->Arg(kPoints)->Unit(benchmark::kMicrosecond);

void BM_EigenAffine3fTransformVector4f(benchmark::State& state)
{
    eigenAffine3fTransform<Eigen::Vector4f>(state);
}
BENCHMARK(BM_EigenAffine3fTransformVector4f)->Arg(10000)->Arg(kPoints)->Unit(benchmark::kMicrosecond);
#endif

// --- Spline ----------------------------------------------------------------------------------------

constexpr int kKnots = 256;

struct SplineInput
{
    std::vector<double> x, y, at;
};

const SplineInput& SplineData()
{
    static const SplineInput input = [] {
        SplineInput s;
        std::mt19937_64 engine(47110815);
        std::uniform_real_distribution<double> gap(0.1, 1.0), value(-1.0, 1.0);
        double x = 0;
        for (int i = 0; i < kKnots; ++i) {
            s.x.push_back(x);
            s.y.push_back(value(engine));
            x += gap(engine);
        }
        std::uniform_real_distribution<double> where(s.x.front(), s.x.back());
        for (int i = 0; i < kPoints; ++i)
            s.at.push_back(where(engine));
        return s;
    }();
    return input;
}

void BM_NaturalSplineEval_1M(benchmark::State& state)
{
    const SplineInput& s = SplineData();
    const DataLayer::CNaturalSpline spline(s.x.data(), s.y.data(), kKnots, 3);
    double sum = 0;
    for (auto _ : state) {
        sum = 0;
        for (double x : s.at)
            sum += spline.eval(x, 0);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.at.size()));
    state.counters["checksum"] = sum;
}
BENCHMARK(BM_NaturalSplineEval_1M)->Unit(benchmark::kMillisecond);

#ifdef VORN2_HAVE_PEERS
void BM_GslCsplineEval_1M(benchmark::State& state)
{
    const SplineInput& s = SplineData();
    gsl_interp_accel* acc = gsl_interp_accel_alloc();
    gsl_spline* spline = gsl_spline_alloc(gsl_interp_cspline, kKnots);
    gsl_spline_init(spline, s.x.data(), s.y.data(), kKnots);
    double sum = 0;
    for (auto _ : state) {
        sum = 0;
        for (double x : s.at)
            sum += gsl_spline_eval(spline, x, acc);
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.at.size()));
    state.counters["checksum"] = sum;
    gsl_spline_free(spline);
    gsl_interp_accel_free(acc);
}
BENCHMARK(BM_GslCsplineEval_1M)->Unit(benchmark::kMillisecond);
#endif

// --- Roots4 ----------------------------------------------------------------------------------------

constexpr int kQuartics = 1024;

const std::vector<double>& Quartics()
{
    static const std::vector<double> c = [] {
        std::vector<double> v;
        std::mt19937_64 engine(47110815);
        std::uniform_real_distribution<double> u(-1.0, 1.0), lead(0.5, 2.0);
        for (int k = 0; k < kQuartics; ++k) {
            v.push_back(lead(engine));
            for (int i = 0; i < 4; ++i)
                v.push_back(u(engine));
        }
        return v;
    }();
    return c;
}

void BM_Roots4(benchmark::State& state)
{
    const std::vector<double>& c = Quartics();
    std::vector<std::complex<double>> coefficients(c.begin(), c.end());
    std::complex<double> r[4];
    int k = 0;
    for (auto _ : state) {
        const bool ok = DataLayer::Polynomial::Roots4(&coefficients[5 * k], r);
        benchmark::DoNotOptimize(ok);
        benchmark::DoNotOptimize(r);
        k = (k + 1) % kQuartics;
    }
}
BENCHMARK(BM_Roots4);

#ifdef VORN2_HAVE_PEERS
void BM_GslPolyComplexSolve4(benchmark::State& state)
{
    const std::vector<double>& c = Quartics();
    std::vector<double> ascending(c.size());
    for (int k = 0; k < kQuartics; ++k)
        std::reverse_copy(c.begin() + 5 * k, c.begin() + 5 * k + 5, ascending.begin() + 5 * k);
    gsl_poly_complex_workspace* w = gsl_poly_complex_workspace_alloc(5);
    double z[8];
    int k = 0;
    for (auto _ : state) {
        const int status = gsl_poly_complex_solve(&ascending[5 * k], 5, w, z);
        benchmark::DoNotOptimize(status);
        benchmark::DoNotOptimize(z);
        k = (k + 1) % kQuartics;
    }
    gsl_poly_complex_workspace_free(w);
}
BENCHMARK(BM_GslPolyComplexSolve4);
#endif

} // namespace
