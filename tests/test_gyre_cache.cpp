// The Gyre cache model (keys, conversions, nodes) and its processing: the
// switch, the initial build, the notifications, the disabled-cache reply
// and the ftag notices.

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "test_gyre_support.h"

using namespace gyretest;

namespace {

const char kSmall[] = R"({"topologies": [
  {"id": 9, "ftags": [{"ftag": 8, "graph": 4, "flags": 2}]},
  {"id": 7, "active_vlans": "10-12",
   "ftags": [{"ftag": 5, "graph": 2, "flags": 6}, {"ftag": 3, "graph": 1, "flags": 16}]}
]})";

class GyreCache : public GyreTest {
protected:
    const gyre_cache_ftag_entry_t &entry(uint32_t ftag) { return gyre_cache->ftags[ftag]; }
    uint32_t slot_owner(uint32_t vlan)
    {
        return gyre_cache->vlans[vlan] ? gyre_cache->vlans[vlan]->tpg_id : GYRE_TPG_NONE;
    }
};

// ---- conversions and keys ---------------------------------------------------------------

TEST_F(GyreCache, NameToId)
{
    EXPECT_EQ(GYRE_TPG_NONE, gyre_l2_tpg_name2id(nullptr));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_l2_tpg_name2id("0"));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_l2_tpg_name2id("4294967295"));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_l2_tpg_name2id("abc"));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_l2_tpg_name2id(""));
    EXPECT_EQ(12u, gyre_l2_tpg_name2id("12abc"));
    EXPECT_EQ(7u, gyre_l2_tpg_name2id("7"));
    EXPECT_EQ(4294967294u, gyre_l2_tpg_name2id("4294967294"));
    EXPECT_EQ(1u, gyre_l2_tpg_name2id("0001"));
}

TEST_F(GyreCache, ReasonTexts)
{
    EXPECT_STREQ("GYRE_FTAG_INVALID_REASON", gyre_ftag_reason2str(0));
    EXPECT_STREQ("GYRE_FTAG_CREATE", gyre_ftag_reason2str(1));
    EXPECT_STREQ("GYRE_FTAG_UPDATE", gyre_ftag_reason2str(2));
    EXPECT_STREQ("GYRE_FTAG_DELETE", gyre_ftag_reason2str(3));
    EXPECT_STREQ("Unknown reason", gyre_ftag_reason2str(4));
    EXPECT_STREQ("Unknown reason", gyre_ftag_reason2str(0xFFFFFFFFu));
}

Bytes key_of(void (*fill)(uint8_t *))
{
    Bytes k(48, 0xAA);
    fill(k.data());
    return k;
}

Bytes expected_key(uint32_t type)
{
    Bytes k(48, 0xAA);
    std::fill(k.begin(), k.begin() + 40, 0);
    put32(k, 0, type);
    return k;
}

TEST_F(GyreCache, KeyMakers)
{
    Bytes e = expected_key(4);
    put32(e, 4, 0xC0000007u);
    put16(e, 8, 1);
    e[10] = 0x10;
    EXPECT_EQ(e, key_of([](uint8_t *k) { gyre_make_tpg_ftag_key(k, 0xC0000007u, 1); }));
    for (uint16_t graph : {0, 2}) {
        e = expected_key(4);
        put32(e, 4, 0xC0000007u);
        put16(e, 8, graph);
        e[10] = 0x02;
        Bytes k(48, 0xAA);
        gyre_make_tpg_ftag_key(k.data(), 0xC0000007u, graph);
        EXPECT_EQ(e, k) << graph;
    }
    e = expected_key(4);
    put32(e, 4, 0xC0000008u);
    put16(e, 8, 0x1234);
    e[10] = 0x16;
    EXPECT_EQ(e, key_of([](uint8_t *k) { gyre_make_tpg_ftag_key_new(k, 0xC0000008u, 0x16, 0x1234); }));
    e = expected_key(5);
    put32(e, 4, 4095);
    EXPECT_EQ(e, key_of([](uint8_t *k) { gyre_make_vlan_tpg_key(k, 4095); }));
    e = expected_key(6);
    put16(e, 4, 1023);
    EXPECT_EQ(e, key_of([](uint8_t *k) { gyre_make_ftag_tpg_key(k, 1023); }));
    e = expected_key(3);
    put32(e, 4, 0x11223344u);
    EXPECT_EQ(e, key_of([](uint8_t *k) { gyre_make_if_vlans_key(k, 0x11223344u, 3); }));
    e = expected_key(1);
    memcpy(&e[4], "12345", 5);
    EXPECT_EQ(e, key_of([](uint8_t *k) { gyre_make_tpg_vlans_key(k, "12345", 1); }));
    // At most 33 bytes with the terminator: 32 characters.
    const std::string longname(40, 'n');
    e = expected_key(0);
    memcpy(&e[4], longname.data(), 32);
    Bytes k(48, 0xAA);
    gyre_make_tpg_vlans_key(k.data(), longname.c_str(), 0);
    EXPECT_EQ(e, k);
}

TEST_F(GyreCache, TreeOrdering)
{
    uint32_t a = 5, b = 9;
    EXPECT_EQ(2u, gyre_cache_tpg_cmp(&a, &b));
    EXPECT_EQ(1u, gyre_cache_tpg_cmp(&b, &a));
    EXPECT_EQ(0u, gyre_cache_tpg_cmp(&a, &a));
    uint32_t big = 0xFFFFFFFEu;
    EXPECT_EQ(1u, gyre_cache_tpg_cmp(&big, &a)) << "unsigned";
}

// ---- the switch ------------------------------------------------------------------------

TEST_F(GyreCache, EnableWithoutAttributeBlock)
{
    load("{}");
    EXPECT_EQ(0u, gyre_enable_cache_mode(nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-INVALID_ARG>> invalid arguments - attr - in gyre_enable_cache_mode()"}),
              syslog_lines());
    EXPECT_EQ(0u, gyre_api_is_initialized) << "checked before initialising";
}

TEST_F(GyreCache, EnableBuildsTheCacheWithItsDebugLines)
{
    load(kSmall);
    debug_on();
    tarnhost_capture_clear();
    ASSERT_EQ(1u, enable_cache());
    EXPECT_EQ(1u, gyre_cache_enabled);
    ASSERT_NE(nullptr, gyre_cache);
    EXPECT_EQ(client_, gyre_cache->bus_handle);
    EXPECT_NE(0u, bus_options_get(client_, kAttrChange) & BUS_OPT_RECEIVE);
    EXPECT_EQ((std::vector<std::string>{
                  dbg("Created tpg 7 in libgyre cache"),
                  dbg("Tpg: 7 - Replacing Vlans"),
                  dbg("Old Vlans --"),
                  dbg("New Vlans 10-12"),
                  dbg("Updating libgyre cache: Tpg: 7 Vlans: 10-12 Ftag --"),
                  dbg("Updating libgyre cache: Tpg: 7 Ftag: 3 Graph: 1"),
                  dbg("Updating libgyre cache: Tpg: 7 Ftag: 5 Graph: 2"),
                  dbg("Created tpg 9 in libgyre cache"),
                  dbg("Updating libgyre cache: Tpg: 9 Ftag: 8 Graph: 4"),
                  dbg("Completed gyre_enable_cache_mode()"),
              }),
              debug_lines());
    EXPECT_TRUE(syslog_lines().empty());
    const auto nodes = cache_nodes();
    ASSERT_EQ(2u, nodes.size());
    EXPECT_EQ((Set{3, 5}), nodes.find(7)->second.ftags);
    EXPECT_EQ((Set{10, 11, 12}), nodes.find(7)->second.vlans);
    EXPECT_EQ((Set{8}), nodes.find(9)->second.ftags);
    EXPECT_EQ(Set{}, nodes.find(9)->second.vlans);
    EXPECT_EQ(1, entry(3).graph_id);
    EXPECT_EQ(0x10u, entry(3).flags);
    EXPECT_EQ(2, entry(5).graph_id);
    EXPECT_EQ(0x06u, entry(5).flags);
    EXPECT_EQ(4, entry(8).graph_id);
    EXPECT_EQ(9u, entry(8).owner->tpg_id);
    EXPECT_EQ(7u, slot_owner(11));
    EXPECT_EQ("", invariant_violation());
    EXPECT_EQ(1u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE));
    EXPECT_EQ(2u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
}

TEST_F(GyreCache, EnablingTwiceReRegistersWithoutBuildingAgain)
{
    load(kSmall);
    ASSERT_EQ(1u, enable_cache());
    ASSERT_EQ(0, apply(51210, tpg_payload(9)));
    ASSERT_EQ(0u, bus_options_set(client_, 51214, 0));
    EXPECT_EQ(1u, enable_cache());
    EXPECT_NE(0u, bus_options_get(client_, 51214) & BUS_OPT_RECEIVE) << "registered again";
    EXPECT_EQ(1u, cache_nodes().size()) << "not built again";
    EXPECT_EQ(1u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE));
}

TEST_F(GyreCache, EnableOnADeviceWithoutTopologies)
{
    load("{}");
    ASSERT_EQ(1u, enable_cache());
    EXPECT_TRUE(cache_nodes().empty());
    // The walk's first read finds no record at or after the start.
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBAPI_FAILED>> kvs_getkey() - failed in gyre_get_first_l2_tpg()"}),
              syslog_lines());
}

TEST_F(GyreCache, CacheBlockAllocationFailure)
{
    load(kSmall);
    tarnhost_fault_set("alloctrack_alloc", 1, 1);
    EXPECT_EQ(0u, enable_cache());
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBAPI_FAILED>> alloctrack_alloc() - failed in gyre_cache_malloc()",
                  "<<%TARN-3-TARN_LIBAPI_FAILED>> GYRE_CACHE_MALLOC() - failed in "
                  "gyre_enable_cache_mode()",
              }),
              syslog_lines());
    EXPECT_EQ(nullptr, gyre_cache);
    EXPECT_EQ(0u, gyre_cache_enabled);
    EXPECT_EQ(1u, enable_cache());
}

TEST_F(GyreCache, SubscriptionFailure)
{
    load(kSmall);
    ASSERT_EQ(1u, gyre_register(client_));
    // A file where the subscriptions of 51226 would go.
    const std::string dir = std::string(tarnhost_root()) + "/bus/sub";
    mkdir(dir.c_str(), 0700);
    const std::string path = dir + "/51226";
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(fd, 0);
    close(fd);
    tarnhost_capture_clear();
    EXPECT_EQ(0u, enable_cache());
    EXPECT_EQ(0u, gyre_cache_enabled);
    EXPECT_EQ(nullptr, gyre_cache);
    const auto lines = syslog_lines();
    ASSERT_EQ(1u, lines.size());
    const std::string head = "<<%TARN-3-BUS>> Error returned from bus_register, errno: 0x";
    EXPECT_EQ(head, lines[0].substr(0, head.size()));
    const std::string tail = ") in gyre_enable_cache_mode()";
    EXPECT_EQ(tail, lines[0].substr(lines[0].size() - tail.size()));
}

TEST_F(GyreCache, OutsideCellOneEverythingIsRefused)
{
    load(kSmall);
    ASSERT_EQ(1u, gyre_register(client_));
    bus_msg_t *msg = deliver(51208, tpg_payload(5));
    ASSERT_NE(nullptr, msg);
    tarnhost_capture_clear();
    tarnhost_cell_set(2);
    EXPECT_EQ(0u, enable_cache());
    EXPECT_EQ(0, gyre_dispatch_internal(msg));
    EXPECT_EQ(0u, gyre_ftag_converge());
    EXPECT_EQ(0u, gyre_ftag_stale(7));
    EXPECT_EQ(1u, gyre_disable_cache_mode());
    EXPECT_EQ((std::vector<std::string>{
                  cell_line("ctx range", "gyre_register"),
                  cell_line("ctx range", "gyre_dispatch_internal"),
                  cell_line("ctx range", "gyre_ftag_converge"),
                  cell_line("ctx range", "gyre_ftag_stale"),
                  cell_line("ctx range", "tarn_get_cell_ctx"),
              }),
              syslog_lines());
    tarnhost_cell_reset();
    bus_drop(client_, msg);
    EXPECT_EQ(nullptr, gyre_cache);
}

TEST_F(GyreCache, DisableFreesEverythingAndUnsubscribes)
{
    load(kSmall);
    EXPECT_EQ(1u, gyre_disable_cache_mode()) << "already off";
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    EXPECT_EQ(1u, gyre_disable_cache_mode());
    EXPECT_EQ(0u, gyre_cache_enabled);
    EXPECT_EQ(nullptr, gyre_cache);
    EXPECT_EQ(0u, bus_options_get(client_, kAttrChange) & BUS_OPT_RECEIVE);
    EXPECT_NE(0u, bus_options_get(client_, 51215) & BUS_OPT_RECEIVE) << "still registered";
    EXPECT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE));
    EXPECT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
    EXPECT_EQ((std::vector<std::string>{dbg("Cleanup, remove all cache entries")}), debug_lines());
    // Queries now read the database again.
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(3));
}

// ---- notifications ----------------------------------------------------------------------

TEST_F(GyreCache, DispatchOpcodeRange)
{
    load(kSmall);
    ASSERT_EQ(1u, enable_cache());
    const auto before = cache_nodes();
    for (uint32_t op : {51205u, 51207u, 51216u, 51226u, 1u})
        EXPECT_EQ(-1, apply(op, tpg_payload(33))) << op;
    for (uint32_t op : {51209u, 51211u, 51212u, 51213u})
        EXPECT_EQ(0, apply(op, tpg_payload(33))) << op;
    EXPECT_EQ(before.size(), cache_nodes().size());
    EXPECT_EQ(nullptr, gyre_cache_find_topo_by_id(33));
    EXPECT_EQ(0, apply(51208, tpg_payload(33)));
    EXPECT_NE(nullptr, gyre_cache_find_topo_by_id(33));
}

TEST_F(GyreCache, CreateTwiceInsertsTwice)
{
    load(kSmall);
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    EXPECT_EQ(0, apply(51208, tpg_payload(40)));
    EXPECT_EQ(0, apply(51208, tpg_payload(40)));
    EXPECT_EQ(2u, cache_nodes().count(40));
    EXPECT_EQ(4u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
    gyre_cache_tpg_node_t *n = gyre_cache_find_topo_by_id(40);
    ASSERT_NE(nullptr, n);
    EXPECT_EQ(40u, n->tpg_id);
    EXPECT_EQ(std::vector<std::string>(2, dbg("Created tpg 40 in libgyre cache")), debug_lines());
    // Also through the primitive.
    gyre_cache_tpg_node_t *m = gyre_cache_add_tpg(41);
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(128u, m->ftags.len);
    EXPECT_EQ(512u, m->vlans.len);
    EXPECT_EQ(m, gyre_cache_find_topo_by_id(41));
}

TEST_F(GyreCache, DeleteTopology)
{
    load(kSmall);
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    EXPECT_EQ(0, apply(51210, tpg_payload(7)));
    EXPECT_EQ(nullptr, gyre_cache_find_topo_by_id(7));
    for (uint32_t f : {3u, 5u}) {
        EXPECT_EQ(nullptr, entry(f).owner);
        EXPECT_EQ(0, entry(f).graph_id);
        EXPECT_EQ(0u, entry(f).flags);
    }
    for (uint32_t v : {10u, 11u, 12u})
        EXPECT_EQ(GYRE_TPG_NONE, slot_owner(v));
    EXPECT_EQ(9u, entry(8).owner->tpg_id);
    EXPECT_EQ(1u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
    EXPECT_EQ(0, apply(51210, tpg_payload(7)));
    EXPECT_EQ((std::vector<std::string>{
                  dbg("Tpg 7 delete notification recvd"),
                  dbg("Tpg 7 delete notification recvd"),
                  dbg("Warning!!! No topology found in gyre_cache_delete_l2_tpg()"),
              }),
              debug_lines());
    EXPECT_EQ("", invariant_violation());
}

TEST_F(GyreCache, VlanUpdateMovesAndReplaces)
{
    load(kSmall);
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    // 7 gives up 10-12 and takes 20-22; 9 takes 11; 50 is new.
    EXPECT_EQ(0, apply(51214, vlans_payload({{7, {20, 21, 22}}, {9, {11}}, {50, {4095}}})));
    const auto nodes = cache_nodes();
    EXPECT_EQ((Set{20, 21, 22}), nodes.find(7)->second.vlans);
    EXPECT_EQ((Set{11}), nodes.find(9)->second.vlans);
    EXPECT_EQ((Set{4095}), nodes.find(50)->second.vlans);
    EXPECT_EQ(GYRE_TPG_NONE, slot_owner(10));
    EXPECT_EQ(9u, slot_owner(11));
    EXPECT_EQ(7u, slot_owner(21));
    EXPECT_EQ(50u, slot_owner(4095));
    EXPECT_EQ("", invariant_violation());
    EXPECT_EQ((std::vector<std::string>{
                  dbg("Created tpg 50 in libgyre cache"),
                  dbg("Updating Vlans libgyre - Tpg: 7 Vlan: 20-22 Ftag 3,5"),
                  dbg("Updating Vlans libgyre - Tpg: 9 Vlan: 11 Ftag 8"),
                  dbg("Updating Vlans libgyre - Tpg: 50 Vlan: 4095 Ftag --"),
              }),
              debug_lines());
    // A VLAN moves from 9 to 7 within one message, whatever the order.
    EXPECT_EQ(0, apply(51214, vlans_payload({{7, {11}}, {9, {}}})));
    EXPECT_EQ(7u, slot_owner(11));
    EXPECT_EQ("", invariant_violation());
}

TEST_F(GyreCache, VlanGivenToTwoTopologiesEndsWithTheLater)
{
    load(R"({"topologies": [{"id": 7}, {"id": 8}]})");
    ASSERT_EQ(1u, enable_cache());
    Set s = parse_ranges("10-20");
    EXPECT_EQ(0, apply(51214, vlans_payload({{7, s}, {8, {15}}})));
    EXPECT_EQ(8u, slot_owner(15));
    EXPECT_EQ(7u, slot_owner(14));
    EXPECT_EQ(s, cache_nodes().find(7)->second.vlans) << "7 still holds bit 15";
    EXPECT_EQ((Set{15}), cache_nodes().find(8)->second.vlans);
}

TEST_F(GyreCache, VlanUpdateWithoutRecordsOrPayloadChangesNothing)
{
    load(kSmall);
    ASSERT_EQ(1u, enable_cache());
    const auto before = cache_nodes();
    Bytes zero = vlans_payload({{7, {1}}});
    put32(zero, 20, 0);
    EXPECT_EQ(0, apply(51214, zero));
    EXPECT_EQ(0, apply(51214, {}));
    const auto after = cache_nodes();
    ASSERT_EQ(before.size(), after.size());
    EXPECT_EQ(before.find(7)->second.vlans, after.find(7)->second.vlans);
}

TEST_F(GyreCache, FtagUpdateReasons)
{
    load(kSmall);
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    EXPECT_EQ(0, apply(51215, ftags_payload({
                              {1, 9, 6, 100, 0x12},   // create in 9
                              {2, 7, 7, 3, 0x04},     // update 7's ftag 3
                              {1, 60, 2, 200, 0x02},  // create in an unknown topology
                              {3, 9, 0, 8, 0},        // delete 9's ftag 8
                              {3, 77, 0, 5, 0},       // delete for an uncached topology
                              {0, 7, 1, 5, 0x10},     // no reason: nothing
                              {9, 7, 1, 5, 0x10},     // unknown reason: nothing
                          })));
    EXPECT_EQ(9u, entry(100).owner->tpg_id);
    EXPECT_EQ(6, entry(100).graph_id);
    EXPECT_EQ(0x12u, entry(100).flags);
    EXPECT_EQ(7, entry(3).graph_id);
    EXPECT_EQ(0x04u, entry(3).flags);
    EXPECT_EQ(60u, entry(200).owner->tpg_id);
    EXPECT_EQ(nullptr, entry(8).owner);
    EXPECT_EQ(0, entry(8).graph_id);
    EXPECT_EQ(7u, entry(5).owner->tpg_id);
    EXPECT_EQ(2, entry(5).graph_id);
    EXPECT_EQ(0x06u, entry(5).flags);
    EXPECT_EQ(nullptr, gyre_cache_find_topo_by_id(77));
    const auto nodes = cache_nodes();
    EXPECT_EQ((Set{100}), nodes.find(9)->second.ftags);
    EXPECT_EQ((Set{3, 5}), nodes.find(7)->second.ftags);
    EXPECT_EQ((Set{200}), nodes.find(60)->second.ftags);
    EXPECT_EQ("", invariant_violation());
    EXPECT_EQ((std::vector<std::string>{
                  dbg("Tpg id: 9, Ftag:100 Message Reason GYRE_FTAG_CREATE"),
                  dbg("Tpg id: 9, Ftag:100 Message Reason GYRE_FTAG_CREATE"),
                  dbg("Updating gyre cache: Tpg: 9 Ftag: 100 Graph: 6"),
                  dbg("Tpg id: 7, Ftag:3 Message Reason GYRE_FTAG_UPDATE"),
                  dbg("Tpg id: 7, Ftag:3 Message Reason GYRE_FTAG_UPDATE"),
                  dbg("Updating gyre cache: Tpg: 7 Ftag: 3 Graph: 7"),
                  dbg("Tpg id: 60, Ftag:200 Message Reason GYRE_FTAG_CREATE"),
                  dbg("Tpg id: 60, Ftag:200 Message Reason GYRE_FTAG_CREATE"),
                  dbg("Created tpg 60 in libgyre cache"),
                  dbg("Updating gyre cache: Tpg: 60 Ftag: 200 Graph: 2"),
                  dbg("Tpg id: 9, Ftag:8 Message Reason GYRE_FTAG_DELETE"),
                  dbg("Tpg id: 77, Ftag:5 Message Reason GYRE_FTAG_DELETE"),
                  dbg("Warning!! No topo node found for Tpg id 77"),
                  dbg("Tpg id: 7, Ftag:5 Message Reason GYRE_FTAG_INVALID_REASON"),
                  dbg("Tpg id: 7, Ftag:5 Message Reason Unknown reason"),
              }),
              debug_lines());
}

TEST_F(GyreCache, FtagUpdateResults)
{
    load(kSmall);
    ASSERT_EQ(1u, enable_cache());
    bus_msg_t *msg = deliver(51215, {});
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(0u, gyre_cache_update_ftag(msg));
    bus_drop(client_, msg);
    msg = deliver(51215, ftags_payload({}));
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(1u, gyre_cache_update_ftag(msg));
    bus_drop(client_, msg);
    msg = deliver(51215, ftags_payload({{1, 7, 2, 77, 2}}));
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(1u, gyre_cache_update_ftag(msg));
    bus_drop(client_, msg);
    EXPECT_EQ(7u, entry(77).owner->tpg_id);
}

TEST_F(GyreCache, FtagUpdateWhenANodeCannotBeAdded)
{
    load(kSmall);
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    tarnhost_fault_set("alloctrack_alloc", 1, 1);
    EXPECT_EQ(0, apply(51215, ftags_payload({{1, 61, 2, 300, 2}, {1, 7, 2, 301, 2}})));
    EXPECT_EQ(nullptr, entry(300).owner);
    EXPECT_EQ(7u, entry(301).owner->tpg_id) << "the next entry is applied";
    EXPECT_TRUE(has_line(debug_lines(), dbg("Invalid arguments topo  in gyre_cache_update_ftag()")));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBAPI_FAILED>> alloctrack_alloc() - failed in gyre_cache_malloc()"}),
              syslog_lines());
}

TEST_F(GyreCache, DeleteTopologyFtagsThroughTheAttributeChange)
{
    load(R"({"topologies": [
      {"id": 7, "active_vlans": "1-3", "ftags": [{"ftag": 1, "graph": 1}, {"ftag": 2, "graph": 2}]},
      {"id": 8, "active_vlans": "4", "ftags": [{"ftag": 3, "graph": 2}]}]})");
    ASSERT_EQ(1u, enable_cache());
    // The message names 7 with ftags 1 and 3; 3 belongs to 8.
    EXPECT_EQ(1, attr(attr_payload(2, 7, {1, 3})));
    const auto nodes = cache_nodes();
    EXPECT_EQ(Set{}, nodes.find(7)->second.ftags) << "the node's whole set is cleared";
    EXPECT_EQ((Set{1, 2, 3}), nodes.find(7)->second.vlans);
    EXPECT_EQ(nullptr, entry(1).owner);
    EXPECT_EQ(nullptr, entry(3).owner) << "cleared although 8 owns it";
    EXPECT_EQ(0u, entry(3).flags);
    EXPECT_EQ(7u, entry(2).owner->tpg_id) << "not named in the message";
    EXPECT_EQ((Set{3}), nodes.find(8)->second.ftags);
    EXPECT_EQ(7u, slot_owner(2));
    EXPECT_EQ(8u, slot_owner(4));
    EXPECT_NE(nullptr, gyre_cache_find_topo_by_id(7));
}

TEST_F(GyreCache, DeleteTopologyFtagsResults)
{
    load(kSmall);
    bus_msg_t *msg = deliver(kAttrChange, {});
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(0u, gyre_cache_delete_topo_ftag(msg));
    bus_drop(client_, msg);
    msg = deliver(kAttrChange, attr_payload(2, 7, {3}));
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(1u, gyre_cache_delete_topo_ftag(msg)) << "cache off";
    ASSERT_EQ(1u, enable_cache());
    EXPECT_EQ(1u, gyre_cache_delete_topo_ftag(msg));
    EXPECT_EQ(nullptr, entry(3).owner);
    bus_drop(client_, msg);
}

TEST_F(GyreCache, FlushThroughTheAttributeChangeKeepsTheFlag)
{
    load(kSmall);
    ASSERT_EQ(1u, enable_cache());
    EXPECT_EQ(1, attr(attr_payload(3)));
    EXPECT_EQ(nullptr, gyre_cache);
    EXPECT_EQ(1u, gyre_cache_enabled);
    EXPECT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE));
    EXPECT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
    // Nothing rebuilds it; the notifications are ignored.
    EXPECT_EQ(0, apply(51208, tpg_payload(5)));
    EXPECT_EQ(0, apply(51215, ftags_payload({{1, 5, 1, 1, 1}})));
    EXPECT_EQ(nullptr, gyre_cache);
    EXPECT_EQ(1u, enable_cache());
    EXPECT_EQ(nullptr, gyre_cache) << "already on: not rebuilt";
    EXPECT_EQ(1u, gyre_disable_cache_mode());
    EXPECT_EQ(0u, gyre_cache_enabled);
}

// ---- the disabled-cache reply -----------------------------------------------------------

TEST_F(GyreCache, DisabledReplyBindFailure)
{
    load("{}");
    bus_msg_t *msg = deliver(kAttrChange, attr_payload(4));
    ASSERT_NE(nullptr, msg);
    tarnhost_fault_set("bus_bind", EIO, 1);
    EXPECT_EQ(-1, gyre_cache_disabled_resp(msg));
    EXPECT_EQ(nullptr, tarnhost_bus_recv_ms(service_, 50));
    EXPECT_EQ(0, gyre_cache_disabled_resp(msg));
    bus_msg_t *reply = tarnhost_bus_recv_ms(service_, 2000);
    ASSERT_NE(nullptr, reply);
    uint32_t len = 0;
    const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(reply, &len));
    ASSERT_EQ(12u, len);
    EXPECT_EQ(Bytes(12, 0), Bytes(p, p + 12));
    bus_drop(service_, reply);
    bus_drop(client_, msg);
}

TEST_F(GyreCache, DisabledReplySendFailure)
{
    load("{}");
    bus_msg_t *msg = deliver(kAttrChange, attr_payload(4));
    ASSERT_NE(nullptr, msg);
    tarnhost_fault_set("bus_send", EIO, 1);
    EXPECT_EQ(0, gyre_cache_disabled_resp(msg));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBBUS>> Error returned from bus_send_response(), errno: "
                  "0x00000005 (Input/output error) in gyre_cache_disabled_resp()"}),
              syslog_lines());
    bus_drop(client_, msg);
    tarnhost_cell_set(4);
    msg = deliver(kAttrChange, attr_payload(4));
    ASSERT_NE(nullptr, msg);
    tarnhost_capture_clear();
    EXPECT_EQ(0, gyre_cache_disabled_resp(msg));
    EXPECT_EQ((std::vector<std::string>{cell_line("ctx range", "gyre_cache_disabled_resp")}),
              syslog_lines());
    EXPECT_EQ(nullptr, tarnhost_bus_recv_ms(service_, 50));
    bus_drop(client_, msg);
}

// ---- ftag notices ---------------------------------------------------------------------------

TEST_F(GyreCache, ConvergeAndStaleNotices)
{
    load("{}");
    const uint32_t gyre = tarnhost_bus_serve(GYRE_SAP, "gyre service");
    ASSERT_NE(BUS_HANDLE_NONE, gyre);
    ASSERT_EQ(1u, gyre_register(client_));
    EXPECT_EQ(1u, gyre_ftag_converge());
    EXPECT_EQ(1u, gyre_ftag_stale(0x1234));
    EXPECT_EQ(0u, gyre_ftag_stale(0));
    const uint32_t expect[2][3] = {{0, 1, 0}, {0, 0, 0x1234}};
    for (const auto &words : expect) {
        bus_msg_t *m = tarnhost_bus_recv_ms(gyre, 2000);
        ASSERT_NE(nullptr, m);
        EXPECT_EQ(51223u, bus_opc_get(m));
        EXPECT_EQ(client_, tarnhost_bus_sender_get(m));
        uint32_t len = 0;
        const void *p = bus_payload_get(m, &len);
        ASSERT_EQ(12u, len);
        uint32_t got[3];
        memcpy(got, p, 12);
        EXPECT_EQ(0, memcmp(words, got, 12));
        bus_drop(gyre, m);
    }
    EXPECT_EQ(nullptr, tarnhost_bus_recv_ms(gyre, 50)) << "stale(0) sent nothing";
    EXPECT_TRUE(syslog_lines().empty());
    // A record whose handle is all-ones sends nothing.
    tarn_clt->bus_handle = BUS_HANDLE_NONE;
    EXPECT_EQ(0u, gyre_ftag_converge());
    EXPECT_EQ(0u, gyre_ftag_stale(5));
    EXPECT_EQ(nullptr, tarnhost_bus_recv_ms(gyre, 50));
    EXPECT_TRUE(syslog_lines().empty());
    bus_unbind(gyre);
}

TEST_F(GyreCache, NoticeSendFailure)
{
    load("{}");
    ASSERT_EQ(1u, gyre_register(client_));
    tarnhost_fault_set("bus_send", EIO, 2);
    EXPECT_EQ(0u, gyre_ftag_converge());
    EXPECT_EQ(0u, gyre_ftag_stale(5));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBBUS>> Error returned from bus_send(GYRE_FTAG_NOTICE), errno: 0x00000005 "
                  "(Input/output error) in gyre_ftag_converge()",
                  "<<%TARN-3-TARN_LIBBUS>> Error returned from bus_send(GYRE_FTAG_NOTICE), errno: 0x00000005 "
                  "(Input/output error) in gyre_ftag_stale()",
              }),
              syslog_lines());
}

TEST_F(GyreCache, NoticesInitialiseFirst)
{
    load("{}");
    tarnhost_fault_set("kpipe_kvs_open", KVS_ERR_IO, 1);
    EXPECT_EQ(0u, gyre_ftag_converge());
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBAPI_FAILED>> kpipe_kvs_open - failed in gyre_api_init()"}),
              syslog_lines());
}

}  // namespace
