// What `brindlectl run --check` looks at before anything is started.
#pragma once

#include <string>
#include <vector>

#include "run_config.h"

struct RunFinding {
    bool isFault = false;  // the server could not be started, or not for long; else something to know
    std::string text;
};

// Looks at program, ports, directories, free space and consumer. `directory` is STATE/NAME; nothing is made or changed.
// The schema is the command's own to look at. A remote consumer is connected to, see AskDownstream.
[[nodiscard]] std::vector<RunFinding> CheckRun(RunConfig const& config, std::string const& directory);

// Whether a supervisor, or the server of one, has the state. Takes nothing.
[[nodiscard]] bool IsStateInUse(std::string const& directory);
