// A host root that is not the caller's alone is refused with a text that
// names the problem and what to do, and nothing under a root is reached
// through a link or a file that is not ours: planted links are never
// followed and the files they point at stay as they were.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "platform/kvs.h"
#include "platform/supv.h"
#include "platform/syslog.h"
#include "support/fixture.h"

namespace {

constexpr uid_t kNobody = 65534;

std::string read_text(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_text(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::trunc);
    out << text;
}

std::string uid_text() { return std::to_string(geteuid()); }

std::string link_text(const std::string &path)
{
    return path +
           " is a symbolic link, and the host follows none under its root; "
           "remove the link, or set TARNHOST_ROOT to a directory of your own";
}

std::string foreign_text(const std::string &path, unsigned uid)
{
    return path + " belongs to uid " + std::to_string(uid) +
           ", not to you (uid " + uid_text() +
           "); remove it, or set TARNHOST_ROOT to a directory of your own";
}

std::string open_text(const std::string &path, const char *mode)
{
    return path + " can be written by other users (mode " + mode +
           "); make it private with \"chmod go-w " + path +
           "\", or remove it";
}

std::string not_plain_text(const std::string &path)
{
    return path +
           " is not a plain file of your own (a link, a device or a second "
           "name of another file); remove it";
}

class host_root_refusals : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        tarntest::HostTest::SetUp();
        // Files outside the root that planted links point at.
        outside_ = root_ + ".outside";
        std::filesystem::create_directory(outside_);
        target_ = outside_ + "/precious";
        write_text(target_, "keep\n");
    }
    void TearDown() override
    {
        std::error_code ec;
        std::filesystem::remove_all(outside_, ec);
        setenv("TARNHOST_ROOT", root_.c_str(), 1);
        tarntest::HostTest::TearDown();
    }
    // The target is as it was: same text, one name.
    void expect_target_untouched(const char *what)
    {
        EXPECT_EQ("keep\n", read_text(target_)) << what;
        struct stat st;
        ASSERT_EQ(0, stat(target_.c_str(), &st));
        EXPECT_EQ(1u, st.st_nlink) << what;
    }
    // Replaces `path` (file or directory) with a link to `to`.
    void plant(const std::string &path, const std::string &to)
    {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
        ASSERT_EQ(0, symlink(to.c_str(), path.c_str())) << path;
    }
    std::string outside_, target_;
};

TEST_F(host_root_refusals, a_linked_root_is_refused)
{
    std::string real = outside_ + "/real";
    ASSERT_EQ(0, mkdir(real.c_str(), 0700));
    std::string link = root_ + "/link";
    ASSERT_EQ(0, symlink(real.c_str(), link.c_str()));
    setenv("TARNHOST_ROOT", link.c_str(), 1);
    EXPECT_EQ(ELOOP, tarnhost_root_prepare());
    EXPECT_EQ(link_text(link), tarnhost_root_problem());
    EXPECT_EQ(link_text(link), tarnhost_root_strerror(ELOOP));
    errno = 0;
    EXPECT_EQ(BUS_HANDLE_NONE, bus_bind(0, -1, nullptr, "x"));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ(ELOOP, tarnhost_device_up(nullptr));
    EXPECT_EQ(KVS_ERR_IO, kvs_open("volatile:/db", 1, 0, 0, 0));
    // Nothing was made behind the link.
    EXPECT_TRUE(std::filesystem::is_empty(real));
}

TEST_F(host_root_refusals, a_root_others_can_write_is_refused)
{
    std::string dev = root_ + "/dev";
    setenv("TARNHOST_ROOT", dev.c_str(), 1);
    ASSERT_EQ(0, tarnhost_root_prepare());
    EXPECT_STREQ("", tarnhost_root_problem());
    ASSERT_EQ(0, chmod(dev.c_str(), 0770));
    EXPECT_EQ(EACCES, tarnhost_root_prepare());
    EXPECT_EQ(open_text(dev, "0770"), tarnhost_root_problem());
    ASSERT_EQ(0, chmod(dev.c_str(), 0702));
    EXPECT_EQ(EACCES, tarnhost_root_prepare());
    EXPECT_EQ(open_text(dev, "0702"), tarnhost_root_problem());
    errno = 0;
    EXPECT_EQ(BUS_HANDLE_NONE, bus_bind(0, -1, nullptr, "x"));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(nullptr, supv_running_cfg_uri_get());
    // Read access for others is no danger.
    ASSERT_EQ(0, chmod(dev.c_str(), 0755));
    EXPECT_EQ(0, tarnhost_root_prepare());
    // A subdirectory is held to the same rule.
    ASSERT_EQ(0, chmod((dev + "/bus").c_str(), 0777));
    EXPECT_EQ(EACCES, tarnhost_root_prepare());
    EXPECT_EQ(open_text(dev + "/bus", "0777"), tarnhost_root_problem());
}

TEST_F(host_root_refusals, a_root_in_a_directory_others_can_change_is_refused)
{
    std::string parent = root_ + "/open";
    ASSERT_EQ(0, mkdir(parent.c_str(), 0700));
    ASSERT_EQ(0, chmod(parent.c_str(), 0777));
    std::string dev = parent + "/dev";
    setenv("TARNHOST_ROOT", dev.c_str(), 1);
    EXPECT_EQ(EACCES, tarnhost_root_prepare());
    EXPECT_EQ(dev + " lies in " + parent +
                  ", which another user can change (owner uid " + uid_text() +
                  ", mode 0777); choose a root in a directory that only you "
                  "or root can write",
              tarnhost_root_problem());
    EXPECT_FALSE(std::filesystem::exists(dev));
    // Sticky, as /tmp and /dev/shm are: nobody else can rename our root.
    ASSERT_EQ(0, chmod(parent.c_str(), 01777));
    EXPECT_EQ(0, tarnhost_root_prepare());
}

TEST_F(host_root_refusals, a_root_of_another_user_is_refused)
{
    std::string dev;
    unsigned owner;
    if (geteuid() == 0) {
        dev = root_ + "/theirs";
        ASSERT_EQ(0, mkdir(dev.c_str(), 0700));
        ASSERT_EQ(0, chown(dev.c_str(), kNobody, kNobody));
        owner = kNobody;
    } else {
        // Without root, a directory of root's serves as the foreign one.
        dev = "/usr";
        owner = 0;
    }
    setenv("TARNHOST_ROOT", dev.c_str(), 1);
    EXPECT_EQ(EPERM, tarnhost_root_prepare());
    EXPECT_EQ(foreign_text(dev, owner), tarnhost_root_problem());
    errno = 0;
    EXPECT_EQ(BUS_HANDLE_NONE, tarnhost_bus_serve(77, "x"));
    EXPECT_EQ(EPERM, errno);
    EXPECT_EQ(EPERM, tarnhost_device_up(nullptr));
    EXPECT_EQ(nullptr, supv_running_cfg_uri_get());
    if (geteuid() == 0) {
        EXPECT_TRUE(std::filesystem::is_empty(dev));
    }
}

TEST_F(host_root_refusals, a_link_of_another_user_on_the_way_is_refused)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "a link of another user can only be made by root here";
    // Whoever owns a link on the way to the root chooses where the device
    // lives: only links of ours or root's are followed there.
    const std::string link = outside_ + "/way";
    ASSERT_EQ(0, symlink(outside_.c_str(), link.c_str()));
    ASSERT_EQ(0, lchown(link.c_str(), kNobody, kNobody));
    const std::string dev = link + "/dev";
    setenv("TARNHOST_ROOT", dev.c_str(), 1);
    EXPECT_EQ(EACCES, tarnhost_root_prepare());
    EXPECT_EQ(dev + " is reached through the link " + link +
                  ", which belongs to uid 65534, not to you or root; choose a root "
                  "whose path has no link of another user",
              tarnhost_root_problem());
    struct stat st;
    EXPECT_NE(0, stat((outside_ + "/dev").c_str(), &st));

    // The same link made ours is followed.
    ASSERT_EQ(0, lchown(link.c_str(), 0, 0));
    EXPECT_EQ(0, tarnhost_root_prepare());
    EXPECT_EQ(0, stat((outside_ + "/dev").c_str(), &st));
}

// The attack as it happens on a shared machine: another user stages a
// device in a world-writable directory, with links at every path the host
// opens, and waits for a privileged tool to use it.
TEST_F(host_root_refusals, a_device_staged_by_another_user_is_not_used)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "acting as a second user needs root (setuid to "
                        "nobody); the other refusals run without it";
    // Like /dev/shm: anyone may make a directory there.
    ASSERT_EQ(0, chmod(root_.c_str(), 0711));
    std::string shared = root_ + "/shm";
    ASSERT_EQ(0, mkdir(shared.c_str(), 0700));
    ASSERT_EQ(0, chmod(shared.c_str(), 01777));
    std::string dev = shared + "/tarnhost";
    const std::string target = target_;
    int rc = tarntest::run_child([&]() {
        if (setgid(kNobody) != 0 || setuid(kNobody) != 0)
            return 10;
        umask(0);
        for (const char *d : {"", "/bus", "/bus/h", "/bus/sub", "/log",
                              "/supervisor", "/kvs", "/kvs/env"})
            if (mkdir((dev + d).c_str(), 0777) != 0)
                return 11;
        for (const char *l : {"/bus/lock", "/bus/gen", "/log/messages",
                              "/supervisor/running-config",
                              "/kvs/env/lock.mdb",
                              "/kvs/env/data.mdb"})
            if (symlink(target.c_str(), (dev + l).c_str()) != 0)
                return 12;
        return 0;
    });
    ASSERT_EQ(0, rc);
    setenv("TARNHOST_ROOT", dev.c_str(), 1);
    EXPECT_EQ(EPERM, tarnhost_root_prepare());
    EXPECT_EQ(foreign_text(dev, kNobody), tarnhost_root_problem());
    errno = 0;
    EXPECT_EQ(BUS_HANDLE_NONE, bus_bind(0, -1, nullptr, "x"));
    EXPECT_EQ(EPERM, errno);
    EXPECT_EQ(EPERM, tarnhost_device_up(nullptr));
    EXPECT_EQ(nullptr, supv_running_cfg_uri_get());
    EXPECT_EQ(KVS_ERR_IO, kvs_open("volatile:/db", 1, 0, 0, 0));
    EXPECT_EQ(KVS_ERR_IO, tarnhost_kvs_put("volatile:/db", "k", 1, "v", 1));
    plat_syslog(3, "a line for the log");
    expect_target_untouched("staged device");
}

TEST_F(host_root_refusals, links_planted_in_the_bus_are_not_followed)
{
    const std::string bus = root_ + "/bus";
    uint32_t first = bus_bind(0, -1, nullptr, "first");
    ASSERT_NE(BUS_HANDLE_NONE, first);
    ASSERT_EQ(0u, bus_unbind(first));

    for (const char *name : {"lock", "gen"}) {
        plant(bus + "/" + name, target_);
        errno = 0;
        EXPECT_EQ(BUS_HANDLE_NONE, bus_bind(0, -1, nullptr, "x")) << name;
        EXPECT_EQ(ELOOP, errno) << name;
        EXPECT_EQ(link_text(bus + "/" + name), tarnhost_root_problem());
        expect_target_untouched(name);
        ASSERT_EQ(0, unlink((bus + "/" + name).c_str()));
    }
    for (const char *sub : {"h", "ap", "sub", "state"}) {
        std::string elsewhere = outside_ + "/" + sub;
        std::filesystem::create_directory(elsewhere);
        plant(bus + "/" + sub, elsewhere);
        errno = 0;
        EXPECT_EQ(BUS_HANDLE_NONE, bus_bind(0, -1, nullptr, "x")) << sub;
        EXPECT_EQ(ELOOP, errno) << sub;
        EXPECT_EQ(link_text(bus + "/" + sub), tarnhost_root_problem());
        EXPECT_TRUE(std::filesystem::is_empty(elsewhere)) << sub;
        ASSERT_EQ(0, unlink((bus + "/" + sub).c_str()));
    }
    uint32_t again = bus_bind(0, -1, nullptr, "again");
    ASSERT_NE(BUS_HANDLE_NONE, again);
    ASSERT_EQ(0u, bus_unbind(again));

    // An access point entry that is a link is replaced, not written through.
    plant(bus + "/ap/77", target_);
    uint32_t server = tarnhost_bus_serve(77, "server");
    ASSERT_NE(BUS_HANDLE_NONE, server);
    expect_target_untouched("ap");
    struct stat st;
    ASSERT_EQ(0, lstat((bus + "/ap/77").c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));

    // A subscription record that is a link refuses the subscription.
    const uint32_t opc = 61077;
    std::filesystem::create_directory(bus + "/sub/" + std::to_string(opc));
    plant(bus + "/sub/" + std::to_string(opc) + "/" + std::to_string(server),
          target_);
    EXPECT_EQ(ELOOP, tarnhost_bus_subscribe(server, opc, 1));
    expect_target_untouched("sub");
    bus_unbind(server);
}

TEST_F(host_root_refusals, a_socket_name_that_is_a_link_gets_no_message)
{
    // A socket of someone else's, and a record in our bus whose handle
    // name leads there: a publish must not deliver to it.
    std::string foreign = outside_ + "/sock";
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    snprintf(sa.sun_path, sizeof sa.sun_path, "%s", foreign.c_str());
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa));
    uint32_t live = bus_bind(0, -1, nullptr, "live");
    ASSERT_NE(BUS_HANDLE_NONE, live);
    const uint32_t opc = 61078;
    ASSERT_EQ(0, tarnhost_bus_subscribe(live, opc, 1));
    const uint32_t fake = 4000000000u;
    std::string dir = root_ + "/bus/sub/" + std::to_string(opc);
    write_text(dir + "/" + std::to_string(fake), "");
    ASSERT_EQ(0, symlink(foreign.c_str(),
                         (root_ + "/bus/h/" + std::to_string(fake)).c_str()));
    EXPECT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, opc, "m", 1));
    char buf[64];
    EXPECT_EQ(-1, recv(fd, buf, sizeof buf, MSG_DONTWAIT));
    bus_msg_t *m = tarnhost_bus_recv_ms(live, 1000);
    ASSERT_NE(nullptr, m);
    bus_drop(live, m);
    // Nor does a directed send through an access point naming it.
    write_text(root_ + "/bus/ap/78", std::to_string(fake) + "\n");
    chmod((root_ + "/bus/ap/78").c_str(), 0600);
    bus_send_opts_t o{};
    errno = 0;
    EXPECT_EQ(-1, bus_send(live, BUS_NODE_LOCAL, 78, opc, "d", 1, nullptr,
                           nullptr, &o));
    EXPECT_EQ(ELOOP, errno);
    EXPECT_EQ(link_text(root_ + "/bus/h/" + std::to_string(fake)),
              tarnhost_root_problem());
    EXPECT_EQ(-1, recv(fd, buf, sizeof buf, MSG_DONTWAIT));
    // A plain file at a handle's name is no socket either.
    const uint32_t plain = fake + 1;
    const std::string plain_path = root_ + "/bus/h/" + std::to_string(plain);
    write_text(plain_path, "");
    write_text(root_ + "/bus/ap/79", std::to_string(plain) + "\n");
    errno = 0;
    EXPECT_EQ(-1, bus_send(live, BUS_NODE_LOCAL, 79, opc, "d", 1, nullptr,
                           nullptr, &o));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(plain_path + " is not a socket of the bus; remove it",
              tarnhost_root_problem());
    close(fd);
    bus_unbind(live);
}

TEST_F(host_root_refusals, links_planted_for_the_supervisor_are_not_followed)
{
    const std::string sup = root_ + "/supervisor";
    write_text(target_, "volatile:/elsewhere\n");
    plant(sup + "/running-config", target_);
    // The link is not read ...
    EXPECT_EQ(nullptr, supv_running_cfg_uri_get());
    EXPECT_EQ(link_text(sup + "/running-config"), tarnhost_root_problem());
    // ... and bringing the device up replaces it instead of writing through.
    std::string tmp = sup + "/running-config.tmp." + std::to_string(getpid());
    ASSERT_EQ(0, symlink(target_.c_str(), tmp.c_str()));
    EXPECT_EQ(0, tarnhost_device_up(nullptr));
    EXPECT_EQ("volatile:/elsewhere\n", read_text(target_));
    EXPECT_STREQ(TARNHOST_RUNNING_URI, supv_running_cfg_uri_get());
    struct stat st;
    ASSERT_EQ(0, lstat((sup + "/running-config").c_str(), &st));
    EXPECT_TRUE(S_ISREG(st.st_mode));
}

TEST_F(host_root_refusals, the_log_file_is_never_written_through_a_link)
{
    const std::string log = root_ + "/log/messages";
    plant(log, target_);
    plat_syslog(3, "through a link");
    expect_target_untouched("symbolic link");
    ASSERT_EQ(0, unlink(log.c_str()));
    // A second name of another file is refused too.
    ASSERT_EQ(0, link(target_.c_str(), log.c_str()));
    plat_syslog(3, "through a hard link");
    EXPECT_EQ("keep\n", read_text(target_));
    EXPECT_EQ(not_plain_text(log), tarnhost_root_problem());
    ASSERT_EQ(0, unlink(log.c_str()));
    plat_syslog(3, "into its own file");
    EXPECT_NE(std::string::npos,
              read_text(log).find("into its own file"));
}

TEST_F(host_root_refusals, store_files_planted_as_links_are_refused)
{
    // Every database of the device lives in the one store directory.
    const std::string db = root_ + "/kvs/env";
    std::filesystem::create_directories(db);
    for (const char *file : {"lock.mdb", "data.mdb"}) {
        plant(db + "/" + file, target_);
        EXPECT_EQ(KVS_ERR_IO, kvs_open("volatile:/db", 1, 0, 0, 0)) << file;
        EXPECT_EQ(KVS_ERR_IO, tarnhost_kvs_put("volatile:/db", "k", 1, "v", 1))
            << file;
        EXPECT_EQ(link_text(db + "/" + file), tarnhost_root_problem());
        expect_target_untouched(file);
        ASSERT_EQ(0, unlink((db + "/" + file).c_str()));
    }
    // A store directory that is a link is not entered.
    std::string elsewhere = outside_ + "/db";
    std::filesystem::create_directory(elsewhere);
    plant(db, elsewhere);
    EXPECT_EQ(KVS_ERR_IO, tarnhost_kvs_put("volatile:/db", "k", 1, "v", 1));
    EXPECT_EQ(link_text(db), tarnhost_root_problem());
    EXPECT_TRUE(std::filesystem::is_empty(elsewhere));
    ASSERT_EQ(0, unlink(db.c_str()));
    EXPECT_EQ(0u, tarnhost_kvs_put("volatile:/db", "k", 1, "v", 1));
}

}  // namespace
