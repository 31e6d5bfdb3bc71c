// The key index: every distinct key seen, with its bucket set.
#pragma once

#include <memory>
#include <span>
#include <vector>

#include "sutl_list.h"
#include "sutl_locks.h"
#include "sutl_rawbytefield.h"
#include "sutl_trbtree.h"
#include "uts_stgbucket.h"

// A key's node in the tree. It owns the key's heap array and the set, and keeps its address.
struct suts_StgKeyNode : sutl_TRBTree_node {
    sutl_RawBytefield key;
    int batchFirst = -1;  // organizer thread: the first and
    int batchLast = -1;   // the last record of the batch at hand that go to the set; none between batches
    suts_StgBucketSet set;

    // Has key and set on their way to the processor's cache before they are needed.
    void Prefetch() const {
        constexpr std::size_t CACHE_LINE_BYTES = 64;
        for (std::size_t at = sizeof(sutl_TRBTree_node); at < sizeof *this - sizeof(void*); at += CACHE_LINE_BYTES) {
            __builtin_prefetch(reinterpret_cast<unsigned char const*>(this) + at);
        }
    }
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

    // Of a key that was shared or assigned.
    [[nodiscard]] static unsigned long Hash(sutl_RawBytefield const& key);
    // The two first steps of a search, apart: many searches go through each step together, and wait for memory once.
    void PrefetchSlot(unsigned long hash) const {
        if (!slots_.empty()) __builtin_prefetch(&slots_[hash & (slots_.size() - 1)]);
    }
    void PrefetchNode(unsigned long hash) const;
    // Sets node where one is found. Unknown only when keys that collide too often were left out.
    [[nodiscard]] Result Find(sutl_RawBytefield const& key, unsigned long hash, suts_StgKeyNode*& node) const;
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

    [[nodiscard]] bool Put(Slot const& entry);
    void Grow();

    std::vector<Slot> slots_;  // a power of two of them, or none
    std::size_t used_ = 0;
    bool complete_ = true;  // no key was left out
};

// A tree in key order (sutl_CompareKeys) and a list in the order in which the keys were first seen. Both only grow.
// Beside them a table and a copy of the order, for the organizer thread alone. Owned by suts_StgOrganizer, whose thread
// is the only writer: it looks up without the lock and holds it for writing while it inserts. The ship and query
// threads hold it for reading, and release it before they take a bucket set's lock.
class suts_StgKeyIndex {
 public:
    suts_StgKeyIndex() = default;
    suts_StgKeyIndex(suts_StgKeyIndex const&) = delete;
    suts_StgKeyIndex& operator=(suts_StgKeyIndex const&) = delete;
    ~suts_StgKeyIndex();  // no other thread may use the index any more

    // The key's node, or null.
    [[nodiscard]] suts_StgKeyNode* Find(sutl_RawBytefield const& key) const SUTL_REQUIRES_SHARED(lock) {
        return FindUnlocked(key);
    }
    // The same for the organizer thread, which needs no lock to read what it alone writes.
    [[nodiscard]] suts_StgKeyNode* FindAsWriter(sutl_RawBytefield const& key, unsigned long hash) const {
        suts_StgKeyNode* node = nullptr;
        return table_.Find(key, hash, node) == suts_StgKeyTable::UNKNOWN ? FindUnlocked(key) : node;
    }
    [[nodiscard]] suts_StgKeyTable const& Table() const { return table_; }

    // The key's node, made with a copy of the key if there is none. Either way the list grows by the node's key.
    suts_StgKeyNode* Insert(sutl_RawBytefield const& key) SUTL_REQUIRES(lock);

    // Has what insertions of the keys will look at on its way to the processor's cache: walks down the tree for all of
    // them at once, so that the memory of each is waited for together. From the organizer thread.
    static constexpr std::size_t WALKS = 32;  // at most
    void PrefetchPaths(std::span<sutl_RawBytefield const* const> keys) const;

    // All nodes in key order, for the organizer thread; valid until the next insertion.
    [[nodiscard]] std::vector<suts_StgKeyNode*> const& InOrder();

    [[nodiscard]] sutl_LIST<suts_StgKeyListEntry>& List() SUTL_REQUIRES_SHARED(lock) { return list_; }

    sutl_RwLock lock;  // guards tree and list against readers

    // The last key announced downstream; at an end while none is. Moved by the ship thread alone.
    sutl_list_base_iter shipCursor;

 private:
    static constexpr std::size_t NODES_PER_BLOCK = 64;

    [[nodiscard]] suts_StgKeyNode* FindUnlocked(sutl_RawBytefield const& key) const SUTL_NO_THREAD_SAFETY_ANALYSIS;
    [[nodiscard]] sutl_TRBTree_node* RootUnlocked() const SUTL_NO_THREAD_SAFETY_ANALYSIS { return tree_.Root(); }

    suts_StgKeyTable table_;                                  // of the tree's nodes; the organizer thread's
    std::vector<suts_StgKeyNode*> inOrder_;                   // of the tree's nodes; the organizer thread's
    std::vector<std::unique_ptr<suts_StgKeyNode[]>> blocks_;  // the nodes, in the order first seen
    std::size_t nodes_ = 0;                                   // in the tree
    sutl_TRBTree_base tree_ SUTL_GUARDED_BY(lock);
    sutl_LIST<suts_StgKeyListEntry> list_ SUTL_GUARDED_BY(lock);
};
