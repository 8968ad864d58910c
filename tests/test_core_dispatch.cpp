// Registration, notification dispatch, client cache mode, AS-number format
// tracking and the configuration-change notice, over the real bus.

#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "core/state.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "support/device.h"
#include "support/fixture.h"
#include "support/library.h"

using tarntest::captured;

namespace {

constexpr uint32_t kRegister = 51201;
constexpr uint32_t kAttrChange = 51226;
constexpr uint32_t kConfigChange = 51222;

// An attribute-change payload of `kind`, with `word24` at offset 24.
std::vector<uint8_t> attr_change(uint16_t kind, uint32_t word24 = 0, size_t len = 28)
{
    std::vector<uint8_t> p(len, 0);
    if (len >= 4)
        memcpy(&p[2], &kind, 2);
    if (len >= 28)
        memcpy(&p[24], &word24, 4);
    return p;
}

class Dispatch : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        tarntest::reset_library();
        handle_ = bus_bind(4, -1, nullptr, "test client");
        ASSERT_NE(BUS_HANDLE_NONE, handle_);
    }
    void TearDown() override
    {
        tarntest::reset_library();
        bus_unbind(handle_);
        HostTest::TearDown();
    }
    void load(const std::string &json = "{}")
    {
        tarntest::load_device_json(json);
        ASSERT_EQ(1u, tarn_api_init());
        tarnhost_capture_clear();
    }
    // A message of `opcode` as the client's loop receives it.
    bus_msg_t *deliver(uint32_t opcode, const std::vector<uint8_t> &payload)
    {
        EXPECT_EQ(0, tarnhost_bus_subscribe(handle_, opcode, 1));
        EXPECT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, opcode,
                                          payload.empty() ? nullptr : payload.data(),
                                          static_cast<uint32_t>(payload.size())));
        bus_msg_t *msg = tarnhost_bus_recv_ms(handle_, 2000);
        EXPECT_NE(nullptr, msg);
        return msg;
    }
    uint32_t handle_ = BUS_HANDLE_NONE;
};

// ---- registration ----------------------------------------------------------------------

TEST_F(Dispatch, DispatchBeforeRegisterReturnsMinusOne)
{
    load();
    for (uint32_t opcode : {kAttrChange, 51208u, 51215u, 12345u}) {
        bus_msg_t *msg = deliver(opcode, attr_change(7));
        ASSERT_NE(nullptr, msg);
        EXPECT_EQ(-1, tarn_dispatch(msg));
        EXPECT_EQ(0, bus_drop(handle_, msg)) << "still the caller's";
    }
    EXPECT_TRUE(captured().empty());
}

TEST_F(Dispatch, RegisterRecordsTheHandleAndSetsTheOption)
{
    load();
    ASSERT_EQ(0u, bus_options_set(handle_, kRegister, 0xABCD1234u));
    EXPECT_EQ(1u, tarn_register(handle_));
    EXPECT_EQ(1u, tarn_clt_registered);
    EXPECT_EQ(handle_, tarn_clt->bus_handle);
    // Only the low 16 bits of the old word are kept.
    EXPECT_EQ((0x1234u & 0xFFEFu) | 0x10u, bus_options_get(handle_, kRegister));
    EXPECT_TRUE(captured().empty());
}

TEST_F(Dispatch, RegisterWithAllOnesChangesNothing)
{
    load();
    EXPECT_EQ(0u, tarn_register(0xFFFFFFFFu));
    EXPECT_EQ(0u, tarn_clt_registered);
    ASSERT_EQ(1u, tarn_register(handle_));
    EXPECT_EQ(0u, tarn_register(0xFFFFFFFFu));
    EXPECT_EQ(1u, tarn_clt_registered);
    EXPECT_EQ(handle_, tarn_clt->bus_handle);
}

TEST_F(Dispatch, RegisterBeforeInitialising)
{
    EXPECT_EQ(nullptr, tarn_clt);
    EXPECT_EQ(1u, tarn_register(handle_));
    ASSERT_NE(nullptr, tarn_clt);
    EXPECT_EQ(0u, tarn_clt->initialized);
    EXPECT_EQ(handle_, tarn_clt->bus_handle);
}

TEST_F(Dispatch, OptionFailureIsReportedButRegisters)
{
    load();
    tarnhost_fault_set("bus_options_set", 22, 1);
    EXPECT_EQ(0u, tarn_register(handle_));
    EXPECT_EQ(1u, tarn_clt_registered);
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-BUS>> Error returned from bus_register, errno: 0x00000016 "
                  "(Invalid argument) in tarn_register()"}),
              captured());
}

TEST_F(Dispatch, RegisterAndDeregisterOutsideCellOne)
{
    load();
    tarnhost_cell_set(3);
    EXPECT_EQ(0u, tarn_register(handle_));
    EXPECT_EQ(0u, tarn_deregister());
    bus_msg_t *msg = deliver(kAttrChange, attr_change(7));
    EXPECT_EQ(0, tarn_dispatch(msg));
    bus_drop(handle_, msg);
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_CELL>> Error returned from ctx range in tarn_register()",
                  "<<%TARN-3-TARN_CELL>> Error returned from ctx range in tarn_deregister()",
                  "<<%TARN-3-TARN_CELL>> Error returned from ctx range in tarn_dispatch()"}),
              captured());
}

TEST_F(Dispatch, Deregister)
{
    EXPECT_EQ(0u, tarn_deregister()) << "no record";
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    ASSERT_EQ(1u, tarn_enable_cache_mode(0));
    EXPECT_EQ(1u, tarn_deregister());
    EXPECT_EQ(0u, tarn_clt_registered);
    EXPECT_EQ(0u, tarn_cache_is_enabled());
    EXPECT_EQ(0u, bus_options_get(handle_, kRegister) & 0x10u);
    EXPECT_EQ(0u, bus_options_get(handle_, kAttrChange) & 0x10u);
    EXPECT_EQ(handle_, tarn_clt->bus_handle) << "kept until close";
    tarn_clt->bus_handle = 0xFFFFFFFFu;
    EXPECT_EQ(0u, tarn_deregister());
}

TEST_F(Dispatch, CloseDeregisters)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    ASSERT_EQ(1u, tarn_enable_cache_mode(1));
    tarn_api_close();
    EXPECT_EQ(0u, tarn_clt_registered);
    EXPECT_EQ(0u, bus_options_get(handle_, kRegister) & 0x10u);
    EXPECT_EQ(0u, bus_options_get(handle_, kAttrChange) & 0x10u);
    EXPECT_EQ(0u, tarn_cache.tracked_mask);
}

// ---- attribute changes ---------------------------------------------------------------------

TEST_F(Dispatch, UnknownAttributeKindIsDroppedAndHandled)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    bus_msg_t *msg = deliver(kAttrChange, attr_change(7));
    // The drop is seen through its failure report.
    tarnhost_fault_set("bus_drop", 5, 1);
    EXPECT_EQ(1, tarn_dispatch(msg));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-BUS>> Error returned from bus_drop, errno: 0x00000005 "
                  "(Input/output error) in tarn_process_attr_change()"}),
              captured());
}

// A dump request goes to the Gyre dump handler, whose result is the
// attribute change's.  Given a kind-4 payload under another opcode, the
// handler refuses it (-1): that is the result, and the message is dropped
// (seen through the drop's failure report) as after every kind but an
// answered dump request.
TEST_F(Dispatch, DumpHandlerResultIsTheResultMinusOneIncluded)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    const std::vector<uint8_t> p = attr_change(4, 1);
    bus_msg_t *msg = tarnhost_bus_msg_new(40000, p.data(), static_cast<uint32_t>(p.size()));
    ASSERT_NE(nullptr, msg);
    tarnhost_fault_set("bus_drop", 5, 1);
    EXPECT_EQ(-1, tarn_process_attr_change(msg));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-BUS>> Error returned from bus_drop, errno: 0x00000005 "
                  "(Input/output error) in tarn_process_attr_change()"}),
              captured());
}

// A dump request under its own opcode is answered by the handler, which
// disposes of it: 1, and nothing is dropped a second time.
TEST_F(Dispatch, AnsweredDumpRequestIsTheHandlersOne)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    const uint32_t requester = bus_bind(4, -1, nullptr, "requester");
    ASSERT_NE(BUS_HANDLE_NONE, requester);
    const std::vector<uint8_t> p = attr_change(4, 1);
    ASSERT_EQ(0, tarnhost_bus_subscribe(handle_, kAttrChange, 1));
    ASSERT_EQ(0, tarnhost_bus_publish(requester, kAttrChange, p.data(),
                                      static_cast<uint32_t>(p.size())));
    bus_msg_t *msg = tarnhost_bus_recv_ms(handle_, 2000);
    ASSERT_NE(nullptr, msg);
    tarnhost_fault_set("bus_drop", 5, TARNHOST_FAULT_ALWAYS);
    EXPECT_EQ(1, tarn_process_attr_change(msg));
    tarnhost_fault_clear("bus_drop");
    // The handler's own drops, and no drop of tarn_process_attr_change.
    for (const std::string &line : captured())
        EXPECT_EQ(std::string::npos, line.find("in tarn_process_attr_change()")) << line;
    bus_msg_t *reply = tarnhost_bus_recv_ms(requester, 2000);
    ASSERT_NE(nullptr, reply);
    uint32_t len = 0;
    ASSERT_NE(nullptr, bus_payload_get(reply, &len));
    EXPECT_EQ(12u, len) << "the cache is off: a page of status 0";
    bus_drop(requester, reply);
    bus_unbind(requester);
}

TEST_F(Dispatch, AsFormatNotificationWhileCacheModeIsOn)
{
    load(R"({"as_format": 1})");
    ASSERT_EQ(1u, tarn_register(handle_));
    ASSERT_EQ(1u, tarn_track_as_format());
    EXPECT_EQ(1u, tarn_get_as_format());
    bus_msg_t *msg = deliver(kAttrChange, attr_change(1, 2));
    EXPECT_EQ(1u, tarn_is_msg_asformat_update(msg));
    tarnhost_fault_set("kvs_read", 5, TARNHOST_FAULT_ALWAYS);
    EXPECT_EQ(1, tarn_dispatch(msg));
    EXPECT_EQ(2u, tarn_get_as_format()) << "without reading the database";
    EXPECT_TRUE(captured().empty());
}

TEST_F(Dispatch, MessageWithoutPayloadIsReportedAndKept)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    for (size_t len : {0u, 3u}) {
        tarnhost_capture_clear();
        tarnhost_log_throttle_reset();
        bus_msg_t *msg = deliver(kAttrChange, attr_change(1, 2, len));
        EXPECT_EQ(-1, tarn_dispatch(msg));
        EXPECT_EQ(0, bus_drop(handle_, msg)) << "not dropped by the library";
        EXPECT_EQ((std::vector<std::string>{
                      "<<%TARN-3-TARN_LIBBUS>> Error returned from Invalid Payload, errno: "
                      "0x00000000 () in tarn_process_attr_change()"}),
                  captured());
    }
}

TEST_F(Dispatch, AsFormatPayloadTooShortForItsWord)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    ASSERT_EQ(1u, tarn_track_as_format());
    bus_msg_t *msg = deliver(kAttrChange, attr_change(1, 2, 27));
    EXPECT_EQ(-1, tarn_dispatch(msg));
    bus_drop(handle_, msg);
    EXPECT_EQ(1u, tarn_get_as_format());
    EXPECT_EQ(1u, captured().size());
}

TEST_F(Dispatch, UnknownOpcodeIsLeftToTheCaller)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    bus_msg_t *msg = deliver(40000, attr_change(1, 2));
    EXPECT_EQ(-1, tarn_dispatch(msg));
    EXPECT_EQ(0, bus_drop(handle_, msg));
    EXPECT_TRUE(captured().empty());
}

TEST_F(Dispatch, ReceivedMessagesArePrintedOnTheDebugPath)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    int h = 0;
    tarn_api_debug(&h, 1);
    bus_msg_t *msg = deliver(kAttrChange, attr_change(9));
    const uint32_t id = bus_msg_id_get(msg);
    EXPECT_EQ(1, tarn_dispatch(msg));
    tarn_api_debug(&h, 0);
    char expected[128];
    snprintf(expected, sizeof expected,
             "Received BUS message TARN_ATTR_CHANGE opcode: 51226 msg_id: 0x%x", id);
    const auto lines = captured(TARNHOST_CH_DEBUG);
    ASSERT_FALSE(lines.empty());
    EXPECT_NE(std::string::npos, lines[0].find(expected)) << lines[0];
}

TEST_F(Dispatch, AsFormatUpdateTest)
{
    load();
    bus_msg_t *one = deliver(kAttrChange, attr_change(1, 5));
    bus_msg_t *two = deliver(kAttrChange, attr_change(2));
    bus_msg_t *other = deliver(51208, attr_change(1, 5));
    bus_msg_t *empty = deliver(kAttrChange, {});
    EXPECT_EQ(1u, tarn_is_msg_asformat_update(one));
    EXPECT_EQ(0u, tarn_is_msg_asformat_update(two));
    EXPECT_EQ(0u, tarn_is_msg_asformat_update(other));
    EXPECT_EQ(0u, tarn_is_msg_asformat_update(empty));
    EXPECT_EQ(0u, tarn_is_msg_asformat_update(nullptr));
    for (bus_msg_t *m : {one, two, other, empty})
        bus_drop(handle_, m);
}

// ---- cache mode -------------------------------------------------------------------------------

TEST_F(Dispatch, EnableWhileUnregistered)
{
    load();
    EXPECT_EQ(0u, tarn_enable_cache_mode(1));
    EXPECT_EQ(0u, tarn_cache_is_enabled());
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBBUS>> Error returned from Client Unregistered, errno: "
                  "0x00000000 () in tarn_enable_cache_mode()"}),
              captured());
}

TEST_F(Dispatch, EnableWithMaskZeroTracksNothing)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    EXPECT_EQ(1u, tarn_enable_cache_mode(0));
    EXPECT_EQ(1u, tarn_cache_is_enabled());
    EXPECT_EQ(0u, tarn_cache.tracked_mask);
    EXPECT_EQ(0u, tarn_cache.as_format);
    EXPECT_EQ(0x10u, bus_options_get(handle_, kAttrChange) & 0x10u);
    EXPECT_EQ(0u, tarn_get_as_format()) << "cache on, nothing tracked";
}

TEST_F(Dispatch, EnableTwiceRefreshesWithoutTouchingTheBus)
{
    load(R"({"as_format": 3})");
    ASSERT_EQ(1u, tarn_register(handle_));
    ASSERT_EQ(1u, tarn_enable_cache_mode(1));
    EXPECT_EQ(3u, tarn_get_as_format());
    tarntest::load_device_json(R"({"as_format": 4})");
    tarnhost_fault_set("bus_options_set", 22, TARNHOST_FAULT_ALWAYS);
    tarnhost_fault_set("bus_options_get", 22, TARNHOST_FAULT_ALWAYS);
    EXPECT_EQ(1u, tarn_enable_cache_mode(1 | 4));
    EXPECT_EQ(4u, tarn_get_as_format());
    EXPECT_EQ(5u, tarn_cache.tracked_mask);
    EXPECT_TRUE(captured().empty());
}

TEST_F(Dispatch, DisableWhenOffDoesNotTouchTheBus)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    tarnhost_fault_set("bus_options_set", 22, TARNHOST_FAULT_ALWAYS);
    tarnhost_fault_set("bus_options_get", 22, TARNHOST_FAULT_ALWAYS);
    EXPECT_EQ(1u, tarn_disable_cache_mode());
    EXPECT_TRUE(captured().empty());
}

TEST_F(Dispatch, FailedOptionChangeStillTurnsCacheModeOn)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    tarnhost_fault_set("bus_options_set", 22, 1);
    EXPECT_EQ(0u, tarn_enable_cache_mode(2));
    EXPECT_EQ(1u, tarn_cache_is_enabled());
    EXPECT_EQ(2u, tarn_cache.tracked_mask);
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-BUS>> Error returned from bus_register, errno: 0x00000016 "
                  "(Invalid argument) in tarn_enable_cache_mode()"}),
              captured());
}

TEST_F(Dispatch, FailedRefreshStillTracksTheFeature)
{
    load(R"({"as_format": 3})");
    ASSERT_EQ(1u, tarn_register(handle_));
    // A value that is no AS-format record.
    std::vector<uint8_t> key(48, 0);
    key[3] = 10;
    const uint8_t junk[3] = {1, 2, 3};
    ASSERT_EQ(0u, tarnhost_kvs_put(tarntest::tarn_kvs_uri().c_str(), key.data(), 48, junk, 3));
    EXPECT_EQ(0u, tarn_enable_cache_mode(1));
    EXPECT_EQ(1u, tarn_cache_is_enabled());
    EXPECT_EQ(1u, tarn_cache.tracked_mask);
    EXPECT_EQ(0u, tarn_cache.as_format) << "as after a fresh enable";
    const auto lines = captured();
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("<<%TARN-3-TARN_LIBAPI_FAILED>> tarn_as_format_to_struct() - failed in "
              "tarn_refresh_as_format_info()",
              lines[0]);
    EXPECT_EQ("<<%TARN-3-TARN_LIBAPI_FAILED>> tarn_refresh_as_format_info() - failed in "
              "tarn_enable_cache_mode()",
              lines[1]);
}

TEST_F(Dispatch, CacheModeOutsideCellOne)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    tarnhost_cell_set(2);
    EXPECT_EQ(0u, tarn_enable_cache_mode(1));
    EXPECT_EQ(0u, tarn_disable_cache_mode());
    EXPECT_EQ(0u, tarn_cache_is_enabled());
    EXPECT_EQ(0u, tarn_refresh_as_format_info());
    EXPECT_EQ(4u, captured().size());
}

// ---- AS format ------------------------------------------------------------------------------------

TEST_F(Dispatch, CacheOffGivesTheDefaultFormat)
{
    load(R"({"as_format": 7})");
    EXPECT_EQ(1u, tarn_get_as_format());
}

TEST_F(Dispatch, NoFormatRecordTracksTheDefault)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    EXPECT_EQ(1u, tarn_track_as_format());
    EXPECT_EQ(1u, tarn_get_as_format());
    EXPECT_EQ(1u, tarn_cache.tracked_mask);
}

TEST_F(Dispatch, RefreshReadErrorKeepsTheFormat)
{
    load(R"({"as_format": 6})");
    ASSERT_EQ(1u, tarn_register(handle_));
    ASSERT_EQ(1u, tarn_track_as_format());
    tarnhost_fault_set("kvs_read", 5, 1);
    EXPECT_EQ(0u, tarn_refresh_as_format_info());
    EXPECT_EQ(6u, tarn_get_as_format());
    EXPECT_TRUE(captured().empty());
}

// ---- configuration-change notice ------------------------------------------------------------------

class ConfigChange : public Dispatch {
protected:
    void SetUp() override
    {
        Dispatch::SetUp();
        service_ = bus_bind(4, -1, nullptr, "tarn service");
        ASSERT_NE(BUS_HANDLE_NONE, service_);
        ASSERT_EQ(0, tarnhost_bus_subscribe(service_, kConfigChange, 1));
    }
    void TearDown() override
    {
        bus_unbind(service_);
        Dispatch::TearDown();
    }
    std::vector<uint8_t> received()
    {
        bus_msg_t *msg = tarnhost_bus_recv_ms(service_, 2000);
        if (msg == nullptr)
            return {};
        uint32_t len = 0;
        const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(msg, &len));
        std::vector<uint8_t> bytes(p, p + len);
        EXPECT_EQ(kConfigChange, bus_opc_get(msg));
        bus_drop(service_, msg);
        return bytes;
    }
    uint32_t service_ = BUS_HANDLE_NONE;
};

TEST_F(ConfigChange, TypeRange)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    EXPECT_EQ(0u, tarn_send_protocol_config_change_msg(0, nullptr, 0, "red", 0, nullptr));
    tarnhost_log_throttle_reset();  // the same report twice would be held back
    EXPECT_EQ(0u, tarn_send_protocol_config_change_msg(65, nullptr, 0, "red", 0, nullptr));
    EXPECT_EQ((std::vector<std::string>(
                  2, "<<%TARN-3-TARN_LIB_INVALID_ARG>> invalid arguments - type - in "
                     "tarn_send_protocol_config_change_msg()")),
              captured());
    EXPECT_EQ(1u, tarn_send_protocol_config_change_msg(1, nullptr, 0, "red", 0, nullptr));
    EXPECT_EQ(76u, received().size());
    EXPECT_EQ(1u, tarn_send_protocol_config_change_msg(64, nullptr, 0, "red", 0, nullptr));
    EXPECT_EQ(76u, received().size());
}

TEST_F(ConfigChange, NullContextComesFirst)
{
    EXPECT_EQ(0u, tarn_send_protocol_config_change_msg(99, nullptr, 0, nullptr, 0, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIB_INVALID_ARG>> invalid arguments - context - in "
                  "tarn_send_protocol_config_change_msg()"}),
              captured());
}

TEST_F(ConfigChange, UnregisteredThenCell)
{
    EXPECT_EQ(0u, tarn_send_protocol_config_change_msg(1, nullptr, 0, "red", 0, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_CLIENT_UNREGISTERED>> tarn_send_protocol_config_change_msg() - "
                  "Client not registered"}),
              captured());
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    tarnhost_cell_set(2);
    EXPECT_EQ(0u, tarn_send_protocol_config_change_msg(1, nullptr, 0, "red", 0, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_CELL>> Error returned from ctx range in "
                  "tarn_send_protocol_config_change_msg()"}),
              captured());
}

TEST_F(ConfigChange, MessageLayout)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    const uint32_t entries[3] = {7, 0xDEADBEEF, 9};
    const std::string forty(40, 'c');
    ASSERT_EQ(1u, tarn_send_protocol_config_change_msg(12, "bgp", 0x55AA, forty.c_str(), 3, entries));
    const std::vector<uint8_t> m = received();
    ASSERT_EQ(88u, m.size());
    uint32_t w;
    memcpy(&w, &m[0], 4);
    EXPECT_EQ(12u, w);
    memcpy(&w, &m[4], 4);
    EXPECT_EQ(0x55AAu, w);
    EXPECT_STREQ("bgp", reinterpret_cast<const char *>(&m[8]));
    EXPECT_EQ(std::string(31, 'c'), reinterpret_cast<const char *>(&m[41]));
    for (size_t i = 8 + 3; i < 41; ++i)
        EXPECT_EQ(0, m[i]) << i;
    EXPECT_EQ(0, m[72]);
    EXPECT_EQ(0, m[73]);
    uint16_t count;
    memcpy(&count, &m[74], 2);
    EXPECT_EQ(3u, count);
    for (int i = 0; i < 3; ++i) {
        memcpy(&w, &m[76 + 4 * i], 4);
        EXPECT_EQ(entries[i], w);
    }
}

TEST_F(ConfigChange, CountZeroIsExactly76BytesAndNameOptional)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    ASSERT_EQ(1u, tarn_send_protocol_config_change_msg(3, nullptr, 1, "red", 0, nullptr));
    const std::vector<uint8_t> m = received();
    ASSERT_EQ(76u, m.size());
    for (size_t i = 8; i < 41; ++i)
        EXPECT_EQ(0, m[i]);
}

TEST_F(ConfigChange, AllocationFailure)
{
    if (!tarnhost_fault_malloc_supported())
        GTEST_SKIP() << "the sanitizers own the allocator";
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    const uint32_t entries[3] = {1, 2, 3};
    tarnhost_fault_malloc(88, 1);
    EXPECT_EQ(0u, tarn_send_protocol_config_change_msg(1, nullptr, 0, "red", 3, entries));
    tarnhost_fault_malloc(0, 0);
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-LIB_NOMEM>> Failed to allocate tarn_protocol_config_t in "
                  "tarn_send_protocol_config_change_msg()"}),
              captured());
}

TEST_F(ConfigChange, SendFailure)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    tarnhost_fault_set("bus_send", 11, 1);
    EXPECT_EQ(0u, tarn_send_protocol_config_change_msg(1, nullptr, 0, "red", 0, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBBUS>> Error returned from "
                  "bus_send(BUS_OPC_TARN_PROTOCOL_CONFIG_CHANGE), errno: 0x0000000b (Resource "
                  "temporarily unavailable) in tarn_send_protocol_config_change_msg()"}),
              captured());
}

// ---- between processes ------------------------------------------------------------------------------

TEST_F(Dispatch, ServiceProcessChangesTheAsFormatOfAClientProcess)
{
    load();
    ASSERT_EQ(1u, tarn_register(handle_));
    ASSERT_EQ(1u, tarn_track_as_format());
    ASSERT_EQ(1u, tarn_get_as_format());
    // The service is another process of the device.
    ASSERT_EQ(0, tarntest::run_child([] {
        const std::vector<uint8_t> p = attr_change(1, 2);
        return tarnhost_bus_publish(BUS_HANDLE_NONE, kAttrChange, p.data(), 28);
    }));
    bus_msg_t *msg = tarnhost_bus_recv_ms(handle_, 2000);
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(1, tarn_dispatch(msg));
    EXPECT_EQ(2u, tarn_get_as_format());
}

TEST_F(ConfigChange, NoticeArrivesAtTheServiceProcessByteForByte)
{
    load();
    const uint32_t entries[5] = {1, 2, 3, 4, 0xFFFFFFFF};
    ASSERT_EQ(0, tarntest::run_child([&] {
        tarntest::reset_library();
        const uint32_t h = bus_bind(4, -1, nullptr, "client process");
        if (h == BUS_HANDLE_NONE || tarn_register(h) != 1)
            return 10;
        const uint32_t ok = tarn_send_protocol_config_change_msg(9, "ospf", 77, "blue", 5, entries);
        bus_unbind(h);
        return ok == 1 ? 0 : 11;
    }));
    const std::vector<uint8_t> m = received();
    ASSERT_EQ(76u + 4u * 5u, m.size());
    std::vector<uint8_t> expected(96, 0);
    const uint32_t type = 9, param = 77;
    const uint16_t count = 5;
    memcpy(&expected[0], &type, 4);
    memcpy(&expected[4], &param, 4);
    memcpy(&expected[8], "ospf", 4);
    memcpy(&expected[41], "blue", 4);
    memcpy(&expected[74], &count, 2);
    memcpy(&expected[76], entries, sizeof entries);
    EXPECT_EQ(expected, m);
}

}  // namespace
