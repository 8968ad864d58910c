// Interface VLAN queries (with port-channel members), topology VLAN
// queries on both paths, and the topology walks over the Tarn database.

#include <arpa/inet.h>

#include "test_gyre_support.h"

using namespace gyretest;

namespace {

constexpr uint32_t kUntouched = 0xDEADBEEFu;
constexpr uint32_t kPo = 369098753, kEth1 = 436207616, kEth2 = 436211712,
                   kEth3 = 436215808, kEth4 = 436219904;

class GyreVlans : public GyreTest {
protected:
    void SetUp() override
    {
        GyreTest::SetUp();
        load_fixture("gyre_basic.json");
    }
    using Query = uint32_t (*)(uint32_t, gyre_vlan_bmp_t *);
    static Set ask(Query q, uint32_t id, uint32_t *ok = nullptr)
    {
        gyre_vlan_bmp_t b = vlan_bmp({4000}, kUntouched);
        const uint32_t rc = q(id, &b);
        if (ok != nullptr)
            *ok = rc;
        if (rc == 1) {
            EXPECT_EQ(512u, b.len);
        }
        return rc == 1 ? bits_of(b.bits, 4096) : Set{99999};
    }
};

TEST_F(GyreVlans, InterfaceVlans)
{
    EXPECT_EQ((Set{5, 7}), ask(gyre_get_if_act_vlans, kEth2));
    EXPECT_EQ(parse_ranges("5-9"), ask(gyre_get_if_cfg_vlans, kEth2));
    EXPECT_EQ((Set{5, 7}), ask(gyre_get_if_act_vlans_iod, 18));
    EXPECT_EQ(parse_ranges("5-9"), ask(gyre_get_if_cfg_vlans_iod, 18));
    EXPECT_EQ(parse_ranges("100-199"), ask(gyre_get_if_act_vlans, kPo));
    EXPECT_EQ(parse_ranges("100-299"), ask(gyre_get_if_cfg_vlans_iod, 4097));
    // The common read by IOD and type.
    gyre_vlan_bmp_t b = vlan_bmp({}, kUntouched);
    EXPECT_EQ(1u, gyre_get_if_vlans(18, &b, 2));
    EXPECT_EQ(parse_ranges("5-9"), bits_of(b.bits, 4096));
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreVlans, InterfaceWithoutRecordHasTheEmptySet)
{
    uint32_t ok = 0;
    EXPECT_EQ(Set{}, ask(gyre_get_if_act_vlans, kEth3, &ok));
    EXPECT_EQ(1u, ok);
    EXPECT_EQ(Set{}, ask(gyre_get_if_cfg_vlans_iod, 19, &ok));
    EXPECT_EQ(1u, ok);
    // The common read takes the IOD as it is; the IOD variant first maps it
    // to an interface, which fails for an unknown one.
    gyre_vlan_bmp_t b = vlan_bmp({1}, kUntouched);
    EXPECT_EQ(1u, gyre_get_if_vlans(12345, &b, 3));
    EXPECT_EQ(512u, b.len);
    EXPECT_EQ(Set{}, bits_of(b.bits, 4096));
    ask(gyre_get_if_act_vlans_iod, 12345, &ok);
    EXPECT_EQ(0u, ok);
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreVlans, PortChannelMembersReportThePortChannel)
{
    // Ethernet1/1 has records of its own; they are not what it reports.
    for (uint32_t ifindex : {kEth1, kEth4}) {
        EXPECT_EQ(parse_ranges("100-199"), ask(gyre_get_if_act_vlans, ifindex)) << ifindex;
        EXPECT_EQ(parse_ranges("100-299"), ask(gyre_get_if_cfg_vlans, ifindex)) << ifindex;
    }
    for (uint32_t iod : {17u, 20u}) {
        EXPECT_EQ(parse_ranges("100-199"), ask(gyre_get_if_act_vlans_iod, iod)) << iod;
        EXPECT_EQ(parse_ranges("100-299"), ask(gyre_get_if_cfg_vlans_iod, iod)) << iod;
    }
    // When the port-channel manager fails, the port is taken as itself.
    tarnhost_fault_set("bond_get_pc_for_port", 1, 2);
    EXPECT_EQ(parse_ranges("1-2"), ask(gyre_get_if_act_vlans, kEth1));
    EXPECT_EQ(Set{3}, ask(gyre_get_if_cfg_vlans_iod, 17));
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreVlans, InterfaceManagerFailuresGiveZero)
{
    uint32_t ok = 1;
    ask(gyre_get_if_act_vlans, 0x12345, &ok);  // no such interface
    EXPECT_EQ(0u, ok);
    tarnhost_fault_set("nic_get_iod_frm_ifindex", 1, 1);
    ask(gyre_get_if_cfg_vlans, kEth2, &ok);
    EXPECT_EQ(0u, ok);
    tarnhost_fault_set("nic_get_ifindex_frm_iod", 1, 1);
    ask(gyre_get_if_act_vlans_iod, 18, &ok);
    EXPECT_EQ(0u, ok);
    // A member whose port-channel's IOD cannot be found.
    tarnhost_fault_set("nic_get_iod_frm_ifindex", 1, 1);
    ask(gyre_get_if_act_vlans_iod, 17, &ok);
    EXPECT_EQ(0u, ok);
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreVlans, InterfaceReadErrorLeavesTheBitmap)
{
    ASSERT_EQ(1u, gyre_api_init());
    tarnhost_fault_set("kpipe_kvs_read", KVS_ERR_IO, 2);
    gyre_vlan_bmp_t b = vlan_bmp({4000}, kUntouched);
    EXPECT_EQ(0u, gyre_get_if_act_vlans(kEth1, &b));
    EXPECT_EQ(0u, gyre_get_if_cfg_vlans_iod(18, &b));
    EXPECT_EQ(kUntouched, b.len);
    EXPECT_EQ(Set{4000}, bits_of(b.bits, 4096));
    EXPECT_EQ((std::vector<std::string>{
                  kvs_read_line("IOD 4097, active vlans", KVS_ERR_IO, "database I/O error",
                                "gyre_get_if_vlans"),
                  kvs_read_line("IOD 18, configured vlans", KVS_ERR_IO, "database I/O error",
                                "gyre_get_if_vlans"),
              }),
              syslog_lines());
}

TEST_F(GyreVlans, TopologyVlansFromTheDatabase)
{
    EXPECT_EQ(parse_ranges("10-20,30"), ask(gyre_get_l2_tpg_act_vlans, 7));
    uint32_t ok = 1;
    ask(gyre_get_l2_tpg_act_vlans, 1000, &ok);
    EXPECT_EQ(0u, ok) << "no record";
    gyre_vlan_bmp_t b = vlan_bmp({}, kUntouched);
    EXPECT_EQ(1u, gyre_get_l2_tpg_cfg_vlans_by_name("7", &b));
    EXPECT_EQ(512u, b.len);
    EXPECT_EQ(parse_ranges("10-40"), bits_of(b.bits, 4096));
    EXPECT_EQ(1u, gyre_get_l2_tpg_act_vlans_by_name("12", &b));
    EXPECT_EQ(Set{}, bits_of(b.bits, 4096));
    EXPECT_EQ(1u, gyre_get_l2_tpg_vlans("12", &b, 0));
    EXPECT_EQ(Set{5}, bits_of(b.bits, 4096));
    EXPECT_EQ(0u, gyre_get_l2_tpg_cfg_vlans_by_name("8", &b));
    EXPECT_EQ(0u, gyre_get_l2_tpg_act_vlans_by_name("07", &b)) << "the name is the key";
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreVlans, TopologyIdIsFormattedAsTheName)
{
    load(R"({"topologies": [{"id": 5, "active_vlans": "50"},
                            {"id": 4000000, "active_vlans": "4001-4002"}]})");
    EXPECT_EQ(Set{50}, ask(gyre_get_l2_tpg_act_vlans, 5));
    EXPECT_EQ((Set{4001, 4002}), ask(gyre_get_l2_tpg_act_vlans, 4000000));
}

TEST_F(GyreVlans, TopologyVlansDatabaseFailures)
{
    ASSERT_EQ(1u, gyre_api_init());
    gyre_vlan_bmp_t b = vlan_bmp({1}, kUntouched);
    tarnhost_fault_set("kpipe_kvs_read", KVS_ERR_IO, 1);
    EXPECT_EQ(0u, gyre_get_l2_tpg_act_vlans(7, &b));
    EXPECT_EQ(0u, gyre_get_l2_tpg_act_vlans(7, nullptr));
    EXPECT_EQ(kUntouched, b.len);
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBAPI_FAILED>> kpipe_kvs_read() - failed in gyre_get_l2_tpg_vlans()",
                  invalid_arg_line("vlans", "gyre_get_l2_tpg_vlans"),
              }),
              syslog_lines());
}

TEST_F(GyreVlans, TopologyVlansOnTheCachePath)
{
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    gyre_vlan_bmp_t b = vlan_bmp({4000}, kUntouched);
    // The configured query gives the cached active set and keeps the length.
    EXPECT_EQ(1u, gyre_get_l2_tpg_cfg_vlans_by_name("7", &b));
    EXPECT_EQ(kUntouched, b.len);
    EXPECT_EQ(parse_ranges("10-20,30"), bits_of(b.bits, 4096));
    EXPECT_EQ(1u, gyre_get_l2_tpg_act_vlans(8, &b));
    EXPECT_EQ(parse_ranges("100-110"), bits_of(b.bits, 4096));
    EXPECT_EQ(0u, gyre_get_l2_tpg_act_vlans(99, &b));
    EXPECT_EQ(0u, gyre_get_l2_tpg_vlans(nullptr, &b, 1));
    EXPECT_EQ(0u, gyre_get_l2_tpg_vlans("7", nullptr, 0));
    EXPECT_EQ((std::vector<std::string>{
                  dbg("No tpg id 99 information in gyre_cache_get_l2_tpg_vlans()"),
                  dbg("Invalid Arguments in gyre_cache_get_l2_tpg_vlans()"),
                  dbg("Invalid Arguments in gyre_cache_get_l2_tpg_vlans()"),
              }),
              debug_lines());
    EXPECT_TRUE(syslog_lines().empty());
}

// ---- the topology walks ---------------------------------------------------------------

TEST_F(GyreVlans, TopologyWalkInAscendingIdOrder)
{
    // Tarn tables around the topologies must not show up.
    load(R"({"contexts": [{"id": 1, "name": "default",
               "tables": [{"id": 3, "af": 1, "name": "t3"}, {"id": 3221225471, "af": 2, "name": "tmax"}]}],
             "topologies": [{"id": 1073741823}, {"id": 300}, {"id": 2}, {"id": 70000}]})");
    tarn_table_info_t info;
    memset(&info, 0, sizeof info);
    std::vector<uint32_t> ids;
    std::vector<std::string> names;
    for (uint32_t id = gyre_get_first_l2_tpg(&info); id != GYRE_TPG_NONE;
         id = gyre_get_next_l2_tpg(&info)) {
        ASSERT_NE(0u, id);
        ids.push_back(id);
        EXPECT_EQ(id, info.tpg_id);
        names.push_back(info.name);
        if (ids.size() > 10)
            break;
    }
    EXPECT_EQ((std::vector<uint32_t>{2, 300, 70000, 1073741823}), ids);
    EXPECT_EQ((std::vector<std::string>{"2", "300", "70000", "1073741823"}), names);
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_next_l2_tpg(&info)) << "stays at the end";
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreVlans, TopologyWalkFailures)
{
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_first_l2_tpg(nullptr));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_next_l2_tpg(nullptr));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_next_if_table_info(kEth2, 1, nullptr));
    EXPECT_TRUE(syslog_lines().empty());
    tarn_table_info_t info;
    tarnhost_fault_set("kvs_iterator_init", KVS_ERR_IO, 2);
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_first_l2_tpg(&info));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_next_if_table_info(kEth2, 1, &info));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBAPI_FAILED>> kvs_iterator_init() - failed in gyre_get_first_l2_tpg()",
                  "<<%TARN-3-TARN_LIBAPI_FAILED>> kvs_iterator_init() - failed in "
                  "gyre_get_next_if_table_info()",
              }),
              syslog_lines());
    tarnhost_capture_clear();
    tarnhost_cell_set(2);
    EXPECT_EQ(0u, gyre_get_first_l2_tpg(&info));
    EXPECT_EQ(0u, gyre_get_next_l2_tpg(&info));
    EXPECT_EQ(0u, gyre_get_next_if_table_info(kEth2, 1, &info));
    EXPECT_EQ(0u, gyre_get_if_l2_tpg_info(kEth2, "7", &info));
    EXPECT_EQ((std::vector<std::string>{
                  cell_line("ctx range", "gyre_get_first_l2_tpg"),
                  cell_line("ctx range", "gyre_get_next_l2_tpg"),
                  cell_line("ctx range", "gyre_get_next_if_table_info"),
                  cell_line("ctx range", "gyre_get_if_l2_tpg_info"),
              }),
              syslog_lines());
    tarnhost_cell_reset();
    tarntest::reset_library();
    EXPECT_EQ(0u, gyre_get_first_l2_tpg(&info));
    EXPECT_EQ(0u, gyre_get_next_l2_tpg(&info));
    EXPECT_EQ(0u, gyre_get_next_if_table_info(kEth2, 1, &info));
    EXPECT_EQ(0u, gyre_get_if_l2_tpg_info(kEth2, "7", &info));
}

TEST_F(GyreVlans, InterfaceTopologyWalk)
{
    tarn_table_info_t info;
    memset(&info, 0, sizeof info);
    EXPECT_EQ(7u, gyre_get_next_if_table_info(kEth2, 1, &info));
    EXPECT_STREQ("7", info.name);
    EXPECT_EQ(7u, info.tpg_id);
    EXPECT_EQ(8u, gyre_get_next_if_table_info(kEth2, 0, &info));
    EXPECT_STREQ("fabric-topology-long-name", info.name);
    EXPECT_EQ(8u, info.tpg_id);
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_next_if_table_info(kEth2, 0, &info));
    EXPECT_EQ(12u, gyre_get_next_if_table_info(kEth3, 1, &info));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_next_if_table_info(kEth3, 0, &info));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_next_if_table_info(kEth1, 1, &info));
}

TEST_F(GyreVlans, InterfaceTopologyFieldZero)
{
    // An interface-topology record whose topology field is 0.
    tarn_table_info_t rec;
    memset(&rec, 0, sizeof rec);
    strcpy(rec.name, "zero");
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, tarn_table_info_to_tlv(&rec, &buf, &len, 0, nullptr, 0));
    Bytes key(48, 0);
    const uint32_t kind = htonl(6), ifx = htonl(kEth4);
    memcpy(&key[0], &kind, 4);
    memcpy(&key[4], &ifx, 4);
    memcpy(&key[8], "zero", 4);
    ASSERT_EQ(0u, tarnhost_kvs_put(tarntest::tarn_kvs_uri().c_str(), key.data(), 48, buf, len));
    free(buf);
    tarn_table_info_t info;
    memset(&info, 0xFF, sizeof info);
    EXPECT_EQ(0x3FFFFFFFu, gyre_get_next_if_table_info(kEth4, 1, &info));
    EXPECT_EQ(0u, info.tpg_id);
    EXPECT_STREQ("zero", info.name);
}

TEST_F(GyreVlans, InterfaceTopologyRecord)
{
    tarn_table_info_t info;
    memset(&info, 0, sizeof info);
    EXPECT_EQ(1u, gyre_get_if_l2_tpg_info(kEth2, "7", &info));
    EXPECT_EQ(7u, info.tpg_id);
    // 17 characters or more: the key keeps 16.
    memset(&info, 0, sizeof info);
    EXPECT_EQ(1u, gyre_get_if_l2_tpg_info(kEth2, "fabric-topology-long-name", &info));
    EXPECT_EQ(8u, info.tpg_id);
    EXPECT_STREQ("fabric-topology-long-name", info.name);
    EXPECT_EQ(1u, gyre_get_if_l2_tpg_info(kEth2, "fabric-topology-XYZ", &info));
    EXPECT_EQ(8u, info.tpg_id);
    EXPECT_EQ(0u, gyre_get_if_l2_tpg_info(kEth2, "fabric-topology", &info));
    EXPECT_EQ(0u, gyre_get_if_l2_tpg_info(kEth3, "7", &info));
    EXPECT_TRUE(syslog_lines().empty());
    tarnhost_fault_set("kvs_read", KVS_ERR_IO, 1);
    EXPECT_EQ(0u, gyre_get_if_l2_tpg_info(kEth2, "7", &info));
    EXPECT_EQ(0u, gyre_get_if_l2_tpg_info(kEth2, "7", nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  kvs_read_line("interface Eth1/2(436211712) topo 7", KVS_ERR_IO,
                                "database I/O error", "gyre_get_if_l2_tpg_info"),
                  invalid_arg_line("info", "gyre_get_if_l2_tpg_info"),
              }),
              syslog_lines());
}

}  // namespace
