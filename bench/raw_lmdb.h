// The baseline the database-backed operations are measured against: one
// LMDB read of the same key, mdb_get in a renewed read transaction, in the
// named database of the device's store, the snapshot given back after.
#ifndef TARN_BENCH_RAW_LMDB_H
#define TARN_BENCH_RAW_LMDB_H

#include <lmdb.h>
#include <stdint.h>
#include <string.h>

#include <string>

#include "host/tarnhost.h"

class RawLmdb {
public:
    // Opens the device's store and database `name` of the device that is up.
    bool open(const char *name)
    {
        return open_uri(std::string(TARNHOST_RUNNING_URI) + "/" + name);
    }

    // Opens the database of `uri` in the device's store.
    bool open_uri(const std::string &uri)
    {
        char path[1024];
        if (tarnhost_kvs_path(uri.c_str(), path, sizeof path) != 0)
            return false;
        // <root>/kvs/<name path> names the database in <root>/kvs/env.
        const std::string kvs = std::string(tarnhost_root()) + "/kvs/";
        const std::string db = std::string(path).substr(kvs.size());
        const std::string dir = kvs + "env";
        if (mdb_env_create(&env_) != 0 || mdb_env_set_maxdbs(env_, 256) != 0 ||
            mdb_env_set_mapsize(env_, 64u << 20) != 0 ||
            // Without the lock file: a second environment of one store in a
            // process would take the first one's record locks for its own and
            // clear the shared reader table.  The benchmarks write nothing
            // while they read, so no snapshot needs protecting.
            mdb_env_open(env_, dir.c_str(), MDB_RDONLY | MDB_NOTLS | MDB_NOLOCK, 0600) != 0 ||
            mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn_) != 0 ||
            mdb_dbi_open(txn_, db.c_str(), 0, &dbi_) != 0 || mdb_txn_commit(txn_) != 0 ||
            mdb_txn_begin(env_, nullptr, MDB_RDONLY, &txn_) != 0)
            return false;
        mdb_txn_reset(txn_);
        return true;
    }

    bool read(const uint8_t *key, size_t key_len) { return read_in(dbi_, key, key_len); }

    // Another database of the same store, for read_in.
    bool add_uri(const std::string &uri, MDB_dbi *dbi)
    {
        char path[1024];
        if (env_ == nullptr || tarnhost_kvs_path(uri.c_str(), path, sizeof path) != 0)
            return false;
        const std::string kvs = std::string(tarnhost_root()) + "/kvs/";
        const std::string db = std::string(path).substr(kvs.size());
        MDB_txn *t = nullptr;
        if (mdb_txn_begin(env_, nullptr, MDB_RDONLY, &t) != 0)
            return false;
        if (mdb_dbi_open(t, db.c_str(), 0, dbi) != 0) {
            mdb_txn_abort(t);
            return false;
        }
        return mdb_txn_commit(t) == 0;
    }

    // One read in its own fresh snapshot, as read() makes it.
    bool read_in(MDB_dbi dbi, const uint8_t *key, size_t key_len)
    {
        mdb_txn_reset(txn_);
        if (mdb_txn_renew(txn_) != 0)
            return false;
        MDB_val k = {key_len, const_cast<uint8_t *>(key)}, v;
        return mdb_get(txn_, dbi, &k, &v) == 0 && v.mv_size > 0;
    }

    // One walk step as a walk that holds no snapshot between steps must
    // take it: a fresh snapshot, a seek to the key the walk stands on, past
    // it, and the record found there (true when there is one).
    bool seek_step(const uint8_t *key, size_t key_len)
    {
        mdb_txn_reset(txn_);
        if (mdb_txn_renew(txn_) != 0)
            return false;
        if (cursor_ == nullptr ? mdb_cursor_open(txn_, dbi_, &cursor_) != 0
                               : mdb_cursor_renew(txn_, cursor_) != 0)
            return false;
        MDB_val k = {key_len, const_cast<uint8_t *>(key)}, v;
        int rc = mdb_cursor_get(cursor_, &k, &v, MDB_SET_RANGE);
        if (rc == 0 && k.mv_size == key_len && memcmp(k.mv_data, key, key_len) == 0)
            rc = mdb_cursor_get(cursor_, &k, &v, MDB_NEXT);
        return rc == 0 && v.mv_size > 0;
    }

    // A read inside a snapshot that stays open (begin_snapshot first): what
    // a second read costs when it need not take a snapshot of its own.
    bool begin_snapshot()
    {
        mdb_txn_reset(txn_);
        return mdb_txn_renew(txn_) == 0;
    }
    bool read_in_snapshot(const uint8_t *key, size_t key_len)
    {
        MDB_val k = {key_len, const_cast<uint8_t *>(key)}, v;
        return mdb_get(txn_, dbi_, &k, &v) == 0 && v.mv_size > 0;
    }

private:
    MDB_env *env_ = nullptr;
    MDB_dbi dbi_ = 0;
    MDB_txn *txn_ = nullptr;
    MDB_cursor *cursor_ = nullptr;
};

#endif
