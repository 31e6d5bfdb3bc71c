// How an operation of the client library ended.
#pragma once

// Nothing of the library prints or throws: what went wrong is one of these, and the caller says it in its own words.
enum [[nodiscard]] brindle_Result{
    BRINDLE_DONE,
    BRINDLE_MALFORMED,     // bytes that do not parse, or values that the schema or the server does not allow
    BRINDLE_STREAM_ENDED,  // the other side closed between two frames
    BRINDLE_STREAM_CUT,    // the other side closed inside a frame
    BRINDLE_UNKNOWN_HOST,  // the host name has no IPv4 address
    BRINDLE_TIMED_OUT,     // not within the time that the caller gave, or that the operation states
    BRINDLE_STOPPED,       // the caller's stop descriptor became readable
    BRINDLE_SYSTEM_ERROR   // a system call failed; errno tells why
};
