// What is sent: records of one of three kinds, in frames that are ready before the clock starts.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "uts_tsspec.h"

struct bench_WorkloadOptions {
    std::string name;  // ticks, many or wide
    long records = 0;  // 0, as in keys and below -1: what the workload is usually measured with
    long keys = 0;
    long latenessUs = -1;  // the most that a late record is late
    unsigned long seed = 1;
};

// The same options give the same bytes. Memory grows with the records.
class bench_Workload {
 public:
    struct Key {
        std::string wire;            // field 0
        unsigned long records = 0;   // sent with this key
        unsigned long checksum = 0;  // sum over what follows the key in ship messages
    };

    // The text of a schema file; empty for a name that is not known.
    [[nodiscard]] static std::string_view Schema(std::string_view name);

    // spec: Schema(options.name), loaded.
    bench_Workload(bench_WorkloadOptions const& options, suts_tsspec const& spec);

    [[nodiscard]] long Records() const { return records_; }
    [[nodiscard]] std::vector<Key> const& Keys() const { return keys_; }  // in the order of their first records
    [[nodiscard]] std::vector<std::size_t> const& FrameEnds() const { return frameEnds_; }
    [[nodiscard]] std::span<unsigned char const> Bytes() const { return {bytes_.get(), size_}; }
    [[nodiscard]] Key const& HottestKey() const;

    static constexpr long START_US = 1700000000000000;

 private:
    static constexpr std::size_t FRAME_BODY_BYTES = 64 * 1024;

    long records_ = 0;
    std::vector<Key> keys_;
    std::vector<std::size_t> frameEnds_;  // from the first byte of the first frame
    std::unique_ptr<unsigned char[]> bytes_;
    std::size_t size_ = 0;
};
