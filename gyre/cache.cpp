// The Gyre client cache: topology nodes in a balanced tree, and two
// direct-index tables giving the owner of an ftag or a VLAN in one step.
//
// Invariants: an ftag whose bit is set in a node has that node as owner in
// the ftag table; a VLAN whose bit is set in a node has that node in the
// VLAN table.  Table entries are cleared before their node is freed.

#include <string.h>

#include "core/report.h"
#include "core/state.h"
#include "gyre/bits.h"
#include "gyre/internal.h"
#include "query/frame.h"
#include "platform/alloctrack.h"

using tarn::tarn_debug;
using tarn::tarn_report;

extern "C" {
gyre_cache_block_t *gyre_cache = nullptr;
}

#if UINTPTR_MAX == 0xFFFFFFFFu
static_assert(offsetof(gyre_cache_tpg_node_t, tpg_id) == 16,
              "the key lies right after the 16-byte link header");
#endif

namespace {

// Clears the ftag table entry of `ftag`, whatever topology owned it.
void clear_ftag_entry(uint32_t ftag)
{
    gyre_cache_ftag_entry_t &e = gyre_cache->ftags[ftag];
    e.owner = nullptr;
    e.graph_id = 0;
    e.flags = 0;
}

// A table entry can point at a node whose bit is no longer set: a kind-2
// attribute change clears the node's whole ftag set but only the entries
// its message names, and a VLAN update naming a topology twice leaves the
// node with the last record's VLANs while the earlier records' slots keep
// pointing at it.  Before the node goes, every entry that still points at it
// is cleared, so none outlives it.
void forget_node(const gyre_cache_tpg_node_t *node)
{
    for (uint32_t ftag = 0; ftag < GYRE_FTAG_COUNT; ++ftag)
        if (gyre_cache->ftags[ftag].owner == node)
            clear_ftag_entry(ftag);
    for (uint32_t vlan = 0; vlan < GYRE_VLAN_COUNT; ++vlan)
        if (gyre_cache->vlans[vlan] == node)
            gyre_cache->vlans[vlan] = nullptr;
}

void free_node(gyre_cache_tpg_node_t *node)
{
    alloctrack_free(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG, node);
}

// Counts every change of the topology tree and every release of the cache
// block; 64 bits, so that it never comes round again.
uint64_t tree_changes = 0;

void tree_insert(gyre_cache_tpg_node_t *node)
{
    bst_insert(&gyre_cache->tree, node);
    ++tree_changes;
}

void tree_remove(gyre_cache_tpg_node_t *node)
{
    bst_delete(&gyre_cache->tree, node);
    ++tree_changes;
}

}  // namespace

uint64_t gyre::cache_tree_generation() { return tree_changes; }

extern "C" {

TARN_API uint32_t gyre_cache_tpg_cmp(const void *a, const void *b)
{
    if (tarn::null_result(a, "a", "gyre_cache_tpg_cmp") ||
        tarn::null_result(b, "b", "gyre_cache_tpg_cmp"))
        return 0;
    uint32_t x, y;
    memcpy(&x, a, sizeof x);
    memcpy(&y, b, sizeof y);
    return x > y ? 1 : (x < y ? 2 : 0);
}

TARN_API gyre_cache_tpg_node_t *gyre_cache_find_topo_by_id(uint32_t tpg)
{
    if (gyre_cache == nullptr)
        return nullptr;
    return static_cast<gyre_cache_tpg_node_t *>(bst_lookup(&gyre_cache->tree, &tpg));
}

// Does not look for an existing node first: callers that must not have two
// look it up themselves.
TARN_API gyre_cache_tpg_node_t *gyre_cache_add_tpg(uint32_t tpg)
{
    if (gyre_cache == nullptr)
        return nullptr;
    auto *node = static_cast<gyre_cache_tpg_node_t *>(alloctrack_alloc(
        TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG, sizeof(gyre_cache_tpg_node_t)));
    if (node == nullptr) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "alloctrack_alloc()", "gyre_cache_malloc");
        return nullptr;
    }
    memset(node, 0, sizeof *node);
    node->tpg_id = tpg;
    node->ftags.len = GYRE_FTAG_BMP_BYTES;
    node->vlans.len = GYRE_VLAN_BMP_BYTES;
    tree_insert(node);
    tarn_debug("Created tpg %lu in libgyre cache", static_cast<unsigned long>(tpg));
    return node;
}

TARN_API gyre_cache_tpg_node_t *gyre_cache_create_l2_tpg(const bus_msg_t *msg)
{
    uint32_t len = 0;
    const uint8_t *p = gyre::payload(msg, &len);
    if (p == nullptr || len < 24)
        return nullptr;
    uint32_t tpg;
    memcpy(&tpg, p + 20, sizeof tpg);
    return gyre_cache_add_tpg(tpg);
}

TARN_API uint32_t gyre_cache_get_topo_info(uint32_t tpg, gyre_vlan_bmp_t *vlans,
                                           gyre_ftag_bmp_t *ftags)
{
    const gyre_cache_tpg_node_t *node = gyre_cache_find_topo_by_id(tpg);
    if (node == nullptr)
        return 0;
    // The length words are the caller's to set.
    if (ftags != nullptr)
        memcpy(ftags->bits, node->ftags.bits, GYRE_FTAG_BMP_BYTES);
    if (vlans != nullptr)
        memcpy(vlans->bits, node->vlans.bits, GYRE_VLAN_BMP_BYTES);
    return 1;
}

TARN_API void gyre_cache_delete_l2_tpg(const bus_msg_t *msg)
{
    uint32_t len = 0;
    const uint8_t *p = gyre::payload(msg, &len);
    if (p == nullptr || len < 24 || gyre_cache == nullptr)
        return;
    uint32_t tpg;
    memcpy(&tpg, p + 20, sizeof tpg);
    tarn_debug("Tpg %lu delete notification recvd", static_cast<unsigned long>(tpg));
    gyre_cache_tpg_node_t *node = gyre_cache_find_topo_by_id(tpg);
    if (node == nullptr) {
        tarn_debug("Warning!!! No topology found in %s()", "gyre_cache_delete_l2_tpg");
        return;
    }
    gyre::for_each_set(node->vlans.bits, GYRE_VLAN_COUNT,
                       [](uint32_t vlan) { gyre_cache->vlans[vlan] = nullptr; });
    gyre::for_each_set(node->ftags.bits, GYRE_FTAG_COUNT, clear_ftag_entry);
    forget_node(node);
    tree_remove(node);
    free_node(node);
}

// The node keeps its VLANs and stays in the tree even with no ftag left.
TARN_API uint32_t gyre_cache_delete_topo_ftag(const struct bus_msg *msg)
{
    uint32_t len = 0;
    const uint8_t *p = gyre::payload(msg, &len);
    if (p == nullptr)
        return 0;
    if (gyre_cache == nullptr)
        return 1;
    // Topology id at 28, the ftag bitmap's bytes at 36 to 163.
    if (len < 36 + GYRE_FTAG_BMP_BYTES)
        return 0;
    uint32_t tpg;
    memcpy(&tpg, p + 28, sizeof tpg);
    gyre_cache_tpg_node_t *node = gyre_cache_find_topo_by_id(tpg);
    if (node != nullptr) {
        node->ftags.len = GYRE_FTAG_BMP_BYTES;
        memset(node->ftags.bits, 0, GYRE_FTAG_BMP_BYTES);
    }
    gyre::for_each_set(p + 36, GYRE_FTAG_COUNT, clear_ftag_entry);
    return 1;
}

// Leaves the cache-enabled flag alone: the caller decides about it.
TARN_API void gyre_cache_delete_info(void)
{
    if (gyre_cache == nullptr)
        return;
    tarn_debug("Cleanup, remove all cache entries");
    for (;;) {
        bst_iterator_t it;
        bst_init_iterator(&gyre_cache->tree, &it);
        auto *node = static_cast<gyre_cache_tpg_node_t *>(bst_get_first_node(&gyre_cache->tree));
        if (node == nullptr)
            break;
        tree_remove(node);
        free_node(node);
    }
    alloctrack_free(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE, gyre_cache);
    gyre_cache = nullptr;
    ++tree_changes;
}

TARN_API uint32_t gyre_l2_tpg_name2id(const char *name)
{
    if (name == nullptr)
        return GYRE_TPG_NONE;
    // Leading digits only; beyond 32 bits the number is no topology.
    uint64_t id = 0;
    for (const char *c = name; *c >= '0' && *c <= '9'; ++c) {
        id = id * 10 + static_cast<uint64_t>(*c - '0');
        if (id > 0xFFFFFFFFull)
            return GYRE_TPG_NONE;
    }
    if (id == 0 || id == GYRE_TPG_NONE)
        return GYRE_TPG_NONE;
    return static_cast<uint32_t>(id);
}

TARN_API const char *gyre_ftag_reason2str(uint32_t reason)
{
    switch (reason) {
    case GYRE_FTAG_INVALID_REASON: return "GYRE_FTAG_INVALID_REASON";
    case GYRE_FTAG_CREATE: return "GYRE_FTAG_CREATE";
    case GYRE_FTAG_UPDATE: return "GYRE_FTAG_UPDATE";
    case GYRE_FTAG_DELETE: return "GYRE_FTAG_DELETE";
    default: return "Unknown reason";
    }
}

}  // extern "C"
