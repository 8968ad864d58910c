// tarnctl watch --json, --passive and --opcode, and tarnctl record and
// replay: a device's notifications recorded, a fresh device loaded, the
// recording replayed, and a second client ending with the same cache as
// the first.

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/tarnhost.h"
#include "support/fixture.h"
#include "support/json_schema.h"
#include "support/tool_process.h"

namespace {

using json = nlohmann::json;
using tarntest::Proc;
using tarntest::Result;
using tarntest::tarnctl;

class TarnctlRecord : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        load();
    }
    void load()
    {
        Result r = tarnctl({"load", std::string(TARN_SOURCE_DIR) + "/examples/device.json"});
        ASSERT_EQ(0, r.status) << r.err;
    }
    void apply()
    {
        Result r = tarnctl({"apply", std::string(TARN_SOURCE_DIR) + "/examples/changes.json"});
        ASSERT_EQ(0, r.status) << r.err;
    }
    std::string dump(const std::string &sap)
    {
        Result r = tarnctl({"dump-cache", "--sap", sap});
        EXPECT_EQ(0, r.status) << r.err;
        return r.out;
    }
};

TEST_F(TarnctlRecord, WatchJsonPrintsOneObjectPerLine)
{
    Proc w;
    w.start({"watch", "--json", "--sap", "1200", "--count", "2", "--opcode", "51226",
             "--opcode=51208"});
    ASSERT_TRUE(w.wait_for("\"event\":\"start\"")) << w.err();
    apply();
    ASSERT_EQ(0, w.wait()) << w.err();
    const std::vector<std::string> out = tarntest::split_lines(w.out());
    std::vector<json> events;
    for (const std::string &l : out) {
        json j = json::parse(l, nullptr, false);
        ASSERT_TRUE(j.is_object()) << l;
        events.push_back(j);
    }
    ASSERT_EQ(4u, events.size()) << w.out();
    const char *defs[] = {"watch_start", "watch_notification", "watch_notification",
                          "watch_stop"};
    for (size_t i = 0; i < 4; ++i)
        EXPECT_EQ("", tarntest::tarnctl_schema_problem(defs[i], events[i])) << out[i];
    EXPECT_EQ("start", events[0]["event"]);
    EXPECT_EQ(1200, events[0]["access_point"]);
    EXPECT_EQ(false, events[0]["passive"]);
    EXPECT_EQ(2, events[0]["as_format"]);
    // Only the opcodes asked for, in order: the topology created, then the
    // first attribute change (kind 2 of changes.json).
    EXPECT_EQ("notification", events[1]["event"]);
    EXPECT_EQ(51208, events[1]["opcode"]);
    EXPECT_TRUE(events[1]["taken"].is_boolean());
    EXPECT_EQ("GYRE_TPG_CREATE", events[1]["name"]);
    EXPECT_EQ(24, events[1]["bytes"]);
    EXPECT_EQ(std::string(40, '0') + "28000000", events[1]["payload"]);
    EXPECT_EQ(51226, events[2]["opcode"]);
    EXPECT_TRUE(std::regex_match(events[1]["time"].get<std::string>(),
                                 std::regex("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{6}Z")));
    EXPECT_EQ("stop", events[3]["event"]);
    EXPECT_EQ("count", events[3]["reason"]);
    EXPECT_EQ(2, events[3]["messages"]);
    bool saw_cache = false;
    for (const json &m : events[3]["memory"])
        if (m["type"] == "TARN_LIB_MEM_GYRE_CACHE") {
            saw_cache = true;
            EXPECT_EQ(0, m["count"]);
        }
    EXPECT_TRUE(saw_cache) << out[3];
}

TEST_F(TarnctlRecord, PassiveWatchEnablesNothingAndPrintsPayloads)
{
    Proc p;
    p.start({"watch", "--passive", "--count", "1", "--opcode", "51208"});
    ASSERT_TRUE(p.wait_for("watching\n")) << p.err();
    // Subscribed, but no libtarn client: nothing to ask, no cache.
    Result clients = tarnctl({"show", "clients", "--json"});
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("show_clients", json::parse(clients.out)))
        << clients.out;
    const json listed = json::parse(clients.out)["clients"];
    ASSERT_EQ(1u, listed.size()) << clients.out;
    EXPECT_TRUE(listed[0]["helper"].is_null());
    EXPECT_TRUE(listed[0]["access_point"].is_null());
    EXPECT_TRUE(listed[0]["gyre_cache"].is_null());
    EXPECT_TRUE(listed[0]["address"].is_null());
    apply();
    ASSERT_EQ(0, p.wait()) << p.err();
    const std::vector<std::string> out = tarntest::split_lines(p.out());
    ASSERT_EQ(4u, out.size()) << p.out();
    EXPECT_TRUE(std::regex_match(out[0], std::regex("passive listener, bus handle [0-9]+, device " +
                                                    root_)))
        << out[0];
    // Topology 40 created: 24 bytes, the id at offset 20.
    EXPECT_TRUE(std::regex_match(
        out[2], std::regex("[0-9:.]{12} GYRE_TPG_CREATE 24 bytes 0{40}28000000")))
        << out[2];
    EXPECT_EQ("stopped (count) after 1 message", out[3]);

    Result r = tarnctl({"watch", "--passive", "--sap", "5"});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("--passive listens on a dynamic handle; drop --sap"));
    r = tarnctl({"watch", "--opcode", "x"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("tarnctl watch: --opcode takes the name or number of an opcode, not \"x\"; usage: tarnctl watch [--sap N] [--count N] [--timeout S] [--json] [--passive] [--opcode OPCODE]... (see \"tarnctl watch --help\")\n",
              r.err);
    // An opcode that nobody sends to a client of libtarn.
    for (const char *unused : {"51300", "0", "51202", "0x54480001"}) {
        r = tarnctl({"watch", "--opcode", unused});
        EXPECT_EQ(2, r.status);
        EXPECT_EQ(std::string("tarnctl watch: opcode ") + unused +
                      " is not one that libtarn sends or receives (51201,51205,51208-51215,"
                      "51222-51223,51226; the command's --help names them); usage: tarnctl watch [--sap N] [--count N] [--timeout S] [--json] [--passive] [--opcode OPCODE]... (see \"tarnctl watch --help\")\n",
                  r.err);
    }
    r = tarnctl({"record", root_ + "/r.ndjson", "--opcode=99999999999"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ(0u, r.err.find("tarnctl record: --opcode takes the name or number of an opcode, "
                             "not \"99999999999\"; usage: tarnctl record FILE "
                             "[--opcode OPCODE]..."))
        << r.err;
    // The help names every opcode with its number, as the lines print them.
    r = tarnctl({"watch", "--help"});
    EXPECT_NE(std::string::npos, r.out.find("  TARN_ATTR_CHANGE             51226\n")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("  GYRE_NOTIFY_C809             51209\n")) << r.out;
}

// Names and numbers alike: a passive listener filtered by name hears that
// opcode only, and prints the name it was asked by.
TEST_F(TarnctlRecord, OpcodeFilterTakesNames)
{
    Proc p;
    p.start({"watch", "--passive", "--count", "1", "--opcode", "gyre_tpg_create",
             "--opcode=TARN_ATTR_CHANGE"});
    ASSERT_TRUE(p.wait_for("watching\n")) << p.err();
    const std::string changes = root_ + "/c.json";
    std::ofstream(changes) << R"({"changes": [{"change": "create_topology", "topology": 40}]})";
    ASSERT_EQ(0, tarnctl({"apply", changes}).status);
    ASSERT_EQ(0, p.wait()) << p.err();
    EXPECT_NE(std::string::npos, p.out().find(" GYRE_TPG_CREATE 24 bytes ")) << p.out();
}

// A root that holds no device: the commands that need one refuse it as
// "show" does, and none of them makes a device skeleton there.
TEST_F(TarnctlRecord, BusCommandsRefuseARootWithoutADevice)
{
    const std::string root = root_ + "/empty";
    ASSERT_EQ(0, mkdir(root.c_str(), 0700));
    const std::string env = "TARNHOST_ROOT=" + root;
    const std::string rec = root + "/rec.ndjson";
    {
        std::ofstream(root + "/in.ndjson") << "{\"recording\":1}\n";
    }
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
        {{"show", "contexts"}, "show contexts"},
        {{"show", "bus"}, "show bus"},
        {{"show", "clients"}, "show clients"},
        {{"record", rec, "--count", "1"}, "record"},
        {{"replay", root + "/in.ndjson"}, "replay"},
        {{"watch", "--passive", "--count", "1"}, "watch"},
        {{"dump-cache", "--sap", "1000"}, "dump-cache"},
    };
    for (const auto &c : cases) {
        const tarntest::TarnctlRun r = tarntest::run_tarnctl(TARNCTL_PATH, c.first, {env});
        EXPECT_EQ(1, r.status) << c.second;
        EXPECT_EQ("tarnctl " + c.second + ": the device in " + root +
                      " is not up; load one with \"tarnctl load FILE\"\n",
                  r.err);
    }
    // Nothing made: only the replay's input is there.
    EXPECT_EQ("", tarntest::slurp(rec));
    EXPECT_NE(0, access(rec.c_str(), F_OK));
    EXPECT_NE(0, access((root + "/bus").c_str(), F_OK));
    EXPECT_NE(0, access((root + "/kvs").c_str(), F_OK));
    unlink((root + "/in.ndjson").c_str());
    EXPECT_EQ(0, rmdir(root.c_str())) << "the root holds more than it did";
}

// Both listeners decode every payload through the same definition: each
// notification of changes.json carries its fields beside the raw payload,
// and the caching and the passive watcher decode it alike.
TEST_F(TarnctlRecord, WatchJsonDecodesEveryPayload)
{
    Proc w, p;
    w.start({"watch", "--json", "--sap", "1201", "--count", "8"});
    p.start({"watch", "--passive", "--json", "--count", "8"});
    ASSERT_TRUE(w.wait_for("\"event\":\"start\"")) << w.err();
    ASSERT_TRUE(p.wait_for("\"event\":\"start\"")) << p.err();
    apply();
    ASSERT_EQ(0, w.wait()) << w.err();
    ASSERT_EQ(0, p.wait()) << p.err();
    std::vector<json> caching, passive;
    for (const std::string &l : tarntest::split_lines(w.out()))
        caching.push_back(json::parse(l));
    for (const std::string &l : tarntest::split_lines(p.out()))
        passive.push_back(json::parse(l));
    ASSERT_EQ(10u, caching.size()) << w.out();
    ASSERT_EQ(10u, passive.size()) << p.out();
    for (size_t i = 1; i < 9; ++i) {
        EXPECT_EQ("", tarntest::tarnctl_schema_problem("watch_notification", caching[i]))
            << caching[i].dump();
        EXPECT_EQ("", tarntest::tarnctl_schema_problem("watch_notification", passive[i]))
            << passive[i].dump();
        EXPECT_EQ(caching[i]["decoded"], passive[i]["decoded"]) << i;
        EXPECT_EQ(true, caching[i]["decoded"]["complete"]) << caching[i].dump();
    }
    const json created = caching[1]["decoded"];
    EXPECT_EQ("topology_created", created["type"]);
    EXPECT_EQ(40, created["topology"]);
    const json vlans = caching[2]["decoded"];
    EXPECT_EQ("topology_vlans", vlans["type"]);
    EXPECT_EQ(2, vlans["declared"]);
    EXPECT_EQ(20, vlans["records"][0]["topology"]);
    EXPECT_EQ("200-249", vlans["records"][0]["vlans"]);
    EXPECT_EQ("40", vlans["records"][1]["name"]);
    EXPECT_EQ("250-259", vlans["records"][1]["vlans"]);
    EXPECT_EQ(10u, vlans["records"][1]["vlan_list"].size());
    EXPECT_EQ(250, vlans["records"][1]["vlan_list"][0]);
    const json ftags = caching[4]["decoded"];
    EXPECT_EQ("ftags_changed", ftags["type"]);
    ASSERT_EQ(4u, ftags["entries"].size()) << ftags.dump();
    EXPECT_EQ("GYRE_FTAG_CREATE", ftags["entries"][1]["reason_name"]);
    EXPECT_EQ(41, ftags["entries"][1]["ftag"]);
    EXPECT_EQ(2, ftags["entries"][1]["graph"]);
    EXPECT_EQ(6, ftags["entries"][1]["flags"]);
    EXPECT_EQ("GYRE_FTAG_DELETE", ftags["entries"][3]["reason_name"]);
    const json deleted = caching[5]["decoded"];
    EXPECT_EQ("topology_ftags_deleted", deleted["type"]);
    EXPECT_EQ(2, deleted["kind"]);
    EXPECT_EQ(30, deleted["topology"]);
    EXPECT_EQ(deleted["ftags"] == "--", deleted["ftag_list"].empty());
    EXPECT_EQ("topology_deleted", caching[6]["decoded"]["type"]);
    EXPECT_EQ(30, caching[6]["decoded"]["topology"]);
    EXPECT_EQ("as_format", caching[7]["decoded"]["type"]);
    EXPECT_EQ(1, caching[7]["decoded"]["as_format"]);
    const json dump = caching[8]["decoded"];
    EXPECT_EQ("cache_dump_request", dump["type"]);
    EXPECT_EQ(1, dump["iteration"]);
    EXPECT_EQ(28, dump["length"]);
}

TEST_F(TarnctlRecord, ReplayOnAFreshDeviceGivesASecondClientTheSameCache)
{
    const std::string file = root_ + "/notifications.ndjson";
    std::string first;
    {
        Proc a, rec;
        a.start({"watch", "--sap", "1300", "--timeout", "60"});
        ASSERT_TRUE(a.wait_for("watching\n")) << a.err();
        rec.start({"record", file, "--timeout", "60"});
        ASSERT_TRUE(rec.wait_for("recording to " + file + "\n")) << rec.err();
        const std::string before = dump("1300");
        apply();
        // The watcher has applied the last change once its dump answers it.
        ASSERT_TRUE(a.wait_for("kind 4")) << a.out();
        first = dump("1300");
        EXPECT_NE(before, first);
        kill(rec.pid, SIGTERM);
        EXPECT_EQ(0, rec.wait());
        EXPECT_NE(std::string::npos, rec.out().find("recorded 8 notifications (stopped: signal)\n"))
            << rec.out();
    }
    struct stat st;
    ASSERT_EQ(0, stat(file.c_str(), &st));
    EXPECT_EQ(0600u, st.st_mode & 0777);

    load();
    Proc b;
    b.start({"watch", "--sap", "1301", "--timeout", "60"});
    ASSERT_TRUE(b.wait_for("watching\n")) << b.err();
    EXPECT_NE(first, dump("1301"));
    Result r = tarnctl({"replay", file, "--speed", "0"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("replayed 8 of 8 notifications from " + file + "\n"))
        << r.out;
    EXPECT_TRUE(std::regex_search(r.out, std::regex("at [0-9.]+ GYRE_TPG_CREATE 24 bytes to 1 subscriber\n")));
    ASSERT_TRUE(b.wait_for("kind 4")) << b.out();
    EXPECT_EQ(first, dump("1301"));

    // The same replay as one JSON document: every notification with its
    // subscribers.
    r = tarnctl({"replay", file, "--speed", "0", "--json"});
    ASSERT_EQ(0, r.status) << r.err;
    const json doc = json::parse(r.out);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("replay", doc)) << r.out;
    EXPECT_EQ(8, doc["replayed"]);
    ASSERT_EQ(8u, doc["published"].size());
    EXPECT_EQ("GYRE_TPG_CREATE", doc["published"][0]["name"]);
    EXPECT_EQ(1, doc["published"][0]["subscribers"]);
    EXPECT_EQ(true, doc["published"][0]["delivered"]);
    r = tarnctl({"record", root_ + "/second.ndjson", "--count", "1", "--timeout", "1", "--json"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("record", json::parse(r.out))) << r.out;
    EXPECT_EQ("timeout", json::parse(r.out)["stopped"]);
}

TEST_F(TarnctlRecord, ReplayRefusesABadRecordingAndPublishesNothing)
{
    const std::string file = root_ + "/bad.ndjson";
    std::ofstream(file) << "{\"recording\":1}\n{\"at\":0.5,\"opcode\":51208,\"payload\":\"00\"}\n"
                        << "{\"at\":0.1,\"opcode\":51208,\"payload\":\"00\"}\n";
    Proc p;
    p.start({"watch", "--passive", "--timeout", "3"});
    ASSERT_TRUE(p.wait_for("watching\n"));
    Result r = tarnctl({"replay", file});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl replay: " + file +
                  ":3: \"at\" must be seconds (at most 31536000), not before the line above; "
                  "nothing was published\n",
              r.err);
    std::ofstream(file) << "{\"recording\":1}\n{\"at\":0,\"opcode\":51208,\"payload\":\"0g\"}\n";
    r = tarnctl({"replay", file});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find(":2: \"payload\" must be hex of at most"));
    std::ofstream(file) << "{\"at\":0}\n";
    r = tarnctl({"replay", file});
    EXPECT_NE(std::string::npos, r.err.find(":1: not a recording of \"tarnctl record\" (format 1)"));
    std::ofstream(file) << "";
    r = tarnctl({"replay", file});
    EXPECT_EQ("tarnctl replay: " + file + ": empty, not a recording; nothing was published\n", r.err);
    // A symbolic link is neither read nor written through.
    const std::string link = root_ + "/link.ndjson";
    ASSERT_EQ(0, symlink(file.c_str(), link.c_str()));
    r = tarnctl({"replay", link});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("cannot open " + link));
    r = tarnctl({"record", link, "--timeout", "1"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl record: cannot write " + link +
                  ": Too many levels of symbolic links (it is a symbolic link; name a file)\n",
              r.err);
    // With --json the error is one JSON object on standard error.
    r = tarnctl({"replay", link, "--json"});
    EXPECT_EQ(1, r.status);
    const json err = json::parse(r.err);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("error", err)) << r.err;
    EXPECT_EQ("replay", err["error"]["command"]);
    // A key given twice, and a time beyond any recording.
    std::ofstream(file) << "{\"recording\":1}\n{\"at\":1,\"opcode\":51208,\"payload\":\"00\","
                           "\"at\":2}\n";
    r = tarnctl({"replay", file});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl replay: " + file + ":2: at: given twice; nothing was published\n", r.err);
    std::ofstream(file) << "{\"recording\":1}\n{\"at\":1e308,\"opcode\":51208,\"payload\":\"00\"}\n";
    r = tarnctl({"replay", file});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find(":2: \"at\" must be seconds (at most 31536000)"))
        << r.err;
    // A recording that cannot be written is an error at once, not at the
    // first notification.
    r = tarnctl({"record", "/dev/full", "--timeout", "1"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl record: cannot write /dev/full: No space left on device\n", r.err);
    r = tarnctl({"replay", file, "--speed", "-1"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ(0, p.wait());
    EXPECT_NE(std::string::npos, p.out().find("stopped (timeout) after 0 messages\n")) << p.out();
}

}  // namespace
