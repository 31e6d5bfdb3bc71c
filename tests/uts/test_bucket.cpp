// Buckets: chunks and positions, and what recycling leaves behind.
#include "uts_stgbucket.h"

#include <thread>

#include "uts_support.h"

namespace {

// Of different lengths: some lie in the value itself, some in the chunk, and some on the heap, where one that is freed
// twice or never is noticed under the address sanitizer.
std::string ValueOf(long time) {
    return "value " + std::to_string(time) + std::string(static_cast<std::size_t>(time * time % 101), 'x');
}

suts_StgFileRecord* HandleOf(long time) {
    static suts_StgFileRecord files[101];
    return &files[time];
}

// The times from a position back to another, exclusive; each record has to be whole.
std::vector<long> TimesBack(suts_StgPosition from, suts_StgPosition const& to) {
    std::vector<long> times;
    for (; from != to; from.StepBack()) {
        suts_StgBucketRecord const& record = from.Record();
        times.push_back(record.time);
        EXPECT_EQ(ValueOf(record.time), test::BytesOf(record.value));
        EXPECT_EQ(HandleOf(record.time), record.file);
    }
    return times;
}

// first, first - 1, ... last; nothing when first is less.
std::vector<long> Countdown(long first, long last) {
    std::vector<long> times;
    for (long time = first; time >= last; --time) times.push_back(time);
    return times;
}

long ChunksOf(suts_StgPosition const& position) {
    long chunks = 0;
    for (suts_StgChunk const* chunk = position.Chunk(); chunk != nullptr; chunk = chunk->older) ++chunks;
    return chunks;
}

TEST(Bucket, RecyclingFreesWhatIsShippedAndParksTheRest) {
    suts_StgChunkStore chunks;
    for (long placed = 0; placed <= 23; ++placed) {
        for (long shipped = 0; shipped <= placed; ++shipped) {
            SCOPED_TRACE(std::to_string(shipped) + " of " + std::to_string(placed) + " shipped");
            suts_StgBucketSet set;
            sutl_WriteLock const lock(set.lock);
            suts_StgBucket& bucket = set.Slot(3);
            for (long time = 0; time < placed; ++time) {
                set.Place(3, HandleOf(time), time, test::OwnedField(ValueOf(time)), chunks);
                if (time + 1 == shipped) bucket.shipped = bucket.newest;
            }
            EXPECT_EQ(Countdown(placed - 1, 0), TimesBack(bucket.newest, suts_StgPosition()));
            EXPECT_EQ((placed + 6) / 7, ChunksOf(bucket.newest)) << "seven records a chunk";
            EXPECT_TRUE(set.Slot(2).newest.IsEmpty());

            set.Recycle(3, chunks);
            EXPECT_TRUE(bucket.newest.IsEmpty() && bucket.shipped.IsEmpty());
            set.Place(3, HandleOf(100), 100, test::OwnedField(ValueOf(100)), chunks);
            EXPECT_EQ(Countdown(100, 100), TimesBack(bucket.newest, suts_StgPosition()));
            if (placed % 5 == 0) {  // retired arrays are freed, too
                set.FreeArrays(chunks);
                EXPECT_FALSE(chunks.HoldsArrays());
                continue;
            }
            suts_StgRetired* const retired = set.TakeRetired();
            ASSERT_EQ(shipped == placed, retired == nullptr);
            if (retired == nullptr) continue;
            EXPECT_EQ(Countdown(placed - 1, shipped), TimesBack(retired->newest, retired->shipped));
            // The chunk of the last shipped record is the oldest that is left.
            EXPECT_EQ((placed - 1) / 7 - std::max(shipped - 1, 0L) / 7 + 1, ChunksOf(retired->newest));
            chunks.GiveFromShipThread(retired->newest);
            delete retired;
            EXPECT_EQ(nullptr, set.TakeRetired());
            set.FreeArrays(chunks);
        }
    }
}

TEST(Bucket, ChunksComeBackFromBothThreadsWithoutMixingUp) {
    suts_StgChunkStore chunks;
    test::Random random = test::SeededRandom();
    suts_StgBucketSet set;
    std::atomic<bool> ended = false;
    std::thread shipping([&] {
        for (bool last = false; !last;) {
            last = ended.load();
            sutl_ReadLock const lock(set.lock);
            while (suts_StgRetired* const retired = set.TakeRetired()) {
                TimesBack(retired->newest, retired->shipped);
                chunks.GiveFromShipThread(retired->newest);
                delete retired;
            }
        }
    });
    for (int round = 0; round < 2000; ++round) {
        sutl_WriteLock const lock(set.lock);
        std::size_t const records = test::Below(random, 60);
        for (std::size_t i = 0; i < records; ++i) {
            auto const time = static_cast<long>(test::Below(random, 101));
            set.Place(round % 5, HandleOf(time), time, test::OwnedField(ValueOf(time)), chunks);
        }
        suts_StgBucket& bucket = set.Slot((round + 1) % 5);
        if (round % 3 == 0) bucket.shipped = bucket.newest;
        TimesBack(bucket.newest, suts_StgPosition());
        set.Recycle((round + 1) % 5, chunks);
    }
    ended.store(true);
    shipping.join();
    set.FreeArrays(chunks);
    EXPECT_FALSE(chunks.HoldsArrays());
}

}  // namespace
