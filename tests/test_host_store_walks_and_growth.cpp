// Two ways a store could be driven without bound: damaged branch keys
// that send a walk back to records it has passed (it must end, with the
// damage told, and the whole-store check must see it first), and a writer
// beside a reader that reads without a pause, which the scheduler takes
// off the CPU in the middle of reads (the store must stay small).

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/tarnhost.h"
#include "platform/kvs.h"
#include "support/fixture.h"

namespace {

constexpr char kA[] = "volatile:/walks/a";
constexpr size_t kPage = 4096;
constexpr size_t kWord = sizeof(size_t);

uint32_t put(const char *uri, const std::string &k, const std::string &v)
{
    return tarnhost_kvs_put(uri, k.data(), static_cast<uint32_t>(k.size()), v.data(),
                            static_cast<uint32_t>(v.size()));
}

off_t file_size(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

std::string key_of(int i)
{
    char buf[32];
    snprintf(buf, sizeof buf, "key-%06d", i);
    return buf;
}

class host_store_walks : public tarntest::HostTest {
protected:
    void TearDown() override
    {
        kvs_close(kA);
        unsetenv("TARNHOST_KVS_MAPSIZE");
        tarntest::HostTest::TearDown();
    }
    std::string data_file() const { return root_ + "/kvs/env/data.mdb"; }
};

// Raises the first byte of the second key of every branch page whose
// subtree holds our keys: that separator then sorts after records of the
// child it leads to, so a search for one of them is sent to the child
// before and lands on the first record of its own child, behind it.  The
// leaves stay in order.  Returns the number of pages damaged.
int raise_branch_keys(const std::string &path)
{
    std::fstream f(path, std::ios::in | std::ios::out | std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    int damaged = 0;
    for (size_t page = 2; (page + 1) * kPage <= bytes.size(); ++page) {
        const size_t at = page * kPage;
        uint16_t flags, lower;
        memcpy(&flags, &bytes[at + kWord + 2], 2);
        memcpy(&lower, &bytes[at + kWord + 4], 2);
        if (flags != 0x01)  // a branch page, nothing else
            continue;
        const size_t nodes = (lower - (kWord + 8)) / 2;
        if (nodes < 3)
            continue;
        uint16_t node;
        memcpy(&node, &bytes[at + kWord + 8 + 2], 2);  // the second node
        const size_t key = at + node + 8;
        if (key + 4 > at + kPage || bytes.compare(key, 4, "key-") != 0)
            continue;
        f.seekp(static_cast<std::streamoff>(key));
        f.write("\x7f", 1);
        ++damaged;
    }
    return damaged;
}

TEST_F(host_store_walks, a_walk_over_damaged_branch_keys_ends_with_the_damage_told)
{
    for (int i = 0; i < 3000; ++i)
        ASSERT_EQ(0u, put(kA, key_of(i), std::string(40, 'v')));
    ASSERT_EQ(0u, tarnhost_kvs_check(kA));
    ASSERT_GT(raise_branch_keys(data_file()), 0);

    // The whole-store check sees it before anybody reads.
    EXPECT_EQ(KVS_ERR_DAMAGED, tarnhost_kvs_check(kA));

    // A walk that did not ask first ends: no key twice, and the step that
    // would go back says the store is damaged.
    const int st = tarntest::run_child([] {
        alarm(60);  // a walk that goes round for ever dies of this
        if (kvs_open(kA, 1, 0, 0, 0) != 0)
            return 1;
        kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
        if (kvs_iterator_init(kA, nullptr, 1) != 0)
            return 2;
        uint32_t s = kvs_getnext(kA, &k, &v);
        std::string last;
        long steps = 0;
        while (s == 0) {
            const std::string now(static_cast<const char *>(k.data), k.len);
            if (!last.empty() && now <= last)
                return 3;  // a key again, or backwards
            last = now;
            ++steps;
            s = kvs_getnext(kA, &k, &v);
        }
        printf("walk: %ld records, then status 0x%08x\n", steps, s);
        return s == KVS_ERR_DAMAGED ? 0 : 4;
    });
    EXPECT_EQ(0, st);
}

// A reader that never pauses, taken off the CPU from time to time for a
// moment (here by SIGSTOP and SIGCONT, as a scheduler does on a busy
// machine): when that lands in the middle of a read, its snapshot stays
// pinned for as long as it is off the CPU, and every page the writer frees
// meanwhile stays in use.  The writer waits for such a reader, so the
// store stays within a bound of its working set.
TEST_F(host_store_walks, a_reader_taken_off_the_cpu_mid_read_does_not_make_the_store_grow)
{
    setenv("TARNHOST_KVS_MAPSIZE", "268435456", 1);
    ASSERT_EQ(0u, put(kA, "k", std::string(64, 'a')));
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(0u, put(kA, key_of(i), std::string(100, 'o')));
    fflush(nullptr);
    const pid_t reader = fork();
    if (reader == 0) {
        if (kvs_open(kA, 1, 0, 0, 0) != 0)
            _exit(1);
        for (;;) {
            kvs_datum_t key{"k", 1}, value{nullptr, 0};
            kvs_read(kA, &key, &value);
        }
    }
    ASSERT_GT(reader, 0);
    usleep(100000);
    std::atomic<bool> done{false};
    std::thread scheduler([&] {
        for (int i = 0; i < 40; ++i) {
            usleep(20000);
            kill(reader, SIGSTOP);
            usleep(150000);
            kill(reader, SIGCONT);
        }
        done = true;
    });
    const off_t before = file_size(data_file());
    int failed_at = -1, writes = 0;
    std::string value(64, 'a');
    while (!done && failed_at < 0) {
        value.assign(value.size(), static_cast<char>('a' + writes % 26));
        if (put(kA, "k", value) != 0)
            failed_at = writes;
        ++writes;
    }
    scheduler.join();
    const off_t after = file_size(data_file());
    kill(reader, SIGKILL);
    waitpid(reader, nullptr, 0);
    EXPECT_EQ(-1, failed_at);
    printf("store beside a reader taken off the CPU: %ld bytes before %d writes, %ld after\n",
           static_cast<long>(before), writes, static_cast<long>(after));
    // 32 commits' worth of pages beside the working set, with room; a
    // writer that does not wait grows it by about 20 MB here.
    EXPECT_LT(after, before + 2048 * 1024) << "grew from " << before << " to " << after;
}

}  // namespace
