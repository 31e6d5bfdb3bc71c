#include "row_check.h"

#include <fmt/format.h>

#include <limits>

#include "terminal_text.h"
#include "time_text.h"
#include "value_text.h"

namespace {

char const* Article(suts_FieldType type) { return type == SUTS_FLOAT64 || type == SUTS_STRING64 ? "a" : "an"; }

}  // namespace

bool RowCheck::Set(suts_tsspec const& spec, Options options, std::string& problem) {
    spec_ = &spec;
    options_ = std::move(options);
    if (!times_.Set(options_.timeFormat, options_.timeZone, problem)) return false;
    emptyValues_.resize(options_.fields.size());
    for (std::size_t i = 0; i < options_.fields.size(); ++i) {
        Field const& field = options_.fields[i];
        suts_FieldType const type = spec.Type(static_cast<int>(i));
        if (!field.hasEmpty || ParseValue(field.emptyText, type, emptyValues_[i])) continue;
        problem = fmt::format("--empty {}={}: '{}' is not {} {}", spec.fieldNames[i].get(), field.emptyText,
                              field.emptyText, Article(type), TypeName(type));
        return false;
    }
    LookAtClock();
    return true;
}

std::vector<std::string> RowCheck::Columns() const {
    std::vector<std::string> columns = {options_.timeColumn};
    for (std::size_t i = 0; i < options_.fields.size(); ++i) {
        if (static_cast<int>(i) != options_.numberedField) columns.push_back(options_.fields[i].column);
    }
    return columns;
}

void RowCheck::LookAtClock() {
    long const nowUs = NowUs();
    if (__builtin_add_overflow(nowUs, options_.maxFutureUs, &latestUs_)) latestUs_ = std::numeric_limits<long>::max();
    earliestUs_ = options_.maxPastUs < 0 ? 0 : nowUs - options_.maxPastUs;
}

bool RowCheck::Check(std::span<Cell const> cells, long& timeUs, std::vector<brindle_Value>& values) {
    values.resize(options_.fields.size());
    if (!CheckTime(cells[0], timeUs)) return false;
    std::size_t cell = 1;
    for (std::size_t i = 0; i < values.size(); ++i) {
        auto const index = static_cast<int>(i);
        if (index == options_.numberedField) {
            values[i] = brindle_Value::Number(SUTS_INT64, 0);
        } else if (!CheckField(index, cells[cell++], values[i])) {
            return false;
        }
    }
    return true;
}

bool RowCheck::CheckTime(Cell const& cell, long& timeUs) {
    if (cell.kind == Cell::ABSENT) return Fail(fmt::format("there is no member '{}'", Shown(options_.timeColumn)));
    if (cell.kind == Cell::NESTED || !times_.Read(cell.text, timeUs)) {
        return Fail(fmt::format("{}: '{}' is {}", Shown(options_.timeColumn), Shown(cell.text), times_.Expected()));
    }
    if (timeUs < 0) {
        return Fail(fmt::format("{}: '{}' is before 1970, which the server refuses", Shown(options_.timeColumn),
                                Shown(cell.text)));
    }
    if (timeUs > latestUs_ || timeUs < earliestUs_) LookAtClock();
    if (timeUs <= latestUs_ && timeUs >= earliestUs_) return true;
    std::string iso;
    AppendIsoTime(iso, timeUs);
    return Fail(timeUs > latestUs_
                    ? fmt::format("{}: '{}' ({}) is further in the future than --max-future lets through; such a time "
                                  "would keep the server from shipping",
                                  Shown(options_.timeColumn), Shown(cell.text), iso)
                    : fmt::format("{}: '{}' ({}) is further in the past than --max-past lets through",
                                  Shown(options_.timeColumn), Shown(cell.text), iso));
}

bool RowCheck::CheckField(int index, Cell const& cell, brindle_Value& value) {
    auto const i = static_cast<std::size_t>(index);
    Field const& field = options_.fields[i];
    suts_FieldType const type = spec_->Type(index);
    if (cell.kind == Cell::TEXT) [[likely]] {
        if (cell.text.empty() && field.hasEmpty) {
            value = emptyValues_[i];
            return true;
        }
        if (ParseValue(cell.text, type, value)) [[likely]]
            return true;
    } else if (cell.kind == Cell::ABSENT && field.hasEmpty) {
        value = emptyValues_[i];
        return true;
    }
    std::string const name = Shown(spec_->fieldNames[i].get());
    if (cell.kind == Cell::ABSENT) {
        return Fail(
            fmt::format("there is no member '{}'; --empty {}=VALUE gives it a value", Shown(field.column), name));
    }
    if (cell.kind == Cell::NESTED) {
        return Fail(fmt::format("{}: an {} is not {} {}", name, cell.text == "[" ? "array" : "object", Article(type),
                                TypeName(type)));
    }
    if (type == SUTS_STRING64) return Fail(fmt::format("{}: the text holds a NUL, which a string64 cannot", name));
    if (cell.text.empty()) {
        return Fail(fmt::format("{}: '' is not {} {}; --empty {}=VALUE gives empty cells a value", name, Article(type),
                                TypeName(type), name));
    }
    return Fail(fmt::format("{}: '{}' is not {} {}", name, Shown(cell.text), Article(type), TypeName(type)));
}

bool RowCheck::Fail(std::string problem) {
    problem_ = std::move(problem);
    return false;
}
