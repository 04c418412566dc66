#pragma once
// THashMap<Key, Value, Hash, Equal>: the library's chained hash map with pooled nodes (mean-shift
// cluster tables, halfedge numbers of the OBJ writer). Hash returns a 64-bit value and the bucket
// is hash % BucketCount(); for 64-bit ids use CFNV1aHash, since the standard hash of an integer is
// the identity here.
//
// Interface: Insert, Find, Erase, Clear, Rehash, Size, BucketCount, Set/GetAutoRehash, and
// iteration with begin()/end() (the STL spelling, so range-for works); *it is the node HElement
// with it->key (const) and it->value. Bucket counts, the load check, iteration order, copy and
// move semantics, failure behaviour and the decisions taken where they were open are described
// with the shared table in thashtable.h.
// Ownership: owns its elements (copied in); deep copies. One thread at a time.

#include <functional>
#include <utility>

#include "datalayer/algorithms/numeric/thashtable.h"

namespace DataLayer {

template <typename Key, typename Value, typename Hash = std::hash<Key>, typename Equal = std::equal_to<Key>>
class THashMap : public detail::THashTable<Key, Value, Hash, Equal>
{
    using Base = detail::THashTable<Key, Value, Hash, Equal>;

public:
    using typename Base::const_iterator;
    using typename Base::HElement;
    using typename Base::iterator;

    /// Inserts the pair, or assigns the value when the key is present (Size() then stays). Returns
    /// an iterator to the element. Throws LbExceptionContainer when the pool can't grow, or what
    /// copying key or value throws; the map is then unchanged.
    iterator Insert(const Key& key, const Value& value)
    {
        return this->insertWith(
            key, [&](void* storage) { ::new (storage) HElement(key, value); },
            [&](HElement& found) { found.value = value; });
    }

    /// The same with the value moved in.
    iterator Insert(const Key& key, Value&& value)
    {
        return this->insertWith(
            key, [&](void* storage) { ::new (storage) HElement(key, std::move(value)); },
            [&](HElement& found) { found.value = std::move(value); });
    }
};

} // namespace DataLayer
