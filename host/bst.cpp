// The balanced-tree library: an intrusive AVL tree over caller-owned nodes.
//
// The rebalancing is Boost.Intrusive's AVL algorithms, run directly on the
// C link header through a node-traits adapter, so the tree allocates
// nothing and the node layout stays the plain C one that callers embed.
// The tree's own header link is the algorithms' header node: its parent is
// the root, its left the leftmost node and its right the rightmost node;
// an empty tree has a null root and left/right pointing at the header.

#include <stddef.h>
#include <stdint.h>

#include <boost/intrusive/avltree_algorithms.hpp>

#include "platform/bst.h"

namespace {

struct LinkTraits {
    typedef bst_link_t node;
    typedef bst_link_t *node_ptr;
    typedef const bst_link_t *const_node_ptr;
    typedef int32_t balance;

    static node_ptr get_parent(const_node_ptr n) { return n->parent; }
    static void set_parent(node_ptr n, node_ptr p) { n->parent = p; }
    static node_ptr get_left(const_node_ptr n) { return n->left; }
    static void set_left(node_ptr n, node_ptr l) { n->left = l; }
    static node_ptr get_right(const_node_ptr n) { return n->right; }
    static void set_right(node_ptr n, node_ptr r) { n->right = r; }
    static balance get_balance(const_node_ptr n) { return n->balance; }
    static void set_balance(node_ptr n, balance b) { n->balance = b; }
    // Height of the right subtree minus that of the left one.
    static balance negative() { return -1; }
    static balance zero() { return 0; }
    static balance positive() { return 1; }
};

typedef boost::intrusive::avltree_algorithms<LinkTraits> Algo;

// An AVL tree of n nodes is at most about 1.44 * log2(n + 2) high, which
// stays below 100 even for a 64-bit address space; a longer parent chain
// means the node is not linked into a tree.
constexpr int kMaxHeight = 128;

// A search key, kept distinct from node pointers so that the comparison
// overloads below cannot be confused.
struct Key {
    const void *p;
};

// Strict "less than" on top of the tree's three-way compare (2 = first is
// smaller); anything else, including out-of-range answers, counts as not
// smaller.  The rebalancing never consults it, so a misbehaving compare
// can spoil the order but not the links.
class Less {
public:
    explicit Less(const bst_tree_t *tree) : tree_(tree) {}

    bool operator()(const bst_link_t *a, const bst_link_t *b) const
    {
        return tree_->compare(key_of(a), key_of(b)) == 2;
    }
    bool operator()(const bst_link_t *a, const Key &b) const
    {
        return tree_->compare(key_of(a), b.p) == 2;
    }
    bool operator()(const Key &a, const bst_link_t *b) const
    {
        return tree_->compare(a.p, key_of(b)) == 2;
    }

private:
    const void *key_of(const bst_link_t *n) const
    {
        return reinterpret_cast<const char *>(n) + tree_->key_offset;
    }

    const bst_tree_t *tree_;
};

// The algorithms take non-const header pointers even for read-only walks;
// none of the read-only ones writes through them.
bst_link_t *header_of(const bst_tree_t *tree)
{
    return const_cast<bst_link_t *>(&tree->header);
}

bool usable(const bst_tree_t *tree)
{
    return tree != nullptr && tree->compare != nullptr;
}

// True when `n` is linked into `tree`: every step up the parent chain must
// be a real child link, and the chain must end at this tree's header.
// Costs one walk up the tree, the same order as the removal itself.
bool linked_into(const bst_tree_t *tree, const bst_link_t *n)
{
    const bst_link_t *header = &tree->header;
    if (n == header || header->parent == nullptr)
        return false;
    const bst_link_t *child = n;
    const bst_link_t *p = n->parent;
    for (int i = 0; i < kMaxHeight && p != nullptr; ++i) {
        if (p == header)
            return header->parent == child;
        if (p->left != child && p->right != child)
            return false;
        child = p;
        p = p->parent;
    }
    return false;
}

void unlink_fields(bst_link_t *n)
{
    n->parent = nullptr;
    n->left = nullptr;
    n->right = nullptr;
    n->balance = 0;
}

}  // namespace

extern "C" {

uint32_t bst_init(bst_tree_t *tree, uint32_t key_len, uint32_t key_offset,
                  bst_compare_fn compare)
{
    if (tree == nullptr || compare == nullptr)
        return 1;
    Algo::init_header(&tree->header);
    tree->count = 0;
    tree->key_len = key_len;
    tree->key_offset = key_offset;
    tree->compare = compare;
    return 0;
}

uint32_t bst_insert(bst_tree_t *tree, void *node)
{
    if (!usable(tree) || node == nullptr)
        return 1;
    bst_link_t *link = static_cast<bst_link_t *>(node);
    if (link == &tree->header)
        return 1;
    // The node's link fields are whatever the caller left there; the
    // algorithms overwrite all of them.  Equal keys go after the existing
    // ones (upper bound), which keeps equal keys in insertion order.
    Algo::insert_equal_upper_bound(&tree->header, link, Less(tree));
    ++tree->count;
    return 0;
}

uint32_t bst_delete(bst_tree_t *tree, void *node)
{
    if (!usable(tree) || node == nullptr)
        return 1;
    bst_link_t *link = static_cast<bst_link_t *>(node);
    if (!linked_into(tree, link))
        return 1;
    Algo::erase(&tree->header, link);
    // Cleared so that a second removal of the same node is refused above.
    unlink_fields(link);
    --tree->count;
    return 0;
}

void *bst_lookup(const bst_tree_t *tree, const void *key)
{
    if (!usable(tree) || key == nullptr)
        return nullptr;
    bst_link_t *header = header_of(tree);
    bst_link_t *found = Algo::find(header, Key{key}, Less(tree));
    return found == header ? nullptr : found;
}

void *bst_get_first_node(const bst_tree_t *tree)
{
    if (tree == nullptr || tree->header.parent == nullptr)
        return nullptr;
    return tree->header.left;
}

void *bst_get_next_node(const bst_tree_t *tree, const void *node)
{
    if (tree == nullptr || node == nullptr)
        return nullptr;
    const bst_link_t *link = static_cast<const bst_link_t *>(node);
    if (link == &tree->header)
        return nullptr;
    bst_link_t *next = Algo::next_node(const_cast<bst_link_t *>(link));
    return next == &tree->header ? nullptr : next;
}

void bst_init_iterator(const bst_tree_t *tree, bst_iterator_t *it)
{
    if (it == nullptr)
        return;
    it->tree = tree;
    it->next = static_cast<bst_link_t *>(bst_get_first_node(tree));
}

// The iterator has already stepped past the node it hands out, so the
// caller may delete that node (and only that one) before asking again.
void *bst_iterator_next(bst_iterator_t *it)
{
    if (it == nullptr || it->next == nullptr)
        return nullptr;
    bst_link_t *current = it->next;
    it->next = static_cast<bst_link_t *>(bst_get_next_node(it->tree, current));
    return current;
}

uint32_t bst_count(const bst_tree_t *tree)
{
    return tree == nullptr ? 0 : tree->count;
}

}  // extern "C"
