#include "producer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "connections.h"

bench_Producer::bench_Producer(bench_Workload& workload, int connection, bench_ProducerOptions const& options)
    : workload_(workload), connection_(connection), options_(options) {}

void bench_Producer::Run() {
    start_ = due_ = Clock::now();
    std::size_t const perLap = workload_.Frames().size();
    unsigned long frame = 0;
    while (SendFrame(frame % perLap, frame / perLap)) ++frame;
    sendTime_ = Clock::now() - start_;
    shutdown(connection_, SHUT_WR);
    done_.store(true);
}

// False when the frame was not sent.
bool bench_Producer::SendFrame(std::size_t frame, unsigned long lap) {
    if (stopped_.load() || records_.load(std::memory_order_relaxed) >= options_.records) return false;
    if (options_.rate > 0) std::this_thread::sleep_until(due_);
    Clock::time_point const begin = Clock::now();
    Clock::time_point const intended = options_.rate > 0 ? due_ : begin;
    if (intended - start_ >= options_.duration) return false;
    unsigned long const number = frames_.load(std::memory_order_relaxed);
    starts_[number % STARTS].store(intended.time_since_epoch().count(), std::memory_order_relaxed);
    if (lap > 0) workload_.ShiftLap(frame, 1);
    auto const bytes = workload_.FrameBytes(frame);
    if (!bench_Send(connection_, bytes, bytes.size(), MSG_EOR)) {
        error_ = errno;
        return false;
    }
    Clock::time_point const taken = Clock::now();
    latencies_.Add(taken - intended);
    blockedTime_ += taken - begin;
    bytes_ += bytes.size();
    unsigned long const records = workload_.FrameRecords(frame);
    records_.store(records_.load(std::memory_order_relaxed) + records, std::memory_order_relaxed);
    frames_.store(number + 1, std::memory_order_release);
    if (options_.rate > 0) {
        std::chrono::duration<double> const share(static_cast<double>(records) / options_.rate);
        due_ += std::chrono::duration_cast<Clock::duration>(share);
        if (taken - due_ > options_.lagMax) due_ = taken - options_.lagMax;
    }
    return true;
}

bool bench_Producer::IntendedStart(unsigned long frame, Clock::time_point& start) const {
    // What is asked for may be the frame that is being sent, of which a part has arrived.
    unsigned long const taken = Frames();
    if (frame > taken || taken - frame >= STARTS) return false;
    start = Clock::time_point(Clock::duration(starts_[frame % STARTS].load(std::memory_order_relaxed)));
    return true;
}
