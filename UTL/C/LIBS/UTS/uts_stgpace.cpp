#include "uts_stgpace.h"

#include <chrono>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds STALL_TIME(100);  // of an organizer that takes nothing
constexpr std::chrono::microseconds NAP(100);

}  // namespace

void suts_StgPace::Wait() {
    unsigned long taken = recovery_.Taken();
    unsigned long const goal = taken_ + STEP_TAKEN;
    if (stalled_ && taken == taken_) return;
    Clock::time_point moved = Clock::now();
    stalled_ = false;
    while (taken < goal && !stalled_) {
        std::this_thread::sleep_for(NAP);
        unsigned long const now = recovery_.Taken();
        Clock::time_point const time = Clock::now();
        if (now != taken) moved = time;
        taken = now;
        stalled_ = time - moved >= STALL_TIME;
    }
    taken_ = taken;
}
