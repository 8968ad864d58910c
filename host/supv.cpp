// The supervisor: the process's cell and the device's running configuration.
//
// The running-configuration URI lives in a file of the host root, so that
// every process of the simulated device sees the device come up at once.

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>

#include "host/nomem.h"
#include "host/rootfs.h"
#include "host/tarnhost.h"
#include "platform/supv.h"

namespace {

constexpr size_t kUriMax = 1024;

std::atomic<int> g_cell_overridden{0};
std::atomic<uint32_t> g_cell_override{0};
std::once_flag g_env_once;
uint32_t g_cell_env = 1;

void read_cell_env()
{
    const char *v = getenv("TARNHOST_CELL");
    if (v == nullptr || *v == '\0')
        return;
    char *end = nullptr;
    errno = 0;
    unsigned long long n = strtoull(v, &end, 0);
    if (errno == 0 && end != v && *end == '\0' && n <= 0xFFFFFFFFull)
        g_cell_env = static_cast<uint32_t>(n);
}

constexpr char kRunning[] = "running-config";

// The checked supervisor directory of the root; -1 with errno.
int open_supervisor(bool create)
{
    return tarnhost_rootfs::open_subdir("supervisor", create);
}

std::string shown(const char *name)
{
    return std::string(tarnhost_root()) + "/supervisor/" + name;
}

}  // namespace

extern "C" {

uint32_t supv_get_cell_ctxt(void)
{
    if (g_cell_overridden.load(std::memory_order_acquire))
        return g_cell_override.load(std::memory_order_relaxed);
    std::call_once(g_env_once, read_cell_env);
    return g_cell_env;
}

void tarnhost_cell_set(uint32_t cell_ctxt)
{
    g_cell_override.store(cell_ctxt, std::memory_order_relaxed);
    g_cell_overridden.store(1, std::memory_order_release);
}

void tarnhost_cell_reset(void)
{
    g_cell_overridden.store(0, std::memory_order_release);
}

const char *supv_running_cfg_uri_get(void)
try {
    uint32_t status;
    if (tarnhost_fault_hit("supv_running_cfg_uri_get", &status))
        return nullptr;
    static thread_local char uri[kUriMax];
    // Everything that allocates comes before the directory is opened, so
    // running out of memory cannot leave it open.
    const std::string where = shown(kRunning);
    int dfd = open_supervisor(false);
    if (dfd < 0)
        return nullptr;
    int err = tarnhost_rootfs::read_line(dfd, kRunning, where.c_str(), uri,
                                         sizeof uri);
    close(dfd);
    if (err != 0)
        return nullptr;
    return uri[0] != '\0' ? uri : nullptr;
} catch (const std::bad_alloc &) {
    return tarnhost::no_memory<const char *>(nullptr);
}

const char *supv_uri_complete(const char *uri, uint32_t flags,
                              const char *name)
{
    (void)flags;
    uint32_t status;
    if (tarnhost_fault_hit("supv_uri_complete", &status))
        return nullptr;
    if (uri == nullptr || name == nullptr)
        return nullptr;
    static thread_local char out[kUriMax];
    size_t ulen = strlen(uri);
    const char *sep = (ulen > 0 && uri[ulen - 1] == '/') ? "" : "/";
    int n = snprintf(out, sizeof out, "%s%s%s", uri, sep, name);
    if (n < 0 || static_cast<size_t>(n) >= sizeof out)
        return nullptr;
    return out;
}

int tarnhost_device_up(const char *running_uri)
try {
    if (running_uri == nullptr)
        running_uri = TARNHOST_RUNNING_URI;
    const std::string dir = std::string(tarnhost_root()) + "/supervisor";
    const std::string line = std::string(running_uri) + "\n";
    int dfd = open_supervisor(true);
    if (dfd < 0)
        return errno;
    // Written beside and renamed, so a reader never sees half a URI.
    int err = tarnhost_rootfs::replace_file(dfd, kRunning, dir.c_str(), line);
    close(dfd);
    return err;
} catch (const std::bad_alloc &) {
    return ENOMEM;
}

int tarnhost_device_down(void)
{
    int dfd = open_supervisor(false);
    if (dfd < 0)
        return errno == ENOENT ? 0 : errno;
    int err = unlinkat(dfd, kRunning, 0) != 0 && errno != ENOENT ? errno : 0;
    close(dfd);
    return err;
}

}  // extern "C"
