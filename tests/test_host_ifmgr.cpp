// The host's interface manager and port-channel manager: what nic_* and
// bond_get_pc_for_port answer for interfaces written through the host's
// writer interface, in this process and in others of the same device.

#include <string.h>

#include <string>
#include <thread>

#include "host/tarnhost.h"
#include "host/tarnhost_ifmgr.h"
#include "platform/bond.h"
#include "platform/kvs.h"
#include "platform/nic.h"
#include "support/fixture.h"

namespace {

class host_ifmgr : public tarntest::HostTest {
protected:
    static uint32_t put(uint32_t ifindex, uint32_t iod, const char *name,
                        const char *short_name = nullptr, uint32_t mgmt = 0,
                        uint32_t pc = 0)
    {
        tarnhost_if_t ifc;
        ifc.ifindex = ifindex;
        ifc.iod = iod;
        ifc.name = name;
        ifc.short_name = short_name;
        ifc.mgmt = mgmt;
        ifc.pc_ifindex = pc;
        return tarnhost_ifmgr_put(&ifc);
    }

    static uint32_t pc_of(uint32_t ifindex, uint32_t *status)
    {
        uint8_t rec[BOND_PC_RECORD_SIZE];
        memset(rec, 0, sizeof rec);
        *status = bond_get_pc_for_port(ifindex, rec);
        uint32_t pc;
        memcpy(&pc, rec + BOND_PC_IFINDEX_OFFSET, sizeof pc);
        return pc;
    }
};

TEST_F(host_ifmgr, names_of_a_known_interface)
{
    ASSERT_EQ(0u, put(0x1A001000, 17, "Ethernet1/1", "Eth1/1"));
    ASSERT_EQ(0u, put(0x1A001001, 18, "Ethernet1/2"));
    EXPECT_STREQ("Ethernet1/1", nic_get_if_name(0x1A001000));
    EXPECT_STREQ("Eth1/1", nic_get_if_short_name(0x1A001000));
    // Without a short name the name serves as both.
    EXPECT_STREQ("Ethernet1/2", nic_get_if_name(0x1A001001));
    EXPECT_STREQ("Ethernet1/2", nic_get_if_short_name(0x1A001001));
}

TEST_F(host_ifmgr, unknown_interfaces_get_a_placeholder)
{
    ASSERT_EQ(0u, put(5, 50, "Ethernet1/5"));
    EXPECT_STREQ("unknown(6)", nic_get_if_name(6));
    EXPECT_STREQ("unknown(6)", nic_get_if_short_name(6));
    EXPECT_STREQ("unknown(4294967295)", nic_get_if_name(0xFFFFFFFFu));
    EXPECT_STREQ("unknown(0)", nic_get_if_short_name(0));
}

TEST_F(host_ifmgr, a_device_without_interfaces_knows_none)
{
    EXPECT_STREQ("unknown(1)", nic_get_if_name(1));
    uint32_t iod = 77;
    EXPECT_EQ(NIC_ERR_UNKNOWN, nic_get_iod_frm_ifindex(1, &iod));
    EXPECT_EQ(77u, iod);
    EXPECT_EQ(0u, nic_is_mgmtether(1));
}

TEST_F(host_ifmgr, name_buffers_are_per_function_and_reused)
{
    ASSERT_EQ(0u, put(1, 10, "Ethernet1/1", "Eth1/1"));
    ASSERT_EQ(0u, put(2, 20, "Ethernet1/2", "Eth1/2"));
    const char *a = nic_get_if_name(1);
    const char *s = nic_get_if_short_name(2);
    EXPECT_STREQ("Ethernet1/1", a);
    EXPECT_STREQ("Eth1/2", s);
    // The next call of the same function overwrites its own buffer only.
    const char *b = nic_get_if_name(2);
    EXPECT_EQ(a, b);
    EXPECT_STREQ("Ethernet1/2", a);
    EXPECT_STREQ("Eth1/2", s);
}

TEST_F(host_ifmgr, name_buffers_are_per_thread)
{
    ASSERT_EQ(0u, put(1, 10, "Ethernet1/1"));
    ASSERT_EQ(0u, put(2, 20, "Ethernet1/2"));
    const char *mine = nic_get_if_name(1);
    const char *theirs = nullptr;
    std::string seen;
    std::thread t([&] {
        theirs = nic_get_if_name(2);
        seen = theirs;
    });
    t.join();
    EXPECT_NE(mine, theirs);
    EXPECT_EQ("Ethernet1/2", seen);
    EXPECT_STREQ("Ethernet1/1", mine);
}

TEST_F(host_ifmgr, iod_and_ifindex_map_both_ways)
{
    ASSERT_EQ(0u, put(0x1A001000, 17, "Ethernet1/1"));
    ASSERT_EQ(0u, put(0x16000001, 0x80000001u, "port-channel1"));
    uint32_t v = 0;
    EXPECT_EQ(0u, nic_get_ifindex_frm_iod(17, &v));
    EXPECT_EQ(0x1A001000u, v);
    EXPECT_EQ(0u, nic_get_iod_frm_ifindex(0x16000001, &v));
    EXPECT_EQ(0x80000001u, v);
    EXPECT_EQ(0u, nic_get_ifindex_frm_iod(0x80000001u, &v));
    EXPECT_EQ(0x16000001u, v);
}

TEST_F(host_ifmgr, unknown_iod_or_ifindex_leaves_the_output_alone)
{
    ASSERT_EQ(0u, put(3, 30, "Ethernet1/3"));
    uint32_t v = 0xDEADBEEF;
    EXPECT_EQ(NIC_ERR_UNKNOWN, nic_get_ifindex_frm_iod(31, &v));
    EXPECT_EQ(0xDEADBEEFu, v);
    EXPECT_EQ(NIC_ERR_UNKNOWN, nic_get_iod_frm_ifindex(4, &v));
    EXPECT_EQ(0xDEADBEEFu, v);
    EXPECT_EQ(NIC_ERR_INVALID, nic_get_ifindex_frm_iod(30, nullptr));
    EXPECT_EQ(NIC_ERR_INVALID, nic_get_iod_frm_ifindex(3, nullptr));
}

TEST_F(host_ifmgr, management_interface)
{
    ASSERT_EQ(0u, put(0x5000000, 1, "mgmt0", nullptr, 1));
    ASSERT_EQ(0u, put(0x1A001000, 17, "Ethernet1/1"));
    EXPECT_NE(0u, nic_is_mgmtether(0x5000000));
    EXPECT_EQ(0u, nic_is_mgmtether(0x1A001000));
    EXPECT_EQ(0u, nic_is_mgmtether(0x5000001));
}

TEST_F(host_ifmgr, answers_follow_every_change_of_any_process)
{
    ASSERT_EQ(0u, put(0x5000000, 1, "mgmt0", nullptr, 1));
    // Asked twice, so a second answer could come from what was kept.
    EXPECT_NE(0u, nic_is_mgmtether(0x5000000));
    EXPECT_NE(0u, nic_is_mgmtether(0x5000000));
    EXPECT_EQ(0u, nic_is_mgmtether(0x5000001));
    ASSERT_EQ(0, tarntest::run_child([] {
        return static_cast<int>(put(0x5000000, 1, "mgmt0", nullptr, 0) |
                                put(0x5000001, 2, "mgmt1", nullptr, 1));
    }));
    EXPECT_EQ(0u, nic_is_mgmtether(0x5000000));
    EXPECT_NE(0u, nic_is_mgmtether(0x5000001));
    EXPECT_STREQ("mgmt1", nic_get_if_name(0x5000001));
    ASSERT_EQ(0u, tarnhost_ifmgr_clear());
    EXPECT_EQ(0u, nic_is_mgmtether(0x5000001));
    EXPECT_STREQ("unknown(83886081)", nic_get_if_name(0x5000001));
}

TEST_F(host_ifmgr, port_channel_of_a_member_port)
{
    ASSERT_EQ(0u, put(0x16000001, 100, "port-channel1"));
    ASSERT_EQ(0u, put(0x1A001000, 17, "Ethernet1/1", nullptr, 0, 0x16000001));
    ASSERT_EQ(0u, put(0x1A001001, 18, "Ethernet1/2"));
    uint32_t st = 1;
    EXPECT_EQ(0x16000001u, pc_of(0x1A001000, &st));
    EXPECT_EQ(0u, st);
    // In no port-channel (and the port-channel itself): success, 0.
    EXPECT_EQ(0u, pc_of(0x1A001001, &st));
    EXPECT_EQ(0u, st);
    EXPECT_EQ(0u, pc_of(0x16000001, &st));
    EXPECT_EQ(0u, st);
}

TEST_F(host_ifmgr, port_channel_record_is_filled_or_untouched)
{
    ASSERT_EQ(0u, put(7, 70, "Ethernet1/7", nullptr, 0, 0x16000002));
    uint8_t rec[BOND_PC_RECORD_SIZE];
    memset(rec, 0xAB, sizeof rec);
    ASSERT_EQ(0u, bond_get_pc_for_port(7, rec));
    for (size_t i = 0; i < sizeof rec; ++i) {
        if (i < BOND_PC_IFINDEX_OFFSET || i >= BOND_PC_IFINDEX_OFFSET + 4) {
            ASSERT_EQ(0, rec[i]) << "byte " << i;
        }
    }

    memset(rec, 0xAB, sizeof rec);
    EXPECT_EQ(BOND_ERR_UNKNOWN, bond_get_pc_for_port(8, rec));
    for (size_t i = 0; i < sizeof rec; ++i)
        ASSERT_EQ(0xAB, rec[i]) << "byte " << i;
    EXPECT_EQ(TARNHOST_BOND_ERR_INVALID, bond_get_pc_for_port(7, nullptr));
}

TEST_F(host_ifmgr, replacing_an_interface_moves_its_iod)
{
    ASSERT_EQ(0u, put(9, 90, "Ethernet1/9", nullptr, 1, 0x16000001));
    ASSERT_EQ(0u, put(9, 91, "Ethernet1/9b"));
    uint32_t v = 0;
    EXPECT_EQ(NIC_ERR_UNKNOWN, nic_get_ifindex_frm_iod(90, &v));
    EXPECT_EQ(0u, nic_get_ifindex_frm_iod(91, &v));
    EXPECT_EQ(9u, v);
    EXPECT_STREQ("Ethernet1/9b", nic_get_if_name(9));
    EXPECT_EQ(0u, nic_is_mgmtether(9));
    uint32_t st = 1;
    EXPECT_EQ(0u, pc_of(9, &st));
    EXPECT_EQ(0u, st);
}

TEST_F(host_ifmgr, clear_forgets_every_interface)
{
    ASSERT_EQ(0u, put(1, 10, "Ethernet1/1"));
    ASSERT_EQ(0u, put(2, 20, "Ethernet1/2"));
    EXPECT_STREQ("Ethernet1/1", nic_get_if_name(1));
    ASSERT_EQ(0u, tarnhost_ifmgr_clear());
    EXPECT_STREQ("unknown(1)", nic_get_if_name(1));
    uint32_t v;
    EXPECT_EQ(NIC_ERR_UNKNOWN, nic_get_ifindex_frm_iod(20, &v));
}

TEST_F(host_ifmgr, transaction_writer_commits_together)
{
    uint32_t st = 0;
    tarnhost_kvs_txn_t *txn = tarnhost_kvs_txn_begin(TARNHOST_IFMGR_URI, &st);
    ASSERT_NE(nullptr, txn) << std::hex << st;
    tarnhost_if_t a = {1, 10, "Ethernet1/1", "Eth1/1", 0, 0};
    tarnhost_if_t b = {2, 20, "Ethernet1/2", nullptr, 0, 1};
    ASSERT_EQ(0u, tarnhost_ifmgr_txn_put(txn, &a));
    ASSERT_EQ(0u, tarnhost_ifmgr_txn_put(txn, &b));
    // Nothing is seen before the commit.
    EXPECT_STREQ("unknown(1)", nic_get_if_name(1));
    ASSERT_EQ(0u, tarnhost_kvs_txn_commit(txn));
    EXPECT_STREQ("Eth1/1", nic_get_if_short_name(1));
    EXPECT_STREQ("Ethernet1/2", nic_get_if_short_name(2));
    EXPECT_EQ(KVS_ERR_INVALID, tarnhost_ifmgr_txn_put(nullptr, &a));
}

TEST_F(host_ifmgr, malformed_interfaces_are_refused)
{
    EXPECT_EQ(KVS_ERR_INVALID, tarnhost_ifmgr_put(nullptr));
    EXPECT_EQ(KVS_ERR_INVALID, put(0, 1, "Ethernet1/1"));
    EXPECT_EQ(KVS_ERR_INVALID, put(1, 1, nullptr));
    EXPECT_EQ(KVS_ERR_INVALID, put(1, 1, ""));
    const std::string n32(32, 'n'), n33(33, 'n');
    EXPECT_EQ(KVS_ERR_INVALID, put(1, 1, n33.c_str()));
    EXPECT_EQ(KVS_ERR_INVALID, put(1, 1, "Ethernet1/1", n33.c_str()));
    EXPECT_STREQ("unknown(1)", nic_get_if_name(1));
    ASSERT_EQ(0u, put(1, 1, n32.c_str(), n32.c_str()));
    EXPECT_EQ(n32, nic_get_if_name(1));
    EXPECT_EQ(n32, nic_get_if_short_name(1));
}

TEST_F(host_ifmgr, another_process_sees_the_same_interfaces)
{
    ASSERT_EQ(0u, put(0x1A001000, 17, "Ethernet1/1", "Eth1/1", 0, 0x16000001));
    // Read once here so the parent holds an attachment across the fork.
    EXPECT_STREQ("Ethernet1/1", nic_get_if_name(0x1A001000));
    int rc = tarntest::run_child([] {
        uint32_t v = 0;
        if (strcmp(nic_get_if_name(0x1A001000), "Ethernet1/1") != 0)
            return 10;
        if (nic_get_ifindex_frm_iod(17, &v) != 0 || v != 0x1A001000u)
            return 11;
        uint8_t rec[BOND_PC_RECORD_SIZE] = {0};
        if (bond_get_pc_for_port(0x1A001000, rec) != 0)
            return 12;
        memcpy(&v, rec + BOND_PC_IFINDEX_OFFSET, 4);
        if (v != 0x16000001u)
            return 13;
        // The child adds an interface; the parent must see it.
        tarnhost_if_t ifc = {0x5000000, 1, "mgmt0", nullptr, 1, 0};
        return tarnhost_ifmgr_put(&ifc) == 0 ? 0 : 14;
    });
    EXPECT_EQ(0, rc);
    EXPECT_STREQ("mgmt0", nic_get_if_name(0x5000000));
    EXPECT_NE(0u, nic_is_mgmtether(0x5000000));
}

TEST_F(host_ifmgr, interfaces_belong_to_their_root)
{
    ASSERT_EQ(0u, put(1, 10, "Ethernet1/1"));
    EXPECT_STREQ("Ethernet1/1", nic_get_if_name(1));
    const std::string other = tarntest::fresh_root();
    EXPECT_STREQ("unknown(1)", nic_get_if_name(1));
    ASSERT_EQ(0u, put(1, 10, "Ethernet9/9"));
    EXPECT_STREQ("Ethernet9/9", nic_get_if_name(1));
    setenv("TARNHOST_ROOT", root_.c_str(), 1);
    EXPECT_STREQ("Ethernet1/1", nic_get_if_name(1));
    tarntest::remove_root(other);
}

TEST_F(host_ifmgr, faults_are_injected_per_call)
{
    ASSERT_EQ(0u, put(1, 10, "Ethernet1/1", nullptr, 1, 0x16000001));
    uint32_t v = 0xDEADBEEF;

    tarnhost_fault_set("nic_get_ifindex_frm_iod", 0x40500077u, 1);
    EXPECT_EQ(0x40500077u, nic_get_ifindex_frm_iod(10, &v));
    EXPECT_EQ(0xDEADBEEFu, v);
    EXPECT_EQ(0u, nic_get_ifindex_frm_iod(10, &v));
    EXPECT_EQ(1u, v);

    v = 0xDEADBEEF;
    tarnhost_fault_set("nic_get_iod_frm_ifindex", 0x40500078u, 1);
    EXPECT_EQ(0x40500078u, nic_get_iod_frm_ifindex(1, &v));
    EXPECT_EQ(0xDEADBEEFu, v);
    EXPECT_EQ(0u, nic_get_iod_frm_ifindex(1, &v));
    EXPECT_EQ(10u, v);

    tarnhost_fault_set("nic_get_if_name", 1, 1);
    EXPECT_STREQ("unknown(1)", nic_get_if_name(1));
    EXPECT_STREQ("Ethernet1/1", nic_get_if_name(1));

    tarnhost_fault_set("nic_get_if_short_name", 1, 1);
    EXPECT_STREQ("unknown(1)", nic_get_if_short_name(1));
    EXPECT_STREQ("Ethernet1/1", nic_get_if_short_name(1));

    tarnhost_fault_set("nic_is_mgmtether", 1, 1);
    EXPECT_EQ(0u, nic_is_mgmtether(1));
    EXPECT_NE(0u, nic_is_mgmtether(1));

    uint8_t rec[BOND_PC_RECORD_SIZE];
    memset(rec, 0xAB, sizeof rec);
    tarnhost_fault_set("bond_get_pc_for_port", 0x40510077u, 1);
    EXPECT_EQ(0x40510077u, bond_get_pc_for_port(1, rec));
    EXPECT_EQ(0xAB, rec[BOND_PC_IFINDEX_OFFSET]);
    uint32_t st = 1;
    EXPECT_EQ(0x16000001u, pc_of(1, &st));
    EXPECT_EQ(0u, st);
}

TEST_F(host_ifmgr, the_store_failing_underneath_is_reported)
{
    ASSERT_EQ(0u, put(1, 10, "Ethernet1/1"));
    // A database that cannot be attached: the root has gone.
    const std::string gone = root_ + "/no/such/dir";
    setenv("TARNHOST_ROOT", gone.c_str(), 1);
    uint32_t v = 0xDEADBEEF;
    uint32_t st = nic_get_iod_frm_ifindex(1, &v);
    EXPECT_NE(0u, st);
    EXPECT_NE(NIC_ERR_UNKNOWN, st);
    EXPECT_EQ(0xDEADBEEFu, v);
    EXPECT_STREQ("unknown(1)", nic_get_if_name(1));
    setenv("TARNHOST_ROOT", root_.c_str(), 1);
    EXPECT_EQ(0u, nic_get_iod_frm_ifindex(1, &v));
    EXPECT_EQ(10u, v);
}

}  // namespace
