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

#ifdef __cplusplus
}
#endif

#endif /* TARN_GYRE_H */
