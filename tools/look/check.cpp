// brindlectl check: says what a replay of a recovery directory would bring back.

#include <fmt/ranges.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "recovery_check.h"
#include "stored_value.h"
#include "terminal_text.h"
#include "time_text.h"

namespace {

constexpr char CHECK_EXAMPLES[] =
    R"(Walks every file of the directory by the schema, as a start of the server with this directory as its RecoverFromPath
does, and changes nothing. It says what comes back, what is lost at the end of a log that was cut off, and what looks
wrong. The log has no checksums: damage that still reads as records shows only in odd times, lengths and keys. Times are
suspicious before 1971, where seconds or milliseconds land that were meant as microseconds, and beyond --max-future.
Exit status: 0 a replay brings everything back and nothing is suspicious; 1 a replay works, but something is lost or
suspicious; 65 a replay would end with an error; 74 something could not be read.
With --json: directory, verdict (clean, suspicious, error), errors (what would end the replay), warnings, notes; files
[{name, bytes, records}], bytes, records, record_bytes, first_time, last_time (microseconds, null without records);
torn (null, or {file, offset, bytes, reason}); negative_times, future_times, early_times (each {records, file, offset,
time} or null), too_large, inexact_lengths, zero_runs [{file, offset, bytes}], zero_run_count; key_file {keys, state
(whole, missing, corrupt), offset, cut_entries, repeated}; keys {count, cut, not_in_key_file, counts [{key, records}],
records_of_others}; used_by [processes].
Examples:
  brindlectl check --spec flights.spec /var/lib/brindle/run7
  brindlectl check --spec flights.spec --keys --json /var/lib/brindle/run7)";

constexpr long DAY_US = 24L * 3600 * 1000000;
constexpr long YEAR_1971_US = 365 * DAY_US;
constexpr std::size_t SHOWN_MAX = 5;  // of the members of a list in a line

std::string TimeText(long timeUs) {
    std::string text;
    AppendIsoTime(text, timeUs);
    return text;
}

std::string Bytes(long bytes) { return Count(static_cast<unsigned long>(bytes), "byte"); }

std::string Names(std::vector<std::string> const& names) {
    std::string text;
    for (std::size_t i = 0; i < std::min(names.size(), SHOWN_MAX); ++i) {
        text += fmt::format("{}'{}'", i > 0 ? ", " : "", ForTerminal(names[i]));
    }
    if (names.size() > SHOWN_MAX) text += fmt::format(" and {} more", names.size() - SHOWN_MAX);
    return text;
}

class CheckCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    void FindErrors(RecoveryReport const& report);
    void FindLoss(RecoveryReport const& report);
    void FindOddities(RecoveryReport const& report);
    void FindNotes(RecoveryReport const& report);
    [[nodiscard]] ExitCode PrintReport(RecoveryReport const& report, ExitCode end) const;
    [[nodiscard]] ExitCode PrintJson(RecoveryReport const& report, ExitCode end) const;
    [[nodiscard]] std::string KeysText(KeyCounts const& keys) const;

    suts_tsspec spec_;
    std::string directory_;
    long maxFutureUs_ = DAY_US;
    long maxKeys_ = 200000;
    long top_ = 10;
    bool allKeys_ = false;
    std::vector<std::string> errors_;    // a replay ends with them
    std::vector<std::string> warnings_;  // something is lost or suspicious
    std::vector<std::string> notes_;     // usual, and good to know
    std::vector<std::string> users_;     // processes at work in the directory
};

void CheckCommand::Declare(CLI::App& program) {
    Add(program, "check", "Say what a replay of a recovery directory would bring back", CHECK_EXAMPLES);
    AddSpec();
    AddJson();
    AddFlag("--keys", "List every key, in the order first seen, and not only those with most records", allKeys_);
    AddNumber("--top", "N", "Keys that are listed without --keys", top_, 0, 1000000);
    AddNumber("--max-keys", "N", "Keys that are counted one by one; further ones are counted together", maxKeys_, 1,
              100000000);
    AddDuration("--max-future", "Times further ahead of now are suspicious (default 1d)", maxFutureUs_);
    AddArgument("directory", "The recovery directory", directory_);
}

std::string FileName(RecoveryReport const& report, std::size_t file) {
    return "F" + std::to_string(report.directory.files[file].number);
}

std::string PlaceText(RecoveryReport const& report, LogPlace const& place) {
    return fmt::format("{} at offset {}", FileName(report, place.file), place.offset);
}

void CheckCommand::FindErrors(RecoveryReport const& report) {
    RecoveryDirectory const& directory = report.directory;
    if (!directory.foreign.empty()) {
        errors_.push_back(fmt::format("{} does not belong into a recovery directory: the start gives up; move it away",
                                      Names(directory.foreign)));
    }
    if (!directory.notFiles.empty()) {
        errors_.push_back(fmt::format("{} is no file: the start ends at it, or waits for ever; move it away",
                                      Names(directory.notFiles)));
    }
    if (!directory.hasKeyFile) {
        errors_.emplace_back("KeyFile is missing: the start gives up; an empty file in its place, or repair, helps");
    } else if (report.keyFileEnd == KeyFileWalker::CORRUPT) {
        errors_.push_back(fmt::format("KeyFile is corrupt at offset {}, behind {}: the start gives up; repair helps",
                                      report.keyFileOffset, Count(report.keyFileKeys, "whole key")));
    } else if (report.keyFileEnd == KeyFileWalker::READ_ERROR) {
        errors_.push_back(fmt::format("KeyFile cannot be read: {}: the start gives up", strerror(report.keyFileError)));
    }
    if (report.end == LogWalker::READ_ERROR && !report.couldNotOpen) {
        errors_.push_back(fmt::format("{} cannot be read: {}: the replay ends with an assertion",
                                      FileName(report, report.failedFile), strerror(report.error)));
    }
}

void CheckCommand::FindLoss(RecoveryReport const& report) {
    RecoveryDirectory const& directory = report.directory;
    if (report.end == LogWalker::READ_ERROR && report.couldNotOpen) {
        warnings_.push_back(fmt::format("{} cannot be opened: {}: a replay by this user ends before it",
                                        FileName(report, report.failedFile), strerror(report.error)));
    }
    if (report.end == LogWalker::TORN) {
        bool const inLast = report.torn.file + 1 == directory.files.size();
        warnings_.push_back(fmt::format("torn: {}: {}; {} behind it form no record and are lost{}",
                                        PlaceText(report, report.torn), TextOf(report.tornReason),
                                        Bytes(report.tornBytes),
                                        !inLast ? ", the later files among them; repair saves those" : ""));
        if (report.error != 0) {
            warnings_.push_back(fmt::format("{} behind the tear cannot be read: {}",
                                            FileName(report, report.failedFile), strerror(report.error)));
        }
    }
    if (!directory.misnamed.empty()) {
        warnings_.push_back(fmt::format("{} has leading zeros in its number: the replay ends before it, {} unread",
                                        Names({directory.misnamed}), Count(directory.behindMisnamed.size(), "file")));
    }
    if (!directory.passedOver.empty()) {
        warnings_.push_back(fmt::format("{}: never read by a replay", Names(directory.passedOver)));
    }
    if (report.negative.records > 0) {
        warnings_.push_back(fmt::format("{} with a negative time: a replay refuses them one by one; first {}, time {}",
                                        Count(report.negative.records, "record"),
                                        PlaceText(report, report.negative.first), report.negative.firstUs));
    }
    if (report.tooLarge > 0) {
        warnings_.push_back(fmt::format("{} too large for a ship message: a replay refuses them one by one",
                                        Count(report.tooLarge, "record")));
    }
}

void CheckCommand::FindOddities(RecoveryReport const& report) {
    if (report.inexact > 0) {
        warnings_.push_back(
            fmt::format("{} whose length is not that of the fields: damage, or another schema; first {}",
                        Count(report.inexact, "record"), PlaceText(report, report.firstInexact)));
    }
    if (report.zeroRunCount > 0) {
        std::string places;
        for (ZeroRun const& run : report.zeroRuns) {
            if (&run - report.zeroRuns.data() == SHOWN_MAX) break;
            places += fmt::format("; {}, {}", PlaceText(report, run.start), Bytes(run.bytes));
        }
        warnings_.push_back(fmt::format("{} that look like blocks never written{}",
                                        Count(report.zeroRunCount, "run of zeros"), places));
    }
    auto const tell = [&](OddTimes const& times, char const* what) {
        if (times.records == 0) return;
        warnings_.push_back(fmt::format("{} with a time {}; first {}, time {}", Count(times.records, "record"), what,
                                        PlaceText(report, times.first), TimeText(times.firstUs)));
    };
    tell(report.future, "in the far future, which moves the server's window there");
    tell(report.epoch, "before 1971: are they microseconds?");
    if (report.keyFileCut > 0) {
        warnings_.emplace_back("KeyFile ends inside an entry, whose part is taken for a key");
    }
    if (report.keys.KeysTwiceInKeyFile() > 0) {
        warnings_.push_back(fmt::format("KeyFile holds {} twice: announced and shipped twice in every cycle",
                                        Count(report.keys.KeysTwiceInKeyFile(), "key")));
    }
}

void CheckCommand::FindNotes(RecoveryReport const& report) {
    if (report.directory.numbersMissing > 0) {
        notes_.push_back(fmt::format("{} missing between the files: shipped files are removed, so this is usual",
                                     Count(static_cast<unsigned long>(report.directory.numbersMissing), "number")));
    }
    if (report.keys.KeysNotInKeyFile() > 0) {
        notes_.push_back(fmt::format("{} of the log not in KeyFile, as after a kill; the replay adds them behind it",
                                     Count(report.keys.KeysNotInKeyFile(), "key")));
    }
    if (report.keys.IsCut()) {
        notes_.push_back(fmt::format("more than {} keys: {} of the others are counted together; see --max-keys",
                                     report.keys.Keys(), Count(report.keys.RecordsOfOtherKeys(), "record")));
    }
}

std::string CheckCommand::KeysText(KeyCounts const& keys) const {
    std::vector<KeyCounts::Entry const*> entries = allKeys_ ? keys.InOrder() : keys.ByRecords();
    if (!allKeys_ && entries.size() > static_cast<std::size_t>(top_)) entries.resize(static_cast<std::size_t>(top_));
    std::string text;
    std::size_t width = 0;
    std::vector<std::string> names;
    for (KeyCounts::Entry const* const entry : entries) {
        names.push_back(StoredKeyText(entry->start, entry->bytes, spec_.Type(0)));
        width = std::max(width, WidthOf(names.back()));
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
        text += fmt::format("           {}{}  {}\n", names[i], std::string(width - WidthOf(names[i]), ' '),
                            Count(entries[i]->records, "record"));
    }
    if (entries.size() < keys.Keys()) {
        text += fmt::format("           and {} more; --keys lists all\n", Count(keys.Keys() - entries.size(), "key"));
    }
    return text;
}

ExitCode CheckCommand::PrintReport(RecoveryReport const& report, ExitCode end) const {
    std::vector<LogFile> const& files = report.directory.files;
    std::string text = fmt::format("directory  {}\n", ForTerminal(directory_));
    text += fmt::format("files      {}{}, {}\n", Count(files.size(), "file"),
                        files.empty()       ? ""
                        : files.size() == 1 ? fmt::format(", F{}", files.front().number)
                                            : fmt::format(", F{} to F{}", files.front().number, files.back().number),
                        Bytes(report.bytes));
    text += fmt::format("records    {}, {}\n", report.records, Bytes(report.recordBytes));
    if (report.records > 0) {
        text += fmt::format("times      {} to {}\n", TimeText(report.firstUs), TimeText(report.lastUs));
    }
    text += fmt::format("keys       {}{}; {} in KeyFile\n", report.keys.Keys(), report.keys.IsCut() ? " and more" : "",
                        report.keyFileKeys);
    text += KeysText(report.keys);
    for (std::string const& line : errors_) text += "error      " + line + '\n';
    for (std::string const& line : warnings_) text += "warning    " + line + '\n';
    for (std::string const& line : notes_) text += "note       " + line + '\n';
    char const* const verdict = end == BAD_DATA  ? "a replay ends with an error"
                                : end == REJECTS ? "a replay works, but see the warnings"
                                                 : "a replay brings everything back";
    return PrintText(text + "verdict    " + verdict + '\n');
}

ExitCode CheckCommand::PrintJson(RecoveryReport const& report, ExitCode end) const {
    using nlohmann::json;
    auto const place = [&](LogPlace const& at) {
        return json{{"file", FileName(report, at.file)}, {"offset", at.offset}};
    };
    auto const odd = [&](OddTimes const& times) -> json {
        if (times.records == 0) return nullptr;
        json value = place(times.first);
        value.update({{"records", times.records}, {"time", times.firstUs}});
        return value;
    };
    json files = json::array();
    for (std::size_t i = 0; i < report.directory.files.size(); ++i) {
        files.push_back(
            {{"name", FileName(report, i)}, {"bytes", report.fileBytes[i]}, {"records", report.fileRecords[i]}});
    }
    json torn = nullptr;
    if (report.end == LogWalker::TORN) {
        torn = place(report.torn);
        torn.update({{"bytes", report.tornBytes}, {"reason", TextOf(report.tornReason)}});
    }
    json zeroRuns = json::array();
    for (ZeroRun const& run : report.zeroRuns)
        zeroRuns.push_back(place(run.start)), zeroRuns.back()["bytes"] = run.bytes;
    json counts = json::array();
    std::vector<KeyCounts::Entry const*> const entries = allKeys_ ? report.keys.InOrder() : report.keys.ByRecords();
    for (KeyCounts::Entry const* const entry : entries) {
        if (!allKeys_ && counts.size() == static_cast<std::size_t>(top_)) break;
        counts.push_back(
            {{"key", StoredKeyJson(entry->start, entry->bytes, spec_.Type(0))}, {"records", entry->records}});
    }
    bool const hasTimes = report.records > 0;
    char const* const keyState = !report.directory.hasKeyFile              ? "missing"
                                 : report.keyFileEnd != KeyFileWalker::END ? "corrupt"
                                                                           : "whole";
    return PrintResult({
        {"directory", directory_},
        {"verdict", end == BAD_DATA  ? "error"
                    : end == REJECTS ? "suspicious"
                                     : "clean"},
        {"errors", errors_},
        {"warnings", warnings_},
        {"notes", notes_},
        {"files", std::move(files)},
        {"bytes", report.bytes},
        {"records", report.records},
        {"record_bytes", report.recordBytes},
        {"first_time", hasTimes ? json(report.firstUs) : json()},
        {"last_time", hasTimes ? json(report.lastUs) : json()},
        {"torn", std::move(torn)},
        {"negative_times", odd(report.negative)},
        {"future_times", odd(report.future)},
        {"early_times", odd(report.epoch)},
        {"too_large", report.tooLarge},
        {"inexact_lengths", report.inexact},
        {"zero_runs", std::move(zeroRuns)},
        {"zero_run_count", report.zeroRunCount},
        {"key_file",
         {{"keys", report.keyFileKeys},
          {"state", keyState},
          {"offset", report.keyFileOffset},
          {"cut_entries", report.keyFileCut},
          {"repeated", report.keys.KeysTwiceInKeyFile()}}},
        {"keys",
         {{"count", report.keys.Keys()},
          {"cut", report.keys.IsCut()},
          {"not_in_key_file", report.keys.KeysNotInKeyFile()},
          {"counts", std::move(counts)},
          {"records_of_others", report.keys.RecordsOfOtherKeys()}}},
        {"used_by", users_},
    });
}

ExitCode CheckCommand::Run() {
    if (ExitCode const loaded = LoadSpec(spec_); loaded != DONE) return loaded;
    long const nowUs = NowUs();
    CheckLimits limits;
    limits.keysMax = static_cast<unsigned long>(maxKeys_);
    limits.epochUs = YEAR_1971_US;
    if (__builtin_add_overflow(nowUs, maxFutureUs_, &limits.futureUs)) limits.futureUs = INT64_MAX;
    RecoveryReport report(limits.keysMax);
    if (!CheckRecovery(spec_, directory_, limits, report)) {
        return Fail(IO_ERROR, "{}: cannot be read: {}", directory_, strerror(errno));
    }
    users_ = ProcessesUsing(directory_);
    if (!users_.empty()) {
        Warn("{}: in use by {}; what is told may have changed meanwhile", directory_, fmt::join(users_, ", "));
    }
    FindErrors(report);
    FindLoss(report);
    FindOddities(report);
    FindNotes(report);
    ExitCode const end = report.EndsWithError() ? BAD_DATA : warnings_.empty() ? DONE : REJECTS;
    ExitCode printed = DONE;
    if (WantsJson()) {
        printed = PrintJson(report, end);
    } else if (!IsQuiet()) {
        printed = PrintReport(report, end);
    }
    if (printed != DONE) return printed;
    bool const isUnread = end == REJECTS && report.error != 0;
    if (isUnread) {
        return Fail(IO_ERROR, "{}: {} cannot be read: {}", directory_, FileName(report, report.failedFile),
                    strerror(report.error));
    }
    return end;
}

}  // namespace

std::unique_ptr<Command> MakeCheckCommand() { return std::make_unique<CheckCommand>(); }
