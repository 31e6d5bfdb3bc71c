// Frames straight to the server.
#pragma once

#include <functional>

#include "brindle_connection.h"
#include "delivery.h"

// How a delivery tells what went wrong: says the text and gives the code back.
using SayFailure = std::function<ExitCode(ExitCode code, std::string const& text)>;

// The first frame makes the connection; what is lost with it is lost. One thread.
class DirectDelivery : public Delivery {
 public:
    struct Server {
        brindle_Address address;
        std::string text;  // as the user wrote it
        brindle_Connection::Milliseconds wait;
    };

    // While it waits for the server it gives up once the stop descriptor is readable.
    DirectDelivery(Server server, int stopDescriptor, SayFailure fail)
        : server_(std::move(server)), stopDescriptor_(stopDescriptor), fail_(std::move(fail)) {}

    [[nodiscard]] ExitCode Deliver(brindle_Message& frame, unsigned long records,
                                   std::string_view inputPosition) override;
    [[nodiscard]] ExitCode Idle() override;
    [[nodiscard]] ExitCode Finish() override;
    [[nodiscard]] long TakeNumber() override { return ++numbersTaken_; }
    [[nodiscard]] bool IsConnected() const override { return connection_.IsOpen(); }

 private:
    [[nodiscard]] ExitCode Connect();
    [[nodiscard]] ExitCode FailToSend(brindle_Result result) const;

    Server const server_;
    int const stopDescriptor_;
    SayFailure const fail_;
    brindle_Connection connection_;
    unsigned long recordsSent_ = 0;
    long numbersTaken_ = 0;
};
