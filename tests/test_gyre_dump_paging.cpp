// Dump pages against pages built the straightforward way (stepping from the
// first node every time), byte for byte, while the cache changes between
// pages: topologies created and deleted (the one that starts the next page
// among them), VLANs and ftags moved, the cache flushed and rebuilt, and
// pages asked for out of order.

#include "support/dump_page_reference.h"
#include "test_gyre_support.h"

using namespace gyretest;

namespace {

Bytes library_page(uint32_t iteration)
{
    uint32_t size = 0;
    void *r = gyre_cache_build_resp_info(iteration, &size);
    if (r == nullptr)
        return {};
    const uint8_t *b = static_cast<const uint8_t *>(r);
    Bytes out(b, b + size);
    free(r);
    return out;
}

uint32_t page_status(const Bytes &page)
{
    uint32_t s = 0;
    if (page.size() >= 4)
        memcpy(&s, page.data(), 4);
    return s;
}

// The id of the node at `position` in tree order, or GYRE_TPG_NONE.
uint32_t id_at(uint64_t position)
{
    if (gyre_cache == nullptr)
        return GYRE_TPG_NONE;
    auto *n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_first_node(&gyre_cache->tree));
    for (; position > 0 && n != nullptr; --position)
        n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_next_node(&gyre_cache->tree, n));
    return n != nullptr ? n->tpg_id : GYRE_TPG_NONE;
}

// Empty while a walk of the tree meets as many nodes as it counts, in
// ascending id order.
std::string tree_violation()
{
    if (gyre_cache == nullptr)
        return "";
    uint32_t walked = 0, previous = 0;
    for (auto *n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_first_node(&gyre_cache->tree));
         n != nullptr;
         n = static_cast<const gyre_cache_tpg_node_t *>(bst_get_next_node(&gyre_cache->tree, n))) {
        if (walked > 0 && n->tpg_id < previous)
            return "id " + std::to_string(n->tpg_id) + " after " + std::to_string(previous);
        previous = n->tpg_id;
        ++walked;
    }
    if (walked != bst_count(&gyre_cache->tree))
        return std::to_string(walked) + " nodes walked, " +
               std::to_string(bst_count(&gyre_cache->tree)) + " counted";
    return "";
}

uint32_t tree_size() { return gyre_cache != nullptr ? bst_count(&gyre_cache->tree) : 0; }

// `n` topologies with ids spread over 1..5000, each with one VLAN and one
// ftag of its own (while there are).
std::string spread(uint32_t n, std::mt19937 &rng)
{
    Fabric f;
    Set ids;
    while (ids.size() < n)
        ids.insert(1 + rng() % 5000);
    uint32_t k = 0;
    for (uint32_t id : ids) {
        Topology t;
        t.id = id;
        if (k < 4096)
            t.active.insert(k);
        if (k < 1024)
            t.ftags.push_back({static_cast<uint16_t>(k), 2, 0});
        f.topologies.push_back(t);
        ++k;
    }
    return f.json();
}

// Topologies 1..n, topology i with VLAN i and ftag i.
std::string numbered_json(uint32_t n)
{
    Fabric f;
    for (uint32_t i = 1; i <= n; ++i) {
        Topology t;
        t.id = i;
        t.active.insert(i);
        t.ftags.push_back({static_cast<uint16_t>(i), 2, 0});
        f.topologies.push_back(t);
    }
    return f.json();
}

class GyreDumpPaging : public GyreTest {
protected:
    // The library's page of `iteration` equals the reference's; returns it.
    Bytes expect_page(uint32_t iteration, const std::string &when)
    {
        const Bytes want = dumpref::reference_page(iteration);
        const Bytes got = library_page(iteration);
        EXPECT_EQ(want.size(), got.size()) << when << ", iteration " << iteration;
        EXPECT_TRUE(want == got) << when << ", iteration " << iteration;
        ++pages_compared_;
        return got;
    }

    void mutate(std::mt19937 &rng, uint32_t next_iteration, std::string *log)
    {
        // The node that starts the next page, and its neighbours.
        const uint64_t start = static_cast<uint64_t>(next_iteration - 1) * GYRE_CACHE_DUMP_PAGE;
        const uint32_t kind = rng() % 12;
        *log += " " + std::to_string(kind);
        switch (kind) {
        case 0:
        case 1: {  // delete the node the next page starts at
            const uint32_t id = id_at(start);
            if (id != GYRE_TPG_NONE) {
                ASSERT_EQ(0, apply(BUS_OPC_GYRE_TPG_DELETE, tpg_payload(id)));
            }
            break;
        }
        case 2: {  // delete the node just before it, or just after it
            const uint64_t at = (rng() % 2 == 0 && start > 0) ? start - 1 : start + 1;
            const uint32_t id = id_at(at);
            if (id != GYRE_TPG_NONE) {
                ASSERT_EQ(0, apply(BUS_OPC_GYRE_TPG_DELETE, tpg_payload(id)));
            }
            break;
        }
        case 3: {  // delete anywhere, or a topology that is not there
            const uint32_t size = tree_size();
            const uint32_t id = size > 0 && rng() % 4 != 0 ? id_at(rng() % size) : 9000 + rng() % 100;
            ASSERT_EQ(0, apply(BUS_OPC_GYRE_TPG_DELETE, tpg_payload(id)));
            break;
        }
        case 4:
        case 5: {  // create, before or after the page position alike
            const uint32_t id = 1 + rng() % 6000;
            if (gyre_cache_find_topo_by_id(id) == nullptr) {
                ASSERT_EQ(0, apply(BUS_OPC_GYRE_TPG_CREATE, tpg_payload(id)));
            }
            break;
        }
        case 6: {  // move VLANs to topologies, some of them new
            std::vector<std::pair<uint32_t, Set>> records;
            for (uint32_t r = 1 + rng() % 3; r > 0; --r) {
                const uint32_t size = tree_size();
                const uint32_t id = size > 0 && rng() % 3 != 0 ? id_at(rng() % size) : 1 + rng() % 6000;
                Set vlans;
                for (uint32_t v = rng() % 8; v > 0; --v)
                    vlans.insert(rng() % 4096);
                records.emplace_back(id, vlans);
            }
            ASSERT_EQ(0, apply(BUS_OPC_GYRE_TPG_VLANS, vlans_payload(records)));
            break;
        }
        case 7: {  // move an ftag
            const uint32_t size = tree_size();
            if (size == 0)
                break;
            const uint32_t reason = rng() % 3 == 0 ? GYRE_FTAG_DELETE : GYRE_FTAG_UPDATE;
            ASSERT_EQ(0, apply(BUS_OPC_GYRE_FTAG_UPDATE,
                               ftags_payload({{reason, id_at(rng() % size), 2,
                                               static_cast<uint16_t>(rng() % 1024), 0}})));
            break;
        }
        case 8: {  // a topology's ftags deleted (attribute kind 2)
            const uint32_t size = tree_size();
            if (size > 0)
                attr(attr_payload(2, id_at(rng() % size), {static_cast<uint32_t>(rng() % 1024)}));
            break;
        }
        case 9:  // the whole cache deleted (attribute kind 3), then built again
            attr(attr_payload(3));
            if (rng() % 2 == 0) {
                ASSERT_EQ(nullptr, gyre_cache);
                ASSERT_EQ(1u, gyre_disable_cache_mode());
                ASSERT_EQ(1u, enable_cache());
            }
            break;
        case 10:  // the cache switched off and on
            ASSERT_EQ(1u, gyre_disable_cache_mode());
            if (rng() % 3 != 0) {
                ASSERT_EQ(1u, enable_cache());
            }
            break;
        default:
            break;  // no change
        }
        // VLAN moves may leave a topology out of sync (the pages show it);
        // the tree itself stays whole and ordered.
        ASSERT_EQ("", tree_violation()) << *log;
    }

    int pages_compared_ = 0;
};

TEST_F(GyreDumpPaging, WholeDumpsMatchTheReference)
{
    std::mt19937 rng(17);
    for (uint32_t n : {0u, 1u, 15u, 16u, 17u, 31u, 32u, 33u, 200u}) {
        load(spread(n, rng));
        ASSERT_EQ(1u, enable_cache());
        ASSERT_EQ(n, tree_size());
        uint32_t iteration = 1, pages = 0;
        for (;;) {
            const Bytes p = expect_page(iteration, "n " + std::to_string(n));
            ASSERT_FALSE(p.empty());
            ++pages;
            if (page_status(p) != GYRE_CACHE_DUMP_MORE)
                break;
            ++iteration;
        }
        EXPECT_EQ(n <= 16 ? 1u : (n + 15) / 16, pages) << n;
        // One further page has no records when the last one was full, the
        // next has none at all.
        expect_page(iteration + 1, "after the last");
        EXPECT_TRUE(library_page(iteration + 2).empty());
        EXPECT_TRUE(library_page(0).empty());
        ASSERT_EQ(1u, gyre_disable_cache_mode());
        ASSERT_FALSE(HasFailure()) << n;
    }
}

TEST_F(GyreDumpPaging, PagesAskedForOutOfOrder)
{
    std::mt19937 rng(1717);
    load(spread(300, rng));
    ASSERT_EQ(1u, enable_cache());
    const uint32_t last = (300 + 15) / 16;
    // Repeated pages, steps back, jumps ahead, restarts, and beyond the end.
    for (int i = 0; i < 400; ++i) {
        const uint32_t iteration = rng() % 8 == 0 ? last + 1 + rng() % 3 : 1 + rng() % last;
        expect_page(iteration, "request " + std::to_string(i));
        if (rng() % 3 == 0)
            expect_page(iteration, "again");
        if (rng() % 3 == 0 && iteration < last)
            expect_page(iteration + 1, "next");
        ASSERT_FALSE(HasFailure());
    }
}

TEST_F(GyreDumpPaging, CacheChangingBetweenPages)
{
    std::mt19937 rng(20260);
    for (int round = 0; round < 60; ++round) {
        load(spread(40 + rng() % 120, rng));
        ASSERT_EQ(1u, enable_cache());
        std::string log = "round " + std::to_string(round) + ", changes:";
        uint32_t iteration = 1;
        for (int step = 0; step < 40; ++step) {
            const Bytes p = expect_page(iteration, log);
            ASSERT_FALSE(HasFailure());
            if (p.empty() || page_status(p) != GYRE_CACHE_DUMP_MORE)
                break;
            ++iteration;
            for (uint32_t k = rng() % 3; k > 0; --k) {
                mutate(rng, iteration, &log);
                ASSERT_FALSE(HasFailure());
            }
            if (gyre_cache == nullptr && !gyre_cache_enabled) {
                ASSERT_EQ(1u, enable_cache());
            }
        }
        ASSERT_EQ(1u, gyre_disable_cache_mode());
    }
    printf("%d pages compared with the reference\n", pages_compared_);
}

// Topologies of equal id sit side by side in the tree; the pages still
// follow tree order, the remembered start included.
TEST_F(GyreDumpPaging, EqualIdsSideBySide)
{
    load(numbered_json(40));
    ASSERT_EQ(1u, enable_cache());
    for (int i = 0; i < 30; ++i)
        ASSERT_NE(nullptr, gyre_cache_add_tpg(20));
    const uint32_t last = (tree_size() + 15) / 16;
    for (uint32_t it = 1; it <= last; ++it)
        expect_page(it, "equal ids");
    expect_page(2, "equal ids");
    // The third page starts among the equal ids; delete one of them (the
    // tree's lookup picks which) and add one more.
    expect_page(2, "before");
    const uint32_t id = id_at(32);
    ASSERT_EQ(20u, id);
    ASSERT_EQ(0, apply(BUS_OPC_GYRE_TPG_DELETE, tpg_payload(id)));
    expect_page(3, "after a delete of an equal id");
    ASSERT_EQ(0, apply(BUS_OPC_GYRE_TPG_CREATE, tpg_payload(20)));
    expect_page(4, "after a create of an equal id");
}

}  // namespace
