// The Tarn record catalogue: descriptor tables, default initialisers and the
// conversion wrappers of the eighteen Tarn records.  The tables are shared
// with the Tarn service, so every id, size, offset and the descriptor order
// are reproduced exactly, quirks included (tarn_table_info_t lists id 6
// second; tarn_store_data_t carries id 2 twice).
#include <string.h>

#include <tarn/tarn.h>

#include "records/record_table.h"
#include "records/tarn_store_callbacks.h"

using namespace tarn_records;

extern "C" {

// ---- default initialisers ------------------------------------------------

uint32_t tarn_store_if_data_default_init(tarn_store_if_data_t *r)
{
    if (r == nullptr)
        return 0;
    // The strings are the caller's: the service fills them before or after.
    r->w0 = r->w1 = r->w2 = 0;
    r->w3 = r->w4 = 0;
    return 0;
}

uint32_t tarn_store_svr_data_default_init(tarn_store_svr_data_t *r)
{
    if (r == nullptr)
        return 0;
    // The word of id 3 keeps its value on purpose.
    r->w0 = r->w1 = r->w3 = 0;
    return 0;
}

uint32_t tarn_store_vrf_data_default_init(tarn_store_vrf_data_t *r)
{
    if (r == nullptr)
        return 0;
    memset(r, 0, sizeof *r);
    r->w3 = 1;
    return 0;
}

uint32_t tarn_table_info_default_init(tarn_table_info_t *r)
{
    if (r == nullptr)
        return 0;
    r->context_id = r->w1 = r->w2 = r->w3 = 0;
    r->name[0] = '\0';
    r->tpg_id = 0;
    return 0;
}

uint32_t tarn_context_info_default_init(tarn_context_info_t *r)
{
    if (r == nullptr)
        return 0;
    r->state = 0;
    r->reason = 0;
    r->name[0] = '\0';
    return 0;
}

uint32_t tarn_vname_default_init(tarn_vname_t *r)
{
    if (r == nullptr)
        return 0;
    r->name[0] = '\0';
    return 0;
}

uint32_t tarn_tname_default_init(tarn_tname_t *r)
{
    if (r == nullptr)
        return 0;
    r->name[0] = '\0';
    return 0;
}

uint32_t tarn_if_table_data_default_init(tarn_if_table_info_t *r)
{
    if (r == nullptr)
        return 0;
    r->w0 = r->w1 = r->w3 = 0;
    r->w2 = 1;
    r->name[0] = '\0';
    return 0;
}

uint32_t tarn_soo_info_default_init(tarn_soo_info_t *r, uint32_t bytes)
{
    if (r != nullptr)
        memset(r, 0, bytes);
    return 0;
}

uint32_t tarn_vpnid_info_default_init(tarn_vpnid_info_t *r, uint32_t bytes)
{
    if (r != nullptr)
        memset(r, 0, bytes);
    return 0;
}

uint32_t tarn_rt_limits_info_default_init(tarn_tib_rt_limits_t *r,
                                          uint32_t bytes)
{
    if (r != nullptr)
        memset(r, 0, bytes);
    return 0;
}

uint32_t tarn_as_format_default_init(tarn_as_format_t *r, uint32_t bytes)
{
    if (r != nullptr)
        memset(r, 0, bytes);
    return 0;
}

uint32_t tarn_store_data_default_init(tarn_store_data_t *r, uint32_t bytes)
{
    if (r != nullptr)
        memset(r, 0, bytes);
    return 0;
}

uint32_t tarn_store_tib_data_default_init(tarn_store_tib_data_t *r,
                                          uint32_t bytes)
{
    if (r != nullptr)
        memset(r, 0, bytes);
    return 0;
}

uint32_t tarn_tlv_if_data_default_init(tarn_tlv_if_data_t *r)
{
    (void)r;
    return 0;
}

uint32_t tarn_store_if_kvs_data_default_init(tarn_store_if_kvs_data_t *r)
{
    (void)r;
    return 0;
}

}  // extern "C"

// ---- descriptor tables ---------------------------------------------------

TARN_DEFINE_TABLE(tarn_store_if_data, 88, "tarn_store_if_data_t",
                  &tarn_store_if_data_default_init,
                  value(1, 0, 4), value(2, 4, 4), value(3, 8, 4),
                  string(4, 12, 33), string(5, 45, 33), value(6, 80, 4),
                  value(7, 84, 4), end())

TARN_DEFINE_TABLE(tarn_store_svr_data, 16, "tarn_store_svr_data_t",
                  &tarn_store_svr_data_default_init,
                  value(1, 0, 4), value(2, 4, 4), value(3, 8, 4),
                  value(4, 12, 4), end())

TARN_DEFINE_TABLE(tarn_store_vrf_data, 208, "tarn_store_vrf_data_t",
                  &tarn_store_vrf_data_default_init,
                  value(1, 0, 4), value(2, 4, 4), value(3, 8, 4),
                  value(4, 12, 4), value(5, 16, 4), value(6, 20, 4),
                  string(7, 24, 33), value(8, 60, 4), value(9, 64, 4),
                  value(10, 68, 4), value(11, 72, 4), value(12, 76, 4),
                  value(13, 80, 4), string(14, 84, 33), value(15, 120, 4),
                  value(16, 124, 4), value(17, 128, 4), value(18, 132, 4),
                  value(19, 136, 4), value(20, 140, 4), string(21, 144, 33),
                  value(22, 180, 8), value(23, 188, 8), value(24, 196, 8),
                  value(25, 204, 4), end())

TARN_DEFINE_TABLE(tarn_table_info, 56, "tarn_table_info_t",
                  &tarn_table_info_default_init,
                  value(1, 0, 4), value(6, 52, 4), value(2, 4, 4),
                  value(3, 8, 4), value(4, 12, 4), string(5, 16, 33), end())

TARN_DEFINE_TABLE(tarn_context_info, 44, "tarn_context_info_t",
                  &tarn_context_info_default_init,
                  value(1, 0, 4), value(2, 4, 4), string(3, 8, 33), end())

TARN_DEFINE_TABLE(tarn_vname, 33, "tarn_vname_t",
                  &tarn_vname_default_init,
                  string(1, 0, 33), end())

TARN_DEFINE_TABLE(tarn_tname, 44, "tarn_tname_t",
                  &tarn_tname_default_init,
                  string(1, 8, 33), end())

TARN_DEFINE_TABLE(tarn_if_table_info, 56, "tarn_if_table_info_t",
                  &tarn_if_table_data_default_init,
                  value(0, 0, 4), value(1, 4, 4), value(2, 8, 4),
                  value(3, 12, 4), value(4, 16, 4), string(5, 20, 33), end())

TARN_DEFINE_TABLE(tarn_soo_info, 12, "tarn_soo_info_t",
                  &tarn_soo_info_default_init,
                  value(1, 0, 4), value(2, 4, 8), end())

TARN_DEFINE_TABLE(tarn_vpnid_info, 12, "tarn_vpnid_info_t",
                  &tarn_vpnid_info_default_init,
                  value(1, 0, 4), value(2, 4, 4), value(3, 8, 4), end())

TARN_DEFINE_TABLE(tarn_rt_limits_info, 16, "tarn_tib_rt_limits_t",
                  &tarn_rt_limits_info_default_init,
                  value(1, 0, 4), value(2, 4, 4), value(3, 8, 4),
                  value(4, 12, 1), value(5, 13, 1), end())

TARN_DEFINE_TABLE(tarn_as_format, 4, "tarn_as_format_t",
                  &tarn_as_format_default_init,
                  value(1, 0, 4), end())

// The selector and the union share id 2: the first TLV with id 2 is the
// selector, the second the union.
TARN_DEFINE_TABLE(tarn_store_data, 24, "tarn_store_data_t",
                  &tarn_store_data_default_init,
                  value(1, 0, 4), value(2, 4, 4),
                  custom(2, 16, 8, &tarn_store_data_info_struct_to_tlv,
                         &tarn_store_data_info_tlv_to_struct,
                         &tarn_store_data_info_get_tlv_data_sz, 16),
                  end())

TARN_DEFINE_TABLE(tarn_store_tib_data, 24, "tarn_store_tib_data_t",
                  &tarn_store_tib_data_default_init,
                  value(0, 0, 4), value(1, 4, 4), value(2, 8, 16), end())

TARN_DEFINE_TABLE(tarn_tlv_if_data, 84, "tarn_tlv_if_data_t",
                  &tarn_tlv_if_data_default_init,
                  value(0, 0, 4), value(1, 4, 4), bytes(2, 8, 76), end())

// The head's size covers the count word only; the entries follow it.
TARN_DEFINE_TABLE(tarn_store_if_kvs_data, 4, "tarn_store_if_kvs_data_t",
                  &tarn_store_if_kvs_data_default_init,
                  value(1, 0, 4),
                  array(2, 84, 4, &tarn_store_if_kvs_data_count,
                        &tarn_tlv_if_data_tbl),
                  end())

TARN_DEFINE_TABLE(tarn_store_cfg, 4, "tarn_store_cfg_t",
                  nullptr,
                  value(0, 0, 4),
                  custom(1, 0, 4, &tarn_store_cfg_data_to_tlv,
                         &tarn_store_cfg_data_to_struct,
                         &tarn_store_cfg_tlv_data_sz, 0),
                  end())

TARN_DEFINE_TABLE(tarn_store_kvs_ctx_data, 4, "tarn_store_kvs_ctx_data_t",
                  nullptr,
                  value(1, 0, 4),
                  array(2, 1, 4, &tarn_store_kvs_ctx_data_count, nullptr),
                  end())

// ---- operation families --------------------------------------------------

extern "C" {

TARN_DEFINE_RECORD_OPS(tarn_store_if_data, tarn_store_if_data_t,
                       tarn_store_if_data_tbl)
TARN_DEFINE_RECORD_OPS(tarn_store_svr_data, tarn_store_svr_data_t,
                       tarn_store_svr_data_tbl)
TARN_DEFINE_RECORD_OPS(tarn_store_vrf_data, tarn_store_vrf_data_t,
                       tarn_store_vrf_data_tbl)
TARN_DEFINE_RECORD_OPS(tarn_table_info, tarn_table_info_t, tarn_table_info_tbl)
TARN_DEFINE_RECORD_OPS(tarn_context_info, tarn_context_info_t,
                       tarn_context_info_tbl)
TARN_DEFINE_RECORD_OPS(tarn_vname, tarn_vname_t, tarn_vname_tbl)
TARN_DEFINE_RECORD_OPS(tarn_tname, tarn_tname_t, tarn_tname_tbl)
TARN_DEFINE_RECORD_OPS(tarn_if_table_info, tarn_if_table_info_t,
                       tarn_if_table_info_tbl)
TARN_DEFINE_RECORD_OPS(tarn_soo_info, tarn_soo_info_t, tarn_soo_info_tbl)
TARN_DEFINE_RECORD_OPS(tarn_vpnid_info, tarn_vpnid_info_t, tarn_vpnid_info_tbl)
TARN_DEFINE_RECORD_OPS(tarn_rt_limits_info, tarn_tib_rt_limits_t,
                       tarn_rt_limits_info_tbl)
TARN_DEFINE_RECORD_OPS(tarn_as_format, tarn_as_format_t, tarn_as_format_tbl)
TARN_DEFINE_RECORD_OPS(tarn_store_data, tarn_store_data_t, tarn_store_data_tbl)
TARN_DEFINE_RECORD_OPS(tarn_store_tib_data, tarn_store_tib_data_t,
                       tarn_store_tib_data_tbl)
TARN_DEFINE_RECORD_OPS(tarn_tlv_if_data, tarn_tlv_if_data_t,
                       tarn_tlv_if_data_tbl)
TARN_DEFINE_RECORD_OPS(tarn_store_if_kvs_data, tarn_store_if_kvs_data_t,
                       tarn_store_if_kvs_data_tbl)
TARN_DEFINE_RECORD_OPS(tarn_store_cfg, tarn_store_cfg_t, tarn_store_cfg_tbl)
TARN_DEFINE_RECORD_OPS(tarn_store_kvs_ctx_data, tarn_store_kvs_ctx_data_t,
                       tarn_store_kvs_ctx_data_tbl)

uint32_t tarn_empty_store_cfg_get_tlv_size(void)
{
    tarn_store_cfg_t cfg;
    memset(&cfg, 0, sizeof cfg);
    return tarn_store_cfg_get_tlv_sz(&cfg);
}

}  // extern "C"
