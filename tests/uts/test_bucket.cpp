// Buckets: chunks and positions, and what recycling leaves behind.
#include "uts_stgbucket.h"

#include "uts_support.h"

namespace {

// On the heap, so that a value freed twice or never is noticed under the address sanitizer.
sutl_RawBytefield ValueOf(long time) { return test::Field("value number " + std::to_string(time)); }

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
        EXPECT_EQ("value number " + std::to_string(record.time), test::BytesOf(record.value));
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
    for (long placed = 0; placed <= 23; ++placed) {
        for (long shipped = 0; shipped <= placed; ++shipped) {
            SCOPED_TRACE(std::to_string(shipped) + " of " + std::to_string(placed) + " shipped");
            suts_StgBucketSet set;
            sutl_WriteLock const lock(set.lock);
            suts_StgBucket& bucket = set.Slot(3);
            for (long time = 0; time < placed; ++time) {
                set.Place(3, HandleOf(time), time, ValueOf(time));
                if (time + 1 == shipped) bucket.shipped = bucket.newest;
            }
            EXPECT_EQ(Countdown(placed - 1, 0), TimesBack(bucket.newest, suts_StgPosition()));
            EXPECT_EQ((placed + 6) / 7, ChunksOf(bucket.newest)) << "seven records a chunk";
            EXPECT_TRUE(set.Slot(2).newest.IsEmpty());

            set.Recycle(3);
            EXPECT_TRUE(bucket.newest.IsEmpty() && bucket.shipped.IsEmpty());
            set.Place(3, HandleOf(100), 100, ValueOf(100));
            EXPECT_EQ(Countdown(100, 100), TimesBack(bucket.newest, suts_StgPosition()));
            if (placed % 5 == 0) continue;  // the set frees what is retired, too
            suts_StgRetired* const retired = set.TakeRetired();
            ASSERT_EQ(shipped == placed, retired == nullptr);
            if (retired == nullptr) continue;
            EXPECT_EQ(Countdown(placed - 1, shipped), TimesBack(retired->newest, retired->shipped));
            // The chunk of the last shipped record is the oldest that is left.
            EXPECT_EQ((placed - 1) / 7 - std::max(shipped - 1, 0L) / 7 + 1, ChunksOf(retired->newest));
            for (suts_StgPosition at = retired->newest; at != retired->shipped; at.StepBack())
                at.Record().value.Clear();
            suts_StgBucketSet::FreeChunks(retired->newest.Chunk());
            delete retired;
            EXPECT_EQ(nullptr, set.TakeRetired());
        }
    }
}

}  // namespace
