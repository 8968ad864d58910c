// Test support: forked processes that talk to the test through a pipe each
// way, with every wait bounded.
#ifndef TARN_TESTS_SUPPORT_PROC_H
#define TARN_TESTS_SUPPORT_PROC_H

#include <stdint.h>
#include <sys/types.h>

#include <functional>

namespace tarntest {

constexpr int kWaitMs = 5000;  // upper bound on every cross-process wait

struct Proc {
    pid_t pid = -1;
    int rd = -1;  // words from the child
    int wr = -1;  // words to the child
};

bool put_word(int fd, uint32_t v);
bool get_word(int fd, uint32_t *v, int timeout_ms = kWaitMs);
// Runs fn(rd, wr) in a forked child, which ends with _exit(fn's result).
Proc spawn(const std::function<int(int rd, int wr)> &fn);
// The child's exit status; -1 when it died by a signal or had to be killed.
int finish(Proc &p, int timeout_ms = kWaitMs);

}  // namespace tarntest

#endif
