// tarnctl show: the built tool run against a device loaded from a
// description written here; tables and JSON documents compared with what
// that description says, and every usage and error path with its status.

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/tarnhost_bus.h"
#include "support/fixture.h"
#include "support/json_schema.h"
#include "support/tarnctl_process.h"

namespace {

using json = nlohmann::json;

struct Result {
    int status = -1;  // exit status, -1 when killed by a signal
    std::string out;
    std::string err;
};

using tarntest::slurp;

// Runs tarnctl with `args` in the test's host root; `env` entries
// ("NAME=VALUE") are added to the environment.
Result tarnctl(const std::vector<std::string> &args,
            const std::vector<std::string> &env = {})
{
    const std::string dir = tarnhost_root();
    const std::string out_path = dir + "/tarnctl.out";
    const std::string err_path = dir + "/tarnctl.err";
    const pid_t pid = tarntest::spawn_tarnctl(TARNCTL_PATH, args, env, out_path, err_path);
    Result r;
    int st = 0;
    if (pid > 0 && waitpid(pid, &st, 0) == pid && WIFEXITED(st))
        r.status = WEXITSTATUS(st);
    r.out = slurp(out_path);
    r.err = slurp(err_path);
    return r;
}

size_t lines(const std::string &s)
{
    size_t n = 0;
    for (char c : s)
        n += c == '\n';
    return n;
}

// The device of these tests.  The cell manager designates cell 2, so the
// interfaces of cell 1 are looked up for real (not all in "default").
const char kDevice[] = R"({
  "cell": 2,
  "cells": [1, 2],
  "as_format": 4,
  "contexts": [
    {"id": 1, "name": "default", "tables": [{"id": 1, "af": 1, "name": "base"}]},
    {"id": 6, "name": "blue", "state": 1, "reason": 2, "vpn_id": [7, 8, 9],
     "tables": [{"id": 40, "af": 2, "name": "blue-v6",
                 "route_limits": [500, 1, 300, 9, 1]}]},
    {"id": 3, "name": "red",
     "tables": [{"id": 30, "af": 1, "name": "red-v4",
                 "route_limits": [100, 2, 80, 5, 0]}]},
    {"id": 9, "name": "l2-vrf"}
  ],
  "interfaces": [
    {"ifindex": 100, "iod": 1, "name": "Ethernet1/1", "context": "red",
     "soo": {"word": 5, "value": "0x00000000000000FF"}},
    {"ifindex": 200, "iod": 2, "name": "Ethernet1/2", "context": "blue"},
    {"ifindex": 300, "iod": 3, "name": "Ethernet1/3"}
  ],
  "topologies": [
    {"id": 7, "active_vlans": "10-20,30", "configured_vlans": "10-40",
     "ftags": [{"ftag": 3, "graph": 1}, {"ftag": 4, "graph": 2, "flags": 6},
               {"ftag": 5, "graph": 3}]},
    {"id": 8, "active_vlans": "100",
     "ftags": [{"ftag": 9, "graph": 1, "flags": 20}]}
  ]
})";

class TarnctlShow : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        const std::string file = root_ + "/device.json";
        std::ofstream(file) << kDevice;
        Result r = tarnctl({"load", file});
        ASSERT_EQ(0, r.status) << r.err;
    }

    // Runs "tarnctl show ARGS" and expects success and exactly `text`.
    void expect_table(const std::vector<std::string> &args,
                      const std::string &text)
    {
        std::vector<std::string> full = {"show"};
        full.insert(full.end(), args.begin(), args.end());
        Result r = tarnctl(full);
        EXPECT_EQ(0, r.status) << r.err;
        EXPECT_EQ("", r.err);
        EXPECT_EQ(text, r.out);
    }

    // Runs "tarnctl show ARGS --json" and expects success and `doc`.
    void expect_json(const std::vector<std::string> &args, const json &doc)
    {
        std::vector<std::string> full = {"show"};
        full.insert(full.end(), args.begin(), args.end());
        full.push_back("--json");
        Result r = tarnctl(full);
        EXPECT_EQ(0, r.status) << r.err;
        json got = json::parse(r.out, nullptr, false);
        ASSERT_FALSE(got.is_discarded()) << r.out;
        EXPECT_EQ("", tarntest::tarnctl_schema_problem("show_" + args[0], got));
        EXPECT_EQ(1, got.value("schema", 0));
        got.erase("schema");
        // Notes only where the expectation has them.
        if (!doc.contains("notes")) {
            EXPECT_EQ(json::array(), got["notes"]);
            got.erase("notes");
        }
        EXPECT_EQ(doc, got) << got.dump(2);
    }
};

TEST_F(TarnctlShow, Contexts)
{
    expect_table({"contexts"},
                 "ID  NAME     STATE  REASON\n"
                 "1   default  Up     --\n"
                 "3   red      Up     --\n"
                 "6   blue     Down   Admin Down Pending\n");
    expect_json({"contexts"},
                json::parse(R"({"contexts": [
      {"id": 1, "name": "default", "state": "Up", "state_code": 2, "reason": null, "reason_code": 0},
      {"id": 3, "name": "red", "state": "Up", "state_code": 2, "reason": null, "reason_code": 0},
      {"id": 6, "name": "blue", "state": "Down", "state_code": 1,
       "reason": "Admin Down Pending", "reason_code": 2}]})"));
}

TEST_F(TarnctlShow, OneContext)
{
    expect_table({"context", "blue"},
                 "FIELD       VALUE\n"
                 "id          6\n"
                 "name        blue\n"
                 "state       Down\n"
                 "reason      Admin Down Pending\n"
                 "vpn-id      7 8 9\n"
                 "tables      40 blue-v6 (IPv6)\n"
                 "interfaces  Ethernet1/2\n"
                 "\n"
                 "note: table ids 1 to 65536 were asked for (libtarn has no walk over tables): tables with higher ids may exist and are not shown; --max-id N asks for ids up to N (at most 3221225471)\n");
    expect_json({"context", "red", "--max-id", "100"}, json::parse(R"j({
      "id": 3, "name": "red", "state": "Up", "state_code": 2, "reason": null,
      "reason_code": 0, "vpn_id": null, "max_id": 100, "probed_to": 100,
      "notes": ["table ids 1 to 100 were asked for (libtarn has no walk over tables): tables with higher ids may exist and are not shown; --max-id N asks for ids up to N (at most 3221225471)"],
      "tables": [{"id": 30, "af": "IPv4", "af_code": 1, "name": "red-v4"}],
      "interfaces": [{"ifindex": 100, "name": "Ethernet1/1"}]})j"));
    // Hidden from the walk, found by name.
    Result r = tarnctl({"show", "context", "l2-vrf"});
    EXPECT_EQ(0, r.status);
    EXPECT_NE(std::string::npos, r.out.find("id          9\n")) << r.out;
}

TEST_F(TarnctlShow, Tables)
{
    const std::string beyond = "note: table ids 1 to 65536 were asked for (libtarn has no walk over tables): tables with higher ids may exist and are not shown; --max-id N asks for ids up to N (at most 3221225471)\n";
    expect_table({"tables"},
                 "ID  CONTEXT  AF    NAME\n"
                 "1   default  IPv4  base\n"
                 "30  red      IPv4  red-v4\n"
                 "40  blue     IPv6  blue-v6\n"
                 "\n" + beyond);
    expect_table({"tables", "blue"},
                 "ID  CONTEXT  AF    NAME\n"
                 "40  blue     IPv6  blue-v6\n"
                 "\n" + beyond);
    // Ids above the bound are not asked for, and the note says so.
    expect_table({"tables", "--max-id", "30"},
                 "ID  CONTEXT  AF    NAME\n"
                 "1   default  IPv4  base\n"
                 "30  red      IPv4  red-v4\n"
                 "\n"
                 "note: table ids 1 to 30 were asked for (libtarn has no walk over tables): tables with higher ids may exist and are not shown; --max-id N asks for ids up to N (at most 3221225471)\n");
    expect_json({"tables", "red", "--max-id=100"}, json::parse(R"j({
      "max_id": 100, "probed_to": 100,
      "notes": ["table ids 1 to 100 were asked for (libtarn has no walk over tables): tables with higher ids may exist and are not shown; --max-id N asks for ids up to N (at most 3221225471)"],
      "tables": [{"id": 30, "context_id": 3, "context": "red", "af": "IPv4",
                  "af_code": 1, "name": "red-v4"}]})j"));
}

// The whole range of ids takes minutes: SIGINT stops the probe, and what
// it found so far is printed and said to be cut short.
TEST_F(TarnctlShow, InterruptedProbePrintsWhatItFound)
{
    for (const bool as_json : {false, true}) {
        const std::string dir = tarnhost_root();
        std::vector<std::string> args = {"show", "tables", "--max-id", "3221225471"};
        if (as_json)
            args.push_back("--json");
        const pid_t pid = tarntest::spawn_tarnctl(TARNCTL_PATH, args, {}, dir + "/probe.out",
                                                  dir + "/probe.err");
        ASSERT_GT(pid, 0);
        usleep(800 * 1000);
        kill(pid, SIGINT);
        int st = 0;
        ASSERT_EQ(pid, waitpid(pid, &st, 0));
        ASSERT_TRUE(WIFEXITED(st));
        EXPECT_EQ(1, WEXITSTATUS(st));
        const std::string out = slurp(dir + "/probe.out");
        const std::regex note("interrupted: table ids 1 to ([0-9]+) of 1 to 3221225471 were "
                              "asked for, and the list stops there");
        std::smatch m;
        if (!as_json) {
            EXPECT_EQ(0u, out.find("ID  CONTEXT  AF    NAME\n"
                                   "1   default  IPv4  base\n"
                                   "30  red      IPv4  red-v4\n"
                                   "40  blue     IPv6  blue-v6\n"
                                   "\n"
                                   "note: interrupted: table ids 1 to "))
                << out;
            EXPECT_TRUE(std::regex_search(out, m, note)) << out;
            continue;
        }
        const json doc = json::parse(out, nullptr, false);
        ASSERT_TRUE(doc.is_object()) << out;
        EXPECT_EQ("", tarntest::tarnctl_schema_problem("show_tables", doc));
        EXPECT_EQ(3u, doc["tables"].size());
        ASSERT_EQ(1u, doc["notes"].size());
        const std::string text = doc["notes"][0].get<std::string>();
        ASSERT_TRUE(std::regex_match(text, m, note)) << text;
        EXPECT_EQ(doc["probed_to"].get<uint64_t>(), std::stoull(m[1].str()));
        EXPECT_LT(doc["probed_to"].get<uint64_t>(), 3221225471u);
    }
}

TEST_F(TarnctlShow, Interfaces)
{
    // The cell manager designates another cell: the lookup agrees with
    // the walk, and a Down context's interface is not usable.
    expect_table({"interfaces"},
                 "IFINDEX  NAME         CONTEXT  CONTEXT-ID  LOOKUP  USABLE\n"
                 "100      Ethernet1/1  red      3           red     yes\n"
                 "200      Ethernet1/2  blue     6           blue    no\n");
    expect_table({"interfaces", "--context", "blue"},
                 "IFINDEX  NAME         CONTEXT  CONTEXT-ID  LOOKUP  USABLE\n"
                 "200      Ethernet1/2  blue     6           blue    no\n");
    expect_json({"interfaces", "--context=red"}, json::parse(R"({
      "cell_type": 0,
      "interfaces": [{"ifindex": 100, "name": "Ethernet1/1", "context": "red",
                      "context_id": 3, "lookup_context": "red", "lookup_context_id": 3,
                      "usable": true}]})"));
}

TEST_F(TarnctlShow, Attributes)
{
    expect_table({"attributes"},
                 "AS-FORMAT\n"
                 "4\n"
                 "\n"
                 "TABLE  NAME     CONTEXT  LIMIT-1  LIMIT-3  SETTING-1  SETTING-2\n"
                 "30     red-v4   red      100      80       5          0\n"
                 "40     blue-v6  blue     500      300      9          1\n"
                 "\n"
                 "IFINDEX  NAME         WORD  SITE-OF-ORIGIN\n"
                 "100      Ethernet1/1  5     0x00000000000000FF\n"
                 "\n"
                 "CONTEXT-ID  CONTEXT  VPN-ID-1  VPN-ID-2  VPN-ID-3\n"
                 "6           blue     7         8         9\n");
    expect_json({"attributes"}, json::parse(R"({
      "as_format": 4, "max_id": 65536,
      "route_limits": [
        {"table_id": 30, "table": "red-v4", "context": "red", "limit1": 100,
         "limit3": 80, "setting1": 5, "setting2": 0},
        {"table_id": 40, "table": "blue-v6", "context": "blue", "limit1": 500,
         "limit3": 300, "setting1": 9, "setting2": 1}],
      "site_of_origin": [{"ifindex": 100, "name": "Ethernet1/1", "word": 5,
                          "soo": "0x00000000000000FF"}],
      "vpn_ids": [{"context_id": 6, "context": "blue", "vpn_id": [7, 8, 9]}]})"));
    // The temporary registration leaves no subscription behind.
    Result r = tarnctl({"show", "attributes"});
    ASSERT_EQ(0, r.status);
    uint32_t subs[8];
    EXPECT_EQ(0u, tarnhost_bus_subscribers(51226, subs, 8));
    EXPECT_EQ(0u, tarnhost_bus_subscribers(51201, subs, 8));
}

const char kUnkeyed9[] =
    "topology 8: graph-1 ftag 9 has flags 0x14; the lookup by key asks for exactly 0x10 "
    "(graph 1 unicast, other graphs multicast), so only the walks find it";

TEST_F(TarnctlShow, Topologies)
{
    // Topology 8's graph-1 ftag carries flags 0x14, so the unicast lookup
    // (graph 1, flag byte 0x10) does not find it; a note says so.
    expect_table({"topologies"},
                 "TOPOLOGY  ACTIVE-VLANS  CONFIGURED-VLANS  FTAGS  UNICAST-FTAG\n"
                 "7         10-20,30      10-40             3-5    3\n"
                 "8         100           -                 9      -\n"
                 "\n"
                 "note: " + std::string(kUnkeyed9) + "\n");
    json doc = json::parse(R"({"topologies": [
      {"id": 7, "active_vlans": "10-20,30",
       "active_vlans_list": [10,11,12,13,14,15,16,17,18,19,20,30],
       "configured_vlans": "10-40",
       "configured_vlans_list": [10,11,12,13,14,15,16,17,18,19,20,21,22,23,24,25,26,27,28,
                                 29,30,31,32,33,34,35,36,37,38,39,40],
       "ftags": "3-5", "ftags_list": [3, 4, 5],
       "unicast_ftag": 3,
       "ftag_details": [
         {"ftag": 3, "topology": 7, "graph": 1, "flags": ["unicast"], "flags_code": 16},
         {"ftag": 4, "topology": 7, "graph": 2, "flags": ["active", "multicast"], "flags_code": 6},
         {"ftag": 5, "topology": 7, "graph": 3, "flags": ["multicast"], "flags_code": 2}]},
      {"id": 8, "active_vlans": "100", "active_vlans_list": [100],
       "configured_vlans": null, "configured_vlans_list": null,
       "ftags": "9", "ftags_list": [9],
       "unicast_ftag": null,
       "ftag_details": [{"ftag": 9, "topology": 8, "graph": 1, "flags": ["unicast", "active"],
                         "flags_code": 20}]}]})");
    doc["notes"] = {kUnkeyed9};
    expect_json({"topologies"}, doc);
}

TEST_F(TarnctlShow, Ftags)
{
    // Every ftag that a lookup by key cannot find is named, graph 2's with
    // flags 0x06 as much as graph 1's with 0x14.
    const std::string note4 =
        "note: topology 7: graph-2 ftag 4 has flags 0x6; the lookup by key asks for exactly "
        "0x2 (graph 1 unicast, other graphs multicast), so only the walks find it\n";
    const std::string note9 = "note: " + std::string(kUnkeyed9) + "\n";
    expect_table({"ftags"},
                 "FTAG  TOPOLOGY  GRAPH  FLAGS\n"
                 "3     7         1      0x10 unicast\n"
                 "4     7         2      0x6 active,multicast\n"
                 "5     7         3      0x2 multicast\n"
                 "9     8         1      0x14 unicast,active\n\n" + note4 + note9);
    expect_table({"ftags", "--active"},
                 "FTAG  TOPOLOGY  GRAPH  FLAGS\n"
                 "4     7         2      0x6 active,multicast\n"
                 "9     8         1      0x14 unicast,active\n\n" + note4 + note9);
    expect_table({"ftags", "--unicast"},
                 "FTAG  TOPOLOGY  GRAPH  FLAGS\n"
                 "3     7         1      0x10 unicast\n"
                 "9     8         1      0x14 unicast,active\n\n" + note9);
    expect_table({"ftags", "--multicast", "--topology", "7"},
                 "FTAG  TOPOLOGY  GRAPH  FLAGS\n"
                 "4     7         2      0x6 active,multicast\n"
                 "5     7         3      0x2 multicast\n\n" + note4);
    expect_table({"ftags", "--active", "--multicast", "--topology", "7"},
                 "FTAG  TOPOLOGY  GRAPH  FLAGS\n"
                 "4     7         2      0x6 active,multicast\n\n" + note4);
    expect_table({"ftags", "--topology", "8"},
                 "FTAG  TOPOLOGY  GRAPH  FLAGS\n"
                 "9     8         1      0x14 unicast,active\n\n" + note9);
    json multicast = json::parse(R"({
      "filter": ["multicast"], "topology": null,
      "ftag_details": [{"ftag": 4, "topology": 7, "graph": 2, "flags": ["active", "multicast"], "flags_code": 6},
                {"ftag": 5, "topology": 7, "graph": 3, "flags": ["multicast"], "flags_code": 2}]})");
    multicast["notes"] = {note4.substr(6, note4.size() - 7)};
    expect_json({"ftags", "--multicast"}, multicast);
}

TEST_F(TarnctlShow, Vlan)
{
    // Graph 2's ftag carries flags 0x06 and the graph lookup asks for the
    // flag byte 0x02: not found.
    expect_table({"vlan", "15"},
                 "VLAN  TOPOLOGY  UNICAST-FTAG\n"
                 "15    7         3\n"
                 "\n"
                 "GRAPH  FTAG\n"
                 "1      3\n"
                 "2      -\n"
                 "3      5\n"
                 "\n"
                 "note: topology 7: graph-2 ftag 4 has flags 0x6; the lookup by key asks for "
                 "exactly 0x2 (graph 1 unicast, other graphs multicast), so only the walks "
                 "find it\n");
    expect_table({"vlan", "50"},
                 "VLAN  TOPOLOGY  UNICAST-FTAG\n"
                 "50    -         -\n");
    json doc = json::parse(R"({
      "vlan": 100, "topology": 8, "unicast_ftag": null,
      "graphs": [{"graph": 1, "ftag": null}]})");
    doc["notes"] = {kUnkeyed9};
    expect_json({"vlan", "100"}, doc);
    expect_json({"vlan", "4095"}, json::parse(R"({
      "vlan": 4095, "topology": null, "unicast_ftag": null, "graphs": []})"));
}

// Usage errors: status 2, one line on standard error naming the help.
TEST_F(TarnctlShow, UsageErrors)
{
    const std::vector<std::vector<std::string>> bad = {
        {"show"},
        {"show", "nonsense"},
        {"show", "contexts", "extra"},
        {"show", "contexts", "--bogus"},
        {"show", "context"},
        {"show", "context", "a", "b"},
        {"show", "context", "x123456789012345678901234567890123"},
        {"show", "tables", "--max-id"},
        {"show", "tables", "--max-id", "0"},
        {"show", "tables", "--max-id", "3221225472"},
        {"show", "tables", "--max-id", "12abc"},
        {"show", "tables", "--max-id", "1", "--max-id", "2"},
        {"show", "interfaces", "--context"},
        {"show", "interfaces", "red"},
        {"show", "ftags", "--topology", "0"},
        {"show", "ftags", "--topology", "1073741824"},
        {"show", "ftags", "--active=1"},
        {"show", "vlan"},
        {"show", "vlan", "4096"},
        {"show", "vlan", "-1"},
        {"show", "vlan", "ten"},
    };
    for (const auto &args : bad) {
        Result r = tarnctl(args);
        std::string cmd;
        for (const auto &a : args)
            cmd += " " + a;
        EXPECT_EQ(2, r.status) << cmd;
        EXPECT_EQ("", r.out) << cmd;
        EXPECT_EQ(1u, lines(r.err)) << cmd << ": " << r.err;
        EXPECT_NE(std::string::npos, r.err.find("--help")) << cmd << ": " << r.err;
    }
    Result r = tarnctl({"show", "nonsense"});
    EXPECT_EQ("tarnctl show: unknown WHAT \"nonsense\" (one of contexts context "
              "tables interfaces attributes topologies ftags vlan bus clients); usage: "
              "tarnctl show WHAT [ARGUMENTS] [--json] (see \"tarnctl show "
              "--help\")\n",
              r.err);
    r = tarnctl({"show", "vlan", "4096"});
    EXPECT_EQ("tarnctl show vlan: VLAN is a number from 0 to 4095; usage: "
              "tarnctl show vlan VLAN [--json] (see \"tarnctl show vlan "
              "--help\")\n",
              r.err);
}

// Failures: status 1, one line saying what to do.
TEST_F(TarnctlShow, Failures)
{
    struct Case {
        std::vector<std::string> args;
        std::string err;
    };
    const Case cases[] = {
        {{"show", "context", "green"},
         "tarnctl show context: no context named \"green\"; \"tarnctl show "
         "contexts\" lists them\n"},
        {{"show", "tables", "green"},
         "tarnctl show tables: no context named \"green\"; \"tarnctl show "
         "contexts\" lists them\n"},
        {{"show", "interfaces", "--context", "green"},
         "tarnctl show interfaces: no context named \"green\"; \"tarnctl show "
         "contexts\" lists them\n"},
        {{"show", "ftags", "--topology", "99"},
         "tarnctl show ftags: no topology 99; \"tarnctl show topologies\" "
         "lists them\n"},
    };
    for (const Case &c : cases) {
        Result r = tarnctl(c.args);
        EXPECT_EQ(1, r.status) << c.args[1];
        EXPECT_EQ("", r.out);
        EXPECT_EQ(c.err, r.err);
    }
    // Outside cell 1 the library does not start.
    Result r = tarnctl({"show", "contexts"}, {"TARNHOST_CELL=2"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(1u, lines(r.err)) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("could not be initialised")) << r.err;
}

TEST_F(TarnctlShow, HelpOnEveryCommand)
{
    for (const char *what : {"contexts", "context", "tables", "interfaces",
                             "attributes", "topologies", "ftags", "vlan"}) {
        Result r = tarnctl({"show", what, "--help"});
        EXPECT_EQ(0, r.status) << what;
        EXPECT_EQ(0u, r.out.rfind(std::string("usage: tarnctl show ") + what + " ", 0))
            << r.out;
        EXPECT_EQ("", r.err);
    }
    Result r = tarnctl({"show", "--help"});
    EXPECT_EQ(0, r.status);
    EXPECT_NE(std::string::npos, r.out.find("  topologies "));
    r = tarnctl({"--help"});
    EXPECT_EQ(0, r.status);
    EXPECT_NE(std::string::npos, r.out.find("  show "));
    EXPECT_NE(std::string::npos, r.out.find("  watch "));
}

// The manual page describes every command that "tarnctl --help" lists and
// every WHAT of "tarnctl show --help".
TEST_F(TarnctlShow, ManualCoversEveryCommand)
{
    std::string page = slurp(TARN_SOURCE_DIR "/docs/tarnctl.1");
    ASSERT_FALSE(page.empty());
    // troff's escaped minus is a plain one here.
    for (size_t at = page.find("\\-"); at != std::string::npos;
         at = page.find("\\-", at))
        page.erase(at, 1);
    // Headings and item lines (".SS", ".B", ".BI"), without their quotes.
    std::string marks;
    for (const std::string &line : tarntest::split_lines(page)) {
        if (line.rfind(".SS ", 0) == 0 || line.rfind(".B ", 0) == 0 ||
            line.rfind(".BI ", 0) == 0) {
            std::string t = line.substr(line.find(' ') + 1);
            t.erase(std::remove(t.begin(), t.end(), '"'), t.end());
            marks += line.substr(0, line.find(' ')) + " " + t + "\n";
        }
    }
    auto listed = [](const std::string &help) {
        std::vector<std::string> names;
        std::istringstream in(help);
        std::string line;
        while (std::getline(in, line))
            if (line.size() > 2 && line.compare(0, 2, "  ") == 0 && line[2] != ' ')
                names.push_back(line.substr(2, line.find(' ', 2) - 2));
        return names;
    };
    Result top = tarnctl({"--help"});
    std::vector<std::string> commands = listed(top.out);
    ASSERT_GE(commands.size(), 3u) << top.out;
    for (const std::string &c : commands)
        EXPECT_NE(std::string::npos, marks.find(".SS tarnctl " + c + " "))
            << "no section for " << c << " in\n" << marks;
    Result show = tarnctl({"show", "--help"});
    std::vector<std::string> whats = listed(show.out);
    ASSERT_EQ(10u, whats.size()) << show.out;
    for (const std::string &w : whats)
        EXPECT_TRUE(marks.find(".B tarnctl show " + w + "\n") != std::string::npos ||
                    marks.find(".B tarnctl show " + w + " ") != std::string::npos ||
                    marks.find(".BI tarnctl show " + w + " ") != std::string::npos)
            << "no entry for show " << w << " in\n" << marks;
}

TEST(TarnctlShowNoDevice, NotUp)
{
    const std::string root = tarntest::fresh_root();
    Result r = tarnctl({"show", "contexts"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl show contexts: the device in " + root +
                  " is not up; load one with \"tarnctl load FILE\"\n",
              r.err);
    tarntest::remove_root(root);
}

}  // namespace
