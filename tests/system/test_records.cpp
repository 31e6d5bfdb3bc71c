// The road of a record from the producer's frame to the consumer: bytes, order, keys, buckets.
#include <algorithm>
#include <limits>
#include <random>

#include "harness.h"

namespace systest {
namespace {

TEST(Records, ReachQueriesAndTheConsumerUnderEverySchema) {
    double const infinity = std::numeric_limits<double>::infinity();
    double const notANumber = std::numeric_limits<double>::quiet_NaN();
    double const denormal = std::numeric_limits<double>::denorm_min();
    Texts ofEveryLength;
    for (std::size_t const length : {0, 11, 12, 13, 1023, 1024, 70000})
        ofEveryLength.push_back(Text(std::string(length, static_cast<char>('a' + length % 26))));
    struct {
        char const* name;
        char const* types;
        Texts keys;
        Texts rests;
    } const rows[] = {
        {"all types, low", "s48f", {Text("k")}, {Int32(INT32_MIN) + Int64(INT64_MIN) + Float64(-infinity)}},
        {"all types, high", "s48f", {Text("k")}, {Int32(INT32_MAX) + Int64(INT64_MAX) + Float64(infinity)}},
        {"odd numbers", "4ff", {Int32(1)}, {Float64(notANumber) + Float64(-0.0), Float64(denormal) + Float64(1.5)}},
        {"int32 keys", "4s", {Int32(INT32_MIN), Int32(-1), Int32(0), Int32(INT32_MAX)}, {Text("value")}},
        {"int64 keys", "84", {Int64(INT64_MIN), Int64(1), Int64(1LL << 32), Int64(INT64_MAX)}, {Int32(7)}},
        {"float64 keys", "f4", {Float64(0.0), Float64(-0.0), Float64(notANumber), Float64(infinity)}, {Int32(7)}},
        {"string64 keys", "s4", {Text("ab"), Text("a"), Text("abc"), Text("\xff"), Text("b")}, {Int32(7)}},
        {"one field, a number", "8", {Int64(1), Int64(2)}, {""}},
        {"one field, a string", "s", {Text(""), Text("thirteen char")}, {""}},
        {"keys of every length", "s4", ofEveryLength, {Int32(1)}},
        {"values of every length", "4s", {Int32(1), Int32(2)}, ofEveryLength},
    };
    for (auto const& row : rows) {
        SCOPED_TRACE(row.name);
        Records sent;
        for (std::size_t i = 0; i < 2 * std::max(row.keys.size(), row.rests.size()); ++i)
            sent.push_back({row.keys[i % row.keys.size()], At(6 + static_cast<std::int64_t>(i) % 4, 99),
                            row.rests[i % row.rests.size()]});
        Session session(row.types);
        session.Start();
        session.Send(sent, 3);
        QueryClient const client = session.Query();
        for (std::string const& key : row.keys) {
            Records found;
            for (Record const& record : sent)
                if (record.key == key) found.push_back(record);
            ExpectSameRecords(found, client.AskUntil(key, found.size()));
        }
        session.FinishAndCheck(sent);
    }
}

// The first cycle holds the retired records of the start, one a key; the final one a record of the first key alone.
TEST(Keys, GoOutInGroupsOfAHundred) {
    for (int const keys : {0, 1, 100, 101, 200, 201}) {
        SCOPED_TRACE(std::to_string(keys) + " keys");
        Session session("44");
        session.Start();
        Records sent;
        for (int key = 0; key < keys; ++key) sent.push_back({Int32(key), At(4, key), Int32(-key)});
        if (keys > 0) sent.push_back({Int32(0), At(9), Int32(1)});
        session.Send(sent);
        session.WaitCycles(keys > 0 ? 1 : 0);
        Cycles const cycles = session.FinishAndCheck(sent);
        ASSERT_EQ(keys > 0 ? 2U : 1U, cycles.size());
        for (std::size_t i = 0; i < cycles.size(); ++i) {
            EXPECT_EQ(i == 0 ? static_cast<std::size_t>(keys) : 0, cycles[i].newKeys.size());
            int next = 0;
            for (auto const& group : cycles[i].groups) {
                EXPECT_EQ(std::min(100, keys - next), static_cast<int>(group.size()));
                for (Block const& block : group) EXPECT_EQ(Int32(next++), block.key);
            }
            EXPECT_EQ(keys, next);
        }
    }
}

TEST(Keys, SeenDuringACycleWaitForTheNext) {
    Session session("4s", Downstream::NARROW);
    session.Start();
    session.consumer().Pause(true);
    // The second record hands off the first, whose message is too long for all the buffers on its way.
    Records sent{{Int32(1), At(6), Text(std::string(8 << 20, 'x'))}, {Int32(1), At(8), Text("")}};
    session.Send(sent);
    session.server().WaitTold("TShp: Keys sent:\n", 2);
    sent.push_back({Int32(2), At(8), Text("new")});
    session.Send({sent.back()});
    session.WaitKeyFile(KeyEntry("4", Int32(1)) + KeyEntry("4", Int32(2)));
    EXPECT_EQ(1U, session.server().Told("TShp: Ship done")) << "the cycle was to last longer than this";
    session.consumer().Pause(false);
    Cycles const cycles = session.FinishAndCheck(sent);
    ASSERT_EQ(3U, cycles.size());
    EXPECT_EQ(1U, cycles[1].groups.at(0).size());
    EXPECT_EQ(Texts{Int32(2)}, cycles[2].newKeys);
}

// A hand-off at a bucket ships what lies before the bucket's start, nothing of the bucket itself, and each only once.
TEST(HandOffs, ShipWhatLeftTheOpenBucket) {
    std::int64_t const last = INT64_MAX / BUCKET_WIDTH_US;
    struct {
        std::vector<std::int64_t> times;
        std::size_t cycles;
        std::vector<std::int64_t> shipped;  // in the last of the cycles
    } const steps[] = {
        {{At(9)}, 1, {}},                      // far on from the start
        {{At(10, -1), At(10), At(9)}, 1, {}},  // one bucket on is not enough
        {{At(11), At(11, 5)}, 2, {At(9), At(9), At(10, -1), At(10)}},
        {{At(8), At(2), At(11, -1), At(13)}, 3, {At(2), At(8), At(11, -1), At(11), At(11, 5)}},  // late ones
        {{At(last - 3)}, 4, {At(13)}},                                                           // a far jump
        {{At(last - 4), At(5), At(last), INT64_MAX}, 5, {At(5), At(last - 4), At(last - 3)}},
    };
    Session session("44");
    session.Start();
    Records sent;
    for (auto const& step : steps) {
        Records records;
        for (std::int64_t const time : step.times)
            records.push_back({Int32(1), time, Int32(static_cast<int>(sent.size() + records.size()))});
        session.Send(records);
        sent.insert(sent.end(), records.begin(), records.end());
        session.WaitCycles(step.cycles);
    }
    Cycles const cycles = session.FinishAndCheck(sent);
    ASSERT_EQ(6U, cycles.size());
    for (auto const& step : steps) {
        std::vector<std::int64_t> times;
        for (Record const& record : AllRecords({cycles[step.cycles - 1]})) times.push_back(record.time);
        EXPECT_EQ(step.shipped, times) << "cycle " << step.cycles;
    }
}

// While the newest bucket is one of the first five, an orderly end ships retired contents only: what is left stays in
// the recovery directory, and a replay followed by later records brings it out.
TEST(HandOffs, LeaveTheVeryFirstBucketsToAReplay) {
    Records sent{{Int32(1), 0, Int32(1)}, {Int32(2), At(5, -1), Int32(2)}};
    Session first("44");
    first.Start();
    first.Send(sent);
    EXPECT_TRUE(AllRecords(first.Finish()).empty());
    EXPECT_EQ((Texts{"F1", "KeyFile"}), List(first.recovery));

    Session second("44");
    second.recoverFrom = first.recovery;
    second.Start();
    sent.push_back({Int32(1), At(5), Int32(3)});
    second.Send({sent.back()});
    second.FinishAndCheck(sent);
}

// Late records, far jumps and equal times, which leave in the order in which they came.
TEST(HandOffs, KeepEveryRecordOfARandomRun) {
    unsigned int const seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    auto const pick = [&](unsigned int below) { return static_cast<int>(random() % below); };
    Session session("44s");
    session.Start();
    Records sent;
    std::int64_t now = At(6);
    while (sent.size() < 6000) {
        Records frame;
        for (int i = pick(400); i >= 0; --i) {
            int const kind = pick(100);
            if (kind < 30) now += pick(300000);
            if (kind == 30) now += At(pick(40));
            std::int64_t const time =
                kind < 80 ? now : std::max<std::int64_t>(0, now - pick(1500) * std::int64_t{1000});
            std::string const text(static_cast<std::size_t>(pick(30)), 'v');
            frame.push_back({Int32(pick(50)), time, Int32(static_cast<int>(sent.size()) + i) + Text(text)});
        }
        session.Send(frame);
        sent.insert(sent.end(), frame.begin(), frame.end());
    }
    session.FinishAndCheck(sent);
}

}  // namespace
}  // namespace systest
