#include "time_reader.h"

#include <date/tz.h>
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <stdexcept>

#include "time_text.h"

namespace {

using std::chrono::microseconds;
using LocalTime = date::local_time<microseconds>;

constexpr int SECOND_DECIMALS = 6;
constexpr int MILLISECOND_DECIMALS = 3;
constexpr int NANOSECOND_DECIMALS = -3;

struct Unit {
    std::string_view format;
    int decimals;
    char const* name;
};
constexpr Unit UNITS[] = {{"s", SECOND_DECIMALS, "seconds"},
                          {"ms", MILLISECOND_DECIMALS, "milliseconds"},
                          {"us", 0, "microseconds"},
                          {"ns", NANOSECOND_DECIMALS, "nanoseconds"}};

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsPoint(char c) { return c == '.' || c == ','; }

// The text without the digits beyond the sixth of its seconds, which the pattern would stop at. Their point has so many
// others before it.
std::string CutFraction(std::string_view text, std::size_t pointsBefore) {
    std::size_t at = 0;
    while (at < text.size() && !(IsPoint(text[at]) && pointsBefore-- == 0)) ++at;
    std::size_t end = std::min(at + 1, text.size());
    while (end < text.size() && IsDigit(text[end])) ++end;
    std::string cut(text);
    std::size_t const kept = at + 1 + static_cast<std::size_t>(SECOND_DECIMALS);
    if (end > kept) cut.erase(kept, end - kept);
    return cut;
}

}  // namespace

bool ParseDecimalTime(std::string_view text, int decimals, long& timeUs) {
    bool const isNegative = text.starts_with('-');
    if (isNegative) text.remove_prefix(1);
    std::size_t const point = std::min(text.find('.'), text.size());
    std::string_view const whole = text.substr(0, point);
    std::string_view const fraction = text.substr(std::min(point + 1, text.size()));
    if (whole.empty() || (point < text.size() && fraction.empty()) ||
        !std::all_of(whole.begin(), whole.end(), IsDigit) || !std::all_of(fraction.begin(), fraction.end(), IsDigit)) {
        return false;
    }
    // The digits of both, as many as make microseconds; what is dropped counts only when it rounds to the past.
    long const kept = static_cast<long>(whole.size()) + decimals;
    long value = 0;
    bool dropsMore = false;
    auto const digitAt = [&](std::size_t i) {
        if (i < whole.size()) return whole[i] - '0';
        return i - whole.size() < fraction.size() ? fraction[i - whole.size()] - '0' : 0;
    };
    std::size_t const digits =
        std::max<std::size_t>(whole.size() + fraction.size(), static_cast<std::size_t>(std::max(kept, 0L)));
    for (std::size_t i = 0; i < digits; ++i) {
        int const digit = digitAt(i);
        if (static_cast<long>(i) >= kept) {
            dropsMore = dropsMore || digit != 0;
        } else if (__builtin_mul_overflow(value, 10, &value) || __builtin_add_overflow(value, digit, &value)) {
            return false;
        }
    }
    timeUs = isNegative ? -value - (dropsMore ? 1 : 0) : value;
    return true;
}

int GuessTimeDecimals(std::string_view text) {
    if (text.starts_with('-')) text.remove_prefix(1);
    while (text.size() > 1 && text[0] == '0') text.remove_prefix(1);
    std::size_t const digits = std::min(text.find('.'), text.size());
    constexpr std::size_t SECOND_DIGITS = 11;
    constexpr std::size_t MILLISECOND_DIGITS = 14;
    constexpr std::size_t MICROSECOND_DIGITS = 17;
    return digits <= SECOND_DIGITS        ? SECOND_DECIMALS
           : digits <= MILLISECOND_DIGITS ? MILLISECOND_DECIMALS
           : digits <= MICROSECOND_DIGITS ? 0
                                          : NANOSECOND_DECIMALS;
}

// A zone, and the span of time for which its offset was asked last.
struct TimeReader::Zone {
    date::time_zone const* zone = nullptr;
    LocalTime begin{microseconds(1)};  // empty at first
    LocalTime end{microseconds(0)};
    microseconds ahead{0};

    // False for a local time that there is not.
    bool ToUtc(LocalTime local, long& timeUs) {
        if (local < begin || local >= end) {
            date::local_info const info = zone->get_info(local);
            if (info.result == date::local_info::nonexistent) return false;
            ahead = info.first.offset;
            // A day off either end, every time is unique. Around them nothing is kept.
            auto const far = date::days(1);
            begin = LocalTime(microseconds(1));
            end = LocalTime(microseconds(0));
            if (info.first.end - info.first.begin > 4 * far) {
                LocalTime const first(date::floor<microseconds>((info.first.begin + far).time_since_epoch()));
                LocalTime const last(date::floor<microseconds>((info.first.end - far).time_since_epoch()));
                if (local >= first && local < last) {
                    begin = first;
                    end = last;
                }
            }
        }
        timeUs = (local.time_since_epoch() - ahead).count();
        return true;
    }
};

struct TimeReader::Pattern {
    std::string format;
    bool saysOffset = false;
    bool endsWithOffset = false;
    bool hasSeconds = false;
    std::size_t pointsBeforeSeconds = 0;
    std::istringstream stream;  // kept, since making one is dear

    // False for a zone by name, which would be read and not heeded.
    bool Look() {
        for (std::size_t i = 0; i < format.size(); ++i) {
            if (IsPoint(format[i]) && !hasSeconds) ++pointsBeforeSeconds;
            if (format[i] != '%') continue;
            ++i;
            if (i + 1 < format.size() && (format[i] == 'E' || format[i] == 'O')) ++i;
            char const what = i < format.size() ? format[i] : '%';
            if (what == 'Z') return false;
            saysOffset = saysOffset || what == 'z';
            endsWithOffset = what == 'z' && i + 1 == format.size();
            hasSeconds = hasSeconds || what == 'S' || what == 'T';
        }
        return true;
    }
};

TimeReader::TimeReader() : expected_("neither an ISO 8601 time nor microseconds since 1970") {}

TimeReader::~TimeReader() = default;

bool TimeReader::Set(std::string const& format, std::string const& zone, std::string& problem) {
    auto const* const unit = std::find_if(std::begin(UNITS), std::end(UNITS),
                                          [&](Unit const& candidate) { return candidate.format == format; });
    if (unit != std::end(UNITS)) {
        format_ = UNIT;
        decimals_ = unit->decimals;
        expected_ = fmt::format("no number of {} since 1970", unit->name);
    } else if (format == "iso8601") {
        format_ = ISO;
        expected_ = "no ISO 8601 time";
    } else if (format == "auto") {
        format_ = AUTO;
        expected_ = "neither an ISO 8601 time nor a number since 1970";
    } else if (format.find('%') != std::string::npos) {
        format_ = PATTERN;
        expected_ = fmt::format("no time as '{}'", format);
        pattern_ = std::make_unique<Pattern>();
        pattern_->format = format;
        if (!pattern_->Look()) {
            problem = fmt::format("'{}' says a zone by name; use %z for an offset, or --time-zone", format);
            return false;
        }
        pattern_->stream.imbue(std::locale::classic());
    } else if (!format.empty()) {
        problem = fmt::format(
            "'{}' is no format of times; take iso8601, s, ms, us, ns, auto or a pattern such as %d.%m.%Y", format);
        return false;
    }
    if (zone.empty()) return true;
    try {
        date::time_zone const* const found = date::locate_zone(zone);
        zone_ = std::make_unique<Zone>();
        zone_->zone = found;
    } catch (std::exception const&) {
        problem = fmt::format("'{}' is no time zone of this system; take a name such as Europe/Berlin", zone);
        return false;
    }
    return true;
}

bool TimeReader::Read(std::string_view text, long& timeUs) {
    bool const isNumber = !text.empty() && (IsDigit(text[0]) || text[0] == '-') &&
                          text.find_first_not_of("0123456789.", 1) == std::string_view::npos;
    switch (format_) {
        case DEFAULT:
            return zone_ == nullptr || isNumber ? ParseTime(text, timeUs) : ReadIso(text, timeUs);
        case ISO:
            return ReadIso(text, timeUs);
        case UNIT:
            return ParseDecimalTime(text, decimals_, timeUs);
        case AUTO:
            return isNumber ? ParseDecimalTime(text, GuessTimeDecimals(text), timeUs) : ReadIso(text, timeUs);
        case PATTERN:
            return ReadPattern(text, timeUs);
    }
    return false;
}

bool TimeReader::ReadIso(std::string_view text, long& timeUs) {
    bool saysOffset = false;
    long readUs = 0;
    if (!ParseIsoTime(text, readUs, saysOffset)) return false;
    if (zone_ != nullptr && !saysOffset) return zone_->ToUtc(LocalTime(microseconds(readUs)), timeUs);
    timeUs = readUs;
    return true;
}

bool TimeReader::ReadPattern(std::string_view text, long& timeUs) {
    std::istringstream& stream = pattern_->stream;
    stream.clear();
    stream.str(pattern_->hasSeconds ? CutFraction(text, pattern_->pointsBeforeSeconds) : std::string(text));
    LocalTime local;
    std::chrono::minutes ahead{0};
    std::string abbreviation;
    date::from_stream(stream, pattern_->format.c_str(), local, &abbreviation, &ahead);
    if (stream.fail() || stream.peek() != std::istringstream::traits_type::eof()) return false;
    if (pattern_->saysOffset) {
        // The library takes any four digits for an offset.
        if (std::chrono::abs(ahead) >= std::chrono::hours(24)) return false;
        if (pattern_->endsWithOffset && text.size() > 1 && text[text.size() - 2] >= '6') return false;
        timeUs = (local.time_since_epoch() - ahead).count();
        return true;
    }
    if (zone_ != nullptr) return zone_->ToUtc(local, timeUs);
    timeUs = local.time_since_epoch().count();
    return true;
}
