// The writer of the recovery log: its bytes, its files, what ends it.
#include <list>

#include "uts_support.h"

namespace {

using test::Directory;
using test::Host;
using test::Record;
using namespace std::string_literals;

constexpr std::size_t BLOCK_BYTES = 4096;
constexpr char WRITER_H[] = "UTL/C/LIBS/UTS/uts_stgrecovery.h";
constexpr char WRITER_CPP[] = "uts_stgrecovery.cpp";

// So many bytes in the log, 13 at least.
Record RecordOf(std::size_t bytes, long time = 0) {
    return {time, std::string(1, '\0'), std::string(bytes - 13, static_cast<char>('a' + time % 26)), "", ""};
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
    EXPECT_EQ("F1", directory.Names());
    EXPECT_EQ(0700U, static_cast<unsigned int>(std::filesystem::status(directory / "F1").permissions()) & 0700U);
    test::Log(log, {0x1122334455667788, "k\0"s, "\1\0\0\0val\0"s, "", ""});
    test::Log(log, {-5, "twelve bytes", longText, "", ""});
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
    struct {
        std::size_t recordBytes;
        std::size_t records;  // in F1
    } const rows[] = {{100, 123}, {64, 192}, {4096, 3}, {6144, 2}, {13, 946}, {12288, 1}, {12287, 2}, {50000, 1}};
    for (auto const& row : rows) {
        SCOPED_TRACE(row.recordBytes);
        Directory const directory;
        suts_StgRecovery log(directory.Path());
        std::string bytes;
        suts_StgFileRecord* handle = nullptr;
        for (std::size_t i = 0; i < row.records; ++i) {
            Record const record = RecordOf(row.recordBytes, static_cast<long>(i));
            EXPECT_EQ("F1", directory.Names());
            handle = test::Log(log, record);
            bytes += record.InLog();
        }
        std::string const counted = std::to_string(row.records - 1);
        if (row.records == 1) {
            // Nothing is counted in F1, so there is nothing to wait for.
            EXPECT_EQ("F2", directory.Names());
        } else {
            EXPECT_EQ("F1 F2", directory.Names());
            EXPECT_EQ(bytes, test::ReadFile(directory / "F1"));
        }
        EXPECT_EQ((row.records == 1 ? "" : " F1 Elements: " + counted + " Committed: 0 \n") +
                      " F2 Elements: 1 Committed: 0 \n",
                  Status(log));
        log.Mark(handle);
        EXPECT_EQ((row.records == 1 ? "" : " F1 Elements: " + counted + " Committed: 0 \n") +
                      " F2 Elements: 1 Committed: 1 \n",
                  Status(log));
    }
}

// What the writer has to do, without blocks, locks and descriptors.
struct WriterModel {
    struct File {
        unsigned long number;
        unsigned long elements = 0;
        unsigned long committed = 0;
        bool closed = false;
        std::string bytes = {};
    };
    std::list<File> files = {{1}};
    unsigned long sizeLimit = 10000;
    unsigned long outstanding = 0;

    // The number of the file that counts the record.
    unsigned long Append(std::string const& bytes) {
        File& file = files.back();
        file.bytes += bytes;
        if (file.bytes.size() / BLOCK_BYTES * BLOCK_BYTES >= sizeLimit) {
            unsigned long const next = file.number + 1;
            file.closed = true;
            if (file.committed == file.elements) {
                files.pop_back();
            } else {
                outstanding += file.bytes.size();
                if (outstanding > 5 * sizeLimit) {
                    sizeLimit *= 10;
                } else if (outstanding < sizeLimit && sizeLimit > 10000) {
                    sizeLimit /= 10;
                }
            }
            files.push_back({next});
        }
        ++files.back().elements;
        return files.back().number;
    }
    void Mark(unsigned long number) {
        auto const file = std::find_if(files.begin(), files.end(), [number](auto& f) { return f.number == number; });
        ++file->committed;
        if (!file->closed || file->committed != file->elements) return;
        outstanding -= file->committed;
        files.erase(file);
    }
    void Terminate() {
        files.back().closed = true;
        if (files.back().committed == files.back().elements) files.pop_back();
    }
    [[nodiscard]] std::string Status() const {
        std::string text;
        for (File const& file : files) {
            text += " F" + std::to_string(file.number) + " Elements: " + std::to_string(file.elements) +
                    " Committed: " + std::to_string(file.committed) + " \n";
        }
        return text;
    }
    void ExpectFiles(Directory const& directory) const {
        test::Texts names;
        for (File const& file : files) {
            std::string const name = "F" + std::to_string(file.number);
            names.push_back(name);
            std::size_t const written = file.closed ? file.bytes.size() : file.bytes.size() / BLOCK_BYTES * BLOCK_BYTES;
            EXPECT_TRUE(file.bytes.substr(0, written) == test::ReadFile(directory / name)) << name;
        }
        std::sort(names.begin(), names.end());
        std::string joined;
        for (std::string const& name : names) joined += (joined.empty() ? "" : " ") + name;
        EXPECT_EQ(joined, directory.Names());
    }
};

TEST(RecoveryWriter, FilesComeAndGoAsInAPlainModel) {
    test::Random random = test::SeededRandom();
    unsigned long sizeLimitMax = 0;
    for (int run = 0; run < 4; ++run) {
        Directory const directory;
        suts_StgRecovery log(directory.Path());
        WriterModel model;
        std::vector<std::pair<suts_StgFileRecord*, unsigned long>> unmarked;
        std::size_t const usualBytes = run % 2 == 0 ? 200 : 20;
        std::size_t const greatestBytes = run < 2 ? 3000 : 30000;
        for (int phase = 0; phase < 8; ++phase) {
            // Phases of piling up and of catching up; marks in any order.
            std::size_t const marksOf4 = phase % 2 == 0 ? test::Below(random, 2) : 3 + test::Below(random, 2);
            for (int step = 0; step < 400; ++step) {
                bool const great = test::Below(random, 20) == 0;
                Record const record = RecordOf(13 + test::Below(random, great ? greatestBytes : usualBytes), step);
                unsigned long const number = model.Append(record.InLog());
                unmarked.emplace_back(test::Log(log, record), number);
                for (int mark = 0; mark < 2; ++mark) {
                    if (unmarked.empty() || test::Below(random, 4) >= marksOf4) continue;
                    std::swap(unmarked[test::Below(random, unmarked.size())], unmarked.back());
                    model.Mark(unmarked.back().second);
                    log.Mark(unmarked.back().first);
                    unmarked.pop_back();
                }
                sizeLimitMax = std::max(sizeLimitMax, model.sizeLimit);
                if (step % 40 == 0) { ASSERT_EQ(model.Status(), Status(log)) << "phase " << phase << " step " << step; }
            }
            model.ExpectFiles(directory);
        }
        bool const markAll = run % 2 == 0;
        for (auto const& [handle, number] : unmarked) {
            if (!markAll) continue;
            model.Mark(number);
            log.Mark(handle);
        }
        model.Terminate();
        log.Terminate();
        ASSERT_EQ(model.Status(), Status(log));
        model.ExpectFiles(directory);
        if (markAll) { EXPECT_EQ("", directory.Names()); }
    }
    EXPECT_GE(sizeLimitMax, 1000000U) << "the limit was raised twice";
}

TEST(RecoveryWriter, TerminationRemovesTheLastFileOnceAllInItIsMarked) {
    for (int records = 0; records < 4; ++records) {
        for (int marked = 0; marked <= records; ++marked) {
            Directory const directory;
            test::WriteFile(directory / "KeyFile", "keys");
            suts_StgRecovery log(directory.Path());
            std::string bytes;
            for (int i = 0; i < records; ++i) {
                suts_StgFileRecord* const handle = test::Log(log, RecordOf(100, i));
                bytes += RecordOf(100, i).InLog();
                if (i < marked) log.Mark(handle);
            }
            EXPECT_EQ("F1 KeyFile", directory.Names()) << "an open file stays";
            log.Terminate();
            EXPECT_EQ(marked == records ? "KeyFile" : "F1 KeyFile", directory.Names());
            EXPECT_EQ(marked == records ? "" : bytes, test::ReadFile(directory / "F1"));
        }
    }
}

TEST(RecoveryWriter, RefusesADirectoryThatIsUsedOrIsNone) {
    std::string const used = test::AssertionText("ERROR, Recovery directory not empty!\n", WRITER_CPP, 68);
    std::string const illegal = "Illegal name in recovery directory!\n";
    struct {
        test::Texts names;
        std::string text;  // empty: accepted
        int signal;
    } const rows[] = {
        {{}, "", 0},
        {{"KeyFile", ".hidden", ".F1", "F0"}, "", 0},
        {{"KeyFile", "F3"}, used, SIGINT},
        {{"F2147483647"}, used, SIGINT},
        {{"F2147483648"}, illegal, SIGABRT},
        {{"notes.txt"}, illegal, SIGABRT},
        {{"F"}, illegal, SIGABRT},
        {{"F1x"}, illegal, SIGABRT},
        {{"F-1"}, illegal, SIGABRT},
        {{"f1"}, illegal, SIGABRT},
        {{"G7"}, illegal, SIGABRT},
        {{"KeyFile2"}, illegal, SIGABRT},
    };
    for (auto const& row : rows) {
        Directory const directory;
        for (std::string const& name : row.names) test::WriteFile(directory / name, "");
        std::string const before = directory.Names();
        SCOPED_TRACE(before);
        test::ChildEnd const end = test::RunInChild([&directory] {
            suts_StgRecovery const log(directory.Path());
            return 0;
        });
        if (row.text.empty()) {
            EXPECT_EQ(0, end.status) << end.standardError;
            EXPECT_TRUE(std::filesystem::exists(directory / "F1"));
        } else {
            test::ExpectKilled(end, row.signal, row.text);
            EXPECT_EQ(before, directory.Names());
        }
    }
    test::ChildEnd const missing = test::RunInChild([] {
        suts_StgRecovery const log("/nonexistent/directory");
        return 0;
    });
    test::ExpectKilled(missing, SIGABRT, test::ErrorText("Recovery directory open failed: ", ENOENT));
}

TEST(RecoveryWriter, AFileInTheWayEndsTheProcess) {
    Directory const directory;
    test::ChildEnd const end = test::RunInChild([&directory] {
        suts_StgRecovery log(directory.Path());
        test::WriteFile(directory / "F2", "");
        for (int i = 0; i < 4; ++i) test::Log(log, RecordOf(4096));
        return 0;
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
        {"block, nothing fits", 0, 13, test::AssertionText("ERROR, Write incomplete!\n", WRITER_H, 98)},
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
    EXPECT_EQ("F1 F2", directory.Names());
    std::filesystem::remove(directory / "F1");
    log.NoteTaken(2);
    EXPECT_EQ(test::ErrorText("File removal failed!\n", ENOENT), test::StandardErrorOf([&] { log.Mark(handles[0]); }));
    EXPECT_EQ(" F2 Elements: 1 Committed: 0 \n", Status(log));
    log.Mark(handles[1]);
    log.Terminate();
    EXPECT_EQ("", directory.Names());
}

}  // namespace
