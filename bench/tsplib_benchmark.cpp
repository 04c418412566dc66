// CTSPSolver on the TSPLIB EUC_2D instances beside the repository (VORN2_ANCHORS_DIR/tsplib), with
// TSPLIB's rounded distances: time per solve and the tour length over the published optimum
// (counter "len/opt"), for `starts` 1, 10 and n. starts = n runs on the instances up to 300 nodes,
// 1 and 10 up to 1100 nodes; the rest of the 78 instances would take minutes per solve with a dense
// best-improvement 2-opt. The distance matrix is built outside the timed loop; every iteration uses a
// fresh solver, so that all iterations solve the same problem.
//
// With VORN2_HAVE_PEERS, Boost Graph's metric_tsp_approx (preorder walk of a minimum spanning tree, a
// 2-approximation) runs on the same complete graph: a different, faster and coarser method, reported
// for orientation (its own "len/opt"), not as a like-for-like ratio.
#include <benchmark/benchmark.h>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "datalayer/algorithms/optimisation/ctspsolver.h"
#include "tools/vorn/tsplib/tsplibfile.h"

#ifdef VORN2_HAVE_PEERS
#include <boost/graph/adjacency_matrix.hpp>
#include <boost/graph/metric_tsp_approx.hpp>
#endif

namespace {

const std::string kDir = std::string(VORN2_ANCHORS_DIR) + "/tsplib";

struct Problem
{
    std::string name;
    int n = 0;
    double optimum = 0.0;
    TMatrix<double> distances;
};

std::vector<Problem>& problems()
{
    static std::vector<Problem> list = [] {
        std::vector<Problem> result;
        std::ifstream csv(kDir + "/optimal_tour_lengths.csv");
        std::string line;
        std::getline(csv, line);
        while (std::getline(csv, line)) {
            std::vector<std::string> fields;
            std::istringstream row(line);
            std::string field;
            while (std::getline(row, field, ','))
                fields.push_back(field);
            if (fields.size() < 4 || fields[2] != "EUC_2D" || std::stoi(fields[1]) > 1100)
                continue;
            Problem p;
            p.name = fields[0];
            p.n = std::stoi(fields[1]);
            p.optimum = std::stod(fields[3]);
            result.push_back(std::move(p));
        }
        return result;
    }();
    return list;
}

// Reads the instance on first use, so that filtered runs load only what they time. False, with the
// benchmark skipped, for a file the reader refuses (linhp318 has fixed edges, which the solver can't
// honour).
bool load(benchmark::State& state, Problem& p)
{
    try {
        if (p.distances.Rows() == 0)
            p.distances = tsplib::Distances(tsplib::ReadFile(kDir + "/" + p.name + ".tsp"), false);
        return true;
    } catch (const tsplib::TsplibError& e) {
        state.SkipWithError(e.what());
        return false;
    }
}

void solve(benchmark::State& state, Problem* problem, int starts)
{
    if (!load(state, *problem))
        return;
    const Problem& p = *problem;
    double length = 0.0;
    for (auto _ : state) {
        DataLayer::CTSPSolver solver;
        DataLayer::CPMatrix tour = solver.SolveTSP(p.distances, starts, length);
        benchmark::DoNotOptimize(tour.Data());
    }
    if (!(length >= p.optimum))
        state.SkipWithError("tour shorter than the optimum: wrong length");
    state.counters["len/opt"] = length / p.optimum;
    state.counters["n"] = p.n;
}

#ifdef VORN2_HAVE_PEERS
void boostApprox(benchmark::State& state, Problem* problem)
{
    using Graph = boost::adjacency_matrix<boost::undirectedS, boost::no_property,
                                          boost::property<boost::edge_weight_t, double>>;
    if (!load(state, *problem))
        return;
    const Problem& p = *problem;
    Graph g(static_cast<std::size_t>(p.n));
    for (int j = 0; j < p.n; ++j)
        for (int i = j + 1; i < p.n; ++i)
            boost::add_edge(static_cast<std::size_t>(i), static_cast<std::size_t>(j), p.distances(i, j), g);
    double length = 0.0;
    for (auto _ : state) {
        std::vector<std::size_t> tour;
        boost::metric_tsp_approx_tour(g, std::back_inserter(tour));
        length = 0.0;
        for (std::size_t k = 1; k < tour.size(); ++k) // the tour repeats its first node at the end
            length += p.distances(static_cast<int>(tour[k - 1]), static_cast<int>(tour[k]));
        benchmark::DoNotOptimize(tour.data());
    }
    state.counters["len/opt"] = length / p.optimum;
    state.counters["n"] = p.n;
}
#endif

const bool registered = [] {
    for (Problem& p : problems()) {
        std::vector<int> startCounts = {1, 10};
        if (p.n <= 300)
            startCounts.push_back(p.n);
        for (int starts : startCounts) {
            const std::string label = starts == p.n ? "n" : std::to_string(starts);
            benchmark::RegisterBenchmark(("BM_SolveTSP_" + p.name + "/starts:" + label).c_str(), solve, &p,
                                         starts)
                ->Unit(benchmark::kMillisecond);
        }
#ifdef VORN2_HAVE_PEERS
        benchmark::RegisterBenchmark(("BM_BoostMetricTspApprox_" + p.name).c_str(), boostApprox, &p)
            ->Unit(benchmark::kMillisecond);
#endif
    }
    return true;
}();

} // namespace
