// The query frame every database-backed query follows: argument checks,
// cell check, client check, key, read, decode, report.  Each step here
// returns false after reporting (or silently, for an absent key); the query
// then answers its failure value.
#ifndef TARN_QUERY_FRAME_H
#define TARN_QUERY_FRAME_H

#include <stdint.h>
#include <string.h>
#include <unistd.h>

#include <tarn/tarn.h>

#include "core/report.h"
#include "core/state.h"
#include "platform/kvs.h"

namespace tarn {

// The 48-byte big-endian key of the Tarn database.
struct TarnKey {
    uint8_t bytes[TARN_KVS_KEY_SIZE];

    explicit TarnKey(uint32_t kind)
    {
        memset(bytes, 0, sizeof bytes);
        put_u32(0, kind);
    }
    void put_u32(size_t offset, uint32_t value)
    {
        bytes[offset] = static_cast<uint8_t>(value >> 24);
        bytes[offset + 1] = static_cast<uint8_t>(value >> 16);
        bytes[offset + 2] = static_cast<uint8_t>(value >> 8);
        bytes[offset + 3] = static_cast<uint8_t>(value);
    }
    // At most `limit` - 1 characters; a null name leaves the field zero.
    void put_name(size_t offset, const char *name, size_t limit = TARN_NAME_SIZE);
    kvs_datum_t datum() const { return kvs_datum_t{bytes, sizeof bytes}; }
};

// Big-endian u32 at `offset` of a key or value of `len` bytes; false when
// too short.
bool load_be32(const void *data, uint32_t len, size_t offset, uint32_t *out);

// A printable text for a name that may be null.
inline const char *printable(const char *s) { return s != nullptr ? s : "(null)"; }

// Steps 2 and 3: the cell check and the client check (record present and
// initialised; TARN_LIBINIT with `label` otherwise).
bool enter(const char *fn, const char *label, uint32_t *ix);

// Report a database read that failed with something other than absence.
void report_read_error(uint32_t ix, const char *what, uint32_t status,
                       const char *fn);

// Steps 5 to 7: read `key`; an absent key fails silently; any other failure
// is reported with the key description `describe` writes into a buffer of
// N bytes (formatted only then).
template <size_t N, class Describe>
bool read(uint32_t ix, const TarnKey &key, kvs_datum_t *value, const char *fn,
          Describe describe)
{
    const kvs_datum_t k = key.datum();
    const uint32_t status = kvs_read(clt_of(ix)->kvs, &k, value);
    if (status == 0)
        return true;
    if (status != KVS_ERR_NOT_FOUND) {
        char what[N];
        describe(what, sizeof what);
        report_read_error(ix, what, status, fn);
    }
    return false;
}

// Step 8 for kinds 1 and 2: the first TLV of the value is a big-endian id.
// A value too short to hold it reads like an absent one.
bool first_tlv_id(const kvs_datum_t &value, uint32_t *id);

// Step 8 for record kinds: decode with the record's own conversion, named
// `conversion` (with its "()") in the report when it fails.
template <class T>
bool decode(uint32_t (*to_struct)(T **, const void *, uint32_t, uint32_t),
            const kvs_datum_t &value, T *out, const char *conversion,
            const char *fn)
{
    T *dst = out;
    if (to_struct(&dst, value.data, value.len, 1) != 0) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, conversion, fn);
        return false;
    }
    return true;
}

// A null result record: reported, and the query fails.
inline bool null_result(const void *p, const char *what, const char *fn)
{
    if (p != nullptr)
        return false;
    tarn_report(&msg_error_TARN_LIB_INVALID_ARG, what, fn);
    return true;
}

// Positions the process's iterator on the database (after `id` of `kind`,
// or at its start when `id` is 0) and steps to the first record after the
// start; false with a report when the iterator cannot be placed, false
// silently at the end.  From the start, the walk steps from the last record
// before the kind's first: every record passed over that way is of an
// earlier kind, which no walk of `kind` examines, and the start record
// itself is still never a result.
bool walk_start(uint32_t ix, uint32_t kind, uint32_t id, kvs_datum_t *key,
                kvs_datum_t *value, const char *fn);
// Steps to the next record; false at the end.
bool walk_next(uint32_t ix, kvs_datum_t *key, kvs_datum_t *value);

// Whether `key` sorts after every key that begins with the `n` bytes of
// `prefix` (keys are ordered bytewise, shorter first on a common prefix).
bool past_prefix(const kvs_datum_t &key, const uint8_t *prefix, uint32_t n);
// The same for the keys of one kind (its big-endian first four bytes).
bool past_kind(const kvs_datum_t &key, uint32_t kind);
// Whether `key` sorts before every key of the kind.
bool before_kind(const kvs_datum_t &key, uint32_t kind);

// Moves the walk of `db` to its last record at once and steps from there,
// as stepping record by record would have ended: false at the end (the
// position on the last record, as stepping leaves it), true with a record
// added behind it meanwhile.  For walks that have met a key past every key
// they can match: the records passed over could match nothing.  When the
// iterator cannot be placed, it steps from where it stands.
bool walk_to_end(const char *db, kvs_datum_t *key, kvs_datum_t *value);

}  // namespace tarn

#endif
