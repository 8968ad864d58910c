// Interface and topology VLAN sets, and the walks over topologies.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "core/report.h"
#include "core/state.h"
#include "gyre/internal.h"
#include "platform/bond.h"
#include "platform/kvs.h"
#include "platform/nic.h"
#include "query/frame.h"

using tarn::tarn_debug;
using tarn::null_result;
using tarn::tarn_report;

namespace {

enum : uint32_t {
    kIfVlansActive = 3,
    kIfVlansConfigured = 2,
    kTpgVlansActive = 1,
    kTpgVlansConfigured = 0,
};

// The interface-topology key holds at most 16 characters of the name.
constexpr size_t kIfTopologyNameLimit = 17;

void set_empty(gyre_vlan_bmp_t *vlans)
{
    vlans->len = GYRE_VLAN_BMP_BYTES;
    memset(vlans->bits, 0, GYRE_VLAN_BMP_BYTES);
}

// The port-channel a port belongs to, or 0.
uint32_t port_channel_of(uint32_t ifindex)
{
    uint8_t record[BOND_PC_RECORD_SIZE];
    memset(record, 0, sizeof record);
    if (bond_get_pc_for_port(ifindex, record) != 0)
        return 0;
    uint32_t pc;
    memcpy(&pc, record + BOND_PC_IFINDEX_OFFSET, sizeof pc);
    return pc;
}

uint32_t if_vlans_by_ifindex(uint32_t ifindex, gyre_vlan_bmp_t *vlans, uint32_t type)
{
    const uint32_t pc = port_channel_of(ifindex);
    uint32_t iod = 0;
    if (nic_get_iod_frm_ifindex(pc != 0 ? pc : ifindex, &iod) != 0)
        return 0;
    return gyre_get_if_vlans(iod, vlans, type);
}

// A member port's VLANs are those of its port-channel.
uint32_t if_vlans_by_iod(uint32_t iod, gyre_vlan_bmp_t *vlans, uint32_t type)
{
    uint32_t ifindex = 0;
    if (nic_get_ifindex_frm_iod(iod, &ifindex) != 0)
        return 0;
    const uint32_t pc = port_channel_of(ifindex);
    if (pc != 0 && nic_get_iod_frm_ifindex(pc, &iod) != 0)
        return 0;
    return gyre_get_if_vlans(iod, vlans, type);
}

// Cell and client checks of the walks over the Tarn database.
bool tarn_side(const char *fn, uint32_t *ix)
{
    if (!tarn::cell_check(fn, ix))
        return false;
    return tarn_clt != nullptr && tarn::clt_of(*ix)->initialized;
}

bool is_topology_record(const kvs_datum_t &key, uint32_t *table_id)
{
    uint32_t kind = 0;
    return tarn::load_be32(key.data, key.len, 0, &kind) && kind == TARN_KVS_KIND_TABLE_INFO &&
           tarn::load_be32(key.data, key.len, 4, table_id) &&
           *table_id >= GYRE_TPG_STORED_BITS;
}

uint32_t deliver_topology(const kvs_datum_t &key, const kvs_datum_t &value,
                          tarn_table_info_t *info, const char *fn)
{
    uint32_t table_id = 0;
    tarn::load_be32(key.data, key.len, 4, &table_id);
    tarn_table_info_t *out = info;
    if (tarn_table_info_to_struct(&out, value.data, value.len, 1) != 0) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "tarn_table_info_to_struct", fn);
        return GYRE_TPG_NONE;
    }
    info->tpg_id = table_id & GYRE_TPG_ID_MASK;
    return info->tpg_id;
}

}  // namespace

extern "C" {

// An interface without a VLAN record has, deliberately, the empty set.
TARN_API uint32_t gyre_get_if_vlans(uint32_t iod, gyre_vlan_bmp_t *vlans, uint32_t type)
{
    static const char fn[] = "gyre_get_if_vlans";
    if (!gyre::ensure_init() || null_result(vlans, "vlans", fn))
        return 0;
    uint8_t key[GYRE_KEY_SIZE];
    gyre_make_if_vlans_key(key, iod, type);
    const void *value = nullptr;
    uint32_t len = 0, status = 0;
    if (gyre::read_key(key, &value, &len, nullptr, fn, &status)) {
        gyre_if_vlan_info_t info;
        memset(&info, 0, sizeof info);
        gyre_if_vlan_info_t *out = &info;
        gyre_if_vlan_info_to_structure(&out, value, len);
        set_empty(vlans);
        memcpy(vlans->bits, info.vlans.bits, GYRE_VLAN_BMP_BYTES);
        return 1;
    }
    if (status == KVS_ERR_NOT_FOUND) {
        set_empty(vlans);
        return 1;
    }
    char what[64];
    snprintf(what, sizeof what, "IOD %lu, %s vlans", static_cast<unsigned long>(iod),
             type == kIfVlansActive ? "active" : "configured");
    gyre::report_read_error(what, status, fn);
    return 0;
}

TARN_API uint32_t gyre_get_if_act_vlans(uint32_t ifindex, gyre_vlan_bmp_t *vlans)
{
    return if_vlans_by_ifindex(ifindex, vlans, kIfVlansActive);
}

TARN_API uint32_t gyre_get_if_cfg_vlans(uint32_t ifindex, gyre_vlan_bmp_t *vlans)
{
    return if_vlans_by_ifindex(ifindex, vlans, kIfVlansConfigured);
}

TARN_API uint32_t gyre_get_if_act_vlans_iod(uint32_t iod, gyre_vlan_bmp_t *vlans)
{
    return if_vlans_by_iod(iod, vlans, kIfVlansActive);
}

TARN_API uint32_t gyre_get_if_cfg_vlans_iod(uint32_t iod, gyre_vlan_bmp_t *vlans)
{
    return if_vlans_by_iod(iod, vlans, kIfVlansConfigured);
}

// The cache keeps one VLAN set per topology: on that path the configured
// and active queries give the same answer, and the length word is left as
// the caller had it.
TARN_API uint32_t gyre_get_l2_tpg_vlans(const char *name, gyre_vlan_bmp_t *vlans,
                                        uint32_t type)
{
    static const char fn[] = "gyre_get_l2_tpg_vlans";
    if (!gyre::ensure_init())
        return 0;
    if (gyre::answer_from_cache()) {
        if (vlans == nullptr || name == nullptr) {
            tarn_debug("Invalid Arguments in %s()", "gyre_cache_get_l2_tpg_vlans");
            return 0;
        }
        // Read as the 32-bit device's strtol reads it: beyond the signed
        // 32-bit range the number saturates instead of wrapping.
        long long wide = strtoll(name, nullptr, 10);
        if (wide > INT32_MAX)
            wide = INT32_MAX;
        else if (wide < INT32_MIN)
            wide = INT32_MIN;
        const uint32_t tpg = static_cast<uint32_t>(static_cast<int32_t>(wide));
        const gyre_cache_tpg_node_t *node = gyre_cache_find_topo_by_id(tpg);
        if (node == nullptr) {
            tarn_debug("No tpg id %lu information in %s()", static_cast<unsigned long>(tpg),
                       "gyre_cache_get_l2_tpg_vlans");
            return 0;
        }
        memcpy(vlans->bits, node->vlans.bits, GYRE_VLAN_BMP_BYTES);
        return 1;
    }
    if (null_result(vlans, "vlans", fn))
        return 0;
    uint8_t key[GYRE_KEY_SIZE];
    gyre_make_tpg_vlans_key(key, name, type);
    const void *value = nullptr;
    uint32_t len = 0, status = 0;
    if (!gyre::read_key(key, &value, &len, nullptr, fn, &status)) {
        if (status != KVS_ERR_NOT_FOUND)
            tarn_report(&msg_error_TARN_LIBAPI_FAILED, "kpipe_kvs_read()", fn);
        return 0;
    }
    gyre_tpg_vlan_info_t info;
    memset(&info, 0, sizeof info);
    gyre_tpg_vlan_info_t *out = &info;
    gyre_tpg_vlan_info_to_structure(&out, value, len);
    set_empty(vlans);
    memcpy(vlans->bits, info.vlans.bits, GYRE_VLAN_BMP_BYTES);
    return 1;
}

TARN_API uint32_t gyre_get_l2_tpg_act_vlans(uint32_t tpg, gyre_vlan_bmp_t *vlans)
{
    char name[TARN_NAME_SIZE];
    snprintf(name, sizeof name, "%u", tpg);
    return gyre_get_l2_tpg_vlans(name, vlans, kTpgVlansActive);
}

TARN_API uint32_t gyre_get_l2_tpg_act_vlans_by_name(const char *name, gyre_vlan_bmp_t *vlans)
{
    return gyre_get_l2_tpg_vlans(name, vlans, kTpgVlansActive);
}

TARN_API uint32_t gyre_get_l2_tpg_cfg_vlans_by_name(const char *name, gyre_vlan_bmp_t *vlans)
{
    return gyre_get_l2_tpg_vlans(name, vlans, kTpgVlansConfigured);
}

// Steps past a record that is no topology: topology records are the last
// of kind 4, so from a record of a later kind the walk goes to the end at
// once.  False at the end.
static bool step_topologies(const char *db, kvs_datum_t *key, kvs_datum_t *value)
{
    if (tarn::past_kind(*key, TARN_KVS_KIND_TABLE_INFO))
        return tarn::walk_to_end(db, key, value);
    return kvs_getnext(db, key, value) == 0;
}

// Starts at the key pattern of table id 0xC0000000 and takes the first
// topology record at or after it, so the walk yields exactly the device's
// topologies in ascending id order.
TARN_API uint32_t gyre_get_first_l2_tpg(tarn_table_info_t *info)
{
    static const char fn[] = "gyre_get_first_l2_tpg";
    if (info == nullptr)
        return GYRE_TPG_NONE;
    uint32_t ix = 0;
    if (!tarn_side(fn, &ix))
        return 0;
    const char *db = tarn::clt_of(ix)->kvs;
    tarn::TarnKey pattern(TARN_KVS_KIND_TABLE_INFO);
    pattern.put_u32(4, GYRE_TPG_STORED_BITS);
    const kvs_datum_t start = pattern.datum();
    if (kvs_iterator_init(db, &start, 0) != 0) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "kvs_iterator_init()", fn);
        return GYRE_TPG_NONE;
    }
    kvs_datum_t key, value;
    // Placed before the pattern (or before the first record): step on.
    bool have = kvs_getkey(db, &key, &value) == 0;
    if (!have && kvs_getnext(db, &key, &value) != 0) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "kvs_getkey()", fn);
        return GYRE_TPG_NONE;
    }
    uint32_t table_id = 0;
    while (!is_topology_record(key, &table_id)) {
        if (!step_topologies(db, &key, &value))
            return GYRE_TPG_NONE;
    }
    return deliver_topology(key, value, info, fn);
}

TARN_API uint32_t gyre_get_next_l2_tpg(tarn_table_info_t *info)
{
    static const char fn[] = "gyre_get_next_l2_tpg";
    if (info == nullptr)
        return GYRE_TPG_NONE;
    uint32_t ix = 0;
    if (!tarn_side(fn, &ix))
        return 0;
    const char *db = tarn::clt_of(ix)->kvs;
    kvs_datum_t key, value;
    uint32_t table_id = 0;
    if (kvs_getnext(db, &key, &value) != 0)
        return GYRE_TPG_NONE;
    while (!is_topology_record(key, &table_id)) {
        if (!step_topologies(db, &key, &value))
            return GYRE_TPG_NONE;
    }
    return deliver_topology(key, value, info, fn);
}

// A record whose topology field is 0 answers 0x3FFFFFFF and keeps the 0.
TARN_API uint32_t gyre_get_next_if_table_info(uint32_t ifindex, uint32_t first,
                                              tarn_table_info_t *info)
{
    static const char fn[] = "gyre_get_next_if_table_info";
    if (info == nullptr)
        return GYRE_TPG_NONE;
    uint32_t ix = 0;
    if (!tarn_side(fn, &ix))
        return 0;
    const char *db = tarn::clt_of(ix)->kvs;
    kvs_datum_t key, value;
    bool have;
    if (first) {
        if (kvs_iterator_init(db, nullptr, 1) != 0) {
            tarn_report(&msg_error_TARN_LIBAPI_FAILED, "kvs_iterator_init()", fn);
            return GYRE_TPG_NONE;
        }
        have = kvs_getkey(db, &key, &value) == 0;
    } else {
        have = kvs_getnext(db, &key, &value) == 0;
    }
    for (; have; have = kvs_getnext(db, &key, &value) == 0) {
        uint32_t kind = 0, found = 0;
        if (tarn::load_be32(key.data, key.len, 0, &kind) && kind == TARN_KVS_KIND_IF_TOPOLOGY &&
            tarn::load_be32(key.data, key.len, 4, &found) && found == ifindex)
            break;
    }
    if (!have)
        return GYRE_TPG_NONE;
    tarn_table_info_t *out = info;
    if (tarn_table_info_to_struct(&out, value.data, value.len, 1) != 0) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "tarn_table_info_to_struct()", fn);
        return GYRE_TPG_NONE;
    }
    if (info->tpg_id == 0)
        return GYRE_TPG_ID_MASK;
    info->tpg_id &= GYRE_TPG_ID_MASK;
    return info->tpg_id;
}

TARN_API uint32_t gyre_get_if_l2_tpg_info(uint32_t ifindex, const char *name,
                                          tarn_table_info_t *info)
{
    static const char fn[] = "gyre_get_if_l2_tpg_info";
    if (null_result(info, "info", fn))
        return 0;
    uint32_t ix = 0;
    if (!tarn_side(fn, &ix))
        return 0;
    tarn::TarnKey key(TARN_KVS_KIND_IF_TOPOLOGY);
    key.put_u32(4, ifindex);
    key.put_name(8, name, kIfTopologyNameLimit);
    const kvs_datum_t k = key.datum();
    kvs_datum_t value;
    const uint32_t status = kvs_read(tarn::clt_of(ix)->kvs, &k, &value);
    if (status == KVS_ERR_NOT_FOUND)
        return 0;
    if (status != 0) {
        char what[128];
        snprintf(what, sizeof what, "interface %s(%lu) topo %s",
                 nic_get_if_short_name(ifindex), static_cast<unsigned long>(ifindex),
                 tarn::printable(name));
        gyre::report_read_error(what, status, fn);
        return 0;
    }
    tarn_table_info_t *out = info;
    if (tarn_table_info_to_struct(&out, value.data, value.len, 1) != 0) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "tarn_table_info_to_struct()", fn);
        return 0;
    }
    info->tpg_id %= 0x40000000u;
    return 1;
}

}  // extern "C"
