// CDiGraph: traversals, orders, layering, components, articulation nodes and bridges, all-pairs
// shortest paths, spanning forest and colouring. Every depth-first search here runs on an explicit
// stack of (node, next edge position) frames and makes the same steps in the same order as the
// recursive formulation.
#include <algorithm>
#include <limits>

#ifdef __SSE4_1__
#include <smmintrin.h>
#endif

#include "datalayer/algorithms/graphs/cdigraph.h"
#include "datalayer/algorithms/graphs/graphcsr.h"

namespace DataLayer {

namespace {

/// The symmetric graph's adjacency (as get_symmetric_graph builds it: nodes ascending, edges in
/// adjacency order, u -> v then v -> u, each pair once, no self-loops) without copying records.
detail::CCsrAdjacency symmetricAdjacency(const CDiGraph& g)
{
    const int n = g.nodes();
    // The pair {u, v} is added when first met: while walking u if v > u or v has no edge back to u;
    // otherwise it was added already while walking v.
    auto counted = [&](int u, int v) { return v != u && (v > u || !g.edge_ptr(v, u)); };
    detail::CCsrAdjacency a;
    a.start.assign(n + 1, 0);
    for (int u = 0; u < n; ++u)
        for (const CDiGraph::Edge& e : g.out_edges(u))
            if (counted(u, e.to)) {
                ++a.start[u + 1];
                ++a.start[e.to + 1];
            }
    for (int u = 0; u < n; ++u)
        a.start[u + 1] += a.start[u];
    a.target.resize(a.start[n]);
    std::vector<int> fill(a.start.begin(), a.start.end() - 1);
    for (int u = 0; u < n; ++u)
        for (const CDiGraph::Edge& e : g.out_edges(u))
            if (counted(u, e.to)) {
                a.target[fill[u]++] = e.to;
                a.target[fill[e.to]++] = u;
            }
    return a;
}

struct CsrFrame
{
    int node;
    const int* next;
};

} // namespace

// --- frontier walk ----------------------------------------------------------------------------------

CDiGraph::bfs_iterator::bfs_iterator(CDiGraph& graph) : m_graph(&graph), m_frontier(graph.nodes()) {}

CDiGraph::bfs_iterator& CDiGraph::bfs_iterator::operator++()
{
    if (m_frontier.Empty()) {
        m_current = NULL_NODE;
        return *this;
    }
    const int u = m_frontier.PopBack();
    Node* nodes = m_graph->m_nodes.data();
    const int depth = nodes[u].distance + 1;
    for (const Edge& e : m_graph->m_adjacency[u]) {
        Node& v = nodes[e.to];
        if (v.color == eWhite) {
            v.color = eGray;
            v.pred = u;
            v.distance = depth;
            m_frontier.PushBack(e.to);
        }
    }
    nodes[u].color = eBlack;
    m_current = u;
    return *this;
}

CDiGraph::bfs_iterator CDiGraph::bfs(int start)
{
    return bfs(std::vector<int>{start});
}

CDiGraph::bfs_iterator CDiGraph::bfs(const std::vector<int>& seeds)
{
    reset_marks();
    bfs_iterator it(*this);
    for (const int s : seeds) {
        // Invalid and repeated seeds are skipped: each node enters the frontier once.
        if (!exists(s) || m_nodes[s].color != eWhite)
            continue;
        m_nodes[s].color = eGray;
        m_nodes[s].distance = 0;
        it.m_frontier.PushBack(s);
    }
    ++it;
    return it;
}

int CDiGraph::farthest_node(int start)
{
    if (!exists(start))
        return NULL_NODE;
    const Node* best = nullptr;
    for (bfs_iterator it = bfs(start); !it.at_end(); ++it)
        if (!best || it->distance > best->distance)
            best = &*it;
    return best->id;
}

int CDiGraph::search_farthest_node(int start)
{
    if (!exists(start))
        return NULL_NODE;
    int bestId = NULL_NODE;
    int bestDistance = -1;
    for (bfs_iterator it = bfs(start); !it.at_end(); ++it)
        if (bestId == NULL_NODE || it->distance > bestDistance) {
            bestId = it->id;
            bestDistance = it->distance;
        }
    return bestId;
}

// --- depth-first search -----------------------------------------------------------------------------
//
// The searches keep their marks in compact arrays while they run (a byte of colour per node instead of
// a 56-byte record touched at random) and store them into the node records at the end, which leaves
// the same records as marking them on the way.

struct CDiGraph::SearchMarks
{
    explicit SearchMarks(int n) : color(n, eWhite), distance(n, -1), finish(n, -1), pred(n, NULL_PRED) {}
    std::vector<unsigned char> color;
    std::vector<int> distance;
    std::vector<int> finish;
    std::vector<int> pred;
};

void CDiGraph::store_marks(const SearchMarks& marks)
{
    const int n = nodes();
    for (int u = 0; u < n; ++u) {
        Node& node = m_nodes[u];
        node.color = static_cast<ENodeColor>(marks.color[u]);
        node.distance = marks.distance[u];
        node.finish = marks.finish[u];
        node.pred = marks.pred[u];
    }
}

namespace {

/// Out-neighbours by position, from the graph's own maps.
struct MapTargets
{
    const CDiGraph& g;
    int size(int u) const { return g.out_edges(u).size(); }
    int at(int u, int k) const { return g.out_edges(u)[k].to; }
};

/// Out-neighbours by position, from compressed lists in the same order.
struct CsrTargets
{
    const detail::CCsrAdjacency& a;
    int size(int u) const { return a.start[u + 1] - a.start[u]; }
    int at(int u, int k) const { return a.target[a.start[u] + k]; }
};

struct Frame
{
    int node;
    int next; ///< position of the next edge to look at
};

/// The depth-first visit of root on an explicit stack: colour grey, discovery time, each white
/// target in adjacency order, then the finishing list, black and finishing time. In topological
/// mode self-loops are skipped, an edge to a grey node clears `acyclic`, and finished nodes are
/// written downwards from `position`; otherwise upwards. `out` may be null (no list).
template <bool Topological, typename Targets>
void visit(const Targets& adj, int root, int& time, CDiGraph::SearchMarksView marks,
           std::vector<Frame>& stack, int* out, int outSize, int& position, bool& acyclic)
{
    unsigned char* color = marks.color;
    color[root] = CDiGraph::eGray;
    marks.distance[root] = ++time;
    stack.push_back({root, 0});
    while (!stack.empty()) {
        Frame& frame = stack.back();
        const int u = frame.node;
        const int degree = adj.size(u);
        int k = frame.next;
        int v = -1;
        for (; k < degree; ++k) {
            const int t = adj.at(u, k);
            if constexpr (Topological) {
                if (t == u)
                    continue; // self-loops are no cycles here
                if (color[t] == CDiGraph::eGray)
                    acyclic = false;
            }
            if (color[t] == CDiGraph::eWhite) {
                v = t;
                break;
            }
        }
        if (v >= 0) {
            frame.next = k + 1;
            marks.pred[v] = u;
            color[v] = CDiGraph::eGray;
            marks.distance[v] = ++time;
            stack.push_back({v, 0});
            continue;
        }
        stack.pop_back();
        if constexpr (Topological) {
            if (out)
                out[position--] = u;
        } else {
            if (out && position < outSize)
                out[position++] = u;
        }
        color[u] = CDiGraph::eBlack;
        marks.finish[u] = ++time;
    }
}

} // namespace

void CDiGraph::DFS(const TPermutation<int>& order)
{
    TPermutation<int> none;
    DFS(order, none);
}

void CDiGraph::DFS(const TPermutation<int>& order, TPermutation<int>& finished)
{
    const int n = nodes();
    SearchMarks marks(n);
    const SearchMarksView view{marks.color.data(), marks.distance.data(), marks.finish.data(),
                               marks.pred.data()};
    const MapTargets adj{*this};
    int time = 0;
    int position = 0;
    bool unused = true;
    int* out = finished.Size() > 0 ? finished.Data() : nullptr;
    std::vector<Frame> stack;
    // Roots: the entries of order (invalid ones skipped), then every node order does not cover.
    const int given = std::min(order.Size(), n);
    for (int i = 0; i < n; ++i) {
        const int root = order.Size() > 0 ? (i < given ? order[i] : NULL_NODE) : i;
        if (exists(root) && marks.color[root] == eWhite)
            visit<false>(adj, root, time, view, stack, out, finished.Size(), position, unused);
    }
    if (order.Size() > 0 && order.Size() < n)
        for (int root = 0; root < n; ++root)
            if (marks.color[root] == eWhite)
                visit<false>(adj, root, time, view, stack, out, finished.Size(), position, unused);
    store_marks(marks);
}

CDiGraph::dfs_iterator::dfs_iterator(CDiGraph& graph, int start)
    : m_graph(&graph), m_start(start), m_finished(graph.nodes())
{
}

CDiGraph::dfs_iterator CDiGraph::dfs(int start)
{
    const int n = nodes();
    dfs_iterator it(*this, start);
    SearchMarks marks(n);
    if (exists(start)) {
        const SearchMarksView view{marks.color.data(), marks.distance.data(), marks.finish.data(),
                                   marks.pred.data()};
        int time = 0;
        int position = 0;
        bool unused = true;
        std::vector<Frame> stack;
        visit<false>(MapTargets{*this}, start, time, view, stack, it.m_finished.Data(), n, position, unused);
        it.m_count = position;
    }
    store_marks(marks);
    it.m_position = it.m_count - 1;
    return it;
}

// --- topological order ------------------------------------------------------------------------------

namespace {

/// The topological search over all nodes ascending; writes the order (when out is set) from the
/// back and returns whether no edge led to a grey node.
template <typename Targets>
bool topologicalSearch(const Targets& adj, int n, CDiGraph::SearchMarksView marks, int* out)
{
    int time = 0;
    int position = n - 1;
    bool acyclic = true;
    std::vector<Frame> stack;
    for (int i = 0; i < n; ++i)
        if (marks.color[i] == CDiGraph::eWhite)
            visit<true>(adj, i, time, marks, stack, out, n, position, acyclic);
    return acyclic;
}

} // namespace

bool CDiGraph::topological_sort(TPermutation<int>& order, bool invert)
{
    const int n = nodes();
    if (n == 0)
        return false;
    if (order.Size() > 0 && order.Size() != n)
        order = TPermutation<int>(n);
    SearchMarks marks(n);
    const SearchMarksView view{marks.color.data(), marks.distance.data(), marks.finish.data(),
                               marks.pred.data()};
    const bool acyclic =
        topologicalSearch(MapTargets{*this}, n, view, order.Size() > 0 ? order.Data() : nullptr);
    store_marks(marks);
    if (order.Size() > 0 && invert)
        order.Invert();
    return acyclic;
}

bool CDiGraph::is_acyclic()
{
    TPermutation<int> none;
    return topological_sort(none, false);
}

bool CDiGraph::is_loop_free() const
{
    for (int u = 0; u < nodes(); ++u)
        if (m_adjacency[u].find(u))
            return false;
    return true;
}

TPermutation<int> CDiGraph::topological_sort_cyclic(bool invert, std::function<bool(int, int)> less)
{
    const int n = nodes();
    TPermutation<int> result(n);
    CDiGraph dag = make_SCC_DAG(nullptr);
    const detail::CCsrAdjacency predecessors = detail::CCsrAdjacency::FromGraph(dag).Transposed();
    int written = 0;
    for (int c = 0; c < dag.nodes(); ++c) {
        const std::vector<int>& members = dag.m_nodes[c].data.as<std::vector<int>>();
        if (members.size() == 1) {
            result[written++] = members[0];
            continue;
        }
        int entry = members[0];
        if (predecessors.begin(c) != predecessors.end(c)) {
            const std::vector<int>& before = dag.m_nodes[*predecessors.begin(c)].data.as<std::vector<int>>();
            bool found = false;
            for (std::size_t a = 0; a < before.size() && !found; ++a)
                for (std::size_t b = 0; b < members.size() && !found; ++b)
                    if (adj(before[a], members[b])) { // the const look-up: nothing is added
                        entry = members[b];
                        found = true;
                    }
        } else if (less) {
            for (std::size_t k = 1; k < members.size(); ++k)
                if (less(members[k], entry))
                    entry = members[k];
        }
        TPermutation<int> mapping(static_cast<int>(members.size()));
        CDiGraph sub = make_sub_graph(members, mapping);
        const int local =
            static_cast<int>(std::find(members.begin(), members.end(), entry) - members.begin());
        for (bfs_iterator it = sub.bfs(local); !it.at_end(); ++it)
            result[written++] = mapping[it.current()];
    }
    if (invert)
        result.Invert();
    return result;
}

// --- layering ---------------------------------------------------------------------------------------

std::vector<int> CDiGraph::longest_path_layering(int* layers) const
{
    const int n = nodes();
    std::vector<int> incoming(n, 0);
    for (int u = 0; u < n; ++u)
        for (const Edge& e : m_adjacency[u])
            ++incoming[e.to];
    detail::TRingBuffer<int> queue(n);
    for (int u = 0; u < n; ++u)
        if (incoming[u] == 0)
            queue.PushBack(u);
    std::vector<int> result(n, 0);
    int layer = 0;
    while (!queue.Empty()) {
        for (int m = queue.Count(); m > 0; --m) {
            const int u = queue.PopFront();
            result[u] = layer;
            for (const Edge& e : m_adjacency[u])
                if (--incoming[e.to] == 0)
                    queue.PushBack(e.to);
        }
        ++layer;
    }
    if (layers)
        *layers = layer;
    return result;
}

std::vector<std::vector<int>> CDiGraph::dag_schedule(int* layers) const
{
    int count = 0;
    const std::vector<int> layer = longest_path_layering(&count);
    std::vector<std::vector<int>> schedule(count);
    if (count > 0)
        for (int u = 0; u < nodes(); ++u)
            schedule[layer[u]].push_back(u);
    if (layers)
        *layers = count;
    return schedule;
}

// --- components -------------------------------------------------------------------------------------

CDisjointSets CDiGraph::find_CCs() const
{
    CDisjointSets sets(static_cast<unsigned int>(nodes()));
    for (int u = 0; u < nodes(); ++u)
        for (const Edge& e : m_adjacency[u])
            sets.Unify(u, e.to);
    return sets;
}

int CDiGraph::count_CCs() const
{
    return static_cast<int>(find_CCs().GetNumClasses());
}

CDiGraph CDiGraph::make_SCC_DAG(CDiGraph* transposed)
{
    const int n = nodes();
    // The topological pass (decreasing finishing time, cyclic or not) on compressed lists in the
    // same order; the records get the same marks as from topological_sort.
    const detail::CCsrAdjacency out = detail::CCsrAdjacency::FromGraph(*this);
    TPermutation<int> order(n);
    if (n > 0) {
        SearchMarks marks(n);
        const SearchMarksView view{marks.color.data(), marks.distance.data(), marks.finish.data(),
                                   marks.pred.data()};
        topologicalSearch(CsrTargets{out}, n, view, order.Data());
        store_marks(marks);
    }

    // Each tree of the depth-first forest of the transpose, rooted in that order, is a component.
    std::vector<int> component(n, -1);
    int count = 0;
    if (transposed && transposed->nodes() == n) {
        transposed->DFS(order);
        for (int i = 0; i < n; ++i)
            if (transposed->m_nodes[i].pred == NULL_PRED)
                component[i] = count++;
        // Follow pred to the root, then give every node on the walk the root's number.
        std::vector<int> walk;
        for (int i = 0; i < n; ++i) {
            int r = i;
            while (component[r] < 0) {
                walk.push_back(r);
                r = transposed->m_nodes[r].pred;
            }
            for (const int w : walk)
                component[w] = component[r];
            walk.clear();
        }
    } else {
        // The trees hold the nodes reachable (in the transpose) from each root among those not yet
        // taken, whatever the visiting order inside a tree, so a plain stack walk finds them.
        const detail::CCsrAdjacency reverse = out.Transposed();
        std::vector<int> root(n, -1);
        std::vector<int> stack;
        for (int i = 0; i < n; ++i) {
            const int r = order[i];
            if (root[r] >= 0)
                continue;
            root[r] = r;
            stack.push_back(r);
            while (!stack.empty()) {
                const int u = stack.back();
                stack.pop_back();
                for (const int* it = reverse.begin(u); it != reverse.end(u); ++it)
                    if (root[*it] < 0) {
                        root[*it] = r;
                        stack.push_back(*it);
                    }
            }
        }
        for (int i = 0; i < n; ++i)
            if (root[i] == i)
                component[i] = count++;
        for (int i = 0; i < n; ++i)
            component[i] = component[root[i]];
    }

    CDiGraph dag(count);
    std::vector<std::vector<int>> members(count);
    for (int i = 0; i < n; ++i) {
        const int c = component[i];
        members[c].push_back(i);
        for (const int* it = out.begin(i); it != out.end(i); ++it) {
            const int d = component[*it];
            if (d != c)
                dag.m_adjacency[c].findOrAdd(c, d);
        }
    }
    for (int c = 0; c < count; ++c)
        dag.m_nodes[c].data = std::move(members[c]);

    if (count > 0) {
        TPermutation<int> position(count);
        dag.topological_sort(position, true);
        dag.permute(position);
    }
    return dag;
}

int CDiGraph::count_SCCs()
{
    return make_SCC_DAG(nullptr).nodes();
}

// --- articulation nodes and bridges -----------------------------------------------------------------

namespace {

/// Depth-first search over the symmetric graph keeping discovery times and low points. onChild is
/// called as (parent u, child v) when the child's subtree is done and low[u] has taken low[v].
template <typename OnChild>
void lowPointSearch(const detail::CCsrAdjacency& g, std::vector<int>& disc, std::vector<int>& low,
                    std::vector<int>& parent, OnChild onChild)
{
    const int n = g.nodes();
    disc.assign(n, -1);
    low.assign(n, -1);
    parent.assign(n, CDiGraph::NULL_NODE);
    int time = 0;
    std::vector<CsrFrame> stack;
    for (int r = 0; r < n; ++r) {
        if (disc[r] >= 0)
            continue;
        disc[r] = low[r] = time++;
        stack.push_back({r, g.begin(r)});
        while (!stack.empty()) {
            CsrFrame& frame = stack.back();
            const int u = frame.node;
            if (frame.next != g.end(u)) {
                const int v = *frame.next++;
                if (disc[v] < 0) {
                    parent[v] = u;
                    disc[v] = low[v] = time++;
                    stack.push_back({v, g.begin(v)});
                } else if (v != parent[u] && disc[v] < low[u]) {
                    low[u] = disc[v];
                }
                continue;
            }
            stack.pop_back();
            if (!stack.empty()) {
                const int p = stack.back().node;
                if (low[u] < low[p])
                    low[p] = low[u];
                onChild(p, u);
            }
        }
    }
}

} // namespace

std::vector<int> CDiGraph::find_articulation_nodes() const
{
    const detail::CCsrAdjacency sym = symmetricAdjacency(*this);
    const int n = nodes();
    std::vector<int> disc, low, parent;
    std::vector<int> children(n, 0);
    std::vector<char> marked(n, 0);
    lowPointSearch(sym, disc, low, parent, [&](int u, int v) {
        if (parent[u] == NULL_NODE) {
            if (++children[u] >= 2)
                marked[u] = 1;
        } else if (low[v] >= disc[u]) {
            marked[u] = 1;
        }
    });
    std::vector<int> result;
    for (int u = 0; u < n; ++u)
        if (marked[u])
            result.push_back(u);
    return result;
}

std::vector<std::pair<int, int>> CDiGraph::find_bridges(bool directed) const
{
    const detail::CCsrAdjacency sym = symmetricAdjacency(*this);
    std::vector<int> disc, low, parent;
    std::vector<std::pair<int, int>> bridges;
    lowPointSearch(sym, disc, low, parent, [&](int u, int v) {
        if (low[v] > disc[u])
            bridges.emplace_back(u, v);
    });
    if (!directed)
        return bridges;
    std::vector<std::pair<int, int>> oriented;
    oriented.reserve(bridges.size());
    for (const auto& [a, b] : bridges) {
        if (edge_ptr(a, b))
            oriented.emplace_back(a, b);
        if (edge_ptr(b, a))
            oriented.emplace_back(b, a);
    }
    return oriented;
}

// --- all pairs shortest paths -----------------------------------------------------------------------

namespace {

/// One relaxation sweep of row i over columns [j0, j1): dist[i][j] takes dist[k][j] + dist[i][k] when
/// that is smaller (an ordered comparison: false with NaN), and next[i][j] the first hop towards k.
/// Four columns at a time with SSE 4.1 where available; the sums and comparisons are the same IEEE
/// single-precision operations as the scalar loop, so the results are identical.
inline void relaxRow(float* rowI, int* nextI, const float* rowK, float dik, int nik, int j0, int j1)
{
    int j = j0;
#ifdef __SSE4_1__
    const __m128 dik4 = _mm_set1_ps(dik);
    const __m128i nik4 = _mm_set1_epi32(nik);
    for (; j + 4 <= j1; j += 4) {
        const __m128 sum = _mm_add_ps(_mm_loadu_ps(rowK + j), dik4);
        const __m128 current = _mm_loadu_ps(rowI + j);
        const __m128 better = _mm_cmpgt_ps(current, sum);
        _mm_storeu_ps(rowI + j, _mm_blendv_ps(current, sum, better));
        const __m128i hops = _mm_loadu_si128(reinterpret_cast<const __m128i*>(nextI + j));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(nextI + j),
                         _mm_blendv_epi8(hops, nik4, _mm_castps_si128(better)));
    }
#endif
    for (; j < j1; ++j) {
        const float sum = rowK[j] + dik;
        if (rowI[j] > sum) {
            rowI[j] = sum;
            nextI[j] = nik;
        }
    }
}

} // namespace

CDiGraph::APSP_data CDiGraph::APSP(std::function<float(const Edge&)> weight) const
{
    if (!weight)
        throw std::bad_function_call();
    const int n = nodes();
    APSP_data data;
    data.size = n;
    const std::size_t cells = static_cast<std::size_t>(n) * static_cast<std::size_t>(n);
    data.dist.assign(cells, std::numeric_limits<float>::infinity());
    data.next.assign(cells, -1);
    float* dist = data.dist.data();
    int* next = data.next.data();
    for (int u = 0; u < n; ++u)
        for (const Edge& e : m_adjacency[u]) {
            dist[static_cast<std::size_t>(u) * n + e.to] = weight(e);
            next[static_cast<std::size_t>(u) * n + e.to] = e.to;
        }
    for (int k = 0; k < n; ++k) {
        const float* rowK = dist + static_cast<std::size_t>(k) * n;
        for (int i = 0; i < n; ++i) {
            float* rowI = dist + static_cast<std::size_t>(i) * n;
            int* nextI = next + static_cast<std::size_t>(i) * n;
            // With dist[i][k] at +infinity or NaN no sum can be below dist[i][j]: skip the row.
            if (!(rowI[k] < std::numeric_limits<float>::infinity()))
                continue;
            // dist[i][k] itself may change at column k (a negative cycle), and the later columns
            // must see the new value, exactly as the plain triple loop does.
            relaxRow(rowI, nextI, rowK, rowI[k], nextI[k], 0, k);
            relaxRow(rowI, nextI, rowK, rowI[k], nextI[k], k, k + 1);
            relaxRow(rowI, nextI, rowK, rowI[k], nextI[k], k + 1, n);
        }
    }
    return data;
}

// --- spanning forest --------------------------------------------------------------------------------

CDiGraph CDiGraph::MST(std::function<double(int, int)> weight)
{
    if (!weight)
        throw std::bad_function_call();
    struct WeightedEdge
    {
        double weight;
        int from;
        int to;
    };
    auto less = [](const WeightedEdge& a, const WeightedEdge& b) { return a.weight < b.weight; };
    const int n = nodes();
    detail::TBoundedHeap<WeightedEdge, decltype(less)> heap(edges(), less);
    for (int u = 0; u < n; ++u)
        for (const Edge& e : m_adjacency[u])
            heap.Push({weight(u, e.to), u, e.to});

    CDisjointSets sets(static_cast<unsigned int>(n));
    CDiGraph forest;
    forest.m_nodes = m_nodes;
    forest.m_adjacency.resize(n);
    int taken = 0;
    while (taken < n - 1 && !heap.Empty()) {
        const WeightedEdge e = heap.Pop();
        if (sets.SameClass(e.from, e.to))
            continue;
        sets.Unify(e.from, e.to);
        forest.m_adjacency[e.from].appendNew(Edge(e.from, e.to));
        ++taken;
    }
    return forest;
}

// --- colouring --------------------------------------------------------------------------------------

std::vector<int> CDiGraph::node_coloring(int* colors) const
{
    const int n = nodes();
    if (n == 0) {
        if (colors)
            *colors = 0;
        return {};
    }
    std::vector<int> color(n, -1);
    const std::vector<int> degree = node_degrees();

    // Heap sort of the node numbers by falling degree; its exact steps settle equal degrees.
    std::vector<int> p(n);
    for (int i = 0; i < n; ++i)
        p[i] = i;
    auto sift = [&](int i, int end) {
        for (;;) {
            int best = 2 * i + 1 < end && degree[p[i]] > degree[p[2 * i + 1]] ? 2 * i + 1 : i;
            if (2 * i + 2 < end && degree[p[best]] > degree[p[2 * i + 2]])
                best = 2 * i + 2;
            if (best == i)
                return;
            std::swap(p[i], p[best]);
            i = best;
        }
    };
    for (int i = n / 2 - 1; i >= 0; --i)
        sift(i, n);
    for (int e = n - 1; e >= 1; --e) {
        std::swap(p[0], p[e]);
        sift(0, e);
    }

    // A node joins the current colour when none of its neighbours (either direction) has it: the
    // nodes of that colour are exactly the list of the described greedy step.
    const detail::CCsrAdjacency out = detail::CCsrAdjacency::FromGraph(*this);
    const detail::CCsrAdjacency in = out.Transposed();
    auto free = [&](int v, int c) {
        for (const int* it = out.begin(v); it != out.end(v); ++it)
            if (color[*it] == c)
                return false;
        for (const int* it = in.begin(v); it != in.end(v); ++it)
            if (color[*it] == c)
                return false;
        return true;
    };
    int c = 0;
    for (int k = 0; k < n; ++k) {
        const int u = p[k];
        if (color[u] >= 0)
            continue;
        color[u] = c;
        for (int j = k + 1; j < n; ++j) {
            const int v = p[j];
            if (color[v] < 0 && free(v, c))
                color[v] = c;
        }
        ++c;
    }
    if (colors)
        *colors = c;
    return color;
}

CDisjointSets CDiGraph::node_coloring() const
{
    int count = 0;
    const std::vector<int> color = node_coloring(&count);
    const int n = nodes();
    CDisjointSets sets(static_cast<unsigned int>(n));
    // Uniting i with every earlier node of its colour is the same as uniting it with the first one:
    // all earlier nodes of that colour already share a class.
    std::vector<int> first(count, -1);
    for (int i = 0; i < n; ++i) {
        int& f = first[color[i]];
        if (f < 0)
            f = i;
        else
            sets.Unify(i, f);
    }
    return sets;
}

} // namespace DataLayer
