// tarnctl show topologies, show ftags, show vlan: the layer-2 fabric as the
// Gyre lookups and walks answer it.

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <tarn/gyre.h>

#include "tools/tarnctl_queries.h"
#include "tools/tarnctl_show.h"
#include "tools/tarnctl_walk_guard.h"

namespace tarnctl {
namespace show {

namespace {

struct FtagDetail {
    uint16_t ftag;
    uint16_t graph;
    uint32_t flags;
};

constexpr size_t kMostFtagRecords = size_t{1} << 20;

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

}  // namespace

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

}  // namespace show
}  // namespace tarnctl
