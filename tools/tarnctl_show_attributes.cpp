// tarnctl show attributes: the AS-number format, route limits,
// site-of-origin and VPN ids.

#include <stdio.h>
#include <string.h>

#include <string>
#include <vector>

#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "platform/bus.h"
#include "tools/tarnctl_show.h"

namespace tarnctl {
namespace show {

namespace {

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

}  // namespace

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
    // Only an interrupted probe is noted here: the bound is the help's.
    const Probe probe = probe_tables(max_id);
    for (const Table &t : probe.tables) {
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

    const std::vector<std::string> notes =
        probe.cut_short() ? probe_notes(probe) : std::vector<std::string>();
    const int shown_status = probe.cut_short() ? kExitFailed : kExitOk;
    if (a.json) {
        print_json({{"as_format", format},
                    {"max_id", max_id},
                    {"route_limits", limits},
                    {"site_of_origin", soos},
                    {"vpn_ids", vpns},
                    {"notes", notes}});
        return shown_status;
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
    if (!notes.empty())
        printf("\nnote: %s\n", escaped(notes[0]).c_str());
    return shown_status;
}

}  // namespace show
}  // namespace tarnctl
