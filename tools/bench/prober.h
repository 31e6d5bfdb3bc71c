// Finds out when records that were sent can be found by queries.
#pragma once

#include <memory>
#include <mutex>

#include "load_query_client.h"
#include "producer.h"
#include "receiver.h"

// Asks for the last record of the frame that was sent last until the server has it, in a thread of its own, and then
// for that of a later one. A server serves one query client at a time, so that where there are several each leaves
// after every record.
class Prober {
 public:
    struct Options {
        in_addr host;
        bench_Ports ports;
        bool stays = true;                     // there is no other client
        std::chrono::nanoseconds interval{0};  // from probe to probe, unless the server takes longer
        bool countsMissed = false;             // those that had no turn meanwhile, too
        unsigned long windowUs = 0;
    };

    // `connecting` is held by whoever connects: the server pairs connections by their order of arrival.
    Prober(suts_tsspec const& spec, bench_Workload const& workload, bench_Producer const& producer,
           bench_Receiver const& receiver, std::mutex& connecting, Options const& options);

    void Run();  // until the producer is done, or the server gone

    // When Run has ended.
    [[nodiscard]] bench_Histogram const& Queryable() const { return queryable_; }  // from the frame's intended start
    [[nodiscard]] bench_Histogram const& Answered() const { return answered_; }    // from request to reply
    [[nodiscard]] unsigned long Lost() const {
        return lost_;
    }  // records that had left the window before they were found
    [[nodiscard]] std::string const& Fault() const { return fault_; }  // of a reply that cannot be right

 private:
    [[nodiscard]] bool Probe(unsigned long frame);
    [[nodiscard]] bool Connect();

    suts_tsspec const& spec_;
    bench_Workload const& workload_;
    bench_Producer const& producer_;
    bench_Receiver const& receiver_;
    std::mutex& connecting_;
    Options const options_;
    std::unique_ptr<bench_QueryClient> client_;
    bench_Histogram queryable_;
    bench_Histogram answered_;
    unsigned long lost_ = 0;
    std::string fault_;
};
