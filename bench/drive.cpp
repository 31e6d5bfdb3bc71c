#include "drive.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <nlohmann/json.hpp>

namespace {

suts_tsspec const& LoadSchema(bench_DriveOptions const& options, suts_tsspec& spec) {
    std::string_view const schema = bench_Workload::Schema(options.workload.name);
    std::ofstream(options.specPath) << schema;
    if (schema.empty() || spec.Init(options.specPath.c_str()) != suts_tsspec::LOADED) {
        fprintf(stderr, "no schema for the workload %s\n", options.workload.name.c_str());
        exit(EXIT_FAILURE);
    }
    return spec;
}

}  // namespace

void bench_AddDriveOptions(CLI::App& app, bench_DriveOptions& options) {
    app.add_option("--workload", options.workload.name, "ticks, many or wide")->required();
    app.add_option("--records", options.workload.records, "how many are sent, or make a lap");
    app.add_option("--seed", options.workload.seed);
    app.add_option("--spec", options.specPath, "where the schema file is written")->required();
    bench_AddPorts(app, "--data", "the server's data ports", options.data);
    bench_AddPorts(app, "--ship", "ports to listen on", options.ship);
}

void bench_AddPorts(CLI::App& app, char const* option, char const* description, std::vector<unsigned short>& ports,
                    bool required) {
    app.add_option(option, ports, description)->delimiter(',')->expected(2)->required(required);
}

bench_Ports bench_PortsOf(std::vector<unsigned short> const& ports) { return {ports.at(0), ports.at(1)}; }

bench_Drive::bench_Drive(bench_DriveOptions const& options)
    : workload(options.workload, LoadSchema(options, spec)), check(workload, spec) {
    consumer.Listen(options.ship.at(0), options.ship.at(1));
    puts("listening");
    fflush(stdout);
    producer = bench_Connect(bench_PortsOf(options.data));
    if (!consumer.AcceptPair()) exit(EXIT_FAILURE);
}

int bench_PrintResult(nlohmann::json const& result) {
    puts(result.dump().c_str());
    fflush(stdout);
    return result.at("verified").get<bool>() ? EXIT_SUCCESS : EXIT_FAILURE;
}

int bench_Main(CLI::App& app, int argc, char** argv, std::function<int()> const& run) {
    try {
        try {
            app.parse(argc, argv);
        } catch (CLI::ParseError const& error) { return app.exit(error); }
        return run();
    } catch (std::exception const& error) {
        fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
