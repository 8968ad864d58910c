// Cache dump over the bus (requester and server), the whole-cache debug
// print, and the consistency check of each topology.

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "core/bus_options.h"
#include "core/bytes.h"
#include "core/report.h"
#include "core/state.h"
#include "gyre/bits.h"
#include "gyre/internal.h"
#include "query/frame.h"
#include "platform/syslog.h"

using tarn::tarn_debug;
using tarn::tarn_report;

using tarn::load32;
using tarn::store32;

namespace {

constexpr uint32_t kRequestSize = 28;
constexpr uint16_t kAttrDumpRequest = 4;
constexpr uint32_t kPage = GYRE_CACHE_DUMP_PAGE;
constexpr uint32_t kRecord = GYRE_CACHE_DUMP_RECORD_SIZE;
constexpr uint32_t kHeader = GYRE_CACHE_DUMP_HEADER_SIZE;

const char kStars[] = "*********************************************************";
const char kRule[] =
    "--------------------------------------------------------------------------------";

static_assert(sizeof kStars - 1 == 57, "57 asterisks");
static_assert(sizeof kRule - 1 == 80, "80 dashes");

// The page's records that its header announces and its length holds.
uint32_t records_held(const uint8_t *page, uint32_t len)
{
    if (len < kHeader)
        return 0;
    const uint32_t n = load32(page + 8);
    const uint32_t room = (len - kHeader) / kRecord;
    return n < room ? n : room;
}

const gyre_cache_tpg_node_t *first_node()
{
    return static_cast<const gyre_cache_tpg_node_t *>(bst_get_first_node(&gyre_cache->tree));
}

const gyre_cache_tpg_node_t *next_node(const gyre_cache_tpg_node_t *node)
{
    return static_cast<const gyre_cache_tpg_node_t *>(bst_get_next_node(&gyre_cache->tree, node));
}

// The node at which the page after the last one built starts, and its
// position in tree order.  A requester asks for its pages in order, so
// remembering it makes every page cost its own 16 steps instead of walking
// again from the first node (which made a whole dump quadratic).  It is
// trusted only while the cache block and its tree are the very ones it was
// taken from: any insertion or removal, and any release of the block,
// moves the tree's generation on.
struct PageStart {
    const gyre_cache_block_t *cache;
    uint64_t generation;
    uint64_t position;
    const gyre_cache_tpg_node_t *node;  // null: nothing remembered
};

PageStart next_page_start = {nullptr, 0, 0, nullptr};

// The node at `position` in tree order, stepping on from the remembered
// one when it is still good and not beyond, else from the first node.
const gyre_cache_tpg_node_t *node_at(uint64_t position)
{
    const PageStart &r = next_page_start;
    const gyre_cache_tpg_node_t *node = first_node();
    uint64_t at = 0;
    if (r.node != nullptr && r.cache == gyre_cache &&
        r.generation == gyre::cache_tree_generation() && r.position <= position) {
        node = r.node;
        at = r.position;
    }
    for (; at < position && node != nullptr; ++at)
        node = next_node(node);
    return node;
}

void remember_page_start(uint64_t position, const gyre_cache_tpg_node_t *node)
{
    next_page_start = {gyre_cache, gyre::cache_tree_generation(), position, node};
}

template <class Print>
void for_each_record(const void *resp, uint32_t n, Print print)
{
    const uint8_t *rec = static_cast<const uint8_t *>(resp) + kHeader;
    for (uint32_t i = 0; i < n; ++i, rec += kRecord)
        print(load32(rec), rec + 136, rec + 4, load32(rec + 652) != 0);
}

}  // namespace

extern "C" {

// Both warnings carry the operation's name before the topology id, and the
// text shows the name's address in the TOPO field and the topology id in
// the FTAG or VLAN field: log consumers read exactly that.
TARN_API uint32_t gyre_cache_verify_topo(const gyre_cache_tpg_node_t *node)
{
    if (node == nullptr || gyre_cache == nullptr)
        return 0;
    static const char fn[] = "gyre_cache_verify_topo";
    const unsigned long fn_address = static_cast<unsigned long>(reinterpret_cast<uintptr_t>(fn));
    uint32_t result = 1;
    gyre::for_each_set(node->ftags.bits, GYRE_FTAG_COUNT, [&](uint32_t t) {
        if (gyre_cache->ftags[t].owner != node) {
            result = 0;
            tarn_debug("Warning!!! TOPO %lu, FTAG %d Info out of sync!", fn_address,
                       static_cast<int>(node->tpg_id), t);
        }
    });
    gyre::for_each_set(node->vlans.bits, GYRE_VLAN_COUNT, [&](uint32_t v) {
        if (gyre_cache->vlans[v] != node) {
            result = 0;
            tarn_debug("Warning!!! TOPO %lu, VLAN %d Info out of sync!", fn_address,
                       static_cast<int>(node->tpg_id), v);
        }
    });
    return result;
}

// Every line checks the debug switch again (tarn_debug), so a print may
// stop part way if debugging is switched off meanwhile.
TARN_API void gyre_cache_debug_print(void)
{
    if (gyre_cache == nullptr || !tarn::debug_on())
        return;
    tarn_debug("%s\n", kStars);
    tarn_debug("Tpg -> Ftag & Vlan Mapping\n");
    tarn_debug("%s\n", kRule);
    tarn_debug("%-10s %-36s %-20s\n", "Topo-ID", "Active Vlans", "Ftags");
    for (const gyre_cache_tpg_node_t *node = first_node(); node != nullptr; node = next_node(node))
        tarn_debug("%-10lu %-36s %-20s\n", static_cast<unsigned long>(node->tpg_id),
                   gyre_vlans2str(&node->vlans), gyre_ftag2str(&node->ftags));
    tarn_debug("\n\nFtag -> Tpg Mapping\n");
    tarn_debug("%s\n", kRule);
    tarn_debug("%-10s %-10s %-20s %-10s\n", "Ftag", "Graph-ID", "Flags", "Tpg");
    for (uint32_t t = 0; t < GYRE_FTAG_COUNT; ++t) {
        const gyre_cache_ftag_entry_t &e = gyre_cache->ftags[t];
        if (e.owner != nullptr)
            tarn_debug("%-10d %-10d 0x%-20x %-lu\n", static_cast<int>(t), e.graph_id, e.flags,
                       static_cast<unsigned long>(e.owner->tpg_id));
    }
    tarn_debug("\n\nVlan -> Tpg Mapping\n");
    tarn_debug("%s\n", kRule);
    tarn_debug("%-10s %-10s\n", "Vlan", "Topo-ID");
    for (uint32_t v = 0; v < GYRE_VLAN_COUNT; ++v) {
        if (gyre_cache->vlans[v] != nullptr)
            tarn_debug("%-10d %-10lu\n", static_cast<int>(v),
                       static_cast<unsigned long>(gyre_cache->vlans[v]->tpg_id));
    }
    tarn_debug("%s\n", kStars);
}

// A page starts at node (iteration - 1) x 16 of the tree.  An iteration
// past the last page has no records to give: no page.  The records are
// read from the cache as it is now; only the way to the first one is
// shortened (see PageStart).
TARN_API void *gyre_cache_build_resp_info(uint32_t iteration, uint32_t *size)
{
    if (gyre_cache == nullptr || iteration == 0)
        return nullptr;
    if (iteration == 1)
        gyre_cache_debug_print();
    const uint32_t count = bst_count(&gyre_cache->tree);
    const uint64_t idx = static_cast<uint64_t>(iteration) * kPage;
    const bool last = idx >= count;
    const int64_t n = last ? static_cast<int64_t>(count) - static_cast<int64_t>(iteration - 1) * kPage
                           : kPage;
    if (n < 0)
        return nullptr;
    const uint32_t bytes = static_cast<uint32_t>(n) * kRecord + kHeader;
    uint8_t *page = static_cast<uint8_t *>(malloc(bytes));
    if (page == nullptr)
        return nullptr;
    if (size != nullptr)
        *size = bytes;
    tarn_debug("Iteration %d, bus_size %d, num_records  %d, node_count %d, idx %d",
               static_cast<int>(iteration), static_cast<int>(bytes), static_cast<int>(n),
               static_cast<int>(count), static_cast<int>(idx));
    store32(page + 8, static_cast<uint32_t>(n));
    if (last) {
        store32(page, GYRE_CACHE_DUMP_END);
        store32(page + 4, 0);
        tarn_debug("GYRE_CACHE_DUMP_END");
    } else {
        store32(page, GYRE_CACHE_DUMP_MORE);
        store32(page + 4, iteration + 1);
        tarn_debug("GYRE_CACHE_DUMP_MORE");
    }
    const uint64_t start = static_cast<uint64_t>(iteration - 1) * kPage;
    const gyre_cache_tpg_node_t *node = node_at(start);
    uint8_t *rec = page + kHeader;
    int64_t i = 0;
    for (; i < n && node != nullptr; ++i, rec += kRecord) {
        store32(rec, node->tpg_id);
        store32(rec + 4, GYRE_FTAG_BMP_BYTES);
        memset(rec + 8, 0, GYRE_FTAG_BMP_BYTES);
        memcpy(rec + 8, node->ftags.bits, GYRE_FTAG_BMP_BYTES);
        store32(rec + 136, GYRE_VLAN_BMP_BYTES);
        memset(rec + 140, 0, GYRE_VLAN_BMP_BYTES);
        memcpy(rec + 140, node->vlans.bits, GYRE_VLAN_BMP_BYTES);
        store32(rec + 652, gyre_cache_verify_topo(node));
        node = next_node(node);
    }
    remember_page_start(start + static_cast<uint64_t>(i), node);
    return page;
}

TARN_API void gyre_print_resp_dump_info(const void *resp)
{
    if (resp == nullptr)
        return;
    for_each_record(resp, load32(static_cast<const uint8_t *>(resp) + 8),
                    [](uint32_t tpg, const uint8_t *vlans, const uint8_t *ftags, bool sync) {
                        printf("%-10lu %-36s %-20s %s\n", static_cast<unsigned long>(tpg),
                               gyre_vlans2str(vlans), gyre_ftag2str(ftags),
                               sync ? "" : "Out of Sync!");
                    });
}

TARN_API void gyre_api_debug_print_resp_info(const void *resp)
{
    if (resp == nullptr || !tarn::debug_on())
        return;
    for_each_record(resp, load32(static_cast<const uint8_t *>(resp) + 8),
                    [](uint32_t tpg, const uint8_t *vlans, const uint8_t *ftags, bool sync) {
                        tarn_debug("Topology %lu Vlans %s Ftag %s %s\n",
                                   static_cast<unsigned long>(tpg), gyre_vlans2str(vlans),
                                   gyre_ftag2str(ftags), sync ? "" : "Out of Sync!");
                    });
}

// gyre_dump_cache_info checks the request first; called directly, any
// message is answered, but a null one is no request at all.
TARN_API int32_t gyre_cache_dump_info(uint32_t bus_handle, bus_msg_t *msg)
{
    static const char fn[] = "gyre_cache_dump_info";
    if (tarn::null_result(msg, "msg", fn))
        return -1;
    uint32_t len = 0;
    const uint8_t *p = gyre::payload(msg, &len);
    void *page = nullptr;
    uint32_t size = 0;
    if (gyre_cache_enabled && p != nullptr && len >= kRequestSize) {
        page = gyre_cache_build_resp_info(load32(p + 24), &size);
        if (page != nullptr)
            gyre_api_debug_print_resp_info(page);
    }
    uint8_t none[kHeader] = {0};
    const void *reply = page != nullptr ? page : none;
    const uint32_t reply_len = page != nullptr ? size : kHeader;
    const bus_send_opts_t opts = tarn::send_options();
    bus_msg_t *sent = nullptr;
    if (bus_send(bus_handle, BUS_NODE_LOCAL, 0, BUS_OPC_TARN_ATTR_CHANGE, reply, reply_len, msg,
                 &sent, &opts) != 0) {
        const int err = errno;
        tarn_report(&msg_error_TARN_LIBBUS, "bus_send_response()", static_cast<uint32_t>(err),
                    strerror(err), fn);
    }
    if (bus_drop(bus_handle, msg) != 0) {
        const int err = errno;
        tarn_report(&msg_error_TARN_BUS, "bus_drop(req_ref)", static_cast<uint32_t>(err),
                    syserr2str(static_cast<uint32_t>(err)), fn);
    }
    if (sent != nullptr && bus_drop(bus_handle, sent) != 0) {
        const int err = errno;
        tarn_report(&msg_error_TARN_BUS, "bus_drop(bus_msg)", static_cast<uint32_t>(err),
                    syserr2str(static_cast<uint32_t>(err)), fn);
    }
    free(page);
    return 1;
}

TARN_API int32_t gyre_dump_cache_info(uint32_t bus_handle, struct bus_msg *msg)
{
    if (msg == nullptr || bus_opc_get(msg) != BUS_OPC_TARN_ATTR_CHANGE)
        return -1;
    uint32_t len = 0;
    const uint8_t *p = gyre::payload(msg, &len);
    if (p == nullptr || len < 4)
        return -1;
    uint16_t kind;
    memcpy(&kind, p + 2, sizeof kind);
    if (kind != kAttrDumpRequest)
        return -1;
    return gyre_cache_dump_info(bus_handle, msg);
}

TARN_API uint32_t gyre_client_dbg_print_cache(uint32_t bus_handle, uint32_t dest_a,
                                              uint32_t dest_b)
{
    uint8_t req[kRequestSize];
    memset(req, 0, sizeof req);
    const uint16_t kind = kAttrDumpRequest;
    memcpy(req + 2, &kind, sizeof kind);
    const uint32_t pid = static_cast<uint32_t>(getpid());
    store32(req + 4, pid);
    store32(req + 8, kpipe_get_epid(pid));
    basis_sys_mclock_get(req + 12);
    store32(req + 20, kRequestSize);
    store32(req + 24, 1);
    bool header_pending = true;
    const bus_send_opts_t opts = tarn::send_options();
    const bus_recv_opts_t recv_opts = {1, 0, 9};
    for (;;) {
        if (bus_send(bus_handle, dest_a, dest_b, BUS_OPC_TARN_ATTR_CHANGE, req, sizeof req,
                     nullptr, nullptr, &opts) != 0) {
            puts("Error sending BUS message");
            return bus_errno_get(bus_handle);
        }
        bus_msg_t *reply = bus_recv(bus_handle, &recv_opts);
        if (reply == nullptr) {
            const int err = errno;
            puts("Error in bus_recv");
            return static_cast<uint32_t>(err);
        }
        uint32_t len = 0;
        const uint8_t *page = gyre::payload(reply, &len);
        // A reply too short for its header reads as one without payload.
        if (page == nullptr || len < kHeader) {
            printf("Error!! Payload empty");
            bus_drop(bus_handle, reply);
            return static_cast<uint32_t>(-1);
        }
        const uint32_t status = load32(page);
        if (status == GYRE_CACHE_DUMP_NONE) {
            printf("GYRE Caching not enabled");
            bus_drop(bus_handle, reply);
            return 0;
        }
        if (header_pending) {
            puts("\t\tGYRE Cache Information");
            printf("%s\n", kRule);
            puts("");
            printf("%-10s %-36s %-20s\n", "Topo-ID", "Active Vlan List", "Ftag List");
            puts(kRule);
            header_pending = false;
        }
        const uint32_t n = records_held(page, len);
        for_each_record(page, n,
                        [](uint32_t tpg, const uint8_t *vlans, const uint8_t *ftags, bool sync) {
                            printf("%-10lu %-36s %-20s %s\n", static_cast<unsigned long>(tpg),
                                   gyre_vlans2str(vlans), gyre_ftag2str(ftags),
                                   sync ? "" : "Out of Sync!");
                        });
        const uint32_t next = load32(page + 4);
        bus_drop(bus_handle, reply);
        if (status != GYRE_CACHE_DUMP_MORE)
            return 0;
        store32(req + 24, next);
    }
}

}  // extern "C"
