#pragma once
// THashTable: the chained hash table under THashMap and THashSet (thashmap.h, thashset.h), which
// are what clients use; this header holds the machinery they share.
//
// Layout: an array of bucket heads (new[]); bucket = hash(key) % bucket count (17 at
// construction); nodes (HElement: key, value for a map, next) come from the table's own
// LbPlexManager, one pop of a free list per insertion. With m_autoRehash set (the default), every
// insertion first, and every successful erasure afterwards, runs the load check Rehash(0): the
// float load count / buckets outside (0.2, 0.8) moves the table to the next prime above
// trunc(2.5f * count), at least 17 buckets. The primes come from Miller-Rabin with three witnesses
// drawn by the table's std::mt19937 (seed 5489), so bucket counts repeat from run to run.
// Order: buckets ascending, each chain from its head; a new element goes to the head of its chain,
// and a rehash reverses elements that move from one old chain into one new chain.
// Ownership: the table owns its elements, bucket array and pool; copies are deep and iterate in the
// same order. One thread at a time.
// Decisions where the behaviour was open:
// - An empty table made by the default constructor, left by a move, or cleared with the check on
//   holds no memory until its first insertion (construction and moves are noexcept); it reports
//   17 buckets.
// - A moved-from table keeps its own m_autoRehash flag; the target keeps its own random generator.
// - Rehash(n) for n equal to the current count still rebuilds the chains (and so reverses them).
// - Insert gives the strong guarantee: if the pool throws LbExceptionContainer, the bucket array
//   throws std::bad_alloc or a copy of key or value throws, the table is unchanged.
// - Erase never fails for lack of memory: if the shrunk bucket array can't be had, the table keeps
//   its bucket count. An explicit Rehash(n) whose array can't be had throws std::bad_alloc (or
//   std::bad_array_new_length) and leaves the table unchanged.
// - Iterators hold (table, bucket, element) and stay valid across rehashes: incrementing one after
//   a rehash continues with its element's successor in the new order. Erasing the element, Clear,
//   destruction and moving the table invalidate them.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <random>
#include <type_traits>
#include <utility>

#include "core/plexpool/lbplexmanager.h"

namespace DataLayer::detail {

/// Miller-Rabin round: true when the odd n > 2 passes for the witness a (1 < a < n). n < 2^32, so
/// every product fits in 64 bits.
inline bool MillerRabinPasses(std::uint64_t n, std::uint64_t a) noexcept
{
    std::uint64_t d = n - 1;
    int s = 0;
    while ((d & 1u) == 0) {
        d >>= 1;
        ++s;
    }
    std::uint64_t x = 1;
    std::uint64_t base = a % n;
    for (std::uint64_t e = d; e != 0; e >>= 1) {
        if (e & 1u)
            x = x * base % n;
        base = base * base % n;
    }
    if (x == 1 || x == n - 1)
        return true;
    for (int r = 1; r < s; ++r) {
        x = x * x % n;
        if (x == n - 1)
            return true;
    }
    return false;
}

/// The primality test of the bucket counts: a candidate above 0xFFFFFFFF is accepted untested; one
/// below 3 is accepted only if it is 2 (no witness is drawn); otherwise three witnesses, drawn
/// uniformly from [2, n - 1] one after the other, must all pass (the first failure stops the draws).
inline bool IsProbablePrime(std::uint64_t n, std::mt19937& engine)
{
    if (n > 0xFFFFFFFFull)
        return true;
    if (n < 3)
        return n == 2;
    if ((n & 1u) == 0)
        return false;
    std::uniform_int_distribution<std::uint64_t> witness(2, n - 1);
    for (int i = 0; i < 3; ++i)
        if (!MillerRabinPasses(n, witness(engine)))
            return false;
    return true;
}

/// The first odd number above n that IsProbablePrime accepts (n + 1 for even n, n + 2 for odd n,
/// then steps of 2). Saturates at UINT64_MAX where no odd number above n exists.
inline std::uint64_t NextPrime(std::uint64_t n, std::mt19937& engine)
{
    if (n >= UINT64_MAX - 1)
        return UINT64_MAX;
    for (std::uint64_t c = (n & 1u) ? n + 2 : n + 1;; c += 2)
        if (IsProbablePrime(c, engine))
            return c;
}

/// Element counts at which the load check acts for one bucket count: it leaves the table alone
/// exactly when shrinkAt < count < growAt, which is the float test 0.2f < count / buckets < 0.8f.
struct SLoadBounds
{
    std::uint64_t shrinkAt; ///< largest count whose load is 0.2 or less
    std::uint64_t growAt;   ///< smallest count whose load is 0.8 or more
};

/// The smallest n for which the monotone predicate holds (it must hold for UINT64_MAX).
template <typename Predicate> constexpr std::uint64_t FirstCountWhere(Predicate holds)
{
    std::uint64_t lo = 0;
    std::uint64_t hi = UINT64_MAX;
    while (lo < hi) {
        const std::uint64_t mid = lo + (hi - lo) / 2;
        if (holds(mid))
            hi = mid;
        else
            lo = mid + 1;
    }
    return lo;
}

/// Bounds for a bucket count of at least 1. The float load grows monotonically with the count, so
/// a binary search over the very same float expression gives exact bounds.
constexpr SLoadBounds ComputeLoadBounds(std::uint64_t buckets)
{
    const float b = static_cast<float>(buckets);
    const std::uint64_t firstAbove =
        FirstCountWhere([b](std::uint64_t n) { return static_cast<float>(n) / b > 0.2f; });
    const std::uint64_t growAt =
        FirstCountWhere([b](std::uint64_t n) { return static_cast<float>(n) / b >= 0.8f; });
    return {firstAbove - 1, growAt};
}

/// Node of a map: the key, the value and the link of the chain.
template <typename TKey, typename TValue> struct THashNode
{
    template <typename V> THashNode(const TKey& k, V&& v) : key(k), value(std::forward<V>(v)) {}
    const TKey key;
    TValue value;

private:
    template <typename, typename, typename, typename> friend class THashTable;
    THashNode* next = nullptr;
};

/// Node of a set: the key and the link of the chain.
template <typename TKey> struct THashNode<TKey, void>
{
    explicit THashNode(const TKey& k) : key(k) {}
    const TKey key;

private:
    template <typename, typename, typename, typename> friend class THashTable;
    THashNode* next = nullptr;
};

/// The table shared by THashMap (TValue a type) and THashSet (TValue void).
template <typename TKey, typename TValue, typename THash, typename TEqual> class THashTable
{
public:
    using HElement = THashNode<TKey, TValue>;
    using PlexManager = LbPlexManager<HElement, 0, alignof(HElement), unsigned int>;
    static constexpr bool m_ciIsMap = !std::is_void_v<TValue>;
    static constexpr std::uint64_t m_ciInitialBucketCount = 17;

    /// Forward iterator over the elements; *it is the node, it->key (const) and, for a map,
    /// it->value. A set's iterators give const nodes only.
    template <bool IsConst> class TIterator
    {
        using Table = std::conditional_t<IsConst, const THashTable, THashTable>;
        using Node = std::conditional_t<IsConst, const HElement, HElement>;

    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = HElement;
        using difference_type = std::ptrdiff_t;
        using pointer = Node*;
        using reference = Node&;

        TIterator() = default;
        /// A mutable iterator converts to a const one.
        template <bool C = IsConst, typename = std::enable_if_t<C>>
        TIterator(const TIterator<false>& other) noexcept
            : m_table(other.m_table), m_bucket(other.m_bucket), m_element(other.m_element),
              m_generation(other.m_generation)
        {
        }

        reference operator*() const noexcept { return *m_element; }
        pointer operator->() const noexcept { return m_element; }

        TIterator& operator++()
        {
            if (m_element->next) {
                m_element = m_element->next;
                return *this;
            }
            std::uint64_t bucket = m_bucket;
            if (m_generation != m_table->m_generation) {
                // The table was rehashed since this iterator was made: find the element's bucket.
                bucket = m_table->m_hash(m_element->key) % m_table->m_bucketCount;
                m_generation = m_table->m_generation;
            }
            m_element = nullptr;
            const std::uint64_t count = m_table->m_bucketCount;
            while (++bucket < count)
                if (m_table->m_buckets[bucket]) {
                    m_element = m_table->m_buckets[bucket];
                    break;
                }
            m_bucket = bucket;
            return *this;
        }
        TIterator operator++(int)
        {
            TIterator before = *this;
            ++*this;
            return before;
        }

        friend bool operator==(const TIterator& a, const TIterator& b) noexcept
        {
            return a.m_element == b.m_element;
        }

    private:
        friend class THashTable;
        friend class TIterator<!IsConst>;
        TIterator(Table* table, std::uint64_t bucket, Node* element) noexcept
            : m_table(table), m_bucket(bucket), m_element(element), m_generation(table->m_generation)
        {
        }

        Table* m_table = nullptr;
        std::uint64_t m_bucket = 0;
        Node* m_element = nullptr;
        std::uint64_t m_generation = 0;
    };

    using iterator = TIterator<!m_ciIsMap>;
    using const_iterator = TIterator<true>;

    THashTable() noexcept = default;

    /// Same bucket count, same chains in the same order, same m_autoRehash; a fresh pool with
    /// default settings and a fresh random generator.
    THashTable(const THashTable& other)
        : m_bucketCount(other.m_bucketCount), m_hash(other.m_hash), m_equal(other.m_equal),
          m_autoRehash(other.m_autoRehash), m_bounds(other.m_bounds)
    {
        try {
            copyElementsFrom(other);
        } catch (...) {
            destroyAll();
            throw;
        }
    }

    /// Takes over bucket array, counts, m_autoRehash and pool; the source is left empty with 17
    /// buckets and a fresh pool.
    THashTable(THashTable&& other) noexcept
        : m_buckets(other.m_buckets), m_bucketCount(other.m_bucketCount), m_count(other.m_count),
          m_hash(other.m_hash), m_equal(other.m_equal), m_autoRehash(other.m_autoRehash),
          m_pool(std::move(other.m_pool)), m_bounds(other.m_bounds)
    {
        other.resetToEmpty();
    }

    /// Copy with the strong guarantee; this table keeps its random generator.
    THashTable& operator=(const THashTable& other)
    {
        if (this != &other) {
            THashTable copy(other);
            takeContents(copy);
        }
        return *this;
    }

    THashTable& operator=(THashTable&& other) noexcept
    {
        if (this != &other)
            takeContents(other);
        return *this;
    }

    ~THashTable()
    {
        // Clear with the check off, minus the zeroing of an array that goes anyway.
        m_autoRehash = false;
        destroyElements();
        delete[] m_buckets;
    }

    /// Iterator to the element with this key, or end().
    iterator Find(const TKey& key) { return findIn<iterator>(this, key); }
    const_iterator Find(const TKey& key) const { return findIn<const_iterator>(this, key); }

    /// Removes the element with this key; true when there was one. Runs the load check afterwards
    /// when m_autoRehash is set.
    bool Erase(const TKey& key)
    {
        if (m_count == 0)
            return false;
        HElement** link = &m_buckets[m_hash(key) % m_bucketCount];
        for (HElement* e = *link; e; link = &e->next, e = e->next) {
            if (m_equal(e->key, key)) {
                *link = e->next;
                m_pool->releaseElement(e);
                --m_count;
                if (m_autoRehash) {
                    try {
                        Rehash(0);
                    } catch (const std::bad_alloc&) {
                        // A shrink is an optimisation; without memory for it the table stays as is.
                    }
                }
                return true;
            }
        }
        return false;
    }

    /// Destroys all elements and gives all pool memory back (the pool is replaced by a fresh one
    /// with default settings). With m_autoRehash set, the table is back at 17 buckets.
    void Clear() noexcept
    {
        if (m_buckets) {
            destroyElements();
            if (m_autoRehash) {
                // Rehash(17) of an empty table: the array is made again at the next insertion.
                delete[] m_buckets;
                m_buckets = nullptr;
            } else {
                std::fill(m_buckets, m_buckets + m_bucketCount, nullptr);
            }
        }
        m_count = 0;
        m_pool.reset();
        if (m_autoRehash && m_bucketCount != m_ciInitialBucketCount)
            setBucketCount(m_ciInitialBucketCount);
    }

    /// count 0 runs the load check; any other count sets exactly that many buckets and relinks all
    /// elements (no element moves in memory). Throws std::bad_alloc when the new bucket array can't
    /// be allocated; the table is then unchanged.
    void Rehash(std::uint64_t count)
    {
        if (count == 0) {
            if (m_count > m_bounds.shrinkAt && m_count < m_bounds.growAt)
                return;
            const float scaled = 2.5f * static_cast<float>(m_count);
            const std::uint64_t base =
                scaled >= 18446744073709551616.0f ? UINT64_MAX : static_cast<std::uint64_t>(scaled);
            count = NextPrime(base, m_rng);
            if (count < m_ciInitialBucketCount)
                count = m_ciInitialBucketCount;
            if (count == m_bucketCount)
                return;
        }
        HElement** fresh = new HElement*[count]();
        HElement** old = m_buckets;
        if (old) {
            for (std::uint64_t b = 0; b < m_bucketCount; ++b)
                for (HElement* e = old[b]; e;) {
                    HElement* next = e->next;
                    HElement*& head = fresh[m_hash(e->key) % count];
                    e->next = head;
                    head = e;
                    e = next;
                }
        }
        delete[] old;
        m_buckets = fresh;
        setBucketCount(count);
    }

    std::uint64_t Size() const noexcept { return m_count; }
    bool IsEmpty() const noexcept { return m_count == 0; }
    std::uint64_t BucketCount() const noexcept { return m_bucketCount; }

    /// Switches the automatic load check of Insert and Erase (on at construction).
    void SetAutoRehash(bool on) noexcept { m_autoRehash = on; }
    bool GetAutoRehash() const noexcept { return m_autoRehash; }

    /// The node pool, e.g. to fix its block size. Clear() replaces it by a fresh default pool.
    PlexManager& GetPlexManager() { return pool(); }

    iterator begin() noexcept { return firstIn<iterator>(this); }
    iterator end() noexcept { return iterator(this, m_bucketCount, nullptr); }
    const_iterator begin() const noexcept { return firstIn<const_iterator>(this); }
    const_iterator end() const noexcept { return const_iterator(this, m_bucketCount, nullptr); }

    // ---- implementation details follow ---------------------------------------------------------
protected:
    /// Insertion shared by map and set. make(storage) constructs the node in the storage;
    /// onFound(node) handles an existing key (a map assigns the value, a set does nothing).
    template <typename Make, typename OnFound>
    iterator insertWith(const TKey& key, Make make, OnFound onFound)
    {
        const std::uint64_t hash = m_hash(key);
        if (m_count != 0) {
            for (HElement* e = m_buckets[hash % m_bucketCount]; e; e = e->next) {
                if (m_equal(e->key, key)) {
                    if (m_autoRehash)
                        Rehash(0);
                    onFound(*e);
                    return iterator(this, hash % m_bucketCount, e);
                }
            }
        }
        PlexManager& nodes = pool();
        HElement* node = nodes.getFreeElement();
        try {
            make(static_cast<void*>(node));
        } catch (...) {
            nodes.returnStorage(node);
            throw;
        }
        try {
            if (m_autoRehash)
                Rehash(0);
            if (!m_buckets)
                m_buckets = new HElement*[m_bucketCount]();
        } catch (...) {
            nodes.releaseElement(node);
            throw;
        }
        const std::uint64_t bucket = hash % m_bucketCount;
        node->next = m_buckets[bucket];
        m_buckets[bucket] = node;
        ++m_count;
        return iterator(this, bucket, node);
    }

private:
    static constexpr SLoadBounds m_ciInitialBounds = ComputeLoadBounds(m_ciInitialBucketCount);

    PlexManager& pool()
    {
        if (!m_pool)
            m_pool = std::make_unique<PlexManager>();
        return *m_pool;
    }

    void setBucketCount(std::uint64_t count)
    {
        m_bucketCount = count;
        m_bounds = count == m_ciInitialBucketCount ? m_ciInitialBounds : ComputeLoadBounds(count);
        ++m_generation;
    }

    template <typename It, typename Self> static It findIn(Self* self, const TKey& key)
    {
        if (self->m_count == 0)
            return It(self, self->m_bucketCount, nullptr);
        const std::uint64_t bucket = self->m_hash(key) % self->m_bucketCount;
        for (HElement* e = self->m_buckets[bucket]; e; e = e->next)
            if (self->m_equal(e->key, key))
                return It(self, bucket, e);
        return It(self, self->m_bucketCount, nullptr);
    }

    template <typename It, typename Self> static It firstIn(Self* self) noexcept
    {
        if (self->m_count != 0)
            for (std::uint64_t b = 0; b < self->m_bucketCount; ++b)
                if (self->m_buckets[b])
                    return It(self, b, self->m_buckets[b]);
        return It(self, self->m_bucketCount, nullptr);
    }

    // Builds the chains of other in this (empty) table, each in the same order.
    void copyElementsFrom(const THashTable& other)
    {
        if (other.m_count == 0)
            return;
        m_buckets = new HElement*[m_bucketCount]();
        PlexManager& nodes = pool();
        for (std::uint64_t b = 0; b < m_bucketCount; ++b) {
            HElement** tail = &m_buckets[b];
            for (const HElement* e = other.m_buckets[b]; e; e = e->next) {
                HElement* node = nodes.getFreeElement();
                try {
                    ::new (static_cast<void*>(node)) HElement(*e);
                } catch (...) {
                    nodes.returnStorage(node);
                    throw;
                }
                node->next = nullptr;
                *tail = node;
                tail = &node->next;
                ++m_count;
            }
        }
    }

    // Runs the destructor of every element; chains and pool are left as they are.
    void destroyElements() noexcept
    {
        if constexpr (!std::is_trivially_destructible_v<HElement>) {
            if (m_buckets)
                for (std::uint64_t b = 0; b < m_bucketCount; ++b)
                    for (HElement* e = m_buckets[b]; e;) {
                        HElement* next = e->next;
                        e->~HElement();
                        e = next;
                    }
        }
    }

    // Destroys every element and frees bucket array and pool; leaves the empty 17-bucket state.
    void destroyAll() noexcept
    {
        destroyElements();
        delete[] m_buckets;
        m_buckets = nullptr;
        m_count = 0;
        m_pool.reset();
        setBucketCount(m_ciInitialBucketCount);
    }

    // The empty, memory-less state of a moved-from table.
    void resetToEmpty() noexcept
    {
        m_buckets = nullptr;
        m_count = 0;
        m_pool.reset();
        setBucketCount(m_ciInitialBucketCount);
    }

    // Drops this table's contents and takes over other's (all but the random generator); other is
    // left empty with 17 buckets.
    void takeContents(THashTable& other) noexcept
    {
        destroyAll();
        m_buckets = other.m_buckets;
        m_count = other.m_count;
        m_hash = other.m_hash;
        m_equal = other.m_equal;
        m_autoRehash = other.m_autoRehash;
        m_pool = std::move(other.m_pool);
        setBucketCount(other.m_bucketCount);
        other.resetToEmpty();
    }

    HElement** m_buckets = nullptr;
    std::uint64_t m_bucketCount = m_ciInitialBucketCount;
    std::uint64_t m_count = 0;
    [[no_unique_address]] THash m_hash{};
    [[no_unique_address]] TEqual m_equal{};
    bool m_autoRehash = true;
    std::unique_ptr<PlexManager> m_pool;
    std::mt19937 m_rng{5489u};
    SLoadBounds m_bounds = m_ciInitialBounds;
    std::uint64_t m_generation = 0;
};

} // namespace DataLayer::detail
