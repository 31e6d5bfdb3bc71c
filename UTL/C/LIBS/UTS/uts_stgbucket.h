// Time buckets: what the organizer keeps of one key.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

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
    // Have memory on its way to the processor's cache: the chunk's head; and, with the head there, where the next
    // record and its value go.
    void PrefetchHead() const { __builtin_prefetch(Chunk(), 1); }
    void PrefetchNext() const {
        if (ChunkIsFull()) return;
        __builtin_prefetch(&Chunk()->records[InUse()], 1);
        __builtin_prefetch(Chunk()->Room() + Chunk()->usedBytes, 1);
    }
    void PrefetchOlder() const {
        constexpr std::size_t CACHE_LINE_BYTES = 64;
        if (Chunk()->older == nullptr) return;
        auto const* const older = reinterpret_cast<unsigned char const*>(Chunk()->older);
        for (std::size_t at = 0; at < sizeof(suts_StgChunk); at += CACHE_LINE_BYTES) __builtin_prefetch(older + at);
    }
    bool operator==(suts_StgPosition const&) const = default;

    // Assignment for a place that others look at without a lock, and what they see there: for a prefetch alone, since
    // the chunk may be freed at any time.
    void Publish(suts_StgPosition const& position) {
        std::atomic_ref(tagged_).store(position.tagged_, std::memory_order_relaxed);
    }
    void PrefetchUnlocked() {
        std::uintptr_t const tagged = std::atomic_ref(tagged_).load(std::memory_order_relaxed);
        // NOLINTBEGIN(performance-no-int-to-ptr): as above.
        __builtin_prefetch(reinterpret_cast<void const*>(tagged & ~TAG_MASK));
        __builtin_prefetch(reinterpret_cast<void const*>((tagged & ~TAG_MASK) + HEAD_BYTES +
                                                         (tagged & TAG_MASK) * sizeof(suts_StgBucketRecord) - 1));
        // NOLINTEND(performance-no-int-to-ptr)
    }

 private:
    static constexpr std::uintptr_t TAG_MASK = 7;
    static constexpr std::size_t HEAD_BYTES = sizeof(suts_StgChunk) - sizeof(suts_StgChunk::records);
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

// Where chunks come from and go to: slabs of memory, each for chunks of one room. A slab without chunks in use is
// freed, but for a reserve. Owned by the organizer, whose thread takes; that thread and the ship thread
// give back. What is still in use goes with the store, but for heap arrays of values.
class suts_StgChunkStore {
 public:
    suts_StgChunkStore() = default;
    suts_StgChunkStore(suts_StgChunkStore const&) = delete;
    suts_StgChunkStore& operator=(suts_StgChunkStore const&) = delete;
    ~suts_StgChunkStore();

    // A chunk without records, the first of its bucket or not, with room for values as long as this one and those of
    // late. From the organizer thread, as Give and Collect.
    [[nodiscard]] suts_StgChunk* Take(int valueBytes, bool first);
    // Frees the records from a position to the bucket's beginning, with their chunks.
    void Give(suts_StgPosition const& newest);
    // The same from the ship thread. The memory can be used again from the next Collect on.
    void GiveFromShipThread(suts_StgPosition const& newest);
    void Collect();

    // A heap array for a value that finds no room in the chunk. From the organizer thread.
    [[nodiscard]] sutl_RawBytefield KeepInArray(suts_StgChunk& chunk, sutl_RawBytefield const& value);
    // Frees the heap arrays among the values of such records; nothing else.
    void FreeArrays(suts_StgPosition const& newest);
    [[nodiscard]] bool HoldsArrays() const { return arrays_.load(std::memory_order_relaxed) > 0; }

 private:
    static constexpr long ROOM_STEP_BYTES = 32;  // rooms are multiples of it, and of this many where lengths differ
    static constexpr long DIFFERING_STEPS = 4;
    static constexpr long FIRST_VALUES = 2;  // that find room in the first chunk of a bucket
    static constexpr long CLASSES = 256;     // by room in steps: none is greater
    static constexpr std::size_t SLAB_BYTES = 1UL << 18;
    static constexpr std::size_t RESERVE_SLABS = 64;
    static constexpr int MEAN_SHIFT = 8;  // the mean of the lengths follows each by a 256th

    struct Slab;

    [[nodiscard]] long ClassFor(int valueBytes, bool first);
    [[nodiscard]] Slab* NewSlab(std::size_t roomClass);
    void Return(suts_StgChunk* chunk);
    static void FreeSlab(Slab* slab);
    void FreeArraysOf(suts_StgChunk& chunk, unsigned int records);
    void LinkAvailable(Slab* slab);
    void UnlinkAvailable(Slab* slab);

    // Organizer thread only.
    std::array<Slab*, CLASSES> available_ = {};  // by room: slabs that have a chunk to give
    std::vector<Slab*> reserve_;                 // slabs without chunks in use, linked nowhere else
    Slab* all_ = nullptr;                        // every slab but those in reserve
    long meanBytes_ = 0;          // of the values that made a chunk necessary, times 2^MEAN_SHIFT; 0 before the first
    bool lengthsDiffer_ = false;  // of these

    std::atomic<suts_StgChunk*> returned_{nullptr};  // given back by the ship thread; TShp adds, TOrg takes all
    std::atomic<long> arrays_{0};                    // heap arrays of values; TOrg and TShp
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
    ~suts_StgBucketSet();  // what is staged goes with the chunk store; no other thread may use the set any more

    // Appends a record to the bucket in the slot, with a copy of the value's bytes.
    void Place(unsigned long slot, suts_StgFileRecord* file, long time, sutl_RawBytefield const& value,
               suts_StgChunkStore& chunks) SUTL_REQUIRES(lock);

    // Tells that the bucket in the slot gets a record older than its times.
    void NoteLate(unsigned long slot) SUTL_REQUIRES(lock) { lateSlots_ |= 1U << slot; }
    [[nodiscard]] bool HoldsLate(unsigned long slot) const SUTL_REQUIRES_SHARED(lock) {
        return (lateSlots_ & (1U << slot)) != 0;
    }

    // Empties the bucket in the slot: what was shipped is freed, what was not goes to the retired list.
    void Recycle(unsigned long slot, suts_StgChunkStore& chunks) SUTL_REQUIRES(lock);

    // Frees what would not go with the chunk store. No other thread may use the set any more.
    void FreeArrays(suts_StgChunkStore& chunks) SUTL_NO_THREAD_SAFETY_ANALYSIS;

    // Unlinks the newest retired contents; null when there are none. The caller owns them, with all of their chunks.
    [[nodiscard]] suts_StgRetired* TakeRetired() SUTL_REQUIRES_SHARED(lock) SUTL_NO_THREAD_SAFETY_ANALYSIS;

    [[nodiscard]] suts_StgBucket& Slot(unsigned long slot) SUTL_REQUIRES_SHARED(lock) { return buckets_[slot]; }

    // Asks for the newest records in a slot ahead of their use. From any thread, without the lock.
    void PrefetchNewest(unsigned long slot) SUTL_NO_THREAD_SAFETY_ANALYSIS { buckets_[slot].newest.PrefetchUnlocked(); }

    // The newest position in a slot, for the organizer thread, which needs no lock to read what it alone writes.
    [[nodiscard]] suts_StgPosition NewestAsWriter(unsigned long slot) const SUTL_NO_THREAD_SAFETY_ANALYSIS {
        return buckets_[slot].newest;
    }

    sutl_RwLock lock;  // guards everything below

 private:
    suts_StgBucket buckets_[BUCKETS] SUTL_GUARDED_BY(lock);     // slot = bucket number mod 5
    suts_StgRetired* retired_ SUTL_GUARDED_BY(lock) = nullptr;  // newest first
    unsigned int lateSlots_ SUTL_GUARDED_BY(lock) = 0;          // a bit per slot
};
