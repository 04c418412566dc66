#pragma once
// THashSet<Key, Hash, Equal>: the library's chained hash set with pooled nodes (the margin pixels
// of a pixel polygon). A key holds its whole payload; Equal decides which keys are the same, and
// inserting a key that is present keeps the stored one untouched. Hash returns a 64-bit value and
// the bucket is hash % BucketCount().
//
// Interface: Insert, Find, Erase, Clear, Rehash, Size, BucketCount, Set/GetAutoRehash, and
// iteration with begin()/end(); *it is the const node HElement with it->key. Bucket counts, the
// load check, iteration order, copy and move semantics, failure behaviour and the decisions taken
// where they were open are described with the shared table in thashtable.h.
// Ownership: owns its elements (copied in); deep copies. One thread at a time.

#include <functional>

#include "datalayer/algorithms/numeric/thashtable.h"

namespace DataLayer {

template <typename Key, typename Hash = std::hash<Key>, typename Equal = std::equal_to<Key>>
class THashSet : public detail::THashTable<Key, void, Hash, Equal>
{
    using Base = detail::THashTable<Key, void, Hash, Equal>;

public:
    using typename Base::const_iterator;
    using typename Base::HElement;
    using typename Base::iterator;

    /// Inserts the key unless an equal one is present, which is then kept as it is. Returns an
    /// iterator to the stored element. Throws LbExceptionContainer when the pool can't grow, or
    /// what copying the key throws; the set is then unchanged.
    iterator Insert(const Key& key)
    {
        return this->insertWith(
            key, [&](void* storage) { ::new (storage) HElement(key); }, [](const HElement&) {});
    }
};

} // namespace DataLayer
