/*
 * Intrusive height-balanced (AVL) search tree of the host platform.
 *
 * Records embed an avl_node_t; the tree is told the record size and the
 * node's offset inside the record, and every operation takes and returns
 * record pointers. The compare function receives two record pointers and
 * must return -1, 0 or +1. Every operation is O(log n) but avl_foreach,
 * avl_numnodes and avl_is_empty (O(n), O(1), O(1)) and the destroy walk
 * (O(1) amortised per node).
 */
#ifndef ZEN_AVL_H
#define ZEN_AVL_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct avl_node {
    struct avl_node *avl_child[2]; /* [0] left (smaller), [1] right (larger) */
    struct avl_node *avl_parent;
    int8_t avl_balance;            /* height(right) - height(left): -1, 0, +1 */
    uint8_t avl_which;             /* which child of the parent this node is */
} avl_node_t;

typedef int (*avl_compare_f)(const void *a, const void *b);

typedef struct avl_tree {
    avl_node_t *avl_root;
    avl_compare_f avl_compar;
    size_t avl_offset;   /* offset of the avl_node_t inside a record */
    size_t avl_size;     /* record size, kept for sanity checks */
    size_t avl_numnodes;
} avl_tree_t;

/*
 * Insert position reported by avl_find for a value that is absent: the
 * would-be parent node with the child side packed into the low bit.
 */
typedef uintptr_t avl_index_t;

#define AVL_BEFORE 0
#define AVL_AFTER 1

/* Callback of avl_foreach: a non-zero return stops the walk. */
typedef int (*avl_walk_cb_f)(void *record, void *arg);

void avl_create(avl_tree_t *tree, avl_compare_f compar, size_t size, size_t offset);

/*
 * Look a value (a record, or any object the compare function accepts as
 * its first argument) up. Returns the matching record or NULL; when NULL
 * and where is non-NULL, *where receives the position for avl_insert.
 */
void *avl_find(avl_tree_t *tree, const void *value, avl_index_t *where);

/* Insert a record at a position obtained from avl_find on the same tree. */
void avl_insert(avl_tree_t *tree, void *record, avl_index_t where);

/* Find the position and insert; adding a duplicate key stops the process. */
void avl_add(avl_tree_t *tree, void *record);

void avl_remove(avl_tree_t *tree, void *record);

void *avl_first(avl_tree_t *tree);
void *avl_last(avl_tree_t *tree);

/* In-order neighbour: AVL_AFTER gives the successor, AVL_BEFORE the predecessor. */
void *avl_walk(avl_tree_t *tree, void *record, int direction);

#define AVL_NEXT(tree, rec) avl_walk((tree), (rec), AVL_AFTER)
#define AVL_PREV(tree, rec) avl_walk((tree), (rec), AVL_BEFORE)

/* In-order walk calling cb(record, arg) until it returns non-zero. */
void avl_foreach(avl_tree_t *tree, avl_walk_cb_f cb, void *arg);

size_t avl_numnodes(const avl_tree_t *tree);
int avl_is_empty(const avl_tree_t *tree);

/*
 * Tear-down walk: start with *cookie == NULL and call repeatedly; each
 * call detaches and returns one record (no rebalancing) until NULL, after
 * which the tree is empty. The caller may free each record at once.
 */
void *avl_destroy_nodes(avl_tree_t *tree, void **cookie);

/* Release a tree; it must be empty. */
void avl_destroy(avl_tree_t *tree);

#ifdef __cplusplus
}
#endif

#endif /* ZEN_AVL_H */
