// Kernel-sink access to the shared database, and the platform's bounded
// string helpers.  The database calls go to the same store as kvs_*: a
// kernel-sink handle is only another way of naming a URI.

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "host/kvs_internal.h"
#include "host/tarnhost.h"
#include "platform/kpipe.h"
#include "platform/kvs.h"

extern "C" {

uint32_t kpipe_kvs_open(const char *uri, uint32_t flags)
{
    (void)flags;
    uint32_t st;
    if (tarnhost_fault_hit("kpipe_kvs_open", &st))
        return 0;
    st = tarnhost::kvs_attach(uri);
    return (st == KVS_OK || st == KVS_ERR_ALREADY_OPEN) ? 1 : 0;
}

uint32_t kpipe_kvs_read(const kpipe_kvs_handle_t *handle, const void *key,
                        uint32_t key_len, const void **value,
                        uint32_t *value_len, uint32_t *error)
{
    uint32_t dummy;
    if (error == nullptr)
        error = &dummy;
    uint32_t st;
    if (tarnhost_fault_hit("kpipe_kvs_read", &st)) {
        *error = st;
        return 0;
    }
    if (handle == nullptr || value == nullptr || value_len == nullptr) {
        *error = KVS_ERR_INVALID;
        return 0;
    }
    // The handle is caller storage: never read past its URI field.
    if (memchr(handle->uri, '\0', sizeof handle->uri) == nullptr) {
        *error = KVS_ERR_BAD_URI;
        return 0;
    }
    st = tarnhost::kvs_lookup(handle->uri, key, key_len, value, value_len);
    if (st != KVS_OK) {
        *error = st;
        return 0;
    }
    *error = KVS_OK;
    return 1;
}

uint32_t kpipe_kvs_close(const char *uri)
{
    uint32_t st;
    if (tarnhost_fault_hit("kpipe_kvs_close", &st))
        return st;
    return tarnhost::kvs_detach(uri);
}

char *kpipe_strcpy(char *dst, const char *src, size_t limit)
{
    if (dst == nullptr || limit == 0)
        return dst;
    size_t n = 0;
    if (src != nullptr)
        while (n < limit - 1 && src[n] != '\0')
            ++n;
    if (n != 0)
        memcpy(dst, src, n);
    dst[n] = '\0';
    return dst;
}

int kpipe_snprintf(char *buf, size_t size, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, size, fmt, ap);
    va_end(ap);
    return n;
}

uint32_t kpipe_get_epid(uint32_t pid)
{
    return pid;
}

}  // extern "C"
