// The recovery log: its writer, its playback, and a dump of a recovery directory.
//
// A recovery directory holds the files F1, F2, ... (uts_formats.h tells what is in them), the KeyFile of the organizer,
// and entries that begin with a dot, which are ignored.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>

#include "sutl_assert.h"
#include "sutl_descriptor.h"
#include "sutl_list.h"
#include "sutl_locks.h"
#include "sutl_rawbytefield.h"
#include "uts_fieldtranslation.h"
#include "uts_tsspec.h"

// The smallest number of a recovery file greater than after; 0 when there is none. A directory that cannot be read, and
// a name that does not belong into a recovery directory, are reported and end the process by abort.
unsigned int suts_Recovery_LowestRecovFileIndex(char const* directory, int after);

// Creates a file of a recovery directory, which must not exist, for writing. None on failure, which is reported here.
[[nodiscard]] sutl_Descriptor suts_CreateLogFile(std::string const& path);

// One file of the running log. Its address is the recovery handle of every record counted in it: the record travels
// with it until it is shipped and handed back to suts_StgRecovery::Mark. It lives until everything counted in the
// closed file is marked.
struct suts_StgFileRecord {
    sutl_list_base_iter self;  // its place in the writer's list
    unsigned long number = 0;  // of the file
    std::atomic<unsigned long> Elements{
        0};                           // records counted in the file; written by the feeding thread without a lock
    unsigned long Committed = 0;      // of these, marked as shipped; the writer's mutex
    bool closed = false;              // the writer's mutex, but for Terminate
    unsigned long recordsBefore = 0;  // records of the whole log up to the file's end, once it is closed
};

// Where a record begins in the log.
struct suts_StgLogPosition {
    unsigned long fileNumber = 0;
    unsigned long offset = 0;  // bytes from the file's start
};

// Writes every record to the log before the record goes on, so that what was not shipped survives a crash. Owned by
// suts_Stager. Appending, NewFile and Terminate belong to the thread that feeds the stager; Mark to the ship thread.
//
// A file is closed at the end of the first record that completes a block at or beyond the size limit. The record whose
// end closes a file is counted in the next one: the closed file can be removed while its last record still waits to be
// shipped. Readers of the running log (OpenForTrail) are served all the same.
//
// Every failure but that of a removal ends the process.
class suts_StgRecovery {
 public:
    // Creates F1 in the directory. A directory that holds recovery files already is an assertion.
    explicit suts_StgRecovery(char const* directory);
    suts_StgRecovery(suts_StgRecovery const&) = delete;
    suts_StgRecovery& operator=(suts_StgRecovery const&) = delete;
    ~suts_StgRecovery();  // files stay, and nothing is flushed

    // What the constructor checks before it creates anything.
    static void RefuseUsedDirectory(char const* directory);

    // Appends a piece of a record. A file is closed only where endOfRecord tells that the record is complete. Nothing
    // is written before a block of 4096 bytes is full or the file is closed.
    void AsyncWrite(void const* data, int length, int endOfRecord);

    // Appends one record: time, length of the value, key, value. Returns where it begins.
    suts_StgLogPosition AppendRecord(long time, sutl_RawBytefield const& key, sutl_RawBytefield const& value);

    // Counts the record just appended in the current file and returns its recovery handle.
    suts_StgFileRecord* CountRecord() {
        // The feeding thread alone writes the count, so the sum needs no atomic step.
        unsigned long const elements = currentRecord_->Elements.load(std::memory_order_relaxed);
        currentRecord_->Elements.store(elements + 1, std::memory_order_relaxed);
        return currentRecord_;
    }

    // So many records counted in the file of this handle have been shipped. Removes the file when the last of a closed
    // one was among them.
    void Mark(void* fileRecord, unsigned long records = 1) SUTL_EXCLUDES(mutex_);

    // Removes the file of the number; a failure is reported and has no other consequence.
    void DeleteFile(unsigned long number);

    // Creates the file of the current number and makes it the one written to.
    void NewFile() SUTL_EXCLUDES(mutex_);

    // Flushes and closes the last file, and removes it if everything counted in it is marked. The ship thread is joined
    // before.
    void Terminate();

    // Writes a line per file to standard error, oldest first; for use from a debugger.
    void PrintStatus() SUTL_EXCLUDES(mutex_);

    // Removes the file that the constructor has created; for a start that fails.
    void RemoveFirstFile();

    // Tells how many of the log's records, counted from its first, the reader of the running log is done with. From the
    // reader's thread; may lag behind, must not run ahead.
    void NoteTaken(unsigned long records) { taken_.store(records, std::memory_order_release); }
    // Tells whether that reader waits for the consumer, and takes nothing meanwhile.
    void NoteTakerWaits(bool waits) { takerWaits_.store(waits, std::memory_order_relaxed); }
    [[nodiscard]] bool TakerWaits() const { return takerWaits_.load(std::memory_order_relaxed); }
    [[nodiscard]] unsigned long Taken() const { return taken_.load(std::memory_order_relaxed); }
    // Records appended that the reader is not known to be done with. From the feeding thread.
    [[nodiscard]] unsigned long Untaken() const { return recordsAppended_ - Taken(); }

    // A descriptor of a file of the running log, open for reading, at its start; also of a file that has been removed
    // while its last record was not yet taken. None when there is no such file. Takes the writer's mutex.
    [[nodiscard]] sutl_Descriptor OpenForTrail(unsigned long number) SUTL_EXCLUDES(mutex_);

 private:
    static constexpr unsigned long SIZE_LIMIT_MIN = 10000;  // bytes; the limit is this times a power of ten
    static constexpr unsigned long SIZE_LIMIT_STEP = 10;
    static constexpr unsigned long OUTSTANDING_LIMITS_MAX = 5;  // outstanding above so many limits raises the limit

    [[nodiscard]] std::string PathOf(unsigned long number) const;
    void WriteBlock();
    void CloseFile() SUTL_EXCLUDES(mutex_);
    void Forget(suts_StgFileRecord& file) SUTL_REQUIRES(mutex_);  // drops the record of a file, and the file
    [[nodiscard]] bool KeepForTrail(suts_StgFileRecord const& file) SUTL_REQUIRES(mutex_);
    void LetGoOfKept() SUTL_REQUIRES(mutex_);
    void ReviewKept() SUTL_REQUIRES(mutex_);  // lets go of the kept file once its records are taken

    // A removed file that the trail has yet to read the last record of.
    struct KeptFile {
        sutl_Descriptor descriptor;       // none: the file could not be opened, and waits on disk for its removal
        unsigned long number = 0;         // 0: nothing is kept
        unsigned long recordsBefore = 0;  // as in the file's record
    };

    std::string const directory_;
    sutl_Mutex mutex_;
    sutl_LIST<suts_StgFileRecord> files_ SUTL_GUARDED_BY(mutex_);  // files not removed yet, oldest first
    unsigned long outstandingBytes_ SUTL_GUARDED_BY(mutex_) = 0;   // governs the size limit; only roughly a volume
    KeptFile kept_ SUTL_GUARDED_BY(mutex_);
    std::atomic<unsigned long> taken_{0};  // records the trail is done with; written by TOrg
    std::atomic<bool> takerWaits_{false};  // TOrg waits for the ship thread; written by TOrg

    // Owned by the feeding thread.
    suts_StgFileRecord* currentRecord_ = nullptr;  // of the file open for writing
    unsigned long currentNumber_ = 1;              // of that file
    sutl_Descriptor currentFile_;
    unsigned int fillBytes_ = 0;   // waiting in the block
    unsigned long fileBytes_ = 0;  // written to the file: full blocks, and the rest at its close
    unsigned long sizeLimitBytes_ = SIZE_LIMIT_MIN;
    unsigned long recordsAppended_ = 0;          // to the log as a whole
    unsigned char block_[SUTS_LOG_BLOCK_BYTES];  // bytes not yet written
};

// One record as replayed. The byte fields share their bytes with the playback that has filled it.
struct suts_StgEntry {
    long time;                // microseconds
    sutl_RawBytefield key;    // field 0, stored form
    sutl_RawBytefield value;  // the other fields, stored form
};

// Hands the records of a recovery directory back, one at a time, in file order. It changes nothing on disk. With a
// running writer in place of a directory it is that log's trail reader, which is placed on a record by Seek and goes
// from file to file by number, without a look at the directory. Owned by one thread at a time.
class suts_StgRecoveryPlayback {
 public:
    // Reads the records of an earlier run. A directory without recovery files is reported.
    suts_StgRecoveryPlayback(suts_tsspec const& spec, char const* directory);
    // Reads behind a running writer, which must outlive it. Stands nowhere before the first Seek.
    suts_StgRecoveryPlayback(suts_tsspec const& spec, suts_StgRecovery& writer);

    // Opens the lowest file. Its number, or -1, reported, when there is none.
    int StartAsyncRead();
    // Opens the file of a number for reading; none on failure, without a report.
    [[nodiscard]] sutl_Descriptor NewFileToRead(int number) const;

    // Fills the entry with the next record, whose bytes are valid until the next call, and returns 0; or returns 1 at
    // the end of the data. A record that is cut or whose fields need more than its value's length is reported and is
    // the end as well. A read error is an assertion.
    unsigned int QNext(suts_StgEntry& entry);

    // Copies up to length bytes of the stream to the destination, sets number to the file they end in, and returns how
    // many there were: fewer only at the end of the data.
    int AsyncRead(int& number, char const* directory, char* destination, int length);

    // Trail reader only: stands at the start of this record from now on. False when its file cannot be opened.
    [[nodiscard]] bool Seek(suts_StgLogPosition const& position);
    // Trail reader only: lets go of its file.
    void Detach();

 private:
    // How a piece of a record came.
    enum Piece { WHOLE, NOTHING, CUT };

    [[nodiscard]] bool Refill(sutl_AssertSite const& site);  // false at the end of the stream
    [[nodiscard]] bool OpenNextFile();
    bool ReportUnopened(int number) const;
    [[nodiscard]] bool TakeFromBlock(suts_StgEntry& entry);
    [[nodiscard]] int ReadBytes(unsigned char* to, int length);
    [[nodiscard]] Piece ReadField(int index, long end);
    [[nodiscard]] Piece ReadString(long end);
    unsigned int End(Piece piece);

    std::string const directory_;  // empty for a trail reader
    suts_tsspec const& spec_;
    int const valueBytes_;            // of every value; -1 where the schema's strings make them differ
    suts_StgRecovery* const writer_;  // null but for a trail reader
    sutl_Descriptor file_;            // the file being read
    int fileNumber_ = 0;              // its number
    bool done_ = false;               // once set, every QNext ends at once
    unsigned int readPosition_ = 0;   // next unread byte of the block
    unsigned int fillBytes_ = 0;      // bytes in the block
    suts_ByteScratch record_;         // key and value of the record being read
    unsigned char block_[SUTS_LOG_BLOCK_BYTES];
};

// Prints every record of a recovery directory that a replay would bring back, a line each: the times to out, everything
// else to standard error.
void suts_StgPrintRecoverData(FILE* out, suts_tsspec const& spec, char const* directory);
