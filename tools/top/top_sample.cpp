#include "top_sample.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <nlohmann/json.hpp>

#include "time_text.h"

namespace {

constexpr long BUCKETS_PER_WINDOW = 4;

template <typename Value>
nlohmann::json OrNull(std::optional<Value> const& value) {
    return value ? nlohmann::json(*value) : nlohmann::json();
}

// How fast a count grows; absent where it was not known before, or has begun anew.
std::optional<double> Speed(std::optional<double> const& before, std::optional<double> const& now, double seconds) {
    if (!before || !now || *now < *before || seconds <= 0) return std::nullopt;
    return (*now - *before) / seconds;
}

bool IsRegularFile(std::string const& path, long& size) {
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
    size = status.st_size;
    return true;
}

std::string ErrorsOf(pid_t pid) { return fmt::format("/proc/{}/fd/2", pid); }

}  // namespace

TopSampler::TopSampler(Options options) : options_(std::move(options)) {
    if (!options_.logPath.empty()) follower_.Follow(options_.logPath);
    hasLog_ = !options_.logPath.empty();
    if (!options_.recoveryPath.empty()) recovery_.Watch(options_.recoveryPath, options_.specPath);
    sample_.recoveryPath = Printable(options_.recoveryPath);
}

void TopSampler::FindServer() {
    ServerProcess now;
    if (server_.pid != 0 && ReadServer(server_.pid, now) && now.startTicks == server_.startTicks) return;
    // What it said last is read before the next one is looked at.
    ReadLog();
    server_ = {};
    follower_.SetWriter(0);
    isAmbiguous_ = false;
    if (options_.pid != 0) {
        if (!hadServer_ && ReadServer(static_cast<pid_t>(options_.pid), now)) Adopt(now);
        return;
    }
    std::vector<ServerProcess> servers = FindServers(options_.programName);
    std::erase_if(servers, [this](ServerProcess const& server) {
        return !options_.recoveryPath.empty() && !IsSameFile(server.recoveryPath, options_.recoveryPath);
    });
    isAmbiguous_ = servers.size() > 1;
    if (servers.size() == 1) Adopt(servers[0]);
}

void TopSampler::Adopt(ServerProcess const& server) {
    server_ = server;
    if (hadServer_) log_.StartRun();
    long size = 0;
    if (options_.logPath.empty()) {
        hasLog_ = IsRegularFile(ErrorsOf(server.pid), size);
        if (hasLog_) {
            log_ = {};
            follower_.Follow(ErrorsOf(server.pid));
        }
    }
    follower_.SetWriter(server.pid);
    std::string const spec = options_.specPath.empty() ? server.specPath : options_.specPath;
    std::string const directory = server.recoveryPath.empty() ? options_.recoveryPath : server.recoveryPath;
    recovery_.Watch(directory, spec);
    std::string const name = options_.recoveryPath.empty() ? directory : options_.recoveryPath;
    sample_ = {};
    sample_.recoveryPath = Printable(name);
    hasUsage_ = false;
    cyclesSeen_ = 0;
    shippedAtCycle_ = 0;
    hadServer_ = true;
}

void TopSampler::ReadLog() {
    follower_.Read([this](std::string_view line) { log_.Take(line); });
}

void TopSampler::Take() {
    FindServer();
    ReadLog();
    recovery_.Look(server_.pid);
    Clock::time_point const now = Clock::now();
    sample_.seconds = taken_ == Clock::time_point() ? 0 : std::chrono::duration<double>(now - taken_).count();
    taken_ = now;
    sample_.pid = server_.pid;
    TakeProcess();
    TakeSockets();
    TakeRecords();
    TakeTime();
    sample_.state = State(sockets_);
}

void TopSampler::TakeProcess() {
    ProcessUsage usage;
    bool const isThere = server_.pid != 0 && ReadUsage(server_.pid, usage);
    sample_.threads.clear();
    sample_.cpuPercent.reset();
    sample_.memoryBytes.reset();
    if (isThere) {
        sample_.memoryBytes = static_cast<double>(usage.memoryBytes);
        sample_.memoryPeakBytes = static_cast<double>(usage.peakBytes);
    }
    if (isThere && hasUsage_ && sample_.seconds > 0) {
        auto const percent = [this](double after, double before) {
            return std::max(0.0, 100 * (after - before) / sample_.seconds);
        };
        sample_.cpuPercent = percent(usage.cpuSeconds, usage_.cpuSeconds);
        for (ProcessUsage::Thread const& thread : usage.threads) {
            auto const before = std::find_if(usage_.threads.begin(), usage_.threads.end(),
                                             [&thread](auto const& one) { return one.name == thread.name; });
            double const cpuBefore = before == usage_.threads.end() ? 0 : before->cpuSeconds;
            sample_.threads.push_back({Printable(thread.name), percent(thread.cpuSeconds, cpuBefore)});
        }
    }
    hasUsage_ = isThere;
    if (isThere) usage_ = usage;
}

void TopSampler::TakeSockets() {
    sockets_ = server_.pid != 0 ? ReadSockets(server_) : SocketView();
    std::optional<double> received;
    std::optional<double> shipped;
    sample_.unreadBytes.reset();
    sample_.unsentBytes.reset();
    if (sockets_.hasProducer) {
        received = static_cast<double>(sockets_.receivedBytes);
        sample_.unreadBytes = static_cast<double>(sockets_.unreadBytes);
    }
    if (sockets_.hasConsumer) {
        shipped = static_cast<double>(sockets_.shippedBytes);
        sample_.unsentBytes = static_cast<double>(sockets_.unsentBytes);
    }
    sample_.receivedBytesPerSecond = Speed(sample_.receivedBytes, received, sample_.seconds);
    sample_.shippedBytesPerSecond = Speed(sample_.shippedBytes, shipped, sample_.seconds);
    if (received) sample_.receivedBytes = received;
    if (shipped) sample_.shippedBytes = shipped;
    if (!shipped || log_.cycles == cyclesSeen_) return;
    long const since = sockets_.shippedBytes - shippedAtCycle_;
    // The cycles before the first sample cannot be told from each other.
    if (cyclesSeen_ > 0 && log_.cycles > cyclesSeen_ && since >= 0) {
        sample_.cycleLastBytes = static_cast<double>(since) / static_cast<double>(log_.cycles - cyclesSeen_);
    }
    cyclesSeen_ = log_.cycles;
    shippedAtCycle_ = sockets_.shippedBytes;
}

void TopSampler::TakeRecords() {
    std::optional<double> logged;
    if (hasUsage_ && usage_.writtenBytes >= 0 && recovery_.exists) {
        long errorBytes = 0;
        IsRegularFile(ErrorsOf(server_.pid), errorBytes);
        logged = static_cast<double>(
            std::max(recovery_.loggedBytes, usage_.writtenBytes - recovery_.keyFileBytes - errorBytes));
    } else if (recovery_.exists) {
        logged = std::max(sample_.loggedBytes.value_or(0), static_cast<double>(recovery_.loggedBytes));
    }
    sample_.loggedBytesPerSecond = Speed(sample_.loggedBytes, logged, sample_.seconds);
    if (logged) sample_.loggedBytes = logged;
    sample_.recordsPerSecond.reset();
    sample_.backlogRecords.reset();
    if (recovery_.recordBytes) {
        double const size = *recovery_.recordBytes;
        if (sample_.loggedBytesPerSecond) sample_.recordsPerSecond = *sample_.loggedBytesPerSecond / size;
        if (sample_.loggedBytes) sample_.recordsIn = *sample_.loggedBytes / size;
        if (recovery_.unplacedBytes) sample_.backlogRecords = static_cast<double>(*recovery_.unplacedBytes) / size;
    }
    // What was placed has come in.
    if (log_.placed) sample_.recordsIn = std::max(sample_.recordsIn.value_or(0), static_cast<double>(*log_.placed));
}

void TopSampler::TakeTime() {
    long const windowUs = server_.windowUs != 0 ? server_.windowUs : options_.windowUs;
    unsigned long startUs = 0;
    bool const fits =
        log_.bucket && windowUs > 0 &&
        !__builtin_mul_overflow(*log_.bucket, static_cast<unsigned long>(windowUs / BUCKETS_PER_WINDOW), &startUs) &&
        startUs <= static_cast<unsigned long>(INT64_MAX);
    if (!log_.bucket) sample_.eventTimeUs.reset();
    if (fits) sample_.eventTimeUs = static_cast<long>(startUs);
    sample_.lagUs.reset();
    if (!sample_.eventTimeUs) return;
    sample_.lagUs = NowUs() - *sample_.eventTimeUs;
}

std::string TopSampler::State(SocketView const& sockets) const {
    if (server_.pid == 0) {
        if (isAmbiguous_) return "several servers run: choose with --pid or --recovery";
        if (log_.ended) return "gone, after an orderly end";
        if (log_.crashed) return "gone, by an assertion failure";
        if (hadServer_) return "gone";
        if (log_.shutsDown) return "shutting down";
        return log_.placed ? "serving, by its log" : "no server";
    }
    if (log_.shutsDown) return "shutting down";
    if (!sockets.known) return log_.placed ? "serving, by its log" : "running";
    if (sockets.hasProducer) return "serving";
    if (sockets.listens) return "waiting for a producer";
    if (log_.placed && !server_.replays) return "shutting down";
    return server_.replays ? "replaying" : "starting";
}

nlohmann::json TopSampler::Json() const {
    nlohmann::json threads = nlohmann::json::array();
    for (TopSample::Thread const& thread : sample_.threads) {
        threads.push_back({{"name", thread.name}, {"cpu_percent", thread.cpuPercent}});
    }
    nlohmann::json errors = nlohmann::json::array();
    for (LogFigures::Trouble const& one : log_.latest) {
        errors.push_back({{"text", one.text}, {"count", one.count}, {"meaning", one.meaning}});
    }
    std::string eventTime;
    if (sample_.eventTimeUs) AppendIsoTime(eventTime, *sample_.eventTimeUs);
    bool const hasFiles = recovery_.exists;
    return {{"state", sample_.state},
            {"pid", sample_.pid != 0 ? nlohmann::json(sample_.pid) : nlohmann::json()},
            {"recovery", sample_.recoveryPath},
            {"seconds", sample_.seconds},
            {"records_per_s_estimate", OrNull(sample_.recordsPerSecond)},
            {"records_in_estimate", OrNull(sample_.recordsIn)},
            {"records_placed", OrNull(log_.placed)},
            {"records_recovered", OrNull(log_.recovered)},
            {"backlog_records_estimate", OrNull(sample_.backlogRecords)},
            {"record_bytes_estimate", OrNull(recovery_.recordBytes)},
            {"logged_bytes", OrNull(sample_.loggedBytes)},
            {"logged_bytes_per_s", OrNull(sample_.loggedBytesPerSecond)},
            {"received_bytes", OrNull(sample_.receivedBytes)},
            {"received_bytes_per_s", OrNull(sample_.receivedBytesPerSecond)},
            {"unread_bytes", OrNull(sample_.unreadBytes)},
            {"keys", OrNull(recovery_.keys)},
            {"event_time_us", OrNull(sample_.eventTimeUs)},
            {"event_time", eventTime.empty() ? nlohmann::json() : nlohmann::json(eventTime)},
            {"lag_us", OrNull(sample_.lagUs)},
            {"cycles", hasLog_ ? nlohmann::json(log_.cycles) : nlohmann::json()},
            {"cycle_running", log_.cycleRuns},
            {"cycle_last_us", log_.cycles > 0 ? nlohmann::json(log_.cycleLastUs) : nlohmann::json()},
            {"cycle_longest_us", log_.cycles > 0 ? nlohmann::json(log_.cycleLongestUs) : nlohmann::json()},
            {"cycle_last_bytes_estimate", OrNull(sample_.cycleLastBytes)},
            {"shipped_bytes", OrNull(sample_.shippedBytes)},
            {"shipped_bytes_per_s", OrNull(sample_.shippedBytesPerSecond)},
            {"unsent_bytes", OrNull(sample_.unsentBytes)},
            {"recovery_files", hasFiles ? nlohmann::json(recovery_.files) : nlohmann::json()},
            {"recovery_bytes", hasFiles ? nlohmann::json(recovery_.bytes) : nlohmann::json()},
            {"cpu_percent", OrNull(sample_.cpuPercent)},
            {"threads", threads},
            {"memory_bytes", OrNull(sample_.memoryBytes)},
            {"memory_peak_bytes", OrNull(sample_.memoryPeakBytes)},
            {"errors_total", log_.troubles},
            {"errors", errors}};
}
