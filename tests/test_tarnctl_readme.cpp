// The README's tour, run as written (by bash), gives what the README says
// it gives.  The device goes to this test's own root.  Given TARN_README_TREE
// (scripts/test does: a clean copy of the tree where scripts/demo ran), the
// tour runs in that tree with its first line as written, so tarnctl is the
// one the demo built, found where the README says; otherwise it runs in the
// source tree with the tarnctl just built, and the README is checked to name
// the directory where scripts/demo builds.

#include <libgen.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fixture.h"
#include "support/tarnctl_process.h"

namespace {

using tarntest::slurp;

// The indented lines of a README section, up to the next heading.
std::vector<std::string> section_code(const std::string &readme, const std::string &heading)
{
    std::vector<std::string> out;
    const size_t at = readme.find("\n## " + heading + "\n");
    if (at == std::string::npos)
        return out;
    std::istringstream in(readme.substr(at + 4 + heading.size()));
    std::string line;
    bool in_block = false;
    while (std::getline(in, line)) {
        if (line.rfind("## ", 0) == 0)
            break;
        if (line.rfind("    ", 0) == 0) {
            out.push_back(line.substr(4));
            in_block = true;
        } else if (!line.empty()) {
            if (in_block)
                out.push_back("");  // a block ends
            in_block = false;
        }
    }
    return out;
}

class TarnctlReadme : public tarntest::HostTest {};

const std::string kTargetFlags =
#if defined(__i386__)
    "-m32 "
#endif
#if defined(__SANITIZE_ADDRESS__)
    "-fsanitize=address,undefined "
#endif
    "";

TEST_F(TarnctlReadme, TourRunsAsWritten)
{
    const std::string readme = slurp(TARN_SOURCE_DIR "/README.md");
    const std::vector<std::string> code = section_code(readme, "A five-minute tour");
    ASSERT_FALSE(code.empty());

    // The commands: every block of the section, in order, comments
    // dropped.
    std::vector<std::string> commands;
    for (const std::string &raw : code) {
        std::string c = raw.substr(0, raw.find('#'));
        while (!c.empty() && c.back() == ' ')
            c.pop_back();
        // Commands, not the output that the section shows between them.
        for (const char *start : {"tarnctl ", "kill ", "export "})
            if (c.rfind(start, 0) == 0) {
                commands.push_back(c);
                break;
            }
    }
    ASSERT_EQ(0u, commands[0].rfind("export TARNHOST_ROOT=", 0)) << commands[0];

    // The export line names the tools of the tree that scripts/demo builds.
    const std::string demo = slurp(TARN_SOURCE_DIR "/scripts/demo");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(demo, m, std::regex("TARN_DEMO_BUILD_DIR:-\\$PWD/([^}]+)\\}")))
        << demo;
    const std::string path_as_written = "PATH=$PWD/" + m[1].str() + "/tools:$PATH";
    ASSERT_EQ("export TARNHOST_ROOT=/tmp/tour " + path_as_written, commands[0]);

    const char *tree = getenv("TARN_README_TREE");
    const std::string watch_out = root_ + "/tour-watch.out";
    std::string script = "set -e\n";
    if (tree != nullptr && tree[0] != '\0') {
        script += "cd '" + std::string(tree) + "'\n";
        script += "export TARNHOST_ROOT='" + root_ + "' " + path_as_written + "\n";
        script += "case $(command -v tarnctl) in \"$PWD/" + m[1].str() +
                  "/tools/tarnctl\") ;; *) echo \"tarnctl is not the demo's: $(command -v "
                  "tarnctl)\"; exit 1 ;; esac\n";
    } else {
        std::string tools = TARNCTL_PATH;
        tools = dirname(&tools[0]);
        script += "cd '" TARN_SOURCE_DIR "'\n";
        script += "export TARNHOST_ROOT='" + root_ + "' PATH='" + tools + "':$PATH\n";
    }
    size_t applies = 0, watches = 0, jobs = 0;
    for (size_t i = 1; i < commands.size(); ++i) {
        std::string c = commands[i];
        // The recording goes to this test's root, not the source tree.
        c = std::regex_replace(c, std::regex("field\\.ndjson"), root_ + "/field.ndjson");
        if (c == "tarnctl watch &") {
            // The access point that watch prints is the N of the lines below.
            const std::string o = watches++ == 0 ? watch_out : root_ + "/tour-watch2.out";
            script += "tarnctl watch > '" + o + "' &\n";
            script += "for i in $(seq 300); do grep -q '^watching' '" + o +
                      "' && break; sleep 0.1; done\n";
            script += "N=$(sed -n 's/^access point \\([0-9]*\\),.*/\\1/p' '" + o + "')\n";
            continue;
        }
        if (c.size() > 2 && c.compare(c.size() - 2, 2, " &") == 0) {
            // Started in the background as a reader would, and waited for
            // until it has said its first line, as a reader would see.
            const std::string o = root_ + "/tour-job" + std::to_string(++jobs) + ".out";
            script += c.substr(0, c.size() - 2) + " > '" + o + "' 2>&1 &\n";
            script += "for i in $(seq 300); do [ -s '" + o + "' ] && break; sleep 0.1; done\n";
            continue;
        }
        c = std::regex_replace(c, std::regex(" N( |$)"), " $$N$1");
        applies += c.rfind("tarnctl apply ", 0) == 0;
        script += "echo \"$ " + c + "\"\n" + c + "\n";
        if (c.rfind("kill ", 0) == 0)
            script += "wait || true\n";
    }
    ASSERT_EQ(2u, applies);
    ASSERT_EQ(2u, jobs);
    const std::string script_path = root_ + "/tour.sh";
    std::ofstream(script_path) << script;
    const std::string out_path = root_ + "/tour.out";
    const int st = system(("bash '" + script_path + "' > '" + out_path + "' 2>&1").c_str());
    const std::string out = slurp(out_path);
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << script << "\n----\n" << out;

    // What the README shows for "tarnctl show contexts", exactly.
    const size_t shown = readme.find("`tarnctl show contexts` prints\n\n");
    ASSERT_NE(std::string::npos, shown);
    std::string table;
    std::istringstream in(readme.substr(shown));
    std::string line;
    std::getline(in, line);
    std::getline(in, line);
    while (std::getline(in, line) && line.rfind("    ", 0) == 0)
        table += line.substr(4) + "\n";
    EXPECT_NE(std::string::npos, out.find("$ tarnctl show contexts\n" + table)) << out;

    // "lists lab's ten ports with USABLE "no"".
    const size_t at = out.find("$ tarnctl show interfaces --context lab\n");
    ASSERT_NE(std::string::npos, at);
    std::istringstream rows(out.substr(at));
    std::getline(rows, line);
    std::getline(rows, line);
    size_t ports = 0;
    while (std::getline(rows, line) && line.rfind("$ ", 0) != 0) {
        EXPECT_TRUE(std::regex_match(line, std::regex(".* lab +5 +lab +no"))) << line;
        ++ports;
    }
    EXPECT_EQ(10u, ports);

    // Both dumps agree with the databases; the watcher printed a line for
    // every notification that apply sent, and stopped cleanly.
    size_t agree = 0;
    for (size_t p = out.find("verify: cache and database agree"); p != std::string::npos;
         p = out.find("verify: cache and database agree", p + 1))
        ++agree;
    EXPECT_EQ(2u, agree) << out;
    const std::string watched = slurp(watch_out);
    std::regex announced("changes\\[[0-9]+\\]: .* \\(([0-9]+) to 1 subscriber\\)");
    size_t notifications = 0;
    for (std::sregex_iterator it(out.begin(), out.end(), announced), end; it != end; ++it)
        ++notifications;
    EXPECT_GE(notifications, 1u) << out;
    std::regex message_line("[0-9:.]+ [A-Z_0-9]+ .*");
    size_t messages = 0;
    std::istringstream w(watched);
    while (std::getline(w, line))
        messages += std::regex_match(line, message_line) ? 1 : 0;
    // Each notification, and the one page of each of the two dumps: every
    // request is one line, none twice.
    EXPECT_EQ(notifications + 2, messages) << watched;
    EXPECT_NE(std::string::npos, watched.find("stopped (signal)")) << watched;

    // The passive listener printed every notification of the second apply
    // as a JSON line, the recording holds them, and the replay gave a fresh
    // client the cache that the first one ended with.
    const std::string passive = slurp(root_ + "/tour-job1.out");
    size_t events = 0;
    for (size_t p = passive.find("\"event\":\"notification\""); p != std::string::npos;
         p = passive.find("\"event\":\"notification\"", p + 1))
        ++events;
    EXPECT_EQ(notifications, events) << passive;
    EXPECT_NE(std::string::npos,
              out.find("replayed " + std::to_string(notifications) + " of " +
                       std::to_string(notifications) + " notifications from " + root_ +
                       "/field.ndjson\n"))
        << out;
    const size_t second = out.rfind("$ tarnctl dump-cache --sap ");
    ASSERT_NE(std::string::npos, second);
    const size_t last_verify = out.find("$ tarnctl dump-cache", out.find("$ tarnctl apply"));
    ASSERT_NE(std::string::npos, last_verify);
    std::string before_replay = out.substr(out.find('\n', last_verify) + 1);
    before_replay = before_replay.substr(0, before_replay.find("\nverify:"));
    std::string after_replay = out.substr(out.find('\n', second) + 1);
    after_replay = after_replay.substr(0, after_replay.find("\n$ "));
    EXPECT_NE(std::string::npos, before_replay.find("GYRE Cache Information")) << out;
    EXPECT_EQ(before_replay, after_replay) << out;
    EXPECT_NE(std::string::npos, out.find("$ tarnctl log --since 10m\n")) << out;
}

// The "Write a daemon" section, run as written: the example daemon built
// from the installed tree, run on the tour's device, following the changes,
// verified and stopped.  The prefix, the daemon and the device go to this
// test's root; the installed tree is the demo's in TARN_README_TREE, else
// the build of this test.
TEST_F(TarnctlReadme, DaemonSectionRunsAsWritten)
{
    const std::string readme = slurp(TARN_SOURCE_DIR "/README.md");
    const std::vector<std::string> code = section_code(readme, "Write a daemon");
    ASSERT_FALSE(code.empty());
    std::vector<std::string> commands, shown;
    std::string pending;
    for (const std::string &raw : code) {
        std::string c = raw;
        if (pending.empty()) {
            c = c.substr(0, c.find('#'));
            while (!c.empty() && c.back() == ' ')
                c.pop_back();
            bool command = false;
            for (const char *start :
                 {"cmake ", "export ", "cc ", "tarnctl ", "build/daemon", "kill "})
                command = command || c.rfind(start, 0) == 0;
            if (!command) {
                if (!c.empty() && c != "...")
                    shown.push_back(c);
                continue;
            }
        } else {
            c = pending + " " + c.substr(c.find_first_not_of(' '));
            pending.clear();
        }
        if (!c.empty() && c.back() == '\\') {
            c.pop_back();
            while (!c.empty() && c.back() == ' ')
                c.pop_back();
            pending = c;
            continue;
        }
        commands.push_back(c);
    }
    ASSERT_EQ(9u, commands.size());

    const char *tree = getenv("TARN_README_TREE");
    const bool in_tree = tree != nullptr && tree[0] != '\0';
    const std::string out_path = root_ + "/daemon.out";
    std::string script = "set -e\ncd '" + (in_tree ? std::string(tree) : TARN_SOURCE_DIR) + "'\n";
    for (std::string c : commands) {
        c = std::regex_replace(c, std::regex("/tmp/tour"), root_);
        c = std::regex_replace(c, std::regex("\\$PWD/build/prefix"), root_ + "/prefix");
        c = std::regex_replace(c, std::regex("build/daemon"), root_ + "/daemon");
        if (!in_tree) {
            c = std::regex_replace(c, std::regex("^cmake --install build/demo "),
                                   "cmake --install '" TARN_BINARY_DIR "' ");
            // The section's compiler builds for this machine, without
            // sanitizers; this build's libraries may need either.
            c = std::regex_replace(c, std::regex("^cc "), "cc " + kTargetFlags);
        }
        if (c == root_ + "/daemon &") {
            script += c.substr(0, c.size() - 2) + " > '" + out_path + "' 2>&1 &\n";
            script += "for i in $(seq 300); do grep -q '^daemon: ready' '" + out_path +
                      "' && break; sleep 0.1; done\n";
            continue;
        }
        script += "echo \"$ " + c + "\"\n" + c + (c.rfind("cmake ", 0) == 0 ? " >/dev/null" : "") +
                  "\n";
        if (c == "kill %1")
            script += "st=0; wait %1 || st=$?; echo \"daemon status $st\"\n";
    }
    const std::string script_path = root_ + "/daemon.sh";
    std::ofstream(script_path) << script;
    const std::string log_path = root_ + "/daemon-section.out";
    const int st = system(("bash '" + script_path + "' > '" + log_path + "' 2>&1").c_str());
    const std::string log = slurp(log_path);
    ASSERT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << script << "\n----\n" << log;
    EXPECT_NE(std::string::npos, log.find("\nverify: cache and database agree")) << log;
    EXPECT_NE(std::string::npos, log.find("\ndaemon status 0\n")) << log;

    // Its lines: ready, one per change, the verify's dump page, the stop.
    const std::vector<std::string> changes =
        tarntest::split_lines(slurp(TARN_SOURCE_DIR "/examples/daemon-changes.txt"));
    std::vector<std::string> lines = tarntest::split_lines(slurp(out_path));
    ASSERT_EQ(changes.size() + 3, lines.size()) << slurp(out_path);
    EXPECT_TRUE(std::regex_match(lines[0], std::regex("daemon: ready on access point 1200, "
                                                      "bus handle [0-9]+, pid [0-9]+")))
        << lines[0];
    EXPECT_EQ(changes, std::vector<std::string>(lines.begin() + 1, lines.end() - 2));
    EXPECT_EQ("cache dump page 1 answered", lines[lines.size() - 2]);
    EXPECT_EQ("daemon: stopping (SIGTERM)", lines.back());
    // The lines the section shows are the daemon's.
    ASSERT_FALSE(shown.empty());
    for (const std::string &l : shown)
        EXPECT_NE(changes.end(), std::find(changes.begin(), changes.end(), l)) << l;
}

}  // namespace
