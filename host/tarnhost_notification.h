/*
 * host/tarnhost_notification.h - notification payloads decoded for callers
 * that cannot use <tarn/notification.hpp> directly (the Python package,
 * through ctypes): the same decoder and the same JSON document that
 * "tarnctl watch --json" prints as "decoded".
 */
#ifndef TARNHOST_TARNHOST_NOTIFICATION_H
#define TARNHOST_TARNHOST_NOTIFICATION_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* What the payload is: a message of that opcode as received, or a page of
 * a cache dump (the reply to a dump request; the opcode is not read). */
#define TARNHOST_PAYLOAD_NOTIFICATION 0u
#define TARNHOST_PAYLOAD_DUMP_PAGE 1u

/* Decodes `len` bytes at `payload` (null: a message without payload) and
 * writes the JSON object, NUL-terminated, into `buf` of `size` bytes when it
 * fits.  Returns the document's length without the NUL, like snprintf: a
 * result of `size` or more means nothing was written and a buffer of the
 * result plus one is needed.  -1 for an unknown `what`. */
int64_t tarnhost_notification_json(uint32_t what, uint32_t opcode, const void *payload,
                                   uint32_t len, char *buf, uint32_t size);

#ifdef __cplusplus
}
#endif

#endif /* TARNHOST_TARNHOST_NOTIFICATION_H */
