// The interface manager and the port-channel manager of the host, backed by
// one database of the host root so that every process of a device agrees.
//
// Layout of TARNHOST_IFMGR_URI (all keys 5 bytes, numbers big-endian so a
// walk lists interfaces in ifindex order):
//
//   01 <ifindex>  ->  IfRecord (this host's own layout, host byte order)
//   02 <iod>      ->  the interface's ifindex, u32 host order
//
// Each platform call is one keyed read.  The database stays attached for the
// life of the process; the attachment follows the host root when a test
// moves it and is renewed in a forked child, where the store forgets every
// inherited attachment.

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <new>
#include <unordered_map>
#include <unordered_set>

#include "host/kvs_internal.h"
#include "host/tarnhost.h"
#include "host/tarnhost_ifmgr.h"
#include "platform/bond.h"
#include "platform/kvs.h"
#include "platform/nic.h"

namespace {

constexpr uint8_t kTagIf = 0x01;
constexpr uint8_t kTagIod = 0x02;
constexpr uint32_t kKeyLen = 5;
constexpr uint32_t kFlagMgmt = 0x1;
constexpr size_t kNameField = TARNHOST_IF_NAME_MAX + 1;

struct IfRecord {
    uint32_t ifindex;
    uint32_t iod;
    uint32_t flags;
    uint32_t pc_ifindex;
    char name[kNameField];
    char short_name[kNameField];
};

// One URI object for the life of the process: the store's per-thread reader
// cache is keyed by the pointer, so the fast path never compares text.
const char kUri[] = TARNHOST_IFMGR_URI;

void make_key(uint8_t key[kKeyLen], uint8_t tag, uint32_t n)
{
    key[0] = tag;
    key[1] = static_cast<uint8_t>(n >> 24);
    key[2] = static_cast<uint8_t>(n >> 16);
    key[3] = static_cast<uint8_t>(n >> 8);
    key[4] = static_cast<uint8_t>(n);
}

// The root the attachment was made under, replaced when the root moves.  A
// reader may still be comparing against an old text, so none is ever freed:
// every copy stays on g_root_texts (a few bytes per move; roots move only
// between tests).
struct RootText {
    RootText *next;
    char text[1];
};
RootText *g_root_texts = nullptr;  // under g_attach_mu
std::atomic<const char *> g_attached_root{nullptr};
std::mutex g_attach_mu;

const char *keep_root_text(const char *root)
{
    size_t n = strlen(root);
    RootText *t = static_cast<RootText *>(malloc(sizeof(RootText) + n));
    if (t == nullptr)
        return nullptr;
    memcpy(t->text, root, n + 1);
    t->next = g_root_texts;
    g_root_texts = t;
    return t->text;
}

uint32_t attach(const char *root, bool force)
{
    std::lock_guard<std::mutex> lock(g_attach_mu);
    const char *cur = g_attached_root.load(std::memory_order_acquire);
    if (!force && cur != nullptr && strcmp(cur, root) == 0)
        return KVS_OK;  // another thread got here first
    uint32_t st = tarnhost::kvs_attach(kUri);
    if (st != KVS_OK && st != KVS_ERR_ALREADY_OPEN)
        return st;
    if (cur == nullptr || strcmp(cur, root) != 0) {
        const char *copy = keep_root_text(root);
        if (copy == nullptr)
            return KVS_ERR_IO;
        g_attached_root.store(copy, std::memory_order_release);
    }
    return KVS_OK;
}

uint32_t lookup(const uint8_t *key, const void **data, uint32_t *len)
{
    const char *root = tarnhost_root();
    const char *cur = g_attached_root.load(std::memory_order_acquire);
    if (cur == nullptr || strcmp(cur, root) != 0) {
        uint32_t st = attach(root, false);
        if (st != KVS_OK)
            return st;
    }
    uint32_t st = tarnhost::kvs_lookup(kUri, key, kKeyLen, data, len);
    if (st == KVS_ERR_NOT_OPEN) {
        // A forked child, or someone closed the URI under us.
        st = attach(root, true);
        if (st != KVS_OK)
            return st;
        st = tarnhost::kvs_lookup(kUri, key, kKeyLen, data, len);
    }
    return st;
}

// What this thread has read of the interfaces, kept while the database's
// generation stays the same: the query paths ask about the same interfaces
// again and again, and most of all whether one is the management interface.
struct IfCache {
    const char *root = nullptr;
    uint64_t generation = 0;
    std::unordered_map<uint32_t, IfRecord> known;
    std::unordered_set<uint32_t> unknown;
};
constexpr size_t kIfCacheMax = 1u << 16;

uint32_t read_if_from_store(uint32_t ifindex, IfRecord *rec);

// This thread's cache, made on first use and freed when the thread ends.
// Held through a plain thread-local pointer and a thread key: a
// thread_local object with a destructor would have its destructor
// registered on first use, and that registration ends the process when it
// finds no memory.  Null (no caching) when there is no memory for it.
IfCache *thread_cache()
{
    static thread_local IfCache *mine = nullptr;
    if (mine != nullptr)
        return mine;
    static pthread_key_t key;
    static const bool keyed =
        pthread_key_create(&key, [](void *p) { delete static_cast<IfCache *>(p); }) == 0;
    if (!keyed)
        return nullptr;
    IfCache *c = new (std::nothrow) IfCache;
    if (c == nullptr)
        return nullptr;
    if (pthread_setspecific(key, c) != 0) {
        delete c;
        return nullptr;
    }
    mine = c;
    return mine;
}

// 0 with *rec filled, NIC_ERR_UNKNOWN for an unknown interface, or the
// store's status.
uint32_t read_if(uint32_t ifindex, IfRecord *rec)
{
    IfCache *const cached = thread_cache();
    if (cached == nullptr)
        return read_if_from_store(ifindex, rec);
    IfCache &cache = *cached;
    const char *root = g_attached_root.load(std::memory_order_acquire);
    uint64_t generation = 0;
    if (root == nullptr || strcmp(root, tarnhost_root()) != 0 ||
        tarnhost::kvs_generation(kUri, &generation) != KVS_OK)
        return read_if_from_store(ifindex, rec);
    if (cache.root != root || cache.generation != generation ||
        cache.known.size() + cache.unknown.size() >= kIfCacheMax) {
        cache.known.clear();
        cache.unknown.clear();
        cache.root = root;
        cache.generation = generation;
    }
    auto it = cache.known.find(ifindex);
    if (it != cache.known.end()) {
        *rec = it->second;
        return KVS_OK;
    }
    if (cache.unknown.count(ifindex) != 0)
        return NIC_ERR_UNKNOWN;
    const uint32_t st = read_if_from_store(ifindex, rec);
    // Only what was read within the generation checked above is kept.
    uint64_t after = 0;
    if (tarnhost::kvs_generation(kUri, &after) == KVS_OK && after == generation) {
        // Out of memory the answer stands, it is only not remembered.
        try {
            if (st == KVS_OK)
                cache.known.emplace(ifindex, *rec);
            else if (st == NIC_ERR_UNKNOWN)
                cache.unknown.insert(ifindex);
        } catch (const std::bad_alloc &) {
        }
    }
    return st;
}

uint32_t read_if_from_store(uint32_t ifindex, IfRecord *rec)
{
    uint8_t key[kKeyLen];
    make_key(key, kTagIf, ifindex);
    const void *data = nullptr;
    uint32_t len = 0;
    uint32_t st = lookup(key, &data, &len);
    if (st == KVS_ERR_NOT_FOUND)
        return NIC_ERR_UNKNOWN;
    if (st != KVS_OK)
        return st;
    // A record of another layout is not an interface this code can know.
    if (len != sizeof(IfRecord))
        return NIC_ERR_UNKNOWN;
    memcpy(rec, data, sizeof *rec);
    rec->name[kNameField - 1] = '\0';
    rec->short_name[kNameField - 1] = '\0';
    return KVS_OK;
}

// Room for a full name and for "unknown(4294967295)".
constexpr size_t kNameBuf = kNameField < 24 ? 24 : kNameField;

const char *name_of(uint32_t ifindex, bool short_name, char *buf)
{
    IfRecord rec;
    if (read_if(ifindex, &rec) != KVS_OK) {
        snprintf(buf, kNameBuf, "unknown(%lu)",
                 static_cast<unsigned long>(ifindex));
        return buf;
    }
    const char *src = short_name ? rec.short_name : rec.name;
    memcpy(buf, src, strlen(src) + 1);
    return buf;
}

const char *placeholder(uint32_t ifindex, char *buf)
{
    snprintf(buf, kNameBuf, "unknown(%lu)", static_cast<unsigned long>(ifindex));
    return buf;
}

bool valid_name(const char *s, bool may_be_empty)
{
    if (s == nullptr || s[0] == '\0')
        return may_be_empty;
    return strlen(s) <= TARNHOST_IF_NAME_MAX;
}

uint32_t validate(const tarnhost_if_t *ifc)
{
    if (ifc == nullptr || ifc->ifindex == 0 || !valid_name(ifc->name, false) ||
        !valid_name(ifc->short_name, true))
        return KVS_ERR_INVALID;
    return KVS_OK;
}

uint32_t put_locked(tarnhost_kvs_txn_t *txn, const tarnhost_if_t *ifc)
{
    IfRecord rec;
    memset(&rec, 0, sizeof rec);
    rec.ifindex = ifc->ifindex;
    rec.iod = ifc->iod;
    rec.flags = ifc->mgmt != 0 ? kFlagMgmt : 0;
    rec.pc_ifindex = ifc->pc_ifindex;
    const char *shortn = (ifc->short_name != nullptr && ifc->short_name[0])
                             ? ifc->short_name
                             : ifc->name;
    memcpy(rec.name, ifc->name, strlen(ifc->name));
    memcpy(rec.short_name, shortn, strlen(shortn));

    uint8_t key[kKeyLen];
    make_key(key, kTagIf, ifc->ifindex);
    uint32_t st = tarnhost_kvs_txn_put(txn, key, kKeyLen, &rec, sizeof rec);
    if (st != KVS_OK)
        return st;
    make_key(key, kTagIod, ifc->iod);
    const uint32_t ifindex = ifc->ifindex;
    return tarnhost_kvs_txn_put(txn, key, kKeyLen, &ifindex, sizeof ifindex);
}

}  // namespace

extern "C" {

// ---- writer -----------------------------------------------------------------

uint32_t tarnhost_ifmgr_txn_put(tarnhost_kvs_txn_t *txn,
                                const tarnhost_if_t *ifc)
{
    if (txn == nullptr)
        return KVS_ERR_INVALID;
    uint32_t st = validate(ifc);
    if (st != KVS_OK)
        return st;
    return put_locked(txn, ifc);
}

uint32_t tarnhost_ifmgr_put(const tarnhost_if_t *ifc)
{
    uint32_t st = validate(ifc);
    if (st != KVS_OK)
        return st;
    // The committed record says which IOD entry would go stale.
    IfRecord old;
    bool had_old = read_if(ifc->ifindex, &old) == KVS_OK;
    tarnhost_kvs_txn_t *txn = tarnhost_kvs_txn_begin(kUri, &st);
    if (txn == nullptr)
        return st;
    if (had_old && old.iod != ifc->iod) {
        uint8_t key[kKeyLen];
        make_key(key, kTagIod, old.iod);
        st = tarnhost_kvs_txn_del(txn, key, kKeyLen);
        if (st != KVS_OK && st != KVS_ERR_NOT_FOUND) {
            tarnhost_kvs_txn_abort(txn);
            return st;
        }
    }
    st = put_locked(txn, ifc);
    if (st != KVS_OK) {
        tarnhost_kvs_txn_abort(txn);
        return st;
    }
    return tarnhost_kvs_txn_commit(txn);
}

uint32_t tarnhost_ifmgr_clear(void)
{
    uint32_t st = KVS_OK;
    tarnhost_kvs_txn_t *txn = tarnhost_kvs_txn_begin(kUri, &st);
    if (txn == nullptr)
        return st;
    st = tarnhost_kvs_txn_clear(txn);
    if (st != KVS_OK) {
        tarnhost_kvs_txn_abort(txn);
        return st;
    }
    return tarnhost_kvs_txn_commit(txn);
}

// ---- interface manager --------------------------------------------------------

const char *nic_get_if_name(uint32_t ifindex)
{
    static thread_local char buf[kNameBuf];
    uint32_t st;
    if (tarnhost_fault_hit("nic_get_if_name", &st))
        return placeholder(ifindex, buf);
    return name_of(ifindex, false, buf);
}

const char *nic_get_if_short_name(uint32_t ifindex)
{
    static thread_local char buf[kNameBuf];
    uint32_t st;
    if (tarnhost_fault_hit("nic_get_if_short_name", &st))
        return placeholder(ifindex, buf);
    return name_of(ifindex, true, buf);
}

uint32_t nic_get_ifindex_frm_iod(uint32_t iod, uint32_t *ifindex)
{
    uint32_t st;
    if (tarnhost_fault_hit("nic_get_ifindex_frm_iod", &st))
        return st;
    if (ifindex == nullptr)
        return NIC_ERR_INVALID;
    uint8_t key[kKeyLen];
    make_key(key, kTagIod, iod);
    const void *data = nullptr;
    uint32_t len = 0;
    st = lookup(key, &data, &len);
    if (st == KVS_ERR_NOT_FOUND)
        return NIC_ERR_UNKNOWN;
    if (st != KVS_OK)
        return st;
    if (len != sizeof(uint32_t))
        return NIC_ERR_UNKNOWN;
    memcpy(ifindex, data, sizeof(uint32_t));
    return KVS_OK;
}

uint32_t nic_get_iod_frm_ifindex(uint32_t ifindex, uint32_t *iod)
{
    uint32_t st;
    if (tarnhost_fault_hit("nic_get_iod_frm_ifindex", &st))
        return st;
    if (iod == nullptr)
        return NIC_ERR_INVALID;
    IfRecord rec;
    st = read_if(ifindex, &rec);
    if (st != KVS_OK)
        return st;
    *iod = rec.iod;
    return KVS_OK;
}

uint32_t nic_is_mgmtether(uint32_t ifindex)
{
    uint32_t st;
    if (tarnhost_fault_hit("nic_is_mgmtether", &st))
        return 0;
    IfRecord rec;
    if (read_if(ifindex, &rec) != KVS_OK)
        return 0;
    return (rec.flags & kFlagMgmt) != 0 ? 1 : 0;
}

// ---- port-channel manager -----------------------------------------------------

uint32_t bond_get_pc_for_port(uint32_t ifindex, void *record)
{
    uint32_t st;
    if (tarnhost_fault_hit("bond_get_pc_for_port", &st))
        return st;
    if (record == nullptr)
        return TARNHOST_BOND_ERR_INVALID;
    IfRecord rec;
    st = read_if(ifindex, &rec);
    if (st == NIC_ERR_UNKNOWN)
        return BOND_ERR_UNKNOWN;
    if (st != KVS_OK)
        return st;
    uint8_t *out = static_cast<uint8_t *>(record);
    memset(out, 0, BOND_PC_RECORD_SIZE);
    memcpy(out + BOND_PC_IFINDEX_OFFSET, &rec.pc_ifindex, sizeof(uint32_t));
    return KVS_OK;
}

}  // extern "C"
