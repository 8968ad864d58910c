// The host root's ownership and permission rules, bit by bit: each
// permission bit of the root, of its subdirectories, of each ancestor and
// of the directory holding a link on the way, with and without the sticky
// bit; each file kind where the host expects a plain file or a socket of
// its own.

#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "platform/supv.h"
#include "support/fixture.h"

namespace {

constexpr uid_t kNobody = 65534;

// Each permission bit that another user's access could come from.
constexpr mode_t kOtherBits[] = {040, 020, 010, 004, 002, 001};

std::string mode_text(mode_t m)
{
    char b[16];
    snprintf(b, sizeof b, "%04o", static_cast<unsigned>(m));
    return b;
}

std::string uid_text() { return std::to_string(geteuid()); }

std::string open_text(const std::string &path, mode_t mode)
{
    return path + " can be written by other users (mode " + mode_text(mode) +
           "); make it private with \"chmod go-w " + path + "\", or remove it";
}

std::string parent_text(const std::string &root, const std::string &dir, unsigned uid,
                        mode_t mode)
{
    return root + " lies in " + dir + ", which another user can change (owner uid " +
           std::to_string(uid) + ", mode " + mode_text(mode) +
           "); choose a root in a directory that only you or root can write";
}

std::string not_plain_text(const std::string &path)
{
    return path +
           " is not a plain file of your own (a link, a device or a second "
           "name of another file); remove it";
}

std::string link_text(const std::string &path)
{
    return path +
           " is a symbolic link, and the host follows none under its root; "
           "remove the link, or set TARNHOST_ROOT to a directory of your own";
}

std::string foreign_text(const std::string &path, unsigned uid)
{
    return path + " belongs to uid " + std::to_string(uid) + ", not to you (uid " + uid_text() +
           "); remove it, or set TARNHOST_ROOT to a directory of your own";
}

void write_text(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::trunc);
    out << text;
}

// A Unix socket bound at `path`; its descriptor.
int bound_socket(const std::string &path)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path.c_str());
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// One kind of thing to find at a name: makes it, or says why it could not.
enum class Kind { Plain, HardLink, SymLink, Fifo, Socket, Directory };

const char *kind_name(Kind k)
{
    switch (k) {
    case Kind::Plain: return "plain file";
    case Kind::HardLink: return "hard link";
    case Kind::SymLink: return "symbolic link";
    case Kind::Fifo: return "FIFO";
    case Kind::Socket: return "socket";
    case Kind::Directory: return "directory";
    }
    return "?";
}

class host_root_modes : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        const char *g = getenv("TARNHOST_GROUP");
        had_group_ = g != nullptr;
        if (had_group_)
            group_ = g;
        unsetenv("TARNHOST_GROUP");
        tarntest::HostTest::SetUp();
        outside_ = root_ + ".outside";
        std::filesystem::create_directory(outside_);
    }
    void TearDown() override
    {
        for (int fd : sockets_)
            close(fd);
        std::error_code ec;
        std::filesystem::remove_all(outside_, ec);
        setenv("TARNHOST_ROOT", root_.c_str(), 1);
        unsetenv("TARNHOST_GROUP");
        tarntest::HostTest::TearDown();
        if (had_group_)
            setenv("TARNHOST_GROUP", group_.c_str(), 1);
    }
    // Replaces whatever is at `path` by a thing of `kind`, with the given
    // mode for the plain file.
    void make(const std::string &path, Kind kind, mode_t mode = 0600)
    {
        std::error_code ec;
        std::filesystem::remove_all(path, ec);
        switch (kind) {
        case Kind::Plain:
            write_text(path, "volatile:/tarnhost/running\n");
            ASSERT_EQ(0, chmod(path.c_str(), mode));
            break;
        case Kind::HardLink: {
            const std::string other = outside_ + "/second-name";
            write_text(other, "volatile:/tarnhost/running\n");
            ASSERT_EQ(0, chmod(other.c_str(), 0600));
            ASSERT_EQ(0, link(other.c_str(), path.c_str()));
            break;
        }
        case Kind::SymLink: {
            const std::string other = outside_ + "/target";
            write_text(other, "volatile:/tarnhost/running\n");
            ASSERT_EQ(0, symlink(other.c_str(), path.c_str()));
            break;
        }
        case Kind::Fifo:
            ASSERT_EQ(0, mkfifo(path.c_str(), 0600));
            break;
        case Kind::Socket: {
            const int fd = bound_socket(path);
            ASSERT_GE(fd, 0);
            sockets_.push_back(fd);
            ASSERT_EQ(0, chmod(path.c_str(), mode));
            break;
        }
        case Kind::Directory:
            ASSERT_EQ(0, mkdir(path.c_str(), 0700));
            break;
        }
    }
    std::string outside_;
    std::vector<int> sockets_;
    bool had_group_ = false;
    std::string group_;
};

// ---- directories -------------------------------------------------------------------------

// The root itself: a group or other write bit refuses it, and the sticky
// bit does not excuse it (it keeps others from renaming entries, not from
// adding their own).  Read and search bits are no danger.
TEST_F(host_root_modes, each_bit_of_the_root)
{
    const std::string dev = root_ + "/dev";
    setenv("TARNHOST_ROOT", dev.c_str(), 1);
    ASSERT_EQ(0, tarnhost_root_prepare());
    for (mode_t sticky : {mode_t{0}, mode_t{01000}}) {
        for (mode_t bit : kOtherBits) {
            const mode_t mode = 0700 | bit | sticky;
            SCOPED_TRACE(mode_text(mode));
            ASSERT_EQ(0, chmod(dev.c_str(), mode));
            if ((bit & 022) != 0) {
                EXPECT_EQ(EACCES, tarnhost_root_prepare());
                EXPECT_EQ(open_text(dev, mode), tarnhost_root_problem());
                EXPECT_EQ(nullptr, supv_running_cfg_uri_get());
            } else {
                EXPECT_EQ(0, tarnhost_root_prepare());
                EXPECT_STREQ("", tarnhost_root_problem());
            }
        }
    }
    ASSERT_EQ(0, chmod(dev.c_str(), 0700));
    EXPECT_EQ(0, tarnhost_root_prepare());
}

// Each subdirectory is held to the root's rule.
TEST_F(host_root_modes, each_write_bit_of_each_subdirectory)
{
    for (const char *sub : {"kvs", "log", "bus", "supervisor"}) {
        const std::string dir = root_ + "/" + sub;
        for (mode_t mode : {mode_t{0720}, mode_t{0702}, mode_t{01720}, mode_t{01702}}) {
            SCOPED_TRACE(std::string(sub) + " " + mode_text(mode));
            ASSERT_EQ(0, chmod(dir.c_str(), mode));
            EXPECT_EQ(EACCES, tarnhost_root_prepare());
            EXPECT_EQ(open_text(dir, mode), tarnhost_root_problem());
        }
        for (mode_t mode : {mode_t{0750}, mode_t{0705}, mode_t{01755}}) {
            SCOPED_TRACE(std::string(sub) + " " + mode_text(mode));
            ASSERT_EQ(0, chmod(dir.c_str(), mode));
            EXPECT_EQ(0, tarnhost_root_prepare());
        }
        ASSERT_EQ(0, chmod(dir.c_str(), 0700));
    }
}

// On a device shared with a group on purpose, group members may write:
// only a write bit for others refuses a directory, with or without the
// sticky bit.  (The group here is the caller's own primary group.)
TEST_F(host_root_modes, each_bit_of_a_group_device)
{
    group *g = getgrgid(getegid());
    ASSERT_NE(nullptr, g);
    setenv("TARNHOST_GROUP", g->gr_name, 1);
    const std::string dev = root_ + "/shared";
    setenv("TARNHOST_ROOT", dev.c_str(), 1);
    ASSERT_EQ(0, tarnhost_root_prepare()) << tarnhost_root_problem();
    const std::string bus = dev + "/bus";
    for (const std::string &dir : {dev, bus}) {
        struct stat st;
        ASSERT_EQ(0, stat(dir.c_str(), &st));
        const mode_t base = st.st_mode & 07777 & ~mode_t{077};
        for (mode_t sticky : {mode_t{0}, mode_t{01000}}) {
            for (mode_t bit : kOtherBits) {
                const mode_t mode = base | bit | sticky;
                SCOPED_TRACE(dir + " " + mode_text(mode));
                ASSERT_EQ(0, chmod(dir.c_str(), mode));
                if ((bit & 002) != 0) {
                    EXPECT_EQ(EACCES, tarnhost_root_prepare());
                    EXPECT_EQ(open_text(dir, mode), tarnhost_root_problem());
                } else {
                    EXPECT_EQ(0, tarnhost_root_prepare()) << tarnhost_root_problem();
                }
            }
        }
        ASSERT_EQ(0, chmod(dir.c_str(), st.st_mode & 07777));
    }
    unsetenv("TARNHOST_GROUP");
}

// An ancestor, at any depth: a group or other write bit refuses the root
// unless the sticky bit is set too (then nobody else can rename the root
// away, as in /tmp).  The refusal names the first such ancestor.
TEST_F(host_root_modes, each_bit_of_each_ancestor_with_and_without_the_sticky_bit)
{
    const std::string a = root_ + "/a", b = a + "/b", dev = b + "/dev";
    ASSERT_EQ(0, mkdir(a.c_str(), 0700));
    ASSERT_EQ(0, mkdir(b.c_str(), 0700));
    setenv("TARNHOST_ROOT", dev.c_str(), 1);
    ASSERT_EQ(0, tarnhost_root_prepare());
    for (const std::string &ancestor : {b, a, root_}) {
        for (mode_t sticky : {mode_t{0}, mode_t{01000}}) {
            for (mode_t bit : kOtherBits) {
                const mode_t mode = 0700 | bit | sticky;
                SCOPED_TRACE(ancestor + " " + mode_text(mode));
                ASSERT_EQ(0, chmod(ancestor.c_str(), mode));
                if ((bit & 022) != 0 && sticky == 0) {
                    EXPECT_EQ(EACCES, tarnhost_root_prepare());
                    EXPECT_EQ(parent_text(dev, ancestor, geteuid(), mode),
                              tarnhost_root_problem());
                } else {
                    EXPECT_EQ(0, tarnhost_root_prepare());
                }
            }
        }
        ASSERT_EQ(0, chmod(ancestor.c_str(), 0700));
    }
    // Two open ancestors: the one nearer "/" is named.
    ASSERT_EQ(0, chmod(a.c_str(), 0770));
    ASSERT_EQ(0, chmod(b.c_str(), 0707));
    EXPECT_EQ(EACCES, tarnhost_root_prepare());
    EXPECT_EQ(parent_text(dev, a, geteuid(), 0770), tarnhost_root_problem());
}

// An ancestor of another user is refused whatever its mode; one of root's
// is accepted.
TEST_F(host_root_modes, the_owner_of_an_ancestor)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "giving a directory to another user needs root";
    const std::string a = root_ + "/a", dev = a + "/dev";
    ASSERT_EQ(0, mkdir(a.c_str(), 0755));
    setenv("TARNHOST_ROOT", dev.c_str(), 1);
    ASSERT_EQ(0, tarnhost_root_prepare());
    ASSERT_EQ(0, chown(a.c_str(), kNobody, kNobody));
    ASSERT_EQ(0, chmod(a.c_str(), 0755));
    EXPECT_EQ(EACCES, tarnhost_root_prepare());
    EXPECT_EQ(parent_text(dev, a, kNobody, 0755), tarnhost_root_problem());
    ASSERT_EQ(0, chmod(a.c_str(), 01777));
    EXPECT_EQ(EACCES, tarnhost_root_prepare()) << "sticky does not make it ours";
    EXPECT_EQ(parent_text(dev, a, kNobody, 01777), tarnhost_root_problem());
    ASSERT_EQ(0, chown(a.c_str(), 0, 0));
    ASSERT_EQ(0, chmod(a.c_str(), 0755));
    EXPECT_EQ(0, tarnhost_root_prepare());
}

// The directory that holds a link on the way to the root: whoever can
// change it can point the link elsewhere, so it is held to the ancestors'
// rule, bit by bit.
TEST_F(host_root_modes, each_bit_of_the_directory_holding_a_link_on_the_way)
{
    const std::string real = root_ + "/real", holder = root_ + "/holder";
    ASSERT_EQ(0, mkdir(real.c_str(), 0700));
    ASSERT_EQ(0, mkdir(holder.c_str(), 0700));
    const std::string link = holder + "/way";
    ASSERT_EQ(0, symlink(real.c_str(), link.c_str()));
    const std::string dev = link + "/dev";
    setenv("TARNHOST_ROOT", dev.c_str(), 1);
    ASSERT_EQ(0, tarnhost_root_prepare());
    for (mode_t sticky : {mode_t{0}, mode_t{01000}}) {
        for (mode_t bit : kOtherBits) {
            const mode_t mode = 0700 | bit | sticky;
            SCOPED_TRACE(mode_text(mode));
            ASSERT_EQ(0, chmod(holder.c_str(), mode));
            if ((bit & 022) != 0 && sticky == 0) {
                EXPECT_EQ(EACCES, tarnhost_root_prepare());
                EXPECT_EQ(parent_text(dev, holder, geteuid(), mode), tarnhost_root_problem());
            } else {
                EXPECT_EQ(0, tarnhost_root_prepare());
            }
        }
    }
}

// ---- files -------------------------------------------------------------------------------

// A file the host reads: a group or other write bit refuses it; the sticky
// bit changes nothing for a file.
TEST_F(host_root_modes, each_bit_of_a_file)
{
    ASSERT_EQ(0, tarnhost_device_up(nullptr));
    const std::string file = root_ + "/supervisor/running-config";
    for (mode_t sticky : {mode_t{0}, mode_t{01000}}) {
        for (mode_t bit : kOtherBits) {
            const mode_t mode = 0600 | bit | sticky;
            SCOPED_TRACE(mode_text(mode));
            ASSERT_EQ(0, chmod(file.c_str(), mode));
            if ((bit & 022) != 0) {
                EXPECT_EQ(nullptr, supv_running_cfg_uri_get());
                EXPECT_EQ(open_text(file, mode), tarnhost_root_problem());
            } else {
                EXPECT_STREQ(TARNHOST_RUNNING_URI, supv_running_cfg_uri_get());
            }
        }
    }
}

// Every kind of thing at the name of a file the host reads.  A FIFO is not
// tried here: reading one without a writer would wait.
TEST_F(host_root_modes, each_kind_at_a_file_that_is_read)
{
    ASSERT_EQ(0, tarnhost_device_up(nullptr));
    const std::string file = root_ + "/supervisor/running-config";
    for (Kind kind : {Kind::Plain, Kind::HardLink, Kind::SymLink, Kind::Socket, Kind::Directory}) {
        SCOPED_TRACE(kind_name(kind));
        make(file, kind);
        if (kind == Kind::Plain) {
            EXPECT_STREQ(TARNHOST_RUNNING_URI, supv_running_cfg_uri_get());
            continue;
        }
        EXPECT_EQ(nullptr, supv_running_cfg_uri_get());
        EXPECT_EQ(kind == Kind::SymLink ? link_text(file) : not_plain_text(file),
                  tarnhost_root_problem());
    }
}

// Every kind of thing at the name of a file the host opens for reading and
// writing (the bus's generation word): none but a plain file of ours is
// used, and a FIFO is refused without waiting.
TEST_F(host_root_modes, each_kind_at_a_file_that_is_written)
{
    const std::string file = root_ + "/bus/gen";
    uint32_t h = bus_bind(0, -1, nullptr, "first");
    ASSERT_NE(BUS_HANDLE_NONE, h);
    bus_unbind(h);
    for (Kind kind : {Kind::HardLink, Kind::SymLink, Kind::Fifo, Kind::Socket, Kind::Directory}) {
        SCOPED_TRACE(kind_name(kind));
        make(file, kind);
        errno = 0;
        EXPECT_EQ(BUS_HANDLE_NONE, bus_bind(0, -1, nullptr, "x"));
        EXPECT_EQ(kind == Kind::SymLink ? ELOOP : EACCES, errno);
        EXPECT_EQ(kind == Kind::SymLink ? link_text(file) : not_plain_text(file),
                  tarnhost_root_problem());
    }
    // Of another user, or open to others: refused as well.
    make(file, Kind::Plain, 0620);
    errno = 0;
    EXPECT_EQ(BUS_HANDLE_NONE, bus_bind(0, -1, nullptr, "x"));
    EXPECT_EQ(EACCES, errno);
    EXPECT_EQ(open_text(file, 0620), tarnhost_root_problem());
    if (geteuid() == 0) {
        ASSERT_EQ(0, chmod(file.c_str(), 0600));
        ASSERT_EQ(0, chown(file.c_str(), kNobody, kNobody));
        errno = 0;
        EXPECT_EQ(BUS_HANDLE_NONE, bus_bind(0, -1, nullptr, "x"));
        EXPECT_EQ(EPERM, errno);
        EXPECT_EQ(foreign_text(file, kNobody), tarnhost_root_problem());
    }
    std::filesystem::remove(file);
    h = bus_bind(0, -1, nullptr, "again");
    EXPECT_NE(BUS_HANDLE_NONE, h);
    bus_unbind(h);
}

// Every kind of thing at a handle's name, where the host expects a socket
// of its own: only a socket is one, and only ours and closed to others.
TEST_F(host_root_modes, each_kind_and_bit_at_a_socket_name)
{
    const uint32_t live = bus_bind(0, -1, nullptr, "live");
    ASSERT_NE(BUS_HANDLE_NONE, live);
    const uint32_t opc = 61079;
    uint32_t fake = 4000000000u;
    bus_send_opts_t o{};
    auto send_to = [&](uint32_t handle, uint32_t ap) {
        write_text(root_ + "/bus/ap/" + std::to_string(ap), std::to_string(handle) + "\n");
        errno = 0;
        return bus_send(live, BUS_NODE_LOCAL, ap, opc, "d", 1, nullptr, nullptr, &o);
    };
    uint32_t ap = 80;
    for (Kind kind : {Kind::Plain, Kind::HardLink, Kind::Fifo, Kind::Directory}) {
        SCOPED_TRACE(kind_name(kind));
        const std::string path = root_ + "/bus/h/" + std::to_string(++fake);
        make(path, kind);
        EXPECT_EQ(-1, send_to(fake, ++ap));
        EXPECT_EQ(EACCES, errno);
        EXPECT_EQ(path + " is not a socket of the bus; remove it", tarnhost_root_problem());
    }
    // A socket of ours, closed to others, is one; each write bit for others
    // refuses it.
    const std::string path = root_ + "/bus/h/" + std::to_string(++fake);
    make(path, Kind::Socket, 0600);
    const int fd = sockets_.back();
    EXPECT_EQ(0, send_to(fake, ++ap)) << tarnhost_root_problem();
    char buf[256];
    EXPECT_GT(recv(fd, buf, sizeof buf, MSG_DONTWAIT), 0);
    for (mode_t bit : kOtherBits) {
        const mode_t mode = 0600 | bit;
        SCOPED_TRACE(mode_text(mode));
        ASSERT_EQ(0, chmod(path.c_str(), mode));
        if ((bit & 022) != 0) {
            EXPECT_EQ(-1, send_to(fake, ap));
            EXPECT_EQ(EACCES, errno);
            EXPECT_EQ(open_text(path, mode), tarnhost_root_problem());
        } else {
            EXPECT_EQ(0, send_to(fake, ap));
            EXPECT_GT(recv(fd, buf, sizeof buf, MSG_DONTWAIT), 0);
        }
    }
    if (geteuid() == 0) {
        ASSERT_EQ(0, chmod(path.c_str(), 0600));
        ASSERT_EQ(0, chown(path.c_str(), kNobody, kNobody));
        EXPECT_EQ(-1, send_to(fake, ap));
        EXPECT_EQ(EPERM, errno);
        EXPECT_EQ(foreign_text(path, kNobody), tarnhost_root_problem());
    }
    EXPECT_EQ(-1, recv(fd, buf, sizeof buf, MSG_DONTWAIT));
    bus_unbind(live);
}

}  // namespace
