// Table lookups, interface-to-context lookups and per-context attributes,
// against devices loaded from JSON.

#include <arpa/inet.h>
#include <string.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/tarn.h>

#include "support/device.h"
#include "support/fixture.h"
#include "support/library.h"

using tarntest::captured;

namespace {

class Lookup : public tarntest::DeviceTest {
protected:
    static void del(uint32_t kind, uint32_t id)
    {
        std::vector<uint8_t> key(48, 0);
        const uint32_t k = htonl(kind), v = htonl(id);
        memcpy(&key[0], &k, 4);
        memcpy(&key[4], &v, 4);
        ASSERT_EQ(0u, tarnhost_kvs_del(tarntest::tarn_kvs_uri().c_str(), key.data(), 48));
    }
};

// ---- tables ---------------------------------------------------------------------------

TEST_F(Lookup, TableIdByContextFamilyAndName)
{
    load();
    EXPECT_EQ(5u, tarn_get_table_id(1, 1, "main"));
    EXPECT_EQ(11u, tarn_get_table_id(1, 2, "main"));
    EXPECT_EQ(30u, tarn_get_table_id(3, 1, "red-v4"));
    EXPECT_EQ(0u, tarn_get_table_id(3, 2, "red-v4"));
    EXPECT_EQ(0u, tarn_get_table_id(4, 2, "main"));
    EXPECT_EQ(30u, tarn_context_get_table_id("red", 1, "red-v4"));
    EXPECT_EQ(40u, tarn_if_get_table_id(202, 2, "blue-v6"));
    EXPECT_EQ(0u, tarn_if_get_table_id(999, 2, "blue-v6"));
    EXPECT_TRUE(captured().empty());
}

TEST_F(Lookup, AddressFamilyIsStoredAsGivenAndPrintedUnknown)
{
    load();
    // A table registered by the service under address-family index 7.
    std::vector<uint8_t> key(48, 0), value = {0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 1, 0};
    key[3] = 2;
    key[7] = 3;
    key[11] = 7;
    memcpy(&key[12], "odd-af", 6);
    ASSERT_EQ(0u, tarnhost_kvs_put(tarntest::tarn_kvs_uri().c_str(), key.data(), 48,
                                   value.data(), static_cast<uint32_t>(value.size())));
    EXPECT_EQ(256u, tarn_get_table_id(3, 7, "odd-af"));
    EXPECT_EQ(0u, tarn_get_table_id(3, 1, "odd-af"));
    tarnhost_fault_set("kvs_read", 5, 1);
    EXPECT_EQ(0u, tarn_get_table_id(3, 7, "odd-af"));
    EXPECT_EQ((std::vector<std::string>{
                  read_error("context id         3 af <unknown> name odd-af", "tarn_get_table_id")}),
              captured());
}

TEST_F(Lookup, NullTableNameReadsAnAllZeroNameField)
{
    load();
    EXPECT_EQ(0u, tarn_get_table_id(1, 1, nullptr));
    tarnhost_fault_set("kvs_read", 5, 1);
    EXPECT_EQ(0u, tarn_get_table_id(1, 1, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  read_error("context id         1 af IPv4 name (null)", "tarn_get_table_id")}),
              captured());
}

TEST_F(Lookup, UnknownContextReadsNoTableRecord)
{
    // A table registered under context id 0 would answer a lookup made with
    // the unknown context's id.
    load();
    std::vector<uint8_t> key(48, 0), value = {0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0, 77};
    key[3] = 2;
    key[11] = 1;
    key[12] = 't';
    ASSERT_EQ(0u, tarnhost_kvs_put(tarntest::tarn_kvs_uri().c_str(), key.data(), 48,
                                   value.data(), static_cast<uint32_t>(value.size())));
    EXPECT_EQ(77u, tarn_get_table_id(0, 1, "t"));
    EXPECT_EQ(0u, tarn_context_get_table_id("no-such-context", 1, "t"));
    EXPECT_EQ(0u, tarn_context_get_table_id(nullptr, 1, "t"));
}

TEST_F(Lookup, TableInfo)
{
    load();
    tarn_table_info_t info;
    memset(&info, 0, sizeof info);
    ASSERT_EQ(1u, tarn_get_table_info(40, &info));
    EXPECT_EQ(4u, info.context_id);
    EXPECT_STREQ("blue-v6", info.name);
    EXPECT_EQ(0u, tarn_get_table_info(41, &info));
    EXPECT_TRUE(captured().empty());
}

TEST_F(Lookup, TableIdZeroIsLookedUp)
{
    load();
    tarn_table_info_t info;
    EXPECT_EQ(0u, tarn_get_table_info(0, &info));
    EXPECT_TRUE(captured().empty());
    tarnhost_fault_set("kvs_read", 5, 1);
    EXPECT_EQ(0u, tarn_get_table_info(0, &info));
    EXPECT_EQ((std::vector<std::string>{read_error("table_id 0", "tarn_get_table_info")}),
              captured());
}

TEST_F(Lookup, TableName)
{
    load();
    char buf[TARN_NAME_SIZE];
    EXPECT_STREQ("red-v4", tarn_get_table_name(30, buf));
    EXPECT_STREQ("<unknown>", tarn_get_table_name(31, buf));
    EXPECT_STREQ("<unknown>", tarn_get_table_name(31, nullptr));
    EXPECT_STREQ("main", tarn_get_table_name(5, nullptr));
}

TEST_F(Lookup, VrfNameTableNameFillsTheTableNameFirst)
{
    load();
    char first[TARN_NAME_SIZE], second[TARN_NAME_SIZE];
    ASSERT_EQ(1u, tarn_get_vrf_name_table_name(40, first, second));
    EXPECT_STREQ("blue-v6", first);
    EXPECT_STREQ("blue", second);
    EXPECT_EQ(0u, tarn_get_vrf_name_table_name(41, first, second));
    EXPECT_STREQ("<unknown>", first);
    EXPECT_STREQ("<unknown>", second);
}

TEST_F(Lookup, VrfNameTableNameWhenTheContextHasGone)
{
    load();
    del(3, 4);
    char first[TARN_NAME_SIZE], second[TARN_NAME_SIZE];
    EXPECT_EQ(0u, tarn_get_vrf_name_table_name(40, first, second));
    EXPECT_STREQ("blue-v6", first);
    EXPECT_STREQ("<unknown>", second);
}

TEST_F(Lookup, VrfNameTableNameRefusesItsArgumentsUntouched)
{
    load();
    char first[TARN_NAME_SIZE] = "x", second[TARN_NAME_SIZE] = "y";
    EXPECT_EQ(0u, tarn_get_vrf_name_table_name(0, first, second));
    EXPECT_EQ(0u, tarn_get_vrf_name_table_name(40, nullptr, second));
    EXPECT_EQ(0u, tarn_get_vrf_name_table_name(40, first, nullptr));
    EXPECT_STREQ("x", first);
    EXPECT_STREQ("y", second);
}

// ---- interfaces ---------------------------------------------------------------------------

TEST_F(Lookup, InterfaceContext)
{
    load();
    tarn_if_context_info_t info;
    ASSERT_EQ(1u, tarn_if_get_context_info(200, &info));
    EXPECT_EQ(3u, info.context_id);
    EXPECT_STREQ("red", info.context_name);
    EXPECT_EQ(4u, tarn_if_get_context_id(202));
    char buf[TARN_NAME_SIZE];
    EXPECT_STREQ("default", tarn_if_get_context_name(203, buf));
    EXPECT_STREQ("<unknown>", tarn_if_get_context_name(999, buf));
    EXPECT_EQ(1u, tarn_is_if_cli_ready(201));
    EXPECT_EQ(0u, tarn_is_if_cli_ready(999));
    EXPECT_EQ(0u, tarn_if_get_context_info(999, &info));
    EXPECT_TRUE(captured().empty());
}

TEST_F(Lookup, CellTypeMakesEveryInterfaceDefault)
{
    tarntest::load_device_file(tarntest::fixture("queries.json"));
    tarn_if_context_info_t info;
    // No record: reported, not answered.
    EXPECT_EQ(0u, tarn_if_get_context_info(202, &info));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBINIT>> Unable to retrieve if context info, TARN library "
                  "not initialized by client"}),
              captured());
    ASSERT_EQ(1u, tarn_api_init_clt_cache());
    tarn_clt->cell_type = 1;  // not initialised
    for (uint32_t ifindex : {0u, 202u, 999u, 0xFFFFFFFFu}) {
        memset(&info, 0, sizeof info);
        ASSERT_EQ(1u, tarn_if_get_context_info(ifindex, &info));
        EXPECT_EQ(1u, info.context_id);
        EXPECT_STREQ("default", info.context_name);
    }
}

TEST_F(Lookup, CellTypeFromTheCellManager)
{
    load(R"({"cell": 1, "contexts": [{"id": 3, "name": "red"}],
             "interfaces": [{"ifindex": 9, "iod": 9, "name": "e9", "context": "red"}]})");
    EXPECT_EQ(1u, tarn_clt->cell_type);
    EXPECT_EQ(1u, tarn_if_get_context_id(9));
    // The walk knows nothing of the short cut.
    tarn_if_context_info_t info;
    EXPECT_EQ(9u, tarn_get_next_if_context_info(0, nullptr, &info));
    EXPECT_STREQ("red", info.context_name);
}

TEST_F(Lookup, ManagementInterfaceIsInManagement)
{
    load();
    tarn_if_context_info_t info;
    ASSERT_EQ(1u, tarn_if_get_context_info(100, &info));
    EXPECT_EQ(5u, info.context_id);
    EXPECT_STREQ("management", info.context_name);
    // Without a context named "management": 1, with id 0.
    load(R"({"interfaces": [{"ifindex": 100, "iod": 1, "name": "mgmt0", "mgmt": true}]})");
    ASSERT_EQ(1u, tarn_if_get_context_info(100, &info));
    EXPECT_EQ(0u, info.context_id);
    EXPECT_STREQ("management", info.context_name);
}

TEST_F(Lookup, ContextWithoutIdRecord)
{
    load();
    tarn_if_context_info_t info;
    ASSERT_EQ(1u, tarn_if_get_context_info(204, &info));
    EXPECT_EQ(0u, info.context_id);
    EXPECT_STREQ("ghost", info.context_name);
    EXPECT_EQ(0u, tarn_if_get_context_id(204));
    EXPECT_EQ(0u, tarn_is_if_usable(204));
}

TEST_F(Lookup, UsableOnlyWhenTheContextIsUp)
{
    load();
    EXPECT_EQ(1u, tarn_is_if_usable(200));
    EXPECT_EQ(0u, tarn_is_if_usable(202)) << "blue is Down";
    EXPECT_EQ(1u, tarn_is_if_usable(203));
    EXPECT_EQ(0u, tarn_is_if_usable(999));
    load(R"({"contexts": [{"id": 3, "name": "none", "state": 0}],
             "interfaces": [{"ifindex": 9, "iod": 9, "name": "e9", "context": "none"}]})");
    EXPECT_EQ(0u, tarn_is_if_usable(9));
}

TEST_F(Lookup, InterfaceReadErrorNamesTheInterface)
{
    load();
    tarn_if_context_info_t info;
    tarnhost_fault_set("kvs_read", 5, 1);
    EXPECT_EQ(0u, tarn_if_get_context_info(202, &info));
    EXPECT_EQ((std::vector<std::string>{read_error("Ethernet1/3", "tarn_if_get_context_info")}),
              captured());
}

TEST_F(Lookup, InterfaceWalkWithAFilter)
{
    load();
    tarn_if_context_info_t info;
    std::vector<uint32_t> found;
    for (uint32_t i = tarn_get_next_if_context_info(0, "red", &info); i != 0;
         i = tarn_get_next_if_context_info(i, "red", &info)) {
        found.push_back(i);
        EXPECT_STREQ("red", info.context_name);
        EXPECT_EQ(3u, info.context_id);
    }
    EXPECT_EQ((std::vector<uint32_t>{150, 200, 201}), found);
}

TEST_F(Lookup, InterfaceWalkWithoutAFilter)
{
    load();
    tarn_if_context_info_t info;
    std::vector<uint32_t> found;
    std::vector<std::string> names;
    for (uint32_t i = tarn_get_next_if_context_info(0, nullptr, &info); i != 0;
         i = tarn_get_next_if_context_info(i, nullptr, &info)) {
        found.push_back(i);
        names.push_back(info.context_name);
    }
    // The management interface has no binding record.
    EXPECT_EQ((std::vector<uint32_t>{150, 200, 201, 202, 203, 204}), found);
    EXPECT_EQ((std::vector<std::string>{"red", "red", "red", "blue", "default", "ghost"}), names);
}

TEST_F(Lookup, InterfaceWalkOverThousands)
{
    std::string json = R"({"contexts": [{"id": 3, "name": "red"}, {"id": 4, "name": "blue"}],
                           "interfaces": [)";
    const int n = 5000;
    for (int i = n; i >= 1; --i)
        json += "{\"ifindex\": " + std::to_string(i * 7) + ", \"iod\": " + std::to_string(i) +
                ", \"name\": \"e" + std::to_string(i) + "\", \"context\": \"" +
                (i % 3 == 0 ? "blue" : "red") + "\"}" + (i > 1 ? "," : "");
    json += "]}";
    load(json);
    tarn_if_context_info_t info;
    std::vector<uint32_t> found, expected;
    for (uint32_t i = tarn_get_next_if_context_info(0, "blue", &info); i != 0;
         i = tarn_get_next_if_context_info(i, "blue", &info))
        found.push_back(i);
    for (int i = 1; i <= n; ++i)
        if (i % 3 == 0)
            expected.push_back(static_cast<uint32_t>(i * 7));
    EXPECT_EQ(expected, found);
}

// ---- attributes ----------------------------------------------------------------------------

TEST_F(Lookup, RouteLimitsAreReshaped)
{
    load();
    tarn_rt_limits_t limits;
    memset(&limits, 0xEE, sizeof limits);
    ASSERT_EQ(1u, tarn_get_rt_limits_info(5, &limits));
    EXPECT_EQ(5u, limits.table_id);
    EXPECT_EQ(10u, limits.limit1);
    EXPECT_EQ(30u, limits.limit3);
    EXPECT_EQ(1u, limits.setting1);
    EXPECT_EQ(0u, limits.setting2);
}

TEST_F(Lookup, TableWithoutRouteLimits)
{
    load();
    tarn_rt_limits_t limits;
    memset(&limits, 0xEE, sizeof limits);
    EXPECT_EQ(0u, tarn_get_rt_limits_info(30, &limits));
    EXPECT_EQ(0xEEEEEEEEu, limits.table_id) << "untouched";
    EXPECT_TRUE(captured().empty());
}

TEST_F(Lookup, NullRouteLimitsIsRefusedFirst)
{
    tarnhost_cell_set(9);
    EXPECT_EQ(0u, tarn_get_rt_limits_info(5, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIB_INVALID_ARG>> invalid arguments - limits - in "
                  "tarn_get_rt_limits_info()"}),
              captured());
    tarnhost_capture_clear();
    EXPECT_EQ(0u, tarn_get_if_soo_info(5, nullptr));
    EXPECT_EQ(0u, tarn_get_context_vpnid("red", nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIB_INVALID_ARG>> invalid arguments - soo_info - in "
                  "tarn_get_if_soo_info()",
                  "<<%TARN-3-TARN_LIB_INVALID_ARG>> invalid arguments - vpnid - in "
                  "tarn_get_context_vpnid()"}),
              captured());
}

TEST_F(Lookup, RouteLimitsReadErrorPrintsTheTableInHex)
{
    load();
    tarn_rt_limits_t limits;
    tarnhost_fault_set("kvs_read", 5, 1);
    EXPECT_EQ(0u, tarn_get_rt_limits_info(0x100, &limits));
    EXPECT_EQ((std::vector<std::string>{read_error("Table 0x100", "tarn_get_rt_limits_info")}),
              captured());
}

TEST_F(Lookup, SiteOfOrigin)
{
    load();
    tarn_soo_info_t soo;
    ASSERT_EQ(1u, tarn_get_if_soo_info(200, &soo));
    EXPECT_EQ(7u, soo.word);
    EXPECT_EQ(0x0102030405060708ull, static_cast<unsigned long long>(soo.soo));
    EXPECT_EQ(0u, tarn_get_if_soo_info(201, &soo));
    tarnhost_fault_set("kvs_read", 5, 1);
    EXPECT_EQ(0u, tarn_get_if_soo_info(200, &soo));
    EXPECT_EQ((std::vector<std::string>{read_error("interface Ethernet1/1", "tarn_get_if_soo_info")}),
              captured());
}

TEST_F(Lookup, VpnId)
{
    load();
    tarn_vpnid_info_t vpn;
    ASSERT_EQ(1u, tarn_get_context_vpnid("red", &vpn));
    EXPECT_EQ(100u, vpn.w0);
    EXPECT_EQ(200u, vpn.w1);
    EXPECT_EQ(300u, vpn.w2);
    EXPECT_EQ(0u, tarn_get_context_vpnid("blue", &vpn));
    EXPECT_EQ(0u, tarn_get_context_vpnid(nullptr, &vpn));
    EXPECT_TRUE(captured().empty());
    tarnhost_fault_set("kvs_read", 5, 2);
    EXPECT_EQ(0u, tarn_get_context_vpnid(nullptr, &vpn));
    EXPECT_EQ(0u, tarn_get_context_vpnid("red", &vpn));
    EXPECT_EQ((std::vector<std::string>{read_error("vrf (null)", "tarn_get_context_vpnid"),
                                        read_error("vrf red", "tarn_get_context_vpnid")}),
              captured());
}

TEST_F(Lookup, VpnIdOfTheEmptyName)
{
    load();
    tarn_vpnid_info_t stored = {1, 2, 3};
    void *buf = nullptr;
    uint32_t len = 0;
    ASSERT_EQ(0u, tarn_vpnid_info_to_tlv(&stored, &buf, &len, 0, nullptr, 0));
    std::vector<uint8_t> key(48, 0);
    key[3] = 7;
    ASSERT_EQ(0u, tarnhost_kvs_put(tarntest::tarn_kvs_uri().c_str(), key.data(), 48, buf, len));
    free(buf);
    tarn_vpnid_info_t vpn;
    ASSERT_EQ(1u, tarn_get_context_vpnid(nullptr, &vpn));
    EXPECT_EQ(3u, vpn.w2);
}

TEST_F(Lookup, RecordLayouts)
{
    EXPECT_EQ(40u, sizeof(tarn_if_context_info_t));
    EXPECT_EQ(4u, offsetof(tarn_if_context_info_t, context_name));
    EXPECT_EQ(16u, sizeof(tarn_rt_limits_t));
    EXPECT_EQ(12u, offsetof(tarn_rt_limits_t, setting1));
    EXPECT_EQ(13u, offsetof(tarn_rt_limits_t, setting2));
    EXPECT_EQ(76u, sizeof(tarn_protocol_config_t));
    EXPECT_EQ(41u, offsetof(tarn_protocol_config_t, context));
    EXPECT_EQ(74u, offsetof(tarn_protocol_config_t, count));
    EXPECT_EQ(76u, offsetof(tarn_protocol_config_t, entries));
}

}  // namespace
