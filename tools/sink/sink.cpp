// brindlectl sink: receives what the server ships.

#include <cerrno>
#include <cstring>

#include "brindle_shiplistener.h"
#include "brindle_shipreader.h"
#include "commands.h"
#include "stop_signals.h"

namespace {

constexpr char EXAMPLES[] =
    R"(Start it before the server, which drops what nobody is there to take. It ends when the server ends, or on Ctrl-C, with
everything received so far written. The output is complete up to each end of cycle. Columns are the time in
microseconds, then the fields of the schema. --blocks puts two more before them: the cycle, counted from 1, and the block of one key within it; the
records of a block are in order of time. A message that cannot be read is reported and skipped.
A float64 that is no number is written inf, -inf, nan, or nan: and the 16 hexadecimal digits of its bits; in JSON lines
as such a string. CSV holds texts as their bytes are; in JSON lines a text that is no UTF-8 becomes an object with its
bytes, such as {"hex":"ff41"}.
Examples:
  brindlectl sink --spec flights.spec --ship 127.0.0.1:7001,7002 --output shipped.csv
  brindlectl sink --spec flights.spec --ship '*:7001,7002' --format jsonl --quiet | jq .delay_minutes)";

class SinkCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    ExitCode Receive(brindle_ShipListener& listener, StopSignals const& signals, RecordOutput& output);
    ExitCode TakeMessage(std::span<unsigned char const> message, RecordOutput& output);
    void TakeRest(std::span<unsigned char const> rest, RecordOutput& output);
    brindle_ShipReader::Item TakeItems(RecordOutput& output);
    [[nodiscard]] ExitCode EndOfStream(brindle_Result result, bool hadServer) const;

    suts_tsspec spec_;
    std::string format_ = "csv";
    bool withBlocks_ = false;
    std::unique_ptr<brindle_ShipReader> reader_;
    unsigned long messages_ = 0;
    unsigned long cycles_ = 0;  // that have ended
    unsigned long blocks_ = 0;  // of the cycle that has begun
    unsigned long keys_ = 0;    // announced
    unsigned long records_ = 0;
    unsigned long malformed_ = 0;  // messages
    bool inCycle_ = false;         // a cycle has begun and not ended
};

void SinkCommand::Declare(CLI::App& program) {
    Add(program, "sink", "Listen on the two ship ports and write the records shipped", EXAMPLES);
    AddSpec();
    AddAddress("--ship", "BRINDLE_SHIP", "The two ship ports to listen on; host * for every address of this machine");
    AddTimeName();
    AddChoice("--format", {"csv", "jsonl"}, format_);
    AddOption("--output", "FILE", "The file to write, - for standard output", outputPath_);
    AddFlag("--blocks", "Put the numbers of cycle and block before each record", withBlocks_);
}

ExitCode SinkCommand::Run() {
    if (ExitCode const loaded = LoadSpec(spec_); loaded != DONE) return loaded;
    std::vector<std::string> leading;
    if (withBlocks_) leading = {"cycle", "block"};
    std::vector<std::string> columns = leading;
    columns.push_back(timeName_);
    if (ExitCode const checked = CheckColumns(spec_, columns); checked != DONE) return checked;

    StopSignals const signals;
    brindle_ShipListener listener;
    brindle_Result const listening = listener.Listen(address_);
    if (listening == BRINDLE_UNKNOWN_HOST) return FailToConnect(listening);
    if (listening != BRINDLE_DONE) {
        return Fail(UNAVAILABLE, "{}: cannot listen: {}; choose other ports or end who holds them", addressText_,
                    strerror(errno));
    }
    RecordOutput output(format_ == "csv" ? RecordFormat::CSV : RecordFormat::JSONL, spec_, leading, timeName_);
    if (ExitCode const opened = OpenOutput(output); opened != DONE) return opened;
    output.StopOn(signals.Descriptor());
    reader_ = std::make_unique<brindle_ShipReader>(spec_);

    ExitCode code = Receive(listener, signals, output);
    if (ExitCode const flushed = FlushOutput(output); flushed != DONE) code = flushed;
    Say("received: {} cycles, {} keys, {} records", cycles_, keys_, records_);
    return code;
}

ExitCode SinkCommand::Receive(brindle_ShipListener& listener, StopSignals const& signals, RecordOutput& output) {
    for (;;) {
        std::span<unsigned char const> message;
        brindle_Result const result = listener.Receive(message, signals.Descriptor());
        if (result != BRINDLE_DONE) {
            ExitCode const end = EndOfStream(result, listener.HasServer());
            TakeRest(listener.Rest(), output);
            return end;
        }
        if (ExitCode const taken = TakeMessage(message, output); taken != DONE) return taken;
    }
}

// Takes keys and records up to the first item that is neither.
brindle_ShipReader::Item SinkCommand::TakeItems(RecordOutput& output) {
    for (;;) {
        brindle_ShipReader::Item const item = reader_->Next();
        switch (item) {
            case brindle_ShipReader::KEY_ANNOUNCED:
                ++keys_;
                break;
            case brindle_ShipReader::BLOCK_STARTED:
                ++blocks_;
                break;
            case brindle_ShipReader::RECORD: {
                ++records_;
                unsigned long const place[] = {cycles_ + 1, blocks_};
                output.Add(std::span(place, withBlocks_ ? 2 : 0), reader_->TimeUs(), reader_->Values());
                break;
            }
            default:
                return item;
        }
    }
}

ExitCode SinkCommand::TakeMessage(std::span<unsigned char const> message, RecordOutput& output) {
    ++messages_;
    inCycle_ = true;
    reader_->Start(message);
    brindle_ShipReader::Item const last = TakeItems(output);
    if (last == brindle_ShipReader::CYCLE_ENDED) {
        ++cycles_;
        blocks_ = 0;
        inCycle_ = false;
        return output.Flush() == 0 ? DONE : IO_ERROR;
    }
    if (last == brindle_ShipReader::MALFORMED) {
        // Frames tell where the next message begins, so that one bad message costs no other.
        ++malformed_;
        Fail(BAD_DATA, "message {} of {} bytes cannot be read with this schema; the rest of it is skipped", messages_,
             message.size());
    }
    return DONE;
}

// The server does not send a message again that was cut, so its whole records are kept.
void SinkCommand::TakeRest(std::span<unsigned char const> rest, RecordOutput& output) {
    if (rest.empty()) return;
    unsigned long const before = records_;
    reader_->Start(rest, true);
    TakeItems(output);
    Say("the last message was cut; the {} whole records of it are written", records_ - before);
}

ExitCode SinkCommand::EndOfStream(brindle_Result result, bool hadServer) const {
    int const error = errno;
    if (result == BRINDLE_STOPPED) {
        if (hadServer) Say("stopped while the server was connected; what it ships from now on is lost");
    } else if (result == BRINDLE_MALFORMED) {
        return Fail(BAD_DATA, "message {} is longer than any the server sends; is this a Brindle server?",
                    messages_ + 1);
    } else if (result != BRINDLE_STREAM_ENDED || inCycle_) {
        return Fail(UNAVAILABLE, "the server's stream was cut off: {}; what had come is written",
                    result == BRINDLE_SYSTEM_ERROR ? strerror(error) : "the last cycle has no end");
    } else if (messages_ == 0) {
        return Fail(UNAVAILABLE, "the connection was closed before any message came; was it the server?");
    }
    if (malformed_ == 0) return DONE;
    return Fail(BAD_DATA, "{} of {} messages could not be read; check that the schema is the server's", malformed_,
                messages_);
}

}  // namespace

std::unique_ptr<Command> MakeSinkCommand() { return std::make_unique<SinkCommand>(); }
