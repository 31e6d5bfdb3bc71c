// The pace of the feeding thread.
#pragma once

#include "uts_stgrecovery.h"

// Holds the feeding thread back while the organizer is far behind, so that a producer which sends flat out is read a
// little more slowly than the organizer takes, and the backlog shrinks. An organizer that waits for the consumer holds
// nobody back: then the log is to grow. Owned by the stager, for the feeding thread.
class suts_StgPace {
 public:
    static constexpr unsigned long BACKLOG_RECORDS = 1000000;  // up to here nothing is held back

    explicit suts_StgPace(suts_StgRecovery const& recovery, unsigned long backlogMax = BACKLOG_RECORDS)
        : recovery_(recovery), backlogMax_(backlogMax) {}

    // To be called after each record. Blocks as long as the organizer must go on first.
    void Keep() {
        if (++records_ < STEP_RECORDS) return;
        records_ = 0;
        if (recovery_.Untaken() > backlogMax_) [[unlikely]]
            Wait();
    }

 private:
    // Between two looks at the backlog: many, since a thread that sleeps on a busy machine wakes up late.
    static constexpr unsigned long STEP_RECORDS = 1UL << 16;
    static constexpr unsigned long STEP_TAKEN = STEP_RECORDS + STEP_RECORDS / 16;  // that the organizer takes meanwhile

    void Wait();

    suts_StgRecovery const& recovery_;
    unsigned long const backlogMax_;  // records
    unsigned long records_ = 0;       // since the last look
    unsigned long taken_ = 0;         // by the organizer, as it was at the end of the last wait
};
