// What the rows of a file look like.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "time_reader.h"
#include "uts_formats.h"

// Gathers what the values of one column have in common.
class ColumnSample {
 public:
    explicit ColumnSample(std::string name);

    void Add(std::string_view text, bool isString);

    [[nodiscard]] std::string const& Name() const { return name_; }
    [[nodiscard]] unsigned long Count() const { return count_; }  // of values, empty ones left out
    [[nodiscard]] unsigned long Empty() const { return empty_; }
    [[nodiscard]] std::size_t Different() const { return values_.size(); }  // values; those that are counted
    // The narrowest type that takes all values: int32, int64, float64, else string64.
    [[nodiscard]] suts_FieldType Type() const;
    // The --time-format by which all values are times, at most 100 years off now; empty for the default, which needs
    // none; "-" when they are no times.
    [[nodiscard]] std::string TimeFormat() const;

 private:
    static constexpr std::size_t DIFFERENT_MAX = 100000;

    std::string name_;
    unsigned long count_ = 0;
    unsigned long empty_ = 0;
    bool isInt32_ = true;  // all are, and so on
    bool isInt64_ = true;
    bool isFloat64_ = true;
    bool isIso_ = true;
    bool isNumberOf_[4] = {true, true, true, true};  // of seconds, milliseconds, microseconds, nanoseconds
    bool hasDecimals_ = false;
    std::vector<std::unique_ptr<TimeReader>> patterns_;  // of those that are tried: none where it was no such time
    std::unordered_set<std::string> values_;
};

// The columns of a file, in its order, from its first rows.
struct FileSample {
    std::vector<ColumnSample> columns;
    unsigned long rows = 0;
    unsigned long brokenRows = 0;
    std::string problem;        // why nothing can be told; empty when it can
    bool isUnreadable = false;  // and that it lies in the file's being readable

    // Reads at most so many rows. Blocks while standard input has nothing.
    void Read(std::string const& path, std::string const& format, char delimiter, unsigned long rowsMax);
};

// A name that a schema can have, made of a column's.
[[nodiscard]] std::string FieldNameOf(std::string_view column);
