/*
 * platform/nic.h - the interface manager.
 *
 * Contract
 *
 *  1. Interfaces are known by their ifindex and by their IOD (the
 *     interface's object descriptor); every process of the device sees the
 *     same interfaces.
 *
 *  2. nic_get_if_name(ifindex) and nic_get_if_short_name(ifindex) return a
 *     printable name in a per-thread buffer that the thread's next call of
 *     the same function overwrites; never null.  An unknown interface gives
 *     the placeholder "unknown(<ifindex>)".
 *
 *  3. nic_get_ifindex_frm_iod(iod, &ifindex) and
 *     nic_get_iod_frm_ifindex(ifindex, &iod) return 0 and fill the output,
 *     or a non-zero status for an unknown interface (the output untouched).
 *
 *  4. nic_is_mgmtether(ifindex) returns non-zero for the management
 *     Ethernet interface, 0 otherwise (also for an unknown one).
 *
 *  5. None of these needs memory to answer: out of memory they answer as
 *     usual, only more slowly.
 */
#ifndef TARN_PLATFORM_NIC_H
#define TARN_PLATFORM_NIC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define NIC_ERR_UNKNOWN 0x40500001u  /* no such interface */
#define NIC_ERR_INVALID 0x40500002u  /* null output       */

const char *nic_get_if_name(uint32_t ifindex);
const char *nic_get_if_short_name(uint32_t ifindex);
uint32_t nic_get_ifindex_frm_iod(uint32_t iod, uint32_t *ifindex);
uint32_t nic_get_iod_frm_ifindex(uint32_t ifindex, uint32_t *iod);
uint32_t nic_is_mgmtether(uint32_t ifindex);

#ifdef __cplusplus
}
#endif

#endif
