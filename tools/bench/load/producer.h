// The producer: sends a workload, at a rate or as fast as it is taken.
#pragma once

#include <atomic>
#include <chrono>
#include <limits>
#include <vector>

#include "histogram.h"
#include "workload.h"

struct bench_ProducerOptions {
    double rate = 0;  // records per second; 0: each frame as soon as the one before was taken
    unsigned long records = std::numeric_limits<unsigned long>::max();    // in whole frames, the last of which may go
                                                                          // beyond; more than a lap is sent in laps
    std::chrono::nanoseconds duration = std::chrono::nanoseconds::max();  // no frame is begun later
    std::chrono::nanoseconds lagMax = std::chrono::nanoseconds::max();    // how much of a lag is made up for
};

// Sends the workload lap after lap, event time going on, a frame a call, in a thread of its own. Every header begins a
// segment: it is never cut. The frames have intended starts, the time of their first records by the rate, from which a
// frame that could not be sent in time has waited; without a rate that is when it was sent.
class bench_Producer {
 public:
    using Clock = std::chrono::steady_clock;

    // The thread that runs changes the times of the workload; it may be traced when that has ended.
    bench_Producer(bench_Workload& workload, int connection, bench_ProducerOptions const& options);

    void Run();                            // ends the stream when all is sent, or the peer has gone
    void Stop() { stopped_.store(true); }  // no further frame; from any thread

    // From any thread.
    [[nodiscard]] unsigned long Frames() const { return frames_.load(std::memory_order_acquire); }  // that were taken
    [[nodiscard]] unsigned long Records() const { return records_.load(std::memory_order_relaxed); }
    [[nodiscard]] bool Done() const { return done_.load(); }
    // The intended start of a frame, counted from 0 through all laps, that was begun: false when that is not known any
    // more.
    [[nodiscard]] bool IntendedStart(unsigned long frame, Clock::time_point& start) const;

    // When Run has ended.
    [[nodiscard]] Clock::time_point Start() const { return start_; }
    [[nodiscard]] std::chrono::nanoseconds SendTime() const { return sendTime_; }
    [[nodiscard]] std::chrono::nanoseconds BlockedTime() const { return blockedTime_; }  // waited for the peer
    [[nodiscard]] unsigned long Bytes() const { return bytes_; }
    [[nodiscard]] bench_Histogram const& Latencies() const { return latencies_; }  // from intended start to taken
    [[nodiscard]] int Error() const { return error_; }                             // errno of a send that failed, or 0

 private:
    static constexpr std::size_t STARTS = 1 << 18;  // intended starts that are remembered

    bool SendFrame(std::size_t frame, unsigned long lap);

    bench_Workload& workload_;
    int const connection_;
    bench_ProducerOptions const options_;
    Clock::time_point start_;
    Clock::time_point due_;  // of the frame at hand
    std::vector<std::atomic<Clock::rep>> starts_ = std::vector<std::atomic<Clock::rep>>(STARTS);  // by frame
    std::chrono::nanoseconds sendTime_{0};
    std::chrono::nanoseconds blockedTime_{0};
    unsigned long bytes_ = 0;
    int error_ = 0;
    bench_Histogram latencies_;
    std::atomic<unsigned long> frames_{0};
    std::atomic<unsigned long> records_{0};
    std::atomic<bool> stopped_{false};
    std::atomic<bool> done_{false};
};
