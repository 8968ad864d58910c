// Message bus cost between two processes, each figure beside a bare
// Unix-domain datagram exchange of the same size in the same run:
//
//  BM_BusNotifyLatency     one-way latency of a 28-byte attribute change
//                          from the service's send to the client process's
//                          tarn_dispatch having applied it (p50, p99), paced
//                          by a ping-pong so that no queue builds up;
//  BM_BusNotifyThroughput  sustained notifications per second that a client
//                          process receives and applies.
//
// Where the processes run decides the figures more than anything else (a
// wake-up on another, idle CPU costs far more than a switch on the same
// one), so each benchmark runs twice: /0 with every process on the first
// CPU, /1 with the peers on the second.  The bus peer and the bare peer
// always share a placement, so each ratio compares like with like.
//
// One-way latency is measured with CLOCK_MONOTONIC, which both processes
// share: the benchmark process stamps the notification just before it
// sends, the client reads the clock once tarn_dispatch has returned (the
// bare peer: once it has received) and sends the difference back.

#include <errno.h>
#include <sched.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <tarn/tarn.h>

#include "bench/bench_root.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"

namespace {

// Pings and data are attribute changes of kind 1 (AS format) that the peer,
// a libtarn client, hands to tarn_dispatch: a round is measured from the
// service's send to the client's dispatch having applied it.
constexpr uint32_t kAttr = BUS_OPC_TARN_ATTR_CHANGE;
constexpr uint32_t kPong = 62002;
constexpr uint32_t kEnd = 62004;
constexpr uint32_t kStop = 62005;
constexpr uint32_t kNoteLen = 28;
constexpr int kBatch = 1000;

// An AS-format change: marker byte (p ping, d data), kind 1 at 2, the send
// time at 4, the format at 24.
void attr_note(unsigned char *note, char marker, uint32_t format)
{
    memset(note, 0, kNoteLen);
    note[0] = static_cast<unsigned char>(marker);
    const uint16_t kind = 1;
    memcpy(note + 2, &kind, sizeof kind);
    memcpy(note + 24, &format, sizeof format);
}

void stamp(unsigned char *note, uint64_t t) { memcpy(note + 4, &t, sizeof t); }

using tarnbench::now_ns;

// A private device for one benchmark run.
using Device = tarnbench::BenchRoot;

void pin(int cpu)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    sched_setaffinity(0, sizeof set, &set);
}

// The client process: applies each attribute change with tarn_dispatch,
// answers a ping with its latency, counts data until kEnd and then publishes
// the count and the format it holds, and leaves on kStop.
pid_t spawn_bus_peer(int ready_fd, int cpu)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    pin(cpu);
    uint32_t h = bus_bind(0, -1, nullptr, "bench peer");
    // A client process: registered, cache mode on (subscribed to kAttr).
    if (h == BUS_HANDLE_NONE || tarn_register(h) != 1 || tarn_enable_cache_mode(0) != 1)
        _exit(1);
    tarnhost_bus_subscribe(h, kEnd, 1);
    tarnhost_bus_subscribe(h, kStop, 1);
    char one = 1;
    if (write(ready_fd, &one, 1) != 1)
        _exit(1);
    uint32_t count = 0;
    for (;;) {
        bus_msg_t *m = tarnhost_bus_recv_ms(h, 30000);
        if (m == nullptr)
            _exit(2);
        uint32_t opc = bus_opc_get(m);
        unsigned char note[kNoteLen] = {};
        if (opc == kAttr) {
            uint32_t len = 0;
            const unsigned char *p = static_cast<const unsigned char *>(bus_payload_get(m, &len));
            uint64_t sent = 0;
            const bool ping = p != nullptr && len >= 12 && p[0] == 'p';
            if (ping)
                memcpy(&sent, p + 4, sizeof sent);
            // Applies the format and drops the message.
            if (tarn_dispatch(m) != 1)
                _exit(3);
            if (ping) {
                const uint64_t latency = now_ns() - sent;
                memcpy(note, &latency, sizeof latency);
                tarnhost_bus_publish(h, kPong, note, kNoteLen);
            } else {
                ++count;
            }
            continue;
        }
        bus_drop(h, m);
        if (opc == kStop)
            break;
        if (opc == kEnd) {
            const uint32_t format = tarn_get_as_format();
            memcpy(note, &count, sizeof count);
            memcpy(note + 4, &format, sizeof format);
            count = 0;
            tarnhost_bus_publish(h, kPong, note, kNoteLen);
        }
    }
    bus_unbind(h);
    _exit(0);
}

// The same peer on bare datagram sockets bound under the root.  The first
// byte of a datagram tells its kind, as the opcode does on the bus.
pid_t spawn_bare_peer(const std::string &mine, const std::string &theirs,
                      int ready_fd, int cpu)
{
    fflush(nullptr);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    pin(cpu);
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un self{}, peer{};
    self.sun_family = peer.sun_family = AF_UNIX;
    strncpy(self.sun_path, mine.c_str(), sizeof self.sun_path - 1);
    strncpy(peer.sun_path, theirs.c_str(), sizeof peer.sun_path - 1);
    if (bind(fd, reinterpret_cast<sockaddr *>(&self), sizeof self) != 0)
        _exit(1);
    char one = 1;
    if (write(ready_fd, &one, 1) != 1)
        _exit(1);
    uint32_t count = 0;
    unsigned char buf[kNoteLen];
    for (;;) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0)
            _exit(2);
        if (buf[0] == 's')
            break;
        unsigned char note[kNoteLen] = {};
        if (buf[0] == 'p') {
            uint64_t sent = 0;
            memcpy(&sent, buf + 4, sizeof sent);
            const uint64_t latency = now_ns() - sent;
            memcpy(note, &latency, sizeof latency);
        } else if (buf[0] == 'd') {
            ++count;
            continue;
        } else {
            memcpy(note, &count, sizeof count);
            count = 0;
        }
        sendto(fd, note, kNoteLen, 0, reinterpret_cast<sockaddr *>(&peer),
               sizeof peer);
    }
    _exit(0);
}

struct Peers {
    Device dev;
    uint32_t h = BUS_HANDLE_NONE;
    int bare = -1;
    sockaddr_un bare_peer{};
    pid_t bus_pid = -1;
    pid_t bare_pid = -1;
    cpu_set_t saved;

    // Peers on the first CPU (across = false) or the second.
    bool up(bool across)
    {
        sched_getaffinity(0, sizeof saved, &saved);
        if (across && sysconf(_SC_NPROCESSORS_ONLN) < 2)
            return false;
        pin(0);
        int cpu = across ? 1 : 0;
        int pfd[2];
        if (pipe(pfd) != 0)
            return false;
        std::string mine = dev.root + "/bare.bench";
        std::string theirs = dev.root + "/bare.peer";
        bus_pid = spawn_bus_peer(pfd[1], cpu);
        bare_pid = spawn_bare_peer(theirs, mine, pfd[1], cpu);
        char c;
        bool ok = read(pfd[0], &c, 1) == 1 && read(pfd[0], &c, 1) == 1;
        close(pfd[0]);
        close(pfd[1]);
        h = bus_bind(0, -1, nullptr, "bench");
        ok = ok && h != BUS_HANDLE_NONE &&
             tarnhost_bus_subscribe(h, kPong, 1) == 0;
        bare = socket(AF_UNIX, SOCK_DGRAM, 0);
        sockaddr_un self{};
        self.sun_family = bare_peer.sun_family = AF_UNIX;
        strncpy(self.sun_path, mine.c_str(), sizeof self.sun_path - 1);
        strncpy(bare_peer.sun_path, theirs.c_str(),
                sizeof bare_peer.sun_path - 1);
        ok = ok && bind(bare, reinterpret_cast<sockaddr *>(&self),
                        sizeof self) == 0;
        return ok;
    }

    ~Peers()
    {
        tarnhost_bus_publish(h, kStop, nullptr, 0);
        unsigned char stop[kNoteLen] = {'s'};
        bare_send(stop);
        for (pid_t pid : {bus_pid, bare_pid}) {
            if (pid <= 0)
                continue;
            int st;
            for (int i = 0; i < 200 && waitpid(pid, &st, WNOHANG) == 0; ++i)
                usleep(10000);
            kill(pid, SIGKILL);
            waitpid(pid, &st, 0);
        }
        bus_unbind(h);
        if (bare >= 0)
            close(bare);
        sched_setaffinity(0, sizeof saved, &saved);
    }

    void bare_send(const unsigned char *note)
    {
        sendto(bare, note, kNoteLen, 0,
               reinterpret_cast<sockaddr *>(&bare_peer), sizeof bare_peer);
    }

    // The 28-byte answer from the bus peer, copied into out.
    bool bus_answer(unsigned char *out)
    {
        bus_msg_t *m = tarnhost_bus_recv_ms(h, 5000);
        if (m == nullptr)
            return false;
        uint32_t len = 0;
        const void *p = bus_payload_get(m, &len);
        bool ok = len == kNoteLen;
        if (ok)
            memcpy(out, p, kNoteLen);
        bus_drop(h, m);
        return ok;
    }

    bool bare_answer(unsigned char *out)
    {
        return recv(bare, out, kNoteLen, 0) == kNoteLen;
    }
};

double percentile(std::vector<double> &v, double q)
{
    if (v.empty())
        return 0;
    size_t i = static_cast<size_t>(q * static_cast<double>(v.size() - 1));
    std::nth_element(v.begin(), v.begin() + static_cast<ptrdiff_t>(i),
                     v.end());
    return v[i];
}

void BM_BusNotifyLatency(benchmark::State &state)
{
    Peers peers;
    if (!peers.up(state.range(0) != 0)) {
        state.SkipWithError("could not start the peers");
        return;
    }
    std::vector<double> bus_us, bare_us;
    unsigned char note[kNoteLen];
    unsigned char answer[kNoteLen];
    uint32_t format = 2;
    for (auto _ : state) {
        attr_note(note, 'p', format++);
        stamp(note, now_ns());
        if (tarnhost_bus_publish(peers.h, kAttr, note, kNoteLen) != 0 ||
            !peers.bus_answer(answer)) {
            state.SkipWithError("bus round failed");
            break;
        }
        uint64_t latency;
        memcpy(&latency, answer, sizeof latency);
        bus_us.push_back(static_cast<double>(latency) / 1000.0);

        stamp(note, now_ns());
        peers.bare_send(note);
        if (!peers.bare_answer(answer)) {
            state.SkipWithError("bare round failed");
            break;
        }
        memcpy(&latency, answer, sizeof latency);
        bare_us.push_back(static_cast<double>(latency) / 1000.0);
    }
    double bus50 = percentile(bus_us, 0.50), bus99 = percentile(bus_us, 0.99);
    double bare50 = percentile(bare_us, 0.50);
    double bare99 = percentile(bare_us, 0.99);
    state.counters["bus_p50_us"] = bus50;
    state.counters["bus_p99_us"] = bus99;
    state.counters["bare_p50_us"] = bare50;
    state.counters["bare_p99_us"] = bare99;
    state.counters["ratio_p50"] = bare50 > 0 ? bus50 / bare50 : 0;
    state.counters["ratio_p99"] = bare99 > 0 ? bus99 / bare99 : 0;
}
BENCHMARK(BM_BusNotifyLatency)->Arg(0)->Arg(1)->Iterations(20000)->UseRealTime();

void BM_BusNotifyThroughput(benchmark::State &state)
{
    Peers peers;
    if (!peers.up(state.range(0) != 0)) {
        state.SkipWithError("could not start the peers");
        return;
    }
    double bus_s = 0, bare_s = 0;
    uint64_t notes = 0;
    unsigned char note[kNoteLen];
    attr_note(note, 'd', 7);
    unsigned char end[kNoteLen] = {'e'};
    unsigned char answer[kNoteLen];
    for (auto _ : state) {
        uint64_t t0 = now_ns();
        for (int i = 0; i < kBatch; ++i)
            tarnhost_bus_publish(peers.h, kAttr, note, kNoteLen);
        tarnhost_bus_publish(peers.h, kEnd, end, kNoteLen);
        uint32_t got = 0;
        if (!peers.bus_answer(answer)) {
            state.SkipWithError("bus batch not acknowledged");
            break;
        }
        uint32_t applied_format = 0;
        memcpy(&got, answer, sizeof got);
        memcpy(&applied_format, answer + 4, sizeof applied_format);
        uint64_t t1 = now_ns();

        for (int i = 0; i < kBatch; ++i)
            peers.bare_send(note);
        peers.bare_send(end);
        if (!peers.bare_answer(answer)) {
            state.SkipWithError("bare batch not acknowledged");
            break;
        }
        uint64_t t2 = now_ns();
        if (got != static_cast<uint32_t>(kBatch) || applied_format != 7) {
            state.SkipWithError("bus notifications lost or not applied");
            break;
        }
        bus_s += static_cast<double>(t1 - t0) / 1e9;
        bare_s += static_cast<double>(t2 - t1) / 1e9;
        notes += kBatch;
    }
    double bus_rate = bus_s > 0 ? static_cast<double>(notes) / bus_s : 0;
    double bare_rate = bare_s > 0 ? static_cast<double>(notes) / bare_s : 0;
    state.counters["bus_notes_per_s"] = bus_rate;
    state.counters["bare_notes_per_s"] = bare_rate;
    state.counters["ratio_rate"] = bare_rate > 0 ? bus_rate / bare_rate : 0;
}
BENCHMARK(BM_BusNotifyThroughput)->Arg(0)->Arg(1)->Iterations(200)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
