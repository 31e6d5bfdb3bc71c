#include "sample.h"

#include <fmt/format.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "csv_reader.h"
#include "input_bytes.h"
#include "json_line_reader.h"
#include "send_input.h"
#include "time_reader.h"
#include "time_text.h"
#include "value_text.h"

namespace {

constexpr char const* UNITS[] = {"s", "ms", "us", "ns"};
constexpr int DECIMALS[] = {6, 3, 0, -3};
// Patterns of common times; a day before a month is told apart by the values alone.
constexpr char const* PATTERNS[] = {"%d.%m.%Y %H:%M:%S", "%d.%m.%Y %H:%M", "%d.%m.%Y",
                                    "%m/%d/%Y %H:%M:%S", "%m/%d/%Y %H:%M", "%m/%d/%Y",
                                    "%d/%m/%Y %H:%M:%S", "%d/%m/%Y %H:%M", "%d/%b/%Y:%H:%M:%S %z",
                                    "%Y/%m/%d %H:%M:%S", "%Y/%m/%d",       "%Y%m%dT%H%M%SZ"};

constexpr long YEAR_US = 365L * 24 * 3600 * 1000000;
constexpr long LIFE_US = 100 * YEAR_US;

bool IsPlausible(long timeUs) {
    long const nowUs = NowUs();
    return timeUs >= YEAR_US && timeUs < nowUs + YEAR_US && nowUs - timeUs < LIFE_US;
}

}  // namespace

ColumnSample::ColumnSample(std::string name) : name_(std::move(name)) {
    std::string problem;
    for (char const* const pattern : PATTERNS) {
        patterns_.push_back(std::make_unique<TimeReader>());
        if (!patterns_.back()->Set(pattern, "", problem)) patterns_.back().reset();
    }
}

void ColumnSample::Add(std::string_view text, bool isString) {
    if (text.empty()) {
        ++empty_;
        return;
    }
    ++count_;
    if (values_.size() < DIFFERENT_MAX) values_.emplace(text);
    brindle_Value value;
    isInt32_ = isInt32_ && !isString && ParseValue(text, SUTS_INT32, value);
    isInt64_ = isInt64_ && !isString && ParseValue(text, SUTS_INT64, value);
    // The names of what is no number come as strings.
    bool const mayBeReal = !isString || text.starts_with("nan") || text == "inf" || text == "-inf";
    isFloat64_ = isFloat64_ && mayBeReal && ParseValue(text, SUTS_FLOAT64, value);
    long timeUs = 0;
    bool saysOffset = false;
    isIso_ = isIso_ && ParseIsoTime(text, timeUs, saysOffset);
    hasDecimals_ = hasDecimals_ || text.find('.') != std::string_view::npos;
    for (std::size_t i = 0; i < std::size(UNITS); ++i) {
        isNumberOf_[i] = isNumberOf_[i] && ParseDecimalTime(text, DECIMALS[i], timeUs) && IsPlausible(timeUs);
    }
    for (auto& pattern : patterns_) {
        if (pattern && !(pattern->Read(text, timeUs) && IsPlausible(timeUs))) pattern.reset();
    }
}

suts_FieldType ColumnSample::Type() const {
    if (count_ == 0) return SUTS_STRING64;
    return isInt32_ ? SUTS_INT32 : isInt64_ ? SUTS_INT64 : isFloat64_ ? SUTS_FLOAT64 : SUTS_STRING64;
}

std::string ColumnSample::TimeFormat() const {
    if (count_ == 0 || empty_ > 0) return "-";
    if (isIso_) return "";
    for (std::size_t i = 0; i < std::size(UNITS); ++i) {
        if (isNumberOf_[i]) return std::string_view(UNITS[i]) == "us" && !hasDecimals_ ? "" : UNITS[i];
    }
    for (std::size_t i = 0; i < patterns_.size(); ++i) {
        if (patterns_[i]) return PATTERNS[i];
    }
    return "-";
}

void FileSample::Read(std::string const& path, std::string const& format, char delimiter, unsigned long rowsMax) {
    std::string const name = path == "-" ? "standard input" : path;
    InputBytes bytes;
    if (!bytes.Open(path, false)) {
        isUnreadable = true;
        problem = fmt::format("{}: cannot be opened: {}", name, strerror(errno));
        return;
    }
    bool const isJson = format == "jsonl";
    CsvReader csv(bytes, format == "tsv" ? '\t' : delimiter);
    JsonLineReader json(bytes);
    std::vector<std::string_view> row;
    std::vector<JsonMember> members;
    std::unordered_map<std::string, std::size_t> columnOfName;  // of members
    bool hasHeader = false;
    while (rows < rowsMax) {
        RowResult const result = isJson ? json.Next(members) : csv.Next(row);
        if (result == RowResult::END) break;
        if (result == RowResult::WAITING) {
            pollfd waited = {bytes.Descriptor(), POLLIN, 0};
            poll(&waited, 1, -1);
        } else if (result == RowResult::READ_ERROR) {
            isUnreadable = true;
            problem = fmt::format("{}: reading failed: {}", name, strerror(errno));
            return;
        } else if (result == RowResult::CORRUPT) {
            problem = fmt::format("{}: the file {}", name, isJson ? json.Problem() : csv.Problem());
            return;
        } else if (result == RowResult::BROKEN || (hasHeader && !isJson && row.size() != columns.size())) {
            ++brokenRows;
            ++rows;
        } else if (isJson) {
            ++rows;
            for (JsonMember const& member : members) {
                auto const [found, isNew] = columnOfName.try_emplace(std::string(member.name), columns.size());
                if (isNew) columns.emplace_back(found->first);
                columns[found->second].Add(member.kind == JsonMember::NESTED ? "" : member.text, member.isString);
            }
        } else if (!hasHeader) {
            hasHeader = true;
            for (std::string_view const column : row) columns.emplace_back(std::string(column));
        } else {
            ++rows;
            for (std::size_t i = 0; i < row.size(); ++i) columns[i].Add(row[i], false);
        }
    }
    if (columns.empty()) problem = fmt::format("{}: holds no rows to guess from", name);
}

std::string FieldNameOf(std::string_view column) {
    std::string name(column);
    std::replace_if(
        name.begin(), name.end(), [](char c) { return static_cast<unsigned char>(c) <= ' '; }, '_');
    return name.empty() ? "column" : name;
}
