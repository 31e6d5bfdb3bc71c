// The intrusive list that the containers are built on: moves of single elements and of ranges in constant time, an
// in-place merge sort and a linear-time selection.
//
// No list locks: it belongs to whoever holds the lock of the structure that contains it.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>

#include "sutl_freestore.h"

// What every element begins with.
struct sutl_list_link {
    sutl_list_link* prev;
    sutl_list_link* next;

    // A link that leads back to itself in either direction is a sentinel; no operation compares with a list's own.
    [[nodiscard]] bool IsSentinel() const { return prev == this || next == this; }
};

// A position in a list: one link, copied by value. An end position belongs to no list and can be read, never written.
class sutl_list_base_iter {
 public:
    sutl_list_base_iter() { MakeEnd(); }
    explicit sutl_list_base_iter(sutl_list_link* link) : link(link) {}

    void MakeEnd() { link = &dummyend; }
    [[nodiscard]] bool IsEnd() const { return link->IsSentinel(); }
    void StepNext() { link = link->next; }
    void StepPrev() { link = link->prev; }
    bool operator==(sutl_list_base_iter const&) const = default;

    sutl_list_link* link;

 private:
    static constinit sutl_list_link dummyend;  // shared by the process; both of its pointers lead back to it
};

// The order that Sort and Select follow.
template <typename Iter>
class sutl_Comparator {
 public:
    virtual ~sutl_Comparator() = default;
    // Negative when a's element orders before b's, 0 when they are equal, positive when after.
    virtual long Compare(Iter const& a, Iter const& b) = 0;
};

// Links elements that its user allocates and frees; it owns none of them and frees nothing.
class sutl_list_base {
 public:
    using ListComparator = sutl_Comparator<sutl_list_base_iter>;

    sutl_list_base() : count_(0) {
        head_.prev = &head_;
        head_.next = &tail_;
        tail_.prev = &head_;
        tail_.next = &tail_;
    }
    sutl_list_base(sutl_list_base const&) = delete;
    sutl_list_base& operator=(sutl_list_base const&) = delete;

    [[nodiscard]] sutl_list_base_iter First() const {
        return sutl_list_base_iter(head_.next);
    }                                                                                           // a sentinel when empty
    [[nodiscard]] sutl_list_base_iter Last() const { return sutl_list_base_iter(tail_.prev); }  // a sentinel when empty
    [[nodiscard]] bool IsEmpty() const { return head_.next->IsSentinel(); }

    void RawInsert(sutl_list_link* link);  // becomes the first element
    void RawAppend(sutl_list_link* link);  // becomes the last element
    void RawInsertBefore(sutl_list_link* link, sutl_list_base_iter const& at);
    void RawInsertAfter(sutl_list_link* link, sutl_list_base_iter const& at);

    // Unlinks the element and returns it. Its own pointers are left as they are; nothing is freed.
    sutl_list_link* RawRemove(sutl_list_base_iter const& at) { return RawRemove(at.link); }
    sutl_list_link* RawRemove(sutl_list_link* link);

    // The number of elements. Constant time, but for the first call after a range was moved, which walks the list.
    std::size_t Size();

    // Moves one element to the end of dest; nothing when at is a sentinel. The position still designates the element.
    void TransferItem(sutl_list_base& dest, sutl_list_base_iter const& at);
    // Moves the inclusive range to the end of dest; nothing when either is a sentinel. Not checked: that first precedes
    // last and that both are in this list.
    void TransferSublist(sutl_list_base& dest, sutl_list_base_iter const& first, sutl_list_base_iter const& last);
    void TransferList(sutl_list_base& dest);

    // Sorts the inclusive range, which must not be empty, in place: n log n comparisons, no allocation. On return first
    // and last designate the range's new ends. Elements that compare equal come out in the reverse of their former
    // order.
    void Sort(sutl_list_base_iter& first, sutl_list_base_iter& last, ListComparator* comparator);

    // The k-th smallest element, k from 1, of a list that must not be empty. Reorders the list.
    sutl_list_base_iter Select(long k, ListComparator* comparator);

 private:
    static constexpr long COUNT_UNKNOWN = -1;            // until Size counts anew
    static constexpr std::size_t SELECT_SORT_MAX = 100;  // up to here Select sorts outright
    static constexpr long MEDIAN_GROUP = 5;

    sutl_list_link* Mergesort(sutl_list_link* start, std::size_t n, ListComparator* comparator);
    sutl_list_link* Merge(sutl_list_link* a, std::size_t na, sutl_list_link* b, std::size_t nb,
                          ListComparator* comparator);
    sutl_list_base_iter ComputeMedianOfMedians(ListComparator* comparator);
    void SortAll(ListComparator* comparator);
    void CountInsertion() {
        if (count_ >= 0) ++count_;
    }
    void CountRemoval() { count_ = count_ >= 1 ? count_ - 1 : COUNT_UNKNOWN; }

    long count_;  // number of elements, or COUNT_UNKNOWN
    sutl_list_link head_;
    sutl_list_link tail_;
};

// A list whose nodes carry a value each. Nodes are recycled. Values are not destroyed: what a value owns must be
// released by the user before.
template <typename T>
class sutl_LIST : public sutl_list_base {
 public:
    struct Node : sutl_list_link {
        T value;
    };
    static_assert(std::is_trivially_destructible_v<T>);

    static constexpr std::size_t IDLE_NODES_MAX = 4096;

    explicit sutl_LIST(std::size_t idleNodesMax = IDLE_NODES_MAX) : nodes_(sizeof(Node), idleNodesMax) {}
    ~sutl_LIST() {
        while (!IsEmpty()) Delete(First());
    }

    [[nodiscard]] static T& Value(sutl_list_base_iter const& at) { return static_cast<Node*>(at.link)->value; }

    // A node of this list, not linked yet.
    template <typename... Args>
    [[nodiscard]] Node* NewNode(Args&&... args) {
        return new (nodes_.Take()) Node{{nullptr, nullptr}, T{static_cast<Args&&>(args)...}};
    }
    template <typename... Args>
    sutl_list_base_iter Append(Args&&... args) {
        Node* const node = NewNode(static_cast<Args&&>(args)...);
        RawAppend(node);
        return sutl_list_base_iter(node);
    }

    // Unlinks the node and frees it.
    void Delete(sutl_list_base_iter at) { nodes_.Give(static_cast<Node*>(RawRemove(at))); }

 private:
    sutl_FreeStore nodes_;
};

inline void sutl_list_base::RawInsertAfter(sutl_list_link* link, sutl_list_base_iter const& at) {
    sutl_list_link* const before = at.link;
    link->prev = before;
    link->next = before->next;
    before->next->prev = link;
    before->next = link;
    CountInsertion();
}

inline void sutl_list_base::RawInsertBefore(sutl_list_link* link, sutl_list_base_iter const& at) {
    sutl_list_link* const after = at.link;
    link->next = after;
    link->prev = after->prev;
    after->prev->next = link;
    after->prev = link;
    CountInsertion();
}

inline void sutl_list_base::RawInsert(sutl_list_link* link) { RawInsertAfter(link, sutl_list_base_iter(&head_)); }
inline void sutl_list_base::RawAppend(sutl_list_link* link) { RawInsertBefore(link, sutl_list_base_iter(&tail_)); }

inline sutl_list_link* sutl_list_base::RawRemove(sutl_list_link* link) {
    link->prev->next = link->next;
    link->next->prev = link->prev;
    CountRemoval();
    return link;
}
