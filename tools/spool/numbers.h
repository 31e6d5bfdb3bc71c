// Numbered records: which of a stream are there.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

// The number of a record, as it stands in an int64 field: the stream's id above, the count within the stream below. A
// sender numbers what it accepts from 1, without holes. The value 0 is that of a heartbeat, which is not counted.
struct StreamNumber {
    static constexpr int COUNT_BITS = 40;
    static constexpr unsigned long COUNT_MAX = (1UL << COUNT_BITS) - 1;
    static constexpr unsigned long STREAM_MAX = (1UL << (63 - COUNT_BITS)) - 1;

    unsigned long stream;
    unsigned long count;

    [[nodiscard]] long Value() const { return static_cast<long>(stream << COUNT_BITS | count); }
    // None for a value that no sender gives.
    [[nodiscard]] static std::optional<StreamNumber> Of(long value) {
        if (value < 0) return std::nullopt;
        StreamNumber const number = {static_cast<unsigned long>(value) >> COUNT_BITS,
                                     static_cast<unsigned long>(value) & COUNT_MAX};
        if (number.stream == 0 || number.count == 0) return std::nullopt;
        return number;
    }
};

// The counts of one stream that are there: all up to the watermark, and ranges above it. One thread at a time.
class StreamRanges {
 public:
    [[nodiscard]] bool Has(unsigned long count) const;
    // False when it was there already.
    bool Add(unsigned long count);

    [[nodiscard]] unsigned long Watermark() const { return watermark_; }

    // The ranges as text, such as "1-1000,1003,1005-1010".
    [[nodiscard]] std::string Text() const;
    // None for a text that Text does not write.
    [[nodiscard]] static std::optional<StreamRanges> Of(std::string_view text);

 private:
    unsigned long watermark_ = 0;
    std::map<unsigned long, unsigned long> above_;  // first to last; neither touching each other nor the watermark
};
