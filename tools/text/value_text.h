// Field values as text, read and written without loss.
#pragma once

#include <string>
#include <string_view>

#include "brindle_value.h"

// A float64 that is no number is written inf, -inf, nan or, when its bits are not those of the usual NaN, nan: and its
// 16 hexadecimal digits; every other one in the fewest digits that bring the same value back. All are read as well.

[[nodiscard]] char const* TypeName(suts_FieldType type);

// Reads a value of the type. False for a text that is none, out of range included; a string64 must not hold a NUL. The
// value's text is a view of this one.
[[nodiscard]] bool ParseValue(std::string_view text, suts_FieldType type, brindle_Value& value);

// Appends the value as it is.
void AppendPlain(std::string& out, brindle_Value const& value);

// Appends the value as one of a CSV row, in quotes where it needs them.
void AppendCsv(std::string& out, brindle_Value const& value);
void AppendCsv(std::string& out, std::string_view text);

// Appends the value as JSON. A float64 that is no number becomes a string with the text above. A text that is no UTF-8
// becomes an object whose member "hex" holds its bytes, two digits each.
void AppendJson(std::string& out, brindle_Value const& value);
void AppendJson(std::string& out, std::string_view text);
