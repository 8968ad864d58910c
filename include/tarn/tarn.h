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

#ifdef __cplusplus
}
#endif

#endif /* TARN_TARN_H */
