// The C++ interface (<tarn/tarn.hpp>) against a device loaded from
// examples/device.json: ownership (one Library per process, its thread),
// typed answers and failures as values, walks as ranges that notice being
// overtaken, and a Client that registers, dispatches with the ownership rule
// right and undoes everything.

#include <errno.h>
#include <poll.h>
#include <string.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/tarn.hpp>

#include "host/tarnhost.hpp"
#include "gyre/internal.h"
#include "host/tarnhost_bus.h"
#include "support/device.h"

namespace {

using tarn::Errc;

class CppApi : public tarntest::DeviceTest {
protected:
    void SetUp() override
    {
        DeviceTest::SetUp();
        tarntest::load_device_file(std::string(TARN_SOURCE_DIR) + "/examples/device.json");
    }
    static tarn::Library open()
    {
        tarn::Result<tarn::Library> lib = tarn::Library::open(tarnhost::library_options());
        EXPECT_TRUE(lib.ok()) << lib.status();
        return std::move(lib).value();
    }
    static size_t subscribers(uint32_t opcode)
    {
        uint32_t h[16];
        return tarnhost_bus_subscribers(opcode, h, 16);
    }
};

TEST_F(CppApi, OneLibraryPerProcess)
{
    tarn::Library lib = open();
    tarn::Result<tarn::Library> second = tarn::Library::open(tarnhost::library_options());
    ASSERT_FALSE(second.ok());
    EXPECT_EQ(Errc::already_open, second.status().code());
    EXPECT_EQ("tarn::Library::open: already open: another tarn::Library of this process is open; "
              "the library initialises once per process",
              second.status().message());
    // Moving keeps the one owner; closing frees the place.
    tarn::Library moved = std::move(lib);
    EXPECT_FALSE(lib.is_open());
    EXPECT_EQ(Errc::closed, lib.context_id("default").status().code());
    EXPECT_EQ(1u, moved.context_id("default").value());
    EXPECT_TRUE(moved.close().ok());
    EXPECT_EQ(0u, tarn_clt->initialized);
    tarn::Result<tarn::Library> again = tarn::Library::open(tarnhost::library_options());
    EXPECT_TRUE(again.ok()) << again.status();
}

TEST_F(CppApi, OtherThreadsAreRefused)
{
    tarn::Library lib = open();
    tarn::Status seen;
    std::thread t([&] {
        seen = lib.context_id("default").status();
        (void)lib.close();
    });
    t.join();
    EXPECT_EQ(Errc::wrong_thread, seen.code());
    EXPECT_EQ("tarn_get_context_id: wrong thread: tarn::Library is used from the thread that "
              "opened it only",
              seen.message());
    EXPECT_TRUE(lib.is_open());
    EXPECT_EQ(3u, lib.context_id("tenant-red").value());
}

TEST_F(CppApi, TypedAnswers)
{
    tarn::Library lib = open();
    tarn::Result<tarn::Context> red = lib.context("tenant-red");
    ASSERT_TRUE(red.ok()) << red.status();
    EXPECT_EQ(3u, red->id());
    EXPECT_EQ("tenant-red", red->name());
    EXPECT_EQ(tarn::ContextState::up, red->state());
    std::ostringstream os;
    os << *red;
    EXPECT_EQ("context 3 tenant-red Up", os.str());
    tarn::Result<tarn::Context> lab = lib.context("lab");
    ASSERT_TRUE(lab.ok());
    EXPECT_FALSE(lab->up());
    EXPECT_STREQ("Delete Holddown", lab->reason_text());

    tarn::Result<uint32_t> table = lib.table_id(3, tarn::AddressFamily::ipv6, "red-v6");
    ASSERT_TRUE(table.ok()) << table.status();
    EXPECT_EQ(17u, *table);
    EXPECT_EQ("red-v6", lib.table(17)->name());
    EXPECT_EQ(3u, lib.table(17)->context_id());
    tarn::Result<tarn::RouteLimits> limits = lib.route_limits(16);
    ASSERT_TRUE(limits.ok());
    EXPECT_EQ((tarn::RouteLimits{16, 100000, 80000, 80, 0}), *limits);
    EXPECT_EQ((tarn::VpnId{65001, 1, 100}), lib.vpn_id("tenant-red").value());
    EXPECT_EQ("100-199", lib.topology_vlans(10).value().to_string());
}

TEST_F(CppApi, AbsenceAndFailureAreTold)
{
    tarn::Library lib = open();
    tarn::Result<tarn::Context> none = lib.context(99);
    ASSERT_FALSE(none.ok());
    EXPECT_EQ(Errc::not_found, none.status().code());
    EXPECT_EQ("", none.status().report());
    EXPECT_EQ("tarn_get_context_info: not found", none.status().message());

    tarnhost_fault_set("kvs_read", 5, 1);
    tarn::Result<tarn::Context> failed = lib.context(3);
    ASSERT_FALSE(failed.ok());
    EXPECT_EQ(Errc::failed, failed.status().code());
    EXPECT_EQ(read_error("context id         3", "tarn_get_context_info"),
              failed.status().report());
    // Without a way to read reports, a negative answer says it may be
    // either.
    EXPECT_TRUE(lib.close().ok());
    tarn::Result<tarn::Library> blind = tarn::Library::open();
    ASSERT_TRUE(blind.ok());
    EXPECT_EQ(Errc::not_found_or_failed, blind->context(99).status().code());
}

TEST_F(CppApi, WalksAsRanges)
{
    tarn::Library lib = open();
    std::vector<std::string> names;
    for (const tarn::Context &c : lib.contexts())
        names.emplace_back(c.name());
    EXPECT_EQ((std::vector<std::string>{"default", "management", "tenant-red", "tenant-blue",
                                        "lab"}),
              names);
    auto lab = lib.interfaces("lab").collect();
    ASSERT_TRUE(lab.ok()) << lab.status();
    EXPECT_EQ(10u, lab->size());
    for (const tarn::InterfaceContext &i : *lab)
        EXPECT_EQ("lab", i.context_name());
    auto topologies = lib.topologies().collect();
    ASSERT_TRUE(topologies.ok()) << topologies.status();
    std::vector<uint32_t> ids;
    for (const tarn::Topology &t : *topologies)
        ids.push_back(t.id());
    EXPECT_EQ((std::vector<uint32_t>{10, 20, 30}), ids);
    auto active = lib.ftags(tarn::FtagFlags::active).collect();
    ASSERT_TRUE(active.ok()) << active.status();
    EXPECT_FALSE(active->empty());
}

TEST_F(CppApi, AnOvertakenWalkSaysSo)
{
    tarn::Library lib = open();
    auto outer = lib.topologies();
    size_t seen = 0;
    for (const tarn::Topology &t : outer) {
        (void)t;
        if (++seen == 1) {
            auto inner = lib.topologies().collect();
            EXPECT_TRUE(inner.ok());
        }
    }
    EXPECT_EQ(1u, seen);
    EXPECT_EQ(Errc::walk_interrupted, outer.status().code());
    EXPECT_EQ("gyre_get_next_l2_tpg: walk interrupted: another walk of the Tarn database started "
              "before this one ended; finish one walk (or collect() it) before starting the next",
              outer.status().message());
    // A context walk starts again from its own position at every step, so
    // another walk in between does not mislead it.
    size_t contexts = 0;
    for (const tarn::Context &c : lib.contexts()) {
        (void)c;
        ++contexts;
        EXPECT_TRUE(lib.topologies().collect().ok());
    }
    EXPECT_EQ(5u, contexts);
}

TEST_F(CppApi, AFailedWalkIsNotAShortOne)
{
    tarn::Library lib = open();
    tarnhost_fault_set("kvs_iterator_init", 5, 1);
    auto walk = lib.contexts();
    size_t n = 0;
    for (const tarn::Context &c : walk) {
        (void)c;
        ++n;
    }
    EXPECT_EQ(0u, n);
    EXPECT_EQ(Errc::failed, walk.status().code());
    EXPECT_NE(std::string::npos, walk.status().report().find("kvs_iterator_init()"))
        << walk.status().report();
}

TEST_F(CppApi, ClientDispatchesWithTheOwnershipRule)
{
    tarn::Library lib = open();
    tarn::Result<tarn::Client> client = tarn::Client::open(lib, tarnhost::client_options(1210));
    ASSERT_TRUE(client.ok()) << client.status();
    ASSERT_GE(client->descriptor(), 0);
    EXPECT_EQ(2u, lib.as_format());

    std::vector<uint8_t> as(28, 0);
    as[2] = 1;
    as[24] = 6;
    ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, 51226, as.data(), 28));
    std::vector<uint8_t> created(24, 0);
    created[20] = 77;
    ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, 51208, created.data(), 24));
    // A message the library does not know, straight to the client's queue.
    uint32_t sender = bus_bind(0, -1, nullptr, "test sender");
    bus_send_opts_t opts;
    memset(&opts, 0, sizeof opts);
    opts.w[0] = 1;
    ASSERT_EQ(0, bus_send(sender, BUS_NODE_LOCAL, 1210,
                          12345, "x", 1, nullptr, nullptr, &opts));
    bus_unbind(sender);

    pollfd p{client->descriptor(), POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, 5000));
    std::vector<std::string> seen;
    size_t handled = 0;
    while (handled < 3) {
        ASSERT_EQ(1, poll(&p, 1, 5000));
        tarn::Result<size_t> n = client->dispatch_pending([&](const tarn::Notification &note) {
            std::string line = tarn::event_name(note.event()) + std::string(" ") +
                               std::to_string(note.result());
            // Only a message the library left to us is still reachable.
            EXPECT_EQ(note.taken(), note.message() == nullptr) << line;
            if (auto *f = std::get_if<tarn::AsFormatChanged>(&note.event()))
                line += " format " + std::to_string(f->format) + " now " +
                        std::to_string(lib.as_format());
            if (auto *c = std::get_if<tarn::TopologyCreated>(&note.event()))
                line += " topology " + std::to_string(c->topology);
            seen.push_back(line);
        });
        ASSERT_TRUE(n.ok()) << n.status();
        handled += *n;
    }
    EXPECT_EQ((std::vector<std::string>{"as_format 1 format 6 now 6",
                                        "topology_created 0 topology 77", "undecodable -1"}),
              seen);
    EXPECT_NE(nullptr, gyre_cache_find_topo_by_id(77));
}

TEST_F(CppApi, ClientUndoesEverythingInOrder)
{
    tarn::Library lib = open();
    {
        tarn::Result<tarn::Client> client = tarn::Client::open(lib, tarnhost::client_options(1200));
        ASSERT_TRUE(client.ok()) << client.status();
        EXPECT_EQ(1200, tarnhost_bus_handle_sap(client->handle()));
        EXPECT_EQ(1u, subscribers(51201));
        EXPECT_EQ(1u, subscribers(51226));
        EXPECT_EQ(1u, subscribers(51215));
        EXPECT_EQ(1u, tarn_cache_is_enabled());
        tarn::Client moved = std::move(client).value();
        EXPECT_EQ(1u, subscribers(51208));
    }
    EXPECT_EQ(0u, subscribers(51201));
    EXPECT_EQ(0u, subscribers(51226));
    EXPECT_EQ(0u, subscribers(51215));
    EXPECT_EQ(0u, tarn_cache_is_enabled());
    EXPECT_EQ(0u, gyre_cache_enabled);
    // The access point is free again.
    tarn::Result<tarn::Client> again = tarn::Client::open(lib, tarnhost::client_options(1200));
    EXPECT_TRUE(again.ok()) << again.status();
}

TEST_F(CppApi, AClientThatFailsHalfWayLeavesNothing)
{
    tarn::Library::Options o = tarnhost::library_options();
    o.gyre = false;
    tarn::Result<tarn::Library> lib = tarn::Library::open(o);
    ASSERT_TRUE(lib.ok());
    tarnhost_fault_set("kpipe_kvs_open", 5, 1);
    tarn::Result<tarn::Client> client = tarn::Client::open(*lib, tarnhost::client_options(1201));
    ASSERT_FALSE(client.ok());
    EXPECT_EQ(Errc::failed, client.status().code());
    EXPECT_EQ("gyre_register", client.status().what());
    EXPECT_NE(std::string::npos, client.status().report().find("kpipe_kvs_open"))
        << client.status().report();
    EXPECT_EQ(0u, subscribers(51201));
    EXPECT_EQ(0u, subscribers(51226));
    tarn::Result<tarn::Client> again = tarn::Client::open(*lib, tarnhost::client_options(1201));
    EXPECT_TRUE(again.ok()) << again.status();
}

TEST_F(CppApi, ClientRefusesBadArguments)
{
    tarn::Library lib = open();
    tarn::Client::Options o;
    o.access_point = 0;
    tarn::Result<tarn::Client> c = tarn::Client::open(lib, o);
    ASSERT_FALSE(c.ok());
    EXPECT_EQ("tarn::Client::open: invalid argument: the access point is 1 or above, or -1 for a "
              "dynamic handle",
              c.status().message());
    tarn::Result<tarn::Client> first = tarn::Client::open(lib, tarnhost::client_options(1202));
    ASSERT_TRUE(first.ok());
    tarn::Result<tarn::Client> taken = tarn::Client::open(lib, tarnhost::client_options(1202));
    ASSERT_FALSE(taken.ok());
    EXPECT_EQ(Errc::bus_failed, taken.status().code());
    EXPECT_EQ(EADDRINUSE, taken.status().error());
    EXPECT_EQ(std::string("bus_bind: bus failed: ") + strerror(EADDRINUSE), taken.status().message());
}

}  // namespace
