// Gyre queries over a fabric of 64 topologies, 1024 ftags and 4096 VLANs,
// with the client cache on and off, each beside a raw LMDB read of the key
// the database path reads first (mdb_get in a renewed read transaction);
// whole cache dumps of 64, 4,096 and 100,000 topologies beside one walk of
// the tree; the cache build; and applying a VLAN-update message
// of 64 records and an ftag-update message of 100 entries.  The counter
// "ratio" lines compare each query to its raw read.  The raw reads go
// through 256 keys (and "All" through every VLAN's); the queries through all
// 4,096 VLANs (1,024 ftags), except the "256" lines, which ask about the
// raw read's 256 VLANs.

#include <lmdb.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/ratio_reporter.h"
#include "bench/raw_lmdb.h"
#include "tests/support/dump_page_reference.h"

#include "platform/alloctrack.h"

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "gyre/internal.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "tools/device_loader.h"

namespace {

constexpr uint32_t kTopologies = 64;
constexpr uint32_t kFtagsPerTopology = 1024 / kTopologies;
constexpr uint32_t kVlansPerTopology = 4096 / kTopologies;
constexpr uint32_t kSap = 4343;

uint32_t topology_id(uint32_t i) { return 100 + i; }

// Topology i has VLANs 64i..64i+63 and ftags 16i..16i+15; its first ftag is
// graph 1 (unicast), the others graphs 2..16 (multicast).
std::string fabric_json(uint32_t topologies, uint32_t ftags_each, uint32_t vlans_each)
{
    std::string j = "{\"topologies\": [";
    for (uint32_t i = 0; i < topologies; ++i) {
        j += (i ? "," : "") + std::string("{\"id\": ") + std::to_string(topology_id(i));
        if (vlans_each > 0)
            j += ", \"active_vlans\": \"" + std::to_string(i * vlans_each) + "-" +
                 std::to_string(i * vlans_each + vlans_each - 1) + "\"";
        j += ", \"ftags\": [";
        for (uint32_t k = 0; k < ftags_each; ++k)
            j += (k ? "," : "") + std::string("{\"ftag\": ") +
                 std::to_string(i * ftags_each + k) + ", \"graph\": " + std::to_string(k + 1) +
                 "}";
        j += "]}";
    }
    return j + "]}";
}

struct Bench {
    RawLmdb raw;
    uint32_t client = BUS_HANDLE_NONE, service = BUS_HANDLE_NONE;
    bool ok = false;

    Bench()
    {
        char tmpl[] = "/tmp/gyrebench.XXXXXX";
        const char *root = mkdtemp(tmpl);
        if (root == nullptr)
            return;
        setenv("TARNHOST_ROOT", root, 1);
        tarnhost_root_prepare();
        tarnhost_log_set_facility("tarn", 5);
        if (tarndev::load_device_text(fabric_json(kTopologies, kFtagsPerTopology, kVlansPerTopology),
                                      "bench")
                    .status != 0 ||
            tarn_api_init() != 1 || gyre_api_init() != 1)
            return;
        client = bus_bind(4, kSap, nullptr, "bench client");
        service = bus_bind(4, -1, nullptr, "bench service");
        if (client == BUS_HANDLE_NONE || service == BUS_HANDLE_NONE)
            return;
        if (!raw.open("gyre_kvs_info"))
            return;
        ok = true;
    }

    bool raw_read(const uint8_t *key) { return raw.read(key, 40); }

    bool cache(bool on)
    {
        if (!on)
            return gyre_disable_cache_mode() == 1 && gyre_cache_enabled == 0;
        if (gyre_cache_enabled)
            return true;
        gyre_cache_attr_t attr{client};
        return gyre_enable_cache_mode(&attr) == 1;
    }

    bus_msg_t *message(uint32_t opcode, const std::vector<uint8_t> &payload)
    {
        bus_send_opts_t opts;
        memset(&opts, 0, sizeof opts);
        opts.w[0] = 1;
        if (bus_send(service, BUS_NODE_LOCAL, kSap, opcode, payload.data(),
                     static_cast<uint32_t>(payload.size()), nullptr, nullptr, &opts) != 0)
            return nullptr;
        return tarnhost_bus_recv_ms(client, 2000);
    }
};

Bench &bench()
{
    static Bench b;
    return b;
}

// VLANs spread over the fabric (a stride prime to 4096).
uint32_t vlan_at(size_t n) { return static_cast<uint32_t>((n * 1237) & 4095); }
uint16_t ftag_at(size_t n) { return static_cast<uint16_t>((n * 613) & 1023); }

template <class F>
void with_cache(benchmark::State &state, bool on, F f)
{
    if (!bench().cache(on)) {
        state.SkipWithError("cache switch failed");
        return;
    }
    size_t n = 0, found = 0;
    for (auto _ : state)
        found += f(n++);
    if (static_cast<benchmark::IterationCount>(found) != state.iterations())
        state.SkipWithError("a query was not answered");
}

// ---- raw reads ---------------------------------------------------------------------

void raw(benchmark::State &state, void (*make)(uint8_t *, size_t))
{
    std::vector<std::vector<uint8_t>> keys(256, std::vector<uint8_t>(40));
    for (size_t i = 0; i < keys.size(); ++i)
        make(keys[i].data(), i);
    size_t n = 0, found = 0;
    for (auto _ : state)
        found += bench().raw_read(keys[n++ & 255].data());
    if (static_cast<benchmark::IterationCount>(found) != state.iterations())
        state.SkipWithError("a key was not found");
}

void BM_RawReadVlanTpg(benchmark::State &state)
{
    raw(state, [](uint8_t *k, size_t i) { gyre_make_vlan_tpg_key(k, vlan_at(i)); });
}

// The same over all 4,096 VLANs, in the queries' order.
void BM_RawReadVlanTpgAll(benchmark::State &state)
{
    std::vector<std::vector<uint8_t>> keys(4096, std::vector<uint8_t>(40));
    for (size_t i = 0; i < keys.size(); ++i)
        gyre_make_vlan_tpg_key(keys[i].data(), vlan_at(i));
    size_t n = 0, found = 0;
    for (auto _ : state)
        found += bench().raw_read(keys[n++ & 4095].data());
    if (static_cast<benchmark::IterationCount>(found) != state.iterations())
        state.SkipWithError("a key was not found");
}

void BM_RawReadFtagTpg(benchmark::State &state)
{
    raw(state, [](uint8_t *k, size_t i) { gyre_make_ftag_tpg_key(k, ftag_at(i)); });
}

void BM_RawReadTpgVlans(benchmark::State &state)
{
    raw(state, [](uint8_t *k, size_t i) {
        gyre_make_tpg_vlans_key(k, std::to_string(topology_id(static_cast<uint32_t>(i % kTopologies))).c_str(), 1);
    });
}

// ---- queries -----------------------------------------------------------------------

void BM_VlanFtag(benchmark::State &state)
{
    with_cache(state, state.range(0) != 0, [](size_t n) {
        uint16_t f;
        return gyre_get_vlan_ftag(vlan_at(n), 2, &f);
    });
}

// The two that read twice, without the cache, asked about the 256 VLANs
// the raw baseline reads (the lines above go through all 4,096): answers a
// thread read since the last commit are given again without a snapshot.
void BM_VlanFtag256(benchmark::State &state)
{
    with_cache(state, false, [](size_t n) {
        uint16_t f;
        return gyre_get_vlan_ftag(vlan_at(n & 255), 2, &f);
    });
}

void BM_UnicastFtagByVlan256(benchmark::State &state)
{
    with_cache(state, false, [](size_t n) {
        uint16_t f;
        return gyre_get_unicast_ftag_by_vlan(vlan_at(n & 255), &f);
    });
}

void BM_FtagTpg(benchmark::State &state)
{
    with_cache(state, state.range(0) != 0,
               [](size_t n) { return gyre_get_ftag_l2_tpg(ftag_at(n)) != GYRE_TPG_NONE ? 1u : 0u; });
}

void BM_UnicastFtagByVlan(benchmark::State &state)
{
    with_cache(state, state.range(0) != 0, [](size_t n) {
        uint16_t f;
        return gyre_get_unicast_ftag_by_vlan(vlan_at(n), &f);
    });
}

void BM_TpgVlans(benchmark::State &state)
{
    std::vector<std::string> names;
    for (uint32_t i = 0; i < kTopologies; ++i)
        names.push_back(std::to_string(topology_id(i)));
    with_cache(state, state.range(0) != 0, [&names](size_t n) {
        gyre_vlan_bmp_t b;
        b.len = 512;
        return gyre_get_l2_tpg_vlans(names[n % kTopologies].c_str(), &b, 1);
    });
}

// ---- dump paging ---------------------------------------------------------------------

// The cache holds the fabric's 64 topologies and, for the larger sizes,
// further ones (ids from 1,000,000 up) added straight to the tree.  So that
// every size dumps alike topologies, each then holds one VLAN and one ftag,
// whose owner is the last topology given it (the others show out of sync:
// the check costs the same).
bool cache_of(benchmark::State &state, uint32_t topologies)
{
    Bench &b = bench();
    if (!b.cache(false) || !b.cache(true)) {
        state.SkipWithError("cache switch failed");
        return false;
    }
    for (uint32_t i = bst_count(&gyre_cache->tree); i < topologies; ++i)
        if (gyre_cache_add_tpg(1000000 + i) == nullptr) {
            state.SkipWithError("could not add a topology");
            return false;
        }
    memset(gyre_cache->vlans, 0, sizeof gyre_cache->vlans);
    memset(gyre_cache->ftags, 0, sizeof gyre_cache->ftags);
    uint32_t k = 0;
    for (auto *n = static_cast<gyre_cache_tpg_node_t *>(bst_get_first_node(&gyre_cache->tree));
         n != nullptr;
         n = static_cast<gyre_cache_tpg_node_t *>(bst_get_next_node(&gyre_cache->tree, n)), ++k) {
        memset(n->vlans.bits, 0, sizeof n->vlans.bits);
        memset(n->ftags.bits, 0, sizeof n->ftags.bits);
        const uint32_t vlan = k % 4096, ftag = k % 1024;
        n->vlans.bits[vlan / 8] = static_cast<uint8_t>(0x80u >> (vlan % 8));
        n->ftags.bits[ftag / 8] = static_cast<uint8_t>(0x80u >> (ftag % 8));
        gyre_cache->vlans[vlan] = n;
        gyre_cache->ftags[ftag].owner = n;
    }
    if (bst_count(&gyre_cache->tree) != topologies) {
        state.SkipWithError("not the number of topologies asked for");
        return false;
    }
    return true;
}

// Reports the time per topology and switches the cache off again.
void end_dump_bench(benchmark::State &state, uint32_t topologies)
{
    state.counters["per_topology"] = benchmark::Counter(
        topologies, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    bench().cache(false);
}

// Every page of the dump in turn, as a requester asks for them, built by
// `page`; counts the records to make sure that every topology was seen.
template <class Page>
void whole_dump(benchmark::State &state, Page page)
{
    const uint32_t topologies = static_cast<uint32_t>(state.range(0));
    if (!cache_of(state, topologies))
        return;
    for (auto _ : state) {
        uint32_t records = 0;
        for (uint32_t iteration = 1;; ++iteration) {
            uint32_t status = 0, n = 0;
            if (!page(iteration, &status, &n)) {
                state.SkipWithError("no page");
                break;
            }
            records += n;
            if (status != GYRE_CACHE_DUMP_MORE)
                break;
        }
        if (records != topologies)
            state.SkipWithError("a topology was missed");
    }
    end_dump_bench(state, topologies);
}

void BM_DumpAll(benchmark::State &state)
{
    whole_dump(state, [](uint32_t iteration, uint32_t *status, uint32_t *n) {
        uint32_t size = 0;
        void *p = gyre_cache_build_resp_info(iteration, &size);
        if (p == nullptr)
            return false;
        memcpy(status, p, 4);
        memcpy(n, static_cast<uint8_t *>(p) + 8, 4);
        free(p);
        return true;
    });
}

// The same pages found by stepping from the first node every time.
void BM_StraightforwardDumpAll(benchmark::State &state)
{
    whole_dump(state, [](uint32_t iteration, uint32_t *status, uint32_t *n) {
        const std::vector<uint8_t> p = dumpref::reference_page(iteration);
        if (p.empty())
            return false;
        memcpy(status, p.data(), 4);
        memcpy(n, p.data() + 8, 4);
        return true;
    });
}

// The least a dump must do: one walk of the tree copying each topology's
// 656-byte record.
void BM_WalkAndCopy(benchmark::State &state)
{
    const uint32_t topologies = static_cast<uint32_t>(state.range(0));
    if (!cache_of(state, topologies))
        return;
    std::vector<uint8_t> record(GYRE_CACHE_DUMP_RECORD_SIZE);
    for (auto _ : state) {
        uint32_t walked = 0;
        for (auto *n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_first_node(&gyre_cache->tree));
             n != nullptr;
             n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_next_node(&gyre_cache->tree, n))) {
            memcpy(record.data(), &n->tpg_id, 4);
            memcpy(record.data() + 8, n->ftags.bits, GYRE_FTAG_BMP_BYTES);
            memcpy(record.data() + 140, n->vlans.bits, GYRE_VLAN_BMP_BYTES);
            benchmark::DoNotOptimize(record.data());
            benchmark::ClobberMemory();
            ++walked;
        }
        if (walked != topologies)
            state.SkipWithError("a topology was missed");
    }
    end_dump_bench(state, topologies);
}

// ---- the cache build and the notifications ------------------------------------------------

// What the cache holds, from the memory tracker's counts.
void count_cache_memory(benchmark::State &state)
{
    state.counters["cache_bytes"] = static_cast<double>(
        alloctrack_live_bytes(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE));
    state.counters["topology_bytes"] = static_cast<double>(
        alloctrack_live_bytes(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
    state.counters["topologies"] = static_cast<double>(
        alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
}

void BM_CacheBuild64(benchmark::State &state)
{
    Bench &b = bench();
    for (auto _ : state) {
        if (!b.cache(true)) {
            state.SkipWithError("enable failed");
            break;
        }
        state.PauseTiming();
        count_cache_memory(state);
        b.cache(false);
        state.ResumeTiming();
    }
}

void BM_ApplyVlanUpdate64(benchmark::State &state)
{
    Bench &b = bench();
    if (!b.cache(true)) {
        state.SkipWithError("enable failed");
        return;
    }
    // The fabric's own sets, so every application leaves the cache as it was.
    std::vector<uint8_t> p(24 + 556 * kTopologies, 0);
    const uint32_t count = kTopologies;
    memcpy(&p[20], &count, 4);
    for (uint32_t i = 0; i < kTopologies; ++i) {
        uint8_t *r = &p[24 + 556 * i];
        const uint32_t id = topology_id(i), len = 512;
        memcpy(r, &id, 4);
        memcpy(r + 40, &len, 4);
        for (uint32_t v = i * kVlansPerTopology; v < (i + 1) * kVlansPerTopology; ++v)
            r[44 + v / 8] |= static_cast<uint8_t>(0x80u >> (v % 8));
    }
    bus_msg_t *msg = b.message(51214, p);
    if (msg == nullptr) {
        state.SkipWithError("no message");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(gyre_dispatch_internal(msg));
    bus_drop(b.client, msg);
}

void BM_ApplyFtagUpdate100(benchmark::State &state)
{
    Bench &b = bench();
    if (!b.cache(true)) {
        state.SkipWithError("enable failed");
        return;
    }
    std::vector<uint8_t> p(4 + 1048 * 100, 0);
    const uint32_t count = 100;
    memcpy(&p[0], &count, 4);
    for (uint32_t i = 0; i < 100; ++i) {
        uint8_t *e = &p[4 + 1048 * i];
        const uint16_t ftag = static_cast<uint16_t>(i * 10), graph = static_cast<uint16_t>(ftag % kFtagsPerTopology + 1);
        const uint32_t reason = GYRE_FTAG_UPDATE, tpg = topology_id(ftag / kFtagsPerTopology),
                       flags = graph == 1 ? 0x10 : 0x02;
        memcpy(e, &reason, 4);
        memcpy(e + 4, &tpg, 4);
        memcpy(e + 8, &graph, 2);
        memcpy(e + 10, &ftag, 2);
        memcpy(e + 12, &flags, 4);
    }
    bus_msg_t *msg = b.message(51215, p);
    if (msg == nullptr) {
        state.SkipWithError("no message");
        return;
    }
    for (auto _ : state)
        benchmark::DoNotOptimize(gyre_dispatch_internal(msg));
    bus_drop(b.client, msg);
}

// Replaces the device: runs last.
void BM_CacheBuild1000(benchmark::State &state)
{
    Bench &b = bench();
    b.cache(false);
    if (tarndev::load_device_text(fabric_json(1000, 1, 4), "bench 1000").status != 0) {
        state.SkipWithError("load failed");
        return;
    }
    for (auto _ : state) {
        if (!b.cache(true)) {
            state.SkipWithError("enable failed");
            break;
        }
        state.PauseTiming();
        if (bst_count(&gyre_cache->tree) != 1000)
            state.SkipWithError("not 1000 topologies");
        count_cache_memory(state);
        b.cache(false);
        state.ResumeTiming();
    }
}

BENCHMARK(BM_RawReadVlanTpg);
BENCHMARK(BM_RawReadVlanTpgAll);
BENCHMARK(BM_RawReadFtagTpg);
BENCHMARK(BM_RawReadTpgVlans);
BENCHMARK(BM_VlanFtag)->Arg(0)->Arg(1);
BENCHMARK(BM_VlanFtag256);
BENCHMARK(BM_UnicastFtagByVlan256);
BENCHMARK(BM_FtagTpg)->Arg(0)->Arg(1);
BENCHMARK(BM_UnicastFtagByVlan)->Arg(0)->Arg(1);
BENCHMARK(BM_TpgVlans)->Arg(0)->Arg(1);
BENCHMARK(BM_WalkAndCopy)->Arg(64)->Arg(4096)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DumpAll)->Arg(64)->Arg(4096)->Arg(100000)->Unit(benchmark::kMicrosecond);
// Quadratic: 100,000 topologies would take seconds per dump.
BENCHMARK(BM_StraightforwardDumpAll)->Arg(64)->Arg(4096)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CacheBuild64)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ApplyVlanUpdate64)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ApplyFtagUpdate100)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_CacheBuild1000)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (!bench().ok) {
        fprintf(stderr, "bench_gyre: could not set up the fabric\n");
        return 1;
    }
    RatioReporter reporter({{"BM_VlanFtag/0", "BM_RawReadVlanTpg"},
                            {"BM_VlanFtag/1", "BM_RawReadVlanTpg"},
                            {"BM_VlanFtag/0", "BM_RawReadVlanTpgAll"},
                            {"BM_UnicastFtagByVlan/0", "BM_RawReadVlanTpgAll"},
                            {"BM_VlanFtag256", "BM_RawReadVlanTpg"},
                            {"BM_UnicastFtagByVlan256", "BM_RawReadVlanTpg"},
                            {"BM_FtagTpg/0", "BM_RawReadFtagTpg"},
                            {"BM_FtagTpg/1", "BM_RawReadFtagTpg"},
                            {"BM_UnicastFtagByVlan/0", "BM_RawReadVlanTpg"},
                            {"BM_UnicastFtagByVlan/1", "BM_RawReadVlanTpg"},
                            {"BM_TpgVlans/0", "BM_RawReadTpgVlans"},
                            {"BM_TpgVlans/1", "BM_RawReadTpgVlans"},
                            {"BM_DumpAll/64", "BM_WalkAndCopy/64"},
                            {"BM_DumpAll/4096", "BM_WalkAndCopy/4096"},
                            {"BM_DumpAll/100000", "BM_WalkAndCopy/100000"},
                            {"BM_StraightforwardDumpAll/64", "BM_WalkAndCopy/64"},
                            {"BM_StraightforwardDumpAll/4096", "BM_WalkAndCopy/4096"}});
    reporter.add_per_item("BM_DumpAll/4096", "BM_DumpAll/64", 4096.0 / 64);
    reporter.add_per_item("BM_DumpAll/100000", "BM_DumpAll/64", 100000.0 / 64);
    reporter.add_per_item("BM_StraightforwardDumpAll/4096", "BM_StraightforwardDumpAll/64",
                          4096.0 / 64);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
