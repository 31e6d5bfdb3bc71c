#include "spooled_delivery.h"

#include <fmt/format.h>
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <thread>

#include "durable_file.h"
#include "numbers.h"

namespace {

using std::chrono::milliseconds;

constexpr std::size_t ENTRY_BYTES = 1UL << 20;  // frames gathered for one write to the disk
constexpr milliseconds WATCH_PAUSE{50};         // between two looks at the watermark file
constexpr int STUCK_MAX = 3;                    // resends in a row that may bring nothing
constexpr unsigned int FRAME_FIELDS = 3;        // of Frame, 8 bytes each, as an entry holds them

}  // namespace

// State and spool ----------------------------------------------------------------------------------------------------

ExitCode SpooledDelivery::Open() {
    switch (spool_.Open(options_.spoolPath, false)) {
        case Spool::OPENED:
            break;
        case Spool::IN_USE:
            return Fail(TRY_AGAIN, fmt::format("the spool {}", spool_.Problem()));
        case Spool::DAMAGED:
            return Fail(BAD_CONFIGURATION,
                        fmt::format("the spool {}: numbers that were sent may be lost with it. Copy what you need, "
                                    "and begin a new stream with another --spool",
                                    spool_.Problem()));
        case Spool::NO_SPOOL:
            return Fail(BAD_CONFIGURATION, fmt::format("the spool {}", spool_.Problem()));
        case Spool::OPEN_FAILED:
            return Fail(IO_ERROR, fmt::format("the spool {}", spool_.Problem()));
    }
    if (ExitCode const indexed = IndexSpool(); indexed != DONE) return indexed;
    if (ExitCode const loaded = LoadState(); loaded != DONE) return loaded;
    if (!SaveState(false)) return Fail(IO_ERROR, fmt::format("the state cannot be written: {}", strerror(errno)));
    delivered_ = taken_;
    bool isRaised = false;
    if (ExitCode const looked = LookAtWatermark(isRaised); looked != DONE) return looked;
    next_ = FirstNeeded();
    return DONE;
}

// An entry is: how many frames, how long the input position is, numbers and length of each frame, position, frames.
bool SpooledDelivery::ParseEntry(std::vector<Frame>& frames, std::string& position, std::size_t& bodyOffset) const {
    unsigned int counts[2];
    if (entry_.size() < sizeof counts) return false;
    memcpy(counts, entry_.data(), sizeof counts);
    std::size_t const headBytes =
        sizeof counts + std::size_t{counts[0]} * FRAME_FIELDS * sizeof(unsigned long) + counts[1];
    if (entry_.size() < headBytes || counts[0] == 0) return false;
    unsigned char const* at = entry_.data() + sizeof counts;
    std::size_t bodyBytes = 0;
    frames.clear();
    for (unsigned int i = 0; i < counts[0]; ++i) {
        unsigned long fields[FRAME_FIELDS];
        memcpy(fields, at, sizeof fields);
        at += sizeof fields;
        frames.push_back({fields[0], fields[1], fields[2]});
        if (fields[2] > entry_.size()) return false;
        bodyBytes += fields[2];
    }
    position.assign(reinterpret_cast<char const*>(at), counts[1]);
    bodyOffset = headBytes;
    return entry_.size() - headBytes == bodyBytes;
}

ExitCode SpooledDelivery::IndexSpool() {
    std::vector<Frame> frames;
    std::size_t bodyOffset = 0;
    SpoolPosition at = spool_.Begin();
    for (;;) {
        SpoolPosition behind = at;
        Spool::ReadResult const read = spool_.Read(behind, entry_);
        if (read == Spool::AT_END) return DONE;
        if (read == Spool::READ_FAILED) return Fail(IO_ERROR, fmt::format("the spool: {}", strerror(errno)));
        if (read == Spool::READ_DAMAGED || !ParseEntry(frames, inputPosition_, bodyOffset)) {
            return Fail(BAD_CONFIGURATION,
                        fmt::format("the spool {} holds what no sender has written, or is damaged: begin a new stream "
                                    "with another --spool",
                                    options_.spoolPath));
        }
        unsigned long const entryBytes = Spool::HEADER_BYTES + entry_.size();
        entries_.push_back({{behind.segment, behind.offset - entryBytes}, frames.front().first, frames.back().last});
        taken_ = std::max(taken_, frames.back().last);
        at = behind;
    }
}

ExitCode SpooledDelivery::LoadState() {
    std::string const path = StatePath();
    auto const text = ReadFile(path);
    if (!text.has_value() && errno != ENOENT) return Fail(IO_ERROR, fmt::format("{}: {}", path, strerror(errno)));
    if (!text.has_value()) {
        if (!entries_.empty()) {
            return Fail(BAD_CONFIGURATION, fmt::format("{}: there is no state, but the spool {} holds records; give "
                                                       "the state that belongs to it with --state",
                                                       path, options_.spoolPath));
        }
        stream_ = options_.stream;
        while (stream_ == 0) {
            if (getrandom(&stream_, sizeof stream_, 0) != sizeof stream_) {
                return Fail(IO_ERROR, fmt::format("no random number for the stream: {}", strerror(errno)));
            }
            stream_ &= StreamNumber::STREAM_MAX;
        }
        return DONE;
    }
    auto const json = nlohmann::json::parse(*text, nullptr, false);
    if (!json.is_object() || !json.contains("stream") || !json["stream"].is_number_unsigned() ||
        !json.contains("next") || !json["next"].is_number_unsigned() || !json.contains("clean") ||
        !json["clean"].is_boolean()) {
        return Fail(BAD_CONFIGURATION, fmt::format("{}: this is no state of a sender", path));
    }
    stream_ = json["stream"].get<unsigned long>();
    if (options_.stream != 0 && options_.stream != stream_) {
        return Fail(BAD_CONFIGURATION, fmt::format("{}: the state is that of stream {}, not {}; a new stream needs a "
                                                   "state and a spool of its own",
                                                   path, stream_, options_.stream));
    }
    bool const isClean = json["clean"].get<bool>();
    auto const member = [&json](char const* name) {
        return json.contains(name) && json[name].is_string() ? json[name].get<std::string>() : std::string();
    };
    bool const isSame = member("spool") == spool_.Id();
    // The greatest number is then known from the spool alone.
    if (!isSame && (!isClean || !entries_.empty())) {
        return Fail(BAD_CONFIGURATION,
                    fmt::format("{}: the state belongs to another spool than {}, which may hold numbers in use; give "
                                "that one with --spool, or begin a new stream",
                                path, options_.spoolPath));
    }
    unsigned long const next = json["next"].get<unsigned long>();
    if (next > 0) taken_ = std::max(taken_, next - 1);
    wasFinished_ = isClean;
    if (entries_.empty() || isClean) inputPosition_ = member("input");
    return DONE;
}

std::string SpooledDelivery::StatePath() const {
    return options_.statePath.empty() ? options_.spoolPath + "/state" : options_.statePath;
}

bool SpooledDelivery::SaveState(bool isClean) const {
    nlohmann::json const state = {{"stream", stream_},
                                  {"next", taken_ + 1},
                                  {"spool", spool_.Id()},
                                  {"clean", isClean},
                                  {"input", inputPosition_}};
    return ReplaceFile(StatePath(), state.dump() + "\n");
}

// Frames -------------------------------------------------------------------------------------------------------------

long SpooledDelivery::TakeNumber() { return StreamNumber{stream_, ++taken_}.Value(); }

ExitCode SpooledDelivery::Deliver(brindle_Message& frame, unsigned long records, std::string_view inputPosition) {
    (void)records;
    if (taken_ > StreamNumber::COUNT_MAX) {
        return Fail(BAD_CONFIGURATION, fmt::format("stream {} has used up its numbers; begin a new one", stream_));
    }
    if (taken_ == delivered_) {
        // Heartbeats alone: they need not arrive, and go in their turn.
        if (ExitCode const flushed = Flush(); flushed != DONE) return flushed;
        // Half a one would spoil the next frame.
        if (connection_.IsOpen() && connection_.Send(frame) != BRINDLE_DONE) connection_.Close();
        return DONE;
    }
    std::span<unsigned char const> const bytes = frame.Frame();
    pending_.push_back({delivered_ + 1, taken_, bytes.size()});
    pendingBytes_.insert(pendingBytes_.end(), bytes.begin(), bytes.end());
    delivered_ = taken_;
    inputPosition_ = inputPosition;
    return pendingBytes_.size() >= ENTRY_BYTES ? Flush() : DONE;
}

// Puts the frames at hand on disk, and then on their way.
ExitCode SpooledDelivery::Flush() {
    if (!pending_.empty()) {
        unsigned int const counts[2] = {static_cast<unsigned int>(pending_.size()),
                                        static_cast<unsigned int>(inputPosition_.size())};
        auto const asBytes = [](auto const* data, std::size_t bytes) {
            return std::span(reinterpret_cast<unsigned char const*>(data), bytes);
        };
        std::vector<unsigned long> fields;
        for (Frame const& frame : pending_) fields.insert(fields.end(), {frame.first, frame.last, frame.bytes});
        std::span<unsigned char const> const pieces[] = {
            asBytes(counts, sizeof counts), asBytes(fields.data(), fields.size() * sizeof(unsigned long)),
            asBytes(inputPosition_.data(), inputPosition_.size()), pendingBytes_};
        if (!spool_.Append(pieces) || !spool_.Sync()) {
            return Fail(IO_ERROR, fmt::format("the spool {} cannot be written: {}; nothing is sent that is not on disk",
                                              options_.spoolPath, strerror(errno)));
        }
        SpoolPosition const end = spool_.End();
        std::size_t bytes = Spool::HEADER_BYTES;
        for (auto const& piece : pieces) bytes += piece.size();
        entries_.push_back({{end.segment, end.offset - bytes}, pending_.front().first, pending_.back().last});
        pending_.clear();
        pendingBytes_.clear();
    }
    if (ExitCode const watched = Watch(); watched != DONE) return watched;
    return Pump();
}

// Sends what has not been sent yet.
ExitCode SpooledDelivery::Pump() {
    for (;;) {
        if (ExitCode const watched = Watch(); watched != DONE) return watched;
        if (entries_.empty() || entries_.back().at < next_ || entries_.back().last <= watermark_) return DONE;
        if (!connection_.IsOpen()) {
            if (ExitCode const connected = link_.Connect(connection_, true); connected != DONE) return connected;
            // What was lost before is sent now in any case.
            hasSent_ = false;
            bool isRaised = false;
            if (ExitCode const looked = LookAtWatermark(isRaised); looked != DONE) return looked;
        }
        if (ExitCode const sent = SendEntry(); sent != DONE) return sent;
    }
}

ExitCode SpooledDelivery::SendEntry() {
    Spool::ReadResult const read = spool_.Read(next_, entry_);
    if (read == Spool::AT_END) return DONE;
    std::vector<Frame> frames;
    std::string position;
    std::size_t at = 0;
    if (read != Spool::ENTRY || !ParseEntry(frames, position, at)) {
        return Fail(IO_ERROR, fmt::format("the spool {} cannot be read back", options_.spoolPath));
    }
    for (Frame const& frame : frames) {
        std::span<unsigned char const> const bytes = std::span(entry_).subspan(at, frame.bytes);
        at += frame.bytes;
        if (frame.last <= watermark_) continue;
        brindle_Result const sent = connection_.SendFrame(bytes);
        hasSent_ = true;
        if (sent == BRINDLE_TIMED_OUT) {
            return Fail(TRY_AGAIN,
                        fmt::format("{}: the server takes nothing; does it serve another producer?", link_.Text()));
        }
        if (sent != BRINDLE_DONE) return Resend("the server has closed the connection");
    }
    return DONE;
}

// Everything above the watermark once more: over the connection if it still lives, since closing it would end the
// server, and over a new one otherwise.
ExitCode SpooledDelivery::Resend(std::string const& reason) {
    if (connection_.IsOpen() && connection_.ServerLeft()) connection_.Close();
    bool isRaised = false;
    if (ExitCode const looked = LookAtWatermark(isRaised); looked != DONE) return looked;
    auto const first =
        std::find_if(entries_.begin(), entries_.end(), [this](Entry const& entry) { return entry.last > watermark_; });
    if (first == entries_.end()) {
        if (watermark_ >= delivered_ || !pending_.empty()) return DONE;
        return Fail(BAD_CONFIGURATION,
                    fmt::format("the destination holds stream {} up to number {}, but all up to {} had arrived at one "
                                "before: is it another one?",
                                stream_, watermark_, taken_));
    }
    if (watermark_ > watermarkAtResend_) stuck_ = 0;
    watermarkAtResend_ = watermark_;
    if (++stuck_ > STUCK_MAX) {
        return Fail(TRY_AGAIN,
                    fmt::format("sent again {} times, the records from number {} on did not arrive (frame with the "
                                "numbers {} to {}); they stay in {}. Look at what server and sink say",
                                STUCK_MAX, watermark_ + 1, first->first, first->last, options_.spoolPath));
    }
    ++resends_;
    next_ = first->at;
    say_(fmt::format("{}: sending again from number {}", reason, watermark_ + 1));
    return DONE;
}

// The watermark ------------------------------------------------------------------------------------------------------

// Reads the file. Raised: the sink has accepted a server since the last look.
ExitCode SpooledDelivery::LookAtWatermark(bool& isRaised) {
    lastWatch_ = Clock::now();
    auto const read = ReadWatermarks(options_.watermarkPath);
    // Without a file there has been no sink yet.
    if (!read.has_value() && errno != ENOENT && watermarkError_ != errno) {
        watermarkError_ = errno;
        say_(fmt::format("{}: cannot be read: {}", options_.watermarkPath,
                         errno == EBADMSG ? "it is no watermark file" : strerror(errno)));
    }
    Watermarks const file = read.value_or(Watermarks());
    if (auto const own = file.streams.find(stream_); own != file.streams.end()) {
        if (own->second > taken_) {
            return Fail(BAD_CONFIGURATION,
                        fmt::format("the destination holds numbers of stream {} up to {}, but only {} were given by "
                                    "this state: is it a copy of an older one? Begin a new stream",
                                    stream_, own->second, taken_));
        }
        if (!entries_.empty() && own->second + 1 < entries_.front().first) {
            return Fail(BAD_CONFIGURATION,
                        fmt::format("the destination holds stream {} up to number {} only, but the records up to {} "
                                    "have been removed here after it had told of them: is it another one?",
                                    stream_, own->second, entries_.front().first - 1));
        }
        watermark_ = own->second;
        Trim();
    }
    isRaised = file.epoch != 0 && file.epoch != epoch_;
    if (file.epoch != 0) epoch_ = file.epoch;
    return DONE;
}

// Looks at the file now and then, and at the connection.
ExitCode SpooledDelivery::Watch() {
    if (Clock::now() - lastWatch_ < WATCH_PAUSE) return DONE;
    bool isRaised = false;
    if (ExitCode const looked = LookAtWatermark(isRaised); looked != DONE) return looked;
    // Without a connection there is nothing under way that could have been lost behind the server.
    if (isRaised && hasSent_ && connection_.IsOpen()) return Resend("the sink has accepted a server anew");
    if (connection_.IsOpen() && connection_.ServerLeft()) return Resend("the server has closed the connection");
    return DONE;
}

// Of the first entry that the destination does not hold whole; the end when there is none.
SpoolPosition SpooledDelivery::FirstNeeded() const {
    auto const first =
        std::find_if(entries_.begin(), entries_.end(), [this](Entry const& entry) { return entry.last > watermark_; });
    return first == entries_.end() ? spool_.End() : first->at;
}

// The last entry stays: it tells which number comes next.
void SpooledDelivery::Trim() {
    if (entries_.empty()) return;
    auto const needed = std::find_if(entries_.begin(), entries_.end() - 1,
                                     [this](Entry const& entry) { return entry.last > watermark_; });
    spool_.Trim(needed->at);
    while (entries_.front().at < spool_.Begin()) entries_.pop_front();
}

ExitCode SpooledDelivery::Idle() { return Flush(); }

// Waits for the watermark to reach the last number. Not reached: it stands still, or there is a reason to send again.
ExitCode SpooledDelivery::AwaitWatermark(bool& reached) {
    Clock::time_point lastProgress = Clock::now();
    unsigned long const resendsBefore = resends_;
    for (;;) {
        unsigned long const before = watermark_;
        if (ExitCode const watched = Watch(); watched != DONE) return watched;
        reached = watermark_ >= taken_;
        if (reached || resends_ != resendsBefore) return DONE;
        Clock::time_point const now = Clock::now();
        if (watermark_ > before) lastProgress = now;
        if (link_.IsStopped()) {
            return Fail(TRY_AGAIN, fmt::format("stopped: the records from number {} on may not be at the destination "
                                               "yet; they stay in {} and are sent at the next start",
                                               watermark_ + 1, options_.spoolPath));
        }
        if (now - lastProgress > link_.Wait()) return Resend("the watermark stands still");
        std::this_thread::sleep_for(WATCH_PAUSE);
    }
}

ExitCode SpooledDelivery::Finish() {
    bool reached = false;
    ExitCode code = Flush();
    while (code == DONE && !reached) {
        // The end of its producer makes a server ship everything.
        if (connection_.IsOpen()) {
            brindle_Result const finished = connection_.Finish(link_.Wait());
            if (finished == BRINDLE_TIMED_OUT) {
                return Fail(TRY_AGAIN,
                            fmt::format("{}: the server does not read; does it serve another producer?", link_.Text()));
            }
        }
        code = AwaitWatermark(reached);
        if (code == DONE && !reached) code = Pump();
    }
    if (code != DONE) return code;
    if (!SaveState(true)) return Fail(IO_ERROR, fmt::format("the state cannot be written: {}", strerror(errno)));
    return DONE;
}
