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
#include "tools/log_lines.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_output.h"
#include "tools/tarnctl_passive.h"

namespace tarnctl {

const Command kLog = {
    "log",
    "[-f] [--json] [--grep TEXT] [--since WHEN] [--timeout S]",
    "print the device's log, filtered, or follow it",
    cmd_log,
};

namespace {



void print_help()
{
    printf("usage: tarnctl log [-f] [--json] [--grep TEXT] [--since WHEN] [--timeout S]\n"
           "\n"
           "Prints the log of the device in $TARNHOST_ROOT (%s/log/messages), "
           "the lines\n"
           "that every process of the device reports through the platform's "
           "syslog.\n"
           "  -f, --follow   keep printing lines as they are written, until "
           "SIGINT or\n"
           "                 SIGTERM, or S seconds (--timeout); a log that "
           "shrinks is read\n"
           "                 again from its start, a rotated one (moved away or "
           "deleted, and\n"
           "                 made anew) in its new file\n"
           "  --json         one JSON object per line: \"text\" (the whole line, raw "
           "but for\n"
           "                 bytes that are not UTF-8, which JSON cannot hold: U+FFFD), "
           "\"time\",\n"
           "                 \"host\", \"process\" and \"pid\" from its prefix, and "
           "for a\n"
           "                 catalogue line (\"<<%%FAC-SEV-NAME>> message\") "
           "\"facility\",\n"
           "                 \"severity\", \"name\" and \"message\"; null where a "
           "line has none\n"
           "  --grep TEXT    only the lines that contain TEXT\n"
           "  --since WHEN   only the lines written at or after WHEN: a UTC date and "
           "time\n"
           "                 (2026-01-02T03:04:05; the time, its seconds and the Z may "
           "be\n"
           "                 left out) or a span back from now (90s, 15m, 2h, 1d); a "
           "line\n"
           "                 without a time goes with the line before it\n"
           "Lines are shown with control characters escaped; --json keeps them raw.\n"
           "\n"
           "Exit status: 0 printed (also when there is no log yet), 1 the log "
           "cannot be\n"
           "read, 2 usage error.\n",
           tarnhost_root());
}

// --since as the time text of the log's prefix, so that lines compare as
// strings; "" when `text` is neither a UTC time nor a span.
std::string since_text(const char *text)
{
    const std::string t = text;
    time_t at = 0;
    if (!t.empty() && t.find_first_not_of("0123456789") == t.size() - 1 &&
        t.size() >= 2 && t.size() <= 9) {
        const char unit = t.back();
        const long long n = atoll(t.c_str());
        long long scale = unit == 's' ? 1 : unit == 'm' ? 60 : unit == 'h' ? 3600
                        : unit == 'd' ? 86400 : 0;
        if (scale == 0)
            return "";
        at = time(nullptr) - static_cast<time_t>(n * scale);
    } else {
        tm when;
        memset(&when, 0, sizeof when);
        // A date alone is its midnight.
        const char *end = strptime(t.c_str(), "%Y-%m-%d", &when);
        if (end == nullptr)
            return "";
        if (*end == 'T') {
            end = strptime(end, "T%H:%M", &when);
            if (end == nullptr)
                return "";
            if (*end == ':') {
                end = strptime(end, ":%S", &when);
                if (end == nullptr)
                    return "";
                // The log's own form has microseconds: whole seconds
                // compare the same way, so the fraction is passed over.
                if (*end == '.' && end[1] >= '0' && end[1] <= '9')
                    for (++end; *end >= '0' && *end <= '9'; ++end) {
                    }
            }
            if (*end == 'Z')
                ++end;
        }
        if (*end != '\0')
            return "";
        const tm asked = when;
        at = timegm(&when);
        // timegm() moves a day that does not exist (February 30) on; such a
        // date is a mistake, not a time.
        if (at == static_cast<time_t>(-1) || when.tm_mday != asked.tm_mday ||
            when.tm_mon != asked.tm_mon || when.tm_hour != asked.tm_hour ||
            when.tm_min != asked.tm_min || when.tm_sec != asked.tm_sec)
            return "";
    }
    tm u;
    gmtime_r(&at, &u);
    char buf[64];
    strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S.000000Z", &u);
    return buf;
}

struct Filter {
    bool as_json = false;
    std::string grep;
    std::string since;  // "" for every line
    bool last_kept = false;
};

// Prints one line (without its newline) as asked.
void emit(const std::string &line, Filter *f)
{
    const tarndev::LogPrefix pre = tarndev::parse_log_prefix(line);
    if (!f->since.empty()) {
        if (pre.present)
            f->last_kept = pre.time >= f->since;
        if (!f->last_kept)
            return;
    }
    if (!f->grep.empty() && line.find(f->grep) == std::string::npos)
        return;
    if (!f->as_json) {
        printf("%s\n", escaped(line).c_str());
        return;
    }
    json j = {{"text", line},
              {"time", or_null(pre.present, pre.time)},
              {"host", or_null(pre.present, pre.host)},
              {"process", or_null(pre.present, pre.process)},
              {"pid", or_null(pre.present, pre.pid)},
              {"facility", nullptr},
              {"severity", nullptr},
              {"name", nullptr},
              {"message", nullptr}};
    // "<<%TARN-3-TARN_LIBBUS>> message"
    const size_t start = line.find("<<%", pre.length);
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
    print_json_line(j);
}

// Whether log/messages is still the file open as `fd`: looked at through
// the checked directories without following a link.
bool same_file(int fd)
{
    struct stat open_now, named;
    if (fstat(fd, &open_now) != 0)
        return false;
    const int dfd = tarnhost_rootfs::open_subdir("log", false);
    if (dfd < 0)
        return true;  // nothing to move to
    const bool same = fstatat(dfd, "messages", &named, AT_SYMLINK_NOFOLLOW) != 0
                          ? errno != ENOENT ? true : open_now.st_nlink != 0
                          : named.st_ino == open_now.st_ino && named.st_dev == open_now.st_dev;
    close(dfd);
    return same;
}

}  // namespace

int cmd_log(int argc, char **argv)
{
    bool follow = false;
    Filter filter;
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
            filter.as_json = true;
        } else if (a.compare(0, 7, "--grep=") == 0) {
            filter.grep = a.substr(7);
        } else if (a == "--grep" || a == "--timeout" || a == "--since") {
            if (i + 1 >= argc)
                return usage_error(kLog, (a + " needs a value").c_str());
            const char *v = argv[++i];
            if (a == "--grep" && strcmp(v, "--json") == 0)
                return usage_error(kLog, "--grep needs the text to look for before --json "
                                         "(use --grep=--json to look for that text)");
            if (a == "--grep") {
                filter.grep = v;
            } else if (a == "--since") {
                filter.since = since_text(v);
                if (filter.since.empty())
                    return usage_error(kLog, "--since takes a UTC time (2026-01-02T03:04:05) "
                                             "or a span back from now (90s, 15m, 2h, 1d)");
            } else if (!parse_count(v, 86400u * 365, &timeout))
                return usage_error(kLog, "--timeout takes seconds from 1 to 31536000");
        } else {
            return usage_error(kLog, ("unknown argument \"" + a + "\"").c_str());
        }
    }
    if (timeout != 0 && !follow)
        return usage_error(kLog, "--timeout goes with --follow");

    stop_on_signals();

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
            if (fd < 0 && errno != ENOENT)
                return reportf("log", kExitFailed, "cannot read %s: %s", path.c_str(),
                               tarnhost_root_strerror(errno));
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
                    emit(partial.substr(0, nl), &filter);
                    partial.erase(0, nl + 1);
                }
            }
        }
        if (!follow)
            break;
        // A log that was moved away or deleted and made anew (rotated) is
        // followed into its new file, from its start.
        if (fd >= 0 && !same_file(fd)) {
            if (!partial.empty())
                emit(partial, &filter);
            close(fd);
            fd = -1;
        }
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (stop_requested() || output_failed() || (timeout != 0 && static_cast<uint64_t>(now.tv_sec - begun.tv_sec) >= timeout))
            break;
        timespec pause{0, 100 * 1000000L};
        nanosleep(&pause, nullptr);
    }
    // A last line without its newline is still a line.
    if (!partial.empty())
        emit(partial, &filter);
    if (fd >= 0)
        close(fd);
    return kExitOk;
}

}  // namespace tarnctl
