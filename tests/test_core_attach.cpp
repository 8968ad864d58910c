// The cell manager's record and the cell type; the feature-server variant.

#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/tarn.h>

#include "core/state.h"
#include "platform/kvs.h"
#include "support/fixture.h"
#include "support/library.h"

extern "C" uint32_t tarn_read_cell_mgr_record(void **copy);

using tarntest::captured;

namespace {

class Attach : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        tarntest::reset_library();
        ASSERT_EQ(0, tarnhost_device_up(nullptr));
    }
    void TearDown() override
    {
        tarntest::reset_library();
        HostTest::TearDown();
    }
};

uint16_t u16_at(const void *p, size_t off)
{
    uint16_t v;
    memcpy(&v, static_cast<const uint8_t *>(p) + off, 2);
    return v;
}

uint32_t u32_at(const void *p, size_t off)
{
    uint32_t v;
    memcpy(&v, static_cast<const uint8_t *>(p) + off, 4);
    return v;
}

TEST_F(Attach, RecordIsConvertedToHostOrder)
{
    tarntest::write_cell_mgr_record(1, {3, 0x0102, 4});
    void *copy = nullptr;
    ASSERT_EQ(0u, tarn_read_cell_mgr_record(&copy));
    ASSERT_NE(nullptr, copy);
    EXPECT_EQ(0x01020304u, u32_at(copy, 516));
    EXPECT_EQ(1u, u16_at(copy, 520));
    EXPECT_EQ(3u, u32_at(copy, 522));
    EXPECT_EQ(3u, u16_at(copy, 526));
    EXPECT_EQ(0x0102u, u16_at(copy, 528));
    EXPECT_EQ(4u, u16_at(copy, 530));
    free(copy);
}

TEST_F(Attach, CountZeroConvertsOnlyTheFixedWords)
{
    tarntest::write_cell_mgr_record(1, {}, 540);
    void *copy = nullptr;
    ASSERT_EQ(0u, tarn_read_cell_mgr_record(&copy));
    EXPECT_EQ(0x01020304u, u32_at(copy, 516));
    EXPECT_EQ(1u, u16_at(copy, 520));
    EXPECT_EQ(0u, u32_at(copy, 522));
    // The bytes after the count stay as stored.
    EXPECT_EQ(0xAAAAu, u16_at(copy, 526));
    EXPECT_EQ(0xAAAAu, u16_at(copy, 538));
    free(copy);
}

TEST_F(Attach, CellTypeFollowsTheDesignatedCell)
{
    tarntest::write_cell_mgr_record(1, {1});
    EXPECT_EQ(1u, tarn_get_cell_type());
    tarntest::write_cell_mgr_record(2, {1, 2});
    EXPECT_EQ(0u, tarn_get_cell_type());
    EXPECT_TRUE(captured().empty());
}

TEST_F(Attach, CellTypeStillReadsAnAlreadyOpenDatabase)
{
    tarntest::write_cell_mgr_record(1, {1});
    ASSERT_EQ(0u, kvs_open("volatile:/dev/shm/cell_mgr_kvs", 1, 0, 0, 0));
    EXPECT_EQ(1u, tarn_get_cell_type());
    EXPECT_EQ(1u, tarn_get_cell_type());
}

TEST_F(Attach, CellTypeComparesWithTheRunningCell)
{
    tarntest::write_cell_mgr_record(5, {5});
    tarnhost_cell_set(5);
    EXPECT_EQ(1u, tarn_get_cell_type());
    tarnhost_cell_set(0x00030005);
    EXPECT_EQ(1u, tarn_get_cell_type());
    tarnhost_cell_set(1);
    EXPECT_EQ(0u, tarn_get_cell_type());
}

TEST_F(Attach, MissingRecordGivesCellTypeZeroSilently)
{
    EXPECT_EQ(0u, tarn_get_cell_type());
    void *copy = nullptr;
    EXPECT_EQ(KVS_ERR_NOT_FOUND, tarn_read_cell_mgr_record(&copy));
    EXPECT_EQ(nullptr, copy);
    EXPECT_TRUE(captured().empty());
}

TEST_F(Attach, RecordShorterThanItsOffsetsReadsAsMissing)
{
    for (size_t len : {0u, 1u, 100u, 517u, 521u, 525u}) {
        SCOPED_TRACE(len);
        tarntest::write_cell_mgr_bytes(std::vector<uint8_t>(len, 0));
        void *copy = nullptr;
        EXPECT_EQ(KVS_ERR_NOT_FOUND, tarn_read_cell_mgr_record(&copy));
        EXPECT_EQ(nullptr, copy);
        EXPECT_EQ(0u, tarn_get_cell_type());
    }
    EXPECT_TRUE(captured().empty());
}

TEST_F(Attach, CountRunningPastTheEndIsRefused)
{
    std::vector<uint8_t> rec(530, 0);
    rec[521] = 1;                                  // designated cell 1
    rec[522] = 0; rec[523] = 0; rec[524] = 0; rec[525] = 3;  // three entries
    tarntest::write_cell_mgr_bytes(rec);           // room for two only
    void *copy = nullptr;
    EXPECT_EQ(KVS_ERR_INVALID, tarn_read_cell_mgr_record(&copy));
    EXPECT_EQ(nullptr, copy);
    EXPECT_EQ(0u, tarn_get_cell_type());
    rec[522] = 0xFF; rec[523] = 0xFF; rec[524] = 0xFF; rec[525] = 0xFF;
    tarntest::write_cell_mgr_bytes(rec);
    EXPECT_EQ(KVS_ERR_INVALID, tarn_read_cell_mgr_record(&copy));
    rec.resize(532);
    rec[522] = 0; rec[523] = 0; rec[524] = 0; rec[525] = 3;
    tarntest::write_cell_mgr_bytes(rec);           // exactly fits
    ASSERT_EQ(0u, tarn_read_cell_mgr_record(&copy));
    free(copy);
    EXPECT_EQ(1u, tarn_get_cell_type());
}

TEST_F(Attach, ReadFailuresAreNotReported)
{
    tarntest::write_cell_mgr_record(1, {1});
    tarnhost_fault_set("kvs_open", 9, 1);
    EXPECT_EQ(0u, tarn_get_cell_type());
    tarnhost_fault_set("kvs_read", 9, 1);
    EXPECT_EQ(0u, tarn_get_cell_type());
    if (tarnhost_fault_malloc_supported()) {
        tarntest::write_cell_mgr_record(1, {1, 2, 3});
        void *copy = nullptr;
        tarnhost_fault_malloc(532, 1);
        EXPECT_EQ(TARN_ERR_NOMEM, tarn_read_cell_mgr_record(&copy));
        tarnhost_fault_malloc(532, 1);
        EXPECT_EQ(0u, tarn_get_cell_type());
        tarnhost_fault_malloc(0, 0);
    }
    EXPECT_TRUE(captured().empty());
    EXPECT_EQ(1u, tarn_get_cell_type());
}

TEST_F(Attach, InitRecordsTheCellType)
{
    tarntest::write_cell_mgr_record(1, {1});
    ASSERT_EQ(1u, tarn_api_init());
    EXPECT_EQ(1u, tarn_clt->cell_type);
}

TEST_F(Attach, AnotherProcessWritesTheRecordThisOneFindsCellTypeOne)
{
    // The writer is a separate process of the same device.
    ASSERT_EQ(0, tarntest::run_child([] {
        const uint8_t key[5] = {0x1C, 0, 0, 0, 0};
        std::vector<uint8_t> rec(528, 0);
        rec[521] = 1;
        rec[525] = 1;
        rec[527] = 1;
        return static_cast<int>(tarnhost_kvs_put("volatile:/dev/shm/cell_mgr_kvs", key, 5,
                                                 rec.data(), 528));
    }));
    ASSERT_EQ(1u, tarn_api_init());
    EXPECT_EQ(1u, tarn_clt->cell_type);
}

TEST_F(Attach, FeatureServerInit)
{
    tarntest::write_cell_mgr_record(1, {1});
    int handle = 0;
    tarn_api_debug(&handle, 1);
    ASSERT_EQ(1u, tarn_featsrv_kvs_init());
    EXPECT_EQ(1u, tarn_clt->initialized);
    EXPECT_EQ(1u, tarn_clt->cell_type);
    EXPECT_EQ(0u, debug_enabled) << "publishers print no debug";
    EXPECT_EQ(tarntest::tarn_kvs_uri(), tarn_clt->kvs);
    // The feature-server library attached the database.
    EXPECT_EQ(KVS_ERR_ALREADY_OPEN, kvs_open(tarn_clt->kvs, 1, 0, 0, 0));
    EXPECT_EQ(1u, tarn_featsrv_kvs_init());
    tarn_api_debug(&handle, 0);
}

TEST_F(Attach, FeatureServerFailureIsReported)
{
    tarnhost_fault_set("featsrv_kvs_publisher_lib_init", 3, 1);
    EXPECT_EQ(0u, tarn_featsrv_kvs_init());
    EXPECT_EQ(0u, tarn_clt->initialized);
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBAPI_FAILED>> featsrv_kvs_publisher_lib_init() - failed in "
                  "tarn_featsrv_kvs_init()"}),
              captured());
}

TEST_F(Attach, FeatureServerDeferredWithoutRunningConfiguration)
{
    ASSERT_EQ(0, tarnhost_device_down());
    EXPECT_EQ(1u, tarn_featsrv_kvs_init());
    EXPECT_EQ(0u, tarn_clt->initialized);
}

TEST_F(Attach, FeatureServerAllocationFailure)
{
    tarnhost_fault_set("alloctrack_alloc", 0, 1);
    EXPECT_EQ(0u, tarn_featsrv_kvs_init());
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-LIB_NOMEM>> Failed to allocate tarn_clt in tarn_api_init_clt_cache()",
                  "<<%TARN-3-TARN_NOALLOC>> tarn_clt struct is NULL - failed in tarn_featsrv_kvs_init()"}),
              captured());
}

TEST_F(Attach, FeatureServerCloseKeepsTheDatabaseOpen)
{
    ASSERT_EQ(1u, tarn_featsrv_kvs_init());
    const std::string uri = tarn_clt->kvs;
    tarn_featsrv_kvs_close();
    const unsigned char *p = reinterpret_cast<const unsigned char *>(tarn_clt);
    for (size_t i = 0; i < sizeof(tarn_clt_t); ++i)
        ASSERT_EQ(0, p[i]);
    EXPECT_EQ(KVS_ERR_ALREADY_OPEN, kvs_open(uri.c_str(), 1, 0, 0, 0));
    tarn_featsrv_kvs_close();  // and again, harmlessly
}

TEST_F(Attach, FeatureServerCloseWithoutRecord)
{
    tarn_featsrv_kvs_close();
    EXPECT_EQ(nullptr, tarn_clt);
}

}  // namespace
