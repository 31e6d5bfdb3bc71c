#include <algorithm>
#include <bit>
#include <numeric>
#include <span>

#include "sutl_list.h"
#include "test_support.h"

namespace {

using Iter = sutl_list_base_iter;

struct Item : sutl_list_link {
    int key;
    int place;  // in the list as it was first built
};

Item const& At(Iter const& at) { return static_cast<Item const&>(*at.link); }

// Compares by key. Counts its calls, and those whose first argument did not stand before the second in the beginning.
struct ByKey : sutl_Comparator<Iter> {
    long Compare(Iter const& a, Iter const& b) override {
        ++calls;
        if (At(a).place >= At(b).place) ++swappedCalls;
        return static_cast<long>(At(a).key) - At(b).key;
    }
    std::size_t calls = 0;
    std::size_t swappedCalls = 0;
};

struct Items {
    explicit Items(std::vector<int> const& keys) : items(keys.size()) {
        for (std::size_t i = 0; i < keys.size(); ++i) {
            items[i].key = keys[i];
            items[i].place = static_cast<int>(i);
            list.RawAppend(&items[i]);
        }
    }
    std::vector<Item> items;
    sutl_list_base list;
};

std::vector<int> RandomKeys(test::Random& random, std::size_t count, std::size_t bound) {
    std::vector<int> keys(count);
    for (int& key : keys) key = static_cast<int>(test::Below(random, bound));
    return keys;
}

// The places of the elements in list order; both directions must agree.
std::vector<int> Places(sutl_list_base const& list) {
    std::vector<int> forward, backward;
    for (Iter at = list.First(); !at.IsEnd(); at.StepNext()) forward.push_back(At(at).place);
    for (Iter at = list.Last(); !at.IsEnd(); at.StepPrev()) backward.insert(backward.begin(), At(at).place);
    EXPECT_EQ(forward, backward);
    return forward;
}

constexpr int UNKNOWN = -1;

// A list whose count reads something else than the number of its elements, so that the count rules can be seen: the
// elements that are linked through another list are not counted here.
struct MiscountedList {
    MiscountedList(int stated, int truth) : items(static_cast<std::size_t>(truth)) {
        for (Item& item : items) {
            sutl_list_base& counted = &item - items.data() < stated ? list : stranger;
            counted.RawInsertAfter(&item, list.Last());
        }
        if (stated == UNKNOWN) list.TransferSublist(list, list.First(), list.First());
    }
    std::vector<Item> items;
    sutl_list_base stranger, list;
};

struct Lists {
    sutl_list_base &from, &dest, &empty;
    Item& extra;
    Iter first, last;  // of from
};

TEST(List, CountFollowsItsRules) {
    struct {
        char const* name;
        int fromStated, destStated;  // of 3 and 2 elements
        void (*act)(Lists l);
        std::size_t fromSize, destSize;
    } const rows[] = {
        {"insert, unknown", UNKNOWN, 0, [](Lists l) { l.from.RawInsertAfter(&l.extra, l.first); }, 4, 0},
        {"remove at 1", 1, 0, [](Lists l) { l.from.RawRemove(l.first); }, 0, 0},
        {"remove at 0", 0, 0, [](Lists l) { l.from.RawRemove(l.last.link); }, 2, 0},
        {"remove at 0, append", 0, 0, [](Lists l) { l.from.RawAppend(l.from.RawRemove(l.first)); }, 3, 0},
        {"item at 0", 0, 0, [](Lists l) { l.from.TransferItem(l.dest, l.first); }, 2, 1},
        {"item, unknown", UNKNOWN, UNKNOWN, [](Lists l) { l.from.TransferItem(l.dest, l.last); }, 2, 3},
        {"item, sentinel", 1, 1, [](Lists l) { l.from.TransferItem(l.dest, Iter(l.last.link->next)); }, 1, 1},
        {"range", 1, 1, [](Lists l) { l.from.TransferSublist(l.dest, l.first, l.first); }, 2, 3},
        {"range to sentinel", 1, 1, [](Lists l) { l.from.TransferSublist(l.dest, l.first, Iter()); }, 1, 1},
        {"whole list", 1, 1, [](Lists l) { l.from.TransferList(l.dest); }, 0, 5},
        {"empty list", 1, 1, [](Lists l) { l.empty.TransferList(l.dest); }, 1, 1},
    };
    for (auto const& row : rows) {
        MiscountedList from(row.fromStated, 3), dest(row.destStated, 2), empty(0, 0);
        Item extra = {};
        row.act({from.list, dest.list, empty.list, extra, from.list.First(), from.list.Last()});
        EXPECT_EQ(row.fromSize, from.list.Size()) << row.name;
        EXPECT_EQ(row.destSize, dest.list.Size()) << row.name;
    }
}

TEST(List, MovesKeepTheOrderAndAppendAtTheEnd) {
    Items source({0, 0, 0, 0, 0, 0});
    Items dest({0});
    dest.items[0].place = 100;
    source.list.TransferItem(dest.list, Iter(&source.items[2]));
    source.list.TransferSublist(dest.list, Iter(&source.items[3]), Iter(&source.items[4]));
    EXPECT_EQ((std::vector{0, 1, 5}), Places(source.list));
    EXPECT_EQ((std::vector{100, 2, 3, 4}), Places(dest.list));
    dest.list.TransferList(source.list);
    EXPECT_TRUE(dest.list.IsEmpty() && dest.list.First().IsEnd() && dest.list.Last().IsEnd());
    // A removed element keeps its own pointers, which lets a walk go on from it.
    sutl_list_link* const removed = source.list.RawRemove(Iter(&source.items[1]));
    EXPECT_TRUE(removed == &source.items[1] && removed->next == &source.items[5]);
    source.list.RawInsertBefore(removed, source.list.First());
    source.list.RawInsertAfter(source.list.RawRemove(&source.items[5]), source.list.Last());
    EXPECT_EQ((std::vector{1, 0, 100, 2, 3, 4, 5}), Places(source.list));
}

TEST(List, SortOrdersTheRangeAndReversesTies) {
    test::Random random = test::SeededRandom();
    for (int round = 0; round < 600; ++round) {
        std::size_t const count = 1 + test::Below(random, 200);
        Items sorted(RandomKeys(random, count, 1 + test::Below(random, 60)));
        std::size_t const begin = round % 3 == 0 ? 0 : test::Below(random, count);
        std::size_t const length = round % 3 == 0 ? count : 1 + test::Below(random, count - begin);
        std::vector<int> expected(count);
        std::iota(expected.begin(), expected.end(), 0);
        std::span const range(expected.data() + begin, length);
        std::reverse(range.begin(), range.end());
        auto const key = [&](int place) { return sorted.items[static_cast<std::size_t>(place)].key; };
        std::stable_sort(range.begin(), range.end(), [&](int a, int b) { return key(a) < key(b); });

        ByKey comparator;
        Iter first(&sorted.items[begin]);
        Iter last(&sorted.items[begin + length - 1]);
        sorted.list.Sort(first, last, &comparator);
        ASSERT_EQ(expected, Places(sorted.list));
        ASSERT_EQ(range.front(), At(first).place);
        ASSERT_EQ(range.back(), At(last).place);
        ASSERT_EQ(count, sorted.list.Size());
        ASSERT_EQ(0U, comparator.swappedCalls);
        ASSERT_LE(comparator.calls, length * static_cast<std::size_t>(std::bit_width(length - 1)));
    }
}

// Regular orders make a careless choice of the pivot quadratic.
TEST(List, SelectFindsTheKthSmallestInLinearTime) {
    test::Random random = test::SeededRandom();
    constexpr std::size_t COMPARISONS_PER_ELEMENT_MAX = 30;
    struct {
        std::size_t count, keyBound;
    } const rows[] = {{1, 9}, {99, 99}, {100, 1}, {101, 1}, {101, 9}, {103, 9}, {106, 99}, {9000, 1000000}};
    for (auto const& [count, keyBound] : rows) {
        for (bool const ascending : {false, true}) {
            std::vector<int> keys = RandomKeys(random, count, keyBound);
            if (ascending) std::sort(keys.begin(), keys.end());
            for (std::size_t const k : {std::size_t{1}, count, count / 2 + 1, 1 + test::Below(random, count)}) {
                SCOPED_TRACE(testing::Message() << count << " keys below " << keyBound << ", k " << k);
                Items selected(keys);
                ByKey comparator;
                Iter const result = selected.list.Select(static_cast<long>(k), &comparator);
                std::vector<int> model = keys;
                std::nth_element(model.begin(), model.begin() + static_cast<long>(k - 1), model.end());
                ASSERT_FALSE(result.IsEnd());
                ASSERT_EQ(model[k - 1], At(result).key);
                ASSERT_LE(comparator.calls, COMPARISONS_PER_ELEMENT_MAX * count);
                ASSERT_EQ(count, selected.list.Size());
                std::vector<int> after = Places(selected.list);
                std::sort(after.begin(), after.end());
                for (std::size_t i = 0; i < count; ++i) ASSERT_EQ(static_cast<int>(i), after[i]);
            }
        }
    }
    Items few({3, 1, 2});
    ByKey comparator;
    EXPECT_TRUE(few.list.Select(4, &comparator).IsEnd()) << "beyond the last";
}

}  // namespace
