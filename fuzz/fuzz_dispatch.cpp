// tarn_dispatch over sequences of notifications.  Each input is a script:
// every step starts with a byte choosing a notification, built from a few
// bytes more (topology creations and deletions, VLAN updates whose records
// may name a topology twice, ftag entries of any reason, attribute changes
// of kind 2 naming any part of a topology's ftags, flushes, dump requests),
// or a raw message of any opcode with arbitrary payload.  Topology ids come
// from a small range so that steps meet the same nodes.  After every step no
// ftag-table or VLAN-table entry may point at a node that has left the tree.
// The process is registered and its Gyre cache is on, over a small device
// loaded once into a temporary host root; each input starts from a freshly
// built cache.

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "gyre/internal.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "tests/support/gyre_tables.h"

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

namespace {

// The script's bytes, read front to back; zeros once they run out.
struct Script {
    const uint8_t *p;
    size_t left;
    uint8_t byte()
    {
        if (left == 0)
            return 0;
        --left;
        return *p++;
    }
    uint16_t half() { return static_cast<uint16_t>(byte() | (byte() << 8)); }
};

using Bytes = std::vector<uint8_t>;

void put32(Bytes &b, size_t at, uint32_t v) { memcpy(&b[at], &v, 4); }
void put16(Bytes &b, size_t at, uint16_t v) { memcpy(&b[at], &v, 2); }
void put_bit(uint8_t *bits, uint32_t i) { bits[i / 8] |= static_cast<uint8_t>(0x80u >> (i % 8)); }

// Topologies 1..8 mostly (the device has 1..4), now and then any id.
uint32_t topology(Script &s)
{
    const uint8_t b = s.byte();
    return b < 0xF0 ? 1u + b % 8u : (b == 0xFF ? GYRE_TPG_NONE : b);
}

// Eight consecutive bits chosen by a base byte and a mask byte.
void eight_bits(Script &s, uint8_t *bits, uint32_t nbits)
{
    const uint32_t base = (s.byte() * 8u) % nbits;
    const uint8_t mask = s.byte();
    for (uint32_t i = 0; i < 8; ++i)
        if (mask & (1u << i))
            put_bit(bits, (base + i) % nbits);
}

Bytes topology_msg(Script &s)
{
    Bytes p(24, 0);
    put32(p, 20, topology(s));
    return p;
}

Bytes vlans_msg(Script &s)
{
    const uint32_t n = 1 + s.byte() % 4;
    Bytes p(24 + 556 * n, 0);
    put32(p, 20, n);
    for (uint32_t i = 0; i < n; ++i) {
        uint8_t *r = &p[24 + 556 * i];
        const uint32_t tpg = topology(s);
        memcpy(r, &tpg, 4);
        const uint32_t len = 512;
        memcpy(r + 40, &len, 4);
        eight_bits(s, r + 44, 4096);
    }
    return p;
}

Bytes ftags_msg(Script &s)
{
    const uint32_t n = 1 + s.byte() % 4;
    Bytes p(4 + 1048 * n, 0);
    put32(p, 0, n);
    for (uint32_t i = 0; i < n; ++i) {
        const size_t e = 4 + 1048 * i;
        put32(p, e, s.byte() % 5);
        put32(p, e + 4, topology(s));
        put16(p, e + 8, s.byte() % 4);
        put16(p, e + 10, static_cast<uint16_t>(s.half() % 1040));
        put32(p, e + 12, s.byte());
    }
    return p;
}

Bytes attr_msg(uint16_t kind, Script &s)
{
    Bytes p(164, 0);
    put16(p, 2, kind);
    put32(p, 20, 28);
    if (kind == 2) {
        put32(p, 28, topology(s));
        eight_bits(s, &p[36], 1024);
    } else if (kind == 1 || kind == 4) {
        put32(p, 24, s.byte() % 4);
    }
    return p;
}

void deliver(uint32_t opcode, const void *payload, uint32_t len)
{
    bus_msg_t *msg = tarnhost_bus_msg_new(opcode, payload, len);
    if (msg == nullptr)
        return;
    // 1: the library applied the message and released it.
    if (tarn_dispatch(msg) != 1)
        bus_drop(g_handle, msg);
}

void deliver(uint32_t opcode, const Bytes &p)
{
    deliver(opcode, p.data(), static_cast<uint32_t>(p.size()));
}

// A fresh cache built from the device.  A flush (kind 3) also leaves the
// flag on without a cache: the next steps then meet a full one again.
void rebuild()
{
    gyre_disable_cache_mode();
    gyre_cache_attr_t attr{g_handle};
    if (gyre_enable_cache_mode(&attr) != 1)
        abort();
}

void check(const char *after)
{
    const std::string bad = gyretest::dangling_entry();
    if (!bad.empty()) {
        fprintf(stderr, "after %s: %s\n", after, bad.c_str());
        abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    rebuild();
    Script s{data, size};
    for (int steps = 0; s.left > 0 && steps < 64; ++steps) {
        const uint8_t op = s.byte();
        const char *what = "a raw message";
        switch (op % 9) {
        case 0: what = "51208"; deliver(51208, topology_msg(s)); break;
        case 1: what = "51210"; deliver(51210, topology_msg(s)); break;
        case 2: what = "51214"; deliver(51214, vlans_msg(s)); break;
        case 3: what = "51215"; deliver(51215, ftags_msg(s)); break;
        case 4: what = "kind 2"; deliver(51226, attr_msg(2, s)); break;
        case 5: what = "kind 3"; deliver(51226, attr_msg(3, s)); break;
        case 6: what = "another kind"; deliver(51226, attr_msg(s.byte() % 8, s)); break;
        case 7: {
            // The cache read through its tables: pages and the debug print.
            what = "a dump page";
            uint32_t bytes = 0;
            free(gyre_cache_build_resp_info(1 + s.byte() % 2, &bytes));
            break;
        }
        default: {
            const uint32_t opcode = opcode_of(s.p, s.left);
            s.half();
            uint32_t len = s.half() % 4096u;
            if (len > s.left)
                len = static_cast<uint32_t>(s.left);
            deliver(opcode, len != 0 ? s.p : nullptr, len);
            s.p += len;
            s.left -= len;
            break;
        }
        }
        check(what);
        if (gyre_cache == nullptr)
            rebuild();
    }
    // The dump's replies have no sender to go back to: nothing to drain.
    return 0;
}
