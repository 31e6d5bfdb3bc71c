// brindlectl query: asks the server for staged records.

#include <cerrno>
#include <cstring>
#include <limits>

#include "brindle_connection.h"
#include "brindle_records.h"
#include "commands.h"
#include "value_text.h"

namespace {

constexpr char EXAMPLES[] =
    R"(Prints the records of one key that are still in the server's window and lie in the range of times, both ends included,
newest bucket first. Times are ISO 8601 (UTC unless they say otherwise) or microseconds since 1970; a table shows
ISO 8601, CSV microseconds. A key that looks like an option goes behind --. No record found is no failure. The server
serves one query client at a time.
The schema must be the server's: a query whose key is longer than the server's type of key ends the server.
Examples:
  brindlectl query --spec flights.spec --query 127.0.0.1:7201,7202 PHX
  brindlectl query --spec flights.spec --query 127.0.0.1:7201,7202 --from 2001-01-03T12:00 --format csv PHX)";

class QueryCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    ExitCode Print(std::span<unsigned char const> reply);

    suts_tsspec spec_;
    std::string keyText_;
    long fromUs_ = 0;
    long toUs_ = std::numeric_limits<long>::max();
    std::string format_ = "table";
};

void QueryCommand::Declare(CLI::App& program) {
    Add(program, "query", "Print the staged records of a key", EXAMPLES);
    AddSpec();
    AddAddress("--query", "BRINDLE_QUERY", "The server's two query ports");
    AddWait();
    AddTimeName();
    AddTime("--from", "First time asked for; the earliest if it is not given", fromUs_);
    AddTime("--to", "Last time asked for; the latest if it is not given", toUs_);
    AddChoice("--format", {"table", "csv"}, format_);
    AddArgument("key", "The key, a value of the schema's first field", keyText_);
}

ExitCode QueryCommand::Run() {
    if (ExitCode const loaded = LoadSpec(spec_); loaded != DONE) return loaded;
    if (ExitCode const checked = CheckColumns(spec_, {timeName_}); checked != DONE) return checked;
    brindle_Value key;
    if (!ParseValue(keyText_, spec_.Type(0), key)) {
        return Fail(USAGE, "the key '{}' is not of type {}", keyText_, TypeName(spec_.Type(0)));
    }
    brindle_Message query;
    if (brindle_MakeQuery(query, spec_, key, fromUs_, toUs_) != BRINDLE_DONE) {
        return Fail(USAGE, "the key '{}' cannot be asked for", keyText_);
    }
    brindle_Connection connection;
    if (brindle_Result const opened = connection.Open(address_, Wait()); opened != BRINDLE_DONE) {
        return FailToConnect(opened);
    }
    std::span<unsigned char const> reply;
    brindle_Result result = connection.Send(query);
    if (result == BRINDLE_DONE) result = connection.Receive(reply, Wait());
    if (result == BRINDLE_TIMED_OUT) {
        return Fail(UNAVAILABLE, "{}: no reply within {} s; is another query client connected? Wait longer with --wait",
                    addressText_, waitSeconds_);
    }
    if (result != BRINDLE_DONE) {
        return Fail(UNAVAILABLE, "{}: the server ended the conversation{}{}; its standard error may tell why",
                    addressText_, result == BRINDLE_SYSTEM_ERROR ? ": " : "",
                    result == BRINDLE_SYSTEM_ERROR ? strerror(errno) : "");
    }
    return Print(reply);
}

ExitCode QueryCommand::Print(std::span<unsigned char const> reply) {
    RecordOutput output(format_ == "csv" ? RecordFormat::CSV : RecordFormat::TABLE, spec_, {}, timeName_);
    if (ExitCode const opened = OpenOutput(output); opened != DONE) return opened;
    brindle_MessageReader message(reply);
    std::vector<brindle_Value> values;
    unsigned long records = 0;
    bool whole = true;
    for (; message.BytesLeft() > 0; ++records) {
        long timeUs = 0;
        whole = brindle_TakeRecord(message, spec_, timeUs, values) == BRINDLE_DONE;
        if (!whole) break;
        output.Add({}, timeUs, values);
    }
    if (ExitCode const flushed = FlushOutput(output); flushed != DONE) return flushed;
    if (!whole) {
        return Fail(BAD_DATA, "the reply cannot be read behind record {}; check that the schema is the server's",
                    records);
    }
    Say("{} record{} of '{}' staged in this range", records, records == 1 ? "" : "s", keyText_);
    return DONE;
}

}  // namespace

std::unique_ptr<Command> MakeQueryCommand() { return std::make_unique<QueryCommand>(); }
