#include "server_link.h"

#include <poll.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "brindle_producers.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds ACCEPT_WAIT{3};       // longer than a server that is free takes to accept
constexpr std::chrono::milliseconds TURN_PAUSE{50};  // between two looks at whether another producer has left

}  // namespace

bool ServerLink::IsStopped() const {
    pollfd stop = {stopDescriptor_, POLLIN, 0};
    return poll(&stop, 1, 0) > 0;
}

ExitCode ServerLink::Connect(brindle_Connection& connection, bool waitsForItsTurn) const {
    Clock::time_point const deadline = Clock::now() + server_.wait;
    for (;;) {
        std::string problem;
        ExitCode const connected = ConnectOnce(connection, problem);
        if (connected == DONE) return DONE;
        bool const isOver = !waitsForItsTurn || IsStopped() || Clock::now() > deadline;
        if (connected != TRY_AGAIN || isOver) return Fail(connected, fmt::format("{}: {}", server_.text, problem));
        std::this_thread::sleep_for(TURN_PAUSE);
    }
}

ExitCode ServerLink::ConnectOnce(brindle_Connection& connection, std::string& problem) const {
    if (brindle_HasProducer(server_.address)) {
        problem =
            "the server is serving another producer already, and serves one in a run; try again with its next run";
        return TRY_AGAIN;
    }
    switch (connection.Open(server_.address, server_.wait, stopDescriptor_)) {
        case BRINDLE_DONE:
            break;
        case BRINDLE_UNKNOWN_HOST:
            problem = fmt::format("the host '{}' is not known; check the name", server_.address.host);
            return UNAVAILABLE;
        case BRINDLE_STOPPED:
            problem = "stopped while waiting for the server";
            return UNAVAILABLE;
        default:
            problem = fmt::format("no server within {} s: {}; start it, check the ports, or wait longer with --wait",
                                  server_.wait.count() / 1000, strerror(errno));
            return UNAVAILABLE;
    }
    if (connection.StaysInQueue(ACCEPT_WAIT, stopDescriptor_)) {
        connection.Close();
        problem =
            "the server leaves the connection in its queue, most likely because it serves another producer; try "
            "again with its next run";
        return TRY_AGAIN;
    }
    return DONE;
}
