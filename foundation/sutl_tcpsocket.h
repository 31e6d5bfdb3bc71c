// TCP sockets over IPv4, as both ends of a conversation use them.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <climits>

#include "sutl_descriptor.h"

// A stream socket, or none with errno set.
[[nodiscard]] sutl_Descriptor sutl_OpenTcpSocket();

// Small frames leave at once. The result of the call is of no consequence.
void sutl_SetNoDelay(sutl_Descriptor const& socket);

// Connects; blocks until the peer has answered, also where a signal interrupts the wait. False with errno set.
[[nodiscard]] bool sutl_Connect(sutl_Descriptor const& socket, sockaddr_in const& address);

// The same, but false with EINTR soon after stop has become true.
[[nodiscard]] bool sutl_ConnectUnless(std::atomic<bool> const& stop, sutl_Descriptor const& socket,
                                      sockaddr_in const& address);

// The same, but false with ETIMEDOUT where the peer has not answered before the deadline.
[[nodiscard]] bool sutl_ConnectBefore(std::chrono::steady_clock::time_point deadline, sutl_Descriptor const& socket,
                                      sockaddr_in const& address);

// A send that waits for so long fails with EAGAIN, or has sent less. The result of the call is of no consequence.
void sutl_SetSendTimeout(sutl_Descriptor const& socket, int seconds);

// Waits until a poll event, or an error, is there before the deadline; a signal does not end the wait. False with errno
// set otherwise, ETIMEDOUT at the deadline.
[[nodiscard]] bool sutl_PollBefore(std::chrono::steady_clock::time_point deadline, int descriptor, short event);

// Tells a slow peer from one that takes nothing. A timed send waits for room in the system's buffer, which comes in
// great steps; what lies in that buffer gets less all the while.
class sutl_Stall {
 public:
    explicit sutl_Stall(int secondsMax) : timeMax_(secondsMax) {}

    // Whether to go on waiting, when the peer has not taken everything. Keeps errno.
    [[nodiscard]] bool IsBearable(int connection);

 private:
    using Clock = std::chrono::steady_clock;

    std::chrono::seconds const timeMax_;
    int waiting_ = INT_MAX;    // bytes that the peer has not taken, at the last look at which they had become fewer,
    Clock::time_point since_;  // and the time of that look
};

// A connection that is closed without sutl_CloseInOrder, as all are when the process is killed, is then cut off by a
// reset: what its peer's system has not taken yet is lost, and its port is free at once rather than in a minute. The
// result of the call is of no consequence.
void sutl_SetZeroLinger(sutl_Descriptor const& connection);

// What arrives from now on is dropped: reads end behind what is there already, as if the peer had closed. Of a listener
// every accept fails from now on. A call that blocks in another thread, or that a signal has interrupted, returns.
// Can be called by a signal handler.
void sutl_TakeNoMore(int descriptor);

// Closes a connection with a zero linger, if there is one, so that its peer gets every byte and then the end of the
// stream, while the port is free at once. Blocks until the peer's system has taken everything, but for no longer than
// 30 s without progress; then the rest is lost. errno is left as it was.
void sutl_CloseInOrder(sutl_Descriptor& connection);
