#include "uts_stgkeyindex.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr unsigned long ODD = 0x9e3779b97f4a7c15;

// Makes every bit of a product count for its low bits, by which slots are chosen.
unsigned long Mix(unsigned long product) {
    product ^= product >> 32;
    product *= ODD;
    return product ^ product >> 32;
}

bool IsSameKey(sutl_RawBytefield const& a, sutl_RawBytefield const& b) {
    bool const isInline = a.length <= sutl_RawBytefield::INLINE_BYTES_MAX;
    return isInline ? a.AsWords() == b.AsWords() : sutl_CompareKeys(a, b) == 0;
}

}  // namespace

unsigned long suts_StgKeyTable::Hash(sutl_RawBytefield const& key) {
    if (key.length <= sutl_RawBytefield::INLINE_BYTES_MAX) {
        sutl_RawBytefield::Words const words = key.AsWords();
        return Mix((words.first * ODD ^ words.last) * ODD);
    }
    auto const bytes = static_cast<std::size_t>(key.length);
    unsigned long hash = bytes;
    for (std::size_t at = 0; at < bytes; at += sizeof hash) {
        unsigned long word = 0;
        memcpy(&word, key.Data() + at, std::min(bytes - at, sizeof word));
        hash = (hash ^ word) * ODD;
        hash ^= hash >> 32;
    }
    return Mix(hash);
}

void suts_StgKeyTable::PrefetchNode(unsigned long hash) const {
    for (std::size_t step = 0; step < WAY_MAX && !slots_.empty(); ++step) {
        Slot const& slot = slots_[(hash + step) & (slots_.size() - 1)];
        if (slot.node == nullptr) return;
        if (slot.hash != hash) continue;
        slot.node->Prefetch();
        return;
    }
}

suts_StgKeyTable::Result suts_StgKeyTable::Find(sutl_RawBytefield const& key, unsigned long hash,
                                                suts_StgKeyNode*& node) const {
    for (std::size_t step = 0; step < WAY_MAX && !slots_.empty(); ++step) {
        Slot const& slot = slots_[(hash + step) & (slots_.size() - 1)];
        if (slot.node == nullptr) break;
        if (slot.hash == hash && IsSameKey(key, slot.node->key)) {
            node = slot.node;
            return FOUND;
        }
    }
    return complete_ ? ABSENT : UNKNOWN;
}

void suts_StgKeyTable::Add(suts_StgKeyNode* node) {
    if (4 * used_ >= 3 * slots_.size()) Grow();
    Slot const entry = {Hash(node->key), node};
    while (!Put(entry)) {
        if (slots_.size() > NEARLY_EMPTY * used_) {
            complete_ = false;
            return;
        }
        Grow();
    }
    ++used_;
}

// False when the slots where it may lie are taken.
bool suts_StgKeyTable::Put(Slot const& entry) {
    for (std::size_t step = 0; step < WAY_MAX; ++step) {
        Slot& slot = slots_[(entry.hash + step) & (slots_.size() - 1)];
        if (slot.node != nullptr) continue;
        slot = entry;
        return true;
    }
    return false;
}

void suts_StgKeyTable::Grow() {
    std::vector<Slot> const former = std::exchange(slots_, std::vector<Slot>(std::max(2 * slots_.size(), SLOTS_MIN)));
    for (Slot const& slot : former) {
        if (slot.node != nullptr && !Put(slot)) complete_ = false;
    }
}

suts_StgKeyIndex::~suts_StgKeyIndex() {
    for (std::size_t i = 0; i < nodes_; ++i) blocks_[i / NODES_PER_BLOCK][i % NODES_PER_BLOCK].key.Clear();
}

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
            list_.Append(node->key, node);
            return node;
        }
        parent = at;
        side = order < 0 ? sutl_TRBTree_node::SMALLER : sutl_TRBTree_node::GREATER;
        at = at->child[side];
    }
    if (nodes_ % NODES_PER_BLOCK == 0) blocks_.push_back(std::make_unique<suts_StgKeyNode[]>(NODES_PER_BLOCK));
    suts_StgKeyNode* const node = &blocks_.back()[nodes_ % NODES_PER_BLOCK];
    node->key.Assign(key.Data(), key.length);
    tree_.Link(node, parent, side);
    ++nodes_;
    table_.Add(node);
    list_.Append(node->key, node);
    return node;
}

void suts_StgKeyIndex::PrefetchPaths(std::span<sutl_RawBytefield const* const> keys) const {
    sutl_TRBTree_node* at[WALKS];
    std::fill_n(at, keys.size(), RootUnlocked());
    for (bool walking = true; walking;) {
        walking = false;
        for (std::size_t i = 0; i < keys.size(); ++i) {
            if (at[i] == sutl_TRBTree_base::nullNode) continue;
            int const order = sutl_CompareKeys(*keys[i], static_cast<suts_StgKeyNode*>(at[i])->key);
            at[i] = at[i]->child[order < 0 ? sutl_TRBTree_node::SMALLER : sutl_TRBTree_node::GREATER];
            __builtin_prefetch(at[i], 1);
            walking = true;
        }
    }
}

std::vector<suts_StgKeyNode*> const& suts_StgKeyIndex::InOrder() {
    if (inOrder_.size() == nodes_) return inOrder_;
    inOrder_.clear();
    std::vector<sutl_TRBTree_node*> above;  // nodes whose smaller side is being walked
    sutl_TRBTree_node* at = RootUnlocked();
    while (at != sutl_TRBTree_base::nullNode || !above.empty()) {
        for (; at != sutl_TRBTree_base::nullNode; at = at->child[sutl_TRBTree_node::SMALLER]) {
            __builtin_prefetch(at->child[sutl_TRBTree_node::GREATER]);
            above.push_back(at);
        }
        at = above.back();
        above.pop_back();
        inOrder_.push_back(static_cast<suts_StgKeyNode*>(at));
        at = at->child[sutl_TRBTree_node::GREATER];
    }
    return inOrder_;
}
