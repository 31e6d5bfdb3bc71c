#include "sutl_frame.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>

#include "sutl_descriptor.h"
#include "sutl_tcpsocket.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

bool Muted(std::atomic<bool> const* muted) { return muted != nullptr && muted->load(std::memory_order_relaxed); }

void ReportError(char const* text, std::atomic<bool> const* muted) {
    if (!Muted(muted)) perror(text);
}

void Report(char const* text, std::atomic<bool> const* muted) {
    if (!Muted(muted)) fputs(text, stderr);
}

// The rest of a header of which some bytes are there. False when it does not come in time.
bool ReceiveHeaderRest(int connection, unsigned char* header, std::size_t got) {
    Clock::time_point const deadline = Clock::now() + milliseconds(SUTL_HEADER_WAIT_MS);
    while (got < SUTL_FRAME_HEADER_BYTES) {
        if (!sutl_PollBefore(deadline, connection, POLLIN)) return false;
        long const result = sutl_ReadSome(connection, header + got, SUTL_FRAME_HEADER_BYTES - got);
        if (result <= 0) return false;
        got += static_cast<std::size_t>(result);
    }
    return true;
}

// Sends all of the bytes.
bool SendAll(int connection, unsigned char const* bytes, std::size_t count, int flags, int stallSecondsMax) {
    sutl_Stall stall(stallSecondsMax);
    while (count > 0) {
        ssize_t const sent = send(connection, bytes, count, flags | MSG_NOSIGNAL);
        if (sent < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN && stallSecondsMax > 0 && stall.IsBearable(connection)) continue;
            return false;
        }
        bytes += sent;
        count -= static_cast<std::size_t>(sent);
    }
    return true;
}

}  // namespace

sutl_FrameResult sutl_ReceiveFrame(int connection, sutl_NetorderByteField& field, std::atomic<bool> const* muted) {
    unsigned char header[SUTL_FRAME_HEADER_BYTES];
    long const got = sutl_ReadSome(connection, header, sizeof header);
    if (got < 0) {
        ReportError("Socket Receiver:", muted);
        return FRAME_BROKEN;
    }
    if (got == 0) return FRAME_STREAM_ENDED;
    if (got < static_cast<long>(sizeof header) &&
        !ReceiveHeaderRest(connection, header, static_cast<std::size_t>(got))) {
        Report("Incomplete bytefield length read!\n", muted);
        return FRAME_BROKEN;
    }
    unsigned int declared;
    memcpy(&declared, header, sizeof declared);
    declared = ntohl(declared);

    field.Reset();
    bool const fits = declared <= static_cast<unsigned int>(INT_MAX);
    unsigned char buffer[SUTL_TRANSFER_BYTES_MAX];
    for (unsigned int missing = declared; missing > 0;) {
        long const received = sutl_ReadSome(connection, buffer, std::min(missing, SUTL_TRANSFER_BYTES_MAX));
        if (received < 0) {
            ReportError("Socket Receiver:", muted);
            return FRAME_BROKEN;
        }
        if (received == 0) {
            Report("Socket Receiver: socket closed prematurely!\n", muted);
            return FRAME_BROKEN;
        }
        if (fits) field.AppendBytes(buffer, static_cast<std::size_t>(received));
        missing -= static_cast<unsigned int>(received);
    }
    field.Seal();
    if (!fits) {
        Report("ERROR, bytefield size doesn't match declaration!\n", muted);
        return FRAME_BROKEN;
    }
    field.StartReading();
    return declared == 0 ? FRAME_TERMINATION : FRAME_READY;
}

bool sutl_SendFrame(int connection, sutl_NetorderByteField& field, std::atomic<bool> const* muted, int lastFlags,
                    int stallSecondsMax) {
    auto left = static_cast<unsigned int>(field.Count());
    unsigned int const header = htonl(left);
    if (!SendAll(connection, reinterpret_cast<unsigned char const*>(&header), sizeof header, left == 0 ? lastFlags : 0,
                 stallSecondsMax)) {
        ReportError("ERROR  Sender:", muted);
        return false;
    }
    field.StartReading();
    unsigned char buffer[SUTL_TRANSFER_BYTES_MAX];
    while (left > 0) {
        unsigned int const chunk = std::min(left, SUTL_TRANSFER_BYTES_MAX);
        field.GetNextBytes(buffer, chunk);
        left -= chunk;
        if (!SendAll(connection, buffer, chunk, left == 0 ? lastFlags : 0, stallSecondsMax)) {
            ReportError("Socket Sender:", muted);
            return false;
        }
    }
    return true;
}
