#include <deque>

#include "sutl_dqueue.h"
#include "test_support.h"

namespace {

struct Triple {
    long first, second, third;
    bool operator==(Triple const&) const = default;
};
Triple ValueOf(long n) { return {n, -n, 7}; }

// Bursts of every operation, beside a std::deque that does the same.
void CompareWithModel(test::Random& random, unsigned long blockSize) {
    SCOPED_TRACE(testing::Message() << "block size " << blockSize);
    sutl_DQUEUE<Triple> queue(blockSize);
    std::deque<Triple> model;
    long made = 0;
    for (int step = 0; step < 6000; ++step) {
        bool const adds = test::Below(random, 2) == 0;
        bool const many = test::Below(random, 2) == 0;
        std::size_t burst = test::Below(random, 3 * blockSize + 2);
        if (!adds) burst = std::min(burst, model.size());
        std::size_t const offset = 1 + test::Below(random, 8);  // away from any alignment
        std::vector<unsigned char> bytes(offset + burst * sizeof(Triple) + 1, 0xEE);
        if (!adds && many) queue.GetendMany(bytes.data() + offset, static_cast<long>(burst));
        for (std::size_t i = 0; i < burst; ++i) {
            unsigned char* const slot = &bytes[offset + i * sizeof(Triple)];
            if (adds) {
                Triple const value = ValueOf(made++);
                model.push_back(value);
                memcpy(slot, &value, sizeof value);
                if (!many) queue.Addfront(value);
            } else {
                Triple value;
                memcpy(&value, slot, sizeof value);
                ASSERT_TRUE(model.front() == (many ? value : queue.Getend()));
                model.pop_front();
            }
        }
        if (adds && many) {
            unsigned char const* from = bytes.data() + offset;
            queue.AddfrontMany(static_cast<long>(burst), [&from] {
                Triple value;
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
    for (unsigned long const blockSize : {1, 2, 8, 32}) CompareWithModel(random, blockSize);
}

}  // namespace
