#include "sutl_tcpsocket.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <climits>

namespace {

using Clock = std::chrono::steady_clock;

bool Start(sutl_Descriptor const& socket, sockaddr_in const& address) {
    return connect(socket.Get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

// Waits for a connection that is being made; a second connect would only say so.
bool Finish(sutl_Descriptor const& socket, Clock::time_point deadline) {
    if (!sutl_PollBefore(deadline, socket.Get(), POLLOUT)) return false;
    int error = 0;
    socklen_t errorBytes = sizeof error;
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &errorBytes) != 0) return false;
    errno = error;
    return error == 0;
}

}  // namespace

sutl_Descriptor sutl_OpenTcpSocket() { return sutl_Descriptor(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)); }

void sutl_SetNoDelay(sutl_Descriptor const& socket) {
    int const on = 1;
    setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool sutl_Connect(sutl_Descriptor const& socket, sockaddr_in const& address) {
    return Start(socket, address) || (errno == EINTR && Finish(socket, Clock::time_point::max()));
}

bool sutl_ConnectBefore(Clock::time_point deadline, sutl_Descriptor const& socket, sockaddr_in const& address) {
    int const flags = fcntl(socket.Get(), F_GETFL);
    if (flags < 0 || fcntl(socket.Get(), F_SETFL, flags | O_NONBLOCK) < 0) return false;
    bool const connected = Start(socket, address) || (errno == EINPROGRESS && Finish(socket, deadline));
    return connected && fcntl(socket.Get(), F_SETFL, flags) == 0;
}

void sutl_SetSendTimeout(sutl_Descriptor const& socket, int seconds) {
    timeval const timeout = {seconds, 0};
    setsockopt(socket.Get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
}

bool sutl_PollBefore(Clock::time_point deadline, int descriptor, short event) {
    for (;;) {
        int leftMs = -1;
        if (deadline != Clock::time_point::max()) {
            auto const left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            leftMs = static_cast<int>(std::clamp<long>(left, 0, INT_MAX));
        }
        pollfd waited = {descriptor, event, 0};
        int const ready = poll(&waited, 1, leftMs);
        if (ready > 0) return true;
        if (ready == 0) errno = ETIMEDOUT;
        if (errno != EINTR) return false;
    }
}
