#include "csv_reader.h"

#include "../foundation/test_support.h"
#include "pieces.h"

namespace {

using Row = std::vector<std::string>;

// The rows of a text, each behind its line number, or behind that what the reader said of a broken one.
std::vector<Row> ReadAll(std::string_view text, std::size_t pieceBytes, char delimiter) {
    Pieces source(text, pieceBytes);
    CsvReader reader(source, delimiter);
    std::vector<Row> rows;
    std::vector<std::string_view> values;
    RowResult result;
    while ((result = reader.Next(values)) != RowResult::END) {
        if (result == RowResult::WAITING) continue;
        rows.push_back({std::to_string(reader.Line())});
        if (result == RowResult::ROW) rows.back().insert(rows.back().end(), values.begin(), values.end());
        if (result == RowResult::BROKEN) rows.back().insert(rows.back().end(), {"BROKEN", reader.Problem()});
    }
    EXPECT_EQ(reader.NextOffset(), text.size());
    return rows;
}

TEST(CsvReader, TakesRowsApart) {
    struct {
        char const* what;
        char const* text;
        std::vector<Row> rows;
        char delimiter = ',';
    } const cases[] = {
        {"only line ends", "\n\r\n\n", {}},
        {"both line ends, and none at last", "a,b\nc,d\r\ne,f", {{"1", "a", "b"}, {"2", "c", "d"}, {"3", "e", "f"}}},
        {"empty values", ",\n\"\"\n,,x", {{"1", "", ""}, {"2", ""}, {"3", "", "", "x"}}},
        {"empty lines count", "a\n\n\nb\n", {{"1", "a"}, {"4", "b"}}},
        {"quotes", "\"a,b\",\"say \"\"x\"\"\"\n", {{"1", "a,b", "say \"x\""}}},
        {"line ends in quotes", "\"a\r\nb\",c\nd\n", {{"1", "a\r\nb", "c"}, {"3", "d"}}},
        {"byte order mark", "\xEF\xBB\xBF\"a\",b\n\xEF\xBB\xBFz\n", {{"1", "a", "b"}, {"2", "\xEF\xBB\xBFz"}}},
        {"open quote at the end", "a\n\"b\nc", {{"1", "a"}, {"2", "BROKEN", "ends inside a quoted value"}}},
        {"text behind a quote",
         "\"a\"b\nc\n",
         {{"1", "BROKEN", "has text behind the closing quote of a value"}, {"2", "c"}}},
        {"a quote inside",
         "x,a\"b\n\"c\nd\"\n",
         {{"1", "BROKEN", "has a quote inside a value that is not quoted"}, {"2", "c\nd"}}},
        {"another delimiter", "a;b,c\n\"d;\";e\n", {{"1", "a", "b,c"}, {"2", "d;", "e"}}, ';'},
    };
    for (auto const& row : cases) {
        for (std::size_t const pieceBytes : {1UL, 3UL, 4096UL}) {
            EXPECT_EQ(ReadAll(row.text, pieceBytes, row.delimiter), row.rows) << row.what << " by " << pieceBytes;
        }
    }
}

TEST(CsvReader, StopsAtAMillionValues) {
    for (std::string const start : {"", "\"a\""}) {
        std::string const most = start + std::string(RowBuffer::ROW_VALUES_MAX - 1, ',') + '\n';
        std::vector<Row> const rows = ReadAll(most + ',' + most + "b\n", 4096, ',');
        ASSERT_EQ(rows.size(), 3UL);
        EXPECT_EQ(rows[0].size(), RowBuffer::ROW_VALUES_MAX + 1);
        EXPECT_EQ(rows[1], (Row{"2", "BROKEN", "has more than 1,000,000 values"}));
        EXPECT_EQ(rows[2], (Row{"3", "b"}));
    }
}

}  // namespace
