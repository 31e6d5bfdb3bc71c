// Bounds what a power cut costs: the server never syncs its files.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "sutl_descriptor.h"

// Syncs the files of a recovery directory that somebody else writes, by descriptors of its own. One thread at a time.
class RecoverySyncer {
 public:
    // The directory from now on; what was known of another is forgotten.
    void Watch(std::string const& directory);
    // Puts on disk what has been written so far. Blocks as long as the disk takes; files that have not changed cost
    // nothing. False with errno when something was not synced: it is tried again next time.
    [[nodiscard]] bool Sync();

 private:
    struct File {
        sutl_Descriptor file;   // closed when nothing more can come
        off_t syncedBytes = 0;  // that are on disk
        bool isDone = false;
    };

    // Opens what is new, and lets go of what was removed, whose room a descriptor would hold.
    [[nodiscard]] bool LookForFiles();

    std::string directory_;
    std::map<std::string, File> files_;
    bool hasNewNames_ = false;
};
