// The device loader (see device_loader.h and docs/device-format.md).
//
// Three stages, kept apart so that nothing is written for a description
// that is wrong anywhere:
//   1. read: JSON text into a Device, checking every key, type and range;
//   2. encode: the Device into the records of each database, with the
//      record catalogue's own conversions;
//   3. write: one transaction for every database of the device (clear,
//      puts, one commit), then the device is brought up.

#include "tools/device_loader.h"
#include "tools/device_records.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <cmath>
#include <map>
#include <new>
#include <set>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "host/tarnhost_ifmgr.h"
#include "platform/kvs.h"
#include "tools/announce_journal.h"
#include "platform/supv.h"

namespace tarndev {
namespace {

const char kCellMgrUri[] = "volatile:/dev/shm/cell_mgr_kvs";

// ---- the description ---------------------------------------------------------

struct Table {
    uint32_t id = 0;
    uint32_t af = 0;
    std::string name;
    bool has_limits = false;
    uint32_t limit[3] = {0, 0, 0};
    uint8_t setting[2] = {0, 0};
};

struct Context {
    uint32_t id = 0;
    std::string name;
    uint32_t state = 2;
    uint32_t reason = 0;
    bool has_vpn = false;
    uint32_t vpn[3] = {0, 0, 0};
    std::vector<Table> tables;
};

struct IfTopology {
    std::string name;
    uint32_t topology = 0;
};

struct Interface {
    uint32_t ifindex = 0;
    uint32_t iod = 0;
    std::string name;
    std::string short_name;
    bool mgmt = false;
    uint32_t port_channel = 0;
    bool has_context = false;
    std::string context;
    bool has_soo = false;
    uint32_t soo_word = 0;
    uint64_t soo_value = 0;
    VlanSet active;
    VlanSet configured;
    std::vector<IfTopology> topologies;
};

struct Ftag {
    uint32_t ftag = 0;
    uint32_t graph = 0;
    uint32_t flags = 0;
};

struct Topology {
    uint32_t id = 0;
    VlanSet active;
    VlanSet configured;
    std::vector<Ftag> ftags;
};

struct Device {
    uint16_t cell = 1;
    std::vector<uint16_t> cells{1};
    bool has_as_format = false;
    uint32_t as_format = 0;
    std::vector<Context> contexts;
    std::vector<Interface> interfaces;
    std::vector<Topology> topologies;
};

// ---- reading -------------------------------------------------------------------

Table read_table(const json &v, const std::string &path)
{
    const json &o = object_at(v, path, {"id", "af", "name", "route_limits"});
    Table t;
    t.id = u32(need(o, path, "id"), member(path, "id"), 1, kTableMax);
    t.af = u32(need(o, path, "af"), member(path, "af"), 0, 2);
    t.name = name_text(need(o, path, "name"), member(path, "name"));
    if (const json *rl = find(o, "route_limits")) {
        const std::string p = member(path, "route_limits");
        list(*rl, p);
        if (rl->size() != 5)
            refuse(p, "expected a list of 5 numbers");
        for (size_t i = 0; i < 3; ++i)
            t.limit[i] = u32((*rl)[i], item(p, i));
        for (size_t i = 0; i < 2; ++i)
            t.setting[i] =
                static_cast<uint8_t>(u32((*rl)[3 + i], item(p, 3 + i), 0, 255));
        t.has_limits = true;
    }
    return t;
}

Context read_context(const json &v, const std::string &path)
{
    const json &o = object_at(
        v, path, {"id", "name", "state", "reason", "vpn_id", "tables"});
    Context c;
    c.id = u32(need(o, path, "id"), member(path, "id"), 1, kU32Max);
    c.name = name_text(need(o, path, "name"), member(path, "name"));
    if (const json *s = find(o, "state"))
        c.state = u32(*s, member(path, "state"), 0, 2);
    if (const json *r = find(o, "reason"))
        c.reason = u32(*r, member(path, "reason"));
    if (const json *vp = find(o, "vpn_id")) {
        const std::string p = member(path, "vpn_id");
        list(*vp, p);
        if (vp->size() != 3)
            refuse(p, "expected a list of 3 numbers");
        for (size_t i = 0; i < 3; ++i)
            c.vpn[i] = u32((*vp)[i], item(p, i));
        c.has_vpn = true;
    }
    if (const json *ts = find(o, "tables")) {
        const std::string p = member(path, "tables");
        list(*ts, p);
        for (size_t i = 0; i < ts->size(); ++i)
            c.tables.push_back(read_table((*ts)[i], item(p, i)));
    }
    return c;
}

Interface read_interface(const json &v, const std::string &path)
{
    const json &o = object_at(
        v, path,
        {"ifindex", "iod", "name", "short_name", "mgmt", "port_channel",
         "context", "soo", "active_vlans", "configured_vlans", "topologies"});
    Interface f;
    f.ifindex = u32(need(o, path, "ifindex"), member(path, "ifindex"), 1);
    f.iod = u32(need(o, path, "iod"), member(path, "iod"));
    f.name = name_text(need(o, path, "name"), member(path, "name"));
    f.short_name = f.name;
    if (const json *s = find(o, "short_name"))
        f.short_name = name_text(*s, member(path, "short_name"));
    if (const json *m = find(o, "mgmt"))
        f.mgmt = boolean(*m, member(path, "mgmt"));
    if (const json *pc = find(o, "port_channel"))
        f.port_channel = u32(*pc, member(path, "port_channel"));
    if (const json *c = find(o, "context")) {
        f.context = name_text(*c, member(path, "context"));
        f.has_context = true;
    }
    if (const json *s = find(o, "soo")) {
        const std::string p = member(path, "soo");
        const json &so = object_at(*s, p, {"word", "value"});
        if (const json *w = find(so, "word"))
            f.soo_word = u32(*w, member(p, "word"));
        f.soo_value = hex64(need(so, p, "value"), member(p, "value"));
        f.has_soo = true;
    }
    if (const json *a = find(o, "active_vlans"))
        vlan_text(*a, member(path, "active_vlans"), &f.active);
    if (const json *c = find(o, "configured_vlans"))
        vlan_text(*c, member(path, "configured_vlans"), &f.configured);
    if (const json *ts = find(o, "topologies")) {
        const std::string p = member(path, "topologies");
        list(*ts, p);
        for (size_t i = 0; i < ts->size(); ++i) {
            const std::string ip = item(p, i);
            const json &to = object_at((*ts)[i], ip, {"name", "topology"});
            IfTopology t;
            t.name = name_text(need(to, ip, "name"), member(ip, "name"));
            t.topology = u32(need(to, ip, "topology"), member(ip, "topology"),
                             1, kTpgMax);
            f.topologies.push_back(t);
        }
    }
    return f;
}

Topology read_topology(const json &v, const std::string &path)
{
    const json &o =
        object_at(v, path, {"id", "active_vlans", "configured_vlans", "ftags"});
    Topology t;
    t.id = u32(need(o, path, "id"), member(path, "id"), 1, kTpgMax);
    if (const json *a = find(o, "active_vlans"))
        vlan_text(*a, member(path, "active_vlans"), &t.active);
    if (const json *c = find(o, "configured_vlans"))
        vlan_text(*c, member(path, "configured_vlans"), &t.configured);
    if (const json *fs = find(o, "ftags")) {
        const std::string p = member(path, "ftags");
        list(*fs, p);
        for (size_t i = 0; i < fs->size(); ++i) {
            const std::string ip = item(p, i);
            const json &fo = object_at((*fs)[i], ip, {"ftag", "graph", "flags"});
            Ftag f;
            f.ftag = u32(need(fo, ip, "ftag"), member(ip, "ftag"), 0, kFtagMax);
            f.graph = u32(need(fo, ip, "graph"), member(ip, "graph"), 0, 0xFFFF);
            // Without flags, graph 1 is the unicast graph and the others
            // multicast, as the service marks them.
            f.flags = default_ftag_flags(f.graph);
            if (const json *fl = find(fo, "flags"))
                f.flags = u32(*fl, member(ip, "flags"), 0, 0xFF);
            t.ftags.push_back(f);
        }
    }
    return t;
}

// Facts that would land on the same database key: the later one would
// silently replace the earlier, so the description is refused instead.
template <typename K>
void unique(std::map<K, std::string> *seen, const K &key,
            const std::string &path, const std::string &shown)
{
    auto r = seen->emplace(key, path);
    if (!r.second)
        refuse(path, shown + " is already used by " + r.first->second);
}

void check_unique(const Device &d)
{
    std::map<uint32_t, std::string> ctx_ids, table_ids, ifindexes, iods,
        tpg_ids, ftags, vlans;
    std::map<std::string, std::string> ctx_names;
    std::map<std::string, std::string> table_keys;
    for (size_t i = 0; i < d.contexts.size(); ++i) {
        const Context &c = d.contexts[i];
        const std::string p = item("contexts", i);
        unique(&ctx_ids, c.id, member(p, "id"), std::to_string(c.id));
        unique(&ctx_names, c.name, member(p, "name"), "\"" + c.name + "\"");
        for (size_t j = 0; j < c.tables.size(); ++j) {
            const Table &t = c.tables[j];
            const std::string tp = item(member(p, "tables"), j);
            unique(&table_ids, t.id, member(tp, "id"), std::to_string(t.id));
            unique(&table_keys,
                   std::to_string(c.id) + "/" + std::to_string(t.af) + "/" +
                       t.name,
                   member(tp, "name"),
                   "\"" + t.name + "\" with af " + std::to_string(t.af));
        }
    }
    for (size_t i = 0; i < d.interfaces.size(); ++i) {
        const Interface &f = d.interfaces[i];
        const std::string p = item("interfaces", i);
        unique(&ifindexes, f.ifindex, member(p, "ifindex"),
               std::to_string(f.ifindex));
        unique(&iods, f.iod, member(p, "iod"), std::to_string(f.iod));
        // The interface-topology key keeps 16 characters of the name.
        std::map<std::string, std::string> names;
        for (size_t j = 0; j < f.topologies.size(); ++j) {
            const std::string n = f.topologies[j].name.substr(0, 16);
            unique(&names, n,
                   member(item(member(p, "topologies"), j), "name"),
                   "\"" + n + "\" (the first 16 characters)");
        }
    }
    for (size_t i = 0; i < d.topologies.size(); ++i) {
        const Topology &t = d.topologies[i];
        const std::string p = item("topologies", i);
        unique(&tpg_ids, t.id, member(p, "id"), std::to_string(t.id));
        for (uint32_t v = 0; v <= kVlanMax; ++v)
            if (t.active.bits[v])
                unique(&vlans, v, member(p, "active_vlans"),
                       "active VLAN " + std::to_string(v));
        std::map<uint32_t, std::string> graph_flags;
        for (size_t j = 0; j < t.ftags.size(); ++j) {
            const Ftag &f = t.ftags[j];
            const std::string fp = item(member(p, "ftags"), j);
            unique(&ftags, f.ftag, member(fp, "ftag"), std::to_string(f.ftag));
            unique(&graph_flags, (f.graph << 8) | f.flags, member(fp, "graph"),
                   "graph " + std::to_string(f.graph) + " with flags " +
                       std::to_string(f.flags));
        }
    }
}

Device read_device(const json &doc)
{
    const json &o = object_at(doc, "",
                              {"cell", "cells", "as_format", "contexts",
                               "interfaces", "topologies"});
    Device d;
    if (const json *c = find(o, "cell"))
        d.cell = static_cast<uint16_t>(u32(*c, "cell", 0, 0xFFFF));
    if (const json *cs = find(o, "cells")) {
        list(*cs, "cells");
        d.cells.clear();
        for (size_t i = 0; i < cs->size(); ++i)
            d.cells.push_back(
                static_cast<uint16_t>(u32((*cs)[i], item("cells", i), 0, 0xFFFF)));
    }
    if (const json *a = find(o, "as_format")) {
        d.as_format = u32(*a, "as_format");
        d.has_as_format = true;
    }
    if (const json *cs = find(o, "contexts")) {
        list(*cs, "contexts");
        for (size_t i = 0; i < cs->size(); ++i)
            d.contexts.push_back(read_context((*cs)[i], item("contexts", i)));
    }
    if (const json *is = find(o, "interfaces")) {
        list(*is, "interfaces");
        for (size_t i = 0; i < is->size(); ++i)
            d.interfaces.push_back(
                read_interface((*is)[i], item("interfaces", i)));
    }
    if (const json *ts = find(o, "topologies")) {
        list(*ts, "topologies");
        for (size_t i = 0; i < ts->size(); ++i)
            d.topologies.push_back(
                read_topology((*ts)[i], item("topologies", i)));
    }
    check_unique(d);
    return d;
}

Device parse(const std::string &textv, const std::string &source)
{
    return read_device(parse_json(textv, source));
}

// ---- encoding ----------------------------------------------------------------------

struct Encoded {
    Records tarn;
    Records gyre;
    Records cell_mgr;
    std::vector<tarnhost_if_t> ifs;  // name pointers into the Device
};

void encode_contexts(const Device &d, Records *out)
{
    for (const Context &c : d.contexts) {
        out->emplace_back(tarn_key_name(TARN_KVS_KIND_CONTEXT_NAME, c.name),
                          id_array(c.id));
        tarn_context_info_t info;
        memset(&info, 0, sizeof info);
        info.state = c.state;
        info.reason = c.reason;
        copy_name(info.name, c.name);
        out->emplace_back(tarn_key_num(TARN_KVS_KIND_CONTEXT_INFO, c.id),
                          encode<tarn_context_info_t>(tarn_context_info_to_tlv,
                                                      info, "context"));
        if (c.has_vpn) {
            tarn_vpnid_info_t vpn;
            memset(&vpn, 0, sizeof vpn);
            vpn.w0 = c.vpn[0];
            vpn.w1 = c.vpn[1];
            vpn.w2 = c.vpn[2];
            out->emplace_back(
                tarn_key_name(TARN_KVS_KIND_VPNID, c.name),
                encode<tarn_vpnid_info_t>(tarn_vpnid_info_to_tlv, vpn, "VPN id"));
        }
        for (const Table &t : c.tables) {
            out->emplace_back(tarn_key_table_id(c.id, t.af, t.name),
                              id_array(t.id));
            tarn_table_info_t ti;
            memset(&ti, 0, sizeof ti);
            ti.context_id = c.id;
            copy_name(ti.name, t.name);
            out->emplace_back(
                tarn_key_num(TARN_KVS_KIND_TABLE_INFO, t.id),
                encode<tarn_table_info_t>(tarn_table_info_to_tlv, ti, "table"));
            if (t.has_limits) {
                tarn_tib_rt_limits_t rl;
                memset(&rl, 0, sizeof rl);
                rl.limit1 = t.limit[0];
                rl.limit2 = t.limit[1];
                rl.limit3 = t.limit[2];
                rl.setting1 = t.setting[0];
                rl.setting2 = t.setting[1];
                out->emplace_back(
                    tarn_key_num(TARN_KVS_KIND_RT_LIMITS, t.id),
                    encode<tarn_tib_rt_limits_t>(tarn_rt_limits_info_to_tlv, rl,
                                                 "route limits"));
            }
        }
    }
}

void encode_interfaces(const Device &d, Encoded *e)
{
    for (const Interface &f : d.interfaces) {
        tarnhost_if_t ifc;
        ifc.ifindex = f.ifindex;
        ifc.iod = f.iod;
        ifc.name = f.name.c_str();
        ifc.short_name = f.short_name.c_str();
        ifc.mgmt = f.mgmt ? 1 : 0;
        ifc.pc_ifindex = f.port_channel;
        e->ifs.push_back(ifc);

        if (f.has_context) {
            tarn_vname_t vn;
            copy_name(vn.name, f.context);
            e->tarn.emplace_back(
                tarn_key_num(TARN_KVS_KIND_IF_CONTEXT, f.ifindex),
                encode<tarn_vname_t>(tarn_vname_to_tlv, vn, "interface context"));
        }
        if (f.has_soo) {
            tarn_soo_info_t soo;
            memset(&soo, 0, sizeof soo);
            soo.word = f.soo_word;
            soo.soo = f.soo_value;
            e->tarn.emplace_back(
                tarn_key_num(TARN_KVS_KIND_SOO, f.ifindex),
                encode<tarn_soo_info_t>(tarn_soo_info_to_tlv, soo,
                                        "site-of-origin"));
        }
        for (const IfTopology &t : f.topologies) {
            tarn_table_info_t ti;
            memset(&ti, 0, sizeof ti);
            ti.tpg_id = t.topology | kTpgStored;
            copy_name(ti.name, t.name);
            e->tarn.emplace_back(tarn_key_if_topology(f.ifindex, t.name),
                                 encode<tarn_table_info_t>(
                                     tarn_table_info_to_tlv, ti,
                                     "interface topology"));
        }
        const std::pair<const VlanSet *, uint32_t> sets[] = {
            {&f.active, 3}, {&f.configured, 2}};
        for (const auto &s : sets) {
            if (!s.first->given)
                continue;
            gyre_if_vlan_info_t iv;
            memset(&iv, 0, sizeof iv);
            iv.ifindex = f.ifindex;
            fill_bitmap(&iv.vlans, *s.first);
            e->gyre.emplace_back(gyre_key_u32(s.second, f.iod),
                                 encode<gyre_if_vlan_info_t>(
                                     gyre_if_vlan_info_to_tlv, iv,
                                     "interface VLAN"));
        }
    }
}

void encode_topologies(const Device &d, Encoded *e)
{
    for (const Topology &t : d.topologies) {
        const uint32_t stored = t.id | kTpgStored;
        const std::string name = std::to_string(t.id);
        e->tarn.emplace_back(tarn_key_topology(t.id), topology_table_value(t.id));
        const std::pair<const VlanSet *, uint32_t> sets[] = {
            {&t.active, 1}, {&t.configured, 0}};
        for (const auto &s : sets)
            if (s.first->given)
                e->gyre.emplace_back(gyre_key_tpg_vlans(s.second, name),
                                     topology_vlans_value(t.id, *s.first));
        for (uint32_t v = 0; v <= kVlanMax; ++v)
            if (t.active.bits[v])
                e->gyre.emplace_back(gyre_key_u32(5, v), vlan_owner_value(t.id));
        for (const Ftag &f : t.ftags) {
            e->gyre.emplace_back(
                gyre_key_tpg_ftag(stored, static_cast<uint16_t>(f.graph),
                                  static_cast<uint8_t>(f.flags)),
                topology_ftag_value(f.ftag, f.graph, f.flags));
            e->gyre.emplace_back(gyre_key_ftag(static_cast<uint16_t>(f.ftag)),
                                 ftag_value(t.id, f.ftag, f.graph, f.flags));
        }
    }
}

// The cell manager's record: network byte order, designated cell at 520,
// the count at 522 and the cells from 526; the word at 516 is 0.
Bytes cell_mgr_record(const Device &d)
{
    Bytes v(526 + 2 * d.cells.size(), 0);
    v[520] = static_cast<uint8_t>(d.cell >> 8);
    v[521] = static_cast<uint8_t>(d.cell);
    be32_at(&v, 522, static_cast<uint32_t>(d.cells.size()));
    for (size_t i = 0; i < d.cells.size(); ++i) {
        v[526 + 2 * i] = static_cast<uint8_t>(d.cells[i] >> 8);
        v[527 + 2 * i] = static_cast<uint8_t>(d.cells[i]);
    }
    return v;
}

Encoded encode_device(const Device &d)
{
    Encoded e;
    encode_contexts(d, &e.tarn);
    if (d.has_as_format)
        e.tarn.emplace_back(tarn_key_as_format(), as_format_value(d.as_format));
    encode_interfaces(d, &e);
    encode_topologies(d, &e);
    const uint8_t key[5] = {0x1C, 0, 0, 0, 0};
    e.cell_mgr.emplace_back(Bytes(key, key + 5), cell_mgr_record(d));
    return e;
}

// ---- writing --------------------------------------------------------------------------

// One database of the device and what replaces its records.
struct Step {
    std::string uri;
    const Records *records;
    const std::vector<tarnhost_if_t> *ifs;  // the interface manager's
};

// Writes every database of the device in one transaction: readers see the
// whole old device or the whole new one, also when this process dies at any
// instant or the store has no room.  `anew` builds a new store instead of
// changing the one in place (which cannot be read).  0 or the status of the
// failed step, described in *what.
uint32_t write_all(const std::vector<Step> &steps, bool anew, std::string *what)
{
    uint32_t st = 0;
    tarnhost_kvs_txn_t *txn = anew ? tarnhost_kvs_txn_begin_anew(steps[0].uri.c_str(), &st)
                                   : tarnhost_kvs_txn_begin(steps[0].uri.c_str(), &st);
    if (txn == nullptr) {
        *what = anew ? "cannot make a new store for the device"
                     : "cannot open the device's store for writing";
        return st;
    }
    for (const Step &step : steps) {
        st = tarnhost_kvs_txn_select(txn, step.uri.c_str());
        if (st == 0)
            st = tarnhost_kvs_txn_clear(txn);
        const Records &records = *step.records;
        for (size_t i = 0; st == 0 && i < records.size(); ++i)
            st = tarnhost_kvs_txn_put(txn, records[i].first.data(),
                                      static_cast<uint32_t>(records[i].first.size()),
                                      records[i].second.data(),
                                      static_cast<uint32_t>(records[i].second.size()));
        if (step.ifs != nullptr)
            for (size_t i = 0; st == 0 && i < step.ifs->size(); ++i)
                st = tarnhost_ifmgr_txn_put(txn, &(*step.ifs)[i]);
        if (st != 0) {
            tarnhost_kvs_txn_abort(txn);
            *what = "cannot write " + step.uri;
            return st;
        }
    }
    st = tarnhost_kvs_txn_commit(txn);
    if (st != 0)
        *what = "cannot commit the device";
    return st;
}

LoadOutcome write_device(const Device &d, const Encoded &e)
{
    LoadOutcome out;
    int rc = tarnhost_root_prepare();
    if (rc != 0) {
        out.message = std::string("cannot prepare the host root ") + tarnhost_root() + ": " +
                      tarnhost_root_strerror(rc);
        out.store_status = tarnhost_kvs_errno_status(rc);
        return out;
    }
    const std::string tarn_uri = device_db_uri("tarn_global_kvs");
    const std::string gyre_uri = device_db_uri("gyre_kvs_info");
    // A new device owes no announcement of a change to the old one.
    const std::string journal_uri = device_db_uri(kJournalDb);
    if (tarn_uri.empty() || gyre_uri.empty() || journal_uri.empty()) {
        out.message = "cannot name the device's databases";
        out.store_status = KVS_ERR_BAD_URI;
        return out;
    }
    static const Records kNone;
    const std::vector<Step> steps = {
        {TARNHOST_IFMGR_URI, &kNone, &e.ifs},
        {kCellMgrUri, &e.cell_mgr, nullptr},
        {tarn_uri, &e.tarn, nullptr},
        {gyre_uri, &e.gyre, nullptr},
        {journal_uri, &kNone, nullptr},
    };
    std::string what;
    // A store damaged where only reading all of it shows would make the
    // writer fail half way, or worse: look first, at no risk to this process.
    uint32_t st = tarnhost_kvs_check(steps[0].uri.c_str());
    if (st != KVS_ERR_DAMAGED)
        st = write_all(steps, false, &what);
    // A store that passed the check can still fail the writer: damage in
    // the pages a write reuses (its free list, or what an apply wrote over
    // damage) shows only to a write.  Whatever the old store holds, a
    // load does not depend on it.
    // A refusal of the host (a file of another user, a FIFO in place of
    // the gate) is not damage: building anew would replace what is not
    // ours to replace, and the refusal says what to do.
    if (st == KVS_ERR_IO && *tarnhost_root_problem() == '\0')
        st = KVS_ERR_DAMAGED;
    if (st == KVS_ERR_DAMAGED) {
        // Nothing of a damaged store can be trusted or kept: build the
        // device's store anew from the description alone.
        out.rebuilt = true;
        st = write_all(steps, true, &what);
    }
    if (st != 0) {
        out.message = what;
        out.store_status = st;
        return out;
    }
    rc = tarnhost_device_up(nullptr);
    if (rc != 0) {
        out.message = std::string("cannot bring the device up: ") + tarnhost_root_strerror(rc);
        out.store_status = tarnhost_kvs_errno_status(rc);
        return out;
    }
    out.status = 0;
    out.contexts = d.contexts.size();
    for (const Context &c : d.contexts)
        out.tables += c.tables.size();
    out.interfaces = d.interfaces.size();
    out.topologies = d.topologies.size();
    return out;
}

}  // namespace

LoadOutcome load_device_text(const std::string &textv, const std::string &source)
{
    Device d;
    Encoded e;
    try {
        d = parse(textv, source);
        e = encode_device(d);
    } catch (const Refusal &r) {
        LoadOutcome out;
        out.message = r.message;
        return out;
    } catch (const std::bad_alloc &) {
        LoadOutcome out;
        out.message = "cannot hold " + source + " in memory";
        out.store_status = ENOMEM;
        return out;
    }
    return write_device(d, e);
}

LoadOutcome load_device_file(const std::string &path)
{
    LoadOutcome out;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        out.message = "cannot read " + path + ": " + strerror(errno);
        return out;
    }
    std::string textv;
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            out.message = "cannot read " + path + ": " + strerror(errno);
            close(fd);
            return out;
        }
        if (n == 0)
            break;
        textv.append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return load_device_text(textv, path);
}

std::string check_device_text(const std::string &textv,
                              const std::string &source)
{
    try {
        Device d = parse(textv, source);
        encode_device(d);
    } catch (const Refusal &r) {
        return r.message;
    } catch (const std::bad_alloc &) {
        return "cannot hold " + source + " in memory";
    }
    return "";
}

}  // namespace tarndev
