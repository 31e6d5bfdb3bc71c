// Ports for servers of our own.
#pragma once

#include <cstddef>
#include <vector>

// So many different ports of this machine on which nobody listens; anybody may come in between. Fewer when there are
// hardly any.
[[nodiscard]] std::vector<unsigned short> FindFreePorts(std::size_t count);
