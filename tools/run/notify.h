// Tells systemd how far a service is, as sd_notify(3) does.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "sutl_descriptor.h"

// Does nothing where nobody has asked to be told. One thread at a time; never blocks.
class Notifier {
 public:
    // Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID, and takes them out of the environment: they are not meant
    // for the server.
    Notifier();

    // One or several lines such as READY=1 or STATUS=serving.
    void Send(std::string_view text) const;

    [[nodiscard]] bool IsWanted() const { return socket_.IsOpen(); }
    // How often WATCHDOG=1 has to be sent; 0: never.
    [[nodiscard]] std::chrono::microseconds WatchdogInterval() const { return watchdogInterval_; }

 private:
    std::string path_;  // of the socket; a first @ stands for a name that is no path
    sutl_Descriptor socket_;
    std::chrono::microseconds watchdogInterval_{0};
};
