// The data port: frames, and the records in them.
#include "brindle_records.h"
#include "fuzz.h"
#include "uts_fieldtranslation.h"
#include "uts_recorddecoder.h"

using fuzz::Require;

namespace {

struct Decoded {
    std::vector<test::Record> records;
    std::vector<std::string> wire;  // each record in the wire form that its stored form has
    bool whole = true;              // no record was malformed
};

std::string Encode(suts_tsspec const& spec, test::Record const& record) {
    test::OwnedField const key(record.key);
    test::OwnedField const value(record.value);
    sutl_NetorderByteField field;
    int keyOffset = 0;
    int offset = 0;
    suts_ShpThrdAddBfToShpField(field, key, spec, 0, keyOffset);
    auto time = static_cast<unsigned long>(record.time);
    field.Append8Byte(&time, 1);
    for (int i = 1; i < spec.fieldCount; ++i) suts_ShpThrdAddBfToShpField(field, value, spec, i, offset);
    Require(keyOffset == key.length && offset == value.length, "the stored form is what the schema's fields take");
    field.Seal();
    field.StartReading();
    return test::Drain(field);
}

Decoded Decode(suts_tsspec const& spec, std::string_view body) {
    Decoded decoded;
    sutl_NetorderByteField field;
    test::Fill(field, body);
    suts_RecordDecoder decoder(spec);
    decoder.StartFrame(field);
    fuzz::Messages const messages;
    while (decoded.whole && !decoder.FrameIsDone()) {
        long time = 0;
        sutl_RawBytefield key;
        sutl_RawBytefield value;
        decoded.whole = decoder.Next(time, key, value);
        if (!decoded.whole) break;
        decoded.records.push_back({time, test::BytesOf(key), test::BytesOf(value)});
        decoded.wire.push_back(Encode(spec, decoded.records.back()));
    }
    bool const reported = messages.Text().starts_with("ERROR, malformed frame: ") && messages.Text().ends_with('\n');
    Require(decoded.whole ? messages.Text().empty() : reported, "a malformed frame, and no other, is reported");
    return decoded;
}

void CheckBody(suts_tsspec const& spec, std::string_view body) {
    Decoded const decoded = Decode(spec, body);

    // What the client library takes for a record is that record, byte for byte.
    std::span const bytes(reinterpret_cast<unsigned char const*>(body.data()), body.size());
    brindle_MessageReader reader(bytes);
    std::vector<brindle_Value> values;
    long timeUs = 0;
    std::size_t accepted = 0;
    for (std::size_t at = 0; at < body.size(); ++accepted) {
        if (brindle_TakeRecord(reader, spec, timeUs, values) != BRINDLE_DONE) break;
        std::string_view const wire = body.substr(at, body.size() - reader.BytesLeft() - at);
        Require(accepted < decoded.records.size() && decoded.wire[accepted] == wire &&
                    decoded.records[accepted].time == timeUs,
                "a record of the client library's is decoded to the byte");
        at += wire.size();
    }

    // Wherever the same records are cut into frames, they come out the same.
    std::size_t const half = decoded.wire.size() / 2;
    std::string frames[2];
    for (std::size_t i = 0; i < decoded.wire.size(); ++i) frames[i < half ? 0 : 1] += decoded.wire[i];
    Decoded again = Decode(spec, frames[0]);
    Decoded const rest = Decode(spec, frames[1]);
    Require(again.whole && rest.whole && again.records.size() == half, "what was decoded is a whole frame again");
    again.records.insert(again.records.end(), rest.records.begin(), rest.records.end());
    Require(again.records == decoded.records, "what was decoded comes back the same");
    Require(Decode(spec, frames[0] + frames[1]).records == decoded.records, "one frame says what two say");
}

}  // namespace

int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
    fuzz::Input input(data, size);
    suts_tsspec const& spec = fuzz::SchemaOf(input.Byte());
    std::string_view const stream = input.Rest();
    sutl_Descriptor const connection = fuzz::MemoryFile(stream);
    sutl_NetorderByteField field;
    for (fuzz::Frame const& frame : fuzz::CutFrames(stream)) {
        {
            fuzz::Messages const messages;
            Require(sutl_ReceiveFrame(connection.Get(), field) == frame.result, "a frame is received as it stands");
            Require(messages.Text().empty() == (frame.result != FRAME_BROKEN), "a broken frame is reported");
        }
        if (frame.result != FRAME_READY) continue;
        Require(test::Drain(field) == frame.body, "a body is received to the byte");
        CheckBody(spec, frame.body);
    }
    return 0;
}
