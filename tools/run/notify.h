// Tells systemd how far a service is, as sd_notify(3) does.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "sutl_descriptor.h"

// Does nothing where nobody has asked to be told. Several threads may send; never blocks.
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

// Asks for more time, and answers the watchdog, as long as it lives: for work that can take any time.
class TimeExtender {
 public:
    explicit TimeExtender(Notifier const& notifier);

 private:
    void Extend(std::stop_token const& stop);

    Notifier const& notifier_;
    std::mutex mutex_;
    std::condition_variable_any stopped_;  // together with a stop token
    std::jthread thread_;                  // goes first
};

// How long a time is asked for, and how often.
constexpr std::chrono::seconds TIME_EXTENSION{30};
constexpr std::chrono::seconds TIME_EXTENSION_PAUSE{5};
