// A producer that never pauses, and a consumer that reads, then stops reading for a while, then reads again.
//
// Prints "listening" when the server may be started, and one JSON object when the time is over: how many records were
// sent and received by the end of each second. It leaves then, however much the server still has to ship.
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "bytes.h"
#include "pairs.h"
#include "ship_check.h"
#include "sutl_frame.h"
#include "workload.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    bench_WorkloadOptions workload;
    std::string specPath;
    std::vector<unsigned short> data;
    std::vector<unsigned short> ship;
    std::vector<int> seconds;  // before the stall, in it, after it
    long rate = 0;             // records per second at most; 0: flat out
};

// Calls that have waited for so long look again whether the time is over.
void SetPatience(int connection) {
    timeval const patience = {0, 100000};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
}

// Sends a workload over and over, event time going on from lap to lap, in a thread of its own.
class Producer {
 public:
    Producer(bench_Workload const& workload, suts_tsspec const& spec, int connection, long rate)
        : frameEnds_(workload.FrameEnds()),
          bytes_(workload.Bytes().begin(), workload.Bytes().end()),
          keyShape_(spec, 0, 1),
          valueShape_(spec, 1, spec.fieldCount),
          connection_(connection),
          rate_(static_cast<double>(rate)) {
        unsigned long latestUs = 0;
        ForFrames([&](std::span<unsigned char> frame) {
            ForTimes(frame, [&](unsigned char* at) { latestUs = std::max(latestUs, bench_Number8(at)); });
            return true;
        });
        lapUs_ = latestUs + 1 - bench_Workload::START_US;
    }

    void Run() {
        auto due = Clock::now();
        auto const sendFrame = [&](std::span<unsigned char> frame) {
            std::this_thread::sleep_until(due);
            if (!bench_Send(connection_, frame, frame.size(), MSG_EOR)) return false;
            unsigned long records = 0;
            ForTimes(frame, [&](unsigned char* at) {
                bench_PutNumber8(at, bench_Number8(at) + lapUs_);
                ++records;
            });
            sent_.fetch_add(records, std::memory_order_relaxed);
            if (rate_ > 0) {
                std::chrono::duration<double> const share(static_cast<double>(records) / rate_);
                due += std::chrono::duration_cast<Clock::duration>(share);
                due = std::max(due, Clock::now() - LAG_MAX);
            }
            return true;
        };
        while (ForFrames(sendFrame)) {}
    }

    [[nodiscard]] unsigned long Sent() const { return sent_.load(std::memory_order_relaxed); }

 private:
    static constexpr std::chrono::milliseconds LAG_MAX{20};  // is made up for, and no more: the rate is a limit

    // Calls for each frame until a call returns false, and returns whether none did.
    template <typename Call>
    bool ForFrames(Call call) {
        std::size_t from = 0;
        for (std::size_t const end : frameEnds_) {
            if (!call(std::span(bytes_).subspan(from, end - from))) return false;
            from = end;
        }
        return true;
    }

    // Calls with the time of each record of a frame.
    template <typename Call>
    void ForTimes(std::span<unsigned char> frame, Call call) {
        unsigned char* const begin = frame.data();
        unsigned char const* const end = begin + frame.size();
        unsigned char const* at = begin + SUTL_FRAME_HEADER_BYTES;
        while (at != end) {
            unsigned char const* const time = keyShape_.Behind(at, end);
            call(begin + (time - begin));
            at = valueShape_.Behind(time + SUTS_NUMBER8_BYTES, end);
        }
    }

    std::vector<std::size_t> const frameEnds_;
    std::vector<unsigned char> bytes_;
    bench_Shape const keyShape_;
    bench_Shape const valueShape_;
    int const connection_;
    double const rate_;
    unsigned long lapUs_ = 0;  // event time that a lap covers
    std::atomic<unsigned long> sent_{0};
};

// Takes the ship stream while it may, in a thread of its own.
class Consumer {
 public:
    Consumer(bench_Workload const& workload, suts_tsspec const& spec, int connection)
        : check_(workload, spec), connection_(connection) {}

    void Run() {
        constexpr std::size_t ROOM = 1 << 20;
        std::vector<unsigned char> buffer(ROOM);
        std::size_t kept = 0;
        while (!over_.load()) {
            if (paused_.load()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            ssize_t const count = recv(connection_, buffer.data() + kept, ROOM - kept, 0);
            if (count < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            ended_ = count <= 0;
            if (ended_) return;
            unsigned char const* const end = buffer.data() + kept + count;
            unsigned char const* const rest = check_.Take(buffer.data(), end);
            kept = static_cast<std::size_t>(end - rest);
            memmove(buffer.data(), rest, kept);
            received_.store(check_.Records(), std::memory_order_relaxed);
        }
    }

    void Pause(bool paused) { paused_.store(paused); }
    void End() { over_.store(true); }
    [[nodiscard]] unsigned long Received() const { return received_.load(std::memory_order_relaxed); }

    // What was wrong, once the thread has ended; empty when nothing was.
    [[nodiscard]] std::string Verdict() {
        if (ended_) return "a server that has left";
        // One byte is no whole part of a stream: only a check that has found a fault takes it.
        unsigned char const byte = 0;
        return check_.Take(&byte, &byte + 1) == &byte ? "" : check_.Verdict();
    }

 private:
    bench_ShipCheck check_;
    int const connection_;
    bool ended_ = false;
    std::atomic<bool> paused_{false};
    std::atomic<bool> over_{false};
    std::atomic<unsigned long> received_{0};
};

Options Parse(CLI::App& app, int argc, char** argv, Options options) {
    app.add_option("--workload", options.workload.name, "ticks, many or wide")->required();
    app.add_option("--records", options.workload.records, "how many are sent in a lap");
    app.add_option("--seed", options.workload.seed);
    app.add_option("--spec", options.specPath, "where the schema file is written")->required();
    app.add_option("--data", options.data, "the server's data ports")->delimiter(',')->expected(2)->required();
    app.add_option("--ship", options.ship, "ports to listen on")->delimiter(',')->expected(2)->required();
    app.add_option("--seconds", options.seconds, "before the stall, in it, after it")
        ->delimiter(',')
        ->expected(3)
        ->required();
    app.add_option("--rate", options.rate, "records per second at most, 0: flat out");
    app.parse(argc, argv);
    return options;
}

int Run(Options const& options) {
    std::string_view const schema = bench_Workload::Schema(options.workload.name);
    suts_tsspec spec;
    std::ofstream(options.specPath) << schema;
    if (schema.empty() || spec.Init(options.specPath.c_str()) != suts_tsspec::LOADED) return EXIT_FAILURE;
    bench_Workload const workload(options.workload, spec);

    sutl_TCPSockServer ship;
    ship.Listen(options.ship[0], options.ship[1]);
    puts("listening");
    fflush(stdout);
    bench_Pair const data = bench_Connect({options.data[0], options.data[1]});
    if (!ship.AcceptPair()) return EXIT_FAILURE;
    SetPatience(ship.FirstConnection());
    Producer producer(workload, spec, data.first.Get(), options.rate);
    Consumer consumer(workload, spec, ship.FirstConnection());

    int const back = options.seconds[0] + options.seconds[1];
    int const end = back + options.seconds[2];
    nlohmann::json series = nlohmann::json::array();
    auto const start = Clock::now();
    std::thread sending(&Producer::Run, &producer);
    std::thread receiving(&Consumer::Run, &consumer);
    for (int second = 1; second <= end; ++second) {
        std::this_thread::sleep_until(start + std::chrono::seconds(second));
        series.push_back({producer.Sent(), consumer.Received()});
        consumer.Pause(second >= options.seconds[0] && second < back);
    }
    consumer.End();
    receiving.join();
    std::string const reason = consumer.Verdict();
    puts(nlohmann::json({{"series", series}, {"verified", reason.empty()}, {"reason", reason}}).dump().c_str());
    fflush(stdout);
    shutdown(data.first.Get(), SHUT_RDWR);
    sending.join();
    return reason.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("Drives a server flat out while its consumer stalls.");
        try {
            return Run(Parse(app, argc, argv, {}));
        } catch (CLI::ParseError const& error) { return app.exit(error); }
    } catch (std::exception const& error) {
        fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
