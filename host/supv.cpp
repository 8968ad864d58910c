// The supervisor: the process's cell and the device's running configuration.
//
// The running-configuration URI lives in a file of the host root, so that
// every process of the simulated device sees the device come up at once.

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

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

// The running-configuration file, with `suffix` appended; false when the
// path does not fit.  Built without allocating.
bool running_path(char *out, size_t size, const char *suffix = "")
{
    const int n = snprintf(out, size, "%s/supervisor/running-config%s", tarnhost_root(), suffix);
    return n >= 0 && static_cast<size_t>(n) < size;
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
{
    uint32_t status;
    if (tarnhost_fault_hit("supv_running_cfg_uri_get", &status))
        return nullptr;
    static thread_local char uri[kUriMax];
    char path[PATH_MAX];
    if (!running_path(path, sizeof path))
        return nullptr;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    ssize_t n = read(fd, uri, sizeof uri - 1);
    close(fd);
    if (n <= 0)
        return nullptr;
    uri[n] = '\0';
    char *nl = strchr(uri, '\n');
    if (nl != nullptr)
        *nl = '\0';
    return uri[0] != '\0' ? uri : nullptr;
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
{
    if (running_uri == nullptr)
        running_uri = TARNHOST_RUNNING_URI;
    int rc = tarnhost_root_prepare();
    if (rc != 0)
        return rc;
    // Write beside and rename, so a reader never sees half a URI.
    char path[PATH_MAX], tmp[PATH_MAX], suffix[32];
    snprintf(suffix, sizeof suffix, ".tmp.%ld", static_cast<long>(getpid()));
    if (!running_path(path, sizeof path) || !running_path(tmp, sizeof tmp, suffix))
        return ENAMETOOLONG;
    int fd = open(tmp, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0)
        return errno;
    const size_t len = strlen(running_uri);
    char newline = '\n';
    iovec parts[2] = {{const_cast<char *>(running_uri), len}, {&newline, 1}};
    ssize_t w = writev(fd, parts, 2);
    int err = (w == static_cast<ssize_t>(len + 1)) ? 0 : (errno ? errno : EIO);
    close(fd);
    if (err == 0 && rename(tmp, path) != 0)
        err = errno;
    if (err != 0)
        unlink(tmp);
    return err;
}

int tarnhost_device_down(void)
{
    char path[PATH_MAX];
    if (!running_path(path, sizeof path))
        return ENAMETOOLONG;
    if (unlink(path) != 0 && errno != ENOENT)
        return errno;
    return 0;
}

}  // extern "C"
