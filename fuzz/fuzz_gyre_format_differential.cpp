// The three set formatters against the straightforward element-by-element
// version: for any bitmap and buffer size, the same returned text, the same
// bytes in the whole scratch string and in the caller's buffer (guards
// included), the same printf_curr_idx and the same written count.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <tarn/gyre.h>

#include "tests/support/set_text_reference.h"

extern "C" int printf_curr_idx;

namespace {

constexpr size_t kScratch = sizeof gyre_scratch_bmp_str;

void compare_comma(const char *(*format)(const void *), const gyre_vlan_bmp_t &map,
                   uint32_t nbits, char *scratch)
{
    char ref[kScratch];
    int ref_idx = 0;
    const char *ref_result = settext::ref_comma(map.bits, nbits, ref, sizeof ref, &ref_idx);
    memset(scratch, 0x77, kScratch);
    printf_curr_idx = -3;
    const char *got = format(&map);
    if (got == nullptr || strcmp(got, ref_result) != 0 || (got == scratch) != (ref_result == ref))
        __builtin_trap();
    if (memcmp(scratch, ref, kScratch) != 0 || printf_curr_idx != ref_idx)
        __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    gyre_vlan_bmp_t map;
    memset(&map, 0, sizeof map);
    map.len = 0xFFFFFFFFu;  // never consulted
    memcpy(map.bits, data, size < sizeof map.bits ? size : sizeof map.bits);

    compare_comma(gyre_vlans2str, map, 4096, gyre_scratch_bmp_str);
    compare_comma(gyre_ftag2str, map, 1024, gyre_scratch_bmp_str2);

    // The caller's buffer size from the input's tail (else a small one, so
    // that short inputs meet the cut), with guard bytes on both sides.
    uint32_t cap = 1 + (size % 40);
    if (size > sizeof map.bits + 1)
        cap = 1 + ((static_cast<uint32_t>(data[sizeof map.bits]) << 8 |
                    data[sizeof map.bits + 1]) % 24000);
    char *ref = static_cast<char *>(malloc(cap + 2));
    char *got = static_cast<char *>(malloc(cap + 2));
    memset(ref, 0x5A, cap + 2);
    memset(got, 0x5A, cap + 2);
    const int32_t ref_n = settext::ref_space(map.bits, ref + 1, cap);
    const int32_t got_n = gyre_sprintf_vlan_range(&map, got + 1, cap);
    if (ref_n != got_n || memcmp(ref, got, cap + 2) != 0)
        __builtin_trap();
    free(ref);
    free(got);
    return 0;
}
