// tarnctl log: the device's log printed, filtered, as JSON, and followed
// while another process writes to it.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "host/tarnhost.h"
#include "support/fixture.h"
#include "support/tool_process.h"

namespace {

using tarntest::Proc;
using tarntest::Result;
using tarntest::tarnctl;

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
    EXPECT_EQ("{\"text\":\"plain line without a tag\"}\n", r.out);
    r = tarnctl({"log", "--json", "--grep", "TARN_CELL"});
    EXPECT_EQ("{\"facility\":\"TARN\",\"message\":\"IS_CELL_IS_VALID() - failed in "
              "tarn_get_context_id()\",\"name\":\"TARN_CELL\",\"severity\":2,\"text\":\"" +
                  std::string(kLine2) + "\"}\n",
              r.out);
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

}  // namespace
