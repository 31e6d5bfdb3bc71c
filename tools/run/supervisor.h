// Keeps one server running, each time with a fresh recovery directory and the replay of what the last ones left.
#pragma once

#include <fmt/format.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "command.h"
#include "generations.h"
#include "notify.h"
#include "recovery_syncer.h"
#include "run_config.h"
#include "run_log.h"
#include "server_child.h"

// The arguments of a server, its program first.
[[nodiscard]] std::vector<std::string> ServerCommand(RunConfig const& config, ServerPorts const& ports,
                                                     GenerationStart const& start);

// Goes through these states again and again:
//
//     prepare      a generation is made                                       -> wait
//     wait         until the consumer listens, or a pause after a bad start   -> start
//     start        the server replays, if there is something to replay        -> serve
//     serve        both data ports listen                                     -> end
//     end          the server has ended, by itself or by us                   -> prepare
//
// A signal ends it in any of them. The owner holds the state's lock. One thread, which blocks SIGTERM, SIGINT and
// SIGHUP from the construction on.
class Supervisor {
 public:
    // The generations are open. `quiet`: nothing is said of the normal course.
    Supervisor(RunConfig const& config, Generations& generations, RunLog& log, bool quiet);
    Supervisor(Supervisor const&) = delete;
    Supervisor& operator=(Supervisor const&) = delete;

    // Returns after a signal, or when it gives up. DONE, TRY_AGAIN or BAD_CONFIGURATION; Problem() tells why.
    [[nodiscard]] ExitCode Run();
    [[nodiscard]] std::string const& Problem() const { return problem_; }

 private:
    using Clock = std::chrono::steady_clock;

    enum class Step : std::uint8_t { PREPARE, WAIT, START, RETURN };  // RETURN: from Run, with code_

    // What has become of the server of one start.
    struct Course {
        Clock::time_point begun;
        bool wasReady = false;
        bool wasConsumerThere = true;  // whenever it was looked at
        bool saidLoss = false;         // its log tells of a message that was not sent
        bool saidNoAccept = false;     // or of a port on which it could not listen
        bool saidEnd = false;          // or of an orderly end that begins
        unsigned int linkInode = 0;    // of its first connection to the consumer; 0: none was seen
        bool couldNotSync = false;     // some of its log: whatever is synced later may pass over that
        bool killedForLoss = false;
        bool askedToEnd = false;  // by SIGTERM: a second one would end it at once
    };

    [[nodiscard]] Step Prepare();
    [[nodiscard]] Step WaitForConsumer();
    [[nodiscard]] Step Serve();  // from the start to the end of a server
    [[nodiscard]] Step PauseAfterBadStart(std::string const& what);
    [[nodiscard]] Step Stopped();          // by a signal
    [[nodiscard]] Step Pause(long times);  // longer with each time

    void WatchServer();  // until it has ended
    void LookAtServer();
    void BecomeReady(bool queryListens);
    void SyncAndSettle();
    void AskToEnd();
    [[nodiscard]] ChildEnd TakeEnd();
    [[nodiscard]] bool ShippedAll(ChildEnd const& end) const;
    void TakeServerLine(std::string_view line);
    void TakeSignals();
    void WaitForEvent(Clock::duration longest);  // a signal, a line or the end of the server
    void TellState();
    void TellNotes();
    void Enter(std::string const& state);  // for the service manager

    template <typename... Arguments>
    void Say(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
        if (!quiet_) log_.WriteOwn(fmt::format(format, std::forward<Arguments>(arguments)...));
    }
    template <typename... Arguments>
    void Warn(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
        log_.WriteOwn(fmt::format(format, std::forward<Arguments>(arguments)...));
    }

    RunConfig const& config_;
    Generations& generations_;
    RunLog& log_;
    bool const quiet_;
    Notifier notifier_;
    sutl_Descriptor signals_;
    ServerChild child_;
    RecoverySyncer syncer_;
    GenerationStart start_;
    ServerPorts ports_;  // of this start
    Course course_;
    bool drains_ = false;      // this start is under an old schema, to replay and end
    bool shippedAll_ = false;  // the last server
    bool isSettled_ = false;
    bool isOutputOpen_ = false;
    bool keepsRecords_ = false;  // something waits to be replayed
    bool wasEverReady_ = false;
    int stopsAsked_ = 0;    // by signals
    long badStarts_ = 0;    // in a row
    long earlyLosses_ = 0;  // of the consumer, in a row, before the server was ready
    unsigned long starts_ = 0;
    Clock::time_point lookDue_;
    Clock::time_point lookedAt_;
    Clock::time_point killDue_ = Clock::time_point::max();  // of a server that was asked to end
    std::vector<std::string> notes_;
    std::string trouble_;  // of syncing or settling; said once
    std::string state_;
    Clock::time_point stateDue_;
    Clock::time_point watchdogDue_;
    ExitCode code_ = DONE;
    std::string problem_;
};
