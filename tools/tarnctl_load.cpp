// tarnctl load FILE: replace the device's databases by a device description.

#include <stdio.h>
#include <string.h>

#include <string>

#include "host/tarnhost.h"
#include "tools/device_loader.h"
#include "tools/tarnctl.h"
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
           "describes and brings the device up.  A description with any error "
           "is refused\n"
           "and nothing is written.  With --json the summary is one JSON document.\n"
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
    if (r.status != 0) {
        if (r.partly_written)
            return reportf("load", kExitFailed,
                           "%s: %s; the device may be partly loaded, run \"tarnctl load "
                           "%s\" again",
                           file, r.message.c_str(), file);
        return reportf("load", kExitFailed,
                       "%s; nothing was written, correct %s and run \"tarnctl load %s\" "
                       "again",
                       r.message.c_str(), file, file);
    }
    if (json_output()) {
        print_json({{"file", file},
                    {"device", tarnhost_root()},
                    {"contexts", r.contexts},
                    {"tables", r.tables},
                    {"interfaces", r.interfaces},
                    {"topologies", r.topologies}});
        return kExitOk;
    }
    printf("loaded %s into %s: %s, %s, %s, %s\n", file, tarnhost_root(),
           counted(r.contexts, "context", "contexts").c_str(),
           counted(r.tables, "table", "tables").c_str(),
           counted(r.interfaces, "interface", "interfaces").c_str(),
           counted(r.topologies, "topology", "topologies").c_str());
    return kExitOk;
}

}  // namespace tarnctl
