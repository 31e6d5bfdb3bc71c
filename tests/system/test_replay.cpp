// What a killed server leaves behind, and what the next one makes of it.
#include <algorithm>

#include "harness.h"

namespace systest {
namespace {

// All of these records that the server writes at once is on disk: all but the block that it is still filling.
void WaitForLog(Session& session, Records const& records) {
    std::size_t bytes = 0;
    for (Record const& record : records) bytes += LogRecord(session.types, record).size();
    session.server().Wait("the log", [&](std::string& seen) {
        std::size_t const size = ReadLog(session.recovery).size();
        seen = std::to_string(size) + " of " + std::to_string(bytes) + " bytes";
        return size + 4095 >= bytes;
    });
}

// A replay of a prepared directory, followed by a producer that says nothing.
Cycles Replay(Session& session, std::filesystem::path const& from) {
    session.recoverFrom = from;
    session.Start();
    return session.Finish();
}

// Three servers, the first two killed. String keys lose their lengths when the second copies them, so the third reads a
// key file of both kinds of entries.
void ExpectGenerationsToKeepEverything(Types const& types) {
    auto const key = [&](std::string const& text, int number) { return types[0] == 's' ? Text(text) : Int64(number); };
    Texts const oldKeys{
        key("alpha", 1),    key("", -1), key("b", 0), key("twelve chars", 2), key(std::string(2000, 'K'), 3),
        key("\xc3\xa4", 4), key("z", 5)};
    Texts const newKeys{key("newcomer", 6), key(std::string(1100, 'N'), 7), key("q", 8)};
    auto const make = [&](Texts const& keys, int from, int to) {
        Records records;
        for (int i = from; i < to; ++i)
            records.push_back(
                {keys[static_cast<std::size_t>(i) % keys.size()], At(5, i), Int32(i) + Text(std::string(200, 'p'))});
        return records;
    };
    auto const join = [&](Texts const& keys, auto entry) {
        std::string bytes;
        for (std::string const& name : keys) bytes += entry(types, name);
        return bytes;
    };

    Session first(types);
    first.Start();
    Records const sent = make(oldKeys, 0, 300);
    first.Send(sent);
    WaitForLog(first, sent);
    first.WaitKeyFile(join(oldKeys, KeyEntry));
    first.server().Kill();
    Records expected = DecodeLog(types, ReadLog(first.recovery));
    ASSERT_GT(expected.size(), 250U);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), sent.begin())) << "the log is not what was sent";

    Session second(types);
    second.recoverFrom = first.recovery;
    Files const before = ReadAll(first.recovery);
    second.Start();
    EXPECT_EQ(before, ReadAll(first.recovery)) << "the old directory is only read";
    Records const added = make(newKeys, 300, 400);
    second.Send(added);
    expected.insert(expected.end(), added.begin(), added.end());
    WaitForLog(second, expected);
    second.WaitKeyFile(join(oldKeys, CopiedKey) + join(newKeys, KeyEntry));
    second.server().Kill();
    Records const logged = DecodeLog(types, ReadLog(second.recovery));
    ASSERT_GT(logged.size(), expected.size() - added.size() + newKeys.size());
    EXPECT_TRUE(std::equal(logged.begin(), logged.end(), expected.begin())) << "replayed records come first";

    Session third(types);
    Cycles const cycles = Replay(third, second.recovery);
    ExpectSameRecords(logged, AllRecords(cycles));
    Texts keys = oldKeys;
    keys.insert(keys.end(), newKeys.begin(), newKeys.end());
    EXPECT_EQ(keys, AnnouncedKeys(cycles));
    EXPECT_EQ((Files{{"KeyFile", join(keys, CopiedKey)}}), ReadAll(third.recovery));
}

TEST(ReplayAfterTwoKills, KeepsEveryLoggedRecordAndEveryStringKey) { ExpectGenerationsToKeepEverything("s4s"); }
TEST(ReplayAfterTwoKills, KeepsEveryLoggedRecordAndEveryNumberKey) { ExpectGenerationsToKeepEverything("84s"); }

// A kill in the midst of shipping: shipped records may come twice, but none that was on disk is lost.
TEST(ReplayAfterAKill, WhileShippingLosesNothingOnDisk) {
    Session first("44", Downstream::NARROW);
    first.Start();
    Records sent;
    for (int i = 0; i < 4000; ++i) sent.push_back({Int32(i % 40), At(6 + i), Int32(i)});
    first.Send(sent, 100);
    first.WaitCycles(700);
    first.server().Kill();
    Records const logged = DecodeLog(first.types, ReadLog(first.recovery));
    ASSERT_FALSE(logged.empty());
    Records const rest(std::find(sent.begin(), sent.end(), logged.front()), sent.end());
    ASSERT_LE(logged.size(), rest.size());
    EXPECT_TRUE(std::equal(logged.begin(), logged.end(), rest.begin())) << "what is on disk has no gap";
    Session second("44");
    ExpectSameRecords(logged, AllRecords(Replay(second, first.recovery)));
}

// A log is cut, or lies about its lengths. The records before the damage are replayed.
TEST(DamagedLogs, YieldTheRecordsBeforeTheDamage) {
    Types const types = "s4s";
    auto const sample = [](int number) -> Record {
        return {Text("key" + std::to_string(number % 2)), At(9, number), Int32(number) + Text("value")};
    };
    // Head 12 bytes, key 5, number 4, text 6.
    std::string const one = LogRecord(types, sample(1)), two = LogRecord(types, sample(2));
    std::string const three = LogRecord(types, sample(3));
    auto const lie = [&](std::int32_t bytes) -> Files {
        return {{"F1", one + LogRecord(types, sample(2), bytes) + three}};
    };
    auto const cut = [&](std::size_t bytes) -> Files { return {{"F1", one + two.substr(0, bytes)}}; };
    char const* const warning = "WARNING: Incomplete recovery file\n";
    struct {
        char const* name;
        Files files;
        int records;  // that are replayed, from the first on
        char const* line;
    } const rows[] = {
        {"numbers, not names, give the order", {{"F10", two}, {"F9", one}}, 2, ""},
        {"a record goes on in the next file", {{"F1", one + two.substr(0, 19)}, {"F2", two.substr(19) + three}}, 3, ""},
        {"a file F0 beside the log", {{"F0", three}, {"F1", one + two}}, 2, ""},
        {"cut inside the head", cut(11), 1, warning},
        {"cut before a string", cut(21), 1, ""},
        {"cut before the NUL", cut(26), 1, warning},
        {"value length without room for the number", lie(3), 1, warning},
        {"value length below nothing", lie(INT32_MIN), 1, warning},
        {"value length one too large", lie(11), 3, ""},
        {"value length beyond all memory", lie(INT32_MAX), 3, ""},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        Session session(types);
        std::filesystem::path const old = session.Make("old");
        Fill(old, row.files);
        WriteFile(old / "KeyFile", KeyEntry(types, Text("key1")));
        Records expected;
        for (int number = 1; number <= row.records; ++number) expected.push_back(sample(number));
        ExpectSameRecords(expected, AllRecords(Replay(session, old)));
        EXPECT_EQ(row.line, session.server().OtherLines());
        EXPECT_EQ(ONLY_KEY_FILE, List(session.recovery));
    }
}

// A negative time stamp would be taken for the end of all records.
TEST(NegativeTimes, AreRefusedAloneLiveAndInAReplay) {
    Session live("44");
    live.Start();
    Records mixed, good;
    std::string log;
    for (int i = 0; i < 40; ++i) {
        std::int64_t const time = i % 4 == 1 ? -1 : i % 4 == 2 ? INT64_MIN + i : At(9, i);
        mixed.push_back({Int32(i % 4), time, Int32(i)});
        if (time >= 0) good.push_back(mixed.back());
        log += LogRecord(live.types, mixed.back());
    }
    live.Send(mixed);
    live.FinishAndCheck(good);
    std::size_t const lines = Count(live.server().OtherLines(), "\n");
    EXPECT_TRUE(lines >= 1 && lines < 20) << "one line for the first, then more rarely: " << live.server().OtherLines();

    Session replaying("44");
    std::filesystem::path const old = replaying.Make("old");
    Fill(old, {{"KeyFile", ""}, {"F1", log}});
    ExpectSameRecords(good, AllRecords(Replay(replaying, old)));
    EXPECT_EQ(11U, replaying.server().Told(" --- Recovered ")) << "1 to 10 and 20: the refused do not count";
    EXPECT_EQ(1U, replaying.server().Told(" --- Recovered 20 records\n"));
}

TEST(OldKeyFiles, GiveBackTheKeysInTheirOrder) {
    auto const entry = [](std::string_view text) { return KeyEntry("s", Text(text)); };
    auto const copy = [](std::string_view text) { return CopiedKey("s", Text(text)); };
    std::string const kilo(1030, 'k');
    struct {
        char const* name;
        char const* types;
        std::string bytes;
        Texts keys;
    } const rows[] = {
        {"no key", "s4", "", {}},
        {"a number twice",
         "84",
         KeyEntry("8", Int64(1)) + KeyEntry("8", Int64(2)) + KeyEntry("8", Int64(1)),
         {Int64(1), Int64(2), Int64(1)}},
        {"a long string twice", "s4", entry(kilo) + entry("") + entry(kilo), {Text(kilo), Text(""), Text(kilo)}},
        {"copied, the last short", "s4", copy("alpha") + copy("y") + copy("x"), {Text("alpha"), Text("y"), Text("x")}},
        {"copied, then new", "s4", copy(kilo) + copy("b") + entry("gamma"), {Text(kilo), Text("b"), Text("gamma")}},
        {"a negative length", "s4", copy("\xff\xfe\xfd\xfc!") + entry("a"), {Text("\xff\xfe\xfd\xfc!"), Text("a")}},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        Session session(row.types);
        std::filesystem::path const old = session.Make("old");
        Records records;
        std::string log, copied;
        for (std::string const& key : row.keys) {
            records.push_back({key, At(9), Int32(static_cast<int>(records.size()))});
            log += LogRecord(row.types, records.back());
            copied += CopiedKey(row.types, key);
        }
        Fill(old, {{"KeyFile", row.bytes}});
        if (!log.empty()) WriteFile(old / "F1", log);
        Cycles const cycles = Replay(session, old);
        ExpectSameRecords(records, AllRecords(cycles));
        EXPECT_EQ(row.keys, AnnouncedKeys(cycles));
        Texts blocks;
        for (auto const& group : cycles.back().groups)
            for (Block const& block : group) blocks.push_back(block.key);
        EXPECT_EQ(row.keys, blocks) << "a key that stands twice has two blocks";
        EXPECT_EQ((Files{{"KeyFile", copied}}), ReadAll(session.recovery));
        std::string const noLog = " Playback info, only keyfile, no uncovered data,  in " + old.string() + " \n";
        EXPECT_EQ(log.empty() ? noLog : "", session.server().OtherLines());
    }
}

}  // namespace
}  // namespace systest
