// The client's side of a conversation with the server: a pair of connections.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <span>
#include <string>
#include <string_view>

#include "brindle_framereader.h"
#include "brindle_message.h"
#include "brindle_result.h"
#include "sutl_descriptor.h"

// Two ports of one host.
struct brindle_Address {
    std::string host;  // a name or an IPv4 address; "*" stands for every address of this machine when listening
    unsigned short firstPort = 0;
    unsigned short secondPort = 0;
};

// Reads HOST:PORT1,PORT2, or PORT1,PORT2 of this machine. False, and the address unchanged, for anything else.
[[nodiscard]] bool brindle_ParseAddress(std::string_view text, brindle_Address& address);

// Finds the host's first IPv4 address; blocks as long as the name service takes. UNKNOWN_HOST when there is none.
brindle_Result brindle_FindHost(std::string const& host, in_addr& found);

// A producer or a query client. The server reads the first connection; replies, if there are any, come on the second.
// The server pairs connections by their order of arrival, so a failure after the first connect has used that order up:
// the server has seen a client that left. Closes both at its end, without waiting. One thread at a time.
class brindle_Connection {
 public:
    using Milliseconds = std::chrono::milliseconds;

    // Connects to the first port and, keeping it, to the second. A refused connect is tried again until the wait is
    // over. TIMED_OUT (errno tells what the last try met), UNKNOWN_HOST, or STOPPED as soon as the stop descriptor is
    // readable (-1: none).
    brindle_Result Open(brindle_Address const& address, Milliseconds wait, int stopDescriptor = -1);
    [[nodiscard]] bool IsOpen() const { return second_.IsOpen(); }

    // Sends the message as one frame. Blocks until the system has taken it; TIMED_OUT when the server takes nothing for
    // SEND_STALL_MAX, STREAM_ENDED when it has closed the conversation already. MALFORMED, and nothing is sent, for an
    // empty message, which would order the server to abort, and for one of 2^31 bytes and more.
    brindle_Result Send(brindle_Message& message);
    // The same for a frame as brindle_Message::Frame gives it.
    brindle_Result SendFrame(std::span<unsigned char const> frame);

    // Receives the next frame of the second connection; the body is valid until the next call. Blocks, TIMED_OUT after
    // the wait.
    brindle_Result Receive(std::span<unsigned char const>& body, Milliseconds wait);

    // Whether a server on this machine has not accepted the first connection when the wait is over, or the stop
    // descriptor readable. Returns as soon as it has; false as well when nothing can be known.
    [[nodiscard]] bool StaysInQueue(Milliseconds wait, int stopDescriptor = -1) const;
    [[nodiscard]] bool ServerLeft() const { return ServerLeft(Milliseconds(0)); }  // it has closed; never blocks

    // The orderly end: says that nothing more comes, and waits until the server, having read everything, has closed the
    // first connection. Then closes both. STREAM_ENDED when the server was the first to close: a server that has died,
    // or has refused the last frame, does so within REFUSAL_WAIT, which is listened for. TIMED_OUT after a
    // wait of this length in which the server's machine took nothing; SYSTEM_ERROR when it left with bytes unread.
    // Nothing tells that the server has kept what it read.
    brindle_Result Finish(Milliseconds stallMax);

    void Close();  // both, at once

    // Sees to it that the second connection ends before the first even where the process is killed: the one that ends
    // first keeps its port for a minute, and a query server that closes its side first could not be started again.
    void EndSecondFirst();

    static constexpr std::chrono::seconds SEND_STALL_MAX{60};
    static constexpr Milliseconds REFUSAL_WAIT{150};

 private:
    [[nodiscard]] bool ServerLeft(Milliseconds wait) const;  // it has closed, or closes within the wait

    sutl_Descriptor first_;
    sutl_Descriptor second_;
    brindle_FrameReader replies_;  // what came on the second connection
};
