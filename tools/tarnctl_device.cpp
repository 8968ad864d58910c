// Whether the device that tarnctl is to work on can be reached, told before
// the library gets a chance to fail with a less telling report: a missing
// directory, one that another user keeps closed, or a device never loaded.

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "host/tarnhost.h"
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
    return -1;
}

bool device_reachable(const std::string &command)
{
    const std::string root = tarnhost_root();
    struct stat st;
    if (stat(root.c_str(), &st) != 0) {
        const int err = errno;
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
    if (!S_ISDIR(st.st_mode)) {
        report(command, kExitFailed,
               root + " is not a directory; set TARNHOST_ROOT to the device's directory");
        return false;
    }
    if (access(root.c_str(), R_OK | W_OK | X_OK) != 0) {
        const int err = errno;
        report(command, kExitFailed,
               "cannot use the device in " + root + ": " + strerror(err) +
                   " (it belongs to uid " + std::to_string(st.st_uid) +
                   "); run as its owner or set TARNHOST_ROOT to a device directory of "
                   "yours");
        return false;
    }
    return true;
}

bool device_creatable(const std::string &command)
{
    struct stat st;
    const std::string root = tarnhost_root();
    if (stat(root.c_str(), &st) != 0 && errno == ENOENT &&
        stat(parent_of(root).c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        return true;
    return device_reachable(command);
}

bool device_up(const std::string &command)
{
    if (!device_reachable(command))
        return false;
    if (supv_running_cfg_uri_get() == nullptr) {
        report(command, kExitFailed,
               std::string("the device in ") + tarnhost_root() +
                   " is not up; load one with \"tarnctl load FILE\"");
        return false;
    }
    return true;
}

}  // namespace tarnctl
