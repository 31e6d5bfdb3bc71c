#include "uts_stgpace.h"

#include <chrono>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds WAIT_MAX(500);
constexpr std::chrono::microseconds NAP(200);

}  // namespace

void suts_StgPace::Wait() {
    unsigned long const goal = taken_ + STEP_TAKEN;
    Clock::time_point const deadline = Clock::now() + WAIT_MAX;
    while (recovery_.Taken() < goal && !recovery_.TakerWaits() && Clock::now() < deadline) {
        std::this_thread::sleep_for(NAP);
    }
    taken_ = recovery_.Taken();
}
