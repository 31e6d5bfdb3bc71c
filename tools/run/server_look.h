// What /proc tells of a running server. Nothing is connected to: the first connection to a data port is the producer.
#pragma once

#include <sys/types.h>

#include <cstdint>

#include "brindle_connection.h"

// The ports that a server was started with.
struct ServerPorts {
    brindle_Address data;
    brindle_Address query;
    brindle_Address ship;
};

struct ServerLook {
    enum Link : std::uint8_t {
        ABSENT,       // no connection to ShipPort1: not made yet, reset, or closed by the server at its end
        ESTABLISHED,  // as it should be
        BROKEN        // the consumer has closed it, or it is being made
    };

    bool dataListens = false;  // on both ports: the replay is over, a producer is waited for or served
    bool queryListens = false;
    Link link = ABSENT;
    unsigned int linkInode = 0;  // of that connection: one that is made anew has another
    bool shipperRuns = false;    // the ship thread lives: the first connect is over, and the last close has not begun

    // Records are being shipped into nothing.
    [[nodiscard]] bool ConsumerIsLost() const { return shipperRuns && link != ESTABLISHED; }
};

// What is absent in one look may be there in the next, as the kernel's table may leave a socket out when others change.
[[nodiscard]] ServerLook LookAtServer(pid_t server, ServerPorts const& ports);
