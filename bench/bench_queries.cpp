// Tarn queries over a device of 4,000 contexts (two tables each) and 16,000
// interfaces, each beside a raw LMDB read of the same key (mdb_get in a
// renewed read transaction) in the same run.  The "ratio" lines give a
// query's time over the raw read's.  Most ask about 256 keys in turn, which
// a thread's kept answers hold while nothing is committed; the "All" lines
// ask about every interface, so that nearly every read is a fresh one.
//
// The "AfterCommit" lines ask right after another process committed a
// change to the store (so no answer is kept and every read is fresh), each
// query timed alone (wall clock around the call), interleaved with its
// baseline measured the same way, and compared by the medians:
// tarn_if_get_context_id beside the three raw reads it must make (the
// interface's binding, the interface manager's record, the context's id by
// name), each in a fresh snapshot, about 256 interfaces in turn ("Hot") and
// about interfaces drawn uniformly from all 16,000 ("All").

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/query_device.h"
#include "bench/ratio_reporter.h"

#include <tarn/tarn.h>

#include "host/tarnhost_ifmgr.h"
#include "platform/kvs.h"

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

// A process that commits one change to the device's store each time it is
// asked, and says when the commit is done.
class Committer {
public:
    Committer()
    {
        int ask[2], done[2];
        if (pipe(ask) != 0 || pipe(done) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            close(ask[1]);
            close(done[0]);
            const std::string uri = std::string(TARNHOST_RUNNING_URI) + "/tarn_global_kvs";
            // A record of its own kind: the records the queries read stay.
            std::vector<uint8_t> key = key_id(0x7F, 1);
            uint32_t n = 0;
            char c;
            while (read(ask[0], &c, 1) == 1) {
                ++n;
                const uint32_t st = tarnhost_kvs_put(uri.c_str(), key.data(),
                                                     static_cast<uint32_t>(key.size()), &n, sizeof n);
                c = st == 0 ? 'y' : 'n';
                if (write(done[1], &c, 1) != 1)
                    break;
            }
            _exit(0);
        }
        close(ask[0]);
        close(done[1]);
        ask_ = ask[1];
        done_ = done[0];
    }
    ~Committer()
    {
        if (pid_ > 0) {
            close(ask_);
            close(done_);
            waitpid(pid_, nullptr, 0);
        }
    }
    bool commit()
    {
        char c = 'c';
        return pid_ > 0 && write(ask_, &c, 1) == 1 && read(done_, &c, 1) == 1 && c == 'y';
    }

private:
    pid_t pid_ = -1;
    int ask_ = -1, done_ = -1;
};

Committer &committer()
{
    static Committer c;
    return c;
}

// The interfaces asked about: 256 in turn, or drawn uniformly from all.
std::vector<uint32_t> interfaces(bool hot)
{
    std::vector<uint32_t> v;
    if (hot) {
        for (uint32_t i = 1; i <= 256; ++i)
            v.push_back(i * 61);
    } else {
        std::mt19937 rng(28);
        std::uniform_int_distribution<uint32_t> pick(1, tarnbench::kInterfaces);
        for (int i = 0; i < 4096; ++i)
            v.push_back(pick(rng));
    }
    return v;
}

// The median of a set of samples.
double median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
}

// Interleaves the measured operation and its baseline, each right after a
// commit of another process and each timed alone (wall clock around the
// call), and reports the median of each as the counters `median_ns` and
// `baseline_median_ns`; the ratio line compares the two.  Interleaving
// keeps the load that other processes put on the machine out of the ratio.
template <class Op, class Base>
void after_commit(benchmark::State &state, size_t keys, Op op, Base base)
{
    std::vector<double> op_ns, base_ns;
    op_ns.reserve(1 << 16);
    base_ns.reserve(1 << 16);
    size_t n = 0;
    bool ok = true;
    for (auto _ : state) {
        const size_t k = n++ % keys;
        if (!committer().commit() ) {
            state.SkipWithError("the other process could not commit");
            return;
        }
        uint64_t t0 = tarnbench::now_ns();
        ok &= base(k);
        uint64_t t1 = tarnbench::now_ns();
        if (base_ns.size() < base_ns.capacity())
            base_ns.push_back(static_cast<double>(t1 - t0));
        if (!committer().commit()) {
            state.SkipWithError("the other process could not commit");
            return;
        }
        t0 = tarnbench::now_ns();
        ok &= op(k);
        t1 = tarnbench::now_ns();
        state.SetIterationTime(static_cast<double>(t1 - t0) * 1e-9);
        if (op_ns.size() < op_ns.capacity())
            op_ns.push_back(static_cast<double>(t1 - t0));
    }
    if (!ok)
        state.SkipWithError("a record was not found");
    state.counters["median_ns"] = median(op_ns);
    state.counters["baseline_median_ns"] = median(base_ns);
}

// Keys of the raw reads of tarn_if_get_context_id, made beforehand.
struct RawIfKeys {
    uint8_t binding[48];
    uint8_t ifmgr[5];
    uint8_t name[48];
};

std::vector<RawIfKeys> raw_if_keys(const std::vector<uint32_t> &ifs)
{
    std::vector<RawIfKeys> keys(ifs.size());
    for (size_t k = 0; k < ifs.size(); ++k) {
        const uint32_t i = ifs[k];
        memcpy(keys[k].binding, key_id(5, i).data(), 48);
        const uint8_t m[5] = {1, static_cast<uint8_t>(i >> 24), static_cast<uint8_t>(i >> 16),
                              static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
        memcpy(keys[k].ifmgr, m, 5);
        memcpy(keys[k].name,
               key_name(1, "vrf" + std::to_string(1 + i % tarnbench::kContexts)).data(), 48);
    }
    return keys;
}

// tarn_if_get_context_id beside the three raw reads it must make, each in
// its own fresh snapshot: the binding, the interface manager's record, the
// context's id by name.
void if_context_id_after_commit(benchmark::State &state, bool hot)
{
    static MDB_dbi ifmgr = 0;
    static const bool ok = device().raw.add_uri(TARNHOST_IFMGR_URI, &ifmgr);
    if (!ok) {
        state.SkipWithError("the interface manager's database could not be opened");
        return;
    }
    const std::vector<uint32_t> ifs = interfaces(hot);
    const std::vector<RawIfKeys> keys = raw_if_keys(ifs);
    tarnbench::QueryDevice &d = device();
    after_commit(
        state, ifs.size(), [&](size_t k) { return tarn_if_get_context_id(ifs[k]) != 0; },
        [&](size_t k) {
            const RawIfKeys &key = keys[k];
            return d.raw_read(key.binding) & d.raw.read_in(ifmgr, key.ifmgr, sizeof key.ifmgr) &
                   d.raw_read(key.name);
        });
}

// One kvs_read of an interface's binding beside one raw read of it: the
// store's own share.
void BM_KvsReadAfterCommit(benchmark::State &state)
{
    const std::vector<uint32_t> ifs = interfaces(false);
    const std::vector<RawIfKeys> keys = raw_if_keys(ifs);
    const std::string uri = std::string(TARNHOST_RUNNING_URI) + "/tarn_global_kvs";
    tarnbench::QueryDevice &d = device();
    after_commit(
        state, ifs.size(),
        [&](size_t k) {
            const kvs_datum_t key{keys[k].binding, 48};
            kvs_datum_t v;
            return kvs_read(uri.c_str(), &key, &v) == 0;
        },
        [&](size_t k) { return d.raw_read(keys[k].binding); });
}

void BM_IfContextIdAfterCommitHot(benchmark::State &state) { if_context_id_after_commit(state, true); }
void BM_IfContextIdAfterCommitAll(benchmark::State &state) { if_context_id_after_commit(state, false); }

BENCHMARK(BM_KvsReadAfterCommit)->UseManualTime();
BENCHMARK(BM_IfContextIdAfterCommitHot)->UseManualTime();
BENCHMARK(BM_IfContextIdAfterCommitAll)->UseManualTime();

// Walk steps: tarn_get_next_context_info from a context to the next,
// beside the raw step a walk without a snapshot between its steps takes
// (raw_lmdb.h seek_step), about 256 contexts in turn and about contexts
// drawn uniformly from all 4,000; and a real walk, each call given the
// id the last one returned.
std::vector<uint32_t> context_ids(bool hot)
{
    std::vector<uint32_t> v;
    if (hot) {
        for (uint32_t i = 1; i <= 256; ++i)
            v.push_back(i * 13);
    } else {
        std::mt19937 rng(1);
        std::uniform_int_distribution<uint32_t> pick(1, tarnbench::kContexts - 1);
        for (int i = 0; i < 4096; ++i)
            v.push_back(pick(rng));
    }
    return v;
}

void raw_seek_step(benchmark::State &state, bool hot)
{
    tarnbench::QueryDevice &d = device();
    std::vector<std::vector<uint8_t>> keys;
    for (uint32_t id : context_ids(hot))
        keys.push_back(key_id(3, id));
    size_t n = 0;
    bool ok = true;
    for (auto _ : state)
        ok &= d.raw.seek_step(keys[n++ % keys.size()].data(), 48);
    if (!ok)
        state.SkipWithError("a step found nothing");
}

void next_context_step(benchmark::State &state, bool hot)
{
    const std::vector<uint32_t> ids = context_ids(hot);
    tarn_context_info_t info;
    size_t n = 0;
    bool ok = true;
    for (auto _ : state)
        ok &= tarn_get_next_context_info(ids[n++ % ids.size()], &info) != 0;
    if (!ok)
        state.SkipWithError("the walk ended early");
}

void BM_RawSeekStepHot(benchmark::State &state) { raw_seek_step(state, true); }
void BM_NextContextStepHot(benchmark::State &state) { next_context_step(state, true); }
void BM_RawSeekStepUniform(benchmark::State &state) { raw_seek_step(state, false); }
void BM_NextContextStepUniform(benchmark::State &state) { next_context_step(state, false); }

void BM_ContextWalk(benchmark::State &state)
{
    tarn_context_info_t info;
    uint32_t id = 0;
    for (auto _ : state) {
        id = tarn_get_next_context_info(id, &info);  // 0 again after the last
        benchmark::DoNotOptimize(id);
    }
}

// The last call of a walk: every record of a later kind (16,000 bindings,
// 4,000 table records...) lies after its context.
void BM_ContextWalkLastCall(benchmark::State &state)
{
    tarn_context_info_t info;
    bool ok = true;
    for (auto _ : state)
        ok &= tarn_get_next_context_info(tarnbench::kContexts, &info) == 0;
    if (!ok)
        state.SkipWithError("the last context was followed by another");
}

BENCHMARK(BM_RawSeekStepHot);
BENCHMARK(BM_NextContextStepHot);
BENCHMARK(BM_RawSeekStepUniform);
BENCHMARK(BM_NextContextStepUniform);
BENCHMARK(BM_ContextWalk);
BENCHMARK(BM_ContextWalkLastCall);

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
                            {"BM_NextContextStep", "BM_RawReadContextInfo"},
                            {"BM_NextContextStepHot", "BM_RawSeekStepHot"},
                            {"BM_NextContextStepUniform", "BM_RawSeekStepUniform"},
                            {"BM_ContextWalk", "BM_RawSeekStepHot"},
                            {"BM_ContextWalkLastCall", "BM_RawSeekStepHot"},
                            {"BM_KvsReadAfterCommit/manual_time", "BM_KvsReadAfterCommit/manual_time/baseline"},
                            {"BM_IfContextIdAfterCommitHot/manual_time",
                             "BM_IfContextIdAfterCommitHot/manual_time/baseline"},
                            {"BM_IfContextIdAfterCommitAll/manual_time",
                             "BM_IfContextIdAfterCommitAll/manual_time/baseline"}});
    reporter.add_goal("BM_NextContextStepHot", "BM_RawSeekStepHot", 1.5);
    reporter.add_goal("BM_NextContextStepUniform", "BM_RawSeekStepUniform", 1.5);
    reporter.add_goal("BM_ContextWalk", "BM_RawSeekStepHot", 1.5);
    reporter.add_goal("BM_IfContextIdAfterCommitHot/manual_time",
                      "BM_IfContextIdAfterCommitHot/manual_time/baseline", 1.5);
    reporter.add_goal("BM_IfContextIdAfterCommitAll/manual_time",
                      "BM_IfContextIdAfterCommitAll/manual_time/baseline", 1.5);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    return 0;
}
