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

// The element of the one set bit of a word read as stored (memcpy): bytes
// in memory order, each byte's elements from its high bit down.
inline uint32_t lone_element(uint64_t raw)
{
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    return 63u - static_cast<uint32_t>(__builtin_ctzll(raw));
#else
    return static_cast<uint32_t>(__builtin_ctzll(raw)) ^ 7u;
#endif
}

// The word with element i at bit i (the bits of every byte reversed).
inline uint64_t element_order(uint64_t x)
{
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_BIG_ENDIAN__
    x = __builtin_bswap64(x);  // byte 0 in the low bits
#endif
    x = ((x >> 1) & 0x5555555555555555ull) | ((x & 0x5555555555555555ull) << 1);
    x = ((x >> 2) & 0x3333333333333333ull) | ((x & 0x3333333333333333ull) << 2);
    return ((x >> 4) & 0x0F0F0F0F0F0F0F0Full) | ((x & 0x0F0F0F0F0F0F0F0Full) << 4);
}

// The maximal runs of set bits of a map of `nbits` bits (a multiple of 64),
// ascending.
//
// Each 64-bit word is read with element i at bit i % 64 (the bits of every
// byte reversed), so that x ^ (x << 1 | carry) has a bit exactly where a
// run starts or where the element before was the last of a run.  Those
// edges come in start/end pairs, taken lowest first with a count of
// trailing zeros and cleared with x & (x - 1): a run costs a few
// independent instructions, whatever its length and position.  Words
// without an edge (all clear outside a run, all set inside one) are passed
// over before any of that.
class SetRuns {
public:
    SetRuns(const uint8_t *bits, uint32_t nbits) : bits_(bits), words_(nbits / 64) {}

    // The next run [*first, *last]; false when no set bit is left.
    inline __attribute__((always_inline)) bool next(uint32_t *first, uint32_t *last)
    {
        for (;;) {
            while (edges_ == 0) {
                if (w_ >= words_) {
                    if (carry_ == 0)
                        return false;
                    carry_ = 0;  // a run up to the last element
                    *first = start_;
                    *last = words_ * 64 - 1;
                    return true;
                }
                uint64_t x;
                memcpy(&x, bits_ + 8u * w_, sizeof x);
                base_ = 64 * w_++;
                if (x == 0 - carry_)
                    continue;  // no edge: carry_ stays
                x = element_order(x);
                edges_ = x ^ ((x << 1) | carry_);
                const uint64_t open = carry_;
                carry_ = x >> 63;
                if (open != 0) {
                    // The first edge ends the run open since an earlier word.
                    const uint32_t end = base_ + static_cast<uint32_t>(__builtin_ctzll(edges_));
                    edges_ &= edges_ - 1;
                    *first = start_;
                    *last = end - 1;
                    return true;
                }
            }
            const uint32_t start = base_ + static_cast<uint32_t>(__builtin_ctzll(edges_));
            edges_ &= edges_ - 1;
            if (edges_ == 0) {
                start_ = start;  // runs on into the next word (carry_ is 1)
                continue;
            }
            const uint32_t end = base_ + static_cast<uint32_t>(__builtin_ctzll(edges_));
            edges_ &= edges_ - 1;
            *first = start;
            *last = end - 1;
            return true;
        }
    }

private:
    const uint8_t *bits_;
    uint32_t words_;
    uint32_t w_ = 0;      // the next word to read
    uint32_t base_ = 0;   // the first element of the word of edges_
    uint32_t start_ = 0;  // of the run open at the end of the last word
    uint64_t carry_ = 0;  // 1 when the last element read is set
    uint64_t edges_ = 0;  // edges of the last word not yet handed out
};

// The runs of set bits that one 64-bit word of a map closes, for formatters
// that write each run as soon as it is known.  `open` is 1 while a run
// begun in an earlier word (at `start`) goes on.
struct WordRunState {
    uint64_t open = 0;
    uint32_t start = 0;
};

// The first word at or after `w` (of `words` 64-bit words) that changes
// something: not all clear outside a run (`open` 0), not all set inside
// one (`open` 1); `words` when there is none.  Four words a step.
inline uint32_t next_changing_word(const uint8_t *bits, uint32_t w, uint32_t words,
                                   uint64_t open)
{
    const uint64_t same = 0 - open;
    for (; w + 4 <= words; w += 4) {
        uint64_t x[4];
        memcpy(x, bits + 8u * w, sizeof x);
        if (((x[0] ^ same) | (x[1] ^ same) | (x[2] ^ same) | (x[3] ^ same)) != 0)
            break;
    }
    for (; w < words; ++w) {
        uint64_t x;
        memcpy(&x, bits + 8u * w, sizeof x);
        if (x != same)
            break;
    }
    return w;
}

// Hands `sink` the runs of set bits that end in word `w` of `bits`, in
// order, and leaves a run still open at the word's end in `state` (after
// the last word, the caller closes it).  The sink sees the word once:
//   sink.single(v)             one run of one element;
//   sink.singles(base, s)      every set bit of s (element base + i at bit
//                              i) is a run of one element;
//   sink.runs(base, s, e)      the runs start at the set bits of s and end
//                              at those of e, in pairs, lowest first;
//   sink.run(first, last)      one run.
// Each returns false to stop, and word_runs then returns false.
//
// A word that changes nothing (all clear outside a run, all set inside one)
// costs a compare; a word with one set element and no open run, a count of
// trailing zeros without reversing its bits.  Otherwise the starts are
// x & ~(x << 1) and the ends x & ~(x >> 1): two masks that the sink takes
// apart lowest bit first, each step a 1-cycle dependency (x & (x - 1)).
template <class Sink>
inline __attribute__((always_inline)) bool word_runs(const uint8_t *bits, uint32_t w,
                                                     WordRunState *state, Sink &sink)
{
    uint64_t raw;
    memcpy(&raw, bits + 8u * w, sizeof raw);
    if (raw == 0 - state->open)
        return true;
    const uint32_t base = 64u * w;
    if (state->open == 0 && (raw & (raw - 1)) == 0) {
        const uint32_t e = lone_element(raw);
        if (e != 63u)
            return sink.single(base + e);
        state->open = 1;  // may go on in the next word
        state->start = base + 63u;
        return true;
    }
    uint64_t x = element_order(raw);
    if (state->open != 0) {
        // Not all set: the run ends before the first clear element.
        const uint32_t end = static_cast<uint32_t>(__builtin_ctzll(~x));
        state->open = 0;
        if (!sink.run(state->start, base + end - 1))
            return false;
        x &= ~0ull << end;
    }
    if ((x >> 63) != 0) {
        // The last run goes on into the next word, perhaps: it is left open.
        const uint64_t clear = ~x;
        const uint32_t from = clear != 0 ? 64u - static_cast<uint32_t>(__builtin_clzll(clear)) : 0u;
        state->open = 1;
        state->start = base + from;
        x &= from != 0 ? ~(~0ull << from) : 0;
    }
    if (x == 0)
        return true;
    const uint64_t starts = x & ~(x << 1), ends = x & ~(x >> 1);
    if (starts == ends)
        return sink.singles(base, starts);
    return sink.runs(base, starts, ends);
}

}  // namespace gyre

#endif
