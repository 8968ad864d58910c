// The device's apply lock: see tools/tarnctl_apply_lock.h.

#include "tools/tarnctl_apply_lock.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

#include "host/lock_wait.h"
#include "host/rootfs.h"
#include "host/tarnhost.h"
#include "tools/tarnctl_output.h"

namespace tarnctl {

namespace {

// How long a second apply waits quietly: an apply of a few changes
// usually ends within it.
constexpr unsigned kQuietMs = 2000;

struct Waiting {
    std::string shown;
    unsigned seconds;
};

void say_waiting(void *arg, const std::string &holder)
{
    const Waiting *w = static_cast<const Waiting *>(arg);
    if (json_output())
        return;
    fprintf(stderr, "%s\n",
            escaped("tarnctl apply: waiting for " + w->shown + ", held by " +
                    (holder.empty() ? std::string("another process") : holder) +
                    ", for up to " + std::to_string(w->seconds) + " s (--wait SECONDS)")
                .c_str());
}

}  // namespace

int take_wait_option(const Command &cmd, int *argc, char **argv, unsigned *seconds)
{
    *seconds = kApplyWaitDefault;
    int out = 0;
    bool options_done = false;
    for (int i = 0; i < *argc; ++i) {
        const char *a = argv[i];
        if (!options_done && strcmp(a, "--") == 0)
            options_done = true;
        if (!options_done && strcmp(a, "--wait") == 0) {
            uint64_t v = 0;
            // 0 is a wait too: try once.
            const bool zero = i + 1 < *argc && strcmp(argv[i + 1], "0") == 0;
            if (i + 1 >= *argc || (!zero && !parse_count(argv[i + 1], kApplyWaitMax, &v))) {
                char msg[128];
                snprintf(msg, sizeof msg, "--wait needs a number of seconds from 0 to %u",
                         kApplyWaitMax);
                return usage_error(cmd, msg);
            }
            *seconds = static_cast<unsigned>(v);
            ++i;
            continue;
        }
        argv[out++] = argv[i];
    }
    *argc = out;
    return -1;
}

int hold_apply_lock(unsigned seconds, std::string *why)
{
    const std::string shown = std::string(tarnhost_root()) + "/supervisor/apply.lock";
    const int dfd = tarnhost_rootfs::open_subdir("supervisor", false);
    int fd = -1;
    if (dfd >= 0) {
        fd = tarnhost_rootfs::open_file(dfd, "apply.lock", shown.c_str(), O_RDWR | O_CREAT);
        const int err = errno;
        close(dfd);
        errno = err;
    }
    if (fd < 0) {
        *why = std::string("cannot take the apply lock of the device in ") + tarnhost_root() +
               " (" + tarnhost_root_strerror(errno) + ")";
        return -1;
    }
    Waiting w{shown, seconds};
    const int err = tarnhost_lock::lock_within(fd, LOCK_EX, seconds * 1000u, kQuietMs,
                                               say_waiting, &w);
    if (err == 0)
        return fd;
    if (err == ETIMEDOUT) {
        const std::string holder = tarnhost_lock::holder(fd);
        *why = shown + " stayed held by " +
               (holder.empty() ? std::string("another process") : holder) + " for " +
               std::to_string(seconds) +
               " s; end or resume that process, or wait longer with --wait SECONDS";
    } else {
        *why = std::string("cannot take the apply lock of the device in ") + tarnhost_root() +
               " (" + strerror(err) + ")";
    }
    close(fd);
    return -1;
}

}  // namespace tarnctl
