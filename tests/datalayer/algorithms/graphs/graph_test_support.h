#pragma once
// Helpers of the graph tests: seeded random graphs and reference computations written the plain
// recursive way, to check the library's explicit-stack searches step for step.
#include <algorithm>
#include <cstdlib>
#include <random>
#include <utility>
#include <vector>

#include "datalayer/algorithms/graphs/cdigraph.h"

namespace graphtest {

/// n nodes, m attempted edges with uniform ends (self-loops allowed, repeats merge).
inline DataLayer::CDiGraph RandomGraph(std::mt19937& engine, int n, int m)
{
    DataLayer::CDiGraph g(n);
    for (int k = 0; k < m; ++k)
        g.edge(static_cast<int>(engine() % n), static_cast<int>(engine() % n));
    return g;
}

/// Edges only from lower to higher numbers: acyclic.
inline DataLayer::CDiGraph RandomDag(std::mt19937& engine, int n, int m)
{
    DataLayer::CDiGraph g(n);
    for (int k = 0; k < m; ++k) {
        int a = static_cast<int>(engine() % n), b = static_cast<int>(engine() % n);
        if (a == b)
            continue;
        if (a > b)
            std::swap(a, b);
        g.edge(a, b);
    }
    return g;
}

struct Marks
{
    std::vector<int> distance, finish, pred, finished;
    bool acyclic = true;
};

/// The recursive depth-first visit as written: times, predecessors and finishing order.
inline void VisitRecursive(const DataLayer::CDiGraph& g, int u, int& time, Marks& m, std::vector<int>& color,
                           bool topological)
{
    color[u] = 1;
    m.distance[u] = ++time;
    for (const DataLayer::CDiGraph::Edge& e : g.edges(u)) {
        if (topological && e.to == u)
            continue;
        if (color[e.to] == 1 && topological)
            m.acyclic = false;
        if (color[e.to] == 0) {
            m.pred[e.to] = u;
            VisitRecursive(g, e.to, time, m, color, topological);
        }
    }
    m.finished.push_back(u);
    color[u] = 2;
    m.finish[u] = ++time;
}

inline Marks ReferenceDFS(const DataLayer::CDiGraph& g, const std::vector<int>& roots, bool topological)
{
    const int n = g.nodes();
    Marks m;
    m.distance.assign(n, -1);
    m.finish.assign(n, -1);
    m.pred.assign(n, DataLayer::CDiGraph::NULL_PRED);
    std::vector<int> color(n, 0);
    int time = 0;
    for (int r : roots)
        if (color[r] == 0)
            VisitRecursive(g, r, time, m, color, topological);
    return m;
}

/// Articulation nodes and bridges by the recursive low-point search on the symmetric graph.
struct CutResult
{
    std::vector<int> articulation;
    std::vector<std::pair<int, int>> bridges;
};

inline void CutVisit(const DataLayer::CDiGraph& s, int u, std::vector<int>& disc, std::vector<int>& low,
                     std::vector<int>& parent, int& time, std::vector<char>& marked,
                     std::vector<int>& children, CutResult& r)
{
    disc[u] = low[u] = time++;
    for (const DataLayer::CDiGraph::Edge& e : s.edges(u)) {
        const int v = e.to;
        if (disc[v] < 0) {
            parent[v] = u;
            CutVisit(s, v, disc, low, parent, time, marked, children, r);
            low[u] = std::min(low[u], low[v]);
            if (parent[u] == DataLayer::CDiGraph::NULL_NODE) {
                if (++children[u] >= 2)
                    marked[u] = 1;
            } else if (low[v] >= disc[u]) {
                marked[u] = 1;
            }
            if (low[v] > disc[u])
                r.bridges.emplace_back(u, v);
        } else if (v != parent[u]) {
            low[u] = std::min(low[u], disc[v]);
        }
    }
}

inline CutResult ReferenceCuts(const DataLayer::CDiGraph& g)
{
    const DataLayer::CDiGraph s = g.get_symmetric_graph();
    const int n = s.nodes();
    std::vector<int> disc(n, -1), low(n, -1), parent(n, DataLayer::CDiGraph::NULL_NODE), children(n, 0);
    std::vector<char> marked(n, 0);
    int time = 0;
    CutResult r;
    for (int u = 0; u < n; ++u)
        if (disc[u] < 0)
            CutVisit(s, u, disc, low, parent, time, marked, children, r);
    for (int u = 0; u < n; ++u)
        if (marked[u])
            r.articulation.push_back(u);
    return r;
}

/// max |position(u) - position(v)| over all edges, for p mapping positions to nodes.
inline int Bandwidth(const DataLayer::CDiGraph& g, const DataLayer::TPermutation<int>& positionToNode)
{
    const int n = g.nodes();
    std::vector<int> position(n);
    for (int k = 0; k < n; ++k)
        position[positionToNode[k]] = k;
    int b = 0;
    for (int u = 0; u < n; ++u)
        for (const DataLayer::CDiGraph::Edge& e : g.edges(u))
            b = std::max(b, std::abs(position[u] - position[e.to]));
    return b;
}

/// The described bandwidth ordering written literally, on the transposed graph with a full clear of
/// the visited marks on every peripheral pass and a plain binary heap with the same stepping.
struct CmkRecord
{
    int node, degree, level;
};

inline void HeapPush(std::vector<CmkRecord>& h, CmkRecord x)
{
    h.push_back(x);
    for (std::size_t i = h.size() - 1; i > 0 && h[i].degree < h[(i - 1) / 2].degree; i = (i - 1) / 2)
        std::swap(h[i], h[(i - 1) / 2]);
}

inline CmkRecord HeapPop(std::vector<CmkRecord>& h)
{
    const CmkRecord top = h.front();
    h.front() = h.back();
    h.pop_back();
    std::size_t i = 0;
    for (;;) {
        const std::size_t l = 2 * i + 1, r = l + 1;
        std::size_t best = l < h.size() && h[l].degree < h[i].degree ? l : i;
        if (r < h.size() && h[r].degree < h[best].degree)
            best = r;
        if (best == i)
            return top;
        std::swap(h[i], h[best]);
        i = best;
    }
}

inline int ReferencePeripheral(const DataLayer::CDiGraph& g, const DataLayer::CDiGraph& t,
                               const std::vector<int>& degrees, int start)
{
    std::vector<CmkRecord> stack; // the ring buffer used from one end only
    std::vector<char> visited(g.nodes(), 0);
    CmkRecord best{start, degrees[start], 0};
    int previous = 0;
    visited[start] = 1;
    stack.push_back(best);
    for (;;) {
        while (!stack.empty()) {
            const CmkRecord c = stack.back();
            stack.pop_back();
            if (c.level > best.level || (c.node != best.node && c.degree > best.degree))
                best = c;
            for (const DataLayer::CDiGraph* graph : {&g, &t})
                for (const DataLayer::CDiGraph::Edge& e : graph->edges(c.node))
                    if (!visited[e.to]) {
                        visited[e.to] = 1;
                        stack.push_back({e.to, degrees[e.to], c.level + 1});
                    }
        }
        if (previous >= best.level)
            return best.node;
        previous = best.level;
        std::fill(visited.begin(), visited.end(), 0);
        visited[best.node] = 1;
        best.level = 0;
        stack.push_back(best);
    }
}

inline std::vector<int> ReferenceBandwidthOrder(const DataLayer::CDiGraph& g)
{
    const int n = g.nodes();
    const DataLayer::CDiGraph t = g.get_transposed();
    const std::vector<int> degrees = g.node_degrees();
    std::vector<int> order;
    std::vector<char> visited(n, 0);
    std::vector<CmkRecord> heap, stack;
    while (static_cast<int>(order.size()) < n) {
        int s = 0;
        while (visited[s])
            ++s;
        const int r = ReferencePeripheral(g, t, degrees, s);
        visited[r] = 1;
        stack.push_back({r, degrees[r], 0});
        while (!stack.empty()) {
            const CmkRecord c = stack.back();
            stack.pop_back();
            order.push_back(c.node);
            for (const DataLayer::CDiGraph* graph : {&g, &t})
                for (const DataLayer::CDiGraph::Edge& e : graph->edges(c.node))
                    if (!visited[e.to]) {
                        HeapPush(heap, {e.to, degrees[e.to], c.level + 1});
                        visited[e.to] = 1;
                    }
            while (!heap.empty())
                stack.push_back(HeapPop(heap));
        }
    }
    return order;
}

} // namespace graphtest
