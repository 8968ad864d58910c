/*
 * tarn/gyre.h - client of the Gyre topology service of the layer-2
 * multipath fabric: topologies, their forwarding tags (ftags) and the VLAN
 * sets that map onto them.
 *
 * Conventions
 *
 *  1. The Gyre client shares libtarn's process state (<tarn/tarn.h>): the
 *     client record, its bus handle, the registration flag and the log
 *     catalogue.  Gyre queries initialise the Gyre side lazily.
 *
 *  2. Topology ids are 32-bit; 0 and 0xFFFFFFFF are never topologies, and
 *     0xFFFFFFFF is the answer for "none" and the wildcard "any".  In the
 *     shared databases an id is stored with its two top bits set.
 *
 *  3. Sets of VLANs (0-4095) and ftags (0-1023) are length-prefixed bitmaps:
 *     a 32-bit byte count, then the bits, most significant bit first (bit i
 *     is byte i / 8, mask 0x80 >> (i % 8)).
 *
 *  4. Records carry names and bitmaps as fixed blobs; every record has the
 *     Gyre operation family (TARN_RECORD_OPS plus R_get_tlv_size, R_tlvize,
 *     R_to_structure).
 *
 * This header is plain C99.
 */
#ifndef TARN_GYRE_H
#define TARN_GYRE_H

#include <stdint.h>

#include <tarn/tarn.h>

#ifdef __cplusplus
extern "C" {
#endif

#define GYRE_VLAN_BMP_BYTES 512u
#define GYRE_FTAG_BMP_BYTES 128u
#define GYRE_MAX_VLAN 4095u
#define GYRE_MAX_FTAG 1023u
#define GYRE_TPG_NONE 0xFFFFFFFFu
#define GYRE_TPG_STORED_BITS 0xC0000000u
#define GYRE_TPG_ID_MASK 0x3FFFFFFFu

/* Length-prefixed bitmaps. */
typedef struct gyre_vlan_bmp {
    uint32_t len;                        /* 512 */
    uint8_t bits[GYRE_VLAN_BMP_BYTES];
} gyre_vlan_bmp_t;

typedef struct gyre_ftag_bmp {
    uint32_t len;                        /* 128 */
    uint8_t bits[GYRE_FTAG_BMP_BYTES];
} gyre_ftag_bmp_t;

/* ---- Gyre records (wire contract) ---------------------------------------- */

typedef struct gyre_tpg_vlan_info {      /* 556 bytes: a topology's VLANs */
    uint32_t tpg_id;
    char name[TARN_NAME_SIZE];
    gyre_vlan_bmp_t vlans;
} gyre_tpg_vlan_info_t;

typedef struct gyre_if_vlan_info {       /* 520 bytes: an interface's VLANs */
    uint32_t ifindex;
    gyre_vlan_bmp_t vlans;
} gyre_if_vlan_info_t;

typedef struct gyre_ftag_info {          /* 12 bytes: one ftag */
    uint32_t tpg_id;                     /* low 30 bits: the topology      */
    uint16_t graph_id;
    uint16_t ftag;
    uint32_t flags;
} gyre_ftag_info_t;

typedef struct gyre_kvs_vlan_info {      /* 44 bytes: a VLAN's topology */
    uint32_t word;
    uint32_t tpg_id;                     /* low 30 bits: the topology      */
    char name[TARN_NAME_SIZE];
} gyre_kvs_vlan_info_t;

typedef struct gyre_store_svr_ftag_data {/* 136 bytes */
    uint8_t block[132];
    uint32_t word;
} gyre_store_svr_ftag_data_t;

/* Operations added to the record family on the Gyre side. */
#define GYRE_RECORD_OPS(R, T)                                                \
    TARN_RECORD_OPS(R, T)                                                    \
    TARN_API uint32_t R##_get_tlv_size(const T *record);                     \
    TARN_API uint32_t R##_tlvize(const T *record, void **buf, uint32_t *len, \
                                 uint32_t *b);                               \
    TARN_API uint32_t R##_to_structure(T **record, const void *tlv,          \
                                       uint32_t tlv_len);

/* ---- Gyre record catalogue ---------------------------------------------- */

extern TARN_API const tlvkit_table_t gyre_tpg_vlan_info_tbl;
extern TARN_API const tlvkit_table_t gyre_if_vlan_info_tbl;
extern TARN_API const tlvkit_table_t gyre_ftag_info_tbl;
extern TARN_API const tlvkit_table_t gyre_kvs_vlan_info_tbl;
/* The table of gyre_store_svr_ftag_data_t. */
extern TARN_API const tlvkit_table_t gyre_store_ftag_data_tbl;

/* R_tlvize encodes into the caller's buffer (flag 1) and returns 1 on
 * success, 0 on failure (the opposite sense of R_to_tlv); R_to_structure is
 * R_to_struct with flag 1; R_get_tlv_size is R_get_tlv_sz. */
GYRE_RECORD_OPS(gyre_tpg_vlan_info, gyre_tpg_vlan_info_t)
GYRE_RECORD_OPS(gyre_if_vlan_info, gyre_if_vlan_info_t)
GYRE_RECORD_OPS(gyre_ftag_info, gyre_ftag_info_t)
GYRE_RECORD_OPS(gyre_kvs_vlan_info, gyre_kvs_vlan_info_t)
GYRE_RECORD_OPS(gyre_store_svr_ftag_data, gyre_store_svr_ftag_data_t)

/* Topology id 0, empty name, bitmap length word 512 and no VLAN set. */
TARN_API uint32_t gyre_tpg_vlan_info_default_init(gyre_tpg_vlan_info_t *r);
/* Interface index 0, bitmap length word 512 and no VLAN set. */
TARN_API uint32_t gyre_if_vlan_info_default_init(gyre_if_vlan_info_t *r);
/* Both words 0 and an empty name. */
TARN_API uint32_t gyre_kvs_vlan_info_default_init(gyre_kvs_vlan_info_t *r);
/* Zero exactly `bytes` bytes of the record. */
TARN_API uint32_t gyre_ftag_info_default_init(gyre_ftag_info_t *r, uint32_t bytes);
TARN_API uint32_t gyre_store_ftag_data_default_init(gyre_store_svr_ftag_data_t *r,
                                                    uint32_t bytes);

/* Scratch buffer for callers' own TLV conversions; libtarn never uses it. */
#define GYRE_TLV_BUF_SIZE 8192u
extern TARN_API uint8_t gyre_tlv_buf[GYRE_TLV_BUF_SIZE];

/* Ftag flag bits (filters pass a record when every filter bit is set). */
#define GYRE_FTAG_FLAG_MULTICAST 0x02u
#define GYRE_FTAG_FLAG_ACTIVE 0x04u
#define GYRE_FTAG_FLAG_UNICAST 0x10u

/* Bus opcodes of the Gyre client. */
#define BUS_OPC_GYRE_TPG_CREATE 51208u     /* topology created            */
#define BUS_OPC_GYRE_TPG_DELETE 51210u     /* topology deleted            */
#define BUS_OPC_GYRE_TPG_VLANS 51214u      /* topology VLAN sets changed  */
#define BUS_OPC_GYRE_FTAG_UPDATE 51215u    /* ftags created/updated/deleted */
#define BUS_OPC_GYRE_FTAG_NOTICE 51223u    /* converge / stale notice     */
#define GYRE_SAP 365u                      /* the Gyre service's access point */

/* Reasons of an ftag-update entry. */
#define GYRE_FTAG_INVALID_REASON 0u
#define GYRE_FTAG_CREATE 1u
#define GYRE_FTAG_UPDATE 2u
#define GYRE_FTAG_DELETE 3u

/* Cache dump (attribute-change kind 4) response statuses. */
#define GYRE_CACHE_DUMP_NONE 0u
#define GYRE_CACHE_DUMP_MORE 2u
#define GYRE_CACHE_DUMP_END 3u
#define GYRE_CACHE_DUMP_PAGE 16u
#define GYRE_CACHE_DUMP_RECORD_SIZE 656u
#define GYRE_CACHE_DUMP_HEADER_SIZE 12u

struct bus_msg;

/* The attribute block given to gyre_enable_cache_mode: its first field is
 * the caller's bus handle. */
typedef struct gyre_cache_attr {
    uint32_t bus_handle;
} gyre_cache_attr_t;

/* ---- initialisation and registration ------------------------------------ */

/* Open the Gyre database of this device (lazily done by every query). */
TARN_API uint32_t gyre_api_init(void);
/* Mark the Gyre side initialised without opening anything (service
 * processes that hold the data themselves). */
TARN_API uint32_t gyre_api_init_internal(void);
/* Subscribe the bus handle to the Gyre notifications; initialises first.
 * 1 when the last subscription succeeded. */
TARN_API uint32_t gyre_register(uint32_t bus_handle);
/* Clear the subscriptions; the last option change's result (0: success). */
TARN_API uint32_t gyre_deregister(uint32_t bus_handle);
/* For processes that use the Gyre client alone: tarn_dispatch(msg) while
 * the cache is on; otherwise answers a dump request (gyre_cache_disabled_resp)
 * and returns -1.  Who owns `msg` afterwards:
 *   1: the library has dropped it (as after tarn_dispatch).
 *   0: the caller, who drops it (a Gyre notification was applied, or the
 *      process is outside cell 1).
 *  -1: the caller, who drops it (also after the cache-off answer to a dump
 *      request, which leaves the request alone). */
TARN_API int32_t gyre_dispatch(struct bus_msg *msg);
/* Cache off, subscriptions cleared, database closed. */
TARN_API void gyre_api_close(void);
/* Gyre's debug switch (kind 2; shares the library's debug flag). */
TARN_API uint32_t gyre_api_debug(void *handle, uint32_t enable);

/* ---- the client cache ------------------------------------------------------ */

/* Turn the cache on (registering first) and build it from the database.
 * 1 when it is on afterwards. */
TARN_API uint32_t gyre_enable_cache_mode(const gyre_cache_attr_t *attr);
/* Turn it off and free it.  Always 1. */
TARN_API uint32_t gyre_disable_cache_mode(void);
/* Apply one received message (opcodes 51208 to 51215): 0, or -1 when the
 * opcode is not the cache's.  It never returns 1 and never drops `msg`:
 *   0: the message is still the caller's (applied, or outside cell 1).
 *  -1: the message is still the caller's (not a Gyre notification). */
TARN_API int32_t gyre_dispatch_internal(struct bus_msg *msg);
/* Ftag notices to the Gyre service: converge, or a topology gone stale.
 * 1 when sent. */
TARN_API uint32_t gyre_ftag_converge(void);
TARN_API uint32_t gyre_ftag_stale(uint32_t tpg);

/* Fill the cache from the database (enable does this): a node for every
 * topology, its active VLANs and its ftags.  The last value the topology
 * walk gave (0xFFFFFFFF at its end). */
TARN_API uint32_t gyre_cache_build_info(void);
/* Apply an ftag update (51215): entries of reason 1 or 2 set the ftag's
 * entry and its bit in the topology (added when missing), reason 3 clears
 * them, other reasons change nothing.  0 without payload, else 1.  It never
 * drops `msg`: after 1 and after 0 the message is still the caller's. */
TARN_API uint32_t gyre_cache_update_ftag(const struct bus_msg *msg);
/* With the cache off: answer a cache dump request (51226 of kind 4) with a
 * 12-byte page of status 0 from a temporary handle, so that the requester
 * does not wait.  Other messages are left alone.  0, or -1 when no reply
 * handle could be bound.  It never drops `msg`:
 *   0: the message (answered or not) is still the caller's.
 *  -1: the message is still the caller's, unanswered. */
TARN_API int32_t gyre_cache_disabled_resp(struct bus_msg *msg);

/* ---- cache primitives ------------------------------------------------------ */

/* A cached topology: its id and its ftag and VLAN sets, in the cache's
 * topology tree.  Its layout is the library's own. */
struct gyre_cache_tpg_node;

/* The topology tree's ordering: compares the 32-bit ids that `a` and `b`
 * point to; 1 when a's is greater, 2 when smaller, 0 when equal. */
TARN_API uint32_t gyre_cache_tpg_cmp(const void *a, const void *b);
/* The cached topology `tpg`, or null (also while the cache is off). */
TARN_API struct gyre_cache_tpg_node *gyre_cache_find_topo_by_id(uint32_t tpg);
/* Add an empty node for `tpg` to the tree, without looking for one already
 * there (a second node of the same id is kept beside the first).  The node,
 * or null when the cache is off or out of memory (reported). */
TARN_API struct gyre_cache_tpg_node *gyre_cache_add_tpg(uint32_t tpg);
/* gyre_cache_add_tpg for the topology of a creation notice (51208: the id
 * at payload bytes 20-23).  `msg` stays the caller's, whatever the result. */
TARN_API struct gyre_cache_tpg_node *gyre_cache_create_l2_tpg(const struct bus_msg *msg);
/* Remove the topology of a deletion notice (51210: the id at payload bytes
 * 20-23): its VLAN and ftag entries are cleared, then the node is freed.
 * `msg` stays the caller's. */
TARN_API void gyre_cache_delete_l2_tpg(const struct bus_msg *msg);
/* Copy a cached topology's VLAN and ftag bits into the caller's bitmaps
 * (their length words are not written); 1 when the topology is cached. */
TARN_API uint32_t gyre_cache_get_topo_info(uint32_t tpg, gyre_vlan_bmp_t *vlans,
                                           gyre_ftag_bmp_t *ftags);
/* Remove the ftags named by an attribute change of kind 2 from the cache.
 * `msg` stays the caller's, whatever the result. */
TARN_API uint32_t gyre_cache_delete_topo_ftag(const struct bus_msg *msg);
/* Free the whole cache (topologies and tables); the cache flag stays. */
TARN_API void gyre_cache_delete_info(void);
/* Topology id of a decimal name, or 0xFFFFFFFF. */
TARN_API uint32_t gyre_l2_tpg_name2id(const char *name);
/* Text of an ftag-update reason. */
TARN_API const char *gyre_ftag_reason2str(uint32_t reason);

/* 40-byte database keys (numbers in host byte order). */
TARN_API void gyre_make_tpg_ftag_key(uint8_t *key, uint32_t tpg, uint16_t graph);
TARN_API void gyre_make_tpg_ftag_key_new(uint8_t *key, uint32_t tpg, uint8_t flags,
                                         uint16_t graph);
TARN_API void gyre_make_vlan_tpg_key(uint8_t *key, uint32_t vlan);
TARN_API void gyre_make_ftag_tpg_key(uint8_t *key, uint16_t ftag);
TARN_API void gyre_make_if_vlans_key(uint8_t *key, uint32_t ifindex, uint32_t type);
TARN_API void gyre_make_tpg_vlans_key(uint8_t *key, const char *name, uint32_t type);

/* ---- queries (from the cache when it is on, else the database) ---------- */

/* Owner topology of an ftag (0-1023) or a VLAN (0-4095), or 0xFFFFFFFF. */
TARN_API uint32_t gyre_get_ftag_l2_tpg(uint16_t ftag);
TARN_API uint32_t gyre_get_vlan_l2_tpg(uint32_t vlan);
/* The topology's ftag for a graph, or its unicast ftag: 1 when found. */
TARN_API uint32_t gyre_get_l2_tpg_ftag(uint32_t tpg, uint16_t graph, uint16_t *ftag);
TARN_API uint32_t gyre_get_l2_tpg_unicast_ftag(uint32_t tpg, uint16_t *ftag);
/* The VLANs that ride on an ftag. */
TARN_API uint32_t gyre_get_ftag_vlans(uint16_t ftag, gyre_vlan_bmp_t *vlans);
/* The ftag of a VLAN's topology for a graph, or its unicast ftag. */
TARN_API uint32_t gyre_get_unicast_ftag_by_vlan(uint32_t vlan, uint16_t *ftag);
TARN_API uint32_t gyre_get_vlan_ftag(uint32_t vlan, uint16_t graph, uint16_t *ftag);

/* The same questions answered from the cache alone, whether or not the
 * queries above use it: the negative answer (0xFFFFFFFF or 0) while there is
 * no cache, for an ftag above 1023 or a VLAN above 4095, and for a null
 * result pointer.  The lowest ftag of the topology passes: for a graph, one
 * whose entry has an owner and that graph id; for unicast, one whose entry
 * has any flags. */
TARN_API uint32_t gyre_cache_get_ftag_l2_tpg(uint16_t ftag);
TARN_API uint32_t gyre_cache_get_vlan_l2_tpg(uint32_t vlan);
TARN_API uint32_t gyre_cache_get_l2_tpg_ftag(uint32_t tpg, uint16_t graph, uint16_t *ftag);
TARN_API uint32_t gyre_cache_get_l2_tpg_unicast_ftag(uint32_t tpg, uint16_t *ftag);
/* Copies the owner's VLAN bits; the length word is not written. */
TARN_API uint32_t gyre_cache_get_ftag_vlans(uint16_t ftag, gyre_vlan_bmp_t *vlans);
TARN_API uint32_t gyre_cache_get_unicast_ftag_by_vlan(uint32_t vlan, uint16_t *ftag);
TARN_API uint32_t gyre_cache_get_vlan_ftag(uint32_t vlan, uint16_t graph, uint16_t *ftag);

/* Ftag walks over the database (one walk at a time per process). */
TARN_API uint32_t gyre_get_first_ftag_by_filter(uint32_t tpg, uint32_t filter,
                                                uint16_t *ftag);
TARN_API uint32_t gyre_get_next_ftag_by_filter(uint32_t tpg, uint32_t filter,
                                               uint16_t *ftag);
TARN_API uint32_t gyre_get_first_active_ftag(uint16_t *ftag);
TARN_API uint32_t gyre_get_next_active_ftag(uint16_t *ftag);
TARN_API uint32_t gyre_get_first_multicast_ftag(uint16_t *ftag);
TARN_API uint32_t gyre_get_next_multicast_ftag(uint16_t *ftag);
TARN_API uint32_t gyre_get_first_unicast_ftag(uint16_t *ftag);
TARN_API uint32_t gyre_get_next_unicast_ftag(uint16_t *ftag);
TARN_API uint32_t gyre_get_l2_tpg_first_active_multicast_ftag(uint32_t tpg, uint16_t *ftag);
TARN_API uint32_t gyre_get_l2_tpg_next_active_multicast_ftag(uint32_t tpg, uint16_t *ftag);
TARN_API uint32_t gyre_get_l2_tpg_first_multicast_ftag(uint32_t tpg, uint16_t *ftag);
TARN_API uint32_t gyre_get_l2_tpg_next_multicast_ftag(uint32_t tpg, uint16_t *ftag);
/* All ftags of one topology; fills graph, ftag and flags of `info`. */
TARN_API uint32_t gyre_get_l2_tpg_first_ftag(uint32_t tpg, struct gyre_ftag_info *info);
TARN_API uint32_t gyre_get_l2_tpg_next_ftag(uint32_t tpg, struct gyre_ftag_info *info);

/* Interface VLANs (a port-channel member reports its port-channel's). */
TARN_API uint32_t gyre_get_if_vlans(uint32_t iod, gyre_vlan_bmp_t *vlans, uint32_t type);
TARN_API uint32_t gyre_get_if_act_vlans(uint32_t ifindex, gyre_vlan_bmp_t *vlans);
TARN_API uint32_t gyre_get_if_cfg_vlans(uint32_t ifindex, gyre_vlan_bmp_t *vlans);
TARN_API uint32_t gyre_get_if_act_vlans_iod(uint32_t iod, gyre_vlan_bmp_t *vlans);
TARN_API uint32_t gyre_get_if_cfg_vlans_iod(uint32_t iod, gyre_vlan_bmp_t *vlans);
/* Topology VLANs by name (the decimal id) or id. */
TARN_API uint32_t gyre_get_l2_tpg_vlans(const char *name, gyre_vlan_bmp_t *vlans,
                                        uint32_t type);
TARN_API uint32_t gyre_get_l2_tpg_act_vlans(uint32_t tpg, gyre_vlan_bmp_t *vlans);
TARN_API uint32_t gyre_get_l2_tpg_act_vlans_by_name(const char *name,
                                                    gyre_vlan_bmp_t *vlans);
TARN_API uint32_t gyre_get_l2_tpg_cfg_vlans_by_name(const char *name,
                                                    gyre_vlan_bmp_t *vlans);
/* Walk the layer-2 topologies (0xFFFFFFFF at the end). */
TARN_API uint32_t gyre_get_first_l2_tpg(tarn_table_info_t *info);
TARN_API uint32_t gyre_get_next_l2_tpg(tarn_table_info_t *info);
/* Walk the topologies of one interface. */
TARN_API uint32_t gyre_get_next_if_table_info(uint32_t ifindex, uint32_t first,
                                              tarn_table_info_t *info);
TARN_API uint32_t gyre_get_if_l2_tpg_info(uint32_t ifindex, const char *name,
                                          tarn_table_info_t *info);

/* ---- VLAN-set text --------------------------------------------------------- */

/* "1-3,5,10-11" in a static scratch string overwritten by the next call, or
 * "--" for an empty set. */
TARN_API const char *gyre_vlans2str(const void *vlans);
TARN_API const char *gyre_ftag2str(const void *ftags);
/* "1-3 5 10-11 " into buf; the number of characters written. */
TARN_API int32_t gyre_sprintf_vlan_range(const void *vlans, char *buf, uint32_t size);
TARN_API extern char gyre_scratch_bmp_str[2098];
TARN_API extern char gyre_scratch_bmp_str2[2098];

/* ---- cache dump --------------------------------------------------------------- */

/* Fetch another process's cache page by page over the bus and print it on
 * standard output.  0 on success. */
TARN_API uint32_t gyre_client_dbg_print_cache(uint32_t bus_handle, uint32_t dest_a,
                                              uint32_t dest_b);
/* Serve a dump request: -1 for a message that is not one, else 1 (the
 * result of gyre_cache_dump_info).  Who owns `msg` afterwards:
 *   1: the library, which has answered and dropped it.
 *  -1: the caller (nothing was sent or dropped).
 * It never returns 0. */
TARN_API int32_t gyre_dump_cache_info(uint32_t bus_handle, struct bus_msg *msg);
/* Answer `msg` with one page of the cache, the page named by the request's
 * iteration word (payload offset 24), or with a 12-byte page of status 0
 * while the cache is off; then drop the request.  1, or -1 (reported) for
 * a null message.  gyre_dump_cache_info checks the request first.  Who owns
 * `msg` afterwards:
 *   1: the library, which has answered and dropped it (also when the send
 *      or the drop failed: a failed drop still releases the message).
 *  -1: nobody: there was no message.
 * It never returns 0. */
TARN_API int32_t gyre_cache_dump_info(uint32_t bus_handle, struct bus_msg *msg);
/* Build page `iteration` (from 1, 16 topologies a page): a 12-byte header
 * (status 2 more or 3 last, next iteration, record count n) and n records
 * of 656 bytes (id, ftag bitmap, VLAN bitmap, in-sync word).  Its size in
 * *size (when not null).  Released with free(); null without a cache or
 * past the last page. */
TARN_API void *gyre_cache_build_resp_info(uint32_t iteration, uint32_t *size);
/* 1 when every ftag and VLAN of the node has the node as its owner in the
 * tables, else 0 with a debug warning per mismatch. */
TARN_API uint32_t gyre_cache_verify_topo(const struct gyre_cache_tpg_node *node);
/* Print a page's records on standard output, or through the debug-print
 * facility (while debugging is on). */
TARN_API void gyre_print_resp_dump_info(const void *resp);
TARN_API void gyre_api_debug_print_resp_info(const void *resp);
/* Print the whole cache (topologies, ftag table, VLAN table) through the
 * debug-print facility while debugging is on. */
TARN_API void gyre_cache_debug_print(void);

#ifdef __cplusplus
}
#endif

#endif /* TARN_GYRE_H */
