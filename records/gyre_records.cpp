// The Gyre record catalogue: descriptor tables, default initialisers and the
// conversion wrappers of the five Gyre records.  Names and VLAN bitmaps
// travel as fixed blobs (kind 1), the whole array each, so the bytes after a
// name's terminator and the bitmap's length word cross the wire as well.
#include <string.h>

#include <tarn/gyre.h>

#include "core/report.h"
#include "records/record_table.h"

using namespace tarn_records;

extern "C" {

uint8_t gyre_tlv_buf[GYRE_TLV_BUF_SIZE];

uint32_t gyre_tpg_vlan_info_default_init(gyre_tpg_vlan_info_t *r)
{
    if (r == nullptr)
        return 0;
    r->tpg_id = 0;
    r->name[0] = '\0';
    r->vlans.len = GYRE_VLAN_BMP_BYTES;
    memset(r->vlans.bits, 0, sizeof r->vlans.bits);
    return 0;
}

uint32_t gyre_if_vlan_info_default_init(gyre_if_vlan_info_t *r)
{
    if (r == nullptr)
        return 0;
    r->ifindex = 0;
    r->vlans.len = GYRE_VLAN_BMP_BYTES;
    memset(r->vlans.bits, 0, sizeof r->vlans.bits);
    return 0;
}

uint32_t gyre_kvs_vlan_info_default_init(gyre_kvs_vlan_info_t *r)
{
    if (r == nullptr)
        return 0;
    r->word = 0;
    r->tpg_id = 0;
    r->name[0] = '\0';
    return 0;
}

uint32_t gyre_ftag_info_default_init(gyre_ftag_info_t *r, uint32_t bytes)
{
    if (r != nullptr)
        memset(r, 0, bytes);
    return 0;
}

uint32_t gyre_store_ftag_data_default_init(gyre_store_svr_ftag_data_t *r,
                                           uint32_t bytes)
{
    if (r != nullptr)
        memset(r, 0, bytes);
    return 0;
}

}  // extern "C"

TARN_DEFINE_TABLE(gyre_tpg_vlan_info, 556, "gyre_tpg_vlan_info_t",
                  &gyre_tpg_vlan_info_default_init,
                  value(0, 0, 4), value(1, 4, 33), value(2, 40, 516), end())

TARN_DEFINE_TABLE(gyre_if_vlan_info, 520, "gyre_if_vlan_info_t",
                  &gyre_if_vlan_info_default_init,
                  value(0, 0, 4), value(1, 4, 516), end())

TARN_DEFINE_TABLE(gyre_ftag_info, 12, "gyre_ftag_info_t",
                  &gyre_ftag_info_default_init,
                  value(0, 0, 4), value(1, 4, 2), value(2, 6, 2),
                  value(3, 8, 4), end())

TARN_DEFINE_TABLE(gyre_kvs_vlan_info, 44, "gyre_kvs_vlan_info_t",
                  &gyre_kvs_vlan_info_default_init,
                  value(0, 0, 4), value(1, 4, 4), value(2, 8, 33), end())

TARN_DEFINE_TABLE(gyre_store_ftag_data, 136, "gyre_store_svr_ftag_data_t",
                  &gyre_store_ftag_data_default_init,
                  value(1, 0, 132), value(2, 132, 4), end())

// The Gyre family: the shared seven wrappers plus R_get_tlv_size, R_tlvize
// (1 on success, the opposite of R_to_tlv) and R_to_structure.
#define GYRE_DEFINE_RECORD_OPS(R, T, TBL)                                    \
    TARN_DEFINE_RECORD_OPS(R, T, TBL)                                        \
    uint32_t R##_get_tlv_size(const T *record)                               \
    {                                                                        \
        return R##_get_tlv_sz(record);                                       \
    }                                                                        \
    uint32_t R##_tlvize(const T *record, void **buf, uint32_t *len,          \
                        uint32_t *b)                                         \
    {                                                                        \
        if (R##_to_tlv(record, buf, len, 0, b, 1) == 0)                      \
            return 1;                                                        \
        tarn::tarn_report(&msg_error_TARN_TLVKIT_API_FAIL, #R "_to_tlv");    \
        return 0;                                                            \
    }                                                                        \
    uint32_t R##_to_structure(T **record, const void *tlv, uint32_t tlv_len) \
    {                                                                        \
        return R##_to_struct(record, tlv, tlv_len, 1);                       \
    }

extern "C" {

GYRE_DEFINE_RECORD_OPS(gyre_tpg_vlan_info, gyre_tpg_vlan_info_t,
                       gyre_tpg_vlan_info_tbl)
GYRE_DEFINE_RECORD_OPS(gyre_if_vlan_info, gyre_if_vlan_info_t,
                       gyre_if_vlan_info_tbl)
GYRE_DEFINE_RECORD_OPS(gyre_ftag_info, gyre_ftag_info_t, gyre_ftag_info_tbl)
GYRE_DEFINE_RECORD_OPS(gyre_kvs_vlan_info, gyre_kvs_vlan_info_t,
                       gyre_kvs_vlan_info_tbl)
GYRE_DEFINE_RECORD_OPS(gyre_store_svr_ftag_data, gyre_store_svr_ftag_data_t,
                       gyre_store_ftag_data_tbl)

}  // extern "C"
