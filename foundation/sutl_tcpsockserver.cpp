#include "sutl_tcpsockserver.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>

#include "sutl_tcpsocket.h"

namespace {

constexpr int LISTEN_BACKLOG = 3;  // connections that may wait for their accept

bool Bind(sutl_Descriptor const& socket, unsigned short port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    address.sin_port = htons(port);
    return bind(socket.Get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) == 0;
}

sutl_Descriptor Accept(sutl_Descriptor const& listener) {
    for (;;) {
        sockaddr_in peer = {};
        socklen_t peerBytes = sizeof peer;
        int const connection = accept(listener.Get(), reinterpret_cast<sockaddr*>(&peer), &peerBytes);
        if (connection < 0 && errno == EINTR) continue;
        sutl_Descriptor accepted(connection);
        int const savedError = errno;
        if (accepted.IsOpen()) sutl_SetZeroLinger(accepted);
        errno = savedError;
        return accepted;
    }
}

}  // namespace

void sutl_TCPSockServer::Listen(unsigned short firstPort, unsigned short secondPort) {
    firstListener_ = sutl_OpenTcpSocket();
    if (!firstListener_.IsOpen()) return perror("Socket open failed:");
    secondListener_ = sutl_OpenTcpSocket();
    if (!secondListener_.IsOpen()) return perror("Socket open failed:");
    sutl_SetNoDelay(firstListener_);
    sutl_SetNoDelay(secondListener_);
    if (!Bind(firstListener_, firstPort)) return perror("Binding socket failed:");
    if (!Bind(secondListener_, secondPort)) return perror("Binding socket failed:");
    if (listen(firstListener_.Get(), LISTEN_BACKLOG) != 0) return perror(" Listen on socket failed:");
    if (listen(secondListener_.Get(), LISTEN_BACKLOG) != 0) return perror(" Listen on socket failed:");
}

bool sutl_TCPSockServer::AcceptPair(std::atomic<bool> const* muted) {
    firstConnection_ = Accept(firstListener_);
    if (firstConnection_.IsOpen()) secondConnection_ = Accept(secondListener_);
    if (firstConnection_.IsOpen() && secondConnection_.IsOpen()) return true;
    if (muted == nullptr || !muted->load()) perror(" Accept failed:");
    return false;
}

void sutl_TCPSockServer::ClosePort() {
    firstListener_.Close();
    secondListener_.Close();
}

void sutl_TCPSockServer::CloseConnections() {
    sutl_CloseInOrder(firstConnection_);
    sutl_CloseInOrder(secondConnection_);
}

void sutl_TCPSockServer::StopListening() const {
    if (firstListener_.IsOpen()) shutdown(firstListener_.Get(), SHUT_RDWR);
    if (secondListener_.IsOpen()) shutdown(secondListener_.Get(), SHUT_RDWR);
}
