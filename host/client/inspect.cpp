// The inspection request: the document of answers, its wire forms and the
// requester's side.

#include "host/client/inspect.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/tarnhost_bus.h"
#include "host/tarnhost_client.h"
#include "platform/bus.h"

namespace tarnhost_client {
namespace {

constexpr uint32_t kRequestMagic = 0x50534E49u;  // "INSP" in memory
constexpr uint32_t kAnswerMagic = 0x534E4149u;   // "IANS" in memory
constexpr uint32_t kVersion = 1;
constexpr uint32_t kVlans = 4096;
constexpr uint32_t kFtags = 1024;
// Bounds a request can name: every topology id and every graph id.
constexpr uint32_t kMaxTopologies = 4096;
constexpr uint32_t kMaxGraphs = 256;

void put32(std::vector<uint8_t> *out, uint32_t v)
{
    const uint8_t *p = reinterpret_cast<const uint8_t *>(&v);
    out->insert(out->end(), p, p + 4);
}

uint32_t get32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, 4);
    return v;
}

std::string program_name()
{
    char buf[64] = "";
    int fd = open("/proc/self/comm", O_RDONLY | O_CLOEXEC);
    if (fd >= 0) {
        ssize_t n = read(fd, buf, sizeof buf - 1);
        close(fd);
        buf[n > 0 ? n : 0] = '\0';
        if (char *nl = strchr(buf, '\n'))
            *nl = '\0';
    }
    return buf;
}

// "1-3,7"; "--" for none.
std::string ranges(const uint8_t *bits, uint32_t count)
{
    std::string out;
    for (uint32_t i = 0; i < count;) {
        if ((bits[i / 8] & (0x80u >> (i % 8))) == 0) {
            ++i;
            continue;
        }
        uint32_t hi = i;
        while (hi + 1 < count && (bits[(hi + 1) / 8] & (0x80u >> ((hi + 1) % 8))) != 0)
            ++hi;
        if (!out.empty())
            out += ",";
        out += std::to_string(i);
        if (hi != i)
            out += "-" + std::to_string(hi);
        i = hi + 1;
    }
    return out.empty() ? "--" : out;
}

gyre_vlan_bmp_t empty_vlans()
{
    gyre_vlan_bmp_t v;
    memset(&v, 0, sizeof v);
    v.len = GYRE_VLAN_BMP_BYTES;
    return v;
}

}  // namespace

std::string answers(const Question &q, int64_t enabled)
{
    using json = nlohmann::json;
    json doc;
    doc["pid"] = static_cast<int64_t>(getpid());
    doc["program"] = program_name();
    doc["enabled"] = enabled;
    doc["tarn_cache_mode"] = tarn_cache_is_enabled() != 0;
    doc["as_format_tracked"] = (tarn_cache.tracked_mask & 1u) != 0;
    doc["as_format"] = tarn_get_as_format();

    std::set<uint32_t> tpgs(q.topologies.begin(), q.topologies.end());
    json vlan_owner = json::object(), ftag_owner = json::object();
    json vlan_unicast = json::object(), vlan_graph = json::object();
    json ftag_vlans = json::object();
    for (uint32_t v = 0; v < kVlans; ++v) {
        const uint32_t t = gyre_get_vlan_l2_tpg(v);
        if (t == GYRE_TPG_NONE)
            continue;
        const std::string key = std::to_string(v);
        vlan_owner[key] = t;
        tpgs.insert(t);
        uint16_t f = 0;
        if (gyre_get_unicast_ftag_by_vlan(v, &f))
            vlan_unicast[key] = f;
        json per_graph = json::object();
        for (uint16_t g : q.graphs)
            if (gyre_get_vlan_ftag(v, g, &f))
                per_graph[std::to_string(g)] = f;
        vlan_graph[key] = per_graph;
    }
    for (uint32_t f = 0; f < kFtags; ++f) {
        const uint32_t t = gyre_get_ftag_l2_tpg(static_cast<uint16_t>(f));
        if (t == GYRE_TPG_NONE)
            continue;
        const std::string key = std::to_string(f);
        ftag_owner[key] = t;
        tpgs.insert(t);
        gyre_vlan_bmp_t v = empty_vlans();
        if (gyre_get_ftag_vlans(static_cast<uint16_t>(f), &v))
            ftag_vlans[key] = ranges(v.bits, kVlans);
    }
    json topologies = json::object();
    for (uint32_t t : tpgs) {
        json one = json::object();
        gyre_vlan_bmp_t v = empty_vlans();
        if (gyre_get_l2_tpg_act_vlans(t, &v))
            one["vlans"] = ranges(v.bits, kVlans);
        char name[TARN_NAME_SIZE];
        snprintf(name, sizeof name, "%u", t);
        v = empty_vlans();
        if (gyre_get_l2_tpg_cfg_vlans_by_name(name, &v))
            one["cfg_vlans"] = ranges(v.bits, kVlans);
        uint16_t f = 0;
        if (gyre_get_l2_tpg_unicast_ftag(t, &f))
            one["unicast_ftag"] = f;
        json per_graph = json::object();
        for (uint16_t g : q.graphs)
            if (gyre_get_l2_tpg_ftag(t, g, &f))
                per_graph[std::to_string(g)] = f;
        one["graph_ftag"] = per_graph;
        topologies[std::to_string(t)] = one;
    }
    doc["vlan_owner"] = vlan_owner;
    doc["ftag_owner"] = ftag_owner;
    doc["vlan_unicast_ftag"] = vlan_unicast;
    doc["vlan_graph_ftag"] = vlan_graph;
    doc["ftag_vlans"] = ftag_vlans;
    doc["topologies"] = topologies;
    // The program's name is the kernel's bytes, not always UTF-8.
    return doc.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::vector<uint8_t> encode_request(const Question &q, uint32_t nonce,
                                    uint32_t offset)
{
    std::vector<uint8_t> out;
    put32(&out, kRequestMagic);
    put32(&out, kVersion);
    put32(&out, nonce);
    put32(&out, offset);
    put32(&out, static_cast<uint32_t>(q.topologies.size()));
    put32(&out, static_cast<uint32_t>(q.graphs.size()));
    for (uint32_t t : q.topologies)
        put32(&out, t);
    for (uint16_t g : q.graphs) {
        const uint8_t *p = reinterpret_cast<const uint8_t *>(&g);
        out.insert(out.end(), p, p + 2);
    }
    return out;
}

bool decode_request(const uint8_t *p, uint32_t len, Question *q,
                    uint32_t *nonce, uint32_t *offset)
{
    if (p == nullptr || len < 24 || get32(p) != kRequestMagic ||
        get32(p + 4) != kVersion)
        return false;
    const uint32_t nt = get32(p + 16), ng = get32(p + 20);
    if (nt > kMaxTopologies || ng > kMaxGraphs ||
        len - 24 != nt * 4 + ng * 2)
        return false;
    *nonce = get32(p + 8);
    *offset = get32(p + 12);
    q->topologies.clear();
    q->graphs.clear();
    for (uint32_t i = 0; i < nt; ++i)
        q->topologies.push_back(get32(p + 24 + 4 * i));
    for (uint32_t i = 0; i < ng; ++i) {
        uint16_t g;
        memcpy(&g, p + 24 + 4 * nt + 2 * i, 2);
        q->graphs.push_back(g);
    }
    return true;
}

std::vector<uint8_t> encode_answer(const std::string &doc, uint32_t nonce,
                                   uint32_t offset)
{
    const uint32_t total = static_cast<uint32_t>(doc.size());
    if (offset > total)
        offset = total;
    uint32_t chunk = total - offset;
    if (chunk > kChunk)
        chunk = kChunk;
    std::vector<uint8_t> out;
    put32(&out, kAnswerMagic);
    put32(&out, kVersion);
    put32(&out, nonce);
    put32(&out, total);
    put32(&out, offset);
    put32(&out, chunk);
    out.insert(out.end(), doc.begin() + offset, doc.begin() + offset + chunk);
    return out;
}

bool decode_answer(const uint8_t *p, uint32_t len, uint32_t *nonce,
                   uint32_t *total, uint32_t *offset, std::string *chunk)
{
    if (p == nullptr || len < 24 || get32(p) != kAnswerMagic ||
        get32(p + 4) != kVersion)
        return false;
    const uint32_t n = get32(p + 20);
    if (n != len - 24)
        return false;
    *nonce = get32(p + 8);
    *total = get32(p + 12);
    *offset = get32(p + 16);
    if (*offset > *total || n > *total - *offset)
        return false;
    chunk->assign(reinterpret_cast<const char *>(p + 24), n);
    return true;
}

std::string ask(uint32_t requester, int32_t sap, const Question &q,
                uint32_t timeout_ms, std::string *doc)
{
    doc->clear();
    const uint32_t nonce = static_cast<uint32_t>(getpid()) ^ (requester << 16);
    bus_send_opts_t opts;
    memset(&opts, 0, sizeof opts);
    opts.w[0] = 1;
    uint32_t total = 0xFFFFFFFFu;
    while (doc->size() < total) {
        const std::vector<uint8_t> req =
            encode_request(q, nonce, static_cast<uint32_t>(doc->size()));
        if (bus_send(requester, BUS_NODE_LOCAL, static_cast<uint32_t>(sap),
                     TARNHOST_OPC_CLIENT_INSPECT, req.data(),
                     static_cast<uint32_t>(req.size()), nullptr, nullptr,
                     &opts) != 0)
            return std::string("cannot send the request: ") + strerror(errno);
        for (;;) {
            bus_msg_t *m = tarnhost_bus_recv_ms(requester, timeout_ms);
            if (m == nullptr)
                return errno == EAGAIN ? std::string("no answer")
                                       : std::string("no answer: ") + strerror(errno);
            uint32_t len = 0;
            const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(m, &len));
            uint32_t n = 0, t = 0, off = 0;
            std::string chunk;
            const bool ok = bus_opc_get(m) == TARNHOST_OPC_CLIENT_INSPECT &&
                            decode_answer(p, len, &n, &t, &off, &chunk);
            bus_drop(requester, m);
            if (!ok || n != nonce || off != doc->size())
                continue;  // a stray or late message: wait for ours
            if (total != 0xFFFFFFFFu && t != total)
                return "the answer changed size between pages";
            total = t;
            if (chunk.empty() && doc->size() < total)
                return "an empty page";
            *doc += chunk;
            break;
        }
    }
    return "";
}

}  // namespace tarnhost_client
