/* AVL tree with a sorted list threaded through its nodes.
 *
 * Only the first node of each key (the leader) sits in the tree; with allow_dups, further
 * nodes with an equal key follow their leader on the list, in insertion order, and stay out
 * of the tree. `balance` is the height of the right subtree minus that of the left one. */
#include "libubox/avl.h"

void avl_init(struct avl_tree* tree, avl_tree_comp comp, bool allow_dups, void* ptr) {
    INIT_LIST_HEAD(&tree->list_head);
    tree->root = NULL;
    tree->count = 0;
    tree->allow_dups = allow_dups;
    tree->comp = comp;
    tree->cmp_ptr = ptr;
}

static int compare(const struct avl_tree* tree, const void* key, const struct avl_node* node) {
    return tree->comp(key, node->key, tree->cmp_ptr);
}

static struct avl_node* list_node(struct list_head* entry) {
    return container_of(entry, struct avl_node, list);
}

/* The last node of the run of equal keys that `leader` starts. */
static struct avl_node* run_last(const struct avl_tree* tree, struct avl_node* leader) {
    struct avl_node* node = leader;

    while (node->list.next != &tree->list_head && !list_node(node->list.next)->leader)
        node = list_node(node->list.next);
    return node;
}

/* Walks down from the root. Returns the node with an equal key, or NULL; `below` and
 * `above` receive the nearest nodes with a smaller and a larger key (NULL if none). */
static struct avl_node* search(const struct avl_tree* tree, const void* key,
                               struct avl_node** below, struct avl_node** above) {
    struct avl_node* node = tree->root;

    *below = NULL;
    *above = NULL;
    while (node) {
        int diff = compare(tree, key, node);

        if (diff == 0)
            return node;
        if (diff < 0) {
            *above = node;
            node = node->left;
        } else {
            *below = node;
            node = node->right;
        }
    }
    return NULL;
}

struct avl_node* avl_find(const struct avl_tree* tree, const void* key) {
    struct avl_node* below;
    struct avl_node* above;

    return search(tree, key, &below, &above);
}

struct avl_node* avl_find_greaterequal(const struct avl_tree* tree, const void* key) {
    struct avl_node* below;
    struct avl_node* above;
    struct avl_node* node = search(tree, key, &below, &above);

    return node ? node : above;
}

/* The last node in list order whose key is not greater: with duplicates, the end of the run. */
struct avl_node* avl_find_lessequal(const struct avl_tree* tree, const void* key) {
    struct avl_node* below;
    struct avl_node* above;
    struct avl_node* node = search(tree, key, &below, &above);

    if (!node)
        node = below;
    return node ? run_last(tree, node) : NULL;
}

static void replace_child(struct avl_tree* tree, struct avl_node* parent, struct avl_node* old,
                          struct avl_node* node) {
    if (!parent)
        tree->root = node;
    else if (parent->left == old)
        parent->left = node;
    else
        parent->right = node;
    if (node)
        node->parent = parent;
}

static int max_int(int a, int b) {
    return a > b ? a : b;
}

static int min_int(int a, int b) {
    return a < b ? a : b;
}

/* The balance updates hold for any balances of the two nodes involved, so the same
 * rotations serve insertion and deletion. */
static struct avl_node* rotate_left(struct avl_tree* tree, struct avl_node* node) {
    struct avl_node* pivot = node->right;

    node->right = pivot->left;
    if (pivot->left)
        pivot->left->parent = node;
    replace_child(tree, node->parent, node, pivot);
    pivot->left = node;
    node->parent = pivot;

    node->balance = (signed char)(node->balance - 1 - max_int(pivot->balance, 0));
    pivot->balance = (signed char)(pivot->balance - 1 + min_int(node->balance, 0));
    return pivot;
}

static struct avl_node* rotate_right(struct avl_tree* tree, struct avl_node* node) {
    struct avl_node* pivot = node->left;

    node->left = pivot->right;
    if (pivot->right)
        pivot->right->parent = node;
    replace_child(tree, node->parent, node, pivot);
    pivot->right = node;
    node->parent = pivot;

    node->balance = (signed char)(node->balance + 1 - min_int(pivot->balance, 0));
    pivot->balance = (signed char)(pivot->balance + 1 + max_int(node->balance, 0));
    return pivot;
}

/* Restores a node whose balance reached +-2; returns the new root of its subtree. */
static struct avl_node* rebalance(struct avl_tree* tree, struct avl_node* node) {
    if (node->balance > 1) {
        if (node->right->balance < 0)
            rotate_right(tree, node->right);
        return rotate_left(tree, node);
    }
    if (node->left->balance > 0)
        rotate_left(tree, node->left);
    return rotate_right(tree, node);
}

/* `child` has just become one level taller. */
static void retrace_insert(struct avl_tree* tree, struct avl_node* child) {
    struct avl_node* parent;

    for (parent = child->parent; parent; child = parent, parent = parent->parent) {
        parent->balance += parent->left == child ? -1 : 1;
        if (parent->balance == 0)
            return;
        if (parent->balance == 2 || parent->balance == -2) {
            rebalance(tree, parent);
            return;
        }
    }
}

/* One subtree of `parent` (the left one if `left`) has just become one level shorter. */
static void retrace_delete(struct avl_tree* tree, struct avl_node* parent, bool left) {
    while (parent) {
        struct avl_node* top = parent;

        parent->balance += left ? 1 : -1;
        if (parent->balance == 1 || parent->balance == -1)
            return;
        if (parent->balance != 0) {
            top = rebalance(tree, parent);
            if (top->balance != 0)
                return;
        }
        parent = top->parent;
        left = parent && parent->left == top;
    }
}

static void link_leaf(struct avl_tree* tree, struct avl_node* node, struct avl_node* parent,
                      bool left) {
    node->parent = parent;
    node->left = NULL;
    node->right = NULL;
    node->balance = 0;
    node->leader = true;
    if (!parent) {
        tree->root = node;
        list_add(&node->list, &tree->list_head);
        return;
    }
    if (left) {
        parent->left = node;
        list_add_tail(&node->list, &parent->list);
    } else {
        parent->right = node;
        list_add(&node->list, &run_last(tree, parent)->list);
    }
    retrace_insert(tree, node);
}

int avl_insert(struct avl_tree* tree, struct avl_node* node) {
    struct avl_node* parent = NULL;
    struct avl_node* cur = tree->root;
    int diff = 0;

    while (cur) {
        diff = compare(tree, node->key, cur);
        if (diff == 0)
            break;
        parent = cur;
        cur = diff < 0 ? cur->left : cur->right;
    }

    if (cur) {
        if (!tree->allow_dups)
            return -1;
        node->parent = NULL;
        node->left = NULL;
        node->right = NULL;
        node->balance = 0;
        node->leader = false;
        list_add(&node->list, &run_last(tree, cur)->list);
    } else {
        link_leaf(tree, node, parent, diff < 0);
    }
    tree->count++;
    return 0;
}

/* Puts `node` where `old` is in the tree, taking over its links and balance. */
static void take_place(struct avl_tree* tree, struct avl_node* node, struct avl_node* old) {
    replace_child(tree, old->parent, old, node);
    node->left = old->left;
    node->right = old->right;
    node->balance = old->balance;
    if (node->left)
        node->left->parent = node;
    if (node->right)
        node->right->parent = node;
}

static void unlink_from_tree(struct avl_tree* tree, struct avl_node* node) {
    struct avl_node* parent;
    bool left;

    if (node->left && node->right) {
        struct avl_node* next = node->right;

        /* Detach the in-order successor (it has no left child), then let it take the
         * node's place; the subtree it left is the one that became shorter. */
        while (next->left)
            next = next->left;
        parent = next->parent;
        left = parent->left == next;
        replace_child(tree, parent, next, next->right);
        take_place(tree, next, node);
        if (parent == node)
            parent = next;
    } else {
        parent = node->parent;
        left = parent && parent->left == node;
        replace_child(tree, parent, node, node->left ? node->left : node->right);
    }
    retrace_delete(tree, parent, left);
}

void avl_delete(struct avl_tree* tree, struct avl_node* node) {
    struct list_head* next = node->list.next;

    if (node->leader) {
        if (next != &tree->list_head && !list_node(next)->leader) {
            take_place(tree, list_node(next), node);
            list_node(next)->leader = true;
        } else {
            unlink_from_tree(tree, node);
        }
    }
    list_del(&node->list);
    tree->count--;
}
