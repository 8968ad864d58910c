/*
 * platform/tlvkit.h - the TLV table-conversion library.
 *
 * Contract
 *
 *  1. Records are converted between their in-memory structure and their TLV
 *     form as their descriptor table says (<tarn/tlv_table.h>).  The byte
 *     encoding is tlvkit's and is stable (docs/design.md, "TLV encoding"):
 *       TLV      := type:u32be  length:u32be  value[length]
 *       record   := TLV(type TLVKIT_RECORD_TYPE, fields)  - one envelope
 *       fields   := field TLVs in descriptor order
 *       a TLV array is TLVs back to back.
 *
 *  2. Decoding never reads outside [tlv, tlv + tlv_len) and never writes
 *     outside the destination record: every header and length is checked
 *     against what remains before it is read.  Fixed fields are bounded by
 *     the table head's structure size; counted arrays by their declared
 *     count.  Unknown type ids are skipped; a descriptor id seen twice is
 *     matched to the next descriptor carrying that id.  A string whose value
 *     holds no NUL is refused (TLVKIT_ERR_STRING).
 *
 *  3. tlvkit_table_convert_tlv_to_struct(&rec, tlv, len, tbl, flag): with
 *     flag bit 0 set and *rec non-null, decodes into *rec (which must have
 *     room for what tlvkit_table_get_struct_size_from_tlv reports); else
 *     allocates a zeroed record of that size with tlvkit_malloc and stores
 *     it in *rec (the caller frees it with free()).  Only fields present in
 *     the TLV are written.  Returns 0 or a TLVKIT_ERR_* code.
 *
 *  4. tlvkit_table_convert_struct_to_tlv(&buf, &len, tbl, rec, a, b, flag):
 *     with flag bit 0 set and *buf non-null, encodes into the caller's
 *     buffer of *len bytes, placing the encoding at the buffer's end (so a
 *     caller may keep a prefix in front of it); else allocates the buffer
 *     with tlvkit_malloc (the caller frees it).  *len becomes the encoded
 *     length; when `b` is not null *b receives it too.  `a` is reserved (0).
 *     Returns 0 or a TLVKIT_ERR_* code.
 *
 *  5. tlvkit_table_size(tbl, rec) is the encoded length of rec (0 for a
 *     null argument).  tlvkit_table_get_struct_size_from_tlv(&size, tlv,
 *     len, tbl) is the in-memory size a decode of that encoding needs (head
 *     size plus counted arrays and variable custom fields); with len 0 the
 *     encoding's own envelope gives the length.
 *
 *  6. tlvkit_field_itr_init / tlvkit_field_itr_get_next walk the fields of
 *     one encoded record (get_next returns TLVKIT_ERR_END after the last);
 *     tlvkit_get_field(tlv, len, id, &value, &vlen, tbl) finds the first
 *     field with that id.
 *
 *  7. tlv_array_get_next_tlv(array, len, &pos, &type, &value, &vlen) yields
 *     the TLV at offset *pos of a TLV array and advances *pos past it;
 *     returns 0, TLVKIT_ERR_END at the end, or an error for a malformed TLV.
 *
 *  8. tlvkit_error_print(format, ...) prints a conversion error on standard
 *     error (and to the host's capture).  tlvkit_malloc(n) allocates memory
 *     that tlvkit (or the caller, with free()) releases.
 */
#ifndef TARN_PLATFORM_TLVKIT_H
#define TARN_PLATFORM_TLVKIT_H

#include <stddef.h>
#include <stdint.h>

#include <tarn/tlv_table.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TLVKIT_RECORD_TYPE 0x54524543u   /* "TREC": the record envelope */
#define TLVKIT_HDR_SIZE 8u

#define TLVKIT_OK 0u
#define TLVKIT_ERR_END 0x7401u           /* no further TLV or field        */
#define TLVKIT_ERR_NULL 0x7402u          /* a required pointer is null     */
#define TLVKIT_ERR_TRUNCATED 0x7403u     /* a header or value runs past    */
#define TLVKIT_ERR_ENVELOPE 0x7404u      /* not a record envelope          */
#define TLVKIT_ERR_LENGTH 0x7405u        /* value length wrong for field   */
#define TLVKIT_ERR_STRING 0x7406u        /* string without its terminator  */
#define TLVKIT_ERR_COUNT 0x7407u         /* array length != declared count */
#define TLVKIT_ERR_BOUNDS 0x7408u        /* field outside the record       */
#define TLVKIT_ERR_TABLE 0x7409u         /* malformed descriptor table     */
#define TLVKIT_ERR_NOMEM 0x740Au         /* allocation failed              */
#define TLVKIT_ERR_SPACE 0x740Bu         /* caller's buffer too small      */
#define TLVKIT_ERR_CALLBACK 0x740Cu      /* a custom callback failed       */
#define TLVKIT_ERR_TOO_LARGE 0x740Du     /* encoding exceeds 32-bit sizes  */
#define TLVKIT_ERR_DEPTH 0x740Eu         /* nesting deeper than supported  */

uint32_t tlvkit_table_convert_tlv_to_struct(void **record, const void *tlv,
                                            uint32_t tlv_len,
                                            const tlvkit_table_t *tbl,
                                            uint32_t flag);
uint32_t tlvkit_table_convert_struct_to_tlv(void **buf, uint32_t *len,
                                            const tlvkit_table_t *tbl,
                                            const void *record, uint32_t a,
                                            uint32_t *b, uint32_t flag);
uint32_t tlvkit_table_size(const tlvkit_table_t *tbl, const void *record);
uint32_t tlvkit_table_get_struct_size_from_tlv(uint32_t *size,
                                               const void *tlv,
                                               uint32_t tlv_len,
                                               const tlvkit_table_t *tbl);
uint32_t tlvkit_field_itr_init(tlvkit_field_itr_t *itr, const void *tlv,
                               uint32_t tlv_len, const tlvkit_table_t *tbl,
                               void *record, uint16_t flags);
uint32_t tlvkit_field_itr_get_next(tlvkit_field_itr_t *itr,
                                   tlvkit_field_value_t *out);
uint32_t tlvkit_get_field(const void *tlv, uint32_t tlv_len, uint32_t type_id,
                          const void **value, uint32_t *value_len,
                          const tlvkit_table_t *tbl);
uint32_t tlv_array_get_next_tlv(const void *array, uint32_t len,
                                uint32_t *pos, uint32_t *type,
                                const void **value, uint32_t *value_len);
void tlvkit_error_print(const char *format, ...)
    __attribute__((format(printf, 1, 2)));
void *tlvkit_malloc(size_t size);

#ifdef __cplusplus
}
#endif

#endif
