// Kernel-sink access to the shared database and the bounded string helpers.

#include <string.h>
#include <unistd.h>

#include <string>

#include "host/tarnhost.h"
#include "platform/kpipe.h"
#include "platform/kvs.h"
#include "support/fixture.h"

namespace {

constexpr char kUri[] = "volatile:/tarnhost/test_kpipe";

class host_kpipe : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        tarntest::HostTest::SetUp();
        memset(&handle_, 0, sizeof handle_);
        strcpy(handle_.uri, kUri);
    }
    void TearDown() override
    {
        kpipe_kvs_close(kUri);
        tarntest::HostTest::TearDown();
    }
    kpipe_kvs_handle_t handle_;
};

TEST_F(host_kpipe, handle_layout_puts_the_uri_at_byte_33)
{
    EXPECT_EQ(0u, offsetof(kpipe_kvs_handle_t, flags));
    EXPECT_EQ(1u, offsetof(kpipe_kvs_handle_t, name));
    EXPECT_EQ(33u, offsetof(kpipe_kvs_handle_t, uri));
}

TEST_F(host_kpipe, open_read_close)
{
    ASSERT_EQ(0u, tarnhost_kvs_put(kUri, "key", 3, "value", 5));
    EXPECT_NE(0u, kpipe_kvs_open(kUri, 0));
    EXPECT_NE(0u, kpipe_kvs_open(kUri, 0));  // already open is success

    const void *v = nullptr;
    uint32_t len = 0, err = 1;
    ASSERT_NE(0u, kpipe_kvs_read(&handle_, "key", 3, &v, &len, &err));
    EXPECT_EQ(0u, err);
    EXPECT_EQ("value", std::string(static_cast<const char *>(v), len));

    EXPECT_EQ(0u, kpipe_kvs_read(&handle_, "nokey", 5, &v, &len, &err));
    EXPECT_EQ(KVS_ERR_NOT_FOUND, err);

    EXPECT_EQ(0u, kpipe_kvs_close(kUri));
    EXPECT_EQ(0u, kpipe_kvs_read(&handle_, "key", 3, &v, &len, &err));
    EXPECT_EQ(KVS_ERR_NOT_OPEN, err);
}

TEST_F(host_kpipe, shares_the_attachment_with_kvs_open)
{
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    EXPECT_NE(0u, kpipe_kvs_open(kUri, 0));
    EXPECT_EQ(KVS_ERR_ALREADY_OPEN, kvs_open(kUri, 1, 0, 0, 0));
    ASSERT_EQ(0u, tarnhost_kvs_put(kUri, "k", 1, "v", 1));
    kvs_datum_t key{"k", 1}, value{nullptr, 0};
    EXPECT_EQ(0u, kvs_read(kUri, &key, &value));
    const void *v = nullptr;
    uint32_t len = 0, err = 0;
    EXPECT_NE(0u, kpipe_kvs_read(&handle_, "k", 1, &v, &len, &err));
    EXPECT_EQ(value.data, v);  // the same record, in place
}

TEST_F(host_kpipe, bad_handles_and_uris)
{
    const void *v = nullptr;
    uint32_t len = 0, err = 0;
    memset(handle_.uri, 'x', sizeof handle_.uri);  // no terminator
    EXPECT_EQ(0u, kpipe_kvs_read(&handle_, "k", 1, &v, &len, &err));
    EXPECT_EQ(KVS_ERR_BAD_URI, err);
    EXPECT_EQ(0u, kpipe_kvs_read(nullptr, "k", 1, &v, &len, &err));
    EXPECT_EQ(KVS_ERR_INVALID, err);
    EXPECT_EQ(0u, kpipe_kvs_open("no scheme", 0));
    EXPECT_EQ(0u, kpipe_kvs_open(nullptr, 0));
    EXPECT_EQ(KVS_ERR_NOT_OPEN, kpipe_kvs_close("volatile:/never"));
}

TEST_F(host_kpipe, open_and_read_can_be_made_to_fail)
{
    ASSERT_EQ(0u, tarnhost_kvs_put(kUri, "k", 1, "v", 1));
    tarnhost_fault_set("kpipe_kvs_open", 0x4048BEEFu, 1);
    EXPECT_EQ(0u, kpipe_kvs_open(kUri, 0));
    EXPECT_NE(0u, kpipe_kvs_open(kUri, 0));

    const void *v = nullptr;
    uint32_t len = 0, err = 0;
    tarnhost_fault_set("kpipe_kvs_read", 0x4048BEEFu, 1);
    EXPECT_EQ(0u, kpipe_kvs_read(&handle_, "k", 1, &v, &len, &err));
    EXPECT_EQ(0x4048BEEFu, err);
    EXPECT_NE(0u, kpipe_kvs_read(&handle_, "k", 1, &v, &len, &err));
    EXPECT_EQ(0u, err);
}

TEST(host_kpipe_text, strcpy_bounds_and_terminates)
{
    char buf[8];
    memset(buf, '#', sizeof buf);
    EXPECT_EQ(buf, kpipe_strcpy(buf, "abc", 0));
    EXPECT_EQ('#', buf[0]);  // limit 0 writes nothing

    EXPECT_EQ(buf, kpipe_strcpy(buf, "abc", 1));
    EXPECT_STREQ("", buf);

    memset(buf, '#', sizeof buf);
    kpipe_strcpy(buf, "abcdefghij", 5);
    EXPECT_STREQ("abcd", buf);
    EXPECT_EQ('#', buf[5]);

    kpipe_strcpy(buf, "abcdefg", sizeof buf);  // exactly fits
    EXPECT_STREQ("abcdefg", buf);

    kpipe_strcpy(buf, nullptr, sizeof buf);
    EXPECT_STREQ("", buf);

    char name[33];
    std::string forty(40, 'n');
    kpipe_strcpy(name, forty.c_str(), sizeof name);
    EXPECT_EQ(std::string(32, 'n'), name);
}

TEST(host_kpipe_text, snprintf_reports_the_full_length)
{
    char buf[8];
    EXPECT_EQ(11, kpipe_snprintf(buf, sizeof buf, "%s-%d", "abc", 1234567));
    EXPECT_STREQ("abc-123", buf);
    EXPECT_EQ(5, kpipe_snprintf(nullptr, 0, "%05u", 7u));
    EXPECT_EQ(5, kpipe_snprintf(buf, sizeof buf, "%05u", 7u));
    EXPECT_STREQ("00007", buf);
}

TEST(host_kpipe_text, endpoint_id_is_the_process_id)
{
    uint32_t pid = static_cast<uint32_t>(getpid());
    EXPECT_EQ(pid, kpipe_get_epid(pid));
    EXPECT_EQ(1u, kpipe_get_epid(1));
}

}  // namespace
