// The records' in-memory layout is a wire contract shared with the services
// (their descriptor tables name these sizes and offsets), and it must be the
// same on the 32-bit device and on a 64-bit host.
#include <stddef.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#define TARN_SIZE(T, n) static_assert(sizeof(T) == (n), #T " size")
#define TARN_AT(T, m, off) \
    static_assert(offsetof(T, m) == (off), #T "." #m " offset")

TARN_SIZE(tarn_store_if_data_t, 88);
TARN_AT(tarn_store_if_data_t, w0, 0);
TARN_AT(tarn_store_if_data_t, w1, 4);
TARN_AT(tarn_store_if_data_t, w2, 8);
TARN_AT(tarn_store_if_data_t, s0, 12);
TARN_AT(tarn_store_if_data_t, s1, 45);
TARN_AT(tarn_store_if_data_t, w3, 80);
TARN_AT(tarn_store_if_data_t, w4, 84);

TARN_SIZE(tarn_store_svr_data_t, 16);
TARN_AT(tarn_store_svr_data_t, w0, 0);
TARN_AT(tarn_store_svr_data_t, w1, 4);
TARN_AT(tarn_store_svr_data_t, w2, 8);
TARN_AT(tarn_store_svr_data_t, w3, 12);

TARN_SIZE(tarn_store_vrf_data_t, 208);
TARN_AT(tarn_store_vrf_data_t, w0, 0);
TARN_AT(tarn_store_vrf_data_t, w1, 4);
TARN_AT(tarn_store_vrf_data_t, w2, 8);
TARN_AT(tarn_store_vrf_data_t, w3, 12);
TARN_AT(tarn_store_vrf_data_t, w4, 16);
TARN_AT(tarn_store_vrf_data_t, w5, 20);
TARN_AT(tarn_store_vrf_data_t, s0, 24);
TARN_AT(tarn_store_vrf_data_t, w6, 60);
TARN_AT(tarn_store_vrf_data_t, w7, 64);
TARN_AT(tarn_store_vrf_data_t, w8, 68);
TARN_AT(tarn_store_vrf_data_t, w9, 72);
TARN_AT(tarn_store_vrf_data_t, w10, 76);
TARN_AT(tarn_store_vrf_data_t, w11, 80);
TARN_AT(tarn_store_vrf_data_t, s1, 84);
TARN_AT(tarn_store_vrf_data_t, w12, 120);
TARN_AT(tarn_store_vrf_data_t, w13, 124);
TARN_AT(tarn_store_vrf_data_t, w14, 128);
TARN_AT(tarn_store_vrf_data_t, w15, 132);
TARN_AT(tarn_store_vrf_data_t, w16, 136);
TARN_AT(tarn_store_vrf_data_t, w17, 140);
TARN_AT(tarn_store_vrf_data_t, s2, 144);
TARN_AT(tarn_store_vrf_data_t, q0, 180);
TARN_AT(tarn_store_vrf_data_t, q1, 188);
TARN_AT(tarn_store_vrf_data_t, q2, 196);
TARN_AT(tarn_store_vrf_data_t, w18, 204);

TARN_SIZE(tarn_table_info_t, 56);
TARN_AT(tarn_table_info_t, context_id, 0);
TARN_AT(tarn_table_info_t, w1, 4);
TARN_AT(tarn_table_info_t, w2, 8);
TARN_AT(tarn_table_info_t, w3, 12);
TARN_AT(tarn_table_info_t, name, 16);
TARN_AT(tarn_table_info_t, tpg_id, 52);

TARN_SIZE(tarn_context_info_t, 44);
TARN_AT(tarn_context_info_t, state, 0);
TARN_AT(tarn_context_info_t, reason, 4);
TARN_AT(tarn_context_info_t, name, 8);

TARN_SIZE(tarn_vname_t, 33);
TARN_AT(tarn_vname_t, name, 0);

TARN_SIZE(tarn_tname_t, 44);
TARN_AT(tarn_tname_t, name, 8);

TARN_SIZE(tarn_if_table_info_t, 56);
TARN_AT(tarn_if_table_info_t, w0, 0);
TARN_AT(tarn_if_table_info_t, w1, 4);
TARN_AT(tarn_if_table_info_t, w2, 8);
TARN_AT(tarn_if_table_info_t, w3, 12);
TARN_AT(tarn_if_table_info_t, w4, 16);
TARN_AT(tarn_if_table_info_t, name, 20);

TARN_SIZE(tarn_soo_info_t, 12);
TARN_AT(tarn_soo_info_t, word, 0);
TARN_AT(tarn_soo_info_t, soo, 4);

TARN_SIZE(tarn_vpnid_info_t, 12);
TARN_AT(tarn_vpnid_info_t, w0, 0);
TARN_AT(tarn_vpnid_info_t, w1, 4);
TARN_AT(tarn_vpnid_info_t, w2, 8);

TARN_SIZE(tarn_tib_rt_limits_t, 16);
TARN_AT(tarn_tib_rt_limits_t, limit1, 0);
TARN_AT(tarn_tib_rt_limits_t, limit2, 4);
TARN_AT(tarn_tib_rt_limits_t, limit3, 8);
TARN_AT(tarn_tib_rt_limits_t, setting1, 12);
TARN_AT(tarn_tib_rt_limits_t, setting2, 13);

TARN_SIZE(tarn_as_format_t, 4);
TARN_AT(tarn_as_format_t, format, 0);

TARN_SIZE(tarn_store_data_u_t, 16);
TARN_SIZE(tarn_store_data_t, 24);
TARN_AT(tarn_store_data_t, w0, 0);
TARN_AT(tarn_store_data_t, kind, 4);
TARN_AT(tarn_store_data_t, u, 8);

TARN_SIZE(tarn_store_tib_data_t, 24);
TARN_AT(tarn_store_tib_data_t, w0, 0);
TARN_AT(tarn_store_tib_data_t, w1, 4);
TARN_AT(tarn_store_tib_data_t, blob, 8);

TARN_SIZE(tarn_tlv_if_data_t, 84);
TARN_AT(tarn_tlv_if_data_t, w0, 0);
TARN_AT(tarn_tlv_if_data_t, w1, 4);
TARN_AT(tarn_tlv_if_data_t, bytes, 8);

TARN_SIZE(tarn_store_if_kvs_data_t, 4);
TARN_AT(tarn_store_if_kvs_data_t, count, 0);
TARN_AT(tarn_store_if_kvs_data_t, entries, 4);

TARN_SIZE(tarn_store_cfg_t, 4);
TARN_AT(tarn_store_cfg_t, len, 0);
TARN_AT(tarn_store_cfg_t, data, 4);

TARN_SIZE(tarn_store_kvs_ctx_data_t, 4);
TARN_AT(tarn_store_kvs_ctx_data_t, count, 0);
TARN_AT(tarn_store_kvs_ctx_data_t, entries, 4);

TARN_SIZE(gyre_vlan_bmp_t, 516);
TARN_SIZE(gyre_tpg_vlan_info_t, 556);
TARN_AT(gyre_tpg_vlan_info_t, tpg_id, 0);
TARN_AT(gyre_tpg_vlan_info_t, name, 4);
TARN_AT(gyre_tpg_vlan_info_t, vlans, 40);

TARN_SIZE(gyre_if_vlan_info_t, 520);
TARN_AT(gyre_if_vlan_info_t, ifindex, 0);
TARN_AT(gyre_if_vlan_info_t, vlans, 4);

TARN_SIZE(gyre_ftag_info_t, 12);
TARN_AT(gyre_ftag_info_t, tpg_id, 0);
TARN_AT(gyre_ftag_info_t, graph_id, 4);
TARN_AT(gyre_ftag_info_t, ftag, 6);
TARN_AT(gyre_ftag_info_t, flags, 8);

TARN_SIZE(gyre_kvs_vlan_info_t, 44);
TARN_AT(gyre_kvs_vlan_info_t, word, 0);
TARN_AT(gyre_kvs_vlan_info_t, tpg_id, 4);
TARN_AT(gyre_kvs_vlan_info_t, name, 8);

TARN_SIZE(gyre_store_svr_ftag_data_t, 136);
TARN_AT(gyre_store_svr_ftag_data_t, block, 0);
TARN_AT(gyre_store_svr_ftag_data_t, word, 132);

#if UINTPTR_MAX == 0xFFFFFFFFu
// On the device the descriptor tables have the 16-byte head and 48-byte
// descriptors that the services read.
static_assert(sizeof(tlvkit_table_head_t) == 16, "table head");
static_assert(sizeof(tlvkit_field_t) == 48, "field descriptor");
#endif
