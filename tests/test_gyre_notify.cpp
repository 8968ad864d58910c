// Random notification sequences, as a consistent Gyre service would send
// them, applied through the dispatch entries: the cache follows a model of
// the service's picture, keeps its invariants, and leaves no memory behind
// once it is turned off.

#include <stdio.h>
#include <stdlib.h>

#include "test_gyre_support.h"

using namespace gyretest;

namespace {

const char kStart[] = R"({"topologies": [
  {"id": 1, "active_vlans": "1-3", "ftags": [{"ftag": 1, "graph": 1}]},
  {"id": 2, "active_vlans": "4", "ftags": [{"ftag": 2, "graph": 2, "flags": 6}]}]})";

struct Tag {
    uint16_t graph;
    uint32_t flags;
    uint32_t owner;
};

// The picture the cache should hold.
struct Model {
    std::map<uint32_t, NodeView> nodes;
    std::map<uint32_t, Tag> tags;       // ftag -> entry
    std::map<uint32_t, uint32_t> vlans; // vlan -> owner

    void start()
    {
        nodes.clear();
        tags.clear();
        vlans.clear();
        nodes[1] = NodeView{{1}, {1, 2, 3}};
        nodes[2] = NodeView{{2}, {4}};
        tags[1] = {1, 0x10, 1};
        tags[2] = {2, 0x06, 2};
        for (uint32_t v : {1u, 2u, 3u})
            vlans[v] = 1;
        vlans[4] = 2;
    }
};

// Small universes so that notifications collide often.
uint32_t pick_vlan(std::mt19937 &rng) { return rng() % 10 == 0 ? 4095 - rng() % 3 : rng() % 48; }
uint32_t pick_ftag(std::mt19937 &rng) { return rng() % 10 == 0 ? 1023 - rng() % 3 : rng() % 24; }
uint32_t pick_id(std::mt19937 &rng) { return 1 + rng() % 12; }

std::string compare(const Model &m)
{
    if (gyre_cache == nullptr)
        return "no cache";
    const auto nodes = cache_nodes();
    if (nodes.size() != m.nodes.size())
        return "node count " + std::to_string(nodes.size()) + " != " +
               std::to_string(m.nodes.size());
    for (const auto &n : m.nodes) {
        auto it = nodes.find(n.first);
        if (it == nodes.end())
            return "missing node " + std::to_string(n.first);
        if (it->second.ftags != n.second.ftags)
            return "ftags of " + std::to_string(n.first);
        if (it->second.vlans != n.second.vlans)
            return "vlans of " + std::to_string(n.first);
    }
    for (uint32_t f = 0; f < GYRE_FTAG_COUNT; ++f) {
        const gyre_cache_ftag_entry_t &e = gyre_cache->ftags[f];
        auto it = m.tags.find(f);
        if (it == m.tags.end()) {
            if (e.owner != nullptr || e.graph_id != 0 || e.flags != 0)
                return "ftag " + std::to_string(f) + " should be unused";
        } else if (e.owner == nullptr || e.owner->tpg_id != it->second.owner ||
                   e.graph_id != it->second.graph || e.flags != it->second.flags) {
            return "ftag entry " + std::to_string(f);
        }
    }
    for (uint32_t v = 0; v < GYRE_VLAN_COUNT; ++v) {
        auto it = m.vlans.find(v);
        const gyre_cache_tpg_node_t *o = gyre_cache->vlans[v];
        if ((it == m.vlans.end()) != (o == nullptr) ||
            (o != nullptr && o->tpg_id != it->second))
            return "vlan slot " + std::to_string(v);
    }
    return "";
}

class GyreNotify : public GyreTest {
protected:
    // A Gyre notification, through either entry.
    void gyre_msg(std::mt19937 &rng, uint32_t opcode, const Bytes &payload)
    {
        bus_msg_t *msg = deliver(opcode, payload);
        ASSERT_NE(nullptr, msg);
        const int32_t rc = (rng() & 1) ? gyre_dispatch_internal(msg) : tarn_dispatch(msg);
        EXPECT_EQ(0, rc);
        bus_drop(client_, msg);
    }

    // One notification; false when it flushed the cache.
    bool step(std::mt19937 &rng, Model &m)
    {
        const uint32_t kind = rng() % 100;
        if (kind < 12) {  // 51208: a topology that does not exist yet
            uint32_t id = pick_id(rng);
            if (m.nodes.count(id))
                return true;
            gyre_msg(rng, 51208, tpg_payload(id));
            m.nodes[id] = NodeView{};
        } else if (kind < 24) {  // 51210, also for unknown topologies
            const uint32_t id = pick_id(rng);
            gyre_msg(rng, 51210, tpg_payload(id));
            auto it = m.nodes.find(id);
            if (it != m.nodes.end()) {
                for (uint32_t f : it->second.ftags)
                    m.tags.erase(f);
                for (uint32_t v : it->second.vlans)
                    m.vlans.erase(v);
                m.nodes.erase(it);
            }
        } else if (kind < 50) {  // 51214
            std::vector<uint32_t> ids;
            const size_t k = 1 + rng() % 3;
            while (ids.size() < k) {
                const uint32_t id = pick_id(rng);
                if (std::find(ids.begin(), ids.end(), id) == ids.end())
                    ids.push_back(id);
            }
            // A VLAN may go to a record when it is free or owned by one of
            // the topologies named: one owner per VLAN, as the service keeps.
            std::vector<std::pair<uint32_t, Set>> records;
            Set taken;
            for (uint32_t id : ids) {
                Set s;
                const size_t n = rng() % 12;
                for (size_t i = 0; i < n; ++i) {
                    const uint32_t v = pick_vlan(rng);
                    auto owner = m.vlans.find(v);
                    const bool free = owner == m.vlans.end() ||
                                      std::find(ids.begin(), ids.end(), owner->second) != ids.end();
                    if (free && !taken.count(v)) {
                        s.insert(v);
                        taken.insert(v);
                    }
                }
                records.emplace_back(id, s);
            }
            gyre_msg(rng, 51214, vlans_payload(records));
            for (const auto &r : records) {
                NodeView &n = m.nodes[r.first];
                for (uint32_t v : n.vlans)
                    m.vlans.erase(v);
                n.vlans.clear();
            }
            for (const auto &r : records) {
                m.nodes[r.first].vlans = r.second;
                for (uint32_t v : r.second)
                    m.vlans[v] = r.first;
            }
        } else if (kind < 82) {  // 51215
            std::vector<FtagEntry> entries;
            const size_t k = 1 + rng() % 4;
            Model after = m;
            for (size_t i = 0; i < k; ++i) {
                const uint32_t what = rng() % 10;
                const uint16_t graph = static_cast<uint16_t>(rng() % 5);
                const uint32_t flags = (rng() % 3 == 0) ? 0 : (rng() & 0xFF);
                if (what < 4) {  // create a free ftag
                    const uint32_t f = pick_ftag(rng);
                    if (after.tags.count(f))
                        continue;
                    const uint32_t id = pick_id(rng);
                    entries.push_back({1, id, graph, static_cast<uint16_t>(f), flags});
                    after.nodes[id].ftags.insert(f);
                    after.tags[f] = {graph, flags, id};
                } else if (what < 6 && !after.tags.empty()) {  // update in place
                    auto it = after.tags.begin();
                    std::advance(it, rng() % after.tags.size());
                    entries.push_back({2, it->second.owner, graph,
                                       static_cast<uint16_t>(it->first), flags});
                    it->second.graph = graph;
                    it->second.flags = flags;
                } else if (what < 8 && !after.tags.empty()) {  // delete
                    auto it = after.tags.begin();
                    std::advance(it, rng() % after.tags.size());
                    entries.push_back({3, it->second.owner, graph,
                                       static_cast<uint16_t>(it->first), flags});
                    after.nodes[it->second.owner].ftags.erase(it->first);
                    after.tags.erase(it);
                } else if (what == 8) {  // delete for a topology not cached
                    const uint32_t id = 100 + rng() % 5;
                    entries.push_back({3, id, graph, static_cast<uint16_t>(pick_ftag(rng)), flags});
                } else {  // no reason, or an unknown one
                    entries.push_back({(rng() & 1) ? 0u : static_cast<uint32_t>(4 + rng() % 100), pick_id(rng), graph,
                                       static_cast<uint16_t>(pick_ftag(rng)), flags});
                }
            }
            gyre_msg(rng, 51215, ftags_payload(entries));
            m = after;
        } else if (kind < 97) {  // attribute change 2: all of a topology's ftags
            if (m.nodes.empty())
                return true;
            auto it = m.nodes.begin();
            std::advance(it, rng() % m.nodes.size());
            Set named = it->second.ftags;
            for (int i = 0; i < 2; ++i) {
                const uint32_t f = pick_ftag(rng);
                if (!m.tags.count(f))
                    named.insert(f);
            }
            EXPECT_EQ(1, attr(attr_payload(2, it->first, named)));
            for (uint32_t f : named)
                m.tags.erase(f);
            it->second.ftags.clear();
        } else {  // attribute change 3: flush
            EXPECT_EQ(1, attr(attr_payload(3)));
            EXPECT_EQ(nullptr, gyre_cache);
            EXPECT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
            return false;
        }
        return true;
    }
};

TEST_F(GyreNotify, RandomSequencesKeepTheInvariants)
{
    load(kStart);
    const char *env = getenv("GYRE_NOTIFY_SEQUENCES");
    const int sequences = env != nullptr ? atoi(env) : 2000;
    std::mt19937 rng(0x6779);
    int checked = 0, messages = 0;
    for (int seq = 0; seq < sequences; ++seq) {
        ASSERT_EQ(1u, enable_cache());
        Model m;
        m.start();
        ASSERT_EQ("", compare(m)) << "after the build";
        const int steps = 1 + static_cast<int>(rng() % 16);
        for (int i = 0; i < steps; ++i) {
            ++messages;
            const bool cached = step(rng, m);
            if (HasFailure())
                FAIL() << "sequence " << seq << " step " << i;
            if (!cached)
                break;
            const std::string bad = invariant_violation();
            ASSERT_EQ("", bad) << "sequence " << seq << " step " << i;
            ASSERT_EQ("", compare(m)) << "sequence " << seq << " step " << i;
        }
        ASSERT_EQ(1u, gyre_disable_cache_mode());
        ASSERT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE)) << seq;
        ASSERT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG)) << seq;
        ++checked;
    }
    printf("%d notification sequences (%d messages) checked\n", checked, messages);
    EXPECT_TRUE(syslog_lines().empty());
}

}  // namespace
