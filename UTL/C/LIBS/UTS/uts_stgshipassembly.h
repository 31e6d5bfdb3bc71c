// Ship messages: how the records of one key are gathered and encoded.
#pragma once

#include <memory>
#include <span>
#include <vector>

#include "sutl_netorderbytefield.h"
#include "sutl_rawbytefield.h"
#include "uts_fieldtranslation.h"
#include "uts_stgbucket.h"
#include "uts_stgrecovery.h"
#include "uts_tsspec.h"

// The messages under construction: one, and further ones of the same type where it would pass its greatest length. Byte
// fields are kept for the next use. Owned by the ship thread.
class suts_StgShipMessages {
 public:
    explicit suts_StgShipMessages(long bytesMax) : bytesMax_(bytesMax) {}

    void Begin(unsigned int type);  // drops what is there and starts the first message
    void StartFurther();            // goes on in a further message of the same type
    void SealLast();                // no more is appended
    void CountRecords(unsigned long count) { messages_[used_ - 1].records += count; }  // in the current message

    [[nodiscard]] sutl_NetorderByteField& Current() { return *messages_[used_ - 1].bytes; }
    [[nodiscard]] bool CurrentIsBare() const;  // nothing behind the type yet
    [[nodiscard]] long Room() const;           // bytes that still fit into the current message
    [[nodiscard]] std::size_t Used() const { return used_; }
    [[nodiscard]] sutl_NetorderByteField& Message(std::size_t index) { return *messages_[index].bytes; }
    [[nodiscard]] unsigned long Records(std::size_t index) const { return messages_[index].records; }

 private:
    struct ShipMessage {
        std::unique_ptr<sutl_NetorderByteField> bytes;
        unsigned long records;  // in it, as counted
    };

    long const bytesMax_;
    unsigned int type_ = 0;
    std::size_t used_ = 0;  // messages begun since Begin
    std::vector<ShipMessage> messages_;
};

// One record on its way into a message.
struct suts_StgShipEntry {
    unsigned long time;                  // microseconds
    suts_StgBucketRecord const* record;  // in its bucket, or in retired contents that the batch holds
};

// Orders ship entries by time.
class suts_StgShipQComp {
 public:
    // -1, 0 or 1 as a's time is smaller than, equal to or greater than b's, unsigned.
    [[nodiscard]] static long Compare(suts_StgShipEntry const& a, suts_StgShipEntry const& b) {
        return static_cast<long>(a.time > b.time) - static_cast<long>(a.time < b.time);
    }
};

// The records of a key, gathered newest first and given back in order of time. Keeps its memory, up to a bound.
class suts_StgShipEntries {
 public:
    void Add(suts_StgBucketRecord const& record) {
        gathered_.push_back({static_cast<unsigned long>(record.time), &record});
    }
    // By time; those of equal times in the reverse of the order in which they were added. Valid until Clear.
    [[nodiscard]] std::span<suts_StgShipEntry const> Sorted();
    void Clear();

 private:
    static constexpr std::size_t IDLE_ENTRIES_MAX = 1UL << 18;

    std::vector<suts_StgShipEntry> gathered_;
    std::vector<suts_StgShipEntry> late_;    // entries older than one before them
    std::vector<suts_StgShipEntry> merged_;  // both, where there are late ones
};

// Counts shipped records by file, so that a run of one file is marked at once. Nothing is left to mark when it goes.
class suts_StgShipMarks {
 public:
    explicit suts_StgShipMarks(suts_StgRecovery& recovery) : recovery_(recovery) {}

    void Add(suts_StgFileRecord* file) {
        if (file != file_) {
            Flush();
            file_ = file;
        }
        ++count_;
    }
    void Flush() {
        if (count_ > 0) recovery_.Mark(file_, count_);
        count_ = 0;
    }

 private:
    suts_StgRecovery& recovery_;
    suts_StgFileRecord* file_ = nullptr;  // of the records counted
    unsigned long count_ = 0;             // records not marked yet
};

// What the ship thread works with from key to key. Owned by the shipper.
struct suts_StgShipBatch {
    suts_StgShipBatch(suts_StgRecovery& recovery, suts_tsspec const& spec, long messageBytesMax);

    suts_tsspec const& spec;
    int const keyStrings;              // strings among the key's and
    int const valueStrings;            // the value's fields: their lengths are on the wire only
    unsigned long upperTimeBound = 0;  // of the cycle, as in suts_StgShipJob; never falls
    unsigned long bucketNumber = 0;    // of the cycle
    suts_StgShipMessages messages;
    suts_StgChunkStore* chunks = nullptr;  // of the cycle, as in suts_StgShipJob
    suts_StgShipMarks marks;
    suts_ByteScratch encoded;               // records on their way into the message; empty between keys
    suts_StgShipEntries entries;            // of the key at hand; empty between keys
    long entriesBytes = 0;                  // what they take in a message
    std::vector<suts_StgRetired*> retired;  // what holds some of them; empty between keys
};

// Appends the key as field 0 of a record to the current message, or to a further one where it does not fit.
void suts_AppendKeyToMessages(suts_StgShipMessages& messages, sutl_RawBytefield const& key, suts_tsspec const& spec);

// Gathers the key's unshipped records that are due, counts each in the batch's marks, sorts them by time and appends
// them as a key block. The caller flushes the marks before it sends. A block that does not fit goes to a further
// message, and is cut into blocks of the same key where it is longer than a message; no block holds less than one
// record of a non-empty gathering. Everything is encoded on return.
void suts_ShipThrdAssembly(suts_StgShipBatch& batch, sutl_RawBytefield const& key, suts_StgBucketSet& buckets)
    SUTL_REQUIRES_SHARED(buckets.lock);
