#include "sutl_tcpsocket.h"

#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

sutl_Descriptor sutl_OpenTcpSocket() { return sutl_Descriptor(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP)); }

void sutl_SetNoDelay(sutl_Descriptor const& socket) {
    int const on = 1;
    setsockopt(socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

bool sutl_Connect(sutl_Descriptor const& socket, sockaddr_in const& address) {
    if (connect(socket.Get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0) return true;
    if (errno != EINTR) return false;
    // The connection is being made all the same; a second connect would only say so.
    pollfd waited = {socket.Get(), POLLOUT, 0};
    while (poll(&waited, 1, -1) < 0) {
        if (errno != EINTR) return false;
    }
    int error = 0;
    socklen_t errorBytes = sizeof error;
    if (getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &errorBytes) != 0) return false;
    errno = error;
    return error == 0;
}
