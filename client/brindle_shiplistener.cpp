#include "brindle_shiplistener.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "sutl_tcpsocket.h"

namespace {

constexpr int BACKLOG = 1;  // one server is expected

sutl_Descriptor ListenOn(in_addr host, unsigned short port) {
    sutl_Descriptor socket = sutl_OpenTcpSocket();
    if (!socket.IsOpen()) return {};
    // Connections of an earlier run that still fade away must not keep a consumer from its ports.
    int const on = 1;
    setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    address.sin_port = htons(port);
    if (bind(socket.Get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) return {};
    if (listen(socket.Get(), BACKLOG) != 0) return {};
    return socket;
}

}  // namespace

brindle_Result brindle_ShipListener::Listen(brindle_Address const& address) {
    in_addr host = {};
    host.s_addr = htonl(INADDR_ANY);
    if (address.host != "*") {
        if (brindle_Result const found = brindle_FindHost(address.host, host); found != BRINDLE_DONE) return found;
    }
    firstListener_ = ListenOn(host, address.firstPort);
    if (!firstListener_.IsOpen()) return BRINDLE_SYSTEM_ERROR;
    secondListener_ = ListenOn(host, address.secondPort);
    return secondListener_.IsOpen() ? BRINDLE_DONE : BRINDLE_SYSTEM_ERROR;
}

brindle_Result brindle_ShipListener::AcceptOn(sutl_Descriptor& listener, sutl_Descriptor& connection) {
    connection = sutl_Descriptor(accept(listener.Get(), nullptr, nullptr));
    if (connection.IsOpen()) {
        listener.Close();
        return BRINDLE_DONE;
    }
    // A connection that was given up before its accept is none.
    return errno == EINTR || errno == ECONNABORTED ? BRINDLE_DONE : BRINDLE_SYSTEM_ERROR;
}

brindle_Result brindle_ShipListener::Receive(std::span<unsigned char const>& body, int stopDescriptor) {
    while (!messages_.Take(body)) {
        // A descriptor of -1 is one that poll passes over.
        pollfd waited[] = {{stopDescriptor, POLLIN, 0},
                           {first_.IsOpen() ? first_.Get() : firstListener_.Get(), POLLIN, 0},
                           {secondListener_.Get(), POLLIN, 0}};
        if (poll(waited, std::size(waited), -1) < 0) {
            if (errno == EINTR) continue;
            return BRINDLE_SYSTEM_ERROR;
        }
        if (waited[0].revents != 0) return BRINDLE_STOPPED;
        brindle_Result result = BRINDLE_DONE;
        if (waited[2].revents != 0) result = AcceptOn(secondListener_, second_);
        if (result == BRINDLE_DONE && waited[1].revents != 0) {
            result = first_.IsOpen() ? messages_.Fill(first_.Get()) : AcceptOn(firstListener_, first_);
        }
        if (result != BRINDLE_DONE) return result;
    }
    return BRINDLE_DONE;
}
