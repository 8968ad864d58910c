// Forwarding-tag and topology queries: the database path, the cache path,
// the ftag walks, their failures, and both paths against random fabrics.

#include "test_gyre_support.h"

using namespace gyretest;

namespace {

constexpr uint32_t kUntouched = 0xDEADBEEFu;

class GyreQueries : public GyreTest {};

// ---- database path ------------------------------------------------------------------

TEST_F(GyreQueries, FtagOwnerFromTheDatabase)
{
    load_fixture("gyre_basic.json");
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(3));
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(6));
    EXPECT_EQ(8u, gyre_get_ftag_l2_tpg(9));
    EXPECT_EQ(12u, gyre_get_ftag_l2_tpg(0));
    EXPECT_EQ(1000u, gyre_get_ftag_l2_tpg(1023));
    // Absent: the negative answer and no report.
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(1));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(1024));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(0xFFFF));
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreQueries, VlanOwnerFromTheDatabase)
{
    load_fixture("gyre_basic.json");
    for (uint32_t v : {10u, 15u, 20u, 30u})
        EXPECT_EQ(7u, gyre_get_vlan_l2_tpg(v)) << v;
    for (uint32_t v : {100u, 110u})
        EXPECT_EQ(8u, gyre_get_vlan_l2_tpg(v)) << v;
    for (uint32_t v : {0u, 9u, 21u, 29u, 31u, 5u, 4095u, 4096u, 0xFFFFFFFFu})
        EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(v)) << v;
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreQueries, TopologyFtagByGraphReadsTheKeyOfThatGraph)
{
    load_fixture("gyre_basic.json");
    uint16_t ftag = 0xBEEF;
    // Graph 1 is read with flag byte 0x10 exactly: 7's graph-1 ftag carries
    // 0x14 and 8's carries 0x04, so neither is found; 12's carries 0x10.
    EXPECT_EQ(0u, gyre_get_l2_tpg_ftag(7, 1, &ftag));
    EXPECT_EQ(0u, gyre_get_l2_tpg_ftag(8, 1, &ftag));
    EXPECT_EQ(0xBEEF, ftag);
    EXPECT_EQ(1u, gyre_get_l2_tpg_ftag(12, 1, &ftag));
    EXPECT_EQ(0, ftag);
    // Other graphs with 0x02: ftag 5 (not 4, whose flags are 0x06).
    EXPECT_EQ(1u, gyre_get_l2_tpg_ftag(7, 2, &ftag));
    EXPECT_EQ(5, ftag);
    EXPECT_EQ(1u, gyre_get_l2_tpg_ftag(7, 3, &ftag));
    EXPECT_EQ(6, ftag);
    EXPECT_EQ(1u, gyre_get_l2_tpg_ftag(8, 3, &ftag));
    EXPECT_EQ(10, ftag);
    // 1000's graph-2 ftag has flag byte 0.
    EXPECT_EQ(0u, gyre_get_l2_tpg_ftag(1000, 2, &ftag));
    EXPECT_EQ(0u, gyre_get_l2_tpg_ftag(99, 2, &ftag));
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreQueries, UnicastFtagFromTheDatabase)
{
    load_fixture("gyre_basic.json");
    uint16_t ftag = 0xBEEF;
    EXPECT_EQ(1u, gyre_get_l2_tpg_unicast_ftag(12, &ftag));
    EXPECT_EQ(0, ftag);
    ftag = 0xBEEF;
    EXPECT_EQ(0u, gyre_get_l2_tpg_unicast_ftag(7, &ftag));
    EXPECT_EQ(0u, gyre_get_l2_tpg_unicast_ftag(8, &ftag));
    EXPECT_EQ(0u, gyre_get_l2_tpg_unicast_ftag(1000, &ftag));
    EXPECT_EQ(0xBEEF, ftag);
}

TEST_F(GyreQueries, FtagVlansFromTheDatabase)
{
    load_fixture("gyre_basic.json");
    gyre_vlan_bmp_t out = vlan_bmp({1, 2, 3}, kUntouched);
    EXPECT_EQ(1u, gyre_get_ftag_vlans(3, &out));
    EXPECT_EQ(512u, out.len);
    EXPECT_EQ(parse_ranges("10-20,30"), bits_of(out.bits, 4096));
    EXPECT_EQ(1u, gyre_get_ftag_vlans(0, &out));
    EXPECT_EQ(Set{}, bits_of(out.bits, 4096));
    // Topology 1000 has no VLAN record; ftag 1 has no owner.
    EXPECT_EQ(0u, gyre_get_ftag_vlans(1023, &out));
    EXPECT_EQ(0u, gyre_get_ftag_vlans(1, &out));
    EXPECT_EQ(0u, gyre_get_ftag_vlans(1024, &out));
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreQueries, VlanFtagsFromTheDatabase)
{
    load_fixture("gyre_basic.json");
    uint16_t ftag = 0xBEEF;
    EXPECT_EQ(1u, gyre_get_vlan_ftag(15, 2, &ftag));
    EXPECT_EQ(5, ftag);
    EXPECT_EQ(1u, gyre_get_vlan_ftag(100, 3, &ftag));
    EXPECT_EQ(10, ftag);
    ftag = 0xBEEF;
    EXPECT_EQ(0u, gyre_get_vlan_ftag(15, 1, &ftag));
    EXPECT_EQ(0u, gyre_get_vlan_ftag(21, 2, &ftag));
    EXPECT_EQ(0u, gyre_get_vlan_ftag(4096, 2, &ftag));
    EXPECT_EQ(0u, gyre_get_unicast_ftag_by_vlan(15, &ftag));
    EXPECT_EQ(0u, gyre_get_unicast_ftag_by_vlan(105, &ftag));
    EXPECT_EQ(0u, gyre_get_unicast_ftag_by_vlan(4096, &ftag));
    EXPECT_EQ(0xBEEF, ftag);
    EXPECT_TRUE(syslog_lines().empty());
}

// ---- database failures ---------------------------------------------------------------

TEST_F(GyreQueries, ReadFailuresAreReportedOncePerCall)
{
    load_fixture("gyre_basic.json");
    ASSERT_EQ(1u, gyre_api_init());
    tarnhost_fault_set("kpipe_kvs_read", KVS_ERR_IO, TARNHOST_FAULT_ALWAYS);
    uint16_t ftag = 0xBEEF;
    gyre_vlan_bmp_t out = vlan_bmp({}, kUntouched);
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(3));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(15));
    EXPECT_EQ(0u, gyre_get_l2_tpg_ftag(0x12345, 2, &ftag));
    EXPECT_EQ(0u, gyre_get_l2_tpg_unicast_ftag(0xABC, &ftag));
    EXPECT_EQ(0u, gyre_get_ftag_vlans(9, &out));
    EXPECT_EQ(0u, gyre_get_unicast_ftag_by_vlan(100, &ftag));
    EXPECT_EQ(0u, gyre_get_vlan_ftag(101, 3, &ftag));
    EXPECT_EQ(0xBEEF, ftag);
    EXPECT_EQ(kUntouched, out.len);
    const std::string io = "database I/O error";
    EXPECT_EQ((std::vector<std::string>{
                  kvs_read_line("ftag 3", KVS_ERR_IO, io, "gyre_get_ftag_l2_tpg"),
                  kvs_read_line("vlan 15", KVS_ERR_IO, io, "gyre_get_vlan_l2_tpg"),
                  kvs_read_line("topology 0x12345, graph id 2", KVS_ERR_IO, io,
                                "gyre_get_l2_tpg_ftag"),
                  kvs_read_line("topology 0xabc", KVS_ERR_IO, io, "gyre_get_l2_tpg_unicast_ftag"),
                  kvs_read_line("ftag 9", KVS_ERR_IO, io, "gyre_get_ftag_l2_tpg"),
                  kvs_read_line("vlan 100", KVS_ERR_IO, io, "gyre_get_vlan_l2_tpg"),
                  kvs_read_line("vlan 101", KVS_ERR_IO, io, "gyre_get_vlan_l2_tpg"),
              }),
              syslog_lines());
}

TEST_F(GyreQueries, NullResultsAreInvalidArguments)
{
    load_fixture("gyre_basic.json");
    EXPECT_EQ(0u, gyre_get_l2_tpg_ftag(7, 2, nullptr));
    EXPECT_EQ(0u, gyre_get_l2_tpg_unicast_ftag(12, nullptr));
    EXPECT_EQ(0u, gyre_get_ftag_vlans(3, nullptr));
    EXPECT_EQ(0u, gyre_get_unicast_ftag_by_vlan(15, nullptr));
    EXPECT_EQ(0u, gyre_get_vlan_ftag(15, 2, nullptr));
    EXPECT_EQ(0u, gyre_get_first_ftag_by_filter(GYRE_TPG_NONE, 0x10, nullptr));
    EXPECT_EQ(0u, gyre_get_next_ftag_by_filter(GYRE_TPG_NONE, 0x10, nullptr));
    EXPECT_EQ(0u, gyre_get_l2_tpg_first_ftag(7, nullptr));
    EXPECT_EQ(0u, gyre_get_l2_tpg_next_ftag(7, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  invalid_arg_line("ftag", "gyre_get_l2_tpg_ftag"),
                  invalid_arg_line("ftag", "gyre_get_l2_tpg_unicast_ftag"),
                  invalid_arg_line("vlans", "gyre_get_ftag_vlans"),
                  invalid_arg_line("ftag", "gyre_get_unicast_ftag_by_vlan"),
                  invalid_arg_line("ftag", "gyre_get_vlan_ftag"),
                  invalid_arg_line("ftag", "gyre_get_first_ftag_by_filter"),
                  invalid_arg_line("ftag", "gyre_get_next_ftag_by_filter"),
                  invalid_arg_line("info", "gyre_get_l2_tpg_first_ftag"),
                  invalid_arg_line("info", "gyre_get_l2_tpg_next_ftag"),
              }),
              syslog_lines());
}

TEST_F(GyreQueries, WithoutTheGyreDatabaseEveryQueryIsNegative)
{
    // No device: the library cannot initialise.
    uint16_t ftag = 0xBEEF;
    gyre_vlan_bmp_t out = vlan_bmp({}, kUntouched);
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(3));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(15));
    EXPECT_EQ(0u, gyre_get_l2_tpg_ftag(7, 2, &ftag));
    EXPECT_EQ(0u, gyre_get_l2_tpg_unicast_ftag(12, &ftag));
    EXPECT_EQ(0u, gyre_get_ftag_vlans(3, &out));
    EXPECT_EQ(0u, gyre_get_unicast_ftag_by_vlan(15, &ftag));
    EXPECT_EQ(0u, gyre_get_vlan_ftag(15, 2, &ftag));
    EXPECT_EQ(0u, gyre_get_first_unicast_ftag(&ftag));
    EXPECT_EQ(0xBEEF, ftag);
    EXPECT_EQ(kUntouched, out.len);
    EXPECT_EQ(0u, gyre_api_is_initialized);
}

TEST_F(GyreQueries, OpenFailureIsReportedAndQueriesStayNegative)
{
    load_fixture("gyre_basic.json");
    tarnhost_fault_set("kpipe_kvs_open", KVS_ERR_IO, 1);
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(3));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBAPI_FAILED>> kpipe_kvs_open - failed in gyre_api_init()"}),
              syslog_lines());
    // The next query initialises.
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(3));
}

// ---- ftag walks ------------------------------------------------------------------------

// The topology-ftag records of a fabric in the database's key order
// (bytewise), as (key, ftag).
struct WalkRecord {
    Bytes key;
    uint32_t tpg;
    uint16_t graph;
    uint8_t flags;
    uint16_t ftag;
};

std::vector<WalkRecord> key_order(const Fabric &f)
{
    std::vector<WalkRecord> out;
    for (const Topology &t : f.topologies)
        for (const Ftag &x : t.ftags) {
            WalkRecord r;
            r.key.assign(40, 0);
            put32(r.key, 0, 4);
            put32(r.key, 4, t.id | 0xC0000000u);
            put16(r.key, 8, x.graph);
            r.key[10] = x.flags;
            r.tpg = t.id;
            r.graph = x.graph;
            r.flags = x.flags;
            r.ftag = x.ftag;
            out.push_back(r);
        }
    std::sort(out.begin(), out.end(),
              [](const WalkRecord &a, const WalkRecord &b) { return a.key < b.key; });
    return out;
}

Fabric fixture_fabric()
{
    Fabric f;
    Topology t7;
    t7.id = 7;
    t7.ftags = {{3, 1, 0x14}, {4, 2, 0x06}, {5, 2, 0x02}, {6, 3, 0x02}};
    Topology t8;
    t8.id = 8;
    t8.ftags = {{9, 1, 0x04}, {10, 3, 0x02}};
    Topology t12;
    t12.id = 12;
    t12.ftags = {{0, 1, 0x10}};
    Topology t1000;
    t1000.id = 1000;
    t1000.ftags = {{1023, 2, 0x00}};
    f.topologies = {t7, t8, t12, t1000};
    return f;
}

std::vector<uint16_t> expected_walk(const std::vector<WalkRecord> &order, uint32_t tpg,
                                    uint32_t filter)
{
    std::vector<uint16_t> out;
    for (const WalkRecord &r : order)
        if ((r.flags & filter) == filter && (tpg == GYRE_TPG_NONE || r.tpg == tpg))
            out.push_back(r.ftag);
    return out;
}

template <class First, class Next>
std::vector<uint16_t> run_walk(First first, Next next)
{
    std::vector<uint16_t> out;
    uint16_t ftag = 0xBEEF;
    for (uint32_t more = first(&ftag); more; more = next(&ftag)) {
        out.push_back(ftag);
        if (out.size() > 5000)
            break;
    }
    return out;
}

TEST_F(GyreQueries, FilterWalksVisitTheMatchingRecordsInKeyOrder)
{
    load_fixture("gyre_basic.json");
    const auto order = key_order(fixture_fabric());
    EXPECT_EQ(expected_walk(order, GYRE_TPG_NONE, 0x04),
              run_walk(gyre_get_first_active_ftag, gyre_get_next_active_ftag));
    EXPECT_EQ(expected_walk(order, GYRE_TPG_NONE, 0x02),
              run_walk(gyre_get_first_multicast_ftag, gyre_get_next_multicast_ftag));
    EXPECT_EQ(expected_walk(order, GYRE_TPG_NONE, 0x10),
              run_walk(gyre_get_first_unicast_ftag, gyre_get_next_unicast_ftag));
    for (uint32_t tpg : {7u, 8u, 12u, 1000u, 99u}) {
        EXPECT_EQ(expected_walk(order, tpg, 0x06),
                  run_walk([tpg](uint16_t *f) { return gyre_get_l2_tpg_first_active_multicast_ftag(tpg, f); },
                           [tpg](uint16_t *f) { return gyre_get_l2_tpg_next_active_multicast_ftag(tpg, f); }))
            << tpg;
        EXPECT_EQ(expected_walk(order, tpg, 0x02),
                  run_walk([tpg](uint16_t *f) { return gyre_get_l2_tpg_first_multicast_ftag(tpg, f); },
                           [tpg](uint16_t *f) { return gyre_get_l2_tpg_next_multicast_ftag(tpg, f); }))
            << tpg;
    }
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreQueries, FirstWithoutMatchSetsZeroAndNextLeavesTheResult)
{
    load_fixture("gyre_basic.json");
    uint16_t ftag = 0xBEEF;
    EXPECT_EQ(0u, gyre_get_first_ftag_by_filter(GYRE_TPG_NONE, 0x80, &ftag));
    EXPECT_EQ(0, ftag);
    ftag = 0xBEEF;
    EXPECT_EQ(0u, gyre_get_next_ftag_by_filter(GYRE_TPG_NONE, 0x80, &ftag));
    EXPECT_EQ(0xBEEF, ftag);
}

TEST_F(GyreQueries, WalksShareOneIteratorPosition)
{
    load_fixture("gyre_basic.json");
    const auto order = key_order(fixture_fabric());
    uint16_t ftag = 0;
    ASSERT_EQ(1u, gyre_get_first_unicast_ftag(&ftag));
    // The multicast walk of topology 7 moves the shared position to 7's
    // first multicast record.
    uint16_t m = 0;
    ASSERT_EQ(1u, gyre_get_l2_tpg_first_multicast_ftag(7, &m));
    size_t pos = 0;
    for (size_t i = 0; i < order.size(); ++i)
        if (order[i].tpg == 7 && (order[i].flags & 0x02)) {
            pos = i;
            break;
        }
    EXPECT_EQ(order[pos].ftag, m);
    // The unicast walk goes on from there.
    uint16_t expect = 0xFFFF;
    for (size_t i = pos + 1; i < order.size(); ++i)
        if (order[i].flags & 0x10) {
            expect = order[i].ftag;
            break;
        }
    ftag = 0xFFFF;
    const uint32_t more = gyre_get_next_unicast_ftag(&ftag);
    EXPECT_EQ(expect != 0xFFFF ? 1u : 0u, more);
    EXPECT_EQ(expect, ftag);
}

TEST_F(GyreQueries, TopologyFtagWalkFillsGraphFlagsAndFtag)
{
    load_fixture("gyre_basic.json");
    const auto order = key_order(fixture_fabric());
    for (uint32_t tpg : {7u, 8u, 12u, 1000u, 99u}) {
        std::vector<WalkRecord> expect;
        for (const WalkRecord &r : order)
            if (r.tpg == tpg)
                expect.push_back(r);
        gyre_ftag_info_t info;
        memset(&info, 0, sizeof info);
        info.tpg_id = 0x5555;
        size_t i = 0;
        for (uint32_t more = gyre_get_l2_tpg_first_ftag(tpg, &info); more;
             more = gyre_get_l2_tpg_next_ftag(tpg, &info), ++i) {
            ASSERT_LT(i, expect.size());
            EXPECT_EQ(expect[i].graph, info.graph_id);
            EXPECT_EQ(expect[i].flags, info.flags);
            EXPECT_EQ(expect[i].ftag, info.ftag);
            EXPECT_EQ(0x5555u, info.tpg_id) << "left as the caller set it";
        }
        EXPECT_EQ(expect.size(), i) << tpg;
    }
}

TEST_F(GyreQueries, IteratorStartFailureIsReported)
{
    load_fixture("gyre_basic.json");
    ASSERT_EQ(1u, gyre_api_init());
    tarnhost_fault_set("kvs_iterator_init", KVS_ERR_IO, 2);
    uint16_t ftag = 0xBEEF;
    gyre_ftag_info_t info;
    EXPECT_EQ(0u, gyre_get_first_unicast_ftag(&ftag));
    EXPECT_EQ(0, ftag);
    EXPECT_EQ(0u, gyre_get_l2_tpg_first_ftag(7, &info));
    const std::string io = "database I/O error";
    EXPECT_EQ((std::vector<std::string>{
                  kvs_read_line("Failed to init KVS iterator", KVS_ERR_IO, io,
                                "gyre_get_first_ftag_by_filter"),
                  kvs_read_line("Failed to init KVS iterator", KVS_ERR_IO, io,
                                "gyre_get_l2_tpg_first_ftag"),
              }),
              syslog_lines());
}

// ---- cache path ------------------------------------------------------------------------

TEST_F(GyreQueries, CachePathAnswersWithoutTheDatabase)
{
    load_fixture("gyre_basic.json");
    ASSERT_EQ(1u, enable_cache());
    tarnhost_capture_clear();
    // Nothing below may read the database.
    tarnhost_fault_set("kpipe_kvs_read", KVS_ERR_IO, TARNHOST_FAULT_ALWAYS);
    tarnhost_fault_set("kvs_read", KVS_ERR_IO, TARNHOST_FAULT_ALWAYS);
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(3));
    EXPECT_EQ(1000u, gyre_get_ftag_l2_tpg(1023));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(1));
    EXPECT_EQ(7u, gyre_get_vlan_l2_tpg(30));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(31));
    uint16_t ftag = 0xBEEF;
    // Graph 1: the cache tests the graph, not the flag byte.
    EXPECT_EQ(1u, gyre_get_l2_tpg_ftag(7, 1, &ftag));
    EXPECT_EQ(3, ftag);
    EXPECT_EQ(1u, gyre_get_l2_tpg_ftag(8, 1, &ftag));
    EXPECT_EQ(9, ftag);
    // Two ftags with graph 2: the lower one.
    EXPECT_EQ(1u, gyre_get_l2_tpg_ftag(7, 2, &ftag));
    EXPECT_EQ(4, ftag);
    // Unicast: any non-zero flags.
    EXPECT_EQ(1u, gyre_get_l2_tpg_unicast_ftag(8, &ftag));
    EXPECT_EQ(9, ftag);
    EXPECT_EQ(1u, gyre_get_l2_tpg_unicast_ftag(7, &ftag));
    EXPECT_EQ(3, ftag);
    ftag = 0xBEEF;
    EXPECT_EQ(0u, gyre_get_l2_tpg_unicast_ftag(1000, &ftag));
    EXPECT_EQ(0u, gyre_get_l2_tpg_ftag(99, 2, &ftag));
    EXPECT_EQ(0xBEEF, ftag);
    EXPECT_EQ(1u, gyre_get_unicast_ftag_by_vlan(105, &ftag));
    EXPECT_EQ(9, ftag);
    EXPECT_EQ(1u, gyre_get_vlan_ftag(15, 2, &ftag));
    EXPECT_EQ(4, ftag);
    gyre_vlan_bmp_t out = vlan_bmp({1}, kUntouched);
    EXPECT_EQ(1u, gyre_get_ftag_vlans(9, &out));
    EXPECT_EQ(kUntouched, out.len) << "the cache path leaves the length word alone";
    EXPECT_EQ(parse_ranges("100-110"), bits_of(out.bits, 4096));
    // A topology without a VLAN record is cached with no VLAN.
    EXPECT_EQ(1u, gyre_get_ftag_vlans(1023, &out));
    EXPECT_EQ(Set{}, bits_of(out.bits, 4096));
    EXPECT_EQ(0u, gyre_get_ftag_vlans(1, &out));
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreQueries, CachePathDebugLines)
{
    load_fixture("gyre_basic.json");
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    uint16_t ftag = 0;
    gyre_vlan_bmp_t out = vlan_bmp({});
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(3));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(1));
    EXPECT_EQ(7u, gyre_get_vlan_l2_tpg(15));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(16 + 100));
    EXPECT_EQ(1u, gyre_get_l2_tpg_ftag(7, 2, &ftag));
    EXPECT_EQ(1u, gyre_get_l2_tpg_unicast_ftag(8, &ftag));
    EXPECT_EQ(1u, gyre_get_vlan_ftag(15, 3, &ftag));
    EXPECT_EQ(1u, gyre_get_unicast_ftag_by_vlan(100, &ftag));
    EXPECT_EQ(1u, gyre_get_ftag_vlans(3, &out));
    EXPECT_EQ((std::vector<std::string>{
                  dbg("Ftag 3 -> Tpg id 7"),
                  dbg("No tpg information in gyre_cache_get_ftag_l2_tpg()"),
                  dbg("Found tpg 7 for vlan 15"),
                  dbg("Found ftag 4 for tid 7"),
                  dbg("Found ftag 9 for tid 8"),
                  dbg("gyre_cache_get_vlan_ftag() cache: Vlan: 15 Ftag: 6"),
                  dbg("gyre_cache_get_vlan_ftag() cache: Vlan: 100 Ftag: 9"),
                  dbg("Found Vlans [10-20 30 ] for ftag 3 tpg 7"),
              }),
              debug_lines());
}

TEST_F(GyreQueries, CachedVlanInNoTopologyAnswersAtOnce)
{
    load_fixture("gyre_basic.json");
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    tarnhost_fault_set("kpipe_kvs_read", KVS_ERR_IO, TARNHOST_FAULT_ALWAYS);
    uint16_t ftag = 0xBEEF;
    EXPECT_EQ(0u, gyre_get_vlan_ftag(4000, 2, &ftag));
    EXPECT_EQ(0u, gyre_get_unicast_ftag_by_vlan(4000, &ftag));
    EXPECT_EQ(0xBEEF, ftag);
    EXPECT_TRUE(debug_lines().empty());
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreQueries, TopologyInfoLeavesTheLengthWords)
{
    load_fixture("gyre_basic.json");
    ASSERT_EQ(1u, enable_cache());
    gyre_vlan_bmp_t vlans = vlan_bmp({4095}, kUntouched);
    gyre_ftag_bmp_t ftags = ftag_bmp({1023}, kUntouched);
    EXPECT_EQ(1u, gyre_cache_get_topo_info(7, &vlans, &ftags));
    EXPECT_EQ(kUntouched, vlans.len);
    EXPECT_EQ(kUntouched, ftags.len);
    EXPECT_EQ(parse_ranges("10-20,30"), bits_of(vlans.bits, 4096));
    EXPECT_EQ((Set{3, 4, 5, 6}), bits_of(ftags.bits, 1024));
    EXPECT_EQ(0u, gyre_cache_get_topo_info(99, &vlans, &ftags));
    EXPECT_EQ(parse_ranges("10-20,30"), bits_of(vlans.bits, 4096));
}

// ---- both paths on random fabrics ---------------------------------------------------------

struct Expect {
    uint32_t ok;
    uint16_t ftag;
};

// Database path: the graph's key carries 0x10 for graph 1, else 0x02.
Expect db_tpg_ftag(const Fabric &f, uint32_t tpg, uint16_t graph)
{
    const Topology *t = f.find(tpg);
    if (t != nullptr)
        for (const Ftag &x : t->ftags)
            if (x.graph == graph && x.flags == (graph == 1 ? 0x10 : 0x02))
                return {1, x.ftag};
    return {0, 0};
}

Expect db_unicast(const Fabric &f, uint32_t tpg)
{
    const Topology *t = f.find(tpg);
    if (t != nullptr)
        for (const Ftag &x : t->ftags)
            if (x.graph == 1 && x.flags == 0x10)
                return {1, x.ftag};
    return {0, 0};
}

// Cache path: the lowest ftag of the topology passing the test.
template <class Test>
Expect cache_lowest(const Fabric &f, uint32_t tpg, Test test)
{
    const Topology *t = f.find(tpg);
    Expect best{0, 0xFFFF};
    if (t != nullptr)
        for (const Ftag &x : t->ftags)
            if (test(x) && x.ftag < best.ftag)
                best = {1, x.ftag};
    return best.ok ? best : Expect{0, 0};
}

class GyreRandomFabric : public GyreTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(GyreRandomFabric, CacheAndDatabaseAgreeWhereTheyShould)
{
    std::mt19937 rng(GetParam());
    const size_t ntopo = 1 + rng() % 24;
    const Fabric f = random_fabric(rng, ntopo, rng() % 400, 0.3 + 0.1 * (rng() % 5));
    load(f.json());
    std::vector<uint32_t> tpgs;
    for (const Topology &t : f.topologies)
        tpgs.push_back(t.id);
    tpgs.push_back(0x3FFFFFF0u);  // no such topology

    struct Answers {
        std::vector<uint32_t> ftag_owner, vlan_owner;
        std::vector<uint32_t> ftag_vlans_ok;
        std::vector<Set> ftag_vlans;
    };
    for (int pass = 0; pass < 2; ++pass) {
        const bool cache = pass == 1;
        if (cache) {
            ASSERT_EQ(1u, enable_cache());
            ASSERT_EQ("", invariant_violation());
        }
        SCOPED_TRACE(cache ? "cache path" : "database path");
        for (uint32_t ftag = 0; ftag < GYRE_FTAG_COUNT; ++ftag) {
            uint32_t owner;
            f.ftag(ftag, &owner);
            ASSERT_EQ(owner, gyre_get_ftag_l2_tpg(static_cast<uint16_t>(ftag))) << ftag;
            gyre_vlan_bmp_t out = vlan_bmp({4095}, kUntouched);
            const uint32_t ok = gyre_get_ftag_vlans(static_cast<uint16_t>(ftag), &out);
            const Topology *t = f.find(owner);
            if (t == nullptr) {
                EXPECT_EQ(0u, ok);
                continue;
            }
            if (cache) {
                // The node's set, empty when the topology has no VLAN record.
                EXPECT_EQ(1u, ok);
                EXPECT_EQ(kUntouched, out.len);
                EXPECT_EQ(t->has_active ? t->active : Set{}, bits_of(out.bits, 4096));
            } else {
                EXPECT_EQ(t->has_active ? 1u : 0u, ok) << ftag;
                if (ok) {
                    EXPECT_EQ(512u, out.len);
                    EXPECT_EQ(t->active, bits_of(out.bits, 4096));
                }
            }
        }
        for (uint32_t vlan = 0; vlan < GYRE_VLAN_COUNT; ++vlan) {
            const uint32_t owner = f.vlan_owner(vlan);
            ASSERT_EQ(owner, gyre_get_vlan_l2_tpg(vlan)) << vlan;
            uint16_t ftag = 0xBEEF;
            Expect e{0, 0};
            if (owner != GYRE_TPG_NONE)
                e = cache ? cache_lowest(f, owner, [](const Ftag &x) { return x.flags != 0; })
                          : db_unicast(f, owner);
            EXPECT_EQ(e.ok, gyre_get_unicast_ftag_by_vlan(vlan, &ftag)) << vlan;
            EXPECT_EQ(e.ok ? e.ftag : 0xBEEF, ftag) << vlan;
            if (vlan % 7 == 0) {
                const uint16_t graph = static_cast<uint16_t>(vlan % 5);
                ftag = 0xBEEF;
                e = {0, 0};
                if (owner != GYRE_TPG_NONE)
                    e = cache ? cache_lowest(f, owner, [graph](const Ftag &x) { return x.graph == graph; })
                              : db_tpg_ftag(f, owner, graph);
                EXPECT_EQ(e.ok, gyre_get_vlan_ftag(vlan, graph, &ftag)) << vlan;
                EXPECT_EQ(e.ok ? e.ftag : 0xBEEF, ftag) << vlan;
            }
        }
        for (uint32_t tpg : tpgs) {
            for (uint16_t graph = 0; graph <= 5; ++graph) {
                uint16_t ftag = 0xBEEF;
                const Expect e = cache ? cache_lowest(f, tpg, [graph](const Ftag &x) { return x.graph == graph; })
                                       : db_tpg_ftag(f, tpg, graph);
                EXPECT_EQ(e.ok, gyre_get_l2_tpg_ftag(tpg, graph, &ftag)) << tpg << "/" << graph;
                EXPECT_EQ(e.ok ? e.ftag : 0xBEEF, ftag);
            }
            uint16_t ftag = 0xBEEF;
            const Expect e = cache ? cache_lowest(f, tpg, [](const Ftag &x) { return x.flags != 0; })
                                   : db_unicast(f, tpg);
            EXPECT_EQ(e.ok, gyre_get_l2_tpg_unicast_ftag(tpg, &ftag)) << tpg;
            EXPECT_EQ(e.ok ? e.ftag : 0xBEEF, ftag);

            const Topology *t = f.find(tpg);
            const std::string name = std::to_string(tpg);
            gyre_vlan_bmp_t act = vlan_bmp({}, kUntouched), cfg = vlan_bmp({}, kUntouched);
            const uint32_t ok_act = gyre_get_l2_tpg_act_vlans_by_name(name.c_str(), &act);
            const uint32_t ok_cfg = gyre_get_l2_tpg_cfg_vlans_by_name(name.c_str(), &cfg);
            if (cache) {
                // One set per topology: both give the cached active set and
                // leave the length word alone.
                EXPECT_EQ(t != nullptr ? 1u : 0u, ok_act);
                EXPECT_EQ(ok_act, ok_cfg);
                EXPECT_EQ(kUntouched, act.len);
                EXPECT_EQ(kUntouched, cfg.len);
                if (t != nullptr) {
                    const Set expect = t->has_active ? t->active : Set{};
                    EXPECT_EQ(expect, bits_of(act.bits, 4096));
                    EXPECT_EQ(expect, bits_of(cfg.bits, 4096));
                }
                gyre_vlan_bmp_t v = vlan_bmp({}, kUntouched);
                gyre_ftag_bmp_t fb = ftag_bmp({}, kUntouched);
                EXPECT_EQ(t != nullptr ? 1u : 0u, gyre_cache_get_topo_info(tpg, &v, &fb));
                EXPECT_EQ(kUntouched, v.len);
                EXPECT_EQ(kUntouched, fb.len);
                if (t != nullptr) {
                    Set tags;
                    for (const Ftag &x : t->ftags)
                        tags.insert(x.ftag);
                    EXPECT_EQ(tags, bits_of(fb.bits, 1024));
                }
            } else {
                EXPECT_EQ(t != nullptr && t->has_active ? 1u : 0u, ok_act) << tpg;
                EXPECT_EQ(t != nullptr && t->has_configured ? 1u : 0u, ok_cfg) << tpg;
                if (ok_act) {
                    EXPECT_EQ(512u, act.len);
                    EXPECT_EQ(t->active, bits_of(act.bits, 4096));
                }
                if (ok_cfg) {
                    EXPECT_EQ(512u, cfg.len);
                    EXPECT_EQ(t->configured, bits_of(cfg.bits, 4096));
                }
            }
        }
    }
    // The walks always read the database, so they agree with the cache on.
    const auto order = key_order(f);
    EXPECT_EQ(expected_walk(order, GYRE_TPG_NONE, 0x04),
              run_walk(gyre_get_first_active_ftag, gyre_get_next_active_ftag));
    EXPECT_TRUE(syslog_lines().empty());
}

INSTANTIATE_TEST_SUITE_P(Seeds, GyreRandomFabric, ::testing::Range(1u, 9u));

}  // namespace
