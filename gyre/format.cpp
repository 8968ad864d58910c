// VLAN and ftag sets as range text.

#include <stdio.h>
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

// Comma notation ("1-3,5,10-11") of a map of `nbits` bits, cut after the
// last item that fits.  printf_curr_idx follows the last element written,
// and is 0 when the set was empty or written whole.
const char *comma_notation(const uint8_t *bits, uint32_t nbits, char *out, size_t size)
{
    memset(out, 0, size);
    int32_t first = gyre::next_set(bits, nbits, 0);
    printf_curr_idx = 0;
    if (first >= 0) {
        int32_t s = first, c = first;
        size_t pos = 0;
        bool first_item = true;
        for (;;) {
            const int32_t next = gyre::next_set(bits, nbits, static_cast<uint32_t>(c) + 1);
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
                printf_curr_idx = c;
                s = next;
                first_item = false;
            }
            if (next < 0) {
                printf_curr_idx = 0;
                break;
            }
            c = next;
        }
        out[pos < size ? pos : size - 1] = '\0';
    }
    return gyre::count_set(bits, nbits) == 0 ? kEmptySet : out;
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
// loop stops once a range ends at 4094 or above.
TARN_API int32_t gyre_sprintf_vlan_range(const void *vlans, char *buf, uint32_t size)
{
    if (buf == nullptr || size == 0)
        return 0;
    buf[0] = '\0';
    if (vlans == nullptr)
        return 0;
    const uint8_t *bits = static_cast<const uint8_t *>(vlans) + 4;
    int32_t written = 0;
    int32_t e = 0;
    bool first_pass = true;
    do {
        const int32_t b = gyre::next_set(bits, GYRE_VLAN_COUNT,
                                         first_pass ? 0u : static_cast<uint32_t>(e) + 2);
        first_pass = false;
        if (b < 0 || b > 4095)
            break;
        const int32_t clear = gyre::next_clear(bits, GYRE_VLAN_COUNT, static_cast<uint32_t>(b) + 1);
        e = clear < 0 ? 4095 : clear - 1;
        // Past the end of the buffer nothing more can be written.
        if (written < 0 || static_cast<uint32_t>(written) >= size)
            break;
        const int n = (b == e)
            ? kpipe_snprintf(buf + written, size - static_cast<uint32_t>(written), "%d ", b)
            : kpipe_snprintf(buf + written, size - static_cast<uint32_t>(written), "%d-%d ", b, e);
        written += n;
    } while (e < 4094);
    return written;
}

}  // extern "C"
