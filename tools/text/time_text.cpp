#include "time_text.h"

#include <date/date.h>
#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <iterator>

namespace {

using std::chrono::microseconds;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsWholeNumber(std::string_view text) {
    if (text.starts_with('-')) text.remove_prefix(1);
    return std::all_of(text.begin(), text.end(), IsDigit);
}

// Takes a text from its start, piece by piece. Each function takes nothing where it returns false.
class Cursor {
 public:
    explicit Cursor(std::string_view text) : left_(text) {}

    [[nodiscard]] bool AtEnd() const { return left_.empty(); }

    bool TakeAnyOf(std::string_view characters) {
        for (char const c : characters) {
            if (left_.empty() || left_.front() != c) continue;
            left_.remove_prefix(1);
            return true;
        }
        return false;
    }

    // Exactly so many digits.
    bool TakeNumber(std::size_t digits, int& value) {
        if (left_.size() < digits) return false;
        int number = 0;
        for (std::size_t i = 0; i < digits; ++i) {
            if (!IsDigit(left_[i])) return false;
            number = 10 * number + (left_[i] - '0');
        }
        value = number;
        left_.remove_prefix(digits);
        return true;
    }

    // The digits behind a decimal point.
    bool TakeFraction(long& valueUs) {
        std::size_t const digits = DigitsAhead();
        if (digits == 0) return false;
        valueUs = 0;
        for (std::size_t i = 0; i < 6; ++i) valueUs = 10 * valueUs + (i < digits ? left_[i] - '0' : 0);
        left_.remove_prefix(digits);
        return true;
    }

 private:
    [[nodiscard]] std::size_t DigitsAhead() const {
        std::size_t digits = 0;
        while (digits < left_.size() && IsDigit(left_[digits])) ++digits;
        return digits;
    }

    std::string_view left_;
};

bool TakeDate(Cursor& cursor, date::sys_days& day) {
    int year = 0;
    int month = 0;
    int dayOfMonth = 0;
    if (!cursor.TakeNumber(4, year) || !cursor.TakeAnyOf("-") || !cursor.TakeNumber(2, month) ||
        !cursor.TakeAnyOf("-") || !cursor.TakeNumber(2, dayOfMonth)) {
        return false;
    }
    auto const named = date::year(year) / month / dayOfMonth;
    if (!named.ok()) return false;
    day = date::sys_days(named);
    return true;
}

bool TakeTimeOfDay(Cursor& cursor, microseconds& time) {
    int hour = 0;
    int minute = 0;
    int second = 0;
    long fractionUs = 0;
    if (!cursor.TakeNumber(2, hour) || !cursor.TakeAnyOf(":") || !cursor.TakeNumber(2, minute)) return false;
    if (cursor.TakeAnyOf(":")) {
        if (!cursor.TakeNumber(2, second)) return false;
        if (cursor.TakeAnyOf(".,") && !cursor.TakeFraction(fractionUs)) return false;
    }
    if (hour > 23 || minute > 59 || second > 59) return false;
    time = std::chrono::hours(hour) + std::chrono::minutes(minute) + std::chrono::seconds(second) +
           microseconds(fractionUs);
    return true;
}

// What local time is ahead of UTC; 0 where nothing is said.
bool TakeOffset(Cursor& cursor, microseconds& ahead) {
    if (cursor.AtEnd() || cursor.TakeAnyOf("Zz")) return true;
    bool const east = cursor.TakeAnyOf("+");
    if (!east && !cursor.TakeAnyOf("-")) return false;
    int hour = 0;
    int minute = 0;
    if (!cursor.TakeNumber(2, hour)) return false;
    // The minutes may be left out.
    if (!cursor.AtEnd()) {
        cursor.TakeAnyOf(":");
        if (!cursor.TakeNumber(2, minute)) return false;
    }
    if (hour > 23 || minute > 59) return false;
    ahead = std::chrono::hours(hour) + std::chrono::minutes(minute);
    if (!east) ahead = -ahead;
    return true;
}

}  // namespace

bool ParseTime(std::string_view text, long& timeUs) {
    if (IsWholeNumber(text)) {
        auto const [end, error] = std::from_chars(text.begin(), text.end(), timeUs);
        return error == std::errc() && end == text.end();
    }
    bool saysOffset = false;
    return ParseIsoTime(text, timeUs, saysOffset);
}

bool ParseIsoTime(std::string_view text, long& timeUs, bool& saysOffset) {
    Cursor cursor(text);
    date::sys_days day;
    microseconds time{0};
    microseconds ahead{0};
    if (!TakeDate(cursor, day)) return false;
    bool hasOffset = false;
    if (cursor.TakeAnyOf("Tt ")) {
        if (!TakeTimeOfDay(cursor, time)) return false;
        hasOffset = !cursor.AtEnd();
        if (!TakeOffset(cursor, ahead)) return false;
    }
    if (!cursor.AtEnd()) return false;
    saysOffset = hasOffset;
    timeUs = microseconds(day.time_since_epoch() + time - ahead).count();
    return true;
}

// From year 0000 to the end of 9999.
constexpr long ISO_TIME_MIN_US = -62167219200000000;
constexpr long ISO_TIME_MAX_US = 253402300799999999;

void AppendIsoTime(std::string& out, long timeUs) {
    // Years of more than four digits are no ISO times without further agreement; the microseconds say it as well.
    if (timeUs < ISO_TIME_MIN_US || timeUs > ISO_TIME_MAX_US) {
        fmt::format_to(std::back_inserter(out), "{}", timeUs);
        return;
    }
    auto const time = date::sys_time<microseconds>(microseconds(timeUs));
    auto const day = date::floor<date::days>(time);
    date::year_month_day const named(day);
    date::hh_mm_ss<microseconds> const clock(time - day);
    fmt::format_to(std::back_inserter(out), "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(named.year()),
                   static_cast<unsigned>(named.month()), static_cast<unsigned>(named.day()), clock.hours().count(),
                   clock.minutes().count(), clock.seconds().count());
    if (clock.subseconds().count() != 0) fmt::format_to(std::back_inserter(out), ".{:06}", clock.subseconds().count());
    out += 'Z';
}

long NowUs() {
    auto const now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}
