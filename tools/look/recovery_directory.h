// What lies in a recovery directory, by its names alone.
#pragma once

#include <string>
#include <vector>

#include "log_walker.h"

// Reads no file. The lists are sorted.
struct RecoveryDirectory {
    std::string path;
    std::vector<LogFile> files;           // F1, F2, ...: what a replay reads, in its order
    std::vector<std::string> foreign;     // names at which a start gives up
    std::vector<std::string> passedOver;  // F0, F007: legal, but never read
    std::vector<std::string> notFiles;    // F files and KeyFile that are directories, pipes and the like
    std::vector<LogFile> behindMisnamed;  // what a replay never comes to, because of misnamed
    std::string misnamed;                 // a number that is there only with leading zeros, which ends a replay
    bool hasKeyFile = false;
    long numbersMissing = 0;  // between the first and the last file

    // False when the directory cannot be read to its end; errno tells why.
    [[nodiscard]] bool Read(std::string const& directory);
    [[nodiscard]] std::string KeyFilePath() const { return path + "/KeyFile"; }
    // The files with those behind a misnamed one, and that one: all that holds records.
    [[nodiscard]] std::vector<LogFile> AllFiles() const;
};

// Processes of this machine, this one left out, that have a file of the directory open; "1234 (name)" each. Finds those
// that the user may look at.
[[nodiscard]] std::vector<std::string> ProcessesUsing(std::string const& directory);
