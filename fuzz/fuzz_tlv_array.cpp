// Walks hostile TLV arrays, field lookups and the field iterator (decoding
// into a record as it goes).
#include <stdint.h>
#include <string.h>

#include <tarn/tarn.h>

#include "platform/tlvkit.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > (1u << 20))
        return 0;
    const uint32_t len = static_cast<uint32_t>(size);
    uint32_t pos = 0, type = 0, vlen = 0, prev = 0;
    const void *v = nullptr;
    uint32_t rc;
    while ((rc = tlv_array_get_next_tlv(data, len, &pos, &type, &v, &vlen)) == 0) {
        if (pos <= prev || pos > len ||
            static_cast<const uint8_t *>(v) + vlen != data + pos)
            __builtin_trap();
        prev = pos;
    }
    if (rc != TLVKIT_ERR_END && rc != TLVKIT_ERR_TRUNCATED && rc != TLVKIT_ERR_NULL)
        __builtin_trap();

    for (uint32_t id = 0; id < 4; ++id)
        (void)tlvkit_get_field(data, len, id, &v, &vlen, &tarn_table_info_tbl);

    tarn_table_info_t rec;
    memset(&rec, 0, sizeof rec);
    tlvkit_field_itr_t it;
    if (tarn_table_info_field_itr_init(&it, data, len, &rec, 0) == 0) {
        tlvkit_field_value_t fv;
        for (int i = 0; i < 1000 && tarn_table_info_field_get_next(&it, &fv) == 0; ++i) {
        }
    }
    // A counted record through the iterator too.
    uint8_t kvs[4 + 4 * 84];
    memset(kvs, 0, sizeof kvs);
    if (tlvkit_field_itr_init(&it, data, len, &tarn_store_if_kvs_data_tbl, nullptr, 0) == 0) {
        tlvkit_field_value_t fv;
        for (int i = 0; i < 1000 && tlvkit_field_itr_get_next(&it, &fv) == 0; ++i) {
        }
    }
    (void)kvs;
    return 0;
}
