// The queue of byte strings.
#include "sutl_bytequeue.h"

#include <cstring>
#include <string>

#include "test_support.h"

namespace {

TEST(ByteQueue, StringsKeepTheirPlaceAndLeaveNothingBehind) {
    test::Random random = test::SeededRandom();
    sutl_ByteQueue queue;
    std::deque<std::pair<std::string, unsigned char const*>> held;
    std::size_t heldMax = 0;
    for (int step = 0; step < 20000; ++step) {
        if (step % 1000 == 0) heldMax = test::Below(random, 30);
        if (held.size() <= heldMax && test::Below(random, 3) > 0) {
            // Some are longer than a block; those come when the queue is empty, too.
            std::size_t const bytes = 1 + test::Below(random, test::Below(random, 20) == 0 ? 200000 : 3000);
            std::string const text(bytes, static_cast<char>('a' + step % 26));
            unsigned char* const place = queue.Add(bytes);
            memcpy(place, text.data(), bytes);
            held.emplace_back(text, place);
        } else if (!held.empty()) {
            auto const& [text, place] = held.front();
            ASSERT_EQ(0, memcmp(place, text.data(), text.size()));
            queue.Drop(text.size());
            held.pop_front();
        }
        ASSERT_LE(queue.Blocks(), held.size() + 1) << "no more blocks than one a string";
        if (step % 5000 == 4999) {
            queue.Clear();
            held.clear();
            ASSERT_LE(queue.Blocks(), 1U);
        }
    }
}

}  // namespace
