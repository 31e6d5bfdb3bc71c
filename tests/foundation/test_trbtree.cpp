#include <algorithm>

#include "sutl_trbtree.h"
#include "test_support.h"

namespace {

using Link = sutl_TRBTree_node;

struct KeyNode : Link {
    int key;
};

int KeyOf(Link const* node) { return static_cast<KeyNode const*>(node)->key; }

void Insert(sutl_TRBTree_base& tree, KeyNode& node) {
    Link* parent = nullptr;
    Link::Side side = Link::SMALLER;
    for (Link* at = tree.Root(); at != sutl_TRBTree_base::nullNode; at = at->child[side]) {
        parent = at;
        side = node.key < KeyOf(at) ? Link::SMALLER : Link::GREATER;
    }
    tree.Link(&node, parent, side);
}

// Checks colours and parents below the node; returns the black nodes on every path down, or -1 after a fault.
int BlackHeight(Link const* node) {  // NOLINT(misc-no-recursion): as deep as the tree
    if (node == sutl_TRBTree_base::nullNode) return 0;
    int heights[2];
    for (Link::Side const side : {Link::SMALLER, Link::GREATER}) {
        Link const* const child = node->child[side];
        heights[side] = BlackHeight(child);
        if (child == sutl_TRBTree_base::nullNode) continue;
        if (child->parent != node) return -1;
        if (child->colour == Link::RED && node->colour == Link::RED) return -1;
    }
    if (heights[0] != heights[1] || heights[0] < 0) return -1;
    return heights[0] + (node->colour == Link::BLACK ? 1 : 0);
}

void CheckTree(sutl_TRBTree_base const& tree, std::vector<int> keys) {
    ASSERT_EQ(nullptr, tree.Root()->parent);
    ASSERT_EQ(Link::BLACK, tree.Root()->colour);
    ASSERT_GE(BlackHeight(tree.Root()), 1);
    std::vector<int> walked;
    for (Link* at = tree.First(); at != sutl_TRBTree_base::nullNode; at = sutl_TRBTree_base::Next(at)) {
        walked.push_back(KeyOf(at));
    }
    std::sort(keys.begin(), keys.end());
    ASSERT_EQ(keys, walked);
    // The null node is shared by every tree of the process, and so by its threads: it must stay as it was made.
    Link const* const null = sutl_TRBTree_base::nullNode;
    ASSERT_TRUE(null->child[0] == null && null->child[1] == null && null->parent == nullptr);
    ASSERT_EQ(1UL, static_cast<unsigned long>(null->colour));
}

TEST(RedBlackTree, StaysOrderedAndBalancedWhateverTheOrderOfInserts) {
    test::Random random = test::SeededRandom();
    constexpr int COUNT = 1000;
    std::vector<int> ascending(COUNT), fromBothEnds(COUNT);
    for (int i = 0; i < COUNT; ++i) {
        ascending[static_cast<std::size_t>(i)] = i;
        fromBothEnds[static_cast<std::size_t>(i)] = i % 2 == 0 ? i / 2 : COUNT - 1 - i / 2;
    }
    std::vector<int> const descending(ascending.rbegin(), ascending.rend());
    std::vector<int> shuffled = ascending;
    std::shuffle(shuffled.begin(), shuffled.end(), random);
    for (std::vector<int> const& keys : {ascending, descending, fromBothEnds, shuffled}) {
        sutl_TRBTree_base tree;
        EXPECT_EQ(sutl_TRBTree_base::nullNode, tree.First());
        std::vector<KeyNode> nodes(COUNT);
        for (std::size_t i = 0; i < keys.size(); ++i) {
            nodes[i].key = keys[i];
            Insert(tree, nodes[i]);
            if (i < 100 || i % 100 == 99) CheckTree(tree, {keys.begin(), keys.begin() + static_cast<long>(i) + 1});
            if (HasFatalFailure()) return;
        }
    }
}

}  // namespace
