// The 40-byte keys of the Gyre database.  A maker zeroes the whole key,
// then fills its fields in host byte order.

#include <string.h>

#include "gyre/internal.h"
#include "platform/kpipe.h"

namespace {

enum : uint32_t {
    kKeyTpgFtag = 4,
    kKeyVlanTpg = 5,
    kKeyFtagTpg = 6,
};

// Graph 1 is the unicast graph.
constexpr uint16_t kUnicastGraph = 1;

void start(uint8_t *key, uint32_t type)
{
    memset(key, 0, GYRE_KEY_SIZE);
    memcpy(key, &type, sizeof type);
}

}  // namespace

extern "C" {

TARN_API void gyre_make_tpg_ftag_key_new(uint8_t *key, uint32_t tpg, uint8_t flags,
                                         uint16_t graph)
{
    if (key == nullptr)
        return;
    start(key, kKeyTpgFtag);
    memcpy(key + 4, &tpg, sizeof tpg);
    memcpy(key + 8, &graph, sizeof graph);
    key[10] = flags;
}

TARN_API void gyre_make_tpg_ftag_key(uint8_t *key, uint32_t tpg, uint16_t graph)
{
    gyre_make_tpg_ftag_key_new(key, tpg,
                               graph == kUnicastGraph ? GYRE_FTAG_FLAG_UNICAST
                                                      : GYRE_FTAG_FLAG_MULTICAST,
                               graph);
}

TARN_API void gyre_make_vlan_tpg_key(uint8_t *key, uint32_t vlan)
{
    if (key == nullptr)
        return;
    start(key, kKeyVlanTpg);
    memcpy(key + 4, &vlan, sizeof vlan);
}

TARN_API void gyre_make_ftag_tpg_key(uint8_t *key, uint16_t ftag)
{
    if (key == nullptr)
        return;
    start(key, kKeyFtagTpg);
    memcpy(key + 4, &ftag, sizeof ftag);
}

TARN_API void gyre_make_if_vlans_key(uint8_t *key, uint32_t ifindex, uint32_t type)
{
    if (key == nullptr)
        return;
    start(key, type);
    memcpy(key + 4, &ifindex, sizeof ifindex);
}

TARN_API void gyre_make_tpg_vlans_key(uint8_t *key, const char *name, uint32_t type)
{
    if (key == nullptr)
        return;
    start(key, type);
    if (name != nullptr)
        kpipe_strcpy(reinterpret_cast<char *>(key + 4), name, TARN_NAME_SIZE);
}

}  // extern "C"
