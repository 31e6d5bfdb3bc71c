// The consumer's half of the driver: takes the ship stream apart and judges it.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "layout.h"
#include "workload.h"

// Compares what is shipped with a workload: every key announced once and before its records, every record once and
// unharmed, the records of a block in the order of time, the stream complete. Reads in place and keeps nothing of a
// record but its share in its key's sums. Owned by one thread.
class bench_ShipCheck {
 public:
    // `onRecord`, if any, is called with the time of every record. The workload's sums are looked at by Verdict alone.
    bench_ShipCheck(bench_Workload const& workload, suts_tsspec const& spec,
                    std::function<void(unsigned long)> onRecord = nullptr);

    // Goes through the bytes as far as they hold whole parts and returns where it stopped: what lies behind must stand
    // before the next bytes. After a fault it takes everything and looks at nothing.
    [[nodiscard]] unsigned char const* Take(unsigned char const* at, unsigned char const* end);

    [[nodiscard]] unsigned long Records() const { return records_; }
    [[nodiscard]] unsigned long Cycles() const { return cycles_; }
    [[nodiscard]] unsigned long LatestUs() const { return latestUs_; }  // greatest time of all records
    [[nodiscard]] std::string const& Fault() const { return fault_; }   // in what has come so far

    // What is wrong with the stream as a whole, once it has ended; empty when nothing is.
    [[nodiscard]] std::string Verdict();

 private:
    struct Seen {
        unsigned long records = 0;
        unsigned long checksum = 0;
        bool announced = false;
    };

    // Each takes one part; null when it is not whole yet.
    unsigned char const* TakeHeader(unsigned char const* at, unsigned char const* end);
    unsigned char const* TakeKey(unsigned char const* at, unsigned char const* end);
    unsigned char const* TakeRecords(unsigned char const* at, unsigned char const* end);
    [[nodiscard]] bool Find(std::string_view key);  // moves key_ there
    unsigned char const* Refuse(char const* text, unsigned char const* end);

    bench_Workload const& workload_;
    std::function<void(unsigned long)> const onRecord_;
    bench_Shape const keyShape_;
    bench_Shape const valueShape_;
    std::unordered_map<std::string_view, std::size_t> index_;  // of the workload's keys by their bytes
    std::vector<Seen> seen_;                                   // per key of the workload
    std::string fault_;
    unsigned long records_ = 0;
    unsigned long cycles_ = 0;
    unsigned long latestUs_ = 0;
    unsigned int type_ = 0;          // of the message at hand
    unsigned int lastType_ = 0;      // of the message before
    long bodyLeft_ = 0;              // bytes of it that were not taken yet
    unsigned long recordsLeft_ = 0;  // of the key block at hand
    unsigned long latest_ = 0;       // time of its last record
    std::size_t key_ = 0;            // of the block at hand
};
