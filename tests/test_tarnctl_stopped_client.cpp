// A client process stopped (SIGSTOP) while the device changes: tarnctl
// apply still applies and announces every change and names the client
// that missed notifications; the client's misses are visible, tarnctl
// dump-cache --verify does not call a client that missed notifications up
// to date, and tarnctl watch, resumed, learns of its gap and rebuilds its
// caches.

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <regex>
#include <string>

#include "support/tarnctl_process.h"
#include "test_gyre_lifecycle_support.h"

using namespace lifecycle;

namespace {

constexpr int32_t kSap = 4721;
constexpr int kChanges = 16;  // more than a receive queue holds

const char kDevice[] =
    "{\"as_format\": 1, \"topologies\": ["
    " {\"id\": 10, \"active_vlans\": \"100-109\", \"ftags\": [{\"ftag\": 1, \"graph\": 1}]}]}";

void sleep_ms(long ms)
{
    timespec ts{ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
}

// Stops a process and waits until it is stopped.
void stop(pid_t pid)
{
    ASSERT_EQ(0, kill(pid, SIGSTOP));
    int st = 0;
    ASSERT_EQ(pid, waitpid(pid, &st, WUNTRACED));
    ASSERT_TRUE(WIFSTOPPED(st));
}

size_t count_of(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

class TarnctlStoppedClient : public LifecycleTest {
protected:
    void SetUp() override
    {
        LifecycleTest::SetUp();
        tarntest::load_device_json(kDevice);
        file_ = std::string(tarnhost_root()) + "/changes.json";
    }
    ToolRun apply(const std::string &json)
    {
        write_file(file_, json);
        return tarnctl("apply " + file_);
    }
    std::string file_;
};

// kChanges changes, each announced with one notification.
std::string as_format_changes()
{
    std::string json = "{\"changes\": [";
    for (int i = 0; i < kChanges; ++i)
        json += std::string(i ? "," : "") + "{\"change\": \"as_format\", \"format\": " +
                std::to_string(2 + i % 2) + "}";
    return json + "]}";
}

std::string topology_changes()
{
    std::string json = "{\"changes\": [";
    for (int i = 0; i < kChanges; ++i)
        json += std::string(i ? "," : "") + "{\"change\": \"create_topology\", \"topology\": " +
                std::to_string(30 + i) + "}";
    return json + "]}";
}

TEST_F(TarnctlStoppedClient, ApplyCompletesAndNamesTheClientThatMissedIt)
{
    Client c;
    ASSERT_TRUE(c.start(kSap));
    stop(c.pid());
    const ToolRun r = apply(topology_changes());
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
    const std::string missed_line =
        "  handle " + std::to_string(c.handle()) + " missed it (its queue stayed full)\n";
    const size_t missed = count_of(r.out, missed_line);
    EXPECT_GT(missed, 0u) << r.out;
    EXPECT_LT(missed, static_cast<size_t>(kChanges)) << r.out;
    for (int i = 0; i < kChanges; ++i)
        EXPECT_NE(std::string::npos,
                  r.out.find("changes[" + std::to_string(i) + "]: topology " +
                             std::to_string(30 + i) + " created (51208 to 1 subscriber)\n"))
            << i;
    EXPECT_NE(std::string::npos,
              r.out.find("applied " + std::to_string(kChanges) + " changes to " +
                         std::string(tarnhost_root()) + "\n"));
    // Anyone can see that the stopped client missed notifications.
    uint32_t pending = 0;
    EXPECT_EQ(0, tarnhost_bus_missed(c.handle(), &pending));
    EXPECT_EQ(missed, pending);

    // Resumed, this client does not catch up by itself: the verification
    // says so instead of calling its cache up to date.
    ASSERT_EQ(0, kill(c.pid(), SIGCONT));
    std::string answer;
    for (int i = 0; i < 20 && answer.empty(); ++i)
        answer = c.probe();
    ASSERT_FALSE(answer.empty()) << "the resumed client does not answer";
    const ToolRun v = tarnctl("dump-cache --client " + std::to_string(c.handle()) + " --verify");
    EXPECT_EQ(1, v.status) << v.out << v.err;
    EXPECT_NE(std::string::npos,
              v.out.find("verify: handle " + std::to_string(c.handle()) + " missed " +
                         std::to_string(missed) +
                         " notifications and has not caught up; what it keeps from them may "
                         "be stale\n"))
        << v.out;
    EXPECT_EQ(0, c.stop());
}

TEST_F(TarnctlStoppedClient, WatchResumedLearnsOfItsGapAndRebuilds)
{
    const std::string out = std::string(tarnhost_root()) + "/watch.out";
    const std::string err = std::string(tarnhost_root()) + "/watch.err";
    const pid_t w = tarntest::spawn_tarnctl(TARNCTL_PATH, {"watch", "--timeout", "120"}, {},
                                            out, err);
    ASSERT_GT(w, 0);
    std::smatch m;
    std::string text;
    for (int i = 0; i < 1500 && text.find("watching\n") == std::string::npos; ++i) {
        sleep_ms(20);
        text = slurp(out);
    }
    ASSERT_TRUE(std::regex_search(text, m, std::regex("bus handle ([0-9]+),"))) << text;
    const uint32_t handle = static_cast<uint32_t>(std::stoul(m[1]));
    EXPECT_NE(std::string::npos, text.find("AS format 1\n"));
    stop(w);

    const ToolRun r = apply(as_format_changes());
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos,
              r.out.find("  handle " + std::to_string(handle) +
                         " missed it (its queue stayed full)\n"))
        << r.out;

    // The last change set format 3; the queued notifications end with a
    // 2, so only a rebuild from the database gets it right.
    ASSERT_EQ(0, kill(w, SIGCONT));
    const std::regex caught_up("[0-9:.]+ missed [0-9]+ notifications \\(the queue was full\\); "
                               "rebuilding the caches from the databases\nAS format 3\n"
                               "cached topology 10 vlans 100-109 ftags 1\n");
    for (int i = 0; i < 1500 && !std::regex_search(text = slurp(out), caught_up); ++i)
        sleep_ms(20);
    EXPECT_TRUE(std::regex_search(text, caught_up)) << text;
    // The queued (older) notifications were applied before the rebuild,
    // not after it: the rebuilt state is the last word.
    const std::string tail = "AS format 3\ncached topology 10 vlans 100-109 ftags 1\n";
    EXPECT_EQ(tail, text.substr(text.size() - std::min(text.size(), tail.size()))) << text;
    uint32_t pending = 1;
    EXPECT_EQ(0, tarnhost_bus_missed(handle, &pending));
    EXPECT_EQ(0u, pending);
    const ToolRun v = tarnctl("dump-cache --client " + std::to_string(handle) + " --verify");
    EXPECT_EQ(0, v.status) << v.out << v.err;
    EXPECT_EQ(std::string::npos, v.out.find("missed")) << v.out;
    kill(w, SIGTERM);
    int st = 0;
    waitpid(w, &st, 0);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
}

}  // namespace
