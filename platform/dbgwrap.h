/*
 * platform/dbgwrap.h - the debug wrapper: per-library debug switches and
 * the debug print path.
 *
 * Contract
 *
 *  1. A library is known by its index (libtarn: 10).
 *     dbgwrap_library_dbg_enable(index, kind, handle) turns debug flags on
 *     for that library on behalf of `handle` (an opaque caller handle);
 *     dbgwrap_library_dbg_disable(index, kind, handle) turns them off again.
 *     dbgwrap_library_chk_int(index, flag) returns non-zero when debug flag
 *     `flag` (2: general debug) is on for the library.
 *
 *  2. dbgwrap_lib_id_and_names is a table of (id, name) text pairs, flat:
 *     entry 2n is the decimal id of library n and entry 2n+1 its name.
 *
 *  3. dbgwrap_library_dbg_pid_and_tag is the process's "[pid] tag" text;
 *     dbgwrap_dbg_modname its debug module name.
 *
 *  4. dbgprint_func(level, modname, prefix, flags, format, args...) prints
 *     one debug line: "<prefix> <formatted text>" to standard error and to
 *     $TARNHOST_ROOT/log/debug (no newline is added).
 *
 *  5. printf_curr_idx is the print facility's index word that formatters
 *     update as they go.
 */
#ifndef TARN_PLATFORM_DBGWRAP_H
#define TARN_PLATFORM_DBGWRAP_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DBGWRAP_MAX_LIBS 32

uint32_t dbgwrap_library_dbg_enable(uint32_t index, uint32_t kind,
                                    void *handle);
uint32_t dbgwrap_library_dbg_disable(uint32_t index, uint32_t kind,
                                     void *handle);
int dbgwrap_library_chk_int(uint32_t index, uint32_t flag);

extern const char *const dbgwrap_lib_id_and_names[2 * DBGWRAP_MAX_LIBS];
extern char dbgwrap_library_dbg_pid_and_tag[64];
extern const char dbgwrap_dbg_modname[];

void dbgprint_func(int level, const char *modname, const char *prefix,
                   int flags, const char *format, ...)
    __attribute__((format(printf, 5, 6)));

extern int printf_curr_idx;

#ifdef __cplusplus
}
#endif

#endif
