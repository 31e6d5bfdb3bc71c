// Times in the formats that sources have.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

// Reads times in one format, which is chosen once. One thread at a time.
// | format            | text                                                                                          |
// |-------------------|-----------------------------------------------------------------------------------------------|
// | (none)            | ISO 8601, or whole microseconds since 1970                                                    |
// | iso8601           | ISO 8601 alone                                                                                |
// | s, ms, us, ns     | so many since 1970, perhaps with decimals                                                     |
// | auto              | ISO 8601, or a number since 1970 whose unit follows from its size: seconds below 10^11, then  |
// |                   | milliseconds below 10^14, microseconds below 10^17, nanoseconds                               |
// | with a percent    | as strptime has it; seconds may have decimals                                                 |
// Digits beyond microseconds are dropped, towards the past. A time that does not say its zone is in the one that was
// chosen, else UTC: where clocks were set back it is the first of the two times that it may be, and where they were set
// ahead it is none.
class TimeReader {
 public:
    TimeReader();
    ~TimeReader();

    // An empty text stands for the default of each. False, and the problem, for a format or a zone that there is not.
    [[nodiscard]] bool Set(std::string const& format, std::string const& zone, std::string& problem);

    // False, and the time unchanged, for anything else. A time before 1970 is negative.
    [[nodiscard]] bool Read(std::string_view text, long& timeUs);

    [[nodiscard]] std::string const& Expected() const { return expected_; }  // behind "is "

 private:
    enum Format : std::uint8_t { DEFAULT, ISO, UNIT, AUTO, PATTERN };
    struct Zone;
    struct Pattern;

    [[nodiscard]] bool ReadIso(std::string_view text, long& timeUs);
    [[nodiscard]] bool ReadPattern(std::string_view text, long& timeUs);

    Format format_ = DEFAULT;
    int decimals_ = 0;  // of the unit, to the left of the microsecond: 6 for seconds, -3 for nanoseconds
    std::string expected_;
    std::unique_ptr<Zone> zone_;        // none for UTC
    std::unique_ptr<Pattern> pattern_;  // only for one
};

// Reads a decimal number of a unit that is 10^decimals microseconds. False when it is none, or out of range.
[[nodiscard]] bool ParseDecimalTime(std::string_view text, int decimals, long& timeUs);
// The decimals of the unit that a number of this size probably has.
[[nodiscard]] int GuessTimeDecimals(std::string_view text);
