// Helpers of the lifecycle tests: a caching client in a process of its own
// (serving an access point, answering probes over the bus), a digest of
// everything the Gyre queries answer, a reference digest from a freshly
// built cache, and running tarnctl.
#ifndef TARN_TESTS_TEST_GYRE_LIFECYCLE_SUPPORT_H
#define TARN_TESTS_TEST_GYRE_LIFECYCLE_SUPPORT_H

#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <tarn/gyre.h>
#include <tarn/tarn.h>

#include "core/state.h"
#include "gyre/internal.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/alloctrack.h"
#include "platform/bst.h"
#include "platform/bus.h"
#include "support/device.h"
#include "support/fixture.h"
#include "support/library.h"

namespace lifecycle {

using Bytes = std::vector<uint8_t>;

// Control opcodes between a test and its client process.
constexpr uint32_t kOpcStop = 60000;
constexpr uint32_t kOpcProbe = 60001;
constexpr uint32_t kOpcForgetVlan = 60002;  // payload: VLAN; clears its table slot
constexpr uint32_t kOpcMemory = 60003;      // answer: live counts of types 2, 3
constexpr uint32_t kOpcCacheOff = 60004;
constexpr uint32_t kAttrChange = 51226;

inline void put32(Bytes &b, size_t at, uint32_t v) { memcpy(&b[at], &v, 4); }
inline void put16(Bytes &b, size_t at, uint16_t v) { memcpy(&b[at], &v, 2); }
inline uint32_t get32(const uint8_t *p, size_t at)
{
    uint32_t v;
    memcpy(&v, p + at, 4);
    return v;
}

inline bool bit(const uint8_t *bits, uint32_t i) { return (bits[i / 8] & (0x80u >> (i % 8))) != 0; }

// "1-3,7" of the set bits of `bits`; "--" for none (not cut like the
// library's scratch strings).
inline std::string ranges(const uint8_t *bits, uint32_t n)
{
    std::string out;
    for (uint32_t i = 0; i < n;) {
        if (!bit(bits, i)) {
            ++i;
            continue;
        }
        uint32_t hi = i;
        while (hi + 1 < n && bit(bits, hi + 1))
            ++hi;
        out += (out.empty() ? "" : ",") + std::to_string(i) + (hi != i ? "-" + std::to_string(hi) : "");
        i = hi + 1;
    }
    return out.empty() ? "--" : out;
}

// Everything the Gyre queries of this process answer, one fact a line, and
// the consistency check of every cached topology.
inline std::string digest()
{
    std::string d;
    auto line = [&d](const std::string &s) { d += s + "\n"; };
    if (gyre_cache == nullptr)
        return "no cache\n";
    std::vector<uint32_t> tpgs;
    for (auto *n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_first_node(&gyre_cache->tree));
         n != nullptr;
         n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_next_node(&gyre_cache->tree, n))) {
        tpgs.push_back(n->tpg_id);
        line("T " + std::to_string(n->tpg_id) + " vlans " + ranges(n->vlans.bits, 4096) +
             " ftags " + ranges(n->ftags.bits, 1024) +
             " sync " + std::to_string(gyre_cache_verify_topo(n)));
    }
    for (uint32_t t : tpgs) {
        std::string s = "Q " + std::to_string(t);
        for (uint32_t g = 0; g < 4; ++g) {
            uint16_t f = 0xFFFF;
            const uint32_t rc = gyre_get_l2_tpg_ftag(t, g, &f);
            s += " g" + std::to_string(g) + "=" + (rc ? std::to_string(f) : "-");
        }
        uint16_t u = 0xFFFF;
        s += " u=" + (gyre_get_l2_tpg_unicast_ftag(t, &u) ? std::to_string(u) : std::string("-"));
        gyre_vlan_bmp_t v;
        memset(&v, 0, sizeof v);
        s += " act=" + (gyre_get_l2_tpg_act_vlans(t, &v) ? ranges(v.bits, 4096) : std::string("-"));
        line(s);
    }
    for (uint32_t vlan = 0; vlan <= GYRE_MAX_VLAN; ++vlan) {
        const uint32_t t = gyre_get_vlan_l2_tpg(vlan);
        if (t == GYRE_TPG_NONE)
            continue;
        std::string s = "V " + std::to_string(vlan) + " " + std::to_string(t);
        for (uint32_t g = 0; g < 4; ++g) {
            uint16_t f = 0xFFFF;
            s += " g" + std::to_string(g) + "=" +
                 (gyre_get_vlan_ftag(vlan, g, &f) ? std::to_string(f) : std::string("-"));
        }
        uint16_t u = 0xFFFF;
        s += " u=" + (gyre_get_unicast_ftag_by_vlan(vlan, &u) ? std::to_string(u) : std::string("-"));
        line(s);
    }
    for (uint32_t ftag = 0; ftag <= GYRE_MAX_FTAG; ++ftag) {
        const uint32_t t = gyre_get_ftag_l2_tpg(ftag);
        if (t == GYRE_TPG_NONE)
            continue;
        gyre_vlan_bmp_t v;
        memset(&v, 0, sizeof v);
        const uint32_t rc = gyre_get_ftag_vlans(static_cast<uint16_t>(ftag), &v);
        const gyre_cache_ftag_entry_t &e = gyre_cache->ftags[ftag];
        line("F " + std::to_string(ftag) + " " + std::to_string(t) + " graph " +
             std::to_string(e.graph_id) + " flags " + std::to_string(e.flags) + " vlans " +
             (rc ? ranges(v.bits, 4096) : std::string("-")));
    }
    return d;
}

// Runs fn in a forked child and returns what it wrote to its pipe.
inline std::string child_output(const std::function<std::string()> &fn)
{
    int fds[2];
    if (pipe(fds) != 0)
        return "pipe failed";
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        const std::string out = fn();
        size_t off = 0;
        while (off < out.size()) {
            ssize_t n = write(fds[1], out.data() + off, out.size() - off);
            if (n <= 0)
                break;
            off += static_cast<size_t>(n);
        }
        close(fds[1]);
        _exit(0);
    }
    close(fds[1]);
    std::string out;
    char buf[65536];
    for (;;) {
        ssize_t n = read(fds[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        out.append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    int st = 0;
    waitpid(pid, &st, 0);
    return out;
}

// The digest of a cache freshly built over the databases as they are now,
// in a helper process of its own.
inline std::string reference_digest()
{
    return child_output([] {
        tarntest::reset_library();
        if (tarn_api_init() != 1)
            return std::string("init failed");
        const uint32_t h = bus_bind(4, -1, nullptr, "reference cache");
        gyre_cache_attr_t attr{h};
        if (gyre_enable_cache_mode(&attr) != 1)
            return std::string("enable failed");
        std::string d = digest();
        gyre_api_close();
        tarn_api_close();
        bus_unbind(h);
        return d;
    });
}

// A client process: registered, serving `sap`, its Gyre cache on (unless
// asked otherwise), dispatching every message it receives with
// tarn_dispatch (or gyre_dispatch) and answering the control opcodes.
class Client {
public:
    bool start(int32_t sap, bool cache = true, bool gyre_only = false)
    {
        sap_ = sap;
        tester_ = bus_bind(4, -1, nullptr, "lifecycle tester");
        if (tester_ == BUS_HANDLE_NONE)
            return false;
        int fds[2];
        if (pipe(fds) != 0)
            return false;
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[0]);
            run(fds[1], cache, gyre_only);
        }
        close(fds[1]);
        uint32_t h = BUS_HANDLE_NONE;
        const bool ok = read(fds[0], &h, sizeof h) == static_cast<ssize_t>(sizeof h);
        close(fds[0]);
        handle_ = h;
        return ok && h != BUS_HANDLE_NONE;
    }
    // Sends a control message and returns the answer's payload.
    Bytes ask(uint32_t opcode, const Bytes &payload = {})
    {
        bus_send_opts_t o;
        memset(&o, 0, sizeof o);
        o.w[0] = 1;
        if (bus_send(tester_, BUS_NODE_LOCAL, static_cast<uint32_t>(sap_), opcode,
                     payload.empty() ? nullptr : payload.data(),
                     static_cast<uint32_t>(payload.size()), nullptr, nullptr, &o) != 0)
            return Bytes{};
        bus_msg_t *m = tarnhost_bus_recv_ms(tester_, 20000);
        if (m == nullptr)
            return Bytes{};
        uint32_t len = 0;
        const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(m, &len));
        Bytes out = p != nullptr ? Bytes(p, p + len) : Bytes{};
        bus_drop(tester_, m);
        return out;
    }
    std::string probe()
    {
        const Bytes b = ask(kOpcProbe);
        return std::string(b.begin(), b.end());
    }
    // Live allocations of the cache block and of the topology nodes.
    std::pair<uint32_t, uint32_t> memory()
    {
        const Bytes b = ask(kOpcMemory);
        if (b.size() != 8)
            return {0xFFFFFFFFu, 0xFFFFFFFFu};
        return {get32(b.data(), 0), get32(b.data(), 4)};
    }
    // The child's exit status (0 for a clean stop).
    int stop()
    {
        if (pid_ <= 0)
            return -1;
        ask(kOpcStop);
        int st = 0;
        waitpid(pid_, &st, 0);
        pid_ = -1;
        bus_unbind(tester_);
        tester_ = BUS_HANDLE_NONE;
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    ~Client()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (tester_ != BUS_HANDLE_NONE)
            bus_unbind(tester_);
    }
    uint32_t handle() const { return handle_; }
    int32_t sap() const { return sap_; }
    pid_t pid() const { return pid_; }
    uint32_t tester() const { return tester_; }

private:
    [[noreturn]] static void run(int ready, bool cache, bool gyre_only, int32_t sap)
    {
        tarntest::reset_library();
        uint32_t h = BUS_HANDLE_NONE;
        if (tarn_api_init() == 1)
            h = bus_bind(4, sap, nullptr, "lifecycle client");
        gyre_cache_attr_t attr{h};
        if (h != BUS_HANDLE_NONE &&
            (tarn_register(h) != 1 || gyre_register(h) != 1 ||
             (cache && gyre_enable_cache_mode(&attr) != 1)))
            h = BUS_HANDLE_NONE;
        if (write(ready, &h, sizeof h) != static_cast<ssize_t>(sizeof h) || h == BUS_HANDLE_NONE)
            _exit(2);
        close(ready);
        for (;;) {
            bus_msg_t *m = tarnhost_bus_recv_ms(h, 60000);
            if (m == nullptr)
                _exit(3);
            const uint32_t opc = bus_opc_get(m);
            uint32_t len = 0;
            const uint8_t *p = static_cast<const uint8_t *>(bus_payload_get(m, &len));
            if (opc == kOpcStop) {
                tarnhost_bus_reply(h, m, opc, nullptr, 0);
                bus_drop(h, m);
                gyre_api_close();
                tarn_api_close();
                bus_unbind(h);
                _exit(0);
            } else if (opc == kOpcProbe) {
                const std::string d = digest();
                tarnhost_bus_reply(h, m, opc, d.data(), static_cast<uint32_t>(d.size()));
                bus_drop(h, m);
            } else if (opc == kOpcForgetVlan) {
                if (p != nullptr && len >= 4 && gyre_cache != nullptr && get32(p, 0) <= GYRE_MAX_VLAN)
                    gyre_cache->vlans[get32(p, 0)] = nullptr;
                tarnhost_bus_reply(h, m, opc, nullptr, 0);
                bus_drop(h, m);
            } else if (opc == kOpcMemory) {
                Bytes b(8);
                put32(b, 0, static_cast<uint32_t>(alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_CACHE)));
                put32(b, 4, static_cast<uint32_t>(alloctrack_live_count(TARN_LIB_ALLOC_ID, TARN_LIB_MEM_GYRE_TPG)));
                tarnhost_bus_reply(h, m, opc, b.data(), 8);
                bus_drop(h, m);
            } else if (opc == kOpcCacheOff) {
                gyre_disable_cache_mode();
                tarnhost_bus_reply(h, m, opc, nullptr, 0);
                bus_drop(h, m);
            } else {
                const int32_t r = gyre_only ? gyre_dispatch(m) : tarn_dispatch(m);
                if (r != 1)
                    bus_drop(h, m);
            }
        }
    }
    void run(int ready, bool cache, bool gyre_only) { run(ready, cache, gyre_only, sap_); }

    int32_t sap_ = 0;
    pid_t pid_ = -1;
    uint32_t handle_ = BUS_HANDLE_NONE;
    uint32_t tester_ = BUS_HANDLE_NONE;
};

// Runs tarnctl with `args` (a shell command line tail); its exit status,
// standard output and standard error.
struct ToolRun {
    int status = -1;
    std::string out;
    std::string err;
};

inline std::string slurp(const std::string &path)
{
    std::string s;
    FILE *f = fopen(path.c_str(), "rb");
    if (f == nullptr)
        return s;
    char buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        s.append(buf, n);
    fclose(f);
    return s;
}

inline ToolRun tarnctl(const std::string &args)
{
    const std::string dir = tarnhost_root();
    const std::string out = dir + "/tarnctl.out", err = dir + "/tarnctl.err";
    const std::string cmd = std::string(TARNCTL_PATH) + " " + args + " >" + out + " 2>" + err;
    ToolRun r;
    const int st = system(cmd.c_str());
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    r.out = slurp(out);
    r.err = slurp(err);
    return r;
}

inline void write_file(const std::string &path, const std::string &text)
{
    FILE *f = fopen(path.c_str(), "wb");
    ASSERT_NE(nullptr, f);
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
}

class LifecycleTest : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        HostTest::SetUp();
        tarntest::reset_library();
    }
    void TearDown() override
    {
        tarntest::reset_library();
        HostTest::TearDown();
    }
};

}  // namespace lifecycle

#endif
