#include "uts_datareceiver.h"

#include <cstdio>

#include "sutl_frame.h"

suts_DataReceiver::RunEnd suts_DataReceiver::Run() {
    if (!endpoint_.AcceptPair()) return ACCEPT_END;
    sutl_FrameResult result;
    do {
        result = sutl_ReceiveFrame(endpoint_.FirstConnection(), field_);
        if (result == FRAME_TERMINATION) return TERMINATION_END;
    } while (result == FRAME_READY && TakeRecords());
    endpoint_.CloseConnections();
    return CONNECTION_END;
}

// Hands the records of the frame on, as far as it is well-formed. False when it is not.
bool suts_DataReceiver::TakeRecords() {
    if (!spec_.HasKeyField()) {
        fputs("ERROR, the schema has no key field: no record can be taken\n", stderr);
        return false;
    }
    decoder_.StartFrame(field_);
    while (!decoder_.FrameIsDone()) {
        long time = 0;
        sutl_RawBytefield key;
        sutl_RawBytefield value;
        if (!decoder_.Next(time, key, value)) return false;
        stager_.AddRecord(time, key, value);
    }
    return true;
}
