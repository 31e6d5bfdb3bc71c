// TCP sockets over IPv4, as both ends of a conversation use them.
#pragma once

#include <netinet/in.h>

#include "sutl_descriptor.h"

// A stream socket, or none with errno set.
[[nodiscard]] sutl_Descriptor sutl_OpenTcpSocket();

// Small frames leave at once. The result of the call is of no consequence.
void sutl_SetNoDelay(sutl_Descriptor const& socket);

// Connects; blocks until the peer has answered, also where a signal interrupts the wait. False with errno set.
[[nodiscard]] bool sutl_Connect(sutl_Descriptor const& socket, sockaddr_in const& address);
