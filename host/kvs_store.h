// The device's store on disk: one LMDB environment per host root, in
// <root>/kvs/env, with every database of the device as a named database of
// it.  This file knows where the environment lives, how to tell a damaged
// one before LMDB maps it, how to open it, and how to put a new one in its
// place at once.
#ifndef TARNHOST_KVS_STORE_H
#define TARNHOST_KVS_STORE_H

#include <lmdb.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#define TARNHOST_HIDDEN __attribute__((visibility("hidden")))

namespace tarnhost {

constexpr size_t kStorePathMax = 4096;
// Longest database name: LMDB keeps names as keys of its main database.
constexpr size_t kStoreNameMax = 480;

// Where a URI's database lives: the environment's directory and the
// database's name in it (the URI's canonical path below <root>/kvs, so two
// spellings of one URI name one database).  0 or KVS_ERR_BAD_URI.
TARNHOST_HIDDEN uint32_t store_locate(const char *uri, char *dir,
                                      size_t dir_size, char *name,
                                      size_t name_size);

// Which files an open environment is: a store put in its place has others.
struct StoreId {
    dev_t dev = 0;
    ino_t ino = 0;
};
// The identity of the data file in `dir`; false when there is none.
TARNHOST_HIDDEN bool store_id(const char *dir, StoreId *id);

// Opens the environment in `dir`, creating it (and <root>/kvs) when absent.
// A data or lock file that LMDB could not read safely is refused with
// KVS_ERR_DAMAGED before anything is mapped; an unreadable one gives
// KVS_ERR_DENIED.  On success *env is open, *id names its data file and
// *lock_fd is a descriptor of its lock file that must stay open until the
// environment is closed: closing any descriptor of a file drops every
// record lock the process holds on it, LMDB's included.
TARNHOST_HIDDEN uint32_t store_open(const char *dir, MDB_env **env,
                                    StoreId *id, int *lock_fd);

// Opens a new, empty environment in a private directory beside `dir`
// (its path in `tmp`), for a store that is to replace the one in `dir`.
TARNHOST_HIDDEN uint32_t store_open_fresh(const char *dir, char *tmp,
                                          size_t tmp_size, MDB_env **env);
// Puts the environment in `tmp` (closed by now) in the place of the one in
// `dir`: processes that open the store afterwards get the new one, and none
// opens half of each.  The old files are removed; processes that have them
// open keep them until they close.
TARNHOST_HIDDEN uint32_t store_replace(const char *dir, const char *tmp);
// Removes a private directory of store_open_fresh that is not wanted.
TARNHOST_HIDDEN void store_discard(const char *tmp);

// Reads every record of every database of the store in `dir` in a child
// process, so that damage LMDB cannot survive costs the child, not the
// caller: 0 when all of it reads back (or there is no store yet),
// KVS_ERR_DAMAGED when LMDB reports damage or the child dies of it.
TARNHOST_HIDDEN uint32_t store_check(const char *dir);

// Waits, before a write transaction, for a reader whose snapshot lags
// the last commit by more than a few transactions to move on (a reader
// taken off the CPU in the middle of a read), up to a bounded time per
// such snapshot.  Pages a commit frees are reused only once no snapshot
// is older, so a writer that went on beside one would grow the store by
// every page it changes for as long as that reader waits for the CPU.
TARNHOST_HIDDEN void wait_for_lagging_readers(MDB_env *env);

// A status for an LMDB or errno result.
TARNHOST_HIDDEN uint32_t store_status(int rc);

}  // namespace tarnhost

#endif
