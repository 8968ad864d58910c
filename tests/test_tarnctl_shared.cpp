// tarnctl on a device shared with a group: what one member can learn of
// another member's clients.  Needs root, to act as two users.

#include <fcntl.h>
#include <grp.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fixture.h"
#include "support/tarnctl_process.h"

namespace {

constexpr uid_t kNobody = 65534;
constexpr gid_t kGroup = 65534;  // "nogroup" on Debian

std::string group_text()
{
    group *g = getgrgid(kGroup);
    return g != nullptr ? g->gr_name : std::to_string(kGroup);
}

struct MemberRun {
    pid_t pid = -1;
    std::string out_path;
};

// Starts tarnctl as `uid` (in the device's group) with its output in a
// file of the caller's.
MemberRun start_as(uid_t uid, const std::vector<std::string> &args, const std::string &out_path)
{
    MemberRun r;
    r.out_path = out_path;
    const int fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return r;
    r.pid = fork();
    if (r.pid == 0) {
        gid_t groups[1] = {kGroup};
        if (setgroups(1, groups) != 0 || setgid(uid == 0 ? 0 : kGroup) != 0 ||
            (uid != 0 && setuid(uid) != 0))
            _exit(126);
        dup2(fd, STDOUT_FILENO);
        dup2(fd, STDERR_FILENO);
        tarntest::exec_tarnctl(TARNCTL_PATH, args);
    }
    close(fd);
    return r;
}

int wait_for(const MemberRun &r)
{
    int st = 0;
    if (r.pid < 0 || waitpid(r.pid, &st, 0) != r.pid || !WIFEXITED(st))
        return -1;
    return WEXITSTATUS(st);
}

class TarnctlShared : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        tarntest::HostTest::SetUp();
        if (geteuid() != 0)
            GTEST_SKIP() << "acting as two members of a group needs root (setuid)";
        ASSERT_EQ(0, chmod(root_.c_str(), 0711));  // others may pass through
        setenv("TARNHOST_ROOT", (root_ + "/shared").c_str(), 1);
        setenv("TARNHOST_GROUP", group_text().c_str(), 1);
    }
    void TearDown() override
    {
        unsetenv("TARNHOST_GROUP");
        setenv("TARNHOST_ROOT", root_.c_str(), 1);
        tarntest::HostTest::TearDown();
    }
};

// Another member's client shows no owner (the kernel tells a user only of
// its own sockets): asked for by pid, it cannot be found, and the message
// says why and how to address it instead.
TEST_F(TarnctlShared, AClientOfAnotherMemberIsAddressedByAccessPoint)
{
    MemberRun load = start_as(0, {"load", TARN_SOURCE_DIR "/examples/device.json"},
                        root_ + "/load.out");
    ASSERT_EQ(0, wait_for(load)) << tarntest::slurp(load.out_path);
    MemberRun watch = start_as(0, {"watch", "--sap", "1500", "--timeout", "60"}, root_ + "/watch.out");
    ASSERT_GT(watch.pid, 0);
    for (int i = 0; i < 300 && tarntest::slurp(watch.out_path).find("watching") ==
                                   std::string::npos;
         ++i)
        usleep(100000);
    ASSERT_NE(std::string::npos, tarntest::slurp(watch.out_path).find("watching"))
        << tarntest::slurp(watch.out_path);

    MemberRun by_pid = start_as(kNobody, {"dump-cache", "--pid", std::to_string(watch.pid)},
                          root_ + "/by_pid.out");
    const int st = wait_for(by_pid);
    MemberRun by_sap = start_as(kNobody, {"dump-cache", "--sap", "1500"}, root_ + "/by_sap.out");
    const int sap_st = wait_for(by_sap);
    kill(watch.pid, SIGTERM);
    wait_for(watch);

    EXPECT_EQ(1, st);
    EXPECT_EQ("tarnctl dump-cache: process " + std::to_string(watch.pid) +
                  " holds no registered client handle that this user can see on the device "
                  "in " + root_ + "/shared; the owners of 1 client there cannot be seen "
                  "(processes of another user): address one with --sap N (\"tarnctl show "
                  "clients\" lists them)\n",
              tarntest::slurp(by_pid.out_path));
    EXPECT_EQ(0, sap_st) << tarntest::slurp(by_sap.out_path);
    EXPECT_NE(std::string::npos,
              tarntest::slurp(by_sap.out_path).find("GYRE Cache Information"));
}

}  // namespace
