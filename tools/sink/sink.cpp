// brindlectl sink: receives what servers ship, and writes it to a destination.

#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>

#include "brindle_shiplistener.h"
#include "commands.h"
#include "destination.h"
#include "durable_file.h"
#include "progress.h"
#include "ship_spool.h"
#include "ship_writer.h"
#include "stop_signals.h"
#include "terminal_text.h"

namespace {

constexpr char STANDARD_OUTPUT[] = "jsonl:-";
constexpr char OWNER[] = "destination";  // the file in the spool that names what it is for

constexpr char SINK_EXAMPLES[] =
    R"(Destinations, in place of the default sqlite:brindle.db:
  sqlite:FILE               tables for records, keys, cycles and rejects, and a view with the schema's name
  postgresql://...          the same in a database
  csv:DIR                   DIR/NAME.csv; jsonl:FILE is the same as JSON lines, jsonl:- writes to standard output
A destination takes what the same sink wrote before into account: it can be stopped and started at any time.
Start it before the server, which drops what nobody is there to take. It serves server after server until Ctrl-C, or
with --once until the first one has ended. What comes goes to the spool first, a directory beside the destination: the
sink goes on reading while the destination is slow or away, and catches up later. A cycle is one transaction; one that
was cut off is written as far as it came and marked as incomplete. What a destination refuses goes to its rejects.
With --json, at the end: cycles, incomplete, keys, records, doubles, merged, dropped, rejected, malformed, spool_bytes.
Exit status 1 when something went to the rejects, 69 when a connection was cut, 75 when something had to stay in the
spool.
Examples:
  brindlectl sink --spec flights.spec --ship 127.0.0.1:7001,7002
  brindlectl sink --spec flights.spec --ship '*:7001,7002' --stats postgresql://stage@db.example/flights
  brindlectl sink --spec flights.spec --ship 127.0.0.1:7001,7002 --once --quiet jsonl:- | jq .delay_minutes)";

// Where the spool is when nothing is said: beside a file, else in the current directory.
std::string SpoolBeside(std::string const& destinationName, std::string const& schemaName) {
    std::size_t const colon = destinationName.find(':');
    if (!destinationName.starts_with("postgresql:")) return destinationName.substr(colon + 1) + ".spool";
    std::string name = schemaName + "-" + destinationName.substr(colon + 3);
    std::replace(name.begin(), name.end(), '/', '-');
    return name + ".spool";
}

class SinkCommand : public Command {
 public:
    void Declare(CLI::App& program) override;
    ExitCode Run() override;

 private:
    [[nodiscard]] ExitCode CheckOptions(ShipWriter::Options& options) const;
    [[nodiscard]] ExitCode Listen(brindle_ShipListener& listener);
    [[nodiscard]] ExitCode OpenSpool(Spool& spool, bool isTemporary);
    [[nodiscard]] ExitCode Work(brindle_ShipListener& listener, Spool& spool, Destination& destination,
                                ShipWriter::Options const& options, StopSignals const& signals);
    [[nodiscard]] ExitCode Report(ShipReceiver const& receiver, ShipWriter const& writer, ShipWriter::Result result);

    suts_tsspec spec_;
    std::string destinationText_ = "sqlite:brindle.db";
    DestinationOptions destinationOptions_;
    std::string spoolPath_;
    long spoolBytesMax_ = 4L << 30;
    std::string sequenceName_;
    std::string watermarkPath_;
    std::vector<std::string> streamTexts_;
    std::vector<std::string> dropKeys_;
    bool once_ = false;
    bool stats_ = false;
};

void SinkCommand::Declare(CLI::App& program) {
    Add(program, "sink", "Listen on the two ship ports and write the records shipped", SINK_EXAMPLES);
    AddSpec();
    AddAddress("--ship", "BRINDLE_SHIP", "The two ship ports to listen on; host * for every address of this machine");
    AddOptionalArgument("destination", "Where the records go", destinationText_);
    AddTimeName();
    AddFlag("--once", "End when the first server has ended", once_);
    AddFlag("--stats", "Say for each cycle what it brought, its newest time and how far that is behind the clock",
            stats_);
    AddFlag("--blocks", "Write the numbers of cycle and block with each record", destinationOptions_.withBlocks);
    AddFlag("--dedupe", "Merge records that are equal in all fields; for tables only", destinationOptions_.dedupe);
    AddOptions("--drop-key", "KEY", "Leave the records of this key out, such as a heartbeat's; may be repeated",
               dropKeys_);
    AddOption("--spool", "DIR",
              "Directory for what the destination has not taken yet; beside a file, else here, by default", spoolPath_);
    AddBytes("--spool-max", "Size of the spool at which servers have to wait; 4G by default", spoolBytesMax_);
    AddOption("--sequence", "FIELD",
              "The int64 field in which 'send --sequence' numbers records: none is written twice", sequenceName_);
    AddOption("--watermark", "FILE", "With --sequence: tell the sender in this file what the destination holds",
              watermarkPath_);
    AddOptions("--stream", "ID", "With --sequence: let this stream in though the destination does not know it yet",
               streamTexts_);
    AddJson();
}

ExitCode SinkCommand::Run() {
    if (ExitCode const loaded = LoadSpec(spec_); loaded != DONE) return loaded;
    ShipWriter::Options options;
    if (ExitCode const checked = CheckOptions(options); checked != DONE) return checked;
    StopSignals const signals;
    destinationOptions_.timeName = timeName_;
    destinationOptions_.stopDescriptor = signals.Descriptor();
    std::string problem;
    auto const destination = MakeDestination(destinationText_, spec_, destinationOptions_, problem);
    if (destination == nullptr) return Fail(USAGE, "{}", problem);
    brindle_ShipListener listener;
    if (ExitCode const listening = Listen(listener); listening != DONE) return listening;
    bool const isTemporary = destinationText_ == STANDARD_OUTPUT && spoolPath_.empty();
    Spool spool;
    if (ExitCode const opened = OpenSpool(spool, isTemporary); opened != DONE) return opened;
    ExitCode const code = Work(listener, spool, *destination, options, signals);
    if (isTemporary) spool.Remove({OWNER});
    return code;
}

ExitCode SinkCommand::CheckOptions(ShipWriter::Options& options) const {
    std::vector<std::string> columns = {timeName_};
    if (destinationOptions_.withBlocks) columns.insert(columns.end(), {"cycle", "block"});
    if (ExitCode const checked = CheckColumns(spec_, columns); checked != DONE) return checked;
    options.stats = stats_;
    options.dropKeys = dropKeys_;
    if (sequenceName_.empty()) {
        if (watermarkPath_.empty() && streamTexts_.empty()) return DONE;
        return Fail(USAGE, "--watermark and --stream need --sequence");
    }
    if (destinationText_ == STANDARD_OUTPUT) {
        return Fail(USAGE, "--sequence needs a destination that keeps what it was given; standard output does not");
    }
    ExitCode const found = FindSequenceField(spec_, sequenceName_, options.sequenceField);
    if (found != DONE) return found;
    for (std::string const& text : streamTexts_) {
        unsigned long stream = 0;
        auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), stream);
        if (error != std::errc() || end != text.data() + text.size() || stream == 0 ||
            stream > StreamNumber::STREAM_MAX) {
            return Fail(USAGE, "--stream {}: a stream is a number from 1 to {}", text, StreamNumber::STREAM_MAX);
        }
        options.streams.push_back(stream);
    }
    return DONE;
}

ExitCode SinkCommand::Listen(brindle_ShipListener& listener) {
    brindle_Result const listening = listener.Listen(address_);
    if (listening == BRINDLE_DONE) return DONE;
    if (listening == BRINDLE_UNKNOWN_HOST) return FailToConnect(listening);
    int const error = errno;
    return Fail(UNAVAILABLE, "{}: cannot listen: {}; {}", addressText_, strerror(error),
                error == EADDRNOTAVAIL ? "the host must be an address of this machine, or *"
                : error == EACCES      ? "choose ports above 1023"
                                       : "choose other ports or end who holds them");
}

ExitCode SinkCommand::OpenSpool(Spool& spool, bool isTemporary) {
    std::string const name = DestinationName(destinationText_);
    if (isTemporary) {
        char const* const folder = getenv("TMPDIR");
        std::string path = fmt::format("{}/brindle-sink-XXXXXX", folder == nullptr ? "/tmp" : folder);
        if (mkdtemp(path.data()) == nullptr) return Fail(IO_ERROR, "{}: {}", path, strerror(errno));
        spoolPath_ = path;
    } else if (spoolPath_.empty()) {
        spoolPath_ = SpoolBeside(name, spec_.name.get());
    }
    switch (spool.Open(spoolPath_, true)) {
        case Spool::OPENED:
            break;
        case Spool::IN_USE:
            return Fail(TRY_AGAIN, "the spool {}; is a sink for this destination running already?", spool.Problem());
        case Spool::NO_SPOOL:
            return Fail(BAD_CONFIGURATION, "the spool {}", spool.Problem());
        default:
            return Fail(IO_ERROR, "the spool {}; it stands beside the destination, or where --spool says",
                        spool.Problem());
    }
    if (!spool.Problem().empty()) Warn("the spool {}", spool.Problem());
    // What waits for one destination must not go to another.
    std::string const ownerPath = spoolPath_ + "/" + OWNER;
    if (auto const owner = ReadFile(ownerPath); owner.has_value() && *owner != name && spool.Bytes() > 0) {
        return Fail(BAD_CONFIGURATION, "the spool {} is that of {}; give another directory with --spool", spoolPath_,
                    *owner);
    }
    if (ReplaceFile(ownerPath, name)) return DONE;
    return Fail(IO_ERROR, "{}: {}", ownerPath, strerror(errno));
}

ExitCode SinkCommand::Work(brindle_ShipListener& listener, Spool& spool, Destination& destination,
                           ShipWriter::Options const& options, StopSignals const& signals) {
    WatermarkWriter watermarks;
    if (int const error = watermarks.Open(watermarkPath_); error != 0) {
        return Fail(IO_ERROR, "{}: cannot be written: {}", watermarkPath_, strerror(error));
    }
    Progress progress("records", !IsQuiet());
    ShipReceiver receiver(listener, spool, watermarks, {static_cast<unsigned long>(spoolBytesMax_), once_},
                          [this](std::string const& text) { Warn("{}", text); });
    auto const say = [this, &progress](std::string const& text) {
        progress.Clear();
        Warn("{}", text);
    };
    ShipWriter writer(spec_, spool, destination, watermarks, options, say, progress);
    // Ends the receiving: a signal, or a destination that refuses.
    sutl_Descriptor const refused(eventfd(0, EFD_CLOEXEC));
    sutl_Descriptor const stop(epoll_create1(EPOLL_CLOEXEC));
    epoll_event event = {EPOLLIN, {}};
    if (!refused.IsOpen() || epoll_ctl(stop.Get(), EPOLL_CTL_ADD, signals.Descriptor(), &event) != 0 ||
        epoll_ctl(stop.Get(), EPOLL_CTL_ADD, refused.Get(), &event) != 0) {
        return Fail(IO_ERROR, "no descriptor for the end: {}", strerror(errno));
    }
    if (!writer.Prepare()) return Fail(BAD_CONFIGURATION, "{}", writer.Problem());
    std::thread receiving(&ShipReceiver::Run, &receiver, stop.Get());
    ShipWriter::Result const result = writer.Run(receiver);
    eventfd_write(refused.Get(), 1);
    receiving.join();
    progress.Clear();
    // A spool of which nothing is needed any more would only puzzle.
    if (result == ShipWriter::DRAINED) spool.Remove({OWNER});
    return Report(receiver, writer, result);
}

ExitCode SinkCommand::Report(ShipReceiver const& receiver, ShipWriter const& writer, ShipWriter::Result result) {
    ShipWriter::Totals const& totals = writer.Written();
    unsigned long const bytesLeft = result == ShipWriter::DRAINED ? 0 : writer.BytesLeft();
    ExitCode code = DONE;
    if (totals.rejected > 0) {
        code = REJECTS;
        Warn("{} record{} or messages went to the rejects", totals.rejected, totals.rejected == 1 ? "" : "s");
    }
    if (receiver.WasCut() || totals.incomplete > 0) code = UNAVAILABLE;
    if (once_ && receiver.Connections() == 0) {
        Warn("no server came");
        code = UNAVAILABLE;
    }
    if (receiver.Error() != 0) {
        code = Fail(IO_ERROR, "{}: {}", receiver.ListenerFailed() ? addressText_ : "the spool " + spoolPath_,
                    strerror(receiver.Error()));
    }
    if (result == ShipWriter::LEFT) {
        code = Fail(TRY_AGAIN, "{} bytes stay in {} for the next start with this destination", bytesLeft, spoolPath_);
    }
    if (result == ShipWriter::SPOOL_LOST) code = Fail(IO_ERROR, "{}: {}", spoolPath_, writer.Problem());
    if (result == ShipWriter::REFUSED) { code = Fail(BAD_CONFIGURATION, "{}", writer.Problem()); }
    std::string more;
    auto const add = [&more](unsigned long count, char const* what) {
        if (count > 0) more += fmt::format(", {} {}", count, what);
    };
    add(totals.doubles, "numbered ones left out as doubles");
    add(totals.merged, "equal ones merged");
    add(totals.dropped, "dropped by their key");
    add(totals.incomplete, totals.incomplete == 1 ? "incomplete cycle" : "incomplete cycles");
    Say("received: {}, {}, {}{}", Count(totals.cycles, "cycle"), Count(totals.keys, "key"),
        Count(totals.records, "record"), more);
    ExitCode const printed = PrintResult({{"cycles", totals.cycles},
                                          {"incomplete", totals.incomplete},
                                          {"keys", totals.keys},
                                          {"records", totals.records},
                                          {"doubles", totals.doubles},
                                          {"merged", totals.merged},
                                          {"dropped", totals.dropped},
                                          {"rejected", totals.rejected},
                                          {"malformed", totals.malformed},
                                          {"spool_bytes", bytesLeft}});
    return printed == DONE ? code : printed;
}

}  // namespace

std::unique_ptr<Command> MakeSinkCommand() { return std::make_unique<SinkCommand>(); }
