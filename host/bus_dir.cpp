// The bus directory: see host/bus_dir.h and the layout in
// host/tarnhost_bus.h.

#include "host/nomem.h"
#include "host/bus_dir.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <utility>

#include "host/lock_wait.h"
#include "host/rootfs.h"
#include "host/tarnhost.h"
#include "platform/bus.h"

namespace tarnhost_bus {

namespace {

using tarnhost_rootfs::open_dir;
using tarnhost_rootfs::open_file;

std::string shown(const Bus &bus, const char *sub, const char *name)
{
    std::string s = bus.dir;
    if (sub != nullptr)
        s += std::string("/") + sub;
    return s + "/" + name;
}

std::string decimal(uint32_t n)
{
    char buf[16];
    snprintf(buf, sizeof buf, "%u", n);
    return buf;
}

// A token that no bump made before, on this device or another: the pid,
// a process-wide count and the time, mixed.
uint64_t new_token()
{
    static std::atomic<uint64_t> count{0};
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    uint64_t x = (static_cast<uint64_t>(getpid()) << 32) ^
                 count.fetch_add(1, std::memory_order_relaxed) ^
                 (static_cast<uint64_t>(ts.tv_sec) * 1000000000u +
                  static_cast<uint64_t>(ts.tv_nsec)) * 0x9E3779B97F4A7C15u;
    x ^= x >> 31;
    x *= 0xBF58476D1CE4E5B9u;
    x ^= x >> 27;
    return x;
}

}  // namespace

std::vector<uint32_t> list_ids(int dirfd, int *err)
{
    std::vector<uint32_t> ids;
    int fd = openat(dirfd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR *d = fd < 0 ? nullptr : fdopendir(fd);
    if (d == nullptr) {
        if (err != nullptr)
            *err = errno;
        if (fd >= 0)
            close(fd);
        return ids;
    }
    for (;;) {
        errno = 0;
        dirent *e = readdir(d);
        if (e == nullptr) {
            if (err != nullptr)
                *err = errno;
            break;
        }
        uint32_t id;
        if (!parse_u32(e->d_name, &id))
            continue;
        // The directory is closed below whatever happens.
        if (!tarnhost::room_for_one(ids)) {
            if (err != nullptr)
                *err = ENOMEM;
            break;
        }
        ids.push_back(id);
    }
    closedir(d);
    return ids;
}

namespace {


// Opens the subdirectories and the generation word of a bus whose
// directory descriptor is bus->fd; 0 or an errno value.
int open_parts(Bus *bus, bool create)
{
    struct Part {
        int *fd;
        const char *name;
    } parts[] = {{&bus->hfd, "h"},
                 {&bus->apfd, "ap"},
                 {&bus->subfd, "sub"},
                 {&bus->statefd, "state"}};
    for (const Part &p : parts) {
        std::string s = bus->dir + "/" + p.name;
        *p.fd = open_dir(bus->fd, p.name, s.c_str(), create);
        if (*p.fd < 0)
            return errno;
    }
    std::string s = bus->dir + "/gen";
    int fd = open_file(bus->fd, "gen", s.c_str(),
                       create ? O_RDWR | O_CREAT : O_RDWR);
    if (fd < 0)
        return errno;
    bus->gen_fd = fd;
    uint64_t token;
    if (pread(fd, &token, sizeof token, 0) != static_cast<ssize_t>(sizeof token))
        bump(bus);
    return 0;
}

}  // namespace

SlotMap::~SlotMap()
{
    if (slot != nullptr)
        shmdt(slot);
}

Bus::~Bus()
{
    for (int f : {fd, hfd, apfd, subfd, statefd, gen_fd})
        if (f >= 0)
            close(f);
}

BusPtr bus_open(bool create)
{
    static std::mutex mu;
    static auto *buses =
        new std::map<std::pair<dev_t, ino_t>, std::weak_ptr<Bus>>;
    int fd = tarnhost_rootfs::open_subdir("bus", create);
    if (fd < 0)
        return nullptr;
    struct stat st;
    if (fstat(fd, &st) != 0) {
        int err = errno;
        close(fd);
        errno = err;
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mu);
    auto key = std::make_pair(st.st_dev, st.st_ino);
    auto it = buses->find(key);
    if (it != buses->end()) {
        BusPtr known = it->second.lock();
        struct stat kst;
        // An inode number can come back for a new directory once the old
        // one is removed: a removed directory has no links left.
        if (known && fstat(known->fd, &kst) == 0 && kst.st_nlink > 0) {
            close(fd);
            return known;
        }
    }
    auto bus = std::make_shared<Bus>();
    bus->dir = std::string(tarnhost_root()) + "/bus";
    bus->fd = fd;
    bus->dev = st.st_dev;
    bus->ino = st.st_ino;
    bus->via_proc = tarnhost_rootfs::proc_fd_usable();
    int err = open_parts(bus.get(), create);
    if (err != 0) {
        errno = err;
        return nullptr;
    }
    (*buses)[key] = bus;
    return bus;
}

bool sock_path(sockaddr_un *sa, socklen_t *sa_len, const Bus &bus,
               uint32_t id)
{
    memset(sa, 0, sizeof *sa);
    sa->sun_family = AF_UNIX;
    // The path itself where it fits: the kernel resolves /proc/self/fd
    // paths at a cost that halves a steady stream of notifications, and
    // nobody else can change the directories on the path (the root's checks
    // say so).  A root too deep for a socket address is reached through the
    // checked descriptor instead.
    auto fits = [](int w) {
        return w >= 0 && static_cast<size_t>(w) < sizeof(sockaddr_un::sun_path);
    };
    int w = snprintf(sa->sun_path, sizeof sa->sun_path, "%s/h/%u",
                     bus.dir.c_str(), id);
    if (!fits(w) && bus.via_proc)
        w = snprintf(sa->sun_path, sizeof sa->sun_path, "/proc/self/fd/%d/%u",
                     bus.hfd, id);
    if (!fits(w))
        return false;
    *sa_len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) +
                                     static_cast<size_t>(w) + 1);
    return true;
}

int socket_present(const Bus &bus, uint32_t id)
{
    std::string name = decimal(id);
    std::string s = shown(bus, "h", name.c_str());
    return tarnhost_rootfs::check_socket(bus.hfd, name.c_str(), s.c_str());
}

bool socket_alive(const Bus &bus, uint32_t id)
{
    if (socket_present(bus, id) != 0)
        return false;
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return true;  // cannot tell: assume the holder is alive
    sockaddr_un sa;
    socklen_t sa_len;
    bool alive = true;
    if (sock_path(&sa, &sa_len, bus, id)) {
        int rc = connect(fd, reinterpret_cast<sockaddr *>(&sa), sa_len);
        alive = rc == 0 || (errno != ECONNREFUSED && errno != ENOENT);
    }
    close(fd);
    return alive;
}

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

constexpr unsigned kBusLockWaitMs = 10000;

int lock_bus(const Bus &bus)
{
    std::string s = bus.dir + "/lock";
    int fd = open_file(bus.fd, "lock", s.c_str(), O_RDWR | O_CREAT);
    if (fd < 0)
        return -1;
    // Held for a few system calls by a bind or an unbind; a holder that
    // keeps it (stopped, or a member of a shared device holding it on
    // purpose) makes binds fail, named, instead of hang.
    int err = tarnhost_lock::lock_within(fd, LOCK_EX, kBusLockWaitMs);
    if (err == ETIMEDOUT) {
        std::string who = tarnhost_lock::holder(fd);
        err = tarnhost_rootfs::refuse(
            ETIMEDOUT,
            "%s, the lock of the bus, stayed locked for %u s by %s; end or resume "
            "that process, then try again",
            s.c_str(), kBusLockWaitMs / 1000,
            who.empty() ? "another process" : who.c_str());
    }
    if (err != 0) {
        close(fd);
        errno = err;
        return -1;
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

int read_ap(const Bus &bus, int32_t sap, uint32_t *id)
{
    std::string name = decimal(static_cast<uint32_t>(sap));
    std::string s = shown(bus, "ap", name.c_str());
    char buf[16];
    int err = tarnhost_rootfs::read_line(bus.apfd, name.c_str(), s.c_str(),
                                         buf, sizeof buf);
    if (err != 0)
        return err;
    return parse_u32(buf, id) ? 0 : ENOENT;
}

int write_ap(const Bus &bus, int32_t sap, uint32_t id)
{
    std::string name = decimal(static_cast<uint32_t>(sap));
    std::string dir = bus.dir + "/ap";
    return tarnhost_rootfs::replace_file(bus.apfd, name.c_str(), dir.c_str(),
                                         decimal(id) + "\n");
}

void remove_ap_if(const Bus &bus, int32_t sap, uint32_t id)
{
    uint32_t cur;
    if (read_ap(bus, sap, &cur) == 0 && cur == id) {
        std::string name = decimal(static_cast<uint32_t>(sap));
        unlinkat(bus.apfd, name.c_str(), 0);
    }
}

int32_t find_ap(const Bus &bus, uint32_t id)
{
    for (uint32_t sap : list_ids(bus.apfd)) {
        uint32_t holder;
        if (sap <= 0x7FFFFFFFu &&
            read_ap(bus, static_cast<int32_t>(sap), &holder) == 0 &&
            holder == id)
            return static_cast<int32_t>(sap);
    }
    return -1;
}

std::vector<uint32_t> list_records(const Bus &bus, uint32_t opcode, int *err)
{
    *err = 0;
    std::string dir = decimal(opcode);
    int dfd = openat(bus.subfd, dir.c_str(),
                     O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dfd < 0) {
        if (errno != ENOENT)
            *err = errno;
        return {};
    }
    std::vector<uint32_t> ids = list_ids(dfd, err);
    close(dfd);
    return ids;
}

void bump(Bus *bus)
{
    // A new token, not a count read and written back: two bumps at once
    // cannot then leave a value a publisher has already seen.  A publisher
    // reads the token before it lists the records, so a token written
    // after a change always makes it list them again.
    if (bus->gen_fd >= 0) {
        uint64_t token = new_token();
        (void)!pwrite(bus->gen_fd, &token, sizeof token, 0);
    }
}

int add_record(Bus *bus, uint32_t opcode, uint32_t id)
{
    std::string dir = decimal(opcode);
    std::string name = decimal(id);
    std::string ds = shown(*bus, "sub", dir.c_str());
    std::string fs = ds + "/" + name;
    // A sweep may remove an empty opcode directory between our mkdir and
    // our open, or our open and our create: make it again.
    for (int attempt = 0;; ++attempt) {
        int dfd = open_dir(bus->subfd, dir.c_str(), ds.c_str(), true);
        if (dfd < 0) {
            if (errno != ENOENT || attempt == 3)
                return errno;
            continue;
        }
        int fd = open_file(dfd, name.c_str(), fs.c_str(), O_WRONLY | O_CREAT);
        int err = fd < 0 ? errno : 0;
        close(dfd);
        if (fd >= 0) {
            close(fd);
            break;
        }
        if (err != ENOENT || attempt == 3)
            return err;
    }
    bump(bus);
    return 0;
}

bool remove_record(Bus *bus, uint32_t opcode, uint32_t id)
{
    std::string dir = decimal(opcode);
    std::string name = decimal(id);
    bool ok = true;
    int dfd = openat(bus->subfd, dir.c_str(),
                     O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (dfd >= 0) {
        ok = unlinkat(dfd, name.c_str(), 0) == 0 || errno == ENOENT;
        int err = errno;
        close(dfd);
        // The last subscriber of an opcode takes its directory with it.
        unlinkat(bus->subfd, dir.c_str(), AT_REMOVEDIR);
        errno = err;
    }
    bump(bus);
    return ok;
}

void forget_socket(Bus *bus, uint32_t id)
{
    // Only a socket of ours: whatever else sits at its name is left alone.
    if (socket_present(*bus, id) == 0)
        unlinkat(bus->hfd, decimal(id).c_str(), 0);
    remove_slot(bus, id);
}

void forget(Bus *bus, uint32_t opcode, uint32_t id)
{
    remove_record(bus, opcode, id);
    if (!socket_alive(*bus, id))
        forget_socket(bus, id);
}

namespace {

// The handles with a record for `opcode`, read from the directory; records
// whose socket is gone are removed, and anything at a socket's name that
// is not a socket of ours is skipped, never sent to.
std::shared_ptr<const std::vector<uint32_t>> scan(Bus *bus, uint32_t opcode)
{
    int err = 0;
    std::vector<uint32_t> found = list_records(*bus, opcode, &err);
    if (err != 0) {
        errno = err;
        return nullptr;
    }
    auto ids = std::make_shared<std::vector<uint32_t>>();
    for (uint32_t id : found) {
        int err = socket_present(*bus, id);
        if (err == 0) {
            ids->push_back(id);
        } else if (err == ENOENT) {
            remove_record(bus, opcode, id);
            remove_slot(bus, id);
        }
    }
    return ids;
}

}  // namespace

std::shared_ptr<const std::vector<uint32_t>> subscribers_of(Bus *bus,
                                                            uint32_t opcode)
{
    uint64_t gen = 0;
    // A token that cannot be read whole (a member cut the file short)
    // caches nothing: every publish lists the records.
    const bool known =
        bus->gen_fd >= 0 &&
        pread(bus->gen_fd, &gen, sizeof gen, 0) == static_cast<ssize_t>(sizeof gen);
    if (known) {
        std::lock_guard<std::mutex> lock(bus->mu);
        auto it = bus->cache.find(opcode);
        if (it != bus->cache.end() && it->second.gen == gen)
            return it->second.ids;
    }
    auto ids = scan(bus, opcode);
    if (ids == nullptr)
        return nullptr;
    if (known) {
        // Tagged with the generation read before the scan: a change made
        // meanwhile moves the word on and forces the next scan.
        std::lock_guard<std::mutex> lock(bus->mu);
        bus->cache[opcode] = Subscribers{gen, ids};
    }
    return ids;
}

namespace {

// Attaches the segment `shmid` as the slot of handle `id`; null unless it
// is at least a slot's size and holds that handle's slot.
SlotPtr attach_slot(int shmid, uint32_t id)
{
    shmid_ds ds;
    if (shmctl(shmid, IPC_STAT, &ds) != 0 || ds.shm_segsz < kSlotSize)
        return nullptr;
    void *p = shmat(shmid, nullptr, 0);
    if (p == reinterpret_cast<void *>(-1))
        return nullptr;
    auto m = std::make_shared<SlotMap>();
    m->slot = static_cast<Slot *>(p);
    if (m->slot->magic.load(std::memory_order_acquire) != kSlotMagic ||
        m->slot->handle.load(std::memory_order_acquire) != id)
        return nullptr;
    return m;
}

}  // namespace

SlotPtr create_slot(Bus *bus, uint32_t id)
{
    std::string name = decimal(id);
    std::string s = shown(*bus, "state", name.c_str());
    tarnhost_rootfs::Sharing share;
    if (tarnhost_rootfs::device_group(&share) != 0)
        return nullptr;
    int shmid = shmget(IPC_PRIVATE, kSlotSize, IPC_CREAT | IPC_EXCL | 0600);
    if (shmid < 0)
        return nullptr;
    void *p = shmat(shmid, nullptr, 0);
    if (share.on && p != reinterpret_cast<void *>(-1)) {
        shmid_ds ds;
        if (shmctl(shmid, IPC_STAT, &ds) == 0) {
            ds.shm_perm.gid = share.gid;
            ds.shm_perm.mode = 0660;
            shmctl(shmid, IPC_SET, &ds);
        }
    }
    // Gone with the last process that has it attached, however they end.
    shmctl(shmid, IPC_RMID, nullptr);
    if (p == reinterpret_cast<void *>(-1))
        return nullptr;
    auto m = std::make_shared<SlotMap>();
    m->slot = static_cast<Slot *>(p);
    m->slot->handle.store(id, std::memory_order_relaxed);
    m->slot->magic.store(kSlotMagic, std::memory_order_release);
    // Left over from a wrapped counter at most: never someone's live state.
    unlinkat(bus->statefd, name.c_str(), 0);
    int fd = open_file(bus->statefd, name.c_str(), s.c_str(),
                       O_WRONLY | O_CREAT | O_EXCL);
    if (fd < 0)
        return nullptr;
    SlotFile f{kSlotFileMagic, shmid};
    bool written = write(fd, &f, sizeof f) == static_cast<ssize_t>(sizeof f);
    close(fd);
    return written ? m : nullptr;
}

SlotPtr slot_of(Bus *bus, uint32_t id)
{
    {
        std::lock_guard<std::mutex> lock(bus->mu);
        auto it = bus->slots.find(id);
        if (it != bus->slots.end())
            return it->second;
    }
    std::string name = decimal(id);
    std::string s = shown(*bus, "state", name.c_str());
    int fd = open_file(bus->statefd, name.c_str(), s.c_str(), O_RDONLY);
    if (fd < 0)
        return nullptr;
    SlotFile f{};
    ssize_t n = pread(fd, &f, sizeof f, 0);
    close(fd);
    if (n != static_cast<ssize_t>(sizeof f) || f.magic != kSlotFileMagic)
        return nullptr;
    SlotPtr m = attach_slot(f.shmid, id);
    if (!m)
        return nullptr;
    std::lock_guard<std::mutex> lock(bus->mu);
    auto ins = bus->slots.emplace(id, m);
    return ins.first->second;
}

void remove_slot(Bus *bus, uint32_t id)
{
    std::string name = decimal(id);
    unlinkat(bus->statefd, name.c_str(), 0);
    std::lock_guard<std::mutex> lock(bus->mu);
    bus->slots.erase(id);
}

void sweep(Bus *bus)
{
    for (uint32_t id : list_ids(bus->hfd))
        if (!socket_alive(*bus, id))
            forget_socket(bus, id);
    // A slot, record or access point is litter once its socket is gone:
    // sockets are made before any of them and ids are never reused.
    for (uint32_t id : list_ids(bus->statefd))
        if (socket_present(*bus, id) == ENOENT)
            remove_slot(bus, id);
    bool changed = false;
    for (uint32_t opcode : list_ids(bus->subfd)) {
        std::string dir = decimal(opcode);
        int dfd = openat(bus->subfd, dir.c_str(),
                         O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (dfd < 0)
            continue;
        for (uint32_t id : list_ids(dfd))
            if (socket_present(*bus, id) == ENOENT) {
                unlinkat(dfd, decimal(id).c_str(), 0);
                changed = true;
            }
        close(dfd);
        unlinkat(bus->subfd, dir.c_str(), AT_REMOVEDIR);
    }
    if (changed)
        bump(bus);
}

}  // namespace tarnhost_bus
