#include "uts_recorddecoder.h"

#include <cstdio>

bool suts_RecordDecoder::Next(sutl_NetorderByteField& frame, long& time, sutl_RawBytefield& key,
                              sutl_RawBytefield& value) {
    ++records_;
    record_.Reset();
    int keyBytes = 0;
    for (int i = 0; i < spec_.fieldCount; ++i) {
        suts_FieldFault const fault = suts_TakeSpecField(frame, spec_, i, record_);
        if (fault != FIELD_WHOLE) {
            ReportField(fault, i, frame.Count());
            return false;
        }
        if (i > 0) continue;
        keyBytes = record_.Size();
        // The time stamp stands behind the key.
        if (frame.Count() < SUTS_NUMBER8_BYTES) {
            fprintf(stderr, "ERROR, malformed frame: it ends inside the time stamp of record %lu\n", records_);
            return false;
        }
        unsigned long timeBits;
        frame.GetNext8Byte(&timeBits, 1);
        time = static_cast<long>(timeBits);
    }
    key.Assign(record_.Data(), keyBytes);
    value.Assign(record_.Data() + keyBytes, record_.Size() - keyBytes);
    return true;
}

void suts_RecordDecoder::ReportField(suts_FieldFault fault, int index, int bytesLeft) const {
    char const* const name = spec_.fieldNames[static_cast<std::size_t>(index)].get();
    if (fault == FIELD_CUT) {
        fprintf(stderr, "ERROR, malformed frame: it ends inside field %s of record %lu\n", name, records_);
    } else {
        fprintf(stderr, "ERROR, malformed frame: field %s of record %lu claims more bytes than the %d that are left\n",
                name, records_, bytesLeft);
    }
}
