#include "load_run.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr std::chrono::milliseconds PROBE_INTERVAL{10};
constexpr unsigned long RECORDS_PER_LOOK = 32;  // at the clock
constexpr unsigned long SAMPLE_FLAT_OUT = 16;   // so that the timing does not hold the server up

std::chrono::nanoseconds ProbeInterval(bench_Workload const& workload, double rate) {
    if (rate <= 0) return PROBE_INTERVAL;
    std::chrono::duration<double> const frame(static_cast<double>(workload.FrameRecords(0)) / rate);
    return std::max<std::chrono::nanoseconds>(PROBE_INTERVAL,
                                              std::chrono::duration_cast<std::chrono::nanoseconds>(frame));
}

}  // namespace

LoadRun::LoadRun(suts_tsspec const& spec, bench_Workload& workload, bench_Pair data, bench_Pair ship,
                 Options const& options)
    : workload_(workload),
      data_(std::move(data)),
      ship_(std::move(ship)),
      producer_(workload, data_.first.Get(), options.producer),
      check_(workload, spec, [this](unsigned long timeUs) { TimeRecord(timeUs); }),
      receiver_(ship_.first.Get(), &check_, options.silenceMax),
      sampleEvery_(options.producer.rate > 0 ? 1 : SAMPLE_FLAT_OUT) {
    bool const isOpenLoop = options.producer.rate > 0;
    for (long i = 0; i < options.clients; ++i) {
        Prober::Options const probing = {.host = options.queryHost,
                                         .ports = options.queryPorts,
                                         .stays = options.clients == 1,
                                         .interval = ProbeInterval(workload, options.producer.rate),
                                         .countsMissed = isOpenLoop,
                                         .windowUs = options.windowUs};
        probers_.push_back(std::make_unique<Prober>(spec, workload, producer_, receiver_, connecting_, probing));
    }
}

void LoadRun::Start() {
    threads_.emplace_back(&bench_Receiver::Run, &receiver_);
    threads_.emplace_back(&bench_Producer::Run, &producer_);
    for (auto const& prober : probers_) threads_.emplace_back(&Prober::Run, prober.get());
}

void LoadRun::End() {
    receiver_.End();
    producer_.Stop();
    shutdown(data_.first.Get(), SHUT_RDWR);
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
}

void LoadRun::TimeRecord(unsigned long timeUs) {
    if (shippedRecords_++ % RECORDS_PER_LOOK == 0) now_ = bench_Producer::Clock::now();
    if (shippedRecords_ % sampleEvery_ != 0) return;
    unsigned long frame = 0;
    bench_Producer::Clock::time_point intended;
    if (workload_.FrameOf(timeUs, frame) && producer_.IntendedStart(frame, intended)) shipped_.Add(now_ - intended);
}

std::string LoadRun::Verdict() {
    if (producer_.Error() != 0) return std::string("the server took no more records: ") + strerror(producer_.Error());
    if (receiver_.Error() != 0) return std::string("the ship connection broke off: ") + strerror(receiver_.Error());
    if (!receiver_.Ended()) return "the run was broken off";
    if (producer_.Frames() != workload_.Frames().size()) workload_.SumUp(producer_.Frames());
    if (std::string reason = check_.Verdict(); !reason.empty()) return reason;
    for (auto const& prober : probers_) {
        if (!prober->Fault().empty()) return prober->Fault();
    }
    return "";
}

bench_Histogram LoadRun::Queryable() const {
    bench_Histogram all;
    for (auto const& prober : probers_) all.Merge(prober->Queryable());
    return all;
}

bench_Histogram LoadRun::Answered() const {
    bench_Histogram all;
    for (auto const& prober : probers_) all.Merge(prober->Answered());
    return all;
}

unsigned long LoadRun::Lost() const {
    unsigned long all = 0;
    for (auto const& prober : probers_) all += prober->Lost();
    return all;
}
