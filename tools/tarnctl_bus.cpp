// tarnctl show bus: every handle of the device's bus with its owner and
// liveness, the access points, the subscriptions per opcode and the dead
// entries left by processes that ended without unbinding.

#include "tools/tarnctl_bus.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include <nlohmann/json.hpp>

#include <tarn/gyre.h>

#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "host/tarnhost_client.h"
#include "platform/bus.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_output.h"

namespace tarnctl {
namespace {

using json = nlohmann::json;


template <typename T>
std::vector<T> list_all(size_t (*lister)(T *, size_t), std::string *error)
{
    std::vector<T> out;
    for (;;) {
        errno = 0;
        const size_t n = lister(out.data(), out.size());
        const int err = errno;
        if (n <= out.size()) {
            out.resize(n);
            if (err != 0 && error->empty())
                *error = tarnhost_root_strerror(err);
            return out;
        }
        out.resize(n + 16);  // grew while we looked: look again
    }
}

std::string opt_number(int64_t v) { return v < 0 ? "-" : std::to_string(v); }

json opt_json(int64_t v) { return v < 0 ? json(nullptr) : json(v); }

std::string join(const std::vector<uint32_t> &v)
{
    std::string out;
    for (uint32_t x : v)
        out += (out.empty() ? "" : ",") + std::to_string(x);
    return out.empty() ? "-" : out;
}

void print_help()
{
    printf("usage: tarnctl show bus [--json]\n"
           "\n"
           "Lists the bus of the device in $TARNHOST_ROOT:\n"
           "  handles        every handle with its access point, whether a "
           "socket is still\n"
           "                 bound to it (alive or dead), the process holding "
           "it (pid and\n"
           "                 name), the size of the next message waiting in its queue (0: none), the "
           "datagrams the kernel\n"
           "                 dropped for it, and its subscriptions;\n"
           "  access points  each with the handle it leads to;\n"
           "  subscriptions  each opcode with its subscribed handles;\n"
           "  dead entries   handle files, access points and subscription "
           "records that no\n"
           "                 live process backs (removed by the next bind or "
           "publish that\n"
           "                 meets them).\n"
           "\"-\" marks what is not known: the owner of a socket held by "
           "another user, the\n"
           "queue where the kernel does not report it.  With --json one "
           "document (see\n"
           "tarnctl(1) for its schema).\n"
           "\n"
           "Exit status: 0 shown, 1 the bus could not be read, 2 usage "
           "error.\n");
}

}  // namespace

const tarnhost_bus_handle_info_t *BusView::handle(uint32_t id) const
{
    for (const auto &h : handles)
        if (h.handle == id)
            return &h;
    return nullptr;
}

std::vector<uint32_t> BusView::subscriptions_of(uint32_t id) const
{
    std::vector<uint32_t> out;
    for (const auto &s : subscribers)
        if (std::find(s.second.begin(), s.second.end(), id) != s.second.end())
            out.push_back(s.first);
    return out;
}

BusView look_at_bus()
{
    BusView v;
    v.handles = list_all<tarnhost_bus_handle_info_t>(tarnhost_bus_handles, &v.error);
    v.access_points = list_all<tarnhost_bus_ap_info_t>(tarnhost_bus_access_points, &v.error);
    for (uint32_t op : list_all<uint32_t>(tarnhost_bus_opcodes, &v.error)) {
        std::vector<uint32_t> hs;
        for (;;) {
            errno = 0;
            const size_t n = tarnhost_bus_subscribers(op, hs.data(), hs.size());
            const int err = errno;
            if (n <= hs.size()) {
                hs.resize(n);
                if (err != 0 && v.error.empty())
                    v.error = tarnhost_root_strerror(err);
                break;
            }
            hs.resize(n + 16);
        }
        std::sort(hs.begin(), hs.end());
        if (!hs.empty())
            v.subscribers[op] = hs;
    }
    return v;
}

// Every opcode that can reach a client of the device has a name; the Gyre
// notifications that the cache does not use are named by their number.
std::string opcode_name(uint32_t opcode)
{
    switch (opcode) {
    case BUS_OPC_TARN_REGISTER: return "TARN_REGISTER";
    case 51205: return "GYRE_NOTIFY_C805";
    case BUS_OPC_GYRE_TPG_CREATE: return "GYRE_TPG_CREATE";
    case 51209: return "GYRE_NOTIFY_C809";
    case BUS_OPC_GYRE_TPG_DELETE: return "GYRE_TPG_DELETE";
    case 51211: return "GYRE_NOTIFY_C80B";
    case 51212: return "GYRE_NOTIFY_C80C";
    case 51213: return "GYRE_NOTIFY_C80D";
    case BUS_OPC_GYRE_TPG_VLANS: return "GYRE_TPG_VLANS";
    case BUS_OPC_GYRE_FTAG_UPDATE: return "GYRE_FTAG_UPDATE";
    case BUS_OPC_TARN_PROTOCOL_CONFIG_CHANGE: return "TARN_PROTOCOL_CONFIG_CHANGE";
    case BUS_OPC_GYRE_FTAG_NOTICE: return "GYRE_FTAG_NOTICE";
    case BUS_OPC_TARN_ATTR_CHANGE: return "TARN_ATTR_CHANGE";
    case TARNHOST_OPC_CLIENT_INSPECT: return "TARNHOST_CLIENT_INSPECT";
    default: return "OPCODE_" + std::to_string(opcode);
    }
}

int json_only_arguments(const char *what, int argc, char **argv, void (*help)(),
                        bool *as_json)
{
    *as_json = false;
    for (int i = 0; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
            help();
            return kExitOk;
        }
        if (strcmp(argv[i], "--json") == 0) {
            *as_json = true;
            continue;
        }
        const std::string msg =
            std::string("show ") + what + ": unknown argument \"" + argv[i] + "\"";
        return usage_error(kShow, msg.c_str());
    }
    return -1;
}

bool read_bus(BusView *v)
{
    *v = look_at_bus();
    if (v->error.empty())
        return true;
    reportf("show", kExitFailed, "cannot read the bus in %s/bus: %s", tarnhost_root(),
            v->error.c_str());
    return false;
}

int cmd_show_bus(int argc, char **argv)
{
    bool as_json = false;
    const int st = json_only_arguments("bus", argc, argv, print_help, &as_json);
    if (st >= 0)
        return st;
    BusView v;
    if (!read_bus(&v))
        return kExitFailed;

    // Dead entries: litter that no live socket backs.
    json dead = json::array();
    std::vector<std::string> dead_text;
    for (const auto &h : v.handles)
        if (!h.alive) {
            dead.push_back({{"kind", "handle"}, {"handle", h.handle}});
            dead_text.push_back("handle " + std::to_string(h.handle) +
                                ": socket file without a socket");
        }
    for (const auto &a : v.access_points)
        if (!a.alive) {
            dead.push_back({{"kind", "access_point"},
                            {"access_point", a.sap},
                            {"handle", a.handle == BUS_HANDLE_NONE ? json(nullptr)
                                                                   : json(a.handle)}});
            dead_text.push_back("access point " + std::to_string(a.sap) + " -> " +
                                (a.handle == BUS_HANDLE_NONE ? std::string("?")
                                                             : "handle " + std::to_string(a.handle)) +
                                ": nobody serves it");
        }
    for (const auto &s : v.subscribers)
        for (uint32_t h : s.second) {
            const tarnhost_bus_handle_info_t *info = v.handle(h);
            if (info != nullptr && info->alive)
                continue;
            dead.push_back({{"kind", "subscription"}, {"opcode", s.first}, {"handle", h}});
            dead_text.push_back("subscription to " + std::to_string(s.first) + " of handle " +
                                std::to_string(h) + ": the handle is gone");
        }

    if (as_json) {
        json doc;
        doc["device"] = tarnhost_root();
        json handles = json::array();
        for (const auto &h : v.handles) {
            handles.push_back({
                {"handle", h.handle},
                {"access_point", h.sap < 0 ? json(nullptr) : json(h.sap)},
                {"alive", h.alive != 0},
                {"pid", h.pid < 0 ? json(nullptr) : json(h.pid)},
                {"process", h.comm[0] == '\0' ? json(nullptr) : json(h.comm)},
                {"queue_head_bytes", opt_json(h.queue_head_bytes)},
                {"drops", opt_json(h.drops)},
                {"subscriptions", v.subscriptions_of(h.handle)},
            });
        }
        doc["handles"] = handles;
        json aps = json::array();
        for (const auto &a : v.access_points)
            aps.push_back({{"access_point", a.sap},
                           {"handle", a.handle == BUS_HANDLE_NONE ? json(nullptr) : json(a.handle)},
                           {"alive", a.alive != 0}});
        doc["access_points"] = aps;
        json subs = json::array();
        for (const auto &s : v.subscribers)
            subs.push_back({{"opcode", s.first}, {"name", opcode_name(s.first)}, {"handles", s.second}});
        doc["subscriptions"] = subs;
        doc["dead"] = dead;
        print_json(doc);
        return kExitOk;
    }

    printf("bus of the device in %s\n\n", escaped(tarnhost_root()).c_str());
    std::vector<Row> rows;
    for (const auto &h : v.handles)
        rows.push_back({std::to_string(h.handle), h.sap < 0 ? "-" : std::to_string(h.sap),
                        h.alive ? "alive" : "dead", opt_number(h.pid),
                        h.comm[0] ? std::string(h.comm) : "-", opt_number(h.queue_head_bytes),
                        opt_number(h.drops), join(v.subscriptions_of(h.handle))});
    print_table({"HANDLE", "ACCESS POINT", "STATE", "PID", "PROCESS", "QUEUE HEAD", "DROPS",
                 "SUBSCRIPTIONS"},
                rows);
    if (v.handles.empty())
        printf("(no handles)\n");
    rows.clear();
    for (const auto &a : v.access_points)
        rows.push_back({std::to_string(a.sap),
                        a.handle == BUS_HANDLE_NONE ? "?" : std::to_string(a.handle),
                        a.alive ? "alive" : "dead"});
    printf("\n");
    print_table({"ACCESS POINT", "HANDLE", "STATE"}, rows);
    if (v.access_points.empty())
        printf("(no access points)\n");
    rows.clear();
    for (const auto &s : v.subscribers)
        rows.push_back({std::to_string(s.first), opcode_name(s.first), join(s.second)});
    printf("\n");
    print_table({"OPCODE", "NAME", "HANDLES"}, rows);
    if (v.subscribers.empty())
        printf("(no subscriptions)\n");
    printf("\ndead entries:\n");
    for (const auto &d : dead_text)
        printf("  %s\n", escaped(d).c_str());
    if (dead_text.empty())
        printf("  (none)\n");
    return kExitOk;
}

}  // namespace tarnctl
