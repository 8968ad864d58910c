/*
 * platform/kvs.h - the shared key/value database.
 *
 * Contract
 *
 *  1. A database is named by a URI such as "volatile:/dev/shm/cell_mgr_kvs".
 *     The URI text is also the handle: every call takes it.  All processes of
 *     one device that name the same URI see the same database.
 *
 *  2. kvs_open(uri, 1, 0, 0, 0) attaches this process to the database and
 *     returns 0, or KVS_ERR_ALREADY_OPEN (0x411A0003) when this process has
 *     it open already (the attachment is then usable as before), or another
 *     non-zero status.  kvs_close(uri) detaches it.
 *
 *  3. kvs_read(uri, key, value) looks a key up.  It returns 0 and sets
 *     value->data / value->len, or KVS_ERR_NOT_FOUND (0x40480003) for an
 *     absent key, or another status.  The value is not copied: it stays
 *     valid until the same thread's next read of the same database, and the
 *     caller never frees it.  A record is never seen half-written, and
     the read holds no snapshot of the database once it has returned.
 *
 *  4. Keys are ordered bytewise (shorter before longer on a common prefix).
 *     Each database has one iterator position per process:
 *       kvs_iterator_init(uri, key, 0) places it on `key`, or, when `key`
 *         is absent, on the last record before where it would stand (before
 *         the first record when there is none); kvs_iterator_init(uri, 0, 1)
 *         places it on the first record;
 *       kvs_getkey(uri, key, value) reads the record at the position
 *         (non-zero when there is none);
 *       kvs_getnext(uri, key, value) advances and reads the record now
 *         current (non-zero at the end, the position then stays put).
 *     Key and value descriptors so returned stay valid until the next
 *     iterator call of the process on that database.  Walks over one
 *     database must not be interleaved.  Each step reads the database as
 *     it is when the step is taken and holds no snapshot once it has
 *     returned: a walk meets its keys in order, each at most once, sees a
 *     record added ahead of its position and not one removed, and a walk
 *     left before its end (the library's walks stop where their kind of
 *     record ends) keeps nothing from the writer.  kvs_getkey reads the
 *     record at the position as the step that reached it read it.
 *
 *  5. The client library never writes.  Publishers, tools and tests write
 *     through the host's writer interface (host/tarnhost.h).
 *
 *  6. A call that runs out of memory fails with KVS_ERR_IO, as for any
 *     failure of the store underneath, and leaves the attachment, the
 *     iterator and the database as they were.
 *
 * Status values are 32-bit; syserr2str() (platform/syslog.h) gives a text.
 */
#ifndef TARN_PLATFORM_KVS_H
#define TARN_PLATFORM_KVS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KVS_OK 0u
#define KVS_ERR_NOT_FOUND 0x40480003u
#define KVS_ERR_ALREADY_OPEN 0x411A0003u
#define KVS_ERR_NOT_OPEN 0x40480004u     /* the database is not open here   */
#define KVS_ERR_BAD_URI 0x40480005u      /* the URI cannot be held          */
#define KVS_ERR_IO 0x40480006u           /* the store failed underneath     */
#define KVS_ERR_INVALID 0x40480007u      /* a null or malformed argument    */
#define KVS_ERR_NO_POSITION 0x40480008u  /* no record at the iterator       */
#define KVS_ERR_END 0x40480009u          /* the iterator is at the end      */
#define KVS_ERR_FULL 0x4048000Au         /* the store has no room left      */
#define KVS_ERR_DAMAGED 0x4048000Bu      /* the store's files are damaged   */
#define KVS_ERR_DENIED 0x4048000Cu       /* the store's files are not ours  */

/* A (data, length) descriptor. */
typedef struct kvs_datum {
    const void *data;
    uint32_t len;
} kvs_datum_t;

uint32_t kvs_open(const char *uri, uint32_t mode, uint32_t a, uint32_t b,
                  uint32_t c);
uint32_t kvs_close(const char *uri);
uint32_t kvs_read(const char *uri, const kvs_datum_t *key, kvs_datum_t *value);
uint32_t kvs_iterator_init(const char *uri, const kvs_datum_t *key,
                           uint32_t from_start);
uint32_t kvs_getkey(const char *uri, kvs_datum_t *key, kvs_datum_t *value);
uint32_t kvs_getnext(const char *uri, kvs_datum_t *key, kvs_datum_t *value);

#ifdef __cplusplus
}
#endif

#endif
