// Charts and figures of numbers over time.
#pragma once

#include <cstddef>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "brindle_value.h"

struct PlotPoint {
    long timeUs = 0;
    double value = 0;
};

// A chart of the points, which stand in the order of time, of so many columns, with the values' and times' ends as
// labels. Points without a finite value are left out. Braille dots, or plain characters with ascii.
[[nodiscard]] std::string Plot(std::vector<PlotPoint> points, std::size_t columns, bool ascii);

// Figures of one field's values, in the order in which they are added. NaN is counted, and left out of all else.
class FieldStats {
 public:
    explicit FieldStats(suts_FieldType type) : type_(type) {}

    void Add(brindle_Value const& value);

    [[nodiscard]] std::vector<std::string> Texts() const;  // count, min, mean, max, first, last
    [[nodiscard]] nlohmann::json Json() const;             // the same by these names, and nan; null where there is none

 private:
    [[nodiscard]] double Mean() const { return static_cast<double>(sum_ / static_cast<long double>(count_)); }

    suts_FieldType const type_;
    unsigned long count_ = 0;
    unsigned long nans_ = 0;
    long double sum_ = 0;
    brindle_Value min_;
    brindle_Value max_;
    brindle_Value first_;
    brindle_Value last_;
};
