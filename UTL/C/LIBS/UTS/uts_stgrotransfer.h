// The record transfer queue, from the feeding thread to the organizer.
#pragma once

#include <array>

#include "sutl_bytequeue.h"
#include "sutl_dqueue.h"
#include "sutl_rawbytefield.h"
#include "uts_stgrecovery.h"

// Carries records in arrival order. At most 1000 stay in memory; when the organizer is further behind, older ones are
// dropped here and read back from the recovery log, which holds every record already. Owned by suts_StgOrganizer, whose
// transfer mutex the caller holds in every call but one; one thread puts, one takes. No call fails: counts that
// disagree, and a log that cannot be read back, are assertions.
//
// The trail is the part of the log that follows the reader's place. While at most 1000 records are queued that place is
// only counted, at most 1001 records behind the writer; beyond, it is the oldest queued record, and a reader stands
// there.
class suts_StgROTransfer {
 public:
    static constexpr long MEMORY_RECORDS_MAX = 1000;
    static constexpr long TRAIL_RECORDS_MAX = MEMORY_RECORDS_MAX + 1;
    static constexpr long END_TIME = -1;  // the end marker's time; its file is null

    // One record in flight. The byte fields share their bytes with whoever keeps them for the holder of the entry.
    struct QEntry {
        suts_StgFileRecord* file;  // recovery handle; null in the end marker
        long time;                 // microseconds; negative only in the end marker
        sutl_RawBytefield first;   // key, stored form
        sutl_RawBytefield second;  // value, stored form

        [[nodiscard]] bool IsEndMarker() const { return file == nullptr && time < 0; }
    };

    // Consecutive records of the trail that are counted in one file.
    struct PEntry {
        suts_StgFileRecord* file;  // null for the end marker
        long count;                // records
    };

    suts_StgROTransfer(suts_tsspec const& spec, suts_StgRecovery& recovery)
        : trailReader_(spec, recovery), memoryQueue_(ENTRIES_PER_BLOCK), runs_(ENTRIES_PER_BLOCK) {}
    suts_StgROTransfer(suts_StgROTransfer const&) = delete;
    suts_StgROTransfer& operator=(suts_StgROTransfer const&) = delete;

    // Adds the newest record with copies of its bytes. position: where it begins in the log.
    void Put(suts_StgFileRecord* file, long time, sutl_RawBytefield const& first, sutl_RawBytefield const& second,
             suts_StgLogPosition const& position);
    // Adds the end marker, which is not in the log.
    void PutEndMarker() { Put(nullptr, END_TIME, {}, {}, {}); }

    // Takes the oldest record into out, and its bytes into kept, with which out shares them. Only while Queued is above
    // 0.
    void Take(QEntry& out, sutl_ByteQueue& kept);

    // The same for as many of the oldest records as lie in the log alone, at most countMax, in two steps: TakeFromLog
    // takes them, and returns how many there are; ReadTaken then fills them in. It is the one call that needs no mutex,
    // since the reader is the taking thread's: the feeding thread need not wait for a read.
    [[nodiscard]] int TakeFromLog(QEntry* out, int countMax);
    void ReadTaken(QEntry* out, int count, sutl_ByteQueue& kept);

    [[nodiscard]] long Queued() const { return queued_; }  // records put and not yet taken, the end marker included

 private:
    static constexpr unsigned long ENTRIES_PER_BLOCK = 8;

    void DropOldestFromMemory();
    void AdvanceTrail();
    void DropFromOldestRun();
    [[nodiscard]] suts_StgLogPosition& PositionOf(unsigned long record) {
        return positions_[record % TRAIL_RECORDS_MAX];
    }

    // The taking thread's: stands behind the last record read while reading_, nowhere else.
    suts_StgRecoveryPlayback trailReader_;
    bool reading_ = false;              // the trail reader has been placed for the present backlog
    suts_StgLogPosition readFrom_;      // of the first record taken from the log and not yet read, where not reading_
    suts_StgLogPosition backlogStart_;  // of the oldest record queued when the newest backlog began
    sutl_DQUEUE<QEntry> memoryQueue_;   // the newest records, at most MEMORY_RECORDS_MAX
    sutl_ByteQueue memoryBytes_;        // their keys and values, as far as these do not lie in the entries
    long queued_ = 0;                   // records put and not yet taken, in memory or on disk
    long trail_ = 0;                    // records put that lie behind the reader's place; at least queued_
    sutl_DQUEUE<PEntry> runs_;          // the files that count the trail's records; the counts add up to trail_
    unsigned long put_ = 0;             // records put since the start
    std::array<suts_StgLogPosition, TRAIL_RECORDS_MAX>
        positions_;  // of the newest records, by their number mod the size
};
