#include <algorithm>
#include <cstdint>
#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#if defined(__SSE4_2__)
#include <nmmintrin.h>
#endif

#include "datalayer/algorithms/numeric/cfnv1ahash.h"
#include "datalayer/algorithms/numeric/thashmap.h"
#include "datalayer/algorithms/numeric/thashmem.h"
#include "datalayer/algorithms/numeric/thashset.h"

using DataLayer::CFNV1aHash;
using DataLayer::THashMap;
using DataLayer::THashMem;
using DataLayer::THashSet;

namespace {

using IdMap = THashMap<unsigned long long, int, CFNV1aHash, std::equal_to<>>;

// ---- independent references ---------------------------------------------------------------------

bool IsPrimeByTrialDivision(std::uint64_t n)
{
    if (n < 2)
        return false;
    for (std::uint64_t d = 2; d * d <= n; ++d)
        if (n % d == 0)
            return false;
    return true;
}

/// Smallest prime above n.
std::uint64_t NextPrimeByTrialDivision(std::uint64_t n)
{
    std::uint64_t c = n + 1;
    while (!IsPrimeByTrialDivision(c))
        ++c;
    return c;
}

/// Bit-at-a-time reflected CRC-32C, the textbook definition.
std::uint32_t Crc32cBitwise(std::uint32_t crc, const void* data, std::size_t size)
{
    const auto* p = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) {
        crc ^= p[i];
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ ((crc & 1u) ? 0x82F63B78u : 0u);
    }
    return crc;
}

/// FNV-1a over a byte string.
std::uint64_t Fnv1aBytes(const void* data, std::size_t size)
{
    const auto* p = static_cast<const unsigned char*>(data);
    std::uint64_t h = 0xCBF29CE484222325ull;
    for (std::size_t i = 0; i < size; ++i)
        h = (h ^ p[i]) * 0x100000001B3ull;
    return h;
}

/// Brute-force model of the chained table: buckets as vectors with the chain head first, primes by
/// trial division and the load test written out in floats.
template <typename Key, typename Hash> class CChainModel
{
public:
    struct SEntry
    {
        Key key;
        int value;
    };

    explicit CChainModel(bool overwrite) : m_overwrite(overwrite), m_buckets(17) {}

    void Insert(const Key& key, int value)
    {
        if (autoRehash)
            Rehash(0);
        auto& chain = m_buckets[Hash()(key) % m_buckets.size()];
        for (SEntry& e : chain)
            if (e.key == key) {
                if (m_overwrite)
                    e.value = value;
                return;
            }
        chain.insert(chain.begin(), SEntry{key, value});
        ++m_count;
    }

    bool Erase(const Key& key)
    {
        auto& chain = m_buckets[Hash()(key) % m_buckets.size()];
        for (auto it = chain.begin(); it != chain.end(); ++it)
            if (it->key == key) {
                chain.erase(it);
                --m_count;
                if (autoRehash)
                    Rehash(0);
                return true;
            }
        return false;
    }

    void Rehash(std::uint64_t n)
    {
        if (n == 0) {
            const float load = static_cast<float>(m_count) / static_cast<float>(m_buckets.size());
            if (load > 0.2f && load < 0.8f)
                return;
            n = std::max<std::uint64_t>(
                17, NextPrimeByTrialDivision(static_cast<std::uint64_t>(2.5f * static_cast<float>(m_count))));
            if (n == m_buckets.size())
                return;
        }
        std::vector<std::vector<SEntry>> fresh(n);
        for (const auto& chain : m_buckets)
            for (const SEntry& e : chain) {
                auto& target = fresh[Hash()(e.key) % n];
                target.insert(target.begin(), e);
            }
        m_buckets = std::move(fresh);
    }

    void Clear()
    {
        for (auto& chain : m_buckets)
            chain.clear();
        m_count = 0;
        if (autoRehash)
            m_buckets.assign(17, {});
    }

    std::vector<SEntry> Order() const
    {
        std::vector<SEntry> all;
        for (const auto& chain : m_buckets)
            all.insert(all.end(), chain.begin(), chain.end());
        return all;
    }

    std::uint64_t BucketCount() const { return m_buckets.size(); }
    std::uint64_t Size() const { return m_count; }

    bool autoRehash = true;

private:
    bool m_overwrite;
    std::vector<std::vector<SEntry>> m_buckets;
    std::uint64_t m_count = 0;
};

template <typename Table> std::vector<std::pair<unsigned long long, int>> MapOrder(const Table& table)
{
    std::vector<std::pair<unsigned long long, int>> order;
    for (const auto& e : table)
        order.emplace_back(e.key, e.value);
    return order;
}

template <typename Key, typename Hash>
std::vector<std::pair<unsigned long long, int>> MapOrder(const CChainModel<Key, Hash>& model)
{
    std::vector<std::pair<unsigned long long, int>> order;
    for (const auto& e : model.Order())
        order.emplace_back(e.key, e.value);
    return order;
}

/// A pixel-like key: equal by position only, carrying a payload.
struct SPixel
{
    int id;
    int payload;
    bool operator==(const SPixel& o) const { return id == o.id; }
};
struct SPixelHash
{
    std::uint64_t operator()(const SPixel& p) const
    {
        return CFNV1aHash()(static_cast<unsigned long long>(p.id));
    }
};

/// A key holding a shared pointer, to watch the table destroy what it releases.
struct SSharedKey
{
    int id;
    std::shared_ptr<int> data;
    bool operator==(const SSharedKey& o) const { return id == o.id; }
};
struct SSharedKeyHash
{
    std::uint64_t operator()(const SSharedKey& k) const { return static_cast<std::uint64_t>(k.id); }
};

/// A key whose copy throws for one chosen id.
struct SFragileKey
{
    static inline int throwOnCopyOf = -1;
    int id;
    explicit SFragileKey(int i) : id(i) {}
    SFragileKey(const SFragileKey& o) : id(o.id)
    {
        if (id == throwOnCopyOf)
            throw std::runtime_error("copy refused");
    }
    SFragileKey& operator=(const SFragileKey&) = default;
    bool operator==(const SFragileKey& o) const { return id == o.id; }
};
struct SFragileKeyHash
{
    std::uint64_t operator()(const SFragileKey& k) const { return static_cast<std::uint64_t>(k.id); }
};

/// One megabyte per value, so that the largest pool block can't be allocated on any machine.
struct SHugeValue
{
    unsigned char bytes[1 << 20];
};

/// Runs a seeded mix of insertions, erasures, explicit rehashes, clears and switches of the load
/// check on a map and its model, comparing bucket count and full iteration order after each step.
template <typename Hash> void ExpectMapFollowsChainModel(std::uint32_t seed, unsigned keyRange, int steps)
{
    THashMap<unsigned long long, int, Hash, std::equal_to<>> map;
    CChainModel<unsigned long long, Hash> model(true);
    std::mt19937 engine(seed);
    std::uniform_int_distribution<unsigned> key(0, keyRange - 1);
    std::uniform_int_distribution<int> action(0, 999);
    for (int step = 0; step < steps; ++step) {
        const int a = action(engine);
        const unsigned long long k = key(engine);
        if (a < 560) {
            const int v = static_cast<int>(engine() % 1000);
            auto it = map.Insert(k, v);
            ASSERT_EQ(it->key, k);
            ASSERT_EQ(it->value, v);
            model.Insert(k, v);
        } else if (a < 960) {
            ASSERT_EQ(map.Erase(k), model.Erase(k)) << "step " << step;
        } else if (a < 985) {
            // An explicit count, sometimes the current one (which still relinks every chain).
            const std::uint64_t n = (a & 1) ? map.BucketCount() : 1 + engine() % 120;
            map.Rehash(n);
            model.Rehash(n);
        } else if (a < 995) {
            map.SetAutoRehash(!map.GetAutoRehash());
            model.autoRehash = !model.autoRehash;
        } else {
            map.Clear();
            model.Clear();
        }
        ASSERT_EQ(map.BucketCount(), model.BucketCount()) << "step " << step;
        ASSERT_EQ(map.Size(), model.Size()) << "step " << step;
        ASSERT_EQ(MapOrder(map), MapOrder(model)) << "step " << step;
    }
}

} // namespace

// ---- hash functions -----------------------------------------------------------------------------

TEST(CFNV1aHash, MatchesFnv1aOfTheEightBytesLowestFirst)
{
    const char a = 'a';
    EXPECT_EQ(Fnv1aBytes(&a, 1), 0xAF63DC4C8601EC8Cull) << "the reference itself, on the published vector";
    CFNV1aHash hash;
    EXPECT_EQ(hash(0ull), 0xA8C7F832281A39C5ull);
    EXPECT_EQ(hash(0x0123456789ABCDEFull), 0x37EB3F3347761C55ull);
    std::mt19937_64 engine(20240611);
    for (int i = 0; i < 1000; ++i) {
        const unsigned long long v = engine();
        unsigned char bytes[8];
        for (int b = 0; b < 8; ++b)
            bytes[b] = static_cast<unsigned char>(v >> (8 * b));
        ASSERT_EQ(hash(v), Fnv1aBytes(bytes, 8)) << v;
    }
}

TEST(THashMem, IsRawCrc32cWithStartZeroAndNoFinalInversion)
{
    const char* check = "123456789";
    // The reference against the published check value of the standard (inverted) form.
    EXPECT_EQ(Crc32cBitwise(0xFFFFFFFFu, check, 9) ^ 0xFFFFFFFFu, 0xE3069283u);
    EXPECT_EQ(Crc32cBitwise(0, check, 9), 0x58E3FA20u);
    EXPECT_EQ(DataLayer::detail::Crc32c(check, 9), 0x58E3FA20u);
    EXPECT_EQ(DataLayer::detail::Crc32cTableDriven(0, check, 9), 0x58E3FA20u);

    struct SHalfedge
    {
        int idx;
    };
    THashMem<SHalfedge> halfedgeHash;
    EXPECT_EQ(halfedgeHash(SHalfedge{0x12345678}), 0xFA745634u);
    EXPECT_EQ(halfedgeHash(SHalfedge{1}), 0xDD45AAB8u);
#if defined(__SSE4_2__)
    EXPECT_EQ(halfedgeHash(SHalfedge{987654321}), _mm_crc32_u32(0, 987654321u)) << "one crc32 step";
#endif
}

TEST(THashMem, HardwareAndTableDrivenFormsAgreeWithTheBitwiseReferenceOnEveryLength)
{
    std::mt19937 engine(7);
    std::vector<unsigned char> bytes(64);
    for (auto& b : bytes)
        b = static_cast<unsigned char>(engine());
    for (std::size_t offset = 0; offset < 8; ++offset) // unaligned starts
        for (std::size_t size = 0; size + offset <= bytes.size(); ++size) {
            const std::uint32_t expected = Crc32cBitwise(0, bytes.data() + offset, size);
            ASSERT_EQ(DataLayer::detail::Crc32cTableDriven(0, bytes.data() + offset, size), expected) << size;
            ASSERT_EQ(DataLayer::detail::Crc32c(bytes.data() + offset, size), expected) << size;
        }
    struct STriple
    {
        std::uint32_t a, b, c;
    };
    const STriple t{1, 2, 3};
    EXPECT_EQ(THashMem<STriple>()(t), Crc32cBitwise(0, &t, sizeof t));
}

// ---- bucket counts ------------------------------------------------------------------------------

TEST(THashTableNextPrime, AgreesWithTrialDivisionAndStartsAboveTheArgument)
{
    std::mt19937 engine(5489u);
    EXPECT_EQ(DataLayer::detail::NextPrime(0, engine), 3u);
    EXPECT_EQ(DataLayer::detail::NextPrime(2, engine), 3u);
    EXPECT_EQ(DataLayer::detail::NextPrime(3, engine), 5u);
    EXPECT_EQ(DataLayer::detail::NextPrime(35, engine), 37u);
    for (std::uint64_t n = 3; n < 30000; ++n)
        ASSERT_EQ(DataLayer::detail::NextPrime(n, engine), NextPrimeByTrialDivision(n)) << "n = " << n;
    std::mt19937_64 wide(99);
    for (int i = 0; i < 300; ++i) {
        const std::uint64_t n = wide() % 0xFFFFFF00ull;
        ASSERT_EQ(DataLayer::detail::NextPrime(n, engine), NextPrimeByTrialDivision(n)) << "n = " << n;
    }
}

TEST(THashTableNextPrime, CandidatesAbove32BitsAreAcceptedUntestedAndTheTopSaturates)
{
    std::mt19937 engine(5489u);
    // 4294967291 is the largest 32-bit prime: the products of the test must not overflow there.
    EXPECT_EQ(DataLayer::detail::NextPrime(4294967290ull, engine), 4294967291ull);
    // 4294967293 and 4294967295 are composite; 4294967297 = 641 * 6700417 is above 0xFFFFFFFF.
    EXPECT_EQ(DataLayer::detail::NextPrime(4294967291ull, engine), 4294967297ull);
    EXPECT_EQ(DataLayer::detail::NextPrime(0x100000000ull, engine), 0x100000001ull);
    EXPECT_EQ(DataLayer::detail::NextPrime(UINT64_MAX - 1, engine), UINT64_MAX);
    EXPECT_EQ(DataLayer::detail::NextPrime(UINT64_MAX, engine), UINT64_MAX);
}

TEST(THashTableLoadBounds, EqualTheFloatLoadTestAtEveryBoundary)
{
    auto load = [](std::uint64_t n, std::uint64_t b) {
        return static_cast<float>(n) / static_cast<float>(b);
    };
    std::vector<std::uint64_t> counts;
    for (std::uint64_t b = 1; b < 3000; ++b)
        counts.push_back(b);
    std::mt19937_64 engine(3);
    for (int i = 0; i < 2000; ++i)
        counts.push_back(1 + engine() % (1ull << (1 + i % 62)));
    counts.push_back(UINT64_MAX);
    for (std::uint64_t b : counts) {
        const auto bounds = DataLayer::detail::ComputeLoadBounds(b);
        ASSERT_LE(load(bounds.shrinkAt, b), 0.2f) << b;
        ASSERT_GT(load(bounds.shrinkAt + 1, b), 0.2f) << b;
        ASSERT_GE(load(bounds.growAt, b), 0.8f) << b;
        ASSERT_LT(load(bounds.growAt - 1, b), 0.8f) << b;
    }
    EXPECT_EQ(DataLayer::detail::ComputeLoadBounds(17).shrinkAt, 3u);
    EXPECT_EQ(DataLayer::detail::ComputeLoadBounds(17).growAt, 14u);
    EXPECT_EQ(DataLayer::detail::ComputeLoadBounds(100).shrinkAt, 20u) << "a load of exactly 0.2 shrinks";
    EXPECT_EQ(DataLayer::detail::ComputeLoadBounds(100).growAt, 80u) << "a load of exactly 0.8 grows";
}

TEST(THashMap, BucketCountsFollowTheWorkedNumbers)
{
    IdMap map;
    EXPECT_EQ(map.BucketCount(), 17u);
    EXPECT_EQ(map.Size(), 0u);
    map.Insert(1000, 0);
    EXPECT_EQ(map.BucketCount(), 17u) << "next prime of 0 is 3, held at 17";
    for (unsigned long long k = 1; k < 14; ++k)
        map.Insert(1000 + k, 0);
    EXPECT_EQ(map.Size(), 14u);
    EXPECT_EQ(map.BucketCount(), 17u);
    map.Insert(2000, 0); // the check before it sees 14 / 17 = 0.82
    EXPECT_EQ(map.BucketCount(), 37u) << "next prime above trunc(2.5 * 14) = 35";
    EXPECT_EQ(map.Size(), 15u);

    // Erase down: 8 / 37 = 0.216 keeps 37; 7 / 37 = 0.189 moves to next prime above 17.
    for (unsigned long long k = 0; k < 7; ++k)
        map.Erase(1000 + k);
    EXPECT_EQ(map.Size(), 8u);
    EXPECT_EQ(map.BucketCount(), 37u);
    map.Erase(1007);
    EXPECT_EQ(map.BucketCount(), 19u);
    for (unsigned long long k = 8; k < 14; ++k)
        map.Erase(1000 + k);
    EXPECT_EQ(map.Size(), 1u);
    EXPECT_EQ(map.BucketCount(), 17u) << "never below 17";
    map.Erase(2000);
    EXPECT_EQ(map.BucketCount(), 17u);

    map.Rehash(100);
    EXPECT_EQ(map.BucketCount(), 100u) << "an explicit count is taken as it is, prime or not";
    for (unsigned long long k = 0; k < 30; ++k)
        map.Insert(k, 1);
    map.Clear();
    EXPECT_EQ(map.Size(), 0u);
    EXPECT_EQ(map.BucketCount(), 17u);
    EXPECT_TRUE(map.begin() == map.end());
}

TEST(THashMap, WithoutAutoRehashBucketsStayUntilAnExplicitLoadCheck)
{
    IdMap map;
    map.SetAutoRehash(false);
    EXPECT_FALSE(map.GetAutoRehash());
    for (unsigned long long k = 0; k < 100; ++k)
        map.Insert(k, static_cast<int>(k));
    EXPECT_EQ(map.BucketCount(), 17u);
    map.Rehash(0);
    EXPECT_EQ(map.BucketCount(), 251u) << "next prime above 250";
    map.Rehash(0);
    EXPECT_EQ(map.BucketCount(), 251u) << "load 0.4 is left alone";
    map.Clear();
    EXPECT_EQ(map.BucketCount(), 251u) << "Clear keeps the count while the check is off";
    for (unsigned long long k = 0; k < 100; ++k)
        ASSERT_TRUE(map.Find(k) == map.end());
}

TEST(THashMap, ExplicitRehashToTheCurrentCountStillRelinksAndReversesChains)
{
    // With the identity hash, 0, 17 and 34 share bucket 0 of 17.
    THashMap<unsigned long long, int> map;
    map.SetAutoRehash(false);
    for (unsigned long long k : {0ull, 17ull, 34ull})
        map.Insert(k, 0);
    std::vector<unsigned long long> order;
    for (const auto& e : map)
        order.push_back(e.key);
    EXPECT_EQ(order, (std::vector<unsigned long long>{34, 17, 0})) << "new elements go to the chain head";
    map.Rehash(17);
    order.clear();
    for (const auto& e : map)
        order.push_back(e.key);
    EXPECT_EQ(order, (std::vector<unsigned long long>{0, 17, 34}));
}

TEST(THashMap, ExplicitRehashThatCannotAllocateThrowsAndKeepsTheTable)
{
    IdMap map;
    for (unsigned long long k = 0; k < 20; ++k)
        map.Insert(k, static_cast<int>(k));
    const auto before = MapOrder(map);
    const auto buckets = map.BucketCount();
    EXPECT_THROW(map.Rehash(1ull << 62), std::bad_alloc);
    EXPECT_EQ(map.BucketCount(), buckets);
    EXPECT_EQ(MapOrder(map), before);
}

// ---- contents and order -------------------------------------------------------------------------

TEST(THashMap, InsertingAnExistingKeyReplacesTheValueAndKeepsTheSize)
{
    IdMap map;
    auto first = map.Insert(42, 1);
    map.Insert(7, 2);
    auto again = map.Insert(42, 3);
    EXPECT_EQ(map.Size(), 2u);
    EXPECT_TRUE(first == again);
    EXPECT_EQ(&*first, &*again) << "the same node";
    EXPECT_EQ(map.Find(42)->value, 3);
    again->value = 4; // a mutable iterator writes the value
    EXPECT_EQ(map.Find(42)->value, 4);
    const IdMap& view = map;
    EXPECT_EQ(view.Find(7)->value, 2);
    EXPECT_TRUE(view.Find(8) == view.end());
}

TEST(THashSet, InsertingAnEqualKeyKeepsTheStoredElement)
{
    THashSet<SPixel, SPixelHash> set;
    set.Insert(SPixel{5, 100});
    auto it = set.Insert(SPixel{5, 200});
    EXPECT_EQ(set.Size(), 1u);
    EXPECT_EQ(it->key.payload, 100);
    EXPECT_EQ(set.Find(SPixel{5, 0})->key.payload, 100);
    EXPECT_TRUE(set.Erase(SPixel{5, -1}));
    EXPECT_FALSE(set.Erase(SPixel{5, -1}));
    EXPECT_EQ(set.Size(), 0u);
}

TEST(THashMap, EmptyTableFindsNothingAndErasesNothing)
{
    IdMap map;
    EXPECT_TRUE(map.Find(1) == map.end());
    EXPECT_FALSE(map.Erase(1));
    EXPECT_TRUE(map.begin() == map.end());
    map.Insert(1, 1);
    EXPECT_FALSE(map.Erase(2));
    EXPECT_EQ(map.Size(), 1u);
}

TEST(THashMap, IterationOrderFollowsTheChainModelWithFnv1a)
{
    ExpectMapFollowsChainModel<CFNV1aHash>(11, 300, 6000);
}

TEST(THashMap, IterationOrderFollowsTheChainModelWithIdentityHash)
{
    // The identity hash puts consecutive keys into consecutive buckets and multiples of the bucket
    // count into one chain: long chains and many reversals.
    ExpectMapFollowsChainModel<std::hash<unsigned long long>>(12, 200, 6000);
}

TEST(THashSet, IterationOrderFollowsTheChainModel)
{
    THashSet<SPixel, SPixelHash> set;
    struct SIdHash
    {
        std::uint64_t operator()(int id) const { return CFNV1aHash()(static_cast<unsigned long long>(id)); }
    };
    CChainModel<int, SIdHash> model(false);
    std::mt19937 engine(13);
    for (int step = 0; step < 5000; ++step) {
        const int id = static_cast<int>(engine() % 250);
        const int payload = static_cast<int>(engine() % 1000);
        if (engine() % 10 < 6) {
            set.Insert(SPixel{id, payload});
            model.Insert(id, payload);
        } else {
            ASSERT_EQ(set.Erase(SPixel{id, 0}), model.Erase(id));
        }
        ASSERT_EQ(set.BucketCount(), model.BucketCount()) << "step " << step;
        std::vector<std::pair<int, int>> got, expected;
        for (const auto& e : set)
            got.emplace_back(e.key.id, e.key.payload);
        for (const auto& e : model.Order())
            expected.emplace_back(e.key, e.value);
        ASSERT_EQ(got, expected) << "step " << step;
    }
}

TEST(THashMap, RandomizedOperationsAgreeWithUnorderedMap)
{
    THashMap<unsigned long long, double*, CFNV1aHash, std::equal_to<>> map;
    std::unordered_map<unsigned long long, double*> reference;
    std::vector<double> storage(64);
    std::mt19937_64 engine(424242);
    for (int step = 0; step < 200000; ++step) {
        const unsigned long long key = engine() % 40000 * 0x9E3779B97F4A7C15ull; // spread over 64 bits
        const unsigned op = static_cast<unsigned>(engine() % 10);
        if (op < 5) {
            double* value = &storage[engine() % storage.size()];
            auto it = map.Insert(key, value);
            ASSERT_EQ(it->key, key);
            ASSERT_EQ(it->value, value);
            reference[key] = value;
        } else if (op < 8) {
            ASSERT_EQ(map.Erase(key), reference.erase(key) == 1) << "step " << step;
        } else {
            auto it = map.Find(key);
            auto ref = reference.find(key);
            ASSERT_EQ(it == map.end(), ref == reference.end()) << "step " << step;
            if (ref != reference.end()) {
                ASSERT_EQ(it->value, ref->second);
            }
        }
        ASSERT_EQ(map.Size(), reference.size());
    }
    std::size_t visited = 0;
    for (const auto& e : map) {
        auto ref = reference.find(e.key);
        ASSERT_NE(ref, reference.end());
        EXPECT_EQ(ref->second, e.value);
        ++visited;
    }
    EXPECT_EQ(visited, reference.size());
}

TEST(THashMap, IteratorsStayValidAcrossRehash)
{
    IdMap map;
    for (unsigned long long k = 0; k < 200; ++k)
        map.Insert(k * 31, static_cast<int>(k));
    std::vector<IdMap::iterator> iterators;
    std::vector<const IdMap::HElement*> nodes;
    for (auto it = map.begin(); it != map.end(); ++it) {
        iterators.push_back(it);
        nodes.push_back(&*it);
    }
    map.Rehash(1009);
    map.Rehash(0); // 200 / 1009 is below 0.2: down to the next prime above 500
    ASSERT_EQ(map.BucketCount(), 503u);

    std::vector<const IdMap::HElement*> order;
    for (const auto& e : map)
        order.push_back(&e);
    for (std::size_t i = 0; i < iterators.size(); ++i) {
        const auto it = iterators[i];
        ASSERT_EQ(&*it, nodes[i]);
        EXPECT_EQ(static_cast<unsigned long long>(it->value) * 31, it->key);
        EXPECT_TRUE(it == map.Find(it->key));
        // Stepping on from an old iterator walks the rest of the current order.
        if (i % 17 == 0) {
            auto pos = std::find(order.begin(), order.end(), nodes[i]);
            ASSERT_NE(pos, order.end());
            std::vector<const IdMap::HElement*> rest;
            for (auto walk = it; walk != map.end(); ++walk)
                rest.push_back(&*walk);
            EXPECT_EQ(rest, std::vector<const IdMap::HElement*>(pos, order.end())) << "from element " << i;
        }
    }
}

// ---- copy and move ------------------------------------------------------------------------------

TEST(THashMap, CopiesHaveTheSameBucketsOrderAndSettingsAndAreDeep)
{
    IdMap source;
    std::mt19937 engine(5);
    for (int i = 0; i < 500; ++i)
        source.Insert(engine() % 700, i);
    for (int i = 0; i < 200; ++i)
        source.Erase(engine() % 700);
    source.SetAutoRehash(false);

    IdMap copy(source);
    EXPECT_EQ(copy.BucketCount(), source.BucketCount());
    EXPECT_EQ(copy.Size(), source.Size());
    EXPECT_FALSE(copy.GetAutoRehash());
    EXPECT_EQ(MapOrder(copy), MapOrder(source));

    const auto original = MapOrder(source);
    copy.begin()->value = -1;
    copy.Insert(100000, 1);
    EXPECT_EQ(MapOrder(source), original);

    IdMap assigned;
    assigned.Insert(1, 1);
    assigned = source;
    EXPECT_EQ(MapOrder(assigned), original);
    EXPECT_EQ(assigned.BucketCount(), source.BucketCount());
    assigned = *&assigned;
    EXPECT_EQ(MapOrder(assigned), original) << "self-assignment";

    const IdMap emptyCopy{IdMap()};
    EXPECT_EQ(emptyCopy.Size(), 0u);
    EXPECT_EQ(emptyCopy.BucketCount(), 17u);
}

TEST(THashMap, MoveTakesTheContentsAndLeavesAnEmptyUsableSource)
{
    static_assert(std::is_nothrow_move_constructible_v<IdMap> && std::is_nothrow_move_assignable_v<IdMap>);
    static_assert(std::is_nothrow_default_constructible_v<IdMap>);
    IdMap source;
    for (unsigned long long k = 0; k < 100; ++k)
        source.Insert(k, static_cast<int>(k));
    source.SetAutoRehash(false);
    const auto order = MapOrder(source);
    const auto buckets = source.BucketCount();
    const IdMap::HElement* firstNode = &*source.begin();

    IdMap target(std::move(source));
    EXPECT_FALSE(target.GetAutoRehash());
    EXPECT_FALSE(source.GetAutoRehash()) << "the source keeps its own setting";
    EXPECT_EQ(MapOrder(target), order);
    EXPECT_EQ(target.BucketCount(), buckets);
    EXPECT_EQ(&*target.begin(), firstNode) << "nodes are taken over, not copied";
    EXPECT_EQ(source.Size(), 0u);
    EXPECT_EQ(source.BucketCount(), 17u);
    EXPECT_TRUE(source.begin() == source.end());
    EXPECT_TRUE(source.Find(5) == source.end());
    source.Insert(5, 55);
    EXPECT_EQ(source.Find(5)->value, 55);
    EXPECT_EQ(source.Size(), 1u);

    IdMap other;
    other.Insert(7, 7);
    other = std::move(target);
    EXPECT_EQ(MapOrder(other), order);
    EXPECT_EQ(target.Size(), 0u);
    EXPECT_EQ(target.BucketCount(), 17u);
    target.Insert(1, 1);
    EXPECT_EQ(target.Size(), 1u);
}

// ---- element lifetime and failures --------------------------------------------------------------

TEST(THashSet, ReleasedElementsAreDestroyed)
{
    auto payload = std::make_shared<int>(1);
    {
        THashSet<SSharedKey, SSharedKeyHash> set;
        for (int id = 0; id < 10; ++id)
            set.Insert(SSharedKey{id, payload});
        EXPECT_EQ(payload.use_count(), 11);
        set.Insert(SSharedKey{3, payload}); // kept as stored: no extra reference
        EXPECT_EQ(payload.use_count(), 11);
        set.Erase(SSharedKey{3, nullptr});
        EXPECT_EQ(payload.use_count(), 10);

        THashSet<SSharedKey, SSharedKeyHash> copy(set);
        EXPECT_EQ(payload.use_count(), 19);
        copy.Clear();
        EXPECT_EQ(payload.use_count(), 10);
        copy = set;
        THashSet<SSharedKey, SSharedKeyHash> moved(std::move(copy));
        EXPECT_EQ(payload.use_count(), 19);
        moved = std::move(set); // the target's own elements go
        EXPECT_EQ(payload.use_count(), 10);
    }
    EXPECT_EQ(payload.use_count(), 1) << "the destructor releases every element";
}

TEST(THashMap, OverwrittenValueIsReleased)
{
    auto first = std::make_shared<int>(1);
    auto second = std::make_shared<int>(2);
    THashMap<int, std::shared_ptr<int>> map;
    map.Insert(1, first);
    map.Insert(1, second);
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(second.use_count(), 2);
    map.Insert(2, std::make_shared<int>(3));
    EXPECT_EQ(*map.Find(2)->value, 3);
}

TEST(THashMap, PoolFailureThrowsContainerExceptionAndLeavesTheMapUnchanged)
{
    THashMap<int, SHugeValue> map;
    map.GetPlexManager().SetFixedBlockSize(1); // one megabyte per block
    auto value = std::make_unique<SHugeValue>();
    for (int k = 0; k < 14; ++k) {
        value->bytes[0] = static_cast<unsigned char>(k);
        map.Insert(k, *value);
    }
    std::vector<int> order;
    for (const auto& e : map)
        order.push_back(e.key);
    ASSERT_EQ(map.BucketCount(), 17u);

    // The next insertion would grow the table to 37 buckets; its node can't be had.
    map.GetPlexManager().SetFixedBlockSize(0xFFFFFFEu);
    EXPECT_THROW(map.Insert(99, *value), LbExceptionContainer);
    EXPECT_EQ(map.Size(), 14u);
    EXPECT_EQ(map.BucketCount(), 17u);
    std::vector<int> after;
    for (const auto& e : map)
        after.push_back(e.key);
    EXPECT_EQ(after, order);
    EXPECT_TRUE(map.Find(99) == map.end());
    EXPECT_EQ(map.Find(13)->value.bytes[0], 13);

    map.GetPlexManager().SetFixedBlockSize(1);
    map.Insert(99, *value);
    EXPECT_EQ(map.BucketCount(), 37u);
    map.Clear();
    EXPECT_EQ(map.GetPlexManager().GetBlockCount(), 0u) << "Clear gives all pool memory back";
    EXPECT_EQ(map.GetPlexManager().GetFixedBlockSize(), 0u) << "and starts a default pool";
}

TEST(THashSet, ThrowingKeyCopyLeavesTheSetUnchanged)
{
    THashSet<SFragileKey, SFragileKeyHash> set;
    for (int id = 0; id < 20; ++id)
        set.Insert(SFragileKey(id));
    std::vector<int> order;
    for (const auto& e : set)
        order.push_back(e.key.id);

    SFragileKey::throwOnCopyOf = 100;
    EXPECT_THROW(set.Insert(SFragileKey(100)), std::runtime_error);
    EXPECT_EQ(set.Size(), 20u);
    std::vector<int> after;
    for (const auto& e : set)
        after.push_back(e.key.id);
    EXPECT_EQ(after, order);

    SFragileKey::throwOnCopyOf = 7;
    using FragileSet = THashSet<SFragileKey, SFragileKeyHash>;
    EXPECT_THROW(FragileSet{set}, std::runtime_error) << "a failed copy frees what it built";
    SFragileKey::throwOnCopyOf = -1;
    set.Insert(SFragileKey(100));
    EXPECT_EQ(set.Size(), 21u);
}

TEST(THashMap, HalfedgeMapWithMemoryHashFindsEveryIndex)
{
    struct SHalfedge
    {
        int idx;
        bool operator==(const SHalfedge& o) const { return idx == o.idx; }
    };
    THashMap<SHalfedge, int, THashMem<SHalfedge>, std::equal_to<SHalfedge>> map;
    for (int i = 0; i < 5000; ++i)
        map.Insert(SHalfedge{i * 3}, i);
    for (int i = 0; i < 5000; ++i) {
        auto it = map.Find(SHalfedge{i * 3});
        ASSERT_FALSE(it == map.end());
        ASSERT_EQ(it->value, i);
        ASSERT_TRUE(map.Find(SHalfedge{i * 3 + 1}) == map.end());
    }
}
