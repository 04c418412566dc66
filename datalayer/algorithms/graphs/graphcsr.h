#pragma once
// Compressed adjacency lists (namespace DataLayer::detail, not for clients): the targets of every
// node in one array, in the adjacency order of the graph they were taken from. The const graph
// algorithms walk these instead of the hash maps; the transposed form lists, for every node, its
// sources in ascending order, which is exactly the adjacency order of CDiGraph::transpose().
// Ownership: owns its arrays. Threads: immutable after construction.

#include <vector>

namespace DataLayer::detail {

struct CCsrAdjacency
{
    std::vector<int> start;  ///< n + 1 offsets into target
    std::vector<int> target; ///< the neighbours of node u are target[start[u] .. start[u+1])

    int nodes() const { return start.empty() ? 0 : static_cast<int>(start.size()) - 1; }
    const int* begin(int u) const { return target.data() + start[u]; }
    const int* end(int u) const { return target.data() + start[u + 1]; }

    /// The out-lists of a graph (anything with nodes() and out_edges(u) yielding edges with `to`).
    template <typename Graph> static CCsrAdjacency FromGraph(const Graph& g)
    {
        const int n = g.nodes();
        CCsrAdjacency a;
        a.start.assign(n + 1, 0);
        for (int u = 0; u < n; ++u)
            a.start[u + 1] = a.start[u] + g.out_edges(u).size();
        a.target.resize(a.start[n]);
        int k = 0;
        for (int u = 0; u < n; ++u)
            for (const auto& e : g.out_edges(u))
                a.target[k++] = e.to;
        return a;
    }

    /// The reversed lists: for each v, the sources u of u -> v in ascending order of u.
    CCsrAdjacency Transposed() const
    {
        const int n = nodes();
        CCsrAdjacency t;
        t.start.assign(n + 1, 0);
        t.target.resize(target.size());
        for (const int v : target)
            ++t.start[v + 1];
        for (int v = 0; v < n; ++v)
            t.start[v + 1] += t.start[v];
        std::vector<int> fill(t.start.begin(), t.start.end() - (n > 0 ? 1 : 0));
        for (int u = 0; u < n; ++u)
            for (const int* it = begin(u); it != end(u); ++it)
                t.target[fill[*it]++] = u;
        return t;
    }
};

} // namespace DataLayer::detail
