// brindlectl run: starts a server and keeps it running.

#include <dirent.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "commands.h"
#include "process_sockets.h"
#include "run_check.h"
#include "run_config.h"
#include "state_lock.h"
#include "supervisor.h"

namespace {

constexpr char ABOUT[] =
    R"(Starts a server with a fresh recovery directory each time, replays what the last ones left, and starts it again
when it ends. Reads /etc/brindle/NAME.toml; keeps its files in the directory NAME of 'state'. An ADDRESS is
HOST:PORT1,PORT2 or PORT1,PORT2, a DURATION is in quotes: "500ms", "90s", "2h". Paths are relative to the file's folder.
Keys of the file:
)";
constexpr char EXAMPLES[] =
    R"(SIGTERM and SIGINT let the server ship what it has; a second one kills it. SIGHUP opens the log anew.
With --check and --json the result has the keys ok, findings (fault, text).
Exit status: 0 stopped, and everything was shipped; 75 stopped while records wait for the next start, given up after
starts_max starts, or another one runs; 78 configuration or schema cannot be used, or the schema has changed.
Examples:
  brindlectl run flights
  brindlectl run flights --config ./flights.toml --check)";

constexpr std::chrono::milliseconds LOCK_PATIENCE{1500};  // for the server of a supervisor that was killed
constexpr std::chrono::milliseconds LOCK_PAUSE{50};

std::string ShellQuoted(std::string const& word) {
    constexpr char PLAIN[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./:,@%+=";
    if (!word.empty() && word.find_first_not_of(PLAIN) == std::string::npos) return word;
    std::string quoted = "'";
    for (char const c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

// A file name, so that it stays within the state directory.
bool IsName(std::string const& name) {
    return !name.empty() && name.front() != '.' && name.front() != '-' &&
           std::all_of(name.begin(), name.end(), [](unsigned char c) { return isalnum(c) || strchr("._-@", c); });
}

// The number of the newest generation; 0 when there is none.
unsigned NewestGeneration(std::string const& directory) {
    unsigned newest = 0;
    std::unique_ptr<DIR, int (*)(DIR*)> const names(opendir(directory.c_str()), closedir);
    while (dirent const* const entry = names == nullptr ? nullptr : readdir(names.get())) {
        unsigned number = 0;
        if (sscanf(entry->d_name, "gen-%u", &number) == 1) newest = std::max(newest, number);
    }
    return newest;
}

class RunCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    [[nodiscard]] ExitCode ReadConfig();
    [[nodiscard]] ExitCode Check();
    [[nodiscard]] ExitCode PrintServerCommand() const;
    [[nodiscard]] ExitCode Supervise();

    std::string name_;
    std::string configPath_;
    bool checks_ = false;
    bool dryRun_ = false;
    RunConfig config_;
    std::string directory_;  // the server's own
    std::string help_;
};

void RunCommand::Declare(CLI::App& program) {
    help_ = ABOUT + DescribeRunConfig() + EXAMPLES;
    Add(program, "run", "Run a server: start it, watch it, start it again", help_.c_str());
    AddArgument("name", "Name of the server", name_);
    AddOption("--config", "FILE", "The configuration; /etc/brindle/NAME.toml by default", configPath_);
    AddFlag("--check", "Look at configuration, schema, ports, directories and consumer, and start nothing", checks_);
    AddFlag("--dry-run", "Print the server's command line, and start nothing", dryRun_);
    AddJson();
}

ExitCode RunCommand::Run() {
    if (!IsName(name_)) return Fail(USAGE, "'{}' is no name: letters, digits and . _ - @ make one", name_);
    if (configPath_.empty()) configPath_ = "/etc/brindle/" + name_ + ".toml";
    ExitCode const configured = ReadConfig();
    if (configured != DONE) return configured;
    directory_ = config_.state + '/' + name_;
    if (checks_) return Check();
    return dryRun_ ? PrintServerCommand() : Supervise();
}

ExitCode RunCommand::ReadConfig() {
    std::vector<ConfigProblem> const problems = ReadRunConfig(configPath_, config_);
    for (ConfigProblem const& problem : problems) {
        std::string const line = problem.line == 0 ? "" : fmt::format("{}:", problem.line);
        Fail(BAD_CONFIGURATION, "{}:{} {}", configPath_, line, problem.text);
    }
    if (!problems.empty()) return BAD_CONFIGURATION;
    specPath_ = config_.spec;
    suts_tsspec spec;
    return LoadSpec(spec, "name the schema file with 'spec'");
}

ExitCode RunCommand::Check() {
    bool isGood = true;
    nlohmann::json shown = nlohmann::json::array();
    for (RunFinding const& finding : CheckRun(config_, directory_)) {
        isGood = isGood && !finding.isFault;
        shown.push_back({{"fault", finding.isFault}, {"text", finding.text}});
        if (finding.isFault) {
            Fail(BAD_CONFIGURATION, "{}", finding.text);
        } else {
            Say("{}", finding.text);
        }
    }
    if (isGood) Say("{}: can be run", configPath_);
    ExitCode const printed = PrintResult({{"ok", isGood}, {"findings", shown}});
    return printed != DONE ? printed : isGood ? DONE : BAD_CONFIGURATION;
}

ExitCode RunCommand::PrintServerCommand() const {
    GenerationStart start;
    unsigned const newest = NewestGeneration(directory_);
    start.number = newest + 1;
    std::string const own = fmt::format("{}/gen-{:06}", directory_, start.number);
    start.schema = own + "/schema.spec";
    start.recovery = own + "/recovery";
    std::string text;
    for (std::string const& word : ServerCommand(config_, config_.ports, start)) text += ShellQuoted(word) + ' ';
    text.back() = '\n';
    if (newest > 0) Warn("a start replays what is left of generations up to {}, as an eleventh argument", newest);
    return PrintText(text);
}

ExitCode RunCommand::Supervise() {
    // Without it a server would never be seen ready.
    if (!ReadTcpTable(TcpTable::IPV4, [](TcpSocket const&) { return false; })) {
        return Fail(IO_ERROR, "/proc/self/net/tcp: {}; let this process see /proc", strerror(errno));
    }
    StateLock lock;
    auto const deadline = std::chrono::steady_clock::now() + LOCK_PATIENCE;
    while (!lock.Take(directory_)) {
        if (!lock.IsTaken()) return Fail(IO_ERROR, "{}", lock.Error());
        if (std::chrono::steady_clock::now() > deadline) return Fail(TRY_AGAIN, "{}", lock.Error());
        std::this_thread::sleep_for(LOCK_PAUSE);
    }
    Generations generations;
    if (!generations.Open(directory_)) return Fail(IO_ERROR, "{}", generations.Error());
    RunLog log;
    if (!log.Open(config_.log)) return Fail(IO_ERROR, "{}: cannot be written: {}", config_.log.path, strerror(errno));
    Supervisor supervisor(config_, generations, log, IsQuiet());
    ExitCode const code = supervisor.Run();
    if (supervisor.Problem().empty()) return code;
    log.WriteOwn(supervisor.Problem());
    return log.IsFile() ? Fail(code, "{}", supervisor.Problem()) : code;
}

}  // namespace

std::unique_ptr<Command> MakeRunCommand() { return std::make_unique<RunCommand>(); }
