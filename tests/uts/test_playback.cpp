// Playback and dump of recovery directories, whole and damaged.
#include <map>
#include <set>

#include "uts_support.h"

namespace {

using test::Directory;
using test::Host;
using test::Record;
using test::Types;
using namespace std::string_literals;

constexpr char INCOMPLETE_TEXT[] = "WARNING: Incomplete recovery file\n";

struct Replay {
    std::vector<Record> records;
    std::string text;  // on standard error
};

Replay ReplayOf(Directory const& directory, Types const& types) {
    Replay replay;
    test::Schema const schema(types);
    replay.text = test::StandardErrorOf([&] {
        suts_StgRecoveryPlayback playback(schema, directory.Path());
        suts_StgEntry entry;
        while (playback.QNext(entry) == 0) {
            replay.records.push_back({entry.time, test::BytesOf(entry.key), test::BytesOf(entry.value)});
        }
        // The end is final, and leaves nothing to read.
        EXPECT_EQ(1U, playback.QNext(entry));
        EXPECT_EQ(0, entry.key.length + entry.value.length);
    });
    return replay;
}

std::string InfoText(Directory const& directory) {
    return " Playback info, only keyfile, no uncovered data,  in "s + directory.Path() + " \n";
}

// A log of many records, and what is known of every place in it.
struct KnownLog {
    explicit KnownLog(test::Random& random) {
        records = {{1, "key\0"s, "i32.int64...float64.text\0"s},
                   {2, "\0"s, "i32.int64...float64.\0"s},
                   {3, "longer than inline\0"s, "i32.int64...float64.something longer\0"s}};
        while (records.size() < 200) {
            records.push_back({static_cast<long>(random() >> 1), "key" + std::to_string(test::Below(random, 9)) + '\0',
                               test::RandomBytes(random, 20) + std::string(test::Below(random, 30), 'x') + '\0'});
        }
        for (Record const& record : records) {
            std::size_t const key = bytes.size() + 12, value = key + record.key.size();
            bytes += record.InLog();
            ends.push_back(bytes.size());
            quiet.insert({key, value, value + 4, value + 12, value + 20, bytes.size()});
        }
    }
    // The records that end at or before this byte.
    [[nodiscard]] std::vector<Record> Before(std::size_t byte) const {
        return {records.begin(), records.begin() + (std::upper_bound(ends.begin(), ends.end(), byte) - ends.begin())};
    }

    Types const types = {SUTS_STRING64, SUTS_INT32, SUTS_INT64, SUTS_FLOAT64, SUTS_STRING64};
    std::vector<Record> records;
    std::string bytes;
    std::vector<std::size_t> ends;      // of the records
    std::set<std::size_t> quiet = {0};  // a cut here is no incomplete record: between records, or fields of one
};

TEST(Playback, KeepsWholeRecordsBeforeACut) {
    test::Random random = test::SeededRandom();
    KnownLog const log(random);
    Directory const directory;
    for (std::size_t cut = 0; cut <= log.bytes.size(); ++cut) {
        SCOPED_TRACE(cut);
        test::WriteFile(directory / "F4", log.bytes.substr(0, cut));
        Replay const replay = ReplayOf(directory, log.types);
        EXPECT_EQ(log.Before(cut), replay.records);
        EXPECT_EQ(log.quiet.contains(cut) ? "" : INCOMPLETE_TEXT, replay.text);
        if (test::Below(random, 10) > 0) continue;
        // The same bytes in several files are one stream, with empty files among them.
        test::WriteFile(directory / "F5", "");
        test::WriteFile(directory / "F12", log.bytes.substr(cut));
        Replay const joined = ReplayOf(directory, log.types);
        EXPECT_EQ(log.records, joined.records);
        EXPECT_EQ("", joined.text);
        for (char const* name : {"F5", "F12"}) std::filesystem::remove(directory / name);
    }
}

// A crashed machine leaves zeros behind, or blocks that were never written. BRINDLE_DAMAGES asks for more of them.
TEST(Playback, KeepsWholeRecordsBeforeDamage) {
    test::Random random = test::SeededRandom();
    KnownLog const log(random);
    Directory const directory;
    auto const expectOneWarningAtMost = [](Replay const& replay) {
        EXPECT_TRUE(replay.text.empty() || replay.text == INCOMPLETE_TEXT) << replay.text;
    };
    for (std::size_t zeros = 1; zeros <= 4096; zeros += zeros < 100 ? 1 : 37) {
        SCOPED_TRACE(zeros);
        test::WriteFile(directory / "F1", log.bytes + std::string(zeros, '\0'));
        Replay const replay = ReplayOf(directory, log.types);
        EXPECT_EQ(log.records, replay.records);
        expectOneWarningAtMost(replay);
    }
    char const* const wanted = std::getenv("BRINDLE_DAMAGES");
    for (long left = wanted != nullptr ? std::atol(wanted) : 1000; left > 0; --left) {
        std::string bytes = log.bytes;
        std::size_t const place = test::Below(random, bytes.size());
        SCOPED_TRACE(place);
        bytes[place] = static_cast<char>(bytes[place] ^ (1 + test::Below(random, 255)));
        test::WriteFile(directory / "F1", bytes);
        Replay const replay = ReplayOf(directory, log.types);
        std::vector<Record> const before = log.Before(place);
        ASSERT_LE(before.size(), replay.records.size());
        EXPECT_TRUE(std::equal(before.begin(), before.end(), replay.records.begin()));
        expectOneWarningAtMost(replay);
    }
}

TEST(Playback, RandomLogsComeBackWhole) {
    test::Random random = test::SeededRandom();
    for (int run = 0; run < 60; ++run) {
        Directory const directory;
        Types const types = test::RandomTypes(random);
        std::vector<Record> records(test::Below(random, 300));
        unsigned long number = 0;
        std::string bytes;
        for (Record& record : records) {
            record = test::RandomRecord(random, types);
            bytes += record.InLog();
            if (test::Below(random, 20) > 0) continue;
            number += 1 + test::Below(random, 3);
            test::WriteFile(directory / ("F" + std::to_string(number)), std::exchange(bytes, {}));
        }
        test::WriteFile(directory / ("F" + std::to_string(number + 1)), bytes);
        Replay const replay = ReplayOf(directory, types);
        EXPECT_EQ(records, replay.records);
        EXPECT_EQ("", replay.text);
    }
}

TEST(Playback, ALengthThatDoesNotFitTheFields) {
    std::string const value = "\1\0\0\0a text of some length\0"s;
    struct {
        int length;
        bool accepted;
    } const rows[] = {{26, true}, {27, true}, {INT32_MAX, true}, {25, false},
                      {4, false}, {0, false}, {-1, false},       {INT32_MIN, false}};
    ASSERT_EQ(26U, value.size());
    for (auto const& row : rows) {
        SCOPED_TRACE(row.length);
        Directory const directory;
        Record const last = {9, "z\0"s, value};
        test::WriteFile(directory / "F1", last.InLog() + Host(1L) + Host(row.length) + "k\0"s + value + last.InLog());
        Replay const replay = ReplayOf(directory, {SUTS_STRING64, SUTS_INT32, SUTS_STRING64});
        std::vector<Record> const all = {last, {1, "k\0"s, value}, last};
        EXPECT_EQ(std::vector(all.begin(), all.begin() + (row.accepted ? 3 : 1)), replay.records);
        EXPECT_EQ(row.accepted ? "" : INCOMPLETE_TEXT, replay.text);
    }
}

TEST(Playback, ReadsTheFilesThatAreThere) {
    Types const types = {SUTS_INT32};
    auto const record = [](long time) { return Record{time, "key."}; };
    struct {
        std::map<std::string, std::string> files;
        std::vector<Record> records;
        bool info;  // that there is nothing to read
    } const rows[] = {
        {{}, {}, true},
        {{{"KeyFile", "key."}, {".hidden", "x"}}, {}, true},
        {{{"F1", ""}}, {}, false},
        {{{"F0", record(1).InLog()}}, {}, true},
        {{{"F0", record(1).InLog()}, {"F1", record(2).InLog()}}, {record(2)}, false},
        {{{"F5", record(5).InLog()}, {"F2", record(2).InLog()}, {"F3", ""}}, {record(2), record(5)}, false},
        {{{"F10", record(10).InLog()}, {"F9", record(9).InLog()}}, {record(9), record(10)}, false},
        {{{"F007", record(7).InLog()}}, {}, true},  // read as number 7, whose file is F7
    };
    for (auto const& row : rows) {
        Directory const directory;
        for (auto const& [name, content] : row.files) test::WriteFile(directory / name, content);
        test::Names const before = directory.Names();
        SCOPED_TRACE(testing::PrintToString(before));
        Replay const replay = ReplayOf(directory, types);
        EXPECT_EQ(row.records, replay.records);
        EXPECT_EQ(row.info ? InfoText(directory) : "", replay.text);
        EXPECT_EQ(before, directory.Names());
    }
}

TEST(Playback, AReadErrorEndsTheProcess) {
    std::string const head = Host(1L) + Host(0);
    // The file ends there, and the next one is a directory.
    for (auto const& [firstFile, line] :
         {std::pair(""s, 153), {head, 187}, {head + "key", 187}, {head + "key\0n"s, 153}}) {
        Directory const directory;
        test::WriteFile(directory / "F1", firstFile);
        std::filesystem::create_directory(directory / "F2");
        test::ChildEnd const end = test::RunInChild([&directory] {
            test::Schema const schema({SUTS_STRING64, SUTS_INT32});
            suts_StgEntry entry;
            return static_cast<int>(suts_StgRecoveryPlayback(schema, directory.Path()).QNext(entry));
        });
        test::ExpectKilled(end, SIGINT, test::AssertionText("Read error!\n", "UTL/C/LIBS/UTS/uts_stgrecovery.h", line));
    }
}

TEST(Dump, PrintsTimesAndTheRestOnTheirStreams) {
    std::string const mixed = Record{-1, "ab\0"s, "\xfe\xff\xff\xff\7\0\0\0\0\0\0\0"s + Host(1.5) + "x y\0"s}.InLog();
    struct {
        Types types;
        std::string log;
        std::string out;
        std::string standardError;
        std::string together;
    } const rows[] = {
        {{SUTS_STRING64, SUTS_INT32, SUTS_INT64, SUTS_FLOAT64, SUTS_STRING64},
         mixed + mixed,
         " -> 18446744073709551615  -> 18446744073709551615 ",
         " ab  -2  7  1.500000  x y \n ab  -2  7  1.500000  x y \n",
         " ab  -> 18446744073709551615  -2  7  1.500000  x y \n ab  -> 18446744073709551615  -2  7  1.500000  x y \n"},
        {{SUTS_INT32},
         Host(5L) + Host(0) + Host(7) + "cut",
         " -> 5 ",
         " 7 \n"s + INCOMPLETE_TEXT,
         " 7  -> 5 \n"s + INCOMPLETE_TEXT},
        {{SUTS_INT64}, Host(5L) + Host(0) + Host(-8L), " -> 5 ", " -8 \n", " -8  -> 5 \n"},
        {{SUTS_FLOAT64, SUTS_STRING64},
         Host(0L) + Host(1) + Host(-0.25) + "\0"s,
         " -> 0 ",
         " -0.250000   \n",
         " -0.250000  -> 0   \n"},
        {{SUTS_INT32}, "", "", "", ""},
    };
    for (auto const& row : rows) {
        Directory const directory;
        test::WriteFile(directory / "F1", row.log);
        test::Schema const schema(row.types);
        FILE* const out = fopen((directory / ".out").c_str(), "w");
        EXPECT_EQ(row.standardError,
                  test::StandardErrorOf([&] { suts_StgPrintRecoverData(out, schema, directory.Path()); }));
        fclose(out);
        EXPECT_EQ(row.out, test::ReadFile(directory / ".out"));
        EXPECT_EQ(row.together,
                  test::StandardErrorOf([&] { suts_StgPrintRecoverData(stderr, schema, directory.Path()); }));
    }
}

}  // namespace
