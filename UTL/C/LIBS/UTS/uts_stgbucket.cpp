#include "uts_stgbucket.h"

#include <utility>

#include "sutl_assert.h"

namespace {

constexpr sutl_AssertSite SITE_ALIGNMENT = {"UTL/C/LIBS/UTS/uts_stgbucket.h", 126};

constexpr std::uintptr_t CHUNK_ALIGNMENT = 8;

// Releases the values from a position back to another, exclusive.
void ClearValues(suts_StgPosition from, suts_StgPosition const& to) {
    for (; from != to; from.StepBack()) from.Record().value.Clear();
}

}  // namespace

suts_StgBucketSet::~suts_StgBucketSet() {
    for (suts_StgBucket const& bucket : buckets_) {
        ClearValues(bucket.newest, suts_StgPosition());
        FreeChunks(bucket.newest.Chunk());
    }
    while (suts_StgRetired* const retired = TakeRetired()) {
        ClearValues(retired->newest, retired->shipped);
        FreeChunks(retired->newest.Chunk());
        delete retired;
    }
}

void suts_StgBucketSet::FreeChunks(suts_StgChunk* chunk) {
    while (chunk != nullptr) delete std::exchange(chunk, chunk->older);
}

void suts_StgBucketSet::Place(unsigned long slot, suts_StgFileRecord* file, long time, sutl_RawBytefield const& value) {
    suts_StgPosition& newest = buckets_[slot].newest;
    if (newest.ChunkIsFull()) {
        auto* const chunk = new suts_StgChunk;
        if (reinterpret_cast<std::uintptr_t>(chunk) % CHUNK_ALIGNMENT != 0) {
            sutl_AssertFailed(SITE_ALIGNMENT, "ERR: 'new' not aligned to 64 bit.");
        }
        chunk->older = newest.Chunk();
        newest = suts_StgPosition(chunk, 0);
    }
    newest.Chunk()->records[newest.InUse()] = {file, time, value};
    newest = suts_StgPosition(newest.Chunk(), newest.InUse() + 1);
}

void suts_StgBucketSet::Recycle(unsigned long slot) {
    suts_StgBucket& bucket = buckets_[slot];
    if (bucket.newest.IsEmpty()) return;
    ClearValues(bucket.shipped, suts_StgPosition());
    if (bucket.newest == bucket.shipped) {
        FreeChunks(bucket.newest.Chunk());
    } else {
        // The chunk of the shipped position holds unshipped records too; what is older than it ends here.
        if (!bucket.shipped.IsEmpty()) FreeChunks(std::exchange(bucket.shipped.Chunk()->older, nullptr));
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
