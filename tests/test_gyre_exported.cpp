// The cache and dispatch operations that libtarn exports beside the queries:
// each answers on its own, also when called outside the library's usual
// order (no cache, indexes past the tables, null arguments).

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "support/gyre_tables.h"
#include "test_gyre_support.h"

using namespace gyretest;

namespace {

const char kFabric[] = R"({"topologies": [
  {"id": 7, "active_vlans": "10-12",
   "ftags": [{"ftag": 3, "graph": 1, "flags": 16}, {"ftag": 5, "graph": 2, "flags": 0}]},
  {"id": 9, "active_vlans": "20", "ftags": [{"ftag": 8, "graph": 2}]}]})";

class GyreExported : public GyreTest {};

TEST_F(GyreExported, CacheAnswersWithoutACacheAreNegative)
{
    load(kFabric);
    ASSERT_EQ(nullptr, gyre_cache);
    uint16_t ftag = 0xABCD;
    gyre_vlan_bmp_t vlans = vlan_bmp({1}, 7);
    EXPECT_EQ(GYRE_TPG_NONE, gyre_cache_get_ftag_l2_tpg(3));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_cache_get_vlan_l2_tpg(10));
    EXPECT_EQ(0u, gyre_cache_get_l2_tpg_ftag(7, 1, &ftag));
    EXPECT_EQ(0u, gyre_cache_get_l2_tpg_unicast_ftag(7, &ftag));
    EXPECT_EQ(0u, gyre_cache_get_ftag_vlans(3, &vlans));
    EXPECT_EQ(0u, gyre_cache_get_unicast_ftag_by_vlan(10, &ftag));
    EXPECT_EQ(0u, gyre_cache_get_vlan_ftag(10, 1, &ftag));
    EXPECT_EQ(0xABCD, ftag);
    EXPECT_EQ(7u, vlans.len);
    EXPECT_EQ((Set{1}), bits_of(vlans.bits, GYRE_VLAN_COUNT));
    EXPECT_EQ(nullptr, gyre_cache_find_topo_by_id(7));
    EXPECT_EQ(nullptr, gyre_cache_add_tpg(7));
    EXPECT_EQ(nullptr, gyre_cache_build_resp_info(1, nullptr));
    EXPECT_EQ(0u, gyre_cache_verify_topo(nullptr));
    // The database path still answers.
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(3));
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreExported, CacheAnswersMatchTheQueriesWhileTheCacheIsOn)
{
    load(kFabric);
    ASSERT_EQ(1u, enable_cache());
    EXPECT_EQ(7u, gyre_cache_get_ftag_l2_tpg(3));
    EXPECT_EQ(9u, gyre_cache_get_ftag_l2_tpg(8));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_cache_get_ftag_l2_tpg(4));
    EXPECT_EQ(7u, gyre_cache_get_vlan_l2_tpg(11));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_cache_get_vlan_l2_tpg(13));
    uint16_t ftag = 0;
    EXPECT_EQ(1u, gyre_cache_get_l2_tpg_ftag(7, 2, &ftag));
    EXPECT_EQ(5, ftag);
    EXPECT_EQ(1u, gyre_cache_get_l2_tpg_unicast_ftag(7, &ftag));
    EXPECT_EQ(3, ftag);
    EXPECT_EQ(1u, gyre_cache_get_vlan_ftag(20, 2, &ftag));
    EXPECT_EQ(8, ftag);
    EXPECT_EQ(1u, gyre_cache_get_unicast_ftag_by_vlan(12, &ftag));
    EXPECT_EQ(3, ftag);
    gyre_vlan_bmp_t vlans = vlan_bmp({}, 99);
    EXPECT_EQ(1u, gyre_cache_get_ftag_vlans(5, &vlans));
    EXPECT_EQ(99u, vlans.len) << "the length word is the caller's";
    EXPECT_EQ((Set{10, 11, 12}), bits_of(vlans.bits, GYRE_VLAN_COUNT));
    // The same answers as the exported queries give from the cache.
    for (uint16_t f = 0; f < 16; ++f)
        EXPECT_EQ(gyre_get_ftag_l2_tpg(f), gyre_cache_get_ftag_l2_tpg(f)) << f;
    for (uint32_t v = 0; v < 32; ++v)
        EXPECT_EQ(gyre_get_vlan_l2_tpg(v), gyre_cache_get_vlan_l2_tpg(v)) << v;
    // A null result pointer gives 0 without a report.
    EXPECT_EQ(0u, gyre_cache_get_l2_tpg_ftag(7, 2, nullptr));
    EXPECT_EQ(0u, gyre_cache_get_vlan_ftag(20, 2, nullptr));
    EXPECT_EQ(0u, gyre_cache_get_ftag_vlans(5, nullptr));
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreExported, IndexesPastTheTablesAreNegative)
{
    load(kFabric);
    ASSERT_EQ(1u, enable_cache());
    uint16_t ftag = 0xABCD;
    gyre_vlan_bmp_t vlans = vlan_bmp({});
    EXPECT_EQ(GYRE_TPG_NONE, gyre_cache_get_ftag_l2_tpg(1024));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_cache_get_ftag_l2_tpg(0xFFFF));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_cache_get_vlan_l2_tpg(4096));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_cache_get_vlan_l2_tpg(0xFFFFFFFF));
    EXPECT_EQ(0u, gyre_cache_get_ftag_vlans(1024, &vlans));
    EXPECT_EQ(0u, gyre_cache_get_vlan_ftag(4096, 2, &ftag));
    EXPECT_EQ(0u, gyre_cache_get_unicast_ftag_by_vlan(4096, &ftag));
    EXPECT_EQ(0xABCD, ftag);
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreExported, TreeOrderingAndItsNullArguments)
{
    load(kFabric);
    const uint32_t a = 5, b = 9;
    EXPECT_EQ(1u, gyre_cache_tpg_cmp(&b, &a));
    EXPECT_EQ(2u, gyre_cache_tpg_cmp(&a, &b));
    EXPECT_EQ(0u, gyre_cache_tpg_cmp(&a, &a));
    EXPECT_TRUE(syslog_lines().empty());
    EXPECT_EQ(0u, gyre_cache_tpg_cmp(nullptr, &a));
    EXPECT_EQ(0u, gyre_cache_tpg_cmp(&a, nullptr));
    EXPECT_EQ((std::vector<std::string>{invalid_arg_line("a", "gyre_cache_tpg_cmp"),
                                        invalid_arg_line("b", "gyre_cache_tpg_cmp")}),
              syslog_lines());
}

TEST_F(GyreExported, NodesAddedFoundVerifiedAndRemoved)
{
    load(kFabric);
    ASSERT_EQ(1u, enable_cache());
    gyre_cache_tpg_node_t *node = gyre_cache_add_tpg(40);
    ASSERT_NE(nullptr, node);
    EXPECT_EQ(node, gyre_cache_find_topo_by_id(40));
    EXPECT_EQ(1u, gyre_cache_verify_topo(node));
    EXPECT_EQ(1u, gyre_cache_verify_topo(gyre_cache_find_topo_by_id(7)));
    bus_msg_t *msg = deliver(51208, tpg_payload(41));
    ASSERT_NE(nullptr, msg);
    gyre_cache_tpg_node_t *created = gyre_cache_create_l2_tpg(msg);
    bus_drop(client_, msg);
    ASSERT_NE(nullptr, created);
    EXPECT_EQ(created, gyre_cache_find_topo_by_id(41));
    msg = deliver(51210, tpg_payload(41));
    ASSERT_NE(nullptr, msg);
    gyre_cache_delete_l2_tpg(msg);
    bus_drop(client_, msg);
    EXPECT_EQ(nullptr, gyre_cache_find_topo_by_id(41));
    // An ftag update applied directly.
    msg = deliver(51215, ftags_payload({{GYRE_FTAG_CREATE, 40, 3, 77, 0x06}}));
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(1u, gyre_cache_update_ftag(msg));
    bus_drop(client_, msg);
    EXPECT_EQ(40u, gyre_cache_get_ftag_l2_tpg(77));
    EXPECT_EQ(1u, gyre_cache_verify_topo(node));
    EXPECT_EQ(0u, gyre_cache_update_ftag(nullptr));
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreExported, BuildRefillsTheCacheFromTheDatabase)
{
    load(kFabric);
    ASSERT_EQ(1u, enable_cache());
    gyre_cache_delete_info();
    ASSERT_EQ(nullptr, gyre_cache);
    // No cache to fill: nothing is walked or added.
    EXPECT_EQ(GYRE_TPG_NONE, gyre_cache_build_info());
    EXPECT_EQ(nullptr, gyre_cache);
    ASSERT_EQ(1u, gyre_disable_cache_mode());
    ASSERT_EQ(1u, enable_cache());
    EXPECT_EQ(2u, cache_nodes().size());
    // Built again over a full cache, every topology is there twice.
    EXPECT_EQ(GYRE_TPG_NONE, gyre_cache_build_info());
    EXPECT_EQ(4u, cache_nodes().size());
    EXPECT_EQ("", dangling_entry());
    for (const auto &n : cache_nodes())
        EXPECT_TRUE(n.first == 7 || n.first == 9) << n.first;
    ASSERT_EQ(1u, gyre_disable_cache_mode());
    EXPECT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
}

TEST_F(GyreExported, DumpServedDirectlyAndANullRequest)
{
    load(kFabric);
    ASSERT_EQ(1u, enable_cache());
    EXPECT_EQ(-1, gyre_cache_dump_info(client_, nullptr));
    EXPECT_EQ((std::vector<std::string>{invalid_arg_line("msg", "gyre_cache_dump_info")}),
              syslog_lines());
    tarnhost_capture_clear();
    // A request answered by the server side directly: one page of both
    // topologies reaches the requester, and the request is disposed of.
    Bytes req(28, 0);
    put16(req, 2, 4);
    put32(req, 20, 28);
    put32(req, 24, 1);
    bus_msg_t *msg = deliver(kAttrChange, req);
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(1, gyre_cache_dump_info(client_, msg));
    bus_msg_t *reply = tarnhost_bus_recv_ms(service_, 2000);
    ASSERT_NE(nullptr, reply);
    uint32_t len = 0;
    const uint8_t *page = static_cast<const uint8_t *>(bus_payload_get(reply, &len));
    ASSERT_EQ(GYRE_CACHE_DUMP_HEADER_SIZE + 2 * GYRE_CACHE_DUMP_RECORD_SIZE, len);
    uint32_t w[3];
    memcpy(w, page, sizeof w);
    EXPECT_EQ(GYRE_CACHE_DUMP_END, w[0]);
    EXPECT_EQ(2u, w[2]);
    bus_drop(service_, reply);
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreExported, DisabledReplyAnsweredDirectly)
{
    load(kFabric);
    Bytes req(28, 0);
    put16(req, 2, 4);
    put32(req, 24, 1);
    bus_msg_t *msg = deliver(kAttrChange, req);
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(0, gyre_cache_disabled_resp(msg));
    bus_drop(client_, msg);
    bus_msg_t *reply = tarnhost_bus_recv_ms(service_, 2000);
    ASSERT_NE(nullptr, reply);
    uint32_t len = 0;
    const uint8_t *page = static_cast<const uint8_t *>(bus_payload_get(reply, &len));
    ASSERT_EQ(12u, len);
    uint32_t status = 1;
    memcpy(&status, page, 4);
    EXPECT_EQ(GYRE_CACHE_DUMP_NONE, status);
    bus_drop(service_, reply);
    EXPECT_EQ(0, gyre_cache_disabled_resp(nullptr));
}

TEST_F(GyreExported, TarnDispatchHalves)
{
    load(kFabric);
    EXPECT_EQ(-1, tarn_dispatch_internal(nullptr));
    EXPECT_TRUE(syslog_lines().empty());
    bus_msg_t *msg = deliver(51208, tpg_payload(3));
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(-1, tarn_dispatch_internal(msg)) << "not an attribute change";
    bus_drop(client_, msg);
    // Kind 7 is applied (ignored) and the message dropped by the library.
    msg = deliver(kAttrChange, attr_payload(7));
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(1, tarn_dispatch_internal(msg));
    msg = deliver(kAttrChange, attr_payload(7));
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(1, tarn_process_attr_change(msg));
    EXPECT_TRUE(syslog_lines().empty());
    EXPECT_EQ(-1, tarn_process_attr_change(nullptr));
    EXPECT_EQ((std::vector<std::string>{"<<%TARN-3-TARN_LIBBUS>> Error returned from Invalid "
                                        "Payload, errno: 0x00000000 () in "
                                        "tarn_process_attr_change()"}),
              syslog_lines());
}

}  // namespace
