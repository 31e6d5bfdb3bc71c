// The server as a child of its supervisor.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "sutl_descriptor.h"

// How a process has ended.
struct ChildEnd {
    bool byExit = false;
    int number = 0;  // the exit status, or that of the signal

    [[nodiscard]] bool IsOrderly() const { return byExit && number == 0; }
    [[nodiscard]] std::string Text() const;
};

// One process, which never outlives its owner: it is killed at the end, also when this process is. It has a process
// group of its own, so that a key pressed at the terminal reaches its owner alone, no signal blocked or ignored, and
// inherits what has no O_CLOEXEC. Belongs to a process of one thread.
class ServerChild {
 public:
    ServerChild() = default;
    ServerChild(ServerChild const&) = delete;
    ServerChild& operator=(ServerChild const&) = delete;
    ~ServerChild();

    // Starts the program. False with errno, also when it cannot be executed.
    [[nodiscard]] bool Start(std::vector<std::string> const& words);
    void Signal(int signal) const;
    [[nodiscard]] ChildEnd Reap();  // waits for the end

    [[nodiscard]] bool Runs() const { return pid_ > 0; }  // and was not reaped
    [[nodiscard]] pid_t Pid() const { return pid_; }
    [[nodiscard]] int EndDescriptor() const { return end_.Get(); }  // readable once it has ended
    // Both its output streams. Never blocks; stays open beyond the end, for what was written before.
    [[nodiscard]] int OutputDescriptor() const { return output_.Get(); }

 private:
    pid_t pid_ = 0;
    sutl_Descriptor end_;
    sutl_Descriptor output_;
};
