// The log of one generation, read to its end before a replay relies on it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "log_walker.h"
#include "uts_tsspec.h"

// A log file, and how much of it is whole records.
struct LogPiece {
    LogFile file;
    long bytes = 0;
    long wholeBytes = 0;
};

struct GenerationLog {
    std::string directory;
    std::vector<LogPiece> pieces;    // the files with bytes, in order of their numbers
    std::vector<std::string> alien;  // names that a replay never reads, or gives up at
    unsigned long records = 0;       // whole ones
    std::string damage;              // why a replay would not bring back everything; empty: nothing but a torn tail
    bool isReadable = true;          // every file to its end, or to a tear
    std::string keyTrouble;          // why a start would give up at KeyFile; empty: it would not

    // A start may replay the directory as it stands.
    [[nodiscard]] bool ReplaysAsItStands() const { return damage.empty() && alien.empty() && keyTrouble.empty(); }
};

// Judges every file by itself, since a record never spans two. False when the directory cannot be read; errno tells
// why.
[[nodiscard]] bool ReadGenerationLog(suts_tsspec const& spec, std::string const& directory, GenerationLog& log);

// Whether a recovery directory holds log files with bytes, and what does not belong there; opens none of them. A
// directory that is missing holds nothing. False when it cannot be read; errno tells why.
[[nodiscard]] bool LookIntoGeneration(std::string const& directory, bool& hasBytes, std::vector<std::string>& alien);

// The whole records of several files, file by file. The schema and the pieces must outlive it.
class WholeRecords {
 public:
    WholeRecords(suts_tsspec const& spec, std::vector<LogPiece> const& pieces) : spec_(spec), pieces_(pieces) {}

    // The next record with all its bytes; false at the end, or when a file can no longer be read: HasFailed().
    [[nodiscard]] bool Next();
    [[nodiscard]] std::string const& Bytes() const { return bytes_; }
    [[nodiscard]] bool HasFailed() const { return failed_; }

 private:
    suts_tsspec const& spec_;
    std::vector<LogPiece> const& pieces_;
    std::size_t piece_ = 0;      // the next one to be opened
    std::vector<LogFile> file_;  // the one being read
    std::unique_ptr<LogWalker> walker_;
    std::string bytes_;
    bool failed_ = false;
};

// How many records of the newer log, from its first on, the older ones hold as well, in the same order. A generation
// that has done no more than replay others holds nothing but such records, less those that it has shipped.
struct LogOverlap {
    unsigned long records = 0;
    bool isWhole = false;  // these are all the records of the newer log
};
[[nodiscard]] LogOverlap CompareLogs(suts_tsspec const& spec, std::vector<LogPiece> const& older,
                                     std::vector<LogPiece> const& newer);
