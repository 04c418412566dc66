// CDiGraph: the data structure, growth, queries, derived graphs and the text form.
#include "datalayer/algorithms/graphs/cdigraph.h"

#include <istream>
#include <ostream>

namespace DataLayer {

// --- adjacency map ------------------------------------------------------------------------------------

CDiGraph::AdjacencyMap& CDiGraph::AdjacencyMap::operator=(const AdjacencyMap& other)
{
    if (this != &other) {
        AdjacencyMap copy(other);
        *this = std::move(copy);
    }
    return *this;
}

int CDiGraph::AdjacencyMap::indexOf(int to) const
{
    if (m_index.empty()) {
        const int n = size();
        for (int k = 0; k < n; ++k)
            if (m_edges[k].to == to)
                return k;
        return -1;
    }
    const std::size_t mask = m_index.size() - 1;
    for (std::size_t slot = hashKey(to) & mask;; slot = (slot + 1) & mask) {
        const int k = m_index[slot];
        if (k < 0)
            return -1;
        if (m_edges[k].to == to)
            return k;
    }
}

void CDiGraph::AdjacencyMap::indexInsert(int k)
{
    const std::size_t mask = m_index.size() - 1;
    std::size_t slot = hashKey(m_edges[k].to) & mask;
    while (m_index[slot] >= 0)
        slot = (slot + 1) & mask;
    m_index[slot] = k;
}

void CDiGraph::AdjacencyMap::reindex()
{
    m_index.clear();
    const int n = size();
    if (n <= m_ciLinearLimit)
        return;
    std::size_t capacity = 16;
    while (capacity < 2 * static_cast<std::size_t>(n))
        capacity *= 2;
    m_index.assign(capacity, -1);
    for (int k = 0; k < n; ++k)
        indexInsert(k);
}

CDiGraph::Edge& CDiGraph::AdjacencyMap::findOrAdd(int from, int to)
{
    const int k = indexOf(to);
    if (k >= 0)
        return m_edges[k];
    return appendNew(Edge(from, to));
}

CDiGraph::Edge& CDiGraph::AdjacencyMap::appendNew(Edge&& edge)
{
    m_edges.push_back(std::move(edge));
    const int n = size();
    if (n > m_ciLinearLimit) {
        // Keep the load at or below one half.
        if (m_index.size() < 2 * static_cast<std::size_t>(n))
            reindex();
        else
            indexInsert(n - 1);
    }
    return m_edges.back();
}

bool CDiGraph::AdjacencyMap::erase(int to)
{
    const int k = indexOf(to);
    if (k < 0)
        return false;
    // Shift the later edges down, payloads included, so the insertion order stays.
    const int n = size();
    for (int j = k; j + 1 < n; ++j) {
        m_edges[j].from = m_edges[j + 1].from;
        m_edges[j].to = m_edges[j + 1].to;
        m_edges[j].data = std::move(m_edges[j + 1].data);
    }
    m_edges.pop_back();
    reindex();
    return true;
}

// --- construction -------------------------------------------------------------------------------------

CDiGraph::CDiGraph(int n)
{
    resize(n);
}

CDiGraph::CDiGraph(CDiGraph&& other) noexcept
    : m_nodes(std::move(other.m_nodes)), m_adjacency(std::move(other.m_adjacency))
{
    other.m_nodes.clear();
    other.m_adjacency.clear();
}

CDiGraph& CDiGraph::operator=(const CDiGraph& other)
{
    if (this != &other) {
        CDiGraph copy(other);
        *this = std::move(copy);
    }
    return *this;
}

CDiGraph& CDiGraph::operator=(CDiGraph&& other) noexcept
{
    if (this != &other) {
        m_nodes = std::move(other.m_nodes);
        m_adjacency = std::move(other.m_adjacency);
        other.m_nodes.clear();
        other.m_adjacency.clear();
    }
    return *this;
}

void CDiGraph::clear()
{
    m_nodes.clear();
    m_adjacency.clear();
}

void CDiGraph::resize(int n)
{
    clear();
    if (n <= 0)
        return;
    m_nodes.resize(n);
    m_adjacency.resize(n);
    for (int i = 0; i < n; ++i)
        m_nodes[i].id = i;
}

// --- queries ------------------------------------------------------------------------------------------

int CDiGraph::edges() const
{
    int total = 0;
    for (const AdjacencyMap& map : m_adjacency)
        total += map.size();
    return total;
}

int CDiGraph::degree_in(int u) const
{
    int count = 0;
    const int n = nodes();
    for (int w = 0; w < n; ++w)
        if (w != u && m_adjacency[w].find(u))
            ++count;
    return count;
}

std::vector<int> CDiGraph::node_degrees() const
{
    const int n = nodes();
    std::vector<int> degrees(n, 0);
    for (int u = 0; u < n; ++u) {
        degrees[u] += m_adjacency[u].size();
        for (const Edge& e : m_adjacency[u])
            ++degrees[e.to];
    }
    return degrees;
}

void CDiGraph::colorize(ENodeColor c)
{
    for (Node& node : m_nodes)
        node.color = c;
}

void CDiGraph::reset_marks()
{
    for (Node& node : m_nodes) {
        node.color = eWhite;
        node.finish = -1;
        node.distance = -1;
        node.pred = NULL_PRED;
    }
}

// --- derived graphs -----------------------------------------------------------------------------------

void CDiGraph::transpose()
{
    const int n = nodes();
    std::vector<int> count(n, 0);
    for (int u = 0; u < n; ++u)
        for (const Edge& e : m_adjacency[u])
            ++count[e.to];
    std::vector<AdjacencyMap> reversed(n);
    for (int v = 0; v < n; ++v)
        reversed[v].reserve(count[v]);
    // Sources ascending, each in its adjacency order: that is the insertion order of the new maps.
    for (int u = 0; u < n; ++u) {
        for (Edge& e : m_adjacency[u]) {
            Edge r(e.to, u);
            r.data = std::move(e.data);
            reversed[e.to].appendNew(std::move(r));
        }
    }
    m_adjacency = std::move(reversed);
}

CDiGraph CDiGraph::get_transposed() const
{
    CDiGraph copy(*this);
    copy.transpose();
    return copy;
}

CDiGraph CDiGraph::clone_topology() const
{
    const int n = nodes();
    CDiGraph g(n);
    for (int u = 0; u < n; ++u) {
        g.m_adjacency[u].reserve(m_adjacency[u].size());
        for (const Edge& e : m_adjacency[u])
            g.m_adjacency[u].appendNew(Edge(u, e.to));
    }
    return g;
}

CDiGraph CDiGraph::get_symmetric_graph() const
{
    CDiGraph g;
    g.m_nodes = m_nodes;
    const int n = nodes();
    g.m_adjacency.resize(n);
    for (int u = 0; u < n; ++u) {
        for (const Edge& e : m_adjacency[u]) {
            if (e.to == u)
                continue;
            g.m_adjacency[u].findOrAdd(u, e.to);
            g.m_adjacency[e.to].findOrAdd(e.to, u);
        }
    }
    return g;
}

CDiGraph CDiGraph::make_sub_graph(const std::vector<int>& list, TPermutation<int>& mapping) const
{
    const int count = static_cast<int>(list.size());
    CDiGraph g(count);
    std::vector<int> position(nodes(), -1);
    for (int i = 0; i < count; ++i) {
        const int old = list[i];
        if (!exists(old))
            continue;
        g.m_nodes[i].data = m_nodes[old].data;
        if (position[old] < 0)
            position[old] = i;
    }
    for (int i = 0; i < count; ++i) {
        const int old = list[i];
        if (!exists(old))
            continue;
        for (const Edge& e : m_adjacency[old]) {
            const int target = position[e.to];
            if (target < 0)
                continue;
            Edge& added = g.m_adjacency[i].findOrAdd(i, target);
            added.data = e.data;
        }
    }
    const int mapped = mapping.Size() < count ? mapping.Size() : count;
    for (int i = 0; i < mapped; ++i)
        mapping[i] = list[i];
    return g;
}

void CDiGraph::permute(const TPermutation<int>& p)
{
    const int n = nodes();
    if (n == 0 || p.Size() != n)
        return;
    std::vector<char> seen(n, 0);
    for (int i = 0; i < n; ++i) {
        const int target = p[i];
        if (target < 0 || target >= n || seen[target])
            return;
        seen[target] = 1;
    }
    std::vector<Node> moved(n);
    std::vector<AdjacencyMap> adjacency(n);
    for (int i = 0; i < n; ++i) {
        moved[p[i]] = std::move(m_nodes[i]);
        AdjacencyMap& map = m_adjacency[i];
        for (Edge& e : map) {
            e.from = p[i];
            e.to = p[e.to];
        }
        map.reindex();
        adjacency[p[i]] = std::move(map);
    }
    for (int i = 0; i < n; ++i)
        moved[i].id = i;
    m_nodes = std::move(moved);
    m_adjacency = std::move(adjacency);
}

// --- text form ----------------------------------------------------------------------------------------

void CDiGraph::serialize(std::ostream& out) const
{
    if (!out.good())
        return;
    const int n = nodes();
    out << n;
    for (int u = 0; u < n; ++u) {
        const AdjacencyMap& map = m_adjacency[u];
        if (map.empty())
            continue;
        out << ' ' << u << ' ' << map.size();
        for (const Edge& e : map)
            out << ' ' << e.to;
    }
}

CDiGraph CDiGraph::deserialize(std::istream& in)
{
    CDiGraph g;
    if (!in.good())
        return g;
    int n = 0;
    if (!(in >> n) || n <= 0)
        return g;
    g.resize(n);
    int u = 0;
    int k = 0;
    while (in >> u >> k) {
        for (int j = 0; j < k; ++j) {
            int v = 0;
            if (!(in >> v))
                return g;
            g.edge_ptr(u, v);
        }
    }
    return g;
}

} // namespace DataLayer
