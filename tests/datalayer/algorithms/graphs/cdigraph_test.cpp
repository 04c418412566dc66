// The directed graph's data structure: nodes, edges, payloads, degrees, derived graphs, renumbering
// and the text form.
#include <gtest/gtest.h>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "datalayer/algorithms/graphs/cdigraph.h"

using DataLayer::CDiGraph;
using DataLayer::TPermutation;

namespace {

using EdgeSet = std::set<std::pair<int, int>>;

EdgeSet Edges(const CDiGraph& g)
{
    EdgeSet s;
    for (int u = 0; u < g.nodes(); ++u)
        for (const CDiGraph::Edge& e : g.edges(u)) {
            EXPECT_EQ(e.from, u);
            s.insert({u, e.to});
        }
    return s;
}

std::vector<int> Targets(const CDiGraph& g, int u)
{
    std::vector<int> t;
    for (const CDiGraph::Edge& e : g.edges(u))
        t.push_back(e.to);
    return t;
}

TEST(CDiGraph, NullNodeIsTheSmallestInt)
{
    EXPECT_EQ(CDiGraph::NULL_NODE, -2147483647 - 1);
    EXPECT_EQ(CDiGraph::NULL_PRED, -2147483647 - 1);
    CDiGraph::Edge e;
    EXPECT_EQ(e.from, CDiGraph::NULL_NODE);
    EXPECT_FALSE(e.data);
}

TEST(CDiGraph, NodesAndRangeChecks)
{
    CDiGraph g(3);
    EXPECT_EQ(g.nodes(), 3);
    EXPECT_EQ(g.edges(), 0);
    EXPECT_FALSE(g.exists(3));
    EXPECT_FALSE(g.exists(-1));
    EXPECT_EQ(g.node_ptr(-1), nullptr);
    EXPECT_EQ(g.node_ptr(3), nullptr);
    EXPECT_EQ(g.node_ptr(2)->id, 2);
    EXPECT_EQ(g[1].pred, CDiGraph::NULL_PRED);
    EXPECT_EQ(g[1].finish, -1);
    EXPECT_TRUE(CDiGraph(-4).empty());
    int count = 0;
    for (CDiGraph::Node& node : g) {
        EXPECT_EQ(node.id, count++);
    }
    EXPECT_EQ(count, 3);
}

TEST(CDiGraph, OnlyTheNonConstEdgePtrAddsEdges)
{
    CDiGraph g(3);
    const CDiGraph& cg = g;
    EXPECT_EQ(cg.edge_ptr(0, 1), nullptr);
    EXPECT_EQ(g.edges(), 0);
    CDiGraph::Edge* e = g.edge_ptr(0, 1);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->from, 0);
    EXPECT_EQ(e->to, 1);
    EXPECT_EQ(g.edges(), 1);
    EXPECT_EQ(g.edge_ptr(0, 1), e);
    EXPECT_EQ(g.edges(), 1);
    EXPECT_EQ(g.edge_ptr(0, 5), nullptr);
    EXPECT_EQ(g.edge_ptr(-1, 0), nullptr);
    EXPECT_EQ(g.edges(), 1);
    EXPECT_TRUE(g.exists(0, 1));
    EXPECT_TRUE(g.adj(0, 1));
    EXPECT_FALSE(g.exists(1, 0));
    EXPECT_FALSE(g.exists(0, 7));
    EXPECT_TRUE(g.erase(0, 1));
    EXPECT_FALSE(g.erase(0, 1));
    EXPECT_FALSE(g.erase(0, 9));
    EXPECT_EQ(g.edges(), 0);
}

TEST(CDiGraph, EdgeAssignmentCopiesTheEndsOnly)
{
    CDiGraph::Edge a(1, 2);
    a.data = std::string("a");
    CDiGraph::Edge b(3, 4);
    b.data = std::string("b");
    b = a;
    EXPECT_EQ(b.from, 1);
    EXPECT_EQ(b.to, 2);
    EXPECT_EQ(b.data.as<std::string>(), "b");
    CDiGraph::Edge c(a);
    EXPECT_EQ(c.data.as<std::string>(), "a");
    CDiGraph g(5);
    g.edge(b).data = 1;
    EXPECT_EQ(g.edge(1, 2).data.as<int>(), 1);
}

TEST(CDiGraph, SelfLoopDegrees)
{
    CDiGraph g(2);
    g.edge(0, 0);
    EXPECT_EQ(g.degree_out(0), 1);
    EXPECT_EQ(g.degree_in(0), 0);
    EXPECT_EQ(g.degree(0), 1);
    EXPECT_EQ(g.node_degrees()[0], 2);
    g.edge(1, 0);
    EXPECT_EQ(g.degree_in(0), 1);
    EXPECT_EQ(g.node_degrees(), (std::vector<int>{3, 1}));
}

TEST(CDiGraph, AdjacencyKeepsInsertionOrderThroughHashingAndErase)
{
    // 40 targets pass the size at which a map switches from scanning to hashing.
    CDiGraph g(50);
    std::vector<int> order;
    std::mt19937 engine(3);
    for (int k = 0; k < 40; ++k) {
        int v;
        do
            v = static_cast<int>(engine() % 50);
        while (g.exists(7, v));
        g.edge(7, v).data = v * 10;
        order.push_back(v);
    }
    EXPECT_EQ(Targets(g, 7), order);
    for (int k = 0; k < 40; k += 3) {
        EXPECT_TRUE(g.erase(7, order[k]));
    }
    std::vector<int> kept;
    for (int k = 0; k < 40; ++k)
        if (k % 3 != 0)
            kept.push_back(order[k]);
    EXPECT_EQ(Targets(g, 7), kept);
    for (int v : kept) {
        const CDiGraph& cg = g;
        ASSERT_NE(cg.edge_ptr(7, v), nullptr);
        EXPECT_EQ(cg.edge_ptr(7, v)->data.as<int>(), v * 10); // payloads moved with their edges
    }
    EXPECT_EQ(g.degree_out(7), static_cast<int>(kept.size()));
}

TEST(CDiGraph, CopyIsDeepAndMoveEmptiesTheSource)
{
    CDiGraph g(3);
    g.edge(0, 1).data = std::string("x");
    g[2].data = 5;
    CDiGraph copy(g);
    copy.edge(0, 1).data.as<std::string>() = "y";
    copy[2].data.as<int>() = 6;
    EXPECT_EQ(g.edge(0, 1).data.as<std::string>(), "x");
    EXPECT_EQ(g[2].data.as<int>(), 5);
    CDiGraph assigned;
    assigned = g;
    EXPECT_EQ(assigned.edge(0, 1).data.as<std::string>(), "x");
    CDiGraph moved(std::move(g));
    EXPECT_TRUE(g.empty());
    EXPECT_EQ(g.edges(), 0);
    EXPECT_EQ(moved.edges(), 1);
    moved.resize(2);
    EXPECT_EQ(moved.nodes(), 2);
    EXPECT_EQ(moved.edges(), 0);
    moved.clear();
    EXPECT_TRUE(moved.empty());
}

TEST(CDiGraph, MarksAreResetButIdsAndPayloadsStay)
{
    CDiGraph g(2);
    g[0].data = 1;
    g[0].finish = 9;
    g[0].distance = 4;
    g[0].pred = 1;
    g.colorize(CDiGraph::eBlack);
    EXPECT_EQ(g[1].color, CDiGraph::eBlack);
    g.reset_marks();
    EXPECT_EQ(g[0].color, CDiGraph::eWhite);
    EXPECT_EQ(g[0].finish, -1);
    EXPECT_EQ(g[0].distance, -1);
    EXPECT_EQ(g[0].pred, CDiGraph::NULL_PRED);
    EXPECT_EQ(g[0].id, 0);
    EXPECT_EQ(g[0].data.as<int>(), 1);
}

TEST(CDiGraph, TransposeTwiceRestoresEdgesAndPayloads)
{
    CDiGraph g(4);
    g.edge(0, 1).data = std::string("a");
    g.edge(0, 2).data = std::string("b");
    g.edge(3, 3).data = std::string("loop");
    g.edge(2, 1);
    const EdgeSet before = Edges(g);
    CDiGraph t = g.get_transposed();
    EXPECT_EQ(Edges(t), (EdgeSet{{1, 0}, {2, 0}, {3, 3}, {1, 2}}));
    EXPECT_EQ(t.edge(2, 0).data.as<std::string>(), "b");
    EXPECT_EQ(Targets(t, 1), (std::vector<int>{0, 2})); // sources ascending
    t.transpose();
    EXPECT_EQ(Edges(t), before);
    EXPECT_EQ(t.edge(0, 1).data.as<std::string>(), "a");
    EXPECT_EQ(t.edge(3, 3).data.as<std::string>(), "loop");
}

TEST(CDiGraph, CloneTopologyDropsPayloadsAndMarks)
{
    CDiGraph g(3);
    g.edge(0, 1).data = 1;
    g[1].data = 2;
    g[1].finish = 3;
    const CDiGraph c = g.clone_topology();
    EXPECT_EQ(Edges(c), Edges(g));
    EXPECT_FALSE(c.edge_ptr(0, 1)->data);
    EXPECT_FALSE(c[1].data);
    EXPECT_EQ(c[1].finish, -1);
}

TEST(CDiGraph, SymmetricGraphLinksBothWaysWithoutSelfLoops)
{
    CDiGraph g(4);
    g.edge(0, 1);
    g.edge(1, 0);
    g.edge(2, 1);
    g.edge(3, 3);
    g[2].data = 7;
    const CDiGraph s = g.get_symmetric_graph();
    EXPECT_EQ(Edges(s), (EdgeSet{{0, 1}, {1, 0}, {1, 2}, {2, 1}}));
    EXPECT_EQ(s[2].data.as<int>(), 7);
}

TEST(CDiGraph, SubGraphRenumbersAndMaps)
{
    CDiGraph g(5);
    g.edge(0, 1);
    g.edge(1, 3).data = std::string("kept");
    g.edge(3, 4);
    g.edge(4, 1);
    g[3].data = 33;
    TPermutation<int> mapping(3);
    CDiGraph s = g.make_sub_graph({3, 1, 4}, mapping);
    EXPECT_EQ(s.nodes(), 3);
    EXPECT_EQ(Edges(s), (EdgeSet{{1, 0}, {0, 2}, {2, 1}}));
    EXPECT_EQ(s[0].data.as<int>(), 33);
    EXPECT_EQ(s[1].id, 1);
    EXPECT_EQ(s.edge(1, 0).data.as<std::string>(), "kept");
    EXPECT_EQ(mapping[0], 3);
    EXPECT_EQ(mapping[2], 4);
    TPermutation<int> none;
    const CDiGraph t = g.make_sub_graph({0, 9}, none); // 9 is no node: an isolated new node
    EXPECT_EQ(t.nodes(), 2);
    EXPECT_EQ(t.edges(), 0);
}

TEST(CDiGraph, PermuteMovesRecordsEdgesAndPayloads)
{
    CDiGraph g(4);
    for (int i = 0; i < 4; ++i)
        g[i].data = 100 + i;
    g.edge(0, 1).data = std::string("01");
    g.edge(1, 2);
    g.edge(2, 0);
    g.edge(3, 3);
    TPermutation<int> p(4);
    p[0] = 2;
    p[1] = 3;
    p[2] = 1;
    p[3] = 0;
    CDiGraph h(g);
    h.permute(p);
    for (int i = 0; i < 4; ++i) {
        EXPECT_EQ(h[p[i]].data.as<int>(), 100 + i);
        EXPECT_EQ(h[i].id, i);
    }
    EdgeSet expected;
    for (const auto& [u, v] : Edges(g))
        expected.insert({p[u], p[v]});
    EXPECT_EQ(Edges(h), expected);
    EXPECT_EQ(h.edge(2, 3).data.as<std::string>(), "01");

    // Wrong size and non-permutations leave the graph alone.
    CDiGraph k(g);
    k.permute(TPermutation<int>(3));
    TPermutation<int> twice(4);
    twice[1] = 0;
    k.permute(twice);
    EXPECT_EQ(Edges(k), Edges(g));
    EXPECT_EQ(k[1].data.as<int>(), 101);
    CDiGraph empty;
    empty.permute(TPermutation<int>(0));
    EXPECT_TRUE(empty.empty());
}

TEST(CDiGraph, TextFormRoundTrip)
{
    CDiGraph g(3);
    g.edge(0, 1);
    g.edge(0, 2);
    std::ostringstream out;
    g.serialize(out);
    EXPECT_EQ(out.str(), "3 0 2 1 2");
    CDiGraph lone(4);
    std::ostringstream out2;
    lone.serialize(out2);
    EXPECT_EQ(out2.str(), "4");

    std::mt19937 engine(11);
    CDiGraph r(30);
    for (int k = 0; k < 80; ++k)
        r.edge(engine() % 30, engine() % 30).data = 1;
    std::stringstream text;
    r.serialize(text);
    const CDiGraph back = CDiGraph::deserialize(text);
    EXPECT_EQ(back.nodes(), 30);
    EXPECT_EQ(Edges(back), Edges(r));
    for (int u = 0; u < 30; ++u) {
        EXPECT_EQ(Targets(back, u), Targets(r, u)); // adjacency order survives
        for (const CDiGraph::Edge& e : back.edges(u)) {
            EXPECT_FALSE(e.data);
        }
    }
}

TEST(CDiGraph, DeserializeStopsAtTheFirstBadToken)
{
    std::istringstream two("2");
    const CDiGraph a = CDiGraph::deserialize(two);
    EXPECT_EQ(a.nodes(), 2);
    EXPECT_EQ(a.edges(), 0);
    std::istringstream junk("4 0 1 2 1 2 3 x 2 1 0");
    const CDiGraph b = CDiGraph::deserialize(junk);
    EXPECT_EQ(Edges(b), (EdgeSet{{0, 2}, {1, 3}}));
    std::istringstream outOfRange("3 0 2 7 1 5 1 1 1 1 0");
    EXPECT_EQ(Edges(CDiGraph::deserialize(outOfRange)), (EdgeSet{{0, 1}, {1, 0}}));
    std::istringstream negative("-3 0 1 1");
    EXPECT_TRUE(CDiGraph::deserialize(negative).empty());
    std::istringstream bad("5");
    bad.setstate(std::ios::failbit);
    EXPECT_TRUE(CDiGraph::deserialize(bad).empty());
    std::ostringstream closed;
    closed.setstate(std::ios::badbit);
    a.serialize(closed);
    EXPECT_EQ(closed.str(), "");
}

} // namespace
