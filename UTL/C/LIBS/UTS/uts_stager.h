// The stager: the one object through which records reach the staging core.
#pragma once

#include <atomic>
#include <cstdio>

#include "sutl_rawbytefield.h"
#include "uts_stgorganizer.h"
#include "uts_stgpace.h"
#include "uts_stgrecovery.h"
#include "uts_stgrotransfer.h"
#include "uts_stgshipper.h"
#include "uts_tsspec.h"

// Owns the recovery writer, the shipper and the organizer, which are built in this order and destroyed in reverse.
// Owned by the entry, whose thread makes every call.
class suts_Stager {
 public:
    // Returns when the recovery directory is open, the threads run and the replay of recoverFromPath (null: none) is
    // complete, or was ended by stop, which is reported. A failure of a part is reported by it and ends the process.
    // windowWidth: microseconds. tuning and log have no effect. The schema must outlive the stager.
    suts_Stager(char const* recoveryPath, char const* recoverFromPath, suts_tsspec const& spec, long windowWidth,
                long tuning, char const* shipHost, unsigned short shipPort1, unsigned short shipPort2, FILE* log,
                std::atomic<bool> const& stop, long messageBytesMax = SUTS_MESSAGE_BYTES_MAX);
    suts_Stager(suts_Stager const&) = delete;
    suts_Stager& operator=(suts_Stager const&) = delete;
    // Without Terminate before it, an assertion.
    ~suts_Stager();

    // Results of AddRecord.
    enum : int { RECORD_ADDED = 0, RECORD_REFUSED = 1 };

    // Logs a record and hands it to the organizer; what both byte fields hold is copied. Blocks for a while where the
    // organizer is far behind and makes headway. A record with a negative time stamp, which would be taken for the end
    // of the stream, or too large for a ship message is refused: nothing of it goes on, and standard error tells so for
    // the first refused record and then in growing decades.
    int AddRecord(long time, sutl_RawBytefield const& first, sutl_RawBytefield const& second) {
        bool const tooLarge = first.length + static_cast<long>(second.length) > recordBytesMax_;
        if (time < 0 || tooLarge) [[unlikely]] { return Refuse(time, first.length + static_cast<long>(second.length)); }
        suts_StgLogPosition const position = recovery_.AppendRecord(time, first, second);
        organizer_.Put(recovery_.CountRecord(), time, first, second, position);
        pace_.Keep();
        return RECORD_ADDED;
    }

    // Ships what is staged, stops the threads and closes the log. Once, before the destructor.
    void Terminate();

    [[nodiscard]] suts_StgOrganizer& Organizer() { return organizer_; }

 private:
    int Refuse(long time, long bytes);
    void Replay(char const* recoverFromPath, std::atomic<bool> const& stop);
    // The checks that must fail before anything is created.
    static char const* CheckedStart(char const* recoveryPath, long windowWidth);

    suts_tsspec const& spec_;
    long const recordBytesMax_;  // key and value, stored form
    suts_StgRecovery recovery_;
    suts_StgShipper shipper_;
    suts_StgOrganizer organizer_;
    suts_StgPace pace_;
    unsigned long refused_ = 0;      // records that were not taken
    unsigned long refusedStep_ = 1;  // how many make the next report due: 1, 10, 100, ...
};
