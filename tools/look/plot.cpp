#include "plot.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "time_text.h"
#include "value_text.h"

namespace {

constexpr std::size_t ROWS = 16;
constexpr std::size_t PLOT_COLUMNS_MIN = 10;

// Dots in rows of character cells: 2 by 4 in a braille character, one in a plain one.
class Canvas {
 public:
    Canvas(std::size_t columns, bool ascii)
        : ascii_(ascii),
          columns_(columns),
          cells_(ROWS * columns),
          width_(ascii ? columns : 2 * columns),
          height_(ascii ? ROWS : 4 * ROWS) {}

    [[nodiscard]] long Width() const { return static_cast<long>(width_); }
    [[nodiscard]] long Height() const { return static_cast<long>(height_); }

    // y counts from below.
    void Set(long x, long y) {
        // The bits of the dots, from the top row of a cell to the lowest, left and right.
        static constexpr unsigned char DOTS[4][2] = {{0x01, 0x08}, {0x02, 0x10}, {0x04, 0x20}, {0x40, 0x80}};
        auto const column = static_cast<std::size_t>(x);
        std::size_t const row = height_ - 1 - static_cast<std::size_t>(y);
        unsigned char& cell = ascii_ ? cells_[row * columns_ + column] : cells_[row / 4 * columns_ + column / 2];
        cell = static_cast<unsigned char>(cell | (ascii_ ? 1 : DOTS[row % 4][column % 2]));
    }

    void Line(long x, long y, long toX, long toY) {
        long const steps = std::max({std::labs(toX - x), std::labs(toY - y), 1L});
        for (long i = 0; i <= steps; ++i) Set(x + (toX - x) * i / steps, y + (toY - y) * i / steps);
    }

    [[nodiscard]] std::string Row(std::size_t row) const {
        std::string text;
        for (std::size_t i = 0; i < columns_; ++i) {
            unsigned char const cell = cells_[row * columns_ + i];
            if (ascii_) {
                text += cell != 0 ? '*' : ' ';
            } else {
                // U+2800 and the dots
                text += '\xE2';
                text += static_cast<char>(0xA0 | cell >> 6);
                text += static_cast<char>(0x80 | (cell & 0x3F));
            }
        }
        return text;
    }

 private:
    bool const ascii_;
    std::size_t const columns_;
    std::vector<unsigned char> cells_;
    std::size_t const width_;
    std::size_t const height_;
};

std::string Label(double value) { return fmt::format("{:.6g}", value); }

// Where a value stands between two ends, in steps from 0 to the last; halves, so that no difference overflows.
long Scale(double value, double low, double high, long steps) {
    if (high <= low) return (steps - 1) / 2;
    double const share = (value / 2 - low / 2) / (high / 2 - low / 2);
    return std::clamp(std::lround(share * static_cast<double>(steps - 1)), 0L, steps - 1);
}

std::string TimeLabel(long timeUs) {
    std::string text;
    AppendIsoTime(text, timeUs);
    return text;
}

}  // namespace

std::string Plot(std::vector<PlotPoint> points, std::size_t columns, bool ascii) {
    std::erase_if(points, [](PlotPoint const& point) { return !std::isfinite(point.value); });
    if (points.empty()) return "nothing to plot\n";
    auto const [lowest, highest] = std::minmax_element(
        points.begin(), points.end(), [](PlotPoint const& a, PlotPoint const& b) { return a.value < b.value; });
    double const low = lowest->value;
    double const high = highest->value;
    std::string const labels[] = {Label(high), Label(low / 2 + high / 2), Label(low)};
    std::size_t labelColumns = 0;
    for (std::string const& label : labels) labelColumns = std::max(labelColumns, label.size());
    std::size_t const plotColumns = std::max(columns - std::min(columns, labelColumns + 2), PLOT_COLUMNS_MIN);
    Canvas canvas(plotColumns, ascii);
    auto const from = static_cast<double>(points.front().timeUs);
    auto const to = static_cast<double>(points.back().timeUs);
    auto const xOf = [&](PlotPoint const& point) {
        return Scale(static_cast<double>(point.timeUs), from, to, canvas.Width());
    };
    auto const yOf = [&](PlotPoint const& point) { return Scale(point.value, low, high, canvas.Height()); };
    PlotPoint const* before = &points.front();
    for (PlotPoint const& point : points) {
        canvas.Line(xOf(*before), yOf(*before), xOf(point), yOf(point));
        before = &point;
    }
    std::string text;
    for (std::size_t row = 0; row < ROWS; ++row) {
        std::string const& label = row == 0          ? labels[0]
                                   : row == ROWS / 2 ? labels[1]
                                   : row == ROWS - 1 ? labels[2]
                                                     : std::string();
        std::string line = canvas.Row(row);
        text += fmt::format("{:>{}} {}{}\n", label, labelColumns, ascii ? "|" : "\xE2\x94\x82", line);
    }
    std::string const first = TimeLabel(points.front().timeUs);
    std::string const last = TimeLabel(points.back().timeUs);
    std::string const margin(labelColumns + 2, ' ');
    if (points.front().timeUs == points.back().timeUs || first.size() + last.size() + 1 > plotColumns) {
        return text + margin + first + (first == last ? "\n" : "\n" + margin + "to " + last + "\n");
    }
    return text + margin + first + std::string(plotColumns - first.size() - last.size(), ' ') + last + '\n';
}

void FieldStats::Add(brindle_Value const& value) {
    bool const isReal = type_ == SUTS_FLOAT64;
    if (isReal && std::isnan(value.real)) {
        ++nans_;
        return;
    }
    auto const isLess = [isReal](brindle_Value const& a, brindle_Value const& b) {
        return isReal ? a.real < b.real : a.number < b.number;
    };
    if (count_ == 0) min_ = max_ = first_ = value;
    if (isLess(value, min_)) min_ = value;
    if (isLess(max_, value)) max_ = value;
    last_ = value;
    sum_ += isReal ? static_cast<long double>(value.real) : static_cast<long double>(value.number);
    ++count_;
}

std::vector<std::string> FieldStats::Texts() const {
    std::vector<std::string> texts = {std::to_string(count_)};
    if (count_ == 0) return {texts[0], "-", "-", "-", "-", "-"};
    auto const add = [&texts](brindle_Value const& value) { AppendPlain(texts.emplace_back(), value); };
    add(min_);
    texts.push_back(fmt::format("{:.6g}", Mean()));
    for (brindle_Value const& value : {max_, first_, last_}) add(value);
    return texts;
}

nlohmann::json FieldStats::Json() const {
    auto const figure = [this](brindle_Value const& value) {
        std::string text = "null";
        if (count_ > 0) AppendJson(text = "", value);
        return nlohmann::json::parse(text, nullptr, false);
    };
    return {{"count", count_},
            {"min", figure(min_)},
            {"mean", count_ > 0 ? figure(brindle_Value::Real(Mean())) : nlohmann::json()},
            {"max", figure(max_)},
            {"first", figure(first_)},
            {"last", figure(last_)},
            {"nan", nans_}};
}
