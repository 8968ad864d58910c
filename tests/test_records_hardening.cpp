// Hostile input for every record of the catalogue: valid encodings cut at
// every length, bytes and bits flipped, lengths inflated, ids duplicated and
// plain garbage.  Each input gives an error or a decoded record; never an
// access outside the input or the destination (run under ASan/UBSan, where
// every input and destination is an exact-size heap block).
#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "record_catalogue.h"
#include "support/fixture.h"

using namespace rectest;

namespace {

// Conversion errors are printed on stderr by design; thousands of them
// would bury the test log.
class QuietStderr {
public:
    QuietStderr()
    {
        saved_ = -1;
        if (getenv("TARN_TEST_VERBOSE") != nullptr)
            return;
        fflush(stderr);
        saved_ = dup(2);
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, 2);
            close(null);
        }
    }
    ~QuietStderr()
    {
        fflush(stderr);
        if (saved_ >= 0) {
            dup2(saved_, 2);
            close(saved_);
        }
    }

private:
    int saved_;
};

class Hardening : public tarntest::HostTest {
protected:
    QuietStderr quiet_;
};

struct outcome {
    uint32_t rc_alloc;
    uint32_t rc_size;
    std::vector<uint8_t> record;  // when decoded
};

// Decodes `in` both ways and checks that they agree with each other and
// with the size the encoding claims.
outcome probe(const record_ops &op, const std::vector<uint8_t> &in)
{
    outcome o;
    // Exact-size heap copy: a read past the end is caught.
    uint8_t *copy = static_cast<uint8_t *>(malloc(in.empty() ? 1 : in.size()));
    if (!in.empty())
        memcpy(copy, in.data(), in.size());
    const uint32_t len = static_cast<uint32_t>(in.size());

    uint32_t size = 0;
    // Length 0 asks the size query to trust the envelope's own length, so
    // empty input is not offered to it.
    o.rc_size = len == 0 ? TLVKIT_ERR_TRUNCATED
                         : tlvkit_table_get_struct_size_from_tlv(&size, copy, len, op.tbl);

    void *out = nullptr;
    o.rc_alloc = op.to_struct(&out, copy, len, 0);
    if (o.rc_alloc == 0) {
        EXPECT_NE(nullptr, out);
        EXPECT_EQ(0u, o.rc_size);
        o.record.assign(static_cast<uint8_t *>(out), static_cast<uint8_t *>(out) + size);
        free(out);
    } else {
        EXPECT_EQ(nullptr, out);
    }

    // Into a caller's record of exactly the size reported (or the bare
    // structure when no size could be given).
    const size_t room = o.rc_size == 0 ? size : op.tbl->head.struct_size;
    uint8_t *mine = static_cast<uint8_t *>(calloc(room == 0 ? 1 : room, 1));
    void *dst = mine;
    const uint32_t rc_into = op.to_struct(&dst, copy, len, 1);
    EXPECT_EQ(mine, dst);
    EXPECT_EQ(o.rc_alloc, rc_into);
    if (rc_into == 0 && o.rc_alloc == 0) {
        EXPECT_EQ(0, memcmp(mine, o.record.data(), room));
    }
    if (o.rc_size != 0) {
        EXPECT_NE(0u, o.rc_alloc);
    }
    free(mine);
    free(copy);
    return o;
}

// Offsets of the length words of every TLV header in the encoding: the
// envelope, its fields, and the elements of nested arrays.
void length_words(const std::vector<uint8_t> &e, uint32_t start, uint32_t len,
                  int depth, std::vector<uint32_t> &at)
{
    uint32_t pos = 0, type = 0, vlen = 0;
    const void *v = nullptr;
    while (tlv_array_get_next_tlv(e.data() + start, len, &pos, &type, &v, &vlen) == 0) {
        const uint32_t hdr = pos - vlen - 8;
        at.push_back(start + hdr + 4);
        if (depth < 3 && vlen >= 8)
            length_words(e, start + hdr + 8, vlen, depth + 1, at);
    }
}

std::vector<uint8_t> body_of(const std::vector<uint8_t> &e)
{
    return std::vector<uint8_t>(e.begin() + 8, e.end());
}

void for_each_encoding(const std::function<void(const record_ops &, const std::vector<uint8_t> &,
                                                const std::vector<uint8_t> &)> &fn)
{
    for (const record_ops &op : all_ops()) {
        for (int v = 0; v < kVariants; ++v) {
            SCOPED_TRACE(std::string(op.prefix) + " variant " + std::to_string(v));
            const std::vector<uint8_t> rec = sample(op.tbl, v);
            const std::vector<uint8_t> enc = encode(op, rec);
            ASSERT_FALSE(enc.empty());
            fn(op, rec, enc);
            tarnhost_capture_clear();
        }
    }
}

TEST_F(Hardening, EveryCutOfAnEncodingIsAnError)
{
    for_each_encoding([](const record_ops &op, const std::vector<uint8_t> &rec,
                         const std::vector<uint8_t> &enc) {
        const outcome full = probe(op, enc);
        ASSERT_EQ(0u, full.rc_alloc);
        EXPECT_EQ(rec, full.record);
        for (size_t cut = 0; cut < enc.size(); ++cut) {
            const outcome o = probe(op, std::vector<uint8_t>(enc.begin(), enc.begin() + cut));
            EXPECT_NE(0u, o.rc_alloc) << "cut " << cut;
        }
    });
}

TEST_F(Hardening, EveryCutBodyInAConsistentEnvelopeIsSafe)
{
    for_each_encoding([](const record_ops &op, const std::vector<uint8_t> &,
                         const std::vector<uint8_t> &enc) {
        const std::vector<uint8_t> body = body_of(enc);
        for (size_t cut = 0; cut <= body.size(); ++cut) {
            const std::vector<uint8_t> in = envelope(std::vector<uint8_t>(body.begin(), body.begin() + cut));
            (void)probe(op, in);
            // The length-less size query reads the envelope's own length.
            (void)op.get_struct_sz(in.data());
        }
    });
}

TEST_F(Hardening, FlippedBytesAndBitsAreSafe)
{
    for_each_encoding([](const record_ops &op, const std::vector<uint8_t> &,
                         const std::vector<uint8_t> &enc) {
        for (size_t i = 0; i < enc.size(); ++i) {
            std::vector<uint8_t> m = enc;
            m[i] ^= 0xFF;
            (void)probe(op, m);
            if (i < 48) {
                for (int bit = 0; bit < 8; ++bit) {
                    std::vector<uint8_t> b = enc;
                    b[i] ^= static_cast<uint8_t>(1u << bit);
                    (void)probe(op, b);
                }
            }
        }
    });
}

TEST_F(Hardening, InflatedAndDeflatedLengthsAreSafe)
{
    for_each_encoding([](const record_ops &op, const std::vector<uint8_t> &,
                         const std::vector<uint8_t> &enc) {
        std::vector<uint32_t> at;
        length_words(enc, 0, static_cast<uint32_t>(enc.size()), 0, at);
        ASSERT_FALSE(at.empty());
        for (uint32_t off : at) {
            uint32_t len = (uint32_t(enc[off]) << 24) | (uint32_t(enc[off + 1]) << 16) |
                           (uint32_t(enc[off + 2]) << 8) | enc[off + 3];
            for (uint32_t nl : {len + 1, len + 4, len + 0x100, len - 1, 0u, 0x7FFFFFFFu,
                                0xFFFFFFFFu, 0xFFFFFFF8u}) {
                std::vector<uint8_t> m = enc;
                m[off] = static_cast<uint8_t>(nl >> 24);
                m[off + 1] = static_cast<uint8_t>(nl >> 16);
                m[off + 2] = static_cast<uint8_t>(nl >> 8);
                m[off + 3] = static_cast<uint8_t>(nl);
                const outcome o = probe(op, m);
                if (off == 4 && nl > len) {
                    EXPECT_NE(0u, o.rc_alloc);  // envelope longer than the input
                }
            }
        }
    });
}

TEST_F(Hardening, DuplicatedFieldsAppendedAreSkipped)
{
    for_each_encoding([](const record_ops &op, const std::vector<uint8_t> &rec,
                         const std::vector<uint8_t> &enc) {
        const std::vector<uint8_t> body = body_of(enc);
        uint32_t pos = 0, type = 0, vlen = 0;
        const void *v = nullptr;
        while (tlv_array_get_next_tlv(body.data(), static_cast<uint32_t>(body.size()), &pos, &type, &v, &vlen) == 0) {
            const auto *p = static_cast<const uint8_t *>(v);
            const std::vector<uint8_t> field = tlv(type, std::vector<uint8_t>(p, p + vlen));
            // Appended: every descriptor with the id is taken already.
            const outcome o = probe(op, envelope(cat({body, field})));
            EXPECT_EQ(0u, o.rc_alloc) << "id " << type;
            EXPECT_EQ(rec, o.record) << "id " << type;
            // Prepended: may or may not decode, never unsafe.
            (void)probe(op, envelope(cat({field, body})));
        }
    });
}

TEST_F(Hardening, GarbageIsSafe)
{
    std::mt19937 rng(20240611u);
    for (const record_ops &op : all_ops()) {
        SCOPED_TRACE(op.prefix);
        for (int i = 0; i < 400; ++i) {
            std::vector<uint8_t> g(rng() % 300);
            for (uint8_t &b : g)
                b = static_cast<uint8_t>(rng());
            (void)probe(op, g);
            (void)probe(op, envelope(g));
            // Plausible field headers with random ids and lengths.
            std::vector<uint8_t> body;
            const int n = static_cast<int>(rng() % 6);
            for (int k = 0; k < n; ++k) {
                std::vector<uint8_t> val(rng() % 40);
                for (uint8_t &b : val)
                    b = static_cast<uint8_t>(rng() % 3 == 0 ? 0 : rng());
                const std::vector<uint8_t> f = tlv(rng() % 8, val);
                body.insert(body.end(), f.begin(), f.end());
            }
            (void)probe(op, envelope(body));
        }
        tarnhost_capture_clear();
    }
}

}  // namespace
