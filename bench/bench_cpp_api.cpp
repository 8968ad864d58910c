// The C++ interface's cost over the C calls it wraps, in the same run, on
// the query benchmark's device (4,000 contexts, 16,000 interfaces): each
// wrapped query beside the bare C call, and a walk as a range beside the C
// loop.  The "ratio" lines give the C++ time over the C time.

#include <stdio.h>

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/query_device.h"
#include "bench/ratio_reporter.h"

#include <tarn/tarn.hpp>

namespace {

tarn::Library *g_lib = nullptr;

std::vector<std::string> names()
{
    std::vector<std::string> out;
    for (int i = 1; i <= 256; ++i)
        out.push_back("vrf" + std::to_string(i * 13));
    return out;
}

uint32_t context_of(size_t n) { return static_cast<uint32_t>(((n & 255) + 1) * 13); }
uint32_t interface_of(size_t n) { return static_cast<uint32_t>(((n & 255) + 1) * 61); }

void BM_C_ContextId(benchmark::State &state)
{
    const std::vector<std::string> v = names();
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state)
        found += tarn_get_context_id(v[n++ & 255].c_str()) != 0;
    if (found != state.iterations())
        state.SkipWithError("a context was not found");
}

void BM_Cpp_ContextId(benchmark::State &state)
{
    const std::vector<std::string> v = names();
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state)
        found += g_lib->context_id(v[n++ & 255]).ok();
    if (found != state.iterations())
        state.SkipWithError("a context was not found");
}

void BM_C_ContextInfo(benchmark::State &state)
{
    tarn_context_info_t info;
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state) {
        found += tarn_get_context_info(context_of(n++), &info);
        benchmark::DoNotOptimize(info);
    }
    if (found != state.iterations())
        state.SkipWithError("a context was not found");
}

void BM_Cpp_Context(benchmark::State &state)
{
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state) {
        tarn::Result<tarn::Context> c = g_lib->context(context_of(n++));
        found += c.ok();
        benchmark::DoNotOptimize(c);
    }
    if (found != state.iterations())
        state.SkipWithError("a context was not found");
}

void BM_C_TableInfo(benchmark::State &state)
{
    tarn_table_info_t info;
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state) {
        found += tarn_get_table_info(2 * context_of(n++), &info);
        benchmark::DoNotOptimize(info);
    }
    if (found != state.iterations())
        state.SkipWithError("a table was not found");
}

void BM_Cpp_Table(benchmark::State &state)
{
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state) {
        tarn::Result<tarn::Table> t = g_lib->table(2 * context_of(n++));
        found += t.ok();
        benchmark::DoNotOptimize(t);
    }
    if (found != state.iterations())
        state.SkipWithError("a table was not found");
}

void BM_C_InterfaceContext(benchmark::State &state)
{
    tarn_if_context_info_t info;
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state) {
        found += tarn_if_get_context_info(interface_of(n++), &info);
        benchmark::DoNotOptimize(info);
    }
    if (found != state.iterations())
        state.SkipWithError("an interface was not found");
}

void BM_Cpp_InterfaceContext(benchmark::State &state)
{
    size_t n = 0;
    uint32_t found = 0;
    for (auto _ : state) {
        tarn::Result<tarn::InterfaceContext> i = g_lib->interface_context(interface_of(n++));
        found += i.ok();
        benchmark::DoNotOptimize(i);
    }
    if (found != state.iterations())
        state.SkipWithError("an interface was not found");
}

// The whole context walk: 4,000 steps.
void BM_C_ContextWalk(benchmark::State &state)
{
    for (auto _ : state) {
        tarn_context_info_t info;
        uint32_t steps = 0;
        for (uint32_t id = tarn_get_next_context_info(0, &info); id != 0;
             id = tarn_get_next_context_info(id, &info))
            ++steps;
        if (steps != tarnbench::kContexts)
            state.SkipWithError("the walk ended early");
    }
}

void BM_Cpp_ContextWalk(benchmark::State &state)
{
    for (auto _ : state) {
        uint32_t steps = 0;
        auto walk = g_lib->contexts();
        for (const tarn::Context &c : walk) {
            benchmark::DoNotOptimize(c);
            ++steps;
        }
        if (steps != tarnbench::kContexts || !walk.status())
            state.SkipWithError("the walk ended early");
    }
}

BENCHMARK(BM_C_ContextId);
BENCHMARK(BM_Cpp_ContextId);
BENCHMARK(BM_C_ContextInfo);
BENCHMARK(BM_Cpp_Context);
BENCHMARK(BM_C_TableInfo);
BENCHMARK(BM_Cpp_Table);
BENCHMARK(BM_C_InterfaceContext);
BENCHMARK(BM_Cpp_InterfaceContext);
BENCHMARK(BM_C_ContextWalk)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Cpp_ContextWalk)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    if (!tarnbench::query_device().ok) {
        fprintf(stderr, "bench_cpp_api: could not set up the device\n");
        return 1;
    }
    // The device set-up initialised the library; the Library takes it over
    // (initialising again is a no-op that answers 1).
    tarn::Result<tarn::Library> lib = tarn::Library::open();
    if (!lib) {
        fprintf(stderr, "bench_cpp_api: %s\n", lib.status().message().c_str());
        return 1;
    }
    g_lib = &*lib;
    // Each pair also by its median over repetitions
    // (--benchmark_repetitions=N): on a busy machine the median of a few
    // runs compares better than one run.
    std::vector<std::pair<std::string, std::string>> pairs = {
        {"BM_Cpp_ContextId", "BM_C_ContextId"},
        {"BM_Cpp_Context", "BM_C_ContextInfo"},
        {"BM_Cpp_Table", "BM_C_TableInfo"},
        {"BM_Cpp_InterfaceContext", "BM_C_InterfaceContext"},
        {"BM_Cpp_ContextWalk", "BM_C_ContextWalk"}};
    for (size_t i = 0, n = pairs.size(); i < n; ++i)
        pairs.push_back({pairs[i].first + "_median", pairs[i].second + "_median"});
    RatioReporter reporter(pairs);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
