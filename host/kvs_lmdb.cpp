// The shared key/value database on LMDB.
//
// Every database of a device is a named database of the device's one LMDB
// environment (kvs_store.h), so one write transaction can change several of
// them at once: a device load or a change touching the Tarn and the Gyre
// databases is seen whole or not at all.  Inside a process this file keeps:
//
//  - Env: one per open environment, keyed by its directory.  LMDB forbids
//    opening one environment twice in a process, so every URI of a device
//    shares it.  An Env whose files were replaced on disk (a rebuilt store)
//    is stale: it serves the URIs attached to it until they close, new
//    attachments get the new files.  Envs that no URI has open are kept for
//    the writer, a few at most, then closed.
//  - Db: one per named database of an Env, shared by the spellings of its
//    URI; it holds the database's handle once the database exists and the
//    process's one iterator position on it.
//  - Link: one per kvs_open of a URI, published in a lock-free slot table so
//    that kvs_read can find it without a lock.  Links are never freed (a
//    reader may still be looking at a dead one); they are a few hundred bytes.
//  - per-thread readers: each thread keeps one read transaction per Link and
//    one buffer.  A read renews the transaction, copies the value into the
//    buffer and resets the transaction before it returns, so no snapshot
//    outlives the call: an idle or stopped reader never keeps the writer
//    from reusing pages.  The value stays valid, as promised, until the
//    thread's next read through the same Link.  Small answers are also
//    kept per Link and thread (kvs_value_cache.h) and given again without
//    a snapshot while the store's last committed transaction is the one
//    they were read in.
//
// kvs_close must not race with reads of the same database in other threads:
// closing aborts their read transactions.

#include <errno.h>
#include <lmdb.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <utility>
#include <vector>

#include "host/kvs_internal.h"
#include "host/kvs_store.h"
#include "host/kvs_value_cache.h"
#include "host/nomem.h"
#include "host/tarnhost.h"
#include "platform/kvs.h"

namespace {

using tarnhost::kStoreNameMax;
using tarnhost::kStorePathMax;
using tarnhost::store_status;
using tarnhost::StoreId;

constexpr unsigned kMaxLinks = 128;   // URIs open at once in a process
constexpr unsigned kMaxIdleEnvs = 4;  // environments kept for the writer
// The records an iterator step reads ahead of its position: one, or, while
// a walk goes on from where the last call left it, up to kAheadMax that
// together take at most kAheadBytes (the first is always read).
constexpr unsigned kAheadMax = 16;
constexpr size_t kAheadBytes = 16 * 1024;

// Where the iterator of a database stands.  On a record (kIterOn), the
// record is kept as a copy and no snapshot is held between calls: each step
// takes a fresh snapshot, finds its way back to the kept key and moves on
// from there.  The Done states come after the walk has reached the end; the
// position stays put until the next init.
enum IterState { kIterNone, kIterBeforeFirst, kIterOn, kIterDoneOn, kIterDoneEmpty };

// Bytes that must outlive the snapshot they were read from.
struct Held {
    void *data = nullptr;
    size_t len = 0;
    size_t cap = 0;
};

bool hold(Held *h, const MDB_val &v)
{
    if (v.mv_size > h->cap) {
        void *p = malloc(v.mv_size);
        if (p == nullptr)
            return false;
        free(h->data);
        h->data = p;
        h->cap = v.mv_size;
    }
    if (v.mv_size != 0)
        memcpy(h->data, v.mv_data, v.mv_size);
    h->len = v.mv_size;
    return true;
}

void unhold(Held *h)
{
    free(h->data);
    *h = Held{};
}

struct Db {
    char *name = nullptr;
    // The handle, 0 until the database is known to exist in this process.
    std::atomic<MDB_dbi> dbi{0};
    unsigned links = 0;  // Links open on it (registry mutex)

    // The process's one iterator position on this database: a read
    // transaction renewed for each step and reset before the step returns,
    // and the record the position stands on, copied.
    std::mutex iter_mu;
    MDB_txn *iter_txn = nullptr;
    MDB_cursor *iter_cur = nullptr;
    bool iter_txn_live = false;
    IterState iter_state = kIterNone;
    Held held_key, held_value;
    // The records after the position, read in the same snapshot, in order
    // ([ahead_pos, ahead_n); `ahead_end` when the last of them, or the
    // position when there is none, was the database's last), and the
    // snapshot's transaction id.  While the store's last committed
    // transaction is still that one, a fresh snapshot would find exactly
    // these, so steps are taken from the copies without one.
    bool ahead_valid = false;
    bool ahead_end = false;
    uint64_t ahead_txnid = 0;
    unsigned ahead_pos = 0, ahead_n = 0;
    unsigned ahead_want = 1;  // how many the next snapshot reads
    Held ahead_key[kAheadMax], ahead_value[kAheadMax];
};

struct Env {
    char *path = nullptr;
    MDB_env *env = nullptr;
    StoreId id;
    int lock_fd = -1;       // see store_open
    unsigned links = 0;     // Links open on it (under the registry mutex)
    unsigned writers = 0;   // write transactions in progress (same)
    uint64_t last_use = 0;  // for closing the least recently used idle Env

    // mdb_dbi_open may not run in two transactions of a process at once,
    // and a write transaction that opened a handle must end first.
    std::recursive_mutex dbi_mu;
    std::mutex dbs_mu;  // the list below; taken last, alone
    std::vector<Db *> dbs;
};

struct Link {
    char *uri = nullptr;  // immutable once published
    Env *env = nullptr;   // meaningful only while live
    Db *db = nullptr;     // same
    std::atomic<uint32_t> live{0};
    std::vector<MDB_txn *> readers;  // every thread's txn (registry mutex)
};

// Published links.  Readers scan [0, g_nslots) without a lock.
std::atomic<Link *> g_slots[kMaxLinks];
std::atomic<unsigned> g_nslots{0};

struct Registry {
    std::mutex mu;
    std::vector<Env *> envs;      // the current environment of each directory
    std::vector<Env *> replaced;  // stale ones still in use
    std::vector<Link *> retired;  // dead links, kept for lock-free readers
    uint64_t clock = 0;
    pthread_key_t thread_key;
};

// One thread's read transaction for one Link and the copy of its last value.
struct Reader {
    const char *uri_ptr;  // the caller's last pointer for this URI
    Link *link;
    MDB_txn *txn;
    bool active;  // renewed, holding a snapshot (only inside a call)
    void *buf;
    size_t cap;
    tarnhost::KvsValueCache *cache;  // made on first read; null without memory
};

// A reader's buffer and cache given back.
void free_reader_memory(Reader &rd)
{
    free(rd.buf);
    delete rd.cache;
    rd.buf = nullptr;
    rd.cache = nullptr;
}

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
    r.replaced.clear();
    for (uint32_t i = 0; i < tl_readers.n; ++i)
        free_reader_memory(tl_readers.v[i]);
    tl_readers.n = 0;
    r.mu.unlock();
}

void drop_reader_txn_locked(Reader &rd)
{
    auto &list = rd.link->readers;
    for (size_t j = 0; j < list.size(); ++j)
        if (list[j] == rd.txn) {
            list[j] = list.back();
            list.pop_back();
            break;
        }
    mdb_txn_abort(rd.txn);
}

void thread_exit(void *p)
{
    ThreadReaders *t = static_cast<ThreadReaders *>(p);
    Registry &r = reg();
    {
        std::lock_guard<std::mutex> lock(r.mu);
        for (uint32_t i = 0; i < t->n; ++i) {
            Reader &rd = t->v[i];
            free_reader_memory(rd);
            if (rd.link->live.load(std::memory_order_relaxed) != 0)
                drop_reader_txn_locked(rd);  // else aborted by kvs_close
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

void iter_release(Db *d)
{
    if (d->iter_txn_live)
        mdb_txn_reset(d->iter_txn);
    d->iter_txn_live = false;
}

void iter_close(Db *d)
{
    if (d->iter_cur != nullptr)
        mdb_cursor_close(d->iter_cur);
    if (d->iter_txn != nullptr)
        mdb_txn_abort(d->iter_txn);
    d->iter_cur = nullptr;
    d->iter_txn = nullptr;
    d->iter_txn_live = false;
    d->iter_state = kIterNone;
    d->ahead_valid = false;
    unhold(&d->held_key);
    unhold(&d->held_value);
    for (unsigned i = 0; i < kAheadMax; ++i) {
        unhold(&d->ahead_key[i]);
        unhold(&d->ahead_value[i]);
    }
}

void free_env(Env *e)
{
    for (Db *d : e->dbs) {
        iter_close(d);
        free(d->name);
        delete d;
    }
    if (e->env != nullptr)
        mdb_env_close(e->env);
    if (e->lock_fd >= 0)
        close(e->lock_fd);  // after LMDB's own locks are gone anyway
    free(e->path);
    delete e;
}

void remove_from(std::vector<Env *> *v, Env *e)
{
    for (size_t i = 0; i < v->size(); ++i)
        if ((*v)[i] == e) {
            (*v)[i] = v->back();
            v->pop_back();
            return;
        }
}

// Closes the least recently used environments that nothing holds, beyond a
// few kept so that a writer's repeated one-change transactions stay cheap,
// and every stale one that nothing holds.
void trim_idle_locked(Registry &r)
{
    for (size_t i = 0; i < r.replaced.size();) {
        Env *e = r.replaced[i];
        if (e->links == 0 && e->writers == 0) {
            r.replaced[i] = r.replaced.back();
            r.replaced.pop_back();
            free_env(e);
        } else {
            ++i;
        }
    }
    for (;;) {
        unsigned idle = 0;
        size_t oldest = r.envs.size();
        for (size_t i = 0; i < r.envs.size(); ++i) {
            Env *e = r.envs[i];
            if (e->links != 0 || e->writers != 0)
                continue;
            ++idle;
            if (oldest == r.envs.size() || e->last_use < r.envs[oldest]->last_use)
                oldest = i;
        }
        if (idle <= kMaxIdleEnvs)
            return;
        Env *e = r.envs[oldest];
        r.envs[oldest] = r.envs.back();
        r.envs.pop_back();
        free_env(e);
    }
}

// Marks the environment of `dir` stale: its files are no longer the store.
void retire_env_locked(Registry &r, const char *dir)
{
    for (Env *e : r.envs)
        if (strcmp(e->path, dir) == 0) {
            remove_from(&r.envs, e);
            if (tarnhost::room_for_one(r.replaced))
                r.replaced.push_back(e);
            else
                e->path[0] = '\0';  // kept nowhere: leaked, never matched
            break;
        }
    trim_idle_locked(r);
}

// The environment of a store directory, opened (and created) on demand.
Env *env_for_dir_locked(Registry &r, const char *dir, uint32_t *status)
{
    for (Env *e : r.envs)
        if (strcmp(e->path, dir) == 0) {
            StoreId now;
            if (tarnhost::store_id(dir, &now) && now.dev == e->id.dev &&
                now.ino == e->id.ino) {
                e->last_use = ++r.clock;
                return e;
            }
            retire_env_locked(r, dir);  // replaced on disk since
            break;
        }
    if (!tarnhost::room_for_one(r.envs)) {
        *status = KVS_ERR_IO;
        return nullptr;
    }
    Env *e = new (std::nothrow) Env;
    if (e != nullptr)
        e->path = dup(dir);
    if (e == nullptr || e->path == nullptr) {
        delete e;
        *status = KVS_ERR_IO;
        return nullptr;
    }
    *status = tarnhost::store_open(dir, &e->env, &e->id, &e->lock_fd);
    if (*status != KVS_OK) {
        e->env = nullptr;
        free_env(e);
        return nullptr;
    }
    // Reader slots of processes that died without closing would pin old
    // pages and, in the end, fill the table.
    int dead = 0;
    mdb_reader_check(e->env, &dead);
    e->last_use = ++r.clock;
    r.envs.push_back(e);
    return e;
}

// The Db of `name` in `e`, made on first use; null when out of memory.
Db *db_for(Env *e, const char *name)
{
    std::lock_guard<std::mutex> lock(e->dbs_mu);
    for (Db *d : e->dbs)
        if (strcmp(d->name, name) == 0)
            return d;
    if (!tarnhost::room_for_one(e->dbs))
        return nullptr;
    Db *d = new (std::nothrow) Db;
    if (d != nullptr)
        d->name = dup(name);
    if (d == nullptr || d->name == nullptr) {
        delete d;
        return nullptr;
    }
    e->dbs.push_back(d);
    return d;
}

// The handle of a database that another process may have made since this
// one last looked: KVS_ERR_NOT_FOUND while it does not exist.  Readers do
// not wait: while a write transaction of this process is open (it holds
// the handle lock to its end) a database this process has not met yet
// reads as absent, as it would have a moment before.  Attaching looks the
// handle up, so this is only ever about databases made after that.
uint32_t resolve_dbi(Env *e, Db *d, MDB_dbi *out, bool wait)
{
    std::unique_lock<std::recursive_mutex> lock(e->dbi_mu, std::defer_lock);
    if (wait)
        lock.lock();
    else if (!lock.try_lock())
        return KVS_ERR_NOT_FOUND;
    MDB_dbi dbi = d->dbi.load(std::memory_order_acquire);
    if (dbi != 0) {
        *out = dbi;
        return KVS_OK;
    }
    MDB_txn *txn = nullptr;
    int rc = mdb_txn_begin(e->env, nullptr, MDB_RDONLY, &txn);
    if (rc != 0)
        return store_status(rc) == KVS_ERR_INVALID ? KVS_ERR_IO : store_status(rc);
    rc = mdb_dbi_open(txn, d->name, 0, &dbi);
    if (rc == 0)
        rc = mdb_txn_commit(txn);  // makes the handle the process's
    else
        mdb_txn_abort(txn);
    if (rc == MDB_NOTFOUND)
        return KVS_ERR_NOT_FOUND;
    if (rc != 0)
        return store_status(rc) == KVS_ERR_INVALID ? KVS_ERR_DAMAGED : store_status(rc);
    d->dbi.store(dbi, std::memory_order_release);
    *out = dbi;
    return KVS_OK;
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

    Db *d = l->db;
    if (--d->links == 0) {
        std::lock_guard<std::mutex> lock(d->iter_mu);
        iter_close(d);
    }
    Env *e = l->env;
    --e->links;
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
    for (uint32_t i = 0; i < t.n; ++i) {
        if (t.v[i].link->live.load(std::memory_order_acquire) != 0)
            t.v[kept++] = t.v[i];
        else
            free_reader_memory(t.v[i]);
    }
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
            *status = store_status(rc);
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
    // Begun live; every read renews it.
    mdb_txn_reset(txn);
    Reader &rd = t.v[t.n++];
    rd.uri_ptr = uri;
    rd.link = l;
    rd.txn = txn;
    rd.active = false;
    rd.buf = nullptr;
    rd.cap = 0;
    rd.cache = nullptr;
    return &rd;
}

inline Reader *reader_for(const char *uri, uint32_t *status)
{
    ThreadReaders &t = tl_readers;
    for (uint32_t i = 0; i < t.n; ++i) {
        Reader &rd = t.v[i];
        if (rd.uri_ptr == uri && rd.link->live.load(std::memory_order_acquire) != 0 &&
            strcmp(rd.link->uri, uri) == 0)
            return &rd;
    }
    return reader_slow(uri, status);
}

// Copies a value into the reader's buffer; false when out of memory.
inline bool keep_value(Reader *rd, const MDB_val &v)
{
    // An empty value gets a buffer too: the reader hands out a pointer to
    // it either way.
    if (v.mv_size > rd->cap || rd->buf == nullptr) {
        // The buffer only grows, by powers of two: a thread reads records
        // of a few sizes.
        size_t cap = 256;
        while (cap < v.mv_size)
            cap *= 2;
        void *p = malloc(cap);
        if (p == nullptr)
            return false;
        free(rd->buf);
        rd->buf = p;
        rd->cap = cap;
    }
    if (v.mv_size != 0)
        memcpy(rd->buf, v.mv_data, v.mv_size);
    return true;
}

}  // namespace

namespace tarnhost {

uint32_t kvs_attach(const char *uri)
{
    if (uri == nullptr)
        return KVS_ERR_INVALID;
    char dir[kStorePathMax], name[kStoreNameMax + 1];
    uint32_t st = store_locate(uri, dir, sizeof dir, name, sizeof name);
    if (st != KVS_OK)
        return st;

    Registry &r = reg();
    std::lock_guard<std::mutex> lock(r.mu);
    if (Link *old = find_link(uri)) {
        if (strcmp(old->env->path, dir) == 0)
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

    Env *e = env_for_dir_locked(r, dir, &st);
    if (e == nullptr)
        return st;
    Db *d = db_for(e, name);
    Link *l = d != nullptr ? new (std::nothrow) Link : nullptr;
    if (l != nullptr)
        l->uri = dup(uri);
    if (l == nullptr || l->uri == nullptr) {
        delete l;
        trim_idle_locked(r);
        return KVS_ERR_IO;
    }
    l->env = e;
    l->db = d;
    ++e->links;
    ++d->links;
    // Known from the start where the database exists already.
    MDB_dbi ignored = 0;
    resolve_dbi(e, d, &ignored, false);
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

uint32_t kvs_lookup(const char *uri, const void *key, uint32_t key_len, const void **data,
                    uint32_t *len)
{
    if (uri == nullptr || (key == nullptr && key_len != 0) || data == nullptr ||
        len == nullptr)
        return KVS_ERR_INVALID;
    uint32_t st = KVS_OK;
    Reader *rd = reader_for(uri, &st);
    if (rd == nullptr)
        return st;
    Link *l = rd->link;
    // Known before the snapshot is taken, so that the snapshot knows it.
    MDB_dbi dbi = l->db->dbi.load(std::memory_order_acquire);
    if (dbi == 0) {
        st = resolve_dbi(l->env, l->db, &dbi, false);
        if (st != KVS_OK)
            return st;
    }
    // Answered again without a snapshot while nothing was committed since
    // the answer was read (kvs_value_cache.h).
    MDB_env *env = l->env->env;
    MDB_envinfo info;
    const uint64_t generation =
        mdb_env_info(env, &info) == 0 ? static_cast<uint64_t>(info.me_last_txnid) : 0;
    if (rd->cache == nullptr && key_len <= tarnhost::KvsValueCache::kKeyMax)
        rd->cache = new (std::nothrow) tarnhost::KvsValueCache;  // else read uncached
    tarnhost::KvsValueCache::Answer kept;
    tarnhost::KvsValueCache::Place place{0, 0};
    if (rd->cache != nullptr && key_len <= tarnhost::KvsValueCache::kKeyMax)
        place = tarnhost::KvsValueCache::place_of(key, key_len);
    if (rd->cache != nullptr && rd->cache->find(key, key_len, place, generation, &kept)) {
        if (!kept.found)
            return KVS_ERR_NOT_FOUND;
        *data = kept.value;
        *len = kept.len;
        return KVS_OK;
    }
    if (!rd->active) {
        int rc = mdb_txn_renew(rd->txn);
        if (rc != 0)
            return store_status(rc) == KVS_ERR_INVALID ? KVS_ERR_IO : store_status(rc);
    }
    MDB_val k{key_len, const_cast<void *>(key)};
    MDB_val v{0, nullptr};
    int rc = mdb_get(rd->txn, dbi, &k, &v);
    const uint64_t snapshot = static_cast<uint64_t>(mdb_txn_id(rd->txn));
    const void *copy = nullptr;
    if (rc == 0 || rc == MDB_NOTFOUND) {
        if (rd->cache != nullptr)
            copy = rd->cache->keep(key, key_len, place, snapshot,
                                   rc == 0 ? v.mv_data : nullptr, static_cast<uint32_t>(v.mv_size));
        if (rc == 0)
            st = copy != nullptr || keep_value(rd, v) ? KVS_OK : KVS_ERR_IO;
        else
            st = KVS_ERR_NOT_FOUND;
    } else if (rc == MDB_BAD_VALSIZE) {
        st = KVS_ERR_NOT_FOUND;  // an empty or oversized key: no record
    } else {
        st = store_status(rc);
    }
    // The value is ours now: let go of the snapshot before returning.
    mdb_txn_reset(rd->txn);
    rd->active = false;
    if (st == KVS_OK) {
        static const unsigned char kEmpty = 0;
        *data = copy != nullptr ? copy : rd->buf != nullptr ? rd->buf : &kEmpty;
        *len = static_cast<uint32_t>(v.mv_size);
    }
    return st;
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

void fill(kvs_datum_t *d, const void *data, size_t len)
{
    if (d != nullptr) {
        d->data = data;
        d->len = static_cast<uint32_t>(len);
    }
}

// Positions the cursor on the last record not after `key`.
uint32_t position(MDB_env *env, Db *d, const void *key, uint32_t key_len)
{
    MDB_cursor *c = d->iter_cur;
    MDB_val k{0, nullptr}, v{0, nullptr};
    if (key_len == 0) {
        // Every stored key is longer than the empty one.
        d->iter_state = kIterBeforeFirst;
        return KVS_OK;
    }
    // LMDB refuses keys above its limit for lookups; such a key sorts just
    // after its own prefix of the limit's length, and no stored key is
    // longer, so searching for the prefix finds the same neighbours.
    size_t max = static_cast<size_t>(mdb_env_get_maxkeysize(env));
    k.mv_size = key_len < max ? key_len : max;
    k.mv_data = const_cast<void *>(key);
    int rc = mdb_cursor_get(c, &k, &v, MDB_SET_RANGE);
    if (rc == 0) {
        if (compare_keys(k, key, key_len) <= 0) {
            d->iter_state = kIterOn;
            return KVS_OK;
        }
        rc = mdb_cursor_get(c, &k, &v, MDB_PREV);
    } else if (rc == MDB_NOTFOUND) {
        rc = mdb_cursor_get(c, &k, &v, MDB_LAST);
    }
    if (rc == 0) {
        d->iter_state = kIterOn;
        return KVS_OK;
    }
    if (rc == MDB_NOTFOUND) {
        d->iter_state = kIterBeforeFirst;
        return KVS_OK;
    }
    d->iter_state = kIterNone;
    return store_status(rc);
}

// The cursor stands on a record: keep a copy of it as the position and give
// the snapshot back, so that nothing is pinned between calls (a walk that a
// caller leaves before its end would otherwise keep every page the writer
// frees from then on).
uint32_t iter_settle(Db *d)
{
    MDB_val k{0, nullptr}, v{0, nullptr};
    int rc = mdb_cursor_get(d->iter_cur, &k, &v, MDB_GET_CURRENT);
    uint32_t st = KVS_OK;
    d->ahead_valid = false;
    if (rc != 0) {
        st = store_status(rc);
        d->iter_state = kIterNone;
    } else if (!hold(&d->held_key, k) || !hold(&d->held_value, v)) {
        st = KVS_ERR_IO;
        d->iter_state = kIterNone;
    } else {
        d->iter_state = kIterOn;
        // The next records too, while the snapshot is at hand: the next
        // steps take them from the copies when nothing was committed since.
        d->ahead_pos = d->ahead_n = 0;
        d->ahead_end = false;
        size_t bytes = 0;
        while (d->ahead_n < d->ahead_want && d->ahead_n < kAheadMax &&
               (d->ahead_n == 0 || bytes < kAheadBytes)) {
            rc = mdb_cursor_get(d->iter_cur, &k, &v, MDB_NEXT);
            if (rc == MDB_NOTFOUND) {
                d->ahead_end = true;
                break;
            }
            if (rc != 0 || !hold(&d->ahead_key[d->ahead_n], k) ||
                !hold(&d->ahead_value[d->ahead_n], v))
                break;  // what was read so far still holds
            bytes += k.mv_size + v.mv_size;
            ++d->ahead_n;
        }
        d->ahead_valid = d->ahead_n != 0 || d->ahead_end;
        d->ahead_txnid = static_cast<uint64_t>(mdb_txn_id(d->iter_txn));
    }
    iter_release(d);
    return st;
}

// The store's last committed transaction, 0 when unknown.
uint64_t last_txnid(MDB_env *env)
{
    MDB_envinfo info;
    return mdb_env_info(env, &info) == 0 ? static_cast<uint64_t>(info.me_last_txnid) : 0;
}

// Whether the copies of the position and of the record after it are what
// a fresh snapshot would find: nothing was committed since they were read.
bool ahead_current(MDB_env *env, const Db *d)
{
    return d->iter_state == kIterOn && d->ahead_valid &&
           (d->ahead_pos < d->ahead_n || d->ahead_end) && d->ahead_txnid != 0 &&
           last_txnid(env) == d->ahead_txnid;
}

// The walk has reached the end: the position stays on the record it stood
// on, if any.
void iter_finish(Db *d)
{
    d->iter_state = d->iter_state == kIterOn ? kIterDoneOn : kIterDoneEmpty;
    iter_release(d);
}

// A fresh snapshot and cursor for a new walk of `d`.
uint32_t iter_begin(MDB_env *env, Db *d, MDB_dbi dbi)
{
    if (d->iter_txn == nullptr) {
        int rc = mdb_txn_begin(env, nullptr, MDB_RDONLY, &d->iter_txn);
        if (rc != 0) {
            d->iter_txn = nullptr;
            return store_status(rc) == KVS_ERR_INVALID ? KVS_ERR_IO : store_status(rc);
        }
        d->iter_txn_live = true;
        rc = mdb_cursor_open(d->iter_txn, dbi, &d->iter_cur);
        if (rc != 0) {
            mdb_txn_abort(d->iter_txn);
            d->iter_txn = nullptr;
            d->iter_cur = nullptr;
            d->iter_txn_live = false;
            return KVS_ERR_IO;
        }
        return KVS_OK;
    }
    if (mdb_txn_renew(d->iter_txn) != 0)
        return KVS_ERR_IO;
    d->iter_txn_live = true;
    if (mdb_cursor_renew(d->iter_txn, d->iter_cur) != 0) {
        iter_release(d);
        return KVS_ERR_IO;
    }
    return KVS_OK;
}

Link *iter_link(const char *uri, uint32_t *status)
{
    if (uri == nullptr) {
        *status = KVS_ERR_INVALID;
        return nullptr;
    }
    Link *l = find_link(uri);
    if (l == nullptr)
        *status = KVS_ERR_NOT_OPEN;
    return l;
}

}  // namespace

extern "C" {

uint32_t kvs_open(const char *uri, uint32_t mode, uint32_t a, uint32_t b, uint32_t c)
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

uint32_t kvs_iterator_init(const char *uri, const kvs_datum_t *key, uint32_t from_start)
{
    uint32_t st;
    if (tarnhost_fault_hit("kvs_iterator_init", &st))
        return st;
    if (!from_start && (key == nullptr || (key->data == nullptr && key->len)))
        return KVS_ERR_INVALID;
    // The handle of a database made since is looked up first, outside the
    // registry lock: a writer holding the handle lock may want that one.
    if (uri != nullptr)
        if (Link *l = find_link(uri)) {
            MDB_dbi ignored = 0;
            resolve_dbi(l->env, l->db, &ignored, false);
        }
    // The registry lock keeps kvs_close from tearing the iterator down under
    // us; iterator calls are not a hot path.
    Registry &r = reg();
    std::lock_guard<std::mutex> reg_lock(r.mu);
    Link *l = iter_link(uri, &st);
    if (l == nullptr)
        return st;
    Db *d = l->db;
    std::lock_guard<std::mutex> lock(d->iter_mu);
    if (!from_start && key->len != 0 && ahead_current(l->env->env, d)) {
        // A walk that starts again from where the last call left it: when
        // the key lies from the position up to (not including) the record
        // after it, the position is where a fresh search would put it.
        const MDB_val held{d->held_key.len, d->held_key.data};
        const bool last = d->ahead_pos == d->ahead_n;  // and ahead_end
        const MDB_val next{last ? 0 : d->ahead_key[d->ahead_pos].len,
                           last ? nullptr : d->ahead_key[d->ahead_pos].data};
        if (compare_keys(held, key->data, key->len) <= 0 &&
            (last || compare_keys(next, key->data, key->len) > 0))
            return KVS_OK;
    }
    // A walk that goes on from where it stands reads further ahead each
    // time; anything else reads one record ahead.
    if (!from_start && key->len != 0 && d->iter_state == kIterOn &&
        d->held_key.len == key->len && memcmp(d->held_key.data, key->data, key->len) == 0)
        d->ahead_want = d->ahead_want * 2 < kAheadMax ? d->ahead_want * 2 : kAheadMax;
    else
        d->ahead_want = 1;
    iter_release(d);
    d->iter_state = kIterNone;
    const MDB_dbi dbi = d->dbi.load(std::memory_order_acquire);
    if (dbi == 0) {
        // A database nobody has written yet: empty.
        d->iter_state = kIterDoneEmpty;
        return KVS_OK;
    }
    st = iter_begin(l->env->env, d, dbi);
    if (st != KVS_OK)
        return st;
    if (!from_start) {
        st = position(l->env->env, d, key->data, key->len);
        if (st == KVS_OK && d->iter_state == kIterOn)
            return iter_settle(d);
        iter_release(d);
        return st;
    }
    MDB_val k{0, nullptr}, v{0, nullptr};
    int rc = mdb_cursor_get(d->iter_cur, &k, &v, MDB_FIRST);
    if (rc == 0)
        return iter_settle(d);
    if (rc == MDB_NOTFOUND) {
        // An empty database: positioned before its (absent) first record,
        // and no walk left.
        iter_finish(d);
        return KVS_OK;
    }
    iter_release(d);
    return store_status(rc);
}

uint32_t kvs_getkey(const char *uri, kvs_datum_t *key, kvs_datum_t *value)
{
    uint32_t st;
    if (tarnhost_fault_hit("kvs_getkey", &st))
        return st;
    Registry &r = reg();
    std::lock_guard<std::mutex> reg_lock(r.mu);
    Link *l = iter_link(uri, &st);
    if (l == nullptr)
        return st;
    Db *d = l->db;
    std::lock_guard<std::mutex> lock(d->iter_mu);
    if (d->iter_state != kIterOn && d->iter_state != kIterDoneOn)
        return KVS_ERR_NO_POSITION;
    // The record as the step that reached it read it.
    fill(key, d->held_key.data, d->held_key.len);
    fill(value, d->held_value.data, d->held_value.len);
    return KVS_OK;
}

uint32_t kvs_getnext(const char *uri, kvs_datum_t *key, kvs_datum_t *value)
{
    uint32_t st;
    if (tarnhost_fault_hit("kvs_getnext", &st))
        return st;
    Registry &r = reg();
    std::lock_guard<std::mutex> reg_lock(r.mu);
    Link *l = iter_link(uri, &st);
    if (l == nullptr)
        return st;
    Db *d = l->db;
    std::lock_guard<std::mutex> lock(d->iter_mu);
    switch (d->iter_state) {
    case kIterNone:
        return KVS_ERR_NO_POSITION;
    case kIterDoneOn:
    case kIterDoneEmpty:
        return KVS_ERR_END;  // the snapshot had no more
    case kIterBeforeFirst:
    case kIterOn:
        break;
    }
    if (ahead_current(l->env->env, d)) {
        // Nothing committed since the position was read: the record after
        // it is the copy read with it.
        if (d->ahead_pos == d->ahead_n) {  // and ahead_end
            iter_finish(d);
            return KVS_ERR_END;
        }
        std::swap(d->held_key, d->ahead_key[d->ahead_pos]);
        std::swap(d->held_value, d->ahead_value[d->ahead_pos]);
        ++d->ahead_pos;
        fill(key, d->held_key.data, d->held_key.len);
        fill(value, d->held_value.data, d->held_value.len);
        return KVS_OK;
    }
    // A walk that steps on reads further ahead each time it needs a
    // snapshot.
    d->ahead_want = d->ahead_want * 2 < kAheadMax ? d->ahead_want * 2 : kAheadMax;
    const MDB_dbi dbi = d->dbi.load(std::memory_order_acquire);
    st = iter_begin(l->env->env, d, dbi);
    if (st != KVS_OK)
        return st;
    MDB_val k{0, nullptr}, v{0, nullptr};
    int rc;
    if (d->iter_state == kIterBeforeFirst) {
        rc = mdb_cursor_get(d->iter_cur, &k, &v, MDB_FIRST);
    } else {
        // Back to the kept key in this step's snapshot, then past it: a
        // record added or removed since shows as it is now, each key is
        // met once, in order.
        k.mv_size = d->held_key.len;
        k.mv_data = d->held_key.data;
        rc = mdb_cursor_get(d->iter_cur, &k, &v, MDB_SET_RANGE);
        if (rc == 0 && compare_keys(k, d->held_key.data, d->held_key.len) == 0)
            rc = mdb_cursor_get(d->iter_cur, &k, &v, MDB_NEXT);
    }
    if (rc == MDB_NOTFOUND) {
        iter_finish(d);  // the position stays where it was
        return KVS_ERR_END;
    }
    if (rc != 0) {
        iter_release(d);
        return store_status(rc);
    }
    st = iter_settle(d);
    if (st != KVS_OK)
        return st;
    fill(key, d->held_key.data, d->held_key.len);
    fill(value, d->held_value.data, d->held_value.len);
    return KVS_OK;
}

// ---- writer -----------------------------------------------------------------

struct tarnhost_kvs_txn {
    Env *env;
    MDB_txn *txn;
    MDB_dbi dbi;  // of the selected database
    bool holds_dbi_mu;
    // Handles this transaction opened: the process's once it commits.
    std::vector<std::pair<Db *, MDB_dbi>> opened;
    // A transaction on a new store: its environment is private until the
    // commit puts its directory in the place of `dir`.
    bool anew;
    char dir[kStorePathMax];
    char tmp[kStorePathMax];
};

// Static as well: inside extern "C" the unnamed namespace alone does not
// keep gcc from exporting these C-linkage names from the library.
namespace {

// A transaction object for `uri`, its store located; null with *status
// set when the URI names no database.  A null `status` is pointed at a
// place of this thread's own.
static tarnhost_kvs_txn_t *txn_new(const char *uri, uint32_t *&status)
{
    static thread_local uint32_t ignored;
    if (status == nullptr)
        status = &ignored;
    if (uri == nullptr) {
        *status = KVS_ERR_INVALID;
        return nullptr;
    }
    tarnhost_kvs_txn_t *t = new (std::nothrow) tarnhost_kvs_txn_t;
    if (t == nullptr) {
        *status = KVS_ERR_IO;
        return nullptr;
    }
    t->env = nullptr;
    t->txn = nullptr;
    t->dbi = 0;
    t->holds_dbi_mu = false;
    t->anew = false;
    t->dir[0] = t->tmp[0] = '\0';
    char name[kStoreNameMax + 1];
    *status = tarnhost::store_locate(uri, t->dir, sizeof t->dir, name, sizeof name);
    if (*status != KVS_OK) {
        delete t;
        return nullptr;
    }
    return t;
}

// Ends the transaction's hold on its environment (the LMDB transaction is
// committed or aborted by now).
static void txn_release(tarnhost_kvs_txn_t *t, bool committed)
{
    if (t->holds_dbi_mu) {
        if (committed)
            for (auto &o : t->opened)
                o.first->dbi.store(o.second, std::memory_order_release);
        t->env->dbi_mu.unlock();
    }
    if (t->anew) {
        free_env(t->env);  // private: no other user
    } else {
        Registry &r = reg();
        std::lock_guard<std::mutex> lock(r.mu);
        --t->env->writers;
        t->env->last_use = ++r.clock;
        trim_idle_locked(r);
    }
    delete t;
}

static uint32_t txn_start(tarnhost_kvs_txn_t *t, const char *uri)
{
    // A write transaction knows the handles opened before it began, and
    // may open more itself, which must then be the only ones opened in the
    // process until it ends: it holds the handle lock from before it
    // begins to its end (readers never wait for it, see resolve_dbi).
    t->env->dbi_mu.lock();
    t->holds_dbi_mu = true;
    // Outside the registry lock: this waits for other writers, possibly in
    // other processes.
    int rc = mdb_txn_begin(t->env->env, nullptr, 0, &t->txn);
    if (rc != 0) {
        t->txn = nullptr;
        return store_status(rc) == KVS_ERR_INVALID ? KVS_ERR_IO : store_status(rc);
    }
    return tarnhost_kvs_txn_select(t, uri);
}

}  // namespace

tarnhost_kvs_txn_t *tarnhost_kvs_txn_begin(const char *uri, uint32_t *status)
{
    tarnhost_kvs_txn_t *t = txn_new(uri, status);
    if (t == nullptr)
        return nullptr;
    Registry &r = reg();
    {
        std::lock_guard<std::mutex> lock(r.mu);
        t->env = env_for_dir_locked(r, t->dir, status);
        if (t->env != nullptr)
            ++t->env->writers;
    }
    if (t->env == nullptr) {
        delete t;
        return nullptr;
    }
    // A reader process that died inside a read keeps its snapshot pinned,
    // and the writer could then never reuse a page again: clear such slots
    // before every write (a scan of the reader table, cheap next to a
    // commit).
    int dead = 0;
    mdb_reader_check(t->env->env, &dead);
    *status = txn_start(t, uri);
    if (*status != KVS_OK) {
        if (t->txn != nullptr)
            mdb_txn_abort(t->txn);
        txn_release(t, false);
        return nullptr;
    }
    return t;
}

tarnhost_kvs_txn_t *tarnhost_kvs_txn_begin_anew(const char *uri, uint32_t *status)
{
    tarnhost_kvs_txn_t *t = txn_new(uri, status);
    if (t == nullptr)
        return nullptr;
    t->anew = true;
    t->env = new (std::nothrow) Env;
    if (t->env == nullptr) {
        delete t;
        *status = KVS_ERR_IO;
        return nullptr;
    }
    *status = tarnhost::store_open_fresh(t->dir, t->tmp, sizeof t->tmp, &t->env->env);
    if (*status != KVS_OK) {
        t->env->env = nullptr;
        free_env(t->env);
        delete t;
        return nullptr;
    }
    t->env->path = dup(t->tmp);
    *status = t->env->path == nullptr ? KVS_ERR_IO : txn_start(t, uri);
    if (*status != KVS_OK) {
        if (t->txn != nullptr)
            mdb_txn_abort(t->txn);
        tarnhost::store_discard(t->tmp);
        txn_release(t, false);
        return nullptr;
    }
    return t;
}

uint32_t tarnhost_kvs_check(const char *uri)
{
    if (uri == nullptr)
        return KVS_ERR_INVALID;
    char dir[kStorePathMax], name[kStoreNameMax + 1];
    const uint32_t st = tarnhost::store_locate(uri, dir, sizeof dir, name, sizeof name);
    return st != KVS_OK ? st : tarnhost::store_check(dir);
}

uint32_t tarnhost_kvs_txn_select(tarnhost_kvs_txn_t *txn, const char *uri)
{
    if (txn == nullptr || uri == nullptr || txn->txn == nullptr)
        return KVS_ERR_INVALID;
    char dir[kStorePathMax], name[kStoreNameMax + 1];
    uint32_t st = tarnhost::store_locate(uri, dir, sizeof dir, name, sizeof name);
    if (st != KVS_OK)
        return st;
    if (strcmp(dir, txn->dir) != 0)
        return KVS_ERR_INVALID;  // a database of another device
    Db *d = db_for(txn->env, name);
    if (d == nullptr)
        return KVS_ERR_IO;
    MDB_dbi dbi = d->dbi.load(std::memory_order_acquire);
    for (auto &o : txn->opened)
        if (o.first == d)
            dbi = o.second;
    if (dbi == 0) {
        // Under the handle lock, which the transaction holds from its start.
        int rc = mdb_dbi_open(txn->txn, name, MDB_CREATE, &dbi);
        if (rc != 0)
            return store_status(rc) == KVS_ERR_INVALID ? KVS_ERR_DAMAGED : store_status(rc);
        if (!tarnhost::room_for_one(txn->opened))
            return KVS_ERR_IO;  // the handle closes with the transaction
        txn->opened.emplace_back(d, dbi);
    }
    txn->dbi = dbi;
    return KVS_OK;
}

uint32_t tarnhost_kvs_txn_put(tarnhost_kvs_txn_t *txn, const void *key, uint32_t key_len,
                              const void *value, uint32_t value_len)
{
    if (txn == nullptr || key == nullptr || key_len == 0 ||
        (value == nullptr && value_len != 0))
        return KVS_ERR_INVALID;
    MDB_val k{key_len, const_cast<void *>(key)};
    MDB_val v{value_len, const_cast<void *>(value)};
    return store_status(mdb_put(txn->txn, txn->dbi, &k, &v, 0));
}

uint32_t tarnhost_kvs_txn_del(tarnhost_kvs_txn_t *txn, const void *key, uint32_t key_len)
{
    if (txn == nullptr || key == nullptr || key_len == 0)
        return KVS_ERR_INVALID;
    MDB_val k{key_len, const_cast<void *>(key)};
    int rc = mdb_del(txn->txn, txn->dbi, &k, nullptr);
    if (rc == MDB_BAD_VALSIZE)
        return KVS_ERR_NOT_FOUND;
    return store_status(rc);
}

uint32_t tarnhost_kvs_txn_clear(tarnhost_kvs_txn_t *txn)
{
    if (txn == nullptr)
        return KVS_ERR_INVALID;
    return store_status(mdb_drop(txn->txn, txn->dbi, 0));
}

uint32_t tarnhost_kvs_txn_commit(tarnhost_kvs_txn_t *txn)
{
    if (txn == nullptr)
        return KVS_ERR_INVALID;
    int rc = mdb_txn_commit(txn->txn);
    uint32_t st = rc == 0 ? KVS_OK : store_status(rc);
    if (st == KVS_ERR_INVALID)
        st = KVS_ERR_IO;
    if (!txn->anew) {
        txn_release(txn, rc == 0);
        return st;
    }
    // The new store is complete: close it and put it in the old one's place.
    char dir[kStorePathMax], tmp[kStorePathMax];
    memcpy(dir, txn->dir, sizeof dir);
    memcpy(tmp, txn->tmp, sizeof tmp);
    txn_release(txn, false);
    if (st == KVS_OK)
        st = tarnhost::store_replace(dir, tmp);
    else
        tarnhost::store_discard(tmp);
    if (st == KVS_OK) {
        Registry &r = reg();
        std::lock_guard<std::mutex> lock(r.mu);
        retire_env_locked(r, dir);
    }
    return st;
}

void tarnhost_kvs_txn_abort(tarnhost_kvs_txn_t *txn)
{
    if (txn == nullptr)
        return;
    mdb_txn_abort(txn->txn);
    if (txn->anew)
        tarnhost::store_discard(txn->tmp);
    txn_release(txn, false);
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
