// tarnctl show clients: the libtarn clients on the device's bus, what each
// caches and how to address it; and the addressing itself, shared with
// dump-cache.

#include "tools/tarnctl_clients.h"

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <vector>

#include <nlohmann/json.hpp>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/client/inspect.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "host/tarnhost_client.h"
#include "platform/bus.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_bus.h"
#include "tools/tarnctl_output.h"

namespace tarnctl {
namespace {

using json = nlohmann::json;

constexpr uint32_t kAttrChange = 51226;
constexpr uint32_t kProbeMs = 1000;
const char kListHint[] = "; \"tarnctl show clients\" lists the clients and their addresses";

bool parse_decimal(const char *text, uint64_t hi, uint64_t *out)
{
    if (text == nullptr || *text == '\0')
        return false;
    uint64_t v = 0;
    for (const char *c = text; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9')
            return false;
        v = v * 10 + static_cast<uint64_t>(*c - '0');
        if (v > hi)
            return false;
    }
    *out = v;
    return true;
}

// A libtarn client subscribes to the attribute change or to Gyre's
// notifications when it registers.
bool registered(const BusView &v, uint32_t handle)
{
    for (uint32_t op : v.subscriptions_of(handle))
        if (op == kAttrChange || op == BUS_OPC_GYRE_TPG_CREATE ||
            op == BUS_OPC_GYRE_FTAG_UPDATE)
            return true;
    return false;
}

// Page 1 of the specified cache dump: its status, or -1 without an answer.
int dump_status(uint32_t requester, int32_t sap, uint32_t timeout_ms)
{
    uint8_t req[28];
    memset(req, 0, sizeof req);
    const uint16_t kind = 4;
    const uint32_t pid = static_cast<uint32_t>(getpid()), size = 28, page = 1;
    memcpy(req + 2, &kind, 2);
    memcpy(req + 4, &pid, 4);
    memcpy(req + 20, &size, 4);
    memcpy(req + 24, &page, 4);
    bus_send_opts_t opts;
    memset(&opts, 0, sizeof opts);
    opts.w[0] = 1;
    if (bus_send(requester, BUS_NODE_LOCAL, static_cast<uint32_t>(sap), kAttrChange, req,
                 sizeof req, nullptr, nullptr, &opts) != 0)
        return -1;
    bus_msg_t *m = tarnhost_bus_recv_ms(requester, timeout_ms);
    if (m == nullptr)
        return -1;
    uint32_t len = 0;
    const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(m, &len));
    int status = -1;
    if (p != nullptr && len >= 4) {
        uint32_t s;
        memcpy(&s, p, 4);
        status = static_cast<int>(s);
    }
    bus_drop(requester, m);
    return status;
}

void print_help()
{
    printf("usage: tarnctl show clients [--json]\n"
           "\n"
           "Lists the libtarn clients on the bus of the device in $TARNHOST_ROOT "
           "(handles\n"
           "subscribed to the attribute change or to Gyre's notifications) and "
           "what each\n"
           "caches.  Clients built on the host's client helper (\"tarnctl watch\" is "
           "one)\n"
           "say it themselves: Tarn cache mode, AS format tracking and its value, "
           "the Gyre\n"
           "cache, and what they hold (HOLDS: cached topologies and the library's "
           "memory).\n"
           "Of any other client only the Gyre cache can be told, from the "
           "first page\n"
           "of a cache dump; \"?\" marks what it cannot say.  A client without an "
           "access\n"
           "point cannot be asked.  ADDRESS is what \"tarnctl dump-cache\" takes.\n"
           "\n"
           "Exit status: 0 shown, 1 the bus could not be read, 2 usage error.\n");
}

}  // namespace

int parse_client_address(int argc, char **argv, int *i, ClientAddress *out,
                         std::string *error)
{
    static const struct {
        const char *name;
        ClientAddress::Kind kind;
        uint64_t hi;
        const char *what;
    } kOptions[] = {
        {"--client", ClientAddress::kHandle, 0xFFFFFFFEu,
         "--client takes a bus handle from 0 to 4294967294"},
        {"--sap", ClientAddress::kSap, 0x7FFFFFFFu,
         "--sap takes an access point from 1 to 2147483647"},
        {"--pid", ClientAddress::kPid, 0x7FFFFFFFu, "--pid takes a process id"},
    };
    const char *a = argv[*i];
    for (const auto &o : kOptions) {
        const size_t n = strlen(o.name);
        const char *value = nullptr;
        if (strcmp(a, o.name) == 0) {
            if (*i + 1 >= argc) {
                *error = std::string(o.name) + " needs a value";
                return -1;
            }
            value = argv[++*i];
        } else if (strncmp(a, o.name, n) == 0 && a[n] == '=') {
            value = a + n + 1;
        } else {
            continue;
        }
        uint64_t v = 0;
        if (!parse_decimal(value, o.hi, &v) || (o.kind != ClientAddress::kHandle && v == 0)) {
            *error = o.what;
            return -1;
        }
        if (out->kind != ClientAddress::kNone) {
            *error = "name one client (--client, --sap or --pid)";
            return -1;
        }
        out->kind = o.kind;
        out->value = v;
        return 1;
    }
    return 0;
}

std::vector<uint32_t> live_clients()
{
    const BusView v = look_at_bus();
    std::vector<uint32_t> out;
    for (const auto &h : v.handles)
        if (h.alive && h.pid != getpid() && registered(v, h.handle))
            out.push_back(h.handle);
    return out;
}

std::string resolve_client(const ClientAddress &a, int32_t *sap, uint32_t *handle)
{
    const BusView v = look_at_bus();
    switch (a.kind) {
    case ClientAddress::kHandle: {
        *handle = static_cast<uint32_t>(a.value);
        const tarnhost_bus_handle_info_t *h = v.handle(*handle);
        if (h != nullptr && !h->alive) {
            int32_t was = h->sap;
            for (const auto &ap : v.access_points)
                if (ap.handle == *handle)
                    was = ap.sap;
            return "the client with bus handle " + std::to_string(*handle) +
                   (was >= 0 ? " (access point " + std::to_string(was) + ")" : "") +
                   " is gone: its process has exited" + kListHint;
        }
        if (h == nullptr || h->sap < 0)
            return "bus handle " + std::to_string(*handle) + " serves no access point on the device in " +
                   tarnhost_root() + kListHint;
        *sap = h->sap;
        return "";
    }
    case ClientAddress::kSap:
        for (const auto &ap : v.access_points)
            if (static_cast<uint64_t>(ap.sap) == a.value) {
                if (!ap.alive)
                    return "the client at access point " + std::to_string(ap.sap) +
                           " (bus handle " + std::to_string(ap.handle) +
                           ") is gone: its process has exited" + kListHint;
                *sap = ap.sap;
                *handle = ap.handle;
                return "";
            }
        return "nobody serves access point " + std::to_string(a.value) + " on the device in " +
               tarnhost_root() + kListHint;
    case ClientAddress::kPid: {
        if (a.value > 0x7FFFFFFF ||
            (kill(static_cast<pid_t>(a.value), 0) != 0 && errno == ESRCH))
            return "process " + std::to_string(a.value) + " is not running" + kListHint;
        std::vector<const tarnhost_bus_handle_info_t *> found;
        for (const auto &h : v.handles)
            if (h.alive && h.sap >= 0 && static_cast<uint64_t>(h.pid) == a.value &&
                registered(v, h.handle))
                found.push_back(&h);
        if (found.size() == 1) {
            *sap = found[0]->sap;
            *handle = found[0]->handle;
            return "";
        }
        if (found.empty()) {
            // The kernel names the owner of the caller's own sockets only.
            size_t unseen = 0;
            for (const auto &h : v.handles)
                if (h.alive && h.sap >= 0 && h.pid < 0 && registered(v, h.handle))
                    ++unseen;
            if (unseen != 0)
                return "process " + std::to_string(a.value) +
                       " holds no registered client handle that this user can see on the "
                       "device in " + tarnhost_root() + "; the owners of " +
                       counted(unseen, "client", "clients") +
                       " there cannot be seen (processes of another user): address one with "
                       "--sap N (\"tarnctl show clients\" lists them)";
            return "process " + std::to_string(a.value) +
                   " holds no registered client handle with an access point on the device in " +
                   tarnhost_root() + kListHint;
        }
        std::string list;
        for (const auto *h : found)
            list += " " + std::to_string(h->sap);
        return "process " + std::to_string(a.value) +
               " serves several client access points (" + list.substr(1) +
               "); name one with --sap";
    }
    case ClientAddress::kNone:
        break;
    }
    return "no client named: give --client HANDLE, --sap N or --pid P";
}

ClientState probe_client(uint32_t requester, int32_t sap, uint32_t timeout_ms)
{
    ClientState s;
    tarnhost_client::Question q;
    std::string doc;
    if (tarnhost_client::ask(requester, sap, q, timeout_ms, &doc).empty()) {
        s.helper = true;
        s.document = doc;
        return s;  // it says itself whether its Gyre cache is on
    }
    s.gyre_dump_status = dump_status(requester, sap, timeout_ms);
    return s;
}

int cmd_show_clients(int argc, char **argv)
{
    bool as_json = false;
    const int st = json_only_arguments("clients", argc, argv, print_help, &as_json);
    if (st >= 0)
        return st;
    BusView v;
    if (!read_bus(&v))
        return kExitFailed;
    const uint32_t requester = bus_bind(4, -1, nullptr, "tarnctl show clients");
    if (requester == BUS_HANDLE_NONE) {
        return reportf("show", kExitFailed,
                       "cannot bind a bus handle in %s/bus: %s; check that the directory is "
                       "yours and writable",
                       tarnhost_root(), tarnhost_root_strerror(errno));
    }
    json clients = json::array();
    for (const auto &h : v.handles) {
        if (!h.alive || !registered(v, h.handle) || h.pid == getpid())
            continue;
        json c;
        c["handle"] = h.handle;
        c["access_point"] = h.sap < 0 ? json(nullptr) : json(h.sap);
        c["pid"] = h.pid < 0 ? json(nullptr) : json(h.pid);
        c["process"] = h.comm[0] == '\0' ? json(nullptr) : json(h.comm);
        // Whether it is built on the host's client helper is known only from
        // an answer: a client that answers nothing (stopped, busy, or without
        // an access point to ask at) may be either.
        c["helper"] = nullptr;
        c["tarn_cache_mode"] = nullptr;
        c["as_format_tracked"] = nullptr;
        c["as_format"] = nullptr;
        c["gyre_cache"] = nullptr;
        c["cached_topologies"] = nullptr;
        c["library_bytes"] = nullptr;
        if (h.sap >= 0) {
            const ClientState s = probe_client(requester, h.sap, kProbeMs);
            if (s.helper) {
                const json d = json::parse(s.document, nullptr, false);
                if (d.is_object()) {
                    c["helper"] = true;
                    c["tarn_cache_mode"] = d.value("tarn_cache_mode", false);
                    c["as_format_tracked"] = d.value("as_format_tracked", false);
                    if (c["as_format_tracked"] == true)
                        c["as_format"] = d.value("as_format", 1u);
                    c["gyre_cache"] =
                        (d.value("enabled", int64_t(0)) & TARNHOST_CLIENT_GYRE_CACHE) != 0;
                    if (d.contains("cached_topologies") && d["cached_topologies"].is_number_unsigned())
                        c["cached_topologies"] = d["cached_topologies"];
                    if (d.contains("library_bytes") && d["library_bytes"].is_number_unsigned())
                        c["library_bytes"] = d["library_bytes"];
                }
            }
            if (c["gyre_cache"].is_null() && s.gyre_dump_status >= 0) {
                c["helper"] = false;
                c["gyre_cache"] = s.gyre_dump_status != 0;
            }
            c["address"] = "--sap " + std::to_string(h.sap);
        } else {
            c["address"] = nullptr;
        }
        clients.push_back(c);
    }
    bus_unbind(requester);

    if (as_json) {
        print_json({{"clients", clients}});
        return kExitOk;
    }
    auto text = [](const json &j) -> std::string {
        if (j.is_null())
            return "?";
        if (j.is_boolean())
            return j.get<bool>() ? "on" : "off";
        if (j.is_string())
            return j.get<std::string>();
        return j.dump();
    };
    // "3 topologies, 9.1 KiB": what the client holds of the library's
    // memory, as it says itself.
    auto holds = [](const json &c) -> std::string {
        if (c["cached_topologies"].is_null() || c["library_bytes"].is_null())
            return "?";
        const uint64_t n = c["cached_topologies"].get<uint64_t>();
        const double kib = static_cast<double>(c["library_bytes"].get<uint64_t>()) / 1024.0;
        char size[32];
        if (kib < 1024.0)
            snprintf(size, sizeof size, "%.1f KiB", kib);
        else
            snprintf(size, sizeof size, "%.1f MiB", kib / 1024.0);
        return counted(n, "topology", "topologies") + ", " + size;
    };
    std::vector<Row> rows;
    for (const json &c : clients) {
        std::string as = c["as_format_tracked"].is_null()
                             ? "?"
                             : c["as_format_tracked"] == true ? "tracked " + text(c["as_format"])
                                                              : "off";
        rows.push_back({text(c["handle"]),
                        c["access_point"].is_null() ? "-" : text(c["access_point"]),
                        c["pid"].is_null() ? "-" : text(c["pid"]),
                        c["process"].is_null() ? "-" : text(c["process"]),
                        c["helper"].is_null() ? "?" : c["helper"] == true ? "yes" : "no",
                        text(c["tarn_cache_mode"]), as,
                        text(c["gyre_cache"]), holds(c),
                        c["address"].is_null() ? "none (no access point)" : text(c["address"])});
    }
    print_table({"HANDLE", "ACCESS POINT", "PID", "PROCESS", "HELPER", "TARN CACHE", "AS FORMAT",
                 "GYRE CACHE", "HOLDS", "ADDRESS"},
                rows);
    if (clients.empty())
        printf("(no clients)\n");
    bool unanswered = false;
    for (const json &c : clients)
        unanswered = unanswered || (c["helper"].is_null() && !c["address"].is_null());
    if (unanswered)
        printf("\nnote: \"?\" marks what a client did not say: it did not answer within %u ms "
               "(stopped or busy)\n",
               kProbeMs);
    return kExitOk;
}

}  // namespace tarnctl
