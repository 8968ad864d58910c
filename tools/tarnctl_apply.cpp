// tarnctl apply FILE: play a change file (docs/device-format.md, "Change
// files") on the loaded device: each change is written to the databases in
// its own transaction and then announced with the notification that the
// Tarn or Gyre service sends for it.

#include <sys/file.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/rootfs.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "platform/kvs.h"
#include "tools/announce_journal.h"
#include "tools/device_records.h"
#include "tools/tarnctl.h"
#include "tools/tarnctl_apply_lock.h"
#include "tools/tarnctl_output.h"

namespace tarnctl {

const Command kApply = {
    "apply",
    "FILE [--wait SECONDS] [--json]",
    "apply a change file to the device and send its notifications",
    cmd_apply,
};

namespace {

using namespace tarndev;

constexpr uint32_t kOpcTpgCreate = BUS_OPC_GYRE_TPG_CREATE;
constexpr uint32_t kOpcTpgDelete = BUS_OPC_GYRE_TPG_DELETE;
constexpr uint32_t kOpcTpgVlans = BUS_OPC_GYRE_TPG_VLANS;
constexpr uint32_t kOpcFtags = BUS_OPC_GYRE_FTAG_UPDATE;
constexpr uint32_t kOpcAttrChange = 51226;
constexpr uint32_t kTpgVlanRecord = 556;
constexpr uint32_t kFtagEntry = 1048;
constexpr uint32_t kAttrSize = 28;
constexpr uint32_t kAttrFtagsSize = 164;
// Records one message can carry.
constexpr uint32_t kMaxVlanRecords = (BUS_MAX_PAYLOAD - 24) / kTpgVlanRecord;
constexpr uint32_t kMaxFtagEntries = (BUS_MAX_PAYLOAD - 4) / kFtagEntry;
constexpr uint32_t kReplyWaitMs = 2000;

// ---- the device as the databases hold it -------------------------------------

struct FtagFact {
    uint32_t tpg = 0;
    uint32_t graph = 0;
    uint32_t flags = 0;
};

struct TopologyFact {
    std::set<uint32_t> active;
    std::set<uint32_t> configured;
};

struct Fabric {
    std::map<uint32_t, TopologyFact> topologies;
    std::map<uint32_t, FtagFact> ftags;  // by ftag
    std::map<uint32_t, uint32_t> vlan_owner;

    std::set<uint32_t> ftags_of(uint32_t tpg) const
    {
        std::set<uint32_t> s;
        for (const auto &f : ftags)
            if (f.second.tpg == tpg)
                s.insert(f.first);
        return s;
    }
};

std::set<uint32_t> set_of(const uint8_t *bits)
{
    std::set<uint32_t> s;
    for (uint32_t v = 0; v <= kVlanMax; ++v)
        if ((bits[v / 8] & (0x80u >> (v % 8))) != 0)
            s.insert(v);
    return s;
}

VlanSet vlan_set(const std::set<uint32_t> &s)
{
    VlanSet out;
    out.given = true;
    for (uint32_t v : s)
        out.bits[v] = true;
    return out;
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

// What kept the device from being read.
struct ReadError {
    std::string text;
    uint32_t status = 0;
};

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

// The announcement an earlier apply committed and did not publish; false
// when the journal cannot be read.
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

// ---- the change file -----------------------------------------------------------

enum class Kind {
    CreateTopology,
    DeleteTopology,
    TopologyVlans,
    Ftags,
    AsFormat,
    DeleteTopologyFtags,
    DeleteCache,
    DumpCache,
};

struct VlanRecord {
    uint32_t tpg = 0;
    VlanSet active;
    VlanSet configured;
};

struct FtagEntry {
    uint32_t reason = 0;
    uint32_t tpg = 0;
    uint32_t ftag = 0;
    uint32_t graph = 0;
    uint32_t flags = 0;
};

struct Change {
    Kind kind = Kind::DeleteCache;
    std::string path;
    uint32_t tpg = 0;
    uint32_t value = 0;  // AS format, dump iteration
    std::vector<VlanRecord> records;
    std::vector<FtagEntry> entries;
};

uint32_t topology_id(const json &o, const std::string &path)
{
    return u32(need(o, path, "topology"), member(path, "topology"), 1, kTpgMax);
}

Change read_change(const json &v, const std::string &path)
{
    if (!v.is_object())
        refuse(path, "expected an object");
    const std::string kind = text(need(v, path, "change"), member(path, "change"));
    Change c;
    c.path = path;
    if (kind == "create_topology" || kind == "delete_topology" ||
        kind == "delete_topology_ftags") {
        object_at(v, path, {"change", "topology"});
        c.kind = kind == "create_topology"   ? Kind::CreateTopology
                 : kind == "delete_topology" ? Kind::DeleteTopology
                                             : Kind::DeleteTopologyFtags;
        c.tpg = topology_id(v, path);
    } else if (kind == "topology_vlans") {
        object_at(v, path, {"change", "topologies"});
        c.kind = Kind::TopologyVlans;
        const std::string p = member(path, "topologies");
        const json &l = list(need(v, path, "topologies"), p);
        if (l.empty())
            refuse(p, "expected at least one topology");
        if (l.size() > kMaxVlanRecords)
            refuse(p, "more than " + std::to_string(kMaxVlanRecords) +
                          " topologies do not fit in one message");
        for (size_t i = 0; i < l.size(); ++i) {
            const std::string ip = item(p, i);
            const json &o = object_at(l[i], ip, {"topology", "active_vlans", "configured_vlans"});
            VlanRecord r;
            r.tpg = topology_id(o, ip);
            vlan_text(need(o, ip, "active_vlans"), member(ip, "active_vlans"), &r.active);
            if (const json *cv = find(o, "configured_vlans"))
                vlan_text(*cv, member(ip, "configured_vlans"), &r.configured);
            c.records.push_back(r);
        }
    } else if (kind == "ftags") {
        object_at(v, path, {"change", "ftags"});
        c.kind = Kind::Ftags;
        const std::string p = member(path, "ftags");
        const json &l = list(need(v, path, "ftags"), p);
        if (l.empty())
            refuse(p, "expected at least one ftag");
        if (l.size() > kMaxFtagEntries)
            refuse(p, "more than " + std::to_string(kMaxFtagEntries) +
                          " ftags do not fit in one message");
        for (size_t i = 0; i < l.size(); ++i) {
            const std::string ip = item(p, i);
            const json &o =
                object_at(l[i], ip, {"reason", "topology", "ftag", "graph", "flags"});
            FtagEntry e;
            const std::string reason = text(need(o, ip, "reason"), member(ip, "reason"));
            if (reason == "create")
                e.reason = GYRE_FTAG_CREATE;
            else if (reason == "update")
                e.reason = GYRE_FTAG_UPDATE;
            else if (reason == "delete")
                e.reason = GYRE_FTAG_DELETE;
            else
                refuse(member(ip, "reason"),
                       "expected \"create\", \"update\" or \"delete\", not \"" + reason + "\"");
            e.ftag = u32(need(o, ip, "ftag"), member(ip, "ftag"), 0, kFtagMax);
            if (e.reason == GYRE_FTAG_DELETE) {
                if (find(o, "graph") != nullptr)
                    refuse(member(ip, "graph"), "not taken by a delete");
                if (find(o, "flags") != nullptr)
                    refuse(member(ip, "flags"), "not taken by a delete");
                if (const json *t = find(o, "topology"))
                    e.tpg = u32(*t, member(ip, "topology"), 1, kTpgMax);
            } else {
                e.tpg = topology_id(o, ip);
                e.graph = u32(need(o, ip, "graph"), member(ip, "graph"), 0, 0xFFFF);
                e.flags = default_ftag_flags(e.graph);
                if (const json *fl = find(o, "flags"))
                    e.flags = u32(*fl, member(ip, "flags"), 0, 0xFF);
            }
            c.entries.push_back(e);
        }
    } else if (kind == "as_format") {
        object_at(v, path, {"change", "format"});
        c.kind = Kind::AsFormat;
        c.value = u32(need(v, path, "format"), member(path, "format"));
    } else if (kind == "delete_cache") {
        object_at(v, path, {"change"});
        c.kind = Kind::DeleteCache;
    } else if (kind == "dump_cache") {
        object_at(v, path, {"change", "iteration"});
        c.kind = Kind::DumpCache;
        c.value = 1;
        if (const json *it = find(v, "iteration"))
            c.value = u32(*it, member(path, "iteration"), 1, kU32Max);
    } else {
        refuse(member(path, "change"),
               "unknown change \"" + kind +
                   "\" (create_topology, delete_topology, topology_vlans, ftags, "
                   "as_format, delete_topology_ftags, delete_cache, dump_cache)");
    }
    return c;
}

std::string topo_text(uint32_t tpg) { return "topology " + std::to_string(tpg); }

const TopologyFact &existing(const Fabric &fab, uint32_t tpg, const std::string &path)
{
    auto it = fab.topologies.find(tpg);
    if (it == fab.topologies.end())
        refuse(path, topo_text(tpg) + " does not exist");
    return it->second;
}

void remove_topology_ftags(Fabric *fab, uint32_t tpg)
{
    for (auto it = fab->ftags.begin(); it != fab->ftags.end();)
        it = it->second.tpg == tpg ? fab->ftags.erase(it) : std::next(it);
}

// Checks one change against the fabric as the earlier changes left it, and
// carries it out on `fab`.  Delete entries without a topology get their
// owner filled in.
void play(Fabric *fab, Change *c)
{
    const std::string &path = c->path;
    switch (c->kind) {
    case Kind::CreateTopology:
        if (fab->topologies.count(c->tpg) != 0)
            refuse(member(path, "topology"), topo_text(c->tpg) + " exists already");
        fab->topologies[c->tpg];
        break;
    case Kind::DeleteTopology: {
        const TopologyFact &t = existing(*fab, c->tpg, member(path, "topology"));
        for (uint32_t v : t.active)
            fab->vlan_owner.erase(v);
        remove_topology_ftags(fab, c->tpg);
        fab->topologies.erase(c->tpg);
        break;
    }
    case Kind::DeleteTopologyFtags:
        existing(*fab, c->tpg, member(path, "topology"));
        remove_topology_ftags(fab, c->tpg);
        break;
    case Kind::TopologyVlans: {
        std::map<uint32_t, std::string> named;
        const std::string p = member(path, "topologies");
        for (size_t i = 0; i < c->records.size(); ++i) {
            const VlanRecord &r = c->records[i];
            const std::string ip = item(p, i);
            existing(*fab, r.tpg, member(ip, "topology"));
            auto seen = named.emplace(r.tpg, ip);
            if (!seen.second)
                refuse(member(ip, "topology"),
                       topo_text(r.tpg) + " is already listed at " + seen.first->second);
        }
        // Owners after the change: the listed topologies give up their old
        // VLANs, then take their new ones.
        std::map<uint32_t, uint32_t> owner = fab->vlan_owner;
        for (const VlanRecord &r : c->records)
            for (uint32_t v : fab->topologies[r.tpg].active)
                owner.erase(v);
        std::map<uint32_t, std::string> given;
        for (size_t i = 0; i < c->records.size(); ++i) {
            const VlanRecord &r = c->records[i];
            const std::string ip = member(item(p, i), "active_vlans");
            for (uint32_t v = 0; v <= kVlanMax; ++v) {
                if (!r.active.bits[v])
                    continue;
                auto g = given.emplace(v, ip);
                if (!g.second)
                    refuse(ip, "VLAN " + std::to_string(v) + " is also given by " +
                                   g.first->second);
                auto o = owner.find(v);
                if (o != owner.end())
                    refuse(ip, "VLAN " + std::to_string(v) + " is active in " +
                                   topo_text(o->second) + ", which this change does not list");
                owner[v] = r.tpg;
            }
        }
        for (const VlanRecord &r : c->records) {
            TopologyFact &t = fab->topologies[r.tpg];
            t.active.clear();
            for (uint32_t v = 0; v <= kVlanMax; ++v)
                if (r.active.bits[v])
                    t.active.insert(v);
            if (r.configured.given) {
                t.configured.clear();
                for (uint32_t v = 0; v <= kVlanMax; ++v)
                    if (r.configured.bits[v])
                        t.configured.insert(v);
            }
        }
        fab->vlan_owner = owner;
        break;
    }
    case Kind::Ftags: {
        const std::string p = member(path, "ftags");
        for (size_t i = 0; i < c->entries.size(); ++i) {
            FtagEntry &e = c->entries[i];
            const std::string ip = item(p, i);
            const std::string ftag_text = "ftag " + std::to_string(e.ftag);
            auto cur = fab->ftags.find(e.ftag);
            if (e.reason == GYRE_FTAG_CREATE) {
                existing(*fab, e.tpg, member(ip, "topology"));
                if (cur != fab->ftags.end())
                    refuse(member(ip, "ftag"), ftag_text + " is in use by " +
                                                   topo_text(cur->second.tpg));
            } else {
                if (cur == fab->ftags.end())
                    refuse(member(ip, "ftag"), ftag_text + " does not exist");
                if (e.reason == GYRE_FTAG_DELETE && e.tpg == 0)
                    e.tpg = cur->second.tpg;
                if (cur->second.tpg != e.tpg)
                    refuse(member(ip, "topology"),
                           ftag_text + " belongs to " + topo_text(cur->second.tpg));
            }
            if (e.reason == GYRE_FTAG_DELETE) {
                e.graph = cur->second.graph;
                e.flags = cur->second.flags;
                fab->ftags.erase(cur);
                continue;
            }
            // One topology-ftag record per topology, graph and flag byte.
            for (const auto &f : fab->ftags)
                if (f.first != e.ftag && f.second.tpg == e.tpg && f.second.graph == e.graph &&
                    (f.second.flags & 0xFF) == (e.flags & 0xFF))
                    refuse(member(ip, "graph"),
                           "graph " + std::to_string(e.graph) + " with flags " +
                               std::to_string(e.flags) + " is already used by ftag " +
                               std::to_string(f.first) + " of " + topo_text(e.tpg));
            FtagFact f;
            f.tpg = e.tpg;
            f.graph = e.graph;
            f.flags = e.flags;
            fab->ftags[e.ftag] = f;
        }
        break;
    }
    case Kind::AsFormat:
    case Kind::DeleteCache:
    case Kind::DumpCache:
        break;
    }
}

// ---- writing ---------------------------------------------------------------------

// The writes of one database: puts and deletes (an absent key is no error
// for a delete).
struct Txn {
    std::string uri;
    std::vector<std::pair<Bytes, Bytes>> puts;
    std::vector<Bytes> dels;

    bool empty() const { return puts.empty() && dels.empty(); }
    void put(Bytes k, Bytes v) { puts.emplace_back(std::move(k), std::move(v)); }
    void del(Bytes k) { dels.push_back(std::move(k)); }

    uint32_t write(tarnhost_kvs_txn_t *txn) const
    {
        uint32_t st = tarnhost_kvs_txn_select(txn, uri.c_str());
        for (size_t i = 0; st == 0 && i < dels.size(); ++i) {
            st = tarnhost_kvs_txn_del(txn, dels[i].data(), static_cast<uint32_t>(dels[i].size()));
            if (st == KVS_ERR_NOT_FOUND)
                st = 0;
        }
        for (size_t i = 0; st == 0 && i < puts.size(); ++i)
            st = tarnhost_kvs_txn_put(txn, puts[i].first.data(),
                                      static_cast<uint32_t>(puts[i].first.size()),
                                      puts[i].second.data(),
                                      static_cast<uint32_t>(puts[i].second.size()));
        return st;
    }
};

// Writes one change to both databases in one transaction, so that no
// reader sees its Tarn half without its Gyre half, with the journal's
// record of the announcement it owes.  "" or what failed,
// with the store's status in *status.
std::string commit_change(const Txn &tarn, const Txn &gyre, const Txn &journal,
                          uint32_t *status)
{
    if (tarn.empty() && gyre.empty() && journal.empty())
        return "";
    uint32_t &st = *status;
    // Every database of the device is in one store: any of them opens it.
    const std::string &uri = !tarn.uri.empty() ? tarn.uri : !gyre.uri.empty() ? gyre.uri
                                                                                : journal.uri;
    tarnhost_kvs_txn_t *txn = tarnhost_kvs_txn_begin(uri.c_str(), &st);
    if (txn == nullptr)
        return "cannot open the device's store for writing: " + store_cause(st);
    for (const Txn *t : {&tarn, &gyre, &journal}) {
        if (st == 0 && !t->empty()) {
            st = t->write(txn);
            if (st != 0) {
                tarnhost_kvs_txn_abort(txn);
                return "cannot write " + t->uri + ": " + store_cause(st);
            }
        }
    }
    st = tarnhost_kvs_txn_commit(txn);
    if (st != 0)
        return "cannot commit the change: " + store_cause(st);
    return "";
}

// Deletes the journal's record once its notification is out.  "" or what
// failed.
std::string clear_unannounced(const std::string &journal_uri)
{
    Txn journal{journal_uri, {}, {}};
    journal.del(tarndev::journal_key());
    uint32_t st = 0;
    return commit_change(Txn{}, Txn{}, journal, &st);
}

void del_ftag(Txn *gyre, uint32_t ftag, const FtagFact &f)
{
    gyre->del(gyre_key_tpg_ftag(f.tpg | kTpgStored, static_cast<uint16_t>(f.graph),
                                static_cast<uint8_t>(f.flags)));
    gyre->del(gyre_key_ftag(static_cast<uint16_t>(ftag)));
}

void store32(Bytes *b, size_t off, uint32_t v) { memcpy(b->data() + off, &v, 4); }
void store16(Bytes *b, size_t off, uint16_t v) { memcpy(b->data() + off, &v, 2); }

Bytes attr_change(uint16_t kind, uint32_t size)
{
    Bytes p(size, 0);
    store16(&p, 2, kind);
    store32(&p, 20, size);
    return p;
}

struct Planned {
    std::string what;
    uint32_t opcode = 0;
    Bytes payload;
};

// The writes and the notification of `c` on the fabric before it (`fab`,
// which is then advanced past it).
Planned plan(Fabric *fab, const Change &c, Txn *tarn, Txn *gyre)
{
    Planned out;
    switch (c.kind) {
    case Kind::CreateTopology: {
        const std::string name = std::to_string(c.tpg);
        tarn->put(tarn_key_topology(c.tpg), topology_table_value(c.tpg));
        gyre->put(gyre_key_tpg_vlans(1, name), topology_vlans_value(c.tpg, vlan_set({})));
        gyre->put(gyre_key_tpg_vlans(0, name), topology_vlans_value(c.tpg, vlan_set({})));
        out.opcode = kOpcTpgCreate;
        out.payload.assign(24, 0);
        store32(&out.payload, 20, c.tpg);
        out.what = topo_text(c.tpg) + " created";
        break;
    }
    case Kind::DeleteTopology: {
        const std::string name = std::to_string(c.tpg);
        const TopologyFact &t = fab->topologies[c.tpg];
        tarn->del(tarn_key_topology(c.tpg));
        gyre->del(gyre_key_tpg_vlans(1, name));
        gyre->del(gyre_key_tpg_vlans(0, name));
        for (uint32_t v : t.active)
            gyre->del(gyre_key_u32(5, v));
        for (uint32_t f : fab->ftags_of(c.tpg))
            del_ftag(gyre, f, fab->ftags[f]);
        out.opcode = kOpcTpgDelete;
        out.payload.assign(24, 0);
        store32(&out.payload, 20, c.tpg);
        out.what = topo_text(c.tpg) + " deleted";
        break;
    }
    case Kind::TopologyVlans: {
        const std::map<uint32_t, uint32_t> before = fab->vlan_owner;
        Fabric after = *fab;
        Change copy = c;
        play(&after, &copy);
        for (const VlanRecord &r : c.records) {
            const std::string name = std::to_string(r.tpg);
            gyre->put(gyre_key_tpg_vlans(1, name), topology_vlans_value(r.tpg, r.active));
            if (r.configured.given)
                gyre->put(gyre_key_tpg_vlans(0, name), topology_vlans_value(r.tpg, r.configured));
        }
        for (const auto &b : before)
            if (after.vlan_owner.count(b.first) == 0)
                gyre->del(gyre_key_u32(5, b.first));
        for (const auto &a : after.vlan_owner) {
            auto b = before.find(a.first);
            if (b == before.end() || b->second != a.second)
                gyre->put(gyre_key_u32(5, a.first), vlan_owner_value(a.second));
        }
        out.opcode = kOpcTpgVlans;
        out.payload.assign(24 + kTpgVlanRecord * c.records.size(), 0);
        store32(&out.payload, 20, static_cast<uint32_t>(c.records.size()));
        out.what = "VLANs of";
        for (size_t i = 0; i < c.records.size(); ++i) {
            const VlanRecord &r = c.records[i];
            const size_t at = 24 + kTpgVlanRecord * i;
            store32(&out.payload, at, r.tpg);
            const std::string name = std::to_string(r.tpg);
            memcpy(out.payload.data() + at + 4, name.data(), name.size());
            store32(&out.payload, at + 40, GYRE_VLAN_BMP_BYTES);
            for (uint32_t v = 0; v <= kVlanMax; ++v)
                if (r.active.bits[v])
                    out.payload[at + 44 + v / 8] |= static_cast<uint8_t>(0x80u >> (v % 8));
            out.what += (i ? ", " : " ") + topo_text(r.tpg);
        }
        out.what += " set";
        break;
    }
    case Kind::Ftags: {
        out.opcode = kOpcFtags;
        out.payload.assign(4 + kFtagEntry * c.entries.size(), 0);
        store32(&out.payload, 0, static_cast<uint32_t>(c.entries.size()));
        Fabric cur = *fab;
        Change copy = c;
        play(&cur, &copy);
        size_t made = 0, changed = 0, gone = 0;
        for (size_t i = 0; i < c.entries.size(); ++i) {
            const FtagEntry &e = copy.entries[i];
            (e.reason == GYRE_FTAG_CREATE ? made : e.reason == GYRE_FTAG_UPDATE ? changed : gone)++;
            const size_t at = 4 + kFtagEntry * i;
            store32(&out.payload, at, e.reason);
            store32(&out.payload, at + 4, e.tpg);
            store16(&out.payload, at + 8, static_cast<uint16_t>(e.graph));
            store16(&out.payload, at + 10, static_cast<uint16_t>(e.ftag));
            store32(&out.payload, at + 12, e.flags);
        }
        out.what = "ftags: " + std::to_string(made) + " created, " + std::to_string(changed) +
                   " updated, " + std::to_string(gone) + " deleted";
        // The writes take the records from the ftags before the change to
        // those after it; the deletes go first in the transaction, so a key
        // freed by one entry and taken by another ends written.
        for (const auto &f : fab->ftags) {
            auto n = cur.ftags.find(f.first);
            if (n == cur.ftags.end() || n->second.tpg != f.second.tpg ||
                n->second.graph != f.second.graph || n->second.flags != f.second.flags)
                del_ftag(gyre, f.first, f.second);
        }
        for (const auto &n : cur.ftags) {
            auto f = fab->ftags.find(n.first);
            if (f == fab->ftags.end() || f->second.tpg != n.second.tpg ||
                f->second.graph != n.second.graph || f->second.flags != n.second.flags) {
                gyre->put(gyre_key_tpg_ftag(n.second.tpg | kTpgStored,
                                            static_cast<uint16_t>(n.second.graph),
                                            static_cast<uint8_t>(n.second.flags)),
                          topology_ftag_value(n.first, n.second.graph, n.second.flags));
                gyre->put(gyre_key_ftag(static_cast<uint16_t>(n.first)),
                          ftag_value(n.second.tpg, n.first, n.second.graph, n.second.flags));
            }
        }
        break;
    }
    case Kind::AsFormat:
        tarn->put(tarn_key_as_format(), as_format_value(c.value));
        out.opcode = kOpcAttrChange;
        out.payload = attr_change(1, kAttrSize);
        store32(&out.payload, 24, c.value);
        out.what = "AS format " + std::to_string(c.value);
        break;
    case Kind::DeleteTopologyFtags: {
        const std::set<uint32_t> gone = fab->ftags_of(c.tpg);
        for (uint32_t f : gone)
            del_ftag(gyre, f, fab->ftags[f]);
        out.opcode = kOpcAttrChange;
        out.payload = attr_change(2, kAttrFtagsSize);
        store32(&out.payload, 28, c.tpg);
        store32(&out.payload, 32, GYRE_FTAG_BMP_BYTES);
        for (uint32_t f : gone)
            out.payload[36 + f / 8] |= static_cast<uint8_t>(0x80u >> (f % 8));
        out.what = "the " + std::to_string(gone.size()) + " ftags of " + topo_text(c.tpg) +
                   " deleted";
        break;
    }
    case Kind::DeleteCache:
        out.opcode = kOpcAttrChange;
        out.payload = attr_change(3, kAttrSize);
        out.what = "cache delete requested";
        break;
    case Kind::DumpCache:
        out.opcode = kOpcAttrChange;
        out.payload = attr_change(4, kAttrSize);
        store32(&out.payload, 4, static_cast<uint32_t>(getpid()));
        store32(&out.payload, 24, c.value);
        out.what = "cache dump requested (iteration " + std::to_string(c.value) + ")";
        break;
    }
    Change copy = c;
    play(fab, &copy);
    return out;
}

bool read_file(const char *path, std::string *out, std::string *err)
{
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *err = std::string("cannot read ") + path + ": " + strerror(errno);
        return false;
    }
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            *err = std::string("cannot read ") + path + ": " + strerror(errno);
            close(fd);
            return false;
        }
        if (n == 0)
            break;
        out->append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return true;
}

std::vector<Change> parse_changes(const std::string &textv, const std::string &source)
{
    const json doc = parse_json(textv, source);
    const json &o = object_at(doc, "", {"changes"});
    const json &l = list(need(o, "", "changes"), "changes");
    std::vector<Change> out;
    for (size_t i = 0; i < l.size(); ++i)
        out.push_back(read_change(l[i], item("changes", i)));
    return out;
}

void print_help()
{
    printf("usage: tarnctl apply FILE [--wait SECONDS] [--json]\n"
           "\n"
           "Plays the change file FILE (JSON; docs/device-format.md, \"Change files\") on\n"
           "the device in $TARNHOST_ROOT, loaded before with \"tarnctl load\".  The whole\n"
           "file is checked against the device first; a file with any error is refused\n"
           "and nothing is written.  Then each change, in order, is written to the\n"
           "databases (one transaction for the change) and, once committed, announced to\n"
           "the subscribed clients with the notification that the Tarn or Gyre service\n"
           "sends for it (51208, 51210, 51214, 51215 or 51226).  One line per change says\n"
           "what was done; a cache dump request also lists the replies received.  With\n"
           "--json all of it is one JSON document at the end.  A device that was never\n"
           "loaded is refused.\n"
           "\n"
           "One apply runs at a time on a device.  Another one waits for it up to\n"
           "--wait SECONDS (default 60; 0 does not wait), saying after 2 s which process\n"
           "it waits for, and fails naming it when the time is up.\n"
           "\n"
           "Exit status: 0 applied, 1 refused or failed, 2 usage error.\n");
}

uint32_t load32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

}  // namespace

int cmd_apply(int argc, char **argv)
{
    const char *file = nullptr;
    unsigned wait_s = kApplyWaitDefault;
    const int wait_usage = take_wait_option(kApply, &argc, argv, &wait_s);
    if (wait_usage >= 0)
        return wait_usage;
    const int early = one_file_argument(kApply, argc, argv, print_help, &file);
    if (early >= 0)
        return early;

    auto refused = [&](const std::string &why) {
        return reportf("apply", kExitFailed,
                       "%s; nothing was written, correct %s and run \"tarnctl apply %s\" again",
                       why.c_str(), file, file);
    };
    std::string textv, err;
    if (!read_file(file, &textv, &err))
        return reportf("apply", kExitFailed, "%s; nothing was written", err.c_str());
    if (!device_up("apply"))
        return kExitFailed;
    const std::string tarn_uri = device_db_uri("tarn_global_kvs");
    const std::string gyre_uri = device_db_uri("gyre_kvs_info");
    const std::string journal_uri = device_db_uri(tarndev::kJournalDb);
    Fabric fab;
    ReadError rerr;
    if (tarn_uri.empty() || gyre_uri.empty() || journal_uri.empty())
        return reportf("apply", kExitFailed,
                       "the device in %s cannot be read (no databases); nothing was written, "
                       "load it again with \"tarnctl load FILE\"",
                       tarnhost_root());
    // One apply at a time per device: each plans its changes against the
    // device as it finds it, and two interleaved would both pass their
    // checks.  Held until the process ends.
    std::string lock_why;
    if (hold_apply_lock(wait_s, &lock_why) < 0)
        return reportf("apply", kExitFailed, "%s; nothing was written", lock_why.c_str());
    bool owed = false;
    tarndev::Unannounced unannounced;
    if (!read_fabric(tarn_uri, gyre_uri, &fab, &rerr) ||
        !read_unannounced(journal_uri, &owed, &unannounced, &rerr)) {
        const std::string remedy = store_remedy(rerr.status);
        return reportf("apply", kExitFailed,
                       "the device in %s cannot be read (%s); nothing was written%s%s",
                       tarnhost_root(), rerr.text.c_str(), remedy.empty() ? "" : ", ",
                       remedy.c_str());
    }
    std::vector<Change> changes;
    try {
        changes = parse_changes(textv, file);
        Fabric check = fab;
        for (Change &c : changes)
            play(&check, &c);
    } catch (const Refusal &r) {
        return refused(r.message);
    }

    setvbuf(stdout, nullptr, _IOLBF, 0);
    const uint32_t handle = bus_bind(0, -1, nullptr, "tarnctl apply");
    if (handle == BUS_HANDLE_NONE) {
        return reportf("apply", kExitFailed,
                       "cannot bind a bus handle in %s/bus: %s; nothing was written, check "
                       "that the directory is yours and writable",
                       tarnhost_root(), tarnhost_root_strerror(errno));
    }
    int status = kExitOk;
    size_t done = 0;
    json applied = json::array();
    const bool as_json = json_output();
    json resumed = nullptr;
    if (owed) {
        // An earlier apply ended between a change's commit and its
        // notification: the clients hear of that change first.
        const size_t subscribers = tarnhost_bus_subscribers(unannounced.opcode, nullptr, 0);
        const int rc = tarnhost_bus_publish(handle, unannounced.opcode,
                                            unannounced.payload.data(),
                                            static_cast<uint32_t>(unannounced.payload.size()));
        resumed = {{"change", unannounced.what},
                   {"opcode", unannounced.opcode},
                   {"subscribers", subscribers},
                   {"delivered", rc == 0}};
        if (rc != 0) {
            bus_unbind(handle);
            return reportf("apply", kExitFailed,
                           "an earlier apply wrote a change and ended before announcing it "
                           "(%s), and its notification %u cannot be published now (%s); "
                           "nothing was written",
                           unannounced.what.c_str(), unannounced.opcode, strerror(rc));
        }
        const std::string cleared = clear_unannounced(journal_uri);
        if (!as_json)
            printf("announced the change that an earlier apply wrote and ended before it "
                   "could say it was announced (it may have been already): %s (%u to %s)\n",
                   escaped(unannounced.what).c_str(), unannounced.opcode,
                   counted(subscribers, "subscriber", "subscribers").c_str());
        if (!cleared.empty()) {
            bus_unbind(handle);
            return reportf("apply", kExitFailed,
                           "%s; the next apply announces that change again, nothing else was "
                           "written",
                           cleared.c_str());
        }
    }
    for (const Change &c : changes) {
        Txn tarn{tarn_uri, {}, {}};
        Txn gyre{gyre_uri, {}, {}};
        Txn journal{journal_uri, {}, {}};
        Planned p;
        try {
            p = plan(&fab, c, &tarn, &gyre);
        } catch (const Refusal &r) {
            err = r.message;
        }
        uint32_t st = 0;
        if (err.empty()) {
            tarndev::Unannounced owe;
            owe.opcode = p.opcode;
            owe.payload = p.payload;
            owe.what = c.path + ": " + p.what;
            journal.put(tarndev::journal_key(), tarndev::journal_value(owe));
            err = commit_change(tarn, gyre, journal, &st);
        }
        if (!err.empty()) {
            const std::string remedy = store_remedy(st);
            reportf("apply", kExitFailed,
                    "%s: %s; the changes before it were applied and announced, this one and "
                    "the later ones were not%s%s",
                    c.path.c_str(), err.c_str(), remedy.empty() ? "" : "; ", remedy.c_str());
            status = kExitFailed;
            break;
        }
        const size_t subscribers = tarnhost_bus_subscribers(p.opcode, nullptr, 0);
        std::vector<uint32_t> missed(subscribers + 1);
        size_t n_missed = 0;
        const int rc = tarnhost_bus_publish_counted(
            handle, p.opcode, p.payload.data(), static_cast<uint32_t>(p.payload.size()),
            missed.data(), missed.size(), &n_missed);
        if (!as_json)
            printf("%s: %s (%u to %s)\n", escaped(c.path).c_str(), escaped(p.what).c_str(), p.opcode,
                   counted(subscribers, "subscriber", "subscribers").c_str());
        json entry = {{"path", c.path},
                      {"change", p.what},
                      {"opcode", p.opcode},
                      {"subscribers", subscribers},
                      {"missed", json::array()},
                      {"replies", json::array()}};
        ++done;
        set_done(counted(done, "change", "changes") + " of " + escaped(file) +
                 (done == 1 ? " was" : " were") + " applied to the device in " +
                 escaped(tarnhost_root()) + " and announced");
        std::string cleared;
        if (rc == 0)
            cleared = clear_unannounced(journal_uri);
        if (!cleared.empty()) {
            applied.push_back(entry);
            reportf("apply", kExitFailed,
                    "%s: written and announced, but %s; the next apply announces it again, "
                    "the later changes were not applied",
                    c.path.c_str(), cleared.c_str());
            status = kExitFailed;
            break;
        }
        if (rc != 0) {
            applied.push_back(entry);
            reportf("apply", kExitFailed,
                    "%s: written, but the notification %u could not be published (%s); the "
                    "next apply announces it, the later changes were not applied",
                    c.path.c_str(), p.opcode, strerror(rc));
            status = kExitFailed;
            break;
        }
        // A subscriber that stopped taking messages misses this one; it can
        // tell (its miss count moved) and rebuild, and the others are not
        // held up for it.
        for (size_t i = 0; i < n_missed && i < missed.size(); ++i) {
            entry["missed"].push_back(missed[i]);
            if (!as_json)
                printf("  handle %u missed it (its queue stayed full)\n", missed[i]);
        }
        if (c.kind == Kind::DumpCache) {
            for (size_t i = 0; i < subscribers; ++i) {
                bus_msg_t *m = tarnhost_bus_recv_ms(handle, kReplyWaitMs);
                if (m == nullptr) {
                    if (!as_json)
                        printf("  %zu of %zu subscribers answered\n", i, subscribers);
                    break;
                }
                uint32_t len = 0;
                const uint8_t *r = static_cast<const uint8_t *>(bus_payload_get(m, &len));
                const bool header = r != nullptr && len >= GYRE_CACHE_DUMP_HEADER_SIZE;
                const bool none = header && load32(r) == GYRE_CACHE_DUMP_NONE;
                const uint32_t from = tarnhost_bus_sender_get(m);
                entry["replies"].push_back(
                    {{"handle", from},
                     {"bytes", len},
                     {"status", or_null(header, header ? load32(r) : 0u)},
                     {"next_iteration", or_null(header, none || !header ? 0u : load32(r + 4))},
                     {"records", or_null(header, none || !header ? 0u : load32(r + 8))}});
                if (as_json) {
                    // In the document at the end.
                } else if (header)
                    printf("  reply from handle %u: status %u, next iteration %u, %s\n", from,
                           load32(r), none ? 0u : load32(r + 4),
                           counted(none ? 0u : load32(r + 8), "record", "records").c_str());
                else
                    printf("  reply from handle %u: %u bytes, no dump header\n", from, len);
                bus_drop(handle, m);
            }
        }
        applied.push_back(entry);
    }
    bus_unbind(handle);
    if (as_json)
        print_json({{"file", file},
                    {"device", tarnhost_root()},
                    {"resumed", resumed},
                    {"changes", applied},
                    {"applied", done},
                    {"complete", status == kExitOk}});
    else if (status == kExitOk)
        printf("applied %s to %s\n", counted(done, "change", "changes").c_str(),
               escaped(tarnhost_root()).c_str());
    return status;
}

}  // namespace tarnctl
