/*
 * tarn/tarn.h - client library of the Tarn layer-3 virtualization service.
 *
 * libtarn answers a switch process's questions about contexts (VRFs), their
 * routing tables, which context each interface is in and per-context
 * attributes, by reading the shared key/value database that the Tarn service
 * publishes; it registers the process for the service's notifications and
 * keeps a small client cache fresh from them.  The Gyre fabric client is in
 * <tarn/gyre.h>.
 *
 * Conventions
 *
 *  1. Calling order.  A client process calls tarn_api_init() (or
 *     tarn_featsrv_kvs_init() as a feature-server publisher, or
 *     tarn_api_init_internal() when it needs no database), then optionally
 *     registers its message-bus handle, then queries; tarn_api_close() at
 *     the end.  One thread drives the library: the library takes no lock,
 *     starts no thread and never reads the bus itself.
 *
 *  2. Results.  Operations return an unsigned 32-bit 1 (success, found) or
 *     0 (failure, not found); id-valued operations return the id or 0.
 *     Nothing aborts and nothing is retried.
 *
 *  3. Reports.  Every failure is reported once to the system log through
 *     the message catalogue (msg_error_TARN_*): a level gate on the process's
 *     current log facility, a rate limit, then the syslog call.  An absent
 *     database record is an ordinary answer and is never reported.
 *
 *  4. Cells.  Every operation first checks the process's cell (the low 16
 *     bits of the supervisor's cell context): only cell 1 is served.  Cells
 *     2 to 4 fail with the "ctx range" report, others with
 *     "IS_CELL_IS_VALID()".
 *
 *  5. Ownership.  The client record is allocated once per process and never
 *     freed.  Values returned by the database belong to the database; the
 *     library copies what it returns.  Name operations given a null buffer
 *     answer in a static buffer of their own that the next call overwrites.
 *
 *  6. Records.  Every record that crosses a process boundary has a constant
 *     descriptor table R_tbl (see <tarn/tlv_table.h>) and the operation
 *     family declared with TARN_RECORD_OPS below.
 *
 *  7. ABI.  Structures are laid out with fixed-width types; their sizes and
 *     offsets are the same on the 32-bit device and on a 64-bit host, except
 *     where a structure holds pointers (descriptor tables, log records).
 *
 * This header is plain C99.
 */
#ifndef TARN_TARN_H
#define TARN_TARN_H

#include <stddef.h>
#include <stdint.h>

#include <tarn/tlv_table.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Status values                                                             */

#define TARN_SUCCESS 1u
#define TARN_FAILURE 0u
/* The database's status for an absent key; never reported. */
#define TARN_KVS_NOT_FOUND 0x40480003u
/* The database's status for a database already open in this process. */
#define TARN_KVS_ALREADY_OPEN 0x411A0003u
/* Returned by the cell manager's record read when memory runs out. */
#define TARN_ERR_NOMEM 0x413C0002u

/* Library id under which the memory tracker counts libtarn's allocations. */
#define TARN_LIB_ALLOC_ID 445u
/* libtarn's index in the debug wrapper. */
#define TARN_LIB_DBG_INDEX 10u

/* Memory types handed to the memory tracker. */
typedef enum tarn_api_mem_type {
    TARN_LIB_MEM_NONE = 0,
    TARN_LIB_MEM_TARN_CLT = 1,
    TARN_LIB_MEM_GYRE_CACHE = 2,
    TARN_LIB_MEM_GYRE_TPG = 3,
    TARN_LIB_MEM_MAX = 4
} tarn_api_mem_type_t;

/* Bus opcodes of the Tarn client. */
#define BUS_OPC_TARN_REGISTER 51201u                  /* 0xC801 */
#define BUS_OPC_TARN_FEATSRV_A 51202u                 /* 0xC802 */
#define BUS_OPC_TARN_FEATSRV_B 51203u                 /* 0xC803 */
#define BUS_OPC_TARN_PROTOCOL_CONFIG_CHANGE 51222u    /* 0xC816 */
#define BUS_OPC_TARN_ATTR_CHANGE 51226u               /* 0xC81A */

/* Names: NUL-terminated text in 33-byte fields, at most 32 characters. */
#define TARN_NAME_SIZE 33
/* Size of the database URI field of the client record. */
#define TARN_KVS_URI_SIZE 256

/* A 64-bit word aligned to 4 bytes, as the device lays records out. */
#if defined(__GNUC__) || defined(__clang__)
typedef uint64_t tarn_u64_a4 __attribute__((aligned(4)));
#else
#error "libtarn's public structures need GCC or Clang attributes"
#endif

/* ------------------------------------------------------------------------ */
/* Library state                                                             */

/* The client record, indexed by cell index (only cell index 0 is used). */
typedef struct tarn_clt {
    uint32_t initialized;            /* library initialised for this cell   */
    uint32_t bus_handle;             /* caller's bus queue; all-ones: none  */
    char kvs[TARN_KVS_URI_SIZE];     /* URI (and handle) of the cell's db   */
    uint32_t cache_enabled;          /* client cache mode on                */
    uint32_t cell_type;              /* 1: the cell manager names this cell */
} tarn_clt_t;

/* Client cache words (Tarn side). */
typedef struct tarn_cache {
    uint32_t tracked_mask;           /* bit 0: AS-number display format     */
    uint32_t as_format;              /* cached AS-number display format     */
} tarn_cache_t;

TARN_API extern tarn_clt_t *tarn_clt;
TARN_API extern tarn_cache_t tarn_cache;

/* ------------------------------------------------------------------------ */
/* Initialisation (library state)                                            */

/* Initialise the library for this process's cell and open the cell's
 * database.  Returns 1 on success, when already initialised, and when the
 * supervisor has no running configuration yet (then nothing is open and the
 * record's `initialized` stays 0: call again later); 0 on failure. */
TARN_API uint32_t tarn_api_init(void);
/* As tarn_api_init without opening the database (the record, its URI and
 * its cell type only). */
TARN_API uint32_t tarn_api_init_internal(void);
/* Close the cell's database, deregister, and zero the client record (which
 * stays allocated for a later tarn_api_init). */
TARN_API void tarn_api_close(void);
/* Allocate and zero the client record if it is absent.  1 when it exists. */
TARN_API uint32_t tarn_api_init_clt_cache(void);
/* Register libtarn's memory types with the memory tracker.  Returns 1. */
TARN_API uint32_t tarn_api_alloctrack_init(void);
/* Unregister libtarn (id 445) from the memory tracker; the tracker's result.
 * The spelling of the name is kept on purpose. */
TARN_API uint32_t tarn_api_alloctack_uninit(void);
/* Name of memory type `value`, or null when not in the table. */
TARN_API const char *__tarn_api_mem_type_t_find(uint32_t value);
/* Memory type whose name equals `name` ignoring case, or 0. */
TARN_API uint32_t __tarn_api_mem_type_t_str2enum(const char *name);
/* Debug switch: tarn_api_debug(handle, enable) is
 * tarn_api_debug_common(handle, 1, enable).  A null handle returns 0. */
TARN_API uint32_t tarn_api_debug(void *handle, uint32_t enable);
/* The switch itself: `kind` 1 Tarn, 2 Gyre; both set the one debug flag. */
TARN_API uint32_t tarn_api_debug_common(void *handle, uint32_t kind, uint32_t enable);
/* 1 when the client record exists; else reports TARN_NOALLOC, returns 0. */
TARN_API uint32_t tarn_clt_initialized(void);

/* Text of a context state (0..2), a down reason (0..4) or an address-family
 * index (0..2); "<unknown>" past the last row. */
TARN_API const char *tarn_state2str(uint32_t state);
TARN_API const char *tarn_reason2str(uint32_t reason);
TARN_API const char *tarn_af_ix2str(uint32_t af);

/* ------------------------------------------------------------------------ */
/* Shared-database attachment                                                */

/* The cell check as a function: 1 in cell 1 (cell index 0 stored through
 * `cell_ix` when it is not null), else a report and 0. */
TARN_API uint32_t tarn_get_cell_ctx(uint32_t *cell_ix);
/* Write the cell database's URI into the client record of `cell_ix`.  Sets
 * *deferred to 1 only when the supervisor has no running configuration. */
TARN_API uint32_t tarn_init_clt_kvs_uri(uint32_t cell_ix, uint32_t *deferred);
/* 1 when the cell manager's record designates the running cell, else 0. */
TARN_API uint32_t tarn_get_cell_type(void);
/* Initialisation for a process that publishes into the cell's database
 * through the feature-server library (debug printing is switched off). */
TARN_API uint32_t tarn_featsrv_kvs_init(void);
/* Zero the cell's client record (the feature-server library keeps its
 * attachment). */
TARN_API void tarn_featsrv_kvs_close(void);

/* ------------------------------------------------------------------------ */
/* Registration, client cache mode, AS-number display format                 */

struct bus_msg;

/* Record the caller's bus handle and subscribe it to the registration
 * opcode; registers before initialising when needed.  1 when the handle was
 * recorded and its option set; 0 otherwise (an all-ones handle changes
 * nothing).  A failed option change is reported but still registers. */
TARN_API uint32_t tarn_register(uint32_t bus_handle);
/* Leave cache mode and clear the registration option.  1 when a handle was
 * registered for the cell. */
TARN_API uint32_t tarn_deregister(void);

/* Hand one received bus message to the library: the Gyre side looks first,
 * then Tarn's own attribute change.  Who owns `msg` afterwards:
 *   1: an attribute change was handled (applied, an unknown kind ignored, a
 *      dump request answered) and the library has dropped the message.
 *   0: a Gyre notification was applied, or the process is outside cell 1;
 *      the library never drops the message then: the caller drops it.
 *  -1: the process is not registered, the message has no usable payload, or
 *      no handler took it; the message is still the caller's to drop. */
TARN_API int32_t tarn_dispatch(struct bus_msg *msg);
/* Tarn's own part of tarn_dispatch: -1 unless `msg` is an attribute change
 * (opcode 51226, also for a null message), else tarn_process_attr_change's
 * result.  Who owns `msg` afterwards:
 *   1: the library has dropped it.
 *   0: the caller (outside cell 1, nothing was done).
 *  -1: the caller (not an attribute change, or no usable payload). */
TARN_API int32_t tarn_dispatch_internal(struct bus_msg *msg);
/* Apply an attribute change by its kind (payload bytes 2-3): 1 the AS-number
 * format at offset 24, 2 the ftags of one topology, 3 the whole Gyre cache,
 * 4 a cache dump request (gyre_dump_cache_info), others ignored.  The result
 * is 1 when applied, or the dump handler's result when that handler ran
 * (-1 included); -1, reported, for a message without a usable payload; 0
 * outside cell 1.  Who owns `msg` afterwards:
 *   1: the library has dropped it (a dump request is answered and disposed
 *      of by the dump handler).
 *   0: the caller (nothing was done).
 *  -1: the caller when the payload was missing or too short; the library
 *      (dropped) when the dump handler refused a kind-4 message, which
 *      happens only when it is not of opcode 51226 and so never through
 *      tarn_dispatch. */
TARN_API int32_t tarn_process_attr_change(struct bus_msg *msg);

/* 1 while client cache mode is on. */
TARN_API uint32_t tarn_cache_is_enabled(void);
/* Turn cache mode on (registered clients only) and track `features` (bit 0:
 * the AS-number display format).  1 on success. */
TARN_API uint32_t tarn_enable_cache_mode(uint32_t features);
/* Turn cache mode off.  1 (also when it was off); 0 outside cell 1. */
TARN_API uint32_t tarn_disable_cache_mode(void);

/* The cached AS-number display format while cache mode is on, else 1. */
TARN_API uint32_t tarn_get_as_format(void);
/* tarn_enable_cache_mode(1). */
TARN_API uint32_t tarn_track_as_format(void);
/* Read the format from the database into the cache; 1 when valid after. */
TARN_API uint32_t tarn_refresh_as_format_info(void);
/* 1 when `msg` is an attribute change of kind 1 (AS format).  It only
 * reads `msg`, which stays the caller's. */
TARN_API uint32_t tarn_is_msg_asformat_update(const struct bus_msg *msg);

/* ------------------------------------------------------------------------ */
/* Log catalogue                                                             */

/* The catalogue's records are exported as data for the platform's logging
 * tools; their layout is the platform logger's (see its documentation). */
struct msg_component;
struct syslog_fac;
struct syslog_msg;
struct syslog_msg_lib;
struct msg_error;

TARN_API extern const struct msg_component msg_component_TARN;
TARN_API extern const struct syslog_fac syslog_fac_LOG_TARN;

#define TARN_CATALOGUE_DECLARE_(name) \
    TARN_API extern const struct msg_error msg_error_TARN_##name;
#define TARN_CATALOGUE_SERVICE_ \
    TARN_X_(RESTART_SHUTDOWN) TARN_X_(UNKNOWN_KVS_CTX) TARN_X_(STARTUP_FAILURE) TARN_X_(CLIS)     \
    TARN_X_(NOMEM) TARN_X_(API_FAILED) TARN_X_(TIB_ID_BST) TARN_X_(STORE) TARN_X_(KVS) TARN_X_(NIC) TARN_X_(BUS)     \
    TARN_X_(RRM) TARN_X_(VLANMGR) TARN_X_(RRM_LIMIT) TARN_X_(INVALID_ARG) TARN_X_(CONTEXT)              \
    TARN_X_(ASSERT_ERROR) TARN_X_(VRF_ERROR) TARN_X_(TLVKIT_API_FAIL) TARN_X_(CMI_BUSSEND_FAILURE) \
    TARN_X_(CMI_PAYLOAD_CONV_ERR) TARN_X_(BUS_DROP) TARN_X_(BUS_NO_PAYLOAD_ERROR)           \
    TARN_X_(STATE_MISMATCH) TARN_X_(CONFCHECK) TARN_X_(UNK_BUS_EVENT) TARN_X_(UNK_BUS_OPC)        \
    TARN_X_(UNK_MSG_MINOR) TARN_X_(PENDING_KVS_WRITE) TARN_X_(STORESRV) TARN_X_(TLVERROR)         \
    TARN_X_(STOREERROR) TARN_X_(INTERROR) TARN_X_(LIB_NOMEM)
#define TARN_CATALOGUE_LIBRARY_ \
    TARN_X_(LIBAPI_FAILED) TARN_X_(KVS_OPEN) TARN_X_(KVS_READ) TARN_X_(CELL) TARN_X_(SUPV)              \
    TARN_X_(LIB_INVALID_ARG) TARN_X_(CLIENT_UNREGISTERED) TARN_X_(LIBBUS) TARN_X_(LIBINIT)        \
    TARN_X_(NOALLOC)

#define TARN_X_(name) TARN_CATALOGUE_DECLARE_(name) \
    TARN_API extern const struct syslog_msg syslog_msg_TARN_##name;
TARN_CATALOGUE_SERVICE_
#undef TARN_X_
#define TARN_X_(name) TARN_CATALOGUE_DECLARE_(name) \
    TARN_API extern const struct syslog_msg_lib syslog_msg_lib_##name;
TARN_CATALOGUE_LIBRARY_
#undef TARN_X_

/* Gyre topology service messages, exported for processes that link libtarn;
 * libtarn itself never logs them. */
TARN_API extern const struct syslog_msg syslog_msg_TRELLIS_TPG_INTF_DOWN;
TARN_API extern const struct syslog_msg syslog_msg_TRELLIS_TPG_INTF_UP;
TARN_API extern const struct syslog_msg syslog_msg_TRELLIS_TPG_CREATE;
TARN_API extern const struct syslog_msg syslog_msg_TRELLIS_TPG_DELETE;

/* ------------------------------------------------------------------------ */
/* Tarn records (wire contract: sizes and offsets are fixed)                 */

typedef struct tarn_store_if_data {      /* 88 bytes */
    uint32_t w0, w1, w2;
    char s0[TARN_NAME_SIZE];
    char s1[TARN_NAME_SIZE];
    uint32_t w3, w4;
} tarn_store_if_data_t;

typedef struct tarn_store_svr_data {     /* 16 bytes */
    uint32_t w0, w1, w2, w3;
} tarn_store_svr_data_t;

typedef struct tarn_store_vrf_data {     /* 208 bytes */
    uint32_t w0, w1, w2, w3, w4, w5;
    char s0[TARN_NAME_SIZE];
    uint32_t w6, w7, w8, w9, w10, w11;
    char s1[TARN_NAME_SIZE];
    uint32_t w12, w13, w14, w15, w16, w17;
    char s2[TARN_NAME_SIZE];
    tarn_u64_a4 q0, q1, q2;
    uint32_t w18;
} tarn_store_vrf_data_t;

typedef struct tarn_table_info {         /* 56 bytes */
    uint32_t context_id;                 /* owning context            (id 1) */
    uint32_t w1, w2, w3;                 /*                        (ids 2-4) */
    char name[TARN_NAME_SIZE];           /* table name                (id 5) */
    uint32_t tpg_id;                     /* topology identifier       (id 6) */
} tarn_table_info_t;

typedef struct tarn_context_info {       /* 44 bytes */
    uint32_t state;                      /* 0 None, 1 Down, 2 Up      (id 1) */
    uint32_t reason;                     /* down reason               (id 2) */
    char name[TARN_NAME_SIZE];           /* context name              (id 3) */
} tarn_context_info_t;

typedef struct tarn_vname {              /* 33 bytes */
    char name[TARN_NAME_SIZE];
} tarn_vname_t;

typedef struct tarn_tname {              /* 44 bytes */
    uint32_t unused[2];                  /* never carried in the TLV         */
    char name[TARN_NAME_SIZE];
} tarn_tname_t;

typedef struct tarn_if_table_info {      /* 56 bytes */
    uint32_t w0, w1, w2, w3, w4;
    char name[TARN_NAME_SIZE];
} tarn_if_table_info_t;

typedef struct tarn_soo_info {           /* 12 bytes */
    uint32_t word;
    tarn_u64_a4 soo;                     /* site-of-origin value             */
} tarn_soo_info_t;

typedef struct tarn_vpnid_info {         /* 12 bytes */
    uint32_t w0, w1, w2;
} tarn_vpnid_info_t;

typedef struct tarn_tib_rt_limits {      /* 16 bytes */
    uint32_t limit1, limit2, limit3;     /* ids 1 to 3                       */
    uint8_t setting1, setting2;          /* ids 4 and 5                      */
} tarn_tib_rt_limits_t;

typedef struct tarn_as_format {          /* 4 bytes */
    uint32_t format;
} tarn_as_format_t;

typedef union tarn_store_data_u {        /* 16 bytes */
    tarn_soo_info_t soo;                 /* kind 1 */
    tarn_vpnid_info_t vpnid;             /* kind 2 */
    tarn_tib_rt_limits_t rt_limits;      /* kind 3 */
} tarn_store_data_u_t;

typedef struct tarn_store_data {         /* 24 bytes */
    uint32_t w0;
    uint32_t kind;                       /* 1 soo, 2 vpn id, 3 route limits  */
    tarn_store_data_u_t u;
} tarn_store_data_t;

typedef struct tarn_store_tib_data {     /* 24 bytes */
    uint32_t w0, w1;
    uint8_t blob[16];
} tarn_store_tib_data_t;

typedef struct tarn_tlv_if_data {        /* 84 bytes */
    uint32_t w0, w1;
    uint8_t bytes[76];
} tarn_tlv_if_data_t;

typedef struct tarn_store_if_kvs_data {  /* 4 bytes, entries follow */
    uint32_t count;
    tarn_tlv_if_data_t entries[];
} tarn_store_if_kvs_data_t;

typedef struct tarn_store_cfg {          /* 4 bytes, data follows */
    uint32_t len;
    uint8_t data[];
} tarn_store_cfg_t;

#define TARN_KVS_CTX_ENTRY_SIZE 188u
typedef struct tarn_store_kvs_ctx_data { /* 4 bytes, count x 188 bytes follow */
    uint32_t count;
    uint8_t entries[];
} tarn_store_kvs_ctx_data_t;

/* ------------------------------------------------------------------------ */
/* Queries                                                                   */
/*
 * Every query answers from one keyed read (two for the composed ones) of
 * the cell's shared database; absence is an ordinary answer and is never
 * reported.  Before initialisation a query reports TARN_LIBINIT with its
 * label and fails.  Result records are filled only on success, except that
 * a failed conversion may leave one partly written.  A null result pointer
 * is reported as TARN_LIB_INVALID_ARG and fails.
 */

/* Database key kinds (the first word of the 48-byte big-endian key). */
#define TARN_KVS_KIND_CONTEXT_NAME 1u
#define TARN_KVS_KIND_TABLE_ID 2u
#define TARN_KVS_KIND_CONTEXT_INFO 3u
#define TARN_KVS_KIND_TABLE_INFO 4u
#define TARN_KVS_KIND_IF_CONTEXT 5u
#define TARN_KVS_KIND_IF_TOPOLOGY 6u
#define TARN_KVS_KIND_VPNID 7u
#define TARN_KVS_KIND_SOO 8u
#define TARN_KVS_KIND_RT_LIMITS 9u
#define TARN_KVS_KIND_AS_FORMAT 10u
#define TARN_KVS_KEY_SIZE 48u

/* An interface's context. */
typedef struct tarn_if_context_info {
    uint32_t context_id;             /* 0 when the name has no id record */
    char context_name[TARN_NAME_SIZE];
} tarn_if_context_info_t;

/* A table's route limits as handed to the caller. */
typedef struct tarn_rt_limits {
    uint32_t table_id;               /* the table asked for              */
    uint32_t limit1;                 /* the stored first limit word      */
    uint32_t limit3;                 /* the stored third limit word      */
    uint8_t setting1;
    uint8_t setting2;
} tarn_rt_limits_t;

/* Context id of `name` (cut to 32 characters; null reads the empty name),
 * or 0. */
TARN_API uint32_t tarn_get_context_id(const char *name);
/* Fill `info` with context `context_id`; 1 when found.  Id 0 gives 0 at
 * once. */
TARN_API uint32_t tarn_get_context_info(uint32_t context_id,
                                        tarn_context_info_t *info);
/* The context's name, or "<unknown>", in `buf` (33 bytes) or, when null, in
 * this operation's own static buffer.  Never null. */
TARN_API char *tarn_get_context_name(uint32_t context_id, char *buf);
/* The next context after `context_id` (0 to begin) in ascending id order,
 * with `info` filled; 0 at the end.  "l2-vrf" is never returned.  Walks of
 * one database must not be interleaved. */
TARN_API uint32_t tarn_get_next_context_info(uint32_t context_id,
                                             tarn_context_info_t *info);

/* Table id registered under (context id, address family, name), or 0. */
TARN_API uint32_t tarn_get_table_id(uint32_t context_id, uint32_t af,
                                    const char *table_name);
/* As tarn_get_table_id, the context given by name (0 when unknown). */
TARN_API uint32_t tarn_context_get_table_id(const char *context_name,
                                            uint32_t af,
                                            const char *table_name);
/* As tarn_get_table_id, in the context of interface `ifindex`. */
TARN_API uint32_t tarn_if_get_table_id(uint32_t ifindex, uint32_t af,
                                       const char *table_name);
/* Fill `info` with table `table_id`; 1 when found. */
TARN_API uint32_t tarn_get_table_info(uint32_t table_id,
                                      tarn_table_info_t *info);
/* The table's name, or "<unknown>"; buffer rules as tarn_get_context_name. */
TARN_API char *tarn_get_table_name(uint32_t table_id, char *buf);
/* The table's name into the FIRST buffer and its context's name into the
 * SECOND ("<unknown>" where not found); 1 when both were found. */
TARN_API uint32_t tarn_get_vrf_name_table_name(uint32_t table_id,
                                               char *table_name_buf,
                                               char *vrf_name_buf);

/* The interface's context; 1 when known.  Every interface is in "default"
 * (id 1) when the cell manager names this cell; the management interface is
 * always in "management". */
TARN_API uint32_t tarn_if_get_context_info(uint32_t ifindex,
                                           tarn_if_context_info_t *info);
/* 1 when tarn_if_get_context_info knows the interface's context. */
TARN_API uint32_t tarn_is_if_cli_ready(uint32_t ifindex);
/* The interface's context name, or "<unknown>"; buffer rules as
 * tarn_get_context_name. */
TARN_API char *tarn_if_get_context_name(uint32_t ifindex, char *buf);
/* The interface's context id, or 0. */
TARN_API uint32_t tarn_if_get_context_id(uint32_t ifindex);
/* 1 when the interface's context exists and is Up. */
TARN_API uint32_t tarn_is_if_usable(uint32_t ifindex);
/* The next interface after `ifindex` (0 to begin) that has a context
 * record, in ascending ifindex order, optionally only those of context
 * `context_name`; 0 at the end. */
TARN_API uint32_t tarn_get_next_if_context_info(uint32_t ifindex,
                                                const char *context_name,
                                                tarn_if_context_info_t *info);

/* Route limits of a table (the stored second word is not handed out). */
TARN_API uint32_t tarn_get_rt_limits_info(uint32_t table_id,
                                          tarn_rt_limits_t *limits);
/* Site-of-origin of an interface. */
TARN_API uint32_t tarn_get_if_soo_info(uint32_t ifindex,
                                       tarn_soo_info_t *soo_info);
/* VPN id of a VRF (null reads the empty name). */
TARN_API uint32_t tarn_get_context_vpnid(const char *vrf_name,
                                         tarn_vpnid_info_t *vpnid);

/* Tell the Tarn service that a protocol's configuration changed (the only
 * operation that writes).  `type` 1 to 64; `context` required; `name` may be
 * null; `entries` holds `count` words.  1 when handed to the bus.  Needs a
 * registered process, not the database. */
TARN_API uint32_t tarn_send_protocol_config_change_msg(uint32_t type,
                                                       const char *name,
                                                       uint32_t param,
                                                       const char *context,
                                                       uint16_t count,
                                                       const uint32_t *entries);

/* The configuration-change payload (host byte order). */
typedef struct tarn_protocol_config {
    uint32_t type;
    uint32_t param;
    char name[TARN_NAME_SIZE];
    char context[TARN_NAME_SIZE];
    uint16_t count;
    uint32_t entries[];
} tarn_protocol_config_t;

/* ------------------------------------------------------------------------ */
/* Record operation family                                                   */
/*
 * For every record type with operation prefix R and descriptor table R_tbl
 * (the table's name is listed beside each record):
 *   R_field_itr_init(itr, tlv, len, record, flags)  tlvkit_field_itr_init
 *   R_field_get_next(itr, out)                      tlvkit_field_itr_get_next
 *   R_get_field(tlv, len, id, &value, &value_len)   tlvkit_get_field
 *   R_get_struct_sz(tlv)       in-memory size the encoding needs, or -1
 *   R_get_tlv_sz(record)       encoded length of the record
 *   R_to_tlv(record, &buf, &len, 0, &written, flag) encode; 0 or tlvkit error
 *   R_to_struct(&record, tlv, len, flag)            decode; 0 or tlvkit error
 * Conversion errors are printed as "<operation>: ERR 0x<code>" through
 * tlvkit_error_print and returned unchanged.  Buffer conventions (flag 1:
 * the caller's buffer or record is used when given) are tlvkit's.
 */
#define TARN_RECORD_OPS(R, T)                                                \
    TARN_API uint32_t R##_field_itr_init(tlvkit_field_itr_t *itr, const void *tlv,    \
                                uint32_t tlv_len, void *record,              \
                                uint16_t flags);                             \
    TARN_API uint32_t R##_field_get_next(tlvkit_field_itr_t *itr,                     \
                                tlvkit_field_value_t *out);                  \
    TARN_API uint32_t R##_get_field(const void *tlv, uint32_t tlv_len,                \
                           uint32_t type_id, const void **value,             \
                           uint32_t *value_len);                             \
    TARN_API int32_t R##_get_struct_sz(const void *tlv);                              \
    TARN_API uint32_t R##_get_tlv_sz(const T *record);                                \
    TARN_API uint32_t R##_to_tlv(const T *record, void **buf, uint32_t *len,          \
                        uint32_t a, uint32_t *b, uint32_t flag);             \
    TARN_API uint32_t R##_to_struct(T **record, const void *tlv, uint32_t tlv_len,    \
                           uint32_t flag);

/* ------------------------------------------------------------------------ */
/* Tarn record catalogue                                                     */
/*
 * Descriptor tables (constant; the wire contract of each record) and the
 * operation family of every Tarn record type.  Default initialisers write
 * the record's defaults and return 0; a null record is accepted.  Those with
 * a byte count zero exactly that many bytes of the record and nothing else.
 */
extern TARN_API const tlvkit_table_t tarn_store_if_data_tbl;
extern TARN_API const tlvkit_table_t tarn_store_svr_data_tbl;
extern TARN_API const tlvkit_table_t tarn_store_vrf_data_tbl;
extern TARN_API const tlvkit_table_t tarn_table_info_tbl;
extern TARN_API const tlvkit_table_t tarn_context_info_tbl;
extern TARN_API const tlvkit_table_t tarn_vname_tbl;
extern TARN_API const tlvkit_table_t tarn_tname_tbl;
extern TARN_API const tlvkit_table_t tarn_if_table_info_tbl;
extern TARN_API const tlvkit_table_t tarn_soo_info_tbl;
extern TARN_API const tlvkit_table_t tarn_vpnid_info_tbl;
extern TARN_API const tlvkit_table_t tarn_rt_limits_info_tbl;
extern TARN_API const tlvkit_table_t tarn_as_format_tbl;
extern TARN_API const tlvkit_table_t tarn_store_data_tbl;
extern TARN_API const tlvkit_table_t tarn_store_tib_data_tbl;
extern TARN_API const tlvkit_table_t tarn_tlv_if_data_tbl;
extern TARN_API const tlvkit_table_t tarn_store_if_kvs_data_tbl;
extern TARN_API const tlvkit_table_t tarn_store_cfg_tbl;
extern TARN_API const tlvkit_table_t tarn_store_kvs_ctx_data_tbl;

TARN_RECORD_OPS(tarn_store_if_data, tarn_store_if_data_t)
TARN_RECORD_OPS(tarn_store_svr_data, tarn_store_svr_data_t)
TARN_RECORD_OPS(tarn_store_vrf_data, tarn_store_vrf_data_t)
TARN_RECORD_OPS(tarn_table_info, tarn_table_info_t)
TARN_RECORD_OPS(tarn_context_info, tarn_context_info_t)
TARN_RECORD_OPS(tarn_vname, tarn_vname_t)
TARN_RECORD_OPS(tarn_tname, tarn_tname_t)
TARN_RECORD_OPS(tarn_if_table_info, tarn_if_table_info_t)
TARN_RECORD_OPS(tarn_soo_info, tarn_soo_info_t)
TARN_RECORD_OPS(tarn_vpnid_info, tarn_vpnid_info_t)
TARN_RECORD_OPS(tarn_rt_limits_info, tarn_tib_rt_limits_t)
TARN_RECORD_OPS(tarn_as_format, tarn_as_format_t)
TARN_RECORD_OPS(tarn_store_data, tarn_store_data_t)
TARN_RECORD_OPS(tarn_store_tib_data, tarn_store_tib_data_t)
TARN_RECORD_OPS(tarn_tlv_if_data, tarn_tlv_if_data_t)
TARN_RECORD_OPS(tarn_store_if_kvs_data, tarn_store_if_kvs_data_t)
TARN_RECORD_OPS(tarn_store_cfg, tarn_store_cfg_t)
TARN_RECORD_OPS(tarn_store_kvs_ctx_data, tarn_store_kvs_ctx_data_t)

/* Zeroes the five words; both strings keep what the memory held. */
TARN_API uint32_t tarn_store_if_data_default_init(tarn_store_if_data_t *r);
/* Zeroes the words of ids 1, 2 and 4; the word of id 3 is left as it is. */
TARN_API uint32_t tarn_store_svr_data_default_init(tarn_store_svr_data_t *r);
/* Zeroes the whole record, then sets the word of id 4 to 1. */
TARN_API uint32_t tarn_store_vrf_data_default_init(tarn_store_vrf_data_t *r);
/* All words 0, empty name. */
TARN_API uint32_t tarn_table_info_default_init(tarn_table_info_t *r);
/* Zeroes the first nine bytes: both words and the name's first byte. */
TARN_API uint32_t tarn_context_info_default_init(tarn_context_info_t *r);
/* Empty name. */
TARN_API uint32_t tarn_vname_default_init(tarn_vname_t *r);
/* Empty name (only the byte at offset 8 is written). */
TARN_API uint32_t tarn_tname_default_init(tarn_tname_t *r);
/* Words 0 except the word of id 2 (1); the word of id 4 is not written. */
TARN_API uint32_t tarn_if_table_data_default_init(tarn_if_table_info_t *r);
TARN_API uint32_t tarn_soo_info_default_init(tarn_soo_info_t *r, uint32_t bytes);
TARN_API uint32_t tarn_vpnid_info_default_init(tarn_vpnid_info_t *r, uint32_t bytes);
TARN_API uint32_t tarn_rt_limits_info_default_init(tarn_tib_rt_limits_t *r, uint32_t bytes);
TARN_API uint32_t tarn_as_format_default_init(tarn_as_format_t *r, uint32_t bytes);
TARN_API uint32_t tarn_store_data_default_init(tarn_store_data_t *r, uint32_t bytes);
TARN_API uint32_t tarn_store_tib_data_default_init(tarn_store_tib_data_t *r, uint32_t bytes);
/* These two write nothing. */
TARN_API uint32_t tarn_tlv_if_data_default_init(tarn_tlv_if_data_t *r);
TARN_API uint32_t tarn_store_if_kvs_data_default_init(tarn_store_if_kvs_data_t *r);

/* Custom-field callbacks of the variable-length store records (the table
 * entries of tarn_store_cfg_tbl and tarn_store_data_tbl).  Encoders return
 * 0, 73 (TLVKIT_CB_NULL_ARG) for a missing pointer or 1 (TLVKIT_CB_NOMEM)
 * when out of memory; decoders 0 or 73.
 *
 * tarn_store_cfg_t: the data bytes that follow the length word, handed out
 * in place (allocated flag 0); the decoder copies exactly `len` bytes after
 * the destination's length word, which must have room for them. */
TARN_API uint32_t tarn_store_cfg_data_to_tlv(const void *record, uint32_t unused,
                                             void **data, uint32_t *len,
                                             uint32_t *allocated);
TARN_API uint32_t tarn_store_cfg_data_to_struct(void *record, const void *data,
                                                uint32_t len);
TARN_API uint32_t tarn_store_cfg_tlv_data_sz(const void *record);
/* tarn_store_data_t: a 4-byte prefix word followed by the encoded sub-record
 * of kinds 1 to 3, in a buffer from tlvkit_malloc (allocated flag 1); no
 * data for other kinds.  The prefix is the union's first word; the decoder
 * reads it back as the kind selector. */
TARN_API uint32_t tarn_store_data_info_struct_to_tlv(const void *record,
                                                     uint32_t unused, void **data,
                                                     uint32_t *len,
                                                     uint32_t *allocated);
TARN_API uint32_t tarn_store_data_info_tlv_to_struct(void *record, const void *data,
                                                     uint32_t len);
TARN_API uint32_t tarn_store_data_info_get_tlv_data_sz(const void *record);

/* Encoded size of a tarn_store_cfg_t whose length word is 0. */
TARN_API uint32_t tarn_empty_store_cfg_get_tlv_size(void);

#ifdef __cplusplus
}
#endif

#endif /* TARN_TARN_H */
