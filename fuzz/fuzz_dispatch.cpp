// tarn_dispatch over arbitrary messages: the first two bytes choose the
// opcode (the Tarn and Gyre notifications 51205..51226 and a few others),
// the rest is the payload.  The process is registered and its Gyre cache is
// on, over a small device loaded once into a temporary host root.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "gyre/internal.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"

namespace {

const uint32_t kOthers[] = {0, 1, 51201, 51204, 51216, 51222, 51227, 65535};
uint32_t g_handle = BUS_HANDLE_NONE;

uint32_t opcode_of(const uint8_t *data, size_t size)
{
    const uint16_t pick = size >= 2 ? static_cast<uint16_t>(data[0] | (data[1] << 8)) : 0;
    const uint32_t span = 51226 - 51205 + 1;
    const uint32_t choice = pick % (span + sizeof kOthers / sizeof kOthers[0]);
    return choice < span ? 51205 + choice : kOthers[choice - span];
}

void put(const char *uri, const void *key, uint32_t klen, const void *value, uint32_t vlen)
{
    if (tarnhost_kvs_put(uri, key, klen, value, vlen) != 0)
        abort();
}

// Topologies 1..4 with a few VLANs and ftags each.
void load_device()
{
    tarnhost_root_prepare();
    if (tarnhost_device_up(nullptr) != 0)
        abort();
    const char *tarn_uri = "volatile:/tarnhost/running/tarn_global_kvs";
    const char *gyre_uri = "volatile:/tarnhost/running/gyre_kvs_info";
    uint8_t cell_key[5] = {0x1C, 0, 0, 0, 0};
    uint8_t cell[528] = {0};
    cell[521] = 1;
    cell[525] = 1;
    cell[527] = 1;
    put("volatile:/dev/shm/cell_mgr_kvs", cell_key, 5, cell, sizeof cell);
    for (uint32_t t = 1; t <= 4; ++t) {
        const uint32_t stored = t | GYRE_TPG_STORED_BITS;
        uint8_t key[48] = {0};
        key[3] = 4;
        key[4] = static_cast<uint8_t>(stored >> 24);
        key[7] = static_cast<uint8_t>(stored);
        tarn_table_info_t ti;
        memset(&ti, 0, sizeof ti);
        ti.tpg_id = stored;
        snprintf(ti.name, sizeof ti.name, "%u", t);
        void *buf = nullptr;
        uint32_t len = 0;
        if (tarn_table_info_to_tlv(&ti, &buf, &len, 0, nullptr, 0) != 0)
            abort();
        put(tarn_uri, key, 48, buf, len);
        free(buf);

        gyre_tpg_vlan_info_t tv;
        memset(&tv, 0, sizeof tv);
        tv.tpg_id = stored;
        snprintf(tv.name, sizeof tv.name, "%u", t);
        tv.vlans.len = GYRE_VLAN_BMP_BYTES;
        tv.vlans.bits[t] = 0xF0;  // VLANs 8t..8t+3
        buf = nullptr;
        if (gyre_tpg_vlan_info_to_tlv(&tv, &buf, &len, 0, nullptr, 0) != 0)
            abort();
        uint8_t gkey[40] = {0};
        uint32_t type = 1;
        memcpy(gkey, &type, 4);
        memcpy(gkey + 4, tv.name, strlen(tv.name));
        put(gyre_uri, gkey, 40, buf, len);
        free(buf);

        for (uint16_t f = static_cast<uint16_t>(t * 10); f < t * 10 + 3; ++f) {
            const uint16_t graph = static_cast<uint16_t>(f - t * 10 + 1);
            uint8_t fkey[40] = {0};
            type = 4;
            memcpy(fkey, &type, 4);
            memcpy(fkey + 4, &stored, 4);
            memcpy(fkey + 8, &graph, 2);
            fkey[10] = graph == 1 ? 0x10 : 0x02;
            uint8_t raw[8] = {0};
            memcpy(raw, &f, 2);
            put(gyre_uri, fkey, 40, raw, sizeof raw);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    char tmpl[] = "/tmp/tarnfuzz-dispatch.XXXXXX";
    const char *root = mkdtemp(tmpl);
    if (root == nullptr)
        abort();
    setenv("TARNHOST_ROOT", root, 1);
    load_device();
    if (tarn_api_init() != 1)
        abort();
    g_handle = bus_bind(4, -1, nullptr, "fuzz_dispatch");
    if (g_handle == BUS_HANDLE_NONE || tarn_register(g_handle) != 1)
        abort();
    gyre_cache_attr_t attr{g_handle};
    if (gyre_enable_cache_mode(&attr) != 1 || tarn_track_as_format() != 1)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const uint32_t opcode = opcode_of(data, size);
    const uint8_t *payload = size > 2 ? data + 2 : nullptr;
    const uint32_t len = size > 2 ? static_cast<uint32_t>(size - 2) : 0;
    bus_msg_t *msg = tarnhost_bus_msg_new(opcode, payload, len);
    if (msg == nullptr)
        return 0;
    // 1: the library applied the message and released it.
    if (tarn_dispatch(msg) != 1)
        bus_drop(g_handle, msg);
    // A flush (kind 3) leaves the flag on without a cache: turn it off and
    // on again so that the next input meets a full cache.
    if (gyre_cache == nullptr) {
        gyre_disable_cache_mode();
        gyre_cache_attr_t attr{g_handle};
        gyre_enable_cache_mode(&attr);
    }
    // The dump's replies have no sender to go back to: nothing to drain.
    return 0;
}
