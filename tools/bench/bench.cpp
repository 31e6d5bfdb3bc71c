// brindlectl bench: loads a server, verifies what it ships, and tells how long everything took.

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>

#include "commands.h"
#include "free_ports.h"
#include "load_run.h"
#include "own_server.h"
#include "progress.h"
#include "server_process.h"
#include "ship_ports.h"
#include "stop_signals.h"
#include "sutl_frame.h"
#include "terminal_text.h"

namespace {

constexpr char BENCH_EXAMPLES[] =
    R"(Starts a server of its own, on free ports and in a temporary directory, unless --data and --ship name the ports of
one that is about to start; that one ends with the load, as a server does with its producer.
With --rate the load is open-loop: every frame has a time at which it must go, whether the server has taken the one
before or not, and latencies count from there. Without, each frame goes as soon as the one before was taken.
What is shipped is verified: every record once, unharmed, each block in the order of time. Exit status 1 when it fails.
With --json: preset, closed_loop, rate, records, keys, frames, frame_bytes, window_us, seed, seconds_in, seconds_out,
records_per_s_in, records_per_s_out, bytes_in, bytes_out, cycles, latency_taken, latency_queryable, latency_shipped,
latency_query (each with count, p50_us, p90_us, p99_us, p999_us, p9999_us, max_us), probes_lost, blocked_share,
server_cpu_seconds, server_cpu_ns_per_record, server_peak_bytes, bench_cpu_seconds, verified, reason; null where nothing
could be measured.
Examples:
  brindlectl bench --rate 100000 --seconds 30
  brindlectl bench --preset wide --data 127.0.0.1:7101,7102 --ship 127.0.0.1:7001,7002 --window 4s)";

constexpr long US_PER_SECOND = 1000000;
constexpr long FRAME_BYTES_MAX = 64L << 20;
constexpr int START_TRIES = 3;       // with other ports, where one was taken meanwhile
constexpr int END_SECONDS_MAX = 60;  // from the end of the ship stream to that of the server
constexpr std::chrono::milliseconds LOOK_PAUSE{50};
constexpr std::chrono::seconds SILENCE_MIN{60};

double Seconds(std::chrono::nanoseconds duration) { return std::chrono::duration<double>(duration).count(); }
double Milliseconds(std::chrono::nanoseconds duration) { return 1000 * Seconds(duration); }

struct Quantile {
    char const* name;  // in tables
    char const* key;   // in JSON
    double share;
};

constexpr Quantile QUANTILES[] = {{"p50", "p50_us", 0.5},
                                  {"p90", "p90_us", 0.9},
                                  {"p99", "p99_us", 0.99},
                                  {"p99.9", "p999_us", 0.999},
                                  {"p99.99", "p9999_us", 0.9999}};

nlohmann::json ToJson(bench_Histogram const& histogram) {
    if (histogram.Count() == 0) return nullptr;
    nlohmann::json result = {{"count", histogram.Count()}};
    for (Quantile const& quantile : QUANTILES) {
        result[quantile.key] = 1000 * Milliseconds(histogram.Quantile(quantile.share));
    }
    result["max_us"] = 1000 * Milliseconds(histogram.Max());
    return result;
}

std::string LatencyRow(char const* name, bench_Histogram const& histogram) {
    std::string row = fmt::format("{:<26}", name);
    if (histogram.Count() == 0) return row + "         -\n";
    for (Quantile const& quantile : QUANTILES) {
        row += fmt::format(" {:>9.3f}", Milliseconds(histogram.Quantile(quantile.share)));
    }
    return row + fmt::format(" {:>9.3f} {:>10}\n", Milliseconds(histogram.Max()), histogram.Count());
}

// A directory that goes, with what it holds, at the end.
class TemporaryDirectory {
 public:
    TemporaryDirectory() {
        char const* const folder = getenv("TMPDIR");
        path_ = fmt::format("{}/brindle-bench-XXXXXX", folder == nullptr ? "/tmp" : folder);
        exists_ = mkdtemp(path_.data()) != nullptr;
    }
    TemporaryDirectory(TemporaryDirectory const&) = delete;
    TemporaryDirectory& operator=(TemporaryDirectory const&) = delete;
    ~TemporaryDirectory() {
        std::error_code ignored;
        if (exists_) std::filesystem::remove_all(path_, ignored);
    }
    [[nodiscard]] bool Exists() const { return exists_; }
    [[nodiscard]] std::string const& Path() const { return path_; }

 private:
    std::string path_;
    bool exists_ = false;
};

bool WriteFile(std::string const& path, std::string_view text) {
    sutl_Descriptor const file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    return file.IsOpen() && sutl_FileWrite(file.Get(), text.data(), text.size()) == static_cast<long>(text.size());
}

// The end of what a server has said, on one line that a terminal can bear.
std::string LastWords(std::string const& path) {
    constexpr std::size_t SHOWN = 1000;
    std::string said = ReadSmallFile(path);
    said.erase(0, said.size() - std::min(SHOWN, said.size()));
    std::replace(said.begin(), said.end(), '\n', ' ');
    return said.empty() ? "nothing" : ForTerminal(said);
}

bool HaveSameTypes(suts_tsspec const& one, suts_tsspec const& other) {
    if (one.fieldCount != other.fieldCount) return false;
    for (int i = 0; i < one.fieldCount; ++i) {
        if (one.Type(i) != other.Type(i)) return false;
    }
    return true;
}

class BenchCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    // What is known of the server's process, and what it has used.
    struct Usage {
        pid_t pid = 0;
        double cpuBefore = 0;
        double cpuSeconds = 0;
        long peakBytes = 0;
    };

    [[nodiscard]] ExitCode CheckOptions();
    [[nodiscard]] ExitCode ChooseSchema(std::string const& directory);
    [[nodiscard]] bench_WorkloadOptions WorkloadOptions() const;
    [[nodiscard]] LoadRun::Options RunOptions() const;
    [[nodiscard]] ExitCode Connect(std::string const& directory, int stop, bench_Pair& data, bench_Pair& ship);
    [[nodiscard]] ExitCode StartOwn(std::string const& directory, int stop, bench_Pair& data, bench_Pair& ship);
    [[nodiscard]] ExitCode ReachGiven(int stop, bench_Pair& data, bench_Pair& ship);
    [[nodiscard]] bool Watch(LoadRun& run, int stop);
    void LookAtServer();
    [[nodiscard]] ExitCode Report(LoadRun& run, bench_Workload const& workload, std::string const& errorPath);
    [[nodiscard]] std::string Table(LoadRun const& run, nlohmann::json const& result) const;

    suts_tsspec spec_;
    std::string preset_;
    std::string serverPath_;
    std::string dataText_;
    std::string shipText_;
    std::string queryText_;
    brindle_Address data_;
    brindle_Address ship_;
    brindle_Address query_;
    long records_ = 0;
    long keys_ = 0;
    long rate_ = 0;
    long seconds_ = 0;
    long latenessUs_ = -1;
    long frameBytes_ = 64L << 10;
    long windowUs_ = 4 * US_PER_SECOND;
    long clients_ = 1;
    long seed_ = 1;
    OwnServer server_;
    Usage usage_;
};

void BenchCommand::Declare(CLI::App& program) {
    Add(program, "bench", "Load a server, verify what it ships, and measure", BENCH_EXAMPLES);
    AddOption("--preset", "NAME", "Records to send: ticks, many or wide; by default what fits --spec, or ticks",
              preset_);
    AddNumber("--records", "COUNT", "Records to send, rounded up to a frame; 0: by --seconds, or the preset's own",
              records_, 0, 1L << 40);
    AddNumber("--keys", "COUNT", "Distinct keys; 0: the preset's own", keys_, 0, 1000000);
    AddNumber("--rate", "COUNT", "Records per second, open-loop; 0: as fast as the server takes them", rate_, 0,
              100000000);
    AddNumber("--seconds", "COUNT", "Time to send for; 0: by --records, or 10 with a rate", seconds_, 0,
              7L * 24 * 3600);
    AddDuration("--lateness", "The most that a late record is late; the preset's own by default", latenessUs_);
    AddBytes("--frame", "Size that frames are filled up to; 64k by default", frameBytes_);
    AddDuration("--window", "Window of the server, in whole seconds; 4s by default", windowUs_);
    AddNumber("--query-clients", "COUNT", "Clients that look for records just sent; the server serves one at a time",
              clients_, 0, 64);
    AddNumber("--seed", "NUMBER", "The same seed sends the same records", seed_, 0, 1L << 62);
    AddOption("--server", "PATH", "Server to start; the brindle beside this program by default", serverPath_);
    AddOption("--spec", "FILE", "Schema of the server, with the types of the preset", specPath_);
    AddOption("--data", "HOST:PORT1,PORT2", "Data ports of a server that is not started here", dataText_);
    AddOption("--ship", "HOST:PORT1,PORT2", "Ports to listen on for what that server ships", shipText_);
    AddOption("--query", "HOST:PORT1,PORT2", "Its query ports; without them nothing is asked", queryText_);
    AddWait();
    AddJson();
}

ExitCode BenchCommand::CheckOptions() {
    struct {
        char const* name;
        std::string const& text;
        brindle_Address& address;
    } const given[] = {{"--data", dataText_, data_}, {"--ship", shipText_, ship_}, {"--query", queryText_, query_}};
    for (auto const& one : given) {
        if (!one.text.empty() && !brindle_ParseAddress(one.text, one.address)) {
            return Fail(USAGE, "{}: '{}' is no address; write HOST:PORT1,PORT2", one.name, one.text);
        }
    }
    if (dataText_.empty() != shipText_.empty() || (dataText_.empty() && !queryText_.empty())) {
        return Fail(USAGE, "a server that is not started here needs both --data and --ship");
    }
    if (!dataText_.empty() && !serverPath_.empty()) return Fail(USAGE, "--server and --data exclude each other");
    if (windowUs_ < US_PER_SECOND || windowUs_ % US_PER_SECOND != 0) {
        return Fail(USAGE, "--window: a server's window is a whole number of seconds");
    }
    if (frameBytes_ > FRAME_BYTES_MAX) return Fail(USAGE, "--frame: {} bytes are the most", FRAME_BYTES_MAX);
    if (!preset_.empty() && bench_Workload::Schema(preset_).empty()) {
        return Fail(USAGE, "--preset {}: there are {}", preset_, fmt::join(bench_Workload::Names(), ", "));
    }
    if (rate_ > 0 && seconds_ == 0 && records_ == 0) seconds_ = 10;
    return DONE;
}

// Loads the schema that is given, or that of the preset, into spec_.
ExitCode BenchCommand::ChooseSchema(std::string const& directory) {
    bool const isGiven = !specPath_.empty();
    if (isGiven) {
        if (ExitCode const loaded = LoadSpec(spec_); loaded != DONE) return loaded;
    }
    std::string const ownPath = directory + "/schema.spec";
    std::vector<std::string> const names =
        preset_.empty() && isGiven ? bench_Workload::Names() : std::vector{preset_.empty() ? "ticks" : preset_};
    for (std::string const& name : names) {
        if (!WriteFile(ownPath, bench_Workload::Schema(name)))
            return Fail(IO_ERROR, "{}: {}", ownPath, strerror(errno));
        suts_tsspec preset;
        if (preset.Init(ownPath.c_str()) != suts_tsspec::LOADED) return Fail(IO_ERROR, "{}: not loaded", ownPath);
        if (isGiven && !HaveSameTypes(spec_, preset)) continue;
        preset_ = name;
        if (!isGiven) spec_.CopyFrom(preset);
        if (!isGiven) specPath_ = ownPath;
        return DONE;
    }
    return Fail(BAD_CONFIGURATION, "{}: its types are not those of {}: {}", specPath_, fmt::join(names, ", "),
                "give a schema with the same types in the same order");
}

bench_WorkloadOptions BenchCommand::WorkloadOptions() const {
    bench_WorkloadOptions options;
    options.name = preset_;
    long wanted = records_;
    if (rate_ > 0 && seconds_ > 0) wanted = wanted > 0 ? std::min(wanted, rate_ * seconds_) : rate_ * seconds_;
    // More are sent as laps, so that memory has a bound.
    options.records = std::min(wanted, bench_Workload::UsualRecords(preset_));
    options.keys = keys_;
    options.latenessUs = latenessUs_;
    options.seed = static_cast<unsigned long>(seed_);
    // At a rate event time goes as fast as the clock.
    options.stepUs = rate_ > 0 ? std::max(1L, US_PER_SECOND / rate_) : 0;
    options.frameBodyBytes = static_cast<std::size_t>(frameBytes_);
    return options;
}

LoadRun::Options BenchCommand::RunOptions() const {
    LoadRun::Options options;
    options.producer.rate = static_cast<double>(rate_);
    if (records_ > 0) options.producer.records = static_cast<unsigned long>(records_);
    if (seconds_ > 0) options.producer.duration = std::chrono::seconds(seconds_);
    // A window can pass before anything is shipped.
    options.silenceMax = SILENCE_MIN + std::chrono::seconds(2 * windowUs_ / US_PER_SECOND);
    if (rate_ > 0) options.silenceMax += std::chrono::seconds(seconds_);
    options.clients = query_.firstPort == 0 ? 0 : clients_;
    options.queryPorts = {query_.firstPort, query_.secondPort};
    options.windowUs = static_cast<unsigned long>(windowUs_);
    return options;
}

ExitCode BenchCommand::Run() {
    if (ExitCode const checked = CheckOptions(); checked != DONE) return checked;
    TemporaryDirectory const directory;
    if (!directory.Exists()) return Fail(IO_ERROR, "{}: {}", directory.Path(), strerror(errno));
    if (ExitCode const chosen = ChooseSchema(directory.Path()); chosen != DONE) return chosen;
    StopSignals const signals;
    bench_Workload workload(WorkloadOptions(), spec_);
    bench_Pair data;
    bench_Pair ship;
    ExitCode const connected = Connect(directory.Path(), signals.Descriptor(), data, ship);
    if (connected != DONE) return connected;
    LoadRun::Options options = RunOptions();
    if (records_ == 0 && seconds_ == 0) options.producer.records = static_cast<unsigned long>(workload.Records());
    if (options.clients > 0 && brindle_FindHost(query_.host, options.queryHost) != BRINDLE_DONE) {
        return Fail(UNAVAILABLE, "{}: the host '{}' is not known; check the name", queryText_, query_.host);
    }
    LookAtServer();
    usage_.cpuBefore = usage_.cpuSeconds;
    LoadRun run(spec_, workload, std::move(data), std::move(ship), options);
    run.Start();
    bool const whole = Watch(run, signals.Descriptor());
    if (!whole) server_.Kill();
    run.End();
    if (!whole) return Fail(TRY_AGAIN, "interrupted; nothing was verified");
    return Report(run, workload, directory.Path() + "/stderr");
}

ExitCode BenchCommand::Connect(std::string const& directory, int stop, bench_Pair& data, bench_Pair& ship) {
    if (!dataText_.empty()) return ReachGiven(stop, data, ship);
    if (serverPath_.empty()) {
        std::error_code error;
        serverPath_ = std::filesystem::read_symlink("/proc/self/exe", error).parent_path() / "brindle";
    }
    return StartOwn(directory, stop, data, ship);
}

ExitCode BenchCommand::StartOwn(std::string const& directory, int stop, bench_Pair& data, bench_Pair& ship) {
    std::string const errorPath = directory + "/stderr";
    for (int attempt = 0; attempt < START_TRIES; ++attempt) {
        std::vector<unsigned short> const ports = FindFreePorts(6);
        if (ports.size() < 6) return Fail(UNAVAILABLE, "no free ports");
        ship_ = {"127.0.0.1", ports[0], ports[1]};
        data_ = {"127.0.0.1", ports[2], ports[3]};
        query_ = {"127.0.0.1", ports[4], ports[5]};
        std::string const recovery = fmt::format("{}/recovery-{}", directory, attempt);
        if (mkdir(recovery.c_str(), 0700) != 0) return Fail(IO_ERROR, "{}: {}", recovery, strerror(errno));
        ShipPorts consumer;
        if (consumer.Listen(ship_) != BRINDLE_DONE) continue;
        std::vector<std::string> arguments = {specPath_, recovery, "127.0.0.1"};
        for (std::size_t i = 0; i < 4; ++i) arguments.push_back(std::to_string(ports[i]));
        arguments.push_back(std::to_string(windowUs_ / US_PER_SECOND));
        for (std::size_t i = 4; i < 6; ++i) arguments.push_back(std::to_string(ports[i]));
        if (!server_.Start(serverPath_, arguments, errorPath)) {
            return Fail(UNAVAILABLE, "{}: cannot be started: {}; name the server with --server", serverPath_,
                        strerror(errno));
        }
        usage_.pid = server_.Pid();
        auto const deadline = std::chrono::steady_clock::now() + Wait();
        in_addr const host = {htonl(INADDR_LOOPBACK)};
        while (!data.IsOpen() && !server_.HasEnded() && std::chrono::steady_clock::now() < deadline) {
            data = bench_ConnectPair(host, {data_.firstPort, data_.secondPort}, LOOK_PAUSE);
        }
        if (data.IsOpen() && consumer.Accept(Wait(), stop, ship) == BRINDLE_DONE) return DONE;
        data = {};
        server_.Kill();
        if (ReadSmallFile(errorPath).find("Address already in use") == std::string::npos) break;
    }
    return Fail(UNAVAILABLE, "{}: the server does not serve; it said: {}", serverPath_, LastWords(errorPath));
}

ExitCode BenchCommand::ReachGiven(int stop, bench_Pair& data, bench_Pair& ship) {
    ShipPorts consumer;
    if (brindle_Result const listening = consumer.Listen(ship_); listening != BRINDLE_DONE) {
        return Fail(UNAVAILABLE, "{}: cannot listen: {}; choose other ports or end who holds them", shipText_,
                    listening == BRINDLE_UNKNOWN_HOST ? "the host is not known" : strerror(errno));
    }
    Say("listening on {}; start the server now", shipText_);
    brindle_Result const accepted = consumer.Accept(Wait(), stop, ship);
    if (accepted == BRINDLE_STOPPED) return Fail(TRY_AGAIN, "interrupted; nothing was verified");
    if (accepted != BRINDLE_DONE) {
        return Fail(UNAVAILABLE,
                    "{}: no server has connected within the wait; a server does so when it starts: start it "
                    "behind this, or wait longer with --wait",
                    shipText_);
    }
    in_addr host = {};
    if (brindle_FindHost(data_.host, host) != BRINDLE_DONE) {
        return Fail(UNAVAILABLE, "{}: the host '{}' is not known; check the name", dataText_, data_.host);
    }
    data = bench_ConnectPair(host, {data_.firstPort, data_.secondPort}, Wait());
    if (!data.IsOpen()) return Fail(UNAVAILABLE, "{}: no server: {}; check the ports", dataText_, strerror(errno));
    bool const isHere = ntohl(host.s_addr) >> 24 == 127;
    for (ServerProcess const& server : FindServers("brindle")) {
        if (isHere && server.dataPort == data_.firstPort && server.shipPort == ship_.firstPort) usage_.pid = server.pid;
    }
    return DONE;
}

// False when it was interrupted.
bool BenchCommand::Watch(LoadRun& run, int stop) {
    Progress progress("records shipped", !IsQuiet());
    while (!run.Done()) {
        pollfd waited = {stop, POLLIN, 0};
        if (poll(&waited, 1, static_cast<int>(LOOK_PAUSE.count())) > 0) return false;
        LookAtServer();
        progress.UpdateNow(run.Receiver().Records());
    }
    return true;
}

// The peak is read while the process lives: what the system keeps beyond counts in the memory of who has started it.
void BenchCommand::LookAtServer() {
    ProcessUsage usage;
    if (usage_.pid == 0 || !ReadUsage(usage_.pid, usage)) return;
    usage_.cpuSeconds = std::max(usage_.cpuSeconds, usage.cpuSeconds);
    usage_.peakBytes = std::max(usage_.peakBytes, usage.peakBytes);
}

ExitCode BenchCommand::Report(LoadRun& run, bench_Workload const& workload, std::string const& errorPath) {
    std::string reason = run.Verdict();
    if (server_.Pid() != 0) {
        int const status = server_.Wait(END_SECONDS_MAX);
        usage_.cpuSeconds = server_.CpuSeconds();
        usage_.cpuBefore = 0;
        if (reason.empty() && status != 0) reason = fmt::format("the server ended with {}", status);
        if (!reason.empty()) { Warn("the server's last words: {}", LastWords(errorPath)); }
    }
    bench_Producer const& producer = run.Producer();
    auto const records = static_cast<double>(producer.Records());
    double const secondsIn = Seconds(producer.SendTime());
    double const secondsOut = std::max(0.0, Seconds(run.Receiver().Last() - producer.Start()));
    auto const perSecond = [](double count, double seconds) { return seconds > 0 ? count / seconds : 0; };
    nlohmann::json result = {
        {"preset", preset_},
        {"closed_loop", rate_ == 0},
        {"rate", rate_},
        {"records", producer.Records()},
        {"keys", workload.Keys().size()},
        {"frames", producer.Frames()},
        {"frame_bytes", frameBytes_},
        {"window_us", windowUs_},
        {"seed", seed_},
        {"seconds_in", secondsIn},
        {"seconds_out", secondsOut},
        {"records_per_s_in", perSecond(records, secondsIn)},
        {"records_per_s_out", perSecond(static_cast<double>(run.Receiver().Records()), secondsOut)},
        {"bytes_in", producer.Bytes()},
        {"bytes_out", run.Receiver().Bytes()},
        {"cycles", run.Check().Cycles()},
        {"latency_taken", ToJson(producer.Latencies())},
        {"latency_queryable", ToJson(run.Queryable())},
        {"latency_shipped", ToJson(run.Shipped())},
        {"latency_query", ToJson(run.Answered())},
        {"probes_lost", run.Lost()},
        {"blocked_share", perSecond(Seconds(producer.BlockedTime()), secondsIn)},
        {"server_cpu_seconds", nullptr},
        {"server_cpu_ns_per_record", nullptr},
        {"server_peak_bytes", nullptr},
        {"bench_cpu_seconds", bench_CpuSeconds()},
        {"verified", reason.empty()},
        {"reason", reason}};
    if (usage_.pid != 0) {
        double const cpu = usage_.cpuSeconds - usage_.cpuBefore;
        result["server_cpu_seconds"] = cpu;
        result["server_cpu_ns_per_record"] = records > 0 ? cpu * 1e9 / records : 0;
        result["server_peak_bytes"] = usage_.peakBytes;
    }
    if (WantsJson()) {
        if (ExitCode const printed = PrintResult(result); printed != DONE) return printed;
    } else {
        if (ExitCode const printed = PrintText(Table(run, result)); printed != DONE) return printed;
    }
    return reason.empty() ? DONE : Fail(REJECTS, "not verified: {}", reason);
}

std::string BenchCommand::Table(LoadRun const& run, nlohmann::json const& result) const {
    auto const number = [&result](char const* key) { return result.at(key).get<double>(); };
    constexpr double MB = 1e6;
    std::string text =
        fmt::format("{}: {} of {} in {}, window {} s, seed {}\n", preset_,
                    Count(result.at("records").get<unsigned long>(), "record"),
                    Count(result.at("keys").get<unsigned long>(), "key"),
                    Count(result.at("frames").get<unsigned long>(), "frame"), windowUs_ / US_PER_SECOND, seed_);
    text += rate_ > 0 ? fmt::format("open loop at {} records/s: latencies count from when a frame was due\n\n", rate_)
                      : "closed loop, as fast as the server takes: latencies count from when a frame was sent\n\n";
    text += fmt::format("{:<26} {:>9} {:>9} {:>9}\n", "", "records/s", "MB/s", "seconds");
    for (auto const& [name, rate, bytes, seconds] :
         {std::tuple{"in", "records_per_s_in", "bytes_in", "seconds_in"},
          std::tuple{"out", "records_per_s_out", "bytes_out", "seconds_out"}}) {
        double const time = number(seconds);
        text += fmt::format("{:<26} {:>9.0f} {:>9.1f} {:>9.2f}\n", name, number(rate),
                            time > 0 ? number(bytes) / MB / time : 0, time);
    }
    text += fmt::format("\n{:<26}", "latency, ms");
    for (Quantile const& quantile : QUANTILES) text += fmt::format(" {:>9}", quantile.name);
    text += fmt::format(" {:>9} {:>10}\n", "max", "samples");
    text += LatencyRow("frame taken", run.Producer().Latencies());
    text += LatencyRow("record found by a query", run.Queryable());
    text += LatencyRow("record shipped", run.Shipped());
    text += LatencyRow("query answered", run.Answered());
    text += '\n';
    if (usage_.pid != 0) {
        text += fmt::format("server: {:.0f} ns of CPU per record, at most {:.1f} MB of memory\n",
                            number("server_cpu_ns_per_record"), number("server_peak_bytes") / MB);
    }
    text += fmt::format(
        "the server kept the sender for {:.1f} % of its time; {} left the window before a query found them\n",
        100 * number("blocked_share"), Count(run.Lost(), "record"));
    return text + (result.at("verified").get<bool>()
                       ? fmt::format("verified: every record once and unharmed, blocks in order, in {}\n",
                                     Count(run.Check().Cycles(), "cycle"))
                       : fmt::format("NOT VERIFIED: {}\n", result.at("reason").get<std::string>()));
}

}  // namespace

std::unique_ptr<Command> MakeBenchCommand() { return std::make_unique<BenchCommand>(); }
