// The writer of the recovery log: its bytes, its files, what ends it.
#include <map>

#include "uts_support.h"

namespace {

using test::Directory;
using test::Host;
using test::Names;
using test::Record;
using namespace std::string_literals;

constexpr std::size_t BLOCK_BYTES = 4096;
constexpr char WRITER_H[] = "UTL/C/LIBS/UTS/uts_stgrecovery.h";
constexpr char WRITER_CPP[] = "uts_stgrecovery.cpp";

// So many bytes in the log, 13 at least.
Record RecordOf(std::size_t bytes, long time = 0) {
    return {time, std::string(1, '\0'), std::string(bytes - 13, static_cast<char>('a' + time % 26))};
}

std::string Status(suts_StgRecovery& log) {
    return test::StandardErrorOf([&log] { log.PrintStatus(); });
}

TEST(RecoveryWriter, RecordsLieInTheFileByteForByte) {
    std::string const longText(20, 'v');
    std::string const expected = "\x88\x77\x66\x55\x44\x33\x22\x11\x08\0\0\0k\0\1\0\0\0val\0"s + Host(-5L) +
                                 "\x14\0\0\0twelve bytes"s + longText + Host(3L) + "\0\0\0\0a key of 13.."s;
    Directory const directory;
    suts_StgRecovery log(directory.Path());
    EXPECT_EQ(Names({"F1"}), directory.Names());
    EXPECT_EQ(0700U, static_cast<unsigned int>(std::filesystem::status(directory / "F1").permissions()) & 0700U);
    test::Log(log, {0x1122334455667788, "k\0"s, "\1\0\0\0val\0"s});
    test::Log(log, {-5, "twelve bytes", longText});
    // The last one in pieces.
    long const time = 3;
    int const length = 0;
    log.AsyncWrite(&time, sizeof time, 0);
    log.AsyncWrite(&length, sizeof length, 0);
    log.AsyncWrite("a key of 13..", 13, 0);
    log.AsyncWrite("", 0, 1);
    log.CountRecord();
    EXPECT_EQ("", test::ReadFile(directory / "F1")) << "nothing is written before a block is full";
    log.Terminate();
    EXPECT_EQ(expected, test::ReadFile(directory / "F1"));
}

// Whole blocks count, not bytes; a record is never divided, and the one that closes a file is counted in the next.
TEST(RecoveryWriter, AFileIsClosedBehindTheRecordThatCompletesTheThirdBlock) {
    for (auto const& [recordBytes, records] : {std::pair(100UL, 123UL), {64UL, 192UL}, {6144UL, 2UL}, {12287UL, 2UL}}) {
        SCOPED_TRACE(recordBytes);
        Directory const directory;
        suts_StgRecovery log(directory.Path());
        suts_StgFileRecord* handle = nullptr;
        for (std::size_t i = 0; i < records; ++i) {
            EXPECT_EQ(Names({"F1"}), directory.Names());
            handle = test::Log(log, RecordOf(recordBytes));
        }
        EXPECT_EQ(records * recordBytes, test::ReadFile(directory / "F1").size());
        log.Mark(handle);
        EXPECT_EQ(" F1 Elements: " + std::to_string(records - 1) + " Committed: 0 \n F2 Elements: 1 Committed: 1 \n",
                  Status(log));
    }
}

// What the writer has to do, without blocks, locks and descriptors.
struct WriterModel {
    struct File {
        unsigned long elements = 0;
        unsigned long committed = 0;
        bool closed = false;
        std::string bytes = {};
    };
    std::map<unsigned long, File> files = {{1, {}}};  // by number
    unsigned long sizeLimit = 10000;
    unsigned long outstanding = 0;

    // The number of the file that counts the record.
    unsigned long Append(std::string const& bytes) {
        auto const& [number, file] = *files.rbegin();
        files[number].bytes += bytes;
        if (file.bytes.size() / BLOCK_BYTES * BLOCK_BYTES >= sizeLimit) {
            files[number + 1] = {};
            if (!Close(number)) {
                outstanding += file.bytes.size();
                if (outstanding > 5 * sizeLimit) {
                    sizeLimit *= 10;
                } else if (outstanding < sizeLimit && sizeLimit > 10000) {
                    sizeLimit /= 10;
                }
            }
        }
        ++files.rbegin()->second.elements;
        return files.rbegin()->first;
    }
    void Mark(unsigned long number) {
        File const& file = files[number];
        unsigned long const committed = ++files[number].committed;
        if (file.closed && Close(number)) outstanding -= committed;
    }
    // Whether the file is gone.
    bool Close(unsigned long number) {
        files[number].closed = true;
        return files[number].committed == files[number].elements && files.erase(number) > 0;
    }
    void Expect(suts_StgRecovery& log, Directory const& directory) const {
        std::string status;
        Names names;
        for (auto const& [number, file] : files) {
            status += " F" + std::to_string(number) + " Elements: " + std::to_string(file.elements) +
                      " Committed: " + std::to_string(file.committed) + " \n";
            std::string const name = "F" + std::to_string(number);
            names.insert(name);
            std::size_t const written = file.closed ? file.bytes.size() : file.bytes.size() / BLOCK_BYTES * BLOCK_BYTES;
            EXPECT_TRUE(file.bytes.substr(0, written) == test::ReadFile(directory / name)) << name;
        }
        EXPECT_EQ(status, Status(log));
        EXPECT_EQ(names, directory.Names());
    }
};

TEST(RecoveryWriter, FilesComeAndGoAsInAPlainModel) {
    test::Random random = test::SeededRandom();
    unsigned long sizeLimitMax = 0;
    for (int run = 0; run < 4 && !HasFailure(); ++run) {
        Directory const directory;
        suts_StgRecovery log(directory.Path());
        WriterModel model;
        std::vector<std::pair<suts_StgFileRecord*, unsigned long>> unmarked;
        auto const markOne = [&] {
            std::swap(unmarked[test::Below(random, unmarked.size())], unmarked.back());
            model.Mark(unmarked.back().second);
            log.Mark(unmarked.back().first);
            unmarked.pop_back();
        };
        for (int step = 0; step < 3200; ++step) {
            // Phases of piling up and of catching up.
            bool const pilesUp = step / 400 % 2 == 0;
            std::size_t const greatestBytes = test::Below(random, 20) > 0 ? 200 : run < 2 ? 3000 : 30000;
            Record const record = RecordOf(13 + test::Below(random, greatestBytes), step);
            unsigned long const number = model.Append(record.InLog());
            unmarked.emplace_back(test::Log(log, record), number);
            for (int mark = 0; mark < 2; ++mark) {
                if (!unmarked.empty() && test::Below(random, 8) < (pilesUp ? 1U : 7U)) markOne();
            }
            sizeLimitMax = std::max(sizeLimitMax, model.sizeLimit);
            if (step % 100 == 0) model.Expect(log, directory);
        }
        while (run % 2 == 0 && !unmarked.empty()) markOne();
        model.Close(model.files.rbegin()->first);
        log.Terminate();
        model.Expect(log, directory);
        if (unmarked.empty()) { EXPECT_EQ(Names(), directory.Names()); }
    }
    EXPECT_GE(sizeLimitMax, 1000000U) << "the limit was raised twice";
}

TEST(RecoveryWriter, RefusesADirectoryThatIsUsedOrIsNone) {
    struct {
        test::Texts names;  // each in a directory of its own
        std::string text;   // empty: accepted
        int signal;
    } const rows[] = {
        {{"KeyFile", ".hidden", ".F1", "F0"}, "", 0},
        {{"F1", "F3", "F2147483647"},
         test::AssertionText("ERROR, Recovery directory not empty!\n", WRITER_CPP, 68),
         SIGINT},
        {{"F", "F1x", "F-1", "F2147483648", "f1", "G7", "KeyFile2", "notes.txt"},
         "Illegal name in recovery directory!\n",
         SIGABRT},
    };
    auto const open = [](char const* path) { return suts_StgRecovery(path), 0; };
    for (auto const& row : rows) {
        for (std::string const& name : row.names) {
            SCOPED_TRACE(name);
            Directory const directory;
            test::WriteFile(directory / name, "");
            test::ChildEnd const end = test::RunInChild([&] { return open(directory.Path()); });
            if (!row.text.empty()) test::ExpectKilled(end, row.signal, row.text);
            EXPECT_EQ(row.text.empty() ? Names({name, "F1"}) : Names({name}), directory.Names());
        }
    }
    test::ExpectKilled(test::RunInChild([&] { return open("/nonexistent"); }), SIGABRT,
                       test::ErrorText("Recovery directory open failed: ", ENOENT));
}

TEST(RecoveryWriter, AFileInTheWayEndsTheProcess) {
    Directory const directory;
    test::ChildEnd const end = test::RunInChild([&directory] {
        suts_StgRecovery log(directory.Path());
        test::WriteFile(directory / "F2", "");
        return test::Log(log, RecordOf(12288)), 0;
    });
    test::ExpectKilled(end, SIGABRT,
                       "ERROR: File " + directory / "F2" + " could not be created: " + test::ErrorText("\n ", EEXIST));
}

TEST(RecoveryWriter, AFailedWriteEndsTheProcess) {
    struct {
        char const* name;
        rlim_t fileBytesMax;
        std::size_t records;  // of 1000 bytes
        std::string text;
    } const rows[] = {
        {"block", 5000, 13, test::AssertionText("ERROR, Write incomplete!\n", WRITER_H, 98)},
        {"rest at the close", 12300, 13, test::AssertionText("ERROR, Closing write incomplete!\n", WRITER_H, 105)},
        {"rest at the end", 11000, 12, test::AssertionText("ERROR: Flush write incomplete!\n", WRITER_CPP, 209)},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        Directory const directory;
        test::ChildEnd const end = test::RunInChild([&] {
            signal(SIGXFSZ, SIG_IGN);
            rlimit const limit = {row.fileBytesMax, row.fileBytesMax};
            setrlimit(RLIMIT_FSIZE, &limit);
            suts_StgRecovery log(directory.Path());
            for (std::size_t i = 0; i < row.records; ++i) test::Log(log, RecordOf(1000));
            log.Terminate();
            return 0;
        });
        test::ExpectKilled(end, SIGINT, test::ErrorText("sutl_FileWrite error: ", EFBIG) + row.text);
    }
}

TEST(RecoveryWriter, ARemovalThatFailsIsReportedAndHasNoOtherConsequence) {
    Directory const directory;
    suts_StgRecovery log(directory.Path());
    suts_StgFileRecord* const handles[] = {test::Log(log, RecordOf(6144)), test::Log(log, RecordOf(6144))};
    EXPECT_EQ(Names({"F1", "F2"}), directory.Names());
    std::filesystem::remove(directory / "F1");
    log.NoteTaken(2);
    EXPECT_EQ(test::ErrorText("File removal failed!\n", ENOENT), test::StandardErrorOf([&] { log.Mark(handles[0]); }));
    EXPECT_EQ(" F2 Elements: 1 Committed: 0 \n", Status(log));
    log.Mark(handles[1]);
    log.Terminate();
    EXPECT_EQ(Names(), directory.Names());
}

}  // namespace
