// brindlectl schema: checks a schema, or guesses one.

#include <fcntl.h>
#include <fmt/ranges.h>
#include <sys/mman.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <numeric>

#include "commands.h"
#include "sample.h"
#include "send_input.h"
#include "spec_text.h"
#include "terminal_text.h"
#include "uts_stgbucket.h"
#include "value_text.h"

namespace {

constexpr char SCHEMA_EXAMPLES[] =
    R"(Examples:
  brindlectl schema check flights.spec
  brindlectl schema guess flights.csv.gz > flights.spec)";

constexpr char SCHEMA_CHECK_EXAMPLES[] =
    R"(Says with line and column what keeps a server from using the schema (78), or else how large its records are: on the
wire of the data ports, in the server's memory beside their keys, and in its log. A text adds its own bytes to each.
--json prints: name, fields (each with name and type), key, wire_bytes, memory_bytes, log_bytes, fixed_size (false where
texts are to be added), problems (each with line, column and text).
Examples:
  brindlectl schema check flights.spec
  brindlectl schema check --json quakes.spec)";

constexpr char SCHEMA_GUESS_EXAMPLES[] =
    R"(Reads the first rows of a file of any format that send takes, and prints a schema for it. Types are int32, int64,
float64 or, when a value is none of these, string64. What it found out about times, the key and empty cells, and the
command line of send, go to standard error.
The time is the first column whose values are times and whose name says so (time, timestamp, date, ...), else the first
of dates and times as text, else the first of numbers that are times since 1970. The key is the first column of texts
whose values come twice or more on average, else the first such column of whole numbers, else the first column of texts,
else the first column. Name them by --time and --key where that is wrong.
Examples:
  brindlectl schema guess flights.csv.gz > flights.spec
  tail -n 500 events.jsonl | brindlectl schema guess --format jsonl --key device -)";

struct Sizes {
    std::size_t wire = 0;
    std::size_t memory = 0;
    std::size_t log = 0;
    bool isFixed = true;
};

// Of a record whose texts are all empty.
Sizes SizesOf(suts_tsspec const& spec) {
    Sizes sizes = {SUTS_NUMBER8_BYTES, sizeof(suts_StgBucketRecord), SUTS_LOG_HEAD_BYTES, true};
    for (int i = 0; i < spec.fieldCount; ++i) {
        bool const isText = spec.Type(i) == SUTS_STRING64;
        std::size_t const stored = isText ? 1 : spec.Type(i) == SUTS_INT32 ? SUTS_INT32_BYTES : SUTS_NUMBER8_BYTES;
        sizes.wire += stored + (isText ? SUTS_STRING_LENGTH_BYTES : 0);
        sizes.log += stored;
        if (i > 0) sizes.memory += stored;  // the key is held once
        sizes.isFixed = sizes.isFixed && !isText;
    }
    return sizes;
}

class CheckCommand : public Command {
 public:
    void Declare(CLI::App& program) override {
        Add(program, "check", "Tell whether a schema can be used, and the size of its records", SCHEMA_CHECK_EXAMPLES);
        AddArgument("file", "The schema file, - for standard input", specPath_);
        AddJson();
    }
    ExitCode Run() override;
};

ExitCode CheckCommand::Run() {
    bool const isInput = specPath_ == "-";
    sutl_Descriptor file;
    if (!isInput) file = sutl_Descriptor(open(specPath_.c_str(), O_RDONLY | O_CLOEXEC));
    if (!isInput && !file.IsOpen()) return Fail(IO_ERROR, "{}: cannot be opened: {}", specPath_, strerror(errno));
    std::string text;
    char piece[4096];
    long got = 0;
    while ((got = sutl_ReadSome(isInput ? STDIN_FILENO : file.Get(), piece, sizeof piece)) > 0) {
        text.append(piece, static_cast<std::size_t>(got));
    }
    if (got < 0) return Fail(IO_ERROR, "{}: reading failed: {}", specPath_, strerror(errno));

    nlohmann::json result = {{"problems", nlohmann::json::array()}};
    for (SpecProblem const& problem : CheckSpec(text)) {
        Fail(BAD_CONFIGURATION, "{}:{}:{}: {}", isInput ? "standard input" : specPath_, problem.line, problem.column,
             problem.text);
        result["problems"].push_back({{"line", problem.line}, {"column", problem.column}, {"text", problem.text}});
    }
    if (!result["problems"].empty()) {
        ExitCode const printed = PrintResult(result);
        return printed == DONE ? BAD_CONFIGURATION : printed;
    }
    // The loader reads a file of its own.
    suts_tsspec spec;
    std::string const path = specPath_;
    sutl_Descriptor const copy(memfd_create("schema", MFD_CLOEXEC));
    bool const copied = sutl_FileWrite(copy.Get(), text.data(), text.size()) == static_cast<long>(text.size());
    if (!copied || spec.Init(fmt::format("/proc/self/fd/{}", copy.Get()).c_str()) != suts_tsspec::LOADED) {
        return Fail(BAD_CONFIGURATION, "{}: the schema cannot be used", path);
    }
    Sizes const sizes = SizesOf(spec);
    char const* const more = sizes.isFixed ? "" : " and its texts";
    Say("{}: a record takes {} bytes{} on the wire, {} bytes{} in memory beside its key, {} bytes{} in the log; the "
        "key "
        "is {} ({})",
        path, sizes.wire, more, sizes.memory, more, sizes.log, more, spec.fieldNames[0].get(), TypeName(spec.Type(0)));
    if (!WantsJson()) return DONE;
    auto fields = nlohmann::json::array();
    for (int i = 0; i < spec.fieldCount; ++i) {
        fields.push_back(
            {{"name", spec.fieldNames[static_cast<std::size_t>(i)].get()}, {"type", TypeName(spec.Type(i))}});
    }
    result.update({{"name", spec.name.get()},
                   {"fields", fields},
                   {"key", fields[0]["name"]},
                   {"wire_bytes", sizes.wire},
                   {"memory_bytes", sizes.memory},
                   {"log_bytes", sizes.log},
                   {"fixed_size", sizes.isFixed}});
    return PrintResult(result);
}

// The text as a shell takes it for one word.
std::string Quoted(std::string const& text) {
    if (!text.empty() &&
        text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-./=:,%+") ==
            std::string::npos) {
        return text;
    }
    std::string quoted = "'";
    for (char const c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

class GuessCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    static constexpr std::size_t NONE = static_cast<std::size_t>(-1);

    [[nodiscard]] ExitCode FindColumn(std::string const& name, std::size_t& column) const;
    [[nodiscard]] bool LooksLikeText() const;
    [[nodiscard]] std::size_t GuessTime() const;
    [[nodiscard]] std::size_t GuessKey(std::size_t time) const;
    [[nodiscard]] std::vector<std::string> FieldNames(std::size_t time) const;
    void WarnOfColumns() const;
    void Advise(std::size_t time, std::size_t key, std::vector<std::size_t> const& order,
                std::vector<std::string> const& names) const;

    std::string path_;
    std::string format_;
    std::string delimiter_;
    std::string key_;
    std::string time_;
    std::string name_;
    long rowsMax_ = 1000;
    FileSample sample_;
};

void GuessCommand::Declare(CLI::App& program) {
    Add(program, "guess", "Print a schema for the rows of a file", SCHEMA_GUESS_EXAMPLES);
    AddArgument("file", "The file, - for standard input", path_);
    AddChoice("--format", {"csv", "tsv", "jsonl"}, format_);
    AddOption("--delimiter", "C", "What divides the values of csv, instead of a comma", delimiter_);
    AddOption("--key", "COLUMN", "The column that is the key", key_);
    AddOption("--time", "COLUMN", "The column that holds the time", time_);
    AddOption("--name", "NAME", "What a record is called; by default the file's name", name_);
    AddNumber("--rows", "N", "How many rows to look at", rowsMax_, 1, 1000000000);
}

ExitCode GuessCommand::Run() {
    char delimiter = ',';
    if (!ReadDelimiter(delimiter_, delimiter)) {
        return Fail(USAGE, "--delimiter: '{}' is no single byte that can divide values", delimiter_);
    }
    sample_.Read(path_, FormatOfPath(path_, format_), delimiter, static_cast<unsigned long>(rowsMax_));
    if (!sample_.problem.empty()) return Fail(sample_.isUnreadable ? IO_ERROR : BAD_DATA, "{}", sample_.problem);
    if (!LooksLikeText()) {
        return Fail(BAD_DATA,
                    "{}: these are no rows of text; is the file packed otherwise than by gzip or zstd, or is "
                    "another --format or --delimiter needed?",
                    path_);
    }
    WarnOfColumns();
    std::size_t time = GuessTime();
    if (ExitCode const found = FindColumn(time_, time); found != DONE) return found;
    std::size_t key = GuessKey(time);
    if (ExitCode const found = FindColumn(key_, key); found != DONE) return found;
    if (key == time || key == NONE) return Fail(BAD_DATA, "{}: there is no column for the key beside the time", path_);

    std::vector<std::string> const names = FieldNames(time);
    std::vector<std::size_t> order = {key};
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (i != key && i != time) order.push_back(i);
    }
    std::string record = name_;
    if (record.empty()) {
        record = path_ == "-" ? "Record" : path_.substr(path_.rfind('/') + 1);
        record = record.substr(0, std::max<std::size_t>(record.find('.'), 1));
    }
    std::string text = FieldNameOf(record) + '\n';
    for (std::size_t const i : order) {
        text += fmt::format("{:<8} {}\n", TypeName(sample_.columns[i].Type()), names[i]);
    }
    Advise(time, key, order, names);
    if (sutl_FileWrite(STDOUT_FILENO, text.data(), text.size()) == static_cast<long>(text.size())) return DONE;
    return Fail(IO_ERROR, "standard output: writing failed: {}", strerror(errno));
}

// What is no file of rows has bytes in its first row that no name has, or no row like the first one.
bool GuessCommand::LooksLikeText() const {
    auto const isStrange = [](char c) {
        return c >= 0 && c < ' ' && std::string_view("\t\r\n").find(c) == std::string_view::npos;
    };
    for (ColumnSample const& column : sample_.columns) {
        if (std::any_of(column.Name().begin(), column.Name().end(), isStrange)) return false;
    }
    return 2 * sample_.brokenRows <= sample_.rows;
}

void GuessCommand::WarnOfColumns() const {
    std::vector<std::string_view> names;
    for (ColumnSample const& column : sample_.columns) names.push_back(column.Name());
    std::size_t const divider = names.front().find_first_of(";|\t");
    if (names.size() == 1 && divider != std::string_view::npos && FormatOfPath(path_, format_) == "csv") {
        std::string const shown = names[0][divider] == '\t' ? "\\t" : std::string(1, names[0][divider]);
        Warn("there is one column, '{}'; perhaps --delimiter '{}' is needed", Shown(names[0]), shown);
    }
    std::sort(names.begin(), names.end());
    auto const twice = std::adjacent_find(names.begin(), names.end());
    if (twice == names.end()) return;
    Warn("two columns are called '{}', and send takes neither: rename them, or remove their fields from the schema",
         Shown(*twice));
}

// Leaves the column as it is when no name is given.
ExitCode GuessCommand::FindColumn(std::string const& name, std::size_t& column) const {
    if (name.empty()) return DONE;
    std::vector<std::string_view> names;
    for (ColumnSample const& each : sample_.columns) names.push_back(each.Name());
    auto const found = std::find(names.begin(), names.end(), name);
    if (found == names.end()) {
        return Fail(USAGE, "{}: there is no column '{}'; the columns are: {}", path_, Shown(name), ShownList(names));
    }
    column = static_cast<std::size_t>(found - names.begin());
    return DONE;
}

std::size_t GuessCommand::GuessTime() const {
    static constexpr std::string_view WORDS[] = {"time", "date", "when", "ts", "timestamp"};
    std::size_t best = NONE;
    int bestScore = 0;
    for (std::size_t i = 0; i < sample_.columns.size(); ++i) {
        ColumnSample const& column = sample_.columns[i];
        if (column.TimeFormat() == "-") continue;
        std::string name = column.Name();
        std::transform(name.begin(), name.end(), name.begin(),
                       [](char c) { return c >= 'A' && c <= 'Z' ? c + 32 : c; });
        bool const isNamed = name == "ts" || name == "at" || name.ends_with("_at") || name.ends_with("_ts") ||
                             std::any_of(std::begin(WORDS), std::end(WORDS), [&](std::string_view word) {
                                 return word != "ts" && name.find(word) != std::string::npos;
                             });
        int const score = isNamed ? 3 : column.Type() == SUTS_STRING64 ? 2 : 1;
        if (score <= bestScore) continue;
        best = i;
        bestScore = score;
    }
    return best;
}

std::size_t GuessCommand::GuessKey(std::size_t time) const {
    std::size_t best = NONE;
    int bestScore = -1;
    for (std::size_t i = 0; i < sample_.columns.size(); ++i) {
        if (i == time) continue;
        ColumnSample const& column = sample_.columns[i];
        suts_FieldType const type = column.Type();
        bool const repeats = column.Count() > 0 && 2 * column.Different() <= column.Count() && column.Empty() == 0;
        int const score = type == SUTS_STRING64 && repeats              ? 3
                          : type != SUTS_FLOAT64 && repeats             ? 2
                          : type == SUTS_STRING64 && column.Count() > 0 ? 1
                                                                        : 0;
        if (score <= bestScore) continue;
        best = i;
        bestScore = score;
    }
    return best;
}

// Per column; each differs from those before, and from the time's column.
std::vector<std::string> GuessCommand::FieldNames(std::size_t time) const {
    std::vector<std::string> names;
    for (std::size_t i = 0; i < sample_.columns.size(); ++i) {
        std::string const name = FieldNameOf(sample_.columns[i].Name());
        std::string unique = name;
        for (int number = 2; i != time && std::find(names.begin(), names.end(), unique) != names.end(); ++number) {
            unique = fmt::format("{}_{}", name, number);
        }
        names.push_back(unique);
    }
    return names;
}

void GuessCommand::Advise(std::size_t time, std::size_t key, std::vector<std::size_t> const& order,
                          std::vector<std::string> const& names) const {
    std::string command = "brindlectl send --spec FILE.spec --data HOST:PORT1,PORT2";
    if (!format_.empty() && FormatOfPath(path_, "") != format_) command += " --format " + format_;
    if (!delimiter_.empty() && delimiter_ != ",") command += " --delimiter " + Quoted(delimiter_);
    Say("{} rows looked at, {} columns; the key is '{}', with {} different values", sample_.rows,
        sample_.columns.size(), sample_.columns[key].Name(), sample_.columns[key].Different());
    if (sample_.brokenRows > 0) Warn("{} of the rows cannot be read; send with --rejects FILE", sample_.brokenRows);
    if (time == NONE) {
        Warn("no column holds times as send reads them; name one with --time, and its form with --time-format");
    } else {
        ColumnSample const& column = sample_.columns[time];
        std::string const format = column.TimeFormat();
        Say("the time is '{}', {}", column.Name(),
            format == "-"    ? "whose values are no times that are known here; see --time-format of send"
            : format.empty() ? "in ISO 8601 or microseconds since 1970"
                             : fmt::format("in the format {}", format));
        if (column.Name() != "time") command += " --time " + Quoted(column.Name());
        if (!format.empty() && format != "-") command += " --time-format " + Quoted(format);
    }
    for (std::size_t const i : order) {
        ColumnSample const& column = sample_.columns[i];
        // Of two columns with one name, none can be mapped.
        bool const isTwin = std::count_if(sample_.columns.begin(), sample_.columns.end(),
                                          [&](ColumnSample const& other) { return other.Name() == column.Name(); }) > 1;
        if (names[i] != column.Name() && !isTwin) command += " --map " + Quoted(names[i] + '=' + column.Name());
        if (column.Count() == 0) Say("'{}' is empty in all rows: its type is a guess", column.Name());
        bool const mayMiss = column.Type() != SUTS_STRING64 && column.Empty() > 0;
        if (!mayMiss) continue;
        Say("'{}' has empty cells; 0 stands for them below, choose what suits", column.Name());
        command += " --empty " + Quoted(names[i] + "=0");
    }
    Say("send it with: {} {}", command, Quoted(path_));
}

class SchemaCommand : public Command {
 public:
    void Declare(CLI::App& program) override {
        Add(program, "schema", "Check a schema, or guess one from data", SCHEMA_EXAMPLES);
        CLI::App& own = *program.get_subcommand("schema");
        own.require_subcommand(1);
        check_.Declare(own);
        guess_.Declare(own);
    }
    ExitCode Run() override { return check_.IsChosen() ? check_.Run() : guess_.Run(); }

 private:
    CheckCommand check_;
    GuessCommand guess_;
};

}  // namespace

std::unique_ptr<Command> MakeSchemaCommand() { return std::make_unique<SchemaCommand>(); }
