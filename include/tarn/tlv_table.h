/*
 * tarn/tlv_table.h - the descriptor-table format shared by libtarn and the
 * TLV table-conversion library (tlvkit).
 *
 * Every record that crosses a process boundary is described by one constant
 * table: a 16-byte head followed by 48-byte field descriptors (sizes as on the
 * 32-bit device; pointers widen on a 64-bit host) and a terminator entry.
 * libtarn exports one table per record type (tarn_context_info_tbl, ...), so
 * that any process can convert the same records with tlvkit.
 *
 * This header is plain C99 and is included by <tarn/tarn.h>.
 */
#ifndef TARN_TLV_TABLE_H
#define TARN_TLV_TABLE_H

#include <stdint.h>

/* Marks the names libtarn exports; everything else in it is hidden. */
#ifndef TARN_API
#define TARN_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Field kinds. */
enum {
    TLVKIT_KIND_VALUE = 1,   /* fixed value or blob copied as its bytes       */
    TLVKIT_KIND_STRING = 2,  /* NUL-terminated text in a fixed array          */
    TLVKIT_KIND_BYTES = 3,   /* opaque fixed-size byte array                  */
    TLVKIT_KIND_ARRAY = 5,   /* counted array: nested records or raw bytes    */
    TLVKIT_KIND_CUSTOM = 8   /* the record's own encode/decode/size callbacks */
};

/* Callback status codes (custom and count callbacks). */
#define TLVKIT_CB_OK 0u
#define TLVKIT_CB_NOMEM 1u
#define TLVKIT_CB_NULL_ARG 73u

/* Value of the word at offset 40 of every field descriptor. */
#define TLVKIT_FIELD_MARK 0xFFFFFFFFu

/*
 * Custom encode: given the record, an unused word and three outputs (data
 * pointer, data length, allocated flag).  allocated = 1 means the data was
 * taken from tlvkit_malloc and tlvkit releases it; 0 means it points into
 * the record.  Returns 0, 73 for a null output pointer, 1 when out of memory.
 */
typedef uint32_t (*tlvkit_encode_cb)(const void *record, uint32_t unused,
                                     void **data, uint32_t *len,
                                     uint32_t *allocated);
/* Custom decode: destination record, TLV data and its length. */
typedef uint32_t (*tlvkit_decode_cb)(void *record, const void *data,
                                     uint32_t len);
/* Custom encoded size: the length the encode callback will produce. */
typedef uint32_t (*tlvkit_size_cb)(const void *record);
/* Counted array: the number of elements (a null record gives 0). */
typedef uint32_t (*tlvkit_count_cb)(const void *record);
/* Default initialiser as stored in the head (see the record's own prototype). */
typedef uint32_t (*tlvkit_init_cb)(void *record);

struct tlvkit_table;

/* Table head: 16 bytes on the device. */
typedef struct tlvkit_table_head {
    uint32_t struct_size;   /* size of the in-memory record                */
    const char *name;       /* record type name, e.g. "tarn_vname_t"        */
    tlvkit_init_cb init;    /* default initialiser, or null                 */
    uint32_t reserved;      /* 0                                            */
} tlvkit_table_head_t;

/* Field descriptor: 48 bytes on the device. */
typedef struct tlvkit_field {
    uint32_t type_id;       /* TLV type id                                   */
    uint32_t elem_size;     /* element size in bytes                         */
    uint32_t offset;        /* offset of the field in the record             */
    uint32_t kind;          /* TLVKIT_KIND_*                                 */
    tlvkit_encode_cb encode;/* kind 8 only                                   */
    tlvkit_decode_cb decode;/* kind 8 only                                   */
    tlvkit_size_cb size;    /* kind 8 only                                   */
    tlvkit_count_cb count;  /* kind 5 only                                   */
    uint32_t reserved32;    /* 0                                             */
    uint32_t total_size;    /* elem_size x fixed count; 0 when variable      */
    uint32_t mark;          /* TLVKIT_FIELD_MARK                             */
    const struct tlvkit_table *nested; /* kind 5: element table, or null     */
} tlvkit_field_t;

/* A descriptor table: head, fields in encoding order, terminator. */
typedef struct tlvkit_table {
    tlvkit_table_head_t head;
    tlvkit_field_t fields[];
} tlvkit_table_t;

/*
 * Field iterator over one encoded record (tlvkit_field_itr_init and
 * tlvkit_field_itr_get_next).  The caller owns the storage; its members are
 * tlvkit's own and are not to be touched.
 */
typedef struct tlvkit_field_itr {
    const struct tlvkit_table *table;
    const uint8_t *body;     /* the record's field TLVs                      */
    uint32_t body_len;
    uint32_t pos;            /* offset of the next TLV in body               */
    void *record;            /* optional: decode each field into it          */
    uint16_t flags;          /* TLVKIT_ITR_*                                 */
    uint16_t reserved;
    uint64_t seen;           /* descriptors already matched (bit per index)  */
} tlvkit_field_itr_t;

/* Iterator flags. */
#define TLVKIT_ITR_SKIP_UNKNOWN 0x0001u /* do not report ids the table lacks */

/* One field as the iterator yields it. */
typedef struct tlvkit_field_value {
    uint32_t type_id;
    uint32_t len;                /* value length in bytes                    */
    const void *value;           /* points into the caller's TLV bytes       */
    const tlvkit_field_t *field; /* its descriptor, or null when unknown     */
} tlvkit_field_value_t;

/* The terminator entry ends the field list: its type_id, elem_size and
 * offset are 0xFFFFFFFF. */
#define TLVKIT_FIELD_IS_END(f) ((f)->type_id == 0xFFFFFFFFu && \
                                (f)->elem_size == 0xFFFFFFFFu && \
                                (f)->offset == 0xFFFFFFFFu)

#ifdef __cplusplus
}
#endif

#endif /* TARN_TLV_TABLE_H */
