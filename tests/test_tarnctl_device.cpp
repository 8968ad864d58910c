// tarnctl before it works on a device: a root the host refuses (a link, a
// root of another user or open to others, a group it cannot use or that
// is not named), a store that is damaged, deleted or cut to nothing, and a
// library that will not start, each told with its own cause and fix, and
// nothing created on the way.  The cases of several users need root, to
// act as them.

#include <grp.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/fixture.h"
#include "support/tarnctl_process.h"

namespace {

using tarntest::TarnctlRun;

constexpr uid_t kNobody = 65534;
constexpr gid_t kGroup = 65534;  // "nogroup" on Debian
constexpr uid_t kMember = 5001;  // a second user in kGroup
constexpr uid_t kOutsider = 5002;

const char kDevice[] = TARN_SOURCE_DIR "/examples/device.json";

TarnctlRun tarnctl(const std::vector<std::string> &args,
                   const std::vector<std::string> &env = {})
{
    return tarntest::run_tarnctl(TARNCTL_PATH, args, env);
}

std::string uid_text()
{
    return std::to_string(geteuid());
}

std::string group_text()
{
    group *g = getgrgid(kGroup);
    return g != nullptr ? g->gr_name : std::to_string(kGroup);
}

std::string mkdir_temp()
{
    char tmpl[] = "/tmp/tarntest.XXXXXX";
    const char *dir = mkdtemp(tmpl);
    EXPECT_NE(nullptr, dir);
    return dir != nullptr ? dir : "";
}

// Runs tarnctl as `uid` with the primary group `gid` and, when `in_group`,
// kGroup beside it; its output goes to files that user may write.
TarnctlRun tarnctl_as(uid_t uid, gid_t gid, bool in_group,
                      const std::vector<std::string> &args,
                      const std::vector<std::string> &env)
{
    const std::string dir = mkdir_temp();
    chmod(dir.c_str(), 0755);
    const std::string out = dir + "/out", err = dir + "/err";
    for (const std::string &f : {out, err}) {
        std::ofstream(f).close();
        EXPECT_EQ(0, chown(f.c_str(), uid, gid));
    }
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        gid_t groups[1] = {kGroup};
        if (setgroups(in_group ? 1 : 0, groups) != 0 || setgid(gid) != 0 ||
            setuid(uid) != 0)
            _exit(126);
        const pid_t child = tarntest::spawn_tarnctl(TARNCTL_PATH, args, env, out, err);
        int st = 0;
        if (child < 0 || waitpid(child, &st, 0) != child || !WIFEXITED(st))
            _exit(125);
        _exit(WEXITSTATUS(st));
    }
    TarnctlRun r;
    int st = 0;
    if (pid > 0 && waitpid(pid, &st, 0) == pid && WIFEXITED(st))
        r.status = WEXITSTATUS(st);
    r.out = tarntest::slurp(out);
    r.err = tarntest::slurp(err);
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return r;
}

class TarnctlDevice : public tarntest::HostTest {
protected:
    void SetUp() override
    {
        tarntest::HostTest::SetUp();
        store_ = root_ + "/kvs/env/data.mdb";
    }
    void load()
    {
        TarnctlRun r = tarnctl({"load", kDevice});
        ASSERT_EQ(0, r.status) << r.err;
    }
    std::string store_;
};

TEST_F(TarnctlDevice, DamagedStoreIsToldAsSuch)
{
    load();
    // 8 KB of noise past the first page, where the second meta page and
    // the first pages of the tree are.
    std::mt19937 gen(1234);
    std::string noise(8192, '\0');
    for (char &c : noise)
        c = static_cast<char>(gen());
    {
        std::fstream f(store_, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(4096);
        f.write(noise.data(), static_cast<std::streamsize>(noise.size()));
    }
    const std::string damaged = "the store of the device in " + root_ +
                                " is damaged; rebuild it with \"tarnctl load FILE\"\n";
    TarnctlRun r = tarnctl({"show", "contexts"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("tarnctl show contexts: " + damaged, r.err);
    r = tarnctl({"watch", "--timeout", "5"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl watch: " + damaged, r.err);
    r = tarnctl({"show", "contexts", "--json"});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("\"message\":\"the store of the device in " +
                                            root_ + " is damaged; rebuild it with"))
        << r.err;

    // Damaged further in, where the library starts and a walk would read
    // nonsense or die: the damage is found before anything reads it.
    r = tarnctl({"load", kDevice});
    ASSERT_EQ(0, r.status) << r.err;
    {
        std::fstream f(store_, std::ios::in | std::ios::out | std::ios::binary);
        f.seekp(32768);
        f.write(noise.data(), static_cast<std::streamsize>(noise.size()));
    }
    for (const char *what : {"contexts", "topologies", "ftags"}) {
        r = tarnctl({"show", what});
        EXPECT_EQ(1, r.status) << what;
        EXPECT_EQ("", r.out) << what;
        EXPECT_EQ("tarnctl show " + std::string(what) + ": " + damaged, r.err);
    }
    r = tarnctl({"apply", TARN_SOURCE_DIR "/examples/changes.json"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl apply: " + damaged, r.err);

    // The fix the message names works.
    r = tarnctl({"load", kDevice});
    EXPECT_EQ(0, r.status) << r.err;
    r = tarnctl({"show", "contexts"});
    EXPECT_EQ(0, r.status) << r.err;
}

TEST_F(TarnctlDevice, OutsideCellOneTheCellIsTheCause)
{
    load();
    TarnctlRun r = tarnctl({"show", "contexts"}, {"TARNHOST_CELL=2"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl show contexts: libtarn could not be initialised for the device in " +
                  root_ +
                  ": it serves cell 1 only and this process is in cell 2 (TARNHOST_CELL); "
                  "unset TARNHOST_CELL or set it to 1\n",
              r.err);
    r = tarnctl({"watch", "--timeout", "5"}, {"TARNHOST_CELL=0x3"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl watch: libtarn could not be initialised for the device in " + root_ +
                  ": it serves cell 1 only and this process is in cell 0x3 (TARNHOST_CELL); "
                  "unset TARNHOST_CELL or set it to 1\n",
              r.err);
}

TEST_F(TarnctlDevice, DeletedStoreIsNotAnEmptyDevice)
{
    load();
    ASSERT_EQ(0, unlink(store_.c_str()));
    const std::string missing = "the store of the device in " + root_ + " is missing (" +
                                store_ +
                                " does not exist); load the device again with \"tarnctl "
                                "load FILE\"\n";
    for (const std::vector<std::string> &args :
         {std::vector<std::string>{"show", "contexts"},
          std::vector<std::string>{"apply", TARN_SOURCE_DIR "/examples/changes.json"},
          std::vector<std::string>{"watch", "--timeout", "5"}}) {
        TarnctlRun r = tarnctl(args);
        EXPECT_EQ(1, r.status) << args[0];
        EXPECT_EQ("", r.out);
        const std::string name = args[0] == "show" ? "show contexts" : args[0];
        EXPECT_EQ("tarnctl " + name + ": " + missing, r.err);
    }
    // Nothing made a new store in its place.
    struct stat st;
    EXPECT_NE(0, lstat(store_.c_str(), &st));

    // Cut to nothing: the same, and it stays empty.
    load();
    ASSERT_EQ(0, truncate(store_.c_str(), 0));
    TarnctlRun r = tarnctl({"show", "contexts"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl show contexts: the store of the device in " + root_ + " is empty (" +
                  store_ + " holds nothing); load the device again with \"tarnctl load "
                  "FILE\"\n",
              r.err);
    ASSERT_EQ(0, stat(store_.c_str(), &st));
    EXPECT_EQ(0, st.st_size);
}

TEST_F(TarnctlDevice, LinkedRootIsRefusedByEveryCommand)
{
    load();
    const std::string link = root_ + ".link";
    ASSERT_EQ(0, symlink(root_.c_str(), link.c_str()));
    const std::string why = link +
                            " is a symbolic link, and the host follows none under its "
                            "root; remove the link, or set TARNHOST_ROOT to a directory "
                            "of your own\n";
    const std::string env = "TARNHOST_ROOT=" + link;
    struct Case {
        std::vector<std::string> args;
        std::string err;
    };
    const Case cases[] = {
        {{"show", "contexts"}, "tarnctl show contexts: " + why},
        {{"watch", "--timeout", "5"}, "tarnctl watch: " + why},
        {{"load", kDevice}, "tarnctl load: " + why},
        {{"apply", TARN_SOURCE_DIR "/examples/changes.json"}, "tarnctl apply: " + why},
        {{"log"}, "tarnctl log: cannot read " + link + "/log/messages: " + why},
        // Checked as every command that needs the device checks it.
        {{"show", "bus"}, "tarnctl show bus: " + why},
        {{"record", root_ + "/r.ndjson"}, "tarnctl record: " + why},
    };
    for (const Case &c : cases) {
        TarnctlRun r = tarnctl(c.args, {env});
        EXPECT_EQ(1, r.status) << c.args[0];
        EXPECT_EQ(c.err, r.err);
    }
    unlink(link.c_str());
}

TEST_F(TarnctlDevice, RootsTheHostRefusesAreToldOnceWithTheirFix)
{
    // Open to every user.
    const std::string open = mkdir_temp();
    ASSERT_EQ(0, chmod(open.c_str(), 0777));
    TarnctlRun r = tarnctl({"load", kDevice}, {"TARNHOST_ROOT=" + open});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl load: " + open +
                  " can be written by other users (mode 0777); make it private with "
                  "\"chmod go-w " + open + "\", or remove it\n",
              r.err);
    r = tarnctl({"show", "contexts"}, {"TARNHOST_ROOT=" + open});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl show contexts: " + open +
                  " can be written by other users (mode 0777); make it private with "
                  "\"chmod go-w " + open + "\", or remove it\n",
              r.err);
    rmdir(open.c_str());

    // A group that does not exist, and one this user is not in.
    r = tarnctl({"load", kDevice}, {"TARNHOST_GROUP=no-such-group-here"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl load: TARNHOST_GROUP names no group (no-such-group-here); name an "
              "existing group, or unset it to keep the device to yourself\n",
              r.err);
    if (getegid() != 12345) {
        r = tarnctl({"load", kDevice}, {"TARNHOST_GROUP=12345"});
        EXPECT_EQ(1, r.status);
        EXPECT_EQ("tarnctl load: TARNHOST_GROUP names the group 12345, and you (uid " +
                      uid_text() +
                      ") are not in it; join the group, or unset TARNHOST_GROUP\n",
                  r.err);
        r = tarnctl({"show", "contexts"}, {"TARNHOST_GROUP=12345"});
        EXPECT_EQ("tarnctl show contexts: TARNHOST_GROUP names the group 12345, and you "
                  "(uid " + uid_text() +
                      ") are not in it; join the group, or unset TARNHOST_GROUP\n",
                  r.err);
    }
    // A root still to be made in a parent that exists is fine for load.
    const std::string fresh = mkdir_temp();
    r = tarnctl({"load", kDevice}, {"TARNHOST_ROOT=" + fresh + "/dev"});
    EXPECT_EQ(0, r.status) << r.err;
    std::error_code ec;
    std::filesystem::remove_all(fresh, ec);
}

TEST_F(TarnctlDevice, RootOfAnotherUser)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "a directory of another user can only be made by root here";
    const std::string foreign = mkdir_temp();
    ASSERT_EQ(0, chown(foreign.c_str(), kNobody, kNobody));
    const std::string why = foreign + " belongs to uid 65534, not to you (uid 0); remove "
                                      "it, or set TARNHOST_ROOT to a directory of your own\n";
    TarnctlRun r = tarnctl({"show", "contexts"}, {"TARNHOST_ROOT=" + foreign});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl show contexts: " + why, r.err);
    r = tarnctl({"load", kDevice}, {"TARNHOST_ROOT=" + foreign});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl load: " + why, r.err);
    rmdir(foreign.c_str());
}

TEST_F(TarnctlDevice, StoreFilesOfAnotherUser)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "a file of another user can only be made by root here";
    load();
    const std::string kvs = root_ + "/kvs";
    for (const std::string &path : {store_, kvs}) {
        ASSERT_EQ(0, chown(path.c_str(), kNobody, kNobody));
        const std::string why = path +
                                " belongs to uid 65534, not to you (uid 0); remove it, or "
                                "set TARNHOST_ROOT to a directory of your own\n";
        TarnctlRun r = tarnctl({"load", kDevice});
        EXPECT_EQ(1, r.status);
        EXPECT_EQ(std::string("tarnctl load: ") + kDevice + " was not loaded: " + why, r.err);
        r = tarnctl({"show", "contexts"});
        EXPECT_EQ(1, r.status);
        EXPECT_EQ("tarnctl show contexts: the store of the device in " + root_ +
                      " cannot be used: " + why,
                  r.err);
        ASSERT_EQ(0, chown(path.c_str(), 0, 0));
    }
    TarnctlRun r = tarnctl({"show", "contexts"});
    EXPECT_EQ(0, r.status) << r.err;
}

TEST_F(TarnctlDevice, GroupDeviceWithoutTheGroupNamed)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "acting as the members of a group needs root (setgroups, setuid)";
    // Others may pass through to the device, as in /dev/shm.
    ASSERT_EQ(0, chmod(root_.c_str(), 0711));
    const std::string dev = root_ + "/shared";
    const std::string group = group_text();
    const std::string root_env = "TARNHOST_ROOT=" + dev;
    const std::string group_env = "TARNHOST_GROUP=" + group;
    TarnctlRun r = tarnctl_as(0, 0, true, {"load", kDevice}, {root_env, group_env});
    ASSERT_EQ(0, r.status) << r.err;
    r = tarnctl_as(kMember, kMember, true, {"show", "contexts"}, {root_env, group_env});
    EXPECT_EQ(0, r.status) << r.err;

    // A member who leaves TARNHOST_GROUP out is told to set it.
    const std::string unnamed = dev + " is shared with the group " + group +
                                " (owner uid 0, mode 2770), and TARNHOST_GROUP does not "
                                "name it; set TARNHOST_GROUP=" + group +
                                " to use the device with that group, or set TARNHOST_ROOT "
                                "to a directory of your own\n";
    r = tarnctl_as(kMember, kMember, true, {"show", "contexts"}, {root_env});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl show contexts: " + unnamed, r.err);
    r = tarnctl_as(kMember, kMember, true, {"load", kDevice}, {root_env});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl load: " + unnamed, r.err);
    // So is its owner.
    r = tarnctl_as(0, 0, true, {"watch", "--timeout", "5"}, {root_env});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl watch: " + unnamed, r.err);

    // A user outside the group who names it.
    r = tarnctl_as(kOutsider, kOutsider, false, {"show", "contexts"}, {root_env, group_env});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl show contexts: TARNHOST_GROUP names the group " + group +
                  ", and you (uid 5002) are not in it; join the group, or unset "
                  "TARNHOST_GROUP\n",
              r.err);
    // And one who does not.
    r = tarnctl_as(kOutsider, kOutsider, false, {"show", "contexts"}, {root_env});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl show contexts: " + dev +
                  " belongs to uid 0, not to you (uid 5002); remove it, or set "
                  "TARNHOST_ROOT to a directory of your own\n",
              r.err);
}

TEST_F(TarnctlDevice, HelpNamesThisUsersDefaultRoot)
{
    TarnctlRun r = tarnctl({"--help"});
    EXPECT_EQ(0, r.status);
    EXPECT_NE(std::string::npos,
              r.out.find("Works on the simulated device in $TARNHOST_ROOT (default "
                         "/dev/shm/tarnhost-" + uid_text() + ").\n"))
        << r.out;
}

TEST_F(TarnctlDevice, NameLimitsAreInBytes)
{
    // 11 characters of three bytes each.
    std::string name;
    for (int i = 0; i < 11; ++i)
        name += "\xe6\x97\xa5";
    const std::string file = root_ + "/wide.json";
    std::ofstream(file) << R"({"contexts": [{"id": 1, "name": ")" << name << R"("}]})";
    TarnctlRun r = tarnctl({"load", file});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("tarnctl load: contexts[0].name: text longer than 32 bytes; nothing was "
              "written, correct " + file + " and run \"tarnctl load " + file +
                  "\" again\n",
              r.err);
    load();
    r = tarnctl({"show", "context", name});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ(0u, r.err.find("tarnctl show context: a context name has 1 to 32 bytes; "))
        << r.err;
}

}  // namespace
