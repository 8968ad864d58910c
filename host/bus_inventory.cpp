// The bus as it is now, for the tools that show it.  The file tree says
// which handles, access points and subscriptions exist; the kernel says
// which handle files still have a socket bound to them, who holds each
// socket and whether anything waits in its queue.
//
// The kernel's view comes from the socket diagnostics interface
// (NETLINK_SOCK_DIAG, AF_UNIX): each bound socket is listed with the inode
// of the file it is bound at, its own socket inode, the memory of its
// the size of the datagram at the head of its receive queue (the kernel
// counts no datagrams for a datagram socket that is not listening, and
// charges their memory to the sender).  The socket inode leads to the owner
// through /proc/<pid>/fd, readable for the caller's own processes.  Where
// the interface is missing, liveness falls back to a connect() on the file
// and the owner and queue stay unknown.

#include <ctype.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>

#include <algorithm>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/bus_dir.h"
#include "host/tarnhost.h"
#include "host/tarnhost_bus.h"
#include "host/tarnhost_bus_inventory.h"
#include "platform/bus.h"

namespace {

struct KernelSocket {
    uint32_t ino = 0;  // the socket's own inode
    int64_t queue_head_bytes = -1;
};

// Bound Unix sockets by the inode of the file they are bound at; false when
// the kernel would not tell.
bool kernel_sockets(std::unordered_map<uint64_t, KernelSocket> *out)
{
    int fd = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd < 0)
        return false;
    struct {
        nlmsghdr nlh;
        unix_diag_req req;
    } msg;
    memset(&msg, 0, sizeof msg);
    msg.nlh.nlmsg_len = sizeof msg;
    msg.nlh.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    msg.nlh.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    msg.req.sdiag_family = AF_UNIX;
    msg.req.udiag_states = 0xFFFFFFFFu;
    msg.req.udiag_show = UDIAG_SHOW_VFS | UDIAG_SHOW_RQLEN;
    sockaddr_nl nl;
    memset(&nl, 0, sizeof nl);
    nl.nl_family = AF_NETLINK;
    if (sendto(fd, &msg, sizeof msg, 0, reinterpret_cast<sockaddr *>(&nl),
               sizeof nl) != static_cast<ssize_t>(sizeof msg)) {
        close(fd);
        return false;
    }
    std::vector<char> buf(32768);
    bool ok = false;
    for (bool done = false; !done;) {
        ssize_t n = recv(fd, buf.data(), buf.size(), 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        size_t left = static_cast<size_t>(n);
        for (nlmsghdr *h = reinterpret_cast<nlmsghdr *>(buf.data());
             NLMSG_OK(h, left); h = NLMSG_NEXT(h, left)) {
            if (h->nlmsg_type == NLMSG_DONE) {
                ok = true;
                done = true;
                break;
            }
            if (h->nlmsg_type == NLMSG_ERROR) {
                done = true;
                break;
            }
            if (h->nlmsg_len < NLMSG_LENGTH(sizeof(unix_diag_msg)))
                continue;
            const unix_diag_msg *d =
                static_cast<const unix_diag_msg *>(NLMSG_DATA(h));
            KernelSocket s;
            s.ino = d->udiag_ino;
            bool bound = false;
            uint64_t vfs_ino = 0;
            unsigned attr_len = h->nlmsg_len - NLMSG_LENGTH(sizeof *d);
            for (rtattr *a = reinterpret_cast<rtattr *>(
                     reinterpret_cast<char *>(NLMSG_DATA(h)) + sizeof *d);
                 RTA_OK(a, attr_len); a = RTA_NEXT(a, attr_len)) {
                const size_t payload = RTA_PAYLOAD(a);
                if (a->rta_type == UNIX_DIAG_VFS &&
                    payload >= sizeof(unix_diag_vfs)) {
                    unix_diag_vfs v;
                    memcpy(&v, RTA_DATA(a), sizeof v);
                    vfs_ino = v.udiag_vfs_ino;
                    bound = true;
                } else if (a->rta_type == UNIX_DIAG_RQLEN &&
                           payload >= sizeof(unix_diag_rqlen)) {
                    unix_diag_rqlen q;
                    memcpy(&q, RTA_DATA(a), sizeof q);
                    s.queue_head_bytes = q.udiag_rqueue;
                }
            }
            if (bound)
                (*out)[vfs_ino] = s;
        }
    }
    close(fd);
    return ok;
}

// The process holding each socket inode asked for, found through the
// descriptors of the processes the caller may look into.
std::unordered_map<uint32_t, pid_t> owners(
    const std::unordered_map<uint32_t, bool> &wanted)
{
    std::unordered_map<uint32_t, pid_t> found;
    if (wanted.empty())
        return found;
    DIR *proc = opendir("/proc");
    if (proc == nullptr)
        return found;
    while (dirent *p = readdir(proc)) {
        if (!isdigit(static_cast<unsigned char>(p->d_name[0])))
            continue;
        std::string fddir = std::string("/proc/") + p->d_name + "/fd";
        DIR *fds = opendir(fddir.c_str());
        if (fds == nullptr)
            continue;
        while (dirent *f = readdir(fds)) {
            if (f->d_name[0] == '.')
                continue;
            char target[64];
            ssize_t n = readlink((fddir + "/" + f->d_name).c_str(), target,
                                 sizeof target - 1);
            if (n <= 8)
                continue;
            target[n] = '\0';
            unsigned long ino = 0;
            if (sscanf(target, "socket:[%lu]", &ino) != 1)
                continue;
            const uint32_t key = static_cast<uint32_t>(ino);
            if (wanted.count(key) != 0 && found.count(key) == 0)
                found[key] = static_cast<pid_t>(atol(p->d_name));
        }
        closedir(fds);
    }
    closedir(proc);
    return found;
}

void read_comm(pid_t pid, char *out, size_t size)
{
    out[0] = '\0';
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/comm", static_cast<int>(pid));
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    ssize_t n = read(fd, out, size - 1);
    close(fd);
    if (n <= 0) {
        out[0] = '\0';
        return;
    }
    // The kernel ends the name with a newline; the name itself may hold
    // one too.
    if (out[n - 1] == '\n')
        --n;
    out[n] = '\0';
}

// The liveness of one handle, from the kernel's list when there is one.
bool handle_alive(const tarnhost_bus::Bus &bus, uint32_t id, bool have_kernel,
                  const std::unordered_map<uint64_t, KernelSocket> &kernel,
                  const KernelSocket **sock)
{
    *sock = nullptr;
    if (!have_kernel)
        return tarnhost_bus::socket_alive(bus, id);
    const std::string name = std::to_string(id);
    struct stat st;
    if (tarnhost_bus::socket_present(bus, id) != 0 ||
        fstatat(bus.hfd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    auto it = kernel.find(static_cast<uint64_t>(st.st_ino));
    if (it == kernel.end())
        return false;
    *sock = &it->second;
    return true;
}

// The handle behind access point `sap`; BUS_HANDLE_NONE when its file
// names none.
uint32_t ap_handle(const tarnhost_bus::Bus &bus, uint32_t sap)
{
    uint32_t id = BUS_HANDLE_NONE;
    if (tarnhost_bus::read_ap(bus, static_cast<int32_t>(sap), &id) != 0)
        return BUS_HANDLE_NONE;
    return id;
}

// The bus of the root in force, when there is one; errno 0 when there is
// none yet.
tarnhost_bus::BusPtr open_bus()
{
    tarnhost_bus::BusPtr bus = tarnhost_bus::bus_open(false);
    if (!bus && errno == ENOENT)
        errno = 0;
    return bus;
}

}  // namespace

extern "C" {

int tarnhost_bus_handle_alive(uint32_t handle)
{
    tarnhost_bus::BusPtr bus = open_bus();
    return bus && tarnhost_bus::socket_alive(*bus, handle) ? 1 : 0;
}

size_t tarnhost_bus_access_points(tarnhost_bus_ap_info_t *out, size_t max)
{
    tarnhost_bus::BusPtr bus = open_bus();
    if (!bus)
        return 0;
    int err = 0;
    std::vector<uint32_t> saps = tarnhost_bus::list_ids(bus->apfd, &err);
    std::sort(saps.begin(), saps.end());
    size_t n = 0;
    for (uint32_t sap : saps) {
        if (sap == 0 || sap > 0x7FFFFFFFu)
            continue;
        if (out != nullptr && n < max) {
            tarnhost_bus_ap_info_t &a = out[n];
            a.sap = static_cast<int32_t>(sap);
            a.handle = ap_handle(*bus, sap);
            a.alive = a.handle != BUS_HANDLE_NONE && tarnhost_bus::socket_alive(*bus, a.handle);
        }
        ++n;
    }
    errno = err;
    return n;
}

size_t tarnhost_bus_opcodes(uint32_t *out, size_t max)
{
    tarnhost_bus::BusPtr bus = open_bus();
    if (!bus)
        return 0;
    int err = 0;
    std::vector<uint32_t> ops = tarnhost_bus::list_ids(bus->subfd, &err);
    std::sort(ops.begin(), ops.end());
    for (size_t i = 0; out != nullptr && i < ops.size() && i < max; ++i)
        out[i] = ops[i];
    errno = err;
    return ops.size();
}

size_t tarnhost_bus_handles(tarnhost_bus_handle_info_t *out, size_t max)
{
    tarnhost_bus::BusPtr bus = open_bus();
    if (!bus)
        return 0;
    int err = 0;
    std::vector<uint32_t> ids = tarnhost_bus::list_ids(bus->hfd, &err);
    std::sort(ids.begin(), ids.end());

    std::unordered_map<uint64_t, KernelSocket> kernel;
    const bool have_kernel = kernel_sockets(&kernel);

    // Access points by handle.
    std::unordered_map<uint32_t, int32_t> sap_of;
    for (uint32_t sap : tarnhost_bus::list_ids(bus->apfd)) {
        if (sap == 0 || sap > 0x7FFFFFFFu)
            continue;
        const uint32_t h = ap_handle(*bus, sap);
        if (h != BUS_HANDLE_NONE && sap_of.count(h) == 0)
            sap_of[h] = static_cast<int32_t>(sap);
    }

    std::vector<tarnhost_bus_handle_info_t> all(ids.size());
    std::unordered_map<uint32_t, bool> wanted;
    std::vector<uint32_t> sock_ino(ids.size(), 0);
    for (size_t i = 0; i < ids.size(); ++i) {
        tarnhost_bus_handle_info_t &h = all[i];
        memset(&h, 0, sizeof h);
        h.handle = ids[i];
        auto s = sap_of.find(ids[i]);
        h.sap = s == sap_of.end() ? -1 : s->second;
        h.pid = -1;
        h.queue_head_bytes = -1;
        h.drops = -1;
        const KernelSocket *k = nullptr;
        h.alive = handle_alive(*bus, ids[i], have_kernel, kernel, &k) ? 1 : 0;
        uint32_t missed = 0;
        if (h.alive && tarnhost_bus_missed(ids[i], &missed) == 0)
            h.drops = missed;
        if (k != nullptr) {
            h.queue_head_bytes = k->queue_head_bytes;
            sock_ino[i] = k->ino;
            wanted[k->ino] = true;
        }
        if (h.sap >= 0 && !h.alive)
            h.sap = -1;  // a dead handle serves nothing
    }
    std::unordered_map<uint32_t, pid_t> who = owners(wanted);
    for (size_t i = 0; i < all.size(); ++i) {
        auto w = who.find(sock_ino[i]);
        if (sock_ino[i] == 0 || w == who.end())
            continue;
        all[i].pid = w->second;
        read_comm(w->second, all[i].comm, sizeof all[i].comm);
    }
    for (size_t i = 0; out != nullptr && i < all.size() && i < max; ++i)
        out[i] = all[i];
    errno = err;
    return all.size();
}

}  // extern "C"
