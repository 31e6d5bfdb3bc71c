// One look at a server, from all sources.
#pragma once

#include <chrono>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>

#include "log_figures.h"
#include "log_follower.h"
#include "recovery_view.h"
#include "server_process.h"
#include "socket_view.h"

// What is known at a moment, and how it has changed since the one before. What no source tells is absent.
struct TopSample {
    struct Thread {
        std::string name;
        double cpuPercent = 0;  // of one core
    };

    std::string state;  // a few words
    pid_t pid = 0;      // 0: none
    std::string recoveryPath;
    double seconds = 0;  // since the sample before
    // Estimates, from bytes logged and the size of records.
    std::optional<double> recordsPerSecond;
    std::optional<double> recordsIn;
    std::optional<double> backlogRecords;  // logged, and not yet placed
    std::optional<double> loggedBytes;
    std::optional<double> loggedBytesPerSecond;
    std::optional<double> receivedBytes;  // from the producer, since it connected
    std::optional<double> receivedBytesPerSecond;
    std::optional<double> unreadBytes;
    std::optional<double> shippedBytes;  // since the consumer was connected
    std::optional<double> shippedBytesPerSecond;
    std::optional<double> unsentBytes;
    std::optional<double> cycleLastBytes;  // an estimate: what was shipped between two samples around a cycle
    std::optional<double> cpuPercent;
    std::vector<Thread> threads;
    std::optional<double> memoryBytes;
    std::optional<double> memoryPeakBytes;
    std::optional<long> eventTimeUs;  // at least
    std::optional<long> lagUs;        // behind the clock, at most
};

// Takes sample after sample. Finds the server, and finds it again when it was started anew. Owned by one thread.
class TopSampler {
 public:
    struct Options {
        std::string logPath;  // empty: where the server's standard error goes
        std::string recoveryPath;
        std::string programName;
        long pid = 0;
        long windowUs = 0;  // where no server tells it
        std::string specPath;
    };

    explicit TopSampler(Options options);

    // Several servers match, and the options do not choose.
    [[nodiscard]] bool IsAmbiguous() const { return isAmbiguous_; }
    [[nodiscard]] bool HasServer() const { return server_.pid != 0; }
    void Take();
    void ReadLog();  // what has come; for a pipe, which must not fill up between samples

    [[nodiscard]] TopSample const& Sample() const { return sample_; }
    [[nodiscard]] LogFigures const& Log() const { return log_; }
    [[nodiscard]] bool HasLog() const { return hasLog_; }
    [[nodiscard]] int LogPipe() const { return follower_.Pipe(); }
    [[nodiscard]] RecoveryView const& Recovery() const { return recovery_; }
    [[nodiscard]] nlohmann::json Json() const;

 private:
    using Clock = std::chrono::steady_clock;

    void FindServer();
    void Adopt(ServerProcess const& server);
    void TakeProcess();
    void TakeSockets();
    void TakeRecords();
    void TakeTime();
    [[nodiscard]] std::string State(SocketView const& sockets) const;

    Options const options_;
    ServerProcess server_;
    bool isAmbiguous_ = false;
    bool hadServer_ = false;
    LogFollower follower_;
    LogFigures log_;
    bool hasLog_ = false;
    RecoveryView recovery_;
    SocketView sockets_;
    ProcessUsage usage_;
    bool hasUsage_ = false;
    unsigned long cyclesSeen_ = 0;
    long shippedAtCycle_ = 0;
    Clock::time_point taken_;
    TopSample sample_;
};
