// A device shared with a group on purpose (TARNHOST_GROUP): its members
// use one root, each other's sockets and the same databases; anyone else,
// and a member who does not name the group, is refused with a text that
// says why.  Needs root, to act as several users.

#include <errno.h>
#include <grp.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "platform/kvs.h"
#include "platform/supv.h"
#include "support/fixture.h"
#include "support/proc.h"

namespace {

using tarntest::Proc;
using tarntest::finish;
using tarntest::get_word;
using tarntest::put_word;
using tarntest::spawn;

constexpr uid_t kNobody = 65534;
constexpr gid_t kGroup = 65534;  // "nogroup" on Debian
constexpr uint32_t kOpc = 61301;
const char kUri[] = "volatile:/shared/db";

// Becomes `uid` with the primary group `gid` and, when `in_group`, the
// device's group beside it.
bool become(uid_t uid, gid_t gid, bool in_group)
{
    gid_t groups[1] = {kGroup};
    if (setgroups(in_group ? 1 : 0, groups) != 0 || setgid(gid) != 0)
        return false;
    return uid == 0 || setuid(uid) == 0;
}

std::string group_text()
{
    group *g = getgrgid(kGroup);
    return g != nullptr ? g->gr_name : std::to_string(kGroup);
}

mode_t mode_of(const std::string &path, gid_t *gid = nullptr)
{
    struct stat st;
    if (lstat(path.c_str(), &st) != 0)
        return 0;
    if (gid != nullptr)
        *gid = st.st_gid;
    return st.st_mode & 07777;
}

class host_root_group : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        tarntest::HostTest::SetUp();
        if (geteuid() != 0)
            GTEST_SKIP() << "acting as the members of a group needs root "
                            "(setgroups, setuid)";
        // Like /dev/shm for the other users: they may pass through.
        ASSERT_EQ(0, chmod(root_.c_str(), 0711));
        dev_ = root_ + "/shared";
    }
    void TearDown() override
    {
        unsetenv("TARNHOST_GROUP");
        setenv("TARNHOST_ROOT", root_.c_str(), 1);
        tarntest::HostTest::TearDown();
    }
    std::string dev_;
};

TEST_F(host_root_group, members_share_a_device_and_nobody_else_does)
{
    const std::string dev = dev_;
    const std::string group = group_text();
    setenv("TARNHOST_ROOT", dev.c_str(), 1);
    setenv("TARNHOST_GROUP", group.c_str(), 1);

    // The first member (root here) makes the device.
    Proc a = spawn([](int rd, int wr) {
        if (!become(0, 0, true) || tarnhost_root_prepare() != 0 ||
            tarnhost_kvs_put(kUri, "k", 1, "v", 1) != 0 ||
            tarnhost_device_up(nullptr) != 0)
            return 1;
        uint32_t pub = bus_bind(0, -1, nullptr, "member a");
        if (pub == BUS_HANDLE_NONE)
            return 2;
        put_word(wr, 1);
        uint32_t go = 0;
        if (!get_word(rd, &go))
            return 3;
        uint32_t missed[4];
        size_t n = 9;
        if (tarnhost_bus_publish_counted(pub, kOpc, "hi", 2, missed, 4, &n) != 0 ||
            n != 0)
            return 4;
        get_word(rd, &go);
        bus_unbind(pub);
        return 0;
    });
    uint32_t word = 0;
    ASSERT_TRUE(get_word(a.rd, &word));

    // Another member, another user: it reads the database, sees the device
    // up, takes notifications from the first.
    Proc b = spawn([](int, int wr) {
        if (!become(kNobody, kNobody, true))
            return 1;
        uint32_t h = bus_bind(0, -1, nullptr, "member b");
        if (h == BUS_HANDLE_NONE || tarnhost_bus_subscribe(h, kOpc, 1) != 0)
            return 2;
        if (kvs_open(kUri, 1, 0, 0, 0) != 0)
            return 3;
        kvs_datum_t key{"k", 1}, value{nullptr, 0};
        if (kvs_read(kUri, &key, &value) != 0 || value.len != 1 ||
            memcmp(value.data, "v", 1) != 0)
            return 4;
        const char *uri = supv_running_cfg_uri_get();
        if (uri == nullptr || strcmp(uri, TARNHOST_RUNNING_URI) != 0)
            return 5;
        put_word(wr, h);
        bus_msg_t *m = tarnhost_bus_recv_ms(h, 5000);
        if (m == nullptr || bus_opc_get(m) != kOpc)
            return 6;
        bus_drop(h, m);
        bus_unbind(h);
        return 0;
    });
    uint32_t hb = 0;
    ASSERT_TRUE(get_word(b.rd, &hb));
    put_word(a.wr, 1);
    EXPECT_EQ(0, finish(b));
    put_word(a.wr, 1);
    EXPECT_EQ(0, finish(a));

    // What they made belongs to the group and to nobody outside it; the
    // database directory takes no new names from the members.
    gid_t gid = 0;
    EXPECT_EQ(02770u, mode_of(dev, &gid));
    EXPECT_EQ(kGroup, gid);
    EXPECT_EQ(02770u, mode_of(dev + "/bus/h", &gid));
    EXPECT_EQ(02750u, mode_of(dev + "/kvs/env", &gid));
    EXPECT_EQ(0660u, mode_of(dev + "/kvs/env/data.mdb", &gid));
    EXPECT_EQ(kGroup, gid);
    EXPECT_EQ(0660u, mode_of(dev + "/kvs/env/lock.mdb"));
    EXPECT_EQ(0660u, mode_of(dev + "/supervisor/running-config"));

    // A user outside the group.
    const std::string outsider =
        "TARNHOST_GROUP names the group " + group +
        ", and you (uid 65534) are not in it; join the group, or unset "
        "TARNHOST_GROUP";
    const std::string not_yours =
        dev + " belongs to uid 0, not to you (uid 65534); remove it, or set "
              "TARNHOST_ROOT to a directory of your own";
    int rc = tarntest::run_child([&]() {
        // Not even by its primary group.
        if (!become(kNobody, kGroup - 1, false))
            return 1;
        if (tarnhost_root_prepare() != EPERM || outsider != tarnhost_root_problem())
            return 2;
        if (bus_bind(0, -1, nullptr, "outsider") != BUS_HANDLE_NONE || errno != EPERM)
            return 3;
        unsetenv("TARNHOST_GROUP");
        if (tarnhost_root_prepare() != EPERM || not_yours != tarnhost_root_problem())
            return 4;
        return 0;
    });
    EXPECT_EQ(0, rc);

    // A member who does not name the group keeps to the strict rule: a
    // group-writable root is refused, not used by accident.
    unsetenv("TARNHOST_GROUP");
    EXPECT_EQ(EACCES, tarnhost_root_prepare());
    EXPECT_EQ(dev + " can be written by other users (mode 2770); make it "
                    "private with \"chmod go-w " + dev + "\", or remove it",
              tarnhost_root_problem());
    // A group that does not exist.
    setenv("TARNHOST_GROUP", "no-such-group-here", 1);
    EXPECT_EQ(EINVAL, tarnhost_root_prepare());
    EXPECT_STREQ("TARNHOST_GROUP names no group (no-such-group-here); name "
                 "an existing group, or unset it to keep the device to "
                 "yourself",
                 tarnhost_root_problem());
}

}  // namespace
