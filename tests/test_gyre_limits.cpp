// The Gyre side at its limits: the highest ftag and VLAN on both sides, on
// the cache path and the database path; notification counts larger than
// the entries that follow and at the size where their product would pass
// 32 bits; the largest notifications the bus carries; the table id from
// which a record is a topology; topology names that share a prefix; and
// records no device description can produce, written straight into the
// store.

#include <arpa/inet.h>

#include "test_gyre_support.h"

namespace {

using namespace gyretest;

constexpr uint32_t kCreate = 51208;
constexpr uint32_t kVlans = 51214;
constexpr uint32_t kFtags = 51215;

const std::string kGyreUri = std::string(TARNHOST_RUNNING_URI) + "/gyre_kvs_info";

class GyreLimits : public GyreTest {
protected:
    void put_gyre(const Bytes &key, const Bytes &value)
    {
        ASSERT_EQ(0u, tarnhost_kvs_put(kGyreUri.c_str(), key.data(),
                                       static_cast<uint32_t>(key.size()), value.data(),
                                       static_cast<uint32_t>(value.size())));
    }
    // A topology-ftag record (type 4) whose value starts with `ftag`, the
    // value `len` bytes long.
    void put_tpg_ftag(uint32_t tpg, uint16_t graph, uint8_t flags, uint16_t ftag, size_t len = 8)
    {
        Bytes key(GYRE_KEY_SIZE, 0);
        gyre_make_tpg_ftag_key_new(key.data(), tpg | 0xC0000000u, flags, graph);
        Bytes value(len, 0);
        memcpy(value.data(), &ftag, len < 2 ? len : 2);
        put_gyre(key, value);
    }
    // A Tarn table record (kind 4) under `table_id`.
    static void put_table(uint32_t table_id, const char *name)
    {
        tarn_table_info_t rec;
        memset(&rec, 0, sizeof rec);
        rec.tpg_id = table_id;
        strncpy(rec.name, name, sizeof rec.name - 1);
        void *buf = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(0u, tarn_table_info_to_tlv(&rec, &buf, &len, 0, nullptr, 0));
        Bytes key(48, 0);
        const uint32_t kind = htonl(4), id = htonl(table_id);
        memcpy(&key[0], &kind, 4);
        memcpy(&key[4], &id, 4);
        ASSERT_EQ(0u, tarnhost_kvs_put(tarntest::tarn_kvs_uri().c_str(), key.data(), 48, buf,
                                       len));
        free(buf);
    }
    static uint32_t owner_of_ftag(uint32_t f)
    {
        const gyre_cache_tpg_node_t *o = gyre_cache->ftags[f].owner;
        return o != nullptr ? o->tpg_id : GYRE_TPG_NONE;
    }
    static uint32_t owner_of_vlan(uint32_t v)
    {
        const gyre_cache_tpg_node_t *o = gyre_cache->vlans[v];
        return o != nullptr ? o->tpg_id : GYRE_TPG_NONE;
    }
    static std::map<uint32_t, Set> ftags_by_node()
    {
        std::map<uint32_t, Set> out;
        for (const auto &n : cache_nodes())
            out[n.first] = n.second.ftags;
        return out;
    }
    static std::map<uint32_t, Set> vlans_by_node()
    {
        std::map<uint32_t, Set> out;
        for (const auto &n : cache_nodes())
            out[n.first] = n.second.vlans;
        return out;
    }
};

// ---- the highest ftag and VLAN ------------------------------------------------------------------

// Ftag 1023 is a ftag like any other; 1024 and above are in no table and
// an entry that names one is passed over, whatever its reason.
TEST_F(GyreLimits, FtagUpdateTakes1023AndPassesOver1024)
{
    load(R"({"topologies": [{"id": 7}]})");
    ASSERT_EQ(1u, enable_cache());
    EXPECT_EQ(0, apply(kFtags, ftags_payload({{1, 7, 2, 1023, 6},
                                              {1, 9, 2, 1024, 6},
                                              {2, 9, 2, 0xFFFF, 6},
                                              {1, 7, 3, 0, 2}})));
    EXPECT_EQ((std::map<uint32_t, Set>{{7, {0, 1023}}}), ftags_by_node())
        << "no node for the topology of an entry passed over";
    EXPECT_EQ(7u, owner_of_ftag(1023));
    EXPECT_EQ(2u, gyre_cache->ftags[1023].graph_id);
    EXPECT_EQ(6u, gyre_cache->ftags[1023].flags);
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(1023));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(1024));
    uint16_t ftag = 0;
    ASSERT_EQ(1u, gyre_get_l2_tpg_ftag(7, 2, &ftag));
    EXPECT_EQ(1023u, ftag);
    // A delete of 1024 changes nothing; of 1023, the entry.
    EXPECT_EQ(0, apply(kFtags, ftags_payload({{3, 7, 0, 1024, 0}})));
    EXPECT_EQ(7u, owner_of_ftag(1023));
    EXPECT_EQ(0, apply(kFtags, ftags_payload({{3, 7, 0, 1023, 0}})));
    EXPECT_EQ(GYRE_TPG_NONE, owner_of_ftag(1023));
    EXPECT_EQ((std::map<uint32_t, Set>{{7, {0}}}), ftags_by_node());
    EXPECT_EQ("", invariant_violation());
}

// Every query keyed by a VLAN or a ftag answers for VLAN 4095 and ftag 1023
// and refuses 4096 and 1024, on the database path and on the cache path.
TEST_F(GyreLimits, EveryKeyedQueryAtTheHighestVlanAndFtagOnBothPaths)
{
    load(R"({"topologies": [{"id": 7, "active_vlans": "4094-4095",
                             "ftags": [{"ftag": 1023, "graph": 1}, {"ftag": 1022, "graph": 2}]}]})");
    for (int cached = 0; cached < 2; ++cached) {
        SCOPED_TRACE(cached ? "cache" : "database");
        if (cached) {
            ASSERT_EQ(1u, enable_cache());
        }
        uint16_t ftag = 0;
        EXPECT_EQ(7u, gyre_get_vlan_l2_tpg(4095));
        EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(4096));
        EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(1023));
        EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(1024));
        ftag = 0;
        ASSERT_EQ(1u, gyre_get_vlan_ftag(4095, 1, &ftag));
        EXPECT_EQ(1023u, ftag);
        ASSERT_EQ(1u, gyre_get_vlan_ftag(4095, 2, &ftag));
        EXPECT_EQ(1022u, ftag);
        EXPECT_EQ(0u, gyre_get_vlan_ftag(4096, 1, &ftag));
        ftag = 0;
        ASSERT_EQ(1u, gyre_get_unicast_ftag_by_vlan(4095, &ftag));
        EXPECT_EQ(cached ? 1022u : 1023u, ftag)
            << "the cache takes the lowest ftag with any flags, deliberately";
        EXPECT_EQ(0u, gyre_get_unicast_ftag_by_vlan(4096, &ftag));
        gyre_vlan_bmp_t out = vlan_bmp({});
        ASSERT_EQ(1u, gyre_get_ftag_vlans(1023, &out));
        EXPECT_EQ((Set{4094, 4095}), bits_of(out.bits, GYRE_VLAN_COUNT));
        out = vlan_bmp({1});
        EXPECT_EQ(0u, gyre_get_ftag_vlans(1024, &out));
        EXPECT_EQ((Set{1}), bits_of(out.bits, GYRE_VLAN_COUNT));
    }
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreLimits, VlanUpdateCarriesVlans0And4095)
{
    load(R"({"topologies": [{"id": 7}, {"id": 8}]})");
    ASSERT_EQ(1u, enable_cache());
    EXPECT_EQ(0, apply(kVlans, vlans_payload({{7, {0, 4095}}, {8, {4094}}})));
    EXPECT_EQ(7u, owner_of_vlan(0));
    EXPECT_EQ(7u, owner_of_vlan(4095));
    EXPECT_EQ(8u, owner_of_vlan(4094));
    EXPECT_EQ(7u, gyre_get_vlan_l2_tpg(4095));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(4096));
    // Moving 4095 away clears its slot from the old owner.
    EXPECT_EQ(0, apply(kVlans, vlans_payload({{7, {1}}, {8, {4095}}})));
    EXPECT_EQ(8u, owner_of_vlan(4095));
    EXPECT_EQ(GYRE_TPG_NONE, owner_of_vlan(0));
    EXPECT_EQ(GYRE_TPG_NONE, owner_of_vlan(4094));
    EXPECT_EQ("", invariant_violation());
}

// The delete-ftags notification's bitmap reaches ftag 1023 and clears its
// entry whoever owns it; a bitmap one byte short is not read at all.
TEST_F(GyreLimits, DeleteTopologyFtagsReachesFtag1023AndNeedsTheWholeBitmap)
{
    load(R"({"topologies": [{"id": 7, "ftags": [{"ftag": 1023, "graph": 2}]},
                            {"id": 8, "ftags": [{"ftag": 1022, "graph": 2}]}]})");
    ASSERT_EQ(1u, enable_cache());
    ASSERT_EQ(7u, owner_of_ftag(1023));
    Bytes shortp = attr_payload(2, 8, {1023, 1022});
    shortp.resize(163);
    EXPECT_EQ(1, attr(shortp));
    EXPECT_EQ(7u, owner_of_ftag(1023));
    EXPECT_EQ(8u, owner_of_ftag(1022));
    EXPECT_EQ((Set{1022}), cache_nodes().find(8)->second.ftags);
    EXPECT_EQ(1, attr(attr_payload(2, 8, {1023})));
    EXPECT_EQ(GYRE_TPG_NONE, owner_of_ftag(1023)) << "cleared though topology 7 owned it";
    EXPECT_EQ(8u, owner_of_ftag(1022)) << "not named in the bitmap";
    EXPECT_EQ(Set{}, cache_nodes().find(8)->second.ftags);
    EXPECT_EQ((Set{1023}), cache_nodes().find(7)->second.ftags)
        << "the owner's own bit is left as it was";
}

// ---- counts larger than the data that follows ----------------------------------------------------

// However large the count, only the entries the payload holds are read;
// a count whose entries would reach past 4 GiB (1048 x count passes 32
// bits) is no exception.
TEST_F(GyreLimits, FtagUpdateCountLargerThanItsEntries)
{
    load(R"({"topologies": [{"id": 7}]})");
    ASSERT_EQ(1u, enable_cache());
    for (uint32_t count : {2u, 4098252u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(count);
        Bytes p = ftags_payload({{1, 7, 2, 5, 2}});
        put32(p, 0, count);
        EXPECT_EQ(0, apply(kFtags, p));
        EXPECT_EQ((std::map<uint32_t, Set>{{7, {5}}}), ftags_by_node());
        EXPECT_EQ(0, apply(kFtags, ftags_payload({{3, 7, 0, 5, 0}})));
    }
    // An entry one byte short is not an entry.
    Bytes p = ftags_payload({{1, 7, 2, 5, 2}});
    p.resize(p.size() - 1);
    EXPECT_EQ(0, apply(kFtags, p));
    EXPECT_EQ((std::map<uint32_t, Set>{{7, {}}}), ftags_by_node());
    // Just the count: nothing to read.
    EXPECT_EQ(0, apply(kFtags, Bytes{1, 0, 0, 0}));
    EXPECT_EQ((std::map<uint32_t, Set>{{7, {}}}), ftags_by_node());
    bus_msg_t *msg = deliver(kFtags, Bytes{5, 0, 0, 0});
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(1u, gyre_cache_update_ftag(msg));
    bus_drop(client_, msg);
    msg = deliver(kFtags, Bytes{5, 0, 0});
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(0u, gyre_cache_update_ftag(msg)) << "too short for its count";
    bus_drop(client_, msg);
}

TEST_F(GyreLimits, VlanUpdateCountLargerThanItsRecords)
{
    load(R"({"topologies": [{"id": 7}]})");
    ASSERT_EQ(1u, enable_cache());
    // 556 x count passes 32 bits from 7724839 on.
    for (uint32_t count : {2u, 7724839u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(count);
        Bytes p = vlans_payload({{7, {11, 4095}}});
        put32(p, 20, count);
        EXPECT_EQ(0, apply(kVlans, p));
        EXPECT_EQ((std::map<uint32_t, Set>{{7, {11, 4095}}}), vlans_by_node());
        EXPECT_EQ(0, apply(kVlans, vlans_payload({{7, {}}})));
    }
    Bytes p = vlans_payload({{7, {11}}, {9, {12}}});
    p.resize(p.size() - 1);
    EXPECT_EQ(0, apply(kVlans, p));
    EXPECT_EQ((std::map<uint32_t, Set>{{7, {11}}}), vlans_by_node())
        << "the second record, one byte short, is not read";
    Bytes bare(24, 0);
    put32(bare, 20, 1);
    EXPECT_EQ(0, apply(kVlans, bare));
    EXPECT_EQ((std::map<uint32_t, Set>{{7, {11}}}), vlans_by_node());
    EXPECT_EQ("", invariant_violation());
}

// ---- the largest notifications ------------------------------------------------------------------

// 250 ftag entries are the most one bus message holds; all are applied.
TEST_F(GyreLimits, LargestFtagUpdateIsAppliedWhole)
{
    ASSERT_LE(4u + 250u * 1048u, BUS_MAX_PAYLOAD);
    ASSERT_GT(4u + 251u * 1048u, BUS_MAX_PAYLOAD);
    load(R"({"topologies": [{"id": 7}]})");
    ASSERT_EQ(1u, enable_cache());
    std::vector<FtagEntry> entries;
    Set want;
    for (uint16_t i = 0; i < 250; ++i) {
        const uint16_t f = static_cast<uint16_t>(1023 - i * 4);
        entries.push_back({1, static_cast<uint32_t>(7 + i % 3), static_cast<uint16_t>(i), f, 2});
        want.insert(f);
    }
    EXPECT_EQ(0, apply(kFtags, ftags_payload(entries)));
    Set got;
    for (const auto &n : cache_nodes())
        got.insert(n.second.ftags.begin(), n.second.ftags.end());
    EXPECT_EQ(want, got);
    EXPECT_EQ(9u, owner_of_ftag(1023 - 2 * 4));
    EXPECT_EQ(249u, gyre_cache->ftags[1023 - 249 * 4].graph_id);
    EXPECT_EQ("", invariant_violation());
}

// 471 topology records are the most one bus message holds; all are applied.
TEST_F(GyreLimits, LargestVlanUpdateIsAppliedWhole)
{
    ASSERT_LE(24u + 471u * 556u, BUS_MAX_PAYLOAD);
    ASSERT_GT(24u + 472u * 556u, BUS_MAX_PAYLOAD);
    load(R"({"topologies": [{"id": 1}]})");
    ASSERT_EQ(1u, enable_cache());
    std::vector<std::pair<uint32_t, Set>> records;
    for (uint32_t t = 1; t <= 471; ++t)
        records.push_back({t, {t * 8, t * 8 + 7 > 4095 ? 4095 : t * 8 + 7}});
    EXPECT_EQ(0, apply(kVlans, vlans_payload(records)));
    EXPECT_EQ(471u, cache_nodes().size());
    EXPECT_EQ(471u, owner_of_vlan(471 * 8));
    EXPECT_EQ(1u, owner_of_vlan(15));
    EXPECT_EQ(GYRE_TPG_NONE, owner_of_vlan(7));
    EXPECT_EQ("", invariant_violation());
}

// ---- cells -------------------------------------------------------------------------------------

// The Gyre side serves cell 1 only: cells 0 and 5 are invalid, 4 is out of
// range, and only the low 16 bits name the cell.
TEST_F(GyreLimits, CellsAroundTheServedCell)
{
    load(R"({"topologies": [{"id": 7}]})");
    ASSERT_EQ(1u, enable_cache());
    for (uint32_t cell : {0u, 4u, 5u, 0x10000u}) {
        SCOPED_TRACE(cell);
        tarnhost_cell_set(cell);
        tarnhost_log_throttle_reset();
        tarnhost_capture_clear();
        tarn_table_info_t info;
        EXPECT_EQ(0u, gyre_get_first_l2_tpg(&info));
        EXPECT_EQ(0u, gyre_ftag_converge());
        EXPECT_EQ(0, apply(kCreate, tpg_payload(9)));
        const char *what = cell == 4 ? "ctx range" : "IS_CELL_IS_VALID()";
        EXPECT_EQ((std::vector<std::string>{cell_line(what, "gyre_get_first_l2_tpg"),
                                            cell_line(what, "gyre_ftag_converge"),
                                            cell_line(what, "gyre_dispatch_internal")}),
                  syslog_lines());
        EXPECT_EQ(0u, cache_nodes().count(9));
    }
    tarnhost_cell_set(0x50001);
    tarnhost_capture_clear();
    tarn_table_info_t info;
    EXPECT_EQ(7u, gyre_get_first_l2_tpg(&info));
    EXPECT_EQ(0, apply(kCreate, tpg_payload(9)));
    EXPECT_EQ(1u, cache_nodes().count(9));
    EXPECT_TRUE(syslog_lines().empty());
}

// ---- attribute kinds ----------------------------------------------------------------------------

// Kinds 1 to 4 act; 0, 5 and the largest are dropped as handled and change
// nothing, neither the AS format nor the cache.
TEST_F(GyreLimits, AttributeKindsOneToFourAndTheKindsAroundThem)
{
    load(R"({"topologies": [{"id": 7, "ftags": [{"ftag": 5, "graph": 2}]}]})");
    ASSERT_EQ(1u, enable_cache());
    ASSERT_EQ(1u, tarn_enable_cache_mode(1));
    ASSERT_EQ(1u, tarn_get_as_format());
    for (uint32_t kind : {0u, 5u, 0xFFFFu}) {
        SCOPED_TRACE(kind);
        Bytes p = attr_payload(static_cast<uint16_t>(kind), 7, {5});
        put32(p, 24, 9);
        EXPECT_EQ(1, attr(p));
        EXPECT_EQ(1u, tarn_get_as_format());
        ASSERT_NE(nullptr, gyre_cache);
        EXPECT_EQ(7u, owner_of_ftag(5));
    }
    Bytes p = attr_payload(1);
    put32(p, 24, 9);
    EXPECT_EQ(1, attr(p));
    EXPECT_EQ(9u, tarn_get_as_format());
    EXPECT_EQ(1, attr(attr_payload(2, 7, {5})));
    EXPECT_EQ(GYRE_TPG_NONE, owner_of_ftag(5));
    EXPECT_EQ(1, attr(attr_payload(3)));
    EXPECT_EQ(nullptr, gyre_cache);
    EXPECT_EQ(1u, gyre_cache_enabled);
    EXPECT_TRUE(syslog_lines().empty());
}

// ---- dump pages at the edge of 32 bits ----------------------------------------------------------

// The first record of page i is (i - 1) x 16: for an iteration from
// 0x10000000 on that product passes 32 bits, and such a page is still past
// the last, not a page that wraps round to the first records.
TEST_F(GyreLimits, DumpIterationsWhoseStartPasses32Bits)
{
    load(R"({"topologies": [{"id": 7}, {"id": 8}, {"id": 9}]})");
    ASSERT_EQ(1u, enable_cache());
    uint32_t size = 0;
    void *page = gyre_cache_build_resp_info(1, &size);
    ASSERT_NE(nullptr, page);
    EXPECT_EQ(12u + 3u * 656u, size);
    free(page);
    page = gyre_cache_build_resp_info(2, &size);
    EXPECT_EQ(nullptr, page);
    free(page);
    for (uint32_t it : {0x0FFFFFFFu, 0x10000000u, 0x10000001u, 0x80000000u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(it);
        size = 7;
        page = gyre_cache_build_resp_info(it, &size);
        EXPECT_EQ(nullptr, page);
        EXPECT_EQ(7u, size);
        free(page);
    }
}

// ---- the table id from which a record is a topology --------------------------------------------

// Table ids from 0xC0000000 on are topologies, 0xBFFFFFFF and below are
// not.  A record at exactly 0xC0000000, which no description writes, is
// a topology whose id is 0; the walk answers it as it is.
TEST_F(GyreLimits, TopologiesStartAtTableIdC0000000)
{
    load(R"({"contexts": [{"id": 1, "name": "default"}]})");
    put_table(0xBFFFFFFF, "below");
    put_table(0xC0000007, "seven");
    put_table(0xFFFFFFFF, "top");
    tarn_table_info_t info;
    memset(&info, 0, sizeof info);
    EXPECT_EQ(7u, gyre_get_first_l2_tpg(&info));
    EXPECT_STREQ("seven", info.name);
    EXPECT_EQ(7u, info.tpg_id);
    EXPECT_EQ(0x3FFFFFFFu, gyre_get_next_l2_tpg(&info));
    EXPECT_STREQ("top", info.name);
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_next_l2_tpg(&info));

    put_table(0xC0000000, "zero");
    EXPECT_EQ(0u, gyre_get_first_l2_tpg(&info));
    EXPECT_STREQ("zero", info.name);
    EXPECT_EQ(7u, gyre_get_next_l2_tpg(&info));
    EXPECT_EQ(0x3FFFFFFFu, gyre_get_next_l2_tpg(&info));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_next_l2_tpg(&info));
    EXPECT_TRUE(syslog_lines().empty());
}

// ---- topology names that share a prefix ---------------------------------------------------------

TEST_F(GyreLimits, TopologyNamesThatShareAPrefixAreDifferentRecords)
{
    load(R"({"topologies": [{"id": 1, "active_vlans": "1"}, {"id": 10, "active_vlans": "10"},
                            {"id": 100, "active_vlans": "100"}]})");
    for (int cached = 0; cached < 2; ++cached) {
        SCOPED_TRACE(cached ? "cache" : "database");
        if (cached) {
            ASSERT_EQ(1u, enable_cache());
        }
        for (uint32_t t : {1u, 10u, 100u}) {
            gyre_vlan_bmp_t out = vlan_bmp({});
            ASSERT_EQ(1u, gyre_get_l2_tpg_act_vlans(t, &out)) << t;
            EXPECT_EQ((Set{t}), bits_of(out.bits, GYRE_VLAN_COUNT)) << t;
        }
        gyre_vlan_bmp_t out = vlan_bmp({});
        EXPECT_EQ(0u, gyre_get_l2_tpg_act_vlans(1000, &out));
        EXPECT_EQ(0u, gyre_get_l2_tpg_act_vlans_by_name("1000", &out));
    }
}

// On the cache path a topology name is read as the device's 32-bit strtol
// reads it: a number beyond the 32-bit signed range saturates and names no
// topology, on every build, instead of wrapping round to a small id.
TEST_F(GyreLimits, CachedTopologyNamesBeyond32BitsSaturate)
{
    load(R"({"topologies": [{"id": 7, "active_vlans": "70"}]})");
    ASSERT_EQ(1u, enable_cache());
    gyre_vlan_bmp_t out = vlan_bmp({});
    for (const char *name : {"7", "0007", "7abc", "+7"}) {
        SCOPED_TRACE(name);
        out = vlan_bmp({});
        ASSERT_EQ(1u, gyre_get_l2_tpg_act_vlans_by_name(name, &out));
        EXPECT_EQ((Set{70}), bits_of(out.bits, GYRE_VLAN_COUNT));
    }
    // 2^32 + 7, -(2^32) + 7, and the first numbers past the signed range.
    for (const char *name : {"4294967303", "-4294967289", "2147483648", "-2147483649",
                             "18446744073709551623", "2147483647", "-1", "0", "abc"}) {
        SCOPED_TRACE(name);
        EXPECT_EQ(0u, gyre_get_l2_tpg_act_vlans_by_name(name, &out));
    }
}

// A name keyed in 33 bytes: 32 characters are kept and the rest cut, on
// the database path; names are decimal ids on the cache path.
TEST_F(GyreLimits, TopologyVlanNamesAreKeyedByTheir32FirstCharacters)
{
    load(R"({"topologies": [{"id": 7}]})");
    ASSERT_EQ(1u, gyre_api_init());
    const std::string n32 = std::string(31, 'x') + "y";
    gyre_tpg_vlan_info_t rec;
    gyre_tpg_vlan_info_default_init(&rec);
    rec.tpg_id = 0xC0000009u;
    memcpy(rec.name, n32.c_str(), 32);
    put_bit(rec.vlans.bits, 4095);
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, gyre_tpg_vlan_info_to_tlv(&rec, &buf, &len, 0, nullptr, 0));
    Bytes key(GYRE_KEY_SIZE, 0);
    gyre_make_tpg_vlans_key(key.data(), n32.c_str(), 1);
    put_gyre(key, Bytes(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len));
    free(buf);
    gyre_vlan_bmp_t out = vlan_bmp({});
    ASSERT_EQ(1u, gyre_get_l2_tpg_act_vlans_by_name(n32.c_str(), &out));
    EXPECT_EQ((Set{4095}), bits_of(out.bits, GYRE_VLAN_COUNT));
    ASSERT_EQ(1u, gyre_get_l2_tpg_act_vlans_by_name((n32 + "z").c_str(), &out));
    EXPECT_EQ(0u, gyre_get_l2_tpg_act_vlans_by_name(n32.substr(0, 31).c_str(), &out));
    EXPECT_EQ(0u, gyre_get_l2_tpg_cfg_vlans_by_name(n32.c_str(), &out)) << "another type";
}

// ---- records no description writes -------------------------------------------------------------

// The build takes the topology-ftag records as stored: a ftag past 1023 is
// passed over, and a value too short to hold a ftag is no record.
TEST_F(GyreLimits, BuildPassesOverFtagsPast1023AndShortValues)
{
    load(R"({"topologies": [{"id": 7, "ftags": [{"ftag": 1, "graph": 1}]}]})");
    ASSERT_EQ(1u, gyre_api_init());
    put_tpg_ftag(7, 5, 0x02, 1023);
    put_tpg_ftag(7, 6, 0x02, 1024);
    put_tpg_ftag(7, 7, 0x02, 0xFFFF);
    put_tpg_ftag(7, 8, 0x06, 2, 2);
    put_tpg_ftag(7, 9, 0x06, 3, 1);
    ASSERT_EQ(1u, enable_cache());
    EXPECT_EQ((std::map<uint32_t, Set>{{7, {1, 2, 1023}}}), ftags_by_node());
    EXPECT_EQ(5u, gyre_cache->ftags[1023].graph_id);
    EXPECT_EQ(8u, gyre_cache->ftags[2].graph_id);
    EXPECT_EQ(0x06u, gyre_cache->ftags[2].flags);
    EXPECT_EQ("", invariant_violation());
    // The database walks see the same records.
    gyre_disable_cache_mode();
    gyre_ftag_info_t info;
    memset(&info, 0, sizeof info);
    std::vector<uint32_t> seen;
    for (uint32_t more = gyre_get_l2_tpg_first_ftag(7, &info); more;
         more = gyre_get_l2_tpg_next_ftag(7, &info))
        seen.push_back(info.ftag);
    EXPECT_EQ((std::vector<uint32_t>{1, 1023, 1024, 0xFFFF, 2}), seen);
}

// A ftag in two topologies, which no description may hold: the build gives
// the ftag's entry to the topology walked last and leaves the bit in both,
// and the dump tells the first topology out of sync.  The database path
// answers from the ftag's own record.
TEST_F(GyreLimits, FtagStoredInTwoTopologies)
{
    load(R"({"topologies": [{"id": 7, "ftags": [{"ftag": 5, "graph": 2}]}, {"id": 8}]})");
    ASSERT_EQ(1u, gyre_api_init());
    put_tpg_ftag(8, 3, 0x02, 5);
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(5));
    ASSERT_EQ(1u, enable_cache());
    EXPECT_EQ((std::map<uint32_t, Set>{{7, {5}}, {8, {5}}}), ftags_by_node());
    EXPECT_EQ(8u, gyre_get_ftag_l2_tpg(5));
    EXPECT_EQ(3u, gyre_cache->ftags[5].graph_id);
    uint32_t size = 0;
    uint8_t *page = static_cast<uint8_t *>(gyre_cache_build_resp_info(1, &size));
    ASSERT_NE(nullptr, page);
    ASSERT_EQ(12u + 2u * 656u, size);
    uint32_t w = 0;
    memcpy(&w, page + 12, 4);
    EXPECT_EQ(7u, w);
    memcpy(&w, page + 12 + 652, 4);
    EXPECT_EQ(0u, w) << "topology 7 holds a ftag owned elsewhere";
    memcpy(&w, page + 12 + 656 + 652, 4);
    EXPECT_EQ(1u, w);
    free(page);
}

// A notification's flags are a 32-bit word: the cache keeps what the
// byte of a record could not hold.  The unicast answers take any non-zero
// flags, deliberately, and no flags at all is not unicast.
TEST_F(GyreLimits, CachedFlagsBeyondAByteAndNone)
{
    load(R"({"topologies": [{"id": 7, "active_vlans": "40"}]})");
    ASSERT_EQ(1u, enable_cache());
    EXPECT_EQ(0, apply(kFtags, ftags_payload({{1, 7, 1, 3, 0}, {1, 7, 2, 4, 0x100}})));
    EXPECT_EQ(0x100u, gyre_cache->ftags[4].flags);
    uint16_t ftag = 0;
    ASSERT_EQ(1u, gyre_get_l2_tpg_unicast_ftag(7, &ftag));
    EXPECT_EQ(4u, ftag);
    ASSERT_EQ(1u, gyre_get_unicast_ftag_by_vlan(40, &ftag));
    EXPECT_EQ(4u, ftag);
    ASSERT_EQ(1u, gyre_get_l2_tpg_ftag(7, 1, &ftag));
    EXPECT_EQ(3u, ftag) << "the graph answers ignore the flags";
    EXPECT_EQ(0, apply(kFtags, ftags_payload({{2, 7, 2, 4, 0}})));
    EXPECT_EQ(0u, gyre_get_l2_tpg_unicast_ftag(7, &ftag));
}

// Stored topology ids carry the top two bits; a record whose id lacks them,
// or has every bit set, is read back masked all the same.
TEST_F(GyreLimits, StoredTopologyIdsAreMaskedWhateverTheirTopBits)
{
    load(R"({"topologies": [{"id": 7}]})");
    ASSERT_EQ(1u, gyre_api_init());
    gyre_ftag_info_t f;
    memset(&f, 0, sizeof f);
    f.tpg_id = 7;  // without the stored bits
    f.ftag = 20;
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, gyre_ftag_info_to_tlv(&f, &buf, &len, 0, nullptr, 0));
    Bytes key(GYRE_KEY_SIZE, 0);
    gyre_make_ftag_tpg_key(key.data(), 20);
    put_gyre(key, Bytes(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len));
    free(buf);
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(20));
    gyre_kvs_vlan_info_t v;
    gyre_kvs_vlan_info_default_init(&v);
    v.tpg_id = 0xFFFFFFFF;
    buf = nullptr;
    ASSERT_EQ(0u, gyre_kvs_vlan_info_to_tlv(&v, &buf, &len, 0, nullptr, 0));
    gyre_make_vlan_tpg_key(key.data(), 4095);
    put_gyre(key, Bytes(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len));
    free(buf);
    EXPECT_EQ(0x3FFFFFFFu, gyre_get_vlan_l2_tpg(4095));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(4096));
}

}  // namespace
