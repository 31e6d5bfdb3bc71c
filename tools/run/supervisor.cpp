#include "supervisor.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>

#include "downstream.h"
#include "free_ports.h"

namespace {

using namespace std::chrono_literals;

// Between two looks at a server. The kernel goes through its whole table of connections, which takes it a millisecond.
constexpr auto SERVING_LOOK_PAUSE = 500ms;
constexpr auto ENDING_LOOK_PAUSE = 50ms;     // what is lost then is taken for shipped
constexpr auto STARTING_LOOK_PAUSE = 100ms;  // a long replay
constexpr auto FIRST_LOOK_PAUSE = 10ms;      // most are ready at once
constexpr auto SETTLE_PAUSE = 500ms;
constexpr auto ASK_PAUSE = 200ms;      // between two looks for a consumer of this machine
constexpr auto REMOTE_ASK_PAUSE = 1s;  // and for another's
constexpr auto REMOTE_PATIENCE = 1s;
constexpr int ABSENT_LOOKS = 3;  // until what is absent counts as gone

// Parts of lines that tell of a message which the consumer has not got, or perhaps a query client.
constexpr std::string_view LOSSES[] = {"ERROR  Sender:", "Socket Sender:", "Connected again",
                                       "TCPClient connection failed", "Hostname lookup"};

std::string Seconds(std::chrono::steady_clock::duration length) {
    return fmt::format("{:.1f} s", std::chrono::duration<double>(length).count());
}

std::string AddressText(brindle_Address const& address) {
    return fmt::format("{}:{},{}", address.host, address.firstPort, address.secondPort);
}

}  // namespace

std::vector<std::string> ServerCommand(RunConfig const& config, ServerPorts const& ports,
                                       GenerationStart const& start) {
    std::vector<std::string> words = {config.server, start.schema, start.recovery, ports.ship.host};
    auto const add = [&words](long number) { words.push_back(std::to_string(number)); };
    add(ports.ship.firstPort);
    add(ports.ship.secondPort);
    add(ports.data.firstPort);
    add(ports.data.secondPort);
    add(config.windowSeconds);
    add(ports.query.firstPort);
    add(ports.query.secondPort);
    if (!start.replay.empty()) words.push_back(start.replay);
    return words;
}

Supervisor::Supervisor(RunConfig const& config, Generations& generations, RunLog& log, bool quiet)
    : config_(config), generations_(generations), log_(log), quiet_(quiet) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    struct sigaction hangUp = {};
    bool const isIgnored = sigaction(SIGHUP, nullptr, &hangUp) == 0 && hangUp.sa_handler == SIG_IGN;
    if (log_.IsFile() || !isIgnored) sigaddset(&signals, SIGHUP);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    // What is ignored when it comes is never delivered, blocked or not.
    signal(SIGTERM, SIG_DFL);
    signal(SIGINT, SIG_DFL);
    if (log_.IsFile()) signal(SIGHUP, SIG_DFL);
    signals_ = sutl_Descriptor(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
}

ExitCode Supervisor::Run() {
    Step step = Step::PREPARE;
    while (step != Step::RETURN) {
        switch (step) {
            case Step::PREPARE:
                step = Prepare();
                break;
            case Step::WAIT:
                step = WaitForConsumer();
                break;
            default:
                step = Serve();
                break;
        }
    }
    return code_;
}

Supervisor::Step Supervisor::Prepare() {
    TakeSignals();
    if (stopsAsked_ > 0) return Stopped();
    Enter("preparing a start");
    drains_ = false;
    ports_ = config_.ports;
    // All that waits is read.
    std::optional<TimeExtender> extender(std::in_place, notifier_);
    Generations::Result result = generations_.PrepareStart(config_.spec, start_, notes_);
    if (result == Generations::SCHEMA_CHANGED && !config_.drainsOnSchemaChange) {
        TellNotes();
        problem_ = fmt::format(
            "{}: the schema has changed, and records wait under the former one; set on_schema_change = \"drain\" to "
            "ship "
            "them first, or put the former schema back",
            config_.spec);
        code_ = BAD_CONFIGURATION;
        return Step::RETURN;
    }
    if (result == Generations::SCHEMA_CHANGED) {
        drains_ = true;
        // A producer that has the new schema must not meet this server.
        std::vector<unsigned short> const ports = FindFreePorts(4);
        if (ports.size() < 4) return PauseAfterBadStart("no free ports for draining");
        ports_.data = {"127.0.0.1", ports[0], ports[1]};
        ports_.query = {"127.0.0.1", ports[2], ports[3]};
        result = generations_.PrepareDrain(start_, notes_);
    }
    extender.reset();
    TellNotes();
    if (result != Generations::READY) return PauseAfterBadStart(generations_.Error());
    keepsRecords_ = !start_.replay.empty();
    return Step::WAIT;
}

Supervisor::Step Supervisor::WaitForConsumer() {
    bool saidSo = false;
    bool const isOwn = IsOfThisMachine(config_.ports.ship.host);
    std::string const shown = AddressText(config_.ports.ship);
    for (;;) {
        Downstream const seen = AskDownstream(config_.ports.ship, REMOTE_PATIENCE);
        TakeSignals();
        if (stopsAsked_ > 0) return Stopped();
        if (seen == Downstream::LISTENS) {
            if (saidSo) Say("the consumer listens at {}", shown);
            return Step::START;
        }
        if (!saidSo) {
            Warn("waiting for the consumer: {} {}", shown,
                 seen == Downstream::UNKNOWN_HOST ? "has no address" : "is where nobody listens");
            Enter("waiting for the consumer at " + shown);
        }
        saidSo = true;
        WaitForEvent(isOwn ? Clock::duration(ASK_PAUSE) : REMOTE_ASK_PAUSE);
    }
}

Supervisor::Step Supervisor::Serve() {
    course_ = {};
    course_.begun = Clock::now();
    isSettled_ = false;
    if (!child_.Start(ServerCommand(config_, ports_, start_))) {
        return PauseAfterBadStart(fmt::format("{}: cannot be started: {}", config_.server, strerror(errno)));
    }
    ++starts_;
    isOutputOpen_ = true;
    syncer_.Watch(start_.recovery);
    std::string const what = start_.replay.empty() ? "" : fmt::format(", replaying {}", start_.replay);
    Say("generation {} started as process {}{}{}", start_.number, child_.Pid(), what,
        drains_ ? ", under the former schema until everything is shipped" : "");
    Enter(start_.replay.empty() ? "starting" : fmt::format("generation {} replays {}", start_.number, start_.replay));
    WatchServer();
    ChildEnd const end = TakeEnd();
    if (stopsAsked_ > 0) return Stopped();
    if (course_.killedForLoss) {
        earlyLosses_ = course_.wasReady ? 0 : earlyLosses_ + 1;
        return earlyLosses_ == 0 ? Step::PREPARE : Pause(earlyLosses_);
    }
    earlyLosses_ = 0;
    // One that was ready for less than a look has come to its orderly end all the same; one that could not bind says
    // so, and what is no server says nothing.
    bool const wasReady = course_.wasReady || (end.IsOrderly() && course_.saidEnd && !course_.saidNoAccept);
    if (wasReady && drains_ && !shippedAll_)
        return PauseAfterBadStart("the former schema's records were not all shipped");
    if (!wasReady) return PauseAfterBadStart(fmt::format("the server {} before it was ready", end.Text()));
    badStarts_ = 0;
    return Step::PREPARE;
}

Supervisor::Step Supervisor::PauseAfterBadStart(std::string const& what) {
    ++badStarts_;
    if (badStarts_ >= config_.startsMax) {
        problem_ = fmt::format("{}; given up after {} starts in a row that came to nothing; mend it and start again",
                               what, badStarts_);
        code_ = TRY_AGAIN;
        return Step::RETURN;
    }
    Warn("{} ({} of {} starts)", what, badStarts_, config_.startsMax);
    return Pause(badStarts_);
}

Supervisor::Step Supervisor::Pause(long times) {
    long lengthUs = config_.backoffFirstUs;
    for (long i = 1; i < times && lengthUs < config_.backoffMaxUs; ++i) lengthUs *= 2;
    std::chrono::microseconds const length(std::min(lengthUs, config_.backoffMaxUs));
    Say("trying again in {}", Seconds(length));
    Enter("pausing after a start that came to nothing");
    Clock::time_point const due = Clock::now() + length;
    while (stopsAsked_ == 0 && Clock::now() < due) WaitForEvent(due - Clock::now());
    return stopsAsked_ > 0 ? Stopped() : Step::PREPARE;
}

Supervisor::Step Supervisor::Stopped() {
    notifier_.Send("STOPPING=1");
    code_ = keepsRecords_ ? TRY_AGAIN : DONE;
    if (keepsRecords_) problem_ = "stopped; records wait for the next start, which replays them";
    return Step::RETURN;
}

// The server at work -----------------------------------------------------------

void Supervisor::WatchServer() {
    Clock::duration startPause = FIRST_LOOK_PAUSE;
    lookDue_ = Clock::now();
    Clock::time_point syncDue = Clock::now();
    bool const syncs = config_.syncIntervalUs > 0;
    Clock::duration const syncPause = syncs ? std::chrono::microseconds(config_.syncIntervalUs) : SETTLE_PAUSE;
    for (;;) {
        pollfd ended = {child_.EndDescriptor(), POLLIN, 0};
        if (poll(&ended, 1, 0) == 1) return;
        Clock::time_point const now = Clock::now();
        if (now >= killDue_) {
            Warn("the server has not ended in time and is killed");
            child_.Signal(SIGKILL);
            killDue_ = Clock::time_point::max();
        }
        if (now >= lookDue_) {
            LookAtServer();
            lookedAt_ = Clock::now();
            startPause = std::min<Clock::duration>(2 * startPause, STARTING_LOOK_PAUSE);
            lookDue_ = lookedAt_ + (course_.saidEnd    ? ENDING_LOOK_PAUSE
                                    : course_.wasReady ? SERVING_LOOK_PAUSE
                                                       : startPause);
        }
        if (now >= syncDue) {
            SyncAndSettle();
            syncDue = Clock::now() + syncPause;
        }
        WaitForEvent(std::min({lookDue_, syncDue, killDue_}) - Clock::now());
    }
}

void Supervisor::LookAtServer() {
    if (course_.killedForLoss) return;
    ServerLook look = ::LookAtServer(child_.Pid(), ports_);
    for (int i = 1; i < ABSENT_LOOKS && look.ConsumerIsLost(); ++i) look = ::LookAtServer(child_.Pid(), ports_);
    if (course_.linkInode == 0 && look.link == ServerLook::ESTABLISHED) course_.linkInode = look.linkInode;
    // A connection that the server has made anew was lost before, with what was sent meanwhile.
    bool const isAnother = look.link == ServerLook::ESTABLISHED && look.linkInode != course_.linkInode;
    if (look.ConsumerIsLost() || isAnother) {
        if (isAnother) course_.linkInode = look.linkInode;
        if (config_.killsOnConsumerLoss) {
            course_.killedForLoss = true;
            child_.Signal(SIGKILL);
            Warn(
                "the connection to the consumer at {} is lost: the server is killed, what it has not shipped is "
                "replayed",
                AddressText(ports_.ship));
        } else if (course_.wasConsumerThere) {
            Warn("the connection to the consumer at {} is lost; what is shipped until it is back is lost, too",
                 AddressText(ports_.ship));
        }
        course_.wasConsumerThere = false;
        if (config_.killsOnConsumerLoss) return;
    }
    if (look.dataListens && !course_.wasReady) BecomeReady(look.queryListens);
}

void Supervisor::BecomeReady(bool queryListens) {
    course_.wasReady = true;
    Say("generation {} is ready after {}", start_.number, Seconds(Clock::now() - course_.begun));
    if (!queryListens) Warn("the query ports {} are not served", AddressText(ports_.query));
    generations_.ReplayFinished();
    if (drains_) {
        course_.askedToEnd = true;
        child_.Signal(SIGTERM);
        return;
    }
    wasEverReady_ = true;
    badStarts_ = 0;
    notifier_.Send("READY=1");
    Enter(fmt::format("generation {} serves, start {} of this process", start_.number, starts_));
}

void Supervisor::SyncAndSettle() {
    std::string trouble;
    if (config_.syncIntervalUs > 0 && !syncer_.Sync()) {
        trouble = fmt::format("{}: cannot be synced: {}", start_.recovery, strerror(errno));
        course_.couldNotSync = true;
    }
    // The system tells of a block that the disk has refused only once: what was replayed stays until it is shipped.
    if (course_.wasReady && !isSettled_ && !course_.couldNotSync) {
        isSettled_ = generations_.Settle(notes_);
        TellNotes();
        if (!isSettled_ && !generations_.Error().empty()) trouble = generations_.Error();
        if (isSettled_ && !start_.replay.empty()) { Say("generation {} has on disk what was replayed", start_.number); }
    }
    if (!trouble.empty() && trouble != trouble_) Warn("{}", trouble);
    trouble_ = trouble;
}

void Supervisor::AskToEnd() {
    notifier_.Send("STOPPING=1");
    Enter("stopping: the server ships what it has");
    Say("stopping: the server ships what it has, for {} at most",
        Seconds(std::chrono::microseconds(config_.stopTimeoutUs)));
    killDue_ = Clock::now() + std::chrono::microseconds(config_.stopTimeoutUs);
    if (!course_.askedToEnd) child_.Signal(SIGTERM);
    course_.askedToEnd = true;
}

ChildEnd Supervisor::TakeEnd() {
    ChildEnd const end = child_.Reap();
    auto const look = [this](std::string_view line) { TakeServerLine(line); };
    // What it has written is in the pipe; somebody whom it started may keep that open.
    pollfd output = {child_.OutputDescriptor(), POLLIN, 0};
    while (isOutputOpen_ && poll(&output, 1, 0) == 1) {
        isOutputOpen_ = log_.TakeServerOutput(child_.OutputDescriptor(), look);
    }
    log_.EndServerOutput(look);
    shippedAll_ = ShippedAll(end);
    keepsRecords_ = !shippedAll_ && (course_.wasReady || !start_.replay.empty());
    std::string const line =
        fmt::format("generation {} {} after {}{}", start_.number, end.Text(), Seconds(Clock::now() - course_.begun),
                    shippedAll_ ? ": everything was shipped" : "");
    if (end.IsOrderly()) {
        Say("{}", line);
    } else {
        Warn("{}", line);
    }
    if (!generations_.Ended(shippedAll_, notes_)) Warn("{}", generations_.Error());
    TellNotes();
    return end;
}

bool Supervisor::ShippedAll(ChildEnd const& end) const {
    if (!course_.wasReady || !end.IsOrderly() || !course_.wasConsumerThere || course_.saidLoss) return false;
    // It may have gone since the last look.
    return !IsOfThisMachine(ports_.ship.host) || AskDownstream(ports_.ship, 0ms) == Downstream::LISTENS;
}

void Supervisor::TakeServerLine(std::string_view line) {
    auto const tells = [line](std::string_view what) { return line.find(what) != line.npos; };
    bool const tellsLoss = std::any_of(std::begin(LOSSES), std::end(LOSSES), tells);
    bool const tellsEnd = tells("Shutting down");
    course_.saidLoss = course_.saidLoss || tellsLoss;
    course_.saidEnd = course_.saidEnd || tellsEnd;
    // Looked at once, but for a query client that makes many such lines.
    if (tellsLoss || tellsEnd) lookDue_ = std::min(lookDue_, lookedAt_ + FIRST_LOOK_PAUSE);
    course_.saidNoAccept = course_.saidNoAccept || tells("Accept failed");
}

// Waiting and telling -----------------------------------------------------------

void Supervisor::TakeSignals() {
    signalfd_siginfo seen = {};
    while (sutl_ReadSome(signals_.Get(), &seen, sizeof seen) == sizeof seen) {
        if (seen.ssi_signo == SIGHUP && log_.IsFile()) {
            if (!log_.Reopen()) Warn("the log cannot be opened anew and is written on: {}", strerror(errno));
            continue;
        }
        ++stopsAsked_;
        if (!child_.Runs()) continue;
        if (stopsAsked_ == 1) {
            AskToEnd();
        } else {
            Warn("stopped for the second time: the server is killed");
            child_.Signal(SIGKILL);
        }
    }
}

void Supervisor::WaitForEvent(Clock::duration longest) {
    TellState();
    if (notifier_.WatchdogInterval().count() > 0) {
        longest = std::min<Clock::duration>(longest, notifier_.WatchdogInterval());
    }
    auto const waitMs = std::chrono::ceil<std::chrono::milliseconds>(longest).count();
    // A descriptor of -1 is one that poll passes over.
    pollfd waited[] = {{signals_.Get(), POLLIN, 0},
                       {child_.Runs() ? child_.EndDescriptor() : -1, POLLIN, 0},
                       {child_.Runs() && isOutputOpen_ ? child_.OutputDescriptor() : -1, POLLIN, 0}};
    if (poll(waited, std::size(waited), static_cast<int>(std::clamp(waitMs, 0L, 60000L))) <= 0) return;
    if (waited[0].revents != 0) TakeSignals();
    if (waited[2].revents != 0) {
        isOutputOpen_ =
            log_.TakeServerOutput(child_.OutputDescriptor(), [this](std::string_view line) { TakeServerLine(line); });
    }
}

void Supervisor::Enter(std::string const& state) {
    state_ = state;
    stateDue_ = {};
    TellState();
}

void Supervisor::TellState() {
    if (!notifier_.IsWanted()) return;
    Clock::time_point const now = Clock::now();
    if (notifier_.WatchdogInterval().count() > 0 && now >= watchdogDue_) {
        notifier_.Send("WATCHDOG=1");
        watchdogDue_ = now + notifier_.WatchdogInterval() / 2;
    }
    if (now < stateDue_) return;
    stateDue_ = now + TIME_EXTENSION_PAUSE;
    std::string text = "STATUS=" + state_;
    // A start, with its replay and its wait for the consumer, and a stop take the time that they take.
    if (!wasEverReady_ || stopsAsked_ > 0) {
        text += fmt::format("\nEXTEND_TIMEOUT_USEC={}", std::chrono::microseconds(TIME_EXTENSION).count());
    }
    notifier_.Send(text);
}

void Supervisor::TellNotes() {
    for (std::string const& note : notes_) Warn("{}", note);
    notes_.clear();
}
