// Waiting for a lock file that another process holds, bounded and named.
// A holder may be stopped, hung or hostile (on a device shared with a
// group, any member can take any lock of it), so nobody waits for ever,
// and whoever waits can say for what and for whom.
#ifndef TARNHOST_LOCK_WAIT_H
#define TARNHOST_LOCK_WAIT_H

#include <string>

namespace tarnhost_lock {

// How long an opener of the store waits for its gate (held by a replacer
// for a rename, by other openers for an open).
constexpr unsigned kStoreGateWaitMs = 10000;

// The process that holds a lock on the file open at `fd`, as the kernel
// lists it: "pid N (COMMAND LINE)", "pid N" when its command line cannot
// be read, "" when no holder is listed.  Control characters of the
// command line are written \xNN.
std::string holder(int fd);

// Called once while waiting, after `notice_ms`, with holder(fd).
using Notice = void (*)(void *arg, const std::string &holder);

// flock(fd, how) waiting at most `wait_ms`: 0, ETIMEDOUT when the lock
// stayed taken that long, or the errno of a failed flock.
int lock_within(int fd, int how, unsigned wait_ms, unsigned notice_ms = 0,
                Notice notice = nullptr, void *arg = nullptr);

}  // namespace tarnhost_lock

#endif
