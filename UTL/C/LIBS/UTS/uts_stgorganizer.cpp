#include "uts_stgorganizer.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "sutl_assert.h"
#include "sutl_resourceusage.h"

namespace {

constexpr sutl_AssertSite SITE_BULK = {"UTL/C/LIBS/UTS/uts_stgorganizer.h", 125};
constexpr sutl_AssertSite SITE_FUTURE_BUCKET = {"UTL/C/LIBS/UTS/uts_stgorganizer.h", 216};
constexpr sutl_AssertSite SITE_WINDOW_WIDTH = {"uts_stgorganizer.cpp", 192};
constexpr sutl_AssertSite SITE_NOT_TERMINATED = {"uts_stgorganizer.cpp", 233};

constexpr useconds_t POLL_INTERVAL_US = 1;
// The least is the system's default; a record waits no longer than the greatest before it is taken.
constexpr unsigned long TIMER_SLACK_MIN_NS = 50000;
constexpr unsigned long TIMER_SLACK_MAX_NS = 800000;
// Records taken between two pauses: fewer make the pauses longer, more make them shorter.
constexpr int RECORDS_FEW = 300;
constexpr int RECORDS_MANY = 700;
constexpr unsigned long REPORT_STEP_FACTOR = 10;
constexpr std::size_t PREFETCH_SETS = 8;  // how far ahead of its use memory is asked for,
constexpr int PREFETCH_RECORDS = 16;      // and for records, of which several may go to one set

// The pauses of the organizer thread when its queue is empty. How far the system may stretch them follows the stream:
// each pause should gather a good part of what the queue holds in memory, so that neither a thin stream nor a thick one
// makes the thread wake up for a handful of records. For one thread, its own.
class Poll {
 public:
    void Took(int records) { taken_ += records; }
    void Pause() {
        if (taken_ < RECORDS_FEW && slackNs_ < TIMER_SLACK_MAX_NS) SetSlack(2 * slackNs_);
        if (taken_ > RECORDS_MANY && slackNs_ > TIMER_SLACK_MIN_NS) SetSlack(slackNs_ / 2);
        taken_ = 0;
        usleep(POLL_INTERVAL_US);
    }

 private:
    void SetSlack(unsigned long slackNs) {
        slackNs_ = slackNs;
        prctl(PR_SET_TIMERSLACK, slackNs);
    }

    long taken_ = 0;                              // records, since the last pause
    unsigned long slackNs_ = TIMER_SLACK_MIN_NS;  // by which the system may stretch a pause
};

}  // namespace

void suts_StgOrganizer::RefuseWindowWidth(long windowWidth) {
    // The text is older than the divisor.
    sutl_assertfunc(windowWidth > 0 && windowWidth % WINDOW_DIVISOR == 0, SITE_WINDOW_WIDTH.file,
                    SITE_WINDOW_WIDTH.line, " ERROR, Window width has to be multiple of 100!\n", nullptr);
}

suts_StgOrganizer::suts_StgOrganizer(suts_StgRecovery& recovery, suts_StgShipper& shipper, suts_tsspec const& spec,
                                     long windowWidth, long /*tuning*/, char const* recoveryPath,
                                     char const* recoverFromPath)
    : recovery_(recovery),
      shipper_(shipper),
      spec_(spec),
      windowWidthUs_((RefuseWindowWidth(windowWidth), static_cast<unsigned long>(windowWidth))),
      bucketWidthUs_(windowWidthUs_ / WINDOW_BUCKETS),
      latestUs_(windowWidthUs_ + 1),
      current_((latestUs_ - baseUs_) / bucketWidthUs_),
      transfer_(spec, recovery),
      keyFilePath_(std::string(recoveryPath) + "/KeyFile"),
      keyFile_(suts_CreateLogFile(keyFilePath_)) {
    if (!keyFile_.IsOpen()) {
        // The file that is in the way is not ours to remove.
        recovery_.RemoveFirstFile();
        abort();
    }
    if (recoverFromPath != nullptr) ReadKeyFile(spec, recoverFromPath, keyFile_);
    if (!thread_.Start(suts_RunOrganizer, this, "TOrg")) {
        perror("ERROR, organizer thread could not be started: ");
        AbortStart();
    }
}

// Ends a start that failed, after its message: the same command works once the cause is mended.
void suts_StgOrganizer::AbortStart() {
    recovery_.RemoveFirstFile();
    remove(keyFilePath_.c_str());
    abort();
}

void suts_StgOrganizer::ReadKeyFile(suts_tsspec const& spec, char const* recoverFromPath,
                                    sutl_Descriptor const& newKeyFile) {
    suts_StgKeyFileReader reader(spec, recoverFromPath);
    sutl_RawBytefield key;
    suts_StgKeyFileReader::Result result;
    while ((result = reader.Next(key)) == suts_StgKeyFileReader::KEY) {
        keyEntries_.Add(key, false);
        keyEntries_.Write(newKeyFile);
        {
            sutl_WriteLock lock(keys_.lock);
            keys_.Insert(key);
        }
        key.Clear();
    }
    if (result == suts_StgKeyFileReader::CORRUPT) {
        fputs("Corrupt Recovery Keyfile!\n", stderr);
        AbortStart();
    }
}

suts_StgOrganizer::~suts_StgOrganizer() {
    if (state_ != TERMINATED) {
        sutl_AssertFailed(SITE_NOT_TERMINATED, " ERROR, Organizer destruction without termination!");
    }
    // The memory of everything else that is staged goes with the store.
    if (!chunks_.HoldsArrays()) return;
    for (suts_StgKeyNode* const node : keys_.InOrder()) node->set.FreeArrays(chunks_);
}

void suts_StgOrganizer::Terminate() {
    {
        sutl_MutexLock lock(transferMutex_);
        transfer_.PutEndMarker();
        state_ = END_QUEUED;
        fprintf(stderr, "TMain: TQ termination %ld\n", transfer_.Queued());
    }
    thread_.Join();
    fputs("TMain Gathered TOrg\n", stderr);
    state_ = TERMINATED;
}

// Organizer thread ------------------------------------------------------------

void* suts_RunOrganizer(void* organizer) {
    auto& self = *static_cast<suts_StgOrganizer*>(organizer);
    sutl_ResourceUsage usage;
    unsigned long reportStep = 1;  // records between two reports
    unsigned long total = 0;
    unsigned long delta = 0;  // absorbed since the last report
    bool endReached = false;
    Poll poll;
    suts_StgOrganizer::Batch batch;
    while (!endReached) {
        int const count = self.TakeBatch(batch, endReached);
        if (count > 0) {
            poll.Took(count);
            total += static_cast<unsigned long>(count);
            delta += static_cast<unsigned long>(count);
            self.recovery_.NoteTaken(total);
            self.AbsorbRecords(batch.data(), count);
        } else if (!endReached) {
            poll.Pause();
        }
        if (delta >= reportStep) {
            char prefix[96];
            snprintf(prefix, sizeof prefix, "TOrg: Total recs absorbed %lu delta %lu ", total, delta);
            usage.Report(prefix, " ");
            usage.Restart();
            delta = 0;
        }
        if (reportStep * REPORT_STEP_FACTOR < total) reportStep *= REPORT_STEP_FACTOR;
    }
    fputs("TOrg -> Termination received, shipping everything.\n", stderr);
    self.Ship(true);
    return nullptr;
}

int suts_StgOrganizer::TakeBatch(Batch& batch, bool& endReached) {
    batchBytes_.Clear();
    int const countMax = BatchRecordsMax();
    int count;
    bool inLog;
    {
        sutl_MutexLock lock(transferMutex_);
        count = transfer_.TakeFromLog(batch.data(), countMax);
        inLog = count > 0;
        while (!inLog && !endReached && transfer_.Queued() > 0 && count < countMax) {
            suts_StgROTransfer::QEntry& entry = batch[static_cast<std::size_t>(count)];
            transfer_.Take(entry, batchBytes_);
            endReached = entry.IsEndMarker();
            if (!endReached) ++count;
        }
    }
    if (inLog) ReadTaken(batch.data(), count);
    if (count > 0) {
        suts_StgROTransfer::QEntry const& last = batch[static_cast<std::size_t>(count) - 1];
        lastRecordBytes_ = last.first.length + static_cast<long>(last.second.length);
    }
    return count;
}

// Great records make small batches, of which the memory is held until they are absorbed.
int suts_StgOrganizer::BatchRecordsMax() const {
    return static_cast<int>(std::clamp(BATCH_BYTES_MAX / (lastRecordBytes_ + 1), 1L, BATCH_RECORDS_MAX));
}

void suts_StgOrganizer::ReadTaken(suts_StgROTransfer::QEntry* entries, int count) {
    transfer_.ReadTaken(entries, count, batchBytes_);
}

void suts_StgOrganizer::AbsorbRecords(suts_StgROTransfer::QEntry const* entries, int count) {
    sutl_assertfunc(count < ABSORPTION_RECORDS_END, SITE_BULK.file, SITE_BULK.line, " ERROR, bad bulk absorption\n",
                    nullptr);
    FindNodes(entries, count);
    for (int i = 0; i < count; ++i) buckets_[static_cast<std::size_t>(i)] = BucketOf(entries[i].time);
    for (int from = 0; from < count;) {
        int const opening = FirstOpening(from, count);
        PlaceAll(entries, from, opening);
        if (opening == count) return;
        unsigned long const bucket = buckets_[static_cast<std::size_t>(opening)];
        pendingAdvance_ += static_cast<long>(bucket - current_.load(std::memory_order_relaxed));
        AdvanceBuckets(bucket);
        from = opening + 1;
        PlaceAll(entries, opening, from);
        if (pendingAdvance_ < HAND_OFF_BUCKETS) continue;
        pendingAdvance_ = 0;
        Ship(false);
    }
}

// Fills nodes_.
void suts_StgOrganizer::FindNodes(suts_StgROTransfer::QEntry const* entries, int count) {
    auto const records = static_cast<std::size_t>(count);
    suts_StgKeyTable const& table = keys_.Table();
    for (std::size_t i = 0; i < records; ++i) {
        hashes_[i] = suts_StgKeyTable::Hash(entries[i].first);
        table.PrefetchSlot(hashes_[i]);
    }
    for (std::size_t i = 0; i < records; ++i) table.PrefetchNode(hashes_[i]);
    std::size_t unknown = 0;
    for (std::size_t i = 0; i < records; ++i) {
        nodes_[i] = keys_.FindAsWriter(entries[i].first, hashes_[i]);
        if (nodes_[i] == nullptr) unknown_[unknown++] = &entries[i];
    }
    if (unknown > 0) InsertKeys(entries, unknown);
}

// Inserts the keys of unknown_, all under one hold of the lock, so that readers see them together, and fills in their
// nodes.
void suts_StgOrganizer::InsertKeys(suts_StgROTransfer::QEntry const* entries, std::size_t unknown) {
    bool const withLength = spec_.Type(0) == SUTS_STRING64;
    sutl_WriteLock lock(keys_.lock);
    for (std::size_t i = 0; i < unknown; ++i) {
        if (i % suts_StgKeyIndex::WALKS == 0) {
            sutl_RawBytefield const* keys[suts_StgKeyIndex::WALKS];
            std::size_t const walks = std::min(unknown - i, suts_StgKeyIndex::WALKS);
            for (std::size_t walk = 0; walk < walks; ++walk) keys[walk] = &unknown_[i + walk]->first;
            keys_.PrefetchPaths({keys, walks});
        }
        auto const record = static_cast<std::size_t>(unknown_[i] - entries);
        sutl_RawBytefield const& key = entries[record].first;
        nodes_[record] = keys_.FindAsWriter(key, hashes_[record]);
        if (nodes_[record] != nullptr) continue;  // known since a record before
        keyEntries_.Add(key, withLength);
        nodes_[record] = keys_.Insert(key);
    }
    keyEntries_.Write(keyFile_);
}

// The first record from this one on that lies beyond the newest open bucket; count when there is none.
int suts_StgOrganizer::FirstOpening(int from, int count) const {
    unsigned long const current = current_.load(std::memory_order_relaxed);
    while (from < count && buckets_[static_cast<std::size_t>(from)] <= current) ++from;
    return from;
}

// Where a record of the batch goes.
suts_StgPosition suts_StgOrganizer::NewestFor(int record) const {
    auto const i = static_cast<std::size_t>(record);
    return nodes_[i]->set.NewestAsWriter(SlotOf(buckets_[i]));
}

// Places the records from one to another, exclusive: those of one set together, when the last of them has its turn. So
// whoever finds the last record finds all others, too.
void suts_StgOrganizer::PlaceAll(suts_StgROTransfer::QEntry const* entries, int from, int to) {
    for (int i = from; i < to; ++i) {
        suts_StgKeyNode& node = *nodes_[static_cast<std::size_t>(i)];
        (node.batchLast < 0 ? node.batchFirst : nextOfNode_[static_cast<std::size_t>(node.batchLast)]) = i;
        node.batchLast = i;
        latestUs_ = std::max(latestUs_, static_cast<unsigned long>(entries[i].time));
    }
    for (int i = from; i < to; ++i) {
        if (i + 2 * PREFETCH_RECORDS < to) NewestFor(i + 2 * PREFETCH_RECORDS).PrefetchHead();
        if (i + PREFETCH_RECORDS < to) NewestFor(i + PREFETCH_RECORDS).PrefetchNext();
        suts_StgKeyNode& node = *nodes_[static_cast<std::size_t>(i)];
        if (node.batchLast == i) PlaceInSet(entries, node);
    }
}

// Places the batch's records of one set under one hold of its lock.
void suts_StgOrganizer::PlaceInSet(suts_StgROTransfer::QEntry const* entries, suts_StgKeyNode& node) {
    unsigned long const current = current_.load(std::memory_order_relaxed);
    sutl_WriteLock lock(node.set.lock);
    for (int i = node.batchFirst;; i = nextOfNode_[static_cast<std::size_t>(i)]) {
        suts_StgROTransfer::QEntry const& entry = entries[i];
        unsigned long const bucket = buckets_[static_cast<std::size_t>(i)];
        if (bucket > current) sutl_AssertFailed(SITE_FUTURE_BUCKET, "Internal error\n");
        unsigned long const slot = SlotOf(bucket);
        ++placed_[slot];
        if (bucket < OldestOpen()) node.set.NoteLate(slot);
        node.set.Place(slot, entry.file, entry.time, entry.second, chunks_);
        if (i == node.batchLast) break;
    }
    node.batchFirst = node.batchLast = -1;
}

// A late record, older than every open bucket, goes to the oldest one.
unsigned long suts_StgOrganizer::SlotOf(unsigned long bucket) const {
    return std::max(bucket, OldestOpen()) % suts_StgBucketSet::BUCKETS;
}

void suts_StgOrganizer::AdvanceBuckets(unsigned long newCurrent) {
    sutl_ResourceUsage const usage;
    unsigned long const current = current_.load(std::memory_order_relaxed);
    unsigned long const oldest = current - (suts_StgBucketSet::BUCKETS - 1);
    unsigned long const newOldest = newCurrent - (suts_StgBucketSet::BUCKETS - 1);
    unsigned long const end = std::min(newOldest, current + 1);  // of the buckets to recycle
    std::vector<suts_StgKeyNode*> const& nodes = keys_.InOrder();
    for (std::size_t i = 0; i < nodes.size(); ++i) {
        if (i + 2 * PREFETCH_SETS < nodes.size()) nodes[i + 2 * PREFETCH_SETS]->Prefetch();
        if (i + PREFETCH_SETS < nodes.size()) {
            nodes[i + PREFETCH_SETS]->set.NewestAsWriter(oldest % suts_StgBucketSet::BUCKETS).PrefetchHead();
        }
        suts_StgBucketSet& set = nodes[i]->set;
        bool holdsAny = false;
        for (unsigned long bucket = oldest; bucket < end; ++bucket) {
            holdsAny = holdsAny || !set.NewestAsWriter(bucket % suts_StgBucketSet::BUCKETS).IsEmpty();
        }
        if (!holdsAny) continue;
        sutl_WriteLock lock(set.lock);
        for (unsigned long bucket = oldest; bucket < end; ++bucket) {
            set.Recycle(bucket % suts_StgBucketSet::BUCKETS, chunks_);
        }
    }
    chunks_.Collect();
    char prefix[96];
    snprintf(prefix, sizeof prefix, "TOrg: Advanced buckets from %lu to %lu ", current, newCurrent);
    usage.Report(prefix, "");
    current_.store(newCurrent, std::memory_order_release);
}

void suts_StgOrganizer::Ship(bool final) {
    unsigned long const current = current_.load(std::memory_order_relaxed);
    unsigned long const newestShipped = final ? current : current - 1;
    recovery_.NoteTakerWaits(true);
    shipper_.WaitUntilIdle();
    recovery_.NoteTakerWaits(false);
    shipper_.Post({&keys_, &chunks_, baseUs_ + (newestShipped + 1) * bucketWidthUs_, newestShipped, final});
    if (final) {
        shipper_.WaitUntilIdle();
        shipper_.Stop();
    }
}
