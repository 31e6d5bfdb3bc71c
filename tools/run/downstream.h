// Whether the consumer listens, asked without being taken for a server.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "brindle_connection.h"

enum class Downstream : std::uint8_t { LISTENS, REFUSES, UNKNOWN_HOST };

// Whether the address is one of this machine; false as well for a host that is not known.
[[nodiscard]] bool IsOfThisMachine(std::string const& host);

// Looks at the sockets of this machine where the consumer is on it. A remote one is asked by a connect to ShipPort2,
// closed at once: that connection carries nothing, and a server that comes again may leave it without a first as well,
// so consumers take no harm. Blocks for a name that must be looked up, and for at most so long at a remote host.
[[nodiscard]] Downstream AskDownstream(brindle_Address const& ship, std::chrono::milliseconds patience);
