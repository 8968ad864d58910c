// tarnctl show interfaces: the bindings of interfaces to contexts, and
// what a lookup by ifindex answers for each.

#include <string.h>

#include <string>
#include <vector>

#include <tarn/tarn.h>

#include "tools/tarnctl_show.h"

namespace tarnctl {
namespace show {

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

}  // namespace show
}  // namespace tarnctl
