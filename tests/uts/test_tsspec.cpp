// The schema's file: its tokens, the results of loading, what is left after each.
#include "uts_support.h"

namespace {

using test::Texts;
using test::Types;

constexpr char INCOMPLETE[] = "ERROR suts_tspec: Incomplete spec file!\n";
constexpr std::size_t PIECE_CHARACTERS = 3999;

struct Case {
    std::string text;
    int result;
    int fieldCount;
    std::string message;  // on standard error
    char const* name;     // null: none
    Types types;
    Texts names;
};

Case const CASES[] = {
    {"", 2, 0, INCOMPLETE, nullptr, {}, {}},
    {" \t\r\n\n  ", 2, 0, INCOMPLETE, nullptr, {}, {}},
    {"R", 0, 0, "", "R", {}, {}},
    {"R int32 a", 0, 1, "", "R", {SUTS_INT32}, {"a"}},
    {"R int32", 2, 0, INCOMPLETE, "R", {}, {}},
    {"R int32 a int64", 2, 1, INCOMPLETE, "R", {}, {}},
    {"R Int32 a", 1, 0, "ERROR suts_tspec: Syntax, bad type Int32\n", "R", {}, {}},
    {"R\n# id\nint64 id", 1, 0, "ERROR suts_tspec: Syntax, bad type #\n", "R", {}, {}},
    {"R int32 a int64 b int99 c", 1, 2, "ERROR suts_tspec: Syntax, bad type int99\n", "R", {}, {}},
    {"R int32 int32 int64 float64", 0, 2, "", "R", {SUTS_INT32, SUTS_INT64}, {"int32", "float64"}},
    {"R string64 a\vb\f", 0, 1, "", "R", {SUTS_STRING64}, {"a\vb\f"}},
    {"\r\nR\tint64 id\n\n int64\r\nn float64 f \n",
     0,
     3,
     "",
     "R",
     {SUTS_INT64, SUTS_INT64, SUTS_FLOAT64},
     {"id", "n", "f"}},
};

void ExpectContent(suts_tsspec const& spec, Case const& expected) {
    EXPECT_STREQ(expected.name, spec.name.get());
    EXPECT_EQ(expected.fieldCount, spec.fieldCount);
    ASSERT_EQ(expected.result == 0, spec.types != nullptr);
    ASSERT_EQ(expected.result == 0, spec.fieldNames != nullptr);
    EXPECT_EQ(!expected.types.empty(), spec.HasKeyField());
    for (std::size_t i = 0; i < expected.types.size(); ++i) {
        EXPECT_EQ(expected.types[i], spec.types[i]) << i;
        EXPECT_EQ(expected.names[i], spec.fieldNames[i].get()) << i;
    }
}

// Loads the text and expects the outcome, on an empty schema and on one loaded before.
void ExpectInit(Case const& expected) {
    SCOPED_TRACE("file: " + expected.text);
    test::Directory const directory;
    test::WriteFile(directory / "former", "Former string64 k int32 v float64 w");
    test::WriteFile(directory / "spec", expected.text);
    for (bool const loadedBefore : {false, true}) {
        suts_tsspec spec;
        if (loadedBefore) { ASSERT_EQ(suts_tsspec::LOADED, spec.Init((directory / "former").c_str())); }
        EXPECT_EQ(expected.message, test::StandardErrorOf([&] {
                      EXPECT_EQ(expected.result, spec.Init((directory / "spec").c_str())) << loadedBefore;
                  }));
        ExpectContent(spec, expected);
    }
}

TEST(SpecFile, LoadsOrTellsWhatIsWrong) {
    for (Case const& row : CASES) ExpectInit(row);
}

TEST(SpecFile, OneThatCannotBeOpenedLeavesTheFormerContent) {
    test::Directory const directory;
    std::string const missing = directory / "missing";
    test::WriteFile(directory / "spec", CASES[3].text);
    suts_tsspec spec;
    for (bool const loadedBefore : {false, true}) {
        EXPECT_EQ("ERROR suts_tspec: Cannot open specfile " + missing + "\n",
                  test::StandardErrorOf([&] { EXPECT_EQ(suts_tsspec::UNREADABLE, spec.Init(missing.c_str())); }));
        if (!loadedBefore) { ASSERT_EQ(suts_tsspec::LOADED, spec.Init((directory / "spec").c_str())); }
        ExpectContent(spec, CASES[3]);
    }
    suts_tsspec copy;
    copy.CopyFrom(spec);
    spec.Clear();
    EXPECT_TRUE(spec.name == nullptr && spec.fieldCount == 0 && !spec.HasKeyField());
    ExpectContent(copy, CASES[3]);
}

// A line is read in pieces, and a token that two pieces share becomes two.
TEST(SpecFile, ATokenAcrossTwoPiecesIsCut) {
    std::string const token = "int64";
    for (std::string const before : {"", "\r\n\t\n"}) {
        for (std::size_t start = PIECE_CHARACTERS - 8; start < PIECE_CHARACTERS + 3; ++start) {
            // Pieces are counted from the line's start.
            std::string const text = (before + "R").append(start - 1, ' ').append(token).append("\nid");
            if (start < PIECE_CHARACTERS && start + token.size() > PIECE_CHARACTERS) {
                std::string const first = token.substr(0, PIECE_CHARACTERS - start);
                ExpectInit({text, 1, 0, "ERROR suts_tspec: Syntax, bad type " + first + "\n", "R", {}, {}});
            } else {
                ExpectInit({text, 0, 1, "", "R", {SUTS_INT64}, {"id"}});
            }
        }
    }
    // Without a delimiter the boundary itself divides a type from a name.
    ExpectInit({"R" + std::string(PIECE_CHARACTERS - 6, ' ') + "int64id", 0, 1, "", "R", {SUTS_INT64}, {"id"}});
}

TEST(SpecFile, ATypeWithoutItsNameBehindTwoFieldsEndsTheProcess) {
    test::Directory const directory;
    test::WriteFile(directory / "spec", "R int32 a int64 b float64");
    test::ChildEnd const end =
        test::RunInChild([&directory] { return suts_tsspec().Init((directory / "spec").c_str()); });
    test::ExpectKilled(end, SIGINT, test::AssertionText("ERROR, bad spec file!\n", "UTL/C/LIBS/UTS/uts_tsspec.h", 135));
}

}  // namespace
