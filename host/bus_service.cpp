// Service-side conveniences over the bus: what a publisher, a server or a
// test needs in one call instead of four.

#include <dirent.h>
#include <errno.h>
#include <limits.h>
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

int32_t tarnhost_bus_handle_sap(uint32_t handle)
{
    char dir[PATH_MAX];
    int w = snprintf(dir, sizeof dir, "%s/bus/ap", tarnhost_root());
    if (w < 0 || static_cast<size_t>(w) >= sizeof dir) {
        errno = ENAMETOOLONG;
        return -1;
    }
    char want[32];
    snprintf(want, sizeof want, "../h/%u", handle);
    DIR *d = opendir(dir);
    if (d == nullptr) {
        errno = ENOENT;
        return -1;
    }
    int32_t found = -1;
    while (dirent *e = readdir(d)) {
        const char *name = e->d_name;
        char *end = nullptr;
        errno = 0;
        long sap = strtol(name, &end, 10);
        if (name[0] < '1' || name[0] > '9' || *end != '\0' || errno != 0 ||
            sap > 0x7FFFFFFFL)
            continue;
        char path[PATH_MAX];
        w = snprintf(path, sizeof path, "%s/%s", dir, name);
        if (w < 0 || static_cast<size_t>(w) >= sizeof path)
            continue;
        char target[64];
        ssize_t n = readlink(path, target, sizeof target - 1);
        if (n <= 0)
            continue;
        target[n] = '\0';
        // The link must lead to a socket that is still there.
        if (strcmp(target, want) == 0 && access(path, F_OK) == 0) {
            found = static_cast<int32_t>(sap);
            break;
        }
    }
    closedir(d);
    if (found < 0)
        errno = ENOENT;
    return found;
}

}  // extern "C"
