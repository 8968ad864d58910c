// A thread's reads answered again from what it read, while nothing was
// committed since: every answer must still be the one a fresh read gives,
// whoever commits (this thread, another one, another process) and whatever
// the key, the value's length or the number of keys asked about.

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <random>
#include <string>
#include <thread>

#include "host/tarnhost.h"
#include "platform/kvs.h"
#include "support/fixture.h"

namespace {

constexpr char kUri[] = "volatile:/tarnhost/test_kvs_kept";
constexpr char kOtherSpelling[] = "volatile:/tarnhost//test_kvs_kept";

uint32_t put(const std::string &k, const std::string &v)
{
    return tarnhost_kvs_put(kUri, k.data(), static_cast<uint32_t>(k.size()), v.data(),
                            static_cast<uint32_t>(v.size()));
}

uint32_t del(const std::string &k)
{
    return tarnhost_kvs_del(kUri, k.data(), static_cast<uint32_t>(k.size()));
}

// Reads `k` through `uri`; the value's text, or "<absent>" / "<status ...>".
std::string get(const std::string &k, const char *uri = kUri, const void **where = nullptr)
{
    kvs_datum_t key{k.data(), static_cast<uint32_t>(k.size())}, value{nullptr, 0};
    const uint32_t st = kvs_read(uri, &key, &value);
    if (st == KVS_ERR_NOT_FOUND)
        return "<absent>";
    if (st != 0)
        return "<status " + std::to_string(st) + ">";
    if (where != nullptr)
        *where = value.data;
    return std::string(static_cast<const char *>(value.data), value.len);
}

class host_kvs_kept : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        tarntest::HostTest::SetUp();
        ASSERT_EQ(0u, kvs_open(kUri, 1, 0, 0, 0));
    }
    void TearDown() override
    {
        kvs_close(kUri);
        kvs_close(kOtherSpelling);
        tarntest::HostTest::TearDown();
    }
};

TEST_F(host_kvs_kept, a_value_read_again_comes_from_the_same_copy_until_a_commit)
{
    ASSERT_EQ(0u, put("k", "one"));
    const void *first = nullptr, *again = nullptr;
    EXPECT_EQ("one", get("k", kUri, &first));
    EXPECT_EQ("one", get("k", kUri, &again));
    EXPECT_EQ(first, again);
    // A commit of this process: the next read is a fresh one.
    ASSERT_EQ(0u, put("k", "two"));
    EXPECT_EQ("two", get("k"));
    // So is a commit that changes another key only.
    ASSERT_EQ(0u, put("other", "x"));
    EXPECT_EQ("two", get("k"));
    ASSERT_EQ(0u, del("k"));
    EXPECT_EQ("<absent>", get("k"));
}

TEST_F(host_kvs_kept, an_absent_key_is_found_once_another_process_writes_it)
{
    ASSERT_EQ(0u, put("early", "x"));  // the database exists
    EXPECT_EQ("<absent>", get("late"));
    EXPECT_EQ("<absent>", get("late"));
    const int rc = tarntest::run_child([] { return put("late", "here") == 0 ? 0 : 1; });
    ASSERT_EQ(0, rc);
    EXPECT_EQ("here", get("late"));
}

TEST_F(host_kvs_kept, a_change_committed_by_another_process_between_two_reads_is_seen)
{
    ASSERT_EQ(0u, put("a", "1"));
    ASSERT_EQ(0u, put("b", "1"));
    EXPECT_EQ("1", get("a"));
    EXPECT_EQ("1", get("b"));
    const int rc = tarntest::run_child([] {
        uint32_t st = 0;
        tarnhost_kvs_txn_t *t = tarnhost_kvs_txn_begin(kUri, &st);
        if (t == nullptr || tarnhost_kvs_txn_put(t, "a", 1, "2", 1) != 0 ||
            tarnhost_kvs_txn_del(t, "b", 1) != 0)
            return 1;
        return tarnhost_kvs_txn_commit(t) == 0 ? 0 : 2;
    });
    ASSERT_EQ(0, rc);
    EXPECT_EQ("2", get("a"));
    EXPECT_EQ("<absent>", get("b"));
}

TEST_F(host_kvs_kept, keys_and_values_of_every_length_read_right)
{
    // Around the longest key (48) and value (96) that are kept, and the
    // empty value; keys that share a prefix are different keys.
    std::map<std::string, std::string> truth;
    for (size_t kl : {1, 7, 8, 9, 47, 48, 49, 64})
        for (size_t vl : {0, 1, 95, 96, 97, 300}) {
            std::string k(kl, 'k');
            k.back() = static_cast<char>('0' + vl % 10);
            k[0] = static_cast<char>('a' + kl % 26);
            truth[k] = std::string(vl, static_cast<char>('A' + (kl + vl) % 26));
        }
    truth[std::string("p")] = "short";
    truth[std::string("p\0", 2)] = "longer";
    for (int round = 0; round < 3; ++round) {
        for (auto &[k, v] : truth) {
            if (round > 0)
                v += static_cast<char>('0' + round);
            ASSERT_EQ(0u, put(k, v));
        }
        for (int twice = 0; twice < 2; ++twice)
            for (const auto &[k, v] : truth)
                EXPECT_EQ(v, get(k)) << "key of " << k.size() << " bytes, round " << round;
    }
}

TEST_F(host_kvs_kept, each_thread_and_each_spelling_reads_for_itself)
{
    ASSERT_EQ(0u, kvs_open(kOtherSpelling, 1, 0, 0, 0));
    ASSERT_EQ(0u, put("k", "one"));
    EXPECT_EQ("one", get("k", kOtherSpelling));
    const void *mine = nullptr;
    EXPECT_EQ("one", get("k", kUri, &mine));
    ASSERT_EQ(0u, put("k", "two"));
    std::string seen;
    std::thread th([&] { seen = get("k"); });
    th.join();
    EXPECT_EQ("two", seen);
    // This thread's last value stays as it was until its next read.
    EXPECT_EQ("one", std::string(static_cast<const char *>(mine), 3));
    EXPECT_EQ("two", get("k", kOtherSpelling));
    EXPECT_EQ("two", get("k"));
}

// A writer process changes, deletes and rewrites random keys, one
// transaction at a time, in step with this process: after every commit
// every key read here (some read moments ago, some never, more keys than
// are kept) must be what the writer holds.
TEST_F(host_kvs_kept, random_changes_of_another_process_are_always_seen)
{
    constexpr int kKeys = 1500;  // more than the 1,024 answers kept
    constexpr int kSteps = 150;
    int to_writer[2], to_reader[2];
    ASSERT_EQ(0, pipe(to_writer));
    ASSERT_EQ(0, pipe(to_reader));
    const uint32_t seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));

    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        close(to_writer[1]);
        close(to_reader[0]);
        std::mt19937 rng(seed);
        for (int step = 0; step < kSteps; ++step) {
            char go;
            if (read(to_writer[0], &go, 1) != 1)
                _exit(1);
            uint32_t st = 0;
            tarnhost_kvs_txn_t *t = tarnhost_kvs_txn_begin(kUri, &st);
            if (t == nullptr)
                _exit(2);
            const int changes = 1 + static_cast<int>(rng() % 4);
            for (int c = 0; c < changes; ++c) {
                // Mostly the first few keys: the ones a reader asks about
                // again and again.
                const int key = rng() % 4 == 0 ? static_cast<int>(rng() % kKeys)
                                               : static_cast<int>(rng() % 16);
                const std::string k = "key" + std::to_string(key);
                if (rng() % 5 == 0) {
                    const uint32_t d = tarnhost_kvs_txn_del(t, k.data(), k.size());
                    if (d != 0 && d != KVS_ERR_NOT_FOUND)
                        _exit(3);
                } else {
                    const std::string v = std::to_string(step) + ":" +
                                          std::string(rng() % 120, 'v');
                    if (tarnhost_kvs_txn_put(t, k.data(), k.size(), v.data(), v.size()) != 0)
                        _exit(4);
                }
            }
            if (tarnhost_kvs_txn_commit(t) != 0)
                _exit(5);
            if (write(to_reader[1], "c", 1) != 1)
                _exit(6);
        }
        _exit(0);
    }
    close(to_writer[0]);
    close(to_reader[1]);
    // The truth is read with a walk: one snapshot of its own, no kept answer.
    auto walk = [] {
        std::map<std::string, std::string> all;
        kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
        if (kvs_iterator_init(kUri, nullptr, 1) != 0 || kvs_getkey(kUri, &k, &v) != 0)
            return all;
        do {
            all[std::string(static_cast<const char *>(k.data), k.len)] =
                std::string(static_cast<const char *>(v.data), v.len);
        } while (kvs_getnext(kUri, &k, &v) == 0);
        return all;
    };
    std::mt19937 rng(seed ^ 0x5A5A5A5Au);
    for (int step = 0; step < kSteps; ++step) {
        ASSERT_EQ(1, write(to_writer[1], "g", 1));
        char done;
        ASSERT_EQ(1, read(to_reader[0], &done, 1));
        const auto truth = walk();
        // The hot keys, each twice, and a random handful of the others.
        for (int i = 0; i < 16 + 16 + 64; ++i) {
            const int key = i < 32 ? i % 16 : static_cast<int>(rng() % kKeys);
            const std::string k = "key" + std::to_string(key);
            const auto it = truth.find(k);
            ASSERT_EQ(it == truth.end() ? "<absent>" : it->second, get(k))
                << "step " << step << ", " << k;
        }
    }
    int status = 0;
    ASSERT_EQ(writer, waitpid(writer, &status, 0));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    close(to_writer[1]);
    close(to_reader[0]);
}

}  // namespace
