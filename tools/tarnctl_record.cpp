// tarnctl record FILE and tarnctl replay FILE: a device's notifications
// written down with their timing and payloads, and published again, so a
// problem seen on one device can be played to clients of another.
//
// A recording is NDJSON: a first line {"recording": 1, "device", "opcodes"}
// and then one line per notification {"at": seconds since the start,
// "opcode", "payload": hex}.  Every line is flushed as it is written, so a
// recorder stopped at any instant leaves a file that replays up to there.

#include <errno.h>
#include <fcntl.h>
#include <math.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "tools/device_records.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_bus.h"
#include "tools/tarnctl_output.h"
#include "tools/tarnctl_passive.h"

namespace tarnctl {

const Command kRecord = {
    "record",
    "FILE [--opcode OPCODE]... [--count N] [--timeout S] [--json]",
    "write the device's notifications, timed, to FILE for replay",
    cmd_record,
};

const Command kReplay = {
    "replay",
    "FILE [--speed X] [--json]",
    "publish the notifications of a recording again",
    cmd_replay,
};

namespace {

using json = nlohmann::json;

constexpr int kFormat = 1;



double monotonic_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

void sleep_seconds(double s)
{
    while (s > 0 && !stop_requested()) {
        const double step = s > 0.2 ? 0.2 : s;  // stay responsive to signals
        timespec ts{static_cast<time_t>(step), static_cast<long>((step - floor(step)) * 1e9)};
        nanosleep(&ts, nullptr);
        s -= step;
    }
}

void print_record_help()
{
    printf("usage: tarnctl record FILE [--opcode OPCODE]... [--count N] [--timeout S] [--json]\n"
           "\n"
           "Listens passively (no libtarn, no cache) to the notifications of the "
           "device in\n"
           "$TARNHOST_ROOT, those of the Tarn and Gyre services or only the "
           "opcodes given,\n"
           "and writes each to FILE with its time since the start and its "
           "payload, one\n"
           "JSON object per line after a header line.  FILE is created (mode "
           "0600) or\n"
           "truncated; a symbolic link is refused.  Stops on SIGINT or SIGTERM, "
           "after N\n"
           "notifications or after S seconds.  With --json the closing summary is "
           "one\n"
           "JSON document.  OPCODE is one of these names (in any letter case) or its "
           "number:\n"
           "%s"
           "\n"
           "Exit status: 0 recorded, 1 could not start, 2 usage error.\n",
           library_opcode_lines().c_str());
}

void print_replay_help()
{
    printf("usage: tarnctl replay FILE [--speed X] [--json]\n"
           "\n"
           "Publishes the notifications of a recording made by \"tarnctl "
           "record\" to the\n"
           "subscribers of the device in $TARNHOST_ROOT, keeping their spacing "
           "divided by\n"
           "X (default 1; 0 publishes them back to back).  The whole file is "
           "checked\n"
           "first: a file with any bad line is refused, naming the line, and "
           "nothing is\n"
           "published.  One line per notification says to how many subscribers "
           "it went;\n"
           "with --json all of it is one JSON document at the end.\n"
           "\n"
           "Exit status: 0 replayed, 1 refused or a publish failed, 2 usage "
           "error.\n");
}

// The value of option `name` at argv[*i]: null when it is not that option;
// *missing when it has no value.
const char *option_value(int argc, char **argv, int *i, const char *name, bool *missing)
{
    const size_t n = strlen(name);
    const char *a = argv[*i];
    *missing = false;
    if (strcmp(a, name) == 0) {
        if (*i + 1 >= argc) {
            *missing = true;
            return nullptr;
        }
        return argv[++*i];
    }
    if (strncmp(a, name, n) == 0 && a[n] == '=')
        return a + n + 1;
    return nullptr;
}

struct Event {
    double at;
    uint32_t opcode;
    std::vector<uint8_t> payload;
};

// A recording spans at most a year, as record's --timeout does.
constexpr double kMaxAt = 86400.0 * 365;

// The events of a recording; "" or what is wrong, naming the line.
std::string read_recording(const char *file, std::vector<Event> *out)
{
    int fd = open(file, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return std::string("cannot open ") + file + ": " + strerror(errno);
    FILE *in = fdopen(fd, "r");
    if (in == nullptr) {
        close(fd);
        return std::string("cannot read ") + file;
    }
    std::string line;
    size_t number = 0;
    std::string error;
    char buf[65536];
    bool header = false;
    double last = 0;
    while (error.empty() && fgets(buf, sizeof buf, in) != nullptr) {
        line += buf;
        if (line.empty() || line.back() != '\n') {
            if (!feof(in))
                continue;  // a long line: read on
        }
        ++number;
        const std::string where = std::string(file) + ":" + std::to_string(number) + ": ";
        // The device tools' parser: a key given twice is refused, not
        // silently the later one.
        json j;
        try {
            j = tarndev::parse_json(line, where.substr(0, where.size() - 2));
        } catch (const tarndev::Refusal &r) {
            const std::string source = where.substr(0, where.size() - 2) + ": ";
            error = where + (r.message.compare(0, source.size(), source) == 0
                                 ? r.message.substr(source.size())
                                 : r.message);
            break;
        }
        line.clear();
        if (!j.is_object()) {
            error = where + "not a JSON object";
            break;
        }
        if (!header) {
            if (!j.contains("recording") || j["recording"] != kFormat)
                error = where + "not a recording of \"tarnctl record\" (format " +
                        std::to_string(kFormat) + ")";
            header = true;
            continue;
        }
        Event e;
        if (!j.contains("at") || !j["at"].is_number() || j["at"].get<double>() < last ||
            !(j["at"].get<double>() <= kMaxAt)) {
            error = where + "\"at\" must be seconds (at most " +
                    std::to_string(static_cast<long>(kMaxAt)) +
                    "), not before the line above";
            break;
        }
        if (!j.contains("opcode") || !j["opcode"].is_number_unsigned() ||
            j["opcode"].get<uint64_t>() > 0xFFFFFFFFu) {
            error = where + "\"opcode\" must be a number from 0 to 4294967295";
            break;
        }
        if (!j.contains("payload") || !j["payload"].is_string() ||
            !from_hex(j["payload"].get<std::string>(), &e.payload) ||
            e.payload.size() > BUS_MAX_PAYLOAD) {
            error = where + "\"payload\" must be hex of at most " +
                    std::to_string(BUS_MAX_PAYLOAD) + " bytes";
            break;
        }
        e.at = j["at"].get<double>();
        e.opcode = static_cast<uint32_t>(j["opcode"].get<uint64_t>());
        last = e.at;
        out->push_back(std::move(e));
    }
    if (error.empty() && ferror(in))
        error = std::string("cannot read ") + file + ": " + strerror(errno);
    if (error.empty() && !header)
        error = std::string(file) + ": empty, not a recording";
    fclose(in);
    return error;
}

}  // namespace

int cmd_record(int argc, char **argv)
{
    const char *file = nullptr;
    uint64_t count = 0, timeout = 0;
    std::vector<uint32_t> only;
    for (int i = 0; i < argc; ++i) {
        const char *a = argv[i];
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            print_record_help();
            return kExitOk;
        }
        if (strcmp(a, "--json") == 0)
            continue;
        std::string opcode_error;
        const int op = parse_opcode_option(argc, argv, &i, &only, &opcode_error);
        if (op < 0)
            return usage_error(kRecord, opcode_error.c_str());
        if (op > 0)
            continue;
        bool missing = false;
        if (const char *v = option_value(argc, argv, &i, "--count", &missing)) {
            if (!parse_count(v, 0xFFFFFFFFu, &count))
                return usage_error(kRecord, "--count takes a number from 1 to 4294967295");
            continue;
        }
        if (!missing)
            if (const char *v = option_value(argc, argv, &i, "--timeout", &missing)) {
                if (!parse_count(v, 86400u * 365, &timeout))
                    return usage_error(kRecord, "--timeout takes seconds from 1 to 31536000");
                continue;
            }
        if (missing)
            return usage_error(kRecord, (std::string(a) + " needs a value").c_str());
        if (a[0] == '-' && a[1] != '\0')
            return usage_error(kRecord, ("unknown option \"" + std::string(a) + "\"").c_str());
        if (file != nullptr)
            return usage_error(kRecord, "one FILE only");
        file = a;
    }
    if (file == nullptr)
        return usage_error(kRecord, "FILE is missing");
    // Before FILE is made: a root without a device gives nothing to record.
    if (!device_loaded("record"))
        return kExitFailed;

    int fd = open(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0)
        return reportf("record", kExitFailed, "cannot write %s: %s%s", file, strerror(errno),
                       errno == ELOOP ? " (it is a symbolic link; name a file)" : "");
    FILE *out = fdopen(fd, "w");
    if (out == nullptr) {
        const int err = errno;
        close(fd);
        return reportf("record", kExitFailed, "cannot write %s: %s", file, strerror(err));
    }
    stop_on_signals();
    const std::vector<uint32_t> opcodes = only.empty() ? notification_opcodes() : only;
    std::string error;
    const uint32_t h = listen_passively("tarnctl record", opcodes, &error);
    if (h == BUS_HANDLE_NONE) {
        fclose(out);
        return reportf("record", kExitFailed, "%s in %s/bus", error.c_str(), tarnhost_root());
    }
    const json head = {{"recording", kFormat}, {"device", tarnhost_root()}, {"opcodes", opcodes}};
    if (fprintf(out, "%s\n", head.dump(-1, ' ', true).c_str()) < 0 || fflush(out) != 0) {
        const int err = errno;
        fclose(out);
        bus_unbind(h);
        return reportf("record", kExitFailed, "cannot write %s: %s", file, strerror(err));
    }
    if (!json_output())
        printf("recording to %s\n", escaped(file).c_str());

    const double start = monotonic_seconds();
    uint64_t n = 0;
    const char *why = nullptr;
    bool write_failed = false;
    for (;;) {
        why = stop_reason(stop_requested(), n, count, monotonic_seconds() - start, timeout);
        if (why != nullptr)
            break;
        bus_msg_t *msg = tarnhost_bus_recv_ms(h, 200);
        if (msg == nullptr)
            continue;
        const double at = monotonic_seconds() - start;
        uint32_t len = 0;
        const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(msg, &len));
        const json line = {{"at", floor(at * 1e6) / 1e6},
                           {"opcode", bus_opc_get(msg)},
                           {"payload", to_hex(p, p == nullptr ? 0 : len)}};
        bus_drop(h, msg);
        if (fprintf(out, "%s\n", line.dump(-1, ' ', true).c_str()) < 0 || fflush(out) != 0) {
            write_failed = true;
            why = "write error";
            break;
        }
        ++n;
    }
    bus_unbind(h);
    if (fclose(out) != 0)
        write_failed = true;
    const int write_errno = errno;
    if (!write_failed)
        set_done("the recording " + escaped(file) + " holds " +
                 counted(n, "notification", "notifications"));
    if (json_output())
        print_json({{"file", file}, {"recorded", n}, {"stopped", why}});
    else
        printf("recorded %s (stopped: %s)\n", counted(n, "notification", "notifications").c_str(),
               why);
    if (write_failed)
        return reportf("record", kExitFailed, "writing %s failed: %s", file,
                       strerror(write_errno));
    return kExitOk;
}

int cmd_replay(int argc, char **argv)
{
    const char *file = nullptr;
    double speed = 1;
    for (int i = 0; i < argc; ++i) {
        const char *a = argv[i];
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            print_replay_help();
            return kExitOk;
        }
        if (strcmp(a, "--json") == 0)
            continue;
        bool missing = false;
        if (const char *v = option_value(argc, argv, &i, "--speed", &missing)) {
            char *end = nullptr;
            errno = 0;
            speed = strtod(v, &end);
            if (*v == '\0' || *end != '\0' || errno != 0 || !std::isfinite(speed) || speed < 0)
                return usage_error(kReplay, "--speed takes a factor of 0 or more (0: no waits)");
            continue;
        }
        if (missing)
            return usage_error(kReplay, "--speed needs a value");
        if (a[0] == '-' && a[1] != '\0')
            return usage_error(kReplay, ("unknown option \"" + std::string(a) + "\"").c_str());
        if (file != nullptr)
            return usage_error(kReplay, "one FILE only");
        file = a;
    }
    if (file == nullptr)
        return usage_error(kReplay, "FILE is missing");

    std::vector<Event> events;
    const std::string error = read_recording(file, &events);
    if (!error.empty())
        return reportf("replay", kExitFailed, "%s; nothing was published", error.c_str());
    if (!device_loaded("replay"))
        return kExitFailed;
    stop_on_signals();
    const uint32_t h = bus_bind(0, -1, nullptr, "tarnctl replay");
    if (h == BUS_HANDLE_NONE)
        return reportf("replay", kExitFailed,
                       "cannot bind a bus handle in %s/bus: %s; check that the directory is "
                       "yours and writable",
                       tarnhost_root(), tarnhost_root_strerror(errno));
    json published = json::array();
    const double start = monotonic_seconds();
    size_t done = 0;
    int status = kExitOk;
    for (const Event &e : events) {
        if (speed > 0)
            sleep_seconds(start + e.at / speed - monotonic_seconds());
        if (stop_requested())
            break;
        const int err = tarnhost_bus_publish(h, e.opcode, e.payload.data(),
                                             static_cast<uint32_t>(e.payload.size()));
        const size_t subscribers = tarnhost_bus_subscribers(e.opcode, nullptr, 0);
        published.push_back({{"at", e.at},
                             {"opcode", e.opcode},
                             {"name", opcode_name(e.opcode)},
                             {"bytes", e.payload.size()},
                             {"subscribers", subscribers},
                             {"delivered", err == 0},
                             {"error", or_null(err != 0, err != 0 ? strerror(err) : "")}});
        if (!json_output() && err != 0) {
            printf("at %.3f %s %zu bytes: not delivered to every subscriber (%s)\n", e.at,
                   opcode_name(e.opcode).c_str(), e.payload.size(), strerror(err));
        } else if (!json_output()) {
            printf("at %.3f %s %zu bytes to %s\n", e.at, opcode_name(e.opcode).c_str(),
                   e.payload.size(), counted(subscribers, "subscriber", "subscribers").c_str());
        }
        if (err != 0)
            status = kExitFailed;
        ++done;
        set_done(counted(done, "notification", "notifications") + " of " + escaped(file) +
                 (done == 1 ? " was" : " were") + " published to the device in " +
                 escaped(tarnhost_root()));
    }
    bus_unbind(h);
    if (json_output())
        print_json({{"file", file},
                    {"replayed", done},
                    {"notifications", events.size()},
                    {"published", published}});
    else
        printf("replayed %zu of %zu notifications from %s\n", done, events.size(),
               escaped(file).c_str());
    return status;
}

}  // namespace tarnctl
