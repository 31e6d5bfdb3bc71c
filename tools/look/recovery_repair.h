// Writes a clean recovery directory from damaged ones.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "key_file_writer.h"
#include "log_walker.h"
#include "recovery_file_writer.h"
#include "uts_tsspec.h"

// A part of a damaged directory that is not in the clean one.
struct SetAsidePart {
    std::string from;  // the file it stood in
    long offset = 0;
    long bytes = 0;
    std::string reason;
    std::string name;  // of the file that holds it
};

struct RepairReport {
    unsigned long records = 0;  // kept
    long bytes = 0;             // of these
    unsigned long files = 0;    // written, KeyFile left out
    unsigned long keys = 0;     // in the new KeyFile
    unsigned long inexact = 0;  // records kept although their length is not that of the fields
    unsigned long leftOut = 0;  // whole records that a replay refuses; in the files set aside
    long setAsideBytes = 0;
    std::vector<SetAsidePart> parts;  // set aside
    unsigned long unread = 0;         // files, or ends of them, that could not be read: they are in the originals only
    std::vector<std::string> notes;   // what was left where it is, or could not be read
};

// Takes the records of every file as long as they are sound, one file by itself: the log has no marks to go on behind a
// damage but the beginning of the next file. A record whose length is not that of its fields is kept only where a sound
// one, or the file's end, follows. Owned by one thread; the schema must outlive it.
class RecoveryRepair {
 public:
    // into and aside must not exist, or be empty directories; aside is not made where nothing is set aside. Both are
    // written under other names beside them, and renamed when all is on disk: an end by a signal leaves those behind.
    RecoveryRepair(suts_tsspec const& spec, std::string into, std::string aside);
    ~RecoveryRepair();  // removes what was not brought to its end
    RecoveryRepair(RecoveryRepair const&) = delete;
    RecoveryRepair& operator=(RecoveryRepair const&) = delete;

    // The directories, oldest first. False on a failure, which Problem() tells; nothing is left behind then.
    [[nodiscard]] bool Run(std::vector<std::string> const& directories);

    [[nodiscard]] RepairReport const& Report() const { return report_; }
    [[nodiscard]] std::string const& Problem() const { return problem_; }

 private:
    class Log;

    bool Fail(std::string const& what);  // false; with the text of errno
    void NoteUnread(std::string const& what);
    [[nodiscard]] bool MakeFolder(std::string const& final, std::string& temporary);
    [[nodiscard]] bool RepairDirectory(std::string const& directory, std::size_t index);
    [[nodiscard]] bool RepairKeyFile(std::string const& path, std::size_t index);
    [[nodiscard]] bool RepairLog(LogFile const& file, std::size_t index);
    [[nodiscard]] bool SetAside(std::string const& from, std::size_t index, long offset, long bytes,
                                std::string const& reason);
    [[nodiscard]] bool Verify();
    [[nodiscard]] bool Finish();

    suts_tsspec const& spec_;
    long const recordBytesMax_;
    std::string const into_;
    std::string const aside_;
    std::string temporaryInto_;  // empty when there is none
    std::string temporaryAside_;
    std::unique_ptr<KeyFileWriter> keys_;
    std::unique_ptr<RecoveryFileWriter> contents_;  // of what is set aside, once there is any
    RepairReport report_;
    std::string problem_;
};
