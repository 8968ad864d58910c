// Library state, initialisation and the cell check, against a simulated
// device in a fresh host root.

#include <string.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/tarn.h>

#include "core/state.h"
#include "platform/alloctrack.h"
#include "platform/kvs.h"
#include "support/fixture.h"
#include "support/library.h"

using tarntest::captured;

namespace {

class Init : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        tarntest::reset_library();
    }
    void TearDown() override
    {
        tarntest::reset_library();
        HostTest::TearDown();
    }
    void device_up() { ASSERT_EQ(0, tarnhost_device_up(nullptr)); }
    static std::string cell_line(const char *what, const char *fn)
    {
        return std::string("<<%TARN-3-TARN_CELL>> Error returned from ") + what +
               " in " + fn + "()";
    }
};

bool record_is_zero()
{
    const unsigned char *p = reinterpret_cast<const unsigned char *>(tarn_clt);
    for (size_t i = 0; i < sizeof(tarn_clt_t); ++i)
        if (p[i] != 0)
            return false;
    return true;
}

TEST_F(Init, InitOpensTheCellDatabase)
{
    device_up();
    ASSERT_EQ(1u, tarn_api_init());
    ASSERT_NE(nullptr, tarn_clt);
    EXPECT_EQ(1u, tarn_clt->initialized);
    EXPECT_EQ(tarntest::tarn_kvs_uri(), tarn_clt->kvs);
    EXPECT_EQ(0u, tarn_clt->cache_enabled);
    EXPECT_EQ(0u, tarn_clt->cell_type);
    // The database is open: a second open reports it.
    EXPECT_EQ(KVS_ERR_ALREADY_OPEN, kvs_open(tarn_clt->kvs, 1, 0, 0, 0));
    EXPECT_TRUE(captured().empty());
}

TEST_F(Init, SecondInitDoesNotTouchTheDatabase)
{
    device_up();
    ASSERT_EQ(1u, tarn_api_init());
    tarnhost_fault_set("kvs_open", 5, TARNHOST_FAULT_ALWAYS);
    tarnhost_fault_set("kvs_read", 5, TARNHOST_FAULT_ALWAYS);
    EXPECT_EQ(1u, tarn_api_init());
    EXPECT_TRUE(captured().empty());
}

TEST_F(Init, DeferredWithoutRunningConfiguration)
{
    EXPECT_EQ(1u, tarn_api_init());
    ASSERT_NE(nullptr, tarn_clt);
    EXPECT_EQ(0u, tarn_clt->initialized);
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_SUPV>> Error returned from supv_running_cfg_uri_get(), "
                  "errno: 0x00000000 (NULL) in tarn_init_clt_kvs_uri()"}),
              captured());
    // Once the device is up, the next call initialises.
    device_up();
    EXPECT_EQ(1u, tarn_api_init());
    EXPECT_EQ(1u, tarn_clt->initialized);
}

TEST_F(Init, OpenFailureIsReportedAndRetried)
{
    device_up();
    tarnhost_fault_set("kvs_open", 5, 1);
    EXPECT_EQ(0u, tarn_api_init());
    ASSERT_NE(nullptr, tarn_clt);
    EXPECT_EQ(0u, tarn_clt->initialized);
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_KVS_OPEN>> (1) Error opening " + tarntest::tarn_kvs_uri() +
                  ", errno: 0x00000005 (Input/output error) in tarn_open_one_kvs(), pid " +
                  tarntest::pid_text()}),
              captured());
    EXPECT_EQ((std::vector<std::string>{"backtrace tarn_open_one_kvs flags 0"}),
              captured(TARNHOST_CH_CONSOLE));
    EXPECT_EQ(1u, tarn_api_init());
    EXPECT_EQ(1u, tarn_clt->initialized);
}

TEST_F(Init, UriThatTheRootCannotHoldFailsTheOpen)
{
    ASSERT_EQ(0, tarnhost_device_up("volatile:/tarnhost/../escape"));
    EXPECT_EQ(0u, tarn_api_init());
    ASSERT_EQ(1u, captured().size());
    EXPECT_NE(std::string::npos,
              captured()[0].find("Error opening volatile:/tarnhost/../escape/tarn_global_kvs, "
                                 "errno: 0x40480005 (invalid database URI)"));
}

TEST_F(Init, SupervisorUriLongerThan255IsCut)
{
    const std::string running = "volatile:/" + std::string(300, 'r');
    ASSERT_EQ(0, tarnhost_device_up(running.c_str()));
    EXPECT_EQ(1u, tarn_api_init_internal());
    ASSERT_NE(nullptr, tarn_clt);
    EXPECT_EQ(255u, strlen(tarn_clt->kvs));
    EXPECT_EQ(running.substr(0, 255), tarn_clt->kvs);
    EXPECT_EQ(1u, tarn_clt->initialized);
}

TEST_F(Init, InternalInitOpensNothing)
{
    device_up();
    EXPECT_EQ(1u, tarn_api_init_internal());
    EXPECT_EQ(1u, tarn_clt->initialized);
    // Not open in this process yet.
    EXPECT_EQ(0u, kvs_open(tarn_clt->kvs, 1, 0, 0, 0));
    kvs_close(tarn_clt->kvs);
}

TEST_F(Init, InternalInitDeferredAndFailure)
{
    EXPECT_EQ(1u, tarn_api_init_internal());
    EXPECT_EQ(0u, tarn_clt->initialized);
    tarntest::reset_library();
    tarnhost_fault_set("alloctrack_alloc", 0, 1);
    EXPECT_EQ(0u, tarn_api_init_internal());
}

TEST_F(Init, CloseWithoutInitDoesNothing)
{
    tarn_api_close();
    EXPECT_EQ(nullptr, tarn_clt);
    ASSERT_EQ(1u, tarn_api_init_clt_cache());
    tarn_clt->bus_handle = 77;
    tarn_api_close();
    EXPECT_EQ(77u, tarn_clt->bus_handle);
}

TEST_F(Init, CloseAfterInitZeroesTheRecord)
{
    device_up();
    ASSERT_EQ(1u, tarn_api_init());
    tarn_clt_t *before = tarn_clt;
    tarn_api_close();
    EXPECT_EQ(before, tarn_clt) << "the record stays allocated";
    EXPECT_EQ(0u, tarn_clt_registered);
    EXPECT_TRUE(record_is_zero());
    // Closed: opening again works, so a later init reopens.
    EXPECT_EQ(1u, tarn_api_init());
    EXPECT_EQ(1u, tarn_clt->initialized);
}

TEST_F(Init, AllocationFailureIsReported)
{
    device_up();
    tarnhost_fault_set("alloctrack_alloc", 0, 1);
    EXPECT_EQ(0u, tarn_api_init());
    EXPECT_EQ(nullptr, tarn_clt);
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-LIB_NOMEM>> Failed to allocate tarn_clt in tarn_api_init_clt_cache()",
                  "<<%TARN-3-TARN_NOALLOC>> tarn_clt struct is NULL - failed in tarn_api_init()"}),
              captured());
}

TEST_F(Init, ClientInitializedReportsAMissingRecord)
{
    EXPECT_EQ(0u, tarn_clt_initialized());
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_NOALLOC>> tarn_clt struct is NULL - failed in tarn_clt_initialized()"}),
              captured());
    ASSERT_EQ(1u, tarn_api_init_clt_cache());
    EXPECT_EQ(1u, tarn_clt_initialized());
}

TEST_F(Init, UriWithoutRecordIsReported)
{
    uint32_t deferred = 0;
    EXPECT_EQ(0u, tarn_init_clt_kvs_uri(0, &deferred));
    EXPECT_EQ(0u, deferred);
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_NOALLOC>> tarn_clt struct is NULL - failed in tarn_init_clt_kvs_uri()"}),
              captured());
}

TEST_F(Init, UriForAnotherCellIndexIsRefused)
{
    device_up();
    ASSERT_EQ(1u, tarn_api_init_clt_cache());
    uint32_t deferred = 0;
    EXPECT_EQ(0u, tarn_init_clt_kvs_uri(1, &deferred));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIB_INVALID_ARG>> invalid arguments - cell_ix - in tarn_init_clt_kvs_uri()"}),
              captured());
}

TEST_F(Init, NullFacilityStillConsultsTheRateLimiterForApiFailed)
{
    device_up();
    // The supervisor cannot complete the URI: the step fails without deferral.
    tarnhost_fault_set("supv_uri_complete", 0, TARNHOST_FAULT_ALWAYS);
    tarnhost_log_set_facility(nullptr, 0);
    EXPECT_EQ(0u, tarn_api_init());
    tarnhost_log_set_facility("tarn", 5);
    EXPECT_TRUE(captured().empty());
    // The limiter saw the first report, so the same report is now held back.
    EXPECT_EQ(0u, tarn_api_init());
    EXPECT_TRUE(captured().empty());
    tarnhost_log_throttle_reset();
    EXPECT_EQ(0u, tarn_api_init());
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-API_FAILED>> %s:tarn_init_clt_kvs_uri - failed in tarn_api_init()"}),
              captured());
}

// Every entry point of this layer, with its reporting name.
struct EntryPoint {
    const char *name;
    std::function<uint32_t()> call;
};

std::vector<EntryPoint> entry_points()
{
    return {
        {"tarn_api_init", [] { return tarn_api_init(); }},
        {"tarn_api_init_internal", [] { return tarn_api_init_internal(); }},
        {"tarn_featsrv_kvs_init", [] { return tarn_featsrv_kvs_init(); }},
        {"tarn_get_cell_ctx", [] { return tarn_get_cell_ctx(nullptr); }},
    };
}

TEST_F(Init, CellsTwoToFourAreOutOfRange)
{
    device_up();
    for (uint32_t cell : {2u, 3u, 4u, 0x00050002u}) {
        tarnhost_cell_set(cell);
        for (const EntryPoint &ep : entry_points()) {
            SCOPED_TRACE(std::string(ep.name) + " cell " + std::to_string(cell));
            tarnhost_capture_clear();
            tarnhost_log_throttle_reset();
            EXPECT_EQ(0u, ep.call());
            EXPECT_EQ((std::vector<std::string>{cell_line("ctx range", ep.name)}),
                      captured());
        }
    }
    EXPECT_EQ(nullptr, tarn_clt);
}

TEST_F(Init, CellsZeroAndAboveFourAreInvalid)
{
    device_up();
    for (uint32_t cell : {0u, 5u, 6u, 0xFFFFu, 0x00010000u}) {
        tarnhost_cell_set(cell);
        for (const EntryPoint &ep : entry_points()) {
            SCOPED_TRACE(std::string(ep.name) + " cell " + std::to_string(cell));
            tarnhost_capture_clear();
            tarnhost_log_throttle_reset();
            EXPECT_EQ(0u, ep.call());
            EXPECT_EQ((std::vector<std::string>{cell_line("IS_CELL_IS_VALID()", ep.name)}),
                      captured());
        }
    }
}

TEST_F(Init, OnlyTheLowSixteenBitsNameTheCell)
{
    device_up();
    tarnhost_cell_set(65537);  // 0x00010001: cell 1
    EXPECT_EQ(1u, tarn_api_init());
    EXPECT_EQ(1u, tarn_clt->initialized);
    EXPECT_TRUE(captured().empty());
}

TEST_F(Init, CloseOutsideCellOneDoesNothing)
{
    device_up();
    ASSERT_EQ(1u, tarn_api_init());
    tarnhost_cell_set(2);
    tarn_api_close();
    EXPECT_EQ(1u, tarn_clt->initialized);
    EXPECT_EQ((std::vector<std::string>{cell_line("ctx range", "tarn_get_cell_ctx")}),
              captured());
}

TEST_F(Init, CellCtxWithNullOutputStillSucceeds)
{
    EXPECT_EQ(1u, tarn_get_cell_ctx(nullptr));
    uint32_t ix = 99;
    EXPECT_EQ(1u, tarn_get_cell_ctx(&ix));
    EXPECT_EQ(0u, ix);
}

TEST_F(Init, MemoryTypeTable)
{
    EXPECT_STREQ("TARN_LIB_MEM_NONE", __tarn_api_mem_type_t_find(0));
    EXPECT_STREQ("TARN_LIB_MEM_TARN_CLT", __tarn_api_mem_type_t_find(1));
    EXPECT_STREQ("TARN_LIB_MEM_GYRE_CACHE", __tarn_api_mem_type_t_find(2));
    EXPECT_STREQ("TARN_LIB_MEM_GYRE_TPG", __tarn_api_mem_type_t_find(3));
    EXPECT_STREQ("TARN_LIB_MEM_MAX", __tarn_api_mem_type_t_find(4));
    EXPECT_EQ(nullptr, __tarn_api_mem_type_t_find(5));
    EXPECT_EQ(3u, __tarn_api_mem_type_t_str2enum("tarn_lib_mem_gyre_tpg"));
    EXPECT_EQ(1u, __tarn_api_mem_type_t_str2enum("Tarn_Lib_Mem_Tarn_Clt"));
    EXPECT_EQ(4u, __tarn_api_mem_type_t_str2enum("TARN_LIB_MEM_MAX"));
    EXPECT_EQ(0u, __tarn_api_mem_type_t_str2enum("TARN_LIB_MEM_UNKNOWN"));
    EXPECT_EQ(0u, __tarn_api_mem_type_t_str2enum(""));
    EXPECT_EQ(0u, __tarn_api_mem_type_t_str2enum(nullptr));
}

TEST_F(Init, TextTables)
{
    EXPECT_STREQ("None", tarn_state2str(0));
    EXPECT_STREQ("Down", tarn_state2str(1));
    EXPECT_STREQ("Up", tarn_state2str(2));
    EXPECT_STREQ("<unknown>", tarn_state2str(3));
    EXPECT_STREQ("--", tarn_reason2str(0));
    EXPECT_STREQ("Admin Down", tarn_reason2str(1));
    EXPECT_STREQ("Admin Down Pending", tarn_reason2str(2));
    EXPECT_STREQ("Delete Holddown", tarn_reason2str(3));
    EXPECT_STREQ("Delete Pending", tarn_reason2str(4));
    EXPECT_STREQ("<unknown>", tarn_reason2str(5));
    EXPECT_STREQ("None", tarn_af_ix2str(0));
    EXPECT_STREQ("IPv4", tarn_af_ix2str(1));
    EXPECT_STREQ("IPv6", tarn_af_ix2str(2));
    EXPECT_STREQ("<unknown>", tarn_af_ix2str(7));
    EXPECT_STREQ("<unknown>", tarn_af_ix2str(0xFFFFFFFFu));
}

TEST_F(Init, MemoryTrackerSeesOneClientRecordAndNothingElse)
{
    device_up();
    const uint64_t before = alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_TARN_CLT);
    ASSERT_EQ(1u, tarn_api_init());
    tarn_api_close();
    ASSERT_EQ(1u, tarn_api_init());
    tarn_api_close();
    EXPECT_EQ(before + 1, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_TARN_CLT));
    EXPECT_EQ(sizeof(tarn_clt_t),
              alloctrack_live_bytes(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_TARN_CLT));
    tarntest::reset_library();
    for (uint32_t type = TARN_LIB_MEM_NONE; type < TARN_LIB_MEM_MAX; ++type)
        EXPECT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, type)) << type;
    EXPECT_EQ(0u, tarn_api_alloctack_uninit());
    EXPECT_EQ(1u, tarn_api_alloctack_uninit());
}

TEST_F(Init, ClientRecordLayout)
{
    EXPECT_EQ(272u, sizeof(tarn_clt_t));
    EXPECT_EQ(8u, offsetof(tarn_clt_t, kvs));
    EXPECT_EQ(264u, offsetof(tarn_clt_t, cache_enabled));
    EXPECT_EQ(268u, offsetof(tarn_clt_t, cell_type));
    EXPECT_EQ(8u, sizeof(tarn_cache_t));
}

}  // namespace
