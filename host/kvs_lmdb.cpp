// The shared key/value database on LMDB.
//
// One LMDB environment (a directory under <root>/kvs) holds one database.
// Processes share it through LMDB's own locking; inside a process this file
// keeps:
//
//  - Env: one per open environment, keyed by its directory.  Two URIs that
//    name the same directory ("x:/a//b" and "x:/a/b") share one Env, since
//    LMDB forbids opening one environment twice in a process.  Envs that no
//    URI has open are kept for the writer, a few at most, then closed.
//  - Link: one per kvs_open of a URI, published in a lock-free slot table so
//    that kvs_read can find it without a lock.  Links are never freed (a
//    reader may still be looking at a dead one); they are a few hundred bytes.
//  - per-thread readers: each thread keeps one read transaction per Link,
//    reset and renewed on every read.  The value a read returns points into
//    the map and stays valid while that transaction is live, that is until
//    the thread's next read through the same Link.
//
// kvs_close must not race with reads of the same database in other threads:
// closing aborts their read transactions.

#include <errno.h>
#include <lmdb.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <vector>

#include "host/kvs_internal.h"
#include "host/nomem.h"
#include "host/rootfs.h"
#include "host/tarnhost.h"
#include "platform/kvs.h"

namespace {

constexpr unsigned kMaxLinks = 128;     // URIs open at once in a process
constexpr unsigned kMaxIdleEnvs = 4;    // environments kept for the writer
constexpr unsigned kMaxReaders = 510;   // reader slots per environment
constexpr size_t kPathMax = 4096;

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
    // holds; 64 MiB leaves room for dozens of databases.
    return sizeof(void *) == 8 ? (size_t{256} << 20) : (size_t{64} << 20);
}

uint32_t from_mdb(int rc)
{
    switch (rc) {
    case 0:
        return KVS_OK;
    case MDB_NOTFOUND:
        return KVS_ERR_NOT_FOUND;
    case EINVAL:
    case MDB_BAD_VALSIZE:
        return KVS_ERR_INVALID;
    default:
        return KVS_ERR_IO;
    }
}

enum IterState { kIterNone, kIterBeforeFirst, kIterOn };

struct Env {
    char *path = nullptr;
    MDB_env *env = nullptr;
    MDB_dbi dbi = 0;
    unsigned links = 0;     // Links open on it (under the registry mutex)
    unsigned writers = 0;   // write transactions in progress (same)
    uint64_t last_use = 0;  // for closing the least recently used idle Env

    // The process's one iterator position on this database.  It holds its
    // own read transaction, a snapshot, from one init to the next.
    std::mutex iter_mu;
    MDB_txn *iter_txn = nullptr;
    MDB_cursor *iter_cur = nullptr;
    bool iter_txn_live = false;
    IterState iter_state = kIterNone;
};

struct Link {
    char *uri = nullptr;      // immutable once published
    Env *env = nullptr;       // meaningful only while live
    std::atomic<uint32_t> live{0};
    std::vector<MDB_txn *> readers;  // every thread's txn (registry mutex)
};

// Published links.  Readers scan [0, g_nslots) without a lock.
std::atomic<Link *> g_slots[kMaxLinks];
std::atomic<unsigned> g_nslots{0};

struct Registry {
    std::mutex mu;
    std::vector<Env *> envs;
    std::vector<Link *> retired;  // dead links, kept for lock-free readers
    uint64_t clock = 0;
    pthread_key_t thread_key;
};

// One thread's read transaction for one Link.
struct Reader {
    const char *uri_ptr;  // the caller's last pointer for this URI
    Link *link;
    MDB_txn *txn;
    bool active;  // renewed, holding a snapshot
};

struct ThreadReaders {
    Reader *v;
    uint32_t n;
    uint32_t cap;
    bool keyed;  // thread-exit cleanup registered
};

// Plain zero-initialised data: no TLS guard on the read path.
thread_local ThreadReaders tl_readers;

void fork_prepare();
void fork_parent();
void fork_child();
void thread_exit(void *);

Registry &reg()
{
    // In static storage, never destroyed: nothing to allocate, and no
    // destructor to run at exit while other threads may still read.
    alignas(Registry) static unsigned char storage[sizeof(Registry)];
    static Registry *r = [] {
        Registry *x = new (storage) Registry;
        pthread_key_create(&x->thread_key, thread_exit);
        pthread_atfork(fork_prepare, fork_parent, fork_child);
        return x;
    }();
    return *r;
}

void fork_prepare() { reg().mu.lock(); }
void fork_parent() { reg().mu.unlock(); }

// LMDB environments must not be used across fork().  The child forgets every
// inherited one without closing it: closing or aborting would write to the
// parent's reader slots in the shared lock file.  The child opens its own.
void fork_child()
{
    Registry &r = reg();
    unsigned n = g_nslots.load(std::memory_order_relaxed);
    for (unsigned i = 0; i < n; ++i) {
        Link *l = g_slots[i].load(std::memory_order_relaxed);
        if (l == nullptr)
            continue;
        l->live.store(0, std::memory_order_relaxed);
        l->readers.clear();
        // Without room the link is simply lost: it is dead in this child.
        if (tarnhost::room_for_one(r.retired))
            r.retired.push_back(l);
        g_slots[i].store(nullptr, std::memory_order_relaxed);
    }
    g_nslots.store(0, std::memory_order_release);
    r.envs.clear();  // leaked on purpose, see above
    tl_readers.n = 0;
    r.mu.unlock();
}

void thread_exit(void *p)
{
    ThreadReaders *t = static_cast<ThreadReaders *>(p);
    Registry &r = reg();
    {
        std::lock_guard<std::mutex> lock(r.mu);
        for (uint32_t i = 0; i < t->n; ++i) {
            Reader &rd = t->v[i];
            if (rd.link->live.load(std::memory_order_relaxed) == 0)
                continue;  // aborted by kvs_close already
            auto &list = rd.link->readers;
            for (size_t j = 0; j < list.size(); ++j)
                if (list[j] == rd.txn) {
                    list[j] = list.back();
                    list.pop_back();
                    break;
                }
            mdb_txn_abort(rd.txn);
        }
    }
    free(t->v);
    t->v = nullptr;
    t->n = t->cap = 0;
}

char *dup(const char *s)
{
    size_t n = strlen(s) + 1;
    char *d = static_cast<char *>(malloc(n));
    if (d != nullptr)
        memcpy(d, s, n);
    return d;
}

Link *find_link(const char *uri)
{
    unsigned n = g_nslots.load(std::memory_order_acquire);
    for (unsigned i = 0; i < n; ++i) {
        Link *l = g_slots[i].load(std::memory_order_acquire);
        if (l != nullptr && strcmp(l->uri, uri) == 0 &&
            l->live.load(std::memory_order_acquire) != 0)
            return l;
    }
    return nullptr;
}

// Creates (or checks) the database directory below the root and holds it
// open: the store opens its files there by name, so the directory must be
// ours alone, and the store reaches it through the checked descriptor.
uint32_t make_env_dir(const char *path, tarnhost_rootfs::PinnedDir *dir)
try {
    return tarnhost_rootfs::prepare_kvs_dir(path, dir);
} catch (const std::bad_alloc &) {
    errno = ENOMEM;
    return KVS_ERR_IO;
}

void close_env_locked(Env *e)
{
    if (e->iter_cur != nullptr)
        mdb_cursor_close(e->iter_cur);
    if (e->iter_txn != nullptr)
        mdb_txn_abort(e->iter_txn);
    mdb_env_close(e->env);
    free(e->path);
    delete e;
}

// Closes the least recently used environments that nothing holds, beyond a
// few kept so that a writer's repeated one-change transactions stay cheap.
void trim_idle_locked(Registry &r)
{
    for (;;) {
        unsigned idle = 0;
        size_t oldest = r.envs.size();
        for (size_t i = 0; i < r.envs.size(); ++i) {
            Env *e = r.envs[i];
            if (e->links != 0 || e->writers != 0)
                continue;
            ++idle;
            if (oldest == r.envs.size() ||
                e->last_use < r.envs[oldest]->last_use)
                oldest = i;
        }
        if (idle <= kMaxIdleEnvs)
            return;
        Env *e = r.envs[oldest];
        r.envs[oldest] = r.envs.back();
        r.envs.pop_back();
        close_env_locked(e);
    }
}

// The environment of a database directory, opened (and created) on demand.
Env *env_for_path_locked(Registry &r, const char *path, uint32_t *status)
{
    for (Env *e : r.envs)
        if (strcmp(e->path, path) == 0) {
            e->last_use = ++r.clock;
            return e;
        }
    if (!tarnhost::room_for_one(r.envs)) {
        *status = KVS_ERR_IO;
        return nullptr;
    }
    tarnhost_rootfs::PinnedDir dir;
    *status = make_env_dir(path, &dir);
    if (*status != KVS_OK)
        return nullptr;

    MDB_env *env = nullptr;
    int rc = mdb_env_create(&env);
    if (rc == 0)
        rc = mdb_env_set_maxreaders(env, kMaxReaders);
    if (rc == 0)
        rc = mdb_env_set_mapsize(env, map_size());
    // NOTLS: read transactions belong to their objects, not to threads, so
    // a thread can hold one for reads and the iterator holds another.
    // NOSYNC: the store is volatile by design (tmpfs); a crashed process
    // still leaves it consistent, only a crashed kernel loses the tail.
    if (rc == 0)
        rc = mdb_env_open(env, dir.path, MDB_NOTLS | MDB_NOSYNC, 0600);
    MDB_dbi dbi = 0;
    if (rc == 0) {
        // Reader slots of processes that died without closing would pin old
        // pages and, in the end, fill the table.
        int dead = 0;
        mdb_reader_check(env, &dead);
        MDB_txn *txn = nullptr;
        rc = mdb_txn_begin(env, nullptr, MDB_RDONLY, &txn);
        if (rc == 0) {
            rc = mdb_dbi_open(txn, nullptr, 0, &dbi);
            if (rc == 0)
                rc = mdb_txn_commit(txn);
            else
                mdb_txn_abort(txn);
        }
    }
    Env *e = nullptr;
    if (rc == 0) {
        e = new (std::nothrow) Env;
        if (e != nullptr)
            e->path = dup(path);
        if (e == nullptr || e->path == nullptr) {
            delete e;
            e = nullptr;
            rc = ENOMEM;
        }
    }
    if (rc != 0) {
        if (env != nullptr)
            mdb_env_close(env);
        *status = KVS_ERR_IO;
        return nullptr;
    }
    e->env = env;
    e->dbi = dbi;
    e->last_use = ++r.clock;
    r.envs.push_back(e);
    return e;
}

// Without room to keep the dead link for lock-free readers it is left
// published and live (the caller reports the failure).
bool detach_locked(Registry &r, Link *l, unsigned slot)
{
    if (!tarnhost::room_for_one(r.retired))
        return false;
    g_slots[slot].store(nullptr, std::memory_order_release);
    l->live.store(0, std::memory_order_release);
    for (MDB_txn *t : l->readers)
        mdb_txn_abort(t);
    l->readers.clear();
    l->readers.shrink_to_fit();
    r.retired.push_back(l);

    Env *e = l->env;
    if (--e->links == 0) {
        std::lock_guard<std::mutex> lock(e->iter_mu);
        if (e->iter_cur != nullptr)
            mdb_cursor_close(e->iter_cur);
        if (e->iter_txn != nullptr)
            mdb_txn_abort(e->iter_txn);
        e->iter_cur = nullptr;
        e->iter_txn = nullptr;
        e->iter_txn_live = false;
        e->iter_state = kIterNone;
    }
    e->last_use = ++r.clock;
    trim_idle_locked(r);
    return true;
}

unsigned slot_of_locked(const Link *l)
{
    unsigned n = g_nslots.load(std::memory_order_relaxed);
    for (unsigned i = 0; i < n; ++i)
        if (g_slots[i].load(std::memory_order_relaxed) == l)
            return i;
    return kMaxLinks;
}

// Finds (or makes) this thread's reader for `uri`; the slow path of a read.
Reader *reader_slow(const char *uri, uint32_t *status)
{
    ThreadReaders &t = tl_readers;
    // Drop readers whose link was closed: their transactions are gone.
    uint32_t kept = 0;
    for (uint32_t i = 0; i < t.n; ++i)
        if (t.v[i].link->live.load(std::memory_order_acquire) != 0)
            t.v[kept++] = t.v[i];
    t.n = kept;
    for (uint32_t i = 0; i < t.n; ++i)
        if (strcmp(t.v[i].link->uri, uri) == 0) {
            t.v[i].uri_ptr = uri;
            return &t.v[i];
        }

    Link *l = find_link(uri);
    if (l == nullptr) {
        *status = KVS_ERR_NOT_OPEN;
        return nullptr;
    }
    if (t.n == t.cap) {
        uint32_t cap = t.cap ? t.cap * 2 : 4;
        void *v = realloc(t.v, cap * sizeof(Reader));
        if (v == nullptr) {
            *status = KVS_ERR_IO;
            return nullptr;
        }
        t.v = static_cast<Reader *>(v);
        t.cap = cap;
    }

    Registry &r = reg();
    MDB_txn *txn = nullptr;
    {
        std::lock_guard<std::mutex> lock(r.mu);
        if (l->live.load(std::memory_order_relaxed) == 0) {
            *status = KVS_ERR_NOT_OPEN;
            return nullptr;
        }
        int rc = mdb_txn_begin(l->env->env, nullptr, MDB_RDONLY, &txn);
        if (rc == MDB_READERS_FULL) {
            int dead = 0;
            mdb_reader_check(l->env->env, &dead);
            rc = mdb_txn_begin(l->env->env, nullptr, MDB_RDONLY, &txn);
        }
        if (rc != 0) {
            *status = from_mdb(rc);
            return nullptr;
        }
        if (!tarnhost::room_for_one(l->readers)) {
            mdb_txn_abort(txn);
            *status = KVS_ERR_IO;
            return nullptr;
        }
        l->readers.push_back(txn);
    }
    if (!t.keyed) {
        pthread_setspecific(r.thread_key, &t);
        t.keyed = true;
    }
    Reader &rd = t.v[t.n++];
    rd.uri_ptr = uri;
    rd.link = l;
    rd.txn = txn;
    rd.active = true;
    return &rd;
}

inline Reader *reader_for(const char *uri, uint32_t *status)
{
    ThreadReaders &t = tl_readers;
    for (uint32_t i = 0; i < t.n; ++i) {
        Reader &rd = t.v[i];
        if (rd.uri_ptr == uri &&
            rd.link->live.load(std::memory_order_acquire) != 0 &&
            strcmp(rd.link->uri, uri) == 0)
            return &rd;
    }
    return reader_slow(uri, status);
}

}  // namespace

namespace tarnhost {

uint32_t kvs_attach(const char *uri)
{
    if (uri == nullptr)
        return KVS_ERR_INVALID;
    char path[kPathMax];
    uint32_t st = tarnhost_kvs_path(uri, path, sizeof path);
    if (st != KVS_OK)
        return st;

    Registry &r = reg();
    std::lock_guard<std::mutex> lock(r.mu);
    if (Link *old = find_link(uri)) {
        if (strcmp(old->env->path, path) == 0)
            return KVS_ERR_ALREADY_OPEN;
        // The root moved since (tests do that between cases): follow it.
        if (!detach_locked(r, old, slot_of_locked(old)))
            return KVS_ERR_IO;
    }

    unsigned n = g_nslots.load(std::memory_order_relaxed);
    unsigned slot = 0;
    while (slot < n && g_slots[slot].load(std::memory_order_relaxed) != nullptr)
        ++slot;
    if (slot == kMaxLinks)
        return KVS_ERR_IO;

    Env *e = env_for_path_locked(r, path, &st);
    if (e == nullptr)
        return st;
    Link *l = new (std::nothrow) Link;
    if (l != nullptr)
        l->uri = dup(uri);
    if (l == nullptr || l->uri == nullptr) {
        delete l;
        trim_idle_locked(r);
        return KVS_ERR_IO;
    }
    l->env = e;
    ++e->links;
    l->live.store(1, std::memory_order_relaxed);
    g_slots[slot].store(l, std::memory_order_release);
    if (slot == n)
        g_nslots.store(n + 1, std::memory_order_release);
    return KVS_OK;
}

uint32_t kvs_detach(const char *uri)
{
    if (uri == nullptr)
        return KVS_ERR_INVALID;
    Registry &r = reg();
    std::lock_guard<std::mutex> lock(r.mu);
    Link *l = find_link(uri);
    if (l == nullptr)
        return KVS_ERR_NOT_OPEN;
    return detach_locked(r, l, slot_of_locked(l)) ? KVS_OK : KVS_ERR_IO;
}

uint32_t kvs_lookup(const char *uri, const void *key, uint32_t key_len,
                    const void **data, uint32_t *len)
{
    if (uri == nullptr || (key == nullptr && key_len != 0) ||
        data == nullptr || len == nullptr)
        return KVS_ERR_INVALID;
    uint32_t st = KVS_OK;
    Reader *rd = reader_for(uri, &st);
    if (rd == nullptr)
        return st;
    // Renewing moves this thread's snapshot forward: the value the previous
    // read returned is released here, not before.
    if (rd->active) {
        mdb_txn_reset(rd->txn);
        rd->active = false;
    }
    int rc = mdb_txn_renew(rd->txn);
    if (rc != 0)
        return from_mdb(rc) == KVS_ERR_INVALID ? KVS_ERR_IO : from_mdb(rc);
    rd->active = true;

    MDB_val k{key_len, const_cast<void *>(key)};
    MDB_val v{0, nullptr};
    rc = mdb_get(rd->txn, rd->link->env->dbi, &k, &v);
    if (rc != 0) {
        // Nothing handed out: let go of the snapshot now rather than pin
        // it until this thread's next read.
        mdb_txn_reset(rd->txn);
        rd->active = false;
        if (rc == MDB_BAD_VALSIZE)
            return KVS_ERR_NOT_FOUND;  // an empty or oversized key: no record
        return from_mdb(rc);
    }
    *data = v.mv_data;
    *len = static_cast<uint32_t>(v.mv_size);
    return KVS_OK;
}

uint32_t kvs_generation(const char *uri, uint64_t *generation)
{
    if (uri == nullptr || generation == nullptr)
        return KVS_ERR_INVALID;
    uint32_t st = KVS_OK;
    Reader *rd = reader_for(uri, &st);
    if (rd == nullptr)
        return st;
    MDB_envinfo info;
    if (mdb_env_info(rd->link->env->env, &info) != 0)
        return KVS_ERR_IO;
    *generation = static_cast<uint64_t>(info.me_last_txnid);
    return KVS_OK;
}

}  // namespace tarnhost

// ---- iterator ---------------------------------------------------------------

namespace {

int compare_keys(const MDB_val &a, const void *b, size_t blen)
{
    size_t n = a.mv_size < blen ? a.mv_size : blen;
    int c = n ? memcmp(a.mv_data, b, n) : 0;
    if (c != 0)
        return c;
    return a.mv_size < blen ? -1 : (a.mv_size > blen ? 1 : 0);
}

void fill(kvs_datum_t *d, const MDB_val &v)
{
    if (d != nullptr) {
        d->data = v.mv_data;
        d->len = static_cast<uint32_t>(v.mv_size);
    }
}

// Positions the cursor on the last record not after `key`.
uint32_t position(Env *e, const void *key, uint32_t key_len)
{
    MDB_cursor *c = e->iter_cur;
    MDB_val k{0, nullptr}, v{0, nullptr};
    if (key_len == 0) {
        // Every stored key is longer than the empty one.
        e->iter_state = kIterBeforeFirst;
        return KVS_OK;
    }
    // LMDB refuses keys above its limit for lookups; such a key sorts just
    // after its own prefix of the limit's length, and no stored key is
    // longer, so searching for the prefix finds the same neighbours.
    size_t max = static_cast<size_t>(mdb_env_get_maxkeysize(e->env));
    k.mv_size = key_len < max ? key_len : max;
    k.mv_data = const_cast<void *>(key);
    int rc = mdb_cursor_get(c, &k, &v, MDB_SET_RANGE);
    if (rc == 0) {
        if (compare_keys(k, key, key_len) <= 0) {
            e->iter_state = kIterOn;
            return KVS_OK;
        }
        rc = mdb_cursor_get(c, &k, &v, MDB_PREV);
    } else if (rc == MDB_NOTFOUND) {
        rc = mdb_cursor_get(c, &k, &v, MDB_LAST);
    }
    if (rc == 0) {
        e->iter_state = kIterOn;
        return KVS_OK;
    }
    if (rc == MDB_NOTFOUND) {
        e->iter_state = kIterBeforeFirst;
        return KVS_OK;
    }
    e->iter_state = kIterNone;
    return from_mdb(rc);
}

Env *iter_env(const char *uri, uint32_t *status)
{
    if (uri == nullptr) {
        *status = KVS_ERR_INVALID;
        return nullptr;
    }
    Link *l = find_link(uri);
    if (l == nullptr) {
        *status = KVS_ERR_NOT_OPEN;
        return nullptr;
    }
    return l->env;
}

}  // namespace

extern "C" {

uint32_t kvs_open(const char *uri, uint32_t mode, uint32_t a, uint32_t b,
                  uint32_t c)
{
    (void)mode;
    (void)a;
    (void)b;
    (void)c;
    uint32_t st;
    if (tarnhost_fault_hit("kvs_open", &st))
        return st;
    return tarnhost::kvs_attach(uri);
}

uint32_t kvs_close(const char *uri)
{
    uint32_t st;
    if (tarnhost_fault_hit("kvs_close", &st))
        return st;
    return tarnhost::kvs_detach(uri);
}

uint32_t kvs_read(const char *uri, const kvs_datum_t *key, kvs_datum_t *value)
{
    uint32_t st;
    if (tarnhost_fault_hit("kvs_read", &st))
        return st;
    if (key == nullptr || value == nullptr)
        return KVS_ERR_INVALID;
    const void *data = nullptr;
    uint32_t len = 0;
    st = tarnhost::kvs_lookup(uri, key->data, key->len, &data, &len);
    if (st == KVS_OK) {
        value->data = data;
        value->len = len;
    }
    return st;
}

uint32_t kvs_iterator_init(const char *uri, const kvs_datum_t *key,
                           uint32_t from_start)
{
    uint32_t st;
    if (tarnhost_fault_hit("kvs_iterator_init", &st))
        return st;
    if (!from_start && (key == nullptr || (key->data == nullptr && key->len)))
        return KVS_ERR_INVALID;
    // The registry lock keeps kvs_close from tearing the iterator down under
    // us; iterator calls are not a hot path.
    Registry &r = reg();
    std::lock_guard<std::mutex> reg_lock(r.mu);
    Env *e = iter_env(uri, &st);
    if (e == nullptr)
        return st;
    std::lock_guard<std::mutex> lock(e->iter_mu);
    e->iter_state = kIterNone;
    int rc = 0;
    if (e->iter_txn == nullptr) {
        rc = mdb_txn_begin(e->env, nullptr, MDB_RDONLY, &e->iter_txn);
        if (rc != 0) {
            e->iter_txn = nullptr;
            return from_mdb(rc) == KVS_ERR_INVALID ? KVS_ERR_IO : from_mdb(rc);
        }
        e->iter_txn_live = true;
        rc = mdb_cursor_open(e->iter_txn, e->dbi, &e->iter_cur);
        if (rc != 0) {
            mdb_txn_abort(e->iter_txn);
            e->iter_txn = nullptr;
            e->iter_cur = nullptr;
            e->iter_txn_live = false;
            return KVS_ERR_IO;
        }
    } else {
        // A fresh snapshot for the new walk.
        if (e->iter_txn_live)
            mdb_txn_reset(e->iter_txn);
        e->iter_txn_live = false;
        rc = mdb_txn_renew(e->iter_txn);
        if (rc != 0)
            return KVS_ERR_IO;
        e->iter_txn_live = true;
        rc = mdb_cursor_renew(e->iter_txn, e->iter_cur);
        if (rc != 0)
            return KVS_ERR_IO;
    }
    if (from_start) {
        MDB_val k{0, nullptr}, v{0, nullptr};
        rc = mdb_cursor_get(e->iter_cur, &k, &v, MDB_FIRST);
        if (rc == 0) {
            e->iter_state = kIterOn;
            return KVS_OK;
        }
        if (rc == MDB_NOTFOUND) {
            // An empty database: positioned before its (absent) first record.
            e->iter_state = kIterBeforeFirst;
            return KVS_OK;
        }
        return from_mdb(rc);
    }
    return position(e, key->data, key->len);
}

uint32_t kvs_getkey(const char *uri, kvs_datum_t *key, kvs_datum_t *value)
{
    uint32_t st;
    if (tarnhost_fault_hit("kvs_getkey", &st))
        return st;
    Registry &r = reg();
    std::lock_guard<std::mutex> reg_lock(r.mu);
    Env *e = iter_env(uri, &st);
    if (e == nullptr)
        return st;
    std::lock_guard<std::mutex> lock(e->iter_mu);
    if (e->iter_state != kIterOn)
        return KVS_ERR_NO_POSITION;
    MDB_val k{0, nullptr}, v{0, nullptr};
    int rc = mdb_cursor_get(e->iter_cur, &k, &v, MDB_GET_CURRENT);
    if (rc == MDB_NOTFOUND)
        return KVS_ERR_NO_POSITION;
    if (rc != 0)
        return from_mdb(rc);
    fill(key, k);
    fill(value, v);
    return KVS_OK;
}

uint32_t kvs_getnext(const char *uri, kvs_datum_t *key, kvs_datum_t *value)
{
    uint32_t st;
    if (tarnhost_fault_hit("kvs_getnext", &st))
        return st;
    Registry &r = reg();
    std::lock_guard<std::mutex> reg_lock(r.mu);
    Env *e = iter_env(uri, &st);
    if (e == nullptr)
        return st;
    std::lock_guard<std::mutex> lock(e->iter_mu);
    if (e->iter_state == kIterNone)
        return KVS_ERR_NO_POSITION;
    MDB_val k{0, nullptr}, v{0, nullptr};
    int rc = mdb_cursor_get(e->iter_cur, &k, &v,
                            e->iter_state == kIterBeforeFirst ? MDB_FIRST
                                                              : MDB_NEXT);
    if (rc == MDB_NOTFOUND)
        return KVS_ERR_END;  // the position stays where it was
    if (rc != 0)
        return from_mdb(rc);
    e->iter_state = kIterOn;
    fill(key, k);
    fill(value, v);
    return KVS_OK;
}

// ---- writer -----------------------------------------------------------------

struct tarnhost_kvs_txn {
    Env *env;
    MDB_txn *txn;
};

tarnhost_kvs_txn_t *tarnhost_kvs_txn_begin(const char *uri, uint32_t *status)
{
    uint32_t dummy;
    if (status == nullptr)
        status = &dummy;
    if (uri == nullptr) {
        *status = KVS_ERR_INVALID;
        return nullptr;
    }
    char path[kPathMax];
    *status = tarnhost_kvs_path(uri, path, sizeof path);
    if (*status != KVS_OK)
        return nullptr;
    tarnhost_kvs_txn_t *t =
        static_cast<tarnhost_kvs_txn_t *>(malloc(sizeof(tarnhost_kvs_txn_t)));
    if (t == nullptr) {
        *status = KVS_ERR_IO;
        return nullptr;
    }
    Registry &r = reg();
    Env *e;
    {
        std::lock_guard<std::mutex> lock(r.mu);
        e = env_for_path_locked(r, path, status);
        if (e != nullptr)
            ++e->writers;
    }
    if (e == nullptr) {
        free(t);
        return nullptr;
    }
    // A reader process that died inside a read keeps its snapshot pinned,
    // and the writer could then never reuse a page again: clear such slots
    // before every write (a scan of the reader table, cheap next to a
    // commit).
    int dead = 0;
    mdb_reader_check(e->env, &dead);
    // Outside the registry lock: this waits for other writers, possibly in
    // other processes.
    MDB_txn *txn = nullptr;
    int rc = mdb_txn_begin(e->env, nullptr, 0, &txn);
    if (rc != 0) {
        std::lock_guard<std::mutex> lock(r.mu);
        --e->writers;
        trim_idle_locked(r);
        free(t);
        *status = KVS_ERR_IO;
        return nullptr;
    }
    t->env = e;
    t->txn = txn;
    *status = KVS_OK;
    return t;
}

static void txn_release(tarnhost_kvs_txn_t *t)
{
    Registry &r = reg();
    {
        std::lock_guard<std::mutex> lock(r.mu);
        --t->env->writers;
        t->env->last_use = ++r.clock;
        trim_idle_locked(r);
    }
    free(t);
}

uint32_t tarnhost_kvs_txn_put(tarnhost_kvs_txn_t *txn, const void *key,
                              uint32_t key_len, const void *value,
                              uint32_t value_len)
{
    if (txn == nullptr || key == nullptr || key_len == 0 ||
        (value == nullptr && value_len != 0))
        return KVS_ERR_INVALID;
    MDB_val k{key_len, const_cast<void *>(key)};
    MDB_val v{value_len, const_cast<void *>(value)};
    return from_mdb(mdb_put(txn->txn, txn->env->dbi, &k, &v, 0));
}

uint32_t tarnhost_kvs_txn_del(tarnhost_kvs_txn_t *txn, const void *key,
                              uint32_t key_len)
{
    if (txn == nullptr || key == nullptr || key_len == 0)
        return KVS_ERR_INVALID;
    MDB_val k{key_len, const_cast<void *>(key)};
    int rc = mdb_del(txn->txn, txn->env->dbi, &k, nullptr);
    if (rc == MDB_BAD_VALSIZE)
        return KVS_ERR_NOT_FOUND;
    return from_mdb(rc);
}

uint32_t tarnhost_kvs_txn_clear(tarnhost_kvs_txn_t *txn)
{
    if (txn == nullptr)
        return KVS_ERR_INVALID;
    return from_mdb(mdb_drop(txn->txn, txn->env->dbi, 0));
}

uint32_t tarnhost_kvs_txn_commit(tarnhost_kvs_txn_t *txn)
{
    if (txn == nullptr)
        return KVS_ERR_INVALID;
    int rc = mdb_txn_commit(txn->txn);
    txn_release(txn);
    return rc == 0 ? KVS_OK : KVS_ERR_IO;
}

void tarnhost_kvs_txn_abort(tarnhost_kvs_txn_t *txn)
{
    if (txn == nullptr)
        return;
    mdb_txn_abort(txn->txn);
    txn_release(txn);
}

uint32_t tarnhost_kvs_put(const char *uri, const void *key, uint32_t key_len,
                          const void *value, uint32_t value_len)
{
    uint32_t st = KVS_OK;
    tarnhost_kvs_txn_t *t = tarnhost_kvs_txn_begin(uri, &st);
    if (t == nullptr)
        return st;
    st = tarnhost_kvs_txn_put(t, key, key_len, value, value_len);
    if (st != KVS_OK) {
        tarnhost_kvs_txn_abort(t);
        return st;
    }
    return tarnhost_kvs_txn_commit(t);
}

uint32_t tarnhost_kvs_del(const char *uri, const void *key, uint32_t key_len)
{
    uint32_t st = KVS_OK;
    tarnhost_kvs_txn_t *t = tarnhost_kvs_txn_begin(uri, &st);
    if (t == nullptr)
        return st;
    st = tarnhost_kvs_txn_del(t, key, key_len);
    if (st != KVS_OK) {
        tarnhost_kvs_txn_abort(t);
        return st;
    }
    return tarnhost_kvs_txn_commit(t);
}

}  // extern "C"
