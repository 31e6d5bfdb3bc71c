// One measurement: a workload into a server, what it ships judged, and everything timed on the way.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "prober.h"
#include "producer.h"
#include "receiver.h"

// The threads around one server, from the first frame to the end of its ship stream. Owned by one thread, which calls
// everything.
class LoadRun {
 public:
    struct Options {
        bench_ProducerOptions producer;
        std::chrono::seconds silenceMax{60};  // a server that ships nothing for so long is lost
        long clients = 1;                     // for queries
        in_addr queryHost = {};
        bench_Ports queryPorts;
        unsigned long windowUs = 0;
    };

    LoadRun(suts_tsspec const& spec, bench_Workload& workload, bench_Pair data, bench_Pair ship,
            Options const& options);
    LoadRun(LoadRun const&) = delete;
    LoadRun& operator=(LoadRun const&) = delete;
    ~LoadRun() { End(); }

    void Start();
    [[nodiscard]] bool Done() const { return receiver_.Done(); }  // the ship stream has ended
    void End();  // breaks off what is not done, and waits for the threads; after the server's end, or soon before it

    // When the run has ended.
    [[nodiscard]] std::string Verdict();  // what went wrong; empty when nothing did
    [[nodiscard]] bench_Producer const& Producer() const { return producer_; }
    [[nodiscard]] bench_Receiver const& Receiver() const { return receiver_; }
    [[nodiscard]] bench_ShipCheck const& Check() const { return check_; }
    [[nodiscard]] bench_Histogram const& Shipped() const { return shipped_; }  // from intended start to received
    [[nodiscard]] bench_Histogram Queryable() const;
    [[nodiscard]] bench_Histogram Answered() const;
    [[nodiscard]] unsigned long Lost() const;

 private:
    void TimeRecord(unsigned long timeUs);  // in the receiving thread

    bench_Workload& workload_;
    bench_Pair const data_;
    bench_Pair const ship_;
    bench_Producer producer_;
    bench_ShipCheck check_;
    bench_Receiver receiver_;
    std::mutex connecting_;
    std::vector<std::unique_ptr<Prober>> probers_;
    std::vector<std::thread> threads_;
    unsigned long const sampleEvery_;  // of the records that are shipped one is timed
    unsigned long shippedRecords_ = 0;
    bench_Producer::Clock::time_point now_;
    bench_Histogram shipped_;
};
