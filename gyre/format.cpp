// VLAN and ftag sets as range text.

#include <string.h>

#include "gyre/bits.h"
#include "gyre/internal.h"
#include "platform/dbgwrap.h"
#include "platform/kpipe.h"

extern "C" {
TARN_API char gyre_scratch_bmp_str[2098];
TARN_API char gyre_scratch_bmp_str2[2098];
}

namespace {

const char kEmptySet[] = "--";

// The longest item of either notation: ",4095-4095" or "4095-4095 ".
constexpr size_t kLongestItem = 10;

// "00" to "99", so that a number takes one table read per two digits.
struct DigitPairs {
    char d[200];
    constexpr DigitPairs() : d()
    {
        for (int i = 0; i < 100; ++i) {
            d[2 * i] = static_cast<char>('0' + i / 10);
            d[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
};
constexpr DigitPairs kDigitPairs;

// Writes v (below 10000: elements go up to 4095) in decimal as "%d" does;
// returns the end.
inline __attribute__((always_inline)) char *put_number(char *p, uint32_t v)
{
    const char *pairs = kDigitPairs.d;
    if (v < 10) {
        *p++ = static_cast<char>('0' + v);
    } else if (v < 100) {
        memcpy(p, pairs + 2 * v, 2);
        p += 2;
    } else if (v < 1000) {
        *p++ = static_cast<char>('0' + v / 100);
        memcpy(p, pairs + 2 * (v % 100), 2);
        p += 2;
    } else {
        memcpy(p, pairs + 2 * (v / 100), 2);
        memcpy(p + 2, pairs + 2 * (v % 100), 2);
        p += 4;
    }
    return p;
}

// The same as put_number, but may write up to four bytes whatever the
// number's length: for a string whose bytes past the text are written
// again afterwards.  Branch-free on little-endian hosts.
inline __attribute__((always_inline)) char *put_number_wide(char *p, uint32_t v)
{
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
    uint16_t hi, lo;
    memcpy(&hi, kDigitPairs.d + 2 * (v / 100), 2);
    memcpy(&lo, kDigitPairs.d + 2 * (v % 100), 2);
    const uint32_t skip = (v < 1000) + (v < 100) + (v < 10);  // leading zeros
    const uint32_t digits = (hi | static_cast<uint32_t>(lo) << 16) >> (8 * skip);
    memcpy(p, &digits, 4);
    return p + 4 - skip;
#else
    return put_number(p, v);
#endif
}

// One item of either notation: [lead]first[-last][tail]; returns the end.
inline __attribute__((always_inline)) char *put_item(char *p, char lead, uint32_t first, uint32_t last,
                                                  char tail)
{
    if (lead != '\0')
        *p++ = lead;
    p = put_number(p, first);
    if (last != first) {
        *p++ = '-';
        p = put_number(p, last);
    }
    if (tail != '\0')
        *p++ = tail;
    return p;
}

// Comma notation ("1-3,5,10-11") of a map of `nbits` bits, cut after the
// last item that fits with its terminator.  printf_curr_idx follows the last
// element written, and is 0 when the set was empty or written whole.
//
// Leaves the string exactly as item-by-item snprintf would: the rest of the
// array zeroed, and an item that does not fit written as far as it goes
// before the terminator is put back at its start.
const char *comma_notation(const uint8_t *bits, uint32_t nbits, char *out, size_t size)
{
    gyre::SetRuns runs(bits, nbits);
    uint32_t first = 0, last = 0;
    if (!runs.next(&first, &last)) {
        memset(out, 0, size);
        printf_curr_idx = 0;
        return kEmptySet;
    }
    size_t pos = 0;
    uint32_t last_written = 0;
    bool whole = true;
    do {
        const char lead = pos == 0 ? '\0' : ',';
        const size_t room = size - pos;
        if (room > kLongestItem) {
            // Bytes written past the item are written again by the next
            // item or by the clearing below.
            char *p = out + pos;
            if (lead != '\0')
                *p++ = lead;
            p = put_number_wide(p, first);
            if (last != first) {
                *p++ = '-';
                p = put_number_wide(p, last);
            }
            pos = static_cast<size_t>(p - out);
        } else {
            char item[kLongestItem];
            const size_t n = static_cast<size_t>(put_item(item, lead, first, last, '\0') - item);
            if (n >= room) {
                memcpy(out + pos, item, room - 1);
                out[size - 1] = '\0';
                whole = false;
                break;
            }
            memcpy(out + pos, item, n);
            pos += n;
        }
        last_written = last;
    } while (runs.next(&first, &last));
    if (whole) {
        memset(out + pos, 0, size - pos);
    } else {
        out[pos] = '\0';
    }
    printf_curr_idx = whole ? 0 : static_cast<int>(last_written);
    return out;
}

}  // namespace

extern "C" {

TARN_API const char *gyre_vlans2str(const void *vlans)
{
    if (vlans == nullptr)
        return kEmptySet;
    const uint8_t *bits = static_cast<const uint8_t *>(vlans) + 4;
    return comma_notation(bits, GYRE_VLAN_COUNT, gyre_scratch_bmp_str,
                          sizeof gyre_scratch_bmp_str);
}

TARN_API const char *gyre_ftag2str(const void *ftags)
{
    if (ftags == nullptr)
        return kEmptySet;
    const uint8_t *bits = static_cast<const uint8_t *>(ftags) + 4;
    return comma_notation(bits, GYRE_FTAG_COUNT, gyre_scratch_bmp_str2,
                          sizeof gyre_scratch_bmp_str2);
}

// Space notation ("1-3 5 10-11 "), each item followed by one space.  The
// written count adds up what the bounded print returns for each item, so a
// cut item counts whole; nothing follows once the buffer is full.  Items
// that fit are written here directly, as the print would write them.
TARN_API int32_t gyre_sprintf_vlan_range(const void *vlans, char *buf, uint32_t size)
{
    if (buf == nullptr || size == 0)
        return 0;
    buf[0] = '\0';
    if (vlans == nullptr)
        return 0;
    const uint8_t *bits = static_cast<const uint8_t *>(vlans) + 4;
    gyre::SetRuns runs(bits, GYRE_VLAN_COUNT);
    int32_t written = 0;
    uint32_t b = 0, e = 0;
    while (runs.next(&b, &e)) {
        // Past the end of the buffer nothing more can be written.
        if (written < 0 || static_cast<uint32_t>(written) >= size)
            break;
        const uint32_t room = size - static_cast<uint32_t>(written);
        char *at = buf + written;
        if (room > kLongestItem) {
            char *end = put_item(at, '\0', b, e, ' ');
            *end = '\0';
            written += static_cast<int32_t>(end - at);
        } else {
            written += (b == e) ? kpipe_snprintf(at, room, "%d ", static_cast<int>(b))
                                : kpipe_snprintf(at, room, "%d-%d ", static_cast<int>(b),
                                                 static_cast<int>(e));
        }
    }
    return written;
}

}  // extern "C"
