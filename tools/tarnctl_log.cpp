// tarnctl log: the device's log ($TARNHOST_ROOT/log/messages), filtered,
// as text or JSON, and followed as it grows.

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <nlohmann/json.hpp>

#include "host/rootfs.h"
#include "host/tarnhost.h"
#include "tools/tarnctl.h"

namespace tarnctl {

const Command kLog = {
    "log",
    "[-f] [--json] [--grep TEXT] [--timeout S]",
    "print the device's log, filtered, or follow it",
    cmd_log,
};

namespace {

using json = nlohmann::json;

volatile sig_atomic_t g_stop = 0;

void on_signal(int) { g_stop = 1; }

void print_help()
{
    printf("usage: tarnctl log [-f] [--json] [--grep TEXT] [--timeout S]\n"
           "\n"
           "Prints the log of the device in $TARNHOST_ROOT (%s/log/messages), "
           "the lines\n"
           "that every process of the device reports through the platform's "
           "syslog.\n"
           "  -f, --follow   keep printing lines as they are written, until "
           "SIGINT or\n"
           "                 SIGTERM, or S seconds (--timeout); a log that "
           "shrinks is read\n"
           "                 again from its start\n"
           "  --json         one JSON object per line: \"text\", and for a "
           "catalogue line\n"
           "                 (\"<<%%FAC-SEV-NAME>> message\") \"facility\", "
           "\"severity\", \"name\"\n"
           "                 and \"message\"\n"
           "  --grep TEXT    only the lines that contain TEXT\n"
           "\n"
           "Exit status: 0 printed (also when there is no log yet), 1 the log "
           "cannot be\n"
           "read, 2 usage error.\n",
           tarnhost_root());
}

// Prints one line (without its newline) as asked.
void emit(const std::string &line, bool as_json, const std::string &grep)
{
    if (!grep.empty() && line.find(grep) == std::string::npos)
        return;
    if (!as_json) {
        printf("%s\n", line.c_str());
        return;
    }
    json j = {{"text", line}};
    // "<<%TARN-3-TARN_LIBBUS>> message"
    const size_t start = line.find("<<%");
    const size_t end = line.find(">> ", start == std::string::npos ? 0 : start);
    if (start != std::string::npos && end != std::string::npos) {
        const std::string tag = line.substr(start + 3, end - start - 3);
        const size_t d1 = tag.find('-');
        const size_t d2 = d1 == std::string::npos ? d1 : tag.find('-', d1 + 1);
        if (d2 != std::string::npos && d2 > d1 + 1 && d2 - d1 - 1 <= 2 &&
            isdigit(static_cast<unsigned char>(tag[d1 + 1]))) {
            j["facility"] = tag.substr(0, d1);
            j["severity"] = atoi(tag.c_str() + d1 + 1);
            j["name"] = tag.substr(d2 + 1);
            j["message"] = line.substr(end + 3);
        }
    }
    printf("%s\n", j.dump(-1, ' ', true).c_str());
}

}  // namespace

int cmd_log(int argc, char **argv)
{
    bool follow = false, as_json = false;
    std::string grep;
    uint64_t timeout = 0;
    for (int i = 0; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            print_help();
            return kExitOk;
        }
        if (a == "-f" || a == "--follow") {
            follow = true;
        } else if (a == "--json") {
            as_json = true;
        } else if (a == "--grep" || a == "--timeout") {
            if (i + 1 >= argc)
                return usage_error(kLog, (a + " needs a value").c_str());
            const char *v = argv[++i];
            if (a == "--grep")
                grep = v;
            else if (!parse_count(v, 86400u * 365, &timeout))
                return usage_error(kLog, "--timeout takes seconds from 1 to 31536000");
        } else {
            return usage_error(kLog, ("unknown argument \"" + a + "\"").c_str());
        }
    }
    if (timeout != 0 && !follow)
        return usage_error(kLog, "--timeout goes with --follow");

    setvbuf(stdout, nullptr, _IOLBF, 0);
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);

    const std::string path = std::string(tarnhost_root()) + "/log/messages";
    timespec begun;
    clock_gettime(CLOCK_MONOTONIC, &begun);
    int fd = -1;
    off_t offset = 0;
    std::string partial;
    for (;;) {
        if (fd < 0) {
            // Through the root's checked directories, like every file the
            // host opens there: a link anywhere below the root is refused.
            const int dfd = tarnhost_rootfs::open_subdir("log", false);
            fd = dfd < 0 ? -1
                         : tarnhost_rootfs::open_file(dfd, "messages", path.c_str(),
                                                      O_RDONLY);
            if (dfd >= 0) {
                const int err = errno;
                close(dfd);
                errno = err;
            }
            if (fd < 0 && errno != ENOENT) {
                fprintf(stderr, "tarnctl log: cannot read %s: %s\n", path.c_str(),
                        strerror(errno));
                return kExitFailed;
            }
            offset = 0;
            partial.clear();
        }
        if (fd >= 0) {
            struct stat st;
            if (fstat(fd, &st) == 0 && st.st_size < offset) {
                // Rewritten from the start: read it again.
                offset = 0;
                partial.clear();
            }
            char buf[8192];
            ssize_t n;
            while ((n = pread(fd, buf, sizeof buf, offset)) > 0) {
                offset += n;
                partial.append(buf, static_cast<size_t>(n));
                size_t nl;
                while ((nl = partial.find('\n')) != std::string::npos) {
                    emit(partial.substr(0, nl), as_json, grep);
                    partial.erase(0, nl + 1);
                }
            }
        }
        if (!follow)
            break;
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (g_stop || (timeout != 0 && static_cast<uint64_t>(now.tv_sec - begun.tv_sec) >= timeout))
            break;
        timespec pause{0, 100 * 1000000L};
        nanosleep(&pause, nullptr);
    }
    // A last line without its newline is still a line.
    if (!partial.empty())
        emit(partial, as_json, grep);
    if (fd >= 0)
        close(fd);
    return kExitOk;
}

}  // namespace tarnctl
