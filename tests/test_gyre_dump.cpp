// Cache dump pages, the consistency check, the debug prints, and a dump
// fetched page by page over the bus.

#include <stdarg.h>

#include <regex>
#include <thread>

#include "test_gyre_support.h"

using namespace gyretest;

namespace {

uint32_t word(const uint8_t *p, size_t at)
{
    uint32_t v;
    memcpy(&v, p + at, 4);
    return v;
}

// A device of `n` topologies 1..n; topology i has VLAN i and ftag i.
std::string numbered(uint32_t n)
{
    std::string j = "{\"topologies\": [";
    for (uint32_t i = 1; i <= n; ++i)
        j += (i > 1 ? "," : "") + std::string("{\"id\": ") + std::to_string(i) +
             ", \"active_vlans\": \"" + std::to_string(i) + "\", \"ftags\": [{\"ftag\": " +
             std::to_string(i) + ", \"graph\": 2}]}";
    return j + "]}";
}

class GyreDump : public GyreTest {
protected:
    struct Page {
        uint32_t status = 0, next = 0, n = 0, size = 0;
        bool built = false;
        std::vector<uint32_t> ids;
        const uint8_t *rec(size_t i) const { return bytes.data() + 12 + 656 * i; }
        Bytes bytes;
    };
    static Page page(uint32_t iteration)
    {
        Page p;
        uint32_t size = 0;
        void *r = gyre_cache_build_resp_info(iteration, &size);
        if (r == nullptr)
            return p;
        p.built = true;
        p.size = size;
        const uint8_t *b = static_cast<const uint8_t *>(r);
        p.bytes.assign(b, b + size);
        p.status = word(b, 0);
        p.next = word(b, 4);
        p.n = word(b, 8);
        for (uint32_t i = 0; i < p.n && 12 + 656 * (i + 1) <= size; ++i)
            p.ids.push_back(word(b, 12 + 656 * i));
        free(r);
        return p;
    }
};

TEST_F(GyreDump, SixteenTopologiesMakeOnePage)
{
    load(numbered(16));
    ASSERT_EQ(1u, enable_cache());
    const Page p = page(1);
    ASSERT_TRUE(p.built);
    EXPECT_EQ(3u, p.status);
    EXPECT_EQ(0u, p.next);
    EXPECT_EQ(16u, p.n);
    EXPECT_EQ(16u * 656 + 12, p.size);
    std::vector<uint32_t> ids;
    for (uint32_t i = 1; i <= 16; ++i)
        ids.push_back(i);
    EXPECT_EQ(ids, p.ids);
    const uint8_t *r = p.rec(4);  // topology 5
    EXPECT_EQ(128u, word(r, 4));
    EXPECT_EQ((Set{5}), bits_of(r + 8, 1024));
    EXPECT_EQ(512u, word(r, 136));
    EXPECT_EQ((Set{5}), bits_of(r + 140, 4096));
    EXPECT_EQ(1u, word(r, 652));
}

TEST_F(GyreDump, SeventeenTopologiesMakeTwoPages)
{
    load(numbered(17));
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    const Page p1 = page(1);
    EXPECT_EQ(2u, p1.status);
    EXPECT_EQ(2u, p1.next);
    EXPECT_EQ(16u, p1.n);
    const Page p2 = page(2);
    EXPECT_EQ(3u, p2.status);
    EXPECT_EQ(0u, p2.next);
    EXPECT_EQ(1u, p2.n);
    EXPECT_EQ(std::vector<uint32_t>{17}, p2.ids);
    EXPECT_EQ(656u + 12, p2.size);
    const auto lines = debug_lines();
    EXPECT_TRUE(has_line(lines, dbg(fmt("Iteration %d, bus_size %d, num_records  %d, node_count %d, idx %d",
                                        1, 16 * 656 + 12, 16, 17, 16))));
    EXPECT_TRUE(has_line(lines, dbg("GYRE_CACHE_DUMP_MORE")));
    EXPECT_TRUE(has_line(lines, dbg(fmt("Iteration %d, bus_size %d, num_records  %d, node_count %d, idx %d",
                                        2, 656 + 12, 1, 17, 32))));
    EXPECT_TRUE(has_line(lines, dbg("GYRE_CACHE_DUMP_END")));
    // Iteration 1 also prints the whole cache; iteration 2 does not.
    EXPECT_EQ(2u, count_line(lines, dbg(kStars)));
    // Past the last page: no page.
    EXPECT_FALSE(page(3).built);
}

TEST_F(GyreDump, EmptyTreeAndNoCache)
{
    load(numbered(1));
    EXPECT_FALSE(page(1).built) << "no cache";
    ASSERT_EQ(1u, enable_cache());
    ASSERT_EQ(0, apply(51210, tpg_payload(1)));
    const Page p = page(1);
    ASSERT_TRUE(p.built);
    EXPECT_EQ(12u, p.size);
    EXPECT_EQ(3u, p.status);
    EXPECT_EQ(0u, p.n);
}

TEST_F(GyreDump, VerifyFlagsEachMismatchOnce)
{
    load(R"({"topologies": [{"id": 7, "ftags": [{"ftag": 1, "graph": 2}, {"ftag": 2, "graph": 3}]},
                            {"id": 8, "ftags": [{"ftag": 3, "graph": 2}]}]})");
    ASSERT_EQ(1u, enable_cache());
    // VLANs 10-12 to 7, then 11 and 12 to 8 in one message: 7 keeps the
    // bits.  Ftag 3 is cleared by a message naming 7.
    ASSERT_EQ(0, apply(51214, vlans_payload({{7, {10, 11, 12}}, {8, {11, 12}}})));
    ASSERT_EQ(1, attr(attr_payload(2, 7, {3})));
    ASSERT_EQ(0, apply(51215, ftags_payload({{1, 7, 2, 4, 2}})));
    // 7: ftag 4 fine, VLANs 11 and 12 elsewhere.  8: ftag 3 has no owner.
    debug_on();
    tarnhost_capture_clear();
    EXPECT_EQ(0u, gyre_cache_verify_topo(gyre_cache_find_topo_by_id(7)));
    EXPECT_EQ(0u, gyre_cache_verify_topo(gyre_cache_find_topo_by_id(8)));
    // The TOPO field shows the operation name's address, the next field the
    // topology id.
    const std::regex vlan7("Warning!!! TOPO [0-9]+, VLAN 7 Info out of sync!");
    const std::regex ftag8("Warning!!! TOPO [0-9]+, FTAG 8 Info out of sync!");
    std::vector<std::string> lines;
    for (const std::string &l : debug_lines()) {
        const std::string prefix = dbg("");
        EXPECT_EQ(prefix, l.substr(0, prefix.size()));
        lines.push_back(l.substr(prefix.size()));
    }
    ASSERT_EQ(3u, lines.size());
    EXPECT_TRUE(std::regex_match(lines[0], vlan7)) << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], vlan7)) << lines[1];
    EXPECT_TRUE(std::regex_match(lines[2], ftag8)) << lines[2];
    // The same address both times, and not a topology number.
    EXPECT_EQ(lines[0], lines[2].substr(0, lines[2].find(',')) + lines[0].substr(lines[0].find(',')));
    // The pages carry the verdict.
    const Page p = page(1);
    ASSERT_EQ(2u, p.n);
    EXPECT_EQ(0u, word(p.rec(0), 652));
    EXPECT_EQ(0u, word(p.rec(1), 652));
    // Both page printers flag them.
    uint32_t size = 0;
    void *r = gyre_cache_build_resp_info(1, &size);
    ASSERT_NE(nullptr, r);
    tarnhost_capture_clear();
    gyre_api_debug_print_resp_info(r);
    EXPECT_EQ((std::vector<std::string>{dbg("Topology 7 Vlans 10-12 Ftag 4 Out of Sync!"),
                                        dbg("Topology 8 Vlans 11-12 Ftag 3 Out of Sync!")}),
              debug_lines());
    testing::internal::CaptureStdout();
    gyre_print_resp_dump_info(r);
    EXPECT_EQ(fmt("%-10lu %-36s %-20s %s\n", 7ul, "10-12", "4", "Out of Sync!") +
                  fmt("%-10lu %-36s %-20s %s\n", 8ul, "11-12", "3", "Out of Sync!"),
              testing::internal::GetCapturedStdout());
    free(r);
    // A consistent topology passes.
    ASSERT_EQ(0, apply(51208, tpg_payload(9)));
    EXPECT_EQ(1u, gyre_cache_verify_topo(gyre_cache_find_topo_by_id(9)));
}

TEST_F(GyreDump, WholeCacheDebugPrint)
{
    load(R"({"topologies": [{"id": 7, "active_vlans": "10-12",
                             "ftags": [{"ftag": 3, "graph": 1, "flags": 20}, {"ftag": 5, "graph": 2}]},
                            {"id": 9, "ftags": [{"ftag": 8, "graph": 4}]}]})");
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    gyre_cache_debug_print();
    const std::vector<std::string> expect = {
        dbg(kStars),
        dbg("Tpg -> Ftag & Vlan Mapping"),
        dbg(kRule),
        dbg(fmt("%-10s %-36s %-20s", "Topo-ID", "Active Vlans", "Ftags")),
        dbg(fmt("%-10lu %-36s %-20s", 7ul, "10-12", "3,5")),
        dbg(fmt("%-10lu %-36s %-20s", 9ul, "--", "8")),
        dbg("\n\nFtag -> Tpg Mapping"),
        dbg(kRule),
        dbg(fmt("%-10s %-10s %-20s %-10s", "Ftag", "Graph-ID", "Flags", "Tpg")),
        dbg(fmt("%-10d %-10d 0x%-20x %-lu", 3, 1, 20u, 7ul)),
        dbg(fmt("%-10d %-10d 0x%-20x %-lu", 5, 2, 2u, 7ul)),
        dbg(fmt("%-10d %-10d 0x%-20x %-lu", 8, 4, 2u, 9ul)),
        dbg("\n\nVlan -> Tpg Mapping"),
        dbg(kRule),
        dbg(fmt("%-10s %-10s", "Vlan", "Topo-ID")),
        dbg(fmt("%-10d %-10lu", 10, 7ul)),
        dbg(fmt("%-10d %-10lu", 11, 7ul)),
        dbg(fmt("%-10d %-10lu", 12, 7ul)),
        dbg(kStars),
    };
    EXPECT_EQ(expect, debug_lines());
    // With debugging off nothing is printed.
    debug_off();
    tarnhost_capture_clear();
    gyre_cache_debug_print();
    EXPECT_TRUE(debug_lines().empty());
}

TEST_F(GyreDump, ServerRejectsWhatIsNoDumpRequest)
{
    load(numbered(2));
    ASSERT_EQ(1u, enable_cache());
    for (const auto &m : {std::make_pair(kAttrChange, attr_payload(3)),
                          std::make_pair(51208u, attr_payload(4))}) {
        bus_msg_t *msg = deliver(m.first, m.second);
        ASSERT_NE(nullptr, msg);
        EXPECT_EQ(-1, gyre_dump_cache_info(client_, msg));
        bus_drop(client_, msg);
    }
    bus_msg_t *msg = deliver(kAttrChange, {});
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(-1, gyre_dump_cache_info(client_, msg));
    bus_drop(client_, msg);
    EXPECT_EQ(nullptr, tarnhost_bus_recv_ms(service_, 50));
}

TEST_F(GyreDump, ServerAnswersOnePage)
{
    load(numbered(3));
    ASSERT_EQ(1u, enable_cache());
    debug_on();
    tarnhost_capture_clear();
    Bytes req = attr_payload(4);
    req.resize(28);
    put32(req, 24, 1);
    bus_msg_t *msg = deliver(kAttrChange, req);
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(1, gyre_dump_cache_info(client_, msg));
    bus_msg_t *reply = tarnhost_bus_recv_ms(service_, 2000);
    ASSERT_NE(nullptr, reply);
    uint32_t len = 0;
    const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(reply, &len));
    ASSERT_EQ(12u + 3 * 656, len);
    EXPECT_EQ(3u, word(p, 0));
    EXPECT_EQ(3u, word(p, 8));
    EXPECT_EQ(2u, word(p, 12 + 656));
    bus_drop(service_, reply);
    const auto lines = debug_lines();
    EXPECT_TRUE(has_line(lines, dbg("Topology 1 Vlans 1 Ftag 1 ")));
    EXPECT_TRUE(has_line(lines, dbg("Topology 3 Vlans 3 Ftag 3 ")));
    EXPECT_TRUE(syslog_lines().empty());
    // With the cache off the answer is a bare header of status 0.
    ASSERT_EQ(1u, gyre_disable_cache_mode());
    msg = deliver(kAttrChange, req);
    ASSERT_NE(nullptr, msg);
    EXPECT_EQ(1, gyre_dump_cache_info(client_, msg));
    reply = tarnhost_bus_recv_ms(service_, 2000);
    ASSERT_NE(nullptr, reply);
    p = static_cast<const uint8_t *>(bus_payload_get(reply, &len));
    ASSERT_EQ(12u, len);
    EXPECT_EQ(0u, word(p, 0));
    bus_drop(service_, reply);
}

TEST_F(GyreDump, ServerSendFailureIsLoggedAndStillOne)
{
    load(numbered(1));
    ASSERT_EQ(1u, enable_cache());
    bus_msg_t *msg = deliver(kAttrChange, attr_payload(4));
    ASSERT_NE(nullptr, msg);
    tarnhost_fault_set("bus_send", EIO, 1);
    EXPECT_EQ(1, gyre_dump_cache_info(client_, msg));
    const auto lines = syslog_lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ("<<%TARN-3-TARN_LIBBUS>> Error returned from bus_send_response(), errno: 0x00000005 "
              "(Input/output error) in gyre_cache_dump_info()",
              lines[0]);
}

// The requester in this thread, the cache holder's loop in another.
TEST_F(GyreDump, RequesterPrintsEveryPage)
{
    load(numbered(17));
    ASSERT_EQ(1u, gyre_register(client_));
    ASSERT_EQ(1u, enable_cache());
    const uint32_t requester = bus_bind(4, -1, nullptr, "dump requester");
    ASSERT_NE(BUS_HANDLE_NONE, requester);
    std::thread loop([this] {
        for (int i = 0; i < 2; ++i) {
            bus_msg_t *m = tarnhost_bus_recv_ms(client_, 5000);
            if (m == nullptr)
                return;
            tarn_dispatch(m);
        }
    });
    testing::internal::CaptureStdout();
    const uint32_t rc = gyre_client_dbg_print_cache(requester, BUS_NODE_LOCAL, kClientSap);
    const std::string out = testing::internal::GetCapturedStdout();
    loop.join();
    EXPECT_EQ(0u, rc);
    std::string expect = "\t\tGYRE Cache Information\n" + kRule + "\n\n" +
                         fmt("%-10s %-36s %-20s\n", "Topo-ID", "Active Vlan List", "Ftag List") +
                         kRule + "\n";
    for (uint32_t i = 1; i <= 17; ++i)
        expect += fmt("%-10lu %-36s %-20s %s\n", static_cast<unsigned long>(i),
                      std::to_string(i).c_str(), std::to_string(i).c_str(), "");
    EXPECT_EQ(expect, out);
    bus_unbind(requester);
}

TEST_F(GyreDump, RequesterWithTheCacheOff)
{
    load(numbered(1));
    ASSERT_EQ(1u, gyre_register(client_));
    const uint32_t requester = bus_bind(4, -1, nullptr, "dump requester");
    ASSERT_NE(BUS_HANDLE_NONE, requester);
    std::thread loop([this] {
        bus_msg_t *m = tarnhost_bus_recv_ms(client_, 5000);
        if (m != nullptr) {
            gyre_dispatch(m);
            bus_drop(client_, m);
        }
    });
    testing::internal::CaptureStdout();
    const uint32_t rc = gyre_client_dbg_print_cache(requester, BUS_NODE_LOCAL, kClientSap);
    const std::string out = testing::internal::GetCapturedStdout();
    loop.join();
    EXPECT_EQ(0u, rc);
    EXPECT_EQ("GYRE Caching not enabled", out);
    // Nobody to send to.
    testing::internal::CaptureStdout();
    const uint32_t rc2 = gyre_client_dbg_print_cache(requester, BUS_NODE_LOCAL, 4999);
    EXPECT_EQ("Error sending BUS message\n", testing::internal::GetCapturedStdout());
    EXPECT_EQ(bus_errno_get(requester), rc2);
    bus_unbind(requester);
}

TEST_F(GyreDump, ServerDropFailuresAreLogged)
{
    load(numbered(1));
    ASSERT_EQ(1u, enable_cache());
    bus_msg_t *msg = deliver(kAttrChange, attr_payload(4));
    ASSERT_NE(nullptr, msg);
    tarnhost_fault_set("bus_drop", EIO, 2);
    EXPECT_EQ(1, gyre_dump_cache_info(client_, msg));
    EXPECT_EQ((std::vector<std::string>{
                  "<<%TARN-3-BUS>> Error returned from bus_drop(req_ref), errno: 0x00000005 "
                  "(Input/output error) in gyre_cache_dump_info()",
                  "<<%TARN-3-BUS>> Error returned from bus_drop(bus_msg), errno: 0x00000005 "
                  "(Input/output error) in gyre_cache_dump_info()",
              }),
              syslog_lines());
    tarnhost_fault_clear("bus_drop");
    bus_msg_t *reply = tarnhost_bus_recv_ms(service_, 2000);
    ASSERT_NE(nullptr, reply);
    bus_drop(service_, reply);
}

TEST_F(GyreDump, RequesterReceiveFailureAndEmptyPayload)
{
    load("{}");
    const uint32_t requester = bus_bind(4, -1, nullptr, "dump requester");
    ASSERT_NE(BUS_HANDLE_NONE, requester);
    // Nobody answers and the receive fails.
    tarnhost_fault_set("bus_recv", EIO, 1);
    testing::internal::CaptureStdout();
    gyre_client_dbg_print_cache(requester, BUS_NODE_LOCAL, kClientSap);
    EXPECT_EQ("Error in bus_recv\n", testing::internal::GetCapturedStdout());
    bus_msg_t *stale = tarnhost_bus_recv_ms(client_, 2000);
    ASSERT_NE(nullptr, stale);
    bus_drop(client_, stale);
    // An answer without payload.
    std::thread loop([this] {
        bus_msg_t *m = tarnhost_bus_recv_ms(client_, 5000);
        if (m != nullptr) {
            tarnhost_bus_reply(client_, m, kAttrChange, nullptr, 0);
            bus_drop(client_, m);
        }
    });
    testing::internal::CaptureStdout();
    const uint32_t rc = gyre_client_dbg_print_cache(requester, BUS_NODE_LOCAL, kClientSap);
    const std::string out = testing::internal::GetCapturedStdout();
    loop.join();
    EXPECT_EQ(0xFFFFFFFFu, rc);
    EXPECT_EQ("Error!! Payload empty", out);
    bus_unbind(requester);
}

}  // namespace
