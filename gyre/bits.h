// Length-prefixed bitmaps: bit i lives in byte i / 8 under mask
// 0x80 >> (i % 8).  Walks read four bytes at a time as a big-endian word and
// take its highest set bit first, so set bits come out in ascending order.
#ifndef TARN_GYRE_BITS_H
#define TARN_GYRE_BITS_H

#include <stdint.h>

namespace gyre {

inline bool bit_test(const uint8_t *bits, uint32_t i)
{
    return (bits[i >> 3] & (0x80u >> (i & 7u))) != 0;
}
inline void bit_set(uint8_t *bits, uint32_t i) { bits[i >> 3] |= static_cast<uint8_t>(0x80u >> (i & 7u)); }
inline void bit_clear(uint8_t *bits, uint32_t i) { bits[i >> 3] &= static_cast<uint8_t>(~(0x80u >> (i & 7u))); }

inline uint32_t load_word(const uint8_t *bits, uint32_t w)
{
    const uint8_t *p = bits + 4u * w;
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

// The lowest set bit at or after `from` in a map of `nbits` bits (a
// multiple of 32), or -1 when there is none.
inline int32_t next_set(const uint8_t *bits, uint32_t nbits, uint32_t from)
{
    if (from >= nbits)
        return -1;
    uint32_t w = from >> 5;
    uint32_t word = load_word(bits, w) & (0xFFFFFFFFu >> (from & 31u));
    for (;;) {
        if (word != 0)
            return static_cast<int32_t>((w << 5) + static_cast<uint32_t>(__builtin_clz(word)));
        if (++w >= nbits / 32)
            return -1;
        word = load_word(bits, w);
    }
}

// The lowest clear bit at or after `from`, or -1.
inline int32_t next_clear(const uint8_t *bits, uint32_t nbits, uint32_t from)
{
    if (from >= nbits)
        return -1;
    uint32_t w = from >> 5;
    uint32_t word = ~load_word(bits, w) & (0xFFFFFFFFu >> (from & 31u));
    for (;;) {
        if (word != 0)
            return static_cast<int32_t>((w << 5) + static_cast<uint32_t>(__builtin_clz(word)));
        if (++w >= nbits / 32)
            return -1;
        word = ~load_word(bits, w);
    }
}

// Calls f(i) for every set bit, ascending.
template <class F>
void for_each_set(const uint8_t *bits, uint32_t nbits, F f)
{
    for (int32_t i = next_set(bits, nbits, 0); i >= 0;
         i = next_set(bits, nbits, static_cast<uint32_t>(i) + 1))
        f(static_cast<uint32_t>(i));
}

inline uint32_t count_set(const uint8_t *bits, uint32_t nbits)
{
    uint32_t n = 0;
    for (uint32_t w = 0; w < nbits / 32; ++w)
        n += static_cast<uint32_t>(__builtin_popcount(load_word(bits, w)));
    return n;
}

}  // namespace gyre

#endif
