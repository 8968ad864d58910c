// Record conversion cost against the cheapest possible "conversion", a
// memcpy of the same encoded bytes, measured in the same run.  Counters:
// ns_per_op (the conversion), memcpy_ns (the copy) and ratio.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <vector>

#include <benchmark/benchmark.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

namespace {

constexpr int kBatch = 256;
using clk = std::chrono::steady_clock;

template <class Op>
double time_batch(Op &&op)
{
    const auto t0 = clk::now();
    for (int i = 0; i < kBatch; ++i)
        op();
    return std::chrono::duration<double>(clk::now() - t0).count();
}

// Runs `conv` and a memcpy of `bytes` encoded bytes in alternating batches;
// the benchmark's own time is the conversion's.
template <class Conv>
void compare(benchmark::State &state, const std::vector<uint8_t> &enc, Conv &&conv)
{
    std::vector<uint8_t> dst(enc.size());
    double t_conv = 0, t_copy = 0;
    int64_t n = 0;
    for (auto _ : state) {
        const double c = time_batch(conv);
        t_copy += time_batch([&] {
            memcpy(dst.data(), enc.data(), enc.size());
            benchmark::DoNotOptimize(dst.data());
            benchmark::ClobberMemory();
        });
        t_conv += c;
        n += kBatch;
        state.SetIterationTime(c);
    }
    state.counters["ns_per_op"] = 1e9 * t_conv / static_cast<double>(n);
    state.counters["memcpy_ns"] = 1e9 * t_copy / static_cast<double>(n);
    state.counters["ratio"] = t_conv / t_copy;
    state.counters["bytes"] = static_cast<double>(enc.size());
}

template <class T, class ToTlv>
std::vector<uint8_t> encode(const T &rec, ToTlv to_tlv)
{
    void *buf = nullptr;
    uint32_t len = 0;
    if (to_tlv(&rec, &buf, &len, 0, nullptr, 0) != 0)
        abort();
    std::vector<uint8_t> v(static_cast<uint8_t *>(buf), static_cast<uint8_t *>(buf) + len);
    free(buf);
    return v;
}

tarn_context_info_t context()
{
    tarn_context_info_t r;
    memset(&r, 0, sizeof r);
    r.state = 2;
    r.reason = 1;
    strcpy(r.name, "customer-blue-0042");
    return r;
}

tarn_table_info_t table()
{
    tarn_table_info_t r;
    memset(&r, 0, sizeof r);
    r.context_id = 42;
    r.w1 = 1;
    r.w2 = 0x80000001u;
    r.w3 = 7;
    r.tpg_id = 0xC0000003u;
    strcpy(r.name, "customer-blue-0042:ipv4");
    return r;
}

gyre_tpg_vlan_info_t topology()
{
    gyre_tpg_vlan_info_t r;
    memset(&r, 0, sizeof r);
    gyre_tpg_vlan_info_default_init(&r);
    r.tpg_id = 0xC0000003u;
    strcpy(r.name, "fabric-a");
    for (unsigned i = 0; i < 512; i += 3)
        r.vlans.bits[i] = 0xA5;
    return r;
}

void BM_decode_context_info(benchmark::State &state)
{
    const tarn_context_info_t in = context();
    const std::vector<uint8_t> enc = encode(in, tarn_context_info_to_tlv);
    tarn_context_info_t out;
    compare(state, enc, [&] {
        tarn_context_info_t *p = &out;
        if (tarn_context_info_to_struct(&p, enc.data(), static_cast<uint32_t>(enc.size()), 1) != 0)
            abort();
        benchmark::DoNotOptimize(out);
    });
}

void BM_encode_context_info(benchmark::State &state)
{
    const tarn_context_info_t in = context();
    const std::vector<uint8_t> enc = encode(in, tarn_context_info_to_tlv);
    std::vector<uint8_t> buf(enc.size());
    compare(state, enc, [&] {
        void *p = buf.data();
        uint32_t len = static_cast<uint32_t>(buf.size());
        if (tarn_context_info_to_tlv(&in, &p, &len, 0, nullptr, 1) != 0)
            abort();
        benchmark::DoNotOptimize(buf.data());
    });
}

void BM_decode_table_info(benchmark::State &state)
{
    const tarn_table_info_t in = table();
    const std::vector<uint8_t> enc = encode(in, tarn_table_info_to_tlv);
    tarn_table_info_t out;
    compare(state, enc, [&] {
        tarn_table_info_t *p = &out;
        if (tarn_table_info_to_struct(&p, enc.data(), static_cast<uint32_t>(enc.size()), 1) != 0)
            abort();
        benchmark::DoNotOptimize(out);
    });
}

void BM_encode_table_info(benchmark::State &state)
{
    const tarn_table_info_t in = table();
    const std::vector<uint8_t> enc = encode(in, tarn_table_info_to_tlv);
    std::vector<uint8_t> buf(enc.size());
    compare(state, enc, [&] {
        void *p = buf.data();
        uint32_t len = static_cast<uint32_t>(buf.size());
        if (tarn_table_info_to_tlv(&in, &p, &len, 0, nullptr, 1) != 0)
            abort();
        benchmark::DoNotOptimize(buf.data());
    });
}

void BM_decode_gyre_tpg_vlan_info(benchmark::State &state)
{
    const gyre_tpg_vlan_info_t in = topology();
    const std::vector<uint8_t> enc = encode(in, gyre_tpg_vlan_info_to_tlv);
    gyre_tpg_vlan_info_t out;
    compare(state, enc, [&] {
        gyre_tpg_vlan_info_t *p = &out;
        if (gyre_tpg_vlan_info_to_structure(&p, enc.data(), static_cast<uint32_t>(enc.size())) != 0)
            abort();
        benchmark::DoNotOptimize(out);
    });
}

void BM_encode_gyre_tpg_vlan_info(benchmark::State &state)
{
    const gyre_tpg_vlan_info_t in = topology();
    const std::vector<uint8_t> enc = encode(in, gyre_tpg_vlan_info_to_tlv);
    std::vector<uint8_t> buf(enc.size());
    compare(state, enc, [&] {
        void *p = buf.data();
        uint32_t len = static_cast<uint32_t>(buf.size());
        if (gyre_tpg_vlan_info_tlvize(&in, &p, &len, nullptr) != 1)
            abort();
        benchmark::DoNotOptimize(buf.data());
    });
}

}  // namespace

BENCHMARK(BM_decode_context_info)->UseManualTime();
BENCHMARK(BM_encode_context_info)->UseManualTime();
BENCHMARK(BM_decode_table_info)->UseManualTime();
BENCHMARK(BM_encode_table_info)->UseManualTime();
BENCHMARK(BM_decode_gyre_tpg_vlan_info)->UseManualTime();
BENCHMARK(BM_encode_gyre_tpg_vlan_info)->UseManualTime();

BENCHMARK_MAIN();
