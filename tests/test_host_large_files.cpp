// A 32-bit process on a 64-bit kernel reads directories whose entries carry
// 64-bit offsets (ext4's hashed directories) or inode numbers: the host must
// be built for 64-bit file offsets, inode numbers and time, or a subscription
// scan fails with EOVERFLOW and a publisher reaches nobody.

#include <dirent.h>
#include <errno.h>
#include <sys/types.h>
#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/tarnhost_bus.h"
#include "platform/bus.h"
#include "support/fixture.h"

namespace {

constexpr uint32_t kOpc = 61077;
constexpr int kSubscribers = 48;

class host_large_files : public tarntest::HostTest {};

TEST(host_types, OffsetsInodesAndTimeAreSixtyFourBit)
{
    EXPECT_EQ(8u, sizeof(off_t));
    EXPECT_EQ(8u, sizeof(ino_t));
    EXPECT_EQ(8u, sizeof(static_cast<dirent *>(nullptr)->d_off));
    EXPECT_EQ(8u, sizeof(static_cast<dirent *>(nullptr)->d_ino));
    EXPECT_EQ(8u, sizeof(time_t));
}

// Reads a directory to its end; the names, or errno when it failed early.
int read_whole(const std::string &path, std::vector<std::string> *names)
{
    DIR *d = opendir(path.c_str());
    if (d == nullptr)
        return errno;
    int err = 0;
    for (;;) {
        errno = 0;
        dirent *e = readdir(d);
        if (e == nullptr) {
            err = errno;
            break;
        }
        names->emplace_back(e->d_name);
    }
    closedir(d);
    return err;
}

TEST_F(host_large_files, SubscriptionScanReadsAHashedDirectoryToItsEnd)
{
    std::vector<uint32_t> handles;
    for (int i = 0; i < kSubscribers; ++i) {
        uint32_t h = bus_bind(4, -1, nullptr, "scan");
        ASSERT_NE(BUS_HANDLE_NONE, h);
        ASSERT_EQ(0, tarnhost_bus_subscribe(h, kOpc, 1));
        handles.push_back(h);
    }
    std::vector<std::string> names;
    ASSERT_EQ(0, read_whole(root_ + "/bus/sub/" + std::to_string(kOpc), &names));
    EXPECT_EQ(static_cast<size_t>(kSubscribers + 2), names.size());

    std::vector<uint32_t> seen(kSubscribers * 2);
    errno = -1;
    size_t n = tarnhost_bus_subscribers(kOpc, seen.data(), seen.size());
    EXPECT_EQ(0, errno);
    ASSERT_EQ(static_cast<size_t>(kSubscribers), n);
    seen.resize(n);
    std::sort(seen.begin(), seen.end());
    std::vector<uint32_t> want = handles;
    std::sort(want.begin(), want.end());
    EXPECT_EQ(want, seen);

    ASSERT_EQ(0, tarnhost_bus_publish(BUS_HANDLE_NONE, kOpc, "lfs", 3));
    for (uint32_t h : handles) {
        bus_msg_t *m = tarnhost_bus_recv_ms(h, 5000);
        ASSERT_NE(nullptr, m) << "handle " << h << " got nothing";
        EXPECT_EQ(kOpc, bus_opc_get(m));
        bus_drop(h, m);
    }
    for (uint32_t h : handles)
        bus_unbind(h);
}

}  // namespace
