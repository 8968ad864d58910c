// The names of the bus opcodes: the library's notifications, requests and
// notices, and the host's inspection request.  The Gyre notifications that
// no cache uses have no name of their own in the service's interface; they
// are named after their number (0xC809: GYRE_NOTIFY_C809) so that every
// opcode a client can meet prints as a word.

#include "host/tarnhost_bus_opcodes.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/tarnhost_client.h"
#include "platform/bus.h"

namespace {

struct Named {
    uint32_t opcode;
    const char *name;
};

// Ascending by opcode.
constexpr Named kNames[] = {
    {BUS_OPC_TARN_REGISTER, "TARN_REGISTER"},
    {51205, "GYRE_NOTIFY_C805"},
    {BUS_OPC_GYRE_TPG_CREATE, "GYRE_TPG_CREATE"},
    {51209, "GYRE_NOTIFY_C809"},
    {BUS_OPC_GYRE_TPG_DELETE, "GYRE_TPG_DELETE"},
    {51211, "GYRE_NOTIFY_C80B"},
    {51212, "GYRE_NOTIFY_C80C"},
    {51213, "GYRE_NOTIFY_C80D"},
    {BUS_OPC_GYRE_TPG_VLANS, "GYRE_TPG_VLANS"},
    {BUS_OPC_GYRE_FTAG_UPDATE, "GYRE_FTAG_UPDATE"},
    {BUS_OPC_TARN_PROTOCOL_CONFIG_CHANGE, "TARN_PROTOCOL_CONFIG_CHANGE"},
    {BUS_OPC_GYRE_FTAG_NOTICE, "GYRE_FTAG_NOTICE"},
    {BUS_OPC_TARN_ATTR_CHANGE, "TARN_ATTR_CHANGE"},
    {TARNHOST_OPC_CLIENT_INSPECT, "TARNHOST_CLIENT_INSPECT"},
};

bool parse_number(const char *text, uint32_t *out)
{
    int base = 10;
    if (text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text += 2;
    }
    const size_t n = strlen(text);
    if (n == 0 || n > (base == 10 ? 10u : 8u))
        return false;
    for (const char *c = text; *c; ++c) {
        const bool digit = *c >= '0' && *c <= '9';
        const bool hex = (*c >= 'a' && *c <= 'f') || (*c >= 'A' && *c <= 'F');
        if (!digit && !(base == 16 && hex))
            return false;
    }
    const unsigned long long v = strtoull(text, nullptr, base);
    if (v > 0xFFFFFFFFull)
        return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

}  // namespace

extern "C" const char *tarnhost_bus_opcode_name(uint32_t opcode)
{
    for (const Named &n : kNames)
        if (n.opcode == opcode)
            return n.name;
    return nullptr;
}

extern "C" int tarnhost_bus_opcode_parse(const char *text, uint32_t *opcode)
{
    if (text == nullptr || opcode == nullptr)
        return EINVAL;
    for (const Named &n : kNames)
        if (strcasecmp(n.name, text) == 0) {
            *opcode = n.opcode;
            return 0;
        }
    return parse_number(text, opcode) ? 0 : EINVAL;
}

extern "C" size_t tarnhost_bus_named_opcodes(uint32_t *out, size_t max)
{
    const size_t count = sizeof kNames / sizeof kNames[0];
    for (size_t i = 0; out != nullptr && i < count && i < max; ++i)
        out[i] = kNames[i].opcode;
    return count;
}

extern "C" const char *bus_opc_name_get(uint32_t opcode)
{
    if (const char *name = tarnhost_bus_opcode_name(opcode))
        return name;
    static thread_local char buf[12];
    snprintf(buf, sizeof buf, "%u", opcode);
    return buf;
}
