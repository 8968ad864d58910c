// The C++ example daemons (examples/daemon.cpp on poll, examples/
// daemon_asio.cpp on Boost.Asio) as processes of a device loaded from
// examples/device.json: they follow every change of examples/changes.json
// with the documented lines, pass "tarnctl dump-cache --pid PID --verify",
// and stop with status 0 on SIGTERM and SIGINT.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fixture.h"
#include "support/tarnctl_process.h"
#include "support/tool_process.h"

namespace {

using tarntest::Result;
using tarntest::tarnctl;

struct Daemon {
    pid_t pid = -1;
    std::string out_path, err_path;

    void start(const char *path, const std::vector<std::string> &args)
    {
        static int serial = 0;
        const std::string base = std::string(tarnhost_root()) + "/daemon." + std::to_string(++serial);
        out_path = base + ".out";
        err_path = base + ".err";
        pid = tarntest::spawn_tarnctl(path, args, {}, out_path, err_path);
    }
    std::string out() const { return tarntest::slurp(out_path); }
    std::string err() const { return tarntest::slurp(err_path); }
    bool wait_for(const std::string &text) const
    {
        for (int i = 0; i < 1500; ++i) {
            if (out().find(text) != std::string::npos)
                return true;
            tarntest::sleep_ms(20);
        }
        return false;
    }
    int wait()
    {
        for (int i = 0; i < 3000; ++i) {
            int st = 0;
            if (waitpid(pid, &st, WNOHANG) == pid) {
                pid = -1;
                return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
            }
            tarntest::sleep_ms(20);
        }
        return -2;
    }
    ~Daemon()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

// The lines for examples/changes.json played on examples/device.json.
const std::vector<std::string> kChangeLines = {
    "topology 40 created: vlans --, ftags --",
    "topology 20 vlans 200-249, ftags 17-18",
    "topology 40 vlans 250-259, ftags --",
    "topology 20 vlans 200-239, ftags 17-18",
    "topology 40 vlans 240-259, ftags --",
    "ftag 40 created: topology 40, graph 1, flags 0x10",
    "ftag 41 created: topology 40, graph 2, flags 0x6",
    "ftag 4 updated: topology 10, graph 5, flags 0x2",
    "ftag 3 deleted: topology 10",
    "ftags of topology 30 deleted: 1000-1001,1023",
    "topology 30 deleted",
    "AS format 1",
    "cache dump page 1 answered",
};

class CppDaemons : public tarntest::HostTest, public ::testing::WithParamInterface<const char *> {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        Result r = tarnctl({"load", std::string(TARN_SOURCE_DIR) + "/examples/device.json"});
        ASSERT_EQ(0, r.status) << r.err;
    }
};

TEST_P(CppDaemons, FollowTheChangesAndStopOnSigterm)
{
    Daemon d;
    d.start(GetParam(), {});
    ASSERT_TRUE(d.wait_for("\n")) << d.err();
    std::vector<std::string> lines = tarntest::split_lines(d.out());
    ASSERT_EQ(1u, lines.size());
    const std::string ready = "daemon: ready on access point 1200, bus handle ";
    ASSERT_EQ(ready, lines[0].substr(0, ready.size())) << lines[0];
    EXPECT_NE(std::string::npos, lines[0].find(", pid " + std::to_string(d.pid))) << lines[0];

    Result apply = tarnctl({"apply", std::string(TARN_SOURCE_DIR) + "/examples/changes.json"});
    ASSERT_EQ(0, apply.status) << apply.err;
    ASSERT_TRUE(d.wait_for(kChangeLines.back() + "\n")) << d.out() << d.err();
    lines = tarntest::split_lines(d.out());
    EXPECT_EQ(kChangeLines, std::vector<std::string>(lines.begin() + 1, lines.end())) << d.out();

    Result verify = tarnctl({"dump-cache", "--pid", std::to_string(d.pid), "--verify"});
    EXPECT_EQ(0, verify.status) << verify.out << verify.err;
    EXPECT_EQ(std::string::npos, verify.out.find("DIVERGES")) << verify.out;
    // The cache dump of --verify is told; its inspection requests are
    // answered silently.
    lines = tarntest::split_lines(d.out());
    ASSERT_EQ(kChangeLines.size() + 2, lines.size()) << d.out();
    EXPECT_EQ("cache dump page 1 answered", lines.back());

    ASSERT_EQ(0, kill(d.pid, SIGTERM));
    EXPECT_EQ(0, d.wait()) << d.err();
    lines = tarntest::split_lines(d.out());
    EXPECT_EQ("daemon: stopping (SIGTERM)", lines.back());
    EXPECT_EQ("", d.err());
    // Nothing left on the bus: the access point is free for the next one.
    Daemon again;
    again.start(GetParam(), {"1200"});
    EXPECT_TRUE(again.wait_for("daemon: ready on access point 1200")) << again.err();
    ASSERT_EQ(0, kill(again.pid, SIGINT));
    EXPECT_EQ(0, again.wait());
    EXPECT_EQ("daemon: stopping (SIGINT)", tarntest::split_lines(again.out()).back());
}

TEST_P(CppDaemons, ErrorsAreOneLineAndStatusOne)
{
    Daemon first;
    first.start(GetParam(), {"1300"});
    ASSERT_TRUE(first.wait_for("daemon: ready on access point 1300")) << first.err();
    Daemon second;
    second.start(GetParam(), {"1300"});
    EXPECT_EQ(1, second.wait());
    EXPECT_EQ("daemon: cannot start the client: bus_bind: bus failed: Address already in use\n",
              second.err());
    EXPECT_EQ("", second.out());
    Daemon bad;
    bad.start(GetParam(), {"0"});
    EXPECT_EQ(1, bad.wait());
    EXPECT_NE(std::string::npos, bad.err().find("daemon: usage: ")) << bad.err();
    kill(first.pid, SIGTERM);
    EXPECT_EQ(0, first.wait());
}

INSTANTIATE_TEST_SUITE_P(Examples, CppDaemons,
                         ::testing::Values(TARN_DAEMON_PATH, TARN_DAEMON_ASIO_PATH),
                         [](const ::testing::TestParamInfo<const char *> &info) {
                             return std::string(info.index == 0 ? "poll" : "asio");
                         });

}  // namespace
