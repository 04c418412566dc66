// Timing of the pooled hash map against std::unordered_map on the workload of the mean-shift
// cluster tables: 10^6 random 64-bit ids mapped to pointers. Each operation runs in three variants:
// THashMap with FNV-1a, std::unordered_map with its own (identity) hash, and std::unordered_map
// with the same FNV-1a functor, so that the container and the hash can be told apart.
// Keys are built once outside the timed loops; lookups and erasures go in a shuffled order.

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <type_traits>
#include <unordered_map>
#include <vector>

#include "datalayer/algorithms/numeric/cfnv1ahash.h"
#include "datalayer/algorithms/numeric/thashmap.h"

namespace {

constexpr std::size_t kKeyCount = 1000000;

using OurMap = DataLayer::THashMap<unsigned long long, double*, DataLayer::CFNV1aHash, std::equal_to<>>;
using StdMap = std::unordered_map<unsigned long long, double*>;
using StdMapFnv1a = std::unordered_map<unsigned long long, double*, DataLayer::CFNV1aHash>;

struct SInput
{
    std::vector<unsigned long long> keys;     // insertion order, all distinct
    std::vector<unsigned long long> shuffled; // the same keys in another order
    std::vector<double> values;
};

const SInput& Input()
{
    static const SInput input = [] {
        SInput in;
        // The splitmix64 finaliser is a bijection of 64-bit words: distinct, well spread ids.
        for (std::uint64_t i = 0; i < kKeyCount; ++i) {
            std::uint64_t z = (i + 1) * 0x9E3779B97F4A7C15ull;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            in.keys.push_back(z ^ (z >> 31));
        }
        std::mt19937_64 engine(20240611);
        in.shuffled = in.keys;
        std::shuffle(in.shuffled.begin(), in.shuffled.end(), engine);
        in.values.resize(64);
        return in;
    }();
    return input;
}

template <typename Map> void insertAll(Map& map, const SInput& in)
{
    for (std::size_t i = 0; i < in.keys.size(); ++i) {
        double* value = const_cast<double*>(&in.values[i % in.values.size()]);
        if constexpr (std::is_same_v<Map, OurMap>)
            map.Insert(in.keys[i], value);
        else
            map.emplace(in.keys[i], value);
    }
}

template <typename Map> std::size_t sizeOf(const Map& map)
{
    if constexpr (std::is_same_v<Map, OurMap>)
        return static_cast<std::size_t>(map.Size());
    else
        return map.size();
}

template <typename Map> void insertBenchmark(benchmark::State& state)
{
    const SInput& in = Input();
    for (auto _ : state) {
        auto map = std::make_unique<Map>();
        insertAll(*map, in);
        benchmark::DoNotOptimize(map.get());
        if (sizeOf(*map) != kKeyCount)
            state.SkipWithError("wrong size after insertion");
        state.PauseTiming();
        map.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kKeyCount));
}

template <typename Map> void findBenchmark(benchmark::State& state)
{
    const SInput& in = Input();
    Map map;
    insertAll(map, in);
    for (auto _ : state) {
        std::size_t found = 0;
        for (unsigned long long key : in.shuffled) {
            if constexpr (std::is_same_v<Map, OurMap>) {
                auto it = map.Find(key);
                if (it != map.end()) {
                    benchmark::DoNotOptimize(it->value);
                    ++found;
                }
            } else {
                auto it = map.find(key);
                if (it != map.end()) {
                    benchmark::DoNotOptimize(it->second);
                    ++found;
                }
            }
        }
        if (found != kKeyCount)
            state.SkipWithError("a key was not found");
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kKeyCount));
}

template <typename Map> void eraseBenchmark(benchmark::State& state)
{
    const SInput& in = Input();
    Map full;
    insertAll(full, in);
    for (auto _ : state) {
        state.PauseTiming();
        auto map = std::make_unique<Map>(full);
        state.ResumeTiming();
        std::size_t erased = 0;
        for (unsigned long long key : in.shuffled) {
            if constexpr (std::is_same_v<Map, OurMap>)
                erased += map->Erase(key) ? 1 : 0;
            else
                erased += map->erase(key);
        }
        benchmark::DoNotOptimize(erased);
        if (erased != kKeyCount || sizeOf(*map) != 0)
            state.SkipWithError("a key was not erased");
        state.PauseTiming();
        map.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kKeyCount));
}

void BM_HashMapInsert_THashMapFnv1a(benchmark::State& state)
{
    insertBenchmark<OurMap>(state);
}
void BM_HashMapInsert_StdUnorderedMap(benchmark::State& state)
{
    insertBenchmark<StdMap>(state);
}
void BM_HashMapInsert_StdUnorderedMapFnv1a(benchmark::State& state)
{
    insertBenchmark<StdMapFnv1a>(state);
}
void BM_HashMapFind_THashMapFnv1a(benchmark::State& state)
{
    findBenchmark<OurMap>(state);
}
void BM_HashMapFind_StdUnorderedMap(benchmark::State& state)
{
    findBenchmark<StdMap>(state);
}
void BM_HashMapFind_StdUnorderedMapFnv1a(benchmark::State& state)
{
    findBenchmark<StdMapFnv1a>(state);
}
void BM_HashMapErase_THashMapFnv1a(benchmark::State& state)
{
    eraseBenchmark<OurMap>(state);
}
void BM_HashMapErase_StdUnorderedMap(benchmark::State& state)
{
    eraseBenchmark<StdMap>(state);
}
void BM_HashMapErase_StdUnorderedMapFnv1a(benchmark::State& state)
{
    eraseBenchmark<StdMapFnv1a>(state);
}

} // namespace

BENCHMARK(BM_HashMapInsert_THashMapFnv1a)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashMapInsert_StdUnorderedMap)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashMapInsert_StdUnorderedMapFnv1a)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashMapFind_THashMapFnv1a)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashMapFind_StdUnorderedMap)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashMapFind_StdUnorderedMapFnv1a)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashMapErase_THashMapFnv1a)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashMapErase_StdUnorderedMap)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_HashMapErase_StdUnorderedMapFnv1a)->Unit(benchmark::kMillisecond);
