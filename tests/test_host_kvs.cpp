// The host's shared database: attachment, keyed reads, the iterator, the
// writer, and what readers see while another process writes.

#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "host/tarnhost.h"
#include "platform/kvs.h"
#include "platform/syslog.h"
#include "support/fixture.h"

namespace {

constexpr char kUri[] = "volatile:/tarnhost/test_kvs";

std::string be32(uint32_t v)
{
    std::string k(4, '\0');
    k[0] = static_cast<char>(v >> 24);
    k[1] = static_cast<char>(v >> 16);
    k[2] = static_cast<char>(v >> 8);
    k[3] = static_cast<char>(v);
    return k;
}

uint32_t from_be32(const void *p)
{
    const unsigned char *b = static_cast<const unsigned char *>(p);
    return (uint32_t{b[0]} << 24) | (uint32_t{b[1]} << 16) |
           (uint32_t{b[2]} << 8) | b[3];
}

kvs_datum_t datum(const std::string &s)
{
    return kvs_datum_t{s.data(), static_cast<uint32_t>(s.size())};
}

// For literals: a temporary std::string would not outlive the descriptor.
kvs_datum_t datum(const char *s)
{
    return kvs_datum_t{s, static_cast<uint32_t>(strlen(s))};
}

std::string text(const kvs_datum_t &d)
{
    return std::string(static_cast<const char *>(d.data), d.len);
}

uint32_t put(const char *uri, const std::string &k, const std::string &v)
{
    return tarnhost_kvs_put(uri, k.data(), static_cast<uint32_t>(k.size()),
                            v.data(), static_cast<uint32_t>(v.size()));
}

// Reads `k`; the value's text, or "<status 0x...>".
std::string get(const char *uri, const std::string &k)
{
    kvs_datum_t key = datum(k), value{nullptr, 0};
    uint32_t st = kvs_read(uri, &key, &value);
    if (st != 0) {
        char buf[32];
        snprintf(buf, sizeof buf, "<status 0x%08x>", st);
        return buf;
    }
    return text(value);
}

double now()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

class host_kvs : public tarntest::HostTest {
protected:
    void TearDown() override
    {
        kvs_close(kUri);
        tarntest::HostTest::TearDown();
    }
};

// ---- attachment --------------------------------------------------------------

TEST_F(host_kvs, open_twice_reports_already_open_and_close_detaches)
{
    EXPECT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    EXPECT_EQ(KVS_ERR_ALREADY_OPEN, kvs_open(kUri, 1, 0, 0, 0));
    EXPECT_EQ(0x411A0003u, KVS_ERR_ALREADY_OPEN);
    ASSERT_EQ(0u, put(kUri, "k", "v"));
    EXPECT_EQ("v", get(kUri, "k"));  // still usable after the second open
    EXPECT_EQ(0u, kvs_close(kUri));
    EXPECT_EQ(KVS_ERR_NOT_OPEN, kvs_close(kUri));
    EXPECT_EQ("<status 0x40480004>", get(kUri, "k"));
    EXPECT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    EXPECT_EQ("v", get(kUri, "k"));
}

TEST_F(host_kvs, every_database_of_the_device_lives_in_one_store_under_the_root)
{
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    ASSERT_EQ(0u, put("volatile:/other/db", "k", "v"));
    struct stat st;
    std::string dir = root_ + "/kvs/env";
    ASSERT_EQ(0, stat(dir.c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(0700u, st.st_mode & 0777u);
    EXPECT_EQ(0, stat((dir + "/data.mdb").c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777u);
    // No directory per database any more.
    EXPECT_NE(0, stat((root_ + "/kvs/volatile").c_str(), &st));
    // The databases stay apart inside it.
    EXPECT_EQ("<status 0x40480003>", get(kUri, "k"));
    ASSERT_EQ(0u, kvs_open("volatile:/other/db", 1, 0, 0, 0));
    EXPECT_EQ("v", get("volatile:/other/db", "k"));
    kvs_close("volatile:/other/db");
}

TEST_F(host_kvs, read_of_unopened_database_is_not_open)
{
    EXPECT_EQ("<status 0x40480004>", get("volatile:/never/opened", "k"));
    kvs_datum_t key = datum("k"), value{nullptr, 0};
    EXPECT_EQ(KVS_ERR_INVALID, kvs_read(kUri, nullptr, &value));
    EXPECT_EQ(KVS_ERR_INVALID, kvs_read(kUri, &key, nullptr));
    EXPECT_EQ(KVS_ERR_INVALID, kvs_read(nullptr, &key, &value));
}

TEST_F(host_kvs, absent_key_is_not_found)
{
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    EXPECT_EQ("<status 0x40480003>", get(kUri, "missing"));
    ASSERT_EQ(0u, put(kUri, "present", "value"));
    EXPECT_EQ("value", get(kUri, "present"));
    EXPECT_EQ("<status 0x40480003>", get(kUri, "missing"));
    // Keys the store cannot hold are in no record.
    EXPECT_EQ("<status 0x40480003>", get(kUri, ""));
    EXPECT_EQ("<status 0x40480003>", get(kUri, std::string(2000, 'x')));
}

TEST_F(host_kvs, writer_delete_and_clear)
{
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    ASSERT_EQ(0u, put(kUri, "a", "1"));
    ASSERT_EQ(0u, put(kUri, "b", "2"));
    EXPECT_EQ(0u, tarnhost_kvs_del(kUri, "a", 1));
    EXPECT_EQ(KVS_ERR_NOT_FOUND, tarnhost_kvs_del(kUri, "a", 1));
    EXPECT_EQ("<status 0x40480003>", get(kUri, "a"));
    EXPECT_EQ("2", get(kUri, "b"));

    uint32_t st = 1;
    tarnhost_kvs_txn_t *t = tarnhost_kvs_txn_begin(kUri, &st);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(0u, st);
    EXPECT_EQ(0u, tarnhost_kvs_txn_clear(t));
    EXPECT_EQ(0u, tarnhost_kvs_txn_put(t, "c", 1, "3", 1));
    EXPECT_EQ(KVS_ERR_INVALID, tarnhost_kvs_txn_put(t, "", 0, "3", 1));
    EXPECT_EQ("2", get(kUri, "b"));  // nothing visible before the commit
    EXPECT_EQ("<status 0x40480003>", get(kUri, "c"));
    EXPECT_EQ(0u, tarnhost_kvs_txn_commit(t));
    EXPECT_EQ("<status 0x40480003>", get(kUri, "b"));
    EXPECT_EQ("3", get(kUri, "c"));

    t = tarnhost_kvs_txn_begin(kUri, &st);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(0u, tarnhost_kvs_txn_put(t, "d", 1, "4", 1));
    tarnhost_kvs_txn_abort(t);
    EXPECT_EQ("<status 0x40480003>", get(kUri, "d"));
}

TEST_F(host_kvs, values_of_one_mebibyte_round_trip)
{
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    std::string big(1u << 20, '\0');
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 7 + 3);
    ASSERT_EQ(0u, put(kUri, "big", big));
    EXPECT_TRUE(get(kUri, "big") == big);
}

TEST_F(host_kvs, two_spellings_of_one_uri_share_the_database)
{
    const char *a = "volatile:/x/y";
    const char *b = "volatile://x//y/";
    ASSERT_EQ(0u, kvs_open(a, 1, 0, 0, 0));
    ASSERT_EQ(0u, kvs_open(b, 1, 0, 0, 0));
    ASSERT_EQ(0u, put(b, "k", "shared"));
    EXPECT_EQ("shared", get(a, "k"));
    EXPECT_EQ(0u, kvs_close(a));
    EXPECT_EQ("shared", get(b, "k"));  // the other attachment stays
    EXPECT_EQ("<status 0x40480004>", get(a, "k"));
    EXPECT_EQ(0u, kvs_close(b));
}

TEST_F(host_kvs, uri_is_compared_by_text_not_by_pointer)
{
    char buf[64];
    strcpy(buf, kUri);
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    ASSERT_EQ(0u, put(kUri, "k", "v"));
    EXPECT_EQ("v", get(buf, "k"));
    // The same buffer now names another database, one that is not open.
    strcpy(buf, "volatile:/other");
    EXPECT_EQ("<status 0x40480004>", get(buf, "k"));
}

TEST_F(host_kvs, moving_the_root_rebinds_an_open_uri)
{
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    ASSERT_EQ(0u, put(kUri, "k", "first root"));
    std::string second = tarntest::fresh_root();
    EXPECT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    EXPECT_EQ("<status 0x40480003>", get(kUri, "k"));
    ASSERT_EQ(0u, put(kUri, "k", "second root"));
    EXPECT_EQ("second root", get(kUri, "k"));
    EXPECT_EQ(0u, kvs_close(kUri));
    tarntest::remove_root(second);
    setenv("TARNHOST_ROOT", root_.c_str(), 1);
}

// ---- zero-copy values ----------------------------------------------------------

TEST_F(host_kvs, value_stays_valid_until_the_same_threads_next_read)
{
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    ASSERT_EQ(0u, put(kUri, "k", std::string(100, 'a')));
    ASSERT_EQ(0u, put(kUri, "other", "o"));

    kvs_datum_t key = datum("k"), first{nullptr, 0};
    ASSERT_EQ(0u, kvs_read(kUri, &key, &first));
    ASSERT_EQ(100u, first.len);

    // The thread's copy is reused: the record read again is in the same
    // memory.
    kvs_datum_t again{nullptr, 0};
    ASSERT_EQ(0u, kvs_read(kUri, &key, &again));
    EXPECT_EQ(first.data, again.data);

    // A writer replaces the record; this thread's value is untouched.
    ASSERT_EQ(0u, put(kUri, "k", std::string(100, 'b')));
    EXPECT_EQ(std::string(100, 'a'), text(again));

    // Another thread reads the new value; ours is still the old one.
    std::string seen;
    std::thread th([&] { seen = get(kUri, "k"); });
    th.join();
    EXPECT_EQ(std::string(100, 'b'), seen);
    EXPECT_EQ(std::string(100, 'a'), text(again));

    // Our next read moves to the new state.
    EXPECT_EQ(std::string(100, 'b'), get(kUri, "k"));
}

TEST_F(host_kvs, closing_drops_other_threads_readers)
{
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    ASSERT_EQ(0u, put(kUri, "k", "v"));
    std::atomic<int> step{0};
    std::string r1, r2, r3;
    std::thread th([&] {
        r1 = get(kUri, "k");
        step = 1;
        while (step != 2)
            std::this_thread::yield();
        r2 = get(kUri, "k");
        step = 3;
        while (step != 4)
            std::this_thread::yield();
        r3 = get(kUri, "k");
    });
    while (step != 1)
        std::this_thread::yield();
    ASSERT_EQ(0u, kvs_close(kUri));
    step = 2;
    while (step != 3)
        std::this_thread::yield();
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    step = 4;
    th.join();
    EXPECT_EQ("v", r1);
    EXPECT_EQ("<status 0x40480004>", r2);
    EXPECT_EQ("v", r3);
}

TEST_F(host_kvs, exiting_threads_give_back_their_reader_slots)
{
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    ASSERT_EQ(0u, put(kUri, "k", "v"));
    // More threads than the environment has reader slots, one after another.
    int bad = 0;
    for (int i = 0; i < 600; ++i) {
        std::thread th([&] {
            if (get(kUri, "k") != "v")
                ++bad;
        });
        th.join();
    }
    EXPECT_EQ(0, bad);
}

TEST_F(host_kvs, many_threads_read_while_a_thread_writes)
{
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    ASSERT_EQ(0u, put(kUri, "k", std::string(4096, '\0')));
    std::atomic<bool> stop{false};
    std::atomic<long> torn{0}, reads{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t)
        readers.emplace_back([&] {
            kvs_datum_t key = datum("k");
            while (!stop) {
                kvs_datum_t v{nullptr, 0};
                if (kvs_read(kUri, &key, &v) != 0 || v.len != 4096) {
                    ++torn;
                    continue;
                }
                const char *p = static_cast<const char *>(v.data);
                if (std::count(p, p + v.len, p[0]) != 4096)
                    ++torn;
                ++reads;
            }
        });
    while (reads < 100)
        std::this_thread::yield();
    long before = reads;
    for (int i = 1; i <= 300; ++i)
        EXPECT_EQ(0u, put(kUri, "k", std::string(4096, static_cast<char>(i))));
    while (reads < before + 100)
        std::this_thread::yield();
    stop = true;
    for (auto &th : readers)
        th.join();
    EXPECT_EQ(0, torn.load());
    EXPECT_GT(reads.load(), 0);
}

// ---- iterator ------------------------------------------------------------------

class host_kvs_iter : public host_kvs {
protected:
    void SetUp() override
    {
        host_kvs::SetUp();
        ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    }
    void fill(std::initializer_list<uint32_t> ids) { fill(std::vector<uint32_t>(ids)); }
    void fill(const std::vector<uint32_t> &ids)
    {
        for (uint32_t id : ids)
            ASSERT_EQ(0u, put(kUri, be32(id), "v" + std::to_string(id)));
    }
    // The id at the iterator, or -1 when getkey fails.
    int64_t current()
    {
        kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
        if (kvs_getkey(kUri, &k, &v) != 0)
            return -1;
        EXPECT_EQ(4u, k.len);
        EXPECT_EQ("v" + std::to_string(from_be32(k.data)), text(v));
        return from_be32(k.data);
    }
    int64_t next()
    {
        kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
        if (kvs_getnext(kUri, &k, &v) != 0)
            return -1;
        EXPECT_EQ("v" + std::to_string(from_be32(k.data)), text(v));
        return from_be32(k.data);
    }
    uint32_t init_at(uint32_t id)
    {
        std::string k = be32(id);
        kvs_datum_t key = datum(k);
        return kvs_iterator_init(kUri, &key, 0);
    }
};

TEST_F(host_kvs_iter, present_key_positions_on_it)
{
    fill({10, 20, 30});
    ASSERT_EQ(0u, init_at(20));
    EXPECT_EQ(20, current());
    EXPECT_EQ(30, next());
    EXPECT_EQ(30, current());
}

TEST_F(host_kvs_iter, absent_key_in_the_middle_lands_on_the_record_before)
{
    fill({10, 20, 30});
    ASSERT_EQ(0u, init_at(25));
    EXPECT_EQ(20, current());
    EXPECT_EQ(30, next());
}

TEST_F(host_kvs_iter, absent_key_before_the_first_record)
{
    fill({10, 20, 30});
    ASSERT_EQ(0u, init_at(5));
    EXPECT_EQ(-1, current());
    kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
    EXPECT_EQ(KVS_ERR_NO_POSITION, kvs_getkey(kUri, &k, &v));
    EXPECT_EQ(10, next());
    EXPECT_EQ(10, current());
}

TEST_F(host_kvs_iter, absent_key_after_the_last_record)
{
    fill({10, 20, 30});
    ASSERT_EQ(0u, init_at(99));
    EXPECT_EQ(30, current());
    EXPECT_EQ(-1, next());
}

TEST_F(host_kvs_iter, start_argument_positions_on_the_first_record)
{
    fill({30, 10, 20});
    ASSERT_EQ(0u, kvs_iterator_init(kUri, nullptr, 1));
    EXPECT_EQ(10, current());
    EXPECT_EQ(20, next());
}

TEST_F(host_kvs_iter, getnext_at_the_end_fails_and_keeps_the_position)
{
    fill({10, 20});
    ASSERT_EQ(0u, kvs_iterator_init(kUri, nullptr, 1));
    EXPECT_EQ(20, next());
    kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
    EXPECT_EQ(KVS_ERR_END, kvs_getnext(kUri, &k, &v));
    EXPECT_EQ(KVS_ERR_END, kvs_getnext(kUri, &k, &v));
    EXPECT_EQ(20, current());
}

TEST_F(host_kvs_iter, empty_database)
{
    ASSERT_EQ(0u, kvs_iterator_init(kUri, nullptr, 1));
    EXPECT_EQ(-1, current());
    EXPECT_EQ(-1, next());
    ASSERT_EQ(0u, init_at(7));
    EXPECT_EQ(-1, current());
    EXPECT_EQ(-1, next());
}

TEST_F(host_kvs_iter, big_endian_integer_keys_walk_in_numeric_order)
{
    std::vector<uint32_t> ids = {0x01000000, 1, 256, 0xFFFFFFFF, 255,
                                 65536,      2, 0x00FF00FF};
    for (uint32_t id : ids)
        ASSERT_EQ(0u, put(kUri, be32(id), "v" + std::to_string(id)));
    std::sort(ids.begin(), ids.end());
    std::vector<uint32_t> walked;
    ASSERT_EQ(0u, kvs_iterator_init(kUri, nullptr, 1));
    walked.push_back(static_cast<uint32_t>(current()));
    for (int64_t id; (id = next()) >= 0;)
        walked.push_back(static_cast<uint32_t>(id));
    EXPECT_EQ(ids, walked);
}

TEST_F(host_kvs_iter, shorter_key_sorts_before_longer_on_a_common_prefix)
{
    for (const char *k : {"b", "abc", "ab", "a\xff", "abd"})
        ASSERT_EQ(0u, put(kUri, k, k));
    std::vector<std::string> walked;
    ASSERT_EQ(0u, kvs_iterator_init(kUri, nullptr, 1));
    kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
    ASSERT_EQ(0u, kvs_getkey(kUri, &k, &v));
    walked.push_back(text(k));
    while (kvs_getnext(kUri, &k, &v) == 0)
        walked.push_back(text(k));
    EXPECT_EQ((std::vector<std::string>{"ab", "abc", "abd", "a\xff", "b"}),
              walked);
}

TEST_F(host_kvs_iter, key_longer_than_any_record_sorts_after_its_prefix)
{
    std::string p(400, 'p');
    ASSERT_EQ(0u, put(kUri, p, "prefix"));
    ASSERT_EQ(0u, put(kUri, "q", "after"));
    std::string longer = p + std::string(600, 'z');
    kvs_datum_t key = datum(longer), k{nullptr, 0}, v{nullptr, 0};
    ASSERT_EQ(0u, kvs_iterator_init(kUri, &key, 0));
    ASSERT_EQ(0u, kvs_getkey(kUri, &k, &v));
    EXPECT_EQ("prefix", text(v));
    ASSERT_EQ(0u, kvs_getnext(kUri, &k, &v));
    EXPECT_EQ("after", text(v));
}

// Each step reads the database as it is then: a record added ahead of the
// position is met, one removed is not, and the record at the position is
// the one the step that reached it read.
TEST_F(host_kvs_iter, each_step_reads_the_database_as_it_is_now)
{
    fill({10, 20});
    ASSERT_EQ(0u, kvs_iterator_init(kUri, nullptr, 1));
    fill({15});
    ASSERT_EQ(0u, tarnhost_kvs_del(kUri, be32(20).data(), 4));
    EXPECT_EQ(10, current());
    EXPECT_EQ(15, next());
    EXPECT_EQ(-1, next());
    EXPECT_EQ(15, current());  // the position stays on the last record
    // The position's own record removed: the next step goes on from where
    // it stood.
    fill({30});
    ASSERT_EQ(0u, init_at(15));
    ASSERT_EQ(0u, tarnhost_kvs_del(kUri, be32(15).data(), 4));
    EXPECT_EQ(15, current());
    EXPECT_EQ(30, next());
    EXPECT_EQ(-1, next());
}

// Steps taken from the records read ahead of the position give what fresh
// steps give: the same walk, whether it steps on or starts again from
// where the last call left it (as the library's walks do), long enough to
// read ahead many times; and a commit between two steps is seen at once,
// whether it adds a record just ahead, removes one, or leaves the walk's
// records as they were.
TEST_F(host_kvs_iter, steps_from_records_read_ahead_give_what_fresh_steps_give)
{
    std::vector<uint32_t> ids;
    for (uint32_t id = 10; id <= 1000; id += 10)
        ids.push_back(id);
    fill(ids);
    ASSERT_EQ(0u, kvs_iterator_init(kUri, nullptr, 1));
    for (size_t i = 1; i < ids.size(); ++i)
        ASSERT_EQ(static_cast<int64_t>(ids[i]), next()) << i;
    EXPECT_EQ(-1, next());
    EXPECT_EQ(1000, current());
    // Starting again from the record the last call returned.
    int64_t at = 10;
    for (size_t i = 1; i < ids.size(); ++i) {
        ASSERT_EQ(0u, init_at(static_cast<uint32_t>(at)));
        ASSERT_EQ(at, current());
        at = next();
        ASSERT_EQ(static_cast<int64_t>(ids[i]), at) << i;
    }
    ASSERT_EQ(0u, init_at(1000));
    EXPECT_EQ(-1, next());
    // Between two steps of a walk that has read ahead: a record added just
    // ahead is met, a removed one is not, an unrelated commit changes
    // nothing, and an absent key between two records read ahead lands on
    // the one before it.
    ASSERT_EQ(0u, init_at(100));
    EXPECT_EQ(110, next());
    fill({115});
    EXPECT_EQ(115, next());
    ASSERT_EQ(0u, tarnhost_kvs_del(kUri, be32(120).data(), 4));
    EXPECT_EQ(130, next());
    ASSERT_EQ(0u, tarnhost_kvs_put(kUri, "z", 1, "other", 5));
    EXPECT_EQ(140, next());
    ASSERT_EQ(0u, init_at(145));
    EXPECT_EQ(140, current());
    EXPECT_EQ(150, next());
    ASSERT_EQ(0u, tarnhost_kvs_del(kUri, "z", 1));
    ASSERT_EQ(0u, init_at(990));
    EXPECT_EQ(1000, next());
    fill({2000});
    EXPECT_EQ(2000, next());
    EXPECT_EQ(-1, next());
}

TEST_F(host_kvs_iter, iterator_and_reads_do_not_disturb_each_other)
{
    fill({10, 20, 30});
    ASSERT_EQ(0u, init_at(10));
    EXPECT_EQ("v30", get(kUri, be32(30)));
    EXPECT_EQ(20, next());
    EXPECT_EQ("v10", get(kUri, be32(10)));
    EXPECT_EQ(30, next());
}

TEST_F(host_kvs_iter, argument_and_state_errors)
{
    kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
    EXPECT_EQ(KVS_ERR_NO_POSITION, kvs_getkey(kUri, &k, &v));
    EXPECT_EQ(KVS_ERR_NO_POSITION, kvs_getnext(kUri, &k, &v));
    EXPECT_EQ(KVS_ERR_INVALID, kvs_iterator_init(kUri, nullptr, 0));
    EXPECT_EQ(KVS_ERR_NOT_OPEN, kvs_iterator_init("volatile:/nope", nullptr, 1));
    EXPECT_EQ(KVS_ERR_NOT_OPEN, kvs_getkey("volatile:/nope", &k, &v));
    EXPECT_EQ(KVS_ERR_NOT_OPEN, kvs_getnext("volatile:/nope", &k, &v));
}

// ---- the root and bad URIs -------------------------------------------------------

TEST_F(host_kvs, bad_uris_are_refused)
{
    const char *bad[] = {"",          "noscheme",      ":/x",
                         "volatile:", "volatile:/",    "volatile:/a/../b",
                         "volatile:/a/./b", "Volatile:/a", "volatile:/a b",
                         "volatile:/a/data.mdb"};
    for (const char *uri : bad) {
        EXPECT_EQ(KVS_ERR_BAD_URI, kvs_open(uri, 1, 0, 0, 0)) << uri;
        uint32_t st = 0;
        EXPECT_EQ(nullptr, tarnhost_kvs_txn_begin(uri, &st)) << uri;
        EXPECT_EQ(KVS_ERR_BAD_URI, st) << uri;
    }
    std::string longest = "volatile:/" + std::string(5000, 'a');
    EXPECT_EQ(KVS_ERR_BAD_URI, kvs_open(longest.c_str(), 1, 0, 0, 0));
    EXPECT_EQ(KVS_ERR_INVALID, kvs_open(nullptr, 1, 0, 0, 0));
}

TEST_F(host_kvs, missing_root_fails_with_an_io_status)
{
    std::string missing = root_ + "/not/there";
    setenv("TARNHOST_ROOT", missing.c_str(), 1);
    EXPECT_EQ(KVS_ERR_IO, kvs_open(kUri, 1, 0, 0, 0));
    EXPECT_EQ(KVS_ERR_IO, put(kUri, "k", "v"));
    setenv("TARNHOST_ROOT", root_.c_str(), 1);
    EXPECT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
}

TEST_F(host_kvs, root_under_a_regular_file_fails)
{
    std::string file = root_ + "/file";
    FILE *f = fopen(file.c_str(), "w");
    ASSERT_NE(nullptr, f);
    fclose(f);
    setenv("TARNHOST_ROOT", (file + "/root").c_str(), 1);
    EXPECT_EQ(ENOTDIR, tarnhost_root_prepare());
    EXPECT_EQ(KVS_ERR_IO, kvs_open(kUri, 1, 0, 0, 0));
    setenv("TARNHOST_ROOT", file.c_str(), 1);  // the root is a file itself
    EXPECT_EQ(ENOTDIR, tarnhost_root_prepare());
    EXPECT_EQ(KVS_ERR_IO, kvs_open(kUri, 1, 0, 0, 0));
    setenv("TARNHOST_ROOT", root_.c_str(), 1);
}

// The map size is the device store's, set by the process that creates it.
TEST_F(host_kvs, map_size_can_be_set_from_the_environment)
{
    setenv("TARNHOST_KVS_MAPSIZE", "1048576", 1);
    std::string big(2u << 20, 'x');
    EXPECT_EQ(KVS_ERR_FULL, put("volatile:/small/map", "k", big));
    EXPECT_STREQ("database full", syserr2str(KVS_ERR_FULL));
    EXPECT_EQ(0u, put("volatile:/small/map", "k", "small"));  // nothing lost
    unsetenv("TARNHOST_KVS_MAPSIZE");
    const std::string other = tarntest::fresh_root();
    EXPECT_EQ(0u, put("volatile:/default/map", "k", big));
    tarntest::remove_root(other);
    setenv("TARNHOST_ROOT", root_.c_str(), 1);
}

// ---- fault injection ---------------------------------------------------------------

TEST_F(host_kvs, every_call_can_be_made_to_fail)
{
    const uint32_t kStatus = 0x4048BEEFu;
    ASSERT_EQ(0u, put(kUri, be32(1), "v1"));
    ASSERT_EQ(0u, put(kUri, be32(2), "v2"));

    tarnhost_fault_set("kvs_open", kStatus, 1);
    EXPECT_EQ(kStatus, kvs_open(kUri, 1, 0, 0, 0));
    EXPECT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));

    tarnhost_fault_set("kvs_read", kStatus, 1);
    EXPECT_EQ("<status 0x4048beef>", get(kUri, be32(1)));
    EXPECT_EQ("v1", get(kUri, be32(1)));

    kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
    tarnhost_fault_set("kvs_iterator_init", kStatus, 1);
    EXPECT_EQ(kStatus, kvs_iterator_init(kUri, nullptr, 1));
    EXPECT_EQ(0u, kvs_iterator_init(kUri, nullptr, 1));

    tarnhost_fault_set("kvs_getkey", kStatus, 1);
    EXPECT_EQ(kStatus, kvs_getkey(kUri, &k, &v));
    EXPECT_EQ(0u, kvs_getkey(kUri, &k, &v));
    EXPECT_EQ(be32(1), text(k));

    tarnhost_fault_set("kvs_getnext", kStatus, 1);
    EXPECT_EQ(kStatus, kvs_getnext(kUri, &k, &v));
    EXPECT_EQ(0u, kvs_getnext(kUri, &k, &v));
    EXPECT_EQ(be32(2), text(k));

    tarnhost_fault_set("kvs_close", kStatus, 1);
    EXPECT_EQ(kStatus, kvs_close(kUri));
    EXPECT_EQ(0u, kvs_close(kUri));
}

// ---- processes ---------------------------------------------------------------------

TEST_F(host_kvs, child_process_opens_its_own_attachment)
{
    ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    ASSERT_EQ(0u, put(kUri, "k", "parent"));
    EXPECT_EQ("parent", get(kUri, "k"));
    int rc = tarntest::run_child([] {
        // What the parent had open does not carry over a fork.
        if (get(kUri, "k") != "<status 0x40480004>")
            return 1;
        if (kvs_open(kUri, 1, 0, 0, 0) != 0)
            return 2;
        if (get(kUri, "k") != "parent")
            return 3;
        if (put(kUri, "k", "child") != 0)
            return 4;
        return 0;
    });
    EXPECT_EQ(0, rc);
    EXPECT_EQ("child", get(kUri, "k"));
}

// A writer process rewrites large records over and over; a reader process
// reads and walks them at the same time and must only ever see whole ones.
TEST_F(host_kvs, reader_process_never_sees_a_torn_record)
{
    constexpr uint32_t kSize = 64 * 1024;
    constexpr double kSeconds = 2.0;
    ASSERT_EQ(0u, put(kUri, "big", std::string(kSize, '\0')));
    ASSERT_EQ(0u, put(kUri, "seq", be32(0)));

    pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        std::string value(kSize, '\0');
        double end = now() + kSeconds;
        uint32_t n = 0;
        while (now() < end) {
            ++n;
            memset(&value[0], static_cast<int>(n & 0xFF), kSize);
            uint32_t st = 0;
            tarnhost_kvs_txn_t *t = tarnhost_kvs_txn_begin(kUri, &st);
            if (t == nullptr)
                _exit(10);
            std::string seq = be32(n);
            if (tarnhost_kvs_txn_put(t, "big", 3, value.data(), kSize) != 0 ||
                tarnhost_kvs_txn_put(t, "seq", 3, seq.data(), 4) != 0)
                _exit(11);
            if (tarnhost_kvs_txn_commit(t) != 0)
                _exit(12);
            // A publisher's pace, not a tight loop: a reader that is
            // descheduled inside a read pins its snapshot, and the space
            // written meanwhile cannot be reused until it wakes up.
            usleep(300);
        }
        _exit(n >= 1000 ? 0 : 13);
    }

    int rc = tarntest::run_child([&] {
        if (kvs_open(kUri, 1, 0, 0, 0) != 0)
            return 20;
        double end = now() + kSeconds;
        long reads = 0, walks = 0;
        uint32_t last_seq = 0;
        while (now() < end) {
            kvs_datum_t key = datum("big"), v{nullptr, 0};
            if (kvs_read(kUri, &key, &v) != 0 || v.len != kSize)
                return 21;
            const unsigned char *p = static_cast<const unsigned char *>(v.data);
            for (uint32_t i = 1; i < kSize; ++i)
                if (p[i] != p[0])
                    return 22;
            ++reads;
            // A walk reads each record whole; its steps may fall in
            // different transactions, whose sequence only moves on.
            if (reads % 8 == 0) {
                kvs_datum_t k{nullptr, 0}, big{nullptr, 0}, seq{nullptr, 0};
                if (kvs_iterator_init(kUri, nullptr, 1) != 0 ||
                    kvs_getkey(kUri, &k, &big) != 0 || text(k) != "big" || big.len != kSize)
                    return 23;
                // Valid until the next iterator call: kept before it.
                const std::string big_copy(static_cast<const char *>(big.data), big.len);
                if (kvs_getnext(kUri, &k, &seq) != 0 || text(k) != "seq" || seq.len != 4)
                    return 23;
                uint32_t s = from_be32(seq.data);
                const unsigned char *b =
                    reinterpret_cast<const unsigned char *>(big_copy.data());
                for (uint32_t i = 1; i < kSize; ++i)
                    if (b[i] != b[0])
                        return 24;
                if (s < last_seq)
                    return 25;  // time never runs backwards
                last_seq = s;
                ++walks;
            }
        }
        return (reads > 100 && walks > 10) ? 0 : 26;
    });
    int wstatus = 0;
    ASSERT_EQ(writer, waitpid(writer, &wstatus, 0));
    ASSERT_TRUE(WIFEXITED(wstatus));
    EXPECT_EQ(0, WEXITSTATUS(wstatus));
    EXPECT_EQ(0, rc);
}

// A reader that dies in the middle of a read must not keep the writer from
// reusing space forever.
TEST_F(host_kvs, dead_reader_does_not_pin_the_database)
{
    setenv("TARNHOST_KVS_MAPSIZE", "4194304", 1);
    const char *uri = "volatile:/small/pinned";
    std::string value(64 * 1024, 'a');
    ASSERT_EQ(0u, put(uri, "k", value));
    int rc = tarntest::run_child([uri] {
        if (kvs_open(uri, 1, 0, 0, 0) != 0)
            return 1;
        // Dies holding the snapshot of this read.
        return get(uri, "k").size() == 64 * 1024 ? 0 : 2;
    });
    ASSERT_EQ(0, rc);
    // Far more than the map holds unless old pages are reused.
    for (int i = 0; i < 300; ++i) {
        value.assign(value.size(), static_cast<char>('a' + i % 26));
        ASSERT_EQ(0u, put(uri, "k", value)) << "write " << i;
    }
    unsetenv("TARNHOST_KVS_MAPSIZE");
}

// A walk that its caller leaves before the end (the client library's walks
// stop where their kind of record ends) must not keep the writer from
// reusing space either: a long-lived client would fill the store.
TEST_F(host_kvs, a_walk_left_open_does_not_pin_the_database)
{
    setenv("TARNHOST_KVS_MAPSIZE", "4194304", 1);
    const char *uri = "volatile:/small/walked";
    std::string value(64 * 1024, 'a');
    ASSERT_EQ(0u, put(uri, "k", value));
    ASSERT_EQ(0u, put(uri, "m", "other"));
    int ready[2], done[2];
    ASSERT_EQ(0, pipe(ready));
    ASSERT_EQ(0, pipe(done));
    pid_t walker = fork();
    ASSERT_GE(walker, 0);
    if (walker == 0) {
        close(ready[0]);
        close(done[1]);
        kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
        // On the first record, the rest of the walk never taken.
        const char ok = kvs_open(uri, 1, 0, 0, 0) == 0 &&
                                kvs_iterator_init(uri, nullptr, 1) == 0 &&
                                kvs_getkey(uri, &k, &v) == 0
                            ? 1
                            : 0;
        (void)!write(ready[1], &ok, 1);
        char c;
        (void)!read(done[0], &c, 1);  // alive, the walk open, until the end
        _exit(0);
    }
    close(ready[1]);
    close(done[0]);
    char ok = 0;
    ASSERT_EQ(1, read(ready[0], &ok, 1));
    ASSERT_EQ(1, ok);
    for (int i = 0; i < 300; ++i) {
        value.assign(value.size(), static_cast<char>('a' + i % 26));
        ASSERT_EQ(0u, put(uri, "k", value)) << "write " << i;
    }
    close(done[1]);
    close(ready[0]);
    waitpid(walker, nullptr, 0);
    unsetenv("TARNHOST_KVS_MAPSIZE");
}

}  // namespace
