// Test support: a fresh simulated device per test, captured log lines and
// child processes.
#ifndef TARN_TESTS_SUPPORT_FIXTURE_H
#define TARN_TESTS_SUPPORT_FIXTURE_H

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "host/tarnhost.h"

namespace tarntest {

// Creates a new empty host root under /tmp, points TARNHOST_ROOT at it and
// prepares its directories.  Returns its path.
std::string fresh_root();
// Removes a root made by fresh_root().
void remove_root(const std::string &root);

// Lines captured on a channel (TARNHOST_CH_*), in order.
std::vector<std::string> captured(int channel = TARNHOST_CH_SYSLOG);

// Runs fn in a forked child and returns its exit status (fn's result), or
// -1 when it died by a signal.  The child ends with _exit.
int run_child(const std::function<int()> &fn);

// A test with its own host root, capture on, no faults, no throttle history,
// and the process's cell back at its environment value.
class HostTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string root_;
};

}  // namespace tarntest

#endif
