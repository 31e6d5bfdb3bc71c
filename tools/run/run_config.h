// The configuration of a supervised server: a TOML file.
#pragma once

#include <string>
#include <vector>

#include "run_log.h"
#include "server_look.h"

struct RunConfig {
    std::string spec;
    long windowSeconds = 0;
    ServerPorts ports;
    std::string state;   // directory in which each server's has its name
    std::string server;  // program
    bool drainsOnSchemaChange = false;
    bool killsOnConsumerLoss = true;
    long startsMax = 10;            // in a row that do not get ready
    long backoffFirstUs = 500000;   // pause after the first of these
    long backoffMaxUs = 30000000;   // as it doubles
    long stopTimeoutUs = 60000000;  // for the server's orderly end
    long syncIntervalUs = 500000;   // 0: never
    RunLog::Options log;
};

struct ConfigProblem {
    unsigned long line;  // from 1; 0 for the file as a whole
    std::string text;
};

// Reads a configuration; relative paths in it are relative to its folder. Without problems everything that is required
// is there and within its range; no file it names has been looked at.
[[nodiscard]] std::vector<ConfigProblem> ReadRunConfig(std::string const& path, RunConfig& config);

// Every key with its default, for the help.
[[nodiscard]] std::string DescribeRunConfig();
