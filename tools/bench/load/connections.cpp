#include "connections.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "sutl_tcpsocket.h"

namespace {

using Clock = std::chrono::steady_clock;

sutl_Descriptor ConnectOne(in_addr host, unsigned short port, Clock::time_point deadline) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr = host;
    while (true) {
        sutl_Descriptor connection = sutl_OpenTcpSocket();
        if (connection.IsOpen() && sutl_Connect(connection, address)) {
            sutl_SetNoDelay(connection);
            return connection;
        }
        if (errno != ECONNREFUSED || Clock::now() > deadline) return {};
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

}  // namespace

bench_Pair bench_ConnectPair(in_addr host, bench_Ports const& ports, std::chrono::milliseconds wait) {
    auto const deadline = Clock::now() + wait;
    sutl_Descriptor first = ConnectOne(host, ports.first, deadline);
    if (!first.IsOpen()) return {};
    return {std::move(first), ConnectOne(host, ports.second, deadline)};
}

bool bench_Send(int connection, std::span<unsigned char const> bytes, std::size_t most, int flags) {
    while (!bytes.empty()) {
        ssize_t const sent = send(connection, bytes.data(), std::min(bytes.size(), most), MSG_NOSIGNAL | flags);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) return false;
        bytes = bytes.subspan(static_cast<std::size_t>(sent));
    }
    return true;
}

void bench_SetPatience(int connection, std::chrono::milliseconds patience) {
    timeval const time = {patience.count() / 1000, patience.count() % 1000 * 1000};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &time, sizeof time);
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof time);
}
