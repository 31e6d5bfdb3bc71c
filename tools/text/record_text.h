// Records as lines of text.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "brindle_value.h"
#include "uts_tsspec.h"

// Appends records to texts: each with its time and, before that, further numbers if the caller has some. It keeps
// copies of the names, no view of the schema. Its const methods may be called on any thread.
class RecordText {
 public:
    // The names of all columns must differ from each other in JSON lines. Without a name for the time it is left out.
    RecordText(suts_tsspec const& spec, std::vector<std::string> leadingNames, std::string timeName);

    [[nodiscard]] std::vector<std::string> const& Names() const { return names_; }  // of all columns
    [[nodiscard]] bool HasTime() const { return hasTime_; }

    // Each ends its line. Values stand in schema order, the key first.
    void AppendCsvHeader(std::string& out) const;
    void AppendCsvRow(std::string& out, std::span<unsigned long const> leading, long timeUs,
                      std::span<brindle_Value const> values) const;
    void AppendJsonLine(std::string& out, std::span<unsigned long const> leading, long timeUs,
                        std::span<brindle_Value const> values) const;

 private:
    bool const hasTime_;
    std::vector<std::string> names_;
    std::vector<std::string> jsonNames_;  // what stands before the value of each column
};
