// Traversals, orders, layering, components, cut nodes, bridges, shortest paths, spanning forest and
// colouring of the directed graph: worked examples, invariants and step-for-step agreement with the
// recursive formulation.
#include <cmath>
#include <gtest/gtest.h>
#include <limits>
#include <numeric>
#include <random>
#include <set>
#include <vector>

#include "datalayer/algorithms/graphs/cdigraph.h"
#include "graph_test_support.h"

using DataLayer::CDiGraph;
using DataLayer::CDisjointSets;
using DataLayer::TPermutation;

namespace {

std::vector<int> Walk(CDiGraph::bfs_iterator it)
{
    std::vector<int> order;
    for (; !it.at_end(); ++it)
        order.push_back(it->id);
    return order;
}

bool IsPermutation(const TPermutation<int>& p, int n)
{
    if (p.Size() != n)
        return false;
    std::vector<char> seen(n, 0);
    for (int i = 0; i < n; ++i) {
        if (p[i] < 0 || p[i] >= n || seen[p[i]])
            return false;
        seen[p[i]] = 1;
    }
    return true;
}

TEST(CDiGraphTraversal, FrontierWalkTakesTheNewestNodeFirst)
{
    CDiGraph g(4);
    g.edge(0, 1);
    g.edge(0, 2);
    g.edge(1, 3);
    g.edge(2, 3);
    EXPECT_EQ(Walk(g.bfs(0)), (std::vector<int>{0, 2, 3, 1}));
    EXPECT_EQ(g[3].distance, 2);
    EXPECT_EQ(g[3].pred, 2);
    EXPECT_EQ(g[0].pred, CDiGraph::NULL_PRED);
    EXPECT_EQ(g[1].color, CDiGraph::eBlack);
}

TEST(CDiGraphTraversal, DistanceIsTheDepthInTheDiscoveryTree)
{
    // x (4) is two steps from 0 through a, but found first along b -> c: depth 3.
    CDiGraph g(5);
    g.edge(0, 1); // a
    g.edge(0, 2); // b
    g.edge(1, 4); // a -> x
    g.edge(2, 3); // b -> c
    g.edge(3, 4); // c -> x
    EXPECT_EQ(Walk(g.bfs(0)), (std::vector<int>{0, 2, 3, 4, 1}));
    EXPECT_EQ(g[4].distance, 3);
    EXPECT_EQ(g.farthest_node(0), 4);
    EXPECT_EQ(g.search_farthest_node(0), 4);
    EXPECT_EQ(g.farthest_node(1), 4);
    EXPECT_EQ(g.farthest_node(4), 4); // alone: the start itself
    EXPECT_EQ(g.farthest_node(9), CDiGraph::NULL_NODE);
}

TEST(CDiGraphTraversal, SeedsStartTogetherAndBadSeedsAreSkipped)
{
    CDiGraph g(4);
    g.edge(0, 1);
    g.edge(2, 3);
    EXPECT_EQ(Walk(g.bfs(std::vector<int>{0, 2, 2, -1, 7})), (std::vector<int>{2, 3, 0, 1}));
    EXPECT_EQ(g[1].distance, 1);
    EXPECT_TRUE(g.bfs(std::vector<int>{}).at_end());
    CDiGraph empty;
    EXPECT_TRUE(empty.bfs(0).at_end());
}

TEST(CDiGraphTraversal, DepthFirstMarksMatchTheRecursiveVisit)
{
    std::mt19937 engine(47110815);
    for (int trial = 0; trial < 30; ++trial) {
        CDiGraph g = graphtest::RandomGraph(engine, 40, 25 + 4 * trial);
        std::vector<int> roots(40);
        std::iota(roots.begin(), roots.end(), 0);
        std::shuffle(roots.begin(), roots.end(), engine);
        TPermutation<int> order(40);
        for (int i = 0; i < 40; ++i)
            order[i] = roots[i];
        const graphtest::Marks ref = graphtest::ReferenceDFS(g, roots, false);
        TPermutation<int> finished(40);
        g.DFS(order, finished);
        for (int u = 0; u < 40; ++u) {
            ASSERT_EQ(g[u].distance, ref.distance[u]) << "trial " << trial << " node " << u;
            ASSERT_EQ(g[u].finish, ref.finish[u]);
            ASSERT_EQ(g[u].pred, ref.pred[u]);
            ASSERT_EQ(g[u].color, CDiGraph::eBlack);
            ASSERT_EQ(finished[u], ref.finished[u]);
        }
    }
}

TEST(CDiGraphTraversal, DfsIteratorWalksByDecreasingFinishingTime)
{
    CDiGraph g(5);
    g.edge(0, 1);
    g.edge(1, 2);
    g.edge(0, 3);
    g.edge(4, 0);
    std::vector<int> seen;
    for (auto it = g.dfs(0); !it.at_end(); ++it)
        seen.push_back(it.current());
    EXPECT_EQ(seen, (std::vector<int>{0, 3, 1, 2})); // finishing order 2, 1, 3, 0 read backwards
    EXPECT_EQ(g.dfs(0).count(), 4);
    EXPECT_EQ(g[4].color, CDiGraph::eWhite);
    EXPECT_TRUE(g.dfs(-3).at_end());
}

TEST(CDiGraphTraversal, DFSWithoutOrderUsesAscendingRoots)
{
    CDiGraph g(3);
    g.edge(2, 0);
    g.DFS(TPermutation<int>());
    EXPECT_EQ(g[0].distance, 1);
    EXPECT_EQ(g[2].distance, 5);
    EXPECT_EQ(g[0].pred, CDiGraph::NULL_PRED); // 0 is a root, found before 2
}

TEST(CDiGraphOrder, TopologicalSortRespectsEdgesAndInverts)
{
    std::mt19937 engine(5);
    for (int trial = 0; trial < 20; ++trial) {
        CDiGraph g = graphtest::RandomDag(engine, 60, 150);
        g.edge(7, 7); // a self-loop doesn't make a graph cyclic here
        TPermutation<int> order(60);
        ASSERT_TRUE(g.topological_sort(order, false));
        ASSERT_TRUE(IsPermutation(order, 60));
        TPermutation<int> position(60);
        ASSERT_TRUE(g.topological_sort(position, true));
        for (int k = 0; k < 60; ++k) {
            ASSERT_EQ(position[order[k]], k);
        }
        for (int u = 0; u < 60; ++u)
            for (const CDiGraph::Edge& e : g.edges(u))
                if (e.to != u) {
                    ASSERT_LT(position[u], position[e.to]);
                }
        // Same order as writing the recursive visit's finishing list backwards.
        std::vector<int> roots(60);
        std::iota(roots.begin(), roots.end(), 0);
        const graphtest::Marks ref = graphtest::ReferenceDFS(g, roots, true);
        for (int k = 0; k < 60; ++k) {
            ASSERT_EQ(order[k], ref.finished[59 - k]);
        }
    }
}

TEST(CDiGraphOrder, CyclesAndEmptyGraphs)
{
    CDiGraph none;
    TPermutation<int> p;
    EXPECT_FALSE(none.topological_sort(p, false));
    EXPECT_FALSE(none.is_acyclic());
    EXPECT_TRUE(none.is_loop_free());

    CDiGraph loops(3);
    loops.edge(0, 0);
    loops.edge(2, 2);
    EXPECT_TRUE(loops.is_acyclic());
    EXPECT_FALSE(loops.is_loop_free());

    CDiGraph cycle(2);
    cycle.edge(0, 1);
    cycle.edge(1, 0);
    TPermutation<int> order(2);
    EXPECT_FALSE(cycle.topological_sort(order, false));
    EXPECT_TRUE(IsPermutation(order, 2));
    EXPECT_EQ(cycle.count_SCCs(), 1);
    CDiGraph dag = cycle.make_SCC_DAG(nullptr);
    ASSERT_EQ(dag.nodes(), 1);
    EXPECT_EQ(dag[0].data.as<std::vector<int>>(), (std::vector<int>{0, 1}));
    EXPECT_EQ(dag.edges(), 0);

    TPermutation<int> wrongSize(5); // resized to the node count
    EXPECT_FALSE(cycle.topological_sort(wrongSize, false));
    EXPECT_TRUE(IsPermutation(wrongSize, 2));
}

TEST(CDiGraphOrder, CyclicSortEntersComponentsWhereTheirPredecessorLeads)
{
    CDiGraph g(4);
    g.edge(0, 1);
    g.edge(1, 2);
    g.edge(2, 0);
    g.edge(3, 1);
    TPermutation<int> order = g.topological_sort_cyclic(false, nullptr);
    EXPECT_EQ(g.edges(), 4); // looking for the entry edge adds none
    EXPECT_EQ((std::vector<int>(order.Data(), order.Data() + 4)), (std::vector<int>{3, 1, 2, 0}));
    TPermutation<int> position = g.topological_sort_cyclic(true, nullptr);
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(position[order[k]], k);
    }

    CDiGraph ring(3);
    ring.edge(0, 1);
    ring.edge(1, 2);
    ring.edge(2, 0);
    TPermutation<int> byLess = ring.topological_sort_cyclic(false, [](int a, int b) { return a > b; });
    EXPECT_EQ((std::vector<int>(byLess.Data(), byLess.Data() + 3)), (std::vector<int>{2, 0, 1}));
    TPermutation<int> plain = ring.topological_sort_cyclic(false, nullptr);
    EXPECT_EQ(plain[0], 0);
    EXPECT_EQ(CDiGraph().topological_sort_cyclic(false, nullptr).Size(), 0);
}

TEST(CDiGraphOrder, CyclicSortKeepsComponentsInTopologicalOrder)
{
    std::mt19937 engine(17);
    for (int trial = 0; trial < 10; ++trial) {
        CDiGraph g = graphtest::RandomGraph(engine, 50, 70);
        const TPermutation<int> position = g.topological_sort_cyclic(true, nullptr);
        ASSERT_TRUE(IsPermutation(position, 50));
        CDiGraph dag = g.make_SCC_DAG(nullptr);
        std::vector<int> component(50);
        for (int c = 0; c < dag.nodes(); ++c)
            for (int m : dag[c].data.as<std::vector<int>>())
                component[m] = c;
        // Every edge between components goes forward in the order; members of one component are
        // contiguous.
        for (int u = 0; u < 50; ++u)
            for (const CDiGraph::Edge& e : g.edges(u))
                if (component[u] != component[e.to]) {
                    ASSERT_LT(position[u], position[e.to]);
                }
        std::vector<int> first(dag.nodes(), 50), last(dag.nodes(), -1);
        for (int u = 0; u < 50; ++u) {
            first[component[u]] = std::min(first[component[u]], position[u]);
            last[component[u]] = std::max(last[component[u]], position[u]);
        }
        for (int c = 0; c < dag.nodes(); ++c) {
            ASSERT_EQ(last[c] - first[c] + 1, static_cast<int>(dag[c].data.as<std::vector<int>>().size()));
        }
    }
}

TEST(CDiGraphOrder, LayeringAndSchedule)
{
    CDiGraph chain(3);
    chain.edge(0, 1);
    chain.edge(1, 2);
    int layers = -1;
    EXPECT_EQ(chain.longest_path_layering(&layers), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(layers, 3);
    EXPECT_EQ(chain.dag_schedule(&layers), (std::vector<std::vector<int>>{{0}, {1}, {2}}));
    EXPECT_EQ(layers, 3);

    CDiGraph diamond(5);
    diamond.edge(0, 1);
    diamond.edge(1, 2);
    diamond.edge(0, 2); // longest path decides: 2 is on layer 2
    diamond.edge(3, 2);
    EXPECT_EQ(diamond.longest_path_layering(nullptr), (std::vector<int>{0, 1, 2, 0, 0}));
    EXPECT_EQ(diamond.dag_schedule(nullptr), (std::vector<std::vector<int>>{{0, 3, 4}, {1}, {2}}));

    CDiGraph cycle(3);
    cycle.edge(0, 1);
    cycle.edge(1, 2);
    cycle.edge(2, 0);
    EXPECT_EQ(cycle.longest_path_layering(&layers), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(layers, 0);
    EXPECT_TRUE(cycle.dag_schedule(&layers).empty()); // every node on a cycle: no lists
    EXPECT_EQ(layers, 0);
    EXPECT_TRUE(CDiGraph().dag_schedule(&layers).empty());
}

TEST(CDiGraphComponents, CondensationIsTopologicallyNumbered)
{
    std::mt19937 engine(23);
    for (int trial = 0; trial < 15; ++trial) {
        CDiGraph g = graphtest::RandomGraph(engine, 60, 80 + 3 * trial);
        CDiGraph transposed = g.get_transposed();
        CDiGraph viaGiven = g.make_SCC_DAG(&transposed);
        CDiGraph dag = g.make_SCC_DAG(nullptr);
        ASSERT_EQ(dag.nodes(), viaGiven.nodes());
        std::vector<int> component(60, -1);
        int total = 0;
        for (int c = 0; c < dag.nodes(); ++c) {
            const std::vector<int>& members = dag[c].data.as<std::vector<int>>();
            ASSERT_EQ(members, viaGiven[c].data.as<std::vector<int>>());
            ASSERT_TRUE(std::is_sorted(members.begin(), members.end()));
            for (int m : members)
                component[m] = c;
            total += static_cast<int>(members.size());
            for (const CDiGraph::Edge& e : dag.edges(c)) {
                ASSERT_LT(c, e.to);
            }
        }
        ASSERT_EQ(total, 60);
        // Same component exactly when each reaches the other (reachability by repeated walks).
        for (int u = 0; u < 60; ++u) {
            std::vector<char> reach(60, 0);
            for (auto it = g.bfs(u); !it.at_end(); ++it)
                reach[it.current()] = 1;
            for (int v = 0; v < 60; ++v) {
                if (!reach[v])
                    continue;
                bool back = false;
                for (auto it = g.bfs(v); !it.at_end(); ++it)
                    back = back || it.current() == u;
                ASSERT_EQ(component[u] == component[v], back);
                if (component[u] != component[v]) {
                    ASSERT_LT(component[u], component[v]);
                }
            }
        }
        // The edges of the condensation are those between components.
        std::set<std::pair<int, int>> expected, actual;
        for (int u = 0; u < 60; ++u)
            for (const CDiGraph::Edge& e : g.edges(u))
                if (component[u] != component[e.to])
                    expected.insert({component[u], component[e.to]});
        for (int c = 0; c < dag.nodes(); ++c)
            for (const CDiGraph::Edge& e : dag.edges(c))
                actual.insert({c, e.to});
        ASSERT_EQ(actual, expected);
    }
}

TEST(CDiGraphComponents, WeakComponents)
{
    CDiGraph g(6);
    g.edge(0, 1);
    g.edge(2, 1);
    g.edge(4, 3);
    const CDisjointSets cc = g.find_CCs();
    EXPECT_EQ(cc.GetNumClasses(), 3u);
    EXPECT_TRUE(cc.SameClass(0, 2));
    EXPECT_TRUE(cc.SameClass(3, 4));
    EXPECT_FALSE(cc.SameClass(5, 0));
    EXPECT_EQ(g.count_CCs(), 3);
    EXPECT_EQ(CDiGraph().count_CCs(), 0);
}

TEST(CDiGraphComponents, PathOfThreeHasOneCutNodeAndTwoBridges)
{
    CDiGraph oneWay(3);
    oneWay.edge(0, 1);
    oneWay.edge(2, 1);
    EXPECT_EQ(oneWay.find_articulation_nodes(), std::vector<int>{1});
    using Pairs = std::vector<std::pair<int, int>>;
    EXPECT_EQ(oneWay.find_bridges(false), (Pairs{{1, 2}, {0, 1}}));
    EXPECT_EQ(oneWay.find_bridges(true), (Pairs{{2, 1}, {0, 1}}));

    CDiGraph bothWays(oneWay);
    bothWays.edge(1, 0);
    bothWays.edge(1, 2);
    EXPECT_EQ(bothWays.find_bridges(true), (Pairs{{1, 2}, {2, 1}, {0, 1}, {1, 0}}));

    CDiGraph triangle(3);
    triangle.edge(0, 1);
    triangle.edge(1, 2);
    triangle.edge(2, 0);
    triangle.edge(0, 0);
    EXPECT_TRUE(triangle.find_articulation_nodes().empty());
    EXPECT_TRUE(triangle.find_bridges(false).empty());
}

TEST(CDiGraphComponents, CutNodesAndBridgesMatchTheRecursiveSearch)
{
    std::mt19937 engine(99);
    for (int trial = 0; trial < 40; ++trial) {
        const CDiGraph g = graphtest::RandomGraph(engine, 50, 30 + 2 * trial);
        const graphtest::CutResult ref = graphtest::ReferenceCuts(g);
        ASSERT_EQ(g.find_articulation_nodes(), ref.articulation) << "trial " << trial;
        ASSERT_EQ(g.find_bridges(false), ref.bridges) << "trial " << trial;
    }
}

TEST(CDiGraphPaths, ApspOnOneEdge)
{
    CDiGraph g(2);
    g.edge(0, 1).data = 2.5f;
    const CDiGraph::APSP_data d = g.APSP([](const CDiGraph::Edge& e) { return e.data.as<float>(); });
    EXPECT_EQ(d.size, 2);
    EXPECT_EQ(d.dist[0 * 2 + 0], std::numeric_limits<float>::infinity());
    EXPECT_EQ(d.dist[0 * 2 + 1], 2.5f);
    EXPECT_EQ(d.next[0 * 2 + 1], 1);
    EXPECT_EQ(d.next[1 * 2 + 0], -1);
    EXPECT_THROW(g.APSP(nullptr), std::bad_function_call);
    EXPECT_EQ(CDiGraph().APSP([](const CDiGraph::Edge&) { return 1.0f; }).size, 0);
}

TEST(CDiGraphPaths, ApspDiagonalIsTheCheapestCycleAndNextFollowsThePath)
{
    std::mt19937 engine(31);
    CDiGraph g = graphtest::RandomGraph(engine, 25, 90);
    std::uniform_real_distribution<float> w(0.5f, 4.0f);
    for (int u = 0; u < 25; ++u)
        for (CDiGraph::Edge& e : g.edges(u))
            e.data = w(engine);
    const auto weight = [](const CDiGraph::Edge& e) { return e.data.as<float>(); };
    const CDiGraph::APSP_data d = g.APSP(weight);
    // Brute force: the plain triple loop, in the same float arithmetic.
    const int n = 25;
    std::vector<float> ref(n * n, std::numeric_limits<float>::infinity());
    for (int u = 0; u < n; ++u)
        for (const CDiGraph::Edge& e : g.edges(u))
            ref[u * n + e.to] = e.data.as<float>();
    for (int k = 0; k < n; ++k)
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j)
                if (ref[i * n + j] > ref[k * n + j] + ref[i * n + k])
                    ref[i * n + j] = ref[k * n + j] + ref[i * n + k];
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            ASSERT_EQ(d.dist[i * n + j], ref[i * n + j]);
            if (std::isinf(d.dist[i * n + j])) {
                ASSERT_EQ(d.next[i * n + j], -1);
                continue;
            }
            // Walking next from i reaches j with the stated length.
            float length = 0.0f;
            int at = i, steps = 0;
            do {
                const int hop = d.next[at * n + j];
                ASSERT_TRUE(g.exists(at, hop));
                length += g.edge(at, hop).data.as<float>();
                at = hop;
            } while (at != j && ++steps < n);
            ASSERT_EQ(at, j);
            ASSERT_NEAR(length, d.dist[i * n + j], 1e-4f * length); // float sums in another order
        }
}

TEST(CDiGraphPaths, ApspNegativeCycleMatchesThePlainLoop)
{
    // A negative cycle makes the in-place update read values changed in the same sweep.
    CDiGraph g(3);
    g.edge(0, 1).data = 1.0f;
    g.edge(1, 0).data = -3.0f;
    g.edge(1, 2).data = 1.0f;
    const CDiGraph::APSP_data d = g.APSP([](const CDiGraph::Edge& e) { return e.data.as<float>(); });
    std::vector<float> ref(9, std::numeric_limits<float>::infinity());
    ref[1] = 1.0f;
    ref[3] = -3.0f;
    ref[5] = 1.0f;
    for (int k = 0; k < 3; ++k)
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                if (ref[i * 3 + j] > ref[k * 3 + j] + ref[i * 3 + k])
                    ref[i * 3 + j] = ref[k * 3 + j] + ref[i * 3 + k];
    for (int c = 0; c < 9; ++c) {
        EXPECT_EQ(d.dist[c], ref[c]) << "cell " << c;
    }
}

TEST(CDiGraphSpanning, ForestShapes)
{
    const auto unit = [](int, int) { return 1.0; };
    CDiGraph lone(4);
    lone[2].data = 5;
    CDiGraph f = lone.MST(unit);
    EXPECT_EQ(f.nodes(), 4);
    EXPECT_EQ(f.edges(), 0);
    EXPECT_EQ(f[2].data.as<int>(), 5);

    CDiGraph triangle(3);
    triangle.edge(0, 1);
    triangle.edge(1, 2);
    triangle.edge(2, 0);
    const CDiGraph t = triangle.MST([](int a, int b) { return a + b; });
    EXPECT_EQ(t.edges(), 2);
    EXPECT_TRUE(t.exists(0, 1));
    EXPECT_TRUE(t.exists(2, 0)); // kept in its own direction
    EXPECT_THROW(triangle.MST(nullptr), std::bad_function_call);

    std::mt19937 engine(8);
    for (int trial = 0; trial < 10; ++trial) {
        CDiGraph g = graphtest::RandomGraph(engine, 30, 20 + 10 * trial);
        const CDiGraph forest = g.MST([](int a, int b) { return (a * 7 + b * 13) % 10; });
        EXPECT_LE(forest.edges(), 29);
        // A spanning forest: no cycle, and the same weak components as the graph.
        EXPECT_EQ(forest.count_CCs(), g.count_CCs());
        EXPECT_EQ(forest.edges(), 30 - g.count_CCs());
    }
}

TEST(CDiGraphColouring, GraphWithoutEdgesHasOneColour)
{
    CDiGraph g(4);
    int colors = -1;
    EXPECT_EQ(g.node_coloring(&colors), (std::vector<int>{0, 0, 0, 0}));
    EXPECT_EQ(colors, 1);
    EXPECT_EQ(g.node_coloring().GetNumClasses(), 1u);
    EXPECT_TRUE(CDiGraph().node_coloring(&colors).empty());
    EXPECT_EQ(colors, 0);
}

TEST(CDiGraphColouring, HighestDegreeFirstGreedyColouring)
{
    // A star with centre 2 and a tail 4 - 5: the centre has the largest degree and takes colour 0.
    CDiGraph g(6);
    g.edge(2, 0);
    g.edge(1, 2);
    g.edge(2, 3);
    g.edge(2, 4);
    g.edge(4, 5);
    int colors = 0;
    const std::vector<int> colour = g.node_coloring(&colors);
    EXPECT_EQ(colour[2], 0);
    EXPECT_EQ(colors, 2);
    EXPECT_EQ(colour[5], 0);
    for (int v : {0, 1, 3, 4}) {
        EXPECT_EQ(colour[v], 1);
    }
}

TEST(CDiGraphColouring, ColoursAreProperAndClassesMatch)
{
    std::mt19937 engine(77);
    for (int trial = 0; trial < 10; ++trial) {
        const CDiGraph g = graphtest::RandomGraph(engine, 40, 60 + 10 * trial);
        int colors = 0;
        const std::vector<int> colour = g.node_coloring(&colors);
        for (int u = 0; u < 40; ++u) {
            ASSERT_GE(colour[u], 0);
            ASSERT_LT(colour[u], colors);
            for (const CDiGraph::Edge& e : g.edges(u))
                if (e.to != u) {
                    ASSERT_NE(colour[u], colour[e.to]);
                }
        }
        const CDisjointSets classes = g.node_coloring();
        ASSERT_EQ(classes.GetNumClasses(), static_cast<unsigned int>(colors));
        for (int u = 0; u < 40; ++u)
            for (int v = 0; v < 40; ++v) {
                ASSERT_EQ(classes.SameClass(u, v), colour[u] == colour[v]);
            }
    }
}

} // namespace
