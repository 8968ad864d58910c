// What tarnctl knows of the device's bus: handles, access points,
// subscriptions and dead entries, taken in one look.
#ifndef TARN_TOOLS_TARNCTL_BUS_H
#define TARN_TOOLS_TARNCTL_BUS_H

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "host/tarnhost_bus_inventory.h"

namespace tarnctl {

struct BusView {
    std::vector<tarnhost_bus_handle_info_t> handles;
    std::vector<tarnhost_bus_ap_info_t> access_points;
    std::map<uint32_t, std::vector<uint32_t>> subscribers;  // by opcode
    std::string error;  // why a listing stopped short; "" when complete

    const tarnhost_bus_handle_info_t *handle(uint32_t id) const;
    std::vector<uint32_t> subscriptions_of(uint32_t id) const;
};

BusView look_at_bus();

// The arguments of "show bus" and "show clients" (--json, --help): -1 to go
// on, otherwise the exit status to return.
int json_only_arguments(const char *what, int argc, char **argv, void (*help)(),
                        bool *as_json);

// The bus now; false after saying on standard error why it cannot be read.
bool read_bus(BusView *v);

// The name of an opcode as the tools print it.
std::string opcode_name(uint32_t opcode);

// tarnctl show bus [--json]
int cmd_show_bus(int argc, char **argv);
// tarnctl show clients [--json]
int cmd_show_clients(int argc, char **argv);

}  // namespace tarnctl

#endif
