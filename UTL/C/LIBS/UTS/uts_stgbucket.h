// Time buckets: what the organizer keeps of one key.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "sutl_locks.h"
#include "sutl_rawbytefield.h"

struct suts_StgFileRecord;

// A staged record. Its key lives in the key index.
struct suts_StgBucketRecord {
    suts_StgFileRecord* file;  // recovery handle
    long time;                 // microseconds
    sutl_RawBytefield value;   // its bytes lie in the record's chunk, or in a heap array that the chunk owns
};

// Records of one bucket in arrival order, filled from index 0. Room for the bytes of their values follows the chunk in
// the same piece of memory; a value that finds none there gets a heap array.
struct suts_StgChunk {
    static constexpr unsigned int RECORDS = 7;

    suts_StgChunk* older;      // the next older chunk of the bucket; null for the oldest
    unsigned short roomBytes;  // for values
    unsigned short usedBytes;  // of these
    unsigned short arrays;     // records whose values lie in heap arrays
    suts_StgBucketRecord records[RECORDS];

    [[nodiscard]] unsigned char* Room() { return reinterpret_cast<unsigned char*>(this + 1); }
};
static_assert(sizeof(suts_StgChunk) % alignof(std::max_align_t) == 0);

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
    // Has the place where the next record goes, or that of the last one, on its way to the processor's cache.
    void PrefetchNext() const {
        if (!IsEmpty()) __builtin_prefetch(&Chunk()->records[InUse() % suts_StgChunk::RECORDS], 1);
    }
    void PrefetchLast() const { __builtin_prefetch(Chunk()); }
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

// Where chunks come from and go to: what is given back is handed out again. Owned by the organizer, whose thread takes;
// that thread and the ship thread give back.
class suts_StgChunkStore {
 public:
    suts_StgChunkStore() = default;
    suts_StgChunkStore(suts_StgChunkStore const&) = delete;
    suts_StgChunkStore& operator=(suts_StgChunkStore const&) = delete;
    ~suts_StgChunkStore();

    // A chunk without records, with room for values as long as this one and those of late. From the organizer thread,
    // as Give.
    [[nodiscard]] suts_StgChunk* Take(int valueBytes);
    // Frees the records from a position to the bucket's beginning, with their chunks.
    void Give(suts_StgPosition const& newest);
    // The same from the ship thread.
    void GiveFromShipThread(suts_StgPosition const& newest);

    // Frees them for good, without a store.
    static void Free(suts_StgPosition const& newest);

 private:
    static constexpr long ROOM_STEP_BYTES = 32;  // rooms are multiples of it, and of this many where lengths differ
    static constexpr long DIFFERING_STEPS = 4;
    static constexpr long CLASSES = 256;  // by room in steps: none is greater
    static constexpr std::size_t IDLE_BYTES_MAX = 64UL << 20;
    static constexpr int MEAN_SHIFT = 8;  // the mean of the lengths follows each by a 256th

    static void FreeArrays(suts_StgPosition const& newest);
    [[nodiscard]] long ClassFor(int valueBytes);
    void Keep(suts_StgChunk* chunk);

    // Organizer thread only.
    std::array<suts_StgChunk*, CLASSES> idle_ = {};  // by room
    std::size_t idleBytes_ = 0;                      // in them
    long meanBytes_ = 0;          // of the values that made a chunk necessary, times 2^MEAN_SHIFT; 0 before the first
    bool lengthsDiffer_ = false;  // of these

    std::atomic<suts_StgChunk*> returned_{nullptr};  // given back by the ship thread; TShp adds, TOrg takes all
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

    // Appends a record to the bucket in the slot, with a copy of the value's bytes.
    void Place(unsigned long slot, suts_StgFileRecord* file, long time, sutl_RawBytefield const& value,
               suts_StgChunkStore& chunks) SUTL_REQUIRES(lock);

    // Empties the bucket in the slot: what was shipped is freed, what was not goes to the retired list.
    void Recycle(unsigned long slot, suts_StgChunkStore& chunks) SUTL_REQUIRES(lock);

    // Unlinks the newest retired contents; null when there are none. The caller owns them, with all of their chunks.
    [[nodiscard]] suts_StgRetired* TakeRetired() SUTL_REQUIRES_SHARED(lock) SUTL_NO_THREAD_SAFETY_ANALYSIS;

    [[nodiscard]] suts_StgBucket& Slot(unsigned long slot) SUTL_REQUIRES_SHARED(lock) { return buckets_[slot]; }

    // The newest position in a slot, for the organizer thread, which needs no lock to read what it alone writes.
    [[nodiscard]] suts_StgPosition NewestAsWriter(unsigned long slot) const SUTL_NO_THREAD_SAFETY_ANALYSIS {
        return buckets_[slot].newest;
    }

    sutl_RwLock lock;  // guards everything below

 private:
    suts_StgBucket buckets_[BUCKETS] SUTL_GUARDED_BY(lock);     // slot = bucket number mod 5
    suts_StgRetired* retired_ SUTL_GUARDED_BY(lock) = nullptr;  // newest first
};
