// Timing of the directed graph's algorithms against the Boost Graph Library on the same inputs:
// strongly connected components of a random graph with 10^6 edges, articulation points and bridges
// of a sparse random graph, Floyd-Warshall on 400 nodes, Kruskal on 10^6 edges, and the bandwidth
// ordering of a 1000 x 1000 grid next to Boost's reverse Cuthill-McKee (with both bandwidths as
// counters). Graphs are built once outside the timed loops; each Boost peer gets the same edges in
// the same order in an adjacency_list with vecS storage.

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <utility>
#include <vector>

#include "datalayer/algorithms/graphs/cdigraph.h"

#ifdef VORN2_HAVE_PEERS
#include <boost/graph/adjacency_list.hpp>
#include <boost/graph/biconnected_components.hpp>
#include <boost/graph/cuthill_mckee_ordering.hpp>
#include <boost/graph/floyd_warshall_shortest.hpp>
#include <boost/graph/kruskal_min_spanning_tree.hpp>
#include <boost/graph/strong_components.hpp>
#endif

using DataLayer::CDiGraph;

namespace {

using EdgeList = std::vector<std::pair<int, int>>;

/// m distinct random edges without self-loops on n nodes, in generation order; with simple set, no
/// pair is linked in both directions (so that the undirected peer graph has no parallel edges).
EdgeList RandomEdges(int n, int m, unsigned seed, bool simple = false)
{
    std::mt19937 engine(seed);
    CDiGraph seen(n);
    EdgeList edges;
    edges.reserve(m);
    while (static_cast<int>(edges.size()) < m) {
        const int u = static_cast<int>(engine() % n), v = static_cast<int>(engine() % n);
        const CDiGraph& known = seen;
        if (u == v || known.exists(u, v) || (simple && known.exists(v, u)))
            continue;
        seen.edge(u, v);
        edges.emplace_back(u, v);
    }
    return edges;
}

CDiGraph Build(int n, const EdgeList& edges)
{
    CDiGraph g(n);
    for (const auto& [u, v] : edges)
        g.edge(u, v);
    return g;
}

/// A symmetric pseudo-random weight of an unordered pair, the same for both libraries.
double PairWeight(int a, int b)
{
    std::uint64_t z =
        (static_cast<std::uint64_t>(std::min(a, b)) << 32) ^ static_cast<std::uint64_t>(std::max(a, b));
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return static_cast<double>((z ^ (z >> 31)) % 1000000) * 1e-3;
}

constexpr int kSccNodes = 250000, kSccEdges = 1000000;
constexpr int kCutNodes = 500000, kCutEdges = 600000;
constexpr int kApspNodes = 400, kApspEdges = 4000;
constexpr int kMstNodes = 250000, kMstEdges = 1000000;
constexpr int kGridSide = 1000;

const EdgeList& SccEdges()
{
    static const EdgeList e = RandomEdges(kSccNodes, kSccEdges, 1);
    return e;
}
const EdgeList& CutEdges()
{
    static const EdgeList e = RandomEdges(kCutNodes, kCutEdges, 2, true);
    return e;
}
const EdgeList& ApspEdges()
{
    static const EdgeList e = RandomEdges(kApspNodes, kApspEdges, 3);
    return e;
}
const EdgeList& MstEdges()
{
    static const EdgeList e = RandomEdges(kMstNodes, kMstEdges, 4, true);
    return e;
}
const EdgeList& GridEdges()
{
    static const EdgeList e = [] {
        EdgeList edges;
        for (int y = 0; y < kGridSide; ++y)
            for (int x = 0; x < kGridSide; ++x) {
                const int u = y * kGridSide + x;
                if (x + 1 < kGridSide)
                    edges.emplace_back(u, u + 1);
                if (y + 1 < kGridSide)
                    edges.emplace_back(u, u + kGridSide);
            }
        return edges;
    }();
    return e;
}

int BandwidthOf(const EdgeList& edges, const std::vector<int>& position)
{
    int band = 0;
    for (const auto& [u, v] : edges)
        band = std::max(band, std::abs(position[u] - position[v]));
    return band;
}

// --- this library -----------------------------------------------------------------------------------

void BM_SCC_Vorn2(benchmark::State& state)
{
    CDiGraph g = Build(kSccNodes, SccEdges());
    int count = 0;
    for (auto _ : state) {
        CDiGraph dag = g.make_SCC_DAG(nullptr);
        count = dag.nodes();
        benchmark::DoNotOptimize(count);
    }
    state.counters["components"] = count;
}
BENCHMARK(BM_SCC_Vorn2)->Unit(benchmark::kMillisecond);

void BM_ArticulationPoints_Vorn2(benchmark::State& state)
{
    const CDiGraph g = Build(kCutNodes, CutEdges());
    std::size_t count = 0;
    for (auto _ : state) {
        const std::vector<int> points = g.find_articulation_nodes();
        count = points.size();
        benchmark::DoNotOptimize(count);
    }
    state.counters["points"] = static_cast<double>(count);
}
BENCHMARK(BM_ArticulationPoints_Vorn2)->Unit(benchmark::kMillisecond);

void BM_Bridges_Vorn2(benchmark::State& state)
{
    const CDiGraph g = Build(kCutNodes, CutEdges());
    std::size_t count = 0;
    for (auto _ : state) {
        const auto bridges = g.find_bridges(false);
        count = bridges.size();
        benchmark::DoNotOptimize(count);
    }
    state.counters["bridges"] = static_cast<double>(count);
}
BENCHMARK(BM_Bridges_Vorn2)->Unit(benchmark::kMillisecond);

void BM_APSP_Vorn2(benchmark::State& state)
{
    CDiGraph g = Build(kApspNodes, ApspEdges());
    for (int u = 0; u < g.nodes(); ++u)
        for (CDiGraph::Edge& e : g.edges(u))
            e.data = static_cast<float>(PairWeight(u, e.to));
    const auto weight = [](const CDiGraph::Edge& e) { return e.data.as<float>(); };
    double checksum = 0.0;
    for (auto _ : state) {
        const CDiGraph::APSP_data d = g.APSP(weight);
        checksum = d.dist[kApspNodes + 7];
        benchmark::DoNotOptimize(checksum);
    }
    state.counters["dist_1_7"] = checksum;
}
BENCHMARK(BM_APSP_Vorn2)->Unit(benchmark::kMillisecond);

void BM_MST_Vorn2(benchmark::State& state)
{
    CDiGraph g = Build(kMstNodes, MstEdges());
    double total = 0.0;
    for (auto _ : state) {
        const CDiGraph forest = g.MST(PairWeight);
        total = 0.0;
        for (int u = 0; u < forest.nodes(); ++u)
            for (const CDiGraph::Edge& e : forest.edges(u))
                total += PairWeight(u, e.to);
        benchmark::DoNotOptimize(total);
    }
    state.counters["weight"] = total;
}
BENCHMARK(BM_MST_Vorn2)->Unit(benchmark::kMillisecond);

void BM_BandwidthReduction_Vorn2(benchmark::State& state)
{
    CDiGraph g = Build(kGridSide * kGridSide, GridEdges());
    std::vector<int> position(g.nodes());
    for (auto _ : state) {
        const DataLayer::TPermutation<int> p = g.bandwidth_reduction(true, false);
        benchmark::DoNotOptimize(p.Data());
        for (int i = 0; i < g.nodes(); ++i)
            position[i] = p[i];
    }
    state.counters["bandwidth"] = BandwidthOf(GridEdges(), position);
}
BENCHMARK(BM_BandwidthReduction_Vorn2)->Unit(benchmark::kMillisecond);

#ifdef VORN2_HAVE_PEERS
// --- Boost Graph ------------------------------------------------------------------------------------

using BoostDirected = boost::adjacency_list<boost::vecS, boost::vecS, boost::directedS>;
using BoostUndirected = boost::adjacency_list<boost::vecS, boost::vecS, boost::undirectedS>;

template <typename G> G BoostBuild(int n, const EdgeList& edges)
{
    G g(n);
    for (const auto& [u, v] : edges)
        boost::add_edge(u, v, g);
    return g;
}

void BM_SCC_Boost(benchmark::State& state)
{
    const BoostDirected g = BoostBuild<BoostDirected>(kSccNodes, SccEdges());
    std::vector<int> component(kSccNodes);
    int count = 0;
    for (auto _ : state) {
        count = boost::strong_components(
            g, boost::make_iterator_property_map(component.begin(), get(boost::vertex_index, g)));
        benchmark::DoNotOptimize(count);
    }
    state.counters["components"] = count;
}
BENCHMARK(BM_SCC_Boost)->Unit(benchmark::kMillisecond);

void BM_ArticulationPoints_Boost(benchmark::State& state)
{
    // The library's search walks both edge directions, so Boost gets the undirected graph.
    const BoostUndirected g = BoostBuild<BoostUndirected>(kCutNodes, CutEdges());
    std::vector<std::size_t> points;
    for (auto _ : state) {
        points.clear();
        boost::articulation_points(g, std::back_inserter(points));
        benchmark::DoNotOptimize(points.data());
    }
    state.counters["points"] = static_cast<double>(points.size());
}
BENCHMARK(BM_ArticulationPoints_Boost)->Unit(benchmark::kMillisecond);

void BM_Bridges_Boost(benchmark::State& state)
{
    // Boost has no bridge search of its own: biconnected components, then the one-edge components.
    using Undirected = boost::adjacency_list<boost::vecS, boost::vecS, boost::undirectedS, boost::no_property,
                                             boost::property<boost::edge_index_t, std::size_t>>;
    Undirected g(kCutNodes);
    std::size_t index = 0;
    for (const auto& [u, v] : CutEdges())
        boost::add_edge(u, v, index++, g);
    std::vector<std::size_t> component(index);
    auto componentMap = boost::make_iterator_property_map(component.begin(), get(boost::edge_index, g));
    std::size_t bridges = 0;
    for (auto _ : state) {
        const std::size_t count = boost::biconnected_components(g, componentMap);
        std::vector<int> size(count, 0);
        for (std::size_t c : component)
            ++size[c];
        bridges = 0;
        for (std::size_t c : component)
            bridges += size[c] == 1;
        benchmark::DoNotOptimize(bridges);
    }
    state.counters["bridges"] = static_cast<double>(bridges);
}
BENCHMARK(BM_Bridges_Boost)->Unit(benchmark::kMillisecond);

void BM_APSP_Boost(benchmark::State& state)
{
    using Weighted = boost::adjacency_list<boost::vecS, boost::vecS, boost::directedS, boost::no_property,
                                           boost::property<boost::edge_weight_t, float>>;
    Weighted g(kApspNodes);
    for (const auto& [u, v] : ApspEdges())
        boost::add_edge(u, v, static_cast<float>(PairWeight(u, v)), g);
    std::vector<std::vector<float>> d(kApspNodes, std::vector<float>(kApspNodes));
    for (auto _ : state) {
        boost::floyd_warshall_all_pairs_shortest_paths(g, d);
        benchmark::DoNotOptimize(d[1][7]);
    }
    state.counters["dist_1_7"] = d[1][7];
}
BENCHMARK(BM_APSP_Boost)->Unit(benchmark::kMillisecond);

void BM_MST_Boost(benchmark::State& state)
{
    using Weighted = boost::adjacency_list<boost::vecS, boost::vecS, boost::undirectedS, boost::no_property,
                                           boost::property<boost::edge_weight_t, double>>;
    Weighted g(kMstNodes);
    for (const auto& [u, v] : MstEdges())
        boost::add_edge(u, v, PairWeight(u, v), g);
    std::vector<Weighted::edge_descriptor> tree;
    double total = 0.0;
    for (auto _ : state) {
        tree.clear();
        boost::kruskal_minimum_spanning_tree(g, std::back_inserter(tree));
        total = 0.0;
        for (const auto& e : tree)
            total += get(boost::edge_weight, g, e);
        benchmark::DoNotOptimize(total);
    }
    state.counters["weight"] = total;
}
BENCHMARK(BM_MST_Boost)->Unit(benchmark::kMillisecond);

void BM_BandwidthReduction_BoostCuthillMcKee(benchmark::State& state)
{
    const BoostUndirected g = BoostBuild<BoostUndirected>(kGridSide * kGridSide, GridEdges());
    const int n = kGridSide * kGridSide;
    std::vector<std::size_t> order(n);
    for (auto _ : state) {
        boost::cuthill_mckee_ordering(g, order.rbegin()); // reverse Cuthill-McKee
        benchmark::DoNotOptimize(order.data());
    }
    std::vector<int> position(n);
    for (int k = 0; k < n; ++k)
        position[order[k]] = k;
    state.counters["bandwidth"] = BandwidthOf(GridEdges(), position);
}
BENCHMARK(BM_BandwidthReduction_BoostCuthillMcKee)->Unit(benchmark::kMillisecond);
#endif

} // namespace
