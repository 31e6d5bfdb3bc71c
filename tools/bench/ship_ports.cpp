#include "ship_ports.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "sutl_tcpsocket.h"

namespace {

using Clock = std::chrono::steady_clock;

sutl_Descriptor ListenOn(in_addr host, unsigned short port) {
    sutl_Descriptor socket = sutl_OpenTcpSocket();
    int const on = 1;
    setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr = host;
    address.sin_port = htons(port);
    if (bind(socket.Get(), reinterpret_cast<sockaddr const*>(&address), sizeof address) != 0) return {};
    if (listen(socket.Get(), 1) != 0) return {};
    return socket;
}

brindle_Result AcceptOne(sutl_Descriptor const& listener, Clock::time_point deadline, int stopDescriptor,
                         sutl_Descriptor& connection) {
    while (!connection.IsOpen()) {
        auto const left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waited[] = {{stopDescriptor, POLLIN, 0}, {listener.Get(), POLLIN, 0}};
        int const ready = poll(waited, 2, static_cast<int>(std::max(left, 0L)));
        if (ready < 0 && errno != EINTR) return BRINDLE_SYSTEM_ERROR;
        if (ready == 0) return BRINDLE_TIMED_OUT;
        if (ready < 0) continue;
        if (waited[0].revents != 0) return BRINDLE_STOPPED;
        connection = sutl_Descriptor(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
    return BRINDLE_DONE;
}

}  // namespace

brindle_Result ShipPorts::Listen(brindle_Address const& address) {
    in_addr host = {htonl(INADDR_ANY)};
    if (address.host != "*") {
        if (brindle_Result const found = brindle_FindHost(address.host, host); found != BRINDLE_DONE) return found;
    }
    first_ = ListenOn(host, address.firstPort);
    if (!first_.IsOpen()) return BRINDLE_SYSTEM_ERROR;
    second_ = ListenOn(host, address.secondPort);
    return second_.IsOpen() ? BRINDLE_DONE : BRINDLE_SYSTEM_ERROR;
}

brindle_Result ShipPorts::Accept(std::chrono::milliseconds wait, int stopDescriptor, bench_Pair& pair) {
    auto const deadline = Clock::now() + wait;
    brindle_Result const accepted = AcceptOne(first_, deadline, stopDescriptor, pair.first);
    return accepted != BRINDLE_DONE ? accepted : AcceptOne(second_, deadline, stopDescriptor, pair.second);
}
