// Bounded, named waits for lock files: see host/lock_wait.h.

#include "host/lock_wait.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

namespace tarnhost_lock {

namespace {

uint64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u +
           static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

// The command line of `pid`, its arguments joined by spaces, control
// bytes escaped; "" when it cannot be read.
std::string command_of(long pid)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%ld/cmdline", pid);
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return "";
    char buf[256];
    ssize_t n = read(fd, buf, sizeof buf);
    close(fd);
    if (n <= 0)
        return "";
    while (n > 0 && buf[n - 1] == '\0')
        --n;
    std::string out;
    for (ssize_t i = 0; i < n; ++i) {
        unsigned char c = static_cast<unsigned char>(buf[i]);
        if (c == '\0') {
            out += ' ';
        } else if (c < 0x20 || c == 0x7f || c == '\\') {
            char esc[8];
            snprintf(esc, sizeof esc, c == '\\' ? "\\\\" : "\\x%02x", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
    }
    if (n == static_cast<ssize_t>(sizeof buf))
        out += "...";
    return out;
}

}  // namespace

std::string holder(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return "";
    FILE *f = fopen("/proc/locks", "re");
    if (f == nullptr)
        return "";
    char line[256];
    long found = -1;
    while (found < 0 && fgets(line, sizeof line, f) != nullptr) {
        // "1: FLOCK  ADVISORY  WRITE 1234 00:1a:5678 0 EOF"; a waiter's
        // line has "->" after the number and is not a holder.
        char kind[16], mode[16], access[16];
        long pid;
        unsigned maj, min;
        unsigned long ino;
        if (strstr(line, "->") != nullptr ||
            sscanf(line, "%*d: %15s %15s %15s %ld %x:%x:%lu", kind, mode,
                   access, &pid, &maj, &min, &ino) != 7)
            continue;
        if (maj == major(st.st_dev) && min == minor(st.st_dev) &&
            ino == static_cast<unsigned long>(st.st_ino) && pid > 0)
            found = pid;
    }
    fclose(f);
    if (found < 0)
        return "";
    std::string cmd = command_of(found);
    std::string out = "pid " + std::to_string(found);
    if (!cmd.empty())
        out += " (" + cmd + ")";
    return out;
}

int lock_within(int fd, int how, unsigned wait_ms, unsigned notice_ms,
                Notice notice, void *arg)
{
    const uint64_t start = now_ms();
    bool told = false;
    unsigned pause_us = 1000;
    for (;;) {
        if (flock(fd, how | LOCK_NB) == 0)
            return 0;
        if (errno == EINTR)
            continue;
        if (errno != EWOULDBLOCK)
            return errno;
        const uint64_t waited = now_ms() - start;
        if (waited >= wait_ms)
            return ETIMEDOUT;
        if (!told && notice != nullptr && waited >= notice_ms) {
            told = true;
            notice(arg, holder(fd));
        }
        // Short pauses first (most holders finish within milliseconds),
        // then up to 50 ms between tries.
        usleep(pause_us);
        if (pause_us < 50000)
            pause_us *= 2;
    }
}

}  // namespace tarnhost_lock
