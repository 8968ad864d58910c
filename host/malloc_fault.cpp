// Allocation faults for code that takes memory straight from the C
// allocator: the host interposes malloc and fails the next N requests of one
// chosen size.  Matching on the size keeps unrelated allocations (the test
// framework's, the database's) out of the fault.
//
// Sanitizer runtimes interpose malloc themselves, so there the fault is not
// available (tarnhost_fault_malloc_supported() says so).

#include <stddef.h>
#include <stdint.h>

#include <atomic>

#include "host/tarnhost.h"

#if defined(__SANITIZE_ADDRESS__)
#define TARNHOST_NO_MALLOC_FAULT 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define TARNHOST_NO_MALLOC_FAULT 1
#endif
#endif

namespace {
std::atomic<size_t> g_fail_size{0};
std::atomic<uint32_t> g_fail_times{0};

#ifndef TARNHOST_NO_MALLOC_FAULT
// The distinct request sizes seen while recording, for sweeps that fail
// each in turn.  Filled from inside malloc, so it takes no memory itself.
constexpr size_t kMaxSizes = 4096;
std::atomic<bool> g_recording{false};
std::atomic_flag g_sizes_lock = ATOMIC_FLAG_INIT;
size_t g_sizes[kMaxSizes];
size_t g_nsizes;

void note_size(size_t size)
{
    if (!g_recording.load(std::memory_order_relaxed))
        return;
    while (g_sizes_lock.test_and_set(std::memory_order_acquire))
        ;
    size_t i = 0;
    while (i < g_nsizes && g_sizes[i] != size)
        ++i;
    if (i == g_nsizes && g_nsizes < kMaxSizes)
        g_sizes[g_nsizes++] = size;
    g_sizes_lock.clear(std::memory_order_release);
}
#endif
}  // namespace

extern "C" {

#ifndef TARNHOST_NO_MALLOC_FAULT
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);

// True when this request of `size` bytes is to fail.
static bool fail_now(size_t size)
{
    note_size(size);
    if (g_fail_times.load(std::memory_order_relaxed) == 0 ||
        size != g_fail_size.load(std::memory_order_relaxed))
        return false;
    uint32_t left = g_fail_times.load(std::memory_order_relaxed);
    while (left != 0 && !g_fail_times.compare_exchange_weak(left, left - 1))
        ;
    return left != 0;
}

__attribute__((visibility("default"))) void *malloc(size_t size)
{
    return fail_now(size) ? nullptr : __libc_malloc(size);
}

// Compilers turn malloc followed by zeroing into calloc.
__attribute__((visibility("default"))) void *calloc(size_t count, size_t size)
{
    if (size != 0 && count <= SIZE_MAX / size && fail_now(count * size))
        return nullptr;
    return __libc_calloc(count, size);
}

int tarnhost_fault_malloc_supported(void) { return 1; }

void tarnhost_fault_malloc_record(int on)
{
    if (on) {
        while (g_sizes_lock.test_and_set(std::memory_order_acquire))
            ;
        g_nsizes = 0;
        g_sizes_lock.clear(std::memory_order_release);
    }
    g_recording.store(on != 0, std::memory_order_relaxed);
}

size_t tarnhost_fault_malloc_sizes(size_t *out, size_t max)
{
    while (g_sizes_lock.test_and_set(std::memory_order_acquire))
        ;
    const size_t n = g_nsizes;
    for (size_t i = 0; i < n && i < max && out != nullptr; ++i)
        out[i] = g_sizes[i];
    g_sizes_lock.clear(std::memory_order_release);
    return n;
}
#else
int tarnhost_fault_malloc_supported(void) { return 0; }
void tarnhost_fault_malloc_record(int) {}
size_t tarnhost_fault_malloc_sizes(size_t *, size_t) { return 0; }
#endif

void tarnhost_fault_malloc(size_t size, uint32_t times)
{
    g_fail_size.store(size, std::memory_order_relaxed);
    g_fail_times.store(times, std::memory_order_relaxed);
}

}  // extern "C"
