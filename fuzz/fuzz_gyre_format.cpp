// Bitmaps of any content through the three set formatters: the texts stay
// inside their buffers, parse back to the set (or to a prefix of it when
// cut), and the bounded print never writes past the size it is given.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <tarn/gyre.h>

extern "C" int printf_curr_idx;

namespace {

bool bit(const uint8_t *bits, uint32_t i) { return (bits[i / 8] & (0x80u >> (i % 8))) != 0; }

// Checks comma text against the map: ascending items "a" or "a-b", each a
// maximal run of set bits, covering every set bit up to where it stops.
void check_comma(const char *text, const uint8_t *bits, uint32_t nbits, size_t cap)
{
    const size_t len = strnlen(text, cap);
    if (len >= cap)
        __builtin_trap();
    bool any = false;
    for (uint32_t i = 0; i < nbits; ++i)
        any |= bit(bits, i);
    if (!any) {
        if (strcmp(text, "--") != 0 || printf_curr_idx != 0)
            __builtin_trap();
        return;
    }
    const char *p = text;
    long next_free = 0;  // every bit below this has been accounted for
    long last = -1;
    while (*p != '\0') {
        if (p != text && *p++ != ',')
            __builtin_trap();
        char *end = nullptr;
        const long a = strtol(p, &end, 10);
        long b = a;
        if (end == p)
            __builtin_trap();
        p = end;
        if (*p == '-') {
            b = strtol(p + 1, &end, 10);
            p = end;
        }
        if (a < next_free || b < a || b >= static_cast<long>(nbits))
            __builtin_trap();
        for (long i = next_free; i < a; ++i)
            if (bit(bits, static_cast<uint32_t>(i)))
                __builtin_trap();
        for (long i = a; i <= b; ++i)
            if (!bit(bits, static_cast<uint32_t>(i)))
                __builtin_trap();
        if ((a > 0 && bit(bits, static_cast<uint32_t>(a - 1))) ||
            (b + 1 < static_cast<long>(nbits) && bit(bits, static_cast<uint32_t>(b + 1))))
            __builtin_trap();
        next_free = b + 1;
        last = b;
    }
    bool rest = false;
    for (long i = next_free; i < static_cast<long>(nbits); ++i)
        rest |= bit(bits, static_cast<uint32_t>(i));
    // Whole: printf_curr_idx 0.  Cut: the last element written.
    if (rest ? printf_curr_idx != last : printf_curr_idx != 0)
        __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    gyre_vlan_bmp_t vlans;
    memset(&vlans, 0, sizeof vlans);
    vlans.len = GYRE_VLAN_BMP_BYTES;
    memcpy(vlans.bits, data, size < sizeof vlans.bits ? size : sizeof vlans.bits);
    gyre_ftag_bmp_t ftags;
    memset(&ftags, 0, sizeof ftags);
    ftags.len = GYRE_FTAG_BMP_BYTES;
    memcpy(ftags.bits, vlans.bits, sizeof ftags.bits);

    check_comma(gyre_vlans2str(&vlans), vlans.bits, 4096, sizeof gyre_scratch_bmp_str);
    check_comma(gyre_ftag2str(&ftags), ftags.bits, 1024, sizeof gyre_scratch_bmp_str2);

    // A buffer size taken from the input's tail; guard bytes around it.
    uint32_t cap = 64;
    if (size > sizeof vlans.bits + 1)
        cap = 1 + ((static_cast<uint32_t>(data[sizeof vlans.bits]) << 8 |
                    data[sizeof vlans.bits + 1]) % 24000);
    char *buf = static_cast<char *>(malloc(cap + 2));
    memset(buf, 0x5A, cap + 2);
    const int32_t n = gyre_sprintf_vlan_range(&vlans, buf + 1, cap);
    if (buf[0] != 0x5A || buf[cap + 1] != 0x5A || n < 0)
        __builtin_trap();
    if (memchr(buf + 1, '\0', cap) == nullptr)
        __builtin_trap();
    if (static_cast<uint32_t>(n) < cap && strlen(buf + 1) != static_cast<size_t>(n))
        __builtin_trap();
    free(buf);
    return 0;
}
