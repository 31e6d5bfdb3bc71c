#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "csv_reader.h"
#include "sutl_descriptor.h"

namespace {

using Row = std::vector<std::string>;

// A pipe whose writing end a test feeds by hand.
struct Pipe {
    Pipe() {
        int ends[2];
        EXPECT_EQ(pipe(ends), 0);
        reading = sutl_Descriptor(ends[0]);
        writing = sutl_Descriptor(ends[1]);
    }
    void Write(std::string_view bytes) const {
        EXPECT_EQ(write(writing.Get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }

    sutl_Descriptor reading;
    sutl_Descriptor writing;
};

// Everything that is read of a text which comes in pieces of the given size: the rows, each behind its line number, and
// at the end what the reader said of a broken row.
std::vector<Row> ReadAll(std::string_view text, std::size_t pieceBytes) {
    Pipe source;
    CsvReader reader(source.reading.Get());
    std::vector<Row> rows;
    std::vector<std::string_view> values;
    for (;;) {
        switch (reader.Next(values)) {
            case CsvReader::WAITING:
                source.Write(text.substr(0, pieceBytes));
                text.remove_prefix(std::min(pieceBytes, text.size()));
                if (text.empty()) source.writing.Close();
                break;
            case CsvReader::ROW:
                rows.push_back({std::to_string(reader.Line())});
                rows.back().insert(rows.back().end(), values.begin(), values.end());
                break;
            case CsvReader::BROKEN:
                rows.push_back({std::to_string(reader.Line()), "BROKEN", reader.Problem()});
                return rows;
            case CsvReader::READ_ERROR:
                rows.push_back({"READ ERROR"});
                return rows;
            case CsvReader::END:
                return rows;
        }
    }
}

TEST(CsvReader, TakesRowsApartWhateverPiecesTheyComeIn) {
    struct {
        char const* what;
        char const* text;
        std::vector<Row> rows;
    } const cases[] = {
        {"nothing", "", {}},
        {"only line ends", "\n\r\n\n", {}},
        {"both line ends, and none at last", "a,b\nc,d\r\ne,f", {{"1", "a", "b"}, {"2", "c", "d"}, {"3", "e", "f"}}},
        {"empty values", ",\n\"\"\n,,x", {{"1", "", ""}, {"2", ""}, {"3", "", "", "x"}}},
        {"empty lines count", "a\n\n\nb\n", {{"1", "a"}, {"4", "b"}}},
        {"quotes", "\"a,b\",\"say \"\"x\"\"\"\n", {{"1", "a,b", "say \"x\""}}},
        {"line ends in quotes", "\"a\r\nb\",c\nd\n", {{"1", "a\r\nb", "c"}, {"3", "d"}}},
        {"byte order mark", "\xEF\xBB\xBF\"a\",b\n\xEF\xBB\xBFz\n", {{"1", "a", "b"}, {"2", "\xEF\xBB\xBFz"}}},
        {"only a byte order mark", "\xEF\xBB\xBF", {}},
        {"a carriage return inside", "a\rb,c\n", {{"1", "a\rb", "c"}}},
        {"open quote at the end", "a\n\"b\nc", {{"1", "a"}, {"2", "BROKEN", "ends inside a quoted value"}}},
        {"text behind a quote", "\"a\"b\n", {{"1", "BROKEN", "has text behind the closing quote of a value"}}},
        {"a quote inside", "a\"\"b\n", {{"1", "BROKEN", "has a quote inside a value that is not quoted"}}},
    };
    for (auto const& row : cases) {
        for (std::size_t const pieceBytes : {1, 2, 3, 1000}) {
            EXPECT_EQ(ReadAll(row.text, pieceBytes), row.rows) << row.what << ", pieces of " << pieceBytes;
        }
    }
}

TEST(CsvReader, HandsOutWhatIsThereBeforeItWaits) {
    Pipe source;
    CsvReader reader(source.reading.Get());
    std::vector<std::string_view> values;
    EXPECT_EQ(reader.Next(values), CsvReader::WAITING);
    source.Write("a,b\nc");
    ASSERT_EQ(reader.Next(values), CsvReader::ROW);
    EXPECT_EQ(values, (std::vector<std::string_view>{"a", "b"}));
    EXPECT_EQ(reader.Next(values), CsvReader::WAITING) << "half a row must not block";
    source.Write("d\n");
    ASSERT_EQ(reader.Next(values), CsvReader::ROW);
    EXPECT_EQ(values, (std::vector<std::string_view>{"cd"}));
}

}  // namespace
