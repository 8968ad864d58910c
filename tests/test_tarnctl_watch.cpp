// tarnctl watch: the built tool as a caching client of a device loaded from
// a description written here.  Notifications are published on the device's
// bus, the lines it prints are compared with what each one changed, and its
// stop (signal, count, timeout) must leave no access point, handle or
// subscription behind and no Gyre memory in the tracker.

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "support/fixture.h"
#include "support/json_schema.h"
#include "support/tarnctl_process.h"

namespace {

using tarntest::slurp;

size_t count_lines(const std::string &s)
{
    size_t n = 0;
    for (char c : s)
        n += c == '\n';
    return n;
}

void sleep_ms(long ms)
{
    timespec ts{ms / 1000, (ms % 1000) * 1000000L};
    nanosleep(&ts, nullptr);
}

// A tarnctl process whose standard output and error go to files.
struct Proc {
    pid_t pid = -1;
    std::string out_path, err_path;

    void start(const std::vector<std::string> &args,
               const std::vector<std::string> &env = {})
    {
        static int serial = 0;
        const std::string base =
            std::string(tarnhost_root()) + "/tarnctl." + std::to_string(++serial);
        out_path = base + ".out";
        err_path = base + ".err";
        pid = tarntest::spawn_tarnctl(TARNCTL_PATH, args, env, out_path, err_path);
    }

    std::string out() const { return slurp(out_path); }
    std::string err() const { return slurp(err_path); }

    // Waits until standard output holds `text` (true) or the time is up.
    bool wait_for(const std::string &text, int seconds = 30) const
    {
        for (int i = 0; i < seconds * 50; ++i) {
            if (out().find(text) != std::string::npos)
                return true;
            sleep_ms(20);
        }
        return false;
    }

    // The exit status, -1 for a signal, -2 when it did not end in time.
    int wait(int seconds = 30)
    {
        for (int i = 0; i < seconds * 50; ++i) {
            int st = 0;
            pid_t r = waitpid(pid, &st, WNOHANG);
            if (r == pid) {
                pid = -1;
                return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
            }
            sleep_ms(20);
        }
        return -2;
    }

    ~Proc()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
};

struct Result {
    int status;
    std::string out, err;
};

Result tarnctl(const std::vector<std::string> &args,
            const std::vector<std::string> &env = {})
{
    Proc p;
    p.start(args, env);
    Result r;
    r.status = p.wait();
    r.out = p.out();
    r.err = p.err();
    return r;
}

const char kDevice[] = R"({
  "as_format": 2,
  "contexts": [{"id": 1, "name": "default"}],
  "topologies": [
    {"id": 7, "active_vlans": "10-20,30",
     "ftags": [{"ftag": 3, "graph": 1}, {"ftag": 4, "graph": 2, "flags": 6}]},
    {"id": 8, "active_vlans": "100", "ftags": [{"ftag": 9, "graph": 1}]}
  ]
})";

const char kTime[] = "[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} ";

class TarnctlWatch : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        const std::string file = root_ + "/device.json";
        std::ofstream(file) << kDevice;
        Result r = tarnctl({"load", file});
        ASSERT_EQ(0, r.status) << r.err;
    }

    // Starts watch and reads its access point and handle from its first
    // line.
    void start(Proc *p, const std::vector<std::string> &extra = {})
    {
        std::vector<std::string> args = {"watch", "--timeout", "120"};
        args.insert(args.end(), extra.begin(), extra.end());
        p->start(args);
        ASSERT_TRUE(p->wait_for("watching\n")) << p->out() << p->err();
        std::smatch m;
        const std::string first = tarntest::split_lines(p->out()).at(0);
        ASSERT_TRUE(std::regex_match(
            first, m,
            std::regex("access point ([0-9]+), bus handle ([0-9]+), device (.*)")))
            << first;
        sap_ = static_cast<uint32_t>(std::stoul(m[1]));
        handle_ = static_cast<uint32_t>(std::stoul(m[2]));
        EXPECT_EQ(root_, m[3].str());
    }

    bool subscribed(uint32_t opcode) const
    {
        uint32_t hs[64];
        size_t n = tarnhost_bus_subscribers(opcode, hs, 64);
        for (size_t i = 0; i < n && i < 64; ++i)
            if (hs[i] == handle_)
                return true;
        return false;
    }

    // Nothing of the handle is left on the bus.
    void expect_released() const
    {
        const std::string bus = root_ + "/bus";
        struct stat st;
        EXPECT_NE(0, lstat((bus + "/ap/" + std::to_string(sap_)).c_str(), &st))
            << "stale access point " << sap_;
        EXPECT_NE(0, lstat((bus + "/h/" + std::to_string(handle_)).c_str(), &st))
            << "stale handle " << handle_;
        std::error_code ec;
        for (const auto &d : std::filesystem::directory_iterator(bus + "/sub", ec))
            EXPECT_FALSE(std::filesystem::exists(
                d.path() / std::to_string(handle_)))
                << "stale subscription " << d.path();
    }

    // The closing lines: why it stopped and libtarn's tracked memory, the
    // client record alone (it is never freed, by design).
    void expect_clean_stop(const std::string &out, const std::string &why,
                           size_t messages) const
    {
        std::vector<std::string> l = tarntest::split_lines(out);
        ASSERT_GE(l.size(), 2u);
        EXPECT_EQ("stopped (" + why + ") after " + std::to_string(messages) +
                      (messages == 1 ? " message" : " messages") + "; access point " +
                      std::to_string(sap_) +
                      " released",
                  l[l.size() - 2]);
        EXPECT_TRUE(std::regex_match(
            l.back(),
            std::regex("tracked memory of library 445: TARN_LIB_MEM_TARN_CLT 1 "
                       "\\([0-9]+ bytes\\), TARN_LIB_MEM_GYRE_CACHE 0 \\(0 "
                       "bytes\\), TARN_LIB_MEM_GYRE_TPG 0 \\(0 bytes\\)")))
            << l.back();
    }

    // Publishes and waits for the line that reports it.
    void publish_and_expect(Proc *p, uint32_t opcode,
                            const std::vector<uint8_t> &payload,
                            const std::string &pattern)
    {
        const size_t before = count_lines(p->out());
        ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, opcode, payload.data(),
                                          static_cast<uint32_t>(payload.size())));
        for (int i = 0; i < 1500 && count_lines(p->out()) == before; ++i)
            sleep_ms(20);
        std::vector<std::string> l = tarntest::split_lines(p->out());
        ASSERT_EQ(before + 1, l.size()) << p->out();
        EXPECT_TRUE(std::regex_match(l.back(), std::regex(kTime + pattern)))
            << l.back() << "\n  expected: " << pattern;
    }

    uint32_t sap_ = 0;
    uint32_t handle_ = 0;
};

template <typename T>
void put(std::vector<uint8_t> *v, size_t at, T value)
{
    if (v->size() < at + sizeof value)
        v->resize(at + sizeof value, 0);
    memcpy(v->data() + at, &value, sizeof value);
}

std::vector<uint8_t> attr_change(uint16_t kind, uint32_t word24)
{
    std::vector<uint8_t> p(28, 0);
    put<uint16_t>(&p, 2, kind);
    put<uint32_t>(&p, 20, 28);
    put<uint32_t>(&p, 24, word24);
    return p;
}

std::vector<uint8_t> vlan_change(uint32_t tpg, uint32_t lo, uint32_t hi)
{
    std::vector<uint8_t> p(24, 0);
    put<uint32_t>(&p, 20, 1);
    gyre_tpg_vlan_info_t rec;
    memset(&rec, 0, sizeof rec);
    rec.tpg_id = tpg;
    snprintf(rec.name, sizeof rec.name, "%u", tpg);
    rec.vlans.len = GYRE_VLAN_BMP_BYTES;
    for (uint32_t v = lo; v <= hi; ++v)
        rec.vlans.bits[v / 8] |= static_cast<uint8_t>(0x80u >> (v % 8));
    const uint8_t *b = reinterpret_cast<const uint8_t *>(&rec);
    p.insert(p.end(), b, b + sizeof rec);
    return p;
}

std::vector<uint8_t> ftag_change(uint32_t reason, uint32_t tpg, uint16_t graph,
                                 uint16_t ftag, uint32_t flags)
{
    std::vector<uint8_t> p(4 + 1048, 0);
    put<uint32_t>(&p, 0, 1);
    put<uint32_t>(&p, 4, reason);
    put<uint32_t>(&p, 8, tpg);
    put<uint16_t>(&p, 12, graph);
    put<uint16_t>(&p, 14, ftag);
    put<uint32_t>(&p, 16, flags);
    return p;
}

std::vector<uint8_t> topology_change(uint32_t tpg)
{
    std::vector<uint8_t> p(24, 0);
    put<uint32_t>(&p, 20, tpg);
    return p;
}

TEST_F(TarnctlWatch, AppliesNotificationsAndStopsOnSigterm)
{
    Proc p;
    start(&p);
    std::vector<std::string> l = tarntest::split_lines(p.out());
    ASSERT_EQ(5u, l.size()) << p.out();
    EXPECT_EQ("AS format 2", l[1]);
    EXPECT_EQ("cached topology 7 vlans 10-20,30 ftags 3-4", l[2]);
    EXPECT_EQ("cached topology 8 vlans 100 ftags 9", l[3]);
    EXPECT_EQ("watching", l[4]);
    for (uint32_t opc : {51201u, 51208u, 51214u, 51215u, 51226u})
        EXPECT_TRUE(subscribed(opc)) << opc;

    publish_and_expect(&p, BUS_OPC_GYRE_TPG_VLANS, vlan_change(7, 10, 12),
                       "GYRE_TPG_VLANS topology 7 vlans 10-12 ftags 3-4");
    publish_and_expect(&p, BUS_OPC_GYRE_FTAG_UPDATE,
                       ftag_change(GYRE_FTAG_CREATE, 8, 2, 11, 2),
                       "GYRE_FTAG_UPDATE GYRE_FTAG_CREATE ftag 11 topology 8 graph 2 "
                       "flags 0x2: topology 8 vlans 100 ftags 9,11");
    publish_and_expect(&p, BUS_OPC_GYRE_FTAG_UPDATE,
                       ftag_change(GYRE_FTAG_DELETE, 7, 2, 4, 6),
                       "GYRE_FTAG_UPDATE GYRE_FTAG_DELETE ftag 4 topology 7 graph 2 "
                       "flags 0x6: ftag 4 unused");
    publish_and_expect(&p, BUS_OPC_TARN_ATTR_CHANGE, attr_change(1, 3),
                       "TARN_ATTR_CHANGE kind 1: AS format 3");
    publish_and_expect(&p, BUS_OPC_GYRE_TPG_CREATE, topology_change(40),
                       "GYRE_TPG_CREATE created: topology 40 vlans -- ftags --");
    publish_and_expect(&p, BUS_OPC_GYRE_TPG_DELETE, topology_change(8),
                       "GYRE_TPG_DELETE deleted: topology 8 not cached");
    publish_and_expect(&p, 51211, {},
                       "GYRE_NOTIFY_C80B nothing for the cache");
    // A payload too short to name its topology still says so.
    publish_and_expect(&p, BUS_OPC_GYRE_TPG_DELETE, {1},
                       "GYRE_TPG_DELETE a payload of 1 byte, too short to say what changed");
    publish_and_expect(&p, BUS_OPC_TARN_ATTR_CHANGE, attr_change(9, 0),
                       "TARN_ATTR_CHANGE kind 9: ignored");
    // Without a payload the library leaves the message to its caller.
    publish_and_expect(&p, BUS_OPC_TARN_ATTR_CHANGE, {},
                       "TARN_ATTR_CHANGE no payload \\(not taken by libtarn\\)");
    // Subscribed, but left to the caller by the library: dropped by watch.
    publish_and_expect(&p, 51205, {1, 2, 3, 4}, "GYRE_NOTIFY_C805 not for libtarn");

    // A cache dump request on its access point is answered.
    {
        uint32_t me = bus_bind(0, -1, nullptr, "test requester");
        ASSERT_NE(BUS_HANDLE_NONE, me);
        // The requester prints the pages on standard output: keep them.
        const std::string dump_path = root_ + "/dump.out";
        fflush(stdout);
        int saved = dup(1);
        int fd = open(dump_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_GE(fd, 0);
        dup2(fd, 1);
        close(fd);
        uint32_t rc = gyre_client_dbg_print_cache(me, BUS_NODE_LOCAL, sap_);
        fflush(stdout);
        dup2(saved, 1);
        close(saved);
        bus_unbind(me);
        EXPECT_EQ(0u, rc);
        // The cache as the notifications above left it.
        const std::string dump = slurp(dump_path);
        EXPECT_TRUE(std::regex_search(dump, std::regex("\n7 +10-12 +3 +\n")))
            << dump;
        EXPECT_TRUE(std::regex_search(dump, std::regex("\n40 +-- +-- +\n")))
            << dump;
        EXPECT_EQ(std::string::npos, dump.find("\n8 ")) << dump;
        ASSERT_TRUE(p.wait_for("cache dump page 1 answered\n")) << p.out();
    }

    EXPECT_EQ(0, kill(p.pid, SIGTERM));
    EXPECT_EQ(0, p.wait());
    expect_clean_stop(p.out(), "signal", 12);
    EXPECT_EQ("", p.err());
    expect_released();
    for (uint32_t opc : {51201u, 51208u, 51214u, 51215u, 51226u})
        EXPECT_FALSE(subscribed(opc)) << opc;
}

TEST_F(TarnctlWatch, StopsOnSigint)
{
    Proc p;
    start(&p, {"--sap", "1234"});
    EXPECT_EQ(1234u, sap_);
    struct stat st;
    EXPECT_EQ(0, lstat((root_ + "/bus/ap/1234").c_str(), &st));
    EXPECT_EQ(0, kill(p.pid, SIGINT));
    EXPECT_EQ(0, p.wait());
    expect_clean_stop(p.out(), "signal", 0);
    expect_released();
}

// With --json every line is one JSON object of the documented layout.
TEST_F(TarnctlWatch, JsonLines)
{
    Proc p;
    p.start({"watch", "--count", "1", "--timeout", "120", "--json"});
    ASSERT_TRUE(p.wait_for("\"start\"")) << p.out() << p.err();
    for (int i = 0; i < 100 && count_lines(p.out()) < 1; ++i)
        sleep_ms(20);
    ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, BUS_OPC_TARN_ATTR_CHANGE,
                                      attr_change(1, 6).data(),
                                      static_cast<uint32_t>(attr_change(1, 6).size())));
    EXPECT_EQ(0, p.wait());
    std::vector<std::string> l = tarntest::split_lines(p.out());
    ASSERT_EQ(3u, l.size()) << p.out();
    const char *defs[] = {"watch_start", "watch_notification", "watch_stop"};
    for (size_t i = 0; i < 3; ++i) {
        const nlohmann::json doc = nlohmann::json::parse(l[i], nullptr, false);
        EXPECT_EQ("", tarntest::tarnctl_schema_problem(defs[i], doc)) << l[i];
    }
    const nlohmann::json start = nlohmann::json::parse(l[0]);
    EXPECT_EQ(nlohmann::json::parse(R"(["topology 7 vlans 10-20,30 ftags 3-4",
                                        "topology 8 vlans 100 ftags 9"])"),
              start["cached"]);
    const nlohmann::json msg = nlohmann::json::parse(l[1]);
    EXPECT_EQ(51226, msg["opcode"]);
    EXPECT_EQ("TARN_ATTR_CHANGE", msg["name"]);
    EXPECT_EQ("kind 1: AS format 6", msg["change"]);
    EXPECT_EQ("count", nlohmann::json::parse(l[2])["reason"]);
}

// A load announces nothing: it says which running clients keep the device
// before it, and how to bring them along.
TEST_F(TarnctlWatch, LoadNamesTheClientsItDidNotTell)
{
    Proc p;
    start(&p);
    const std::string file = root_ + "/device.json";
    Result r = tarnctl({"load", file});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos,
              r.out.find("note: 1 client on the bus (handle " + std::to_string(handle_) +
                         ") was not told: a load announces nothing, so what it caches is the "
                         "device before it; restart it, or change the device with \"tarnctl "
                         "apply\", which announces each change\n"))
        << r.out;
    r = tarnctl({"load", file, "--json"});
    ASSERT_EQ(0, r.status) << r.err;
    const nlohmann::json doc = nlohmann::json::parse(r.out);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("load", doc)) << r.out;
    EXPECT_EQ(nlohmann::json::array({handle_}), doc["clients_not_told"]);
    EXPECT_EQ(0, kill(p.pid, SIGINT));
    EXPECT_EQ(0, p.wait());
    r = tarnctl({"load", file});
    EXPECT_EQ(std::string::npos, r.out.find("note:")) << r.out;
}

TEST_F(TarnctlWatch, StopsAfterCount)
{
    Proc p;
    start(&p, {"--count", "2"});
    publish_and_expect(&p, BUS_OPC_TARN_ATTR_CHANGE, attr_change(1, 5),
                       "TARN_ATTR_CHANGE kind 1: AS format 5");
    ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, BUS_OPC_GYRE_TPG_VLANS,
                                      vlan_change(8, 100, 101).data(),
                                      static_cast<uint32_t>(vlan_change(8, 100, 101).size())));
    EXPECT_EQ(0, p.wait());
    std::vector<std::string> l = tarntest::split_lines(p.out());
    ASSERT_GE(l.size(), 3u);
    EXPECT_TRUE(std::regex_match(
        l[l.size() - 3], std::regex(std::string(kTime) +
                                    "GYRE_TPG_VLANS topology 8 vlans 100-101 ftags 9")))
        << l[l.size() - 3];
    expect_clean_stop(p.out(), "count", 2);
    expect_released();
}

TEST_F(TarnctlWatch, StopsAfterTimeout)
{
    Proc p;
    p.start({"watch", "--timeout=1"});
    EXPECT_EQ(0, p.wait());
    std::smatch m;
    const std::string first = tarntest::split_lines(p.out()).at(0);
    ASSERT_TRUE(std::regex_match(
        first, m, std::regex("access point ([0-9]+), bus handle ([0-9]+), .*")));
    sap_ = static_cast<uint32_t>(std::stoul(m[1]));
    handle_ = static_cast<uint32_t>(std::stoul(m[2]));
    expect_clean_stop(p.out(), "timeout", 0);
    expect_released();
}

TEST_F(TarnctlWatch, TwoWatchersTakeTwoAccessPoints)
{
    Proc a, b;
    start(&a);
    const uint32_t first = sap_;
    start(&b);
    EXPECT_NE(first, sap_);
    publish_and_expect(&b, BUS_OPC_TARN_ATTR_CHANGE, attr_change(1, 7),
                       "TARN_ATTR_CHANGE kind 1: AS format 7");
    ASSERT_TRUE(a.wait_for("kind 1: AS format 7\n")) << a.out();
    kill(a.pid, SIGTERM);
    kill(b.pid, SIGTERM);
    EXPECT_EQ(0, a.wait());
    EXPECT_EQ(0, b.wait());
}

TEST_F(TarnctlWatch, UsageErrors)
{
    const std::vector<std::vector<std::string>> bad = {
        {"watch", "--count"},        {"watch", "--count", "0"},
        {"watch", "--count", "x"},   {"watch", "--timeout", "-1"},
        {"watch", "--timeout=0"},    {"watch", "--sap", "0"},
        {"watch", "--sap", "99999999999"},
        {"watch", "--bogus"},        {"watch", "extra"},
    };
    for (const auto &args : bad) {
        Result r = tarnctl(args);
        EXPECT_EQ(2, r.status) << args.back();
        EXPECT_EQ("", r.out);
        EXPECT_EQ(1u, count_lines(r.err)) << r.err;
        EXPECT_NE(std::string::npos,
                  r.err.find("(see \"tarnctl watch --help\")"))
            << r.err;
    }
    Result r = tarnctl({"watch", "--count", "0"});
    EXPECT_EQ("tarnctl watch: --count takes a number from 1 to 4294967295; "
              "usage: tarnctl watch [--sap N] [--count N] [--timeout S] [--json] [--passive] "
              "[--opcode OPCODE]... (see "
              "\"tarnctl watch --help\")\n",
              r.err);
    r = tarnctl({"watch", "--help"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(0u, r.out.find("usage: tarnctl watch "));
}

TEST_F(TarnctlWatch, Failures)
{
    // An access point held by a live process.
    uint32_t held = tarnhost_bus_serve(1500, "test");
    ASSERT_NE(BUS_HANDLE_NONE, held);
    Result r = tarnctl({"watch", "--sap", "1500", "--timeout", "5"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl watch: access point 1500 is taken by a live process; "
              "choose another with --sap\n",
              r.err);
    bus_unbind(held);

    r = tarnctl({"watch", "--timeout", "5"}, {"TARNHOST_CELL=3"});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("could not be initialised")) << r.err;
    EXPECT_EQ(1u, count_lines(r.err));
}

TEST(TarnctlWatchNoDevice, NotUp)
{
    const std::string root = tarntest::fresh_root();
    Result r = tarnctl({"watch", "--timeout", "5"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl watch: the device in " + root +
                  " is not up; load one with \"tarnctl load FILE\"\n",
              r.err);
    // Nothing was bound.
    std::error_code ec;
    EXPECT_TRUE(!std::filesystem::exists(root + "/bus/ap") ||
                std::filesystem::is_empty(root + "/bus/ap", ec));
    tarntest::remove_root(root);
}

}  // namespace
