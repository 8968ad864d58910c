// The host root and the mapping of database URIs to directories under it.

#include <errno.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "host/tarnhost.h"
#include "platform/kvs.h"
#include "support/fixture.h"

namespace {

using host_root = tarntest::HostTest;

std::string path_of(const char *uri, size_t size = 4096)
{
    std::string out(size, '\0');
    uint32_t st = tarnhost_kvs_path(uri, &out[0], size);
    if (st != 0)
        return st == KVS_ERR_BAD_URI ? "<bad>" : "<other>";
    return out.c_str();
}

TEST_F(host_root, root_follows_the_environment)
{
    EXPECT_EQ(root_, tarnhost_root());
    // The default is private to the user, in a sticky directory.
    const std::string def = "/dev/shm/tarnhost-" + std::to_string(geteuid());
    unsetenv("TARNHOST_ROOT");
    EXPECT_EQ(def, tarnhost_root());
    setenv("TARNHOST_ROOT", "", 1);
    EXPECT_EQ(def, tarnhost_root());
    setenv("TARNHOST_ROOT", root_.c_str(), 1);
    EXPECT_EQ(root_, tarnhost_root());
}

TEST_F(host_root, prepare_makes_private_directories_and_may_be_repeated)
{
    std::string root = root_ + "/device";
    setenv("TARNHOST_ROOT", root.c_str(), 1);
    ASSERT_EQ(0, tarnhost_root_prepare());
    ASSERT_EQ(0, tarnhost_root_prepare());
    for (const char *sub : {"", "/kvs", "/log", "/bus", "/supervisor"}) {
        struct stat st;
        ASSERT_EQ(0, stat((root + sub).c_str(), &st)) << sub;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << sub;
        EXPECT_EQ(0700u, st.st_mode & 0777u) << sub;
    }
    setenv("TARNHOST_ROOT", root_.c_str(), 1);
}

TEST_F(host_root, prepare_needs_the_parent_and_a_directory)
{
    setenv("TARNHOST_ROOT", (root_ + "/no/parent").c_str(), 1);
    EXPECT_EQ(ENOENT, tarnhost_root_prepare());
    std::string file = root_ + "/file";
    FILE *f = fopen(file.c_str(), "w");
    ASSERT_NE(nullptr, f);
    fclose(f);
    setenv("TARNHOST_ROOT", (file + "/root").c_str(), 1);
    EXPECT_EQ(ENOTDIR, tarnhost_root_prepare());
    setenv("TARNHOST_ROOT", root_.c_str(), 1);
}

TEST_F(host_root, uri_maps_to_a_directory_under_kvs)
{
    EXPECT_EQ(root_ + "/kvs/volatile/dev/shm/cell_mgr_kvs",
              path_of("volatile:/dev/shm/cell_mgr_kvs"));
    EXPECT_EQ(root_ + "/kvs/x/a/b", path_of("x://a//b/"));
    EXPECT_EQ(root_ + "/kvs/x/a/b", path_of("x:a/b"));
    EXPECT_EQ(root_ + "/kvs/s_1-2/A.b_c-D/...", path_of("s_1-2:/A.b_c-D/..."));
}

TEST_F(host_root, malformed_uris_are_bad)
{
    for (const char *uri :
         {"", "noscheme", ":/a", "x:", "x:/", "x:///", "x:/a/..", "x:/../a",
          "x:/./a", "x:/a/.", "X:/a", "x.y:/a", "x:/a b", "x:/a:b", "x:/a%2f",
          "x:/a\\b", "x:/a/lock.mdb"})
        EXPECT_EQ("<bad>", path_of(uri)) << uri;
    std::string out(8, '\0');
    EXPECT_EQ(KVS_ERR_BAD_URI, tarnhost_kvs_path(nullptr, &out[0], 8));
    EXPECT_EQ(KVS_ERR_BAD_URI, tarnhost_kvs_path("x:/a", nullptr, 8));
}

TEST_F(host_root, result_must_fit_the_output)
{
    std::string expect = root_ + "/kvs/x/abc";
    EXPECT_EQ(expect, path_of("x:/abc", expect.size() + 1));
    EXPECT_EQ("<bad>", path_of("x:/abc", expect.size()));
    EXPECT_EQ("<bad>", path_of("x:/abc", 1));
    std::string out(expect.size(), '#');
    tarnhost_kvs_path("x:/abc", &out[0], out.size());
    EXPECT_EQ('\0', out[0]);  // a refused mapping leaves an empty string
}

}  // namespace
