#include "uts_stgrotransfer.h"

#include "sutl_assert.h"

namespace {

// Operators know the checks of this queue by the places of its header.
constexpr char SITE_FILE[] = "UTL/C/LIBS/UTS/uts_stgrotransfer.h";
constexpr sutl_AssertSite SITE_QUEUE_SIZE = {SITE_FILE, 96};
constexpr sutl_AssertSite SITE_TRAIL = {SITE_FILE, 97};
constexpr sutl_AssertSite SITE_TRAIL_2 = {SITE_FILE, 118};
constexpr sutl_AssertSite SITE_READ_BACK = {SITE_FILE, 119};
constexpr sutl_AssertSite SITE_EMPTY = {SITE_FILE, 131};

// The oldest field that was kept there goes.
void DropFrom(sutl_ByteQueue& bytes, sutl_RawBytefield const& field) {
    if (field.length > sutl_RawBytefield::INLINE_BYTES_MAX) bytes.Drop(static_cast<std::size_t>(field.length));
}

}  // namespace

void suts_StgROTransfer::DropOldestFromMemory() {
    DropFrom(memoryBytes_, memoryQueue_.Oldest().first);
    DropFrom(memoryBytes_, memoryQueue_.Oldest().second);
    memoryQueue_.Dropend();
}

void suts_StgROTransfer::DropFromOldestRun() {
    if (--runs_.Oldest().count == 0) runs_.Getend();
}

void suts_StgROTransfer::Put(suts_StgFileRecord* file, long time, sutl_RawBytefield const& first,
                             sutl_RawBytefield const& second, suts_StgLogPosition const& position) {
    // A handle's address may come again for another file. Then everything counted in the former file was taken, its run
    // will only ever be dropped, and it does no harm that the new file's records lengthen it.
    if (runs_.size > 0 && runs_.Newest().file == file) {
        ++runs_.Newest().count;
    } else {
        runs_.Addfront({file, 1});
    }
    QEntry& newest = memoryQueue_.AddfrontInPlace();
    newest.file = file;
    newest.time = time;
    suts_KeepBytes(newest.first, first, memoryBytes_);
    suts_KeepBytes(newest.second, second, memoryBytes_);
    if (memoryQueue_.size > MEMORY_RECORDS_MAX) DropOldestFromMemory();
    PositionOf(put_) = position;
    ++put_;
    ++queued_;
    ++trail_;
    // A backlog begins: its oldest record is the oldest whose position is still known.
    if (queued_ == TRAIL_RECORDS_MAX) backlogStart_ = PositionOf(put_ - TRAIL_RECORDS_MAX);
    if (queued_ <= MEMORY_RECORDS_MAX && trail_ >= TRAIL_RECORDS_MAX) AdvanceTrail();
}

// Everything queued is in memory, so the reader's place moves on by counting: nothing has to be read.
void suts_StgROTransfer::AdvanceTrail() {
    if (queued_ != memoryQueue_.size) sutl_AssertFailed(SITE_QUEUE_SIZE, "ERROR, queued/qsize mismatch.");
    if (trail_ != TRAIL_RECORDS_MAX) sutl_AssertFailed(SITE_TRAIL, "ERROR, trail mismatch.");
    DropFromOldestRun();
    --trail_;
}

void suts_StgROTransfer::Take(QEntry& out, sutl_ByteQueue& kept) {
    if (queued_ < 1) sutl_AssertFailed(SITE_EMPTY, "ERROR, getting from empty queue");
    if (queued_ > MEMORY_RECORDS_MAX) [[unlikely]] {
        static_cast<void>(TakeFromLog(&out, 1));
        ReadTaken(&out, 1, kept);
        return;
    }
    if (reading_) [[unlikely]] {
        trailReader_.Detach();
        reading_ = false;
    }
    QEntry const& oldest = memoryQueue_.Oldest();
    out.file = oldest.file;
    out.time = oldest.time;
    suts_KeepBytes(out.first, oldest.first, kept);
    suts_KeepBytes(out.second, oldest.second, kept);
    DropOldestFromMemory();
    --queued_;
}

int suts_StgROTransfer::TakeFromLog(QEntry* out, int countMax) {
    if (!reading_) readFrom_ = backlogStart_;
    int count = 0;
    for (; count < countMax && queued_ > MEMORY_RECORDS_MAX; ++count) {
        sutl_assertfunc(trail_ > MEMORY_RECORDS_MAX, SITE_TRAIL_2.file, SITE_TRAIL_2.line, "ERROR, trail mismatch 2",
                        nullptr);
        --queued_;
        --trail_;
        out[count].file = runs_.Oldest().file;
        DropFromOldestRun();
    }
    return count;
}

void suts_StgROTransfer::ReadTaken(QEntry* out, int count, sutl_ByteQueue& kept) {
    for (int i = 0; i < count; ++i) {
        suts_StgEntry entry;
        bool const placed = reading_ || trailReader_.Seek(readFrom_);
        if (!placed || trailReader_.QNext(entry) != 0) {
            sutl_AssertFailed(SITE_READ_BACK, "ERROR, recovery read failed!\n");
        }
        reading_ = true;
        out[i].time = entry.time;
        suts_KeepBytes(out[i].first, entry.key, kept);
        suts_KeepBytes(out[i].second, entry.value, kept);
    }
}
