#pragma once
// CFNV1aHash: the 64-bit FNV-1a hash of a 64-bit id, for the hash containers keyed by ids. The 8
// bytes of the value are taken lowest first (offset basis 0xCBF29CE484222325, prime
// 0x100000001B3), independent of the byte order of the machine. It exists because the standard
// hash of an integer is the identity in libstdc++, which would put runs of ids into runs of buckets.
// Stateless; any thread may call it.

#include <cstdint>

namespace DataLayer {

class CFNV1aHash
{
public:
    static constexpr std::uint64_t m_ciOffsetBasis = 0xCBF29CE484222325ull;
    static constexpr std::uint64_t m_ciPrime = 0x100000001B3ull;

    constexpr std::uint64_t operator()(unsigned long long key) const noexcept
    {
        std::uint64_t h = m_ciOffsetBasis;
        for (int i = 0; i < 8; ++i) {
            h ^= (key >> (8 * i)) & 0xFFu;
            h *= m_ciPrime;
        }
        return h;
    }
};

} // namespace DataLayer
