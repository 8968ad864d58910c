// tarnctl log: the device's log printed, filtered, as JSON, and followed
// while another process writes to it.

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "host/tarnhost.h"
#include "support/fixture.h"
#include "support/json_schema.h"
#include "support/tool_process.h"

namespace {

using tarntest::Proc;
using tarntest::Result;
using tarntest::tarnctl;
using json = nlohmann::json;

class TarnctlLog : public tarntest::HostTest {
protected:
    void append(const std::string &text)
    {
        ASSERT_EQ(0, tarnhost_root_prepare());
        const std::string path = root_ + "/log/messages";
        int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(static_cast<ssize_t>(text.size()), write(fd, text.data(), text.size()));
        close(fd);
    }
};

const char kLine1[] = "<<%TARN-3-TARN_LIBBUS>> Error returned from bus_send_response(), errno: "
                      "0x0000006f (Connection refused) in gyre_cache_dump_info()";
const char kLine2[] = "<<%TARN-2-TARN_CELL>> IS_CELL_IS_VALID() - failed in tarn_get_context_id()";

TEST_F(TarnctlLog, PrintsFiltersAndParses)
{
    Result r = tarnctl({"log"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.out);
    append(std::string(kLine1) + "\n" + kLine2 + "\nplain line without a tag");
    r = tarnctl({"log"});
    EXPECT_EQ(std::string(kLine1) + "\n" + kLine2 + "\nplain line without a tag\n", r.out);
    r = tarnctl({"log", "--grep", "TARN_CELL"});
    EXPECT_EQ(std::string(kLine2) + "\n", r.out);
    r = tarnctl({"log", "--json", "--grep", "line"});
    json j = json::parse(r.out);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("log_line", j)) << r.out;
    EXPECT_EQ(json::parse(R"({"schema": 1, "text": "plain line without a tag", "time": null,
                             "host": null, "process": null, "pid": null, "facility": null,
                             "severity": null, "name": null, "message": null})"),
              j);
    r = tarnctl({"log", "--json", "--grep", "TARN_CELL"});
    j = json::parse(r.out);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("log_line", j)) << r.out;
    EXPECT_EQ("TARN", j["facility"]);
    EXPECT_EQ(2, j["severity"]);
    EXPECT_EQ("TARN_CELL", j["name"]);
    EXPECT_EQ("IS_CELL_IS_VALID() - failed in tarn_get_context_id()", j["message"]);
    EXPECT_EQ(kLine2, j["text"]);
    r = tarnctl({"log", "--timeout", "3"});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("--timeout goes with --follow"));
}

TEST_F(TarnctlLog, FollowsWhatIsWrittenLater)
{
    append(std::string(kLine1) + "\n");
    Proc p;
    p.start({"log", "-f", "--grep", "TARN", "--timeout", "20"});
    ASSERT_TRUE(p.wait_for(std::string(kLine1) + "\n")) << p.err();
    append("unrelated\n" + std::string(kLine2) + "\n");
    ASSERT_TRUE(p.wait_for(std::string(kLine2) + "\n")) << p.out();
    kill(p.pid, SIGTERM);
    EXPECT_EQ(0, p.wait());
    EXPECT_EQ(std::string(kLine1) + "\n" + kLine2 + "\n", p.out());
}

// The host's syslog prefix is taken apart: time, host, process, pid.
TEST_F(TarnctlLog, LinesWithTheSyslogPrefix)
{
    append("2026-01-02T03:04:05.678901Z sw1 bgpd[4242]: " + std::string(kLine2) + "\n");
    Result r = tarnctl({"log", "--json"});
    ASSERT_EQ(0, r.status) << r.err;
    const json j = json::parse(r.out);
    EXPECT_EQ("", tarntest::tarnctl_schema_problem("log_line", j)) << r.out;
    EXPECT_EQ("2026-01-02T03:04:05.678901Z", j["time"]);
    EXPECT_EQ("sw1", j["host"]);
    EXPECT_EQ("bgpd", j["process"]);
    EXPECT_EQ(4242, j["pid"]);
    EXPECT_EQ("TARN_CELL", j["name"]);
    EXPECT_EQ("IS_CELL_IS_VALID() - failed in tarn_get_context_id()", j["message"]);
}

// --since keeps the lines written at or after a time; a line without a
// time goes with the line before it.
TEST_F(TarnctlLog, SinceKeepsLaterLines)
{
    append("2026-01-02T03:04:05.000000Z sw1 a[1]: early\n"
           "continuation of early\n"
           "2026-01-02T03:05:00.000000Z sw1 b[2]: on the minute\n"
           "continuation of the minute\n"
           "2026-01-02T04:00:00.500000Z sw1 c[3]: late\n");
    Result r = tarnctl({"log", "--since", "2026-01-02T03:05"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("2026-01-02T03:05:00.000000Z sw1 b[2]: on the minute\n"
              "continuation of the minute\n"
              "2026-01-02T04:00:00.500000Z sw1 c[3]: late\n",
              r.out);
    r = tarnctl({"log", "--since", "2026-01-02T04:00:01Z"});
    EXPECT_EQ("", r.out);
    // Everything in the log is far in the past.
    r = tarnctl({"log", "--since", "1d"});
    EXPECT_EQ("", r.out);
    append("continuation nobody started\n");
    r = tarnctl({"log", "--since", "1d"});
    EXPECT_EQ("", r.out);
    // A date alone is its midnight.
    r = tarnctl({"log", "--since", "2026-01-02"});
    EXPECT_NE(std::string::npos, r.out.find("early\n")) << r.out;
    r = tarnctl({"log", "--since", "2026-01-03"});
    EXPECT_EQ("", r.out);
    for (const char *bad : {"yesterday", "5", "5w", "2026-13-01T00:00", "2026-01-02T03:04:05x",
                            "-5m", "2026-02-30T10:00", "2026-01-02T24:00", "2026-01-02T"}) {
        r = tarnctl({"log", "--since", bad});
        EXPECT_EQ(2, r.status) << bad;
        EXPECT_NE(std::string::npos,
                  r.err.find("tarnctl log: --since takes a UTC time (2026-01-02T03:04:05) or a "
                             "span back from now (90s, 15m, 2h, 1d); usage: "))
            << r.err;
    }
}

// A log line cannot drive the terminal: control characters are escaped;
// JSON keeps the line raw.
TEST_F(TarnctlLog, ControlCharactersAreEscaped)
{
    append("name \x1b[31mred\x07 end\n");
    Result r = tarnctl({"log"});
    EXPECT_EQ("name \\e[31mred\\x07 end\n", r.out);
    r = tarnctl({"log", "--json"});
    EXPECT_EQ("name \x1b[31mred\x07 end", json::parse(r.out)["text"]);
}

// A rotated log (moved away, a new file made in its place) is followed
// into the new file.
TEST_F(TarnctlLog, FollowsALogThatIsRotated)
{
    append(std::string(kLine1) + "\n");
    Proc p;
    p.start({"log", "-f", "--timeout", "20"});
    ASSERT_TRUE(p.wait_for(std::string(kLine1) + "\n")) << p.err();
    const std::string path = root_ + "/log/messages";
    ASSERT_EQ(0, rename(path.c_str(), (path + ".1").c_str()));
    append("after the rotation\n");
    ASSERT_TRUE(p.wait_for("after the rotation\n")) << p.out();
    ASSERT_EQ(0, unlink(path.c_str()));
    append("after a delete\n");
    ASSERT_TRUE(p.wait_for("after a delete\n")) << p.out();
    kill(p.pid, SIGTERM);
    EXPECT_EQ(0, p.wait());
    EXPECT_EQ(std::string(kLine1) + "\nafter the rotation\nafter a delete\n", p.out());
}

}  // namespace
