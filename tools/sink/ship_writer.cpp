#include "ship_writer.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>

#include "terminal_text.h"
#include "time_text.h"
#include "value_text.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds SPOOL_WAIT{200};  // between two looks at whether the receiver is done
constexpr milliseconds RETRY_MIN{100};   // between two tries to open a destination that is away; doubled each time
constexpr milliseconds RETRY_MAX{5000};
constexpr std::chrono::seconds STOP_WAIT{10};  // for what is in the spool to be written after a signal
constexpr milliseconds RETRIES_AT_END{10000};  // of a destination that is away when the receiver is done

}  // namespace

ShipWriter::ShipWriter(suts_tsspec const& spec, Spool& spool, Destination& destination, WatermarkWriter& watermarks,
                       Options options, Say say, Progress& progress)
    : spec_(spec),
      spool_(spool),
      destination_(destination),
      watermarks_(watermarks),
      options_(std::move(options)),
      say_(std::move(say)),
      progress_(progress),
      reader_(spec) {}

ShipWriter::Result ShipWriter::Run(ShipReceiver const& receiver) {
    bool saidAway = false;
    milliseconds pause = RETRY_MIN;
    milliseconds waitedAtEnd{0};
    for (;;) {
        bool const isDone = receiver.IsDone();  // looked at first: what it appended before is seen then
        if (isDone && receiver.WasStopped() && !lateAt_.has_value()) lateAt_ = Clock::now() + STOP_WAIT;
        if (isDone && !isOpen_ && spool_.Bytes() == 0) return DRAINED;  // and away, but not needed
        Destination::Status status = isOpen_ ? Destination::OK : OpenDestination();
        if (status == Destination::OK) {
            if (saidAway) say_("the destination is back");
            saidAway = false;
            pause = RETRY_MIN;
            status = TakeEntries();
        }
        // A cycle that does not fit into the spool would wait for room that only its end can make.
        if (status == Destination::OK && receiver.IsFull() && inTransaction_ && state_.position >= spool_.End()) {
            say_("a cycle is larger than the spool; it is written in parts");
            status = CommitOpenCycles();
        }
        if (status == Destination::REFUSED) return spoolLost_ ? SPOOL_LOST : REFUSED;
        if (status == Destination::AWAY) {
            destination_.Close();
            isOpen_ = false;
            if (!saidAway) {
                say_(fmt::format("the destination is away: {}; what comes stays in the spool, and it is tried again",
                                 destination_.Problem()));
            }
            saidAway = true;
            if (isDone && waitedAtEnd.count() == 0) {
                say_(fmt::format("the end waits for the destination for at most {} s", RETRIES_AT_END.count() / 1000));
            }
            if (isDone && (waitedAtEnd += pause) > RETRIES_AT_END) return LEFT;
            std::this_thread::sleep_for(pause);
            pause = std::min(2 * pause, RETRY_MAX);
            continue;
        }
        TellWatermark(watermarks_.Flush());
        if (isDone && state_.position >= spool_.End()) return DRAINED;
        if (isDone && isLate_) return LEFT;
        spool_.WaitFor(state_.position, SPOOL_WAIT);
    }
}

Destination::Status ShipWriter::Refuse(std::string problem) {
    problem_ = std::move(problem);
    return Destination::REFUSED;
}

Destination::Status ShipWriter::OpenDestination() {
    std::string text;
    Destination::Status const opened = destination_.Open(text);
    if (opened == Destination::REFUSED) return Refuse(destination_.Problem());
    if (opened != Destination::OK) return opened;
    if (!ParseState(text)) return Refuse("the state that the destination holds cannot be read");
    isOpen_ = true;
    inTransaction_ = false;
    pending_ = totals_;
    cycles_.clear();
    Publish();
    return Destination::OK;
}

bool ShipWriter::ParseState(std::string const& text) {
    state_ = {};
    state_.position = spool_.Begin();
    if (text.empty()) return true;
    auto const json = nlohmann::json::parse(text, nullptr, false);
    if (!json.is_object() || !json.contains("spool") || !json.contains("streams") || !json["streams"].is_object()) {
        return false;
    }
    auto const number = [&json](char const* name) {
        return json.contains(name) && json[name].is_number_unsigned() ? json[name].get<unsigned long>() : 0UL;
    };
    // The places of another spool mean nothing in this one.
    if (json["spool"] == spool_.Id()) {
        state_.position = {number("segment"), number("offset")};
        // A spool that begins anew under the same name has no such place.
        if (state_.position.segment > spool_.End().segment) state_.position = spool_.Begin();
        spool_.Trim(state_.position);
    }
    state_.cycles = number("cycles");
    for (auto const& [name, ranges] : json["streams"].items()) {
        auto read = StreamRanges::Of(ranges.is_string() ? ranges.get<std::string>() : "?");
        if (!read.has_value()) return false;
        state_.streams[std::strtoul(name.c_str(), nullptr, 10)] = std::move(*read);
    }
    return true;
}

std::string ShipWriter::StateText() const {
    nlohmann::json streams = nlohmann::json::object();
    for (auto const& [stream, ranges] : state_.streams) streams[std::to_string(stream)] = ranges.Text();
    return nlohmann::json({{"spool", spool_.Id()},
                           {"segment", state_.position.segment},
                           {"offset", state_.position.offset},
                           {"cycles", state_.cycles},
                           {"streams", streams}})
        .dump();
}

void ShipWriter::Publish() {
    std::map<unsigned long, unsigned long> watermarks;
    for (auto const& [stream, ranges] : state_.streams) watermarks[stream] = ranges.Watermark();
    TellWatermark(watermarks_.Set(watermarks));
}

// Without the file a sender stands still, so that is said, but once.
void ShipWriter::TellWatermark(int error) {
    if (error != 0 && watermarkError_ == 0) {
        say_(fmt::format("the watermark file cannot be written: {}; it is tried again", strerror(error)));
    }
    watermarkError_ = error;
}

// Takes all entries that are there.
Destination::Status ShipWriter::TakeEntries() {
    for (;;) {
        switch (spool_.Read(state_.position, entry_)) {
            case Spool::ENTRY:
                break;
            case Spool::AT_END:
                return Destination::OK;
            case Spool::READ_DAMAGED:
                say_(fmt::format("{}; what its segment holds from there on is passed over", spool_.Problem()));
                // Senders of numbered records send them again.
                TellWatermark(watermarks_.RaiseEpoch());
                state_.position = state_.position.segment < spool_.End().segment
                                      ? SpoolPosition{state_.position.segment + 1, 0}
                                      : spool_.End();
                continue;
            case Spool::READ_FAILED:
                spoolLost_ = true;
                return Refuse(fmt::format("the spool cannot be read: {}", strerror(errno)));
        }
        ShipEntryView entry = {};
        if (!entry.Parse(entry_)) {
            say_("the spool holds an entry of another kind, which is passed over");
            continue;
        }
        if (Destination::Status const taken = TakeEntry(entry); taken != Destination::OK) return taken;
        isLate_ = lateAt_.has_value() && !inTransaction_ && Clock::now() > *lateAt_;
        if (isLate_) return Destination::OK;
    }
}

Destination::Status ShipWriter::TakeEntry(ShipEntryView const& entry) {
    switch (entry.kind) {
        case ShipEntry::MESSAGE:
            return TakeMessage(entry, false);
        case ShipEntry::REST:
            return TakeMessage(entry, true);
        case ShipEntry::ENDED: {
            auto const found = cycles_.find(entry.connection);
            Cycle const cycle = found == cycles_.end() ? Cycle() : found->second;
            if (found != cycles_.end()) cycles_.erase(found);
            std::string_view const reason(reinterpret_cast<char const*>(entry.bytes.data()), entry.bytes.size());
            if (!reason.empty()) say_(fmt::format("a server's stream was cut off: {}; what had come is kept", reason));
            if (reason.empty() && cycle.begun) say_("a server ended inside a cycle; what had come is kept");
            return cycle.begun ? Commit(cycle, false) : Destination::OK;
        }
        case ShipEntry::RESTARTED:
            return CommitOpenCycles();
    }
    return Destination::OK;
}

// Commits what there is of cycles that have no end yet, or never will.
Destination::Status ShipWriter::CommitOpenCycles() {
    Destination::Status status = Destination::OK;
    while (status == Destination::OK && !cycles_.empty()) {
        auto const first = cycles_.begin();
        Cycle const cycle = first->second;
        cycles_.erase(first);
        if (cycle.begun) status = Commit(cycle, false);
    }
    return status;
}

Destination::Status ShipWriter::BeginIfNeeded() {
    if (inTransaction_) return Destination::OK;
    Destination::Status const begun = destination_.Begin();
    inTransaction_ = begun == Destination::OK;
    return begun == Destination::REFUSED ? Refuse(destination_.Problem()) : begun;
}

Destination::Status ShipWriter::TakeMessage(ShipEntryView const& entry, bool cut) {
    Cycle& cycle = cycles_[entry.connection];
    cycle.begun = cycle.begun || !cut;
    cycle.bytes += entry.bytes.size();
    reader_.Start(entry.bytes, cut);
    for (;;) {
        Destination::Status status = Destination::OK;
        switch (reader_.Next()) {
            case brindle_ShipReader::KEY_ANNOUNCED:
                ++pending_.keys;
                break;
            case brindle_ShipReader::BLOCK_STARTED:
                ++cycle.blocks;
                if (reader_.Records() > 0) ++cycle.keys;
                break;
            case brindle_ShipReader::RECORD:
                status = TakeRecord(cycle);
                break;
            case brindle_ShipReader::CYCLE_ENDED: {
                Cycle const ended = cycle;
                cycles_.erase(entry.connection);
                return Commit(ended, true);
            }
            case brindle_ShipReader::MESSAGE_ENDED:
                return Destination::OK;
            case brindle_ShipReader::MALFORMED: {
                if (cut) return Destination::OK;
                // Frames tell where the next message begins, so that one bad message costs no other.
                ++pending_.malformed;
                ++pending_.rejected;
                say_(
                    fmt::format("a message of {} bytes cannot be read with this schema; it goes to the rejects, but "
                                "for the records before the fault; check that the schema is the server's",
                                entry.bytes.size()));
                std::string_view const bytes(reinterpret_cast<char const*>(entry.bytes.data()), entry.bytes.size());
                status = BeginIfNeeded();
                if (status == Destination::OK) {
                    status = destination_.Reject(state_.cycles + 1, "a message that cannot be read", bytes);
                }
                return status == Destination::REFUSED ? Refuse(destination_.Problem()) : status;
            }
        }
        if (status != Destination::OK) return status;
    }
}

// Whether the record's number is new. Not OK for one of a stream that is not let in.
Destination::Status ShipWriter::CheckNumber(bool& isNew) {
    isNew = true;
    if (options_.sequenceField < 0) return Destination::OK;
    long const value = reader_.Values()[static_cast<std::size_t>(options_.sequenceField)].number;
    if (value == 0) return Destination::OK;
    auto const number = StreamNumber::Of(value);
    if (!number.has_value()) {
        return Refuse(
            fmt::format("the number {} of a record is none that 'send --sequence' gives; nothing is dropped: "
                        "what came stays in the spool",
                        value));
    }
    auto stream = state_.streams.find(number->stream);
    if (stream == state_.streams.end()) {
        bool const isNamed =
            std::find(options_.streams.begin(), options_.streams.end(), number->stream) != options_.streams.end();
        if (!isNamed && (!state_.streams.empty() || !options_.streams.empty())) {
            return Refuse(
                fmt::format("stream {} is not known to this destination; nothing is dropped: what came stays "
                            "in the spool. If it is a new sender of yours, let it in with --stream {}",
                            number->stream, number->stream));
        }
        stream = state_.streams.emplace(number->stream, StreamRanges()).first;
    }
    isNew = stream->second.Add(number->count);
    return Destination::OK;
}

bool ShipWriter::IsDropped() const {
    if (options_.dropKeys.empty()) return false;
    std::string key;
    AppendPlain(key, reader_.Key());
    return std::find(options_.dropKeys.begin(), options_.dropKeys.end(), key) != options_.dropKeys.end();
}

Destination::Status ShipWriter::TakeRecord(Cycle& cycle) {
    bool isNew = true;
    if (Destination::Status const checked = CheckNumber(isNew); checked != Destination::OK) return checked;
    if (!isNew) {
        ++pending_.doubles;
        return Destination::OK;
    }
    if (IsDropped()) {
        ++pending_.dropped;
        return Destination::OK;
    }
    Destination::Status status = BeginIfNeeded();
    if (status != Destination::OK) return status;
    cycle.begun = true;
    ++cycle.records;
    ++pending_.records;
    progress_.Update(pending_.records);
    cycle.newestUs = std::max(cycle.newestUs, reader_.TimeUs());
    status = destination_.Add({state_.cycles + 1, cycle.blocks, reader_.TimeUs(), reader_.Values()});
    return status == Destination::REFUSED ? Refuse(destination_.Problem()) : status;
}

Destination::Status ShipWriter::Commit(Cycle const& cycle, bool isComplete) {
    if (Destination::Status const begun = BeginIfNeeded(); begun != Destination::OK) return begun;
    unsigned long const number = ++state_.cycles;
    Destination::Status const status = destination_.Commit(
        {number, isComplete, cycle.records, cycle.keys, cycle.bytes, cycle.newestUs, destination_.Rejected()},
        StateText());
    if (status == Destination::REFUSED) return Refuse(destination_.Problem());
    if (status != Destination::OK) return status;
    inTransaction_ = false;
    pending_.merged += destination_.Merged();
    pending_.rejected += destination_.Rejected();
    pending_.records -= destination_.Merged() + destination_.Rejected();
    ++pending_.cycles;
    if (!isComplete) ++pending_.incomplete;
    totals_ = pending_;
    spool_.Trim(state_.position);
    Publish();
    if (options_.stats) {
        std::string newest = "-";
        std::string lag;
        if (cycle.newestUs >= 0) {
            newest.clear();
            AppendIsoTime(newest, cycle.newestUs);
            lag = fmt::format(", lag {:.3f} s", 1e-6 * static_cast<double>(NowUs() - cycle.newestUs));
        }
        say_(fmt::format("cycle {}{}: {}, {}, {}, newest {}{}", number, isComplete ? "" : " (incomplete)",
                         Count(cycle.records, "record"), Count(cycle.keys, "key"), Count(cycle.bytes, "byte"), newest,
                         lag));
    }
    return Destination::OK;
}
