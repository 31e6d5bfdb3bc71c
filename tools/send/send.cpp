// brindlectl send: CSV to the data ports.

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "brindle_connection.h"
#include "brindle_records.h"
#include "commands.h"
#include "csv_reader.h"
#include "time_text.h"
#include "value_text.h"

namespace {

constexpr std::size_t BATCH_BYTES = 64UL * 1024;  // a frame is sent when it holds this much
constexpr brindle_Connection::Milliseconds FINISH_WAIT = std::chrono::minutes(5);
constexpr std::size_t SHOWN_BYTES_MAX = 60;  // of a wrong value

constexpr char EXAMPLES[] =
    R"(The first row names the columns. Every field of the schema needs one, in any order; others are passed over.
Times are ISO 8601 (UTC unless they say otherwise) or microseconds since 1970, and not negative. A float64 may be inf,
-inf, nan, or nan: and 16 hexadecimal digits. The first wrong value ends the sending; the rows before it are sent. If
no frame had left by then (about 64 KB of records), nothing is sent, and the server stays free for the mended file.
A server serves one producer: when this command ends, so does the server's run, in an orderly way. Without a record no
connection is made and the server goes on waiting. Done means that the server has read everything; what it refuses (see
its standard error) and what its schema takes for something else this command cannot see.
Examples:
  brindlectl send --spec flights.spec --data 127.0.0.1:7101,7102 flights.csv
  zcat quakes.csv.gz | brindlectl send --spec quakes.spec --data stage.example:7101,7102 --time when -)";

class SendCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    ExitCode ReadHeader();
    ExitCode SendRows();
    ExitCode SendRow();
    ExitCode SendFrame();
    ExitCode EndReading(CsvReader::Result result) const;
    [[nodiscard]] ExitCode FailToSend(brindle_Result result) const;
    [[nodiscard]] std::optional<std::size_t> ColumnOf(std::string_view name) const;

    template <typename... Arguments>
    ExitCode FailAtRow(fmt::format_string<Arguments...> format, Arguments&&... arguments) const {
        return Fail(BAD_DATA, "{}:{}: {}", sourceName_, reader_->Line(),
                    fmt::format(format, std::forward<Arguments>(arguments)...));
    }

    std::string path_;
    char const* sourceName_ = "";  // as errors call it
    suts_tsspec spec_;
    std::optional<CsvReader> reader_;
    std::vector<std::string_view> row_;
    std::size_t columns_ = 0;  // of the header
    std::size_t timeColumn_ = 0;
    std::vector<std::size_t> fieldColumns_;  // per field of the schema
    std::vector<brindle_Value> values_;      // of the row, in schema order
    brindle_Message frame_;
    brindle_Connection connection_;
    unsigned long recordsInFrame_ = 0;
    unsigned long recordsSent_ = 0;
    unsigned long framesSent_ = 0;
};

void SendCommand::Declare(CLI::App& program) {
    Add(program, "send", "Send the records of a CSV file to the server", EXAMPLES);
    AddSpec();
    AddAddress("--data", "BRINDLE_DATA", "The server's two data ports");
    AddWait();
    AddTimeName();
    AddArgument("file", "The CSV file, - for standard input", path_);
}

ExitCode SendCommand::Run() {
    if (ExitCode const loaded = LoadSpec(spec_); loaded != DONE) return loaded;
    sutl_Descriptor file;
    sourceName_ = path_ == "-" ? "standard input" : path_.c_str();
    if (path_ != "-") {
        file = sutl_Descriptor(open(path_.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file.IsOpen()) return Fail(IO_ERROR, "{}: cannot be opened: {}", path_, strerror(errno));
    }
    reader_.emplace(file.IsOpen() ? file.Get() : STDIN_FILENO);
    if (ExitCode const header = ReadHeader(); header != DONE) return header;

    ExitCode const rows = SendRows();
    if (rows == UNAVAILABLE) return rows;
    // A server that nobody has connected to can still serve the mended file.
    if (rows != DONE && !connection_.IsOpen()) return Fail(rows, "nothing was sent");
    if (ExitCode const last = SendFrame(); last != DONE) return last;
    if (connection_.IsOpen()) {
        brindle_Result const finished = connection_.Finish(FINISH_WAIT);
        if (finished != BRINDLE_DONE) return FailToSend(finished);
    }
    Say("{} record{} sent in {} frame{}", recordsSent_, recordsSent_ == 1 ? "" : "s", framesSent_,
        framesSent_ == 1 ? "" : "s");
    return rows;
}

std::optional<std::size_t> SendCommand::ColumnOf(std::string_view name) const {
    auto const found = std::find(row_.begin(), row_.end(), name);
    if (found == row_.end()) {
        FailAtRow("there is no column '{}'; the columns are: {}", name, fmt::join(row_, ", "));
    } else if (std::find(found + 1, row_.end(), name) != row_.end()) {
        FailAtRow("there are two columns '{}'", name);
    } else {
        return static_cast<std::size_t>(found - row_.begin());
    }
    return std::nullopt;
}

// Finds the column of every field. Nothing is sent before that: whoever connects is the server's only producer.
ExitCode SendCommand::ReadHeader() {
    CsvReader::Result result = CsvReader::WAITING;
    while (result == CsvReader::WAITING) result = reader_->Next(row_);
    if (result == CsvReader::END)
        return Fail(BAD_DATA, "{}: is empty; the first row must name the columns", sourceName_);
    if (result != CsvReader::ROW) return EndReading(result);
    columns_ = row_.size();
    auto const time = ColumnOf(timeName_);
    if (!time.has_value()) return BAD_DATA;
    timeColumn_ = *time;
    for (int i = 0; i < spec_.fieldCount; ++i) {
        auto const column = ColumnOf(spec_.fieldNames[static_cast<std::size_t>(i)].get());
        if (!column.has_value()) return BAD_DATA;
        fieldColumns_.push_back(*column);
    }
    values_.resize(fieldColumns_.size());
    return DONE;
}

ExitCode SendCommand::SendRows() {
    for (;;) {
        CsvReader::Result const result = reader_->Next(row_);
        ExitCode code = DONE;
        if (result == CsvReader::ROW) {
            code = SendRow();
        } else if (result == CsvReader::WAITING) {
            // What is there is not held back while the source has a pause.
            code = SendFrame();
        } else {
            return EndReading(result);
        }
        if (code != DONE) return code;
    }
}

ExitCode SendCommand::SendRow() {
    if (row_.size() != columns_) {
        return FailAtRow("the row has {} value{}, but the header names {} columns", row_.size(),
                         row_.size() == 1 ? "" : "s", columns_);
    }
    long timeUs = 0;
    std::string_view const time = row_[timeColumn_];
    if (!ParseTime(time, timeUs)) {
        return FailAtRow("{}: '{}' is neither an ISO 8601 time nor microseconds since 1970", timeName_,
                         time.substr(0, SHOWN_BYTES_MAX));
    }
    if (timeUs < 0) return FailAtRow("{}: '{}' is before 1970, which the server refuses", timeName_, time);
    for (std::size_t i = 0; i < values_.size(); ++i) {
        suts_FieldType const type = spec_.Type(static_cast<int>(i));
        std::string_view const text = row_[fieldColumns_[i]];
        if (ParseValue(text, type, values_[i])) continue;
        char const* const field = spec_.fieldNames[i].get();
        if (type == SUTS_STRING64) return FailAtRow("{}: the text holds a NUL, which a string64 cannot", field);
        return FailAtRow("{}: '{}' is not {} {}", field, text.substr(0, SHOWN_BYTES_MAX),
                         type == SUTS_FLOAT64 ? "a" : "an", TypeName(type));
    }
    if (brindle_AppendRecord(frame_, spec_, timeUs, values_) != BRINDLE_DONE) {
        return FailAtRow("the record does not fit into a frame");
    }
    ++recordsInFrame_;
    return frame_.BodyBytes() >= BATCH_BYTES ? SendFrame() : DONE;
}

// Sends the records gathered, if there are any. The first frame makes the connection.
ExitCode SendCommand::SendFrame() {
    if (recordsInFrame_ == 0) return DONE;
    if (!connection_.IsOpen()) {
        brindle_Result const opened = connection_.Open(address_, Wait());
        if (opened != BRINDLE_DONE) return FailToConnect(opened);
    }
    if (brindle_Result const sent = connection_.Send(frame_); sent != BRINDLE_DONE) return FailToSend(sent);
    frame_.Clear();
    recordsSent_ += recordsInFrame_;
    recordsInFrame_ = 0;
    ++framesSent_;
    return DONE;
}

ExitCode SendCommand::EndReading(CsvReader::Result result) const {
    switch (result) {
        case CsvReader::BROKEN:
            return FailAtRow("the row {}", reader_->Problem());
        case CsvReader::READ_ERROR:
            return Fail(IO_ERROR, "{}: reading failed: {}", sourceName_, strerror(errno));
        default:
            return DONE;
    }
}

ExitCode SendCommand::FailToSend(brindle_Result result) const {
    char const* const reason = result == BRINDLE_TIMED_OUT      ? "it has stopped reading"
                               : result == BRINDLE_STREAM_ENDED ? "it has closed the connection"
                                                                : strerror(errno);
    return Fail(UNAVAILABLE,
                "{}: the server did not take everything ({}); of the {} records sent some may be missing or refused. "
                "Its standard "
                "error tells why",
                addressText_, reason, recordsSent_);
}

}  // namespace

std::unique_ptr<Command> MakeSendCommand() { return std::make_unique<SendCommand>(); }
