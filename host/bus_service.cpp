// Service-side conveniences over the bus: what a publisher, a server or a
// test needs in one call instead of four.

#include <errno.h>

#include "host/tarnhost_bus.h"
#include "platform/bus.h"

namespace {

bus_send_opts_t normal_delivery()
{
    bus_send_opts_t o{};
    o.w[0] = 1;
    return o;
}

}  // namespace

extern "C" {

int tarnhost_bus_publish(uint32_t handle, uint32_t opcode,
                         const void *payload, uint32_t len)
{
    uint32_t from = handle;
    if (handle == BUS_HANDLE_NONE) {
        from = bus_bind(0, -1, nullptr, "tarnhost publisher");
        if (from == BUS_HANDLE_NONE)
            return errno;
    }
    bus_send_opts_t opts = normal_delivery();
    int rc = bus_send(from, BUS_NODE_LOCAL, 0, opcode, payload, len, nullptr,
                      nullptr, &opts);
    int err = rc == 0 ? 0 : errno;
    // Datagrams already queued survive the sender's socket closing.
    if (handle == BUS_HANDLE_NONE)
        bus_unbind(from);
    return err;
}

int tarnhost_bus_subscribe(uint32_t handle, uint32_t opcode, int on)
{
    errno = 0;
    uint32_t word = bus_options_get(handle, opcode);
    if (word == 0 && errno != 0)
        return errno;
    word &= ~BUS_OPT_RECEIVE;
    if (on)
        word |= BUS_OPT_RECEIVE;
    return static_cast<int>(bus_options_set(handle, opcode, word));
}

uint32_t tarnhost_bus_serve(int32_t sap, const char *name)
{
    if (sap < 1) {
        errno = EINVAL;
        return BUS_HANDLE_NONE;
    }
    return bus_bind(0, sap, nullptr, name);
}

int tarnhost_bus_reply(uint32_t handle, const bus_msg_t *request,
                       uint32_t opcode, const void *payload, uint32_t len)
{
    if (request == nullptr)
        return EINVAL;
    bus_send_opts_t opts = normal_delivery();
    int rc = bus_send(handle, BUS_NODE_LOCAL, 0, opcode, payload, len,
                      const_cast<bus_msg_t *>(request), nullptr, &opts);
    return rc == 0 ? 0 : errno;
}

}  // extern "C"
