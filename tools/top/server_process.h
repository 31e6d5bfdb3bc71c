// Servers of this machine, as /proc shows them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// A running server and what it was started with. Everything is empty, 0 or false where the arguments do not tell it.
struct ServerProcess {
    pid_t pid = 0;
    unsigned long startTicks = 0;  // tells it from a later process of the same number
    std::string specPath;          // paths as seen from here
    std::string recoveryPath;
    bool replays = false;
    unsigned short shipPort = 0;  // the first of the pair, as below
    unsigned short dataPort = 0;
    unsigned short queryPort = 0;
    long windowUs = 0;
};

// What a process has used so far.
struct ProcessUsage {
    struct Thread {
        std::string name;
        double cpuSeconds = 0;
    };

    std::vector<Thread> threads;
    double cpuSeconds = 0;  // of threads that have ended, too
    long memoryBytes = 0;
    long peakBytes = 0;
    long writtenBytes = -1;  // by write, so not into sockets; -1: not told to this user
};

// The servers that run from a program of this name.
[[nodiscard]] std::vector<ServerProcess> FindServers(std::string const& programName);
// False when there is no process of this number, or it has ended. One that is no server has a number alone.
[[nodiscard]] bool ReadServer(pid_t pid, ServerProcess& server);
// False when the process has ended.
[[nodiscard]] bool ReadUsage(pid_t pid, ProcessUsage& usage);

// Two paths that lead to the same file or directory.
[[nodiscard]] bool IsSameFile(std::string const& one, std::string const& other);
// The whole of a small file such as those of /proc, the start of a large one; empty when it cannot be read.
[[nodiscard]] std::string ReadSmallFile(std::string const& path);
