// The balanced-tree library: every call, the layout the device relies on,
// and long random operation sequences checked against std::multiset.

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <ostream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/bst.h"

namespace {

// The topology node shape: link header, then a 32-bit topology id.
struct TopoNode {
    bst_link_t link;
    uint32_t id;
    uint32_t serial;  // insertion order, to tell equal keys apart
};

#if defined(__i386__)
static_assert(sizeof(bst_link_t) == 16, "the device's link header is 16 bytes");
static_assert(offsetof(TopoNode, id) == 16, "the key sits right after the header");
// On the device the key offset is the literal the library's clients pass.
constexpr uint32_t kTopoKeyOffset = 16;
#else
constexpr uint32_t kTopoKeyOffset = offsetof(TopoNode, id);
#endif
static_assert(offsetof(TopoNode, link) == 0, "the link header starts the node");
static_assert(offsetof(bst_tree_t, header) == 0, "the tree starts with its anchor");

int g_compare_calls;

// The topology id compare: 1 first greater, 2 first smaller, 0 equal.
uint32_t topo_cmp(const void *a, const void *b)
{
    ++g_compare_calls;
    uint32_t x, y;
    memcpy(&x, a, sizeof x);
    memcpy(&y, b, sizeof y);
    if (x > y)
        return 1;
    if (x < y)
        return 2;
    return 0;
}

void init_topo_tree(bst_tree_t *tree)
{
    ASSERT_EQ(0u, bst_init(tree, sizeof(uint32_t), kTopoKeyOffset, topo_cmp));
}

std::vector<TopoNode *> walk_first_next(const bst_tree_t *tree)
{
    std::vector<TopoNode *> out;
    for (void *n = bst_get_first_node(tree); n != nullptr;
         n = bst_get_next_node(tree, n))
        out.push_back(static_cast<TopoNode *>(n));
    return out;
}

std::vector<TopoNode *> walk_iterator(const bst_tree_t *tree)
{
    std::vector<TopoNode *> out;
    bst_iterator_t it;
    bst_init_iterator(tree, &it);
    for (void *n = bst_iterator_next(&it); n != nullptr; n = bst_iterator_next(&it))
        out.push_back(static_cast<TopoNode *>(n));
    return out;
}

// Checks the links below `n` and returns the subtree's height, or -1 after
// reporting a broken link, an imbalance or a stale balance field.
int check_subtree(const bst_link_t *n, const bst_link_t *parent, size_t *nodes)
{
    if (n == nullptr)
        return 0;
    ++*nodes;
    if (n->parent != parent) {
        ADD_FAILURE() << "parent link broken";
        return -1;
    }
    int hl = check_subtree(n->left, n, nodes);
    int hr = check_subtree(n->right, n, nodes);
    if (hl < 0 || hr < 0)
        return -1;
    if (hr - hl < -1 || hr - hl > 1) {
        ADD_FAILURE() << "subtree out of balance: " << hl << " vs " << hr;
        return -1;
    }
    if (n->balance != hr - hl) {
        ADD_FAILURE() << "balance field " << n->balance << " for heights " << hl
                      << "/" << hr;
        return -1;
    }
    return 1 + std::max(hl, hr);
}

// The whole tree: anchor links, count, AVL shape.  Returns the height.
int check_tree(const bst_tree_t *tree)
{
    const bst_link_t *root = tree->header.parent;
    size_t nodes = 0;
    int height = check_subtree(root, &tree->header, &nodes);
    EXPECT_EQ(nodes, tree->count);
    EXPECT_EQ(nodes, bst_count(tree));
    if (root == nullptr) {
        EXPECT_EQ(&tree->header, tree->header.left);
        EXPECT_EQ(&tree->header, tree->header.right);
        return height;
    }
    const bst_link_t *lo = root, *hi = root;
    while (lo->left != nullptr)
        lo = lo->left;
    while (hi->right != nullptr)
        hi = hi->right;
    EXPECT_EQ(lo, tree->header.left);
    EXPECT_EQ(hi, tree->header.right);
    return height;
}

class host_bst : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_compare_calls = 0;
        init_topo_tree(&tree_);
    }

    TopoNode *make(uint32_t id)
    {
        nodes_.emplace_back(new TopoNode());
        TopoNode *n = nodes_.back().get();
        n->id = id;
        n->serial = static_cast<uint32_t>(nodes_.size());
        return n;
    }

    std::vector<uint32_t> ids() const
    {
        std::vector<uint32_t> out;
        for (TopoNode *n : walk_first_next(&tree_))
            out.push_back(n->id);
        return out;
    }

    bst_tree_t tree_;
    std::vector<std::unique_ptr<TopoNode>> nodes_;
};

TEST(host_bst_layout, link_header_is_three_pointers_and_a_balance)
{
    EXPECT_EQ(0u, offsetof(bst_link_t, parent));
    EXPECT_EQ(sizeof(void *), offsetof(bst_link_t, left));
    EXPECT_EQ(2 * sizeof(void *), offsetof(bst_link_t, right));
    EXPECT_EQ(3 * sizeof(void *), offsetof(bst_link_t, balance));
    EXPECT_EQ(sizeof(int32_t), sizeof(((bst_link_t *)nullptr)->balance));
#if defined(__i386__)
    EXPECT_EQ(16u, sizeof(bst_link_t));
    EXPECT_EQ(16u, offsetof(TopoNode, id));
#endif
}

TEST(host_bst_init, refuses_null_tree_or_compare)
{
    bst_tree_t tree;
    EXPECT_NE(0u, bst_init(nullptr, 4, kTopoKeyOffset, topo_cmp));
    EXPECT_NE(0u, bst_init(&tree, 4, kTopoKeyOffset, nullptr));
}

TEST(host_bst_init, prepares_an_empty_tree_over_garbage)
{
    bst_tree_t tree;
    memset(&tree, 0xA5, sizeof tree);
    ASSERT_EQ(0u, bst_init(&tree, 4, kTopoKeyOffset, topo_cmp));
    EXPECT_EQ(0u, bst_count(&tree));
    EXPECT_EQ(4u, tree.key_len);
    EXPECT_EQ(kTopoKeyOffset, tree.key_offset);
    EXPECT_EQ(nullptr, bst_get_first_node(&tree));
    uint32_t key = 7;
    EXPECT_EQ(nullptr, bst_lookup(&tree, &key));
    bst_iterator_t it;
    bst_init_iterator(&tree, &it);
    EXPECT_EQ(nullptr, bst_iterator_next(&it));
    EXPECT_EQ(0, check_tree(&tree));
}

TEST_F(host_bst, null_arguments_give_a_status_or_null)
{
    TopoNode *n = make(1);
    uint32_t key = 1;
    EXPECT_NE(0u, bst_insert(nullptr, n));
    EXPECT_NE(0u, bst_insert(&tree_, nullptr));
    EXPECT_EQ(0u, bst_count(&tree_));
    ASSERT_EQ(0u, bst_insert(&tree_, n));

    EXPECT_NE(0u, bst_delete(nullptr, n));
    EXPECT_NE(0u, bst_delete(&tree_, nullptr));
    EXPECT_EQ(nullptr, bst_lookup(nullptr, &key));
    EXPECT_EQ(nullptr, bst_lookup(&tree_, nullptr));
    EXPECT_EQ(nullptr, bst_get_first_node(nullptr));
    EXPECT_EQ(nullptr, bst_get_next_node(nullptr, n));
    EXPECT_EQ(nullptr, bst_get_next_node(&tree_, nullptr));
    EXPECT_EQ(0u, bst_count(nullptr));

    bst_iterator_t it;
    memset(&it, 0xA5, sizeof it);
    bst_init_iterator(nullptr, &it);
    EXPECT_EQ(nullptr, bst_iterator_next(&it));
    bst_init_iterator(&tree_, nullptr);  // must not crash
    EXPECT_EQ(nullptr, bst_iterator_next(nullptr));

    EXPECT_EQ(1u, bst_count(&tree_));
    EXPECT_EQ(n, bst_lookup(&tree_, &key));
}

TEST_F(host_bst, a_tree_whose_compare_was_cleared_refuses_work)
{
    TopoNode *n = make(1);
    ASSERT_EQ(0u, bst_insert(&tree_, n));
    tree_.compare = nullptr;
    uint32_t key = 1;
    EXPECT_NE(0u, bst_insert(&tree_, make(2)));
    EXPECT_EQ(nullptr, bst_lookup(&tree_, &key));
    EXPECT_NE(0u, bst_delete(&tree_, n));
    tree_.compare = topo_cmp;
    EXPECT_EQ(n, bst_lookup(&tree_, &key));
}

TEST_F(host_bst, insert_orders_by_unsigned_topology_id)
{
    const uint32_t keys[] = {50, 0xFFFFFFFEu, 3, 0x80000000u, 1, 0x7FFFFFFFu,
                             20, 0xC0000005u, 2};
    for (uint32_t k : keys)
        ASSERT_EQ(0u, bst_insert(&tree_, make(k)));
    std::vector<uint32_t> want(std::begin(keys), std::end(keys));
    std::sort(want.begin(), want.end());
    EXPECT_EQ(want, ids());
    EXPECT_EQ(9u, bst_count(&tree_));
    EXPECT_GT(g_compare_calls, 0);
    check_tree(&tree_);
}

TEST_F(host_bst, insert_ignores_whatever_the_links_held)
{
    TopoNode *n = make(9);
    memset(&n->link, 0x5A, sizeof n->link);
    ASSERT_EQ(0u, bst_insert(&tree_, n));
    TopoNode *m = make(4);
    memset(&m->link, 0xFF, sizeof m->link);
    ASSERT_EQ(0u, bst_insert(&tree_, m));
    EXPECT_EQ((std::vector<uint32_t>{4, 9}), ids());
    check_tree(&tree_);
}

TEST_F(host_bst, the_anchor_itself_cannot_be_inserted_or_deleted)
{
    ASSERT_EQ(0u, bst_insert(&tree_, make(1)));
    EXPECT_NE(0u, bst_insert(&tree_, &tree_.header));
    EXPECT_NE(0u, bst_delete(&tree_, &tree_.header));
    EXPECT_EQ(nullptr, bst_get_next_node(&tree_, &tree_.header));
    EXPECT_EQ(1u, bst_count(&tree_));
    check_tree(&tree_);
}

TEST_F(host_bst, equal_keys_follow_the_existing_ones)
{
    std::vector<TopoNode *> sevens;
    ASSERT_EQ(0u, bst_insert(&tree_, make(9)));
    for (int i = 0; i < 6; ++i) {
        sevens.push_back(make(7));
        ASSERT_EQ(0u, bst_insert(&tree_, sevens.back()));
        ASSERT_EQ(0u, bst_insert(&tree_, make(i < 3 ? 5 : 8)));
    }
    std::vector<TopoNode *> walk = walk_first_next(&tree_);
    ASSERT_EQ(13u, walk.size());
    std::vector<TopoNode *> got;
    for (TopoNode *n : walk)
        if (n->id == 7)
            got.push_back(n);
    EXPECT_EQ(sevens, got);
    EXPECT_EQ((std::vector<uint32_t>{5, 5, 5, 7, 7, 7, 7, 7, 7, 8, 8, 8, 9}), ids());
    check_tree(&tree_);
}

TEST_F(host_bst, lookup_returns_a_node_with_an_equal_key)
{
    for (uint32_t k = 0; k < 100; k += 2)
        ASSERT_EQ(0u, bst_insert(&tree_, make(k)));
    ASSERT_EQ(0u, bst_insert(&tree_, make(40)));
    for (uint32_t k = 0; k < 101; ++k) {
        auto *n = static_cast<TopoNode *>(bst_lookup(&tree_, &k));
        if (k % 2 == 0 && k < 100) {
            ASSERT_NE(nullptr, n) << k;
            EXPECT_EQ(k, n->id);
        } else {
            EXPECT_EQ(nullptr, n) << k;
        }
    }
    uint32_t big = 0xFFFFFFFFu;
    EXPECT_EQ(nullptr, bst_lookup(&tree_, &big));
}

TEST_F(host_bst, lookup_is_logarithmic)
{
    for (uint32_t k = 0; k < 4096; ++k)
        ASSERT_EQ(0u, bst_insert(&tree_, make(k)));
    int height = check_tree(&tree_);
    EXPECT_LE(height, 18);  // 1.44 * log2(4098)
    for (uint32_t k = 0; k < 4096; k += 97) {
        g_compare_calls = 0;
        ASSERT_NE(nullptr, bst_lookup(&tree_, &k));
        EXPECT_LE(g_compare_calls, 2 * height + 2) << k;
    }
}

TEST_F(host_bst, delete_removes_that_very_node)
{
    TopoNode *a = make(7), *b = make(7), *c = make(7), *d = make(3);
    for (TopoNode *n : {a, b, c, d})
        ASSERT_EQ(0u, bst_insert(&tree_, n));
    ASSERT_EQ(0u, bst_delete(&tree_, b));
    EXPECT_EQ((std::vector<TopoNode *>{d, a, c}), walk_first_next(&tree_));
    EXPECT_EQ(nullptr, b->link.parent);
    uint32_t seven = 7;
    void *found = bst_lookup(&tree_, &seven);
    EXPECT_TRUE(found == a || found == c);
    ASSERT_EQ(0u, bst_delete(&tree_, a));
    EXPECT_EQ(c, bst_lookup(&tree_, &seven));
    ASSERT_EQ(0u, bst_delete(&tree_, c));
    EXPECT_EQ(nullptr, bst_lookup(&tree_, &seven));
    EXPECT_EQ(1u, bst_count(&tree_));
    check_tree(&tree_);
}

TEST_F(host_bst, delete_refuses_nodes_that_are_not_in_the_tree)
{
    TopoNode *in = make(1), *fresh = make(1);
    ASSERT_EQ(0u, bst_insert(&tree_, in));

    // A zero-filled node, as a caller allocates it, was never inserted.
    EXPECT_NE(0u, bst_delete(&tree_, fresh));
    // A node of another tree.
    bst_tree_t other;
    init_topo_tree(&other);
    TopoNode *foreign = make(1), *foreign2 = make(2);
    ASSERT_EQ(0u, bst_insert(&other, foreign));
    ASSERT_EQ(0u, bst_insert(&other, foreign2));
    EXPECT_NE(0u, bst_delete(&tree_, foreign));
    EXPECT_NE(0u, bst_delete(&tree_, foreign2));
    EXPECT_EQ(2u, bst_count(&other));
    // The same node twice.
    ASSERT_EQ(0u, bst_delete(&tree_, in));
    EXPECT_NE(0u, bst_delete(&tree_, in));
    EXPECT_EQ(0u, bst_count(&tree_));
    check_tree(&tree_);
    check_tree(&other);
}

TEST_F(host_bst, a_deleted_node_can_be_inserted_again)
{
    TopoNode *n = make(5);
    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(0u, bst_insert(&tree_, make(static_cast<uint32_t>(round))));
        ASSERT_EQ(0u, bst_insert(&tree_, n));
        ASSERT_EQ(0u, bst_delete(&tree_, n));
    }
    n->id = 1;
    ASSERT_EQ(0u, bst_insert(&tree_, n));
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 1, 2}), ids());
    EXPECT_EQ(n, walk_first_next(&tree_)[2]);
    check_tree(&tree_);
}

TEST_F(host_bst, first_next_and_iterator_agree)
{
    EXPECT_EQ(nullptr, bst_get_first_node(&tree_));
    TopoNode *only = make(42);
    ASSERT_EQ(0u, bst_insert(&tree_, only));
    EXPECT_EQ(only, bst_get_first_node(&tree_));
    EXPECT_EQ(nullptr, bst_get_next_node(&tree_, only));

    for (uint32_t k : {10u, 90u, 42u, 1u, 60u})
        ASSERT_EQ(0u, bst_insert(&tree_, make(k)));
    EXPECT_EQ((std::vector<uint32_t>{1, 10, 42, 42, 60, 90}), ids());
    EXPECT_EQ(walk_first_next(&tree_), walk_iterator(&tree_));

    bst_iterator_t it;
    bst_init_iterator(&tree_, &it);
    EXPECT_EQ(&tree_, it.tree);
    for (int i = 0; i < 6; ++i)
        ASSERT_NE(nullptr, bst_iterator_next(&it));
    EXPECT_EQ(nullptr, bst_iterator_next(&it));
    EXPECT_EQ(nullptr, bst_iterator_next(&it));  // stays exhausted
}

TEST_F(host_bst, the_node_just_handed_out_may_be_deleted)
{
    for (uint32_t k = 0; k < 50; ++k)
        ASSERT_EQ(0u, bst_insert(&tree_, make((k * 37) % 50)));
    bst_iterator_t it;
    bst_init_iterator(&tree_, &it);
    uint32_t expect = 0;
    for (void *n = bst_iterator_next(&it); n != nullptr; n = bst_iterator_next(&it)) {
        EXPECT_EQ(expect, static_cast<TopoNode *>(n)->id);
        if (expect % 2 == 0) {
            ASSERT_EQ(0u, bst_delete(&tree_, n));
        }
        ++expect;
    }
    EXPECT_EQ(50u, expect);
    EXPECT_EQ(25u, bst_count(&tree_));
    for (TopoNode *n : walk_first_next(&tree_))
        EXPECT_EQ(1u, n->id % 2);
    check_tree(&tree_);
}

TEST_F(host_bst, draining_from_the_first_node_empties_the_tree)
{
    for (uint32_t k = 0; k < 300; ++k)
        ASSERT_EQ(0u, bst_insert(&tree_, make(k % 17)));
    uint32_t last = 0, drained = 0;
    for (void *n = bst_get_first_node(&tree_); n != nullptr;
         n = bst_get_first_node(&tree_)) {
        uint32_t id = static_cast<TopoNode *>(n)->id;
        EXPECT_LE(last, id);
        last = id;
        ASSERT_EQ(0u, bst_delete(&tree_, n));
        ++drained;
    }
    EXPECT_EQ(300u, drained);
    EXPECT_EQ(0u, bst_count(&tree_));
    EXPECT_EQ(0, check_tree(&tree_));
}

// A key that is not right after the header: the offset decides what is
// compared, not the node's first bytes after the link.
struct WideNode {
    bst_link_t link;
    uint32_t decoy[3];
    uint32_t key;
};

TEST(host_bst_offset, compares_the_bytes_at_the_key_offset)
{
    bst_tree_t tree;
    ASSERT_EQ(0u, bst_init(&tree, 4, offsetof(WideNode, key), topo_cmp));
    WideNode nodes[5];
    memset(nodes, 0, sizeof nodes);
    const uint32_t keys[] = {30, 10, 50, 20, 40};
    for (int i = 0; i < 5; ++i) {
        nodes[i].key = keys[i];
        nodes[i].decoy[0] = 100 - keys[i];
        ASSERT_EQ(0u, bst_insert(&tree, &nodes[i]));
    }
    std::vector<uint32_t> got;
    for (void *n = bst_get_first_node(&tree); n; n = bst_get_next_node(&tree, n))
        got.push_back(static_cast<WideNode *>(n)->key);
    EXPECT_EQ((std::vector<uint32_t>{10, 20, 30, 40, 50}), got);
    uint32_t k = 40;
    EXPECT_EQ(&nodes[4], bst_lookup(&tree, &k));
}

// ---- random operation sequences against std::multiset --------------------

// Orders by key only: std::multiset also places a new element after its
// equals, so the reference reproduces the tree's exact node order.
struct ByKey {
    bool operator()(const TopoNode *a, const TopoNode *b) const { return a->id < b->id; }
};
typedef std::multiset<TopoNode *, ByKey> Reference;

struct RandomRun {
    uint32_t seed;
    uint32_t key_space;  // small spaces give many duplicates
    int steps;
    int batch;
};

void PrintTo(const RandomRun &run, std::ostream *os)
{
    *os << "seed " << run.seed << ", keys " << run.key_space << ", " << run.steps
        << " steps";
}

class host_bst_random : public ::testing::TestWithParam<RandomRun> {};

void check_against(const bst_tree_t *tree, const Reference &ref)
{
    ASSERT_EQ(ref.size(), bst_count(tree));
    std::vector<TopoNode *> want(ref.begin(), ref.end());
    ASSERT_EQ(want, walk_first_next(tree));
    ASSERT_EQ(want, walk_iterator(tree));
    int height = check_tree(tree);
    ASSERT_GE(height, 0);
    // AVL bound: h < 1.4405 log2(n + 2) - 0.3277.
    double bound = 1.4405 * std::log2(static_cast<double>(ref.size()) + 2) - 0.3277;
    ASSERT_LE(height, static_cast<int>(bound) + 1) << "n=" << ref.size();
}

TEST_P(host_bst_random, matches_a_multiset)
{
    const RandomRun run = GetParam();
    std::mt19937 rng(run.seed);
    const size_t pool_size = 3000;
    std::vector<TopoNode> pool(pool_size);
    memset(pool.data(), 0, pool_size * sizeof(TopoNode));
    std::vector<TopoNode *> free_nodes, live;
    for (size_t i = 0; i < pool_size; ++i)
        free_nodes.push_back(&pool[i]);

    bst_tree_t tree;
    init_topo_tree(&tree);
    Reference ref;
    auto random_key = [&]() -> uint32_t {
        if (run.key_space == 0)
            return static_cast<uint32_t>(rng());
        return static_cast<uint32_t>(rng() % run.key_space);
    };

    uint32_t serial = 0;
    size_t largest = 0;
    for (int step = 0; step < run.steps; ++step) {
        uint32_t op = rng() % 100;
        // Grow while small, shrink when the pool runs low, wander otherwise.
        if (live.size() > pool_size - 10)
            op = 70;
        if (op < 45 && !free_nodes.empty()) {
            size_t i = rng() % free_nodes.size();
            TopoNode *n = free_nodes[i];
            free_nodes[i] = free_nodes.back();
            free_nodes.pop_back();
            n->id = random_key();
            n->serial = ++serial;
            ASSERT_EQ(0u, bst_insert(&tree, n));
            ref.insert(n);
            live.push_back(n);
            largest = std::max(largest, live.size());
        } else if (op < 80 && !live.empty()) {
            size_t i = rng() % live.size();
            TopoNode *n = live[i];
            live[i] = live.back();
            live.pop_back();
            ASSERT_EQ(0u, bst_delete(&tree, n));
            ASSERT_NE(0u, bst_delete(&tree, n));  // gone now
            auto range = ref.equal_range(n);
            auto at = std::find(range.first, range.second, n);
            ASSERT_NE(range.second, at);
            ref.erase(at);
            free_nodes.push_back(n);
        } else {
            uint32_t key = (op % 2 == 0 && !live.empty())
                               ? live[rng() % live.size()]->id
                               : random_key();
            auto *found = static_cast<TopoNode *>(bst_lookup(&tree, &key));
            TopoNode probe{};
            probe.id = key;
            auto range = ref.equal_range(&probe);
            if (range.first == range.second) {
                ASSERT_EQ(nullptr, found) << "key " << key;
            } else {
                ASSERT_NE(nullptr, found) << "key " << key;
                ASSERT_EQ(key, found->id);
                ASSERT_NE(range.second, std::find(range.first, range.second, found));
            }
        }
        if (step % run.batch == run.batch - 1) {
            check_against(&tree, ref);
            if (HasFatalFailure())
                return;
        }
    }
    check_against(&tree, ref);
    EXPECT_GE(largest, 500u) << "the run never grew a deep tree";

    // Drain the way the cache teardown does: always the first node.
    while (void *n = bst_get_first_node(&tree)) {
        ASSERT_EQ(*ref.begin(), n);
        ASSERT_EQ(0u, bst_delete(&tree, n));
        ref.erase(ref.begin());
    }
    EXPECT_TRUE(ref.empty());
    EXPECT_EQ(0u, bst_count(&tree));
}

INSTANTIATE_TEST_SUITE_P(
    sequences, host_bst_random,
    ::testing::Values(RandomRun{1, 8, 20000, 50},         // heavy duplicates
                      RandomRun{2, 64, 20000, 100},
                      RandomRun{3, 1024, 30000, 250},
                      RandomRun{4, 0, 30000, 250},         // full 32-bit ids
                      RandomRun{5, 2, 10000, 25},          // two keys only
                      RandomRun{6, 4096, 40000, 500}),
    [](const ::testing::TestParamInfo<RandomRun> &info) {
        return "seed" + std::to_string(info.param.seed) + "_keys" +
               std::to_string(info.param.key_space);
    });

}  // namespace
