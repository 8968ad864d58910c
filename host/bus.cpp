// The message bus: Unix-domain datagram sockets under <root>/bus, with no
// daemon.  Every handle is one socket bound at <root>/bus/h/<handle>; the
// file system is the only shared state, so any process of the root can
// reach any other without a broker.  The directory itself is kept by
// host/bus_dir.cpp.
//
// Handle ids come from a counter in <root>/bus/lock, advanced under flock,
// and are never handed out twice on a device (until the 32-bit counter
// wraps).  That is what keeps stale state harmless: a socket file or a
// subscription record left behind by a killed process names an id that no
// live handle will ever have, so whoever meets it may delete it.
//
// A fixed access point is a file <root>/bus/ap/<sap> holding the handle's
// id, replaced atomically by rename; a directed send reads it and sends to
// that handle's socket.
//
// A subscription is an empty file <root>/bus/sub/<opcode>/<handle>.  A
// publish sends one datagram per entry of that directory, read again only
// when the shared generation word in <root>/bus/gen says a record changed.
//
// No receiver holds up a sender for long: a send into a full queue waits
// only while the receiver is seen taking messages, and a receiver that
// stopped misses the message, counted in its state file, where it (and
// anyone) can see that it has missed something.
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

#include "host/bus_dir.h"
#include "host/bus_msg.h"
#include "host/nomem.h"
#include "host/rootfs.h"
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
using namespace tarnhost_bus;  // the bus directory

}  // namespace

// A received (or sent) message: struct bus_msg of host/bus_msg.h.

namespace {

struct Handle {
    uint32_t id = 0;
    int fd = -1;
    int32_t sap = -1;
    uint32_t type = 0;
    bus_addr_t addr{};
    std::string name;
    BusPtr bus;
    SlotPtr slot;  // this handle's delivery state; null if it has none
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

// How long one blocking send waits before the sender looks whether the
// receiver is taking messages at all.
constexpr uint32_t kStallWindowMs = 200;

uint32_t stall_window_ms()
{
    uint32_t total = g_send_wait_ms.load(std::memory_order_relaxed);
    return total < kStallWindowMs ? total : kStallWindowMs;
}

void apply_send_wait(Handle *h)
{
    uint32_t want = stall_window_ms();
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

uint64_t now_ms()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return static_cast<uint64_t>(t.tv_sec) * 1000u +
           static_cast<uint64_t>(t.tv_nsec) / 1000000u;
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
             const WireHeader &hdr, const void *payload, int flags)
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
        ssize_t n = sendmsg(h->fd, &mh, MSG_NOSIGNAL | flags);
        if (n >= 0)
            return 0;
        if (errno == EINTR)
            continue;
        // The send timeout surfaces as EAGAIN or EWOULDBLOCK.
        return errno == EWOULDBLOCK ? EAGAIN : errno;
    }
}

// One datagram to handle `target`, whose queue may be full.  The sender
// waits while the receiver is seen taking messages (its slot's count
// moves), up to the send wait in all; a receiver that took nothing for a
// whole window, or one marked stalled by an earlier sender, misses the
// message: counted in its slot, and no later publish waits for it (or
// sends to it) until it takes a message again.  A directed send or reply
// (`honour_stall` false) always gets its own window: its one receiver may
// have just been resumed, and its sender waits for an answer anyway.
// 0, EAGAIN for a missed message, or an errno.
int deliver(Handle *h, uint32_t target, const WireHeader &hdr,
            const void *payload, bool honour_stall)
{
    Bus *bus = h->bus.get();
    sockaddr_un sa;
    socklen_t sa_len;
    if (!sock_path(&sa, &sa_len, *bus, target))
        return ENAMETOOLONG;
    SlotPtr peer = slot_of(bus, target);
    Slot *slot = peer ? peer->slot : nullptr;
    if (honour_stall && slot != nullptr &&
        slot->stalled.load(std::memory_order_acquire) != 0) {
        // Its queue was full when the mark was set and only the receiver
        // empties it, lifting the mark as it does: this send would fail
        // too, so it is not even tried.
        slot->missed.fetch_add(1, std::memory_order_acq_rel);
        return EAGAIN;
    }
    uint32_t seen = slot != nullptr
                        ? slot->received.load(std::memory_order_acquire)
                        : 0;
    uint64_t start = now_ms();
    uint64_t total = g_send_wait_ms.load(std::memory_order_relaxed);
    for (;;) {
        int err = send_one(h, sa, sa_len, hdr, payload, 0);
        if (err != EAGAIN)
            return err;
        bool moving = false;
        if (slot != nullptr) {
            uint32_t now = slot->received.load(std::memory_order_acquire);
            moving = now != seen;
            seen = now;
        }
        if (now_ms() - start >= total || (slot != nullptr && !moving)) {
            if (slot != nullptr) {
                slot->stalled.store(1, std::memory_order_release);
                slot->missed.fetch_add(1, std::memory_order_acq_rel);
            }
            return EAGAIN;
        }
    }
}

// Publish to every subscriber of hdr.opcode; 0 or an errno value.  The
// subscribers that missed the message are added to `missed` when given.
int publish(Handle *h, const WireHeader &hdr, const void *payload,
            std::vector<uint32_t> *missed)
{
    auto ids = subscribers_of(h->bus.get(), hdr.opcode);
    if (ids == nullptr)
        return errno != 0 ? errno : EIO;
    for (uint32_t target : *ids) {
        int err = deliver(h, target, hdr, payload, true);
        if (err == 0)
            continue;
        if (err == ECONNREFUSED || err == ENOENT) {
            // Nobody holds that socket any more, and its id is never
            // reused: the record, the socket file and the slot are litter.
            forget(h->bus.get(), hdr.opcode, target);
            continue;
        }
        if (err == EMSGSIZE) {
            // Same for every receiver: stop before anyone gets a copy of a
            // message that others cannot.
            return err;
        }
        // A subscriber that could not take it: its loss, counted against
        // it, not a failure of the publish.
        if (missed != nullptr)
            missed->push_back(target);
    }
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
            if (h->slot) {
                // Taking a message is what tells waiting senders that this
                // queue moves; it also lifts a stall mark.
                Slot *slot = h->slot->slot;
                slot->received.fetch_add(1, std::memory_order_acq_rel);
                if (slot->stalled.load(std::memory_order_relaxed) != 0)
                    slot->stalled.store(0, std::memory_order_release);
            }
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

// The bus's lock, released on every way out of the scope that took it,
// running out of memory included: a lock left behind would stop every later
// bind of this process.
struct BusLock {
    int fd;
    ~BusLock()
    {
        if (fd >= 0) {
            const int saved = errno;
            close(fd);
            errno = saved;
        }
    }
};

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
    HandlePtr h = std::make_shared<Handle>();
    h->bus = bus_open(true);
    if (!h->bus)
        return BUS_HANDLE_NONE;
    Bus &bus = *h->bus;
    // Whoever binds cleans up after the processes that died bound.
    sweep(h->bus.get());
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

    // Held until every way out of here, running out of memory included.
    BusLock bus_lock{lock_bus(bus)};
    const int lock_fd = bus_lock.fd;
    if (lock_fd < 0)
        return BUS_HANDLE_NONE;
    if (sap > 0) {
        uint32_t holder;
        if (read_ap(bus, sap, &holder) == 0) {
            if (socket_alive(bus, holder)) {
                errno = EADDRINUSE;
                return BUS_HANDLE_NONE;
            }
            // The previous holder died without unbinding: its socket file
            // is litter (ids are not reused); the entry is replaced below.
            forget_socket(h->bus.get(), holder);
        }
    }

    sockaddr_un sa;
    socklen_t sa_len = 0;
    int err = EADDRINUSE;
    // A taken id can only be left over from a wrapped counter: move on.
    for (int attempt = 0; attempt < 64 && err == EADDRINUSE; ++attempt) {
        h->id = draw_id(lock_fd);
        if (!sock_path(&sa, &sa_len, bus, h->id)) {
            err = ENAMETOOLONG;
            break;
        }
        err = bind(h->fd, reinterpret_cast<sockaddr *>(&sa), sa_len) == 0
                  ? 0
                  : errno;
    }
    if (err == 0)
        err = tarnhost_rootfs::share_socket(bus.hfd,
                                            std::to_string(h->id).c_str());
    if (err == 0) {
        h->slot = create_slot(h->bus.get(), h->id);
        if (!h->slot)
            err = errno;
    }
    if (err == 0 && sap > 0)
        err = write_ap(bus, sap, h->id);
    if (err != 0) {
        if (sa_len != 0 && h->id != 0)
            forget_socket(h->bus.get(), h->id);
        errno = err;
        return BUS_HANDLE_NONE;
    }
    std::lock_guard<std::mutex> lock(g_mu);
    try {
        table()[h->id] = h;
    } catch (const std::bad_alloc &) {
        // Bound but not recorded: undo the binding.
        if (sap > 0)
            remove_ap_if(bus, sap, h->id);
        forget_socket(h->bus.get(), h->id);
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
                remove_record(h->bus.get(), o.first, h->id);
        h->options.clear();
    }
    if (h->sap > 0) {
        BusLock bus_lock{lock_bus(*h->bus)};
        remove_ap_if(*h->bus, h->sap, h->id);
    }
    h->slot.reset();
    forget_socket(h->bus.get(), h->id);
    return 0;
} catch (const std::bad_alloc &) {
    return ENOMEM;
}

}  // extern "C"

namespace {

// bus_send, with the subscribers that missed a publish added to `missed`.
int32_t send_message(uint32_t handle, uint32_t node, uint32_t sap,
                     uint32_t opcode, const void *payload, uint32_t len,
                     bus_msg_t *reply_to, bus_msg_t **sent,
                     std::vector<uint32_t> *missed)
{
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
        err = socket_present(*h->bus, reply_to->sender);
        if (err == 0)
            err = deliver(h.get(), reply_to->sender, hdr, payload, false);
        if (err == ENOENT)
            err = ECONNREFUSED;  // the requester is gone
    } else if (node != BUS_NODE_LOCAL && node != 0) {
        err = EHOSTUNREACH;
    } else if (sap != 0) {
        hdr.kind = kKindDirected;
        uint32_t target = 0;
        err = sap > 0x7FFFFFFFu
                  ? ENOENT
                  : read_ap(*h->bus, static_cast<int32_t>(sap), &target);
        if (err == 0)
            err = socket_present(*h->bus, target);
        if (err == 0)
            err = deliver(h.get(), target, hdr, payload, false);
        if (err == ENOENT)
            err = ECONNREFUSED;  // nobody serves that access point
    } else {
        hdr.kind = kKindPublish;
        err = publish(h.get(), hdr, payload, missed);
    }
    if (err != 0) {
        fail(h.get(), err);
        return -1;
    }
    if (sent != nullptr)
        *sent = new_msg(hdr, payload, h->id);
    return 0;
}

}  // namespace

extern "C" {

int32_t bus_send(uint32_t handle, uint32_t node, uint32_t sap,
                 uint32_t opcode, const void *payload, uint32_t len,
                 bus_msg_t *reply_to, bus_msg_t **sent,
                 const bus_send_opts_t *opts)
try {
    (void)opts;  // one delivery mode only
    return send_message(handle, node, sap, opcode, payload, len, reply_to,
                        sent, nullptr);
} catch (const std::bad_alloc &) {
    fail(find(handle).get(), ENOMEM);
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
        int err = add_record(h->bus.get(), opcode, h->id);
        if (err != 0) {
            fail(h.get(), err);
            return static_cast<uint32_t>(err);
        }
    } else if ((old & BUS_OPT_RECEIVE) != 0) {
        if (!remove_record(h->bus.get(), opcode, h->id)) {
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
    BusPtr bus = bus_open(false);
    if (!bus) {
        if (errno == ENOENT)
            errno = 0;  // no bus yet: nobody subscribed
        return 0;
    }
    int err = 0;
    std::vector<uint32_t> ids = list_records(*bus, opcode, &err);
    if (err != 0) {
        errno = err;
        return 0;
    }
    for (size_t i = 0; out != nullptr && i < ids.size() && i < max; ++i)
        out[i] = ids[i];
    errno = 0;
    return ids.size();
} catch (const std::bad_alloc &) {
    return tarnhost::no_memory(static_cast<size_t>(0));
}

int tarnhost_bus_missed(uint32_t handle, uint32_t *count)
{
    if (count == nullptr)
        return EINVAL;
    SlotPtr slot;
    if (HandlePtr h = find(handle))
        slot = h->slot;
    if (!slot) {
        BusPtr bus = bus_open(false);
        if (!bus)
            return errno;
        int err = socket_present(*bus, handle);
        if (err != 0)
            return err;
        slot = slot_of(bus.get(), handle);
    }
    if (!slot)
        return ENOENT;
    Slot *s = slot->slot;
    *count = s->missed.load(std::memory_order_acquire) -
             s->caught_up.load(std::memory_order_acquire);
    return 0;
}

int tarnhost_bus_missed_take(uint32_t handle, uint32_t *count)
{
    if (count == nullptr)
        return EINVAL;
    HandlePtr h = find(handle);
    if (!h)
        return EBADF;
    if (!h->slot)
        return ENOENT;
    Slot *s = h->slot->slot;
    uint32_t missed = s->missed.load(std::memory_order_acquire);
    *count = missed - s->caught_up.exchange(missed, std::memory_order_acq_rel);
    return 0;
}

int32_t tarnhost_bus_handle_sap(uint32_t handle)
{
    BusPtr bus = bus_open(false);
    if (!bus) {
        errno = ENOENT;
        return -1;
    }
    // The entry must lead to a socket that is still there.
    int32_t sap = find_ap(*bus, handle);
    if (sap < 0 || socket_present(*bus, handle) != 0) {
        errno = ENOENT;
        return -1;
    }
    return sap;
}

void tarnhost_bus_set_send_wait_ms(uint32_t ms)
{
    g_send_wait_ms.store(ms, std::memory_order_relaxed);
}

}  // extern "C"

namespace tarnhost_bus {

int publish_from(uint32_t handle, uint32_t opcode, const void *payload,
                 uint32_t len, std::vector<uint32_t> *missed)
try {
    int rc = send_message(handle, BUS_NODE_LOCAL, 0, opcode, payload, len,
                          nullptr, nullptr, missed);
    return rc == 0 ? 0 : errno;
} catch (const std::bad_alloc &) {
    return ENOMEM;
}

}  // namespace tarnhost_bus
