// The device's store on disk (see kvs_store.h).
//
// LMDB maps the data file and trusts what it finds there: a truncated file
// makes a reader fault (SIGBUS) on the first page past the end, a bad page
// number sends it anywhere in the map.  So before a process maps the store,
// the two meta pages are checked the way LMDB would pick them, and the pages
// they point at must lie inside the file.  The lock file is checked once
// LMDB has attached to it: a reader count past the table would make LMDB
// walk off its end.
//
// Opening and replacing the store meet at a gate, a file beside it that
// openers lock shared and the replacer exclusively: an opener that found the
// old lock file never goes on to open the new data file.

#include "host/kvs_store.h"

#include <new>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <initializer_list>
#include <string>

#include "host/lock_wait.h"
#include "host/rootfs.h"
#include "host/tarnhost.h"
#include "platform/kvs.h"

namespace tarnhost {
namespace {

constexpr unsigned kMaxReaders = 510;  // reader slots of the environment
constexpr unsigned kMaxDbs = 256;      // named databases of one device

// ---- LMDB's file layout (0.9, this build's word size) ------------------------
//
// A page starts with its number (a word), 2 bytes of padding, 2 of flags
// and 4 more; a meta page's record follows: magic, version, the map's
// address and size (words), the free and main databases' records (4+2+2
// bytes and five words each: pad, flags, depth, page counts, entries,
// root), the last page number and the transaction id.  The free database's
// pad holds the page size.
constexpr size_t kWord = sizeof(size_t);
constexpr size_t kPageHeader = kWord + 8;
constexpr size_t kPageFlags = kWord + 2;
constexpr uint16_t kPageBranch = 0x01, kPageLeaf = 0x02, kPageMeta = 0x08;
constexpr uint32_t kMagic = 0xBEEFC0DEu;
constexpr uint32_t kDataVersion = 1;
constexpr size_t kDbRecord = 8 + 5 * kWord;
constexpr size_t kMetaDbs = 8 + 2 * kWord;
constexpr size_t kDbRoot = 8 + 4 * kWord;
constexpr size_t kMetaLastPage = kMetaDbs + 2 * kDbRecord;
constexpr size_t kMetaTxnid = kMetaLastPage + kWord;
constexpr size_t kMetaEnd = kMetaTxnid + kWord;
constexpr uint64_t kNoPage = ~uint64_t{0} >> (64 - 8 * kWord);
// The lock file: magic, format, the reader mutex, the last transaction id
// and the reader count, then (at two cache lines) the reader table.
constexpr size_t kLockReaders = 8 + sizeof(pthread_mutex_t) + kWord;
constexpr size_t kLockTable = 128;
constexpr size_t kReaderSlot = 64;

template <typename T>
T field(const unsigned char *p, size_t off)
{
    T v;
    memcpy(&v, p + off, sizeof v);
    return v;
}

uint64_t word(const unsigned char *p, size_t off)
{
    return static_cast<uint64_t>(field<size_t>(p, off));
}

struct Meta {
    uint32_t page_size = 0;
    uint64_t last_page = 0;
    uint64_t txnid = 0;
    uint64_t root[2] = {0, 0};
};

bool read_at(int fd, void *buf, size_t n, off_t at)
{
    unsigned char *p = static_cast<unsigned char *>(buf);
    while (n > 0) {
        ssize_t got = pread(fd, p, n, at);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        p += got;
        n -= static_cast<size_t>(got);
        at += got;
    }
    return true;
}

bool read_meta(int fd, off_t at, Meta *m)
{
    unsigned char page[kPageHeader + kMetaEnd];
    if (!read_at(fd, page, sizeof page, at))
        return false;
    const unsigned char *meta = page + kPageHeader;
    if ((field<uint16_t>(page, kPageFlags) & kPageMeta) == 0 ||
        field<uint32_t>(meta, 0) != kMagic ||
        field<uint32_t>(meta, 4) != kDataVersion)
        return false;
    m->page_size = field<uint32_t>(meta, kMetaDbs);
    m->root[0] = word(meta, kMetaDbs + kDbRoot);
    m->root[1] = word(meta, kMetaDbs + kDbRecord + kDbRoot);
    m->last_page = word(meta, kMetaLastPage);
    m->txnid = word(meta, kMetaTxnid);
    return true;
}

// A tree root is no page at all, or a branch or leaf page inside the file
// that knows its own number.
bool root_ok(int fd, const Meta &m, uint64_t root)
{
    if (root == kNoPage)
        return true;
    if (root < 2 || root > m.last_page)
        return false;
    unsigned char head[kPageHeader];
    if (!read_at(fd, head, sizeof head, static_cast<off_t>(root * m.page_size)))
        return false;
    const uint16_t flags = field<uint16_t>(head, kPageFlags);
    return word(head, 0) == root && (flags & (kPageBranch | kPageLeaf)) != 0 &&
           (flags & kPageMeta) == 0;
}

bool meta_ok(int fd, uint64_t size, const Meta &m)
{
    if (m.page_size < 512 || m.page_size > 65536 ||
        (m.page_size & (m.page_size - 1)) != 0 || m.last_page < 1 ||
        m.last_page >= size / m.page_size)
        return false;
    return root_ok(fd, m, m.root[0]) && root_ok(fd, m, m.root[1]);
}

// True when the data file can be mapped: empty (LMDB then makes a new
// store) or two sound meta pages of which the newer describes a store that
// lies inside the file.
bool data_file_ok(int fd, uint64_t size)
{
    if (size == 0)
        return true;
    Meta m0, m1;
    if (!read_meta(fd, 0, &m0) || m0.page_size == 0 ||
        !read_meta(fd, static_cast<off_t>(m0.page_size), &m1) ||
        m1.page_size != m0.page_size)
        return false;
    return meta_ok(fd, size, m1.txnid > m0.txnid ? m1 : m0);
}

bool lock_file_ok(int fd)
{
    struct stat st;
    unsigned char head[kLockReaders + sizeof(unsigned)];
    return fstat(fd, &st) == 0 && st.st_size >= static_cast<off_t>(kLockTable) &&
           read_at(fd, head, sizeof head, 0) && field<uint32_t>(head, 0) == kMagic &&
           field<unsigned>(head, kLockReaders) <=
               (static_cast<uint64_t>(st.st_size) - kLockTable) / kReaderSlot;
}

size_t map_size()
{
    const char *s = getenv("TARNHOST_KVS_MAPSIZE");
    if (s != nullptr && *s != '\0') {
        char *end = nullptr;
        unsigned long long v = strtoull(s, &end, 0);
        if (end != nullptr && *end == '\0' && v >= (1ull << 16) &&
            v <= static_cast<unsigned long long>(SIZE_MAX))
            return static_cast<size_t>(v);
    }
    // A 32-bit process has about 3 GiB of address space for every map it
    // holds; 64 MiB leaves room for dozens of devices.
    return sizeof(void *) == 8 ? (size_t{256} << 20) : (size_t{64} << 20);
}

uint32_t errno_status(int err) { return tarnhost_kvs_errno_status(err); }

// Makes (or checks) a store directory below <root>/kvs and pins it: the
// root's own checks (ours alone, no link followed, files of ours), whose
// refusals are KVS_ERR_IO with their text.  A store directory that is a
// plain file is damage that a rebuild repairs.
uint32_t pin_dir(const char *dir, tarnhost_rootfs::PinnedDir *pin)
try {
    struct stat st;
    if (lstat(dir, &st) == 0 && S_ISREG(st.st_mode))
        return KVS_ERR_DAMAGED;
    return tarnhost_rootfs::prepare_kvs_dir(dir, pin);
} catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return KVS_ERR_IO;
}

// The gate of the store in `dir`: its lock file, locked as asked.  -1 on
// failure with errno (and the refusal text): a gate that is not a plain
// file of the device (a FIFO a member planted would block the open) is
// refused, and one that another process keeps locked for
// kStoreGateWaitMs gives ETIMEDOUT naming that process.
constexpr unsigned kGateWaitMs = tarnhost_lock::kStoreGateWaitMs;

int gate_lock(const char *dir, int how)
{
    char path[kStorePathMax];
    if (snprintf(path, sizeof path, "%s.gate", dir) >= static_cast<int>(sizeof path))
        return -1;
    // Read-only is enough for flock, and lets the members of a device's
    // group lock a gate that another member made.
    const int flags = O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK;
    int fd = open(path, flags);
    if (fd < 0 && errno == ENOENT) {
        fd = open(path, flags | O_CREAT, 0600);
        if (fd >= 0)
            tarnhost_rootfs::share_new(fd, tarnhost_rootfs::kSharedFile);
    }
    if (fd < 0)
        return -1;
    int err = tarnhost_rootfs::check_file(fd, path);
    if (err == 0) {
        err = tarnhost_lock::lock_within(fd, how, kGateWaitMs);
        if (err == ETIMEDOUT) {
            std::string who = tarnhost_lock::holder(fd);
            err = tarnhost_rootfs::refuse(
                ETIMEDOUT,
                "%s, the gate of the store, stayed locked for %u s by %s; end or "
                "resume that process, then try again",
                path, kGateWaitMs / 1000,
                who.empty() ? "another process" : who.c_str());
        }
    }
    if (err != 0) {
        close(fd);
        errno = err;
        return -1;
    }
    return fd;
}

void gate_unlock(int fd)
{
    if (fd >= 0)
        close(fd);  // releases the lock
}

// Removes a store directory: its two files, then itself.
void remove_store_dir(const char *dir)
{
    char path[kStorePathMax];
    for (const char *f : {"data.mdb", "lock.mdb"})
        if (snprintf(path, sizeof path, "%s/%s", dir, f) < static_cast<int>(sizeof path))
            unlink(path);
    rmdir(dir);
}

// Private directories of replacements whose process is gone (killed
// before it finished) are removed by the next replacement.
void sweep_leftovers(const char *dir)
{
    char parent[kStorePathMax];
    snprintf(parent, sizeof parent, "%s", dir);
    char *slash = strrchr(parent, '/');
    if (slash == nullptr)
        return;
    *slash = '\0';
    const char *base = slash + 1;
    const size_t blen = strlen(base);
    DIR *d = opendir(parent);
    if (d == nullptr)
        return;
    while (struct dirent *ent = readdir(d)) {
        const char *n = ent->d_name;
        if (strncmp(n, base, blen) != 0 ||
            (strncmp(n + blen, ".new.", 5) != 0 && strncmp(n + blen, ".old.", 5) != 0))
            continue;
        char *end = nullptr;
        long pid = strtol(n + blen + 5, &end, 10);
        if (end == nullptr || *end != '\0' || pid <= 0)
            continue;
        if (pid != getpid() && (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH))
            continue;
        char path[kStorePathMax];
        if (snprintf(path, sizeof path, "%s/%s", parent, n) < static_cast<int>(sizeof path))
            remove_store_dir(path);
    }
    closedir(d);
}

uint32_t open_env(const char *dir, MDB_env **out)
{
    MDB_env *env = nullptr;
    int rc = mdb_env_create(&env);
    if (rc == 0)
        rc = mdb_env_set_maxreaders(env, kMaxReaders);
    if (rc == 0)
        rc = mdb_env_set_maxdbs(env, kMaxDbs);
    if (rc == 0)
        rc = mdb_env_set_mapsize(env, map_size());
    // NOTLS: read transactions belong to their objects, not to threads, so
    // a thread can hold one for reads and the iterator holds another.
    // NOSYNC: the store is volatile by design (tmpfs); a crashed process
    // still leaves it consistent, only a crashed kernel loses the tail.
    if (rc == 0)
        rc = mdb_env_open(env, dir, MDB_NOTLS | MDB_NOSYNC, 0600);
    if (rc != 0) {
        if (env != nullptr)
            mdb_env_close(env);
        // LMDB says EINVAL when it cannot map a lock file cut short.
        return rc == EINVAL ? KVS_ERR_DAMAGED : store_status(rc);
    }
    *out = env;
    return KVS_OK;
}

}  // namespace

uint32_t store_status(int rc)
{
    switch (rc) {
    case 0:
        return KVS_OK;
    case MDB_NOTFOUND:
        return KVS_ERR_NOT_FOUND;
    case EINVAL:
    case MDB_BAD_VALSIZE:
        return KVS_ERR_INVALID;
    case MDB_MAP_FULL:
    case MDB_DBS_FULL:
    case MDB_TXN_FULL:
        return KVS_ERR_FULL;
    case MDB_INVALID:
    case MDB_VERSION_MISMATCH:
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
    case MDB_INCOMPATIBLE:
        return KVS_ERR_DAMAGED;
    default:
        return rc > 0 ? errno_status(rc) : KVS_ERR_IO;
    }
}

uint32_t store_locate(const char *uri, char *dir, size_t dir_size, char *name,
                      size_t name_size)
{
    char path[kStorePathMax];
    uint32_t st = tarnhost_kvs_path(uri, path, sizeof path);
    if (st != KVS_OK)
        return st;
    const char *root = tarnhost_root();
    const size_t rl = strlen(root);
    // tarnhost_kvs_path gives <root>/kvs/<scheme>/<path>.
    if (strncmp(path, root, rl) != 0 || strncmp(path + rl, "/kvs/", 5) != 0)
        return KVS_ERR_BAD_URI;
    const char *rel = path + rl + 5;
    if (strlen(rel) > kStoreNameMax || strlen(rel) >= name_size)
        return KVS_ERR_BAD_URI;
    if (snprintf(dir, dir_size, "%s/%s", root, TARNHOST_KVS_STORE_DIR) >= static_cast<int>(dir_size))
        return KVS_ERR_BAD_URI;
    memcpy(name, rel, strlen(rel) + 1);
    return KVS_OK;
}

bool store_id(const char *dir, StoreId *id)
{
    char path[kStorePathMax];
    struct stat st;
    if (snprintf(path, sizeof path, "%s/data.mdb", dir) >= static_cast<int>(sizeof path) ||
        lstat(path, &st) != 0)
        return false;
    id->dev = st.st_dev;
    id->ino = st.st_ino;
    return true;
}

uint32_t store_open(const char *dir, MDB_env **env, StoreId *id, int *lock_fd)
{
    tarnhost_rootfs::PinnedDir pin;
    uint32_t st = pin_dir(dir, &pin);
    if (st != KVS_OK)
        return st;
    int gate = gate_lock(dir, LOCK_SH);
    if (gate < 0)
        return errno_status(errno);
    char path[kStorePathMax];
    if (snprintf(path, sizeof path, "%s/data.mdb", pin.path) >= static_cast<int>(sizeof path))
        st = KVS_ERR_BAD_URI;
    if (st == KVS_OK) {
        int fd = open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
        if (fd >= 0) {
            struct stat fs;
            if (fstat(fd, &fs) != 0 || !S_ISREG(fs.st_mode) ||
                !data_file_ok(fd, static_cast<uint64_t>(fs.st_size)))
                st = KVS_ERR_DAMAGED;
            close(fd);
        } else if (errno != ENOENT) {
            st = errno == ELOOP ? KVS_ERR_DAMAGED : errno_status(errno);
        }
    }
    MDB_env *e = nullptr;
    if (st == KVS_OK)
        st = open_env(pin.path, &e);
    int lfd = -1;
    if (st == KVS_OK) {
        // data.mdb fitted, and lock.mdb is no longer.
        if (snprintf(path, sizeof path, "%s/lock.mdb", pin.path) >= static_cast<int>(sizeof path))
            path[0] = '\0';
        lfd = path[0] == '\0' ? -1
                               : open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
        if (lfd < 0 || !lock_file_ok(lfd))
            st = KVS_ERR_DAMAGED;
    }
    struct stat fs;
    int fd = -1;
    if (st == KVS_OK && (mdb_env_get_fd(e, &fd) != 0 || fstat(fd, &fs) != 0))
        st = KVS_ERR_IO;
    gate_unlock(gate);
    if (st != KVS_OK) {
        if (e != nullptr)
            mdb_env_close(e);
        if (lfd >= 0)
            close(lfd);
        return st;
    }
    *lock_fd = lfd;
    id->dev = fs.st_dev;
    id->ino = fs.st_ino;
    *env = e;
    return KVS_OK;
}

uint32_t store_open_fresh(const char *dir, char *tmp, size_t tmp_size, MDB_env **env)
{
    if (snprintf(tmp, tmp_size, "%s.new.%ld", dir, static_cast<long>(getpid())) >=
        static_cast<int>(tmp_size))
        return KVS_ERR_BAD_URI;
    remove_store_dir(tmp);
    tarnhost_rootfs::PinnedDir pin;
    uint32_t st = pin_dir(tmp, &pin);
    if (st != KVS_OK)
        return st;
    st = open_env(pin.path, env);
    if (st != KVS_OK)
        remove_store_dir(tmp);
    return st;
}

uint32_t store_replace(const char *dir, const char *tmp)
{
    char old[kStorePathMax];
    if (snprintf(old, sizeof old, "%s.old.%ld", dir, static_cast<long>(getpid())) >=
        static_cast<int>(sizeof old))
        return KVS_ERR_BAD_URI;
    remove_store_dir(old);
    int gate = gate_lock(dir, LOCK_EX);
    if (gate < 0)
        return errno_status(errno);
    uint32_t st = KVS_OK;
    const bool had_old = rename(dir, old) == 0;
    if (!had_old && errno != ENOENT)
        st = errno_status(errno);
    if (st == KVS_OK && rename(tmp, dir) != 0) {
        st = errno_status(errno);
        if (had_old)
            rename(old, dir);
    }
    gate_unlock(gate);
    if (had_old && st == KVS_OK)
        remove_store_dir(old);
    sweep_leftovers(dir);
    return st;
}

void store_discard(const char *tmp) { remove_store_dir(tmp); }

namespace {

// Every byte of a record, read as a reader copying it would: a length
// damaged to point past the file faults here, in the child, and not in the
// process that reads the record later.
uint8_t touch(const MDB_val &m)
{
    const volatile uint8_t *p = static_cast<const volatile uint8_t *>(m.mv_data);
    uint8_t sum = 0;
    for (size_t i = 0; i < m.mv_size; ++i)
        sum = static_cast<uint8_t>(sum + p[i]);
    return sum;
}

// Walks every record of one database, every byte of it; false when LMDB
// reports damage, or when the tree is not what a search relies on: keys
// met in strictly increasing order, each found again by a search for it.
// (Damaged branch keys leave the leaves in order but send searches to the
// wrong leaf, and a walk that steps by searching would go round for ever.)
bool walk_db(MDB_txn *txn, MDB_dbi dbi)
{
    MDB_cursor *c = nullptr, *seek = nullptr;
    if (mdb_cursor_open(txn, dbi, &c) != 0)
        return false;
    if (mdb_cursor_open(txn, dbi, &seek) != 0) {
        mdb_cursor_close(c);
        return false;
    }
    MDB_val k{0, nullptr}, v{0, nullptr}, prev{0, nullptr};
    volatile uint8_t sum = 0;
    bool sound = true;
    int rc = mdb_cursor_get(c, &k, &v, MDB_FIRST);
    while (rc == 0 && sound) {
        sum = static_cast<uint8_t>(sum + touch(k) + touch(v));
        if (prev.mv_data != nullptr && mdb_cmp(txn, dbi, &prev, &k) >= 0)
            sound = false;
        // A cursor that stands somewhere looks in its own page first; a
        // renewed one searches from the root, as a fresh reader does.
        MDB_val found = k, fv{0, nullptr};
        if (sound && (mdb_cursor_renew(txn, seek) != 0 ||
                      mdb_cursor_get(seek, &found, &fv, MDB_SET_RANGE) != 0 ||
                      mdb_cmp(txn, dbi, &found, &k) != 0))
            sound = false;
        prev = k;
        if (sound)
            rc = mdb_cursor_get(c, &k, &v, MDB_NEXT);
    }
    (void)sum;
    mdb_cursor_close(seek);
    mdb_cursor_close(c);
    return sound && rc == MDB_NOTFOUND;
}

// The check itself, in the child: 0 sound, 1 damaged, 2 cannot tell.
int check_child(const char *dir)
{
    MDB_env *env = nullptr;
    StoreId id;
    int lock_fd = -1;
    const uint32_t st = store_open(dir, &env, &id, &lock_fd);
    if (st == KVS_ERR_DAMAGED)
        return 1;
    if (st != KVS_OK)
        return 2;
    MDB_txn *txn = nullptr;
    if (mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn) != 0)
        return 1;
    MDB_dbi main_dbi = 0;
    if (mdb_dbi_open(txn, nullptr, 0, &main_dbi) != 0 || !walk_db(txn, 0))
        return 1;
    // The main database lists the named ones.
    MDB_cursor *c = nullptr;
    if (mdb_cursor_open(txn, main_dbi, &c) != 0)
        return 1;
    MDB_val k{0, nullptr}, v{0, nullptr};
    int rc = mdb_cursor_get(c, &k, &v, MDB_FIRST);
    while (rc == 0) {
        char name[kStoreNameMax + 1];
        if (k.mv_size == 0 || k.mv_size > kStoreNameMax)
            return 1;
        memcpy(name, k.mv_data, k.mv_size);
        name[k.mv_size] = '\0';
        MDB_dbi dbi = 0;
        if (mdb_dbi_open(txn, name, 0, &dbi) != 0 || !walk_db(txn, dbi))
            return 1;
        rc = mdb_cursor_get(c, &k, &v, MDB_NEXT);
    }
    return rc == MDB_NOTFOUND ? 0 : 1;
}

}  // namespace

constexpr time_t kCheckSeconds = 60;

uint32_t store_check(const char *dir)
{
    char path[kStorePathMax];
    struct stat st;
    if (snprintf(path, sizeof path, "%s/data.mdb", dir) >= static_cast<int>(sizeof path))
        return KVS_ERR_BAD_URI;
    if (lstat(path, &st) != 0 && errno == ENOENT)
        return KVS_OK;  // nothing to read yet
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0)
        return errno_status(errno);
    if (pid == 0) {
        // Whatever the damage does to this process stays in it.
        _exit(check_child(dir));
    }
    // A read that never ends is damage too (a tree that leads back into
    // itself): the child gets a bounded time, far above what reading a
    // whole store takes.
    int status = 0;
    const time_t deadline = time(nullptr) + kCheckSeconds;
    for (;;) {
        const pid_t got = waitpid(pid, &status, WNOHANG);
        if (got == pid)
            break;
        if (got < 0 && errno != EINTR)
            return KVS_ERR_IO;
        if (time(nullptr) > deadline) {
            kill(pid, SIGKILL);
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            return KVS_ERR_DAMAGED;
        }
        usleep(1000);
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return KVS_OK;
    if (WIFEXITED(status) && WEXITSTATUS(status) == 2)
        return KVS_ERR_IO;
    return KVS_ERR_DAMAGED;  // found damage, or died of it
}

}  // namespace tarnhost

extern "C" uint32_t tarnhost_kvs_errno_status(int err)
{
    switch (err) {
    case EACCES:
    case EPERM:
    case EROFS:
        return KVS_ERR_DENIED;
    case ENOSPC:
    case EDQUOT:
        return KVS_ERR_FULL;
    default:
        return KVS_ERR_IO;
    }
}
