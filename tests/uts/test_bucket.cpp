// Buckets: chunks and positions, and what recycling leaves behind.
#include "uts_stgbucket.h"

#include "uts_support.h"

namespace {

// On the heap, so that a value freed twice or never is noticed under the address sanitizer.
sutl_RawBytefield ValueOf(long time) { return test::Field("value number " + std::to_string(time)); }

void Place(suts_StgBucketSet& set, unsigned long slot, long time) {
    sutl_WriteLock const lock(set.lock);
    set.Place(slot, reinterpret_cast<suts_StgFileRecord*>(time + 1), time, ValueOf(time));
}

// The times from a position back to another, exclusive; each record has to be whole.
std::vector<long> TimesBack(suts_StgPosition from, suts_StgPosition const& to) {
    std::vector<long> times;
    for (; from != to; from.StepBack()) {
        suts_StgBucketRecord const& record = from.Record();
        times.push_back(record.time);
        EXPECT_EQ("value number " + std::to_string(record.time), test::BytesOf(record.value));
        EXPECT_EQ(reinterpret_cast<suts_StgFileRecord*>(record.time + 1), record.file);
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

TEST(Bucket, KeepsRecordsInChunksOfSeven) {
    suts_StgBucketSet set;
    for (long time = 0; time < 30; ++time) {
        for (unsigned long slot = 0; slot < suts_StgBucketSet::BUCKETS; slot += 2) Place(set, slot, time);
        sutl_ReadLock const lock(set.lock);
        for (unsigned long slot = 0; slot < suts_StgBucketSet::BUCKETS; ++slot) {
            suts_StgBucket const& bucket = set.Slot(slot);
            bool const used = slot % 2 == 0;
            EXPECT_EQ(used ? Countdown(time, 0) : Countdown(0, 1), TimesBack(bucket.newest, suts_StgPosition()));
            EXPECT_EQ(used ? time / 7 + 1 : 0, ChunksOf(bucket.newest));
            EXPECT_EQ(used ? static_cast<unsigned int>(time % 7 + 1) : 7U, bucket.newest.InUse());
            EXPECT_TRUE(bucket.shipped.IsEmpty());
        }
    }
}

TEST(Bucket, RecyclingFreesWhatIsShippedAndParksTheRest) {
    for (long placed = 0; placed <= 23; ++placed) {
        for (long shipped = 0; shipped <= placed; ++shipped) {
            SCOPED_TRACE(std::to_string(shipped) + " of " + std::to_string(placed) + " shipped");
            suts_StgBucketSet set;
            for (long time = 0; time < placed; ++time) {
                Place(set, 3, time);
                sutl_ReadLock const lock(set.lock);
                if (time + 1 == shipped) set.Slot(3).shipped = set.Slot(3).newest;
            }
            {
                sutl_WriteLock const lock(set.lock);
                set.Recycle(3);
                EXPECT_TRUE(set.Slot(3).newest.IsEmpty() && set.Slot(3).shipped.IsEmpty());
                suts_StgRetired* const retired = set.TakeRetired();
                ASSERT_EQ(shipped == placed, retired == nullptr);
                if (retired != nullptr) {
                    EXPECT_EQ(Countdown(placed - 1, shipped), TimesBack(retired->newest, retired->shipped));
                    // The chunk of the last shipped record is the oldest that is left.
                    long const oldestChunk = shipped == 0 ? 0 : (shipped - 1) / 7;
                    EXPECT_EQ((placed - 1) / 7 - oldestChunk + 1, ChunksOf(retired->newest));
                    for (suts_StgPosition at = retired->newest; at != retired->shipped; at.StepBack()) {
                        at.Record().value.Clear();
                    }
                    suts_StgBucketSet::FreeChunks(retired->newest.Chunk());
                    delete retired;
                    EXPECT_EQ(nullptr, set.TakeRetired());
                }
            }
            Place(set, 3, 100);
            sutl_ReadLock const lock(set.lock);
            EXPECT_EQ(Countdown(100, 100), TimesBack(set.Slot(3).newest, suts_StgPosition()));
        }
    }
}

// Nothing is taken out here: the set frees buckets and retired contents, in every state, at its end.
TEST(Bucket, RetiredContentsStandNewestFirstAndGoWithTheSet) {
    for (long last = 1; last < 40; ++last) {
        suts_StgBucketSet set;
        for (long time = 0; time < last; ++time) {
            auto const slot = static_cast<unsigned long>(time % 2);
            Place(set, slot, time);
            sutl_WriteLock const lock(set.lock);
            if (time % 4 == 3) set.Slot(slot).shipped = set.Slot(slot).newest;
            if (time % 11 == 10) set.Recycle(slot);
        }
        if (last < 35) continue;
        // Slot 0 was recycled behind 10, slot 1 behind 21, slot 0 again behind 32.
        sutl_WriteLock const lock(set.lock);
        for (long const newest : {32, 21, 10}) {
            suts_StgRetired* const retired = set.TakeRetired();
            ASSERT_NE(nullptr, retired) << newest;
            EXPECT_EQ(newest, retired->newest.Record().time);
            for (suts_StgPosition at = retired->newest; at != retired->shipped; at.StepBack())
                at.Record().value.Clear();
            suts_StgBucketSet::FreeChunks(retired->newest.Chunk());
            delete retired;
        }
        EXPECT_EQ(nullptr, set.TakeRetired());
    }
}

}  // namespace
