#include "query/frame.h"

#include "platform/kpipe.h"
#include "platform/tlvkit.h"

namespace tarn {

void TarnKey::put_name(size_t offset, const char *name, size_t limit)
{
    if (name == nullptr)
        return;
    kpipe_strcpy(reinterpret_cast<char *>(bytes + offset), name, limit);
}

bool load_be32(const void *data, uint32_t len, size_t offset, uint32_t *out)
{
    if (data == nullptr || len < 4 || offset > len - 4)
        return false;
    const uint8_t *p = static_cast<const uint8_t *>(data) + offset;
    *out = (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
    return true;
}

bool enter(const char *fn, const char *label, uint32_t *ix)
{
    if (!cell_check(fn, ix))
        return false;
    if (tarn_clt == nullptr || !clt_of(*ix)->initialized) {
        tarn_report(&msg_error_TARN_LIBINIT, label);
        return false;
    }
    return true;
}

void report_read_error(uint32_t ix, const char *what, uint32_t status,
                       const char *fn)
{
    tarn_report(&msg_error_TARN_KVS_READ, static_cast<int>(ix + 1), what, status,
                syserr2str(status), fn, static_cast<int>(getpid()));
}

bool first_tlv_id(const kvs_datum_t &value, uint32_t *id)
{
    uint32_t pos = 0, type = 0, len = 0;
    const void *v = nullptr;
    if (tlv_array_get_next_tlv(value.data, value.len, &pos, &type, &v, &len) != 0)
        return false;
    return load_be32(v, len, 0, id);
}

bool walk_start(uint32_t ix, uint32_t kind, uint32_t id, kvs_datum_t *key,
                kvs_datum_t *value, const char *fn)
{
    const char *db = clt_of(ix)->kvs;
    uint32_t rc;
    if (id != 0) {
        TarnKey start(kind);
        start.put_u32(4, id);
        const kvs_datum_t k = start.datum();
        rc = kvs_iterator_init(db, &k, 0);
    } else {
        rc = kvs_iterator_init(db, nullptr, 1);
    }
    if (rc != 0) {
        tarn_report(&msg_error_TARN_LIBAPI_FAILED, "kvs_iterator_init()", fn);
        return false;
    }
    // The record at the start position is where the walk stands, not a
    // result: only records after it are examined.
    const bool on_record = kvs_getkey(db, key, value) == 0;
    if (id == 0 && on_record && before_kind(*key, kind)) {
        // From the start of the database: the records before the kind's
        // first cannot match, so the walk stands on the last of them at
        // once (the start record itself when there is none in between).
        const TarnKey prefix(kind);
        const kvs_datum_t k{prefix.bytes, 4};
        (void)kvs_iterator_init(db, &k, 0);
    }
    return kvs_getnext(db, key, value) == 0;
}

bool walk_next(uint32_t ix, kvs_datum_t *key, kvs_datum_t *value)
{
    return kvs_getnext(clt_of(ix)->kvs, key, value) == 0;
}

bool past_prefix(const kvs_datum_t &key, const uint8_t *prefix, uint32_t n)
{
    const uint32_t m = key.len < n ? key.len : n;
    const int c = m != 0 ? memcmp(key.data, prefix, m) : 0;
    return c > 0;  // equal over a shorter key sorts before the prefix
}

bool before_kind(const kvs_datum_t &key, uint32_t kind)
{
    const TarnKey prefix(kind);
    const uint32_t m = key.len < 4 ? key.len : 4;
    const int c = m != 0 ? memcmp(key.data, prefix.bytes, m) : 0;
    return c < 0 || (c == 0 && key.len < 4);
}

bool past_kind(const kvs_datum_t &key, uint32_t kind)
{
    const uint8_t be[4] = {static_cast<uint8_t>(kind >> 24), static_cast<uint8_t>(kind >> 16),
                           static_cast<uint8_t>(kind >> 8), static_cast<uint8_t>(kind)};
    return past_prefix(key, be, sizeof be);
}

bool walk_to_end(const char *db, kvs_datum_t *key, kvs_datum_t *value)
{
    // Longer than any key the store holds (511 bytes at most): it is placed
    // on the last record.
    static const struct Last {
        uint8_t bytes[512];
        Last() { memset(bytes, 0xFF, sizeof bytes); }
    } last;
    const kvs_datum_t k{last.bytes, sizeof last.bytes};
    (void)kvs_iterator_init(db, &k, 0);
    return kvs_getnext(db, key, value) == 0;
}

}  // namespace tarn
