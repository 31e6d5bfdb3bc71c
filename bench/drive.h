// What the programs that drive a server have in common: their options, and how they begin.
#pragma once

#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "pairs.h"
#include "ship_check.h"
#include "workload.h"

namespace CLI {
class App;
}

struct bench_DriveOptions {
    bench_WorkloadOptions workload;
    std::string specPath;
    std::vector<unsigned short> data;
    std::vector<unsigned short> ship;
};

// Declares the options that all have.
void bench_AddDriveOptions(CLI::App& app, bench_DriveOptions& options);
// Declares an option for two ports of the server.
void bench_AddPorts(CLI::App& app, char const* option, char const* description, std::vector<unsigned short>& ports,
                    bool required = true);
[[nodiscard]] bench_Ports bench_PortsOf(std::vector<unsigned short> const& ports);

// A workload, a server that takes it, and the check of what that ships. Writes the schema, prints "listening" when the
// server may be started, and waits for it; ends the program with a line where that fails.
class bench_Drive {
 public:
    explicit bench_Drive(bench_DriveOptions const& options);

    suts_tsspec spec;
    bench_Workload workload;
    bench_ShipCheck check;
    sutl_TCPSockServer consumer;
    bench_Pair producer;
};

// Prints the result, which says whether it is verified; returns the exit status.
[[nodiscard]] int bench_PrintResult(nlohmann::json const& result);

// Has the options read and the program run, and reports what they throw.
[[nodiscard]] int bench_Main(CLI::App& app, int argc, char** argv, std::function<int()> const& run);
