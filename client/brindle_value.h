// One field of a record as a program outside the server sees it.
#pragma once

#include <string_view>

#include "uts_formats.h"

// A typed value; the type tells which member counts. A text is a view: it belongs to the message, the file or the
// caller's own storage that it was taken from, and is valid as long as that. It holds no NUL, and may be no UTF-8.
struct brindle_Value {
    suts_FieldType type = SUTS_INT64;
    long number = 0;        // int32 and int64
    double real = 0;        // float64; every bit pattern, NaN included, is kept
    std::string_view text;  // string64

    static brindle_Value Number(suts_FieldType type, long number) { return {type, number, 0, {}}; }
    static brindle_Value Real(double real) { return {SUTS_FLOAT64, 0, real, {}}; }
    static brindle_Value Text(std::string_view text) { return {SUTS_STRING64, 0, 0, text}; }
};
