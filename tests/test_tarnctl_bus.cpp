// tarnctl show bus, show clients and dump-cache's addressing and --verify,
// across processes: the built tool against "tarnctl watch" clients, a
// plain libtarn client and processes killed without unbinding.

#include <signal.h>
#include <sys/prctl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

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
#include "support/tool_process.h"

namespace {

using json = nlohmann::json;

using tarntest::Proc;
using tarntest::Result;
using tarntest::tarnctl;

const char kDevice[] = R"({
  "as_format": 2,
  "contexts": [{"id": 1, "name": "default"}],
  "topologies": [
    {"id": 7, "active_vlans": "10-20,30", "configured_vlans": "10-40",
     "ftags": [{"ftag": 3, "graph": 1, "flags": 20}, {"ftag": 4, "graph": 2, "flags": 6},
               {"ftag": 5, "graph": 2, "flags": 2}]},
    {"id": 8, "active_vlans": "100", "ftags": [{"ftag": 9, "graph": 1}]}
  ]
})";

// The same device after changes that a stopped client never heard of: the
// AS format, and ftag 5 moved from topology 7 to topology 8.
const char kChanged[] = R"({
  "as_format": 3,
  "contexts": [{"id": 1, "name": "default"}],
  "topologies": [
    {"id": 7, "active_vlans": "10-20,30", "configured_vlans": "10-40",
     "ftags": [{"ftag": 3, "graph": 1, "flags": 20}, {"ftag": 4, "graph": 2, "flags": 6}]},
    {"id": 8, "active_vlans": "100",
     "ftags": [{"ftag": 9, "graph": 1}, {"ftag": 5, "graph": 2, "flags": 2}]}
  ]
})";

class TarnctlBus : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        load(kDevice);
    }

    void load(const char *text)
    {
        const std::string file = root_ + "/device.json";
        std::ofstream(file) << text;
        Result r = tarnctl({"load", file});
        ASSERT_EQ(0, r.status) << r.err;
    }

    // Starts a watcher and reads its access point and handle.
    void watch(Proc *p, uint32_t *sap, uint32_t *handle)
    {
        p->start({"watch", "--timeout", "120"});
        ASSERT_TRUE(p->wait_for("watching\n")) << p->out() << p->err();
        std::smatch m;
        const std::string out = p->out();
        ASSERT_TRUE(std::regex_search(out, m,
                                      std::regex("access point ([0-9]+), bus handle ([0-9]+)")));
        *sap = static_cast<uint32_t>(std::stoul(m[1]));
        *handle = static_cast<uint32_t>(std::stoul(m[2]));
    }
};

// A process that binds access point `sap`, subscribes to the attribute
// change and dies without unbinding.  Its handle.
uint32_t leave_litter(int32_t sap)
{
    int fds[2];
    if (pipe(fds) != 0)
        return BUS_HANDLE_NONE;
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        uint32_t h = tarnhost_bus_serve(sap, "litter");
        if (h != BUS_HANDLE_NONE)
            tarnhost_bus_subscribe(h, 51226, 1);
        (void)!write(fds[1], &h, sizeof h);
        raise(SIGKILL);
        _exit(1);
    }
    close(fds[1]);
    uint32_t h = BUS_HANDLE_NONE;
    if (read(fds[0], &h, sizeof h) != sizeof h)
        h = BUS_HANDLE_NONE;
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return h;
}

TEST_F(TarnctlBus, ShowBusJsonFollowsItsSchemaWithLiveAndDeadEntries)
{
    Proc w;
    uint32_t sap = 0, handle = 0;
    watch(&w, &sap, &handle);
    const uint32_t dead = leave_litter(1500);
    ASSERT_NE(BUS_HANDLE_NONE, dead);

    Result r = tarnctl({"show", "bus", "--json"});
    ASSERT_EQ(0, r.status) << r.err;
    const json doc = json::parse(r.out);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("show_bus", doc)) << r.out;
    EXPECT_EQ(1, doc["schema"]);
    EXPECT_EQ(root_, doc["device"]);

    bool saw_live = false, saw_dead = false;
    for (const json &h : doc["handles"]) {
        if (h["handle"] == handle) {
            saw_live = true;
            EXPECT_EQ(true, h["alive"]);
            EXPECT_EQ(sap, h["access_point"]);
            EXPECT_EQ(w.pid, h["pid"]);
            EXPECT_EQ("tarnctl", h["process"]);
            EXPECT_EQ(0, h["queue_head_bytes"]);
            const auto subs = h["subscriptions"].get<std::vector<uint32_t>>();
            EXPECT_NE(subs.end(), std::find(subs.begin(), subs.end(), 51226u));
            EXPECT_NE(subs.end(), std::find(subs.begin(), subs.end(), 51215u));
        }
        if (h["handle"] == dead) {
            saw_dead = true;
            EXPECT_EQ(false, h["alive"]);
            EXPECT_TRUE(h["pid"].is_null());
            EXPECT_TRUE(h["access_point"].is_null());
        }
    }
    EXPECT_TRUE(saw_live && saw_dead) << r.out;
    const json want_dead = json::array({
        {{"kind", "handle"}, {"handle", dead}},
        {{"kind", "access_point"}, {"access_point", 1500}, {"handle", dead}},
        {{"kind", "subscription"}, {"opcode", 51226}, {"handle", dead}},
    });
    EXPECT_EQ(want_dead, doc["dead"]);

    r = tarnctl({"show", "bus"});
    ASSERT_EQ(0, r.status) << r.err;
    const std::string d = std::to_string(dead);
    EXPECT_NE(std::string::npos, r.out.find("  handle " + d + ": socket file without a socket\n"))
        << r.out;
    EXPECT_NE(std::string::npos,
              r.out.find("  access point 1500 -> handle " + d + ": nobody serves it\n"));
    EXPECT_NE(std::string::npos, r.out.find("  subscription to 51226 of handle " + d +
                                            ": the handle is gone\n"));
    EXPECT_TRUE(std::regex_search(
        r.out, std::regex("\n" + std::to_string(handle) + " +" + std::to_string(sap) +
                          " +alive +" + std::to_string(w.pid) + " +tarnctl ")))
        << r.out;
}

TEST_F(TarnctlBus, ShowBusCountsWhatAStoppedClientMissed)
{
    Proc w;
    uint32_t sap = 0, handle = 0;
    watch(&w, &sap, &handle);
    ASSERT_EQ(0, kill(w.pid, SIGSTOP));
    std::string changes = "{\"changes\": [";
    for (int i = 0; i < 40; ++i)
        changes += std::string(i ? "," : "") + "{\"change\": \"as_format\", \"format\": " +
                   std::to_string(2 + i % 2) + "}";
    const std::string file = root_ + "/changes.json";
    std::ofstream(file) << changes << "]}";
    Result r = tarnctl({"apply", file});
    ASSERT_EQ(0, r.status) << r.err;

    uint32_t missed = 0;
    ASSERT_EQ(0, tarnhost_bus_missed(handle, &missed));
    EXPECT_GT(missed, 0u);
    r = tarnctl({"show", "bus", "--json"});
    ASSERT_EQ(0, r.status) << r.err;
    bool seen = false;
    const json doc = json::parse(r.out);
    for (const json &h : doc["handles"])
        if (h["handle"] == handle) {
            seen = true;
            EXPECT_EQ(missed, h["drops"]);
            // An attribute change waits at the head of its queue.
            EXPECT_EQ(28 + 28, h["queue_head_bytes"]);
            EXPECT_EQ(true, h["alive"]);
        }
    EXPECT_TRUE(seen) << r.out;
    ASSERT_EQ(0, kill(w.pid, SIGCONT));
}

TEST_F(TarnctlBus, ShowBusOnAnEmptyBus)
{
    Result r = tarnctl({"show", "bus"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("(no handles)\n"));
    EXPECT_NE(std::string::npos, r.out.find("dead entries:\n  (none)\n"));
    r = tarnctl({"show", "bus", "--bogus"});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("show bus: unknown argument \"--bogus\""));
}

// Anybody who can publish on the device can name topologies without end,
// and the library adds a node for each one it does not know.  A client on
// the host's helper holds at most 16384: a notification that would take it
// past that is not applied, and the cache is built again from the
// databases.  show clients says what a client holds.
TEST_F(TarnctlBus, AClientOnTheHelperHoldsABoundedNumberOfTopologies)
{
    Proc w;
    uint32_t sap = 0, handle = 0;
    watch(&w, &sap, &handle);
    constexpr uint32_t kPerMessage = 450, kMessages = 40;  // 18000 topologies
    uint32_t next = 100000;
    for (uint32_t m = 0; m < kMessages; ++m) {
        std::vector<uint8_t> payload(24 + kPerMessage * 556, 0);
        memcpy(&payload[20], &kPerMessage, 4);
        for (uint32_t i = 0; i < kPerMessage; ++i, ++next) {
            memcpy(&payload[24 + i * 556], &next, 4);
            const uint32_t bitmap = 512;
            memcpy(&payload[24 + i * 556 + 40], &bitmap, 4);
        }
        ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, 51214, payload.data(),
                                          static_cast<uint32_t>(payload.size())));
    }
    // The last message has gone through when the client answers again.
    json c;
    for (int i = 0; i < 100; ++i) {
        Result r = tarnctl({"show", "clients", "--json"});
        ASSERT_EQ(0, r.status) << r.err;
        const json doc = json::parse(r.out);
        ASSERT_EQ(1u, doc["clients"].size()) << r.out;
        c = doc["clients"][0];
        if (c["cached_topologies"] == 2u + 3u * kPerMessage)
            break;
        usleep(100000);
    }
    ASSERT_TRUE(c["cached_topologies"].is_number()) << c.dump();
    const uint64_t held = c["cached_topologies"].get<uint64_t>();
    EXPECT_LE(held, 16384u);
    // 36 messages fit (16200 + the device's 2); the 37th made it start
    // again from the databases' 2, and the last three came on top.
    EXPECT_EQ(2u + 3u * kPerMessage, held);
    kill(w.pid, SIGTERM);
}

TEST_F(TarnctlBus, ShowClientsAndDumpCacheByAccessPointAndPid)
{
    Proc w;
    uint32_t sap = 0, handle = 0;
    watch(&w, &sap, &handle);

    Result r = tarnctl({"show", "clients", "--json"});
    ASSERT_EQ(0, r.status) << r.err;
    const json doc = json::parse(r.out);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("show_clients", doc)) << r.out;
    ASSERT_EQ(1u, doc["clients"].size()) << r.out;
    const json &c = doc["clients"][0];
    EXPECT_EQ(handle, c["handle"]);
    EXPECT_EQ(sap, c["access_point"]);
    EXPECT_EQ(w.pid, c["pid"]);
    EXPECT_EQ(true, c["helper"]);
    EXPECT_EQ(true, c["tarn_cache_mode"]);
    EXPECT_EQ(true, c["as_format_tracked"]);
    EXPECT_EQ(2, c["as_format"]);
    EXPECT_EQ(true, c["gyre_cache"]);
    // What it holds, as it says: its cache's topologies, and memory.
    EXPECT_EQ(2, c["cached_topologies"]) << r.out;
    EXPECT_GT(c["library_bytes"].get<uint64_t>(), 2u * 600u) << r.out;
    EXPECT_EQ("--sap " + std::to_string(sap), c["address"]);

    // A stopped client answers nothing: what it is built on is not known.
    ASSERT_EQ(0, kill(w.pid, SIGSTOP));
    Result stopped = tarnctl({"show", "clients", "--json"});
    kill(w.pid, SIGCONT);
    ASSERT_EQ(0, stopped.status) << stopped.err;
    const json sdoc = json::parse(stopped.out);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("show_clients", sdoc)) << stopped.out;
    ASSERT_EQ(1u, sdoc["clients"].size());
    EXPECT_TRUE(sdoc["clients"][0]["helper"].is_null()) << stopped.out;
    EXPECT_TRUE(sdoc["clients"][0]["gyre_cache"].is_null()) << stopped.out;
    ASSERT_EQ(0, kill(w.pid, SIGSTOP));
    stopped = tarnctl({"show", "clients"});
    kill(w.pid, SIGCONT);
    EXPECT_NE(std::string::npos,
              stopped.out.find("note: \"?\" marks what a client did not say: it did not "
                               "answer within 1000 ms (stopped or busy)\n"))
        << stopped.out;

    // A process that is not running is named as such.
    pid_t gone = fork();
    if (gone == 0)
        _exit(0);
    ASSERT_GT(gone, 0);
    waitpid(gone, nullptr, 0);
    Result dead = tarnctl({"dump-cache", "--pid", std::to_string(gone)});
    EXPECT_EQ(1, dead.status);
    EXPECT_EQ("tarnctl dump-cache: process " + std::to_string(gone) +
                  " is not running; \"tarnctl show clients\" lists the clients and their "
                  "addresses\n",
              dead.err);

    r = tarnctl({"show", "clients"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(std::regex_search(
        r.out, std::regex("\n" + std::to_string(handle) + " +" + std::to_string(sap) + " +" +
                          std::to_string(w.pid) +
                          " +tarnctl +yes +on +tracked 2 +on +2 topologies, [0-9.]+ KiB +--sap " +
                          std::to_string(sap) +
                          "\n")))
        << r.out;

    // The three ways of naming it give the same dump.
    Result by_handle = tarnctl({"dump-cache", "--client", std::to_string(handle)});
    Result by_sap = tarnctl({"dump-cache", "--sap", std::to_string(sap)});
    Result by_pid = tarnctl({"dump-cache", "--pid=" + std::to_string(w.pid)});
    ASSERT_EQ(0, by_handle.status) << by_handle.err;
    EXPECT_EQ(0, by_sap.status) << by_sap.err;
    EXPECT_EQ(0, by_pid.status) << by_pid.err;
    EXPECT_NE(std::string::npos, by_handle.out.find("10-20,30"));
    EXPECT_EQ(by_handle.out, by_sap.out);
    EXPECT_EQ(by_handle.out, by_pid.out);

    // Names that lead nowhere.
    r = tarnctl({"dump-cache", "--sap", "1999"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl dump-cache: nobody serves access point 1999 on the device in " + root_ +
                  "; \"tarnctl show clients\" lists the clients and their addresses\n",
              r.err);
    r = tarnctl({"dump-cache", "--pid", std::to_string(getpid())});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("holds no registered client handle"));
    r = tarnctl({"dump-cache", "--sap", std::to_string(sap), "--pid", "1"});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("name one client (--client, --sap or --pid)"));
    r = tarnctl({"dump-cache", "--pid", "0"});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("--pid takes a process id"));
    r = tarnctl({"dump-cache", "--verify"});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("--client HANDLE, --sap N or --pid P is missing"));
}

size_t count(const std::string &s, const std::string &what)
{
    size_t n = 0;
    for (size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1))
        ++n;
    return n;
}

TEST_F(TarnctlBus, VerifyTellsDivergenceFromTheLibrarysDeliberateDifferences)
{
    Proc stale, fresh;
    uint32_t stale_sap = 0, stale_handle = 0;
    watch(&stale, &stale_sap, &stale_handle);

    // A client that followed every change so far: the deliberate
    // differences between the paths show, and nothing diverges.
    Result r = tarnctl({"dump-cache", "--sap", std::to_string(stale_sap), "--verify"});
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_EQ(0u, count(r.out, "DIVERGES")) << r.out;
    // Graph 1's ftag 3 is stored with flags 0x14, so the database's unicast
    // record (0x10) does not exist; the cache takes ftag 3.
    EXPECT_NE(std::string::npos,
              r.out.find("verify: topology 7: unicast ftag: cache 3, database none: as the "
                         "library intends (the cache takes the topology's lowest ftag with any "
                         "flags, the database reads graph 1's unicast record)\n"))
        << r.out;
    EXPECT_NE(std::string::npos,
              r.out.find("verify: topology 7: configured VLANs: cache 10-20,30, database 10-40: "
                         "as the library intends (the cache holds one VLAN set per topology, "
                         "the active one)\n"));
    EXPECT_NE(std::string::npos, r.out.find("verify: cache and database agree on 2 topologies; "));

    // Stopped while the device changes under it, without a word to it.
    ASSERT_EQ(0, kill(stale.pid, SIGSTOP));
    load(kChanged);
    ASSERT_EQ(0, kill(stale.pid, SIGCONT));

    r = tarnctl({"dump-cache", "--sap", std::to_string(stale_sap), "--verify"});
    EXPECT_EQ(1, r.status) << r.out << r.err;
    EXPECT_NE(std::string::npos, r.out.find("verify: AS format: cache 2, database 3: DIVERGES\n"))
        << r.out;
    EXPECT_NE(std::string::npos, r.out.find("verify: ftag 5: owner: cache 7, database 8: DIVERGES\n"));
    EXPECT_NE(std::string::npos,
              r.out.find("verify: topology 7: ftags: cache 3-5, database 3-4\n"));
    EXPECT_NE(std::string::npos,
              r.out.find("verify: topology 8: ftag of graph 2: cache none, database 5: DIVERGES\n"));
    // The same comparison as JSON: each answer with the rule that explains
    // it, or null where it diverges.
    r = tarnctl({"dump-cache", "--sap", std::to_string(stale_sap), "--verify", "--json"});
    EXPECT_EQ(1, r.status) << r.err;
    const json doc = json::parse(r.out);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("dump_cache", doc)) << r.out;
    EXPECT_EQ(false, doc["verify"]["agree"]);
    bool as_format = false;
    for (const json &d : doc["verify"]["answers"]["differences"])
        if (d["subject"] == "AS format") {
            as_format = true;
            EXPECT_EQ("2", d["cache"]);
            EXPECT_EQ("3", d["database"]);
            EXPECT_TRUE(d["intended"].is_null());
        }
    EXPECT_TRUE(as_format) << r.out;
    EXPECT_GT(doc["verify"]["answers"]["divergences"].get<int>(), 0);

    // A client started on the changed device agrees with it.
    uint32_t fresh_sap = 0, fresh_handle = 0;
    watch(&fresh, &fresh_sap, &fresh_handle);
    r = tarnctl({"dump-cache", "--sap", std::to_string(fresh_sap), "--verify"});
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_EQ(0u, count(r.out, "DIVERGES")) << r.out;
    EXPECT_NE(0u, count(r.out, "as the library intends"));
}

TEST_F(TarnctlBus, VerifyOfAClientWithoutTheHelperSaysWhatItCouldNotCompare)
{
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    pid_t pid = fork();
    if (pid == 0) {
        // A plain libtarn client: its own loop, tarn_dispatch only.
        close(fds[0]);
        uint32_t h = tarnhost_bus_serve(1700, "plain client");
        gyre_cache_attr_t attr;
        memset(&attr, 0, sizeof attr);
        attr.bus_handle = h;
        int ok = h != BUS_HANDLE_NONE && tarn_api_init() == TARN_SUCCESS &&
                 tarn_register(h) == TARN_SUCCESS && gyre_register(h) == TARN_SUCCESS &&
                 gyre_enable_cache_mode(&attr) == TARN_SUCCESS;
        (void)!write(fds[1], &ok, sizeof ok);
        for (int i = 0; i < 600; ++i) {
            bus_msg_t *m = tarnhost_bus_recv_ms(h, 100);
            if (m != nullptr && tarn_dispatch(m) != 1)
                bus_drop(h, m);
        }
        _exit(0);
    }
    close(fds[1]);
    int ok = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof ok), read(fds[0], &ok, sizeof ok));
    close(fds[0]);
    ASSERT_EQ(1, ok);

    Result r = tarnctl({"show", "clients"});
    EXPECT_TRUE(std::regex_search(r.out, std::regex(" +no +\\? +\\? +on +\\? +--sap 1700\n"))) << r.out;

    r = tarnctl({"dump-cache", "--pid", std::to_string(pid), "--verify"});
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_NE(std::string::npos,
              r.out.find("verify: the client does not answer the host's inspection request (it "
                         "is not built on the host's client helper): compared only what the dump "
                         "carries, each topology's VLAN and ftag sets; not compared: owners, "
                         "unicast ftags, ftags per graph, configured VLANs, the VLANs of each "
                         "ftag, the AS format\n"))
        << r.out;
    EXPECT_NE(std::string::npos, r.out.find("verify: cache and database agree on 2 topologies\n"));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

TEST_F(TarnctlBus, VerifyTellsWhyTheLibraryCouldNotStart)
{
    Proc client;
    uint32_t sap = 0, handle = 0;
    watch(&client, &sap, &handle);
    const std::vector<std::string> args = {"dump-cache", "--sap", std::to_string(sap),
                                           "--verify"};
    // Another cell: the dump is shown, the comparison cannot be made.
    tarntest::TarnctlRun run = tarntest::run_tarnctl(TARNCTL_PATH, args, {"TARNHOST_CELL=2"});
    EXPECT_EQ(1, run.status);
    EXPECT_NE(std::string::npos, run.out.find("10-20,30")) << run.out;
    EXPECT_EQ("tarnctl dump-cache: libtarn could not be initialised for the device in " +
                  root_ +
                  ": it serves cell 1 only and this process is in cell 2 (TARNHOST_CELL); "
                  "unset TARNHOST_CELL or set it to 1\n",
              run.err);
    // A damaged store: the cache is dumped from the client, the store is
    // not read.
    {
        std::fstream f(root_ + "/kvs/env/data.mdb",
                       std::ios::in | std::ios::out | std::ios::binary);
        const std::string noise(8192, '\x5a');
        f.seekp(4096);
        f.write(noise.data(), static_cast<std::streamsize>(noise.size()));
    }
    Result r = tarnctl(args);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl dump-cache: the store of the device in " + root_ +
                  " is damaged; rebuild it with \"tarnctl load FILE\"\n",
              r.err);
}

// A process name is the process's own choice: it may hold an escape
// sequence or a newline, and the table shows them escaped, one row per
// handle; JSON keeps the name raw.
TEST_F(TarnctlBus, ProcessNamesAreEscapedInTables)
{
    int to_parent[2], to_child[2];
    ASSERT_EQ(0, pipe(to_parent));
    ASSERT_EQ(0, pipe(to_child));
    pid_t pid = fork();
    if (pid == 0) {
        close(to_parent[0]);
        close(to_child[1]);
        prctl(PR_SET_NAME, "ev\x1b[2Jil\nx", 0, 0, 0);
        uint32_t h = tarnhost_bus_serve(1600, "named");
        if (h != BUS_HANDLE_NONE)
            tarnhost_bus_subscribe(h, 51226, 1);
        (void)!write(to_parent[1], &h, sizeof h);
        char c;
        (void)!read(to_child[0], &c, 1);  // until the test is done
        _exit(0);
    }
    close(to_parent[1]);
    close(to_child[0]);
    uint32_t h = BUS_HANDLE_NONE;
    ASSERT_EQ(static_cast<ssize_t>(sizeof h), read(to_parent[0], &h, sizeof h));
    close(to_parent[0]);
    ASSERT_NE(BUS_HANDLE_NONE, h);

    Result r = tarnctl({"show", "bus"});
    Result clients = tarnctl({"show", "clients"});
    Result as_json = tarnctl({"show", "bus", "--json"});
    close(to_child[1]);
    waitpid(pid, nullptr, 0);

    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(std::string::npos, r.out.find('\x1b')) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("ev\\e[2Jil\\nx")) << r.out;
    EXPECT_EQ(std::string::npos, clients.out.find('\x1b')) << clients.out;
    EXPECT_NE(std::string::npos, clients.out.find("ev\\e[2Jil\\nx")) << clients.out;
    bool found = false;
    const json doc = json::parse(as_json.out);
    for (const json &e : doc["handles"])
        if (e["handle"] == h) {
            found = true;
            EXPECT_EQ("ev\x1b[2Jil\nx", e["process"]);
        }
    EXPECT_TRUE(found) << as_json.out;
}

}  // namespace
