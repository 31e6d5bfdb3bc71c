// The consumer's side of the ship ports.
#pragma once

#include <span>

#include "brindle_connection.h"
#include "brindle_framereader.h"
#include "brindle_result.h"
#include "sutl_descriptor.h"

// Listens for one server and receives what it ships. It reads the first connection from the moment it is there, whether
// or not the second, which carries nothing, ever comes: a server must not wait for its consumer. Closes everything at
// its end. One thread at a time.
class brindle_ShipListener {
 public:
    // Opens both ports; the server can connect from then on. UNKNOWN_HOST, or SYSTEM_ERROR when a port is taken.
    brindle_Result Listen(brindle_Address const& address);

    // Waits for the server, then for its next message; the body is valid until the next call. Blocks without limit, but
    // for the stop descriptor: STOPPED as soon as that is readable (-1: none). Once a server has come no second one is
    // let in.
    brindle_Result Receive(std::span<unsigned char const>& body, int stopDescriptor);

    // What has come of a message that is not whole, when nothing more comes. Valid until the next Receive.
    [[nodiscard]] std::span<unsigned char const> Rest() const { return messages_.Rest(); }

    [[nodiscard]] bool HasServer() const { return first_.IsOpen(); }  // one has connected, and may have left since

 private:
    brindle_Result AcceptOn(sutl_Descriptor& listener, sutl_Descriptor& connection);

    sutl_Descriptor firstListener_;   // open until its connection came
    sutl_Descriptor secondListener_;  // the same
    sutl_Descriptor first_;           // the messages
    sutl_Descriptor second_;          // only kept open
    brindle_FrameReader messages_;
};
