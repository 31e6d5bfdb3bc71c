// The client library's side of the ship connection: frames in pieces, and the messages in them.
#include <unistd.h>

#include "brindle_framereader.h"
#include "brindle_shipreader.h"
#include "fuzz.h"

using fuzz::Require;

namespace {

struct Walk {
    std::string bytes;  // what the items are when they are written again
    brindle_ShipReader::Item end;
};

// Walks a copy whose memory ends where the message ends, so that a look beyond is seen.
Walk WalkThrough(suts_tsspec const& spec, std::string_view body, bool cut) {
    auto const copy = std::make_unique<unsigned char[]>(body.size());
    std::copy(body.begin(), body.end(), copy.get());
    brindle_ShipReader reader(spec);
    reader.Start({copy.get(), body.size()}, cut);
    brindle_Message message;
    auto const begin = [&message](unsigned int type) {
        if (message.BodyBytes() == 0) message.Append4Byte(type);
    };
    brindle_ShipReader::Item item;
    for (std::size_t items = 0; (item = reader.Next()) <= brindle_ShipReader::RECORD; ++items) {
        Require(items < body.size(), "an item takes a byte at least");
        if (item == brindle_ShipReader::RECORD) {
            message.Append8Byte(static_cast<unsigned long>(reader.TimeUs()));
            for (brindle_Value const& value : reader.Values().subspan(1)) message.AppendField(value);
        } else {
            begin(item == brindle_ShipReader::KEY_ANNOUNCED ? SUTS_SHIP_KEYS : SUTS_SHIP_RECORDS);
            message.AppendField(reader.Key());
            if (item == brindle_ShipReader::BLOCK_STARTED) message.Append8Byte(reader.Records());
        }
    }
    if (item == brindle_ShipReader::CYCLE_ENDED) begin(SUTS_SHIP_CYCLE_END);
    auto const after = reader.Next();
    Require(after == (item == brindle_ShipReader::CYCLE_ENDED ? brindle_ShipReader::MESSAGE_ENDED : item),
            "the end stays the end");
    return {{message.Body().begin(), message.Body().end()}, item};
}

void CheckBody(suts_tsspec const& spec, std::string_view body) {
    Walk const whole = WalkThrough(spec, body, false);
    Require(body.starts_with(whole.bytes), "what was taken is what stands there");
    // A message without items says nothing but its type.
    bool const typeAlone = whole.bytes.empty() && body.size() == SUTS_SHIP_TYPE_BYTES;
    Require(whole.end == brindle_ShipReader::MALFORMED || whole.bytes == body || typeAlone,
            "a whole message is taken to its last byte");
    Walk const asCut = WalkThrough(spec, body, true);
    Require(body.starts_with(asCut.bytes) && asCut.bytes.size() >= whole.bytes.size(),
            "a message that may be cut gives as much at least");
    Walk const half = WalkThrough(spec, body.substr(0, body.size() / 2), true);
    Require(asCut.bytes.starts_with(half.bytes), "a cut message gives the items before the cut");
}

}  // namespace

int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
    fuzz::Input input(data, size);
    suts_tsspec const& spec = fuzz::SchemaOf(input.Byte());
    std::size_t const pieceBytes = 1 + input.Byte();
    std::string_view const stream = input.Rest();
    std::vector<fuzz::Frame> const frames = fuzz::CutFrames(stream);

    auto [readEnd, writeEnd] = test::Pipe();
    brindle_FrameReader reader;
    std::size_t taken = 0;
    std::string_view left = stream;
    brindle_Result result = BRINDLE_DONE;
    while (result == BRINDLE_DONE) {
        std::string_view const piece = left.substr(0, pieceBytes);
        left.remove_prefix(piece.size());
        if (piece.empty()) writeEnd.Close();
        if (!piece.empty()) sutl_FileWrite(writeEnd.Get(), piece.data(), piece.size());
        result = reader.Fill(readEnd.Get());
        for (std::span<unsigned char const> body; reader.Take(body); ++taken) {
            Require(
                taken + 1 < frames.size() && std::ranges::equal(body, frames[taken].body, {}, {},
                                                                [](char c) { return static_cast<unsigned char>(c); }),
                "a frame is taken to the byte");
            CheckBody(spec, frames[taken].body);
        }
    }
    fuzz::Frame const& last = frames.back();
    if (result == BRINDLE_MALFORMED) {
        bool const tooLong =
            last.body.size() >= SUTL_FRAME_HEADER_BYTES && static_cast<unsigned char>(last.body[0]) >= 0x40;
        Require(tooLong, "only a frame that is too long is refused");
        return 0;
    }
    Require(taken + 1 == frames.size(), "every whole frame is taken");
    Require(result == (last.result == FRAME_BROKEN ? BRINDLE_STREAM_CUT : BRINDLE_STREAM_ENDED), "the end is told");
    std::string_view const rest = last.body.substr(std::min<std::size_t>(last.body.size(), SUTL_FRAME_HEADER_BYTES));
    Require(std::string(reader.Rest().begin(), reader.Rest().end()) == rest, "the rest of a cut frame is kept");
    return 0;
}
