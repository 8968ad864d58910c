// Allocation failure at the platform boundary.
//
// libtarnhost keeps its bookkeeping in standard containers, and their
// allocations report failure by throwing std::bad_alloc.  The host is built
// with exceptions so that such a throw unwinds, releasing the locks and
// memory held on the way, up to the platform call that started it.  Every
// platform call that can allocate catches it there (a function-try-block
// ending in one of the helpers below) and reports the failure through its
// own status, as its contract in platform/ says: no exception ever leaves a
// platform call, whose callers are C or built without exceptions.
#ifndef TARN_HOST_NOMEM_H
#define TARN_HOST_NOMEM_H

#include <errno.h>

#include <new>

namespace tarnhost {

// The failure result `status` of a call that reports through errno.
template <class T>
T no_memory(T status)
{
    errno = ENOMEM;
    return status;
}

// Makes room for one more element of `v` (growing it geometrically), so
// that the push_back that follows cannot fail: false when memory ran out,
// with `v` unchanged.  For code that must not unwind half-way.
template <class V>
bool room_for_one(V &v) noexcept
{
    if (v.size() < v.capacity())
        return true;
    try {
        v.reserve(v.empty() ? 4 : 2 * v.size());
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

}  // namespace tarnhost

#endif
