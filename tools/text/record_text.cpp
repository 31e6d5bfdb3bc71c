#include "record_text.h"

#include <fmt/format.h>

#include <utility>

#include "value_text.h"

namespace {

template <typename Number>
void AppendNumber(std::string& out, Number number) {
    fmt::format_int const digits(number);
    out.append(digits.data(), digits.size());
}

}  // namespace

RecordText::RecordText(suts_tsspec const& spec, std::vector<std::string> leadingNames, std::string timeName)
    : hasTime_(!timeName.empty()), names_(std::move(leadingNames)) {
    if (hasTime_) names_.push_back(std::move(timeName));
    for (int i = 0; i < spec.fieldCount; ++i) names_.emplace_back(spec.fieldNames[static_cast<std::size_t>(i)].get());
    for (std::string const& name : names_) {
        std::string& text = jsonNames_.emplace_back(jsonNames_.empty() ? "{" : ",");
        AppendJson(text, name);
        text += ':';
    }
}

void RecordText::AppendCsvHeader(std::string& out) const {
    for (std::size_t i = 0; i < names_.size(); ++i) {
        if (i > 0) out += ',';
        AppendCsv(out, names_[i]);
    }
    out += '\n';
}

void RecordText::AppendCsvRow(std::string& out, std::span<unsigned long const> leading, long timeUs,
                              std::span<brindle_Value const> values) const {
    for (unsigned long const number : leading) {
        AppendNumber(out, number);
        out += ',';
    }
    if (hasTime_) {
        AppendNumber(out, timeUs);
        out += ',';
    }
    for (brindle_Value const& value : values) {
        AppendCsv(out, value);
        out += ',';
    }
    out.back() = '\n';
}

void RecordText::AppendJsonLine(std::string& out, std::span<unsigned long const> leading, long timeUs,
                                std::span<brindle_Value const> values) const {
    auto name = jsonNames_.begin();
    for (unsigned long const number : leading) {
        out += *name++;
        AppendNumber(out, number);
    }
    if (hasTime_) {
        out += *name++;
        AppendNumber(out, timeUs);
    }
    for (brindle_Value const& value : values) {
        out += *name++;
        AppendJson(out, value);
    }
    out += "}\n";
}
