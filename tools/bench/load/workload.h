// What is sent: records of one of three kinds, in frames that are ready before the clock starts.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "layout.h"
#include "uts_tsspec.h"

struct bench_WorkloadOptions {
    std::string name;  // ticks, many or wide
    long records = 0;  // 0, as in keys and below -1: what the workload is usually measured with
    long keys = 0;
    long latenessUs = -1;  // the most that a late record is late
    unsigned long seed = 1;
    long stepUs = 0;                           // of event time from record to record, at least 2
    std::size_t frameBodyBytes = 64UL * 1024;  // that a frame is filled up to, if more than one record has room
};

// The same options give the same bytes. Memory grows with the records. The times of records that are not late lie whole
// steps behind START_US, those of late ones never do.
class bench_Workload {
 public:
    struct Key {
        std::string wire;            // field 0
        unsigned long records = 0;   // sent with this key
        unsigned long checksum = 0;  // sum over what follows the key in ship messages
    };

    struct Frame {
        std::size_t end;       // behind its last byte, from the first byte of the first frame
        long recordsEnd;       // records up to its last one
        std::size_t key;       // of its last record that is not late,
        unsigned long timeUs;  // and the time of that in the first lap; 0 when all are late
    };

    // The names of the workloads, and the text of a schema file; empty for a name that is not known.
    [[nodiscard]] static std::vector<std::string> Names();
    [[nodiscard]] static long UsualRecords(std::string_view name);  // of a workload that is known
    [[nodiscard]] static std::string_view Schema(std::string_view name);

    // spec: Schema(options.name), loaded.
    bench_Workload(bench_WorkloadOptions const& options, suts_tsspec const& spec);

    [[nodiscard]] long Records() const { return records_; }
    [[nodiscard]] std::vector<Key> const& Keys() const { return keys_; }  // in the order of their first records
    [[nodiscard]] std::vector<Frame> const& Frames() const { return frames_; }
    [[nodiscard]] std::span<unsigned char const> FrameBytes(std::size_t frame) const;
    [[nodiscard]] unsigned long FrameRecords(std::size_t frame) const;
    [[nodiscard]] std::span<unsigned char const> Bytes() const { return {bytes_.get(), size_}; }
    [[nodiscard]] Key const& HottestKey() const;

    // Laps: the same records once more, event time going on.
    [[nodiscard]] unsigned long LapUs() const { return static_cast<unsigned long>(records_ * stepUs_); }
    // Moves the times of the frame's records by so many laps. Not while another thread reads the bytes.
    void ShiftLap(std::size_t frame, long laps);
    // Makes the sums of the keys those of the first so many frames through all laps, where the lap of each frame's
    // bytes is the last that it was part of. Takes as long as it took to make these.
    void SumUp(unsigned long frames);
    // The frame, counted through all laps, of a record with this time; false for one that is late.
    [[nodiscard]] bool FrameOf(unsigned long timeUs, unsigned long& frame) const;

    static constexpr long START_US = 1700000000000000;

 private:
    // Calls with the place of each record's time and of its end.
    template <typename Call>
    void ForRecords(std::size_t frame, Call call);

    bench_Shape const keyShape_;
    bench_Shape const valueShape_;
    long records_ = 0;
    long stepUs_ = 0;
    std::vector<Key> keys_;
    std::vector<unsigned int> keyOf_;  // of a record: its place in keys_
    std::vector<Frame> frames_;
    std::unique_ptr<unsigned char[]> bytes_;
    std::size_t size_ = 0;
};
