// A producer that never pauses, and a consumer that reads, then stops reading for a while, then reads again.
//
// Prints "listening" when the server may be started, and one JSON object when the time is over: how many records were
// sent and received by the end of each second. It leaves then, however much the server still has to ship.
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <nlohmann/json.hpp>
#include <thread>
#include <vector>

#include "drive.h"
#include "producer.h"
#include "receiver.h"

namespace {

constexpr std::chrono::milliseconds LAG_MAX{20};  // is made up for, and no more: the rate is a limit

struct Options : bench_DriveOptions {
    std::vector<int> seconds;  // before the stall, in it, after it
    double rate = 0;           // records per second at most; 0: flat out
};

int Run(Options const& options) {
    bench_Drive drive(options);
    bench_Producer producer(drive.workload, drive.producer.first.Get(), {.rate = options.rate, .lagMax = LAG_MAX});
    int const back = options.seconds[0] + options.seconds[1];
    int const end = back + options.seconds[2];
    bench_Receiver receiver(drive.consumer.FirstConnection(), &drive.check, std::chrono::seconds(end));
    nlohmann::json series = nlohmann::json::array();
    auto const start = std::chrono::steady_clock::now();
    std::thread sending(&bench_Producer::Run, &producer);
    std::thread receiving(&bench_Receiver::Run, &receiver);
    for (int second = 1; second <= end; ++second) {
        std::this_thread::sleep_until(start + std::chrono::seconds(second));
        series.push_back({producer.Records(), receiver.Records()});
        receiver.Pause(second >= options.seconds[0] && second < back);
    }
    receiver.End();
    receiving.join();
    std::string const reason = receiver.Ended() ? "a server that has left" : drive.check.Fault();
    int const status = bench_PrintResult({{"series", series}, {"verified", reason.empty()}, {"reason", reason}});
    shutdown(drive.producer.first.Get(), SHUT_RDWR);
    sending.join();
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Drives a server flat out while its consumer stalls.");
    Options options;
    bench_AddDriveOptions(app, options);
    app.add_option("--seconds", options.seconds, "before the stall, in it, after it")
        ->delimiter(',')
        ->expected(3)
        ->required();
    app.add_option("--rate", options.rate, "records per second at most, 0: flat out");
    return bench_Main(app, argc, argv, [&options] { return Run(options); });
}
