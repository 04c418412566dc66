#include "graph.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "datalayer/algorithms/graphs/cdigraph.h"

namespace {

struct GraphOptions
{
    std::string input;
    std::string dot;
    bool scc = false;
    bool rcm = false;
};

/// Largest |position(u) - position(v)| over all edges; positionToNode[k] is the node at position k.
int bandwidth(const DataLayer::CDiGraph& g, const DataLayer::TPermutation<int>& positionToNode)
{
    std::vector<int> position(g.nodes());
    for (int k = 0; k < g.nodes(); ++k)
        position[positionToNode[k]] = k;
    int band = 0;
    for (int u = 0; u < g.nodes(); ++u)
        for (const DataLayer::CDiGraph::Edge& e : g.edges(u))
            band = std::max(band, std::abs(position[u] - position[e.to]));
    return band;
}

int runGraph(const GraphOptions& options)
{
    std::ifstream in(options.input);
    if (!in) {
        std::fprintf(stderr, "vorn graph: cannot read %s\n", options.input.c_str());
        return 2;
    }
    int declared = 0;
    if (!(in >> declared) || declared < 0) {
        std::fprintf(stderr, "vorn graph: %s does not start with a node count\n", options.input.c_str());
        return 2;
    }
    in.clear();
    in.seekg(0);
    DataLayer::CDiGraph g = DataLayer::CDiGraph::deserialize(in);

    std::printf("nodes: %d\n", g.nodes());
    std::printf("edges: %d\n", g.edges());
    std::printf("weakly connected components: %d\n", g.count_CCs());
    if (options.scc) {
        const DataLayer::CDiGraph dag = g.clone_topology().make_SCC_DAG(nullptr);
        std::size_t largest = 0;
        for (int c = 0; c < dag.nodes(); ++c)
            largest = std::max(largest, dag[c].data.as<std::vector<int>>().size());
        std::printf("strongly connected components: %d (largest %zu nodes)\n", dag.nodes(), largest);
    }
    if (options.rcm) {
        const int before = bandwidth(g, DataLayer::TPermutation<int>(g.nodes()));
        const int after = bandwidth(g, g.bandwidth_reduction(false, true));
        std::printf("bandwidth before: %d\nbandwidth after: %d\n", before, after);
    }
    if (!options.dot.empty()) {
        if (!g.dump_GraphViz(options.dot, "G", nullptr, nullptr, "shape=circle")) {
            std::fprintf(stderr, "vorn graph: cannot write %s\n", options.dot.c_str());
            return 2;
        }
        std::printf("GraphViz written to %s\n", options.dot.c_str());
    }
    return g.empty() ? 1 : 0;
}

} // namespace

VornCommand AddGraphCommand(CLI::App& app)
{
    auto options = std::make_shared<GraphOptions>();
    CLI::App* sub =
        app.add_subcommand("graph", "Counts, components, GraphViz and bandwidth of a directed graph");
    sub->add_option("FILE", options->input, "graph in text form: n, then per node u: u k t1 .. tk")
        ->required();
    sub->add_option("--dot", options->dot, "write the graph as GraphViz DOT to this file");
    sub->add_flag("--scc", options->scc, "also count the strongly connected components");
    sub->add_flag("--rcm", options->rcm,
                  "print the bandwidth before and after reverse Cuthill-McKee numbering");
    return {sub, [options] { return runGraph(*options); }};
}
