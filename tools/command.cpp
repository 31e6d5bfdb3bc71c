#include "command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

#include "time_text.h"

namespace {

constexpr int WAIT_SECONDS_MAX = 24 * 3600;

// The loader takes a type without a name, behind two fields and more, for a fault of the program and ends it. The rule
// is that after the schema's name tokens come in pairs.
bool EndsInsideAField(std::string const& path) {
    std::ifstream file(path);
    std::string token;
    long tokens = 0;
    while (file >> token) ++tokens;
    return tokens > 0 && tokens % 2 == 0;
}

}  // namespace

bool Command::IsChosen() const { return app_->parsed(); }

void Command::Add(CLI::App& program, char const* name, char const* description, char const* examples) {
    app_ = program.add_subcommand(name, description);
    app_->footer(examples);
    app_->add_option("--spec", specPath_, "The schema file, the same that the server was given")
        ->envname("BRINDLE_SPEC")
        ->type_name("FILE")
        ->required();
    AddFlag("--quiet", "Say nothing but errors", quiet_);
}

void Command::AddArgument(char const* name, char const* description, std::string& value) {
    app_->add_option(name, value, description)->type_name("")->required();
}

void Command::AddOption(char const* option, char const* typeName, char const* description, std::string& value) {
    app_->add_option(option, value, description)->type_name(typeName)->capture_default_str();
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
    // The parser reports what its callbacks throw, and expects it of them.
    auto const parse = [option, &timeUs](CLI::results_t const& texts) {
        if (ParseTime(texts.front(), timeUs) && timeUs >= 0) return true;
        throw CLI::ValidationError(
            option, fmt::format("'{}' is neither an ISO 8601 time since 1970 nor microseconds", texts.front()));
    };
    app_->add_option(option, parse, description)->type_name("TIME");
}

void Command::AddAddress(char const* option, char const* variable, char const* description) {
    auto const parse = [this, option](CLI::results_t const& texts) {
        addressText_ = texts.front();
        if (brindle_ParseAddress(addressText_, address_)) return true;
        throw CLI::ValidationError(option, fmt::format("'{}' is no address; write HOST:PORT1,PORT2", addressText_));
    };
    app_->add_option(option, parse, description)->envname(variable)->type_name("HOST:PORT1,PORT2")->required();
}

void Command::AddWait() {
    app_->add_option("--wait", waitSeconds_, "Seconds to wait for the server")
        ->type_name("SECONDS")
        ->check(CLI::Range(0, WAIT_SECONDS_MAX).description(""))
        ->capture_default_str();
}

void Command::AddTimeName() {
    AddOption("--time", "COLUMN", "Name of the column that holds the record's time", timeName_);
}

ExitCode Command::LoadSpec(suts_tsspec& spec) const {
    if (EndsInsideAField(specPath_)) {
        return Fail(BAD_CONFIGURATION, "{}: the last field has a type but no name; add the name", specPath_);
    }
    // The loader says itself what it does not like.
    if (spec.Init(specPath_.c_str()) != suts_tsspec::LOADED) {
        return Fail(BAD_CONFIGURATION, "{}: the schema cannot be used; name a schema file with --spec", specPath_);
    }
    if (!spec.HasKeyField()) {
        return Fail(BAD_CONFIGURATION, "{}: the schema has no field; it needs a key at least", specPath_);
    }
    return DONE;
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

void Command::Print(std::string const& line) const {
    fmt::print(stderr, "brindlectl {}: {}\n", app_->get_name(), line);
}
