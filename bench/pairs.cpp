#include "pairs.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "sutl_tcpsocket.h"

namespace {

sutl_Descriptor ConnectOne(unsigned short port, std::chrono::steady_clock::time_point deadline) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    while (true) {
        sutl_Descriptor connection = sutl_OpenTcpSocket();
        if (connection.IsOpen() && sutl_Connect(connection, address)) {
            sutl_SetNoDelay(connection);
            return connection;
        }
        if (errno != ECONNREFUSED || std::chrono::steady_clock::now() > deadline) bench_Fail("connect");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

unsigned short Port(char const* text) { return static_cast<unsigned short>(strtoul(text, nullptr, 10)); }

}  // namespace

void bench_Fail(char const* what) {
    perror(what);
    exit(EXIT_FAILURE);
}

bench_Pair bench_Connect(bench_Ports const& ports) {
    auto const deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    sutl_Descriptor first = ConnectOne(ports.first, deadline);
    return {std::move(first), ConnectOne(ports.second, deadline)};
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

bench_StandIn::bench_StandIn(int argc, char** argv) {
    constexpr int ARGUMENTS_MIN = 9;
    if (argc < ARGUMENTS_MIN) {
        fprintf(stderr, "Usage: %s SPEC DIRECTORY HOST SHIP1 SHIP2 DATA1 DATA2 WINDOW\n", argv[0]);
        exit(EXIT_FAILURE);
    }
    spec = argv[1];
    directory = argv[2];
    ship = {Port(argv[4]), Port(argv[5])};
    data = {Port(argv[6]), Port(argv[7])};
    windowUs = strtol(argv[8], nullptr, 10) * 1000000;
    freePort = argc > ARGUMENTS_MIN ? Port(argv[ARGUMENTS_MIN]) : 0;
}

void bench_StandIn::Open() {
    consumer = bench_Connect(ship);
    producer.Listen(data.first, data.second);
    if (!producer.AcceptPair()) exit(EXIT_FAILURE);
}
