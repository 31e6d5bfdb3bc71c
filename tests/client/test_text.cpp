#include <gtest/gtest.h>

#include <bit>
#include <limits>

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

}  // namespace
