#include "command.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>

#include "durable_file.h"
#include "spec_text.h"
#include "sutl_descriptor.h"
#include "terminal_text.h"
#include "time_text.h"

namespace {

constexpr int WAIT_SECONDS_MAX = 24 * 3600;
constexpr std::size_t SPEC_BYTES_MAX = 16UL << 20;

struct Unit {
    std::string_view name;
    long worth;
};

// A whole number and one of the units behind it.
bool ParseWithUnit(std::string_view text, std::span<Unit const> units, long& value) {
    long number = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || number < 0) return false;
    std::string_view const name = text.substr(static_cast<std::size_t>(end - text.data()));
    for (Unit const& unit : units) {
        if (unit.name != name) continue;
        return !__builtin_mul_overflow(number, unit.worth, &value);
    }
    return false;
}

}  // namespace

bool ParseBytes(std::string_view text, long& bytes) {
    static constexpr Unit UNITS[] = {{"", 1}, {"k", 1L << 10}, {"M", 1L << 20}, {"G", 1L << 30}, {"T", 1L << 40}};
    return ParseWithUnit(text, UNITS, bytes);
}

bool ParseDuration(std::string_view text, long& timeUs) {
    static constexpr long SECOND = 1000000;
    static constexpr Unit UNITS[] = {{"us", 1},          {"ms", 1000},         {"s", SECOND},
                                     {"m", 60 * SECOND}, {"h", 3600 * SECOND}, {"d", 24L * 3600 * SECOND}};
    return ParseWithUnit(text, UNITS, timeUs);
}

bool Command::IsChosen() const { return app_->parsed(); }

void Command::Add(CLI::App& program, char const* name, char const* description, char const* examples) {
    app_ = program.add_subcommand(name, description);
    app_->footer(examples);
    AddFlag("--quiet", "Say nothing but errors", quiet_);
    AddChoice("--color", {"auto", "always", "never"}, color_);
}

void Command::AddSpec() {
    app_->add_option("--spec", specPath_, "The schema file, the same that the server was given")
        ->envname("BRINDLE_SPEC")
        ->type_name("FILE")
        ->required();
}

void Command::AddArgument(char const* name, char const* description, std::string& value) {
    app_->add_option(name, value, description)->type_name("")->required();
}

void Command::AddOptionalArgument(char const* name, char const* description, std::string& value) {
    app_->add_option(name, value, description)->type_name("")->capture_default_str();
}

void Command::AddArguments(char const* name, char const* description, std::vector<std::string>& values) {
    app_->add_option(name, values, description)->type_name("")->required();
}

void Command::AddOption(char const* option, char const* typeName, char const* description, std::string& value) {
    app_->add_option(option, value, description)->type_name(typeName)->capture_default_str();
}

void Command::AddOptions(char const* option, char const* typeName, char const* description,
                         std::vector<std::string>& values) {
    app_->add_option(option, values, description)
        ->type_name(typeName)
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void Command::AddNumber(char const* option, char const* typeName, char const* description, long& value, long min,
                        long max) {
    app_->add_option(option, value, description)
        ->type_name(typeName)
        ->check(CLI::Range(min, max).description(""))
        ->capture_default_str();
}

void Command::AddReal(char const* option, char const* typeName, char const* description, double& value, double min,
                      double max) {
    app_->add_option(option, value, description)
        ->type_name(typeName)
        ->check(CLI::Range(min, max).description(""))
        ->capture_default_str();
}

// The parser reports what its callbacks throw, and expects it of them.
void Command::AddBytes(char const* option, char const* description, long& bytes) {
    auto const parse = [option, &bytes](CLI::results_t const& texts) {
        if (ParseBytes(texts.front(), bytes) && bytes > 0) return true;
        throw CLI::ValidationError(option,
                                   fmt::format("'{}' is no number of bytes such as 65536, 64k or 2G", texts.front()));
    };
    app_->add_option(option, parse, description)->type_name("BYTES");
}

void Command::AddDuration(char const* option, char const* description, long& timeUs) {
    auto const parse = [option, &timeUs](CLI::results_t const& texts) {
        if (ParseDuration(texts.front(), timeUs)) return true;
        throw CLI::ValidationError(
            option, fmt::format("'{}' is no length of time such as 500ms, 90s, 15m, 12h or 7d", texts.front()));
    };
    app_->add_option(option, parse, description)->type_name("DURATION");
}

void Command::AddFlag(char const* option, char const* description, bool& value) {
    app_->add_flag(option, value, description);
}

void Command::AddChoice(char const* option, std::vector<std::string> const& choices, std::string& value) {
    std::string const description = fmt::format("One of {}", fmt::join(choices, ", "));
    app_->add_option(option, value, description)
        ->type_name("NAME")
        ->check(CLI::IsMember(choices).description(""))
        ->capture_default_str();
}

void Command::AddTime(char const* option, char const* description, long& timeUs) {
    auto const parse = [option, &timeUs](CLI::results_t const& texts) {
        if (ParseTime(texts.front(), timeUs) && timeUs >= 0) return true;
        throw CLI::ValidationError(
            option, fmt::format("'{}' is neither an ISO 8601 time since 1970 nor microseconds", texts.front()));
    };
    app_->add_option(option, parse, description)->type_name("TIME");
}

void Command::AddAddress(char const* option, char const* variable, char const* description, bool required) {
    auto const parse = [this, option](CLI::results_t const& texts) {
        addressText_ = texts.front();
        if (!brindle_ParseAddress(addressText_, address_)) {
            throw CLI::ValidationError(option, fmt::format("'{}' is no address; write HOST:PORT1,PORT2", addressText_));
        }
        if (address_.firstPort == address_.secondPort) {
            throw CLI::ValidationError(option, fmt::format("'{}' names one port twice", addressText_));
        }
        return true;
    };
    app_->add_option(option, parse, description)->envname(variable)->type_name("HOST:PORT1,PORT2")->required(required);
}

void Command::AddWait(char const* description) {
    app_->add_option("--wait", waitSeconds_, description)
        ->type_name("SECONDS")
        ->check(CLI::Range(0, WAIT_SECONDS_MAX).description(""))
        ->capture_default_str();
}

void Command::AddTimeName() {
    AddOption("--time", "COLUMN", "Name of the column that holds the record's time", timeName_);
}

void Command::AddJson() { AddFlag("--json", "Print the result as a JSON object on standard output", json_); }

ExitCode Command::LoadSpec(suts_tsspec& spec, char const* remedy) const {
    // What is no file is read but once, so the loader gets a copy.
    std::optional<std::string> const read = ReadFile(specPath_, SPEC_BYTES_MAX);
    if (!read.has_value()) {
        return Fail(BAD_CONFIGURATION, "{}: cannot be read: {}; {}", specPath_, strerror(errno), remedy);
    }
    std::string const& text = *read;
    std::vector<SpecProblem> const problems = CheckSpec(text);
    for (SpecProblem const& problem : problems) {
        Fail(BAD_CONFIGURATION, "{}:{}:{}: {}", specPath_, problem.line, problem.column, problem.text);
    }
    if (!problems.empty()) return BAD_CONFIGURATION;
    sutl_Descriptor const copy(memfd_create("schema", MFD_CLOEXEC));
    bool const copied = sutl_FileWrite(copy.Get(), text.data(), text.size()) == static_cast<long>(text.size());
    std::string const path = fmt::format("/proc/self/fd/{}", copy.Get());
    if (!copied || spec.Init(path.c_str()) != suts_tsspec::LOADED) {
        return Fail(BAD_CONFIGURATION, "{}: the schema cannot be used", specPath_);
    }
    return DONE;
}

ExitCode Command::FindSequenceField(suts_tsspec const& spec, std::string const& name, int& field) const {
    for (int i = 1; i < spec.fieldCount; ++i) {
        if (name != spec.fieldNames[static_cast<std::size_t>(i)].get() || spec.Type(i) != SUTS_INT64) continue;
        field = i;
        return DONE;
    }
    return Fail(BAD_CONFIGURATION, "--sequence {}: the schema has no int64 field of this name behind the key", name);
}

ExitCode Command::CheckColumns(suts_tsspec const& spec, std::vector<std::string> names) const {
    for (int i = 0; i < spec.fieldCount; ++i) names.emplace_back(spec.fieldNames[static_cast<std::size_t>(i)].get());
    std::sort(names.begin(), names.end());
    auto const twice = std::adjacent_find(names.begin(), names.end());
    if (twice == names.end()) return DONE;
    return Fail(USAGE, "two columns would be called '{}'; name the time column with --time, or rename the field",
                *twice);
}

ExitCode Command::OpenOutput(RecordOutput& output) const {
    if (output.Open(outputPath_)) return DONE;
    return Fail(IO_ERROR, "{}: cannot be created: {}", outputPath_, strerror(errno));
}

ExitCode Command::FlushOutput(RecordOutput& output) const {
    int const error = output.Flush();
    if (error == 0) return DONE;
    return Fail(IO_ERROR, "{}: writing failed: {}; the rest of the output is lost",
                outputPath_ == "-" ? "standard output" : outputPath_.c_str(), strerror(error));
}

ExitCode Command::FailToConnect(brindle_Result result) const {
    int const error = errno;
    if (result == BRINDLE_UNKNOWN_HOST) {
        return Fail(UNAVAILABLE, "{}: the host '{}' is not known; check the name", addressText_, address_.host);
    }
    return Fail(UNAVAILABLE, "{}: no server within {} s: {}; start it, check the ports, or wait longer with --wait",
                addressText_, waitSeconds_, strerror(error));
}

ExitCode Command::PrintResult(nlohmann::json const& result) const {
    if (!json_) return DONE;
    return PrintText(result.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + '\n');
}

ExitCode Command::PrintText(std::string_view text) const {
    while (!text.empty()) {
        ssize_t const written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno != EINTR)
            return Fail(IO_ERROR, "standard output: writing failed: {}", strerror(errno));
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
    return DONE;
}

bool Command::HasColor(int descriptor) const {
    if (color_ != "auto") return color_ == "always";
    char const* const unwanted = getenv("NO_COLOR");
    char const* const terminal = getenv("TERM");
    bool const isDumb = terminal != nullptr && std::string_view(terminal) == "dumb";
    return (unwanted == nullptr || *unwanted == '\0') && !isDumb && isatty(descriptor) == 1;
}

void Command::Print(std::string const& line, Kind kind) const {
    static constexpr char const* STARTS[] = {"", "\033[33m", "\033[31m"};
    bool const isColored = kind != PLAIN && HasColor(STDERR_FILENO);
    // One command may stand within another.
    CLI::App const* const parent = app_->get_parent();
    std::string const within = parent != nullptr && parent->get_parent() != nullptr ? parent->get_name() + ' ' : "";
    // In one piece, so that the lines of two threads stay apart.
    WriteToErrors(fmt::format("{}brindlectl {}{}:{} {}\n", isColored ? STARTS[kind] : "", within, app_->get_name(),
                              isColored ? "\033[0m" : "", line));
}
