// The host root: the one directory that makes a set of processes one
// simulated device, and the mapping of database URIs to directories in it.
//
// A machine is shared: the root is used only when it is a real directory
// of the calling user that nobody else can write, in a chain of
// directories that nobody else can change, and everything below it is
// reached through descriptors with O_NOFOLLOW and checked the same way.

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <string>

#include "host/rootfs.h"
#include "host/tarnhost.h"
#include "platform/kvs.h"

namespace {

// Refusals, each naming the problem and what to do about it.
const char kLinkText[] =
    "%s is a symbolic link, and the host follows none under its root; "
    "remove the link, or set TARNHOST_ROOT to a directory of your own";
const char kNotDirText[] =
    "%s is not a directory; remove it, or set TARNHOST_ROOT to another path";
const char kForeignText[] =
    "%s belongs to uid %u, not to you (uid %u); remove it, or set "
    "TARNHOST_ROOT to a directory of your own";
const char kOpenText[] =
    "%s can be written by other users (mode %04o); make it private with "
    "\"chmod go-w %s\", or remove it";
const char kParentText[] =
    "%s lies in %s, which another user can change (owner uid %u, mode "
    "%04o); choose a root in a directory that only you or root can write";
const char kFileText[] =
    "%s is not a plain file of your own (a link, a device or a second name "
    "of another file); remove it";
const char kForeignSharedText[] =
    "%s belongs to uid %u and group %u, neither you (uid %u) nor the "
    "device's group %s (%u); remove it, or set TARNHOST_ROOT to a directory "
    "of your own";
const char kForeignLinkText[] =
    "%s is reached through the link %s, which belongs to uid %u, not to you "
    "or root; choose a root whose path has no link of another user";
const char kUnnamedGroupText[] =
    "%s is shared with the group %s (owner uid %u, mode %04o), and "
    "TARNHOST_GROUP does not name it; set TARNHOST_GROUP=%s to use the "
    "device with that group, or set TARNHOST_ROOT to a directory of your own";
const char kSocketText[] =
    "%s is not a socket of the bus; remove it";

thread_local char g_problem[1024];

}  // namespace

extern "C" {

// Private to the user, in a sticky directory where nobody else can remove
// or replace it.
const char *tarnhost_default_root(void)
{
    static thread_local char buf[64];
    snprintf(buf, sizeof buf, "/dev/shm/tarnhost-%u",
             static_cast<unsigned>(geteuid()));
    return buf;
}

}  // extern "C"

namespace {

std::string join(const std::string &dir, const char *name)
{
    if (dir == "/")
        return dir + name;
    return dir + "/" + name;
}

// An ancestor of the root: someone else able to rename entries in it could
// swap the root for a directory of theirs between two of our calls.
int check_ancestor(int fd, const std::string &shown, const char *root)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return errno;
    bool owner_ok = st.st_uid == 0 || st.st_uid == geteuid();
    bool open_to_others = (st.st_mode & 022) != 0 &&
                          (st.st_mode & S_ISVTX) == 0;
    if (!owner_ok || open_to_others)
        return tarnhost_rootfs::refuse(
            EACCES, kParentText, root, shown.c_str(),
            static_cast<unsigned>(st.st_uid),
            static_cast<unsigned>(st.st_mode & 07777));
    return 0;
}

// The parent directory of the root, reached from "/" one checked component
// at a time.  -1 with errno.
int open_parent(const char *root, std::string *base)
{
    std::string r(root);
    while (r.size() > 1 && r.back() == '/')
        r.pop_back();
    size_t slash = r.rfind('/');
    std::string parent;
    if (slash == std::string::npos) {
        parent = ".";
        *base = r;
    } else {
        parent = slash == 0 ? "/" : r.substr(0, slash);
        *base = r.substr(slash + 1);
    }
    if (base->empty() || *base == "." || *base == "..") {
        errno = tarnhost_rootfs::refuse(EINVAL, kNotDirText, root);
        return -1;
    }
    // realpath follows links: each one on the way must be one that only
    // we or root could have put there and can change, or whoever owns it
    // chooses where the device lives.
    for (size_t at = 1; at <= parent.size(); ++at) {
        if (at != parent.size() && parent[at] != '/')
            continue;
        const std::string prefix = parent.substr(0, at);
        struct stat lst;
        if (lstat(prefix.c_str(), &lst) != 0 || !S_ISLNK(lst.st_mode))
            continue;
        if (lst.st_uid != 0 && lst.st_uid != geteuid()) {
            errno = tarnhost_rootfs::refuse(EACCES, kForeignLinkText, root,
                                            prefix.c_str(),
                                            static_cast<unsigned>(lst.st_uid));
            return -1;
        }
        const size_t cut = prefix.rfind('/');
        const std::string holder = cut == std::string::npos ? "."
                                   : cut == 0               ? "/"
                                                            : prefix.substr(0, cut);
        struct stat hst;
        if (stat(holder.c_str(), &hst) == 0 &&
            ((hst.st_uid != 0 && hst.st_uid != geteuid()) ||
             ((hst.st_mode & 022) != 0 && (hst.st_mode & S_ISVTX) == 0))) {
            errno = tarnhost_rootfs::refuse(
                EACCES, kParentText, root, holder.c_str(),
                static_cast<unsigned>(hst.st_uid),
                static_cast<unsigned>(hst.st_mode & 07777));
            return -1;
        }
    }
    char *real = realpath(parent.c_str(), nullptr);
    if (real == nullptr)
        return -1;
    std::string resolved(real);
    free(real);
    int fd = open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    std::string shown = "/";
    int err = check_ancestor(fd, shown, root);
    size_t pos = 1;
    while (err == 0 && pos < resolved.size()) {
        size_t end = resolved.find('/', pos);
        if (end == std::string::npos)
            end = resolved.size();
        std::string comp = resolved.substr(pos, end - pos);
        pos = end + 1;
        if (comp.empty())
            continue;
        int next = openat(fd, comp.c_str(),
                          O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0) {
            err = errno;
            break;
        }
        close(fd);
        fd = next;
        shown = join(shown, comp.c_str());
        err = check_ancestor(fd, shown, root);
    }
    if (err != 0) {
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

// Why `name` below `dirfd` could not be opened as a directory or file of
// ours, as a refusal when it is a link or of the wrong type.
int explain_open_failure(int err, int dirfd, const char *name,
                         const char *shown, bool want_dir)
{
    struct stat st;
    if (fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return err;
    if (S_ISLNK(st.st_mode))
        return tarnhost_rootfs::refuse(ELOOP, kLinkText, shown);
    if (want_dir && !S_ISDIR(st.st_mode))
        return tarnhost_rootfs::refuse(ENOTDIR, kNotDirText, shown);
    if (!want_dir && !S_ISREG(st.st_mode))
        return tarnhost_rootfs::refuse(EACCES, kFileText, shown);
    // Not allowed in: most likely someone else's, and then that is the
    // clearer thing to say.
    if (err == EACCES || err == EPERM) {
        int why = tarnhost_rootfs::check_stat(st, shown);
        if (why != 0)
            return why;
    }
    return err;
}

bool scheme_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' ||
           c == '-';
}

bool path_char(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c >= '0' && c <= '9') || c == '.' || c == '_' || c == '-' ||
           c == '/';
}

// Appends [s, s + n) at *pos, keeping room for the terminator.
bool append(char *out, size_t size, size_t *pos, const char *s, size_t n)
{
    if (n >= size - *pos)
        return false;
    memcpy(out + *pos, s, n);
    *pos += n;
    out[*pos] = '\0';
    return true;
}

}  // namespace

namespace tarnhost_rootfs {

int refuse(int err, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(g_problem, sizeof g_problem, fmt, ap);
    va_end(ap);
    return err;
}

// Ours alone: owned by the caller and writable by nobody else; or, on a
// device shared with a group on purpose, in that group and writable by
// nobody outside it.
int check_stat(const struct stat &st, const char *shown)
{
    Sharing share;
    int err = device_group(&share);
    if (err != 0)
        return err;
    bool in_group = share.on && st.st_gid == share.gid;
    std::string group;
    // Someone else's group device, or one's own, met without TARNHOST_GROUP:
    // naming the group is the fix, not removing what the group shares.
    if (!share.on && (st.st_uid != geteuid() || (st.st_mode & 022) != 0) &&
        shared_with_caller(st, &group))
        return refuse(st.st_uid != geteuid() ? EPERM : EACCES, kUnnamedGroupText,
                      shown, group.c_str(), static_cast<unsigned>(st.st_uid),
                      static_cast<unsigned>(st.st_mode & 07777), group.c_str());
    if (st.st_uid != geteuid() && !in_group) {
        if (share.on)
            return refuse(EPERM, kForeignSharedText, shown,
                          static_cast<unsigned>(st.st_uid),
                          static_cast<unsigned>(st.st_gid),
                          static_cast<unsigned>(geteuid()),
                          share.name.c_str(),
                          static_cast<unsigned>(share.gid));
        return refuse(EPERM, kForeignText, shown,
                      static_cast<unsigned>(st.st_uid),
                      static_cast<unsigned>(geteuid()));
    }
    mode_t others = in_group ? 002 : 022;
    if ((st.st_mode & others) != 0)
        return refuse(EACCES, kOpenText, shown,
                      static_cast<unsigned>(st.st_mode & 07777), shown);
    return 0;
}

int check_dir(int fd, const char *shown)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return errno;
    if (!S_ISDIR(st.st_mode))
        return refuse(ENOTDIR, kNotDirText, shown);
    return check_stat(st, shown);
}

int check_file(int fd, const char *shown)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        return errno;
    if (!S_ISREG(st.st_mode) || st.st_nlink != 1)
        return refuse(EACCES, kFileText, shown);
    return check_stat(st, shown);
}

int check_socket(int dirfd, const char *name, const char *shown)
{
    struct stat st;
    if (fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return errno;
    if (S_ISLNK(st.st_mode))
        return refuse(ELOOP, kLinkText, shown);
    if (!S_ISSOCK(st.st_mode))
        return refuse(EACCES, kSocketText, shown);
    return check_stat(st, shown);
}

int read_line(int dirfd, const char *name, const char *shown, char *buf,
              size_t size)
{
    int fd = open_file(dirfd, name, shown, O_RDONLY);
    if (fd < 0)
        return errno;
    ssize_t n = read(fd, buf, size - 1);
    int err = n < 0 ? errno : 0;
    close(fd);
    if (n < 0)
        return err;
    buf[n] = '\0';
    char *nl = strchr(buf, '\n');
    if (nl != nullptr)
        *nl = '\0';
    return 0;
}

int replace_file(int dirfd, const char *name, const char *shown_dir,
                 const std::string &text)
{
    // The new file is made with O_EXCL: whatever sits at its name is not
    // ours (a crashed writer's leftover is removed first).
    std::string tmp = std::string(name) + ".tmp." + std::to_string(getpid());
    std::string shown = std::string(shown_dir) + "/" + tmp;
    unlinkat(dirfd, tmp.c_str(), 0);
    int fd = open_file(dirfd, tmp.c_str(), shown.c_str(),
                       O_WRONLY | O_CREAT | O_EXCL);
    if (fd < 0)
        return errno;
    ssize_t w = write(fd, text.data(), text.size());
    int err = w == static_cast<ssize_t>(text.size()) ? 0 : (errno ? errno : EIO);
    close(fd);
    if (err == 0 && renameat(dirfd, tmp.c_str(), dirfd, name) != 0)
        err = errno;
    if (err != 0)
        unlinkat(dirfd, tmp.c_str(), 0);
    return err;
}

int open_dir(int dirfd, const char *name, const char *shown, bool create)
{
    bool made = create && mkdirat(dirfd, name, 0700) == 0;
    if (create && !made && errno != EEXIST)
        return -1;
    int fd = openat(dirfd, name,
                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        errno = explain_open_failure(errno, dirfd, name, shown, true);
        return -1;
    }
    if (made)
        share_new(fd, kSharedDir);
    int err = check_dir(fd, shown);
    if (err != 0) {
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

int open_file(int dirfd, const char *name, const char *shown, int flags)
{
    // O_NONBLOCK: a FIFO planted in a shared directory would otherwise hold
    // the open until someone opens its other end; this way it is opened at
    // once (or refused with ENXIO) and then refused as not a plain file.
    int fd = openat(dirfd, name, flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK,
                    0600);
    if (fd < 0) {
        errno = explain_open_failure(errno, dirfd, name, shown, false);
        return -1;
    }
    if ((flags & O_CREAT) != 0)
        share_new(fd, kSharedFile);
    int err = check_file(fd, shown);
    if (err == 0 && (flags & O_NONBLOCK) == 0 &&
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0)
        err = errno;
    if (err != 0) {
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

int open_root(bool create)
{
    g_problem[0] = '\0';
    Sharing share;
    int serr = device_group(&share);
    if (serr != 0) {
        errno = serr;
        return -1;
    }
    const char *root = tarnhost_root();
    std::string base;
    int pfd = open_parent(root, &base);
    if (pfd < 0)
        return -1;
    int fd = open_dir(pfd, base.c_str(), root, create);
    int err = errno;
    close(pfd);
    if (fd < 0) {
        errno = err;
        return -1;
    }
    if (create) {
        static const char *const kSubdirs[] = {"kvs", "log", "bus",
                                               "supervisor"};
        for (const char *sub : kSubdirs) {
            std::string shown = join(root, sub);
            int sfd = open_dir(fd, sub, shown.c_str(), true);
            if (sfd < 0) {
                err = errno;
                close(fd);
                errno = err;
                return -1;
            }
            close(sfd);
        }
    }
    return fd;
}

int open_subdir(const char *sub, bool create)
{
    // Built before anything is opened: running out of memory leaves
    // nothing open behind.
    std::string shown = join(tarnhost_root(), sub);
    int rfd = open_root(create);
    if (rfd < 0)
        return -1;
    int fd = open_dir(rfd, sub, shown.c_str(), create);
    int err = errno;
    close(rfd);
    errno = err;
    return fd;
}

bool proc_fd_usable()
{
    static const bool usable = access("/proc/self/fd", X_OK) == 0;
    return usable;
}

PinnedDir::~PinnedDir()
{
    if (fd >= 0)
        close(fd);
}

uint32_t prepare_kvs_dir(const char *path, PinnedDir *dir)
{
    const char *root = tarnhost_root();
    size_t rl = strlen(root);
    if (path == nullptr || strncmp(path, root, rl) != 0 ||
        strncmp(path + rl, "/kvs/", 5) != 0)
        return KVS_ERR_BAD_URI;
    // The names shown in messages are built as we go, and building one may
    // run out of memory: the descriptor held then is closed on the way out.
    struct HeldFd {
        int fd = -1;
        ~HeldFd()
        {
            if (fd >= 0)
                close(fd);
        }
        void replace(int next)
        {
            if (fd >= 0)
                close(fd);
            fd = next;
        }
    } held;
    std::string shown = join(root, "kvs");
    // The root must exist already: a reader does not bring up a device.
    held.fd = open_root(false);
    if (held.fd < 0)
        return KVS_ERR_IO;
    int fd = open_dir(held.fd, "kvs", shown.c_str(), true);
    int open_err = errno;
    held.replace(fd);
    if (fd < 0) {
        errno = open_err;
        return KVS_ERR_IO;
    }
    const char *p = path + rl + 5;
    while (*p != '\0') {
        const char *end = strchr(p, '/');
        std::string comp = end ? std::string(p, end) : std::string(p);
        p = end ? end + 1 : p + comp.size();
        if (comp.empty())
            continue;
        shown = join(shown, comp.c_str());
        int next = open_dir(held.fd, comp.c_str(), shown.c_str(), true);
        int err = errno;
        held.replace(next);
        if (next < 0) {
            errno = err;
            return KVS_ERR_IO;
        }
    }
    // The store opens its two files by name and follows links: whatever is
    // there already must be a file of ours.  Nothing can appear between this
    // check and the store's open: nobody else may write here (on a shared
    // device the members may write the files but not the directory).
    Sharing share;
    if (device_group(&share) != 0)
        return KVS_ERR_IO;
    share_new(held.fd, S_ISGID | 0750);
    for (const char *file : {"data.mdb", "lock.mdb"}) {
        std::string fshown = join(shown, file);
        int ffd = open_file(held.fd, file, fshown.c_str(),
                            share.on ? O_RDWR | O_CREAT : O_RDONLY);
        if (ffd < 0 && errno == ENOENT)
            continue;
        if (ffd < 0) {
            int err = errno;
            held.replace(-1);
            errno = err;
            return KVS_ERR_IO;
        }
        close(ffd);
    }
    fd = held.fd;
    held.fd = -1;
    dir->fd = fd;
    if (proc_fd_usable())
        snprintf(dir->path, sizeof dir->path, "/proc/self/fd/%d", fd);
    else
        snprintf(dir->path, sizeof dir->path, "%s", path);
    return KVS_OK;
}

}  // namespace tarnhost_rootfs

extern "C" {

const char *tarnhost_root(void)
{
    // Read on every call: tests move the root between cases.
    const char *root = getenv("TARNHOST_ROOT");
    return (root != nullptr && root[0] != '\0') ? root : tarnhost_default_root();
}

int tarnhost_root_prepare(void)
{
    // The parent must exist already: creating a whole chain would hide a
    // mistyped TARNHOST_ROOT behind a fresh, empty device.
    int fd = tarnhost_rootfs::open_root(true);
    if (fd < 0)
        return errno;
    close(fd);
    return 0;
}

const char *tarnhost_root_problem(void)
{
    return g_problem;
}

const char *tarnhost_root_strerror(int err)
{
    return g_problem[0] != '\0' ? g_problem : strerror(err);
}

uint32_t tarnhost_kvs_path(const char *uri, char *out, size_t size)
{
    if (uri == nullptr || out == nullptr || size == 0)
        return KVS_ERR_BAD_URI;
    out[0] = '\0';

    const char *colon = strchr(uri, ':');
    if (colon == nullptr || colon == uri)
        return KVS_ERR_BAD_URI;
    for (const char *p = uri; p < colon; ++p)
        if (!scheme_char(*p))
            return KVS_ERR_BAD_URI;

    const char *root = tarnhost_root();
    size_t pos = 0;
    if (!append(out, size, &pos, root, strlen(root)) ||
        !append(out, size, &pos, "/kvs/", 5) ||
        !append(out, size, &pos, uri, static_cast<size_t>(colon - uri)))
        goto bad;

    {
        const char *p = colon + 1;
        int components = 0;
        for (const char *c = p; *c != '\0'; ++c)
            if (!path_char(*c))
                goto bad;
        while (*p != '\0') {
            while (*p == '/')
                ++p;
            const char *end = p;
            while (*end != '\0' && *end != '/')
                ++end;
            size_t n = static_cast<size_t>(end - p);
            if (n == 0)
                break;
            if ((n == 1 && p[0] == '.') ||
                (n == 2 && p[0] == '.' && p[1] == '.'))
                goto bad;
            // The store keeps these two files in every database directory;
            // a database of that name would collide with its parent's.
            if ((n == 8 && memcmp(p, "data.mdb", 8) == 0) ||
                (n == 8 && memcmp(p, "lock.mdb", 8) == 0))
                goto bad;
            if (!append(out, size, &pos, "/", 1) ||
                !append(out, size, &pos, p, n))
                goto bad;
            ++components;
            p = end;
        }
        if (components == 0)
            goto bad;
    }
    return 0;

bad:
    out[0] = '\0';
    return KVS_ERR_BAD_URI;
}

}  // extern "C"
