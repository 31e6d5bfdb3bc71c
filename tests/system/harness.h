// The server as its users see it: a process with ports, files, standard error and an exit status. What cannot go on
// throws a Failure, which GoogleTest reports, and whatever happens no process is left behind.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "wire.h"

namespace systest {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool SANITIZED = true;
#elif defined(__has_feature)
constexpr bool SANITIZED = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#else
constexpr bool SANITIZED = false;
#endif

// Times in microseconds under a window of one second, whose buckets are a quarter of a second wide.
constexpr std::int64_t BUCKET_WIDTH_US = 250000;
constexpr std::int64_t At(std::int64_t bucket, std::int64_t offsetUs = 0) {
    return bucket * BUCKET_WIDTH_US + offsetUs;
}

// A recovery directory after a run that shipped everything.
inline Texts const ONLY_KEY_FILE{"KeyFile"};

// Tries until it holds, up to the deadline. The condition writes what it saw into its argument, which a failure prints.
using Condition = std::function<bool(std::string& seen)>;
void WaitUntil(std::string const& what, Condition const& condition);

void WriteFile(std::filesystem::path const& path, std::string_view bytes);
std::string ReadFile(std::filesystem::path const& path);
Texts List(std::filesystem::path const& directory);              // sorted names
std::string ReadLog(std::filesystem::path const& directory);     // F1, F2, ... joined in the order of numbers
using Files = std::vector<std::pair<std::string, std::string>>;  // names and bytes, sorted by name
Files ReadAll(std::filesystem::path const& directory);
void Fill(std::filesystem::path const& directory, Files const& files);  // in the place of what is there
std::size_t Count(std::string_view text, std::string_view part);

// A connection or a listener; sends and receives are bounded by the deadline.
class Socket {
 public:
    explicit Socket(int descriptor = -1) : descriptor_(descriptor) {}
    Socket(Socket&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}
    Socket& operator=(Socket&& other) noexcept;
    ~Socket() { Close(); }
    void Close();
    void Reset();  // closes with an RST instead of a FIN
    int descriptor() const { return descriptor_; }

    static Socket Connect(int port);
    static Socket Bind(int& port, bool everyAddress);  // a random free port; without listen() it refuses
    bool TrySend(std::string_view bytes) const;        // false when the peer is gone
    void Send(std::string_view bytes) const;
    bool TryReceive(std::string& bytes, std::size_t size) const;  // false when fewer come, errno 0 when none will
    std::string Receive(std::size_t size) const;

 private:
    int descriptor_;
};

struct Launch {
    bool ignoreInterrupt = false;  // SIGINT ignored, as for a background job of a shell
    bool closedErrorPipe = false;  // standard error is a pipe that nobody reads
};

// One server process. Standard error goes to an anonymous file: what the server had written before anything else that a
// test sees of it is always there, and a full pipe never stops it.
class Server {
 public:
    Server(Texts const& arguments, Launch const& launch);
    ~Server();
    Server(Server const&) = delete;
    Server& operator=(Server const&) = delete;
    std::string const& Errors();
    std::string OtherLines();  // standard error without the lines that every run prints
    std::size_t Told(std::string_view text) { return Count(Errors(), text); }
    bool Running();
    bool ListensOn(int port) const;
    long PeakKb() const;    // the most memory it has used, 0 when it has ended
    std::string WaitEnd();  // "exit 0", "signal 2"
    void Kill();
    void Wait(std::string const& what, Condition const& condition);  // fails at once when the server ends
    void WaitTold(std::string const& text, std::size_t times = 1);

 private:
    pid_t pid_ = -1;
    int errorFile_ = -1;
    std::string errors_;
    std::string ending_;  // empty while the process runs
};

// The downstream side: listens on two ports, takes one connection on each and keeps the messages of the first.
class Consumer {
 public:
    // A narrow consumer offers small segments and a small window, so that a pause soon stops the sender.
    explicit Consumer(bool narrow);
    ~Consumer() { Stop(false); }
    Consumer(Consumer const&) = delete;
    Consumer& operator=(Consumer const&) = delete;
    void Pause(bool paused);
    void Vanish() { Stop(true); }  // both connections reset, both ports closed
    std::size_t CycleCount() const { return cycles_; }
    Texts WaitMessages() const;  // all, once the connection has ended

    int ports[2] = {};

 private:
    void Run();
    bool WaitReadable(Socket const& socket) const;
    void Take(std::string_view bytes);
    void Stop(bool reset);

    Socket listeners_[2];
    Socket connections_[2];  // owned by the thread while it runs
    int wake_ = -1;
    std::atomic<bool> paused_ = false;
    std::atomic<bool> stop_ = false;
    std::atomic<bool> ended_ = false;
    std::atomic<std::size_t> cycles_ = 0;
    Texts messages_;  // these two are the thread's until the connection has ended
    std::string partial_;
    std::thread thread_;
};

struct QueryClient {
    QueryClient(Types schema, int port1, int port2)
        : requests(Socket::Connect(port1)), replies(Socket::Connect(port2)), types(std::move(schema)) {}
    void Send(std::string_view request) const { requests.Send(Frame(request)); }
    Records Receive() const { return DecodeReply(types, replies.Receive(FrameSize(replies.Receive(4)))); }
    Records Ask(std::string_view key, std::uint64_t from = 0, std::uint64_t to = UINT64_MAX) const;
    Records AskUntil(std::string_view key, std::size_t records) const;  // being absorbed takes a moment

    Socket requests;
    Socket replies;
    Types types;
};

enum class Downstream { LISTENS, NARROW, REFUSES };

// A server with its consumer, its producer and its directories, on ports that are free.
class Session {
 public:
    explicit Session(Types schema, Downstream downstream = Downstream::LISTENS);
    ~Session();
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;
    std::filesystem::path Make(std::string const& name) const;  // a directory of this session
    Texts Arguments() const;
    void Start();            // returns when the data ports are open, which they are last of all
    std::string RunToEnd();  // for a server that ends by itself

    Server& server() { return *server_; }
    Consumer& consumer() { return *consumer_; }
    QueryClient Query() const { return {types, queryPorts[0], queryPorts[1]}; }
    Socket& producer();  // the first connection of two, which are made when need be
    void Send(Records const& records, std::size_t perFrame = SIZE_MAX);
    void Disconnect();
    void WaitCycles(std::size_t cycles);
    void WaitKeyFile(std::string const& bytes);
    Cycles Shipped() { return DecodeCycles(types, consumer_->WaitMessages()); }
    // The producer leaves and the server ends with status 0; all cycles. Twice is harmless.
    Cycles Finish();
    // Finishes a run that shipped everything: each sent record once and with its own bytes, blocks sorted by time with
    // equal times in the order sent, each key announced once in the order first seen, nothing left but the key file.
    Cycles FinishAndCheck(Records const& sent);

    Types types;
    Launch launch;
    std::string specFile;
    std::string recovery;
    std::string window = "1";  // seconds
    std::string recoverFrom;   // left out when empty
    int dataPorts[2] = {};
    int queryPorts[2] = {};
    int const* takenPort = nullptr;  // one of these four that the test holds; the others are chosen at the start

 private:
    void Spawn();

    Downstream downstream_;
    std::filesystem::path directory_;
    std::unique_ptr<Consumer> consumer_;
    Socket refusing_;  // holds a port without listening, so that nobody else's server is reached by chance
    int refusingPort_ = 0;
    std::unique_ptr<Server> server_;
    Socket producer_[2];
    bool connected_ = false;
};

void ExpectSameRecords(Records expected, Records shipped);
void ExpectOrderedBlocks(Cycles const& cycles, Records const& sent);
Records AllRecords(Cycles const& cycles);
Texts AnnouncedKeys(Cycles const& cycles);

// How many cycles records bring about before the end, by the rules of the buckets alone.
class BucketModel {
 public:
    std::size_t Absorb(Records const& records);
    std::size_t cycles() const { return cycles_; }

 private:
    std::int64_t current_ = 4;
    std::int64_t pending_ = 0;
    std::size_t cycles_ = 0;
};

}  // namespace systest
