// The Gyre cache across processes: dump pages fetched over the bus, the
// attribute changes of kinds 2 to 4 sent to a caching client, the reply of a
// client whose cache is off, the ftag notices as the Gyre service receives
// them, and the memory the cache leaves behind.

#include <stdarg.h>

#include "test_gyre_lifecycle_support.h"

using namespace lifecycle;

namespace {

constexpr int32_t kSap = 4711;
const std::string kRule(80, '-');

std::string fmt(const char *f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char *f, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof buf, f, ap);
    va_end(ap);
    return buf;
}

// Topologies 1..n; topology i has VLANs 2i and 2i+1 and ftag i (graph 2).
std::string fabric(uint32_t n)
{
    std::string j = "{\"topologies\": [";
    for (uint32_t i = 1; i <= n; ++i)
        j += (i > 1 ? "," : "") + fmt("{\"id\": %u, \"active_vlans\": \"%u-%u\", \"ftags\": "
                                      "[{\"ftag\": %u, \"graph\": 2}]}",
                                      i, 2 * i, 2 * i + 1, i);
    return j + "]}";
}

Bytes dump_request(uint32_t iteration, uint16_t kind = 4)
{
    Bytes b(28, 0);
    put16(b, 2, kind);
    put32(b, 20, 28);
    put32(b, 24, iteration);
    return b;
}

struct Reply {
    bool got = false;
    uint32_t opcode = 0;
    uint32_t reply_to = 0;
    uint32_t sender = 0;
    Bytes payload;
};

// Sends `payload` with `opcode` from the tester to the client's access point
// and waits up to `ms` for an answer; `sent_id` receives the request's id.
Reply request(Client &c, uint32_t opcode, const Bytes &payload, uint32_t *sent_id,
              uint32_t ms = 5000)
{
    bus_send_opts_t o;
    memset(&o, 0, sizeof o);
    o.w[0] = 1;
    bus_msg_t *sent = nullptr;
    Reply r;
    if (bus_send(c.tester(), BUS_NODE_LOCAL, static_cast<uint32_t>(c.sap()), opcode,
                 payload.data(), static_cast<uint32_t>(payload.size()), nullptr, &sent, &o) != 0)
        return r;
    *sent_id = bus_msg_id_get(sent);
    bus_drop(c.tester(), sent);
    bus_msg_t *m = tarnhost_bus_recv_ms(c.tester(), ms);
    if (m == nullptr)
        return r;
    r.got = true;
    r.opcode = bus_opc_get(m);
    r.reply_to = tarnhost_bus_reply_to_get(m);
    r.sender = tarnhost_bus_sender_get(m);
    uint32_t len = 0;
    const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(m, &len));
    if (p != nullptr)
        r.payload.assign(p, p + len);
    bus_drop(c.tester(), m);
    return r;
}

class GyreLifecycle : public LifecycleTest {};

// ---- paging ----------------------------------------------------------------------

struct Expected {
    uint32_t status, next, n;
};

void check_paging(uint32_t topologies, const std::vector<Expected> &pages)
{
    SCOPED_TRACE(fmt("%u topologies", topologies));
    tarntest::load_device_json(fabric(topologies));
    Client c;
    ASSERT_TRUE(c.start(kSap));
    uint32_t first = 1;
    for (size_t i = 0; i < pages.size(); ++i) {
        const uint32_t iteration = static_cast<uint32_t>(i + 1);
        SCOPED_TRACE(fmt("iteration %u", iteration));
        uint32_t id = 0;
        const Reply r = request(c, kAttrChange, dump_request(iteration), &id);
        ASSERT_TRUE(r.got);
        EXPECT_EQ(kAttrChange, r.opcode);
        EXPECT_EQ(id, r.reply_to);
        EXPECT_EQ(c.handle(), r.sender);
        ASSERT_GE(r.payload.size(), 12u);
        const uint8_t *p = r.payload.data();
        EXPECT_EQ(pages[i].status, get32(p, 0));
        if (pages[i].status == GYRE_CACHE_DUMP_NONE) {
            EXPECT_EQ(12u, r.payload.size());
            continue;
        }
        EXPECT_EQ(pages[i].next, get32(p, 4));
        ASSERT_EQ(pages[i].n, get32(p, 8));
        ASSERT_EQ(12u + 656u * pages[i].n, r.payload.size());
        for (uint32_t k = 0; k < pages[i].n; ++k) {
            const uint8_t *rec = p + 12 + 656 * k;
            const uint32_t t = first + k;
            EXPECT_EQ(t, get32(rec, 0));
            EXPECT_EQ(128u, get32(rec, 4));
            EXPECT_EQ(std::to_string(t), ranges(rec + 8, 1024));
            EXPECT_EQ(512u, get32(rec, 136));
            EXPECT_EQ(fmt("%u-%u", 2 * t, 2 * t + 1), ranges(rec + 140, 4096));
            EXPECT_EQ(1u, get32(rec, 652));
        }
        first += pages[i].n;
        if (pages[i].status == GYRE_CACHE_DUMP_END) {
            EXPECT_EQ(topologies + 1, first);
        }
    }
    EXPECT_EQ(0, c.stop());
}

TEST_F(GyreLifecycle, PagingOverTheBus)
{
    check_paging(0, {{3, 0, 0}, {0, 0, 0}});
    check_paging(1, {{3, 0, 1}, {0, 0, 0}});
    // Past the last page by exactly one: an empty last page, not status 0.
    check_paging(16, {{3, 0, 16}, {3, 0, 0}, {0, 0, 0}});
    check_paging(17, {{2, 2, 16}, {3, 0, 1}, {0, 0, 0}});
    check_paging(33, {{2, 2, 16}, {2, 3, 16}, {3, 0, 1}, {0, 0, 0}});
}

TEST_F(GyreLifecycle, RequesterPrintsTheTableOfAnotherProcess)
{
    tarntest::load_device_json(fabric(17));
    Client c;
    ASSERT_TRUE(c.start(kSap));
    // VLAN 7 of topology 3 loses its owner entry: that row is out of sync.
    Bytes v(4);
    put32(v, 0, 7);
    c.ask(kOpcForgetVlan, v);
    const uint32_t requester = bus_bind(4, -1, nullptr, "requester");
    ASSERT_NE(BUS_HANDLE_NONE, requester);
    testing::internal::CaptureStdout();
    const uint32_t rc = gyre_client_dbg_print_cache(requester, BUS_NODE_LOCAL, kSap);
    fflush(stdout);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0u, rc);
    std::string expect = "\t\tGYRE Cache Information\n" + kRule + "\n\n" +
                         fmt("%-10s %-36s %-20s\n", "Topo-ID", "Active Vlan List", "Ftag List") +
                         kRule + "\n";
    for (uint32_t i = 1; i <= 17; ++i)
        expect += fmt("%-10u %-36s %-20s %s\n", i, fmt("%u-%u", 2 * i, 2 * i + 1).c_str(),
                      std::to_string(i).c_str(), i == 3 ? "Out of Sync!" : "");
    EXPECT_EQ(expect, out);
    bus_unbind(requester);
    EXPECT_EQ(0, c.stop());
}

TEST_F(GyreLifecycle, RequesterOfAnEmptyCachePrintsOnlyTheHeader)
{
    tarntest::load_device_json("{}");
    Client c;
    ASSERT_TRUE(c.start(kSap));
    const uint32_t requester = bus_bind(4, -1, nullptr, "requester");
    testing::internal::CaptureStdout();
    const uint32_t rc = gyre_client_dbg_print_cache(requester, BUS_NODE_LOCAL, kSap);
    fflush(stdout);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(0u, rc);
    EXPECT_EQ("\t\tGYRE Cache Information\n" + kRule + "\n\n" +
                  fmt("%-10s %-36s %-20s\n", "Topo-ID", "Active Vlan List", "Ftag List") + kRule +
                  "\n",
              out);
    bus_unbind(requester);
    EXPECT_EQ(0, c.stop());
}

TEST_F(GyreLifecycle, WhatIsNoDumpRequestGetsNoReply)
{
    tarntest::load_device_json(fabric(2));
    Client c;
    ASSERT_TRUE(c.start(kSap));
    uint32_t id = 0;
    // Kind 5: ignored and dropped, nothing sent back.
    EXPECT_FALSE(request(c, kAttrChange, dump_request(1, 5), &id, 300).got);
    // A kind-4 payload under another opcode is nothing the library takes.
    EXPECT_FALSE(request(c, 51227, dump_request(1), &id, 300).got);
    EXPECT_EQ(0, c.stop());
}

// ---- attribute changes over the bus ---------------------------------------------

TEST_F(GyreLifecycle, AttributeChangesOfKindsTwoThreeFour)
{
    tarntest::load_device_json(fabric(3));
    Client c;
    ASSERT_TRUE(c.start(kSap));
    const std::string before = c.probe();
    EXPECT_NE(std::string::npos, before.find("T 2 vlans 4-5 ftags 2 sync 1\n")) << before;

    // Kind 2: topology 2 loses its ftags; ftag 3 of topology 3, named in the
    // bitmap too, is cleared from the table though its node keeps the bit.
    Bytes k2(164, 0);
    put16(k2, 2, 2);
    put32(k2, 28, 2);
    put32(k2, 32, 128);
    k2[36 + 0] = 0x20 | 0x10;  // ftags 2 and 3
    ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, kAttrChange, k2.data(), 164));
    const std::string after2 = c.probe();
    EXPECT_NE(std::string::npos, after2.find("T 2 vlans 4-5 ftags -- sync 1\n")) << after2;
    EXPECT_NE(std::string::npos, after2.find("T 3 vlans 6-7 ftags 3 sync 0\n")) << after2;
    EXPECT_EQ(std::string::npos, after2.find("\nF 2 ")) << after2;
    EXPECT_EQ(std::string::npos, after2.find("\nF 3 ")) << after2;
    EXPECT_NE(std::string::npos, after2.find("V 4 2 ")) << "VLANs stay: " << after2;

    // Kind 4 is answered by the client; the reply's records show the state.
    uint32_t id = 0;
    Reply r = request(c, kAttrChange, dump_request(1), &id);
    ASSERT_TRUE(r.got);
    ASSERT_EQ(12u + 3 * 656u, r.payload.size());
    EXPECT_EQ(3u, get32(r.payload.data(), 0));
    EXPECT_EQ(0u, get32(r.payload.data() + 12 + 656 * 2, 652)) << "topology 3 out of sync";

    // Kind 3: the whole cache goes, the flag stays; the dump then says none.
    Bytes k3(28, 0);
    put16(k3, 2, 3);
    ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, kAttrChange, k3.data(), 28));
    EXPECT_EQ("no cache\n", c.probe());
    EXPECT_EQ((std::pair<uint32_t, uint32_t>{0, 0}), c.memory());
    r = request(c, kAttrChange, dump_request(1), &id);
    ASSERT_TRUE(r.got);
    ASSERT_EQ(12u, r.payload.size());
    EXPECT_EQ(0u, get32(r.payload.data(), 0));
    EXPECT_EQ(0, c.stop());
}

TEST_F(GyreLifecycle, ClientWithTheCacheOffAnswersWithStatusZero)
{
    tarntest::load_device_json(fabric(2));
    Client c;
    ASSERT_TRUE(c.start(kSap, /*cache=*/false, /*gyre_only=*/true));
    uint32_t id = 0;
    const Reply r = request(c, kAttrChange, dump_request(1), &id);
    ASSERT_TRUE(r.got);
    EXPECT_EQ(kAttrChange, r.opcode);
    EXPECT_EQ(id, r.reply_to);
    // From the temporary handle, not the client's own.
    EXPECT_NE(c.handle(), r.sender);
    EXPECT_EQ(Bytes(12, 0), r.payload);
    // Any other message gets nothing.
    EXPECT_FALSE(request(c, kAttrChange, dump_request(1, 3), &id, 300).got);
    EXPECT_FALSE(request(c, 51208, Bytes(24, 0), &id, 300).got);
    EXPECT_EQ(0, c.stop());
}

// ---- the ftag notices ----------------------------------------------------------------

TEST_F(GyreLifecycle, NoticesArriveAtTheGyreAccessPointByteForByte)
{
    tarntest::load_device_json(fabric(1));
    // The Gyre service: a process serving access point 365.
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    const pid_t svc = fork();
    if (svc == 0) {
        close(fds[0]);
        const uint32_t h = tarnhost_bus_serve(GYRE_SAP, "gyre service");
        char ok = h != BUS_HANDLE_NONE ? 1 : 0;
        if (write(fds[1], &ok, 1) != 1 || !ok)
            _exit(2);
        std::string got;
        for (int i = 0; i < 2; ++i) {
            bus_msg_t *m = tarnhost_bus_recv_ms(h, 10000);
            if (m == nullptr)
                _exit(3);
            uint32_t len = 0;
            const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(m, &len));
            got += fmt("%u %u:", bus_opc_get(m), len);
            for (uint32_t k = 0; k < len; ++k)
                got += fmt(" %02x", p[k]);
            got += "\n";
            bus_drop(h, m);
        }
        const bool right = got ==
                           "51223 12: 00 00 00 00 01 00 00 00 00 00 00 00\n"
                           "51223 12: 00 00 00 00 00 00 00 00 07 00 00 00\n";
        if (!right)
            fprintf(stderr, "the service received:\n%s", got.c_str());
        _exit(right ? 0 : 1);
    }
    close(fds[1]);
    char ok = 0;
    ASSERT_EQ(1, read(fds[0], &ok, 1));
    close(fds[0]);
    ASSERT_EQ(1, ok);
    ASSERT_EQ(1u, tarn_api_init());
    const uint32_t h = bus_bind(4, -1, nullptr, "notice sender");
    ASSERT_EQ(1u, tarn_register(h));
    EXPECT_EQ(0u, gyre_ftag_stale(0)) << "no topology: nothing sent";
    EXPECT_EQ(1u, gyre_ftag_converge());
    EXPECT_EQ(1u, gyre_ftag_stale(7));
    int st = 0;
    ASSERT_EQ(svc, waitpid(svc, &st, 0));
    EXPECT_TRUE(WIFEXITED(st));
    EXPECT_EQ(0, WEXITSTATUS(st));
    gyre_api_close();
    tarn_api_close();
    bus_unbind(h);
}

// ---- memory ----------------------------------------------------------------------

TEST_F(GyreLifecycle, NothingIsLeftWhenTheCacheIsTurnedOff)
{
    tarntest::load_device_json(fabric(20));
    Client c;
    ASSERT_TRUE(c.start(kSap));
    EXPECT_EQ((std::pair<uint32_t, uint32_t>{1, 20}), c.memory());
    // Topologies made by notifications are freed too.
    Bytes create(24, 0);
    put32(create, 20, 99);
    ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, 51208, create.data(), 24));
    EXPECT_EQ((std::pair<uint32_t, uint32_t>{1, 21}), c.memory());
    c.ask(kOpcCacheOff);
    EXPECT_EQ((std::pair<uint32_t, uint32_t>{0, 0}), c.memory());
    EXPECT_EQ("no cache\n", c.probe());
    EXPECT_EQ(0, c.stop());

    // In this process as well, through enable, flush and disable.
    ASSERT_EQ(1u, tarn_api_init());
    const uint32_t h = bus_bind(4, -1, nullptr, "memory");
    gyre_cache_attr_t attr{h};
    ASSERT_EQ(1u, gyre_enable_cache_mode(&attr));
    EXPECT_EQ(1u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE));
    EXPECT_EQ(20u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
    EXPECT_EQ(1u, gyre_disable_cache_mode());
    EXPECT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE));
    EXPECT_EQ(0u, alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
    EXPECT_EQ(0u, alloctrack_live_bytes(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG));
    gyre_api_close();
    tarn_api_close();
    bus_unbind(h);
}

// ---- messages made without a socket ------------------------------------------------

TEST_F(GyreLifecycle, MessagesWithoutASocket)
{
    const uint8_t bytes[3] = {1, 2, 3};
    bus_msg_t *m = tarnhost_bus_msg_new(51208, bytes, 3);
    ASSERT_NE(nullptr, m);
    EXPECT_EQ(51208u, bus_opc_get(m));
    uint32_t len = 0;
    const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(m, &len));
    ASSERT_NE(nullptr, p);
    EXPECT_EQ(3u, len);
    EXPECT_EQ(0, memcmp(bytes, p, 3));
    EXPECT_EQ(BUS_HANDLE_NONE, tarnhost_bus_sender_get(m));
    EXPECT_EQ(0, bus_drop(BUS_HANDLE_NONE, m));

    for (const void *payload : {static_cast<const void *>(nullptr), static_cast<const void *>(bytes)}) {
        bus_msg_t *e = tarnhost_bus_msg_new(7, payload, payload ? 0u : 5u);
        ASSERT_NE(nullptr, e);
        len = 99;
        EXPECT_EQ(nullptr, bus_payload_get(e, &len));
        EXPECT_EQ(0u, len);
        EXPECT_EQ(0, bus_drop(BUS_HANDLE_NONE, e));
    }
    errno = 0;
    EXPECT_EQ(nullptr, tarnhost_bus_msg_new(7, bytes, BUS_MAX_PAYLOAD + 1));
    EXPECT_EQ(EMSGSIZE, errno);

    // Such a message goes through dispatch like a received one.
    tarntest::load_device_json(fabric(1));
    ASSERT_EQ(1u, tarn_api_init());
    const uint32_t h = bus_bind(4, -1, nullptr, "no socket");
    gyre_cache_attr_t attr{h};
    ASSERT_EQ(1u, gyre_enable_cache_mode(&attr));
    Bytes create(24, 0);
    put32(create, 20, 5);
    bus_msg_t *c = tarnhost_bus_msg_new(51208, create.data(), 24);
    EXPECT_EQ(0, tarn_dispatch(c));
    bus_drop(h, c);
    EXPECT_NE(nullptr, gyre_cache_find_topo_by_id(5));
    Bytes as(28, 0);
    put16(as, 2, 1);
    put32(as, 24, 2);
    ASSERT_EQ(1u, tarn_track_as_format());
    EXPECT_EQ(1, tarn_dispatch(tarnhost_bus_msg_new(kAttrChange, as.data(), 28)));
    EXPECT_EQ(2u, tarn_get_as_format());
    gyre_api_close();
    tarn_api_close();
    bus_unbind(h);
}

TEST_F(GyreLifecycle, HandleToAccessPoint)
{
    const uint32_t dynamic = bus_bind(4, -1, nullptr, "dynamic");
    const uint32_t served = tarnhost_bus_serve(4321, "served");
    ASSERT_NE(BUS_HANDLE_NONE, served);
    EXPECT_EQ(4321, tarnhost_bus_handle_sap(served));
    errno = 0;
    EXPECT_EQ(-1, tarnhost_bus_handle_sap(dynamic));
    EXPECT_EQ(ENOENT, errno);
    bus_unbind(served);
    EXPECT_EQ(-1, tarnhost_bus_handle_sap(served));
    bus_unbind(dynamic);
}

}  // namespace
