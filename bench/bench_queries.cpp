// Tarn queries over a device of 4,000 contexts (two tables each) and 16,000
// interfaces, each beside a raw LMDB read of the same key (mdb_get in a
// renewed read transaction) in the same run.  The counter "ratio" of a
// query is its time over the raw read's.

#include <arpa/inet.h>
#include <lmdb.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/ratio_reporter.h"
#include "bench/raw_lmdb.h"

#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "tools/device_loader.h"

namespace {

constexpr int kContexts = 4000;
constexpr int kInterfaces = 16000;

struct Device {
    RawLmdb raw;
    bool ok = false;

    Device()
    {
        char tmpl[] = "/tmp/tarnbench.XXXXXX";
        const char *root = mkdtemp(tmpl);
        setenv("TARNHOST_ROOT", root, 1);
        tarnhost_root_prepare();
        std::string json = "{\"cell\": 2, \"contexts\": [";
        for (int i = 1; i <= kContexts; ++i)
            json += "{\"id\": " + std::to_string(i) + ", \"name\": \"vrf" + std::to_string(i) +
                    "\", \"tables\": [{\"id\": " + std::to_string(2 * i) +
                    ", \"af\": 1, \"name\": \"t4\"}, {\"id\": " + std::to_string(2 * i + 1) +
                    ", \"af\": 2, \"name\": \"t6\"}]}" + (i < kContexts ? "," : "");
        json += "], \"interfaces\": [";
        for (int i = 1; i <= kInterfaces; ++i)
            json += "{\"ifindex\": " + std::to_string(i) + ", \"iod\": " + std::to_string(i) +
                    ", \"name\": \"e" + std::to_string(i) + "\", \"context\": \"vrf" +
                    std::to_string(1 + i % kContexts) + "\"}" + (i < kInterfaces ? "," : "");
        json += "]}";
        if (tarndev::load_device_text(json, "bench").status != 0 || tarn_api_init() != 1)
            return;
        if (!raw.open("tarn_global_kvs"))
            return;
        ok = true;
    }

    // The raw read the queries are measured against.
    bool raw_read(const uint8_t *key) { return raw.read(key, 48); }
};

Device &device()
{
    static Device d;
    return d;
}

std::vector<uint8_t> key_id(uint32_t kind, uint32_t id)
{
    std::vector<uint8_t> key(48, 0);
    const uint32_t k = htonl(kind), v = htonl(id);
    memcpy(&key[0], &k, 4);
    memcpy(&key[4], &v, 4);
    return key;
}

std::vector<uint8_t> key_name(uint32_t kind, const std::string &name)
{
    std::vector<uint8_t> key(48, 0);
    const uint32_t k = htonl(kind);
    memcpy(&key[0], &k, 4);
    memcpy(&key[4], name.data(), name.size());
    return key;
}

void BM_RawReadContextName(benchmark::State &state)
{
    Device &d = device();
    std::vector<std::vector<uint8_t>> keys;
    for (int i = 1; i <= 256; ++i)
        keys.push_back(key_name(1, "vrf" + std::to_string(i * 13)));
    size_t n = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(d.raw_read(keys[n++ & 255].data()));
}

void BM_ContextId(benchmark::State &state)
{
    std::vector<std::string> names;
    for (int i = 1; i <= 256; ++i)
        names.push_back("vrf" + std::to_string(i * 13));
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state)
        found += tarn_get_context_id(names[n++ & 255].c_str()) != 0;
    if (found != state.iterations())
        state.SkipWithError("a context was not found");
}

void BM_RawReadContextInfo(benchmark::State &state)
{
    Device &d = device();
    std::vector<std::vector<uint8_t>> keys;
    for (int i = 1; i <= 256; ++i)
        keys.push_back(key_id(3, static_cast<uint32_t>(i * 13)));
    size_t n = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(d.raw_read(keys[n++ & 255].data()));
}

void BM_ContextInfo(benchmark::State &state)
{
    tarn_context_info_t info;
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state)
        found += tarn_get_context_info(static_cast<uint32_t>(((n++ & 255) + 1) * 13), &info);
    if (found != state.iterations())
        state.SkipWithError("a context was not found");
}

void BM_RawReadIfContext(benchmark::State &state)
{
    Device &d = device();
    std::vector<std::vector<uint8_t>> keys;
    for (int i = 1; i <= 256; ++i)
        keys.push_back(key_id(5, static_cast<uint32_t>(i * 61)));
    size_t n = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(d.raw_read(keys[n++ & 255].data()));
}

// Two reads underneath: the interface's binding, then its context's id.
void BM_IfContextId(benchmark::State &state)
{
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state)
        found += tarn_if_get_context_id(static_cast<uint32_t>(((n++ & 255) + 1) * 61)) != 0;
    if (found != state.iterations())
        state.SkipWithError("an interface was not found");
}

void BM_NextContextStep(benchmark::State &state)
{
    tarn_context_info_t info;
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state)
        found += tarn_get_next_context_info(static_cast<uint32_t>(((n++ & 255) + 1) * 13), &info) != 0;
    if (found != state.iterations())
        state.SkipWithError("the walk ended early");
}

BENCHMARK(BM_RawReadContextName);
BENCHMARK(BM_ContextId);
BENCHMARK(BM_RawReadContextInfo);
BENCHMARK(BM_ContextInfo);
BENCHMARK(BM_RawReadIfContext);
BENCHMARK(BM_IfContextId);
BENCHMARK(BM_NextContextStep);

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (!device().ok) {
        fprintf(stderr, "bench_queries: could not set up the device\n");
        return 1;
    }
    RatioReporter reporter({{"BM_ContextId", "BM_RawReadContextName"},
                            {"BM_ContextInfo", "BM_RawReadContextInfo"},
                            {"BM_IfContextId", "BM_RawReadIfContext"},
                            {"BM_NextContextStep", "BM_RawReadContextInfo"}});
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
