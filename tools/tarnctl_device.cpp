// Whether the device that tarnctl is to work on can be reached, told before
// the library gets a chance to fail with a less telling report: a missing
// directory, one the host refuses, a device never loaded or one whose
// store is gone, and why the library could not start.

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "host/lock_wait.h"
#include "host/rootfs.h"
#include "host/tarnhost.h"
#include "host/tarnhost_ifmgr.h"
#include "platform/kvs.h"
#include "platform/supv.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_output.h"

namespace tarnctl {

namespace {

std::string parent_of(const std::string &path)
{
    const size_t slash = path.find_last_of('/');
    if (slash == std::string::npos)
        return ".";
    if (slash == 0)
        return "/";
    return path.substr(0, slash);
}

// A number as supv and the store read it: decimal, 0x hex or 0 octal, the
// whole text.
bool whole_number(const char *text, unsigned long long lo, unsigned long long hi)
{
    if (text == nullptr || *text == '\0' || *text == '-' || *text == '+' || *text == ' ')
        return false;
    char *end = nullptr;
    errno = 0;
    const unsigned long long v = strtoull(text, &end, 0);
    return errno == 0 && end != text && *end == '\0' && v >= lo && v <= hi;
}

}  // namespace

int check_environment()
{
    const char *cell = getenv("TARNHOST_CELL");
    if (cell != nullptr && *cell != '\0' && !whole_number(cell, 0, 0xFFFFFFFFull))
        return reportf("", kExitUsage,
                       "TARNHOST_CELL=\"%s\" is not a cell number (0 to 4294967295); "
                       "unset it for cell 1",
                       cell);
    const char *map = getenv("TARNHOST_KVS_MAPSIZE");
    if (map != nullptr && *map != '\0' && !whole_number(map, 65536, ~0ull))
        return reportf("", kExitUsage,
                       "TARNHOST_KVS_MAPSIZE=\"%s\" is not a size in bytes of at least "
                       "65536; unset it for the default",
                       map);
    // Every process of a device must name the same directory, wherever it
    // runs from.
    const char *root = getenv("TARNHOST_ROOT");
    if (root != nullptr && *root != '\0' && *root != '/')
        return reportf("", kExitUsage,
                       "TARNHOST_ROOT=\"%s\" is not an absolute path, so processes started "
                       "elsewhere would use another device; give the whole path",
                       root);
    return -1;
}

bool device_reachable(const std::string &command)
{
    const std::string root = tarnhost_root();
    // The host's own check first: what it refuses (a link, a root of
    // another user or open to others, a group it cannot use) no process of
    // the device will use, and its text says why and what to do.
    const int fd = tarnhost_rootfs::open_root(false);
    if (fd >= 0) {
        close(fd);
    } else {
        const int err = errno;
        if (*tarnhost_root_problem() != '\0') {
            report(command, kExitFailed, tarnhost_root_problem());
            return false;
        }
        if (err == ENOENT) {
            const std::string parent = parent_of(root);
            struct stat pst;
            if (stat(parent.c_str(), &pst) != 0 && errno == ENOENT) {
                report(command, kExitFailed,
                       "the device directory " + root + " does not exist, nor does " +
                           parent + "; create " + parent +
                           " or set TARNHOST_ROOT to the device's directory");
                return false;
            }
            report(command, kExitFailed,
                   "there is no device in " + root +
                       " (no such directory); load one with \"tarnctl load FILE\" "
                       "or set TARNHOST_ROOT to the device's directory");
            return false;
        }
        report(command, kExitFailed,
               "cannot reach the device in " + root + ": " + strerror(err) +
                   "; set TARNHOST_ROOT to a device directory of yours");
        return false;
    }
    if (access(root.c_str(), R_OK | W_OK | X_OK) != 0) {
        const int err = errno;
        report(command, kExitFailed,
               "cannot use the device in " + root + ": " + strerror(err) +
                   "; check the mode of " + root +
                   ": its owner (or the device's group) must be able to read, write "
                   "and enter it");
        return false;
    }
    return true;
}

bool device_creatable(const std::string &command)
{
    // A root still to be made: the host checks its parent and the group as
    // it will when it makes it, so a refusal is told before anything is
    // written.
    const int fd = tarnhost_rootfs::open_root(false);
    if (fd >= 0) {
        close(fd);
    } else if (errno == ENOENT && *tarnhost_root_problem() == '\0') {
        struct stat st;
        const std::string parent = parent_of(tarnhost_root());
        if (stat(parent.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            return true;
    }
    return device_reachable(command);
}

namespace {

// Whether the store of a device that was brought up is still there: it is
// removed or cut to nothing only from outside the host, and a library
// opening the device then would make a new, empty store and show an empty
// device.  Looked at through the root's checked directories, never
// creating anything; "" when the store file is there and not empty, else
// what is wrong with it and what to do, as the end of "the store of the
// device in R ...".
std::string store_missing()
{
    const std::string root = tarnhost_root();
    std::string shown = root;
    int dfd = tarnhost_rootfs::open_root(false);
    const std::string dirs = TARNHOST_KVS_STORE_DIR;
    size_t at = 0;
    while (dfd >= 0 && at < dirs.size()) {
        size_t end = dirs.find('/', at);
        if (end == std::string::npos)
            end = dirs.size();
        const std::string name = dirs.substr(at, end - at);
        at = end + 1;
        if (at >= dirs.size()) {
            // The gate beside the store, which every opener locks: a FIFO or
            // a link a member planted there is refused here, in the host's
            // words, before the library meets it.
            const std::string gate = name + ".gate";
            const std::string gshown = shown + "/" + gate;
            const int gfd = tarnhost_rootfs::open_file(dfd, gate.c_str(), gshown.c_str(), O_RDONLY);
            if (gfd >= 0) {
                // A gate somebody keeps locked would hold every opener of
                // the store: named here rather than met as a failed open.
                const int err = tarnhost_lock::lock_within(gfd, LOCK_SH,
                                                           tarnhost_lock::kStoreGateWaitMs);
                const std::string who = err == ETIMEDOUT ? tarnhost_lock::holder(gfd) : "";
                close(gfd);
                if (err == ETIMEDOUT) {
                    close(dfd);
                    return "cannot be used: " + gshown + ", the gate of the store, stayed locked for " +
                           std::to_string(tarnhost_lock::kStoreGateWaitMs / 1000) + " s by " +
                           (who.empty() ? std::string("another process") : who) +
                           "; end or resume that process, then try again";
                }
            } else if (errno != ENOENT) {
                const int err = errno;
                close(dfd);
                if (*tarnhost_root_problem() != '\0')
                    return std::string("cannot be used: ") + tarnhost_root_problem();
                return "cannot be used: " + gshown + ": " + strerror(err);
            }
        }
        shown += "/" + name;
        const int next = tarnhost_rootfs::open_dir(dfd, name.c_str(), shown.c_str(), false);
        const int err = errno;
        close(dfd);
        dfd = next;
        errno = err;
    }
    const std::string file = shown + "/" + TARNHOST_KVS_STORE_FILE;
    int fd = -1;
    if (dfd >= 0) {
        fd = tarnhost_rootfs::open_file(dfd, TARNHOST_KVS_STORE_FILE, file.c_str(), O_RDONLY);
        const int err = errno;
        close(dfd);
        errno = err;
    }
    const std::string reload = "; load the device again with \"tarnctl load FILE\"";
    if (fd < 0) {
        const int err = errno;
        if (err == ENOENT)
            return "is missing (" + std::string(dfd < 0 ? shown : file) + " does not exist)" +
                   reload;
        // A refusal of the host names its own fix; loading again would
        // meet the same refusal.
        if (*tarnhost_root_problem() != '\0')
            return std::string("cannot be used: ") + tarnhost_root_problem();
        return "cannot be read: " + file + ": " + strerror(err) + "; check the owner and mode of " +
               file + " and the directories above it";
    }
    struct stat st;
    const bool empty = fstat(fd, &st) == 0 && st.st_size == 0;
    close(fd);
    return empty ? "is empty (" + file + " holds nothing)" + reload : "";
}

}  // namespace

bool device_up(const std::string &command)
{
    if (!device_reachable(command))
        return false;
    if (supv_running_cfg_uri_get() == nullptr) {
        // Refused rather than missing (a FIFO or a link in its place):
        // the host's words say what to do.
        if (*tarnhost_root_problem() != '\0') {
            report(command, kExitFailed,
                   std::string("the running configuration of the device in ") + tarnhost_root() +
                       " cannot be read: " + tarnhost_root_problem());
            return false;
        }
        report(command, kExitFailed,
               std::string("the device in ") + tarnhost_root() +
                   " is not up; load one with \"tarnctl load FILE\"");
        return false;
    }
    const std::string missing = store_missing();
    if (!missing.empty()) {
        report(command, kExitFailed,
               std::string("the store of the device in ") + tarnhost_root() + " " + missing);
        return false;
    }
    // LMDB trusts the pages it maps: a process that reads a damaged store
    // may read nonsense or die.  The whole store is read first in a child
    // process (a few milliseconds for a device of thousands of records), so
    // that damage is told, not met.
    return !store_damaged(command);
}

bool store_damaged(const std::string &command)
{
    // Read in a child process: a damaged store may kill what reads it.
    if (tarnhost_kvs_check(TARNHOST_IFMGR_URI) != KVS_ERR_DAMAGED)
        return false;
    report(command, kExitFailed,
           std::string("the store of the device in ") + tarnhost_root() +
               " is damaged; rebuild it with \"tarnctl load FILE\"");
    return true;
}

int report_library_failure(const std::string &command)
{
    const std::string root = tarnhost_root();
    const char *cell = getenv("TARNHOST_CELL");
    if (cell != nullptr && *cell != '\0' && strtoull(cell, nullptr, 0) != 1)
        return report(command, kExitFailed,
                      "libtarn could not be initialised for the device in " + root +
                          ": it serves cell 1 only and this process is in cell " + cell +
                          " (TARNHOST_CELL); unset TARNHOST_CELL or set it to 1");
    if (store_damaged(command))
        return kExitFailed;
    const std::string missing = store_missing();
    if (!missing.empty())
        return report(command, kExitFailed, "the store of the device in " + root + " " + missing);
    return report(command, kExitFailed,
                  "libtarn could not be initialised for the device in " + root +
                      "; the library's report is in " + root + "/log/messages");
}

}  // namespace tarnctl
