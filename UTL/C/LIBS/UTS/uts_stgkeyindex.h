// The key index: every distinct key seen, with its bucket set.
#pragma once

#include <vector>

#include "sutl_list.h"
#include "sutl_locks.h"
#include "sutl_rawbytefield.h"
#include "sutl_trbtree.h"
#include "uts_stgbucket.h"

// A key's node in the tree. It owns the key's heap array and the set, and keeps its address.
struct suts_StgKeyNode : sutl_TRBTree_node {
    sutl_RawBytefield key;
    suts_StgBucketSet set;
};

// A key's place in the order of first sight. The key shares the node's heap array.
struct suts_StgKeyListEntry {
    sutl_RawBytefield key;
    suts_StgKeyNode* node;
};

// Finds nodes by a hash of their keys, in a step or two where a tree of many keys takes twenty. Nodes are only added.
// Owned by the index, for the thread that writes it.
class suts_StgKeyTable {
 public:
    enum Result { FOUND, ABSENT, UNKNOWN };

    // Sets node where one is found. Unknown only when keys that collide too often were left out.
    [[nodiscard]] Result Find(sutl_RawBytefield const& key, suts_StgKeyNode*& node) const;
    void Add(suts_StgKeyNode* node);  // whose key is new

 private:
    // A key lies at most so many slots behind its first: one that finds no place makes the table grow, or is left out
    // where the table is nearly empty.
    static constexpr std::size_t WAY_MAX = 32;
    static constexpr std::size_t SLOTS_MIN = 64;
    static constexpr std::size_t NEARLY_EMPTY = 8;  // slots per key

    struct Slot {
        unsigned long hash;
        suts_StgKeyNode* node;  // null in an empty slot
    };

    [[nodiscard]] static unsigned long Hash(sutl_RawBytefield const& key);
    [[nodiscard]] bool Put(Slot const& entry);
    void Grow();

    std::vector<Slot> slots_;  // a power of two of them, or none
    std::size_t used_ = 0;
    bool complete_ = true;  // no key was left out
};

// A tree in key order (sutl_CompareKeys) and a list in the order in which the keys were first seen. Both only grow.
// Owned by suts_StgOrganizer, whose thread is the only writer: it looks up without the lock and holds it for writing
// while it inserts. The ship and query threads hold it for reading, and release it before they take a bucket set's
// lock.
class suts_StgKeyIndex {
 public:
    suts_StgKeyIndex() = default;
    suts_StgKeyIndex(suts_StgKeyIndex const&) = delete;
    suts_StgKeyIndex& operator=(suts_StgKeyIndex const&) = delete;
    ~suts_StgKeyIndex();  // in key order; no other thread may use the index any more

    // The key's node, or null.
    [[nodiscard]] suts_StgKeyNode* Find(sutl_RawBytefield const& key) const SUTL_REQUIRES_SHARED(lock) {
        return FindUnlocked(key);
    }
    // The same for the organizer thread, which needs no lock to read what it alone writes.
    [[nodiscard]] suts_StgKeyNode* FindAsWriter(sutl_RawBytefield const& key) const {
        suts_StgKeyNode* node = nullptr;
        return table_.Find(key, node) == suts_StgKeyTable::UNKNOWN ? FindUnlocked(key) : node;
    }

    // The key's node, made if there is none; the key's heap array then belongs to the node. Where there is one already
    // the array is released. Either way the list grows by the node's key.
    suts_StgKeyNode* Insert(sutl_RawBytefield const& key) SUTL_REQUIRES(lock);

    // Walk of all nodes in key order, by the organizer thread; null at the end.
    [[nodiscard]] suts_StgKeyNode* First() const SUTL_NO_THREAD_SAFETY_ANALYSIS { return NodeAt(tree_.First()); }
    [[nodiscard]] static suts_StgKeyNode* Next(suts_StgKeyNode* node) { return NodeAt(sutl_TRBTree_base::Next(node)); }

    [[nodiscard]] sutl_LIST<suts_StgKeyListEntry>& List() SUTL_REQUIRES_SHARED(lock) { return list_; }

    sutl_RwLock lock;  // guards tree and list against readers

    // The last key announced downstream; at an end while none is. Moved by the ship thread alone.
    sutl_list_base_iter shipCursor;

 private:
    [[nodiscard]] static suts_StgKeyNode* NodeAt(sutl_TRBTree_node* node) {
        return node == sutl_TRBTree_base::nullNode ? nullptr : static_cast<suts_StgKeyNode*>(node);
    }
    [[nodiscard]] suts_StgKeyNode* FindUnlocked(sutl_RawBytefield const& key) const SUTL_NO_THREAD_SAFETY_ANALYSIS;

    suts_StgKeyTable table_;  // of the tree's nodes; the organizer thread's
    sutl_TRBTree_base tree_ SUTL_GUARDED_BY(lock);
    sutl_LIST<suts_StgKeyListEntry> list_ SUTL_GUARDED_BY(lock);
};
