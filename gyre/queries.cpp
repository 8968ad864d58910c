// Forwarding-tag and topology queries: from the cache when it is on, else
// one keyed read of the Gyre database.

#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "core/bytes.h"
#include "core/report.h"
#include "core/state.h"
#include "gyre/bits.h"
#include "gyre/internal.h"
#include "platform/kvs.h"
#include "platform/supv.h"
#include "query/frame.h"

using tarn::tarn_debug;
using tarn::null_result;
using tarn::tarn_report;

using tarn::load16;
using tarn::load32;

namespace {

enum : uint32_t { kKeyTpgFtag = 4 };

// The lowest ftag of `node` whose table entry passes `test`.
template <class Test>
bool lowest_ftag(const gyre_cache_tpg_node_t *node, Test test, uint16_t *ftag)
{
    for (int32_t f = gyre::next_set(node->ftags.bits, GYRE_FTAG_COUNT, 0); f >= 0;
         f = gyre::next_set(node->ftags.bits, GYRE_FTAG_COUNT, static_cast<uint32_t>(f) + 1)) {
        if (test(gyre_cache->ftags[f])) {
            *ftag = static_cast<uint16_t>(f);
            return true;
        }
    }
    return false;
}

// The cached owner of a VLAN; null for none, without a cache, or past 4095.
const gyre_cache_tpg_node_t *vlan_owner(uint32_t vlan)
{
    return gyre_cache != nullptr && vlan <= GYRE_MAX_VLAN ? gyre_cache->vlans[vlan] : nullptr;
}

// The graph variants' test: an owner and the graph asked for.
auto with_graph(uint16_t graph)
{
    return [graph](const gyre_cache_ftag_entry_t &e) {
        return e.owner != nullptr && e.graph_id == graph;
    };
}

// The unicast variants' test: any flags at all.
bool with_flags(const gyre_cache_ftag_entry_t &e) { return e.flags != 0; }

// Reads `key` as gyre::read_key does, but makes the description of what
// was read only for a failure that is reported: `describe(buf, size)`
// writes it.  A query that finds its record prints nothing.
template <class Describe>
bool read_described(const uint8_t *key, const void **value, uint32_t *len, const char *fn,
                    Describe describe)
{
    uint32_t status = 0;
    if (gyre::read_key(key, value, len, nullptr, fn, &status))
        return true;
    // Not reported: an absent key, and no read at all without a handle.
    if (status != KVS_ERR_NOT_FOUND && gyre_kvs_handle != nullptr) {
        char what[64];
        describe(what, sizeof what);
        gyre::report_read_error(what, status, fn);
    }
    return false;
}

// The first 16-bit field of a topology-ftag record, read with `key`.
template <class Describe>
bool read_tpg_ftag(const uint8_t *key, uint16_t *ftag, const char *fn, Describe describe)
{
    const void *value = nullptr;
    uint32_t len = 0;
    if (!read_described(key, &value, &len, fn, describe) || len < 2)
        return false;
    *ftag = load16(value);
    return true;
}

}  // namespace

namespace gyre {

// The Gyre side makes no cell check of its own: the report names the
// running cell as the Tarn queries' reports do.
void report_read_error(const char *what, uint32_t status, const char *fn)
{
    tarn::report_read_error((supv_get_cell_ctxt() & 0xffffu) - 1, what, status, fn);
}

bool read_key(const uint8_t *key, const void **value, uint32_t *len, const char *what,
              const char *fn, uint32_t *status)
{
    *status = KVS_ERR_NOT_OPEN;
    if (gyre_kvs_handle == nullptr)
        return false;
    if (kpipe_kvs_read(gyre_kvs_handle, key, GYRE_KEY_SIZE, value, len, status))
        return true;
    if (*status != KVS_ERR_NOT_FOUND && what != nullptr)
        report_read_error(what, *status, fn);
    return false;
}

}  // namespace gyre

extern "C" {

// ---- cache paths ---------------------------------------------------------------

// Exported on their own as well: they answer negatively while there is no
// cache and for indexes past the tables, rather than reading outside them.

TARN_API uint32_t gyre_cache_get_ftag_l2_tpg(uint16_t ftag)
{
    const gyre_cache_tpg_node_t *owner =
        gyre_cache != nullptr && ftag <= GYRE_MAX_FTAG ? gyre_cache->ftags[ftag].owner : nullptr;
    if (owner == nullptr) {
        tarn_debug("No tpg information in gyre_cache_get_ftag_l2_tpg()");
        return GYRE_TPG_NONE;
    }
    tarn_debug("Ftag %d -> Tpg id %lu", ftag, static_cast<unsigned long>(owner->tpg_id));
    return owner->tpg_id;
}

TARN_API uint32_t gyre_cache_get_vlan_l2_tpg(uint32_t vlan)
{
    const gyre_cache_tpg_node_t *owner = vlan_owner(vlan);
    if (owner == nullptr)
        return GYRE_TPG_NONE;
    tarn_debug("Found tpg %lu for vlan %d", static_cast<unsigned long>(owner->tpg_id),
               static_cast<int>(vlan));
    return owner->tpg_id;
}

TARN_API uint32_t gyre_cache_get_l2_tpg_ftag(uint32_t tpg, uint16_t graph, uint16_t *ftag)
{
    const gyre_cache_tpg_node_t *node = gyre_cache_find_topo_by_id(tpg);
    if (node == nullptr || ftag == nullptr || !lowest_ftag(node, with_graph(graph), ftag))
        return 0;
    tarn_debug("Found ftag %d for tid %lu", *ftag, static_cast<unsigned long>(tpg));
    return 1;
}

// Any non-zero flags pass, not only the unicast flag.
TARN_API uint32_t gyre_cache_get_l2_tpg_unicast_ftag(uint32_t tpg, uint16_t *ftag)
{
    const gyre_cache_tpg_node_t *node = gyre_cache_find_topo_by_id(tpg);
    if (node == nullptr || ftag == nullptr || !lowest_ftag(node, with_flags, ftag))
        return 0;
    tarn_debug("Found ftag %d for tid %lu", *ftag, static_cast<unsigned long>(tpg));
    return 1;
}

TARN_API uint32_t gyre_cache_get_vlan_ftag(uint32_t vlan, uint16_t graph, uint16_t *ftag)
{
    const gyre_cache_tpg_node_t *node = vlan_owner(vlan);
    if (node == nullptr || ftag == nullptr || !lowest_ftag(node, with_graph(graph), ftag))
        return 0;
    tarn_debug("%s() cache: Vlan: %d Ftag: %d", "gyre_cache_get_vlan_ftag",
               static_cast<int>(vlan), *ftag);
    return 1;
}

TARN_API uint32_t gyre_cache_get_unicast_ftag_by_vlan(uint32_t vlan, uint16_t *ftag)
{
    const gyre_cache_tpg_node_t *node = vlan_owner(vlan);
    if (node == nullptr || ftag == nullptr || !lowest_ftag(node, with_flags, ftag))
        return 0;
    tarn_debug("%s() cache: Vlan: %d Ftag: %d", "gyre_cache_get_vlan_ftag",
               static_cast<int>(vlan), *ftag);
    return 1;
}

// The length word of the caller's bitmap is not written.
TARN_API uint32_t gyre_cache_get_ftag_vlans(uint16_t ftag, gyre_vlan_bmp_t *vlans)
{
    const gyre_cache_tpg_node_t *owner =
        gyre_cache != nullptr && ftag <= GYRE_MAX_FTAG ? gyre_cache->ftags[ftag].owner : nullptr;
    if (owner == nullptr || vlans == nullptr)
        return 0;
    if (tarn::debug_on()) {
        char text[255];
        gyre_sprintf_vlan_range(&owner->vlans, text, sizeof text);
        tarn_debug("Found Vlans [%s] for ftag %d tpg %lu", text, ftag,
                   static_cast<unsigned long>(owner->tpg_id));
    }
    memcpy(vlans->bits, owner->vlans.bits, GYRE_VLAN_BMP_BYTES);
    return 1;
}

// ---- the exported queries --------------------------------------------------------

TARN_API uint32_t gyre_get_ftag_l2_tpg(uint16_t ftag)
{
    if (!gyre::ensure_init() || ftag > GYRE_MAX_FTAG)
        return GYRE_TPG_NONE;
    if (gyre::answer_from_cache())
        return gyre_cache_get_ftag_l2_tpg(ftag);
    uint8_t key[GYRE_KEY_SIZE];
    gyre_make_ftag_tpg_key(key, ftag);
    const void *value = nullptr;
    uint32_t len = 0;
    if (!read_described(key, &value, &len, "gyre_get_ftag_l2_tpg", [ftag](char *what, size_t n) {
            snprintf(what, n, "ftag %d", ftag);
        }))
        return GYRE_TPG_NONE;
    gyre_ftag_info_t info;
    memset(&info, 0, sizeof info);
    gyre_ftag_info_t *out = &info;
    gyre_ftag_info_to_structure(&out, value, len);
    return info.tpg_id & GYRE_TPG_ID_MASK;
}

TARN_API uint32_t gyre_get_vlan_l2_tpg(uint32_t vlan)
{
    if (!gyre::ensure_init() || vlan > GYRE_MAX_VLAN)
        return GYRE_TPG_NONE;
    if (gyre::answer_from_cache())
        return gyre_cache_get_vlan_l2_tpg(vlan);
    uint8_t key[GYRE_KEY_SIZE];
    gyre_make_vlan_tpg_key(key, vlan);
    const void *value = nullptr;
    uint32_t len = 0;
    if (!read_described(key, &value, &len, "gyre_get_vlan_l2_tpg", [vlan](char *what, size_t n) {
            snprintf(what, n, "vlan %d", static_cast<int>(vlan));
        }))
        return GYRE_TPG_NONE;
    gyre_kvs_vlan_info_t info;
    memset(&info, 0, sizeof info);
    gyre_kvs_vlan_info_t *out = &info;
    gyre_kvs_vlan_info_to_structure(&out, value, len);
    return info.tpg_id & GYRE_TPG_ID_MASK;
}

TARN_API uint32_t gyre_get_l2_tpg_ftag(uint32_t tpg, uint16_t graph, uint16_t *ftag)
{
    static const char fn[] = "gyre_get_l2_tpg_ftag";
    if (!gyre::ensure_init() || null_result(ftag, "ftag", fn))
        return 0;
    if (gyre::answer_from_cache())
        return gyre_cache_get_l2_tpg_ftag(tpg, graph, ftag);
    uint8_t key[GYRE_KEY_SIZE];
    gyre_make_tpg_ftag_key(key, tpg | GYRE_TPG_STORED_BITS, graph);
    return read_tpg_ftag(key, ftag, fn, [tpg, graph](char *what, size_t n) {
               snprintf(what, n, "topology 0x%lx, graph id %d", static_cast<unsigned long>(tpg),
                        graph);
           })
               ? 1
               : 0;
}

TARN_API uint32_t gyre_get_l2_tpg_unicast_ftag(uint32_t tpg, uint16_t *ftag)
{
    static const char fn[] = "gyre_get_l2_tpg_unicast_ftag";
    if (!gyre::ensure_init() || null_result(ftag, "ftag", fn))
        return 0;
    if (gyre::answer_from_cache())
        return gyre_cache_get_l2_tpg_unicast_ftag(tpg, ftag);
    uint8_t key[GYRE_KEY_SIZE];
    gyre_make_tpg_ftag_key_new(key, tpg | GYRE_TPG_STORED_BITS, GYRE_FTAG_FLAG_UNICAST, 1);
    return read_tpg_ftag(key, ftag, fn, [tpg](char *what, size_t n) {
               snprintf(what, n, "topology 0x%lx", static_cast<unsigned long>(tpg));
           })
               ? 1
               : 0;
}

TARN_API uint32_t gyre_get_ftag_vlans(uint16_t ftag, gyre_vlan_bmp_t *vlans)
{
    if (!gyre::ensure_init() || null_result(vlans, "vlans", "gyre_get_ftag_vlans") ||
        ftag > GYRE_MAX_FTAG)
        return 0;
    if (gyre::answer_from_cache())
        return gyre_cache_get_ftag_vlans(ftag, vlans);
    const uint32_t tpg = gyre_get_ftag_l2_tpg(ftag);
    if (tpg == GYRE_TPG_NONE)
        return 0;
    return gyre_get_l2_tpg_act_vlans(tpg, vlans);
}

TARN_API uint32_t gyre_get_unicast_ftag_by_vlan(uint32_t vlan, uint16_t *ftag)
{
    if (!gyre::ensure_init() || null_result(ftag, "ftag", "gyre_get_unicast_ftag_by_vlan") ||
        vlan > GYRE_MAX_VLAN)
        return 0;
    if (gyre::answer_from_cache())
        return gyre_cache_get_unicast_ftag_by_vlan(vlan, ftag);
    const uint32_t tpg = gyre_get_vlan_l2_tpg(vlan);
    if (tpg == GYRE_TPG_NONE)
        return 0;
    return gyre_get_l2_tpg_unicast_ftag(tpg, ftag);
}

TARN_API uint32_t gyre_get_vlan_ftag(uint32_t vlan, uint16_t graph, uint16_t *ftag)
{
    if (!gyre::ensure_init() || null_result(ftag, "ftag", "gyre_get_vlan_ftag") ||
        vlan > GYRE_MAX_VLAN)
        return 0;
    if (gyre::answer_from_cache())
        return gyre_cache_get_vlan_ftag(vlan, graph, ftag);
    const uint32_t tpg = gyre_get_vlan_l2_tpg(vlan);
    if (tpg == GYRE_TPG_NONE)
        return 0;
    return gyre_get_l2_tpg_ftag(tpg, graph, ftag);
}

}  // extern "C"

// ---- ftag walks over the database ----------------------------------------------------

// Topology-ftag records sort together: their keys begin with type 4 and,
// within one topology, with its stored id.  A walk therefore seeks straight
// to that run and, once past it, moves the iterator to the last record, which
// is where stepping through the rest of the database would have left it: the
// answers and the position a later walk continues from are the same, without
// visiting every record of the other types.
struct FtagRun {
    uint8_t prefix[8];
    uint32_t len;  // 4 (any topology) or 8

    explicit FtagRun(uint32_t tpg)
    {
        const uint32_t type = kKeyTpgFtag;
        const uint32_t stored = tpg | GYRE_TPG_STORED_BITS;
        memcpy(prefix, &type, 4);
        memcpy(prefix + 4, &stored, 4);
        len = tpg == GYRE_TPG_NONE ? 4 : 8;
    }
    // <0 before the run, 0 in it, >0 past it.
    int where(const kvs_datum_t &key) const
    {
        const uint32_t n = key.len < len ? key.len : len;
        const int c = memcmp(key.data, prefix, n);
        return c != 0 ? c : (key.len < len ? -1 : 0);
    }
};

// A topology-ftag record passes when its flag byte carries every filter bit
// and it belongs to `tpg` (0xFFFFFFFF: any topology).
static bool ftag_matches(const kvs_datum_t &key, uint32_t tpg, uint32_t filter)
{
    if (key.data == nullptr || key.len < 11)
        return false;
    const uint8_t *k = static_cast<const uint8_t *>(key.data);
    if (load32(k) != kKeyTpgFtag || (k[10] & filter) != filter)
        return false;
    return tpg == GYRE_TPG_NONE || load32(k + 4) == (tpg | GYRE_TPG_STORED_BITS);
}

// Leaves the iterator on the database's last record.
static void to_last_record(const char *db)
{
    uint8_t last[GYRE_KEY_SIZE];
    memset(last, 0xFF, sizeof last);
    const kvs_datum_t k = {last, sizeof last};
    (void)kvs_iterator_init(db, &k, 0);
}

// Steps from the current record (when `have`) to the next one that passes;
// `on_match` takes it.  0 when none is left.
template <class OnMatch>
static uint32_t walk_run(bool have, const FtagRun &run, uint32_t tpg, uint32_t filter,
                         kvs_datum_t *key, kvs_datum_t *value, OnMatch on_match)
{
    const char *db = gyre_kvs_handle->uri;
    for (; have; have = kvs_getnext(db, key, value) == 0) {
        const int at = run.where(*key);
        if (at > 0) {
            to_last_record(db);
            return 0;
        }
        if (at == 0 && ftag_matches(*key, tpg, filter) && value->len >= 2) {
            on_match(static_cast<const uint8_t *>(key->data), value->data);
            return 1;
        }
    }
    return 0;
}

// Places the iterator for a new walk over `run`: on the first record of the
// run, or before it.  False (after reporting) when it cannot be placed.
static bool start_run(const FtagRun &run, const char *fn, kvs_datum_t *key, kvs_datum_t *value,
                      bool *have)
{
    const char *db = gyre_kvs_handle->uri;
    uint8_t seek[GYRE_KEY_SIZE];
    memset(seek, 0, sizeof seek);
    memcpy(seek, run.prefix, run.len);
    const kvs_datum_t k = {seek, sizeof seek};
    const uint32_t rc = kvs_iterator_init(db, &k, 0);
    if (rc != 0) {
        gyre::report_read_error("Failed to init KVS iterator", rc, fn);
        return false;
    }
    // On the seek key, on the record before it, or before the first record.
    *have = kvs_getkey(db, key, value) == 0 || kvs_getnext(db, key, value) == 0;
    return true;
}

extern "C" {

TARN_API uint32_t gyre_get_first_ftag_by_filter(uint32_t tpg, uint32_t filter, uint16_t *ftag)
{
    static const char fn[] = "gyre_get_first_ftag_by_filter";
    if (!gyre::ensure_init() || gyre_kvs_handle == nullptr || null_result(ftag, "ftag", fn))
        return 0;
    *ftag = 0;
    const FtagRun run(tpg);
    kvs_datum_t key, value;
    bool have = false;
    if (!start_run(run, fn, &key, &value, &have))
        return 0;
    return walk_run(have, run, tpg, filter, &key, &value,
                    [ftag](const uint8_t *, const void *v) { *ftag = load16(v); });
}

// Continues from wherever the last walk of the process left the iterator.
TARN_API uint32_t gyre_get_next_ftag_by_filter(uint32_t tpg, uint32_t filter, uint16_t *ftag)
{
    if (!gyre::ensure_init() || gyre_kvs_handle == nullptr ||
        null_result(ftag, "ftag", "gyre_get_next_ftag_by_filter"))
        return 0;
    const FtagRun run(tpg);
    kvs_datum_t key, value;
    const bool have = kvs_getnext(gyre_kvs_handle->uri, &key, &value) == 0;
    return walk_run(have, run, tpg, filter, &key, &value,
                    [ftag](const uint8_t *, const void *v) { *ftag = load16(v); });
}

#define GYRE_FILTER_WALK_(name, filter)                                          \
    TARN_API uint32_t gyre_get_first_##name(uint16_t *ftag)                      \
    {                                                                            \
        return gyre_get_first_ftag_by_filter(GYRE_TPG_NONE, filter, ftag);       \
    }                                                                            \
    TARN_API uint32_t gyre_get_next_##name(uint16_t *ftag)                       \
    {                                                                            \
        return gyre_get_next_ftag_by_filter(GYRE_TPG_NONE, filter, ftag);        \
    }
GYRE_FILTER_WALK_(active_ftag, GYRE_FTAG_FLAG_ACTIVE)
GYRE_FILTER_WALK_(multicast_ftag, GYRE_FTAG_FLAG_MULTICAST)
GYRE_FILTER_WALK_(unicast_ftag, GYRE_FTAG_FLAG_UNICAST)
#undef GYRE_FILTER_WALK_

TARN_API uint32_t gyre_get_l2_tpg_first_active_multicast_ftag(uint32_t tpg, uint16_t *ftag)
{
    return gyre_get_first_ftag_by_filter(
        tpg, GYRE_FTAG_FLAG_ACTIVE | GYRE_FTAG_FLAG_MULTICAST, ftag);
}

TARN_API uint32_t gyre_get_l2_tpg_next_active_multicast_ftag(uint32_t tpg, uint16_t *ftag)
{
    return gyre_get_next_ftag_by_filter(
        tpg, GYRE_FTAG_FLAG_ACTIVE | GYRE_FTAG_FLAG_MULTICAST, ftag);
}

TARN_API uint32_t gyre_get_l2_tpg_first_multicast_ftag(uint32_t tpg, uint16_t *ftag)
{
    return gyre_get_first_ftag_by_filter(tpg, GYRE_FTAG_FLAG_MULTICAST, ftag);
}

TARN_API uint32_t gyre_get_l2_tpg_next_multicast_ftag(uint32_t tpg, uint16_t *ftag)
{
    return gyre_get_next_ftag_by_filter(tpg, GYRE_FTAG_FLAG_MULTICAST, ftag);
}

}  // extern "C"

// All ftags of one topology, whatever their flags.  The record's topology
// id stays as the caller set it.
static void fill_ftag(gyre_ftag_info_t *info, const uint8_t *key, const void *value)
{
    info->graph_id = load16(key + 8);
    info->flags = key[10];
    info->ftag = load16(value);
}

extern "C" {

TARN_API uint32_t gyre_get_l2_tpg_first_ftag(uint32_t tpg, struct gyre_ftag_info *info)
{
    static const char fn[] = "gyre_get_l2_tpg_first_ftag";
    if (!gyre::ensure_init() || gyre_kvs_handle == nullptr || null_result(info, "info", fn))
        return 0;
    if (tpg == GYRE_TPG_NONE)
        return 0;
    const FtagRun run(tpg);
    kvs_datum_t key, value;
    bool have = false;
    if (!start_run(run, fn, &key, &value, &have))
        return 0;
    return walk_run(have, run, tpg, 0, &key, &value,
                    [info](const uint8_t *k, const void *v) { fill_ftag(info, k, v); });
}

TARN_API uint32_t gyre_get_l2_tpg_next_ftag(uint32_t tpg, struct gyre_ftag_info *info)
{
    if (!gyre::ensure_init() || gyre_kvs_handle == nullptr ||
        null_result(info, "info", "gyre_get_l2_tpg_next_ftag"))
        return 0;
    if (tpg == GYRE_TPG_NONE)
        return 0;
    const FtagRun run(tpg);
    kvs_datum_t key, value;
    const bool have = kvs_getnext(gyre_kvs_handle->uri, &key, &value) == 0;
    return walk_run(have, run, tpg, 0, &key, &value,
                    [info](const uint8_t *k, const void *v) { fill_ftag(info, k, v); });
}

}  // extern "C"
