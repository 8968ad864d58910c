// Service-side conveniences over the bus: what a publisher, a server or a
// test needs in one call instead of four.

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "host/bus_msg.h"
#include "host/tarnhost.h"
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
    return tarnhost_bus_publish_counted(handle, opcode, payload, len, nullptr,
                                        0, nullptr);
}

int tarnhost_bus_publish_counted(uint32_t handle, uint32_t opcode,
                                 const void *payload, uint32_t len,
                                 uint32_t *missed, size_t max,
                                 size_t *n_missed)
{
    uint32_t from = handle;
    if (handle == BUS_HANDLE_NONE) {
        from = bus_bind(0, -1, nullptr, "tarnhost publisher");
        if (from == BUS_HANDLE_NONE)
            return errno;
    }
    std::vector<uint32_t> lost;
    int err = tarnhost_bus::publish_from(from, opcode, payload, len, &lost);
    for (size_t i = 0; missed != nullptr && i < lost.size() && i < max; ++i)
        missed[i] = lost[i];
    if (n_missed != nullptr)
        *n_missed = lost.size();
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

// ---- messages without a socket ---------------------------------------------


extern "C" {

bus_msg_t *tarnhost_bus_msg_new(uint32_t opcode, const void *payload,
                                uint32_t len)
{
    if (payload == nullptr)
        len = 0;
    if (len > BUS_MAX_PAYLOAD) {
        errno = EMSGSIZE;
        return nullptr;
    }
    bus_msg *m = static_cast<bus_msg *>(malloc(sizeof(bus_msg) + len));
    if (m == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    m->magic = tarnhost_bus::kMsgLive;
    m->opcode = opcode;
    m->msg_id = 0;
    m->sender = BUS_HANDLE_NONE;
    m->reply_to = 0;
    m->len = len;
    m->kind = 0;
    m->reserved = 0;
    m->handle = BUS_HANDLE_NONE;
    if (len != 0)
        memcpy(m + 1, payload, len);
    return m;
}

}  // extern "C"
