// Opening things under the host root without trusting anyone else's hands
// in it.  Every directory is reached from a checked descriptor of the root
// with openat(O_NOFOLLOW), and every directory and file met on the way must
// be the caller's own and writable by nobody else, so a symlink or a file
// planted by another user is refused instead of followed.
#ifndef TARNHOST_ROOTFS_H
#define TARNHOST_ROOTFS_H

#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace tarnhost_rootfs {

// Opens the checked root (creating it and its four subdirectories when
// `create` is set; the parent must exist).  A descriptor or -1 with errno;
// a refusal also leaves its text for tarnhost_root_problem().
int open_root(bool create);

// Opens (and with `create` makes, mode 0700) the directory `name`, one
// component, below the directory `dirfd`, checked like the root.
int open_dir(int dirfd, const char *name, const char *shown, bool create);

// Opens the regular file `name` below `dirfd` with `flags` (O_NOFOLLOW and
// O_CLOEXEC added; O_CREAT creates it with mode 0600).  Refused unless it is
// a regular file of the caller with one link and writable by nobody else.
int open_file(int dirfd, const char *name, const char *shown, int flags);

// Reads the first line of the file `name` below `dirfd` (opened as by
// open_file) into buf, without its newline.  0 or an errno value.
int read_line(int dirfd, const char *name, const char *shown, char *buf,
              size_t size);

// Replaces the file `name` below `dirfd` by one holding `text`, written
// beside it (name.tmp.<pid>) and renamed over it, so that a reader sees the
// old text or the new, never a part.  `shown_dir` names `dirfd` in texts.
// 0 or an errno value.
int replace_file(int dirfd, const char *name, const char *shown_dir,
                 const std::string &text);

// Opens a subdirectory of the root ("bus", "log", ...) in one call.
int open_subdir(const char *sub, bool create);

// Whether paths through /proc/self/fd/N reach our descriptors here.
bool proc_fd_usable();

// A checked directory held open, and a path that reaches it through the
// descriptor (/proc/self/fd/N, or its own path where /proc is missing), for
// code that opens files by path: the directory cannot be swapped for
// another between the check and the open.
struct PinnedDir {
    int fd = -1;
    char path[4096] = "";
    PinnedDir() = default;
    PinnedDir(const PinnedDir &) = delete;
    PinnedDir &operator=(const PinnedDir &) = delete;
    ~PinnedDir();
};

// Makes (or checks) the database directory `path` below <root>/kvs and pins
// it in *dir; refuses data.mdb or lock.mdb in it that are not files of
// ours, since the store opens those by name.  On a device shared with a
// group the directory is made 2750 (the members open its files but cannot
// plant any) and both files are made 0660 for the store.  KVS_OK, or
// KVS_ERR_IO with errno (and the refusal text), or KVS_ERR_BAD_URI for a
// path outside the root.
uint32_t prepare_kvs_dir(const char *path, PinnedDir *dir);

// The checks, for a descriptor already open; 0 or an errno value (and the
// refusal text).  `shown` names the object in that text.
int check_dir(int fd, const char *shown);
// The owner and mode part of the checks, for what fstat said.
int check_stat(const struct stat &st, const char *shown);
int check_file(int fd, const char *shown);
// A socket of ours at `name` below `dirfd`, not followed if it is a link:
// 0, ENOENT when nothing is there, or a refusal.
int check_socket(int dirfd, const char *name, const char *shown);

// The group a device is shared with on purpose (TARNHOST_GROUP: a group
// name or gid).  Its members may use a root, and what is in it, that
// another member made: such directories are set-group-id 2770 and files
// 0660 in that group.  Without it nothing is shared.
struct Sharing {
    bool on = false;
    gid_t gid = 0;
    std::string name;
};
// 0 with *out filled (on = false without TARNHOST_GROUP), or a refusal: a
// group that does not exist (EINVAL), a caller not in it (EPERM).
int device_group(Sharing *out);
// Whether what `st` describes was shared with a group the caller is in, as
// the host shares a device (a set-group-id directory, a file the group may
// read and write) and nobody outside the group can write it; *name is the
// group's name (or number).
bool shared_with_caller(const struct stat &st, std::string *name);
// Gives a directory or file that the caller owns to the device's group,
// with `mode`, when there is such a group.
void share_new(int fd, mode_t mode);
constexpr mode_t kSharedDir = 02770;
constexpr mode_t kSharedFile = 0660;
// Gives the socket `name` that the caller has just bound below `dirfd` its
// mode: 0600, or 0660 in the device's group.  0 or an errno value.
int share_socket(int dirfd, const char *name);

// Records the text of a refusal for this thread and returns `err`.
int refuse(int err, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

}  // namespace tarnhost_rootfs

#endif
