// tarnctl show contexts, tarnctl show context NAME.

#include <string.h>

#include <string>
#include <vector>

#include <tarn/tarn.h>

#include "tools/tarnctl_show.h"

namespace tarnctl {
namespace show {

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
    const Probe probe = probe_tables(max_id);
    for (const Table &t : probe.tables) {
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
                {"max_id", max_id},
                {"probed_to", probe.probed_to},
                {"tables", tables},
                {"interfaces", ifs}};
    emit(a, {"FIELD", "VALUE"}, rows, doc, probe_notes(probe));
    return probe.cut_short() ? kExitFailed : kExitOk;
}

}  // namespace show
}  // namespace tarnctl
