#pragma once
// THashMem<T>: hashes a key by its memory. The result is the CRC-32C (Castagnoli polynomial
// 0x1EDC6F41, reflected) of the key's bytes in memory order, with start value 0 and no final
// inversion, widened to 64 bits. When the build targets SSE 4.2 the crc32 instruction computes it
// (a 4-byte key is one instruction); otherwise a table-driven loop gives the same value. The choice
// is made at compile time, never by probing the processor.
// Meant for keys without padding bytes (integers, handles that wrap an index): padding would be
// hashed too. Stateless; any thread may call it.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE4_2__)
#include <nmmintrin.h>
#endif

namespace DataLayer {

namespace detail {

/// Byte table of the reflected CRC-32C.
constexpr std::array<std::uint32_t, 256> MakeCrc32cTable()
{
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < 256; ++i) {
        std::uint32_t c = i;
        for (int k = 0; k < 8; ++k)
            c = (c & 1u) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
        table[i] = c;
    }
    return table;
}

inline constexpr std::array<std::uint32_t, 256> g_crc32cTable = MakeCrc32cTable();

/// CRC-32C of size bytes continuing from crc (no inversion on either side), table-driven.
inline std::uint32_t Crc32cTableDriven(std::uint32_t crc, const void* data, std::size_t size) noexcept
{
    const auto* p = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i)
        crc = g_crc32cTable[(crc ^ p[i]) & 0xFFu] ^ (crc >> 8);
    return crc;
}

#if defined(__SSE4_2__)
/// The same value through the SSE 4.2 crc32 instruction, 8, then 4, then 1 byte at a time.
inline std::uint32_t Crc32cHardware(std::uint32_t crc, const void* data, std::size_t size) noexcept
{
    const auto* p = static_cast<const unsigned char*>(data);
#if defined(__x86_64__)
    std::uint64_t wide = crc;
    for (; size >= 8; size -= 8, p += 8) {
        std::uint64_t word;
        std::memcpy(&word, p, 8);
        wide = _mm_crc32_u64(wide, word);
    }
    crc = static_cast<std::uint32_t>(wide);
#endif
    for (; size >= 4; size -= 4, p += 4) {
        std::uint32_t word;
        std::memcpy(&word, p, 4);
        crc = _mm_crc32_u32(crc, word);
    }
    for (; size > 0; --size, ++p)
        crc = _mm_crc32_u8(crc, *p);
    return crc;
}
#endif

/// CRC-32C with start value 0 and no final inversion, by the fastest form the build allows.
inline std::uint32_t Crc32c(const void* data, std::size_t size) noexcept
{
#if defined(__SSE4_2__)
    return Crc32cHardware(0, data, size);
#else
    return Crc32cTableDriven(0, data, size);
#endif
}

} // namespace detail

template <typename T> class THashMem
{
public:
    std::uint64_t operator()(const T& key) const noexcept { return detail::Crc32c(&key, sizeof(T)); }
};

} // namespace DataLayer
