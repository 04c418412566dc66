// CDiGraph: bandwidth reduction (Cuthill-McKee with a peripheral start node, numbered from the
// newest end of the frontier), block partition and GraphViz output.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include "datalayer/algorithms/graphs/cdigraph.h"
#include "datalayer/algorithms/graphs/graphcsr.h"

namespace DataLayer {

namespace {

struct CMK_Node
{
    int node;
    int degree;
    int level;
};

/// Scratch of the peripheral node search, allocated once per bandwidth_reduction call: a frontier
/// of n records and a visit stamp per node (a new stamp clears all marks in O(1)).
struct PeripheralScratch
{
    explicit PeripheralScratch(int n) : frontier(n), stamp(n, 0) {}
    detail::TRingBuffer<CMK_Node> frontier;
    std::vector<unsigned int> stamp;
    unsigned int current = 0;
};

/// The node from which the numbering of start's component begins: repeated frontier walks (newest
/// end first, both edge directions) from the best node found, until the level stops growing.
int findPeripheralNode(const detail::CCsrAdjacency& out, const detail::CCsrAdjacency& in,
                       const std::vector<int>& degrees, int start, PeripheralScratch& scratch)
{
    detail::TRingBuffer<CMK_Node>& frontier = scratch.frontier;
    std::vector<unsigned int>& stamp = scratch.stamp;
    frontier.Clear();
    CMK_Node best{start, degrees[start], 0};
    int previous = 0;
    stamp[start] = ++scratch.current;
    frontier.PushBack(best);
    for (;;) {
        while (!frontier.Empty()) {
            const CMK_Node c = frontier.PopBack();
            if (c.level > best.level || (c.node != best.node && c.degree > best.degree))
                best = c;
            const unsigned int mark = scratch.current;
            for (const int* it = out.begin(c.node); it != out.end(c.node); ++it)
                if (stamp[*it] != mark) {
                    stamp[*it] = mark;
                    frontier.PushBack({*it, degrees[*it], c.level + 1});
                }
            for (const int* it = in.begin(c.node); it != in.end(c.node); ++it)
                if (stamp[*it] != mark) {
                    stamp[*it] = mark;
                    frontier.PushBack({*it, degrees[*it], c.level + 1});
                }
        }
        if (previous >= best.level)
            return best.node;
        previous = best.level;
        stamp[best.node] = ++scratch.current;
        best.level = 0;
        frontier.PushBack(best);
    }
}

} // namespace

TPermutation<int> CDiGraph::bandwidth_reduction(bool inverse, bool reversed)
{
    const int n = nodes();
    TPermutation<int> p(n);
    if (n == 0)
        return p;
    const std::vector<int> degrees = node_degrees();
    const int largest = *std::max_element(degrees.begin(), degrees.end());
    if (largest == 0)
        return p;

    const detail::CCsrAdjacency out = detail::CCsrAdjacency::FromGraph(*this);
    const detail::CCsrAdjacency in = out.Transposed();
    auto less = [](const CMK_Node& a, const CMK_Node& b) { return a.degree < b.degree; };
    detail::TBoundedHeap<CMK_Node, decltype(less)> heap(largest, less);
    detail::TRingBuffer<CMK_Node> frontier(n);
    std::vector<char> visited(n, 0);
    PeripheralScratch scratch(n);
    int position = -1;
    int lowest = 0;
    while (position < n - 1) {
        while (visited[lowest])
            ++lowest;
        const int r = findPeripheralNode(out, in, degrees, lowest, scratch);
        visited[r] = 1;
        frontier.PushBack({r, degrees[r], 0});
        while (!frontier.Empty()) {
            const CMK_Node c = frontier.PopBack();
            ++position;
            if (inverse)
                p[c.node] = position;
            else
                p[position] = c.node;
            for (const int* it = out.begin(c.node); it != out.end(c.node); ++it)
                if (!visited[*it]) {
                    heap.Push({*it, degrees[*it], c.level + 1});
                    visited[*it] = 1;
                }
            for (const int* it = in.begin(c.node); it != in.end(c.node); ++it)
                if (!visited[*it]) {
                    heap.Push({*it, degrees[*it], c.level + 1});
                    visited[*it] = 1;
                }
            while (!heap.Empty())
                frontier.PushBack(heap.Pop());
        }
    }
    if (reversed)
        for (int k = 0; k < n / 2; ++k)
            std::swap(p[k], p[n - 1 - k]);
    return p;
}

CDisjointSets CDiGraph::block_partition(int blocks)
{
    const int n = nodes();
    CDisjointSets sets(static_cast<unsigned int>(n));
    const TPermutation<int> p = bandwidth_reduction(false, false);
    if (n == 0 || blocks <= 0)
        return sets;
    const long long m =
        std::max(2LL, std::min(static_cast<long long>(n) + 1, static_cast<long long>(blocks) + 1));
    const double step = static_cast<double>(n) / static_cast<double>(m - 1);
    auto boundary = [&](long long i) {
        return static_cast<int>(std::floor(static_cast<double>(i) * step + 0.5));
    };
    for (long long i = 0; i + 1 < m; ++i) {
        const int a = boundary(i);
        const int b = boundary(i + 1);
        for (int j = a + 1; j < b; ++j)
            sets.Unify(p[j - 1], p[j]);
    }
    return sets;
}

// --- GraphViz ---------------------------------------------------------------------------------------

bool CDiGraph::dump_GraphViz(const std::string& path, const std::string& name,
                             std::function<std::string(const Any&)> edgeLabel,
                             std::function<std::string(const Any&)> nodeLabel,
                             const std::string& nodeAttributes) const
{
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "w"), &std::fclose);
    if (!file)
        return false;
    FILE* f = file.get();
    std::fprintf(
        f, "digraph \"%s\" {\n\tnode [%s];\n\tratio = compress;\n\tsplines = true;\n\tconcentrate = true;\n",
        name.c_str(), nodeAttributes.c_str());
    const int n = nodes();
    if (nodeLabel)
        for (int i = 0; i < n; ++i)
            if (m_nodes[i].data)
                std::fprintf(f, "\tv%d [label=\"%s\"];\n", i, nodeLabel(m_nodes[i].data).c_str());

    // The condensation depends on the topology only.
    CDiGraph dag = clone_topology().make_SCC_DAG(nullptr);
    const int count = dag.nodes();
    std::vector<int> component(n, 0);
    for (int c = 0; c < count; ++c)
        for (const int member : dag.m_nodes[c].data.as<std::vector<int>>())
            component[member] = c;

    auto writeEdge = [&](const char* indent, const Edge& e) {
        if (edgeLabel && e.data)
            std::fprintf(f, "%sv%i -> v%i [label=\"%s\"];\n", indent, e.from, e.to,
                         edgeLabel(e.data).c_str());
        else
            std::fprintf(f, "%sv%i -> v%i;\n", indent, e.from, e.to);
    };
    // The edges leaving the members of one component, in the order the output walks them: target
    // component, then source member, then target member (member lists are ascending).
    std::vector<const Edge*> leaving;
    auto collect = [&](const std::vector<int>& members) {
        leaving.clear();
        for (const int a : members)
            for (const Edge& e : m_adjacency[a])
                leaving.push_back(&e);
        std::sort(leaving.begin(), leaving.end(), [&](const Edge* x, const Edge* y) {
            if (component[x->to] != component[y->to])
                return component[x->to] < component[y->to];
            if (x->from != y->from)
                return x->from < y->from;
            return x->to < y->to;
        });
    };

    int cluster = 1;
    for (int c = 0; c < count; ++c) {
        const std::vector<int>& members = dag.m_nodes[c].data.as<std::vector<int>>();
        if (members.size() < 2)
            continue;
        std::fprintf(
            f, "\tsubgraph cluster_%d {\n\t\tlabel=\"SCC #%d\";\n\t\tcolor = purple;\n\t\tstyle = dashed;\n",
            cluster, cluster);
        collect(members);
        for (const Edge* e : leaving)
            if (component[e->to] == c)
                writeEdge("\t\t", *e);
        std::fprintf(f, "\t}\n");
        ++cluster;
    }
    for (int c = 0; c < count; ++c) {
        const std::vector<int>& members = dag.m_nodes[c].data.as<std::vector<int>>();
        collect(members);
        for (const Edge* e : leaving)
            if (component[e->to] != c)
                writeEdge("\t", *e);
        if (members.size() == 1) {
            const int a = members[0];
            if (const Edge* loop = m_adjacency[a].find(a)) {
                if (edgeLabel)
                    std::fprintf(f, "\tv%i -> v%i [label=\"%s\"];\n", a, a, edgeLabel(loop->data).c_str());
                else
                    std::fprintf(f, "\tv%i -> v%i;\n", a, a);
            }
        }
    }
    for (int i = 0; i < n; ++i)
        if (m_adjacency[i].empty())
            std::fprintf(f, "\tv%d;\n", i);
    std::fprintf(f, "}\n");
    return true;
}

} // namespace DataLayer
