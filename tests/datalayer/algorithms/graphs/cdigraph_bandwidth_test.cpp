// Bandwidth reduction, block partition and the exact GraphViz text.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "datalayer/algorithms/graphs/cdigraph.h"
#include "graph_test_support.h"

using DataLayer::CDiGraph;
using DataLayer::CDisjointSets;
using DataLayer::TPermutation;

namespace {

std::vector<int> Entries(const TPermutation<int>& p)
{
    return std::vector<int>(p.Data(), p.Data() + p.Size());
}

const std::string kHeader = "digraph \"G\" {\n\tnode [shape=box];\n\tratio = compress;\n\tsplines = true;\n"
                            "\tconcentrate = true;\n";

/// Writes the graph to a temporary file and returns the text.
std::string Dot(const CDiGraph& g, std::function<std::string(const Any&)> edgeLabel = nullptr,
                std::function<std::string(const Any&)> nodeLabel = nullptr)
{
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() /
        ("vorn2_graph_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "_" +
         ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".dot");
    EXPECT_TRUE(g.dump_GraphViz(path.string(), "G", edgeLabel, nodeLabel, "shape=box"));
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    std::filesystem::remove(path);
    return text.str();
}

TEST(CDiGraphBandwidth, GraphWithoutEdgesGivesTheIdentityForAllFlags)
{
    CDiGraph g(4);
    g[1].data = 1;
    for (bool inverse : {false, true})
        for (bool reversed : {false, true}) {
            EXPECT_EQ(Entries(g.bandwidth_reduction(inverse, reversed)), (std::vector<int>{0, 1, 2, 3}));
        }
    EXPECT_EQ(CDiGraph().bandwidth_reduction(false, false).Size(), 0);
}

TEST(CDiGraphBandwidth, PathIsNumberedFromItsPeripheralEnd)
{
    CDiGraph g(4);
    g.edge(0, 1);
    g.edge(1, 2);
    g.edge(2, 3);
    EXPECT_EQ(Entries(g.bandwidth_reduction(false, false)), (std::vector<int>{0, 1, 2, 3}));
    // From the middle the peripheral search still ends at node 0: same result with the path renumbered.
    CDiGraph h(4);
    h.edge(2, 0);
    h.edge(0, 3);
    h.edge(1, 2); // path 1 - 2 - 0 - 3, lowest number 0 in the middle
    EXPECT_EQ(graphtest::Bandwidth(h, h.bandwidth_reduction(false, false)), 1);
}

TEST(CDiGraphBandwidth, FlagsInvertAndReverse)
{
    std::mt19937 engine(12);
    for (int trial = 0; trial < 10; ++trial) {
        CDiGraph g = graphtest::RandomGraph(engine, 45, 50);
        const TPermutation<int> p = g.bandwidth_reduction(false, false);
        const TPermutation<int> inv = g.bandwidth_reduction(true, false);
        const TPermutation<int> rev = g.bandwidth_reduction(false, true);
        for (int k = 0; k < 45; ++k) {
            ASSERT_EQ(inv[p[k]], k);
            ASSERT_EQ(rev[k], p[44 - k]);
        }
        // Both flags: the inverse array read backwards (not position k mapped to n-1-k).
        const TPermutation<int> both = g.bandwidth_reduction(true, true);
        for (int k = 0; k < 45; ++k) {
            ASSERT_EQ(both[k], inv[44 - k]);
        }
    }
}

TEST(CDiGraphBandwidth, ComponentWithTheLowestNodeComesFirst)
{
    CDiGraph g(6);
    g.edge(5, 1);
    g.edge(1, 3);
    g.edge(0, 4);
    g.edge(4, 2);
    const std::vector<int> p = Entries(g.bandwidth_reduction(false, false));
    const std::vector<int> first(p.begin(), p.begin() + 3);
    EXPECT_EQ(std::set<int>(first.begin(), first.end()), (std::set<int>{0, 2, 4}));
    EXPECT_EQ(first[1], 4);
}

TEST(CDiGraphBandwidth, OrderMatchesTheLiteralProcedure)
{
    // Random graphs with several components, and a shuffled grid.
    std::mt19937 engine(4);
    for (int trial = 0; trial < 20; ++trial) {
        CDiGraph g = graphtest::RandomGraph(engine, 80, 40 + 8 * trial);
        ASSERT_EQ(Entries(g.bandwidth_reduction(false, false)), graphtest::ReferenceBandwidthOrder(g))
            << "trial " << trial;
    }
    const int w = 30, h = 20, n = w * h;
    std::vector<int> label(n);
    std::iota(label.begin(), label.end(), 0);
    std::shuffle(label.begin(), label.end(), engine);
    CDiGraph grid(n);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            if (x + 1 < w)
                grid.edge(label[y * w + x], label[y * w + x + 1]);
            if (y + 1 < h)
                grid.edge(label[(y + 1) * w + x], label[y * w + x]);
        }
    EXPECT_EQ(Entries(grid.bandwidth_reduction(false, false)), graphtest::ReferenceBandwidthOrder(grid));
}

TEST(CDiGraphBandwidth, BlockPartitionCutsTheOrderIntoRuns)
{
    CDiGraph g(7);
    for (int i = 0; i + 1 < 7; ++i)
        g.edge(i, i + 1);
    EXPECT_EQ(g.block_partition(1).GetNumClasses(), 1u);
    EXPECT_EQ(g.block_partition(0).GetNumClasses(), 7u);
    EXPECT_EQ(g.block_partition(7).GetNumClasses(), 7u);
    EXPECT_EQ(g.block_partition(100).GetNumClasses(), 7u);
    EXPECT_EQ(g.block_partition(-2).GetNumClasses(), 7u);
    const CDisjointSets three = g.block_partition(3); // boundaries 0, 2, 5, 7 on the order 0..6
    EXPECT_EQ(three.GetNumClasses(), 3u);
    EXPECT_TRUE(three.SameClass(0, 1));
    EXPECT_TRUE(three.SameClass(2, 4));
    EXPECT_FALSE(three.SameClass(1, 2));
    EXPECT_TRUE(three.SameClass(5, 6));
    EXPECT_EQ(CDiGraph().block_partition(3).Size(), 0u);
}

TEST(CDiGraphGraphViz, UnopenableFileGivesFalse)
{
    CDiGraph g(1);
    EXPECT_FALSE(g.dump_GraphViz("/nonexistent-directory/x/graph.dot", "G", nullptr, nullptr, ""));
}

TEST(CDiGraphGraphViz, SingleNode)
{
    EXPECT_EQ(Dot(CDiGraph(1)), kHeader + "\tv0;\n}\n");
}

TEST(CDiGraphGraphViz, LoneSelfLoopIsAnEdgeNotANode)
{
    CDiGraph g(1);
    g.edge(0, 0);
    EXPECT_EQ(Dot(g), kHeader + "\tv0 -> v0;\n}\n");
    // With a label function the lone loop is labelled even without a payload.
    EXPECT_EQ(Dot(g, [](const Any& a) { return a ? std::string("set") : std::string("empty"); }),
              kHeader + "\tv0 -> v0 [label=\"empty\"];\n}\n");
}

TEST(CDiGraphGraphViz, TwoCycleIsClusterOne)
{
    CDiGraph g(2);
    g.edge(0, 1);
    g.edge(1, 0);
    EXPECT_EQ(Dot(g),
              kHeader +
                  "\tsubgraph cluster_1 {\n\t\tlabel=\"SCC #1\";\n\t\tcolor = purple;\n\t\tstyle = dashed;\n"
                  "\t\tv0 -> v1;\n\t\tv1 -> v0;\n\t}\n}\n");
}

TEST(CDiGraphGraphViz, LabelsClustersAndEdgesBetweenComponents)
{
    // Components in topological order: {3}, {0, 1, 2}, {4}. 5 is alone.
    CDiGraph g(6);
    g.edge(0, 1).data = std::string("a");
    g.edge(1, 2);
    g.edge(2, 0);
    g.edge(2, 2);
    g.edge(3, 1).data = std::string("in");
    g.edge(2, 4);
    g.edge(0, 4);
    g[4].data = std::string("sink");
    const auto label = [](const Any& a) { return a.as<std::string>(); };
    const std::string expected =
        kHeader + "\tv4 [label=\"sink\"];\n" +
        "\tsubgraph cluster_1 {\n\t\tlabel=\"SCC #1\";\n\t\tcolor = purple;\n\t\tstyle = dashed;\n"
        "\t\tv0 -> v1 [label=\"a\"];\n\t\tv1 -> v2;\n\t\tv2 -> v0;\n\t\tv2 -> v2;\n\t}\n"
        "\tv3 -> v1 [label=\"in\"];\n"
        "\tv0 -> v4;\n\tv2 -> v4;\n"
        "\tv4;\n\tv5;\n}\n";
    EXPECT_EQ(Dot(g, label, label), expected);
}

} // namespace
