// The in-memory size query: with an explicit length and, when the input's
// envelope fits in it, the length-less wrapper that trusts the envelope.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz/fuzz_records.h"
#include "platform/tlvkit.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > (1u << 20))
        return 0;
    unsigned n = 0;
    const fuzzrec::record *all = fuzzrec::records(&n);
    const fuzzrec::record &r = all[data[0] % n];
    const uint8_t *tlv = data + 1;
    const uint32_t len = static_cast<uint32_t>(size - 1);
    if (len == 0)
        return 0;
    uint32_t a = 0;
    const uint32_t rc = tlvkit_table_get_struct_size_from_tlv(&a, tlv, len, r.tbl);
    if (len >= TLVKIT_HDR_SIZE) {
        uint32_t body;
        memcpy(&body, tlv + 4, 4);
        body = __builtin_bswap32(body);
        if (body <= len - TLVKIT_HDR_SIZE) {
            // An exact-size copy of the envelope alone.
            const uint32_t whole = body + TLVKIT_HDR_SIZE;
            uint8_t *copy = static_cast<uint8_t *>(malloc(whole));
            memcpy(copy, tlv, whole);
            const int32_t s = r.get_struct_sz(copy);
            if ((rc == 0) != (s >= 0) || (rc == 0 && static_cast<uint32_t>(s) != a))
                abort();
            free(copy);
        }
    }
    return 0;
}
