// The device's store as a whole: one transaction over several databases,
// readers that never keep the writer from reusing space, and damaged files
// that are refused and rebuilt rather than read.

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <pthread.h>

#include <fstream>
#include <functional>
#include <random>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "host/tarnhost.h"
#include "platform/kvs.h"
#include "platform/syslog.h"
#include "support/fixture.h"

namespace {

constexpr char kA[] = "volatile:/store/a";
constexpr char kB[] = "volatile:/store/b";

uint32_t write(const char *uri, const std::string &k, const std::string &v)
{
    return tarnhost_kvs_put(uri, k.data(), static_cast<uint32_t>(k.size()), v.data(),
                            static_cast<uint32_t>(v.size()));
}

// The value of `k`, or "<status 0x...>".
std::string fetch(const char *uri, const std::string &k)
{
    kvs_datum_t key{k.data(), static_cast<uint32_t>(k.size())}, value{nullptr, 0};
    const uint32_t st = kvs_read(uri, &key, &value);
    if (st != 0) {
        char buf[32];
        snprintf(buf, sizeof buf, "<status 0x%08x>", st);
        return buf;
    }
    return std::string(static_cast<const char *>(value.data), value.len);
}

off_t file_size(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// Starts a process that runs `fn` (its exit status when not 0) and then
// waits until it is killed; returns once `fn` is done, with the pid, or -1.
pid_t start_waiting(const std::function<int()> &fn)
{
    int ready[2];
    if (pipe(ready) != 0)
        return -1;
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const int rc = fn();
        if (rc != 0)
            _exit(rc);
        char c = 1;
        if (::write(ready[1], &c, 1) != 1)
            _exit(100);
        for (;;)
            pause();
    }
    char c = 0;
    const bool ok = pid > 0 && read(ready[0], &c, 1) == 1;
    close(ready[0]);
    close(ready[1]);
    if (!ok && pid > 0) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    return ok ? pid : -1;
}

class host_store : public tarntest::HostTest {
protected:
    void TearDown() override
    {
        kvs_close(kA);
        kvs_close(kB);
        unsetenv("TARNHOST_KVS_MAPSIZE");
        tarntest::HostTest::TearDown();
    }
    std::string data_file() const { return root_ + "/kvs/env/data.mdb"; }
    std::string lock_file() const { return root_ + "/kvs/env/lock.mdb"; }
};

// ---- one transaction, several databases -----------------------------------------

TEST_F(host_store, one_transaction_changes_several_databases_at_once)
{
    ASSERT_EQ(0u, kvs_open(kA, 1, 0, 0, 0));
    ASSERT_EQ(0u, kvs_open(kB, 1, 0, 0, 0));
    uint32_t st = 1;
    tarnhost_kvs_txn_t *t = tarnhost_kvs_txn_begin(kA, &st);
    ASSERT_NE(nullptr, t);
    ASSERT_EQ(0u, tarnhost_kvs_txn_put(t, "k", 1, "a", 1));
    ASSERT_EQ(0u, tarnhost_kvs_txn_select(t, kB));
    ASSERT_EQ(0u, tarnhost_kvs_txn_put(t, "k", 1, "b", 1));
    // Not yet visible, in another thread or another process.
    std::string seen_a, seen_b;
    std::thread th([&] {
        seen_a = fetch(kA, "k");
        seen_b = fetch(kB, "k");
    });
    th.join();
    EXPECT_EQ("<status 0x40480003>", seen_a);
    EXPECT_EQ("<status 0x40480003>", seen_b);
    ASSERT_EQ(0u, tarnhost_kvs_txn_commit(t));
    EXPECT_EQ("a", fetch(kA, "k"));
    EXPECT_EQ("b", fetch(kB, "k"));
    EXPECT_EQ(0, tarntest::run_child([] {
        if (kvs_open(kA, 1, 0, 0, 0) != 0 || kvs_open(kB, 1, 0, 0, 0) != 0)
            return 1;
        return fetch(kA, "k") == "a" && fetch(kB, "k") == "b" ? 0 : 2;
    }));

    // An aborted one changes neither.
    t = tarnhost_kvs_txn_begin(kB, &st);
    ASSERT_NE(nullptr, t);
    ASSERT_EQ(0u, tarnhost_kvs_txn_clear(t));
    ASSERT_EQ(0u, tarnhost_kvs_txn_select(t, kA));
    ASSERT_EQ(0u, tarnhost_kvs_txn_clear(t));
    tarnhost_kvs_txn_abort(t);
    EXPECT_EQ("a", fetch(kA, "k"));
    EXPECT_EQ("b", fetch(kB, "k"));
}

TEST_F(host_store, a_transaction_stays_in_its_device)
{
    uint32_t st = 1;
    tarnhost_kvs_txn_t *t = tarnhost_kvs_txn_begin(kA, &st);
    ASSERT_NE(nullptr, t);
    EXPECT_EQ(KVS_ERR_BAD_URI, tarnhost_kvs_txn_select(t, "no scheme"));
    EXPECT_EQ(KVS_ERR_INVALID, tarnhost_kvs_txn_select(t, nullptr));
    EXPECT_EQ(KVS_ERR_INVALID, tarnhost_kvs_txn_select(nullptr, kA));
    const std::string other = tarntest::fresh_root();
    EXPECT_EQ(KVS_ERR_INVALID, tarnhost_kvs_txn_select(t, kB));
    setenv("TARNHOST_ROOT", root_.c_str(), 1);
    tarntest::remove_root(other);
    // Still usable on its own device.
    EXPECT_EQ(0u, tarnhost_kvs_txn_put(t, "k", 1, "a", 1));
    EXPECT_EQ(0u, tarnhost_kvs_txn_commit(t));
    ASSERT_EQ(0u, kvs_open(kA, 1, 0, 0, 0));
    EXPECT_EQ("a", fetch(kA, "k"));
}

TEST_F(host_store, a_database_made_after_a_reader_attached_is_found)
{
    ASSERT_EQ(0u, kvs_open(kA, 1, 0, 0, 0));
    EXPECT_EQ("<status 0x40480003>", fetch(kA, "k"));
    EXPECT_EQ(0u, kvs_iterator_init(kA, nullptr, 1));
    kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
    EXPECT_EQ(KVS_ERR_NO_POSITION, kvs_getkey(kA, &k, &v));
    EXPECT_EQ(KVS_ERR_END, kvs_getnext(kA, &k, &v));
    // Another process makes the database.
    ASSERT_EQ(0, tarntest::run_child([] { return write(kA, "k", "v") == 0 ? 0 : 1; }));
    EXPECT_EQ("v", fetch(kA, "k"));
    EXPECT_EQ(0u, kvs_iterator_init(kA, nullptr, 1));
    ASSERT_EQ(0u, kvs_getkey(kA, &k, &v));
    EXPECT_EQ("k", std::string(static_cast<const char *>(k.data), k.len));
}

// ---- readers that wait ---------------------------------------------------------------

// What a reader process does before it waits.
enum class Idle { AfterRead, AfterWalk, Stopped };

// A reader process reads once (or walks a database to its end) and then
// waits, or is stopped, while this process rewrites a record `writes`
// times in transactions of their own.  The store must stay at the size of
// the writer's working set: it grows without bound (and writes fail once
// the map is full) when the waiting reader keeps its snapshot.
void writer_beside_a_waiting_reader(const std::string &data_file, Idle idle)
{
    // A small map: a pinned snapshot fills it long before the end.
    setenv("TARNHOST_KVS_MAPSIZE", "16777216", 1);
    constexpr int kWrites = 20000;
    std::string value(64, 'a');
    ASSERT_EQ(0u, write(kA, "k", value));
    ASSERT_EQ(0u, write(kA, "other", "o"));
    const pid_t reader = start_waiting([idle, &value] {
        if (kvs_open(kA, 1, 0, 0, 0) != 0)
            return 1;
        if (idle == Idle::AfterWalk) {
            kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
            if (kvs_iterator_init(kA, nullptr, 1) != 0)
                return 2;
            uint32_t st = kvs_getkey(kA, &k, &v);
            while (st == 0)
                st = kvs_getnext(kA, &k, &v);
            return st == KVS_ERR_END ? 0 : 3;
        }
        return fetch(kA, "k") == value ? 0 : 4;
    });
    ASSERT_GT(reader, 0);
    if (idle == Idle::Stopped) {
        ASSERT_EQ(0, kill(reader, SIGSTOP));
        int status = 0;
        ASSERT_EQ(reader, waitpid(reader, &status, WUNTRACED));
        ASSERT_TRUE(WIFSTOPPED(status));
    }
    const off_t before = file_size(data_file);
    int failed_at = -1;
    for (int i = 0; i < kWrites && failed_at < 0; ++i) {
        value.assign(value.size(), static_cast<char>('a' + i % 26));
        if (write(kA, "k", value) != 0)
            failed_at = i;
    }
    const off_t after = file_size(data_file);
    kill(reader, SIGKILL);
    waitpid(reader, nullptr, 0);
    EXPECT_EQ(-1, failed_at);
    // The writer's own working set is a handful of pages.
    EXPECT_LT(after, before + 256 * 1024) << "grew from " << before << " to " << after;
    ::testing::Test::RecordProperty("store_bytes_before", static_cast<int>(before));
    ::testing::Test::RecordProperty("store_bytes_after", static_cast<int>(after));
    printf("store: %ld bytes before %d writes, %ld after\n", static_cast<long>(before),
           kWrites, static_cast<long>(after));
}

TEST_F(host_store, a_reader_waiting_after_one_read_does_not_make_the_store_grow)
{
    writer_beside_a_waiting_reader(data_file(), Idle::AfterRead);
}

TEST_F(host_store, a_stopped_reader_does_not_make_the_store_grow)
{
    writer_beside_a_waiting_reader(data_file(), Idle::Stopped);
}

TEST_F(host_store, a_reader_waiting_after_a_whole_walk_does_not_make_the_store_grow)
{
    writer_beside_a_waiting_reader(data_file(), Idle::AfterWalk);
}

// A walk left open keeps its snapshot, as documented: the record it
// stands on and the ones after it are those of its start.
TEST_F(host_store, a_walk_step_reads_the_store_as_it_is_and_the_end_keeps_the_last_record)
{
    ASSERT_EQ(0u, write(kA, "a", "1"));
    ASSERT_EQ(0u, write(kA, "b", "2"));
    ASSERT_EQ(0u, kvs_open(kA, 1, 0, 0, 0));
    ASSERT_EQ(0u, kvs_iterator_init(kA, nullptr, 1));
    ASSERT_EQ(0u, write(kA, "b", "changed"));
    kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
    ASSERT_EQ(0u, kvs_getnext(kA, &k, &v));
    EXPECT_EQ("changed", std::string(static_cast<const char *>(v.data), v.len));
    EXPECT_EQ(KVS_ERR_END, kvs_getnext(kA, &k, &v));
    // The position stays on the last record, as that step read it.
    ASSERT_EQ(0u, write(kA, "c", "3"));
    ASSERT_EQ(0u, write(kA, "b", "again"));
    ASSERT_EQ(0u, kvs_getkey(kA, &k, &v));
    EXPECT_EQ("b", std::string(static_cast<const char *>(k.data), k.len));
    EXPECT_EQ("changed", std::string(static_cast<const char *>(v.data), v.len));
    EXPECT_EQ(KVS_ERR_END, kvs_getnext(kA, &k, &v));
    // A new walk sees the new state.
    ASSERT_EQ(0u, kvs_iterator_init(kA, nullptr, 1));
    ASSERT_EQ(0u, kvs_getnext(kA, &k, &v));
    EXPECT_EQ("again", std::string(static_cast<const char *>(v.data), v.len));
}

// ---- damaged files --------------------------------------------------------------------

// What a fresh reader process found.
enum Fresh { kReadBack = 0, kRefusedAtOpen = 1, kRefusedAtRead = 2, kNothing = 3, kOther = 4 };

const char *fresh_name(int r)
{
    switch (r) {
    case kReadBack: return "read back";
    case kRefusedAtOpen: return "refused at open";
    case kRefusedAtRead: return "refused at read";
    case kNothing: return "found nothing";
    case kOther: return "other failure";
    default: return "died";
    }
}

int fresh_reader(const std::string &expect)
{
    return tarntest::run_child([&expect] {
        const uint32_t st = kvs_open(kA, 1, 0, 0, 0);
        if (st == KVS_ERR_DAMAGED)
            return kRefusedAtOpen;
        if (st != 0)
            return kOther;
        const std::string got = fetch(kA, "k");
        if (got == expect)
            return kReadBack;
        if (got == "<status 0x4048000b>")
            return kRefusedAtRead;
        if (got == "<status 0x40480003>")
            return kNothing;
        return kOther;
    });
}

void patch(const std::string &path, off_t at, const std::string &bytes)
{
    const int fd = open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), pwrite(fd, bytes.data(), bytes.size(), at));
    close(fd);
}

class host_store_damage : public host_store {
protected:
    void SetUp() override
    {
        host_store::SetUp();
        // Written by another process: this one keeps nothing of the store
        // open, so what it damages is seen only by the processes after.
        ASSERT_EQ(0, tarntest::run_child([] {
            for (int i = 0; i < 200; ++i)
                if (write(kB, "key" + std::to_string(i), std::string(100, 'x')) != 0)
                    return 1;
            return write(kA, "k", "old") == 0 ? 0 : 2;
        }));
        ASSERT_EQ(kReadBack, fresh_reader("old"));
    }

    // A new store holding k = "new", built by a process of its own, after
    // which fresh readers find it.
    static void build_anew()
    {
        ASSERT_EQ(0, tarntest::run_child([] {
            uint32_t s = 0;
            tarnhost_kvs_txn_t *t = tarnhost_kvs_txn_begin_anew(kA, &s);
            if (t == nullptr || tarnhost_kvs_txn_put(t, "k", 1, "new", 3) != 0)
                return 1;
            return tarnhost_kvs_txn_commit(t) == 0 ? 0 : 2;
        }));
        EXPECT_EQ(kReadBack, fresh_reader("new"));
    }

    // The way back from damage the check sees.
    void rebuild()
    {
        EXPECT_EQ(KVS_ERR_DAMAGED, tarnhost_kvs_check(kA));
        build_anew();
        EXPECT_EQ(0u, tarnhost_kvs_check(kA));
    }

    // A process that keeps the store open, as running clients do.
    pid_t holder()
    {
        return start_waiting([] {
            return kvs_open(kA, 1, 0, 0, 0) == 0 && fetch(kA, "k") == "old" ? 0 : 1;
        });
    }
};

// A record whose size field was damaged to point past the end of the file:
// LMDB finds the record, and whoever copies its value faults.  The check
// reads every byte of every record, in its child, and tells the damage.
TEST_F(host_store, a_record_whose_length_points_past_the_file_is_damage)
{
    const std::string key = "needle-key-0123456789";
    ASSERT_EQ(0u, write(kA, key, std::string(100, 'v')));
    ASSERT_EQ(0u, tarnhost_kvs_check(kA));
    std::fstream f(data_file(), std::ios::in | std::ios::out | std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    const size_t at = bytes.find(key);
    ASSERT_NE(std::string::npos, at);
    ASSERT_GE(at, 8u);
    // The node header before the key: size low and high halves, flags, key
    // size.  A high half of 0x7fff makes the value about 2 GiB long.
    f.seekp(static_cast<std::streamoff>(at - 6));
    f.write("\xff\x7f", 2);
    f.close();
    EXPECT_EQ(KVS_ERR_DAMAGED, tarnhost_kvs_check(kA));
}

TEST_F(host_store_damage, a_data_file_cut_short_is_refused_and_rebuilt)
{
    const off_t size = file_size(data_file());
    ASSERT_GT(size, 4 * 4096);
    for (off_t cut : {size / 2, off_t{3 * 4096}, off_t{4096}, off_t{100}}) {
        SCOPED_TRACE(cut);
        ASSERT_EQ(0, truncate(data_file().c_str(), cut));
        EXPECT_STREQ(fresh_name(kRefusedAtOpen), fresh_name(fresh_reader("old")));
        rebuild();
        // Damage again for the next cut.
        ASSERT_EQ(0, tarntest::run_child([] {
            for (int i = 0; i < 200; ++i)
                if (write(kB, "key" + std::to_string(i), std::string(100, 'y')) != 0)
                    return 1;
            return 0;
        }));
    }
}

TEST_F(host_store_damage, an_empty_data_file_reads_as_an_empty_store)
{
    // LMDB cannot tell an emptied file from a new one: nothing is found,
    // nothing crashes.
    ASSERT_EQ(0, truncate(data_file().c_str(), 0));
    EXPECT_STREQ(fresh_name(kNothing), fresh_name(fresh_reader("old")));
}

TEST_F(host_store_damage, damaged_meta_pages_are_refused_and_rebuilt)
{
    // The magic of both meta pages (after the page header).
    const off_t magic = static_cast<off_t>(sizeof(size_t) + 8);
    patch(data_file(), magic, "\x01\x02\x03\x04");
    patch(data_file(), 4096 + magic, "\x01\x02\x03\x04");
    EXPECT_STREQ(fresh_name(kRefusedAtOpen), fresh_name(fresh_reader("old")));
    rebuild();
}

TEST_F(host_store_damage, overwritten_tree_pages_are_refused_and_rebuilt)
{
    const off_t size = file_size(data_file());
    patch(data_file(), 2 * 4096, std::string(static_cast<size_t>(size - 2 * 4096), '\xff'));
    EXPECT_STREQ(fresh_name(kRefusedAtOpen), fresh_name(fresh_reader("old")));
    rebuild();
}

TEST_F(host_store_damage, a_damaged_lock_file_with_nobody_attached_is_rebuilt_by_lmdb)
{
    patch(lock_file(), 0, "\x01\x02\x03\x04");
    EXPECT_STREQ(fresh_name(kReadBack), fresh_name(fresh_reader("old")));
}

TEST_F(host_store_damage, a_damaged_lock_file_in_use_is_refused_and_rebuilt)
{
    const pid_t h = holder();
    ASSERT_GT(h, 0);
    patch(lock_file(), 0, "\x01\x02\x03\x04");
    EXPECT_STREQ(fresh_name(kRefusedAtOpen), fresh_name(fresh_reader("old")));
    rebuild();
    kill(h, SIGKILL);
    waitpid(h, nullptr, 0);
}

TEST_F(host_store_damage, a_reader_count_past_the_table_is_refused_and_rebuilt)
{
    const pid_t h = holder();
    ASSERT_GT(h, 0);
    const off_t count = static_cast<off_t>(8 + sizeof(pthread_mutex_t) + sizeof(size_t));
    patch(lock_file(), count, std::string("\xff\xff\xff\x7f", 4));
    EXPECT_STREQ(fresh_name(kRefusedAtOpen), fresh_name(fresh_reader("old")));
    rebuild();
    kill(h, SIGKILL);
    waitpid(h, nullptr, 0);
}

// Bytes flipped anywhere past the meta pages: LMDB may or may not notice
// (a flipped byte of a value is just another value), so what a fresh
// reader makes of it is only reported; the check, which reads everything
// in a child, either passes or finds the damage, and a new store always
// brings the device back.
TEST_F(host_store_damage, flipped_bytes_anywhere_are_checked_and_rebuilt)
{
    std::mt19937 rng(20261123);
    int refused = 0, died = 0, read_back = 0;
    for (int trial = 0; trial < 12; ++trial) {
        const off_t size = file_size(data_file());
        std::uniform_int_distribution<off_t> at(2 * 4096, size - 1);
        for (int i = 0; i < 8; ++i)
            patch(data_file(), at(rng), std::string(1, static_cast<char>(rng() | 1)));
        const int r = fresh_reader("old");
        refused += r == kRefusedAtOpen || r == kRefusedAtRead;
        died += r < 0;
        read_back += r == kReadBack;
        const uint32_t st = tarnhost_kvs_check(kA);
        EXPECT_TRUE(st == 0 || st == KVS_ERR_DAMAGED) << st;
        ASSERT_EQ(0, tarntest::run_child([] {
            uint32_t s = 0;
            tarnhost_kvs_txn_t *t = tarnhost_kvs_txn_begin_anew(kA, &s);
            if (t == nullptr || tarnhost_kvs_txn_put(t, "k", 1, "old", 3) != 0)
                return 1;
            if (tarnhost_kvs_txn_select(t, kB) != 0)
                return 2;
            for (int i = 0; i < 200; ++i) {
                const std::string k = "key" + std::to_string(i), v(100, 'z');
                if (tarnhost_kvs_txn_put(t, k.data(), static_cast<uint32_t>(k.size()),
                                         v.data(), 100) != 0)
                    return 3;
            }
            return tarnhost_kvs_txn_commit(t) == 0 ? 0 : 4;
        }));
        ASSERT_EQ(kReadBack, fresh_reader("old"));
        ASSERT_EQ(0u, tarnhost_kvs_check(kA));
    }
    printf("flipped bytes: %d refused, %d killed the reader, %d read back\n", refused, died,
           read_back);
}

TEST_F(host_store_damage, a_store_directory_that_is_a_file_is_rebuilt)
{
    const std::string dir = root_ + "/kvs/env";
    ASSERT_EQ(0, system(("rm -rf '" + dir + "' && echo x > '" + dir + "'").c_str()));
    EXPECT_STREQ(fresh_name(kRefusedAtOpen), fresh_name(fresh_reader("old")));
    build_anew();
}

TEST_F(host_store_damage, statuses_have_texts)
{
    EXPECT_STREQ("database full", syserr2str(KVS_ERR_FULL));
    EXPECT_STREQ("database damaged", syserr2str(KVS_ERR_DAMAGED));
    EXPECT_STREQ("database access denied", syserr2str(KVS_ERR_DENIED));
}

}  // namespace
