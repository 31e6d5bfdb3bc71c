// The sender's input: rows of comma separated values, JSON lines, and values and times as text.
#include <bit>
#include <charconv>

#include "../client/pieces.h"
#include "brindle_message.h"
#include "csv_reader.h"
#include "fuzz.h"
#include "json_line_reader.h"
#include "time_text.h"
#include "value_text.h"

using fuzz::Require;

namespace {

struct Rows {
    std::vector<std::vector<std::string>> rows;
    unsigned long lines;  // that were passed

    bool operator==(Rows const&) const = default;
};

// A row that is broken becomes what was said of it.
Rows ReadCsv(std::string_view text, std::size_t pieceBytes) {
    Pieces source(text, pieceBytes);
    CsvReader reader(source);
    std::vector<std::string_view> values;
    Rows read = {};
    for (unsigned long lastLine = 0;;) {
        RowResult const result = reader.Next(values);
        if (result == RowResult::WAITING) continue;
        if (result == RowResult::END) break;
        Require(reader.Line() > lastLine, "lines count up");
        lastLine = reader.Line();
        if (result == RowResult::ROW) {
            read.rows.emplace_back(values.begin(), values.end());
        } else {
            read.rows.push_back({std::string(reader.Raw()), reader.Problem()});
        }
    }
    Require(reader.NextOffset() == text.size(), "every byte is passed");
    read.lines = reader.NextLine();
    return read;
}

// The members of every line; a line that is none becomes what was said of it.
Rows ReadJson(std::string_view text, std::size_t pieceBytes) {
    Pieces source(text, pieceBytes);
    JsonLineReader reader(source);
    std::vector<JsonMember> members;
    Rows read = {};
    for (;;) {
        RowResult const result = reader.Next(members);
        if (result == RowResult::WAITING) continue;
        if (result == RowResult::END) break;
        auto& row = read.rows.emplace_back();
        if (result == RowResult::BROKEN) row = {reader.Problem()};
        if (result != RowResult::ROW) continue;
        for (JsonMember const& member : members) {
            row.emplace_back(member.name);
            row.emplace_back(member.text);
            if (!member.isString || member.kind == JsonMember::NESTED) continue;
            std::string json;
            AppendJson(json += "{\"x\":", member.text);
            json += '}';
            Pieces again(json);
            JsonLineReader second(again);
            std::vector<JsonMember> copy;
            while (second.Next(copy) == RowResult::WAITING) {}
            Require(copy.size() == 1 && copy[0].text == member.text, "a text that is written is read back");
        }
    }
    Require(reader.NextOffset() == text.size(), "every byte is passed");
    read.lines = reader.NextLine();
    return read;
}

void CheckCsv(std::string_view text, std::size_t pieceBytes) {
    constexpr std::size_t WHOLE_BYTES = 4096;
    Rows const read = ReadCsv(text, pieceBytes);
    Require(read == ReadCsv(text, WHOLE_BYTES), "rows do not depend on the pieces they come in");
    Require(ReadJson(text, pieceBytes) == ReadJson(text, WHOLE_BYTES), "nor do lines");
    std::string written;
    for (auto const& row : read.rows) {
        // A number leads, as a time does: an empty value alone would be an empty line.
        written += '0';
        for (std::string const& value : row) AppendCsv(written += ',', std::string_view(value));
        written += '\n';
    }
    Rows again = ReadCsv(written, WHOLE_BYTES);
    for (auto& row : again.rows) row.erase(row.begin());
    Require(again.rows == read.rows, "rows that are written are read back");
}

bool Same(brindle_Value const& a, brindle_Value const& b) {
    return a.type == b.type && a.number == b.number && a.text == b.text &&
           std::bit_cast<unsigned long>(a.real) == std::bit_cast<unsigned long>(b.real);
}

void CheckValue(brindle_Value const& value) {
    std::string plain;
    brindle_Value again;
    AppendPlain(plain, value);
    Require(ParseValue(plain, value.type, again) && Same(value, again), "a value is read back from its text");
    brindle_Message message;
    message.AppendField(value);
    brindle_MessageReader reader(message.Body());
    brindle_Value fromMessage;
    Require(reader.TakeField(value.type, fromMessage) && reader.BytesLeft() == 0 && Same(value, fromMessage),
            "a value is read back from its message");
    std::string csv = "0,";
    AppendCsv(csv, value);
    Rows const rows = ReadCsv(csv, csv.size());
    Require(rows.rows == std::vector<std::vector<std::string>>{{"0", plain}}, "a value is read back from a row");
}

void CheckTime(long timeUs) {
    std::string text;
    long again = ~timeUs;
    AppendIsoTime(text, timeUs);
    Require(ParseTime(text, again) && again == timeUs, "a time is read back from its text");
}

void CheckText(std::string_view text, bool isTime, suts_FieldType type) {
    constexpr long UNTOUCHED = -1234567;
    long timeUs = UNTOUCHED;
    brindle_Value value;
    if (!isTime) {
        if (ParseValue(text, type, value)) CheckValue(value);
    } else if (ParseTime(text, timeUs)) {
        CheckTime(timeUs);
    } else {
        Require(timeUs == UNTOUCHED, "a text that is no time changes nothing");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(unsigned char const* data, std::size_t size) {
    fuzz::Input input(data, size);
    unsigned int const choice = input.Byte();
    suts_FieldType const type = test::ALL_TYPES[choice / 4 % test::ALL_TYPES.size()];
    if (choice % 4 == 0) {
        CheckCsv(input.Rest(), 1 + choice / 4);
    } else if (choice % 4 < 3) {
        // A text per line, since one alone is short; a string64 may be of several.
        std::string_view const texts = input.Rest();
        bool const isTime = choice % 4 == 2;
        bool const inLines = isTime || type != SUTS_STRING64;
        for (std::size_t start = 0; start <= texts.size();) {
            std::size_t const end = std::min(inLines ? texts.find('\n', start) : texts.size(), texts.size());
            CheckText(texts.substr(start, end - start), isTime, type);
            start = end + 1;
        }
    } else {
        unsigned long bits = 0;
        std::string_view const bytes = input.Bytes(sizeof bits);
        memcpy(&bits, bytes.data(), bytes.size());
        CheckValue(brindle_Value::Real(std::bit_cast<double>(bits)));
        CheckTime(static_cast<long>(bits));
    }
    return 0;
}
