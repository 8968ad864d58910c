// What carries out one change of "tarnctl apply": its writes, committed
// in one transaction with the journal's record of the notification it
// owes, and that notification's payload.

#include <string.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "platform/kvs.h"
#include "tools/tarnctl_apply.h"

namespace tarnctl {
namespace apply {

using namespace tarndev;

namespace {

VlanSet vlan_set(const std::set<uint32_t> &s)
{
    VlanSet out;
    out.given = true;
    for (uint32_t v : s)
        out.bits[v] = true;
    return out;
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

}  // namespace

uint32_t Txn::write(tarnhost_kvs_txn_t *txn) const
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

std::string clear_unannounced(const std::string &journal_uri)
{
    Txn journal{journal_uri, {}, {}};
    journal.del(tarndev::journal_key());
    uint32_t st = 0;
    return commit_change(Txn{}, Txn{}, journal, &st);
}

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

}  // namespace apply
}  // namespace tarnctl
