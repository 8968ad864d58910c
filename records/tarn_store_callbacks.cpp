// Conversion callbacks of the variable-length Tarn store records.  The
// stored format is the Tarn service's and is kept as it stands, including
// the prefix word of tarn_store_data_t: the encoder writes the sub-record's
// first word where the decoder reads the kind selector back.
#include <string.h>

#include <tarn/tarn.h>

#include "platform/tlvkit.h"
#include "records/tarn_store_callbacks.h"

namespace {

uint32_t read_word(const void *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

}  // namespace

uint32_t tarn_store_if_kvs_data_count(const void *record)
{
    if (record == nullptr)
        return 0;
    return static_cast<const tarn_store_if_kvs_data_t *>(record)->count;
}

uint32_t tarn_store_kvs_ctx_data_count(const void *record)
{
    if (record == nullptr)
        return 0;
    const uint32_t n = static_cast<const tarn_store_kvs_ctx_data_t *>(record)->count;
    // A count whose byte size does not fit 32 bits cannot describe any
    // record; saturate so that no encoding can ever match it.
    if (n > 0xFFFFFFFFu / TARN_KVS_CTX_ENTRY_SIZE)
        return 0xFFFFFFFFu;
    return n * TARN_KVS_CTX_ENTRY_SIZE;
}

extern "C" {

// ---- tarn_store_cfg_t ----------------------------------------------------

uint32_t tarn_store_cfg_data_to_tlv(const void *record, uint32_t unused,
                                    void **data, uint32_t *len,
                                    uint32_t *allocated)
{
    (void)unused;
    if (data == nullptr || len == nullptr || allocated == nullptr ||
        record == nullptr)
        return TLVKIT_CB_NULL_ARG;
    const tarn_store_cfg_t *cfg = static_cast<const tarn_store_cfg_t *>(record);
    // Handed out in place: the bytes already follow the length word.
    *data = const_cast<uint8_t *>(cfg->data);
    *len = cfg->len;
    *allocated = 0;
    return TLVKIT_CB_OK;
}

uint32_t tarn_store_cfg_tlv_data_sz(const void *record)
{
    if (record == nullptr)
        return 0;
    return static_cast<const tarn_store_cfg_t *>(record)->len;
}

uint32_t tarn_store_cfg_data_to_struct(void *record, const void *data,
                                       uint32_t len)
{
    if (data == nullptr || record == nullptr)
        return TLVKIT_CB_NULL_ARG;
    // The length word arrives on its own as field id 0; tlvkit has sized the
    // destination from this value's length.
    if (len != 0)
        memcpy(static_cast<tarn_store_cfg_t *>(record)->data, data, len);
    return TLVKIT_CB_OK;
}

// ---- tarn_store_data_t ---------------------------------------------------

uint32_t tarn_store_data_info_get_tlv_data_sz(const void *record)
{
    if (record == nullptr)
        return 0;
    const tarn_store_data_t *r = static_cast<const tarn_store_data_t *>(record);
    switch (r->kind) {
    case 1:
        return 4 + tarn_soo_info_get_tlv_sz(&r->u.soo);
    case 2:
        return 4 + tarn_vpnid_info_get_tlv_sz(&r->u.vpnid);
    case 3:
        return 4 + tarn_rt_limits_info_get_tlv_sz(&r->u.rt_limits);
    default:
        return 4;
    }
}

uint32_t tarn_store_data_info_struct_to_tlv(const void *record,
                                            uint32_t unused, void **data,
                                            uint32_t *len, uint32_t *allocated)
{
    (void)unused;
    if (data == nullptr || len == nullptr || allocated == nullptr ||
        record == nullptr)
        return TLVKIT_CB_NULL_ARG;
    const tarn_store_data_t *r = static_cast<const tarn_store_data_t *>(record);
    *allocated = 1;
    uint32_t sub;
    switch (r->kind) {
    case 1:
        sub = tarn_soo_info_get_tlv_sz(&r->u.soo);
        break;
    case 2:
        sub = tarn_vpnid_info_get_tlv_sz(&r->u.vpnid);
        break;
    case 3:
        sub = tarn_rt_limits_info_get_tlv_sz(&r->u.rt_limits);
        break;
    default:
        *data = nullptr;
        *allocated = 0;
        *len = 0;
        return TLVKIT_CB_OK;
    }
    const uint32_t n = sub + 4;
    uint8_t *out = static_cast<uint8_t *>(tlvkit_malloc(n));
    *data = out;
    if (out == nullptr)
        return TLVKIT_CB_NOMEM;
    memset(out, 0, n);
    // tlvkit encodes at the end of a caller's buffer, so the sub-record
    // lands after the four bytes of the prefix word.
    void *buf = out;
    uint32_t buf_len = n;
    uint32_t written = 0;
    switch (r->kind) {
    case 1:
        (void)tarn_soo_info_to_tlv(&r->u.soo, &buf, &buf_len, 0, &written, 1);
        break;
    case 2:
        (void)tarn_vpnid_info_to_tlv(&r->u.vpnid, &buf, &buf_len, 0, &written,
                                     1);
        break;
    default:
        (void)tarn_rt_limits_info_to_tlv(&r->u.rt_limits, &buf, &buf_len, 0,
                                         &written, 1);
        break;
    }
    memcpy(out, &r->u, 4);
    *len = n;
    return TLVKIT_CB_OK;
}

uint32_t tarn_store_data_info_tlv_to_struct(void *record, const void *data,
                                            uint32_t len)
{
    // Data too short for the prefix word counts as no data at all.
    if (data == nullptr || record == nullptr || len < 4)
        return TLVKIT_CB_NULL_ARG;
    tarn_store_data_t *r = static_cast<tarn_store_data_t *>(record);
    const uint8_t *p = static_cast<const uint8_t *>(data);
    r->kind = read_word(p);
    switch (r->kind) {
    case 1: {
        tarn_soo_info_t *sub = &r->u.soo;
        (void)tarn_soo_info_to_struct(&sub, p + 4, len - 4, 1);
        break;
    }
    case 2: {
        tarn_vpnid_info_t *sub = &r->u.vpnid;
        (void)tarn_vpnid_info_to_struct(&sub, p + 4, len - 4, 1);
        break;
    }
    case 3: {
        tarn_tib_rt_limits_t *sub = &r->u.rt_limits;
        (void)tarn_rt_limits_info_to_struct(&sub, p + 4, len - 4, 1);
        break;
    }
    default:
        break;
    }
    return TLVKIT_CB_OK;
}

}  // extern "C"
