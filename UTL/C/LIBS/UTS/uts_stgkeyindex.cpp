#include "uts_stgkeyindex.h"

namespace {

// Nodes with everything they own, children first.
// NOLINTNEXTLINE(misc-no-recursion): the depth is twice the logarithm of the number of keys at most.
void FreeSubtree(sutl_TRBTree_node* node) {
    if (node == sutl_TRBTree_base::nullNode) return;
    FreeSubtree(node->child[sutl_TRBTree_node::SMALLER]);
    FreeSubtree(node->child[sutl_TRBTree_node::GREATER]);
    auto* const keyNode = static_cast<suts_StgKeyNode*>(node);
    keyNode->key.Clear();
    delete keyNode;
}

}  // namespace

suts_StgKeyIndex::~suts_StgKeyIndex() { FreeSubtree(tree_.Root()); }

suts_StgKeyNode* suts_StgKeyIndex::FindUnlocked(sutl_RawBytefield const& key) const {
    sutl_TRBTree_node* at = tree_.Root();
    while (at != sutl_TRBTree_base::nullNode) {
        auto* const node = static_cast<suts_StgKeyNode*>(at);
        int const order = sutl_CompareKeys(key, node->key);
        if (order == 0) return node;
        at = at->child[order < 0 ? sutl_TRBTree_node::SMALLER : sutl_TRBTree_node::GREATER];
    }
    return nullptr;
}

suts_StgKeyNode* suts_StgKeyIndex::Insert(sutl_RawBytefield const& key) {
    sutl_TRBTree_node* parent = nullptr;
    auto side = sutl_TRBTree_node::SMALLER;
    sutl_TRBTree_node* at = tree_.Root();
    while (at != sutl_TRBTree_base::nullNode) {
        auto* const node = static_cast<suts_StgKeyNode*>(at);
        int const order = sutl_CompareKeys(key, node->key);
        if (order == 0) {
            sutl_RawBytefield(key).Clear();
            list_.Append(node->key, node);
            return node;
        }
        parent = at;
        side = order < 0 ? sutl_TRBTree_node::SMALLER : sutl_TRBTree_node::GREATER;
        at = at->child[side];
    }
    auto* const node = new suts_StgKeyNode;
    node->key = key;
    tree_.Link(node, parent, side);
    list_.Append(node->key, node);
    return node;
}
