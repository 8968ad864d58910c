/*
 * host/tarnhost_client.h - the host's helper for client processes: it makes
 * a bus handle a libtarn client (registration, the caches) and answers the
 * host's own inspection request, so that tools can ask a running client
 * what each of its cache-backed queries answers.
 *
 * A program built on it either lets tarnhost_client_start make the
 * library's calls, or makes them itself and says so with
 * tarnhost_client_set_enabled; it hands every message it receives to
 * tarnhost_client_dispatch (which passes all but the inspection request to
 * tarn_dispatch), or only the inspection request.  The answers come from
 * the library's exported queries and state only, as any client of the
 * library would see them.
 *
 * Link: libtarnhost_client, with libtarn and libtarnhost (pkg-config's
 * "tarn" module names all three).
 */
#ifndef TARNHOST_TARNHOST_CLIENT_H
#define TARNHOST_TARNHOST_CLIENT_H

#include <stdint.h>

#include "platform/bus.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define TARNHOST_CLIENT_API __attribute__((visibility("default")))
#else
#define TARNHOST_CLIENT_API
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
TARNHOST_CLIENT_API const char *tarnhost_client_start(uint32_t handle, uint32_t what);

/* For a program that made those library calls itself: records what it
 * enabled (TARNHOST_CLIENT_* bits), which the answers to the inspection
 * request report as tarnhost_client_start would have. */
TARNHOST_CLIENT_API void tarnhost_client_set_enabled(uint32_t what);

/* Handles one received message: an inspection request is answered and
 * dropped (result 1); anything else goes to tarn_dispatch, whose result is
 * returned.  Who owns `msg` afterwards:
 *   1: the helper or the library, which has dropped it.
 *   0: the caller, who drops it (a Gyre notification was applied).
 *  -1: the caller, who drops it (not taken). */
TARNHOST_CLIENT_API int32_t tarnhost_client_dispatch(uint32_t handle, bus_msg_t *msg);

/* What tarnhost_client_start enabled (TARNHOST_CLIENT_* bits). */
TARNHOST_CLIENT_API uint32_t tarnhost_client_enabled(void);

#ifdef __cplusplus
}
#endif

#endif /* TARNHOST_TARNHOST_CLIENT_H */
