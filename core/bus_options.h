// The receive option of a bus handle's opcode.
#ifndef TARN_CORE_BUS_OPTIONS_H
#define TARN_CORE_BUS_OPTIONS_H

#include <stdint.h>

namespace tarn {

// Both keep only the low 16 bits of the old option word.
uint32_t set_receive_option(uint32_t handle, uint32_t opcode);
uint32_t clear_receive_option(uint32_t handle, uint32_t opcode);

}  // namespace tarn

#endif
