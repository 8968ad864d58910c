// A subscriber that stops taking messages beside live ones: the live ones
// get everything at full speed, the stopped one's loss is counted and it
// learns of it when it resumes; and what dead processes leave on the bus
// is removed by the next process that binds.

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "support/fixture.h"
#include "support/proc.h"

namespace {

using tarntest::Proc;
using tarntest::finish;
using tarntest::get_word;
using tarntest::put_word;
using tarntest::spawn;

constexpr uint32_t kOpc = 61201;
constexpr uint32_t kQuietOpc = 61299;  // subscribed to, never published
constexpr uint32_t kTotal = 10000;

double seconds_since(const timespec &t0)
{
    timespec t1;
    clock_gettime(CLOCK_MONOTONIC, &t1);
    return (t1.tv_sec - t0.tv_sec) + (t1.tv_nsec - t0.tv_nsec) / 1e9;
}

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::string bus_file(const std::string &root, const char *sub, uint32_t n)
{
    return root + "/bus/" + sub + "/" + std::to_string(n);
}

// A subscriber process.  It reports its handle, then takes messages until
// `kTotal` have arrived or none came for two seconds, and reports how many
// it took, whether they came in order, and how many it missed.
Proc subscriber(bool stop_first)
{
    return spawn([stop_first](int, int wr) {
        uint32_t h = bus_bind(0, -1, nullptr, "subscriber");
        if (h == BUS_HANDLE_NONE || tarnhost_bus_subscribe(h, kOpc, 1) != 0)
            return 1;
        put_word(wr, h);
        if (stop_first)
            raise(SIGSTOP);
        uint32_t got = 0, in_order = 1, last = 0;
        while (got < kTotal) {
            bus_msg_t *m = tarnhost_bus_recv_ms(h, 5000);
            if (m == nullptr)
                break;
            uint32_t len = 0, seq = 0;
            const void *p = bus_payload_get(m, &len);
            if (p != nullptr && len == sizeof seq)
                memcpy(&seq, p, sizeof seq);
            if (got != 0 && seq <= last)
                in_order = 0;
            last = seq;
            ++got;
            bus_drop(h, m);
        }
        uint32_t missed = 0xFFFFFFFFu;
        tarnhost_bus_missed_take(h, &missed);
        put_word(wr, got);
        put_word(wr, in_order);
        put_word(wr, missed);
        bus_unbind(h);
        return 0;
    });
}

// A process that binds, subscribes to `opcodes` (each as often as listed),
// reports its handle and then waits to be killed.
Proc holder(const std::vector<uint32_t> &opcodes)
{
    return spawn([opcodes](int rd, int wr) {
        uint32_t h = bus_bind(0, -1, nullptr, "holder");
        if (h == BUS_HANDLE_NONE)
            return 1;
        for (uint32_t opc : opcodes)
            if (tarnhost_bus_subscribe(h, opc, 1) != 0)
                return 1;
        put_word(wr, h);
        uint32_t never;
        get_word(rd, &never, 60000);
        return 0;
    });
}

struct Outcome {
    uint32_t got = 0, in_order = 0, missed = 0;
};

Outcome outcome_of(Proc &p)
{
    Outcome o;
    EXPECT_TRUE(get_word(p.rd, &o.got, 30000));
    EXPECT_TRUE(get_word(p.rd, &o.in_order));
    EXPECT_TRUE(get_word(p.rd, &o.missed));
    EXPECT_EQ(0, finish(p));
    return o;
}

// Publishes kTotal numbered notifications to three live subscribers, and
// to one stopped one when `with_stopped`; the seconds the publishing took.
double run(bool with_stopped, Outcome *stopped_outcome)
{
    std::vector<Proc> live;
    for (int i = 0; i < 3; ++i) {
        live.push_back(subscriber(false));
        uint32_t h;
        EXPECT_TRUE(get_word(live.back().rd, &h));
    }
    Proc stopped;
    uint32_t stopped_handle = BUS_HANDLE_NONE;
    if (with_stopped) {
        stopped = subscriber(true);
        EXPECT_TRUE(get_word(stopped.rd, &stopped_handle));
        int status = 0;
        EXPECT_EQ(stopped.pid, waitpid(stopped.pid, &status, WUNTRACED));
        EXPECT_TRUE(WIFSTOPPED(status));
    }
    uint32_t pub = bus_bind(0, -1, nullptr, "publisher");
    EXPECT_NE(BUS_HANDLE_NONE, pub);
    timespec t0;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    size_t listed = 0;
    for (uint32_t seq = 1; seq <= kTotal; ++seq) {
        uint32_t missed[8];
        size_t n = 0;
        EXPECT_EQ(0, tarnhost_bus_publish_counted(pub, kOpc, &seq, sizeof seq,
                                                  missed, 8, &n));
        for (size_t i = 0; i < n; ++i) {
            EXPECT_EQ(stopped_handle, missed[i]) << "a live one missed " << seq;
            ++listed;
        }
    }
    double secs = seconds_since(t0);
    for (Proc &p : live) {
        Outcome o = outcome_of(p);
        EXPECT_EQ(kTotal, o.got);
        EXPECT_EQ(1u, o.in_order);
        EXPECT_EQ(0u, o.missed);
    }
    if (with_stopped) {
        // Seen by anyone while it is stopped ...
        uint32_t pending = 0;
        EXPECT_EQ(0, tarnhost_bus_missed(stopped_handle, &pending));
        EXPECT_EQ(listed, pending);
        kill(stopped.pid, SIGCONT);
        *stopped_outcome = outcome_of(stopped);
        // ... and by itself once it resumes.
        EXPECT_EQ(listed, stopped_outcome->missed);
    }
    bus_unbind(pub);
    return secs;
}

using host_bus_stall = tarntest::HostTest;

TEST_F(host_bus_stall, a_stopped_subscriber_does_not_slow_the_live_ones)
{
    Outcome none;
    double alone = run(false, &none);
    Outcome stopped;
    double beside = run(true, &stopped);
    // Every message either waits in its queue or is counted as missed.
    EXPECT_EQ(kTotal, stopped.got + stopped.missed);
    EXPECT_GT(stopped.missed, 0u);
    EXPECT_EQ(1u, stopped.in_order);
    printf("%u notifications to 3 live subscribers: %.3f s alone, %.3f s "
           "beside a stopped one (it kept %u and missed %u)\n",
           kTotal, alone, beside, stopped.got, stopped.missed);
    RecordProperty("seconds_alone", std::to_string(alone));
    RecordProperty("seconds_beside_stopped", std::to_string(beside));
}

TEST_F(host_bus_stall, directed_sends_to_a_stopped_server_fail_and_are_counted)
{
    tarnhost_bus_set_send_wait_ms(2000);
    Proc server = spawn([](int rd, int wr) {
        uint32_t h = tarnhost_bus_serve(812, "server");
        if (h == BUS_HANDLE_NONE)
            return 1;
        put_word(wr, h);
        raise(SIGSTOP);
        uint32_t got = 0;
        while (bus_msg_t *m = tarnhost_bus_recv_ms(h, 200)) {
            bus_drop(h, m);
            ++got;
        }
        uint32_t missed = 0;
        tarnhost_bus_missed_take(h, &missed);
        put_word(wr, got);
        put_word(wr, missed);
        uint32_t done;
        get_word(rd, &done);
        bus_unbind(h);
        return 0;
    });
    uint32_t h = 0;
    ASSERT_TRUE(get_word(server.rd, &h));
    int status = 0;
    ASSERT_EQ(server.pid, waitpid(server.pid, &status, WUNTRACED));
    uint32_t c = bus_bind(0, -1, nullptr, "client");
    bus_send_opts_t o{};
    uint32_t sent = 0, refused = 0;
    // A directed send waits one window each time (its one receiver may
    // have just been resumed), so only a few beyond the queue's length.
    for (int i = 0; i < 14; ++i) {
        errno = 0;
        if (bus_send(c, BUS_NODE_LOCAL, 812, kOpc, "q", 1, nullptr, nullptr,
                     &o) == 0) {
            ++sent;
        } else {
            EXPECT_EQ(EAGAIN, errno);
            ++refused;
        }
    }
    EXPECT_GT(refused, 0u);
    uint32_t pending = 0;
    EXPECT_EQ(0, tarnhost_bus_missed(h, &pending));
    EXPECT_EQ(refused, pending);
    kill(server.pid, SIGCONT);
    uint32_t got = 0, missed = 0;
    ASSERT_TRUE(get_word(server.rd, &got));
    ASSERT_TRUE(get_word(server.rd, &missed));
    EXPECT_EQ(sent, got);
    EXPECT_EQ(refused, missed);
    // Taking messages again lifts the stall: a send waits once more.
    EXPECT_EQ(0, bus_send(c, BUS_NODE_LOCAL, 812, kOpc, "q", 1, nullptr,
                          nullptr, &o));
    put_word(server.wr, 1);
    EXPECT_EQ(0, finish(server));
    bus_unbind(c);
}

TEST_F(host_bus_stall, a_killed_subscriber_of_a_quiet_opcode_leaves_nothing)
{
    Proc victim = holder({kQuietOpc, kOpc});
    uint32_t hv = 0;
    ASSERT_TRUE(get_word(victim.rd, &hv));
    EXPECT_TRUE(exists(bus_file(root_, "sub", kQuietOpc) + "/" +
                       std::to_string(hv)));
    kill(victim.pid, SIGKILL);
    EXPECT_EQ(-1, finish(victim));
    EXPECT_EQ(1u, tarnhost_bus_subscribers(kQuietOpc, nullptr, 0));
    EXPECT_TRUE(exists(bus_file(root_, "h", hv)));
    // Nobody publishes kQuietOpc; the next bind meets the litter anyway.
    uint32_t next = bus_bind(0, -1, nullptr, "next");
    ASSERT_NE(BUS_HANDLE_NONE, next);
    EXPECT_EQ(0u, tarnhost_bus_subscribers(kQuietOpc, nullptr, 0));
    EXPECT_EQ(0u, tarnhost_bus_subscribers(kOpc, nullptr, 0));
    EXPECT_FALSE(exists(bus_file(root_, "h", hv)));
    EXPECT_FALSE(exists(bus_file(root_, "state", hv)));
    EXPECT_FALSE(exists(bus_file(root_, "sub", kQuietOpc)));
    EXPECT_TRUE(exists(bus_file(root_, "h", next)));
    bus_unbind(next);
}

TEST_F(host_bus_stall, killed_publishers_leave_no_sockets)
{
    std::vector<uint32_t> dead;
    for (int i = 0; i < 5; ++i) {
        Proc p = spawn([](int rd, int wr) {
            uint32_t h = bus_bind(0, -1, nullptr, "publisher");
            put_word(wr, h);
            tarnhost_bus_publish(h, kOpc, "x", 1);
            uint32_t never;
            get_word(rd, &never, 60000);
            return 0;
        });
        uint32_t h = 0;
        ASSERT_TRUE(get_word(p.rd, &h));
        kill(p.pid, SIGKILL);
        EXPECT_EQ(-1, finish(p));
        dead.push_back(h);
    }
    // Each bind swept the publisher killed before it; the last is there.
    EXPECT_TRUE(exists(bus_file(root_, "h", dead.back())));
    EXPECT_TRUE(exists(bus_file(root_, "state", dead.back())));
    uint32_t next = bus_bind(0, -1, nullptr, "next");
    ASSERT_NE(BUS_HANDLE_NONE, next);
    for (uint32_t h : dead) {
        EXPECT_FALSE(exists(bus_file(root_, "h", h))) << h;
        EXPECT_FALSE(exists(bus_file(root_, "state", h))) << h;
    }
    bus_unbind(next);
    // An orderly unbind leaves nothing either, not even the opcode's
    // directory.
    uint32_t a = bus_bind(0, -1, nullptr, "a");
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kQuietOpc, 1));
    EXPECT_EQ(0u, bus_unbind(a));
    EXPECT_FALSE(exists(bus_file(root_, "sub", kQuietOpc)));
    std::vector<std::string> left;
    for (const char *sub : {"h", "state", "sub"})
        for (const auto &e : std::filesystem::directory_iterator(
                 root_ + "/bus/" + sub))
            left.push_back(e.path().string());
    EXPECT_TRUE(left.empty()) << left.front();
}

// Processes bind, subscribe, publish and die at random instants; after
// every step the bus keeps its invariants: after a bind, every socket,
// slot and record belongs to a live handle, and every live subscriber got
// every message published since it subscribed, or had it counted.
TEST_F(host_bus_stall, random_kills_leave_a_consistent_bus)
{
    unsigned seed = static_cast<unsigned>(time(nullptr));
    srand(seed);
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::vector<Proc> procs;
    std::vector<uint32_t> handles;
    for (int step = 0; step < 30; ++step) {
        int what = rand() % 3;
        if (what == 0 || procs.empty()) {
            const uint32_t opc = kOpc + static_cast<uint32_t>(rand() % 3);
            const bool twice = rand() % 2;
            procs.push_back(twice ? holder({opc, opc}) : holder({opc}));
            uint32_t h = 0;
            ASSERT_TRUE(get_word(procs.back().rd, &h));
            handles.push_back(h);
        } else if (what == 1) {
            size_t i = static_cast<size_t>(rand()) % procs.size();
            kill(procs[i].pid, SIGKILL);
            finish(procs[i]);
            procs.erase(procs.begin() + static_cast<long>(i));
            handles.erase(handles.begin() + static_cast<long>(i));
        } else {
            uint32_t opc = kOpc + static_cast<uint32_t>(rand() % 3);
            EXPECT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, opc, "p", 1));
        }
        // A bind sweeps: what is left belongs to the live handles.
        uint32_t probe = bus_bind(0, -1, nullptr, "probe");
        ASSERT_NE(BUS_HANDLE_NONE, probe);
        for (const auto &e :
             std::filesystem::directory_iterator(root_ + "/bus/h")) {
            uint32_t id = static_cast<uint32_t>(
                std::stoul(e.path().filename().string()));
            bool live = id == probe;
            for (uint32_t h : handles)
                live = live || h == id;
            EXPECT_TRUE(live) << "socket of a dead handle " << id;
        }
        size_t records = 0;
        for (uint32_t opc = kOpc; opc < kOpc + 3; ++opc)
            records += tarnhost_bus_subscribers(opc, nullptr, 0);
        EXPECT_EQ(handles.size(), records);
        bus_unbind(probe);
    }
    for (Proc &p : procs) {
        kill(p.pid, SIGKILL);
        finish(p);
    }
}

}  // namespace
