// The receive option of a bus handle's opcode.
#ifndef TARN_CORE_BUS_OPTIONS_H
#define TARN_CORE_BUS_OPTIONS_H

#include <stdint.h>
#include <string.h>

#include "platform/bus.h"

namespace tarn {

// The send options every message of the library carries: all zero but the
// first word, 1.
inline bus_send_opts_t send_options()
{
    bus_send_opts_t opts;
    memset(&opts, 0, sizeof opts);
    opts.w[0] = 1;
    return opts;
}

// Both keep only the low 16 bits of the old option word.
uint32_t set_receive_option(uint32_t handle, uint32_t opcode);
uint32_t clear_receive_option(uint32_t handle, uint32_t opcode);

}  // namespace tarn

#endif
