// tarnctl show WHAT: what a client process of the device learns through
// libtarn's public operations.  Nothing here reads a database itself: every
// answer comes from a tarn_* or gyre_* call, interface names from the
// platform's interface manager (nic_get_if_name).  Each WHAT is in a file
// of its own (tarnctl_show_<what>.cpp); this one reads the command line
// and finds it.

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tools/tarnctl.h"
#include "tools/tarnctl_bus.h"
#include "tools/tarnctl_output.h"
#include "tools/tarnctl_show.h"

namespace tarnctl {

const Command kShow = {
    "show",
    "WHAT [ARGUMENTS] [--json]",
    "show contexts, tables, interfaces, attributes, topologies, ftags, a VLAN, the bus, "
    "the clients",
    cmd_show,
};

namespace {

using namespace show;

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
