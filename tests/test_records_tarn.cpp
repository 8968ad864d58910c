// The Tarn record catalogue: descriptor tables as laid out on the device,
// default initialisers, wrappers, round trips and the store callbacks.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "record_catalogue.h"
#include "support/fixture.h"

using namespace rectest;

namespace {

class TarnRecords : public tarntest::HostTest {};

std::vector<uint32_t> expected_words(const expected_table &e)
{
    std::vector<uint32_t> w = {e.struct_size,
                               static_cast<uint32_t>(reinterpret_cast<uintptr_t>(e.tbl->head.name)),
                               static_cast<uint32_t>(e.init), 0};
    for (const row &r : e.rows) {
        const uint32_t words[12] = {
            r.id, r.elem, r.off, r.kind,
            static_cast<uint32_t>(r.enc), static_cast<uint32_t>(r.dec),
            static_cast<uint32_t>(r.size), static_cast<uint32_t>(r.count),
            0, r.total, 0xFFFFFFFFu,
            static_cast<uint32_t>(reinterpret_cast<uintptr_t>(r.nested))};
        w.insert(w.end(), words, words + 12);
    }
    const uint32_t term[12] = {0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0, 0, 0,
                               0, 0, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0};
    w.insert(w.end(), term, term + 12);
    return w;
}

TEST(RecordTables, EveryTableMatchesItsRows)
{
    const auto tables = expected_tables();
    ASSERT_EQ(23u, tables.size());
    for (const expected_table &e : tables) {
        SCOPED_TRACE(e.table_name);
        ASSERT_NE(nullptr, e.tbl->head.name);
        EXPECT_STREQ(e.type_name, e.tbl->head.name);
#if UINTPTR_MAX == 0xFFFFFFFFu
        // On the device: the table's bytes, word by word.
        const std::vector<uint32_t> want = expected_words(e);
        std::vector<uint32_t> got(want.size());
        memcpy(got.data(), e.tbl, got.size() * 4);
        ASSERT_EQ(16u + 48u * (e.rows.size() + 1), want.size() * 4);
        for (size_t i = 0; i < want.size(); ++i)
            EXPECT_EQ(want[i], got[i]) << "word " << i << " (byte " << i * 4 << ")";
#else
        (void)&expected_words;
        EXPECT_EQ(e.struct_size, e.tbl->head.struct_size);
        EXPECT_EQ(e.init, fn_addr(e.tbl->head.init));
        EXPECT_EQ(0u, e.tbl->head.reserved);
        for (size_t i = 0; i < e.rows.size(); ++i) {
            SCOPED_TRACE(i);
            const row &r = e.rows[i];
            const tlvkit_field_t &f = e.tbl->fields[i];
            EXPECT_EQ(r.id, f.type_id);
            EXPECT_EQ(r.elem, f.elem_size);
            EXPECT_EQ(r.off, f.offset);
            EXPECT_EQ(r.kind, f.kind);
            EXPECT_EQ(r.enc, fn_addr(f.encode));
            EXPECT_EQ(r.dec, fn_addr(f.decode));
            EXPECT_EQ(r.size, fn_addr(f.size));
            EXPECT_EQ(r.count, fn_addr(f.count));
            EXPECT_EQ(0u, f.reserved32);
            EXPECT_EQ(r.total, f.total_size);
            EXPECT_EQ(0xFFFFFFFFu, f.mark);
            EXPECT_EQ(r.nested, f.nested);
        }
        const tlvkit_field_t &t = e.tbl->fields[e.rows.size()];
        EXPECT_EQ(0xFFFFFFFFu, t.type_id);
        EXPECT_EQ(0xFFFFFFFFu, t.elem_size);
        EXPECT_EQ(0xFFFFFFFFu, t.offset);
        EXPECT_EQ(0u, t.kind);
        EXPECT_EQ(nullptr, reinterpret_cast<void *>(fn_addr(t.encode)));
        EXPECT_EQ(nullptr, reinterpret_cast<void *>(fn_addr(t.decode)));
        EXPECT_EQ(nullptr, reinterpret_cast<void *>(fn_addr(t.size)));
        EXPECT_EQ(nullptr, reinterpret_cast<void *>(fn_addr(t.count)));
        EXPECT_EQ(0xFFFFFFFFu, t.reserved32);
        EXPECT_EQ(0xFFFFFFFFu, t.total_size);
        EXPECT_EQ(0xFFFFFFFFu, t.mark);
        EXPECT_EQ(nullptr, t.nested);
#endif
    }
}

// ---- default initialisers -----------------------------------------------

TEST(TarnDefaults, NullRecordIsAcceptedAndReturnsZero)
{
    EXPECT_EQ(0u, tarn_store_if_data_default_init(nullptr));
    EXPECT_EQ(0u, tarn_store_svr_data_default_init(nullptr));
    EXPECT_EQ(0u, tarn_store_vrf_data_default_init(nullptr));
    EXPECT_EQ(0u, tarn_table_info_default_init(nullptr));
    EXPECT_EQ(0u, tarn_context_info_default_init(nullptr));
    EXPECT_EQ(0u, tarn_vname_default_init(nullptr));
    EXPECT_EQ(0u, tarn_tname_default_init(nullptr));
    EXPECT_EQ(0u, tarn_if_table_data_default_init(nullptr));
    EXPECT_EQ(0u, tarn_soo_info_default_init(nullptr, 12));
    EXPECT_EQ(0u, tarn_vpnid_info_default_init(nullptr, 12));
    EXPECT_EQ(0u, tarn_rt_limits_info_default_init(nullptr, 16));
    EXPECT_EQ(0u, tarn_as_format_default_init(nullptr, 4));
    EXPECT_EQ(0u, tarn_store_data_default_init(nullptr, 24));
    EXPECT_EQ(0u, tarn_store_tib_data_default_init(nullptr, 24));
    EXPECT_EQ(0u, tarn_tlv_if_data_default_init(nullptr));
    EXPECT_EQ(0u, tarn_store_if_kvs_data_default_init(nullptr));
}

TEST(TarnDefaults, StoreIfDataKeepsBothStrings)
{
    tarn_store_if_data_t r;
    memset(&r, 0xAB, sizeof r);
    EXPECT_EQ(0u, tarn_store_if_data_default_init(&r));
    EXPECT_EQ(0u, r.w0);
    EXPECT_EQ(0u, r.w1);
    EXPECT_EQ(0u, r.w2);
    EXPECT_EQ(0u, r.w3);
    EXPECT_EQ(0u, r.w4);
    for (uint8_t c : std::vector<uint8_t>(r.s0, r.s0 + 33))
        EXPECT_EQ(0xAB, c);
    for (uint8_t c : std::vector<uint8_t>(r.s1, r.s1 + 33))
        EXPECT_EQ(0xAB, c);
}

TEST(TarnDefaults, StoreSvrDataKeepsItsId3Word)
{
    tarn_store_svr_data_t r;
    memset(&r, 0x5C, sizeof r);
    tarn_store_svr_data_default_init(&r);
    EXPECT_EQ(0u, r.w0);
    EXPECT_EQ(0u, r.w1);
    EXPECT_EQ(0x5C5C5C5Cu, r.w2);
    EXPECT_EQ(0u, r.w3);
}

TEST(TarnDefaults, VrfDataAndIfTableInfoDefaultToOneInTheirMarkedWord)
{
    tarn_store_vrf_data_t v;
    memset(&v, 0x77, sizeof v);
    tarn_store_vrf_data_default_init(&v);
    tarn_store_vrf_data_t want;
    memset(&want, 0, sizeof want);
    want.w3 = 1;  // id 4
    EXPECT_EQ(0, memcmp(&want, &v, sizeof v));

    tarn_if_table_info_t t;
    memset(&t, 0x77, sizeof t);
    tarn_if_table_data_default_init(&t);
    EXPECT_EQ(0u, t.w0);
    EXPECT_EQ(0u, t.w1);
    EXPECT_EQ(1u, t.w2);  // id 2
    EXPECT_EQ(0u, t.w3);
    EXPECT_EQ(0x77777777u, t.w4);  // id 4: not written
    EXPECT_EQ('\0', t.name[0]);
    EXPECT_EQ(0x77, static_cast<uint8_t>(t.name[1]));
}

TEST(TarnDefaults, OtherNumericDefaultsAreZero)
{
    tarn_table_info_t ti;
    memset(&ti, 0x33, sizeof ti);
    tarn_table_info_default_init(&ti);
    EXPECT_EQ(0u, ti.context_id);
    EXPECT_EQ(0u, ti.w1);
    EXPECT_EQ(0u, ti.w2);
    EXPECT_EQ(0u, ti.w3);
    EXPECT_EQ(0u, ti.tpg_id);
    EXPECT_EQ('\0', ti.name[0]);

    uint8_t raw[44];
    memset(raw, 0x44, sizeof raw);
    tarn_context_info_default_init(reinterpret_cast<tarn_context_info_t *>(raw));
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(0, raw[i]) << i;
    for (int i = 9; i < 44; ++i)
        EXPECT_EQ(0x44, raw[i]) << i;

    tarn_vname_t vn;
    memset(&vn, 0x41, sizeof vn);
    tarn_vname_default_init(&vn);
    EXPECT_EQ('\0', vn.name[0]);
    EXPECT_EQ('A', vn.name[1]);

    uint8_t tn[44];
    memset(tn, 0x41, sizeof tn);
    tarn_tname_default_init(reinterpret_cast<tarn_tname_t *>(tn));
    for (int i = 0; i < 44; ++i)
        EXPECT_EQ(i == 8 ? 0 : 0x41, tn[i]) << i;
}

TEST(TarnDefaults, ByteCountInitialisersZeroExactlyThatMany)
{
    uint8_t raw[32];
    struct zc {
        uint32_t (*fn)(void *, uint32_t);
        uint32_t size;
    };
    const zc all[] = {
        {[](void *r, uint32_t n) { return tarn_soo_info_default_init(static_cast<tarn_soo_info_t *>(r), n); }, 12},
        {[](void *r, uint32_t n) { return tarn_vpnid_info_default_init(static_cast<tarn_vpnid_info_t *>(r), n); }, 12},
        {[](void *r, uint32_t n) { return tarn_rt_limits_info_default_init(static_cast<tarn_tib_rt_limits_t *>(r), n); }, 16},
        {[](void *r, uint32_t n) { return tarn_as_format_default_init(static_cast<tarn_as_format_t *>(r), n); }, 4},
        {[](void *r, uint32_t n) { return tarn_store_data_default_init(static_cast<tarn_store_data_t *>(r), n); }, 24},
        {[](void *r, uint32_t n) { return tarn_store_tib_data_default_init(static_cast<tarn_store_tib_data_t *>(r), n); }, 24},
    };
    for (const zc &z : all) {
        for (uint32_t n : {0u, 3u, z.size}) {
            memset(raw, 0xEE, sizeof raw);
            EXPECT_EQ(0u, z.fn(raw, n));
            for (uint32_t i = 0; i < sizeof raw; ++i)
                EXPECT_EQ(i < n ? 0 : 0xEE, raw[i]) << z.size << "/" << n << "@" << i;
        }
    }
}

TEST(TarnDefaults, NothingWrittenByTheTwoSilentInitialisers)
{
    tarn_tlv_if_data_t d;
    memset(&d, 0x19, sizeof d);
    tarn_tlv_if_data_default_init(&d);
    uint8_t want[sizeof d];
    memset(want, 0x19, sizeof want);
    EXPECT_EQ(0, memcmp(want, &d, sizeof d));
    uint8_t k[4 + 84];
    memset(k, 0x19, sizeof k);
    tarn_store_if_kvs_data_default_init(reinterpret_cast<tarn_store_if_kvs_data_t *>(k));
    EXPECT_EQ(0, memcmp(want, k, sizeof want < sizeof k ? sizeof want : sizeof k));
}

// ---- encodings ----------------------------------------------------------

std::vector<uint32_t> field_ids(const std::vector<uint8_t> &enc)
{
    std::vector<uint32_t> ids;
    const void *body = nullptr;
    uint32_t pos = 0, type = 0, len = 0;
    if (tlv_array_get_next_tlv(enc.data(), static_cast<uint32_t>(enc.size()), &pos,
                               &type, &body, &len) != 0 ||
        type != TLVKIT_RECORD_TYPE)
        return ids;
    uint32_t p = 0, t = 0, l = 0;
    const void *v = nullptr;
    while (tlv_array_get_next_tlv(body, len, &p, &t, &v, &l) == 0)
        ids.push_back(t);
    return ids;
}

TEST_F(TarnRecords, TableInfoEmitsId6Second)
{
    tarn_table_info_t r;
    memset(&r, 0, sizeof r);
    r.context_id = 7;
    r.tpg_id = 0xC0000005u;
    strcpy(r.name, "main");
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, tarn_table_info_to_tlv(&r, &buf, &len, 0, nullptr, 0));
    std::vector<uint8_t> enc(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    free(buf);
    EXPECT_EQ((std::vector<uint32_t>{1, 6, 2, 3, 4, 5}), field_ids(enc));
    const std::vector<uint8_t> want = envelope(cat(
        {tlv(1, u32le(7)), tlv(6, u32le(0xC0000005u)), tlv(2, u32le(0)),
         tlv(3, u32le(0)), tlv(4, u32le(0)), tlv(5, str("main"))}));
    EXPECT_EQ(want, enc);
    EXPECT_EQ(want.size(), tarn_table_info_get_tlv_sz(&r));
}

TEST_F(TarnRecords, TnameNeverCarriesItsFirstEightBytes)
{
    tarn_tname_t r;
    memset(&r, 0, sizeof r);
    r.unused[0] = 0xDEADBEEFu;
    r.unused[1] = 0xFEEDFACEu;
    strcpy(r.name, "t1");
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, tarn_tname_to_tlv(&r, &buf, &len, 0, nullptr, 0));
    std::vector<uint8_t> enc(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    free(buf);
    EXPECT_EQ(envelope(tlv(1, str("t1"))), enc);
    tarn_tname_t out;
    memset(&out, 0, sizeof out);
    tarn_tname_t *p = &out;
    ASSERT_EQ(0u, tarn_tname_to_struct(&p, enc.data(), len, 1));
    EXPECT_EQ(0u, out.unused[0]);
    EXPECT_EQ(0u, out.unused[1]);
    EXPECT_STREQ("t1", out.name);
}

TEST_F(TarnRecords, StringsEncodeUpToTheirTerminatorAndDecodeZeroFilled)
{
    tarn_context_info_t r;
    memset(&r, 'x', sizeof r);
    r.state = 2;
    r.reason = 0;
    memcpy(r.name, "ab\0garbage", 10);
    const uint32_t sz = tarn_context_info_get_tlv_sz(&r);
    EXPECT_EQ(8u + 12u + 12u + 8u + 3u, sz);
    void *buf = nullptr;
    uint32_t len = 0, b = 0;
    ASSERT_EQ(0u, tarn_context_info_to_tlv(&r, &buf, &len, 0, &b, 0));
    EXPECT_EQ(sz, len);
    EXPECT_EQ(len, b);
    tarn_context_info_t out;
    memset(&out, 'y', sizeof out);
    tarn_context_info_t *p = &out;
    ASSERT_EQ(0u, tarn_context_info_to_struct(&p, buf, len, 1));
    free(buf);
    EXPECT_EQ(&out, p);
    EXPECT_EQ(2u, out.state);
    EXPECT_EQ(0u, out.reason);
    EXPECT_STREQ("ab", out.name);
    for (int i = 2; i < TARN_NAME_SIZE; ++i)
        EXPECT_EQ('\0', out.name[i]) << i;

    // A name that fills the array without a terminator is cut at 32.
    memset(r.name, 'q', sizeof r.name);
    ASSERT_EQ(0u, tarn_context_info_to_tlv(&r, &buf, &len, 0, nullptr, 0));
    p = &out;
    ASSERT_EQ(0u, tarn_context_info_to_struct(&p, buf, len, 1));
    free(buf);
    EXPECT_EQ(std::string(32, 'q'), std::string(out.name));
}

TEST_F(TarnRecords, EveryRecordRoundTripsWithVariedContents)
{
    for (const record_ops &op : all_ops()) {
        for (int v = 0; v < kVariants; ++v) {
            SCOPED_TRACE(std::string(op.prefix) + " variant " + std::to_string(v));
            const std::vector<uint8_t> rec = sample(op.tbl, v);
            const std::vector<uint8_t> enc = encode(op, rec);
            ASSERT_FALSE(enc.empty());
            EXPECT_LE(enc.size(), op.get_tlv_sz(rec.data()));
            // The in-memory size the encoding needs.
            EXPECT_EQ(static_cast<int32_t>(rec.size()), op.get_struct_sz(enc.data()));
            // Allocated by the library.
            void *out = nullptr;
            ASSERT_EQ(0u, op.to_struct(&out, enc.data(), static_cast<uint32_t>(enc.size()), 0));
            ASSERT_NE(nullptr, out);
            EXPECT_EQ(0, memcmp(rec.data(), out, rec.size()));
            free(out);
            // Into the caller's record of exactly that size.
            std::vector<uint8_t> mine(rec.size(), 0);
            void *dst = mine.data();
            ASSERT_EQ(0u, op.to_struct(&dst, enc.data(), static_cast<uint32_t>(enc.size()), 1));
            EXPECT_EQ(mine.data(), dst);
            EXPECT_EQ(rec, mine);
        }
    }
    EXPECT_TRUE(tarntest::captured(TARNHOST_CH_ERROR).empty());
}

TEST_F(TarnRecords, ToTlvIntoTheCallersBufferEndsAtTheBufferEnd)
{
    tarn_vpnid_info_t r = {1, 2, 3};
    const uint32_t need = tarn_vpnid_info_get_tlv_sz(&r);
    ASSERT_EQ(8u + 3u * 12u, need);
    std::vector<uint8_t> buf(need + 10, 0xA5);
    void *p = buf.data();
    uint32_t len = static_cast<uint32_t>(buf.size());
    uint32_t b = 0;
    ASSERT_EQ(0u, tarn_vpnid_info_to_tlv(&r, &p, &len, 0, &b, 1));
    EXPECT_EQ(buf.data(), p);
    EXPECT_EQ(need, len);
    EXPECT_EQ(need, b);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(0xA5, buf[i]);
    const std::vector<uint8_t> want = envelope(cat({tlv(1, u32le(1)), tlv(2, u32le(2)), tlv(3, u32le(3))}));
    EXPECT_EQ(want, std::vector<uint8_t>(buf.begin() + 10, buf.end()));

    // One byte short: refused, and the error is printed.
    len = need - 1;
    EXPECT_EQ(TLVKIT_ERR_SPACE, tarn_vpnid_info_to_tlv(&r, &p, &len, 0, nullptr, 1));
    EXPECT_EQ(std::vector<std::string>{"tarn_vpnid_info_to_tlv: ERR 0x740b"},
              tarntest::captured(TARNHOST_CH_ERROR));
}

TEST_F(TarnRecords, GetStructSzRejectsWithMinusOneAndOneErrLine)
{
    // An envelope whose field header is cut short.
    const std::vector<uint8_t> bad = cat({envelope({0, 0, 0}), {0}});
    EXPECT_EQ(-1, tarn_context_info_get_struct_sz(bad.data()));
    EXPECT_EQ(std::vector<std::string>{"tarn_context_info_get_struct_sz: ERR 0x7403"},
              tarntest::captured(TARNHOST_CH_ERROR));
    tarnhost_capture_clear();
    const std::vector<uint8_t> notrec = tlv(5, {1, 2, 3, 4});
    EXPECT_EQ(-1, tarn_store_if_data_get_struct_sz(notrec.data()));
    EXPECT_EQ(std::vector<std::string>{"tarn_store_if_data_get_struct_sz: ERR 0x7404"},
              tarntest::captured(TARNHOST_CH_ERROR));
}

TEST_F(TarnRecords, ToStructFailurePrintsItsOwnNameAndReturnsTheCode)
{
    const std::vector<uint8_t> enc = envelope(tlv(1, {1, 2, 3}));  // 3 bytes for a u32
    tarn_as_format_t r = {0};
    tarn_as_format_t *p = &r;
    EXPECT_EQ(TLVKIT_ERR_LENGTH, tarn_as_format_to_struct(&p, enc.data(), static_cast<uint32_t>(enc.size()), 1));
    EXPECT_EQ(std::vector<std::string>{"tarn_as_format_to_struct: ERR 0x7405"},
              tarntest::captured(TARNHOST_CH_ERROR));
    tarnhost_capture_clear();
    EXPECT_EQ(TLVKIT_ERR_NULL, tarn_as_format_to_tlv(&r, nullptr, nullptr, 0, nullptr, 0));
    EXPECT_EQ(std::vector<std::string>{"tarn_as_format_to_tlv: ERR 0x7402"},
              tarntest::captured(TARNHOST_CH_ERROR));
}

TEST_F(TarnRecords, FieldIteratorAndGetFieldUseTheRecordsTable)
{
    tarn_context_info_t r;
    memset(&r, 0, sizeof r);
    r.state = 1;
    r.reason = 4;
    strcpy(r.name, "blue");
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, tarn_context_info_to_tlv(&r, &buf, &len, 0, nullptr, 0));
    const void *v = nullptr;
    uint32_t vlen = 0;
    ASSERT_EQ(0u, tarn_context_info_get_field(buf, len, 3, &v, &vlen));
    EXPECT_EQ(5u, vlen);
    EXPECT_STREQ("blue", static_cast<const char *>(v));
    EXPECT_EQ(TLVKIT_ERR_END, tarn_context_info_get_field(buf, len, 9, &v, &vlen));

    tarn_context_info_t out;
    memset(&out, 0, sizeof out);
    tlvkit_field_itr_t it;
    ASSERT_EQ(0u, tarn_context_info_field_itr_init(&it, buf, len, &out, 0));
    tlvkit_field_value_t fv;
    std::vector<uint32_t> ids;
    uint32_t rc;
    while ((rc = tarn_context_info_field_get_next(&it, &fv)) == 0) {
        ids.push_back(fv.type_id);
        ASSERT_NE(nullptr, fv.field);
        EXPECT_EQ(fv.type_id, fv.field->type_id);
    }
    EXPECT_EQ(TLVKIT_ERR_END, rc);
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), ids);
    EXPECT_EQ(0, memcmp(&r, &out, sizeof r));
    free(buf);
}

// ---- variable-length store records --------------------------------------

TEST(TarnStoreCallbacks, EmptyCfgEncodesInPlaceWithLengthZero)
{
    uint8_t raw[8] = {0};
    void *data = nullptr;
    uint32_t len = 99, alloc = 99;
    ASSERT_EQ(0u, tarn_store_cfg_data_to_tlv(raw, 0, &data, &len, &alloc));
    EXPECT_EQ(raw + 4, data);
    EXPECT_EQ(0u, len);
    EXPECT_EQ(0u, alloc);
    EXPECT_EQ(0u, tarn_store_cfg_tlv_data_sz(raw));
    EXPECT_EQ(73u, tarn_store_cfg_data_to_tlv(raw, 0, nullptr, &len, &alloc));
    EXPECT_EQ(73u, tarn_store_cfg_data_to_tlv(raw, 0, &data, nullptr, &alloc));
    EXPECT_EQ(73u, tarn_store_cfg_data_to_tlv(raw, 0, &data, &len, nullptr));
    EXPECT_EQ(8u + 12u + 8u, tarn_empty_store_cfg_get_tlv_size());
}

TEST(TarnStoreCallbacks, CfgDecodeCopiesExactlyTheGivenBytes)
{
    uint8_t rec[12];
    memset(rec, 0xCC, sizeof rec);
    const uint8_t data[3] = {1, 2, 3};
    EXPECT_EQ(73u, tarn_store_cfg_data_to_struct(rec, nullptr, 3));
    ASSERT_EQ(0u, tarn_store_cfg_data_to_struct(rec, data, 3));
    const uint8_t want[12] = {0xCC, 0xCC, 0xCC, 0xCC, 1, 2, 3, 0xCC, 0xCC, 0xCC, 0xCC, 0xCC};
    EXPECT_EQ(0, memcmp(want, rec, sizeof rec));
}

TEST(TarnStoreCallbacks, StoreDataWithoutSubRecordCarriesNothing)
{
    for (uint32_t kind : {0u, 4u, 0xFFFFFFFFu}) {
        tarn_store_data_t r;
        memset(&r, 0x11, sizeof r);
        r.kind = kind;
        void *data = &r;
        uint32_t len = 99, alloc = 99;
        ASSERT_EQ(0u, tarn_store_data_info_struct_to_tlv(&r, 0, &data, &len, &alloc));
        EXPECT_EQ(nullptr, data);
        EXPECT_EQ(0u, len);
        EXPECT_EQ(0u, alloc);
        EXPECT_EQ(4u, tarn_store_data_info_get_tlv_data_sz(&r));
    }
}

TEST_F(TarnRecords, StoreDataKind2EncodesVpnIdRecordPlusFourInAnAllocatedBuffer)
{
    tarn_store_data_t r;
    memset(&r, 0, sizeof r);
    r.w0 = 9;
    r.kind = 2;
    r.u.vpnid.w0 = 0x01020304u;
    r.u.vpnid.w1 = 5;
    r.u.vpnid.w2 = 6;
    const uint32_t sub = tarn_vpnid_info_get_tlv_sz(&r.u.vpnid);
    EXPECT_EQ(sub + 4, tarn_store_data_info_get_tlv_data_sz(&r));
    void *data = nullptr;
    uint32_t len = 0, alloc = 0;
    ASSERT_EQ(0u, tarn_store_data_info_struct_to_tlv(&r, 0, &data, &len, &alloc));
    EXPECT_EQ(1u, alloc);
    EXPECT_EQ(sub + 4, len);
    const uint8_t *d = static_cast<const uint8_t *>(data);
    // Prefix: the union's first word, not the selector.
    uint32_t prefix;
    memcpy(&prefix, d, 4);
    EXPECT_EQ(0x01020304u, prefix);
    // The sub-record follows the prefix whole.
    const std::vector<uint8_t> subenc = envelope(cat({tlv(1, u32le(0x01020304u)), tlv(2, u32le(5)), tlv(3, u32le(6))}));
    EXPECT_EQ(subenc, std::vector<uint8_t>(d + 4, d + len));
    free(data);

    // Without memory the callback answers 1.
    tarnhost_fault_set("tlvkit_malloc", 1, 1);
    EXPECT_EQ(1u, tarn_store_data_info_struct_to_tlv(&r, 0, &data, &len, &alloc));
    EXPECT_EQ(73u, tarn_store_data_info_struct_to_tlv(&r, 0, nullptr, &len, &alloc));
}

TEST_F(TarnRecords, StoreDataDecodeWithOtherSelectorLeavesUnion)
{
    tarn_store_data_t r;
    memset(&r, 0x3D, sizeof r);
    const std::vector<uint8_t> data = cat({u32le(7), envelope(tlv(1, u32le(1)))});
    ASSERT_EQ(0u, tarn_store_data_info_tlv_to_struct(&r, data.data(), static_cast<uint32_t>(data.size())));
    EXPECT_EQ(7u, r.kind);
    EXPECT_EQ(0x3D3D3D3Du, r.w0);
    for (size_t i = 0; i < sizeof r.u; ++i)
        EXPECT_EQ(0x3D, reinterpret_cast<const uint8_t *>(&r.u)[i]);
    EXPECT_EQ(73u, tarn_store_data_info_tlv_to_struct(&r, nullptr, 4));
    EXPECT_EQ(73u, tarn_store_data_info_tlv_to_struct(nullptr, data.data(), 4));
    // Too short for the selector word: treated as no data.
    EXPECT_EQ(73u, tarn_store_data_info_tlv_to_struct(&r, data.data(), 3));
}

TEST_F(TarnRecords, StoreDataDecodeKind3FillsTheRouteLimits)
{
    tarn_store_data_t r;
    memset(&r, 0, sizeof r);
    const std::vector<uint8_t> data = cat({u32le(3), envelope(cat({tlv(1, u32le(100)), tlv(3, u32le(300)), tlv(4, {1}), tlv(5, {0})}))});
    ASSERT_EQ(0u, tarn_store_data_info_tlv_to_struct(&r, data.data(), static_cast<uint32_t>(data.size())));
    EXPECT_EQ(3u, r.kind);
    EXPECT_EQ(100u, r.u.rt_limits.limit1);
    EXPECT_EQ(0u, r.u.rt_limits.limit2);
    EXPECT_EQ(300u, r.u.rt_limits.limit3);
    EXPECT_EQ(1u, r.u.rt_limits.setting1);
    // An inner failure is printed by the wrapper and otherwise ignored.
    const std::vector<uint8_t> bad = cat({u32le(1), envelope(tlv(2, {1, 2}))});
    EXPECT_EQ(0u, tarn_store_data_info_tlv_to_struct(&r, bad.data(), static_cast<uint32_t>(bad.size())));
    EXPECT_EQ(1u, r.kind);
    EXPECT_EQ(std::vector<std::string>{"tarn_soo_info_to_struct: ERR 0x7405"},
              tarntest::captured(TARNHOST_CH_ERROR));
}

TEST_F(TarnRecords, StoreDataPrefixWordBecomesTheSelector)
{
    // The stored format's asymmetry: the union's first word comes back as
    // the selector.
    tarn_store_data_t r;
    memset(&r, 0, sizeof r);
    r.kind = 1;
    r.u.soo.word = 2;
    r.u.soo.soo = 0x1122334455667788ull;
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, tarn_store_data_to_tlv(&r, &buf, &len, 0, nullptr, 0));
    tarn_store_data_t *out = nullptr;
    ASSERT_EQ(0u, tarn_store_data_to_struct(&out, buf, len, 0));
    free(buf);
    EXPECT_EQ(2u, out->kind);
    // The soo encoding is then read as a VPN id record: id 1 lands in the
    // first word, the 8-byte value of id 2 is refused as a VPN word.
    EXPECT_EQ(2u, out->u.vpnid.w0);
    free(out);
    EXPECT_EQ(std::vector<std::string>{"tarn_vpnid_info_to_struct: ERR 0x7405"},
              tarntest::captured(TARNHOST_CH_ERROR));
}

TEST_F(TarnRecords, KvsCtxDataCarriesRawBytes)
{
    for (uint32_t count : {2u, 3u}) {
        std::vector<uint8_t> rec(4 + count * 188u);
        for (size_t i = 0; i < rec.size(); ++i)
            rec[i] = static_cast<uint8_t>(i * 13);
        memcpy(rec.data(), &count, 4);
        void *buf = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(0u, tarn_store_kvs_ctx_data_to_tlv(reinterpret_cast<tarn_store_kvs_ctx_data_t *>(rec.data()), &buf, &len, 0, nullptr, 0));
        const void *v = nullptr;
        uint32_t vlen = 0;
        ASSERT_EQ(0u, tarn_store_kvs_ctx_data_get_field(buf, len, 2, &v, &vlen));
        EXPECT_EQ(count * 188u, vlen);  // 376 and 564
        EXPECT_EQ(0, memcmp(rec.data() + 4, v, vlen));
        free(buf);
    }
    EXPECT_EQ(0u, tarn_store_kvs_ctx_data_count(nullptr));
    EXPECT_EQ(0u, tarn_store_if_kvs_data_count(nullptr));
    const uint32_t three = 3;
    EXPECT_EQ(564u, tarn_store_kvs_ctx_data_count(&three));
    EXPECT_EQ(3u, tarn_store_if_kvs_data_count(&three));
}

TEST_F(TarnRecords, IfKvsDataNestsFullRecords)
{
    std::vector<uint8_t> rec(4 + 2 * 84, 0);
    const uint32_t n = 2;
    memcpy(rec.data(), &n, 4);
    tarn_tlv_if_data_t *e = reinterpret_cast<tarn_tlv_if_data_t *>(rec.data() + 4);
    e[0].w0 = 10;
    e[1].w1 = 20;
    e[1].bytes[75] = 0xEE;
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, tarn_store_if_kvs_data_to_tlv(reinterpret_cast<tarn_store_if_kvs_data_t *>(rec.data()), &buf, &len, 0, nullptr, 0));
    auto elem = [](const tarn_tlv_if_data_t &x) {
        return envelope(cat({tlv(0, u32le(x.w0)), tlv(1, u32le(x.w1)),
                             tlv(2, std::vector<uint8_t>(x.bytes, x.bytes + 76))}));
    };
    const std::vector<uint8_t> want = envelope(cat({tlv(1, u32le(2)), tlv(2, cat({elem(e[0]), elem(e[1])}))}));
    EXPECT_EQ(want, std::vector<uint8_t>(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len));
    EXPECT_EQ(4 + 2 * 84, tarn_store_if_kvs_data_get_struct_sz(buf));
    free(buf);
}

TEST_F(TarnRecords, CountThatDisagreesWithTheArrayIsRefused)
{
    // Count word 2, one element carried.
    const std::vector<uint8_t> one = envelope(cat({tlv(0, u32le(0)), tlv(1, u32le(0)), tlv(2, std::vector<uint8_t>(76, 0))}));
    const std::vector<uint8_t> enc = envelope(cat({tlv(1, u32le(2)), tlv(2, one)}));
    tarn_store_if_kvs_data_t *out = nullptr;
    EXPECT_EQ(TLVKIT_ERR_COUNT, tarn_store_if_kvs_data_to_struct(&out, enc.data(), static_cast<uint32_t>(enc.size()), 0));
    EXPECT_EQ(nullptr, out);
    // Count word after the array, promising more than arrived.
    const std::vector<uint8_t> late = envelope(cat({tlv(2, {}), tlv(1, u32le(5))}));
    tarn_store_kvs_ctx_data_t *k = nullptr;
    EXPECT_EQ(TLVKIT_ERR_COUNT, tarn_store_kvs_ctx_data_to_struct(&k, late.data(), static_cast<uint32_t>(late.size()), 0));
    EXPECT_EQ(nullptr, k);
    // A cfg length word that promises more bytes than arrived.
    const std::vector<uint8_t> cfg = envelope(cat({tlv(0, u32le(100)), tlv(1, {1, 2, 3})}));
    tarn_store_cfg_t *c = nullptr;
    EXPECT_EQ(TLVKIT_ERR_LENGTH, tarn_store_cfg_to_struct(&c, cfg.data(), static_cast<uint32_t>(cfg.size()), 0));
    EXPECT_EQ(nullptr, c);
    EXPECT_EQ((std::vector<std::string>{"tarn_store_if_kvs_data_to_struct: ERR 0x7407",
                                        "tarn_store_kvs_ctx_data_to_struct: ERR 0x7407",
                                        "tarn_store_cfg_to_struct: ERR 0x7405"}),
              tarntest::captured(TARNHOST_CH_ERROR));
}

TEST_F(TarnRecords, StoreDataSelectorAndUnionShareId2)
{
    tarn_store_data_t r;
    memset(&r, 0, sizeof r);
    r.w0 = 0xABCD;
    r.kind = 2;
    r.u.vpnid = {2, 7, 8};
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, tarn_store_data_to_tlv(&r, &buf, &len, 0, nullptr, 0));
    std::vector<uint8_t> enc(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 2}), field_ids(enc));
    EXPECT_EQ(len, tarn_store_data_get_tlv_sz(&r));
    tarn_store_data_t out;
    memset(&out, 0, sizeof out);
    tarn_store_data_t *p = &out;
    ASSERT_EQ(0u, tarn_store_data_to_struct(&p, buf, len, 1));
    free(buf);
    EXPECT_EQ(0, memcmp(&r, &out, sizeof r));

    // Kind 4: no union on the wire; the selector comes from the first id 2.
    memset(&r, 0, sizeof r);
    r.kind = 4;
    r.u.vpnid = {1, 1, 1};
    ASSERT_EQ(0u, tarn_store_data_to_tlv(&r, &buf, &len, 0, nullptr, 0));
    enc.assign(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    EXPECT_EQ((std::vector<uint32_t>{1, 2}), field_ids(enc));
    memset(&out, 0x55, sizeof out);
    p = &out;
    ASSERT_EQ(0u, tarn_store_data_to_struct(&p, buf, len, 1));
    free(buf);
    EXPECT_EQ(4u, out.kind);
    EXPECT_EQ(0x55555555u, out.u.vpnid.w0);
}

TEST_F(TarnRecords, AllocationFailuresAreReported)
{
    tarn_context_info_t r;
    memset(&r, 0, sizeof r);
    void *buf = nullptr;
    uint32_t len = 0;
    tarnhost_fault_set("tlvkit_malloc", 1, 1);
    EXPECT_EQ(TLVKIT_ERR_NOMEM, tarn_context_info_to_tlv(&r, &buf, &len, 0, nullptr, 0));
    ASSERT_EQ(0u, tarn_context_info_to_tlv(&r, &buf, &len, 0, nullptr, 0));
    tarn_context_info_t *out = nullptr;
    tarnhost_fault_set("tlvkit_malloc", 1, 1);
    EXPECT_EQ(TLVKIT_ERR_NOMEM, tarn_context_info_to_struct(&out, buf, len, 0));
    EXPECT_EQ(nullptr, out);
    free(buf);
    // The store data callback's allocation failing fails the encode.
    tarn_store_data_t sd;
    memset(&sd, 0, sizeof sd);
    sd.kind = 1;
    buf = nullptr;
    std::vector<uint8_t> big(200);
    buf = big.data();
    len = static_cast<uint32_t>(big.size());
    tarnhost_fault_set("tlvkit_malloc", 1, 1);
    EXPECT_EQ(TLVKIT_ERR_NOMEM, tarn_store_data_to_tlv(&sd, &buf, &len, 0, nullptr, 1));
    EXPECT_EQ((std::vector<std::string>{"tarn_context_info_to_tlv: ERR 0x740a",
                                        "tarn_context_info_to_struct: ERR 0x740a",
                                        "tarn_store_data_to_tlv: ERR 0x740a"}),
              tarntest::captured(TARNHOST_CH_ERROR));
}

}  // namespace
