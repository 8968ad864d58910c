// Tarn queries over a device of 4,000 contexts (two tables each) and 16,000
// interfaces, each beside a raw LMDB read of the same key (mdb_get in a
// renewed read transaction) in the same run.  The "ratio" lines give a
// query's time over the raw read's.  Most ask about 256 keys in turn, which
// a thread's kept answers hold while nothing is committed; the "All" lines
// ask about every interface, so that nearly every read is a fresh one.

#include <stdio.h>

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/query_device.h"
#include "bench/ratio_reporter.h"

#include <tarn/tarn.h>

namespace {

using tarnbench::key_id;
using tarnbench::key_name;

tarnbench::QueryDevice &device() { return tarnbench::query_device(); }

void BM_RawReadContextName(benchmark::State &state)
{
    tarnbench::QueryDevice &d = device();
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
    tarnbench::QueryDevice &d = device();
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
    tarnbench::QueryDevice &d = device();
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

// The same over all 16,000 interfaces in turn (a stride prime to their
// count): more keys than a thread's reads keep, so nearly every read is a
// fresh one.
constexpr uint32_t kStride = 7919;

void BM_RawReadIfContextAll(benchmark::State &state)
{
    tarnbench::QueryDevice &d = device();
    std::vector<std::vector<uint8_t>> keys;
    for (uint32_t i = 1; i <= tarnbench::kInterfaces; ++i)
        keys.push_back(key_id(5, i));
    size_t n = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(d.raw_read(keys[(n++ * kStride) % tarnbench::kInterfaces].data()));
}

void BM_IfContextIdAll(benchmark::State &state)
{
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state)
        found += tarn_if_get_context_id(
                     static_cast<uint32_t>((n++ * kStride) % tarnbench::kInterfaces + 1)) != 0;
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
BENCHMARK(BM_RawReadIfContextAll);
BENCHMARK(BM_IfContextIdAll);
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
                            {"BM_IfContextIdAll", "BM_RawReadIfContextAll"},
                            {"BM_NextContextStep", "BM_RawReadContextInfo"}});
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
