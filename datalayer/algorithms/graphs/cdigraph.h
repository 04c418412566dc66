#pragma once
// DataLayer::CDiGraph: a directed graph over the dense node numbers 0..n-1 with an Any payload on
// every node and every edge, and its algorithms (traversals, orders, components, cut nodes and
// bridges, all-pairs shortest paths, spanning forest, colouring, bandwidth reduction, GraphViz).
//
// Ownership: the graph owns its node records, edges and payloads; copies are deep, a move leaves
// the source empty. Node and edge pointers and edge iterators are invalidated by any change of the
// container they point into; bfs/dfs iterators point at the graph, which must outlive them and
// stay unchanged while they are used.
// Threads: no locks. Traversals write their marks (colour, times, predecessor) into the node
// records, so they need exclusive use of the graph; const members may run side by side.
// Adjacency: one map per node keyed by the target, hashing the four bytes of the int with 64-bit
// FNV-1a, iterating in insertion order of the edges; every traversal follows that order.
// No depth limit: every depth-first search runs on an explicit stack and visits exactly as the
// recursive formulation would, so a path of millions of nodes is fine.
// Choices where behaviour was open:
// - permute and make_sub_graph keep edge payloads; get_symmetric_graph gives edges without payload.
// - permute ignores (like a wrong size) a p whose entries are not a permutation of 0..n-1.
// - make_sub_graph: a listed number that is not a node gives an isolated new node; a node listed
//   twice receives the edges into it at its first listing.
// - dag_schedule on a non-empty graph in which every node lies on or behind a cycle returns no
//   lists and *layers = 0.
// - dfs_iterator walks the reached nodes in decreasing finishing time, from start (finished last)
//   down to the first node that finished.
// - Weight callbacks of APSP and MST are taken as pure functions: MST evaluates each edge's weight
//   once and orders by those values.
// - bfs skips seeds that are no nodes or repeat; DFS takes the entries of a shorter order as roots
//   and then every node it left out, ascending; topological_sort re-sizes an order of another
//   non-zero size to n before filling it.
// - bandwidth_reduction numbers from the newest end of its frontier as described, which behaves
//   like a depth-first numbering: on meshes its bandwidth is far above classic Cuthill-McKee's.
// - Allocation failure (std::bad_alloc) is the only exception besides std::bad_function_call from
//   an empty weight callback; APSP needs two n x n arrays.

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "datalayer/algorithms/codecs/any.h"
#include "datalayer/algorithms/graphs/cdisjointsets.h"
#include "datalayer/algorithms/graphs/graphworkspace.h"
#include "datalayer/algorithms/numeric/tpermutation.h"

namespace DataLayer {

class CDiGraph
{
public:
    enum ENodeColor
    {
        eWhite = 0, ///< not reached
        eGray = 1,  ///< discovered
        eBlack = 2  ///< finished
    };

    static constexpr int NULL_NODE = std::numeric_limits<int>::min();
    static constexpr int NULL_PRED = std::numeric_limits<int>::min();

    struct Node
    {
        int id = NULL_NODE;
        ENodeColor color = eWhite;
        int finish = -1;
        int distance = -1;
        int pred = NULL_PRED;
        Any data;
    };

    /// An edge record. Assignment copies the ends only and keeps the target's payload; copy
    /// construction copies the payload too.
    struct Edge
    {
        int from = NULL_NODE;
        int to = NULL_NODE;
        Any data;

        Edge() = default;
        Edge(int f, int t) : from(f), to(t) {}
        Edge(const Edge&) = default;
        Edge(Edge&&) noexcept = default;
        Edge& operator=(const Edge& other)
        {
            from = other.from;
            to = other.to;
            return *this;
        }
        ~Edge() = default;
    };

    /// The edges leaving one node, keyed by target, in insertion order (see the header comment).
    class AdjacencyMap
    {
    public:
        AdjacencyMap() = default;
        AdjacencyMap(const AdjacencyMap&) = default;
        AdjacencyMap(AdjacencyMap&&) noexcept = default;
        /// Deep copy, payloads included (copy and swap: Edge assignment would drop payloads).
        AdjacencyMap& operator=(const AdjacencyMap& other);
        AdjacencyMap& operator=(AdjacencyMap&&) noexcept = default;

        int size() const { return static_cast<int>(m_edges.size()); }
        bool empty() const { return m_edges.empty(); }
        Edge* find(int to) { return const_cast<Edge*>(static_cast<const AdjacencyMap*>(this)->find(to)); }
        const Edge* find(int to) const
        {
            const int k = indexOf(to);
            return k < 0 ? nullptr : &m_edges[k];
        }
        /// The edge to `to`, appended with the given ends when missing.
        Edge& findOrAdd(int from, int to);
        /// Appends an edge whose target the caller knows to be absent.
        Edge& appendNew(Edge&& edge);
        bool erase(int to);
        void clear()
        {
            m_edges.clear();
            m_index.clear();
        }
        void reserve(int n) { m_edges.reserve(n); }
        Edge* begin() { return m_edges.data(); }
        Edge* end() { return m_edges.data() + m_edges.size(); }
        const Edge* begin() const { return m_edges.data(); }
        const Edge* end() const { return m_edges.data() + m_edges.size(); }
        const Edge& operator[](int k) const { return m_edges[k]; }
        Edge& operator[](int k) { return m_edges[k]; }
        /// Rebuilds the hash index after the keys were rewritten in place.
        void reindex();

    private:
        static constexpr int m_ciLinearLimit = 8; ///< up to this many edges a scan beats hashing
        static std::uint64_t hashKey(int key)
        {
            std::uint64_t h = 0xCBF29CE484222325ull;
            const auto k = static_cast<std::uint32_t>(key);
            for (int i = 0; i < 4; ++i) {
                h ^= (k >> (8 * i)) & 0xFFu;
                h *= 0x100000001B3ull;
            }
            return h;
        }
        int indexOf(int to) const;
        void indexInsert(int k);

        std::vector<Edge> m_edges;
        std::vector<int> m_index; ///< open addressing over m_edges positions, -1 empty; used above the limit
    };

    class node_iterator
    {
    public:
        node_iterator(CDiGraph* graph, Node* node) : m_graph(graph), m_node(node) {}
        Node& operator*() const { return *m_node; }
        Node* operator->() const { return m_node; }
        node_iterator& operator++()
        {
            ++m_node;
            return *this;
        }
        bool operator==(const node_iterator& other) const { return m_node == other.m_node; }
        bool operator!=(const node_iterator& other) const { return m_node != other.m_node; }

    private:
        CDiGraph* m_graph;
        Node* m_node;
    };

    template <typename E> class TEdgeIterator
    {
    public:
        TEdgeIterator(E* position, E* end) : m_position(position), m_end(end) {}
        E& operator*() const { return *m_position; }
        E* operator->() const { return m_position; }
        TEdgeIterator& operator++()
        {
            ++m_position;
            return *this;
        }
        bool operator==(const TEdgeIterator& other) const { return m_position == other.m_position; }
        bool operator!=(const TEdgeIterator& other) const { return m_position != other.m_position; }
        /// Range-for over the rest of the list.
        TEdgeIterator begin() const { return *this; }
        TEdgeIterator end() const { return TEdgeIterator(m_end, m_end); }

    private:
        E* m_position;
        E* m_end;
    };
    using edge_iterator = TEdgeIterator<Edge>;
    using const_edge_iterator = TEdgeIterator<const Edge>;

    /// Frontier walk that takes nodes from the end it fills (last in, first out); see bfs().
    class bfs_iterator
    {
    public:
        Node& operator*() const { return m_graph->m_nodes[m_current]; }
        Node* operator->() const { return &m_graph->m_nodes[m_current]; }
        bfs_iterator& operator++();
        /// The node it stands on, NULL_NODE at the end.
        int current() const { return m_current; }
        bool at_end() const { return m_current == NULL_NODE; }

    private:
        friend class CDiGraph;
        explicit bfs_iterator(CDiGraph& graph);

        CDiGraph* m_graph;
        detail::TRingBuffer<int> m_frontier;
        int m_current = NULL_NODE;
    };

    /// The nodes reached from a start, by decreasing finishing time of a depth-first visit.
    class dfs_iterator
    {
    public:
        Node& operator*() const { return m_graph->m_nodes[m_finished[m_position]]; }
        Node* operator->() const { return &m_graph->m_nodes[m_finished[m_position]]; }
        dfs_iterator& operator++()
        {
            --m_position;
            return *this;
        }
        /// The node it stands on, NULL_NODE at the end.
        int current() const { return m_position >= 0 ? m_finished[m_position] : NULL_NODE; }
        bool at_end() const { return m_position < 0; }
        int start() const { return m_start; }
        /// Number of nodes the visit reached (and finished).
        int count() const { return m_count; }

    private:
        friend class CDiGraph;
        dfs_iterator(CDiGraph& graph, int start);

        CDiGraph* m_graph;
        int m_start;
        TPermutation<int> m_finished;
        int m_count = 0;
        int m_position = -1;
    };

    /// All-pairs shortest paths: n x n row-major arrays, entry i*n + j.
    struct APSP_data
    {
        int size = 0;
        std::vector<float> dist; ///< +infinity where j can't be reached from i
        std::vector<int> next;   ///< first hop from i towards j, -1 where unreachable
    };

    // --- construction ------------------------------------------------------------------------------
    CDiGraph() = default;
    /// n nodes with id 0..n-1 and no edges; a negative n gives an empty graph.
    explicit CDiGraph(int n);
    CDiGraph(const CDiGraph&) = default;
    CDiGraph(CDiGraph&& other) noexcept;
    CDiGraph& operator=(const CDiGraph& other);
    CDiGraph& operator=(CDiGraph&& other) noexcept;
    ~CDiGraph() = default;

    void clear();
    /// Drops everything and creates n fresh nodes (negative n: none); existing edges are lost.
    void resize(int n);

    // --- nodes ------------------------------------------------------------------------------------
    Node& node(int u) { return m_nodes[u]; }
    const Node& node(int u) const { return m_nodes[u]; }
    Node& operator[](int u) { return m_nodes[u]; }
    const Node& operator[](int u) const { return m_nodes[u]; }
    /// Null for an index outside 0..n-1.
    Node* node_ptr(int u) { return exists(u) ? &m_nodes[u] : nullptr; }
    const Node* node_ptr(int u) const { return exists(u) ? &m_nodes[u] : nullptr; }
    int nodes() const { return static_cast<int>(m_nodes.size()); }
    bool empty() const { return m_nodes.empty(); }
    bool exists(int u) const { return u >= 0 && u < nodes(); }
    node_iterator begin() { return node_iterator(this, m_nodes.data()); }
    node_iterator end() { return node_iterator(this, m_nodes.data() + m_nodes.size()); }

    // --- edges ------------------------------------------------------------------------------------
    /// The edge u -> v, created (empty payload) when missing; null when u or v is out of range.
    Edge* edge_ptr(int u, int v)
    {
        if (!exists(u) || !exists(v))
            return nullptr;
        return &m_adjacency[u].findOrAdd(u, v);
    }
    /// The edge u -> v or null; never adds anything.
    const Edge* edge_ptr(int u, int v) const
    {
        if (!exists(u) || !exists(v))
            return nullptr;
        return m_adjacency[u].find(v);
    }
    /// As the adding edge_ptr, dereferenced; u and v must be valid.
    Edge& edge(int u, int v) { return m_adjacency[u].findOrAdd(u, v); }
    Edge& edge(const Edge& e) { return edge(e.from, e.to); }
    Edge& operator()(int u, int v) { return edge(u, v); }
    bool exists(int u, int v) const { return edge_ptr(u, v) != nullptr; }
    bool adj(int u, int v) const { return edge_ptr(u, v) != nullptr; }
    /// Removes u -> v; true when there was one. u must be valid.
    bool erase(int u, int v) { return m_adjacency[u].erase(v); }
    /// Total number of edges.
    int edges() const;
    edge_iterator begin(int u) { return edge_iterator(m_adjacency[u].begin(), m_adjacency[u].end()); }
    edge_iterator edges(int u) { return begin(u); }
    edge_iterator end(int u) { return edge_iterator(m_adjacency[u].end(), m_adjacency[u].end()); }
    const_edge_iterator begin(int u) const
    {
        return const_edge_iterator(m_adjacency[u].begin(), m_adjacency[u].end());
    }
    const_edge_iterator edges(int u) const { return begin(u); }
    const_edge_iterator end(int u) const
    {
        return const_edge_iterator(m_adjacency[u].end(), m_adjacency[u].end());
    }
    /// The adjacency map of u (read-only), in adjacency order.
    const AdjacencyMap& out_edges(int u) const { return m_adjacency[u]; }

    // --- degrees (u must be valid) ------------------------------------------------------------------
    /// Edges leaving u, a self-loop included.
    int degree_out(int u) const { return m_adjacency[u].size(); }
    /// Other nodes with an edge to u (one lookup per node; a self-loop is not counted).
    int degree_in(int u) const;
    int degree(int u) const { return degree_in(u) + degree_out(u); }
    /// Out- plus in-edges of every node in one pass; a self-loop counts twice.
    std::vector<int> node_degrees() const;

    // --- marks ------------------------------------------------------------------------------------
    void colorize(ENodeColor c);
    void reset_marks();

    // --- derived graphs ---------------------------------------------------------------------------
    /// Reverses every edge in place, payloads moved along.
    void transpose();
    CDiGraph get_transposed() const;
    /// Same node count and edges, default node records, no payloads.
    CDiGraph clone_topology() const;
    /// All node records; for each linked pair of distinct nodes, edges both ways without payload.
    CDiGraph get_symmetric_graph() const;
    /// The graph induced by the listed nodes: new node i stands for nodes[i]. mapping, if its size is
    /// above 0, receives mapping[i] = nodes[i] for the positions it has.
    CDiGraph make_sub_graph(const std::vector<int>& nodes, TPermutation<int>& mapping) const;
    /// Old node i becomes node p[i]. Nothing happens when the graph is empty or p is no
    /// permutation of 0..n-1 (wrong size included).
    void permute(const TPermutation<int>& p);

    // --- text form --------------------------------------------------------------------------------
    /// "n u k t1 .. tk ..." for the nodes with edges, ascending; nothing on a bad stream.
    void serialize(std::ostream& out) const;
    /// Reads the text form until extraction fails; out-of-range edges are skipped; an empty graph
    /// from a bad stream or a negative node count.
    static CDiGraph deserialize(std::istream& in);

    // --- traversals (write the node marks) ---------------------------------------------------------
    bfs_iterator bfs(int start);
    bfs_iterator bfs(const std::vector<int>& seeds);
    dfs_iterator dfs(int start);
    void DFS(const TPermutation<int>& order);
    void DFS(const TPermutation<int>& order, TPermutation<int>& finished);
    int farthest_node(int start);
    int search_farthest_node(int start);

    // --- order ------------------------------------------------------------------------------------
    bool topological_sort(TPermutation<int>& order, bool invert);
    TPermutation<int> topological_sort_cyclic(bool invert, std::function<bool(int, int)> less);
    bool is_acyclic();
    bool is_loop_free() const;
    std::vector<int> longest_path_layering(int* layers) const;
    std::vector<std::vector<int>> dag_schedule(int* layers) const;

    // --- components -------------------------------------------------------------------------------
    CDisjointSets find_CCs() const;
    int count_CCs() const;
    CDiGraph make_SCC_DAG(CDiGraph* transposed);
    int count_SCCs();
    std::vector<int> find_articulation_nodes() const;
    std::vector<std::pair<int, int>> find_bridges(bool directed) const;

    // --- weights and colouring ---------------------------------------------------------------------
    /// Floyd-Warshall in floats; throws std::bad_function_call when weight is empty.
    APSP_data APSP(std::function<float(const Edge&)> weight) const;
    /// Kruskal spanning forest; throws std::bad_function_call when weight is empty.
    CDiGraph MST(std::function<double(int, int)> weight);
    std::vector<int> node_coloring(int* colors) const;
    CDisjointSets node_coloring() const;

    // --- bandwidth and output ---------------------------------------------------------------------
    TPermutation<int> bandwidth_reduction(bool inverse, bool reversed);
    CDisjointSets block_partition(int blocks);
    /// Writes the DOT text; false when the file can't be opened.
    bool dump_GraphViz(const std::string& path, const std::string& name,
                       std::function<std::string(const Any&)> edgeLabel,
                       std::function<std::string(const Any&)> nodeLabel,
                       const std::string& nodeAttributes) const;

private:
    /// Compact marks of one depth-first search (defined with the algorithms); the records receive
    /// them in one sequential pass when the search ends.
    struct SearchMarks;
    void store_marks(const SearchMarks& marks);

public:
    /// Raw view of those marks for the search workers (not for clients).
    struct SearchMarksView
    {
        unsigned char* color;
        int* distance;
        int* finish;
        int* pred;
    };

private:
    std::vector<Node> m_nodes;
    std::vector<AdjacencyMap> m_adjacency;
};

} // namespace DataLayer
