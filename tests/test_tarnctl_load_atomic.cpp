// tarnctl load is one transaction: killed at any instant, it leaves the
// whole old device or the whole new one, every database readable.

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "host/tarnhost.h"
#include "host/tarnhost_ifmgr.h"
#include "platform/kvs.h"
#include "support/fixture.h"
#include "support/tarnctl_process.h"
#include "tools/device_records.h"

namespace {

double now()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

// A description whose every database differs from the other one's: its
// contexts, interfaces and topologies are named and counted by `tag`.
std::string description(char tag, int contexts, int interfaces, int topologies)
{
    std::ostringstream o;
    o << "{\"cells\": [1" << (tag == 'b' ? ", 2" : "") << "], \"contexts\": [";
    const int base = tag == 'a' ? 1 : 100000;
    for (int i = 0; i < contexts; ++i)
        o << (i ? "," : "") << "{\"id\": " << base + i << ", \"name\": \"" << tag << i
          << "\", \"tables\": [{\"id\": " << base + i << ", \"af\": 1, \"name\": \"t\"}]}";
    o << "], \"interfaces\": [";
    for (int i = 0; i < interfaces; ++i)
        o << (i ? "," : "") << "{\"ifindex\": " << base + i << ", \"iod\": " << base + i
          << ", \"name\": \"e" << tag << i << "\", \"context\": \"" << tag << 0 << "\"}";
    o << "], \"topologies\": [";
    for (int i = 0; i < topologies; ++i)
        o << (i ? "," : "") << "{\"id\": " << base + i << ", \"active_vlans\": \"" << i + 1
          << "\", \"ftags\": [{\"ftag\": " << i << ", \"graph\": 1}]}";
    o << "]}";
    return o.str();
}

// What a reader finds in every database of the device: its record count
// and a sum over its bytes.  Empty when a database cannot be read.
std::string signature()
{
    const std::string uris[] = {TARNHOST_IFMGR_URI, "volatile:/dev/shm/cell_mgr_kvs",
                                tarndev::device_db_uri("tarn_global_kvs"),
                                tarndev::device_db_uri("gyre_kvs_info")};
    std::ostringstream o;
    for (const std::string &uri : uris) {
        const uint32_t open = kvs_open(uri.c_str(), 1, 0, 0, 0);
        if (open != 0 && open != KVS_ERR_ALREADY_OPEN)
            return "";
        if (kvs_iterator_init(uri.c_str(), nullptr, 1) != 0)
            return "";
        kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
        size_t n = 0;
        uint64_t sum = 0;
        uint32_t st = kvs_getkey(uri.c_str(), &k, &v);
        while (st == 0) {
            ++n;
            for (uint32_t i = 0; i < v.len; ++i)
                sum = sum * 31 + static_cast<const uint8_t *>(v.data)[i];
            st = kvs_getnext(uri.c_str(), &k, &v);
        }
        if (st != KVS_ERR_END && st != KVS_ERR_NO_POSITION)
            return "";
        o << n << ":" << sum << " ";
    }
    return o.str();
}

class tarnctl_load_atomic : public tarntest::HostTest {
protected:
    // Runs tarnctl load on `file`; kills it `delay` seconds in (negative:
    // never).  True when the signal ended it.
    bool load(const std::string &file, double delay, int sig)
    {
        const pid_t pid = tarntest::spawn_tarnctl(TARNCTL_PATH, {"load", file},
                                                  {"TARNHOST_ROOT=" + root_},
                                                  root_ + "/out", root_ + "/err");
        if (pid < 0)
            return false;
        if (delay >= 0) {
            usleep(static_cast<useconds_t>(delay * 1e6));
            kill(pid, sig);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (delay < 0) {
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << file;
        }
        return WIFSIGNALED(status);
    }
};

TEST_F(tarnctl_load_atomic, killed_at_any_instant_it_leaves_the_old_or_the_new_device)
{
    const std::string files[2] = {root_ + "/a.json", root_ + "/b.json"};
    std::ofstream(files[0]) << description('a', 2000, 300, 200);
    std::ofstream(files[1]) << description('b', 1500, 400, 150);

    // The two devices as readers see them, and how long a whole load takes.
    std::string sigs[2];
    double longest = 0;
    for (int i : {1, 0}) {
        const double start = now();
        load(files[i], -1, 0);
        longest = std::max(longest, now() - start);
        sigs[i] = signature();
        ASSERT_FALSE(sigs[i].empty());
    }
    ASSERT_NE(sigs[0], sigs[1]);

    std::mt19937 rng(4242);
    std::uniform_real_distribution<double> instant(0, longest * 1.2);
    int current = 0, trials = 0, killed = 0, kept_old = 0, took_new = 0;
    const double end = now() + 60;
    while (trials < 300 && now() < end) {
        const int target = 1 - current;
        const bool died = load(files[target], instant(rng), trials % 4 == 0 ? SIGTERM : SIGKILL);
        const std::string sig = signature();
        ASSERT_TRUE(sig == sigs[0] || sig == sigs[1])
            << "trial " << trials << ": a device no description describes: " << sig;
        killed += died;
        if (died && sig == sigs[current])
            ++kept_old;
        if (died && sig == sigs[target])
            ++took_new;
        current = sig == sigs[0] ? 0 : 1;
        ++trials;
    }
    printf("%d trials, %d loads killed: %d left the old device, %d the new one\n", trials,
           killed, kept_old, took_new);
    EXPECT_GE(trials, 100);
    // The kills landed on both sides of the commit.
    EXPECT_GT(kept_old, 0);
    EXPECT_GT(took_new + (trials - killed), 0);
    // And a load after all that still works.
    load(files[1 - current], -1, 0);
    EXPECT_EQ(sigs[1 - current], signature());
}

TEST_F(tarnctl_load_atomic, a_description_that_does_not_fit_leaves_the_device_whole)
{
    const std::string small = root_ + "/small.json", big = root_ + "/big.json";
    std::ofstream(small) << description('a', 10, 5, 5);
    std::ofstream(big) << description('b', 20000, 10, 10);
    // A store too small for the big one, made by the first load.
    setenv("TARNHOST_KVS_MAPSIZE", "1048576", 1);
    const pid_t first = tarntest::spawn_tarnctl(
        TARNCTL_PATH, {"load", small}, {"TARNHOST_ROOT=" + root_, "TARNHOST_KVS_MAPSIZE=1048576"},
        root_ + "/out", root_ + "/err");
    int status = 0;
    waitpid(first, &status, 0);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    const std::string before = signature();
    ASSERT_FALSE(before.empty());

    const pid_t second = tarntest::spawn_tarnctl(
        TARNCTL_PATH, {"load", big}, {"TARNHOST_ROOT=" + root_, "TARNHOST_KVS_MAPSIZE=1048576"},
        root_ + "/out", root_ + "/err");
    waitpid(second, &status, 0);
    unsetenv("TARNHOST_KVS_MAPSIZE");
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
    std::ifstream in(root_ + "/err");
    std::string line;
    std::getline(in, line);
    EXPECT_EQ("tarnctl load: " + big +
                  ": cannot write volatile:/tarnhost/running/tarn_global_kvs: the store is "
                  "full (0x4048000a); the device is unchanged, make room: set "
                  "TARNHOST_KVS_MAPSIZE to a larger size in bytes, or free space in the file "
                  "system of " +
                  root_ + ", then run \"tarnctl load " + big + "\" again",
              line);
    EXPECT_EQ(before, signature());
}

}  // namespace
