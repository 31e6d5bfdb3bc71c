// The organizer far behind the producer: records come back from the recovery log while its files are being removed.
#include <random>

#include "harness.h"

namespace systest {
namespace {

struct Load {
    char const* name;
    char const* types;
    int keys;
    std::function<std::string(int number)> rest;
    std::size_t logRecordBytes;  // at least
    int inStep;                  // records sent while the organizer keeps up
    int backlog;                 // records sent while the consumer does not read
};

// In step, behind, in step, behind, and the end while behind. Every record comes out once and with its own bytes.
void ExpectEveryRecordOnce(Load const& load) {
    unsigned int const seed = std::random_device{}();
    SCOPED_TRACE(std::string(load.name) + ", seed " + std::to_string(seed));
    Session session(load.types, Downstream::NARROW);
    session.Start();
    std::mt19937 random(seed);
    auto const pick = [&](unsigned int below) { return static_cast<int>(random() % below); };
    BucketModel model;
    Records sent;
    std::int64_t now = At(10);
    // Event time so fast that nearly every record hands the one before it off: recovery files go as soon as they are
    // closed. Now and then a record is late or time stands still, so that files do not go in step with the reading.
    auto const send = [&](int count) {
        Records records;
        for (int i = static_cast<int>(sent.size()); count > 0; --count, ++i) {
            int const kind = pick(20);
            if (kind >= 3) now += At(1 + pick(3));
            std::int64_t const time = kind == 0 ? now - At(pick(5)) : now + pick(1000);
            records.push_back({Int32(i % load.keys), time, load.rest(i)});
        }
        session.Send(records, 50);
        model.Absorb(records);
        sent.insert(sent.end(), records.begin(), records.end());
    };
    std::filesystem::path const directory = session.recovery;
    for (int round = 0; round < 2; ++round) {
        // Each step is shipped before the next, which leaves the log's second reader some thousand records behind.
        for (int i = 0; i < 10; ++i) {
            send(load.inStep / 10);
            session.WaitCycles(model.cycles());
        }
        WriteFile(directory / ("stray" + std::to_string(round)), "not a recovery file");
        session.consumer().Pause(true);
        send(load.backlog);
        if (round == 1) break;
        // What cannot be shipped stays in the log, so its size tells when the records were received.
        session.server().Wait("the backlog in the log", [&](std::string& seen) {
            std::uintmax_t bytes = 0;
            std::error_code removed;
            for (std::string const& name : List(directory))
                if (std::uintmax_t const size = std::filesystem::file_size(directory / name, removed); !removed)
                    bytes += size;
            seen = std::to_string(bytes) + " bytes";
            return bytes >= static_cast<std::size_t>(load.backlog) * load.logRecordBytes / 2;
        });
        session.consumer().Pause(false);
        session.WaitCycles(model.cycles());
    }
    session.Disconnect();
    std::string const marker = "TMain: TQ termination ";
    session.server().WaitTold(marker);
    std::string const& errors = session.server().Errors();
    EXPECT_GT(std::stol(errors.substr(errors.find(marker) + marker.size())), 1000) << "no backlog to speak of";
    session.consumer().Pause(false);

    EXPECT_EQ("exit 0", session.server().WaitEnd());
    Cycles const cycles = session.Shipped();
    EXPECT_EQ(model.cycles() + 1, cycles.size());
    ExpectSameRecords(sent, AllRecords(cycles));
    ExpectOrderedBlocks(cycles, sent);
    EXPECT_EQ((Texts{"KeyFile", "stray0", "stray1"}), List(directory)) << "strays are left alone, files are not left";
}

TEST(Backlog, OfSmallRecordsComesBackFromTheLog) {
    ExpectEveryRecordOnce({"20 bytes", "44", 60, Int32, 20, 2000, 5000});
}

TEST(Backlog, OfRecordsThatEachCloseAFileComesBackFromTheLog) {
    auto const rest = [](int i) {
        return Text(std::to_string(i) + std::string(20000, static_cast<char>('a' + i % 26)));
    };
    ExpectEveryRecordOnce({"20 KB", "4s", 3, rest, 20000, 300, 2200});
}

TEST(Backlog, OfMixedSizesComesBackFromTheLog) {
    auto const rest = [](int i) {
        return Int32(i) + Text(std::string(i % 97 == 0 ? 15000 : static_cast<std::size_t>(i % 50), 'm'));
    };
    ExpectEveryRecordOnce({"mixed", "44s", 120, rest, 45, 2000, 4000});
}

}  // namespace
}  // namespace systest
