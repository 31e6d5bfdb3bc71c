// Where the parts of a record end on the wire.
#pragma once

#include <vector>

#include "bytes.h"
#include "uts_tsspec.h"

// Consecutive fields of a schema in wire form.
class bench_Shape {
 public:
    // Fields first to last, exclusive.
    bench_Shape(suts_tsspec const& spec, int first, int last);

    // The byte behind the fields that begin here; null when they go beyond the end.
    [[nodiscard]] unsigned char const* Behind(unsigned char const* at, unsigned char const* end) const {
        for (long const fixedBytes : beforeTexts_) {
            if (end - at < fixedBytes) return nullptr;
            at += fixedBytes;
            long const textBytes = bench_Number4(at - SUTS_STRING_LENGTH_BYTES);
            if (end - at < textBytes) return nullptr;
            at += textBytes;
        }
        return end - at < behindTexts_ ? nullptr : at + behindTexts_;
    }

 private:
    std::vector<long> beforeTexts_;  // per string: bytes of the numbers before it and of its length
    long behindTexts_ = 0;           // bytes of the numbers that follow the last string
};
