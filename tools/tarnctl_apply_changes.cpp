// The changes of a change file (docs/device-format.md, "Change files"):
// read from JSON, then checked one by one against the fabric as the
// earlier changes leave it.

#include <map>
#include <set>
#include <string>
#include <vector>

#include <tarn/gyre.h>

#include "tools/tarnctl_apply.h"

namespace tarnctl {
namespace apply {

using namespace tarndev;

namespace {

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

}  // namespace

std::string topo_text(uint32_t tpg) { return "topology " + std::to_string(tpg); }

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

void play(Fabric *fab, Change *c)
{
    const std::string &path = c->path;
    switch (c->kind) {
    case Kind::CreateTopology:
        if (fab->topologies.count(c->tpg) != 0)
            throw HeldAlready{
                {member(path, "topology") + ": " + topo_text(c->tpg) + " exists already"}};
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
                if (cur != fab->ftags.end() && cur->second.tpg == e.tpg)
                    throw HeldAlready{{member(ip, "ftag") + ": " + ftag_text + " of " +
                                       topo_text(e.tpg) + " exists already"}};
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

}  // namespace apply
}  // namespace tarnctl
