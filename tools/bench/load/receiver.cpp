#include "receiver.h"

#include <sys/resource.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "connections.h"

namespace {

constexpr std::size_t ROOM = 1 << 20;
constexpr std::chrono::milliseconds PATIENCE{100};  // between two looks at whether it is over

}  // namespace

double bench_CpuSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    auto const seconds = [](timeval const& t) {
        return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

bench_Receiver::bench_Receiver(int connection, bench_ShipCheck* check, std::chrono::seconds silenceMax)
    : connection_(connection), check_(check), silenceMax_(silenceMax), buffer_(ROOM) {
    bench_SetPatience(connection, PATIENCE);
}

void bench_Receiver::Run() {
    Clock::time_point heard = Clock::now();
    while (!over_.load() && !ended_) {
        if (paused_.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            heard = Clock::now();
            continue;
        }
        ssize_t const count = recv(connection_, buffer_.data() + kept_, ROOM - kept_, 0);
        if (count > 0) {
            Take(static_cast<std::size_t>(count));
            heard = Clock::now();
        } else if (count == 0) {
            ended_ = true;
        } else if ((errno != EINTR && errno != EAGAIN) || Clock::now() - heard > silenceMax_) {
            error_ = errno;
            ended_ = true;
        }
    }
    done_.store(true);
}

void bench_Receiver::Take(std::size_t count) {
    bytes_ += count;
    bool newRecords = check_ == nullptr;
    if (check_ != nullptr) {
        unsigned char const* const end = buffer_.data() + kept_ + count;
        unsigned char const* const rest = check_->Take(buffer_.data(), end);
        kept_ = static_cast<std::size_t>(end - rest);
        memmove(buffer_.data(), rest, kept_);
        newRecords = check_->Records() != Records();
        records_.store(check_->Records(), std::memory_order_relaxed);
        latestUs_.store(check_->LatestUs(), std::memory_order_relaxed);
    }
    if (newRecords) {
        last_ = Clock::now();
        cpuSeconds_ = bench_CpuSeconds();
    }
}
