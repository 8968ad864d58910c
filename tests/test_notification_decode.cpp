// The payload decoder of <tarn/notification.hpp> and its JSON rendering:
// every layout, every payload cut at every length, counts that promise more
// than the payload holds, and sets against the library's own range text.
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <tarn/gyre.h>
#include <tarn/notification.hpp>
#include <tarn/notification_json.hpp>

#include "host/tarnhost_notification.h"

namespace {

using tarn::DecodeStatus;
using tarn::Decoded;

struct Payload {
    std::vector<uint8_t> bytes;
    explicit Payload(size_t n) : bytes(n, 0) {}
    Payload &u16(size_t at, uint16_t v)
    {
        memcpy(&bytes[at], &v, 2);
        return *this;
    }
    Payload &u32(size_t at, uint32_t v)
    {
        memcpy(&bytes[at], &v, 4);
        return *this;
    }
    Payload &u64(size_t at, uint64_t v)
    {
        memcpy(&bytes[at], &v, 8);
        return *this;
    }
    Payload &text(size_t at, const char *s)
    {
        memcpy(&bytes[at], s, strlen(s));
        return *this;
    }
    Payload &bit(size_t at, uint32_t i)
    {
        bytes[at + i / 8] |= static_cast<uint8_t>(0x80u >> (i % 8));
        return *this;
    }
    Decoded decode(uint32_t opcode, size_t len = SIZE_MAX) const
    {
        return tarn::decode_notification(opcode, bytes.data(),
                                          len == SIZE_MAX ? bytes.size() : len);
    }
};

Payload vlan_update(std::vector<std::pair<uint32_t, std::vector<uint32_t>>> recs, uint32_t count)
{
    Payload p(24 + 556 * recs.size());
    p.u32(20, count);
    for (size_t i = 0; i < recs.size(); ++i) {
        const size_t r = 24 + 556 * i;
        p.u32(r, recs[i].first);
        p.text(r + 4, std::to_string(recs[i].first).c_str());
        p.u32(r + 40, 512);
        for (uint32_t v : recs[i].second)
            p.bit(r + 44, v);
    }
    return p;
}

Payload ftag_update(uint32_t count, size_t entries)
{
    Payload p(4 + 1048 * entries);
    p.u32(0, count);
    for (size_t i = 0; i < entries; ++i) {
        const size_t e = 4 + 1048 * i;
        p.u32(e, 1 + static_cast<uint32_t>(i % 3));
        p.u32(e + 4, 10 + static_cast<uint32_t>(i));
        p.u16(e + 8, static_cast<uint16_t>(i + 1));
        p.u16(e + 10, static_cast<uint16_t>(100 + i));
        p.u32(e + 12, 0x14);
    }
    return p;
}

TEST(NotificationDecode, TopologyCreatedAndDeleted)
{
    Payload p(24);
    p.u32(20, 42);
    Decoded c = p.decode(51208);
    ASSERT_TRUE(c.complete());
    EXPECT_EQ(42u, std::get<tarn::TopologyCreated>(c.event).topology);
    Decoded d = p.decode(51210);
    EXPECT_EQ(42u, std::get<tarn::TopologyDeleted>(d.event).topology);
    EXPECT_EQ("topology_deleted", std::string(tarn::event_name(d.event)));
    EXPECT_EQ(R"({"type":"topology_deleted","complete":true,"problem":null,"topology":42})",
              tarn::to_json(d));
}

TEST(NotificationDecode, TopologyCreatedCutAtEveryLength)
{
    Payload p(24);
    p.u32(20, 7);
    for (size_t len = 0; len < 24; ++len) {
        Decoded d = p.decode(51208, len);
        EXPECT_EQ(DecodeStatus::too_short, d.status) << len;
        EXPECT_EQ(24u, d.needed);
        EXPECT_TRUE(std::holds_alternative<tarn::Undecodable>(d.event));
        EXPECT_EQ("a payload of " + std::to_string(len) + (len == 1 ? " byte" : " bytes") +
                      " is shorter than the 24 bytes it needs",
                  d.problem());
    }
    EXPECT_TRUE(p.decode(51208, 24).complete());
}

TEST(NotificationDecode, NoPayloadAndUnknownOpcode)
{
    Decoded d = tarn::decode_notification(51214, nullptr, 0);
    EXPECT_EQ(DecodeStatus::no_payload, d.status);
    EXPECT_EQ("no payload", d.problem());
    Decoded u = tarn::decode_notification(51216, "x", 1);
    EXPECT_EQ(DecodeStatus::unknown_opcode, u.status);
    EXPECT_EQ("opcode 51216 has no known payload", u.problem());
    EXPECT_EQ(DecodeStatus::unknown_opcode, tarn::decode_notification(51207, nullptr, 0).status);
    // The notifications whose fields nobody reads decode without a payload.
    for (uint32_t op : {51205u, 51209u, 51211u, 51212u, 51213u}) {
        Decoded g = tarn::decode_notification(op, nullptr, 0);
        ASSERT_TRUE(g.complete()) << op;
        EXPECT_EQ(op, std::get<tarn::GyreNotice>(g.event).opcode);
    }
}

TEST(NotificationDecode, VlanRecordsInOrder)
{
    Payload p = vlan_update({{7, {10, 11, 12, 20}}, {8, {15}}}, 2);
    Decoded d = p.decode(51214);
    ASSERT_TRUE(d.complete()) << d.problem();
    const auto &e = std::get<tarn::TopologyVlansChanged>(d.event);
    ASSERT_EQ(2u, e.records.size());
    EXPECT_EQ(7u, e.records[0].topology);
    EXPECT_EQ("7", e.records[0].name);
    EXPECT_EQ(512u, e.records[0].bitmap_length);
    EXPECT_EQ("10-12,20", e.records[0].vlans.to_string());
    EXPECT_EQ(8u, e.records[1].topology);
    EXPECT_EQ((std::vector<uint32_t>{15}), e.records[1].vlans.to_vector());
    nlohmann::json j = nlohmann::json::parse(tarn::to_json(d));
    EXPECT_EQ("10-12,20", j["records"][0]["vlans"]);
    EXPECT_EQ((std::vector<uint32_t>{10, 11, 12, 20}), j["records"][0]["vlan_list"]);
    EXPECT_EQ(2, j["declared"]);
}

TEST(NotificationDecode, VlanUpdateCutAtEveryLength)
{
    Payload p = vlan_update({{7, {1}}, {8, {2}}}, 2);
    for (size_t len = 0; len <= p.bytes.size(); ++len) {
        Decoded d = p.decode(51214, len);
        if (len < 24) {
            EXPECT_EQ(DecodeStatus::too_short, d.status) << len;
            continue;
        }
        const auto &e = std::get<tarn::TopologyVlansChanged>(d.event);
        const size_t whole = (len - 24) / 556;
        ASSERT_EQ(whole, e.records.size()) << len;
        if (whole == 2) {
            EXPECT_TRUE(d.complete());
        } else {
            EXPECT_EQ(DecodeStatus::truncated, d.status);
            EXPECT_EQ("a payload of " + std::to_string(len) + " bytes holds " +
                          std::to_string(whole) + " whole records of the 2 it declares",
                      d.problem());
        }
    }
}

TEST(NotificationDecode, HugeCountsDecodeOnlyWholeRecords)
{
    Payload v = vlan_update({{7, {1}}}, 0xFFFFFFFFu);
    Decoded d = v.decode(51214);
    EXPECT_EQ(DecodeStatus::truncated, d.status);
    EXPECT_EQ(1u, std::get<tarn::TopologyVlansChanged>(d.event).records.size());
    Payload f = ftag_update(0xFFFFFFFFu, 1);
    Decoded g = f.decode(51215);
    EXPECT_EQ(DecodeStatus::truncated, g.status);
    EXPECT_EQ("a payload of 1052 bytes holds 1 whole entries of the 4294967295 it declares",
              g.problem());
    // A count of 0 with records behind it decodes none, and is complete.
    Decoded z = ftag_update(0, 2).decode(51215);
    EXPECT_TRUE(z.complete());
    EXPECT_TRUE(std::get<tarn::FtagsChanged>(z.event).entries.empty());
}

TEST(NotificationDecode, FtagEntries)
{
    Payload p = ftag_update(3, 3);
    Decoded d = p.decode(51215);
    ASSERT_TRUE(d.complete());
    const auto &e = std::get<tarn::FtagsChanged>(d.event);
    ASSERT_EQ(3u, e.entries.size());
    EXPECT_EQ(1u, e.entries[0].reason);
    EXPECT_EQ(10u, e.entries[0].topology);
    EXPECT_EQ(1u, e.entries[0].graph);
    EXPECT_EQ(100u, e.entries[0].ftag);
    EXPECT_EQ(0x14u, e.entries[0].flags);
    EXPECT_EQ(3u, e.entries[2].reason);
    nlohmann::json j = nlohmann::json::parse(tarn::to_json(d));
    EXPECT_EQ("GYRE_FTAG_DELETE", j["entries"][2]["reason_name"]);
    EXPECT_EQ(102, j["entries"][2]["ftag"]);
}

TEST(NotificationDecode, FtagUpdateCutAtEveryLength)
{
    Payload p = ftag_update(2, 2);
    for (size_t len = 0; len <= p.bytes.size(); ++len) {
        Decoded d = p.decode(51215, len);
        if (len < 4) {
            EXPECT_EQ(DecodeStatus::too_short, d.status) << len;
            EXPECT_EQ(4u, d.needed);
            continue;
        }
        const size_t whole = (len - 4) / 1048;
        EXPECT_EQ(whole, std::get<tarn::FtagsChanged>(d.event).entries.size()) << len;
        EXPECT_EQ(whole == 2, d.complete()) << len;
    }
}

TEST(NotificationDecode, AttributeChangeKinds)
{
    Payload as(28);
    as.u16(2, 1).u32(24, 2);
    EXPECT_EQ(2u, std::get<tarn::AsFormatChanged>(as.decode(51226).event).format);

    Payload del(164);
    del.u16(2, 2).u32(28, 9).bit(36, 5).bit(36, 6).bit(36, 1023);
    Decoded d = del.decode(51226);
    const auto &k2 = std::get<tarn::TopologyFtagsDeleted>(d.event);
    EXPECT_EQ(9u, k2.topology);
    EXPECT_EQ("5-6,1023", k2.ftags.to_string());

    Payload flush(4);
    flush.u16(2, 3);
    EXPECT_TRUE(std::holds_alternative<tarn::GyreCacheFlushed>(flush.decode(51226).event));

    Payload dump(28);
    dump.u16(2, 4).u32(4, 1234).u32(8, 77).u64(12, 0x0102030405060708ull).u32(20, 28).u32(24, 3);
    const Decoded dumped = dump.decode(51226);
    const auto &req = std::get<tarn::CacheDumpRequest>(dumped.event);
    EXPECT_EQ(1234u, req.pid);
    EXPECT_EQ(77u, req.epid);
    EXPECT_EQ(0x0102030405060708ull, req.time);
    EXPECT_EQ(28u, req.length);
    EXPECT_EQ(3u, req.iteration);

    Payload other(4);
    other.u16(2, 7);
    EXPECT_EQ(7u, std::get<tarn::AttributeChanged>(other.decode(51226).event).kind);
}

TEST(NotificationDecode, AttributeChangeCutAtEveryLength)
{
    struct Case {
        uint16_t kind;
        size_t needed;
    } const cases[] = {{1, 28}, {2, 164}, {3, 4}, {4, 28}, {9, 4}};
    for (const Case &c : cases) {
        Payload p(c.needed);
        p.u16(2, c.kind);
        for (size_t len = 0; len <= c.needed; ++len) {
            Decoded d = p.decode(51226, len);
            if (len < 4) {
                EXPECT_EQ(DecodeStatus::too_short, d.status);
                EXPECT_EQ(4u, d.needed);
            } else if (len < c.needed) {
                EXPECT_EQ(DecodeStatus::too_short, d.status) << c.kind << " " << len;
                EXPECT_EQ(c.needed, d.needed);
            } else {
                EXPECT_TRUE(d.complete()) << c.kind;
            }
        }
    }
}

TEST(NotificationDecode, ProtocolConfigChangeAndFtagNotice)
{
    Payload p(88);
    p.u32(0, 5).u32(4, 6).text(8, "ospf").text(41, "tenant-red").u16(74, 3);
    p.u32(76, 1).u32(80, 2).u32(84, 3);
    Decoded d = p.decode(51222);
    ASSERT_TRUE(d.complete());
    const auto &c = std::get<tarn::ProtocolConfigChange>(d.event);
    EXPECT_EQ(5u, c.type);
    EXPECT_EQ(6u, c.param);
    EXPECT_EQ("ospf", c.name);
    EXPECT_EQ("tenant-red", c.context);
    EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), c.entries);
    for (size_t len = 0; len < 88; ++len) {
        Decoded cut = p.decode(51222, len);
        if (len < 76)
            EXPECT_EQ(DecodeStatus::too_short, cut.status);
        else
            EXPECT_EQ((len - 76) / 4, std::get<tarn::ProtocolConfigChange>(cut.event).entries.size());
    }

    Payload n(12);
    n.u32(4, 0).u32(8, 17);
    const Decoded noticed = n.decode(51223);
    const auto &stale = std::get<tarn::FtagNotice>(noticed.event);
    EXPECT_EQ(0u, stale.kind);
    EXPECT_EQ(17u, stale.topology);
    EXPECT_EQ(DecodeStatus::too_short, n.decode(51223, 11).status);
}

TEST(NotificationDecode, CacheDumpPage)
{
    Payload p(12 + 2 * 656);
    p.u32(0, 3).u32(4, 0).u32(8, 2);
    p.u32(12, 10).u32(16, 128).bit(20, 3).u32(148, 512).bit(152, 100).u32(664, 1);
    p.u32(668, 11).u32(1320, 0);
    Decoded d = tarn::decode_cache_dump_page(p.bytes.data(), p.bytes.size());
    ASSERT_TRUE(d.complete()) << d.problem();
    const auto &page = std::get<tarn::CacheDumpPage>(d.event);
    ASSERT_EQ(2u, page.records.size());
    EXPECT_EQ("3", page.records[0].ftags.to_string());
    EXPECT_EQ("100", page.records[0].vlans.to_string());
    EXPECT_EQ(1u, page.records[0].in_sync);
    EXPECT_EQ(0u, page.records[1].in_sync);
    for (size_t len = 0; len <= p.bytes.size(); ++len) {
        Decoded cut = tarn::decode_cache_dump_page(p.bytes.data(), len);
        if (len < 12)
            EXPECT_EQ(DecodeStatus::too_short, cut.status);
        else
            EXPECT_EQ((len - 12) / 656, std::get<tarn::CacheDumpPage>(cut.event).records.size());
    }
    // A page of status 0 is its status word alone.
    Payload none(4);
    Decoded z = tarn::decode_cache_dump_page(none.bytes.data(), 4);
    EXPECT_TRUE(z.complete());
    EXPECT_EQ(0u, std::get<tarn::CacheDumpPage>(z.event).status);
}

TEST(NotificationJson, NamesThatAreNotUtf8StayValidJson)
{
    Payload p = vlan_update({{7, {}}}, 1);
    const char name[] = "a\"b\\\x01\xff\xc3\xa9";
    memcpy(&p.bytes[24 + 4], name, sizeof name - 1);
    const std::string text = tarn::to_json(p.decode(51214));
    nlohmann::json j = nlohmann::json::parse(text);
    EXPECT_EQ("a\"b\\\x01\xc3\xbf\xc3\xa9", j["records"][0]["name"].get<std::string>());
    EXPECT_EQ("--", j["records"][0]["vlans"]);
    EXPECT_TRUE(j["records"][0]["vlan_list"].empty());
    // Lead bytes past 0xF4 start no character (found by fuzz_notification).
    Payload high = vlan_update({{7, {}}}, 1);
    memcpy(&high.bytes[24 + 4], "re\xff\xb9\xb9\xf5\x80\x80\x80", 9);
    nlohmann::json h = nlohmann::json::parse(tarn::to_json(high.decode(51214)), nullptr, false);
    ASSERT_FALSE(h.is_discarded());
    EXPECT_EQ("re\xc3\xbf\xc2\xb9\xc2\xb9\xc3\xb5\xc2\x80\xc2\x80\xc2\x80",
              h["records"][0]["name"].get<std::string>());
    // A name that fills its 33 bytes without a NUL stops at the field's end.
    Payload full = vlan_update({{7, {}}}, 1);
    memset(&full.bytes[24 + 4], 'x', 36);
    EXPECT_EQ(std::string(33, 'x'),
              std::get<tarn::TopologyVlansChanged>(full.decode(51214).event).records[0].name);
}

// The C entry point of libtarnhost renders the same document, snprintf-like.
TEST(NotificationJson, HostEntryPointGivesTheSameDocument)
{
    Payload p = vlan_update({{7, {10, 11}}}, 3);
    const std::string want = tarn::to_json(p.decode(51214));
    const uint32_t len = static_cast<uint32_t>(p.bytes.size());
    EXPECT_EQ(static_cast<int64_t>(want.size()),
              tarnhost_notification_json(TARNHOST_PAYLOAD_NOTIFICATION, 51214, p.bytes.data(), len,
                                         nullptr, 0));
    std::vector<char> small(want.size(), 'z');
    EXPECT_EQ(static_cast<int64_t>(want.size()),
              tarnhost_notification_json(TARNHOST_PAYLOAD_NOTIFICATION, 51214, p.bytes.data(), len,
                                         small.data(), static_cast<uint32_t>(small.size())));
    EXPECT_EQ(std::string(want.size(), 'z'), std::string(small.begin(), small.end()));
    std::vector<char> buf(want.size() + 1);
    ASSERT_EQ(static_cast<int64_t>(want.size()),
              tarnhost_notification_json(TARNHOST_PAYLOAD_NOTIFICATION, 51214, p.bytes.data(), len,
                                         buf.data(), static_cast<uint32_t>(buf.size())));
    EXPECT_EQ(want, std::string(buf.data()));
    const nlohmann::json j = nlohmann::json::parse(want);
    EXPECT_EQ(false, j["complete"]);
    EXPECT_EQ("a payload of 580 bytes holds 1 whole records of the 3 it declares", j["problem"]);

    Payload page(4);
    char out[256];
    ASSERT_GT(tarnhost_notification_json(TARNHOST_PAYLOAD_DUMP_PAGE, 0, page.bytes.data(), 4, out,
                                         sizeof out), 0);
    EXPECT_EQ(R"({"type":"cache_dump_page","complete":true,"problem":null,"status":0,)"
              R"("next_iteration":0,"declared":0,"records":[]})",
              std::string(out));
    EXPECT_EQ(-1, tarnhost_notification_json(2, 0, nullptr, 0, out, sizeof out));
    ASSERT_GT(tarnhost_notification_json(TARNHOST_PAYLOAD_NOTIFICATION, 51210, nullptr, 0, out,
                                         sizeof out), 0);
    EXPECT_EQ(R"({"type":"undecodable","complete":false,"problem":"no payload"})", std::string(out));
}

// The range text is the library's, byte for byte, also where the library
// cuts an overlong text.
TEST(Sets, RangeTextIsTheLibrarys)
{
    std::vector<tarn::VlanSet> sets = {tarn::VlanSet{}, tarn::VlanSet::of({0}),
                                       tarn::VlanSet::range(0, 4095),
                                       tarn::VlanSet::of({1, 2, 3, 5, 10, 11}),
                                       tarn::VlanSet::of({4095}), tarn::VlanSet::range(4000, 4095)};
    tarn::VlanSet even, third;
    for (uint32_t v = 0; v < 4096; v += 2)
        even.insert(v);
    for (uint32_t v = 0; v < 4096; v += 3)
        third.insert(v);
    sets.push_back(even);
    sets.push_back(third);
    for (const tarn::VlanSet &s : sets) {
        gyre_vlan_bmp_t bmp;
        bmp.len = 512;
        memcpy(bmp.bits, s.data(), 512);
        EXPECT_EQ(std::string(gyre_vlans2str(&bmp)), s.to_string());
    }
    tarn::FtagSet f;
    for (uint32_t t = 1; t < 1024; t += 2)
        f.insert(t);
    gyre_ftag_bmp_t fb;
    fb.len = 128;
    memcpy(fb.bits, f.data(), 128);
    EXPECT_EQ(std::string(gyre_ftag2str(&fb)), f.to_string());
}

TEST(Sets, Operations)
{
    auto a = tarn::VlanSet::range(10, 20);
    auto b = tarn::VlanSet::of({15, 30});
    EXPECT_EQ("10-20,30", (a | b).to_string());
    EXPECT_EQ("15", (a & b).to_string());
    EXPECT_EQ("10-14,16-20", (a - b).to_string());
    EXPECT_EQ("10-14,16-20,30", (a ^ b).to_string());
    EXPECT_EQ(11u, a.count());
    EXPECT_TRUE(tarn::VlanSet::of({15}).is_subset_of(a));
    EXPECT_FALSE(b.is_subset_of(a));
    EXPECT_TRUE(a.contains(20));
    EXPECT_FALSE(a.contains(4096));
    a.insert(5000);  // outside: ignored
    EXPECT_EQ(11u, a.count());
    EXPECT_EQ(4096u - 11u, (~a).count());
    EXPECT_EQ(a, tarn::VlanSet::range(10, 20));
    EXPECT_NE(a, b);
}

}  // namespace
