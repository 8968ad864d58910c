// The Gyre client's process state: the database handle, the cache block and
// its topology nodes.
#ifndef TARN_GYRE_INTERNAL_H
#define TARN_GYRE_INTERNAL_H

#include <stddef.h>
#include <stdint.h>

#include <tarn/gyre.h>

#include "platform/bst.h"
#include "platform/bus.h"
#include "platform/kpipe.h"

#define GYRE_FTAG_COUNT 1024u
#define GYRE_VLAN_COUNT 4096u
#define GYRE_KEY_SIZE 40u
#define GYRE_HA_STORE_SIZE 4092u

struct gyre_cache_tpg_node;

typedef struct gyre_cache_ftag_entry {
    uint16_t graph_id;
    uint32_t flags;
    struct gyre_cache_tpg_node *owner;   /* null: the ftag is unused */
} gyre_cache_ftag_entry_t;

typedef struct gyre_cache_tpg_node {
    bst_link_t link;                     /* the tree's; first in the node */
    uint32_t tpg_id;                     /* the tree key                  */
    gyre_ftag_bmp_t ftags;
    gyre_vlan_bmp_t vlans;
} gyre_cache_tpg_node_t;

typedef struct gyre_cache_block {
    uint32_t bus_handle;
    bst_tree_t tree;
    gyre_cache_ftag_entry_t ftags[GYRE_FTAG_COUNT];
    gyre_cache_tpg_node_t *vlans[GYRE_VLAN_COUNT];
} gyre_cache_block_t;

extern "C" {
extern uint32_t gyre_api_is_initialized;
extern uint32_t gyre_cache_enabled;
extern uint8_t gyre_ha_store[GYRE_HA_STORE_SIZE];
extern kpipe_kvs_handle_t *gyre_kvs_handle;
extern gyre_cache_block_t *gyre_cache;

uint32_t gyre_is_api_initialized(void);
void gyre_cache_update_vlans(const bus_msg_t *msg);

}

namespace gyre {

// The payload of a message and its length; null when it has none.
const uint8_t *payload(const bus_msg_t *msg, uint32_t *len);
// Initialises the Gyre side on first use; false when it cannot.
bool ensure_init();
// Queries answer from the cache while it is on and still held (a flush by
// the service leaves the switch on and the cache gone).
inline bool answer_from_cache() { return gyre_cache_enabled && gyre_cache != nullptr; }
// Changes whenever a topology node enters or leaves the cache tree, and
// when the cache block is released: a position remembered in the tree is
// good only while this stays the same.
uint64_t cache_tree_generation();
// Report a Gyre database read that failed with something else than absence.
void report_read_error(const char *what, uint32_t status, const char *fn);
// Reads a 40-byte Gyre key; true when found.  Absence is silent; other
// failures are reported with `what`.
bool read_key(const uint8_t *key, const void **value, uint32_t *len,
              const char *what, const char *fn, uint32_t *status);

}  // namespace gyre

#endif
