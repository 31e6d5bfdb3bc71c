// The pace of the feeding thread beside an organizer that takes, or does not.
#include "uts_stgpace.h"

#include <thread>

#include "uts_support.h"

namespace {

constexpr unsigned long BACKLOG_MAX = 50000;
constexpr unsigned long RECORDS = 400000;
std::string const KEY("key\0", 4);

struct Feeding {
    // Appends records as fast as the pace allows.
    void Feed(unsigned long records) {
        for (; records > 0; --records) {
            test::Log(log, {1, KEY, ""});
            pace.Keep();
        }
    }

    test::Directory directory;
    suts_StgRecovery log{directory.Path()};
    suts_StgPace pace{log, BACKLOG_MAX};
};

TEST(Pace, ABacklogShrinksAsLongAsTheOrganizerTakes) {
    Feeding feeding;
    feeding.log.NoteTakerWaits(true);
    feeding.Feed(RECORDS);  // not held back at all, or this would take a while
    feeding.log.NoteTakerWaits(false);
    EXPECT_EQ(RECORDS, feeding.log.Untaken());
    std::atomic<bool> ended = false;
    std::thread taking([&] {
        unsigned long taken = 0;
        while (!ended.load()) {
            feeding.log.NoteTaken(taken = std::min(taken + 1000, RECORDS));
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    test::WaitUntil("the organizer to take", [&] { return feeding.log.Taken() > 0; });
    feeding.Feed(RECORDS / 2);
    EXPECT_LT(feeding.log.Untaken(), RECORDS);
    ended.store(true);
    taking.join();
}

}  // namespace
