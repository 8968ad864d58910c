/*
 * platform/bst.h - the balanced-tree library: an intrusive tree of
 * caller-owned nodes.
 *
 * Contract
 *
 *  1. A node begins with the tree's link header (bst_link_t, owned by the
 *     tree while the node is in it); the node's key lies `key_offset` bytes
 *     from its start and is `key_len` bytes long.  The caller allocates and
 *     frees nodes; the tree never does.
 *
 *  2. bst_init(tree, key_len, key_offset, compare) prepares an empty tree
 *     and returns 0 (non-zero for a null tree or compare function).
 *     compare(a, b) receives pointers to two keys and returns 1 when a is
 *     greater, 2 when a is smaller, 0 when they are equal.
 *
 *  3. bst_insert(tree, node) adds a node (equal keys are kept side by side,
 *     the new one after the others) and returns 0.  bst_delete(tree, node)
 *     removes that very node and returns 0.  bst_lookup(tree, key) returns
 *     a node whose key equals *key, or null.  All three are O(log n).
 *
 *  4. bst_get_first_node(tree) / bst_get_next_node(tree, node) visit the
 *     nodes in ascending key order (null after the last);
 *     bst_init_iterator(tree, it) / bst_iterator_next(it) do the same with
 *     an explicit iterator.  bst_count(tree) is the number of nodes.
 *
 *  5. No locking: one thread uses a tree at a time.
 */
#ifndef TARN_PLATFORM_BST_H
#define TARN_PLATFORM_BST_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The link header: 16 bytes on the 32-bit device. */
typedef struct bst_link {
    struct bst_link *parent;
    struct bst_link *left;
    struct bst_link *right;
    int32_t balance;
} bst_link_t;

typedef uint32_t (*bst_compare_fn)(const void *a, const void *b);

typedef struct bst_tree {
    bst_link_t header;       /* the tree's own anchor: root, leftmost, rightmost */
    uint32_t count;
    uint32_t key_len;
    uint32_t key_offset;
    bst_compare_fn compare;
} bst_tree_t;

typedef struct bst_iterator {
    const bst_tree_t *tree;
    bst_link_t *next;
} bst_iterator_t;

uint32_t bst_init(bst_tree_t *tree, uint32_t key_len, uint32_t key_offset,
                  bst_compare_fn compare);
uint32_t bst_insert(bst_tree_t *tree, void *node);
uint32_t bst_delete(bst_tree_t *tree, void *node);
void *bst_lookup(const bst_tree_t *tree, const void *key);
void *bst_get_first_node(const bst_tree_t *tree);
void *bst_get_next_node(const bst_tree_t *tree, const void *node);
void bst_init_iterator(const bst_tree_t *tree, bst_iterator_t *it);
void *bst_iterator_next(bst_iterator_t *it);
uint32_t bst_count(const bst_tree_t *tree);

#ifdef __cplusplus
}
#endif

#endif
