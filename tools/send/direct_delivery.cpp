#include "direct_delivery.h"

#include <cerrno>
#include <cstring>

#include "brindle_producers.h"

namespace {

constexpr std::chrono::seconds FINISH_STALL_MAX{60};
constexpr std::chrono::seconds ACCEPT_WAIT{3};  // longer than a server that is free takes to accept

}  // namespace

ExitCode DirectDelivery::Deliver(brindle_Message& frame, unsigned long records, std::string_view) {
    if (!connection_.IsOpen()) {
        if (ExitCode const connected = Connect(); connected != DONE) return connected;
    }
    if (brindle_Result const sent = connection_.Send(frame); sent != BRINDLE_DONE) return FailToSend(sent);
    recordsSent_ += records;
    return DONE;
}

ExitCode DirectDelivery::Connect() {
    if (brindle_HasProducer(server_.address)) {
        return fail_(TRY_AGAIN, fmt::format("{}: the server is serving another producer already, and serves one in a "
                                            "run; try again with its next run",
                                            server_.text));
    }
    brindle_Result const opened = connection_.Open(server_.address, server_.wait, stopDescriptor_);
    switch (opened) {
        case BRINDLE_DONE:
            break;
        case BRINDLE_UNKNOWN_HOST:
            return fail_(UNAVAILABLE, fmt::format("{}: the host '{}' is not known; check the name", server_.text,
                                                  server_.address.host));
        case BRINDLE_STOPPED:
            return fail_(UNAVAILABLE, fmt::format("{}: stopped while waiting for the server", server_.text));
        default:
            return fail_(UNAVAILABLE,
                         fmt::format("{}: no server within {} s: {}; start it, check the ports, or wait longer with "
                                     "--wait",
                                     server_.text, server_.wait.count() / 1000, strerror(errno)));
    }
    if (connection_.StaysInQueue(ACCEPT_WAIT, stopDescriptor_)) {
        connection_.Close();
        return fail_(TRY_AGAIN, fmt::format("{}: the server leaves the connection in its queue, most likely because it "
                                            "serves another producer; try again with its next run",
                                            server_.text));
    }
    return DONE;
}

ExitCode DirectDelivery::Idle() {
    if (!connection_.IsOpen() || !connection_.ServerLeft()) return DONE;
    return FailToSend(BRINDLE_STREAM_ENDED);
}

ExitCode DirectDelivery::Finish() {
    if (!connection_.IsOpen()) return DONE;
    brindle_Result const finished = connection_.Finish(FINISH_STALL_MAX);
    return finished == BRINDLE_DONE ? DONE : FailToSend(finished);
}

ExitCode DirectDelivery::FailToSend(brindle_Result result) const {
    int const error = errno;
    if (result == BRINDLE_TIMED_OUT) {
        return fail_(TRY_AGAIN,
                     fmt::format("{}: the server has taken nothing for {} s; perhaps it serves another producer, and "
                                 "then none of the {} records sent was read. Its standard error tells",
                                 server_.text, FINISH_STALL_MAX.count(), recordsSent_));
    }
    return fail_(
        UNAVAILABLE,
        fmt::format("{}: the server did not take everything ({}); of the {} records sent some may be missing "
                    "or refused. Its standard error tells why",
                    server_.text, result == BRINDLE_STREAM_ENDED ? "it has closed the connection" : strerror(error),
                    recordsSent_));
}
