// The transfer queue: memory, backlogs read back from the log, files that vanish meanwhile.
#include "uts_stgrotransfer.h"

#include <deque>

#include "uts_support.h"

namespace {

using test::Record;
using test::Types;
using namespace std::string_literals;

using QEntry = suts_StgROTransfer::QEntry;

constexpr char QUEUE_H[] = "UTL/C/LIBS/UTS/uts_stgrotransfer.h";

// A log, the queue that reads it back, and what the queue has to give.
struct Pipeline {
    struct Expected {
        Record record;
        suts_StgFileRecord* file;
        unsigned long fileNumber;  // where it lies
    };

    explicit Pipeline(Types const& types) : schema(types) {}

    void Put(Record const& record) {
        suts_StgLogPosition position;
        suts_StgFileRecord* const file = test::Log(log, record, &position);
        test::OwnedField const key(record.key);
        test::OwnedField const value(record.value);
        queue.Put(file, record.time, key, value, position);
        expected.push_back({record, file, position.fileNumber});
    }
    void Take() {
        Expected const next = std::move(expected.front());
        expected.pop_front();
        bool const fileExists = std::filesystem::exists(directory / ("F" + std::to_string(next.fileNumber)));
        if (queue.Queued() > suts_StgROTransfer::MEMORY_RECORDS_MAX && !fileExists) ++readFromVanishedFiles;
        QEntry entry;
        queue.Take(entry, kept);
        Took(next, entry);
        if (batch.size() >= 50) CheckBatch();
    }
    // As many as lie in the log alone, with a record put before they are read.
    void TakeFromLog(int countMax, Record const& meanwhile) {
        std::vector<QEntry> entries(static_cast<std::size_t>(countMax));
        int const count = queue.TakeFromLog(entries.data(), countMax);
        Put(meanwhile);
        CheckBatch();
        queue.ReadTaken(entries.data(), count, kept);
        for (int i = 0; i < count; ++i) {
            Took(expected.front(), entries[static_cast<std::size_t>(i)]);
            expected.pop_front();
        }
        CheckBatch();
    }
    // A batch keeps what it has taken until all of it is absorbed.
    void Took(Expected const& next, QEntry const& entry) {
        ASSERT_EQ(next.file, entry.file);
        batch.push_back({next.record, entry});
        ++taken;
        unmarked.push_back(entry.file);
    }
    void CheckBatch() {
        for (auto const& [record, entry] : batch) {
            ASSERT_EQ(record, (Record{entry.time, test::BytesOf(entry.first), test::BytesOf(entry.second)}));
        }
        batch.clear();
        kept.Clear();
    }
    void MarkAll(test::Random& random) {
        std::shuffle(unmarked.begin(), unmarked.end(), random);
        for (suts_StgFileRecord* const file : unmarked) log.Mark(file);
        unmarked.clear();
    }

    test::Directory directory;
    test::Schema schema;
    suts_StgRecovery log{directory.Path()};
    suts_StgROTransfer queue{schema, log};
    sutl_ByteQueue kept;
    std::vector<std::pair<Record, QEntry>> batch;
    std::deque<Expected> expected;
    std::vector<suts_StgFileRecord*> unmarked;
    unsigned long taken = 0;
    long readFromVanishedFiles = 0;
};

struct Sizes {
    char const* name;
    Types types;
    std::size_t usualBytes;  // of key and value
    std::size_t greatBytes;  // of one in ten, up to
    long records;
    std::size_t backlogMax;
};

Sizes const SIZES[] = {
    {"least", {SUTS_STRING64}, 1, 1, 25000, 3000},
    {"small", {SUTS_STRING64, SUTS_STRING64}, 40, 40, 15000, 3000},
    {"mixed", {SUTS_STRING64, SUTS_STRING64}, 100, 30000, 6000, 2500},
    {"a file each", {SUTS_STRING64, SUTS_STRING64}, 20000, 20000, 2000, 1500},
};

Record RecordOf(test::Random& random, Sizes const& sizes, long time) {
    std::size_t const most = test::Below(random, 10) == 0 ? sizes.greatBytes : sizes.usualBytes;
    std::size_t const least = std::min(sizes.usualBytes, std::size_t(20));
    std::size_t const bytes = least + test::Below(random, most - least + 1);
    if (sizes.types.size() == 1) return {time, std::string(bytes - 1, 'k') + '\0', ""};
    std::string const key = std::string(test::Below(random, 16), 'k') + '\0';
    return {time, key, std::string(bytes - key.size(), static_cast<char>('a' + time % 26)) + '\0'};
}

TEST(TransferQueue, GivesEveryRecordOnceInOrderWhateverVanishes) {
    test::Random random = test::SeededRandom();
    for (Sizes const& sizes : SIZES) {
        SCOPED_TRACE(sizes.name);
        Pipeline pipeline(sizes.types);
        // A first record so long that its file, which counts nothing, is gone at once.
        pipeline.Put({0, std::string(20000, 'k') + '\0', std::string(sizes.types.size() - 1, '\0')});
        EXPECT_EQ(test::Names({"F2"}), pipeline.directory.Names());
        // The directory is not looked through at run time.
        test::WriteFile(pipeline.directory / "notes.txt", "");
        while (pipeline.expected.size() < 1100) pipeline.Put(RecordOf(random, sizes, 0));
        pipeline.Take();
        EXPECT_EQ(1, pipeline.readFromVanishedFiles);
        std::size_t const limits[] = {0, 1, 999, 1000, 1001, 1002, 1100, sizes.backlogMax};
        long put = 0;
        while (put < sizes.records) {
            // Rises and falls, with takes and puts in between, to one of the backlogs at which things change.
            std::size_t const goal = limits[test::Below(random, std::size(limits))];
            bool const rises = goal > pipeline.expected.size();
            std::size_t const marksAfter = test::Below(random, 3) > 0 ? 1 : 1 + test::Below(random, 300);
            while (pipeline.expected.size() != goal && put < sizes.records) {
                if (rises == (test::Below(random, 5) > 0)) {
                    pipeline.Put(RecordOf(random, sizes, put++));
                } else if (test::Below(random, 20) == 0) {
                    pipeline.TakeFromLog(static_cast<int>(1 + test::Below(random, 60)), RecordOf(random, sizes, put++));
                } else if (!pipeline.expected.empty()) {
                    pipeline.Take();
                }
                if (HasFatalFailure()) return;
                ASSERT_EQ(static_cast<long>(pipeline.expected.size()), pipeline.queue.Queued());
                if (test::Below(random, 100) == 0) pipeline.log.NoteTaken(test::Below(random, pipeline.taken + 1));
                if (pipeline.unmarked.size() >= marksAfter) pipeline.MarkAll(random);
            }
        }
        pipeline.queue.PutEndMarker();
        while (!pipeline.expected.empty() && !HasFatalFailure()) pipeline.Take();
        pipeline.CheckBatch();
        QEntry end;
        pipeline.queue.Take(end, pipeline.kept);
        EXPECT_TRUE(end.IsEndMarker() && end.file == nullptr);
        pipeline.MarkAll(random);
        pipeline.log.Terminate();
        EXPECT_EQ(test::Names({"notes.txt"}), pipeline.directory.Names());
    }
}

TEST(TransferQueue, ReadsTheLogOnlyBeyondAThousandRecords) {
    for (int const put : {1000, 1500}) {
        Pipeline pipeline({SUTS_STRING64, SUTS_STRING64});
        for (int i = 0; i < put; ++i) pipeline.Put({i, "a key on the heap\0"s, "a value on the heap\0"s});
        while (pipeline.queue.Queued() > 1000) pipeline.Take();
        std::filesystem::remove_all(pipeline.directory.Path());
        while (pipeline.queue.Queued() > 100) pipeline.Take();
        pipeline.CheckBatch();
    }
}

TEST(TransferQueue, WhatMustNotBeEndsTheProcess) {
    std::string const readFailed = test::AssertionText("ERROR, recovery read failed!\n", QUEUE_H, 119);
    struct {
        char const* name;
        int records;
        void (*damage)(std::string const& file);
        std::string text;
    } const rows[] = {
        {"empty queue", 0, [](auto&) {}, test::AssertionText("ERROR, getting from empty queue", QUEUE_H, 131)},
        {"log gone", 1001, [](auto& file) { std::filesystem::remove(file); }, readFailed},
        {"log cut", 1001, [](auto& file) { std::filesystem::resize_file(file, 7); },
         "WARNING: Incomplete recovery file\n" + readFailed},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        Pipeline pipeline({SUTS_STRING64});
        for (int i = 0; i < row.records; ++i) pipeline.Put({i, std::string(1, '\0'), ""});
        row.damage(pipeline.directory / "F1");
        // Only one file, or the next one would be read.
        if (row.records > 0) { std::filesystem::remove(pipeline.directory / "F2"); }
        auto const take = [&pipeline] {
            QEntry entry;
            return pipeline.queue.Take(entry, pipeline.kept), 0;
        };
        test::ExpectKilled(test::RunInChild(take), SIGINT, row.text);
    }
}

}  // namespace
