// The producer's stream, taken apart into records.
#pragma once

#include "layout.h"
#include "sutl_frame.h"

// A record on the wire: key, time, other fields.
struct bench_WireRecord {
    unsigned char const* key;
    unsigned char const* behindKey;  // where its time stands
    unsigned char const* end;

    [[nodiscard]] unsigned char const* Value() const { return behindKey + SUTS_NUMBER8_BYTES; }
    [[nodiscard]] unsigned long Time() const { return bench_Number8(behindKey); }
};

class bench_RecordReader {
 public:
    explicit bench_RecordReader(suts_tsspec const& spec)
        : keyShape_(spec, 0, 1), valueShape_(spec, 1, spec.fieldCount) {}

    // Hands every record that is whole to the function. Returns where it stopped: what lies behind must stand before
    // the next bytes.
    template <typename Hand>
    unsigned char const* Take(unsigned char const* at, unsigned char const* end, Hand&& hand) {
        while (true) {
            if (frameLeft_ == 0) {
                if (end - at < static_cast<long>(SUTL_FRAME_HEADER_BYTES)) return at;
                frameLeft_ = bench_Number4(at);
                at += SUTL_FRAME_HEADER_BYTES;
                continue;
            }
            unsigned char const* const behindKey = keyShape_.Behind(at, end);
            if (behindKey == nullptr || end - behindKey < SUTS_NUMBER8_BYTES) return at;
            unsigned char const* const next = valueShape_.Behind(behindKey + SUTS_NUMBER8_BYTES, end);
            if (next == nullptr) return at;
            frameLeft_ -= next - at;
            hand(bench_WireRecord{at, behindKey, next});
            at = next;
        }
    }

 private:
    bench_Shape const keyShape_;
    bench_Shape const valueShape_;
    long frameLeft_ = 0;  // bytes of the frame at hand
};

// When the records are handed on: as soon as one is half a window or more ahead of where the last hand-off was.
class bench_HandOffs {
 public:
    explicit bench_HandOffs(long windowUs) : halfWindowUs_(static_cast<unsigned long>(windowUs) / 2) {}

    // Whether what came before the record of this time is due.
    [[nodiscard]] bool Due(unsigned long time) {
        if (time < dueFrom_) return false;
        bool const first = dueFrom_ == 0;
        dueFrom_ = (time / halfWindowUs_ + 1) * halfWindowUs_;
        return !first;
    }

 private:
    unsigned long const halfWindowUs_;
    unsigned long dueFrom_ = 0;  // a record of this time or later starts the next; 0 before the first record
};
