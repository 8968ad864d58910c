// The 23 exported descriptor tables by name, with their record type names,
// the names of their default initialisers ("" for none) and their number of
// descriptors, terminator included.
#ifndef TARN_TESTS_TABLES_TABLE_LIST_H
#define TARN_TESTS_TABLES_TABLE_LIST_H

namespace tabletest {

struct table_name {
    const char *table;
    const char *type;
    const char *init;
    unsigned descriptors;
};

constexpr table_name kTables[] = {
    {"tarn_store_if_data_tbl", "tarn_store_if_data_t", "tarn_store_if_data_default_init", 8},
    {"tarn_store_svr_data_tbl", "tarn_store_svr_data_t", "tarn_store_svr_data_default_init", 5},
    {"tarn_store_vrf_data_tbl", "tarn_store_vrf_data_t", "tarn_store_vrf_data_default_init", 26},
    {"tarn_table_info_tbl", "tarn_table_info_t", "tarn_table_info_default_init", 7},
    {"tarn_context_info_tbl", "tarn_context_info_t", "tarn_context_info_default_init", 4},
    {"tarn_vname_tbl", "tarn_vname_t", "tarn_vname_default_init", 2},
    {"tarn_tname_tbl", "tarn_tname_t", "tarn_tname_default_init", 2},
    {"tarn_if_table_info_tbl", "tarn_if_table_info_t", "tarn_if_table_data_default_init", 7},
    {"tarn_soo_info_tbl", "tarn_soo_info_t", "tarn_soo_info_default_init", 3},
    {"tarn_vpnid_info_tbl", "tarn_vpnid_info_t", "tarn_vpnid_info_default_init", 4},
    {"tarn_rt_limits_info_tbl", "tarn_tib_rt_limits_t", "tarn_rt_limits_info_default_init", 6},
    {"tarn_as_format_tbl", "tarn_as_format_t", "tarn_as_format_default_init", 2},
    {"tarn_store_data_tbl", "tarn_store_data_t", "tarn_store_data_default_init", 4},
    {"tarn_store_tib_data_tbl", "tarn_store_tib_data_t", "tarn_store_tib_data_default_init", 4},
    {"tarn_tlv_if_data_tbl", "tarn_tlv_if_data_t", "tarn_tlv_if_data_default_init", 4},
    {"tarn_store_if_kvs_data_tbl", "tarn_store_if_kvs_data_t",
     "tarn_store_if_kvs_data_default_init", 3},
    {"tarn_store_cfg_tbl", "tarn_store_cfg_t", "", 3},
    {"tarn_store_kvs_ctx_data_tbl", "tarn_store_kvs_ctx_data_t", "", 3},
    {"gyre_tpg_vlan_info_tbl", "gyre_tpg_vlan_info_t", "gyre_tpg_vlan_info_default_init", 4},
    {"gyre_if_vlan_info_tbl", "gyre_if_vlan_info_t", "gyre_if_vlan_info_default_init", 3},
    {"gyre_ftag_info_tbl", "gyre_ftag_info_t", "gyre_ftag_info_default_init", 5},
    {"gyre_kvs_vlan_info_tbl", "gyre_kvs_vlan_info_t", "gyre_kvs_vlan_info_default_init", 4},
    {"gyre_store_ftag_data_tbl", "gyre_store_svr_ftag_data_t",
     "gyre_store_ftag_data_default_init", 3},
};

constexpr unsigned kTableCount = sizeof kTables / sizeof kTables[0];
static_assert(kTableCount == 23, "every exported table");

}  // namespace tabletest

#endif
