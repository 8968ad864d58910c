// Test helpers for the record catalogue: the expected descriptor rows of all
// 23 tables (written out from the records' documented layouts, not read
// back from the library), uniform access to each record's wrappers, and
// sample records with varied contents.
#ifndef TARN_TESTS_RECORD_CATALOGUE_H
#define TARN_TESTS_RECORD_CATALOGUE_H

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "platform/tlvkit.h"
#include "records/tarn_store_callbacks.h"

namespace rectest {

template <class F>
inline uintptr_t fn_addr(F *f)
{
    return reinterpret_cast<uintptr_t>(reinterpret_cast<void (*)()>(f));
}

struct row {
    uint32_t id, elem, off, kind;
    uintptr_t enc, dec, size, count;
    uint32_t total;
    const tlvkit_table_t *nested;
};

inline row V(uint32_t id, uint32_t off, uint32_t size)
{
    return {id, size, off, 1, 0, 0, 0, 0, size, nullptr};
}
inline row S(uint32_t id, uint32_t off)
{
    return {id, 1, off, 2, 0, 0, 0, 0, 33, nullptr};
}
inline row B(uint32_t id, uint32_t off, uint32_t size)
{
    return {id, 1, off, 3, 0, 0, 0, 0, size, nullptr};
}

struct expected_table {
    const char *table_name;
    const tlvkit_table_t *tbl;
    uint32_t struct_size;
    const char *type_name;
    uintptr_t init;
    std::vector<row> rows;
};

inline std::vector<expected_table> expected_tables()
{
    std::vector<expected_table> t;
    t.push_back({"tarn_store_if_data_tbl", &tarn_store_if_data_tbl, 88,
                 "tarn_store_if_data_t",
                 fn_addr(&tarn_store_if_data_default_init),
                 {V(1, 0, 4), V(2, 4, 4), V(3, 8, 4), S(4, 12), S(5, 45),
                  V(6, 80, 4), V(7, 84, 4)}});
    t.push_back({"tarn_store_svr_data_tbl", &tarn_store_svr_data_tbl, 16,
                 "tarn_store_svr_data_t",
                 fn_addr(&tarn_store_svr_data_default_init),
                 {V(1, 0, 4), V(2, 4, 4), V(3, 8, 4), V(4, 12, 4)}});
    t.push_back({"tarn_store_vrf_data_tbl", &tarn_store_vrf_data_tbl, 208,
                 "tarn_store_vrf_data_t",
                 fn_addr(&tarn_store_vrf_data_default_init),
                 {V(1, 0, 4),   V(2, 4, 4),   V(3, 8, 4),   V(4, 12, 4),
                  V(5, 16, 4),  V(6, 20, 4),  S(7, 24),     V(8, 60, 4),
                  V(9, 64, 4),  V(10, 68, 4), V(11, 72, 4), V(12, 76, 4),
                  V(13, 80, 4), S(14, 84),    V(15, 120, 4), V(16, 124, 4),
                  V(17, 128, 4), V(18, 132, 4), V(19, 136, 4), V(20, 140, 4),
                  S(21, 144),   V(22, 180, 8), V(23, 188, 8), V(24, 196, 8),
                  V(25, 204, 4)}});
    t.push_back({"tarn_table_info_tbl", &tarn_table_info_tbl, 56,
                 "tarn_table_info_t", fn_addr(&tarn_table_info_default_init),
                 {V(1, 0, 4), V(6, 52, 4), V(2, 4, 4), V(3, 8, 4),
                  V(4, 12, 4), S(5, 16)}});
    t.push_back({"tarn_context_info_tbl", &tarn_context_info_tbl, 44,
                 "tarn_context_info_t",
                 fn_addr(&tarn_context_info_default_init),
                 {V(1, 0, 4), V(2, 4, 4), S(3, 8)}});
    t.push_back({"tarn_vname_tbl", &tarn_vname_tbl, 33, "tarn_vname_t",
                 fn_addr(&tarn_vname_default_init), {S(1, 0)}});
    t.push_back({"tarn_tname_tbl", &tarn_tname_tbl, 44, "tarn_tname_t",
                 fn_addr(&tarn_tname_default_init), {S(1, 8)}});
    t.push_back({"tarn_if_table_info_tbl", &tarn_if_table_info_tbl, 56,
                 "tarn_if_table_info_t",
                 fn_addr(&tarn_if_table_data_default_init),
                 {V(0, 0, 4), V(1, 4, 4), V(2, 8, 4), V(3, 12, 4),
                  V(4, 16, 4), S(5, 20)}});
    t.push_back({"tarn_soo_info_tbl", &tarn_soo_info_tbl, 12,
                 "tarn_soo_info_t", fn_addr(&tarn_soo_info_default_init),
                 {V(1, 0, 4), V(2, 4, 8)}});
    t.push_back({"tarn_vpnid_info_tbl", &tarn_vpnid_info_tbl, 12,
                 "tarn_vpnid_info_t", fn_addr(&tarn_vpnid_info_default_init),
                 {V(1, 0, 4), V(2, 4, 4), V(3, 8, 4)}});
    t.push_back({"tarn_rt_limits_info_tbl", &tarn_rt_limits_info_tbl, 16,
                 "tarn_tib_rt_limits_t",
                 fn_addr(&tarn_rt_limits_info_default_init),
                 {V(1, 0, 4), V(2, 4, 4), V(3, 8, 4), V(4, 12, 1),
                  V(5, 13, 1)}});
    t.push_back({"tarn_as_format_tbl", &tarn_as_format_tbl, 4,
                 "tarn_as_format_t", fn_addr(&tarn_as_format_default_init),
                 {V(1, 0, 4)}});
    t.push_back({"tarn_store_data_tbl", &tarn_store_data_tbl, 24,
                 "tarn_store_data_t", fn_addr(&tarn_store_data_default_init),
                 {V(1, 0, 4), V(2, 4, 4),
                  {2, 16, 8, 8, fn_addr(&tarn_store_data_info_struct_to_tlv),
                   fn_addr(&tarn_store_data_info_tlv_to_struct),
                   fn_addr(&tarn_store_data_info_get_tlv_data_sz), 0, 16,
                   nullptr}}});
    t.push_back({"tarn_store_tib_data_tbl", &tarn_store_tib_data_tbl, 24,
                 "tarn_store_tib_data_t",
                 fn_addr(&tarn_store_tib_data_default_init),
                 {V(0, 0, 4), V(1, 4, 4), V(2, 8, 16)}});
    t.push_back({"tarn_tlv_if_data_tbl", &tarn_tlv_if_data_tbl, 84,
                 "tarn_tlv_if_data_t", fn_addr(&tarn_tlv_if_data_default_init),
                 {V(0, 0, 4), V(1, 4, 4), B(2, 8, 76)}});
    t.push_back({"tarn_store_if_kvs_data_tbl", &tarn_store_if_kvs_data_tbl, 4,
                 "tarn_store_if_kvs_data_t",
                 fn_addr(&tarn_store_if_kvs_data_default_init),
                 {V(1, 0, 4),
                  {2, 84, 4, 5, 0, 0, 0, fn_addr(&tarn_store_if_kvs_data_count),
                   0, &tarn_tlv_if_data_tbl}}});
    t.push_back({"tarn_store_cfg_tbl", &tarn_store_cfg_tbl, 4,
                 "tarn_store_cfg_t", 0,
                 {V(0, 0, 4),
                  {1, 0, 4, 8, fn_addr(&tarn_store_cfg_data_to_tlv),
                   fn_addr(&tarn_store_cfg_data_to_struct),
                   fn_addr(&tarn_store_cfg_tlv_data_sz), 0, 0, nullptr}}});
    t.push_back({"tarn_store_kvs_ctx_data_tbl", &tarn_store_kvs_ctx_data_tbl,
                 4, "tarn_store_kvs_ctx_data_t", 0,
                 {V(1, 0, 4),
                  {2, 1, 4, 5, 0, 0, 0,
                   fn_addr(&tarn_store_kvs_ctx_data_count), 0, nullptr}}});
    t.push_back({"gyre_tpg_vlan_info_tbl", &gyre_tpg_vlan_info_tbl, 556,
                 "gyre_tpg_vlan_info_t",
                 fn_addr(&gyre_tpg_vlan_info_default_init),
                 {V(0, 0, 4), V(1, 4, 33), V(2, 40, 516)}});
    t.push_back({"gyre_if_vlan_info_tbl", &gyre_if_vlan_info_tbl, 520,
                 "gyre_if_vlan_info_t",
                 fn_addr(&gyre_if_vlan_info_default_init),
                 {V(0, 0, 4), V(1, 4, 516)}});
    t.push_back({"gyre_ftag_info_tbl", &gyre_ftag_info_tbl, 12,
                 "gyre_ftag_info_t", fn_addr(&gyre_ftag_info_default_init),
                 {V(0, 0, 4), V(1, 4, 2), V(2, 6, 2), V(3, 8, 4)}});
    t.push_back({"gyre_kvs_vlan_info_tbl", &gyre_kvs_vlan_info_tbl, 44,
                 "gyre_kvs_vlan_info_t",
                 fn_addr(&gyre_kvs_vlan_info_default_init),
                 {V(0, 0, 4), V(1, 4, 4), V(2, 8, 33)}});
    t.push_back({"gyre_store_ftag_data_tbl", &gyre_store_ftag_data_tbl, 136,
                 "gyre_store_svr_ftag_data_t",
                 fn_addr(&gyre_store_ftag_data_default_init),
                 {V(1, 0, 132), V(2, 132, 4)}});
    return t;
}

// ---- uniform access to each record's wrappers ------------------------------

struct record_ops {
    const char *prefix;
    const tlvkit_table_t *tbl;
    uint32_t (*to_tlv)(const void *, void **, uint32_t *, uint32_t,
                       uint32_t *, uint32_t);
    uint32_t (*to_struct)(void **, const void *, uint32_t, uint32_t);
    int32_t (*get_struct_sz)(const void *);
    uint32_t (*get_tlv_sz)(const void *);
};

#define RECTEST_OPS(R, T, TBL)                                               \
    rectest::record_ops                                                      \
    {                                                                        \
        #R, &TBL,                                                            \
            [](const void *r, void **b, uint32_t *l, uint32_t a,             \
               uint32_t *w, uint32_t f) {                                    \
                return R##_to_tlv(static_cast<const T *>(r), b, l, a, w, f); \
            },                                                               \
            [](void **r, const void *t, uint32_t l, uint32_t f) {            \
                T *p = static_cast<T *>(*r);                                 \
                uint32_t e = R##_to_struct(&p, t, l, f);                     \
                *r = p;                                                      \
                return e;                                                    \
            },                                                               \
            [](const void *t) { return R##_get_struct_sz(t); },              \
            [](const void *r) {                                              \
                return R##_get_tlv_sz(static_cast<const T *>(r));            \
            },                                                               \
    }

inline std::vector<record_ops> all_ops()
{
    return {
        RECTEST_OPS(tarn_store_if_data, tarn_store_if_data_t, tarn_store_if_data_tbl),
        RECTEST_OPS(tarn_store_svr_data, tarn_store_svr_data_t, tarn_store_svr_data_tbl),
        RECTEST_OPS(tarn_store_vrf_data, tarn_store_vrf_data_t, tarn_store_vrf_data_tbl),
        RECTEST_OPS(tarn_table_info, tarn_table_info_t, tarn_table_info_tbl),
        RECTEST_OPS(tarn_context_info, tarn_context_info_t, tarn_context_info_tbl),
        RECTEST_OPS(tarn_vname, tarn_vname_t, tarn_vname_tbl),
        RECTEST_OPS(tarn_tname, tarn_tname_t, tarn_tname_tbl),
        RECTEST_OPS(tarn_if_table_info, tarn_if_table_info_t, tarn_if_table_info_tbl),
        RECTEST_OPS(tarn_soo_info, tarn_soo_info_t, tarn_soo_info_tbl),
        RECTEST_OPS(tarn_vpnid_info, tarn_vpnid_info_t, tarn_vpnid_info_tbl),
        RECTEST_OPS(tarn_rt_limits_info, tarn_tib_rt_limits_t, tarn_rt_limits_info_tbl),
        RECTEST_OPS(tarn_as_format, tarn_as_format_t, tarn_as_format_tbl),
        RECTEST_OPS(tarn_store_data, tarn_store_data_t, tarn_store_data_tbl),
        RECTEST_OPS(tarn_store_tib_data, tarn_store_tib_data_t, tarn_store_tib_data_tbl),
        RECTEST_OPS(tarn_tlv_if_data, tarn_tlv_if_data_t, tarn_tlv_if_data_tbl),
        RECTEST_OPS(tarn_store_if_kvs_data, tarn_store_if_kvs_data_t, tarn_store_if_kvs_data_tbl),
        RECTEST_OPS(tarn_store_cfg, tarn_store_cfg_t, tarn_store_cfg_tbl),
        RECTEST_OPS(tarn_store_kvs_ctx_data, tarn_store_kvs_ctx_data_t, tarn_store_kvs_ctx_data_tbl),
        RECTEST_OPS(gyre_tpg_vlan_info, gyre_tpg_vlan_info_t, gyre_tpg_vlan_info_tbl),
        RECTEST_OPS(gyre_if_vlan_info, gyre_if_vlan_info_t, gyre_if_vlan_info_tbl),
        RECTEST_OPS(gyre_ftag_info, gyre_ftag_info_t, gyre_ftag_info_tbl),
        RECTEST_OPS(gyre_kvs_vlan_info, gyre_kvs_vlan_info_t, gyre_kvs_vlan_info_tbl),
        RECTEST_OPS(gyre_store_svr_ftag_data, gyre_store_svr_ftag_data_t, gyre_store_ftag_data_tbl),
    };
}

// ---- sample records ---------------------------------------------------------

// Number of sample variants every record has.
constexpr int kVariants = 6;

inline void fill_string(uint8_t *dst, size_t cap, size_t n, std::mt19937 &rng)
{
    memset(dst, 0, cap);
    for (size_t i = 0; i < n && i + 1 < cap; ++i)
        dst[i] = static_cast<uint8_t>('a' + rng() % 26);
}

// A memory image of the record (its full in-memory size, variable parts
// included) whose fields vary with `variant`: 0 all zero, 1 one-character
// names and small values, 2 32-character names and all bits set, others
// random.  Bytes that are never carried stay zero, so a decode into zeroed
// memory reproduces the image exactly.
inline std::vector<uint8_t> sample(const tlvkit_table_t *tbl, int variant)
{
    std::mt19937 rng(1234u + static_cast<unsigned>(variant) * 7919u +
                     tbl->head.struct_size);
    std::string name = tbl->head.name;
    std::vector<uint8_t> m(tbl->head.struct_size, 0);
    auto word = [&](size_t off, uint32_t v) { memcpy(&m[off], &v, 4); };
    auto bytes_for = [&](uint8_t *p, size_t n) {
        for (size_t i = 0; i < n; ++i)
            p[i] = variant == 0   ? 0
                   : variant == 1 ? static_cast<uint8_t>(i == 0)
                   : variant == 2 ? 0xFF
                                  : static_cast<uint8_t>(rng());
    };
    if (name == "tarn_store_if_kvs_data_t") {
        const uint32_t n[kVariants] = {0, 1, 7, 2, 3, 1};
        m.resize(4 + n[variant] * 84u);
        word(0, n[variant]);
        bytes_for(m.data() + 4, n[variant] * 84u);
        return m;
    }
    if (name == "tarn_store_cfg_t") {
        const uint32_t n[kVariants] = {0, 1, 300, 5, 17, 64};
        m.resize(4 + n[variant]);
        word(0, n[variant]);
        bytes_for(m.data() + 4, n[variant]);
        return m;
    }
    if (name == "tarn_store_kvs_ctx_data_t") {
        const uint32_t n[kVariants] = {0, 1, 3, 2, 4, 1};
        m.resize(4 + n[variant] * 188u);
        word(0, n[variant]);
        bytes_for(m.data() + 4, n[variant] * 188u);
        return m;
    }
    if (name == "tarn_store_data_t") {
        // The stored format hands the union's first word back as the
        // selector, so a faithful round trip needs them equal.
        const uint32_t kinds[kVariants] = {0, 1, 2, 3, 4, 2};
        const uint32_t k = kinds[variant];
        word(0, variant == 0 ? 0 : static_cast<uint32_t>(rng()));
        word(4, k);
        if (k == 1) {
            word(8, 1);
            bytes_for(&m[12], 8);
        } else if (k == 2) {
            word(8, 2);
            bytes_for(&m[12], 8);
        } else if (k == 3) {
            word(8, 3);
            bytes_for(&m[12], 8);
            m[20] = static_cast<uint8_t>(variant * 3);
            m[21] = static_cast<uint8_t>(rng());
        }
        return m;
    }
    for (const tlvkit_field_t *f = tbl->fields; !TLVKIT_FIELD_IS_END(f); ++f) {
        uint8_t *p = m.data() + f->offset;
        if (f->kind == TLVKIT_KIND_STRING) {
            const size_t len = variant == 0   ? 0
                               : variant == 1 ? 1
                               : variant == 2 ? 32
                                              : rng() % 33;
            fill_string(p, f->total_size, len, rng);
        } else {
            bytes_for(p, f->total_size);
        }
    }
    return m;
}

inline std::vector<uint8_t> encode(const record_ops &op,
                                   const std::vector<uint8_t> &rec)
{
    void *buf = nullptr;
    uint32_t len = 0;
    if (op.to_tlv(rec.data(), &buf, &len, 0, nullptr, 0) != 0)
        return {};
    std::vector<uint8_t> out(static_cast<uint8_t *>(buf),
                             static_cast<uint8_t *>(buf) + len);
    free(buf);
    return out;
}

// Big-endian TLV builders for hand-made encodings.
inline void put_be32(std::vector<uint8_t> &v, uint32_t x)
{
    v.push_back(static_cast<uint8_t>(x >> 24));
    v.push_back(static_cast<uint8_t>(x >> 16));
    v.push_back(static_cast<uint8_t>(x >> 8));
    v.push_back(static_cast<uint8_t>(x));
}

inline std::vector<uint8_t> tlv(uint32_t type, const std::vector<uint8_t> &value)
{
    std::vector<uint8_t> v;
    put_be32(v, type);
    put_be32(v, static_cast<uint32_t>(value.size()));
    v.insert(v.end(), value.begin(), value.end());
    return v;
}

inline std::vector<uint8_t> u32le(uint32_t x)
{
    std::vector<uint8_t> v(4);
    memcpy(v.data(), &x, 4);
    return v;
}

inline std::vector<uint8_t> cat(std::initializer_list<std::vector<uint8_t>> parts)
{
    std::vector<uint8_t> v;
    for (const auto &p : parts)
        v.insert(v.end(), p.begin(), p.end());
    return v;
}

inline std::vector<uint8_t> envelope(const std::vector<uint8_t> &body)
{
    return tlv(TLVKIT_RECORD_TYPE, body);
}

inline std::vector<uint8_t> str(const char *s)
{
    return std::vector<uint8_t>(s, s + strlen(s) + 1);
}

}  // namespace rectest

#endif
