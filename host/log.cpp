// System logging, the debug wrapper and line capture.
//
// Every rendered message goes three ways: syslog(3), the device's message
// file $TARNHOST_ROOT/log/messages (so that the processes of one simulated
// device share one log), and, while a test captures, an in-memory list.

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/uio.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "host/rootfs.h"
#include "host/tarnhost.h"
#include "platform/dbgwrap.h"
#include "platform/kvs.h"
#include "platform/syslog.h"

namespace {

constexpr size_t kLineMax = 4096;
constexpr uint64_t kThrottleNs = 10ull * 1000 * 1000 * 1000;

// ---- capture ---------------------------------------------------------------

std::mutex g_capture_mutex;
std::atomic<int> g_capturing{0};
std::vector<std::string> g_captured[TARNHOST_CH_COUNT];

std::string strip_newline(const char *line)
{
    std::string s(line);
    while (!s.empty() && s.back() == '\n')
        s.pop_back();
    return s;
}

// ---- device log files -------------------------------------------------------

// The prefix of a line in the device's log files, as a syslog daemon
// writes it (RFC 5424 time in UTC with microseconds, host, process name
// and pid): "2026-01-02T03:04:05.678901Z host tarnctl[42]: ".
// The rendered message after it is the library's text, unchanged.  Written
// into `out` (no allocation); its length.
size_t file_line_prefix(char *out, size_t size)
{
    // UTC: gmtime_r reads no time-zone file, so a line is written without
    // allocating even when memory is short.
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm t;
    gmtime_r(&ts.tv_sec, &t);
    char when[64];
    const size_t n = strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%S", &t);
    snprintf(when + n, sizeof when - n, ".%06ldZ", ts.tv_nsec / 1000);
    char host[256];
    if (gethostname(host, sizeof host) != 0 || host[0] == '\0')
        snprintf(host, sizeof host, "-");
    host[sizeof host - 1] = '\0';
    const int w = snprintf(out, size, "%s %s %s[%d]: ", when, host,
                           program_invocation_short_name, static_cast<int>(getpid()));
    if (w < 0)
        return 0;
    return static_cast<size_t>(w) < size ? static_cast<size_t>(w) : size - 1;
}

void append_file(const char *name, const char *line)
try {
    // A log file is opened like everything under the root: never through a
    // link, never a file that is not ours alone.  A refusal, or running out
    // of memory, loses the line from the file only; syslog and the capture
    // still have it.
    std::string shown = std::string(tarnhost_root()) + "/log/" + name;
    int dfd = tarnhost_rootfs::open_subdir("log", false);
    if (dfd < 0)
        return;
    int fd = tarnhost_rootfs::open_file(dfd, name, shown.c_str(),
                                        O_WRONLY | O_APPEND | O_CREAT);
    close(dfd);
    if (fd < 0)
        return;
    size_t len = strlen(line);
    while (len > 0 && line[len - 1] == '\n')
        --len;
    // One write per line keeps lines of concurrent processes whole; the
    // line is not copied, so writing it needs no memory.
    char prefix[512];
    const size_t prefix_len = file_line_prefix(prefix, sizeof prefix);
    char newline = '\n';
    iovec parts[3] = {{prefix, prefix_len}, {const_cast<char *>(line), len}, {&newline, 1}};
    ssize_t w = writev(fd, parts, 3);
    (void)w;
    close(fd);
} catch (const std::bad_alloc &) {
}

void emit_syslog(uint32_t severity, const char *line)
{
    syslog(LOG_USER | static_cast<int>(severity & 7u), "%s", line);
    append_file("messages", line);
    tarnhost_capture_append(TARNHOST_CH_SYSLOG, line);
}

// ---- facility ----------------------------------------------------------------

char g_fac_name[32] = "tarn";
syslog_fac_t g_facility = {g_fac_name, 2888, 5, 5, {0, 0}};

// ---- rate limiter ------------------------------------------------------------

std::mutex g_throttle_mutex;
std::map<std::pair<const void *, std::string>, uint64_t> g_last_sent;
std::atomic<uint64_t> g_held{0};

uint64_t now_ns()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull +
           static_cast<uint64_t>(ts.tv_nsec);
}

// ---- debug wrapper -----------------------------------------------------------

std::atomic<uint32_t> g_dbg_kinds[DBGWRAP_MAX_LIBS];

void refresh_pid_and_tag()
{
    snprintf(dbgwrap_library_dbg_pid_and_tag,
             sizeof dbgwrap_library_dbg_pid_and_tag, "[%d] %s",
             static_cast<int>(getpid()), g_fac_name);
}

__attribute__((constructor)) void log_init()
{
    refresh_pid_and_tag();
    pthread_atfork(nullptr, nullptr, refresh_pid_and_tag);
}

}  // namespace

extern "C" {

// ---- platform data -----------------------------------------------------------

const syslog_fac_t *dbgwrap_sys_facility = &g_facility;
unsigned char syslog_vmsg_params[SYSLOG_VMSG_PARAMS_SIZE];
const char syslog_preamble[] = "tarnhost";
int printf_curr_idx;

#define TARNHOST_LIB_(n, name) #n, name
const char *const dbgwrap_lib_id_and_names[2 * DBGWRAP_MAX_LIBS] = {
    TARNHOST_LIB_(0, "platform"), TARNHOST_LIB_(1, "kvs"),
    TARNHOST_LIB_(2, "bus"),      TARNHOST_LIB_(3, "supv"),
    TARNHOST_LIB_(4, "nic"),      TARNHOST_LIB_(5, "bond"),
    TARNHOST_LIB_(6, "tlvkit"),   TARNHOST_LIB_(7, "bst"),
    TARNHOST_LIB_(8, "alloctrack"), TARNHOST_LIB_(9, "featsrv"),
    TARNHOST_LIB_(10, "libtarn"),
};
#undef TARNHOST_LIB_
char dbgwrap_library_dbg_pid_and_tag[64];
const char dbgwrap_dbg_modname[] = "tarn";

// ---- capture -------------------------------------------------------------------

void tarnhost_capture(int on)
{
    g_capturing.store(on ? 1 : 0, std::memory_order_release);
}

void tarnhost_capture_clear(void)
{
    std::lock_guard<std::mutex> lock(g_capture_mutex);
    for (auto &ch : g_captured)
        ch.clear();
}

size_t tarnhost_capture_count(int channel)
{
    if (channel < 0 || channel >= TARNHOST_CH_COUNT)
        return 0;
    std::lock_guard<std::mutex> lock(g_capture_mutex);
    return g_captured[channel].size();
}

const char *tarnhost_capture_line(int channel, size_t i)
{
    if (channel < 0 || channel >= TARNHOST_CH_COUNT)
        return nullptr;
    std::lock_guard<std::mutex> lock(g_capture_mutex);
    if (i >= g_captured[channel].size())
        return nullptr;
    return g_captured[channel][i].c_str();
}

void tarnhost_capture_append(int channel, const char *line)
{
    if (g_capturing.load(std::memory_order_acquire) == 0 || line == nullptr ||
        channel < 0 || channel >= TARNHOST_CH_COUNT)
        return;
    std::lock_guard<std::mutex> lock(g_capture_mutex);
    try {
        g_captured[channel].push_back(strip_newline(line));
    } catch (const std::bad_alloc &) {
        // Out of memory: the capture misses the line, the log has it.
    }
}

// ---- facility and throttle -----------------------------------------------------------

void tarnhost_log_set_facility(const char *name, uint8_t level)
{
    if (name == nullptr) {
        dbgwrap_sys_facility = nullptr;
        return;
    }
    snprintf(g_fac_name, sizeof g_fac_name, "%s", name);
    g_facility.current_level = level;
    dbgwrap_sys_facility = &g_facility;
    refresh_pid_and_tag();
}

void tarnhost_log_throttle_reset(void)
{
    std::lock_guard<std::mutex> lock(g_throttle_mutex);
    g_last_sent.clear();
}

uint64_t tarnhost_log_held(void)
{
    return g_held.load(std::memory_order_relaxed);
}

// Without memory to remember a line, the line is let through.
int syslog_msg_rate_limit(const msg_error_t *err, ...)
try {
    uint32_t status;
    if (tarnhost_fault_hit("syslog_msg_rate_limit", &status))
        return 0;
    if (err == nullptr)
        return 0;
    if (err->throttle == 0 || err->text == nullptr)
        return 1;
    char text[kLineMax];
    va_list ap;
    va_start(ap, err);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    vsnprintf(text, sizeof text, err->text, ap);
#pragma GCC diagnostic pop
    va_end(ap);
    const uint64_t now = now_ns();
    const uint64_t window = kThrottleNs / 10 * err->throttle;
    std::lock_guard<std::mutex> lock(g_throttle_mutex);
    auto key = std::make_pair(static_cast<const void *>(err), std::string(text));
    auto it = g_last_sent.find(key);
    if (it != g_last_sent.end() && now - it->second < window) {
        g_held.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    g_last_sent[key] = now;
    return 1;
} catch (const std::bad_alloc &) {
    return 1;
}

// ---- the syslog calls ------------------------------------------------------------------

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
void plat_syslog(uint32_t severity, const char *format, ...)
{
    if (format == nullptr)
        return;
    char line[kLineMax];
    va_list ap;
    va_start(ap, format);
    vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    emit_syslog(severity, line);
}

void basis_plat_syslog(void *params, uint32_t severity, const char *format, ...)
{
    (void)params;
    if (format == nullptr)
        return;
    char line[kLineMax];
    va_list ap;
    va_start(ap, format);
    vsnprintf(line, sizeof line, format, ap);
    va_end(ap);
    emit_syslog(severity, line);
}
#pragma GCC diagnostic pop

void syslog_traceback(void *params, const char *facility, uint32_t severity,
                      const char *short_name)
{
    char line[256];
    snprintf(line, sizeof line, "traceback %s-%u-%s%s",
             facility ? facility : "?", severity,
             short_name ? short_name : "?", params ? " (service)" : "");
    append_file("console", line);
    tarnhost_capture_append(TARNHOST_CH_CONSOLE, line);
}

void syslog_backtrace(const char *routine, uint32_t flags)
{
    char line[256];
    snprintf(line, sizeof line, "backtrace %s flags %u",
             routine ? routine : "?", flags);
    append_file("console", line);
    tarnhost_capture_append(TARNHOST_CH_CONSOLE, line);
}

const char *syserr2str(uint32_t status)
{
    switch (status) {
    case 0: return "success";
    case KVS_ERR_NOT_FOUND: return "record not found";
    case KVS_ERR_ALREADY_OPEN: return "database already open";
    case 0x413C0002u: return "out of memory";
    case KVS_ERR_NOT_OPEN: return "database not open";
    case KVS_ERR_BAD_URI: return "invalid database URI";
    case KVS_ERR_IO: return "database I/O error";
    case KVS_ERR_INVALID: return "invalid argument";
    case KVS_ERR_NO_POSITION: return "no iterator position";
    case KVS_ERR_END: return "end of database";
    case KVS_ERR_FULL: return "database full";
    case KVS_ERR_DAMAGED: return "database damaged";
    case KVS_ERR_DENIED: return "database access denied";
    default: break;
    }
    if (status < 4096) {
        // strerror's table texts are constant for the C locale we run in.
        return strerror(static_cast<int>(status));
    }
    static thread_local char unknown[40];
    snprintf(unknown, sizeof unknown, "unknown error 0x%08x", status);
    return unknown;
}

void basis_sys_mclock_get(void *out8)
{
    if (out8 == nullptr)
        return;
    uint64_t ns = now_ns();
    memcpy(out8, &ns, sizeof ns);
}

// ---- debug wrapper ------------------------------------------------------------------------

uint32_t dbgwrap_library_dbg_enable(uint32_t index, uint32_t kind, void *handle)
{
    if (index >= DBGWRAP_MAX_LIBS || kind >= 32 || handle == nullptr)
        return 1;
    g_dbg_kinds[index].fetch_or(1u << kind, std::memory_order_relaxed);
    return 0;
}

uint32_t dbgwrap_library_dbg_disable(uint32_t index, uint32_t kind, void *handle)
{
    if (index >= DBGWRAP_MAX_LIBS || kind >= 32 || handle == nullptr)
        return 1;
    g_dbg_kinds[index].fetch_and(~(1u << kind), std::memory_order_relaxed);
    return 0;
}

// Flag 2 is general debug output, which every enabled kind includes; other
// flags test the kind's own bit.
int dbgwrap_library_chk_int(uint32_t index, uint32_t flag)
{
    if (index >= DBGWRAP_MAX_LIBS)
        return 0;
    uint32_t kinds = g_dbg_kinds[index].load(std::memory_order_relaxed);
    if (flag == 2)
        return kinds != 0;
    return flag < 32 && (kinds & (1u << flag)) != 0;
}

void dbgprint_func(int level, const char *modname, const char *prefix,
                   int flags, const char *format, ...)
{
    (void)level;
    (void)modname;
    (void)flags;
    if (format == nullptr)
        return;
    char text[kLineMax];
    va_list ap;
    va_start(ap, format);
    vsnprintf(text, sizeof text, format, ap);
    va_end(ap);
    char line[kLineMax + 256];
    if (prefix != nullptr)
        snprintf(line, sizeof line, "%s %s", prefix, text);
    else
        snprintf(line, sizeof line, "%s", text);
    const size_t len = strlen(line);
    fputs(line, stderr);
    if (len == 0 || line[len - 1] != '\n')
        fputc('\n', stderr);
    append_file("debug", line);
    tarnhost_capture_append(TARNHOST_CH_DEBUG, line);
}

}  // extern "C"
