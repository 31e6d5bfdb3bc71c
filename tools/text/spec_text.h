// Schema files as text: what is wrong, and where.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct SpecProblem {
    unsigned long line;    // from 1
    unsigned long column;  // from 1, in bytes
    std::string text;
};

// Reads a schema as the server does, and says what keeps it from being used for records. A schema without problems is
// accepted by the server as it stands and has at least its key.
[[nodiscard]] std::vector<SpecProblem> CheckSpec(std::string_view text);
