// avl: balance and order under random churn, duplicates, and the three find modes.
// gtest first: libubox defines __constructor, a parameter name in libstdc++'s <cxxabi.h>.
#include <gtest/gtest.h>

extern "C" {
#include <libubox/avl.h>
}

#include <algorithm>
#include <numeric>
#include <random>
#include <vector>

namespace {

struct Item {
    int key;
    int tag;
    avl_node node;
};

int compare_ints(const void* k1, const void* k2, void* calls) {
    if (calls)
        ++*static_cast<int*>(calls);
    return *static_cast<const int*>(k1) - *static_cast<const int*>(k2);
}

// The subtree's height; fails the test on a broken parent link, key order or balance.
int checked_height(const avl_node* node, const avl_node* parent = nullptr) {
    if (!node)
        return 0;
    EXPECT_EQ(node->parent, parent);
    EXPECT_TRUE(!node->left || compare_ints(node->left->key, node->key, nullptr) < 0);
    EXPECT_TRUE(!node->right || compare_ints(node->right->key, node->key, nullptr) > 0);
    int left = checked_height(node->left, node);
    int right = checked_height(node->right, node);
    EXPECT_EQ(node->balance, right - left);
    EXPECT_LE(std::abs(right - left), 1);
    return 1 + std::max(left, right);
}

std::vector<int> tags_in_order(const avl_tree& tree) {
    std::vector<int> tags;
    Item* item;
    avl_for_each_element(&tree, item, node) tags.push_back(item->tag);
    return tags;
}

void insert_all(avl_tree& tree, Item* items, const std::vector<int>& order) {
    for (int i : order) {
        items[i].node.key = &items[i].key;
        ASSERT_EQ(avl_insert(&tree, &items[i].node), 0);
    }
}

TEST(Avl, StaysBalancedAndSortedUnderRandomChurn) {
    std::vector<Item> items(500);
    std::vector<int> order(items.size());
    std::iota(order.begin(), order.end(), 0);
    for (int i : order)
        items[i] = {i, i, {}};
    std::mt19937 rng(7);
    std::shuffle(order.begin(), order.end(), rng);
    AVL_TREE(tree, compare_ints, false, nullptr);
    insert_all(tree, items.data(), order);
    checked_height(tree.root);

    std::shuffle(order.begin(), order.end(), rng);
    for (size_t i = 0; i < order.size(); i += 2) {
        avl_delete(&tree, &items[order[i]].node);
        checked_height(tree.root);
    }
    EXPECT_LE(checked_height(tree.root), 11) << "250 nodes fit in an AVL tree of height 11";
    std::vector<int> left;
    for (size_t i = 1; i < order.size(); i += 2)
        left.push_back(order[i]);
    std::sort(left.begin(), left.end());
    EXPECT_EQ(tags_in_order(tree), left);
    EXPECT_EQ(tree.count, 250u);

    for (int key : left)
        avl_delete(&tree, &items[key].node);
    EXPECT_TRUE(avl_is_empty(&tree));
    EXPECT_EQ(tree.root, nullptr);
    EXPECT_TRUE(list_empty(&tree.list_head));
}

TEST(Avl, DuplicatesFollowTheFirstInInsertionOrder) {
    Item items[] = {{5, 0, {}}, {3, 1, {}}, {5, 2, {}}, {7, 3, {}}, {5, 4, {}}, {3, 5, {}}};
    avl_tree unique;
    avl_init(&unique, compare_ints, false, nullptr);
    insert_all(unique, items, {0});
    items[2].node.key = &items[2].key;
    EXPECT_EQ(avl_insert(&unique, &items[2].node), -1);
    EXPECT_EQ(unique.count, 1u);

    avl_tree tree;
    avl_init(&tree, compare_ints, true, nullptr);
    insert_all(tree, items, {0, 1, 2, 3, 4, 5});
    EXPECT_EQ(tags_in_order(tree), (std::vector<int>{1, 5, 0, 2, 4, 3}));
    int five = 5;
    Item* item = nullptr;
    avl_delete(&tree, &items[0].node);
    checked_height(tree.root);
    EXPECT_EQ(avl_find_element(&tree, &five, item, node)->tag, 2) << "the next equal one leads";
    avl_delete(&tree, &items[4].node);
    avl_delete(&tree, &items[2].node);
    EXPECT_EQ(avl_find(&tree, &five), nullptr);
    EXPECT_EQ(tags_in_order(tree), (std::vector<int>{1, 5, 3}));
    checked_height(tree.root);
}

TEST(Avl, FindModesReturnTheNearestNode) {
    Item items[] = {{10, 0, {}}, {20, 1, {}}, {20, 2, {}}, {30, 3, {}}};
    int calls = 0;
    avl_tree tree;
    avl_init(&tree, compare_ints, true, &calls);
    insert_all(tree, items, {3, 0, 1, 2});
    EXPECT_GT(calls, 0) << "the comparator receives cmp_ptr";

    const struct {
        int key;
        int equal, lessequal, greaterequal; // tags, -1 for none
    } cases[] = {{5, -1, -1, 0}, {10, 0, 0, 0}, {15, -1, 0, 1}, {20, 1, 2, 1},
                 {25, -1, 2, 3}, {30, 3, 3, 3}, {35, -1, 3, -1}};
    auto tag = [](Item* item) { return item ? item->tag : -1; };
    Item* item = nullptr;
    for (const auto& c : cases) {
        EXPECT_EQ(tag(avl_find_element(&tree, &c.key, item, node)), c.equal) << c.key;
        EXPECT_EQ(tag(avl_find_le_element(&tree, &c.key, item, node)), c.lessequal) << c.key;
        EXPECT_EQ(tag(avl_find_ge_element(&tree, &c.key, item, node)), c.greaterequal) << c.key;
    }
    EXPECT_TRUE(avl_is_first(&tree, &items[0].node));
    EXPECT_TRUE(avl_is_last(&tree, &items[3].node));
}

} // namespace
