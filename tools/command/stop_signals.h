// SIGINT, SIGTERM and SIGHUP as something to wait for.
#pragma once

#include <signal.h>
#include <sys/signalfd.h>

#include "sutl_descriptor.h"

// While it lives, the signals do not end the process; they make a descriptor readable instead, which stays
// readable. For a program of one thread.
class StopSignals {
 public:
    StopSignals() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        struct sigaction hangUp = {};
        bool const ignored = sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler == SIG_IGN;
        if (!ignored) sigaddset(&signals, SIGHUP);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        readable_ = sutl_Descriptor(signalfd(-1, &signals, SFD_CLOEXEC));
    }
    StopSignals(StopSignals const&) = delete;
    StopSignals& operator=(StopSignals const&) = delete;

    [[nodiscard]] int Descriptor() const { return readable_.Get(); }

 private:
    sutl_Descriptor readable_;
};
