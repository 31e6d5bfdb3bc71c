#include "numbers.h"

#include <fmt/format.h>

#include <charconv>
#include <iterator>

bool StreamRanges::Has(unsigned long count) const {
    if (count <= watermark_) return true;
    auto const after = above_.upper_bound(count);
    return after != above_.begin() && std::prev(after)->second >= count;
}

bool StreamRanges::Add(unsigned long count) {
    if (Has(count)) return false;
    if (count == watermark_ + 1) {
        watermark_ = count;
        auto const first = above_.begin();
        if (first != above_.end() && first->first == watermark_ + 1) {
            watermark_ = first->second;
            above_.erase(first);
        }
        return true;
    }
    auto const after = above_.upper_bound(count);
    bool const joinsAfter = after != above_.end() && after->first == count + 1;
    if (after != above_.begin() && std::prev(after)->second + 1 == count) {
        auto const before = std::prev(after);
        before->second = joinsAfter ? after->second : count;
        if (joinsAfter) above_.erase(after);
        return true;
    }
    unsigned long const last = joinsAfter ? after->second : count;
    auto const place = joinsAfter ? above_.erase(after) : after;
    above_.emplace_hint(place, count, last);
    return true;
}

std::string StreamRanges::Text() const {
    std::string text = watermark_ > 0 ? fmt::format("1-{}", watermark_) : "";
    for (auto const& [first, last] : above_) {
        if (!text.empty()) text += ',';
        text += std::to_string(first);
        if (first != last) text += '-' + std::to_string(last);
    }
    return text;
}

std::optional<StreamRanges> StreamRanges::Of(std::string_view text) {
    StreamRanges ranges;
    unsigned long before = 0;  // the last count of the ranges so far
    while (!text.empty()) {
        unsigned long first = 0;
        char const* const end = text.data() + text.size();
        auto read = std::from_chars(text.data(), end, first);
        if (read.ec != std::errc()) return std::nullopt;
        unsigned long last = first;
        if (read.ptr != end && *read.ptr == '-') read = std::from_chars(read.ptr + 1, end, last);
        bool const touches = before > 0 && first == before + 1;
        if (read.ec != std::errc() || first <= before || touches || last < first) return std::nullopt;
        if (read.ptr != end && (*read.ptr != ',' || read.ptr + 1 == end)) return std::nullopt;
        if (first == 1) {
            ranges.watermark_ = last;
        } else {
            ranges.above_.emplace_hint(ranges.above_.end(), first, last);
        }
        before = last;
        text.remove_prefix(static_cast<std::size_t>(read.ptr - text.data()) + (read.ptr == end ? 0 : 1));
    }
    return ranges;
}
