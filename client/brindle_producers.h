// What the kernel's table of connections tells about a server on this machine.
#pragma once

#include <netinet/in.h>

#include "brindle_connection.h"

// Whether a server of this machine has accepted a connection on the first port of the address: it serves a producer
// then. False as well when the address is not this machine's, or nothing can be known. Never connects.
[[nodiscard]] bool brindle_HasProducer(brindle_Address const& address);

// Whether the connection from `own` to `peer`, both seen from this end, is there and not yet accepted at the other,
// which must be on this machine.
[[nodiscard]] bool brindle_IsQueued(sockaddr_in const& own, sockaddr_in const& peer);
