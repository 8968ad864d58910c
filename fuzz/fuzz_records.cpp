// Decodes hostile encodings of every record: first byte = record, rest =
// TLV.  A decoded record must survive a re-encode and decode to itself
// (except tarn_store_data_t, whose stored format turns the union's first
// word into the selector on the way back).
#include <stdint.h>
#include <stdio.h>
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

    uint32_t need = 0;
    const uint32_t rc_size =
        len == 0 ? TLVKIT_ERR_TRUNCATED
                 : tlvkit_table_get_struct_size_from_tlv(&need, tlv, len, r.tbl);

    void *out = nullptr;
    const uint32_t rc = r.to_struct(&out, tlv, len, 0);
    if (rc != 0) {
        if (out != nullptr)
            abort();
        // Into a caller's record: exactly the reported size.
        if (rc_size == 0) {
            void *mine = calloc(need ? need : 1, 1);
            void *dst = mine;
            if (r.to_struct(&dst, tlv, len, 1) == 0)
                abort();  // the two modes must agree
            free(mine);
        }
        return 0;
    }
    if (rc_size != 0)
        abort();
    void *mine = calloc(need ? need : 1, 1);
    void *dst = mine;
    if (r.to_struct(&dst, tlv, len, 1) != 0 || memcmp(mine, out, need) != 0)
        abort();
    free(mine);

    // Re-encode and decode again.
    void *enc = nullptr;
    uint32_t enc_len = 0;
    if (r.to_tlv(out, &enc, &enc_len, 0, nullptr, 0) != 0)
        abort();
    void *again = nullptr;
    if (r.to_struct(&again, enc, enc_len, 0) != 0)
        abort();
    if (strcmp(r.prefix, "tarn_store_data") != 0 && memcmp(again, out, need) != 0)
        abort();
    free(again);
    free(enc);
    free(out);
    return 0;
}
