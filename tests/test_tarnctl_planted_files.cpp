// Files below a device's root that are not what the host made: a FIFO in
// place of a file the tools open would hold the open until someone opens
// its other end.  Every tool refuses it at once, in the host's words, and
// a lock another process keeps is waited for a bounded time, naming that
// process.

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fixture.h"
#include "support/tarnctl_process.h"

namespace {

const char kDevice[] = TARN_SOURCE_DIR "/examples/device.json";

// A tarnctl run that is given `seconds` to end; `hung` when it had to be
// killed.
struct Bounded {
    int status = -1;  // exit status, -1 when it ended by a signal
    int signal = 0;
    bool hung = false;
    double seconds = 0;
    std::string out, err;
};

Bounded run_bounded(const std::string &dir, const std::vector<std::string> &args,
                    int seconds = 20)
{
    Bounded r;
    const std::string out = dir + "/bounded.out", err = dir + "/bounded.err";
    timespec t0, t1;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    const pid_t pid = tarntest::spawn_tarnctl(TARNCTL_PATH, args, {}, out, err);
    int st = 0;
    for (;;) {
        const pid_t got = waitpid(pid, &st, WNOHANG);
        if (got == pid)
            break;
        clock_gettime(CLOCK_MONOTONIC, &t1);
        if (t1.tv_sec - t0.tv_sec > seconds) {
            r.hung = true;
            kill(pid, SIGKILL);
            waitpid(pid, &st, 0);
            break;
        }
        usleep(10000);
    }
    clock_gettime(CLOCK_MONOTONIC, &t1);
    r.seconds = (t1.tv_sec - t0.tv_sec) + (t1.tv_nsec - t0.tv_nsec) / 1e9;
    if (WIFEXITED(st))
        r.status = WEXITSTATUS(st);
    else if (WIFSIGNALED(st))
        r.signal = WTERMSIG(st);
    r.out = tarntest::slurp(out);
    r.err = tarntest::slurp(err);
    return r;
}

class TarnctlPlantedFiles : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        tarntest::HostTest::SetUp();
        work_ = root_ + "/work";
        ASSERT_EQ(0, mkdir(work_.c_str(), 0700));
        setenv("TARNHOST_ROOT", (root_ + "/dev").c_str(), 1);
        dev_ = root_ + "/dev";
        const Bounded load = run_bounded(work_, {"load", kDevice});
        ASSERT_EQ(0, load.status) << load.err;
        change_ = work_ + "/change.json";
        std::ofstream(change_) << R"({"changes": [{"change": "as_format", "format": 1}]})";
    }
    void TearDown() override
    {
        setenv("TARNHOST_ROOT", root_.c_str(), 1);
        tarntest::HostTest::TearDown();
    }
    // Puts a FIFO where `rel` (below the device's root) was.
    void plant_fifo(const std::string &rel)
    {
        const std::string p = dev_ + "/" + rel;
        unlink(p.c_str());
        ASSERT_EQ(0, mkfifo(p.c_str(), 0600)) << p;
    }
    std::string work_, dev_, change_;
};

std::string refusal(const std::string &path)
{
    return path + " is not a plain file of your own (a link, a device or a second name of "
                  "another file); remove it";
}

TEST_F(TarnctlPlantedFiles, a_fifo_as_the_running_configuration_is_refused_not_waited_on)
{
    plant_fifo("supervisor/running-config");
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"show", "contexts"}, {"apply", change_}, {"watch", "--count", "1"}}) {
        SCOPED_TRACE(args[0]);
        const Bounded r = run_bounded(work_, args);
        EXPECT_FALSE(r.hung);
        EXPECT_EQ(1, r.status) << r.err;
        EXPECT_NE(std::string::npos, r.err.find(refusal(dev_ + "/supervisor/running-config")))
            << r.err;
    }
    // A load writes the running configuration anew, beside and renamed.
    const Bounded load = run_bounded(work_, {"load", kDevice});
    EXPECT_EQ(0, load.status) << load.err;
    EXPECT_EQ(0, run_bounded(work_, {"show", "contexts"}).status);
}

TEST_F(TarnctlPlantedFiles, a_fifo_as_the_gate_of_the_store_is_refused_not_waited_on)
{
    plant_fifo("kvs/env.gate");
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"show", "contexts"}, {"show", "topologies"}, {"apply", change_},
          {"load", kDevice}}) {
        SCOPED_TRACE(args[0]);
        const Bounded r = run_bounded(work_, args);
        EXPECT_FALSE(r.hung);
        EXPECT_EQ(1, r.status) << r.err;
        EXPECT_NE(std::string::npos, r.err.find(refusal(dev_ + "/kvs/env.gate"))) << r.err;
    }
}

TEST_F(TarnctlPlantedFiles, a_fifo_as_the_log_is_refused_by_log_and_costs_others_nothing)
{
    plant_fifo("log/messages");
    const Bounded log = run_bounded(work_, {"log"});
    EXPECT_FALSE(log.hung);
    EXPECT_EQ(1, log.status);
    EXPECT_NE(std::string::npos, log.err.find(refusal(dev_ + "/log/messages"))) << log.err;
    // The commands that write log lines go on without them.
    const Bounded show = run_bounded(work_, {"show", "contexts"});
    EXPECT_FALSE(show.hung);
    EXPECT_EQ(0, show.status) << show.err;
}

TEST_F(TarnctlPlantedFiles, fifos_in_the_bus_and_as_the_apply_lock_are_refused)
{
    for (const char *rel : {"bus/lock", "bus/gen", "supervisor/apply.lock"}) {
        SCOPED_TRACE(rel);
        plant_fifo(rel);
        const Bounded r = run_bounded(work_, {"apply", change_});
        EXPECT_FALSE(r.hung);
        EXPECT_EQ(1, r.status) << r.err;
        EXPECT_NE(std::string::npos, r.err.find(refusal(dev_ + "/" + rel))) << r.err;
        unlink((dev_ + "/" + rel).c_str());
    }
    EXPECT_EQ(0, run_bounded(work_, {"apply", change_}).status);
}

// A process that holds `path` locked and then runs "sleep 300" (the lock
// goes with the descriptor into the new program).
pid_t hold_lock(const std::string &path)
{
    const int fd = open(path.c_str(), O_RDWR | O_CREAT, 0600);
    EXPECT_GE(fd, 0);
    const pid_t pid = fork();
    if (pid == 0) {
        if (flock(fd, LOCK_EX) != 0)
            _exit(1);
        execl("/bin/sleep", "sleep", "300", static_cast<char *>(nullptr));
        _exit(1);
    }
    close(fd);
    // Wait until the lock is taken.
    for (int i = 0; i < 500; ++i) {
        const int probe = open(path.c_str(), O_RDWR);
        const bool taken = flock(probe, LOCK_EX | LOCK_NB) != 0;
        close(probe);
        if (taken)
            break;
        usleep(10000);
    }
    return pid;
}

TEST_F(TarnctlPlantedFiles, a_second_apply_names_the_holder_of_the_lock_and_gives_up_in_time)
{
    const std::string lock = dev_ + "/supervisor/apply.lock";
    const pid_t holder = hold_lock(lock);
    ASSERT_GT(holder, 0);
    const std::string who = "pid " + std::to_string(holder) + " (sleep 300)";
    const Bounded r = run_bounded(work_, {"apply", change_, "--wait", "4"});
    const Bounded now = run_bounded(work_, {"apply", "--wait", "0", change_});
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);

    EXPECT_FALSE(r.hung);
    EXPECT_EQ(1, r.status);
    EXPECT_GE(r.seconds, 4.0);
    EXPECT_EQ("tarnctl apply: waiting for " + lock + ", held by " + who +
                  ", for up to 4 s (--wait SECONDS)\n"
                  "tarnctl apply: " + lock + " stayed held by " + who +
                  " for 4 s; end or resume that process, or wait longer with --wait SECONDS; "
                  "nothing was written\n",
              r.err);
    EXPECT_EQ(1, now.status);
    EXPECT_EQ("tarnctl apply: " + lock + " stayed held by " + who +
                  " for 0 s; end or resume that process, or wait longer with --wait SECONDS; "
                  "nothing was written\n",
              now.err);
    // Free again: the apply goes through.
    EXPECT_EQ(0, run_bounded(work_, {"apply", change_}).status);
}

TEST_F(TarnctlPlantedFiles, wait_takes_a_number_of_seconds)
{
    for (const char *bad : {"x", "-1", "86401", ""}) {
        SCOPED_TRACE(bad);
        const Bounded r = run_bounded(work_, {"apply", change_, "--wait", bad});
        EXPECT_EQ(2, r.status);
        EXPECT_NE(std::string::npos,
                  r.err.find("--wait needs a number of seconds from 0 to 86400"))
            << r.err;
    }
    const Bounded missing = run_bounded(work_, {"apply", change_, "--wait"});
    EXPECT_EQ(2, missing.status);
}

TEST_F(TarnctlPlantedFiles, a_gate_kept_locked_is_waited_for_a_bounded_time_and_named)
{
    const std::string gate = dev_ + "/kvs/env.gate";
    const pid_t holder = hold_lock(gate);
    ASSERT_GT(holder, 0);
    const Bounded r = run_bounded(work_, {"show", "contexts"}, 60);
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    EXPECT_FALSE(r.hung);
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos,
              r.err.find(gate + ", the gate of the store, stayed locked for 10 s by pid " +
                         std::to_string(holder) + " (sleep 300); end or resume that process, "
                         "then try again"))
        << r.err;
}

}  // namespace
