// Publishing to many subscriber processes, with and without one subscriber
// that has stopped (SIGSTOP) beside them, in the same run:
//
//  BM_BusFanout/N   N live subscriber processes take batches of 28-byte
//                   notifications; each iteration publishes one batch on an
//                   opcode that only the live ones take (the baseline) and
//                   one on an opcode that a stopped process takes too.
//                   Counters: notifications per second reaching every live
//                   subscriber, alone and beside the stopped one, and their
//                   ratio (1 means the stopped subscriber costs nothing).
//
// The stopped subscriber costs the first sender that meets it one stall
// window (counter first_meeting_ms: 20 notifications and the wait); the
// rates are measured after that.

#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/bench_root.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"

namespace {

constexpr uint32_t kLiveOnly = 62101;  // taken by the live subscribers
constexpr uint32_t kAll = 62102;       // taken by the stopped one too
constexpr uint32_t kEnd = 62103;
constexpr uint32_t kNoteLen = 28;
constexpr int kBatch = 2000;

using tarnbench::now_ns;

using Device = tarnbench::BenchRoot;

// A subscriber process: counts notifications until kEnd and writes the
// count to `out`; the stopped one stops itself once subscribed.
pid_t spawn_subscriber(int ready, int out, bool stopped)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    uint32_t h = bus_bind(0, -1, nullptr, "fanout subscriber");
    if (h == BUS_HANDLE_NONE || tarnhost_bus_subscribe(h, kAll, 1) != 0 ||
        (!stopped && (tarnhost_bus_subscribe(h, kLiveOnly, 1) != 0 ||
                      tarnhost_bus_subscribe(h, kEnd, 1) != 0)))
        _exit(1);
    char one = 1;
    if (write(ready, &one, 1) != 1)
        _exit(1);
    if (stopped)
        raise(SIGSTOP);
    uint32_t count = 0;
    for (;;) {
        bus_msg_t *m = tarnhost_bus_recv_ms(h, 30000);
        if (m == nullptr)
            _exit(2);
        if (bus_opc_get(m) == kEnd) {
            if (write(out, &count, sizeof count) != sizeof count)
                _exit(3);
            count = 0;
        } else {
            ++count;
        }
        bus_drop(h, m);
    }
}

struct Subscribers {
    std::vector<pid_t> pids;
    int ready[2] = {-1, -1};
    int counts[2] = {-1, -1};
    bool up(int live)
    {
        if (pipe(ready) != 0 || pipe(counts) != 0)
            return false;
        for (int i = 0; i <= live; ++i) {
            bool stopped = i == live;
            pids.push_back(spawn_subscriber(ready[1], counts[1], stopped));
            char c;
            pollfd p{ready[0], POLLIN, 0};
            if (poll(&p, 1, 10000) != 1 || read(ready[0], &c, 1) != 1)
                return false;
            if (stopped) {
                int st = 0;
                if (waitpid(pids.back(), &st, WUNTRACED) != pids.back() ||
                    !WIFSTOPPED(st))
                    return false;
            }
        }
        return true;
    }
    // Every live subscriber's count for the batch just ended.
    bool counted(int live, uint32_t want)
    {
        for (int i = 0; i < live; ++i) {
            uint32_t n = 0;
            pollfd p{counts[0], POLLIN, 0};
            if (poll(&p, 1, 30000) != 1 ||
                read(counts[0], &n, sizeof n) != sizeof n || n != want)
                return false;
        }
        return true;
    }
    ~Subscribers()
    {
        for (pid_t p : pids) {
            kill(p, SIGKILL);
            waitpid(p, nullptr, 0);
        }
        for (int fd : {ready[0], ready[1], counts[0], counts[1]})
            if (fd >= 0)
                close(fd);
    }
};

// The seconds one batch on `opcode` takes to reach every live subscriber.
double batch(uint32_t h, uint32_t opcode, Subscribers &subs, int live,
             bool *ok)
{
    unsigned char note[kNoteLen] = {'n'};
    uint64_t t0 = now_ns();
    for (int i = 0; i < kBatch; ++i)
        tarnhost_bus_publish(h, opcode, note, kNoteLen);
    tarnhost_bus_publish(h, kEnd, note, kNoteLen);
    *ok = subs.counted(live, kBatch);
    return static_cast<double>(now_ns() - t0) / 1e9;
}

void BM_BusFanout(benchmark::State &state)
{
    const int live = static_cast<int>(state.range(0));
    Device dev;
    Subscribers subs;
    if (!subs.up(live)) {
        state.SkipWithError("could not start the subscribers");
        return;
    }
    uint32_t h = bus_bind(0, -1, nullptr, "fanout publisher");
    // The first sender to meet the stopped subscriber waits one stall
    // window for it; measured apart, so that the rates are the steady ones.
    unsigned char note[kNoteLen] = {'n'};
    uint64_t t0 = now_ns();
    for (int i = 0; i < 20; ++i)
        tarnhost_bus_publish(h, kAll, note, kNoteLen);
    tarnhost_bus_publish(h, kEnd, note, kNoteLen);
    const double first_s = static_cast<double>(now_ns() - t0) / 1e9;
    if (!subs.counted(live, 20)) {
        state.SkipWithError("a live subscriber missed notifications");
        return;
    }
    double alone_s = 0, beside_s = 0;
    uint64_t notes = 0;
    for (auto _ : state) {
        bool ok_alone = false, ok_beside = false;
        alone_s += batch(h, kLiveOnly, subs, live, &ok_alone);
        beside_s += batch(h, kAll, subs, live, &ok_beside);
        if (!ok_alone || !ok_beside) {
            state.SkipWithError("a live subscriber missed notifications");
            break;
        }
        notes += kBatch;
    }
    bus_unbind(h);
    double alone = alone_s > 0 ? static_cast<double>(notes) / alone_s : 0;
    double beside = beside_s > 0 ? static_cast<double>(notes) / beside_s : 0;
    state.counters["alone_notes_per_s"] = alone;
    state.counters["beside_stopped_notes_per_s"] = beside;
    state.counters["ratio_rate"] = alone > 0 ? beside / alone : 0;
    state.counters["first_meeting_ms"] = first_s * 1000;
}
BENCHMARK(BM_BusFanout)->Arg(1)->Arg(4)->Arg(16)->Iterations(10)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
