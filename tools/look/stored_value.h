// Fields in stored form, as recovery directories hold them, as values.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>

#include "brindle_value.h"
#include "log_walker.h"
#include "uts_tsspec.h"

// Takes a field from the start of the bytes. False when they do not hold it. A text is a view of them.
[[nodiscard]] bool TakeStored(std::string_view& bytes, suts_FieldType type, brindle_Value& value);

// Takes all fields of a whole record, head, key and value. False when they are not there.
[[nodiscard]] bool TakeStoredRecord(std::string_view whole, suts_tsspec const& spec, std::span<brindle_Value> values);

// A key of which only the first bytes may be held: for people, on a terminal, and as JSON. A text that is not UTF-8 is
// JSON as {"hex":"..."}; a key that is cut for people ends in "...", and as JSON is an object with the key's length.
[[nodiscard]] std::string StoredKeyText(std::string_view start, long bytes, suts_FieldType type);
[[nodiscard]] nlohmann::json StoredKeyJson(std::string_view start, long bytes, suts_FieldType type);
