// Byte fields sent and received as frames.
#pragma once

#include <atomic>

#include "sutl_frameheader.h"
#include "sutl_netorderbytefield.h"

constexpr unsigned int SUTL_TRANSFER_BYTES_MAX = 4096;  // per read and send
// A header that arrives in pieces is waited for as long as this after its first byte: the network may cut a busy stream
// anywhere, while a producer that writes headers in pieces is at fault.
constexpr int SUTL_HEADER_WAIT_MS = 20;

enum sutl_FrameResult {
    FRAME_READY,         // a message, sealed and ready to be taken
    FRAME_TERMINATION,   // a frame of length 0; the field is empty
    FRAME_STREAM_ENDED,  // the peer closed at a frame boundary
    FRAME_BROKEN         // reported here; the connection cannot go on
};

// Reads one frame into the field, which is reset. Blocks. Memory grows with the bytes received, not with the length
// that the header claims; a frame of 2^31 bytes and more is read and dropped. Nothing is printed once *muted is true.
[[nodiscard]] sutl_FrameResult sutl_ReceiveFrame(int connection, sutl_NetorderByteField& field,
                                                 std::atomic<bool> const* muted = nullptr);

// Sends a sealed field, which is drained as far as it was sent. Blocks until the system has taken all of it. False
// after a failure, which is reported here; the rest of the frame is then abandoned. lastFlags are added to the flags of
// the last send of the frame. Nothing is printed once *muted is true.
//
// A connection whose sends time out (sutl_SetSendTimeout) is waited for all the same, but for a peer that takes nothing
// for so many seconds: stallSecondsMax, or 0 for none.
bool sutl_SendFrame(int connection, sutl_NetorderByteField& field, std::atomic<bool> const* muted = nullptr,
                    int lastFlags = 0, int stallSecondsMax = 0);
