// The in-memory form of a bus message, shared by the bus and the host's
// service helpers: a header and, in the same allocation, the payload.
#ifndef TARNHOST_BUS_MSG_H
#define TARNHOST_BUS_MSG_H

#include <stdint.h>

#include <vector>

// 32 bytes keep the payload 16-byte aligned on both ABIs.
struct bus_msg {
    uint32_t magic;
    uint32_t opcode;
    uint32_t msg_id;
    uint32_t sender;
    uint32_t reply_to;
    uint32_t len;
    uint16_t kind;
    uint16_t reserved;
    uint32_t handle;  // the handle that received (or sent) it
};
static_assert(sizeof(bus_msg) == 32, "payload alignment");

namespace tarnhost_bus {

constexpr uint32_t kMsgLive = 0x4D53474Cu;
constexpr uint32_t kMsgFreed = 0x46524545u;

// Publishes from a bound handle; the subscribers that missed the message
// (their queue stayed full) are added to `missed` when it is given.  0 or
// an errno value.
int publish_from(uint32_t handle, uint32_t opcode, const void *payload,
                 uint32_t len, std::vector<uint32_t> *missed);

}  // namespace tarnhost_bus

#endif
