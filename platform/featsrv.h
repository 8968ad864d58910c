/*
 * platform/featsrv.h - the feature-server publisher library.
 *
 * Contract
 *
 *  1. featsrv_kvs_publisher_lib_init(params) attaches a publishing process to
 *     each database named in `params` (names are completed against the
 *     supervisor's running configuration) and records the bus opcodes given
 *     for it.  Returns 0 on success, else a status.
 *
 *  2. The parameter block: a count of database entries, three reserved
 *     words, and a pointer to the entries.  An entry: the database name, a
 *     mode word, the publisher's opcode, a pointer to a list of further
 *     opcodes, the length word of that list's use, and three reserved words.
 *     The values are the caller's; the library passes them through.
 */
#ifndef TARN_PLATFORM_FEATSRV_H
#define TARN_PLATFORM_FEATSRV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct featsrv_kvs_entry {
    const char *name;
    uint32_t mode;
    uint32_t opcode;
    const uint32_t *opcodes;
    uint32_t opcode_use;
    uint32_t reserved[3];
} featsrv_kvs_entry_t;

typedef struct featsrv_kvs_params {
    uint32_t count;
    uint32_t reserved[3];
    const featsrv_kvs_entry_t *entries;
} featsrv_kvs_params_t;

uint32_t featsrv_kvs_publisher_lib_init(const featsrv_kvs_params_t *params);

#ifdef __cplusplus
}
#endif

#endif
