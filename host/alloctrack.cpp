// The memory tracker: per-library, per-type counts of live allocations.
//
// Each block carries a small header so that a free knows its size; the
// counters are atomics so the counting costs no lock.

#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "host/tarnhost.h"
#include "platform/alloctrack.h"

namespace {

constexpr uint32_t kMaxLibs = 1024;
constexpr uint32_t kMaxTypes = 64;

struct Counter {
    std::atomic<uint64_t> count{0};
    std::atomic<uint64_t> bytes{0};
};

// Indexed by lib_id % kMaxLibs; ids beyond are folded, which only merges
// counts of libraries that share a slot.
Counter g_counters[kMaxLibs][kMaxTypes];

struct Library {
    bool registered = false;
    std::string name;
    std::vector<std::string> types;
};

std::mutex g_mutex;
Library g_libraries[kMaxLibs];

// Keeps the payload aligned for any type.
struct alignas(16) Header {
    uint64_t size;
    uint32_t lib_id;
    uint32_t type;
};

Counter *counter(uint32_t lib_id, uint32_t type)
{
    if (type >= kMaxTypes)
        return nullptr;
    return &g_counters[lib_id % kMaxLibs][type];
}

}  // namespace

extern "C" {

// The names are copied aside first: out of memory, the registration is
// left as it was and 1 is returned.
uint32_t alloctrack_init(const char *name, uint32_t lib_id,
                         const char *const *type_names, uint32_t count)
try {
    Library fresh;
    fresh.registered = true;
    fresh.name = name ? name : "";
    for (uint32_t i = 0; type_names != nullptr && i < count; ++i)
        fresh.types.emplace_back(type_names[i] ? type_names[i] : "");
    std::lock_guard<std::mutex> lock(g_mutex);
    std::swap(g_libraries[lib_id % kMaxLibs], fresh);
    return 0;
} catch (const std::bad_alloc &) {
    return 1;
}

uint32_t alloctrack_uninit(uint32_t lib_id)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    Library &lib = g_libraries[lib_id % kMaxLibs];
    if (!lib.registered)
        return 1;
    lib = Library{};
    return 0;
}

void *alloctrack_alloc(uint32_t lib_id, uint32_t type, size_t size)
{
    uint32_t status;
    if (tarnhost_fault_hit("alloctrack_alloc", &status))
        return nullptr;
    Counter *c = counter(lib_id, type);
    if (c == nullptr || size > SIZE_MAX - sizeof(Header))
        return nullptr;
    auto *h = static_cast<Header *>(malloc(sizeof(Header) + size));
    if (h == nullptr)
        return nullptr;
    h->size = size;
    h->lib_id = lib_id;
    h->type = type;
    c->count.fetch_add(1, std::memory_order_relaxed);
    c->bytes.fetch_add(size, std::memory_order_relaxed);
    return h + 1;
}

void alloctrack_free(uint32_t lib_id, uint32_t type, void *p)
{
    (void)lib_id;
    (void)type;
    if (p == nullptr)
        return;
    Header *h = static_cast<Header *>(p) - 1;
    // The header, not the caller, says where the block was counted.
    Counter *c = counter(h->lib_id, h->type);
    if (c != nullptr) {
        c->count.fetch_sub(1, std::memory_order_relaxed);
        c->bytes.fetch_sub(h->size, std::memory_order_relaxed);
    }
    free(h);
}

uint64_t alloctrack_live_count(uint32_t lib_id, uint32_t type)
{
    Counter *c = counter(lib_id, type);
    return c ? c->count.load(std::memory_order_relaxed) : 0;
}

uint64_t alloctrack_live_bytes(uint32_t lib_id, uint32_t type)
{
    Counter *c = counter(lib_id, type);
    return c ? c->bytes.load(std::memory_order_relaxed) : 0;
}

}  // extern "C"
