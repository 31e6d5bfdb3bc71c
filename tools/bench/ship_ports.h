// Where the measured server finds its consumer.
#pragma once

#include "brindle_connection.h"
#include "connections.h"

// Listens on a pair of ports for one server. One thread at a time.
class ShipPorts {
 public:
    // Servers can connect from then on. UNKNOWN_HOST, or SYSTEM_ERROR, with errno.
    brindle_Result Listen(brindle_Address const& address);
    // Waits for a server; TIMED_OUT, or STOPPED as soon as the stop descriptor is readable.
    brindle_Result Accept(std::chrono::milliseconds wait, int stopDescriptor, bench_Pair& pair);

 private:
    sutl_Descriptor first_;
    sutl_Descriptor second_;
};
