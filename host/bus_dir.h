// The bus directory <root>/bus and what lives in it: handle sockets,
// access points, subscription records, per-handle delivery state, and the
// sweep that removes what dead processes left behind.
//
// Everything is reached through descriptors of directories checked to be
// ours alone (host/rootfs.h).  Socket addresses are paths below the checked
// root, whose directories nobody else can change; a name in h/ is checked
// to be a socket of ours before anything is sent to it.
#ifndef TARNHOST_BUS_DIR_H
#define TARNHOST_BUS_DIR_H

#include <stdint.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace tarnhost_bus {

// The delivery state of one handle, in memory shared by the handle's
// process and every publisher that meets it: publishers count what they
// could not deliver; the receiver counts what it took, which tells a
// waiting publisher that the queue is moving.  The memory is a System V
// segment, not a mapped file: on a device shared with a group any member
// may shrink a file of the bus, and a mapping a truncation cuts short
// kills whoever touches it with SIGBUS, while a segment never shrinks.
// The file <root>/bus/state/<id> names the segment (SlotFile); the
// creator marks it for removal at once, so it goes with the last process
// that has it attached.
struct Slot {
    std::atomic<uint32_t> magic;
    std::atomic<uint32_t> missed;    // messages the handle did not get
    std::atomic<uint32_t> stalled;   // 1: its queue stayed full, do not wait
    std::atomic<uint32_t> received;  // messages it took off its queue
    std::atomic<uint32_t> caught_up; // `missed` when it last resynchronised
    std::atomic<uint32_t> handle;    // whose slot this is
};
constexpr uint32_t kSlotMagic = 0x54534C54u;
constexpr size_t kSlotSize = 64;
static_assert(sizeof(Slot) <= kSlotSize, "a slot fits its segment");

// What state/<id> holds, read with pread and checked before use.
struct SlotFile {
    uint32_t magic;  // kSlotFileMagic
    int32_t shmid;
};
constexpr uint32_t kSlotFileMagic = 0x53484D31u;

// An attachment of a slot; detached with the last reference.
struct SlotMap {
    Slot *slot = nullptr;
    ~SlotMap();
};
using SlotPtr = std::shared_ptr<SlotMap>;

struct Subscribers {
    uint64_t gen = 0;
    std::shared_ptr<const std::vector<uint32_t>> ids;
};

enum class Sub { kHandles, kAccessPoints };

// One bus directory as this process sees it, shared by its handles.
struct Bus {
    std::string dir;  // "<root>/bus", for messages
    dev_t dev = 0;
    ino_t ino = 0;
    int fd = -1, hfd = -1, apfd = -1, subfd = -1, statefd = -1;
    bool via_proc = false;  // /proc/self/fd reaches hfd (for deep roots)
    // <root>/bus/gen holds the subscription generation, a token that
    // every change to a subscription record replaces by a new one.  Read
    // with pread, never mapped (a member could shrink it under a
    // mapping); -1 when it could not be opened (then every publish reads
    // the directory).
    int gen_fd = -1;
    std::mutex mu;
    std::unordered_map<uint32_t, Subscribers> cache;  // under mu
    std::unordered_map<uint32_t, SlotPtr> slots;      // under mu
    ~Bus();
};
using BusPtr = std::shared_ptr<Bus>;

// The bus of the root in force, opened once per process and directory
// (made when `create` is set).  Null with errno (and the root's refusal
// text) when the root or a directory or file of the bus is not ours.
BusPtr bus_open(bool create);

// The socket address of handle `id`; false when it does not fit.
bool sock_path(sockaddr_un *sa, socklen_t *sa_len, const Bus &bus,
               uint32_t id);
// 0 when `id` is a socket of the bus, ENOENT when nothing is there, ELOOP
// or EACCES (with the refusal text) for anything else at its name.
int socket_present(const Bus &bus, uint32_t id);
// True when a live process has h/<id> bound (or when that cannot be told).
bool socket_alive(const Bus &bus, uint32_t id);

// Strict decimal, as in the bus's file names.
bool parse_u32(const char *s, uint32_t *out);
// The decimal entries of a directory descriptor (not consumed).  A
// directory that cannot be read to its end sets *err (when given): a
// publisher must hear of that instead of silently reaching nobody.
std::vector<uint32_t> list_ids(int dirfd, int *err = nullptr);

// The bus-wide lock (flock on <root>/bus/lock); the descriptor or -1.
int lock_bus(const Bus &bus);
// The next handle id from the counter in the lock file.
uint32_t draw_id(int lock_fd);

// Access points: the file ap/<sap> holds the decimal id of its handle.
int read_ap(const Bus &bus, int32_t sap, uint32_t *id);
int write_ap(const Bus &bus, int32_t sap, uint32_t id);
void remove_ap_if(const Bus &bus, int32_t sap, uint32_t id);
// The access point whose entry names `id`, or -1.
int32_t find_ap(const Bus &bus, uint32_t id);

// Subscription records sub/<opcode>/<id>.
int add_record(Bus *bus, uint32_t opcode, uint32_t id);
// The records of `opcode` as they are, live or not; *err is 0, or errno
// when the directory could not be read to its end (none is no error).
std::vector<uint32_t> list_records(const Bus &bus, uint32_t opcode, int *err);
bool remove_record(Bus *bus, uint32_t opcode, uint32_t id);
// The live subscribers of `opcode` (cached until the generation moves);
// records of handles whose socket is gone are removed on the way.  Null
// with errno when the records cannot be read.
std::shared_ptr<const std::vector<uint32_t>> subscribers_of(Bus *bus,
                                                            uint32_t opcode);
void bump(Bus *bus);
// A subscriber found dead: its record goes, and its socket and state when
// nobody holds the socket.
void forget(Bus *bus, uint32_t opcode, uint32_t id);
// The socket file and state of a handle known to be gone.
void forget_socket(Bus *bus, uint32_t id);

// Delivery state: the handle's own slot (created at bind) and the slot of
// another handle (mapped on first use, null when it has none).
SlotPtr create_slot(Bus *bus, uint32_t id);
SlotPtr slot_of(Bus *bus, uint32_t id);
void remove_slot(Bus *bus, uint32_t id);

// Removes the sockets, slots and subscription records of handles whose
// process is gone, for every opcode.  (An access point of a dead handle is
// replaced by the next bind of it, under the bus lock.)
void sweep(Bus *bus);

}  // namespace tarnhost_bus

#endif
