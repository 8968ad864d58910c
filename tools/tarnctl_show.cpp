// tarnctl show WHAT: what a client process of the device learns through
// libtarn's public operations.  Nothing here reads a database itself: every
// answer comes from a tarn_* or gyre_* call, interface names from the
// platform's interface manager (nic_get_if_name).

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "platform/bus.h"
#include "platform/nic.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_bus.h"
#include "tools/tarnctl_output.h"
#include "tools/tarnctl_walk_guard.h"
#include "tools/tarnctl_queries.h"

namespace tarnctl {

const Command kShow = {
    "show",
    "WHAT [ARGUMENTS] [--json]",
    "show contexts, tables, interfaces, attributes, topologies, ftags, a VLAN, the bus, "
    "the clients",
    cmd_show,
};

namespace {


// Table ids probed by "show tables" and "show attributes" unless --max-id
// says otherwise.
constexpr uint32_t kDefaultMaxTableId = 65536;
constexpr uint32_t kMaxTableId = 0xBFFFFFFFu;  // higher ids are topologies
constexpr uint32_t kMaxTopologyId = GYRE_TPG_ID_MASK;

// ---- output ----------------------------------------------------------------

std::string num(uint64_t v)
{
    return std::to_string(v);
}

std::string hex(uint64_t v)
{
    char buf[24];
    snprintf(buf, sizeof buf, "0x%llx", static_cast<unsigned long long>(v));
    return buf;
}

std::string hex16(uint64_t v)
{
    char buf[24];
    snprintf(buf, sizeof buf, "0x%016llX", static_cast<unsigned long long>(v));
    return buf;
}

// ---- the command line ----------------------------------------------------

struct Sub;

struct Args {
    bool json = false;
    bool help = false;
    std::vector<std::string> positional;
    std::map<std::string, std::string> values;  // --name VALUE
    std::set<std::string> flags;                // --name
};

struct Sub {
    Command cmd;  // name "show WHAT", synopsis, summary
    const char *help;
    std::vector<std::string> value_options;
    std::vector<std::string> flag_options;
    size_t min_positional;
    size_t max_positional;
    int (*run)(const Sub &sub, const Args &args);
};

bool parse_u32(const std::string &text, uint32_t lo, uint32_t hi,
               uint32_t *out)
{
    if (text.empty() || text.size() > 12)
        return false;
    int base = 10;
    size_t start = 0;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        start = 2;
    }
    for (size_t i = start; i < text.size(); ++i) {
        char c = text[i];
        bool digit = base == 10 ? (c >= '0' && c <= '9') : isxdigit(
                                                               static_cast<unsigned char>(c)) != 0;
        if (!digit)
            return false;
    }
    errno = 0;
    unsigned long long v = strtoull(text.c_str() + start, nullptr, base);
    if (errno != 0 || v < lo || v > hi)
        return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

int sub_usage(const Sub &sub, const std::string &message)
{
    return usage_error(sub.cmd, message.c_str());
}

// Parses the subcommand's arguments; returns -1 when they are good, else
// the exit status (after printing the usage error).
int parse_args(const Sub &sub, int argc, char **argv, Args *a)
{
    bool options_done = false;
    for (int i = 0; i < argc; ++i) {
        std::string s = argv[i];
        if (!options_done && s == "--") {
            options_done = true;
            continue;
        }
        if (options_done || s.size() < 2 || s[0] != '-') {
            a->positional.push_back(s);
            continue;
        }
        if (s == "--help" || s == "-h") {
            a->help = true;
            continue;
        }
        if (s == "--json") {
            a->json = true;
            continue;
        }
        std::string name = s;
        std::string value;
        bool has_value = false;
        size_t eq = s.find('=');
        if (eq != std::string::npos) {
            name = s.substr(0, eq);
            value = s.substr(eq + 1);
            has_value = true;
        }
        auto in = [&](const std::vector<std::string> &v) {
            return std::find(v.begin(), v.end(), name) != v.end();
        };
        if (in(sub.value_options)) {
            if (!has_value) {
                if (i + 1 >= argc)
                    return sub_usage(sub, name + " needs a value");
                value = argv[++i];
            }
            if (a->values.count(name) != 0)
                return sub_usage(sub, name + " given twice");
            a->values[name] = value;
        } else if (in(sub.flag_options) && !has_value) {
            a->flags.insert(name);
        } else {
            return sub_usage(sub, "unknown option \"" + s + "\"");
        }
    }
    if (a->help)
        return -1;
    if (a->positional.size() < sub.min_positional)
        return sub_usage(sub, "an argument is missing");
    if (a->positional.size() > sub.max_positional)
        return sub_usage(sub, "unexpected argument \"" +
                                  a->positional[sub.max_positional] + "\"");
    return -1;
}

// ---- the library session -------------------------------------------------

// libtarn opened as a client process opens it; closed again on scope exit.
class Session {
public:
    explicit Session(const Sub &sub) : sub_(sub) {}
    ~Session()
    {
        if (opened_) {
            gyre_api_close();
            tarn_api_close();
        }
    }

    // 1 when the library answers; otherwise reports why and returns 0.
    bool open()
    {
        if (!device_up(sub_.cmd.name))
            return false;
        opened_ = true;
        if (tarn_api_init() != TARN_SUCCESS) {
            report_library_failure(sub_.cmd.name);
            return false;
        }
        if (tarn_clt == nullptr || tarn_clt->initialized == 0) {
            report(sub_.cmd.name, kExitFailed,
                   std::string("libtarn could not open the device's databases in ") +
                       tarnhost_root() + "; the library's report is in " + tarnhost_root() +
                       "/log/messages, and \"tarnctl load FILE\" rewrites them");
            return false;
        }
        return true;
    }

private:
    const Sub &sub_;
    bool opened_ = false;
};

int failed(const Sub &sub, const std::string &message)
{
    return report(sub.cmd.name, kExitFailed, message);
}

// ---- what the library answers ---------------------------------------------

struct Context {
    uint32_t id;
    tarn_context_info_t info;
};

std::vector<Context> all_contexts()
{
    std::vector<Context> out;
    std::set<uint32_t> seen;  // a damaged record can lead back to one
    tarn_context_info_t info;
    memset(&info, 0, sizeof info);
    for (uint32_t id = tarn_get_next_context_info(0, &info); id != 0;
         id = tarn_get_next_context_info(id, &info)) {
        if (!seen.insert(id).second)
            walk_went_back("context", out.back().id, id);
        out.push_back({id, info});
    }
    return out;
}

struct Table {
    uint32_t id;
    tarn_table_info_t info;
    int af;  // -1: not registered under any address family
};

// The table record does not hold its address family: the family is the
// one under which (context, family, name) names this table.
int table_af(uint32_t id, const tarn_table_info_t &info)
{
    for (uint32_t af = 0; af <= 2; ++af)
        if (tarn_get_table_id(info.context_id, af, info.name) == id)
            return static_cast<int>(af);
    return -1;
}

std::string af_text(int af)
{
    return af < 0 ? "-" : tarn_af_ix2str(static_cast<uint32_t>(af));
}

json af_json(int af)
{
    return af < 0 ? json(nullptr) : json(af);
}

double seconds_now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

// The library has no table walk: every id from 1 to max_id is asked for
// with tarn_get_table_info.  A long probe shows, on a terminal, how far it
// got and about how long it still takes.
std::vector<Table> probe_tables(uint32_t max_id)
{
    std::vector<Table> out;
    const bool progress = isatty(STDERR_FILENO) != 0;
    const double start = seconds_now();
    double shown = start;
    bool any_shown = false;
    for (uint32_t id = 1; id != 0 && id <= max_id; ++id) {
        tarn_table_info_t info;
        memset(&info, 0, sizeof info);
        if (tarn_get_table_info(id, &info) == TARN_SUCCESS)
            out.push_back({id, info, table_af(id, info)});
        if (progress && (id & 0x3FFu) == 0) {
            const double now = seconds_now();
            if (now - shown >= 0.5) {
                shown = now;
                any_shown = true;
                const double left = (now - start) / id * (max_id - id);
                fprintf(stderr, "\rprobing table ids: %u of %u (%.0f%%), about %.0f s left ",
                        id, max_id, 100.0 * id / max_id, left);
            }
        }
    }
    if (any_shown)
        fprintf(stderr, "\r\033[K");
    return out;
}

struct Interface {
    uint32_t ifindex;
    tarn_if_context_info_t info;
};

std::vector<Interface> all_interfaces(const char *context)
{
    std::vector<Interface> out;
    std::set<uint32_t> seen;  // a damaged record can lead back to one
    tarn_if_context_info_t info;
    memset(&info, 0, sizeof info);
    for (uint32_t ix = tarn_get_next_if_context_info(0, context, &info);
         ix != 0; ix = tarn_get_next_if_context_info(ix, context, &info)) {
        if (!seen.insert(ix).second)
            walk_went_back("interface", out.back().ifindex, ix);
        out.push_back({ix, info});
    }
    return out;
}

constexpr size_t kMostFtagRecords = size_t{1} << 20;

struct FtagDetail {
    uint16_t ftag;
    uint16_t graph;
    uint32_t flags;
};

// Every ftag of one topology (the walk over the Gyre database).
std::vector<FtagDetail> topology_ftags(uint32_t tpg)
{
    std::vector<FtagDetail> out;
    gyre_ftag_info_t info;
    memset(&info, 0, sizeof info);
    info.tpg_id = tpg;
    for (uint32_t ok = gyre_get_l2_tpg_first_ftag(tpg, &info); ok != 0;
         ok = gyre_get_l2_tpg_next_ftag(tpg, &info)) {
        // A topology has at most one record per ftag, graph and flag byte.
        if (out.size() >= kMostFtagRecords)
            walk_without_end("ftag", kMostFtagRecords);
        out.push_back({info.ftag, info.graph_id, info.flags});
    }
    return out;
}

std::string flags_text(uint32_t flags)
{
    std::string s;
    auto add = [&](uint32_t bit, const char *name) {
        if ((flags & bit) != 0)
            s += (s.empty() ? "" : ",") + std::string(name);
    };
    add(GYRE_FTAG_FLAG_UNICAST, "unicast");
    add(GYRE_FTAG_FLAG_ACTIVE, "active");
    add(GYRE_FTAG_FLAG_MULTICAST, "multicast");
    return s;
}

json flags_json(uint32_t flags)
{
    json a = json::array();
    if (flags & GYRE_FTAG_FLAG_UNICAST)
        a.push_back("unicast");
    if (flags & GYRE_FTAG_FLAG_ACTIVE)
        a.push_back("active");
    if (flags & GYRE_FTAG_FLAG_MULTICAST)
        a.push_back("multicast");
    return a;
}

std::string if_name(uint32_t ifindex)
{
    return nic_get_if_name(ifindex);
}

// The AS-number display format as a registered client sees it: a
// temporary bus handle, registration, tracking, the answer, and all undone.
bool as_format(uint32_t *out)
{
    uint32_t h = bus_bind(0, -1, nullptr, "tarnctl show");
    if (h == BUS_HANDLE_NONE)
        return false;
    bool ok = tarn_register(h) == TARN_SUCCESS &&
              tarn_track_as_format() == TARN_SUCCESS;
    if (ok)
        *out = tarn_get_as_format();
    tarn_deregister();
    bus_unbind(h);
    return ok;
}

bool max_table_id(const Sub &sub, const Args &a, uint32_t *out, int *status)
{
    *out = kDefaultMaxTableId;
    auto it = a.values.find("--max-id");
    if (it == a.values.end())
        return true;
    if (!parse_u32(it->second, 1, kMaxTableId, out)) {
        *status = sub_usage(sub, "--max-id takes a table id from 1 to " +
                                     num(kMaxTableId));
        return false;
    }
    return true;
}

// ---- the subcommands -----------------------------------------------------

// The table, or the JSON document; `notes` explain an answer that the
// library gives by design but that would look wrong (after the table,
// "notes" in JSON).
int emit(const Args &a, const Row &header, const std::vector<Row> &rows,
         json doc, const std::vector<std::string> &notes = {})
{
    if (a.json) {
        doc["notes"] = notes;
        print_json(doc);
        return kExitOk;
    }
    print_table(header, rows);
    if (!notes.empty())
        printf("\n");
    for (const std::string &n : notes)
        printf("note: %s\n", escaped(n).c_str());
    return kExitOk;
}

// A context's down reason: null when it has none (code 0).
json reason_json(uint32_t reason)
{
    return or_null(reason != 0, tarn_reason2str(reason));
}

int run_contexts(const Sub &sub, const Args &a)
{
    Session s(sub);
    if (!s.open())
        return kExitFailed;
    json list = json::array();
    std::vector<Row> rows;
    for (const Context &c : all_contexts()) {
        rows.push_back({num(c.id), c.info.name, tarn_state2str(c.info.state),
                        tarn_reason2str(c.info.reason)});
        list.push_back({{"id", c.id},
                        {"name", c.info.name},
                        {"state", tarn_state2str(c.info.state)},
                        {"state_code", c.info.state},
                        {"reason", reason_json(c.info.reason)},
                        {"reason_code", c.info.reason}});
    }
    return emit(a, {"ID", "NAME", "STATE", "REASON"}, rows,
                {{"contexts", list}});
}

int run_context(const Sub &sub, const Args &a)
{
    uint32_t max_id;
    int status;
    if (!max_table_id(sub, a, &max_id, &status))
        return status;
    const std::string &name = a.positional[0];
    if (name.empty() || name.size() >= TARN_NAME_SIZE)
        return sub_usage(sub, "a context name has 1 to 32 bytes");
    Session s(sub);
    if (!s.open())
        return kExitFailed;
    uint32_t id = tarn_get_context_id(name.c_str());
    tarn_context_info_t info;
    memset(&info, 0, sizeof info);
    if (id == 0 || tarn_get_context_info(id, &info) != TARN_SUCCESS)
        return failed(sub, "no context named \"" + name +
                               "\"; \"tarnctl show contexts\" lists them");
    tarn_vpnid_info_t vpn;
    memset(&vpn, 0, sizeof vpn);
    bool has_vpn = tarn_get_context_vpnid(name.c_str(), &vpn) == TARN_SUCCESS;

    json tables = json::array();
    std::string tables_text;
    for (const Table &t : probe_tables(max_id)) {
        if (t.info.context_id != id)
            continue;
        tables.push_back({{"id", t.id},
                          {"af", af_text(t.af)},
                          {"af_code", af_json(t.af)},
                          {"name", t.info.name}});
        tables_text += (tables_text.empty() ? "" : ", ") + num(t.id) + " " +
                       t.info.name + " (" + af_text(t.af) + ")";
    }
    json ifs = json::array();
    std::string ifs_text;
    for (const Interface &i : all_interfaces(name.c_str())) {
        std::string n = if_name(i.ifindex);
        ifs.push_back({{"ifindex", i.ifindex}, {"name", n}});
        ifs_text += (ifs_text.empty() ? "" : ", ") + n;
    }
    std::string vpn_text = has_vpn ? num(vpn.w0) + " " + num(vpn.w1) + " " +
                                         num(vpn.w2)
                                   : "-";
    std::vector<Row> rows = {
        {"id", num(id)},
        {"name", info.name},
        {"state", tarn_state2str(info.state)},
        {"reason", tarn_reason2str(info.reason)},
        {"vpn-id", vpn_text},
        {"tables", tables_text.empty() ? "-" : tables_text},
        {"interfaces", ifs_text.empty() ? "-" : ifs_text},
    };
    json doc = {{"id", id},
                {"name", info.name},
                {"state", tarn_state2str(info.state)},
                {"state_code", info.state},
                {"reason", reason_json(info.reason)},
                {"reason_code", info.reason},
                {"vpn_id", or_null(has_vpn, json::array({vpn.w0, vpn.w1, vpn.w2}))},
                {"tables", tables},
                {"interfaces", ifs}};
    return emit(a, {"FIELD", "VALUE"}, rows, doc);
}

int run_tables(const Sub &sub, const Args &a)
{
    uint32_t max_id;
    int status;
    if (!max_table_id(sub, a, &max_id, &status))
        return status;
    Session s(sub);
    if (!s.open())
        return kExitFailed;
    uint32_t only = 0;
    if (!a.positional.empty()) {
        only = tarn_get_context_id(a.positional[0].c_str());
        if (only == 0)
            return failed(sub, "no context named \"" + a.positional[0] +
                                   "\"; \"tarnctl show contexts\" lists them");
    }
    json list = json::array();
    std::vector<Row> rows;
    for (const Table &t : probe_tables(max_id)) {
        if (only != 0 && t.info.context_id != only)
            continue;
        char table_name[TARN_NAME_SIZE];
        char vrf_name[TARN_NAME_SIZE];
        tarn_get_vrf_name_table_name(t.id, table_name, vrf_name);
        rows.push_back({num(t.id), vrf_name, af_text(t.af), table_name});
        list.push_back({{"id", t.id},
                        {"context_id", t.info.context_id},
                        {"context", vrf_name},
                        {"af", af_text(t.af)},
                        {"af_code", af_json(t.af)},
                        {"name", table_name}});
    }
    return emit(a, {"ID", "CONTEXT", "AF", "NAME"}, rows,
                {{"max_id", max_id}, {"tables", list}});
}

int run_interfaces(const Sub &sub, const Args &a)
{
    const char *context = nullptr;
    auto it = a.values.find("--context");
    if (it != a.values.end())
        context = it->second.c_str();
    Session s(sub);
    if (!s.open())
        return kExitFailed;
    if (context != nullptr && tarn_get_context_id(context) == 0)
        return failed(sub, "no context named \"" + std::string(context) +
                               "\"; \"tarnctl show contexts\" lists them");
    // The walk lists the bindings the service recorded; a lookup by
    // ifindex is what a client asks, and the two differ by design when the
    // cell manager designates this cell.
    const bool designated = tarn_clt->cell_type != 0;
    json list = json::array();
    std::vector<Row> rows;
    for (const Interface &i : all_interfaces(context)) {
        std::string n = if_name(i.ifindex);
        tarn_if_context_info_t looked;
        memset(&looked, 0, sizeof looked);
        const bool found = tarn_if_get_context_info(i.ifindex, &looked) != 0;
        bool usable = tarn_is_if_usable(i.ifindex) != 0;
        rows.push_back({num(i.ifindex), n, i.info.context_name, num(i.info.context_id),
                        found ? std::string(looked.context_name) : "-",
                        usable ? "yes" : "no"});
        list.push_back({{"ifindex", i.ifindex},
                        {"name", n},
                        {"context", i.info.context_name},
                        {"context_id", i.info.context_id},
                        {"lookup_context", or_null(found, looked.context_name)},
                        {"lookup_context_id", or_null(found, looked.context_id)},
                        {"usable", usable}});
    }
    std::vector<std::string> notes;
    if (designated)
        notes.push_back(
            "cell type 1: the cell manager designates this cell, so the lookup by "
            "ifindex (LOOKUP, USABLE) answers \"default\" for every interface; CONTEXT "
            "is the binding the interface walk reads");
    json doc = {{"cell_type", tarn_clt->cell_type}, {"interfaces", list}};
    return emit(a,
                {"IFINDEX", "NAME", "CONTEXT", "CONTEXT-ID", "LOOKUP", "USABLE"},
                rows, doc, notes);
}

int run_attributes(const Sub &sub, const Args &a)
{
    uint32_t max_id;
    int status;
    if (!max_table_id(sub, a, &max_id, &status))
        return status;
    Session s(sub);
    if (!s.open())
        return kExitFailed;
    uint32_t format = 0;
    if (!as_format(&format))
        return failed(sub, std::string("the AS-number display format could "
                                       "not be read (a bus handle and "
                                       "registration are needed); see ") +
                               tarnhost_root() + "/log/messages");

    json limits = json::array();
    std::vector<Row> limit_rows;
    for (const Table &t : probe_tables(max_id)) {
        tarn_rt_limits_t l;
        memset(&l, 0, sizeof l);
        if (tarn_get_rt_limits_info(t.id, &l) != TARN_SUCCESS)
            continue;
        char table_name[TARN_NAME_SIZE];
        char vrf_name[TARN_NAME_SIZE];
        tarn_get_vrf_name_table_name(t.id, table_name, vrf_name);
        limit_rows.push_back({num(l.table_id), table_name, vrf_name,
                              num(l.limit1), num(l.limit3), num(l.setting1),
                              num(l.setting2)});
        limits.push_back({{"table_id", l.table_id},
                          {"table", table_name},
                          {"context", vrf_name},
                          {"limit1", l.limit1},
                          {"limit3", l.limit3},
                          {"setting1", l.setting1},
                          {"setting2", l.setting2}});
    }

    json soos = json::array();
    std::vector<Row> soo_rows;
    for (const Interface &i : all_interfaces(nullptr)) {
        tarn_soo_info_t soo;
        memset(&soo, 0, sizeof soo);
        if (tarn_get_if_soo_info(i.ifindex, &soo) != TARN_SUCCESS)
            continue;
        std::string n = if_name(i.ifindex);
        uint64_t value = soo.soo;
        soo_rows.push_back({num(i.ifindex), n, num(soo.word), hex16(value)});
        soos.push_back({{"ifindex", i.ifindex},
                        {"name", n},
                        {"word", soo.word},
                        {"soo", hex16(value)}});
    }

    json vpns = json::array();
    std::vector<Row> vpn_rows;
    for (const Context &c : all_contexts()) {
        tarn_vpnid_info_t v;
        memset(&v, 0, sizeof v);
        if (tarn_get_context_vpnid(c.info.name, &v) != TARN_SUCCESS)
            continue;
        vpn_rows.push_back({num(c.id), c.info.name, num(v.w0), num(v.w1),
                            num(v.w2)});
        vpns.push_back({{"context_id", c.id},
                        {"context", c.info.name},
                        {"vpn_id", json::array({v.w0, v.w1, v.w2})}});
    }

    if (a.json) {
        print_json({{"as_format", format},
                    {"max_id", max_id},
                    {"route_limits", limits},
                    {"site_of_origin", soos},
                    {"vpn_ids", vpns},
                    {"notes", json::array()}});
        return kExitOk;
    }
    print_table({"AS-FORMAT"}, {{num(format)}});
    printf("\n");
    print_table({"TABLE", "NAME", "CONTEXT", "LIMIT-1", "LIMIT-3",
                 "SETTING-1", "SETTING-2"},
                limit_rows);
    printf("\n");
    print_table({"IFINDEX", "NAME", "WORD", "SITE-OF-ORIGIN"}, soo_rows);
    printf("\n");
    print_table({"CONTEXT-ID", "CONTEXT", "VPN-ID-1", "VPN-ID-2", "VPN-ID-3"},
                vpn_rows);
    return kExitOk;
}

// "--" for an empty set, as the library's formatter writes it.
std::string vlans_text(const gyre_vlan_bmp_t &v)
{
    return gyre_vlans2str(&v);
}

// The flag byte that the lookup by key asks for: graph 1 is the unicast
// graph (0x10), every other graph multicast (0x02).
uint32_t keyed_flags(uint16_t graph)
{
    return graph == 1 ? GYRE_FTAG_FLAG_UNICAST : GYRE_FTAG_FLAG_MULTICAST;
}

// Why the lookup by key misses an ftag that the walk finds.
std::string unkeyed_note(uint32_t tpg, const FtagDetail &f)
{
    return "topology " + num(tpg) + ": graph-" + num(f.graph) + " ftag " + num(f.ftag) +
           " has flags " + hex(f.flags) + "; the lookup by key asks for exactly " +
           hex(keyed_flags(f.graph)) + " (graph 1 unicast, other graphs multicast), " +
           "so only the walks find it";
}

// A VLAN set as range text and as a list; null for a set the device does
// not hold.
void put_set(json *doc, const std::string &key, bool present, const std::set<uint32_t> &s)
{
    (*doc)[key] = or_null(present, ranges_text(s));
    (*doc)[key + "_list"] = or_null(present, json(s));
}

int run_topologies(const Sub &sub, const Args &a)
{
    Session s(sub);
    if (!s.open())
        return kExitFailed;
    json list = json::array();
    std::vector<Row> rows;
    std::vector<std::string> notes;
    for (uint32_t tpg : all_topologies()) {
        gyre_vlan_bmp_t act;
        gyre_vlan_bmp_t cfg;
        memset(&act, 0, sizeof act);
        memset(&cfg, 0, sizeof cfg);
        bool has_act = gyre_get_l2_tpg_act_vlans(tpg, &act) != 0;
        bool has_cfg =
            gyre_get_l2_tpg_cfg_vlans_by_name(num(tpg).c_str(), &cfg) != 0;
        std::string act_text = has_act ? vlans_text(act) : "-";
        std::string cfg_text = has_cfg ? vlans_text(cfg) : "-";

        gyre_ftag_bmp_t ftags;
        memset(&ftags, 0, sizeof ftags);
        ftags.len = GYRE_FTAG_BMP_BYTES;
        json details = json::array();
        std::set<uint32_t> ftag_set;
        std::vector<FtagDetail> graph1_unkeyed;
        for (const FtagDetail &f : topology_ftags(tpg)) {
            if (f.ftag <= GYRE_MAX_FTAG)
                ftags.bits[f.ftag / 8] |= static_cast<uint8_t>(0x80u >> (f.ftag % 8));
            ftag_set.insert(f.ftag);
            details.push_back({{"ftag", f.ftag},
                               {"topology", tpg},
                               {"graph", f.graph},
                               {"flags", flags_json(f.flags)},
                               {"flags_code", f.flags}});
            if (f.graph == 1 && f.flags != keyed_flags(1))
                graph1_unkeyed.push_back(f);
        }
        std::string ftag_text = gyre_ftag2str(&ftags);
        uint16_t unicast = 0;
        bool has_unicast = gyre_get_l2_tpg_unicast_ftag(tpg, &unicast) != 0;
        if (!has_unicast)
            for (const FtagDetail &f : graph1_unkeyed)
                notes.push_back(unkeyed_note(tpg, f));

        rows.push_back({num(tpg), act_text, cfg_text, ftag_text,
                        has_unicast ? num(unicast) : "-"});
        json t = {{"id", tpg},
                  {"ftag_details", details},
                  {"unicast_ftag", or_null(has_unicast, unicast)}};
        put_set(&t, "active_vlans", has_act, bitmap_set(act.bits, GYRE_MAX_VLAN + 1));
        put_set(&t, "configured_vlans", has_cfg, bitmap_set(cfg.bits, GYRE_MAX_VLAN + 1));
        put_set(&t, "ftags", true, ftag_set);
        list.push_back(t);
    }
    return emit(a,
                {"TOPOLOGY", "ACTIVE-VLANS", "CONFIGURED-VLANS", "FTAGS",
                 "UNICAST-FTAG"},
                rows, {{"topologies", list}}, notes);
}

struct Walk {
    std::function<uint32_t(uint16_t *)> first;
    std::function<uint32_t(uint16_t *)> next;
};

Walk choose_walk(uint32_t tpg, uint32_t filter)
{
    const bool any = tpg == GYRE_TPG_NONE;
    if (any && filter == GYRE_FTAG_FLAG_ACTIVE)
        return {gyre_get_first_active_ftag, gyre_get_next_active_ftag};
    if (any && filter == GYRE_FTAG_FLAG_MULTICAST)
        return {gyre_get_first_multicast_ftag, gyre_get_next_multicast_ftag};
    if (any && filter == GYRE_FTAG_FLAG_UNICAST)
        return {gyre_get_first_unicast_ftag, gyre_get_next_unicast_ftag};
    if (!any && filter == GYRE_FTAG_FLAG_MULTICAST)
        return {[tpg](uint16_t *f) {
                    return gyre_get_l2_tpg_first_multicast_ftag(tpg, f);
                },
                [tpg](uint16_t *f) {
                    return gyre_get_l2_tpg_next_multicast_ftag(tpg, f);
                }};
    if (!any && filter == (GYRE_FTAG_FLAG_ACTIVE | GYRE_FTAG_FLAG_MULTICAST))
        return {[tpg](uint16_t *f) {
                    return gyre_get_l2_tpg_first_active_multicast_ftag(tpg, f);
                },
                [tpg](uint16_t *f) {
                    return gyre_get_l2_tpg_next_active_multicast_ftag(tpg, f);
                }};
    return {[tpg, filter](uint16_t *f) {
                return gyre_get_first_ftag_by_filter(tpg, filter, f);
            },
            [tpg, filter](uint16_t *f) {
                return gyre_get_next_ftag_by_filter(tpg, filter, f);
            }};
}

int run_ftags(const Sub &sub, const Args &a)
{
    uint32_t filter = 0;
    json filter_names = json::array();
    if (a.flags.count("--unicast")) {
        filter |= GYRE_FTAG_FLAG_UNICAST;
        filter_names.push_back("unicast");
    }
    if (a.flags.count("--active")) {
        filter |= GYRE_FTAG_FLAG_ACTIVE;
        filter_names.push_back("active");
    }
    if (a.flags.count("--multicast")) {
        filter |= GYRE_FTAG_FLAG_MULTICAST;
        filter_names.push_back("multicast");
    }
    uint32_t tpg = GYRE_TPG_NONE;
    auto it = a.values.find("--topology");
    if (it != a.values.end() &&
        !parse_u32(it->second, 1, kMaxTopologyId, &tpg))
        return sub_usage(sub, "--topology takes a topology id from 1 to " +
                                  num(kMaxTopologyId));
    Session s(sub);
    if (!s.open())
        return kExitFailed;
    std::vector<uint32_t> tpgs = all_topologies();
    if (tpg != GYRE_TPG_NONE &&
        std::find(tpgs.begin(), tpgs.end(), tpg) == tpgs.end())
        return failed(sub, "no topology " + num(tpg) +
                               "; \"tarnctl show topologies\" lists them");

    // The walk first (it holds the Gyre database's one iterator), then the
    // details of each ftag found.
    std::set<uint16_t> found;
    Walk w = choose_walk(tpg, filter);
    uint16_t ftag = 0;
    size_t guard = 0;
    for (uint32_t ok = w.first(&ftag); ok != 0 && guard < (1u << 20);
         ok = w.next(&ftag), ++guard)
        found.insert(ftag);

    std::map<uint32_t, std::vector<FtagDetail>> details;
    std::vector<std::string> notes;
    json list = json::array();
    std::vector<Row> rows;
    for (uint16_t f : found) {
        uint32_t owner = gyre_get_ftag_l2_tpg(f);
        if (owner == GYRE_TPG_NONE && tpg != GYRE_TPG_NONE)
            owner = tpg;
        bool known = false;
        FtagDetail d{f, 0, 0};
        if (owner != GYRE_TPG_NONE) {
            if (details.count(owner) == 0)
                details[owner] = topology_ftags(owner);
            for (const FtagDetail &x : details[owner])
                if (x.ftag == f) {
                    d = x;
                    known = true;
                    break;
                }
        }
        std::string flags = known ? hex(d.flags) : "-";
        if (known && d.flags != 0)
            flags += " " + flags_text(d.flags);
        // The full list: every ftag that a lookup by key (by topology and
        // graph, by VLAN and graph) cannot find.
        if (known && d.flags != keyed_flags(d.graph))
            notes.push_back(unkeyed_note(owner, d));
        rows.push_back({num(f), owner == GYRE_TPG_NONE ? "-" : num(owner),
                        known ? num(d.graph) : "-", flags});
        list.push_back(
            {{"ftag", f},
             {"topology", or_null(owner != GYRE_TPG_NONE, owner)},
             {"graph", or_null(known, d.graph)},
             {"flags", known ? flags_json(d.flags) : json(nullptr)},
             {"flags_code", or_null(known, d.flags)}});
    }
    return emit(a, {"FTAG", "TOPOLOGY", "GRAPH", "FLAGS"}, rows,
                {{"filter", filter_names},
                 {"topology", or_null(tpg != GYRE_TPG_NONE, tpg)},
                 {"ftag_details", list}},
                notes);
}

int run_vlan(const Sub &sub, const Args &a)
{
    uint32_t vlan;
    if (!parse_u32(a.positional[0], 0, GYRE_MAX_VLAN, &vlan))
        return sub_usage(sub, "VLAN is a number from 0 to 4095");
    Session s(sub);
    if (!s.open())
        return kExitFailed;
    uint32_t tpg = gyre_get_vlan_l2_tpg(vlan);
    const bool has_tpg = tpg != GYRE_TPG_NONE;
    uint16_t unicast = 0;
    bool has_unicast = gyre_get_unicast_ftag_by_vlan(vlan, &unicast) != 0;

    std::map<uint16_t, std::vector<FtagDetail>> graphs;
    if (has_tpg)
        for (const FtagDetail &f : topology_ftags(tpg))
            graphs[f.graph].push_back(f);
    json graph_list = json::array();
    std::vector<Row> graph_rows;
    std::vector<std::string> notes;
    for (const auto &g : graphs) {
        uint16_t ftag = 0;
        bool ok = gyre_get_vlan_ftag(vlan, g.first, &ftag) != 0;
        graph_rows.push_back({num(g.first), ok ? num(ftag) : "-"});
        graph_list.push_back({{"graph", g.first}, {"ftag", or_null(ok, ftag)}});
        if (!ok)
            for (const FtagDetail &f : g.second)
                if (f.flags != keyed_flags(f.graph))
                    notes.push_back(unkeyed_note(tpg, f));
    }
    if (a.json) {
        print_json({{"vlan", vlan},
                    {"topology", or_null(has_tpg, tpg)},
                    {"unicast_ftag", or_null(has_unicast, unicast)},
                    {"graphs", graph_list},
                    {"notes", notes}});
        return kExitOk;
    }
    print_table({"VLAN", "TOPOLOGY", "UNICAST-FTAG"},
                {{num(vlan), has_tpg ? num(tpg) : "-",
                  has_unicast ? num(unicast) : "-"}});
    if (has_tpg) {
        printf("\n");
        print_table({"GRAPH", "FTAG"}, graph_rows);
    }
    if (!notes.empty())
        printf("\n");
    for (const std::string &n : notes)
        printf("note: %s\n", escaped(n).c_str());
    return kExitOk;
}

// ---- the table of subcommands --------------------------------------------

const Sub kSubs[] = {
    {{"show contexts", "[--json]", "every context with its state", nullptr},
     "Lists every context (VRF) of the device in ascending id order, as the\n"
     "context walk (tarn_get_next_context_info) returns them: id, name,\n"
     "state and down reason.  The context \"l2-vrf\" is never listed.\n",
     {}, {}, 0, 0, run_contexts},
    {{"show context", "NAME [--max-id N] [--json]",
      "one context: state, VPN id, tables, interfaces", nullptr},
     "Shows the context named NAME: id, state, down reason, VPN id, its\n"
     "routing tables (table ids 1 to N are asked for, see \"show tables\")\n"
     "and the interfaces that belong to it.  Exit status 1 when there is no\n"
     "such context.\n",
     {"--max-id"}, {}, 1, 1, run_context},
    {{"show tables", "[CONTEXT] [--max-id N] [--json]",
      "routing tables, optionally of one context", nullptr},
     "Lists the routing tables of the device, or of the context CONTEXT:\n"
     "id, context, address family and name.  libtarn has no walk over\n"
     "tables, so every table id from 1 to N (default 65536, at most\n"
     "3221225471) is asked for with tarn_get_table_info, one database read\n"
     "each; tables with higher ids are not shown.  Fabric topologies are\n"
     "tables too and are shown by \"show topologies\".\n",
     {"--max-id"}, {}, 0, 1, run_tables},
    {{"show interfaces", "[--context NAME] [--json]",
      "interfaces with their contexts", nullptr},
     "Lists the interfaces that the Tarn service has put in a context, in\n"
     "ascending ifindex order (tarn_get_next_if_context_info), optionally\n"
     "only those of context NAME: ifindex, name (from the interface\n"
     "manager), context, context id, and whether the interface is usable\n"
     "(its context is Up).\n",
     {"--context"}, {}, 0, 0, run_interfaces},
    {{"show attributes", "[--max-id N] [--json]",
      "AS format, route limits, site-of-origin, VPN ids", nullptr},
     "Shows the per-context attributes: the AS-number display format (read\n"
     "as a registered client tracking it), the route limits of every table\n"
     "with ids 1 to N (see \"show tables\"), the site-of-origin of every\n"
     "interface that is in a context, and the VPN id of every context.\n",
     {"--max-id"}, {}, 0, 0, run_attributes},
    {{"show topologies", "[--json]",
      "fabric topologies with their VLAN sets and ftags", nullptr},
     "Lists the layer-2 fabric topologies (gyre_get_first_l2_tpg and\n"
     "gyre_get_next_l2_tpg): active and configured VLAN sets, ftags and the\n"
     "unicast ftag.  \"-\" marks a set or ftag the device does not hold,\n"
     "\"--\" an empty set.\n",
     {}, {}, 0, 0, run_topologies},
    {{"show ftags", "[--active] [--multicast] [--unicast] [--topology ID] [--json]",
      "forwarding tags, filtered by flags and topology", nullptr},
     "Lists the forwarding tags found by the ftag walks: all of them, or\n"
     "those whose flags include every flag given (--active, --multicast,\n"
     "--unicast), of every topology or of topology ID.  Each with its\n"
     "topology, graph and flags.\n",
     {"--topology"}, {"--active", "--multicast", "--unicast"}, 0, 0,
     run_ftags},
    {{"show vlan", "VLAN [--json]",
      "the topology and ftags of one VLAN", nullptr},
     "Shows the topology that VLAN (0 to 4095) belongs to, its unicast ftag\n"
     "and, for every graph of that topology, the ftag the VLAN uses\n"
     "(gyre_get_vlan_l2_tpg, gyre_get_unicast_ftag_by_vlan,\n"
     "gyre_get_vlan_ftag).  A VLAN in no topology is shown with \"-\".\n",
     {}, {}, 1, 1, run_vlan},
};

void print_show_help(FILE *out)
{
    fprintf(out,
            "usage: tarnctl show WHAT [ARGUMENTS] [--json]\n"
            "       tarnctl show WHAT --help\n"
            "\n"
            "Shows what a client process of the device in $TARNHOST_ROOT "
            "learns through\n"
            "libtarn.  Each prints an aligned table, or with --json one JSON "
            "document.\n"
            "Numbers in ARGUMENTS are decimal, or hexadecimal after \"0x\".\n"
            "\n");
    for (const Sub &s : kSubs)
        fprintf(out, "  %-16s %s\n", s.cmd.name + 5, s.cmd.summary);
    fprintf(out, "  %-16s %s\n", "bus", "handles, access points, subscriptions, dead entries");
    fprintf(out, "  %-16s %s\n", "clients", "the caching clients and how to address them");
    fprintf(out,
            "\n"
            "Exit status: 0 shown, 1 failed (device not up, no such "
            "context...), 2 usage error.\n");
}

}  // namespace

int cmd_show(int argc, char **argv)
{
    if (argc < 1)
        return usage_error(kShow, "WHAT is missing");
    const std::string what = argv[0];
    if (what == "--help" || what == "-h") {
        print_show_help(stdout);
        return kExitOk;
    }
    if (what == "bus")
        return cmd_show_bus(argc - 1, argv + 1);
    if (what == "clients")
        return cmd_show_clients(argc - 1, argv + 1);
    for (const Sub &s : kSubs) {
        if (what != s.cmd.name + 5)
            continue;
        Args a;
        int st = parse_args(s, argc - 1, argv + 1, &a);
        if (st >= 0)
            return st;
        if (a.help) {
            printf("usage: tarnctl %s %s\n\n%s\nExit status: 0 shown, 1 "
                   "failed, 2 usage error.\n",
                   s.cmd.name, s.cmd.synopsis, s.help);
            return kExitOk;
        }
        return s.run(s, a);
    }
    if (what.compare(0, 2, "--") == 0)
        return usage_error(kShow, ("WHAT is missing before \"" + what + "\"").c_str());
    std::string msg = "unknown WHAT \"" + what + "\" (one of";
    for (const Sub &s : kSubs)
        msg += std::string(" ") + (s.cmd.name + 5);
    msg += " bus clients)";
    return usage_error(kShow, msg.c_str());
}

}  // namespace tarnctl
