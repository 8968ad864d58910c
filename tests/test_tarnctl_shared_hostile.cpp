// A device shared with a group, one of whose members is hostile: it cuts
// short, rewrites and replaces with FIFOs every file of the device that
// the group may write (the bus's words, states, records and locks, the
// running configuration, the apply lock, the store's gate, the log) while
// another member applies changes and watches.  Those may fail, with a
// message; none may die of a signal or hang.  Needs root, to act as two
// users.

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
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

constexpr uid_t kMember = 65534;
constexpr gid_t kGroup = 65534;  // "nogroup" on Debian
constexpr int kHostileSeconds = 20;

std::string group_text()
{
    group *g = getgrgid(kGroup);
    return g != nullptr ? g->gr_name : std::to_string(kGroup);
}

double now_s()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec + t.tv_nsec / 1e9;
}

// The plain files and FIFOs below `dir`, the store's own directory left
// out (its files are LMDB's, written by every member by design).
void files_below(const std::string &dir, std::vector<std::string> *out)
{
    DIR *d = opendir(dir.c_str());
    if (d == nullptr)
        return;
    while (dirent *e = readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == "..")
            continue;
        const std::string p = dir + "/" + name;
        struct stat st;
        if (lstat(p.c_str(), &st) != 0)
            continue;
        if (S_ISDIR(st.st_mode) && name != "env")
            files_below(p, out);
        else if (S_ISREG(st.st_mode) || S_ISFIFO(st.st_mode))
            out->push_back(p);
    }
    closedir(d);
}

// The hostile member: for `seconds`, each member-writable file in turn is
// cut, rewritten, replaced with a FIFO or (a FIFO) removed again.
[[noreturn]] void hostile_member(const std::string &root, int seconds, unsigned seed)
{
    gid_t groups[1] = {kGroup};
    if (setgroups(1, groups) != 0 || setgid(kGroup) != 0 || setuid(kMember) != 0)
        _exit(126);
    std::mt19937 rng(seed);
    const double end = now_s() + seconds;
    long acts = 0;
    const std::string running = root + "/supervisor/running-config";
    const std::string running_text = tarntest::slurp(running);
    for (long round = 0; now_s() < end; ++round) {
        if (round % 10 == 5) {
            // Put back what every command reads first, as another member
            // repairing the device would, so that commands get further.
            unlink(running.c_str());
            const int fd = open(running.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0660);
            if (fd >= 0) {
                (void)!write(fd, running_text.data(), running_text.size());
                close(fd);
            }
            struct stat gst;
            const std::string gate = root + "/kvs/env.gate";
            if (lstat(gate.c_str(), &gst) == 0 && !S_ISREG(gst.st_mode))
                unlink(gate.c_str());
        }
        std::vector<std::string> files;
        files_below(root, &files);
        for (const std::string &f : files) {
            // What every command reads first is hit in one round of ten,
            // so that the others also meet commands that got further.
            const bool first_read = f.find("running-config") != std::string::npos ||
                                    f.find("env.gate") != std::string::npos;
            if (first_read && round % 10 != 0)
                continue;
            struct stat st;
            if (lstat(f.c_str(), &st) != 0)
                continue;
            if (S_ISFIFO(st.st_mode)) {
                if (rng() % 2 == 0)
                    unlink(f.c_str());
                continue;
            }
            switch (rng() % 5) {
            case 0:
                (void)!truncate(f.c_str(), 0);
                break;
            case 1:
                (void)!truncate(f.c_str(), static_cast<off_t>(rng() % 8));
                break;
            case 2: {
                const int fd = open(f.c_str(), O_WRONLY | O_NONBLOCK);
                if (fd >= 0) {
                    const std::string junk(rng() % 128, static_cast<char>(rng()));
                    (void)!write(fd, junk.data(), junk.size());
                    close(fd);
                }
                break;
            }
            case 3:
                if (unlink(f.c_str()) == 0)
                    mkfifo(f.c_str(), 0660);
                break;
            default:
                break;
            }
            ++acts;
        }
        usleep(5000);
    }
    _exit(acts > 0 ? 0 : 3);
}

struct Outcome {
    int status = -1;
    int signal = 0;
    bool hung = false;
};

Outcome finish(pid_t pid, double deadline)
{
    Outcome o;
    int st = 0;
    for (;;) {
        const pid_t got = waitpid(pid, &st, WNOHANG);
        if (got == pid)
            break;
        if (now_s() > deadline) {
            o.hung = true;
            kill(pid, SIGKILL);
            waitpid(pid, &st, 0);
            break;
        }
        usleep(20000);
    }
    if (WIFEXITED(st))
        o.status = WEXITSTATUS(st);
    else if (WIFSIGNALED(st) && !o.hung)
        o.signal = WTERMSIG(st);
    return o;
}

class TarnctlSharedHostile : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        tarntest::HostTest::SetUp();
        if (geteuid() != 0)
            GTEST_SKIP() << "acting as two members of a group needs root (setuid)";
        ASSERT_EQ(0, chmod(root_.c_str(), 0711));  // others may pass through
        // This process, and the tarnctl it starts, is the other member.
        gid_t groups[1] = {kGroup};
        ASSERT_EQ(0, setgroups(1, groups));
        dev_ = root_ + "/shared";
        setenv("TARNHOST_ROOT", dev_.c_str(), 1);
        setenv("TARNHOST_GROUP", group_text().c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv("TARNHOST_GROUP");
        setgroups(0, nullptr);
        setenv("TARNHOST_ROOT", root_.c_str(), 1);
        tarntest::HostTest::TearDown();
    }
    std::string dev_;
};

TEST_F(TarnctlSharedHostile, a_member_cutting_and_replacing_files_kills_and_hangs_nobody)
{
    const std::string work = root_ + "/work";
    ASSERT_EQ(0, mkdir(work.c_str(), 0700));
    const std::string change = work + "/change.json";
    std::ofstream(change) << R"({"changes": [{"change": "as_format", "format": 1},
                                             {"change": "as_format", "format": 0}]})";
    const pid_t load = tarntest::spawn_tarnctl(TARNCTL_PATH, {"load", TARN_SOURCE_DIR "/examples/device.json"},
                                               {}, work + "/load.out", work + "/load.err");
    ASSERT_EQ(0, finish(load, now_s() + 60).status) << tarntest::slurp(work + "/load.err");

    const pid_t watch = tarntest::spawn_tarnctl(
        TARNCTL_PATH, {"watch", "--timeout", std::to_string(kHostileSeconds + 5)}, {},
        work + "/watch.out", work + "/watch.err");
    ASSERT_GT(watch, 0);
    usleep(500000);
    fflush(nullptr);
    const pid_t member = fork();
    if (member == 0)
        hostile_member(dev_, kHostileSeconds, 20261123);

    int applies = 0, applied = 0, failed = 0, signalled = 0, hung = 0;
    std::string first_failure;
    const double end = now_s() + kHostileSeconds;
    while (now_s() < end) {
        const pid_t a = tarntest::spawn_tarnctl(TARNCTL_PATH, {"apply", change, "--wait", "5"}, {},
                                                work + "/apply.out", work + "/apply.err");
        const Outcome o = finish(a, now_s() + 90);
        ++applies;
        applied += o.status == 0;
        signalled += o.signal != 0;
        hung += o.hung;
        if (o.status == 1) {
            ++failed;
            const std::string err = tarntest::slurp(work + "/apply.err");
            // A failure says what failed, on one line.
            EXPECT_EQ(0u, err.rfind("tarnctl apply: ", 0)) << err;
            if (first_failure.empty())
                first_failure = err;
        }
        if (o.signal != 0)
            ADD_FAILURE() << "apply died of signal " << o.signal << ": "
                          << tarntest::slurp(work + "/apply.err");
    }
    const Outcome m = finish(member, now_s() + 30);
    const Outcome w = finish(watch, now_s() + 90);
    printf("hostile member: %d applies, %d applied, %d failed with a message, %d signalled, "
           "%d hung; watch exit %d signal %d%s\n",
           applies, applied, failed, signalled, hung, w.status, w.signal,
           first_failure.empty() ? "" : ("; first failure: " + first_failure).c_str());
    EXPECT_EQ(0, m.status);
    EXPECT_GT(applies, 0);
    EXPECT_EQ(0, signalled);
    EXPECT_EQ(0, hung);
    EXPECT_FALSE(w.hung);
    EXPECT_EQ(0, w.signal) << tarntest::slurp(work + "/watch.err");
}

}  // namespace
