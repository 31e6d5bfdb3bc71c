#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include "time_text.h"
#include "value_text.h"

namespace {

TEST(TimeText, ReadsIsoTimesAndMicroseconds) {
    struct {
        char const* text;
        long timeUs;
    } const rows[] = {
        {"0", 0},
        {"-1", -1},
        {"9223372036854775807", std::numeric_limits<long>::max()},
        {"1970-01-01", 0},
        {"2001-01-01T00:15:00Z", 978308100000000},
        {"2001-01-01 00:15", 978308100000000},
        {"2000-02-29T23:59:59.999999Z", 951868799999999},
        {"2001-01-01T00:15:00.5z", 978308100500000},
        {"2001-01-01T00:15:00,0000019Z", 978308100000001},
        {"2001-01-01T01:15:00+01:00", 978308100000000},
        {"2000-12-31T18:45:00-0530", 978308100000000},
        {"1969-12-31T23:59:59.999999Z", -1},
        {"9999-12-31T23:59:59Z", 253402300799000000},
    };
    for (auto const& row : rows) {
        long timeUs = 0;
        EXPECT_TRUE(ParseTime(row.text, timeUs)) << row.text;
        EXPECT_EQ(timeUs, row.timeUs) << row.text;
    }
}

TEST(TimeText, RefusesWhatIsNoTime) {
    for (char const* const text : {"",
                                   "-",
                                   "x",
                                   "1.5",
                                   "9223372036854775808",

                                   "2001-1-1",
                                   "2001-02-29",
                                   "2001-13-01",
                                   "2001-00-10",
                                   "2001-01-01T",
                                   "2001-01-01T24:00:00Z",
                                   "2001-01-01T12:60:00Z",
                                   "2001-01-01T12:00:60Z",
                                   "2001-01-01T12:00:00.Z",
                                   "2001-01-01T12:00:00ZZ",
                                   "2001-01-01T12:00:00+1",
                                   "2001-01-01T12:00:00+01:0",
                                   "2001-01-01Z",
                                   " 2001-01-01",
                                   "2001-01-01T12:00:00 Z"}) {
        long timeUs = 7;
        EXPECT_FALSE(ParseTime(text, timeUs)) << text;
    }
}

TEST(TimeText, WritesWhatItReads) {
    for (char const* const text : {"1970-01-01T00:00:00Z", "2001-01-01T00:15:00Z", "2018-02-07T00:22:22.325000Z",
                                   "1969-12-31T23:59:59.999999Z", "2400-02-29T12:00:00.000001Z"}) {
        long timeUs = 0;
        ASSERT_TRUE(ParseTime(text, timeUs)) << text;
        std::string written;
        AppendIsoTime(written, timeUs);
        EXPECT_EQ(written, text);
    }
}

TEST(ValueText, ChecksValuesAgainstTheirType) {
    struct {
        std::string_view text;
        suts_FieldType type;
        bool accepted;
    } const rows[] = {
        {"2147483647", SUTS_INT32, true},
        {"-2147483648", SUTS_INT32, true},
        {"2147483648", SUTS_INT32, false},
        {"", SUTS_INT32, false},
        {" 1", SUTS_INT32, false},
        {"1.0", SUTS_INT32, false},
        {"0x10", SUTS_INT32, false},
        {"-9223372036854775808", SUTS_INT64, true},
        {"9223372036854775808", SUTS_INT64, false},
        {"1e308", SUTS_FLOAT64, true},
        {"-.5", SUTS_FLOAT64, true},
        {"1e309", SUTS_FLOAT64, false},
        {"1,5", SUTS_FLOAT64, false},
        {"inf", SUTS_FLOAT64, true},
        {"nan", SUTS_FLOAT64, true},
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

TEST(ValueText, KeepsEveryBitOfAFloat64) {
    std::random_device seeds;
    unsigned long const seed = seeds();
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    std::vector<unsigned long> patterns = {0,
                                           1,
                                           0x8000000000000000,
                                           0x7ff0000000000000,
                                           0xfff0000000000000,
                                           0x7ff8000000000000,
                                           0xfff8000000000000,
                                           0x7ff0000000000001,
                                           0x7fefffffffffffff};
    for (int i = 0; i < 2000; ++i) patterns.push_back(random());
    for (unsigned long const bits : patterns) {
        std::string text;
        AppendPlain(text, brindle_Value::Real(std::bit_cast<double>(bits)));
        brindle_Value value;
        ASSERT_TRUE(ParseValue(text, SUTS_FLOAT64, value)) << text;
        EXPECT_EQ(std::bit_cast<unsigned long>(value.real), bits) << text;
    }
}

TEST(ValueText, EscapesTexts) {
    struct {
        std::string_view text;
        char const* csv;
        char const* json;
    } const rows[] = {
        {"", "", R"("")"},
        {"plain text", "plain text", R"("plain text")"},
        {"a,b", R"("a,b")", R"("a,b")"},
        {"say \"x\"", R"("say ""x""")", R"("say \"x\"")"},
        {"two\r\nlines", "\"two\r\nlines\"", R"("two\r\nlines")"},
        {"tab\t and \x01", "tab\t and \x01", R"("tab\t and \u0001")"},
        {"\xC3\xA9", "\xC3\xA9", "\"\xC3\xA9\""},
        {"\xFF"
         "A",
         "\xFF"
         "A",
         R"({"hex":"ff41"})"},
        {"\xC3", "\xC3", R"({"hex":"c3"})"},
    };
    for (auto const& row : rows) {
        std::string csv;
        AppendCsv(csv, brindle_Value::Text(row.text));
        EXPECT_EQ(csv, row.csv);
        std::string json;
        AppendJson(json, brindle_Value::Text(row.text));
        EXPECT_EQ(json, row.json);
    }
}

TEST(ValueText, WritesNumbersAsJson) {
    struct {
        brindle_Value value;
        char const* json;
    } const rows[] = {
        {brindle_Value::Number(SUTS_INT64, std::numeric_limits<long>::min()), "-9223372036854775808"},
        {brindle_Value::Real(-0.0), "-0.0"},
        {brindle_Value::Real(0.1), "0.1"},
        {brindle_Value::Real(-std::numeric_limits<double>::infinity()), R"("-inf")"},
        {brindle_Value::Real(std::bit_cast<double>(0xfff8000000000000)), R"("nan:fff8000000000000")"},
    };
    for (auto const& row : rows) {
        std::string json;
        AppendJson(json, row.value);
        EXPECT_EQ(json, row.json);
    }
}

}  // namespace
