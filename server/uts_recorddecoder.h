// Records out of the frames of a producer.
#pragma once

#include "sutl_netorderbytefield.h"
#include "sutl_rawbytefield.h"
#include "uts_fieldtranslation.h"
#include "uts_tsspec.h"

// Takes the records of a frame apart, one by one, and never reads beyond the frame. Keeps its working space from record
// to record. Owned by the thread that receives. The schema must have a key field and outlive the decoder.
class suts_RecordDecoder {
 public:
    explicit suts_RecordDecoder(suts_tsspec const& spec) : spec_(spec) {}

    // A new frame begins: records are counted from 1 again, for the reports.
    void StartFrame() { records_ = 0; }

    // Takes the next record off the frame, which must hold something: time in microseconds, key and value in stored
    // form, whose heap arrays the caller owns. False, reported on standard error, for a frame that ends inside a record
    // or a field that claims more than the frame holds; the frame is then of no further use and nothing is to be freed.
    [[nodiscard]] bool Next(sutl_NetorderByteField& frame, long& time, sutl_RawBytefield& key,
                            sutl_RawBytefield& value);

 private:
    void ReportField(suts_FieldFault fault, int index, int bytesLeft) const;

    suts_tsspec const& spec_;
    suts_ByteScratch record_;    // key, then value, of the record at hand
    unsigned long records_ = 0;  // of the frame, so far
};
