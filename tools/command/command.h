// What the commands of brindlectl have in common.
#pragma once

#include <fmt/format.h>

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "brindle_connection.h"
#include "brindle_result.h"
#include "record_output.h"
#include "uts_tsspec.h"

// The command line parser is known to command.cpp, completion.cpp and main alone: its header costs seconds wherever it
// is read.
namespace CLI {
class App;
}

// How brindlectl ends.
enum ExitCode : int {
    DONE = 0,
    REJECTS = 1,             // done, but for rows or records that were turned away
    USAGE = 2,               // the command line is wrong
    BAD_DATA = 65,           // what was read is not what it should be
    UNAVAILABLE = 69,        // the other side is not there, or went away
    IO_ERROR = 74,           // reading or writing failed
    TRY_AGAIN = 75,          // not now: somebody else is being served, or the other side makes no progress
    BAD_CONFIGURATION = 78,  // the schema, or the state of an earlier run, cannot be used
};

// One subcommand: declares its options, then runs on their values. Owned by main, used on one thread; Fail, Warn and
// Say may be called by any. What it has to say goes to standard error, each line after the name of the command.
class Command {
 public:
    Command() = default;
    Command(Command const&) = delete;
    Command& operator=(Command const&) = delete;
    virtual ~Command() = default;

    virtual void Declare(CLI::App& program) = 0;
    [[nodiscard]] virtual ExitCode Run() = 0;  // may block as the command's help says
    [[nodiscard]] bool IsChosen() const;

 protected:
    // Adds the subcommand with the options that all have. Everything below declares an option of it, whose value the
    // parser puts into the variable; a value that is there before is the default.
    void Add(CLI::App& program, char const* name, char const* description, char const* examples);
    void AddSpec();                                                                   // required, for LoadSpec
    void AddArgument(char const* name, char const* description, std::string& value);  // required, by its place
    void AddOptionalArgument(char const* name, char const* description, std::string& value);
    void AddArguments(char const* name, char const* description, std::vector<std::string>& values);  // one or more
    void AddOption(char const* option, char const* typeName, char const* description, std::string& value);
    void AddOptions(char const* option, char const* typeName, char const* description,
                    std::vector<std::string>& values);  // may be given several times
    void AddNumber(char const* option, char const* typeName, char const* description, long& value, long min, long max);
    void AddReal(char const* option, char const* typeName, char const* description, double& value, double min,
                 double max);
    void AddBytes(char const* option, char const* description, long& bytes);      // 65536, 64k, 16M, 2G
    void AddDuration(char const* option, char const* description, long& timeUs);  // 500ms, 90s, 15m, 12h, 7d
    void AddFlag(char const* option, char const* description, bool& value);
    void AddChoice(char const* option, std::vector<std::string> const& choices, std::string& value);
    void AddTime(char const* option, char const* description, long& timeUs);
    void AddAddress(char const* option, char const* variable, char const* description,
                    bool required = true);  // to address_
    void AddWait(char const* description = "Seconds to wait for the server");
    void AddTimeName();
    void AddJson();  // for PrintResult

    // Loads the schema and checks that records can be made of it. DONE, or BAD_CONFIGURATION, said.
    [[nodiscard]] ExitCode LoadSpec(suts_tsspec& spec, char const* remedy = "name a schema file with --spec") const;
    // Finds the int64 field for numbers of records. DONE, or BAD_CONFIGURATION, said.
    [[nodiscard]] ExitCode FindSequenceField(suts_tsspec const& spec, std::string const& name, int& field) const;
    // Checks that the columns of an output differ in their names. DONE, or USAGE, said.
    [[nodiscard]] ExitCode CheckColumns(suts_tsspec const& spec, std::vector<std::string> names) const;
    [[nodiscard]] ExitCode OpenOutput(RecordOutput& output) const;
    // Writes what the output holds. DONE, or IO_ERROR, said.
    [[nodiscard]] ExitCode FlushOutput(RecordOutput& output) const;

    // Tells that the connection could not be made. UNAVAILABLE.
    [[nodiscard]] ExitCode FailToConnect(brindle_Result result) const;

    // Says what went wrong and returns the code.
    template <typename... Arguments>
    ExitCode Fail(ExitCode code, fmt::format_string<Arguments...> format, Arguments&&... arguments) const {
        Print(fmt::format(format, std::forward<Arguments>(arguments)...), ERROR);
        return code;
    }
    // Says what the user should know though the work goes on.
    template <typename... Arguments>
    void Warn(fmt::format_string<Arguments...> format, Arguments&&... arguments) const {
        Print(fmt::format(format, std::forward<Arguments>(arguments)...), WARNING);
    }
    // Says what was done, unless that is not wanted.
    template <typename... Arguments>
    void Say(fmt::format_string<Arguments...> format, Arguments&&... arguments) const {
        if (!quiet_) Print(fmt::format(format, std::forward<Arguments>(arguments)...), PLAIN);
    }
    // With --json: the result, one object on a line of standard output. DONE, or IO_ERROR, said.
    [[nodiscard]] ExitCode PrintResult(nlohmann::json const& result) const;
    // Writes text to standard output. DONE, or IO_ERROR, said.
    [[nodiscard]] ExitCode PrintText(std::string_view text) const;
    [[nodiscard]] bool WantsJson() const { return json_; }
    [[nodiscard]] bool IsQuiet() const { return quiet_; }
    [[nodiscard]] bool HasColor(int descriptor) const;  // whether what goes there may be coloured

    [[nodiscard]] brindle_Connection::Milliseconds Wait() const { return std::chrono::seconds(waitSeconds_); }

    brindle_Address address_;
    std::string addressText_;
    std::string specPath_;
    std::string timeName_ = "time";  // of the column that holds the record's time
    std::string outputPath_ = "-";   // "-" is standard output
    int waitSeconds_ = 10;

 private:
    enum Kind { PLAIN, WARNING, ERROR };

    void Print(std::string const& line, Kind kind) const;

    CLI::App* app_ = nullptr;  // owned by the program
    std::string color_ = "auto";
    bool quiet_ = false;
    bool json_ = false;
};

// Reads a number of bytes such as 64k, or a length of time such as 90s. False for anything else.
[[nodiscard]] bool ParseBytes(std::string_view text, long& bytes);
[[nodiscard]] bool ParseDuration(std::string_view text, long& timeUs);
