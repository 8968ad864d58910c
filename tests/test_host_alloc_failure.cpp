// Allocation failure inside the host platform never ends the process: every
// request size that a workload over all host services makes is failed in
// turn (the first request of that size, and then every one), in a forked
// child; the child must come back through exit, not a signal, and once the
// fault is cleared the same workload must succeed in full (no lock left
// held, no state left half-made).  The workload drives each platform
// service directly, then libtarn over a loaded device.

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "host/tarnhost_ifmgr.h"
#include "platform/alloctrack.h"
#include "platform/bond.h"
#include "platform/bus.h"
#include "platform/kpipe.h"
#include "platform/kvs.h"
#include "platform/nic.h"
#include "platform/supv.h"
#include "platform/syslog.h"
#include "support/device.h"
#include "support/fixture.h"

namespace {

const char kUri[] = "volatile:/sweep/db";
constexpr uint32_t kLib = 901;
constexpr uint32_t kOpcode = 51226;

// Each platform service once; the number of calls that did not succeed.
int host_workload()
{
    int failed = 0;
    auto want = [&failed](bool ok) { failed += ok ? 0 : 1; };

    static const char *const types[] = {"zero", "one", "two"};
    want(alloctrack_init("sweep", kLib, types, 3) == 0);
    void *p = alloctrack_alloc(kLib, 1, 64);
    want(p != nullptr);
    alloctrack_free(kLib, 1, p);
    want(alloctrack_uninit(kLib) == 0);

    want(tarnhost_kvs_put(kUri, "k1", 2, "one", 3) == KVS_OK);
    uint32_t st = 0;
    tarnhost_kvs_txn_t *txn = tarnhost_kvs_txn_begin(kUri, &st);
    want(txn != nullptr);
    if (txn != nullptr) {
        want(tarnhost_kvs_txn_put(txn, "k2", 2, "two", 3) == KVS_OK);
        want(tarnhost_kvs_txn_commit(txn) == KVS_OK);
    }
    const uint32_t open = kvs_open(kUri, 1, 0, 0, 0);
    want(open == KVS_OK || open == KVS_ERR_ALREADY_OPEN);
    const kvs_datum_t k1 = {"k1", 2};
    kvs_datum_t key, value;
    want(kvs_read(kUri, &k1, &value) == KVS_OK);
    want(kvs_iterator_init(kUri, nullptr, 1) == KVS_OK);
    want(kvs_getkey(kUri, &key, &value) == KVS_OK);
    want(kvs_getnext(kUri, &key, &value) == KVS_OK);
    want(kvs_close(kUri) == KVS_OK);
    want(kpipe_kvs_open(kUri, 0) != 0);
    kpipe_kvs_handle_t handle;
    memset(&handle, 0, sizeof handle);
    kpipe_strcpy(handle.uri, kUri, sizeof handle.uri);
    const void *v = nullptr;
    uint32_t vlen = 0, error = 0;
    want(kpipe_kvs_read(&handle, "k2", 2, &v, &vlen, &error) != 0);
    want(kpipe_kvs_close(kUri) == 0);
    want(tarnhost_kvs_del(kUri, "k2", 2) == KVS_OK);

    const uint32_t a = bus_bind(4, -1, nullptr, "sweep a");
    const uint32_t b = bus_bind(4, -1, nullptr, "sweep b");
    want(a != BUS_HANDLE_NONE && b != BUS_HANDLE_NONE);
    if (a != BUS_HANDLE_NONE && b != BUS_HANDLE_NONE) {
        want(bus_options_set(b, kOpcode, bus_options_get(b, kOpcode) | 0x10) == 0);
        uint32_t subscribers[8];
        want(tarnhost_bus_subscribers(kOpcode, subscribers, 8) >= 1);
        bus_send_opts_t opts;
        memset(&opts, 0, sizeof opts);
        opts.w[0] = 1;
        const uint8_t payload[28] = {0, 0, 7};
        want(bus_send(a, BUS_NODE_LOCAL, 0, kOpcode, payload, sizeof payload, nullptr, nullptr,
                      &opts) == 0);
        bus_msg_t *m = tarnhost_bus_recv_ms(b, 2000);
        want(m != nullptr);
        if (m != nullptr) {
            uint32_t len = 0;
            want(bus_payload_get(m, &len) != nullptr && len == sizeof payload);
            want(bus_opc_get(m) == kOpcode);
            want(bus_send(b, BUS_NODE_LOCAL, 0, kOpcode, payload, 4, m, nullptr, &opts) == 0);
            want(bus_drop(b, m) == 0);
            bus_msg_t *r = tarnhost_bus_recv_ms(a, 2000);
            want(r != nullptr);
            if (r != nullptr)
                want(bus_drop(a, r) == 0);
        }
        bus_msg_t *own = tarnhost_bus_msg_new(kOpcode, payload, sizeof payload);
        want(own != nullptr);
        if (own != nullptr)
            bus_drop(a, own);
        want(strcmp(bus_opc_name_get(60001), "60001") == 0);
        want(bus_options_set(b, kOpcode, 0) == 0);
    }
    if (a != BUS_HANDLE_NONE)
        want(bus_unbind(a) == 0);
    if (b != BUS_HANDLE_NONE)
        want(bus_unbind(b) == 0);

    const tarnhost_if_t port = {7, 70, "Ethernet1/7", "Eth1/7", 0, 9};
    const tarnhost_if_t pc = {9, 90, "port-channel9", "po9", 0, 0};
    want(tarnhost_ifmgr_put(&pc) == 0);
    want(tarnhost_ifmgr_put(&port) == 0);
    want(strcmp(nic_get_if_name(7), "Ethernet1/7") == 0);
    want(strcmp(nic_get_if_short_name(9), "po9") == 0);
    uint32_t n = 0;
    want(nic_get_iod_frm_ifindex(7, &n) == 0 && n == 70);
    want(nic_get_ifindex_frm_iod(90, &n) == 0 && n == 9);
    want(nic_is_mgmtether(7) == 0);
    uint8_t bond[BOND_PC_RECORD_SIZE] = {0};
    want(bond_get_pc_for_port(7, bond) == 0);

    want(supv_running_cfg_uri_get() != nullptr);
    want(supv_uri_complete(supv_running_cfg_uri_get(), 0, "sweep_kvs") != nullptr);
    plat_syslog(3, "sweep line %d", 1);
    want(syserr2str(KVS_ERR_NOT_FOUND) != nullptr);
    return failed;
}

// libtarn over the loaded device: initialisation, registration, the Gyre
// cache and a few queries.  Coverage only: its answers are not checked.
void library_workload()
{
    tarn_api_init();
    const uint32_t h = bus_bind(4, -1, nullptr, "sweep client");
    if (h == BUS_HANDLE_NONE)
        return;
    tarn_register(h);
    tarn_track_as_format();
    gyre_cache_attr_t attr{h};
    gyre_enable_cache_mode(&attr);
    tarn_get_context_id("red");
    gyre_get_ftag_l2_tpg(1);
    gyre_vlan_bmp_t vlans;
    gyre_get_if_act_vlans(7, &vlans);
    gyre_disable_cache_mode();
    gyre_api_close();
    tarn_api_close();
    bus_unbind(h);
}

void workload()
{
    host_workload();
    library_workload();
}

constexpr int kEscaped = 98;

// Runs fn in a child; its exit code, kEscaped when an exception left a
// platform call (which would end a program built without exceptions), or
// -signal when a signal ended it.
int in_child(const std::function<int()> &fn, std::vector<size_t> *sizes = nullptr)
{
    int fds[2];
    if (pipe(fds) != 0)
        return -1000;
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        int rc = kEscaped;
        try {
            rc = fn();
        } catch (...) {
            _exit(kEscaped);
        }
        if (sizes != nullptr) {
            static size_t seen[4096];
            const size_t k = tarnhost_fault_malloc_sizes(seen, 4096);
            const size_t bytes = (k < 4096 ? k : 4096) * sizeof(size_t);
            if (write(fds[1], seen, bytes) != static_cast<ssize_t>(bytes))
                _exit(99);
        }
        _exit(rc);
    }
    close(fds[1]);
    if (sizes != nullptr) {
        size_t s = 0;
        while (read(fds[0], &s, sizeof s) == static_cast<ssize_t>(sizeof s))
            sizes->push_back(s);
    }
    close(fds[0]);
    int status = 0;
    if (waitpid(pid, &status, 0) != pid)
        return -1000;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

class HostAllocFailure : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        if (!tarnhost_fault_malloc_supported())
            GTEST_SKIP() << "the sanitizers own the allocator here";
        tarntest::load_device_file(tarntest::fixture("gyre_basic.json"));
        tarnhost_capture_clear();
    }
};

TEST_F(HostAllocFailure, WorkloadSucceedsWithoutFaults)
{
    EXPECT_EQ(0, in_child([] { return host_workload(); }));
}

TEST_F(HostAllocFailure, EverySizeTheHostAllocatesFailsWithoutAnAbort)
{
    std::vector<size_t> sizes;
    ASSERT_EQ(0, in_child(
                     [] {
                         tarnhost_fault_malloc_record(1);
                         workload();
                         const int rc = host_workload();
                         tarnhost_fault_malloc_record(0);
                         return rc;
                     },
                     &sizes));
    ASSERT_GT(sizes.size(), 10u);
    size_t runs = 0;
    for (size_t size : sizes) {
        for (uint32_t times : {1u, TARNHOST_FAULT_ALWAYS}) {
            ++runs;
            const int rc = in_child([size, times] {
                tarnhost_fault_malloc(size, times);
                workload();
                tarnhost_fault_malloc(0, 0);
                // Whatever failed, the host recovers in full.
                return host_workload() == 0 ? 0 : 3;
            });
            EXPECT_EQ(0, rc) << "failing " << (times == 1 ? "the first" : "every")
                             << " allocation of " << size << " bytes"
                             << (rc < 0 ? ": ended by a signal"
                                 : rc == kEscaped ? ": an exception left a platform call"
                                 : rc == 3 ? ": the host did not recover" : "");
        }
    }
    printf("%zu allocation sizes, %zu runs\n", sizes.size(), runs);
}

}  // namespace
