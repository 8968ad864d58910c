// The straightforward dump page: the page's first node found by stepping
// from the first node of the cache tree, (iteration - 1) x 16 steps.  The
// reference that the library's pages must match byte for byte (paging
// tests) and the cost that its paging is measured against (benchmarks).
// Header-only, so that the benchmarks can use it too.
#ifndef TARN_TESTS_SUPPORT_DUMP_PAGE_REFERENCE_H
#define TARN_TESTS_SUPPORT_DUMP_PAGE_REFERENCE_H

#include <stdint.h>
#include <string.h>

#include <vector>

#include "gyre/internal.h"

namespace dumpref {

inline void put_word(uint8_t *p, uint32_t v) { memcpy(p, &v, sizeof v); }

// The page of `iteration` from the cache as it is now: empty when there is
// no cache or no page (an iteration of 0 or beyond the last page).
inline std::vector<uint8_t> reference_page(uint32_t iteration)
{
    std::vector<uint8_t> page;
    if (gyre_cache == nullptr || iteration == 0)
        return page;
    const uint32_t count = bst_count(&gyre_cache->tree);
    const uint64_t idx = static_cast<uint64_t>(iteration) * GYRE_CACHE_DUMP_PAGE;
    const bool last = idx >= count;
    const int64_t n = last ? static_cast<int64_t>(count) -
                                 static_cast<int64_t>(iteration - 1) * GYRE_CACHE_DUMP_PAGE
                           : GYRE_CACHE_DUMP_PAGE;
    if (n < 0)
        return page;
    page.assign(GYRE_CACHE_DUMP_HEADER_SIZE + GYRE_CACHE_DUMP_RECORD_SIZE * static_cast<size_t>(n), 0);
    put_word(&page[0], last ? GYRE_CACHE_DUMP_END : GYRE_CACHE_DUMP_MORE);
    put_word(&page[4], last ? 0 : iteration + 1);
    put_word(&page[8], static_cast<uint32_t>(n));
    auto next = [](const void *node) {
        return static_cast<const gyre_cache_tpg_node_t *>(bst_get_next_node(&gyre_cache->tree, node));
    };
    auto *node = static_cast<const gyre_cache_tpg_node_t *>(bst_get_first_node(&gyre_cache->tree));
    for (uint64_t skip = static_cast<uint64_t>(iteration - 1) * GYRE_CACHE_DUMP_PAGE;
         skip > 0 && node != nullptr; --skip)
        node = next(node);
    uint8_t *rec = page.data() + GYRE_CACHE_DUMP_HEADER_SIZE;
    for (int64_t i = 0; i < n && node != nullptr; ++i, rec += GYRE_CACHE_DUMP_RECORD_SIZE) {
        put_word(rec, node->tpg_id);
        put_word(rec + 4, GYRE_FTAG_BMP_BYTES);
        memcpy(rec + 8, node->ftags.bits, GYRE_FTAG_BMP_BYTES);
        put_word(rec + 136, GYRE_VLAN_BMP_BYTES);
        memcpy(rec + 140, node->vlans.bits, GYRE_VLAN_BMP_BYTES);
        put_word(rec + 652, gyre_cache_verify_topo(node));
        node = next(node);
    }
    return page;
}

}  // namespace dumpref

#endif
