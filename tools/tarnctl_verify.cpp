// dump-cache --verify, answer by answer.  The client (built on the host's
// client helper) answers the inspection request from its caches; this
// process, with every cache off, answers the same questions from the
// databases with the same code.  Where the two differ, a model of what a
// cache that followed every change answers tells the library's deliberate
// differences between its two paths from real divergence.

#include "tools/tarnctl_verify.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/client/inspect.h"
#include "host/tarnhost_client.h"
#include "tools/tarnctl_queries.h"

namespace tarnctl {
namespace {

using json = nlohmann::json;

// Where an answer sits, in print order: (subject kind, number, question).
using Key = std::tuple<int, uint32_t, std::string>;
enum Subject { kAsFormat, kTopology, kVlan, kFtag };

const char *const kSubjectName[] = {"AS format", "topology", "vlan", "ftag"};

// The deliberate differences between the cache path and the database path.
const char kRuleUnicast[] =
    "the cache takes the topology's lowest ftag with any flags, the database "
    "reads graph 1's unicast record";
const char kRuleGraph[] =
    "the cache takes the topology's lowest ftag of the graph whatever its "
    "flags, the database reads the record under the flag its key maker gives "
    "the graph (0x10 for graph 1, 0x02 for the others)";
const char kRuleCfgVlans[] =
    "the cache holds one VLAN set per topology, the active one";
const char kRuleNoVlanRecord[] =
    "the cache holds a VLAN set for every topology, empty where the database "
    "has no VLAN record for it";
const char kRuleAsFormat[] =
    "the client does not track the format and answers the default 1";

struct Expected {
    std::string value;
    const char *rule;
};

// A decimal key of a document; false for anything else.
bool number_key(const std::string &s, uint32_t *out)
{
    if (s.empty() || s.size() > 10 || s.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const unsigned long long v = strtoull(s.c_str(), nullptr, 10);
    if (v > 0xFFFFFFFFull)
        return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

std::string text(const json &j)
{
    if (j.is_string())
        return j.get<std::string>();
    return j.dump();
}

// Every answer of a document, by key.
std::map<Key, std::string> flatten(const json &d)
{
    std::map<Key, std::string> out;
    auto each = [&](const char *field, Subject s, const char *question) {
        if (!d.contains(field) || !d[field].is_object())
            return;
        for (const auto &e : d[field].items()) {
            uint32_t n;
            if (number_key(e.key(), &n))
                out[Key(s, n, question)] = text(e.value());
        }
    };
    each("vlan_owner", kVlan, "owner");
    each("vlan_unicast_ftag", kVlan, "unicast ftag");
    each("ftag_owner", kFtag, "owner");
    each("ftag_vlans", kFtag, "VLANs");
    if (d.contains("vlan_graph_ftag") && d["vlan_graph_ftag"].is_object())
        for (const auto &v : d["vlan_graph_ftag"].items()) {
            uint32_t n;
            if (!number_key(v.key(), &n) || !v.value().is_object())
                continue;
            for (const auto &g : v.value().items())
                out[Key(kVlan, n, "ftag of graph " + g.key())] = text(g.value());
        }
    if (d.contains("topologies") && d["topologies"].is_object())
        for (const auto &t : d["topologies"].items()) {
            uint32_t id;
            const json &o = t.value();
            if (!number_key(t.key(), &id) || !o.is_object())
                continue;
            if (o.contains("vlans"))
                out[Key(kTopology, id, "VLANs")] = text(o["vlans"]);
            if (o.contains("cfg_vlans"))
                out[Key(kTopology, id, "configured VLANs")] = text(o["cfg_vlans"]);
            if (o.contains("unicast_ftag"))
                out[Key(kTopology, id, "unicast ftag")] = text(o["unicast_ftag"]);
            if (o.contains("graph_ftag") && o["graph_ftag"].is_object())
                for (const auto &g : o["graph_ftag"].items())
                    out[Key(kTopology, id, "ftag of graph " + g.key())] = text(g.value());
        }
    return out;
}

struct DbFtag {
    uint16_t ftag, graph;
    uint32_t flags;
};

// The ftags of each topology as the database holds them.
std::map<uint32_t, std::vector<DbFtag>> database_ftags(const std::vector<uint32_t> &tpgs)
{
    std::map<uint32_t, std::vector<DbFtag>> out;
    for (uint32_t t : tpgs) {
        gyre_ftag_info_t f;
        memset(&f, 0, sizeof f);
        f.tpg_id = t;
        for (uint32_t more = gyre_get_l2_tpg_first_ftag(t, &f); more;
             more = gyre_get_l2_tpg_next_ftag(t, &f))
            out[t].push_back({f.ftag, f.graph_id, f.flags});
    }
    return out;
}

// What a cache that followed every change answers where the library's two
// paths differ on purpose.
std::map<Key, Expected> model(const std::map<Key, std::string> &db,
                              const std::vector<uint32_t> &tpgs,
                              const std::map<uint32_t, std::vector<DbFtag>> &ftags,
                              const std::vector<uint16_t> &graphs)
{
    std::map<Key, Expected> out;
    auto lowest = [&](uint32_t t, bool unicast, uint16_t graph, uint16_t *f) {
        auto it = ftags.find(t);
        if (it == ftags.end())
            return false;
        bool found = false;
        for (const DbFtag &e : it->second)
            if ((unicast ? e.flags != 0 : e.graph == graph) && (!found || e.ftag < *f)) {
                *f = e.ftag;
                found = true;
            }
        return found;
    };
    // The lowest ftag that passes, as text; "" for none.
    auto expect = [&](Key k, uint32_t t, bool unicast, uint16_t graph, const char *rule) {
        uint16_t f = 0;
        const bool found = lowest(t, unicast, graph, &f);
        out[k] = {found ? std::to_string(f) : std::string(), rule};
    };
    for (uint32_t t : tpgs) {
        expect(Key(kTopology, t, "unicast ftag"), t, true, 0, kRuleUnicast);
        for (uint16_t g : graphs)
            expect(Key(kTopology, t, "ftag of graph " + std::to_string(g)), t, false, g,
                   kRuleGraph);
        auto active = db.find(Key(kTopology, t, "VLANs"));
        if (active != db.end()) {
            out[Key(kTopology, t, "configured VLANs")] = {active->second, kRuleCfgVlans};
            continue;
        }
        out[Key(kTopology, t, "VLANs")] = {"--", kRuleNoVlanRecord};
        out[Key(kTopology, t, "configured VLANs")] = {"--", kRuleNoVlanRecord};
        auto f = ftags.find(t);
        if (f != ftags.end())
            for (const DbFtag &e : f->second)
                out[Key(kFtag, e.ftag, "VLANs")] = {"--", kRuleNoVlanRecord};
    }
    for (const auto &e : db) {
        if (std::get<0>(e.first) != kVlan || std::get<2>(e.first) != "owner")
            continue;
        const uint32_t vlan = std::get<1>(e.first);
        uint32_t owner;
        if (!number_key(e.second, &owner))
            continue;
        expect(Key(kVlan, vlan, "unicast ftag"), owner, true, 0, kRuleUnicast);
        for (uint16_t g : graphs)
            expect(Key(kVlan, vlan, "ftag of graph " + std::to_string(g)), owner, false, g,
                   kRuleGraph);
    }
    return out;
}

std::string shown(const std::string &v) { return v.empty() ? "none" : v; }

}  // namespace

VerifyCount verify_answers(uint32_t requester, int32_t sap, const std::set<uint32_t> &cached,
                           uint32_t timeout_ms)
{
    VerifyCount count;
    const std::vector<uint32_t> tpgs = all_topologies();
    const std::map<uint32_t, std::vector<DbFtag>> ftags = database_ftags(tpgs);
    std::set<uint16_t> graph_set = {1, 2};
    for (const auto &t : ftags)
        for (const DbFtag &f : t.second)
            graph_set.insert(f.graph);
    tarnhost_client::Question q;
    std::set<uint32_t> asked(tpgs.begin(), tpgs.end());
    asked.insert(cached.begin(), cached.end());
    q.topologies.assign(asked.begin(), asked.end());
    q.graphs.assign(graph_set.begin(), graph_set.end());

    std::string client_text;
    if (!tarnhost_client::ask(requester, sap, q, timeout_ms, &client_text).empty())
        return count;
    const json client = json::parse(client_text, nullptr, false);
    if (!client.is_object())
        return count;
    count.helper = true;
    const json db = json::parse(tarnhost_client::answers(q, -1), nullptr, false);

    std::map<Key, std::string> c = flatten(client), d = flatten(db);
    const std::map<Key, Expected> m = model(d, tpgs, ftags, q.graphs);

    // The AS format: the database's value, which the library reads when
    // tracking starts.
    const bool tracked = client.value("as_format_tracked", false);
    c[Key(kAsFormat, 0, "value")] = std::to_string(client.value("as_format", 1u));
    std::map<Key, Expected> as_rule;
    if (tarn_refresh_as_format_info() == 1) {
        d[Key(kAsFormat, 0, "value")] = std::to_string(tarn_cache.as_format);
        if (!tracked)
            as_rule[Key(kAsFormat, 0, "value")] = {"1", kRuleAsFormat};
    }

    std::set<Key> keys;
    for (const auto &e : c)
        keys.insert(e.first);
    for (const auto &e : d)
        keys.insert(e.first);
    for (const Key &k : keys) {
        ++count.compared;
        auto ci = c.find(k), di = d.find(k);
        const std::string cv = ci == c.end() ? "" : ci->second;
        const std::string dv = di == d.end() ? "" : di->second;
        if (cv == dv)
            continue;
        const int subject = std::get<0>(k);
        std::string where = kSubjectName[subject];
        if (subject != kAsFormat)
            where += " " + std::to_string(std::get<1>(k)) + ": " + std::get<2>(k);
        const Expected *e = nullptr;
        auto mi = m.find(k);
        if (mi != m.end())
            e = &mi->second;
        auto ai = as_rule.find(k);
        if (ai != as_rule.end())
            e = &ai->second;
        const bool on_purpose = e != nullptr && e->value == cv;
        if (on_purpose)
            ++count.intended;
        else
            ++count.divergences;
        count.differences.push_back({where, cv, dv, on_purpose ? e->rule : nullptr});
    }
    return count;
}

void print_answers(const VerifyCount &count)
{
    // Every divergence is shown; of the differences the library makes on
    // purpose, a few of each kind and a count, or a device with thousands
    // of VLANs would bury a real divergence under them.
    constexpr size_t kShownPerRule = 5;
    std::map<std::string, size_t> per_rule;
    for (const AnswerDifference &d : count.differences) {
        if (d.rule == nullptr) {
            printf("verify: %s: cache %s, database %s: DIVERGES\n", escaped(d.subject).c_str(),
                   escaped(shown(d.cache)).c_str(), escaped(shown(d.database)).c_str());
        } else if (++per_rule[d.rule] <= kShownPerRule) {
            printf("verify: %s: cache %s, database %s: as the library intends (%s)\n",
                   escaped(d.subject).c_str(), escaped(shown(d.cache)).c_str(),
                   escaped(shown(d.database)).c_str(),
                   d.rule);
        }
    }
    for (const auto &r : per_rule)
        if (r.second > kShownPerRule)
            printf("verify: and %s as the library intends (%s); --json lists them all\n",
                   counted(r.second - kShownPerRule, "more difference", "more differences")
                       .c_str(),
                   r.first.c_str());
}

json answers_json(const VerifyCount &count)
{
    json list = json::array();
    for (const AnswerDifference &d : count.differences)
        list.push_back({{"subject", d.subject},
                        {"cache", or_null(!d.cache.empty(), d.cache)},
                        {"database", or_null(!d.database.empty(), d.database)},
                        {"intended", or_null(d.rule != nullptr, d.rule != nullptr ? d.rule : "")}});
    return {{"compared", count.compared},
            {"intended", count.intended},
            {"divergences", count.divergences},
            {"differences", list}};
}

}  // namespace tarnctl
