/*
 * host/tarnhost_bus_opcodes.h - the names of the bus opcodes that libtarn
 * sends or receives, and of the host's own inspection request: one table,
 * which bus_opc_name_get (platform/bus.h) and the tools print from and
 * read names back with.
 */
#ifndef TARNHOST_TARNHOST_BUS_OPCODES_H
#define TARNHOST_TARNHOST_BUS_OPCODES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The name of `opcode` ("TARN_ATTR_CHANGE"), or null for an opcode without
 * one. */
const char *tarnhost_bus_opcode_name(uint32_t opcode);

/* Reads an opcode as a name of the table (any letter case) or as a
 * decimal number of at most 10 digits (0x... hexadecimal); 0 with *opcode
 * set, or EINVAL for anything else.  A number need not have a name. */
int tarnhost_bus_opcode_parse(const char *text, uint32_t *opcode);

/* The opcodes that have a name, in ascending order: their number, and up
 * to `max` of them written to `out` (which may be null when `max` is 0). */
size_t tarnhost_bus_named_opcodes(uint32_t *out, size_t max);

#ifdef __cplusplus
}
#endif

#endif
