// VLAN and ftag sets as range text.

#include <string.h>

#include "gyre/bits.h"
#include "gyre/decimal.h"
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

// One item of either notation, exactly: [lead]first[-last][tail]; returns
// the end.
inline char *put_item(char *p, char lead, uint32_t first, uint32_t last, char tail)
{
    if (lead != '\0')
        *p++ = lead;
    p = gyre::put_decimal(p, first);
    if (last != first) {
        *p++ = '-';
        p = gyre::put_decimal(p, last);
    }
    if (tail != '\0')
        *p++ = tail;
    return p;
}

// A comma item written with whole 4-byte numbers, its lead written always
// and its range part written always but kept only when there is one: no
// branch on the item's shape.  Writes up to kLongestItem bytes from p;
// the bytes past the item's end are left to be written again.  Returns
// the end.
inline __attribute__((always_inline)) char *put_comma_item_wide(char *p, size_t lead,
                                                             uint32_t first, uint32_t last)
{
    *p = ',';  // overwritten by the number when there is no lead
    p += lead;
    p = gyre::put_decimal_wide(p, first);
    *p = '-';
    char *range_end = gyre::put_decimal_wide(p + 1, last);
    return last != first ? range_end : p;
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
    size_t lead = 0;  // 1 once an item was written: later ones begin with ','
    uint32_t last_written = 0;
    // Items that start before `roomy` fit however long they are: they are
    // written without looking at the room left, and the bytes written past
    // each are written again by the next item or by the clearing below.
    char *p = out;
    char *const roomy = out + size - kLongestItem - 1;
    bool more = runs.next(&first, &last);
    if (more && p < roomy) {
        p = put_comma_item_wide(p, 0, first, last);
        lead = 1;
        last_written = last;
        while ((more = runs.next(&first, &last)) && p < roomy) {
            p = put_comma_item_wide(p, 1, first, last);
            last_written = last;
        }
    }
    // Near the end, each item is made apart and written only as far as it
    // fits.
    bool whole = true;
    for (; more; more = runs.next(&first, &last)) {
        char item[kLongestItem];
        const size_t n =
            static_cast<size_t>(put_item(item, lead ? ',' : '\0', first, last, '\0') - item);
        const size_t room = size - static_cast<size_t>(p - out);
        if (n >= room) {
            memcpy(p, item, room - 1);
            out[size - 1] = '\0';
            whole = false;
            break;
        }
        memcpy(p, item, n);
        p += n;
        lead = 1;
        last_written = last;
    }
    if (whole) {
        memset(p, 0, size - static_cast<size_t>(p - out));
    } else {
        *p = '\0';
    }
    printf_curr_idx = whole ? 0 : static_cast<int>(last_written);
    return lead != 0 ? out : kEmptySet;
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
// that fit are written here directly, as the print would write them, and
// the caller's bytes past the text are left as they were.
TARN_API int32_t gyre_sprintf_vlan_range(const void *vlans, char *buf, uint32_t size)
{
    if (buf == nullptr || size == 0)
        return 0;
    buf[0] = '\0';
    if (vlans == nullptr)
        return 0;
    const uint8_t *bits = static_cast<const uint8_t *>(vlans) + 4;
    int32_t written = 0;
    // Items that start before this position fit with their terminator and
    // the byte after it, however long they are.
    const uint32_t roomy = size > kLongestItem + 2 ? size - kLongestItem - 2 : 0;
    // A number written whole overwrites up to two bytes past its item: the
    // first is the next item's or the terminator's; the second is the next
    // item's too, or, after the last item, the caller's byte kept here.
    char *spare = nullptr;
    char spare_value = 0;
    gyre::SetRuns runs(bits, GYRE_VLAN_COUNT);
    uint32_t b = 0, e = 0;
    while (runs.next(&b, &e)) {
        // Past the end of the buffer nothing more can be written.
        if (written < 0 || static_cast<uint32_t>(written) >= size)
            break;
        char *at = buf + written;
        const uint32_t room = size - static_cast<uint32_t>(written);
        if (static_cast<uint32_t>(written) < roomy) {
            const uint32_t length =
                gyre::decimal_length(b) + (b != e ? 1 + gyre::decimal_length(e) : 0) + 1;
            spare = at + length + 1;
            spare_value = *spare;
            char *p = gyre::put_decimal_wide(at, b);
            if (b != e) {
                *p++ = '-';
                p = gyre::put_decimal_wide(p, e);
            }
            *p = ' ';
            written += static_cast<int32_t>(length);
        } else {
            written += (b == e) ? kpipe_snprintf(at, room, "%d ", static_cast<int>(b))
                                : kpipe_snprintf(at, room, "%d-%d ", static_cast<int>(b),
                                                 static_cast<int>(e));
            spare = nullptr;  // the print wrote its terminator and no more
        }
    }
    if (spare != nullptr) {
        spare[-1] = '\0';
        *spare = spare_value;
    }
    return written;
}

}  // extern "C"
