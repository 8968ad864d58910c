/*
 * host/tarnhost_client.h - the host's helper for client processes: it makes
 * a bus handle a libtarn client (registration, the caches) and answers the
 * host's own inspection request, so that tools can ask a running client
 * what each of its cache-backed queries answers.
 *
 * A program built on it hands every message it receives to
 * tarnhost_client_dispatch instead of tarn_dispatch.  The answers come from
 * the library's exported queries and state only, as any client of the
 * library would see them.
 *
 * Link: the tarnhost_client archive, with libtarn and libtarnhost.
 */
#ifndef TARNHOST_TARNHOST_CLIENT_H
#define TARNHOST_TARNHOST_CLIENT_H

#include <stdint.h>

#include "platform/bus.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The inspection request and its answer (one opcode, both directions). */
#define TARNHOST_OPC_CLIENT_INSPECT 0x54480001u

/* What tarnhost_client_start makes of the handle. */
#define TARNHOST_CLIENT_TARN 0x1u       /* tarn_register                 */
#define TARNHOST_CLIENT_GYRE 0x2u       /* gyre_register                 */
#define TARNHOST_CLIENT_AS_FORMAT 0x4u  /* tarn_track_as_format         */
#define TARNHOST_CLIENT_GYRE_CACHE 0x8u /* gyre_enable_cache_mode       */
#define TARNHOST_CLIENT_ALL 0xFu

/* Registers `handle` and enables what `what` asks for, in the order above.
 * Null on success, else the name of the library call that failed (its
 * reason is in the device's log). */
const char *tarnhost_client_start(uint32_t handle, uint32_t what);

/* Handles one received message: an inspection request is answered and
 * dropped (result 1); anything else goes to tarn_dispatch, whose result is
 * returned (1: applied and dropped; otherwise the caller drops it). */
int32_t tarnhost_client_dispatch(uint32_t handle, bus_msg_t *msg);

/* What tarnhost_client_start enabled (TARNHOST_CLIENT_* bits). */
uint32_t tarnhost_client_enabled(void);

/* The Gyre notifications not applied because they would have taken the
 * cache past its bound of 16384 topologies (the cache was built again
 * from the databases instead). */
uint64_t tarnhost_client_refused(void);

#ifdef __cplusplus
}
#endif

#endif /* TARNHOST_TARNHOST_CLIENT_H */
