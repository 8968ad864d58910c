// The straightforward set formatters, element by element with snprintf: the
// reference that the library's word-at-a-time formatters must match byte for
// byte (tests, the differential fuzz target and the formatter benchmarks).
// Header-only, so that the fuzz and benchmark executables can use it too.
#ifndef TARN_TESTS_SUPPORT_SET_TEXT_REFERENCE_H
#define TARN_TESTS_SUPPORT_SET_TEXT_REFERENCE_H

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include "platform/kpipe.h"

namespace settext {

inline bool ref_bit(const uint8_t *bits, uint32_t i)
{
    return (bits[i >> 3] & (0x80u >> (i & 7u))) != 0;
}

// The lowest set (or clear, when `set` is false) element at or after
// `from`, or -1: one element at a time.
inline int32_t ref_next(const uint8_t *bits, uint32_t nbits, uint32_t from, bool set)
{
    for (uint32_t i = from; i < nbits; ++i)
        if (ref_bit(bits, i) == set)
            return static_cast<int32_t>(i);
    return -1;
}

// Comma notation of a map of `nbits` bits into `out` (the whole `size`
// bytes are defined afterwards), with the index word `*curr_idx`; returns
// "--" for the empty set, else `out`.
inline const char *ref_comma(const uint8_t *bits, uint32_t nbits, char *out, size_t size,
                             int *curr_idx)
{
    memset(out, 0, size);
    const int32_t first = ref_next(bits, nbits, 0, true);
    *curr_idx = 0;
    if (first < 0)
        return "--";
    int32_t s = first, c = first;
    size_t pos = 0;
    bool first_item = true;
    for (;;) {
        const int32_t next = ref_next(bits, nbits, static_cast<uint32_t>(c) + 1, true);
        if (next != c + 1) {
            const char *prefix = first_item ? "" : ",";
            const size_t room = size - pos;
            const int n = (s == c) ? snprintf(out + pos, room, "%s%d", prefix, s)
                                   : snprintf(out + pos, room, "%s%d-%d", prefix, s, c);
            if (n < 0 || static_cast<size_t>(n) >= room) {
                out[pos] = '\0';
                break;
            }
            pos += static_cast<size_t>(n);
            *curr_idx = c;
            s = next;
            first_item = false;
        }
        if (next < 0) {
            *curr_idx = 0;
            break;
        }
        c = next;
    }
    return out;
}

// Space notation of a VLAN map (4096 bits) into buf[size]; returns the sum
// of the bounded print's results.
inline int32_t ref_space(const uint8_t *bits, char *buf, uint32_t size)
{
    if (buf == nullptr || size == 0)
        return 0;
    buf[0] = '\0';
    int32_t written = 0;
    int32_t e = 0;
    bool first_pass = true;
    do {
        const int32_t b =
            ref_next(bits, 4096, first_pass ? 0u : static_cast<uint32_t>(e) + 2, true);
        first_pass = false;
        if (b < 0 || b > 4095)
            break;
        const int32_t clear = ref_next(bits, 4096, static_cast<uint32_t>(b) + 1, false);
        e = clear < 0 ? 4095 : clear - 1;
        if (written < 0 || static_cast<uint32_t>(written) >= size)
            break;
        const uint32_t room = size - static_cast<uint32_t>(written);
        written += (b == e) ? kpipe_snprintf(buf + written, room, "%d ", b)
                            : kpipe_snprintf(buf + written, room, "%d-%d ", b, e);
    } while (e < 4094);
    return written;
}

}  // namespace settext

#endif
