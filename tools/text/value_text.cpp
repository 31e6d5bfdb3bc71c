#include "value_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <iterator>
#include <nlohmann/json.hpp>

namespace {

constexpr unsigned long USUAL_NAN_BITS = 0x7ff8'0000'0000'0000;
constexpr std::string_view NAN_PREFIX = "nan:";

template <typename T>
bool ParseAll(std::string_view text, T& number, auto... format) {
    auto const [end, error] = std::from_chars(text.begin(), text.end(), number, format...);
    return error == std::errc() && end == text.end();
}

bool ParseReal(std::string_view text, double& real) {
    if (text == "nan") {
        real = std::bit_cast<double>(USUAL_NAN_BITS);
        return true;
    }
    if (text.starts_with(NAN_PREFIX)) {
        text.remove_prefix(NAN_PREFIX.size());
        unsigned long bits = 0;
        if (text.size() != 16 || !ParseAll(text, bits, 16) || !std::isnan(std::bit_cast<double>(bits))) return false;
        real = std::bit_cast<double>(bits);
        return true;
    }
    return ParseAll(text, real) && !std::isnan(real);
}

void AppendReal(std::string& out, double real) {
    auto const bits = std::bit_cast<unsigned long>(real);
    if (std::isnan(real) && bits != USUAL_NAN_BITS) {
        fmt::format_to(std::back_inserter(out), "{}{:016x}", NAN_PREFIX, bits);
    } else {
        fmt::format_to(std::back_inserter(out), "{}", real);
    }
}

void AppendNumber(std::string& out, long number) {
    fmt::format_int const digits(number);
    out.append(digits.data(), digits.size());
}

}  // namespace

char const* TypeName(suts_FieldType type) {
    switch (type) {
        case SUTS_STRING64:
            return "string64";
        case SUTS_INT32:
            return "int32";
        case SUTS_INT64:
            return "int64";
        case SUTS_FLOAT64:
            return "float64";
    }
    return "unknown type";
}

bool ParseValue(std::string_view text, suts_FieldType type, brindle_Value& value) {
    value = {type, 0, 0, {}};
    switch (type) {
        case SUTS_STRING64:
            value.text = text;
            return text.find('\0') == std::string_view::npos;
        case SUTS_INT32: {
            int number = 0;
            if (!ParseAll(text, number)) return false;
            value.number = number;
            return true;
        }
        case SUTS_INT64:
            return ParseAll(text, value.number);
        case SUTS_FLOAT64:
            return ParseReal(text, value.real);
    }
    return false;
}

void AppendPlain(std::string& out, brindle_Value const& value) {
    switch (value.type) {
        case SUTS_STRING64:
            out += value.text;
            return;
        case SUTS_INT32:
        case SUTS_INT64:
            return AppendNumber(out, value.number);
        case SUTS_FLOAT64:
            return AppendReal(out, value.real);
    }
}

void AppendCsv(std::string& out, brindle_Value const& value) {
    if (value.type == SUTS_STRING64) return AppendCsv(out, value.text);
    AppendPlain(out, value);
}

void AppendCsv(std::string& out, std::string_view text) {
    if (text.find_first_of(",\"\r\n") == std::string_view::npos) {
        out += text;
        return;
    }
    out += '"';
    for (char const c : text) {
        if (c == '"') out += '"';
        out += c;
    }
    out += '"';
}

void AppendJson(std::string& out, brindle_Value const& value) {
    switch (value.type) {
        case SUTS_STRING64:
            return AppendJson(out, value.text);
        case SUTS_INT32:
        case SUTS_INT64:
            return AppendNumber(out, value.number);
        case SUTS_FLOAT64:
            break;
    }
    if (std::isfinite(value.real)) {
        out += nlohmann::json(value.real).dump();
        return;
    }
    out += '"';
    AppendReal(out, value.real);
    out += '"';
}

void AppendJson(std::string& out, std::string_view text) {
    auto const isPlain = [](char c) { return c >= ' ' && c < 0x7F && c != '"' && c != '\\'; };
    if (std::all_of(text.begin(), text.end(), isPlain)) {  // as nearly every text
        out += '"';
        out += text;
        out += '"';
        return;
    }
    try {
        out += nlohmann::json(text).dump();
    } catch (nlohmann::json::type_error const&) {
        out += R"({"hex":")";
        for (char const c : text) fmt::format_to(std::back_inserter(out), "{:02x}", static_cast<unsigned char>(c));
        out += R"("})";
    }
}
