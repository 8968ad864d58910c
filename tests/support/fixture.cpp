#include "fixture.h"

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace tarntest {

std::string fresh_root()
{
    char tmpl[] = "/tmp/tarntest.XXXXXX";
    const char *dir = mkdtemp(tmpl);
    if (dir == nullptr) {
        ADD_FAILURE() << "mkdtemp failed";
        return {};
    }
    setenv("TARNHOST_ROOT", dir, 1);
    EXPECT_EQ(0, tarnhost_root_prepare());
    return dir;
}

void remove_root(const std::string &root)
{
    if (root.rfind("/tmp/tarntest.", 0) != 0)
        return;
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
}

std::vector<std::string> captured(int channel)
{
    std::vector<std::string> out;
    for (size_t i = 0; i < tarnhost_capture_count(channel); ++i)
        out.emplace_back(tarnhost_capture_line(channel, i));
    return out;
}

int run_child(const std::function<int()> &fn)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        return -2;
    if (pid == 0)
        _exit(fn());
    int status = 0;
    if (waitpid(pid, &status, 0) != pid)
        return -3;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void HostTest::SetUp()
{
    root_ = fresh_root();
    tarnhost_fault_clear_all();
    tarnhost_log_throttle_reset();
    tarnhost_cell_reset();
    tarnhost_log_set_facility("tarn", 5);
    tarnhost_capture(1);
    tarnhost_capture_clear();
}

void HostTest::TearDown()
{
    tarnhost_capture(0);
    tarnhost_fault_clear_all();
    remove_root(root_);
}

}  // namespace tarntest
