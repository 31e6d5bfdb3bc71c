// TCP sockets over IPv4, as both ends of a conversation use them.
#pragma once

#include <netinet/in.h>

#include <chrono>

#include "sutl_descriptor.h"

// A stream socket, or none with errno set.
[[nodiscard]] sutl_Descriptor sutl_OpenTcpSocket();

// Small frames leave at once. The result of the call is of no consequence.
void sutl_SetNoDelay(sutl_Descriptor const& socket);

// Connects; blocks until the peer has answered, also where a signal interrupts the wait. False with errno set.
[[nodiscard]] bool sutl_Connect(sutl_Descriptor const& socket, sockaddr_in const& address);

// The same, but false with ETIMEDOUT where the peer has not answered before the deadline.
[[nodiscard]] bool sutl_ConnectBefore(std::chrono::steady_clock::time_point deadline, sutl_Descriptor const& socket,
                                      sockaddr_in const& address);

// A send that waits for so long fails with EAGAIN, or has sent less. The result of the call is of no consequence.
void sutl_SetSendTimeout(sutl_Descriptor const& socket, int seconds);

// Waits until a poll event, or an error, is there before the deadline; a signal does not end the wait. False with errno
// set otherwise, ETIMEDOUT at the deadline.
[[nodiscard]] bool sutl_PollBefore(std::chrono::steady_clock::time_point deadline, int descriptor, short event);
