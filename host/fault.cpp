// Fault injection: make a named platform call fail with a chosen status.
//
// Checks sit at the top of every host platform call, including the hot read
// paths, so the unarmed case is one relaxed atomic load.

#include <atomic>
#include <map>
#include <mutex>
#include <new>
#include <string>

#include "host/tarnhost.h"

namespace {

struct Fault {
    uint32_t status;
    uint32_t remaining;  // TARNHOST_FAULT_ALWAYS: until cleared
};

std::atomic<int> g_armed{0};
std::mutex g_mutex;

std::map<std::string, Fault> &faults()
{
    static std::map<std::string, Fault> table;
    return table;
}

}  // namespace

extern "C" {

// Out of memory the fault is not armed.
void tarnhost_fault_set(const char *call, uint32_t status, uint32_t times)
try {
    if (call == nullptr || times == 0)
        return;
    std::lock_guard<std::mutex> lock(g_mutex);
    faults()[call] = Fault{status, times};
    g_armed.store(static_cast<int>(faults().size()), std::memory_order_release);
} catch (const std::bad_alloc &) {
}

void tarnhost_fault_clear(const char *call)
{
    if (call == nullptr)
        return;
    std::lock_guard<std::mutex> lock(g_mutex);
    faults().erase(call);
    g_armed.store(static_cast<int>(faults().size()), std::memory_order_release);
}

void tarnhost_fault_clear_all(void)
{
    tarnhost_fault_malloc(0, 0);
    std::lock_guard<std::mutex> lock(g_mutex);
    faults().clear();
    g_armed.store(0, std::memory_order_release);
}

int tarnhost_fault_hit(const char *call, uint32_t *status)
{
    if (g_armed.load(std::memory_order_acquire) == 0 || call == nullptr)
        return 0;
    std::lock_guard<std::mutex> lock(g_mutex);
    auto it = faults().find(call);
    if (it == faults().end())
        return 0;
    if (status != nullptr)
        *status = it->second.status;
    if (it->second.remaining != TARNHOST_FAULT_ALWAYS &&
        --it->second.remaining == 0) {
        faults().erase(it);
        g_armed.store(static_cast<int>(faults().size()),
                      std::memory_order_release);
    }
    return 1;
}

}  // extern "C"
