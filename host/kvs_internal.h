// Entry points of the shared database for the other host sources (the
// kernel-sink access in kpipe.cpp).  They skip fault injection: the caller's
// own platform call has had its chance to fail already.
#ifndef TARNHOST_KVS_INTERNAL_H
#define TARNHOST_KVS_INTERNAL_H

#include <stdint.h>

namespace tarnhost {

#define TARNHOST_HIDDEN __attribute__((visibility("hidden")))

// kvs_open without the fault hook: 0, KVS_ERR_ALREADY_OPEN or a failure.
TARNHOST_HIDDEN uint32_t kvs_attach(const char *uri);
// kvs_close without the fault hook.
TARNHOST_HIDDEN uint32_t kvs_detach(const char *uri);
// kvs_read without the fault hook, on a raw key.
TARNHOST_HIDDEN uint32_t kvs_lookup(const char *uri, const void *key,
                                    uint32_t key_len, const void **data,
                                    uint32_t *len);

// The id of the database's last committed transaction: it changes with
// every change any process commits, so a reader may keep what it derived
// from the database for as long as the id stays the same.
TARNHOST_HIDDEN uint32_t kvs_generation(const char *uri, uint64_t *generation);

}  // namespace tarnhost

#endif
