// How send comes to be the server's producer.
#pragma once

#include <functional>
#include <string>
#include <utility>

#include "brindle_connection.h"
#include "command.h"

// How a delivery tells what went wrong: says the text and gives the code back.
using SayFailure = std::function<ExitCode(ExitCode code, std::string const& text)>;

// Connects to the server, and tells what kept it from that. One thread.
class ServerLink {
 public:
    struct Server {
        brindle_Address address;
        std::string text;  // as the user wrote it
        brindle_Connection::Milliseconds wait;
    };

    // While it waits for the server it gives up once the stop descriptor is readable.
    ServerLink(Server server, int stopDescriptor, SayFailure fail)
        : server_(std::move(server)), stopDescriptor_(stopDescriptor), fail_(std::move(fail)) {}

    // UNAVAILABLE without a server, TRY_AGAIN, at once or after the wait, while it serves another producer.
    [[nodiscard]] ExitCode Connect(brindle_Connection& connection, bool waitsForItsTurn) const;

    [[nodiscard]] std::string const& Text() const { return server_.text; }
    [[nodiscard]] brindle_Connection::Milliseconds Wait() const { return server_.wait; }
    [[nodiscard]] bool IsStopped() const;
    [[nodiscard]] ExitCode Fail(ExitCode code, std::string const& text) const { return fail_(code, text); }

 private:
    [[nodiscard]] ExitCode ConnectOnce(brindle_Connection& connection, std::string& problem) const;

    Server const server_;
    int const stopDescriptor_;
    SayFailure const fail_;
};
