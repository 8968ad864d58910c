// The message bus: Unix-domain datagram sockets under <root>/bus, with no
// daemon.  Every handle is one socket bound at <root>/bus/h/<handle>; the
// file system is the only shared state, so any process of the root can
// reach any other without a broker.
//
// Handle ids come from a counter in <root>/bus/lock, advanced under flock,
// and are never handed out twice on a device (until the 32-bit counter
// wraps).  That is what keeps stale state harmless: a socket file or a
// subscription record left behind by a killed process names an id that no
// live handle will ever have, so a publisher can delete it on sight.
//
// A fixed access point is a symlink <root>/bus/ap/<sap> -> ../h/<handle>,
// replaced atomically by rename.  Directed sends go through the symlink, so
// the kernel resolves the access point on every send.
//
// A subscription is an empty file <root>/bus/sub/<opcode>/<handle>.  A
// publish sends one datagram per entry of that directory, read again only
// when the shared generation word in <root>/bus/gen says a record changed.
//
// Every datagram is a 28-byte header followed by the payload; receivers
// drop anything that does not carry the magic, the version and a length
// that matches what arrived.

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/bus_msg.h"
#include "host/nomem.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "platform/bus.h"

namespace {

constexpr uint32_t kWireMagic = 0x53554254u;  // "TBUS" in memory order
constexpr uint16_t kWireVersion = 1;

enum : uint16_t { kKindPublish = 1, kKindDirected = 2, kKindReply = 3 };

struct WireHeader {
    uint32_t magic;
    uint16_t version;
    uint16_t kind;
    uint32_t opcode;
    uint32_t msg_id;
    uint32_t sender;
    uint32_t reply_to;  // id of the message answered; 0 for none
    uint32_t len;       // payload bytes after the header
};
static_assert(sizeof(WireHeader) == 28, "the wire header is 28 bytes");

constexpr uint32_t kHeaderLen = sizeof(WireHeader);
constexpr uint32_t kMaxDatagram = kHeaderLen + BUS_MAX_PAYLOAD;

using tarnhost_bus::kMsgLive;
using tarnhost_bus::kMsgFreed;

}  // namespace

// A received (or sent) message: struct bus_msg of host/bus_msg.h.

namespace {

// What the processes of one bus share beyond the directory tree: a
// generation word in <root>/bus/gen, bumped after every change to any
// subscription record.  A publisher keeps the subscriber list of each
// opcode it has published and reads the directory again only when the
// generation has moved, so the usual publish costs no directory scan.
struct Subscribers {
    uint32_t gen = 0;
    std::shared_ptr<const std::vector<uint32_t>> ids;
};

struct Bus {
    std::string dir;
    std::atomic<uint32_t> *gen = nullptr;  // null: no mapping, always scan
    dev_t gen_dev = 0;
    ino_t gen_ino = 0;
    std::mutex mu;
    std::unordered_map<uint32_t, Subscribers> cache;
};

struct Handle {
    uint32_t id = 0;
    int fd = -1;
    int32_t sap = -1;
    uint32_t type = 0;
    bus_addr_t addr{};
    std::string name;
    std::string dir;  // "<root>/bus" as it was when the handle was bound
    std::shared_ptr<Bus> bus;
    size_t max_datagram = kMaxDatagram;

    std::mutex opt_mu;
    std::unordered_map<uint32_t, uint32_t> options;

    std::mutex rx_mu;
    unsigned char *rx = nullptr;

    std::atomic<uint32_t> last_error{0};
    std::atomic<uint32_t> applied_wait_ms{0};

    ~Handle()
    {
        if (fd >= 0)
            close(fd);
        free(rx);
    }
};

using HandlePtr = std::shared_ptr<Handle>;
using Table = std::unordered_map<uint32_t, HandlePtr>;

std::mutex g_mu;
std::atomic<uint32_t> g_msg_id{0};
std::atomic<uint32_t> g_send_wait_ms{2000};

void fork_prepare() { g_mu.lock(); }
void fork_parent() { g_mu.unlock(); }
void fork_child();

Table &table()
{
    // Never destroyed: sends may run from other static destructors.  In
    // static storage, so that no lookup can fail for want of memory.
    alignas(Table) static unsigned char storage[sizeof(Table)];
    static Table *t = [] {
        pthread_atfork(fork_prepare, fork_parent, fork_child);
        return new (storage) Table;
    }();
    return *t;
}

// A forked child does not inherit its parent's handles: it would otherwise
// steal the parent's messages and keep a dead parent's sockets reachable.
void fork_child()
{
    Table &t = table();
    for (auto &entry : t) {
        if (entry.second->fd >= 0) {
            close(entry.second->fd);
            entry.second->fd = -1;
        }
    }
    t.clear();
    g_mu.unlock();
}

HandlePtr find(uint32_t id)
{
    std::lock_guard<std::mutex> lock(g_mu);
    Table &t = table();
    auto it = t.find(id);
    return it == t.end() ? HandlePtr() : it->second;
}

// The shared state of the bus under `dir`, mapped once per process.
std::shared_ptr<Bus> bus_for(const std::string &dir)
{
    static std::mutex mu;
    static auto *buses = new std::unordered_map<std::string,
                                                std::shared_ptr<Bus>>;
    std::string path = dir + "/gen";
    std::lock_guard<std::mutex> lock(mu);
    auto it = buses->find(dir);
    if (it != buses->end()) {
        // A root removed and made again at the same path has a new word.
        struct stat st;
        if (it->second->gen == nullptr ||
            (stat(path.c_str(), &st) == 0 &&
             st.st_dev == it->second->gen_dev &&
             st.st_ino == it->second->gen_ino))
            return it->second;
    }
    auto bus = std::make_shared<Bus>();
    bus->dir = dir;
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                  0600);
    if (fd >= 0) {
        struct stat st;
        constexpr off_t kSize = 64;
        if (fstat(fd, &st) == 0 && (st.st_size >= kSize ||
                                    ftruncate(fd, kSize) == 0)) {
            void *p = mmap(nullptr, kSize, PROT_READ | PROT_WRITE,
                           MAP_SHARED, fd, 0);
            if (p != MAP_FAILED) {
                bus->gen = static_cast<std::atomic<uint32_t> *>(p);
                bus->gen_dev = st.st_dev;
                bus->gen_ino = st.st_ino;
            }
        }
        close(fd);
    }
    (*buses)[dir] = bus;
    return bus;
}

void bump(Bus *bus)
{
    if (bus->gen != nullptr)
        bus->gen->fetch_add(1, std::memory_order_acq_rel);
}

uint32_t next_msg_id()
{
    uint32_t id;
    do
        id = g_msg_id.fetch_add(1, std::memory_order_relaxed) + 1;
    while (id == 0);
    return id;
}

void fail(Handle *h, int err)
{
    if (h != nullptr)
        h->last_error.store(static_cast<uint32_t>(err),
                            std::memory_order_relaxed);
    errno = err;
}

bool make_dir(const std::string &path)
{
    if (mkdir(path.c_str(), 0700) == 0 || errno == EEXIST)
        return true;
    return false;
}

// Fills `sa` with "<dir>/<sub>/<n>"; false when it does not fit.
bool sock_path(sockaddr_un *sa, socklen_t *sa_len, const std::string &dir,
               const char *sub, uint32_t n)
{
    memset(sa, 0, sizeof *sa);
    sa->sun_family = AF_UNIX;
    int w = snprintf(sa->sun_path, sizeof sa->sun_path, "%s/%s/%u",
                     dir.c_str(), sub, n);
    if (w < 0 || static_cast<size_t>(w) >= sizeof sa->sun_path)
        return false;
    *sa_len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) +
                                     static_cast<size_t>(w) + 1);
    return true;
}

std::string record_path(const std::string &dir, uint32_t opcode,
                        uint32_t id)
{
    char tail[32];
    snprintf(tail, sizeof tail, "/sub/%u/%u", opcode, id);
    return dir + tail;
}

// Strict decimal, as written by record_path; anything else is not ours.
bool parse_u32(const char *s, uint32_t *out)
{
    if (*s == '\0' || (s[0] == '0' && s[1] != '\0'))
        return false;
    uint64_t v = 0;
    for (; *s != '\0'; ++s) {
        if (*s < '0' || *s > '9')
            return false;
        v = v * 10 + static_cast<uint64_t>(*s - '0');
        if (v > 0xFFFFFFFFu)
            return false;
    }
    *out = static_cast<uint32_t>(v);
    return true;
}

// 1 when some process has a socket bound at `path`, 0 when nobody does.
bool socket_alive(const char *path)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return true;  // cannot tell: assume the holder is alive
    sockaddr_un sa;
    memset(&sa, 0, sizeof sa);
    sa.sun_family = AF_UNIX;
    snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path);
    int rc = connect(fd, reinterpret_cast<sockaddr *>(&sa), sizeof sa);
    int err = errno;
    close(fd);
    return rc == 0 || (err != ECONNREFUSED && err != ENOENT);
}

// The bus-wide lock, held while ids are drawn and access points change.
int lock_bus(const std::string &dir)
{
    std::string path = dir + "/lock";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0)
        return -1;
    while (flock(fd, LOCK_EX) != 0) {
        if (errno != EINTR) {
            int err = errno;
            close(fd);
            errno = err;
            return -1;
        }
    }
    return fd;
}

uint32_t draw_id(int lock_fd)
{
    uint32_t next = 0;
    if (pread(lock_fd, &next, sizeof next, 0) != sizeof next)
        next = 0;
    if (next == 0 || next == BUS_HANDLE_NONE)
        next = 1;
    uint32_t after = next + 1;
    if (after == BUS_HANDLE_NONE)
        after = 1;
    if (pwrite(lock_fd, &after, sizeof after, 0) != sizeof after) {
        // The id is still unique among live handles: bind() refuses an
        // existing path.  Only the counter's persistence suffers.
    }
    return next;
}

void size_buffers(int fd)
{
    // Room for two of the largest datagrams in flight from one socket.
    int want = static_cast<int>(2 * kMaxDatagram + 4096);
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &want, sizeof want) != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &want, sizeof want);
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &want, sizeof want) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &want, sizeof want);
}

// The kernel refuses a datagram longer than the send buffer less 32 bytes.
size_t datagram_limit(int fd)
{
    int have = 0;
    socklen_t len = sizeof have;
    if (getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &have, &len) != 0 || have <= 32)
        return 0;
    size_t lim = static_cast<size_t>(have) - 32;
    return lim < kMaxDatagram ? lim : kMaxDatagram;
}

void apply_send_wait(Handle *h)
{
    uint32_t want = g_send_wait_ms.load(std::memory_order_relaxed);
    if (h->applied_wait_ms.load(std::memory_order_relaxed) == want)
        return;
    timeval tv;
    tv.tv_sec = static_cast<time_t>(want / 1000);
    tv.tv_usec = static_cast<suseconds_t>((want % 1000) * 1000);
    if (want == 0)
        tv.tv_usec = 1;  // zero would mean "wait for ever"
    if (setsockopt(h->fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0)
        h->applied_wait_ms.store(want, std::memory_order_relaxed);
}

bus_msg *new_msg(const WireHeader &hdr, const void *payload, uint32_t handle)
{
    bus_msg *m = static_cast<bus_msg *>(malloc(sizeof(bus_msg) + hdr.len));
    if (m == nullptr)
        return nullptr;
    m->magic = kMsgLive;
    m->opcode = hdr.opcode;
    m->msg_id = hdr.msg_id;
    m->sender = hdr.sender;
    m->reply_to = hdr.reply_to;
    m->len = hdr.len;
    m->kind = hdr.kind;
    m->reserved = 0;
    m->handle = handle;
    if (hdr.len != 0)
        memcpy(m + 1, payload, hdr.len);
    return m;
}

bool valid_msg(const bus_msg *m)
{
    return m != nullptr && m->magic == kMsgLive;
}

// One datagram to the socket at `sa`; 0 or an errno value.
int send_one(Handle *h, const sockaddr_un &sa, socklen_t sa_len,
             const WireHeader &hdr, const void *payload)
{
    iovec iov[2];
    iov[0].iov_base = const_cast<WireHeader *>(&hdr);
    iov[0].iov_len = kHeaderLen;
    iov[1].iov_base = const_cast<void *>(payload);
    iov[1].iov_len = hdr.len;
    msghdr mh;
    memset(&mh, 0, sizeof mh);
    mh.msg_name = const_cast<sockaddr_un *>(&sa);
    mh.msg_namelen = sa_len;
    mh.msg_iov = iov;
    mh.msg_iovlen = hdr.len != 0 ? 2 : 1;
    for (;;) {
        ssize_t n = sendmsg(h->fd, &mh, MSG_NOSIGNAL);
        if (n >= 0)
            return 0;
        if (errno == EINTR)
            continue;
        // The send timeout surfaces as EAGAIN or EWOULDBLOCK.
        return errno == EWOULDBLOCK ? EAGAIN : errno;
    }
}

// The handles with a record for `opcode`, read from the directory; null
// when the directory cannot be read to its end (errno says why), so that a
// publisher hears of it instead of silently reaching nobody.
std::shared_ptr<const std::vector<uint32_t>> scan(const std::string &dir,
                                                  uint32_t opcode)
{
    auto ids = std::make_shared<std::vector<uint32_t>>();
    char tail[24];
    snprintf(tail, sizeof tail, "/sub/%u", opcode);
    std::string subdir = dir + tail;
    DIR *d = opendir(subdir.c_str());
    if (d == nullptr)
        return errno == ENOENT ? ids : nullptr;
    int err = 0;
    for (;;) {
        errno = 0;
        dirent *e = readdir(d);
        if (e == nullptr) {
            err = errno;
            break;
        }
        uint32_t id;
        if (!parse_u32(e->d_name, &id))
            continue;
        // The directory is closed below whatever happens.
        if (!tarnhost::room_for_one(*ids)) {
            err = ENOMEM;
            break;
        }
        ids->push_back(id);
    }
    closedir(d);
    if (err != 0) {
        errno = err;
        return nullptr;
    }
    return ids;
}

std::shared_ptr<const std::vector<uint32_t>> subscribers_of(Bus *bus,
                                                            uint32_t opcode)
{
    uint32_t gen = 0;
    if (bus->gen != nullptr) {
        gen = bus->gen->load(std::memory_order_acquire);
        std::lock_guard<std::mutex> lock(bus->mu);
        auto it = bus->cache.find(opcode);
        if (it != bus->cache.end() && it->second.gen == gen)
            return it->second.ids;
    }
    auto ids = scan(bus->dir, opcode);
    if (ids == nullptr)
        return nullptr;
    if (bus->gen != nullptr) {
        // Tagged with the generation read before the scan: a change made
        // meanwhile moves the word on and forces the next scan.
        std::lock_guard<std::mutex> lock(bus->mu);
        bus->cache[opcode] = Subscribers{gen, ids};
    }
    return ids;
}

// Publish to every subscriber of hdr.opcode; 0 or an errno value.
int publish(Handle *h, const WireHeader &hdr, const void *payload)
{
    auto ids = subscribers_of(h->bus.get(), hdr.opcode);
    if (ids == nullptr)
        return errno != 0 ? errno : EIO;
    int result = 0;
    for (uint32_t target : *ids) {
        sockaddr_un sa;
        socklen_t sa_len;
        if (!sock_path(&sa, &sa_len, h->dir, "h", target))
            continue;
        int err = send_one(h, sa, sa_len, hdr, payload);
        if (err == 0)
            continue;
        if (err == ECONNREFUSED || err == ENOENT) {
            // Nobody holds that socket any more, and its id is never
            // reused: the record and the socket file are both litter.
            std::string rec = record_path(h->dir, hdr.opcode, target);
            unlink(rec.c_str());
            if (err == ECONNREFUSED)
                unlink(sa.sun_path);
            bump(h->bus.get());
            continue;
        }
        if (err == EMSGSIZE) {
            // Same for every receiver: stop before anyone gets a copy of a
            // message that others cannot.
            result = err;
            break;
        }
        // A live subscriber that cannot take the message in time: the
        // others still get it, and the sender hears about the loss.
        if (result == 0)
            result = err;
    }
    return result;
}

bool remove_record(Handle *h, uint32_t opcode)
{
    std::string path = record_path(h->dir, opcode, h->id);
    bool ok = unlink(path.c_str()) == 0 || errno == ENOENT;
    bump(h->bus.get());
    return ok;
}

int add_record(Handle *h, uint32_t opcode)
{
    const std::string &dir = h->dir;
    uint32_t id = h->id;
    char tail[24];
    snprintf(tail, sizeof tail, "/sub/%u", opcode);
    std::string subdir = dir + tail;
    if (!make_dir(dir + "/sub") || !make_dir(subdir))
        return errno;
    std::string path = record_path(dir, opcode, id);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW,
                  0600);
    if (fd < 0)
        return errno;
    close(fd);
    bump(h->bus.get());
    return 0;
}

// Receives the next valid message, waiting up to timeout_ms.
bus_msg *receive(Handle *h, uint32_t timeout_ms)
{
    std::lock_guard<std::mutex> lock(h->rx_mu);
    if (h->rx == nullptr) {
        h->rx = static_cast<unsigned char *>(malloc(kMaxDatagram));
        if (h->rx == nullptr) {
            fail(h, ENOMEM);
            return nullptr;
        }
    }
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        iovec iov{h->rx, kMaxDatagram};
        msghdr mh;
        memset(&mh, 0, sizeof mh);
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        ssize_t n = recvmsg(h->fd, &mh, MSG_DONTWAIT);
        if (n >= 0) {
            WireHeader hdr;
            if ((mh.msg_flags & MSG_TRUNC) != 0 ||
                static_cast<size_t>(n) < kHeaderLen)
                continue;
            memcpy(&hdr, h->rx, kHeaderLen);
            if (hdr.magic != kWireMagic || hdr.version != kWireVersion ||
                hdr.len != static_cast<size_t>(n) - kHeaderLen)
                continue;
            bus_msg *m = new_msg(hdr, h->rx + kHeaderLen, h->id);
            if (m == nullptr)
                fail(h, ENOMEM);
            return m;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            fail(h, errno);
            return nullptr;
        }
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        int64_t spent = (now.tv_sec - start.tv_sec) * 1000 +
                        (now.tv_nsec - start.tv_nsec) / 1000000;
        int64_t left = static_cast<int64_t>(timeout_ms) - spent;
        if (left <= 0) {
            fail(h, EAGAIN);
            return nullptr;
        }
        pollfd p{h->fd, POLLIN, 0};
        int rc = poll(&p, 1, left > 0x7FFFFFFF ? 0x7FFFFFFF
                                               : static_cast<int>(left));
        if (rc < 0 && errno != EINTR) {
            fail(h, errno);
            return nullptr;
        }
    }
}

bool injected(const char *call, Handle *h, uint32_t *status)
{
    if (!tarnhost_fault_hit(call, status))
        return false;
    fail(h, static_cast<int>(*status));
    return true;
}

}  // namespace

extern "C" {

uint32_t bus_bind(uint32_t type, int32_t sap, const bus_addr_t *addr,
                  const char *name)
try {
    uint32_t st;
    if (injected("bus_bind", nullptr, &st))
        return BUS_HANDLE_NONE;
    if (sap == 0 || sap < -1) {
        errno = EINVAL;
        return BUS_HANDLE_NONE;
    }
    int err = tarnhost_root_prepare();
    if (err != 0) {
        errno = err;
        return BUS_HANDLE_NONE;
    }
    HandlePtr h = std::make_shared<Handle>();
    h->dir = std::string(tarnhost_root()) + "/bus";
    if (!make_dir(h->dir + "/h") || !make_dir(h->dir + "/ap") ||
        !make_dir(h->dir + "/sub"))
        return BUS_HANDLE_NONE;
    h->bus = bus_for(h->dir);
    h->sap = sap;
    h->type = type;
    if (addr != nullptr)
        h->addr = *addr;
    if (name != nullptr)
        h->name = name;

    h->fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (h->fd < 0)
        return BUS_HANDLE_NONE;
    size_buffers(h->fd);
    h->max_datagram = datagram_limit(h->fd);
    apply_send_wait(h.get());

    int lock_fd = lock_bus(h->dir);
    if (lock_fd < 0)
        return BUS_HANDLE_NONE;
    // From here on every exit closes lock_fd.
    char ap[sizeof(sockaddr_un::sun_path)];
    if (sap > 0) {
        int w = snprintf(ap, sizeof ap, "%s/ap/%d", h->dir.c_str(), sap);
        if (w < 0 || static_cast<size_t>(w) >= sizeof ap) {
            close(lock_fd);
            errno = ENAMETOOLONG;
            return BUS_HANDLE_NONE;
        }
        if (socket_alive(ap)) {
            close(lock_fd);
            errno = EADDRINUSE;
            return BUS_HANDLE_NONE;
        }
        // The previous holder died without unbinding: its socket file is
        // litter (ids are not reused); the symlink is replaced below.
        char stale[64];
        ssize_t n = readlink(ap, stale, sizeof stale - 1);
        uint32_t dead;
        if (n > 5 && memcmp(stale, "../h/", 5) == 0) {
            stale[n] = '\0';
            if (parse_u32(stale + 5, &dead)) {
                sockaddr_un old;
                socklen_t old_len;
                if (sock_path(&old, &old_len, h->dir, "h", dead))
                    unlink(old.sun_path);
            }
        }
    }

    sockaddr_un sa;
    socklen_t sa_len = 0;
    err = EADDRINUSE;
    // A taken id can only be left over from a wrapped counter: move on.
    for (int attempt = 0; attempt < 64 && err == EADDRINUSE; ++attempt) {
        h->id = draw_id(lock_fd);
        if (!sock_path(&sa, &sa_len, h->dir, "h", h->id)) {
            err = ENAMETOOLONG;
            break;
        }
        err = bind(h->fd, reinterpret_cast<sockaddr *>(&sa), sa_len) == 0
                  ? 0
                  : errno;
    }
    if (err == 0 && chmod(sa.sun_path, 0600) != 0)
        err = errno;
    if (err == 0 && sap > 0) {
        char target[32];
        snprintf(target, sizeof target, "../h/%u", h->id);
        // No allocation while the bus lock is held.
        char tmp[sizeof ap + 4];
        snprintf(tmp, sizeof tmp, "%s.new", ap);
        unlink(tmp);
        if (symlink(target, tmp) != 0 || rename(tmp, ap) != 0) {
            err = errno;
            unlink(tmp);
        }
    }
    if (err != 0) {
        if (sa_len != 0)
            unlink(sa.sun_path);
        close(lock_fd);
        errno = err;
        return BUS_HANDLE_NONE;
    }
    close(lock_fd);

    std::lock_guard<std::mutex> lock(g_mu);
    try {
        table()[h->id] = h;
    } catch (const std::bad_alloc &) {
        // Bound but not recorded: undo the binding.
        if (sap > 0)
            unlink(ap);
        unlink(sa.sun_path);
        throw;
    }
    return h->id;
} catch (const std::bad_alloc &) {
    return tarnhost::no_memory(BUS_HANDLE_NONE);
}

uint32_t bus_unbind(uint32_t handle)
try {
    HandlePtr h;
    {
        std::lock_guard<std::mutex> lock(g_mu);
        Table &t = table();
        auto it = t.find(handle);
        if (it != t.end())
            h = it->second;
        uint32_t st;
        if (injected("bus_unbind", h.get(), &st))
            return st;
        if (it == t.end())
            return EBADF;
        t.erase(it);
    }
    {
        std::lock_guard<std::mutex> lock(h->opt_mu);
        for (const auto &o : h->options)
            if ((o.second & BUS_OPT_RECEIVE) != 0)
                remove_record(h.get(), o.first);
        h->options.clear();
    }
    if (h->sap > 0) {
        int lock_fd = lock_bus(h->dir);
        char ap[sizeof(sockaddr_un::sun_path)];
        snprintf(ap, sizeof ap, "%s/ap/%d", h->dir.c_str(), h->sap);
        char cur[64];
        char mine[32];
        snprintf(mine, sizeof mine, "../h/%u", h->id);
        ssize_t n = readlink(ap, cur, sizeof cur - 1);
        if (n > 0) {
            cur[n] = '\0';
            if (strcmp(cur, mine) == 0)
                unlink(ap);
        }
        if (lock_fd >= 0)
            close(lock_fd);
    }
    sockaddr_un sa;
    socklen_t sa_len;
    if (sock_path(&sa, &sa_len, h->dir, "h", h->id))
        unlink(sa.sun_path);
    return 0;
} catch (const std::bad_alloc &) {
    return ENOMEM;
}

int32_t bus_send(uint32_t handle, uint32_t node, uint32_t sap,
                 uint32_t opcode, const void *payload, uint32_t len,
                 bus_msg_t *reply_to, bus_msg_t **sent,
                 const bus_send_opts_t *opts)
try {
    (void)opts;  // one delivery mode only
    if (sent != nullptr)
        *sent = nullptr;
    HandlePtr h = find(handle);
    uint32_t st;
    if (injected("bus_send", h.get(), &st))
        return -1;
    if (!h) {
        fail(nullptr, EBADF);
        return -1;
    }
    if (len > BUS_MAX_PAYLOAD || kHeaderLen + len > h->max_datagram) {
        fail(h.get(), EMSGSIZE);
        return -1;
    }
    if (len != 0 && payload == nullptr) {
        fail(h.get(), EINVAL);
        return -1;
    }
    if (reply_to != nullptr && !valid_msg(reply_to)) {
        fail(h.get(), EINVAL);
        return -1;
    }

    WireHeader hdr;
    hdr.magic = kWireMagic;
    hdr.version = kWireVersion;
    hdr.opcode = opcode;
    hdr.msg_id = next_msg_id();
    hdr.sender = h->id;
    hdr.reply_to = reply_to != nullptr ? reply_to->msg_id : 0;
    hdr.len = len;
    apply_send_wait(h.get());

    int err;
    if (reply_to != nullptr) {
        hdr.kind = kKindReply;
        sockaddr_un sa;
        socklen_t sa_len;
        if (!sock_path(&sa, &sa_len, h->dir, "h", reply_to->sender))
            err = ENAMETOOLONG;
        else
            err = send_one(h.get(), sa, sa_len, hdr, payload);
        if (err == ENOENT)
            err = ECONNREFUSED;  // the requester is gone
    } else if (node != BUS_NODE_LOCAL && node != 0) {
        err = EHOSTUNREACH;
    } else if (sap != 0) {
        hdr.kind = kKindDirected;
        sockaddr_un sa;
        socklen_t sa_len;
        if (!sock_path(&sa, &sa_len, h->dir, "ap", sap))
            err = ENAMETOOLONG;
        else
            err = send_one(h.get(), sa, sa_len, hdr, payload);
        if (err == ENOENT)
            err = ECONNREFUSED;  // nobody serves that access point
    } else {
        hdr.kind = kKindPublish;
        err = publish(h.get(), hdr, payload);
    }
    if (err != 0) {
        fail(h.get(), err);
        return -1;
    }
    if (sent != nullptr)
        *sent = new_msg(hdr, payload, h->id);
    return 0;
} catch (const std::bad_alloc &) {
    return tarnhost::no_memory(-1);
}

bus_msg_t *bus_recv(uint32_t handle, const bus_recv_opts_t *opts)
{
    HandlePtr h = find(handle);
    uint32_t st;
    if (injected("bus_recv", h.get(), &st))
        return nullptr;
    if (!h) {
        fail(nullptr, EBADF);
        return nullptr;
    }
    uint32_t timeout_ms = 0;
    if (opts != nullptr && opts->mode == 1) {
        uint32_t s = opts->timeout_s;
        timeout_ms = s > 0x7FFFFFFFu / 1000 ? 0x7FFFFFFFu : s * 1000;
    }
    return receive(h.get(), timeout_ms);
}

int32_t bus_drop(uint32_t handle, bus_msg_t *msg)
{
    (void)handle;  // messages are not tied to the handle they came on
    uint32_t st;
    if (tarnhost_fault_hit("bus_drop", &st)) {
        // Callers do not retry a failed drop: release it anyway.
        if (valid_msg(msg)) {
            msg->magic = kMsgFreed;
            free(msg);
        }
        errno = static_cast<int>(st);
        return -1;
    }
    if (!valid_msg(msg)) {
        errno = EINVAL;
        return -1;
    }
    msg->magic = kMsgFreed;
    free(msg);
    return 0;
}

const void *bus_payload_get(const bus_msg_t *msg, uint32_t *len)
{
    if (!valid_msg(msg) || msg->len == 0) {
        if (len != nullptr)
            *len = 0;
        return nullptr;
    }
    if (len != nullptr)
        *len = msg->len;
    return msg + 1;
}

uint32_t bus_opc_get(const bus_msg_t *msg)
{
    return valid_msg(msg) ? msg->opcode : 0;
}

const char *bus_opc_name_get(uint32_t opcode)
{
    switch (opcode) {
    case 51226:
        return "TARN_ATTR_CHANGE";
    case 51222:
        return "BUS_OPC_TARN_PROTOCOL_CONFIG_CHANGE";
    default:
        break;
    }
    static thread_local char buf[12];
    snprintf(buf, sizeof buf, "%u", opcode);
    return buf;
}

uint32_t bus_msg_id_get(const bus_msg_t *msg)
{
    return valid_msg(msg) ? msg->msg_id : 0;
}

uint32_t bus_errno_get(uint32_t handle)
{
    HandlePtr h = find(handle);
    if (!h)
        return EBADF;
    return h->last_error.load(std::memory_order_relaxed);
}

uint32_t bus_options_get(uint32_t handle, uint32_t opcode)
{
    HandlePtr h = find(handle);
    uint32_t st;
    if (injected("bus_options_get", h.get(), &st))
        return 0;
    if (!h) {
        fail(nullptr, EBADF);
        return 0;
    }
    std::lock_guard<std::mutex> lock(h->opt_mu);
    auto it = h->options.find(opcode);
    return it == h->options.end() ? 0 : it->second;
}

uint32_t bus_options_set(uint32_t handle, uint32_t opcode, uint32_t value)
try {
    HandlePtr h = find(handle);
    uint32_t st;
    if (injected("bus_options_set", h.get(), &st))
        return st;
    if (!h) {
        fail(nullptr, EBADF);
        return EBADF;
    }
    std::lock_guard<std::mutex> lock(h->opt_mu);
    uint32_t old = 0;
    auto it = h->options.find(opcode);
    if (it != h->options.end())
        old = it->second;
    else if (value != 0)
        h->options.emplace(opcode, 0);  // room first: may fail before any change
    if ((value & BUS_OPT_RECEIVE) != 0) {
        // Written again even when the bit was set: cheap, and it restores
        // a record that someone removed behind our back.
        int err = add_record(h.get(), opcode);
        if (err != 0) {
            fail(h.get(), err);
            return static_cast<uint32_t>(err);
        }
    } else if ((old & BUS_OPT_RECEIVE) != 0) {
        if (!remove_record(h.get(), opcode)) {
            int err = errno;
            fail(h.get(), err);
            return static_cast<uint32_t>(err);
        }
    }
    if (value == 0)
        h->options.erase(opcode);
    else
        h->options[opcode] = value;
    return 0;
} catch (const std::bad_alloc &) {
    return ENOMEM;
}

// ---- host-side views -------------------------------------------------------

bus_msg_t *tarnhost_bus_recv_ms(uint32_t handle, uint32_t timeout_ms)
{
    HandlePtr h = find(handle);
    uint32_t st;
    if (injected("bus_recv", h.get(), &st))
        return nullptr;
    if (!h) {
        fail(nullptr, EBADF);
        return nullptr;
    }
    return receive(h.get(), timeout_ms);
}

int tarnhost_bus_fd(uint32_t handle)
{
    HandlePtr h = find(handle);
    if (!h || h->fd < 0) {
        errno = EBADF;
        return -1;
    }
    return h->fd;
}

uint32_t tarnhost_bus_sender_get(const bus_msg_t *msg)
{
    return valid_msg(msg) ? msg->sender : BUS_HANDLE_NONE;
}

uint32_t tarnhost_bus_reply_to_get(const bus_msg_t *msg)
{
    return valid_msg(msg) ? msg->reply_to : 0;
}

size_t tarnhost_bus_subscribers(uint32_t opcode, uint32_t *out, size_t max)
try {
    auto ids = scan(std::string(tarnhost_root()) + "/bus", opcode);
    if (ids == nullptr)
        return 0;
    for (size_t i = 0; out != nullptr && i < ids->size() && i < max; ++i)
        out[i] = (*ids)[i];
    errno = 0;
    return ids->size();
} catch (const std::bad_alloc &) {
    return tarnhost::no_memory(static_cast<size_t>(0));
}

void tarnhost_bus_set_send_wait_ms(uint32_t ms)
{
    g_send_wait_ms.store(ms, std::memory_order_relaxed);
}

}  // extern "C"
