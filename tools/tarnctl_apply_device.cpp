// The fabric of a loaded device as its databases hold it, read for
// "tarnctl apply" to check a change file against.

#include <string.h>

#include <map>
#include <set>
#include <string>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "platform/kvs.h"
#include "tools/tarnctl_apply.h"

namespace tarnctl {
namespace apply {

using namespace tarndev;

namespace {

std::set<uint32_t> set_of(const uint8_t *bits)
{
    std::set<uint32_t> s;
    for (uint32_t v = 0; v <= kVlanMax; ++v)
        if ((bits[v / 8] & (0x80u >> (v % 8))) != 0)
            s.insert(v);
    return s;
}

uint32_t be32(const uint8_t *p)
{
    return (static_cast<uint32_t>(p[0]) << 24) | (static_cast<uint32_t>(p[1]) << 16) |
           (static_cast<uint32_t>(p[2]) << 8) | p[3];
}

template <typename T>
T host(const uint8_t *p)
{
    T v;
    memcpy(&v, p, sizeof v);
    return v;
}

// Walks every record of a database to its end, which also lets go of the
// walk's snapshot; false when it cannot be opened or read.
template <typename F>
bool walk(const std::string &uri, ReadError *err, F f)
{
    uint32_t st = kvs_open(uri.c_str(), 1, 0, 0, 0);
    if (st == 0 || st == KVS_ERR_ALREADY_OPEN) {
        kvs_datum_t key, value;
        st = kvs_iterator_init(uri.c_str(), nullptr, 1);
        if (st == 0) {
            for (st = kvs_getkey(uri.c_str(), &key, &value); st == 0;
                 st = kvs_getnext(uri.c_str(), &key, &value))
                f(static_cast<const uint8_t *>(key.data), key.len,
                  static_cast<const uint8_t *>(value.data), value.len);
        }
        if (st == KVS_ERR_END || st == KVS_ERR_NO_POSITION)
            return true;  // the end, or an empty database
    }
    err->text = "cannot read " + uri + ": " + store_cause(st);
    err->status = st;
    return false;
}

}  // namespace

bool read_unannounced(const std::string &uri, bool *found, tarndev::Unannounced *u,
                      ReadError *err)
{
    *found = false;
    const Bytes key = tarndev::journal_key();
    return walk(uri, err, [&](const uint8_t *k, uint32_t klen, const uint8_t *v, uint32_t vlen) {
        if (klen == key.size() && memcmp(k, key.data(), klen) == 0)
            *found = tarndev::journal_decode(v, vlen, u);
    });
}

bool read_fabric(const std::string &tarn_uri, const std::string &gyre_uri, Fabric *fab,
                 ReadError *err)
{
    if (!walk(tarn_uri, err, [&](const uint8_t *k, uint32_t klen, const uint8_t *, uint32_t) {
            if (klen == kTarnKeySize && be32(k) == TARN_KVS_KIND_TABLE_INFO &&
                (be32(k + 4) & kTpgStored) == kTpgStored)
                fab->topologies[be32(k + 4) & kTpgMax];
        }))
        return false;
    std::map<uint32_t, std::set<uint32_t>> active, configured;
    if (!walk(gyre_uri, err, [&](const uint8_t *k, uint32_t klen, const uint8_t *v, uint32_t vlen) {
            if (klen != kGyreKeySize)
                return;
            const uint32_t type = host<uint32_t>(k);
            if (type == 0 || type == 1) {
                gyre_tpg_vlan_info_t info;
                memset(&info, 0, sizeof info);
                gyre_tpg_vlan_info_t *out = &info;
                gyre_tpg_vlan_info_to_structure(&out, v, vlen);
                const uint32_t id = info.tpg_id & kTpgMax;
                (type == 1 ? active : configured)[id] = set_of(info.vlans.bits);
            } else if (type == 6) {
                gyre_ftag_info_t info;
                memset(&info, 0, sizeof info);
                gyre_ftag_info_t *out = &info;
                gyre_ftag_info_to_structure(&out, v, vlen);
                FtagFact f;
                f.tpg = info.tpg_id & kTpgMax;
                f.graph = info.graph_id;
                f.flags = info.flags;
                fab->ftags[host<uint16_t>(k + 4)] = f;
            }
        }))
        return false;
    for (auto &t : fab->topologies) {
        t.second.active = active[t.first];
        t.second.configured = configured[t.first];
        for (uint32_t v : t.second.active)
            fab->vlan_owner[v] = t.first;
    }
    return true;
}

}  // namespace apply
}  // namespace tarnctl
