/*
 * platform/bus.h - the message bus: notifications, requests and replies
 * between the processes of one device.
 *
 * Contract
 *
 *  1. Handles.  bus_bind(type, sap, addr, name) opens a queue bound to a
 *     service access point: `sap` >= 1 binds that fixed access point (one
 *     handle per access point on the device), -1 a new dynamic one.  It
 *     returns the handle, or BUS_HANDLE_NONE (all ones) with errno set.
 *     `type` and the 24-byte `addr` record are the caller's bind parameters
 *     and are kept with the handle; `name` labels it.  bus_unbind(handle)
 *     closes it and withdraws its subscriptions (0 or an errno value).
 *     Binding an access point that a live handle holds fails with
 *     EADDRINUSE; `sap` 0 or below -1 with EINVAL.  Handles are unique on
 *     the device and belong to the process that bound them: a forked child
 *     does not inherit them.
 *
 *  2. Options.  Each handle has one 32-bit option word per opcode,
 *     bus_options_get(handle, opcode) / bus_options_set(handle, opcode,
 *     word) (0 or an errno value).  Bit BUS_OPT_RECEIVE (0x10) subscribes
 *     the handle: every notification of that opcode published on the device
 *     reaches it.  Subscriptions are visible to every process of the device.
 *
 *  3. Sending.  bus_send(handle, node, sap, opcode, payload, len, reply_to,
 *     sent, opts) returns 0, or -1 with errno set.  `node` is a node address
 *     (BUS_NODE_LOCAL for this device).  With `sap` 0 the message is
 *     published to every handle subscribed to `opcode` (a subscriber that
 *     has died is forgotten and does not fail the send); with a non-zero
 *     `sap` it goes to the handle bound there.  With `reply_to` set the
 *     message is the reply to that received message and goes back to its
 *     sender, whatever node and sap say.  When `sent` is not null it
 *     receives a reference to the sent message, which the caller releases
 *     with bus_drop.  The payload is copied: the caller may free it at once.
 *     Payloads up to BUS_MAX_PAYLOAD bytes; a longer one fails with
 *     EMSGSIZE and nothing is sent.  Other errno values: EBADF (handle not
 *     bound in this process), ECONNREFUSED (nobody at that access point, or
 *     the replied-to sender is gone), EHOSTUNREACH (a node other than
 *     BUS_NODE_LOCAL or 0), EAGAIN (the receiver's queue stayed full and
 *     it missed the message).  A publish does not fail because some
 *     subscriber's queue stayed full: that subscriber misses the message,
 *     the miss is counted against it, and the others all get it.
 *
 *  4. Receiving.  bus_recv(handle, opts) returns the next message for the
 *     handle, or null with errno set (EAGAIN after opts->timeout_s seconds
 *     without one; 0 means do not wait; a null `opts` or a mode other than
 *     1 does not wait either).  The caller owns the message until
 *     bus_drop(handle, msg) (0, or -1 with errno set; the message is
 *     released even then, so a failed drop is never retried).
 *
 *  5. Messages.  bus_payload_get(msg, &len) gives the payload (null and 0
 *     when the message has none); bus_opc_get the opcode; bus_msg_id_get
 *     its id (unique per sender); bus_opc_name_get(opcode) a constant name
 *     ("TARN_ATTR_CHANGE", ...; the decimal number for opcodes without a
 *     name, in a per-thread buffer); bus_errno_get(handle) the handle's last
 *     error.
 *
 *  6. Out of memory.  A call that runs out of memory fails with its own
 *     failure result and ENOMEM: bus_bind BUS_HANDLE_NONE, bus_send -1,
 *     bus_recv null (errno set), bus_unbind and bus_options_set the value
 *     ENOMEM.  Nothing is half done: a failed bind leaves nothing bound, a
 *     failed option change leaves the option and the subscription as they
 *     were.
 */
#ifndef TARN_PLATFORM_BUS_H
#define TARN_PLATFORM_BUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BUS_HANDLE_NONE 0xFFFFFFFFu
#define BUS_OPT_RECEIVE 0x10u
#define BUS_NODE_LOCAL 0xFE000000u
#define BUS_MAX_PAYLOAD (256u * 1024u)

typedef struct bus_msg bus_msg_t;

/* The bind address record (24 bytes). */
typedef struct bus_addr {
    uint32_t w[6];
} bus_addr_t;

/* Send options (68 bytes); word 0 is the delivery mode (1: normal). */
typedef struct bus_send_opts {
    uint32_t w[17];
} bus_send_opts_t;

/* Receive options: mode (1: wait), flags, timeout in seconds. */
typedef struct bus_recv_opts {
    uint32_t mode;
    uint32_t flags;
    uint32_t timeout_s;
} bus_recv_opts_t;

uint32_t bus_bind(uint32_t type, int32_t sap, const bus_addr_t *addr,
                  const char *name);
uint32_t bus_unbind(uint32_t handle);
int32_t bus_send(uint32_t handle, uint32_t node, uint32_t sap,
                 uint32_t opcode, const void *payload, uint32_t len,
                 bus_msg_t *reply_to, bus_msg_t **sent,
                 const bus_send_opts_t *opts);
bus_msg_t *bus_recv(uint32_t handle, const bus_recv_opts_t *opts);
int32_t bus_drop(uint32_t handle, bus_msg_t *msg);
const void *bus_payload_get(const bus_msg_t *msg, uint32_t *len);
uint32_t bus_opc_get(const bus_msg_t *msg);
const char *bus_opc_name_get(uint32_t opcode);
uint32_t bus_msg_id_get(const bus_msg_t *msg);
uint32_t bus_errno_get(uint32_t handle);
uint32_t bus_options_get(uint32_t handle, uint32_t opcode);
uint32_t bus_options_set(uint32_t handle, uint32_t opcode, uint32_t value);

#ifdef __cplusplus
}
#endif

#endif
