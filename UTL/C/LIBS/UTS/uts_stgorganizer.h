// The organizer: sorts the stream of records into buckets per key and decides when they are shipped.
#pragma once

#include <array>
#include <atomic>
#include <string>

#include "sutl_descriptor.h"
#include "sutl_locks.h"
#include "uts_stgkeyfile.h"
#include "uts_stgkeyindex.h"
#include "uts_stgrecovery.h"
#include "uts_stgrotransfer.h"
#include "uts_stgshipper.h"
#include "uts_tsspec.h"

// Owns the transfer queue, the key index with the buckets of every key, the key file, and the organizer thread, which
// takes records from the queue in batches and absorbs them. Owned by suts_Stager.
//
// Event time moves with the greatest record time seen. Bucket b covers bucketWidthUs microseconds from b *
// bucketWidthUs on; the newest five are open. A hand-off to the shipper is due once two buckets were opened since the
// last.
class suts_StgOrganizer {
 public:
    // Creates the key file, reads the old one where a directory to recover from is given (null: none), and starts the
    // thread. A failure ends the process; the files that this start has created are removed before.
    // windowWidth: microseconds, positive and divisible by 5. tuning has no effect.
    suts_StgOrganizer(suts_StgRecovery& recovery, suts_StgShipper& shipper, suts_tsspec const& spec, long windowWidth,
                      long tuning, char const* recoveryPath, char const* recoverFromPath);
    suts_StgOrganizer(suts_StgOrganizer const&) = delete;
    suts_StgOrganizer& operator=(suts_StgOrganizer const&) = delete;
    // Destruction without Terminate is an assertion.
    ~suts_StgOrganizer();

    // Raises the assertion of a window width that cannot be used.
    static void RefuseWindowWidth(long windowWidth);

    // Queues a record for the thread. From the feeding thread. See suts_StgROTransfer::Put.
    void Put(suts_StgFileRecord* file, long time, sutl_RawBytefield const& first, sutl_RawBytefield const& second,
             suts_StgLogPosition const& position) SUTL_EXCLUDES(transferMutex_) {
        sutl_MutexLock lock(transferMutex_);
        transfer_.Put(file, time, first, second, position);
    }

    // Queues the end marker and waits until the thread has absorbed everything before it, has shipped all that is
    // staged and has stopped the shipper. From the feeding thread, once.
    void Terminate() SUTL_EXCLUDES(transferMutex_);

    [[nodiscard]] suts_StgKeyIndex& Keys() { return keys_; }
    // The number of the newest open bucket. From any thread; moves at any time.
    [[nodiscard]] unsigned long Current() const { return current_.load(std::memory_order_acquire); }
    // Whether the times of the set's records in an open bucket can lie in the range, both ends inclusive. From any
    // thread.
    [[nodiscard]] bool MayHold(suts_StgBucketSet const& set, unsigned long bucket, unsigned long fromUs,
                               unsigned long toUs) const SUTL_REQUIRES_SHARED(set.lock) {
        bool const endsBefore = toUs < baseUs_ + bucket * bucketWidthUs_;
        bool const beginsBehind = fromUs >= baseUs_ + (bucket + 1) * bucketWidthUs_;
        return !beginsBehind && (!endsBefore || set.HoldsLate(bucket % suts_StgBucketSet::BUCKETS));
    }

 private:
    friend void* suts_RunOrganizer(void* organizer);

    static constexpr long BATCH_RECORDS_MAX = 1000;      // per hold of the transfer mutex
    static constexpr long BATCH_BYTES_MAX = 16L << 20;   // of records as long as the last one
    static constexpr int ABSORPTION_RECORDS_END = 1024;  // a batch must be smaller
    static constexpr long HAND_OFF_BUCKETS = 2;          // opened since the last hand-off: another is due
    static constexpr int WINDOW_BUCKETS = 4;             // buckets a window is wide
    static constexpr int WINDOW_DIVISOR = 5;

    enum State : int { RUNNING = 1, END_QUEUED = 2, TERMINATED = 3 };
    using Batch = std::array<suts_StgROTransfer::QEntry, BATCH_RECORDS_MAX>;

    [[noreturn]] void AbortStart();
    void ReadKeyFile(suts_tsspec const& spec, char const* recoverFromPath, sutl_Descriptor const& newKeyFile);
    // Organizer thread only, as the rest.
    [[nodiscard]] int TakeBatch(Batch& batch, bool& endReached) SUTL_EXCLUDES(transferMutex_);
    [[nodiscard]] int BatchRecordsMax() const;
    void ReadTaken(suts_StgROTransfer::QEntry* entries, int count) SUTL_NO_THREAD_SAFETY_ANALYSIS;
    void AbsorbRecords(suts_StgROTransfer::QEntry const* entries, int count);
    void FindNodes(suts_StgROTransfer::QEntry const* entries, int count);
    void InsertKeys(suts_StgROTransfer::QEntry const* entries, std::size_t unknown) SUTL_EXCLUDES(keys_.lock);
    [[nodiscard]] int FirstOpening(int from, int count) const;
    [[nodiscard]] suts_StgPosition NewestFor(int record) const;
    void PlaceAll(suts_StgROTransfer::QEntry const* entries, int from, int to);
    void PlaceInSet(suts_StgROTransfer::QEntry const* entries, suts_StgKeyNode& node);
    [[nodiscard]] unsigned long SlotOf(unsigned long bucket) const;
    [[nodiscard]] unsigned long OldestOpen() const {
        return current_.load(std::memory_order_relaxed) - (suts_StgBucketSet::BUCKETS - 1);
    }
    void AdvanceBuckets(unsigned long newCurrent);
    void Ship(bool final);
    [[nodiscard]] unsigned long BucketOf(long timeUs) const {
        return (static_cast<unsigned long>(timeUs) - baseUs_) / bucketWidthUs_;
    }

    suts_StgRecovery& recovery_;
    suts_StgShipper& shipper_;
    suts_tsspec const& spec_;
    suts_StgChunkStore chunks_;  // of the sets' buckets
    suts_StgKeyIndex keys_;      // has its own lock

    // The bucket clock, owned by the organizer thread.
    unsigned long const baseUs_ = 0;  // where bucket 0 begins
    unsigned long const windowWidthUs_;
    unsigned long const bucketWidthUs_;
    unsigned long latestUs_;                                             // greatest record time absorbed
    std::atomic<unsigned long> current_;                                 // newest open bucket; written by TOrg
    std::array<unsigned long, suts_StgBucketSet::BUCKETS> placed_ = {};  // records placed per slot
    long pendingAdvance_ = 0;                                            // buckets opened since the last hand-off

    // Of the batch at hand; the organizer thread's.
    template <typename T>
    using PerRecord = std::array<T, ABSORPTION_RECORDS_END>;
    long lastRecordBytes_ = 0;                                   // key and value of the last record of the batch before
    sutl_ByteQueue batchBytes_;                                  // keys and values of its records
    PerRecord<unsigned long> hashes_ = {};                       // of the keys
    PerRecord<unsigned long> buckets_ = {};                      // their numbers
    PerRecord<suts_StgKeyNode*> nodes_ = {};                     // of the keys
    PerRecord<suts_StgROTransfer::QEntry const*> unknown_ = {};  // records whose keys the index does not hold
    PerRecord<int> nextOfNode_ = {};  // the next record that goes to the same set; none behind the last

    State state_ = RUNNING;  // feeding thread
    sutl_Mutex transferMutex_;
    suts_StgROTransfer transfer_ SUTL_GUARDED_BY(transferMutex_);
    std::string const keyFilePath_;
    sutl_Descriptor keyFile_;
    suts_StgKeyEntries keyEntries_;  // of new keys; the organizer thread's once it runs
    sutl_Thread thread_;             // started last
};

// Body of the organizer thread.
void* suts_RunOrganizer(void* organizer);
