/*
 * host/tarnhost_ifmgr.h - the host's interface manager: who writes the
 * interfaces that nic_* (platform/nic.h) and bond_get_pc_for_port
 * (platform/bond.h) answer about.
 *
 * Conventions
 *
 *  1. The interfaces of a device live in one database of the host root,
 *     TARNHOST_IFMGR_URI, so every process of the device sees the same
 *     interfaces.  Writers are tools and tests; libtarn only reads through
 *     the platform calls.
 *
 *  2. An interface is known by its ifindex (never 0) and by its IOD; both
 *     are unique in a device.  Its name and short name hold at most
 *     TARNHOST_IF_NAME_MAX characters.  A port-channel member names its
 *     port-channel by ifindex (0: none).
 *
 *  3. Statuses are the platform's 32-bit codes; 0 is success.
 *     KVS_ERR_INVALID is returned for a null or malformed interface (null or
 *     empty name, name too long, ifindex 0).
 */
#ifndef TARNHOST_TARNHOST_IFMGR_H
#define TARNHOST_TARNHOST_IFMGR_H

#include <stdint.h>

#include "host/tarnhost.h"

#ifdef __cplusplus
extern "C" {
#endif

#define TARNHOST_IFMGR_URI "volatile:/tarnhost/ifmgr"
#define TARNHOST_IF_NAME_MAX 32u

/* bond_get_pc_for_port given a null record. */
#define TARNHOST_BOND_ERR_INVALID 0x40510002u

typedef struct tarnhost_if {
    uint32_t ifindex;
    uint32_t iod;
    const char *name;
    const char *short_name;  /* null or empty: the name */
    uint32_t mgmt;           /* non-zero: the management Ethernet interface */
    uint32_t pc_ifindex;     /* the port-channel's ifindex, 0 when none */
} tarnhost_if_t;

/* Adds or replaces an interface inside a write transaction begun on
 * TARNHOST_IFMGR_URI.  The IOD index entry of a replaced interface is not
 * looked up (the transaction cannot read): give an interface a new IOD only
 * in a transaction that cleared the database first. */
uint32_t tarnhost_ifmgr_txn_put(tarnhost_kvs_txn_t *txn,
                                const tarnhost_if_t *ifc);
/* Adds or replaces one interface in a transaction of its own; a replaced
 * interface's old IOD stops naming it. */
uint32_t tarnhost_ifmgr_put(const tarnhost_if_t *ifc);
/* Forgets every interface. */
uint32_t tarnhost_ifmgr_clear(void);

#ifdef __cplusplus
}
#endif

#endif /* TARNHOST_TARNHOST_IFMGR_H */
