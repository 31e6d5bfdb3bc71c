#include "prober.h"

#include <algorithm>
#include <thread>

namespace {

using Clock = bench_Producer::Clock;

constexpr std::chrono::seconds PATIENCE{60};
constexpr std::chrono::microseconds ASK_PAUSE{100};  // the least between two queries for one record
constexpr int PAUSE_SHARE = 16;  // of the time for which a record was asked for already: the pause grows with it

}  // namespace

Prober::Prober(suts_tsspec const& spec, bench_Workload const& workload, bench_Producer const& producer,
               bench_Receiver const& receiver, std::mutex& connecting, Options const& options)
    : spec_(spec),
      workload_(workload),
      producer_(producer),
      receiver_(receiver),
      connecting_(connecting),
      options_(options) {}

void Prober::Run() {
    unsigned long probed = 0;  // frames up to the one that was
    while (!producer_.Done()) {
        unsigned long const frames = producer_.Frames();
        Clock::time_point const next = Clock::now() + options_.interval;
        if (frames != probed && !Probe(frames - 1)) break;
        probed = frames;
        std::this_thread::sleep_until(next);
    }
    if (client_ != nullptr) client_->Leave();
    if (client_ != nullptr && client_->IsWrong()) fault_ = client_->Fault();
}

bool Prober::Connect() {
    if (client_ != nullptr) return true;
    std::lock_guard const lock(connecting_);
    bench_Pair pair = bench_ConnectPair(options_.host, options_.ports, PATIENCE);
    if (!pair.IsOpen()) return false;
    bench_SetPatience(pair.second.Get(), PATIENCE);
    client_ = std::make_unique<bench_QueryClient>(spec_, std::move(pair));
    return true;
}

// False when no more can be asked.
bool Prober::Probe(unsigned long frame) {
    std::size_t const perLap = workload_.Frames().size();
    bench_Workload::Frame const& sent = workload_.Frames()[frame % perLap];
    Clock::time_point intended;
    if (sent.timeUs == 0 || !producer_.IntendedStart(frame, intended)) return true;
    unsigned long const timeUs = sent.timeUs + frame / perLap * workload_.LapUs();
    std::string const& key = workload_.Keys()[sent.key].wire;
    if (!Connect()) return false;
    Clock::time_point const begin = Clock::now();
    while (!producer_.Done()) {
        Clock::time_point const asked = Clock::now();
        if (!client_->Ask(key, timeUs, timeUs)) return false;
        Clock::time_point const now = Clock::now();
        answered_.Add(now - asked);
        if (client_->Records() > 0) {
            if (options_.countsMissed) {
                queryable_.AddWithMissed(now - intended, options_.interval);
            } else {
                queryable_.Add(now - intended);
            }
            break;
        }
        if (receiver_.LatestUs() > timeUs + options_.windowUs) {
            ++lost_;
            break;
        }
        std::this_thread::sleep_for(std::max<Clock::duration>(ASK_PAUSE, (now - begin) / PAUSE_SHARE));
    }
    if (!options_.stays) {
        client_->Leave();
        client_.reset();
    }
    return true;
}
