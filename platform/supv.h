/*
 * platform/supv.h - the supervisor: the process's cell and the device's
 * running configuration.
 *
 * Contract
 *
 *  1. supv_get_cell_ctxt() returns this process's cell context word; its
 *     low 16 bits are the cell number.  On the host it is taken from
 *     TARNHOST_CELL (default 1), read as a whole 32-bit number.
 *
 *  2. supv_running_cfg_uri_get() returns the device's running-configuration
 *     URI once the device has been brought up (tarnhost_device_up), else
 *     null.  The text is the supervisor's; do not free it.
 *
 *  3. supv_uri_complete(uri, flags, name) joins a URI and a database name
 *     ("<uri>/<name>") and returns the result in a per-thread buffer that the
 *     thread's next call overwrites; null when either text is null or the
 *     result would not fit in 1024 bytes.
 */
#ifndef TARN_PLATFORM_SUPV_H
#define TARN_PLATFORM_SUPV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

uint32_t supv_get_cell_ctxt(void);
const char *supv_running_cfg_uri_get(void);
const char *supv_uri_complete(const char *uri, uint32_t flags,
                              const char *name);

#ifdef __cplusplus
}
#endif

#endif
