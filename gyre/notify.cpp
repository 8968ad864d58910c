// The Gyre cache switch, its initial build, and the notifications that
// keep it current; the disabled-cache reply and the two ftag notices.

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "core/bus_options.h"
#include "core/bytes.h"
#include "core/report.h"
#include "core/state.h"
#include "gyre/bits.h"
#include "gyre/internal.h"
#include "platform/alloctrack.h"

using tarn::clt_of;
using tarn::tarn_debug;
using tarn::tarn_report;

using tarn::load32;
using tarn::load16;

namespace {

constexpr uint32_t kTpgVlanRecordSize = 556;
constexpr uint32_t kFtagEntrySize = 1048;
constexpr uint16_t kAttrDumpRequest = 4;

// The cell check of the cache operations.
bool cell_one(const char *fn)
{
    uint32_t ix = 0;
    return tarn::cell_check(fn, &ix);
}

// Forgets the VLANs of `node` in the VLAN table and in the node.
void clear_node_vlans(gyre_cache_tpg_node_t *node)
{
    gyre::for_each_set(node->vlans.bits, GYRE_VLAN_COUNT,
                       [](uint32_t vlan) { gyre_cache->vlans[vlan] = nullptr; });
    node->vlans.len = GYRE_VLAN_BMP_BYTES;
    memset(node->vlans.bits, 0, GYRE_VLAN_BMP_BYTES);
}

// Gives `node` the VLANs of `bits` and points their table slots at it.
void set_node_vlans(gyre_cache_tpg_node_t *node, const uint8_t *bits)
{
    memcpy(node->vlans.bits, bits, GYRE_VLAN_BMP_BYTES);
    gyre::for_each_set(node->vlans.bits, GYRE_VLAN_COUNT,
                       [node](uint32_t vlan) { gyre_cache->vlans[vlan] = node; });
}

void set_ftag(gyre_cache_tpg_node_t *node, uint32_t ftag, uint16_t graph, uint32_t flags)
{
    gyre::bit_set(node->ftags.bits, ftag);
    gyre_cache_ftag_entry_t &e = gyre_cache->ftags[ftag];
    e.graph_id = graph;
    e.flags = flags;
    e.owner = node;
}

gyre_cache_tpg_node_t *find_or_add(uint32_t tpg)
{
    gyre_cache_tpg_node_t *node = gyre_cache_find_topo_by_id(tpg);
    return node != nullptr ? node : gyre_cache_add_tpg(tpg);
}

// Opcode 51214: replace the VLAN sets of the topologies named.  All of them
// are cleared before any is set, so a VLAN may move from one topology to
// another within one message; a VLAN given to two ends with the later.
void update_vlans(const bus_msg_t *msg)
{
    uint32_t len = 0;
    const uint8_t *p = gyre::payload(msg, &len);
    if (p == nullptr || len < 24 || gyre_cache == nullptr)
        return;
    uint32_t count = load32(p + 20);
    // Only the records the payload really holds.
    const uint32_t room = (len - 24) / kTpgVlanRecordSize;
    if (count > room)
        count = room;
    if (count == 0)
        return;
    const uint8_t *records = p + 24;
    for (uint32_t i = 0; i < count; ++i) {
        gyre_cache_tpg_node_t *node = find_or_add(load32(records + i * kTpgVlanRecordSize));
        if (node != nullptr)
            clear_node_vlans(node);
    }
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t *rec = records + i * kTpgVlanRecordSize;
        gyre_cache_tpg_node_t *node = gyre_cache_find_topo_by_id(load32(rec));
        if (node == nullptr)
            continue;
        set_node_vlans(node, rec + 44);
        if (tarn::debug_on())
            tarn_debug("Updating Vlans libgyre - Tpg: %lu Vlan: %s Ftag %s",
                   static_cast<unsigned long>(node->tpg_id), gyre_vlans2str(&node->vlans),
                   gyre_ftag2str(&node->ftags));
    }
}

}  // namespace

extern "C" {

TARN_API uint32_t gyre_enable_cache_mode(const gyre_cache_attr_t *attr)
{
    static const char fn[] = "gyre_enable_cache_mode";
    if (attr == nullptr) {
        tarn_report(&msg_error_TARN_INVALID_ARG, "attr", fn);
        return 0;
    }
    if (!gyre_is_api_initialized() && !gyre_api_init())
        return 0;
    if (!gyre_register(attr->bus_handle))
        return 0;
    if (gyre_cache_enabled)
        return 1;
    uint32_t ix = 0;
    if (!tarn::cell_check(fn, &ix))
        return 0;
    tarn_api_alloctrack_init();
    const uint32_t rc = tarn::set_receive_option(clt_of(ix)->bus_handle, BUS_OPC_TARN_ATTR_CHANGE);
    if (rc != 0) {
        tarn_report(&msg_error_TARN_BUS, "bus_register", rc, syserr2str(rc), fn);
        return 0;
    }
    gyre_cache = static_cast<gyre_cache_block_t *>(alloctrack_alloc(
        TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE, sizeof(gyre_cache_block_t)));
    if (gyre_cache == nullptr) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "alloctrack_alloc()", "gyre_cache_malloc");
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "GYRE_CACHE_MALLOC()", fn);
        return 0;
    }
    memset(gyre_cache, 0, sizeof *gyre_cache);
    gyre_cache->bus_handle = attr->bus_handle;
    if (bst_init(&gyre_cache->tree, 4, offsetof(gyre_cache_tpg_node_t, tpg_id),
                 gyre_cache_tpg_cmp) != 0) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "bst_init()", fn);
        alloctrack_free(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE, gyre_cache);
        // Not kept dangling: the flag stays 0, so no query would look.
        gyre_cache = nullptr;
        return 0;
    }
    // Built while the flag is still 0: the build's own queries read the
    // database, never the half-built cache.
    gyre_cache_build_info();
    gyre_cache_enabled = 1;
    tarn_debug("Completed %s()", fn);
    return 1;
}

TARN_API uint32_t gyre_disable_cache_mode(void)
{
    uint32_t ix = 0;
    if (!tarn_get_cell_ctx(&ix) || !gyre_cache_enabled)
        return 1;
    if (tarn_clt != nullptr)
        tarn::clear_receive_option(clt_of(ix)->bus_handle, BUS_OPC_TARN_ATTR_CHANGE);
    gyre_cache_delete_info();
    gyre_cache_enabled = 0;
    return 1;
}

// Stops at the walk's end (0xFFFFFFFF) and also at 0, which the walk gives
// when the Tarn client is not initialised.  Without a cache block there is
// nothing to fill.
TARN_API uint32_t gyre_cache_build_info(void)
{
    if (gyre_cache == nullptr)
        return GYRE_TPG_NONE;  // nothing to fill: the walk is not started
    tarn_table_info_t info;
    memset(&info, 0, sizeof info);
    uint32_t tpg = gyre_get_first_l2_tpg(&info);
    while (tpg != GYRE_TPG_NONE && tpg != 0 && gyre_cache != nullptr) {
        gyre_vlan_bmp_t vlans;
        vlans.len = GYRE_VLAN_BMP_BYTES;
        memset(vlans.bits, 0, sizeof vlans.bits);
        gyre_cache_add_tpg(tpg);
        gyre_cache_tpg_node_t *node = gyre_cache_find_topo_by_id(tpg);
        if (gyre_get_l2_tpg_act_vlans(tpg, &vlans) && node != nullptr) {
            gyre::for_each_set(node->vlans.bits, GYRE_VLAN_COUNT, [node](uint32_t vlan) {
                gyre_cache->vlans[vlan] = nullptr;
                gyre::bit_clear(node->vlans.bits, vlan);
            });
            if (tarn::debug_on()) {
                tarn_debug("Tpg: %lu - Replacing Vlans", static_cast<unsigned long>(tpg));
                tarn_debug("Old Vlans %s", gyre_vlans2str(&node->vlans));
                tarn_debug("New Vlans %s", gyre_vlans2str(&vlans));
            }
            set_node_vlans(node, vlans.bits);
            if (tarn::debug_on())
                tarn_debug("Updating libgyre cache: Tpg: %lu Vlans: %s Ftag %s",
                       static_cast<unsigned long>(tpg), gyre_vlans2str(&node->vlans),
                       gyre_ftag2str(&node->ftags));
        }
        gyre_ftag_info_t ftag;
        memset(&ftag, 0, sizeof ftag);
        ftag.tpg_id = tpg;
        for (uint32_t more = gyre_get_l2_tpg_first_ftag(tpg, &ftag); more;
             more = gyre_get_l2_tpg_next_ftag(tpg, &ftag)) {
            if (ftag.ftag > GYRE_MAX_FTAG)
                continue;
            gyre_cache_tpg_node_t *owner = find_or_add(tpg);
            if (owner == nullptr)
                continue;
            set_ftag(owner, ftag.ftag, ftag.graph_id, ftag.flags);
            tarn_debug("Updating libgyre cache: Tpg: %lu Ftag: %d Graph: %d",
                       static_cast<unsigned long>(tpg), ftag.ftag, ftag.graph_id);
        }
        // The ftag walk moved the Gyre database's iterator, not the Tarn
        // one: the topology walk goes on where it was.
        tpg = gyre_get_next_l2_tpg(&info);
    }
    return tpg;
}

// Opcode 51215.  Entries run past the payload's end are not read.
TARN_API uint32_t gyre_cache_update_ftag(const bus_msg_t *msg)
{
    uint32_t len = 0;
    const uint8_t *p = gyre::payload(msg, &len);
    if (p == nullptr || len < 4)
        return 0;
    uint32_t count = load32(p);
    if (count == 0 || gyre_cache == nullptr)
        return 1;
    const uint32_t room = (len - 4) / kFtagEntrySize;
    if (count > room)
        count = room;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t *entry = p + 4 + i * kFtagEntrySize;
        const uint32_t reason = load32(entry);
        const uint32_t tpg = load32(entry + 4);
        const uint16_t graph = load16(entry + 8);
        const uint16_t ftag = load16(entry + 10);
        const uint32_t flags = load32(entry + 12);
        tarn_debug("Tpg id: %lu, Ftag:%d Message Reason %s", static_cast<unsigned long>(tpg),
                   ftag, gyre_ftag_reason2str(reason));
        if (ftag > GYRE_MAX_FTAG)
            continue;
        gyre_cache_tpg_node_t *node = gyre_cache_find_topo_by_id(tpg);
        if (reason == GYRE_FTAG_CREATE || reason == GYRE_FTAG_UPDATE) {
            tarn_debug("Tpg id: %lu, Ftag:%d Message Reason %s",
                       static_cast<unsigned long>(tpg), ftag, gyre_ftag_reason2str(reason));
            if (node == nullptr)
                node = gyre_cache_add_tpg(tpg);
            if (node == nullptr) {
                tarn_debug("Invalid arguments %s %s in %s()", "topo", "",
                           "gyre_cache_update_ftag");
                continue;
            }
            set_ftag(node, ftag, graph, flags);
            tarn_debug("Updating gyre cache: Tpg: %lu Ftag: %d Graph: %d",
                       static_cast<unsigned long>(tpg), ftag, graph);
        } else if (reason == GYRE_FTAG_DELETE) {
            if (node == nullptr) {
                tarn_debug("Warning!! No topo node found for Tpg id %lu",
                           static_cast<unsigned long>(tpg));
                continue;
            }
            gyre::bit_clear(node->ftags.bits, ftag);
            gyre_cache_ftag_entry_t &e = gyre_cache->ftags[ftag];
            e.graph_id = 0;
            e.flags = 0;
            e.owner = nullptr;
        }
    }
    return 1;
}

void gyre_cache_update_vlans(const bus_msg_t *msg) { update_vlans(msg); }

TARN_API int32_t gyre_dispatch_internal(struct bus_msg *msg)
{
    if (!cell_one("gyre_dispatch_internal"))
        return 0;
    if (msg == nullptr)
        return -1;
    switch (bus_opc_get(msg)) {
    case BUS_OPC_GYRE_TPG_CREATE:
        gyre_cache_create_l2_tpg(msg);
        return 0;
    case BUS_OPC_GYRE_TPG_DELETE:
        gyre_cache_delete_l2_tpg(msg);
        return 0;
    case BUS_OPC_GYRE_TPG_VLANS:
        update_vlans(msg);
        return 0;
    case BUS_OPC_GYRE_FTAG_UPDATE:
        gyre_cache_update_ftag(msg);
        return 0;
    case 51209:
    case 51211:
    case 51212:
    case 51213:
        return 0;  // Gyre's, but nothing for the cache
    default:
        return -1;
    }
}

// Answers a dump request while the cache is off, so the requester does not
// wait; every other message is left alone.
TARN_API int32_t gyre_cache_disabled_resp(bus_msg_t *msg)
{
    static const char fn[] = "gyre_cache_disabled_resp";
    if (!cell_one(fn))
        return 0;
    if (msg == nullptr || bus_opc_get(msg) != BUS_OPC_TARN_ATTR_CHANGE)
        return 0;
    uint32_t len = 0;
    const uint8_t *p = gyre::payload(msg, &len);
    if (p == nullptr || len < 4 || load16(p + 2) != kAttrDumpRequest)
        return 0;
    bus_addr_t addr = {{1, 0, 1024, 0, 0, 15}};
    const uint32_t handle = bus_bind(4, -1, &addr, "LIBGYRE Dynamic");
    if (handle == BUS_HANDLE_NONE)
        return -1;
    uint32_t reply[3] = {GYRE_CACHE_DUMP_NONE, 0, 0};
    const bus_send_opts_t opts = tarn::send_options();
    bus_msg_t *sent = nullptr;
    if (bus_send(handle, BUS_NODE_LOCAL, 0, BUS_OPC_TARN_ATTR_CHANGE, reply, sizeof reply, msg,
                 &sent, &opts) != 0) {
        const int err = errno;
        tarn_report(&msg_error_TARN_LIBBUS, "bus_send_response()", static_cast<uint32_t>(err),
                    strerror(err), fn);
    }
    if (sent != nullptr)
        bus_drop(handle, sent);
    bus_unbind(handle);
    return 0;
}

// A send failure names the call with the notice's opcode, the way the
// configuration-change notice names its own.
static uint32_t send_ftag_notice(const char *fn, uint32_t kind, uint32_t tpg, bool need_tpg)
{
    if (!gyre_is_api_initialized() && !gyre_api_init())
        return 0;
    uint32_t ix = 0;
    if (!tarn::cell_check(fn, &ix))
        return 0;
    if (tarn_clt == nullptr || !clt_of(ix)->initialized ||
        clt_of(ix)->bus_handle == BUS_HANDLE_NONE || (need_tpg && tpg == 0))
        return 0;
    const uint32_t notice[3] = {0, kind, tpg};
    const bus_send_opts_t opts = tarn::send_options();
    if (bus_send(clt_of(ix)->bus_handle, BUS_NODE_LOCAL, GYRE_SAP, BUS_OPC_GYRE_FTAG_NOTICE,
                 notice, sizeof notice, nullptr, nullptr, &opts) != 0) {
        const int err = errno;
        char call[64];
        snprintf(call, sizeof call, "bus_send(%s)", bus_opc_name_get(BUS_OPC_GYRE_FTAG_NOTICE));
        tarn_report(&msg_error_TARN_LIBBUS, call, static_cast<uint32_t>(err), strerror(err), fn);
        return 0;
    }
    return 1;
}

TARN_API uint32_t gyre_ftag_converge(void)
{
    return send_ftag_notice("gyre_ftag_converge", 1, 0, false);
}

TARN_API uint32_t gyre_ftag_stale(uint32_t tpg)
{
    return send_ftag_notice("gyre_ftag_stale", 0, tpg, true);
}

}  // extern "C"
