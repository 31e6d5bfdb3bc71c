#include "sutl_list.h"

constinit sutl_list_link sutl_list_base_iter::dummyend{&sutl_list_base_iter::dummyend, &sutl_list_base_iter::dummyend};

std::size_t sutl_list_base::Size() {
    if (count_ < 0) {
        long counted = 0;
        for (sutl_list_link const* link = head_.next; !link->IsSentinel(); link = link->next) ++counted;
        count_ = counted;
    }
    return static_cast<std::size_t>(count_);
}

void sutl_list_base::TransferItem(sutl_list_base& dest, sutl_list_base_iter const& at) {
    if (at.IsEnd()) return;
    // 0 becomes unknown: a list whose count reads 0 and that gives an element away was counted wrongly.
    sutl_list_link* const link = at.link;
    link->prev->next = link->next;
    link->next->prev = link->prev;
    if (count_ >= 0) --count_;
    dest.RawAppend(link);
}

void sutl_list_base::TransferSublist(sutl_list_base& dest, sutl_list_base_iter const& first,
                                     sutl_list_base_iter const& last) {
    if (first.IsEnd() || last.IsEnd()) return;
    sutl_list_link* const from = first.link;
    sutl_list_link* const to = last.link;
    from->prev->next = to->next;
    to->next->prev = from->prev;
    from->prev = dest.tail_.prev;
    to->next = &dest.tail_;
    from->prev->next = from;
    dest.tail_.prev = to;
    count_ = COUNT_UNKNOWN;
    dest.count_ = COUNT_UNKNOWN;
}

void sutl_list_base::TransferList(sutl_list_base& dest) { TransferSublist(dest, First(), Last()); }

void sutl_list_base::Sort(sutl_list_base_iter& first, sutl_list_base_iter& last, ListComparator* comparator) {
    std::size_t n = 1;
    for (sutl_list_link const* link = first.link; link != last.link; link = link->next) ++n;
    // Neighbours of the range stay in place while it is sorted, so they lead back to its ends.
    sutl_list_link* const before = first.link->prev;
    sutl_list_link* const after = last.link->next;
    Mergesort(first.link, n, comparator);
    first.link = before->next;
    last.link = after->prev;
}

// Sorts n elements from start; returns the link that follows them.
// NOLINTNEXTLINE(misc-no-recursion): the depth is the logarithm of n.
sutl_list_link* sutl_list_base::Mergesort(sutl_list_link* start, std::size_t n, ListComparator* comparator) {
    if (n <= 1) return start->next;
    std::size_t const half = n / 2;
    sutl_list_link* const before = start->prev;
    sutl_list_link* const middle = Mergesort(start, half, comparator);
    sutl_list_link* const lastOfFirstRun = middle->prev;
    Mergesort(middle, n - half, comparator);
    return Merge(before->next, half, lastOfFirstRun->next, n - half, comparator);
}

// Merges two adjacent sorted runs, a's first; returns the link that follows them. On a tie the later run's element goes
// first: that is what reverses elements that compare equal.
sutl_list_link* sutl_list_base::Merge(sutl_list_link* a, std::size_t na, sutl_list_link* b, std::size_t nb,
                                      ListComparator* comparator) {
    sutl_list_link* position = a->prev;
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < na || j < nb) {
        bool const fromB =
            i == na || (j < nb && comparator->Compare(sutl_list_base_iter(a), sutl_list_base_iter(b)) >= 0);
        sutl_list_link* const taken = fromB ? b : a;
        (fromB ? b : a) = taken->next;
        ++(fromB ? j : i);
        RawRemove(taken);
        RawInsertAfter(taken, sutl_list_base_iter(position));
        position = taken;
    }
    return position->next;
}

void sutl_list_base::SortAll(ListComparator* comparator) {
    sutl_list_base_iter first = First();
    sutl_list_base_iter last = Last();
    Sort(first, last, comparator);
}

// NOLINTNEXTLINE(misc-no-recursion): each call leaves at most seven tenths of the list to the next.
sutl_list_base_iter sutl_list_base::Select(long k, ListComparator* comparator) {
    if (Size() <= SELECT_SORT_MAX) {
        SortAll(comparator);
        sutl_list_base_iter result = First();
        for (long step = 1; step < k; ++step) result.StepNext();
        return result;
    }
    sutl_list_base_iter const pivot = ComputeMedianOfMedians(comparator);
    sutl_list_base less;
    sutl_list_base equal;
    sutl_list_base greater;
    long lessCount = 0;
    long equalCount = 0;
    while (!IsEmpty()) {
        sutl_list_base_iter const item = First();
        long const order = comparator->Compare(item, pivot);
        if (order < 0) {
            ++lessCount;
            TransferItem(less, item);
        } else if (order == 0) {
            ++equalCount;
            TransferItem(equal, item);
        } else {
            TransferItem(greater, item);
        }
    }
    sutl_list_base_iter result;
    if (k <= lessCount) {
        result = less.Select(k, comparator);
    } else if (k <= lessCount + equalCount) {
        result = equal.First();
    } else {
        result = greater.Select(k - lessCount - equalCount, comparator);
    }
    less.TransferList(*this);
    equal.TransferList(*this);
    greater.TransferList(*this);
    return result;
}

// The pivot that Select splits the list by. The list keeps all its elements, reordered.
// NOLINTNEXTLINE(misc-no-recursion): each call leaves a fifth of the list to the next.
sutl_list_base_iter sutl_list_base::ComputeMedianOfMedians(ListComparator* comparator) {
    sutl_list_base work;
    sutl_list_base medians;
    sutl_list_base rest;
    sutl_list_base group;
    TransferList(work);
    long total = 0;
    long fill = 0;
    long medianCount = 0;
    auto const closeGroup = [&](long medianPosition) {
        group.SortAll(comparator);
        sutl_list_base_iter median = group.First();
        for (long step = 0; step < medianPosition; ++step) median.StepNext();
        group.TransferItem(medians, median);
        ++medianCount;
        group.TransferList(rest);
        fill = 0;
    };
    while (!work.IsEmpty()) {
        work.TransferItem(group, work.First());
        ++fill;
        ++total;
        if (fill == MEDIAN_GROUP) closeGroup(MEDIAN_GROUP / 2);
    }
    if (fill > 0) closeGroup(fill / 2);  // the upper middle of the last, shorter group
    sutl_list_base_iter const pivot =
        total > MEDIAN_GROUP ? medians.Select(medianCount / 2 + 1, comparator) : medians.First();
    rest.TransferList(*this);
    medians.TransferList(*this);
    return pivot;
}
