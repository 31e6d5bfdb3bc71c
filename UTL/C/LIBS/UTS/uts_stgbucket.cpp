#include "uts_stgbucket.h"

#include <algorithm>
#include <functional>
#include <new>
#include <utility>

#include "sutl_assert.h"

namespace {

constexpr sutl_AssertSite SITE_ALIGNMENT = {"UTL/C/LIBS/UTS/uts_stgbucket.h", 126};

constexpr std::uintptr_t CHUNK_ALIGNMENT = 8;
constexpr std::size_t CACHE_LINE_BYTES = 64;
constexpr std::size_t PREFETCH_BYTES_MAX = 1024;
constexpr unsigned int PREFETCH_CHUNKS = 3;  // how far ahead of its use a chunk is asked for

// Has memory that is about to be written on its way to the processor's cache.
void Prefetch(void const* memory, std::size_t bytes) {
    for (std::size_t at = 0; at < std::min(bytes, PREFETCH_BYTES_MAX); at += CACHE_LINE_BYTES) {
        __builtin_prefetch(static_cast<unsigned char const*>(memory) + at, 1);
    }
}

}  // namespace

// Chunk store ---------------------------------------------------------------------------------------------------------

// The head of a slab. The places of the chunks that were given back follow, newest last, and then the chunks; those
// from carvedBytes on were never used.
struct suts_StgChunkStore::Slab {
    Slab* next;  // in the list of all slabs
    Slab* prev;
    Slab* nextAvailable;  // in the list of its room's slabs that have a chunk to give
    Slab* prevAvailable;
    unsigned int chunkBytes;
    unsigned int roomClass;
    unsigned int carvedBytes;
    unsigned int inUse;      // chunks
    unsigned int idleCount;  // chunks given back

    static constexpr std::size_t PLACE_BYTES = 16;  // places count in these, from the slab's start
    static_assert(SLAB_BYTES / PLACE_BYTES <= 1UL << 16 && sizeof(suts_StgChunk) % PLACE_BYTES == 0);

    [[nodiscard]] unsigned char* Begin() { return reinterpret_cast<unsigned char*>(this); }
    [[nodiscard]] unsigned short* Idle() { return reinterpret_cast<unsigned short*>(this + 1); }
    [[nodiscard]] void* IdleChunk(unsigned int index) { return Begin() + Idle()[index] * PLACE_BYTES; }
    [[nodiscard]] static std::size_t HeadBytes(std::size_t chunkBytes) {
        std::size_t const bytes = sizeof(Slab) + SLAB_BYTES / chunkBytes * sizeof(unsigned short);
        return (bytes + CACHE_LINE_BYTES - 1) / CACHE_LINE_BYTES * CACHE_LINE_BYTES;
    }
    [[nodiscard]] bool IsFull() const { return idleCount == 0 && carvedBytes + chunkBytes > SLAB_BYTES; }
    static Slab* Of(suts_StgChunk* chunk) {
        // NOLINTNEXTLINE(performance-no-int-to-ptr): slabs are aligned to their size.
        return reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(chunk) & ~(SLAB_BYTES - 1));
    }
};

void suts_StgChunkStore::FreeSlab(Slab* slab) { ::operator delete(slab, std::align_val_t(SLAB_BYTES)); }

suts_StgChunkStore::~suts_StgChunkStore() {
    while (all_ != nullptr) FreeSlab(std::exchange(all_, all_->next));
    for (Slab* const slab : reserve_) FreeSlab(slab);
}

// The values of a schema are all of one length or vary around a mean: then one more than a chunk holds should fit, so
// that few chunks are too small. Many buckets hold a record or two, so the first chunk of each has room for these only.
long suts_StgChunkStore::ClassFor(int valueBytes, bool first) {
    if (valueBytes <= sutl_RawBytefield::INLINE_BYTES_MAX) return 0;
    if (meanBytes_ == 0) meanBytes_ = static_cast<long>(valueBytes) << MEAN_SHIFT;
    long const mean = meanBytes_ >> MEAN_SHIFT;
    lengthsDiffer_ = lengthsDiffer_ || valueBytes != mean;
    meanBytes_ += valueBytes - mean;
    long const step = lengthsDiffer_ ? DIFFERING_STEPS * ROOM_STEP_BYTES : ROOM_STEP_BYTES;
    long const values = first ? FIRST_VALUES : suts_StgChunk::RECORDS + (lengthsDiffer_ ? 1 : 0);
    long const bytes = values * mean;
    return std::min((bytes + step - 1) / step * step / ROOM_STEP_BYTES, CLASSES - 1);
}

suts_StgChunkStore::Slab* suts_StgChunkStore::NewSlab(std::size_t roomClass) {
    void* memory;
    if (reserve_.empty()) {
        memory = ::operator new(SLAB_BYTES, std::align_val_t(SLAB_BYTES));
    } else {
        memory = reserve_.back();
        reserve_.pop_back();
    }
    auto const chunkBytes = static_cast<unsigned int>(sizeof(suts_StgChunk) + roomClass * ROOM_STEP_BYTES);
    auto* const slab = new (memory) Slab{};
    slab->next = all_;
    slab->chunkBytes = chunkBytes;
    slab->roomClass = static_cast<unsigned int>(roomClass);
    slab->carvedBytes = static_cast<unsigned int>(Slab::HeadBytes(chunkBytes));
    if (all_ != nullptr) all_->prev = slab;
    all_ = slab;
    return slab;
}

void suts_StgChunkStore::LinkAvailable(Slab* slab) {
    Slab*& first = available_[slab->roomClass];
    slab->nextAvailable = first;
    slab->prevAvailable = nullptr;
    if (first != nullptr) first->prevAvailable = slab;
    first = slab;
}

void suts_StgChunkStore::UnlinkAvailable(Slab* slab) {
    (slab->prevAvailable != nullptr ? slab->prevAvailable->nextAvailable : available_[slab->roomClass]) =
        slab->nextAvailable;
    if (slab->nextAvailable != nullptr) slab->nextAvailable->prevAvailable = slab->prevAvailable;
}

void suts_StgChunkStore::Collect() {
    suts_StgChunk* returned = returned_.exchange(nullptr, std::memory_order_acquire);
    while (returned != nullptr) Return(std::exchange(returned, returned->older));
}

suts_StgChunk* suts_StgChunkStore::Take(int valueBytes, bool first) {
    auto const roomClass = static_cast<std::size_t>(ClassFor(valueBytes, first));
    if (available_[roomClass] == nullptr) {
        Collect();
        if (available_[roomClass] == nullptr) LinkAvailable(NewSlab(roomClass));
    }
    Slab& slab = *available_[roomClass];
    suts_StgChunk* chunk;
    if (slab.idleCount > 0) {
        chunk = static_cast<suts_StgChunk*>(slab.IdleChunk(--slab.idleCount));
        if (slab.idleCount >= PREFETCH_CHUNKS) {
            Prefetch(slab.IdleChunk(slab.idleCount - PREFETCH_CHUNKS), slab.chunkBytes);
        }
    } else {
        chunk = reinterpret_cast<suts_StgChunk*>(slab.Begin() + slab.carvedBytes);
        if (reinterpret_cast<std::uintptr_t>(chunk) % CHUNK_ALIGNMENT != 0) {
            sutl_AssertFailed(SITE_ALIGNMENT, "ERR: 'new' not aligned to 64 bit.");
        }
        slab.carvedBytes += slab.chunkBytes;
    }
    ++slab.inUse;
    if (slab.IsFull()) UnlinkAvailable(&slab);
    chunk->roomBytes = static_cast<unsigned short>(roomClass * ROOM_STEP_BYTES);
    chunk->usedBytes = 0;
    chunk->arrays = 0;
    return chunk;
}

void suts_StgChunkStore::Return(suts_StgChunk* chunk) {
    Slab& slab = *Slab::Of(chunk);
    if (slab.IsFull()) LinkAvailable(&slab);
    std::ptrdiff_t const offset = reinterpret_cast<unsigned char*>(chunk) - slab.Begin();
    slab.Idle()[slab.idleCount++] = static_cast<unsigned short>(offset / static_cast<long>(Slab::PLACE_BYTES));
    if (--slab.inUse > 0) return;
    UnlinkAvailable(&slab);
    (slab.prev != nullptr ? slab.prev->next : all_) = slab.next;
    if (slab.next != nullptr) slab.next->prev = slab.prev;
    if (reserve_.size() < RESERVE_SLABS) {
        reserve_.push_back(&slab);
    } else {
        FreeSlab(&slab);
    }
}

sutl_RawBytefield suts_StgChunkStore::KeepInArray(suts_StgChunk& chunk, sutl_RawBytefield const& value) {
    sutl_RawBytefield array;
    array.Assign(value.Data(), value.length);
    ++chunk.arrays;
    arrays_.fetch_add(1, std::memory_order_relaxed);
    return array;
}

// Frees the heap arrays among the values of a chunk with so many records.
void suts_StgChunkStore::FreeArraysOf(suts_StgChunk& chunk, unsigned int records) {
    std::less<unsigned char const*> const before;
    unsigned char const* const room = chunk.Room();
    for (unsigned int i = 0; i < records && chunk.arrays > 0; ++i) {
        sutl_RawBytefield& value = chunk.records[i].value;
        if (value.length <= sutl_RawBytefield::INLINE_BYTES_MAX) continue;
        bool const inRoom = !before(value.Data(), room) && before(value.Data(), room + chunk.usedBytes);
        if (inRoom) continue;
        value.Clear();
        --chunk.arrays;
        arrays_.fetch_sub(1, std::memory_order_relaxed);
    }
}

void suts_StgChunkStore::FreeArrays(suts_StgPosition const& newest) {
    unsigned int records = newest.InUse();
    for (suts_StgChunk* chunk = newest.Chunk(); chunk != nullptr; chunk = chunk->older) {
        FreeArraysOf(*chunk, records);
        records = suts_StgChunk::RECORDS;
    }
}

void suts_StgChunkStore::Give(suts_StgPosition const& newest) {
    unsigned int records = newest.InUse();
    for (suts_StgChunk* chunk = newest.Chunk(); chunk != nullptr;) {
        if (chunk->arrays > 0) FreeArraysOf(*chunk, records);
        records = suts_StgChunk::RECORDS;
        Return(std::exchange(chunk, chunk->older));
    }
}

void suts_StgChunkStore::GiveFromShipThread(suts_StgPosition const& newest) {
    if (HoldsArrays()) FreeArrays(newest);
    for (suts_StgChunk* chunk = newest.Chunk(); chunk != nullptr;) {
        suts_StgChunk* const older = chunk->older;
        // The taker takes all at once, so the head that is compared cannot have come again for another chain.
        chunk->older = returned_.load(std::memory_order_relaxed);
        while (!returned_.compare_exchange_weak(chunk->older, chunk, std::memory_order_release)) {}
        chunk = older;
    }
}

// Bucket set ----------------------------------------------------------------------------------------------------------

suts_StgBucketSet::~suts_StgBucketSet() {
    while (suts_StgRetired* const retired = TakeRetired()) delete retired;
}

void suts_StgBucketSet::FreeArrays(suts_StgChunkStore& chunks) {
    for (suts_StgBucket const& bucket : buckets_) chunks.FreeArrays(bucket.newest);
    for (suts_StgRetired const* retired = retired_; retired != nullptr; retired = retired->next) {
        chunks.FreeArrays(retired->newest);
    }
}

void suts_StgBucketSet::Place(unsigned long slot, suts_StgFileRecord* file, long time, sutl_RawBytefield const& value,
                              suts_StgChunkStore& chunks) {
    suts_StgPosition& newest = buckets_[slot].newest;
    if (newest.ChunkIsFull()) {
        suts_StgChunk* const chunk = chunks.Take(value.length, newest.IsEmpty());
        chunk->older = newest.Chunk();
        newest.Publish(suts_StgPosition(chunk, 0));
    }
    suts_StgChunk& chunk = *newest.Chunk();
    suts_StgBucketRecord& record = chunk.records[newest.InUse()];
    record.file = file;
    record.time = time;
    if (value.length <= sutl_RawBytefield::INLINE_BYTES_MAX) {
        record.value = value;
    } else if (value.length <= chunk.roomBytes - chunk.usedBytes) {
        unsigned char* const bytes = chunk.Room() + chunk.usedBytes;
        memcpy(bytes, value.Data(), static_cast<unsigned int>(value.length));
        chunk.usedBytes = static_cast<unsigned short>(chunk.usedBytes + value.length);
        record.value.Share(bytes, value.length);
    } else {
        record.value = chunks.KeepInArray(chunk, value);
    }
    newest.Publish(suts_StgPosition(&chunk, newest.InUse() + 1));
}

void suts_StgBucketSet::Recycle(unsigned long slot, suts_StgChunkStore& chunks) {
    suts_StgBucket& bucket = buckets_[slot];
    if (bucket.newest.IsEmpty()) return;
    lateSlots_ &= ~(1U << slot);
    if (bucket.newest == bucket.shipped) {
        chunks.Give(bucket.newest);
    } else {
        // The chunk of the shipped position holds unshipped records too; what is older than it ends here.
        if (!bucket.shipped.IsEmpty()) {
            suts_StgChunk* const older = std::exchange(bucket.shipped.Chunk()->older, nullptr);
            if (older != nullptr) chunks.Give(suts_StgPosition(older, suts_StgChunk::RECORDS));
        }
        retired_ = new suts_StgRetired{retired_, bucket.newest, bucket.shipped};
    }
    bucket.newest.Publish({});
    bucket.shipped = {};
}

suts_StgRetired* suts_StgBucketSet::TakeRetired() {
    // Written under the read lock: the ship thread is the only one to look at the list while readers are admitted.
    suts_StgRetired* const retired = retired_;
    if (retired != nullptr) retired_ = retired->next;
    return retired;
}
