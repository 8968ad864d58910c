// Context lookups and the context walk, against devices loaded from JSON.

#include <arpa/inet.h>
#include <string.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/tarn.h>

#include "platform/kvs.h"
#include "support/device.h"
#include "support/fixture.h"
#include "support/library.h"

using tarntest::captured;

namespace {

class Query : public tarntest::DeviceTest {
};

// A 48-byte key of `kind` with a big-endian number at 4.
std::vector<uint8_t> key_with_id(uint32_t kind, uint32_t id)
{
    std::vector<uint8_t> key(48, 0);
    const uint32_t k = htonl(kind), v = htonl(id);
    memcpy(&key[0], &k, 4);
    memcpy(&key[4], &v, 4);
    return key;
}

// The value of a name record: a TLV array whose first TLV holds the id.
std::vector<uint8_t> id_value(uint32_t id)
{
    std::vector<uint8_t> v = {0, 0, 0, 1, 0, 0, 0, 4};
    const uint32_t be = htonl(id);
    v.insert(v.end(), reinterpret_cast<const uint8_t *>(&be),
             reinterpret_cast<const uint8_t *>(&be) + 4);
    return v;
}

void put(const std::vector<uint8_t> &key, const std::vector<uint8_t> &value)
{
    ASSERT_EQ(0u, tarnhost_kvs_put(tarntest::tarn_kvs_uri().c_str(), key.data(),
                                   static_cast<uint32_t>(key.size()), value.data(),
                                   static_cast<uint32_t>(value.size())));
}

TEST_F(Query, ContextIdByName)
{
    load();
    EXPECT_EQ(1u, tarn_get_context_id("default"));
    EXPECT_EQ(3u, tarn_get_context_id("red"));
    EXPECT_EQ(2u, tarn_get_context_id("l2-vrf"));
    EXPECT_EQ(0u, tarn_get_context_id("nope"));
    EXPECT_EQ(0u, tarn_get_context_id(""));
    EXPECT_TRUE(captured().empty()) << "absence is never reported";
}

TEST_F(Query, NullNameReadsTheEmptyName)
{
    load();
    EXPECT_EQ(0u, tarn_get_context_id(nullptr));
    // A record under the empty name answers the null name.
    std::vector<uint8_t> key(48, 0);
    key[3] = 1;
    put(key, id_value(42));
    EXPECT_EQ(42u, tarn_get_context_id(nullptr));
    EXPECT_EQ(42u, tarn_get_context_id(""));
    EXPECT_TRUE(captured().empty());
}

TEST_F(Query, LongNameIsLookedUpByItsFirst32Characters)
{
    load();
    EXPECT_EQ(8u, tarn_get_context_id("abcdefghijklmnopqrstuvwxyz0123456789ABCD"));
    EXPECT_EQ(8u, tarn_get_context_id("abcdefghijklmnopqrstuvwxyz012345"));
    EXPECT_EQ(0u, tarn_get_context_id("abcdefghijklmnopqrstuvwxyz01234"));
}

TEST_F(Query, ContextInfoById)
{
    load();
    tarn_context_info_t info;
    memset(&info, 0xEE, sizeof info);
    ASSERT_EQ(1u, tarn_get_context_info(4, &info));
    EXPECT_EQ(1u, info.state);
    EXPECT_EQ(1u, info.reason);
    EXPECT_STREQ("blue", info.name);
    ASSERT_EQ(1u, tarn_get_context_info(3, &info));
    EXPECT_EQ(2u, info.state);
    EXPECT_STREQ("red", info.name);
    memset(&info, 0xEE, sizeof info);
    EXPECT_EQ(0u, tarn_get_context_info(77, &info));
    EXPECT_EQ(0xEEu, static_cast<uint8_t>(info.name[0])) << "untouched when absent";
    EXPECT_TRUE(captured().empty());
}

TEST_F(Query, ContextIdZeroIsRefusedWithoutReading)
{
    load();
    tarnhost_fault_set("kvs_read", 5, TARNHOST_FAULT_ALWAYS);
    tarn_context_info_t info;
    EXPECT_EQ(0u, tarn_get_context_info(0, &info));
    EXPECT_TRUE(captured().empty());
}

TEST_F(Query, NullInfoIsAnInvalidArgument)
{
    load();
    EXPECT_EQ(0u, tarn_get_context_info(3, nullptr));
    EXPECT_EQ(0u, tarn_get_next_context_info(0, nullptr));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIB_INVALID_ARG>> invalid arguments - info - in tarn_get_context_info()",
                  "<<%TARN-3-TARN_LIB_INVALID_ARG>> invalid arguments - info - in tarn_get_next_context_info()"}),
              captured());
}

TEST_F(Query, ContextName)
{
    load();
    char buf[TARN_NAME_SIZE];
    EXPECT_EQ(buf, tarn_get_context_name(3, buf));
    EXPECT_STREQ("red", buf);
    EXPECT_STREQ("<unknown>", tarn_get_context_name(77, buf));
    char *mine = tarn_get_context_name(4, nullptr);
    ASSERT_NE(nullptr, mine);
    EXPECT_STREQ("blue", mine);
    EXPECT_EQ(mine, tarn_get_context_name(77, nullptr));
    EXPECT_STREQ("<unknown>", mine);
    EXPECT_STREQ("<unknown>", tarn_get_context_name(0, nullptr));
}

TEST_F(Query, NameOperationsHaveDistinctStaticBuffers)
{
    load();
    char *context = tarn_get_context_name(3, nullptr);
    char *table = tarn_get_table_name(30, nullptr);
    char *iface = tarn_if_get_context_name(202, nullptr);
    EXPECT_NE(context, table);
    EXPECT_NE(context, iface);
    EXPECT_NE(table, iface);
    EXPECT_STREQ("red", context);
    EXPECT_STREQ("red-v4", table);
    EXPECT_STREQ("blue", iface);
}

TEST_F(Query, ReadErrorsAreReportedWithTheirKeyDescriptions)
{
    load();
    tarn_context_info_t info;
    tarnhost_fault_set("kvs_read", 5, 2);
    EXPECT_EQ(0u, tarn_get_context_info(7, &info));
    EXPECT_EQ(0u, tarn_get_context_id("red"));
    EXPECT_EQ((std::vector<std::string>{
                  read_error("context id         7", "tarn_get_context_info"),
                  read_error("red", "tarn_get_context_id")}),
              captured());
}

TEST_F(Query, ConversionFailureIsReported)
{
    load();
    put(key_with_id(3, 3), {1, 2, 3});
    tarn_context_info_t info;
    EXPECT_EQ(0u, tarn_get_context_info(3, &info));
    ASSERT_FALSE(captured().empty());
    EXPECT_EQ("<<%TARN-3-TARN_LIBAPI_FAILED>> tarn_context_info_to_struct() - failed in "
              "tarn_get_context_info()",
              captured().back());
    ASSERT_FALSE(captured(TARNHOST_CH_ERROR).empty());
    EXPECT_EQ(0u, captured(TARNHOST_CH_ERROR)[0].find("tarn_context_info_to_struct: ERR 0x"));
}

TEST_F(Query, ValueTooShortForTheIdReadsAsAbsent)
{
    load();
    std::vector<uint8_t> key(48, 0);
    key[3] = 1;
    memcpy(&key[4], "short", 5);
    put(key, {0, 0, 0, 1, 0, 0, 0, 2, 0, 7});
    EXPECT_EQ(0u, tarn_get_context_id("short"));
    put(key, {0, 0, 0, 1});
    EXPECT_EQ(0u, tarn_get_context_id("short"));
    EXPECT_TRUE(captured().empty());
}

// ---- every query in a bad state ---------------------------------------------------

struct AnyQuery {
    const char *fn;
    const char *label;
    std::function<bool()> fails;  // true when it answered its failure value
};

std::vector<AnyQuery> queries()
{
    static tarn_context_info_t ci;
    static tarn_table_info_t ti;
    static tarn_rt_limits_t rl;
    static tarn_soo_info_t soo;
    static tarn_vpnid_info_t vpn;
    static tarn_if_context_info_t ic;
    return {
        {"tarn_get_context_id", "context id", [] { return tarn_get_context_id("red") == 0; }},
        {"tarn_get_context_info", "context info", [] { return tarn_get_context_info(3, &ci) == 0; }},
        {"tarn_get_next_context_info", "next context info",
         [] { return tarn_get_next_context_info(0, &ci) == 0; }},
        {"tarn_get_table_id", "table id", [] { return tarn_get_table_id(3, 1, "red-v4") == 0; }},
        {"tarn_get_table_info", "table info", [] { return tarn_get_table_info(30, &ti) == 0; }},
        {"tarn_if_get_context_info", "if context info",
         [] { return tarn_if_get_context_info(200, &ic) == 0; }},
        {"tarn_get_next_if_context_info", "if context info",
         [] { return tarn_get_next_if_context_info(0, nullptr, &ic) == 0; }},
        {"tarn_get_rt_limits_info", "route-limits", [] { return tarn_get_rt_limits_info(5, &rl) == 0; }},
        {"tarn_get_if_soo_info", "Site-of-Origin", [] { return tarn_get_if_soo_info(200, &soo) == 0; }},
        {"tarn_get_context_vpnid", "vpn id", [] { return tarn_get_context_vpnid("red", &vpn) == 0; }},
    };
}

TEST_F(Query, InCellTwoEveryQueryFailsWithCtxRange)
{
    load();
    tarnhost_cell_set(2);
    for (const AnyQuery &q : queries()) {
        SCOPED_TRACE(q.fn);
        tarnhost_capture_clear();
        EXPECT_TRUE(q.fails());
        ASSERT_EQ(1u, captured().size());
        EXPECT_EQ(std::string("<<%TARN-3-TARN_CELL>> Error returned from ctx range in ") +
                      q.fn + "()",
                  captured()[0]);
    }
    tarnhost_cell_set(7);
    for (const AnyQuery &q : queries()) {
        SCOPED_TRACE(q.fn);
        tarnhost_capture_clear();
        EXPECT_TRUE(q.fails());
        ASSERT_EQ(1u, captured().size());
        EXPECT_EQ(std::string("<<%TARN-3-TARN_CELL>> Error returned from IS_CELL_IS_VALID() in ") +
                      q.fn + "()",
                  captured()[0]);
    }
}

TEST_F(Query, BeforeInitialisationEveryQueryReportsItsLabel)
{
    tarntest::load_device_file(tarntest::fixture("queries.json"));
    for (int with_record = 0; with_record < 2; ++with_record) {
        if (with_record) {
            ASSERT_EQ(1u, tarn_api_init_clt_cache());
        }
        for (const AnyQuery &q : queries()) {
            SCOPED_TRACE(std::string(q.fn) + (with_record ? " (record)" : ""));
            tarnhost_capture_clear();
            tarnhost_log_throttle_reset();
            EXPECT_TRUE(q.fails());
            ASSERT_EQ(1u, captured().size());
            EXPECT_EQ(std::string("<<%TARN-3-TARN_LIBINIT>> Unable to retrieve ") + q.label +
                          ", TARN library not initialized by client",
                      captured()[0]);
        }
    }
}

// ---- the context walk -----------------------------------------------------------------

std::vector<uint32_t> walk(std::vector<std::string> *names = nullptr)
{
    std::vector<uint32_t> ids;
    tarn_context_info_t info;
    for (uint32_t id = tarn_get_next_context_info(0, &info); id != 0;
         id = tarn_get_next_context_info(id, &info)) {
        ids.push_back(id);
        if (names)
            names->push_back(info.name);
        if (ids.size() > 100000)
            break;
    }
    return ids;
}

TEST_F(Query, WalkOfAnEmptyDatabase)
{
    load("{}");
    tarn_context_info_t info;
    EXPECT_EQ(0u, tarn_get_next_context_info(0, &info));
    EXPECT_TRUE(captured().empty());
}

TEST_F(Query, WalkWithoutContexts)
{
    load(R"({"interfaces": [{"ifindex": 5, "iod": 5, "name": "e", "context": "x"}]})");
    tarn_context_info_t info;
    EXPECT_EQ(0u, tarn_get_next_context_info(0, &info));
}

TEST_F(Query, WalkHidesL2Vrf)
{
    load(R"({"contexts": [{"id": 1, "name": "default"}, {"id": 2, "name": "l2-vrf"},
                          {"id": 3, "name": "red"}]})");
    tarn_context_info_t info;
    EXPECT_EQ(1u, tarn_get_next_context_info(0, &info));
    EXPECT_STREQ("default", info.name);
    EXPECT_EQ(3u, tarn_get_next_context_info(1, &info));
    EXPECT_STREQ("red", info.name);
    EXPECT_EQ(0u, tarn_get_next_context_info(3, &info));
    EXPECT_TRUE(captured().empty());
}

TEST_F(Query, WalkOfTheFixture)
{
    load();
    std::vector<std::string> names;
    EXPECT_EQ((std::vector<uint32_t>{1, 3, 4, 5, 8}), walk(&names));
    EXPECT_EQ((std::vector<std::string>{"default", "red", "blue", "management",
                                        "abcdefghijklmnopqrstuvwxyz012345"}),
              names);
}

TEST_F(Query, WalkFromTheLastContextSkipsEverythingAfter)
{
    load();
    tarn_context_info_t info;
    EXPECT_EQ(0u, tarn_get_next_context_info(8, &info));
    // And from an id past every context.
    EXPECT_EQ(0u, tarn_get_next_context_info(1000, &info));
}

// The last call passes over the records of later kinds at once, and leaves
// the database's iterator where stepping over each of them would: on the
// last record, with nothing after it.
TEST_F(Query, WalkFromTheLastContextLeavesTheIteratorAtTheEnd)
{
    load();
    const std::string uri = tarntest::tarn_kvs_uri();
    const char *db = uri.c_str();
    put(key_with_id(0x7F, 1), {1, 2, 3});  // the database's last record
    tarn_context_info_t info;
    EXPECT_EQ(0u, tarn_get_next_context_info(8, &info));
    kvs_datum_t key{nullptr, 0}, value{nullptr, 0};
    EXPECT_EQ(KVS_ERR_END, kvs_getnext(db, &key, &value));
    ASSERT_EQ(0u, kvs_getkey(db, &key, &value));
    EXPECT_EQ(key_with_id(0x7F, 1),
              std::vector<uint8_t>(static_cast<const uint8_t *>(key.data),
                                   static_cast<const uint8_t *>(key.data) + key.len));
    // A context added after them is still found by the next walk.
    EXPECT_EQ(1u, tarn_get_next_context_info(0, &info));
    EXPECT_TRUE(captured().empty());
}

// From 0 the walk starts at the first record of the database and never
// examines it, even when it is a context's record (the name records of
// kind 1 are expected before it): passing over the earlier kinds at once
// changes nothing about that.
TEST_F(Query, WalkFromZeroNeverExaminesTheDatabasesFirstRecord)
{
    load(R"({"contexts": [{"id": 1, "name": "default"}, {"id": 3, "name": "red"}]})");
    const std::string uri = tarntest::tarn_kvs_uri();
    const char *db = uri.c_str();
    // Without the name records the first record is context 1's.
    for (const char *name : {"default", "red"}) {
        std::vector<uint8_t> k(48, 0);
        k[3] = 1;
        memcpy(&k[4], name, strlen(name));
        ASSERT_EQ(0u, tarnhost_kvs_del(db, k.data(), 48));
    }
    tarn_context_info_t info;
    EXPECT_EQ(3u, tarn_get_next_context_info(0, &info));
    EXPECT_STREQ("red", info.name);
}

TEST_F(Query, WalkContinuesAfterAContextThatHasGone)
{
    load();
    tarn_context_info_t info;
    EXPECT_EQ(4u, tarn_get_next_context_info(3, &info));
    const auto key = key_with_id(3, 3);
    ASSERT_EQ(0u, tarnhost_kvs_del(tarntest::tarn_kvs_uri().c_str(), key.data(), 48));
    EXPECT_EQ(4u, tarn_get_next_context_info(3, &info));
}

TEST_F(Query, LastContextRecordL2VrfEndsTheWalkWithItsRecordInInfo)
{
    load(R"({"contexts": [{"id": 1, "name": "default"}, {"id": 9, "name": "l2-vrf"}]})");
    tarn_context_info_t info;
    EXPECT_EQ(1u, tarn_get_next_context_info(0, &info));
    EXPECT_EQ(0u, tarn_get_next_context_info(1, &info));
    EXPECT_STREQ("l2-vrf", info.name);
}

TEST_F(Query, WalkIteratorFailureIsReported)
{
    load();
    tarnhost_fault_set("kvs_iterator_init", 5, 1);
    tarn_context_info_t info;
    EXPECT_EQ(0u, tarn_get_next_context_info(0, &info));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_LIBAPI_FAILED>> kvs_iterator_init() - failed in "
                  "tarn_get_next_context_info()"}),
              captured());
}

TEST_F(Query, WalkConversionFailureEndsTheWalkEarly)
{
    load();
    put(key_with_id(3, 4), {9, 9, 9});
    EXPECT_EQ((std::vector<uint32_t>{1, 3}), walk());
    EXPECT_EQ("<<%TARN-3-TARN_LIBAPI_FAILED>> tarn_context_info_to_struct() - failed in "
              "tarn_get_next_context_info()",
              captured().back());
}

TEST_F(Query, WalkOverThousandsOfContextsInAscendingOrder)
{
    std::string json = R"({"contexts": [)";
    const int n = 3000;
    // Listed in descending order: the walk must not depend on it.
    for (int i = n; i >= 1; --i) {
        json += "{\"id\": " + std::to_string(i * 3) + ", \"name\": \"" +
                (i == 1500 ? std::string("l2-vrf") : "c" + std::to_string(i)) +
                "\", \"tables\": [{\"id\": " + std::to_string(i) +
                ", \"af\": 1, \"name\": \"t\"}]}";
        json += i > 1 ? "," : "";
    }
    json += R"(], "interfaces": [)";
    for (int i = 1; i <= 2000; ++i)
        json += "{\"ifindex\": " + std::to_string(i) + ", \"iod\": " + std::to_string(i) +
                ", \"name\": \"e" + std::to_string(i) + "\", \"context\": \"c1\"}" +
                (i < 2000 ? "," : "");
    json += "]}";
    load(json);
    std::vector<uint32_t> expected;
    for (int i = 1; i <= n; ++i)
        if (i != 1500)
            expected.push_back(static_cast<uint32_t>(i * 3));
    EXPECT_EQ(expected, walk());
}

TEST_F(Query, WalkInCellTwo)
{
    load();
    tarnhost_cell_set(2);
    tarn_context_info_t info;
    EXPECT_EQ(0u, tarn_get_next_context_info(0, &info));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-TARN_CELL>> Error returned from ctx range in tarn_get_next_context_info()"}),
              captured());
}

}  // namespace
