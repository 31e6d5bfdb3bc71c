// A server that a measurement starts for itself.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// One process, which never outlives its owner: it is killed at the end, also when this process dies. One thread at a
// time.
class OwnServer {
 public:
    OwnServer() = default;
    OwnServer(OwnServer const&) = delete;
    OwnServer& operator=(OwnServer const&) = delete;
    ~OwnServer() { Kill(); }

    // Starts the program; what it says goes to the file. False, with errno.
    [[nodiscard]] bool Start(std::string const& program, std::vector<std::string> const& arguments,
                             std::string const& errorPath);
    [[nodiscard]] bool HasEnded() const;
    // Waits for its end, then kills it. Returns the exit status, or the negative number of the signal.
    int Wait(int secondsMax);
    void Kill();

    [[nodiscard]] pid_t Pid() const { return pid_; }
    [[nodiscard]] double CpuSeconds() const { return cpuSeconds_; }  // after the end

 private:
    int Reap();

    pid_t pid_ = 0;
    double cpuSeconds_ = 0;
};
