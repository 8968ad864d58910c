// Shared helpers of the Gyre client tests: a fixture with a client bus
// handle and a service handle, message builders for the Gyre notifications,
// bitmaps, and random fabrics described as JSON.
#ifndef TARN_TESTS_TEST_GYRE_SUPPORT_H
#define TARN_TESTS_TEST_GYRE_SUPPORT_H

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "core/state.h"
#include "gyre/internal.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/alloctrack.h"
#include "platform/bus.h"
#include "platform/kvs.h"
#include "support/device.h"
#include "support/fixture.h"
#include "support/library.h"

namespace gyretest {

using Bytes = std::vector<uint8_t>;
using Set = std::set<uint32_t>;

constexpr uint32_t kClientSap = 4242;
constexpr uint32_t kAttrChange = 51226;

// ---- bitmaps --------------------------------------------------------------------

inline void put_bit(uint8_t *bits, uint32_t i) { bits[i / 8] |= static_cast<uint8_t>(0x80u >> (i % 8)); }
inline bool has_bit(const uint8_t *bits, uint32_t i) { return (bits[i / 8] & (0x80u >> (i % 8))) != 0; }

inline gyre_vlan_bmp_t vlan_bmp(const Set &s, uint32_t len = GYRE_VLAN_BMP_BYTES)
{
    gyre_vlan_bmp_t b;
    memset(&b, 0, sizeof b);
    b.len = len;
    for (uint32_t v : s)
        put_bit(b.bits, v);
    return b;
}

inline gyre_ftag_bmp_t ftag_bmp(const Set &s, uint32_t len = GYRE_FTAG_BMP_BYTES)
{
    gyre_ftag_bmp_t b;
    memset(&b, 0, sizeof b);
    b.len = len;
    for (uint32_t v : s)
        put_bit(b.bits, v);
    return b;
}

inline Set bits_of(const uint8_t *bits, uint32_t nbits)
{
    Set s;
    for (uint32_t i = 0; i < nbits; ++i)
        if (has_bit(bits, i))
            s.insert(i);
    return s;
}

inline Set parse_ranges(const std::string &text)
{
    Set s;
    size_t i = 0;
    while (i < text.size()) {
        char *end = nullptr;
        unsigned long a = strtoul(text.c_str() + i, &end, 10);
        unsigned long b = a;
        i = static_cast<size_t>(end - text.c_str());
        if (i < text.size() && text[i] == '-') {
            b = strtoul(text.c_str() + i + 1, &end, 10);
            i = static_cast<size_t>(end - text.c_str());
        }
        for (unsigned long v = a; v <= b; ++v)
            s.insert(static_cast<uint32_t>(v));
        if (i < text.size() && text[i] == ',')
            ++i;
    }
    return s;
}

// "a-b,c" for the device descriptions.
inline std::string ranges_text(const Set &s)
{
    std::string out;
    auto it = s.begin();
    while (it != s.end()) {
        uint32_t a = *it, b = a;
        for (++it; it != s.end() && *it == b + 1; ++it)
            b = *it;
        if (!out.empty())
            out += ",";
        out += std::to_string(a);
        if (b != a)
            out += "-" + std::to_string(b);
    }
    return out;
}

// ---- expected lines ---------------------------------------------------------------

inline std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
inline std::string fmt(const char *f, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

// The rule and the star line of the cache tables.
const std::string kRule(80, '-');
const std::string kStars(57, '*');

// ---- message payloads --------------------------------------------------------------

inline void put32(Bytes &b, size_t at, uint32_t v) { memcpy(&b[at], &v, 4); }
inline void put16(Bytes &b, size_t at, uint16_t v) { memcpy(&b[at], &v, 2); }

// 51208 / 51210: the topology at 20.
inline Bytes tpg_payload(uint32_t tpg)
{
    Bytes p(24, 0);
    put32(p, 20, tpg);
    return p;
}

// 51214: count at 20, then records of 556 bytes.
inline Bytes vlans_payload(const std::vector<std::pair<uint32_t, Set>> &records)
{
    Bytes p(24 + 556 * records.size(), 0);
    put32(p, 20, static_cast<uint32_t>(records.size()));
    for (size_t i = 0; i < records.size(); ++i) {
        const size_t r = 24 + 556 * i;
        put32(p, r, records[i].first);
        const std::string name = std::to_string(records[i].first);
        memcpy(&p[r + 4], name.c_str(), name.size());
        put32(p, r + 40, 512);
        for (uint32_t v : records[i].second)
            put_bit(&p[r + 44], v);
    }
    return p;
}

struct FtagEntry {
    uint32_t reason;
    uint32_t tpg;
    uint16_t graph;
    uint16_t ftag;
    uint32_t flags;
};

// 51215: count at 0, then entries of 1048 bytes.
inline Bytes ftags_payload(const std::vector<FtagEntry> &entries)
{
    Bytes p(4 + 1048 * entries.size(), 0);
    put32(p, 0, static_cast<uint32_t>(entries.size()));
    for (size_t i = 0; i < entries.size(); ++i) {
        const size_t e = 4 + 1048 * i;
        put32(p, e, entries[i].reason);
        put32(p, e + 4, entries[i].tpg);
        put16(p, e + 8, entries[i].graph);
        put16(p, e + 10, entries[i].ftag);
        put32(p, e + 12, entries[i].flags);
    }
    return p;
}

// TARN_ATTR_CHANGE of `kind`; kind 2 carries the topology at 28 and the ftag
// bitmap's bytes at 36.
inline Bytes attr_payload(uint16_t kind, uint32_t tpg = 0, const Set &ftags = {})
{
    Bytes p(164, 0);
    put16(p, 2, kind);
    put32(p, 20, 28);
    put32(p, 28, tpg);
    for (uint32_t f : ftags)
        put_bit(&p[36], f);
    return p;
}

// ---- the fixture -------------------------------------------------------------------

class GyreTest : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        debug_off();
        tarntest::reset_library();
        client_ = bus_bind(4, static_cast<int32_t>(kClientSap), nullptr, "gyre test client");
        ASSERT_NE(BUS_HANDLE_NONE, client_);
        service_ = bus_bind(4, -1, nullptr, "gyre test service");
        ASSERT_NE(BUS_HANDLE_NONE, service_);
    }
    void TearDown() override
    {
        debug_off();
        tarntest::reset_library();
        tarnhost_cell_reset();
        bus_unbind(client_);
        bus_unbind(service_);
        HostTest::TearDown();
    }
    void load(const std::string &json)
    {
        tarntest::load_device_json(json);
        ASSERT_EQ(1u, tarn_api_init());
        tarnhost_capture_clear();
    }
    void load_fixture(const std::string &name)
    {
        tarntest::load_device_file(tarntest::fixture(name));
        ASSERT_EQ(1u, tarn_api_init());
        tarnhost_capture_clear();
    }
    static void debug_on()
    {
        static int handle;
        gyre_api_debug(&handle, 1);
    }
    static void debug_off()
    {
        static int handle;
        tarn_api_debug(&handle, 0);
        gyre_api_debug(&handle, 0);
    }
    uint32_t enable_cache()
    {
        gyre_cache_attr_t attr{client_};
        return gyre_enable_cache_mode(&attr);
    }
    // A message of `opcode` as the client's loop receives it: sent by the
    // service handle to the client's access point.
    bus_msg_t *deliver(uint32_t opcode, const Bytes &payload)
    {
        bus_send_opts_t opts;
        memset(&opts, 0, sizeof opts);
        opts.w[0] = 1;
        EXPECT_EQ(0, bus_send(service_, BUS_NODE_LOCAL, kClientSap, opcode,
                              payload.empty() ? nullptr : payload.data(),
                              static_cast<uint32_t>(payload.size()), nullptr, nullptr, &opts));
        bus_msg_t *msg = tarnhost_bus_recv_ms(client_, 2000);
        EXPECT_NE(nullptr, msg);
        return msg;
    }
    // Hands a Gyre notification to gyre_dispatch_internal and releases it.
    int32_t apply(uint32_t opcode, const Bytes &payload)
    {
        bus_msg_t *msg = deliver(opcode, payload);
        if (msg == nullptr)
            return -2;
        const int32_t rc = gyre_dispatch_internal(msg);
        bus_drop(client_, msg);
        return rc;
    }
    // Hands an attribute change to tarn_dispatch, which disposes of it.
    int32_t attr(const Bytes &payload)
    {
        bus_msg_t *msg = deliver(kAttrChange, payload);
        if (msg == nullptr)
            return -2;
        return tarn_dispatch(msg);
    }
    static std::string dbg(const std::string &text)
    {
        return "libtarn [" + std::to_string(static_cast<int>(getpid())) + "] tarn " + text;
    }
    static std::vector<std::string> debug_lines() { return tarntest::captured(TARNHOST_CH_DEBUG); }
    static std::vector<std::string> syslog_lines() { return tarntest::captured(TARNHOST_CH_SYSLOG); }
    static bool has_line(const std::vector<std::string> &lines, const std::string &l)
    {
        return std::find(lines.begin(), lines.end(), l) != lines.end();
    }
    static size_t count_line(const std::vector<std::string> &lines, const std::string &l)
    {
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), l));
    }
    static std::string kvs_read_line(const std::string &what, uint32_t status,
                                     const std::string &text, const std::string &fn)
    {
        char code[16];
        snprintf(code, sizeof code, "0x%08x", status);
        return "<<%TARN-3-TARN_KVS_READ>> (1) Error reading " + what + ", errno: " + code +
               " (" + text + ") in " + fn + "(), pid " + tarntest::pid_text();
    }
    static std::string invalid_arg_line(const std::string &what, const std::string &fn)
    {
        return "<<%TARN-3-TARN_LIB_INVALID_ARG>> invalid arguments - " + what + " - in " + fn +
               "()";
    }
    static std::string cell_line(const std::string &what, const std::string &fn)
    {
        return "<<%TARN-3-TARN_CELL>> Error returned from " + what + " in " + fn + "()";
    }

    uint32_t client_ = BUS_HANDLE_NONE;
    uint32_t service_ = BUS_HANDLE_NONE;
};

// ---- the cache seen from outside ------------------------------------------------------

struct NodeView {
    Set ftags;
    Set vlans;
};

// Every node of the tree by id (a duplicate id shows as a second entry).
inline std::multimap<uint32_t, NodeView> cache_nodes()
{
    std::multimap<uint32_t, NodeView> out;
    if (gyre_cache == nullptr)
        return out;
    for (auto *n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_first_node(&gyre_cache->tree));
         n != nullptr;
         n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_next_node(&gyre_cache->tree, n)))
        out.emplace(n->tpg_id, NodeView{bits_of(n->ftags.bits, GYRE_FTAG_COUNT),
                                        bits_of(n->vlans.bits, GYRE_VLAN_COUNT)});
    return out;
}

// The two invariants: a set bit's owner is its node, and no owner without
// its bit (and every owner is a node of the tree).  Empty when they hold.
inline std::string invariant_violation()
{
    if (gyre_cache == nullptr)
        return "";
    std::set<const gyre_cache_tpg_node_t *> nodes;
    for (auto *n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_first_node(&gyre_cache->tree));
         n != nullptr;
         n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_next_node(&gyre_cache->tree, n))) {
        nodes.insert(n);
        for (uint32_t f = 0; f < GYRE_FTAG_COUNT; ++f)
            if (has_bit(n->ftags.bits, f) && gyre_cache->ftags[f].owner != n)
                return "tpg " + std::to_string(n->tpg_id) + " ftag " + std::to_string(f) +
                       " owned elsewhere";
        for (uint32_t v = 0; v < GYRE_VLAN_COUNT; ++v)
            if (has_bit(n->vlans.bits, v) && gyre_cache->vlans[v] != n)
                return "tpg " + std::to_string(n->tpg_id) + " vlan " + std::to_string(v) +
                       " owned elsewhere";
    }
    for (uint32_t f = 0; f < GYRE_FTAG_COUNT; ++f) {
        const gyre_cache_tpg_node_t *o = gyre_cache->ftags[f].owner;
        if (o != nullptr && (nodes.count(o) == 0 || !has_bit(o->ftags.bits, f)))
            return "ftag " + std::to_string(f) + " owner without its bit";
    }
    for (uint32_t v = 0; v < GYRE_VLAN_COUNT; ++v) {
        const gyre_cache_tpg_node_t *o = gyre_cache->vlans[v];
        if (o != nullptr && (nodes.count(o) == 0 || !has_bit(o->vlans.bits, v)))
            return "vlan " + std::to_string(v) + " owner without its bit";
    }
    return "";
}

// ---- random fabrics -------------------------------------------------------------------

struct Ftag {
    uint16_t ftag;
    uint16_t graph;
    uint8_t flags;
};

struct Topology {
    uint32_t id = 0;
    bool has_active = true;
    bool has_configured = false;
    Set active;
    Set configured;
    std::vector<Ftag> ftags;
};

struct Fabric {
    std::vector<Topology> topologies;

    std::string json() const
    {
        std::string j = "{\"topologies\": [";
        for (size_t i = 0; i < topologies.size(); ++i) {
            const Topology &t = topologies[i];
            if (i)
                j += ",";
            j += "{\"id\": " + std::to_string(t.id);
            if (t.has_active)
                j += ", \"active_vlans\": \"" + ranges_text(t.active) + "\"";
            if (t.has_configured)
                j += ", \"configured_vlans\": \"" + ranges_text(t.configured) + "\"";
            j += ", \"ftags\": [";
            for (size_t k = 0; k < t.ftags.size(); ++k) {
                if (k)
                    j += ",";
                j += "{\"ftag\": " + std::to_string(t.ftags[k].ftag) +
                     ", \"graph\": " + std::to_string(t.ftags[k].graph) +
                     ", \"flags\": " + std::to_string(t.ftags[k].flags) + "}";
            }
            j += "]}";
        }
        return j + "]}";
    }
    const Topology *find(uint32_t id) const
    {
        for (const Topology &t : topologies)
            if (t.id == id)
                return &t;
        return nullptr;
    }
    uint32_t vlan_owner(uint32_t vlan) const
    {
        for (const Topology &t : topologies)
            if (t.active.count(vlan))
                return t.id;
        return GYRE_TPG_NONE;
    }
    const Ftag *ftag(uint32_t f, uint32_t *owner) const
    {
        for (const Topology &t : topologies)
            for (const Ftag &x : t.ftags)
                if (x.ftag == f) {
                    *owner = t.id;
                    return &x;
                }
        *owner = GYRE_TPG_NONE;
        return nullptr;
    }
};

// `ntopo` topologies with distinct ids, each VLAN active in at most one of
// them, `nftag` distinct ftags spread over them with random graphs and flag
// bytes (distinct graph and flags within a topology).
inline Fabric random_fabric(std::mt19937 &rng, size_t ntopo, size_t nftag, double vlan_share,
                            uint32_t max_graph = 4)
{
    Fabric f;
    std::set<uint32_t> ids;
    std::uniform_int_distribution<uint32_t> small(1, 200), large(1, 0x3FFFFFFFu);
    while (ids.size() < ntopo)
        ids.insert((rng() % 4 == 0) ? large(rng) : small(rng));
    for (uint32_t id : ids) {
        Topology t;
        t.id = id;
        t.has_active = rng() % 8 != 0;
        t.has_configured = rng() % 2 == 0;
        f.topologies.push_back(t);
    }
    // Shuffle so that the description's order is not the id order.
    std::shuffle(f.topologies.begin(), f.topologies.end(), rng);
    if (!f.topologies.empty()) {
        std::uniform_real_distribution<double> u(0.0, 1.0);
        for (uint32_t v = 0; v < GYRE_VLAN_COUNT; ++v) {
            Topology &t = f.topologies[rng() % f.topologies.size()];
            if (u(rng) < vlan_share && t.has_active)
                t.active.insert(v);
            Topology &c = f.topologies[rng() % f.topologies.size()];
            if (u(rng) < vlan_share && c.has_configured)
                c.configured.insert(v);
        }
        std::vector<uint32_t> tags(GYRE_FTAG_COUNT);
        for (uint32_t i = 0; i < GYRE_FTAG_COUNT; ++i)
            tags[i] = i;
        std::shuffle(tags.begin(), tags.end(), rng);
        static const uint8_t kFlags[] = {0x02, 0x04, 0x06, 0x10, 0x12, 0x14, 0x16, 0x00};
        for (size_t i = 0; i < nftag && i < tags.size(); ++i) {
            Topology &t = f.topologies[rng() % f.topologies.size()];
            for (int attempt = 0; attempt < 50; ++attempt) {
                Ftag x;
                x.ftag = static_cast<uint16_t>(tags[i]);
                x.graph = static_cast<uint16_t>(rng() % (max_graph + 1));
                x.flags = (rng() % 4 == 0) ? static_cast<uint8_t>(rng() & 0xFF)
                                           : kFlags[rng() % sizeof kFlags];
                bool clash = false;
                for (const Ftag &y : t.ftags)
                    clash |= (y.graph == x.graph && y.flags == x.flags);
                if (!clash) {
                    t.ftags.push_back(x);
                    break;
                }
            }
        }
    }
    return f;
}

}  // namespace gyretest

#endif
