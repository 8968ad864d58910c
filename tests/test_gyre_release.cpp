// A topology node leaves the Gyre cache with nothing still pointing at it:
// after a kind-2 attribute change that names only some of a topology's
// ftags, after a VLAN update that lists a topology twice, and after any
// random mix of notifications, no ftag-table or VLAN-table entry refers to a
// node that is no longer in the tree.  Under AddressSanitizer every query and
// dump below would otherwise read freed memory.

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#include "support/gyre_tables.h"
#include "test_gyre_support.h"

using namespace gyretest;

namespace {

// Topology 8 survives every deletion below.
const char kTwoTopologies[] = R"({"topologies": [
  {"id": 7, "active_vlans": "30",
   "ftags": [{"ftag": 3, "graph": 1}, {"ftag": 4, "graph": 2}, {"ftag": 5, "graph": 3}]},
  {"id": 8, "active_vlans": "20", "ftags": [{"ftag": 9, "graph": 2}]}]})";

class GyreRelease : public GyreTest {
protected:
    // The whole-cache print when only topology 8 is left.
    std::vector<std::string> only_topology_8() const
    {
        return {
            dbg(kStars),
            dbg("Tpg -> Ftag & Vlan Mapping"),
            dbg(kRule),
            dbg(fmt("%-10s %-36s %-20s", "Topo-ID", "Active Vlans", "Ftags")),
            dbg(fmt("%-10lu %-36s %-20s", 8ul, "20", "9")),
            dbg("\n\nFtag -> Tpg Mapping"),
            dbg(kRule),
            dbg(fmt("%-10s %-10s %-20s %-10s", "Ftag", "Graph-ID", "Flags", "Tpg")),
            dbg(fmt("%-10d %-10d 0x%-20x %-lu", 9, 2, 2u, 8ul)),
            dbg("\n\nVlan -> Tpg Mapping"),
            dbg(kRule),
            dbg(fmt("%-10s %-10s", "Vlan", "Topo-ID")),
            dbg(fmt("%-10d %-10lu", 20, 8ul)),
            dbg(kStars),
        };
    }
    std::vector<std::string> printed_cache()
    {
        debug_on();
        tarnhost_capture_clear();
        gyre_cache_debug_print();
        debug_off();
        return debug_lines();
    }
};

TEST_F(GyreRelease, PartialFtagDeleteThenTopologyDelete)
{
    load(kTwoTopologies);
    ASSERT_EQ(1u, enable_cache());
    // Kind 2 for topology 7 naming ftag 3 only: the node loses all its ftag
    // bits, the table loses entry 3; entries 4 and 5 still name topology 7,
    // as the notification's handling says.
    ASSERT_EQ(1, attr(attr_payload(2, 7, {3})));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(3));
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(4));
    EXPECT_EQ(7u, gyre_get_ftag_l2_tpg(5));
    EXPECT_EQ("", dangling_entry());

    ASSERT_EQ(0, apply(51210, tpg_payload(7)));
    EXPECT_EQ("", dangling_entry());
    for (uint16_t f : {3, 4, 5})
        EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(f)) << f;
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(30));
    uint16_t ftag = 0xFFFF;
    EXPECT_EQ(0u, gyre_get_vlan_ftag(30, 2, &ftag));
    gyre_vlan_bmp_t vlans = vlan_bmp({});
    EXPECT_EQ(0u, gyre_get_ftag_vlans(4, &vlans));
    EXPECT_EQ(8u, gyre_get_ftag_l2_tpg(9));
    EXPECT_EQ(8u, gyre_get_vlan_l2_tpg(20));
    EXPECT_EQ(only_topology_8(), printed_cache());
    EXPECT_EQ(1u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
    EXPECT_TRUE(syslog_lines().empty());
}

TEST_F(GyreRelease, VlanUpdateNamingATopologyTwiceThenDelete)
{
    load(kTwoTopologies);
    ASSERT_EQ(1u, enable_cache());
    // Both records are cleared first, then set in turn: the second copy
    // replaces the node's VLANs with 12, while the table keeps 10 and 11 on
    // topology 7 from the first.
    ASSERT_EQ(0, apply(51214, vlans_payload({{7, {10, 11}}, {7, {12}}})));
    for (uint32_t v : {10u, 11u, 12u})
        EXPECT_EQ(7u, gyre_get_vlan_l2_tpg(v)) << v;
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(30));
    EXPECT_EQ((Set{12}), cache_nodes().find(7)->second.vlans);
    EXPECT_EQ("", dangling_entry());

    ASSERT_EQ(0, apply(51210, tpg_payload(7)));
    EXPECT_EQ("", dangling_entry());
    for (uint32_t v : {10u, 11u, 12u, 30u})
        EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(v)) << v;
    uint16_t ftag = 0xFFFF;
    EXPECT_EQ(0u, gyre_get_unicast_ftag_by_vlan(10, &ftag));
    EXPECT_EQ(0u, gyre_get_vlan_ftag(11, 2, &ftag));
    EXPECT_EQ(0xFFFF, ftag);
    for (uint16_t f : {3, 4, 5})
        EXPECT_EQ(GYRE_TPG_NONE, gyre_get_ftag_l2_tpg(f)) << f;
    EXPECT_EQ(only_topology_8(), printed_cache());
    // The dump page holds topology 8 alone, in sync.
    uint32_t size = 0;
    void *page = gyre_cache_build_resp_info(1, &size);
    ASSERT_NE(nullptr, page);
    ASSERT_EQ(GYRE_CACHE_DUMP_HEADER_SIZE + GYRE_CACHE_DUMP_RECORD_SIZE, size);
    uint32_t word = 0;
    memcpy(&word, static_cast<uint8_t *>(page) + 12, 4);
    EXPECT_EQ(8u, word);
    memcpy(&word, static_cast<uint8_t *>(page) + 12 + 652, 4);
    EXPECT_EQ(1u, word);
    free(page);
    EXPECT_TRUE(syslog_lines().empty());
}

// A topology created twice is in the tree twice; deleting one copy leaves
// the other, and nothing points at the one that went.
TEST_F(GyreRelease, DuplicateTopologyDeletedOneCopyAtATime)
{
    load(kTwoTopologies);
    ASSERT_EQ(1u, enable_cache());
    ASSERT_EQ(0, apply(51208, tpg_payload(7)));
    ASSERT_EQ(0, apply(51214, vlans_payload({{7, {40}}})));
    ASSERT_EQ(0, apply(51210, tpg_payload(7)));
    EXPECT_EQ("", dangling_entry());
    ASSERT_EQ(0, apply(51210, tpg_payload(7)));
    EXPECT_EQ("", dangling_entry());
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(40));
    EXPECT_EQ(GYRE_TPG_NONE, gyre_get_vlan_l2_tpg(30));
    EXPECT_EQ(only_topology_8(), printed_cache());
}

// ---- random notifications, hostile ones included ----------------------------------

uint32_t pick_id(std::mt19937 &rng) { return 1 + rng() % 6; }
uint32_t pick_vlan(std::mt19937 &rng) { return rng() % 8 == 0 ? 4095 - rng() % 2 : rng() % 40; }
uint32_t pick_ftag(std::mt19937 &rng) { return rng() % 8 == 0 ? 1023 - rng() % 2 : rng() % 20; }

Set some(std::mt19937 &rng, uint32_t (*pick)(std::mt19937 &), size_t most)
{
    Set s;
    for (size_t n = rng() % (most + 1); n > 0; --n)
        s.insert(pick(rng));
    return s;
}

class GyreReleaseRandom : public GyreRelease {
protected:
    void gyre_msg(uint32_t opcode, const Bytes &payload)
    {
        bus_msg_t *msg = deliver(opcode, payload);
        ASSERT_NE(nullptr, msg);
        EXPECT_EQ(0, tarn_dispatch(msg));
        bus_drop(client_, msg);
    }

    // One notification; false when it flushed the cache.
    bool step(std::mt19937 &rng)
    {
        const uint32_t kind = rng() % 100;
        if (kind < 12) {  // create, also of a topology already cached
            gyre_msg(51208, tpg_payload(pick_id(rng)));
        } else if (kind < 30) {  // delete, also of one that is not cached
            gyre_msg(51210, tpg_payload(pick_id(rng)));
        } else if (kind < 52) {  // VLAN sets, records repeated and overlapping
            std::vector<std::pair<uint32_t, Set>> records;
            for (size_t n = 1 + rng() % 4; n > 0; --n) {
                const uint32_t id = !records.empty() && rng() % 3 == 0
                                        ? records[rng() % records.size()].first
                                        : pick_id(rng);
                records.emplace_back(id, some(rng, pick_vlan, 6));
            }
            gyre_msg(51214, vlans_payload(records));
        } else if (kind < 74) {  // ftag entries of every reason, ftags moving
            std::vector<FtagEntry> entries;
            for (size_t n = 1 + rng() % 5; n > 0; --n)
                entries.push_back({static_cast<uint32_t>(rng() % 5), pick_id(rng),
                                   static_cast<uint16_t>(rng() % 4),
                                   static_cast<uint16_t>(pick_ftag(rng)),
                                   (rng() & 1) ? 0u : static_cast<uint32_t>(rng() & 0x16)});
            gyre_msg(51215, ftags_payload(entries));
        } else if (kind < 94) {  // kind 2 naming part of a topology's ftags
            const uint32_t id = pick_id(rng);
            Set named;
            const auto nodes = cache_nodes();
            auto it = nodes.find(id);
            if (it != nodes.end())
                for (uint32_t f : it->second.ftags)
                    if (rng() & 1)
                        named.insert(f);
            const Set extra = some(rng, pick_ftag, 2);
            named.insert(extra.begin(), extra.end());
            EXPECT_EQ(1, attr(attr_payload(2, id, named)));
        } else if (kind < 97) {  // a dump page and the whole-cache print
            uint32_t size = 0;
            free(gyre_cache_build_resp_info(1 + rng() % 2, &size));
            debug_on();
            gyre_cache_debug_print();
            debug_off();
            tarnhost_capture_clear();
        } else {  // kind 3: the whole cache goes
            EXPECT_EQ(1, attr(attr_payload(3)));
            EXPECT_EQ(nullptr, gyre_cache);
            EXPECT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
            return false;
        }
        return true;
    }

    // Every owner a query can give is a topology still in the tree.
    std::string answers_name_live_topologies()
    {
        const auto nodes = cache_nodes();
        for (uint16_t f = 0; f < GYRE_FTAG_COUNT; ++f) {
            const uint32_t t = gyre_get_ftag_l2_tpg(f);
            if (t != GYRE_TPG_NONE && nodes.count(t) == 0)
                return "ftag " + std::to_string(f) + " answers topology " + std::to_string(t);
        }
        for (uint32_t v = 0; v < GYRE_VLAN_COUNT; ++v) {
            const uint32_t t = gyre_get_vlan_l2_tpg(v);
            if (t != GYRE_TPG_NONE && nodes.count(t) == 0)
                return "vlan " + std::to_string(v) + " answers topology " + std::to_string(t);
        }
        return "";
    }
};

TEST_F(GyreReleaseRandom, NoEntryOutlivesItsNode)
{
    load(kTwoTopologies);
    const char *env = getenv("GYRE_RELEASE_SEQUENCES");
    const int sequences = env != nullptr ? atoi(env) : 600;
    std::mt19937 rng(0x7e1ea5e);
    int messages = 0;
    for (int seq = 0; seq < sequences; ++seq) {
        ASSERT_EQ(1u, enable_cache());
        const int steps = 1 + static_cast<int>(rng() % 24);
        for (int i = 0; i < steps; ++i) {
            ++messages;
            const bool cached = step(rng);
            if (HasFailure())
                FAIL() << "sequence " << seq << " step " << i;
            ASSERT_EQ("", dangling_entry()) << "sequence " << seq << " step " << i;
            if (!cached)
                break;
            ASSERT_EQ("", answers_name_live_topologies())
                << "sequence " << seq << " step " << i;
        }
        ASSERT_EQ(1u, gyre_disable_cache_mode());
        ASSERT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE)) << seq;
        ASSERT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG)) << seq;
    }
    printf("%d sequences (%d messages) checked\n", sequences, messages);
    EXPECT_TRUE(syslog_lines().empty());
}

}  // namespace
