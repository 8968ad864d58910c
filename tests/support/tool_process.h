// Test support: the built tarnctl as a process of its own, its output in
// files, waited for with a bound.
#ifndef TARN_TESTS_SUPPORT_TOOL_PROCESS_H
#define TARN_TESTS_SUPPORT_TOOL_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "support/tarnctl_process.h"

namespace tarntest {

// slurp() is in support/tarnctl_process.h.
void sleep_ms(long ms);

// A tarnctl process whose standard output and error go to files under the
// host root; killed when it goes out of scope.
struct Proc {
    pid_t pid = -1;
    std::string out_path, err_path;

    void start(const std::vector<std::string> &args);
    std::string out() const;
    std::string err() const;
    // Waits (30 s at most) until standard output holds `text`.
    bool wait_for(const std::string &text) const;
    // The exit status, -1 for a signal, -2 when it did not end in 60 s.
    int wait();
    ~Proc();
};

struct Result {
    int status;
    std::string out, err;
};

// Runs tarnctl to its end.
Result tarnctl(const std::vector<std::string> &args);

}  // namespace tarntest

#endif
