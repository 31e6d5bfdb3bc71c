#include <deque>

#include "sutl_dqueue.h"
#include "test_support.h"

namespace {

struct Triple {
    long first, second, third;
    bool operator==(Triple const&) const = default;
};
void SetValue(unsigned long& value, unsigned long n) { value = n; }
void SetValue(unsigned char& value, unsigned long n) { value = static_cast<unsigned char>(n * 37); }
void SetValue(Triple& value, unsigned long n) { value = {static_cast<long>(n), -static_cast<long>(n), 7}; }

// Bursts of every operation, beside a std::deque that does the same.
template <typename T>
void CompareWithModel(test::Random& random, unsigned long blockSize) {
    SCOPED_TRACE(testing::Message() << "block size " << blockSize << ", value size " << sizeof(T));
    sutl_DQUEUE<T> queue(blockSize);
    std::deque<T> model;
    unsigned long made = 0;
    for (int step = 0; step < 6000; ++step) {
        bool const adds = test::Below(random, 2) == 0;
        bool const many = test::Below(random, 2) == 0;
        std::size_t burst = test::Below(random, 3 * blockSize + 2);
        if (!adds) burst = std::min(burst, model.size());
        std::size_t const offset = 1 + test::Below(random, 8);  // away from the alignment of T
        std::vector<unsigned char> bytes(offset + burst * sizeof(T) + 1, 0xEE);
        if (!adds && many) queue.GetendMany(bytes.data() + offset, static_cast<long>(burst));
        for (std::size_t i = 0; i < burst; ++i) {
            unsigned char* const slot = &bytes[offset + i * sizeof(T)];
            if (adds) {
                T value;
                SetValue(value, made++);
                model.push_back(value);
                memcpy(slot, &value, sizeof value);
                if (!many) queue.Addfront(value);
            } else {
                T value;
                memcpy(&value, slot, sizeof value);
                ASSERT_TRUE(model.front() == (many ? value : queue.Getend()));
                model.pop_front();
            }
        }
        if (adds && many) {
            unsigned char const* from = bytes.data() + offset;
            queue.AddfrontMany(static_cast<long>(burst), [&from] {
                T value;
                memcpy(&value, from, sizeof value);
                from += sizeof value;
                return value;
            });
        }
        ASSERT_TRUE(bytes[offset - 1] == 0xEE && bytes.back() == 0xEE);
        if (step % 500 == 499) {
            queue.Discard();
            model.clear();
        }
        ASSERT_EQ(static_cast<long>(model.size()), queue.size);
        ASSERT_EQ(model.empty(), queue.IsEmpty());
        // The number of blocks; those at both ends may be partly used.
        ASSERT_GE(queue.Size(), (model.size() + blockSize - 1) / blockSize);
        ASSERT_LE(queue.Size(), (model.size() + 2 * blockSize - 2) / blockSize);
        ASSERT_TRUE(model.empty() || (model.back() == queue.Newest() && model.front() == queue.Oldest()));
    }
}

TEST(BlockQueue, ValuesLeaveInTheOrderInWhichTheyCame) {
    test::Random random = test::SeededRandom();
    for (unsigned long const blockSize : {1, 2, 8, 32}) {
        CompareWithModel<unsigned long>(random, blockSize);
        CompareWithModel<unsigned char>(random, blockSize);
        CompareWithModel<Triple>(random, blockSize);
    }
}

TEST(BlockQueue, BlocksFillDownwardsAndTheEmptiedOneIsUsedAgain) {
    constexpr long BLOCK = 8;
    sutl_DQUEUE<long> queue(BLOCK);
    queue.Addfront(0);
    long const* const highest = &queue.Newest();
    for (long i = 1; i < BLOCK; ++i) queue.Addfront(i);
    EXPECT_EQ(highest - BLOCK + 1, &queue.Newest());
    queue.Addfront(BLOCK);
    long const* const secondHighest = &queue.Newest();
    for (long i = 0; i < BLOCK; ++i) EXPECT_EQ(i, queue.Getend());
    EXPECT_EQ(1U, queue.Size()) << "the first block is emptied";
    EXPECT_EQ(secondHighest, &queue.Oldest());
    EXPECT_EQ(BLOCK, queue.Getend());
    queue.Addfront(100);
    EXPECT_EQ(highest, &queue.Newest()) << "the block that was emptied first is the spare";
}

TEST(FreeStore, GivesBackTheLatestBlocksUpToItsBound) {
    for (std::size_t const blockBytes : {1, 8, 24, 256}) {
        sutl_FreeStore store(blockBytes, 2);
        for (int round = 0; round < 3; ++round) {
            void* const blocks[] = {store.Take(), store.Take(), store.Take()};
            for (void* const block : blocks) memset(block, 0x5A, blockBytes);
            for (void* const block : blocks) store.Give(block);  // the third one is freed
            EXPECT_EQ(blocks[1], store.Take());
            EXPECT_EQ(blocks[0], store.Take());
            for (int i = 0; i < 2; ++i) store.Give(blocks[i]);
        }
    }
}

}  // namespace
