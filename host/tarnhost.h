/*
 * host/tarnhost.h - the host platform's own interface: what tools, tests,
 * publishers and examples need beyond the platform calls that libtarn makes.
 *
 * Conventions
 *
 *  1. A simulated device lives in one directory, the host root: the value of
 *     TARNHOST_ROOT, or /dev/shm/tarnhost-<uid> (the effective uid).  Every
 *     process that names the same root is a process of the same device: it
 *     sees the same databases, the same supervisor state and the same
 *     message bus.  A root is used only when it is a real directory of the
 *     calling user that no other user can write, in directories that no
 *     other user can change; links and foreign files below it are refused,
 *     never followed.  Users share a device only on purpose: each names the
 *     group in TARNHOST_GROUP, and the members' roots and files in that
 *     group are accepted.
 *
 *  2. Statuses are the platform's 32-bit codes (KVS_ERR_* of
 *     platform/kvs.h); 0 is success.
 *
 *  3. Nothing here is used by libtarn itself.
 */
#ifndef TARNHOST_TARNHOST_H
#define TARNHOST_TARNHOST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- the host root ------------------------------------------------------ */

/* The root directory in force (TARNHOST_ROOT or the default). */
const char *tarnhost_root(void);
/* The default root of this process's effective user,
 * /dev/shm/tarnhost-<uid>. */
const char *tarnhost_default_root(void);
/* Create the root and its subdirectories (kvs/, log/, bus/, supervisor/),
 * accessible to the owner only, or check the ones that exist.  0 or an
 * errno value: ELOOP for a symbolic link, EPERM for a directory of another
 * user, EACCES for one that others can write (or a parent that others can
 * change), ENOTDIR, ENOENT for a missing parent. */
int tarnhost_root_prepare(void);
/* What this thread's last refusal of the root (or of a file below it) was
 * and what to do about it; "" when the last check found nothing wrong. */
const char *tarnhost_root_problem(void);
/* The refusal text when there is one, strerror(err) otherwise: what a tool
 * prints after a failed tarnhost_root_prepare(). */
const char *tarnhost_root_strerror(int err);
/* Map a database URI to its directory under the root.  0, or
 * KVS_ERR_BAD_URI for a URI the root cannot hold (empty, no scheme, a ".."
 * component, or too long). */
uint32_t tarnhost_kvs_path(const char *uri, char *out, size_t size);

/* Where the device's store lives below the root: every database of the
 * device is kept in the one file TARNHOST_KVS_STORE_FILE of this directory. */
#define TARNHOST_KVS_STORE_DIR "kvs/env"
#define TARNHOST_KVS_STORE_FILE "data.mdb"

/* The store status of an errno value met on the host root's files:
 * KVS_ERR_DENIED for a permission error, KVS_ERR_FULL for a full file
 * system, KVS_ERR_IO otherwise. */
uint32_t tarnhost_kvs_errno_status(int err);

/* ---- the supervisor ----------------------------------------------------- */

/* The running-configuration URI that tarnhost_device_up() records. */
#define TARNHOST_RUNNING_URI "volatile:/tarnhost/running"
/* Bring the device up: from now on supv_running_cfg_uri_get() returns
 * `running_uri` (TARNHOST_RUNNING_URI when null) in every process of the
 * root.  0 or an errno value. */
int tarnhost_device_up(const char *running_uri);
/* Bring it down again: no running configuration. */
int tarnhost_device_down(void);
/* Override this process's cell context word (tests); reset to the
 * environment's value with tarnhost_cell_reset(). */
void tarnhost_cell_set(uint32_t cell_ctxt);
void tarnhost_cell_reset(void);

/* ---- database writer ---------------------------------------------------- */

typedef struct tarnhost_kvs_txn tarnhost_kvs_txn_t;

/* Begin a write transaction on the database named by `uri` (created when it
 * does not exist).  Null on failure with *status set: KVS_ERR_DAMAGED for a
 * store whose files cannot be read safely, KVS_ERR_DENIED for files this
 * process may not use. */
tarnhost_kvs_txn_t *tarnhost_kvs_txn_begin(const char *uri, uint32_t *status);
uint32_t tarnhost_kvs_txn_put(tarnhost_kvs_txn_t *txn, const void *key,
                              uint32_t key_len, const void *value,
                              uint32_t value_len);
/* Every database of a device lives in one store, so one transaction may
 * change several: after tarnhost_kvs_txn_select(txn, uri) the puts, deletes
 * and clears go to the database named by `uri`, and the commit makes every
 * change of the transaction visible at once.  KVS_ERR_INVALID for a
 * database of another device. */
uint32_t tarnhost_kvs_txn_select(tarnhost_kvs_txn_t *txn, const char *uri);
/* Begin a write transaction on a new, empty store for the device of `uri`,
 * reading nothing of the old one: its commit replaces the device's whole
 * store (every database) at once.  The way back from a damaged store
 * (KVS_ERR_DAMAGED). */
tarnhost_kvs_txn_t *tarnhost_kvs_txn_begin_anew(const char *uri,
                                                uint32_t *status);
/* Read every record of every database in the store of the device of `uri`,
 * in a child process: 0 when it all reads back (or there is no store yet),
 * KVS_ERR_DAMAGED when the store is damaged, however badly. */
uint32_t tarnhost_kvs_check(const char *uri);
/* Delete a key; an absent key gives KVS_ERR_NOT_FOUND. */
uint32_t tarnhost_kvs_txn_del(tarnhost_kvs_txn_t *txn, const void *key,
                              uint32_t key_len);
/* Delete every record of the database. */
uint32_t tarnhost_kvs_txn_clear(tarnhost_kvs_txn_t *txn);
/* Commit (readers see all of the transaction's changes at once; a store
 * without room gives KVS_ERR_FULL and changes nothing) or abort; both
 * release the transaction. */
uint32_t tarnhost_kvs_txn_commit(tarnhost_kvs_txn_t *txn);
void tarnhost_kvs_txn_abort(tarnhost_kvs_txn_t *txn);
/* One-change transactions. */
uint32_t tarnhost_kvs_put(const char *uri, const void *key, uint32_t key_len,
                          const void *value, uint32_t value_len);
uint32_t tarnhost_kvs_del(const char *uri, const void *key, uint32_t key_len);

/* ---- fault injection ---------------------------------------------------- */

#define TARNHOST_FAULT_ALWAYS 0xFFFFFFFFu

/* Make the platform call named `call` (for example "kvs_read",
 * "kvs_open", "alloctrack_alloc", "bus_options_set",
 * "syslog_msg_rate_limit") fail with `status` the next `times` times
 * (TARNHOST_FAULT_ALWAYS: until cleared). */
void tarnhost_fault_set(const char *call, uint32_t status, uint32_t times);
void tarnhost_fault_clear(const char *call);
void tarnhost_fault_clear_all(void);
/* For host implementations: 1 (with *status) when `call` is to fail now. */
int tarnhost_fault_hit(const char *call, uint32_t *status);
/* Fail the next `times` C-allocator requests of exactly `size` bytes (0
 * times: stop).  Only where tarnhost_fault_malloc_supported() is 1: under
 * the sanitizers the allocator is theirs. */
void tarnhost_fault_malloc(size_t size, uint32_t times);
int tarnhost_fault_malloc_supported(void);
/* Record the sizes of C-allocator requests (1: start afresh, 0: stop);
 * tarnhost_fault_malloc_sizes copies the distinct sizes seen (at most
 * `max`, in first-seen order) and returns how many there were.  Where the
 * fault is not supported nothing is recorded. */
void tarnhost_fault_malloc_record(int on);
size_t tarnhost_fault_malloc_sizes(size_t *out, size_t max);

/* ---- logging ------------------------------------------------------------ */

/* Set this process's current facility (name at most 31 characters); a
 * null name leaves the process without a current facility. */
void tarnhost_log_set_facility(const char *name, uint8_t level);
/* Forget the rate limiter's history. */
void tarnhost_log_throttle_reset(void);
/* How many reports the rate limiter has held back in this process (a
 * repeat within its window): a caller that saw no line can tell a held
 * report from no report at all.  Never reset. */
uint64_t tarnhost_log_held(void);

/* Captured lines, by channel. */
enum tarnhost_channel {
    TARNHOST_CH_SYSLOG = 0,  /* rendered syslog messages               */
    TARNHOST_CH_DEBUG = 1,   /* debug print lines                      */
    TARNHOST_CH_ERROR = 2,   /* conversion errors (tlvkit_error_print) */
    TARNHOST_CH_CONSOLE = 3, /* console records (syslog_backtrace,
                                syslog_traceback)                      */
    TARNHOST_CH_COUNT = 4
};
/* Start (1) or stop (0) keeping rendered lines in memory. */
void tarnhost_capture(int on);
void tarnhost_capture_clear(void);
size_t tarnhost_capture_count(int channel);
/* Line i of a channel, without its trailing newline; null past the end. */
const char *tarnhost_capture_line(int channel, size_t i);
/* For host implementations: keep a rendered line when capturing. */
void tarnhost_capture_append(int channel, const char *line);

#ifdef __cplusplus
}
#endif

#endif /* TARNHOST_TARNHOST_H */
