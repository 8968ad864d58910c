/*
 * platform/bond.h - the port-channel manager.
 *
 * Contract
 *
 *  1. bond_get_pc_for_port(ifindex, record) fills the caller's 278-byte
 *     record for a port: bytes 6-9 hold the ifindex of the port-channel the
 *     port belongs to (host byte order), 0 when it belongs to none.  Returns
 *     0, or a non-zero status for an unknown port (the record untouched).
 */
#ifndef TARN_PLATFORM_BOND_H
#define TARN_PLATFORM_BOND_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define BOND_PC_RECORD_SIZE 278u
#define BOND_PC_IFINDEX_OFFSET 6u
#define BOND_ERR_UNKNOWN 0x40510001u

uint32_t bond_get_pc_for_port(uint32_t ifindex, void *record);

#ifdef __cplusplus
}
#endif

#endif
