// The 23 records of the catalogue, addressed by index for the fuzz targets:
// the first input byte picks the record, the rest is its encoding.
#ifndef TARN_FUZZ_FUZZ_RECORDS_H
#define TARN_FUZZ_FUZZ_RECORDS_H

#include <stdint.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

namespace fuzzrec {

struct record {
    const char *prefix;
    const tlvkit_table_t *tbl;
    uint32_t (*to_struct)(void **, const void *, uint32_t, uint32_t);
    uint32_t (*to_tlv)(const void *, void **, uint32_t *, uint32_t, uint32_t *,
                       uint32_t);
    int32_t (*get_struct_sz)(const void *);
};

#define FUZZREC(R, T, TBL)                                                   \
    record                                                                   \
    {                                                                        \
        #R, &TBL,                                                            \
            [](void **r, const void *t, uint32_t l, uint32_t f) {            \
                T *p = static_cast<T *>(*r);                                 \
                uint32_t e = R##_to_struct(&p, t, l, f);                     \
                *r = p;                                                      \
                return e;                                                    \
            },                                                               \
            [](const void *r, void **b, uint32_t *l, uint32_t a,             \
               uint32_t *w, uint32_t f) {                                    \
                return R##_to_tlv(static_cast<const T *>(r), b, l, a, w, f); \
            },                                                               \
            [](const void *t) { return R##_get_struct_sz(t); },              \
    }

inline const record *records(unsigned *count)
{
    static const record all[] = {
        FUZZREC(tarn_store_if_data, tarn_store_if_data_t, tarn_store_if_data_tbl),
        FUZZREC(tarn_store_svr_data, tarn_store_svr_data_t, tarn_store_svr_data_tbl),
        FUZZREC(tarn_store_vrf_data, tarn_store_vrf_data_t, tarn_store_vrf_data_tbl),
        FUZZREC(tarn_table_info, tarn_table_info_t, tarn_table_info_tbl),
        FUZZREC(tarn_context_info, tarn_context_info_t, tarn_context_info_tbl),
        FUZZREC(tarn_vname, tarn_vname_t, tarn_vname_tbl),
        FUZZREC(tarn_tname, tarn_tname_t, tarn_tname_tbl),
        FUZZREC(tarn_if_table_info, tarn_if_table_info_t, tarn_if_table_info_tbl),
        FUZZREC(tarn_soo_info, tarn_soo_info_t, tarn_soo_info_tbl),
        FUZZREC(tarn_vpnid_info, tarn_vpnid_info_t, tarn_vpnid_info_tbl),
        FUZZREC(tarn_rt_limits_info, tarn_tib_rt_limits_t, tarn_rt_limits_info_tbl),
        FUZZREC(tarn_as_format, tarn_as_format_t, tarn_as_format_tbl),
        FUZZREC(tarn_store_data, tarn_store_data_t, tarn_store_data_tbl),
        FUZZREC(tarn_store_tib_data, tarn_store_tib_data_t, tarn_store_tib_data_tbl),
        FUZZREC(tarn_tlv_if_data, tarn_tlv_if_data_t, tarn_tlv_if_data_tbl),
        FUZZREC(tarn_store_if_kvs_data, tarn_store_if_kvs_data_t, tarn_store_if_kvs_data_tbl),
        FUZZREC(tarn_store_cfg, tarn_store_cfg_t, tarn_store_cfg_tbl),
        FUZZREC(tarn_store_kvs_ctx_data, tarn_store_kvs_ctx_data_t, tarn_store_kvs_ctx_data_tbl),
        FUZZREC(gyre_tpg_vlan_info, gyre_tpg_vlan_info_t, gyre_tpg_vlan_info_tbl),
        FUZZREC(gyre_if_vlan_info, gyre_if_vlan_info_t, gyre_if_vlan_info_tbl),
        FUZZREC(gyre_ftag_info, gyre_ftag_info_t, gyre_ftag_info_tbl),
        FUZZREC(gyre_kvs_vlan_info, gyre_kvs_vlan_info_t, gyre_kvs_vlan_info_tbl),
        FUZZREC(gyre_store_svr_ftag_data, gyre_store_svr_ftag_data_t, gyre_store_ftag_data_tbl),
    };
    *count = sizeof all / sizeof all[0];
    return all;
}

}  // namespace fuzzrec

#endif
