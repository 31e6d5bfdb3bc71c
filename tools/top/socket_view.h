// What the kernel tells of a server's connections.
#pragma once

#include "server_process.h"

struct SocketView {
    bool known = false;        // the rest counts
    bool listens = false;      // for a producer
    bool hasProducer = false;  // accepted
    bool hasConsumer = false;
    long receivedBytes = 0;  // from this producer
    long unreadBytes = 0;    // of these that the server has not read
    long shippedBytes = 0;   // that the consumer's machine has, on this connection
    long unsentBytes = 0;    // that wait behind them
};

// Never connects to anything.
[[nodiscard]] SocketView ReadSockets(ServerProcess const& server);
