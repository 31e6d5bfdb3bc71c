// brindlectl dump: shows the records of a recovery directory.

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>

#include "commands.h"
#include "progress.h"
#include "recovery_check.h"
#include "recovery_directory.h"
#include "stored_value.h"
#include "terminal_text.h"
#include "uts_stgrecovery.h"
#include "value_text.h"

namespace {

constexpr char DUMP_EXAMPLES[] =
    R"(Shows the records that a server started with this directory as its RecoverFromPath would replay, and changes nothing.
In the format lines each record is a line on standard error: key, time, fields, as the server itself writes them. The
others go to --output: a table for people, CSV and JSON lines with times in microseconds, which send reads back. --key,
--from and --to, both ends included, choose records; --keys shows the keys of KeyFile and log, in the order first seen,
and how many records each has. The directory of a running server changes under the reading; dump a copy of it, or wait
until the server has ended.
Exit status: 1 when the log ends before its last byte; what was whole is written, and the place is told.
Examples:
  brindlectl dump --spec flights.spec /var/lib/brindle/run7 2>records.txt
  brindlectl dump --spec flights.spec --format csv --key PHX --output phx.csv /var/lib/brindle/run7)";

class DumpCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    [[nodiscard]] ExitCode CheckChoices();
    [[nodiscard]] ExitCode CheckDirectory();
    [[nodiscard]] ExitCode CheckOutput() const;
    [[nodiscard]] ExitCode WriteLines();
    [[nodiscard]] ExitCode WriteRecords();
    [[nodiscard]] ExitCode WriteKeys();
    [[nodiscard]] ExitCode TellEnd(LogWalker const& walker, LogWalker::Result result);
    [[nodiscard]] bool IsWanted(LogRecord const& record) const;

    suts_tsspec spec_;
    RecoveryDirectory directory_;
    std::string path_;
    std::string format_ = "lines";
    std::vector<std::string> keyTexts_;
    std::vector<KeyHash> keys_;  // wanted; all if there is none
    long fromUs_ = std::numeric_limits<long>::min();
    long toUs_ = std::numeric_limits<long>::max();
    long limit_ = 0;  // 0: none
    bool showsKeys_ = false;
};

void DumpCommand::Declare(CLI::App& program) {
    Add(program, "dump", "Show the records of a recovery directory", DUMP_EXAMPLES);
    AddSpec();
    AddTimeName();
    AddChoice("--format", {"lines", "table", "csv", "jsonl"}, format_);
    AddOption("--output", "FILE", "But for --format lines: the file to write, - for standard output", outputPath_);
    AddOptions("--key", "KEY", "Show this key's records; may be given several times", keyTexts_);
    AddTime("--from", "First time shown", fromUs_);
    AddTime("--to", "Last time shown", toUs_);
    AddNumber("--limit", "N", "Show no more than the first N records; 0 for all", limit_, 0,
              std::numeric_limits<long>::max());
    AddFlag("--keys", "Show keys and their counts in place of records", showsKeys_);
    AddArgument("directory", "The recovery directory", path_);
}

ExitCode DumpCommand::Run() {
    if (ExitCode const loaded = LoadSpec(spec_); loaded != DONE) return loaded;
    if (ExitCode const checked = CheckChoices(); checked != DONE) return checked;
    if (ExitCode const checked = CheckDirectory(); checked != DONE) return checked;
    if (ExitCode const checked = CheckOutput(); checked != DONE) return checked;
    if (showsKeys_) return WriteKeys();
    if (format_ != "lines") return WriteRecords();
    return WriteLines();
}

ExitCode DumpCommand::WriteLines() {
    // The parts of a line go to two streams, so only standard error, which takes one of them in any case, keeps lines
    // whole.
    suts_StgPrintRecoverData(stderr, spec_, path_.c_str());
    LogWalker walker(spec_, directory_.files);
    LogRecord record;
    LogWalker::Result result = LogWalker::END;
    while ((result = walker.Next(record)) == LogWalker::RECORD) {}
    return TellEnd(walker, result);
}

ExitCode DumpCommand::CheckChoices() {
    bool const chooses = !keyTexts_.empty() || limit_ > 0 || fromUs_ != std::numeric_limits<long>::min() ||
                         toUs_ != std::numeric_limits<long>::max();
    if (showsKeys_ && chooses)
        return Fail(USAGE, "--keys counts all records; leave --key, --from, --to and --limit out");
    if (format_ == "lines" && (chooses || showsKeys_)) {
        // Keys have no form of the server's.
        if (!showsKeys_) return Fail(USAGE, "--format lines shows everything; choose records in table, csv or jsonl");
        format_ = "table";
    }
    for (std::string const& text : keyTexts_) {
        brindle_Value key;
        if (!ParseValue(text, spec_.Type(0), key)) {
            return Fail(USAGE, "the key '{}' is not of type {}", Shown(text), TypeName(spec_.Type(0)));
        }
        std::string stored = text + '\0';
        if (key.type == SUTS_INT32) {
            auto const number = static_cast<int>(key.number);
            stored.assign(reinterpret_cast<char const*>(&number), sizeof number);
        } else if (key.type != SUTS_STRING64) {
            void const* const number = key.type == SUTS_INT64 ? static_cast<void const*>(&key.number) : &key.real;
            stored.assign(static_cast<char const*>(number), SUTS_NUMBER8_BYTES);
        }
        keys_.push_back(KeyHash::Of(stored));
    }
    return DONE;
}

// The playback ends the process at what it cannot read.
ExitCode DumpCommand::CheckDirectory() {
    if (!directory_.Read(path_)) return Fail(IO_ERROR, "{}: cannot be read: {}", path_, strerror(errno));
    if (!directory_.foreign.empty()) {
        return Fail(BAD_DATA, "{}: '{}' does not belong into a recovery directory; move it away", path_,
                    Shown(directory_.foreign.front()));
    }
    if (!directory_.notFiles.empty()) {
        return Fail(BAD_DATA, "{}/{}: is not a file; move it away", path_, directory_.notFiles.front());
    }
    for (LogFile const& file : directory_.files) {
        if (sutl_OpenFile(file.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC).IsOpen()) continue;
        return Fail(IO_ERROR, "{}: cannot be opened: {}", file.path, strerror(errno));
    }
    return DONE;
}

ExitCode DumpCommand::CheckOutput() const {
    if (format_ == "lines" || outputPath_ == "-") return DONE;
    std::error_code unknown;
    auto const folder =
        std::filesystem::weakly_canonical(std::filesystem::absolute(outputPath_, unknown), unknown).parent_path();
    if (!std::filesystem::equivalent(folder, path_, unknown)) return DONE;
    return Fail(USAGE, "{}: a recovery directory must hold nothing else; write the file elsewhere", outputPath_);
}

bool DumpCommand::IsWanted(LogRecord const& record) const {
    return record.timeUs >= fromUs_ && record.timeUs <= toUs_ &&
           (keys_.empty() || std::find(keys_.begin(), keys_.end(), record.hash) != keys_.end());
}

// Says where the log ends, if that is before its last byte.
ExitCode DumpCommand::TellEnd(LogWalker const& walker, LogWalker::Result result) {
    if (result == LogWalker::READ_ERROR) {
        return Fail(IO_ERROR, "{}: cannot be read: {}", directory_.files[walker.FailedFile()].path, strerror(errno));
    }
    if (result != LogWalker::TORN) return DONE;
    return Fail(REJECTS, "{}: the log is cut at offset {}: {}; check tells more",
                directory_.files[walker.Torn().file].path, walker.Torn().offset, TextOf(walker.TornReason()));
}

ExitCode DumpCommand::WriteRecords() {
    if (ExitCode const checked = CheckColumns(spec_, {timeName_}); checked != DONE) return checked;
    RecordOutput output(FormatOf(format_), spec_, {}, timeName_);
    if (ExitCode const opened = OpenOutput(output); opened != DONE) return opened;
    std::vector<brindle_Value> values(static_cast<std::size_t>(spec_.fieldCount));
    LogWalker walker(spec_, directory_.files);
    LogRecord record;
    LogWalker::Result result = LogWalker::END;
    std::string whole;  // of a record that is longer than the walker's window
    unsigned long records = 0;
    Progress progress("records", !IsQuiet() && outputPath_ != "-");
    bool const endless = limit_ == 0;
    while (!output.HasFailed() && (endless || records < static_cast<unsigned long>(limit_)) &&
           (result = walker.Next(record)) == LogWalker::RECORD) {
        if (!IsWanted(record)) continue;
        if (record.whole.empty() && walker.Read(record, whole)) record.whole = whole;
        if (!TakeStoredRecord(record.whole, spec_, values)) {
            return Fail(IO_ERROR, "{}: offset {}: the record cannot be read again; does a server still write here?",
                        directory_.files[record.start.file].path, record.start.offset);
        }
        output.Add({}, record.timeUs, values);
        progress.Update(++records);
    }
    int const error = errno;
    progress.Clear();
    if (ExitCode const flushed = FlushOutput(output); flushed != DONE) return flushed;
    Say("{} in {}", Count(records, "record"), path_);
    errno = error;
    return TellEnd(walker, result);
}

ExitCode DumpCommand::WriteKeys() {
    RecoveryReport report(std::numeric_limits<unsigned long>::max());
    if (!CheckRecovery(spec_, path_, {}, report))
        return Fail(IO_ERROR, "{}: cannot be read: {}", path_, strerror(errno));
    suts_tsspec columns;
    columns.fieldCount = 3;
    columns.types = std::make_unique<int[]>(3);
    columns.fieldNames = std::make_unique<std::unique_ptr<char[]>[]>(3);
    std::string_view const names[] = {"key", "records", "in_key_file"};
    suts_FieldType const types[] = {spec_.Type(0), SUTS_INT64, SUTS_INT32};
    for (std::size_t i = 0; i < 3; ++i) {
        columns.types[i] = types[i];
        columns.fieldNames[i] = std::make_unique<char[]>(names[i].size() + 1);
        names[i].copy(columns.fieldNames[i].get(), names[i].size());
    }
    RecordOutput output(FormatOf(format_), columns, {}, "");
    if (ExitCode const opened = OpenOutput(output); opened != DONE) return opened;
    for (KeyCounts::Entry const* const entry : report.keys.InOrder()) {
        std::string_view bytes = entry->start;
        brindle_Value key = brindle_Value::Text(bytes);
        static_cast<void>(TakeStored(bytes, spec_.Type(0), key));  // a longer text shows its start
        brindle_Value const values[] = {key, brindle_Value::Number(SUTS_INT64, static_cast<long>(entry->records)),
                                        brindle_Value::Number(SUTS_INT32, entry->inKeyFile ? 1 : 0)};
        output.Add({}, 0, values);
    }
    if (ExitCode const flushed = FlushOutput(output); flushed != DONE) return flushed;
    Say("{}, {} in {}", Count(report.keys.Keys(), "key"), Count(report.records, "record"), path_);
    if (report.keyFileEnd != KeyFileWalker::END) {
        return Fail(REJECTS, "{}: no whole key at offset {}; check tells more", directory_.KeyFilePath(),
                    report.keyFileOffset);
    }
    if (report.end == LogWalker::END) return DONE;
    // The directory as this walk has found it, which may have changed since.
    std::vector<LogFile> const& files = report.directory.files;
    if (report.end == LogWalker::READ_ERROR) {
        return Fail(IO_ERROR, "{}: cannot be read: {}", files[report.failedFile].path, strerror(report.error));
    }
    return Fail(REJECTS, "{}: the log is cut at offset {}; check tells more", files[report.torn.file].path,
                report.torn.offset);
}

}  // namespace

std::unique_ptr<Command> MakeDumpCommand() { return std::make_unique<DumpCommand>(); }
