/*
 * host/tarnhost_bus.h - the service side of the message bus, for tools,
 * tests, publishers and examples: publishing notifications, serving an
 * access point, answering requests, and a few views of the bus state that
 * platform/bus.h does not offer.
 *
 * Layout of the bus under the host root (every process that names the same
 * root shares it):
 *
 *   <root>/bus/lock            the next handle id; flock-ed while binding
 *   <root>/bus/gen             a generation word, bumped on every change to
 *                              a subscription record
 *   <root>/bus/h/<handle>      the datagram socket of a handle (0600)
 *   <root>/bus/ap/<sap>        the decimal id of the handle bound at that
 *                              access point (0600)
 *   <root>/bus/sub/<opcode>/<handle>
 *                              one empty file (0600) per subscription
 *   <root>/bus/state/<handle>  the handle's delivery state (0600): how many
 *                              messages it missed
 *
 * Handles are decimal in file names.  Nothing there is followed through a
 * link or used when it is not the caller's own.  Statuses are errno values,
 * 0 for success.
 */
#ifndef TARNHOST_TARNHOST_BUS_H
#define TARNHOST_TARNHOST_BUS_H

#include <stddef.h>
#include <stdint.h>

#include "platform/bus.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- publishing --------------------------------------------------------- */

/* Publish a notification of `opcode` to every handle subscribed to it.
 * `handle` is the sender; BUS_HANDLE_NONE binds a temporary dynamic handle
 * for the one message. */
int tarnhost_bus_publish(uint32_t handle, uint32_t opcode,
                         const void *payload, uint32_t len);

/* The same, telling who missed the message: a subscriber whose queue
 * stayed full (it took nothing for a while) does not get it, and the loss
 * is counted against it (tarnhost_bus_missed) instead of holding up the
 * others.  Up to `max` of those handles are written to `missed`, and
 * *n_missed (when not null) says how many there were.  0 unless the
 * message could not be published at all. */
int tarnhost_bus_publish_counted(uint32_t handle, uint32_t opcode,
                                 const void *payload, uint32_t len,
                                 uint32_t *missed, size_t max,
                                 size_t *n_missed);

/* How many messages `handle` (of any process of the device) has missed,
 * because its queue stayed full, and not yet caught up on (see
 * tarnhost_bus_missed_take).  0, or ENOENT when no such handle is bound. */
int tarnhost_bus_missed(uint32_t handle, uint32_t *count);

/* For the process that holds `handle`: how many messages it has missed
 * since it last asked, and from now on they count as caught up on.  A
 * client that gets a non-zero count has lost notifications and rebuilds
 * what it keeps from them (its caches) from the databases.  0, EBADF (not
 * a handle of this process) or ENOENT (a handle without delivery state). */
int tarnhost_bus_missed_take(uint32_t handle, uint32_t *count);

/* Set (on = 1) or clear (on = 0) the receive bit of a handle's option word
 * for `opcode`, keeping the other bits. */
int tarnhost_bus_subscribe(uint32_t handle, uint32_t opcode, int on);

/* The handles subscribed to `opcode` on this device now, in no particular
 * order: up to `max` of them are written to `out`; the result is how many
 * there are.  errno is 0 when the record directory was read to its end (or
 * does not exist); when it could not be, the result is 0 and errno says
 * why. */
size_t tarnhost_bus_subscribers(uint32_t opcode, uint32_t *out, size_t max);

/* ---- serving ------------------------------------------------------------ */

/* Bind the fixed access point `sap` (>= 1).  The handle, or BUS_HANDLE_NONE
 * with errno set (EADDRINUSE when a live process holds it). */
uint32_t tarnhost_bus_serve(int32_t sap, const char *name);

/* Receive with a timeout in milliseconds (0: do not wait).  Null with errno
 * set (EAGAIN when nothing came in time). */
bus_msg_t *tarnhost_bus_recv_ms(uint32_t handle, uint32_t timeout_ms);

/* The descriptor behind a handle bound in this process: it polls readable
 * (POLLIN) while a message waits, so that an event loop (poll, epoll, a
 * language's selectors) can wait on several sources and call bus_recv or
 * tarnhost_bus_recv_ms with no wait when it fires.  It stays the handle's:
 * never read, close or change it.  -1 with errno EBADF for a handle not
 * bound here. */
int tarnhost_bus_fd(uint32_t handle);

/* Answer `request`, received on `handle`, with a message of `opcode`. */
int tarnhost_bus_reply(uint32_t handle, const bus_msg_t *request,
                       uint32_t opcode, const void *payload, uint32_t len);

/* ---- messages ----------------------------------------------------------- */

/* A message of `opcode` carrying a copy of `len` bytes of `payload`, made
 * without a socket (for unit tests and fuzzing): it reads like a received
 * message, as from no sender (BUS_HANDLE_NONE), and is released with
 * bus_drop.  A null payload or a length of 0 gives a message without
 * payload.  Null with errno set: EMSGSIZE above BUS_MAX_PAYLOAD, ENOMEM. */
bus_msg_t *tarnhost_bus_msg_new(uint32_t opcode, const void *payload,
                                uint32_t len);

/* The access point that `handle` serves on this device: the destination
 * (node BUS_NODE_LOCAL, that sap) under which other processes reach it,
 * since a handle is addressed by its access point.  -1 with errno ENOENT
 * when no live access point leads to it (a dynamic handle, or one gone). */
int32_t tarnhost_bus_handle_sap(uint32_t handle);

/* The handle that sent a message (BUS_HANDLE_NONE for null). */
uint32_t tarnhost_bus_sender_get(const bus_msg_t *msg);
/* The id of the message that this one answers; 0 when it is no reply. */
uint32_t tarnhost_bus_reply_to_get(const bus_msg_t *msg);

/* ---- tuning ------------------------------------------------------------- */

/* How long a send may wait in all for room in a receiver's queue while the
 * receiver is taking messages (default 2000 ms).  A receiver that takes
 * none for 200 ms (or this wait, when shorter) misses the message at once,
 * and later senders do not wait for it until it takes a message again: a
 * directed send then fails with EAGAIN, a publish goes on to the others.
 * Process-wide. */
void tarnhost_bus_set_send_wait_ms(uint32_t ms);

#ifdef __cplusplus
}
#endif

#endif /* TARNHOST_TARNHOST_BUS_H */
