// Differential checks of the graph algorithms against the Boost Graph Library on seeded random
// graphs, and searches along a path of a million nodes (no recursion depth limit).
#include <algorithm>
#include <boost/graph/adjacency_list.hpp>
#include <boost/graph/bandwidth.hpp>
#include <boost/graph/biconnected_components.hpp>
#include <boost/graph/connected_components.hpp>
#include <boost/graph/cuthill_mckee_ordering.hpp>
#include <boost/graph/floyd_warshall_shortest.hpp>
#include <boost/graph/kruskal_min_spanning_tree.hpp>
#include <boost/graph/strong_components.hpp>
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <vector>

#include "datalayer/algorithms/graphs/cdigraph.h"
#include "graph_test_support.h"

using DataLayer::CDiGraph;
using DataLayer::TPermutation;

namespace {

using Directed = boost::adjacency_list<boost::vecS, boost::vecS, boost::directedS>;
using Undirected = boost::adjacency_list<boost::vecS, boost::vecS, boost::undirectedS>;

Directed ToBoost(const CDiGraph& g)
{
    Directed b(g.nodes());
    for (int u = 0; u < g.nodes(); ++u)
        for (const CDiGraph::Edge& e : g.edges(u))
            boost::add_edge(u, e.to, b);
    return b;
}

/// The undirected simple graph underneath (no self-loops, each pair once).
Undirected ToBoostUndirected(const CDiGraph& g)
{
    Undirected b(g.nodes());
    std::set<std::pair<int, int>> seen;
    for (int u = 0; u < g.nodes(); ++u)
        for (const CDiGraph::Edge& e : g.edges(u))
            if (e.to != u && seen.insert({std::min(u, e.to), std::max(u, e.to)}).second)
                boost::add_edge(u, e.to, b);
    return b;
}

/// True when the two labellings define the same partition.
bool SamePartition(const std::vector<int>& a, const std::vector<int>& b)
{
    std::map<int, int> ab, ba;
    for (std::size_t i = 0; i < a.size(); ++i) {
        // Each label on one side always meets the same label on the other, both ways.
        if (ab.emplace(a[i], b[i]).first->second != b[i] || ba.emplace(b[i], a[i]).first->second != a[i])
            return false;
    }
    return true;
}

class CDiGraphVsBoost : public ::testing::TestWithParam<int>
{
protected:
    std::mt19937 engine{static_cast<unsigned>(47110815 + GetParam())};
};

TEST_P(CDiGraphVsBoost, StrongAndWeakComponents)
{
    ASSERT_FALSE(SamePartition({0, 0, 1}, {5, 6, 6})); // the comparison itself tells partitions apart
    ASSERT_TRUE(SamePartition({0, 0, 1}, {6, 6, 5}));
    CDiGraph g = graphtest::RandomGraph(engine, 300, 330 + 20 * GetParam());
    const Directed b = ToBoost(g);
    std::vector<int> boostScc(300);
    const int boostCount = boost::strong_components(
        b, boost::make_iterator_property_map(boostScc.begin(), get(boost::vertex_index, b)));
    CDiGraph dag = g.make_SCC_DAG(nullptr);
    ASSERT_EQ(dag.nodes(), boostCount);
    std::vector<int> ours(300);
    for (int c = 0; c < dag.nodes(); ++c)
        for (int m : dag[c].data.as<std::vector<int>>())
            ours[m] = c;
    EXPECT_TRUE(SamePartition(ours, boostScc));

    const Undirected u = ToBoostUndirected(g);
    std::vector<int> boostCc(300);
    const int ccCount = boost::connected_components(u, &boostCc[0]);
    const DataLayer::CDisjointSets cc = g.find_CCs();
    ASSERT_EQ(static_cast<int>(cc.GetNumClasses()), ccCount);
    std::vector<int> ourCc(300);
    for (int i = 0; i < 300; ++i)
        ourCc[i] = static_cast<int>(cc.GetClassRep(i));
    EXPECT_TRUE(SamePartition(ourCc, boostCc));
}

TEST_P(CDiGraphVsBoost, ArticulationPointsAndBridges)
{
    const CDiGraph g = graphtest::RandomGraph(engine, 200, 170 + 10 * GetParam());
    Undirected u = ToBoostUndirected(g);
    std::vector<std::size_t> points;
    boost::articulation_points(u, std::back_inserter(points));
    std::sort(points.begin(), points.end());
    const std::vector<int> ours = g.find_articulation_nodes();
    EXPECT_EQ(std::vector<std::size_t>(ours.begin(), ours.end()), points);

    // A bridge is a biconnected component of exactly one edge.
    std::map<Undirected::edge_descriptor, std::size_t> componentOf;
    auto componentMap = boost::make_assoc_property_map(componentOf);
    const std::size_t count = boost::biconnected_components(u, componentMap);
    std::vector<int> size(count, 0);
    for (auto [it, end] = boost::edges(u); it != end; ++it)
        ++size[componentOf[*it]];
    std::set<std::pair<int, int>> boostBridges, ourBridges;
    for (auto [it, end] = boost::edges(u); it != end; ++it)
        if (size[componentOf[*it]] == 1) {
            const int a = static_cast<int>(boost::source(*it, u)),
                      b = static_cast<int>(boost::target(*it, u));
            boostBridges.insert({std::min(a, b), std::max(a, b)});
        }
    for (const auto& [a, b] : g.find_bridges(false)) {
        EXPECT_TRUE(ourBridges.insert({std::min(a, b), std::max(a, b)}).second) << "bridge listed twice";
    }
    EXPECT_EQ(ourBridges, boostBridges);
    // Oriented: every pair is an edge of the graph, each bridge contributes its existing directions.
    std::size_t oriented = 0;
    for (const auto& [a, b] : ourBridges)
        oriented += g.exists(a, b) + g.exists(b, a);
    const auto directed = g.find_bridges(true);
    EXPECT_EQ(directed.size(), oriented);
    for (const auto& [a, b] : directed) {
        EXPECT_TRUE(g.exists(a, b));
    }
}

TEST_P(CDiGraphVsBoost, FloydWarshallDistances)
{
    const int n = 60;
    CDiGraph g = graphtest::RandomGraph(engine, n, 240);
    std::uniform_real_distribution<float> w(0.1f, 10.0f);
    using Weighted = boost::adjacency_list<boost::vecS, boost::vecS, boost::directedS, boost::no_property,
                                           boost::property<boost::edge_weight_t, float>>;
    Weighted b(n);
    for (int u = 0; u < n; ++u)
        for (CDiGraph::Edge& e : g.edges(u)) {
            e.data = w(engine);
            boost::add_edge(u, e.to, e.data.as<float>(), b);
        }
    std::vector<std::vector<float>> d(n, std::vector<float>(n));
    ASSERT_TRUE(boost::floyd_warshall_all_pairs_shortest_paths(b, d));
    const CDiGraph::APSP_data ours = g.APSP([](const CDiGraph::Edge& e) { return e.data.as<float>(); });
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            if (i == j)
                continue; // Boost puts 0 on the diagonal, this library the cheapest cycle
            const float expected = d[i][j];
            const float actual = ours.dist[i * n + j];
            if (expected >=
                std::numeric_limits<float>::max()) // Boost marks "unreachable" by the largest float
                ASSERT_TRUE(std::isinf(actual)) << i << " -> " << j;
            else
                ASSERT_NEAR(actual, expected, 1e-5f * expected)
                    << i << " -> " << j; // float sums in another order
        }
}

TEST_P(CDiGraphVsBoost, KruskalTotalWeight)
{
    const int n = 250;
    CDiGraph g = graphtest::RandomGraph(engine, n, 600);
    // A symmetric integer-valued weight, so that ties are exact and the total is order-free.
    const auto weight = [](int a, int b) {
        return static_cast<double>((std::min(a, b) * 31 + std::max(a, b) * 17) % 97);
    };
    using Weighted = boost::adjacency_list<boost::vecS, boost::vecS, boost::undirectedS, boost::no_property,
                                           boost::property<boost::edge_weight_t, double>>;
    Weighted b(n);
    for (int u = 0; u < n; ++u)
        for (const CDiGraph::Edge& e : g.edges(u))
            if (e.to != u)
                boost::add_edge(u, e.to, weight(u, e.to), b);
    std::vector<Weighted::edge_descriptor> tree;
    boost::kruskal_minimum_spanning_tree(b, std::back_inserter(tree));
    double boostTotal = 0.0;
    for (const auto& e : tree)
        boostTotal += get(boost::edge_weight, b, e);
    const CDiGraph forest = g.MST(weight);
    double total = 0.0;
    for (int u = 0; u < n; ++u)
        for (const CDiGraph::Edge& e : forest.edges(u)) {
            EXPECT_TRUE(g.exists(u, e.to));
            total += weight(u, e.to);
        }
    EXPECT_EQ(forest.edges(), static_cast<int>(tree.size()));
    EXPECT_EQ(total, boostTotal);
}

TEST_P(CDiGraphVsBoost, BandwidthNextToCuthillMcKee)
{
    const int n = 400;
    CDiGraph g = graphtest::RandomGraph(engine, n, 500);
    const TPermutation<int> p = g.bandwidth_reduction(false, false);
    std::vector<char> seen(n, 0);
    for (int k = 0; k < n; ++k) {
        ASSERT_FALSE(seen[p[k]]);
        seen[p[k]] = 1;
    }
    const Undirected u = ToBoostUndirected(g);
    std::vector<std::size_t> cm(n);
    boost::cuthill_mckee_ordering(u, cm.begin());
    std::vector<std::size_t> position(n);
    for (int k = 0; k < n; ++k)
        position[cm[k]] = k;
    std::size_t boostBand = 0;
    for (auto [it, end] = boost::edges(u); it != end; ++it) {
        const std::size_t a = position[boost::source(*it, u)], b = position[boost::target(*it, u)];
        boostBand = std::max(boostBand, a > b ? a - b : b - a);
    }
    const int ours = graphtest::Bandwidth(g, p);
    RecordProperty("bandwidth", ours);
    RecordProperty("cuthill_mckee_bandwidth", static_cast<int>(boostBand));
    std::printf("bandwidth: ours %d, Cuthill-McKee %zu, identity %d\n", ours, boostBand,
                graphtest::Bandwidth(g, TPermutation<int>(n)));
    EXPECT_LT(ours, n);
}

INSTANTIATE_TEST_SUITE_P(Seeds, CDiGraphVsBoost, ::testing::Range(0, 5));

TEST(CDiGraphDeepPaths, MillionNodePathNeedsNoRecursion)
{
    const int n = 1000000;
    CDiGraph g(n);
    for (int i = 0; i + 1 < n; ++i)
        g.edge(i, i + 1);

    TPermutation<int> finished(n);
    g.DFS(TPermutation<int>(), finished);
    EXPECT_EQ(finished[0], n - 1);
    EXPECT_EQ(finished[n - 1], 0);
    EXPECT_EQ(g[n - 1].distance, n);
    EXPECT_EQ(g[n - 1].finish, n + 1);
    EXPECT_EQ(g[0].finish, 2 * n);
    EXPECT_EQ(g[n - 1].pred, n - 2);

    auto it = g.dfs(0);
    EXPECT_EQ(it.count(), n);
    EXPECT_EQ(it.current(), 0);
    ++it;
    EXPECT_EQ(it.current(), 1);

    TPermutation<int> order(n);
    EXPECT_TRUE(g.topological_sort(order, false));
    EXPECT_EQ(order[0], 0);
    EXPECT_EQ(order[n - 1], n - 1);

    g.edge(n - 1, 0); // close the ring: one strongly connected component
    CDiGraph ringDag = g.make_SCC_DAG(nullptr);
    ASSERT_EQ(ringDag.nodes(), 1);
    EXPECT_EQ(ringDag[0].data.as<std::vector<int>>().size(), static_cast<std::size_t>(n));
    g.erase(n - 1, 0);
    CDiGraph transposed = g.get_transposed();
    EXPECT_EQ(g.make_SCC_DAG(&transposed).nodes(), n);

    const std::vector<int> cut = g.find_articulation_nodes();
    ASSERT_EQ(cut.size(), static_cast<std::size_t>(n - 2));
    EXPECT_EQ(cut.front(), 1);
    EXPECT_EQ(cut.back(), n - 2);
    const auto bridges = g.find_bridges(false);
    ASSERT_EQ(bridges.size(), static_cast<std::size_t>(n - 1));
    EXPECT_EQ(bridges.front(), std::make_pair(n - 2, n - 1)); // deepest completes first
    EXPECT_EQ(bridges.back(), std::make_pair(0, 1));
}

} // namespace
