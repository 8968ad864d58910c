// Differential: a caching client in its own process follows a long random
// sequence of changes played by the real "tarnctl apply"; after each file,
// every Gyre query of the client answers as a cache freshly built over the
// changed databases does, and every cached topology passes the check.

#include <map>
#include <random>
#include <set>

#include "test_gyre_lifecycle_support.h"

using namespace lifecycle;

namespace {

constexpr int32_t kSap = 4712;

struct Ftag {
    uint32_t tpg, graph, flags;
};

// The generator's picture of the device, to make only valid changes.
struct Model {
    std::map<uint32_t, std::set<uint32_t>> active;  // topology -> VLANs
    std::map<uint32_t, Ftag> ftags;
    std::mt19937 rng;

    explicit Model(uint32_t seed) : rng(seed) {}
    uint32_t pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(rng); }
    uint32_t any_topology()
    {
        auto it = active.begin();
        std::advance(it, pick(static_cast<uint32_t>(active.size())));
        return it->first;
    }
    static std::string text(const std::set<uint32_t> &s)
    {
        std::string out;
        for (uint32_t v : s)
            out += (out.empty() ? "" : ",") + std::to_string(v);
        return out;
    }
    bool free_slot(uint32_t tpg, uint32_t graph, uint32_t flags, uint32_t except)
    {
        for (const auto &f : ftags)
            if (f.first != except && f.second.tpg == tpg && f.second.graph == graph &&
                f.second.flags == flags)
                return false;
        return true;
    }

    std::string create()
    {
        uint32_t id;
        do
            id = 1 + pick(40);
        while (active.count(id) != 0);
        active[id];
        return "{\"change\": \"create_topology\", \"topology\": " + std::to_string(id) + "}";
    }
    std::string remove()
    {
        const uint32_t t = any_topology();
        active.erase(t);
        for (auto it = ftags.begin(); it != ftags.end();)
            it = it->second.tpg == t ? ftags.erase(it) : std::next(it);
        return "{\"change\": \"delete_topology\", \"topology\": " + std::to_string(t) + "}";
    }
    std::string vlans()
    {
        std::set<uint32_t> listed;
        const uint32_t n = 1 + pick(std::min<uint32_t>(3, static_cast<uint32_t>(active.size())));
        while (listed.size() < n)
            listed.insert(any_topology());
        std::set<uint32_t> taken;
        for (const auto &a : active)
            if (listed.count(a.first) == 0)
                taken.insert(a.second.begin(), a.second.end());
        std::string j = "{\"change\": \"topology_vlans\", \"topologies\": [";
        bool first = true;
        for (uint32_t t : listed) {
            std::set<uint32_t> s;
            // A few runs, some around the places VLANs move between.
            const uint32_t runs = pick(4);
            for (uint32_t r = 0; r < runs; ++r) {
                const uint32_t lo = pick(2) ? pick(4096) : pick(200);
                const uint32_t len = 1 + pick(pick(3) == 0 ? 300 : 12);
                for (uint32_t v = lo; v < lo + len && v < 4096; ++v)
                    if (taken.count(v) == 0)
                        s.insert(v);
            }
            taken.insert(s.begin(), s.end());
            active[t] = s;
            j += std::string(first ? "" : ", ") + "{\"topology\": " + std::to_string(t) +
                 ", \"active_vlans\": \"" + text(s) + "\"" +
                 (pick(2) ? ", \"configured_vlans\": \"" + text(s) + "\"" : "") + "}";
            first = false;
        }
        return j + "]}";
    }
    std::string ftag_changes()
    {
        std::string j = "{\"change\": \"ftags\", \"ftags\": [";
        const uint32_t n = 1 + pick(6);
        static const uint32_t kFlags[] = {0x02, 0x06, 0x10, 0x14, 0x04};
        for (uint32_t i = 0; i < n; ++i) {
            const uint32_t r = ftags.empty() ? 0 : pick(3);
            std::string e;
            if (r == 0) {
                uint32_t f;
                do
                    f = pick(1024);
                while (ftags.count(f) != 0);
                const uint32_t t = any_topology();
                const uint32_t g = pick(5);
                const bool dflt = pick(2) == 0;
                const uint32_t fl = dflt ? (g == 1 ? 0x10u : 0x02u) : kFlags[pick(5)];
                if (!free_slot(t, g, fl, 0xFFFF))
                    continue;
                ftags[f] = Ftag{t, g, fl};
                e = "{\"reason\": \"create\", \"topology\": " + std::to_string(t) +
                    ", \"ftag\": " + std::to_string(f) + ", \"graph\": " + std::to_string(g) +
                    (dflt ? "" : ", \"flags\": " + std::to_string(fl)) + "}";
            } else {
                auto it = ftags.begin();
                std::advance(it, pick(static_cast<uint32_t>(ftags.size())));
                const uint32_t f = it->first;
                const uint32_t t = it->second.tpg;
                if (r == 1) {
                    const uint32_t g = pick(5);
                    const uint32_t fl = kFlags[pick(5)];
                    if (!free_slot(t, g, fl, f))
                        continue;
                    it->second = Ftag{t, g, fl};
                    e = "{\"reason\": \"update\", \"topology\": " + std::to_string(t) +
                        ", \"ftag\": " + std::to_string(f) + ", \"graph\": " +
                        std::to_string(g) + ", \"flags\": " + std::to_string(fl) + "}";
                } else {
                    ftags.erase(it);
                    e = "{\"reason\": \"delete\", \"ftag\": " + std::to_string(f) +
                        (pick(2) ? ", \"topology\": " + std::to_string(t) : "") + "}";
                }
            }
            j += (j.back() == '[' ? "" : ", ") + e;
        }
        if (j.back() == '[')
            return "";
        return j + "]}";
    }
    std::string drop_ftags()
    {
        const uint32_t t = any_topology();
        for (auto it = ftags.begin(); it != ftags.end();)
            it = it->second.tpg == t ? ftags.erase(it) : std::next(it);
        return "{\"change\": \"delete_topology_ftags\", \"topology\": " + std::to_string(t) + "}";
    }
    std::string next()
    {
        for (;;) {
            const uint32_t k = pick(20);
            if (active.size() < 2 || k < 2) {
                if (active.size() < 30)
                    return create();
                continue;
            }
            if (k < 4)
                return remove();
            if (k < 9)
                return vlans();
            if (k < 15) {
                std::string s = ftag_changes();
                if (!s.empty())
                    return s;
                continue;
            }
            if (k < 16)
                return drop_ftags();
            if (k < 17)
                return "{\"change\": \"as_format\", \"format\": " + std::to_string(1 + pick(2)) + "}";
            if (k < 18)
                return "{\"change\": \"dump_cache\"}";
            return vlans();
        }
    }
};

class GyreLifecycleDiff : public LifecycleTest {};

TEST_F(GyreLifecycleDiff, ClientFollowsEveryChangeExactly)
{
    const char *seed_env = getenv("TARN_DIFF_SEED");
    const uint32_t seed = seed_env ? static_cast<uint32_t>(strtoul(seed_env, nullptr, 10)) : 20240611u;
    const char *files_env = getenv("TARN_DIFF_FILES");
    const int files = files_env ? atoi(files_env) : 40;
    SCOPED_TRACE("TARN_DIFF_SEED=" + std::to_string(seed));
    tarntest::load_device_json(
        "{\"topologies\": [{\"id\": 100, \"active_vlans\": \"1-10\", \"configured_vlans\": \"1-20\","
        " \"ftags\": [{\"ftag\": 1000, \"graph\": 1}, {\"ftag\": 1001, \"graph\": 2}]},"
        " {\"id\": 200, \"active_vlans\": \"11-12,4095\", \"ftags\": [{\"ftag\": 0, \"graph\": 2, \"flags\": 6}]}]}");
    Model m(seed);
    m.active[100] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    m.active[200] = {11, 12, 4095};
    m.ftags[1000] = Ftag{100, 1, 0x10};
    m.ftags[1001] = Ftag{100, 2, 0x02};
    m.ftags[0] = Ftag{200, 2, 0x06};

    Client c;
    ASSERT_TRUE(c.start(kSap));
    const std::string start = c.probe();
    ASSERT_EQ(reference_digest(), start);
    // The digest holds the answers, not just a count: VLAN 4095 of 200.
    ASSERT_NE(std::string::npos, start.find("\nV 4095 200 g0=- g1=- g2=0 g3=- u=0\n")) << start;
    const std::string file = std::string(tarnhost_root()) + "/changes.json";
    size_t changes = 0;
    for (int i = 0; i < files; ++i) {
        std::string j = "{\"changes\": [";
        const uint32_t n = 1 + m.pick(4);
        for (uint32_t k = 0; k < n; ++k)
            j += (k ? ", " : "") + m.next();
        j += "]}";
        changes += n;
        write_file(file, j);
        const ToolRun r = tarnctl("apply " + file);
        ASSERT_EQ(0, r.status) << j << "\n" << r.err;
        const std::string got = c.probe();
        const std::string want = reference_digest();
        ASSERT_EQ(want, got) << "after file " << i << ": " << j;
        EXPECT_EQ(std::string::npos, got.find(" sync 0")) << j;
    }
    EXPECT_GE(changes, static_cast<size_t>(files));
    EXPECT_EQ(0, c.stop());
}

}  // namespace
