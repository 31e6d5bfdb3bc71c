// What a recovery directory tells while a server writes it.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "server_process.h"
#include "uts_tsspec.h"

// Looks at one directory again and again, and reads of its files only what is new. One thread at a time; memory is
// bounded by the number of files that are there.
class RecoveryView {
 public:
    // The directory, and the schema for it; without one records and text keys cannot be counted. Forgets what was seen.
    void Watch(std::string const& directory, std::string const& specPath);
    // The server is asked, where it lives, how far it has read its own log; 0: none.
    void Look(pid_t server);

    bool exists = false;
    long files = 0;  // of records
    long bytes = 0;  // in them
    long keyFileBytes = 0;
    long loggedBytes = 0;               // in files that were seen, also those that have gone
    std::optional<unsigned long> keys;  // in the KeyFile
    std::optional<double> recordBytes;  // of a record, on the average of the newest file's start
    std::optional<long> unplacedBytes;  // logged, and still to be read back for the organizer; not for other users

 private:
    void LookAtFiles();
    void CountKeys();
    void SampleRecords();
    void LookAtReader(pid_t server);
    [[nodiscard]] std::size_t KeyBytes(unsigned char const* at, std::size_t left) const;
    [[nodiscard]] std::size_t EntryBytes(unsigned char const* at, std::size_t left) const;

    std::string directory_;
    std::string realDirectory_;
    std::shared_ptr<suts_tsspec> spec_;    // none where it cannot be used
    std::map<unsigned long, long> sizes_;  // of the files by their number
    long goneBytes_ = 0;
    off_t keyOffset_ = 0;  // counted so far
    unsigned long sampledFile_ = 0;
    long sampledBytes_ = 0;
};
