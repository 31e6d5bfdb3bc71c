// Programs that this process starts for itself.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// What a program gets as its standard descriptors; -1: our own.
struct ProgramStreams {
    int input = -1;
    int output = -1;
    int errors = -1;
};

enum class ProcessGroup { OURS, ITS_OWN };

// Starts the program that the first word names, with no signal blocked or ignored, and inheriting what has no
// O_CLOEXEC. It is killed when the thread that calls this ends, however it does. Returns its process, which must be
// waited for; or -1 with errno, also when it cannot be executed: then nothing is left of it.
[[nodiscard]] pid_t StartProgram(std::vector<std::string> const& words, ProgramStreams const& streams,
                                 ProcessGroup group);
