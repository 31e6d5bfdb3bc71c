// From the spool to the destination.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "brindle_shipreader.h"
#include "destination.h"
#include "numbers.h"
#include "progress.h"
#include "ship_spool.h"
#include "spool.h"
#include "watermark_file.h"

// Writes what the spool holds to the destination, a transaction per cycle. With each transaction goes a state that says
// how far it has come; when the destination was away, or a transaction is in doubt, the work goes on from the state
// that the destination has. One thread.
class ShipWriter {
 public:
    struct Options {
        int sequenceField = -1;              // index of the field with the record's number; -1: none
        std::vector<unsigned long> streams;  // that are let in even if the destination does not know them yet
        std::vector<std::string> dropKeys;   // records of these keys, as plain text, are left out
        bool stats = false;                  // a line per cycle
    };
    // What has been written since the start.
    struct Totals {
        unsigned long cycles = 0;
        unsigned long incomplete = 0;  // cycles that have no end
        unsigned long keys = 0;        // announced
        unsigned long records = 0;     // written
        unsigned long doubles = 0;     // left out: their number was there already
        unsigned long merged = 0;      // left out: an equal record was there already
        unsigned long dropped = 0;     // left out on demand
        unsigned long rejected = 0;    // refused by the destination, or of messages that cannot be read
        unsigned long malformed = 0;   // messages
    };
    enum Result : std::uint8_t {
        DRAINED,    // the receiver is done and everything is written
        LEFT,       // the receiver is done, and what is left stays in the spool: the destination is away or slow
        REFUSED,    // Problem() tells
        SPOOL_LOST  // the spool cannot be read: Problem() tells
    };
    using Say = std::function<void(std::string const&)>;

    ShipWriter(suts_tsspec const& spec, Spool& spool, Destination& destination, WatermarkWriter& watermarks,
               Options options, Say say, Progress& progress);

    // A first try to open the destination, so that one that refuses is known before a server comes. False when it does.
    [[nodiscard]] bool Prepare() { return OpenDestination() != Destination::REFUSED; }

    // Works until the receiver is done. Says when the destination goes away and when it is back.
    [[nodiscard]] Result Run(ShipReceiver const& receiver);

    [[nodiscard]] std::string const& Problem() const { return problem_; }
    [[nodiscard]] Totals const& Written() const { return totals_; }
    // Of a drained spool: nothing of it is needed by the destination any more.
    [[nodiscard]] unsigned long BytesLeft() const { return spool_.Bytes(); }

 private:
    using Clock = std::chrono::steady_clock;

    // What is known of a cycle that has begun.
    struct Cycle {
        bool begun = false;
        unsigned long blocks = 0;
        unsigned long keys = 0;
        unsigned long records = 0;
        unsigned long bytes = 0;
        long newestUs = -1;
    };
    // What has to be forgotten when a transaction is not committed.
    struct State {
        SpoolPosition position;
        unsigned long cycles = 0;
        std::map<unsigned long, StreamRanges> streams;
    };

    [[nodiscard]] Destination::Status OpenDestination();
    [[nodiscard]] Destination::Status TakeEntries();
    [[nodiscard]] Destination::Status TakeEntry(ShipEntryView const& entry);
    [[nodiscard]] Destination::Status TakeMessage(ShipEntryView const& entry, bool cut);
    [[nodiscard]] Destination::Status TakeRecord(Cycle& cycle);
    [[nodiscard]] Destination::Status Commit(Cycle const& cycle, bool isComplete);
    [[nodiscard]] Destination::Status CommitOpenCycles();
    [[nodiscard]] Destination::Status BeginIfNeeded();
    void TellWatermark(int error);
    [[nodiscard]] Destination::Status Refuse(std::string problem);
    [[nodiscard]] Destination::Status CheckNumber(bool& isNew);
    [[nodiscard]] bool IsDropped() const;
    [[nodiscard]] std::string StateText() const;
    [[nodiscard]] bool ParseState(std::string const& text);
    void Publish();

    suts_tsspec const& spec_;
    Spool& spool_;
    Destination& destination_;
    WatermarkWriter& watermarks_;
    Options const options_;
    Say const say_;
    Progress& progress_;
    brindle_ShipReader reader_;
    State state_;
    Totals totals_;                          // of what was committed
    Totals pending_;                         // with what the open transaction adds
    std::map<unsigned long, Cycle> cycles_;  // of each connection
    std::vector<unsigned char> entry_;
    bool isOpen_ = false;  // the destination
    bool inTransaction_ = false;
    bool spoolLost_ = false;
    std::optional<Clock::time_point> lateAt_;  // after a signal: when what is left stays in the spool
    bool isLate_ = false;
    int watermarkError_ = 0;  // of the last try
    std::string problem_;
};
