// brindlectl: the companions of the server, each a subcommand.

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "commands.h"
#include "completion.h"
#include "manual.h"
#include "sutl_assert.h"

namespace {

// Reads the command line and does what it asks for.
ExitCode Run(int argc, char** argv) {
    CLI::App program(
        "Runs a Brindle server, feeds it with records, receives what it ships, asks it for staged records, and shows "
        "what a run left behind.",
        "brindlectl");
    program.set_version_flag("--version", "brindlectl " BRINDLE_VERSION);
    program.require_subcommand(1);
    program.fallthrough();
    program.failure_message([](CLI::App const* failed, CLI::Error const& error) {
        // Where a command is asked for, a word that is none stands among what was left over.
        CLI::App const* last = failed;
        std::string name = "brindlectl";
        while (!last->get_subcommands().empty()) {
            last = last->get_subcommands().front();
            name += ' ' + last->get_name();
        }
        std::vector<std::string> const rest = failed->remaining(true);
        bool const isNoCommand =
            last->get_require_subcommand_min() > 0 && !rest.empty() && !rest.front().starts_with('-');
        return fmt::format("{}: {}\nRun brindlectl --help, or brindlectl COMMAND --help.\n", name,
                           isNoCommand ? fmt::format("'{}' is no command", rest.front()) : error.what());
    });
    program.footer(
        R"(Each command has a --help of its own. The options --spec, --data, --ship and --query can also be given by the
environment variables BRINDLE_SPEC, BRINDLE_DATA, BRINDLE_SHIP and BRINDLE_QUERY.
Exit status: 0 done, 1 done but for rows or records turned away, 2 wrong usage, 65 bad data, 69 the other side is not
there, 74 input or output failed, 75 try again later, 78 the schema or the state of an earlier run cannot be used.
Examples:
  brindlectl sink --spec flights.spec --ship 127.0.0.1:7001,7002 csv:shipped
  brindlectl send --spec flights.spec --data 127.0.0.1:7101,7102 flights.csv)");

    std::unique_ptr<Command> const commands[] = {MakeSendCommand(),   MakeSchemaCommand(),     MakeSinkCommand(),
                                                 MakeQueryCommand(),  MakeDumpCommand(),       MakeCheckCommand(),
                                                 MakeRepairCommand(), MakeTopCommand(),        MakeBenchCommand(),
                                                 MakeRunCommand(),    MakeCompletionCommand(), MakeManualCommand()};
    for (auto const& command : commands) command->Declare(program);
    try {
        program.parse(argc, argv);
    } catch (CLI::ParseError const& error) { return program.exit(error) == 0 ? DONE : USAGE; }
    for (auto const& command : commands) {
        if (command->IsChosen()) return command->Run();
    }
    return USAGE;
}

// A file or a connection of ours must not take the place of a standard stream that is closed. Reading the first and
// writing the second fails as before; messages are lost.
void FillStandardStreams() {
    static constexpr int MODES[] = {O_WRONLY, O_RDONLY, O_WRONLY};
    for (int i = 0; i < 3; ++i) {
        if (fcntl(i, F_GETFD) < 0 && open("/dev/null", MODES[i]) != i) _exit(IO_ERROR);
    }
}

}  // namespace

int main(int argc, char** argv) {
    FillStandardStreams();
    // A reader that leaves shows as a failed write, which is reported.
    signal(SIGPIPE, SIG_IGN);
    sutl_AbortOnAllocationFailure();
    try {
        return Run(argc, argv);
    } catch (std::exception const& error) {
        // None is expected: this keeps a fault of a library from ending without a word.
        fprintf(stderr, "brindlectl: internal error: %s\n", error.what());
        return IO_ERROR;
    }
}
