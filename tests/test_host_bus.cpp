// The host message bus: handles, options and subscriptions, publishing to
// every subscriber of every process, directed sends, requests and replies,
// limits, dead subscribers, fault injection and file permissions.

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "host/tarnhost_bus.h"
#include "host/tarnhost_bus_opcodes.h"
#include "platform/bus.h"
#include "support/fixture.h"
#include "support/proc.h"

namespace {

constexpr uint32_t kOpcA = 61001;
constexpr uint32_t kOpcB = 61002;
using tarntest::kWaitMs;
using tarntest::Proc;
using tarntest::finish;
using tarntest::get_word;
using tarntest::put_word;
using tarntest::spawn;

bus_send_opts_t opts()
{
    bus_send_opts_t o{};
    o.w[0] = 1;
    return o;
}

int send_to(uint32_t h, uint32_t sap, uint32_t opc, const void *p,
            uint32_t len)
{
    bus_send_opts_t o = opts();
    return bus_send(h, BUS_NODE_LOCAL, sap, opc, p, len, nullptr, nullptr,
                    &o);
}

// Receives one message and checks its opcode and payload text; returns 0
// when it matches, a distinct non-zero code for each way it does not.
int expect_msg(uint32_t h, uint32_t opc, const std::string &text,
               int timeout_ms = kWaitMs)
{
    bus_msg_t *m = tarnhost_bus_recv_ms(h, static_cast<uint32_t>(timeout_ms));
    if (m == nullptr)
        return 10;
    int rc = 0;
    uint32_t len = 0;
    const void *p = bus_payload_get(m, &len);
    if (bus_opc_get(m) != opc)
        rc = 11;
    else if (len != text.size() || p == nullptr ||
             memcmp(p, text.data(), len) != 0)
        rc = 12;
    bus_drop(h, m);
    return rc;
}

// 0 when nothing arrives within a short while.
int expect_nothing(uint32_t h, int timeout_ms = 100)
{
    bus_msg_t *m = tarnhost_bus_recv_ms(h, static_cast<uint32_t>(timeout_ms));
    if (m == nullptr)
        return errno == EAGAIN ? 0 : 20;
    bus_drop(h, m);
    return 21;
}

std::string bus_file(const char *sub, uint32_t n)
{
    return std::string(tarnhost_root()) + "/bus/" + sub + "/" +
           std::to_string(n);
}

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

std::vector<uint32_t> subscribers(uint32_t opc)
{
    std::vector<uint32_t> out(64);
    size_t n = tarnhost_bus_subscribers(opc, out.data(), out.size());
    out.resize(std::min(n, out.size()));
    std::sort(out.begin(), out.end());
    return out;
}

uint32_t dyn(const char *name = "test")
{
    return bus_bind(4, -1, nullptr, name);
}

class host_bus : public tarntest::HostTest {
protected:
    void TearDown() override
    {
        tarnhost_bus_set_send_wait_ms(2000);
        tarntest::HostTest::TearDown();
    }
};

TEST_F(host_bus, DynamicHandlesAreDistinct)
{
    bus_addr_t addr{{1, 0, 1024, 0, 0, 15}};
    uint32_t a = bus_bind(4, -1, &addr, "LIBGYRE Dynamic");
    uint32_t b = dyn();
    ASSERT_NE(BUS_HANDLE_NONE, a);
    ASSERT_NE(BUS_HANDLE_NONE, b);
    EXPECT_NE(a, b);
    EXPECT_NE(0u, a);
    EXPECT_TRUE(exists(bus_file("h", a)));
    // Another process draws from the same counter.
    Proc p = spawn([&](int, int wr) {
        uint32_t c = dyn();
        put_word(wr, c);
        return c == BUS_HANDLE_NONE ? 1 : 0;
    });
    uint32_t c = BUS_HANDLE_NONE;
    ASSERT_TRUE(get_word(p.rd, &c));
    EXPECT_EQ(0, finish(p));
    EXPECT_NE(BUS_HANDLE_NONE, c);
    EXPECT_NE(a, c);
    EXPECT_NE(b, c);
    EXPECT_EQ(0u, bus_unbind(a));
    EXPECT_EQ(0u, bus_unbind(b));
    EXPECT_FALSE(exists(bus_file("h", a)));
    EXPECT_EQ(static_cast<uint32_t>(EBADF), bus_unbind(a));
}

TEST_F(host_bus, BadAccessPointsAreRefused)
{
    errno = 0;
    EXPECT_EQ(BUS_HANDLE_NONE, bus_bind(0, 0, nullptr, "zero"));
    EXPECT_EQ(EINVAL, errno);
    errno = 0;
    EXPECT_EQ(BUS_HANDLE_NONE, bus_bind(0, -2, nullptr, "neg"));
    EXPECT_EQ(EINVAL, errno);
}

TEST_F(host_bus, FixedAccessPointHasOneHolderPerDevice)
{
    uint32_t s = tarnhost_bus_serve(365, "gyre");
    ASSERT_NE(BUS_HANDLE_NONE, s);
    errno = 0;
    EXPECT_EQ(BUS_HANDLE_NONE, bus_bind(0, 365, nullptr, "again"));
    EXPECT_EQ(EADDRINUSE, errno);
    Proc p = spawn([](int, int) {
        errno = 0;
        uint32_t h = bus_bind(0, 365, nullptr, "other");
        return h == BUS_HANDLE_NONE && errno == EADDRINUSE ? 0 : 1;
    });
    EXPECT_EQ(0, finish(p));
    EXPECT_EQ(0u, bus_unbind(s));
    EXPECT_FALSE(exists(std::string(tarnhost_root()) + "/bus/ap/365"));
    uint32_t s2 = tarnhost_bus_serve(365, "gyre");
    ASSERT_NE(BUS_HANDLE_NONE, s2);
    EXPECT_NE(s, s2);
    EXPECT_EQ(0u, bus_unbind(s2));
}

TEST_F(host_bus, AccessPointOfAKilledHolderCanBeTakenOver)
{
    Proc p = spawn([](int rd, int wr) {
        uint32_t h = tarnhost_bus_serve(366, "doomed");
        put_word(wr, h);
        uint32_t v;
        get_word(rd, &v, 10000);
        return 0;
    });
    uint32_t dead = BUS_HANDLE_NONE;
    ASSERT_TRUE(get_word(p.rd, &dead));
    ASSERT_NE(BUS_HANDLE_NONE, dead);
    kill(p.pid, SIGKILL);
    EXPECT_EQ(-1, finish(p));
    uint32_t s = tarnhost_bus_serve(366, "heir");
    ASSERT_NE(BUS_HANDLE_NONE, s);
    EXPECT_FALSE(exists(bus_file("h", dead)));
    uint32_t c = dyn();
    ASSERT_EQ(0, send_to(c, 366, kOpcA, "hi", 2));
    EXPECT_EQ(0, expect_msg(s, kOpcA, "hi"));
    bus_unbind(c);
    bus_unbind(s);
}

TEST_F(host_bus, OptionWordsArePerHandleAndOpcode)
{
    uint32_t a = dyn(), b = dyn();
    EXPECT_EQ(0u, bus_options_get(a, kOpcA));
    EXPECT_EQ(0u, bus_options_set(a, kOpcA, 0x1204));
    EXPECT_EQ(0x1204u, bus_options_get(a, kOpcA));
    EXPECT_EQ(0u, bus_options_get(a, kOpcB));
    EXPECT_EQ(0u, bus_options_get(b, kOpcA));
    // No receive bit, no subscription.
    EXPECT_TRUE(subscribers(kOpcA).empty());
    EXPECT_EQ(0u, bus_options_set(a, kOpcA, 0x1204 | BUS_OPT_RECEIVE));
    EXPECT_EQ(0x1204u | BUS_OPT_RECEIVE, bus_options_get(a, kOpcA));
    EXPECT_EQ(std::vector<uint32_t>{a}, subscribers(kOpcA));
    EXPECT_EQ(0u, bus_options_set(a, kOpcA, 0x1204));
    EXPECT_TRUE(subscribers(kOpcA).empty());
    EXPECT_EQ(static_cast<uint32_t>(EBADF),
              bus_options_set(0x7FFFFFF0u, kOpcA, 1));
    EXPECT_EQ(EBADF, static_cast<int>(bus_errno_get(0x7FFFFFF0u)));
    bus_unbind(a);
    bus_unbind(b);
}

TEST_F(host_bus, SubscriptionsAreVisibleToOtherProcesses)
{
    uint32_t a = dyn();
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcA, 1));
    Proc p = spawn([&](int rd, int wr) {
        // Sees the parent's subscription...
        std::vector<uint32_t> seen = subscribers(kOpcA);
        if (seen != std::vector<uint32_t>{a})
            return 1;
        // ...and makes its own, which the parent sees.
        uint32_t c = dyn();
        if (tarnhost_bus_subscribe(c, kOpcB, 1) != 0)
            return 2;
        put_word(wr, c);
        uint32_t v;
        if (!get_word(rd, &v))
            return 3;
        // After the parent withdrew: gone here too.
        if (!subscribers(kOpcA).empty())
            return 4;
        bus_unbind(c);
        put_word(wr, 0);
        return 0;
    });
    uint32_t c = BUS_HANDLE_NONE;
    ASSERT_TRUE(get_word(p.rd, &c));
    EXPECT_EQ(std::vector<uint32_t>{c}, subscribers(kOpcB));
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcA, 0));
    put_word(p.wr, 1);
    uint32_t done;
    EXPECT_TRUE(get_word(p.rd, &done));
    EXPECT_EQ(0, finish(p));
    EXPECT_TRUE(subscribers(kOpcB).empty());
    bus_unbind(a);
}

TEST_F(host_bus, PublishReachesEverySubscriberAndOnlyThose)
{
    uint32_t a = dyn("A"), b = dyn("B"), c = dyn("C");
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcA, 1));
    ASSERT_EQ(0, tarnhost_bus_subscribe(b, kOpcB, 1));
    ASSERT_EQ(0, tarnhost_bus_subscribe(c, kOpcA, 1));
    ASSERT_EQ(0, tarnhost_bus_subscribe(c, kOpcB, 1));
    // Two processes with one handle each on opcode A, one on B only, and
    // one handle that is bound but subscribed to nothing.
    auto subscriber = [](uint32_t opc, int expected) {
        return [opc, expected](int rd, int wr) {
            uint32_t h = dyn("child");
            uint32_t idle = dyn("idle");
            if (opc != 0 && tarnhost_bus_subscribe(h, opc, 1) != 0)
                return 1;
            put_word(wr, h);
            uint32_t v;
            if (!get_word(rd, &v))
                return 2;
            for (int i = 0; i < expected; ++i) {
                int rc = expect_msg(h, kOpcA, "note-A");
                if (rc != 0)
                    return rc;
            }
            if (expect_nothing(h) != 0)
                return 30;
            if (expect_nothing(idle, 10) != 0)
                return 31;
            return 0;
        };
    };
    Proc p1 = spawn(subscriber(kOpcA, 1));
    Proc p2 = spawn(subscriber(kOpcA, 1));
    Proc p3 = spawn(subscriber(kOpcB, 0));
    uint32_t h1, h2, h3;
    ASSERT_TRUE(get_word(p1.rd, &h1));
    ASSERT_TRUE(get_word(p2.rd, &h2));
    ASSERT_TRUE(get_word(p3.rd, &h3));
    std::vector<uint32_t> want{a, c, h1, h2};
    std::sort(want.begin(), want.end());
    EXPECT_EQ(want, subscribers(kOpcA));

    uint32_t pub = dyn("publisher");
    ASSERT_EQ(0, tarnhost_bus_publish(pub, kOpcA, "note-A", 6));
    put_word(p1.wr, 1);
    put_word(p2.wr, 1);
    put_word(p3.wr, 1);
    EXPECT_EQ(0, expect_msg(a, kOpcA, "note-A"));
    EXPECT_EQ(0, expect_msg(c, kOpcA, "note-A"));
    EXPECT_EQ(0, expect_nothing(a));
    EXPECT_EQ(0, expect_nothing(b));
    EXPECT_EQ(0, expect_nothing(c, 10));
    EXPECT_EQ(0, expect_nothing(pub, 10));
    EXPECT_EQ(0, finish(p1));
    EXPECT_EQ(0, finish(p2));
    EXPECT_EQ(0, finish(p3));
    for (uint32_t h : {a, b, c, pub})
        bus_unbind(h);
}

TEST_F(host_bus, PublisherThatSubscribedHearsItself)
{
    uint32_t a = dyn();
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcA, 1));
    ASSERT_EQ(0, tarnhost_bus_publish(a, kOpcA, "self", 4));
    EXPECT_EQ(0, expect_msg(a, kOpcA, "self"));
    uint32_t got = 0;
    ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, kOpcA, "anon", 4));
    bus_msg_t *m = tarnhost_bus_recv_ms(a, kWaitMs);
    ASSERT_NE(nullptr, m);
    got = tarnhost_bus_sender_get(m);
    EXPECT_NE(a, got);
    EXPECT_NE(BUS_HANDLE_NONE, got);
    bus_drop(a, m);
    bus_unbind(a);
}

TEST_F(host_bus, PublishWithoutSubscribersSucceeds)
{
    uint32_t a = dyn();
    EXPECT_EQ(0, send_to(a, 0, 60999, "x", 1));
    bus_unbind(a);
}

TEST_F(host_bus, DirectedRequestAndReply)
{
    Proc srv = spawn([](int, int wr) {
        uint32_t s = tarnhost_bus_serve(400, "server");
        put_word(wr, s);
        if (s == BUS_HANDLE_NONE)
            return 1;
        bus_recv_opts_t ro{1, 0, 5};
        bus_msg_t *req = bus_recv(s, &ro);
        if (req == nullptr)
            return 2;
        uint32_t len;
        const char *p = static_cast<const char *>(bus_payload_get(req, &len));
        if (bus_opc_get(req) != kOpcA || len != 4 || memcmp(p, "ping", 4))
            return 3;
        // A reply goes back to the sender whatever node and sap say.
        bus_send_opts_t o = opts();
        bus_msg_t *sent = nullptr;
        if (bus_send(s, 0xDEAD0000u, 999, kOpcB, "pong", 4, req, &sent,
                     &o) != 0)
            return 4;
        if (sent == nullptr || bus_opc_get(sent) != kOpcB)
            return 5;
        if (bus_drop(s, sent) != 0 || bus_drop(s, req) != 0)
            return 6;
        return 0;
    });
    uint32_t s;
    ASSERT_TRUE(get_word(srv.rd, &s));
    ASSERT_NE(BUS_HANDLE_NONE, s);

    uint32_t c = dyn("client");
    bus_send_opts_t o = opts();
    bus_msg_t *sent = nullptr;
    ASSERT_EQ(0, bus_send(c, BUS_NODE_LOCAL, 400, kOpcA, "ping", 4, nullptr,
                          &sent, &o));
    ASSERT_NE(nullptr, sent);
    uint32_t len = 0;
    EXPECT_EQ(0, memcmp("ping", bus_payload_get(sent, &len), 4));
    EXPECT_EQ(4u, len);
    bus_recv_opts_t ro{1, 0, 5};
    bus_msg_t *rep = bus_recv(c, &ro);
    ASSERT_NE(nullptr, rep);
    EXPECT_EQ(kOpcB, bus_opc_get(rep));
    EXPECT_EQ(bus_msg_id_get(sent), tarnhost_bus_reply_to_get(rep));
    EXPECT_EQ(s, tarnhost_bus_sender_get(rep));
    const void *p = bus_payload_get(rep, &len);
    ASSERT_EQ(4u, len);
    EXPECT_EQ(0, memcmp(p, "pong", 4));
    EXPECT_EQ(0, bus_drop(c, rep));
    EXPECT_EQ(0, bus_drop(c, sent));
    EXPECT_EQ(0, finish(srv));
    bus_unbind(c);
}

TEST_F(host_bus, SendToAnAbsentAccessPointFails)
{
    uint32_t c = dyn();
    errno = 0;
    EXPECT_EQ(-1, send_to(c, 401, kOpcA, "x", 1));
    EXPECT_EQ(ECONNREFUSED, errno);
    EXPECT_EQ(static_cast<uint32_t>(ECONNREFUSED), bus_errno_get(c));
    bus_send_opts_t o = opts();
    errno = 0;
    EXPECT_EQ(-1, bus_send(c, 0x0A000001u, 401, kOpcA, "x", 1, nullptr,
                           nullptr, &o));
    EXPECT_EQ(EHOSTUNREACH, errno);
    errno = 0;
    EXPECT_EQ(-1, send_to(0x7FFFFFF0u, 401, kOpcA, "x", 1));
    EXPECT_EQ(EBADF, errno);
    bus_unbind(c);
}

TEST_F(host_bus, ReplyToAGoneRequesterFails)
{
    uint32_t s = tarnhost_bus_serve(402, "server");
    uint32_t c = dyn();
    ASSERT_EQ(0, send_to(c, 402, kOpcA, "q", 1));
    bus_msg_t *req = tarnhost_bus_recv_ms(s, kWaitMs);
    ASSERT_NE(nullptr, req);
    bus_unbind(c);
    EXPECT_EQ(ECONNREFUSED, tarnhost_bus_reply(s, req, kOpcB, "a", 1));
    bus_drop(s, req);
    bus_unbind(s);
}

TEST_F(host_bus, RecvTimesOut)
{
    uint32_t a = dyn();
    bus_recv_opts_t now{1, 0, 0};
    errno = 0;
    EXPECT_EQ(nullptr, bus_recv(a, &now));
    EXPECT_EQ(EAGAIN, errno);
    EXPECT_EQ(static_cast<uint32_t>(EAGAIN), bus_errno_get(a));
    EXPECT_EQ(nullptr, bus_recv(a, nullptr));
    timespec t0, t1;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    bus_recv_opts_t one{1, 0, 1};
    errno = 0;
    EXPECT_EQ(nullptr, bus_recv(a, &one));
    EXPECT_EQ(EAGAIN, errno);
    clock_gettime(CLOCK_MONOTONIC, &t1);
    double s = (t1.tv_sec - t0.tv_sec) + (t1.tv_nsec - t0.tv_nsec) / 1e9;
    EXPECT_GE(s, 0.95);
    EXPECT_LT(s, 3.0);
    // A message that arrives during the wait ends it.
    Proc p = spawn([](int rd, int) {
        uint32_t v;
        if (!get_word(rd, &v))
            return 1;
        usleep(100 * 1000);
        return send_to(dyn(), 0, kOpcA, "late", 4) == 0 ? 0 : 2;
    });
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcA, 1));
    put_word(p.wr, 1);
    bus_recv_opts_t five{1, 0, 5};
    bus_msg_t *m = bus_recv(a, &five);
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(kOpcA, bus_opc_get(m));
    bus_drop(a, m);
    EXPECT_EQ(0, finish(p));
    EXPECT_EQ(nullptr, bus_recv(0x7FFFFFF0u, &now));
    EXPECT_EQ(EBADF, errno);
    bus_unbind(a);
}

std::vector<unsigned char> pattern(size_t n, unsigned seed)
{
    std::vector<unsigned char> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = static_cast<unsigned char>((i * 131 + seed) ^ (i >> 9));
    return v;
}

TEST_F(host_bus, LargePayloadsRoundTrip)
{
    // An echo server in another process sends every request back.
    Proc srv = spawn([](int, int wr) {
        uint32_t s = tarnhost_bus_serve(403, "echo");
        put_word(wr, s);
        for (int i = 0; i < 2; ++i) {
            bus_msg_t *m = tarnhost_bus_recv_ms(s, kWaitMs);
            if (m == nullptr)
                return 1;
            uint32_t len;
            const void *p = bus_payload_get(m, &len);
            if (tarnhost_bus_reply(s, m, bus_opc_get(m), p, len) != 0)
                return 2;
            bus_drop(s, m);
        }
        return 0;
    });
    uint32_t s;
    ASSERT_TRUE(get_word(srv.rd, &s));
    uint32_t c = dyn();
    for (uint32_t size : {128u * 1024u, BUS_MAX_PAYLOAD}) {
        std::vector<unsigned char> out = pattern(size, size);
        ASSERT_EQ(0, send_to(c, 403, kOpcA, out.data(), size)) << size;
        bus_msg_t *m = tarnhost_bus_recv_ms(c, kWaitMs);
        ASSERT_NE(nullptr, m) << size;
        uint32_t len = 0;
        const void *p = bus_payload_get(m, &len);
        ASSERT_EQ(size, len);
        EXPECT_EQ(0, memcmp(p, out.data(), size));
        bus_drop(c, m);
    }
    EXPECT_EQ(0, finish(srv));
    bus_unbind(c);
}

TEST_F(host_bus, OversizePayloadFailsCleanly)
{
    uint32_t a = dyn();
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcA, 1));
    std::vector<unsigned char> big(BUS_MAX_PAYLOAD + 1, 0x5A);
    errno = 0;
    EXPECT_EQ(-1, send_to(a, 0, kOpcA, big.data(),
                          static_cast<uint32_t>(big.size())));
    EXPECT_EQ(EMSGSIZE, errno);
    EXPECT_EQ(static_cast<uint32_t>(EMSGSIZE), bus_errno_get(a));
    EXPECT_EQ(0, expect_nothing(a, 50));
    // Nothing half-sent, nothing broken.
    EXPECT_EQ(std::vector<uint32_t>{a}, subscribers(kOpcA));
    ASSERT_EQ(0, send_to(a, 0, kOpcA, "ok", 2));
    EXPECT_EQ(0, expect_msg(a, kOpcA, "ok"));
    // A payload pointer is required when there is a length.
    errno = 0;
    EXPECT_EQ(-1, send_to(a, 0, kOpcA, nullptr, 4));
    EXPECT_EQ(EINVAL, errno);
    bus_unbind(a);
}

TEST_F(host_bus, EmptyPayloadAndMessageIds)
{
    uint32_t a = dyn();
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcA, 1));
    ASSERT_EQ(0, send_to(a, 0, kOpcA, nullptr, 0));
    ASSERT_EQ(0, send_to(a, 0, kOpcA, "x", 1));
    bus_msg_t *m1 = tarnhost_bus_recv_ms(a, kWaitMs);
    bus_msg_t *m2 = tarnhost_bus_recv_ms(a, kWaitMs);
    ASSERT_NE(nullptr, m1);
    ASSERT_NE(nullptr, m2);
    uint32_t len = 99;
    EXPECT_EQ(nullptr, bus_payload_get(m1, &len));
    EXPECT_EQ(0u, len);
    EXPECT_NE(bus_msg_id_get(m1), bus_msg_id_get(m2));
    EXPECT_NE(0u, bus_msg_id_get(m1));
    EXPECT_EQ(0, bus_drop(a, m1));
    EXPECT_EQ(0, bus_drop(a, m2));
    EXPECT_EQ(-1, bus_drop(a, nullptr));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(nullptr, bus_payload_get(nullptr, &len));
    EXPECT_EQ(0u, bus_opc_get(nullptr));
    bus_unbind(a);
}

TEST_F(host_bus, MalformedDatagramsAreDiscarded)
{
    uint32_t a = dyn();
    int raw = socket(AF_UNIX, SOCK_DGRAM, 0);
    ASSERT_GE(raw, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    snprintf(sa.sun_path, sizeof sa.sun_path, "%s", bus_file("h", a).c_str());
    auto put = [&](const void *p, size_t n) {
        return sendto(raw, p, n, 0, reinterpret_cast<sockaddr *>(&sa),
                      sizeof sa);
    };
    // magic, version|kind, opcode, id, sender, reply-to, length
    uint32_t hdr[8] = {0x53554254u, 1u | (1u << 16), kOpcA, 7, 1, 0, 4, 0};
    memcpy(&hdr[7], "abcd", 4);
    EXPECT_EQ(10, put(hdr, 10));          // shorter than the header
    hdr[6] = 5;
    EXPECT_EQ(32, put(hdr, 32));          // length disagrees
    hdr[6] = 4;
    hdr[0] = 0x12045678u;
    EXPECT_EQ(32, put(hdr, 32));          // wrong magic
    hdr[0] = 0x53554254u;
    hdr[1] = 9u | (1u << 16);
    EXPECT_EQ(32, put(hdr, 32));          // unknown version
    hdr[1] = 1u | (1u << 16);
    EXPECT_EQ(32, put(hdr, 32));          // the only good one
    close(raw);
    EXPECT_EQ(0, expect_msg(a, kOpcA, "abcd"));
    EXPECT_EQ(0, expect_nothing(a, 20));
    bus_unbind(a);
}

TEST_F(host_bus, KilledSubscriberDoesNotBreakPublishing)
{
    auto child = [](int rd, int wr) {
        uint32_t h = dyn("sub");
        if (tarnhost_bus_subscribe(h, kOpcA, 1) != 0)
            return 1;
        put_word(wr, h);
        uint32_t v;
        if (!get_word(rd, &v, 10000))
            return 2;
        return expect_msg(h, kOpcA, "after");
    };
    Proc victim = spawn(child);
    Proc survivor = spawn(child);
    uint32_t hv, hs;
    ASSERT_TRUE(get_word(victim.rd, &hv));
    ASSERT_TRUE(get_word(survivor.rd, &hs));
    std::vector<uint32_t> both{hv, hs};
    std::sort(both.begin(), both.end());
    EXPECT_EQ(both, subscribers(kOpcA));
    kill(victim.pid, SIGKILL);
    EXPECT_EQ(-1, finish(victim));
    // The record outlives the process until the next send finds it dead.
    EXPECT_TRUE(exists(bus_file("h", hv)));
    EXPECT_EQ(both, subscribers(kOpcA));
    EXPECT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, kOpcA, "after", 5));
    put_word(survivor.wr, 1);
    EXPECT_EQ(0, finish(survivor));
    EXPECT_EQ(std::vector<uint32_t>{hs}, subscribers(kOpcA));
    EXPECT_FALSE(exists(bus_file("h", hv)));
}

TEST_F(host_bus, StuckSubscriberMissesMessagesAndOthersDoNot)
{
    tarnhost_bus_set_send_wait_ms(50);
    uint32_t stuck = dyn("stuck"), live = dyn("live");
    ASSERT_EQ(0, tarnhost_bus_subscribe(stuck, kOpcA, 1));
    ASSERT_EQ(0, tarnhost_bus_subscribe(live, kOpcA, 1));
    uint32_t sender = dyn("sender");
    constexpr int kTotal = 300;
    size_t listed = 0;
    for (int i = 0; i < kTotal; ++i) {
        std::string note = "n" + std::to_string(i);
        uint32_t missed[4];
        size_t n = 0;
        // A full subscriber does not fail the publish.
        ASSERT_EQ(0, tarnhost_bus_publish_counted(
                         sender, kOpcA, note.data(),
                         static_cast<uint32_t>(note.size()), missed, 4, &n))
            << i;
        ASSERT_LE(n, 1u);
        if (n == 1) {
            EXPECT_EQ(stuck, missed[0]);
            ++listed;
        }
        // The live subscriber gets every message.
        ASSERT_EQ(0, expect_msg(live, kOpcA, note)) << i;
    }
    // Still subscribed: a full queue is not a dead subscriber.
    EXPECT_EQ(2u, subscribers(kOpcA).size());
    uint32_t missed = 0;
    EXPECT_EQ(0, tarnhost_bus_missed(stuck, &missed));
    EXPECT_EQ(listed, missed);
    EXPECT_EQ(0, tarnhost_bus_missed(live, &missed));
    EXPECT_EQ(0u, missed);
    // What was queued arrives in order; with the misses it is everything.
    int got = 0;
    while (bus_msg_t *m = tarnhost_bus_recv_ms(stuck, 0)) {
        uint32_t len = 0;
        const char *p = static_cast<const char *>(bus_payload_get(m, &len));
        EXPECT_EQ("n" + std::to_string(got), std::string(p, len));
        bus_drop(stuck, m);
        ++got;
    }
    EXPECT_GT(got, 0);
    EXPECT_EQ(static_cast<size_t>(kTotal), got + listed);
    uint32_t taken = 0;
    EXPECT_EQ(0, tarnhost_bus_missed_take(stuck, &taken));
    EXPECT_EQ(listed, taken);
    EXPECT_EQ(0, tarnhost_bus_missed(stuck, &missed));
    EXPECT_EQ(0u, missed);  // caught up
    EXPECT_EQ(0, tarnhost_bus_missed_take(stuck, &taken));
    EXPECT_EQ(0u, taken);
    bus_unbind(sender);
    bus_unbind(stuck);
    bus_unbind(live);
}

TEST_F(host_bus, InjectedFaults)
{
    uint32_t a = dyn();
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcA, 1));
    tarnhost_fault_set("bus_send", EIO, 1);
    errno = 0;
    EXPECT_EQ(-1, send_to(a, 0, kOpcA, "x", 1));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(static_cast<uint32_t>(EIO), bus_errno_get(a));
    EXPECT_EQ(0, expect_nothing(a, 20));
    EXPECT_EQ(0, send_to(a, 0, kOpcA, "y", 1));
    EXPECT_EQ(0, expect_msg(a, kOpcA, "y"));

    tarnhost_fault_set("bus_options_set", ENOSPC, 1);
    EXPECT_EQ(static_cast<uint32_t>(ENOSPC),
              bus_options_set(a, kOpcB, BUS_OPT_RECEIVE));
    EXPECT_EQ(0u, bus_options_get(a, kOpcB));
    EXPECT_TRUE(subscribers(kOpcB).empty());
    EXPECT_EQ(0u, bus_options_set(a, kOpcB, BUS_OPT_RECEIVE));
    EXPECT_EQ(std::vector<uint32_t>{a}, subscribers(kOpcB));

    tarnhost_fault_set("bus_bind", EMFILE, 1);
    errno = 0;
    EXPECT_EQ(BUS_HANDLE_NONE, dyn());
    EXPECT_EQ(EMFILE, errno);

    ASSERT_EQ(0, send_to(a, 0, kOpcA, "z", 1));
    tarnhost_fault_set("bus_recv", EINTR, 1);
    EXPECT_EQ(nullptr, tarnhost_bus_recv_ms(a, 0));
    EXPECT_EQ(EINTR, errno);
    bus_msg_t *m = tarnhost_bus_recv_ms(a, kWaitMs);
    ASSERT_NE(nullptr, m);
    tarnhost_fault_set("bus_drop", EFAULT, 1);
    EXPECT_EQ(-1, bus_drop(a, m));  // released all the same
    EXPECT_EQ(EFAULT, errno);
    bus_unbind(a);
}

TEST_F(host_bus, FilesAreTheOwnersOnly)
{
    uint32_t s = tarnhost_bus_serve(404, "perm");
    ASSERT_NE(BUS_HANDLE_NONE, s);
    ASSERT_EQ(0, tarnhost_bus_subscribe(s, kOpcA, 1));
    auto mode = [](const std::string &path, mode_t type) -> int {
        struct stat st;
        if (lstat(path.c_str(), &st) != 0 || (st.st_mode & S_IFMT) != type)
            return -1;
        return static_cast<int>(st.st_mode & 07777);
    };
    std::string bus = std::string(tarnhost_root()) + "/bus";
    EXPECT_EQ(0600, mode(bus_file("h", s), S_IFSOCK));
    EXPECT_EQ(0600, mode(bus + "/sub/" + std::to_string(kOpcA) + "/" +
                             std::to_string(s),
                         S_IFREG));
    EXPECT_EQ(0600, mode(bus + "/lock", S_IFREG));
    EXPECT_EQ(0600, mode(bus + "/gen", S_IFREG));
    EXPECT_EQ(0600, mode(bus_file("state", s), S_IFREG));
    for (const char *d : {"", "/h", "/ap", "/sub", "/state"})
        EXPECT_EQ(0700, mode(bus + d, S_IFDIR)) << d;
    EXPECT_EQ(0700, mode(bus + "/sub/" + std::to_string(kOpcA), S_IFDIR));
    // An access point is a file naming its handle, not a link.
    EXPECT_EQ(0600, mode(bus + "/ap/404", S_IFREG));
    bus_unbind(s);
}

TEST_F(host_bus, OpcodeNames)
{
    // Every opcode that libtarn sends or receives, and the host's request.
    const std::vector<std::pair<uint32_t, std::string>> named = {
        {51201, "TARN_REGISTER"},       {51205, "GYRE_NOTIFY_C805"},
        {51208, "GYRE_TPG_CREATE"},     {51209, "GYRE_NOTIFY_C809"},
        {51210, "GYRE_TPG_DELETE"},     {51211, "GYRE_NOTIFY_C80B"},
        {51212, "GYRE_NOTIFY_C80C"},    {51213, "GYRE_NOTIFY_C80D"},
        {51214, "GYRE_TPG_VLANS"},      {51215, "GYRE_FTAG_UPDATE"},
        {51222, "TARN_PROTOCOL_CONFIG_CHANGE"},
        {51223, "GYRE_FTAG_NOTICE"},    {51226, "TARN_ATTR_CHANGE"},
        {0x54480001u, "TARNHOST_CLIENT_INSPECT"},
    };
    std::vector<uint32_t> listed(tarnhost_bus_named_opcodes(nullptr, 0));
    ASSERT_EQ(named.size(), tarnhost_bus_named_opcodes(listed.data(), listed.size()));
    for (size_t i = 0; i < named.size(); ++i) {
        EXPECT_EQ(named[i].first, listed[i]);
        EXPECT_EQ(named[i].second, bus_opc_name_get(named[i].first));
        EXPECT_EQ(named[i].second, tarnhost_bus_opcode_name(named[i].first));
        uint32_t op = 0;
        EXPECT_EQ(0, tarnhost_bus_opcode_parse(named[i].second.c_str(), &op));
        EXPECT_EQ(named[i].first, op);
    }
    // Others by number; the tools' parser takes any case and hex too.
    EXPECT_STREQ("51202", bus_opc_name_get(51202));
    EXPECT_STREQ("0", bus_opc_name_get(0));
    EXPECT_STREQ("4294967295", bus_opc_name_get(0xFFFFFFFFu));
    EXPECT_EQ(nullptr, tarnhost_bus_opcode_name(51202));
    uint32_t op = 0;
    EXPECT_EQ(0, tarnhost_bus_opcode_parse("gyre_tpg_vlans", &op));
    EXPECT_EQ(51214u, op);
    EXPECT_EQ(0, tarnhost_bus_opcode_parse("0xC81A", &op));
    EXPECT_EQ(51226u, op);
    EXPECT_EQ(0, tarnhost_bus_opcode_parse("4294967295", &op));
    EXPECT_EQ(0xFFFFFFFFu, op);
    for (const char *bad : {"", "4294967296", "0x", "0x100000000", "12a", "-1", "GYRE"})
        EXPECT_EQ(EINVAL, tarnhost_bus_opcode_parse(bad, &op)) << bad;
    EXPECT_EQ(EINVAL, tarnhost_bus_opcode_parse(nullptr, &op));
    EXPECT_EQ(EINVAL, tarnhost_bus_opcode_parse("1", nullptr));
}

TEST_F(host_bus, UnbindWithdrawsSubscriptions)
{
    uint32_t a = dyn(), b = dyn();
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcA, 1));
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcB, 1));
    ASSERT_EQ(0, tarnhost_bus_subscribe(b, kOpcA, 1));
    EXPECT_EQ(0u, bus_unbind(a));
    EXPECT_EQ(std::vector<uint32_t>{b}, subscribers(kOpcA));
    EXPECT_TRUE(subscribers(kOpcB).empty());
    EXPECT_FALSE(exists(bus_file("h", a)));
    EXPECT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, kOpcB, "b", 1));
    EXPECT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, kOpcA, "a", 1));
    EXPECT_EQ(0, expect_msg(b, kOpcA, "a"));
    EXPECT_EQ(0, expect_nothing(b, 20));
    EXPECT_EQ(static_cast<uint32_t>(EBADF), bus_options_set(a, kOpcA, 0));
    bus_unbind(b);
}

TEST_F(host_bus, DescriptorPollsReadableWhileAMessageWaits)
{
    uint32_t a = dyn();
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcA, 1));
    const int fd = tarnhost_bus_fd(a);
    ASSERT_GE(fd, 0);
    pollfd p{fd, POLLIN, 0};
    EXPECT_EQ(0, poll(&p, 1, 0));
    // From another process, as an event loop would see it.
    Proc pub = spawn([&](int, int) {
        return tarnhost_bus_publish(BUS_HANDLE_NONE, kOpcA, "wake", 4) == 0 ? 0 : 1;
    });
    EXPECT_EQ(0, finish(pub));
    p.revents = 0;
    ASSERT_EQ(1, poll(&p, 1, kWaitMs));
    EXPECT_NE(0, p.revents & POLLIN);
    bus_msg_t *m = tarnhost_bus_recv_ms(a, 0);
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(kOpcA, bus_opc_get(m));
    bus_drop(a, m);
    p.revents = 0;
    EXPECT_EQ(0, poll(&p, 1, 0));
    EXPECT_EQ(0u, bus_unbind(a));
    errno = 0;
    EXPECT_EQ(-1, tarnhost_bus_fd(a));
    EXPECT_EQ(EBADF, errno);
}

TEST_F(host_bus, ForkedChildDoesNotInheritHandles)
{
    uint32_t a = dyn();
    ASSERT_EQ(0, tarnhost_bus_subscribe(a, kOpcA, 1));
    Proc p = spawn([&](int, int) {
        errno = 0;
        if (tarnhost_bus_recv_ms(a, 0) != nullptr || errno != EBADF)
            return 1;
        // The parent's subscription is still there for everyone to see.
        return subscribers(kOpcA) == std::vector<uint32_t>{a} ? 0 : 2;
    });
    EXPECT_EQ(0, finish(p));
    ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, kOpcA, "mine", 4));
    EXPECT_EQ(0, expect_msg(a, kOpcA, "mine"));
    bus_unbind(a);
}

TEST_F(host_bus, ARootTooDeepForASocketAddressStillWorks)
{
    // A socket address holds 108 bytes; this root's sockets need more.
    std::string deep = root_ + "/" + std::string(60, 'd');
    ASSERT_EQ(0, mkdir(deep.c_str(), 0700));
    deep += "/" + std::string(60, 'e');
    setenv("TARNHOST_ROOT", deep.c_str(), 1);
    uint32_t a = dyn(), b = dyn();
    ASSERT_NE(BUS_HANDLE_NONE, a);
    ASSERT_NE(BUS_HANDLE_NONE, b);
    ASSERT_EQ(0, tarnhost_bus_subscribe(b, kOpcA, 1));
    EXPECT_EQ(0, send_to(a, 0, kOpcA, "deep", 4));
    EXPECT_EQ(0, expect_msg(b, kOpcA, "deep"));
    bus_unbind(a);
    bus_unbind(b);
    setenv("TARNHOST_ROOT", root_.c_str(), 1);
}

}  // namespace
