// tarnctl load FILE: replace the device's databases by a device description.

#include <stdio.h>
#include <string.h>

#include <string>

#include "host/tarnhost.h"
#include "platform/kvs.h"
#include "tools/device_loader.h"
#include "tools/device_records.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_clients.h"
#include "tools/tarnctl_output.h"

namespace tarnctl {

const Command kLoad = {
    "load",
    "FILE [--json]",
    "load a device description (JSON) into the device, replacing it",
    cmd_load,
};

namespace {

void print_help()
{
    printf("usage: tarnctl load FILE [--json]\n"
           "\n"
           "Checks the device description FILE (JSON; docs/device-format.md) "
           "and, when it\n"
           "is valid, replaces the databases of the device in $TARNHOST_ROOT "
           "by what it\n"
           "describes, all in one transaction, and brings the device up.  A "
           "description\n"
           "with any error is refused and nothing is written.  A damaged store "
           "is rebuilt.\n"
           "With --json the summary is one JSON document.\n"
           "\n"
           "Exit status: 0 loaded, 1 refused or failed, 2 usage error.\n");
}

}  // namespace

int cmd_load(int argc, char **argv)
{
    const char *file = nullptr;
    const int early = one_file_argument(kLoad, argc, argv, print_help, &file);
    if (early >= 0)
        return early;
    if (!device_creatable("load"))
        return kExitFailed;

    tarndev::LoadOutcome r = tarndev::load_device_file(file);
    if (r.status != 0 && r.store_status == 0)
        return reportf("load", kExitFailed,
                       "%s; nothing was written, correct %s and run \"tarnctl load %s\" "
                       "again",
                       r.message.c_str(), file, file);
    // A file below the root that the host refuses: its text names the
    // cause and the fix, and loading again would meet it again.
    if (r.status != 0 && (r.store_status == KVS_ERR_DENIED || r.store_status == KVS_ERR_IO) &&
        *tarnhost_root_problem() != '\0')
        return reportf("load", kExitFailed, "%s was not loaded: %s", file,
                       tarnhost_root_problem());
    if (r.status != 0) {
        // The description is fine: the store or the system refused it.
        const std::string remedy = tarndev::store_remedy(r.store_status);
        return reportf("load", kExitFailed,
                       "%s: %s: %s; the device is unchanged, %s%srun \"tarnctl load %s\" "
                       "again",
                       file, r.message.c_str(), tarndev::store_cause(r.store_status).c_str(),
                       remedy.c_str(), remedy.empty() ? "" : ", then ", file);
    }
    set_done(std::string("the device in ") + escaped(tarnhost_root()) + " was loaded from " +
             escaped(file));
    // A load is a new device, not a change: the services announce nothing
    // for it, so clients that cache keep the old device until they restart.
    const std::vector<uint32_t> clients = live_clients();
    if (json_output()) {
        print_json({{"file", file},
                    {"clients_not_told", clients},
                    {"device", tarnhost_root()},
                    {"rebuilt", r.rebuilt},
                    {"contexts", r.contexts},
                    {"tables", r.tables},
                    {"interfaces", r.interfaces},
                    {"topologies", r.topologies}});
        return kExitOk;
    }
    if (r.rebuilt)
        printf("the store of %s was damaged: rebuilt it from %s\n",
               escaped(tarnhost_root()).c_str(), escaped(file).c_str());
    printf("loaded %s into %s: %s, %s, %s, %s\n", escaped(file).c_str(),
           escaped(tarnhost_root()).c_str(),
           counted(r.contexts, "context", "contexts").c_str(),
           counted(r.tables, "table", "tables").c_str(),
           counted(r.interfaces, "interface", "interfaces").c_str(),
           counted(r.topologies, "topology", "topologies").c_str());
    if (!clients.empty()) {
        std::string list;
        for (uint32_t h : clients)
            list += (list.empty() ? "" : ", ") + std::to_string(h);
        printf("note: %s on the bus (handle%s %s) %s not told: a load announces nothing, so "
               "what %s cache%s is the device before it; restart %s, or change the device "
               "with \"tarnctl apply\", which announces each change\n",
               counted(clients.size(), "client", "clients").c_str(),
               clients.size() == 1 ? "" : "s", list.c_str(), clients.size() == 1 ? "was" : "were",
               clients.size() == 1 ? "it" : "they", clients.size() == 1 ? "s" : "",
               clients.size() == 1 ? "it" : "them");
    }
    return kExitOk;
}

}  // namespace tarnctl
