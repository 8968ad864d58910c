/*
 * host/tarnhost_bus_inventory.h - what is on the bus of the device now:
 * every handle with its owner process and whether it is alive, every access
 * point, every subscription, and what the kernel knows of each queue.
 *
 * A handle is alive while some process has a socket bound at its file.  A
 * handle file, access point or subscription record that no live socket
 * backs is a dead entry: litter of a process that ended without unbinding,
 * harmless (ids are not reused) and removed by the next publish or bind
 * that meets it.
 *
 * An access point is the file <root>/bus/ap/<sap> holding the id of its
 * handle; it is alive while that handle is.
 *
 * Every listing writes up to `max` entries to `out` and returns how many
 * there are; errno is 0 when the directory was read to its end (or does not
 * exist) and says why otherwise.
 */
#ifndef TARNHOST_TARNHOST_BUS_INVENTORY_H
#define TARNHOST_TARNHOST_BUS_INVENTORY_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define TARNHOST_BUS_COMM_SIZE 32

typedef struct tarnhost_bus_handle_info {
    uint32_t handle;
    int32_t sap;          /* the access point leading to it; -1 for none   */
    int32_t alive;        /* 1 a socket is bound at its file, 0 dead       */
    int32_t pid;          /* the process holding the socket; -1 unknown    */
    char comm[TARNHOST_BUS_COMM_SIZE]; /* that process's name; "" unknown  */
    int64_t queue_head_bytes; /* size of the next datagram waiting in its
                                 queue, 0 when none waits; -1 unknown   */
    int64_t drops;        /* messages the bus could not deliver to it (its
                             queue stayed full), not yet taken by its
                             holder (tarnhost_bus_missed); -1 unknown     */
} tarnhost_bus_handle_info_t;

typedef struct tarnhost_bus_ap_info {
    int32_t sap;
    uint32_t handle;      /* the handle it leads to; BUS_HANDLE_NONE when the
                             link is not one the bus writes                 */
    int32_t alive;        /* 1 the handle behind it is alive               */
} tarnhost_bus_ap_info_t;

/* The handle files of the bus, in ascending handle order. */
size_t tarnhost_bus_handles(tarnhost_bus_handle_info_t *out, size_t max);

/* The access points, in ascending order. */
size_t tarnhost_bus_access_points(tarnhost_bus_ap_info_t *out, size_t max);

/* The opcodes that have a subscription record directory, ascending (some
 * may hold no record). */
size_t tarnhost_bus_opcodes(uint32_t *out, size_t max);

/* 1 when a socket is bound at the file of `handle` now. */
int tarnhost_bus_handle_alive(uint32_t handle);

#ifdef __cplusplus
}
#endif

#endif /* TARNHOST_TARNHOST_BUS_INVENTORY_H */
