// The schema's file: its tokens, and what is said of a file that is none.
#include "uts_support.h"

namespace {

using namespace std::string_literals;

constexpr char INCOMPLETE[] = "ERROR suts_tspec: Incomplete spec file!\n";
constexpr char BAD_TYPE[] = "ERROR suts_tspec: Syntax, bad type ";
constexpr std::size_t PIECE_CHARACTERS = 3999;

// Loads the text and expects the outcome: the message, or else the name and the types and names of the fields.
void ExpectInit(std::string const& text, int result, std::string const& message, std::string const& content) {
    SCOPED_TRACE("file: " + text);
    test::Directory const directory;
    test::WriteFile(directory / "spec", text);
    suts_tsspec spec;
    EXPECT_EQ(message, test::StandardErrorOf([&] { EXPECT_EQ(result, spec.Init((directory / "spec").c_str())); }));
    ASSERT_EQ(result == suts_tsspec::LOADED, spec.types != nullptr);
    ASSERT_EQ(result == suts_tsspec::LOADED && spec.fieldCount > 0, spec.HasKeyField());
    std::string loaded = spec.types != nullptr ? spec.name.get() : "";
    for (int i = 0; spec.types != nullptr && i < spec.fieldCount; ++i) {
        loaded += " " + std::to_string(spec.types[i]) + spec.fieldNames[static_cast<std::size_t>(i)].get();
    }
    EXPECT_EQ(content, loaded);
}

TEST(SpecFile, LoadsOrTellsWhatIsWrong) {
    ASSERT_TRUE(SUTS_STRING64 == 1 && SUTS_INT32 == 2 && SUTS_INT64 == 3 && SUTS_FLOAT64 == 4);
    for (char const* const text : {"", " \t\r\n\n  ", "R int32", "R int32 a int64"}) {
        ExpectInit(text, 2, INCOMPLETE, "");
    }
    ExpectInit("R", 0, "", "R");
    ExpectInit("R Int32 a", 1, BAD_TYPE + "Int32\n"s, "");
    ExpectInit("R\n# id\nint64 id", 1, BAD_TYPE + "#\n"s, "");
    ExpectInit("R int32 a int64 b int99 c", 1, BAD_TYPE + "int99\n"s, "");
    ExpectInit("R int32 int32 int64 float64", 0, "", "R 2int32 3float64");
    ExpectInit("R string64 a\vb\f", 0, "", "R 1a\vb\f");
    ExpectInit("\r\nR\tint64 id\n\n int64\r\nn float64 f \n", 0, "", "R 3id 3n 4f");
}

// A line is read in pieces, and a token that two pieces share becomes two.
TEST(SpecFile, ATokenAcrossTwoPiecesIsCut) {
    std::string const token = "int64";
    for (std::string const before : {"", "\r\n\t\n"}) {
        for (std::size_t start = PIECE_CHARACTERS - 8; start < PIECE_CHARACTERS + 3; ++start) {
            // Pieces are counted from the line's start.
            std::string const text = (before + "R").append(start - 1, ' ').append(token).append("\nid");
            if (start < PIECE_CHARACTERS && start + token.size() > PIECE_CHARACTERS) {
                ExpectInit(text, 1, BAD_TYPE + token.substr(0, PIECE_CHARACTERS - start) + "\n", "");
            } else {
                ExpectInit(text, 0, "", "R 3id");
            }
        }
    }
    // Without a delimiter the boundary itself divides a type from a name.
    ExpectInit("R" + std::string(PIECE_CHARACTERS - 6, ' ') + "int64id", 0, "", "R 3id");
}

TEST(SpecFile, ATypeWithoutItsNameBehindTwoFieldsEndsTheProcess) {
    test::Directory const directory;
    test::WriteFile(directory / "spec", "R int32 a int64 b float64");
    test::ChildEnd const end =
        test::RunInChild([&directory] { return suts_tsspec().Init((directory / "spec").c_str()); });
    test::ExpectKilled(end, SIGINT, test::AssertionText("ERROR, bad spec file!\n", "UTL/C/LIBS/UTS/uts_tsspec.h", 135));
}

}  // namespace
