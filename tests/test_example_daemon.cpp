// The example daemon (examples/daemon.c) as a process of its own on a
// loaded device: it follows every change of examples/changes.json with the
// lines it promises, its caches agree with the databases, and it leaves the
// bus clean whether it is stopped or killed.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "support/fixture.h"
#include "support/tarnctl_process.h"

namespace {

using tarntest::run_tarnctl;
using tarntest::slurp;
using tarntest::TarnctlRun;

double now_s()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// The daemon with its standard output on a pipe, read line by line as it
// writes them, and its standard error in a file.
class Daemon {
public:
    Daemon(const std::string &root, const std::vector<std::string> &args)
    {
        err_path_ = root + "/daemon-" + std::to_string(++count_) + ".err";
        int fds[2];
        if (pipe(fds) != 0)
            return;
        fflush(nullptr);
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[0]);
            const int e = open(err_path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (e < 0)
                _exit(127);
            dup2(fds[1], 1);
            dup2(e, 2);
            tarntest::exec_tarnctl(TARN_DAEMON_PATH, args);
        }
        close(fds[1]);
        fd_ = fds[0];
    }
    ~Daemon()
    {
        if (pid_ > 0 && status_ == kRunning) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (fd_ >= 0)
            close(fd_);
    }
    pid_t pid() const { return pid_; }
    std::string err() const { return slurp(err_path_); }

    // The next line, waiting up to 30 s; "" at the end of the output or on
    // time out.
    std::string line()
    {
        const double until = now_s() + 30;
        for (;;) {
            const size_t nl = buf_.find('\n');
            if (nl != std::string::npos) {
                std::string l = buf_.substr(0, nl);
                buf_.erase(0, nl + 1);
                return l;
            }
            const double left = until - now_s();
            if (left <= 0 || fd_ < 0)
                return "";
            pollfd p = {fd_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left * 1000) + 1) <= 0)
                return "";
            char chunk[4096];
            const ssize_t n = read(fd_, chunk, sizeof chunk);
            if (n <= 0)
                return "";
            buf_.append(chunk, static_cast<size_t>(n));
        }
    }
    // Lines up to and including `last`.
    std::vector<std::string> lines_until(const std::string &last)
    {
        std::vector<std::string> out;
        for (std::string l = line(); !l.empty(); l = line()) {
            out.push_back(l);
            if (l == last)
                break;
        }
        return out;
    }
    // The exit status (-1: a signal), waiting up to 30 s (-2 when it did
    // not end).
    int wait()
    {
        const double until = now_s() + 30;
        while (now_s() < until) {
            int st = 0;
            const pid_t r = waitpid(pid_, &st, WNOHANG);
            if (r == pid_) {
                status_ = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
                return status_;
            }
            usleep(10 * 1000);
        }
        return -2;
    }

private:
    static constexpr int kRunning = -3;
    static int count_;
    pid_t pid_ = -1;
    int fd_ = -1;
    int status_ = kRunning;
    std::string buf_;
    std::string err_path_;
};
int Daemon::count_ = 0;

class ExampleDaemon : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        const TarnctlRun r = run_tarnctl(TARNCTL_PATH, {"load", TARN_SOURCE_DIR "/examples/device.json"});
        ASSERT_EQ(0, r.status) << r.err;
    }
    // The ready line, and the handle it names.
    uint32_t ready(Daemon &d, int sap = 1200)
    {
        const std::string l = d.line();
        std::smatch m;
        EXPECT_TRUE(std::regex_match(l, m, std::regex("daemon: ready on access point " +
                                                       std::to_string(sap) +
                                                       ", bus handle ([0-9]+), pid " +
                                                       std::to_string(d.pid()))))
            << l << "\n" << d.err();
        return m.empty() ? BUS_HANDLE_NONE : static_cast<uint32_t>(std::stoul(m[1]));
    }
    bool exists(const std::string &path)
    {
        struct stat st;
        return lstat(path.c_str(), &st) == 0;
    }
};

// What the daemon prints while "tarnctl apply examples/changes.json" runs
// on examples/device.json: one line per applied change, described from the
// caches afterwards (examples/daemon-changes.txt, which the README and
// scripts/check-install use too).
std::vector<std::string> change_lines()
{
    std::vector<std::string> lines =
        tarntest::split_lines(slurp(TARN_SOURCE_DIR "/examples/daemon-changes.txt"));
    EXPECT_EQ(13u, lines.size());
    EXPECT_EQ("cache dump page 1 answered", lines.back());
    return lines;
}

TEST_F(ExampleDaemon, FollowsEveryChangeIsVerifiedAndStopsOnSigterm)
{
    Daemon d(root_, {});
    const uint32_t handle = ready(d);
    ASSERT_NE(BUS_HANDLE_NONE, handle);

    const TarnctlRun apply = run_tarnctl(TARNCTL_PATH, {"apply", TARN_SOURCE_DIR "/examples/changes.json"});
    ASSERT_EQ(0, apply.status) << apply.out << apply.err;
    const std::vector<std::string> want = change_lines();
    EXPECT_EQ(want, d.lines_until(want.back())) << d.err();

    const TarnctlRun verify =
        run_tarnctl(TARNCTL_PATH, {"dump-cache", "--pid", std::to_string(d.pid()), "--verify"});
    EXPECT_EQ(0, verify.status) << verify.out << verify.err;
    EXPECT_NE(std::string::npos, verify.out.find("verify: cache and database agree")) << verify.out;
    // The dump's page request is a notification the daemon applies too;
    // the inspection request is answered without a line.
    EXPECT_EQ("cache dump page 1 answered", d.line());
    // It says itself which caches it keeps.
    const TarnctlRun clients = run_tarnctl(TARNCTL_PATH, {"show", "clients", "--json"});
    EXPECT_EQ(0, clients.status) << clients.err;
    for (const char *fact : {"\"helper\": true", "\"gyre_cache\": true", "\"tarn_cache_mode\": true",
                             "\"as_format_tracked\": true", "\"as_format\": 1,"})
        EXPECT_NE(std::string::npos, clients.out.find(fact)) << fact << "\n" << clients.out;

    ASSERT_EQ(0, kill(d.pid(), SIGTERM));
    EXPECT_EQ("daemon: stopping (SIGTERM)", d.line());
    EXPECT_EQ("", d.line()) << "nothing after the stop line";
    EXPECT_EQ(0, d.wait()) << d.err();
    EXPECT_EQ("", d.err());
    EXPECT_FALSE(exists(root_ + "/bus/ap/1200"));
    EXPECT_FALSE(exists(root_ + "/bus/h/" + std::to_string(handle)));
    EXPECT_FALSE(exists(root_ + "/bus/state/" + std::to_string(handle)));
}

// A payload of `len` zero bytes with the 16-bit `kind` at offset 2 (an
// attribute change's kind) and, when `at` is not 0, `word` at `at`.
std::vector<uint8_t> payload(size_t len, uint16_t kind = 0, size_t at = 0, uint32_t word = 0)
{
    std::vector<uint8_t> p(len, 0);
    if (len >= 4)
        memcpy(&p[2], &kind, sizeof kind);
    if (at != 0 && at + 4 <= len)
        memcpy(&p[at], &word, sizeof word);
    return p;
}

int publish(uint32_t opcode, const std::vector<uint8_t> &p)
{
    return tarnhost_bus_publish(BUS_HANDLE_NONE, opcode, p.empty() ? nullptr : p.data(),
                                static_cast<uint32_t>(p.size()));
}

// The Gyre notifications that the cache does not use get a line each; what
// the library does not take gets none (the next line is the marker that
// follows it); after the service flushed the Gyre cache, a topology's
// creation changes nothing and gets no line.
TEST_F(ExampleDaemon, NothingToChangeNotTakenAndFlushed)
{
    Daemon d(root_, {});
    ASSERT_NE(BUS_HANDLE_NONE, ready(d));
    for (uint32_t opcode : {51205u, 51209u, 51211u, 51212u, 51213u}) {
        ASSERT_EQ(0, publish(opcode, payload(24)));
        EXPECT_EQ("notification " + std::to_string(opcode) + ": nothing to change", d.line());
    }
    // Not the library's: an opcode it does not know, sent to the daemon's
    // access point, and an attribute change too short to have a kind.
    const uint32_t sender = bus_bind(0, -1, nullptr, "sender");
    ASSERT_NE(BUS_HANDLE_NONE, sender);
    bus_send_opts_t opts;
    memset(&opts, 0, sizeof opts);
    opts.w[0] = 1;
    const std::vector<uint8_t> odd = payload(8);
    ASSERT_EQ(0, bus_send(sender, BUS_NODE_LOCAL, 1200, 40000, odd.data(),
                          static_cast<uint32_t>(odd.size()), nullptr, nullptr, &opts));
    EXPECT_EQ(0u, bus_unbind(sender));
    ASSERT_EQ(0, publish(BUS_OPC_TARN_ATTR_CHANGE, payload(2)));
    ASSERT_EQ(0, publish(51209, payload(24)));
    EXPECT_EQ("notification 51209: nothing to change", d.line());

    ASSERT_EQ(0, publish(BUS_OPC_TARN_ATTR_CHANGE, payload(28, 3)));
    EXPECT_EQ("gyre cache flushed", d.line());
    ASSERT_EQ(0, publish(51208, payload(24, 0, 20, 50)));
    ASSERT_EQ(0, publish(51212, payload(24)));
    EXPECT_EQ("notification 51212: nothing to change", d.line());

    ASSERT_EQ(0, kill(d.pid(), SIGTERM));
    EXPECT_EQ("daemon: stopping (SIGTERM)", d.line());
    EXPECT_EQ(0, d.wait());
    EXPECT_EQ("", d.err());
}

TEST_F(ExampleDaemon, StopsOnSigintAtTheAccessPointGiven)
{
    Daemon d(root_, {"1234"});
    ASSERT_NE(BUS_HANDLE_NONE, ready(d, 1234));
    ASSERT_EQ(0, kill(d.pid(), SIGINT));
    EXPECT_EQ("daemon: stopping (SIGINT)", d.line());
    EXPECT_EQ(0, d.wait()) << d.err();
    EXPECT_FALSE(exists(root_ + "/bus/ap/1234"));
}

TEST_F(ExampleDaemon, KilledDaemonLeavesTheAccessPointToTheNextBind)
{
    uint32_t killed = BUS_HANDLE_NONE;
    {
        Daemon d(root_, {});
        killed = ready(d);
        ASSERT_NE(BUS_HANDLE_NONE, killed);
        ASSERT_EQ(0, kill(d.pid(), SIGKILL));
        EXPECT_EQ(-1, d.wait());
    }
    // What it leaves is taken over or swept by the next bind.
    const uint32_t h = bus_bind(0, 1200, nullptr, "next holder");
    ASSERT_NE(BUS_HANDLE_NONE, h) << strerror(errno);
    EXPECT_FALSE(exists(root_ + "/bus/h/" + std::to_string(killed)));
    EXPECT_FALSE(exists(root_ + "/bus/state/" + std::to_string(killed)));
    EXPECT_EQ(0u, bus_unbind(h));

    // And a new daemon starts there and follows changes.
    Daemon again(root_, {});
    ASSERT_NE(BUS_HANDLE_NONE, ready(again));
    const TarnctlRun apply = run_tarnctl(TARNCTL_PATH, {"apply", TARN_SOURCE_DIR "/examples/changes.json"});
    ASSERT_EQ(0, apply.status) << apply.err;
    const std::vector<std::string> want = change_lines();
    EXPECT_EQ(want, again.lines_until(want.back())) << again.err();
    ASSERT_EQ(0, kill(again.pid(), SIGTERM));
    EXPECT_EQ(0, again.wait());
}

TEST_F(ExampleDaemon, AccessPointHeldByAnotherProcess)
{
    Daemon first(root_, {});
    ASSERT_NE(BUS_HANDLE_NONE, ready(first));
    Daemon second(root_, {});
    EXPECT_EQ("", second.line());
    EXPECT_EQ(1, second.wait());
    EXPECT_EQ("daemon: access point 1200: another process holds it; give another one\n",
              second.err());
    ASSERT_EQ(0, kill(first.pid(), SIGTERM));
    EXPECT_EQ(0, first.wait());
}

TEST_F(ExampleDaemon, ArgumentsOutOfRangeAreRefused)
{
    for (const char *bad : {"0", "-5", "2147483648", "12x", ""}) {
        Daemon d(root_, {bad});
        EXPECT_EQ("", d.line()) << bad;
        EXPECT_EQ(1, d.wait()) << bad;
        EXPECT_EQ(std::string("daemon: access point \"") + bad +
                      "\": not a number from 1 to 2147483647\n",
                  d.err());
    }
    Daemon limit(root_, {"2147483647"});
    EXPECT_NE(BUS_HANDLE_NONE, ready(limit, 2147483647));
    ASSERT_EQ(0, kill(limit.pid(), SIGTERM));
    EXPECT_EQ(0, limit.wait());

    Daemon two(root_, {"1", "2"});
    EXPECT_EQ(1, two.wait());
    EXPECT_EQ("daemon: usage: daemon [ACCESS_POINT]\n", two.err());
}

}  // namespace
