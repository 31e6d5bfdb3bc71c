// Numbered records, kept on disk until the destination has them.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "brindle_connection.h"
#include "delivery.h"
#include "server_link.h"
#include "spool.h"
#include "watermark_file.h"

// Delivers frames so that the destination comes to hold every record, whatever crashes on the way: each frame is on
// disk with the numbers of its records before it is sent, and stays there until the watermark that the sink writes has
// passed it. When the server ends, or the sink accepts a server anew, everything above the watermark is sent again;
// what arrives twice is left out by the sink. One thread.
class SpooledDelivery : public Delivery {
 public:
    struct Options {
        std::string spoolPath;
        std::string statePath;      // stream and next number; in the spool when empty
        std::string watermarkPath;  // the sink's
        unsigned long stream = 0;   // 0: as the state says; chosen at random for a new one
    };
    using Say = std::function<void(std::string const&)>;

    // The link's wait is also that for the watermark to move on at the end.
    SpooledDelivery(Options options, ServerLink link, Say say)
        : options_(std::move(options)), link_(std::move(link)), say_(std::move(say)) {}

    // Finds what an earlier run has left: its frames are sent first. DONE, or BAD_CONFIGURATION when they do not belong
    // to the state or the destination.
    [[nodiscard]] ExitCode Open();
    // The input position of the last frame that is safe; empty when there is none.
    [[nodiscard]] std::string const& InputPosition() const { return inputPosition_; }
    [[nodiscard]] bool WasFinished() const { return wasFinished_; }  // the earlier run came to its end

    [[nodiscard]] ExitCode Deliver(brindle_Message& frame, unsigned long records,
                                   std::string_view inputPosition) override;
    [[nodiscard]] ExitCode Idle() override;
    [[nodiscard]] ExitCode Finish() override;
    [[nodiscard]] long TakeNumber() override;
    void ReturnNumber() override { --taken_; }
    [[nodiscard]] bool IsConnected() const override { return connection_.IsOpen(); }

    [[nodiscard]] unsigned long Stream() const { return stream_; }
    [[nodiscard]] unsigned long Resends() const { return resends_; }

 private:
    using Clock = std::chrono::steady_clock;

    struct Frame {
        unsigned long first;  // numbers of its records
        unsigned long last;
        unsigned long bytes;
    };
    struct Entry {
        SpoolPosition at;
        unsigned long first;
        unsigned long last;
    };

    [[nodiscard]] ExitCode LoadState();
    [[nodiscard]] bool SaveState(bool isClean) const;
    [[nodiscard]] ExitCode IndexSpool();
    [[nodiscard]] bool ParseEntry(std::vector<Frame>& frames, std::string& position, std::size_t& bodyOffset) const;
    [[nodiscard]] ExitCode Flush();
    [[nodiscard]] ExitCode Pump();
    [[nodiscard]] ExitCode SendEntry();
    [[nodiscard]] ExitCode LookAtWatermark(bool& isRaised);
    [[nodiscard]] ExitCode Watch();
    [[nodiscard]] SpoolPosition FirstNeeded() const;
    [[nodiscard]] ExitCode Resend(std::string const& reason);
    [[nodiscard]] ExitCode AwaitWatermark(bool& reached);
    void Trim();
    [[nodiscard]] ExitCode Fail(ExitCode code, std::string const& text) const { return link_.Fail(code, text); }
    [[nodiscard]] std::string StatePath() const;

    Options const options_;
    ServerLink const link_;
    Say const say_;
    Spool spool_;
    brindle_Connection connection_;
    unsigned long stream_ = 0;
    std::string inputPosition_;
    bool wasFinished_ = false;
    unsigned long taken_ = 0;      // the greatest number given to a record
    unsigned long delivered_ = 0;  // the greatest number in a frame handed over
    std::vector<Frame> pending_;   // frames that are not in the spool yet
    std::vector<unsigned char> pendingBytes_;
    std::deque<Entry> entries_;  // of the spool, oldest first
    SpoolPosition next_;         // of the entry that is sent next
    std::vector<unsigned char> entry_;
    unsigned long watermark_ = 0;
    unsigned long epoch_ = 0;  // last seen; 0: none
    Clock::time_point lastWatch_;
    unsigned long watermarkAtResend_ = 0;
    int stuck_ = 0;  // resends in a row without progress of the watermark
    unsigned long resends_ = 0;
    bool hasSent_ = false;    // over the connection
    int watermarkError_ = 0;  // errno of the file, told once
};
