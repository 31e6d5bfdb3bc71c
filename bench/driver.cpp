// Producer, consumer and query client in one: measures a server from outside, and verifies what it does.
//
// Prints "listening" when the server may be started, and one JSON object when it has ended.
#include <sys/resource.h>
#include <sys/socket.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
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
    std::vector<unsigned short> query;
    long windowUs = 0;
    bool raw = false;
};

bench_Ports Pair(std::vector<unsigned short> const& ports) { return {ports.at(0), ports.at(1)}; }

double CpuSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    auto const seconds = [](timeval const& t) {
        return static_cast<double>(t.tv_sec) + 1e-6 * static_cast<double>(t.tv_usec);
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double Seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

// A peer that neither sends nor takes anything for so long is lost.
void SetPatience(int connection) {
    timeval const patience = {60, 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
}

// Sends the whole workload, a frame a call, in a thread of its own. Every header begins a segment: it is never cut.
class Sender {
 public:
    Sender(bench_Workload const& workload, int connection) : workload_(workload), connection_(connection) {}

    void Run() {
        start_ = Clock::now();
        std::size_t from = 0;
        for (std::size_t const end : workload_.FrameEnds()) {
            auto const bytes = workload_.Bytes().subspan(from, end - from);
            if (!bench_Send(connection_, bytes, bytes.size(), MSG_EOR)) {
                perror("send records");
                break;
            }
            from = end;
        }
        sendSeconds_ = Seconds(Clock::now() - start_);
        shutdown(connection_, SHUT_WR);
        done_.store(true);
    }

    [[nodiscard]] Clock::time_point Start() const { return start_; }
    [[nodiscard]] double SendSeconds() const { return sendSeconds_; }
    [[nodiscard]] bool Done() const { return done_.load(); }

 private:
    bench_Workload const& workload_;
    int const connection_;
    Clock::time_point start_;
    double sendSeconds_ = 0;
    std::atomic<bool> done_{false};
};

// Asks for ranges of the hottest key, one after the other, from the first records shipped until the sender is done. The
// ranges lie about the newest time shipped, which is within the window, however far the server is behind the sender.
class Querier {
 public:
    Querier(bench_Workload const& workload, suts_tsspec const& spec, Sender const& sender,
            std::atomic<unsigned long> const& shippedUs, Options const& options)
        : key_(workload.HottestKey().wire),
          keyShape_(spec, 0, 1),
          valueShape_(spec, 1, spec.fieldCount),
          sender_(sender),
          shippedUs_(shippedUs),
          windowUs_(options.windowUs),
          pair_(bench_Connect(Pair(options.query))) {
        SetPatience(pair_.second.Get());
    }

    void Run() {
        unsigned long place = 0;
        while (!sender_.Done() && fault_.empty()) {
            unsigned long const newestUs = shippedUs_.load(std::memory_order_relaxed);
            if (newestUs == 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            place += 0x9e3779b97f4a7c15;  // multiples of the golden ratio are spread evenly
            unsigned long const spreadUs = place % static_cast<unsigned long>(windowUs_ / 2);
            unsigned long const fromUs = newestUs - static_cast<unsigned long>(windowUs_ / 4) + spreadUs;
            auto const start = Clock::now();
            if (!Ask(fromUs, fromUs + RANGE_US - 1)) break;
            if (!reply_.empty()) latencies_.push_back(1000 * Seconds(Clock::now() - start));
        }
        shutdown(pair_.first.Get(), SHUT_WR);
    }

    [[nodiscard]] nlohmann::json Result() {
        std::sort(latencies_.begin(), latencies_.end());
        nlohmann::json result = {
            {"count", latencies_.size()}, {"empty", empty_}, {"records", records_}, {"fault", fault_}};
        if (latencies_.empty()) return result;
        auto const rank = [&](double share) {
            return latencies_[static_cast<std::size_t>(share * static_cast<double>(latencies_.size() - 1))];
        };
        result.update({{"p50_ms", rank(0.5)}, {"p99_ms", rank(0.99)}, {"p999_ms", rank(0.999)}, {"max_ms", rank(1)}});
        return result;
    }

    [[nodiscard]] std::string const& Verdict() const { return fault_; }

 private:
    static constexpr unsigned long RANGE_US = 10000;

    // False, and a fault, when the server has gone or the reply is wrong.
    bool Ask(unsigned long fromUs, unsigned long toUs) {
        constexpr std::size_t BODY = SUTS_QUERY_TYPE_BYTES + 2 * SUTS_NUMBER8_BYTES;
        unsigned char query[256];
        unsigned char* at = bench_PutNumber4(query, static_cast<unsigned int>(BODY + key_.size()));
        at = bench_PutNumber4(at, SUTS_QUERY_RANGE);
        at = bench_PutNumber8(at, fromUs);
        at = bench_PutNumber8(at, toUs);
        memcpy(at, key_.data(), key_.size());
        if (!bench_Send(pair_.first.Get(), {query, SUTL_FRAME_HEADER_BYTES + BODY + key_.size()}, sizeof query)) {
            return Fault("no connection for queries");
        }
        unsigned char header[SUTL_FRAME_HEADER_BYTES];
        if (sutl_FileRead(pair_.second.Get(), header, sizeof header) != sizeof header) return Fault("no reply");
        reply_.resize(bench_Number4(header));
        if (sutl_FileRead(pair_.second.Get(), reply_.data(), reply_.size()) != reply_.size()) {
            return Fault("a reply that ends early");
        }
        if (reply_.empty()) ++empty_;
        return Check(fromUs, toUs);
    }

    bool Check(unsigned long fromUs, unsigned long toUs) {
        if (reply_.empty()) return true;
        unsigned char const* at = reply_.data();
        unsigned char const* const end = at + reply_.size();
        for (; at != end; ++records_) {
            unsigned char const* const behindKey = keyShape_.Behind(at, end);
            if (behindKey == nullptr || end - behindKey < SUTS_NUMBER8_BYTES) return Fault("a reply that is cut");
            if (memcmp(at, key_.data(), key_.size()) != 0) return Fault("a reply with another key");
            unsigned long const time = bench_Number8(behindKey);
            if (time < fromUs || time > toUs) return Fault("a reply with a time out of its range");
            at = valueShape_.Behind(behindKey + SUTS_NUMBER8_BYTES, end);
            if (at == nullptr) return Fault("a reply that is cut");
        }
        return true;
    }

    bool Fault(char const* text) {
        fault_ = text;
        return false;
    }

    std::string const& key_;
    bench_Shape const keyShape_;
    bench_Shape const valueShape_;
    Sender const& sender_;
    std::atomic<unsigned long> const& shippedUs_;
    long const windowUs_;
    bench_Pair const pair_;
    std::vector<unsigned char> reply_;
    std::vector<double> latencies_;  // milliseconds, of the replies with records
    unsigned long empty_ = 0;        // replies without a record
    unsigned long records_ = 0;      // in all replies
    std::string fault_;
};

struct Received {
    Clock::time_point last;  // when the last record, or raw byte, had come
    double cpuSeconds = 0;   // of this process until then
    unsigned long bytes = 0;
};

// Reads the connection to its end. Without a check bytes are counted only.
Received Receive(int connection, bench_ShipCheck* check, std::atomic<unsigned long>& shippedUs) {
    constexpr std::size_t ROOM = 1 << 20;
    std::vector<unsigned char> buffer(ROOM);
    Received received;
    std::size_t kept = 0;
    while (true) {
        ssize_t const count = recv(connection, buffer.data() + kept, ROOM - kept, 0);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) perror("receive");
        if (count <= 0) return received;
        received.bytes += static_cast<unsigned long>(count);
        bool newRecords = check == nullptr;
        if (check != nullptr) {
            unsigned long const before = check->Records();
            unsigned char const* const end = buffer.data() + kept + count;
            unsigned char const* const rest = check->Take(buffer.data(), end);
            kept = static_cast<std::size_t>(end - rest);
            memmove(buffer.data(), rest, kept);
            newRecords = check->Records() != before;
            if (newRecords) shippedUs.store(check->LatestUs(), std::memory_order_relaxed);
        }
        if (newRecords) {
            received.last = Clock::now();
            received.cpuSeconds = CpuSeconds();
        }
    }
}

Options Parse(CLI::App& app, int argc, char** argv, Options options) {
    app.add_option("--workload", options.workload.name, "ticks, many or wide")->required();
    app.add_option("--records", options.workload.records, "how many are sent");
    app.add_option("--keys", options.workload.keys, "distinct keys, at most");
    app.add_option("--late", options.workload.latenessUs, "microseconds that a late record is late at most");
    app.add_option("--seed", options.workload.seed);
    app.add_option("--spec", options.specPath, "where the schema file is written")->required();
    app.add_option("--data", options.data, "the server's data ports")->delimiter(',')->expected(2)->required();
    app.add_option("--ship", options.ship, "ports to listen on")->delimiter(',')->expected(2)->required();
    app.add_option("--query", options.query, "the server's query ports: asks while it sends")
        ->delimiter(',')
        ->expected(2);
    app.add_option("--window", options.windowUs, "microseconds, for the choice of queries");
    app.add_flag("--raw", options.raw, "the server hands the bytes on as they are");
    app.parse(argc, argv);
    return options;
}

int Run(Options const& options) {
    std::string_view const schema = bench_Workload::Schema(options.workload.name);
    suts_tsspec spec;
    std::ofstream(options.specPath) << schema;
    if (schema.empty() || spec.Init(options.specPath.c_str()) != suts_tsspec::LOADED) return EXIT_FAILURE;
    bench_Workload const workload(options.workload, spec);
    bench_ShipCheck check(workload, spec);

    sutl_TCPSockServer consumer;
    consumer.Listen(options.ship[0], options.ship[1]);
    puts("listening");
    fflush(stdout);
    bench_Pair const producer = bench_Connect(Pair(options.data));
    if (!consumer.AcceptPair()) return EXIT_FAILURE;
    SetPatience(producer.first.Get());
    SetPatience(consumer.FirstConnection());

    std::atomic<unsigned long> shippedUs{0};
    Sender sender(workload, producer.first.Get());
    std::unique_ptr<Querier> querier;
    if (!options.query.empty()) querier = std::make_unique<Querier>(workload, spec, sender, shippedUs, options);
    double const cpuBefore = CpuSeconds();
    std::thread sending(&Sender::Run, &sender);
    std::thread querying;
    if (querier) querying = std::thread(&Querier::Run, querier.get());
    Received const received = Receive(consumer.FirstConnection(), options.raw ? nullptr : &check, shippedUs);
    sending.join();
    if (querier) querying.join();

    std::string reason = options.raw ? "" : check.Verdict();
    if (options.raw && received.bytes != workload.Bytes().size()) reason = "bytes that went in and never came out";
    if (querier && reason.empty()) reason = querier->Verdict();
    nlohmann::json result = {{"records", workload.Records()},
                             {"bytes", workload.Bytes().size()},
                             {"received_bytes", received.bytes},
                             {"cycles", check.Cycles()},
                             {"seconds", Seconds(received.last - sender.Start())},
                             {"send_seconds", sender.SendSeconds()},
                             {"driver_cpu_seconds", received.cpuSeconds - cpuBefore},
                             {"verified", reason.empty()},
                             {"reason", reason}};
    if (querier) result["queries"] = querier->Result();
    puts(result.dump().c_str());
    return reason.empty() ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        CLI::App app("Drives a server with a workload and verifies what it ships.");
        try {
            return Run(Parse(app, argc, argv, {}));
        } catch (CLI::ParseError const& error) { return app.exit(error); }
    } catch (std::exception const& error) {
        fprintf(stderr, "%s\n", error.what());
        return EXIT_FAILURE;
    }
}
