// The Gyre record catalogue: defaults, blob fields, the Gyre-only wrappers
// (R_tlvize, R_to_structure, R_get_tlv_size) and their failure report.
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

class GyreRecords : public tarntest::HostTest {};

TEST(GyreDefaults, NullRecordIsAccepted)
{
    EXPECT_EQ(0u, gyre_tpg_vlan_info_default_init(nullptr));
    EXPECT_EQ(0u, gyre_if_vlan_info_default_init(nullptr));
    EXPECT_EQ(0u, gyre_kvs_vlan_info_default_init(nullptr));
    EXPECT_EQ(0u, gyre_ftag_info_default_init(nullptr, 12));
    EXPECT_EQ(0u, gyre_store_ftag_data_default_init(nullptr, 136));
}

TEST(GyreDefaults, BitmapRecordsDefaultToAnEmpty512ByteSet)
{
    gyre_if_vlan_info_t r;
    memset(&r, 0xFF, sizeof r);
    EXPECT_EQ(0u, gyre_if_vlan_info_default_init(&r));
    EXPECT_EQ(0u, r.ifindex);
    EXPECT_EQ(512u, r.vlans.len);
    for (unsigned i = 0; i < GYRE_VLAN_BMP_BYTES; ++i)
        ASSERT_EQ(0, r.vlans.bits[i]) << i;

    gyre_tpg_vlan_info_t t;
    memset(&t, 0xFF, sizeof t);
    EXPECT_EQ(0u, gyre_tpg_vlan_info_default_init(&t));
    EXPECT_EQ(0u, t.tpg_id);
    EXPECT_EQ('\0', t.name[0]);
    EXPECT_EQ(0xFF, static_cast<uint8_t>(t.name[1]));
    EXPECT_EQ(512u, t.vlans.len);
    for (unsigned i = 0; i < GYRE_VLAN_BMP_BYTES; ++i)
        ASSERT_EQ(0, t.vlans.bits[i]) << i;

    gyre_kvs_vlan_info_t k;
    memset(&k, 0xFF, sizeof k);
    EXPECT_EQ(0u, gyre_kvs_vlan_info_default_init(&k));
    EXPECT_EQ(0u, k.word);
    EXPECT_EQ(0u, k.tpg_id);
    EXPECT_EQ('\0', k.name[0]);
}

TEST(GyreDefaults, FtagInitialiserZeroesExactlyTheCount)
{
    uint8_t raw[16];
    for (uint32_t n : {12u, 5u, 0u}) {
        memset(raw, 0xAA, sizeof raw);
        EXPECT_EQ(0u, gyre_ftag_info_default_init(reinterpret_cast<gyre_ftag_info_t *>(raw), n));
        for (uint32_t i = 0; i < sizeof raw; ++i)
            EXPECT_EQ(i < n ? 0 : 0xAA, raw[i]) << n << "@" << i;
    }
    std::vector<uint8_t> s(140, 0xAA);
    gyre_store_ftag_data_default_init(reinterpret_cast<gyre_store_svr_ftag_data_t *>(s.data()), 136);
    for (size_t i = 0; i < s.size(); ++i)
        EXPECT_EQ(i < 136 ? 0 : 0xAA, s[i]) << i;
}

TEST_F(GyreRecords, TopologyEncodingCarriesTheWholeNameAndBitmap)
{
    gyre_tpg_vlan_info_t r;
    memset(&r, 0, sizeof r);
    gyre_tpg_vlan_info_default_init(&r);
    r.tpg_id = 0xC0000003u;
    memcpy(r.name, "red\0tail-after-terminator", 25);
    r.vlans.bits[0] = 0x80;    // VLAN 0
    r.vlans.bits[511] = 0x01;  // VLAN 4095
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, gyre_tpg_vlan_info_to_tlv(&r, &buf, &len, 0, nullptr, 0));
    const std::vector<uint8_t> enc(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    const uint8_t *raw = reinterpret_cast<const uint8_t *>(&r);
    const std::vector<uint8_t> want = envelope(cat(
        {tlv(0, u32le(0xC0000003u)), tlv(1, std::vector<uint8_t>(raw + 4, raw + 37)),
         tlv(2, std::vector<uint8_t>(raw + 40, raw + 556))}));
    EXPECT_EQ(want, enc);
    EXPECT_EQ(8u + 12u + 41u + 524u, len);
    EXPECT_EQ(len, gyre_tpg_vlan_info_get_tlv_sz(&r));
    EXPECT_EQ(len, gyre_tpg_vlan_info_get_tlv_size(&r));

    gyre_tpg_vlan_info_t out;
    memset(&out, 0, sizeof out);
    gyre_tpg_vlan_info_t *p = &out;
    ASSERT_EQ(0u, gyre_tpg_vlan_info_to_structure(&p, buf, len));
    free(buf);
    EXPECT_EQ(0, memcmp(&r, &out, sizeof r));
    EXPECT_EQ(0, memcmp("tail-after-terminator", out.name + 4, 21));
}

TEST_F(GyreRecords, TlvizeReturnsOneExactlyWhenToTlvReturnsZero)
{
    gyre_ftag_info_t r = {0xC0000001u, 2, 3, 4};
    std::vector<uint8_t> buf(64, 0);
    void *p = buf.data();
    uint32_t len = static_cast<uint32_t>(buf.size());
    uint32_t b = 0;
    EXPECT_EQ(1u, gyre_ftag_info_tlvize(&r, &p, &len, &b));
    const uint32_t need = gyre_ftag_info_get_tlv_size(&r);
    EXPECT_EQ(need, len);
    EXPECT_EQ(need, b);
    // Encoded at the end of the caller's buffer.
    gyre_ftag_info_t out = {0, 0, 0, 0};
    gyre_ftag_info_t *op = &out;
    ASSERT_EQ(0u, gyre_ftag_info_to_structure(&op, buf.data() + buf.size() - len, len));
    EXPECT_EQ(0, memcmp(&r, &out, sizeof r));
    EXPECT_TRUE(tarntest::captured(TARNHOST_CH_SYSLOG).empty());

    // Too small a buffer: R_to_tlv's error, R_tlvize's 0 and the report.
    len = need - 1;
    EXPECT_EQ(TLVKIT_ERR_SPACE, gyre_ftag_info_to_tlv(&r, &p, &len, 0, &b, 1));
    len = need - 1;
    EXPECT_EQ(0u, gyre_ftag_info_tlvize(&r, &p, &len, &b));
    EXPECT_EQ((std::vector<std::string>{"gyre_ftag_info_to_tlv: ERR 0x740b",
                                        "gyre_ftag_info_to_tlv: ERR 0x740b"}),
              tarntest::captured(TARNHOST_CH_ERROR));
    const auto logged = tarntest::captured(TARNHOST_CH_SYSLOG);
    ASSERT_EQ(1u, logged.size());
    EXPECT_NE(std::string::npos, logged[0].find("TLVKIT failure: gyre_ftag_info_to_tlv"))
        << logged[0];
}

TEST_F(GyreRecords, TlvizeFailureNamesEachWrapper)
{
    const char *names[] = {"gyre_tpg_vlan_info_to_tlv", "gyre_if_vlan_info_to_tlv",
                           "gyre_ftag_info_to_tlv", "gyre_kvs_vlan_info_to_tlv",
                           "gyre_store_svr_ftag_data_to_tlv"};
    uint8_t rec[600] = {0};
    uint8_t small[4];
    uint32_t rcs[5];
    for (int i = 0; i < 5; ++i) {
        void *p = small;
        uint32_t len = sizeof small;
        switch (i) {
        case 0: rcs[i] = gyre_tpg_vlan_info_tlvize(reinterpret_cast<gyre_tpg_vlan_info_t *>(rec), &p, &len, nullptr); break;
        case 1: rcs[i] = gyre_if_vlan_info_tlvize(reinterpret_cast<gyre_if_vlan_info_t *>(rec), &p, &len, nullptr); break;
        case 2: rcs[i] = gyre_ftag_info_tlvize(reinterpret_cast<gyre_ftag_info_t *>(rec), &p, &len, nullptr); break;
        case 3: rcs[i] = gyre_kvs_vlan_info_tlvize(reinterpret_cast<gyre_kvs_vlan_info_t *>(rec), &p, &len, nullptr); break;
        default: rcs[i] = gyre_store_svr_ftag_data_tlvize(reinterpret_cast<gyre_store_svr_ftag_data_t *>(rec), &p, &len, nullptr); break;
        }
        EXPECT_EQ(0u, rcs[i]) << names[i];
    }
    const auto logged = tarntest::captured(TARNHOST_CH_SYSLOG);
    ASSERT_EQ(5u, logged.size());
    for (int i = 0; i < 5; ++i)
        EXPECT_NE(std::string::npos, logged[i].find(std::string("TLVKIT failure: ") + names[i]))
            << logged[i];
}

TEST_F(GyreRecords, ToStructureDecodesWithFlagOneIntoTheCallersRecord)
{
    const std::vector<uint8_t> enc = envelope(cat({tlv(0, u32le(1)), tlv(1, u32le(0xC0000009u)),
                                                   tlv(2, std::vector<uint8_t>(33, 'z'))}));
    gyre_kvs_vlan_info_t r;
    memset(&r, 0, sizeof r);
    gyre_kvs_vlan_info_t *p = &r;
    ASSERT_EQ(0u, gyre_kvs_vlan_info_to_structure(&p, enc.data(), static_cast<uint32_t>(enc.size())));
    EXPECT_EQ(&r, p);
    EXPECT_EQ(9u, r.tpg_id & GYRE_TPG_ID_MASK);
    EXPECT_EQ('z', r.name[32]);
    // A blob of the wrong size is refused with the wrapper's own line.
    const std::vector<uint8_t> bad = envelope(tlv(2, std::vector<uint8_t>(32, 'z')));
    EXPECT_EQ(TLVKIT_ERR_LENGTH, gyre_kvs_vlan_info_to_structure(&p, bad.data(), static_cast<uint32_t>(bad.size())));
    EXPECT_EQ(std::vector<std::string>{"gyre_kvs_vlan_info_to_struct: ERR 0x7405"},
              tarntest::captured(TARNHOST_CH_ERROR));
}

TEST_F(GyreRecords, StoreFtagDataUsesItsOwnTableName)
{
    EXPECT_STREQ("gyre_store_svr_ftag_data_t", gyre_store_ftag_data_tbl.head.name);
    const std::vector<uint8_t> bad = tlv(1, {});
    EXPECT_EQ(-1, gyre_store_svr_ftag_data_get_struct_sz(bad.data()));
    EXPECT_EQ(std::vector<std::string>{"gyre_store_svr_ftag_data_get_struct_sz: ERR 0x7404"},
              tarntest::captured(TARNHOST_CH_ERROR));
}

TEST(GyreBuffer, ExportedScratchBufferHas8192Bytes)
{
    EXPECT_EQ(8192u, sizeof gyre_tlv_buf);
    memset(gyre_tlv_buf, 0, sizeof gyre_tlv_buf);
    gyre_tlv_buf[8191] = 1;
    EXPECT_EQ(1, gyre_tlv_buf[8191]);
}

}  // namespace
