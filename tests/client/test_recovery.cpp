// check and repair against the server's own reading: what is promised is what a replay brings, whatever the files hold.
#include <sys/resource.h>

#include <map>

#include "../uts/uts_support.h"
#include "key_file_walker.h"
#include "recovery_check.h"
#include "recovery_repair.h"
#include "uts_stgkeyfile.h"

namespace {

using test::Directory;
using test::Host;
using test::Record;
using test::Types;
using namespace std::string_literals;

constexpr char INCOMPLETE_TEXT[] = "WARNING: Incomplete recovery file\n";

struct Replay {
    std::vector<Record> records;
    std::string text;
};

Replay ReplayOf(suts_tsspec const& spec, std::string const& directory) {
    Replay replay;
    replay.text = test::StandardErrorOf([&] {
        suts_StgRecoveryPlayback playback(spec, directory.c_str());
        suts_StgEntry entry;
        while (playback.QNext(entry) == 0) {
            replay.records.push_back({entry.time, test::BytesOf(entry.key), test::BytesOf(entry.value)});
        }
    });
    return replay;
}

// The keys that a start takes from the key file, and whether it goes on behind them.
std::pair<test::Texts, bool> KeysOf(suts_tsspec const& spec, std::string const& directory) {
    suts_StgKeyFileReader reader(spec, directory.c_str());
    test::Texts keys;
    sutl_RawBytefield key;
    suts_StgKeyFileReader::Result result;
    while ((result = reader.Next(key)) == suts_StgKeyFileReader::KEY) keys.push_back(test::TakeBytes(key));
    return {keys, result == suts_StgKeyFileReader::END};
}

void ExpectSameKeys(suts_tsspec const& spec, std::string const& directory) {
    auto const [keys, goesOn] = KeysOf(spec, directory);
    KeyFileWalker walker(spec, directory + "/KeyFile");
    KeyFileWalker::Key key;
    KeyFileWalker::Result result;
    std::size_t count = 0;
    for (; (result = walker.Next(key)) == KeyFileWalker::KEY; ++count) {
        ASSERT_LT(count, keys.size());
        EXPECT_EQ(KeyHash::Of(keys[count]), key.hash);
        EXPECT_EQ(static_cast<long>(keys[count].size()), key.bytes);
        EXPECT_EQ(keys[count].substr(0, LogRecord::KEY_BYTES_KEPT), key.start);
    }
    EXPECT_EQ(keys.size(), count);
    EXPECT_EQ(goesOn, result == KeyFileWalker::END);
}

// What check says is what a replay does.
void ExpectPromiseKept(suts_tsspec const& spec, std::string const& directory, RecoveryReport& report) {
    ASSERT_TRUE(CheckRecovery(spec, directory, {}, report));
    Replay const replay = ReplayOf(spec, directory);
    LogWalker walker(spec, report.directory.files);
    LogRecord record;
    std::string whole;
    std::map<std::string, unsigned long> keys;
    unsigned long records = 0;
    for (Record const& played : replay.records) {
        ASSERT_EQ(LogWalker::RECORD, walker.Next(record));
        ASSERT_EQ(played.time, record.timeUs);
        ASSERT_TRUE(walker.Read(record, whole));
        ASSERT_EQ(played.key + played.value, whole.substr(SUTS_LOG_HEAD_BYTES));
        ASSERT_EQ(KeyHash::Of(played.key), record.hash);
        if (played.time < 0) continue;
        ++keys[played.key];
        ++records;
    }
    EXPECT_NE(LogWalker::RECORD, walker.Next(record));
    EXPECT_EQ(records, report.records);
    EXPECT_EQ(replay.records.size(), report.records + report.negative.records);
    bool const warns = report.end == LogWalker::TORN && report.tornReason != LogWalker::ENDS_BEFORE_FIELD;
    EXPECT_EQ(warns, replay.text == INCOMPLETE_TEXT) << replay.text;
    for (KeyCounts::Entry const* const entry : report.keys.InOrder()) {
        if (entry->start.size() == static_cast<std::size_t>(entry->bytes)) {
            EXPECT_EQ(keys.contains(entry->start) ? keys[entry->start] : 0, entry->records);
        }
    }
    ExpectSameKeys(spec, directory);
}

// What repair writes replays without a word, and brings what it says.
void ExpectRepaired(suts_tsspec const& spec, std::vector<std::string> const& directories, RepairReport& report,
                    Replay& replay) {
    Directory const work;
    RecoveryRepair repair(spec, work / "clean", work / "rest");
    ASSERT_TRUE(repair.Run(directories)) << repair.Problem();
    report = repair.Report();
    replay = ReplayOf(spec, work / "clean");
    EXPECT_EQ(0, std::ranges::count(replay.text, 'W')) << replay.text;  // warnings
    EXPECT_EQ(report.records, replay.records.size());
    auto const [keys, goesOn] = KeysOf(spec, work / "clean");
    EXPECT_TRUE(goesOn);
    EXPECT_EQ(report.keys, keys.size());
    EXPECT_EQ(report.parts.empty() ? test::Names{"clean"} : test::Names({"clean", "rest"}), work.Names());
    long bytes = 0;
    for (SetAsidePart const& part : report.parts)
        bytes += static_cast<long>(std::filesystem::file_size(work / ("rest/" + part.name)));
    EXPECT_EQ(report.setAsideBytes, bytes);
}

Types const TYPES = {SUTS_STRING64, SUTS_INT32, SUTS_INT64, SUTS_FLOAT64, SUTS_STRING64};

Record RecordOf(long time, std::string const& key, std::string const& text) {
    return {time, key + '\0', "i32.int64...float64." + text + '\0'};
}

TEST(RecoveryCheck, KeepsItsPromiseAtEveryCut) {
    test::Random random = test::SeededRandom();
    test::Schema const schema(TYPES);
    Directory const directory;
    std::string bytes;
    std::vector<std::size_t> ends = {0};
    for (long i = 0; i < 200; ++i) {
        std::string const text = i == 195 ? std::string(300000, 'x') : std::string(test::Below(random, 30), 'x');
        bytes += RecordOf(i % 10 == 9 ? -i : i, "key" + std::to_string(i % 7), text).InLog();
        ends.push_back(bytes.size());
    }
    test::WriteFile(directory / "KeyFile", "");
    for (std::size_t cut = 0; cut <= bytes.size(); cut += cut > ends[195] + 99 && cut < ends[196] - 99 ? 4999 : 1) {
        SCOPED_TRACE(cut);
        test::WriteFile(directory / "F4", bytes.substr(0, cut));
        RecoveryReport report(1000);
        ExpectPromiseKept(schema, directory.Path(), report);
        std::size_t const whole = *(std::upper_bound(ends.begin(), ends.end(), cut) - 1);
        EXPECT_EQ(cut == whole ? LogWalker::END : LogWalker::TORN, report.end);
        EXPECT_EQ(static_cast<long>(cut - whole), report.tornBytes);
        EXPECT_EQ(cut == whole ? 0 : static_cast<long>(whole), report.torn.offset);
        if (HasFatalFailure() || test::Below(random, 200) > 0) continue;
        RepairReport repaired;
        Replay replay;
        ExpectRepaired(schema, {directory.Path()}, repaired, replay);
        EXPECT_EQ(report.records, repaired.records);
        EXPECT_EQ(report.negative.records, repaired.leftOut);
        EXPECT_EQ(static_cast<long>(cut), repaired.bytes + repaired.setAsideBytes);
    }
}

// BRINDLE_DAMAGES asks for more of them.
TEST(RecoveryCheck, KeepsItsPromiseWhateverTheDamage) {
    test::Random random = test::SeededRandom();
    char const* const wanted = std::getenv("BRINDLE_DAMAGES");
    for (long left = wanted != nullptr ? std::atol(wanted) : 300; left > 0; --left) {
        SCOPED_TRACE(left);
        Types const types = test::RandomTypes(random);
        test::Schema const schema(types);
        Directory const directory;
        std::map<std::string, std::string> files;
        for (std::string const name : {"F2", "F3", "F10"}) {
            for (std::size_t i = test::Below(random, 30); i > 0; --i) {
                Record const record = test::RandomRecord(random, types);
                files[name] += record.InLog();
                bool const copied = types[0] != SUTS_STRING64 || test::Below(random, 3) == 0;
                files["KeyFile"] += (copied ? "" : Host(static_cast<int>(record.key.size()))) + record.key;
            }
        }
        for (auto& [name, bytes] : files) {
            if (bytes.empty() || test::Below(random, 3) == 0) continue;
            std::size_t const place = test::Below(random, bytes.size());
            switch (test::Below(random, 5)) {
                case 0:
                    bytes[place] = static_cast<char>(random());
                    break;
                case 1:
                    bytes.replace(place, 4, Host(static_cast<int>(random())));
                    break;
                case 2:
                    bytes.resize(place);
                    break;
                case 3:
                    bytes.replace(place, 600, 600, '\0');
                    break;
                default:
                    bytes.insert(place, test::RandomBytes(random, 3));
            }
        }
        files["KeyFile"] += "";
        for (auto const& [name, bytes] : files) test::WriteFile(directory / name, bytes);
        RecoveryReport report(100000);
        ExpectPromiseKept(schema, directory.Path(), report);
        RepairReport repaired;
        Replay replay;
        if (left % 10 == 0) ExpectRepaired(schema, {directory.Path()}, repaired, replay);
        if (HasFailure()) break;
    }
}

TEST(RecoveryCheck, NeedsNoMemoryForWhatIsClaimed) {
    Directory const directory;
    test::Schema const schema(TYPES);
    std::string const endless(std::size_t{96} << 20, 'x');
    test::WriteFile(directory / "KeyFile", Host(INT32_MAX) + endless);
    test::WriteFile(directory / "F1", Host(1L) + Host(INT32_MAX) + "key\0i32.int64...float64."s + endless);
    test::WriteFile(directory / "F2", "a text without an end");
    rusage before = {};
    getrusage(RUSAGE_SELF, &before);
    RecoveryReport report(10);
    ASSERT_TRUE(CheckRecovery(schema, directory.Path(), {}, report));
    rusage after = {};
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 8L << 10);
    EXPECT_EQ(LogWalker::TORN, report.end);
    EXPECT_EQ(LogWalker::ENDS_IN_FIELD, report.tornReason);
    EXPECT_EQ(KeyFileWalker::CORRUPT, report.keyFileEnd);
}

TEST(RecoveryRepair, GoesOnBehindDamage) {
    test::Schema const schema(TYPES);
    Record const a = RecordOf(1, "a", "first"), b = RecordOf(2, "b", "second"), c = RecordOf(3, "c", "third");
    Record const negative = RecordOf(-4, "d", "");
    std::string const good = a.InLog() + b.InLog() + c.InLog();
    auto const patched = [&good, &a](std::size_t place, std::string const& bytes) {
        std::string damaged = good;
        return damaged.replace(a.InLog().size() + place, bytes.size(), bytes);
    };
    struct {
        char const* damage;
        std::string file;
        std::vector<Record> kept;
        unsigned long parts, inexact;
    } const rows[] = {
        {"none", good, {a, b, c}, 0, 0},
        {"a tail", good + "12345678", {a, b, c}, 1, 0},
        {"a length that claims more", patched(8, Host(99)), {a, b, c}, 0, 1},
        {"a length that claims less", patched(8, Host(3)), {a}, 1, 0},
        {"a text that ends too soon", patched(36, "\0"s), {a}, 1, 0},
        {"zeros", good + std::string(600, '\0'), {a, b, c}, 1, 0},
        {"a negative time", good + negative.InLog() + a.InLog(), {a, b, c, a}, 1, 0},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.damage);
        Directory const first, second;
        test::WriteFile(first / "KeyFile", Host(2) + "b\0"s + Host(2) + "x\0"s);
        test::WriteFile(first / "F3", row.file);
        test::WriteFile(first / "F9", c.InLog());
        test::WriteFile(second / "KeyFile", Host(2) + "y\0"s + "cut");
        test::WriteFile(second / "F1", a.InLog());
        RepairReport report;
        Replay replay;
        ExpectRepaired(schema, {first.Path(), second.Path()}, report, replay);
        std::vector<Record> all = row.kept;
        all.insert(all.end(), {c, a});
        EXPECT_EQ(all, replay.records);
        EXPECT_EQ(row.parts + 1, report.parts.size());
        EXPECT_EQ(row.inexact, report.inexact);
    }
}

}  // namespace
