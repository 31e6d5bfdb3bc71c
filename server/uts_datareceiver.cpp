#include "uts_datareceiver.h"

#include <cstdio>

#include "sutl_stopsignal.h"

suts_DataReceiver::RunEnd suts_DataReceiver::Run() {
    if (!AcceptProducer()) return ACCEPT_END;
    if (TakeFrames() == FRAME_TERMINATION) return TERMINATION_END;
    endpoint_.CloseConnections();
    return CONNECTION_END;
}

bool suts_DataReceiver::AcceptProducer() {
    sutl_StopScope const first(endpoint_.FirstListener());
    sutl_StopScope const second(endpoint_.SecondListener());
    return endpoint_.AcceptPair(&stop_);
}

// Returns what the conversation has ended with; FRAME_READY when it was a malformed frame.
sutl_FrameResult suts_DataReceiver::TakeFrames() {
    sutl_StopScope const connection(endpoint_.FirstConnection());
    for (;;) {
        sutl_FrameResult const result = sutl_ReceiveFrame(endpoint_.FirstConnection(), field_);
        if (result != FRAME_READY || !TakeRecords()) return result;
    }
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
