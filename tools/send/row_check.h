// Rows of text checked and turned into records.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "brindle_value.h"
#include "send_input.h"
#include "time_reader.h"
#include "uts_tsspec.h"

// Checks every cell against the schema and every time against what is let through. One thread at a time.
class RowCheck {
 public:
    struct Field {
        std::string column;     // by which the input knows it
        bool hasEmpty = false;  // whether an empty cell has a value
        std::string emptyText;  // which one
    };
    struct Options {
        std::string timeColumn;
        std::string timeFormat;
        std::string timeZone;
        long maxFutureUs = 0;
        long maxPastUs = -1;        // none below 0
        std::vector<Field> fields;  // per field of the schema
        int numberedField = -1;     // which has no column, or none
    };

    // The schema must outlive it. False, and the problem, when the options do not go with it.
    [[nodiscard]] bool Set(suts_tsspec const& spec, Options options, std::string& problem);

    // The columns that the input must find: the time's, then those of the fields, without the numbered one.
    [[nodiscard]] std::vector<std::string> Columns() const;

    // Makes a record of the cells, which stand in the order of the columns. False, and Problem(), when one is wrong.
    // The values' texts are views of the cells, or of this object.
    [[nodiscard]] bool Check(std::span<Cell const> cells, long& timeUs, std::vector<brindle_Value>& values);
    [[nodiscard]] std::string const& Problem() const { return problem_; }

    void LookAtClock();  // which the limits of time are relative to; Check does so by itself before it refuses a time

 private:
    [[nodiscard]] bool CheckTime(Cell const& cell, long& timeUs);
    [[nodiscard]] bool CheckField(int index, Cell const& cell, brindle_Value& value);
    bool Fail(std::string problem);

    suts_tsspec const* spec_ = nullptr;
    Options options_;
    TimeReader times_;
    long latestUs_ = 0;
    long earliestUs_ = 0;
    std::vector<brindle_Value> emptyValues_;  // per field; those that have one
    std::string problem_;
};
