#include "direct_delivery.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr std::chrono::seconds FINISH_STALL_MAX{60};

}  // namespace

ExitCode DirectDelivery::Deliver(brindle_Message& frame, unsigned long records, std::string_view) {
    if (!connection_.IsOpen()) {
        if (ExitCode const connected = link_.Connect(connection_, false); connected != DONE) return connected;
    }
    if (brindle_Result const sent = connection_.Send(frame); sent != BRINDLE_DONE) return FailToSend(sent);
    recordsSent_ += records;
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
        return link_.Fail(
            TRY_AGAIN, fmt::format("{}: the server has taken nothing for {} s; perhaps it serves another producer, and "
                                   "then none of the {} records sent was read. Its standard error tells",
                                   link_.Text(), FINISH_STALL_MAX.count(), recordsSent_));
    }
    return link_.Fail(
        UNAVAILABLE,
        fmt::format("{}: the server did not take everything ({}); of the {} records sent some may be missing "
                    "or refused. Its standard error tells why",
                    link_.Text(), result == BRINDLE_STREAM_ENDED ? "it has closed the connection" : strerror(error),
                    recordsSent_));
}
