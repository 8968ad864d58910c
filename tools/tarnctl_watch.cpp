// tarnctl watch: a client process of the device that keeps libtarn's
// caches (the AS-number display format, the Gyre topology cache) and says,
// one line per notification, what each one changed.

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

#include <tarn/gyre.h>
#include <tarn/notification.hpp>
#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "host/tarnhost_client.h"
#include "platform/alloctrack.h"
#include "platform/bus.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_bus.h"
#include "tools/tarnctl_output.h"
#include "tools/tarnctl_passive.h"
#include "tools/tarnctl_queries.h"

namespace tarnctl {

const Command kWatch = {
    "watch",
    "[--sap N] [--count N] [--timeout S] [--json] [--passive] [--opcode OPCODE]...",
    "follow the device's notifications as a caching client",
    cmd_watch,
};

namespace {

// Access points tried, in order, when --sap is not given.
constexpr int32_t kFirstSap = 1000;
constexpr int32_t kLastSap = 1099;
constexpr int32_t kMaxSap = 0x7FFFFFFF;

bool g_json = false;
std::vector<uint32_t> g_only;  // the opcodes to print; empty: all

void emit(const json &event)
{
    print_json_line(event);
    fflush(stdout);
}

bool wanted(uint32_t opcode)
{
    return g_only.empty() || std::find(g_only.begin(), g_only.end(), opcode) != g_only.end();
}


void print_help()
{
    printf("usage: tarnctl watch [--sap N] [--count N] [--timeout S] [--json] [--passive]\n"
           "                     [--opcode OPCODE]...\n"
           "\n"
           "Runs as a client process of the device in $TARNHOST_ROOT: binds "
           "a bus access\n"
           "point (N, or the first free one from %d to %d), registers with "
           "the Tarn and\n"
           "Gyre clients, tracks the AS-number display format and keeps the "
           "Gyre cache.\n"
           "It prints its access point and bus handle first, then one line "
           "per message\n"
           "received: the time, the opcode's name and what the message "
           "changed.  Cache\n"
           "dump requests (\"tarnctl dump-cache\") sent to its access point "
           "are answered.\n"
           "\n"
           "It stops on SIGINT or SIGTERM, after N messages (--count) or "
           "after S seconds\n"
           "(--timeout), closes the library, releases its access point and "
           "prints the\n"
           "memory that libtarn still holds in the memory tracker "
           "(library %u).\n"
           "\n"
           "--json prints every line as one JSON object (JSON Lines): an \"event\" of "
           "\"start\",\n"
           "\"notification\", \"missed\" or \"stop\" with the same facts.  "
           "--passive listens\n"
           "without libtarn: a dynamic handle subscribed to the services' "
           "notifications\n"
           "prints each one's opcode, length and payload (hex), and no cache is "
           "enabled.\n"
           "--opcode OPCODE (repeatable) prints only those opcodes (a passive listener "
           "subscribes\n"
           "only to them; a caching one still applies every message).  OPCODE is one "
           "of these\n"
           "names (in any letter case) or its number:\n"
           "%s"
           "\n"
           "Exit status: 0 stopped, 1 could not start, 2 usage error.\n",
           kFirstSap, kLastSap, TARN_LIB_ALLOC_ID, library_opcode_lines().c_str());
}

// The time of a line: local and short for a reader at a terminal; in JSON
// the device log's form (UTC with microseconds), so that events and log
// lines can be put side by side and compared with "tarnctl log --since".
std::string now_text()
{
    timeval tv;
    gettimeofday(&tv, nullptr);
    time_t secs = tv.tv_sec;
    tm t;
    char buf[48];
    if (g_json) {
        gmtime_r(&secs, &t);
        const size_t n = strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &t);
        snprintf(buf + n, sizeof buf - n, ".%06ldZ", static_cast<long>(tv.tv_usec));
        return buf;
    }
    localtime_r(&secs, &t);
    snprintf(buf, sizeof buf, "%02d:%02d:%02d.%03ld", t.tm_hour, t.tm_min,
             t.tm_sec, static_cast<long>(tv.tv_usec / 1000));
    return buf;
}

double monotonic_seconds()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
}

uint32_t load32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

uint16_t load16(const uint8_t *p)
{
    uint16_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

// What the cache holds for a topology now.
std::string topology_now(uint32_t tpg)
{
    gyre_vlan_bmp_t vlans;
    gyre_ftag_bmp_t ftags;
    memset(&vlans, 0, sizeof vlans);
    memset(&ftags, 0, sizeof ftags);
    vlans.len = GYRE_VLAN_BMP_BYTES;
    ftags.len = GYRE_FTAG_BMP_BYTES;
    if (gyre_cache_get_topo_info(tpg, &vlans, &ftags) == 0)
        return "topology " + std::to_string(tpg) + " not cached";
    std::string v = gyre_vlans2str(&vlans);
    std::string f = gyre_ftag2str(&ftags);
    return "topology " + std::to_string(tpg) + " vlans " + v + " ftags " + f;
}

// The facts of a message taken before it is handed over: the library may
// free it while applying it.
struct Seen {
    uint32_t opcode = 0;
    bool has_payload = false;
    uint32_t bytes = 0;
    std::string payload_hex;
    json decoded;  // --json: the payload's fields
    uint16_t kind = 0;                 // attribute change
    uint32_t word24 = 0;               // attribute change: format or page
    std::vector<uint32_t> topologies;  // 51208, 51210, 51214, kind 2
    struct Ftag {
        uint32_t reason, tpg, flags;
        uint16_t graph, ftag;
    };
    std::vector<Ftag> ftags;  // 51215
};

Seen inspect(const bus_msg_t *msg)
{
    Seen s;
    s.opcode = bus_opc_get(msg);
    uint32_t len = 0;
    const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(msg, &len));
    s.has_payload = p != nullptr;
    if (p == nullptr)
        return s;
    s.bytes = len;
    if (g_json) {
        s.payload_hex = to_hex(p, len);
        s.decoded = decoded_json(tarn::decode_notification(s.opcode, p, len));
    }
    switch (s.opcode) {
    case BUS_OPC_GYRE_TPG_CREATE:
    case BUS_OPC_GYRE_TPG_DELETE:
        if (len >= 24)
            s.topologies.push_back(load32(p + 20));
        break;
    case BUS_OPC_GYRE_TPG_VLANS:
        if (len >= 24) {
            uint32_t n = load32(p + 20);
            for (uint32_t i = 0; i < n && 24 + (i + 1) * 556ull <= len; ++i)
                s.topologies.push_back(load32(p + 24 + i * 556));
        }
        break;
    case BUS_OPC_GYRE_FTAG_UPDATE:
        if (len >= 4) {
            uint32_t n = load32(p);
            for (uint32_t i = 0; i < n && 4 + i * 1048ull + 16 <= len; ++i) {
                const uint8_t *e = p + 4 + i * 1048;
                s.ftags.push_back({load32(e), load32(e + 4),
                                   load32(e + 12), load16(e + 8),
                                   load16(e + 10)});
            }
        }
        break;
    case BUS_OPC_TARN_ATTR_CHANGE:
        if (len >= 4)
            s.kind = load16(p + 2);
        if (len >= 28)
            s.word24 = load32(p + 24);
        if (s.kind == 2 && len >= 32)
            s.topologies.push_back(load32(p + 28));
        break;
    default:
        break;
    }
    return s;
}

// What the message changed, told from the library's state after it was
// applied.
std::string describe(const Seen &s, int32_t result)
{
    std::string out;
    auto add = [&](const std::string &part) {
        out += (out.empty() ? "" : "; ") + part;
    };
    if (!s.has_payload && s.opcode != 51209 && s.opcode != 51211 &&
        s.opcode != 51212 && s.opcode != 51213)
        add("no payload");
    switch (s.opcode) {
    case BUS_OPC_GYRE_TPG_CREATE:
        for (uint32_t t : s.topologies)
            add("created: " + topology_now(t));
        break;
    case BUS_OPC_GYRE_TPG_DELETE:
        for (uint32_t t : s.topologies)
            add("deleted: " + topology_now(t));
        break;
    case BUS_OPC_GYRE_TPG_VLANS:
        for (uint32_t t : s.topologies)
            add(topology_now(t));
        break;
    case BUS_OPC_GYRE_FTAG_UPDATE:
        for (const Seen::Ftag &f : s.ftags) {
            uint32_t owner = gyre_get_ftag_l2_tpg(f.ftag);
            char buf[160];
            snprintf(buf, sizeof buf,
                     "%s ftag %u topology %u graph %u flags 0x%x: ",
                     gyre_ftag_reason2str(f.reason),
                     static_cast<unsigned>(f.ftag),
                     static_cast<unsigned>(f.tpg),
                     static_cast<unsigned>(f.graph),
                     static_cast<unsigned>(f.flags));
            add(std::string(buf) +
                (owner == GYRE_TPG_NONE
                     ? "ftag " + std::to_string(f.ftag) + " unused"
                     : topology_now(owner)));
        }
        break;
    case 51209:
    case 51211:
    case 51212:
    case 51213:
        add("nothing for the cache");
        break;
    case BUS_OPC_TARN_ATTR_CHANGE:
        if (!s.has_payload)
            break;
        switch (s.kind) {
        case 1:
            add("kind 1: AS format " + std::to_string(tarn_get_as_format()));
            break;
        case 2:
            for (uint32_t t : s.topologies)
                add("kind 2: ftags deleted, " + topology_now(t));
            break;
        case 3:
            add("kind 3: Gyre cache deleted");
            break;
        case 4:
            add("kind 4: cache dump page " + std::to_string(s.word24) +
                (result == 1 ? " answered" : " not answered"));
            break;
        default:
            add("kind " + std::to_string(s.kind) + ": ignored");
            break;
        }
        break;
    default:
        add("not for libtarn");
        break;
    }
    // A payload too short to name what it is about still gets a line that
    // says so.
    if (out.empty())
        add("a payload of " + std::to_string(s.bytes) + (s.bytes == 1 ? " byte" : " bytes") +
            ", too short to say what changed");
    return out;
}

// The caches as they stand: the AS format and every cached topology.
// The caches now: {"as_format", "cached"} for --json, else their lines.
json print_caches()
{
    json cached = json::array();
    for (uint32_t t : all_topologies())
        cached.push_back(topology_now(t));
    if (!g_json) {
        printf("AS format %u\n", tarn_get_as_format());
        for (const json &t : cached)
            printf("cached %s\n", escaped(t.get<std::string>()).c_str());
    }
    return {{"as_format", tarn_get_as_format()}, {"cached", cached}};
}

// Applies one message and says what it changed; false for the host's
// inspection request, which is answered and is no notification.
bool handle(uint32_t h, bus_msg_t *msg)
{
    const Seen seen = inspect(msg);
    if (seen.opcode == TARNHOST_OPC_CLIENT_INSPECT) {
        tarnhost_client_dispatch(h, msg);
        return false;
    }
    const std::string name = opcode_name(seen.opcode);
    const int32_t r = tarnhost_client_dispatch(h, msg);
    // 1: the library applied the message and dropped it; anything else
    // leaves it to us.
    if (r != 1)
        bus_drop(h, msg);
    if (!wanted(seen.opcode))
        return false;
    std::string what = describe(seen, r);
    if (r == -1 && what != "not for libtarn")
        what += " (not taken by libtarn)";
    if (g_json)
        emit({{"event", "notification"}, {"time", now_text()}, {"opcode", seen.opcode},
              {"name", name}, {"bytes", seen.bytes}, {"payload", seen.payload_hex},
              {"decoded", seen.decoded}, {"taken", r == 1}, {"result", r}, {"change", what}});
    else
        printf("%s %s %s\n", now_text().c_str(), escaped(name).c_str(), escaped(what).c_str());
    return true;
}

// Notifications that the bus could not deliver (the queue stayed full
// while this process was stopped or slow) leave the caches stale.  What is
// still queued is older than the databases now: it is applied first, then
// the caches are rebuilt from the databases, and the line says so.  The
// messages handled on the way.
uint64_t catch_up(uint32_t h, const gyre_cache_attr_t *attr)
{
    uint32_t missed = 0;
    if (tarnhost_bus_missed_take(h, &missed) != 0 || missed == 0)
        return 0;
    uint64_t handled = 0;
    while (bus_msg_t *msg = tarnhost_bus_recv_ms(h, 0))
        handled += handle(h, msg) ? 1 : 0;
    uint32_t more = 0;
    if (tarnhost_bus_missed_take(h, &more) == 0)
        missed += more;
    if (!g_json)
        printf("%s missed %s (the queue was full); rebuilding the caches from the "
               "databases\n",
               now_text().c_str(), counted(missed, "notification", "notifications").c_str());
    tarn_refresh_as_format_info();
    gyre_disable_cache_mode();
    gyre_enable_cache_mode(attr);
    json caches = print_caches();
    if (g_json) {
        caches["event"] = "missed";
        caches["time"] = now_text();
        caches["missed"] = missed;
        emit(caches);
    }
    return handled;
}

json memory_json()
{
    json out = json::array();
    for (uint32_t type = TARN_LIB_MEM_NONE + 1; type < TARN_LIB_MEM_MAX; ++type) {
        const char *name = __tarn_api_mem_type_t_find(type);
        out.push_back({{"type", name ? name : "?"},
                       {"count", alloctrack_live_count(TARN_LIB_ALLOC_ID, type)},
                       {"bytes", alloctrack_live_bytes(TARN_LIB_ALLOC_ID, type)}});
    }
    return out;
}

void print_memory()
{
    printf("tracked memory of library %u:", TARN_LIB_ALLOC_ID);
    for (uint32_t type = TARN_LIB_MEM_NONE + 1; type < TARN_LIB_MEM_MAX;
         ++type) {
        const char *name = __tarn_api_mem_type_t_find(type);
        printf(" %s %llu (%llu bytes)%s", name ? name : "?",
               static_cast<unsigned long long>(
                   alloctrack_live_count(TARN_LIB_ALLOC_ID, type)),
               static_cast<unsigned long long>(
                   alloctrack_live_bytes(TARN_LIB_ALLOC_ID, type)),
               type + 1 < TARN_LIB_MEM_MAX ? "," : "\n");
    }
}

bool parse_number(const char *text, uint64_t lo, uint64_t hi, uint64_t *out)
{
    if (text == nullptr || *text == '\0' || strlen(text) > 10)
        return false;
    for (const char *c = text; *c; ++c)
        if (*c < '0' || *c > '9')
            return false;
    uint64_t v = strtoull(text, nullptr, 10);
    if (v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

// Binds the access point asked for, or the first free one of the range.
uint32_t bind_access_point(int32_t asked, int32_t *sap)
{
    bus_addr_t addr;
    memset(&addr, 0, sizeof addr);
    if (asked > 0) {
        *sap = asked;
        return bus_bind(0, asked, &addr, "tarnctl watch");
    }
    for (int32_t s = kFirstSap; s <= kLastSap; ++s) {
        uint32_t h = bus_bind(0, s, &addr, "tarnctl watch");
        if (h != BUS_HANDLE_NONE || errno != EADDRINUSE) {
            *sap = s;
            return h;
        }
    }
    *sap = kLastSap;
    errno = EADDRINUSE;
    return BUS_HANDLE_NONE;
}

// --passive: the notifications as they arrive, without libtarn.
int listen(uint64_t count, uint64_t timeout)
{
    const std::vector<uint32_t> opcodes = g_only.empty() ? notification_opcodes() : g_only;
    std::string error;
    const uint32_t h = listen_passively("tarnctl watch --passive", opcodes, &error);
    if (h == BUS_HANDLE_NONE)
        return reportf("watch", kExitFailed, "%s in %s/bus", error.c_str(), tarnhost_root());
    if (g_json)
        emit({{"event", "start"}, {"passive", true}, {"access_point", nullptr}, {"handle", h},
              {"device", tarnhost_root()}, {"as_format", nullptr}, {"cached", nullptr},
              {"opcodes", opcodes}});
    else
        printf("passive listener, bus handle %u, device %s\nwatching\n", h,
               escaped(tarnhost_root()).c_str());
    const double start = monotonic_seconds();
    uint64_t handled = 0;
    const char *why = nullptr;
    for (;;) {
        why = stop_reason(stop_requested(), handled, count, monotonic_seconds() - start, timeout);
        if (why == nullptr && output_failed())
            why = "write error";
        if (why != nullptr)
            break;
        bus_msg_t *msg = tarnhost_bus_recv_ms(h, 1000);
        if (msg == nullptr)
            continue;
        const uint32_t opcode = bus_opc_get(msg);
        uint32_t len = 0;
        const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(msg, &len));
        const std::string hex = to_hex(p, p == nullptr ? 0 : len);
        const std::string name = opcode_name(opcode);
        if (g_json)
            emit({{"event", "notification"}, {"time", now_text()}, {"opcode", opcode},
                  {"name", name}, {"bytes", len}, {"payload", hex},
                  {"decoded", decoded_json(tarn::decode_notification(opcode, p, len))},
                  {"taken", nullptr}, {"result", nullptr},
                  {"change", nullptr}});
        else
            printf("%s %s %u bytes %s\n", now_text().c_str(), name.c_str(), len,
                   hex.empty() ? "-" : hex.c_str());
        bus_drop(h, msg);
        ++handled;
    }
    bus_unbind(h);
    if (g_json)
        emit({{"event", "stop"}, {"reason", why}, {"messages", handled},
              {"access_point", nullptr}, {"memory", nullptr}});
    else
        printf("stopped (%s) after %s\n", why,
               counted(handled, "message", "messages").c_str());
    return kExitOk;
}

}  // namespace

int cmd_watch(int argc, char **argv)
{
    uint64_t sap = 0, count = 0, timeout = 0;
    bool passive = false;
    for (int i = 0; i < argc; ++i) {
        const char *a = argv[i];
        if (strcmp(a, "--help") == 0 || strcmp(a, "-h") == 0) {
            print_help();
            return kExitOk;
        }
        if (strcmp(a, "--json") == 0 || strcmp(a, "--passive") == 0) {
            (a[2] == 'j' ? g_json : passive) = true;
            continue;
        }
        std::string opcode_error;
        const int op = parse_opcode_option(argc, argv, &i, &g_only, &opcode_error);
        if (op < 0)
            return usage_error(kWatch, opcode_error.c_str());
        if (op > 0)
            continue;
        struct {
            const char *name;
            uint64_t *out;
            uint64_t hi;
            const char *what;
        } const opts[] = {
            {"--sap", &sap, kMaxSap, "--sap takes an access point from 1 to 2147483647"},
            {"--count", &count, 0xFFFFFFFFu, "--count takes a number from 1 to 4294967295"},
            {"--timeout", &timeout, 86400u * 365, "--timeout takes seconds from 1 to 31536000"},
        };
        bool matched = false;
        for (const auto &o : opts) {
            size_t n = strlen(o.name);
            const char *value = nullptr;
            if (strcmp(a, o.name) == 0) {
                if (i + 1 >= argc)
                    return usage_error(kWatch, (std::string(o.name) +
                                                " needs a value").c_str());
                value = argv[++i];
            } else if (strncmp(a, o.name, n) == 0 && a[n] == '=') {
                value = a + n + 1;
            } else {
                continue;
            }
            if (!parse_number(value, 1, o.hi, o.out))
                return usage_error(kWatch, o.what);
            matched = true;
            break;
        }
        if (matched)
            continue;
        std::string msg = a[0] == '-' ? "unknown option \"" + std::string(a) + "\""
                                      : "unexpected argument \"" + std::string(a) + "\"";
        return usage_error(kWatch, msg.c_str());
    }

    stop_on_signals();

    if (passive) {
        if (sap != 0)
            return usage_error(kWatch, "--passive listens on a dynamic handle; drop --sap");
        if (!device_loaded("watch"))
            return kExitFailed;
        return listen(count, timeout);
    }
    if (!device_up("watch"))
        return kExitFailed;
    if (tarn_api_init() != TARN_SUCCESS || tarn_clt == nullptr || tarn_clt->initialized == 0)
        return report_library_failure("watch");

    int32_t bound_sap = 0;
    uint32_t h = bind_access_point(static_cast<int32_t>(sap), &bound_sap);
    if (h == BUS_HANDLE_NONE) {
        int err = errno;
        tarn_api_close();
        if (err == EADDRINUSE && sap != 0)
            return reportf("watch", kExitFailed,
                           "access point %d is taken by a live process; choose another with "
                           "--sap",
                           bound_sap);
        if (err == EADDRINUSE)
            return reportf("watch", kExitFailed,
                           "access points up to %d are all taken; choose one with --sap",
                           bound_sap);
        return reportf("watch", kExitFailed,
                       "cannot bind a bus access point in %s/bus: %s; check that the "
                       "directory is yours and writable",
                       tarnhost_root(), tarnhost_root_strerror(err));
    }

    gyre_cache_attr_t attr;
    memset(&attr, 0, sizeof attr);
    attr.bus_handle = h;  // for rebuilding the Gyre cache after a loss
    const char *step = tarnhost_client_start(h, TARNHOST_CLIENT_ALL);
    if (step != nullptr) {
        gyre_api_close();
        tarn_api_close();
        bus_unbind(h);
        return reportf("watch", kExitFailed, "%s failed; the library's report is in %s/log/messages",
                       step, tarnhost_root());
    }

    if (!g_json)
        printf("access point %d, bus handle %u, device %s\n", bound_sap, h,
               escaped(tarnhost_root()).c_str());
    json caches = print_caches();
    if (g_json) {
        json start = {{"event", "start"}, {"passive", false}, {"access_point", bound_sap},
                      {"handle", h}, {"device", tarnhost_root()},
                      {"opcodes", or_null(!g_only.empty(), g_only)}};
        start.update(caches);
        emit(start);
    } else {
        printf("watching\n");
    }

    const double start = monotonic_seconds();
    uint64_t handled = 0;
    const char *why = "signal";
    bus_recv_opts_t ro;
    ro.mode = 1;
    ro.flags = 0;
    ro.timeout_s = 1;
    for (;;) {
        if (stop_requested()) {
            why = "signal";
            break;
        }
        if (output_failed()) {
            why = "write error";
            break;
        }
        if (count != 0 && handled >= count) {
            why = "count";
            break;
        }
        if (timeout != 0 && monotonic_seconds() - start >= timeout) {
            why = "timeout";
            break;
        }
        bus_msg_t *msg = bus_recv(h, &ro);
        if (msg != nullptr && handle(h, msg))
            ++handled;
        handled += catch_up(h, &attr);
    }

    gyre_api_close();
    tarn_api_close();
    bus_unbind(h);
    if (g_json) {
        emit({{"event", "stop"}, {"reason", why}, {"messages", handled},
              {"access_point", bound_sap}, {"memory", memory_json()}});
        return kExitOk;
    }
    printf("stopped (%s) after %s; access point %d released\n", why,
           counted(handled, "message", "messages").c_str(), bound_sap);
    print_memory();
    return kExitOk;
}

}  // namespace tarnctl
