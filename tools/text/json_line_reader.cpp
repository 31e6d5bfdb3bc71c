#include "json_line_reader.h"

#include <simdjson.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <nlohmann/json.hpp>

namespace {

namespace ondemand = simdjson::ondemand;

std::string_view WithoutBlanksBehind(std::string_view text) {
    return text.substr(0, text.find_last_not_of(" \t\r\n") + 1);
}

// Appends the bytes of an object {"hex":"ff41"}. False when it is anything else.
bool TakeHexObject(ondemand::value& value, std::string& bytes) {
    ondemand::object object;
    if (value.get_object().get(object) != simdjson::SUCCESS) return false;
    std::size_t members = 0;
    for (auto field : object) {
        std::string_view name;
        std::string_view digits;
        if (++members > 1 || field.unescaped_key().get(name) != simdjson::SUCCESS || name != "hex" ||
            field.value().get_string().get(digits) != simdjson::SUCCESS || digits.size() % 2 != 0) {
            return false;
        }
        for (std::size_t i = 0; i < digits.size(); i += 2) {
            unsigned int byte = 0;
            auto const [end, error] = std::from_chars(digits.data() + i, digits.data() + i + 2, byte, 16);
            if (error != std::errc() || end != digits.data() + i + 2) return false;
            bytes += static_cast<char>(byte);
        }
    }
    return members == 1;
}

}  // namespace

struct JsonLineReader::Parser {
    simdjson::dom::parser whole;  // looks at all of a line, which the other, read only in part, relies on
    ondemand::parser parser;
};

JsonLineReader::JsonLineReader(ByteSource& source) : buffer_(source), parser_(std::make_unique<Parser>()) {}

JsonLineReader::~JsonLineReader() = default;

RowResult JsonLineReader::Next(std::vector<JsonMember>& members) {
    for (;;) {
        if (buffer_.PassByteOrderMark()) scanned_ = 0;
        line_ = nextLine_;
        std::string_view const held = buffer_.Held();
        std::size_t const lineEnd = held.find('\n', scanned_);
        bool const isWhole = lineEnd != std::string_view::npos;
        std::size_t const lineBytes = isWhole ? lineEnd : held.size();
        raw_ = held.substr(0, lineBytes);
        if (!isWhole) {
            scanned_ = held.size();
            if (scanned_ > RowBuffer::ROW_BYTES_MAX) {
                problem_ = "is longer than 64 MiB";
                return RowResult::CORRUPT;
            }
            if (!buffer_.Ended()) {
                RowResult const filled = buffer_.FillRow(problem_);
                if (filled == RowResult::ROW) continue;
                return filled;
            }
            if (held.empty()) return RowResult::END;
        }
        if (raw_.ends_with('\r')) raw_.remove_suffix(1);
        bool const isEmpty = raw_.find_first_not_of(" \t\r") == std::string_view::npos;
        RowResult const result =
            isEmpty ? RowResult::WAITING : Parse(members, buffer_.BytesBehind() + held.size() - raw_.size());
        buffer_.Pass(lineBytes + (isWhole ? 1 : 0));
        scanned_ = 0;
        if (isWhole) ++nextLine_;
        if (!isEmpty) return result;
    }
}

RowResult JsonLineReader::Parse(std::vector<JsonMember>& members, std::size_t bytesBehind) {
    members.clear();
    bytes_.clear();
    bytes_.reserve(raw_.size());  // so that views of it stay where they are
    // Walking a line that is no JSON to its end would lead beyond it.
    simdjson::error_code const checked = parser_->whole.parse(raw_.data(), raw_.size(), false).error();
    switch (checked) {
        case simdjson::SUCCESS:
            break;
        case simdjson::UTF8_ERROR:
            return Break("is no UTF-8");
        case simdjson::DEPTH_ERROR:
            return Break("is nested deeper than 1024");
        case simdjson::STRING_ERROR:
        case simdjson::UNESCAPED_CHARS:
            return Break("has a string that is no JSON");
        case simdjson::NUMBER_ERROR:
            // A whole number beyond 64 bits is no fault here: a float64 takes it, and other members do not matter.
            if (nlohmann::json::accept(raw_)) break;
            return Break("has a number that is no JSON, or beyond a float64");
        default:
            return Break("is no JSON object");
    }
    ondemand::document document;
    simdjson::padded_string_view const padded(raw_.data(), raw_.size(), raw_.size() + bytesBehind);
    ondemand::object object;
    if (parser_->parser.iterate(padded).get(document) != simdjson::SUCCESS ||
        document.get_object().get(object) != simdjson::SUCCESS) {
        return Break("is no JSON object");
    }
    for (auto field : object) {
        JsonMember member = {{}, {}, JsonMember::TEXT, false};
        ondemand::value value;
        ondemand::json_type type = ondemand::json_type::null;
        if (field.error() != simdjson::SUCCESS || field.unescaped_key().get(member.name) != simdjson::SUCCESS ||
            field.value().get(value) != simdjson::SUCCESS || value.type().get(type) != simdjson::SUCCESS) {
            return Break("is no JSON object");
        }
        switch (type) {
            case ondemand::json_type::string:
                if (value.get_string().get(member.text) != simdjson::SUCCESS) {
                    return Break("has a string that is no text");
                }
                member.isString = true;
                break;
            case ondemand::json_type::null: {
                bool isNull = false;
                if (value.is_null().get(isNull) != simdjson::SUCCESS || !isNull) return Break("is no JSON object");
                break;
            }
            case ondemand::json_type::boolean: {
                bool isTrue = false;
                if (value.get_bool().get(isTrue) != simdjson::SUCCESS) return Break("is no JSON object");
                member.text = isTrue ? "true" : "false";
                break;
            }
            case ondemand::json_type::number: {
                // The digits as they stand, since a field of 64 bits has more of them than a float64.
                member.text = WithoutBlanksBehind(value.raw_json_token());
                if (member.text.find_first_not_of("0123456789+-.eE") != std::string_view::npos) {
                    return Break("is no JSON object");
                }
                break;
            }
            case ondemand::json_type::object: {
                std::size_t const start = bytes_.size();
                member.text = "{";
                member.kind = JsonMember::NESTED;
                if (TakeHexObject(value, bytes_)) {
                    member.text = std::string_view(bytes_).substr(start);
                    member.kind = JsonMember::TEXT;
                    member.isString = true;
                }
                break;
            }
            case ondemand::json_type::array:
                member.text = "[";
                member.kind = JsonMember::NESTED;
                break;
        }
        if (members.size() == RowBuffer::ROW_VALUES_MAX) return Break("has more than 1,000,000 members");
        members.push_back(member);
    }
    return RowResult::ROW;
}

RowResult JsonLineReader::Break(char const* problem) {
    problem_ = problem;
    return RowResult::BROKEN;
}

void JsonLineReader::StartAt(unsigned long offset, unsigned long line) {
    buffer_.StartAt(offset);
    scanned_ = 0;
    nextLine_ = line;
}

bool JsonLineReader::SkipTo(unsigned long offset, unsigned long line) {
    while (buffer_.Offset() < offset) {
        buffer_.Pass(std::min<std::size_t>(buffer_.Held().size(), offset - buffer_.Offset()));
        if (buffer_.Offset() < offset && buffer_.Fill() != ByteSource::BYTES) return false;
    }
    scanned_ = 0;
    nextLine_ = line;
    return true;
}
