#include "stored_value.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

#include "terminal_text.h"
#include "value_text.h"

bool TakeStored(std::string_view& bytes, suts_FieldType type, brindle_Value& value) {
    std::size_t size = SUTS_NUMBER8_BYTES;
    if (type == SUTS_INT32) size = SUTS_INT32_BYTES;
    if (type == SUTS_STRING64) size = std::min(bytes.find('\0'), bytes.size()) + 1;
    if (size > bytes.size()) return false;
    value = {type, 0, 0, {}};
    int number = 0;
    switch (type) {
        case SUTS_STRING64:
            value.text = bytes.substr(0, size - 1);
            break;
        case SUTS_INT32:
            memcpy(&number, bytes.data(), size);
            value.number = number;
            break;
        case SUTS_INT64:
            memcpy(&value.number, bytes.data(), size);
            break;
        case SUTS_FLOAT64:
            memcpy(&value.real, bytes.data(), size);
            break;
    }
    bytes.remove_prefix(size);
    return true;
}

bool TakeStoredRecord(std::string_view whole, suts_tsspec const& spec, std::span<brindle_Value> values) {
    if (whole.size() < SUTS_LOG_HEAD_BYTES) return false;
    whole.remove_prefix(SUTS_LOG_HEAD_BYTES);
    for (int i = 0; i < spec.fieldCount; ++i) {
        if (!TakeStored(whole, spec.Type(i), values[static_cast<std::size_t>(i)])) return false;
    }
    return true;
}

namespace {

constexpr std::size_t SHOWN_BYTES_MAX = 64;  // of a long key, to people

// The value that the bytes held make; what is missing of a text is left out.
brindle_Value ValueOf(std::string_view start, suts_FieldType type) {
    brindle_Value value = brindle_Value::Text(start);
    std::string_view bytes = start;
    static_cast<void>(TakeStored(bytes, type, value));
    return value;
}

}  // namespace

std::string StoredKeyText(std::string_view start, long bytes, suts_FieldType type) {
    brindle_Value value = ValueOf(start, type);
    bool const isCut = static_cast<std::size_t>(bytes) > SHOWN_BYTES_MAX + 1;
    if (isCut) value.text = value.text.substr(0, SHOWN_BYTES_MAX);
    std::string text;
    AppendPlain(text, value);
    return ForTerminal(text) + (isCut ? "..." : "");
}

nlohmann::json StoredKeyJson(std::string_view start, long bytes, suts_FieldType type) {
    std::string text;
    AppendJson(text, ValueOf(start, type));
    nlohmann::json key = nlohmann::json::parse(text, nullptr, false);
    if (static_cast<std::size_t>(bytes) <= start.size()) return key;
    return {{"start", std::move(key)}, {"bytes", bytes - 1}};
}
