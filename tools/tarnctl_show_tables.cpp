// tarnctl show tables: the routing tables, found by asking for every id
// up to a bound (the library has no table walk).

#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <tarn/tarn.h>

#include "tools/tarnctl_passive.h"
#include "tools/tarnctl_show.h"

namespace tarnctl {
namespace show {

namespace {

// The table record does not hold its address family: the family is the
// one under which (context, family, name) names this table.
int table_af(uint32_t id, const tarn_table_info_t &info)
{
    for (uint32_t af = 0; af <= 2; ++af)
        if (tarn_get_table_id(info.context_id, af, info.name) == id)
            return static_cast<int>(af);
    return -1;
}

double seconds_now()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

}  // namespace

std::string af_text(int af)
{
    return af < 0 ? "-" : tarn_af_ix2str(static_cast<uint32_t>(af));
}

json af_json(int af)
{
    return af < 0 ? json(nullptr) : json(af);
}

// The library has no table walk: every id from 1 to max_id is asked for
// with tarn_get_table_info.  A long probe shows, on a terminal, how far it
// got and about how long it still takes; SIGINT or SIGTERM stops it, and
// what it found so far is shown as such.
Probe probe_tables(uint32_t max_id)
{
    Probe p;
    p.max_id = max_id;
    std::vector<Table> &out = p.tables;
    stop_on_signals();
    const bool progress = isatty(STDERR_FILENO) != 0;
    const double start = seconds_now();
    double shown = start;
    bool any_shown = false;
    for (uint32_t id = 1; id != 0 && id <= max_id && !stop_requested(); ++id) {
        tarn_table_info_t info;
        memset(&info, 0, sizeof info);
        if (tarn_get_table_info(id, &info) == TARN_SUCCESS)
            out.push_back({id, info, table_af(id, info)});
        p.probed_to = id;
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
    return p;
}

std::vector<std::string> probe_notes(const Probe &p)
{
    if (p.cut_short())
        return {"interrupted: table ids 1 to " + num(p.probed_to) + " of 1 to " + num(p.max_id) +
                " were asked for, and the list stops there"};
    if (p.max_id >= kMaxTableId)
        return {};
    return {"table ids 1 to " + num(p.max_id) +
            " were asked for (libtarn has no walk over tables): tables with higher ids may "
            "exist and are not shown; --max-id N asks for ids up to N (at most " +
            num(kMaxTableId) + ")"};
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
    const Probe probe = probe_tables(max_id);
    for (const Table &t : probe.tables) {
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
    emit(a, {"ID", "CONTEXT", "AF", "NAME"}, rows,
         {{"max_id", max_id}, {"probed_to", probe.probed_to}, {"tables", list}},
         probe_notes(probe));
    return probe.cut_short() ? kExitFailed : kExitOk;
}

}  // namespace show
}  // namespace tarnctl
