// What a replay of a recovery directory would bring back, and what is odd about it.
#pragma once

#include <limits>
#include <string>
#include <unordered_map>
#include <vector>

#include "key_file_walker.h"
#include "log_walker.h"
#include "recovery_directory.h"
#include "uts_tsspec.h"

// Counts records by key. Memory grows with the keys, up to a number of them and LogRecord::KEY_BYTES_KEPT each.
class KeyCounts {
 public:
    struct Entry {
        std::string start;  // the key's first bytes, stored form
        long bytes = 0;     // of the whole key
        unsigned long records = 0;
        bool inKeyFile = false;
    };

    explicit KeyCounts(unsigned long keysMax) : keysMax_(keysMax) {}

    void AddFromKeyFile(KeyFileWalker::Key const& key);
    void AddRecord(LogRecord const& record);

    [[nodiscard]] std::vector<Entry const*> InOrder() const;    // of first appearance
    [[nodiscard]] std::vector<Entry const*> ByRecords() const;  // most records first
    [[nodiscard]] unsigned long Keys() const { return index_.size(); }
    [[nodiscard]] unsigned long KeysNotInKeyFile() const { return notInKeyFile_; }
    [[nodiscard]] unsigned long KeysTwiceInKeyFile() const { return twiceInKeyFile_; }
    [[nodiscard]] bool IsCut() const { return isCut_; }  // there are more keys
    [[nodiscard]] unsigned long RecordsOfOtherKeys() const { return otherRecords_; }

 private:
    struct Hasher {
        std::size_t operator()(KeyHash const& hash) const { return hash.low; }
    };

    Entry* Find(KeyHash const& hash, std::string_view start, long bytes);

    unsigned long const keysMax_;
    std::unordered_map<KeyHash, std::size_t, Hasher> index_;  // places in entries_
    std::vector<Entry> entries_;
    unsigned long notInKeyFile_ = 0;
    unsigned long twiceInKeyFile_ = 0;
    unsigned long otherRecords_ = 0;
    bool isCut_ = false;
};

struct CheckLimits {
    unsigned long keysMax = 200000;
    long futureUs = std::numeric_limits<long>::max();  // later times are suspicious
    long epochUs = 0;                                  // earlier times are suspicious, too
};

// Times that a record should not have.
struct OddTimes {
    unsigned long records = 0;
    LogPlace first;
    long firstUs = 0;
};

struct RecoveryReport {
    explicit RecoveryReport(unsigned long keysMax) : keys(keysMax) {}

    RecoveryDirectory directory;
    std::vector<long> fileBytes;             // of directory.files
    std::vector<unsigned long> fileRecords;  // that begin in them and come back
    unsigned long records = 0;               // that come back
    long bytes = 0;                          // of the files
    long recordBytes = 0;                    // of the records that come back
    long firstUs = 0;                        // times of these
    long lastUs = 0;

    LogWalker::Result end = LogWalker::END;
    LogWalker::Reason tornReason = LogWalker::NO_REASON;
    LogPlace torn;
    long tornBytes = 0;          // that form no record, to the end of the last file
    std::size_t failedFile = 0;  // where end is READ_ERROR,
    bool couldNotOpen = false;
    int error = 0;      // and why
    OddTimes negative;  // a replay refuses these records
    OddTimes future;
    OddTimes epoch;
    unsigned long tooLarge = 0;  // refused as well
    unsigned long inexact = 0;   // whose head claims more bytes than the fields have
    LogPlace firstInexact;
    std::vector<ZeroRun> zeroRuns;  // the first of them
    unsigned long zeroRunCount = 0;

    KeyFileWalker::Result keyFileEnd = KeyFileWalker::END;
    unsigned long keyFileKeys = 0;
    long keyFileOffset = 0;        // where it is corrupt
    unsigned long keyFileCut = 0;  // entries that the end of the file has cut short
    int keyFileError = 0;
    KeyCounts keys;

    [[nodiscard]] bool EndsWithError() const;  // a replay ends with an error
    [[nodiscard]] bool IsClean() const;        // a replay brings everything back, and nothing is suspicious
};

// Key and value of a record that are longer are refused by the server: it would not fit into a ship message of its own.
[[nodiscard]] long RecordBytesMax(suts_tsspec const& spec);

// Walks the whole directory. False when the directory itself cannot be read; errno tells why.
[[nodiscard]] bool CheckRecovery(suts_tsspec const& spec, std::string const& directory, CheckLimits const& limits,
                                 RecoveryReport& report);

// Why the bytes at the tear form no record, for people.
[[nodiscard]] char const* TextOf(LogWalker::Reason reason);
