// Length-prefixed bitmaps: bit i lives in byte i / 8 under mask
// 0x80 >> (i % 8).  Walks read four bytes at a time as a big-endian word and
// take its highest set bit first, so set bits come out in ascending order.
#ifndef TARN_GYRE_BITS_H
#define TARN_GYRE_BITS_H

#include <stdint.h>
#include <string.h>

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

// The maximal runs of set bits of a map of `nbits` bits (a multiple of 64),
// ascending, found with whole-word operations: a run costs a few
// instructions however long it is.  The map is read as big-endian 64-bit
// words, in which bit i is bit 63 - i % 64 of word i / 64, so the lowest
// element is the word's leading bit.
class SetRuns {
public:
    SetRuns(const uint8_t *bits, uint32_t nbits)
        : bits_(bits), words_(nbits / 64), w_(0), rest_(words_ > 0 ? word(0) : 0)
    {
    }

    // The next run [*first, *last]; false when no set bit is left.
    bool next(uint32_t *first, uint32_t *last)
    {
        // rest_ holds the bits of word w_ not yet handed out.
        while (rest_ == 0) {
            if (++w_ >= words_)
                return false;
            rest_ = word(w_);
        }
        const uint32_t lead = static_cast<uint32_t>(__builtin_clzll(rest_));
        const uint32_t start = w_ * 64 + lead;
        // The clear bits after the start, moved up to the top; bits before
        // it were handed out already and are shifted away.
        uint64_t clear = ~rest_ << lead;
        if (clear != 0) {
            // The run ends inside this word, before bit lead + length.
            const uint32_t length = static_cast<uint32_t>(__builtin_clzll(clear));
            rest_ &= ~0ull >> (lead + length);
            *first = start;
            *last = start + length - 1;
            return true;
        }
        // The run goes on into the following words.
        for (;;) {
            if (++w_ >= words_) {
                rest_ = 0;
                *first = start;
                *last = words_ * 64 - 1;
                return true;
            }
            rest_ = word(w_);
            clear = ~rest_;
            if (clear != 0)
                break;
        }
        const uint32_t end = static_cast<uint32_t>(__builtin_clzll(clear));  // in word w_
        rest_ &= ~0ull >> end;
        *first = start;
        *last = w_ * 64 + end - 1;
        return true;
    }

private:
    uint64_t word(uint32_t w) const
    {
        uint64_t x;
        memcpy(&x, bits_ + 8u * w, sizeof x);
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        x = __builtin_bswap64(x);
#endif
        return x;
    }

    const uint8_t *bits_;
    uint32_t words_;
    uint32_t w_;
    uint64_t rest_;
};

}  // namespace gyre

#endif
