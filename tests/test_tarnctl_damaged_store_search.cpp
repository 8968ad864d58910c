// Stores damaged at random (a few bytes past the meta pages, seeds fixed
// here) and a store written by apply after it was damaged: every command
// that reads the device either reads it, or says the store is damaged, in
// bounded time; none dies or spins; and a load always rebuilds the device.

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fixture.h"
#include "support/tarnctl_process.h"

namespace {

const char kDevice[] = TARN_SOURCE_DIR "/examples/device.json";
const char kChanges[] = TARN_SOURCE_DIR "/examples/changes.json";

struct Bounded {
    int status = -1;
    int signal = 0;
    bool hung = false;
    std::string out, err;
};

double now_s()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

Bounded run_bounded(const std::string &dir, const std::vector<std::string> &args,
                    double seconds = 90)
{
    Bounded r;
    const std::string out = dir + "/run.out", err = dir + "/run.err";
    const double end = now_s() + seconds;
    const pid_t pid = tarntest::spawn_tarnctl(TARNCTL_PATH, args, {}, out, err);
    int st = 0;
    for (;;) {
        if (waitpid(pid, &st, WNOHANG) == pid)
            break;
        if (now_s() > end) {
            r.hung = true;
            kill(pid, SIGKILL);
            waitpid(pid, &st, 0);
            break;
        }
        usleep(5000);
    }
    if (WIFEXITED(st))
        r.status = WEXITSTATUS(st);
    else if (!r.hung)
        r.signal = WTERMSIG(st);
    r.out = tarntest::slurp(out);
    r.err = tarntest::slurp(err);
    return r;
}

void patch(const std::string &path, off_t at, const std::string &bytes)
{
    const int fd = open(path.c_str(), O_WRONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()), pwrite(fd, bytes.data(), bytes.size(), at));
    close(fd);
}

off_t file_size(const std::string &path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

class TarnctlDamagedStore : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        tarntest::HostTest::SetUp();
        work_ = root_ + "/work";
        ASSERT_EQ(0, mkdir(work_.c_str(), 0700));
        setenv("TARNHOST_ROOT", (root_ + "/dev").c_str(), 1);
        data_ = root_ + "/dev/kvs/env/data.mdb";
        ASSERT_EQ(0, run_bounded(work_, {"load", kDevice}).status);
        for (const auto &args : kReads)
            baseline_.push_back(run_bounded(work_, args).out);
    }
    void TearDown() override
    {
        setenv("TARNHOST_ROOT", root_.c_str(), 1);
        tarntest::HostTest::TearDown();
    }
    // A load brings the device back as it was.
    void expect_rebuilt()
    {
        const Bounded load = run_bounded(work_, {"load", kDevice});
        ASSERT_FALSE(load.hung);
        ASSERT_EQ(0, load.status) << load.err;
        for (size_t i = 0; i < kReads.size(); ++i)
            EXPECT_EQ(baseline_[i], run_bounded(work_, kReads[i]).out) << kReads[i][1];
    }
    const std::vector<std::vector<std::string>> kReads = {
        {"show", "contexts"}, {"show", "interfaces"}, {"show", "topologies"}, {"show", "ftags"}};
    std::string work_, data_;
    std::vector<std::string> baseline_;
};

TEST_F(TarnctlDamagedStore, a_store_apply_wrote_to_after_damage_is_rebuilt_by_load)
{
    ASSERT_GT(file_size(data_), 90112 + 8);
    patch(data_, 90112, std::string(8, '\xa5'));
    const Bounded apply = run_bounded(work_, {"apply", kChanges});
    EXPECT_FALSE(apply.hung);
    EXPECT_EQ(0, apply.signal);
    const Bounded load = run_bounded(work_, {"load", kDevice});
    EXPECT_EQ(0, load.status) << load.err;
    expect_rebuilt();
}

TEST_F(TarnctlDamagedStore, random_damage_is_read_or_told_in_bounded_time_and_load_rebuilds)
{
    std::mt19937 rng(26112026);
    int same = 0, told = 0, differs = 0;
    for (int trial = 0; trial < 40; ++trial) {
        SCOPED_TRACE(trial);
        const off_t size = file_size(data_);
        ASSERT_GT(size, 3 * 4096);
        std::uniform_int_distribution<off_t> at(2 * 4096, size - 1);
        const int n = 1 + static_cast<int>(rng() % 8);
        for (int i = 0; i < n; ++i)
            patch(data_, at(rng), std::string(1, static_cast<char>(rng())));
        for (size_t i = 0; i < kReads.size(); ++i) {
            const Bounded r = run_bounded(work_, kReads[i]);
            ASSERT_FALSE(r.hung) << kReads[i][1];
            ASSERT_EQ(0, r.signal) << kReads[i][1];
            if (r.status == 0 && r.out == baseline_[i]) {
                ++same;
            } else if (r.status == 1 && r.err.find("damaged") != std::string::npos) {
                ++told;
            } else {
                // A damaged byte of a value is another value: LMDB keeps no
                // checksums, so nothing can tell it.
                EXPECT_EQ(0, r.status) << kReads[i][1] << ": " << r.err;
                ++differs;
            }
        }
        expect_rebuilt();
    }
    printf("random damage: %d reads as before, %d told damaged, %d read other values\n", same,
           told, differs);
}

}  // namespace
