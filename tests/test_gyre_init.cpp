// Gyre client initialisation, registration, the Gyre-only dispatch entry,
// closing and the debug switch.

#include <errno.h>

#include "test_gyre_support.h"

using namespace gyretest;

namespace {

const uint32_t kGyreOpcodes[] = {51205, 51208, 51209, 51210, 51211,
                                 51212, 51213, 51214, 51215};

class GyreInit : public GyreTest {};

TEST_F(GyreInit, WithoutARunningConfigurationInitialisationFails)
{
    EXPECT_EQ(0u, gyre_api_init());
    EXPECT_EQ(0u, gyre_api_is_initialized);
    EXPECT_EQ(0u, gyre_is_api_initialized());
    EXPECT_EQ(nullptr, gyre_kvs_handle);
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreInit, InitialisationFillsTheHandleInsideTheStateArea)
{
    load("{}");
    memset(gyre_ha_store, 0xA5, sizeof gyre_ha_store);
    ASSERT_EQ(1u, gyre_api_init());
    EXPECT_EQ(1u, gyre_api_is_initialized);
    EXPECT_EQ(1u, gyre_is_api_initialized());
    ASSERT_EQ(reinterpret_cast<kpipe_kvs_handle_t *>(gyre_ha_store), gyre_kvs_handle);
    EXPECT_STREQ("gyre_kvs_info", gyre_kvs_handle->name);
    EXPECT_STREQ((std::string(TARNHOST_RUNNING_URI) + "/gyre_kvs_info").c_str(),
                 gyre_kvs_handle->uri);
    EXPECT_EQ(2u, gyre_kvs_handle->mode);
    EXPECT_EQ(0u, gyre_kvs_handle->w0);
    EXPECT_EQ(0u, gyre_kvs_handle->w1);
    EXPECT_EQ(0u, gyre_kvs_handle->w2);
    // The leading byte is not the library's to set.
    EXPECT_EQ(0xA5, gyre_ha_store[0]);
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreInit, SecondInitialisationOpensNothing)
{
    load("{}");
    ASSERT_EQ(1u, gyre_api_init());
    tarnhost_fault_set("kpipe_kvs_open", KVS_ERR_IO, TARNHOST_FAULT_ALWAYS);
    tarnhost_fault_set("supv_uri_complete", 1, TARNHOST_FAULT_ALWAYS);
    EXPECT_EQ(1u, gyre_api_init());
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreInit, OpenFailureIsReportedAndRegistrationFailsToo)
{
    load("{}");
    tarnhost_fault_set("kpipe_kvs_open", KVS_ERR_IO, TARNHOST_FAULT_ALWAYS);
    EXPECT_EQ(0u, gyre_api_init());
    EXPECT_EQ(0u, gyre_api_is_initialized);
    tarnhost_log_throttle_reset();
    EXPECT_EQ(0u, gyre_register(client_));
    EXPECT_EQ(0u, tarn_clt_registered);
    const std::string line =
        "<<%TARN-3-TARN_LIBAPI_FAILED>> kpipe_kvs_open - failed in gyre_api_init()";
    EXPECT_EQ((std::vector<std::string>{line, line}), syslog_lines());
}

TEST_F(GyreInit, UriCompletionFailureGivesZeroSilently)
{
    load("{}");
    tarnhost_fault_set("supv_uri_complete", 1, 1);
    EXPECT_EQ(0u, gyre_api_init());
    EXPECT_TRUE(syslog_lines().empty());
    EXPECT_EQ(1u, gyre_api_init());
}

TEST_F(GyreInit, ClientRecordAllocationFailure)
{
    load("{}");
    tarntest::reset_library();
    tarnhost_capture_clear();
    tarnhost_fault_set("alloctrack_alloc", 1, 1);
    EXPECT_EQ(0u, gyre_api_init());
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-LIB_NOMEM>> Failed to allocate tarn_clt in tarn_api_init_clt_cache()",
                  "<<%TARN-3-TARN_NOALLOC>> tarn_clt struct is NULL - failed in tarn_clt_initialized()",
              }),
              syslog_lines());
    EXPECT_EQ(0u, gyre_api_is_initialized);
    EXPECT_EQ(1u, gyre_api_init());
}

TEST_F(GyreInit, InternalInitialisationOpensNothing)
{
    EXPECT_EQ(1u, gyre_api_init_internal());
    EXPECT_EQ(1u, gyre_api_is_initialized);
    EXPECT_EQ(nullptr, gyre_kvs_handle);
    EXPECT_EQ(1u, gyre_api_init());
}

TEST_F(GyreInit, RegisterInitialisesFirstAndSetsEveryOpcode)
{
    load("{}");
    EXPECT_EQ(0u, gyre_api_is_initialized);
    ASSERT_EQ(0u, bus_options_set(client_, 51208, 0xABCD1204u));
    EXPECT_EQ(1u, gyre_register(client_));
    EXPECT_EQ(1u, gyre_api_is_initialized);
    EXPECT_EQ(1u, tarn_clt_registered);
    EXPECT_EQ(client_, tarn_clt->bus_handle);
    for (uint32_t op : kGyreOpcodes)
        EXPECT_NE(0u, bus_options_get(client_, op) & BUS_OPT_RECEIVE) << op;
    // The old word keeps its low 16 bits but 0x10, which is then set.
    EXPECT_EQ((0xABCD1204u & 0xFFEFu) | 0x10u, bus_options_get(client_, 51208));
    // The two opcodes between 51205 and 51208 are not Gyre's.
    for (uint32_t op : {51206u, 51207u, 51216u, 51226u})
        EXPECT_EQ(0u, bus_options_get(client_, op) & BUS_OPT_RECEIVE) << op;
    uint32_t subs[8];
    EXPECT_EQ(1u, tarnhost_bus_subscribers(51214, subs, 8));
    EXPECT_EQ(client_, subs[0]);
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreInit, RegisterWithAllOnesLeavesTheRegistrationFlag)
{
    load("{}");
    EXPECT_EQ(0u, gyre_register(BUS_HANDLE_NONE));
    EXPECT_EQ(0u, tarn_clt_registered);
    ASSERT_EQ(1u, gyre_register(client_));
    EXPECT_EQ(0u, gyre_register(BUS_HANDLE_NONE));
    EXPECT_EQ(1u, tarn_clt_registered);
    EXPECT_EQ(client_, tarn_clt->bus_handle);
}

TEST_F(GyreInit, RegisterOutsideCellOne)
{
    load("{}");
    tarnhost_cell_set(2);
    EXPECT_EQ(0u, gyre_register(client_));
    tarnhost_cell_set(5);
    EXPECT_EQ(0u, gyre_register(client_));
    tarnhost_log_throttle_reset();
    tarnhost_cell_set(0x30000);  // cell 0 in the low 16 bits
    EXPECT_EQ(0u, gyre_register(client_));
    EXPECT_EQ(0u, tarn_clt_registered);
    EXPECT_EQ((std::vector<std::string>{
                  cell_line("ctx range", "gyre_register"),
                  cell_line("IS_CELL_IS_VALID()", "gyre_register"),
                  cell_line("IS_CELL_IS_VALID()", "gyre_register"),
              }),
              syslog_lines());
    tarnhost_cell_set(0x20001);  // cell 1 in the low 16 bits
    EXPECT_EQ(1u, gyre_register(client_));
}

TEST_F(GyreInit, OptionFailuresAreReportedOneByOneAndOnlyTheLastDecides)
{
    load("{}");
    ASSERT_EQ(1u, gyre_api_init());
    const std::string line =
        "<<%TARN-3-BUS>> Error returned from bus_register, errno: 0x00000005 "
        "(Input/output error) in gyre_register()";
    // Eight failures are eight reports: with the first seven refused by the
    // rate limiter the eighth still goes out, with all eight refused none.
    for (uint32_t refused : {0u, 7u, 8u}) {
        tarnhost_capture_clear();
        tarnhost_log_throttle_reset();
        tarnhost_fault_set("bus_options_set", EIO, 8);
        tarnhost_fault_set("syslog_msg_rate_limit", 0, refused);
        EXPECT_EQ(1u, gyre_register(client_)) << "the last opcode succeeded";
        EXPECT_EQ(refused < 8 ? std::vector<std::string>{line} : std::vector<std::string>{},
                  syslog_lines())
            << refused;
        tarnhost_fault_clear("syslog_msg_rate_limit");
    }
    EXPECT_NE(0u, bus_options_get(client_, 51215) & BUS_OPT_RECEIVE);
    EXPECT_EQ(0u, bus_options_get(client_, 51214) & BUS_OPT_RECEIVE);

    tarnhost_capture_clear();
    tarnhost_log_throttle_reset();
    tarnhost_fault_set("bus_options_set", EIO, 9);
    EXPECT_EQ(0u, gyre_register(client_));
    EXPECT_EQ((std::vector<std::string>{line}), syslog_lines());
    EXPECT_EQ(1u, tarn_clt_registered) << "set before the options";
}

TEST_F(GyreInit, DeregisterClearsTheOptionsAndKeepsTheFlag)
{
    load("{}");
    ASSERT_EQ(1u, gyre_register(client_));
    ASSERT_EQ(0u, bus_options_set(client_, 51215, 0xABCD1234u));
    EXPECT_EQ(0u, gyre_deregister(client_));
    for (uint32_t op : kGyreOpcodes)
        EXPECT_EQ(0u, bus_options_get(client_, op) & BUS_OPT_RECEIVE) << op;
    EXPECT_EQ(0x1234u & 0xFFEFu, bus_options_get(client_, 51215));
    EXPECT_EQ(1u, tarn_clt_registered);
    uint32_t subs[8];
    EXPECT_EQ(0u, tarnhost_bus_subscribers(51214, subs, 8));
    // The last change's result: an unknown handle fails.
    EXPECT_NE(0u, gyre_deregister(0x7FFFFFF0u));
}

TEST_F(GyreInit, GyreDispatchWithTheCacheOffAnswersDumpRequests)
{
    load("{}");
    ASSERT_EQ(1u, gyre_register(client_));
    // A dump request from the service handle: answered, then -1.
    bus_msg_t *req = deliver(kAttrChange, attr_payload(4));
    ASSERT_NE(nullptr, req);
    EXPECT_EQ(-1, gyre_dispatch(req));
    bus_msg_t *reply = tarnhost_bus_recv_ms(service_, 2000);
    ASSERT_NE(nullptr, reply);
    uint32_t len = 0;
    const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(reply, &len));
    ASSERT_EQ(12u, len);
    uint32_t status = 0xFF;
    memcpy(&status, p, 4);
    EXPECT_EQ(0u, status);
    EXPECT_EQ(bus_msg_id_get(req), tarnhost_bus_reply_to_get(reply));
    bus_drop(service_, reply);
    bus_drop(client_, req);
    // Anything else: no answer.
    for (const auto &m : {std::make_pair(kAttrChange, attr_payload(3)),
                          std::make_pair(51208u, tpg_payload(5))}) {
        bus_msg_t *msg = deliver(m.first, m.second);
        ASSERT_NE(nullptr, msg);
        EXPECT_EQ(-1, gyre_dispatch(msg));
        bus_drop(client_, msg);
    }
    EXPECT_EQ(nullptr, tarnhost_bus_recv_ms(service_, 50));
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreInit, GyreDispatchWithTheCacheOnIsTarnDispatch)
{
    load("{}");
    ASSERT_EQ(1u, enable_cache());
    bus_msg_t *msg = deliver(51208, tpg_payload(5));
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(0, gyre_dispatch(msg));
    bus_drop(client_, msg);
    EXPECT_NE(nullptr, gyre_cache_find_topo_by_id(5));
    msg = deliver(12345, tpg_payload(6));
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(-1, gyre_dispatch(msg));
    bus_drop(client_, msg);
}

TEST_F(GyreInit, CloseTwiceDoesNothingTheSecondTime)
{
    load(R"({"topologies": [{"id": 4, "active_vlans": "1-3"}]})");
    ASSERT_EQ(1u, enable_cache());
    ASSERT_NE(nullptr, gyre_cache);
    gyre_api_close();
    EXPECT_EQ(0u, gyre_api_is_initialized);
    EXPECT_EQ(0u, gyre_cache_enabled);
    EXPECT_EQ(nullptr, gyre_cache);
    EXPECT_EQ(1u, tarn_clt_registered) << "tarn_api_close's to clear";
    for (uint32_t op : kGyreOpcodes)
        EXPECT_EQ(0u, bus_options_get(client_, op) & BUS_OPT_RECEIVE) << op;
    EXPECT_EQ(0u, bus_options_get(client_, kAttrChange) & BUS_OPT_RECEIVE);
    EXPECT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE));
    // A second close would clear this option again if it did anything.
    ASSERT_EQ(0u, bus_options_set(client_, 51208, BUS_OPT_RECEIVE));
    gyre_api_close();
    EXPECT_EQ(BUS_OPT_RECEIVE, bus_options_get(client_, 51208));
    for (const auto &l : syslog_lines())
        ADD_FAILURE() << l;
}

TEST_F(GyreInit, CloseOutsideCellOneDoesNothing)
{
    load("{}");
    ASSERT_EQ(1u, gyre_register(client_));
    tarnhost_cell_set(3);
    gyre_api_close();
    EXPECT_EQ(1u, gyre_api_is_initialized);
    EXPECT_EQ((std::vector<std::string>{cell_line("ctx range", "tarn_get_cell_ctx")}),
              syslog_lines());
}

TEST_F(GyreInit, DebugSwitch)
{
    load("{}");
    EXPECT_EQ(0u, gyre_api_debug(nullptr, 1));
    EXPECT_EQ(0u, debug_enabled);
    int handle = 0;
    EXPECT_EQ(1u, gyre_api_debug(&handle, 1));
    EXPECT_EQ(1u, debug_enabled);
    EXPECT_EQ(0u, gyre_api_debug(nullptr, 0));
    EXPECT_EQ(1u, debug_enabled);
    // Gyre's kind prints the library's debug lines.
    ASSERT_EQ(1u, enable_cache());
    EXPECT_TRUE(has_line(debug_lines(), dbg("Completed gyre_enable_cache_mode()")));
    EXPECT_EQ(1u, gyre_api_debug(&handle, 0));
    EXPECT_EQ(0u, debug_enabled);
    tarnhost_capture_clear();
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(1));
    EXPECT_TRUE(debug_lines().empty());
}

}  // namespace
