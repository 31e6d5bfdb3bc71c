// The consumer: reads what a server ships, and has it judged.
#pragma once

#include <atomic>
#include <chrono>

#include "ship_check.h"

// Reads a ship connection to its end in a thread of its own.
class bench_Receiver {
 public:
    using Clock = std::chrono::steady_clock;

    // Without a check bytes are counted only. A server that sends nothing for the longest silence is lost.
    bench_Receiver(int connection, bench_ShipCheck* check, std::chrono::seconds silenceMax);

    void Run();

    // From any thread.
    void Pause(bool paused) { paused_.store(paused); }
    void End() { over_.store(true); }  // leaves soon, whether the stream has ended or not
    [[nodiscard]] unsigned long Records() const { return records_.load(std::memory_order_relaxed); }
    [[nodiscard]] unsigned long LatestUs() const { return latestUs_.load(std::memory_order_relaxed); }
    [[nodiscard]] bool Done() const { return done_.load(); }

    // When Run has ended.
    [[nodiscard]] Clock::time_point Last() const { return last_; }   // when the last record, or raw byte, had come
    [[nodiscard]] double CpuSeconds() const { return cpuSeconds_; }  // of this process until then
    [[nodiscard]] unsigned long Bytes() const { return bytes_; }
    [[nodiscard]] bool Ended() const { return ended_; }  // the stream did, or broke off
    [[nodiscard]] int Error() const { return error_; }   // errno of what broke it off, or 0

 private:
    void Take(std::size_t count);

    int const connection_;
    bench_ShipCheck* const check_;
    std::chrono::seconds const silenceMax_;
    std::vector<unsigned char> buffer_;
    std::size_t kept_ = 0;  // bytes at the start of the buffer that wait for the rest of their part
    Clock::time_point last_;
    double cpuSeconds_ = 0;
    unsigned long bytes_ = 0;
    bool ended_ = false;
    int error_ = 0;
    std::atomic<bool> paused_{false};
    std::atomic<bool> over_{false};
    std::atomic<bool> done_{false};
    std::atomic<unsigned long> records_{0};
    std::atomic<unsigned long> latestUs_{0};  // greatest time of a record
};

// User and system time of this process so far.
[[nodiscard]] double bench_CpuSeconds();
