#include "csv_reader.h"

#include "../foundation/test_support.h"
#include "sutl_descriptor.h"

namespace {

using Row = std::vector<std::string>;

// The rows of a text, each behind its line number, and at the end what the reader said of a broken row.
std::vector<Row> ReadAll(std::string_view text) {
    auto [reading, writing] = test::Pipe();
    EXPECT_EQ(sutl_FileWrite(writing.Get(), text.data(), text.size()), static_cast<long>(text.size()));
    writing.Close();
    CsvReader reader(reading.Get());
    std::vector<Row> rows;
    std::vector<std::string_view> values;
    CsvReader::Result result;
    while ((result = reader.Next(values)) == CsvReader::WAITING || result == CsvReader::ROW) {
        if (result == CsvReader::WAITING) continue;
        rows.push_back({std::to_string(reader.Line())});
        rows.back().insert(rows.back().end(), values.begin(), values.end());
    }
    if (result != CsvReader::END) rows.push_back({std::to_string(reader.Line()), "BROKEN", reader.Problem()});
    return rows;
}

TEST(CsvReader, TakesRowsApart) {
    struct {
        char const* what;
        char const* text;
        std::vector<Row> rows;
    } const cases[] = {
        {"only line ends", "\n\r\n\n", {}},
        {"both line ends, and none at last", "a,b\nc,d\r\ne,f", {{"1", "a", "b"}, {"2", "c", "d"}, {"3", "e", "f"}}},
        {"empty values", ",\n\"\"\n,,x", {{"1", "", ""}, {"2", ""}, {"3", "", "", "x"}}},
        {"empty lines count", "a\n\n\nb\n", {{"1", "a"}, {"4", "b"}}},
        {"quotes", "\"a,b\",\"say \"\"x\"\"\"\n", {{"1", "a,b", "say \"x\""}}},
        {"line ends in quotes", "\"a\r\nb\",c\nd\n", {{"1", "a\r\nb", "c"}, {"3", "d"}}},
        {"byte order mark", "\xEF\xBB\xBF\"a\",b\n\xEF\xBB\xBFz\n", {{"1", "a", "b"}, {"2", "\xEF\xBB\xBFz"}}},
        {"open quote at the end", "a\n\"b\nc", {{"1", "a"}, {"2", "BROKEN", "ends inside a quoted value"}}},
        {"text behind a quote", "\"a\"b\n", {{"1", "BROKEN", "has text behind the closing quote of a value"}}},
        {"a quote inside", "a\"\"b\n", {{"1", "BROKEN", "has a quote inside a value that is not quoted"}}},
    };
    for (auto const& row : cases) { EXPECT_EQ(ReadAll(row.text), row.rows) << row.what; }
}

}  // namespace
