/*
 * platform/alloctrack.h - the memory tracker.
 *
 * Contract
 *
 *  1. alloctrack_init(name, lib_id, type_names, count) registers a library
 *     and the names of its memory types 0..count-1.  Registering again
 *     replaces the names.  Returns 0, or 1 when there is no memory to keep
 *     the names (the registration is then as it was).
 *
 *  2. alloctrack_alloc(lib_id, type, size) returns `size` bytes (not
 *     zeroed) counted under (lib_id, type), or null.  alloctrack_free(lib_id,
 *     type, p) releases them (null is ignored).  Memory from one must go back
 *     through the other.
 *
 *  3. alloctrack_uninit(lib_id) forgets the library's names and returns 0,
 *     or 1 when the library was not registered.  Counts stay readable.
 *
 *  4. alloctrack_live_count / alloctrack_live_bytes give the allocations and
 *     bytes of (lib_id, type) not yet freed, for tests and tools.
 */
#ifndef TARN_PLATFORM_ALLOCTRACK_H
#define TARN_PLATFORM_ALLOCTRACK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

uint32_t alloctrack_init(const char *name, uint32_t lib_id,
                         const char *const *type_names, uint32_t count);
uint32_t alloctrack_uninit(uint32_t lib_id);
void *alloctrack_alloc(uint32_t lib_id, uint32_t type, size_t size);
void alloctrack_free(uint32_t lib_id, uint32_t type, void *p);
uint64_t alloctrack_live_count(uint32_t lib_id, uint32_t type);
uint64_t alloctrack_live_bytes(uint32_t lib_id, uint32_t type);

#ifdef __cplusplus
}
#endif

#endif
