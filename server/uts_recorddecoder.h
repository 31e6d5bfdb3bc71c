// Records out of the frames of a producer.
#pragma once

#include <memory>

#include "sutl_netorderbytefield.h"
#include "sutl_rawbytefield.h"
#include "uts_fieldtranslation.h"
#include "uts_tsspec.h"

// Takes the records of a frame apart, one by one, and never reads beyond the frame. The frame's bytes pass through a
// window in which they lie one behind the other. Owned by the thread that receives. The schema must have a key field
// and outlive the decoder.
class suts_RecordDecoder {
 public:
    explicit suts_RecordDecoder(suts_tsspec const& spec) : spec_(spec) {}

    // A new frame begins, which must be there until its records are taken. Records are counted from 1 again, for the
    // reports.
    void StartFrame(sutl_NetorderByteField& frame);
    [[nodiscard]] bool FrameIsDone() const { return at_ == end_ && frame_->Count() == 0; }

    // Takes the next record off the frame, which must not be done: time in microseconds, key and value in stored form,
    // whose bytes are valid until the next call. False, reported on standard error, for a frame that ends inside a
    // record or a field that claims more than the frame holds; the frame is then of no further use.
    [[nodiscard]] bool Next(long& time, sutl_RawBytefield& key, sutl_RawBytefield& value);

 private:
    static constexpr std::size_t WINDOW_BYTES = 1UL << 13;
    static constexpr std::size_t KEPT_BYTES_MAX = 1UL << 20;  // a single huge record must not hold on to its room

    // Why a record could not be taken.
    struct Fault {
        suts_FieldFault kind = FIELD_WHOLE;
        int field = 0;  // its number; 0 with IN_TIME for the time stamp
        bool inTime = false;
        long bytesLeft = 0;     // of the frame, behind what was read of the field
        long claimedBytes = 0;  // by a string that is too long
    };

    [[nodiscard]] bool TakeFromWindow(long& time, sutl_RawBytefield& key, sutl_RawBytefield& value, Fault& fault);
    void Refill();
    void SetRoom(std::size_t bytes);
    void Report(Fault const& fault) const;

    suts_tsspec const& spec_;
    sutl_NetorderByteField* frame_ = nullptr;
    std::unique_ptr<unsigned char[]> window_;  // bytes taken off the frame
    std::unique_ptr<unsigned char[]> stored_;  // key, then value, of the record at hand; room for any in the window
    std::size_t roomBytes_ = 0;                // of the window
    unsigned char const* at_ = nullptr;        // the next record in the window
    unsigned char const* end_ = nullptr;       // of the window's bytes
    unsigned long records_ = 0;                // of the frame, so far
};
