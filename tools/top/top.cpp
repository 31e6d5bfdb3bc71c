// brindlectl top: shows a running server, from its log, its recovery directory and /proc.

#include <poll.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "commands.h"
#include "stop_signals.h"
#include "terminal_text.h"
#include "top_screen.h"

namespace {

constexpr char TOP_EXAMPLES[] =
    R"(With one server on the machine nothing has to be given: its log is where its standard error goes when that is a file,
its directory and window are in its arguments. q quits, p pauses. Figures with ~ are estimates: records are bytes logged
by the size of records at the start of the newest recovery file. ? is what no source tells: other users' processes tell
little. Asks the server nothing and connects to none of its ports.
With --once, or where the output is no terminal, one sample over --interval is printed. With --json it has the keys
state, pid, recovery, seconds, records_per_s_estimate, records_in_estimate, records_placed, records_recovered,
backlog_records_estimate, record_bytes_estimate, logged_bytes, logged_bytes_per_s, received_bytes, received_bytes_per_s,
unread_bytes, keys, event_time_us, event_time, lag_us, cycles, cycle_running, cycle_last_us, cycle_longest_us,
cycle_last_bytes_estimate, shipped_bytes, shipped_bytes_per_s, unsent_bytes, recovery_files, recovery_bytes,
cpu_percent, threads (name, cpu_percent), memory_bytes, memory_peak_bytes, errors_total, errors (text, count, meaning).
Exit status 69 when there is nothing to show.
Examples:
  brindlectl top
  brindlectl top --once --json --recovery /var/lib/brindle/run7 --log /var/log/brindle.log | jq .lag_us)";

constexpr long INTERVAL_MIN_US = 100000;

class TopCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    using Clock = std::chrono::steady_clock;
    enum Wake : std::uint8_t { DUE, STOPPED, RESIZED, KEY };

    [[nodiscard]] ExitCode ShowOnce(TopSampler& sampler, StopSignals const& signals);
    [[nodiscard]] ExitCode ShowOn(TopSampler& sampler, StopSignals const& signals);
    [[nodiscard]] Wake WaitUntil(Clock::time_point due, TopSampler& sampler, int stop, int resize, int keys) const;
    void Remember(TopSampler const& sampler);

    TopSampler::Options options_;
    long intervalUs_ = 1000000;
    bool once_ = false;
    bool ascii_ = false;
    TopHistory history_;
};

void TopCommand::Declare(CLI::App& program) {
    options_.programName = "brindle";
    Add(program, "top", "Show a running server: load, backlog, cycles, memory, errors", TOP_EXAMPLES);
    AddOption("--log", "FILE", "What the server's standard error is written to; - for standard input",
              options_.logPath);
    AddOption("--recovery", "DIR", "Recovery directory of the server to show", options_.recoveryPath);
    AddNumber("--pid", "NUMBER", "Process of the server to show; 0: found by the others", options_.pid, 0, 1L << 30);
    AddOption("--name", "PROGRAM", "Name of the server's program", options_.programName);
    AddDuration("--window", "Window of the server, where its arguments cannot be read", options_.windowUs);
    AddOption("--spec", "FILE", "Schema, where the one in the server's arguments cannot be read", options_.specPath);
    AddDuration("--interval", "Time between two samples; 1s by default", intervalUs_);
    AddFlag("--once", "Print one sample and end", once_);
    AddFlag("--ascii", "Draw the chart with ASCII characters", ascii_);
    AddJson();
}

ExitCode TopCommand::Run() {
    if (intervalUs_ < INTERVAL_MIN_US) return Fail(USAGE, "--interval: 100ms is the least");
    StopSignals const signals;
    TopSampler sampler(options_);
    sampler.Take();
    if (sampler.IsAmbiguous()) { return Fail(USAGE, "several servers run: choose one with --pid or --recovery"); }
    bool const isLive = !once_ && !WantsJson() && isatty(STDOUT_FILENO) == 1;
    bool const hasSource = sampler.HasServer() || sampler.Recovery().exists || !options_.logPath.empty();
    if (!hasSource && !isLive) {
        return Fail(UNAVAILABLE, "no server '{}' runs on this machine; give --pid, --recovery or --log",
                    Printable(options_.programName));
    }
    return isLive ? ShowOn(sampler, signals) : ShowOnce(sampler, signals);
}

void TopCommand::Remember(TopSampler const& sampler) {
    TopSample const& sample = sampler.Sample();
    history_.Add(sample.recordsPerSecond.value_or(0));
}

ExitCode TopCommand::ShowOnce(TopSampler& sampler, StopSignals const& signals) {
    Clock::time_point const due = Clock::now() + std::chrono::microseconds(intervalUs_);
    if (WaitUntil(due, sampler, signals.Descriptor(), -1, -1) == STOPPED) return DONE;
    sampler.Take();
    if (WantsJson()) return PrintResult(sampler.Json());
    Remember(sampler);
    std::string text;
    TopLook look;
    look.columns = TerminalColumns(STDOUT_FILENO);
    look.colors = HasColor(STDOUT_FILENO);
    look.blocks = !ascii_ && HasUtf8Locale();
    for (std::string const& line : TopLines(sampler, history_, look, false)) text += line + '\n';
    return PrintText(text);
}

ExitCode TopCommand::ShowOn(TopSampler& sampler, StopSignals const& signals) {
    sigset_t resizing;
    sigemptyset(&resizing);
    sigaddset(&resizing, SIGWINCH);
    sigprocmask(SIG_BLOCK, &resizing, nullptr);
    sutl_Descriptor const resized(signalfd(-1, &resizing, SFD_CLOEXEC | SFD_NONBLOCK));
    TopTerminal terminal;
    TopLook look;
    look.colors = HasColor(STDOUT_FILENO);
    look.blocks = !ascii_ && HasUtf8Locale();
    bool paused = false;
    // Not at once: speeds over a moment are no speeds.
    Clock::time_point due = Clock::now() + std::chrono::microseconds(intervalUs_);
    for (;;) {
        TopTerminal::Size(look);
        if (!terminal.Draw(TopLines(sampler, history_, look, paused))) return DONE;
        Wake const wake = WaitUntil(due, sampler, signals.Descriptor(), resized.Get(), terminal.Keys());
        if (wake == STOPPED) return DONE;
        if (wake == RESIZED) {
            signalfd_siginfo ignored;
            while (sutl_ReadSome(resized.Get(), &ignored, sizeof ignored) > 0) {}
        }
        if (wake == KEY) {
            char const key = terminal.ReadKey();
            if (key == 'q' || key == 'Q') return DONE;
            if (key == 'p' || key == 'P') paused = !paused;
        }
        if (wake != DUE) continue;
        due = std::max(due, Clock::now() - std::chrono::microseconds(intervalUs_)) +
              std::chrono::microseconds(intervalUs_);
        if (paused) continue;
        sampler.Take();
        Remember(sampler);
    }
}

// Waits, and reads a log that is a pipe meanwhile: a server must not wait for this.
TopCommand::Wake TopCommand::WaitUntil(Clock::time_point due, TopSampler& sampler, int stop, int resize,
                                       int keys) const {
    for (;;) {
        auto const left = std::chrono::ceil<std::chrono::milliseconds>(due - Clock::now()).count();
        if (left <= 0) return DUE;
        pollfd waited[] = {{stop, POLLIN, 0}, {resize, POLLIN, 0}, {keys, POLLIN, 0}, {sampler.LogPipe(), POLLIN, 0}};
        if (poll(waited, 4, static_cast<int>(left)) <= 0) continue;
        if (waited[0].revents != 0) return STOPPED;
        if (waited[1].revents != 0) return RESIZED;
        if (waited[2].revents != 0) return KEY;
        if (waited[3].revents != 0) sampler.ReadLog();
    }
}

}  // namespace

std::unique_ptr<Command> MakeTopCommand() { return std::make_unique<TopCommand>(); }
