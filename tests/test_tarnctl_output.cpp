// tarnctl's output as a reader and a parser meet it: names that cannot
// break a table or drive a terminal, columns aligned by display width,
// write errors reported, every --json document valid under the one schema
// file, errors that name their cause, and the example devices' answers.

#include <dirent.h>
#include <fcntl.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <tarn/version.h>

#include "support/fixture.h"
#include "support/json_schema.h"
#include "support/tarnctl_process.h"

namespace {

using json = nlohmann::json;
using tarntest::TarnctlRun;

TarnctlRun tarnctl(const std::vector<std::string> &args,
                   const std::vector<std::string> &env = {},
                   const std::string &out_path = "")
{
    return tarntest::run_tarnctl(TARNCTL_PATH, args, env, out_path);
}

size_t lines(const std::string &s)
{
    size_t n = 0;
    for (char c : s)
        n += c == '\n';
    return n;
}

// Parses `text` as one JSON document and checks it against the schema
// file's definition `def`.
void expect_valid(const std::string &def, const std::string &text)
{
    json doc = json::parse(text, nullptr, false);
    ASSERT_FALSE(doc.is_discarded()) << def << ": " << text;
    EXPECT_EQ("", tarntest::tarnctl_schema_problem(def, doc)) << doc.dump(2);
    EXPECT_EQ(1, doc.value("schema", 0)) << def;
}

// A device whose names hold a newline, an escape sequence and wide
// characters.
const char kOddNames[] = R"({
  "cell": 2, "cells": [1, 2],
  "contexts": [
    {"id": 1, "name": "default"},
    {"id": 2, "name": "a\nb"},
    {"id": 3, "name": "\u001b[31mred"},
    {"id": 4, "name": "\u7db2\u8def"}
  ],
  "interfaces": [
    {"ifindex": 10, "iod": 1, "name": "Eth\u0007", "context": "a\nb"},
    {"ifindex": 20, "iod": 2, "name": "\u7aef\u53e3", "context": "\u7db2\u8def"}
  ]
})";

class TarnctlOutput : public tarntest::HostTest {
protected:
    void load(const std::string &text)
    {
        const std::string file = root_ + "/device.json";
        std::ofstream(file) << text;
        TarnctlRun r = tarnctl({"load", file});
        ASSERT_EQ(0, r.status) << r.err;
    }
    void load_example(const char *name)
    {
        TarnctlRun r = tarnctl({"load", std::string(TARN_SOURCE_DIR "/examples/") + name});
        ASSERT_EQ(0, r.status) << r.err;
    }
};

TEST_F(TarnctlOutput, ControlCharactersAreEscapedAndWideNamesAligned)
{
    load(kOddNames);
    TarnctlRun r = tarnctl({"show", "contexts"});
    ASSERT_EQ(0, r.status) << r.err;
    // The wide name takes four columns: two blanks fewer follow it.
    EXPECT_EQ("ID  NAME       STATE  REASON\n"
              "1   default    Up     --\n"
              "2   a\\nb       Up     --\n"
              "3   \\e[31mred  Up     --\n"
              "4   \u7db2\u8def       Up     --\n",
              r.out);
    r = tarnctl({"show", "interfaces"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("IFINDEX  NAME     CONTEXT  CONTEXT-ID  LOOKUP  USABLE\n"
              "10       Eth\\x07  a\\nb     2           a\\nb    yes\n"
              "20       \u7aef\u53e3     \u7db2\u8def     4           \u7db2\u8def    yes\n",
              r.out);
    // JSON keeps the raw names.
    r = tarnctl({"show", "contexts", "--json"});
    json doc = json::parse(r.out);
    EXPECT_EQ("a\nb", doc["contexts"][1]["name"]);
    EXPECT_EQ("\x1b[31mred", doc["contexts"][2]["name"]);
    // An error quoting a name stays one line.
    r = tarnctl({"show", "context", "x\ny"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl show context: no context named \"x\\ny\"; \"tarnctl show contexts\" "
              "lists them\n",
              r.err);
}

TEST_F(TarnctlOutput, WriteErrorsFail)
{
    load_example("device.json");
    TarnctlRun r = tarnctl({"show", "contexts"}, {}, "/dev/full");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl show: cannot write the output: No space left on device; check where "
              "standard output goes (a full disk, a closed pipe)\n",
              r.err);
    r = tarnctl({"show", "topologies", "--json"}, {}, "/dev/full");
    EXPECT_EQ(1, r.status);
    r = tarnctl({"--help"}, {}, "/dev/full");
    EXPECT_EQ(1, r.status);

    // A command that changed the device says so, or the user would run it
    // again.
    const std::string dev = TARN_SOURCE_DIR "/examples/device.json";
    r = tarnctl({"load", dev}, {}, "/dev/full");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl load: the device in " + root_ + " was loaded from " + dev +
                  ", but cannot write the output: No space left on device; check where "
                  "standard output goes (a full disk, a closed pipe)\n",
              r.err);
    const std::string changes = TARN_SOURCE_DIR "/examples/changes.json";
    r = tarnctl({"apply", changes}, {}, "/dev/full");
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl apply: 8 changes of " + changes + " were applied to the device in " +
                  root_ + " and announced, but cannot write the output: No space left on "
                  "device; check where standard output goes (a full disk, a closed pipe)\n",
              r.err);

}

// A reader that went away (tarnctl show interfaces | head -1): the command
// ends without a word, by SIGPIPE once it has finished, as git and ip do;
// an apply still applies and announces every change first.
TEST_F(TarnctlOutput, ClosedPipeEndsQuietly)
{
    load_example("device.json");
    const std::string changes = TARN_SOURCE_DIR "/examples/changes.json";
    const std::vector<std::vector<std::string>> commands = {
        {"show", "interfaces"}, {"show", "topologies", "--json"}, {"apply", changes}};
    for (const auto &args : commands) {
        int p[2];
        ASSERT_EQ(0, pipe(p));
        close(p[0]);
        const std::string pipe_path = "/proc/self/fd/" + std::to_string(p[1]);
        const pid_t pid =
            tarntest::spawn_tarnctl(TARNCTL_PATH, args, {}, pipe_path, root_ + "/pipe.err");
        close(p[1]);
        int st = 0;
        ASSERT_EQ(pid, waitpid(pid, &st, 0));
        ASSERT_TRUE(WIFSIGNALED(st)) << args[0] << ": exit status " << WEXITSTATUS(st);
        EXPECT_EQ(SIGPIPE, WTERMSIG(st));
        EXPECT_EQ("", tarntest::slurp(root_ + "/pipe.err")) << args[0];
    }
    // The apply was carried out in full: a second one finds it held.
    TarnctlRun r = tarnctl({"apply", changes});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl apply: changes[0].topology: topology 40 exists already; nothing was "
              "written: the device holds this change already (was " + changes +
                  " applied before?); to play " + changes + " from the start, load the "
                  "device again with \"tarnctl load FILE\" and then run \"tarnctl apply " +
                  changes + "\"\n",
              r.err);
}

// The example device: the cell manager designates a standby cell, so
// interfaces are looked up for real and a Down context's are not usable.
TEST_F(TarnctlOutput, ExampleDeviceShowsRealMembership)
{
    load_example("device.json");
    TarnctlRun r = tarnctl({"show", "interfaces", "--context", "lab"});
    ASSERT_EQ(0, r.status) << r.err;
    std::istringstream in(r.out);
    std::string line;
    std::getline(in, line);
    EXPECT_EQ("IFINDEX    NAME          CONTEXT  CONTEXT-ID  LOOKUP  USABLE", line);
    size_t rows = 0;
    while (std::getline(in, line)) {
        ++rows;
        EXPECT_TRUE(std::regex_match(line, std::regex("[0-9]+ +Ethernet1/[0-9]+ +lab +5 +lab +no")))
            << line;
    }
    EXPECT_EQ(10u, rows);
    EXPECT_EQ(std::string::npos, r.out.find("note:"));
}

// The second example: the running cell is the designated one, and every
// lookup answers "default", shown beside the walk's binding and explained.
TEST_F(TarnctlOutput, DesignatedCellIsExplained)
{
    load_example("device-designated.json");
    TarnctlRun r = tarnctl({"show", "interfaces"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("IFINDEX    NAME         CONTEXT  CONTEXT-ID  LOOKUP   USABLE\n"
              "436207616  Ethernet1/1  default  1           default  yes\n"
              "436211712  Ethernet1/2  lab      2           default  yes\n"
              "\n"
              "note: cell type 1: the cell manager designates this cell, so the lookup by "
              "ifindex (LOOKUP, USABLE) answers \"default\" for every interface; CONTEXT is "
              "the binding the interface walk reads\n",
              r.out);
    r = tarnctl({"show", "interfaces", "--json"});
    json doc = json::parse(r.out);
    EXPECT_EQ(1, doc["cell_type"]);
    EXPECT_EQ("lab", doc["interfaces"][1]["context"]);
    EXPECT_EQ("default", doc["interfaces"][1]["lookup_context"]);
    EXPECT_EQ(1u, doc["notes"].size());
}

// The unicast ftag that only the walks find is explained where it shows.
TEST_F(TarnctlOutput, UnkeyedGraphOneFtagIsExplained)
{
    load_example("device.json");
    const std::string note =
        "note: topology 10: graph-1 ftag 1 has flags 0x14; the lookup by key asks for "
        "exactly 0x10 (graph 1 unicast, other graphs multicast), so only the walks find it\n";
    TarnctlRun r = tarnctl({"show", "topologies"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("\n10        100-199       100-199,4000-4010  1-4"
                                            "             -\n"))
        << r.out;
    EXPECT_NE(std::string::npos, r.out.find("\n\n" + note)) << r.out;
    r = tarnctl({"show", "ftags", "--active"});
    EXPECT_NE(std::string::npos, r.out.find("1     10        1      0x14 unicast,active\n"));
    EXPECT_NE(std::string::npos, r.out.find(note)) << r.out;
    // One note for each ftag that a lookup by key misses: 1 (graph 1, 0x14),
    // 2, 3 and 18 and 1023 (other graphs, 0x06).
    EXPECT_EQ(5u, lines(r.out.substr(r.out.find("note:")))) << r.out;
}

TEST_F(TarnctlOutput, EveryJsonDocumentFollowsTheSchema)
{
    load_example("device.json");
    const std::string dir = TARN_SOURCE_DIR "/examples/";
    struct Case {
        std::vector<std::string> args;
        const char *def;
    };
    const Case cases[] = {
        {{"--version"}, "version"},
        {{"load", dir + "device.json"}, "load"},
        {{"show", "contexts"}, "show_contexts"},
        {{"show", "context", "lab"}, "show_context"},
        {{"show", "context", "tenant-red"}, "show_context"},
        {{"show", "tables"}, "show_tables"},
        {{"show", "interfaces"}, "show_interfaces"},
        {{"show", "attributes"}, "show_attributes"},
        {{"show", "topologies"}, "show_topologies"},
        {{"show", "ftags"}, "show_ftags"},
        {{"show", "ftags", "--unicast", "--topology", "10"}, "show_ftags"},
        {{"show", "vlan", "150"}, "show_vlan"},
        {{"show", "vlan", "4095"}, "show_vlan"},
        {{"apply", dir + "changes.json"}, "apply"},
    };
    for (const Case &c : cases) {
        std::vector<std::string> args = c.args;
        args.push_back("--json");
        TarnctlRun r = tarnctl(args);
        EXPECT_EQ(0, r.status) << c.def << ": " << r.err;
        EXPECT_EQ("", r.err) << c.def;
        expect_valid(c.def, r.out);
    }
    // Absent values are null, not placeholders.
    json contexts = json::parse(tarnctl({"show", "contexts", "--json"}).out);
    EXPECT_TRUE(contexts["contexts"][0]["reason"].is_null());
    EXPECT_EQ("Delete Holddown", contexts["contexts"][4]["reason"]);
    // The VPN id has one key everywhere.
    json red = json::parse(tarnctl({"show", "context", "tenant-red", "--json"}).out);
    json attrs = json::parse(tarnctl({"show", "attributes", "--json"}).out);
    EXPECT_EQ(red["vpn_id"], attrs["vpn_ids"][0]["vpn_id"]);

    // Errors, usage errors included, are one JSON object on stderr.
    const std::vector<std::vector<std::string>> failing = {
        {"show", "context", "nope", "--json"},
        {"show", "vlan", "4096", "--json"},
        {"nonsense", "--json"},
        {"apply", "/nonexistent/changes.json", "--json"},
        {"dump-cache", "--client", "77", "--json"},
        {"watch", "--sap", "0", "--json"},
    };
    for (const auto &args : failing) {
        TarnctlRun r = tarnctl(args);
        EXPECT_NE(0, r.status) << args[0];
        EXPECT_EQ("", r.out) << args[0];
        EXPECT_EQ(1u, lines(r.err)) << r.err;
        expect_valid("error", r.err);
        json e = json::parse(r.err);
        EXPECT_EQ(r.status, e["error"]["status"]);
    }
}

TEST_F(TarnctlOutput, ApplyRefusesADeviceThatIsNotUp)
{
    // The fixture's root exists but was never loaded.
    struct stat before;
    ASSERT_EQ(0, stat((root_ + "/kvs").c_str(), &before));
    TarnctlRun r = tarnctl({"apply", TARN_SOURCE_DIR "/examples/changes.json"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("tarnctl apply: the device in " + root_ +
                  " is not up; load one with \"tarnctl load FILE\"\n",
              r.err);
    // Nothing was written: the store directory is as empty as it was.
    std::string listing;
    for (const char *sub : {"/kvs", "/bus/h"}) {
        DIR *d = opendir((root_ + sub).c_str());
        if (d == nullptr)
            continue;
        for (dirent *e = readdir(d); e != nullptr; e = readdir(d))
            if (e->d_name[0] != '.')
                listing += std::string(sub) + "/" + e->d_name + " ";
        closedir(d);
    }
    EXPECT_EQ("", listing);
}

TEST_F(TarnctlOutput, DiagnosesNameTheCause)
{
    // A missing parent directory.
    TarnctlRun r = tarnctl({"load", TARN_SOURCE_DIR "/examples/device.json"},
                           {"TARNHOST_ROOT=/nonexistent-parent/device"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl load: the device directory /nonexistent-parent/device does not exist, "
              "nor does /nonexistent-parent; create /nonexistent-parent or set TARNHOST_ROOT "
              "to the device's directory\n",
              r.err);
    // A root that is missing under an existing parent, for a reader.
    r = tarnctl({"show", "contexts"}, {"TARNHOST_ROOT=" + root_ + "/none"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl show contexts: there is no device in " + root_ +
                  "/none (no such directory); load one with \"tarnctl load FILE\" or set "
                  "TARNHOST_ROOT to the device's directory\n",
              r.err);
    r = tarnctl({"apply", TARN_SOURCE_DIR "/examples/changes.json"},
                {"TARNHOST_ROOT=" + root_ + "/none"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(1u, lines(r.err)) << r.err;
    // A directory this user may not use (root ignores modes: skip then).
    if (geteuid() != 0) {
        const std::string closed = root_ + "/closed";
        ASSERT_EQ(0, mkdir(closed.c_str(), 0700));
        ASSERT_EQ(0, chmod(closed.c_str(), 0));
        r = tarnctl({"show", "contexts"}, {"TARNHOST_ROOT=" + closed});
        chmod(closed.c_str(), 0700);
        EXPECT_EQ(1, r.status);
        EXPECT_NE(std::string::npos, r.err.find("Permission denied")) << r.err;
        EXPECT_EQ(std::string::npos, r.err.find("not up")) << r.err;
    }
    // Environment variables are checked, not silently defaulted.
    r = tarnctl({"show", "contexts"}, {"TARNHOST_CELL=abc"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("tarnctl: TARNHOST_CELL=\"abc\" is not a cell number (0 to 4294967295); unset "
              "it for cell 1\n",
              r.err);
    r = tarnctl({"show", "contexts"}, {"TARNHOST_KVS_MAPSIZE=12"});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("TARNHOST_KVS_MAPSIZE")) << r.err;
    r = tarnctl({"show", "contexts"}, {"TARNHOST_ROOT=tour"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("tarnctl: TARNHOST_ROOT=\"tour\" is not an absolute path, so processes started "
              "elsewhere would use another device; give the whole path\n",
              r.err);
}

TEST_F(TarnctlOutput, VersionHelpAndCounts)
{
    TarnctlRun r = tarnctl({"--version"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(std::string("tarnctl (libtarn) ") + TARN_VERSION_STRING + "\n", r.out);
    r = tarnctl({"help", "show"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(0u, r.out.rfind("usage: tarnctl show WHAT", 0)) << r.out;
    r = tarnctl({"help", "show", "vlan"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(0u, r.out.rfind("usage: tarnctl show vlan VLAN", 0)) << r.out;
    r = tarnctl({"help", "dump-cache"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(0u, r.out.rfind("usage: tarnctl dump-cache", 0)) << r.out;
    r = tarnctl({"help", "nonsense"});
    EXPECT_EQ(2, r.status);
    // One of each: singular words.
    load(R"({"contexts": [{"id": 1, "name": "default",
              "tables": [{"id": 1, "af": 1, "name": "base"}]}],
             "interfaces": [{"ifindex": 5, "iod": 1, "name": "e1", "context": "default"}],
             "topologies": [{"id": 3, "active_vlans": "1"}]})");
    r = tarnctl({"load", root_ + "/device.json"});
    EXPECT_EQ("loaded " + root_ + "/device.json into " + root_ +
                  ": 1 context, 1 table, 1 interface, 1 topology\n",
              r.out);
}

// A long table probe on a terminal says how far it got and about how long
// it still takes, and erases that line before the table.
TEST_F(TarnctlOutput, LongProbeShowsProgressOnATerminal)
{
    load_example("device.json");
    int master = -1;
    const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        execl(TARNCTL_PATH, TARNCTL_PATH, "show", "tables", "--max-id", "12000000",
              static_cast<char *>(nullptr));
        _exit(127);
    }
    std::string seen;
    char buf[4096];
    for (;;) {
        const ssize_t n = read(master, buf, sizeof buf);
        if (n <= 0)
            break;  // EIO once the child has gone
        seen.append(buf, static_cast<size_t>(n));
    }
    close(master);
    int st = 0;
    ASSERT_EQ(pid, waitpid(pid, &st, 0));
    ASSERT_TRUE(WIFEXITED(st));
    EXPECT_EQ(0, WEXITSTATUS(st));
    EXPECT_TRUE(std::regex_search(
        seen, std::regex("\rprobing table ids: [0-9]+ of 12000000 \\([0-9]+%\\), about "
                         "[0-9]+ s left ")))
        << seen.substr(0, 300);
    EXPECT_NE(std::string::npos, seen.find("\r\033[KID  CONTEXT"));
}

// The bash completion that is installed with tarnctl, without
// bash-completion's helpers loaded (it works either way).
TEST_F(TarnctlOutput, BashCompletion)
{
    load_example("device.json");
    std::string tools = TARNCTL_PATH;
    tools = tools.substr(0, tools.rfind('/'));
    const std::string script =
        "PATH='" + tools + "':$PATH\n"
        "source '" TARN_SOURCE_DIR "/tools/tarnctl.bash-completion'\n"
        "c() { COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); COMPREPLY=(); _tarnctl;"
        " echo \"${COMPREPLY[*]}\"; }\n"
        "c tarnctl sh\n"
        "c tarnctl show to\n"
        "c tarnctl show ftags --a\n"
        "c tarnctl dump-cache --t\n"
        "c tarnctl help show in\n"
        "c tarnctl show interfaces --context tenant-\n"
        "c tarnctl re\n"
        "c tarnctl show b\n"
        "c tarnctl log --s\n"
        "c tarnctl watch --pa\n"
        "c tarnctl dump-cache --p\n";
    const std::string path = root_ + "/completion.sh";
    std::ofstream(path) << script;
    const std::string out_path = root_ + "/completion.out";
    const int st = system(("bash '" + path + "' > '" + out_path + "' 2>&1").c_str());
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    EXPECT_EQ("show\ntopologies\n--active\n--timeout\ninterfaces\ntenant-red tenant-blue\n"
              "record replay\nbus\n--since\n--passive\n--pid\n",
              tarntest::slurp(out_path));
}

// The completion offers what the command line takes: every option of a
// command's usage, nothing the command does not name in its help, no
// --json where no command stands, the opcode names the filters take, and
// recordings for replay.
TEST_F(TarnctlOutput, BashCompletionMatchesTheHelp)
{
    load_example("device.json");
    std::string tools = TARNCTL_PATH;
    tools = tools.substr(0, tools.rfind('/'));
    const std::vector<std::vector<std::string>> commands = {
        {"load"},           {"apply"},           {"record"},           {"replay"},
        {"watch"},          {"dump-cache"},      {"log"},              {"show", "contexts"},
        {"show", "context"}, {"show", "tables"}, {"show", "interfaces"}, {"show", "attributes"},
        {"show", "topologies"}, {"show", "ftags"}, {"show", "vlan"},   {"show", "bus"},
        {"show", "clients"}};
    std::string script = "PATH='" + tools + "':$PATH\ncd '" + root_ + "'\n"
                         "source '" TARN_SOURCE_DIR "/tools/tarnctl.bash-completion'\n"
                         "c() { COMP_WORDS=(\"$@\"); COMP_CWORD=$(($# - 1)); COMPREPLY=(); "
                         "_tarnctl; echo \"${COMPREPLY[*]}\"; }\n";
    for (const auto &cmd : commands) {
        script += "c tarnctl";
        for (const std::string &w : cmd)
            script += " " + w;
        script += " -\n";
    }
    script += "c tarnctl -\nc tarnctl watch --opcode TARN_A\nc tarnctl record x --opcode GYRE_TPG_C\n"
              "c tarnctl replay ''\n";
    std::ofstream(root_ + "/a.ndjson") << "";
    const std::string path = root_ + "/completion.sh";
    std::ofstream(path) << script;
    const std::string out_path = root_ + "/completion.out";
    const int st = system(("bash '" + path + "' > '" + out_path + "' 2>&1").c_str());
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0);
    const std::vector<std::string> lines = tarntest::split_lines(tarntest::slurp(out_path));
    ASSERT_EQ(commands.size() + 4, lines.size()) << tarntest::slurp(out_path);
    const std::regex option("(^|[ \\[(|])(-{1,2}[a-z][a-z-]*)");
    for (size_t i = 0; i < commands.size(); ++i) {
        std::vector<std::string> args = commands[i];
        args.push_back("--help");
        const TarnctlRun help = tarnctl(args);
        ASSERT_EQ(0, help.status) << args[0];
        const std::string usage = help.out.substr(0, help.out.find("\n\n"));
        std::set<std::string> in_usage, offered;
        for (std::sregex_iterator it(usage.begin(), usage.end(), option), end; it != end; ++it)
            in_usage.insert((*it)[2].str());
        std::istringstream words(lines[i]);
        for (std::string w; words >> w;)
            offered.insert(w);
        const std::string name = args[0] + (args.size() > 2 ? " " + args[1] : "");
        for (const std::string &o : in_usage)
            EXPECT_EQ(1u, offered.count(o)) << name << ": " << o << " is not offered";
        for (const std::string &o : offered)
            EXPECT_TRUE(o == "--help" || help.out.find(o) != std::string::npos)
                << name << ": " << o << " is offered but not in the help";
    }
    EXPECT_EQ(std::string::npos, lines[commands.size()].find("--json")) << lines[commands.size()];
    EXPECT_EQ("TARN_ATTR_CHANGE", lines[commands.size() + 1]);
    EXPECT_EQ("GYRE_TPG_CREATE", lines[commands.size() + 2]);
    // Recordings, and directories to look in; not the JSON files.
    const std::string replay = lines[commands.size() + 3];
    EXPECT_NE(std::string::npos, replay.find("a.ndjson")) << replay;
    EXPECT_EQ(std::string::npos, replay.find(".json")) << replay;
    EXPECT_EQ(std::string::npos, replay.find("completion.sh")) << replay;
}

// Words that are options, not arguments, are named as such.
TEST_F(TarnctlOutput, OptionsWhereAnArgumentBelongsAreNamed)
{
    TarnctlRun r = tarnctl({"--version", "extra"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("tarnctl: unexpected argument \"extra\" after --version; usage: tarnctl "
              "--version [--json]\n",
              r.err);
    r = tarnctl({"show", "--json"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("show", json::parse(r.err)["error"]["command"]);
    EXPECT_EQ(0u, json::parse(r.err)["error"]["message"].get<std::string>().find(
                      "WHAT is missing before \"--json\""));
    r = tarnctl({"show", "bogus"});
    EXPECT_NE(std::string::npos, r.err.find("vlan bus clients)")) << r.err;
    r = tarnctl({"help", "--json"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(0u, r.out.find("usage: tarnctl COMMAND"));
    r = tarnctl({"help", "help"});
    EXPECT_EQ(0, r.status) << r.err;
    r = tarnctl({"help", "record"});
    EXPECT_NE(std::string::npos, r.out.find("[--json]")) << r.out;
    r = tarnctl({"log", "--grep", "--json"});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("--grep needs the text to look for before --json"));
    r = tarnctl({"--help"});
    EXPECT_NE(std::string::npos, r.out.find("the bus, the clients")) << r.out;
}

}  // namespace
