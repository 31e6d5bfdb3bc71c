// Time buckets: what the organizer keeps of one key.
#pragma once

#include <cstdint>

#include "sutl_locks.h"
#include "sutl_rawbytefield.h"

struct suts_StgFileRecord;

// A staged record. Its key lives in the key index.
struct suts_StgBucketRecord {
    suts_StgFileRecord* file;  // recovery handle
    long time;                 // microseconds
    sutl_RawBytefield value;   // owned here until it is shipped out of a retired bucket
};

// Records of one bucket in arrival order, filled from index 0.
struct suts_StgChunk {
    static constexpr unsigned int RECORDS = 7;

    suts_StgChunk* older;  // the next older chunk of the bucket; null for the oldest
    suts_StgBucketRecord records[RECORDS];
};

// A place in a bucket: the address of a chunk with the number of its records in use in the low three bits, which a
// chunk's alignment leaves free. It designates the last record in use. Without a chunk it designates none: the bucket's
// beginning.
class suts_StgPosition {
 public:
    suts_StgPosition() = default;
    suts_StgPosition(suts_StgChunk* chunk, unsigned int inUse)
        : tagged_(reinterpret_cast<std::uintptr_t>(chunk) | inUse) {}

    [[nodiscard]] bool IsEmpty() const { return Chunk() == nullptr; }
    // NOLINTNEXTLINE(performance-no-int-to-ptr): that is what a tag costs.
    [[nodiscard]] suts_StgChunk* Chunk() const { return reinterpret_cast<suts_StgChunk*>(tagged_ & ~TAG_MASK); }
    [[nodiscard]] unsigned int InUse() const { return static_cast<unsigned int>(tagged_ & TAG_MASK); }
    [[nodiscard]] bool ChunkIsFull() const { return InUse() == suts_StgChunk::RECORDS; }
    [[nodiscard]] suts_StgBucketRecord& Record() const { return Chunk()->records[InUse() - 1]; }
    // To the record that arrived before.
    void StepBack() {
        --tagged_;
        if (InUse() == 0) *this = suts_StgPosition(Chunk()->older, suts_StgChunk::RECORDS);
    }
    bool operator==(suts_StgPosition const&) const = default;

 private:
    static constexpr std::uintptr_t TAG_MASK = 7;
    static_assert(suts_StgChunk::RECORDS == TAG_MASK, "a full chunk has the greatest tag");

    std::uintptr_t tagged_ = suts_StgChunk::RECORDS;  // no chunk, and full: the next record needs a chunk
};

struct suts_StgBucket {
    suts_StgPosition newest;
    suts_StgPosition shipped;  // the newest record already handed to the shipper
};

// Contents of a recycled bucket that hold unshipped records still, from shipped (exclusive) to newest.
struct suts_StgRetired {
    suts_StgRetired* next;  // the older one
    suts_StgPosition newest;
    suts_StgPosition shipped;
};

// The five buckets of one key, a ring by bucket number, and what left the ring unshipped. Owned by the key's node of
// the key index, from the key's first record to the organizer's end. The organizer thread writes, the ship and query
// threads read; the ship thread also moves the buckets' shipped positions and empties the retired list under its read
// lock: no reader but it looks at these two.
class suts_StgBucketSet {
 public:
    static constexpr unsigned int BUCKETS = 5;

    suts_StgBucketSet() = default;
    suts_StgBucketSet(suts_StgBucketSet const&) = delete;
    suts_StgBucketSet& operator=(suts_StgBucketSet const&) = delete;
    ~suts_StgBucketSet();  // frees everything staged; no other thread may use the set any more

    // Appends a record to the bucket in the slot; its value's heap array now belongs to the bucket.
    void Place(unsigned long slot, suts_StgFileRecord* file, long time, sutl_RawBytefield const& value)
        SUTL_REQUIRES(lock);

    // Empties the bucket in the slot: what was shipped is freed, what was not goes to the retired list.
    void Recycle(unsigned long slot) SUTL_REQUIRES(lock);

    // Unlinks the newest retired contents; null when there are none. The caller owns them, with their records from
    // newest back to shipped and the chunks these lie in.
    [[nodiscard]] suts_StgRetired* TakeRetired() SUTL_REQUIRES_SHARED(lock) SUTL_NO_THREAD_SAFETY_ANALYSIS;

    [[nodiscard]] suts_StgBucket& Slot(unsigned long slot) SUTL_REQUIRES_SHARED(lock) { return buckets_[slot]; }

    // Frees the chunk and all older ones; not the values of their records.
    static void FreeChunks(suts_StgChunk* chunk);

    sutl_RwLock lock;  // guards everything below

 private:
    suts_StgBucket buckets_[BUCKETS] SUTL_GUARDED_BY(lock);     // slot = bucket number mod 5
    suts_StgRetired* retired_ SUTL_GUARDED_BY(lock) = nullptr;  // newest first
};
