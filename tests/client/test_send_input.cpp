#include "send_input.h"

#include <zlib.h>

#include "../uts/uts_support.h"

namespace {

// Opens the files at a position (none: the start), and reads so many rows. The first values, or the problem.
std::vector<std::string> ReadRows(SendInput& input, std::string const& position, std::size_t rowsMax) {
    if (!position.empty() && !input.StartAt(position, false)) return {input.Problem()};
    std::vector<std::string> rows;
    while (rows.size() < rowsMax) {
        switch (input.Next()) {
            case SendInput::ROW:
                rows.push_back(std::to_string(input.Line()) + std::string(input.Cells()[0].text));
                continue;
            case SendInput::FILE_END:
                continue;
            case SendInput::END:
                return rows;
            default:
                return {input.Problem()};
        }
    }
    return rows;
}

void WriteFile(std::string const& path, std::string const& text, bool packed) {
    // The mode T writes the bytes as they are.
    gzFile const file = gzopen(path.c_str(), packed ? "wb" : "wbT");
    gzwrite(file, text.data(), static_cast<unsigned int>(text.size()));
    gzclose(file);
}

TEST(SendInput, GoesOnBehindTheLastRow) {
    test::Directory directory;
    std::string const first = directory / "first.csv";
    std::string const second = directory / "second.csv";
    std::vector<std::string> const all = {"2a", "3b", "5c", "2d", "3e"};
    for (bool const packed : {false, true}) {
        WriteFile(first, "x,k\n1,a\n\"2\n\",b\n3,c", packed);
        WriteFile(second, "k\nd\ne\n", packed);
        for (std::size_t rows = 1; rows <= all.size(); ++rows) {
            SendInput before;
            before.Set({{first, second}, "", ',', false, {"k"}});
            std::vector<std::string> seen = ReadRows(before, "", rows);
            SendInput after;
            after.Set({{first, second}, "", ',', false, {"k"}});
            std::vector<std::string> const rest = ReadRows(after, before.Position(7), all.size());
            EXPECT_EQ(after.StartRejectsBytes(), 7UL);
            seen.insert(seen.end(), rest.begin(), rest.end());
            EXPECT_EQ(seen, all) << "after " << rows << (packed ? " packed" : " plain");
        }
    }
}

TEST(SendInput, RefusesAPositionInAnotherFile) {
    test::Directory directory;
    std::string const path = directory / "in.csv";
    WriteFile(path, "k\na\nb\n", false);
    auto const open = [&](std::string const& file, std::string const& position) {
        SendInput input;
        input.Set({{file}, "", ',', false, {"k"}});
        return ReadRows(input, position, 1).at(0);
    };
    SendInput input;
    input.Set({{path}, "", ',', false, {"k"}});
    ASSERT_EQ(ReadRows(input, "", 2).size(), 2UL);
    std::string const position = input.Position(0);
    EXPECT_NE(open(path + "2", position).find("is not among the files of this one"), std::string::npos);
    EXPECT_NE(open(path, "{}").find("cannot be read"), std::string::npos);
    WriteFile(path, "k\n", false);
    EXPECT_NE(open(path, position).find("ends before line 4"), std::string::npos);
    std::string const replaced = path + "3";
    WriteFile(replaced, "k\na\nb\n", false);
    ASSERT_EQ(rename(replaced.c_str(), path.c_str()), 0);
    EXPECT_NE(open(path, position).find("is another file than the one"), std::string::npos);
}

}  // namespace
