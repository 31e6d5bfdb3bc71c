// brindlectl send: files of rows to the data ports.

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>

#include "brindle_records.h"
#include "commands.h"
#include "direct_delivery.h"
#include "key_set.h"
#include "numbers.h"
#include "progress.h"
#include "rejects_file.h"
#include "row_check.h"
#include "send_input.h"
#include "spooled_delivery.h"
#include "stop_signals.h"
#include "terminal_text.h"
#include "time_text.h"
#include "value_text.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr long DAY_US = 24L * 3600 * 1000000;
constexpr long YEAR_1971_US = 365 * DAY_US;
constexpr long BATCH_BYTES_MAX = 256L << 20;
constexpr long KEYS_MAX = 1L << 32;
constexpr std::size_t KEYS_COUNTED_MAX = 1UL << 22;   // without --max-keys; 64 MiB
constexpr unsigned long ERRORS_SHOWN_MAX = 10;        // per file
constexpr std::chrono::milliseconds IDLE_PAUSE{200};  // between two looks at a quiet source, or at the delivery
constexpr std::chrono::milliseconds PACE_STEP{1};     // shorter pauses are put together
constexpr std::chrono::milliseconds PACE_LAG_MAX{10};
constexpr unsigned long ROWS_PER_LOOK = 4096;  // for signals, while rows keep coming

constexpr char SEND_EXAMPLES[] =
    R"(FILE is CSV, TSV or JSON lines, plain or packed with gzip or zstd. The first row names the columns. Every field of the
schema needs one, in any order; others are passed over. Times are ISO 8601 (UTC unless they say otherwise) or
microseconds since 1970, unless --time-format says what they are. They must not be negative, nor lie further ahead than
--max-future, because one such record keeps the server from shipping all others. A float64 may be inf, -inf, nan, or
nan: and 16 hexadecimal digits.
The first wrong row ends the sending with 65; the rows before it are sent. If no frame had left by then, nothing is
sent, and the server stays free for the mended file. With --rejects, wrong rows are written there and passed over, and
the exit status is 1; that file can be mended and sent as it is.
A server serves one producer: when this command ends, so does the server's run, in an orderly way; --hold keeps it. A
server that is serving another producer already is told by 75. Without a record no connection is made and the server
goes on waiting. Done means that the server has read everything; what it refuses (see its standard error) and what its
schema takes for something else this command cannot see. SIGINT, SIGTERM and SIGHUP end it in an orderly way.
--json prints: records, rejected, heartbeats, frames, bytes (of the frames), keys (different ones; keys_exact is false
where there are more), first_us and last_us (least and greatest time, null without a record), seconds, stopped (by a
signal), dry_run.
Examples:
  brindlectl send --spec flights.spec --data 127.0.0.1:7101,7102 flights.csv
  brindlectl send --spec quakes.spec --data stage.example:7101,7102 --time when --rejects bad.csv quakes-*.csv.gz)";

// Takes everything and keeps nothing.
class NoDelivery : public Delivery {
 public:
    [[nodiscard]] ExitCode Deliver(brindle_Message&, unsigned long, std::string_view) override { return DONE; }
    [[nodiscard]] ExitCode Idle() override { return DONE; }
    [[nodiscard]] ExitCode Finish() override { return DONE; }
    [[nodiscard]] long TakeNumber() override { return ++number_; }
    void ReturnNumber() override { --number_; }
    [[nodiscard]] bool IsConnected() const override { return false; }

 private:
    long number_ = 0;
};

class SendCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    [[nodiscard]] ExitCode CheckOptions();
    [[nodiscard]] ExitCode ReadFieldOptions(RowCheck::Options& options);
    [[nodiscard]] ExitCode ReadHeartbeat();
    [[nodiscard]] std::size_t FieldOf(std::string_view assignment, std::string& value) const;
    [[nodiscard]] ExitCode MakeDelivery();
    [[nodiscard]] ExitCode CheckSequence();
    [[nodiscard]] ExitCode OpenInput(std::string const& position);
    [[nodiscard]] ExitCode SendRows();
    [[nodiscard]] ExitCode SendRow();
    [[nodiscard]] ExitCode RejectRow(std::string_view reason);
    [[nodiscard]] ExitCode FlushRejects();
    [[nodiscard]] ExitCode SendFrame();
    [[nodiscard]] ExitCode SendHeartbeat(Clock::time_point now);
    [[nodiscard]] ExitCode DoWhatIsDue(Clock::time_point now, bool isSilent);
    [[nodiscard]] ExitCode WaitUntil(Clock::time_point until, int descriptor, bool isSilent);
    [[nodiscard]] ExitCode WaitForTurn();
    void TakeTurn();
    [[nodiscard]] ExitCode Hold();
    [[nodiscard]] ExitCode Finish(ExitCode rows);
    void SaySummary() const;
    [[nodiscard]] ExitCode PrintSummary() const;
    void EndFile();
    bool LookForStop();

    // The command line.
    std::vector<std::string> paths_;
    std::string format_;
    std::string delimiter_;
    bool follow_ = false;
    std::vector<std::string> maps_;
    std::vector<std::string> empties_;
    std::string timeFormat_;
    std::string timeZone_;
    long maxFutureUs_ = DAY_US;
    long maxPastUs_ = -1;
    long keysMax_ = 0;
    std::string rejectsPath_;
    std::string onError_;
    long batchBytes_ = 64L * 1024;
    long lingerUs_ = 0;
    long rowsPerSecond_ = 0;
    bool hold_ = false;
    std::string heartbeatText_;
    std::string sequenceName_;
    std::string spoolPath_;
    std::string watermarkPath_;
    std::string statePath_;
    long stream_ = 0;
    bool dryRun_ = false;

    suts_tsspec spec_;
    int sequenceField_ = -1;         // which takes the delivery's numbers, or none
    std::string startPosition_;      // of the input, as an earlier run left it; empty to begin at its start
    bool inputWasFinished_ = false;  // by the earlier run
    bool skipsErrors_ = false;
    std::optional<StopSignals> stopSignals_;
    bool stopped_ = false;  // by one of them
    std::unique_ptr<Delivery> delivery_;
    bool deliveryFailed_ = false;
    SendInput input_;
    RowCheck check_;
    RejectsFile rejects_;
    std::optional<KeySet> keys_;
    std::optional<Progress> progress_;
    Clock::time_point const start_ = Clock::now();

    std::vector<brindle_Value> values_;  // of the row, in schema order
    brindle_Message frame_;
    unsigned long recordsInFrame_ = 0;
    bool frameIsWaiting_ = false;  // since the first pause after its first record
    Clock::time_point frameDue_;   // it waits no longer than until then
    Clock::time_point rowDue_;     // with a rate: the next row's turn

    std::string beatKey_;
    std::vector<brindle_Value> beatValues_;
    Clock::duration beatPause_{0};  // 0 without heartbeats
    bool rowsCame_ = false;         // since the last pause
    Clock::time_point silentSince_;
    long beatNewestUs_ = -1;      // newest event time ...
    Clock::time_point newestAt_;  // ... and when it came

    unsigned long rows_ = 0;
    unsigned long rejected_ = 0;
    bool endedByRow_ = false;  // a wrong one, with which a later run would begin
    unsigned long errorsOfFile_ = 0;
    std::string errorsFile_;
    bool epochWarned_ = false;
    bool keysExact_ = true;
    unsigned long recordsSent_ = 0;  // heartbeats included
    unsigned long heartbeats_ = 0;
    unsigned long framesSent_ = 0;
    unsigned long bytesSent_ = 0;
    long firstUs_ = std::numeric_limits<long>::max();
    long lastUs_ = -1;
    unsigned long bytesInAll_ = 0;
};

void SendCommand::Declare(CLI::App& program) {
    Add(program, "send", "Send the records of files to the server", SEND_EXAMPLES);
    AddSpec();
    AddAddress("--data", "BRINDLE_DATA", "The server's two data ports", false);
    AddWait();
    AddArguments("file", "The files, - for standard input", paths_);
    AddChoice("--format", {"csv", "tsv", "jsonl"}, format_);
    AddOption("--delimiter", "C", "What divides the values of csv, instead of a comma", delimiter_);
    AddFlag("--follow", "Go on with the last file as it grows, also under a new file of its name", follow_);
    AddOptions("--map", "FIELD=COLUMN", "The column of a field, where its name is another", maps_);
    AddOptions("--empty", "FIELD=VALUE", "What an empty cell stands for", empties_);
    AddTimeName();
    AddOption("--time-format", "FORMAT", "iso8601, s, ms, us, ns, auto, or a pattern as of strptime", timeFormat_);
    AddOption("--time-zone", "NAME", "The zone of times that do not say theirs, such as Europe/Berlin", timeZone_);
    AddDuration("--max-future", "Turn away times further ahead of now (1d)", maxFutureUs_);
    AddDuration("--max-past", "Turn away times further back", maxPastUs_);
    AddNumber("--max-keys", "N", "Turn away rows with more different keys than this; 0: no limit", keysMax_, 0,
              KEYS_MAX);
    AddOption("--rejects", "FILE", "Write wrong rows there, to be mended and sent again", rejectsPath_);
    AddChoice("--on-error", {"stop", "skip"}, onError_);
    AddBytes("--batch", "Size of a frame (64k)", batchBytes_);
    AddDuration("--linger", "How long a part-filled frame waits while the source pauses (0s)", lingerUs_);
    AddNumber("--rate", "N", "Rows a second at most; 0: no limit", rowsPerSecond_, 0, 1000000000);
    AddFlag("--hold", "Stay connected at the end of the input until a signal comes", hold_);
    AddOption("--heartbeat", "KEY:SECONDS", "While the source is silent for so long, send a record with this key",
              heartbeatText_);
    AddOption("--sequence", "FIELD", "Number the records in this int64 field, and see to it that each one arrives once",
              sequenceName_);
    AddOption("--spool", "DIR", "With --sequence: keeps what the destination does not hold yet", spoolPath_);
    AddOption("--watermark", "FILE", "With --sequence: the file in which the sink tells what the destination holds",
              watermarkPath_);
    AddOption("--state", "FILE", "With --sequence: the stream and its next number; in the spool by default",
              statePath_);
    AddNumber("--stream", "ID", "With --sequence: the number of a new stream; 0: by chance", stream_, 0,
              static_cast<long>(StreamNumber::STREAM_MAX));
    AddFlag("--dry-run", "Read and check everything, and send nothing", dryRun_);
    AddJson();
}

ExitCode SendCommand::Run() {
    if (ExitCode const loaded = LoadSpec(spec_); loaded != DONE) return loaded;
    if (ExitCode const checked = CheckOptions(); checked != DONE) return checked;
    stopSignals_.emplace();
    if (ExitCode const made = MakeDelivery(); made != DONE) return made;
    if (ExitCode const opened = OpenInput(startPosition_); opened != DONE) return opened;
    keys_.emplace(keysMax_ > 0 ? static_cast<std::size_t>(keysMax_) : KEYS_COUNTED_MAX);
    progress_.emplace("rows", !IsQuiet());
    bytesInAll_ = input_.BytesInAll();

    ExitCode const rows = SendRows();
    EndFile();
    ExitCode const finished = Finish(rows);
    progress_.reset();
    ExitCode const printed = PrintSummary();
    if (finished != DONE) return finished;
    if (printed != DONE) return printed;
    return rows == DONE && rejected_ > 0 ? REJECTS : rows;
}

ExitCode SendCommand::CheckOptions() {
    if (addressText_.empty() && !dryRun_) return Fail(USAGE, "--data is required, unless --dry-run is given");
    char delimiter = ',';
    if (!ReadDelimiter(delimiter_, delimiter)) {
        return Fail(USAGE, "--delimiter: '{}' is no single byte that can divide values", delimiter_);
    }
    for (std::string const& path : paths_) {
        if (delimiter_.empty() || delimiter == '\t' || FormatOfPath(path, format_) != "tsv") continue;
        return Fail(USAGE, "--delimiter: {} is read as tsv; add --format csv", path);
    }
    if (batchBytes_ > BATCH_BYTES_MAX) return Fail(USAGE, "--batch: at most 256M");
    if (lingerUs_ > 365 * DAY_US) return Fail(USAGE, "--linger: at most 365d");
    if (follow_ && paths_.back() == "-") return Fail(USAGE, "--follow: standard input cannot be followed; name a file");
    if (rejectsPath_ == "-") return Fail(USAGE, "--rejects: standard output cannot take them; name a file");
    skipsErrors_ = onError_ == "skip" || (onError_.empty() && !rejectsPath_.empty());

    if (ExitCode const checked = CheckSequence(); checked != DONE) return checked;
    RowCheck::Options options;
    if (ExitCode const read = ReadFieldOptions(options); read != DONE) return read;
    if (ExitCode const read = ReadHeartbeat(); read != DONE) return read;
    std::string problem;
    if (!check_.Set(spec_, std::move(options), problem)) return Fail(USAGE, "{}", problem);
    input_.Set({paths_, format_, delimiter, follow_, check_.Columns()});
    return DONE;
}

ExitCode SendCommand::CheckSequence() {
    if (sequenceName_.empty()) {
        if (spoolPath_.empty() && statePath_.empty() && watermarkPath_.empty() && stream_ == 0) return DONE;
        return Fail(USAGE, "--spool, --state, --watermark and --stream need --sequence");
    }
    if (spoolPath_.empty() || watermarkPath_.empty()) return Fail(USAGE, "--sequence needs --spool and --watermark");
    return FindSequenceField(spec_, sequenceName_, sequenceField_);
}

// The field that FIELD=VALUE begins with, or as many as there are.
std::size_t SendCommand::FieldOf(std::string_view assignment, std::string& value) const {
    auto const fields = static_cast<std::size_t>(spec_.fieldCount);
    for (std::size_t i = 0; i < fields; ++i) {
        std::string_view const name = spec_.fieldNames[i].get();
        if (!assignment.starts_with(name) || assignment.substr(name.size(), 1) != "=") continue;
        value = assignment.substr(name.size() + 1);
        return i;
    }
    return fields;
}

ExitCode SendCommand::ReadFieldOptions(RowCheck::Options& options) {
    options.timeColumn = timeName_;
    options.timeFormat = timeFormat_;
    options.timeZone = timeZone_;
    options.maxFutureUs = maxFutureUs_;
    options.maxPastUs = maxPastUs_;
    options.numberedField = sequenceField_;
    auto const fields = static_cast<std::size_t>(spec_.fieldCount);
    options.fields.resize(fields);
    for (std::size_t i = 0; i < fields; ++i) options.fields[i].column = spec_.fieldNames[i].get();
    std::string value;
    std::vector<bool> isMapped(fields);
    for (std::string const& map : maps_) {
        std::size_t const field = FieldOf(map, value);
        if (field == fields) return Fail(USAGE, "--map: '{}' does not begin with a field of the schema and =", map);
        if (value.empty()) return Fail(USAGE, "--map: '{}' names no column", map);
        if (isMapped[field]) return Fail(USAGE, "--map: '{}' is the second one for its field", map);
        isMapped[field] = true;
        options.fields[field].column = value;
    }
    for (std::string const& empty : empties_) {
        std::size_t const field = FieldOf(empty, value);
        if (field == fields) return Fail(USAGE, "--empty: '{}' does not begin with a field of the schema and =", empty);
        options.fields[field].hasEmpty = true;
        options.fields[field].emptyText = value;
    }
    return DONE;
}

ExitCode SendCommand::ReadHeartbeat() {
    if (heartbeatText_.empty()) return DONE;
    std::size_t const colon = heartbeatText_.rfind(':');
    std::string const seconds = colon == std::string::npos ? "" : heartbeatText_.substr(colon + 1);
    long pauseUs = 0;
    if (!ParseDecimalTime(seconds, 6, pauseUs) || pauseUs <= 0 || pauseUs > 365 * DAY_US) {
        return Fail(USAGE, "--heartbeat: '{}' is no KEY:SECONDS, such as LAX:30", heartbeatText_);
    }
    beatPause_ = std::chrono::microseconds(pauseUs);
    beatKey_ = heartbeatText_.substr(0, colon);
    for (int i = 0; i < spec_.fieldCount; ++i) beatValues_.push_back({spec_.Type(i), 0, 0, {}});
    if (ParseValue(beatKey_, spec_.Type(0), beatValues_[0])) return DONE;
    return Fail(USAGE, "--heartbeat: '{}' is no key; the schema's key is of type {}", beatKey_,
                TypeName(spec_.Type(0)));
}

// The one place where the way to the server is chosen.
ExitCode SendCommand::MakeDelivery() {
    if (dryRun_) {
        delivery_ = std::make_unique<NoDelivery>();
        return DONE;
    }
    auto const fail = [this](ExitCode code, std::string const& text) {
        if (progress_) progress_->Clear();
        return Fail(code, "{}", text);
    };
    ServerLink link({address_, addressText_, Wait()}, stopSignals_->Descriptor(), fail);
    if (sequenceField_ < 0) {
        delivery_ = std::make_unique<DirectDelivery>(std::move(link));
        return DONE;
    }
    auto const say = [this](std::string const& text) {
        if (progress_) progress_->Clear();
        Say("{}", text);
    };
    auto spooled = std::make_unique<SpooledDelivery>(
        SpooledDelivery::Options{spoolPath_, statePath_, watermarkPath_, static_cast<unsigned long>(stream_)},
        std::move(link), say);
    if (ExitCode const opened = spooled->Open(); opened != DONE) return opened;
    startPosition_ = spooled->InputPosition();
    inputWasFinished_ = spooled->WasFinished();
    delivery_ = std::move(spooled);
    return DONE;
}

// Goes to a position that the delivery was given with a frame, and takes the rejects file back to what it was then. An
// empty text stands for the start.
ExitCode SendCommand::OpenInput(std::string const& position) {
    bool const goesOn = !position.empty();
    if (goesOn && !input_.StartAt(position, inputWasFinished_)) return Fail(BAD_CONFIGURATION, "{}", input_.Problem());
    if (rejectsPath_.empty() || dryRun_) return DONE;
    if (rejects_.Open(rejectsPath_, paths_, goesOn, input_.StartRejectsBytes())) return DONE;
    return Fail(goesOn ? BAD_CONFIGURATION : IO_ERROR, "{}", rejects_.Problem());
}

ExitCode SendCommand::SendRows() {
    for (unsigned long turn = 1;; ++turn) {
        if (turn % ROWS_PER_LOOK == 0) LookForStop();
        ExitCode code = DONE;
        if (rowsPerSecond_ > 0 && !dryRun_) {
            // Before the row is taken: a frame that leaves meanwhile must not count it.
            if (code = WaitForTurn(); code != DONE) return code;
            // Rows that are not due yet are left where they are.
            if (stopped_) return DONE;
        }
        switch (input_.Next()) {
            case SendInput::ROW:
                code = SendRow();
                TakeTurn();
                break;
            case SendInput::BROKEN_ROW:
                code = RejectRow(input_.Problem());
                break;
            case SendInput::WAITING:
                if (LookForStop()) return DONE;
                code = WaitUntil(Clock::now() + IDLE_PAUSE, input_.Descriptor(), true);
                break;
            case SendInput::FILE_END:
                EndFile();
                if (stopped_) return DONE;
                break;
            case SendInput::NEW_FILE:
                EndFile();
                Warn("{}", input_.Problem());
                break;
            case SendInput::END:
                return DONE;
            case SendInput::BAD_INPUT:
                return Fail(BAD_DATA, "{}", input_.Problem());
            case SendInput::BAD_FILE:
                return Fail(IO_ERROR, "{}", input_.Problem());
            case SendInput::BAD_POSITION:
                return Fail(BAD_CONFIGURATION, "{}", input_.Problem());
        }
        if (code != DONE) return code;
    }
}

ExitCode SendCommand::SendRow() {
    progress_->Update(++rows_, input_.BytesRead(), bytesInAll_);
    long timeUs = 0;
    if (!check_.Check(input_.Cells(), timeUs, values_)) return RejectRow(check_.Problem());
    if (!keys_->Add(values_[0])) {
        if (keysMax_ > 0) {
            return RejectRow(fmt::format("{}: a new key beyond the {} that --max-keys lets through",
                                         spec_.fieldNames[0].get(), keysMax_));
        }
        keysExact_ = false;
    }
    if (sequenceField_ >= 0) {
        values_[static_cast<std::size_t>(sequenceField_)] = brindle_Value::Number(SUTS_INT64, delivery_->TakeNumber());
    }
    if (brindle_AppendRecord(frame_, spec_, timeUs, values_) != BRINDLE_DONE) {
        if (sequenceField_ >= 0) delivery_->ReturnNumber();
        return RejectRow("the record does not fit into a frame");
    }
    if (timeUs < YEAR_1971_US && !epochWarned_) {
        epochWarned_ = true;
        progress_->Clear();
        std::string iso;
        AppendIsoTime(iso, timeUs);
        Warn(
            "{}:{}: {}: the time is {}, near 1970; are these seconds or milliseconds, taken for microseconds? See "
            "--time-format",
            input_.Name(), input_.Line(), timeName_, iso);
    }
    firstUs_ = std::min(firstUs_, timeUs);
    lastUs_ = std::max(lastUs_, timeUs);
    ++recordsInFrame_;
    rowsCame_ = true;
    return frame_.BodyBytes() >= static_cast<std::size_t>(batchBytes_) ? SendFrame() : DONE;
}

ExitCode SendCommand::RejectRow(std::string_view reason) {
    ++rejected_;
    progress_->Clear();
    if (!skipsErrors_ || errorsOfFile_ < ERRORS_SHOWN_MAX) {
        Fail(BAD_DATA, "{}:{}: {}", input_.Name(), input_.Line(), reason);
    }
    errorsFile_ = input_.Name();
    ++errorsOfFile_;
    if (rejects_.IsOpen() && !rejects_.Add(input_, reason)) return Fail(IO_ERROR, "{}", rejects_.Problem());
    endedByRow_ = !skipsErrors_;
    return skipsErrors_ ? DONE : BAD_DATA;
}

void SendCommand::EndFile() {
    if (skipsErrors_ && errorsOfFile_ > ERRORS_SHOWN_MAX) {
        progress_->Clear();
        Fail(BAD_DATA, "{}: {} more rows are wrong", errorsFile_, errorsOfFile_ - ERRORS_SHOWN_MAX);
    }
    errorsOfFile_ = 0;
}

ExitCode SendCommand::FlushRejects() {
    if (rejects_.IsOpen() && !rejects_.Flush()) return Fail(IO_ERROR, "{}", rejects_.Problem());
    return DONE;
}

// Delivers the records gathered, if there are any.
ExitCode SendCommand::SendFrame() {
    if (recordsInFrame_ == 0) return DONE;
    // The position that goes along counts on what was turned away before it.
    if (ExitCode const flushed = FlushRejects(); flushed != DONE) return flushed;
    std::size_t const bytes = frame_.BodyBytes() + SUTL_FRAME_HEADER_BYTES;
    ExitCode const delivered =
        delivery_->Deliver(frame_, recordsInFrame_, input_.Position(rejects_.Bytes(), endedByRow_));
    if (delivered != DONE) {
        deliveryFailed_ = true;
        return delivered;
    }
    frame_.Clear();
    recordsSent_ += recordsInFrame_;
    recordsInFrame_ = 0;
    frameIsWaiting_ = false;
    ++framesSent_;
    bytesSent_ += bytes;
    check_.LookAtClock();
    LookForStop();
    return DONE;
}

// Brings event time forward by as much as time has passed, so that the server ships what it holds.
ExitCode SendCommand::SendHeartbeat(Clock::time_point now) {
    long const passedUs = std::chrono::duration_cast<std::chrono::microseconds>(now - newestAt_).count();
    long timeUs = 0;
    silentSince_ = now;
    if (__builtin_add_overflow(beatNewestUs_, passedUs, &timeUs)) return DONE;
    if (brindle_AppendRecord(frame_, spec_, timeUs, beatValues_) != BRINDLE_DONE) return DONE;
    ++recordsInFrame_;
    ExitCode const sent = SendFrame();
    if (sent == DONE) ++heartbeats_;
    return sent;
}

// While there is a pause: writes the rejects, sends a frame that has waited long enough, and a heartbeat when the
// source is silent.
ExitCode SendCommand::DoWhatIsDue(Clock::time_point now, bool isSilent) {
    if (ExitCode const flushed = FlushRejects(); flushed != DONE) return flushed;
    if (rowsCame_) {
        rowsCame_ = false;
        silentSince_ = now;
        if (lastUs_ > beatNewestUs_) newestAt_ = now;
        beatNewestUs_ = std::max(beatNewestUs_, lastUs_);
    }
    if (recordsInFrame_ > 0) {
        if (!frameIsWaiting_) frameDue_ = now + std::chrono::microseconds(lingerUs_);
        frameIsWaiting_ = true;
        if (now >= frameDue_) {
            if (ExitCode const sent = SendFrame(); sent != DONE) return sent;
        }
    }
    if (isSilent && beatPause_.count() > 0 && beatNewestUs_ >= 0 && !dryRun_ && now >= silentSince_ + beatPause_) {
        if (ExitCode const sent = SendHeartbeat(now); sent != DONE) return sent;
    }
    ExitCode const idle = delivery_->Idle();
    if (idle != DONE) deliveryFailed_ = true;
    return idle;
}

// Waits until the descriptor (-1: none) is readable, so long, or until a signal; does meanwhile what is due.
ExitCode SendCommand::WaitUntil(Clock::time_point until, int descriptor, bool isSilent) {
    for (;;) {
        Clock::time_point const now = Clock::now();
        if (ExitCode const done = DoWhatIsDue(now, isSilent); done != DONE) return done;
        if (now >= until || stopped_) return DONE;
        Clock::time_point next = std::min<Clock::time_point>(until, now + IDLE_PAUSE);
        if (recordsInFrame_ > 0) next = std::min(next, frameDue_);
        if (isSilent && beatPause_.count() > 0 && beatNewestUs_ >= 0 && !dryRun_) {
            next = std::min(next, silentSince_ + beatPause_);
        }
        auto const left = std::max<std::chrono::nanoseconds>(next - Clock::now(), std::chrono::nanoseconds(0));
        timespec const timeout = {left.count() / 1000000000, left.count() % 1000000000};
        pollfd waited[] = {{stopSignals_->Descriptor(), POLLIN, 0}, {descriptor, POLLIN, 0}};
        ppoll(waited, 2, &timeout, nullptr);
        if (waited[0].revents != 0) stopped_ = true;
        if (waited[0].revents != 0 || waited[1].revents != 0) {
            if (stopped_) input_.Stop();
            return DONE;
        }
    }
}

// Waits for the next row's turn, unless that is near.
ExitCode SendCommand::WaitForTurn() {
    return rowDue_ - Clock::now() < PACE_STEP ? DONE : WaitUntil(rowDue_, -1, false);
}

// What a slow source has missed is not made up for, but for what the clock of the system is too coarse for.
void SendCommand::TakeTurn() {
    if (rowsPerSecond_ == 0) return;
    rowDue_ = std::max<Clock::time_point>(rowDue_, Clock::now() - PACE_LAG_MAX) +
              std::chrono::nanoseconds(1000000000 / rowsPerSecond_);
}

// Whether a signal has come. If so, nothing more is read.
bool SendCommand::LookForStop() {
    pollfd waited = {stopSignals_->Descriptor(), POLLIN, 0};
    if (!stopped_ && poll(&waited, 1, 0) > 0) {
        stopped_ = true;
        input_.Stop();
    }
    return stopped_;
}

ExitCode SendCommand::Hold() {
    while (!LookForStop()) {
        if (ExitCode const waited = WaitUntil(Clock::now() + IDLE_PAUSE, -1, true); waited != DONE) return waited;
    }
    return DONE;
}

// Brings the last frame and the end to the delivery, and tells what was done.
ExitCode SendCommand::Finish(ExitCode rows) {
    // First, since holding may take long, and what comes behind may fail.
    if (ExitCode const flushed = FlushRejects(); flushed != DONE) return flushed;
    bool const failedEarly = rows != DONE && recordsSent_ == 0 && !delivery_->IsConnected();
    if (!deliveryFailed_ && !failedEarly) {
        if (ExitCode const last = SendFrame(); last != DONE) return last;
        if (rows == DONE && hold_ && !dryRun_) {
            if (ExitCode const held = Hold(); held != DONE) return held;
        }
        if (ExitCode const finished = delivery_->Finish(); finished != DONE) return finished;
    }
    if (rejects_.IsOpen() && rows == DONE && !rejects_.Replace()) return Fail(IO_ERROR, "{}", rejects_.Problem());
    progress_->Clear();
    if (deliveryFailed_) return rows;
    // A server that nobody has connected to can still serve the mended file.
    if (failedEarly) return Fail(rows, "nothing {} sent", dryRun_ ? "would be" : "was");
    SaySummary();
    return DONE;
}

void SendCommand::SaySummary() const {
    unsigned long const records = recordsSent_ - heartbeats_;
    bool const hasTimes = lastUs_ >= 0 && records > 0;
    if (dryRun_) {
        std::string first;
        std::string last;
        if (hasTimes) AppendIsoTime(first, firstUs_);
        if (hasTimes) AppendIsoTime(last, lastUs_);
        Say("{} record{} would be sent in {} frame{}; {} row{} rejected; {}{}{}{}{}{}", records,
            records == 1 ? "" : "s", framesSent_, framesSent_ == 1 ? "" : "s", rejected_, rejected_ == 1 ? "" : "s",
            keysExact_ ? "" : "more than ", Count(keys_->Count(), "key"), hasTimes ? "; times from " : "", first,
            hasTimes ? " to " : "", last);
    } else if (recordsSent_ > 0 || !skipsErrors_ || rejected_ == 0) {
        std::string more;
        if (heartbeats_ > 0) more += fmt::format(", {} heartbeat{}", heartbeats_, heartbeats_ == 1 ? "" : "s");
        if (rejected_ > 0 && skipsErrors_) {
            more += fmt::format(", {} row{} turned away", rejected_, rejected_ == 1 ? "" : "s");
        }
        Say("{}{} record{} sent in {} frame{}{}", stopped_ ? "stopped: " : "", records, records == 1 ? "" : "s",
            framesSent_, framesSent_ == 1 ? "" : "s", more);
    } else {
        Say("{} row{} turned away, nothing sent", rejected_, rejected_ == 1 ? "" : "s");
    }
}

ExitCode SendCommand::PrintSummary() const {
    if (!WantsJson()) return DONE;
    unsigned long const records = recordsSent_ - heartbeats_;
    bool const hasTimes = lastUs_ >= 0 && records > 0;
    nlohmann::json const none;
    return PrintResult({{"records", records},
                        {"rejected", rejected_},
                        {"heartbeats", heartbeats_},
                        {"frames", framesSent_},
                        {"bytes", bytesSent_},
                        {"keys", keys_->Count()},
                        {"keys_exact", keysExact_},
                        {"first_us", hasTimes ? nlohmann::json(firstUs_) : none},
                        {"last_us", hasTimes ? nlohmann::json(lastUs_) : none},
                        {"seconds", std::chrono::duration<double>(Clock::now() - start_).count()},
                        {"stopped", stopped_},
                        {"dry_run", dryRun_}});
}

}  // namespace

std::unique_ptr<Command> MakeSendCommand() { return std::make_unique<SendCommand>(); }
