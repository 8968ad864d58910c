// tlvkit on its own: the byte encoding, every field kind, the checks of the
// decoder and their error codes, buffers, iterators and TLV arrays, with
// descriptor tables made for the purpose.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/tlvkit.h"
#include "record_catalogue.h"
#include "support/fixture.h"

using namespace rectest;

namespace {

template <unsigned N>
struct tbl {
    tlvkit_table_head_t head;
    tlvkit_field_t fields[N];
    const tlvkit_table_t *t() const { return reinterpret_cast<const tlvkit_table_t *>(this); }
};

constexpr tlvkit_field_t F(uint32_t id, uint32_t elem, uint32_t off, uint32_t kind, uint32_t total)
{
    return {id, elem, off, kind, nullptr, nullptr, nullptr, nullptr, 0, total, 0xFFFFFFFFu, nullptr};
}
constexpr tlvkit_field_t END_ = {0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, 0, nullptr, nullptr, nullptr,
                                 nullptr, 0xFFFFFFFFu, 0xFFFFFFFFu, 0xFFFFFFFFu, nullptr};

// A record of every fixed kind: u32, u16, string[8], bytes[3].
struct mixed {
    uint32_t a;
    uint16_t b;
    char s[8];
    uint8_t raw[3];
};
const tbl<5> kMixed = {{sizeof(mixed), "mixed_t", nullptr, 0},
                       {F(1, 4, 0, 1, 4), F(2, 2, 4, 1, 2), F(3, 1, 6, 2, 8), F(4, 1, 14, 3, 3), END_}};

class Tlvkit : public tarntest::HostTest {};

std::vector<uint8_t> enc_of(const tlvkit_table_t *t, const void *rec)
{
    void *buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(0u, tlvkit_table_convert_struct_to_tlv(&buf, &len, t, rec, 0, nullptr, 0));
    std::vector<uint8_t> v(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    free(buf);
    return v;
}

uint32_t dec_into(const tlvkit_table_t *t, const std::vector<uint8_t> &e, void *rec)
{
    void *p = rec;
    return tlvkit_table_convert_tlv_to_struct(&p, e.data(), static_cast<uint32_t>(e.size()), t, 1);
}

TEST_F(Tlvkit, EncodesBigEndianHeadersInDescriptorOrder)
{
    mixed m;
    memset(&m, 0, sizeof m);
    m.a = 0x01020304u;
    m.b = 0xBEEF;
    strcpy(m.s, "hi");
    m.raw[0] = 7;
    m.raw[2] = 9;
    const std::vector<uint8_t> e = enc_of(kMixed.t(), &m);
    std::vector<uint8_t> want = {0x54, 0x52, 0x45, 0x43, 0, 0, 0, 44,
                                 0, 0, 0, 1, 0, 0, 0, 4, 0x04, 0x03, 0x02, 0x01,
                                 0, 0, 0, 2, 0, 0, 0, 2, 0xEF, 0xBE,
                                 0, 0, 0, 3, 0, 0, 0, 3, 'h', 'i', 0,
                                 0, 0, 0, 4, 0, 0, 0, 3, 7, 0, 9};
    EXPECT_EQ(want, e);
    EXPECT_EQ(want.size(), tlvkit_table_size(kMixed.t(), &m));
    mixed out;
    memset(&out, 0xFF, sizeof out);
    ASSERT_EQ(0u, dec_into(kMixed.t(), e, &out));
    EXPECT_EQ(m.a, out.a);
    EXPECT_EQ(m.b, out.b);
    EXPECT_EQ(0, memcmp(m.s, out.s, 8));  // zero-filled after "hi"
    EXPECT_EQ(0, memcmp(m.raw, out.raw, 3));
}

TEST_F(Tlvkit, DecodeChecksEveryFieldKind)
{
    mixed out;
    memset(&out, 0, sizeof out);
    // Fixed value of the wrong size.
    EXPECT_EQ(TLVKIT_ERR_LENGTH, dec_into(kMixed.t(), envelope(tlv(1, {1, 2})), &out));
    EXPECT_EQ(TLVKIT_ERR_LENGTH, dec_into(kMixed.t(), envelope(tlv(1, {1, 2, 3, 4, 5})), &out));
    // Byte array of the wrong size.
    EXPECT_EQ(TLVKIT_ERR_LENGTH, dec_into(kMixed.t(), envelope(tlv(4, {1, 2})), &out));
    // String without its terminator, empty string value, string too long.
    EXPECT_EQ(TLVKIT_ERR_STRING, dec_into(kMixed.t(), envelope(tlv(3, {'a', 'b'})), &out));
    EXPECT_EQ(TLVKIT_ERR_STRING, dec_into(kMixed.t(), envelope(tlv(3, {})), &out));
    EXPECT_EQ(TLVKIT_ERR_LENGTH, dec_into(kMixed.t(), envelope(tlv(3, std::vector<uint8_t>(9, 0))), &out));
    // A string of exactly the array's size, terminator last.
    ASSERT_EQ(0u, dec_into(kMixed.t(), envelope(tlv(3, str("1234567"))), &out));
    EXPECT_STREQ("1234567", out.s);
    // Text after an early terminator is dropped, the rest zero-filled.
    ASSERT_EQ(0u, dec_into(kMixed.t(), envelope(tlv(3, {'x', 0, 'y', 'z'})), &out));
    EXPECT_EQ(0, memcmp("x\0\0\0\0\0\0\0", out.s, 8));
    // Unknown ids are skipped; only present fields are written.
    out.a = 77;
    ASSERT_EQ(0u, dec_into(kMixed.t(), envelope(cat({tlv(99, {1, 2, 3}), tlv(2, {5, 0})})), &out));
    EXPECT_EQ(77u, out.a);
    EXPECT_EQ(5u, out.b);
    // An id seen twice with one descriptor: the second is skipped.
    ASSERT_EQ(0u, dec_into(kMixed.t(), envelope(cat({tlv(2, {6, 0}), tlv(2, {7, 0})})), &out));
    EXPECT_EQ(6u, out.b);
}

TEST_F(Tlvkit, HeadersAndLengthsAreCheckedBeforeReading)
{
    mixed out;
    memset(&out, 0, sizeof out);
    const std::vector<uint8_t> good = envelope(tlv(1, u32le(5)));
    void *p = &out;
    EXPECT_EQ(TLVKIT_ERR_TRUNCATED,
              tlvkit_table_convert_tlv_to_struct(&p, good.data(), 0, kMixed.t(), 1));
    for (uint32_t cut = 1; cut < good.size(); ++cut) {
        std::vector<uint8_t> c(good.begin(), good.begin() + cut);  // exact-size heap copy
        EXPECT_EQ(TLVKIT_ERR_TRUNCATED,
                  tlvkit_table_convert_tlv_to_struct(&p, c.data(), cut, kMixed.t(), 1)) << cut;
    }
    // The envelope shrunk around a cut field: the field runs past the body.
    EXPECT_EQ(TLVKIT_ERR_TRUNCATED, dec_into(kMixed.t(), envelope({0, 0, 0, 1, 0, 0, 0, 4, 1}), &out));
    EXPECT_EQ(TLVKIT_ERR_TRUNCATED, dec_into(kMixed.t(), envelope({0, 0, 0, 1, 0, 0}), &out));
    // A length near 2^32 must not wrap.
    EXPECT_EQ(TLVKIT_ERR_TRUNCATED,
              dec_into(kMixed.t(), envelope({0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}), &out));
    std::vector<uint8_t> huge = good;
    huge[4] = huge[5] = huge[6] = huge[7] = 0xFF;
    EXPECT_EQ(TLVKIT_ERR_TRUNCATED, dec_into(kMixed.t(), huge, &out));
    // Not a record envelope.
    EXPECT_EQ(TLVKIT_ERR_ENVELOPE, dec_into(kMixed.t(), tlv(1, u32le(5)), &out));
    // Bytes after the envelope are not the record's.
    std::vector<uint8_t> trailing = cat({good, {0xDE, 0xAD}});
    ASSERT_EQ(0u, dec_into(kMixed.t(), trailing, &out));
    EXPECT_EQ(5u, out.a);
    // Null arguments.
    EXPECT_EQ(TLVKIT_ERR_NULL, tlvkit_table_convert_tlv_to_struct(nullptr, good.data(), 12, kMixed.t(), 1));
    EXPECT_EQ(TLVKIT_ERR_NULL, tlvkit_table_convert_tlv_to_struct(&p, nullptr, 12, kMixed.t(), 1));
    EXPECT_EQ(TLVKIT_ERR_NULL, tlvkit_table_convert_tlv_to_struct(&p, good.data(), 12, nullptr, 1));
}

TEST_F(Tlvkit, FieldsOutsideTheRecordAreRefused)
{
    // struct size 6 but a u32 at offset 4.
    const tbl<2> t = {{6, "short_t", nullptr, 0}, {F(1, 4, 4, 1, 4), END_}};
    uint8_t rec[6] = {0};
    EXPECT_EQ(TLVKIT_ERR_BOUNDS, dec_into(t.t(), envelope(tlv(1, u32le(1))), rec));
    const tbl<2> s = {{6, "short_t", nullptr, 0}, {F(1, 1, 0, 2, 33), END_}};
    EXPECT_EQ(TLVKIT_ERR_BOUNDS, dec_into(s.t(), envelope(tlv(1, str("a"))), rec));
    const tbl<2> h = {{6, "short_t", nullptr, 0}, {F(1, 4, 0xFFFFFFFEu, 1, 4), END_}};
    EXPECT_EQ(TLVKIT_ERR_BOUNDS, dec_into(h.t(), envelope(tlv(1, u32le(1))), rec));
}

TEST_F(Tlvkit, MalformedTablesAreRefused)
{
    mixed m;
    memset(&m, 0, sizeof m);
    void *buf = nullptr;
    uint32_t len = 0;
    const tbl<2> k7 = {{4, "k7", nullptr, 0}, {F(1, 4, 0, 7, 4), END_}};
    EXPECT_EQ(TLVKIT_ERR_TABLE, tlvkit_table_convert_struct_to_tlv(&buf, &len, k7.t(), &m, 0, nullptr, 0));
    EXPECT_EQ(TLVKIT_ERR_TABLE, dec_into(k7.t(), envelope({}), &m));
    EXPECT_EQ(0u, tlvkit_table_size(k7.t(), &m));
    const tbl<2> nocount = {{4, "nc", nullptr, 0}, {F(1, 1, 4, 5, 0), END_}};
    EXPECT_EQ(TLVKIT_ERR_TABLE, dec_into(nocount.t(), envelope({}), &m));
    const tbl<2> nocb = {{4, "nocb", nullptr, 0}, {F(1, 0, 4, 8, 0), END_}};
    EXPECT_EQ(TLVKIT_ERR_TABLE, dec_into(nocb.t(), envelope({}), &m));
    static tbl<66> many;
    many.head = {4, "many", nullptr, 0};
    for (int i = 0; i < 65; ++i)
        many.fields[i] = F(1, 4, 0, 1, 4);
    many.fields[65] = END_;
    EXPECT_EQ(TLVKIT_ERR_TABLE, dec_into(many.t(), envelope({}), &m));
}

// ---- custom fields ------------------------------------------------------

struct blob {
    uint32_t len;
    uint8_t data[64];
};
int g_frees_expected = 0;
uint32_t blob_enc(const void *r, uint32_t, void **d, uint32_t *l, uint32_t *a)
{
    const blob *b = static_cast<const blob *>(r);
    if (b->len == 0xDEAD)
        return 5;
    if (b->len == 0xBEEF) {
        *d = nullptr;
        *l = 0;
        *a = 0;
        return 0;
    }
    // Allocated copies, which tlvkit must release (LeakSanitizer checks).
    void *c = tlvkit_malloc(b->len);
    if (c == nullptr)
        return 1;
    memcpy(c, b->data, b->len);
    *d = c;
    *l = b->len;
    *a = 1;
    ++g_frees_expected;
    return 0;
}
uint32_t blob_dec(void *r, const void *d, uint32_t l)
{
    if (l == 3 && memcmp(d, "bad", 3) == 0)
        return 73;
    memcpy(static_cast<blob *>(r)->data, d, l);
    return 0;
}
uint32_t blob_size(const void *r)
{
    const blob *b = static_cast<const blob *>(r);
    return b->len == 0xBEEF ? 20 : (b->len == 0xDEAD ? 0 : b->len);
}
const tbl<3> kBlob = {{4, "blob_t", nullptr, 0},
                      {F(1, 4, 0, 1, 4),
                       {2, 0, 4, 8, &blob_enc, &blob_dec, &blob_size, nullptr, 0, 0, 0xFFFFFFFFu, nullptr},
                       END_}};

TEST_F(Tlvkit, VariableCustomFieldsSizeTheRecord)
{
    blob b;
    memset(&b, 0, sizeof b);
    b.len = 5;
    memcpy(b.data, "hello", 5);
    const std::vector<uint8_t> e = enc_of(kBlob.t(), &b);
    EXPECT_EQ(envelope(cat({tlv(1, u32le(5)), tlv(2, {'h', 'e', 'l', 'l', 'o'})})), e);
    uint32_t size = 0;
    ASSERT_EQ(0u, tlvkit_table_get_struct_size_from_tlv(&size, e.data(), static_cast<uint32_t>(e.size()), kBlob.t()));
    EXPECT_EQ(9u, size);
    size = 0;
    ASSERT_EQ(0u, tlvkit_table_get_struct_size_from_tlv(&size, e.data(), 0, kBlob.t()));
    EXPECT_EQ(9u, size);
    void *out = nullptr;
    ASSERT_EQ(0u, tlvkit_table_convert_tlv_to_struct(&out, e.data(), static_cast<uint32_t>(e.size()), kBlob.t(), 0));
    EXPECT_EQ(0, memcmp(&b, out, 9));
    free(out);
    // A failing decode callback.
    const std::vector<uint8_t> bad = envelope(cat({tlv(1, u32le(3)), tlv(2, {'b', 'a', 'd'})}));
    out = nullptr;
    EXPECT_EQ(TLVKIT_ERR_CALLBACK, tlvkit_table_convert_tlv_to_struct(&out, bad.data(), static_cast<uint32_t>(bad.size()), kBlob.t(), 0));
    EXPECT_EQ(nullptr, out);
    // Failing encode callbacks.
    b.len = 0xDEAD;
    void *buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(TLVKIT_ERR_CALLBACK, tlvkit_table_convert_struct_to_tlv(&buf, &len, kBlob.t(), &b, 0, nullptr, 0));
    b.len = 4;
    tarnhost_fault_set("tlvkit_malloc", 1, 1);  // the library's own buffer
    EXPECT_EQ(TLVKIT_ERR_NOMEM, tlvkit_table_convert_struct_to_tlv(&buf, &len, kBlob.t(), &b, 0, nullptr, 0));
}

TEST_F(Tlvkit, CustomFieldWithoutDataIsLeftOutAndTheEncodingEndsTheBuffer)
{
    blob b;
    memset(&b, 0, sizeof b);
    b.len = 0xBEEF;  // no data, though the size callback promised 20
    const uint32_t upper = tlvkit_table_size(kBlob.t(), &b);
    EXPECT_EQ(8u + 12u + 28u, upper);
    std::vector<uint8_t> buf(upper + 4, 0x99);
    void *p = buf.data();
    uint32_t len = static_cast<uint32_t>(buf.size());
    ASSERT_EQ(0u, tlvkit_table_convert_struct_to_tlv(&p, &len, kBlob.t(), &b, 0, nullptr, 1));
    const std::vector<uint8_t> want = envelope(tlv(1, u32le(0xBEEF)));
    ASSERT_EQ(want.size(), len);
    EXPECT_EQ(want, std::vector<uint8_t>(buf.end() - len, buf.end()));
}

// ---- counted arrays -----------------------------------------------------

struct pair_rec {
    uint32_t x;
    uint8_t y;
};
const tbl<3> kPair = {{8, "pair_t", nullptr, 0}, {F(1, 4, 0, 1, 4), F(2, 1, 4, 1, 1), END_}};
uint32_t first_word(const void *r)
{
    uint32_t v = 0;
    if (r != nullptr)
        memcpy(&v, r, 4);
    return v;
}
const tbl<3> kPairs = {{4, "pairs_t", nullptr, 0},
                       {F(1, 4, 0, 1, 4),
                        {2, 8, 4, 5, nullptr, nullptr, nullptr, &first_word, 0, 0, 0xFFFFFFFFu, kPair.t()},
                        END_}};

TEST_F(Tlvkit, NestedArraysAreFullRecordsBoundedByTheirCount)
{
    uint8_t mem[4 + 3 * 8] = {0};
    const uint32_t n = 3;
    memcpy(mem, &n, 4);
    for (int i = 0; i < 3; ++i) {
        pair_rec pr = {static_cast<uint32_t>(100 + i), static_cast<uint8_t>(i)};
        memcpy(mem + 4 + i * 8, &pr, 5);
    }
    const std::vector<uint8_t> e = enc_of(kPairs.t(), mem);
    uint32_t size = 0;
    ASSERT_EQ(0u, tlvkit_table_get_struct_size_from_tlv(&size, e.data(), 0, kPairs.t()));
    EXPECT_EQ(sizeof mem, size);
    void *out = nullptr;
    ASSERT_EQ(0u, tlvkit_table_convert_tlv_to_struct(&out, e.data(), static_cast<uint32_t>(e.size()), kPairs.t(), 0));
    EXPECT_EQ(0, memcmp(mem, out, sizeof mem));
    free(out);

    // An element that is not a record.
    const std::vector<uint8_t> notrec = envelope(cat({tlv(1, u32le(1)), tlv(2, tlv(7, {}))}));
    out = nullptr;
    EXPECT_EQ(TLVKIT_ERR_ENVELOPE, tlvkit_table_convert_tlv_to_struct(&out, notrec.data(), static_cast<uint32_t>(notrec.size()), kPairs.t(), 0));
    // More elements than counted.
    const std::vector<uint8_t> elem = envelope(tlv(1, u32le(9)));
    const std::vector<uint8_t> extra = envelope(cat({tlv(1, u32le(1)), tlv(2, cat({elem, elem}))}));
    EXPECT_EQ(TLVKIT_ERR_COUNT, tlvkit_table_convert_tlv_to_struct(&out, extra.data(), static_cast<uint32_t>(extra.size()), kPairs.t(), 0));
    // Array before its count: the count still has to agree at the end.
    const std::vector<uint8_t> early = envelope(cat({tlv(2, elem), tlv(1, u32le(1))}));
    EXPECT_EQ(TLVKIT_ERR_COUNT, tlvkit_table_convert_tlv_to_struct(&out, early.data(), static_cast<uint32_t>(early.size()), kPairs.t(), 0));
    EXPECT_EQ(nullptr, out);
}

// A table nested in itself: encoding recursion is bounded.
extern const tbl<3> kSelf;
const tbl<3> kSelf = {{4, "self_t", nullptr, 0},
                      {F(1, 4, 0, 1, 4),
                       {2, 4, 4, 5, nullptr, nullptr, nullptr, &first_word, 0, 0, 0xFFFFFFFFu, kSelf.t()},
                       END_}};

TEST_F(Tlvkit, NestingDepthIsBounded)
{
    std::vector<uint32_t> chain(64, 1);  // every level counts one element
    EXPECT_EQ(0u, tlvkit_table_size(kSelf.t(), chain.data()));
    void *buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(TLVKIT_ERR_DEPTH, tlvkit_table_convert_struct_to_tlv(&buf, &len, kSelf.t(), chain.data(), 0, nullptr, 0));
    chain[5] = 0;  // five levels are fine
    EXPECT_NE(0u, tlvkit_table_size(kSelf.t(), chain.data()));
}

TEST_F(Tlvkit, SizesBeyond32BitsAreRefused)
{
    const tbl<3> huge = {{0xFFFFFFF0u, "huge_t", nullptr, 0},
                         {F(1, 4, 0, 1, 4),
                          {2, 0, 4, 8, &blob_enc, &blob_dec, &blob_size, nullptr, 0, 0, 0xFFFFFFFFu, nullptr},
                          END_}};
    const std::vector<uint8_t> e = envelope(tlv(2, std::vector<uint8_t>(32, 1)));
    uint32_t size = 0;
    EXPECT_EQ(TLVKIT_ERR_TOO_LARGE, tlvkit_table_get_struct_size_from_tlv(&size, e.data(), static_cast<uint32_t>(e.size()), huge.t()));
    void *out = nullptr;
    EXPECT_EQ(TLVKIT_ERR_TOO_LARGE, tlvkit_table_convert_tlv_to_struct(&out, e.data(), static_cast<uint32_t>(e.size()), huge.t(), 0));
    // A raw array whose count times size passes 2^32.
    const tbl<2> raw = {{4, "raw_t", nullptr, 0},
                        {{1, 2, 4, 5, nullptr, nullptr, nullptr, &first_word, 0, 0, 0xFFFFFFFFu, nullptr}, END_}};
    const uint32_t count = 0xFFFFFFFFu;
    EXPECT_EQ(0u, tlvkit_table_size(raw.t(), &count));
    void *buf = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(TLVKIT_ERR_TOO_LARGE, tlvkit_table_convert_struct_to_tlv(&buf, &len, raw.t(), &count, 0, nullptr, 0));
    // The length-less form with an envelope length that cannot be held.
    const std::vector<uint8_t> hdr = {0x54, 0x52, 0x45, 0x43, 0xFF, 0xFF, 0xFF, 0xFC};
    EXPECT_EQ(TLVKIT_ERR_TOO_LARGE, tlvkit_table_get_struct_size_from_tlv(&size, hdr.data(), 0, kMixed.t()));
}

// ---- iterators, lookups, arrays -----------------------------------------

TEST_F(Tlvkit, FieldIteratorReportsOrSkipsUnknownIds)
{
    const std::vector<uint8_t> e = envelope(cat({tlv(1, u32le(4)), tlv(50, {1}), tlv(3, str("ok"))}));
    tlvkit_field_itr_t it;
    tlvkit_field_value_t v;
    ASSERT_EQ(0u, tlvkit_field_itr_init(&it, e.data(), static_cast<uint32_t>(e.size()), kMixed.t(), nullptr, 0));
    ASSERT_EQ(0u, tlvkit_field_itr_get_next(&it, &v));
    EXPECT_EQ(1u, v.type_id);
    EXPECT_EQ(&kMixed.fields[0], v.field);
    ASSERT_EQ(0u, tlvkit_field_itr_get_next(&it, &v));
    EXPECT_EQ(50u, v.type_id);
    EXPECT_EQ(nullptr, v.field);
    EXPECT_EQ(1u, v.len);
    ASSERT_EQ(0u, tlvkit_field_itr_get_next(&it, &v));
    EXPECT_EQ(3u, v.type_id);
    EXPECT_EQ(TLVKIT_ERR_END, tlvkit_field_itr_get_next(&it, &v));
    EXPECT_EQ(TLVKIT_ERR_END, tlvkit_field_itr_get_next(&it, &v));

    mixed out;
    memset(&out, 0, sizeof out);
    ASSERT_EQ(0u, tlvkit_field_itr_init(&it, e.data(), static_cast<uint32_t>(e.size()), kMixed.t(), &out, TLVKIT_ITR_SKIP_UNKNOWN));
    std::vector<uint32_t> ids;
    while (tlvkit_field_itr_get_next(&it, &v) == 0)
        ids.push_back(v.type_id);
    EXPECT_EQ((std::vector<uint32_t>{1, 3}), ids);
    EXPECT_EQ(4u, out.a);
    EXPECT_STREQ("ok", out.s);

    // A malformed field ends the walk with its error.
    const std::vector<uint8_t> cut = envelope(cat({tlv(1, u32le(4)), {0, 0, 0, 3, 0, 0}}));
    ASSERT_EQ(0u, tlvkit_field_itr_init(&it, cut.data(), static_cast<uint32_t>(cut.size()), kMixed.t(), &out, 0));
    ASSERT_EQ(0u, tlvkit_field_itr_get_next(&it, &v));
    EXPECT_EQ(TLVKIT_ERR_TRUNCATED, tlvkit_field_itr_get_next(&it, &v));
    EXPECT_EQ(TLVKIT_ERR_NULL, tlvkit_field_itr_get_next(nullptr, &v));
    EXPECT_EQ(TLVKIT_ERR_ENVELOPE, tlvkit_field_itr_init(&it, e.data() + 8, 12, kMixed.t(), nullptr, 0));
}

TEST_F(Tlvkit, GetFieldFindsTheFirstFieldWithAnId)
{
    const std::vector<uint8_t> e = envelope(cat({tlv(2, {1, 0}), tlv(2, {2, 0})}));
    const void *v = nullptr;
    uint32_t l = 0;
    ASSERT_EQ(0u, tlvkit_get_field(e.data(), static_cast<uint32_t>(e.size()), 2, &v, &l, kMixed.t()));
    EXPECT_EQ(2u, l);
    EXPECT_EQ(1, static_cast<const uint8_t *>(v)[0]);
    EXPECT_EQ(TLVKIT_ERR_END, tlvkit_get_field(e.data(), static_cast<uint32_t>(e.size()), 3, &v, &l, kMixed.t()));
    EXPECT_EQ(TLVKIT_ERR_TRUNCATED, tlvkit_get_field(e.data(), 10, 2, &v, &l, kMixed.t()));
    EXPECT_EQ(TLVKIT_ERR_NULL, tlvkit_get_field(e.data(), 10, 2, nullptr, &l, kMixed.t()));
}

TEST_F(Tlvkit, TlvArrayWalk)
{
    const std::vector<uint8_t> a = cat({tlv(7, {1, 2}), tlv(8, {}), tlv(9, {3})});
    uint32_t pos = 0, type = 0, len = 0;
    const void *v = nullptr;
    std::vector<uint32_t> types;
    uint32_t rc;
    while ((rc = tlv_array_get_next_tlv(a.data(), static_cast<uint32_t>(a.size()), &pos, &type, &v, &len)) == 0)
        types.push_back(type);
    EXPECT_EQ(TLVKIT_ERR_END, rc);
    EXPECT_EQ((std::vector<uint32_t>{7, 8, 9}), types);
    EXPECT_EQ(a.size(), pos);
    pos = 0;
    EXPECT_EQ(TLVKIT_ERR_TRUNCATED, tlv_array_get_next_tlv(a.data(), 9, &pos, &type, &v, &len));
    EXPECT_EQ(0u, pos);
    EXPECT_EQ(TLVKIT_ERR_TRUNCATED, tlv_array_get_next_tlv(a.data(), 7, &pos, &type, &v, &len));
    pos = 100;
    EXPECT_EQ(TLVKIT_ERR_TRUNCATED, tlv_array_get_next_tlv(a.data(), static_cast<uint32_t>(a.size()), &pos, &type, &v, &len));
    pos = 0;
    EXPECT_EQ(TLVKIT_ERR_END, tlv_array_get_next_tlv(nullptr, 0, &pos, &type, &v, &len));
    EXPECT_EQ(TLVKIT_ERR_NULL, tlv_array_get_next_tlv(a.data(), 4, nullptr, &type, &v, &len));
    EXPECT_EQ(TLVKIT_ERR_NULL, tlv_array_get_next_tlv(nullptr, 4, &pos, &type, &v, &len));
}

// ---- buffers and helpers ------------------------------------------------

TEST_F(Tlvkit, CallerBufferTooSmallLeavesLengthAlone)
{
    mixed m;
    memset(&m, 0, sizeof m);
    uint8_t small[10];
    void *p = small;
    uint32_t len = sizeof small, b = 1234;
    EXPECT_EQ(TLVKIT_ERR_SPACE, tlvkit_table_convert_struct_to_tlv(&p, &len, kMixed.t(), &m, 0, &b, 1));
    EXPECT_EQ(sizeof small, len);
    EXPECT_EQ(1234u, b);
    EXPECT_EQ(small, p);
    EXPECT_EQ(TLVKIT_ERR_NULL, tlvkit_table_convert_struct_to_tlv(&p, &len, kMixed.t(), nullptr, 0, &b, 1));
    EXPECT_EQ(0u, tlvkit_table_size(nullptr, &m));
}

TEST_F(Tlvkit, ErrorPrintGoesToTheErrorChannelWithoutNewline)
{
    tlvkit_error_print("%s: ERR 0x%x\n", "some_wrapper", 0x7405u);
    tlvkit_error_print("no newline %d", 3);
    EXPECT_EQ((std::vector<std::string>{"some_wrapper: ERR 0x7405", "no newline 3"}),
              tarntest::captured(TARNHOST_CH_ERROR));
}

TEST_F(Tlvkit, MallocCanBeMadeToFail)
{
    tarnhost_fault_set("tlvkit_malloc", 1, 1);
    EXPECT_EQ(nullptr, tlvkit_malloc(16));
    void *p = tlvkit_malloc(0);
    EXPECT_NE(nullptr, p);
    free(p);
}

}  // namespace
