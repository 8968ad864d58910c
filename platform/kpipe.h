/*
 * platform/kpipe.h - kernel-sink access to the shared database, and the
 * platform's bounded string helpers.
 *
 * Contract
 *
 *  1. kpipe_kvs_open(uri, flags) attaches the database named by `uri` (the
 *     same store as platform/kvs.h) and returns non-zero on success, 0 on
 *     failure.  Opening a database already open succeeds.
 *
 *  2. kpipe_kvs_read(handle, key, key_len, &value, &value_len, &error) reads
 *     through a kernel-sink handle: a structure whose byte 0 is a flag byte,
 *     bytes 1-32 a name and bytes 33-288 the URI (kpipe_kvs_handle_t).  It
 *     returns non-zero when the key was found, with the value and its length
 *     (valid as kvs_read's); else 0 with `error` set (KVS_ERR_NOT_FOUND for
 *     an absent key).
 *
 *  3. kpipe_kvs_close(uri) detaches.
 *
 *  4. kpipe_strcpy(dst, src, limit) copies at most limit - 1 characters and
 *     always terminates dst (limit 0 writes nothing); a null src gives the
 *     empty string.  Returns dst.
 *
 *  5. kpipe_snprintf is snprintf: it returns the length the whole output
 *     would have had, and never writes more than `size` bytes.
 *
 *  6. kpipe_get_epid(pid) returns the bus endpoint id of a process: on this
 *     platform the process id itself.
 */
#ifndef TARN_PLATFORM_KPIPE_H
#define TARN_PLATFORM_KPIPE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define KPIPE_NAME_SIZE 32
#define KPIPE_URI_SIZE 256

/* The kernel-sink database handle; the caller owns its storage. */
typedef struct kpipe_kvs_handle {
    uint8_t flags;
    char name[KPIPE_NAME_SIZE];
    char uri[KPIPE_URI_SIZE];
    uint8_t pad[3];
    uint32_t mode;
    uint32_t w0, w1, w2;
} kpipe_kvs_handle_t;

uint32_t kpipe_kvs_open(const char *uri, uint32_t flags);
uint32_t kpipe_kvs_read(const kpipe_kvs_handle_t *handle, const void *key,
                        uint32_t key_len, const void **value,
                        uint32_t *value_len, uint32_t *error);
uint32_t kpipe_kvs_close(const char *uri);

char *kpipe_strcpy(char *dst, const char *src, size_t limit);
int kpipe_snprintf(char *buf, size_t size, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));
uint32_t kpipe_get_epid(uint32_t pid);

#ifdef __cplusplus
}
#endif

#endif
