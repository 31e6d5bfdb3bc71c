// brindlectl query: asks the server for staged records.

#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>

#include "commands.h"
#include "line_editor.h"
#include "new_rows.h"
#include "plot.h"
#include "query_client.h"
#include "stop_signals.h"
#include "terminal_text.h"
#include "time_text.h"
#include "value_text.h"

namespace {

constexpr char QUERY_EXAMPLES[] =
    R"(Prints the records of one key that are still in the server's window and lie in the range of times, both ends included,
by time. Times are ISO 8601 (UTC unless they say otherwise), microseconds since 1970, 'now', or relative to now: -5m,
-2h, +10s; a table shows ISO 8601, CSV and JSON lines microseconds, so that send reads them back. A key that looks like
an option goes behind --. No record found is no failure.
Without a key and with a terminal, lines are read from it: a key, perhaps with times behind it, help, or quit. With
other input each line is a key. --follow looks again every second and prints what is new, records that come late among
them, until it is stopped, with status 0; at the start everything in the range is new. When the server goes away or
serves another client, --follow waits and goes on.
The server serves one query client at a time; another one that is connected makes this one wait, up to --wait, and end
with status 75. The schema must be the server's: a query whose key is longer than the server's type of key ends the
server.
With --stats --json: key, records, fields {name: {count, min, mean, max, first, last, nan}}, an object for each key.
Examples:
  brindlectl query --spec flights.spec --query 127.0.0.1:7201,7202 --from -2h --plot delay_minutes PHX
  brindlectl query --spec flights.spec --query 127.0.0.1:7201,7202 --from 2001-01-03T12:00 --format csv PHX)";

constexpr char HELP[] =
    "KEY                 the records of a key, in the range that the command line gave\n"
    "KEY FROM            from this time on: 2001-01-03T12:00, -5m, now\n"
    "KEY FROM TO         and up to that one, both included\n"
    "help                this text\n"
    "quit                ends, as Ctrl-D does\n"
    "A key with blanks, or called help or quit, stands in double quotes; \\\" and \\\\ in them stand for \" and \\.\n";

constexpr int FOLLOW_PAUSE_MS = 1000;
constexpr long TIME_MAX = std::numeric_limits<long>::max();

// Reads a time as the help tells. False for anything else. What would lie before 1970 is 1970.
bool ParseQueryTime(std::string_view text, long& timeUs) {
    bool const isRelative = text.size() > 1 && (text.front() == '-' || text.front() == '+');
    long awayUs = 0;
    if (text == "now" || (isRelative && ParseDuration(text.substr(1), awayUs))) {
        if (text.front() == '-') awayUs = -awayUs;
        if (__builtin_add_overflow(NowUs(), awayUs, &timeUs)) timeUs = TIME_MAX;
        timeUs = std::max(timeUs, 0L);
        return true;
    }
    return ParseTime(text, timeUs) && timeUs >= 0;
}

// Cuts a line into words at blanks; double quotes keep them together. False where a quote stays open.
bool SplitWords(std::string_view line, std::vector<std::string>& words, bool& firstIsQuoted) {
    words.clear();
    firstIsQuoted = false;
    bool inWord = false;
    bool inQuotes = false;
    for (std::size_t i = 0; i < line.size(); ++i) {
        char const c = line[i];
        if (!inQuotes && (c == ' ' || c == '\t')) {
            inWord = false;
            continue;
        }
        if (!inWord) words.emplace_back();
        inWord = true;
        if (c == '"') {
            if (words.size() == 1) firstIsQuoted = true;
            inQuotes = !inQuotes;
        } else {
            bool const isEscape = inQuotes && c == '\\' && i + 1 < line.size();
            words.back() += isEscape ? line[++i] : c;
        }
    }
    return !inQuotes;
}

// The schema with some of its fields alone.
void TakeFields(suts_tsspec const& spec, std::vector<std::size_t> const& fields, suts_tsspec& chosen) {
    chosen.fieldCount = static_cast<int>(fields.size());
    chosen.types = std::make_unique<int[]>(fields.size());
    chosen.fieldNames = std::make_unique<std::unique_ptr<char[]>[]>(fields.size());
    for (std::size_t i = 0; i < fields.size(); ++i) {
        std::string_view const name = spec.fieldNames[fields[i]].get();
        chosen.types[i] = spec.types[fields[i]];
        chosen.fieldNames[i] = std::make_unique<char[]>(name.size() + 1);
        name.copy(chosen.fieldNames[i].get(), name.size());
    }
}

// While it lives SIGINT, SIGTERM and SIGHUP end the process at once, with status 0; they are held back before.
class EndOnSignal {
 public:
    EndOnSignal() {
        struct sigaction end = {};
        end.sa_handler = [](int) { _exit(DONE); };
        sigset_t signals;
        sigemptyset(&signals);
        for (int const number : {SIGINT, SIGTERM, SIGHUP}) {
            struct sigaction current = {};
            sigaction(number, nullptr, &current);
            // As for the other commands: a hang-up may be ignored on purpose.
            if (number == SIGHUP && current.sa_handler == SIG_IGN) continue;
            sigaddset(&signals, number);
            sigaction(number, &end, nullptr);
        }
        sigprocmask(SIG_UNBLOCK, &signals, &before_);
    }
    EndOnSignal(EndOnSignal const&) = delete;
    EndOnSignal& operator=(EndOnSignal const&) = delete;
    ~EndOnSignal() { sigprocmask(SIG_SETMASK, &before_, nullptr); }

 private:
    sigset_t before_ = {};
};

class QueryCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    struct Question {
        std::string key;
        long fromUs = 0;
        long toUs = TIME_MAX;
    };

    [[nodiscard]] ExitCode CheckChoices();
    [[nodiscard]] ExitCode FindField(std::string const& name, std::size_t& field) const;
    [[nodiscard]] ExitCode Converse();
    [[nodiscard]] ExitCode AskForLines();
    [[nodiscard]] ExitCode Follow();
    [[nodiscard]] QueryClient::Result Look(brindle_Value const& key, bool isFirst, bool& isRead);
    [[nodiscard]] ExitCode ParseKey(Question const& question, brindle_Value& key) const;
    [[nodiscard]] ExitCode Ask(Question const& question);
    [[nodiscard]] ExitCode Explain(QueryClient::Result result, Question const& question) const;
    [[nodiscard]] ExitCode Print(Question const& question);
    [[nodiscard]] ExitCode PrintStats(Question const& question);
    [[nodiscard]] ExitCode PrintPlot();
    void AddRows();

    suts_tsspec spec_;
    std::optional<QueryClient> client_;
    QueryReply reply_;
    std::string keyText_;
    std::string fromText_;
    std::string toText_;
    Question question_;  // without a key, what the lines ask for unless they say more
    std::string format_ = "table";
    std::vector<std::string> fieldNames_;
    std::vector<std::size_t> fields_;  // shown
    suts_tsspec shown_;                // these alone
    std::string plotName_;
    std::size_t plotField_ = 0;
    long limit_ = 0;  // 0: none
    bool stats_ = false;
    bool ascii_ = false;
    bool follow_ = false;
    std::optional<RecordOutput> output_;
};

void QueryCommand::Declare(CLI::App& program) {
    Add(program, "query", "Print the staged records of a key", QUERY_EXAMPLES);
    AddSpec();
    AddAddress("--query", "BRINDLE_QUERY", "The server's two query ports");
    AddWait();
    AddTimeName();
    AddJson();
    AddOption("--from", "TIME", "First time asked for; the earliest if it is not given", fromText_);
    AddOption("--to", "TIME", "Last time asked for; the latest if it is not given", toText_);
    AddChoice("--format", {"table", "csv", "jsonl"}, format_);
    AddOptions("--fields", "NAMES", "Show these fields alone, in this order: a,b", fieldNames_);
    AddNumber("--limit", "N", "Show the newest N records alone; 0 for all", limit_, 0, TIME_MAX);
    AddFlag("--stats", "Show figures of the numeric fields in place of records", stats_);
    AddOption("--plot", "FIELD", "Show a chart of a numeric field in place of records", plotName_);
    AddFlag("--ascii", "Draw the chart with plain characters", ascii_);
    AddFlag("--follow", "Go on with what is new, every second, until stopped", follow_);
    AddOptionalArgument("key", "The key, a value of the schema's first field", keyText_);
}

ExitCode QueryCommand::FindField(std::string const& name, std::size_t& field) const {
    std::vector<std::string_view> names;
    for (field = 0; field < static_cast<std::size_t>(spec_.fieldCount); ++field) {
        names.emplace_back(spec_.fieldNames[field].get());
        if (names.back() == name) return DONE;
    }
    return Fail(USAGE, "the schema has no field '{}'; its fields are: {}", Shown(name), ShownList(names));
}

ExitCode QueryCommand::CheckChoices() {
    for (auto const& [text, timeUs] : {std::pair(&fromText_, &question_.fromUs), {&toText_, &question_.toUs}}) {
        if (!text->empty() && !ParseQueryTime(*text, *timeUs)) {
            return Fail(USAGE, "'{}' is no time: write ISO 8601, microseconds since 1970, now, or -5m", *text);
        }
    }
    for (std::string_view names : fieldNames_) {
        for (std::size_t end = 0; end != std::string_view::npos; names.remove_prefix(std::min(end + 1, names.size()))) {
            end = names.find(',');
            std::size_t field = 0;
            if (ExitCode const found = FindField(std::string(names.substr(0, end)), field); found != DONE) return found;
            fields_.push_back(field);
            if (end == std::string_view::npos) break;
        }
    }
    if (fields_.empty()) {
        for (int i = 0; i < spec_.fieldCount; ++i) fields_.push_back(static_cast<std::size_t>(i));
    }
    TakeFields(spec_, fields_, shown_);
    if (ExitCode const checked = CheckColumns(shown_, {timeName_}); checked != DONE) return checked;
    if (!plotName_.empty()) {
        if (ExitCode const found = FindField(plotName_, plotField_); found != DONE) return found;
        if (spec_.Type(static_cast<int>(plotField_)) == SUTS_STRING64) {
            return Fail(USAGE, "the field '{}' holds texts, which make no chart", plotName_);
        }
    }
    if (stats_ && !plotName_.empty()) return Fail(USAGE, "--stats and --plot exclude each other");
    if (follow_ && (stats_ || !plotName_.empty()))
        return Fail(USAGE, "--follow shows records; leave --stats and --plot");
    if (follow_ && keyText_.empty()) return Fail(USAGE, "--follow needs a key");
    if (WantsJson() && !stats_) return Fail(USAGE, "--json goes with --stats; records as JSON are --format jsonl");
    return DONE;
}

ExitCode QueryCommand::Run() {
    if (ExitCode const loaded = LoadSpec(spec_); loaded != DONE) return loaded;
    if (ExitCode const checked = CheckChoices(); checked != DONE) return checked;
    client_.emplace(spec_, address_, Wait());
    // A conversation has a table of its own for each answer.
    bool const isConversation = keyText_.empty() && isatty(STDIN_FILENO) == 1;
    output_.emplace(FormatOf(format_), shown_, std::vector<std::string>(), timeName_);
    bool const showsRecords = !stats_ && plotName_.empty() && !isConversation;
    if (isConversation) return Converse();
    question_.key = keyText_;
    // Nothing is written, not even names of columns, before the first answer.
    if (keyText_.empty()) return AskForLines();
    if (follow_) return Follow();
    if (ExitCode const asked = Ask(question_); asked != DONE) return asked;
    if (showsRecords) {
        if (ExitCode const opened = OpenOutput(*output_); opened != DONE) return opened;
    }
    return Print(question_);
}

// The key is a view of the question's.
ExitCode QueryCommand::ParseKey(Question const& question, brindle_Value& key) const {
    if (ParseValue(question.key, spec_.Type(0), key)) return DONE;
    return Fail(USAGE, "the key '{}' is not of type {}", Shown(question.key), TypeName(spec_.Type(0)));
}

ExitCode QueryCommand::Ask(Question const& question) {
    brindle_Value key;
    if (ExitCode const parsed = ParseKey(question, key); parsed != DONE) return parsed;
    QueryClient::Result const result = client_->Ask(key, question.fromUs, question.toUs, reply_);
    if (result != QueryClient::REPLIED) return Explain(result, question);
    if (limit_ > 0) reply_.KeepNewest(static_cast<std::size_t>(limit_));
    return DONE;
}

ExitCode QueryCommand::Explain(QueryClient::Result result, Question const& question) const {
    int const error = errno;
    switch (result) {
        case QueryClient::REPLIED:
            break;
        case QueryClient::BAD_KEY:
            return Fail(USAGE, "the key '{}' cannot be asked for", Shown(question.key));
        case QueryClient::UNKNOWN_HOST:
            return FailToConnect(BRINDLE_UNKNOWN_HOST);
        case QueryClient::NO_SERVER:
            errno = error;
            return FailToConnect(BRINDLE_TIMED_OUT);
        case QueryClient::OTHERS_FIRST:
            return Fail(TRY_AGAIN,
                        "{}: another query client is connected, and the server serves one at a time; gave up "
                        "after {} s, wait longer with --wait",
                        addressText_, waitSeconds_);
        case QueryClient::NO_REPLY:
            return Fail(TRY_AGAIN,
                        "{}: no reply within {} s; is another query client connected? Wait longer with --wait",
                        addressText_, waitSeconds_);
        case QueryClient::LEFT:
            return Fail(UNAVAILABLE, "{}: the server ended the conversation{}{}; its standard error may tell why",
                        addressText_, error != 0 ? ": " : "", error != 0 ? strerror(error) : "");
        case QueryClient::BAD_REPLY:
            return Fail(BAD_DATA, "the reply cannot be read behind record {}; check that the schema is the server's",
                        reply_.Rows().size());
        case QueryClient::REPLY_OF_ANOTHER:
            return Fail(TRY_AGAIN,
                        "{}: another client connected at the same moment, and got this one's reply; ask again",
                        addressText_);
    }
    return DONE;
}

void QueryCommand::AddRows() {
    std::vector<brindle_Value> values;
    std::vector<brindle_Value> chosen(fields_.size());
    for (QueryReply::Row const& row : reply_.Rows()) {
        reply_.Decode(row, spec_, values);
        for (std::size_t i = 0; i < fields_.size(); ++i) chosen[i] = values[fields_[i]];
        output_->Add({}, row.timeUs, chosen);
    }
}

ExitCode QueryCommand::Print(Question const& question) {
    if (stats_) return PrintStats(question);
    if (!plotName_.empty()) return PrintPlot();
    AddRows();
    if (ExitCode const flushed = FlushOutput(*output_); flushed != DONE) return flushed;
    Say("{} of '{}' staged in this range", Count(reply_.Rows().size(), "record"), ForTerminal(question.key));
    return DONE;
}

ExitCode QueryCommand::PrintStats(Question const& question) {
    std::vector<std::size_t> numeric;
    std::vector<FieldStats> stats;
    for (std::size_t const field : fields_) {
        suts_FieldType const type = spec_.Type(static_cast<int>(field));
        if (type == SUTS_STRING64) continue;
        numeric.push_back(field);
        stats.emplace_back(type);
    }
    std::vector<brindle_Value> values;
    for (QueryReply::Row const& row : reply_.Rows()) {
        reply_.Decode(row, spec_, values);
        for (std::size_t i = 0; i < numeric.size(); ++i) stats[i].Add(values[numeric[i]]);
    }
    if (WantsJson()) {
        nlohmann::json fields = nlohmann::json::object();
        for (std::size_t i = 0; i < numeric.size(); ++i) {
            fields[spec_.fieldNames[numeric[i]].get()] = stats[i].Json();
        }
        return PrintResult({{"key", question.key}, {"records", reply_.Rows().size()}, {"fields", std::move(fields)}});
    }
    std::vector<std::vector<std::string>> rows = {{"field", "count", "min", "mean", "max", "first", "last"}};
    std::vector<std::size_t> widths(rows[0].size());
    for (std::size_t i = 0; i < numeric.size(); ++i) {
        rows.push_back(stats[i].Texts());
        rows.back().insert(rows.back().begin(), ForTerminal(spec_.fieldNames[numeric[i]].get()));
    }
    for (auto const& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], WidthOf(row[i]));
    }
    std::string text = fmt::format("{}: {}\n", ForTerminal(question.key), Count(reply_.Rows().size(), "record"));
    for (auto const& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) {
            std::string const padding(widths[i] - WidthOf(row[i]), ' ');
            text += i == 0 ? row[i] + padding : "  " + padding + row[i];
        }
        text += '\n';
    }
    return PrintText(text);
}

ExitCode QueryCommand::PrintPlot() {
    std::vector<PlotPoint> points;
    std::vector<brindle_Value> values;
    for (QueryReply::Row const& row : reply_.Rows()) {
        reply_.Decode(row, spec_, values);
        brindle_Value const& value = values[plotField_];
        points.push_back({row.timeUs, value.type == SUTS_FLOAT64 ? value.real : static_cast<double>(value.number)});
    }
    bool const ascii = ascii_ || !HasUtf8Locale();
    return PrintText(ForTerminal(plotName_) + '\n' +
                     Plot(std::move(points), TerminalColumns(STDOUT_FILENO) - 1, ascii));
}

// A key a line, from what is no terminal.
ExitCode QueryCommand::AskForLines() {
    if (!stats_ && plotName_.empty()) {
        if (ExitCode const opened = OpenOutput(*output_); opened != DONE) return opened;
    }
    std::ios::sync_with_stdio(false);  // so that the stream can tell whether a line is there
    Question question = question_;
    for (;;) {
        // While the next line is waited for, others are served.
        if (std::cin.rdbuf()->in_avail() <= 0) client_->Leave();
        if (!std::getline(std::cin, question.key)) return DONE;
        if (question.key.ends_with('\r')) question.key.pop_back();
        if (ExitCode const asked = Ask(question); asked != DONE) return asked;
        if (ExitCode const printed = Print(question); printed != DONE) return printed;
    }
}

ExitCode QueryCommand::Converse() {
    LineEditor editor;
    std::string line;
    std::vector<std::string> words;
    bool isQuoted = false;
    WriteToErrors("A key, or help, or quit.\n");
    while (editor.Read(line)) {
        if (!SplitWords(line, words, isQuoted) || words.size() > 3) {
            Warn("a line is KEY, KEY FROM or KEY FROM TO; help tells more");
            continue;
        }
        if (words.empty()) continue;
        if (!isQuoted && words.size() == 1 && (words[0] == "quit" || words[0] == "exit")) return DONE;
        if (!isQuoted && words.size() == 1 && words[0] == "help") {
            if (ExitCode const printed = PrintText(HELP); printed != DONE) return printed;
            continue;
        }
        Question question = question_;
        question.key = words[0];
        bool const areTimes = (words.size() < 2 || ParseQueryTime(words[1], question.fromUs)) &&
                              (words.size() < 3 || ParseQueryTime(words[2], question.toUs));
        if (!areTimes) {
            Warn("'{}' is no time: write ISO 8601, microseconds since 1970, now, or -5m", ForTerminal(words.back()));
            continue;
        }
        bool const asked = Ask(question) == DONE;  // otherwise said; the next line may do better
        // While the user thinks, others are served.
        client_->Leave();
        if (!asked) continue;
        output_.emplace(FormatOf(format_), shown_, std::vector<std::string>(), timeName_);
        if (!stats_ && plotName_.empty()) {
            if (ExitCode const opened = OpenOutput(*output_); opened != DONE) return opened;
        }
        if (ExitCode const printed = Print(question); printed != DONE) return printed;
    }
    return PrintText("\n");
}

// Waits for the next look, if it is not the first, and asks. A signal ends it at once, a reader that has gone soon.
QueryClient::Result QueryCommand::Look(brindle_Value const& key, bool isFirst, bool& isRead) {
    EndOnSignal const endAtOnce;
    pollfd output = {STDOUT_FILENO, 0, 0};
    isRead = isFirst || poll(&output, 1, FOLLOW_PAUSE_MS) <= 0;
    if (!isRead) return QueryClient::REPLIED;
    QueryClient::Result const result = client_->Ask(key, question_.fromUs, question_.toUs, reply_);
    int const error = errno;
    client_->Leave();
    errno = error;
    return result;
}

ExitCode QueryCommand::Follow() {
    brindle_Value key;
    if (ExitCode const parsed = ParseKey(question_, key); parsed != DONE) return parsed;
    StopSignals const stop;
    if (ExitCode const opened = OpenOutput(*output_); opened != DONE) return opened;
    output_->StopOn(stop.Descriptor());
    NewRows seen;
    bool wasTold = false;
    for (bool isFirst = true;; isFirst = false) {
        bool isRead = true;
        QueryClient::Result const result = Look(key, isFirst, isRead);
        if (!isRead) return Fail(IO_ERROR, "standard output: nobody reads it any more");
        bool const isAnswered = result == QueryClient::REPLIED;
        if (result == QueryClient::BAD_KEY || result == QueryClient::UNKNOWN_HOST || result == QueryClient::BAD_REPLY ||
            (isFirst && !isAnswered)) {
            return Explain(result, question_);
        }
        if (!isAnswered && !wasTold) {
            static_cast<void>(Explain(result, question_));
            Say("goes on when the server answers again");
        }
        wasTold = !isAnswered;
        if (!isAnswered) continue;
        seen.LeaveIn(reply_);
        if (isFirst && limit_ > 0) reply_.KeepNewest(static_cast<std::size_t>(limit_));
        AddRows();
        int const error = output_->Flush();
        if (error == ECANCELED) return DONE;
        if (error != 0) return Fail(IO_ERROR, "standard output: writing failed: {}", strerror(error));
    }
}

}  // namespace

std::unique_ptr<Command> MakeQueryCommand() { return std::make_unique<QueryCommand>(); }
