// tlvkit: converts records between their in-memory structure and their TLV
// form, driven by the descriptor tables of <tarn/tlv_table.h>.
//
// Wire form (docs/design.md, "TLV encoding"):
//   TLV    := type:u32be length:u32be value[length]
//   record := TLV(TLVKIT_RECORD_TYPE, field TLVs in descriptor order)
//
// Decoding treats every byte of its input as hostile: a header is read only
// once 8 bytes are known to remain, a value only once its length is known to
// fit in what follows the header, and every write into the destination is
// checked against the record's extent first.  The extent is the table head's
// structure size plus the counted arrays and variable custom fields that the
// encoding itself carries; tlvkit_table_get_struct_size_from_tlv reports the
// same number, so a caller that sized its record with it is never overrun.
#include "platform/tlvkit.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "host/tarnhost.h"

namespace {

// Nested records may themselves hold counted arrays; bounding the depth keeps
// a malicious or cyclic table from exhausting the stack.
constexpr uint32_t kMaxDepth = 8;
// One bit per descriptor in the "already matched" masks.
constexpr uint32_t kMaxFields = 64;
constexpr uint64_t kU32Max = 0xFFFFFFFFu;

inline uint32_t load_be32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return __builtin_bswap32(v);
}

inline void store_be32(uint8_t *p, uint32_t v)
{
    v = __builtin_bswap32(v);
    memcpy(p, &v, sizeof v);
}

// [offset, offset + size) lies within [0, limit), without overflow.
inline bool fits(uint64_t offset, uint64_t size, uint64_t limit)
{
    return size <= limit && offset <= limit - size;
}

// Copies of the common value widths compile to single moves; only blobs go
// through the library's memcpy.
inline void copy_value(uint8_t *dst, const uint8_t *src, uint32_t n)
{
    switch (n) {
    case 1:
        *dst = *src;
        break;
    case 2:
        memcpy(dst, src, 2);
        break;
    case 4:
        memcpy(dst, src, 4);
        break;
    case 8:
        memcpy(dst, src, 8);
        break;
    default:
        memcpy(dst, src, n);
        break;
    }
}

inline bool has_zero_byte(uint64_t w)
{
    return ((w - 0x0101010101010101ull) & ~w & 0x8080808080808080ull) != 0;
}

// Copies text up to its NUL (known to lie within the `len` source bytes,
// len <= cap) and zero-fills the rest of the `cap`-byte array, eight bytes at
// a time: names are short and this runs on every decoded name.
inline void copy_string(uint8_t *dst, uint32_t cap, const uint8_t *src,
                        uint32_t len)
{
    uint32_t i = 0;
    for (;;) {
        if (len - i < 8)
            break;
        uint64_t w;
        memcpy(&w, src + i, 8);
        if (has_zero_byte(w))
            break;
        memcpy(dst + i, &w, 8);
        i += 8;
    }
    while (src[i] != 0) {
        dst[i] = src[i];
        ++i;
    }
    const uint64_t zero = 0;
    while (cap - i >= 8) {
        memcpy(dst + i, &zero, 8);
        i += 8;
    }
    while (i < cap)
        dst[i++] = 0;
}

struct tlv_view {
    uint32_t type;
    uint32_t len;
    const uint8_t *value;
};

// The TLV at *pos of [buf, buf + len); advances *pos past it.
inline uint32_t next_tlv(const uint8_t *buf, uint32_t len, uint32_t *pos,
                         tlv_view *out)
{
    const uint32_t p = *pos;
    if (p >= len)
        return p == len ? TLVKIT_ERR_END : TLVKIT_ERR_TRUNCATED;
    const uint32_t remaining = len - p;
    if (TLVKIT_HDR_SIZE > remaining)
        return TLVKIT_ERR_TRUNCATED;
    const uint32_t vlen = load_be32(buf + p + 4);
    if (vlen > remaining - TLVKIT_HDR_SIZE)
        return TLVKIT_ERR_TRUNCATED;
    out->type = load_be32(buf + p);
    out->len = vlen;
    out->value = buf + p + TLVKIT_HDR_SIZE;
    *pos = p + TLVKIT_HDR_SIZE + vlen;
    return TLVKIT_OK;
}

// The body of the record envelope that starts at tlv.  Bytes after the
// envelope are not the record's and are ignored.
inline uint32_t open_envelope(const uint8_t *tlv, uint32_t len,
                              const uint8_t **body, uint32_t *body_len)
{
    uint32_t pos = 0;
    tlv_view v;
    const uint32_t rc = next_tlv(tlv, len, &pos, &v);
    if (rc == TLVKIT_ERR_END)
        return TLVKIT_ERR_TRUNCATED;
    if (rc != TLVKIT_OK) {
        // Prefer "not a record" when the header is there but names
        // something else.
        if (len >= TLVKIT_HDR_SIZE && load_be32(tlv) != TLVKIT_RECORD_TYPE)
            return TLVKIT_ERR_ENVELOPE;
        return rc;
    }
    if (v.type != TLVKIT_RECORD_TYPE)
        return TLVKIT_ERR_ENVELOPE;
    *body = v.value;
    *body_len = v.len;
    return TLVKIT_OK;
}

struct table_info {
    uint32_t nfields;
    bool variable;  // has counted arrays or variable-length custom fields
};

// Counts and checks the descriptors.  Tables are constant data of other
// modules, but a bad one must end in an error, not in a wild write.
uint32_t scan_table(const tlvkit_table_t *t, table_info *ti)
{
    ti->nfields = 0;
    ti->variable = false;
    for (const tlvkit_field_t *f = t->fields; !TLVKIT_FIELD_IS_END(f); ++f) {
        if (ti->nfields == kMaxFields)
            return TLVKIT_ERR_TABLE;
        switch (f->kind) {
        case TLVKIT_KIND_VALUE:
        case TLVKIT_KIND_STRING:
        case TLVKIT_KIND_BYTES:
            if (f->total_size == 0)
                return TLVKIT_ERR_TABLE;
            break;
        case TLVKIT_KIND_ARRAY:
            if (f->count == nullptr || f->elem_size == 0 ||
                (f->nested != nullptr &&
                 f->nested->head.struct_size > f->elem_size))
                return TLVKIT_ERR_TABLE;
            ti->variable = true;
            break;
        case TLVKIT_KIND_CUSTOM:
            if (f->encode == nullptr || f->decode == nullptr ||
                f->size == nullptr)
                return TLVKIT_ERR_TABLE;
            if (f->total_size == 0)
                ti->variable = true;
            break;
        default:
            return TLVKIT_ERR_TABLE;
        }
        ++ti->nfields;
    }
    return TLVKIT_OK;
}

inline bool is_variable(const tlvkit_field_t *f)
{
    return f->kind == TLVKIT_KIND_ARRAY ||
           (f->kind == TLVKIT_KIND_CUSTOM && f->total_size == 0);
}

// Finds the descriptor for a TLV id: the first not yet matched descriptor
// carrying it, so that an id listed twice takes its descriptors in order.
// `cursor` makes the common case (fields in descriptor order) one compare.
inline int match_field(const tlvkit_field_t *fields, uint32_t n,
                       uint64_t *seen, uint32_t *cursor, uint32_t id)
{
    uint32_t c = *cursor;
    if (c < n && fields[c].type_id == id && !(*seen & (1ull << c))) {
        *seen |= 1ull << c;
        *cursor = c + 1;
        return static_cast<int>(c);
    }
    for (uint32_t i = 0; i < n; ++i) {
        if (fields[i].type_id == id && !(*seen & (1ull << i))) {
            *seen |= 1ull << i;
            *cursor = i + 1;
            return static_cast<int>(i);
        }
    }
    return -1;
}

// In-memory size needed to decode the record body: the head's structure
// size plus what the variable fields carry.
uint32_t struct_size_walk(const tlvkit_table_t *t, const table_info &ti,
                          const uint8_t *body, uint32_t body_len,
                          uint64_t *out)
{
    uint64_t size = t->head.struct_size;
    // Walked even for fixed tables: a malformed encoding has no size.
    uint64_t seen = 0;
    uint32_t cursor = 0, pos = 0;
    tlv_view v;
    uint32_t rc;
    while ((rc = next_tlv(body, body_len, &pos, &v)) == TLVKIT_OK) {
        const int i = match_field(t->fields, ti.nfields, &seen, &cursor,
                                  v.type);
        if (i < 0)
            continue;
        const tlvkit_field_t *f = &t->fields[i];
        if (f->kind == TLVKIT_KIND_ARRAY) {
            if (f->nested != nullptr) {
                uint64_t n = 0;
                uint32_t epos = 0;
                tlv_view e;
                uint32_t erc;
                while ((erc = next_tlv(v.value, v.len, &epos, &e)) ==
                       TLVKIT_OK)
                    ++n;
                if (erc != TLVKIT_ERR_END)
                    return erc;
                size += n * f->elem_size;
            } else {
                if (v.len % f->elem_size != 0)
                    return TLVKIT_ERR_COUNT;
                size += v.len;
            }
        } else if (f->kind == TLVKIT_KIND_CUSTOM && f->total_size == 0) {
            size += v.len;
        }
        if (size > kU32Max)
            return TLVKIT_ERR_TOO_LARGE;
    }
    if (rc != TLVKIT_ERR_END)
        return rc;
    *out = size;
    return TLVKIT_OK;
}

struct decode_ctx {
    uint8_t *base;
    uint32_t struct_size;
    uint64_t extent;  // bytes of the destination that may be written
    uint32_t depth;
};

uint32_t decode_body(const tlvkit_table_t *t, const table_info &ti,
                     const uint8_t *body, uint32_t body_len,
                     const decode_ctx &c);

// Decodes one field TLV into the record.  *carried receives, for variable
// fields, the element count or byte count the value held.
inline __attribute__((always_inline)) uint32_t
decode_field(const tlvkit_field_t *f, const uint8_t *v, uint32_t len,
             const decode_ctx &c, uint32_t *carried)
{
    uint8_t *dst = c.base + 0;  // offset applied once bounds are known
    switch (f->kind) {
    case TLVKIT_KIND_VALUE:
    case TLVKIT_KIND_BYTES:
        if (len != f->total_size)
            return TLVKIT_ERR_LENGTH;
        if (!fits(f->offset, f->total_size, c.struct_size))
            return TLVKIT_ERR_BOUNDS;
        copy_value(dst + f->offset, v, len);
        return TLVKIT_OK;

    case TLVKIT_KIND_STRING: {
        if (len > f->total_size)
            return TLVKIT_ERR_LENGTH;
        if (!fits(f->offset, f->total_size, c.struct_size))
            return TLVKIT_ERR_BOUNDS;
        // The encoder ends every string with its NUL, so the last byte
        // usually proves the terminator is there; only then is anything
        // written.
        if (len == 0 || (v[len - 1] != 0 && memchr(v, 0, len) == nullptr))
            return TLVKIT_ERR_STRING;
        copy_string(dst + f->offset, f->total_size, v, len);
        return TLVKIT_OK;
    }

    case TLVKIT_KIND_ARRAY: {
        const uint32_t count = f->count(c.base);
        const uint64_t bytes = static_cast<uint64_t>(count) * f->elem_size;
        if (f->nested == nullptr) {
            if (len != bytes)
                return TLVKIT_ERR_COUNT;
            if (!fits(f->offset, bytes, c.extent))
                return TLVKIT_ERR_BOUNDS;
            if (len != 0)
                memcpy(dst + f->offset, v, len);
            *carried = count;
            return TLVKIT_OK;
        }
        if (c.depth + 1 >= kMaxDepth)
            return TLVKIT_ERR_DEPTH;
        {
            // Count first, so that a count word disagreeing with the array
            // says so rather than looking like a bounds problem.
            uint64_t n = 0;
            uint32_t cpos = 0;
            tlv_view e;
            uint32_t crc;
            while ((crc = next_tlv(v, len, &cpos, &e)) == TLVKIT_OK)
                ++n;
            if (crc != TLVKIT_ERR_END)
                return crc;
            if (n != count)
                return TLVKIT_ERR_COUNT;
        }
        if (!fits(f->offset, bytes, c.extent))
            return TLVKIT_ERR_BOUNDS;
        table_info nti;
        uint32_t rc = scan_table(f->nested, &nti);
        if (rc != TLVKIT_OK)
            return rc;
        uint32_t pos = 0;
        tlv_view e;
        for (uint32_t i = 0; i < count; ++i) {
            rc = next_tlv(v, len, &pos, &e);
            if (rc == TLVKIT_ERR_END)
                return TLVKIT_ERR_COUNT;
            if (rc != TLVKIT_OK)
                return rc;
            if (e.type != TLVKIT_RECORD_TYPE)
                return TLVKIT_ERR_ENVELOPE;
            // Each element is a record of its own in a slot of elem_size
            // bytes; its variable parts must fit in that slot too.
            uint64_t need;
            rc = struct_size_walk(f->nested, nti, e.value, e.len, &need);
            if (rc != TLVKIT_OK)
                return rc;
            if (need > f->elem_size)
                return TLVKIT_ERR_BOUNDS;
            const decode_ctx ec = {
                dst + f->offset + static_cast<size_t>(i) * f->elem_size,
                f->nested->head.struct_size, f->elem_size, c.depth + 1};
            rc = decode_body(f->nested, nti, e.value, e.len, ec);
            if (rc != TLVKIT_OK)
                return rc;
        }
        if (pos != len)
            return TLVKIT_ERR_COUNT;
        *carried = count;
        return TLVKIT_OK;
    }

    case TLVKIT_KIND_CUSTOM:
        if (f->total_size != 0) {
            if (!fits(f->offset, f->total_size, c.struct_size))
                return TLVKIT_ERR_BOUNDS;
        } else {
            if (!fits(f->offset, len, c.extent))
                return TLVKIT_ERR_BOUNDS;
            *carried = len;
        }
        if (f->decode(c.base, v, len) != TLVKIT_CB_OK)
            return TLVKIT_ERR_CALLBACK;
        return TLVKIT_OK;

    default:
        return TLVKIT_ERR_TABLE;
    }
}

// The record must agree with what the encoding carried: a count word or a
// length word that promises more than arrived would send the record's
// reader past the memory that was decoded.
uint32_t check_variable(const tlvkit_table_t *t, const table_info &ti,
                        const uint8_t *base, uint64_t present,
                        const uint32_t *carried)
{
    for (uint32_t i = 0; i < ti.nfields; ++i) {
        const tlvkit_field_t *f = &t->fields[i];
        if (!is_variable(f))
            continue;
        const uint32_t got = (present & (1ull << i)) ? carried[i] : 0;
        if (f->kind == TLVKIT_KIND_ARRAY) {
            if (f->count(base) != got)
                return TLVKIT_ERR_COUNT;
        } else if (f->size(base) != got) {
            return TLVKIT_ERR_LENGTH;
        }
    }
    return TLVKIT_OK;
}

uint32_t decode_body(const tlvkit_table_t *t, const table_info &ti,
                     const uint8_t *body, uint32_t body_len,
                     const decode_ctx &c)
{
    uint64_t seen = 0, present = 0;
    uint32_t cursor = 0, pos = 0;
    uint32_t carried[kMaxFields];
    tlv_view v;
    uint32_t rc;
    while ((rc = next_tlv(body, body_len, &pos, &v)) == TLVKIT_OK) {
        const int i = match_field(t->fields, ti.nfields, &seen, &cursor,
                                  v.type);
        if (i < 0)
            continue;  // an id this table does not know
        carried[i] = 0;
        rc = decode_field(&t->fields[i], v.value, v.len, c, &carried[i]);
        if (rc != TLVKIT_OK)
            return rc;
        present |= 1ull << i;
    }
    if (rc != TLVKIT_ERR_END)
        return rc;
    if (ti.variable)
        return check_variable(t, ti, c.base, present, carried);
    return TLVKIT_OK;
}

// ---- encoding -----------------------------------------------------------

uint32_t encoded_size(const tlvkit_table_t *t, const uint8_t *rec,
                      uint32_t depth, uint64_t *out);

// Length of one field's value as the encoder will write it (for custom
// fields: what the size callback promises).
uint32_t value_size(const tlvkit_field_t *f, const uint8_t *rec,
                    uint32_t depth, uint64_t *out)
{
    switch (f->kind) {
    case TLVKIT_KIND_VALUE:
    case TLVKIT_KIND_BYTES:
        *out = f->total_size;
        return TLVKIT_OK;
    case TLVKIT_KIND_STRING:
        *out = strnlen(reinterpret_cast<const char *>(rec + f->offset),
                       f->total_size - 1) + 1;
        return TLVKIT_OK;
    case TLVKIT_KIND_ARRAY: {
        const uint32_t count = f->count(rec);
        if (f->nested == nullptr) {
            *out = static_cast<uint64_t>(count) * f->elem_size;
            return *out > kU32Max ? TLVKIT_ERR_TOO_LARGE : TLVKIT_OK;
        }
        if (depth + 1 >= kMaxDepth)
            return TLVKIT_ERR_DEPTH;
        uint64_t sum = 0;
        for (uint32_t i = 0; i < count; ++i) {
            uint64_t one;
            const uint32_t rc = encoded_size(
                f->nested,
                rec + f->offset + static_cast<size_t>(i) * f->elem_size,
                depth + 1, &one);
            if (rc != TLVKIT_OK)
                return rc;
            sum += one;
            if (sum > kU32Max)
                return TLVKIT_ERR_TOO_LARGE;
        }
        *out = sum;
        return TLVKIT_OK;
    }
    case TLVKIT_KIND_CUSTOM:
        *out = f->size(rec);
        return TLVKIT_OK;
    default:
        return TLVKIT_ERR_TABLE;
    }
}

uint32_t encoded_size(const tlvkit_table_t *t, const uint8_t *rec,
                      uint32_t depth, uint64_t *out)
{
    table_info ti;
    uint32_t rc = scan_table(t, &ti);
    if (rc != TLVKIT_OK)
        return rc;
    uint64_t size = TLVKIT_HDR_SIZE;
    for (uint32_t i = 0; i < ti.nfields; ++i) {
        uint64_t v;
        rc = value_size(&t->fields[i], rec, depth, &v);
        if (rc != TLVKIT_OK)
            return rc;
        size += TLVKIT_HDR_SIZE + v;
        if (size > kU32Max)
            return TLVKIT_ERR_TOO_LARGE;
    }
    *out = size;
    return TLVKIT_OK;
}

// Writes the record at out (room: cap bytes); *written is its length, which
// is at most the encoded_size() of the record and may be less when a custom
// encoder hands back less than its size callback promised.
uint32_t encode_record(const tlvkit_table_t *t, const uint8_t *rec,
                       uint8_t *out, uint32_t cap, uint32_t depth,
                       uint32_t *written)
{
    table_info ti;
    uint32_t rc = scan_table(t, &ti);
    if (rc != TLVKIT_OK)
        return rc;
    if (cap < TLVKIT_HDR_SIZE)
        return TLVKIT_ERR_SPACE;
    uint32_t pos = TLVKIT_HDR_SIZE;
    for (uint32_t i = 0; i < ti.nfields; ++i) {
        const tlvkit_field_t *f = &t->fields[i];
        if (cap - pos < TLVKIT_HDR_SIZE)
            return TLVKIT_ERR_SPACE;
        const uint32_t hdr = pos;
        pos += TLVKIT_HDR_SIZE;
        const uint32_t room = cap - pos;
        uint32_t vlen = 0;
        switch (f->kind) {
        case TLVKIT_KIND_VALUE:
        case TLVKIT_KIND_BYTES:
            vlen = f->total_size;
            if (vlen > room)
                return TLVKIT_ERR_SPACE;
            memcpy(out + pos, rec + f->offset, vlen);
            break;
        case TLVKIT_KIND_STRING: {
            const char *s = reinterpret_cast<const char *>(rec + f->offset);
            const uint32_t n =
                static_cast<uint32_t>(strnlen(s, f->total_size - 1));
            vlen = n + 1;
            if (vlen > room)
                return TLVKIT_ERR_SPACE;
            memcpy(out + pos, s, n);
            out[pos + n] = 0;
            break;
        }
        case TLVKIT_KIND_ARRAY: {
            const uint32_t count = f->count(rec);
            if (f->nested == nullptr) {
                const uint64_t bytes =
                    static_cast<uint64_t>(count) * f->elem_size;
                if (bytes > room)
                    return TLVKIT_ERR_SPACE;
                vlen = static_cast<uint32_t>(bytes);
                if (vlen != 0)
                    memcpy(out + pos, rec + f->offset, vlen);
                break;
            }
            if (depth + 1 >= kMaxDepth)
                return TLVKIT_ERR_DEPTH;
            for (uint32_t e = 0; e < count; ++e) {
                uint32_t one = 0;
                rc = encode_record(
                    f->nested,
                    rec + f->offset + static_cast<size_t>(e) * f->elem_size,
                    out + pos + vlen, room - vlen, depth + 1, &one);
                if (rc != TLVKIT_OK)
                    return rc;
                vlen += one;
            }
            break;
        }
        case TLVKIT_KIND_CUSTOM: {
            void *data = nullptr;
            uint32_t dlen = 0, allocated = 0;
            const uint32_t cb = f->encode(rec, 0, &data, &dlen, &allocated);
            if (cb != TLVKIT_CB_OK) {
                if (allocated == 1)
                    free(data);
                return cb == TLVKIT_CB_NOMEM ? TLVKIT_ERR_NOMEM
                                             : TLVKIT_ERR_CALLBACK;
            }
            if (data == nullptr) {
                // Nothing to carry (a store record without a sub-record):
                // the field is left out rather than sent empty.
                pos = hdr;
                continue;
            }
            if (dlen > room) {
                if (allocated == 1)
                    free(data);
                return TLVKIT_ERR_CALLBACK;
            }
            if (dlen != 0)
                memcpy(out + pos, data, dlen);
            if (allocated == 1)
                free(data);
            vlen = dlen;
            break;
        }
        default:
            return TLVKIT_ERR_TABLE;
        }
        store_be32(out + hdr, f->type_id);
        store_be32(out + hdr + 4, vlen);
        pos += vlen;
    }
    store_be32(out, TLVKIT_RECORD_TYPE);
    store_be32(out + 4, pos - TLVKIT_HDR_SIZE);
    *written = pos;
    return TLVKIT_OK;
}

}  // namespace

extern "C" {

uint32_t tlvkit_table_convert_tlv_to_struct(void **record, const void *tlv,
                                            uint32_t tlv_len,
                                            const tlvkit_table_t *tbl,
                                            uint32_t flag)
{
    if (record == nullptr || tlv == nullptr || tbl == nullptr)
        return TLVKIT_ERR_NULL;
    table_info ti;
    uint32_t rc = scan_table(tbl, &ti);
    if (rc != TLVKIT_OK)
        return rc;
    const uint8_t *body;
    uint32_t body_len;
    rc = open_envelope(static_cast<const uint8_t *>(tlv), tlv_len, &body,
                       &body_len);
    if (rc != TLVKIT_OK)
        return rc;
    uint64_t extent = tbl->head.struct_size;
    if (ti.variable) {
        rc = struct_size_walk(tbl, ti, body, body_len, &extent);
        if (rc != TLVKIT_OK)
            return rc;
    }
    const bool into_caller = (flag & 1u) != 0 && *record != nullptr;
    uint8_t *base;
    if (into_caller) {
        base = static_cast<uint8_t *>(*record);
    } else {
        base = static_cast<uint8_t *>(
            tlvkit_malloc(static_cast<size_t>(extent)));
        if (base == nullptr)
            return TLVKIT_ERR_NOMEM;
        memset(base, 0, static_cast<size_t>(extent));
    }
    const decode_ctx c = {base, tbl->head.struct_size, extent, 0};
    rc = decode_body(tbl, ti, body, body_len, c);
    if (into_caller)
        return rc;
    if (rc != TLVKIT_OK) {
        free(base);
        return rc;
    }
    *record = base;
    return TLVKIT_OK;
}

uint32_t tlvkit_table_convert_struct_to_tlv(void **buf, uint32_t *len,
                                            const tlvkit_table_t *tbl,
                                            const void *record, uint32_t a,
                                            uint32_t *b, uint32_t flag)
{
    (void)a;
    if (buf == nullptr || len == nullptr || tbl == nullptr ||
        record == nullptr)
        return TLVKIT_ERR_NULL;
    const uint8_t *rec = static_cast<const uint8_t *>(record);
    uint64_t upper;
    uint32_t rc = encoded_size(tbl, rec, 0, &upper);
    if (rc != TLVKIT_OK)
        return rc;
    const uint32_t need = static_cast<uint32_t>(upper);
    uint32_t written = 0;
    if ((flag & 1u) != 0 && *buf != nullptr) {
        // The caller's buffer: the encoding ends where the buffer ends, so
        // that a prefix the caller keeps in front of it survives.
        const uint32_t cap = *len;
        if (need > cap)
            return TLVKIT_ERR_SPACE;
        uint8_t *start = static_cast<uint8_t *>(*buf) + (cap - need);
        rc = encode_record(tbl, rec, start, need, 0, &written);
        if (rc != TLVKIT_OK)
            return rc;
        if (written != need)
            memmove(static_cast<uint8_t *>(*buf) + (cap - written), start,
                    written);
    } else {
        uint8_t *out = static_cast<uint8_t *>(tlvkit_malloc(need));
        if (out == nullptr)
            return TLVKIT_ERR_NOMEM;
        rc = encode_record(tbl, rec, out, need, 0, &written);
        if (rc != TLVKIT_OK) {
            free(out);
            return rc;
        }
        *buf = out;
    }
    *len = written;
    if (b != nullptr)
        *b = written;
    return TLVKIT_OK;
}

uint32_t tlvkit_table_size(const tlvkit_table_t *tbl, const void *record)
{
    if (tbl == nullptr || record == nullptr)
        return 0;
    uint64_t size;
    if (encoded_size(tbl, static_cast<const uint8_t *>(record), 0, &size) !=
        TLVKIT_OK)
        return 0;
    return static_cast<uint32_t>(size);
}

uint32_t tlvkit_table_get_struct_size_from_tlv(uint32_t *size,
                                               const void *tlv,
                                               uint32_t tlv_len,
                                               const tlvkit_table_t *tbl)
{
    if (size == nullptr || tlv == nullptr || tbl == nullptr)
        return TLVKIT_ERR_NULL;
    const uint8_t *p = static_cast<const uint8_t *>(tlv);
    if (tlv_len == 0) {
        // No length given: the caller vouches for a whole envelope, so
        // its header states the length.
        if (load_be32(p) != TLVKIT_RECORD_TYPE)
            return TLVKIT_ERR_ENVELOPE;
        const uint32_t body = load_be32(p + 4);
        if (body > kU32Max - TLVKIT_HDR_SIZE)
            return TLVKIT_ERR_TOO_LARGE;
        tlv_len = body + TLVKIT_HDR_SIZE;
    }
    table_info ti;
    uint32_t rc = scan_table(tbl, &ti);
    if (rc != TLVKIT_OK)
        return rc;
    const uint8_t *body;
    uint32_t body_len;
    rc = open_envelope(p, tlv_len, &body, &body_len);
    if (rc != TLVKIT_OK)
        return rc;
    uint64_t out;
    rc = struct_size_walk(tbl, ti, body, body_len, &out);
    if (rc != TLVKIT_OK)
        return rc;
    *size = static_cast<uint32_t>(out);
    return TLVKIT_OK;
}

uint32_t tlvkit_field_itr_init(tlvkit_field_itr_t *itr, const void *tlv,
                               uint32_t tlv_len, const tlvkit_table_t *tbl,
                               void *record, uint16_t flags)
{
    if (itr == nullptr || tlv == nullptr || tbl == nullptr)
        return TLVKIT_ERR_NULL;
    table_info ti;
    uint32_t rc = scan_table(tbl, &ti);
    if (rc != TLVKIT_OK)
        return rc;
    const uint8_t *body;
    uint32_t body_len;
    rc = open_envelope(static_cast<const uint8_t *>(tlv), tlv_len, &body,
                       &body_len);
    if (rc != TLVKIT_OK)
        return rc;
    itr->table = tbl;
    itr->body = body;
    itr->body_len = body_len;
    itr->pos = 0;
    itr->record = record;
    itr->flags = flags;
    itr->reserved = 0;
    itr->seen = 0;
    return TLVKIT_OK;
}

uint32_t tlvkit_field_itr_get_next(tlvkit_field_itr_t *itr,
                                   tlvkit_field_value_t *out)
{
    if (itr == nullptr || out == nullptr || itr->table == nullptr)
        return TLVKIT_ERR_NULL;
    const tlvkit_table_t *t = itr->table;
    table_info ti;
    uint32_t rc = scan_table(t, &ti);
    if (rc != TLVKIT_OK)
        return rc;
    for (;;) {
        tlv_view v;
        rc = next_tlv(itr->body, itr->body_len, &itr->pos, &v);
        if (rc != TLVKIT_OK)
            return rc;
        uint32_t cursor = 0;
        const int i = match_field(t->fields, ti.nfields, &itr->seen, &cursor,
                                  v.type);
        if (i < 0 && (itr->flags & TLVKIT_ITR_SKIP_UNKNOWN))
            continue;
        out->type_id = v.type;
        out->len = v.len;
        out->value = v.value;
        out->field = i < 0 ? nullptr : &t->fields[i];
        if (i < 0 || itr->record == nullptr)
            return TLVKIT_OK;
        // Decoding field by field: the same bounds as a whole decode, the
        // extent being what the whole encoding needs.
        uint64_t extent = t->head.struct_size;
        if (is_variable(out->field)) {
            rc = struct_size_walk(t, ti, itr->body, itr->body_len, &extent);
            if (rc != TLVKIT_OK)
                return rc;
        }
        const decode_ctx c = {static_cast<uint8_t *>(itr->record),
                              t->head.struct_size, extent, 0};
        uint32_t carried = 0;
        return decode_field(out->field, v.value, v.len, c, &carried);
    }
}

uint32_t tlvkit_get_field(const void *tlv, uint32_t tlv_len, uint32_t type_id,
                          const void **value, uint32_t *value_len,
                          const tlvkit_table_t *tbl)
{
    (void)tbl;  // the envelope is self-describing; the table is not needed
    if (tlv == nullptr || value == nullptr || value_len == nullptr)
        return TLVKIT_ERR_NULL;
    const uint8_t *body;
    uint32_t body_len;
    uint32_t rc = open_envelope(static_cast<const uint8_t *>(tlv), tlv_len,
                                &body, &body_len);
    if (rc != TLVKIT_OK)
        return rc;
    uint32_t pos = 0;
    tlv_view v;
    while ((rc = next_tlv(body, body_len, &pos, &v)) == TLVKIT_OK) {
        if (v.type == type_id) {
            *value = v.value;
            *value_len = v.len;
            return TLVKIT_OK;
        }
    }
    return rc;
}

uint32_t tlv_array_get_next_tlv(const void *array, uint32_t len,
                                uint32_t *pos, uint32_t *type,
                                const void **value, uint32_t *value_len)
{
    if (pos == nullptr || (array == nullptr && len != 0))
        return TLVKIT_ERR_NULL;
    if (array == nullptr)
        return *pos == 0 ? TLVKIT_ERR_END : TLVKIT_ERR_TRUNCATED;
    tlv_view v;
    const uint32_t rc =
        next_tlv(static_cast<const uint8_t *>(array), len, pos, &v);
    if (rc != TLVKIT_OK)
        return rc;
    if (type != nullptr)
        *type = v.type;
    if (value != nullptr)
        *value = v.value;
    if (value_len != nullptr)
        *value_len = v.len;
    return TLVKIT_OK;
}

void tlvkit_error_print(const char *format, ...)
{
    if (format == nullptr)
        return;
    char line[1024];
    va_list ap;
    va_start(ap, format);
    vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    fputs(line, stderr);
    size_t n = strlen(line);
    if (n > 0 && line[n - 1] == '\n')
        line[n - 1] = '\0';
    tarnhost_capture_append(TARNHOST_CH_ERROR, line);
}

void *tlvkit_malloc(size_t size)
{
    uint32_t status = 0;
    if (tarnhost_fault_hit("tlvkit_malloc", &status))
        return nullptr;
    return malloc(size != 0 ? size : 1);
}

}  // extern "C"
