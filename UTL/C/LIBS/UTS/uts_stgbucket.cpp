#include "uts_stgbucket.h"

#include <algorithm>
#include <new>
#include <utility>

#include "sutl_assert.h"

namespace {

constexpr sutl_AssertSite SITE_ALIGNMENT = {"UTL/C/LIBS/UTS/uts_stgbucket.h", 126};

constexpr std::uintptr_t CHUNK_ALIGNMENT = 8;

}  // namespace

// Chunk store ---------------------------------------------------------------------------------------------------------

suts_StgChunkStore::~suts_StgChunkStore() {
    for (suts_StgChunk* chunk : idle_) {
        while (chunk != nullptr) ::operator delete(std::exchange(chunk, chunk->older));
    }
    suts_StgChunk* chunk = returned_.load(std::memory_order_acquire);
    while (chunk != nullptr) ::operator delete(std::exchange(chunk, chunk->older));
}

// The values of a schema are all of one length or vary around a mean: then one more than a chunk holds should fit, so
// that few chunks are too small.
long suts_StgChunkStore::ClassFor(int valueBytes) {
    if (valueBytes <= sutl_RawBytefield::INLINE_BYTES_MAX) return 0;
    if (meanBytes_ == 0) meanBytes_ = static_cast<long>(valueBytes) << MEAN_SHIFT;
    long const mean = meanBytes_ >> MEAN_SHIFT;
    lengthsDiffer_ = lengthsDiffer_ || valueBytes != mean;
    meanBytes_ += valueBytes - mean;
    long const step = lengthsDiffer_ ? DIFFERING_STEPS * ROOM_STEP_BYTES : ROOM_STEP_BYTES;
    long const bytes = (suts_StgChunk::RECORDS + (lengthsDiffer_ ? 1 : 0)) * mean;
    return std::min((bytes + step - 1) / step * step / ROOM_STEP_BYTES, CLASSES - 1);
}

suts_StgChunk* suts_StgChunkStore::Take(int valueBytes) {
    auto const roomClass = static_cast<std::size_t>(ClassFor(valueBytes));
    if (idle_[roomClass] == nullptr) {
        suts_StgChunk* returned = returned_.exchange(nullptr, std::memory_order_acquire);
        while (returned != nullptr) Keep(std::exchange(returned, returned->older));
    }
    suts_StgChunk* chunk = idle_[roomClass];
    std::size_t const roomBytes = roomClass * ROOM_STEP_BYTES;
    if (chunk != nullptr) {
        idle_[roomClass] = chunk->older;
        __builtin_prefetch(chunk->older, 1);  // the next one to be taken
        idleBytes_ -= sizeof *chunk + roomBytes;
    } else {
        chunk = static_cast<suts_StgChunk*>(::operator new(sizeof *chunk + roomBytes));
        if (reinterpret_cast<std::uintptr_t>(chunk) % CHUNK_ALIGNMENT != 0) {
            sutl_AssertFailed(SITE_ALIGNMENT, "ERR: 'new' not aligned to 64 bit.");
        }
        chunk->roomBytes = static_cast<unsigned short>(roomBytes);
    }
    chunk->usedBytes = 0;
    chunk->arrays = 0;
    return chunk;
}

void suts_StgChunkStore::Keep(suts_StgChunk* chunk) {
    std::size_t const bytes = sizeof(suts_StgChunk) + chunk->roomBytes;
    if (idleBytes_ + bytes > IDLE_BYTES_MAX) {
        ::operator delete(chunk);
        return;
    }
    idleBytes_ += bytes;
    chunk->older = std::exchange(idle_[chunk->roomBytes / ROOM_STEP_BYTES], chunk);
}

void suts_StgChunkStore::FreeArrays(suts_StgPosition const& newest) {
    unsigned int inUse = newest.InUse();
    for (suts_StgChunk* chunk = newest.Chunk(); chunk != nullptr; chunk = chunk->older) {
        std::less<unsigned char const*> const before;
        for (unsigned int i = 0; i < inUse && chunk->arrays > 0; ++i) {
            sutl_RawBytefield& value = chunk->records[i].value;
            if (value.length <= sutl_RawBytefield::INLINE_BYTES_MAX) continue;
            bool const inRoom =
                !before(value.Data(), chunk->Room()) && before(value.Data(), chunk->Room() + chunk->usedBytes);
            if (inRoom) continue;
            value.Clear();
            --chunk->arrays;
        }
        inUse = suts_StgChunk::RECORDS;
    }
}

void suts_StgChunkStore::Give(suts_StgPosition const& newest) {
    FreeArrays(newest);
    for (suts_StgChunk* chunk = newest.Chunk(); chunk != nullptr;) Keep(std::exchange(chunk, chunk->older));
}

void suts_StgChunkStore::GiveFromShipThread(suts_StgPosition const& newest) {
    FreeArrays(newest);
    for (suts_StgChunk* chunk = newest.Chunk(); chunk != nullptr;) {
        suts_StgChunk* const older = chunk->older;
        // The taker takes all at once, so the head that is compared cannot have come again for another chain.
        chunk->older = returned_.load(std::memory_order_relaxed);
        while (!returned_.compare_exchange_weak(chunk->older, chunk, std::memory_order_release)) {}
        chunk = older;
    }
}

void suts_StgChunkStore::Free(suts_StgPosition const& newest) {
    FreeArrays(newest);
    for (suts_StgChunk* chunk = newest.Chunk(); chunk != nullptr;) {
        ::operator delete(std::exchange(chunk, chunk->older));
    }
}

// Bucket set ----------------------------------------------------------------------------------------------------------

suts_StgBucketSet::~suts_StgBucketSet() {
    for (suts_StgBucket const& bucket : buckets_) suts_StgChunkStore::Free(bucket.newest);
    while (suts_StgRetired* const retired = TakeRetired()) {
        suts_StgChunkStore::Free(retired->newest);
        delete retired;
    }
}

void suts_StgBucketSet::Place(unsigned long slot, suts_StgFileRecord* file, long time, sutl_RawBytefield const& value,
                              suts_StgChunkStore& chunks) {
    suts_StgPosition& newest = buckets_[slot].newest;
    if (newest.ChunkIsFull()) {
        suts_StgChunk* const chunk = chunks.Take(value.length);
        chunk->older = newest.Chunk();
        newest = suts_StgPosition(chunk, 0);
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
        record.value = sutl_RawBytefield::Shared(bytes, value.length);
    } else {
        record.value.Assign(value.Data(), value.length);
        ++chunk.arrays;
    }
    newest = suts_StgPosition(&chunk, newest.InUse() + 1);
}

void suts_StgBucketSet::Recycle(unsigned long slot, suts_StgChunkStore& chunks) {
    suts_StgBucket& bucket = buckets_[slot];
    if (bucket.newest.IsEmpty()) return;
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
    bucket = {};
}

suts_StgRetired* suts_StgBucketSet::TakeRetired() {
    // Written under the read lock: the ship thread is the only one to look at the list while readers are admitted.
    suts_StgRetired* const retired = retired_;
    if (retired != nullptr) retired_ = retired->next;
    return retired;
}
