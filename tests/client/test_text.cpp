#include <gtest/gtest.h>

#include <bit>
#include <limits>

#include "terminal_text.h"
#include "time_reader.h"
#include "time_text.h"
#include "value_text.h"

namespace {

TEST(TimeText, ReadsIsoTimesAndMicroseconds) {
    struct {
        char const* text;
        long timeUs;
    } const rows[] = {
        {"0", 0},
        {"9223372036854775807", std::numeric_limits<long>::max()},
        {"2001-01-01T00:15:00Z", 978308100000000},
        {"2001-01-01 00:15", 978308100000000},
        {"2000-02-29T23:59:59.999999Z", 951868799999999},
        {"2001-01-01T00:15:00.5z", 978308100500000},
        {"2001-01-01T00:15:00,0000019Z", 978308100000001},
        {"2001-01-01T01:15:00+01:00", 978308100000000},
        {"2000-12-31T18:45:00-0530", 978308100000000},
        {"1969-12-31T23:59:59.999999Z", -1},
    };
    for (auto const& row : rows) {
        long timeUs = 0;
        EXPECT_TRUE(ParseTime(row.text, timeUs)) << row.text;
        EXPECT_EQ(timeUs, row.timeUs) << row.text;
    }
}

TEST(TimeText, RefusesWhatIsNoTime) {
    // Divided by bars.
    std::string_view texts =
        "|x|1.5|9223372036854775808|2001-1-1|2001-02-29|2001-13-01|2001-00-10|2001-01-01T|2001-01-01T24:00:00Z|"
        "2001-01-01T12:60:00Z|2001-01-01T12:00:60Z|2001-01-01T12:00:00.Z|2001-01-01T12:00:00ZZ|"
        "2001-01-01T12:00:00+01:0|2001-01-01Z| 2001-01-01|2001-01-01T12:00:00 Z";
    for (std::size_t end = 0;; texts.remove_prefix(end + 1)) {
        end = std::min(texts.find('|'), texts.size());
        long timeUs = 7;
        EXPECT_FALSE(ParseTime(texts.substr(0, end), timeUs)) << texts;
        if (end == texts.size()) break;
    }
}

TEST(TimeReader, ReadsTheFormatsOfSources) {
    constexpr long REFUSED = -7;
    struct {
        char const* format;
        char const* zone;
        char const* text;
        long timeUs;
    } const rows[] = {
        {"", "", "978307200000001", 978307200000001},
        {"", "Europe/Berlin", "978307200000001", 978307200000001},
        {"", "Europe/Berlin", "2001-01-01 01:00", 978307200000000},
        {"", "Europe/Berlin", "2001-01-01T01:00Z", 978310800000000},
        {"iso8601", "", "978307200000001", REFUSED},
        {"s", "", "978307200.1234567", 978307200123456},
        {"s", "", "-0.0000001", -1},
        {"s", "", "9223372036855", REFUSED},
        {"s", "", "1.", REFUSED},
        {"s", "", "2001-01-01", REFUSED},
        {"ms", "", "978307200000.5", 978307200000500},
        {"us", "", "978307200000000.9", 978307200000000},
        {"ns", "", "978307200000000999", 978307200000000},
        {"ns", "", "-1", -1},
        {"auto", "", "99999999999", 99999999999000000},
        {"auto", "", "100000000000", 100000000000000},
        {"auto", "", "99999999999999", 99999999999999000},
        {"auto", "", "100000000000000", 100000000000000},
        {"auto", "", "100000000000000000", 100000000000000},
        {"auto", "", "2001-01-01", 978307200000000},
        {"%d/%b/%Y:%H:%M:%S %z", "", "01/Jan/2001:01:00:00 +0100", 978307200000000},
        {"%d.%m.%Y %H:%M:%S", "", "01.01.2001 00:00:00.1234567", 978307200123456},
        {"%d.%m.%Y %H:%M:%S %z %%", "", "01.01.2001 01:00:00.1234567 +0100 %", 978307200123456},
        {"%Y.%j%H%M", "", "2001.0010130", 978312600000000},
        {"%Y.%j%H%M%S", "", "2001.001013000.0000019", 978312600000001},
        {"%F %T %%z", "Europe/Berlin", "2001-01-01 01:00:00 %z", 978307200000000},
        {"%F %T %z", "", "2001-01-01 00:00:00 +9999", REFUSED},
        {"%F %T%z", "", "2001-01-01 00:00:00-0060", REFUSED},
        {"%d.%m.%Y", "", "31.02.2001", REFUSED},
        {"%d.%m.%Y", "", "01.01.2001x", REFUSED},
        {"%H:%M", "", "12:00", REFUSED},
        // Clocks go from 1:59 to 3:00 there, and in autumn from 2:59 to 2:00.
        {"iso8601", "Europe/Berlin", "2001-03-25T01:59:59", 985481999000000},
        {"iso8601", "Europe/Berlin", "2001-03-25T02:30:00", REFUSED},
        {"iso8601", "Europe/Berlin", "2001-03-25T03:00:00", 985482000000000},
        {"iso8601", "Europe/Berlin", "2001-10-28T02:30:00", 1004229000000000},
        {"iso8601", "Europe/Berlin", "2001-10-28T03:00:00", 1004234400000000},
    };
    for (auto const& row : rows) {
        TimeReader reader;
        std::string problem;
        ASSERT_TRUE(reader.Set(row.format, row.zone, problem)) << problem;
        for (int i = 0; i < 2; ++i) {
            long timeUs = REFUSED;
            EXPECT_EQ(reader.Read(row.text, timeUs), row.timeUs != REFUSED) << row.format << " " << row.text;
            EXPECT_EQ(timeUs, row.timeUs) << row.format << " " << row.text;
        }
    }
    TimeReader named;
    std::string told;
    EXPECT_FALSE(named.Set("%F %T %Z", "", told));
    EXPECT_NE(told.find("says a zone by name"), std::string::npos);
    // What is remembered of a zone must not be taken for other times.
    TimeReader reader;
    std::string problem;
    ASSERT_TRUE(reader.Set("", "Europe/Berlin", problem));
    for (auto const& row : rows) {
        if (std::string_view(row.format) != "iso8601" || *row.zone == 0) continue;
        long timeUs = REFUSED;
        EXPECT_EQ(reader.Read(row.text, timeUs), row.timeUs != REFUSED) << row.text;
        EXPECT_EQ(timeUs, row.timeUs) << row.text;
    }
}

TEST(ValueText, ChecksValuesAgainstTheirType) {
    struct {
        std::string_view text;
        suts_FieldType type;
        bool accepted;
    } const rows[] = {
        {"-2147483648", SUTS_INT32, true},
        {"", SUTS_INT32, false},
        {"2147483648", SUTS_INT32, false},
        {"0x10", SUTS_INT32, false},
        {"9223372036854775808", SUTS_INT64, false},
        {"1e308", SUTS_FLOAT64, true},
        {"-.5", SUTS_FLOAT64, true},
        {"1e309", SUTS_FLOAT64, false},
        {"1,5", SUTS_FLOAT64, false},
        {"nan:7ff0000000000001", SUTS_FLOAT64, true},
        {"nan:3ff0000000000000", SUTS_FLOAT64, false},
        {"nan:7ff", SUTS_FLOAT64, false},
        {"", SUTS_STRING64, true},
        {std::string_view("a\0b", 3), SUTS_STRING64, false},
    };
    for (auto const& row : rows) {
        brindle_Value value;
        EXPECT_EQ(ParseValue(row.text, row.type, value), row.accepted) << TypeName(row.type) << " " << row.text;
    }
}

TEST(ValueText, WritesCsvAndJson) {
    auto const text = [](std::string_view characters) { return brindle_Value::Text(characters); };
    struct {
        brindle_Value value;
        char const* csv;
        char const* json;
    } const rows[] = {
        {text("a,\r\n\t\x01"), "\"a,\r\n\t\x01\"", R"("a,\r\n\t\u0001")"},
        {text("say \"x\""), R"("say ""x""")", R"("say \"x\"")"},
        {text("\xC3\xA9"), "\xC3\xA9", "\"\xC3\xA9\""},
        {text("\xFF."), "\xFF.", R"({"hex":"ff2e"})"},
        {text("\xC3"), "\xC3", R"({"hex":"c3"})"},
        {brindle_Value::Number(SUTS_INT64, std::numeric_limits<long>::min()), "-9223372036854775808",
         "-9223372036854775808"},
        {brindle_Value::Real(-0.0), "-0", "-0.0"},
        {brindle_Value::Real(-std::numeric_limits<double>::infinity()), "-inf", R"("-inf")"},
        {brindle_Value::Real(std::bit_cast<double>(0xfff8000000000000)), "nan:fff8000000000000",
         R"("nan:fff8000000000000")"},
    };
    for (auto const& row : rows) {
        std::string csv;
        AppendCsv(csv, row.value);
        EXPECT_EQ(csv, row.csv);
        std::string json;
        AppendJson(json, row.value);
        EXPECT_EQ(json, row.json);
    }
}

TEST(TerminalText, HoldsNothingThatMovesTheCursor) {
    std::pair<std::string_view, char const*> const rows[] = {
        {"\033[31m\t", R"(\x1b[31m\x09)"},
        {"\xC2\x9B"
         "1m",
         R"(\xc2\x9b1m)"},  // a C1 control character, in UTF-8
        {"\x9B"
         "1m",
         R"(\x9b1m)"},  // and by itself
        {"\xE2\x80\xAE", R"(\xe2\x80\xae)"},
        {"\xC3\xA9\xE6\x97\xA5\xC3", "\xC3\xA9\xE6\x97\xA5\\xc3"},
    };
    for (auto const& [text, shown] : rows) EXPECT_EQ(shown, ForTerminal(text));
    EXPECT_EQ(std::string(59, 'x'), Shown(std::string(59, 'x') + "\xC3\xA9"));
}

}  // namespace
