// The schema's file: its tokens, the results of loading, what is left after each.
#include "uts_support.h"

namespace {

using test::Texts;
using test::Types;

constexpr char INCOMPLETE_TEXT[] = "ERROR suts_tspec: Incomplete spec file!\n";
constexpr int PIECE_CHARACTERS = 3999;

struct Case {
    char const* text;
    int result;
    std::string message;  // on standard error
    char const* name;     // null: none
    int fieldCount;
    Types types;
    Texts names;
};

Case const CASES[] = {
    {"", 2, INCOMPLETE_TEXT, nullptr, 0, {}, {}},
    {" \t\r\n\n  ", 2, INCOMPLETE_TEXT, nullptr, 0, {}, {}},
    {"R", 0, "", "R", 0, {}, {}},
    {"R int32 a", 0, "", "R", 1, {SUTS_INT32}, {"a"}},
    {"R int32", 2, INCOMPLETE_TEXT, "R", 0, {}, {}},
    {"R int32 a int64", 2, INCOMPLETE_TEXT, "R", 1, {}, {}},
    {"R Int32 a", 1, "ERROR suts_tspec: Syntax, bad type Int32\n", "R", 0, {}, {}},
    {"R\n# id\nint64 id", 1, "ERROR suts_tspec: Syntax, bad type #\n", "R", 0, {}, {}},
    {"R int32 a int64 b int99 c", 1, "ERROR suts_tspec: Syntax, bad type int99\n", "R", 2, {}, {}},
    {"R int64 a b", 1, "ERROR suts_tspec: Syntax, bad type b\n", "R", 1, {}, {}},
    {"R int32 int32 int64 float64", 0, "", "R", 2, {SUTS_INT32, SUTS_INT64}, {"int32", "float64"}},
    {"R string64 a\vb\f", 0, "", "R", 1, {SUTS_STRING64}, {"a\vb\f"}},
    {"\r\nTrade\tint64 id\n\n int64\r\nseq float64 price\tstring64 symbol \n",
     0,
     "",
     "Trade",
     4,
     {SUTS_INT64, SUTS_INT64, SUTS_FLOAT64, SUTS_STRING64},
     {"id", "seq", "price", "symbol"}},
};

void ExpectContent(suts_tsspec const& spec, Case const& expected) {
    EXPECT_STREQ(expected.name, spec.name.get());
    EXPECT_EQ(expected.fieldCount, spec.fieldCount);
    ASSERT_EQ(expected.result == 0, spec.types != nullptr);
    ASSERT_EQ(expected.result == 0, spec.fieldNames != nullptr);
    EXPECT_EQ(expected.result == 0 && expected.fieldCount > 0, spec.HasKeyField());
    for (std::size_t i = 0; i < expected.types.size(); ++i) {
        EXPECT_EQ(expected.types[i], spec.types[i]) << i;
        EXPECT_EQ(expected.names[i], spec.fieldNames[i].get()) << i;
    }
}

// Loads the text and expects the outcome, on an empty schema and on one loaded before.
void ExpectInit(Case const& expected) {
    SCOPED_TRACE(std::string("file: ") + expected.text);
    test::Directory const directory;
    test::WriteFile(directory / "former", "Former string64 k int32 v float64 w");
    test::WriteFile(directory / "spec", expected.text);
    for (bool const loadedBefore : {false, true}) {
        SCOPED_TRACE(loadedBefore ? "loaded before" : "empty before");
        suts_tsspec spec;
        if (loadedBefore) { ASSERT_EQ(suts_tsspec::LOADED, spec.Init((directory / "former").c_str())); }
        EXPECT_EQ(expected.message,
                  test::StandardErrorOf([&] { EXPECT_EQ(expected.result, spec.Init((directory / "spec").c_str())); }));
        ExpectContent(spec, expected);
    }
}

TEST(SpecFile, LoadsOrTellsWhatIsWrong) {
    for (Case const& row : CASES) ExpectInit(row);
}

TEST(SpecFile, OneThatCannotBeOpenedLeavesTheFormerContent) {
    test::Directory const directory;
    test::WriteFile(directory / "spec", CASES[3].text);
    suts_tsspec spec;
    std::string const missing = directory / "missing";
    EXPECT_EQ("ERROR suts_tspec: Cannot open specfile " + missing + "\n", test::StandardErrorOf([&] {
                  EXPECT_EQ(suts_tsspec::UNREADABLE, spec.Init(missing.c_str()));
                  EXPECT_FALSE(spec.HasKeyField());
                  EXPECT_EQ(suts_tsspec::LOADED, spec.Init((directory / "spec").c_str()));
              }));
    static_cast<void>(test::StandardErrorOf([&] { EXPECT_EQ(1, spec.Init(missing.c_str())); }));
    ExpectContent(spec, CASES[3]);
    suts_tsspec copy;
    copy.CopyFrom(spec);
    spec.Clear();
    EXPECT_TRUE(spec.name == nullptr && spec.fieldCount == 0 && !spec.HasKeyField());
    ExpectContent(copy, CASES[3]);
}

// A line is read in pieces, and a token that two pieces share becomes two.
TEST(SpecFile, ATokenAcrossTwoPiecesIsCut) {
    std::string const token = "int64";
    for (std::string const before : {"", "\n", "\r\n\t\n"}) {
        for (std::size_t start = PIECE_CHARACTERS - 8; start < PIECE_CHARACTERS + 8; ++start) {
            // Pieces are counted from the line's start.
            std::string const text = before + "Trade" + std::string(start - 5, ' ') + token + "\nid";
            if (start < PIECE_CHARACTERS && start + token.size() > PIECE_CHARACTERS) {
                std::string const first = token.substr(0, PIECE_CHARACTERS - start);
                ExpectInit({text.c_str(), 1, "ERROR suts_tspec: Syntax, bad type " + first + "\n", "Trade", 0, {}, {}});
            } else {
                ExpectInit({text.c_str(), 0, "", "Trade", 1, {SUTS_INT64}, {"id"}});
            }
        }
    }
    // Without a delimiter the boundary itself divides a type from a name.
    std::string const joined = "Trade" + std::string(PIECE_CHARACTERS - 10, ' ') + "int64id";
    ExpectInit({joined.c_str(), 0, "", "Trade", 1, {SUTS_INT64}, {"id"}});
}

TEST(SpecFile, ATypeWithoutItsNameBehindTwoFieldsEndsTheProcess) {
    test::Directory const directory;
    test::WriteFile(directory / "spec", "R int32 a int64 b float64");
    test::ChildEnd const end = test::RunInChild([&directory] {
        suts_tsspec spec;
        return spec.Init((directory / "spec").c_str());
    });
    test::ExpectKilled(end, SIGINT, test::AssertionText("ERROR, bad spec file!\n", "UTL/C/LIBS/UTS/uts_tsspec.h", 135));
}

}  // namespace
