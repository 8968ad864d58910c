// A writer beside a reader that is off the CPU in the middle of a read:
// see wait_for_lagging_readers in host/kvs_store.h.
//
// A read holds its snapshot for microseconds, but a reader preempted in
// that window keeps it for as long as the scheduler keeps it waiting, and a
// writer on the same CPU commits thousands of transactions meanwhile, none
// of whose freed pages can be reused: with one reader reading without a
// pause beside a steady writer the store grew to tens of megabytes.  The
// writer lets such a reader finish first.  A reader that stays behind for
// kLagWaitMs (stopped in the middle of a read) is waited for once, not at
// every commit.

#include <lmdb.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <mutex>

#include "host/kvs_store.h"

namespace tarnhost {
namespace {

// Commits a snapshot may lag behind before the writer waits for it: the
// store then holds at most this many commits' worth of pages beside the
// writer's working set.
constexpr uint64_t kMaxLag = 32;
constexpr uint64_t kLagWaitMs = 1000;

struct Oldest {
    uint64_t txnid = UINT64_MAX;
    long pid = 0;
};

// One line of mdb_reader_list: "%10d %zx %zu\n" (pid, thread, snapshot),
// with "-" for a slot that holds no snapshot; a header line reads as
// nothing.
int take_line(const char *msg, void *ctx)
{
    Oldest *o = static_cast<Oldest *>(ctx);
    long pid = 0;
    unsigned long long thread = 0, txnid = 0;
    if (sscanf(msg, "%ld %llx %llu", &pid, &thread, &txnid) == 3 && txnid < o->txnid) {
        o->txnid = txnid;
        o->pid = pid;
    }
    return 0;
}

uint64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u +
           static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

std::mutex g_mu;
Oldest g_given_up;  // the snapshot last waited for in vain (under g_mu)

}  // namespace

void wait_for_lagging_readers(MDB_env *env)
{
    uint64_t start = 0;
    for (;;) {
        MDB_envinfo info;
        if (mdb_env_info(env, &info) != 0)
            return;
        const uint64_t last = info.me_last_txnid;
        Oldest o;
        mdb_reader_list(env, take_line, &o);
        if (o.txnid == UINT64_MAX || last <= o.txnid || last - o.txnid <= kMaxLag)
            return;
        {
            std::lock_guard<std::mutex> lock(g_mu);
            if (g_given_up.txnid == o.txnid && g_given_up.pid == o.pid)
                return;
        }
        const uint64_t now = now_ms();
        if (start == 0) {
            start = now;
        } else if (now - start >= kLagWaitMs) {
            std::lock_guard<std::mutex> lock(g_mu);
            g_given_up = o;
            return;
        }
        // Off the CPU for a moment: the reader, likely on this CPU and
        // waiting for it, finishes its read.
        usleep(100);
    }
}

}  // namespace tarnhost
