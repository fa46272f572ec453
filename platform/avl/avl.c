/*
 * Intrusive height-balanced (AVL) search tree.
 *
 * Every node keeps its parent pointer and which child of the parent it
 * is, so neighbours are found by walking the links rather than keeping a
 * stack, and removal can retrace towards the root from any node. The
 * balance factor is height(right) - height(left) and stays in -1..+1
 * between operations.
 */
#include "zen/avl.h"

#include <stdio.h>
#include <stdlib.h>

/*
 * Consistency checks stay on in every build: a broken tree corrupts
 * memory far away from the actual mistake, so stop at the first sign.
 */
#define AVL_VERIFY(cond) ((cond) ? (void)0 : avl_fail(__FILE__, __LINE__, #cond))

_Noreturn static void
avl_fail(const char *file, unsigned line, const char *cond)
{
    printf("%s:%u: failed assertion `%s'\n", file, line, cond);
    fflush(stdout);
    abort();
}

static avl_node_t *
node_of(const avl_tree_t *tree, void *record)
{
    return (avl_node_t *)((char *)record + tree->avl_offset);
}

static void *
record_of(const avl_tree_t *tree, avl_node_t *node)
{
    return node == NULL ? NULL : (char *)node - tree->avl_offset;
}

/* Hang child (possibly NULL) under parent on the given side. */
static void
set_child(avl_node_t *parent, int which, avl_node_t *child)
{
    parent->avl_child[which] = child;
    if (child != NULL) {
        child->avl_parent = parent;
        child->avl_which = (uint8_t)which;
    }
}

/* Put node into the slot (parent, which); a NULL parent means the root. */
static void
replace_slot(avl_tree_t *tree, avl_node_t *parent, int which, avl_node_t *node)
{
    if (parent != NULL) {
        set_child(parent, which, node);
        return;
    }
    tree->avl_root = node;
    if (node != NULL) {
        node->avl_parent = NULL;
        node->avl_which = 0;
    }
}

/* Outermost node of the subtree at node on side dir (0 leftmost, 1 rightmost). */
static avl_node_t *
outermost(avl_node_t *node, int dir)
{
    if (node != NULL) {
        while (node->avl_child[dir] != NULL)
            node = node->avl_child[dir];
    }
    return node;
}

/*
 * Single rotation: the heavy child c (side h) rises into node's slot.
 * When c was balanced (only possible after a removal) the subtree keeps
 * its height; otherwise it becomes one level shorter.
 */
static int
rotate_single(avl_tree_t *tree, avl_node_t *node, int h, int sign)
{
    avl_node_t *c = node->avl_child[h];
    int shorter = c->avl_balance != 0;

    replace_slot(tree, node->avl_parent, node->avl_which, c);
    set_child(node, h, c->avl_child[!h]);
    set_child(c, !h, node);
    node->avl_balance = (int8_t)(shorter ? 0 : sign);
    c->avl_balance = (int8_t)(shorter ? 0 : -sign);
    return shorter;
}

/*
 * Double rotation: the heavy child c leans the other way, so its inner
 * child g rises into node's slot with node and c as its children. The
 * subtree always becomes one level shorter.
 */
static int
rotate_double(avl_tree_t *tree, avl_node_t *node, int h, int sign)
{
    avl_node_t *c = node->avl_child[h];
    avl_node_t *g = c->avl_child[!h];

    replace_slot(tree, node->avl_parent, node->avl_which, g);
    set_child(node, h, g->avl_child[!h]);
    set_child(c, !h, g->avl_child[h]);
    set_child(g, !h, node);
    set_child(g, h, c);
    node->avl_balance = (int8_t)(g->avl_balance == sign ? -sign : 0);
    c->avl_balance = (int8_t)(g->avl_balance == -sign ? sign : 0);
    g->avl_balance = 0;
    return 1;
}

/*
 * Restore balance at a node whose factor has reached +2 or -2. Returns
 * non-zero when the subtree is now one level shorter than before.
 */
static int
rebalance(avl_tree_t *tree, avl_node_t *node)
{
    int sign = node->avl_balance > 0 ? 1 : -1;
    int h = sign > 0;

    if (node->avl_child[h]->avl_balance == -sign)
        return rotate_double(tree, node, h, sign);
    return rotate_single(tree, node, h, sign);
}

/* The subtree at node has just grown by one level: retrace upwards. */
static void
insert_fixup(avl_tree_t *tree, avl_node_t *node)
{
    avl_node_t *parent;

    while ((parent = node->avl_parent) != NULL) {
        parent->avl_balance += node->avl_which ? 1 : -1;
        if (parent->avl_balance == 0)
            return;
        if (parent->avl_balance != 1 && parent->avl_balance != -1) {
            rebalance(tree, parent);
            return;
        }
        node = parent;
    }
}

/* The child subtree of parent on side which has lost one level. */
static void
remove_fixup(avl_tree_t *tree, avl_node_t *parent, int which)
{
    while (parent != NULL) {
        avl_node_t *up = parent->avl_parent;
        int up_which = parent->avl_which;

        parent->avl_balance -= which ? 1 : -1;
        if (parent->avl_balance == 1 || parent->avl_balance == -1)
            return;
        if (parent->avl_balance != 0 && !rebalance(tree, parent))
            return;
        parent = up;
        which = up_which;
    }
}

void
avl_create(avl_tree_t *tree, avl_compare_f compar, size_t size, size_t offset)
{
    AVL_VERIFY(compar != NULL);
    AVL_VERIFY(size >= sizeof(avl_node_t) && offset <= size - sizeof(avl_node_t));
    tree->avl_root = NULL;
    tree->avl_compar = compar;
    tree->avl_offset = offset;
    tree->avl_size = size;
    tree->avl_numnodes = 0;
}

void *
avl_find(avl_tree_t *tree, const void *value, avl_index_t *where)
{
    avl_node_t *node = tree->avl_root;
    avl_node_t *parent = NULL;
    int which = 0;

    while (node != NULL) {
        int diff = tree->avl_compar(value, record_of(tree, node));

        if (diff == 0)
            return record_of(tree, node);
        parent = node;
        which = diff > 0;
        node = node->avl_child[which];
    }
    if (where != NULL)
        *where = (avl_index_t)parent | (avl_index_t)which;
    return NULL;
}

void
avl_insert(avl_tree_t *tree, void *record, avl_index_t where)
{
    avl_node_t *node = node_of(tree, record);
    avl_node_t *parent = (avl_node_t *)(where & ~(avl_index_t)1);
    int which = (int)(where & 1);

    AVL_VERIFY(parent == NULL ? tree->avl_root == NULL : parent->avl_child[which] == NULL);
    node->avl_child[0] = NULL;
    node->avl_child[1] = NULL;
    node->avl_balance = 0;
    replace_slot(tree, parent, which, node);
    tree->avl_numnodes++;
    insert_fixup(tree, node);
}

void
avl_add(avl_tree_t *tree, void *record)
{
    avl_index_t where;
    void *existing = avl_find(tree, record, &where);

    AVL_VERIFY(existing == NULL);
    avl_insert(tree, record, where);
}

/*
 * Unlink a node with two children by moving its in-order successor into
 * its place. Reports, through parent/which, the slot whose subtree lost
 * a level and where retracing has to start.
 */
static void
unlink_inner(avl_tree_t *tree, avl_node_t *node, avl_node_t **parent, int *which)
{
    avl_node_t *succ = outermost(node->avl_child[1], 0);

    if (succ == node->avl_child[1]) {
        *parent = succ;
        *which = 1;
    } else {
        *parent = succ->avl_parent;
        *which = 0;
        set_child(succ->avl_parent, 0, succ->avl_child[1]);
        set_child(succ, 1, node->avl_child[1]);
    }
    set_child(succ, 0, node->avl_child[0]);
    succ->avl_balance = node->avl_balance;
    replace_slot(tree, node->avl_parent, node->avl_which, succ);
}

void
avl_remove(avl_tree_t *tree, void *record)
{
    avl_node_t *node = node_of(tree, record);
    avl_node_t *parent;
    int which;

    AVL_VERIFY(tree->avl_numnodes > 0);
    if (node->avl_child[0] != NULL && node->avl_child[1] != NULL) {
        unlink_inner(tree, node, &parent, &which);
    } else {
        avl_node_t *child = node->avl_child[node->avl_child[0] == NULL];

        parent = node->avl_parent;
        which = node->avl_which;
        replace_slot(tree, parent, which, child);
    }
    tree->avl_numnodes--;
    node->avl_child[0] = node->avl_child[1] = node->avl_parent = NULL;
    remove_fixup(tree, parent, which);
}

void *
avl_first(avl_tree_t *tree)
{
    return record_of(tree, outermost(tree->avl_root, 0));
}

void *
avl_last(avl_tree_t *tree)
{
    return record_of(tree, outermost(tree->avl_root, 1));
}

void *
avl_walk(avl_tree_t *tree, void *record, int direction)
{
    avl_node_t *node = node_of(tree, record);
    int dir;

    AVL_VERIFY(direction == AVL_AFTER || direction == AVL_BEFORE);
    dir = direction == AVL_AFTER;
    if (node->avl_child[dir] != NULL)
        return record_of(tree, outermost(node->avl_child[dir], !dir));
    /* Climb while coming up from the dir side; the first ancestor reached
     * from the other side is the neighbour. */
    while (node->avl_parent != NULL && node->avl_which == dir)
        node = node->avl_parent;
    return record_of(tree, node->avl_parent);
}

/*
 * The next record is fetched before the callback runs, so a callback may
 * even remove (and free) the record it was handed.
 */
void
avl_foreach(avl_tree_t *tree, avl_walk_cb_f cb, void *arg)
{
    void *record = avl_first(tree);

    while (record != NULL) {
        void *next = avl_walk(tree, record, AVL_AFTER);

        if (cb(record, arg) != 0)
            return;
        record = next;
    }
}

size_t
avl_numnodes(const avl_tree_t *tree)
{
    return tree->avl_numnodes;
}

int
avl_is_empty(const avl_tree_t *tree)
{
    return tree->avl_numnodes == 0;
}

/*
 * Post-order tear-down. The cookie holds the parent of the record last
 * handed out (still in the tree, so safe to touch); from there descend
 * to the next leaf, preferring left. Each edge is descended once, which
 * makes the whole walk O(n). Returned records are never read again.
 */
void *
avl_destroy_nodes(avl_tree_t *tree, void **cookie)
{
    avl_node_t *node = *cookie != NULL ? (avl_node_t *)*cookie : tree->avl_root;
    avl_node_t *parent;

    if (node == NULL)
        return NULL;
    for (;;) {
        if (node->avl_child[0] != NULL)
            node = node->avl_child[0];
        else if (node->avl_child[1] != NULL)
            node = node->avl_child[1];
        else
            break;
    }
    parent = node->avl_parent;
    if (parent != NULL)
        parent->avl_child[node->avl_which] = NULL;
    else
        tree->avl_root = NULL;
    tree->avl_numnodes--;
    *cookie = parent;
    return record_of(tree, node);
}

void
avl_destroy(avl_tree_t *tree)
{
    AVL_VERIFY(tree->avl_root == NULL && tree->avl_numnodes == 0);
    tree->avl_compar = NULL;
    tree->avl_offset = 0;
    tree->avl_size = 0;
}
