// The memory-safety invariant of the Gyre cache's two direct-index tables:
// every ftag-table owner and every VLAN-table slot is null or a node that is
// still in the topology tree.  Header only, without the test framework, so
// that the fuzz targets check the same thing.
#ifndef TARN_TESTS_SUPPORT_GYRE_TABLES_H
#define TARN_TESTS_SUPPORT_GYRE_TABLES_H

#include <set>
#include <string>

#include "gyre/internal.h"

namespace gyretest {

// The first entry that points at a node not in the tree, described; empty
// when there is none (or no cache).  Compares addresses only: it never reads
// through an entry, so it is safe to call when an entry dangles.
inline std::string dangling_entry()
{
    if (gyre_cache == nullptr)
        return "";
    std::set<const void *> nodes;
    for (const void *n = bst_get_first_node(&gyre_cache->tree); n != nullptr;
         n = bst_get_next_node(&gyre_cache->tree, n))
        nodes.insert(n);
    for (uint32_t f = 0; f < GYRE_FTAG_COUNT; ++f) {
        const void *o = gyre_cache->ftags[f].owner;
        if (o != nullptr && nodes.count(o) == 0)
            return "ftag " + std::to_string(f) + " points at a node not in the tree";
    }
    for (uint32_t v = 0; v < GYRE_VLAN_COUNT; ++v) {
        const void *o = gyre_cache->vlans[v];
        if (o != nullptr && nodes.count(o) == 0)
            return "vlan " + std::to_string(v) + " points at a node not in the tree";
    }
    return "";
}

}  // namespace gyretest

#endif
