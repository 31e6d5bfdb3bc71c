// Producer, consumer and query client in one: measures a server from outside, and verifies what it does.
//
// Prints "listening" when the server may be started, and one JSON object when it has ended.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "drive.h"
#include "load_query_client.h"
#include "producer.h"
#include "receiver.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds PATIENCE{60};  // a peer that neither sends nor takes anything for so long is lost

struct Options : bench_DriveOptions {
    std::vector<unsigned short> query;
    long windowUs = 0;
    bool raw = false;
};

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

bench_Pair ConnectForQueries(Options const& options) {
    bench_Pair pair = bench_Connect(bench_PortsOf(options.query));
    bench_SetPatience(pair.second.Get(), PATIENCE);
    return pair;
}

// Asks for ranges of the hottest key, one after the other, from the first records shipped until the sender is done. The
// ranges lie about the newest time shipped, which is within the window, however far the server is behind the sender.
class Querier {
 public:
    Querier(bench_Drive const& drive, bench_Producer const& sender, bench_Receiver const& receiver,
            Options const& options)
        : key_(drive.workload.HottestKey().wire),
          sender_(sender),
          receiver_(receiver),
          windowUs_(options.windowUs),
          client_(drive.spec, ConnectForQueries(options)) {}

    void Run() {
        unsigned long place = 0;
        while (!sender_.Done()) {
            unsigned long const newestUs = receiver_.LatestUs();
            if (newestUs == 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            place += 0x9e3779b97f4a7c15;  // multiples of the golden ratio are spread evenly
            unsigned long const spreadUs = place % static_cast<unsigned long>(windowUs_ / 2);
            unsigned long const fromUs = newestUs - static_cast<unsigned long>(windowUs_ / 4) + spreadUs;
            auto const start = Clock::now();
            if (!client_.Ask(key_, fromUs, fromUs + RANGE_US - 1)) break;
            records_ += client_.Records();
            if (client_.Records() == 0) {
                ++empty_;
            } else {
                latencies_.push_back(1000 * Seconds(Clock::now() - start));
            }
        }
        client_.Leave();
    }

    [[nodiscard]] nlohmann::json Result() {
        std::sort(latencies_.begin(), latencies_.end());
        nlohmann::json result = {
            {"count", latencies_.size()}, {"empty", empty_}, {"records", records_}, {"fault", Verdict()}};
        if (latencies_.empty()) return result;
        auto const rank = [&](double share) {
            return latencies_[static_cast<std::size_t>(share * static_cast<double>(latencies_.size() - 1))];
        };
        result.update({{"p50_ms", rank(0.5)}, {"p99_ms", rank(0.99)}, {"p999_ms", rank(0.999)}, {"max_ms", rank(1)}});
        return result;
    }

    [[nodiscard]] std::string const& Verdict() const { return client_.Fault(); }

 private:
    static constexpr unsigned long RANGE_US = 10000;

    std::string const& key_;
    bench_Producer const& sender_;
    bench_Receiver const& receiver_;
    long const windowUs_;
    bench_QueryClient client_;
    std::vector<double> latencies_;  // milliseconds, of the replies with records
    unsigned long empty_ = 0;        // replies without a record
    unsigned long records_ = 0;      // in all replies
};

int Run(Options const& options) {
    bench_Drive drive(options);
    bench_SetPatience(drive.producer.first.Get(), PATIENCE);
    bench_Producer sender(drive.workload, drive.producer.first.Get(),
                          {.records = static_cast<unsigned long>(drive.workload.Records())});
    bench_Receiver receiver(drive.consumer.FirstConnection(), options.raw ? nullptr : &drive.check, PATIENCE);
    std::unique_ptr<Querier> querier;
    if (!options.query.empty()) querier = std::make_unique<Querier>(drive, sender, receiver, options);
    double const cpuBefore = bench_CpuSeconds();
    std::thread sending(&bench_Producer::Run, &sender);
    std::thread querying;
    if (querier) querying = std::thread(&Querier::Run, querier.get());
    receiver.Run();
    sending.join();
    if (querier) querying.join();

    std::string reason = options.raw ? "" : drive.check.Verdict();
    if (options.raw && receiver.Bytes() != drive.workload.Bytes().size()) {
        reason = "bytes that went in and never came out";
    }
    if (querier && reason.empty()) reason = querier->Verdict();
    nlohmann::json result = {{"records", drive.workload.Records()},
                             {"bytes", drive.workload.Bytes().size()},
                             {"received_bytes", receiver.Bytes()},
                             {"cycles", drive.check.Cycles()},
                             {"seconds", Seconds(receiver.Last() - sender.Start())},
                             {"send_seconds", Seconds(sender.SendTime())},
                             {"driver_cpu_seconds", receiver.CpuSeconds() - cpuBefore},
                             {"verified", reason.empty()},
                             {"reason", reason}};
    if (querier) result["queries"] = querier->Result();
    return bench_PrintResult(result);
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Drives a server with a workload and verifies what it ships.");
    Options options;
    bench_AddDriveOptions(app, options);
    app.add_option("--keys", options.workload.keys, "distinct keys, at most");
    app.add_option("--late", options.workload.latenessUs, "microseconds that a late record is late at most");
    bench_AddPorts(app, "--query", "the server's query ports: asks while it sends", options.query, false);
    app.add_option("--window", options.windowUs, "microseconds, for the choice of queries");
    app.add_flag("--raw", options.raw, "the server hands the bytes on as they are");
    return bench_Main(app, argc, argv, [&options] { return Run(options); });
}
