// Shared database read cost:
//
//  BM_RawRead           the baseline: one LMDB read of the same key in a
//                       renewed read transaction (raw_lmdb.h);
//  BM_RawReadInSnapshot mdb_get alone, inside a snapshot kept open: what a
//                       read costs that need not take a snapshot;
//  BM_KvsRead           kvs_read of a 64-byte value among 10000 records
//                       (snapshot taken, value copied, snapshot given back);
//  BM_KvsReadPair       two kvs_read of different keys, as a query that
//                       reads twice makes them;
//  BM_KvsReadThreads    the same from several threads at once (each thread
//                       has its own read transaction: no shared lock);
//  BM_KvsWalk           kvs_iterator_init, then kvs_getnext over the records;
//  BM_KvsPut            a one-change write transaction of a 64-byte value.
//
// Keys are 48 bytes, the size of the client library's keys.

#include <stdlib.h>
#include <string.h>

#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>

#include "bench/bench_root.h"
#include "bench/ratio_reporter.h"
#include "bench/raw_lmdb.h"
#include "host/tarnhost.h"
#include "platform/kvs.h"

namespace {

constexpr char kUri[] = "volatile:/bench/kvs";
constexpr uint32_t kRecords = 10000;

struct Key {
    unsigned char b[48];
    explicit Key(uint32_t id)
    {
        memset(b, 0, sizeof b);
        b[3] = 3;
        b[4] = static_cast<unsigned char>(id >> 24);
        b[5] = static_cast<unsigned char>(id >> 16);
        b[6] = static_cast<unsigned char>(id >> 8);
        b[7] = static_cast<unsigned char>(id);
    }
};

// A private device with the records written once.
struct Device {
    tarnbench::BenchRoot root;
    Device()
    {
        uint32_t st = 0;
        tarnhost_kvs_txn_t *t = tarnhost_kvs_txn_begin(kUri, &st);
        unsigned char value[64];
        for (uint32_t i = 0; i < kRecords; ++i) {
            Key k(i);
            memset(value, static_cast<int>(i), sizeof value);
            tarnhost_kvs_txn_put(t, k.b, sizeof k.b, value, sizeof value);
        }
        tarnhost_kvs_txn_commit(t);
        kvs_open(kUri, 1, 0, 0, 0);
    }
    ~Device() { kvs_close(kUri); }
};

Device &device()
{
    static Device d;
    return d;
}

// First: writes after this thread's last read would find that read's
// snapshot still pinned (see docs/design.md) and only grow the map.
void BM_KvsPut(benchmark::State &state)
{
    device();
    unsigned char value[64] = {0};
    uint32_t i = 0;
    for (auto _ : state) {
        Key k(i++ % kRecords);
        value[0] = static_cast<unsigned char>(i);
        if (tarnhost_kvs_put(kUri, k.b, sizeof k.b, value, sizeof value) != 0)
            state.SkipWithError("put failed");
    }
}
BENCHMARK(BM_KvsPut);

void BM_KvsRead(benchmark::State &state)
{
    device();
    uint32_t i = static_cast<uint32_t>(state.thread_index()) * 7919u;
    for (auto _ : state) {
        Key k(i++ % kRecords);
        kvs_datum_t key{k.b, sizeof k.b}, value{nullptr, 0};
        if (kvs_read(kUri, &key, &value) != 0 || value.len != 64)
            state.SkipWithError("read failed");
        benchmark::DoNotOptimize(value.data);
    }
}
BENCHMARK(BM_KvsRead);

void BM_KvsReadPair(benchmark::State &state)
{
    device();
    uint32_t i = 0;
    for (auto _ : state) {
        Key a(i++ % kRecords), b((i * 7919u) % kRecords);
        kvs_datum_t ka{a.b, sizeof a.b}, kb{b.b, sizeof b.b}, value{nullptr, 0};
        if (kvs_read(kUri, &ka, &value) != 0 || kvs_read(kUri, &kb, &value) != 0)
            state.SkipWithError("read failed");
        benchmark::DoNotOptimize(value.data);
    }
}
BENCHMARK(BM_KvsReadPair);

RawLmdb &raw()
{
    static RawLmdb r;
    static bool ok = (device(), r.open_uri(kUri));
    (void)ok;
    return r;
}

void BM_RawRead(benchmark::State &state)
{
    RawLmdb &r = raw();
    uint32_t i = 0;
    for (auto _ : state) {
        Key k(i++ % kRecords);
        if (!r.read(k.b, sizeof k.b))
            state.SkipWithError("raw read failed");
    }
}
BENCHMARK(BM_RawRead);

void BM_RawReadInSnapshot(benchmark::State &state)
{
    RawLmdb &r = raw();
    if (!r.begin_snapshot())
        state.SkipWithError("no snapshot");
    uint32_t i = 0;
    for (auto _ : state) {
        Key k(i++ % kRecords);
        if (!r.read_in_snapshot(k.b, sizeof k.b))
            state.SkipWithError("raw read failed");
    }
}
BENCHMARK(BM_RawReadInSnapshot);
BENCHMARK(BM_KvsRead)->Name("BM_KvsReadThreads")->Threads(2);

void BM_KvsWalk(benchmark::State &state)
{
    device();
    for (auto _ : state) {
        kvs_datum_t k{nullptr, 0}, v{nullptr, 0};
        if (kvs_iterator_init(kUri, nullptr, 1) != 0)
            state.SkipWithError("init failed");
        uint32_t n = 0;
        while (kvs_getnext(kUri, &k, &v) == 0)
            ++n;
        if (n != kRecords - 1)
            state.SkipWithError("short walk");
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
}
BENCHMARK(BM_KvsWalk);


}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter({{"BM_KvsRead", "BM_RawRead"},
                            {"BM_KvsReadPair", "BM_RawRead"},
                            {"BM_RawReadInSnapshot", "BM_RawRead"}});
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
