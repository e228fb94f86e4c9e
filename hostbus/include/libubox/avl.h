/* Balanced binary search tree whose nodes are also kept on a sorted list. */
#ifndef __LIBUBOX_AVL_H
#define __LIBUBOX_AVL_H

#include <stdbool.h>
#include <stddef.h>

#include "list.h"

/* Embedded in the element kept in the tree. */
struct avl_node {
    struct list_head list; /* position in the tree's sorted list */
    struct avl_node* parent;
    struct avl_node* left;
    struct avl_node* right;
    const void* key; /* set by the user before avl_insert */
    signed char balance;
    bool leader; /* first of a run of equal keys (with allow_dups) */
};

/* Returns <0, 0 or >0 as k1 sorts before, equal to or after k2. */
typedef int (*avl_tree_comp)(const void* k1, const void* k2, void* ptr);

struct avl_tree {
    struct list_head list_head; /* every node, in key order */
    struct avl_node* root;
    unsigned int count;
    bool allow_dups;
    avl_tree_comp comp;
    void* cmp_ptr; /* passed to comp as its third argument */
};

enum avl_find_mode {
    AVL_FIND_EQUAL,
    AVL_FIND_LESSEQUAL,
    AVL_FIND_GREATEREQUAL,
};

#define AVL_TREE_INIT(_name, _comp, _allow_dups, _cmp_ptr)                                         \
    {                                                                                              \
        .list_head = LIST_HEAD_INIT(_name.list_head), .root = NULL, .count = 0,                    \
        .allow_dups = _allow_dups, .comp = _comp, .cmp_ptr = _cmp_ptr                              \
    }

#define AVL_TREE(_name, _comp, _allow_dups, _cmp_ptr)                                              \
    struct avl_tree _name = AVL_TREE_INIT(_name, _comp, _allow_dups, _cmp_ptr)

void avl_init(struct avl_tree* tree, avl_tree_comp comp, bool allow_dups, void* ptr);
struct avl_node* avl_find(const struct avl_tree* tree, const void* key);
struct avl_node* avl_find_greaterequal(const struct avl_tree* tree, const void* key);
struct avl_node* avl_find_lessequal(const struct avl_tree* tree, const void* key);
/* Returns 0, or -1 when the key exists already and duplicates are not allowed. */
int avl_insert(struct avl_tree* tree, struct avl_node* node);
void avl_delete(struct avl_tree* tree, struct avl_node* node);

static inline bool avl_is_first(const struct avl_tree* tree, const struct avl_node* node) {
    return tree->list_head.next == &node->list;
}

static inline bool avl_is_last(const struct avl_tree* tree, const struct avl_node* node) {
    return tree->list_head.prev == &node->list;
}

static inline bool avl_is_empty(const struct avl_tree* tree) {
    return tree->count == 0;
}

static inline void* __avl_find_element(const struct avl_tree* tree, const void* key, size_t offset,
                                       enum avl_find_mode mode) {
    struct avl_node* node;

    switch (mode) {
    case AVL_FIND_EQUAL:
        node = avl_find(tree, key);
        break;
    case AVL_FIND_LESSEQUAL:
        node = avl_find_lessequal(tree, key);
        break;
    case AVL_FIND_GREATEREQUAL:
        node = avl_find_greaterequal(tree, key);
        break;
    default:
        node = NULL;
        break;
    }
    return node ? (void*)((char*)node - offset) : NULL;
}

#define avl_find_element(tree, key, element, node_element)                                         \
    ((__typeof__(*(element))*)__avl_find_element(                                                  \
        tree, key, offsetof(__typeof__(*(element)), node_element), AVL_FIND_EQUAL))

#define avl_find_le_element(tree, key, element, node_element)                                      \
    ((__typeof__(*(element))*)__avl_find_element(                                                  \
        tree, key, offsetof(__typeof__(*(element)), node_element), AVL_FIND_LESSEQUAL))

#define avl_find_ge_element(tree, key, element, node_element)                                      \
    ((__typeof__(*(element))*)__avl_find_element(                                                  \
        tree, key, offsetof(__typeof__(*(element)), node_element), AVL_FIND_GREATEREQUAL))

#define avl_first_element(tree, element, node_member)                                              \
    container_of((tree)->list_head.next, __typeof__(*(element)), node_member.list)

#define avl_last_element(tree, element, node_member)                                               \
    container_of((tree)->list_head.prev, __typeof__(*(element)), node_member.list)

#define avl_next_element(element, node_member)                                                     \
    container_of((&(element)->node_member.list)->next, __typeof__(*(element)), node_member.list)

#define avl_prev_element(element, node_member)                                                     \
    container_of((&(element)->node_member.list)->prev, __typeof__(*(element)), node_member.list)

#define avl_for_each_element(tree, element, node_member)                                           \
    list_for_each_entry(element, &(tree)->list_head, node_member.list)

#define avl_for_each_element_reverse(tree, element, node_member)                                   \
    list_for_each_entry_reverse(element, &(tree)->list_head, node_member.list)

#define avl_for_each_element_safe(tree, element, node_member, ptr)                                 \
    list_for_each_entry_safe(element, ptr, &(tree)->list_head, node_member.list)

#endif
